/* Code-point catalog: display texts of the 16-bit code points that alert
 * traps carry, grouped in sets 1 to 7.
 *
 * The catalog is the binary file "codepoint.cat", found through NLSPATH
 * (each element with %L taken as the text before it and "En_US", other
 * elements without their last three characters, then "/codepoint.cat"),
 * and loaded whole into memory once.  Integers in it are in the byte order
 * of the reading machine:
 *   16 bytes   "codepoint.cat456"
 *   int32      count of entries;  int32  unused
 *   count x 8  entries: uint16 code point, uint16 set, uint32 file offset
 *              of the entry's NUL-terminated text
 *   the rest   the text area
 * tools/codeptcat-build writes such a file from a text list.
 * Not thread-safe. */
#ifndef EVENTS_CODEPTCAT_H
#define EVENTS_CODEPTCAT_H

#include <stdint.h>

#include "events_export.h"
#include "snmp.h"

EVENTS_BEGIN_DECLS

#define CODEPT_MAGIC "codepoint.cat456"
#define CODEPT_MAGIC_SIZE 16
#define CODEPT_HEADER_SIZE 24
#define CODEPT_MAX_SET 7

/* One entry as stored in the file. */
typedef struct {
  uint16_t ce_alertid; /* the code point */
  uint16_t ce_set;     /* its set, 1 to 7 */
  uint32_t ce_offset;  /* file offset of its text */
} cp_entry;
EVENTS_STATIC_ASSERT(sizeof(cp_entry) == 8, "cp_entry layout");

/* codeptpath sets the catalog path to `path`; with NULL it searches
 * NLSPATH for one unless a path is already set (an unset NLSPATH is
 * reported on standard error and leaves the path unset; with no candidate
 * found the path becomes the system's default catalog).  codeptcatinit
 * loads the catalog at the path (searching first when none is set),
 * replacing one loaded before.  Returns 0; -1 when the file cannot be
 * opened or examined or its texts cannot be read; -2 when its header is
 * short or wrong, it has no entries, or its entries cannot be read. */
EVENTS_EXPORT void codeptpath(const char *path);
EVENTS_EXPORT int codeptcatinit(void);

/* codeptstr returns the text of a code point: "" for code 0xFFFF; the code
 * as four hexadecimal digits when no catalog is loaded or the code point is
 * not in it; "-" for a set outside 1 to 7.  The hexadecimal text is a static
 * buffer overwritten by the next call; the others are valid until the next
 * load. */
EVENTS_EXPORT char *codeptstr(int set, int code);

/* cread reads up to n bytes of the open catalog into buf and returns how
 * many it read (fewer at end of file or on an error).  cecmp orders two
 * cp_entry by set, then code point. */
EVENTS_EXPORT int cread(char *buf, int n);
EVENTS_EXPORT int cecmp(const void *a, const void *b);

/* call_formatKWMcp writes the code points of `binding`, binding k (0-based)
 * of a trap with `vars` bindings, into `buffer` (room `buflen`, terminator
 * included), each as "SET:CODE TEXT" with CODE in four hexadecimal digits
 * and TEXT from the catalog, separated by "; ".  An OCTET STRING value
 * holds 4-octet groups, each a set and a code point in network order; an
 * INTEGER value holds one, the set in its upper and the code point in its
 * lower 16 bits.  Code point 0xFFFF is padding and is left out; octets left
 * over after the last whole group are shown as "(N stray octets)"; any
 * other type gives "$%N not code points", N being k + 1 as the format wrote
 * it.  A binding the trap does not carry (k >= vars) gives the empty text.
 * The first call loads the catalog when none is loaded.  The text is cut to
 * fit; returns its length.  Nothing is written when buflen <= 0. */
EVENTS_EXPORT int call_formatKWMcp(char *buffer, int buflen, const SnmpVarBindEMS *binding,
                                   int vars, int k);

EVENTS_END_DECLS

#endif
