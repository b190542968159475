// Feeds arbitrary octets to the notification decoder, as a trap port
// would, and answers what decodes as an inform.  Buffers are exactly the
// size of their contents, so any read past them is caught.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "snmp.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<unsigned char> message(data, data + size);
  static snmp_trap_infoEMS trap;
  static SnmpVarBindEMS vars[8];
  memset(&trap, 0, sizeof trap);
  // The first octet, when present, picks a binding capacity from 0 to 8.
  snmp_trap_reset_capacities(&trap, size > 0 ? data[0] % 9 : 8);
  snmp_notification_info about;
  int result = snmp_parse_notification(message.data(), static_cast<int>(message.size()),
                                       0x0100007F, &trap, vars, &about);
  if (result != SNMP_NOTIFICATION_OK || about.pdu_type == SNMP_TRAP_PDU) return 0;
  if (about.pdu_type != SNMP_TRAP2_PDU && about.pdu_type != SNMP_INFORM_PDU) abort();
  // A translated record always has an SNMPv1 form and a trap identifier.
  if (trap.elen < 2 || trap.elen > SNMP_OID_MAX || trap.gen > 6 || trap.vars > trap.maxvars)
    abort();
  ObjectIdEMS identifier[SNMP_OID_MAX + 2];
  if (snmp_notification_oid(&trap, identifier, SNMP_OID_MAX + 2) < 0) abort();
  if (about.pdu_type == SNMP_INFORM_PDU) {
    std::vector<unsigned char> response(size + 16);
    int length = static_cast<int>(response.size());
    if (snmp_build_inform_response(message.data(), static_cast<int>(size), response.data(),
                                   &length) != 0)
      abort();
  }
  return 0;
}
