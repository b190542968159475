// hubd.conf reader: a complete file into the model, every error text with
// its line, section and category rules, source lists and tracing.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/diagnostics.h"
#include "support/fixtures.h"
#include "trp_format.h"

namespace {

using testsupport::write_file;

class Reader : public ::testing::Test {
 protected:
  void SetUp() override {
    free_all_info();
    path_ = dir_.file("hubd.conf");
    setHubdConfFile(path_.c_str());
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
    if (status == 0) EXPECT_STREQ(error, "");
    return error;
  }
  std::string at(int line, const std::string &text) const {
    return " in line #" + std::to_string(line) + " of \"" + path_ + "\":\n" + text + ".\n";
  }
  std::string eof_after(const std::string &keyword) const {
    return "End of file in \"" + path_ + "\" prematurely reached after " + keyword + " keyword";
  }
  static std::vector<std::string> categories() {
    std::vector<std::string> slots;
    for (int i = 0; i < EMS_MAX_CATEGORIES; ++i)
      if (EMScategories[i] != nullptr) slots.push_back(std::to_string(i) + "=" + EMScategories[i]);
    return slots;
  }

  testsupport::TempDir dir_;
  std::string path_;
};

const char kEnterprise[] = "cisco {1.3.6.1.4.1.9}\n";
const char kTrapLine[] = "tempHigh {1.3.6.1.4.1.9} 6 3 A 4 1 \"IGNORE\"\n";
const char kTrapBody[] = "Temperature $1 on $A\nSDESC\nEDESC\n";

TEST_F(Reader, CompleteFileFillsTheModel) {
  std::string list = dir_.file("routers.list");
  write_file(list, "# core\nrtr-1 Frankfurt\n\n  rtr-2\n");
  int result = -1;
  std::string error = read(
      "# hubd.conf\n"
      "CATEGORY 0 \"Threshold Events\"\n"
      "CATEGORY 12 \"Environment\"\n"
      "ACTION 30 \"Ping node\" ping -c 3 $A\n"
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
      "BEGIN_SLOT_MAPPING\n"
      "  sensor   $1  \n"
      "reading the value $2\n"
      "END_SLOT_MAPPING\n"
      "SDESC\n"
      "The sensor crossed its limit.\n"
      "EDESC\n"
      "ciscoAny {1.3.6.1.4.1.9} -1 0 A 1 0 \"IGNORE\"\n"
      "$*\n"
      "SDESC\nEDESC\n",
      &result);
  ASSERT_EQ(result, 0) << error;
  EXPECT_EQ(have_read_hubdconf, 1);
  EXPECT_EQ(categories(),
            (std::vector<std::string>{"0=Threshold Events", "9=IGNORE", "12=Environment"}));
  ASSERT_EQ(numActionCommands, 1);
  EXPECT_STREQ(actionCommands[0].name, "Ping node");
  EXPECT_STREQ(actionCommands[0].cmd, "ping -c 3 $A");
  EXPECT_EQ(actionCommands[0].waitTime, 30);
  EXPECT_STREQ(actionCommands[0].description, "Checks the node.\nSecond line.");

  trap_record *trap = nameToExactTrap("tempHigh");
  ASSERT_NE(trap, nullptr);
  EXPECT_EQ(trap->generic_trap, 6);
  EXPECT_EQ(trap->specific_trap, 3);
  EXPECT_EQ(trap->source, 'T');
  EXPECT_EQ(trap->severity, 4);
  EXPECT_EQ(trap->status, 1);
  EXPECT_EQ(trap->category_number, 12);
  EXPECT_EQ(trap->forward, 1);
  EXPECT_STREQ(trap->description.rawstring, "Temperature $1 on $A is 100%");
  EXPECT_STREQ(trap->description.format, "Temperature %s on %s is 100%%");
  ASSERT_NE(trap->execargs_ptr, nullptr);
  EXPECT_STREQ(trap->execargs_ptr->rawstring, "/bin/page --node $A");
  ASSERT_NE(trap->exec_display_args_ptr, nullptr);
  EXPECT_STREQ(trap->exec_display_args_ptr->format, "Temp %s");
  std::vector<std::string> nodes(trap->nodeList, trap->nodeList + trap->nodeCnt);
  EXPECT_EQ(nodes, (std::vector<std::string>{"sw-1", "sw-2", "rtr-1", "rtr-2", "sw-3"}));
  EXPECT_STREQ(trap->wbxClassName, " Env ") << "the event class is taken as it stands";
  ASSERT_NE(trap->slotMap, nullptr);
  ASSERT_EQ(trap->slotMap->slotCnt, 2);
  EXPECT_STREQ(trap->slotMap->slotName[0], "sensor");
  EXPECT_STREQ(trap->slotMap->slotVal[0], "$1");
  EXPECT_STREQ(trap->slotMap->slotName[1], "reading");
  EXPECT_STREQ(trap->slotMap->slotVal[1], "the value $2");
  EXPECT_STREQ(trap->trapDescription, "The sensor crossed its limit.");
  EXPECT_STREQ(nameToExactTrap("ciscoAny")->trapDescription, "");

  // The fallback format is ready after the first read.
  EXPECT_STREQ(default_trap_record.name, "HARD_DEFAULT");
  EXPECT_STREQ(default_trap_record.description.format,
               "NO FMT IN HUBD.CONF: %s (%s) generic:%s specific:%s args(%s): %s");
  EXPECT_EQ(default_trap_record.category_number, 2);
}

TEST_F(Reader, EveryErrorNamesTheLine) {
  const std::string trap = std::string(kEnterprise) + kTrapLine;
  std::string categories64;
  for (int i = 0; i < 64; ++i) categories64 += "CATEGORY " + std::to_string(i) + " \"c" + std::to_string(i) + "\"\n";
  const std::string name41(41, 'n');
  struct Case {
    std::string contents;
    std::string error;
  } cases[] = {
      {"CATEGORY 5\n", "Invalid number of fields (1), expect 2" + at(1, "CATEGORY 5")},
      {"CATEGORY 5 \"x\" y\n", "Invalid number of fields (3), expect 2" + at(1, "CATEGORY 5 \"x\" y")},
      {"CATEGORY 64 \"x\"\n", "Bad category number (must be < 64)" + at(1, "CATEGORY 64 \"x\"")},
      {categories64 + "CATEGORY 3 \"more\"\n",
       "Category could not be added (64 categories already defined)\n" + at(65, "CATEGORY 3 \"more\"")},
      {"ACTION -5 \"x\" cmd\n", "Invalid wait time -5" + at(1, "ACTION -5 \"x\" cmd")},
      {"ACTION 5 \"x\" cmd\n", eof_after("ACTION")},
      {"ACTION 5 \"x\" cmd\nDescription first\n", "Did not find a SDESC keyword" + at(2, "Description first")},
      {"ACTION 5 \"x\" cmd\nSDESC\ntext\n", eof_after("SDESC")},
      {"e {1.3.x}\n", "Bad oid char" + at(1, "e {1.3.x}")},
      {std::string(kEnterprise) + "\n" + kTrapLine,
       "Bad name line (matched -1, not 8 tokens)\n" + at(2, "")},
      {trap.substr(0, trap.size() - 1) + " x\n",
       "Bad name line (matched 9, not 8 tokens)\n" + at(2, std::string(kTrapLine, strlen(kTrapLine) - 1) + " x")},
      {std::string(kEnterprise) + name41 + " {1.3.6.1.4.1.9} 6 3 A 4 1 \"IGNORE\"\n",
       "hubd.conf file not loaded because trap name length [41] exceeds maximum size permitted of 40\n " +
           at(2, name41 + " {1.3.6.1.4.1.9} 6 3 A 4 1 \"IGNORE\"")},
      {std::string(kEnterprise) + "t {x1.3} 6 3 A 4 1 \"IGNORE\"\n",
       "Bad oid char 'x'" + at(2, "t {x1.3} 6 3 A 4 1 \"IGNORE\"")},
      {std::string(kEnterprise) + "t {1.3.6.1.4.1.9} 6 3 A 4 1 \"Nope\"\n",
       "No such display category \"Nope\" defined" + at(2, "t {1.3.6.1.4.1.9} 6 3 A 4 1 \"Nope\"")},
      {std::string(kEnterprise) + "t {1.3.6.1.4.1.11} 6 3 A 4 1 \"IGNORE\"\n",
       "No such enterprise" + at(2, "t {1.3.6.1.4.1.11} 6 3 A 4 1 \"IGNORE\"")},
      {std::string(kEnterprise) + "t {1.3.6.1.4.1.9.9.13} 6 3 A 4 1 \"IGNORE\"\n",
       "No such exact enterprise (7 vs 9)" + at(2, "t {1.3.6.1.4.1.9.9.13} 6 3 A 4 1 \"IGNORE\"")},
      {trap + kTrapBody + "tempHigh {1.3.6.1.4.1.9} 6 4 A 4 1 \"IGNORE\"\n",
       "Not loading trap format.  Trap name tempHigh is already in use.\nRename the event to avoid "
       "the conflict" + at(6, "tempHigh {1.3.6.1.4.1.9} 6 4 A 4 1 \"IGNORE\"")},
      {trap + "# no format follows\n",
       "Did not find an event log format" + at(2, std::string(kTrapLine, strlen(kTrapLine) - 1))},
      {trap + "format\n", eof_after("format")},
      {trap + "format\nEXEC cmd\n", eof_after("EXEC")},
      {trap + "format\nNODES a, /nonexistent/list\nSDESC\nEDESC\n",
       "Could not open source list file \"/nonexistent/list\"" + at(4, "NODES a, /nonexistent/list")},
      {trap + "format\nBEGIN_SLOT_MAPPING\n", eof_after("BEGIN_SLOT_MAPPING")},
      // A slot line without a blank fails without a text.
      {trap + "format\nBEGIN_SLOT_MAPPING\nnoblank\nEND_SLOT_MAPPING\nSDESC\nEDESC\n", ""},
      {trap + "format\nDISPLAY d\nEXEC late\nSDESC\nEDESC\n", "Did not find a SDESC keyword" + at(5, "EXEC late")},
      {trap + "format\nSDESC\n" + std::string(5020, 'd') + "\nEDESC\n",
       "Trap description too long" + at(5, std::string(5020, 'd'))},
      {trap + "format\nSDESC\nline\n", eof_after("SDESC")},
      {std::string(kEnterprise) + std::string(TRAPSPEC_LINE_SIZE, 'x') + "\n",
       "Line too long" + at(2, std::string(TRAPSPEC_LINE_SIZE - 1, 'x'))},
  };
  for (const Case &c : cases) {
    int result = 0;
    std::string error = read(c.contents, &result);
    EXPECT_LT(result, 0) << c.contents.substr(0, 200);
    if (c.error.size() < TRAPSPEC_ERROR_SIZE) {
      EXPECT_EQ(error, c.error) << c.contents.substr(0, 200);
    } else {
      EXPECT_EQ(error, c.error.substr(0, TRAPSPEC_ERROR_SIZE - 1)) << "bounded to the buffer";
    }
  }
}

TEST_F(Reader, DescriptionOfExactly5020BytesFits) {
  std::string contents = std::string(kEnterprise) + kTrapLine + "format\nSDESC\n" +
                         std::string(5019, 'd') + "\nEDESC\n";
  EXPECT_EQ(read(contents), "");
  EXPECT_EQ(strlen(nameToExactTrap("tempHigh")->trapDescription), 5019u);
}

TEST_F(Reader, UnreadableFiles) {
  setHubdConfFile(dir_.file("absent.conf").c_str());
  char *error = nullptr;
  EXPECT_EQ(read_trapspec_file(&error), -1);
  EXPECT_EQ(std::string(error),
            "Could not open trap format file \"" + dir_.file("absent.conf") + "\": No such file or directory\n");
  EXPECT_EQ(augmentTrapspecFile(&error, "/nonexistent/more.conf"), -1);
  EXPECT_EQ(std::string(error),
            "Could not open new trap format file \"/nonexistent/more.conf\": No such file or directory\n");
}

TEST_F(Reader, CategoryPlacementAndDefaults) {
  struct Case {
    std::string lines;
    std::vector<std::string> slots;
  } cases[] = {
      {"", {"9=IGNORE"}},
      {"CATEGORY 9 \"IGNORE\"\n", {"7=LOGONLY", "9=IGNORE"}},
      {"CATEGORY 9 \"x\"\nCATEGORY 7 \"y\"\n", {"2=Error Events", "7=y", "9=x"}},
      // A taken number puts a new name in the highest free slot ...
      {"CATEGORY 3 \"A\"\nCATEGORY 3 \"B\"\nCATEGORY 3 \"C\"\n", {"3=A", "9=IGNORE", "62=C", "63=B"}},
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
  EXPECT_EQ(categories(), (std::vector<std::string>{"3=A", "7=LOGONLY", "9=IGNORE"}));
  EXPECT_EQ(numActionCommands, 1);
  // With enterprises it starts afresh.
  EXPECT_EQ(read(kEnterprise), "");
  EXPECT_EQ(categories(), std::vector<std::string>{"9=IGNORE"});
  EXPECT_EQ(numActionCommands, 0);
}

TEST_F(Reader, ActionsOfTheSameNameAreReplaced) {
  EXPECT_EQ(read("ACTION 1 \"ping\" ping $A\nSDESC\nold\nEDESC\n"
                 "ACTION 2 \"trace\" traceroute $A\nSDESC\nEDESC\n"
                 "ACTION 3 \"ping\"   ping -c 1 $A\nSDESC\nnew\nEDESC\n" +
                 std::string(kEnterprise)),
            "");
  ASSERT_EQ(numActionCommands, 2);
  EXPECT_STREQ(actionCommands[0].cmd, "ping -c 1 $A");
  EXPECT_STREQ(actionCommands[0].description, "new");
  EXPECT_EQ(actionCommands[0].waitTime, 3);
  EXPECT_STREQ(actionCommands[1].name, "trace");
}

TEST_F(Reader, SwitchesKeywordsAndAugmenting) {
  std::string group = std::string(kEnterprise) + kTrapLine +
                      "format\nRUN cmd $1\nNODES /kept/as/path, b\nSDESC\nlong text\nEDESC\n";
  char *saved = execKeyword;
  char run[] = "RUN";
  execKeyword = run;
  trpFormatExpandSourceFiles = 0;
  trpFormatDontMallocDesc = 1;
  std::string error = read(group);
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
  write_file(more, "other {1.3.6.1.4.1.11}\nhpTrap {1.3.6.1.4.1.11} 6 1 A 1 0 \"IGNORE\"\nx\nSDESC\nEDESC\n");
  char *augment_error = nullptr;
  ASSERT_EQ(augmentTrapspecFile(&augment_error, more.c_str()), 0) << augment_error;
  EXPECT_NE(nameToExactTrap("hpTrap"), nullptr);
  EXPECT_NE(nameToExactTrap("tempHigh"), nullptr);
}

TEST_F(Reader, TraceReportsEachStep) {
  trace_hubdconf = 1;
  auto diagnostics = testsupport::with_diagnostics(0, [&] {
    EXPECT_EQ(read(std::string(kEnterprise) + kTrapLine + "format\nEXEC c\nSDESC\nEDESC\n"), "");
  });
  trace_hubdconf = 0;
  for (const char *line :
       {"read_trapspec_file: opening hubd.conf", "read_trapspec_file: resetting keyword strlens",
        "doReadTrapspecFile: starting read of TRAPS", "readTrapSpecInfo: hubd.conf line [2] scanned",
        "readTrapSpecInfo: trap name = tempHigh, length = 8", "readTrapSpecInfo: oid checked",
        "readTrapSpecInfo: < tempHigh > trap name is unique", "readTrapSpecInfo: exec record found",
        "readTrapSpecInfo: freeing structures for this event",
        "doReadTrapspecFile: finished read of hubd.conf",
        "read_trapspec_file: about to read voraspec_file."}) {
    EXPECT_NE(diagnostics.trace_log.find(line), std::string::npos) << line;
  }
}

TEST_F(Reader, BundledExampleReads) {
  // The example names its source list at its installed place.
  std::string example = testsupport::read_file(EVENTS_SOURCE_DIR "/examples/hubd.conf");
  const std::string installed = "/usr/KZ/conf/C/";
  size_t at = example.find(installed);
  ASSERT_NE(at, std::string::npos);
  example.replace(at, installed.size(), EVENTS_SOURCE_DIR "/examples/");
  ASSERT_EQ(read(example), "");
  trap_record *critical = nameToExactTrap("linkDown");
  ASSERT_NE(critical, nullptr);
  EXPECT_EQ(critical->nodeCnt, 5);
  EXPECT_STREQ(EMScategories[13], "Événements de sécurité");
  ObjectIdEMS trap_oid[] = {1, 3, 6, 1, 4, 1, 9, 9, 13, 1, 3};
  enterprise_info *env;
  find_enterprise(trap_oid, 11, &env);
  ASSERT_NE(env, nullptr);
  EXPECT_STREQ(findExactTrapRecord(env, 6, 3, "core-rtr-02")->exec_display_args_ptr->rawstring,
               "温度警告: $A のセンサー $1 が $2 °C");
  EXPECT_EQ(findExactTrapRecord(env, 6, 3, "edge-1")->nodeCnt, 0);
}

}  // namespace
