// End to end through the development hub: every transport sends to the
// hub, which relays to listening clients; the command-line client sends,
// listens and fails as a command should; the hub ends cleanly on SIGTERM.

#include <arpa/inet.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "event.h"
#include "support/channel.h"

using namespace std::chrono_literals;
using namespace testsupport;

namespace {

constexpr int kFormatChange = 50790438;

struct HubSetup {
  HubSetup()
      : host(unique_loopback()),
        raw_port(std::to_string(17100 + getpid() % 800)),
        hub({"--unix", dir.file("hub.sock"), "--tcp", host + ":1661", "--raw-tcp",
             host + ":" + raw_port, "--udp", host + ":162", "--verbose"}) {}
  TempDir dir;
  std::string host;
  std::string raw_port;
  DevHub hub;
};

// Receives until the event `specific` arrives; other traps are skipped.
bool receive_event(event_infoEMS *ei, uint32_t specific, Trap *trap, trap_headerEMS *header) {
  for (int i = 0; i < 10; ++i) {
    if (receive_within(ei, trap, header, 3s) <= 0) return false;
    if (trap->info.specific == specific) return true;
  }
  return false;
}

TEST(DevHub, RelaysEventsFromEveryTransport) {
  HubSetup setup;
  std::string path = setup.dir.file("hub.sock");
  setenv("KZ_HUBD_SOCKET", path.c_str(), 1);
  unsetenv("KZ_CLIENT");
  event_infoEMS listener{}, raw_listener{};
  ASSERT_GE(open_event(&listener, 2, path.c_str(), 2), 0);
  std::string raw_name = setup.host + "+hub/" + setup.raw_port;
  ASSERT_GE(open_event(&raw_listener, 4, raw_name.c_str(), 6), 0);
  struct Case {
    int trans;
    std::string name;
    bool headed;  // the hub knows the sender's header
  } cases[] = {
      {1, setup.host, false}, {2, path, true},      {3, setup.host, true},
      {5, "", true},          {6, raw_name, false},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE("transport " + std::to_string(c.trans));
    event_infoEMS sender{};
    sender.status = 11;
    sender.target = 22;
    ASSERT_GE(open_event(&sender, 9, c.name.c_str(), c.trans), 0);
    std::string text = "sent by transport " + std::to_string(c.trans);
    EXPECT_EQ(send_event(&sender, kFormatChange, "gw7", text.c_str(), "", ""), 0);
    close_event(&sender);

    for (event_infoEMS *receiver : {&listener, &raw_listener}) {
      Trap trap;
      trap_headerEMS header{};
      ASSERT_TRUE(receive_event(receiver, kFormatChange, &trap, &header));
      EXPECT_EQ(trap.text(2), text);
      EXPECT_EQ(trap.vars[0].val.integer, 9);
      if (receiver == &listener) {
        EXPECT_EQ(header.src, c.headed ? 9u : 1u);
        EXPECT_EQ(header.pid, c.headed ? getpid() : -1);
        EXPECT_EQ(header.status, c.headed ? 11 : 0);
        EXPECT_EQ(header.target, c.headed ? 22u : 0u);
        EXPECT_NEAR(static_cast<double>(listener.time), static_cast<double>(time(nullptr)), 5.0);
      }
    }
  }
  close_event(&listener);
  close_event(&raw_listener);
}

TEST(DevHub, HubeventListensToTrapsFromSnmptrapAndHubevent) {
  HubSetup setup;
  std::string path = setup.dir.file("hub.sock");
  ChildProcess listen({HUBEVENT_PATH, "listen", "-t", "unix", "-n", path, "--count", "4"});
  ASSERT_NE(listen.wait_for_line("hubevent: listening", 5s), "");
  ASSERT_EQ(run_command({"snmptrap", "-v1", "-c", "public", "-m", "", "-M", "", setup.host + ":162",
                         "1.3.6.1.4.1.49999.6.3.1", "10.1.2.3", "6", "17", "12345",
                         "1.3.6.1.4.1.49999.6.3.1.1.3.0", "s", "gateway7"}),
            0);
  EXPECT_NE(listen.wait_for_line("trap 1: ", 5s), "");
  EXPECT_NE(listen.wait_for_line("agent       10.1.2.3", 5s), "");
  EXPECT_NE(listen.wait_for_line("1.3.6.1.4.1.49999.6.3.1.1.3.0 = STRING \"gateway7\"", 5s), "");

  ASSERT_EQ(run_command({HUBEVENT_PATH,
                         "send",
                         "-t",
                         "tcp",
                         "-n",
                         setup.host,
                         "-s",
                         "3",
                         "trap",
                         "1.3.6.1.4.1.49999.9",
                         "6",
                         "33",
                         "1.3.6.1.2.1.1.5.0",
                         "s",
                         "router",
                         "1.3.6.1.2.1.1.3.0",
                         "t",
                         "4294967295",
                         "1.3.6.1.2.1.1.2.0",
                         "o",
                         "1.3.6.1.4.1.49999"}),
            0);
  EXPECT_NE(listen.wait_for_line("enterprise  1.3.6.1.4.1.49999.9", 5s), "");
  EXPECT_NE(listen.wait_for_line("specific    33", 5s), "");
  EXPECT_NE(listen.wait_for_line("= STRING \"router\"", 5s), "");
  EXPECT_NE(listen.wait_for_line("= TimeTicks 4294967295", 5s), "");
  EXPECT_NE(listen.wait_for_line("= OID 1.3.6.1.4.1.49999", 5s), "");
  EXPECT_EQ(listen.wait_for_line("hubevent: ", 5s), "") << "listen ends after --count traps";
  int status = listen.stop();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST(DevHub, CommandLineExitStatuses) {
  HubSetup setup;
  std::string path = setup.dir.file("hub.sock");
  std::string absent = setup.dir.file("absent.sock");
  struct Case {
    std::vector<std::string> args;
    int status;
  } cases[] = {
      {{"send", "-t", "unix", "-n", path, "event", "50790438", "hello"}, 0},
      {{"send", "-t", "2", "-n", path, "--host", "gw", "--object", "o", "event", "7", "x"}, 0},
      {{"send", "-t", "unix", "-n", path, "trap", "1.3.6.1.4.1.9", "6", "1", "1.3.6.1.2.1.1.1.0",
        "x", "0a0b"},
       0},
      {{"send", "-t", "unix", "-n", absent, "event", "1", "x"}, 1},
      {{"send", "-t", "tcp", "-n", "127.0.0.1+x", "event", "1", "x"}, 1},
      {{}, 2},
      {{"shout"}, 2},
      {{"send", "-s", "0", "-n", path, "event", "1", "x"}, 2},
      {{"send", "-t", "carrier-pigeon", "event", "1", "x"}, 2},
      {{"send", "-n", path, "event", "one", "x"}, 2},
      {{"send", "-n", path, "event", "1"}, 2},
      {{"send", "-n", path, "trap", "1.3.6.1.4.1.9", "6", "1", "1.3.6.1.2", "q", "v"}, 2},
      {{"send", "-n", path, "trap", "1.3.6.1.4.1.9", "7", "1"}, 2},
      {{"send", "-n", path, "trap", "1.3.6.1.4.1.9", "6", "1", "1.3.6", "i"}, 2},
      {{"listen", "extra"}, 2},
      {{"--help"}, 0},
  };
  for (Case &c : cases) {
    c.args.insert(c.args.begin(), HUBEVENT_PATH);
    std::string shown;
    for (const std::string &a : c.args) shown += a + " ";
    EXPECT_EQ(run_command(c.args), c.status) << shown;
  }
}

TEST(DevHub, StopsOnSignalAndRemovesItsSocket) {
  for (int signo : {SIGTERM, SIGINT}) {
    TempDir dir;
    std::string path = dir.file("hub.sock");
    DevHub hub({"--unix", path});
    struct stat info;
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    event_infoEMS client{};
    ASSERT_GE(open_event(&client, 1, path.c_str(), 2), 0);
    kill(hub.process().pid(), signo);
    EXPECT_NE(hub.process().wait_for_line("hubd-dev: stopped", 5s), "");
    int status = hub.process().stop();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_NE(stat(path.c_str(), &info), 0) << "the socket file is removed";
    Trap trap;
    trap_headerEMS header;
    EXPECT_EQ(receive_within(&client, &trap, &header, 2s), 0) << "clients see the end of stream";
    close(client.sd);
  }
  EXPECT_EQ(run_command({HUBD_DEV_PATH}), 2) << "a hub without listeners is a usage error";
}

}  // namespace
