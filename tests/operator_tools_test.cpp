// hubsnmp, hubd-dev and codeptcat-build installed into a temporary prefix
// and run as a user types them: against net-snmp's snmpd beside snmpget and
// snmpwalk, against an agent of the test's own that misbehaves, and with
// net-snmp's snmptrap sending to the hub.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "snmp_clnt.h"
#include "support/ber_bytes.h"
#include "support/fixtures.h"
#include "support/snmp_agent.h"

using namespace std::chrono_literals;
using testsupport::Bytes;
using testsupport::cat;
using testsupport::ChildProcess;
using testsupport::integer;
using testsupport::object_id;
using testsupport::TempDir;
using testsupport::text;
using testsupport::tlv;
using testsupport::varbind;

namespace {

struct Outcome {
  int status;
  std::string out, err;
};

std::string quoted(const std::string &word) {
  std::string text = "'";
  for (char c : word) text += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return text + "'";
}

// The tools as `cmake --install` lays them out, and a configuration
// directory with a few labels.
class Installed : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    prefix_ = new TempDir;
    ASSERT_EQ(run({"cmake", "--install", EVENTS_BINARY_DIR, "--prefix", prefix_->path()}).status,
              0);
    testsupport::write_file(prefix_->file("mib.labels"),
                            "1 iso\n1.3.6.1.2.1.1 system\n1.3.6.1.2.1.1.1 sysDescr\n"
                            "1.3.6.1.2.1.1.5 sysName\n1.3.6.1.2.1.1.6 sysLocation\n"
                            "1.3.6.1.2.1.1.7 sysServices\n");
    testsupport::write_file(prefix_->file("oid_to_label"),
                            "\"sys\"=1.3.6.1.2.1.1\n${sys}.4=\"whoToCall\"\n");
    setenv("KZ_CONF_DIR", prefix_->path().c_str(), 1);
    unsetenv("KZ_MIB_FILE");
  }
  static void TearDownTestSuite() { delete prefix_; }

  // Runs a command through the shell with `input` on standard input.
  static Outcome run(const std::vector<std::string> &argv, const std::string &input = "") {
    TempDir dir;
    testsupport::write_file(dir.file("in"), input);
    std::string command;
    for (const std::string &word : argv) command += quoted(word) + " ";
    command += "<" + dir.file("in") + " >" + dir.file("out") + " 2>" + dir.file("err");
    int status = system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, testsupport::read_file(dir.file("out")),
            testsupport::read_file(dir.file("err"))};
  }
  static std::string tool(const std::string &name) { return prefix_->path() + "/bin/" + name; }

  static TempDir *prefix_;
};
TempDir *Installed::prefix_ = nullptr;

// net-snmp's quick numeric lines ("NAME VALUE") with the quotes around
// strings taken off, to compare with hubsnmp -Oqn.
std::string unquoted(std::string text) {
  return std::regex_replace(text, std::regex("\"([^\"\n]*)\"\n"), "$1\n");
}

std::string without_uptime(const std::string &lines) {
  return std::regex_replace(lines, std::regex(R"(\.1\.3\.6\.1\.2\.1\.1\.3\.0 [0-9]+\n)"), "");
}

