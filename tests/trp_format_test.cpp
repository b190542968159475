// Trap formatter: exact lines per application kind, the choice of format,
// suppression, buffer limits, hostile templates and reloads on notice.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "kz_mib.h"
#include "oidtree.h"
#include "support/fixtures.h"
#include "support/sample_trap.h"
#include "trp_format.h"

namespace {

using testsupport::set_binding_int;
using testsupport::set_binding_string;
using testsupport::set_oid;
using testsupport::write_file;

const char kConfig[] =
    "CATEGORY 3 \"Status Events\"\n"
    "CATEGORY 7 \"LOGONLY\"\n"
    "CATEGORY 9 \"IGNORE\"\n"
    "lab {1.3.6.1.4.1.9999}\n"
    "labSwitches {1.3.6.1.4.1.9999.2}\n"
    "platformEvents {1.3.6.1.4.1.49999.6.3.1}\n"
    "portDown {1.3.6.1.4.1.9999} 6 1 A 3 0 \"Status Events\"\n"
    "Port $1 of $A is $2\\nbindings: $#\n"
    "NODES localhost\n"
    "SDESC\nEDESC\n"
    "portDown {1.3.6.1.4.1.9999} 6 1 A 3 0 \"Status Events\"\n"
    "Port $1 down somewhere\n"
    "SDESC\nEDESC\n"
    "anySwitch {1.3.6.1.4.1.9999.2} -1 0 S 3 0 \"Status Events\"\n"
    "Switch trap $s from $a ($e): $*\n"
    "SDESC\nEDESC\n"
    "logOnly {1.3.6.1.4.1.9999} 6 7 A 1 0 \"LOGONLY\"\n"
    "logged only\n"
    "SDESC\nEDESC\n"
    "ignored {1.3.6.1.4.1.9999} 6 9 A 1 0 \"IGNORE\"\n"
    "never shown\n"
    "SDESC\nEDESC\n"
    "hostile {1.3.6.1.4.1.9999} 6 66 A 3 0 \"Status Events\"\n"
    "$1 $9 %s%n%x \\t%n $%n 100% \\x41%s\n"
    "SDESC\nEDESC\n"
    "names {1.3.6.1.4.1.9999} 6 5 A 3 0 \"Status Events\"\n"
    "$1 / $+1 / $=1 / $i2 / $I2 / $I1 / $t3 / $-2\n"
    "SDESC\nEDESC\n";

const char kMappings[] =
    "\"lab\"=1.3.6.1.4.1.9999\n"
    "${lab}.1.1=\"portIndex\"\n"
    "${lab}.1.2=\"portState\"\n"
    "${lab}.1.2.0.1=\"up\"\n"
    "${lab}.1.2.1=\"up\"\n"
    "${lab}.1.2.2=\"down\"\n"
    "${lab}.5=\"namesTrap\"\n"
    "${lab}.77=\"seventySeven\"\n";

const char kLabels[] =
    "1 iso\n1.3 org\n1.3.6 dod\n1.3.6.1 internet\n1.3.6.1.4 private\n1.3.6.1.4.1 enterprises\n";

// Tue Nov 14 22:13:20 2023 in UTC.
constexpr time_t kLogTime = 1700000000;

class Formatter : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
    write_file(dir_.file("hubd.conf"), kConfig);
    write_file(dir_.file("oid_to_label"), kMappings);
    write_file(dir_.file("mib.labels"), kLabels);
    setenv("KZ_CONF_DIR", dir_.path().c_str(), 1);
    setenv("KZ_MIB_FILE", dir_.file("mib.labels").c_str(), 1);
    setHubdConfFile(dir_.file("hubd.conf").c_str());
    reset();
    memset(&trap_, 0, sizeof trap_);
    memset(vars_, 0, sizeof vars_);
    memcpy(trap_.community, "public", 6);
    trap_.clen = 6;
    trap_.agent = htonl_loopback();
    trap_.maxvars = 8;
  }
  void TearDown() override {
    reset();
    setHubdConfFile(nullptr);
    unsetenv("KZ_MIB_FILE");
    unsetenv("KZ_CONF_DIR");
  }
  static void reset() {
    free_all_info();
    if (oidTree != nullptr) oidFreeTree(oidTree);
    oidTree = nullptr;
    have_read_hubdconf = have_read_mibtxt = have_read_mappings = 0;
  }
  static uint32_t htonl_loopback() {
    uint32_t agent;
    memcpy(&agent, "\x7f\x00\x00\x01", 4);
    return agent;
  }
  void set_trap(std::vector<ObjectIdEMS> enterprise, uint32_t gen, uint32_t specific) {
    trap_.elen = static_cast<int32_t>(enterprise.size());
    std::copy(enterprise.begin(), enterprise.end(), trap_.enterprise);
    trap_.gen = gen;
    trap_.specific = specific;
  }
  SnmpVarBindEMS *add_int(std::initializer_list<ObjectIdEMS> name, unsigned char type, int value) {
    SnmpVarBindEMS *var = &vars_[trap_.vars++];
    set_oid(var->oid, &var->oid_length, name);
    set_binding_int(var, type, value);
    return var;
  }
  SnmpVarBindEMS *add_string(std::initializer_list<ObjectIdEMS> name, const char *text) {
    SnmpVarBindEMS *var = &vars_[trap_.vars++];
    set_oid(var->oid, &var->oid_length, name);
    set_binding_string(var, text);
    return var;
  }
  int format(rtrap_user user, std::string *out, int size = 4096) {
    std::vector<char> buffer(size, '\0');
    char *host = nullptr;
    int result = trp_format(user, &trap_, buffer.data(), size, vars_, &host, kLogTime);
    *out = buffer.data();
    host_ = host != nullptr ? host : "";
    return result;
  }
  void port_down_trap() {
    set_trap({1, 3, 6, 1, 4, 1, 9999}, 6, 1);
    add_int({1, 3, 6, 1, 4, 1, 9999, 1, 1, 0}, 0x02, 3);
    add_int({1, 3, 6, 1, 4, 1, 9999, 1, 2}, 0x02, 2);
  }

  testsupport::TempDir dir_;
  snmp_trap_infoEMS trap_;
  SnmpVarBindEMS vars_[8];
  std::string host_;
};

