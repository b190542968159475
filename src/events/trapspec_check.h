// The writers' check that the model reads back as it is written.
#ifndef EVENTS_SRC_TRAPSPEC_CHECK_H
#define EVENTS_SRC_TRAPSPEC_CHECK_H

#include <string>

#include "trapspec_model.h"

namespace events {

// Whether every text of the model (categories, actions, enterprises, trap
// formats) passes trapTextProblem; false with the first problem in *why.
bool model_writable(std::string *why);

inline bool same_pair(const trap_record *a, const trap_record *b) {
  return a->generic_trap == b->generic_trap && a->specific_trap == b->specific_trap;
}

}  // namespace events

#endif
