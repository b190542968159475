// hubconf import-mib: MIB modules written for these tests and net-snmp's
// own, read by net-snmp's parser into trap formats, OID names and MIB
// labels, and a trap sent by snmptrap formatted with what was imported.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "kz_mib.h"
#include "oidtree.h"
#include "support/fixtures.h"

namespace {

using namespace std::chrono_literals;
using testsupport::read_file;
using testsupport::write_file;

const std::string kMibs = EVENTS_SOURCE_DIR "/tests/data/mibs";

bool exists(const std::string &path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

class ImportMib : public ::testing::Test {
 protected:
  void SetUp() override {
    conf_ = dir_.file("hubd.conf");
    write_file(conf_, "CATEGORY 2 \"Error Events\"\nCATEGORY 3 \"Status Events\"\n");
    setenv("KZHUBDCONF", conf_.c_str(), 1);
    setenv("KZ_CONF_DIR", dir_.path().c_str(), 1);
    // The change notice finds no hub here unless a test starts one.
    setenv("KZ_HUBD_SOCKET", dir_.file("hub.sock").c_str(), 1);
    // For sanitized builds: leaks inside net-snmp's parser are not ours.
    setenv("LSAN_OPTIONS",
           "print_suppressions=0:suppressions=" EVENTS_SOURCE_DIR "/tests/lsan_netsnmp.supp", 1);
  }
  void TearDown() override {
    unsetenv("KZHUBDCONF");
    unsetenv("KZ_CONF_DIR");
    unsetenv("KZ_HUBD_SOCKET");
    unsetenv("LSAN_OPTIONS");
  }

  // Runs hubconf; returns its exit status and leaves its output in output_.
  int hubconf(const std::vector<std::string> &args) {
    const std::string out = dir_.file("hubconf.out");
    std::vector<std::string> argv = {"/bin/sh", "-c", "exec \"$0\" \"$@\" >\"$OUT\" 2>&1",
                                     HUBCONF_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    setenv("OUT", out.c_str(), 1);
    int status = testsupport::run_command(argv);
    output_ = read_file(out);
    return status;
  }

  bool has(const std::string &text) const {
    return read_file(conf_).find(text) != std::string::npos;
  }

  testsupport::TempDir dir_;
  std::string conf_, output_;
};

TEST_F(ImportMib, TestModulesBecomeTrapFormatsOnceOnly) {
  ASSERT_EQ(
      hubconf({"import-mib", "-M", kMibs, "EVENTS-TEST-V1-MIB", kMibs + "/EVENTS-TEST-V2-MIB.txt"}),
      0)
      << output_;
  const char *expected[] = {
      // SMIv1: the enterprise with generic 6 and the specific number.
      "fanFailed {1.3.6.1.4.1.49999} 6 1 A 1 0 \"Status Events\"\n"
      "A fan stopped turning. fanIndex=$1 fanSpeed=$2\nSDESC\n"
      "A fan stopped turning. The chassis may overheat\n"
      "unless the fan is replaced within the hour.\n\nReplace it with a fan of the same model.\n"
      "EDESC\n",
      // "$" in the text stays literal.
      "fanRecovered {1.3.6.1.4.1.49999} 6 2 A 1 0 \"Status Events\"\n"
      "A fan that had failed turns again at $$5 cost. fanIndex=$1\n",
      // SMIv2 with hints: summary with its arguments, severity, category.
      "psuStateChange {1.3.6.1.4.1.49998} 6 1 A 5 0 \"Error Events\"\n"
      "Power supply $1 is now $2\n",
      // A hinted severity by name; description lines the reader would
      // take for a comment or the end of the block are defused.
      "psuRemoved {1.3.6.1.4.1.49998} 6 2 A 2 0 \"Status Events\"\n"
      "A power supply was pulled out. psuIndex=$1 psuName=$2\nSDESC\n"
      "A power supply was pulled out.\n- # of supplies left:\n- EDESC\nEDESC\n",
      // No 0 arc before the last: the enterprise is the rest.
      "psuAdded {1.3.6.1.4.1.49998} 6 3 A 1 0 \"Status Events\"\n"
      "A power supply was plugged in psuIndex=$1\n",
      // One of snmpTraps' standard traps: generic 1, specific 0.
      "testWarmStart {1.3.6.1.6.3.1.1.5} 1 0 A 1 0 \"Status Events\"\n"
      "The agent restarted without changing its configuration.\n",
      "testTraps {1.3.6.1.6.3.1.1.5}\n",
      "eventsTest {1.3.6.1.4.1.49999}\n",
      "eventsTestV2 {1.3.6.1.4.1.49998}\n",
  };
  for (const char *text : expected) EXPECT_TRUE(has(text)) << text << "\n--\n" << read_file(conf_);
  EXPECT_EQ(hubconf({"check", conf_}), 0) << output_;

  // The second import finds every format as it would make it: nothing is
  // written, so no backup and no change notice either.
  const std::string first = read_file(conf_);
  ASSERT_EQ(std::remove((conf_ + ".bak").c_str()), 0);
  ASSERT_EQ(hubconf({"import-mib", "-M", kMibs, "EVENTS-TEST-V2-MIB", "EVENTS-TEST-V1-MIB"}), 0);
  EXPECT_NE(output_.find("0 trap formats added, 0 replaced, 6 unchanged, 0 kept"),
            std::string::npos)
      << output_;
  EXPECT_EQ(read_file(conf_), first);
  EXPECT_FALSE(exists(conf_ + ".bak"));

  // An operator's format is kept and listed; --dry-run shows what
  // --replace would do and writes nothing; --replace replaces it, keeping
  // its name.
  ASSERT_EQ(hubconf({"set", "fanFailed", "-S", "Major", "-f", "Fan $1 tuned"}), 0) << output_;
  const std::string tuned = read_file(conf_);
  ASSERT_EQ(hubconf({"import-mib", "-M", kMibs, "EVENTS-TEST-V1-MIB"}), 0);
  EXPECT_NE(output_.find("kept fanFailed"), std::string::npos) << output_;
  EXPECT_NE(output_.find("1 kept as they were (--replace replaces them)"), std::string::npos);
  EXPECT_EQ(read_file(conf_), tuned);
  ASSERT_EQ(
      hubconf({"import-mib", "--dry-run", "--replace", "-M", kMibs, "EVENTS-TEST-V1-MIB"}), 0);
  EXPECT_NE(output_.find("\n-Fan $1 tuned\n"), std::string::npos) << output_;
  EXPECT_NE(output_.find("\n+A fan stopped turning."), std::string::npos) << output_;
  EXPECT_EQ(read_file(conf_), tuned);
  ASSERT_EQ(hubconf({"import-mib", "--replace", "-M", kMibs, "-S", "Minor", "EVENTS-TEST-V1-MIB"}),
            0);
  EXPECT_TRUE(has("fanFailed {1.3.6.1.4.1.49999} 6 1 A 3 0 \"Status Events\""));
  EXPECT_FALSE(has("fanFailed_1"));
}

// --names and --labels merge into their files: the modules' entries
// replace those of the same identifier, the operator's others stay.
TEST_F(ImportMib, NamesAndLabelsMergeIntoTheirFiles) {
  const std::string names = dir_.file("oid_to_label"), labels = dir_.file("mib.labels");
  write_file(names, "# mine\n\"iso\"=1\n${iso}.3.6.1.4.1.7=\"myCompany\"\n"
                    "${iso}.3.6.1.4.1.49999.0.1=\"oldName\"\n");
  write_file(labels, "1.3.6.1.4.1.7 myCompany\n1.3.6.1.4.1.49999.0.1 oldName\n");
  const std::string before = read_file(names);
  ASSERT_EQ(hubconf({"import-mib", "--dry-run", "-M", kMibs, "--names", names, "--labels", labels,
                     "EVENTS-TEST-V1-MIB"}),
            0)
      << output_;
  EXPECT_NE(output_.find("-${iso}.3.6.1.4.1.49999.0.1=\"oldName\""), std::string::npos) << output_;
  EXPECT_EQ(read_file(names), before);
  ASSERT_EQ(hubconf({"import-mib", "-M", kMibs, "--names", names, "--labels", labels,
                     "EVENTS-TEST-V1-MIB"}),
            0)
      << output_;
  for (const auto &[file, kept, replaced, added] :
       {std::tuple{names, "${iso}.3.6.1.4.1.7=\"myCompany\"\n", "oldName",
                   "${iso}.3.6.1.4.1.49999.0.1=\"fanFailed\"\n"},
        std::tuple{labels, "1.3.6.1.4.1.7 myCompany\n", "oldName",
                   "1.3.6.1.4.1.49999.0.1 fanFailed\n"}}) {
    const std::string text = read_file(file);
    EXPECT_NE(text.find(kept), std::string::npos) << text;
    EXPECT_EQ(text.find(replaced), std::string::npos) << text;
    EXPECT_NE(text.find(added), std::string::npos) << text;
  }
  EXPECT_EQ(read_file(names).find("\"iso\"=1\n"), read_file(names).rfind("\"iso\"=1\n"));
}

// Debian ships net-snmp's modules without the SNMPv2 base modules they
// import; the notifications are placed all the same.
TEST_F(ImportMib, NetSnmpModulesWithMissingImports) {
  ASSERT_EQ(hubconf({"import-mib", "UCD-SNMP-MIB", "NET-SNMP-AGENT-MIB"}), 0) << output_;
  EXPECT_TRUE(has("ucdStart {1.3.6.1.4.1.2021.251} 6 1 A 1 0 \"Status Events\""))
      << read_file(conf_);
  EXPECT_TRUE(has("ucdShutdown {1.3.6.1.4.1.2021.251} 6 2 "));
  EXPECT_TRUE(has("nsNotifyRestart {1.3.6.1.4.1.8072.4} 6 3 "));
  EXPECT_EQ(hubconf({"check", conf_}), 0) << output_;
}

TEST_F(ImportMib, FailuresChangeNothing) {
  const std::string head =
      "BROKEN-MIB DEFINITIONS ::= BEGIN\nIMPORTS enterprises FROM SNMPv2-SMI;\n"
      "broken OBJECT IDENTIFIER ::= { enterprises 4 }\n";
  struct Case {
    std::string body, error;
  } cases[] = {
      {"bad NOTIFICATION-TYPE\n  OBJECTS { a }\n  STATUS current\n  DESCRIPTION \"open\n"
       "  ::= { broken 1 }\nEND\n",
       ":10: Bad DESCRIPTION (EOF)"},
      {"bad NOTIFICATION-TYPE\n  OBJECTS {\n  STATUS current\n  ::= { broken 1 }\nEND\n",
       ":9: Expected \"{\" (EOF)"},
      {"ok NOTIFICATION-TYPE\n  STATUS current\n  ::= { broken 1 }\n"
       "bad TRAP-TYPE\n  ENTERPRISE broken\n  ::= x\nEND\n",
       ":9: Expected a Number (x)"},
  };
  const std::string before = read_file(conf_), mib = dir_.file("BROKEN-MIB.txt");
  const std::string names = dir_.file("names");
  for (const Case &c : cases) {
    write_file(mib, head + c.body);
    EXPECT_EQ(hubconf({"import-mib", "--names", names, mib}), 1) << c.body;
    EXPECT_NE(output_.find(mib + c.error), std::string::npos) << output_;
    EXPECT_NE(output_.find("nothing changed"), std::string::npos) << output_;
  }
  EXPECT_EQ(hubconf({"import-mib", "-M", kMibs, "NO-SUCH-MIB"}), 1);
  EXPECT_NE(output_.find("NO-SUCH-MIB: no such module"), std::string::npos) << output_;
  EXPECT_EQ(hubconf({"import-mib", "-M", kMibs, "--category", "Nope", "EVENTS-TEST-V1-MIB"}), 1);
  EXPECT_NE(output_.find("no display category \"Nope\""), std::string::npos) << output_;
  EXPECT_EQ(read_file(conf_), before);
  EXPECT_FALSE(exists(names));
}

// A module that nests identifiers 2,000 levels deep is walked without
// running out of stack.
TEST_F(ImportMib, DeepModule) {
  std::string module =
      "DEEP-MIB DEFINITIONS ::= BEGIN\nIMPORTS enterprises FROM SNMPv2-SMI;\n"
      "d0 OBJECT IDENTIFIER ::= { enterprises 49990 }\n";
  for (int i = 1; i <= 2000; ++i)
    module += "d" + std::to_string(i) + " OBJECT IDENTIFIER ::= { d" + std::to_string(i - 1) +
              " 1 }\n";
  const std::string mib = dir_.file("DEEP-MIB.txt"), labels = dir_.file("mib.labels");
  write_file(mib, module + "END\n");
  ASSERT_EQ(hubconf({"import-mib", "--labels", labels, mib}), 0) << output_;
  const std::string written = read_file(labels);
  EXPECT_NE(written.find("\n1.3.6.1.4.1.49990.1.1 d2\n"), std::string::npos);
  EXPECT_NE(written.find(" d2000\n"), std::string::npos);
}

// Import with names and labels, check, then a trap from snmptrap through
// the hub to hubevent listen --format.
TEST_F(ImportMib, TrapFromSnmptrapIsShownWithTheModulesTextAndNames) {
  const std::string names = dir_.file("oid_to_label"), labels = dir_.file("mib.labels");
  ASSERT_EQ(hubconf({"import-mib", "-M", kMibs, "--names", names, "--labels", labels,
                     "EVENTS-TEST-V1-MIB", "EVENTS-TEST-V2-MIB"}),
            0)
      << output_;
  ASSERT_EQ(hubconf({"check", conf_}), 0) << output_;

  oidnode *tree = parseOidFile(names.c_str());
  ASSERT_NE(tree, nullptr);
  const ObjectIdEMS state_down[] = {1, 3, 6, 1, 4, 1, 49998, 1, 2, 3};
  const ObjectIdEMS fan_failed[] = {1, 3, 6, 1, 4, 1, 49999, 0, 1};
  EXPECT_STREQ(TreeLookupOid(tree, state_down, 10), "down");
  const ObjectIdEMS scalar_down[] = {1, 3, 6, 1, 4, 1, 49998, 1, 2, 0, 3};
  EXPECT_STREQ(TreeLookupOid(tree, scalar_down, 11), "down");
  EXPECT_STREQ(TreeLookupOid(tree, state_down, 9), "psuState");
  EXPECT_STREQ(TreeLookupOid(tree, fan_failed, 9), "fanFailed");
  oidFreeTree(tree);
  setenv("KZ_MIB_FILE", labels.c_str(), 1);
  ASSERT_EQ(KZmib_load_mib(), 0);
  char path[256];
  sprint__objid(path, sizeof path, state_down, 9);
  EXPECT_STREQ(path, ".iso.org.dod.internet.private.enterprises.eventsTestV2.psuObjects.psuState");

  const std::string socket = dir_.file("hub.sock");
  const std::string udp = "127.0.0.1:" + std::to_string(testsupport::free_udp_port());
  testsupport::ChildProcess hub({HUBD_DEV_PATH, "--unix", socket, "--udp", udp});
  ASSERT_NE(hub.wait_for_line("hubd-dev: ready", 10s), "");
  testsupport::ChildProcess listen(
      {HUBEVENT_PATH, "listen", "-t", "unix", "-n", socket, "--format", "wbx"});
  ASSERT_NE(listen.wait_for_line("hubevent: listening", 5s), "");
  ASSERT_EQ(testsupport::run_command({"snmptrap",
                                      "-v1",
                                      "-c",
                                      "public",
                                      "-m",
                                      "",
                                      "-M",
                                      "",
                                      udp,
                                      "1.3.6.1.4.1.49998",
                                      "127.0.0.1",
                                      "6",
                                      "1",
                                      "0",
                                      "1.3.6.1.4.1.49998.1.1",
                                      "i",
                                      "2",
                                      "1.3.6.1.4.1.49998.1.2",
                                      "i",
                                      "3"}),
            0);
  EXPECT_EQ(listen.wait_for_line("Power supply", 5s), "Power supply 2 is now down");

  // The same trap shown offline by hubconf test, from its arguments and
  // from the datagram snmptrap sends.
  testsupport::UdpSocket port;
  ASSERT_EQ(testsupport::run_command({"snmptrap", "-v1", "-c", "public", "-m", "", "-M", "",
                                      "127.0.0.1:" + std::to_string(port.port()),
                                      "1.3.6.1.4.1.49998", "127.0.0.1", "6", "1", "0",
                                      "1.3.6.1.4.1.49998.1.1", "i", "2", "1.3.6.1.4.1.49998.1.2",
                                      "i", "3"}),
            0);
  const std::vector<unsigned char> datagram = port.receive(5s);
  ASSERT_FALSE(datagram.empty());
  const std::string captured = dir_.file("trap.bin");
  write_file(captured, std::string(datagram.begin(), datagram.end()));
  for (const std::vector<std::string> &args :
       {std::vector<std::string>{"test", "1.3.6.1.4.1.49998", "6", "1", "1.3.6.1.4.1.49998.1.1",
                                 "i", "2", "1.3.6.1.4.1.49998.1.2", "i", "3"},
        std::vector<std::string>{"test", "--datagram", captured}}) {
    EXPECT_EQ(hubconf(args), 0) << output_;
    EXPECT_NE(output_.find("Power supply 2 is now down"), std::string::npos) << output_;
  }
  EXPECT_EQ(hubconf({"test", "1.3.6.1.4.1.49998", "9", "1"}), 2);
  EXPECT_NE(output_.find("bad generic trap '9'"), std::string::npos) << output_;
  unsetenv("KZ_MIB_FILE");
}

}  // namespace
