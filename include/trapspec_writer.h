/* Trap configuration, write side: the file lock, the writer of hubd.conf,
 * the editing helpers and the change notice to hubd.
 *
 * An editor runs one cycle: lockHubdConfFile, read_trapspec_file, edit the
 * model, write_trapspec_file on the locked stream (which closes it and
 * ends the lock), then sendFMTCHGevent so that hubd and the event displays
 * reload.  The lock is advisory: it keeps a second editor out, nothing
 * else, and it holds while the reader opens and closes the file again.
 * What the writer writes reads back into the same model: a text that would
 * not (trapTextProblem says why) is refused before anything is written.
 * The writer saves the previous content of the file it writes beside that
 * file, with ".bak" appended, and writes the new content over the old so
 * that a writer that dies part-way leaves either the old content or a file
 * that every reader refuses as incomplete; the backup is the way back.
 * Not thread-safe. */
#ifndef EVENTS_TRAPSPEC_WRITER_H
#define EVENTS_TRAPSPEC_WRITER_H

#include <stdio.h>

#include "events_export.h"
#include "trapspec_model.h"

EVENTS_BEGIN_DECLS

/* Event number of the change notice, and the size of oid_to_string's text. */
#define EVENT_FORMAT_CHANGED 50790438
#define OID_TO_STRING_SIZE 412

/* Lock and writer.
 * lockHubdConfFile opens getHubdConfFile() for reading and writing, not
 *   inherited by programs the caller starts, and locks the whole file
 *   without waiting.  Returns the stream, the lock
 *   lasting until it is closed, with *errmsg NULL; or NULL with *errmsg a
 *   message the caller releases with doFree (the file cannot be opened, or
 *   another editor holds it).
 * write_trapspec_file writes the whole model over the file fp is open on
 *   (fp may be write-only) and closes it.  A regular, non-empty file is
 *   first saved to its backup (a new file, with the file's mode, renamed
 *   over the old backup; a symbolic link in its place is refused).  0; or
 *   -1, with fp left open, when fp is NULL, when the model holds a text
 *   that would not read back, when the backup cannot be saved (the file is
 *   untouched), or when the new content cannot be written (the file holds
 *   its previous content again, or else is refused by every reader as
 *   incomplete and the backup holds it).
 *   Every failure also prints a line on standard error.
 * print_trap_rec writes one trap format; oid/oid_len is its enterprise's
 *   identifier. */
EVENTS_EXPORT FILE *lockHubdConfFile(char **errmsg);
EVENTS_EXPORT int write_trapspec_file(FILE *fp);
EVENTS_EXPORT void print_trap_rec(FILE *fp, trap_record *rec, unsigned int *oid,
                                  unsigned long oid_len);

/* What each text of the model must be to read back as it is written. */
enum trap_text_kind {
  TRAP_TEXT_NAME,            /* a trap format's name */
  TRAP_TEXT_FORMAT,          /* an event-log format */
  TRAP_TEXT_COMMAND,         /* an EXEC command or a DISPLAY message */
  TRAP_TEXT_DESCRIPTION,     /* a trap format's or an action's description */
  TRAP_TEXT_NODE,            /* one entry of a node list */
  TRAP_TEXT_EVENT_CLASS,     /* an event class */
  TRAP_TEXT_SLOT_NAME,       /* a slot mapping's name */
  TRAP_TEXT_SLOT_VALUE,      /* a slot mapping's value */
  TRAP_TEXT_CATEGORY,        /* a display category's name */
  TRAP_TEXT_ACTION_NAME,     /* an operator action's name */
  TRAP_TEXT_ACTION_COMMAND,  /* an operator action's command */
  TRAP_TEXT_ENTERPRISE_NAME  /* an enterprise's name */
};

/* NULL when `text`, as a text of that kind, is written and read back as it
 * is; otherwise why not, as a static phrase to follow the text's name
 * ("begins with "#", which makes its line a comment").
 * REQUIRES: text is not NULL. */
EVENTS_EXPORT const char *trapTextProblem(int kind, const char *text);

/* Editing helpers.
 * find_exact_trap_record: the format with exactly these numbers, or NULL;
 *   the walk relies on the list's ascending order and stops early.
 * delete_trap_record / deleteTrapRecord: unlink and release the format
 *   found by numbers / by name; 0, or -1 when there is none.
 * deleteTrapAction: removes the first action of that name; 0, or 1 (not
 *   -1) when there is none.
 * name_to_enterprise: the first enterprise of exactly that name; 0, or -1
 *   with *enterprise_ptr_ptr NULL.
 * cname_to_oid parses dotted decimal text (blanks, tabs, dots and commas
 *   separate arcs; leading ones are skipped) into oid, whose capacity the
 *   caller ensures; 0, or 1 at a character that is neither (the arcs parsed
 *   so far stay stored).
 * oid_to_string: dotted text of the first 100 arcs at most, in a static
 *   buffer of OID_TO_STRING_SIZE bytes overwritten by each call; "" for an
 *   empty identifier. */
EVENTS_EXPORT void find_exact_trap_record(enterprise_info *enterprise_info_ptr, int generic_trap,
                                          int specific_trap, trap_record **trap_rec_ptr_ptr);
EVENTS_EXPORT int delete_trap_record(enterprise_info *enterprise_ptr, int generic, int specific);
EVENTS_EXPORT int deleteTrapRecord(char *trapName);
EVENTS_EXPORT int deleteTrapAction(char *actionTitle);
EVENTS_EXPORT int name_to_enterprise(char *name, enterprise_info **enterprise_ptr_ptr);
EVENTS_EXPORT int cname_to_oid(char *name, unsigned int *oid, unsigned long *oid_len);
EVENTS_EXPORT char *oid_to_string(unsigned int *oid, unsigned long oid_len);

/* Change notice.  Sends event EVENT_FORMAT_CHANGED, "<progname> changed
 * format file "<file>"", to hubd on the default transport with `source`
 * (1 to 27).  0; or -1 with *errorMsg pointing to a warning that names the
 * failed step, "connect" or "send" (valid until the next failing call). */
EVENTS_EXPORT int sendFMTCHGevent(char *progname, int source, char **errorMsg);

EVENTS_END_DECLS

#endif
