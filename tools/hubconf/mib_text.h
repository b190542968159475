/* The texts import-mib builds from a MIB module: the comment hints that
 * trap converters read, which net-snmp's parser drops with the comments,
 * and a notification's format line and description block. */
#ifndef HUBCONF_MIB_TEXT_H_
#define HUBCONF_MIB_TEXT_H_

#include <stddef.h>
#include <stdio.h>

#include "mib_reader.h"
#include "trp_format.h"

/* The comment hints of one TRAP-TYPE or NOTIFICATION-TYPE: --#SUMMARY,
 * --#ARGUMENTS {i,...} (indexes of its objects, from 0), --#SEVERITY and
 * --#CATEGORY, each NULL or empty when absent. */
struct hints {
  char *name, *summary, *severity, *category;
  int arguments[TRAP_MAX_ARGS];
  int argument_count;
};

/* Appends to *list the hints of every definition in the module text on
 * `fp`; a hint belongs to the definition above it. */
void mib_read_hints(FILE *fp, struct hints **list, size_t *count);
void mib_free_hints(struct hints *list, size_t count);

/* The format line of a notification: the summary hint with each %s taken
 * by the next argument's $-reference, else the first sentence of the
 * description, then (unless the summary had arguments) each object as
 * name=$n.  One line, never empty, never beginning with "#"; "$" and "\"
 * of the texts stay literal.  `hints` may be NULL.  Released with doFree. */
char *mib_format_line(const struct mib_notification *notification, const struct hints *hints);

/* The description block: each line of DESCRIPTION without its indentation
 * and no blank lines at the end; a line the reader would take for a
 * comment or for EDESC gets "- " in front.  NULL when there is nothing.
 * Released with doFree. */
char *mib_description_block(const char *description);

#endif
