// Notification decoder: what agents send to a trap port, SNMPv1 traps and
// SNMPv2c SNMPv2-Trap and InformRequest messages, as one SNMPv1 trap
// record; the answer to an inform; and the trap identifier that stands
// for an SNMPv1 trap.  Nothing allocates.

#include <algorithm>
#include <climits>
#include <cstring>

#include "ber_reader.h"
#include "notification.h"
#include "snmp.h"

namespace {

namespace ber = events::ber;

constexpr ObjectIdEMS kSysUpTime[] = {1, 3, 6, 1, 2, 1, 1, 3, 0};
constexpr ObjectIdEMS kSnmpTrapOid[] = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};
constexpr ObjectIdEMS kSnmpTrapEnterprise[] = {1, 3, 6, 1, 6, 3, 1, 1, 4, 3, 0};
constexpr ObjectIdEMS kSnmpTrapAddress[] = {1, 3, 6, 1, 6, 3, 18, 1, 3, 0};
constexpr ObjectIdEMS kSnmpTraps[] = {1, 3, 6, 1, 6, 3, 1, 1, 5};
constexpr int kSnmpTrapsLength = sizeof kSnmpTraps / sizeof kSnmpTraps[0];
// snmpTraps.1 coldStart to snmpTraps.6 authenticationFailure are generic
// traps 0 to 5; 6, enterpriseSpecific, has no identifier of its own.
constexpr uint32_t kStandardTraps = 6;
constexpr uint32_t kEnterpriseSpecific = 6;

template <size_t N>
bool is_oid(const ObjectIdEMS *oid, uint32_t length, const ObjectIdEMS (&expected)[N]) {
  return length == N && memcmp(oid, expected, sizeof expected) == 0;
}

// Whether the binding at p carries a Counter64 value, which the binding
// reader refuses like any type SNMPv1 lacks.
[[gnu::cold]] bool holds_counter64(const unsigned char *p, const unsigned char *end) {
  unsigned char type;
  uint32_t length;
  if ((p = ber::header(p, end, &type, &length)) == nullptr || type != ASN_SEQUENCE) return false;
  end = p + length;
  if ((p = ber::header(p, end, &type, &length)) == nullptr) return false;
  return ber::header(p + length, end, &type, &length) != nullptr && type == ASN_COUNTER64;
}

// The result for the binding at p that the binding reader refused.
[[gnu::cold]] int refused_binding(const unsigned char *p, const unsigned char *end) {
  return holds_counter64(p, end) ? SNMP_NOTIFICATION_COUNTER64 : SNMP_NOTIFICATION_MALFORMED;
}

// Reads the binding at p.  Returns the position after it, or nullptr with
// *result saying why.
[[gnu::always_inline]] inline const unsigned char *next_binding(const unsigned char *p,
                                                                const unsigned char *end,
                                                                SnmpVarBindEMS *binding,
                                                                int *result) {
  const unsigned char *next = ber::binding(p, end, binding, ber::kNotificationRules);
  if (next != nullptr && !binding->undecoded) return next;
  *result = refused_binding(p, end);
  return nullptr;
}

// Sets the enterprise, generic and specific numbers for the trap
// identifier trap[0..length).  Returns whether it is a standard trap, or
// -1 if it has no SNMPv1 form.
int map_trap_oid(const ObjectIdEMS *trap, uint32_t length, snmp_trap_infoEMS *sti) {
  const int capacity = std::min(sti->elen, SNMP_OID_MAX);
  bool standard = length == kSnmpTrapsLength + 1 && memcmp(trap, kSnmpTraps, sizeof kSnmpTraps) == 0 &&
                  trap[kSnmpTrapsLength] >= 1 && trap[kSnmpTrapsLength] <= kStandardTraps;
  if (standard) {
    sti->gen = trap[kSnmpTrapsLength] - 1;
    sti->specific = 0;
    trap = kSnmpTraps;
    length = kSnmpTrapsLength;
  } else {
    if (length < 3) return -1;
    sti->gen = kEnterpriseSpecific;
    sti->specific = trap[length - 1];
    length -= trap[length - 2] == 0 ? 2 : 1;
  }
  if (length < 2 || static_cast<int>(length) > capacity) return -1;
  memcpy(sti->enterprise, trap, length * sizeof *trap);
  sti->elen = static_cast<int32_t>(length);
  return standard;
}

