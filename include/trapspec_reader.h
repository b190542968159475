/* Reading hubd.conf into the model (trapspec_model.h).
 *
 * A read takes the file line by line: a category section, an action
 * section, the enterprises, then one record per trap format.  It stops at
 * the first line it refuses and reports that line; what was read before it
 * stays in the model.  After a full read of hubd.conf, read_trapspec_file
 * also reads the alert mapping file (alert_mapping.h) on top of it.
 * Errors are texts of config_error.h's sizes.  Not thread-safe. */
#ifndef EVENTS_TRAPSPEC_READER_H
#define EVENTS_TRAPSPEC_READER_H

#include <stdio.h>

#include "config_error.h"
#include "events_export.h"
#include "trapspec_model.h"

EVENTS_BEGIN_DECLS

/* Switches.  have_read_hubdconf is set when a read reaches the end of the
 * file without error.  trace_hubdconf: the reader reports its progress on
 * the trace log.  trpFormatDontMallocDesc: trap descriptions are not kept.
 * trpFormatExpandSourceFiles (default 1): a NODES entry "/path" is replaced
 * at read time by the nodes listed in that file; when 0 the path is kept and
 * the file is read at match time. */
EVENTS_EXPORT extern int have_read_hubdconf;
EVENTS_EXPORT extern int trace_hubdconf;
EVENTS_EXPORT extern int trpFormatDontMallocDesc;
EVENTS_EXPORT extern int trpFormatExpandSourceFiles;

/* Default category names.  When the reader leaves the category section it
 * gives exactly one default: the first still empty slot in the order 9, 7,
 * 2, 0, 1, 3, 4, 5 receives its name below. */
EVENTS_EXPORT extern char *threshCatString;     /* slot 0 "Threshold Events" */
EVENTS_EXPORT extern char *nettopCatString;     /* slot 1 "Network Topology Events" */
EVENTS_EXPORT extern char *errorCatString;      /* slot 2 "Error Events" */
EVENTS_EXPORT extern char *statusCatString;     /* slot 3 "Status Events" */
EVENTS_EXPORT extern char *nodeconfCatString;   /* slot 4 "Node Configuration Events" */
EVENTS_EXPORT extern char *applalertCatString;  /* slot 5 "Application Alert Events" */
EVENTS_EXPORT extern char *logOnlyCatString;    /* slot 7 "LOGONLY" */
EVENTS_EXPORT extern char *ignoreCatString;     /* slot 9 "IGNORE" */

/* read_trapspec_file replaces the model (its categories and actions too,
 *   unless no enterprise was configured) by the contents of
 *   getHubdConfFile(), then reads the alert mapping file on top of it.
 *   Returns 0 when hubd.conf was read in full, else -1.  What
 *   *errstring_ptr points to, valid until the next read of either file:
 *   - on -1, the reader's text (TRAPSPEC_ERROR_SIZE bytes): the reason and
 *     the offending line; the model keeps what was read before that line,
 *     and the alert mapping file is not read;
 *   - on 0, the alert mapping file's text (VORASPEC_ERROR_SIZE bytes): ""
 *     when that file was read too, else why it was not, or not in full (it
 *     cannot be opened, is locked, is incomplete, or has a line the reader
 *     refuses; the mappings before that line stay).
 * augmentTrapspecFile reads another file of the same form on top of the
 *   model; 0, or -1 with *errstring_ptr pointing to its own text of
 *   TRAPSPEC_ERROR_SIZE bytes ("" on success).
 * Both read regular files only, and the source lists named in NODES too: a
 *   directory, a FIFO or a file whose read fails gives "Could not read
 *   "PATH": REASON" without waiting for a writer. */
EVENTS_EXPORT int read_trapspec_file(char **errstring_ptr);
EVENTS_EXPORT int augmentTrapspecFile(char **errstring_ptr, const char *newfile);

/* Steps of the reader, for hosts that read from a stream of their own.
 * The section readers return 0 (line taken), 1 (line belongs to the next
 * section) or a negative value (error text in errmem).  `rawline` is a
 * line buffer of TRAPSPEC_LINE_SIZE bytes that the trap reader reuses for
 * the lines that follow.
 * REQUIRES: errmem holds TRAPSPEC_ERROR_SIZE bytes. */
EVENTS_EXPORT int doReadTrapspecFile(FILE *fp, const char *conffile, char *errmem);
EVENTS_EXPORT int readCategory(char *c, const char *conffile, char *errmem, int line_number);
EVENTS_EXPORT int readActions(FILE *fp, char *c, const char *conffile, char *errmem,
                              int *lineNumberPtr);
EVENTS_EXPORT int readEnterprise(char *c, const char *conffile, char *errmem, int line_number);
EVENTS_EXPORT int readTrapSpecInfo(FILE *fp, char *rawline, const char *conffile, char *errmem,
                                   int *lineNumberPtr);
EVENTS_EXPORT int mallocAndReadDescription(char **descriptionPtr, char *rawline, FILE *fp,
                                           const char *conffile, char *errmem,
                                           int *lineNumberPtr);
/* Reads the next significant line into rawline; 0, or -1 at the end of the
 * file (error text naming lastKeyword) or on a line error. */
EVENTS_EXPORT int getNextLine(const char *lastKeyword, char *rawline, int maxinput, FILE *fp,
                              const char *conffile, int *lineNumberPtr, char *errmem);
/* Appends a copy of `node` to *nodeList, growing it by 20 entries at a time. */
EVENTS_EXPORT void trpFmtAddSourceToList(int *nodeCnt, int *listLen, char ***nodeList,
                                         const char *node);

EVENTS_END_DECLS

#endif
