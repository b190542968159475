// Trap decoder: one SNMPv1 Trap message to snmp_trap_infoEMS and a
// caller-owned array of bindings.

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "ber_reader.h"
#include "decode_paths.h"
#include "log_trace.h"
#include "snmp.h"

namespace {

constexpr int kIntSize = 4;
// Room each binding value is decoded with; never more than the message holds.
constexpr int kValueRoom = 1028;

// The notification-address variable.  A trap forwarded on behalf of another
// agent carries that agent's address in it.
constexpr ObjectIdEMS kNotificationAddress[] = {1, 3, 6, 1, 4, 1, 99, 12, 45, 2, 1, 0};

int parse_failed(const char *text) {
  logger(1, "snmp_parse_trap", "%s", text);
  if (tracelogfp) log_trace("snmp_parse_trap", "%s", text);
  return -1;
}

// Takes the agent's address from a notification-address binding.  Returns
// whether the binding was one; it then holds no entry of the array.
bool take_agent(const SnmpVarBindEMS &binding, snmp_trap_infoEMS *sti) {
  bool is_string = binding.type == ASN_OCTET_STR || binding.type == ASN_OPAQUE;
  // Arc 7 tells the notification-address variable apart cheaply.
  if (!is_string || binding.oid[6] != kNotificationAddress[6] ||
      !isVaultraNotificationAddress(binding.oid))
    return false;
  memcpy(&sti->agent, binding.val.string + 1, sizeof sti->agent);
  return true;
}

}  // namespace

extern "C" EVENTS_EXPORT int isVaultraNotificationAddress(const ObjectIdEMS *enterprise) {
  if (enterprise == nullptr) return 0;
  return memcmp(enterprise, kNotificationAddress, sizeof kNotificationAddress) == 0;
}

