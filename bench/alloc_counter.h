// Counts heap allocations made anywhere in the process, so a benchmark can
// show that a path allocates nothing.
#ifndef EVENTS_BENCH_ALLOC_COUNTER_H
#define EVENTS_BENCH_ALLOC_COUNTER_H

#include <cstdint>

namespace bench {

// Allocations (malloc, calloc, realloc) since the process started.
uint64_t allocations();

}  // namespace bench

#endif
