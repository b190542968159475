// Feeds arbitrary octets to the response decoder, as an agent's datagram
// would arrive.  The message is copied to a buffer of exactly its size so
// any read past it is caught; the community gets the full 128 octets the
// call layer gives it.  What it accepts must be safe to read as a C caller
// reads it: every length within its member, the count within the array
// (plus the one binding counted past it), and every binding either
// decoded or flagged as not decoded.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "snmp_clnt.h"

namespace {

constexpr int kCapacity = 10;

void require(bool holds) {
  if (!holds) abort();
}

void check_binding(const SnmpVarBindEMS &b) {
  require(b.oid_length >= 1 && b.oid_length <= SNMP_OID_MAX);
  require(b.undecoded == 0 || b.undecoded == 1);
  if (b.undecoded) return require(b.val_len == 0);
  switch (b.type) {
    case ASN_INTEGER:
    case ASN_IPADDRESS:
    case ASN_COUNTER:
    case ASN_GAUGE:
    case ASN_TIMETICKS:
      return require(b.val_len == 4);
    case ASN_OCTET_STR:
      return require(b.val_len <= SNMP_STRING_MAX);
    case ASN_OBJECT_ID:
      return require(b.val_len >= 1 && b.val_len <= SNMP_OID_MAX);
    case ASN_NULL:
      return require(b.val_len == 0);
    default:
      abort();  // any other type is never decoded
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<unsigned char> message(data, data + size);
  static snmp_info response;
  static SnmpVarBindEMS vars[kCapacity];
  memset(&response, 0, sizeof response);
  // Values a decoder forgets to set show as lengths out of range.
  memset(vars, 0xA5, sizeof vars);
  response.clen = SNMP_COMMUNITY_MAX;
  // The first octet, when present, picks a binding capacity from 0 to 10.
  response.maxvars = size > 0 ? data[0] % (kCapacity + 1) : kCapacity;
  if (snmp_parse(message.data(), static_cast<int>(message.size()), &response, vars) != 0) return 0;
  require(response.clen >= 0 && response.clen <= SNMP_COMMUNITY_MAX);
  require(response.vars >= 0 && response.vars <= response.maxvars + 1);
  // More than the array holds is reported only when the array is full.
  const int decoded = response.vars > response.maxvars ? response.maxvars : response.vars;
  for (int i = 0; i < decoded; ++i) check_binding(vars[i]);
  return 0;
}
