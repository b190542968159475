/* MIB modules read with net-snmp's parser, handed over as plain texts.
 *
 * This interface is neutral on purpose: net-snmp's headers define an `oid`
 * of their own that clashes with the library's, so only mib_reader.c
 * includes them.  Identifiers travel as dotted decimal text. */
#ifndef HUBCONF_MIB_READER_H_
#define HUBCONF_MIB_READER_H_

#include <stddef.h>
#include <stdio.h>

/* A TRAP-TYPE or NOTIFICATION-TYPE.  A TRAP-TYPE's identifier is its
 * enterprise, 0 and its specific number, as net-snmp places it. */
struct mib_notification {
  char *name;
  char *oid;
  char *enterprise_label; /* the name of the node above it (a TRAP-TYPE's ENTERPRISE) */
  char *description;      /* NULL without DESCRIPTION */
  char *file;             /* the module's file, where its comment hints are */
  char **objects;         /* OBJECTS or VARIABLES, by name */
  size_t object_count;
};

/* One name of an identifier. */
struct mib_label {
  char *oid;
  char *label;
};

struct mib_contents {
  struct mib_notification *notifications; /* of the modules asked for, in tree order */
  size_t notification_count;
  /* Notifications and objects of the modules asked for, and every
   * enumerated INTEGER value as the object's identifier plus the value
   * (for a scalar, also its instance 0 plus the value). */
  struct mib_label *names;
  size_t name_count;
  struct mib_label *labels; /* every node of the tree read */
  size_t label_count;
};

/* Reads each of `modules` (a module name looked up in `dirs`, or a path
 * when it names a file) and fills *contents.  Imports that cannot be found
 * are tolerated as the parser tolerates them; a fallback for the base SMI
 * registrations is used when `dirs` holds none.  Returns 0, or -1 after
 * writing one "FILE:LINE: message" (or "MODULE: message") line per error
 * on `errors`; *contents is then empty.  Call once per process: net-snmp's
 * parser keeps global state. */
int mib_read(const char *const *dirs, size_t dir_count, const char *const *modules,
             size_t module_count, struct mib_contents *contents, FILE *errors);
void mib_contents_free(struct mib_contents *contents);

#endif
