// Feeds arbitrary octets to the stream framing of the event channel: the
// length-octet reader on its own, then the reader of a stream without
// headers (or, when the first octet is odd, of a stream with transmission
// headers) fed from a socket pair, message after message until the end of
// the stream.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "event.h"

// The reader reports a length it cannot read on standard output; keep that
// out of libFuzzer's own report.
extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  if (freopen("/dev/null", "w", stdout) == nullptr) abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  // get_pdu_len may read four octets after the first one.
  unsigned char length_octets[5] = {};
  memcpy(length_octets, data, std::min<size_t>(size, sizeof length_octets));
  int32_t length = 0;
  get_pdu_len(length_octets, &length);

  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) abort();
  int capacity = 1 << 20;
  setsockopt(pair[0], SOL_SOCKET, SO_SNDBUF, &capacity, sizeof capacity);
  setsockopt(pair[1], SOL_SOCKET, SO_RCVBUF, &capacity, sizeof capacity);
  const uint8_t *stream = data + 1;
  size_t left = size - 1;
  while (left > 0) {
    ssize_t n = write(pair[0], stream, left);
    if (n <= 0) abort();
    stream += n;
    left -= static_cast<size_t>(n);
  }
  close(pair[0]);

  int trans = (data[0] & 1) ? EVENT_TRANS_UNIX : EVENT_TRANS_TCP_RAW;
  unsigned char *packet = nullptr;
  trap_headerEMS *header = nullptr;
  // Every call consumes at least one octet until the end of the stream.
  for (size_t calls = 0; calls <= size; ++calls) {
    int result = recv_trap(pair[1], &packet, trans, nullptr, nullptr, &header);
    if (result == 0) break;
    if (result > EVENT_MAX_MESSAGE) abort();
  }
  close(pair[1]);
  return 0;
}
