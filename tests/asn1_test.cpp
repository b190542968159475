// BER primitives: exact bytes written, exact values read, and the failure
// texts on standard error and the trace log.

#include "asn1.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support/diagnostics.h"

using testsupport::bytes;
using testsupport::with_diagnostics;
using Bytes = std::vector<unsigned char>;

namespace {

// Runs an encoder on a generous buffer and returns what it wrote, checking
// that the room counter fell by exactly that much.
Bytes encode(const std::function<unsigned char *(unsigned char *, int *)> &encoder) {
  unsigned char buffer[256];
  memset(buffer, 0xEE, sizeof buffer);
  int room = sizeof buffer;
  unsigned char *end = encoder(buffer, &room);
  if (end == nullptr) return {};
  EXPECT_EQ(room, static_cast<int>(sizeof buffer - (end - buffer)));
  return Bytes(buffer, end);
}

struct EncodeCase {
  const char *name;
  std::function<unsigned char *(unsigned char *, int *)> encoder;
  Bytes expected;
};

std::function<unsigned char *(unsigned char *, int *)> int_class(uint32_t value, int type) {
  return [=](unsigned char *p, int *room) {
    int32_t v = static_cast<int32_t>(value);
    return asnBuildInt09class(p, room, &v, 4, type);
  };
}

std::function<unsigned char *(unsigned char *, int *)> objid(std::vector<ObjectIdEMS> arcs) {
  return [=](unsigned char *p, int *room) {
    return asnBuildObjid09(p, room, arcs.data(), static_cast<int>(arcs.size()));
  };
}

TEST(BerEncode, WritesExactBytes) {
  const EncodeCase cases[] = {
      {"length 5", [](unsigned char *p, int *r) { return asnBuildLength09(p, r, 5); }, bytes({5})},
      {"length 200", [](unsigned char *p, int *r) { return asnBuildLength09(p, r, 200); },
       bytes({0x81, 0xC8})},
      {"length 300", [](unsigned char *p, int *r) { return asnBuildLength09(p, r, 300); },
       bytes({0x82, 0x01, 0x2C})},
      {"length 70000 keeps low 16 bits",
       [](unsigned char *p, int *r) { return asnBuildLength09(p, r, 70000); },
       bytes({0x82, 0x11, 0x70})},
      {"INTEGER -1", int_class(0xFFFFFFFF, ASN_INTEGER), bytes({0x02, 0x01, 0xFF})},
      {"INTEGER 128", int_class(128, ASN_INTEGER), bytes({0x02, 0x02, 0x00, 0x80})},
      {"INTEGER 0", int_class(0, ASN_INTEGER), bytes({0x02, 0x01, 0x00})},
      {"INTEGER -129", int_class(static_cast<uint32_t>(-129), ASN_INTEGER),
       bytes({0x02, 0x02, 0xFF, 0x7F})},
      {"INTEGER 0x7FFFFFFF", int_class(0x7FFFFFFF, ASN_INTEGER),
       bytes({0x02, 0x04, 0x7F, 0xFF, 0xFF, 0xFF})},
      {"Counter 0xFFFFFFFF", int_class(0xFFFFFFFF, ASN_COUNTER),
       bytes({0x41, 0x05, 0x00, 0xFF, 0xFF, 0xFF, 0xFF})},
      {"Counter 0x80000000", int_class(0x80000000, ASN_COUNTER),
       bytes({0x41, 0x04, 0x80, 0x00, 0x00, 0x00})},
      {"Gauge 200 keeps a zero octet", int_class(200, ASN_GAUGE), bytes({0x42, 0x02, 0x00, 0xC8})},
      {"unsigned as INTEGER", int_class(0xFF800000, ASN_UNSIGNED_INTEGER),
       bytes({0x02, 0x05, 0x00, 0xFF, 0x80, 0x00, 0x00})},
      {"IpAddress class keeps four octets", int_class(1, ASN_IPADDRESS),
       bytes({0x40, 0x04, 0x00, 0x00, 0x00, 0x01})},
      {"IpAddress 10.1.2.3",
       [](unsigned char *p, int *r) {
         uint32_t a = 0x0A010203;
         return asnBuildIpaddressEMS(p, r, &a, 4);
       },
       bytes({0x40, 0x04, 0x0A, 0x01, 0x02, 0x03})},
      {"IpAddress 0.0.0.1 trimmed as signed",
       [](unsigned char *p, int *r) {
         uint32_t a = 1;
         return asnBuildIpaddressEMS(p, r, &a, 4);
       },
       bytes({0x40, 0x01, 0x01})},
      {"TimeTicks 0xFFFFFFFF trimmed as signed",
       [](unsigned char *p, int *r) {
         uint32_t t = 0xFFFFFFFF;
         return asnBuildTimeticksEMS(p, r, &t, 4);
       },
       bytes({0x43, 0x01, 0xFF})},
      {"OID 1.3.6.1", objid({1, 3, 6, 1}), bytes({0x06, 0x03, 0x2B, 0x06, 0x01})},
      {"OID arc 0xFFFFFFF", objid({1, 3, 0xFFFFFFF}), bytes({0x06, 0x05, 0x2B, 0xFF, 0xFF, 0xFF, 0x7F})},
      {"OID arc 0x10000000", objid({1, 3, 0x10000000}),
       bytes({0x06, 0x06, 0x2B, 0x81, 0x80, 0x80, 0x80, 0x00})},
      {"OID arc 128", objid({1, 3, 128}), bytes({0x06, 0x03, 0x2B, 0x81, 0x00})},
      {"OCTET STRING",
       [](unsigned char *p, int *r) {
         return asnBuildString09(p, r, reinterpret_cast<const unsigned char *>("ab"), 2);
       },
       bytes({0x04, 0x02, 'a', 'b'})},
      {"NULL", [](unsigned char *p, int *r) { return asnBuildNull09(p, r); }, bytes({0x05, 0x00})},
  };
  for (const EncodeCase &c : cases) EXPECT_EQ(encode(c.encoder), c.expected) << c.name;
}

TEST(BerEncode, RefusesWhatItCannotWrite) {
  struct Case {
    const char *name;
    std::function<unsigned char *(unsigned char *, int *)> encoder;
    const char *echo;  // expected standard-error text, or "" for silence
  } cases[] = {
      {"one-arc identifier", objid({1}), "asn1.c: Encode:  Invalid Obj ID length\n"},
      {"first arc 3", objid({3, 1}), "asn1.c: objid, invalid first member\n"},
      {"2.48 overflows the first octet", objid({2, 48}), "asn1.c: objid, invalid sum\n"},
      {"Opaque is not an integer class", int_class(1, ASN_OPAQUE), ""},
      {"integer size other than 4",
       [](unsigned char *p, int *r) {
         int32_t v = 1;
         return asnBuildInt09(p, r, &v, 8);
       },
       ""},
  };
  for (const Case &c : cases) {
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
    int32_t value = 0x01020304;
    EXPECT_EQ(asnBuildInt09(buffer, &left, &value, 4), nullptr) << room;
    EXPECT_EQ(buffer[room], 0xEE) << "wrote past room " << room;
  }
  int left = 2;
  auto seen = with_diagnostics(SNMP_TRACE_ASN1, [&] { asnBuildLength09(buffer, &left, 300); });
  EXPECT_EQ(seen.standard_error, "asn1.c: Encode:  Not enough room to build_length\n");
  EXPECT_EQ(left, 2);
}

TEST(BerEncode, LongIdentifierBeyondScratchAreaIsRefused) {
  std::vector<ObjectIdEMS> arcs(128, 0xFFFFFFF);
  arcs[0] = 1;
  arcs[1] = 3;
  EXPECT_TRUE(encode(objid(arcs)).empty());
}

struct IntCase {
  Bytes wire;
  int32_t expected;
};

TEST(BerDecode, ReadsIntegerTypes) {
  const IntCase cases[] = {
      {bytes({0x02, 0x01, 0xFF}), -1},
      {bytes({0x02, 0x02, 0x00, 0x80}), 128},
      {bytes({0x02, 0x00}), 0},
      {bytes({0x02, 0x05, 0x00, 0x80, 0x00, 0x00, 0x00}), static_cast<int32_t>(0x80000000)},
      {bytes({0x41, 0x05, 0x00, 0xFF, 0xFF, 0xFF, 0xFF}), -1},
      {bytes({0x41, 0x04, 0x80, 0x00, 0x00, 0x00}), static_cast<int32_t>(0x80000000)},
      {bytes({0x41, 0x01, 0xFF}), 255},  // only INTEGER is sign-extended
      {bytes({0x43, 0x84, 0x00, 0x00, 0x00, 0x01, 0x07}), 7},
  };
  for (const IntCase &c : cases) {
    Bytes wire = c.wire;
    int room = static_cast<int>(wire.size()) + 3;
    wire.resize(room);
    int32_t value = 12345;
    unsigned char *end = asnParseInt09(wire.data(), &room, &value, 4);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(value, c.expected);
    EXPECT_EQ(room, 3);
    EXPECT_EQ(end, wire.data() + c.wire.size());
  }
}

TEST(BerDecode, IpAddressLiesInMemoryInWireOrder) {
  for (Bytes wire : {bytes({0x40, 0x04, 10, 1, 2, 3}), bytes({0x04, 0x04, 10, 1, 2, 3})}) {
    int room = static_cast<int>(wire.size());
    uint32_t address = 0;
    ASSERT_NE(asnParseIntOrIpaddr09(wire.data(), &room, reinterpret_cast<int32_t *>(&address), 4),
              nullptr);
    unsigned char octets[4];
    memcpy(octets, &address, 4);
    EXPECT_EQ(Bytes(octets, octets + 4), bytes({10, 1, 2, 3}));
    EXPECT_EQ(room, 0);
  }
}

TEST(BerDecode, ReadsIdentifiersStringsAndNull) {
  struct Case {
    Bytes wire;
    std::vector<ObjectIdEMS> expected;
  } oids[] = {
      {bytes({0x06, 0x03, 0x2B, 0x06, 0x01}), {1, 3, 6, 1}},
      {bytes({0x06, 0x01, 0x78}), {3, 0}},  // first arc above 2, as designed
      {bytes({0x06, 0x05, 0x2B, 0xFF, 0xFF, 0xFF, 0x7F}), {1, 3, 0xFFFFFFF}},
      {bytes({0x06, 0x06, 0x2B, 0x87, 0xFF, 0xFF, 0xFF, 0x7F}), {1, 3, 0x7FFFFFFF}},
  };
  for (auto &c : oids) {
    ObjectIdEMS arcs[16];
    int count = 16;
    int room = static_cast<int>(c.wire.size());
    ASSERT_NE(asnParseObjid09(c.wire.data(), &room, arcs, &count), nullptr);
    EXPECT_EQ(std::vector<ObjectIdEMS>(arcs, arcs + count), c.expected);
    EXPECT_EQ(room, 0);
  }

  Bytes text = bytes({0x44, 0x03, 'x', 'y', 'z'});
  unsigned char string[3];
  int capacity = 3;
  int room = 5;
  ASSERT_NE(asnParseString09(text.data(), &room, string, &capacity), nullptr);
  EXPECT_EQ(capacity, 3);
  EXPECT_EQ(memcmp(string, "xyz", 3), 0);

  Bytes null_value = bytes({0x05, 0x00, 0x99});
  room = 3;
  EXPECT_EQ(asnParseNull09(null_value.data(), &room), null_value.data() + 2);
  EXPECT_EQ(room, 1);
}

TEST(BerDecode, HeaderGivesContentsLength) {
  Bytes wire = bytes({0x30, 0x84, 0x00, 0x00, 0x00, 0x02, 0xAA, 0xBB, 0xCC});
  int room = static_cast<int>(wire.size());
  unsigned char type = 0;
  EXPECT_EQ(asnParseHeader09(wire.data(), &room, &type), wire.data() + 6);
  EXPECT_EQ(type, 0x30);
  EXPECT_EQ(room, 2);
}

struct FailureCase {
  const char *name;
  std::function<unsigned char *(unsigned char *, int *)> decoder;
  Bytes wire;
  std::string echo;   // standard error, bit 1 set
  std::string trace;  // trace-log lines without their time stamps
};

std::function<unsigned char *(unsigned char *, int *)> parse_int(int size = 4) {
  return [=](unsigned char *p, int *room) {
    int32_t value;
    return asnParseInt09(p, room, &value, size);
  };
}

std::function<unsigned char *(unsigned char *, int *)> parse_string(int capacity) {
  return [=](unsigned char *p, int *room) {
    unsigned char out[8];
    int length = capacity;
    return asnParseString09(p, room, out, &length);
  };
}

std::function<unsigned char *(unsigned char *, int *)> parse_objid(int capacity) {
  return [=](unsigned char *p, int *room) {
    ObjectIdEMS out[8];
    int length = capacity;
    return asnParseObjid09(p, room, out, &length);
  };
}

std::function<unsigned char *(unsigned char *, int *)> parse_header() {
  return [](unsigned char *p, int *room) {
    unsigned char type;
    return asnParseHeader09(p, room, &type);
  };
}

// Removes the 25-character time stamps from trace-log lines.
std::string without_stamps(const std::string &log) {
  std::string result;
  size_t start = 0;
  while (start < log.size()) {
    size_t end = log.find('\n', start);
    if (end == std::string::npos) end = log.size();
    result += log.substr(start + 25, end - start - 25) + "\n";
    start = end + 1;
  }
  return result;
}

TEST(BerDecode, ReportsEachFailureOnBothChannels) {
  const FailureCase cases[] = {
      {"high tag number", parse_header(), bytes({0x1F, 0x01, 0x00}),
       "asn1.c: Decode: Can't process ID >= 30\n",
       "asnParseHeader09: Decode: Can't process ID >= 30\n"},
      {"indefinite length", parse_header(), bytes({0x30, 0x80, 0x00}),
       "asn1.c: Decode:  We don't support indefinite lengths\n",
       "asnParseLength09: Decode:  We don't support indefinite lengths\n"},
      {"five length octets", parse_header(), bytes({0x30, 0x85, 0, 0, 0, 0, 1}),
       "asn1.c: Decode:  We can't support data lengths that long\n",
       "asnParseLength09: Decode:  We can't support data lengths that long\n"},
      {"header longer than data", parse_header(), bytes({0x30, 0x03, 0x00}),
       "asn1.c: Decode:  ASN length and PDU length don't match\n",
       "asnParseHeader09: Decode:  ASN length and PDU length don't match\n"},
      {"truncated long form", parse_header(), bytes({0x30, 0x82, 0x01}),
       "asn1.c: Decode:  ASN length and PDU length don't match\n",
       "asnParseHeader09: Decode:  ASN length and PDU length don't match\n"},
      {"integer size", parse_int(8), bytes({0x02, 0x01, 0x01}),
       "asn1.c: Decode:  Output buffer for integer not 4 bytes\n",
       "asnParseInt09: Decode: Output buffer for integer not 4 bytes\n"},
      {"integer type", parse_int(), bytes({0x04, 0x01, 0x01}),
       "asn1.c: Decode:  Integer not a valid integer type\n",
       "asnParseInt09: Decode: Integer not a valid integer type\n"},
      {"integer bad length", parse_int(), bytes({0x02, 0x80, 0x01}),
       "asn1.c: Decode:  We don't support indefinite lengths\n"
       "asn1.c: Decode:  Bad ASN length\n",
       "asnParseLength09: Decode:  We don't support indefinite lengths\n"
       "asnParseInt09: Decode: Bad ASN length\n"},
      {"integer past data", parse_int(), bytes({0x02, 0x04, 0x01}),
       "asn1.c: Decode:  ASN length and PDU length don't match\n",
       "asnParseInt09: Decode: ASN length and PDU length don't match\n"},
      {"five-octet integer without leading zero", parse_int(), bytes({0x02, 0x05, 1, 0, 0, 0, 0}),
       "asn1.c: Decode:  Received integer larger than we support\n",
       "asnParseInt09: Decode:  Received integer larger than we support,\n"
       "asnParseInt09: asn_length 5 > intsize 4 \n"},
      {"address as wider integer",
       [](unsigned char *p, int *room) {
         int32_t v;
         return asnParseIntOrIpaddr09(p, room, &v, 2);
       },
       bytes({0x40, 0x01, 0x01}), "asn1.c: not long\n", "asnParseIntOrIpaddr09: not long\n"},
      {"string type", parse_string(8), bytes({0x02, 0x01, 0x01}),
       "asn1.c: Decode: not an octet string type\n",
       "asnParseString09: Decode: not an octet string type\n"},
      {"string past data", parse_string(8), bytes({0x04, 0x03, 'a'}),
       "asn1.c: Decode:  ASN Length and PDU Length don't match\n",
       "asnParseString09: Decode:  ASN Length and PDU Length don't match\n"},
      {"string one over capacity", parse_string(2), bytes({0x04, 0x03, 'a', 'b', 'c'}),
       "asn1.c: Decode:  Received string longer than we support\n"
       "asn_length = 3, strlength = 2\n",
       "asnParseString09: Decode:  Received string longer than we support:asn_length = 3, "
       "strlength = 2\n"},
      {"objid type", parse_objid(8), bytes({0x04, 0x01, 0x2B}),
       "asn1.c: Decode:  Object ID not an object identifier type\n",
       "asnParseObjid09: Decode:  Object ID not an object identifier type\n"},
      {"objid past data", parse_objid(8), bytes({0x06, 0x04, 0x2B}),
       "asn1.c: Decode:  ASN length and PDU length don't match\n",
       "asnParseObjid09: Decode:  ASN length and PDU length don't match\n"},
      {"objid over capacity", parse_objid(3), bytes({0x06, 0x03, 0x2B, 0x06, 0x01}),
       "asn1.c: Decode:  Received Object ID longer than we support\n",
       "asnParseObjid09: Decode:  Received Object ID longer than we support\n"},
      {"sub-identifier of 2^31", parse_objid(8), bytes({0x06, 0x06, 0x2B, 0x88, 0x80, 0x80, 0x80, 0x00}),
       "asn1.c: Decode:  Received a Sub-identifier greater than we support\n",
       "asnParseObjid09: Decode:  Received a Sub-identifier greater than we support\n"},
      {"sub-identifier cut by its length", parse_objid(8), bytes({0x06, 0x02, 0x2B, 0x86}),
       "asn1.c: Decode:  ASN length and PDU length don't match\n",
       "asnParseObjid09: Decode:  ASN length and PDU length don't match\n"},
      {"null type", [](unsigned char *p, int *r) { return asnParseNull09(p, r); },
       bytes({0x02, 0x00}), "asn1.c: Decode:  NULL variable not a null type\n",
       "asnParseNull09: Decode:  NULL variable not a null type\n"},
      {"malformed null", [](unsigned char *p, int *r) { return asnParseNull09(p, r); },
       bytes({0x05, 0x01, 0x00}), "asn1.c: Decode:  Malformed NULL\n",
       "asnParseNull09: Decode:  Malformed NULL\n"},
  };
  for (const FailureCase &c : cases) {
    Bytes wire = c.wire;
    int room = static_cast<int>(wire.size());
    unsigned char *result = reinterpret_cast<unsigned char *>(1);
    auto seen = with_diagnostics(SNMP_TRACE_ASN1, [&] { result = c.decoder(wire.data(), &room); });
    EXPECT_EQ(result, nullptr) << c.name;
    EXPECT_EQ(room, static_cast<int>(wire.size())) << c.name << ": room changed on failure";
    EXPECT_EQ(seen.standard_error, c.echo) << c.name;
    EXPECT_EQ(without_stamps(seen.trace_log), c.trace) << c.name;
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

TEST(BerDecode, LengthFormsAcceptedAndRefused) {
  uint32_t length = 0;
  Bytes four = bytes({0x84, 0x01, 0x02, 0x03, 0x04});
  EXPECT_EQ(asnParseLength09(four.data(), &length), four.data() + 5);
  EXPECT_EQ(length, 0x01020304u);
  Bytes indefinite = bytes({0x80, 0, 0, 0, 0});
  EXPECT_EQ(asnParseLength09(indefinite.data(), &length), nullptr);
  Bytes five = bytes({0x85, 0, 0, 0, 0});
  EXPECT_EQ(asnParseLength09(five.data(), &length), nullptr);
}

TEST(HexDump, RowsOffsetsAndPadding) {
  testsupport::TempDir dir;
  std::string path = dir.file("dump");
  unsigned char data[20];
  for (int i = 0; i < 20; ++i) data[i] = static_cast<unsigned char>('A' + i);
  data[1] = 0x07;
  dumpFp = fopen(path.c_str(), "w");
  std::string offsets;
  {
    testsupport::CapturedStream out(1);
    hexdumpEMS(data, 20);
    offsets = out.text();
  }
  fclose(dumpFp);
  dumpFp = nullptr;
  EXPECT_EQ(offsets, "     0:      16:  ");
  EXPECT_EQ(testsupport::read_file(path),
            "41 07 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50     A.CDEFGHIJKLMNOP\n"
            "51 52 53 54 -- -- -- -- -- -- -- -- -- -- -- --     QRST............\n");
}

}  // namespace
