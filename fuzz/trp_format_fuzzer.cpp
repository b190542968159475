// Formats fuzzed decoded traps with a fixed configuration whose format
// strings also come from the input: three formats (a node-specific one, a
// general one and an enterprise wildcard), then the trap's fields and
// bindings, lengths and counts included, and the size of the output
// buffer.  Before each call the input may clear the load flags, as a
// change notice does, so that the formatter reloads hubd.conf (whose
// formats also come from the input), the MIB labels or the OID names.  The buffer is a block of exactly that size and the bindings sit
// in an array of exactly their capacity, so any write past the buffer or
// read past the array is caught; the text must stay terminated.
#include <fuzzer/FuzzedDataProvider.h>

#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "codeptcat.h"
#include "kz_mib.h"
#include "oidtree.h"
#include "trp_format.h"

namespace {

const ObjectIdEMS kLab[] = {1, 3, 6, 1, 4, 1, 9999};
const ObjectIdEMS kLabSwitches[] = {1, 3, 6, 1, 4, 1, 9999, 2};
const ObjectIdEMS kPlatform[] = {1, 3, 6, 1, 4, 1, 49999, 6, 3, 1};
const ObjectIdEMS kThreshold[] = {1, 3, 6, 1, 4, 1, 49999, 6, 12, 5, 1, 0};
const uint32_t kSpecifics[] = {1, 5, 0x3070026, 0x3070027, 0x03830030, 0x03030030, 1500};
const unsigned char kTypes[] = {0x02, 0x04, 0x05, 0x06, 0x40, 0x41, 0x42, 0x43, 0x44};

void write_text(const std::string &path, const char *text) {
  FILE *f = fopen(path.c_str(), "w");
  if (f == nullptr) abort();
  fputs(text, f);
  fclose(f);
}

// The hubd.conf a reload reads.
std::string conf_path;

void set_up_once() {
  static bool done = false;
  if (done) return;
  done = true;
  setlocale(LC_ALL, "C.UTF-8");
  char dir[] = "/tmp/trp_format_fuzzer-XXXXXX";
  if (mkdtemp(dir) == nullptr) abort();
  std::string base = dir;
  write_text(base + "/oid_to_label",
             "\"lab\"=1.3.6.1.4.1.9999\n${lab}.1.1=\"portIndex\"\n${lab}.1.2.1=\"up\"\n"
             "${lab}.7=\"seven\"\n${lab}=\"labEnterprise\"\n");
  write_text(base + "/mib.labels",
             "1 iso\n1.3 org\n1.3.6 dod\n1.3.6.1 internet\n1.3.6.1.4 private\n"
             "1.3.6.1.4.1 enterprises\n1.3.6.1.4.1.49999 platform\n");
  conf_path = base + "/hubd.conf";
  write_text(conf_path, "lab {1.3.6.1.4.1.9999}\n");
  setenv("KZ_CONF_DIR", dir, 1);
  setenv("KZ_MIB_FILE", (base + "/mib.labels").c_str(), 1);
  setenv("KZ_HOST_CACHE_TTL", "3600", 1);
  setHubdConfFile((base + "/hubd.conf").c_str());
  codeptpath((base + "/no-catalog").c_str());
  KZmib_load_mib();
  oidTree = parseOidFile((base + "/oid_to_label").c_str());
}

void build_model(FuzzedDataProvider &input) {
  free_all_info();
  insert_enterprise(const_cast<ObjectIdEMS *>(kLab), 7, "lab");
  insert_enterprise(const_cast<ObjectIdEMS *>(kLabSwitches), 8, "labSwitches");
  insert_enterprise(const_cast<ObjectIdEMS *>(kPlatform), 10, "platformEvents");
  enterprise_info *lab = nullptr, *switches = nullptr, *platform = nullptr;
  find_enterprise(const_cast<ObjectIdEMS *>(kLab), 7, &lab);
  find_enterprise(const_cast<ObjectIdEMS *>(kLabSwitches), 8, &switches);
  find_enterprise(const_cast<ObjectIdEMS *>(kPlatform), 10, &platform);
  if (lab == nullptr || switches == nullptr || platform == nullptr) abort();
  const struct {
    enterprise_info *enterprise;
    int generic, specific;
    bool localhost_only;
  } formats[] = {{lab, 6, 1, true}, {lab, 6, 1, false}, {switches, -1, 0, false},
                 {platform, 6, 0x3070026, false}};
  for (const auto &f : formats) {
    std::string text = input.ConsumeRandomLengthString(600);
    char **nodes = nullptr;
    if (f.localhost_only) {
      nodes = static_cast<char **>(doMalloc(sizeof(char *)));
      nodes[0] = doStrdup("localhost");
    }
    int category = input.ConsumeIntegralInRange(0, 12);
    insertMallocTrapRecord(f.enterprise, const_cast<char *>("fuzzed"), f.generic, f.specific,
                           f.localhost_only ? 1 : 0, nodes, category, 'A', doStrdup(text.c_str()),
                           nullptr, nullptr, nullptr, 1, 0, 0, nullptr, 0, nullptr, nullptr);
  }
}

void fill_trap(FuzzedDataProvider &input, snmp_trap_infoEMS *trap, SnmpVarBindEMS *vars,
               int capacity) {
  memset(trap, 0, sizeof *trap);
  std::string community = input.ConsumeRandomLengthString(SNMP_COMMUNITY_MAX - 1);
  memcpy(trap->community, community.data(), community.size());
  trap->clen = input.ConsumeIntegralInRange<int32_t>(-4, 200);
  switch (input.ConsumeIntegralInRange(0, 4)) {
    case 0: memcpy(trap->enterprise, kLab, sizeof kLab); trap->elen = 7; break;
    case 1: memcpy(trap->enterprise, kLabSwitches, sizeof kLabSwitches); trap->elen = 8; break;
    case 2: memcpy(trap->enterprise, kPlatform, sizeof kPlatform); trap->elen = 10; break;
    case 3: memcpy(trap->enterprise, kThreshold, sizeof kThreshold); trap->elen = 12; break;
    default:
      for (auto &arc : trap->enterprise) arc = input.ConsumeIntegral<uint8_t>();
      trap->elen = input.ConsumeIntegralInRange<int32_t>(-4, 200);
  }
  memcpy(&trap->agent, input.ConsumeBool() ? "\x7f\x00\x00\x01" : "\xc0\x00\x02\x07", 4);
  trap->gen = input.ConsumeBool() ? 6 : input.ConsumeIntegral<uint32_t>();
  trap->specific = input.ConsumeBool() ? input.PickValueInArray(kSpecifics)
                                       : input.ConsumeIntegral<uint32_t>();
  trap->time = input.ConsumeIntegral<uint32_t>();
  trap->vars = input.ConsumeIntegralInRange(0, capacity);
  trap->maxvars = input.ConsumeIntegralInRange(trap->vars, capacity);
  for (int i = 0; i < capacity; ++i) {
    SnmpVarBindEMS &var = vars[i];
    var.type = input.ConsumeBool() ? input.PickValueInArray(kTypes) : input.ConsumeIntegral<uint8_t>();
    var.oid_length = input.ConsumeBool() ? input.ConsumeIntegralInRange<uint32_t>(0, 12)
                                         : input.ConsumeIntegral<uint32_t>();
    memcpy(var.oid, kLab, sizeof kLab);
    for (int a = 7; a < 12; ++a) var.oid[a] = input.ConsumeIntegralInRange<ObjectIdEMS>(0, 8);
    var.val_len = input.ConsumeBool() ? input.ConsumeIntegralInRange<uint32_t>(0, 16)
                                      : input.ConsumeIntegral<uint32_t>();
    std::vector<uint8_t> bytes = input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange(0, 64));
    if (!bytes.empty()) memcpy(var.val.string, bytes.data(), bytes.size());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  set_up_once();
  FuzzedDataProvider input(data, size);
  build_model(input);
  have_read_hubdconf = have_read_mibtxt = have_read_mappings = 1;
  constexpr int kCapacity = 6;
  auto *vars = static_cast<SnmpVarBindEMS *>(calloc(kCapacity, sizeof(SnmpVarBindEMS)));
  snmp_trap_infoEMS trap;
  fill_trap(input, &trap, vars, kCapacity);
  int buffer_size = input.ConsumeIntegralInRange(1, 6000);
  char *buffer = static_cast<char *>(malloc(buffer_size));
  const std::string conf = "lab {1.3.6.1.4.1.9999}\n" + input.ConsumeRandomLengthString(600);
  write_text(conf_path, conf.c_str());
  for (int user = QMWEVENT_USER; user <= WBX_USER; ++user) {
    // Set once, the flags stay set: the model built above, or the one the
    // last reload read, is used again.
    const uint8_t reload = input.ConsumeIntegral<uint8_t>();
    if (reload & 1) have_read_hubdconf = 0;
    if (reload & 2) have_read_mibtxt = 0;
    if (reload & 4) have_read_mappings = 0;
    buffer[0] = '\0';
    char *host = nullptr;
    trp_format(static_cast<rtrap_user>(user), &trap, buffer, buffer_size, vars, &host, 1700000000);
    if (strnlen(buffer, buffer_size) == static_cast<size_t>(buffer_size)) abort();
  }
  free(buffer);
  free(vars);
  return 0;
}
