// Feeds arbitrary octets to the SNMPv3 notification decoder with a table
// of users under every kind of protocol, then asks for the answer owed.
// Buffers are exactly the size of their contents, so any read past them is
// caught; a decoded record must be an SNMPv1 trap, and an answer must be
// an SNMPv3 message that fits where it was written.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "usm.h"

namespace {

usm_table *make_table() {
  static const unsigned char kLocal[] = {0x80, 0x00, 0xC3, 0x4F, 0x05, 1, 2, 3, 4, 5, 6, 7, 8};
  static const unsigned char kSender[] = {0x80, 0x00, 0x00, 0x00, 0x01, 0x02, 0x03, 0x04};
  usm_table *table = usm_table_new(kLocal, sizeof kLocal, 1);
  usm_table_add_user(table, kSender, sizeof kSender, "shaAes", USM_AUTH_SHA1, "authpass123",
                     USM_PRIV_AES128, "privpass123");
  usm_table_add_user(table, kSender, sizeof kSender, "md5Des", USM_AUTH_MD5, "authpass123",
                     USM_PRIV_DES, "privpass123");
  usm_table_add_user(table, kSender, sizeof kSender, "plain", USM_AUTH_NONE, nullptr,
                     USM_PRIV_NONE, nullptr);
  usm_table_add_user(table, nullptr, 0, "informer", USM_AUTH_SHA256, "authpass123",
                     USM_PRIV_AES256, "privpass123");
  return table;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static usm_table *table = make_table();
  std::vector<unsigned char> message(data, data + size);
  static snmp_trap_infoEMS trap;
  static SnmpVarBindEMS vars[8];
  memset(&trap, 0, sizeof trap);
  snmp_trap_reset_capacities(&trap, size > 0 ? data[0] % 9 : 8);
  usm_notification_info about;
  int result = snmp_parse_notification_v3(message.data(), static_cast<int>(size), 0x0100007F,
                                          table, &trap, vars, &about);
  if (result == USM_OK &&
      (trap.elen < 2 || trap.elen > SNMP_OID_MAX || trap.gen > 6 || trap.vars > trap.maxvars ||
       about.security_level < USM_NO_AUTH_NO_PRIV || about.security_level > USM_AUTH_PRIV))
    abort();
  if (about.version != SNMP_MESSAGE_V3) return 0;
  std::vector<unsigned char> answer(size + 256);
  int length = static_cast<int>(answer.size());
  if (usm_build_answer(table, message.data(), static_cast<int>(size), answer.data(), &length) == 0) {
    if (length <= 0 || length > static_cast<int>(answer.size())) abort();
    answer.resize(static_cast<size_t>(length));
    usm_notification_info answered;
    snmp_trap_reset_capacities(&trap, 8);
    snmp_parse_notification_v3(answer.data(), length, 0, table, &trap, vars, &answered);
    if (answered.version != SNMP_MESSAGE_V3) abort();
  }
  return 0;
}
