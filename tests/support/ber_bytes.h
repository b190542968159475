// Test-side BER assembly, written independently of the library's encoders,
// so that decoders are checked against bytes the library did not make.
#ifndef TESTS_SUPPORT_BER_BYTES_H
#define TESTS_SUPPORT_BER_BYTES_H

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace testsupport {

using Bytes = std::vector<unsigned char>;

// One element with a short or 0x81/0x82 length.
inline Bytes tlv(int type, const Bytes &contents) {
  const size_t n = contents.size();
  Bytes out;
  out.reserve(n + 4);
  out.push_back(static_cast<unsigned char>(type));
  if (n > 255) {
    out.push_back(0x82);
    out.push_back(static_cast<unsigned char>(n >> 8));
  } else if (n > 127) {
    out.push_back(0x81);
  }
  out.push_back(static_cast<unsigned char>(n));
  out.insert(out.end(), contents.begin(), contents.end());
  return out;
}

inline Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes &part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

inline Bytes text(const std::string &s) { return Bytes(s.begin(), s.end()); }

// An OBJECT IDENTIFIER element: the first two arcs as one value, every
// value in base 128, high groups first.
inline Bytes object_id(std::initializer_list<uint32_t> arcs) {
  std::vector<uint32_t> values(arcs);
  values[1] += 40 * values[0];
  Bytes contents;
  for (size_t i = 1; i < values.size(); ++i) {
    Bytes groups{static_cast<unsigned char>(values[i] & 0x7F)};
    for (uint32_t v = values[i] >> 7; v != 0; v >>= 7)
      groups.insert(groups.begin(), static_cast<unsigned char>(0x80 | (v & 0x7F)));
    contents.insert(contents.end(), groups.begin(), groups.end());
  }
  return tlv(0x06, contents);
}

// An integer element of `type` in the fewest two's-complement octets.
inline Bytes integer(int64_t value, int type = 0x02) {
  Bytes contents;
  do {
    contents.insert(contents.begin(), static_cast<unsigned char>(value & 0xFF));
    value >>= 8;
  } while (!((value == 0 && !(contents[0] & 0x80)) || (value == -1 && (contents[0] & 0x80))));
  return tlv(type, contents);
}

inline Bytes varbind(const Bytes &name, const Bytes &value) { return tlv(0x30, cat({name, value})); }

// An SNMPv2c message (version 1) holding a PDU of `type` with error-status
// and error-index 0.
inline Bytes v2c_message(int type, const std::string &community, int32_t request_id,
                         const Bytes &bindings) {
  return tlv(0x30, cat({integer(1), tlv(0x04, text(community)),
                        tlv(type, cat({integer(request_id), integer(0), integer(0),
                                       tlv(0x30, bindings)}))}));
}

}  // namespace testsupport

#endif
