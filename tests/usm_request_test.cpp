// SNMPv3 requests against net-snmp's snmpd with createUser and rwuser
// lines: hubsnmp -v 3 gets, walks and sets the values snmpget -v 3 sees,
// under each kind of user, and names the Report of a refusing agent.

#include <arpa/inet.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "support/fixtures.h"
#include "support/snmp_agent.h"
#include "usm.h"

namespace {

using namespace std::chrono_literals;
using testsupport::ChildProcess;

const char kUsers[] =
    "createUser shaAes SHA authpass123 AES privpass123\nrwuser shaAes priv\n"
    "createUser md5Des MD5 authpass123 DES privpass123\nrwuser md5Des priv\n"
    "createUser sha512Aes256 SHA-512 authpass123 AES-256 privpass123\nrwuser sha512Aes256 priv\n"
    "createUser sha256 SHA-256 authpass123\nrwuser sha256 auth\n";

// Every line a command prints, and its exit status.
std::vector<std::string> output(const std::vector<std::string> &argv, int *status) {
  ChildProcess child(argv);
  std::vector<std::string> lines;
  for (std::string line; !(line = child.wait_for_line("", 5s)).empty();) lines.push_back(line);
  int raw = child.stop();
  *status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  return lines;
}

// The value after net-snmp's "TYPE: " or hubsnmp's "Kind: ".
std::string value_of(const std::string &line) {
  size_t at = line.find(": ");
  std::string value = at == std::string::npos ? "" : line.substr(at + 2);
  if (value.size() >= 2 && value.front() == '"') value = value.substr(1, value.size() - 2);
  return value;
}

TEST(UsmRequest, HubsnmpSeesWhatSnmpgetSees) {
  testsupport::SnmpAgent agent(kUsers);
  ASSERT_TRUE(agent.running());
  const std::string address = "127.0.0.1:" + std::to_string(agent.port());
  const std::vector<std::vector<std::string>> users = {
      {"-u", "shaAes", "-l", "authPriv", "-a", "SHA", "-A", "authpass123", "-x", "AES", "-X",
       "privpass123"},
      {"-u", "md5Des", "-l", "authPriv", "-a", "MD5", "-A", "authpass123", "-x", "DES", "-X",
       "privpass123"},
      {"-u", "sha512Aes256", "-l", "authPriv", "-a", "SHA-512", "-A", "authpass123", "-x",
       "AES-256", "-X", "privpass123"},
      {"-u", "sha256", "-l", "authNoPriv", "-a", "SHA-256", "-A", "authpass123"},
  };
  for (const auto &security : users) {
    SCOPED_TRACE(security[1]);
    // The options before the command word, or after it as net-snmp allows.
    auto hubsnmp = [&](std::vector<std::string> rest, bool options_last = false) {
      std::vector<std::string> argv = {"-v", "3"};
      argv.insert(argv.end(), security.begin(), security.end());
      argv.insert(options_last ? argv.begin() : argv.end(), rest.begin(), rest.end());
      argv.insert(argv.begin(), HUBSNMP_PATH);
      return argv;
    };
    auto netsnmp = [&](const char *tool, std::vector<std::string> rest) {
      std::vector<std::string> argv = {tool, "-v", "3", "-m", "", "-M", "", "-On"};
      argv.insert(argv.end(), security.begin(), security.end());
      argv.push_back(address);
      argv.insert(argv.end(), rest.begin(), rest.end());
      return argv;
    };
    int status = 0, peer_status = 0;
    std::vector<std::string> ours =
        output(hubsnmp({"get", address, "1.3.6.1.2.1.1.5.0", "1.3.6.1.2.1.1.6.0"}), &status);
    std::vector<std::string> theirs =
        output(netsnmp("snmpget", {"1.3.6.1.2.1.1.5.0", "1.3.6.1.2.1.1.6.0"}), &peer_status);
    ASSERT_EQ(status, 0);
    ASSERT_EQ(peer_status, 0);
    ASSERT_EQ(ours.size(), 2u);
    ASSERT_EQ(theirs.size(), 2u);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(value_of(ours[i]), value_of(theirs[i]));

    // A walk of the ORs table's descriptions: the same rows.
    ours = output(hubsnmp({"walk", address, "1.3.6.1.2.1.1.9.1.3"}, true), &status);
    theirs = output(netsnmp("snmpwalk", {"1.3.6.1.2.1.1.9.1.3"}), &peer_status);
    EXPECT_EQ(status, 0);
    ASSERT_EQ(ours.size(), theirs.size());
    ASSERT_FALSE(ours.empty());
    for (size_t i = 0; i < ours.size(); ++i) {
      EXPECT_EQ(ours[i].substr(0, ours[i].find(' ')), theirs[i].substr(0, theirs[i].find(' ')));
      EXPECT_EQ(value_of(ours[i]), value_of(theirs[i]));
    }

    // A set that snmpget then reads back.
    const std::string contact = "admin-" + security[1];
    output(hubsnmp({"set", address, "1.3.6.1.2.1.1.4.0", "s", contact}), &status);
    EXPECT_EQ(status, 0);
    theirs = output(netsnmp("snmpget", {"1.3.6.1.2.1.1.4.0"}), &peer_status);
    ASSERT_EQ(theirs.size(), 1u);
    EXPECT_EQ(value_of(theirs[0]), contact);
  }

  // The agent's refusal, by its Report.
  int status = 0;
  std::vector<std::string> lines =
      output({HUBSNMP_PATH, "-v", "3", "-u", "shaAes", "-l", "authPriv", "-a", "SHA", "-A",
              "wrongpass123", "-x", "AES", "-X", "privpass123", "get", address, "1.3.6.1.2.1.1.5.0"},
             &status);
  EXPECT_EQ(status, 1);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), "hubsnmp: the agent reported usmStatsWrongDigests");
}

// One session discovers the agent's engine on its first request and keeps
// using it, with the agent's clock, for the next ones.
TEST(UsmRequest, SessionKeepsTheDiscoveredEngine) {
  testsupport::SnmpAgent agent(kUsers);
  ASSERT_TRUE(agent.running());
  setenv("KZ_SNMP_PORT", std::to_string(agent.port()).c_str(), 1);
  snmp_call_info *sci = init_snmp_call(2, 2);
  ASSERT_NE(sci, nullptr);
  init_snmp_request(sci, htonl(INADDR_LOOPBACK), "");
  usm_session *session = usm_session_new("shaAes", USM_AUTH_SHA1, "authpass123", USM_PRIV_AES128,
                                         "privpass123", nullptr, 0, "");
  ASSERT_NE(session, nullptr);
  SnmpVarBindEMS in{}, out{};
  const ObjectIdEMS sys_name[] = {1, 3, 6, 1, 2, 1, 1, 5, 0};
  memcpy(in.oid, sys_name, sizeof sys_name);
  in.oid_length = 9;
  for (int round = 0; round < 3; ++round) {
    memset(&out, 0, sizeof out);
    ASSERT_EQ(usm_request(sci, session, SNMP_GET_REQ, &in, &out, 1), 0) << round;
    EXPECT_EQ(out.type, ASN_OCTET_STR);
    EXPECT_GT(out.val_len, 0u);
  }
  usm_session_free(session);
  close_snmp_call(sci);
  unsetenv("KZ_SNMP_PORT");
}

}  // namespace
