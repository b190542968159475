// SNMP requests: the request codec on hand-made messages, synchronous
// calls against net-snmp's snmpd, and a UDP socket of the test's own
// playing the agent for chunking, time-outs and stale answers.

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "snmp_call.h"
#include "support/ber_bytes.h"
#include "support/diagnostics.h"
#include "support/snmp_agent.h"

using namespace std::chrono_literals;
using testsupport::with_diagnostics;
using testsupport::Bytes;
using testsupport::cat;
using testsupport::text;
using testsupport::integer;
using testsupport::tlv;

namespace {

const Bytes kSysName = {0x2B, 6, 1, 2, 1, 1, 5, 0};

Bytes response(int version, const Bytes &community, const Bytes &bindings, int list_type = 0x30) {
  Bytes pdu = cat({tlv(2, {7}), tlv(2, {0}), tlv(2, {0}), tlv(list_type, bindings)});
  return tlv(0x30, cat({tlv(2, {static_cast<unsigned char>(version)}), tlv(4, community), tlv(0xA2, pdu)}));
}
Bytes binding(int type, const Bytes &value) { return tlv(0x30, cat({tlv(6, kSysName), tlv(type, value)})); }

TEST(RequestCodec, DecodesResponses) {
  const Bytes two = cat({binding(4, text("vm")), binding(0x43, {1, 0})});
  const struct {
    const char *name;
    Bytes wire;
    int maxvars;
    int result;
    int vars;
    std::string echo;  // standard error with the request bit set
  } cases[] = {
      {"two bindings", response(0, text("public"), two), 4, 0, 2, ""},
      {"version 1 is still decoded", response(1, text("public"), two), 4, 0, 2,
       "snmp_parse: Wrong version: 1...Continuing anyway\n"},
      {"one binding more than the array counts maxvars + 1", response(0, text("public"), two), 1, 0, 2, ""},
      {"unknown type is counted", response(0, text("public"), binding(0x80, {1})), 4, 0, 1,
       "snmp_parse: bad type returned (80)\n"},
      {"community of 128 octets", response(0, Bytes(128, 'c'), two), 4, 0, 2, ""},
      {"community of 128 octets, decoded step by step", response(1, Bytes(128, 'c'), two), 4, 0, 2,
       "snmp_parse: Wrong version: 1...Continuing anyway\n"},
      {"not a message", tlv(0x31, {}), 4, -1, 0, "snmp_parse: parse error 1\n"},
      {"no error-index", tlv(0x30, cat({tlv(2, {0}), tlv(4, text("p")), tlv(0xA2, cat({tlv(2, {7}), tlv(2, {0})}))})),
       4, -1, 0, "snmp_parse: parse error 6\n"},
      {"list is not a sequence", response(0, text("public"), two, 0x31), 4, -1, 0, "snmp_parse: parse error 8\n"},
      {"binding is not a sequence", response(0, text("public"), tlv(0x31, {})), 4, -1, 0,
       "snmp_parse: parse error 80\n"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    Bytes wire = c.wire;  // exactly the message, so over-reads show under ASan
    snmp_info info{};
    info.clen = SNMP_COMMUNITY_MAX;
    info.maxvars = c.maxvars;
    SnmpVarBindEMS vars[4] = {};
    int result = 0;
    auto seen = with_diagnostics(SNMP_TRACE_REQUEST, [&] {
      result = snmp_parse(wire.data(), static_cast<int>(wire.size()), &info, vars);
    });
    EXPECT_EQ(result, c.result);
    EXPECT_EQ(seen.standard_error, c.echo);
    if (c.result != 0) continue;
    EXPECT_EQ(info.vars, c.vars);
    EXPECT_EQ(info.command, SNMP_GET_RSP);
    EXPECT_EQ(info.reqid, 7);
    const Bytes community = info.clen == 128 ? Bytes(128, 'c') : text("public");
    EXPECT_EQ(Bytes(info.community, info.community + info.clen), community);
    EXPECT_EQ(std::vector<ObjectIdEMS>(vars[0].oid, vars[0].oid + vars[0].oid_length),
              (std::vector<ObjectIdEMS>{1, 3, 6, 1, 2, 1, 1, 5, 0}));
    if (vars[0].type == 4) {
      EXPECT_EQ(std::string(reinterpret_cast<char *>(vars[0].val.string), vars[0].val_len), "vm");
    }
    if (c.maxvars == 1) {
      EXPECT_EQ(vars[1].type, 0) << "decoded past the array";
    } else if (vars[1].type == 0x43) {
      EXPECT_EQ(vars[1].val.integer, 256);
    }
  }
}

// A value the decoder cannot hold is kept, flagged, with no length that
// would lead a caller past the record.
TEST(RequestCodec, KeepsWhatItCannotDecodeUndecoded) {
  const struct {
    const char *name;
    int type;
    Bytes value;
    uint32_t val_len;
    int undecoded;
  } cases[] = {
      {"string of 512 octets", 0x04, Bytes(512, 's'), 512, 0},
      {"string of 60,000 octets", 0x04, Bytes(60000, 's'), 0, 1},
      {"INTEGER of 21 octets", 0x02, Bytes(21, 1), 0, 1},
      {"Counter of 9 octets", 0x41, Bytes(9, 1), 0, 1},
      {"Opaque", 0x44, {0x9f, 0x78, 0x04, 0x40, 0x1a, 0x50, 0x00}, 0, 1},
      {"NULL with contents", 0x05, Bytes(600, 0), 0, 1},
      {"identifier with an arc of 2^31", 0x06, {0x2B, 0x88, 0x80, 0x80, 0x80, 0x00}, 0, 1},
      {"TimeTicks", 0x43, {1, 0}, 4, 0},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    Bytes wire = response(0, text("public"), binding(c.type, c.value));
    snmp_info info{};
    info.clen = SNMP_COMMUNITY_MAX;
    info.maxvars = 1;
    SnmpVarBindEMS var{};
    var.undecoded = 1 - c.undecoded;  // the decoder sets it either way
    var.val_len = 99;
    ASSERT_EQ(snmp_parse(wire.data(), static_cast<int>(wire.size()), &info, &var), 0);
    EXPECT_EQ(info.vars, 1);
    EXPECT_EQ(var.type, c.type);
    EXPECT_EQ(var.val_len, c.val_len);
    EXPECT_EQ(var.undecoded, c.undecoded);
  }
}

TEST(RequestCodec, EachLayerMustFit) {
  const ObjectIdEMS sys_name[] = {1, 3, 6, 1, 2, 1, 1, 5, 0};
  SnmpVarBindEMS vars[3] = {};
  for (auto &v : vars) {
    v.oid_length = 9;
    memcpy(v.oid, sys_name, sizeof sys_name);
  }
  snmp_info request{};
  memcpy(request.community, "public", 6);
  request.clen = 6;
  request.command = SNMP_GET_REQ;
  request.reqid = 0x01020304;
  // One NULL binding is 14 octets, its list 16, the PDU 30, the message 43.
  const struct {
    int vars;
    int room;
    int result;
    std::string echo;
  } cases[] = {
      {0, 1024, -2, "snmpBuild09: No variables set!\n"},
      {1, 10, -2, "snmpBuild09: error 1\n"},
      {1, 20, -2, "snmpBuild09: error 5\n"},
      {1, 40, -2, "snmpBuild09: error 9\n"},
      {1, 43, 0, ""},
      {3, 4096, -2, "snmpBuild09: error 10\n"},  // three 400-octet values outgrow 1,024
  };
  for (const auto &c : cases) {
    SCOPED_TRACE("vars " + std::to_string(c.vars) + ", room " + std::to_string(c.room));
    for (auto &v : vars) {
      v.type = c.vars == 3 ? ASN_OCTET_STR : ASN_NULL;
      v.val_len = c.vars == 3 ? 400 : 0;
    }
    request.vars = c.vars;
    Bytes out(static_cast<size_t>(c.room));
    int length = c.room;
    int result = 0;
    auto seen = with_diagnostics(SNMP_TRACE_REQUEST, [&] { result = snmpBuild09(out.data(), &length, &request, vars); });
    EXPECT_EQ(result, c.result);
    EXPECT_EQ(seen.standard_error, c.echo);
    if (result == 0) {
      EXPECT_EQ(length, 43);
    }
  }
}

// ---- A socket of the test's own as the agent.

struct Request {
  snmp_info info;
  std::vector<SnmpVarBindEMS> vars;
};

// Answers each request on a thread with the datagrams `answer` returns for
// it (none: silence), and keeps every request it decoded.
class FakeAgent {
 public:
  using Answer = std::function<std::vector<Bytes>(int index, const Request &)>;
  explicit FakeAgent(Answer answer) : answer_(std::move(answer)) {
    setenv("KZ_SNMP_PORT", std::to_string(socket_.port()).c_str(), 1);
    thread_ = std::thread([this] { serve(); });
  }
  ~FakeAgent() {
    stop_ = true;
    thread_.join();
  }
  std::vector<Request> requests() {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }
  uint16_t port() const { return socket_.port(); }

 private:
  void serve() {
    while (!stop_) {
      pollfd waiter{socket_.fd(), POLLIN, 0};
      if (poll(&waiter, 1, 50) <= 0) continue;
      unsigned char datagram[4096];
      sockaddr_in from{};
      socklen_t from_length = sizeof from;
      ssize_t n = recvfrom(socket_.fd(), datagram, sizeof datagram, 0,
                           reinterpret_cast<sockaddr *>(&from), &from_length);
      Request request{{}, std::vector<SnmpVarBindEMS>(SNMPCALL_CHUNK)};
      request.info.clen = SNMP_COMMUNITY_MAX;
      request.info.maxvars = SNMPCALL_CHUNK;
      if (n <= 0 || snmp_parse(datagram, static_cast<int>(n), &request.info, request.vars.data()) != 0)
        continue;
      request.vars.resize(static_cast<size_t>(request.info.vars));
      int index;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        index = static_cast<int>(requests_.size());
        requests_.push_back(request);
      }
      for (const Bytes &reply : answer_(index, request))
        sendto(socket_.fd(), reply.data(), reply.size(), 0, reinterpret_cast<sockaddr *>(&from), from_length);
    }
  }

  testsupport::UdpSocket socket_;
  Answer answer_;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::vector<Request> requests_;
  std::thread thread_;
};

using Edit = std::function<void(snmp_info &, std::vector<SnmpVarBindEMS> &)>;

// The agent's GetResponse to `request`: each name with the INTEGER of its
// last arc, the given error-status, and the request-id moved by `skew`;
// `edit` may change it further before it is encoded.
Bytes answer(const Request &request, int errstat = 0, int skew = 0, const Edit &edit = nullptr) {
  snmp_info info = request.info;
  info.command = SNMP_GET_RSP;
  info.errstat = errstat;
  info.reqid += skew;
  std::vector<SnmpVarBindEMS> vars = request.vars;
  for (auto &v : vars) {
    v.type = ASN_INTEGER;
    v.val.integer = static_cast<int32_t>(v.oid[v.oid_length - 1]);
    v.val_len = 4;
  }
  if (edit) edit(info, vars);
  info.vars = static_cast<int32_t>(vars.size());
  Bytes out(4096);
  int length = static_cast<int>(out.size());
  EXPECT_EQ(snmpBuild09(out.data(), &length, &info, vars.data()), 0);
  out.resize(static_cast<size_t>(length));
  return out;
}

std::vector<SnmpVarBindEMS> numbered_names(int count) {
  std::vector<SnmpVarBindEMS> vars(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    const ObjectIdEMS name[] = {1, 3, 6, 1, 4, 1, 49999, 9, static_cast<ObjectIdEMS>(i)};
    memcpy(vars[i].oid, name, sizeof name);
    vars[i].oid_length = 9;
  }
  return vars;
}

snmp_call_info *call_to_loopback(int timeout, int retries, const char *community = "public") {
  snmp_call_info *sci = init_snmp_call(timeout, retries);
  EXPECT_NE(sci, nullptr);
  init_snmp_request(sci, htonl(INADDR_LOOPBACK), community);
  return sci;
}

TEST(SnmpCall, ArraysGoInChunksOfTenAndStopAtAFailingChunk) {
  const struct {
    int failing_chunk;  // -1: none
    int result;
    std::vector<size_t> chunks;
  } cases[] = {{-1, 0, {10, 10, 5}}, {1, 5, {10, 10}}};
  for (const auto &c : cases) {
    SCOPED_TRACE("failing chunk " + std::to_string(c.failing_chunk));
    FakeAgent agent([&](int index, const Request &r) {
      return std::vector<Bytes>{answer(r, index == c.failing_chunk ? 5 : 0)};
    });
    snmp_call_info *sci = call_to_loopback(5, 1);
    std::vector<SnmpVarBindEMS> in = numbered_names(25), out(25);
    EXPECT_EQ(getvar_array(sci, in.data(), out.data(), 25), c.result);
    std::vector<Request> seen = agent.requests();
    std::vector<size_t> chunks;
    for (const Request &r : seen) chunks.push_back(r.vars.size());
    EXPECT_EQ(chunks, c.chunks);
    for (size_t i = 1; i < seen.size(); ++i) EXPECT_NE(seen[i].info.reqid, seen[i - 1].info.reqid);
    if (c.result == 0) {
      for (int i = 0; i < 25; ++i) EXPECT_EQ(out[i].val.integer, i) << "binding " << i;
    }
    close_snmp_call(sci);
  }
}

TEST(SnmpCall, StaleAnswerIsSkippedWithoutUsingARetry) {
  FakeAgent agent([](int, const Request &r) { return std::vector<Bytes>{answer(r, 0, -1), answer(r)}; });
  snmp_call_info *sci = call_to_loopback(5, 1);
  std::vector<SnmpVarBindEMS> in = numbered_names(1), out(1);
  EXPECT_EQ(getvar(sci, in.data(), out.data()), 0);
  EXPECT_EQ(out[0].val.integer, 0);
  EXPECT_EQ(agent.requests().size(), 1u);
  close_snmp_call(sci);
}

// A hostile or broken agent: what does not answer the request is skipped
// at no send, what answers it wrongly is refused, nothing is taken for a
// good answer.
// An answer to `request` changed by `edit`, its values all 99 so that
// taking it for the real answer shows.
Bytes decoy(const Request &request, const std::function<void(snmp_info &)> &edit) {
  return answer(request, 0, 0, [&](snmp_info &info, std::vector<SnmpVarBindEMS> &vars) {
    edit(info);
    for (auto &v : vars) v.val.integer = 99;
  });
}

TEST(SnmpCall, AnswersMustMatchTheRequest) {
  const struct {
    const char *name;
    std::function<std::vector<Bytes>(const Request &)> replies;
    int result;
  } cases[] = {
      {"GetRequest with the request-id first",
       [](const Request &r) {
         return std::vector<Bytes>{decoy(r, [](snmp_info &i) { i.command = SNMP_GET_REQ; }), answer(r)};
       },
       0},
      {"another community first",
       [](const Request &r) {
         return std::vector<Bytes>{decoy(r, [](snmp_info &i) { i.community[0] = 'P'; }), answer(r)};
       },
       0},
      {"SNMPv2c first",
       [](const Request &r) {
         Bytes v2c = decoy(r, [](snmp_info &) {});
         v2c[4] = 1;  // the version INTEGER's one octet
         return std::vector<Bytes>{v2c, answer(r)};
       },
       0},
      {"garbage first", [](const Request &r) { return std::vector<Bytes>{text("garbage"), answer(r)}; },
       SNMPCALL_PARSE},
      {"no bindings for two",
       [](const Request &r) {
         // The encoder refuses an empty list, so this one is made by hand.
         return std::vector<Bytes>{tlv(0x30, cat({integer(0), tlv(4, text("public")),
                                                  tlv(0xA2, cat({integer(r.info.reqid), integer(0),
                                                                 integer(0), tlv(0x30, {})}))}))};
       },
       SNMPCALL_PARSE},
      {"three bindings for two",
       [](const Request &r) {
         return std::vector<Bytes>{answer(r, 0, 0, [](snmp_info &, std::vector<SnmpVarBindEMS> &v) {
           v.push_back(v[0]);
         })};
       },
       SNMPCALL_PARSE},
      {"error-status -5", [](const Request &r) { return std::vector<Bytes>{answer(r, -5)}; }, SNMPCALL_PARSE},
      {"error-status 6", [](const Request &r) { return std::vector<Bytes>{answer(r, 6)}; }, SNMPCALL_PARSE},
      {"genErr", [](const Request &r) { return std::vector<Bytes>{answer(r, 5)}; }, 5},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    FakeAgent agent([&](int, const Request &r) { return c.replies(r); });
    snmp_call_info *sci = call_to_loopback(5, 1);
    std::vector<SnmpVarBindEMS> in = numbered_names(2), out(2);
    EXPECT_EQ(getvar_array(sci, in.data(), out.data(), 2), c.result);
    if (c.result == SNMPCALL_PARSE) {
      EXPECT_STREQ(snmpcall_error(sci), "Could not parse incoming SNMP packet.");
    }
    if (c.result == 0) {
      EXPECT_EQ(out[1].val.integer, 1);
    }
    EXPECT_EQ(agent.requests().size(), 1u);
    close_snmp_call(sci);
  }
}

// Stale answers dripping in faster than the time-out hold one send for at
// most a bounded time: the call ends while they still come.
TEST(SnmpCall, DrippingStaleAnswersCannotHoldTheCall) {
  FakeAgent agent([](int, const Request &) { return std::vector<Bytes>{}; });
  snmp_call_info *sci = call_to_loopback(1, 1);
  Request stale{sci->request, numbered_names(1)};
  stale.info.reqid -= 5;
  const Bytes datagram = answer(stale);
  constexpr int kMostDrops = 100;  // 30 s of them
  std::atomic<bool> done{false};
  std::atomic<int> drops{0};
  std::thread dripper([&] {
    testsupport::UdpSocket from;
    while (!done && drops < kMostDrops) {
      // The caller's port is known once the request has gone out.
      sockaddr_in caller{};
      socklen_t size = sizeof caller;
      getsockname(sci->sd, reinterpret_cast<sockaddr *>(&caller), &size);
      caller.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      sendto(from.fd(), datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr *>(&caller), sizeof caller);
      ++drops;
      std::this_thread::sleep_for(300ms);
    }
  });
  std::vector<SnmpVarBindEMS> in = numbered_names(1), out(1);
  EXPECT_EQ(getvar(sci, in.data(), out.data()), SNMPCALL_TIMEOUT);
  done = true;
  dripper.join();
  EXPECT_LT(drops, kMostDrops) << "the call waited as long as the datagrams came";
  close_snmp_call(sci);
}

TEST(SnmpCall, SilenceSendsOncePerRetryAndAlternatesTheConnection) {
  const struct {
    int retries;
    size_t sends;
    std::string trace;
  } cases[] = {
      {0, 0, ""},
      {3, 3,
       "snmp_call(): select timed out -- connecting..returned 0\n"
       "snmp_call(): select timed out -- disconnecting\n"
       "snmp_call(): select timed out -- connecting..returned 0\n"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE("retries " + std::to_string(c.retries));
    FakeAgent agent([](int, const Request &) { return std::vector<Bytes>{}; });
    snmp_call_info *sci = call_to_loopback(1, c.retries);
    std::vector<SnmpVarBindEMS> in = numbered_names(1), out(1);
    int result = 0;
    auto seen = with_diagnostics(SNMP_TRACE_CALL, [&] { result = getvar(sci, in.data(), out.data()); });
    EXPECT_EQ(result, SNMPCALL_TIMEOUT);
    EXPECT_STREQ(snmpcall_error(sci), "TIMED OUT: No SNMP response.");
    EXPECT_EQ(seen.standard_error, c.trace);
    EXPECT_EQ(agent.requests().size(), c.sends);
    close_snmp_call(sci);
  }
}

TEST(SnmpCall, RefusedPortAndOverlongCommunity) {
  setenv("KZ_SNMP_PORT", std::to_string(testsupport::free_udp_port()).c_str(), 1);
  snmp_call_info *sci = call_to_loopback(1, 3);
  std::vector<SnmpVarBindEMS> in = numbered_names(1), out(1);
  EXPECT_EQ(getvar(sci, in.data(), out.data()), SNMPCALL_RECV);
  EXPECT_EQ(sci->save_errno, ECONNREFUSED);
  EXPECT_STREQ(snmpcall_error(sci), "Remote does not support SNMP.");

  // Cut to 128 octets, which the envelope cannot carry: refused before sending.
  const std::string long_community(200, 'c');
  init_snmp_2request(sci, htonl(INADDR_LOOPBACK), long_community.c_str(), 200);
  EXPECT_EQ(sci->request.clen, 128);
  EXPECT_EQ(getvar(sci, in.data(), out.data()), SNMPCALL_BUILD);
  EXPECT_STREQ(snmpcall_error(sci), "Internal error building SNMP packet.");
  close_snmp_call(sci);
}

TEST(SendRequest, AcceptsOnlyTheAnswerToItsRequest) {
  const struct {
    const char *name;
    std::function<Bytes(const Request &)> reply;
    int result;
  } cases[] = {
      {"matching answer", [](const Request &r) { return answer(r); }, 1},
      {"another request-id", [](const Request &r) { return answer(r, 0, 1); }, -1},
      {"another community",
       [](const Request &r) {
         Request other = r;
         other.info.community[0] = 'P';
         return answer(other);
       },
       -1},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    FakeAgent agent([&](int, const Request &r) { return std::vector<Bytes>{c.reply(r)}; });
    int sd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(agent.port());
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    snmp_info request{}, response{};
    memcpy(request.community, "public", 6);
    request.clen = 6;
    request.command = SNMP_GET_REQ;
    request.reqid = 99;
    request.vars = 1;
    response.clen = SNMP_COMMUNITY_MAX;
    response.maxvars = 1;
    std::vector<SnmpVarBindEMS> in = numbered_names(1), out(1);
    in[0].type = ASN_NULL;
    EXPECT_EQ(send_request(sd, to, &request, &response, in.data(), out.data()), c.result);
    close(sd);
  }
}

TEST(SnmpCall, EveryCodeHasItsText) {
  // System texts as this locale words them.
  auto with = [](const char *text, int error) { return text + std::string(strerror(error)) + "."; };
  const struct {
    int code;
    int saved_errno;
    std::string text;
  } cases[] = {
      {SNMPCALL_UNKNOWN, EIO, with("Unknown SNMP ERROR:  ", EIO)},
      {SNMPCALL_SEND, ENETUNREACH, with("Could not send SNMP packet:  ", ENETUNREACH)},
      {SNMPCALL_WAIT, EBADF, with("Internal error in select():  ", EBADF)},
      {SNMPCALL_RECV, EAGAIN, with("Error on SNMP recvfrom():  ", EAGAIN)},
      {SNMPCALL_PARSE, 0, "Could not parse incoming SNMP packet."},
      {SNMPCALL_NOMEM, 0, "Out of memory."},
      {SNMPCALL_BAD_TYPE, 0, "Internal Error: Invalid data type for set."},
      {0, 0, "SNMP Error:  noError"},
      {5, 0, "SNMP Error:  genErr"},
      {18, 0, "SNMP Error:  inconsistentName"},
      {19, 0, "SNMP Error:  unknown error"},
      {-10, 0, "SNMP Error:  unknown error"},
  };
  snmp_call_info *sci = init_snmp_call(1, 1);
  ASSERT_NE(sci, nullptr);
  for (const auto &c : cases) {
    sci->response.errstat = c.code;
    sci->save_errno = c.saved_errno;
    EXPECT_EQ(snmpcall_error(sci), c.text) << c.code;
  }
  close_snmp_call(sci);
}

// ---- net-snmp's snmpd as the agent.

class AgentTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { agent_ = new testsupport::SnmpAgent(); }
  static void TearDownTestSuite() { delete agent_; }
  void SetUp() override {
    ASSERT_TRUE(agent_->running()) << "snmpd did not start";
    setenv("KZ_SNMP_PORT", std::to_string(agent_->port()).c_str(), 1);
  }
  static testsupport::SnmpAgent *agent_;
};
testsupport::SnmpAgent *AgentTest::agent_ = nullptr;

SnmpVarBindEMS system_variable(ObjectIdEMS arc, ObjectIdEMS instance = 0) {
  SnmpVarBindEMS v{};
  const ObjectIdEMS name[] = {1, 3, 6, 1, 2, 1, 1, arc, instance};
  memcpy(v.oid, name, sizeof name);
  v.oid_length = 9;
  return v;
}
std::string string_value(const SnmpVarBindEMS &v) {
  return std::string(reinterpret_cast<const char *>(v.val.string), v.val_len);
}

TEST_F(AgentTest, GetsSystemVariablesAndWalksTheGroup) {
  snmp_call_info *sci = call_to_loopback(2, 3);
  SnmpVarBindEMS in[] = {system_variable(1), system_variable(2), system_variable(3), system_variable(6)};
  SnmpVarBindEMS out[4] = {};
  ASSERT_EQ(getvar_array(sci, in, out, 4), 0) << snmpcall_error(sci);
  EXPECT_EQ(out[0].type, ASN_OCTET_STR);
  EXPECT_EQ(out[1].type, ASN_OBJECT_ID);
  EXPECT_EQ(std::vector<ObjectIdEMS>(out[1].val.objid, out[1].val.objid + 7),
            (std::vector<ObjectIdEMS>{1, 3, 6, 1, 4, 1, 8072}));  // net-snmp's enterprise
  EXPECT_EQ(out[2].type, ASN_TIMETICKS);
  EXPECT_EQ(string_value(out[3]), "lab");

  // Get-next from the group's root visits sysDescr first, then rising names
  // inside the group, sysLocation among them.
  SnmpVarBindEMS cursor = system_variable(0);
  cursor.oid_length = 7;
  std::vector<ObjectIdEMS> names;
  bool location_seen = false;
  for (int steps = 0; steps < 100; ++steps) {
    SnmpVarBindEMS next{};
    ASSERT_EQ(getnextvar(sci, &cursor, &next), 0) << snmpcall_error(sci);
    if (next.oid_length < 8 || next.oid[6] != 1 || next.oid[5] != 1) break;
    if (!names.empty()) {
      EXPECT_GT(next.oid[7], names.back() - 1) << "names do not rise";
    }
    names.push_back(next.oid[7]);
    location_seen |= next.oid[7] == 6 && string_value(next) == "lab";
    cursor = next;
  }
  ASSERT_FALSE(names.empty());
  EXPECT_EQ(names.front(), 1u);
  EXPECT_TRUE(location_seen);
  close_snmp_call(sci);
}

TEST_F(AgentTest, SetNeedsTheWriteCommunity) {
  const struct {
    const char *community;
    int result;
    const char *error;
  } cases[] = {{"public", 2, "SNMP Error:  noSuchName"}, {"private", 0, "SNMP Error:  noError"}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.community);
    snmp_call_info *sci = call_to_loopback(2, 3, c.community);
    SnmpVarBindEMS contact = system_variable(4), out{};
    contact.type = ASN_OCTET_STR;
    memcpy(contact.val.string, c.community, strlen(c.community));
    contact.val_len = static_cast<uint32_t>(strlen(c.community));
    EXPECT_EQ(setvar_array(sci, &contact, &out, 1), c.result);
    EXPECT_STREQ(snmpcall_error(sci), c.error);
    close_snmp_call(sci);
  }
  snmp_call_info *sci = call_to_loopback(2, 3);
  SnmpVarBindEMS contact = system_variable(4), out{};
  ASSERT_EQ(getvar(sci, &contact, &out), 0);
  EXPECT_EQ(string_value(out), "private");
  close_snmp_call(sci);
}

}  // namespace
