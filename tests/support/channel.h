// Fixtures for the event channel: listening peers on Unix and TCP
// sockets, and receiving with a time limit.
#ifndef EVENTS_TESTS_SUPPORT_CHANNEL_H
#define EVENTS_TESTS_SUPPORT_CHANNEL_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "event.h"
#include "support/fixtures.h"

namespace testsupport {

using Bytes = std::vector<unsigned char>;

// A loopback address of its own for this process (127.x.y.z), so that
// tests running side by side can bind the fixed ports 162, 1661 and 1662.
std::string unique_loopback();

// A listening stream socket on a Unix path, or on address:port.
class Listener {
 public:
  explicit Listener(const std::string &path);
  Listener(const std::string &address, uint16_t port);
  ~Listener();
  Listener(const Listener &) = delete;
  Listener &operator=(const Listener &) = delete;
  // Accepts one pending connection; -1 if none arrives within two seconds.
  int accept_one();

 private:
  int fd_;
};

// A decoded trap with room for ten bindings.
struct Trap {
  Trap();
  snmp_trap_infoEMS info;
  SnmpVarBindEMS vars[10];
  std::string text(int binding) const;
};
// An encoded sample trap (the one of sample_trap.h) with its first
// `bindings` bindings: 184 octets with all five, under 128 with one.
Bytes sample_message(int bindings = 5);
// A transmission header for a message of `length` octets.
Bytes header_bytes(int32_t length);

// Waits up to `limit` for ei's socket to become readable, then receives
// one event.  Returns recv_event_hdr's result, or -100 on time-out.
int receive_within(event_infoEMS *ei, Trap *trap, trap_headerEMS *header,
                   std::chrono::milliseconds limit);

struct Received {
  trap_headerEMS header;
  Trap trap;
};
// The development hub with the given listeners, ready on return.
std::unique_ptr<ChildProcess> start_dev_hub(std::vector<std::string> options);

// Receives events from fd, framed for `trans`, until the peer closes;
// fails the test if the stream does not end after whole events.
std::vector<Received> receive_all(int fd, int trans);

}  // namespace testsupport

#endif
