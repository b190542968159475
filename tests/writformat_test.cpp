// Configuration write side: the writer's exact text, round trips of the
// bundled files, the editing helpers, the change notice through the
// development hub, and a writer that dies or fails part-way.

#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "alert_mapping.h"
#include "support/channel.h"
#include "trapspec_writer.h"
#include "trp_format.h"

using namespace std::chrono_literals;
using testsupport::read_file;
using testsupport::write_file;

namespace {

// The text with its time-stamp line checked and replaced by a fixed one.
std::string without_stamp(const std::string &text) {
  static const std::regex stamp(
      "# Created by qwmtrap at [A-Z][a-z]{2} [A-Z][a-z]{2} \\d\\d \\d\\d:\\d\\d:\\d\\d \\d{4}"
      "( by [^\\n]*)?\\n");
  EXPECT_TRUE(std::regex_search(text, stamp)) << text;
  return std::regex_replace(text, stamp, "# STAMP\n", std::regex_constants::format_first_only);
}

class Writer : public ::testing::Test {
 protected:
  void SetUp() override {
    free_all_info();
    setHubdConfFile(conf_.c_str());
    setenv("VORAD_CONF", vora_.c_str(), 1);
    write_file(vora_, "");
  }
  void TearDown() override {
    free_all_info();
    setHubdConfFile(nullptr);
    unsetenv("VORAD_CONF");
    trpFormatExpandSourceFiles = 1;
  }
  // Locks the configuration, reads it, writes the model back.
  void rewrite() {
    char *message = nullptr, *error = nullptr;
    FILE *fp = lockHubdConfFile(&message);
    ASSERT_NE(fp, nullptr) << message;
    EXPECT_EQ(read_trapspec_file(&error), 0) << error;
    EXPECT_STREQ(error, "");
    EXPECT_EQ(write_trapspec_file(fp), 0);
  }

