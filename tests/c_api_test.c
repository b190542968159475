/* Every public header compiles as C11 (each alone too: see the units built
 * beside this file), and the library links from C.
 * Exits non-zero on the first failed check. */
#include <stdio.h>
#include <string.h>

#include "alert_mapping.h"
#include "asn1.h"
#include "codeptcat.h"
#include "env_probe.h"
#include "event.h"
#include "events_msg.h"
#include "kz_mib.h"
#include "kz_platform.h"
#include "log_trace.h"
#include "oidtree.h"
#include "snmp.h"
#include "snmp_call.h"
#include "snmp_clnt.h"
#include "trp_format.h"
#include "trapspec_writer.h"
#include "usm.h"

_Static_assert(sizeof(trap_arg) == 8, "format argument layout");
_Static_assert(sizeof(((trap_record *)0)->name) == TRAP_NAME_SIZE, "trap name size");

#define CHECK(cond)                                              \
  do {                                                           \
    if (!(cond)) {                                               \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      return 1;                                                  \
    }                                                            \
  } while (0)

int main(void) {
  snmp_trap_infoEMS trap;
  EMSsnmpVarBind vars[1];
  unsigned char message[256];
  int length = sizeof message;
  static const ObjectIdEMS enterprise[] = {1, 3, 6, 1, 4, 1, 49999, 6, 3, 1};

  memset(&trap, 0, sizeof trap);
  memcpy(trap.community, "public", 6);
  trap.clen = 6;
  memcpy(trap.enterprise, enterprise, sizeof enterprise);
  trap.elen = 10;
  trap.agent = 0x7F000001;
  trap.gen = 6;
  trap.specific = 1;
  trap.vars = 1;
  memcpy(vars[0].oid, enterprise, sizeof enterprise);
  vars[0].oid_length = 10;
  vars[0].type = ASN_INTEGER;
  vars[0].val.integer = -5;
  vars[0].val_len = 4;
  CHECK(snmpBuildTrapEMS(message, &length, &trap, NULL, vars) == 0);

  memset(&trap, 0, sizeof trap);
  trap.clen = 127;
  trap.elen = 128;
  trap.maxvars = 1;
  CHECK(snmp_parse_trap(message, length, &trap, NULL, vars) == 0);
  CHECK(strcmp((char *)trap.community, "public") == 0);
  CHECK(trap.elen == 10 && trap.enterprise[6] == 49999);
  CHECK(trap.vars == 1 && vars[0].val.integer == -5);
  snmp_trap_reset_capacities(&trap, 1);
  CHECK(trap.clen == 127 && trap.elen == 128 && trap.maxvars == 1);
  {
    snmp_notification_info about;
    ObjectIdEMS trap_oid[SNMP_OID_MAX];
    CHECK(snmp_parse_notification(message, length, 0, &trap, vars, &about) ==
          SNMP_NOTIFICATION_OK);
    CHECK(about.version == SNMP_MESSAGE_V1 && about.pdu_type == SNMP_TRAP_PDU);
    CHECK(snmp_notification_oid(&trap, trap_oid, SNMP_OID_MAX) == 12 && trap_oid[11] == 1);
    CHECK(strlen(snmp_notification_error(SNMP_NOTIFICATION_COUNTER64)) > 0);
    snmp_trap_reset_capacities(&trap, 1);
  }
  CHECK(recv_trap(0, NULL, EVENT_TRANS_UNIX, NULL, NULL, NULL) == EVENT_RECV_ERROR);
  CHECK(tracelogfp == NULL && snmptracemaskEMS == 0);
  CHECK(open_event(NULL, 1, "/nonexistent", EVENT_TRANS_UNIX) == -1);
  CHECK(strlen(getApplName(2)) > 0 && kzc_recv_event == NULL);

  {
    trap_element element;
    uint32_t ticks = 12000;
    char text[16];
    memset(&element, 0, sizeof element);
    makeFormatString(doStrdup("$A: $1"), &element);
    CHECK(element.num_args == 2 && strcmp(element.format, "%s: %s") == 0);
    freeTrapElementContents(&element);
    CHECK(ICFEvtTimeInt2String(&ticks, text) == 0 && strcmp(text, "2m") == 0);
    CHECK(isCnode() == 0 && trpFormatExpandSourceFiles == 1);
    CHECK(stringToSeverity(severityToString(5)) == 5 && strictHex == 0 && isTrapJQ(6, 1500, NULL) == 0);
  }
  {
    oidnode *names = NULL;
    const ObjectIdEMS platform[] = {1, 3, 6, 1, 4, 1, 49999};
    CHECK(TreeInsertOid(&names, "1.3.6.1.4.1.49999", buildOidData("platform")) != NULL);
    CHECK(strcmp(TreeLookupOid(names, platform, 7), "platform") == 0);
    oidFreeTree(names);
    CHECK(strcmp(codeptstr(9, 5), "0005") == 0);
  }
  {
    unsigned int oid[4];
    unsigned long oid_len = 0;
    alert_record terminator;
    CHECK(cname_to_oid((char *)"1.3.6.1", oid, &oid_len) == 0 && oid_len == 4);
    CHECK(strcmp(oid_to_string(oid, oid_len), "1.3.6.1") == 0);
    memset(&terminator, 0, sizeof terminator);
    CHECK(insert_malloc_alert_record(NULL, (char *)"absent", 0, 0, &terminator) == -1);
  }
  return 0;
}
