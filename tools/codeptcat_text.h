// A code-point catalog and its text list, each way.  A list line is
// "SET CODE TEXT": SET a decimal number 1 to 7, CODE the code point in
// hexadecimal (0x optional), TEXT the rest of the line, where \n stands for
// a newline and \\ for a backslash; blank lines and lines starting with #
// are skipped.  Shared by codeptcat-build and its fuzzer.
#ifndef TOOLS_CODEPTCAT_TEXT_H
#define TOOLS_CODEPTCAT_TEXT_H

#include <string>
#include <vector>

namespace tools {

struct CodePoint {
  unsigned set, code;
  std::string text;
};

// Reads a list; `name` labels the errors ("NAME:LINE: reason").  Returns
// "" or the first error; a code point listed twice is an error.
std::string read_code_list(const std::string &list, const std::string &name,
                           std::vector<CodePoint> &items);

// The catalog file image of `items`, in their order.
std::string catalog_image(const std::vector<CodePoint> &items);

// Reads a catalog file image back into items, in the file's order.
// Returns "" or what is wrong with the image.
std::string read_catalog(const std::string &image, std::vector<CodePoint> &items);

// The list text of `items`, one line each, that read_code_list reads back.
std::string code_list(const std::vector<CodePoint> &items);

}  // namespace tools

#endif
