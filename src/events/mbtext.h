// Multibyte-aware stepping shared by the text scanners of the library.
#ifndef EVENTS_SRC_MBTEXT_H
#define EVENTS_SRC_MBTEXT_H

#include <cstdlib>

namespace events {

// Length in bytes (1 or 2) of the character at p, as the locale's mblen
// sees it with a limit of two bytes.  A byte below 128 is a character of
// its own in every locale the platform runs in, so only the others are
// asked about.  REQUIRES: p points into a NUL-terminated text.
inline int char_length(const char *p) {
  if (static_cast<unsigned char>(*p) < 0x80) return 1;
  return mblen(p, 2) == 2 ? 2 : 1;
}

}  // namespace events

#endif