  testsupport::TempDir dir_;
  std::string conf_ = dir_.file("hubd.conf"), vora_ = dir_.file("vorad.conf");
};

TEST_F(Writer, ExactTextOfAnEmptyModelAndOfEveryOptionalLine) {
  write_file(conf_, "previous\n");
  char *message = nullptr;
  FILE *fp = lockHubdConfFile(&message);
  ASSERT_NE(fp, nullptr);
  ASSERT_EQ(write_trapspec_file(fp), 0);
  const std::string banner = "###################\n#\n# ";
  const std::string head =
      "#\n# STAMP\n#\n" + banner + "enterprises:\n#\n" + banner + "display categories:\n#\n";
  const std::string enterprises = banner + "enterprises:\n#\n";
  const std::string formats = "#\n# User added trap formats:\n#\n";
  EXPECT_EQ(without_stamp(read_file(conf_)), head + enterprises + formats);
  const passwd *user = getpwuid(geteuid());
  ASSERT_NE(user, nullptr);
  EXPECT_NE(read_file(conf_).find(std::string(" by ") + user->pw_name + "\n"), std::string::npos);
  EXPECT_EQ(read_file(conf_ + ".bak"), "previous\n");

  const std::string full =
      "full {1.3.6.1.4.1.9} 6 7 T 4 1 \"Env\"\nTemperature $1 on $A is 100%\n"
      "EXEC /bin/page $A\nDISPLAY Temp $1\nFORWARD\nNODES rtr-1 rtr-2\nEVENT_CLASS Env\n"
      "BEGIN_SLOT_MAPPING\n sensor $1\n value $2\nEND_SLOT_MAPPING\n"
      "SDESC\nLine one.\nLine two.\nEDESC\n"
      "plain {1.3.6.1.4.1.9} 6 8 A 1 0 \"Status Events\"\nplain $A\nSDESC\nEDESC\n";
  write_file(conf_,
             "CATEGORY 3 \"Status Events\"\nCATEGORY 12 \"Env\"\n"
             "ACTION 5 \"Ping\" ping -c 1 $A\nSDESC\nChecks the node.\nEDESC\n"
             "cisco {1.3.6.1.4.1.9}\n" +
                 full);
  rewrite();
  EXPECT_EQ(without_stamp(read_file(conf_)),
            head + "CATEGORY 3 \"Status Events\"\nCATEGORY 9 \"IGNORE\"\nCATEGORY 12 \"Env\"\n" +
                banner +
                "Operator Actions:\n#\nACTION 5 \"Ping\" ping -c 1 $A\n"
                "SDESC\nChecks the node.\nEDESC\n" +
                enterprises + "cisco {1.3.6.1.4.1.9}\n" + formats + full);
}

TEST_F(Writer, BundledFilesSurviveTwoRewritesByteForByte) {
  trpFormatExpandSourceFiles = 0;  // the example's node list names an installed path
  write_file(conf_, read_file(EVENTS_SOURCE_DIR "/examples/hubd.conf"));
  write_file(vora_, read_file(EVENTS_SOURCE_DIR "/examples/vorad.conf"));
  std::string written[2][2];
  for (auto &pass : written) {
    rewrite();
    char *path = nullptr;
    ASSERT_EQ(write_voraspec_file(&path), 0);
    EXPECT_EQ(path, vora_);
    pass[0] = read_file(conf_);
    pass[1] = read_file(vora_);
  }
  for (int file = 0; file < 2; ++file)
    EXPECT_EQ(without_stamp(written[1][file]), without_stamp(written[0][file]));
  // Each write replaces the backup with the content it overwrote.
  EXPECT_EQ(read_file(conf_ + ".bak"), written[0][0]);
  EXPECT_EQ(read_file(vora_ + ".bak"), written[0][1]);
  EXPECT_NE(written[1][1].find("\n96 2 10a1 1002 1 1 \"interface $1 of $A\" \n81 2 2001 20c3 2 "
                               "2 \"$A\" 3 \"ticket for interface $1\"  ;\n"),
            std::string::npos)
      << written[1][1];
  EXPECT_NE(written[1][1].find("coldStart {1.3.6.1.6.3.1.1.5} 0 0 \n92 11 3004  ;\n"),
            std::string::npos);
}

// Texts at and past each limit of the reader: what would not read back as
// it was written is refused before anything is written.
TEST(WritableText, RefusesWhatWouldNotReadBack) {
  const std::string long_description(5019, 'd'), long_format(4094, 'f');
  struct Case {
    int kind;
    std::string text;
    bool refused;
  } cases[] = {
      {TRAP_TEXT_NAME, "linkDown", false},
      {TRAP_TEXT_NAME, "#linkDown", true},
      {TRAP_TEXT_NAME, std::string(39, 'n'), false},
      {TRAP_TEXT_NAME, std::string(40, 'n'), true},
      {TRAP_TEXT_NAME, "link down", true},
      {TRAP_TEXT_FORMAT, "Port $1 down (100%)", false},
      {TRAP_TEXT_FORMAT, "#1 down", true},
      {TRAP_TEXT_FORMAT, "  # down", true},
      {TRAP_TEXT_FORMAT, long_format, false},
      {TRAP_TEXT_FORMAT, long_format + "f", true},
      {TRAP_TEXT_FORMAT, "two\nlines", true},
      {TRAP_TEXT_COMMAND, "/bin/true $1", false},
      {TRAP_TEXT_COMMAND, "/bin/true ", true},
      {TRAP_TEXT_DESCRIPTION, long_description, false},
      {TRAP_TEXT_DESCRIPTION, long_description + "d", true},
      {TRAP_TEXT_DESCRIPTION, "first\n\nsecond", false},
      {TRAP_TEXT_DESCRIPTION, "first\n# a comment", true},
      {TRAP_TEXT_DESCRIPTION, "first\nEDESC\nafter", true},
      {TRAP_TEXT_DESCRIPTION, "first\n  indented", true},
      {TRAP_TEXT_DESCRIPTION, "ends in a newline\n", true},
      {TRAP_TEXT_NODE, "hostA", false},
      {TRAP_TEXT_NODE, "host,A", true},
      {TRAP_TEXT_SLOT_VALUE, "", true},
      {TRAP_TEXT_CATEGORY, "Say \"hi\"", true},
      {TRAP_TEXT_ACTION_COMMAND, " ping", true},
      {TRAP_TEXT_ENTERPRISE_NAME, "CATEGORYish", true},
  };
  for (const Case &c : cases)
    EXPECT_EQ(trapTextProblem(c.kind, c.text.c_str()) != nullptr, c.refused)
        << c.kind << ": " << c.text.substr(0, 60);
}

// Generated models, texts drawn from pools at and past every limit: each
// text the checks accept is set, the model written, read back and written
// again, and the second write equals the first but for its time stamp.
// The reader gives one more default display category on each read until
// all eight are given, so every model has them.
TEST_F(Writer, GeneratedModelsReadBackAsWritten) {
  trpFormatExpandSourceFiles = 0;
  const std::vector<std::string> names = {"linkDown", "#hash", std::string(39, 'n'), "two words",
                                          "x"},
      formats = {"Port $1 down (100%)", "#hash", "  #hash", std::string(4094, 'f'),
                 std::string(4095, 'f'), "", " lead", "tab\\there $*"},
      descriptions = {"", "plain", "two\nlines", "a\n#b", "a\nEDESC\nb", "a\n  c",
                      std::string(5019, 'd'), std::string(5020, 'd'), "trailing\n"},
      words = {"hostA", "hostB", "/etc/nodes", "#x", "a,b", "Ops", "with \"quote\"", " lead",
               "CATEGORY9"},
      data_texts = {"$1 on $A", "two  blanks", "a\" b", "", " x", std::string(1015, 't')};
  std::mt19937 random(17);
  auto pick = [&](const std::vector<std::string> &pool) {
    return pool[std::uniform_int_distribution<size_t>(0, pool.size() - 1)(random)];
  };
  auto below = [&](int n) { return std::uniform_int_distribution<int>(0, n - 1)(random); };
  auto accepted = [](int kind, const std::string &text) {
    return trapTextProblem(kind, text.c_str()) == nullptr;
  };
  int written = 0;
  for (int round = 0; round < 120; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    free_all_info();
    for (int slot : {9, 7, 2, 0, 1, 3, 4, 5, 20 + below(40)}) {
      std::string name = pick(words) + std::to_string(slot);
      EMScategories[slot] = doStrdup(accepted(TRAP_TEXT_CATEGORY, name) ? name.c_str() : "c");
    }
    for (int i = below(3); i > 0; --i) {
      std::string name = pick(words), cmd = pick(words), description = pick(descriptions);
      if (!accepted(TRAP_TEXT_ACTION_NAME, name) || !accepted(TRAP_TEXT_ACTION_COMMAND, cmd) ||
          !accepted(TRAP_TEXT_DESCRIPTION, description))
        continue;
      actionCommands = static_cast<actionCmd *>(doRealloc(
          actionCommands, sizeof(actionCmd) * static_cast<unsigned>(numActionCommands + 1)));
      actionCommands[numActionCommands++] = {doStrdup(name.c_str()), doStrdup(description.c_str()),
                                             below(100), doStrdup(cmd.c_str())};
    }
    for (int e = 1 + below(2); e > 0; --e) {
      std::vector<ObjectIdEMS> oid = {1, 3, 6, 1, 4, 1};
      for (int arcs = below(4); arcs >= 0; --arcs)
        oid.push_back(static_cast<ObjectIdEMS>(below(9)));
      std::string name = pick(words) + std::to_string(e);
      if (!accepted(TRAP_TEXT_ENTERPRISE_NAME, name)) name = "enterprise" + std::to_string(e);
      insert_enterprise(oid.data(), oid.size(), name.c_str());
    }
    for (enterprise_info *e = enterprise_list_head.next; e != nullptr; e = e->next) {
      for (int t = below(24); t > 0; --t) {
        std::string name = pick(names) + std::to_string(t), format = pick(formats),
                    description = pick(descriptions);
        std::vector<std::string> nodes;
        for (int n = below(3); n > 0; --n) nodes.push_back(pick(words) + std::to_string(below(9)));
        bool ok = accepted(TRAP_TEXT_NAME, name) && accepted(TRAP_TEXT_FORMAT, format) &&
                  accepted(TRAP_TEXT_DESCRIPTION, description);
        for (const std::string &node : nodes) ok = ok && accepted(TRAP_TEXT_NODE, node);
        if (!ok) continue;
        char **list = nullptr;
        if (!nodes.empty()) {
          list = static_cast<char **>(doMalloc(sizeof(char *) * nodes.size()));
          for (size_t i = 0; i < nodes.size(); ++i) list[i] = doStrdup(nodes[i].c_str());
        }
        trap_record *r = insertMallocTrapRecord(
            e, const_cast<char *>(name.c_str()), 6, below(2), static_cast<int>(nodes.size()), list,
            9, 'A', doStrdup(format.c_str()), below(2) ? doStrdup("/bin/true $1") : nullptr,
            nullptr, doStrdup(description.c_str()), below(6), 0, below(2),
            below(2) ? const_cast<char *>("Net.Link") : nullptr, 0, nullptr, nullptr);
        // An alert mapping: causes with their actions, lists long enough to
        // need more than one line, texts from the pool.
        alert_record *head = nullptr, **tail = &head;
        auto add = [&](int key, std::vector<int> points, int data) {
          auto *a = static_cast<alert_record *>(doMalloc(sizeof(alert_record)));
          a->subvector = key;
          a->num_codepoints = static_cast<int>(points.size());
          a->codepoints = static_cast<int *>(doMalloc(sizeof(int) * (points.size() + 1)));
          std::copy(points.begin(), points.end(), a->codepoints);
          a->type = key == 0x92 ? 17 : 0;
          a->detailed_data =
              static_cast<detailed_data_record **>(doMalloc(sizeof(void *) * (data + 1u)));
          for (int i = 0; i < data; ++i) {
            auto *d = static_cast<detailed_data_record *>(doMalloc(sizeof(detailed_data_record)));
            d->dataid = i + 1;
            d->dd_args = static_cast<trap_element *>(doMalloc(sizeof(trap_element)));
            makeFormatString(doStrdup(pick(data_texts).c_str()), d->dd_args);
            a->detailed_data[a->num_detaileddata++] = d;
          }
          *tail = a;
          tail = &a->next;
        };
        switch (below(4)) {
          case 0:
            add(0x94, {0xa1, 0x10}, 1);
            add(0x81, {0x20}, below(2) ? 0 : 1);  // one field too many: refused
            break;
          case 1:
            add(0x93, std::vector<int>(150 + below(200), 0x12345678), 0);
            add(0x92, {0x33}, 0);
            break;
          case 2:
            add(0x81, {0x20}, 0);  // actions without a cause: refused
            break;
          default:
            add(0x98, {}, 2);
        }
        add(0, {}, 0);
        if (insert_malloc_alert_record(e, r->name, 6, 0, head) != 0) {
          trap_record holder = {};
          holder.alert_element = head;
          delete_vora_record(&holder);
        }
      }
    }
    std::string first[2], second[2];
    for (std::string *pass : {first, second}) {
      write_file(conf_, "");
      FILE *fp = fopen(conf_.c_str(), "r+");
      char *path = nullptr, *error = nullptr;
      // Refused: formats the reader would merge, a mapping hung under the
      // name a format had before an update.
      if (write_trapspec_file(fp) != 0) {
        fclose(fp);
        break;
      }
      if (write_voraspec_file(&path) != 0) break;
      pass[0] = without_stamp(read_file(conf_));
      pass[1] = without_stamp(read_file(vora_));
      ASSERT_EQ(read_trapspec_file(&error), 0) << error << pass[0].substr(0, 2000);
      ASSERT_STREQ(error, "");
    }
    if (second[0].empty()) continue;
    ++written;
    EXPECT_EQ(second[0], first[0]);
    EXPECT_EQ(second[1], first[1]);
  }
  EXPECT_GT(written, 60);
}

TEST_F(Writer, EditingHelpers) {
  struct OidCase {
    const char *text;
    int result;
    std::vector<unsigned> arcs;
  } oid_cases[] = {{" .1.3.6,1 ", 0, {1, 3, 6, 1}},
                   {"1.3x", 1, {1, 3}},
                   {"", 0, {}},
                   {"4294967295.2", 0, {4294967295u, 2}},
                   {"-1", 1, {}}};
  for (const OidCase &c : oid_cases) {
    unsigned oid[8];
    unsigned long length = 99;
    EXPECT_EQ(cname_to_oid(const_cast<char *>(c.text), oid, &length), c.result) << c.text;
    EXPECT_EQ(std::vector<unsigned>(oid, oid + length), c.arcs) << c.text;
  }
  std::vector<unsigned> long_oid(101, 7);
  EXPECT_EQ(std::string(oid_to_string(long_oid.data(), 101)).size(), 100 * 2 - 1u);

  write_file(conf_,
             "ACTION 1 \"a\" x\nSDESC\nEDESC\nACTION 2 \"b\" y\nSDESC\nEDESC\n"
             "e1 {1.3.6.1.4.1.9}\n"
             "t1 {1.3.6.1.4.1.9} 2 0 A 1 0 \"IGNORE\"\nf\nSDESC\nEDESC\n"
             "t2 {1.3.6.1.4.1.9} 6 5 A 1 0 \"IGNORE\"\nf\nSDESC\nEDESC\n"
             "t3 {1.3.6.1.4.1.9} 6 9 A 1 0 \"IGNORE\"\nf\nSDESC\nEDESC\n");
  char *error = nullptr;
  ASSERT_EQ(read_trapspec_file(&error), 0) << error;
  enterprise_info *e = nullptr;
  EXPECT_EQ(name_to_enterprise(const_cast<char *>("e2"), &e), -1);
  EXPECT_EQ(e, nullptr);
  ASSERT_EQ(name_to_enterprise(const_cast<char *>("e1"), &e), 0);
  trap_record *found = nullptr;
  find_exact_trap_record(e, 6, 5, &found);
  EXPECT_STREQ(found->name, "t2");
  find_exact_trap_record(e, 6, 6, &found);
  EXPECT_EQ(found, nullptr);
  EXPECT_EQ(delete_trap_record(e, 6, 5), 0);
  EXPECT_EQ(delete_trap_record(e, 6, 5), -1);
  EXPECT_EQ(deleteTrapRecord(const_cast<char *>("t3")), 0);
  EXPECT_EQ(deleteTrapRecord(const_cast<char *>("t3")), -1);
  EXPECT_STREQ(e->trap_rec_list_head.next->name, "t1");
  EXPECT_EQ(e->trap_rec_list_head.next->next, nullptr);
  EXPECT_EQ(nameToExactTrap("t2"), nullptr);

  EXPECT_EQ(deleteTrapAction(const_cast<char *>("zz")), 1);
  EXPECT_EQ(deleteTrapAction(const_cast<char *>("a")), 0);
  ASSERT_EQ(numActionCommands, 1);
  EXPECT_STREQ(actionCommands[0].name, "b");
  EXPECT_EQ(deleteTrapAction(const_cast<char *>("b")), 0);
  EXPECT_EQ(actionCommands, nullptr);
}

TEST_F(Writer, ChangeNoticeReachesTheHubOrWarns) {
  const std::string socket = dir_.file("hub.sock"), log = dir_.file("platform.log");
  setenv("KZ_LOG", log.c_str(), 1);
  unsetenv("KZ_CLIENT");
  setenv("KZ_HUBD_SOCKET", socket.c_str(), 1);
  const std::string warning = "Warning: " + conf_ +
                              " updated, but cannot connect event to hubd.\nChanges won't take "
                              "effect until hubd and qwmevents are restarted.";
  char *message = nullptr;
  EXPECT_EQ(sendFMTCHGevent(const_cast<char *>("editor"), 6, &message), -1);
  ASSERT_NE(message, nullptr);
  EXPECT_EQ(message, warning);
  EXPECT_NE(read_file(log).find("sendFMTCHevent send event completed. errRoutine is connect."),
            std::string::npos);

  testsupport::ChildProcess hub({HUBD_DEV_PATH, "--unix", socket});
  ASSERT_NE(hub.wait_for_line("hubd-dev: ready", 10s), "");
  event_infoEMS listener{};
  ASSERT_GE(open_event(&listener, 2, socket.c_str(), EVENT_TRANS_UNIX), 0);
  EXPECT_EQ(sendFMTCHGevent(const_cast<char *>("editor"), 6, &message), 0);
  EXPECT_EQ(message, nullptr);
  testsupport::Trap trap;
  trap_headerEMS header{};
  do ASSERT_GT(testsupport::receive_within(&listener, &trap, &header, 3s), 0);
  while (trap.info.specific != EVENT_FORMAT_CHANGED);
  EXPECT_EQ(trap.text(2), "editor changed format file \"" + conf_ + "\"");
  close_event(&listener);
  EXPECT_NE(read_file(log).find("SendFMTCHevent() open event "), std::string::npos);
  unsetenv("KZ_LOG");
  unsetenv("KZ_HUBD_SOCKET");
}

// Adds `count` trap formats, enough to grow a small file past a few KiB.
void add_formats(int count) {
  enterprise_info *e = enterprise_list_head.next;
  for (int i = 1; i <= count; ++i)
    insertMallocTrapRecord(e, const_cast<char *>("t"), 6, i, 0, nullptr, 9, 'A',
                           doStrdup("a format long enough to grow the file quickly: $*"), nullptr,
                           nullptr, nullptr, 1, 0, 0, nullptr, 0, nullptr, nullptr);
}

// What a reader makes of the file: "" when it reads, else its error.
std::string read_error(const std::string &path) {
  setHubdConfFile(path.c_str());
  char *error = nullptr;
  int result = read_trapspec_file(&error);
  return result == 0 ? std::string() : std::string(error);
}

const char kOriginal[] =
    "cisco {1.3.6.1.4.1.9}\nt0 {1.3.6.1.4.1.9} 6 0 A 1 0 \"IGNORE\"\nfirst\nSDESC\nEDESC\n";

// A child rewrites a small configuration as a large one under a file-size
// limit, which stops the backup's write or the configuration's.  Killed
// (SIGXFSZ made SIGKILL), the configuration is the old one or a file every
// reader refuses, naming the backup; failing (SIGXFSZ ignored), the old
// content is put back.  Either way the backup is whole.
TEST_F(Writer, WriterDyingOrFailingMidWriteLosesNothing) {
  const std::string previous_backup = "previous backup\n" + std::string(8000, 'p') + "\n";
  struct Case {
    bool killed;
    rlim_t limit;   // below the backup's size stops its write
    bool in_backup;
  } cases[] = {{true, 4096, true}, {false, 4096, true}, {true, 16384, false},
               {false, 16384, false}};
  for (const Case &c : cases) {
    SCOPED_TRACE(std::string(c.killed ? "killed" : "write fails") +
                 (c.in_backup ? " in the backup" : " in the configuration"));
    // A backup's write meets the limit only when the old content exceeds it.
    const std::string original =
        kOriginal + std::string(c.in_backup ? "#" + std::string(6000, 'c') + "\n" : "");
    write_file(conf_, original);
    write_file(conf_ + ".bak", previous_backup);
    fflush(nullptr);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      char *message = nullptr, *error = nullptr;
      FILE *fp = lockHubdConfFile(&message);
      if (fp == nullptr || read_trapspec_file(&error) != 0) _exit(3);
      add_formats(400);
      signal(SIGXFSZ, c.killed ? +[](int) { raise(SIGKILL); } : SIG_IGN);
      rlimit limit = {c.limit, c.limit};
      setrlimit(RLIMIT_FSIZE, &limit);
      _exit(write_trapspec_file(fp) == 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (c.killed) {
      ASSERT_TRUE(WIFSIGNALED(status)) << status;
    } else {
      ASSERT_TRUE(WIFEXITED(status));
      EXPECT_EQ(WEXITSTATUS(status), 1);
    }
    EXPECT_EQ(read_file(conf_ + ".bak"), c.in_backup ? previous_backup : original);
    const std::string now = read_file(conf_);
    if (now != original) {
      EXPECT_TRUE(c.killed && !c.in_backup) << now.substr(0, 200);
      EXPECT_EQ(read_error(conf_), "Incomplete file: its writer stopped part-way; the previous "
                                   "content is in \"" + conf_ + ".bak\"\n");
    }
    if (!c.in_backup) {
      EXPECT_EQ(read_error(conf_ + ".bak"), "");
    }
    setHubdConfFile(conf_.c_str());
  }
}

// The backup is the previous content of the file written, beside that
// file, whatever the stream: an export file leaves the configuration's
// backup alone; a write-only stream is read through a second descriptor;
// an empty or a non-regular file has no backup.  A symbolic link in the
// backup's place is refused; the backup gets the file's mode.
TEST_F(Writer, BackupBelongsToTheFileWrittenAndIsWrittenSafely) {
  const std::string exported = dir_.file("export.conf"), target = dir_.file("target");
  struct Case {
    const char *name;
    std::string file, before;  // what the written file held
    bool write_only;
    bool backup;               // a backup of `before` is expected
  } cases[] = {
      {"export file", exported, "old export\n", true, true},
      {"write-only configuration", conf_, kOriginal, true, true},
      {"read-write configuration", conf_, kOriginal, false, true},
      {"empty file", exported, "", false, false},
      {"not a regular file", "/dev/null", "", true, false},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    write_file(conf_, kOriginal);
    write_file(conf_ + ".bak", "real backup\n");
    unlink((exported + ".bak").c_str());
    if (c.file != "/dev/null") write_file(c.file, c.before);
    int fd = open(c.file.c_str(), c.write_only ? O_WRONLY : O_RDWR);
    ASSERT_GE(fd, 0);
    FILE *fp = fdopen(fd, c.write_only ? "w" : "r+");
    ASSERT_EQ(write_trapspec_file(fp), 0);
    if (c.file != "/dev/null") {
      EXPECT_NE(read_file(c.file).find("# display categories:"), std::string::npos);
    }
    std::string backup = c.file + ".bak";
    struct stat info;
    EXPECT_EQ(stat(backup.c_str(), &info) == 0, c.backup);
    if (c.backup) {
      EXPECT_EQ(read_file(backup), c.before);
    }
    if (c.file != conf_) {
      EXPECT_EQ(read_file(conf_ + ".bak"), "real backup\n");
    }
  }

  write_file(conf_, kOriginal);
  chmod(conf_.c_str(), 0600);
  write_file(conf_ + ".bak", "world-readable backup\n");
  chmod((conf_ + ".bak").c_str(), 0666);
  char *message = nullptr;
  FILE *fp = lockHubdConfFile(&message);
  ASSERT_EQ(write_trapspec_file(fp), 0);
  struct stat info;
  ASSERT_EQ(stat((conf_ + ".bak").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  EXPECT_EQ(read_file(conf_ + ".bak"), kOriginal);

  write_file(target, "not to be touched\n");
  unlink((conf_ + ".bak").c_str());
  ASSERT_EQ(symlink(target.c_str(), (conf_ + ".bak").c_str()), 0);
  const std::string current = read_file(conf_);
  fp = lockHubdConfFile(&message);
  testsupport::CapturedStream err(2);
  EXPECT_EQ(write_trapspec_file(fp), -1);
  EXPECT_NE(err.text().find("the backup's name is a symbolic link"), std::string::npos);
  fclose(fp);
  EXPECT_EQ(read_file(target), "not to be touched\n");
  EXPECT_EQ(read_file(conf_), current);
}

// The locked configuration and the alert file are not inherited by
// programs the editor starts: the lock would outlive the editor.
TEST_F(Writer, StreamsAreNotInheritedByPrograms) {
  write_file(conf_, kOriginal);
  char *message = nullptr, *path = nullptr;
  FILE *conf = lockHubdConfFile(&message), *vora = nullptr;
  ASSERT_NE(conf, nullptr);
  ASSERT_EQ(open_vora_lock_file("r", &vora, &path), 0);
  for (FILE *fp : {conf, vora}) EXPECT_NE(fcntl(fileno(fp), F_GETFD) & FD_CLOEXEC, 0);
  fclose(vora);
  fclose(conf);
}

// A full file system: the new content does not fit, and the old content is
// put back; the backup does not fit, and nothing is touched.  Needs a
// small tmpfs, which only root can mount.
TEST_F(Writer, FullFileSystemLosesNothing) {
  const std::string mnt = dir_.file("small");
  mkdir(mnt.c_str(), 0700);
  if (mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=64k") != 0)
    GTEST_SKIP() << "cannot mount a small tmpfs: " << strerror(errno);
  const std::string conf = mnt + "/hubd.conf", filler = mnt + "/filler";
  for (int free_pages : {2, 0}) {
    SCOPED_TRACE(free_pages == 0 ? "no room for the backup" : "no room for the new content");
    unlink(filler.c_str());
    write_file(conf, kOriginal);
    write_file(conf + ".bak", "previous backup\n");
    int fd = open(filler.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    char page[4096] = {};
    off_t filled = 0;
    while (write(fd, page, sizeof page) == static_cast<ssize_t>(sizeof page)) filled += 4096;
    ASSERT_EQ(ftruncate(fd, filled - 4096 * free_pages), 0);
    close(fd);
    setHubdConfFile(conf.c_str());
    char *message = nullptr, *error = nullptr;
    FILE *fp = lockHubdConfFile(&message);
    ASSERT_NE(fp, nullptr);
    ASSERT_EQ(read_trapspec_file(&error), 0) << error;
    add_formats(400);
    testsupport::CapturedStream err(2);
    EXPECT_EQ(write_trapspec_file(fp), -1);
    EXPECT_NE(err.text().find("No space left on device"), std::string::npos) << err.text();
    fclose(fp);
    EXPECT_EQ(read_file(conf), kOriginal);
    EXPECT_EQ(read_file(conf + ".bak"), free_pages == 0 ? "previous backup\n" : kOriginal);
    free_all_info();
  }
  setHubdConfFile(conf_.c_str());
  umount2(mnt.c_str(), MNT_DETACH);
}

}  // namespace
