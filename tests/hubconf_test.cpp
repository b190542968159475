// hubconf check: the operator's view of a good and of a broken file.

#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <chrono>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "support/fixtures.h"
#include "trapspec_writer.h"
#include "trp_format.h"

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
  ToolRun failed = hubconf({"check", bad}, {":2: ", "t {1.3.6.1.4.1.11}"});
  EXPECT_EQ(failed.status, 1);
  EXPECT_EQ(failed.lines[0], bad + ":2: No such enterprise");
  EXPECT_EQ(failed.lines[1], "  t {1.3.6.1.4.1.11} 6 1 A 1 0 \"IGNORE\"");

  testsupport::write_file(slots, cisco + "t {1.3.6.1.4.1.9} 6 1 A 1 0 \"IGNORE\"\nf\n"
                                 "BEGIN_SLOT_MAPPING\nnoblank\nEND_SLOT_MAPPING\nSDESC\nEDESC\n");
  EXPECT_NE(hubconf({"check", slots}, {"a slot mapping is invalid"}).lines[0], "");
  const std::string absent = dir.file("absent.conf");
  const std::string fifo = dir.file("fifo.conf");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::pair<std::string, std::string> unreadable[] = {{absent, ": No such file or directory"},
                                                      {dir.path(), ": is a directory"},
                                                      {fifo, ": is not a regular file"}};
  for (const auto &[file, reason] : unreadable)
    EXPECT_EQ(hubconf({"check", file}, {file + reason}).status, 1) << file;
  EXPECT_EQ(hubconf({"frobnicate"}, {"hubconf: unknown command frobnicate"}).status, 2);
}

// Lines the library reads without an error, but otherwise than they look.
TEST(Hubconf, WarnsAboutLinesThatReadOtherwiseThanTheyLook) {
  testsupport::TempDir dir;
  const std::string file = dir.file("hubd.conf");
  // Each line with the warnings it gives, in the order they are printed.
  const std::pair<const char *, std::vector<const char *>> lines[] = {
      {"CATEGORY 3 \"Status Events\"", {}},
      {"ACTION 4294967296 \"Ping\" ping", {"the number 4294967296 is outside the 32-bit range"}},
      {"SDESC", {}},
      {"text\r", {"the line ends in a carriage return"}},
      {"EDESC \t", {"blanks after EDESC"}},
      {"EDESC", {}},
      {"cisco {1.3.6.1.4.1.9}", {}},
      {"t {1.3.6.1.4.1.9} 7 1 A 1 0 \"Status Events\"", {"generic number 7 is neither"}},
      {"$A $1 $-2 $%3 $$3 $+x $99", {"\"$+x\" is not a $ reference", "\"$99\""}},
      {"DISPLAY $0", {"\"$0\" is not a $ reference"}},
      {"SDESC", {}},
      {"EDESC", {}},
      {"u {1.3.6.1.4.1.9} 6 -2147483649 A 1 0 \"Status Events",
       {"the number -2147483649", "the quote is not closed"}},
      {"format", {}},
      {"SDESC", {}},
      {"EDESC", {}},
  };
  std::string text;
  std::vector<std::string> wanted;
  for (size_t i = 0; i < std::size(lines); ++i) {
    text += std::string(lines[i].first) + "\n";
    for (const char *warning : lines[i].second)
      wanted.push_back(file + ":" + std::to_string(i + 1) + ": warning: " + warning);
  }
  testsupport::write_file(file, text);
  ToolRun lenient = hubconf({"check", file}, wanted);
  EXPECT_EQ(lenient.status, 0);
  for (size_t i = 0; i < wanted.size(); ++i) EXPECT_NE(lenient.lines[i], "") << wanted[i];
  EXPECT_EQ(hubconf({"check", "--strict", file}, {"8 warnings, and --strict was given"}).status,
            1);

  // Blanks after SDESC hide the keyword: the warning says why the read fails.
  testsupport::write_file(file, "cisco {1.3.6.1.4.1.9}\nt {1.3.6.1.4.1.9} 6 1 A 1 0 \"IGNORE\"\n"
                                "format\nSDESC \nEDESC\n");
  ToolRun failed = hubconf({"check", file}, {":4: warning: blanks after SDESC", ":4: Did not find"});
  EXPECT_EQ(failed.status, 1);
  for (const std::string &line : failed.lines) EXPECT_NE(line, "");
}