TEST_F(Installed, EveryToolHasItsVersionAndOneLineUsageErrors) {
  const struct {
    const char *tool;
    std::vector<std::string> bad;
    std::string why;
  } cases[] = {
      {"hubsnmp", {"-O", "x", "get", "h", "1.3"}, "hubsnmp: unknown output flag 'x' in -Ox"},
      {"hubsnmp",
       {"-v", "2c", "get", "h", "1.3"},
       "hubsnmp: SNMP version '2c' is not supported; only -v 1 and -v 3 are"},
      {"hubsnmp",
       {"get", "tcp:localhost:161", "1.3"},
       "hubsnmp: transport 'tcp:' is not supported"},
      {"hubsnmp", {"get", "[::1]:161", "1.3"}, "hubsnmp: '[::1]:161' is not an IPv4 agent"},
      {"hubsnmp", {"get", "h:99999", "1.3.6"}, "hubsnmp: bad port '99999'"},
      {"hubsnmp",
       {"get", "h", "noSuchLabel.0"},
       "hubsnmp: unknown object identifier 'noSuchLabel.0'"},
      {"hubsnmp", {"frob", "h"}, "hubsnmp: unknown command 'frob'"},
      {"hubd-dev", {"--max-queue", "10k", "--udp", "0"}, "hubd-dev: bad --max-queue '10k'"},
      {"hubd-dev", {"--coalesce", "101", "--udp", "0"}, "hubd-dev: bad --coalesce '101'"},
      {"hubd-dev", {"--udp", "99999"}, "hubd-dev: --udp: bad port in '99999'"},
      {"hubd-dev", {"--udp", "[::1]:0"}, "hubd-dev: --udp listens on IPv4 only"},
      {"hubd-dev",
       {"--tcp", "udp:127.0.0.1:0"},
       "hubd-dev: --tcp cannot listen on 'udp:127.0.0.1:0'"},
      {"hubd-dev", {"--frob"}, "hubd-dev: unknown option '--frob'"},
      {"codeptcat-build", {"--frob"}, "codeptcat-build: unknown option '--frob'"},
      {"codeptcat-build", {"only-one"}, "codeptcat-build: a LIST and a CATALOG are needed"},
  };
  for (const char *name : {"hubsnmp", "hubd-dev", "codeptcat-build"}) {
    for (const char *flag : {"-V", "--version"}) {
      Outcome version = run({tool(name), flag});
      EXPECT_EQ(version.out, std::string(name) + " (libevents) " EVENTS_VERSION "\n");
    }
  }
  for (const auto &c : cases) {
    std::vector<std::string> argv = {tool(c.tool)};
    argv.insert(argv.end(), c.bad.begin(), c.bad.end());
    Outcome bad = run(argv);
    SCOPED_TRACE(c.why);
    EXPECT_EQ(bad.status, 2);
    EXPECT_EQ(bad.err.rfind(c.why, 0), 0u) << bad.err;
    EXPECT_NE(bad.err.find("\nTry '" + std::string(c.tool) + " --help' for more information.\n"),
              std::string::npos);
    EXPECT_EQ(std::count(bad.err.begin(), bad.err.end(), '\n'), 2) << bad.err;
  }
}

class AgentTools : public Installed {
 protected:
  void SetUp() override {
    agent_ = std::make_unique<testsupport::SnmpAgent>();
    if (!agent_->running()) GTEST_SKIP() << "snmpd did not start";
    agent = "127.0.0.1:" + std::to_string(agent_->port());
  }
  Outcome netsnmp(const std::string &command, std::vector<std::string> args) {
    std::vector<std::string> argv = {command, "-v1", "-c", "public", "-m",
                                     "",      "-M",  "",   "-Oqnt",  agent};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv);
  }
  std::unique_ptr<testsupport::SnmpAgent> agent_;
  std::string agent;
};

