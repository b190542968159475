// hubconf check: the operator's view of a good and of a broken file.

#include <sys/wait.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "support/fixtures.h"

namespace {

using namespace std::chrono_literals;

struct ToolRun {
  int status;
  std::vector<std::string> lines;
};

// Runs hubconf and returns its exit status with the lines that contain
// each of `wanted` ("" for a missing line).
ToolRun hubconf(const std::vector<std::string> &args, const std::vector<std::string> &wanted) {
  std::vector<std::string> argv = {HUBCONF_PATH};
  argv.insert(argv.end(), args.begin(), args.end());
  testsupport::ChildProcess child(argv);
  ToolRun run;
  for (const std::string &needle : wanted) run.lines.push_back(child.wait_for_line(needle, 5s));
  child.wait_for_line("\x01 never printed", 2s);  // until the output ends
  int status = child.stop();
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

TEST(Hubconf, SummaryOfAGoodFileAndTheLineOfABadOne) {
  testsupport::TempDir dir;
  const std::string good = dir.file("good.conf"), bad = dir.file("bad.conf");
  const std::string slots = dir.file("slots.conf"), cisco = "cisco {1.3.6.1.4.1.9}\n";
  testsupport::write_file(good, "CATEGORY 3 \"Status Events\"\nACTION 10 \"Ping\" ping $A\n"
                                "SDESC\nEDESC\n" + cisco +
                                "coldStart {1.3.6.1.4.1.9} 0 0 A 1 0 \"Status Events\"\n"
                                "$A restarted\nNODES rtr-1\nSDESC\nEDESC\n");
  ToolRun ok = hubconf({"check", good},
                       {"configuration read without errors", "3  Status Events", "Ping",
                        "cisco                    .1.3.6.1.4.1.9  1 trap format",
                        "2 categories, 1 actions, 1 enterprises, 1 trap formats "
                        "(1 limited to nodes)"});
  EXPECT_EQ(ok.status, 0);
  for (const std::string &line : ok.lines) EXPECT_NE(line, "");

  testsupport::write_file(bad, cisco + "t {1.3.6.1.4.1.11} 6 1 A 1 0 \"IGNORE\"\n");
  const std::string where = "No such enterprise in line #2 of";
  ToolRun failed = hubconf({"check", bad}, {where, "t {1.3.6.1.4.1.11}"});
  EXPECT_EQ(failed.status, 1);
  EXPECT_EQ(failed.lines[0], "hubconf: " + bad + ": " + where + " \"" + bad + "\":");

  testsupport::write_file(slots, cisco + "t {1.3.6.1.4.1.9} 6 1 A 1 0 \"IGNORE\"\nf\n"
                                 "BEGIN_SLOT_MAPPING\nnoblank\nEND_SLOT_MAPPING\nSDESC\nEDESC\n");
  EXPECT_NE(hubconf({"check", slots}, {"a slot mapping is invalid"}).lines[0], "");
  const std::string absent = dir.file("absent.conf");
  EXPECT_EQ(hubconf({"check", absent}, {"Could not open trap format file"}).status, 1);
  EXPECT_EQ(hubconf({"frobnicate"}, {"usage: hubconf check [FILE]"}).status, 2);
}

TEST(Hubconf, MatchExplainsTheChoiceOfFormat) {
  testsupport::TempDir dir;
  const std::string conf = dir.file("hubd.conf");
  testsupport::write_file(conf, "CATEGORY 3 \"Status Events\"\ncisco {1.3.6.1.4.1.9}\n"
                                "envMon {1.3.6.1.4.1.9.9.13}\n"
                                "temp {1.3.6.1.4.1.9.9.13} 6 3 A 5 0 \"Status Events\"\nhot\n"
                                "NODES core-1\nSDESC\nEDESC\n"
                                "any {1.3.6.1.4.1.9} -1 0 A 1 0 \"Status Events\"\nanything\n"
                                "SDESC\nEDESC\n");
  const struct {
    std::vector<std::string> args, wanted;
    int status;
  } cases[] = {
      {{"1.3.6.1.4.1.9.9.13", "6", "3", "--node", "core-1"},
       {"    exact format temp", "  nodes       core-1"}, 0},
      {{"1.3.6.1.4.1.9.9.13", "6", "3", "--node", "edge-9"},
       {"    no format 6/3 for node edge-9", "  enterprise cisco .1.3.6.1.4.1.9",
        "    wildcard format any", "  numbers     generic -1, specific 0 (wildcard)"}, 0},
      {{"1.3.6.1.4.1.7", "6", "3"},
       {"  no configured enterprise is a prefix of it", "format HARD_DEFAULT"}, 0},
      {{"1.3.six", "6", "3"}, {"usage: hubconf match"}, 2},
  };
  for (const auto &c : cases) {
    std::vector<std::string> args = {"match", "--file", conf};
    args.insert(args.end(), c.args.begin(), c.args.end());
    ToolRun run = hubconf(args, c.wanted);
    EXPECT_EQ(run.status, c.status) << c.args[0];
    for (size_t i = 0; i < c.wanted.size(); ++i) EXPECT_EQ(run.lines[i].find(c.wanted[i]), 0u) << run.lines[i];
  }
}

}  // namespace
