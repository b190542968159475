// Interposes the C allocator for the whole process (libevents.so
// included) and forwards to glibc's own entry points.
#include "alloc_counter.h"

#include <atomic>
#include <cstddef>

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
}

namespace {
std::atomic<uint64_t> count{0};
}

extern "C" void *malloc(size_t size) {
  count.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(size);
}

extern "C" void *calloc(size_t n, size_t size) {
  count.fetch_add(1, std::memory_order_relaxed);
  return __libc_calloc(n, size);
}

extern "C" void *realloc(void *p, size_t size) {
  count.fetch_add(1, std::memory_order_relaxed);
  return __libc_realloc(p, size);
}

uint64_t bench::allocations() { return count.load(std::memory_order_relaxed); }
