// Traps per second through the whole event channel, end to end: a sender
// process (jetstream_peer) publishes while this process takes, for
//   - the Unix-socket hub (hubd-dev relaying between the two);
//   - a JetStream stream on one nats-server node (1 replica);
//   - a JetStream stream on a three-node cluster (3 replicas);
// the streams with each trap a message of its own (batch:1), and with
// traps sent in batches of up to 64 (batch:64).
// The rate is counted from the first trap taken to the last, so that the
// sender's start does not count.
//
//   build/bench/jetstream_bench

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>

#include "event.h"
#include "support/fixtures.h"
#include "support/nats_server.h"

namespace {

using testsupport::ChildProcess;
using testsupport::NatsCluster;
using testsupport::NatsNode;
using testsupport::TempDir;

constexpr int kTraps = 30000;

TempDir &dir() {
  static TempDir instance;
  return instance;
}

// Seconds from the first trap of a sender's run to its last, or -1.
double take_run(event_infoEMS *receiver) {
  snmp_trap_infoEMS trap;
  SnmpVarBindEMS vars[4];
  std::chrono::steady_clock::time_point first;
  for (int taken = 0; taken < kTraps;) {
    snmp_trap_reset_capacities(&trap, 4);
    if (recv_event(receiver, &trap, vars) <= 0) return -1;
    // The sender's connected event is not counted.
    if (trap.elen != 10 || trap.enterprise[9] != 2) continue;
    if (taken++ == 0) first = std::chrono::steady_clock::now();
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - first).count();
}

void run(benchmark::State &state, const std::string &send_url, const std::string &receive_name,
         int trans) {
  event_infoEMS receiver{};
  if (open_event(&receiver, EVENT_SOURCE_HUBD, receive_name.c_str(), trans) < 0) {
    state.SkipWithError("cannot open the connection");
    return;
  }
  for (auto _ : state) {
    ChildProcess sender({JETSTREAM_PEER_PATH, "send", send_url, std::to_string(kTraps)});
    double seconds = take_run(&receiver);
    sender.wait_for_line("(its end)", std::chrono::seconds(120));
    if (seconds < 0) {
      state.SkipWithError("a trap was lost");
      break;
    }
    state.SetIterationTime(seconds);
  }
  state.SetItemsProcessed(state.iterations() * (kTraps - 1));
  close_event(&receiver);
}

void BM_UnixHub(benchmark::State &state) {
  std::string socket = dir().file("hub.socket");
  ChildProcess hub({HUBD_DEV_PATH, "--unix", socket});
  if (hub.wait_for_line("hubd-dev: ready", std::chrono::seconds(10)).empty()) {
    state.SkipWithError("hubd-dev did not start");
    return;
  }
  run(state, socket, socket, EVENT_TRANS_UNIX);
}
BENCHMARK(BM_UnixHub)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_JetStream_1Replica(benchmark::State &state) {
  NatsNode node(dir(), "single");
  if (!node.running()) {
    state.SkipWithError("nats-server did not start");
    return;
  }
  std::string url = "nats://" + node.address() + "/BENCH1";
  run(state, url + "?batch=" + std::to_string(state.range(0)), url + "?durable=bench",
      EVENT_TRANS_JETSTREAM);
}
BENCHMARK(BM_JetStream_1Replica)->ArgName("batch")->Arg(1)->Arg(64)->UseManualTime()
    ->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_JetStream_3Replicas(benchmark::State &state) {
  NatsCluster cluster(dir());
  if (!cluster.running()) {
    state.SkipWithError("the cluster did not start");
    return;
  }
  std::string url = cluster.url() + "/BENCH3?replicas=3";
  // The cluster elects its leaders in the first seconds.
  event_infoEMS probe{};
  for (int i = 0; i < 100 && open_event(&probe, EVENT_SOURCE_HUBD, url.c_str(),
                                        EVENT_TRANS_JETSTREAM) < 0; ++i)
    usleep(200000);
  close_event(&probe);
  run(state, url + "&batch=" + std::to_string(state.range(0)), url + "&durable=bench",
      EVENT_TRANS_JETSTREAM);
}
BENCHMARK(BM_JetStream_3Replicas)->ArgName("batch")->Arg(1)->Arg(64)->UseManualTime()
    ->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
