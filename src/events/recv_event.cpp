// Receiving: one trap at a time from an event connection, framed by the
// transport (transmission header, datagram, the message's own BER length,
// or an application's hook), into the library's static receive area, and
// decoded into the caller's records.

#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ber_reader.h"
#include "channel.h"
#include "event.h"
#include "events/jetstream.h"
#include "log_trace.h"

namespace {

constexpr int kMinimumTrap = 20;  // no SNMP trap is shorter
constexpr int kSenderAddress = 16;
constexpr unsigned char kSequence = 0x30;

struct alignas(4) ReceiveArea {
  trap_headerEMS header;
  unsigned char packet[EVENT_MAX_MESSAGE];
};
static_assert(sizeof(ReceiveArea) == 24 + EVENT_MAX_MESSAGE, "header and packet are contiguous");

ReceiveArea area;

// On a connection open_event made with transmission headers, a message is
// read together with what has come of the next header, so that a trap
// costs one recv rather than two.  Only header octets are ever held here,
// never a whole trap: while a trap waits, its message is still in the
// socket, and the descriptor stays readable for an application that polls.
// A connection has its entry from open_event to close_event; a descriptor
// the application opened itself is read one part at a time.
constexpr int kHeaderSize = sizeof(trap_headerEMS);
constexpr int kReadAheadConnections = 16;
struct HeaderAhead {
  int sd = -1;
  int count = 0;  // octets of the next header held
  unsigned char octets[kHeaderSize];
};
HeaderAhead ahead_of[kReadAheadConnections];

HeaderAhead *ahead_for(int sd) {
  for (HeaderAhead &entry : ahead_of)
    if (entry.sd == sd) return &entry;
  return nullptr;
}

// Messages logged when a wait or a read is interrupted, by what is read.
struct ReadNotes {
  const char *wait_interrupted;
  const char *read_interrupted;
};
constexpr ReadNotes kHeaderNotes = {"EINTR for packet header", "EINTR or EWOULDBLOCK for hdr"};
constexpr ReadNotes kPacketNotes = {"EINTR for SNMP packet", "EINTR/EWOULDBLOCK for SNMP"};
constexpr ReadNotes kRawNotes = {nullptr, "EINTR/EWOULDBLOCK for SNMP"};

void note(const char *text) {
  if (text != nullptr) logger(1, "recv_trap", "%s", text);
}

// One wait, without a time-out, for sd to become readable.  poll rather
// than select: an fd_set cannot hold descriptors from FD_SETSIZE up.
// Returns poll's result; a descriptor that is not open fails with EBADF.
int poll_readable(int sd) {
  pollfd watched = {sd, POLLIN, 0};
  int ready = poll(&watched, 1, -1);
  if (ready > 0 && (watched.revents & POLLNVAL) != 0) {
    errno = EBADF;
    return -1;
  }
  return ready;
}

// Waits until sd is readable, restarting after signals.  Returns 1, or -1.
int wait_readable(int sd, const char *interrupted) {
  for (;;) {
    int ready = poll_readable(sd);
    if (ready > 0) return 1;
    if (ready < 0 && errno == EINTR) {
      note(interrupted);
      continue;
    }
    return EVENT_RECV_ERROR;
  }
}

// Reads exactly `want` octets, and with them, when `ahead` is given,
// whatever of the next header is already queued.  Octets already queued
// are taken without waiting; only an empty socket is waited on.  Returns
// `want`, or the result that ended the read: 0 at end of stream, -1 for a
// failed wait, the failing recv result otherwise.
int read_exact(int sd, unsigned char *into, int want, const ReadNotes &notes,
               HeaderAhead *ahead = nullptr) {
  int got = 0;
  bool waited = false;
  while (got < want) {
    iovec parts[2] = {{into + got, static_cast<size_t>(want - got)}, {}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 1;
    if (ahead != nullptr) {
      parts[1] = {ahead->octets, static_cast<size_t>(kHeaderSize)};
      message.msg_iovlen = 2;
    }
    ssize_t n = recvmsg(sd, &message, MSG_DONTWAIT);
    if (n > 0) {
      if (n > want - got) ahead->count = static_cast<int>(n) - (want - got);
      got = std::min(want, got + static_cast<int>(n));
      waited = false;
      continue;
    }
    if (n == 0) return 0;
    if (errno == EINTR || ((errno == EAGAIN || errno == EWOULDBLOCK) && waited)) {
      note(notes.read_interrupted);
    } else if (errno != EAGAIN && errno != EWOULDBLOCK) {
      return static_cast<int>(n);
    }
    if (wait_readable(sd, notes.wait_interrupted) < 0) return -1;
    waited = true;
  }
  return got;
}

// Reads and drops `length` octets of a refused message so that the next
// message is found where it starts.  Stops early at end of stream or on
// a failure.
void discard(int sd, long length, const ReadNotes &notes) {
  unsigned char sink[1024];
  while (length > 0) {
    int chunk = length < static_cast<long>(sizeof sink) ? static_cast<int>(length) : sizeof sink;
    if (read_exact(sd, sink, chunk, notes) != chunk) return;
    length -= chunk;
  }
}

void made_up_header(int length) {
  area.header.len = length;
  area.header.src = 1;
  area.header.pid = -1;
}

int too_large(long length) {
  if (tracelogfp) log_trace("recv_trap", "TCP trap = %ld bytes is too large.", length);
  return EVENT_RECV_BAD_SIZE;
}

int receive_datagram(int sd, sockaddr *from, int *fromlen) {
  socklen_t size = fromlen != nullptr ? static_cast<socklen_t>(*fromlen) : 0;
  ssize_t n;
  do {
    n = recvfrom(sd, area.packet, sizeof area.packet, MSG_TRUNC, from,
                 from != nullptr ? &size : nullptr);
  } while (n < 0 && errno == EINTR);
  if (fromlen != nullptr) *fromlen = static_cast<int>(size);
  if (n < 0) return static_cast<int>(n);
  // A datagram above the area's size was cut short by the kernel.
  if (n > EVENT_MAX_MESSAGE) return too_large(n);
  made_up_header(static_cast<int>(n));
  return 1;
}

int receive_by_hook(int sd, sockaddr *from) {
  if (kzc_recv_event == nullptr) return 1;
  int ready = poll_readable(sd);
  if (ready <= 0) return ready;
  int length = EVENT_MAX_MESSAGE;
  int result = kzc_recv_event(sd, from, area.packet, &length);
  if (result <= 0) return result;
  if (length < 0 || length > EVENT_MAX_MESSAGE) return too_large(length);
  made_up_header(length);
  return 1;
}

int receive_with_header(int sd) {
  auto *header = reinterpret_cast<unsigned char *>(&area.header);
  HeaderAhead *ahead = ahead_for(sd);
  int held = 0;
  if (ahead != nullptr) {
    std::memcpy(header, ahead->octets, static_cast<size_t>(ahead->count));
    held = ahead->count;
    ahead->count = 0;
  }
  int n = read_exact(sd, header + held, kHeaderSize - held, kHeaderNotes);
  if (n < 0 || (n == 0 && held < kHeaderSize)) return n;
  int length = area.header.len;
  if (tracelogfp) log_trace("recv_trap", "trap length (from transmission header) = %d", length);
  if (length > EVENT_MAX_MESSAGE) {
    discard(sd, length, kPacketNotes);
    return too_large(length);
  }
  if (length <= 0) return 1;  // refused as too short at the end
  n = read_exact(sd, area.packet, length, kPacketNotes, ahead);
  return n <= 0 ? n : 1;
}

// A stream without headers: the message is framed by its own SEQUENCE
// type and length octets.
int receive_raw(int sd) {
  unsigned char *packet = area.packet;
  ssize_t n;
  do {
    n = recv(sd, packet, 2, 0);
  } while (n < 0 && errno == EINTR);
  if (n < 1) {
    logger(1, "recv_trap", "Error receiving tcp traps");
    if (tracelogfp)
      log_trace("recv_trap", "Error receiving TCP traps from appl[%d], received %d bytes", sd,
                static_cast<int>(n));
    return static_cast<int>(n);
  }
  if (packet[0] != kSequence) {
    if (tracelogfp)
      log_trace("recv_trap",
                "Error: could not identify TCP message as a trap, initial hex character = %#02x",
                packet[0]);
    if (dump_packetEMS) hexdumpEMS(packet, static_cast<int>(n));
    return EVENT_RECV_NOT_SEQUENCE;
  }
  // A length octet still on its way is waited for; a stream that ends
  // after the type octet leaves a one-octet message, refused as too short.
  if (n == 1 && read_exact(sd, packet + 1, 1, kRawNotes) != 1) {
    made_up_header(1);
    return 1;
  }

  unsigned char length_octet[2] = {packet[1], 0};
  int32_t length = 0;
  int form = get_pdu_len(length_octet, &length);
  if (form < 0) {
    printf("Error could not identify this trap\n");
    if (tracelogfp)
      log_trace("recv_trap",
                "Error. Could not determine length of this trap; result = %d, length =%f ", form,
                static_cast<double>(length));
    return -1;
  }
  int header_octets = 2;
  if (form == 1) {
    if (length > 2) {
      if (tracelogfp)
        log_trace("recv_trap", "Length in %d octets is not supported", static_cast<int>(length));
      return -1;
    }
    int count = length;
    n = read_exact(sd, packet + 2, count, kRawNotes);
    if (n <= 0) return static_cast<int>(n);
    header_octets += count;
    uint32_t value = 0;
    int octets;
    events::ber::length(packet + 1, packet + header_octets, &value, &octets);
    length = static_cast<int32_t>(value);
  }
  if (header_octets + length > EVENT_MAX_MESSAGE) {
    discard(sd, length, kRawNotes);
    return too_large(length);
  }
  n = read_exact(sd, packet + header_octets, length, kRawNotes);
  if (length > 0 && n <= 0) return static_cast<int>(n);
  made_up_header(header_octets + length);
  if (tracelogfp) log_trace("recv_trap", "length of TCP trap = %d bytes.", area.header.len);
  return 1;
}

}  // namespace

namespace events {

void read_ahead_begin(int sd) {
  read_ahead_end(sd);
  HeaderAhead *free_entry = ahead_for(-1);
  if (free_entry != nullptr) *free_entry = HeaderAhead{sd, 0, {}};
}

void read_ahead_end(int sd) {
  if (HeaderAhead *entry = ahead_for(sd); entry != nullptr && sd >= 0) *entry = HeaderAhead{};
}

}  // namespace events

extern "C" {
EVENTS_EXPORT trap_headerEMS *recv_headerEMS = &area.header;
EVENTS_EXPORT unsigned char *recv_packetEMS = area.packet;
EVENTS_EXPORT kzc_recv_event_fn kzc_recv_event = nullptr;
}

extern "C" EVENTS_EXPORT int get_pdu_len(unsigned char *data, int32_t *length) {
  unsigned char first = data[0];
  if (first < 0x80) {
    *length = first;
    return 0;
  }
  if (first == 0x80) {
    logger(1, "get_pdu_len", "Indefinite lengths are not supported");
    if (tracelogfp) log_trace("get_pdu_len", "Indefinite lengths (%d) are not supported", first);
    return -1;
  }
  if (first > 0x84) {
    logger(1, "get_pdu_len", "Data length is too long");
    if (tracelogfp) log_trace("get_pdu_len", "Data length (%d) is too long", first);
    return -1;
  }
  // Given the first octet alone (a zero after it), a long form answers how
  // many length octets follow.
  if (data[1] == 0) {
    *length = first & 0x7F;
    return 1;
  }
  uint32_t value = 0;
  int octets;
  events::ber::length(data, data + 5, &value, &octets);
  *length = static_cast<int32_t>(value);
  return 0;
}

extern "C" EVENTS_EXPORT int recv_trap(int sd, unsigned char **buf, int trans, sockaddr *from,
                                       int *fromlen, trap_headerEMS **th) {
  if (buf == nullptr || th == nullptr) return -1;
  *buf = area.packet;
  *th = &area.header;
  int result;
  switch (trans) {
    case EVENT_TRANS_UDP:
      result = receive_datagram(sd, from, fromlen);
      break;
    case EVENT_TRANS_HOOK:
      result = receive_by_hook(sd, from);
      break;
    case EVENT_TRANS_UNIX:
    case EVENT_TRANS_TCP:
      result = receive_with_header(sd);
      break;
    case EVENT_TRANS_TCP_RAW:
      result = receive_raw(sd);
      break;
    case EVENT_TRANS_JETSTREAM:
      result = events::jetstream::receive(sd, &area.header, area.packet);
      break;
    default:
      result = 1;  // nothing read; the header stands as it is
      break;
  }
  if (result <= 0) return result;
  int length = area.header.len;
  if (dump_packetEMS && length > 0) hexdumpEMS(area.packet, std::min(length, EVENT_MAX_MESSAGE));
  return length >= kMinimumTrap ? length : EVENT_RECV_BAD_SIZE;
}

extern "C" EVENTS_EXPORT int recv_event_hdr(event_infoEMS *ei, snmp_trap_infoEMS *sti,
                                            EMSsnmpVarBind *vars, trap_headerEMS **th) {
  if (ei == nullptr || sti == nullptr) return -1;
  trap_headerEMS *header = nullptr;
  if (th == nullptr) th = &header;
  unsigned char *packet = nullptr;
  unsigned char from[kSenderAddress] = {};
  int fromlen = sizeof from;
  int length =
      recv_trap(ei->sd, &packet, ei->trans, reinterpret_cast<sockaddr *>(from), &fromlen, th);
  if (length <= 0) {
    logger(1, "recv_event", "recv_trap failed");
    return length;
  }
  if (snmp_parse_trap(packet, length, sti, ei, vars) != 0) {
    logger(1, "recv_event", "snmp_parse_trap failed");
    return -1;
  }
  ei->time = (*th)->time;
  return length;
}

extern "C" EVENTS_EXPORT int recv_event(event_infoEMS *ei, snmp_trap_infoEMS *sti,
                                        EMSsnmpVarBind *vars) {
  return recv_event_hdr(ei, sti, vars, nullptr);
}
