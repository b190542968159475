// hubconf check: the operator's view of a good and of a broken file.

#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <chrono>
#include <iterator>
#include <string>
#include <thread>
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

namespace {

// Runs hubconf to its end; its status and everything it printed.
std::pair<int, std::string> run_hubconf(const testsupport::TempDir &dir,
                                        const std::vector<std::string> &args) {
  const std::string out = dir.file("hubconf.out");
  std::vector<std::string> argv = {"/bin/sh", "-c", "exec \"$0\" \"$@\" >\"$OUT\" 2>&1",
                                   HUBCONF_PATH};
  argv.insert(argv.end(), args.begin(), args.end());
  setenv("OUT", out.c_str(), 1);
  int status = testsupport::run_command(argv);
  return {status, testsupport::read_file(out)};
}

class HubconfEdits : public ::testing::Test {
 protected:
  void SetUp() override {
    testsupport::write_file(conf_, kConf);
    testsupport::write_file(vora_, "linkDown {1.3.6.1.4.1.9} 2 0\n93 1 5 ;\n");
    setenv("KZHUBDCONF", conf_.c_str(), 1);
    setenv("VORAD_CONF", vora_.c_str(), 1);
    setenv("KZ_HUBD_SOCKET", dir_.file("no-hub.sock").c_str(), 1);
  }
  void TearDown() override {
    for (const char *name : {"KZHUBDCONF", "VORAD_CONF", "KZ_HUBD_SOCKET"}) unsetenv(name);
  }
  std::pair<int, std::string> run(const std::vector<std::string> &args) {
    return run_hubconf(dir_, args);
  }

