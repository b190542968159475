/* MIB labels: the names of the registered object identifier tree, read
 * from the MIB label file, and the identifier printers built on them.
 *
 * The file is named by KZ_MIB_FILE, default $KZ_CONF_DIR/mib.labels.  It is
 * text, one node a line, "dotted-oid label" ("1.3.6.1.2.1.1.1 sysDescr");
 * "#" starts a comment, blank lines are skipped, and so are lines without
 * a numeric identifier and a label.  A later line for the same identifier
 * replaces the earlier label.  Not thread-safe. */
#ifndef EVENTS_KZ_MIB_H
#define EVENTS_KZ_MIB_H

#include "asn1.h"
#include "events_export.h"

EVENTS_BEGIN_DECLS

/* KZmib_load_mib reads the label file named by the environment now,
 * replacing the labels loaded before.  Returns 0, or -1 when the file
 * cannot be opened or read (the labels loaded before are kept).
 * KZmib_get_mib_filename returns the file's path as the environment names
 * it now (static text, valid until the next call). */
EVENTS_EXPORT int KZmib_load_mib(void);
EVENTS_EXPORT const char *KZmib_get_mib_filename(void);

/* sprint__objid writes the label path of an identifier into `buf`: each arc
 * preceded by a dot, as its label while the path so far is known, else as
 * its number (".iso.org.dod.internet.mgmt.mib-2.system.sysDescr.0").  The
 * text is cut to fit and always terminated; returns its length.  With no
 * labels loaded every arc is a number.  Nothing is written when
 * buflen <= 0. */
EVENTS_EXPORT int sprint__objid(char *buf, int buflen, const ObjectIdEMS *objid, int objidlen);

/* KZmib_read_objid reads an identifier written with labels of the loaded
 * file, numbers or both ("sysDescr.0", "IF-MIB::ifOperStatus.3",
 * ".iso.org.dod.internet", "1.3.6.1.2.1.1.1.0") into objid, whose capacity
 * in arcs *objid_len gives; *objid_len becomes the number of arcs.  A
 * "MODULE::" prefix is skipped.  The first label stands for its whole path:
 * without a leading dot it is looked up anywhere (the one whose identifier
 * the file mentions first, when several have it), with one among the first
 * arcs; a later label is a child of the node before it.  Returns 0, or -1
 * for an unknown label, a bad number or too many arcs. */
EVENTS_EXPORT int KZmib_read_objid(const char *text, ObjectIdEMS *objid, int *objid_len);

/* print_rawobjid writes the identifier as dotted numbers ("1.3.6.1") on
 * standard output, without a newline. */
EVENTS_EXPORT void print_rawobjid(const ObjectIdEMS *objid, int objidlen);

EVENTS_END_DECLS

#endif
