// Sending and receiving on one connection at a time, over socket pairs and
// loopback sockets: the framing of each transport, the event bindings, the
// receive limits, interrupted reads and the receive hook.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <functional>
#include <thread>

#include "event.h"
#include "support/channel.h"
#include "support/diagnostics.h"
#include "support/fixtures.h"
#include "support/sample_trap.h"

using namespace std::chrono_literals;
using namespace testsupport;

namespace {

// A connected stream pair: `ei` is the library's end (source 12), `peer`
// the test's.  An opened pair is a Unix connection that open_event made
// (as the daemon, so that nothing is sent on it), which the library reads
// ahead on.
struct Pair {
  explicit Pair(int trans, bool opened = false) : opened(opened) {
    int fds[2];
    if (opened) {
      Listener hub(dir.file("hub.sock"));
      fds[0] = open_event(&ei, EVENT_SOURCE_HUBD, dir.file("hub.sock").c_str(), kUnixTrans);
      fds[1] = hub.accept_one();
      if (fds[0] < 0 || fds[1] < 0) abort();
    } else if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
      abort();
    }
    ei.sd = fds[0];
    ei.trans = static_cast<uint16_t>(trans);
    ei.source = 12;
    peer = fds[1];
  }
  ~Pair() {
    if (opened) {
      ei.source = EVENT_SOURCE_HUBD;
      close_event(&ei);
    } else {
      close(ei.sd);
    }
    close(peer);
  }
  void write_peer(const Bytes &bytes) const {
    ASSERT_EQ(write(peer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  // The library's end then reads end of stream, and its writes fail.
  void hang_up() const { shutdown(peer, SHUT_RDWR); }
  // The events the library's end wrote, read as framed for `trans`.
  std::vector<Received> sent(int trans) const {
    shutdown(ei.sd, SHUT_WR);
    return receive_all(peer, trans);
  }
  static constexpr int kUnixTrans = EVENT_TRANS_UNIX;
  TempDir dir;
  bool opened;
  event_infoEMS ei{};
  int peer;
};

Bytes operator+(Bytes a, const Bytes &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes filler(size_t n) { return Bytes(n, 0x5A); }

// Short names for the transports and receive results in the tables.
constexpr int kUdp = EVENT_TRANS_UDP, kUnix = EVENT_TRANS_UNIX, kTcp = EVENT_TRANS_TCP,
              kHook = EVENT_TRANS_HOOK, kRaw = EVENT_TRANS_TCP_RAW;
constexpr int kError = EVENT_RECV_ERROR, kNotSeq = EVENT_RECV_NOT_SEQUENCE,
              kSize = EVENT_RECV_BAD_SIZE;

// Modes 2 and 3 put a header from the record before the message (its
// fields are checked with the connected event), mode 6 sends the message
// alone, and the others send nothing.  A trap that cannot be encoded is
// not sent at all.
TEST(SendFraming, EachTransportFramesTheMessage) {
  snmp_trap_infoEMS bad{};
  SnmpVarBindEMS var{};
  bad.clen = 6;
  bad.elen = 200;  // beyond the record's arrays
  Bytes hex = sample_message();
  for (int trans : {kUnix, kTcp, kRaw, 0, kHook, EVENT_TRANS_DEFAULT, EVENT_TRANS_JETSTREAM + 1}) {
    SCOPED_TRACE("transport " + std::to_string(trans));
    Pair pair(trans);
    EXPECT_EQ(send_event(&pair.ei, 50790438, "gw", "text", "data", "db"), 0);
    EXPECT_EQ(send_trap(&pair.ei, &bad, &var), -1);
    EXPECT_EQ(send_hex_buffer(&pair.ei, hex.data(), static_cast<int>(hex.size())), 0);
    std::vector<Received> sent = pair.sent(trans == 6 ? 6 : 3);
    ASSERT_EQ(sent.size(), trans == 2 || trans == 3 || trans == 6 ? 2u : 0u);
    if (sent.empty()) continue;
    EXPECT_EQ(sent[0].trap.info.specific, 50790438u);
    EXPECT_EQ(sent[1].trap.info.specific, 17u);
    EXPECT_EQ(sent[0].header.src, trans == 6 ? 1u : 12u);
  }
  Pair broken(3);
  broken.hang_up();
  EXPECT_LT(send_event(&broken.ei, 1, "h", "d", "", ""), 0) << "and no SIGPIPE";
}

// Sends on one end of a pair and decodes what arrives at the other.
Trap round_trip(const std::function<int(event_infoEMS *)> &send) {
  Pair pair(2);
  EXPECT_EQ(send(&pair.ei), 0);
  std::vector<Received> sent = pair.sent(2);
  EXPECT_EQ(sent.size(), 1u);
  return sent.empty() ? Trap() : sent[0].trap;
}

TEST(SendEvent, BindingsCarryTheFirstHostWordAndCutTexts) {
  std::string long_text(600, 'd');
  const char *ip = "10.0.0.1";
  std::pair<std::function<int(event_infoEMS *)>, std::vector<std::string>> cases[] = {
      {[](auto ei) { return send_event(ei, 7, "   gateway7 port3", "x", nullptr, "db"); },
       {"gateway7", "x", "", "db"}},
      {[&](auto ei) { return send_event(ei, 7, "\t gw", long_text.c_str(), "a", nullptr); },
       {"gw", long_text.substr(0, 512), "a", ""}},
      {[](auto ei) { return send_event(ei, 7, " \t ", "x", "", ""); }, {"<none>", "x", "", ""}},
      {[](auto ei) { return send_event(ei, 7, nullptr, "x", "", ""); }, {"<none>", "x", "", ""}},
      {[](auto ei) { return send_event_ex(ei, 8, "h", "d", "a", "b", "sel", nullptr, "t17"); },
       {"h", "d", "a", "b", "sel", "", "t17"}},
      {[&](auto ei) { return send_event_ex_ex(ei, 9, "h", "d", "", "b", "s", ip, "t", ip, 0); },
       {"h", "d", "", "b", "s", ip, "t", ip, ""}},
  };
  for (const auto &[send, texts] : cases) {
    Trap trap = round_trip(send);
    EXPECT_STREQ(reinterpret_cast<char *>(trap.info.community), "kestrl");
    const ObjectIdEMS *enterprise = trap.info.enterprise;
    EXPECT_EQ(std::vector<ObjectIdEMS>(enterprise, enterprise + trap.info.elen),
              (std::vector<ObjectIdEMS>{1, 3, 6, 1, 4, 1, 49999, 6, 3, 1}));
    EXPECT_EQ(trap.info.gen, 6u);
    ASSERT_EQ(trap.info.vars, static_cast<int>(texts.size() + 1));
    EXPECT_EQ(trap.vars[0].val.integer, 12);
    for (int i = 0; i < trap.info.vars; ++i) {
      EXPECT_EQ(trap.vars[i].oid[11], static_cast<ObjectIdEMS>(i + 2)) << i;
      if (i > 0) {
        EXPECT_EQ(trap.text(i), texts[i - 1]) << i;
      }
    }
  }
  event_infoEMS ei{};
  EXPECT_EQ(send_event(&ei, 1, "h", nullptr, "", ""), -1);
  EXPECT_EQ(send_event(nullptr, 1, "h", "d", "", ""), -1);
  EXPECT_EQ(send_event_ex_ex(&ei, 1, "h", nullptr, "", "", "", "", "", "", ""), -1);
}

TEST(SendEvent, TimeCountsHundredthsSinceTheFirstEvent) {
  auto send = [](event_infoEMS *ei) { return send_event(ei, 1, "h", "d", "", ""); };
  Trap first = round_trip(send);
  std::this_thread::sleep_for(1500ms);
  EXPECT_NEAR(static_cast<double>(round_trip(send).info.time - first.info.time), 150.0, 3.0);
}

// Reads one message with every diagnostic switched on; `errors` receives
// what reached standard error.
int recv_one(int sd, int trans, std::string *errors = nullptr) {
  unsigned char *packet = nullptr;
  trap_headerEMS *header = nullptr;
  int result = 0;
  Diagnostics d = with_diagnostics(
      0, [&] { result = recv_trap(sd, &packet, trans, nullptr, nullptr, &header); });
  EXPECT_TRUE(packet == recv_packetEMS && header == recv_headerEMS);
  if (result > 0) {
    EXPECT_EQ(header->len, result);
    if (trans != 2 && trans != 3) {
      EXPECT_TRUE(header->src == 1u && header->pid == -1);
    }
  }
  if (errors != nullptr) *errors = d.standard_error;
  return result;
}

// Each stream is closed after its contents; `results` are those of
// successive recv_trap calls.
TEST(RecvTrap, FramesStreamsAndRefusesWhatDoesNotFit) {
  Bytes trap = sample_message(1), long_trap = sample_message();
  int n = static_cast<int>(trap.size()), long_n = static_cast<int>(long_trap.size());
  ASSERT_TRUE(n < 128 && long_trap[1] == 0x81);
  Bytes cut = Bytes(trap.begin(), trap.begin() + 10);
  struct Case {
    const char *what;
    int trans;
    Bytes stream;
    std::vector<int> results;
  } cases[] = {
      {"largest message", kTcp, header_bytes(8192) + filler(8192), {8192, 0}},
      {"oversize is skipped",
       kUnix,
       header_bytes(8193) + filler(8193) + header_bytes(n) + trap,
       {kSize, n, 0}},
      {"undersize is skipped",
       kUnix,
       header_bytes(19) + filler(19) + header_bytes(n) + trap,
       {kSize, n, 0}},
      {"empty and negative", kUnix, header_bytes(0) + header_bytes(-4), {kSize, kSize, 0}},
      {"ends inside header", kUnix, filler(10), {0}},
      {"ends inside message", kUnix, header_bytes(n) + cut, {0}},
      {"raw one length octet",
       kRaw,
       long_trap + Bytes{0x30, 0x81, 0x80} + filler(128),
       {long_n, 131, 0}},
      {"raw largest", kRaw, Bytes{0x30, 0x82, 0x1F, 0xFC} + filler(8188), {8192, 0}},
      {"raw oversize is skipped",
       kRaw,
       Bytes{0x30, 0x82, 0x1F, 0xFD} + filler(8189) + trap,
       {kSize, n, 0}},
      {"raw not a sequence", kRaw, Bytes{0xA4, 0x05} + trap, {kNotSeq, n, 0}},
      {"raw three length octets", kRaw, Bytes{0x30, 0x83, 0x00, 0x01, 0x00}, {kError}},
      {"raw indefinite length", kRaw, Bytes{0x30, 0x80} + trap, {kError, n, 0}},
      {"raw undersize", kRaw, Bytes{0x30, 0x03, 1, 2, 3}, {kSize, 0}},
      {"raw lone type octet", kRaw, Bytes{0x30}, {kSize, 0}},
      {"raw ends inside message", kRaw, Bytes(trap.begin(), trap.end() - 1), {0}},
  };
  for (Case &c : cases) {
    for (bool opened : {false, true}) {
      if (opened && c.trans == kRaw) continue;
      SCOPED_TRACE(std::string(c.what) + (opened ? ", read ahead" : ""));
      Pair pair(c.trans, opened);
      pair.write_peer(c.stream);
      pair.hang_up();
      for (int expected : c.results) ASSERT_EQ(recv_one(pair.ei.sd, c.trans), expected);
    }
  }
  EXPECT_EQ(recv_trap(0, nullptr, kUnix, nullptr, nullptr, nullptr), kError);
}

bool readable_now(int sd) {
  pollfd watched = {sd, POLLIN, 0};
  return poll(&watched, 1, 0) == 1;
}

// What the library reads of the next header along with a message stays
// its own: the descriptor is readable exactly while a whole trap waits,
// and a connection opened on the same descriptor later starts afresh.
TEST(RecvTrap, ReadingAheadKeepsPollTruthful) {
  Bytes trap = sample_message(), framed = header_bytes(static_cast<int32_t>(trap.size())) + trap;
  int n = static_cast<int>(trap.size());
  int sd;
  {
    Pair pair(kUnix, true);
    sd = pair.ei.sd;
    pair.write_peer(framed + framed + Bytes(framed.begin(), framed.begin() + 10));
    for (bool more : {true, false}) {
      ASSERT_EQ(recv_one(sd, kUnix), n);
      EXPECT_EQ(Bytes(recv_packetEMS, recv_packetEMS + n), trap);
      EXPECT_EQ(readable_now(sd), more);
    }
    // The rest, and the start of a header that the closing leaves behind.
    pair.write_peer(Bytes(framed.begin() + 10, framed.end()) +
                    Bytes(framed.begin(), framed.begin() + 10));
    EXPECT_TRUE(readable_now(sd));
    ASSERT_EQ(recv_one(sd, kUnix), n);
    EXPECT_EQ(Bytes(recv_packetEMS, recv_packetEMS + n), trap);
    EXPECT_FALSE(readable_now(sd));
  }
  // A socket pair is the same from both ends: the end that took the old
  // number, or a copy made on it, is the library's.
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  if (fds[1] == sd) std::swap(fds[0], fds[1]);
  if (fds[0] != sd) {
    ASSERT_EQ(dup2(fds[0], sd), sd);
    close(fds[0]);
  }
  ASSERT_EQ(write(fds[1], framed.data(), framed.size()), static_cast<ssize_t>(framed.size()));
  ASSERT_EQ(recv_one(sd, kUnix), n);
  EXPECT_EQ(Bytes(recv_packetEMS, recv_packetEMS + n), trap);
  close(sd);
  close(fds[1]);
}

// Long forms with their octets at hand (a stream only ever gives
// get_pdu_len the first length octet).
TEST(GetPduLen, ReadsLongForms) {
  struct Case {
    Bytes octets;
    int expected;
    int32_t expected_length;
  } cases[] = {
      {{0x81, 0xC8}, 0, 200},      {{0x82, 0x01, 0x00}, 0, 256}, {{0x84, 0x00}, 1, 4},
      {{0x84, 0x01, 0x02, 0x03, 0x04}, 0, 0x01020304},         {{0x85, 0x01}, -1, -9},
      {{0xFF}, -1, -9},
  };
  for (Case &c : cases) {
    int32_t length = -9;
    int result = 0;
    with_diagnostics(0, [&] { result = get_pdu_len(c.octets.data(), &length); });
    EXPECT_EQ(result, c.expected) << std::hex << int(c.octets[0]);
    EXPECT_EQ(length, c.expected_length) << std::hex << int(c.octets[0]);
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
  std::tuple<int, long, std::string> cases[] = {
      {2, 10, "EINTR for packet header"}, {3, 24 + 5, "EINTR for SNMP packet"}, {6, 7, ""}};
  struct sigaction action {}, previous{};
  action.sa_handler = write_rest;  // no SA_RESTART: the wait sees EINTR
  sigaction(SIGALRM, &action, &previous);
  for (const auto &[trans, split, logged] : cases) {
    SCOPED_TRACE("transport " + std::to_string(trans));
    Pair pair(trans);
    Bytes whole = trans == 6 ? trap : header_bytes(n) + trap;
    pair.write_peer(Bytes(whole.begin(), whole.begin() + split));
    pending_rest.assign(whole.begin() + split, whole.end());
    pending_peer = pair.peer;
    itimerval timer{};
    timer.it_value.tv_usec = 100000;
    setitimer(ITIMER_REAL, &timer, nullptr);
    std::string errors;
    EXPECT_EQ(recv_one(pair.ei.sd, trans, &errors), n);
    EXPECT_EQ(Bytes(recv_packetEMS, recv_packetEMS + n), trap);
    EXPECT_NE(errors.find(logged), std::string::npos) << errors;
  }
  sigaction(SIGALRM, &previous, nullptr);
}

TEST(RecvTrap, DatagramsFromSnmptrapAndTheirLimits) {
  event_infoEMS ei{};
  ASSERT_GE(open_event(&ei, EVENT_SOURCE_HUBD, "127.0.0.1", kUdp), 0);
  sockaddr_in local{};
  socklen_t size = sizeof local;
  getsockname(ei.sd, reinterpret_cast<sockaddr *>(&local), &size);
  local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int sender = socket(AF_INET, SOCK_DGRAM, 0);
  for (size_t length : {19u, 9000u}) {
    Bytes datagram = filler(length);
    sendto(sender, datagram.data(), length, 0, reinterpret_cast<sockaddr *>(&local), size);
    EXPECT_EQ(recv_one(ei.sd, kUdp), kSize) << length;
  }
  close(sender);

  std::string address = "127.0.0.1:" + std::to_string(ntohs(local.sin_port));
  ASSERT_EQ(run_command({"snmptrap", "-v1", "-c", "public", "-m", "", "-M", "", address,
                         "1.3.6.1.4.1.49999.6.3.1", "10.1.2.3", "6", "17", "12345",
                         "1.3.6.1.4.1.49999.6.3.1.1.3.0", "s", "gateway7"}),
            0);
  Trap trap;
  trap_headerEMS header;
  EXPECT_GT(receive_within(&ei, &trap, &header, 5s), 0);
  EXPECT_TRUE(header.src == 1u && header.pid == -1);
  EXPECT_EQ(trap.info.specific, 17u);
  EXPECT_EQ(trap.info.time, 12345u);
  ASSERT_EQ(trap.info.vars, 1);
  EXPECT_EQ(trap.text(0), "gateway7");
  close_event(&ei);
}

int hook_result, hook_length;
int read_by_hook(int sd, sockaddr *, unsigned char *packet, int *length) {
  EXPECT_EQ(*length, 8192);
  ssize_t n = read(sd, packet, static_cast<size_t>(*length));
  *length = hook_length >= 0 ? hook_length : static_cast<int>(n);
  return hook_result;
}

TEST(RecvTrap, HookReadsForTransport4) {
  Bytes trap = sample_message();
  int n = static_cast<int>(trap.size());
  // The hook's result and length (-1: what it read), and recv_trap's result.
  std::tuple<int, int, int> cases[] = {
      {1, -1, n}, {0, -1, 0}, {-3, -1, -3}, {1, 9000, kSize}, {1, 12, kSize}};
  kzc_recv_event = read_by_hook;
  for (const auto &[result, length, expected] : cases) {
    Pair pair(kHook);
    pair.write_peer(trap);
    hook_result = result;
    hook_length = length;
    EXPECT_EQ(recv_one(pair.ei.sd, kHook), expected) << result << " " << length;
  }
  kzc_recv_event = nullptr;
}

// An fd_set holds descriptors below 1024 only; waits on higher ones must
// neither overrun it nor fail.  The message arrives only after the wait
// has begun.
TEST(RecvTrap, WaitsOnDescriptorsAbove1024) {
  Bytes trap = sample_message();
  int n = static_cast<int>(trap.size());
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_cur < 1100) GTEST_SKIP() << "needs 1,100 descriptors, has " << limit.rlim_cur;
  kzc_recv_event = read_by_hook;
  hook_result = 1;
  hook_length = -1;
  for (int trans : {kUnix, kRaw, kHook}) {
    SCOPED_TRACE("transport " + std::to_string(trans));
    Pair pair(trans);
    int high = fcntl(pair.ei.sd, F_DUPFD, 1050);
    ASSERT_GE(high, 1050);
    Bytes whole = trans == kUnix ? header_bytes(n) + trap : trap;
    std::thread late([&] {
      std::this_thread::sleep_for(50ms);
      pair.write_peer(whole);
    });
    EXPECT_EQ(recv_one(high, trans), n);
    late.join();
    close(high);
  }
  kzc_recv_event = nullptr;
}

// Decoding writes the lengths found back into clen and elen: a receive
// loop that does not set the capacities again fails on the first trap with
// a longer community than the one before.
TEST(RecvEvent, LoopNeedsCapacitiesResetBeforeEachTrap) {
  for (bool reset : {false, true}) {
    SCOPED_TRACE(reset ? "reset" : "set once");
    Pair pair(kUnix);
    SnmpVarBindEMS sent_vars[5];
    snmp_trap_infoEMS sent;
    for (const char *community : {"ab", "a-longer-community"}) {
      make_sample_trap(&sent, sent_vars, 5);
      sent.clen = static_cast<int32_t>(strlen(community));
      memcpy(sent.community, community, strlen(community));
      ASSERT_EQ(send_trap(&pair.ei, &sent, sent_vars), 0);
    }
    event_infoEMS receiver = pair.ei;
    receiver.sd = pair.peer;
    snmp_trap_infoEMS info{};
    SnmpVarBindEMS vars[5];
    snmp_trap_reset_capacities(&info, 5);
    EXPECT_GT(recv_event(&receiver, &info, vars), 0);
    EXPECT_EQ(info.clen, 2);
    if (reset) snmp_trap_reset_capacities(&info, 5);
    int result = 0;
    with_diagnostics(0, [&] { result = recv_event(&receiver, &info, vars); });
    EXPECT_EQ(result > 0, reset) << result;
    if (reset) {
      EXPECT_STREQ(reinterpret_cast<char *>(info.community), "a-longer-community");
    }
  }
}

}  // namespace
