// Message envelope, variable bindings and the trap codec, both ways.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "snmp.h"
#include "support/ber_bytes.h"
#include "support/diagnostics.h"
#include "support/sample_trap.h"

using testsupport::bytes;
using testsupport::with_diagnostics;
using testsupport::Bytes;
using testsupport::cat;
using testsupport::text;
using testsupport::tlv;

namespace {

// 1.3.6.1.4.1.49999.6.3.1 and friends, pre-encoded.
const Bytes kEnterprise = tlv(0x06, bytes({0x2B, 6, 1, 4, 1, 0x83, 0x86, 0x4F, 6, 3, 1}));
const Bytes kNameA = tlv(0x06, bytes({0x2B, 6, 1, 4, 1, 0x83, 0x86, 0x4F, 1, 1}));
const Bytes kNameB = tlv(0x06, bytes({0x2B, 6, 1, 4, 1, 0x83, 0x86, 0x4F, 1, 2}));
const Bytes kNotificationName = tlv(0x06, bytes({0x2B, 6, 1, 4, 1, 99, 12, 45, 2, 1, 0}));
const Bytes kAgent = tlv(0x40, bytes({10, 1, 2, 3}));

Bytes binding(const Bytes &name, const Bytes &value) { return tlv(0x30, cat({name, value})); }

Bytes trap_message(const Bytes &bindings, int version = 0, const Bytes &agent = kAgent,
                   int pdu_type = 0xA4) {
  Bytes pdu = tlv(pdu_type, cat({kEnterprise, agent, tlv(0x02, bytes({6})), tlv(0x02, bytes({17})),
                                 tlv(0x43, bytes({0x30, 0x39})), tlv(0x30, bindings)}));
  return tlv(0x30, cat({tlv(0x02, bytes({version})), tlv(0x04, text("public")), pdu}));
}

struct Decoded {
  int result;
  snmp_trap_infoEMS trap;
  SnmpVarBindEMS vars[4];
  testsupport::Diagnostics diagnostics;
};

Decoded decode(Bytes message, int maxvars = 4) {
  Decoded d;
  memset(&d.trap, 0, sizeof d.trap);
  d.trap.clen = 127;
  d.trap.elen = 128;
  d.trap.maxvars = maxvars;
  d.diagnostics = with_diagnostics(0, [&] {
    d.result = snmp_parse_trap(message.data(), static_cast<int>(message.size()), &d.trap, nullptr,
                               d.vars);
  });
  return d;
}

std::vector<ObjectIdEMS> arcs(const ObjectIdEMS *oid, uint32_t length) {
  return std::vector<ObjectIdEMS>(oid, oid + length);
}

Bytes agent_octets(uint32_t agent) {
  Bytes out(4);
  memcpy(out.data(), &agent, 4);
  return out;
}

TEST(TrapEncode, WritesExactMessage) {
  snmp_trap_infoEMS trap{};
  SnmpVarBindEMS vars[1];
  memcpy(trap.community, "public", 6);
  trap.clen = 6;
  uint32_t elen;
  testsupport::set_oid(trap.enterprise, &elen, {1, 3, 6, 1, 4, 1, 49999, 6, 3, 1});
  trap.elen = static_cast<int32_t>(elen);
  trap.agent = 0x0A010203;
  trap.gen = 6;
  trap.specific = 17;
  trap.time = 12345;
  trap.vars = 1;
  testsupport::set_oid(vars[0].oid, &vars[0].oid_length, {1, 3, 6, 1, 4, 1, 49999, 1, 1});
  testsupport::set_binding_int(&vars[0], 0x02, 7);

  unsigned char out[512];
  int length = sizeof out;
  ASSERT_EQ(snmpBuildTrapEMS(out, &length, &trap, nullptr, vars), 0);
  EXPECT_EQ(Bytes(out, out + length), trap_message(binding(kNameA, tlv(0x02, bytes({7})))));

  trap.vars = 0;
  length = sizeof out;
  ASSERT_EQ(snmpBuildTrapEMS(out, &length, &trap, nullptr, vars), 0);
  EXPECT_EQ(Bytes(out, out + length), trap_message({}));
}

TEST(TrapCodec, SampleTrapRoundTrips) {
  snmp_trap_infoEMS sent;
  SnmpVarBindEMS sent_vars[5];
  testsupport::make_sample_trap(&sent, sent_vars, 5);
  unsigned char out[1024];
  int length = sizeof out;
  ASSERT_EQ(snmpBuildTrapEMS(out, &length, &sent, nullptr, sent_vars), 0);
  EXPECT_GT(length, 140);
  EXPECT_LT(length, 200);

  snmp_trap_infoEMS got{};
  SnmpVarBindEMS got_vars[5];
  got.clen = 127;
  got.elen = 128;
  got.maxvars = 5;
  ASSERT_EQ(snmp_parse_trap(out, length, &got, nullptr, got_vars), 0);
  EXPECT_STREQ(reinterpret_cast<char *>(got.community), "public");
  EXPECT_EQ(arcs(got.enterprise, got.elen), arcs(sent.enterprise, sent.elen));
  EXPECT_EQ(agent_octets(got.agent), bytes({10, 1, 2, 3}));
  EXPECT_EQ(got.gen, 6u);
  EXPECT_EQ(got.specific, 17u);
  EXPECT_EQ(got.time, 12345678u);
  ASSERT_EQ(got.vars, 5);
  for (int i = 0; i < 5; ++i) {
    const SnmpVarBindEMS &g = got_vars[i], &s = sent_vars[i];
    EXPECT_EQ(arcs(g.oid, g.oid_length), arcs(s.oid, s.oid_length));
    EXPECT_EQ(std::tie(g.type, g.val_len), std::tie(s.type, s.val_len));
    size_t size = s.type == 0x04 ? s.val_len : s.type == 0x06 ? 4 * s.val_len : 4;
    EXPECT_EQ(memcmp(&g.val, &s.val, size), 0) << "value of binding " << i;
  }

  // A negative enterprise capacity refuses the trap rather than taking no bound.
  got.clen = 127;
  got.elen = -1;
  testsupport::CapturedStream quiet(2);
  EXPECT_EQ(snmp_parse_trap(out, length, &got, nullptr, got_vars), -1);
}

TEST(TrapEncode, ReportsWhatCannotBeBuilt) {
  struct Case {
    const char *name;
    void (*spoil)(snmp_trap_infoEMS *, SnmpVarBindEMS *);
    int room;  // octets; a negative number counts back from the full message
    const char *message;
  } cases[] = {
      {"Opaque binding", [](snmp_trap_infoEMS *, SnmpVarBindEMS *v) { v[1].type = 0x44; }, 1024,
       "snmpBuildTrapEMS: build_var_op failed\n"},
      {"binding name longer than its array",
       [](snmp_trap_infoEMS *, SnmpVarBindEMS *v) { v[0].oid_length = 500; }, 1024,
       "snmpBuildTrapEMS: build_var_op failed\n"},
      {"one-arc enterprise", [](snmp_trap_infoEMS *t, SnmpVarBindEMS *) { t->elen = 1; }, 1024,
       "snmpBuildTrapEMS: asnBuildObjid09 failed\n"},
      {"room for the bindings but not the fields", [](snmp_trap_infoEMS *, SnmpVarBindEMS *) {}, -18,
       "snmpBuildTrapEMS: length error\n"},
      {"no room at all", [](snmp_trap_infoEMS *, SnmpVarBindEMS *) {}, 10,
       "snmpBuildTrapEMS: build_var_op failed\n"},
  };
  snmp_trap_infoEMS trap;
  SnmpVarBindEMS vars[5];
  testsupport::make_sample_trap(&trap, vars, 5);
  unsigned char full[1024];
  int full_length = sizeof full;
  ASSERT_EQ(snmpBuildTrapEMS(full, &full_length, &trap, nullptr, vars), 0);
  for (const Case &c : cases) {
    testsupport::make_sample_trap(&trap, vars, 5);
    c.spoil(&trap, vars);
    int room = c.room < 0 ? full_length + c.room : c.room;
    std::vector<unsigned char> out(room + 64, 0xEE);
    int length = room;
    int result = 0;
    auto seen = with_diagnostics(0, [&] { result = snmpBuildTrapEMS(out.data(), &length, &trap, nullptr, vars); });
    EXPECT_EQ(result, -2) << c.name;
    EXPECT_EQ(seen.standard_error, c.message) << c.name;
    for (int i = room; i < room + 64; ++i) ASSERT_EQ(out[i], 0xEE) << c.name << " wrote past room";
  }
}

TEST(TrapDecode, DecodesOrReportsEachMessage) {
  const Bytes three = cat({binding(kNameA, tlv(0x02, bytes({1}))),
                           binding(kNameA, tlv(0x02, bytes({2}))),
                           binding(kNameA, tlv(0x02, bytes({3})))});
  const Bytes notification =
      cat({binding(kNameA, tlv(0x02, bytes({1}))),
           binding(kNotificationName, tlv(0x04, bytes({0, 192, 168, 7, 9}))),
           binding(kNameB, tlv(0x02, bytes({2})))});
  const Bytes bad_bindings_type =
      tlv(0x30, cat({tlv(0x02, bytes({0})), tlv(0x04, text("c")),
                     tlv(0xA4, cat({kEnterprise, kAgent, tlv(0x02, bytes({6})),
                                    tlv(0x02, bytes({1})), tlv(0x43, bytes({1})), tlv(0x31, {})}))}));
  const struct {
    const char *name;
    Bytes message;
    int maxvars;
    int vars;            // -1: decoding fails
    const char *agent;   // expected agent after decoding
    const char *report;  // text on standard error and the trace log, or ""
  } cases[] = {
      {"version 1 is reported and decoded",
       trap_message(binding(kNameA, tlv(0x02, bytes({1}))), 1), 4, 1, "10.1.2.3",
       "invalid version"},
      {"agent as an OCTET STRING", trap_message({}, 0, tlv(0x04, bytes({10, 1, 2, 3}))), 4, 0,
       "10.1.2.3", ""},
      {"notification address replaces the agent", trap_message(notification), 4, 2, "192.168.7.9",
       ""},
      {"maxvars 0", trap_message(three), 0, 0, "10.1.2.3", ""},
      {"maxvars 2 of 3", trap_message(three), 2, 2, "10.1.2.3", ""},
      {"all of 3", trap_message(three), 4, 3, "10.1.2.3", ""},
      {"outer type", bytes({0x31, 0x00}), 4, -1, "", "version/comm name parse error"},
      {"not a trap", trap_message({}, 0, kAgent, 0xA0), 4, -1, "", "packet is not a snmp trap"},
      {"pdu header",
       tlv(0x30, cat({tlv(0x02, bytes({0})), tlv(0x04, text("c")), bytes({0xA4, 0x80})})), 4, -1,
       "", "type parse error"},
      {"agent as NULL", trap_message({}, 0, tlv(0x05, {})), 4, -1, "", "agent-addr parse error"},
      {"binding of BIT STRING", trap_message(binding(kNameA, tlv(0x03, bytes({0})))), 4, -1, "",
       "invalid type"},
      {"binding int", trap_message(binding(kNameA, tlv(0x02, bytes({1, 2, 3, 4, 5})))), 4, -1, "",
       "varbind int parse error"},
      {"binding objid",
       trap_message(binding(kNameA, tlv(0x06, bytes({0x2B, 0x88, 0x80, 0x80, 0x80, 0})))), 4, -1,
       "", "varbind objid parse error"},
      {"binding header", trap_message(bytes({0x30, 0x05, 0x06})), 4, -1, "",
       "varbind parse error"},
      {"bindings not a sequence", bad_bindings_type, 4, -1, "", "seq type parse error"},
  };
  for (const auto &c : cases) {
    Decoded d = decode(c.message, c.maxvars);
    EXPECT_EQ(d.result, c.vars < 0 ? -1 : 0) << c.name;
    std::string report = *c.report ? std::string("snmp_parse_trap: ") + c.report + "\n" : "";
    EXPECT_EQ(d.diagnostics.standard_error, report) << c.name;
    EXPECT_NE(d.diagnostics.trace_log.find(report), std::string::npos) << c.name;
    if (c.vars < 0) continue;
    EXPECT_EQ(d.trap.vars, c.vars) << c.name;
    Bytes agent = agent_octets(d.trap.agent);
    EXPECT_EQ(std::to_string(agent[0]) + "." + std::to_string(agent[1]) + "." +
                  std::to_string(agent[2]) + "." + std::to_string(agent[3]),
              c.agent)
        << c.name;
    for (int i = 0; i < d.trap.vars; ++i) EXPECT_EQ(d.vars[i].val.integer, i + 1) << c.name;
  }
}

TEST(TrapDecode, StoresOpaqueAndNullAndMatchesTheNotificationPrefix) {
  Decoded d = decode(trap_message(cat({binding(kNameA, tlv(0x44, bytes({1, 2, 3}))),
                                       binding(kNameB, tlv(0x05, {}))})));
  ASSERT_EQ(d.trap.vars, 2);
  EXPECT_EQ(Bytes(d.vars[0].val.string, d.vars[0].val.string + d.vars[0].val_len), bytes({1, 2, 3}));
  EXPECT_EQ(d.vars[1].type, 0x05);
  EXPECT_EQ(d.vars[1].val_len, 0u);

  ObjectIdEMS longer[14] = {1, 3, 6, 1, 4, 1, 99, 12, 45, 2, 1, 0, 5, 5};
  EXPECT_EQ(isVaultraNotificationAddress(longer), 1);
  longer[11] = 1;
  EXPECT_EQ(isVaultraNotificationAddress(longer), 0);
  EXPECT_EQ(isVaultraNotificationAddress(nullptr), 0);
}

TEST(TrapDecode, EveryTruncationFailsCleanly) {
  snmp_trap_infoEMS trap;
  SnmpVarBindEMS vars[5];
  testsupport::make_sample_trap(&trap, vars, 5);
  unsigned char out[1024];
  int length = sizeof out;
  ASSERT_EQ(snmpBuildTrapEMS(out, &length, &trap, nullptr, vars), 0);
  testsupport::CapturedStream quiet(2);
  for (int cut = 0; cut < length; ++cut) {
    // A copy of exactly `cut` octets so that any over-read is caught by ASan.
    Bytes prefix(out, out + cut);
    snmp_trap_infoEMS got{};
    SnmpVarBindEMS got_vars[5];
    got.clen = 127;
    got.elen = 128;
    got.maxvars = 5;
    EXPECT_EQ(snmp_parse_trap(prefix.data(), cut, &got, nullptr, got_vars), -1) << cut;
  }
}

TEST(Envelope, ParsesAndBuildsTheOuterSequence) {
  Bytes message = cat({tlv(0x30, cat({tlv(0x02, bytes({0})), tlv(0x04, text("abcd")), bytes({0xA4, 0})}))});
  unsigned char community[5];
  memset(community, 0xEE, sizeof community);
  int capacity = 4;
  int length = static_cast<int>(message.size());
  int32_t version = -1;
  unsigned char *pdu = auth_parse(message.data(), &length, community, &capacity, &version);
  ASSERT_NE(pdu, nullptr);
  EXPECT_EQ(pdu[0], 0xA4);
  EXPECT_EQ(length, 2);  // the PDU's octets are what remains
  EXPECT_EQ(version, 0);
  EXPECT_EQ(capacity, 4);
  EXPECT_EQ(community[4], 0) << "terminated one octet beyond the capacity";

  unsigned char built[32];
  int room = sizeof built;
  int slen = 4;
  version = 0;
  unsigned char *end = auth_build(built, &room, reinterpret_cast<const unsigned char *>("abcd"), &slen, &version, 2);
  ASSERT_NE(end, nullptr);
  EXPECT_EQ(Bytes(built, end), Bytes(message.begin(), message.end() - 2));

  Bytes wrong = bytes({0x31, 0x00});
  length = 2;
  capacity = 4;
  auto seen = with_diagnostics(SNMP_TRACE_AUTH, [&] {
    EXPECT_EQ(auth_parse(wrong.data(), &length, community, &capacity, &version), nullptr);
  });
  EXPECT_EQ(seen.standard_error, "snmp_auth.c: wrong auth header type\n");
}

TEST(Bindings, HeaderGrowsPast127Octets) {
  // Name 1.3.6.1 (5 octets on the wire) plus a string header of 2 octets:
  // a string of 120 gives 127 octets of contents, 121 gives 128.
  oid name[] = {1, 3, 6, 1};
  int name_length = 4;
  for (int string_length : {120, 121, 300}) {
    Bytes value(string_length, 'v');
    unsigned char out[400];
    int room = sizeof out;
    unsigned char *end = build_var_op(out, name, &name_length, 0x04, string_length, value.data(), &room);
    ASSERT_NE(end, nullptr) << string_length;
    Bytes expected = tlv(0x30, cat({tlv(0x06, bytes({0x2B, 6, 1})), tlv(0x04, value)}));
    EXPECT_EQ(Bytes(out, end), expected) << string_length;
    EXPECT_EQ(room, static_cast<int>(sizeof out - expected.size()));

    oid parsed[128];
    int parsed_length = 4;  // ignored: the decoder always allows 128
    unsigned char type = 0;
    int value_length = 0;
    unsigned char *value_at = nullptr;
    int list = static_cast<int>(expected.size());
    EXPECT_EQ(parse_var_op(out, parsed, &parsed_length, &type, &value_length, &value_at, &list), end);
    EXPECT_EQ(parsed_length, 4);
    EXPECT_EQ(type, 0x04);
    EXPECT_EQ(value_length, string_length);
    EXPECT_EQ(list, 0);
  }
}

TEST(Bindings, RefusesOpaqueAndOverlongNames) {
  oid name[] = {1, 3, 6, 1};
  int name_length = 4;
  unsigned char out[64];
  int room = sizeof out;
  auto seen = with_diagnostics(SNMP_TRACE_VARBIND, [&] {
    EXPECT_EQ(build_var_op(out, name, &name_length, 0x44, 1, reinterpret_cast<const unsigned char *>("x"), &room),
              nullptr);
  });
  EXPECT_EQ(seen.standard_error, "snmp.c: wrong type\n");

  Bytes long_name(128, 1);
  long_name[0] = 0x2B;  // 1.3 then 127 arcs of 1: 129 sub-identifiers in all
  Bytes message = binding(tlv(0x06, long_name), tlv(0x05, {}));
  oid parsed[200];
  int parsed_length = 200;
  unsigned char type;
  int value_length;
  unsigned char *value_at;
  int list = static_cast<int>(message.size());
  seen = with_diagnostics(SNMP_TRACE_VARBIND, [&] {
    EXPECT_EQ(parse_var_op(message.data(), parsed, &parsed_length, &type, &value_length, &value_at, &list),
              nullptr);
  });
  EXPECT_EQ(seen.standard_error, "snmp.c: Cannot parse objid\n");
}

}  // namespace
