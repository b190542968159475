/* Platform services: the small set of operations of the management
 * platform that the library calls, in default implementations configured
 * only by environment variables.
 *
 *   KZ_CONF_DIR     configuration directory            default /usr/KZ/conf
 *   KZ_HUBD_SOCKET  the daemon's Unix socket           default /usr/KZ/sockets/hubd.socket
 *   KZ_CLIENT       "1": this host is a client install default: not a client
 *   KZ_SERVER       default daemon host name           default localhost
 *   KZ_LOG          platform log: a file path or "syslog"; unset: off
 *
 * The variables are read at each call, so a test or tool may change them
 * between calls. */
#ifndef EVENTS_KZ_PLATFORM_H
#define EVENTS_KZ_PLATFORM_H

#include <stdint.h>

#include "asn1.h"
#include "events_export.h"

EVENTS_BEGIN_DECLS

/* Paths.  _KZconfDirName returns the configuration directory (a static
 * text, valid until the next call).  _KZConcatPath returns "dir/name" in
 * newly allocated memory that the caller frees.  KZhubdSocketPath returns
 * the daemon's socket path (static text). */
EVENTS_EXPORT const char *_KZconfDirName(void);
EVENTS_EXPORT char *_KZConcatPath(const char *dir, const char *name);
EVENTS_EXPORT const char *KZhubdSocketPath(void);

/* Installation.  _ZXisClient returns 1 on a client installation, else 0.
 * _KZDefaultServerName returns the default server's host name in newly
 * allocated memory that the caller frees. */
EVENTS_EXPORT int _ZXisClient(void);
EVENTS_EXPORT char *_KZDefaultServerName(void);

/* This host's IPv4 address in network order: the first configured
 * interface address that is up and not loopback, else 127.0.0.1. */
EVENTS_EXPORT uint32_t KZmyAddress(void);

/* Platform log.  Appends one line "catalog[set,message] subsystem level:
 * text" to the file named by KZ_LOG, or sends the text to syslog when
 * KZ_LOG is "syslog"; does nothing when KZ_LOG is unset.  `fmt` and the
 * arguments are a printf format; a trailing newline of the text is kept
 * once. */
EVENTS_EXPORT void KZuLogS(int level, int subsystem, const char *catalog, int set, int message,
                           const char *fmt, ...) __attribute__((format(printf, 6, 7)));

/* MIB access.  KZmib_read_numeric_objid converts a dotted numeric
 * identifier (".1.3.6.1.4.1.9", the leading dot optional; "." alone is the
 * empty identifier) into arcs.  *objid_len gives the capacity of `objid` on
 * entry and the number of arcs on return.  Returns 0, or -1 for a character
 * other than a digit or a single dot between arcs, an arc above 4294967295,
 * or more arcs than fit (objid_len is then 0). */
EVENTS_EXPORT int KZmib_read_numeric_objid(const char *text, ObjectIdEMS *objid, int *objid_len);

EVENTS_END_DECLS

#endif