// Translates the SNMPv2-Trap or InformRequest PDU of `message`.
int decode_v2(const ber::Message &message, uint32_t source, snmp_trap_infoEMS *sti,
              EMSsnmpVarBind *vars, snmp_notification_info *about) {
  if (message.community_length > static_cast<uint32_t>(std::max(sti->clen, 0)))
    return SNMP_NOTIFICATION_MALFORMED;
  ber::copy_octets(sti->community, message.community, message.community_length, message.pdu_end);
  sti->community[message.community_length] = '\0';
  sti->clen = static_cast<int32_t>(message.community_length);
  int32_t request_id = 0;
  int result = events::translate_notification_pdu(
      message.pdu, message.pdu_end, source, sti, vars, &request_id,
      about != nullptr ? about->trap_oid : nullptr, about != nullptr ? &about->trap_oid_length : nullptr);
  if (about != nullptr) about->request_id = request_id;
  return result;
}

}  // namespace

int events::translate_notification_pdu(const unsigned char *p, const unsigned char *pdu_end,
                                       uint32_t source, snmp_trap_infoEMS *sti,
                                       EMSsnmpVarBind *vars, int32_t *request_id,
                                       ObjectIdEMS *trap_oid, int32_t *trap_oid_length) {
  const int enterprise_capacity = std::min(sti->elen, SNMP_OID_MAX);
  uint32_t length = 0;
  int32_t numbers[3];  // request-id, error-status, error-index
  for (int32_t &number : numbers) {
    if (const unsigned char *next = ber::common_integer(p, pdu_end, &number)) {
      p = next;
      continue;
    }
    if ((p = ber::element(p, pdu_end, ASN_INTEGER, &length)) == nullptr ||
        !ber::integer(p, length, ASN_INTEGER, &number))
      return SNMP_NOTIFICATION_MALFORMED;
    p += length;
  }
  *request_id = numbers[0];
  if ((p = ber::element(p, pdu_end, ASN_SEQUENCE, &length)) == nullptr)
    return SNMP_NOTIFICATION_MALFORMED;
  const unsigned char *const list_end = p + length;

  // The two bindings every notification opens with, and those past the
  // caller's array, are read here.
  SnmpVarBindEMS scratch;
  int result = SNMP_NOTIFICATION_OK;
  if (p == list_end) return SNMP_NOTIFICATION_BAD_TRAP_OID;
  if ((p = next_binding(p, list_end, &scratch, &result)) == nullptr) return result;
  if (!is_oid(scratch.oid, scratch.oid_length, kSysUpTime) || scratch.type != ASN_TIMETICKS)
    return SNMP_NOTIFICATION_BAD_TRAP_OID;
  sti->time = static_cast<uint32_t>(scratch.val.integer);
  if (p == list_end) return SNMP_NOTIFICATION_BAD_TRAP_OID;
  if ((p = next_binding(p, list_end, &scratch, &result)) == nullptr) return result;
  if (!is_oid(scratch.oid, scratch.oid_length, kSnmpTrapOid) || scratch.type != ASN_OBJECT_ID)
    return SNMP_NOTIFICATION_BAD_TRAP_OID;
  if (trap_oid != nullptr) {
    memcpy(trap_oid, scratch.val.objid, scratch.val_len * sizeof(ObjectIdEMS));
    *trap_oid_length = static_cast<int32_t>(scratch.val_len);
  }
  int standard = map_trap_oid(scratch.val.objid, scratch.val_len, sti);
  if (standard < 0) return SNMP_NOTIFICATION_BAD_TRAP_OID;
  sti->agent = source;

  // Bindings past the caller's array are read into scratch all the same:
  // the trap's address and enterprise may come last.
  auto take = [&](const SnmpVarBindEMS &binding, ber::Take otherwise) {
    // snmpTrapEnterprise.0 is no binding of the SNMPv1 trap: it names the
    // enterprise of a standard trap, and the SNMPv1 form of any other
    // carries its enterprise already.
    if (binding.type == ASN_OBJECT_ID && is_oid(binding.oid, binding.oid_length, kSnmpTrapEnterprise)) {
      if (!standard) return ber::Take::kClaim;
      if (binding.val_len < 2 || static_cast<int>(binding.val_len) > enterprise_capacity) {
        result = SNMP_NOTIFICATION_BAD_TRAP_OID;
        return ber::Take::kStop;
      }
      memcpy(sti->enterprise, binding.val.objid, binding.val_len * sizeof(ObjectIdEMS));
      sti->elen = static_cast<int32_t>(binding.val_len);
      return ber::Take::kClaim;
    }
    if (binding.type == ASN_IPADDRESS && is_oid(binding.oid, binding.oid_length, kSnmpTrapAddress))
      sti->agent = static_cast<uint32_t>(binding.val.integer);
    return otherwise;
  };
  auto in_array = [&](const SnmpVarBindEMS &binding) { return take(binding, ber::Take::kKeep); };
  auto past_array = [&](const SnmpVarBindEMS &binding) { return take(binding, ber::Take::kClaim); };
  auto refuse = [](const unsigned char *, const SnmpVarBindEMS &) { return false; };
  // Claimed bindings count toward a reading's capacity: the array fills in
  // as many readings as there are claims among its bindings.
  int count = 0;
  ber::ListReading list{0, 0, p};
  while (list.count >= 0 && list.at < list_end && count < sti->maxvars) {
    list = ber::binding_list(list.at, list_end, vars + count, sti->maxvars - count,
                             ber::kNotificationRules, in_array, refuse);
    count += list.kept;
  }
  if (list.count >= 0)
    list = ber::binding_list(list.at, list_end, &scratch, INT_MAX, ber::kNotificationRules,
                             past_array, refuse);
  // A stop with the result still OK is a binding the reader refused.
  if (list.count < 0)
    return result != SNMP_NOTIFICATION_OK ? result : refused_binding(list.at, list_end);
  sti->vars = count;
  return SNMP_NOTIFICATION_OK;
}

