/* Error texts of the configuration files.
 *
 * The readers of hubd.conf and of the alert mapping file report a failure
 * as one text in a buffer of a fixed size, named here, which they never
 * write past: a longer text is cut.  A text names the reason and, for a
 * line the reader refuses, the line's number, the file and the line. */
#ifndef EVENTS_CONFIG_ERROR_H
#define EVENTS_CONFIG_ERROR_H

#include "events_export.h"

EVENTS_BEGIN_DECLS

/* Size of the hubd.conf reader's error texts, terminator included. */
#define TRAPSPEC_ERROR_SIZE 200
/* Size of the alert mapping file reader's error text, terminator included:
 * room for two of its lines and a path. */
#define VORASPEC_ERROR_SIZE 6144

/* Appends " in line #N of "file":\n<line>.\n" to the text in errmem.
 * REQUIRES: errmem holds TRAPSPEC_ERROR_SIZE bytes. */
EVENTS_EXPORT void appendLineInfo(char *errmem, int line, const char *conffile,
                                  const char *rawline);

EVENTS_END_DECLS

#endif
