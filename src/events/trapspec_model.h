// What the configuration reader needs from the model beyond the public
// interface.
#ifndef EVENTS_SRC_TRAPSPEC_MODEL_H
#define EVENTS_SRC_TRAPSPEC_MODEL_H

namespace events {

// Fills default_trap_record, the fallback format, unless it already is.
void fill_default_trap_record();

// Writes "<what>(<size>) failed in file readformat." on standard error and
// ends the process with status 1.
[[noreturn]] void allocation_failed(const char *what, unsigned long size);

}  // namespace events

#endif
