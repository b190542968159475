/* Environment probes: questions about the installation that the platform's
 * tools ask, and the white-space helper shared with the configuration
 * reader.
 *
 * The gathering daemon snmpGather shows that it runs by holding a lock on
 * its process-ID file (KZSNMPGATPIDFILE, default
 * /usr/KZ/pids/snmpGatherPid); the pid inside the file is not consulted. */
#ifndef EVENTS_ENV_PROBE_H
#define EVENTS_ENV_PROBE_H

#include "events_export.h"

EVENTS_BEGIN_DECLS

typedef enum { stripLeading = 0, stripTrailing = 1, stripBoth = 2 } stripType;

/* Strips white space in place at the start, the end or both; inner white
 * space stays.  Bytes above 127 and two-byte characters are never white
 * space.  NULL and unknown modes do nothing. */
EVENTS_EXPORT void _KZstrip_whitespace(char *str, stripType mask);

/* Path of the gathering daemon's pid file, taken once per process. */
EVENTS_EXPORT char *getSnmpGatherPidFile(void);
/* 1 when some process holds a lock on the pid file, else 0. */
EVENTS_EXPORT int isSnmpGatherRunning(void);
/* 0 only when the daemon is installed, needed and not running; else 1. */
EVENTS_EXPORT int isSnmpGatherHappy(void);
/* 1 when the configuration tool /usr/KZ/bin/qwmtrap exists (asked once). */
EVENTS_EXPORT int eventConfiguratorExists(void);
/* This host is never a client node, and there is no separate server. */
EVENTS_EXPORT int isCnode(void);
EVENTS_EXPORT char *getServerName(void);

EVENTS_END_DECLS

#endif
