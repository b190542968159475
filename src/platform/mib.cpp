// MIB labels from the label file, and the identifier printers.

#include "platform/mib.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "kz_platform.h"

namespace {

// The labelled tree as a flat table: node 0 is the root above the first
// arcs; a child is found by (parent node, arc).  Nodes that exist only as
// the way to a deeper label have an empty label.
struct LabelTree {
  std::vector<std::string> labels{std::string()};
  // Each node's parent and arc, so a node found by its label gives its path.
  std::vector<uint32_t> parents{0};
  std::vector<ObjectIdEMS> arcs{0};
  std::unordered_map<uint64_t, uint32_t> children;
  std::unordered_multimap<std::string, uint32_t> by_label;

  static uint64_t key(uint32_t parent, ObjectIdEMS arc) {
    return (static_cast<uint64_t>(parent) << 32) | arc;
  }

  // Returns the child node, or 0 (the root, never a child) when absent.
  uint32_t child(uint32_t parent, ObjectIdEMS arc) const {
    auto found = children.find(key(parent, arc));
    return found == children.end() ? 0 : found->second;
  }

  void insert(const ObjectIdEMS *objid, int length, const std::string &label) {
    uint32_t node = 0;
    for (int i = 0; i < length; ++i) {
      auto [slot, added] = children.try_emplace(key(node, objid[i]), labels.size());
      if (added) {
        labels.emplace_back();
        parents.push_back(node);
        arcs.push_back(objid[i]);
      }
      node = slot->second;
    }
    labels[node] = label;
    by_label.emplace(label, node);
  }

  // The node labelled `label` under `parent`, or anywhere when `anywhere`
  // (the first one read); 0 when there is none.
  uint32_t find(const std::string &label, uint32_t parent, bool anywhere) const {
    auto [first, last] = by_label.equal_range(label);
    uint32_t found = 0;
    for (auto it = first; it != last; ++it) {
      // A label replaced by a later line no longer names its node.
      if (labels[it->second] != label || (!anywhere && parents[it->second] != parent)) continue;
      if (found == 0 || it->second < found) found = it->second;
    }
    return found;
  }

  // Writes the arcs from the root to `node` at the end of objid.
  bool path(uint32_t node, ObjectIdEMS *objid, int capacity, int *length) const {
    int depth = 0;
    for (uint32_t n = node; n != 0; n = parents[n]) ++depth;
    if (*length + depth > capacity) return false;
    for (uint32_t n = node, i = 0; n != 0; n = parents[n], ++i)
      objid[*length + depth - 1 - i] = arcs[n];
    *length += depth;
    return true;
  }
};

struct MibState {
  LabelTree tree;
  std::string filename;
};

MibState &mib() {
  static MibState state;
  return state;
}

constexpr int kMaxArcs = 128;

// Reads "dotted-oid label" lines into `tree`; false on a read error.
bool read_labels(FILE *file, LabelTree &tree) {
  char *line = nullptr;
  size_t capacity = 0;
  while (getline(&line, &capacity, file) != -1) {
    char *comment = strchr(line, '#');
    if (comment != nullptr) *comment = '\0';
    char *save = nullptr;
    const char *oid_text = strtok_r(line, " \t\r\n", &save);
    const char *label = strtok_r(nullptr, " \t\r\n", &save);
    if (label == nullptr || strtok_r(nullptr, " \t\r\n", &save) != nullptr) continue;
    ObjectIdEMS objid[kMaxArcs];
    int length = kMaxArcs;
    if (KZmib_read_numeric_objid(oid_text, objid, &length) != 0 || length == 0) continue;
    tree.insert(objid, length, label);
  }
  free(line);
  return ferror(file) == 0;
}

// Appends `text` to buf within buflen, keeping it terminated.
void append(char *buf, int buflen, int &used, const char *text) {
  int room = buflen - 1 - used;
  int length = static_cast<int>(strlen(text));
  if (length > room) length = room;
  memcpy(buf + used, text, static_cast<size_t>(length));
  used += length;
  buf[used] = '\0';
}

}  // namespace

