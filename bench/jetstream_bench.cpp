// Traps per second through the whole event channel, end to end in one
// process: send_trap on one connection, recv_event on another, for
//   - the Unix-socket hub (hubd-dev relaying between two clients);
//   - a JetStream stream on one nats-server node (1 replica);
//   - a JetStream stream on a three-node cluster (3 replicas).
// Each iteration sends a batch of traps, then takes them all.
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
#include "support/sample_trap.h"

namespace {

using testsupport::ChildProcess;
using testsupport::NatsCluster;
using testsupport::NatsNode;
using testsupport::TempDir;

constexpr int kBatch = 2000;

TempDir &dir() {
  static TempDir instance;
  return instance;
}

// Sends kBatch sample traps on `sender` and takes as many on `receiver`.
bool move_batch(event_infoEMS *sender, event_infoEMS *receiver) {
  snmp_trap_infoEMS trap;
  SnmpVarBindEMS vars[10];
  testsupport::make_sample_trap(&trap, vars, 10);
  for (int i = 0; i < kBatch; ++i)
    if (send_trap(sender, &trap, vars) != 0) return false;
  for (int taken = 0; taken < kBatch;) {
    snmp_trap_reset_capacities(&trap, 10);
    if (recv_event(receiver, &trap, vars) <= 0) return false;
    // The connected events of the two connections are not counted.
    if (trap.elen == 10 && trap.enterprise[9] == 2) ++taken;
  }
  return true;
}

void run(benchmark::State &state, const std::string &send_name, const std::string &receive_name,
         int trans) {
  event_infoEMS sender{}, receiver{};
  if (open_event(&receiver, EVENT_SOURCE_HUBD, receive_name.c_str(), trans) < 0 ||
      open_event(&sender, 13, send_name.c_str(), trans) < 0) {
    state.SkipWithError("cannot open the connections");
    return;
  }
  for (auto _ : state)
    if (!move_batch(&sender, &receiver)) {
      state.SkipWithError("a trap was lost");
      break;
    }
  state.SetItemsProcessed(state.iterations() * kBatch);
  close_event(&sender);
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
BENCHMARK(BM_UnixHub)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(10);

void BM_JetStream_1Replica(benchmark::State &state) {
  NatsNode node(dir(), "single");
  if (!node.running()) {
    state.SkipWithError("nats-server did not start");
    return;
  }
  std::string url = "nats://" + node.address() + "/BENCH1";
  run(state, url, url + "?durable=bench", EVENT_TRANS_JETSTREAM);
}
BENCHMARK(BM_JetStream_1Replica)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(10);

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
  run(state, url, url + "&durable=bench", EVENT_TRANS_JETSTREAM);
}
BENCHMARK(BM_JetStream_3Replicas)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(10);

}  // namespace

BENCHMARK_MAIN();
