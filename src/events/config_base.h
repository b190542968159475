// The leaf of the configuration code: the allocation-failure exit and the
// one writer of error texts.  Every other configuration file sits above it.
#ifndef EVENTS_SRC_CONFIG_BASE_H
#define EVENTS_SRC_CONFIG_BASE_H

#include <cstddef>

namespace events {

// Writes "<what>(<size>) failed in file readformat." on standard error and
// ends the process with status 1.
[[noreturn]] void allocation_failed(const char *what, unsigned long size);

// Writes the message into errmem, a buffer of `size` bytes (when errmem is
// not null), cut to fit.  Returns -1, the readers' failure result.
int write_error(char *errmem, size_t size, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

// Writes the message, then " in line #N of "FILE":" and the line, into
// errmem (when not null), a buffer of TRAPSPEC_ERROR_SIZE bytes.  Returns -1.
int fail(char *errmem, int line, const char *conffile, const char *rawline, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));

}  // namespace events

#endif
