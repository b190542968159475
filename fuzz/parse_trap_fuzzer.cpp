// Feeds arbitrary octets to the trap decoder, as a daemon stream or a UDP
// socket would.  The message is copied to a buffer of exactly its size so
// any read past it is caught.
#include <cstdint>
#include <cstring>
#include <vector>

#include "snmp.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<unsigned char> message(data, data + size);
  static snmp_trap_infoEMS trap;
  static SnmpVarBindEMS vars[8];
  memset(&trap, 0, sizeof trap);
  trap.clen = 127;
  trap.elen = 128;
  // The first octet, when present, picks a binding capacity from 0 to 8.
  trap.maxvars = size > 0 ? data[0] % 9 : 8;
  snmp_parse_trap(message.data(), static_cast<int>(message.size()), &trap, nullptr, vars);
  return 0;
}
