// Decodes each input as a trap and as a response, and checks what a
// caller and the reports rely on:
// - whatever is accepted stays within the records: no length above its
//   member's capacity, no count above the array's;
// - an accepted message that the encoder can write again decodes from
//   that writing to the same records;
// - a refusal names a step and octets inside the input, and a binding the
//   single pass refuses is refused by the reporting primitives too, so the
//   report says why;
// - read as a bare binding list, each input gives the same bindings under
//   the trap's and the response's rules unless an Opaque value or a NULL
//   with contents tells them apart.
// The first octet, when present, picks a binding capacity from 0 to 8.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "message_decoders.h"

namespace {

namespace decode = events::decode;
namespace ber = events::ber;

constexpr int kCapacity = 8;

void require(bool holds) {
  if (!holds) abort();
}

bool integer_type(unsigned char type) {
  return type == ASN_INTEGER || (type >= ASN_IPADDRESS && type <= ASN_TIMETICKS);
}

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

// Whether the encoder writes these bindings back as they were read: it
// takes no Opaque, and an IpAddress value is in wire order once decoded.
bool writable(const SnmpVarBindEMS *vars, int count) {
  for (int i = 0; i < count; ++i)
    if (vars[i].undecoded || vars[i].type == ASN_OPAQUE || vars[i].type == ASN_IPADDRESS) return false;
  return true;
}

// Checks that a refusal names a step and octets inside the input.  For a
// binding, returns what the reporting primitives say of it; else NULL.
const char *check_stop(const decode::Stop &stop, unsigned char *message, int size,
                       ber::BindingRules rules) {
  require(stop.step != decode::Step::kRead);
  require(message <= stop.at && stop.at <= stop.end && stop.end <= message + size);
  if (stop.step != decode::Step::kBinding) return nullptr;
  static SnmpVarBindEMS scratch;
  return decode::reread_binding(message + (stop.at - message), static_cast<int>(stop.end - stop.at),
                                message + size, &scratch, rules);
}

void check_trap(unsigned char *message, int size, int maxvars) {
  static snmp_trap_infoEMS sti, again;
  static SnmpVarBindEMS vars[kCapacity], again_vars[kCapacity];
  memset(&sti, 0, sizeof sti);
  snmp_trap_reset_capacities(&sti, maxvars);
  decode::Stop stop;
  if (!decode::trap(message, size, &sti, vars, &stop)) {
    const char *failure = check_stop(stop, message, size, ber::kTrapRules);
    require(stop.step != decode::Step::kBinding || failure != nullptr);
    return;
  }
  require(sti.clen >= 0 && sti.clen < SNMP_COMMUNITY_MAX && sti.elen >= 1 && sti.elen <= SNMP_OID_MAX);
  require(sti.vars >= 0 && sti.vars <= maxvars);
  for (int i = 0; i < sti.vars; ++i) check_bounds(vars[i]);
  // The encoder trims IpAddress and TimeTicks as signed numbers, so values
  // with their top nine bits set come back shorter.
  auto trimmed_away = [](uint32_t v) { return (v & 0xFF800000u) == 0xFF800000u; };
  if (!writable(vars, sti.vars) || trimmed_away(snmp_trap_agent_for_encoder(&sti)) ||
      trimmed_away(sti.time))
    return;
  unsigned char written[4096];
  int length = sizeof written;
  snmp_trap_infoEMS out = sti;
  out.agent = snmp_trap_agent_for_encoder(&sti);
  if (snmpBuildTrapEMS(written, &length, &out, nullptr, vars) != 0) return;
  memset(&again, 0, sizeof again);
  snmp_trap_reset_capacities(&again, maxvars);
  require(decode::trap(written, length, &again, again_vars, &stop));
  require(again.clen == sti.clen && memcmp(again.community, sti.community, sti.clen + 1) == 0);
  require(again.elen == sti.elen &&
          memcmp(again.enterprise, sti.enterprise, sti.elen * sizeof(ObjectIdEMS)) == 0);
  require(again.agent == sti.agent && again.gen == sti.gen && again.specific == sti.specific &&
          again.time == sti.time && again.vars == sti.vars);
  for (int i = 0; i < sti.vars; ++i) require(same_binding(again_vars[i], vars[i]));
}

void check_response(unsigned char *message, int size, int maxvars) {
  static snmp_info response, again;
  static SnmpVarBindEMS vars[kCapacity], again_vars[kCapacity];
  memset(&response, 0, sizeof response);
  response.clen = SNMP_COMMUNITY_MAX;
  response.maxvars = maxvars;
  decode::Stop stop;
  if (!decode::response(message, size, &response, vars, &stop)) {
    const char *failure = check_stop(stop, message, size, ber::kResponseRules);
    require(stop.step != decode::Step::kBinding || failure == decode::kBindingShape);
    return;
  }
  require(response.clen >= 0 && response.clen <= SNMP_COMMUNITY_MAX);
  // One binding more than the array holds is counted, not decoded.
  require(response.vars >= 0 && response.vars <= maxvars + 1);
  const int decoded = std::min(response.vars, maxvars);
  for (int i = 0; i < decoded; ++i) check_bounds(vars[i]);
  if (response.vars > maxvars || !writable(vars, decoded)) return;
  unsigned char written[1024];
  int length = sizeof written;
  snmp_info out = response;
  if (snmpBuild09(written, &length, &out, vars) != 0) return;
  memset(&again, 0, sizeof again);
  again.clen = SNMP_COMMUNITY_MAX;
  again.maxvars = maxvars;
  require(decode::response(written, length, &again, again_vars, &stop));
  require(again.clen == response.clen && memcmp(again.community, response.community, response.clen) == 0);
  require(again.command == response.command && again.reqid == response.reqid &&
          again.errstat == response.errstat && again.errindex == response.errindex &&
          again.vars == response.vars);
  for (int i = 0; i < decoded; ++i) require(same_binding(again_vars[i], vars[i]));
}

// The list rules differ only in Opaque values and NULLs with contents:
// where neither occurs, both rules read the same.
void check_list_rules(const unsigned char *list, int size, int capacity) {
  static SnmpVarBindEMS trap_vars[kCapacity], response_vars[kCapacity];
  // An empty identifier reads arcs the record holds, so both start alike.
  memset(trap_vars, 0, sizeof trap_vars);
  memset(response_vars, 0, sizeof response_vars);
  auto keep = [](const SnmpVarBindEMS &) { return ber::Take::kKeep; };
  auto go_on = [](const unsigned char *, const SnmpVarBindEMS &) { return true; };
  const ber::ListReading trap =
      ber::binding_list(list, list + size, trap_vars, capacity, ber::kTrapRules, keep, go_on);
  const ber::ListReading response = ber::binding_list(list, list + size, response_vars, capacity,
                                                      ber::kResponseRules, keep, go_on);
  require((trap.count < 0) == (response.count < 0));
  if (trap.count < 0) return;
  require(trap.count == response.count && trap.kept == trap.count && trap.at == response.at);
  for (int i = 0; i < trap.count; ++i) {
    if (trap_vars[i].type == ASN_OPAQUE || trap_vars[i].type == ASN_NULL) continue;
    require(same_binding(trap_vars[i], response_vars[i]));
  }
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
