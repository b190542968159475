#include "binding_args.h"

#include <arpa/inet.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kz_mib.h"
#include "kz_platform.h"
#include "oidtree.h"
#include "trp_format.h"
#include "trap_args.h"

namespace tools {

bool read_number(const char *text, long low, long high, int base, long *value) {
  char *end = nullptr;
  errno = 0;
  *value = strtol(text, &end, base);
  return *text != '\0' && *end == '\0' && errno == 0 && *value >= low && *value <= high;
}

namespace {

// Finds the node of the OID name tree named `name`, writing its arcs; the
// tree's root stands above the first arcs.
bool find_name(const oidnode *node, const std::string &name, ObjectIdEMS *arcs, int depth,
               int *length) {
  for (; node != nullptr; node = node->sib) {
    if (depth >= SNMP_OID_MAX) return false;
    arcs[depth] = node->val;
    if ((node->data != nullptr && name == node->data->mapping_str) ||
        find_name(node->child, name, arcs, depth + 1, length)) {
      if (*length == 0) *length = depth + 1;
      return true;
    }
  }
  return false;
}

// A name of the OID name tree, optionally followed by dotted numbers.
bool read_tree_name(const char *text, ObjectIdEMS *arcs, int *count) {
  if (oidTree == nullptr) return false;
  const char *dot = strchr(text, '.');
  std::string name(text, dot != nullptr ? static_cast<size_t>(dot - text) : strlen(text));
  int length = 0;
  if (!find_name(oidTree->child, name, arcs, 0, &length)) return false;
  int rest = SNMP_OID_MAX - length;
  if (dot != nullptr && (KZmib_read_numeric_objid(dot, arcs + length, &rest) != 0 || rest == 0))
    return false;
  *count = length + (dot != nullptr ? rest : 0);
  return true;
}

}  // namespace

void load_names() {
  KZmib_load_mib();
  if (oidnode *tree = parseOidFile(getOidToLabelFile())) {
    if (oidTree != nullptr) oidFreeTree(oidTree);
    oidTree = tree;
  }
}

bool read_oid(const char *text, ObjectIdEMS *arcs, uint32_t *length, int least) {
  int count = SNMP_OID_MAX;
  if (KZmib_read_objid(text, arcs, &count) != 0 && !read_tree_name(text, arcs, &count))
    return false;
  if (count < least) return false;
  *length = static_cast<uint32_t>(count);
  return true;
}

namespace {

// Hex pairs or decimal octets, separated by blanks (or colons for hex, as
// in "00:11:22", and dots for decimal).
bool read_octets(const char *value, bool hex, SnmpVarBindEMS *b) {
  b->val_len = 0;
  const char *p = value;
  while (*p != '\0') {
    if (isspace(static_cast<unsigned char>(*p)) || *p == (hex ? ':' : '.')) {
      ++p;
      continue;
    }
    size_t run = hex ? strnlen(p, 2) : strspn(p, "0123456789");
    std::string octet(p, run);
    long number;
    if (octet.empty() || (hex && run != 2) || b->val_len == SNMP_STRING_MAX ||
        !read_number(octet.c_str(), 0, 255, hex ? 16 : 10, &number))
      return false;
    b->val.string[b->val_len++] = static_cast<unsigned char>(number);
    p += run;
  }
  return true;
}

}  // namespace

std::string read_value(const char *type, const char *value, SnmpVarBindEMS *b) {
  const std::string quoted = std::string("'") + value + "'";
  if (strlen(type) != 1) return std::string("bad type '") + type + "'";
  b->val_len = 4;
  long number;
  switch (type[0]) {
    case 'i':
      b->type = ASN_INTEGER;
      if (!read_number(value, INT32_MIN, INT32_MAX, 10, &number)) return "bad integer " + quoted;
      b->val.integer = static_cast<int32_t>(number);
      return "";
    case 'u':
    case 'c':
    case 't':
      b->type = type[0] == 'u' ? ASN_GAUGE : type[0] == 'c' ? ASN_COUNTER : ASN_TIMETICKS;
      if (!read_number(value, 0, UINT32_MAX, 10, &number)) return "bad unsigned value " + quoted;
      b->val.integer = static_cast<int32_t>(number);
      return "";
    case 'a': {
      in_addr address;
      if (inet_pton(AF_INET, value, &address) != 1) return "bad IP address " + quoted;
      b->type = ASN_IPADDRESS;
      b->val.integer = static_cast<int32_t>(ntohl(address.s_addr));
      return "";
    }
    case 's':
      b->type = ASN_OCTET_STR;
      b->val_len = static_cast<uint32_t>(strlen(value));
      if (b->val_len > SNMP_STRING_MAX)
        return "string longer than " + std::to_string(SNMP_STRING_MAX) + " octets";
      memcpy(b->val.string, value, b->val_len);
      return "";
    case 'x':
    case 'd':
      b->type = ASN_OCTET_STR;
      return read_octets(value, type[0] == 'x', b) ? "" : "bad string " + quoted;
    case 'o':
      b->type = ASN_OBJECT_ID;
      return read_oid(value, b->val.objid, &b->val_len) ? "" : "bad object identifier " + quoted;
    case 'n':
      b->type = ASN_NULL;
      b->val_len = 0;
      return "";
    default:
      return std::string("type '") + type + "' is not supported";
  }
}

}  // namespace tools

namespace tools {

std::string read_trap(int argc, char *const *argv, snmp_trap_infoEMS *trap, SnmpVarBindEMS *vars,
                      int max) {
  if (argc < 3 || (argc - 3) % 3 != 0)
    return "a trap is ENTERPRISE GENERIC SPECIFIC and OID TYPE VALUE triples";
  if ((argc - 3) / 3 > max) return "at most " + std::to_string(max) + " bindings";
  uint32_t elen;
  if (!read_oid(argv[0], trap->enterprise, &elen))
    return std::string("bad enterprise '") + argv[0] + "'";
  trap->elen = static_cast<int32_t>(elen);
  long number;
  if (!read_number(argv[1], 0, 6, 10, &number))
    return std::string("bad generic trap '") + argv[1] + "'";
  trap->gen = static_cast<uint32_t>(number);
  if (!read_number(argv[2], 0, UINT32_MAX, 10, &number))
    return std::string("bad specific trap '") + argv[2] + "'";
  trap->specific = static_cast<uint32_t>(number);
  trap->vars = (argc - 3) / 3;
  trap->maxvars = max;
  for (int i = 0; i < trap->vars; ++i) {
    SnmpVarBindEMS *b = &vars[i];
    memset(b, 0, sizeof *b);
    if (!read_oid(argv[3 + 3 * i], b->oid, &b->oid_length))
      return std::string("bad object identifier '") + argv[3 + 3 * i] + "'";
    std::string refused = read_value(argv[4 + 3 * i], argv[5 + 3 * i], b);
    if (!refused.empty()) return refused;
  }
  return std::string();
}

std::string dotted(const ObjectIdEMS *arcs, uint32_t length, bool leading_dot) {
  std::string text;
  for (uint32_t i = 0; i < length && i < SNMP_OID_MAX; ++i) {
    if (leading_dot || i > 0) text += '.';
    text += std::to_string(arcs[i]);
  }
  return text;
}

}  // namespace tools

extern "C" int tools_read_trap(int argc, char *const *argv, snmp_trap_infoEMS *trap,
                               SnmpVarBindEMS *vars, int max, char *why, size_t why_size) {
  std::string refused = tools::read_trap(argc, argv, trap, vars, max);
  snprintf(why, why_size, "%s", refused.c_str());
  return refused.empty() ? 0 : -1;
}