namespace events::paths {

// Decodes the message step by step on the exported primitives, which
// report the first failure.
int trap_reporting(unsigned char *buf, int len, snmp_trap_infoEMS *sti, EMSsnmpVarBind *vars) {
  unsigned char *const end = buf + std::max(len, 0);
  int length = len;
  int32_t version;
  unsigned char *p = auth_parse(buf, &length, sti->community, &sti->clen, &version);
  if (p == nullptr) return parse_failed("version/comm name parse error");
  if (version != 0) {
    logger(1, "snmp_parse_trap", "invalid version");
    if (tracelogfp) log_trace("snmp_parse_trap", "invalid version");
  }

  unsigned char type;
  if ((p = asnParseHeader09(p, &length, &type)) == nullptr) return parse_failed("type parse error");
  if (type != SNMP_TRAP_PDU) return parse_failed("packet is not a snmp trap");
  sti->elen = std::min(sti->elen, SNMP_OID_MAX);
  if ((p = asnParseObjid09(p, &length, sti->enterprise, &sti->elen)) == nullptr)
    return parse_failed("enterprise parse error");
  if ((p = asnParseIntOrIpaddr09(p, &length, reinterpret_cast<int32_t *>(&sti->agent),
                                 kIntSize)) == nullptr)
    return parse_failed("agent-addr parse error");
  if ((p = asnParseInt09(p, &length, reinterpret_cast<int32_t *>(&sti->gen), kIntSize)) ==
      nullptr)
    return parse_failed("generic-trap parse error");
  if ((p = asnParseInt09(p, &length, reinterpret_cast<int32_t *>(&sti->specific), kIntSize)) ==
      nullptr)
    return parse_failed("specific-trap parse error");
  if ((p = asnParseInt09(p, &length, reinterpret_cast<int32_t *>(&sti->time), kIntSize)) ==
      nullptr)
    return parse_failed("time-stamp parse error");
  if ((p = asnParseHeader09(p, &length, &type)) == nullptr)
    return parse_failed("varbind sequence parse error");
  if (type != ASN_SEQUENCE) return parse_failed("seq type parse error");

  int count = 0;
  int entry = 0;
  bool notification_seen = false;
  while (length >= 1 && count < sti->maxvars) {
    SnmpVarBindEMS *binding = &vars[entry];
    int name_length = SNMP_OID_MAX;
    int value_length = 0;
    unsigned char *value = nullptr;
    p = parse_var_op(p, binding->oid, &name_length, &binding->type, &value_length, &value, &length);
    if (p == nullptr) return parse_failed("varbind parse error");
    binding->oid_length = static_cast<uint32_t>(name_length);
    binding->val_len = static_cast<uint32_t>(value_length);
    binding->undecoded = 0;
    const char *failure = decode_value(
        value, std::min<int>(kValueRoom, static_cast<int>(end - value)), binding, {true, false});
    if (failure != nullptr) return parse_failed(failure);
    ++count;
    if (take_agent(*binding, sti))
      notification_seen = true;
    else
      ++entry;
  }
  sti->vars = notification_seen ? count - 1 : count;
  return 0;
}

// Decodes a well-formed version-0 trap in one pass without reporting.
// Returns false, with the records possibly part-written, for anything
// else: a failure, or a case whose diagnostics the reporting path writes.
bool trap_fast(const unsigned char *buf, int len, snmp_trap_infoEMS *sti, EMSsnmpVarBind *vars) {
  namespace ber = events::ber;
  ber::Message message;
  if (!ber::message(buf, len, &message) || message.version != 0 ||
      static_cast<int64_t>(message.community_length) > sti->clen ||
      message.pdu_type != SNMP_TRAP_PDU)
    return false;
  memcpy(sti->community, message.community, message.community_length);
  sti->community[message.community_length] = '\0';
  sti->clen = static_cast<int32_t>(message.community_length);

  const unsigned char *const end = message.pdu_end;
  unsigned char type;
  uint32_t length;
  const unsigned char *p = message.pdu;
  if ((p = ber::element(p, end, ASN_OBJECT_ID, &length)) == nullptr) return false;
  int elen = ber::objid(p, length, end, sti->enterprise, std::min(sti->elen, SNMP_OID_MAX));
  if (elen < 0) return false;
  sti->elen = elen;
  int32_t *const numbers[] = {reinterpret_cast<int32_t *>(&sti->agent),
                              reinterpret_cast<int32_t *>(&sti->gen),
                              reinterpret_cast<int32_t *>(&sti->specific),
                              reinterpret_cast<int32_t *>(&sti->time)};
  for (int32_t *number : numbers) {
    if ((p = ber::header(p + length, end, &type, &length)) == nullptr ||
        !ber::integer(p, length, type, number))
      return false;
  }
  if ((p = ber::element(p + length, end, ASN_SEQUENCE, &length)) == nullptr) return false;
  bool notification_seen = false;
  bool more;
  int count = ber::binding_list(p, p + length, vars, sti->maxvars, true, &more,
                                [&](const SnmpVarBindEMS &binding) {
                                  bool taken = take_agent(binding, sti);
                                  notification_seen |= taken;
                                  return taken;
                                });
  if (count < 0) return false;
  sti->vars = notification_seen ? count - 1 : count;
  return true;
}

}  // namespace events::paths

/// Decodes the message buf[0..len); returns 0 or -1.
extern "C" EVENTS_EXPORT int snmp_parse_trap(unsigned char *buf, int len, snmp_trap_infoEMS *sti,
                                             struct event_infoEMS_s *, EMSsnmpVarBind *vars) {
  sti->clen = std::min(sti->clen, SNMP_COMMUNITY_MAX - 1);
  // The capacities are read again if the reporting path has to run.
  const int32_t clen = sti->clen, elen = sti->elen;
  if (events::paths::trap_fast(buf, len, sti, vars)) return 0;
  sti->clen = clen;
  sti->elen = elen;
  return events::paths::trap_reporting(buf, len, sti, vars);
}

extern "C" EVENTS_EXPORT void snmp_trap_reset_capacities(snmp_trap_infoEMS *sti, int maxvars) {
  sti->clen = SNMP_COMMUNITY_MAX - 1;
  sti->elen = SNMP_OID_MAX;
  sti->maxvars = maxvars;
}

extern "C" EVENTS_EXPORT uint32_t snmp_trap_agent_for_encoder(const snmp_trap_infoEMS *sti) {
  return ntohl(sti->agent);
}