TEST_F(Formatter, LinesPerApplicationKind) {
  port_down_trap();
  const struct {
    rtrap_user user;
    std::string lines;
  } cases[] = {
      {QMWEVENT_USER,
       "Tue Nov 14 22:13:20 2023 localhost       A Port 3 of localhost is down\nbindings: 2\n"},
      {ZXEVENTS_USER,
       "Tue Nov 14 22:13:20 2023 localhost       A Port 3 of localhost is down\nbindings: 2\n"},
      {WBX_USER, "Port 3 of localhost is down\nbindings: 2\n"},
      {RQV_USER, "localhost: Port 3 of localhost is down\n\t\t\tlocalhost: bindings: 2\n"},
      {HUBD_USER,
       "1700000000 3  Tue Nov 14 22:13:20 2023 localhost                 A Port 3 of localhost "
       "is down\n1700000000 3  Tue Nov 14 22:13:20 2023  localhost                 A bindings: 2\n"},
  };
  for (const auto &c : cases) {
    std::string out;
    EXPECT_EQ(format(c.user, &out), 3) << c.user;
    EXPECT_EQ(out, c.lines) << c.user;
    EXPECT_EQ(host_, "localhost");
  }
  // Lines are appended to the text already in the buffer.
  char buffer[512] = "earlier\n";
  char *host = nullptr;
  EXPECT_EQ(trp_format(WBX_USER, &trap_, buffer, sizeof buffer, vars_, &host, kLogTime), 3);
  EXPECT_STREQ(buffer, "earlier\nPort 3 of localhost is down\nbindings: 2\n");
}

