// Code-point catalog: finding, loading and searching "codepoint.cat", and
// the display of a binding's code points.

#include "codeptcat.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

// The file's entry with its text: the on-disk entry is kept as read, and
// the text pointer into the text area lives beside it, whatever the size
// of a pointer.
struct Entry {
  cp_entry entry;
  const char *text;  // NULL when the entry's offset lies outside the text area
};

struct SetSlice {
  size_t first = 0;
  int count = 0;  // entries of the set plus one, as the search expects
};

struct CatalogState {
  std::string path;  // empty until chosen
  bool nlspath_reported = false;
  FILE *stream = nullptr;
  bool loaded = false;
  bool load_attempted = false;
  std::vector<Entry> entries;  // sorted, followed by one end slot
  std::vector<char> text_area;
  SetSlice sets[CODEPT_MAX_SET + 1];
  char hex[5];
};
CatalogState catalog;

constexpr const char *kLocaleName = "En_US";
constexpr const char *kCatalogName = "/codepoint.cat";

bool exists(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

void search_path() {
  const char *nlspath = getenv("NLSPATH");
  if (nlspath == nullptr) {
    if (!catalog.nlspath_reported) perror("getenv(NLSPATH)");
    catalog.nlspath_reported = true;
    return;
  }
  std::string_view elements(nlspath);
  for (;;) {
    size_t colon = elements.find(':');
    std::string_view element = elements.substr(0, colon);
    size_t locale = element.find("%L");
    std::string candidate =
        locale != std::string_view::npos
            ? std::string(element.substr(0, locale)) + kLocaleName
            : std::string(element.substr(0, element.size() < 3 ? 0 : element.size() - 3));
    candidate += kCatalogName;
    if (exists(candidate)) {
      catalog.path = candidate;
      return;
    }
    if (colon == std::string_view::npos) break;
    elements.remove_prefix(colon + 1);
  }
  const char *installed = "/usr/lpp/bos/inst_root/var/adm/ras/codepoint.cat";
  catalog.path = exists(installed) ? installed : "/var/adm/ras/codepoint.cat";
}

void unload() {
  if (catalog.stream != nullptr) fclose(catalog.stream);
  catalog.stream = nullptr;
  catalog.loaded = false;
  catalog.entries.clear();
  catalog.text_area.clear();
  std::fill(std::begin(catalog.sets), std::end(catalog.sets), SetSlice{});
}

// Turns offsets into text pointers, sorts, and indexes the sets.
void index_entries(const std::vector<cp_entry> &read, long text_start) {
  catalog.text_area.push_back('\0');  // every text ends inside the area
  const long text_size = static_cast<long>(catalog.text_area.size()) - 1;
  catalog.entries.reserve(read.size() + 1);
  for (const cp_entry &entry : read) {
    long offset = static_cast<long>(entry.ce_offset) - text_start;
    const char *text = offset >= 0 && offset < text_size ? &catalog.text_area[offset] : nullptr;
    catalog.entries.push_back({entry, text});
  }
  std::sort(catalog.entries.begin(), catalog.entries.end(),
            [](const Entry &a, const Entry &b) { return cecmp(&a.entry, &b.entry) < 0; });
  // A set's slice counts one slot more than its entries, so the search may
  // look at the next set's first entry (a single-entry set whose successor
  // starts with a lower code point is then missed, as catalogs have always
  // been searched).  At the end of the array that slot is this entry, above
  // every code point that is looked up.
  catalog.entries.push_back({cp_entry{0xFFFF, 0, 0}, nullptr});
  for (size_t i = 0; i + 1 < catalog.entries.size(); ++i) {
    unsigned set = catalog.entries[i].entry.ce_set;
    if (set < 1 || set > CODEPT_MAX_SET) continue;
    if (catalog.sets[set].count == 0) catalog.sets[set] = {i, 1};
    ++catalog.sets[set].count;
  }
}

const char *hex_text(int code) {
  snprintf(catalog.hex, sizeof catalog.hex, "%04X", static_cast<unsigned>(code) & 0xFFFF);
  return catalog.hex;
}

// Appends to a caller's buffer, cutting the text to fit.
struct Output {
  char *buffer;
  int room;  // bytes left, terminator included
  int length = 0;

  void add(std::string_view text) {
    int n = std::min(static_cast<int>(text.size()), room - 1);
    if (n <= 0) return;
    memcpy(buffer + length, text.data(), static_cast<size_t>(n));
    length += n;
    room -= n;
    buffer[length] = '\0';
  }
};

void add_code_point(Output &out, unsigned set, unsigned code) {
  if (code == 0xFFFF) return;
  char head[16];
  snprintf(head, sizeof head, "%s%u:%04X ", out.length > 0 ? "; " : "", set, code);
  out.add(head);
  out.add(codeptstr(static_cast<int>(set), static_cast<int>(code)));
}

}  // namespace

