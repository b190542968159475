// End to end through the development hub: every transport sends to the
// hub, which relays to listening clients; the command-line client sends,
// listens and fails as a command should; the hub ends cleanly on a signal.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "event.h"
#include "support/channel.h"

using namespace std::chrono_literals;
using namespace testsupport;

namespace {

constexpr int kFormatChange = 50790438;

// Whether this process may bind UDP port 162 of `host`, as the hub of
// HubSetup does: only root may, on most systems.
bool may_bind_port_162(const std::string &host) {
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(162);
  inet_pton(AF_INET, host.c_str(), &address.sin_addr);
  bool bound = bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
  close(fd);
  return bound;
}
#define SKIP_UNLESS_PORT_162_FREE() \
  if (!may_bind_port_162(unique_loopback())) GTEST_SKIP() << "binding UDP port 162 needs root"

// A hub listening on every transport: the Unix socket hub.sock, and TCP
// ports 1661 (with headers) and raw_port, UDP port 162 of `host`.
struct HubSetup {
  TempDir dir;
  std::string path = dir.file("hub.sock"), host = unique_loopback();
  std::string raw_port = std::to_string(17100 + getpid() % 800);
  std::unique_ptr<ChildProcess> hub =
      start_dev_hub({"--unix", path, "--tcp", host + ":1661", "--raw-tcp", host + ":" + raw_port,
                     "--udp", host + ":162", "--verbose"});
};

TEST(DevHub, RelaysEventsFromEveryTransport) {
  SKIP_UNLESS_PORT_162_FREE();
  HubSetup setup;
  setenv("KZ_HUBD_SOCKET", setup.path.c_str(), 1);
  unsetenv("KZ_CLIENT");
  event_infoEMS listener{}, raw_listener{};
  ASSERT_GE(open_event(&listener, 2, setup.path.c_str(), EVENT_TRANS_UNIX), 0);
  std::string raw_name = setup.host + "+hub/" + setup.raw_port;
  ASSERT_GE(open_event(&raw_listener, EVENT_SOURCE_HUBD, raw_name.c_str(), EVENT_TRANS_TCP_RAW),
            0);
  struct Case {
    int trans;
    std::string name;
    bool headed;  // the hub knows the sender's header
  } cases[] = {{1, setup.host, false}, {2, setup.path, true}, {3, setup.host, true},
               {5, "", true},          {6, raw_name, false}};
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
      do  // the hub also relays the sender's connected event
        ASSERT_GT(receive_within(receiver, &trap, &header, 3s), 0);
      while (trap.info.specific != kFormatChange);
      EXPECT_EQ(trap.text(2), text);
      EXPECT_EQ(trap.vars[0].val.integer, 9);
      if (receiver == &listener) {
        EXPECT_EQ(std::tuple(header.src, header.pid, header.status, header.target),
                  c.headed ? std::tuple(9u, getpid(), 11, 22u) : std::tuple(1u, -1, 0, 0u));
        EXPECT_NEAR(static_cast<double>(listener.time), static_cast<double>(time(nullptr)), 5.0);
      }
    }
  }
  close_event(&listener);
  close_event(&raw_listener);
}

