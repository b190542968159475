// Reads arbitrary text as an identifier written with labels, as hubsnmp
// and hubevent take them from the command line, against a fixed label
// file; whatever it reads must print as a label path that reads back the
// same.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kz_mib.h"

namespace {

const char kLabels[] =
    "1 iso\n1.3 org\n1.3.6 dod\n1.3.6.1 internet\n1.3.6.1.2.1 mib-2\n1.3.6.1.2.1.1 system\n"
    "1.3.6.1.2.1.1.1 sysDescr\n1.3.6.1.2.1.2.2.1.8 ifOperStatus\n1.3.6.1.4.1 enterprises\n"
    "1.3.6.1.4.1.49999 platform\n1.3.6.1.4.1.49999.4294967295 last\n";

bool load_labels() {
  int fd = memfd_create("mib.labels", 0);
  if (fd < 0 || write(fd, kLabels, sizeof kLabels - 1) != static_cast<ssize_t>(sizeof kLabels - 1))
    abort();
  char path[64];
  snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
  setenv("KZ_MIB_FILE", path, 1);
  return KZmib_load_mib() == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static bool loaded = load_labels();
  if (!loaded) abort();
  std::string text(reinterpret_cast<const char *>(data), size);
  ObjectIdEMS arcs[128];
  int length = 128;
  if (KZmib_read_objid(text.c_str(), arcs, &length) != 0) return 0;
  if (length < 1 || length > 128) abort();
  char path[128 * 24];
  sprint__objid(path, sizeof path, arcs, length);
  ObjectIdEMS again[128];
  int again_length = 128;
  if (KZmib_read_objid(path, again, &again_length) != 0 || again_length != length ||
      memcmp(arcs, again, sizeof(ObjectIdEMS) * static_cast<size_t>(length)) != 0)
    abort();
  return 0;
}
