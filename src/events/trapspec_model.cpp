// The trap configuration model: records, lookups, inserts and frees.
//
// The lists are what callers walk and what defines matching; beside them
// the module keeps indexes so that a load of tens of thousands of formats
// does not walk the model per insert:
//   - trap names to their records (the uniqueness check and name lookups),
//   - each record to its enterprise, and per enterprise the last record of
//     each generic/specific pair (a new format finds its place without
//     walking the enterprise's list),
//   - the first record of each (enterprise, generic, specific) in one flat
//     table, so that the formatter's exact lookup costs one probe and the
//     record itself, and per such pair that has formats for named nodes,
//     each node to the first of them naming it (a new format finds its twin
//     without comparing every format of the trap),
//   - exact enterprise identifiers in a flat table (the longest-prefix match
//     becomes one probe per prefix length of the query), and the
//     enterprises in list order (a new enterprise finds its place without
//     walking the list),
//   - per trap name the suffix counter last handed out, while no name was
//     given up (a run of formats sharing one name does not count up from 1
//     each time).
// The enterprise index answers only while the list is known to be in a
// consistent oidcmp order, which holds as long as every configured arc is
// below 2^31 (above it the arc difference of oidcmp wraps); otherwise the
// list itself is walked, as the lookups are defined.

#include "model_internal.h"

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <sys/mman.h>

#include "config_line.h"
#include "kz_platform.h"

static_assert(sizeof(trap_arg) == 8, "trap_arg is two 32-bit fields");
static_assert(sizeof(substitute_arg) == 4, "argument kinds are 32-bit");
static_assert(sizeof(trap_record::name) == 40, "trap names are 40 bytes");
static_assert(sizeof(trap_element::arg_list) == 80 * sizeof(trap_arg),
              "a format records at most 80 arguments");

namespace {

char execText[] = "EXEC";
char displayText[] = "DISPLAY";
char forwardText[] = "FORWARD";
char nodesText[] = "NODES";
char sdescText[] = "SDESC";
char edescText[] = "EDESC";
char actionText[] = "ACTION";
char categoryText[] = "CATEGORY";
char eventclassText[] = "EVENT_CLASS";
char smapText[] = "BEGIN_SLOT_MAPPING";
char emapText[] = "END_SLOT_MAPPING";

}  // namespace

extern "C" {
EVENTS_EXPORT char *execKeyword = execText;
EVENTS_EXPORT char *displayKeyword = displayText;
EVENTS_EXPORT char *forwardKeyword = forwardText;
EVENTS_EXPORT char *nodesKeyword = nodesText;
EVENTS_EXPORT char *sdescKeyword = sdescText;
EVENTS_EXPORT char *edescKeyword = edescText;
EVENTS_EXPORT char *actionKeyword = actionText;
EVENTS_EXPORT char *categoryKeyword = categoryText;
EVENTS_EXPORT char *eventclassKeyword = eventclassText;
EVENTS_EXPORT char *smapKeyword = smapText;
EVENTS_EXPORT char *emapKeyword = emapText;

EVENTS_EXPORT enterprise_info enterprise_list_head = {};
EVENTS_EXPORT trap_record default_trap_record = {};
EVENTS_EXPORT char *EMScategories[EMS_MAX_CATEGORIES + 1] = {};
EVENTS_EXPORT actionCmd *actionCommands = nullptr;
EVENTS_EXPORT int numActionCommands = 0;
}

namespace {

constexpr unsigned long kWideArc = 0x80000000ul;

using PairKey = std::pair<int, int>;  // generic, specific number

// The last format of each pair of an enterprise, in pair order: sorted
// blocks of a bounded size, so that a lookup reads a few contiguous lines
// and an insert at any place moves little.
class PairLast {
 public:
  struct Entry {
    PairKey pair;
    trap_record *last;
  };
  // The entry of the greatest pair below `pair` (at most `pair` when
  // `inclusive`); null when there is none.
  const Entry *before(PairKey pair, bool inclusive) const {
    auto goes_before = [&](const Entry &e) { return inclusive ? !(pair < e.pair) : e.pair < pair; };
    auto block = std::partition_point(blocks_.begin(), blocks_.end(),
                                      [&](const Block &b) { return goes_before(b.front()); });
    if (block == blocks_.begin()) return nullptr;
    --block;
    return &*std::prev(std::partition_point(block->begin(), block->end(), goes_before));
  }
  void set(PairKey pair, trap_record *last) {
    if (blocks_.empty()) blocks_.emplace_back();
    auto block = std::partition_point(blocks_.begin() + 1, blocks_.end(),
                                      [&](const Block &b) { return !(pair < b.front().pair); });
    --block;
    auto at = std::partition_point(block->begin(), block->end(),
                                   [&](const Entry &e) { return e.pair < pair; });
    if (at != block->end() && at->pair == pair) {
      at->last = last;
      return;
    }
    block->insert(at, {pair, last});
    if (block->size() < 2 * kBlock) return;
    Block upper(block->begin() + kBlock, block->end());
    block->resize(kBlock);
    blocks_.insert(block + 1, std::move(upper));
  }
  void clear() { blocks_.clear(); }

