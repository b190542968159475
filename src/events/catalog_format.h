// Catalog texts used as printf formats.
#ifndef EVENTS_SRC_CATALOG_FORMAT_H
#define EVENTS_SRC_CATALOG_FORMAT_H

namespace events {

// The catalog text of (set, number) when it asks for exactly the printf
// conversions of `builtin`, in order and with the same flags, width and
// precision; otherwise `builtin`.  A catalog file is outside input: a text
// that asks for other arguments, or for a conversion the library's texts
// never use (floating point, "%n"), would make the arguments unsafe.
const char *catalog_format(int set, int number, const char *builtin);

}  // namespace events

#endif
