#include "codeptcat_text.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <utility>

#include "codeptcat.h"

namespace tools {

namespace {

std::string unescape(const std::string &text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size() && (text[i + 1] == 'n' || text[i + 1] == '\\')) {
      out += text[++i] == 'n' ? '\n' : '\\';
    } else {
      out += text[i];
    }
  }
  return out;
}

std::string escape(const std::string &text) {
  std::string out;
  for (char c : text) out += c == '\n' ? "\\n" : c == '\\' ? "\\\\" : std::string(1, c);
  return out;
}

// Parses one list line; "" or the reason it is malformed.
std::string parse_item(const char *line, CodePoint &item) {
  char *end;
  errno = 0;
  unsigned long set = strtoul(line, &end, 10);
  if (end == line || errno != 0 || set < 1 || set > CODEPT_MAX_SET || (*end != ' ' && *end != '\t'))
    return "set must be a number from 1 to 7";
  const char *code_text = end + strspn(end, " \t");
  unsigned long code = strtoul(code_text, &end, 16);
  if (end == code_text || errno != 0 || code > 0xFFFE ||
      (*end != ' ' && *end != '\t' && *end != '\0'))
    return "code point must be hexadecimal, 0 to FFFE";
  item.set = static_cast<unsigned>(set);
  item.code = static_cast<unsigned>(code);
  item.text = unescape(end + strspn(end, " \t"));
  return "";
}

}  // namespace

std::string read_code_list(const std::string &list, const std::string &name,
                           std::vector<CodePoint> &items) {
  std::set<std::pair<unsigned, unsigned>> seen;
  int number = 0;
  for (size_t start = 0; start < list.size();) {
    size_t end = list.find('\n', start);
    if (end == std::string::npos) end = list.size();
    std::string line = list.substr(start, end - start);
    start = end + 1;
    ++number;
    while (!line.empty() && strchr("\r \t", line.back()) != nullptr) line.pop_back();
    if (line.empty() || line[0] == '#') continue;
    // A NUL would cut the text short in the catalog.
    if (line.find('\0') != std::string::npos)
      return name + ":" + std::to_string(number) + ": NUL in line";
    CodePoint item;
    std::string error = parse_item(line.c_str(), item);
    if (error.empty() && !seen.emplace(item.set, item.code).second)
      error = "code point listed twice";
    if (!error.empty()) return name + ":" + std::to_string(number) + ": " + error;
    items.push_back(std::move(item));
  }
  return "";
}

std::string catalog_image(const std::vector<CodePoint> &items) {
  std::string image(CODEPT_MAGIC, CODEPT_MAGIC_SIZE);
  const int32_t count = static_cast<int32_t>(items.size());
  const int32_t fill = 0;
  image.append(reinterpret_cast<const char *>(&count), sizeof count);
  image.append(reinterpret_cast<const char *>(&fill), sizeof fill);
  uint32_t offset = CODEPT_HEADER_SIZE + 8 * static_cast<uint32_t>(count);
  std::string texts;
  for (const CodePoint &item : items) {
    cp_entry entry{static_cast<uint16_t>(item.code), static_cast<uint16_t>(item.set),
                   offset + static_cast<uint32_t>(texts.size())};
    image.append(reinterpret_cast<const char *>(&entry), sizeof entry);
    texts.append(item.text.c_str(), item.text.size() + 1);
  }
  return image + texts;
}

std::string read_catalog(const std::string &image, std::vector<CodePoint> &items) {
  if (image.size() < CODEPT_HEADER_SIZE || image.compare(0, CODEPT_MAGIC_SIZE, CODEPT_MAGIC) != 0)
    return "not a code-point catalog";
  int32_t count;
  memcpy(&count, image.data() + CODEPT_MAGIC_SIZE, sizeof count);
  if (count < 0 || static_cast<size_t>(count) > (image.size() - CODEPT_HEADER_SIZE) / 8)
    return "entry count " + std::to_string(count) + " does not fit the file";
  for (int32_t i = 0; i < count; ++i) {
    cp_entry entry;
    memcpy(&entry, image.data() + CODEPT_HEADER_SIZE + 8 * static_cast<size_t>(i), sizeof entry);
    size_t end =
        entry.ce_offset < image.size() ? image.find('\0', entry.ce_offset) : std::string::npos;
    if (end == std::string::npos)
      return "text of entry " + std::to_string(i + 1) + " is not within the file";
    items.push_back(
        {entry.ce_set, entry.ce_alertid, image.substr(entry.ce_offset, end - entry.ce_offset)});
  }
  return "";
}

std::string code_list(const std::vector<CodePoint> &items) {
  std::string list;
  char head[32];
  for (const CodePoint &item : items) {
    snprintf(head, sizeof head, "%u %04X", item.set, item.code);
    list += head;
    if (!item.text.empty()) {
      list += ' ';
      list += escape(item.text);
    }
    list += '\n';
  }
  return list;
}

}  // namespace tools
