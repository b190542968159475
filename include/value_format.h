/* Value printers: the texts of a trap's values, as the formatter and the
 * tools show them.
 *
 * Each writes a NUL-terminated text into a buffer of `buflen` bytes
 * (terminator included), never more, and never fails: a value that does not
 * fit is shortened or left out.  Names come from the OID name tree, the
 * configuration model and the resolver (through the formatter's cache of
 * answers).  Not thread-safe. */
#ifndef EVENTS_VALUE_FORMAT_H
#define EVENTS_VALUE_FORMAT_H

#include "events_export.h"
#include "snmp.h"
#include "trapspec_model.h"

EVENTS_BEGIN_DECLS

/* formatValue: a binding's value (enumeration name from the OID name tree,
 *   number, text, host name, label path).  formatKind: its type name
 *   (empty when buflen < 30).  formatOctetString: text, or "0x" and
 *   hexadecimal pairs when the string is mostly unprintable (any
 *   unprintable character with strictHex set).  formatCommunity: the trap's
 *   community by the same rule.
 * formatObjectID appends an identifier at *buf_ptr, advancing it and
 *   lowering *buflenptr: with printName a label path without the
 *   ".iso.org.dod.internet." part (the last 50 characters at most), else
 *   the configured enterprise name and the remaining arcs, else dotted
 *   numbers.
 * formatEnterprise: the trap's enterprise by name (as_string) or number.
 * stringToSeverity / severityToString: severities 0 "Cleared" to
 *   5 "Major"; an unknown name gives 0, an unknown number "Unknown".
 * trpFmtSprintNodes: the node list of a format on one line, cut with
 *   "..." when it does not fit; trpAllSourcesStr when it has none. */
EVENTS_EXPORT extern int strictHex;
EVENTS_EXPORT extern char *trpAllSourcesStr;
EVENTS_EXPORT void formatValue(char *buf, int buflen, SnmpVarBindEMS *var);
EVENTS_EXPORT void formatKind(char *buf, int buflen, SnmpVarBindEMS *var);
EVENTS_EXPORT void formatOctetString(char *buf, int buflen, unsigned char *oct, int len);
EVENTS_EXPORT void formatCommunity(char *buf, int buflen, snmp_trap_infoEMS *sti_ptr);
EVENTS_EXPORT void formatObjectID(char **buf_ptr, int *buflenptr, ObjectIdEMS *obj,
                                  unsigned int len, long printName);
EVENTS_EXPORT void formatEnterprise(char *buf, int buflen, snmp_trap_infoEMS *sti_ptr,
                                    int as_string);
EVENTS_EXPORT int stringToSeverity(const char *severityString);
EVENTS_EXPORT char *severityToString(int severity);
EVENTS_EXPORT void trpFmtSprintNodes(trap_record *trap_rec_ptr, char *sourceBuf, int sourceBufLen);

EVENTS_END_DECLS

#endif
