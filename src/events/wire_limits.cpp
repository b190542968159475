// The codec's documented limits, named: why a message was refused, and
// what a trap record holds that would not come through the codec intact.

#include <algorithm>
#include <cstdint>

#include "ber_reader.h"
#include "snmp.h"

namespace {

namespace ber = events::ber;

// Constructed elements are read this deep: message, PDU, binding list,
// binding, and a few more than a well-formed message has.
constexpr int kMaxDepth = 8;
constexpr uint32_t kLargestArc = 0x7FFFFFFF;
constexpr uint32_t kShortenedTime = 0xFF800000;

int identifier_limit(const unsigned char *p, uint32_t length) {
  if (length + 1 > SNMP_OID_MAX) return SNMP_LIMIT_IDENTIFIER;
  uint64_t value = 0;
  for (uint32_t i = 0; i < length; ++i) {
    value = (value << 7) | (p[i] & 0x7F);
    if (value > kLargestArc) return SNMP_LIMIT_SUBIDENTIFIER;
    if (!(p[i] & 0x80)) value = 0;
  }
  return SNMP_LIMIT_NONE;
}

// The first limit met by the elements of [p, end), as far as they are
// well-formed.
int elements_limit(const unsigned char *p, const unsigned char *end, int depth) {
  while (p < end) {
    unsigned char type;
    uint32_t length;
    const unsigned char *contents = ber::header(p, end, &type, &length);
    if (contents == nullptr) return SNMP_LIMIT_NONE;
    int limit = SNMP_LIMIT_NONE;
    if (type & 0x20) {
      if (depth < kMaxDepth) limit = elements_limit(contents, contents + length, depth + 1);
    } else if (type == ASN_OBJECT_ID) {
      limit = identifier_limit(contents, length);
    } else if ((type == ASN_OCTET_STR || type == ASN_OPAQUE) && length > SNMP_STRING_MAX) {
      limit = SNMP_LIMIT_STRING;
    }
    if (limit != SNMP_LIMIT_NONE) return limit;
    p = contents + length;
  }
  return SNMP_LIMIT_NONE;
}

bool arcs_fit(const ObjectIdEMS *arcs, uint32_t length) {
  const ObjectIdEMS *end = arcs + std::min<uint32_t>(length, SNMP_OID_MAX);
  return std::all_of(arcs, end, [](ObjectIdEMS arc) { return arc <= kLargestArc; });
}

}  // namespace

extern "C" EVENTS_EXPORT int snmp_message_limit(const unsigned char *buf, int len) {
  const unsigned char *end = buf + std::max(len, 0);
  unsigned char type;
  uint32_t length;
  const unsigned char *p = ber::header(buf, end, &type, &length);
  if (p == nullptr || type != ASN_SEQUENCE) return SNMP_LIMIT_NONE;
  end = p + length;
  if ((p = ber::header(p, end, &type, &length)) == nullptr) return SNMP_LIMIT_NONE;  // version
  if ((p = ber::header(p + length, end, &type, &length)) == nullptr) return SNMP_LIMIT_NONE;
  if ((type == ASN_OCTET_STR || type == ASN_OPAQUE) && length > SNMP_COMMUNITY_MAX - 1)
    return SNMP_LIMIT_COMMUNITY;
  return elements_limit(p + length, end, 0);
}

extern "C" EVENTS_EXPORT int snmp_trap_limit(const snmp_trap_infoEMS *sti,
                                             const EMSsnmpVarBind *vars) {
  if (sti->clen > SNMP_COMMUNITY_MAX - 1) return SNMP_LIMIT_COMMUNITY;
  if (!arcs_fit(sti->enterprise, static_cast<uint32_t>(std::max(sti->elen, 0))))
    return SNMP_LIMIT_SUBIDENTIFIER;
  if (sti->specific > kLargestArc) return SNMP_LIMIT_SPECIFIC;
  if (sti->time >= kShortenedTime) return SNMP_LIMIT_TIME;
  for (int i = 0; i < sti->vars; ++i) {
    const SnmpVarBindEMS &binding = vars[i];
    if (!arcs_fit(binding.oid, binding.oid_length) ||
        (binding.type == ASN_OBJECT_ID && !arcs_fit(binding.val.objid, binding.val_len)))
      return SNMP_LIMIT_SUBIDENTIFIER;
    if (binding.type == ASN_OCTET_STR && binding.val_len > SNMP_STRING_MAX)
      return SNMP_LIMIT_STRING;
  }
  return SNMP_LIMIT_NONE;
}

extern "C" EVENTS_EXPORT const char *snmp_limit_text(int limit) {
  switch (limit) {
    case SNMP_LIMIT_NONE:
      return "within the limits";
    case SNMP_LIMIT_SUBIDENTIFIER:
      return "sub-identifier of 2^31 or more";
    case SNMP_LIMIT_IDENTIFIER:
      return "identifier over 127 octets";
    case SNMP_LIMIT_STRING:
      return "string over 512 octets";
    case SNMP_LIMIT_COMMUNITY:
      return "community over 127 octets";
    case SNMP_LIMIT_SPECIFIC:
      return "specific-trap number over 2^31-1";
    case SNMP_LIMIT_TIME:
      return "time-stamp the encoder shortens (0xFF800000 or more)";
    default:
      return "unknown limit";
  }
}