 private:
  static constexpr size_t kBlock = 64;
  using Block = std::vector<Entry>;
  std::vector<Block> blocks_;  // none empty
};

struct EnterpriseSide {
  uint64_t oid_hash = 0;
  // Rebuilt from the list when a format of the enterprise was released.
  PairLast pair_last;
  bool pairs_known = false;
};

// Storage for a large index: backed by huge pages where the system grants
// them, so that a random probe does not also miss the TLB.
template <typename T>
struct IndexAllocator {
  using value_type = T;
  IndexAllocator() = default;
  template <typename U>
  IndexAllocator(const IndexAllocator<U> &) {}
  static constexpr size_t kHuge = size_t{2} << 20;
  T *allocate(size_t n) {
    size_t bytes = n * sizeof(T);
    if (bytes < kHuge) return std::allocator<T>().allocate(n);
    void *memory = aligned_alloc(kHuge, (bytes + kHuge - 1) / kHuge * kHuge);
    if (memory == nullptr) throw std::bad_alloc();
    madvise(memory, bytes, MADV_HUGEPAGE);
    return static_cast<T *>(memory);
  }
  void deallocate(T *p, size_t n) {
    if (n * sizeof(T) < kHuge)
      std::allocator<T>().deallocate(p, n);
    else
      free(p);
  }
  bool operator==(const IndexAllocator &) const { return true; }
};

// An open-addressing table of values with their 64-bit hashes (linear
// probing, at most half full), for lookups that should cost one cache
// miss.  Values may share a hash: find takes a test for the one wanted.
template <typename Value>
class FlatTable {
 public:
  template <typename Wanted>
  Value *find(uint64_t hash, Wanted wanted) {
    if (slots_.empty()) return nullptr;
    for (size_t i = home(hash); slots_[i].used; i = (i + 1) & mask()) {
      if (slots_[i].hash == hash && wanted(slots_[i].value)) return &slots_[i].value;
    }
    return nullptr;
  }
  void insert(uint64_t hash, const Value &value) {
    if (2 * (count_ + 1) > slots_.size()) grow();
    size_t i = home(hash);
    while (slots_[i].used) i = (i + 1) & mask();
    slots_[i] = {hash, value, true};
    ++count_;
  }
  // Removes the value `found` (a find result) points at, moving back the
  // values probed past it so that no probe sequence is broken.
  void erase(Value *found) {
    size_t hole = static_cast<size_t>(reinterpret_cast<Slot *>(reinterpret_cast<char *>(found) -
                                                                offsetof(Slot, value)) -
                                      slots_.data());
    for (size_t next = (hole + 1) & mask(); slots_[next].used; next = (next + 1) & mask()) {
      size_t from = home(slots_[next].hash);
      if (((next - from) & mask()) >= ((next - hole) & mask())) {
        slots_[hole] = slots_[next];
        hole = next;
      }
    }
    slots_[hole].used = false;
    --count_;
  }
  bool empty() const { return count_ == 0; }
  void clear() {
    slots_.clear();
    count_ = 0;
  }

 private:
  struct Slot {
    uint64_t hash;
    Value value;
    bool used;
  };
  size_t mask() const { return slots_.size() - 1; }
  size_t home(uint64_t hash) const {
    hash ^= hash >> 33;
    hash *= 0xc4ceb9fe1a85ec53ull;
    return (hash ^ (hash >> 29)) & mask();
  }
  void grow() {
    Slots old(std::max<size_t>(64, slots_.size() * 2));
    old.swap(slots_);
    count_ = 0;
    for (const Slot &slot : old) {
      if (slot.used) insert(slot.hash, slot.value);
    }
  }
  using Slots = std::vector<Slot, IndexAllocator<Slot>>;
  Slots slots_;
  size_t count_ = 0;
};

// A generic/specific pair of one enterprise.
struct PairId {
  const enterprise_info *enterprise;
  PairKey pair;
  bool operator==(const PairId &) const = default;
};

uint64_t pair_id_hash(const PairId &id) {
  uint64_t numbers = (static_cast<uint64_t>(static_cast<uint32_t>(id.pair.first)) << 32) |
                     static_cast<uint32_t>(id.pair.second);
  return (reinterpret_cast<uintptr_t>(id.enterprise) * 0x9e3779b97f4a7c15ull) ^ numbers;
}

struct PairIdHash {
  size_t operator()(const PairId &id) const { return pair_id_hash(id); }
};

// An enterprise in the identifier table, with a copy of a short identifier
// so that a probe is answered without reading the enterprise.
constexpr unsigned long kInlineArcs = 13;
struct OidEntry {
  enterprise_info *enterprise;
  unsigned long length;
  ObjectIdEMS arcs[kInlineArcs];