TEST_F(Formatter, ChoosesNodeWildcardAndFallbackFormats) {
  std::string out;
  // Another agent misses the node list and gets the general format.
  port_down_trap();
  memcpy(&trap_.agent, "\xc0\x00\x02\x07", 4);
  EXPECT_EQ(format(WBX_USER, &out), 3);
  EXPECT_EQ(out, "Port 3 down somewhere\n");
  EXPECT_EQ(host_, "192.0.2.7");
  // A format added for that node afterwards is found at once.
  enterprise_info *lab = nullptr;
  find_enterprise(trap_.enterprise, 7, &lab);
  char **nodes = static_cast<char **>(doMalloc(sizeof(char *)));
  nodes[0] = doStrdup("192.0.2.7");
  insertMallocTrapRecord(lab, const_cast<char *>("docPort"), 6, 1, 1, nodes, 3, 'A',
                         doStrdup("Documentation port $1"), nullptr, nullptr, nullptr, 1, 0, 0,
                         nullptr, 0, nullptr, nullptr);
  EXPECT_EQ(format(WBX_USER, &out), 3);
  EXPECT_EQ(out, "Documentation port 3\n");

  // A trap of a deeper enterprise with no exact format takes its wildcard.
  trap_.vars = 0;
  set_trap({1, 3, 6, 1, 4, 1, 9999, 2, 4}, 6, 0x1F);
  add_int({1, 3, 6, 1, 4, 1, 9999, 1, 1, 0}, 0x02, 3);
  EXPECT_EQ(format(WBX_USER, &out), 3);
  EXPECT_EQ(out, "Switch trap 1f from 192.0.2.7 (1.3.6.1.4.1.9999.2.4):  [1] portIndex\n");

  // No configured enterprise: the built-in fallback.
  trap_.vars = 0;
  set_trap({1, 3, 6, 1, 4, 1, 7777}, 6, 12);
  add_int({1, 3, 6, 1, 4, 1, 7777, 3}, 0x41, 9);
  EXPECT_EQ(format(WBX_USER, &out), 2);
  EXPECT_EQ(out,
            "NO FMT IN HUBD.CONF: private.enterprises.7777 (1.3.6.1.4.1.7777) generic:6 "
            "specific:12 args(1):  [1] private.enterprises.7777.3 (Counter): 9\n");
}

TEST_F(Formatter, SuppressesIgnoredAndLogOnlyCategories) {
  const struct {
    uint32_t specific;
    rtrap_user user;
    int expected;
  } cases[] = {
      {9, HUBD_USER, -1}, {9, QMWEVENT_USER, -1}, {7, QMWEVENT_USER, -1},
      {7, ZXEVENTS_USER, 7}, {7, HUBD_USER, 7},
  };
  for (const auto &c : cases) {
    set_trap({1, 3, 6, 1, 4, 1, 9999}, 6, c.specific);
    std::string out;
    EXPECT_EQ(format(c.user, &out), c.expected) << c.specific << " " << c.user;
    EXPECT_EQ(out.empty(), c.expected == -1);
  }
}

TEST_F(Formatter, StopsWhenTheBufferRunsOut) {
  set_trap({1, 3, 6, 1, 4, 1, 9999, 2}, 6, 1);
  for (int i = 0; i < 6; ++i) add_int({1, 3, 6, 1, 4, 1, 9999, 1, 1, 0}, 0x02, i);
  std::string out;
  EXPECT_EQ(format(WBX_USER, &out, 150), -2);
  EXPECT_EQ(out, "Switch trap 1 from 127.0.0.1 (1.3.6.1.4.1.9999.2):  [1] portIndex\n");
  EXPECT_EQ(format(WBX_USER, &out, 20), -2);  // a first line is cut to fit
  EXPECT_EQ(out, "Switch trap 1 from ");
}

TEST_F(Formatter, TemplatesAreDataNotFormats) {
  // Conversions in the file and in the values are text; a reference past
  // the bindings is reported, never read.
  set_trap({1, 3, 6, 1, 4, 1, 9999}, 6, 66);
  add_string({1, 3, 6, 1, 4, 1, 9999, 3}, "%s%n");
  std::string out;
  EXPECT_EQ(format(WBX_USER, &out), 3);
  EXPECT_EQ(out,
            "%s%n FMT ERROR: accessing element #9, only 1 available %s%n%x \t%n $%n 100% A%s\n");

  // The slot just past the last binding is read only inside the array.
  vars_[1].type = 0x02;
  vars_[1].val.integer = 99;
  const struct {
    int arg_num, maxvars;
    std::string expected;
  } cases[] = {{2, 1, ""}, {2, 2, "99"}, {3, 8, "Format Error: dont have arg #2, only 1 args\n"}};
  for (const auto &c : cases) {
    trap_.maxvars = c.maxvars;
    char text[64] = "stale";
    format_arg(c.arg_num, ARG_NUM, &trap_, text, sizeof text, vars_);
    EXPECT_EQ(text, c.expected) << c.arg_num << " " << c.maxvars;
  }
}

