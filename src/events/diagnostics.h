// Echo of decoding diagnostics on standard error, shared by the codec
// modules.  Each module owns one bit of snmptracemaskEMS and one prefix.
#ifndef EVENTS_SRC_DIAGNOSTICS_H
#define EVENTS_SRC_DIAGNOSTICS_H

#include <cstdio>

#include "log_trace.h"

namespace events {

// Writes "<module>: <text>\n" on standard error when `bit` is set in
// snmptracemaskEMS.
inline void echo_diagnostic(int bit, const char *module, const char *text) {
  if (snmptracemaskEMS & bit) fprintf(stderr, "%s: %s\n", module, text);
}

}  // namespace events

#endif