  bool holds(const ObjectIdEMS *oid, unsigned long oid_len) const {
    if (length != oid_len) return false;
    const ObjectIdEMS *own = length <= kInlineArcs ? arcs : enterprise->enterprise_oid;
    return length == 0 || memcmp(own, oid, length * sizeof(ObjectIdEMS)) == 0;
  }
};

// A record's enterprise, and the hash its name was indexed under.
struct Owner {
  const trap_record *record;
  enterprise_info *enterprise;
  uint64_t name_hash;
};

struct PairFirst {
  PairId id;
  trap_record *first;
  // The first format's compiled text when it was linked, read ahead by the
  // lookup alongside the record (the formatter reads it next).  Only a
  // hint: a stale one costs a wasted fetch.
  const char *format_hint;
};

// Of the formats of one pair that name nodes, the first naming each node.
// Unusable when one names a "/path" source-list file, whose matching
// depends on the file.
struct NodeIndex {
  std::unordered_map<std::string, trap_record *> first;
  bool usable = true;
};

// Enterprises ordered as oidcmp orders their identifiers; looked up by
// an identifier as well.
struct OidView {
  const ObjectIdEMS *arcs;
  unsigned long length;
};
struct OidOrder {
  using is_transparent = void;
  static OidView view(const enterprise_info *e) { return {e->enterprise_oid, e->oid_len}; }
  static OidView view(OidView v) { return v; }
  template <typename A, typename B>
  bool operator()(const A &a, const B &b) const {
    OidView x = view(a), y = view(b);
    return oidcmp(const_cast<ObjectIdEMS *>(x.arcs), const_cast<ObjectIdEMS *>(y.arcs), x.length,
                  y.length) < 0;
  }
};

struct Model {
  char *conf_file = nullptr;
  FlatTable<trap_record *> by_name;  // by the hash of the name given when indexed
  FlatTable<Owner> owner;  // by the record's address
  std::unordered_map<const enterprise_info *, EnterpriseSide> enterprises;
  FlatTable<OidEntry> by_oid;
  // The first format of every pair of the enterprises above; a pair that
  // has no format has no entry.
  FlatTable<PairFirst> pair_firsts;
  std::unordered_map<PairId, NodeIndex, PairIdHash> nodes;  // built on demand
  std::set<enterprise_info *, OidOrder> in_order;  // kept while `ordered`
  // Trap name to the suffix counter last used for it; every smaller
  // counter gave a name in use.  Forgotten whenever a name is given up.
  std::unordered_map<std::string, int> last_suffix;
  // False once an enterprise with an arc of 2^31 or more was configured,
  // until the list is emptied.
  bool ordered = true;
  char node_line[TRAPSPEC_LINE_SIZE];
  events::AlertListRelease release_alert_list = nullptr;
};

Model model;

uint64_t mix(uint64_t hash, ObjectIdEMS arc) {
  hash ^= arc + 0x9e3779b97f4a7c15ull + (hash << 6) + (hash >> 2);
  return hash * 0xff51afd7ed558ccdull;
}

constexpr uint64_t kOidSeed = 0xcbf29ce484222325ull;

uint64_t oid_hash(const ObjectIdEMS *oid, unsigned long length) {
  uint64_t hash = kOidSeed;
  for (unsigned long i = 0; i < length; ++i) hash = mix(hash, oid[i]);
  return hash;
}

bool has_wide_arc(const ObjectIdEMS *oid, unsigned long length) {
  for (unsigned long i = 0; i < length; ++i) {
    if (oid[i] >= kWideArc) return true;
  }
  return false;
}

void index_enterprise(enterprise_info *enterprise) {
  uint64_t hash = oid_hash(enterprise->enterprise_oid, enterprise->oid_len);
  model.enterprises[enterprise].oid_hash = hash;
  OidEntry entry = {enterprise, enterprise->oid_len, {}};
  if (entry.length <= kInlineArcs && entry.length > 0)
    memcpy(entry.arcs, enterprise->enterprise_oid, entry.length * sizeof(ObjectIdEMS));
  model.by_oid.insert(hash, entry);
  if (has_wide_arc(enterprise->enterprise_oid, enterprise->oid_len)) model.ordered = false;
  if (model.ordered) {
    model.in_order.insert(enterprise);
  } else {
    model.in_order.clear();
  }
}

void unindex_enterprise(const enterprise_info *enterprise) {
  auto side = model.enterprises.find(enterprise);
  if (side == model.enterprises.end()) return;
  OidEntry *indexed = model.by_oid.find(
      side->second.oid_hash, [&](const OidEntry &e) { return e.enterprise == enterprise; });
  if (indexed != nullptr) model.by_oid.erase(indexed);
  model.enterprises.erase(side);
  auto ordered = model.in_order.find(const_cast<enterprise_info *>(enterprise));
  if (ordered != model.in_order.end() && *ordered == enterprise) {
    model.in_order.erase(ordered);
  } else {
    // Its identifier was changed behind the model's back.
    std::erase_if(model.in_order, [&](const enterprise_info *e) { return e == enterprise; });
  }
  if (enterprise_list_head.next == nullptr) model.ordered = true;
}

uint64_t name_hash(const char *name) { return std::hash<std::string_view>{}(name); }

uint64_t address_hash(const void *address) { return reinterpret_cast<uintptr_t>(address); }

Owner *owner_of(const trap_record *record) {
  return model.owner.find(address_hash(record), [&](const Owner &o) { return o.record == record; });
}

void index_name(trap_record *record, enterprise_info *enterprise) {
  uint64_t hash = name_hash(record->name);
  model.by_name.insert(hash, record);
  model.owner.insert(address_hash(record), {record, enterprise, hash});
}

// Removes the record from the name index; returns its enterprise, or null
// when the record was not indexed.
enterprise_info *unindex_name(const trap_record *record) {
  Owner *owner = owner_of(record);
  if (owner == nullptr) return nullptr;
  enterprise_info *enterprise = owner->enterprise;
  trap_record **named =
      model.by_name.find(owner->name_hash, [&](const trap_record *r) { return r == record; });
  if (named != nullptr) model.by_name.erase(named);
  model.owner.erase(owner);
  model.last_suffix.clear();
  return enterprise;
}

void rebuild_name_index() {
  model.by_name.clear();
  model.owner.clear();
  model.last_suffix.clear();
  for (enterprise_info *e = enterprise_list_head.next; e != nullptr; e = e->next) {
    for (trap_record *r = e->trap_rec_list_head.next; r != nullptr; r = r->next) index_name(r, e);
  }
}

// The first record of the given set in list order (several records carry
// one name only after an update renamed a record to a name in use).
trap_record *first_in_list_order(const std::vector<trap_record *> &records,
                                 enterprise_info **enterprise) {
  for (enterprise_info *e = enterprise_list_head.next; e != nullptr; e = e->next) {
    for (trap_record *r = e->trap_rec_list_head.next; r != nullptr; r = r->next) {
      for (trap_record *candidate : records) {
        if (candidate == r) {
          *enterprise = e;
          return r;
        }
      }
    }
  }
  return nullptr;
}

trap_record *lookup_name(const char *name, enterprise_info **enterprise) {
  *enterprise = nullptr;
  if (name == nullptr || strlen(name) >= TRAP_NAME_SIZE) return nullptr;
  uint64_t hash = name_hash(name);
  for (int attempt = 0; attempt < 2; ++attempt) {
    std::vector<trap_record *> named;
    bool stale = false;
    model.by_name.find(hash, [&](trap_record *r) {
      if (strcmp(r->name, name) == 0)
        named.push_back(r);
      else
        stale = stale || name_hash(r->name) != hash;
      return false;  // see them all
    });
    if (!stale) {
      if (named.empty()) return nullptr;
      if (named.size() == 1) {
        *enterprise = owner_of(named[0])->enterprise;
        return named[0];
      }
      if (trap_record *first = first_in_list_order(named, enterprise)) return first;
    }
    // A record was renamed or unlinked behind the model's back.
    rebuild_name_index();
  }
  return nullptr;
}

PairKey pair_of(const trap_record *record) {
  return {record->generic_trap, record->specific_trap};
}

EnterpriseSide *side_of(const enterprise_info *enterprise) {
  auto found = model.enterprises.find(enterprise);
  return found != model.enterprises.end() ? &found->second : nullptr;
}

void index_pairs(enterprise_info *enterprise, EnterpriseSide &side) {
  side.pair_last.clear();
  for (trap_record *r = enterprise->trap_rec_list_head.next; r != nullptr; r = r->next)
    side.pair_last.set(pair_of(r), r);
  side.pairs_known = true;
}

// The record after which a format of `pair` is linked: the last of the
// pair itself when `after_pair` (a format without node list), otherwise the
// last of the pairs before it; the list head when there is none.  Null
// when the pair index does not agree with the list.
trap_record *place_from_index(enterprise_info *enterprise, EnterpriseSide &side, PairKey pair,
                              bool after_pair) {
  const PairLast::Entry *before = side.pair_last.before(pair, after_pair);
  trap_record *previous = &enterprise->trap_rec_list_head;
  if (before != nullptr) {
    previous = before->last;
    PairKey key = pair_of(previous);
    if (key != before->pair || (after_pair ? pair < key : !(key < pair))) return nullptr;
  }
  trap_record *next = previous->next;
  if (next != nullptr && (after_pair ? !(pair < pair_of(next)) : pair_of(next) < pair)) return nullptr;
  return previous;
}

// The same place found by walking the list.
trap_record *place_by_walking(enterprise_info *enterprise, PairKey pair, bool after_pair) {
  trap_record *previous = &enterprise->trap_rec_list_head;
  while (previous->next != nullptr &&
         (after_pair ? !(pair < pair_of(previous->next)) : pair_of(previous->next) < pair)) {
    previous = previous->next;
  }
  return previous;
}

trap_record *place_for(enterprise_info *enterprise, PairKey pair, bool after_pair) {
  // An enterprise's first format needs no index (most have only one).
  if (enterprise->trap_rec_list_head.next == nullptr) return &enterprise->trap_rec_list_head;
  EnterpriseSide *side = side_of(enterprise);
  if (side == nullptr) return place_by_walking(enterprise, pair, after_pair);
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (!side->pairs_known || attempt == 1) index_pairs(enterprise, *side);
    trap_record *previous = place_from_index(enterprise, *side, pair, after_pair);
    if (previous != nullptr) return previous;
  }
  return place_by_walking(enterprise, pair, after_pair);
}

