/* Memory of the trap configuration code.
 *
 * Every block the configuration model holds (records, names, node lists,
 * compiled formats, alert lists) comes from these routines, and callers
 * that hand blocks to the model or release blocks it gave them use them
 * too.  They never return on allocation failure: they print
 * "malloc(%d) failed in file %s." (or "realloc(...)") on standard error and
 * end the process with status 1.  From the moment the library is loaded a
 * failed operator new in the library ends the process the same way, unless
 * the application has set a new_handler of its own.
 *
 * doMalloc returns a zero-filled block; doRealloc does not clear the grown
 * part; doStrdup copies into a block of strlen(s) + 2 bytes; doFree ignores
 * NULL.
 * REQUIRES: doStrdup's argument is not NULL. */
#ifndef EVENTS_CONFIG_MEMORY_H
#define EVENTS_CONFIG_MEMORY_H

#include "events_export.h"

EVENTS_BEGIN_DECLS

EVENTS_EXPORT void *doMalloc(unsigned size);
EVENTS_EXPORT void *doRealloc(void *ptr, unsigned size);
EVENTS_EXPORT char *doStrdup(const char *s);
EVENTS_EXPORT void doFree(const void *p);

EVENTS_END_DECLS

#endif
