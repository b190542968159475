/* Trap formatting: a received trap becomes display text by its configured
 * format, laid out as lines for the kind of application that asks.
 *
 * On first use trp_format loads the MIB labels, hubd.conf and the OID name
 * tree ("oid_to_label" in the configuration directory); the notices that
 * the format file (50790438) or the MIB (50790439) changed make the next
 * call load them again.  Templates are data: the compiled format is filled
 * by the library's own substitution, never used as a printf format.  Host
 * names of agents and IpAddress values come from the resolver through a
 * cache of answers, found and not found (KZ_HOST_CACHE_TTL seconds, default
 * 300; 0 asks the resolver every time).  Not thread-safe. */
#ifndef EVENTS_TRAP_FORMATTER_H
#define EVENTS_TRAP_FORMATTER_H

#include <time.h>

#include "events_export.h"
#include "format_compiler.h"
#include "snmp.h"
#include "trapspec_model.h"

EVENTS_BEGIN_DECLS

typedef enum {
  QMWEVENT_USER = 0, /* the operator's event display */
  HUBD_USER = 1,     /* the trap daemon's log */
  RQV_USER = 2,      /* the event-log adapter */
  ZXEVENTS_USER = 3, /* the product's own event display */
  WBX_USER = 4       /* the enterprise console adapter */
} rtrap_user;

/* Load flags of the formatter; clearing one makes the next trp_format load
 * that part again.  getOidToLabelFile returns the path of the OID name file
 * the formatter loads, as the environment names it now (static text, valid
 * until the next call); the MIB label file is KZmib_get_mib_filename's. */
EVENTS_EXPORT extern int have_read_mibtxt;
EVENTS_EXPORT extern int have_read_mappings;
EVENTS_EXPORT const char *getOidToLabelFile(void);

/* trp_format appends the lines of one trap to the NUL-terminated text in
 * `buffer` (max_buffer_len bytes in all), points *host_name at the host
 * text (a static buffer, overwritten by the next call) and returns the
 * trap's category; -1 when the trap is not shown to this kind of
 * application; -2 when the buffer ran out of room (the lines written so far
 * stay); 2 when the MIB or the configuration cannot be loaded (the reason
 * replaces the text in `buffer`).  A non-zero logTime replaces the current
 * time in the lines.  Unless it returns 2, it also writes the trap's
 * `status` and `target`: the chosen format's status and forward flag.
 * REQUIRES: `vars` holds sti_ptr->vars bindings; sti_ptr->maxvars is the
 * array's capacity (a reference to the binding just past the last one reads
 * that slot only when it lies within the capacity). */
EVENTS_EXPORT int trp_format(rtrap_user user_module, snmp_trap_infoEMS *sti_ptr, char *buffer,
                             int max_buffer_len, SnmpVarBindEMS *vars, char **host_name,
                             time_t logTime);

/* trap_sprintf fills a compiled format into `buf` (`size` bytes): each "%s"
 * of the template takes the next argument text, "%%" becomes "%", anything
 * else is copied as it stands.  A text of `size` bytes or more is replaced
 * by a size error.  format_arg renders one binding argument (arg_num counts
 * from 1) into `buffer`.  contact, location and description may be NULL. */
EVENTS_EXPORT void trap_sprintf(char *buf, int size, trap_element *trap_ele_ptr,
                                snmp_trap_infoEMS *sti_ptr, SnmpVarBindEMS *vars, char *contact,
                                char *location, char *description);
EVENTS_EXPORT void format_arg(int arg_num, substitute_arg arg_type, snmp_trap_infoEMS *sti_ptr,
                              char *buffer, int buflen, SnmpVarBindEMS *vars);

/* find_trap_format picks the format of a trap: the exact format of the most
 * specific configured enterprise, else that enterprise's wildcard formats
 * (generic number -1) whose node list matches `hostname`, then the same in
 * each less specific enterprise; default_trap_record with a NULL enterprise
 * when nothing matches. */
EVENTS_EXPORT void find_trap_format(ObjectIdEMS *enterprise_oid, unsigned int enterprise_oidlen,
                                    unsigned int generic_trap, unsigned int specific_trap,
                                    trap_record **trap_rec_ptr_ptr,
                                    enterprise_info **enterprise_ptr_ptr, char *hostname);

/* Enterprise tests on the leading arcs of an enterprise identifier; each is
 * 0 for NULL.  isTrapJQ: a platform event (enterprise-specific trap of the
 * platform's event enterprise with bit 25 of `specific` set or `specific`
 * in 1001 to 2000).
 * REQUIRES: a non-null identifier holds at least the arcs compared (9 for
 * isTrapJQ and isZXEnterprise, 8 for isDKREnterprise, 7 for
 * isFVNEnterprise). */
EVENTS_EXPORT int isTrapJQ(int generic, unsigned int specific, ObjectIdEMS *enterprise);
EVENTS_EXPORT int isZXEnterprise(ObjectIdEMS *oid);
EVENTS_EXPORT int isDKREnterprise(ObjectIdEMS *oid);
EVENTS_EXPORT int isFVNEnterprise(ObjectIdEMS *oid);

EVENTS_END_DECLS

#endif
