// Opening and closing event connections: refused sources and transports,
// the name forms of the headerless TCP transport, the default transport,
// the connected and disconnecting events, and the socket buffer sizes.

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <tuple>

#include "event.h"
#include "log_trace.h"
#include "snmp_call.h"
#include "support/channel.h"
#include "trp_format.h"

using namespace testsupport;

namespace {

int open_descriptors() {
  int count = 0;
  DIR *dir = opendir("/proc/self/fd");
  while (readdir(dir) != nullptr) ++count;
  closedir(dir);
  return count;
}

// Opens by `name` and `trans`, expects `listener` to get the connection
// and returns the peer's end of it (or -1).
int open_to(event_infoEMS *ei, int source, const std::string &name, int trans,
            Listener &listener) {
  int sd = open_event(ei, source, name.c_str(), trans);
  EXPECT_GE(sd, 0) << name << " " << trans;
  EXPECT_TRUE(ei->sd == sd && ei->source == static_cast<uint32_t>(source) && ei->agent != 0);
  int peer = listener.accept_one();
  EXPECT_GE(peer, 0) << name << " " << trans;
  return peer;
}

TEST(OpenEvent, RefusesBadSourcesTransportsAndPeersWithoutTouchingTheRecord) {
  TempDir dir;
  std::string path = dir.file("hub.sock"), absent = dir.file("absent.sock");
  Listener hub(path);
  std::string nobody = unique_loopback();  // nothing listens on its port 1661
  std::tuple<int, const char *, int> refused[] = {
      {EVENT_SOURCE_FIRST - 1, path.c_str(), 2}, {EVENT_SOURCE_LAST + 1, path.c_str(), 2},
      {-3, path.c_str(), 2},      {1, path.c_str(), 0},   {1, path.c_str(), 4},
      {1, path.c_str(), 7},       {1, nullptr, 2},        {1, absent.c_str(), 2},
      {1, nobody.c_str(), 3},
      {1, dir.path().c_str(), 2},  // exists, but is no socket
  };
  int before = open_descriptors();
  for (const auto &[source, name, trans] : refused) {
    event_infoEMS ei;
    memset(&ei, 0xAB, sizeof ei);
    event_infoEMS untouched = ei;
    EXPECT_EQ(open_event(&ei, source, name, trans), -1) << source << " " << trans;
    EXPECT_EQ(memcmp(&ei, &untouched, sizeof ei), 0) << source << " " << trans;
  }
  EXPECT_EQ(open_descriptors(), before) << "a refused connection left a socket open";
  EXPECT_EQ(open_event(nullptr, 1, path.c_str(), 2), -1);
  EXPECT_EQ(close_event(nullptr), -1);
}

// Mode 6 finds its port in the name; mode 5 follows the installation.
// No descriptor of the library leaks into a program the application
// starts: the event sockets of each transport, the request socket, the
// trace log and the configuration file.
TEST(OpenEvent, DescriptorsCloseOnExec) {
  TempDir dir;
  std::string path = dir.file("hub.sock");
  Listener hub(path);
  auto closes_on_exec = [](int fd) { return fd >= 0 && (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; };
  event_infoEMS unix_stream{}, datagram{};
  int peer = open_to(&unix_stream, 1, path, EVENT_TRANS_UNIX, hub);
  EXPECT_TRUE(closes_on_exec(unix_stream.sd)) << "Unix stream";
  ASSERT_GE(open_event(&datagram, 1, "127.0.0.1", EVENT_TRANS_UDP), 0);
  EXPECT_TRUE(closes_on_exec(datagram.sd)) << "UDP";
  snmp_call_info *sci = init_snmp_call(1, 1);
  ASSERT_NE(sci, nullptr);
  EXPECT_TRUE(closes_on_exec(sci->sd)) << "requests";
  write_file(dir.file("hubd.conf"), "");
  setHubdConfFile(dir.file("hubd.conf").c_str());
  const char *conf_path = nullptr;
  FILE *conf = fopenConfFile("r", &conf_path);
  ASSERT_NE(conf, nullptr);
  EXPECT_TRUE(closes_on_exec(fileno(conf))) << "hubd.conf";
  fclose(conf);
  ASSERT_EQ(open_trace_log(dir.file("trace.log").c_str()), 0);
  EXPECT_TRUE(closes_on_exec(fileno(tracelogfp))) << "trace log";
  close_trace_log();
  setHubdConfFile(nullptr);
  close_snmp_call(sci);
  close_event(&datagram);
  close_event(&unix_stream);
  close(peer);
}

TEST(OpenEvent, ChoosesTheServiceByNameAndInstallation) {
  TempDir dir;
  std::string host = unique_loopback(), path = dir.file("hubd.socket");
  Listener trap_service(host, 1662), client_service(host, 1661), numbered(host, 17001);
  Listener local(path);
  setenv("KZ_HUBD_SOCKET", path.c_str(), 1);
  setenv("KZ_SERVER", host.c_str(), 1);
  // Name, transport, KZ_CLIENT, the listener reached and the transport kept.
  std::tuple<std::string, int, const char *, Listener *, int> cases[] = {
      {host + "+x/17001", 6, "0", &numbered, 6},
      {host + "+anything/zxhubd-client", 6, "0", &client_service, 6},
      {host + "+x/zxhubd-trap", 6, "0", &trap_service, 6},
      {host, 6, "0", &trap_service, 6},
      {host + "+no-slash", 6, "0", &trap_service, 6},
      {"ignored", 5, "0", &local, 2},
      {"ignored", 5, "1", &client_service, 3},
  };
  for (const auto &[name, trans, client, expected, trans_kept] : cases) {
    setenv("KZ_CLIENT", client, 1);
    event_infoEMS ei{};
    int peer = open_to(&ei, 4, name, trans, *expected);
    EXPECT_EQ(ei.trans, trans_kept) << name;
    close_event(&ei);
    close(peer);
  }
  unsetenv("KZ_CLIENT");
}

TEST(OpenEvent, AnnouncesAndTakesLeaveByApplication) {
  TempDir dir;
  std::string path = dir.file("hub.sock"), host = unique_loopback();
  Listener unix_hub(path), tcp_hub(host, 1661);
  std::tuple<int, int, std::vector<uint32_t>> cases[] = {
      {EVENT_SOURCE_LAST, 2, {EVENT_CONNECTED, EVENT_DISCONNECTING}},
      {1, 3, {EVENT_CONNECTED, EVENT_DISCONNECTING}},
      {EVENT_SOURCE_HUBD, 2, {}},
      {EVENT_SOURCE_HUBD, 3, {}},
      {EVENT_SOURCE_REMOTE_HUBD, 2, {EVENT_DISCONNECTING}},  // greets only on TCP
      {EVENT_SOURCE_REMOTE_HUBD, 6, {EVENT_DISCONNECTING}},  // and leaves with a header
      {EVENT_SOURCE_REMOTE_HUBD, 3, {EVENT_CONNECTED, EVENT_DISCONNECTING}},
  };
  for (const auto &[source, trans, expected] : cases) {
    SCOPED_TRACE("source " + std::to_string(source) + " transport " + std::to_string(trans));
    event_infoEMS ei{};
    ei.status = -5;
    ei.target = 77;
    std::string name = trans == 2 ? path : trans == 3 ? host : host + "+x/1661";
    int peer = open_to(&ei, source, name, trans, trans == 2 ? unix_hub : tcp_hub);
    EXPECT_EQ(close_event(&ei), 0);
    if (source == EVENT_SOURCE_REMOTE_HUBD) {
      EXPECT_EQ(ei.trans, EVENT_TRANS_TCP) << "the record keeps the transport of its goodbye";
    }
    std::vector<Received> events = receive_all(peer, 3);
    close(peer);
    ASSERT_EQ(events.size(), expected.size());
    for (size_t i = 0; i < events.size(); ++i) {
      const trap_headerEMS &header = events[i].header;
      EXPECT_EQ(std::tuple(header.src, header.pid, header.status, header.target),
                std::tuple(static_cast<uint32_t>(source), getpid(), -5, 77u));
      const Trap &trap = events[i].trap;
      EXPECT_EQ(trap.info.specific, expected[i]);
      ASSERT_EQ(trap.info.vars, 5);
      EXPECT_EQ(trap.vars[0].val.integer, source);
      std::string verb =
          expected[i] == EVENT_CONNECTED ? " connected to hubd." : " disconnecting from hubd.";
      EXPECT_EQ(trap.text(2), getApplName(source) + verb);
    }
  }
  EXPECT_STREQ(getApplName(0x10000 + 24), getApplName(24)) << "only the low 16 bits count";
}

TEST(SetSockBufSize, RaisesSmallBuffersAndKeepsLargeOnes) {
  for (int initial : {4096, 1 << 20}) {
    for (int option : {SO_SNDBUF, SO_RCVBUF}) {
      int sd = socket(AF_INET, SOCK_STREAM, 0), before = 0, after = 0;
      socklen_t size = sizeof before;
      setsockopt(sd, SOL_SOCKET, option, &initial, sizeof initial);
      getsockopt(sd, SOL_SOCKET, option, &before, &size);
      EXPECT_EQ(set_sock_buf_size_if_larger(sd, option, 65536), 0);
      getsockopt(sd, SOL_SOCKET, option, &after, &size);
      if (before >= 65536) {
        EXPECT_EQ(after, before) << initial;
      }
      EXPECT_GE(after, 65536) << initial;
      close(sd);
    }
  }
  EXPECT_EQ(set_sock_buf_size_if_larger(-1, SO_SNDBUF, 65536), 0);
}

}  // namespace
