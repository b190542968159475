// Message catalog, time text, white-space stripping, the identifier
// parser of the platform services, the gathering daemon's probes and
// sendsig.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "env_probe.h"
#include "event.h"
#include "events_msg.h"
#include "kz_platform.h"
#include "support/fixtures.h"

namespace {

// The probes take the pid file's path once per process: fix it before any
// test runs.
class PidFileEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { setenv("KZSNMPGATPIDFILE", path().c_str(), 1); }
  static const std::string &path() {
    static const std::string file = "/tmp/events_probe_test_" + std::to_string(getpid()) + ".pid";
    return file;
  }
  void TearDown() override { unlink(path().c_str()); }
};
::testing::Environment *const pid_file_environment =
    ::testing::AddGlobalTestEnvironment(new PidFileEnvironment);

// Runs `body` in a child process (the catalog opens once per process) and
// returns its exit status.
template <typename Body>
int in_child(Body body) {
  pid_t pid = fork();
  if (pid == 0) _exit(body());
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 100;
}

TEST(MessageCatalog, CatalogTextsAreCachedAndBuiltInTextsServeWithoutOne) {
  testsupport::TempDir dir;
  const std::string msg = dir.file("events.msg");
  testsupport::write_file(msg, "$set 1\n6 Formatzeichenkette zu lang\n"
                               "9 %s hat \"%s\" geaendert\n");
  ASSERT_EQ(testsupport::run_command({"gencat", dir.file("events.cat"), msg}), 0);
  std::string nlspath = dir.path() + "/%N";
  EXPECT_EQ(in_child([&] {
              setenv("NLSPATH", nlspath.c_str(), 1);
              char fallback[] = "Format string too long", missing[] = "not in the catalog";
              errno = 42;
              char *text = _eventsMsg(1, 6, fallback);
              if (strcmp(text, "Formatzeichenkette zu lang") != 0 || errno != 42) return 1;
              if (___eventsMsg_fd__() == -1 || _eventsMsg(1, 6, fallback) != text) return 2;
              char *fallback_copy = _eventsMsg(1, 7, missing);
              if (strcmp(fallback_copy, missing) != 0 || fallback_copy == missing) return 3;
              if (_eventsMsg(1, 0, missing) != missing) return 4;
              if (_eventsMsg(99, 3, missing) != missing) return 5;
              const char *german = "%s hat \"%s\" geaendert";
              if (strcmp(_eventsMsg(1, 9, missing), german) != 0) return 6;
              return 0;
            }),
            0);
  EXPECT_EQ(in_child([] {
              setenv("NLSPATH", "/nonexistent/%N", 1);
              char text[] = "Remote does not support SNMP.";
              char *first = _eventsMsg(1, 1, text);
              if (strcmp(first, text) != 0 || _eventsMsg(1, 1, text) != first) return 1;
              return ___eventsMsg_fd__() == -1 ? 0 : 2;
            }),
            0);
}

TEST(TimeText, LargestUnitThatDividesTheInterval) {
  const std::pair<uint32_t, const char *> cases[] = {
      {0, "0s"},           {99, "0s"},          {100, "1s"},        {9000, "90s"},
      {12000, "2m"},       {360000, "1h"},      {8640000, "1d"},    {8646000, "1441m"},
      {8640100, "86401s"}, {17280000, "2d"},    {9000099, "25h"},   {4294967295u, "42949672s"},
  };
  for (const auto &[ticks, expected] : cases) {
    uint32_t value = ticks;
    char text[16];
    EXPECT_EQ(ICFEvtTimeInt2String(&value, text), 0);
    EXPECT_STREQ(text, expected) << ticks;
  }
}

