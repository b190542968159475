// Trap codec throughput: libevents' decoder and encoder on a typical trap
// (enterprise of ten arcs, five bindings of mixed types, about 150 octets)
// beside net-snmp's parser on the same bytes.
//
//   build/bench/codec_bench
//
// The allocs/op counter is the number of heap allocations per call.

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "alloc_counter.h"
#include "netsnmp_baseline.h"
#include "snmp.h"
#include "support/sample_trap.h"

namespace {

std::vector<unsigned char> sample_message() {
  snmp_trap_infoEMS trap;
  SnmpVarBindEMS vars[5];
  testsupport::make_sample_trap(&trap, vars, 5);
  unsigned char out[1024];
  int length = sizeof out;
  if (snmpBuildTrapEMS(out, &length, &trap, nullptr, vars) != 0) abort();
  return std::vector<unsigned char>(out, out + length);
}

void report_allocations(benchmark::State &state, uint64_t before) {
  state.counters["allocs/op"] = benchmark::Counter(
      static_cast<double>(bench::allocations() - before), benchmark::Counter::kAvgIterations);
}

void BM_DecodeTrap_libevents(benchmark::State &state) {
  std::vector<unsigned char> message = sample_message();
  static snmp_trap_infoEMS trap;
  static SnmpVarBindEMS vars[8];
  uint64_t before = bench::allocations();
  for (auto _ : state) {
    trap.clen = 127;
    trap.elen = 128;
    trap.maxvars = 8;
    int result = snmp_parse_trap(message.data(), static_cast<int>(message.size()), &trap, nullptr, vars);
    benchmark::DoNotOptimize(result);
    benchmark::ClobberMemory();
  }
  report_allocations(state, before);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(message.size()));
  state.SetLabel(std::to_string(message.size()) + " octets");
}
BENCHMARK(BM_DecodeTrap_libevents);

void BM_DecodeTrap_netsnmp(benchmark::State &state) {
  std::vector<unsigned char> message = sample_message();
  if (bench::netsnmp_parse(message.data(), message.size()) != 5) {
    state.SkipWithError("net-snmp did not decode the sample trap");
    return;
  }
  uint64_t before = bench::allocations();
  for (auto _ : state) benchmark::DoNotOptimize(bench::netsnmp_parse(message.data(), message.size()));
  report_allocations(state, before);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(message.size()));
}
BENCHMARK(BM_DecodeTrap_netsnmp);

void BM_EncodeTrap_libevents(benchmark::State &state) {
  static snmp_trap_infoEMS trap;
  static SnmpVarBindEMS vars[5];
  testsupport::make_sample_trap(&trap, vars, 5);
  unsigned char out[1024];
  uint64_t before = bench::allocations();
  for (auto _ : state) {
    int length = sizeof out;
    int result = snmpBuildTrapEMS(out, &length, &trap, nullptr, vars);
    benchmark::DoNotOptimize(result);
    benchmark::ClobberMemory();
  }
  report_allocations(state, before);
}
BENCHMARK(BM_EncodeTrap_libevents);

}  // namespace

BENCHMARK_MAIN();