PairFirst *find_pair(const PairId &id) {
  return model.pair_firsts.find(pair_id_hash(id), [&](const PairFirst &p) { return p.id == id; });
}

// The first format of the pair in list order, found by walking.
trap_record *first_by_walking(const enterprise_info *enterprise, PairKey pair) {
  trap_record *r = enterprise->trap_rec_list_head.next;
  while (r != nullptr && pair_of(r) < pair) r = r->next;
  return r != nullptr && pair_of(r) == pair ? r : nullptr;
}

// The first format of the pair; the table answers for the enterprises the
// model made, the list for any other.
trap_record *first_of_pair(const enterprise_info *enterprise, PairKey pair) {
  if (PairFirst *found = find_pair({enterprise, pair})) {
    __builtin_prefetch(found->format_hint);
    return found->first;
  }
  if (side_of(enterprise) != nullptr) return nullptr;
  return first_by_walking(enterprise, pair);
}

// What findExactTrapRecord(enterprise, pair, node) returns.
trap_record *pair_match(const enterprise_info *enterprise, PairKey pair, const char *node) {
  for (trap_record *r = first_of_pair(enterprise, pair); r != nullptr && pair_of(r) == pair;
       r = r->next) {
    if (trapRecNodesMatch(r, node)) return r;
  }
  return nullptr;
}

bool names_source_file(const trap_record *record) {
  for (int i = 0; i < record->nodeCnt; ++i) {
    if (record->nodeList[i][0] == '/') return true;
  }
  return false;
}

// Enters the nodes of a format that precedes every format indexed so far.
void index_nodes(NodeIndex &index, trap_record *record) {
  if (names_source_file(record)) index.usable = false;
  for (int i = 0; i < record->nodeCnt; ++i) index.first[record->nodeList[i]] = record;
}

// The node index of a pair of an enterprise the model made, built from the
// list when missing; null when it cannot answer.  Formats after the first
// one without nodes are never reached by a node's match, and left out.
NodeIndex *nodes_of(const enterprise_info *enterprise, PairKey pair) {
  if (side_of(enterprise) == nullptr) return nullptr;
  auto [entry, added] = model.nodes.try_emplace({enterprise, pair});
  NodeIndex &index = entry->second;
  if (added) {
    std::vector<trap_record *> reached;
    for (trap_record *r = first_of_pair(enterprise, pair); r != nullptr && pair_of(r) == pair;
         r = r->next) {
      if (r->nodeCnt == 0) break;
      reached.push_back(r);
    }
    for (auto r = reached.rbegin(); r != reached.rend(); ++r) index_nodes(index, *r);
  }
  return index.usable ? &index : nullptr;
}

