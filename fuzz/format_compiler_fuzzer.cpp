// Compiles arbitrary text as a configured format string and checks what
// the formatter relies on: at most 79 recorded references, each numbered
// 1 to 80 where a number is taken, and exactly one "%s" per reference that
// is not preceded by another "%".  The source sits in a block of exactly
// its size, so a read or write past it is caught.
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "trp_format.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static bool locale_set = false;
  if (!locale_set) {
    setlocale(LC_ALL, "C.UTF-8");
    locale_set = true;
  }
  // The first octet picks whether the source text is kept.
  trpFormatDontMallocRaw = size > 0 && (data[0] & 1);
  char *raw = static_cast<char *>(doMalloc(static_cast<unsigned>(size + 2)));
  if (size > 0) memcpy(raw, data, size);
  trap_element element;
  memset(&element, 0, sizeof element);
  makeFormatString(raw, &element);
  if (element.num_args < 0 || element.num_args > TRAP_MAX_REFERENCES) abort();
  for (int i = 0; i < element.num_args; ++i) {
    const trap_arg &arg = element.arg_list[i];
    if (arg.arg_type < ARG_A || arg.arg_type > ARG_NUM_KWM) abort();
    if (arg.arg_num < 0 || arg.arg_num > TRAP_MAX_ARGS) abort();
  }
  // Recompiling the element's own source must give the same template.
  if (element.rawstring != nullptr) {
    char *again = doStrdup(element.rawstring);
    trap_element second;
    memset(&second, 0, sizeof second);
    makeFormatString(again, &second);
    if (strcmp(second.format, element.format) != 0 || second.num_args != element.num_args) abort();
    freeTrapElementContents(&second);
  }
  freeTrapElementContents(&element);
  trpFormatDontMallocRaw = 0;
  return 0;
}
