/* Alert mapping file (vorad.conf): which configured traps are also raised
 * as alerts, and with which code-point subvectors.
 *
 * The file names its path in the environment variable VORAD_CONF, else it
 * is "vorad.conf" in the configuration directory.  Each record is a line
 * "name {enterprise} generic specific" followed by body lines of
 * hexadecimal numbers and quoted texts, ended by a lone ";".  A record
 * hangs a list of alert_record on the trap format of that exact name; the
 * list as read always ends with one all-zero record, which consumers skip.
 *
 * Subvector keys: 0x81 recommended actions, 0x92 typed code point, 0x93
 * code-point list, 0x94 to 0x96 causes, 0x98 detailed data only.  A code
 * point whose bits 4 to 7 are 0xA0 or 0xB0 calls for one detailed-data
 * field, 0xC0 for two, 0xD0 for three.
 *
 * The reader and the writer hold a whole-file lock on the file while they
 * use it.  Not thread-safe. */
#ifndef EVENTS_ALERT_MAPPING_H
#define EVENTS_ALERT_MAPPING_H

#include <stdio.h>

#include "config_error.h"
#include "events_export.h"
#include "trapspec_model.h"

EVENTS_BEGIN_DECLS

/* One detailed-data field: its identifier and its compiled text, whose
 * rawstring the writer prints back. */
typedef struct {
  int dataid;
  trap_element *dd_args;
} detailed_data_record;

/* One subvector of a trap's alert.  `type` is used by key 0x92 only. */
typedef struct alert_record {
  struct alert_record *next;
  int subvector;
  int num_codepoints;
  int *codepoints;
  int type;
  int num_detaileddata;
  detailed_data_record **detailed_data;
} alert_record;

/* getVoradConfFile returns the path as the environment names it now
 *   (static text, valid until the next call of this family).
 * open_vora_lock_file resolves the path (*path points to a static copy),
 *   opens it with `mode` and requests a write lock on the whole file.
 *   0 on success; -1 when it cannot be opened; -2 when another process
 *   holds it locked through every retry (about 20 seconds); the stream is
 *   then closed and *fp is NULL.
 * read_voraspec_file hangs every record of the file on its trap format.
 *   0, or -1 with the reason (naming the line) in the static text of
 *   VORASPEC_ERROR_SIZE bytes that *errstring_ptr always points to ("" on
 *   success).  Records read before
 *   an error stay in the model.
 * insert_malloc_alert_record hangs `alert_record_ptr` on the format named
 *   `alertname` and records that name; a list hung there before is
 *   released.  -1 when no format has that exact name, or (errno EINVAL)
 *   when the file could not carry the list as it is: no subvector, a key 81
 *   without a cause before it, two causes without a key 81 between them, a
 *   detailed-data count that the code points do not call for, a text with a
 *   tab, two blanks or a quote before a blank.  The list stays the
 *   caller's then.  The enterprise and numbers are not used.
 * delete_vora_record releases a format's list and clears alert_element.
 * write_voraspec_file rewrites the file from every mapped format of the
 *   model, as write_trapspec_file rewrites hubd.conf: the previous content
 *   saved to "<path>.bak", the new content written so that an interruption
 *   leaves the old one or a file every reader refuses as incomplete.  0; or
 *   the code of open_vora_lock_file; or -3 when a mapping would not read
 *   back (a list changed after it was hung, or hung under a name its format
 *   no longer has), or the backup or the new content could not be written
 *   (a line on standard error says which).  *conffile_ptr points to the
 *   path.  The stream is not inherited by programs the caller starts.
 * print_vora_rec writes one format's mapping as the file holds it, a key
 *   81 only after a cause, and a body line broken before it grows longer
 *   than the reader takes. */
EVENTS_EXPORT const char *getVoradConfFile(void);
EVENTS_EXPORT int open_vora_lock_file(const char *mode, FILE **fp, char **path);
EVENTS_EXPORT int read_voraspec_file(char **errstring_ptr);
EVENTS_EXPORT int insert_malloc_alert_record(enterprise_info *enterprise_ptr, char *alertname,
                                             int generic, int specific,
                                             alert_record *alert_record_ptr);
EVENTS_EXPORT void delete_vora_record(trap_record *trap_rec_ptr);
EVENTS_EXPORT int write_voraspec_file(char **conffile_ptr);
EVENTS_EXPORT void print_vora_rec(FILE *fp, trap_record *trap_rec_ptr, unsigned int *oid,
                                  int oid_len);

EVENTS_END_DECLS

#endif
