// Opening and closing event connections: refused sources and transports,
// the name forms of the headerless TCP transport, the default transport,
// the connected and disconnecting events, and the socket buffer sizes.

#include <dirent.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

#include "event.h"
#include "support/channel.h"

using namespace std::chrono_literals;
using namespace testsupport;

namespace {

int open_descriptors() {
  int count = 0;
  DIR *dir = opendir("/proc/self/fd");
  while (readdir(dir) != nullptr) ++count;
  closedir(dir);
  return count;
}

TEST(OpenEvent, RefusesBadSourcesTransportsAndPeersWithoutTouchingTheRecord) {
  TempDir dir;
  std::string path = dir.file("hub.sock");
  StreamListener hub = StreamListener::unix_socket(path);
  std::string nobody = unique_loopback();  // nothing listens on its port 1661
  std::string absent = dir.file("absent.sock");
  struct Case {
    int source;
    const char *name;
    int trans;
  } refused[] = {
      {0, path.c_str(), 2},
      {28, path.c_str(), 2},
      {-3, path.c_str(), 2},
      {1, path.c_str(), 0},
      {1, path.c_str(), 4},
      {1, path.c_str(), 7},
      {1, nullptr, 2},
      {1, absent.c_str(), 2},
      {1, dir.path().c_str(), 2},  // exists, but is no socket
      {1, nobody.c_str(), 3},
  };
  int before = open_descriptors();
  for (const Case &c : refused) {
    event_infoEMS ei;
    memset(&ei, 0xAB, sizeof ei);
    event_infoEMS untouched = ei;
    EXPECT_EQ(open_event(&ei, c.source, c.name, c.trans), -1) << c.source << " " << c.trans;
    EXPECT_EQ(memcmp(&ei, &untouched, sizeof ei), 0) << c.source << " " << c.trans;
  }
  EXPECT_EQ(open_descriptors(), before) << "a refused connection left a socket open";
  EXPECT_EQ(open_event(nullptr, 1, path.c_str(), 2), -1);
  EXPECT_EQ(close_event(nullptr), -1);

  event_infoEMS ei{};
  int sd = open_event(&ei, 27, path.c_str(), 2);
  ASSERT_GE(sd, 0);
  EXPECT_EQ(ei.sd, sd);
  EXPECT_EQ(ei.source, 27u);
  EXPECT_EQ(ei.trans, 2);
  EXPECT_NE(ei.agent, 0u);
  EXPECT_EQ(close_event(&ei), 0);
}

TEST(OpenEvent, HeaderlessTransportFindsItsPortInTheName) {
  std::string host = unique_loopback();
  StreamListener trap_service = StreamListener::tcp(host, 1662);
  StreamListener client_service = StreamListener::tcp(host, 1661);
  StreamListener numbered = StreamListener::tcp(host, 17001);
  struct Case {
    std::string name;
    StreamListener *expected;
  } cases[] = {
      {host + "+x/17001", &numbered},           {host + "+anything/zxhubd-client", &client_service},
      {host + "+x/zxhubd-trap", &trap_service}, {host, &trap_service},
      {host + "+no-slash", &trap_service},
  };
  for (Case &c : cases) {
    event_infoEMS ei{};
    ASSERT_GE(open_event(&ei, 4, c.name.c_str(), 6), 0) << c.name;
    int accepted = c.expected->accept_one(2s);
    EXPECT_GE(accepted, 0) << c.name;
    close_event(&ei);
    if (accepted >= 0) close(accepted);
  }
}

TEST(OpenEvent, DefaultTransportFollowsTheInstallation) {
  TempDir dir;
  std::string path = dir.file("hubd.socket");
  StreamListener local = StreamListener::unix_socket(path);
  std::string server = unique_loopback();
  StreamListener remote = StreamListener::tcp(server, 1661);
  setenv("KZ_HUBD_SOCKET", path.c_str(), 1);
  setenv("KZ_SERVER", server.c_str(), 1);
  struct Case {
    const char *client;
    int trans;
    StreamListener *expected;
  } cases[] = {{"0", 2, &local}, {"1", 3, &remote}};
  for (Case &c : cases) {
    setenv("KZ_CLIENT", c.client, 1);
    event_infoEMS ei{};
    ASSERT_GE(open_event(&ei, 4, "ignored", 5), 0) << c.client;
    EXPECT_EQ(ei.trans, c.trans);
    int accepted = c.expected->accept_one(2s);
    EXPECT_GE(accepted, 0);
    close_event(&ei);
    if (accepted >= 0) close(accepted);
  }
  unsetenv("KZ_CLIENT");
}

TEST(OpenEvent, AnnouncesAndTakesLeaveByApplication) {
  TempDir dir;
  std::string path = dir.file("hub.sock");
  std::string host = unique_loopback();
  StreamListener unix_hub = StreamListener::unix_socket(path);
  StreamListener tcp_hub = StreamListener::tcp(host, 1661);
  struct Case {
    int source;
    int trans;
    std::vector<uint32_t> events;
  } cases[] = {
      {1, 2, {EVENT_CONNECTED, EVENT_DISCONNECTING}},
      {9, 3, {EVENT_CONNECTED, EVENT_DISCONNECTING}},
      {4, 2, {}},  // the daemon itself
      {4, 3, {}},
      {24, 2, {EVENT_DISCONNECTING}},  // a remote daemon greets only on TCP
      {24, 3, {EVENT_CONNECTED, EVENT_DISCONNECTING}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE("source " + std::to_string(c.source) + " transport " + std::to_string(c.trans));
    event_infoEMS ei{};
    ei.status = -5;
    ei.target = 77;
    ASSERT_GE(open_event(&ei, c.source, c.trans == 2 ? path.c_str() : host.c_str(), c.trans), 0);
    int peer = (c.trans == 2 ? unix_hub : tcp_hub).accept_one(2s);
    ASSERT_GE(peer, 0);
    EXPECT_EQ(close_event(&ei), 0);
    if (c.source == 24) EXPECT_EQ(ei.trans, 3) << "the record keeps the transport of its goodbye";
    std::vector<Frame> frames = split_frames(read_until_closed(peer, 2s));
    close(peer);
    ASSERT_EQ(frames.size(), c.events.size());
    for (size_t i = 0; i < frames.size(); ++i) {
      EXPECT_EQ(frames[i].header.src, static_cast<uint32_t>(c.source));
      EXPECT_EQ(frames[i].header.pid, getpid());
      EXPECT_EQ(frames[i].header.status, -5);
      EXPECT_EQ(frames[i].header.target, 77u);
      Trap trap = decode(frames[i].message);
      EXPECT_EQ(trap.info.specific, c.events[i]);
      ASSERT_EQ(trap.info.vars, 5);
      EXPECT_EQ(trap.vars[0].val.integer, c.source);
      EXPECT_EQ(trap.text(1), "<none>");
      std::string verb =
          c.events[i] == EVENT_CONNECTED ? " connected to hubd." : " disconnecting from hubd.";
      EXPECT_EQ(trap.text(2), getApplName(c.source) + verb);
      EXPECT_EQ(trap.text(3), "");
    }
  }
}

TEST(GetApplName, NamesAssignedNumbersAndSharesOneDefault) {
  std::string fallback = getApplName(1);
  for (int source : {4, 5, 7, 14, 19, 20, 22, 25, 0, 28, 1000})
    EXPECT_EQ(getApplName(source), fallback);
  for (int source : {2, 3, 6, 8, 9, 10, 11, 12, 13, 15, 16, 17, 18, 21, 23, 24, 26, 27})
    EXPECT_NE(getApplName(source), fallback) << source;
  EXPECT_STREQ(getApplName(0x10000 + 24), getApplName(24)) << "only the low 16 bits count";
}

TEST(SetSockBufSize, RaisesSmallBuffersAndKeepsLargeOnes) {
  struct Case {
    int initial;
    bool raised;
  } cases[] = {{4096, true}, {1 << 20, false}};
  for (const Case &c : cases) {
    for (int option : {SO_SNDBUF, SO_RCVBUF}) {
      int sd = socket(AF_INET, SOCK_STREAM, 0);
      setsockopt(sd, SOL_SOCKET, option, &c.initial, sizeof c.initial);
      int before = 0, after = 0;
      socklen_t size = sizeof before;
      getsockopt(sd, SOL_SOCKET, option, &before, &size);
      EXPECT_EQ(set_sock_buf_size_if_larger(sd, option, 65536), 0);
      getsockopt(sd, SOL_SOCKET, option, &after, &size);
      if (c.raised)
        EXPECT_GE(after, 65536) << c.initial;
      else
        EXPECT_EQ(after, before) << c.initial;
      close(sd);
    }
  }
  EXPECT_EQ(set_sock_buf_size_if_larger(-1, SO_SNDBUF, 65536), 0);
}

}  // namespace

namespace {

TEST(OpenEvent, ReportsProgressOnThePlatformLog) {
  TempDir dir;
  std::string path = dir.file("hub.sock");
  StreamListener hub = StreamListener::unix_socket(path);
  setenv("KZ_LOG", dir.file("platform.log").c_str(), 1);
  event_infoEMS ei{};
  ASSERT_GE(open_event(&ei, 1, path.c_str(), 2), 0);
  close_event(&ei);
  unsetenv("KZ_LOG");
  const char *expected[] = {
      "Beginning of open_event() call.",
      "send the application wakeup event open_event().",
      "Beginning of send_event()",
      "Values of vars[0] 1 vars[1] <none> vars[2] Related Application connected to hubd. "
      "vars [3]  vars[4]  .",
      "call send_trap from send_event().",
      "Beginning of  send_trap().",
      "calling send() SNMP packet from send_trap().",
      "send_trap() completed.",
      "end of open_event().",
      "send application disconnect event from close_event().",
      "Beginning of send_event()",
  };
  std::string log = read_file(dir.file("platform.log"));
  size_t at = 0;
  for (const char *line : expected) {
    at = log.find(std::string("events.cat[1,0] 84 2: ") + line + "\n", at);
    ASSERT_NE(at, std::string::npos) << line << "\nin\n" << log;
  }
  EXPECT_NE(log.find(" end of close_event().\n", at), std::string::npos);
}

}  // namespace
