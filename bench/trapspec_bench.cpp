// Loading and matching cost of large trap configurations.
//
// Generated files hold 10,000 and 100,000 trap formats in these shapes:
//   - "plain": 1,000 enterprises (a quarter of them top-level enterprises,
//     the rest nested under them so that prefixes are shared), their
//     formats grouped by enterprise;
//   - "shuffled": the same formats in random order;
//   - "ascending enterprises": one format for each of as many enterprises,
//     enterprises and formats in ascending identifier order (a prefix
//     before the identifiers under it, the reverse of the model's order);
//   - "one enterprise": every format in one enterprise, specific numbers
//     descending, so that each new one goes to the front of the list;
//   - "same name": every format of one trap under one name, each for a
//     node of its own (NODES), so that each is checked against the others.
// BM_ReadTrapspec times read_trapspec_file; BM_MatchEveryTrap times
// find_enterprise + findExactTrapRecord for every configured trap, as the
// formatter does per received trap.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "trp_format.h"

namespace {

constexpr int kEnterprises = 1000;

struct Trap {
  std::vector<ObjectIdEMS> oid;  // enterprise of a received trap
  int generic;
  int specific;
};

std::vector<ObjectIdEMS> enterprise_oid(int i) {
  std::vector<ObjectIdEMS> oid = {1, 3, 6, 1, 4, 1, static_cast<ObjectIdEMS>(20000 + i / 4)};
  if (i % 4 != 0) {
    oid.push_back(static_cast<ObjectIdEMS>(i % 4));
    oid.push_back(1);
  }
  return oid;
}

std::string dotted(const std::vector<ObjectIdEMS> &oid) {
  std::string text;
  for (ObjectIdEMS arc : oid) text += (text.empty() ? "" : ".") + std::to_string(arc);
  return text;
}

std::string trap_group(int t, const std::vector<ObjectIdEMS> &oid, int specific) {
  std::string group = "trap" + std::to_string(t) + " {" + dotted(oid) + "} 6 " +
                      std::to_string(specific) + " A " + std::to_string(t % 6) + " 0 \"Status Events\"\n";
  group += "Trap " + std::to_string(specific) + " from $A: port $1 is $2 ($#: $*)\n";
  if (t % 10 == 0) group += "EXEC /usr/local/bin/notify --node $A --value $2\n";
  if (t % 20 == 0) group += "NODES rtr-" + std::to_string(t % 50) + ", sw-" + std::to_string(t % 7) + "\n";
  group += "SDESC\nGenerated trap format number " + std::to_string(t) + ".\nEDESC\n";
  return group;
}

enum Shape { kPlain, kShuffled, kAscending, kOneEnterprise, kSameName };
const char *const kShapeNames[] = {"plain", "shuffled", "ascending enterprises", "one enterprise",
                                   "same name"};

// The enterprise lines and trap groups of a configuration.
struct Body {
  std::vector<std::string> enterprises;
  std::vector<std::string> groups;
};

Body body(int traps, Shape shape) {
  Body b;
  if (shape == kSameName || shape == kOneEnterprise) {
    b.enterprises.push_back("ent {1.3.6.1.4.1.9}\n");
    for (int t = 1; t <= traps; ++t) {
      std::string group = shape == kSameName ? trap_group(1, {1, 3, 6, 1, 4, 1, 9}, 1)
                                             : trap_group(t, {1, 3, 6, 1, 4, 1, 9}, traps + 1 - t);
      if (shape == kSameName) group.insert(group.find("SDESC"), "NODES node-" + std::to_string(t) + "\n");
      b.groups.push_back(group);
    }
    return b;
  }
  int enterprises = shape == kAscending ? traps : kEnterprises;
  int per_enterprise = traps / enterprises;
  for (int i = 0; i < enterprises; ++i) {
    b.enterprises.push_back("ent" + std::to_string(i) + " {" + dotted(enterprise_oid(i)) + "}\n");
    for (int s = 1; s <= per_enterprise; ++s)
      b.groups.push_back(trap_group(i * per_enterprise + s, enterprise_oid(i), s));
  }
  if (shape == kShuffled) std::shuffle(b.groups.begin(), b.groups.end(), std::mt19937(42));
  return b;
}

// Generated files by size and shape, removed at exit.
std::map<std::pair<int, Shape>, std::string> files;

// Writes the configuration once per size and shape; returns its path.
const std::string &configuration(int traps, Shape shape) {
  auto key = std::make_pair(traps, shape);
  auto found = files.find(key);
  if (found != files.end()) return found->second;
  std::string path = "/tmp/trapspec_bench_" + std::to_string(getpid()) + "_" + std::to_string(traps) +
                     "_" + std::to_string(shape) + ".conf";
  std::string text = "CATEGORY 3 \"Status Events\"\nCATEGORY 9 \"IGNORE\"\n";
  Body b = body(traps, shape);
  for (const std::string &line : b.enterprises) text += line;
  for (const std::string &group : b.groups) text += group;
  FILE *file = fopen(path.c_str(), "w");
  fwrite(text.data(), 1, text.size(), file);
  fclose(file);
  return files[key] = path;
}

void load(int traps, Shape shape, benchmark::State *state) {
  setHubdConfFile(configuration(traps, shape).c_str());
  char *error = nullptr;
  if (read_trapspec_file(&error) != 0 && state != nullptr) state->SkipWithError(error);
}

void BM_ReadTrapspec(benchmark::State &state) {
  int traps = static_cast<int>(state.range(0));
  auto shape = static_cast<Shape>(state.range(1));
  configuration(traps, shape);
  for (auto _ : state) {
    load(traps, shape, &state);
    state.PauseTiming();
    free_all_info();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * traps);
  state.SetLabel(kShapeNames[shape]);
}
BENCHMARK(BM_ReadTrapspec)
    ->ArgsProduct({{10000, 100000}, {kPlain, kShuffled, kAscending, kOneEnterprise, kSameName}})
    ->Unit(benchmark::kMillisecond);

void BM_MatchEveryTrap(benchmark::State &state) {
  load(100000, kPlain, &state);
  std::vector<Trap> traps;
  for (enterprise_info *e = enterprise_list_head.next; e != nullptr; e = e->next) {
    std::vector<ObjectIdEMS> oid(e->enterprise_oid, e->enterprise_oid + e->oid_len);
    oid.push_back(0);  // a received trap's enterprise lies below the configured one
    for (trap_record *r = e->trap_rec_list_head.next; r != nullptr; r = r->next)
      traps.push_back({oid, r->generic_trap, r->specific_trap});
  }
  size_t matched = 0;
  for (auto _ : state) {
    for (Trap &trap : traps) {
      enterprise_info *enterprise = nullptr;
      find_enterprise(trap.oid.data(), trap.oid.size(), &enterprise);
      matched += findExactTrapRecord(enterprise, trap.generic, trap.specific, "rtr-0") != nullptr;
    }
  }
  benchmark::DoNotOptimize(matched);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(traps.size()));
  free_all_info();
}
BENCHMARK(BM_MatchEveryTrap)->Unit(benchmark::kMillisecond);

