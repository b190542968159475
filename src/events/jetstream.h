// The event channel on NATS JetStream: traps published to a stream and
// taken from a durable pull consumer.  open_event, send_* and recv_trap
// call these for EVENT_TRANS_JETSTREAM; the URL form is described in
// event.h.
//
// A connection is known by the descriptor open returns: a counting
// eventfd that the NATS client's delivery thread raises by the number of
// traps in each message it queues, and which is therefore readable exactly
// when a trap is waiting.  The client's threads also keep the pull
// requests going, repeat the latest acknowledgements after a reconnection
// and send batches of traps as confirmations come; that state is shared
// under a lock, the rest is the caller's thread's alone.
#ifndef EVENTS_SRC_JETSTREAM_H
#define EVENTS_SRC_JETSTREAM_H

#include <cstddef>
#include <string>

#include "event.h"

namespace events::jetstream {

// A message of a batch carries its traps one after another, each as a
// frame: five 32-bit big-endian words (the trap's length, then the
// transmission header's src, pid, status and target) and the trap.
constexpr size_t kFrameHeader = 20;

// Appends one frame to `batch`.
// REQUIRES: 0 <= length.
void append_frame(std::string *batch, const trap_headerEMS &header, const unsigned char *message,
                  int length);

// Reads the frame at `*offset` of `data`: fills header->len and the four
// fields, points `*message` at the trap and moves `*offset` past it.
// Returns false, moving nothing, when no whole frame starts there.
bool next_frame(const unsigned char *data, size_t size, size_t *offset, trap_headerEMS *header,
                const unsigned char **message);

// The number of frames in `data`, or -1 unless they fill it exactly.
long count_frames(const unsigned char *data, size_t size);

// Connects to the servers `url` names, creates the stream when it is
// missing and, with a durable name, the consumer, and asks for the first
// traps.  Returns the connection's descriptor, or -1 (the reason goes to
// standard error: a bad URL, no server, or a build without NATS).
int open(const char *url);

// Publishes one encoded message with the header's src, pid, status and
// target, as a message of its own, or with batch=N in the URL into a batch
// that goes out at once while fewer than two publications wait for their
// confirmation, and otherwise when a confirmation comes or N traps are in
// it.  Returns 0 once the client has taken it (publication is confirmed,
// and repeated on failure, in the background), or -1.
int publish(int sd, const trap_headerEMS &header, const unsigned char *message, int length);

// Takes the next trap of the consumer, waiting for one, into `packet`
// (EVENT_MAX_MESSAGE octets) and fills `header` (len, the sender's fields,
// time = when the stream stored it), then acknowledges it.  Returns 1, or
// -1 when the connection has no consumer or the server went away (the
// client reconnects by itself; the next call waits for it), or
// EVENT_RECV_BAD_SIZE for a message too large for `packet` (acknowledged
// and dropped).
int receive(int sd, trap_headerEMS *header, unsigned char *packet);

// Waits until every trap published is stored, or given up after a minute
// of resending (saying so on standard error), then closes the connection
// and its descriptor.  Returns 0, or -1 for a
// descriptor that is not a JetStream connection.
int close(int sd);

}  // namespace events::jetstream

#endif
