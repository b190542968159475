#include "platform/mib.h"

#include <cstdio>

#include "kz_platform.h"

namespace platform {

void print_rawobjid(const ObjectIdEMS *objid, int length) {
  for (int i = 0; i < length; ++i) printf(i == 0 ? "%u" : ".%u", objid[i]);
}

}  // namespace platform

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