// The format a new one of these numbers and nodes updates instead of being
// added: for a node list, the first format with nodes matching one of them
// (tried in order); without, the first format without nodes.
trap_record *twin_of(enterprise_info *enterprise, PairKey pair, int nodeCnt, char **nodeList) {
  if (nodeCnt == 0) return pair_match(enterprise, pair, nullptr);
  NodeIndex *index = nodes_of(enterprise, pair);
  for (int i = 0; i < nodeCnt; ++i) {
    if (index != nullptr) {
      auto found = index->first.find(nodeList[i]);
      if (found != index->first.end()) return found->second;
      continue;
    }
    trap_record *hit = pair_match(enterprise, pair, nodeList[i]);
    if (hit != nullptr && hit->nodeCnt != 0) return hit;
  }
  return nullptr;
}

// Brings the indexes up to date with a new format linked after `previous`.
void note_linked(enterprise_info *enterprise, trap_record *previous, trap_record *record) {
  EnterpriseSide *side = side_of(enterprise);
  if (side == nullptr) return;
  PairId id = {enterprise, pair_of(record)};
  if (previous == &enterprise->trap_rec_list_head || pair_of(previous) != id.pair) {
    if (PairFirst *found = find_pair(id))
      *found = {id, record, record->description.format};
    else
      model.pair_firsts.insert(pair_id_hash(id), {id, record, record->description.format});
  }
  if (record->nodeCnt > 0) {
    auto index = model.nodes.find(id);
    if (index != model.nodes.end()) index_nodes(index->second, record);
  }
  if (side->pairs_known && (record->next == nullptr || pair_of(record->next) != id.pair))
    side->pair_last.set(id.pair, record);
}

// The node index of the record's pair goes when the record loses its nodes.
void forget_nodes(const enterprise_info *enterprise, const trap_record *record) {
  if (!model.nodes.empty()) model.nodes.erase({enterprise, pair_of(record)});
}

// After the caller unlinked a format and it was released: the pair's first
// format is looked up anew when it was this one.
void note_released(enterprise_info *enterprise, const trap_record *record) {
  forget_nodes(enterprise, record);
  EnterpriseSide *side = side_of(enterprise);
  if (side != nullptr) side->pairs_known = false;
  PairFirst *found = find_pair({enterprise, pair_of(record)});
  if (found == nullptr || found->first != record) return;
  found->first = first_by_walking(enterprise, pair_of(record));
  if (found->first == nullptr)
    model.pair_firsts.erase(found);
  else
    found->format_hint = found->first->description.format;
}

// Drops the pair entries of an enterprise about to be released.
void forget_enterprise_pairs(const enterprise_info *enterprise) {
  for (trap_record *r = enterprise->trap_rec_list_head.next; r != nullptr; r = r->next) {
    forget_nodes(enterprise, r);
    if (PairFirst *found = find_pair({enterprise, pair_of(r)})) model.pair_firsts.erase(found);
  }
}

// A name that no format carries yet, as it will be stored (cut to 39
// characters): name, name_1, name_2, ..., each cut to leave room for its
// suffix in 40 bytes before the cut to 39.
std::string unique_trap_name(const char *name) {
  std::string candidate(name, strnlen(name, TRAP_NAME_SIZE - 1));
  enterprise_info *ignored;
  if (lookup_name(candidate.c_str(), &ignored) == nullptr) return candidate;
  int counter = model.last_suffix[name];
  do {
    char suffix[16];
    snprintf(suffix, sizeof suffix, "_%d", ++counter);
    size_t keep = TRAP_NAME_SIZE - strlen(suffix);
    candidate.assign(name, strnlen(name, keep));
    candidate += suffix;
    candidate.resize(std::min(candidate.size(), size_t{TRAP_NAME_SIZE - 1}));
  } while (lookup_name(candidate.c_str(), &ignored) != nullptr);
  model.last_suffix[name] = counter;
  return candidate;
}

void copy_name(char (&target)[TRAP_NAME_SIZE], const char *name) {
  strncpy(target, name, TRAP_NAME_SIZE - 1);
  target[TRAP_NAME_SIZE - 1] = '\0';
}

trap_element *compile_new_element(char *raw) {
  auto *element = static_cast<trap_element *>(doMalloc(sizeof(trap_element)));
  makeFormatString(raw, element);
  return element;
}

void free_string_list(char **list, int count) {
  if (list == nullptr) return;
  for (int i = 0; i < count; ++i) doFree(list[i]);
}

}  // namespace

// ---- the configuration file name ----------------------------------------

extern "C" EVENTS_EXPORT void setHubdConfFile(const char *filename) {
  doFree(model.conf_file);
  model.conf_file = filename != nullptr && *filename != '\0' ? doStrdup(filename) : nullptr;
}

extern "C" EVENTS_EXPORT const char *getHubdConfFile(void) {
  if (model.conf_file == nullptr) {
    const char *from_environment = getenv("KZHUBDCONF");
    if (from_environment != nullptr) {
      model.conf_file = doStrdup(from_environment);
    } else {
      std::string path = std::string(_KZconfDirName()) + "/C/hubd.conf";
      model.conf_file = doStrdup(path.c_str());
    }
  }
  return model.conf_file;
}

extern "C" EVENTS_EXPORT FILE *fopenConfFile(const char *access_mode, const char **conffileptr) {
  *conffileptr = getHubdConfFile();
  return fopen(*conffileptr, (std::string(access_mode) + "e").c_str());  // close-on-exec
}

// ---- the fallback format ------------------------------------------------

