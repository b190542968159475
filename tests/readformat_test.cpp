// hubd.conf reader: a complete file into the model, every error text with
// its line, section and category rules, source lists and switches.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "support/fixtures.h"
#include "trp_format.h"

namespace {

using testsupport::write_file;
using Texts = std::vector<std::string>;

const std::string kEnterprise = "cisco {1.3.6.1.4.1.9}\n";
const std::string kTrapLine = "tempHigh {1.3.6.1.4.1.9} 6 3 A 4 1 \"IGNORE\"";
const std::string kTrap = kEnterprise + kTrapLine + "\n";

class Reader : public ::testing::Test {
 protected:
  void SetUp() override {
    free_all_info();
    path_ = dir_.file("hubd.conf");
    setHubdConfFile(path_.c_str());
    setenv("VORAD_CONF", "/dev/null", 1);  // an empty alert mapping file
  }
  void TearDown() override {
    free_all_info();
    setHubdConfFile(nullptr);
  }

  // Reads `contents` as hubd.conf; returns the error text ("" on success).
  std::string read(const std::string &contents, int *result = nullptr) {
    write_file(path_, contents);
    char *error = nullptr;
    int status = read_trapspec_file(&error);
    if (result != nullptr) *result = status;
    EXPECT_NE(error, nullptr);
    if (status == 0) {
      EXPECT_STREQ(error, "");
    }
    return error;
  }
  std::string at(int line, const std::string &text) const {
    return " in line #" + std::to_string(line) + " of \"" + path_ + "\":\n" + text + ".\n";
  }
  static Texts categories() {
    Texts slots;
    for (int i = 0; i < EMS_MAX_CATEGORIES; ++i)
      if (EMScategories[i] != nullptr) slots.push_back(std::to_string(i) + "=" + EMScategories[i]);
    return slots;
  }

