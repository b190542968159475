/* A trap from the command line, as hubevent send trap and hubconf test
 * take it: ENTERPRISE GENERIC SPECIFIC, then OID TYPE VALUE triples (the
 * types of binding_args.h).  C-callable. */
#ifndef TOOLS_TRAP_ARGS_H
#define TOOLS_TRAP_ARGS_H

#include <stddef.h>

#include "snmp.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Fills the enterprise, generic and specific numbers and the bindings of
 * *trap, the bindings into vars (room for `max`).  0; or -1 with the reason
 * in why (why_size bytes). */
int tools_read_trap(int argc, char *const *argv, snmp_trap_infoEMS *trap, SnmpVarBindEMS *vars,
                    int max, char *why, size_t why_size);

#ifdef __cplusplus
}
#endif

#endif
