// Runs hubconf check's warnings over arbitrary octets as a configuration
// file, and checks that the findings agree with the count returned.  The
// file lives in a memory file; the warnings go to /dev/null.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" {
#include "hubconf.h"
}

namespace {

int conf_fd = -1;
char conf_path[64];
FILE *null_report = nullptr;

void set_up() {
  conf_fd = memfd_create("hubd.conf", 0);
  null_report = fopen("/dev/null", "w");
  if (conf_fd < 0 || null_report == nullptr) abort();
  snprintf(conf_path, sizeof conf_path, "/proc/self/fd/%d", conf_fd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (conf_fd < 0) set_up();
  if (ftruncate(conf_fd, 0) != 0 || pwrite(conf_fd, data, size, 0) != static_cast<ssize_t>(size))
    abort();
  lint_findings found;
  int warnings = hubconf_lint(conf_path, null_report, &found);
  if (found.warnings != warnings || found.replaced_formats > warnings || found.comments < 0)
    abort();
  return 0;
}