  testsupport::TempDir dir_;
  std::string path_;
};

TEST_F(Reader, CompleteFileFillsTheModel) {
  std::string list = dir_.file("routers.list");
  write_file(list, "# core\nrtr-1 Frankfurt\n\n  rtr-2\n");
  int result = -1;
  std::string error = read(
      "# hubd.conf\n"
      "CATEGORY 0 \"Threshold Events\"\n"
      "CATEGORY 12 \"Environment\"\n"
      "ACTION 1 \"Ping node\" ping $A\nSDESC\nold\nEDESC\n"
      "ACTION 2 \"trace\" traceroute $A\nSDESC\nEDESC\n"
      "ACTION 30 \"Ping node\"   ping -c 3 $A\n"
      "SDESC\n  Checks the node.\n# not part of it\nSecond line.\nEDESC\n"
      "cisco {1.3.6.1.4.1.9}\n"
      "ciscoEnv { 1.3.6.1.4.1.9.9.13 }\n"
      "tempHigh {.1.3.6.1.4.1.9.9.13} 6 3 T 4 1 \"Environment\"\n"
      "   Temperature $1 on $A is 100%\n"
      "EXEC   /bin/page --node $A  \n"
      "DISPLAY Temp $1\n"
      "FORWARD whatever\n"
      "NODES sw-1, sw-2\t" + list + ",sw-3\n"
      "EVENT_CLASS  Env \n"
      "BEGIN_SLOT_MAPPING\n  sensor   $1  \nreading the value $2\nEND_SLOT_MAPPING\n"
      "SDESC\nThe sensor crossed its limit.\nEDESC\n"
      "ciscoAny {1.3.6.1.4.1.9} -1 0 A 1 0 \"IGNORE\"\n$*\nSDESC\nEDESC\n",
      &result);
  ASSERT_EQ(result, 0) << error;
  EXPECT_EQ(categories(), (Texts{"0=Threshold Events", "9=IGNORE", "12=Environment"}));
  // An action of a known name replaces the earlier one in its place.
  ASSERT_EQ(numActionCommands, 2);
  const auto &ping = actionCommands[0];
  EXPECT_EQ((Texts{ping.name, ping.cmd, std::to_string(ping.waitTime), ping.description}),
            (Texts{"Ping node", "ping -c 3 $A", "30", "Checks the node.\nSecond line."}));
  EXPECT_STREQ(actionCommands[1].name, "trace");

  trap_record *trap = nameToExactTrap("tempHigh");
  ASSERT_NE(trap, nullptr);
  EXPECT_EQ(std::make_tuple(trap->generic_trap, trap->specific_trap, trap->source, trap->severity,
                            trap->status, trap->category_number, trap->forward),
            std::make_tuple(6, 3, 'T', 4, 1, 12, 1));
  ASSERT_NE(trap->execargs_ptr, nullptr);
  ASSERT_NE(trap->exec_display_args_ptr, nullptr);
  ASSERT_NE(trap->slotMap, nullptr);
  // The event class is taken as it stands.
  EXPECT_EQ((Texts{trap->description.rawstring, trap->description.format,
                   trap->execargs_ptr->rawstring, trap->exec_display_args_ptr->format,
                   trap->wbxClassName, trap->trapDescription}),
            (Texts{"Temperature $1 on $A is 100%", "Temperature %s on %s is 100%%",
                   "/bin/page --node $A", "Temp %s", " Env ", "The sensor crossed its limit."}));
  EXPECT_EQ(Texts(trap->nodeList, trap->nodeList + trap->nodeCnt),
            (Texts{"sw-1", "sw-2", "rtr-1", "rtr-2", "sw-3"}));
  Texts slots;
  for (int i = 0; i < trap->slotMap->slotCnt; ++i)
    slots.push_back(std::string(trap->slotMap->slotName[i]) + "=" + trap->slotMap->slotVal[i]);
  EXPECT_EQ(slots, (Texts{"sensor=$1", "reading=the value $2"}));
  EXPECT_STREQ(nameToExactTrap("ciscoAny")->trapDescription, "");
}

TEST_F(Reader, EveryErrorNamesTheLine) {
  struct Case {
    std::string contents, error;
  };
  // `line` is the faulty one, after `before`; `after` follows it.
  auto bad = [&](const std::string &before, const std::string &line, const std::string &message,
                 const std::string &after = "") {
    int number = static_cast<int>(std::count(before.begin(), before.end(), '\n')) + 1;
    return Case{before + line + "\n" + after, message + at(number, line)};
  };
  auto eof = [&](const std::string &contents, const std::string &keyword) {
    return Case{contents, "End of file in \"" + path_ + "\" prematurely reached after " + keyword +
                              " keyword"};
  };
  std::string categories64;
  for (int i = 0; i < 64; ++i)
    categories64 += "CATEGORY " + std::to_string(i) + " \"c" + std::to_string(i) + "\"\n";
  const std::string name41(41, 'n'), description(5020, 'd');
  const std::string line_too_long(TRAPSPEC_LINE_SIZE, 'x');
  const Case cases[] = {
      bad("", "CATEGORY 5", "Invalid number of fields (1), expect 2"),
      bad("", "CATEGORY 64 \"x\"", "Bad category number (must be < 64)"),
      bad(categories64, "CATEGORY 3 \"more\"",
          "Category could not be added (64 categories already defined)\n"),
      bad("", "ACTION -5 \"x\" cmd", "Invalid wait time -5"),
      eof("ACTION 5 \"x\" cmd\n", "ACTION"),
      bad("ACTION 5 \"x\" cmd\n", "Description first", "Did not find a SDESC keyword"),
      bad("", "e {1.3.x}", "Bad oid char"),
      bad(kEnterprise, "", "Bad name line (matched -1, not 8 tokens)\n", kTrapLine + "\n"),
      bad(kEnterprise, kTrapLine + " x", "Bad name line (matched 9, not 8 tokens)\n"),
      bad(kEnterprise, name41 + " {1.3.6.1.4.1.9} 6 3 A 4 1 \"IGNORE\"",
          "hubd.conf file not loaded because trap name length [41] exceeds maximum size "
          "permitted of 40\n "),
      bad(kEnterprise, "t {x1.3} 6 3 A 4 1 \"IGNORE\"", "Bad oid char 'x'"),
      bad(kEnterprise, "t {1.3.6.1.4.1.9} 6 3 A 4 1 \"Nope\"",
          "No such display category \"Nope\" defined"),
      bad(kEnterprise, "t {1.3.6.1.4.1.11} 6 3 A 4 1 \"IGNORE\"", "No such enterprise"),
      bad(kEnterprise, "t {1.3.6.1.4.1.9.9.13} 6 3 A 4 1 \"IGNORE\"",
          "No such exact enterprise (7 vs 9)"),
      bad(kTrap + "format\nSDESC\nEDESC\n", "tempHigh {1.3.6.1.4.1.9} 6 4 A 4 1 \"IGNORE\"",
          "Not loading trap format.  Trap name tempHigh is already in use.\n"
          "Rename the event to avoid the conflict"),
      bad(kEnterprise, kTrapLine, "Did not find an event log format", "# no format follows\n"),
      eof(kTrap + "format\n", "format"),
      bad(kTrap + "format\n", "NODES a, /nonexistent/list",
          "Could not open source list file \"/nonexistent/list\"", "SDESC\nEDESC\n"),
      eof(kTrap + "format\nBEGIN_SLOT_MAPPING\n", "BEGIN_SLOT_MAPPING"),
      // A slot line without a blank fails without a text.
      {kTrap + "format\nBEGIN_SLOT_MAPPING\nnoblank\nEND_SLOT_MAPPING\nSDESC\nEDESC\n", ""},
      bad(kTrap + "format\nDISPLAY d\n", "EXEC late", "Did not find a SDESC keyword",
          "SDESC\nEDESC\n"),
      bad(kTrap + "format\nSDESC\n", description, "Trap description too long", "EDESC\n"),
      eof(kTrap + "format\nSDESC\nline\n", "SDESC"),
      {kEnterprise + line_too_long + "\n",
       "Line too long" + at(2, line_too_long.substr(1))},
  };
  for (const Case &c : cases) {
    int result = 0;
    std::string error = read(c.contents, &result);
    EXPECT_LT(result, 0) << c.contents.substr(0, 200);
    // Texts beyond the buffer are cut to fit.
    EXPECT_EQ(error, c.error.substr(0, TRAPSPEC_ERROR_SIZE - 1)) << c.contents.substr(0, 200);
  }
  // One byte less fits.
  EXPECT_EQ(read(kTrap + "format\nSDESC\n" + description.substr(1) + "\nEDESC\n"), "");
  EXPECT_EQ(strlen(nameToExactTrap("tempHigh")->trapDescription), 5019u);
}

// Files that cannot be read to their end fail with the reason, whether
// they are hubd.conf itself, an added file or a source list.  A FIFO
// without a writer must not block (the alarm ends a hanging test).
TEST_F(Reader, UnreadableFiles) {
  std::string fifo = dir_.file("fifo"), absent = dir_.file("absent");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::pair<std::string, std::string> cases[] = {
      {absent, "No such file or directory"},
      {dir_.path(), "Is a directory"},
      {fifo, "Not a regular file"},
      {"/proc/self/mem", "Input/output error"},  // a regular file whose read fails
  };
  alarm(20);
  for (const auto &[path, reason] : cases) {
    SCOPED_TRACE(path);
    setHubdConfFile(path.c_str());
    char *error = nullptr;
    EXPECT_EQ(read_trapspec_file(&error), -1);
    EXPECT_EQ(std::string(error),
              path == absent ? "Could not open trap format file \"" + path + "\": " + reason + "\n"
                             : "Could not read \"" + path + "\": " + reason + "\n");
    EXPECT_EQ(augmentTrapspecFile(&error, path.c_str()), -1);
    EXPECT_NE(std::string(error).find(reason), std::string::npos) << error;
    setHubdConfFile(path_.c_str());
    std::string nodes = kTrap + "format\nNODES a, " + path + "\nSDESC\nEDESC\n";
    std::string expected = path == absent ? "Could not open source list file \"" + path + "\"" +
                                                at(4, "NODES a, " + path)
                                          : "Could not read \"" + path + "\": " + reason + "\n";
    EXPECT_EQ(read(nodes), expected);
  }
  alarm(0);
}

TEST_F(Reader, CategoryPlacementAndDefaults) {
  struct Case {
    std::string lines;
    Texts slots;
  } cases[] = {
      {"", {"9=IGNORE"}},
      {"CATEGORY 9 \"IGNORE\"\n", {"7=LOGONLY", "9=IGNORE"}},
      {"CATEGORY 9 \"x\"\nCATEGORY 7 \"y\"\n", {"2=Error Events", "7=y", "9=x"}},
      // A taken number puts a new name in the highest free slot ...
      {"CATEGORY 3 \"A\"\nCATEGORY 3 \"B\"\nCATEGORY 3 \"C\"\n",
       {"3=A", "9=IGNORE", "62=C", "63=B"}},
      // ... and leaves a name that is already defined alone.
      {"CATEGORY 3 \"A\"\nCATEGORY 4 \"A\"\nCATEGORY 4 \"A\"\n", {"3=A", "4=A", "9=IGNORE"}},
  };
  for (const Case &c : cases) {
    free_all_info();
    EXPECT_EQ(read(c.lines + kEnterprise), "");
    EXPECT_EQ(categories(), c.slots) << c.lines;
  }
  // Without enterprises the next read keeps categories and actions.
  free_all_info();
  EXPECT_EQ(read("CATEGORY 3 \"A\"\nACTION 1 \"a\" cmd\nSDESC\nEDESC\n"), "");
  EXPECT_EQ(read(kEnterprise), "");
  EXPECT_EQ(categories(), (Texts{"3=A", "7=LOGONLY", "9=IGNORE"}));
  EXPECT_EQ(numActionCommands, 1);
  // With enterprises it starts afresh.
  EXPECT_EQ(read(kEnterprise), "");
  EXPECT_EQ(categories(), Texts{"9=IGNORE"});
  EXPECT_EQ(numActionCommands, 0);
}

TEST_F(Reader, SwitchesKeywordsAndAugmenting) {
  char *saved = execKeyword;
  char run[] = "RUN";
  execKeyword = run;
  trpFormatExpandSourceFiles = 0;
  trpFormatDontMallocDesc = 1;
  std::string error =
      read(kTrap + "format\nRUN cmd $1\nNODES /kept/as/path, b\nSDESC\nlong\nEDESC\n");
  execKeyword = saved;
  trpFormatExpandSourceFiles = 1;
  trpFormatDontMallocDesc = 0;
  ASSERT_EQ(error, "");
  trap_record *trap = nameToExactTrap("tempHigh");
  ASSERT_NE(trap->execargs_ptr, nullptr);
  EXPECT_STREQ(trap->execargs_ptr->format, "cmd %s");
  ASSERT_EQ(trap->nodeCnt, 2);
  EXPECT_STREQ(trap->nodeList[0], "/kept/as/path");
  EXPECT_EQ(trap->trapDescription, nullptr);

  std::string more = dir_.file("more.conf");
  write_file(more, "other {1.3.6.1.4.1.11}\n"
                   "hpTrap {1.3.6.1.4.1.11} 6 1 A 1 0 \"IGNORE\"\nx\nSDESC\nEDESC\n");
  char *augment_error = nullptr;
  ASSERT_EQ(augmentTrapspecFile(&augment_error, more.c_str()), 0) << augment_error;
  EXPECT_NE(nameToExactTrap("hpTrap"), nullptr);
  EXPECT_NE(nameToExactTrap("tempHigh"), nullptr);
}

TEST_F(Reader, BundledExampleReads) {
  // The example names its source list at its installed place.
  std::string example = testsupport::read_file(EVENTS_SOURCE_DIR "/examples/hubd.conf");
  const std::string installed = "/usr/KZ/conf/C/";
  size_t at = example.find(installed);
  ASSERT_NE(at, std::string::npos);
  example.replace(at, installed.size(), EVENTS_SOURCE_DIR "/examples/");
  ASSERT_EQ(read(example), "");
  EXPECT_EQ(nameToExactTrap("linkDown")->nodeCnt, 5);
  EXPECT_STREQ(EMScategories[13], "Événements de sécurité");
  ObjectIdEMS trap_oid[] = {1, 3, 6, 1, 4, 1, 9, 9, 13, 1, 3};
  enterprise_info *env = nullptr;
  find_enterprise(trap_oid, 11, &env);
  EXPECT_STREQ(findExactTrapRecord(env, 6, 3, "core-rtr-02")->exec_display_args_ptr->rawstring,
               "温度警告: $A のセンサー $1 が $2 °C");
  EXPECT_EQ(findExactTrapRecord(env, 6, 3, "edge-1")->nodeCnt, 0);
}

}  // namespace