extern "C" EVENTS_EXPORT const char *KZmib_get_mib_filename(void) {
  MibState &state = mib();
  const char *named = getenv("KZ_MIB_FILE");
  if (named != nullptr && *named != '\0') {
    state.filename = named;
  } else {
    char *path = _KZConcatPath(_KZconfDirName(), "mib.labels");
    state.filename = path;
    free(path);
  }
  return state.filename.c_str();
}

extern "C" EVENTS_EXPORT int KZmib_load_mib(void) {
  FILE *file = fopen(KZmib_get_mib_filename(), "re");
  if (file == nullptr) return -1;
  LabelTree tree;
  bool read = read_labels(file, tree);
  fclose(file);
  if (!read) return -1;
  mib().tree = std::move(tree);
  return 0;
}

extern "C" EVENTS_EXPORT int sprint__objid(char *buf, int buflen, const ObjectIdEMS *objid,
                                           int objidlen) {
  if (buflen <= 0) return 0;
  const LabelTree &tree = mib().tree;
  int used = 0;
  buf[0] = '\0';
  uint32_t node = 0;
  bool known = true;
  for (int i = 0; i < objidlen && used < buflen - 1; ++i) {
    if (known) {
      node = tree.child(node, objid[i]);
      known = node != 0;
    }
    char number[12];
    const char *text = number;
    if (known && !tree.labels[node].empty()) {
      text = tree.labels[node].c_str();
    } else {
      snprintf(number, sizeof number, "%u", objid[i]);
    }
    append(buf, buflen, used, ".");
    append(buf, buflen, used, text);
  }
  return used;
}

extern "C" EVENTS_EXPORT int KZmib_read_objid(const char *text, ObjectIdEMS *objid,
                                              int *objid_len) {
  int capacity = *objid_len;
  *objid_len = 0;
  const LabelTree &tree = mib().tree;
  const char *module_end = strstr(text, "::");
  if (module_end != nullptr) text = module_end + 2;
  // A leading dot anchors the first component at the root; a label
  // without it is looked up anywhere in the tree.
  bool anywhere = *text != '.';
  if (!anywhere) ++text;
  if (*text == '\0') return -1;
  uint32_t node = 0;  // the labelled node the arcs so far lead to, if any
  int length = 0;
  for (const char *p = text; *p != '\0';) {
    size_t size = strcspn(p, ".");
    std::string component(p, size);
    p += size;
    if (*p == '.' && *++p == '\0') return -1;
    if (component.empty()) return -1;
    if (component.find_first_not_of("0123456789") == std::string::npos) {
      ObjectIdEMS arc[1] = {0};
      int one = 1;
      if (length >= capacity || KZmib_read_numeric_objid(component.c_str(), arc, &one) != 0)
        return -1;
      objid[length++] = arc[0];
      node = node != 0 || length == 1 ? tree.child(node, arc[0]) : 0;
    } else {
      if (length > 0 && node == 0) return -1;  // under an unlabelled arc
      uint32_t found = tree.find(component, node, anywhere && length == 0);
      if (found == 0) return -1;
      // A label names its whole path: the arcs before it are its own.
      length = 0;
      if (!tree.path(found, objid, capacity, &length)) return -1;
      node = found;
    }
  }
  *objid_len = length;
  return 0;
}

extern "C" EVENTS_EXPORT void print_rawobjid(const ObjectIdEMS *objid, int objidlen) {
  for (int i = 0; i < objidlen; ++i) printf(i == 0 ? "%u" : ".%u", objid[i]);
}

extern "C" EVENTS_EXPORT int KZmib_read_numeric_objid(const char *text, ObjectIdEMS *objid,
                                                      int *objid_len) {
  int capacity = *objid_len;
  *objid_len = 0;
  const char *p = text;
  if (*p == '.') ++p;
  int count = 0;
  while (*p != '\0') {
    if (*p < '0' || *p > '9' || count >= capacity) return -1;
    unsigned long long arc = 0;
    while (*p >= '0' && *p <= '9') {
      arc = arc * 10 + static_cast<unsigned>(*p - '0');
      if (arc > 0xFFFFFFFFull) return -1;
      ++p;
    }
    objid[count++] = static_cast<ObjectIdEMS>(arc);
    if (*p == '.') {
      ++p;
      if (*p == '\0') return -1;
    } else if (*p != '\0') {
      return -1;
    }
  }
  *objid_len = count;
  return 0;
}
