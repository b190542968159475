// Reads arbitrary octets as hubd.conf through read_trapspec_file, then
// walks and queries the model that was built, and empties it again.  The
// file lives in a memory file; NODES source lists may name a fixed real
// list file, which the fuzzer writes once.
#include <sys/mman.h>
#include <unistd.h>

#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "trp_format.h"

namespace {

int conf_fd = -1;

void set_up() {
  setlocale(LC_ALL, "C.UTF-8");
  conf_fd = memfd_create("hubd.conf", 0);
  if (conf_fd < 0) abort();
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

void query_model() {
  for (enterprise_info *e = enterprise_list_head.next; e != nullptr; e = e->next) {
    enterprise_info *found;
    find_enterprise(e->enterprise_oid, e->oid_len, &found);
    if (found == nullptr) abort();
    for (trap_record *r = e->trap_rec_list_head.next; r != nullptr; r = r->next) {
      if (r->name[TRAP_NAME_SIZE - 1] != '\0') abort();
      if (nameToExactTrap(r->name) == nullptr) abort();
      findExactTrapRecord(e, r->generic_trap, r->specific_trap, "hostA");
      if (r->next != nullptr && (r->next->generic_trap < r->generic_trap ||
                                 (r->next->generic_trap == r->generic_trap &&
                                  r->next->specific_trap < r->specific_trap)))
        abort();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (conf_fd < 0) set_up();
  if (ftruncate(conf_fd, 0) != 0 || pwrite(conf_fd, data, size, 0) != static_cast<ssize_t>(size))
    abort();
  char *error = nullptr;
  int result = read_trapspec_file(&error);
  if (error == nullptr || strlen(error) >= TRAPSPEC_ERROR_SIZE) abort();
  if (result == 0 && error[0] != '\0') abort();
  query_model();
  free_all_info();
  return 0;
}