// insert_enterprise with 100,000 enterprises arriving in ascending,
// descending or random order.
void BM_InsertEnterprises(benchmark::State &state) {
  int count = static_cast<int>(state.range(0));
  std::vector<std::vector<ObjectIdEMS>> oids;
  for (int i = 0; i < count; ++i)
    oids.push_back({1, 3, 6, 1, 4, 1, static_cast<ObjectIdEMS>(1 + i / 100),
                    static_cast<ObjectIdEMS>(i % 100)});
  const char *labels[] = {"ascending", "descending", "shuffled"};
  if (state.range(1) == 1) std::reverse(oids.begin(), oids.end());
  if (state.range(1) == 2) std::shuffle(oids.begin(), oids.end(), std::mt19937(42));
  for (auto _ : state) {
    for (std::vector<ObjectIdEMS> &oid : oids) insert_enterprise(oid.data(), oid.size(), "e");
    state.PauseTiming();
    free_all_info();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * count);
  state.SetLabel(labels[state.range(1)]);
}
BENCHMARK(BM_InsertEnterprises)
    ->Args({100000, 0})
    ->Args({100000, 1})
    ->Args({100000, 2})
    ->Unit(benchmark::kMillisecond);

// 10,000 formats of one trap, all named alike, each for its own node: every
// one after the first needs a fresh suffix.
void BM_SameNameVariants(benchmark::State &state) {
  int count = static_cast<int>(state.range(0));
  std::vector<ObjectIdEMS> oid = {1, 3, 6, 1, 4, 1, 9};
  for (auto _ : state) {
    insert_enterprise(oid.data(), oid.size(), "cisco");
    enterprise_info *enterprise = nullptr;
    find_enterprise(oid.data(), oid.size(), &enterprise);
    for (int i = 0; i < count; ++i) {
      char **nodes = static_cast<char **>(doMalloc(sizeof(char *)));
      nodes[0] = doStrdup(("rtr-" + std::to_string(i)).c_str());
      char name[] = "linkDown";
      insertMallocTrapRecord(enterprise, name, 6, 1, 1, nodes, 2, 'A', doStrdup("$A down"), nullptr,
                             nullptr, nullptr, 1, 0, 0, nullptr, 0, nullptr, nullptr);
    }
    state.PauseTiming();
    free_all_info();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(BM_SameNameVariants)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  for (const auto &entry : files) unlink(entry.second.c_str());
  return 0;
}
