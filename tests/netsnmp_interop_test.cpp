// Interoperation with net-snmp, an independent implementation: traps sent
// by its snmptrap are decoded by snmp_parse_trap, and traps built by
// snmpBuildTrapEMS are logged by its snmptrapd with the same fields.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "snmp.h"
#include "support/fixtures.h"
#include "support/sample_trap.h"

using namespace std::chrono_literals;

namespace {

std::vector<ObjectIdEMS> arcs(const ObjectIdEMS *oid, uint32_t length) {
  return std::vector<ObjectIdEMS>(oid, oid + length);
}

TEST(NetSnmpInterop, DecodesTrapFromSnmptrap) {
  testsupport::UdpSocket receiver;
  std::string address = "127.0.0.1:" + std::to_string(receiver.port());
  ASSERT_EQ(testsupport::run_command(
                {"snmptrap", "-v1", "-c", "public", "-m", "", "-M", "", address,
                 "1.3.6.1.4.1.49999.6.3.1", "10.1.2.3", "6", "17", "12345",
                 "1.3.6.1.4.1.49999.6.3.1.1.2.0", "i", "7",
                 "1.3.6.1.4.1.49999.6.3.1.1.3.0", "s", "gateway7",
                 "1.3.6.1.2.1.2.2.1.1.3", "o", "1.3.6.1.6.3.1.1.5.3",
                 "1.3.6.1.4.1.49999.1.1", "a", "192.168.1.20",
                 "1.3.6.1.4.1.49999.1.2", "c", "4294967295",
                 "1.3.6.1.4.1.49999.1.3", "u", "3000000000",
                 "1.3.6.1.4.1.49999.1.4", "t", "4294967295",
                 "1.3.6.1.4.1.49999.1.5", "i", "-1"}),
            0);
  std::vector<unsigned char> datagram = receiver.receive(5s);
  ASSERT_FALSE(datagram.empty()) << "snmptrap sent nothing";

  snmp_trap_infoEMS trap{};
  SnmpVarBindEMS vars[10];
  trap.clen = 127;
  trap.elen = 128;
  trap.maxvars = 10;
  ASSERT_EQ(snmp_parse_trap(datagram.data(), static_cast<int>(datagram.size()), &trap, nullptr, vars), 0);
  EXPECT_STREQ(reinterpret_cast<char *>(trap.community), "public");
  EXPECT_EQ(arcs(trap.enterprise, trap.elen), (std::vector<ObjectIdEMS>{1, 3, 6, 1, 4, 1, 49999, 6, 3, 1}));
  unsigned char agent[4];
  memcpy(agent, &trap.agent, 4);
  EXPECT_EQ(std::vector<unsigned char>(agent, agent + 4), (std::vector<unsigned char>{10, 1, 2, 3}));
  EXPECT_EQ(trap.gen, 6u);
  EXPECT_EQ(trap.specific, 17u);
  EXPECT_EQ(trap.time, 12345u);
  ASSERT_EQ(trap.vars, 8);

  struct Expected {
    std::vector<ObjectIdEMS> name;
    unsigned char type;
  } expected[] = {
      {{1, 3, 6, 1, 4, 1, 49999, 6, 3, 1, 1, 2, 0}, 0x02}, {{1, 3, 6, 1, 4, 1, 49999, 6, 3, 1, 1, 3, 0}, 0x04},
      {{1, 3, 6, 1, 2, 1, 2, 2, 1, 1, 3}, 0x06},           {{1, 3, 6, 1, 4, 1, 49999, 1, 1}, 0x40},
      {{1, 3, 6, 1, 4, 1, 49999, 1, 2}, 0x41},             {{1, 3, 6, 1, 4, 1, 49999, 1, 3}, 0x42},
      {{1, 3, 6, 1, 4, 1, 49999, 1, 4}, 0x43},             {{1, 3, 6, 1, 4, 1, 49999, 1, 5}, 0x02},
  };
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(arcs(vars[i].oid, vars[i].oid_length), expected[i].name) << i;
    EXPECT_EQ(vars[i].type, expected[i].type) << i;
  }
  EXPECT_EQ(vars[0].val.integer, 7);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(vars[1].val.string), vars[1].val_len), "gateway7");
  EXPECT_EQ(arcs(vars[2].val.objid, vars[2].val_len), (std::vector<ObjectIdEMS>{1, 3, 6, 1, 6, 3, 1, 1, 5, 3}));
  unsigned char ip[4];
  memcpy(ip, &vars[3].val.integer, 4);
  EXPECT_EQ(std::vector<unsigned char>(ip, ip + 4), (std::vector<unsigned char>{192, 168, 1, 20}));
  EXPECT_EQ(static_cast<uint32_t>(vars[4].val.integer), 4294967295u);
  EXPECT_EQ(static_cast<uint32_t>(vars[5].val.integer), 3000000000u);
  EXPECT_EQ(static_cast<uint32_t>(vars[6].val.integer), 4294967295u);
  EXPECT_EQ(vars[7].val.integer, -1);
}

TEST(NetSnmpInterop, SnmptrapdLogsTrapBuiltHere) {
  testsupport::TempDir dir;
  testsupport::write_file(dir.file("snmptrapd.conf"), "disableAuthorization yes\n");
  setenv("SNMP_PERSISTENT_DIR", dir.path().c_str(), 1);
  uint16_t port = testsupport::free_udp_port();
  testsupport::ChildProcess trapd({"snmptrapd", "-f", "-Lo", "-n", "-C", "-c", dir.file("snmptrapd.conf"),
                                   "-m", "", "-M", "", "-On", "-F", "TRAP %a|%N|%w|%q|%T|%P|%V~%v\\n",
                                   "udp:127.0.0.1:" + std::to_string(port)});
  ASSERT_NE(trapd.wait_for_line("NET-SNMP version", 10s), "") << "snmptrapd did not start";

  snmp_trap_infoEMS trap;
  SnmpVarBindEMS vars[5];
  testsupport::make_sample_trap(&trap, vars, 5);
  unsigned char message[1024];
  int length = sizeof message;
  ASSERT_EQ(snmpBuildTrapEMS(message, &length, &trap, nullptr, vars), 0);

  int sender = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  // snmptrapd may still be binding after its banner: send until it logs.
  std::string line;
  for (int attempt = 0; attempt < 10 && line.empty(); ++attempt) {
    sendto(sender, message, length, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    line = trapd.wait_for_line("TRAP ", 1s);
  }
  close(sender);
  EXPECT_EQ(line,
            "TRAP 10.1.2.3|.1.3.6.1.4.1.49999.6.3.2|6|.17|12345678|TRAP, SNMP v1, community public|"
            ".1.3.6.1.4.1.49999.6.3.1.1.2.0 = INTEGER: 7~"
            ".1.3.6.1.4.1.49999.6.3.1.1.3.0 = STRING: \"gateway7 link down on port 3\"~"
            ".1.3.6.1.2.1.2.2.1.1.3 = OID: .1.3.6.1.6.3.1.1.5.3~"
            ".1.3.6.1.4.1.49999.1.2 = Counter32: 4000000000~"
            ".1.3.6.1.4.1.49999.1.4 = Timeticks: (360000) 1:00:00.00");
}

}  // namespace
