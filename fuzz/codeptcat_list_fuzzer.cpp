// Reads arbitrary octets as a code-point catalog, as codeptcat-build
// --list does, and checks that the list it prints is stable: read back and
// written as a catalog, it lists the same again.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "codeptcat_text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string image(reinterpret_cast<const char *>(data), size);
  std::vector<tools::CodePoint> items;
  if (!tools::read_catalog(image, items).empty()) {
    // A catalog that is refused can still be a list.
    items.clear();
    if (tools::read_code_list(image, "fuzz", items).empty() &&
        !tools::read_catalog(tools::catalog_image(items), items).empty())
      abort();
    return 0;
  }
  std::vector<tools::CodePoint> listed;
  if (!tools::read_code_list(tools::code_list(items), "fuzz", listed).empty()) return 0;
  std::string list = tools::code_list(listed);
  std::vector<tools::CodePoint> again;
  if (!tools::read_catalog(tools::catalog_image(listed), again).empty()) abort();
  if (tools::code_list(again) != list) abort();
  return 0;
}
