// Feeds arbitrary octets to the response decoder, as an agent's datagram
// would arrive.  The message is copied to a buffer of exactly its size so
// any read past it is caught; the community gets the full 128 octets the
// call layer gives it.
#include <cstdint>
#include <cstring>
#include <vector>

#include "snmp_clnt.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<unsigned char> message(data, data + size);
  static snmp_info response;
  static SnmpVarBindEMS vars[10];
  memset(&response, 0, sizeof response);
  response.clen = SNMP_COMMUNITY_MAX;
  // The first octet, when present, picks a binding capacity from 0 to 10.
  response.maxvars = size > 0 ? data[0] % 11 : 10;
  snmp_parse(message.data(), static_cast<int>(message.size()), &response, vars);
  return 0;
}
