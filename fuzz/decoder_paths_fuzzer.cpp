// Decodes each input with both paths of the trap decoder and of the
// response decoder, the one-pass one and the stepwise one it falls back
// to, and checks that they agree: whatever the one-pass path accepts, the
// stepwise path accepts with the same records.  Whatever either accepts
// must also stay within the records: no length above its member's
// capacity, no count above the array's.  The codec's limit classifier
// reads each input too.  Read as a bare binding list, each input must
// give the same bindings under the trap's and the response's rules unless
// an Opaque value tells them apart.  The first octet, when present, picks
// a binding capacity from 0 to 8.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ber_reader.h"
#include "decode_paths.h"

namespace {

constexpr int kCapacity = 8;

void require(bool holds) {
  if (!holds) abort();
}

bool integer_type(unsigned char type) { return type == ASN_INTEGER || (type >= ASN_IPADDRESS && type <= ASN_TIMETICKS); }

// The binding's lengths are within its members, as a C caller trusts them.
void check_bounds(const SnmpVarBindEMS &b) {
  require(b.oid_length <= SNMP_OID_MAX);
  if (b.undecoded) return require(b.val_len == 0);
  if (integer_type(b.type)) return require(b.val_len == 4);
  if (b.type == ASN_OCTET_STR || b.type == ASN_OPAQUE) return require(b.val_len <= SNMP_STRING_MAX);
  if (b.type == ASN_OBJECT_ID) return require(b.val_len >= 1 && b.val_len <= SNMP_OID_MAX);
  require(b.type == ASN_NULL && b.val_len == 0);
}

bool same_binding(const SnmpVarBindEMS &a, const SnmpVarBindEMS &b) {
  if (a.oid_length != b.oid_length || a.type != b.type || a.val_len != b.val_len ||
      a.undecoded != b.undecoded || memcmp(a.oid, b.oid, a.oid_length * sizeof(ObjectIdEMS)) != 0)
    return false;
  if (integer_type(a.type)) return a.val.integer == b.val.integer;
  if (a.type == ASN_OBJECT_ID) return memcmp(a.val.objid, b.val.objid, a.val_len * sizeof(ObjectIdEMS)) == 0;
  return memcmp(a.val.string, b.val.string, a.val_len) == 0;
}

void check_trap(unsigned char *message, int size, int maxvars) {
  static snmp_trap_infoEMS fast, slow;
  static SnmpVarBindEMS fast_vars[kCapacity], slow_vars[kCapacity];
  memset(&fast, 0, sizeof fast);
  memset(&slow, 0, sizeof slow);
  snmp_trap_reset_capacities(&fast, maxvars);
  snmp_trap_reset_capacities(&slow, maxvars);
  bool fast_accepted = events::paths::trap_fast(message, size, &fast, fast_vars);
  int slow_result = events::paths::trap_reporting(message, size, &slow, slow_vars);
  if (slow_result == 0) {
    require(slow.clen >= 0 && slow.clen < SNMP_COMMUNITY_MAX && slow.elen >= 1 && slow.elen <= SNMP_OID_MAX);
    require(slow.vars >= 0 && slow.vars <= maxvars);
    for (int i = 0; i < slow.vars; ++i) check_bounds(slow_vars[i]);
  }
  if (!fast_accepted) return;
  require(slow_result == 0);
  require(fast.clen == slow.clen && memcmp(fast.community, slow.community, fast.clen + 1) == 0);
  require(fast.elen == slow.elen &&
          memcmp(fast.enterprise, slow.enterprise, fast.elen * sizeof(ObjectIdEMS)) == 0);
  require(fast.agent == slow.agent && fast.gen == slow.gen && fast.specific == slow.specific &&
          fast.time == slow.time && fast.vars == slow.vars);
  for (int i = 0; i < fast.vars; ++i) require(same_binding(fast_vars[i], slow_vars[i]));
}

void check_response(unsigned char *message, int size, int maxvars) {
  static snmp_info fast, slow;
  static SnmpVarBindEMS fast_vars[kCapacity], slow_vars[kCapacity];
  memset(&fast, 0, sizeof fast);
  memset(&slow, 0, sizeof slow);
  fast.clen = slow.clen = SNMP_COMMUNITY_MAX;
  fast.maxvars = slow.maxvars = maxvars;
  bool fast_accepted = events::paths::response_fast(message, size, &fast, fast_vars);
  unsigned char community[SNMP_COMMUNITY_MAX + 1];
  int slow_result = events::paths::response_reporting(message, size, &slow, community, slow_vars);
  const int decoded = std::min(slow.vars, maxvars);
  if (slow_result == 0) {
    require(slow.clen >= 0 && slow.clen <= SNMP_COMMUNITY_MAX);
    // One binding more than the array holds is counted, not decoded.
    require(slow.vars >= 0 && slow.vars <= maxvars + 1);
    for (int i = 0; i < decoded; ++i) check_bounds(slow_vars[i]);
  }
  if (!fast_accepted) return;
  require(slow_result == 0);
  require(fast.clen == slow.clen && memcmp(fast.community, slow.community, fast.clen) == 0);
  require(fast.command == slow.command && fast.reqid == slow.reqid && fast.errstat == slow.errstat &&
          fast.errindex == slow.errindex && fast.vars == slow.vars);
  for (int i = 0; i < decoded; ++i) require(same_binding(fast_vars[i], slow_vars[i]));
}

// The list rules differ only in Opaque values: whatever the response's
// rule reads, the trap's reads the same; where the trap's rule reads no
// Opaque, the response's reads it too.
void check_list_rules(const unsigned char *list, int size, int capacity) {
  static SnmpVarBindEMS trap_vars[kCapacity], response_vars[kCapacity];
  auto keep = [](const SnmpVarBindEMS &) { return false; };
  bool trap_more = false, response_more = false;
  int trap = events::ber::binding_list(list, list + size, trap_vars, capacity, true, &trap_more, keep);
  int response =
      events::ber::binding_list(list, list + size, response_vars, capacity, false, &response_more, keep);
  bool opaque = false;
  for (int i = 0; i < trap; ++i) opaque |= trap_vars[i].type == ASN_OPAQUE;
  if (response < 0 && (trap < 0 || opaque)) return;
  require(trap == response && trap_more == response_more);
  for (int i = 0; i < trap; ++i) require(same_binding(trap_vars[i], response_vars[i]));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<unsigned char> message(data, data + size);  // exactly its size
  const int maxvars = size > 0 ? data[0] % (kCapacity + 1) : kCapacity;
  check_trap(message.data(), static_cast<int>(size), maxvars);
  check_response(message.data(), static_cast<int>(size), maxvars);
  check_list_rules(message.data(), static_cast<int>(size), maxvars);
  int limit = snmp_message_limit(message.data(), static_cast<int>(size));
  require(limit >= SNMP_LIMIT_NONE && limit <= SNMP_LIMIT_COMMUNITY);
  return 0;
}
