// Platform MIB access and identifier printers.
#ifndef EVENTS_PLATFORM_MIB_H
#define EVENTS_PLATFORM_MIB_H

#include "asn1.h"

namespace platform {

// Writes the identifier as dotted numbers ("1.3.6.1") on standard output.
void print_rawobjid(const ObjectIdEMS *objid, int length);

}  // namespace platform

#endif
