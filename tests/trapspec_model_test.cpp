// Configuration model: identifier order, longest-prefix matching, trap list
// order and node matching, name uniqueness, lookups and frees.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "support/fixtures.h"
#include "trp_format.h"

namespace {

using Oid = std::vector<ObjectIdEMS>;
using Names = std::vector<std::string>;

const Oid kCisco = {1, 3, 6, 1, 4, 1, 9};

class Model : public ::testing::Test {
 protected:
  void SetUp() override { free_all_info(); }
  void TearDown() override { free_all_info(); }

  static void add_enterprise(Oid oid, const char *name) {
    insert_enterprise(oid.data(), oid.size(), name);
  }
  static enterprise_info *find(Oid oid) {
    enterprise_info *found = nullptr;
    find_enterprise(oid.data(), oid.size(), &found);
    return found;
  }
  static enterprise_info *cisco() {
    add_enterprise(kCisco, "cisco");
    return find(kCisco);
  }
  static Names enterprise_names() {
    Names names;
    for (enterprise_info *e = enterprise_list_head.next; e != nullptr; e = e->next)
      names.push_back(e->enterprise_name);
    return names;
  }
  static trap_record *add_trap(enterprise_info *e, const char *name, int generic, int specific,
                               const Names &nodes = {}) {
    char **list = nodes.empty() ? nullptr
                                : static_cast<char **>(doMalloc(
                                      static_cast<unsigned>(nodes.size() * sizeof(char *))));
    for (size_t i = 0; i < nodes.size(); ++i) list[i] = doStrdup(nodes[i].c_str());
    std::string trap_name = name;
    return insertMallocTrapRecord(e, trap_name.data(), generic, specific,
                                  static_cast<int>(nodes.size()), list, 2, 'A',
                                  doStrdup("$A says $1"), nullptr, nullptr, nullptr, 1, 0, 0,
                                  nullptr, 0, nullptr, nullptr);
  }
  static Names trap_names(enterprise_info *e) {
    Names names;
    for (trap_record *r = e->trap_rec_list_head.next; r != nullptr; r = r->next)
      names.push_back(r->name);
    return names;
  }
};

TEST(OidOrder, LongerSortsBeforeItsPrefixOtherwiseByFirstDifferingArc) {
  struct Case {
    Oid a, b;
    int expected;
  } cases[] = {
      {{1, 3, 6}, {1, 3, 6}, 0},     {{1, 3}, {1, 3, 6, 1}, 2}, {{1, 3, 6, 1}, {1, 3}, -2},
      {{1, 3, 7}, {1, 3, 6, 1}, 1},  {{1, 3, 2}, {1, 3, 9}, -7}, {{}, {5}, 1},
      // The difference is taken in 32 bits and read as a signed number.
      {{0}, {0x80000001u}, 0x7fffffff},
  };
  for (Case &c : cases)
    EXPECT_EQ(oidcmp(c.a.data(), c.b.data(), c.a.size(), c.b.size()), c.expected);
}

TEST_F(Model, LongestConfiguredPrefixWinsInEitherInsertOrder) {
  const Oid hp = {1, 3, 6, 1, 4, 1, 11}, hp_net = {1, 3, 6, 1, 4, 1, 11, 2, 17};
  for (bool reversed : {false, true}) {
    free_all_info();
    add_enterprise(reversed ? hp_net : hp, reversed ? "hpNetworking" : "hp");
    add_enterprise(reversed ? hp : hp_net, reversed ? "hp" : "hpNetworking");
    add_enterprise(kCisco, "cisco");
    add_enterprise({1, 3, 6, 1, 4, 1, 11, 2, 3}, "hpSystems");
    add_enterprise(kCisco, "ciscoSystems");  // the same identifier only renames
    EXPECT_EQ(enterprise_names(), (Names{"ciscoSystems", "hpSystems", "hpNetworking", "hp"}));
    const Oid query = {1, 3, 6, 1, 4, 1, 11, 2, 17, 1};
    ASSERT_NE(find(query), nullptr);
    EXPECT_STREQ(find(query)->enterprise_name, "hpNetworking");
    EXPECT_STREQ(find(hp_net)->enterprise_name, "hpNetworking");
    EXPECT_STREQ(find({1, 3, 6, 1, 4, 1, 11, 3})->enterprise_name, "hp");
    EXPECT_EQ(find({1, 3, 6, 1, 4, 1}), nullptr);
    EXPECT_EQ(find({1, 3, 6, 1, 4, 1, 12}), nullptr);

    // The next, less specific candidate is found from the one after.
    enterprise_info *candidate = find(query)->next;
    Oid copy = query;
    find_enterprise_relative(copy.data(), copy.size(), &candidate);
    ASSERT_NE(candidate, nullptr);
    EXPECT_STREQ(candidate->enterprise_name, "hp");
  }
  // An empty identifier matches whatever nothing longer does.
  add_enterprise({}, "everything");
  EXPECT_STREQ(find({2, 5})->enterprise_name, "everything");
  EXPECT_STREQ(find({})->enterprise_name, "everything");
  EXPECT_STREQ(find({1, 3, 6, 1, 4, 1, 9, 1})->enterprise_name, "ciscoSystems");
}

// Enterprises arriving in random order, with shared prefixes and repeats,
// form one list in oidcmp order without duplicates.
TEST_F(Model, EnterpriseListStaysInOrderWhateverTheInsertOrder) {
  std::vector<Oid> oids;
  for (ObjectIdEMS a = 0; a < 6; ++a)
    for (ObjectIdEMS b = 0; b < 6; ++b) oids.push_back(b == 0 ? Oid{1, a} : Oid{1, a, b % 3, b});
  oids.insert(oids.end(), oids.begin(), oids.begin() + 10);
  std::mt19937 random(7);
  for (int round = 0; round < 20; ++round) {
    free_all_info();
    std::shuffle(oids.begin(), oids.end(), random);
    for (const Oid &oid : oids) add_enterprise(oid, "e");
    int count = 0;
    for (enterprise_info *e = enterprise_list_head.next; e != nullptr; e = e->next, ++count) {
      if (e->next == nullptr) break;
      ASSERT_LT(oidcmp(e->enterprise_oid, e->next->enterprise_oid, e->oid_len, e->next->oid_len), 0)
          << "round " << round;
    }
    EXPECT_EQ(count + 1, 36) << "round " << round;
  }
}

TEST_F(Model, TrapsSortByNumbersAndNodeFormatsComeFirst) {
  enterprise_info *e = cisco();
  add_trap(e, "six-five", 6, 5);
  add_trap(e, "cold", 0, 0);
  add_trap(e, "wild", -1, 0);
  add_trap(e, "six-five-hostA", 6, 5, {"hostA"});
  add_trap(e, "six-two", 6, 2);
  add_trap(e, "six-five-hostB", 6, 5, {"hostB"});
  add_trap(e, "six-nine", 6, 9);
  EXPECT_EQ(trap_names(e), (Names{"wild", "cold", "six-two", "six-five-hostB", "six-five-hostA",
                                  "six-five", "six-nine"}));
  struct Query {
    int generic, specific;
    const char *node;
    const char *expected;
  } queries[] = {
      {6, 5, "hostA", "six-five-hostA"}, {6, 5, "hostB", "six-five-hostB"},
      {6, 5, "hostC", "six-five"},       {6, 5, nullptr, "six-five"},
      {6, 3, "hostA", nullptr},          {-1, 0, "any", "wild"},
      {7, 0, nullptr, nullptr},          {0, 0, nullptr, "cold"},
  };
  for (const Query &q : queries) {
    trap_record *found = findExactTrapRecord(e, q.generic, q.specific, q.node);
    EXPECT_EQ(found == nullptr ? std::string("(none)") : found->name,
              q.expected == nullptr ? "(none)" : q.expected)
        << q.generic << "/" << q.specific;
  }
}

TEST_F(Model, OrderHoldsForFormatsArrivingInAnyOrder) {
  // Against a plain list kept by the same rules: node formats go before
  // the first of their pair, a node-less one after the last, and a second
  // node-less format of a pair updates the first.
  enterprise_info *e = cisco();
  struct Entry {
    int generic, specific;
    bool nodes;
    std::string name;
  };
  std::vector<Entry> expected;
  unsigned seed = 7;
  auto next = [&seed](unsigned range) {
    return (seed = seed * 1103515245u + 12345u) / 65536u % range;
  };
  for (int i = 0; i < 3000; ++i) {
    Entry entry{static_cast<int>(next(4)) - 1, static_cast<int>(next(40)), next(3) == 0,
                std::string("t").append(std::to_string(i))};
    auto pair = [](const Entry &x) { return std::make_pair(x.generic, x.specific); };
    auto first = std::find_if(expected.begin(), expected.end(),
                              [&](const Entry &x) { return pair(x) >= pair(entry); });
    auto end = std::find_if(first, expected.end(),
                            [&](const Entry &x) { return pair(x) != pair(entry); });
    auto twin = std::find_if(first, end, [](const Entry &x) { return !x.nodes; });
    if (entry.nodes) {
      expected.insert(first, entry);
    } else if (twin != end) {
      twin->name = entry.name;
    } else {
      expected.insert(end, entry);
    }
    add_trap(e, entry.name.c_str(), entry.generic, entry.specific,
             entry.nodes ? Names{"node-" + entry.name} : Names{});
    if (i % 500 == 0) {
      // Releasing a format (here the first) makes the model look again.
      trap_record *gone = e->trap_rec_list_head.next;
      e->trap_rec_list_head.next = gone->next;
      expected.erase(std::find_if(expected.begin(), expected.end(),
                                  [gone](const Entry &x) { return x.name == gone->name; }));
      free_trap_record(gone);
    }
  }
  Names names;
  for (const Entry &entry : expected) names.push_back(entry.name);
  EXPECT_EQ(trap_names(e), names);
}

TEST_F(Model, NodeListsWithSourceListFiles) {
  testsupport::TempDir dir;
  std::string list = dir.file("nodes.list");
  testsupport::write_file(list, "# routers\n  rtr-1 Frankfurt\n\n\trtr-2\n#rtr-9\n");
  enterprise_info *e = cisco();
  trap_record *listed = add_trap(e, "listed", 6, 1, {"sw-1", list});
  trap_record *missing = add_trap(e, "missing", 6, 2, {dir.file("absent.list"), "sw-1"});
  // Lists that open but cannot be read count as missing; a FIFO must not block.
  std::string fifo = dir.file("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  trap_record *unreadable[] = {add_trap(e, "folder", 6, 3, {dir.path(), "sw-1"}),
                               add_trap(e, "fifo", 6, 4, {fifo, "sw-1"}),
                               add_trap(e, "failing", 6, 5, {"/proc/self/mem", "sw-1"})};
  trap_record unrestricted = {};
  struct Case {
    trap_record *record;
    const char *node;
    int expected;
  } cases[] = {
      {listed, "sw-1", 1},
      {listed, "rtr-1", 1},
      {listed, "rtr-2", 1},
      {listed, "rtr-9", 0},
      {listed, "Frankfurt", 0},
      {listed, nullptr, 0},
      {&unrestricted, nullptr, 1},
      // An unreadable list ends the search, even before an exact entry.
      {missing, "sw-1", 0},
      {unreadable[0], "sw-1", 0},
      {unreadable[1], "sw-1", 0},
      {unreadable[2], "sw-1", 0},
  };
  alarm(20);
  for (const Case &c : cases)
    EXPECT_EQ(trapRecNodesMatch(c.record, c.node), c.expected) << (c.node ? c.node : "(null)");
  alarm(0);
}

TEST_F(Model, NamesAreUniqueAndLookupsFollowUpdates) {
  enterprise_info *e = cisco();
  add_trap(e, "linkDown", 6, 1);
  add_trap(e, "linkDown_1", 6, 2);
  EXPECT_STREQ(add_trap(e, "linkDown", 6, 3)->name, "linkDown_2");
  const std::string name39(39, 'n');
  add_trap(e, name39.c_str(), 6, 4);
  // The cut name with "_1" is 40 characters; its last one is lost.
  EXPECT_EQ(std::string(add_trap(e, name39.c_str(), 6, 5)->name), std::string(38, 'n') + "_");
  trap_record *record;
  enterprise_info *owner;
  ASSERT_EQ(nameToTrapAndEnterprise("linkDown_2", &record, &owner), 0);
  EXPECT_EQ(owner, e);
  EXPECT_EQ(record->specific_trap, 3);
  EXPECT_EQ(nameToTrapAndEnterprise("linkDown_3", &record, &owner), -1);
  EXPECT_EQ(owner, nullptr);
  // Names are unique as stored: a 40-character name is checked cut to 39.
  const std::string name40(40, 'm');
  std::set<std::string> stored;
  for (int specific = 20; specific < 24; ++specific)
    stored.insert(add_trap(e, name40.c_str(), 6, specific)->name);
  EXPECT_EQ(stored.size(), 4u);
  EXPECT_EQ(stored.count(std::string(39, 'm')), 1u);
  // A name given up is handed out again.
  EXPECT_STREQ(add_trap(e, "other", 6, 2)->name, "other");
  EXPECT_STREQ(add_trap(e, "linkDown", 6, 30)->name, "linkDown_1");
  EXPECT_STREQ(add_trap(e, "linkDown", 6, 31)->name, "linkDown_3");

  // Same numbers and node update a record, which keeps its node list.
  trap_record *first = add_trap(e, "tempHigh", 6, 7, {"rtr-1", "rtr-2"});
  trap_record *plain = add_trap(e, "tempAny", 6, 7);
  EXPECT_EQ(add_trap(e, "tempRtr2", 6, 7, {"rtr-2"}), first);
  EXPECT_STREQ(first->name, "tempRtr2");
  EXPECT_EQ(first->nodeCnt, 2);
  EXPECT_NE(add_trap(e, "tempOther", 6, 7, {"rtr-7"}), plain);
  EXPECT_EQ(add_trap(e, "tempAll", 6, 7), plain);
  EXPECT_EQ(nameToExactTrap("tempAll"), plain);
  EXPECT_EQ(nameToExactTrap("tempAny"), nullptr);
  EXPECT_EQ(nameToExactTrap("tempHigh"), nullptr);

  // A record renamed in place leaves a stale entry, noticed when asked for.
  strcpy(plain->name, "renamed");
  EXPECT_EQ(nameToExactTrap("tempAll"), nullptr);
  EXPECT_EQ(nameToExactTrap("renamed"), plain);
}

TEST_F(Model, DeletesAndFrees) {
  enterprise_info *e = cisco();
  add_enterprise({1, 3, 6, 1, 4, 1, 11}, "hp");
  trap_record *first = add_trap(e, "a", 6, 1);
  trap_record *last = add_trap(e, "b", 6, 2);
  EXPECT_EQ(delete_enterprise_record(e), -1) << "it still has formats";
  EXPECT_EQ(delete_enterprise_record(find({1, 3, 6, 1, 4, 1, 11})), 0);
  EXPECT_EQ(enterprise_names(), Names{"cisco"});
  Oid query = {1, 3, 6, 1, 4, 1, 9, 9, 13};
  char buffer[16] = "xxxxxxxxxx";
  EXPECT_EQ(oid_to_name(query.data(), query.size(), buffer, 5), -1) << "no room for the NUL";
  EXPECT_EQ(buffer[0], '\0');
  EXPECT_EQ(oid_to_name(query.data(), query.size(), buffer, 6), 0);
  EXPECT_STREQ(buffer, "cisco");

  // Unlink and free the last format; later inserts still land in order.
  first->next = nullptr;
  free_trap_record(last);
  EXPECT_EQ(nameToExactTrap("b"), nullptr);
  add_trap(e, "c", 6, 3);
  add_trap(e, "d", 6, 0);
  EXPECT_EQ(trap_names(e), (Names{"d", "a", "c"}));

  free_trap_record(&default_trap_record);  // the fallback is never released
  free_all_info();
  EXPECT_EQ(enterprise_list_head.next, nullptr);
  EXPECT_EQ(nameToExactTrap("a"), nullptr);
}

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#elif defined(__has_feature)
constexpr bool kAddressSanitizer = __has_feature(address_sanitizer);
#else
constexpr bool kAddressSanitizer = false;
#endif

// A failed allocation inside the library, outside the memory routines too
// (here the standard library's string of a long configuration directory),
// ends the process as doMalloc does rather than escaping as an exception.
TEST(Allocation, FailureEndsTheProcessAsDoMallocDoes) {
  if (kAddressSanitizer) GTEST_SKIP() << "the address sanitizer reserves more than any limit";
  testsupport::TempDir dir;
  std::string errors = dir.file("stderr");
  pid_t child = fork();
  if (child == 0) {
    int fd = open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, 2);
    setenv("KZ_CONF_DIR", std::string(64 << 20, 'd').c_str(), 1);
    long pages = 0;
    FILE *statm = fopen("/proc/self/statm", "r");
    if (statm == nullptr || fscanf(statm, "%ld", &pages) != 1) _exit(3);
    fclose(statm);
    rlimit limit = {};
    limit.rlim_cur = limit.rlim_max = static_cast<rlim_t>(pages) * 4096 + (32 << 20);
    setrlimit(RLIMIT_AS, &limit);
    setHubdConfFile(nullptr);
    getHubdConfFile();
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << "status " << status;
  EXPECT_EQ(testsupport::read_file(errors), "malloc(0) failed in file readformat.\n");
}

}  // namespace
