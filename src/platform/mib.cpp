#include "platform/mib.h"

#include <cstdio>

namespace platform {

void print_rawobjid(const ObjectIdEMS *objid, int length) {
  for (int i = 0; i < length; ++i) printf(i == 0 ? "%u" : ".%u", objid[i]);
}

}  // namespace platform
