// Fixtures for the event channel: listening peers on Unix and TCP
// sockets, framed streams read back into messages, the development hub as
// a child process, and receiving with a time limit.
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

// A listening stream socket: a Unix path, or "address:port".
class StreamListener {
 public:
  static StreamListener unix_socket(const std::string &path);
  static StreamListener tcp(const std::string &address, uint16_t port);
  ~StreamListener();
  StreamListener(StreamListener &&other) noexcept;
  StreamListener(const StreamListener &) = delete;
  StreamListener &operator=(const StreamListener &) = delete;

  // Accepts one pending connection; -1 if none arrives in time.
  int accept_one(std::chrono::milliseconds limit);

 private:
  explicit StreamListener(int fd) : fd_(fd) {}
  int fd_;
};

// Everything the peer writes until it closes (or the time runs out).
Bytes read_until_closed(int fd, std::chrono::milliseconds limit);

// One message of a stream with transmission headers.
struct Frame {
  trap_headerEMS header;
  Bytes message;
};
// Splits a stream into frames; fails the test if it does not split evenly.
std::vector<Frame> split_frames(const Bytes &stream);

// A decoded trap with room for ten bindings.
struct Trap {
  snmp_trap_infoEMS info;
  SnmpVarBindEMS vars[10];
  std::string text(int binding) const;
};
// Decodes one message; fails the test if it is not a trap.
Trap decode(const Bytes &message);

// An encoded sample trap (the one of sample_trap.h) with its first
// `bindings` bindings: 184 octets with all five, under 128 with one.
Bytes sample_message(int bindings = 5);
// A transmission header for a message of `length` octets.
Bytes header_bytes(int32_t length, uint32_t src = 7, int32_t pid = 4242);

// Waits up to `limit` for ei's socket to become readable, then receives
// one event.  Returns recv_event_hdr's result, or -100 on time-out.
int receive_within(event_infoEMS *ei, Trap *trap, trap_headerEMS *header,
                   std::chrono::milliseconds limit);

// The development hub, started with the given options; ready on return.
class DevHub {
 public:
  explicit DevHub(std::vector<std::string> options);
  ChildProcess &process() { return *process_; }

 private:
  std::unique_ptr<ChildProcess> process_;
};

}  // namespace testsupport

#endif
