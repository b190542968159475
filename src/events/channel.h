// Pieces shared by the event-channel modules (connection, receiving,
// sending).
#ifndef EVENTS_SRC_CHANNEL_H
#define EVENTS_SRC_CHANNEL_H

#include "kz_platform.h"

namespace events {

// Progress lines of the event channel go to the platform log with these
// coordinates: level 2, subsystem 84, catalog "events.cat", set 1 and
// message 0 (the built-in text).
#define CHANNEL_LOG(...) KZuLogS(2, 84, "events.cat", 1, 0, __VA_ARGS__)

// A connection with transmission headers that open_event made, from its
// opening to its closing: receiving may then read ahead into the next
// header (see recv_event.cpp).
void read_ahead_begin(int sd);
void read_ahead_end(int sd);

}  // namespace events

#endif