// The edit cycle end to end: set, show, delete and delete-action on real
// files, the alert file kept in step, and the messages of the library.
TEST(Hubconf, EditCycle) {
  testsupport::TempDir dir;
  const std::string conf = dir.file("hubd.conf"), vora = dir.file("vorad.conf");
  testsupport::write_file(conf,
                          "ACTION 10 \"Ping\" ping $A\nSDESC\nEDESC\ncisco {1.3.6.1.4.1.9}\n"
                          "linkDown {1.3.6.1.4.1.9} 2 0 A 4 0 \"IGNORE\"\nDown $1\nSDESC\nEDESC\n");
  testsupport::write_file(vora, "linkDown {1.3.6.1.4.1.9} 2 0\n93 1 5 ;\n");
  setenv("KZHUBDCONF", conf.c_str(), 1);
  setenv("VORAD_CONF", vora.c_str(), 1);
  setenv("KZ_HUBD_SOCKET", dir.file("no-hub.sock").c_str(), 1);
  unsetenv("KZ_CLIENT");

  ToolRun added = hubconf({"set",
                           "fanFail",
                           "-e",
                           "1.3.6.1.4.1.9",
                           "-g",
                           "6",
                           "-s",
                           "4",
                           "-c",
                           "IGNORE",
                           "-S",
                           "Major",
                           "-f",
                           "Fan $1 failed",
                           "--exec",
                           "/bin/true $A",
                           "--nodes",
                           "rtr-1, rtr-2",
                           "--forward",
                           "-d",
                           "Fans.\nCheck them."},
                          {"but cannot connect event to hubd", "hubd.conf written"});
  EXPECT_EQ(added.status, 0);
  for (const std::string &line : added.lines) EXPECT_NE(line, "");
  EXPECT_EQ(hubconf({"set", "fanFail", "--severity", "warning"}, {}).status, 0);
  ToolRun shown =
      hubconf({"show", "fanFail"},
              {"severity:    2 (Warning)", "format:      Fan $1", "exec:        /bin/true $A",
               "forward:     yes", "nodes:       rtr-1 rtr-2", "             Check them."});
  for (const std::string &line : shown.lines) EXPECT_NE(line, "");
  EXPECT_NE(hubconf({"show", "linkDown"}, {"93 1 5  ;"}).lines[0], "");

  EXPECT_EQ(hubconf({"delete", "linkDown"}, {"vorad.conf written"}).lines[0],
            "hubconf: " + vora + " written");
  EXPECT_EQ(testsupport::read_file(vora).find("linkDown"), std::string::npos);
  EXPECT_NE(hubconf({"check"}, {"0 trap formats mapped to alerts"}).lines[0], "");
  EXPECT_EQ(hubconf({"delete", "linkDown"}, {"no trap format is named"}).status, 1);
  EXPECT_EQ(hubconf({"delete-action", "Ping"}, {}).status, 0);
  EXPECT_EQ(testsupport::read_file(conf).find("Ping"), std::string::npos);

  for (const char *command : {"list", "show", "set", "delete", "delete-action", "check"})
    EXPECT_EQ(hubconf({command, "--help"}, {}).status, 0) << command;
  EXPECT_EQ(hubconf({"set"}, {}).status, 2);
  EXPECT_EQ(hubconf({"set", "new", "-g", "1"}, {"give --enterprise"}).status, 2);
  EXPECT_EQ(hubconf({"set", "fanFail", "-g", "x"}, {}).status, 2);
  EXPECT_EQ(hubconf({"set", "fanFail", "-d", "a\n# b"}, {}).status, 2);

  // A lock held by this process, across a read that opens and closes the
  // file again, keeps the tool out; the file stays as it was.
  char *message = nullptr, *error = nullptr;
  FILE *held = lockHubdConfFile(&message);
  ASSERT_NE(held, nullptr);
  ASSERT_EQ(read_trapspec_file(&error), 0);
  const std::string before = testsupport::read_file(conf);
  ToolRun refused =
      hubconf({"delete", "fanFail"}, {"Another Event Configuration process is already running.",
                                      "Could not lock configuration file \"" + conf + "\"."});
  EXPECT_EQ(refused.status, 1);
  for (const std::string &line : refused.lines) EXPECT_NE(line, "");
  EXPECT_EQ(testsupport::read_file(conf), before);
  fclose(held);
  EXPECT_EQ(hubconf({"delete", "fanFail"}, {}).status, 0);
  free_all_info();
  for (const char *name : {"KZHUBDCONF", "VORAD_CONF", "KZ_HUBD_SOCKET"}) unsetenv(name);
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
