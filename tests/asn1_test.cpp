// BER primitives: exact bytes written, exact values read, and the failure
// texts on standard error and the trace log.

#include "asn1.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support/diagnostics.h"

using testsupport::bytes;
using testsupport::with_diagnostics;
using Bytes = std::vector<unsigned char>;
using Coder = std::function<unsigned char *(unsigned char *, int *)>;

namespace {

// Runs an encoder on a generous buffer and returns what it wrote, checking
// that the room counter fell by exactly that much.
Bytes encode(const Coder &encoder) {
  unsigned char buffer[256];
  int room = sizeof buffer;
  unsigned char *end = encoder(buffer, &room);
  if (end == nullptr) return {};
  EXPECT_EQ(room, static_cast<int>(sizeof buffer - (end - buffer)));
  return Bytes(buffer, end);
}

Coder length(int n) {
  return [=](unsigned char *p, int *room) { return asnBuildLength09(p, room, n); };
}
Coder integer(uint32_t value, int type) {
  return [=](unsigned char *p, int *room) {
    int32_t v = static_cast<int32_t>(value);
    return asnBuildInt09class(p, room, &v, 4, type);
  };
}
Coder address(uint32_t value) {
  return [=](unsigned char *p, int *room) {
    uint32_t v = value;
    return asnBuildIpaddressEMS(p, room, &v, 4);
  };
}
Coder ticks(uint32_t value) {
  return [=](unsigned char *p, int *room) {
    uint32_t v = value;
    return asnBuildTimeticksEMS(p, room, &v, 4);
  };
}
Coder objid(std::vector<ObjectIdEMS> arcs) {
  return [=](unsigned char *p, int *room) {
    return asnBuildObjid09(p, room, arcs.data(), static_cast<int>(arcs.size()));
  };
}

TEST(BerEncode, WritesExactBytes) {
  const struct {
    const char *name;
    Coder encoder;
    Bytes expected;
  } cases[] = {
      {"length 5", length(5), bytes({5})},
      {"length 200", length(200), bytes({0x81, 0xC8})},
      {"length 300", length(300), bytes({0x82, 0x01, 0x2C})},
      {"length 70000 keeps low 16 bits", length(70000), bytes({0x82, 0x11, 0x70})},
      {"INTEGER -1", integer(0xFFFFFFFF, ASN_INTEGER), bytes({0x02, 0x01, 0xFF})},
      {"INTEGER 128", integer(128, ASN_INTEGER), bytes({0x02, 0x02, 0x00, 0x80})},
      {"INTEGER 0", integer(0, ASN_INTEGER), bytes({0x02, 0x01, 0x00})},
      {"INTEGER -129", integer(-129u, ASN_INTEGER), bytes({0x02, 0x02, 0xFF, 0x7F})},
      {"Counter 2^32-1", integer(0xFFFFFFFF, ASN_COUNTER), bytes({0x41, 5, 0, 0xFF, 0xFF, 0xFF, 0xFF})},
      {"Counter 2^31", integer(0x80000000, ASN_COUNTER), bytes({0x41, 4, 0x80, 0, 0, 0})},
      {"Gauge 200 keeps a zero octet", integer(200, ASN_GAUGE), bytes({0x42, 0x02, 0x00, 0xC8})},
      {"unsigned as INTEGER", integer(0xFF800000, ASN_UNSIGNED_INTEGER),
       bytes({0x02, 0x05, 0x00, 0xFF, 0x80, 0x00, 0x00})},
      {"IpAddress class keeps four octets", integer(1, ASN_IPADDRESS), bytes({0x40, 4, 0, 0, 0, 1})},
      {"IpAddress 10.1.2.3", address(0x0A010203), bytes({0x40, 0x04, 10, 1, 2, 3})},
      {"IpAddress 0.0.0.1 trimmed as signed", address(1), bytes({0x40, 0x01, 0x01})},
      {"TimeTicks 2^32-1 trimmed as signed", ticks(0xFFFFFFFF), bytes({0x43, 0x01, 0xFF})},
      {"OID 1.3.6.1", objid({1, 3, 6, 1}), bytes({0x06, 0x03, 0x2B, 0x06, 0x01})},
      {"OID arc 128", objid({1, 3, 128}), bytes({0x06, 0x03, 0x2B, 0x81, 0x00})},
      {"OID arc 2^28-1", objid({1, 3, 0xFFFFFFF}), bytes({6, 5, 0x2B, 0xFF, 0xFF, 0xFF, 0x7F})},
      {"OID arc 2^28", objid({1, 3, 0x10000000}), bytes({6, 6, 0x2B, 0x81, 0x80, 0x80, 0x80, 0})},
      {"OCTET STRING",
       [](unsigned char *p, int *r) { return asnBuildString09(p, r, bytes({'a', 'b'}).data(), 2); },
       bytes({0x04, 0x02, 'a', 'b'})},
      {"NULL", [](unsigned char *p, int *r) { return asnBuildNull09(p, r); }, bytes({0x05, 0x00})},
  };
  for (const auto &c : cases) EXPECT_EQ(encode(c.encoder), c.expected) << c.name;
}

TEST(BerEncode, RefusesWhatItCannotWrite) {
  std::vector<ObjectIdEMS> too_long(128, 0xFFFFFFF);  // contents beyond 128 octets
  too_long[0] = 1;
  too_long[1] = 3;
  const struct {
    const char *name;
    Coder encoder;
    const char *echo;  // expected standard-error text, or "" for silence
  } cases[] = {
      {"one-arc identifier", objid({1}), "asn1.c: Encode:  Invalid Obj ID length\n"},
      {"first arc 3", objid({3, 1}), "asn1.c: objid, invalid first member\n"},
      {"2.48 overflows the first octet", objid({2, 48}), "asn1.c: objid, invalid sum\n"},
      {"identifier contents beyond 128 octets", objid(too_long), ""},
      {"Opaque is not an integer class", integer(1, ASN_OPAQUE), ""},
      {"integer size other than 4",
       [](unsigned char *p, int *r) {
         int32_t v = 1;
         return asnBuildInt09(p, r, &v, 8);
       },
       ""},
      {"length without room", [](unsigned char *p, int *) {
         int room = 2;
         return asnBuildLength09(p, &room, 300);
       },
       "asn1.c: Encode:  Not enough room to build_length\n"},
  };
  for (const auto &c : cases) {
    bool refused = false;
    auto seen = with_diagnostics(SNMP_TRACE_ASN1, [&] { refused = encode(c.encoder).empty(); });
    EXPECT_TRUE(refused) << c.name;
    EXPECT_EQ(seen.standard_error, c.echo) << c.name;
    EXPECT_EQ(seen.trace_log, "") << c.name;
  }
}

TEST(BerEncode, StaysWithinTheRoomGiven) {
  unsigned char buffer[8];
  memset(buffer, 0xEE, sizeof buffer);
  for (int room = 0; room < 6; ++room) {
    int left = room;
    int32_t value = 0x01020304;  // six octets on the wire
    EXPECT_EQ(asnBuildInt09(buffer, &left, &value, 4), nullptr) << room;
    EXPECT_EQ(buffer[room], 0xEE) << "wrote past room " << room;
  }
}

// A decoder run on a wire, rendering what it decoded as text.
using Decoder = std::function<std::string(unsigned char *, int *, unsigned char **)>;

Decoder as_integer(int size = 4) {
  return [=](unsigned char *p, int *room, unsigned char **end) {
    int32_t value = 12345;
    *end = asnParseInt09(p, room, &value, size);
    return std::to_string(value);
  };
}
Decoder as_address(int size = 4) {
  return [=](unsigned char *p, int *room, unsigned char **end) {
    unsigned char octets[4] = {};
    *end = asnParseIntOrIpaddr09(p, room, reinterpret_cast<int32_t *>(octets), size);
    return std::to_string(octets[0]) + "." + std::to_string(octets[1]) + "." +
           std::to_string(octets[2]) + "." + std::to_string(octets[3]);
  };
}
Decoder as_objid(int capacity = 16) {
  return [=](unsigned char *p, int *room, unsigned char **end) {
    ObjectIdEMS arcs[16];
    int count = capacity;
    *end = asnParseObjid09(p, room, arcs, &count);
    std::string text;
    for (int i = 0; *end && i < count; ++i) text.append(i ? "." : "").append(std::to_string(arcs[i]));
    return text;
  };
}
Decoder as_string(int capacity = 8) {
  return [=](unsigned char *p, int *room, unsigned char **end) {
    char text[8];
    int length = capacity;
    *end = asnParseString09(p, room, reinterpret_cast<unsigned char *>(text), &length);
    return *end ? std::string(text, length) : "";
  };
}
Decoder as_null() {
  return [](unsigned char *p, int *room, unsigned char **end) {
    *end = asnParseNull09(p, room);
    return "";
  };
}
Decoder as_header() {
  return [](unsigned char *p, int *room, unsigned char **end) {
    unsigned char type = 0;
    *end = asnParseHeader09(p, room, &type);
    return std::to_string(type) + " of " + std::to_string(*room);
  };
}

TEST(BerDecode, ReadsExactValues) {
  const struct {
    Bytes wire;
    Decoder decoder;
    std::string expected;
  } cases[] = {
      {bytes({0x02, 0x01, 0xFF}), as_integer(), "-1"},
      {bytes({0x02, 0x02, 0x00, 0x80}), as_integer(), "128"},
      {bytes({0x02, 0x00}), as_integer(), "0"},
      {bytes({0x02, 0x05, 0x00, 0x80, 0x00, 0x00, 0x00}), as_integer(), "-2147483648"},
      {bytes({0x41, 0x05, 0x00, 0xFF, 0xFF, 0xFF, 0xFF}), as_integer(), "-1"},
      {bytes({0x41, 0x01, 0xFF}), as_integer(), "255"},  // only INTEGER is sign-extended
      {bytes({0x43, 0x84, 0x00, 0x00, 0x00, 0x01, 0x07}), as_integer(), "7"},
      {bytes({0x40, 0x04, 10, 1, 2, 3}), as_address(), "10.1.2.3"},  // memory in wire order
      {bytes({0x04, 0x04, 10, 1, 2, 3}), as_address(), "10.1.2.3"},  // address as a string
      {bytes({0x06, 0x03, 0x2B, 0x06, 0x01}), as_objid(), "1.3.6.1"},
      {bytes({0x06, 0x01, 0x78}), as_objid(), "3.0"},  // first arc above 2, as designed
      {bytes({0x06, 0x05, 0x2B, 0xFF, 0xFF, 0xFF, 0x7F}), as_objid(), "1.3.268435455"},
      {bytes({0x06, 0x06, 0x2B, 0x87, 0xFF, 0xFF, 0xFF, 0x7F}), as_objid(), "1.3.2147483647"},
      {bytes({0x44, 0x03, 'x', 'y', 'z'}), as_string(3), "xyz"},  // exactly the capacity
      {bytes({0x05, 0x00}), as_null(), ""},
  };
  for (size_t row = 0; row < std::size(cases); ++row) {
    const auto &c = cases[row];
    SCOPED_TRACE("row " + std::to_string(row) + ", expecting \"" + c.expected + "\"");
    Bytes wire = c.wire;
    wire.resize(wire.size() + 3, 0x99);  // octets after the element stay unread
    int room = static_cast<int>(wire.size());
    unsigned char *end = nullptr;
    std::string got = c.decoder(wire.data(), &room, &end);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(got, c.expected);
    EXPECT_EQ(end, wire.data() + c.wire.size());
    EXPECT_EQ(room, 3);
  }
  // A header leaves the contents to its caller: their position and length.
  Bytes sequence = bytes({0x30, 0x84, 0x00, 0x00, 0x00, 0x02, 0xAA, 0xBB, 0x99});
  int room = static_cast<int>(sequence.size());
  unsigned char *end = nullptr;
  EXPECT_EQ(as_header()(sequence.data(), &room, &end), "48 of 2");
  EXPECT_EQ(end, sequence.data() + 6);
  uint32_t length = 0;
  Bytes four = bytes({0x84, 0x01, 0x02, 0x03, 0x04});
  EXPECT_EQ(asnParseLength09(four.data(), &length), four.data() + 5);
  EXPECT_EQ(length, 0x01020304u);
}

// Removes the 25-character time stamps from trace-log lines.
std::string without_stamps(const std::string &log) {
  std::string result;
  for (size_t start = 0; start < log.size();) {
    size_t end = log.find('\n', start);
    result += log.substr(start + 25, end - start - 25) + "\n";
    start = end + 1;
  }
  return result;
}

TEST(BerDecode, ReportsEachFailureOnBothChannels) {
  const std::string mismatch = "Decode:  ASN length and PDU length don't match";
  const struct {
    Bytes wire;
    Decoder decoder;
    std::string echo;   // after "asn1.c: " on standard error
    std::string trace;  // trace-log lines without stamps; "" means "<routine>: <echo>"
    const char *routine;
  } cases[] = {
      {bytes({0x1F, 0x01, 0x00}), as_header(), "Decode: Can't process ID >= 30", "",
       "asnParseHeader09"},
      {bytes({0x30, 0x80, 0x00}), as_header(), "Decode:  We don't support indefinite lengths", "",
       "asnParseLength09"},
      {bytes({0x30, 0x85, 0, 0, 0, 0, 1}), as_header(),
       "Decode:  We can't support data lengths that long", "", "asnParseLength09"},
      {bytes({0x30, 0x03, 0x00}), as_header(), mismatch, "", "asnParseHeader09"},
      {bytes({0x30, 0x82, 0x01}), as_header(), mismatch, "", "asnParseHeader09"},
      {bytes({0x02, 0x01, 0x01}), as_integer(8), "Decode:  Output buffer for integer not 4 bytes",
       "asnParseInt09: Decode: Output buffer for integer not 4 bytes\n", "asnParseInt09"},
      {bytes({0x04, 0x01, 0x01}), as_integer(), "Decode:  Integer not a valid integer type",
       "asnParseInt09: Decode: Integer not a valid integer type\n", "asnParseInt09"},
      {bytes({0x02, 0x80, 0x01}), as_integer(),
       "Decode:  We don't support indefinite lengths\nasn1.c: Decode:  Bad ASN length",
       "asnParseLength09: Decode:  We don't support indefinite lengths\n"
       "asnParseInt09: Decode: Bad ASN length\n",
       "asnParseInt09"},
      {bytes({0x02, 0x04, 0x01}), as_integer(), mismatch,
       "asnParseInt09: Decode: ASN length and PDU length don't match\n", "asnParseInt09"},
      {bytes({0x02, 0x05, 1, 0, 0, 0, 0}), as_integer(),
       "Decode:  Received integer larger than we support",
       "asnParseInt09: Decode:  Received integer larger than we support,\n"
       "asnParseInt09: asn_length 5 > intsize 4 \n",
       "asnParseInt09"},
      {bytes({0x40, 0x01, 0x01}), as_address(2), "not long", "", "asnParseIntOrIpaddr09"},
      {bytes({0x02, 0x01, 0x01}), as_string(), "Decode: not an octet string type", "",
       "asnParseString09"},
      {bytes({0x04, 0x03, 'a'}), as_string(), "Decode:  ASN Length and PDU Length don't match", "",
       "asnParseString09"},
      {bytes({0x04, 0x03, 'a', 'b', 'c'}), as_string(2),
       "Decode:  Received string longer than we support\nasn_length = 3, strlength = 2",
       "asnParseString09: Decode:  Received string longer than we support:asn_length = 3, "
       "strlength = 2\n",
       "asnParseString09"},
      {bytes({0x04, 0x01, 0x2B}), as_objid(), "Decode:  Object ID not an object identifier type",
       "", "asnParseObjid09"},
      {bytes({0x06, 0x04, 0x2B}), as_objid(), mismatch, "", "asnParseObjid09"},
      {bytes({0x06, 0x03, 0x2B, 0x06, 0x01}), as_objid(3),
       "Decode:  Received Object ID longer than we support", "", "asnParseObjid09"},
      {bytes({0x06, 0x06, 0x2B, 0x88, 0x80, 0x80, 0x80, 0x00}), as_objid(),
       "Decode:  Received a Sub-identifier greater than we support", "", "asnParseObjid09"},
      {bytes({0x06, 0x02, 0x2B, 0x86}), as_objid(), mismatch, "", "asnParseObjid09"},
      {bytes({0x02, 0x00}), as_null(), "Decode:  NULL variable not a null type", "",
       "asnParseNull09"},
      {bytes({0x05, 0x01, 0x00}), as_null(), "Decode:  Malformed NULL", "", "asnParseNull09"},
  };
  for (size_t row = 0; row < std::size(cases); ++row) {
    const auto &c = cases[row];
    SCOPED_TRACE("row " + std::to_string(row) + " (" + c.routine + ")");
    Bytes wire = c.wire;  // exactly the element's octets, so over-reads show under ASan
    int room = static_cast<int>(wire.size());
    unsigned char *end = wire.data();
    auto seen = with_diagnostics(SNMP_TRACE_ASN1, [&] { c.decoder(wire.data(), &room, &end); });
    EXPECT_EQ(end, nullptr);
    EXPECT_EQ(room, static_cast<int>(wire.size())) << "room changed on failure";
    EXPECT_EQ(seen.standard_error, "asn1.c: " + c.echo + "\n");
    std::string trace = c.trace.empty() ? std::string(c.routine) + ": " + c.echo + "\n" : c.trace;
    EXPECT_EQ(without_stamps(seen.trace_log), trace);
  }
}

TEST(BerDecode, SilentWithoutTraceBitAndLog) {
  Bytes wire = bytes({0x30, 0x80});
  int room = 2;
  unsigned char type;
  testsupport::CapturedStream captured(2);
  EXPECT_EQ(asnParseHeader09(wire.data(), &room, &type), nullptr);
  EXPECT_EQ(captured.text(), "");
}

}  // namespace
