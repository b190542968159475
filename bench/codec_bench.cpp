// Codec throughput: libevents' decoders beside net-snmp's parser on the
// same bytes, for typical traps (enterprise of ten arcs, five or eight
// bindings of mixed types), the same notification as an SNMPv2c trap and
// as an authenticated and encrypted SNMPv3 trap, and a GetResponse of ten system-group bindings; and the trap encoder.
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
#include "snmp_clnt.h"
#include "usm.h"
#include "support/ber_bytes.h"
#include "support/sample_trap.h"

namespace {

// The sample trap with `bindings` bindings: its five, then its first ones
// again.
std::vector<unsigned char> sample_message(int bindings) {
  snmp_trap_infoEMS trap;
  SnmpVarBindEMS vars[8];
  testsupport::make_sample_trap(&trap, vars, 8);
  for (int i = 5; i < bindings; ++i) vars[i] = vars[i - 5];
  trap.vars = bindings;
  unsigned char out[1024];
  int length = sizeof out;
  if (snmpBuildTrapEMS(out, &length, &trap, nullptr, vars) != 0) abort();
  return std::vector<unsigned char>(out, out + length);
}

// A GetResponse of ten system-group bindings as an agent sends them:
// strings, an identifier, time ticks and integers.
std::vector<unsigned char> sample_response() {
  static SnmpVarBindEMS vars[10];
  snmp_info info{};
  memcpy(info.community, "public", 6);
  info.clen = 6;
  info.command = SNMP_GET_RSP;
  info.reqid = 0x2A5F1C3D;
  info.vars = 10;
  for (int i = 0; i < 10; ++i) {
    SnmpVarBindEMS &v = vars[i];
    uint32_t length = 0;
    testsupport::set_oid(v.oid, &length, {1, 3, 6, 1, 2, 1, 1, static_cast<ObjectIdEMS>(i % 7 + 1), 0});
    v.oid_length = length;
    switch (i % 4) {
      case 0:
        testsupport::set_binding_string(&v, "Linux gateway7 6.1.0 #1 SMP x86_64");
        break;
      case 1:
        v.type = ASN_OBJECT_ID;
        testsupport::set_oid(v.val.objid, &v.val_len, {1, 3, 6, 1, 4, 1, 8072, 3, 2, 10});
        break;
      case 2:
        testsupport::set_binding_int(&v, ASN_TIMETICKS, 123456789);
        break;
      default:
        testsupport::set_binding_int(&v, ASN_INTEGER, 72);
    }
  }
  unsigned char out[1024];
  int length = sizeof out;
  if (snmpBuild09(out, &length, &info, vars) != 0) abort();
  return std::vector<unsigned char>(out, out + length);
}

// The sample trap's notification as an agent sends it in SNMPv2c:
// sysUpTime.0, snmpTrapOID.0 (enterprise, 0, 17), then five bindings of
// the sample's kinds.
std::vector<unsigned char> sample_notification() {
  using namespace testsupport;
  const Bytes enterprise = object_id({1, 3, 6, 1, 4, 1, 49999, 6, 3, 2, 0, 17});
  return v2c_message(
      SNMP_TRAP2_PDU, "public", 0x2A5F1C3D,
      cat({varbind(object_id({1, 3, 6, 1, 2, 1, 1, 3, 0}), integer(12345678, ASN_TIMETICKS)),
           varbind(object_id({1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0}), enterprise),
           varbind(object_id({1, 3, 6, 1, 4, 1, 49999, 6, 3, 1, 1, 2, 0}), integer(7)),
           varbind(object_id({1, 3, 6, 1, 4, 1, 49999, 6, 3, 1, 1, 3, 0}),
                   tlv(ASN_OCTET_STR, text("gateway7 link down on port 3"))),
           varbind(object_id({1, 3, 6, 1, 2, 1, 2, 2, 1, 1, 3}),
                   object_id({1, 3, 6, 1, 6, 3, 1, 1, 5, 3})),
           varbind(object_id({1, 3, 6, 1, 4, 1, 49999, 1, 1}), tlv(ASN_IPADDRESS, {192, 168, 1, 20})),
           varbind(object_id({1, 3, 6, 1, 4, 1, 49999, 1, 4}), integer(4294967295, ASN_TIMETICKS))}));
}

void report_allocations(benchmark::State &state, uint64_t before) {
  state.counters["allocs/op"] = benchmark::Counter(
      static_cast<double>(bench::allocations() - before), benchmark::Counter::kAvgIterations);
}

// Runs the libevents decoder `decode` over `message` once, skipping the
// benchmark unless `check` accepts what it decoded, then timed.
template <typename Decode, typename Check>
void decode_libevents(benchmark::State &state, std::vector<unsigned char> message,
                      Decode decode, Check check) {
  decode(message);
  if (!check()) {
    state.SkipWithError("libevents did not decode the sample");
    return;
  }
  uint64_t before = bench::allocations();
  for (auto _ : state) {
    benchmark::DoNotOptimize(decode(message));
    benchmark::ClobberMemory();
  }
  report_allocations(state, before);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(message.size()));
  state.SetLabel(std::to_string(message.size()) + " octets");
}

