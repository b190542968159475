// OID name tree: the mapping file reader, exact and reverse lookups, dumps.

#include "oidtree.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

extern "C" {
EVENTS_EXPORT oidnode *oidTree = nullptr;
}

namespace {

// Most arcs an identifier text of one line can hold.
constexpr int kMaxArcs = OID_LINE_SIZE / 2;
// Most values one range line expands to; a wider range is ignored rather
// than filling memory with names nobody wrote.
constexpr unsigned long kMaxRangeValues = 10000;

struct OidTreeState {
  local_map *locals = nullptr;  // newest first
  bool dump_heading_printed = false;
  std::string found_oid;  // last reverse-lookup result
};
OidTreeState state;

void *allocate(size_t size) {
  void *memory = calloc(1, size);
  if (memory == nullptr) {
    fprintf(stderr, "malloc(%d) failed in file %s.\n", static_cast<int>(size), __FILE__);
    exit(1);
  }
  return memory;
}

// Reads one physical line without its newline (and a carriage return
// before it) into `line`, keeping at most `limit` characters; `cut` tells
// whether there were more.  False at end of file or on an error.
bool read_physical_line(FILE *fp, std::string &line, size_t limit, bool &cut) {
  line.clear();
  cut = false;
  int c;
  bool any = false;
  while ((c = getc(fp)) != EOF) {
    any = true;
    if (c == '\n') break;
    if (line.size() < limit) {
      line.push_back(static_cast<char>(c));
    } else {
      cut = true;
    }
  }
  if (!cut && !line.empty() && line.back() == '\r') line.pop_back();
  return any && !ferror(fp);
}

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Converts one arc: decimal, 0x hexadecimal or 0 octal, nothing else.
bool parse_arc(std::string_view text, ObjectIdEMS &arc) {
  if (text.empty() || text.size() > 34 || text[0] < '0' || text[0] > '9') return false;
  char digits[35];
  memcpy(digits, text.data(), text.size());
  digits[text.size()] = '\0';
  char *end = nullptr;
  errno = 0;
  unsigned long long value = strtoull(digits, &end, 0);
  if (errno != 0 || *end != '\0' || value > UINT32_MAX) return false;
  arc = static_cast<ObjectIdEMS>(value);
  return true;
}

// Reads a decimal number of digits only, up to UINT32_MAX.
bool parse_decimal(std::string_view text, unsigned long &value) {
  if (text.empty() || text.size() > 10) return false;
  value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<unsigned long>(c - '0');
  }
  return value <= UINT32_MAX;
}

// The text between an opening double quote at `open` and the next one.
bool quoted(std::string_view line, size_t open, std::string_view &text, size_t &close) {
  close = line.find('"', open + 1);
  if (close == std::string_view::npos) return false;
  text = line.substr(open + 1, close - open - 1);
  return true;
}

// `"name"=value`: a new local at the head of the list.
void read_local(std::string_view line) {
  std::string_view name;
  size_t close;
  if (!quoted(line, 0, name, close) || name.size() >= OID_MAPPING_SIZE) return;
  size_t equals = line.find('=', close);
  if (equals == std::string_view::npos) return;
  std::string value(line.substr(equals + 1));
  char expanded[OID_STRING_SIZE];
  if (value.starts_with("${")) {
    if (expandLocalRef(expanded, sizeof expanded, value.c_str()) != 0) return;
    value = expanded;
  }
  if (value.size() >= OID_STRING_SIZE) return;
  local_map *local = static_cast<local_map *>(allocate(sizeof(local_map)));
  local->ent_oid_len = buildEntOid(value.c_str(), local->ent_oid, OID_LOCAL_ARCS);
  if (local->ent_oid_len <= 0) {
    free(local);
    return;
  }
  memcpy(local->mapping_str, name.data(), name.size());
  memcpy(local->oidstring, value.data(), value.size());
  local->next = state.locals;
  state.locals = local;
}

// A range "prefix.X(lo..hi)" at the end of an identifier text.
struct Range {
  std::string prefix;  // up to and including the dot before the letter
  char letter;
  unsigned long lo, hi;
};