// The same objects asked for by name, by number and with options after the
// command word print what net-snmp's tools print, value for value.
TEST_F(AgentTools, AnswersAsNetSnmpDoes) {
  const struct {
    std::vector<std::string> ours;
    const char *theirs;
    std::vector<std::string> their_args;
  } cases[] = {
      {{"-Oqn", "get", agent, "sysDescr.0", "SNMPv2-MIB::sysName.0", ".1.3.6.1.2.1.1.2.0",
        "whoToCall.0"},
       "snmpget",
       {"1.3.6.1.2.1.1.1.0", "1.3.6.1.2.1.1.5.0", "1.3.6.1.2.1.1.2.0", "1.3.6.1.2.1.1.4.0"}},
      {{"get", "udp:" + agent, "-c", "public", ".iso.3.6.1.2.1.1.6.0", "-Oqn"},
       "snmpget",
       {"1.3.6.1.2.1.1.6.0"}},
      {{"-Oqn", "walk", agent, "system"}, "snmpwalk", {"1.3.6.1.2.1.1"}},
      {{"-Oqn", "walk", agent, "sysName.0"}, "snmpwalk", {"1.3.6.1.2.1.1.5.0"}},
      {{"-Oqn", "getnext", agent, "sysLocation"}, "snmpgetnext", {"1.3.6.1.2.1.1.6"}},
      {{"-Oqn", "walk", agent, ".1"}, "snmpwalk", {".1.3.6.1.2.1.1"}},  // first lines compared
  };
  for (const auto &c : cases) {
    std::vector<std::string> argv = {tool("hubsnmp")};
    argv.insert(argv.end(), c.ours.begin(), c.ours.end());
    SCOPED_TRACE(c.ours[c.ours.size() - 1]);
    Outcome ours = run(argv);
    Outcome theirs = netsnmp(c.theirs, c.their_args);
    ASSERT_EQ(ours.status, 0) << ours.err;
    ASSERT_EQ(theirs.status, 0) << theirs.err;
    std::string expected = without_uptime(unquoted(theirs.out));
    EXPECT_EQ(without_uptime(ours.out).substr(0, expected.size()), expected);
  }
  // The default shows names from their last label, and identifier values
  // whole.
  Outcome named = run({tool("hubsnmp"), "get", agent, "sysName.0", "1.3.6.1.2.1.1.2.0"});
  EXPECT_EQ(named.out.substr(0, 25), "sysName.0 = OctetString: ");
  EXPECT_NE(named.out.find("system.2.0 = ObjectIdentifier: iso.3.6.1.4.1.8072.3.2."),
            std::string::npos)
      << named.out;
  EXPECT_EQ(run({tool("hubsnmp"), "-Oqv", "get", agent, "sysLocation.0"}).out, "lab\n");
  EXPECT_EQ(run({tool("hubsnmp"), "-Of", "-Ov", "get", agent, "sysLocation.0"}).out,
            "OctetString: lab\n");
}

TEST_F(AgentTools, NamesWhatFailedAsSnmpgetDoes) {
  // Twelve objects, the last unknown to the agent: it is in the second
  // request, and it is the one named.
  std::vector<std::string> objects;
  for (int i = 0; i < 11; ++i) objects.push_back(i % 2 ? "1.3.6.1.2.1.1.5.0" : "1.3.6.1.2.1.1.6.0");
  objects.push_back("1.3.6.1.2.1.1.99.0");
  std::vector<std::string> argv = {tool("hubsnmp"), "-On", "get", agent};
  argv.insert(argv.end(), objects.begin(), objects.end());
  Outcome ours = run(argv);
  Outcome theirs = netsnmp("snmpget", objects);
  EXPECT_EQ(ours.status, 2);
  EXPECT_EQ(theirs.status, 2);
  EXPECT_EQ(ours.err, "hubsnmp: SNMP Error:  noSuchName (.1.3.6.1.2.1.1.99.0)\n");
  EXPECT_NE(theirs.err.find("Failed object: .1.3.6.1.2.1.1.99.0"), std::string::npos);
  EXPECT_EQ(std::count(ours.out.begin(), ours.out.end(), '\n'), 11);

  std::vector<std::string> set = {tool("hubsnmp"), "-c", "private", "set", agent};
  for (int i = 0; i < 11; ++i) set.insert(set.end(), {"1.3.6.1.2.1.1.4.0", "s", "x"});
  std::vector<std::string> split = set;
  split.push_back("--split");
  const struct {
    std::vector<std::string> argv;
    int status;
    std::string err;
  } cases[] = {
      {set, 2, "hubsnmp: a set of 11 bindings would go in several requests and not be atomic"},
      {split, 0, ""},
      // "-1" is a value, not an option; the agent has no sysServices.0.
      {{tool("hubsnmp"), "set", agent, "sysServices.0", "i", "-1"},
       1,
       "hubsnmp: SNMP Error:  noSuchName (sysServices.0)\n"},
      {{tool("hubsnmp"), "-c", "private", "set", agent, "whoToCall.0", "s", "ops"}, 0, ""},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.err);
    Outcome result = run(c.argv);
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.err.substr(0, std::max(c.err.size(), size_t{1})), c.err);
  }
  EXPECT_EQ(run({tool("hubsnmp"), "-Oqv", "get", agent, "whoToCall.0"}).out, "ops\n");
}