void BM_DecodeTrap_libevents(benchmark::State &state) {
  static snmp_trap_infoEMS trap;
  static SnmpVarBindEMS vars[8];
  const int bindings = static_cast<int>(state.range(0));
  decode_libevents(
      state, sample_message(bindings),
      [](std::vector<unsigned char> &message) {
        snmp_trap_reset_capacities(&trap, 8);
        return snmp_parse_trap(message.data(), static_cast<int>(message.size()), &trap, nullptr, vars);
      },
      [&] { return trap.vars == bindings; });
}
BENCHMARK(BM_DecodeTrap_libevents)->Arg(5)->Arg(8);

// net-snmp's own parser on the same bytes (taken from its library, not the
// libevents function of the same name).
void decode_netsnmp(benchmark::State &state, const std::vector<unsigned char> &message, int bindings) {
  if (bench::netsnmp_parse(message.data(), message.size()) != bindings) {
    state.SkipWithError("net-snmp did not decode the sample");
    return;
  }
  uint64_t before = bench::allocations();
  for (auto _ : state) benchmark::DoNotOptimize(bench::netsnmp_parse(message.data(), message.size()));
  report_allocations(state, before);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(message.size()));
}

void BM_DecodeTrap_netsnmp(benchmark::State &state) {
  int bindings = static_cast<int>(state.range(0));
  decode_netsnmp(state, sample_message(bindings), bindings);
}
BENCHMARK(BM_DecodeTrap_netsnmp)->Arg(5)->Arg(8);

void BM_DecodeNotification_libevents(benchmark::State &state) {
  static snmp_trap_infoEMS trap;
  static SnmpVarBindEMS vars[8];
  decode_libevents(
      state, sample_notification(),
      [](std::vector<unsigned char> &message) {
        snmp_trap_reset_capacities(&trap, 8);
        return snmp_parse_notification(message.data(), static_cast<int>(message.size()),
                                       0x0100007F, &trap, vars, nullptr);
      },
      [] { return trap.vars == 5 && trap.specific == 17; });
}
BENCHMARK(BM_DecodeNotification_libevents);

void BM_DecodeNotification_netsnmp(benchmark::State &state) {
  decode_netsnmp(state, sample_notification(), 7);
}
BENCHMARK(BM_DecodeNotification_netsnmp);

// The SNMPv2c sample again as SNMPv3 at authPriv (SHA, AES-128), built by
// net-snmp: the digest checked, the scoped PDU decrypted, then the same
// translation.  net-snmp parses it under the same user.
const std::vector<unsigned char> &sample_v3() {
  static const std::vector<unsigned char> message = [] {
    std::vector<unsigned char> v2c = sample_notification();
    return bench::netsnmp_v3_notification(v2c.data(), v2c.size());
  }();
  return message;
}

void BM_DecodeV3AuthPriv_libevents(benchmark::State &state) {
  static const unsigned char kLocal[] = {0x80, 0x00, 0xC3, 0x4F, 0x05, 1, 2, 3, 4, 5, 6, 7, 8};
  static const unsigned char kSender[] = {0x80, 0x00, 0x00, 0x00, 0x01, 0x02, 0x03, 0x04};
  static usm_table *table = [] {
    usm_table *t = usm_table_new(kLocal, sizeof kLocal, 1);
    usm_table_add_user(t, kSender, sizeof kSender, "shaAes", USM_AUTH_SHA1, "authpass123",
                       USM_PRIV_AES128, "privpass123");
    return t;
  }();
  static snmp_trap_infoEMS trap;
  static SnmpVarBindEMS vars[8];
  decode_libevents(
      state, sample_v3(),
      [](std::vector<unsigned char> &message) {
        snmp_trap_reset_capacities(&trap, 8);
        return snmp_parse_notification_v3(message.data(), static_cast<int>(message.size()),
                                          0x0100007F, table, &trap, vars, nullptr);
      },
      [] { return trap.vars == 5 && trap.specific == 17; });
}
BENCHMARK(BM_DecodeV3AuthPriv_libevents);

void BM_DecodeV3AuthPriv_netsnmp(benchmark::State &state) { decode_netsnmp(state, sample_v3(), 7); }
BENCHMARK(BM_DecodeV3AuthPriv_netsnmp);

void BM_DecodeResponse_libevents(benchmark::State &state) {
  static snmp_info response;
  static SnmpVarBindEMS vars[10];
  decode_libevents(
      state, sample_response(),
      [](std::vector<unsigned char> &message) {
        response.clen = SNMP_COMMUNITY_MAX;
        response.maxvars = 10;
        return snmp_parse(message.data(), static_cast<int>(message.size()), &response, vars);
      },
      [] { return response.vars == 10; });
}
BENCHMARK(BM_DecodeResponse_libevents);

void BM_DecodeResponse_netsnmp(benchmark::State &state) { decode_netsnmp(state, sample_response(), 10); }
BENCHMARK(BM_DecodeResponse_netsnmp);

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