namespace events {

void set_alert_list_release(AlertListRelease release) { model.release_alert_list = release; }

void fill_default_trap_record() {
  if (default_trap_record.description.format != nullptr) return;
  copy_name(default_trap_record.name, "HARD_DEFAULT");
  default_trap_record.category_number = 2;
  default_trap_record.source = '?';
  default_trap_record.severity = 1;
  default_trap_record.trapDescription = doStrdup("Trap used when no other trap is configured.");
  makeFormatString(
      doStrdup("NO FMT IN HUBD.CONF: $E ($e) generic:$G specific:$S args($#): $*"),
      &default_trap_record.description);
}

}  // namespace events

// ---- lookups ------------------------------------------------------------

extern "C" EVENTS_EXPORT int oidcmp(unsigned *oid1, unsigned *oid2, unsigned long oidlen1,
                                    unsigned long oidlen2) {
  unsigned long i = 0;
  while (oidlen1 > 0 && oidlen2 > 0 && oid1[i] == oid2[i]) {
    ++i;
    --oidlen1;
    --oidlen2;
  }
  if (oidlen1 == 0) return static_cast<int>(oidlen2);
  if (oidlen2 == 0) return -static_cast<int>(oidlen1);
  return static_cast<int>(oid1[i] - oid2[i]);
}

extern "C" EVENTS_EXPORT void find_enterprise_relative(ObjectIdEMS *enterprise_oid,
                                                       unsigned long enterprise_oidlen,
                                                       enterprise_info **enterprise_ptr_ptr) {
  for (enterprise_info *e = *enterprise_ptr_ptr; e != nullptr; e = e->next) {
    unsigned long shorter = e->oid_len < enterprise_oidlen ? e->oid_len : enterprise_oidlen;
    unsigned long equal = 0;
    while (equal < shorter && e->enterprise_oid[equal] == enterprise_oid[equal]) ++equal;
    if (equal == e->oid_len) {
      *enterprise_ptr_ptr = e;
      return;
    }
  }
  *enterprise_ptr_ptr = nullptr;
}

extern "C" EVENTS_EXPORT void find_enterprise(ObjectIdEMS *enterprise_oid,
                                              unsigned long enterprise_oidlen,
                                              enterprise_info **enterprise_ptr_ptr) {
  if (!model.ordered) {
    *enterprise_ptr_ptr = enterprise_list_head.next;
    find_enterprise_relative(enterprise_oid, enterprise_oidlen, enterprise_ptr_ptr);
    return;
  }
  // In oidcmp order the first match from the head is the longest configured
  // prefix, so probe the prefixes of the query from the longest down.
  *enterprise_ptr_ptr = nullptr;
  if (model.by_oid.empty()) return;
  uint64_t small_hashes[129];
  std::vector<uint64_t> large_hashes;
  uint64_t *hashes = small_hashes;
  if (enterprise_oidlen >= 129) {
    large_hashes.resize(enterprise_oidlen + 1);
    hashes = large_hashes.data();
  }
  hashes[0] = kOidSeed;
  for (unsigned long i = 0; i < enterprise_oidlen; ++i) hashes[i + 1] = mix(hashes[i], enterprise_oid[i]);
  for (unsigned long length = enterprise_oidlen + 1; length-- > 0;) {
    OidEntry *found = model.by_oid.find(
        hashes[length], [&](const OidEntry &e) { return e.holds(enterprise_oid, length); });
    if (found != nullptr) {
      *enterprise_ptr_ptr = found->enterprise;
      return;
    }
  }
}

extern "C" EVENTS_EXPORT int trapRecNodesMatch(trap_record *trap_rec_ptr, const char *nodename) {
  if (trap_rec_ptr->nodeCnt == 0) return 1;
  if (nodename == nullptr) return 0;
  for (int i = 0; i < trap_rec_ptr->nodeCnt; ++i) {
    const char *entry = trap_rec_ptr->nodeList[i];
    if (strcmp(entry, nodename) == 0) return 1;
    if (entry[0] != '/') continue;
    const char *refused;
    FILE *list = events::open_config_file(entry, &refused);
    if (list == nullptr) return 0;
    int line_number = 0;
    while (events::read_config_line(model.node_line, TRAPSPEC_LINE_SIZE, list, &line_number, entry,
                                    nullptr) == 1) {
      char *word = model.node_line + strspn(model.node_line, " \t");
      size_t length = strcspn(word, " \t");
      if (length == 0) continue;
      word[length] = '\0';
      if (strcmp(word, nodename) == 0) {
        fclose(list);
        return 1;
      }
    }
    // A list that cannot be read to its end matches nothing, as one that
    // cannot be opened; a line too long only ends that list.
    bool unreadable = ferror(list) != 0;
    fclose(list);
    if (unreadable) return 0;
  }
  return 0;
}

extern "C" EVENTS_EXPORT trap_record *findExactTrapRecord(enterprise_info *enterprise_info_ptr,
                                                          int generic_trap, int specific_trap,
                                                          const char *nodename) {
  if (enterprise_info_ptr == nullptr) return nullptr;
  return pair_match(enterprise_info_ptr, {generic_trap, specific_trap}, nodename);
}

extern "C" EVENTS_EXPORT int nameToTrapAndEnterprise(const char *trapName,
                                                     trap_record **trap_rec_ptrPtr,
                                                     enterprise_info **enterprise_ptrPtr) {
  *trap_rec_ptrPtr = lookup_name(trapName, enterprise_ptrPtr);
  return *trap_rec_ptrPtr != nullptr ? 0 : -1;
}

extern "C" EVENTS_EXPORT trap_record *nameToExactTrap(const char *trapName) {
  enterprise_info *enterprise;
  return lookup_name(trapName, &enterprise);
}