bool parse_range(std::string_view oid, Range &range) {
  size_t open = oid.rfind('(');
  size_t dots = oid.find("..", open);
  if (open == std::string_view::npos || open < 2 || oid.back() != ')' ||
      dots == std::string_view::npos || oid[open - 2] != '.')
    return false;
  char letter = oid[open - 1];
  if (!((letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z'))) return false;
  if (!parse_decimal(oid.substr(open + 1, dots - open - 1), range.lo) ||
      !parse_decimal(oid.substr(dots + 2, oid.size() - 1 - dots - 2), range.hi))
    return false;
  range.prefix = oid.substr(0, open - 1);
  range.letter = letter;
  return true;
}

// The node of `len` arcs under *root, created with any missing ones.
oidnode *reach(oidnode **root, const ObjectIdEMS *oid, int len) {
  if (*root == nullptr) *root = newOidNode(0);
  oidnode *node = *root;
  for (int i = 0; i < len; ++i) {
    oidnode **link = &node->child;
    while (*link != nullptr && (*link)->val < oid[i]) link = &(*link)->sib;
    if (*link == nullptr || (*link)->val != oid[i]) {
      oidnode *added = newOidNode(oid[i]);
      added->sib = *link;
      *link = added;
    }
    node = *link;
  }
  return node;
}

void set_data(oidnode *node, oiddata *data) {
  free(node->data);
  node->data = data;
}

// Inserts each value of a range; stops at the first that fails.  The
// values ascend, so one walk along the siblings places them all.
void insert_range(oidnode **root, const Range &range, const std::string &tmpl) {
  if (range.hi >= range.lo && range.hi - range.lo >= kMaxRangeValues) return;
  ObjectIdEMS prefix[kMaxArcs];
  std::string parent_text = range.prefix.substr(0, range.prefix.size() - 1);
  int len = buildEntOid(parent_text.c_str(), prefix, kMaxArcs - 1);
  if (len < 0) return;
  oidnode **link = &reach(root, prefix, len)->child;
  for (unsigned long v = range.lo; v <= range.hi; ++v) {
    char text[OID_MAPPING_SIZE];
    if (strsub(text, sizeof text, tmpl.c_str(), range.letter, static_cast<long>(v)) != 0) return;
    while (*link != nullptr && (*link)->val < v) link = &(*link)->sib;
    if (*link == nullptr || (*link)->val != v) {
      oidnode *added = newOidNode(static_cast<ObjectIdEMS>(v));
      added->sib = *link;
      *link = added;
    }
    set_data(*link, buildOidData(text));
  }
}

// `${local}.arcs="text"`, possibly ending in a range.  False when a single
// mapping could not be inserted, which ends the reading of the file.
bool read_mapping(oidnode **root, std::string_view line) {
  size_t equals = line.find('=');
  if (equals == std::string_view::npos || equals + 1 >= line.size() || line[equals + 1] != '"')
    return true;
  std::string_view text;
  size_t close;
  if (!quoted(line, equals + 1, text, close) || text.size() >= OID_MAPPING_SIZE) return true;
  std::string reference(line.substr(0, equals));
  char oid[OID_LINE_SIZE];
  if (expandLocalRef(oid, sizeof oid, reference.c_str()) != 0) return true;
  Range range;
  if (parse_range(oid, range)) {
    insert_range(root, range, std::string(text));
    return true;
  }
  return TreeInsertOid(root, oid, buildOidData(std::string(text).c_str())) != nullptr;
}

oidnode *read_mapping_file(FILE *fp) {
  oidnode *tree = newOidNode(0);
  local_mapFree();
  char line[OID_LINE_SIZE];
  while (getOidLine(fp, line, sizeof line)) {
    if (line[0] == '"') {
      read_local(line);
    } else if (line[0] == '$' && !read_mapping(&tree, line)) {
      break;
    }
  }
  if (ferror(fp)) {
    oidFreeTree(tree);
    return nullptr;
  }
  return tree;
}

bool find_named(const oidnode *node, const char *name, std::string &path) {
  for (; node != nullptr; node = node->sib) {
    size_t length = path.size();
    path += '.';
    path += std::to_string(node->val);
    if (node->data != nullptr && strcmp(node->data->mapping_str, name) == 0) return true;
    if (find_named(node->child, name, path)) return true;
    path.resize(length);
  }
  return false;
}

void dump_named(const oidnode *node, std::string &path) {
  for (; node != nullptr; node = node->sib) {
    size_t length = path.size();
    path += '.';
    path += std::to_string(node->val);
    if (node->data != nullptr) printf("\t%s -> '%s'\n", path.c_str(), node->data->mapping_str);
    dump_named(node->child, path);
    path.resize(length);
  }
}

}  // namespace

extern "C" {

EVENTS_EXPORT int getOidLine(FILE *fp, char *buf, int size) {
  if (size < 2) return 0;
  const size_t limit = static_cast<size_t>(size) - 1;
  std::string logical, physical;
  bool overlong = false;
  for (;;) {
    bool cut;
    bool read = read_physical_line(fp, physical, limit, cut);
    if (!read && logical.empty()) return 0;
    size_t start = 0;
    if (read && logical.empty()) {
      while (start < physical.size() && is_blank(physical[start])) ++start;
    }
    size_t end = physical.find('#', start);
    bool joining = false;
    if (end == std::string::npos) {
      // What was cut off lies before any comment: the line is too long.
      if (cut) overlong = true;
      end = physical.size();
      joining = read && !cut && end > start && physical[end - 1] == '\\';
      if (joining) --end;
    }
    if (!read) end = start;  // end of file inside a continuation
    if (logical.size() + (end - start) > limit) overlong = true;
    if (!overlong) logical.append(physical, start, end - start);
    if (joining) continue;
    while (!logical.empty() && is_blank(logical.back())) logical.pop_back();
    if (!logical.empty() && !overlong) break;
    if (!read) return 0;
    logical.clear();
    overlong = false;
  }
  memcpy(buf, logical.c_str(), logical.size() + 1);
  return 1;
}

EVENTS_EXPORT oidnode *newOidNode(ObjectIdEMS val) {
  oidnode *node = static_cast<oidnode *>(allocate(sizeof(oidnode)));
  node->val = val;
  return node;
}

EVENTS_EXPORT oiddata *buildOidData(const char *text) {
  oiddata *data = static_cast<oiddata *>(allocate(sizeof(oiddata)));
  snprintf(data->mapping_str, sizeof data->mapping_str, "%s", text);
  return data;
}

EVENTS_EXPORT int buildEntOid(const char *text, ObjectIdEMS *oid, int max) {
  std::string_view rest(text);
  if (rest.starts_with('.')) rest.remove_prefix(1);
  int count = 0;
  for (;;) {
    size_t dot = rest.find('.');
    if (count >= max || !parse_arc(rest.substr(0, dot), oid[count])) return -1;
    ++count;
    if (dot == std::string_view::npos) return count;
    rest.remove_prefix(dot + 1);
  }
}

EVENTS_EXPORT oidnode *insertOid(oidnode **root, const ObjectIdEMS *oid, int len, oiddata *data) {
  if (len <= 0) {
    free(data);
    return nullptr;
  }
  oidnode *node = reach(root, oid, len);
  set_data(node, data);
  return node;
}

EVENTS_EXPORT oidnode *TreeInsertOid(oidnode **root, const char *oidstring, oiddata *data) {
  ObjectIdEMS oid[kMaxArcs];
  int len = buildEntOid(oidstring, oid, kMaxArcs);
  if (len < 0) {
    free(data);
    return nullptr;
  }
  return insertOid(root, oid, len, data);
}

EVENTS_EXPORT oiddata *TreeGetOidData(oidnode **root, const ObjectIdEMS *oid, int len) {
  if (root == nullptr || *root == nullptr || len <= 0) return nullptr;
  const oidnode *node = *root;
  for (int i = 0; i < len; ++i) {
    node = node->child;
    while (node != nullptr && node->val < oid[i]) node = node->sib;
    if (node == nullptr || node->val != oid[i]) return nullptr;
  }
  return node->data;
}

EVENTS_EXPORT oiddata *getOidData(const ObjectIdEMS *oid, int len) {
  return TreeGetOidData(&oidTree, oid, len);
}

EVENTS_EXPORT char *TreeLookupOid(oidnode *tree, const ObjectIdEMS *oid, int len) {
  oiddata *data = TreeGetOidData(&tree, oid, len);
  return data == nullptr ? nullptr : data->mapping_str;
}

EVENTS_EXPORT char *lookupOid(const ObjectIdEMS *oid, int len) {
  return TreeLookupOid(oidTree, oid, len);
}

EVENTS_EXPORT char *findOidInTree(oidnode *tree, const char *name) {
  if (tree == nullptr || name == nullptr) return nullptr;
  std::string path;
  if (!find_named(tree->child, name, path)) return nullptr;
  state.found_oid = path.substr(1);
  return state.found_oid.data();
}

EVENTS_EXPORT const char *findEntOidstring(const char *name) {
  for (const local_map *local = state.locals; local != nullptr; local = local->next) {
    if (strcmp(local->mapping_str, name) == 0) return local->oidstring;
  }
  return nullptr;
}

EVENTS_EXPORT int expandLocalRef(char *out, size_t outsize, const char *ref) {
  std::string_view text(ref);
  size_t close = text.find('}');
  if (!text.starts_with("${") || close == std::string_view::npos) return -1;
  std::string name(text.substr(2, close - 2));
  const char *oidstring = findEntOidstring(name.c_str());
  std::string_view rest = text.substr(close + 1);
  if (oidstring == nullptr || !(rest.empty() || rest.starts_with('.'))) return -1;
  size_t length = strlen(oidstring);
  if (length + rest.size() >= outsize) return -1;
  memcpy(out, oidstring, length);
  memcpy(out + length, rest.data(), rest.size());
  out[length + rest.size()] = '\0';
  return 0;
}

EVENTS_EXPORT int strsub(char *out, size_t outsize, const char *tmpl, char letter, long value) {
  std::string result;
  for (const char *p = tmpl; *p != '\0';) {
    if (p[0] == '$' && p[1] == '$') {
      result += "$$";
      p += 2;
      continue;
    }
    if (p[0] != '$' || p[1] != '{') {
      result += *p++;
      continue;
    }
    p += 2;
    if (*p != letter) return 1;
    ++p;
    long long number = value;
    if (*p != '}') {
      char op = *p;
      if (op == '\0') return 2;
      if (strchr("+-*/%", op) == nullptr) return 3;
      ++p;
      const char *digits = p;
      while (*p >= '0' && *p <= '9') ++p;
      unsigned long operand;
      if (*p != '}') return 2;
      if (!parse_decimal(std::string_view(digits, static_cast<size_t>(p - digits)), operand))
        return 4;
      long long right = static_cast<long long>(operand);
      switch (op) {
        case '+': number += right; break;
        case '-': number -= right; break;
        case '*': number *= right; break;
        case '/':
          if (right == 0) return 4;
          number /= right;
          break;
        default:
          if (right == 0) return 4;
          number %= right;
          break;
      }
    }
    ++p;  // the closing brace
    result += std::to_string(number);
  }
  if (result.size() >= outsize) return 4;
  memcpy(out, result.c_str(), result.size() + 1);
  return 0;
}

EVENTS_EXPORT void oidFree(oidnode *node) {
  if (node == nullptr) return;
  free(node->data);
  free(node);
}

EVENTS_EXPORT void oidFreeTree(oidnode *tree) {
  while (tree != nullptr) {
    oidnode *next = tree->sib;
    oidFreeTree(tree->child);
    oidFree(tree);
    tree = next;
  }
}

EVENTS_EXPORT void local_mapFree(void) {
  while (state.locals != nullptr) {
    local_map *next = state.locals->next;
    free(state.locals);
    state.locals = next;
  }
}

EVENTS_EXPORT oidnode *TreeParseOidFile(oidnode *old, const char *path) {
  FILE *fp = fopen(path, "re");
  if (fp == nullptr) return nullptr;
  oidFreeTree(old);
  oidnode *tree = read_mapping_file(fp);
  fclose(fp);
  return tree;
}

EVENTS_EXPORT oidnode *parseOidFile(const char *path) { return TreeParseOidFile(nullptr, path); }

EVENTS_EXPORT void dumpLocalList(void) {
  printf("\nLocal mappings:\n");
  for (const local_map *local = state.locals; local != nullptr; local = local->next) {
    printf("\t'%s' -> ", local->mapping_str);
    for (int i = 0; i < local->ent_oid_len; ++i) printf(".%u", local->ent_oid[i]);
    printf("\n");
  }
}

EVENTS_EXPORT void dumpOidTree(oidnode *tree, const char *prefix) {
  if (!state.dump_heading_printed) {
    printf("Exposed mappings:\n");
    state.dump_heading_printed = true;
  }
  if (tree == nullptr) return;
  std::string path = prefix == nullptr ? "" : prefix;
  dump_named(tree->child, path);
}

}  // extern "C"
