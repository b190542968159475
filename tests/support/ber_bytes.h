// Test-side BER assembly, written independently of the library's encoders,
// so that decoders are checked against bytes the library did not make.
#ifndef TESTS_SUPPORT_BER_BYTES_H
#define TESTS_SUPPORT_BER_BYTES_H

#include <initializer_list>
#include <string>
#include <vector>

namespace testsupport {

using Bytes = std::vector<unsigned char>;

// One element with a short or 0x81/0x82 length.
inline Bytes tlv(int type, const Bytes &contents) {
  Bytes out{static_cast<unsigned char>(type)};
  size_t n = contents.size();
  if (n > 255) {
    out.insert(out.end(), {0x82, static_cast<unsigned char>(n >> 8), static_cast<unsigned char>(n)});
  } else if (n > 127) {
    out.insert(out.end(), {0x81, static_cast<unsigned char>(n)});
  } else {
    out.push_back(static_cast<unsigned char>(n));
  }
  out.insert(out.end(), contents.begin(), contents.end());
  return out;
}

inline Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes &part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

inline Bytes text(const std::string &s) { return Bytes(s.begin(), s.end()); }

}  // namespace testsupport

#endif