extern "C" EVENTS_EXPORT int oid_to_name(ObjectIdEMS *oid, unsigned long oid_len, char *buf,
                                         int buflen) {
  if (buflen <= 0) return -1;
  buf[0] = '\0';
  enterprise_info *enterprise;
  find_enterprise(oid, oid_len, &enterprise);
  if (enterprise == nullptr) return -1;
  size_t length = strlen(enterprise->enterprise_name);
  if (length + 1 > static_cast<size_t>(buflen)) return -1;
  memcpy(buf, enterprise->enterprise_name, length + 1);
  return 0;
}

// ---- inserts ------------------------------------------------------------

namespace {

// Finds from the ordered index the enterprise after which `oid` belongs
// (the list head when it comes first).  False when the index cannot say:
// identifiers outside a consistent order, or a list that no longer agrees
// with the index; the list is then walked.
bool place_enterprise(const ObjectIdEMS *oid, unsigned long oid_len, enterprise_info **previous) {
  OidView key = {oid, oid_len};
  if (!model.ordered || has_wide_arc(oid, oid_len)) return false;
  auto next = model.in_order.lower_bound(key);
  enterprise_info *before = &enterprise_list_head;
  if (next != model.in_order.begin()) before = *std::prev(next);
  enterprise_info *after = next != model.in_order.end() ? *next : nullptr;
  if (before->next != after) return false;
  *previous = before;
  return true;
}

}  // namespace

extern "C" EVENTS_EXPORT void insert_enterprise(ObjectIdEMS *oid, unsigned long oid_len,
                                                const char *enterprise_name) {
  enterprise_info *previous = &enterprise_list_head;
  enterprise_info *current = enterprise_list_head.next;
  if (place_enterprise(oid, oid_len, &previous)) current = previous->next;
  for (; current != nullptr; previous = current, current = current->next) {
    int order = oidcmp(oid, current->enterprise_oid, oid_len, current->oid_len);
    if (order == 0) {
      doFree(current->enterprise_name);
      current->enterprise_name = doStrdup(enterprise_name);
      return;
    }
    if (order < 0) break;
  }
  auto *enterprise = static_cast<enterprise_info *>(doMalloc(sizeof(enterprise_info)));
  enterprise->enterprise_name = doStrdup(enterprise_name);
  enterprise->oid_len = oid_len;
  enterprise->enterprise_oid =
      static_cast<ObjectIdEMS *>(doMalloc(static_cast<unsigned>(oid_len * sizeof(ObjectIdEMS))));
  if (oid_len > 0) memcpy(enterprise->enterprise_oid, oid, oid_len * sizeof(ObjectIdEMS));
  enterprise->next = current;
  previous->next = enterprise;
  index_enterprise(enterprise);
}

extern "C" EVENTS_EXPORT trap_record *insertMallocTrapRecord(
    enterprise_info *enterprise_ptr, char *trapname, int generic, int specific, int nodeCnt,
    char **nodeList, int cat_num, int source_char, char *rawEventLogMsg, char *rawExecCmd,
    char *rawDisplayMsg, char *trapDescription, int severity_flag, int status_flag, int forward,
    char *eventClass, int slotCnt, char **slotNames, char **slotVals) {
  const char *name = trapname != nullptr ? trapname : "";
  if (rawEventLogMsg == nullptr) rawEventLogMsg = doStrdup("");

  const PairKey pair = {generic, specific};
  trap_record *existing = twin_of(enterprise_ptr, pair, nodeCnt, nodeList);

  if (existing != nullptr) {
    enterprise_info *owner = unindex_name(existing);
    copy_name(existing->name, name);
    if (owner != nullptr) index_name(existing, owner);
    if (trapDescription != nullptr) {
      doFree(existing->trapDescription);
      existing->trapDescription = trapDescription;
    }
    makeFormatString(rawEventLogMsg, &existing->description);
    if (rawExecCmd != nullptr) {
      freeOptTrapElement(existing->execargs_ptr);
      existing->execargs_ptr = compile_new_element(rawExecCmd);
    }
    if (rawDisplayMsg != nullptr) {
      freeOptTrapElement(existing->exec_display_args_ptr);
      existing->exec_display_args_ptr = compile_new_element(rawDisplayMsg);
    }
    existing->category_number = cat_num;
    existing->source = static_cast<char>(source_char);
    existing->severity = severity_flag;
    existing->status = status_flag;
    existing->forward = forward;
    // The record keeps its node list and slot mapping; the ones handed
    // over are not needed.
    free_string_list(nodeList, nodeCnt);
    doFree(nodeList);
    if (slotCnt > 0) {
      free_string_list(slotNames, slotCnt);
      free_string_list(slotVals, slotCnt);
    }
    return existing;
  }

  std::string unique = unique_trap_name(name);
  auto *record = static_cast<trap_record *>(doMalloc(sizeof(trap_record)));
  // Of one pair, a format with a node list goes before the first format of
  // the pair, one without after the last.
  trap_record *previous = place_for(enterprise_ptr, pair, nodeCnt == 0);
  record->next = previous->next;
  previous->next = record;
  copy_name(record->name, unique.c_str());
  index_name(record, enterprise_ptr);
  record->generic_trap = generic;
  record->specific_trap = specific;
  record->nodeCnt = nodeCnt;
  record->nodeList = nodeList;
  record->category_number = cat_num;
  record->source = static_cast<char>(source_char);
  record->trapDescription = trapDescription;
  record->severity = severity_flag;
  record->status = status_flag;
  record->forward = forward;
  makeFormatString(rawEventLogMsg, &record->description);
  if (rawExecCmd != nullptr) record->execargs_ptr = compile_new_element(rawExecCmd);
  if (rawDisplayMsg != nullptr) record->exec_display_args_ptr = compile_new_element(rawDisplayMsg);
  record->wbxClassName = eventClass != nullptr ? doStrdup(eventClass) : nullptr;
  if (slotCnt > 0) {
    auto *map = static_cast<wbxSlotMapping *>(doMalloc(sizeof(wbxSlotMapping)));
    map->slotCnt = slotCnt;
    map->slotName = static_cast<char **>(doMalloc(static_cast<unsigned>(slotCnt * sizeof(char *))));
    map->slotVal = static_cast<char **>(doMalloc(static_cast<unsigned>(slotCnt * sizeof(char *))));
    for (int i = 0; i < slotCnt; ++i) {
      map->slotName[i] = slotNames[i];
      map->slotVal[i] = slotVals[i];
    }
    record->slotMap = map;
  }
  note_linked(enterprise_ptr, previous, record);
  return record;
}

