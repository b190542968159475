// Reads arbitrary octets as an OID mapping file, then checks the tree it
// built: siblings strictly ascending, names terminated, and every name
// found again by the reverse lookup and the exact lookup of its path.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "oidtree.h"

namespace {

int file_fd = -1;
char file_path[64];
// Reverse lookups walk the whole tree: check the first names only.
int reverse_checks_left;

void check(oidnode *tree, const oidnode *node, std::vector<ObjectIdEMS> &path) {
  for (; node != nullptr; node = node->sib) {
    if (node->sib != nullptr && node->sib->val <= node->val) abort();
    path.push_back(node->val);
    if (node->data != nullptr) {
      if (memchr(node->data->mapping_str, '\0', OID_MAPPING_SIZE) == nullptr) abort();
      if (TreeLookupOid(tree, path.data(), static_cast<int>(path.size())) != node->data->mapping_str)
        abort();
      if (reverse_checks_left > 0 && findOidInTree(tree, node->data->mapping_str) == nullptr)
        abort();
      --reverse_checks_left;
    }
    check(tree, node->child, path);
    path.pop_back();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (file_fd < 0) {
    file_fd = memfd_create("oid_to_label", 0);
    if (file_fd < 0) abort();
    snprintf(file_path, sizeof file_path, "/proc/self/fd/%d", file_fd);
  }
  if (ftruncate(file_fd, 0) != 0 || pwrite(file_fd, data, size, 0) != static_cast<ssize_t>(size))
    abort();
  oidnode *tree = parseOidFile(file_path);
  if (tree == nullptr) abort();
  std::vector<ObjectIdEMS> path;
  reverse_checks_left = 64;
  check(tree, tree->child, path);
  oidFreeTree(tree);
  return 0;
}