extern "C" {

EVENTS_EXPORT void codeptpath(const char *path) {
  if (path != nullptr) {
    catalog.path = path;
  } else if (catalog.path.empty()) {
    search_path();
  }
}

EVENTS_EXPORT int cread(char *buf, int n) {
  if (catalog.stream == nullptr) return 0;
  int count = 0;
  int c;
  while (count < n && (c = getc(catalog.stream)) != EOF) buf[count++] = static_cast<char>(c);
  return count;
}

EVENTS_EXPORT int cecmp(const void *a, const void *b) {
  const cp_entry *left = static_cast<const cp_entry *>(a);
  const cp_entry *right = static_cast<const cp_entry *>(b);
  if (left->ce_set != right->ce_set) return left->ce_set < right->ce_set ? -1 : 1;
  if (left->ce_alertid != right->ce_alertid) return left->ce_alertid < right->ce_alertid ? -1 : 1;
  return 0;
}

EVENTS_EXPORT int codeptcatinit(void) {
  unload();
  codeptpath(nullptr);
  if (catalog.path.empty()) return -1;
  catalog.stream = fopen(catalog.path.c_str(), "rbe");
  struct stat st;
  if (catalog.stream == nullptr || fstat(fileno(catalog.stream), &st) != 0 ||
      st.st_size > INT32_MAX) {
    unload();
    return -1;
  }
  char header[CODEPT_HEADER_SIZE];
  if (cread(header, CODEPT_HEADER_SIZE) != CODEPT_HEADER_SIZE ||
      memcmp(header, CODEPT_MAGIC, CODEPT_MAGIC_SIZE) != 0) {
    unload();
    return -2;
  }
  int32_t count;
  memcpy(&count, header + CODEPT_MAGIC_SIZE, sizeof count);
  // A refused count or a short entry table leaves the stream open.
  const long text_start = CODEPT_HEADER_SIZE + 8L * count;
  if (count <= 0 || text_start > st.st_size) return -2;
  std::vector<cp_entry> read(static_cast<size_t>(count));
  const int table_size = 8 * count;
  if (cread(reinterpret_cast<char *>(read.data()), table_size) != table_size) return -2;
  catalog.text_area.resize(static_cast<size_t>(st.st_size - text_start));
  const int text_size = static_cast<int>(catalog.text_area.size());
  if (cread(catalog.text_area.data(), text_size) != text_size) {
    unload();
    return -1;
  }
  index_entries(read, text_start);
  catalog.loaded = true;
  return 0;
}

EVENTS_EXPORT char *codeptstr(int set, int code) {
  static char empty[] = "";
  static char dash[] = "-";
  if (code == 0xFFFF) return empty;
  if (!catalog.loaded) return const_cast<char *>(hex_text(code));
  if (set <= 0 || set > CODEPT_MAX_SET) return dash;
  const SetSlice &slice = catalog.sets[set];
  if (slice.count == 0) return const_cast<char *>(hex_text(code));
  int lo = 0, hi = slice.count;
  for (;;) {
    int mid = (lo + hi) / 2;
    const Entry &entry = catalog.entries[slice.first + static_cast<size_t>(mid)];
    if (entry.entry.ce_alertid == code) {
      return const_cast<char *>(entry.text != nullptr ? entry.text : hex_text(code));
    }
    if (code > entry.entry.ce_alertid) {
      if (lo == mid) break;
      lo = mid;
    } else {
      if (hi == mid) break;
      hi = mid;
    }
  }
  return const_cast<char *>(hex_text(code));
}

EVENTS_EXPORT int call_formatKWMcp(char *buffer, int buflen, const SnmpVarBindEMS *binding,
                                   int vars, int k) {
  if (buflen <= 0) return 0;
  buffer[0] = '\0';
  if (binding == nullptr || k < 0 || k >= vars) return 0;
  if (!catalog.load_attempted && !catalog.loaded) codeptcatinit();
  catalog.load_attempted = true;
  Output out{buffer, buflen};
  if (binding->type == ASN_INTEGER) {
    uint32_t value = static_cast<uint32_t>(binding->val.integer);
    add_code_point(out, value >> 16, value & 0xFFFF);
  } else if (binding->type == ASN_OCTET_STR) {
    const unsigned char *octets = binding->val.string;
    const uint32_t length = std::min<uint32_t>(binding->val_len, SNMP_STRING_MAX);
    uint32_t i = 0;
    for (; i + 4 <= length; i += 4) {
      add_code_point(out, (octets[i] << 8u) | octets[i + 1], (octets[i + 2] << 8u) | octets[i + 3]);
    }
    if (i < length) {
      char stray[32];
      snprintf(stray, sizeof stray, "%s(%u stray octets)", out.length > 0 ? "; " : "", length - i);
      out.add(stray);
    }
  } else {
    char text[40];
    snprintf(text, sizeof text, "$%%%d not code points", k + 1);
    out.add(text);
  }
  return out.length;
}

}  // extern "C"
