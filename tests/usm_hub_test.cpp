// SNMPv3 end to end: net-snmp's snmptrap and snmpinform send to hubd-dev
// --usm, and hubevent listen --json shows what a client receives.  What
// fails the security checks is dropped, counted and never relayed; a
// replayed inform fails them once the hub has restarted.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <string>
#include <vector>

#include "support/channel.h"
#include "support/fixtures.h"

namespace {

using namespace std::chrono_literals;
using testsupport::ChildProcess;
using testsupport::run_command;

constexpr const char *kSender = "0x8000000001020304";

struct Hub {
  testsupport::TempDir dir;
  uint16_t port = testsupport::free_udp_port();
  std::string udp = "127.0.0.1:" + std::to_string(port);
  std::string users = dir.file("users");
  std::unique_ptr<ChildProcess> hub;
  std::unique_ptr<ChildProcess> listen;

  explicit Hub(const std::string &user_lines) {
    // net-snmp's tools keep their state here, not where other runs write.
    setenv("SNMP_PERSISTENT_DIR", dir.path().c_str(), 1);
    testsupport::write_file(users, user_lines);
    chmod(users.c_str(), 0600);
    start();
  }
  void start() {
    hub = testsupport::start_dev_hub({"--unix", dir.file("hub.sock"), "--udp", udp, "--usm", users});
    listen = std::make_unique<ChildProcess>(std::vector<std::string>{
        HUBEVENT_PATH, "listen", "-t", "unix", "-n", dir.file("hub.sock"), "--json"});
    EXPECT_NE(listen->wait_for_line("hubevent: listening", 5s), "");
  }
  void restart() {
    listen.reset();
    hub.reset();
    start();
  }
  // The next trap a client receives, as JSON.
  nlohmann::json next_trap() {
    std::string line = listen->wait_for_line("{\"trap\":", 5s);
    return line.empty() ? nlohmann::json() : nlohmann::json::parse(line);
  }
  std::string counters() {
    kill(hub->pid(), SIGUSR1);
    return hub->wait_for_line("usm:", 5s);
  }
  int send(const std::vector<std::string> &security, const char *trap_oid,
           const char *tool = "snmptrap") {
    std::vector<std::string> argv = {tool, "-v", "3", "-r", "2", "-t", "2"};
    argv.insert(argv.end(), security.begin(), security.end());
    argv.insert(argv.end(), {"-m", "", "-M", "", udp, "4242", trap_oid});
    return run_command(argv);
  }
};

std::vector<std::string> security(const std::string &user, const char *auth, const char *priv,
                                  const char *auth_pass = "authpass123") {
  std::vector<std::string> out = {"-e", kSender, "-u", user, "-l", priv ? "authPriv" : "authNoPriv",
                                  "-a", auth, "-A", auth_pass};
  if (priv) out.insert(out.end(), {"-x", priv, "-X", "privpass123"});
  return out;
}

// Each authentication and each privacy protocol of net-snmp reaches a
// client with its user and level; the refused never do.
TEST(UsmHub, RelaysWhatPassesAndCountsWhatDoesNot) {
  struct {
    const char *auth, *priv;
  } protocols[] = {{"MD5", "DES"},         {"SHA", "AES"},         {"SHA-224", "AES-192"},
                   {"SHA-256", "AES-256"}, {"SHA-384", nullptr},  {"SHA-512", "AES"}};
  std::string lines;
  for (const auto &p : protocols)
    lines += std::string("createUser -e ") + kSender + " u" + p.auth + " " + p.auth +
             " authpass123" + (p.priv ? std::string(" ") + p.priv + " privpass123" : "") + "\n";
  Hub h(lines + "createUser informer SHA authpass123 AES privpass123\n");

  for (const auto &p : protocols) {
    const std::string user = std::string("u") + p.auth;
    ASSERT_EQ(h.send(security(user, p.auth, p.priv), "1.3.6.1.4.1.49999.7.0.51"), 0);
    nlohmann::json trap = h.next_trap();
    EXPECT_EQ(trap["user"], user);
    EXPECT_EQ(trap["security_level"], p.priv ? "authPriv" : "authNoPriv");
    EXPECT_EQ(trap["community"], user);
    EXPECT_EQ(trap["trap_oid"], "1.3.6.1.4.1.49999.7.0.51");
  }

  // The inform discovers the hub's engine and is acknowledged.
  ASSERT_EQ(h.send({"-u", "informer", "-l", "authPriv", "-a", "SHA", "-A", "authpass123", "-x",
                    "AES", "-X", "privpass123"},
                   "1.3.6.1.4.1.49999.7.0.56", "snmpinform"),
            0);
  EXPECT_EQ(h.next_trap()["trap_oid"], "1.3.6.1.4.1.49999.7.0.56");

  // A wrong passphrase and an unknown user; then a good trap, which must
  // be the next thing a client sees.
  h.send(security("uSHA", "SHA", "AES", "wrongpass123"), "1.3.6.1.4.1.49999.7.0.52");
  h.send(security("nobody", "SHA", "AES"), "1.3.6.1.4.1.49999.7.0.53");
  ASSERT_EQ(h.send(security("uMD5", "MD5", "DES"), "1.3.6.1.4.1.49999.7.0.54"), 0);
  EXPECT_EQ(h.next_trap()["trap_oid"], "1.3.6.1.4.1.49999.7.0.54");
  const std::string counters = h.counters();
  EXPECT_NE(counters.find("SNMPv3 refused 3"), std::string::npos) << counters;
  EXPECT_NE(counters.find("unknown user names 1, unsupported security levels 0, wrong digests 1"),
            std::string::npos)
      << counters;
  // The discovery probe of the inform.
  EXPECT_NE(counters.find("unknown engine IDs 1"), std::string::npos) << counters;
}

sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// Carries snmpinform's datagrams to the hub and the hub's answers back,
// as a network would, until the hub has answered twice: the Report to the
// discovery probe, whose engine boots and time net-snmp takes, and the
// Response to the inform.  Returns what went to the hub.
std::vector<std::vector<unsigned char>> carry_inform(Hub &h, int relay, uint16_t relay_port) {
  ChildProcess inform({"snmpinform", "-v", "3", "-u", "informer", "-l", "authPriv", "-a", "SHA",
                       "-A", "authpass123", "-x", "AES", "-X", "privpass123", "-r", "2", "-t",
                       "2", "-m", "", "-M", "", "127.0.0.1:" + std::to_string(relay_port), "0",
                       "1.3.6.1.4.1.49999.7.0.57"});
  const sockaddr_in hub = loopback(h.port);
  sockaddr_in tool{};
  std::vector<std::vector<unsigned char>> to_hub;
  for (int answers = 0; answers < 2;) {
    pollfd wait = {relay, POLLIN, 0};
    if (poll(&wait, 1, 5000) != 1) break;
    std::vector<unsigned char> datagram(65536);
    sockaddr_in from{};
    socklen_t size = sizeof from;
    ssize_t n = recvfrom(relay, datagram.data(), datagram.size(), 0,
                         reinterpret_cast<sockaddr *>(&from), &size);
    if (n <= 0) break;
    datagram.resize(static_cast<size_t>(n));
    const bool from_hub = from.sin_port == hub.sin_port;
    if (from_hub) {
      ++answers;
    } else {
      tool = from;
      to_hub.push_back(datagram);
    }
    const sockaddr_in &to = from_hub ? tool : hub;
    sendto(relay, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&to),
           sizeof to);
  }
  return to_hub;
}

