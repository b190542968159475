// Synchronous get round trips against net-snmp's snmpd on a loopback
// port: libevents' getvar beside net-snmp's snmp_synch_response, one get
// of sysDescr.0 per iteration, in the same run against the same agent.
//
//   build/bench/snmp_call_bench

#include <arpa/inet.h>
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "netsnmp_baseline.h"
#include "snmp_call.h"
#include "support/snmp_agent.h"

namespace {

testsupport::SnmpAgent &agent() {
  static testsupport::SnmpAgent instance;
  return instance;
}

void BM_GetRoundTrip_libevents(benchmark::State &state) {
  if (!agent().running()) {
    state.SkipWithError("snmpd did not start");
    return;
  }
  setenv("KZ_SNMP_PORT", std::to_string(agent().port()).c_str(), 1);
  snmp_call_info *sci = init_snmp_call(2, 3);
  init_snmp_request(sci, htonl(INADDR_LOOPBACK), "public");
  SnmpVarBindEMS in{}, out{};
  const ObjectIdEMS sys_descr[] = {1, 3, 6, 1, 2, 1, 1, 1, 0};
  memcpy(in.oid, sys_descr, sizeof sys_descr);
  in.oid_length = 9;
  for (auto _ : state) {
    if (getvar(sci, &in, &out) != 0) {
      state.SkipWithError(snmpcall_error(sci));
      break;
    }
  }
  close_snmp_call(sci);
}
BENCHMARK(BM_GetRoundTrip_libevents)->UseRealTime();

void BM_GetRoundTrip_netsnmp(benchmark::State &state) {
  if (!agent().running() || !bench::netsnmp_open(agent().port(), "public")) {
    state.SkipWithError("no net-snmp session to snmpd");
    return;
  }
  for (auto _ : state) {
    if (!bench::netsnmp_get_sysdescr()) {
      state.SkipWithError("net-snmp get failed");
      break;
    }
  }
}
BENCHMARK(BM_GetRoundTrip_netsnmp)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
