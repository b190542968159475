// Reads arbitrary octets as hubd.conf through read_trapspec_file, then
// walks and queries the model that was built: every format is found by its
// numbers as a walk of the list finds it.  After a good read the model
// is written, read back and written again: the writer refuses it, or the
// two writes are equal but for the time-stamp line.  The reader gives one
// more of the eight default display categories on each read until all are
// given, so the model is given them all before the first write.  The files
// live in memory files; NODES source lists may name a fixed real list file,
// which the fuzzer writes once, and stay paths.
#include <sys/mman.h>
#include <unistd.h>

#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "trp_format.h"

#include "trapspec_writer.h"

namespace {

int conf_fd = -1, out_fd = -1;

void set_up() {
  setlocale(LC_ALL, "C.UTF-8");
  conf_fd = memfd_create("hubd.conf", 0);
  out_fd = memfd_create("written", 0);
  if (conf_fd < 0 || out_fd < 0) abort();
  trpFormatExpandSourceFiles = 0;
  char path[64];
  snprintf(path, sizeof path, "/proc/self/fd/%d", conf_fd);
  setHubdConfFile(path);
  setenv("VORAD_CONF", "/dev/null", 1);  // an empty alert mapping: the read ends clean
  FILE *list = fopen("/tmp/trapspec_fuzz_nodes.list", "w");
  if (list != nullptr) {
    fputs("# nodes\nhostA extra\n\n  hostB\n", list);
    fclose(list);
  }
}

// What findExactTrapRecord must return, found by walking the list: the
// first format of the pair whose nodes match.
trap_record *first_match(enterprise_info *e, int generic, int specific, const char *node) {
  for (trap_record *r = e->trap_rec_list_head.next; r != nullptr; r = r->next) {
    if (r->generic_trap == generic && r->specific_trap == specific && trapRecNodesMatch(r, node))
      return r;
  }
  return nullptr;
}

void query_model() {
  for (enterprise_info *e = enterprise_list_head.next; e != nullptr; e = e->next) {
    enterprise_info *found;
    find_enterprise(e->enterprise_oid, e->oid_len, &found);
    if (found == nullptr) abort();
    for (trap_record *r = e->trap_rec_list_head.next; r != nullptr; r = r->next) {
      if (r->name[TRAP_NAME_SIZE - 1] != '\0') abort();
      if (nameToExactTrap(r->name) == nullptr) abort();
      const char *nodes[] = {"hostA", nullptr, r->nodeCnt > 0 ? r->nodeList[0] : "hostB"};
      for (const char *node : nodes) {
        if (findExactTrapRecord(e, r->generic_trap, r->specific_trap, node) !=
            first_match(e, r->generic_trap, r->specific_trap, node))
          abort();
      }
      if (r->next != nullptr && (r->next->generic_trap < r->generic_trap ||
                                 (r->next->generic_trap == r->generic_trap &&
                                  r->next->specific_trap < r->specific_trap)))
        abort();
    }
  }
}

void replace(int fd, const void *data, size_t size) {
  if (ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) abort();
}

void give_default_categories() {
  static const struct {
    int slot;
    const char *name;
  } defaults[] = {{9, "IGNORE"}, {7, "LOGONLY"}, {2, "Error Events"}, {0, "Threshold Events"},
                  {1, "Network Topology Events"}, {3, "Status Events"},
                  {4, "Node Configuration Events"}, {5, "Application Alert Events"}};
  for (const auto &d : defaults)
    if (EMScategories[d.slot] == nullptr) EMScategories[d.slot] = doStrdup(d.name);
}

// The file the writer writes; "" when the writer refuses the model.
std::string written() {
  FILE *out = fdopen(dup(out_fd), "w");
  if (out == nullptr) abort();
  replace(out_fd, "", 0);
  if (write_trapspec_file(out) != 0) {
    fclose(out);
    return std::string();
  }
  std::string text;
  char chunk[4096];
  ssize_t got;
  for (off_t at = 0; (got = pread(out_fd, chunk, sizeof chunk, at)) > 0; at += got)
    text.append(chunk, static_cast<size_t>(got));
  return text;
}

std::string without_stamp(std::string text) {
  size_t stamp = text.find("# Created by qwmtrap at ");
  if (stamp == std::string::npos) abort();
  return text.erase(stamp, text.find('\n', stamp) - stamp);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (conf_fd < 0) set_up();
  replace(conf_fd, data, size);
  char *error = nullptr;
  int result = read_trapspec_file(&error);
  if (error == nullptr || strlen(error) >= TRAPSPEC_ERROR_SIZE) abort();
  if (result == 0 && error[0] != '\0') abort();
  query_model();
  if (result == 0) {
    give_default_categories();
    std::string first = written();
    if (!first.empty()) {
      replace(conf_fd, first.data(), first.size());
      if (read_trapspec_file(&error) != 0 || without_stamp(written()) != without_stamp(first))
        abort();
    }
  }
  free_all_info();
  return 0;
}