TEST_F(Formatter, BindingArgumentKinds) {
  set_trap({1, 3, 6, 1, 4, 1, 9999}, 6, 5);
  add_int({1, 3, 6, 1, 4, 1, 9999, 1, 2, 0}, 0x02, 1);
  SnmpVarBindEMS *id = add_int({1, 3, 6, 1, 4, 1, 9999, 3, 77}, 0x02, 0);
  id->type = 0x06;
  set_oid(id->val.objid, &id->val_len, {1, 3, 6, 1, 5});
  add_int({1, 3, 6, 1, 4, 1, 9999, 4}, 0x43, 360000);
  std::string out;
  EXPECT_EQ(format(WBX_USER, &out), 3);
  EXPECT_EQ(out,
            "up / portState / portState / seventySeven / namesTrap / $0 not OBJECT IDENTIFIER / "
            "1h / [2] private.enterprises.9999.3.77 (ObjectIdentifier): 1.3.6.1.5\n");

  // The size limit of one trap's text.
  char small[16];
  trap_element element{};
  makeFormatString(doStrdup("0123456789abcdef $1"), &element);
  trap_sprintf(small, sizeof small, &element, &trap_, vars_, nullptr, nullptr, nullptr);
  EXPECT_STREQ(small, "FMT ERROR: size");
  freeTrapElementContents(&element);
}

TEST_F(Formatter, PlatformEventsAndReloadNotices) {
  auto platform_event = [&](uint32_t specific, int source, const char *host, const char *text) {
    trap_.vars = 0;
    set_trap({1, 3, 6, 1, 4, 1, 49999, 6, 3, 1}, 6, specific);
    add_int({1, 3, 6, 1, 4, 1, 49999, 6, 3, 1, 1, 1, 0}, 0x02, source);
    add_string({1, 3, 6, 1, 4, 1, 49999, 6, 3, 1, 1, 2, 0}, host);
    add_string({1, 3, 6, 1, 4, 1, 49999, 6, 3, 1, 1, 3, 0}, text);
    add_string({1, 3, 6, 1, 4, 1, 49999, 6, 3, 1, 1, 4, 0}, "");
    add_string({1, 3, 6, 1, 4, 1, 49999, 6, 3, 1, 1, 5, 0}, "");
  };
  std::string out;
  // An event without a format of its own: category from the specific
  // number, shown to the displays only with bit 23 set.
  platform_event(0x03830030, 8, "gateway7", "Backup finished.");
  EXPECT_EQ(format(QMWEVENT_USER, &out), 3);
  EXPECT_EQ(out, "Tue Nov 14 22:13:20 2023 gateway7        O Backup finished.\n");
  platform_event(0x03030030, 8, "gateway7", "Backup finished.");
  EXPECT_EQ(format(QMWEVENT_USER, &out), -1);
  EXPECT_EQ(format(HUBD_USER, &out), 3);

  // The format-change notice reloads hubd.conf on the next call.
  write_file(dir_.file("hubd.conf"),
             "CATEGORY 3 \"Status Events\"\n"
             "lab {1.3.6.1.4.1.9999}\n"
             "portDown {1.3.6.1.4.1.9999} 6 1 A 3 0 \"Status Events\"\n"
             "Reloaded format for port $1\nSDESC\nEDESC\n");
  platform_event(50790438, 8, "gateway7", "Trap configuration changed.");
  EXPECT_EQ(format(WBX_USER, &out), -1);
  EXPECT_EQ(have_read_hubdconf, 0);
  EXPECT_EQ(format(HUBD_USER, &out), 7);
  EXPECT_EQ(out,
            "1700000000 7  Tue Nov 14 22:13:20 2023 gateway7                  O Trap "
            "configuration changed.: format file updated next format\n");
  trap_.vars = 0;
  port_down_trap();
  EXPECT_EQ(format(WBX_USER, &out), 3);
  EXPECT_EQ(out, "Reloaded format for port 3\n");

  // The MIB-change notice reloads the label file.
  write_file(dir_.file("mib.labels"), std::string(kLabels) + "1.3.6.1.4.1.7777 acme\n");
  platform_event(50790439, 8, "gateway7", "MIB changed.");
  EXPECT_EQ(format(RQV_USER, &out), -1);
  trap_.vars = 0;
  set_trap({1, 3, 6, 1, 4, 1, 7777}, 6, 12);
  EXPECT_EQ(format(WBX_USER, &out), 2);
  EXPECT_EQ(out, "NO FMT IN HUBD.CONF: private.enterprises.acme (1.3.6.1.4.1.7777) generic:6 "
                 "specific:12 args(0): \n");
}

