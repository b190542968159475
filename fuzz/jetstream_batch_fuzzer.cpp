// Reads each input as a batch message of the JetStream transport, which
// comes from outside the process.  Every frame read lies inside the input
// and moves the reader forward; the frames are counted as the reader
// finds them, and an input said to be a whole batch is given back octet
// for octet by writing its frames again.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "events/jetstream.h"

using events::jetstream::append_frame;
using events::jetstream::count_frames;
using events::jetstream::next_frame;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  size_t offset = 0;
  long frames = 0;
  std::string again;
  trap_headerEMS header;
  const unsigned char *message = nullptr;
  while (next_frame(data, size, &offset, &header, &message)) {
    if (header.len < 0 || message < data || message + header.len != data + offset ||
        offset > size)
      abort();
    append_frame(&again, header, message, header.len);
    ++frames;
  }
  size_t stopped = offset;
  if (next_frame(data, size, &offset, &header, &message) || offset != stopped) abort();
  long counted = count_frames(data, size);
  if (counted != (offset == size ? frames : -1)) abort();
  if (counted >= 0 && (again.size() != size || memcmp(again.data(), data, size) != 0)) abort();
  return 0;
}
