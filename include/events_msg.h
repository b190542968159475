/* Message catalog and time text.
 *
 * _eventsMsg looks a user-visible text up by set and message number in the
 * message catalog "events.cat" (found through NLSPATH and LC_MESSAGES) and
 * falls back to the built-in text `s` when the catalog or the message is
 * missing.  Each text is fetched once per process and cached; the returned
 * pointer stays valid for the life of the process.  Message number 0 always
 * means the built-in text.  Sets 0 to 50 are cached; other sets, and
 * message numbers outside 1 to NL_MSGMAX, give `s`.  errno is unchanged
 * by a lookup that succeeds.  Not thread-safe. */
#ifndef EVENTS_EVENTS_MSG_H
#define EVENTS_EVENTS_MSG_H

#include <stdint.h>

#include "events_export.h"

EVENTS_BEGIN_DECLS

EVENTS_EXPORT char *_eventsMsg(int setn, int n, char *s);
/* The catalog descriptor, -1 before the first lookup or when the catalog
 * could not be opened. */
EVENTS_EXPORT int ___eventsMsg_fd__(void);

/* Writes the interval *lpData (hundredths of a second) as a number and a
 * unit letter, in the largest unit of d, h, m and s that divides the whole
 * seconds exactly: 9000 gives "90s", 360000 "1h", 8646000 "1441m"; below
 * one second "0s".  pcString must hold 12 bytes.  Returns 0. */
EVENTS_EXPORT int ICFEvtTimeInt2String(uint32_t *lpData, char *pcString);

EVENTS_END_DECLS

#endif
