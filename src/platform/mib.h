// Platform MIB access and identifier printers.
#ifndef EVENTS_PLATFORM_MIB_H
#define EVENTS_PLATFORM_MIB_H

#include "kz_mib.h"

namespace platform {

using ::print_rawobjid;

}  // namespace platform

#endif
