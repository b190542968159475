// The development hub under careless and hostile clients: it relays one
// checked trap per message, drops and counts the rest, bounds what slow
// clients cost, and refuses what it cannot serve.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "event.h"
#include "snmp.h"
#include "support/ber_bytes.h"
#include "support/channel.h"

using namespace std::chrono_literals;
using namespace testsupport;

namespace {

// The hub's counters line, asked for with SIGUSR1.
std::string counters(ChildProcess &hub) {
  kill(hub.pid(), SIGUSR1);
  return hub.wait_for_line("hubd-dev: received", 5s);
}

// Writes all of `bytes`, as long as the peer keeps reading.
bool write_all(int fd, const Bytes &bytes) {
  for (size_t done = 0; done < bytes.size();) {
    pollfd wait{fd, POLLOUT, 0};
    if (poll(&wait, 1, 5000) != 1) return false;
    ssize_t n = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Whether the peer closes `fd` without sending anything first.
bool closed_by_peer(int fd) {
  pollfd wait{fd, POLLIN, 0};
  char octet;
  return poll(&wait, 1, 5000) == 1 && recv(fd, &octet, 1, 0) == 0;
}

int connect_tcp(const std::string &host, uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  inet_pton(AF_INET, host.c_str(), &address.sin_addr);
  if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) return fd;
  close(fd);
  return -1;
}

Bytes operator+(Bytes a, const Bytes &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes repeated(const Bytes &part, int times) {
  Bytes all;
  for (int i = 0; i < times; ++i) all.insert(all.end(), part.begin(), part.end());
  return all;
}

struct Hub {
  TempDir dir;
  std::string path = dir.file("hub.sock"), host = unique_loopback();
  uint16_t raw_port = static_cast<uint16_t>(18000 + getpid() % 800);
  std::string raw_name = host + "+hub/" + std::to_string(raw_port);
  uint16_t udp_port = free_udp_port();
  std::string udp_name = "127.0.0.1:" + std::to_string(udp_port);
  UdpSocket sender;

  // Sends one datagram to the hub's UDP port.
  void send_udp(const Bytes &datagram) const {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(udp_port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(sendto(sender.fd(), datagram.data(), datagram.size(), 0,
                     reinterpret_cast<sockaddr *>(&to), sizeof to),
              static_cast<ssize_t>(datagram.size()));
  }
};

TEST(DevHubLimits, RelaysOneCheckedTrapPerMessage) {
  Hub setup;
  auto hub = start_dev_hub({"--unix", setup.path, "--raw-tcp",
                            setup.host + ":" + std::to_string(setup.raw_port), "--udp",
                            setup.udp_name});
  event_infoEMS headerless{}, framed{};
  ASSERT_GE(open_event(&headerless, EVENT_SOURCE_HUBD, setup.raw_name.c_str(), EVENT_TRANS_TCP_RAW),
            0);
  ASSERT_GE(open_event(&framed, 2, setup.path.c_str(), EVENT_TRANS_UNIX), 0);
  Trap trap;
  trap_headerEMS header;
  ASSERT_GT(receive_within(&headerless, &trap, &header, 3s), 0) << "the connected event";

  const Bytes message = sample_message(1);
  // Each trap is followed by octets that belong to no element; a
  // headerless client must still read every trap in step.
  const Bytes tails[] = {{0x00}, {0x30, 0x03, 0x02}, {}, {0x30}};
  for (const Bytes &tail : tails) {
    SCOPED_TRACE(testing::PrintToString(tail));
    Bytes datagram = message + tail;
    setup.send_udp(datagram);
    ASSERT_TRUE(
        write_all(framed.sd, header_bytes(static_cast<int32_t>(datagram.size())) + datagram));
    for (int copy = 0; copy < 2; ++copy) {
      ASSERT_GT(receive_within(&headerless, &trap, &header, 3s), 0);
      EXPECT_EQ(trap.info.specific, 17u);
    }
  }
  EXPECT_NE(counters(*hub).find("relayed 9, dropped: not a trap 0, trailing octets 6,"),
            std::string::npos);
  close_event(&headerless);
  close_event(&framed);
}

// A burst on the UDP port, read many datagrams at a time, and a steady
// stream, which the hub takes in pauses: traps of different lengths among
// junk and one datagram too large, every trap relayed once, in order, and
// every refusal counted.
TEST(DevHubLimits, UdpBurstsAndStreamsArriveWholeAndInOrder) {
  for (bool paced : {false, true}) {
    SCOPED_TRACE(paced ? "steady stream" : "burst");
    Hub setup;
    auto hub = start_dev_hub({"--unix", setup.path, "--udp", setup.udp_name});
    event_infoEMS listener{};
    ASSERT_GE(open_event(&listener, EVENT_SOURCE_HUBD, setup.path.c_str(), EVENT_TRANS_UNIX), 0);
    const Bytes junk = {0x30, 0x03, 0x02, 0x01, 0x00};
    const Bytes too_large(EVENT_MAX_MESSAGE + 1, 0x30);
    constexpr int kTraps = 100;
    for (int i = 0; i < kTraps; ++i) {
      for (const Bytes &datagram : {sample_message(i % 5 + 1), i == 50 ? too_large : junk})
        setup.send_udp(datagram);
      if (paced) std::this_thread::sleep_for(200us);
    }
    Trap trap;
    trap_headerEMS header;
    for (int i = 0; i < kTraps; ++i) {
      ASSERT_GT(receive_within(&listener, &trap, &header, 5s), 0) << "trap " << i;
      ASSERT_EQ(trap.info.vars, i % 5 + 1) << "trap " << i;
    }
    std::string line = counters(*hub);
    EXPECT_NE(line.find("received 200, relayed 100, dropped: not a trap 99, trailing octets 0, "
                        "too large 1,"),
              std::string::npos)
        << line;
    close_event(&listener);
  }
}

// An SNMPv1 trap of enterprise-specific number 5.
Bytes v1_trap(const std::string &community, const Bytes &enterprise, const Bytes &bindings) {
  return tlv(0x30, cat({integer(0), tlv(4, text(community)),
                        tlv(0xA4, cat({enterprise, tlv(0x40, {127, 0, 0, 1}), integer(6), integer(5),
                                       integer(0, 0x43), tlv(0x30, bindings)}))}));
}

// What a client could not decode, or would decode as something else, is
// not relayed; a drop for one of the codec's limits is counted by name.
TEST(DevHubLimits, RelaysOnlyWhatClientsDecodeAndNamesTheLimit) {
  Hub setup;
  auto hub = start_dev_hub({"--unix", setup.path, "--udp", setup.udp_name});
  event_infoEMS client{};
  ASSERT_GE(open_event(&client, EVENT_SOURCE_HUBD, setup.path.c_str(), EVENT_TRANS_UNIX), 0);
  const Bytes lab = object_id({1, 3, 6, 1, 4, 1, 9999});
  const Bytes good = varbind(object_id({1, 3, 6, 1, 4, 1, 9999, 1}), integer(1));
  const Bytes uptime = varbind(object_id({1, 3, 6, 1, 2, 1, 1, 3, 0}), integer(0xFFFFFFFF, 0x43));
  const Bytes trap_oid = varbind(object_id({1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0}), object_id({1, 3, 6, 1, 4, 1, 9999, 0, 5}));
  const struct {
    const char *name;
    Bytes message;
    const char *counted;
  } cases[] = {
      {"second binding undecodable",
       v1_trap("public", lab, cat({good, varbind(object_id({1, 3, 6, 1, 4, 1, 9999, 2}), tlv(2, Bytes(6, 1)))})),
       "not a trap 1,"},
      {"long string", v1_trap("public", lab, cat({good, varbind(object_id({1, 3}), tlv(4, Bytes(600, 's')))})),
       "string over 512 octets 1"},
      {"large arc", v1_trap("public", object_id({1, 3, 6, 1, 4, 1, 0x80000000u}), {}),
       "sub-identifier of 2^31 or more 2"},  // with the notification below
      {"long community", v1_trap(std::string(200, 'c'), lab, {}), "community over 127 octets 1"},
      {"notification with a large arc",
       v2c_message(0xA7, "public", 7, cat({uptime, trap_oid, varbind(object_id({1, 3, 0x80000000u}), integer(1))})),
       "sub-identifier of 2^31 or more 2"},
      {"notification time the encoder would shorten", v2c_message(0xA7, "public", 7, cat({uptime, trap_oid})),
       "time-stamp the encoder shortens (0xFF800000 or more) 1"},
  };
  for (const auto &c : cases) setup.send_udp(c.message);
  setup.send_udp(sample_message(1));
  Trap trap;
  trap_headerEMS header;
  ASSERT_GT(receive_within(&client, &trap, &header, 5s), 0);
  EXPECT_EQ(trap.info.specific, 17u) << "a refused message was relayed";
  const std::string line = counters(*hub);
  for (const auto &c : cases) EXPECT_NE(line.find(c.counted), std::string::npos) << c.name << ": " << line;
  close_event(&client);

  // hubevent refuses to send what would not arrive as given.
  const std::vector<std::string> send = {HUBEVENT_PATH, "send", "-t", "unix", "-n", setup.path};
  const struct {
    std::vector<std::string> args;
    int status;
  } sends[] = {
      {{"trap", "1.3.6.1.4.1.2147483648", "6", "1"}, 2},
      {{"trap", "1.3.6.1.4.1.9999", "6", "2147483648"}, 2},
      {{"--time", "4286578688", "trap", "1.3.6.1.4.1.9999", "6", "1"}, 2},
      {{"trap", "1.3.6.1.4.1.9999", "6", "1", "1.3.6.1.2147483648", "i", "1"}, 2},
      {{"--time", "4286578687", "trap", "1.3.6.1.4.1.9999", "6", "2147483647"}, 0},
  };
  for (const auto &c : sends) {
    std::vector<std::string> argv = send;
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    EXPECT_EQ(run_command(argv), c.status) << testing::PrintToString(c.args);
  }
}

TEST(DevHubLimits, JunkNeitherStallsNorSwampsIt) {
  Hub setup;
  // The hub's output stays unread: its diagnostics must not block it.
  auto hub = start_dev_hub({"--unix", setup.path, "--max-queue", "65536"});
  event_infoEMS sender{}, listener{}, idle{};
  ASSERT_GE(open_event(&listener, 2, setup.path.c_str(), EVENT_TRANS_UNIX), 0);
  ASSERT_GE(open_event(&sender, 3, setup.path.c_str(), EVENT_TRANS_UNIX), 0);
  const Bytes junk = header_bytes(5) + Bytes{0x30, 0x03, 0x02, 0x01, 0x00};
  ASSERT_TRUE(write_all(sender.sd, repeated(junk, 20000))) << "the hub stopped reading";
  const Bytes message = sample_message(5);
  const Bytes framed = header_bytes(static_cast<int32_t>(message.size())) + message;
  ASSERT_TRUE(write_all(sender.sd, framed));
  Trap trap;
  trap_headerEMS header;
  do ASSERT_GT(receive_within(&listener, &trap, &header, 5s), 0);
  while (trap.info.specific != 17u);
  close_event(&listener);

  // A client that never reads loses its connection, not the hub its memory.
  ASSERT_GE(open_event(&idle, EVENT_SOURCE_HUBD, setup.path.c_str(), EVENT_TRANS_UNIX), 0);
  ASSERT_TRUE(write_all(sender.sd, repeated(framed, 5000)));
  std::string line = counters(*hub);
  EXPECT_NE(line.find("not a trap 20000,"), std::string::npos) << line;
  EXPECT_NE(line.find("client over queue limit 1,"), std::string::npos) << line;
  close_event(&sender);
  close(idle.sd);
}

TEST(DevHubLimits, RefusesWhatItCannotServe) {
  Hub setup;
  std::string tcp_port = std::to_string(setup.raw_port + 1000);
  auto hub = start_dev_hub({"--raw-tcp", setup.host + ":" + std::to_string(setup.raw_port), "--tcp",
                            tcp_port, "--udp", setup.udp_name});

  // The datagrams of a port are not shared with a second hub.
  ChildProcess second({HUBD_DEV_PATH, "--udp", setup.udp_name});
  EXPECT_NE(second.wait_for_line("cannot listen", 5s), "");

  // A bare port listens on loopback only.
  int local = connect_tcp("127.0.0.1", static_cast<uint16_t>(std::stoi(tcp_port)));
  EXPECT_GE(local, 0);
  EXPECT_LT(connect_tcp(setup.host, static_cast<uint16_t>(std::stoi(tcp_port))), 0);
  close(local);

  // An indefinite length (0x80) is not read as 128 octets to come.
  int raw = connect_tcp(setup.host, setup.raw_port);
  ASSERT_TRUE(write_all(raw, {0x30, 0x80, 0x02, 0x01, 0x00, 0x00, 0x00}));
  EXPECT_TRUE(closed_by_peer(raw));
  close(raw);

  EXPECT_NE(counters(*hub).find("stream out of step 1,"), std::string::npos);

  // Out of descriptors (prlimit leaves the hub few), new connections are
  // closed at once, not left pending while the hub spins.
  std::string port = std::to_string(setup.raw_port + 2000);
  ChildProcess limited({"prlimit", "--nofile=16", HUBD_DEV_PATH, "--raw-tcp", port});
  ASSERT_NE(limited.wait_for_line("hubd-dev: ready", 10s), "");
  std::vector<pollfd> clients;
  for (int i = 0; i < 24; ++i)
    clients.push_back(
        {connect_tcp("127.0.0.1", static_cast<uint16_t>(std::stoi(port))), POLLIN, 0});
  ASSERT_GT(poll(clients.data(), clients.size(), 5000), 0);
  for (const pollfd &client : clients) {
    if (client.revents != 0) {
      EXPECT_TRUE(closed_by_peer(client.fd));
    }
    close(client.fd);
  }
  std::string line = counters(limited);
  EXPECT_EQ(line.find("connection without descriptor 0"), std::string::npos) << line;
}

}  // namespace