// An agent of the test's own: it answers the n-th request with the
// bindings answer(n) gives, or never when there is no answer.
class FakeAgent {
 public:
  explicit FakeAgent(std::function<Bytes(int)> answer) : answer_(std::move(answer)) {
    thread_ = std::thread([this] { serve(); });
  }
  ~FakeAgent() {
    stop_ = true;
    thread_.join();
    close(fd_);
  }
  uint16_t port() const { return port_; }
  int requests() const { return requests_; }

 private:
  void serve() {
    for (int n = 0; !stop_;) {
      pollfd wait = {fd_, POLLIN, 0};
      if (poll(&wait, 1, 100) != 1) continue;
      unsigned char request[1024];
      sockaddr_in from{};
      socklen_t size = sizeof from;
      ssize_t length =
          recvfrom(fd_, request, sizeof request, 0, reinterpret_cast<sockaddr *>(&from), &size);
      snmp_info info{};
      info.clen = SNMP_COMMUNITY_MAX;
      info.maxvars = 1;
      SnmpVarBindEMS var{};
      if (length <= 0 || snmp_parse(request, static_cast<int>(length), &info, &var) != 0) continue;
      ++requests_;
      if (!answer_) continue;
      Bytes response = tlv(0x30, cat({integer(0), tlv(4, text("public")),
                                      tlv(0xA2, cat({integer(info.reqid), integer(0), integer(0),
                                                     tlv(0x30, answer_(n++))}))}));
      sendto(fd_, response.data(), response.size(), 0, reinterpret_cast<sockaddr *>(&from), size);
    }
  }

  uint16_t port_ = 0;
  int fd_ = bound_socket(&port_);
  std::function<Bytes(int)> answer_;
  std::atomic<bool> stop_{false};
  std::atomic<int> requests_{0};
  std::thread thread_;

  static int bound_socket(uint16_t *port) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    bind(fd, reinterpret_cast<sockaddr *>(&address), size);
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
    *port = ntohs(address.sin_port);
    return fd;
  }
};

