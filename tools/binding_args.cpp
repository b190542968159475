#include "binding_args.h"

#include <arpa/inet.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "kz_platform.h"

namespace tools {

bool read_number(const char *text, long low, long high, int base, long *value) {
  char *end = nullptr;
  errno = 0;
  *value = strtol(text, &end, base);
  return *text != '\0' && *end == '\0' && errno == 0 && *value >= low && *value <= high;
}

bool read_oid(const char *text, ObjectIdEMS *arcs, uint32_t *length) {
  int count = SNMP_OID_MAX;
  if (KZmib_read_numeric_objid(text, arcs, &count) != 0 || count < 2) return false;
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
