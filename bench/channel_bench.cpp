// Events per second from send_event to recv_event over a Unix stream
// socket pair, against the floor of the same framing: the same header and
// message written by one write per event and read back by one read for the
// header and one for the message.

#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "event.h"

namespace {

struct Pair {
  Pair() {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) abort();
    memset(&sender, 0, sizeof sender);
    memset(&receiver, 0, sizeof receiver);
    sender.sd = fds[0];
    sender.trans = EVENT_TRANS_UNIX;
    sender.source = 1;
    receiver.sd = fds[1];
    receiver.trans = EVENT_TRANS_UNIX;
  }
  ~Pair() {
    close(sender.sd);
    close(receiver.sd);
  }
  event_infoEMS sender;
  event_infoEMS receiver;
};

void send_sample(event_infoEMS *ei) {
  send_event(ei, 50790438, "gateway7", "Configuration of hubd changed.", "hubd.conf", "traps");
}

void BM_SendEventRecvEvent(benchmark::State &state) {
  Pair pair;
  snmp_trap_infoEMS trap;
  SnmpVarBindEMS vars[5];
  for (auto _ : state) {
    send_sample(&pair.sender);
    trap.clen = 127;
    trap.elen = 128;
    trap.maxvars = 5;
    if (recv_event(&pair.receiver, &trap, vars) <= 0) state.SkipWithError("recv_event failed");
    benchmark::DoNotOptimize(trap.specific);
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_PlainCallsFloor(benchmark::State &state) {
  Pair pair;
  // The framed bytes of the same event, captured once.
  send_sample(&pair.sender);
  std::vector<unsigned char> frame(24 + EVENT_MAX_MESSAGE);
  ssize_t framed = read(pair.receiver.sd, frame.data(), frame.size());
  if (framed <= 24) abort();
  frame.resize(static_cast<size_t>(framed));
  trap_headerEMS header;
  std::vector<unsigned char> message(EVENT_MAX_MESSAGE);
  for (auto _ : state) {
    if (write(pair.sender.sd, frame.data(), frame.size()) != framed) abort();
    if (read(pair.receiver.sd, &header, sizeof header) != sizeof header) abort();
    if (read(pair.receiver.sd, message.data(), static_cast<size_t>(header.len)) != header.len)
      abort();
    benchmark::DoNotOptimize(message.data());
  }
  state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_SendEventRecvEvent)->UseRealTime();
BENCHMARK(BM_PlainCallsFloor)->UseRealTime();
BENCHMARK_MAIN();