TEST(StripWhitespace, LeadingTrailingAndBoth) {
  struct Case {
    const char *text;
    stripType mask;
    const char *expected;
  } cases[] = {
      {"  a b\t", stripBoth, "a b"},     {"  a b\t", stripLeading, "a b\t"},
      {"  a b\t", stripTrailing, "  a b"}, {"   ", stripTrailing, ""},
      {"   ", stripLeading, ""},         {"\n\va  \r\n", stripBoth, "a"},
      {"", stripBoth, ""},              {"  a  ", static_cast<stripType>(3), "  a  "},
      // Bytes above 127 are never white space (0xA0 is a no-break space
      // in Latin-1, 0x85 a next-line).
      {"\xA0x\x85", stripBoth, "\xA0x\x85"},
  };
  for (const Case &c : cases) {
    std::string text = c.text;
    _KZstrip_whitespace(text.data(), c.mask);
    EXPECT_STREQ(text.c_str(), c.expected) << '"' << c.text << "\" mode " << c.mask;
  }
  _KZstrip_whitespace(nullptr, stripBoth);
}

TEST(NumericObjectId, DottedTextToArcs) {
  // Room for two arcs at most; a failed read leaves none.
  const struct {
    const char *text;
    int result;
    std::vector<ObjectIdEMS> arcs;
  } cases[] = {
      {".1.3", 0, {1, 3}}, {"1.3", 0, {1, 3}}, {".", 0, {}}, {".4294967295", 0, {4294967295u}},
      {".4294967296", -1, {}}, {".1..3", -1, {}}, {".1.3.", -1, {}}, {".1.x", -1, {}},
      {". 1", -1, {}}, {".1.2.3", -1, {}},
  };
  for (const auto &c : cases) {
    ObjectIdEMS arcs[16];
    int length = 2;
    EXPECT_EQ(KZmib_read_numeric_objid(c.text, arcs, &length), c.result) << c.text;
    EXPECT_EQ(std::vector<ObjectIdEMS>(arcs, arcs + length), c.arcs) << c.text;
  }
}

TEST(GatherProbe, RunningMeansSomeoneHoldsTheLock) {
  const std::string &path = PidFileEnvironment::path();
  EXPECT_STREQ(getSnmpGatherPidFile(), path.c_str());
  setenv("KZSNMPGATPIDFILE", "/elsewhere", 1);
  EXPECT_STREQ(getSnmpGatherPidFile(), path.c_str()) << "taken once per process";
  setenv("KZSNMPGATPIDFILE", path.c_str(), 1);

  unlink(path.c_str());
  EXPECT_EQ(isSnmpGatherRunning(), 0) << "no pid file";
  testsupport::write_file(path, "12345\n");
  EXPECT_EQ(isSnmpGatherRunning(), 0) << "pid file without a lock";

  // A child plays the daemon: it locks the file and waits to be stopped.
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t daemon = fork();
  if (daemon == 0) {
    int fd = open(path.c_str(), O_RDWR);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (fd < 0 || fcntl(fd, F_SETLK, &lock) != 0) _exit(1);
    (void)write(ready[1], "x", 1);
    pause();
    _exit(0);
  }
  char signal;
  ASSERT_EQ(read(ready[0], &signal, 1), 1);
  EXPECT_EQ(isSnmpGatherRunning(), 1);
  kill(daemon, SIGTERM);
  waitpid(daemon, nullptr, 0);
  close(ready[0]);
  close(ready[1]);
  EXPECT_EQ(isSnmpGatherRunning(), 0) << "the lock ends with the process";
}

TEST(SendSig, SignalsTheProcessNamedInAPidFile) {
  testsupport::TempDir dir;
  pid_t child = fork();
  if (child == 0) {
    pause();
    _exit(0);
  }
  testsupport::write_file(dir.file("child.pid"), std::to_string(child) + "\n");
  testsupport::write_file(dir.file("junk.pid"), "not a pid\n");
  EXPECT_EQ(sendsig(SIGTERM, "anything", dir.file("child.pid").c_str()), 0);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  EXPECT_EQ(sendsig(SIGTERM, nullptr, dir.file("child.pid").c_str()), child) << "now gone";
  EXPECT_EQ(sendsig(SIGTERM, nullptr, dir.file("junk.pid").c_str()), 1);
  EXPECT_EQ(sendsig(SIGTERM, nullptr, dir.file("absent.pid").c_str()), 1);
}

}  // namespace
