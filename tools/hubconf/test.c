/* hubconf test: renders a trap offline, as the operator's event display
 * would show it, with the configuration in force and no hub or network.
 *
 *   hubconf test [--agent ADDR] [--community TEXT] ENTERPRISE GENERIC SPECIFIC
 *                [OID TYPE VALUE]...
 *   hubconf test [--agent ADDR] --datagram FILE
 *
 * The trap is given as hubevent send trap takes it, or as a captured SNMP
 * message (an SNMPv1 trap or an SNMPv2c notification, as a trap port
 * receives it).  The formatter loads the configuration the way every
 * application does: hubd.conf from $KZHUBDCONF, else the configuration
 * directory ($KZ_CONF_DIR) and C/hubd.conf, with its MIB labels and OID
 * names.  Exit status 0 with the text, 1 when the configuration cannot be
 * loaded or the datagram not decoded, 2 for bad usage. */
#include <arpa/inet.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "../trap_args.h"
#include "hubconf.h"
#include "snmp.h"
#include "trp_format.h"

#define MAX_BINDINGS 64
#define TEXT_SIZE 65536

static const char usage_text[] =
    "usage: hubconf test [--agent ADDR] [--community TEXT] ENTERPRISE GENERIC SPECIFIC\n"
    "                    [OID TYPE VALUE]...\n"
    "       hubconf test [--agent ADDR] --datagram FILE\n"
    "  Shows a trap as the event display would, by the configuration in force\n"
    "  ($KZHUBDCONF, else $KZ_CONF_DIR/C/hubd.conf); no hub or network is used.\n"
    "  TYPE is one of i u c t a s x d o n, as for snmptrap.  FILE holds one SNMP\n"
    "  message as a trap port receives it (SNMPv1 trap or SNMPv2c notification).\n";

static int usage_error(const char *why) {
  fprintf(stderr, "hubconf test: %s\n%s", why, usage_text);
  return 2;
}

/* Reads one captured message into the trap; 0, or 1 after a message. */
static int read_datagram(const char *file, uint32_t source, snmp_trap_infoEMS *trap,
                         SnmpVarBindEMS *vars) {
  static unsigned char message[65536];
  size_t length;
  int result;
  FILE *in = fopen(file, "rbe");
  if (in == NULL) {
    fprintf(stderr, "hubconf test: %s: %s\n", file, strerror(errno));
    return 1;
  }
  length = fread(message, 1, sizeof message, in);
  result = ferror(in) ? -1 : 0;
  fclose(in);
  if (result != 0) {
    fprintf(stderr, "hubconf test: %s: cannot be read\n", file);
    return 1;
  }
  trap->clen = SNMP_COMMUNITY_MAX;
  trap->elen = SNMP_OID_MAX;
  trap->maxvars = MAX_BINDINGS;
  result = snmp_parse_notification(message, (int)length, source, trap, vars, NULL);
  if (result != SNMP_NOTIFICATION_OK) {
    fprintf(stderr, "hubconf test: %s: %s\n", file, snmp_notification_error(result));
    return 1;
  }
  return 0;
}

int hubconf_test(int argc, char **argv) {
  static snmp_trap_infoEMS trap;
  static SnmpVarBindEMS vars[MAX_BINDINGS];
  static char text[TEXT_SIZE];
  const char *datagram = NULL, *community = "public";
  struct in_addr agent;
  char *host = NULL, why[256];
  trap_record *chosen = NULL;
  enterprise_info *enterprise = NULL;
  int i, category;
  agent.s_addr = htonl(INADDR_LOOPBACK);
  for (i = 1; i < argc && argv[i][0] == '-' && argv[i][1] != '\0' && argv[i][1] != '.'; ++i) {
    if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) {
      fputs(usage_text, stdout);
      return 0;
    }
    if (i + 1 >= argc) return usage_error("an option lacks its value");
    if (strcmp(argv[i], "--datagram") == 0) {
      datagram = argv[++i];
    } else if (strcmp(argv[i], "--community") == 0) {
      community = argv[++i];
    } else if (strcmp(argv[i], "--agent") == 0) {
      if (inet_pton(AF_INET, argv[++i], &agent) != 1) return usage_error("bad agent address");
    } else {
      return usage_error("unknown option");
    }
  }
  if (datagram != NULL) {
    if (i != argc) return usage_error("--datagram takes no trap arguments");
    if (read_datagram(datagram, agent.s_addr, &trap, vars) != 0) return 1;
  } else {
    if (tools_read_trap(argc - i, argv + i, &trap, vars, MAX_BINDINGS, why, sizeof why) != 0)
      return usage_error(why);
    if (strlen(community) >= SNMP_COMMUNITY_MAX) return usage_error("community too long");
    memcpy(trap.community, community, strlen(community));
    trap.clen = (int32_t)strlen(community);
    trap.agent = agent.s_addr;
  }
  /* The formatter answers 2 both for a format of category 2 and for a
   * configuration that cannot be loaded; the format it would choose tells
   * them apart. */
  category = trp_format(QMWEVENT_USER, &trap, text, sizeof text, vars, &host, 0);
  find_trap_format(trap.enterprise, (unsigned)trap.elen, trap.gen, trap.specific, &chosen,
                   &enterprise, host);
  if (category == 2 && (!have_read_hubdconf || chosen->category_number != 2)) {
    fprintf(stderr, "hubconf test: %s\n", text);
    return 1;
  }
  if (category == -1) {
    printf("(not shown on the event display)\n");
    return 0;
  }
  fputs(text, stdout);
  if (text[0] != '\0' && text[strlen(text) - 1] != '\n') putchar('\n');
  if (category == -2) fprintf(stderr, "hubconf test: the text was cut at %d bytes\n", TEXT_SIZE);
  return 0;
}
