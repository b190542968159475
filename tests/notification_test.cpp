// SNMPv2c notifications as SNMPv1 trap records: the translation table, the
// refusals, the inform's answer and the reverse mapping; then net-snmp's
// snmptrap and snmpinform through the development hub to a client of the
// library, and to hubevent's JSON lines.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "event.h"
#include "snmp.h"
#include "snmp_call.h"
#include "support/ber_bytes.h"
#include "support/channel.h"

using namespace std::chrono_literals;
using namespace testsupport;

namespace {

using Arcs = std::vector<ObjectIdEMS>;

const Bytes kUptime = varbind(object_id({1, 3, 6, 1, 2, 1, 1, 3, 0}), integer(4242, 0x43));
Bytes trap_oid(std::initializer_list<uint32_t> arcs) {
  return varbind(object_id({1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0}), object_id(arcs));
}
const Bytes kIfIndex = varbind(object_id({1, 3, 6, 1, 2, 1, 2, 2, 1, 1, 2}), integer(2));
const Bytes kTrapAddress = varbind(object_id({1, 3, 6, 1, 6, 3, 18, 1, 3, 0}), tlv(0x40, {10, 9, 8, 7}));
const Bytes kTrapEnterprise =
    varbind(object_id({1, 3, 6, 1, 6, 3, 1, 1, 4, 3, 0}), object_id({1, 3, 6, 1, 4, 1, 8072, 3, 2, 10}));
const Bytes kLinkDown = trap_oid({1, 3, 6, 1, 6, 3, 1, 1, 5, 3});
const Bytes kVendorTrap = trap_oid({1, 3, 6, 1, 4, 1, 8072, 2, 3, 0, 1});
constexpr uint32_t kSource = 0x0100007F;  // 127.0.0.1 in wire order

Arcs arcs(const ObjectIdEMS *oid, int length) { return Arcs(oid, oid + length); }

struct Decoded {
  int result;
  Trap trap;
  snmp_notification_info about;
};

Decoded decode(Bytes message, int maxvars = 10) {
  Decoded out{};
  memset(out.trap.vars, 0, sizeof out.trap.vars);
  out.trap.info.maxvars = maxvars;
  out.result = snmp_parse_notification(message.data(), static_cast<int>(message.size()), kSource,
                                       &out.trap.info, out.trap.vars, &out.about);
  return out;
}

TEST(Notification, TranslatesByTheMappingRules) {
  const Arcs snmp_traps = {1, 3, 6, 1, 6, 3, 1, 1, 5};
  const Arcs net_snmp = {1, 3, 6, 1, 4, 1, 8072, 2, 3};
  struct Case {
    const char *name;
    Bytes message;
    Arcs enterprise;
    uint32_t generic, specific, agent;
    int bindings;
  } cases[] = {
      {"standard trap", v2c_message(0xA7, "public", 7, cat({kUptime, kLinkDown, kIfIndex})),
       snmp_traps, 2, 0, kSource, 1},
      {"standard trap naming its enterprise, which is no binding then",
       v2c_message(0xA7, "public", 7, cat({kUptime, kLinkDown, kTrapEnterprise, kIfIndex})),
       {1, 3, 6, 1, 4, 1, 8072, 3, 2, 10}, 2, 0, kSource, 1},
      {"identifier with a 0 arc", v2c_message(0xA7, "public", 7, cat({kUptime, kVendorTrap})),
       net_snmp, 6, 1, kSource, 0},
      {"identifier without a 0 arc",
       v2c_message(0xA7, "public", 7, cat({kUptime, trap_oid({1, 3, 6, 1, 4, 1, 8072, 2, 3, 9})})),
       net_snmp, 6, 9, kSource, 0},
      {"proxied, with the agent's address",
       v2c_message(0xA7, "public", 7, cat({kUptime, kVendorTrap, kIfIndex, kTrapAddress})),
       net_snmp, 6, 1, 0x0708090A, 2},
      {"inform", v2c_message(0xA6, "public", 7, cat({kUptime, kVendorTrap, kIfIndex})), net_snmp,
       6, 1, kSource, 1},
      {"enterprise trap naming snmpTrapEnterprise keeps its own",
       v2c_message(0xA7, "public", 7, cat({kUptime, kVendorTrap, kIfIndex, kTrapEnterprise})),
       net_snmp, 6, 1, kSource, 1},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    Decoded d = decode(c.message);
    ASSERT_EQ(d.result, SNMP_NOTIFICATION_OK) << snmp_notification_error(d.result);
    EXPECT_EQ(arcs(d.trap.info.enterprise, d.trap.info.elen), c.enterprise);
    EXPECT_EQ(d.trap.info.gen, c.generic);
    EXPECT_EQ(d.trap.info.specific, c.specific);
    EXPECT_EQ(d.trap.info.agent, c.agent);
    EXPECT_EQ(d.trap.info.time, 4242u);
    EXPECT_STREQ(reinterpret_cast<const char *>(d.trap.info.community), "public");
    EXPECT_EQ(d.about.version, SNMP_MESSAGE_V2C);
    EXPECT_EQ(d.about.request_id, 7);
    ASSERT_EQ(d.trap.info.vars, c.bindings);
    if (c.bindings > 0) {
      EXPECT_EQ(arcs(d.trap.vars[0].oid, static_cast<int>(d.trap.vars[0].oid_length)),
                (Arcs{1, 3, 6, 1, 2, 1, 2, 2, 1, 1, 2}));
    }
  }
  // The identifier as received, which the record alone cannot give back.
  Decoded d = decode(v2c_message(0xA7, "public", 7, cat({kUptime, trap_oid({1, 3, 6, 1, 4, 1, 9999, 5, 82})})));
  EXPECT_EQ(arcs(d.about.trap_oid, d.about.trap_oid_length), (Arcs{1, 3, 6, 1, 4, 1, 9999, 5, 82}));
}

TEST(Notification, RefusesWhatHasNoSnmpV1Form) {
  const Bytes counter64 = varbind(object_id({1, 3, 6, 1, 2, 1, 31, 1, 1, 1, 6, 2}), tlv(0x46, {1, 0, 0, 0, 0}));
  const Bytes good = v2c_message(0xA7, "public", 7, cat({kUptime, kVendorTrap, kIfIndex}));
  struct Case {
    const char *name;
    Bytes message;
    int result;
  } cases[] = {
      {"bindings swapped", v2c_message(0xA7, "public", 7, cat({kVendorTrap, kUptime})),
       SNMP_NOTIFICATION_BAD_TRAP_OID},
      {"uptime as INTEGER",
       v2c_message(0xA7, "public", 7,
                   cat({varbind(object_id({1, 3, 6, 1, 2, 1, 1, 3, 0}), integer(5)), kVendorTrap})),
       SNMP_NOTIFICATION_BAD_TRAP_OID},
      {"no trap identifier", v2c_message(0xA7, "public", 7, kUptime), SNMP_NOTIFICATION_BAD_TRAP_OID},
      {"no bindings", v2c_message(0xA7, "public", 7, {}), SNMP_NOTIFICATION_BAD_TRAP_OID},
      {"identifier too short", v2c_message(0xA7, "public", 7, cat({kUptime, trap_oid({1, 3})})),
       SNMP_NOTIFICATION_BAD_TRAP_OID},
      {"Counter64", v2c_message(0xA7, "public", 7, cat({kUptime, kVendorTrap, counter64})),
       SNMP_NOTIFICATION_COUNTER64},
      {"Counter64 past the caller's array",
       v2c_message(0xA7, "public", 7, cat({kUptime, kVendorTrap, kIfIndex, kIfIndex, counter64})),
       SNMP_NOTIFICATION_COUNTER64},
      {"cut short", Bytes(good.begin(), good.end() - 1), SNMP_NOTIFICATION_MALFORMED},
      {"binding with trailing octets",
       v2c_message(0xA7, "public", 7, cat({kUptime, kVendorTrap, tlv(0x30, cat({object_id({1, 3}), integer(1), integer(1)}))})),
       SNMP_NOTIFICATION_MALFORMED},
      {"SNMPv2-Trap in an SNMPv1 message",
       tlv(0x30, cat({integer(0), tlv(0x04, text("public")),
                      tlv(0xA7, cat({integer(7), integer(0), integer(0), tlv(0x30, cat({kUptime, kVendorTrap}))}))})),
       SNMP_NOTIFICATION_NOT_NOTIFICATION},
      {"GetRequest", v2c_message(0xA0, "public", 7, cat({kUptime, kVendorTrap})),
       SNMP_NOTIFICATION_NOT_NOTIFICATION},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(decode(c.message, 2).result, c.result);
  }
}

TEST(Notification, DecodesSnmpV1TrapsAsTheTrapDecoderDoes) {
  Bytes message = sample_message();
  Trap expected;
  memset(expected.vars, 0, sizeof expected.vars);
  ASSERT_EQ(snmp_parse_trap(message.data(), static_cast<int>(message.size()), &expected.info,
                            nullptr, expected.vars),
            0);
  Decoded d = decode(message);
  ASSERT_EQ(d.result, SNMP_NOTIFICATION_OK);
  EXPECT_EQ(d.about.version, SNMP_MESSAGE_V1);
  EXPECT_EQ(d.about.pdu_type, SNMP_TRAP_PDU);
  EXPECT_EQ(memcmp(&d.trap.info, &expected.info, sizeof expected.info), 0);
  EXPECT_EQ(memcmp(d.trap.vars, expected.vars, sizeof expected.vars), 0);
}

TEST(Notification, AnswersAnInformWithItsOwnBindings) {
  const Bytes bindings = cat({kUptime, kVendorTrap, kIfIndex});
  const Bytes inform = v2c_message(0xA6, "private", 0x1234567, bindings);
  unsigned char out[512];
  int length = sizeof out;
  ASSERT_EQ(snmp_build_inform_response(inform.data(), static_cast<int>(inform.size()), out, &length),
            0);
  EXPECT_EQ(Bytes(out, out + length), v2c_message(0xA2, "private", 0x1234567, bindings));
  length = static_cast<int>(inform.size()) - 1;
  EXPECT_EQ(snmp_build_inform_response(inform.data(), static_cast<int>(inform.size()), out, &length),
            -2);
  const Bytes trap = v2c_message(0xA7, "private", 1, bindings);
  length = sizeof out;
  EXPECT_EQ(snmp_build_inform_response(trap.data(), static_cast<int>(trap.size()), out, &length), -1);
}

TEST(Notification, ReverseMappingGivesTheTrapIdentifier) {
  struct Case {
    uint32_t generic, specific;
    Arcs enterprise, expected;
  } cases[] = {
      {0, 0, {1, 3, 6, 1, 4, 1, 9}, {1, 3, 6, 1, 6, 3, 1, 1, 5, 1}},
      {5, 3, {1, 3, 6, 1, 4, 1, 9}, {1, 3, 6, 1, 6, 3, 1, 1, 5, 6}},
      {6, 17, {1, 3, 6, 1, 4, 1, 9}, {1, 3, 6, 1, 4, 1, 9, 0, 17}},
      {7, 0, {1, 3, 6, 1, 4, 1, 9}, {}},
  };
  for (const Case &c : cases) {
    snmp_trap_infoEMS trap{};
    trap.gen = c.generic;
    trap.specific = c.specific;
    trap.elen = static_cast<int32_t>(c.enterprise.size());
    std::copy(c.enterprise.begin(), c.enterprise.end(), trap.enterprise);
    ObjectIdEMS out[SNMP_OID_MAX];
    int length = snmp_notification_oid(&trap, out, SNMP_OID_MAX);
    EXPECT_EQ(length < 0 ? Arcs{} : arcs(out, length), c.expected) << c.generic;
  }
  // A translated notification whose identifier has the 0 arc maps back
  // to that identifier.
  Decoded d = decode(v2c_message(0xA7, "public", 7, cat({kUptime, kVendorTrap})));
  ObjectIdEMS out[SNMP_OID_MAX];
  int length = snmp_notification_oid(&d.trap.info, out, SNMP_OID_MAX);
  EXPECT_EQ(length < 0 ? Arcs{} : arcs(out, length), (Arcs{1, 3, 6, 1, 4, 1, 8072, 2, 3, 0, 1}));
  EXPECT_EQ(snmp_notification_oid(&d.trap.info, out, 10), -1);
}

// The hub on a Unix socket and a UDP port, and a client of the library on
// the socket.
struct HubAndClient {
  TempDir dir;
  std::string path = dir.file("hub.sock");
  std::string udp = "127.0.0.1:" + std::to_string(free_udp_port());
  std::unique_ptr<ChildProcess> hub = start_dev_hub({"--unix", path, "--udp", udp});
  event_infoEMS client{};
  bool connected() { return open_event(&client, EVENT_SOURCE_HUBD, path.c_str(), EVENT_TRANS_UNIX) >= 0; }
};

// net-snmp's tools send to the hub's UDP port; a client of the library
// receives SNMPv1 traps carrying the translated fields.
TEST(NotificationInterop, HubTranslatesSnmptrapAndSnmpinform) {
  HubAndClient setup;
  ASSERT_TRUE(setup.connected());
  const std::string &udp = setup.udp;
  event_infoEMS &client = setup.client;

  const std::vector<std::string> base = {"-v2c", "-c", "public", "-m", "", "-M", "", udp, "4242"};
  struct Case {
    const char *tool;
    std::vector<std::string> rest;
    Arcs enterprise;
    uint32_t generic, specific;
    unsigned char agent[4];
    const char *addresses;  // the IpAddress values' octets, in wire order
  } cases[] = {
      {"snmptrap",
       {"1.3.6.1.6.3.1.1.5.3", "1.3.6.1.2.1.2.2.1.1.2", "i", "2", "1.3.6.1.4.1.49999.1.1", "a",
        "192.168.1.20"},
       {1, 3, 6, 1, 6, 3, 1, 1, 5},
       2,
       0,
       {127, 0, 0, 1},
       "\xC0\xA8\x01\x14"},
      {"snmptrap", {"1.3.6.1.4.1.8072.2.3.0.1"}, {1, 3, 6, 1, 4, 1, 8072, 2, 3}, 6, 1, {127, 0, 0, 1}, ""},
      {"snmptrap",
       {"1.3.6.1.4.1.8072.2.3.0.1", "1.3.6.1.6.3.18.1.3.0", "a", "10.9.8.7"},
       {1, 3, 6, 1, 4, 1, 8072, 2, 3},
       6,
       1,
       {10, 9, 8, 7},
       "\x0A\x09\x08\x07"},
      {"snmpinform",
       {"1.3.6.1.4.1.8072.2.3.0.2", "1.3.6.1.2.1.2.2.1.1.2", "i", "2", "1.3.6.1.4.1.49999.1.1", "a",
        "192.168.1.20"},
       {1, 3, 6, 1, 4, 1, 8072, 2, 3},
       6,
       2,
       {127, 0, 0, 1},
       "\xC0\xA8\x01\x14"},
  };
  for (const Case &c : cases) {
    std::vector<std::string> argv = {c.tool, "-r", "1", "-t", "2"};
    argv.insert(argv.end(), base.begin(), base.end());
    argv.insert(argv.end(), c.rest.begin(), c.rest.end());
    SCOPED_TRACE(testing::PrintToString(argv));
    // snmpinform exits 0 only once the hub has acknowledged the inform.
    ASSERT_EQ(run_command(argv), 0);
    Trap trap;
    trap_headerEMS header;
    ASSERT_GT(receive_within(&client, &trap, &header, 5s), 0);
    EXPECT_EQ(arcs(trap.info.enterprise, trap.info.elen), c.enterprise);
    EXPECT_EQ(trap.info.gen, c.generic);
    EXPECT_EQ(trap.info.specific, c.specific);
    EXPECT_EQ(trap.info.time, 4242u);
    EXPECT_EQ(memcmp(&trap.info.agent, c.agent, 4), 0);
    // IpAddress values arrive in wire order, as an SNMPv1 trap's do.
    std::string addresses;
    for (int i = 0; i < trap.info.vars; ++i)
      if (trap.vars[i].type == ASN_IPADDRESS) addresses += trap.text(i);
    EXPECT_EQ(addresses, c.addresses);
  }
  close_event(&client);
}

// What a trap says apart from its agent address, as one comparable text.
std::string content(const Trap &trap) {
  std::string text = testing::PrintToString(arcs(trap.info.enterprise, trap.info.elen)) + " " +
                     std::to_string(trap.info.gen) + "/" + std::to_string(trap.info.specific) + " at " +
                     std::to_string(trap.info.time);
  for (int i = 0; i < trap.info.vars; ++i)
    text += " " + testing::PrintToString(arcs(trap.vars[i].oid, static_cast<int>(trap.vars[i].oid_length))) +
            "=" + trap.text(i);
  return text;
}

// snmpd sends each of its notifications three times, as an SNMPv1 trap, an
// SNMPv2c trap and an inform: through the hub all three arrive alike.
TEST(NotificationInterop, SnmpdNotificationsArriveAlikeWhicheverVersion) {
  HubAndClient setup;
  ASSERT_TRUE(setup.connected());
  const std::string &udp = setup.udp;
  event_infoEMS &client = setup.client;
  // Not snmpd.conf: snmpd writes its persistent state under that name
  // into its persistent directory on every reload.
  const uint16_t agent_port = free_udp_port();
  write_file(setup.dir.file("agent.conf"), "agentaddress udp:127.0.0.1:" + std::to_string(agent_port) +
                                         "\nrocommunity public 127.0.0.1\n"
                                         "trapsink " + udp + " public\ntrap2sink " + udp +
                                         " public\ninformsink " + udp + " public\n");
  setenv("SNMP_PERSISTENT_DIR", setup.dir.path().c_str(), 1);
  ChildProcess snmpd({"snmpd", "-f", "-Lo", "-C", "-c", setup.dir.file("agent.conf"), "-m", "", "-M", ""});
  ASSERT_NE(snmpd.wait_for_line("NET-SNMP version", 10s), "");
  // coldStart at start, nsNotifyRestart on SIGHUP, nsNotifyShutdown at the end.
  const struct {
    const char *name;
    int signal;
    uint32_t generic, specific;
  } events[] = {{"coldStart", 0, 0, 0}, {"nsNotifyRestart", SIGHUP, 6, 3}, {"nsNotifyShutdown", SIGTERM, 6, 2}};
  for (const auto &e : events) {
    SCOPED_TRACE(e.name);
    if (e.signal != 0) {
      // Once it answers a request, snmpd runs its main loop with its
      // signal handlers set.
      setenv("KZ_SNMP_PORT", std::to_string(agent_port).c_str(), 1);
      snmp_call_info *sci = init_snmp_call(1, 5);
      ASSERT_NE(sci, nullptr);
      init_snmp_request(sci, htonl(INADDR_LOOPBACK), "public");
      SnmpVarBindEMS uptime{}, answer{};
      const ObjectIdEMS name[] = {1, 3, 6, 1, 2, 1, 1, 3, 0};
      memcpy(uptime.oid, name, sizeof name);
      uptime.oid_length = 9;
      EXPECT_EQ(getvar(sci, &uptime, &answer), 0);
      close_snmp_call(sci);
      kill(snmpd.pid(), e.signal);
    }
    std::vector<std::string> seen;
    while (seen.size() < 3) {
      Trap trap;
      trap_headerEMS header;
      ASSERT_GT(receive_within(&client, &trap, &header, 10s), 0) << seen.size() << " arrived";
      if (trap.info.gen != e.generic || trap.info.specific != e.specific) continue;
      seen.push_back(content(trap));
    }
    EXPECT_EQ(seen[1], seen[0]);
    EXPECT_EQ(seen[2], seen[0]);
  }
  close_event(&client);
}

// Every line of `hubevent listen --json` parses as JSON, octet strings
// with control and non-ASCII octets included.
TEST(NotificationInterop, ListenPrintsOneJsonObjectPerTrap) {
  TempDir dir;
  const std::string path = dir.file("hub.sock");
  const std::string udp = "127.0.0.1:" + std::to_string(free_udp_port());
  auto hub = start_dev_hub({"--unix", path, "--udp", udp});
  ChildProcess listen({HUBEVENT_PATH, "listen", "-t", "unix", "-n", path, "--json", "--format",
                       "--examples", "--count", "2"});
  ASSERT_NE(listen.wait_for_line("hubevent: listening", 5s), "");
  ASSERT_EQ(run_command({HUBEVENT_PATH, "send", "-t", "unix", "-n", path, "--agent", "10.1.2.3",
                         "--community", "pub\"lic", "trap", "1.3.6.1.4.1.49999.6.3.1", "6", "17",
                         "1.3.6.1.4.1.49999.1.1", "x", "48 65 6c 6c 6f 01 0a 57 6f 72 6c 64",
                         "1.3.6.1.4.1.49999.1.2", "x", "c3 a9 74 c3 a9", "1.3.6.1.4.1.49999.1.3",
                         "i", "-5", "1.3.6.1.4.1.49999.1.4", "c", "4294967295"}),
            0);
  ASSERT_EQ(run_command({"snmptrap", "-v2c", "-c", "public", "-m", "", "-M", "", udp, "4242",
                         "1.3.6.1.6.3.1.1.5.3", "1.3.6.1.2.1.2.2.1.1.2", "i", "2"}),
            0);
  // The sender's connect and disconnect events are not shown on the display.
  nlohmann::json sent, translated;
  for (int i = 0; i < 2; ++i) {
    std::string line = listen.wait_for_line("{\"trap\":", 5s);
    ASSERT_NE(line, "") << i;
    nlohmann::json trap = nlohmann::json::parse(line);
    if (trap["specific"] == 17) sent = trap;
    if (trap["generic"] == 2) translated = trap;
  }
  EXPECT_EQ(sent["community"], "pub\"lic");
  EXPECT_EQ(sent["agent"], "10.1.2.3");
  EXPECT_EQ(sent["trap_oid"], "1.3.6.1.4.1.49999.6.3.1.0.17");
  ASSERT_EQ(sent["bindings"].size(), 4u);
  EXPECT_EQ(sent["bindings"][0]["value"], "Hello\x01\nWorld");
  EXPECT_EQ(sent["bindings"][1]["value"], "\xc3\xa9t\xc3\xa9");
  EXPECT_EQ(sent["bindings"][1]["encoding"], "text");
  EXPECT_EQ(sent["bindings"][2]["value"], -5);
  EXPECT_EQ(sent["bindings"][3]["value"], 4294967295u);
  EXPECT_EQ(sent["bindings"][3]["type"], "Counter");
  EXPECT_TRUE(sent["text"].is_string() && !sent["text"].get<std::string>().empty());

  EXPECT_EQ(translated["enterprise"], "1.3.6.1.6.3.1.1.5");
  EXPECT_EQ(translated["generic"], 2);
  EXPECT_EQ(translated["trap_oid"], "1.3.6.1.6.3.1.1.5.3");
  EXPECT_EQ(translated["bindings"][0]["oid"], "1.3.6.1.2.1.2.2.1.1.2");
  EXPECT_EQ(listen.stop(), 0);
}

}  // namespace