  static constexpr const char *kConf =
      "CATEGORY 3 \"Status Events\"\nCATEGORY 9 \"IGNORE\"\ncisco {1.3.6.1.4.1.9}\n"
      "linkDown {1.3.6.1.4.1.9} 2 0 A 4 0 \"IGNORE\"\nDown $1\nSDESC\nEDESC\n";
  testsupport::TempDir dir_;
  const std::string conf_ = dir_.file("hubd.conf"), vora_ = dir_.file("vorad.conf");
};

// What would not read back is refused; what check warns about needs
// --force; nothing refused is written.
TEST_F(HubconfEdits, SetRefusesWhatWouldNotReadBackAndWarningsWithoutForce) {
  const std::vector<std::string> add = {"set", "t", "-e", "cisco", "-g", "6", "-s", "1",
                                        "-c", "IGNORE"};
  struct Case {
    std::vector<std::string> extra;
    int status;
    std::string message;
  } cases[] = {
      {{"-f", "#1 down"}, 2, "--format begins with \"#\""},
      {{"-f", "  # down"}, 2, "--format begins with a blank"},
      {{"-f", std::string(4095, 'f')}, 2, "--format is longer than 4094 bytes"},
      {{"-f", "x", "-d", std::string(5020, 'd')}, 2, "--description is longer than 5019"},
      {{"-f", "x", "-d", "a\nEDESC"}, 2, "--description has a line that ends the description"},
      {{"-f", "Port $99 down"}, 1, "\"$99\" is not a $ reference"},
      {{"-f", "Port $Q down"}, 1, "\"$Q\" is not a $ reference"},
      {{"-f", "x", "-g", "9"}, 1, "generic number 9 is neither"},
  };
  for (const Case &c : cases) {
    std::vector<std::string> args = add;
    args.insert(args.end(), c.extra.begin(), c.extra.end());
    const std::string before = testsupport::read_file(conf_);
    auto [status, output] = run(args);
    EXPECT_EQ(status, c.status) << output;
    EXPECT_NE(output.find(c.message), std::string::npos) << output;
    EXPECT_EQ(testsupport::read_file(conf_), before);
    if (c.status == 1) {
      args.push_back("--force");
      EXPECT_EQ(run(args).first, 0);
      EXPECT_EQ(run({"delete", "t"}).first, 0);
    }
  }
  EXPECT_EQ(
      run({"set", "#t", "-e", "cisco", "-g", "6", "-s", "1", "-c", "IGNORE", "-f", "x"}).first, 2);
}

// A format the library replaced for its length is warned about and keeps
// the file from being rewritten without --force; hand-written comments are
// dropped by a rewrite, which says so; a file whose writer stopped part-way
// is refused with the way back.
TEST_F(HubconfEdits, FilesTheLibraryWouldNotWriteBackAsTheyAre) {
  const std::string long_format = std::string(4095, 'f');
  testsupport::write_file(conf_, std::string(kConf) +
                                     "# my note\nlong {1.3.6.1.4.1.9} 6 1 A 1 0 \"IGNORE\"\n" +
                                     long_format + "\nSDESC\nEDESC\n");
  auto [checked, warnings] = run({"check"});
  EXPECT_EQ(checked, 0);
  EXPECT_NE(warnings.find(conf_ + ":10: warning: the text is longer than 4094 bytes"),
            std::string::npos)
      << warnings;
  auto [refused, why] = run({"delete", "linkDown"});
  EXPECT_EQ(refused, 1);
  EXPECT_NE(why.find("give --force"), std::string::npos) << why;
  EXPECT_NE(testsupport::read_file(conf_).find(long_format), std::string::npos);
  auto [forced, note] = run({"delete", "--force", "linkDown"});
  EXPECT_EQ(forced, 0) << note;
  EXPECT_NE(note.find("note: the comments of " + conf_ + " were not kept"), std::string::npos)
      << note;
  auto [again, quiet] = run({"delete-action", "--force", "nothing"});
  EXPECT_EQ(quiet.find("note:"), std::string::npos);

  testsupport::write_file(conf_, std::string(1, '\0') + kConf);
  auto [incomplete, message] = run({"check"});
  EXPECT_EQ(incomplete, 1);
  EXPECT_NE(message.find("Incomplete file: its writer stopped part-way; the previous content is "
                         "in \"" + conf_ + ".bak\""),
            std::string::npos)
      << message;
}

// Enterprises, categories and actions without an editor; --dry-run shows a
// unified diff and writes nothing.
TEST_F(HubconfEdits, EnterprisesCategoriesAndActions) {
  auto [dry, diff] = run({"add-enterprise", "--dry-run", "juniper", "1.3.6.1.4.1.2636"});
  EXPECT_EQ(dry, 0);
  EXPECT_NE(diff.find("\n+juniper {1.3.6.1.4.1.2636}\n"), std::string::npos) << diff;
  EXPECT_EQ(testsupport::read_file(conf_), kConf);
  struct Step {
    std::vector<std::string> args;
    int status;
    std::string in_file, message;  // in_file "" when only the status counts
  } steps[] = {
      {{"add-enterprise", "juniper", "1.3.6.1.4.1.2636"}, 0, "juniper {1.3.6.1.4.1.2636}\n", ""},
      {{"add-enterprise", "#x", "1.2"}, 2, "", "the name begins with \"#\""},
      {{"delete-enterprise", "cisco"}, 1, "", "trap formats of cisco remain"},
      {{"delete-enterprise", "juniper"}, 0, "", ""},
      {{"set-category", "12", "Env Events"}, 0, "CATEGORY 12 \"Env Events\"\n", ""},
      {{"set-category", "13", "IGNORE"}, 1, "", "\"IGNORE\" is already category 9"},
      {{"delete-category", "IGNORE"}, 1, "", "trap format linkDown uses \"IGNORE\""},
      {{"delete-category", "Env Events"}, 0, "", ""},
      {{"set-action", "Ping", "10", "ping -c 1 $A", "Pings it."}, 0,
       "ACTION 10 \"Ping\" ping -c 1 $A\nSDESC\nPings it.\nEDESC\n", ""},
      {{"set-action", "Ping", "5", "ping $A"}, 0,
       "ACTION 5 \"Ping\" ping $A\nSDESC\n\nEDESC\n", ""},
      {{"set-action", "Bad \"name\"", "5", "x"}, 2, "", "the title holds a double quote"},
      {{"delete-action", "Ping"}, 0, "", ""},
  };
  for (const Step &s : steps) {
    auto [status, output] = run(s.args);
    EXPECT_EQ(status, s.status) << s.args[0] << " " << s.args[1] << ": " << output;
    if (!s.in_file.empty()) {
      EXPECT_NE(testsupport::read_file(conf_).find(s.in_file), std::string::npos)
          << testsupport::read_file(conf_);
    }
    EXPECT_NE(output.find(s.message), std::string::npos) << output;
  }
  EXPECT_EQ(testsupport::read_file(conf_).find("juniper"), std::string::npos);
  EXPECT_EQ(testsupport::read_file(conf_).find("Ping"), std::string::npos);
}

// Two editors race: one adds and removes a mapped format over and over,
// the other changes another.  Every write of either file happens under the
// one lock, so both files read after every round, and the alert file never
// names a format that is gone.
TEST_F(HubconfEdits, TwoEditorsRacingKeepBothFilesInStep) {
  const std::string tool = HUBCONF_PATH;
  std::string a = "for i in 1 2 3 4 5 6; do \"$0\" set linkDown -s $i; \"$0\" delete gone; "
                  "\"$0\" set gone -e cisco -g 6 -s 99 -c IGNORE -f x; done 2>/dev/null >&2";
  std::string b = "for i in 1 2 3 4 5 6; do \"$0\" set other -e cisco -g 6 -s 50 -c IGNORE -f $i; "
                  "done 2>/dev/null >&2";
  std::thread first([&] { testsupport::run_command({"/bin/sh", "-c", a, tool}); });
  testsupport::run_command({"/bin/sh", "-c", b, tool});
  first.join();
  auto [status, output] = run({"check"});
  EXPECT_EQ(status, 0) << output;
  EXPECT_NE(output.find("1 trap format mapped to alerts"), std::string::npos) << output;
  EXPECT_NE(testsupport::read_file(vora_).find("linkDown {1.3.6.1.4.1.9} 2 "), std::string::npos);
}

}  // namespace
