/* hubconf match: says which trap format a trap would get, and why.
 *
 *   hubconf match [--file FILE] ENTERPRISE GENERIC SPECIFIC [--node HOST]
 *
 * Reads the configuration as `hubconf check` does, then follows the
 * formatter's choice: the most specific configured enterprise that is a
 * prefix of ENTERPRISE, its exact format for the numbers and node, else its
 * wildcard formats, then each less specific enterprise, and finally the
 * built-in fallback.  Every enterprise tried is listed with the reason it
 * was passed over, then the chosen format with its node list, category and
 * text.  Exit status 0, 1 when the configuration cannot be read, 2 for bad
 * usage. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "hubconf.h"
#include "kz_platform.h"
#include "trp_format.h"

static void usage(FILE *out) {
  fputs("usage: hubconf match [--file FILE] ENTERPRISE GENERIC SPECIFIC [--node HOST]\n"
        "  Shows which trap format of the configuration (default: $KZHUBDCONF, else the\n"
        "  configuration directory's C/hubd.conf) a trap would get and why.\n",
        out);
}

static void print_oid(const ObjectIdEMS *oid, unsigned long length) {
  unsigned long i;
  for (i = 0; i < length; ++i) printf(".%u", (unsigned)oid[i]);
}

static int parse_number(const char *text, long low, long high, long *value) {
  char *end = NULL;
  errno = 0;
  *value = strtol(text, &end, 0);
  return *text != '\0' && *end == '\0' && errno == 0 && *value >= low && *value <= high;
}

/* Explains why `enterprise` gave no format for the trap. */
static void explain_miss(const enterprise_info *enterprise, long generic, long specific,
                         const char *node) {
  const trap_record *first = enterprise->trap_rec_list_head.next;
  printf("    no format %ld/%ld", generic, specific);
  if (node != NULL) printf(" for node %s", node);
  if (first != NULL && first->generic_trap == -1)
    printf(", and no wildcard format lists %s", node != NULL ? node : "every node");
  printf("\n");
}

static void print_choice(const trap_record *record, const enterprise_info *enterprise) {
  char nodes[1024];
  const char *category = NULL;
  if (record->category_number >= 0 && record->category_number < EMS_MAX_CATEGORIES)
    category = EMScategories[record->category_number];
  trpFmtSprintNodes((trap_record *)record, nodes, sizeof nodes);
  printf("format %s\n", record->name);
  if (enterprise != NULL) {
    printf("  enterprise  %s ", enterprise->enterprise_name);
    print_oid(enterprise->enterprise_oid, enterprise->oid_len);
    printf("\n");
  } else {
    printf("  enterprise  (none: the built-in fallback)\n");
  }
  printf("  numbers     generic %d, specific %d%s\n", record->generic_trap, record->specific_trap,
         record->generic_trap == -1 ? " (wildcard)" : "");
  printf("  nodes       %s\n", nodes);
  printf("  category    %d \"%s\"\n", record->category_number, category ? category : "");
  printf("  severity    %s\n", severityToString(record->severity));
  if (record->description.rawstring != NULL)
    printf("  text        %s\n", record->description.rawstring);
}

int hubconf_match(int argc, char **argv) {
  const char *node = NULL, *words[3];
  int nwords = 0, i;
  long generic, specific;
  ObjectIdEMS oid[SNMP_OID_MAX];
  int oid_len = SNMP_OID_MAX;
  char *error = NULL;
  enterprise_info *candidate = NULL, *chosen_enterprise = NULL;
  trap_record *chosen = NULL;

  for (i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) {
      usage(stdout);
      return 0;
    } else if (strcmp(argv[i], "--node") == 0 && i + 1 < argc) {
      node = argv[++i];
    } else if (strcmp(argv[i], "--file") == 0 && i + 1 < argc) {
      setHubdConfFile(argv[++i]);
    } else if (nwords < 3 && argv[i][0] != '-') {
      words[nwords++] = argv[i];
    } else {
      usage(stderr);
      return 2;
    }
  }
  if (nwords != 3 || KZmib_read_numeric_objid(words[0], oid, &oid_len) != 0 || oid_len == 0 ||
      !parse_number(words[1], -1, 6, &generic) ||
      !parse_number(words[2], 0, 4294967295L, &specific)) {
    fprintf(stderr, "hubconf: match takes a dotted ENTERPRISE, GENERIC 0-6 and SPECIFIC\n");
    usage(stderr);
    return 2;
  }
  if (read_trapspec_file(&error) != 0) {
    fprintf(stderr, "hubconf: %s: %s\n", getHubdConfFile(), error != NULL ? error : "");
    return 1;
  }

  printf("trap ");
  print_oid(oid, (unsigned long)oid_len);
  printf(" %ld/%ld from %s\n", generic, specific, node != NULL ? node : "any node");
  find_enterprise(oid, (unsigned long)oid_len, &candidate);
  if (candidate == NULL) printf("  no configured enterprise is a prefix of it\n");
  for (; candidate != NULL; candidate = candidate->next,
                            find_enterprise_relative(oid, (unsigned long)oid_len, &candidate)) {
    trap_record *record;
    printf("  enterprise %s ", candidate->enterprise_name);
    print_oid(candidate->enterprise_oid, candidate->oid_len);
    printf("\n");
    find_trap_format(candidate->enterprise_oid, (unsigned)candidate->oid_len, (unsigned)generic,
                     (unsigned)specific, &record, &chosen_enterprise, (char *)node);
    /* Asked with the enterprise's own identifier, the formatter stops at
     * this enterprise when it has a format for the trap. */
    if (chosen_enterprise == candidate) {
      printf("    %s format %s\n", record->generic_trap == -1 ? "wildcard" : "exact",
             record->name);
      break;
    }
    explain_miss(candidate, generic, specific, node);
  }
  find_trap_format(oid, (unsigned)oid_len, (unsigned)generic, (unsigned)specific, &chosen,
                   &chosen_enterprise, (char *)node);
  printf("\n");
  print_choice(chosen, chosen_enterprise);
  return 0;
}
