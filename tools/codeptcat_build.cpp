// codeptcat-build: writes a code-point catalog from a text list.
//
//   codeptcat-build LIST CATALOG
//
// Each line of LIST is "SET CODE TEXT": SET a decimal number 1 to 7, CODE
// the code point in hexadecimal (0x optional), TEXT the rest of the line,
// where \n stands for a newline and \\ for a backslash.  Blank lines and
// lines starting with # are skipped.  A bad line or a code point listed
// twice is reported with its line number and nothing is written.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "codeptcat.h"

namespace {

struct Item {
  unsigned set, code;
  std::string text;
};

std::string unescape(const char *text) {
  std::string out;
  for (const char *p = text; *p != '\0'; ++p) {
    if (*p == '\\' && p[1] == 'n') {
      out += '\n';
      ++p;
    } else if (*p == '\\' && p[1] == '\\') {
      out += '\\';
      ++p;
    } else {
      out += *p;
    }
  }
  return out;
}

// Parses one list line; false with `error` set when it is malformed.
bool parse_item(char *line, Item &item, const char *&error) {
  char *end;
  errno = 0;
  unsigned long set = strtoul(line, &end, 10);
  if (end == line || errno != 0 || set < 1 || set > CODEPT_MAX_SET || (*end != ' ' && *end != '\t')) {
    error = "set must be a number from 1 to 7";
    return false;
  }
  char *code_text = end + strspn(end, " \t");
  unsigned long code = strtoul(code_text, &end, 16);
  if (end == code_text || errno != 0 || code > 0xFFFE || (*end != ' ' && *end != '\t' && *end != '\0')) {
    error = "code point must be hexadecimal, 0 to FFFE";
    return false;
  }
  item.set = static_cast<unsigned>(set);
  item.code = static_cast<unsigned>(code);
  item.text = unescape(end + strspn(end, " \t"));
  return true;
}

bool read_list(const char *path, std::vector<Item> &items) {
  FILE *list = fopen(path, "r");
  if (list == nullptr) {
    perror(path);
    return false;
  }
  std::set<std::pair<unsigned, unsigned>> seen;
  char *line = nullptr;
  size_t capacity = 0;
  ssize_t length;
  int number = 0;
  bool ok = true;
  while (ok && (length = getline(&line, &capacity, list)) != -1) {
    ++number;
    while (length > 0 && strchr("\r\n \t", line[length - 1]) != nullptr) line[--length] = '\0';
    if (line[0] == '\0' || line[0] == '#') continue;
    Item item;
    const char *error = "code point listed twice";
    ok = parse_item(line, item, error) && seen.emplace(item.set, item.code).second;
    if (!ok) fprintf(stderr, "%s:%d: %s\n", path, number, error);
    items.push_back(std::move(item));
  }
  if (ok && ferror(list)) {
    perror(path);
    ok = false;
  }
  free(line);
  fclose(list);
  return ok;
}

bool write_catalog(const char *path, const std::vector<Item> &items) {
  std::string image(CODEPT_MAGIC, CODEPT_MAGIC_SIZE);
  const int32_t count = static_cast<int32_t>(items.size());
  const int32_t fill = 0;
  image.append(reinterpret_cast<const char *>(&count), sizeof count);
  image.append(reinterpret_cast<const char *>(&fill), sizeof fill);
  uint32_t offset = CODEPT_HEADER_SIZE + 8 * static_cast<uint32_t>(count);
  std::string texts;
  for (const Item &item : items) {
    cp_entry entry{static_cast<uint16_t>(item.code), static_cast<uint16_t>(item.set),
                   offset + static_cast<uint32_t>(texts.size())};
    image.append(reinterpret_cast<const char *>(&entry), sizeof entry);
    texts.append(item.text.c_str(), item.text.size() + 1);
  }
  image += texts;
  FILE *out = fopen(path, "wb");
  bool ok = out != nullptr && fwrite(image.data(), 1, image.size(), out) == image.size();
  if (out != nullptr && fclose(out) != 0) ok = false;
  if (!ok) perror(path);
  return ok;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: codeptcat-build LIST CATALOG\n");
    return 2;
  }
  std::vector<Item> items;
  if (!read_list(argv[1], items)) return 1;
  if (items.empty()) {
    fprintf(stderr, "%s: no code points\n", argv[1]);
    return 1;
  }
  return write_catalog(argv[2], items) ? 0 : 1;
}
