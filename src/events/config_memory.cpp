// Memory of the configuration code, and the one way it ends the process
// when memory runs out.

#include "config_memory.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "config_base.h"

namespace events {

void allocation_failed(const char *what, unsigned long size) {
  fprintf(stderr, "%s(%lu) failed in file %s.\n", what, size, "readformat");
  exit(1);
}

}  // namespace events

namespace {

// A std::bad_alloc must never reach a C caller, who cannot catch it: from
// the moment the library is loaded a failed operator new, in the library's
// code and the standard library it calls alike, ends the process as
// doMalloc does.  An application that sets a new_handler of its own
// replaces this one.
[[gnu::constructor]] void end_process_on_allocation_failure() {
  if (std::get_new_handler() == nullptr)
    std::set_new_handler([] { events::allocation_failed("malloc", 0); });
}

}  // namespace

extern "C" EVENTS_EXPORT void *doMalloc(unsigned size) {
  void *block = calloc(1, size == 0 ? 1 : size);
  if (block == nullptr) events::allocation_failed("malloc", size);
  return block;
}

extern "C" EVENTS_EXPORT void *doRealloc(void *ptr, unsigned size) {
  void *block = realloc(ptr, size == 0 ? 1 : size);
  if (block == nullptr) events::allocation_failed("realloc", size);
  return block;
}

extern "C" EVENTS_EXPORT char *doStrdup(const char *s) {
  size_t length = strlen(s);
  auto *copy = static_cast<char *>(malloc(length + 2));
  if (copy == nullptr) events::allocation_failed("malloc", length + 1);
  memcpy(copy, s, length + 1);
  copy[length + 1] = '\0';
  return copy;
}

extern "C" EVENTS_EXPORT void doFree(const void *p) { free(const_cast<void *>(p)); }