// ---- deletes and frees --------------------------------------------------

extern "C" EVENTS_EXPORT void free_trap_rec_slot_map_data(trap_record *trap_rec_ptr) {
  wbxSlotMapping *map = trap_rec_ptr->slotMap;
  if (map == nullptr) return;
  free_string_list(map->slotName, map->slotCnt);
  free_string_list(map->slotVal, map->slotCnt);
  doFree(map->slotName);
  doFree(map->slotVal);
  doFree(map);
  trap_rec_ptr->slotMap = nullptr;
}

extern "C" EVENTS_EXPORT void free_trap_rec_contents(trap_record *trap_rec_ptr) {
  enterprise_info *owner = unindex_name(trap_rec_ptr);
  trap_rec_ptr->name[0] = '\0';
  if (owner != nullptr) {
    index_name(trap_rec_ptr, owner);
    forget_nodes(owner, trap_rec_ptr);
  }
  free_string_list(trap_rec_ptr->nodeList, trap_rec_ptr->nodeCnt);
  doFree(trap_rec_ptr->nodeList);
  trap_rec_ptr->nodeList = nullptr;
  trap_rec_ptr->nodeCnt = 0;
  free_trap_rec_slot_map_data(trap_rec_ptr);
  doFree(trap_rec_ptr->wbxClassName);
  trap_rec_ptr->wbxClassName = nullptr;
  doFree(trap_rec_ptr->trapDescription);
  trap_rec_ptr->trapDescription = nullptr;
  freeTrapElementContents(&trap_rec_ptr->description);
  freeOptTrapElement(trap_rec_ptr->execargs_ptr);
  trap_rec_ptr->execargs_ptr = nullptr;
  freeOptTrapElement(trap_rec_ptr->exec_display_args_ptr);
  trap_rec_ptr->exec_display_args_ptr = nullptr;
  if (trap_rec_ptr->alert_element != nullptr) model.release_alert_list(trap_rec_ptr->alert_element);
  trap_rec_ptr->alert_element = nullptr;
}

extern "C" EVENTS_EXPORT void free_trap_record(trap_record *trap_rec_ptr) {
  if (trap_rec_ptr == nullptr || trap_rec_ptr == &default_trap_record) return;
  free_trap_rec_contents(trap_rec_ptr);
  enterprise_info *owner = unindex_name(trap_rec_ptr);
  if (owner != nullptr) note_released(owner, trap_rec_ptr);
  trap_rec_ptr->next = nullptr;
  doFree(trap_rec_ptr);
}

extern "C" EVENTS_EXPORT void free_enterprise(enterprise_info *enterprise_ptr) {
  trap_record *record = enterprise_ptr->trap_rec_list_head.next;
  forget_enterprise_pairs(enterprise_ptr);
  enterprise_ptr->trap_rec_list_head.next = nullptr;
  while (record != nullptr) {
    trap_record *next = record->next;
    free_trap_record(record);
    record = next;
  }
  unindex_enterprise(enterprise_ptr);
  doFree(enterprise_ptr->enterprise_name);
  doFree(enterprise_ptr->enterprise_oid);
  doFree(enterprise_ptr);
}

extern "C" EVENTS_EXPORT int delete_enterprise_record(enterprise_info *enterprise_ptr) {
  if (enterprise_ptr == nullptr || enterprise_ptr->trap_rec_list_head.next != nullptr) return -1;
  enterprise_info *previous = &enterprise_list_head;
  while (previous->next != nullptr && previous->next != enterprise_ptr) previous = previous->next;
  if (previous->next == nullptr) return -1;
  previous->next = enterprise_ptr->next;
  free_enterprise(enterprise_ptr);
  return 0;
}

extern "C" EVENTS_EXPORT void freeAction(actionCmd *action) {
  doFree(action->name);
  action->name = nullptr;
  doFree(action->description);
  action->description = nullptr;
  doFree(action->cmd);
  action->cmd = nullptr;
}

extern "C" EVENTS_EXPORT void freeAllActions(void) {
  for (int i = 0; i < numActionCommands; ++i) freeAction(&actionCommands[i]);
  doFree(actionCommands);
  actionCommands = nullptr;
  numActionCommands = 0;
}

extern "C" EVENTS_EXPORT void free_all_info(void) {
  enterprise_info *enterprise = enterprise_list_head.next;
  enterprise_list_head.next = nullptr;
  // The indexes go first: nothing is kept in step record by record.
  model.by_name.clear();
  model.owner.clear();
  model.enterprises.clear();
  model.by_oid.clear();
  model.pair_firsts.clear();
  model.nodes.clear();
  model.in_order.clear();
  model.last_suffix.clear();
  while (enterprise != nullptr) {
    enterprise_info *next = enterprise->next;
    free_enterprise(enterprise);
    enterprise = next;
  }
  model.ordered = true;
  for (int slot = 0; slot < EMS_MAX_CATEGORIES; ++slot) {
    doFree(EMScategories[slot]);
    EMScategories[slot] = nullptr;
  }
  freeAllActions();
}
