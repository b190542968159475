// A typical trap for tests and benchmarks: the platform's enterprise
// 1.3.6.1.4.1.49999.6.3.1.2 (ten arcs) with five bindings of mixed types.
#ifndef EVENTS_TESTS_SUPPORT_SAMPLE_TRAP_H
#define EVENTS_TESTS_SUPPORT_SAMPLE_TRAP_H

#include <cstring>
#include <initializer_list>

#include "snmp.h"

namespace testsupport {

inline void set_oid(ObjectIdEMS *target, uint32_t *length, std::initializer_list<ObjectIdEMS> arcs) {
  *length = 0;
  for (ObjectIdEMS arc : arcs) target[(*length)++] = arc;
}

inline void set_binding_int(SnmpVarBindEMS *binding, unsigned char type, int32_t value) {
  binding->type = type;
  binding->val.integer = value;
  binding->val_len = 4;
}

inline void set_binding_string(SnmpVarBindEMS *binding, const char *text) {
  binding->type = 0x04;
  binding->val_len = static_cast<uint32_t>(strlen(text));
  memcpy(binding->val.string, text, binding->val_len);
}

// Fills `trap` and the first five entries of `vars` (capacity `maxvars`).
inline void make_sample_trap(snmp_trap_infoEMS *trap, SnmpVarBindEMS *vars, int maxvars) {
  memset(trap, 0, sizeof *trap);
  memcpy(trap->community, "public", 6);
  trap->clen = 6;
  uint32_t elen = 0;
  set_oid(trap->enterprise, &elen, {1, 3, 6, 1, 4, 1, 49999, 6, 3, 2});
  trap->elen = static_cast<int32_t>(elen);
  trap->agent = 0x0A010203;  // 10.1.2.3, high octet first
  trap->gen = 6;
  trap->specific = 17;
  trap->time = 12345678;
  trap->vars = 5;
  trap->maxvars = maxvars;

  set_oid(vars[0].oid, &vars[0].oid_length, {1, 3, 6, 1, 4, 1, 49999, 6, 3, 1, 1, 2, 0});
  set_binding_int(&vars[0], 0x02, 7);
  set_oid(vars[1].oid, &vars[1].oid_length, {1, 3, 6, 1, 4, 1, 49999, 6, 3, 1, 1, 3, 0});
  set_binding_string(&vars[1], "gateway7 link down on port 3");
  set_oid(vars[2].oid, &vars[2].oid_length, {1, 3, 6, 1, 2, 1, 2, 2, 1, 1, 3});
  vars[2].type = 0x06;
  set_oid(vars[2].val.objid, &vars[2].val_len, {1, 3, 6, 1, 6, 3, 1, 1, 5, 3});
  set_oid(vars[3].oid, &vars[3].oid_length, {1, 3, 6, 1, 4, 1, 49999, 1, 2});
  set_binding_int(&vars[3], 0x41, static_cast<int32_t>(4000000000u));
  set_oid(vars[4].oid, &vars[4].oid_length, {1, 3, 6, 1, 4, 1, 49999, 1, 4});
  set_binding_int(&vars[4], 0x43, 360000);
}

}  // namespace testsupport

#endif
