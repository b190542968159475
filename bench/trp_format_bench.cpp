// trp_format throughput for the operator's display, with the bundled
// example configuration and with a generated one of 100,000 formats (1,000
// enterprises of 100 formats each, once with a catch-all `$*` that renders
// every binding with its label path), the host-name cache warm.  The floor
// beside them produces the same line with one snprintf of pieces rendered
// beforehand: what is left of the cost once finding the format, rendering
// the arguments and reading the clock are taken away.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "oidtree.h"
#include "trp_format.h"

namespace {

constexpr int kLargeEnterprises = 1000;
constexpr int kFormatsPerEnterprise = 100;

std::string temp_dir() {
  static std::string dir;
  if (dir.empty()) {
    char name[] = "/tmp/trp_format_bench-XXXXXX";
    if (mkdtemp(name) == nullptr) abort();
    dir = name;
  }
  return dir;
}

void write_text(const std::string &path, const std::string &text) {
  FILE *f = fopen(path.c_str(), "w");
  if (f == nullptr) abort();
  fwrite(text.data(), 1, text.size(), f);
  fclose(f);
}

std::string read_text(const std::string &path) {
  std::string text;
  FILE *f = fopen(path.c_str(), "r");
  if (f == nullptr) abort();
  char block[4096];
  size_t n;
  while ((n = fread(block, 1, sizeof block, f)) > 0) text.append(block, n);
  fclose(f);
  return text;
}

// The bundled configuration, its node-list path pointed at the examples.
std::string bundled_config() {
  std::string text = read_text(EVENTS_EXAMPLES_DIR "/hubd.conf");
  const std::string installed = "/usr/KZ/conf/C/";
  for (size_t at; (at = text.find(installed)) != std::string::npos;)
    text.replace(at, installed.size(), EVENTS_EXAMPLES_DIR "/");
  std::string path = temp_dir() + "/bundled.conf";
  write_text(path, text);
  return path;
}

// 100,000 formats whose line is `line`, in a file named `name`.
std::string large_config(const std::string &name, const std::string &line) {
  std::string text = "CATEGORY 1 \"Network Topology Events\"\nCATEGORY 3 \"Status Events\"\n";
  for (int e = 0; e < kLargeEnterprises; ++e)
    text += "ent" + std::to_string(e) + " {1.3.6.1.4.1." + std::to_string(30000 + e) + "}\n";
  for (int e = 0; e < kLargeEnterprises; ++e) {
    for (int s = 1; s <= kFormatsPerEnterprise; ++s) {
      text += "trap" + std::to_string(e) + "_" + std::to_string(s) + " {1.3.6.1.4.1." +
              std::to_string(30000 + e) + "} 6 " + std::to_string(s) +
              " A 3 0 \"Status Events\"\n" + line + "\nSDESC\nEDESC\n";
    }
  }
  std::string path = temp_dir() + "/" + name;
  write_text(path, text);
  return path;
}

// Points the formatter at `path`; the next trp_format reads it, once for
// all the runs of one benchmark.
void load(const std::string &path) {
  static std::string loaded;
  if (path == loaded) return;
  loaded = path;
  setenv("KZ_CONF_DIR", EVENTS_EXAMPLES_DIR, 1);
  setenv("KZ_MIB_FILE", EVENTS_EXAMPLES_DIR "/mib.labels", 1);
  free_all_info();
  setHubdConfFile(path.c_str());
  have_read_hubdconf = 0;
}

void set_int_binding(SnmpVarBindEMS *var, std::vector<ObjectIdEMS> oid, int value) {
  var->oid_length = static_cast<uint32_t>(oid.size());
  std::copy(oid.begin(), oid.end(), var->oid);
  var->type = 0x02;
  var->val.integer = value;
  var->val_len = 4;
}

// A link-down trap from the loopback agent, with the interface's index and
// its two states.
void make_trap(snmp_trap_infoEMS *trap, SnmpVarBindEMS *vars, std::vector<ObjectIdEMS> enterprise,
               uint32_t generic, uint32_t specific) {
  memset(trap, 0, sizeof *trap);
  memcpy(trap->community, "public", 6);
  trap->clen = 6;
  std::copy(enterprise.begin(), enterprise.end(), trap->enterprise);
  trap->elen = static_cast<int32_t>(enterprise.size());
  memcpy(&trap->agent, "\x7f\x00\x00\x01", 4);
  trap->gen = generic;
  trap->specific = specific;
  trap->vars = 3;
  trap->maxvars = 3;
  set_int_binding(&vars[0], {1, 3, 6, 1, 2, 1, 2, 2, 1, 1, 3}, 3);
  set_int_binding(&vars[1], {1, 3, 6, 1, 2, 1, 2, 2, 1, 7, 3}, 1);
  set_int_binding(&vars[2], {1, 3, 6, 1, 2, 1, 2, 2, 1, 8, 3}, 2);
}

void format_traps(benchmark::State &state, std::vector<snmp_trap_infoEMS> &traps,
                  SnmpVarBindEMS *vars) {
  char buffer[2048];
  char *host = nullptr;
  // The first call loads the configuration and resolves the agent.
  buffer[0] = '\0';
  trp_format(QMWEVENT_USER, &traps[0], buffer, sizeof buffer, vars, &host, 0);
  size_t next = 0;
  for (auto _ : state) {
    buffer[0] = '\0';
    int result = trp_format(QMWEVENT_USER, &traps[next], buffer, sizeof buffer, vars, &host, 0);
    if (result < 0) state.SkipWithError("trap not shown");
    benchmark::DoNotOptimize(buffer);
    if (++next == traps.size()) next = 0;
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_TrpFormatBundled(benchmark::State &state) {
  static const std::string path = bundled_config();
  load(path);
  std::vector<snmp_trap_infoEMS> traps(1);
  SnmpVarBindEMS vars[3];
  make_trap(&traps[0], vars, {1, 3, 6, 1, 6, 3, 1, 1, 5}, 2, 0);
  format_traps(state, traps, vars);
}
BENCHMARK(BM_TrpFormatBundled);

void format_large(benchmark::State &state, const std::string &path) {
  load(path);
  std::mt19937 random(8);
  std::vector<snmp_trap_infoEMS> traps(4096);
  SnmpVarBindEMS vars[3];
  for (auto &trap : traps) {
    ObjectIdEMS enterprise = 30000 + static_cast<ObjectIdEMS>(random() % kLargeEnterprises);
    make_trap(&trap, vars, {1, 3, 6, 1, 4, 1, enterprise}, 6,
              1 + static_cast<uint32_t>(random() % kFormatsPerEnterprise));
  }
  format_traps(state, traps, vars);
}

void BM_TrpFormatLarge(benchmark::State &state) {
  static const std::string path =
      large_config("large.conf", "Interface $1 of $A is down (admin $2, oper $3)");
  format_large(state, path);
}
BENCHMARK(BM_TrpFormatLarge);

void BM_TrpFormatLargeStar(benchmark::State &state) {
  static const std::string path = large_config("large_star.conf", "Interface down on $A: $*");
  format_large(state, path);
}
BENCHMARK(BM_TrpFormatLargeStar);

void BM_SnprintfFloor(benchmark::State &state) {
  const char *when = "Sun Nov 22 11:50:54 2026";
  const char *line = "Interface 3 of localhost is down (admin 1, oper 2)";
  char buffer[2048];
  for (auto _ : state) {
    snprintf(buffer, sizeof buffer, "%s%-24.24s %-15.15s %c %s\n", "", when, "localhost", 'A',
             line);
    benchmark::DoNotOptimize(buffer);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SnprintfFloor);

}  // namespace

BENCHMARK_MAIN();