/// Decodes an SNMPv1 trap or translates an SNMPv2c notification.
extern "C" EVENTS_EXPORT int snmp_parse_notification(unsigned char *buf, int len, uint32_t source,
                                                     snmp_trap_infoEMS *sti,
                                                     EMSsnmpVarBind *vars,
                                                     snmp_notification_info *about) {
  ber::Message message;
  bool readable = ber::message(buf, len, &message);
  if (about != nullptr) {
    about->version = readable ? message.version : 0;
    about->pdu_type = readable ? message.pdu_type : 0;
    about->request_id = 0;
    about->trap_oid_length = 0;
  }
  bool v2_notification = readable && (message.pdu_type == SNMP_TRAP2_PDU ||
                                      message.pdu_type == SNMP_INFORM_PDU);
  if (v2_notification && message.version == SNMP_MESSAGE_V2C) {
    sti->clen = std::min(sti->clen, SNMP_COMMUNITY_MAX - 1);
    return decode_v2(message, source, sti, vars, about);
  }
  // Anything unreadable goes to the SNMPv1 decoder, which reports why.
  if (readable && message.pdu_type != SNMP_TRAP_PDU) return SNMP_NOTIFICATION_NOT_NOTIFICATION;
  if (snmp_parse_trap(buf, len, sti, nullptr, vars) != 0) return SNMP_NOTIFICATION_MALFORMED;
  // The SNMPv1 decoder overlooks an odd version, as it always has; what it
  // accepts is an SNMPv1 trap all the same.
  if (about != nullptr) {
    about->version = SNMP_MESSAGE_V1;
    about->pdu_type = SNMP_TRAP_PDU;
    about->trap_oid_length =
        std::max(snmp_notification_oid(sti, about->trap_oid, SNMP_OID_MAX), 0);
  }
  return SNMP_NOTIFICATION_OK;
}

extern "C" EVENTS_EXPORT const char *snmp_notification_error(int result) {
  switch (result) {
    case SNMP_NOTIFICATION_OK:
      return "no error";
    case SNMP_NOTIFICATION_MALFORMED:
      return "malformed or cut short";
    case SNMP_NOTIFICATION_NOT_NOTIFICATION:
      return "not an SNMPv1 trap, SNMPv2c trap or inform";
    case SNMP_NOTIFICATION_BAD_TRAP_OID:
      return "no sysUpTime.0 and snmpTrapOID.0 first, or a trap identifier with no SNMPv1 form";
    case SNMP_NOTIFICATION_COUNTER64:
      return "a Counter64 binding, which SNMPv1 cannot carry";
    default:
      return "unknown result";
  }
}