TEST_F(Installed, WalksEndAsSnmpwalkDoes) {
  const Bytes a = varbind(object_id({1, 3, 6, 1, 2, 1, 1, 9}), integer(1));
  const Bytes b = varbind(object_id({1, 3, 6, 1, 2, 1, 1, 8}), integer(2));
  const struct {
    const char *name;
    std::function<Bytes(int)> answer;
    int status;
    std::string out, err;
  } cases[] = {
      {"answers going backwards", [&](int n) { return n % 2 ? b : a; }, 1, ".1.3.6.1.2.1.1.9 1\n",
       "hubsnmp: OID not increasing: .1.3.6.1.2.1.1.9 >= .1.3.6.1.2.1.1.8\n"},
      {"the same answer again", [&](int) { return a; }, 1, ".1.3.6.1.2.1.1.9 1\n",
       "hubsnmp: OID not increasing: .1.3.6.1.2.1.1.9 >= .1.3.6.1.2.1.1.9\n"},
      {"no bindings", [&](int) { return Bytes(); }, 1, "",
       "hubsnmp: Could not parse incoming SNMP packet.\n"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    FakeAgent agent(c.answer);
    Outcome walk = run({tool("hubsnmp"), "-Oqn", "-t", "2", "walk",
                        "127.0.0.1:" + std::to_string(agent.port()), "1.3.6.1.2.1.1"});
    EXPECT_EQ(walk.status, c.status);
    EXPECT_EQ(walk.out, c.out);
    EXPECT_EQ(walk.err, c.err);
  }
  // -r counts the sends after the first, as net-snmp's tools do.
  for (int retries : {0, 1}) {
    FakeAgent silent(nullptr);
    Outcome get = run({tool("hubsnmp"), "-r", std::to_string(retries), "-t", "0.5", "get",
                       "127.0.0.1:" + std::to_string(silent.port()), "1.3.6.1.2.1.1.5.0"});
    EXPECT_EQ(get.status, 1);
    EXPECT_EQ(get.err, "hubsnmp: TIMED OUT: No SNMP response.\n");
    EXPECT_EQ(silent.requests(), retries + 1);
  }
}

// Listeners by net-snmp's address forms, printed at start; a notification
// without an SNMPv1 form reported with or without --verbose, and verbose
// lines time-stamped.
TEST_F(Installed, DevHubSaysWhereItListensAndWhatItDrops) {
  for (bool verbose : {false, true}) {
    SCOPED_TRACE(verbose ? "--verbose" : "quiet");
    const std::string udp = "127.0.0.1:" + std::to_string(testsupport::free_udp_port());
    std::vector<std::string> argv = {tool("hubd-dev"), "--udp", "udp:" + udp, "--tcp", "[::1]:0"};
    if (verbose) argv.push_back("--verbose");
    ChildProcess hub(argv);
    EXPECT_NE(hub.wait_for_line("hubd-dev: listening on udp " + udp, 10s), "");
    std::string tcp = hub.wait_for_line("hubd-dev: listening on tcp [::1]:", 5s);
    ASSERT_NE(hub.wait_for_line("hubd-dev: ready", 5s), "");
    // The IPv6 listener takes connections.
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    address.sin6_port = htons(static_cast<uint16_t>(atoi(tcp.substr(tcp.rfind(':') + 1).c_str())));
    int client = socket(AF_INET6, SOCK_STREAM, 0);
    EXPECT_EQ(connect(client, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    close(client);

    ASSERT_EQ(run({"snmptrap", "-v2c", "-c", "public", "-m", "", "-M", "", udp, "0",
                   "1.3.6.1.4.1.49999.7.0.1", "1.3.6.1.4.1.49999.1.1", "C", "5"})
                  .status,
              0);
    std::string refused = hub.wait_for_line("refused a notification from udp 127.0.0.1:", 5s);
    EXPECT_TRUE(
        std::regex_search(refused, std::regex("^[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} refused")))
        << refused;
    EXPECT_NE(refused.find("Counter64"), std::string::npos) << refused;
    kill(hub.pid(), SIGUSR1);
    EXPECT_NE(hub.wait_for_line("no SNMPv1 form 1,", 5s), "");
  }
}

TEST_F(Installed, CodePointCatalogsGoBothWays) {
  TempDir dir;
  const std::string catalog = dir.file("codepoint.cat");
  Outcome built =
      run({tool("codeptcat-build"), "-", catalog},
          "# disks\n1 0x10 Disk full\n1 11 Disk gone\\nReplace it\n3 ffFE Fan \\\\ 2\n");
  EXPECT_EQ(built.status, 0) << built.err;
  EXPECT_EQ(built.out, catalog + ": 3 code points in 2 sets\n");
  Outcome listed = run({tool("codeptcat-build"), "--list", catalog});
  EXPECT_EQ(listed.out, "1 0010 Disk full\n1 0011 Disk gone\\nReplace it\n3 FFFE Fan \\\\ 2\n");
  // The list builds the same catalog again.
  EXPECT_EQ(run({tool("codeptcat-build"), "-", dir.file("again.cat")}, listed.out).status, 0);
  EXPECT_EQ(testsupport::read_file(dir.file("again.cat")), testsupport::read_file(catalog));

  const struct {
    std::vector<std::string> argv;
    std::string input, err;
  } failures[] = {
      {{"-", catalog},
       "1 10 a\n1 0x10 b\n",
       "codeptcat-build: (standard input):2: code point listed twice\n"},
      {{"-", catalog}, "# nothing\n", "codeptcat-build: (standard input): no code points\n"},
      {{"--list", dir.file("absent")},
       "",
       "codeptcat-build: " + dir.file("absent") + ": No such file or directory\n"},
      {{"--list", dir.file("short.cat")},
       "",
       "codeptcat-build: " + dir.file("short.cat") + ": not a code-point catalog\n"},
  };
  testsupport::write_file(dir.file("short.cat"), "codepoint.cat456\x7f\x7f\x7f\x7f");
  for (const auto &f : failures) {
    std::vector<std::string> argv = {tool("codeptcat-build")};
    argv.insert(argv.end(), f.argv.begin(), f.argv.end());
    Outcome failed = run(argv, f.input);
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.err, f.err);
  }
  EXPECT_EQ(testsupport::read_file(catalog), testsupport::read_file(dir.file("again.cat")))
      << "a failed build leaves the catalog alone";
}

}  // namespace
