// Runs import-mib's module text handling over arbitrary octets: the comment
// hints of the text read as a module, and the format line and description
// block of every definition found, with the whole text as its DESCRIPTION.
// Aborts when a format line could break the configuration file (a line
// break, empty, a leading "#") or a description line would end its block.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" {
#include "mib_text.h"
}

namespace {

void check_description(const char *block) {
  if (block == nullptr) return;
  for (const char *line = block; line != nullptr;) {
    size_t length = strcspn(line, "\r\n");
    while (length > 0 && (*line == ' ' || *line == '\t')) ++line, --length;
    if (*line == '#' || (length >= 5 && strncmp(line, "EDESC", 5) == 0 &&
                         strspn(line + 5, " \t\f\v") == length - 5))
      abort();
    line = strpbrk(line, "\r\n");
    if (line != nullptr) ++line;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string text(reinterpret_cast<const char *>(data), size);
  FILE *fp = fmemopen(text.data(), text.size() + 1, "r");
  if (fp == nullptr) return 0;
  struct hints *hints = nullptr;
  size_t count = 0;
  mib_read_hints(fp, &hints, &count);
  fclose(fp);

  char name[] = "fuzzed", object_a[] = "a", object_b[] = "b$\\";
  char *objects[] = {object_a, object_b};
  mib_notification notification{};
  notification.name = name;
  notification.description = text.data();  // stops at the first NUL
  notification.objects = objects;
  notification.object_count = 2;
  for (size_t i = 0; i <= count; ++i) {
    char *line = mib_format_line(&notification, i < count ? &hints[i] : nullptr);
    if (line == nullptr || line[0] == '\0' || line[0] == '#' || strpbrk(line, "\r\n") != nullptr)
      abort();
    doFree(line);
  }
  char *block = mib_description_block(text.c_str());
  check_description(block);
  doFree(block);
  mib_free_hints(hints, count);
  return 0;
}
