// Loads arbitrary octets as a code-point catalog, then looks up code
// points of every set and shows bindings of them.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "codeptcat.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static int file_fd = -1;
  if (file_fd < 0) {
    file_fd = memfd_create("codepoint.cat", 0);
    if (file_fd < 0) abort();
    char path[64];
    snprintf(path, sizeof path, "/proc/self/fd/%d", file_fd);
    codeptpath(path);
  }
  if (ftruncate(file_fd, 0) != 0 || pwrite(file_fd, data, size, 0) != static_cast<ssize_t>(size))
    abort();
  int result = codeptcatinit();
  if (result != 0 && result != -1 && result != -2) abort();

  // Code points to look up: those of the entries, and a few around them.
  SnmpVarBindEMS binding{};
  binding.type = ASN_OCTET_STR;
  for (size_t at = CODEPT_HEADER_SIZE; at + 8 <= size && binding.val_len + 4 <= SNMP_STRING_MAX;
       at += 8) {
    cp_entry entry;
    memcpy(&entry, data + at, sizeof entry);
    for (int delta = -1; delta <= 1; ++delta) {
      const char *text = codeptstr(entry.ce_set, entry.ce_alertid + delta);
      if (text == nullptr || strlen(text) > size + 4) abort();
    }
    unsigned char *group = binding.val.string + binding.val_len;
    group[0] = static_cast<unsigned char>(entry.ce_set >> 8);
    group[1] = static_cast<unsigned char>(entry.ce_set);
    group[2] = static_cast<unsigned char>(entry.ce_alertid >> 8);
    group[3] = static_cast<unsigned char>(entry.ce_alertid);
    binding.val_len += 4;
  }
  char buffer[300];
  int length = call_formatKWMcp(buffer, sizeof buffer, &binding, 1, 0);
  if (length < 0 || length >= static_cast<int>(sizeof buffer) ||
      strlen(buffer) != static_cast<size_t>(length))
    abort();
  return 0;
}
