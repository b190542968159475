/* OID name tree: short display names for object identifiers, read from a
 * mapping file ("oid_to_label" in the configuration directory).
 *
 * The file holds three kinds of line, with no blanks beside "=":
 *   "name"=1.3.6.1.4.1.49999          a local: a name for an identifier text
 *   ${name}.1.2="linkDown"            a mapping: the identifier gets a name
 *   ${name}.3.i(1..8)="port${i+100}"  a range: one mapping per value of i
 * "#" starts a comment; a backslash before the newline joins the next line.
 * A local's value may itself begin with a reference to an older local.  A
 * mapping line that does not begin with a reference is ignored, and so is
 * any line that cannot be read; a mapping text has at most 63 characters.
 *
 * The tree is a first-child / next-sibling tree: siblings are kept in
 * ascending order of their arc, never two with the same arc.  The root is a
 * node of arc 0 whose children are the first arcs.  A node without a name
 * has data NULL.  The tree owns its data.  Lookups are exact: a prefix of a
 * named identifier has no name unless it was given one.
 *
 * The routines whose names begin with Tree work on an explicit tree; the
 * others on the process-wide oidTree.  Not thread-safe. */
#ifndef EVENTS_OIDTREE_H
#define EVENTS_OIDTREE_H

#include <stddef.h>
#include <stdio.h>

#include "asn1.h"
#include "events_export.h"

EVENTS_BEGIN_DECLS

/* Bytes of a mapping text, terminator included. */
#define OID_MAPPING_SIZE 64
/* Bytes of a local's identifier text, terminator included. */
#define OID_STRING_SIZE 128
/* Most arcs of a local's identifier. */
#define OID_LOCAL_ARCS 128
/* Bytes of one logical line of the mapping file, continuations joined. */
#define OID_LINE_SIZE 1024

typedef struct oiddata {
  char mapping_str[OID_MAPPING_SIZE];
} oiddata;

typedef struct oidnode {
  struct oidnode *child; /* first child, lowest arc */
  struct oidnode *sib;   /* next sibling, higher arc */
  ObjectIdEMS val;       /* the arc */
  oiddata *data;         /* the name, or NULL */
} oidnode;

/* One local of the file being read.  The list is newest first and is reset
 * at the start of every file read. */
typedef struct local_map {
  struct local_map *next;
  char mapping_str[OID_MAPPING_SIZE]; /* the local's name */
  char oidstring[OID_STRING_SIZE];    /* the identifier text it stands for */
  ObjectIdEMS ent_oid[OID_LOCAL_ARCS];
  int ent_oid_len;
} local_map;

/* The process-wide tree, NULL until loaded. */
EVENTS_EXPORT extern oidnode *oidTree;

/* Reading.  parseOidFile reads the file into a new tree and returns it, or
 * NULL when the file cannot be opened.  TreeParseOidFile does the same and,
 * when the file opens, frees `old` first.  Lines that cannot be read are
 * skipped; a failed insertion of a single mapping ends the reading, keeping
 * what was read so far. */
EVENTS_EXPORT oidnode *parseOidFile(const char *path);
EVENTS_EXPORT oidnode *TreeParseOidFile(oidnode *old, const char *path);

/* Insertion.  TreeInsertOid inserts a dotted identifier text (arcs in
 * decimal, 0x hexadecimal or 0 octal; a leading dot is allowed) with `data`,
 * replacing and freeing any older data of that node.  Returns the node, or
 * NULL when an arc is not a number or the text holds more than 512 arcs;
 * the tree is then unchanged.  The tree owns `data` from the call on: a
 * failed insertion frees it.
 * REQUIRES: root points to a tree pointer, possibly NULL. */
EVENTS_EXPORT oidnode *TreeInsertOid(oidnode **root, const char *oidstring, oiddata *data);
/* newOidNode allocates an unnamed node for one arc; buildOidData allocates
 * data holding `text` cut to 63 characters.  insertOid places `len` arcs
 * under `*root` like TreeInsertOid. */
EVENTS_EXPORT oidnode *newOidNode(ObjectIdEMS val);
EVENTS_EXPORT oiddata *buildOidData(const char *text);
EVENTS_EXPORT oidnode *insertOid(oidnode **root, const ObjectIdEMS *oid, int len, oiddata *data);

/* Exact lookups of `len` arcs: the node's data or mapping text, or NULL
 * when the identifier is not in the tree, has no name, or len is 0. */
EVENTS_EXPORT oiddata *getOidData(const ObjectIdEMS *oid, int len);
EVENTS_EXPORT oiddata *TreeGetOidData(oidnode **root, const ObjectIdEMS *oid, int len);
EVENTS_EXPORT char *lookupOid(const ObjectIdEMS *oid, int len);
EVENTS_EXPORT char *TreeLookupOid(oidnode *tree, const ObjectIdEMS *oid, int len);

/* Reverse lookup: the dotted identifier text, without a leading dot, of the
 * first node in depth-first order (children before the next sibling) whose
 * name is `name`; NULL when none.  The text is a static buffer overwritten
 * by the next call. */
EVENTS_EXPORT char *findOidInTree(oidnode *tree, const char *name);

/* Locals of the file read last.  findEntOidstring returns the identifier
 * text of the newest local called `name`, or NULL.  buildEntOid converts a
 * dotted text into at most `max` arcs and returns their count, or -1 when
 * an arc is not a number or there are too many.  expandLocalRef writes
 * `ref`, which begins with a reference "${name}", into `out` (room
 * `outsize`) with the reference replaced by the local's identifier text;
 * returns 0, or -1 for an unknown name, a missing "}", text after the
 * reference that does not begin with a dot, or a result that does not fit. */
EVENTS_EXPORT const char *findEntOidstring(const char *name);
EVENTS_EXPORT int buildEntOid(const char *text, ObjectIdEMS *oid, int max);
EVENTS_EXPORT int expandLocalRef(char *out, size_t outsize, const char *ref);

/* Template expansion for ranges: copies `tmpl` to `out` (room `outsize`),
 * replacing "${X}" by `value` and "${X+n}", "${X-n}", "${X*n}", "${X/n}",
 * "${X%n}" by the integer result, where X is `letter`; "$$" is kept as it
 * is.  Returns 0; 1 for a reference to another letter, 2 for a missing
 * "}", 3 for an unknown operator, 4 for a missing or too large number, a
 * division by zero or a result that does not fit `out`. */
EVENTS_EXPORT int strsub(char *out, size_t outsize, const char *tmpl, char letter, long value);

/* getOidLine reads the next logical line (comments cut, leading blanks
 * skipped, continuations joined, empty lines skipped) into `buf` of `size`
 * bytes; returns 1, or 0 at end of file or on a read error. */
EVENTS_EXPORT int getOidLine(FILE *fp, char *buf, int size);

/* Releasing.  oidFree frees one node and its data; oidFreeTree frees a
 * whole tree (NULL is allowed); local_mapFree empties the local list. */
EVENTS_EXPORT void oidFree(oidnode *node);
EVENTS_EXPORT void oidFreeTree(oidnode *tree);
EVENTS_EXPORT void local_mapFree(void);

/* Diagnostic listings on standard output: the locals as "\t'name' -> .1.3",
 * and every named node as "\t.1.3 -> 'name'" (under the heading "Exposed
 * mappings:", printed once per process), each path preceded by `prefix`. */
EVENTS_EXPORT void dumpLocalList(void);
EVENTS_EXPORT void dumpOidTree(oidnode *tree, const char *prefix);

EVENTS_END_DECLS

#endif