TEST_F(Formatter, ReportsConfigurationThatCannotBeRead) {
  write_file(dir_.file("hubd.conf"),
             "lab {1.3.6.1.4.1.9999}\nx {1.3.6.1.4.1.9999} 6 1 A 3 0 \"Nope\"\nx\nSDESC\nEDESC\n");
  std::string out;
  EXPECT_EQ(format(WBX_USER, &out), 2);
  EXPECT_NE(out.find("hubd.conf"), std::string::npos) << out;
}

TEST_F(Formatter, HubeventListenPrintsFormattedLines) {
  using namespace std::chrono_literals;
  setenv("KZHUBDCONF", dir_.file("hubd.conf").c_str(), 1);
  const std::string socket = dir_.file("hub.sock");
  testsupport::ChildProcess hub({HUBD_DEV_PATH, "--unix", socket});
  ASSERT_NE(hub.wait_for_line("hubd-dev: ready", 10s), "");
  testsupport::ChildProcess listen(
      {HUBEVENT_PATH, "listen", "-t", "unix", "-n", socket, "--format", "wbx"});
  ASSERT_NE(listen.wait_for_line("hubevent: listening", 5s), "");
  EXPECT_EQ(testsupport::run_command({HUBEVENT_PATH, "send", "-t", "unix", "-n", socket, "--agent",
                                      "127.0.0.1", "trap", "1.3.6.1.4.1.9999", "6", "1",
                                      "1.3.6.1.4.1.9999.1.1.0", "i", "3", "1.3.6.1.4.1.9999.1.2",
                                      "i", "2"}),
            0);
  EXPECT_EQ(listen.wait_for_line("Port 3", 5s), "Port 3 of localhost is down");
  EXPECT_EQ(listen.wait_for_line("bindings", 5s), "bindings: 2");
  unsetenv("KZHUBDCONF");
}

TEST(EnterpriseTests, PrefixesAndPlatformEvents) {
  ObjectIdEMS platform[] = {1, 3, 6, 1, 4, 1, 49999, 6, 3, 1};
  ObjectIdEMS other[] = {1, 3, 6, 1, 4, 1, 5593, 6, 3, 1};
  EXPECT_EQ(isTrapJQ(6, 1u << 25, platform), 1);
  EXPECT_EQ(isTrapJQ(6, 1500, platform), 1);
  EXPECT_EQ(isTrapJQ(6, 2001, platform), 0);
  EXPECT_EQ(isTrapJQ(5, 1500, platform), 0);
  EXPECT_EQ(isTrapJQ(6, 1500, other), 0);
  EXPECT_EQ(isTrapJQ(6, 1500, nullptr), 0);
  EXPECT_EQ(isZXEnterprise(platform), 1);
  EXPECT_EQ(isFVNEnterprise(other), 1);
  EXPECT_EQ(isFVNEnterprise(platform), 0);
  EXPECT_EQ(isDKREnterprise(nullptr), 0);
}

}  // namespace
