// Runs hubconf check's warnings over arbitrary octets as a configuration
// file.  The file lives in a memory file; the warnings go to /dev/null.
#include <fcntl.h>
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

void set_up() {
  conf_fd = memfd_create("hubd.conf", 0);
  if (conf_fd < 0) abort();
  snprintf(conf_path, sizeof conf_path, "/proc/self/fd/%d", conf_fd);
  int null = open("/dev/null", O_WRONLY);
  if (null < 0 || dup2(null, STDERR_FILENO) < 0) abort();
  close(null);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (conf_fd < 0) set_up();
  if (ftruncate(conf_fd, 0) != 0 || pwrite(conf_fd, data, size, 0) != static_cast<ssize_t>(size))
    abort();
  hubconf_lint(conf_path);
  return 0;
}