/// Writes the Response that acknowledges an inform; returns 0, -1 or -2.
extern "C" EVENTS_EXPORT int snmp_build_inform_response(const unsigned char *inform,
                                                        int inform_len, unsigned char *out,
                                                        int *out_length) {
  ber::Message message;
  if (!ber::message(inform, inform_len, &message) || message.version != SNMP_MESSAGE_V2C ||
      message.pdu_type != SNMP_INFORM_PDU)
    return -1;
  // The request-id element and the binding list are copied as received;
  // between them lie error-status and error-index.
  const unsigned char *element_end[4];
  const unsigned char *p = message.pdu;
  int i = 0;
  for (unsigned char expected : {ASN_INTEGER, ASN_INTEGER, ASN_INTEGER, ASN_SEQUENCE}) {
    unsigned char type;
    uint32_t length;
    if ((p = ber::header(p, message.pdu_end, &type, &length)) == nullptr || type != expected)
      return -1;
    p += length;
    element_end[i++] = p;
  }
  const unsigned char *const request_id = message.pdu;
  const int request_id_size = static_cast<int>(element_end[0] - request_id);
  const unsigned char *const list = element_end[2];
  const int list_size = static_cast<int>(element_end[3] - list);
  static const unsigned char kNoError[] = {ASN_INTEGER, 1, 0, ASN_INTEGER, 1, 0};
  const int pdu_length = request_id_size + static_cast<int>(sizeof kNoError) + list_size;
  const int community_length = static_cast<int>(message.community_length);
  // Version, community and PDU, each with a header of at most 4 octets.
  if (pdu_length + community_length + 3 + 4 + 4 > 0xFFFF) return -1;

  unsigned char header[4];
  int room = sizeof header;
  const int pdu_header = static_cast<int>(
      asnBuildHeader09(header, &room, SNMP_RESPONSE_PDU, pdu_length) - header);
  room = sizeof header;
  const int community_header = static_cast<int>(
      asnBuildHeader09(header, &room, ASN_OCTET_STR, community_length) - header);
  const int message_length = 3 + community_header + community_length + pdu_header + pdu_length;

  room = *out_length;
  int32_t version = SNMP_MESSAGE_V2C;
  unsigned char *w = asnBuildHeader09(out, &room, ASN_SEQUENCE, message_length);
  if (w != nullptr) w = asnBuildInt09(w, &room, &version, sizeof version);
  if (w != nullptr) w = asnBuildString09(w, &room, message.community, community_length);
  if (w != nullptr) w = asnBuildHeader09(w, &room, SNMP_RESPONSE_PDU, pdu_length);
  if (w == nullptr || room < pdu_length) return -2;
  memcpy(w, request_id, static_cast<size_t>(request_id_size));
  memcpy(w + request_id_size, kNoError, sizeof kNoError);
  memcpy(w + request_id_size + sizeof kNoError, list, static_cast<size_t>(list_size));
  *out_length = static_cast<int>(w - out) + pdu_length;
  return 0;
}

extern "C" EVENTS_EXPORT int snmp_notification_oid(const snmp_trap_infoEMS *sti,
                                                   ObjectIdEMS *oid_out, int capacity) {
  if (sti->gen < kEnterpriseSpecific) {
    if (capacity < kSnmpTrapsLength + 1) return -1;
    memcpy(oid_out, kSnmpTraps, sizeof kSnmpTraps);
    oid_out[kSnmpTrapsLength] = sti->gen + 1;
    return kSnmpTrapsLength + 1;
  }
  if (sti->gen != kEnterpriseSpecific || sti->elen < 0 || sti->elen > SNMP_OID_MAX ||
      sti->elen + 2 > capacity)
    return -1;
  memcpy(oid_out, sti->enterprise, static_cast<size_t>(sti->elen) * sizeof(ObjectIdEMS));
  oid_out[sti->elen] = 0;
  oid_out[sti->elen + 1] = sti->specific;
  return sti->elen + 2;
}