// An inform as it went out once, sent again: accepted within the engine's
// run and time window, refused with a Report after a restart.
TEST(UsmHub, ReplayedInformAndTamperedTrapAreDropped) {
  Hub h(std::string("createUser -e ") + kSender + " shaAes SHA authpass123 AES privpass123\n" +
        "createUser informer SHA authpass123 AES privpass123\n");
  testsupport::UdpSocket catcher;
  const std::vector<std::vector<unsigned char>> carried = carry_inform(h, catcher.fd(), catcher.port());
  ASSERT_EQ(carried.size(), 2u);
  EXPECT_EQ(h.next_trap()["trap_oid"], "1.3.6.1.4.1.49999.7.0.57");
  const sockaddr_in hub = loopback(h.port);
  auto send_captured = [&](const std::vector<unsigned char> &octets) {
    ASSERT_EQ(sendto(catcher.fd(), octets.data(), octets.size(), 0,
                     reinterpret_cast<const sockaddr *>(&hub), sizeof hub),
              static_cast<ssize_t>(octets.size()));
  };
  const std::vector<unsigned char> &captured = carried.back();

  h.restart();
  send_captured(captured);
  const std::vector<unsigned char> report = catcher.receive(5s);
  EXPECT_FALSE(report.empty()) << "no Report";
  EXPECT_NE(h.counters().find("not in time windows 1"), std::string::npos);

  // One octet altered on the way.
  testsupport::UdpSocket trap_catcher;
  ASSERT_EQ(run_command({"snmptrap", "-v", "3", "-e", kSender, "-u", "shaAes", "-l", "authPriv",
                         "-a", "SHA", "-A", "authpass123", "-x", "AES", "-X", "privpass123", "-m",
                         "", "-M", "", "127.0.0.1:" + std::to_string(trap_catcher.port()), "0",
                         "1.3.6.1.4.1.49999.7.0.58"}),
            0);
  std::vector<unsigned char> trap = trap_catcher.receive(5s);
  ASSERT_FALSE(trap.empty());
  trap[trap.size() - 5] ^= 0x40;
  send_captured(trap);
  EXPECT_NE(h.counters().find("wrong digests 1"), std::string::npos);

  // The users file reread on SIGHUP: a new user's trap passes.
  testsupport::write_file(h.users, std::string("createUser -e ") + kSender +
                                       " newcomer SHA-256 authpass123\n");
  kill(h.hub->pid(), SIGHUP);
  ASSERT_NE(h.hub->wait_for_line("1 SNMPv3 users", 5s), "");
  ASSERT_EQ(h.send(security("newcomer", "SHA-256", nullptr), "1.3.6.1.4.1.49999.7.0.59"), 0);
  EXPECT_EQ(h.next_trap()["user"], "newcomer");
}

}  // namespace
