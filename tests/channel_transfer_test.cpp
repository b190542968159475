// Sending and receiving on one connection at a time, over socket pairs and
// loopback sockets: the framing of each transport, the event bindings, the
// receive limits, interrupted reads, the receive hook and sendsig.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "event.h"
#include "support/channel.h"
#include "support/diagnostics.h"

using namespace std::chrono_literals;
using namespace testsupport;

namespace {

// A connected stream pair: `ei` is the library's end, `peer` the test's.
struct Pair {
  explicit Pair(int trans) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) abort();
    int room = 1 << 20;
    setsockopt(fds[1], SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    setsockopt(fds[0], SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    ei.sd = fds[0];
    ei.trans = static_cast<uint16_t>(trans);
    ei.source = 12;
    peer = fds[1];
  }
  ~Pair() {
    close(ei.sd);
    if (peer >= 0) close(peer);
  }
  void write_peer(const Bytes &bytes) const {
    ASSERT_EQ(write(peer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  void close_peer() {
    close(peer);
    peer = -1;
  }
  Bytes read_peer() {
    shutdown(ei.sd, SHUT_WR);
    return read_until_closed(peer, 2s);
  }
  event_infoEMS ei{};
  int peer;
};

Bytes operator+(Bytes a, const Bytes &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes filler(size_t n) { return Bytes(n, 0x5A); }

TEST(SendFraming, EachTransportFramesTheMessage) {
  for (int trans : {2, 3, 6, 0, 4, 5, 7}) {
    SCOPED_TRACE("transport " + std::to_string(trans));
    Pair pair(trans);
    pair.ei.status = 3;
    pair.ei.target = 0xDEADBEEF;
    EXPECT_EQ(send_event(&pair.ei, 50790438, "gw", "text", "data", "db"), 0);
    Bytes sent = pair.read_peer();
    if (trans == 2 || trans == 3) {
      std::vector<Frame> frames = split_frames(sent);
      ASSERT_EQ(frames.size(), 1u);
      EXPECT_EQ(frames[0].header.src, 12u);
      EXPECT_EQ(frames[0].header.pid, getpid());
      EXPECT_EQ(frames[0].header.status, 3);
      EXPECT_EQ(frames[0].header.target, 0xDEADBEEF);
      EXPECT_EQ(decode(frames[0].message).info.specific, 50790438u);
    } else if (trans == 6) {
      ASSERT_GE(sent.size(), 3u);
      EXPECT_EQ(sent[0], 0x30) << "no header before the message";
      size_t declared = sent[1] < 0x80 ? 2u + sent[1] : 3u + sent[2];
      EXPECT_EQ(sent.size(), declared);
      EXPECT_EQ(decode(sent).info.specific, 50790438u);
    } else {
      EXPECT_TRUE(sent.empty()) << "transports without sending send nothing";
    }
  }
}

TEST(SendFraming, DatagramsGoToPort162OfTheManager) {
  std::string host = unique_loopback();
  int daemon = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(162);
  inet_pton(AF_INET, host.c_str(), &address.sin_addr);
  ASSERT_EQ(bind(daemon, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);

  event_infoEMS ei{};
  ASSERT_GE(open_event(&ei, 3, host.c_str(), 1), 0);
  EXPECT_EQ(ei.manager, address.sin_addr.s_addr);
  EXPECT_EQ(send_event(&ei, 42, nullptr, "by datagram", nullptr, nullptr), 0);
  close_event(&ei);
  std::vector<unsigned> specifics;
  Bytes datagram(9000);
  for (int i = 0; i < 3; ++i) {
    ssize_t n = recv(daemon, datagram.data(), datagram.size(), MSG_DONTWAIT);
    ASSERT_GT(n, 0);
    specifics.push_back(decode(Bytes(datagram.begin(), datagram.begin() + n)).info.specific);
  }
  EXPECT_EQ(specifics, (std::vector<unsigned>{EVENT_CONNECTED, 42, EVENT_DISCONNECTING}));
  close(daemon);
}

// Sends on one end of a pair and receives on the other.
Trap round_trip(const std::function<int(event_infoEMS *)> &send) {
  Pair pair(2);
  event_infoEMS receiver = pair.ei;
  receiver.sd = pair.peer;
  Trap trap;
  EXPECT_EQ(send(&pair.ei), 0);
  trap_headerEMS header;
  EXPECT_GT(receive_within(&receiver, &trap, &header, 2s), 0);
  return trap;
}

TEST(SendEvent, HostIsTheFirstWordAndTextsAreCut) {
  std::string long_text(600, 'd');
  struct Case {
    const char *host;
    const char *descr;
    std::string host_sent;
    std::string descr_sent;
  } cases[] = {
      {"   gateway7 port3", "x", "gateway7", "x"},
      {"\t gw", "x", "gw", "x"},
      {" \t ", "x", "<none>", "x"},
      {nullptr, "x", "<none>", "x"},
      {"h", long_text.c_str(), "h", long_text.substr(0, 512)},
  };
  for (const Case &c : cases) {
    Trap trap = round_trip(
        [&](event_infoEMS *ei) { return send_event(ei, 7, c.host, c.descr, nullptr, "db"); });
    ASSERT_EQ(trap.info.vars, 5);
    EXPECT_EQ(trap.text(1), c.host_sent);
    EXPECT_EQ(trap.text(2), c.descr_sent);
    EXPECT_EQ(trap.text(3), "");
    EXPECT_EQ(trap.text(4), "db");
    EXPECT_STREQ(reinterpret_cast<char *>(trap.info.community), "kestrl");
    EXPECT_EQ(std::vector<ObjectIdEMS>(trap.info.enterprise, trap.info.enterprise + trap.info.elen),
              (std::vector<ObjectIdEMS>{1, 3, 6, 1, 4, 1, 49999, 6, 3, 1}));
    EXPECT_EQ(trap.info.gen, 6u);
  }
  event_infoEMS ei{};
  EXPECT_EQ(send_event(&ei, 1, "h", nullptr, "", ""), -1);
  EXPECT_EQ(send_event(nullptr, 1, "h", "d", "", ""), -1);
  EXPECT_EQ(send_event_ex_ex(&ei, 1, "h", nullptr, "", "", "", "", "", "", ""), -1);
}

TEST(SendEvent, WiderVariantsSendTheirBindingsInOrder) {
  Trap ex = round_trip([](event_infoEMS *ei) {
    return send_event_ex(ei, 8, "h", "d", "a", "b", "sel", nullptr, "trap17");
  });
  ASSERT_EQ(ex.info.vars, 8);
  Trap wide = round_trip([](event_infoEMS *ei) {
    return send_event_ex_ex(ei, 9, "h", "d", "a", "b", "sel", "10.0.0.1", "trap17", "10.0.0.0",
                            nullptr);
  });
  ASSERT_EQ(wide.info.vars, 10);
  const char *texts[] = {"h", "d", "a", "b", "sel", "10.0.0.1", "trap17", "10.0.0.0", ""};
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(wide.vars[i].oid_length, 13u);
    EXPECT_EQ(wide.vars[i].oid[11], static_cast<ObjectIdEMS>(i + 2)) << i;
    EXPECT_EQ(wide.vars[i].oid[12], 0u);
    if (i > 0) EXPECT_EQ(wide.text(i), texts[i - 1]) << i;
  }
  EXPECT_EQ(ex.text(6), "");
  EXPECT_EQ(wide.vars[0].val.integer, 12);
}

TEST(SendEvent, TimeCountsHundredthsSinceTheFirstEvent) {
  Trap first = round_trip([](event_infoEMS *ei) { return send_event(ei, 1, "h", "d", "", ""); });
  std::this_thread::sleep_for(1500ms);
  Trap second = round_trip([](event_infoEMS *ei) { return send_event(ei, 1, "h", "d", "", ""); });
  EXPECT_NEAR(static_cast<double>(second.info.time - first.info.time), 150.0, 3.0);
}

TEST(SendTrap, RefusesWhatCannotBeEncoded) {
  Pair pair(2);
  snmp_trap_infoEMS trap{};
  SnmpVarBindEMS var{};
  trap.clen = 6;
  trap.elen = 200;  // beyond the record's arrays
  EXPECT_EQ(send_trap(&pair.ei, &trap, &var), -1);
  EXPECT_EQ(
      send_hex_buffer(&pair.ei, sample_message().data(), static_cast<int>(sample_message().size())),
      0);
  EXPECT_EQ(split_frames(pair.read_peer()).size(), 1u) << "only the hex buffer went out";
}

TEST(SendTrap, BrokenConnectionFailsWithoutSignal) {
  Pair pair(3);
  pair.close_peer();
  EXPECT_LT(send_event(&pair.ei, 1, "h", "d", "", ""), 0);
}

// Stream contents and the results recv_trap gives for them, one call each;
// the stream is closed after the contents.
struct StreamCase {
  const char *what;
  int trans;
  Bytes stream;
  std::vector<int> results;
};

TEST(RecvTrap, FramesStreamsAndRefusesWhatDoesNotFit) {
  Bytes trap = sample_message(1), long_trap = sample_message();
  int n = static_cast<int>(trap.size());
  ASSERT_LT(n, 128);
  ASSERT_EQ(long_trap[1], 0x81);
  Bytes body256 = filler(256), body8192 = filler(8192), body8193 = filler(8193);
  StreamCase cases[] = {
      {"two framed traps", 2, header_bytes(n) + trap + header_bytes(n) + trap, {n, n, 0}},
      {"largest message", 3, header_bytes(8192) + body8192, {8192, 0}},
      {"oversize is skipped",
       2,
       header_bytes(8193) + body8193 + header_bytes(n) + trap,
       {-6, n, 0}},
      {"undersize is skipped",
       2,
       header_bytes(19) + filler(19) + header_bytes(n) + trap,
       {-6, n, 0}},
      {"empty and negative", 2, header_bytes(0) + header_bytes(-4), {-6, -6, 0}},
      {"ends inside header", 2, filler(10), {0}},
      {"ends inside message", 2, header_bytes(n) + Bytes(trap.begin(), trap.begin() + 10), {0}},
      {"raw short form", 6, trap + trap, {n, n, 0}},
      {"raw one length octet",
       6,
       long_trap + Bytes{0x30, 0x81, 0x80} + filler(128),
       {static_cast<int>(long_trap.size()), 131, 0}},
      {"raw two length octets", 6, Bytes{0x30, 0x82, 0x01, 0x00} + body256, {260, 0}},
      {"raw largest", 6, Bytes{0x30, 0x82, 0x1F, 0xFC} + filler(8188), {8192, 0}},
      {"raw oversize is skipped",
       6,
       Bytes{0x30, 0x82, 0x1F, 0xFD} + filler(8189) + trap,
       {-6, n, 0}},
      {"raw not a sequence", 6, Bytes{0xA4, 0x05} + trap, {-5, n, 0}},
      {"raw three length octets", 6, Bytes{0x30, 0x83, 0x00, 0x01, 0x00}, {-1}},
      {"raw indefinite length", 6, Bytes{0x30, 0x80} + trap, {-1, n, 0}},
      {"raw undersize", 6, Bytes{0x30, 0x03, 1, 2, 3}, {-6, 0}},
      {"raw lone type octet", 6, Bytes{0x30}, {-6, 0}},
      {"raw ends inside message", 6, Bytes(trap.begin(), trap.end() - 1), {0}},
  };
  for (StreamCase &c : cases) {
    SCOPED_TRACE(c.what);
    Pair pair(c.trans);
    pair.write_peer(c.stream);
    pair.close_peer();
    for (int expected : c.results) {
      unsigned char *packet = nullptr;
      trap_headerEMS *header = nullptr;
      int result = 0;
      with_diagnostics(
          0, [&] { result = recv_trap(pair.ei.sd, &packet, c.trans, nullptr, nullptr, &header); });
      ASSERT_EQ(result, expected);
      EXPECT_EQ(packet, recv_packetEMS);
      EXPECT_EQ(header, recv_headerEMS);
      if (expected > 0) EXPECT_EQ(header->len, expected);
      if (expected > 0 && c.trans == 6) {
        EXPECT_EQ(header->src, 1u);
        EXPECT_EQ(header->pid, -1);
      }
    }
  }
  EXPECT_EQ(recv_trap(0, nullptr, 2, nullptr, nullptr, nullptr), -1);
}

TEST(GetPduLen, ReadsShortAndLongForms) {
  struct Case {
    Bytes octets;
    int result;
    int32_t length;
  } cases[] = {
      {{0x00}, 0, 0},
      {{0x7F}, 0, 127},
      {{0x81, 0x00}, 1, 1},
      {{0x82, 0x00}, 1, 2},
      {{0x84, 0x00}, 1, 4},
      {{0x81, 0xC8}, 0, 200},
      {{0x82, 0x01, 0x00}, 0, 256},
      {{0x84, 0x01, 0x02, 0x03, 0x04}, 0, 0x01020304},
      {{0x80}, -1, -9},
      {{0x85, 0x01}, -1, -9},
      {{0xFF}, -1, -9},
  };
  for (Case &c : cases) {
    int32_t length = -9;
    int result = 0;
    Diagnostics d = with_diagnostics(0, [&] { result = get_pdu_len(c.octets.data(), &length); });
    EXPECT_EQ(result, c.result) << std::hex << int(c.octets[0]);
    EXPECT_EQ(length, c.length) << std::hex << int(c.octets[0]);
    if (c.result < 0) EXPECT_FALSE(d.standard_error.empty());
  }
}

// Writes the rest of a message from inside a signal handler, so the signal
// arrives while recv_trap waits for exactly those octets.
Bytes pending_rest;
int pending_peer = -1;
void write_rest(int) {
  ssize_t ignored = write(pending_peer, pending_rest.data(), pending_rest.size());
  (void)ignored;
}

TEST(RecvTrap, SignalWhileWaitingLosesNothing) {
  Bytes trap = sample_message();
  int n = static_cast<int>(trap.size());
  struct Case {
    const char *what;
    int trans;
    Bytes whole;
    size_t split;
    const char *logged;
  } cases[] = {
      {"inside the header", 2, header_bytes(n) + trap, 10, "EINTR for packet header"},
      {"inside the message", 3, header_bytes(n) + trap, 24 + 5, "EINTR for SNMP packet"},
      {"inside a headerless message", 6, trap, 7, nullptr},
  };
  struct sigaction action {
  }, previous{};
  action.sa_handler = write_rest;  // no SA_RESTART: the wait sees EINTR
  sigaction(SIGALRM, &action, &previous);
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    Pair pair(c.trans);
    pair.write_peer(Bytes(c.whole.begin(), c.whole.begin() + static_cast<long>(c.split)));
    pending_rest.assign(c.whole.begin() + static_cast<long>(c.split), c.whole.end());
    pending_peer = pair.peer;
    itimerval timer{};
    timer.it_value.tv_usec = 100000;
    setitimer(ITIMER_REAL, &timer, nullptr);
    event_infoEMS receiver = pair.ei;
    Trap received{};
    received.info.clen = 127;
    received.info.elen = 128;
    received.info.maxvars = 10;
    int result = 0;
    Diagnostics d =
        with_diagnostics(0, [&] { result = recv_event(&receiver, &received.info, received.vars); });
    EXPECT_EQ(result, n);
    EXPECT_EQ(received.info.specific, 17u);
    if (c.logged != nullptr)
      EXPECT_NE(d.standard_error.find(c.logged), std::string::npos) << d.standard_error;
  }
  sigaction(SIGALRM, &previous, nullptr);
}

TEST(RecvTrap, DatagramsFromSnmptrapAndTheirLimits) {
  event_infoEMS ei{};
  ASSERT_GE(open_event(&ei, 4, "127.0.0.1", 1), 0);
  sockaddr_in local{};
  socklen_t size = sizeof local;
  getsockname(ei.sd, reinterpret_cast<sockaddr *>(&local), &size);
  std::string address = "127.0.0.1:" + std::to_string(ntohs(local.sin_port));

  int sender = socket(AF_INET, SOCK_DGRAM, 0);
  local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  for (size_t length : {19u, 9000u}) {
    Bytes datagram = filler(length);
    sendto(sender, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr *>(&local),
           sizeof local);
    unsigned char *packet;
    trap_headerEMS *header;
    int result = 0;
    with_diagnostics(0, [&] { result = recv_trap(ei.sd, &packet, 1, nullptr, nullptr, &header); });
    EXPECT_EQ(result, -6) << length;
  }
  close(sender);

  ASSERT_EQ(run_command({"snmptrap", "-v1", "-c", "public", "-m", "", "-M", "", address,
                         "1.3.6.1.4.1.49999.6.3.1", "10.1.2.3", "6", "17", "12345",
                         "1.3.6.1.4.1.49999.6.3.1.1.3.0", "s", "gateway7"}),
            0);
  Trap trap;
  trap_headerEMS header;
  EXPECT_GT(receive_within(&ei, &trap, &header, 5s), 0);
  EXPECT_EQ(header.src, 1u);
  EXPECT_EQ(header.pid, -1);
  EXPECT_EQ(trap.info.specific, 17u);
  EXPECT_EQ(trap.info.time, 12345u);
  ASSERT_EQ(trap.info.vars, 1);
  EXPECT_EQ(trap.text(0), "gateway7");
  close_event(&ei);
}

int hook_result;
int hook_length;
int read_by_hook(int sd, sockaddr *, unsigned char *packet, int *length) {
  EXPECT_EQ(*length, 8192);
  ssize_t n = read(sd, packet, static_cast<size_t>(*length));
  *length = hook_length >= 0 ? hook_length : static_cast<int>(n);
  return hook_result;
}

TEST(RecvTrap, HookReadsForTransport4) {
  Bytes trap = sample_message();
  int n = static_cast<int>(trap.size());
  struct Case {
    int result;
    int length;
    int expected;
  } cases[] = {{1, -1, n}, {0, -1, 0}, {-3, -1, -3}, {1, 9000, -6}, {1, 12, -6}};
  kzc_recv_event = read_by_hook;
  for (const Case &c : cases) {
    Pair pair(4);
    pair.write_peer(trap);
    hook_result = c.result;
    hook_length = c.length;
    unsigned char *packet;
    trap_headerEMS *header;
    int result = 0;
    with_diagnostics(
        0, [&] { result = recv_trap(pair.ei.sd, &packet, 4, nullptr, nullptr, &header); });
    EXPECT_EQ(result, c.expected) << c.result << " " << c.length;
    if (c.expected > 0) {
      EXPECT_EQ(header->src, 1u);
      EXPECT_EQ(header->pid, -1);
    }
  }
  kzc_recv_event = nullptr;
}

TEST(SendSig, SignalsTheProcessNamedInAPidFile) {
  TempDir dir;
  pid_t child = fork();
  if (child == 0) {
    pause();
    _exit(0);
  }
  pid_t gone = fork();
  if (gone == 0) _exit(0);
  waitpid(gone, nullptr, 0);
  write_file(dir.file("live.pid"), std::to_string(child) + "\n");
  write_file(dir.file("gone.pid"), std::to_string(gone));
  write_file(dir.file("junk.pid"), "not a pid\n");

  EXPECT_EQ(sendsig(SIGTERM, "anything", dir.file("live.pid").c_str()), 0);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  EXPECT_EQ(sendsig(SIGTERM, nullptr, dir.file("gone.pid").c_str()), gone);
  EXPECT_EQ(sendsig(SIGTERM, nullptr, dir.file("junk.pid").c_str()), 1);
  EXPECT_EQ(sendsig(SIGTERM, nullptr, dir.file("absent.pid").c_str()), 1);
}

}  // namespace
