// Variable bindings from the command line, in the manner of net-snmp's
// snmptrap and snmpset: an OID, a TYPE letter and a VALUE text.  Shared by
// hubevent and hubconf (traps) and hubsnmp (set requests).
#ifndef TOOLS_BINDING_ARGS_H
#define TOOLS_BINDING_ARGS_H

#include <cstdint>
#include <string>

#include "snmp.h"

namespace tools {

// Reads a whole number from `low` to `high` in `base`.  Returns false for
// anything else: empty text, trailing characters, out of range.
bool read_number(const char *text, long low, long high, int base, long *value);

// Loads the names read_oid understands, as the library finds them: the MIB
// label file (KZ_MIB_FILE, else KZ_CONF_DIR/mib.labels) and the OID name
// tree (KZ_CONF_DIR/oid_to_label).  A file that is missing leaves its names
// out.
void load_names();

// Reads an identifier of at least `least` arcs into `arcs` (SNMP_OID_MAX of
// them): dotted numbers ("1.3.6.1", a leading dot allowed), labels of the
// MIB label file ("sysDescr.0", "IF-MIB::ifOperStatus.3"), or a name of the
// OID name tree followed by numbers ("linkDown", "myTable.1.4").
bool read_oid(const char *text, ObjectIdEMS *arcs, uint32_t *length, int least = 2);

// Fills b's type and value from a TYPE letter and VALUE text: i INTEGER,
// u Gauge, c Counter, t TimeTicks, a IpAddress, s OCTET STRING, x hex
// pairs (blank- or colon-separated), d decimal octets (blank- or
// dot-separated), o OBJECT IDENTIFIER,
// n NULL.  Returns "" or the reason the text was refused.
std::string read_value(const char *type, const char *value, SnmpVarBindEMS *b);

// Reads ENTERPRISE GENERIC SPECIFIC and OID TYPE VALUE triples (at most
// `max`) into the trap's enterprise, numbers and binding count, and vars.
// Returns "" or the reason the arguments were refused.  The C interface is
// tools_read_trap in trap_args.h.
std::string read_trap(int argc, char *const *argv, snmp_trap_infoEMS *trap, SnmpVarBindEMS *vars,
                      int max);

// An identifier as dotted numbers, at most SNMP_OID_MAX arcs: "1.3.6.1",
// or ".1.3.6.1" with leading_dot, as net-snmp's numeric output writes it.
std::string dotted(const ObjectIdEMS *arcs, uint32_t length, bool leading_dot = false);

}  // namespace tools

#endif