TEST(DevHub, HubeventSendsAndListens) {
  SKIP_UNLESS_PORT_162_FREE();
  HubSetup setup;
  // The sender's connected and disconnecting events are shown, not counted.
  ChildProcess listen({HUBEVENT_PATH, "listen", "-t", "unix", "-n", setup.path, "--count", "1"});
  ASSERT_NE(listen.wait_for_line("hubevent: listening", 5s), "");
  ASSERT_EQ(run_command({HUBEVENT_PATH, "send", "-t", "tcp", "-n", setup.host, "-s", "3", "trap",
                         "1.3.6.1.4.1.49999.9", "6", "33", "1.3.6.1.2.1.1.5.0", "s", "router",
                         "1.3.6.1.2.1.1.3.0", "t", "4294967295", "1.3.6.1.2.1.1.2.0", "o",
                         "1.3.6.1.4.1.49999"}),
            0);
  const char *from_hubevent[] = {"enterprise  1.3.6.1.4.1.49999.9", "specific    33",
                                 "= OctetString: \"router\"", "= Ticks: 4294967295",
                                 "= ObjectIdentifier: 1.3.6.1.4.1.49999"};
  for (const char *line : from_hubevent) EXPECT_NE(listen.wait_for_line(line, 5s), "") << line;
  EXPECT_EQ(listen.wait_for_line("hubevent: ", 5s), "") << "listen ends after --count traps";
  int status = listen.stop();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST(DevHub, CommandLineExitStatuses) {
  TempDir dir;
  std::string path = dir.file("hub.sock"), absent = dir.file("absent.sock");
  std::unique_ptr<ChildProcess> hub = start_dev_hub({"--unix", path});
  const std::string oid = "1.3.6.1.4.1.9";
  // By exit status: sent, no connection, bad usage.
  std::vector<std::vector<std::string>> by_status[] = {
      {{"send", "-t", "unix", "-n", path, "event", "50790438", "hello"},
       {"send", "-t", "2", "-n", path, "--host", "gw", "--object", "o", "event", "7", "x"},
       {"send", "-t", "unix", "-n", path, "trap", oid, "6", "1", "1.3.6.1.2.1.1.1.0", "x", "0a0b"},
       {"--help"}},
      {{"send", "-t", "unix", "-n", absent, "event", "1", "x"},
       {"send", "-t", "tcp", "-n", "127.0.0.1+x", "event", "1", "x"}},
      {{},
       {"shout"},
       {"listen", "extra"},
       {"send", "-s", "0", "-n", path, "event", "1", "x"},
       {"send", "-t", "carrier-pigeon", "event", "1", "x"},
       {"send", "-n", path, "event", "one", "x"},
       {"send", "-n", path, "event", "1"},
       {"send", "-n", path, "trap", oid, "6", "1", "1.3.6.1.2", "q", "v"},
       {"send", "-n", path, "trap", oid, "7", "1"},
       {"send", "-n", path, "trap", oid, "6", "1", "1.3.6", "i"},
       {"send", "-t", "unix", "event", "1", "x"}},
  };
  for (int status = 0; status < 3; ++status) {
    for (std::vector<std::string> args : by_status[status]) {
      args.insert(args.begin(), HUBEVENT_PATH);
      EXPECT_EQ(run_command(args), status) << testing::PrintToString(args);
    }
  }
  // A failed connection names the transport and the reason.
  ChildProcess failed({HUBEVENT_PATH, "send", "-t", "2", "-n", absent, "event", "1", "x"});
  EXPECT_NE(failed.wait_for_line("by unix to " + absent + ": No such file or directory", 5s), "");
  for (const char *tool : {HUBD_DEV_PATH, HUBEVENT_PATH, HUBCONF_PATH}) {
    ChildProcess version({tool, "--version"});
    EXPECT_NE(version.wait_for_line(EVENTS_VERSION, 5s), "") << tool;
  }
}

TEST(DevHub, StopsOnSignalAndRemovesItsSocket) {
  for (int signo : {SIGTERM, SIGINT}) {
    TempDir dir;
    std::string path = dir.file("hub.sock");
    std::unique_ptr<ChildProcess> hub = start_dev_hub({"--unix", path});
    event_infoEMS client{};
    ASSERT_GE(open_event(&client, 1, path.c_str(), 2), 0);
    kill(hub->pid(), signo);
    EXPECT_NE(hub->wait_for_line("hubd-dev: stopped", 5s), "");
    int status = hub->stop();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    struct stat info;
    EXPECT_NE(stat(path.c_str(), &info), 0) << "the socket file is removed";
    EXPECT_TRUE(receive_all(client.sd, 2).empty()) << "clients see the end of stream";
    close(client.sd);
  }
  EXPECT_EQ(run_command({HUBD_DEV_PATH}), 2) << "a hub without listeners is a usage error";
}

}  // namespace
