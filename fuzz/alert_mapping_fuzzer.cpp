// Reads arbitrary octets as the alert mapping file through
// read_voraspec_file, over a fixed small trap configuration.  After a good
// read the mappings are written, read back and written again: the second
// read must succeed and the two writes must be equal.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "alert_mapping.h"
#include "trapspec_writer.h"
#include "trp_format.h"

namespace {

int vora_fd = -1;

const char kConfiguration[] =
    "cisco {1.3.6.1.4.1.9}\n"
    "ciscoEnv {1.3.6.1.4.1.9.9.13}\n"
    "linkDown {1.3.6.1.4.1.9} 2 0 A 4 0 \"IGNORE\"\nlink $1\nSDESC\nEDESC\n"
    "tempHigh {1.3.6.1.4.1.9.9.13} 6 3 A 4 0 \"IGNORE\"\ntemp $1\nSDESC\nEDESC\n"
    "fan {1.3.6.1.4.1.9.9.13} 6 4 A 4 0 \"IGNORE\"\nfan $1\nSDESC\nEDESC\n";

int memory_file(const char *name, const char *path_variable) {
  int fd = memfd_create(name, 0);
  if (fd < 0) abort();
  char path[64];
  snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
  setenv(path_variable, path, 1);
  return fd;
}

void replace(int fd, const void *data, size_t size) {
  if (ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) abort();
}

void set_up() {
  int conf_fd = memory_file("hubd.conf", "KZHUBDCONF");
  replace(conf_fd, kConfiguration, sizeof kConfiguration - 1);
  vora_fd = memory_file("vorad.conf", "VORAD_CONF");
  char *error;
  if (read_trapspec_file(&error) != 0) abort();
}

template <typename Visit>
void each_trap(Visit visit) {
  for (enterprise_info *e = enterprise_list_head.next; e != nullptr; e = e->next)
    for (trap_record *r = e->trap_rec_list_head.next; r != nullptr; r = r->next) visit(e, r);
}

std::string written_mappings() {
  char *text = nullptr;
  size_t size = 0;
  FILE *out = open_memstream(&text, &size);
  each_trap([&](enterprise_info *e, trap_record *r) {
    if (r->alert_element != nullptr)
      print_vora_rec(out, r, e->enterprise_oid, static_cast<int>(e->oid_len));
  });
  fclose(out);
  std::string result(text, size);
  free(text);
  return result;
}

void forget_mappings() {
  each_trap([](enterprise_info *, trap_record *r) { delete_vora_record(r); });
}

void check_lists() {
  each_trap([](enterprise_info *, trap_record *r) {
    const alert_record *last = nullptr;
    for (const alert_record *a = r->alert_element; a != nullptr; a = a->next) last = a;
    if (r->alert_element != nullptr && (last->subvector != 0 || last->num_codepoints != 0)) abort();
  });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (vora_fd < 0) set_up();
  replace(vora_fd, data, size);
  char *error = nullptr;
  int result = read_voraspec_file(&error);
  if (error == nullptr || (result == 0) != (error[0] == '\0')) abort();
  check_lists();
  if (result == 0) {
    std::string first = written_mappings();
    forget_mappings();
    replace(vora_fd, first.data(), first.size());
    if (read_voraspec_file(&error) != 0 || written_mappings() != first) abort();
  }
  forget_mappings();
  return 0;
}
