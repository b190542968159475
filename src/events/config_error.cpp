// The one writer of the configuration files' error texts.

#include "config_error.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "config_base.h"

namespace events {

int write_error(char *errmem, size_t size, const char *fmt, ...) {
  if (errmem == nullptr) return -1;
  va_list args;
  va_start(args, fmt);
  vsnprintf(errmem, size, fmt, args);
  va_end(args);
  return -1;
}

int fail(char *errmem, int line, const char *conffile, const char *rawline, const char *fmt, ...) {
  if (errmem == nullptr) return -1;
  va_list args;
  va_start(args, fmt);
  vsnprintf(errmem, TRAPSPEC_ERROR_SIZE, fmt, args);
  va_end(args);
  appendLineInfo(errmem, line, conffile, rawline);
  return -1;
}

}  // namespace events

extern "C" EVENTS_EXPORT void appendLineInfo(char *errmem, int line, const char *conffile,
                                             const char *rawline) {
  size_t used = strnlen(errmem, TRAPSPEC_ERROR_SIZE - 1);
  snprintf(errmem + used, TRAPSPEC_ERROR_SIZE - used, " in line #%d of \"%s\":\n%s.\n", line,
           conffile, rawline);
}
