// Trap decoder: one SNMPv1 Trap message to snmp_trap_infoEMS and a
// caller-owned array of bindings.

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "message_decoders.h"
#include "log_trace.h"
#include "snmp.h"

namespace {

namespace ber = events::ber;

constexpr int kIntSize = 4;

// The notification-address variable.  A trap forwarded on behalf of another
// agent carries that agent's address in it.
constexpr ObjectIdEMS kNotificationAddress[] = {1, 3, 6, 1, 4, 1, 99, 12, 45, 2, 1, 0};

void parse_warning(const char *text) {
  logger(1, "snmp_parse_trap", "%s", text);
  if (tracelogfp) log_trace("snmp_parse_trap", "%s", text);
}

int parse_failed(const char *text) {
  parse_warning(text);
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

// Reads the agent's address: an IpAddress or another integer type, or an
// OCTET STRING of up to four octets, copied as it stands.
bool agent_address(const unsigned char *p, uint32_t length, unsigned char type,
                   snmp_trap_infoEMS *sti) {
  if (type != ASN_OCTET_STR)
    return ber::integer(p, length, type, reinterpret_cast<int32_t *>(&sti->agent));
  if (length > sizeof sti->agent) return false;
  memcpy(&sti->agent, p, length);
  return true;
}

}  // namespace

extern "C" EVENTS_EXPORT int isVaultraNotificationAddress(const ObjectIdEMS *enterprise) {
  if (enterprise == nullptr) return 0;
  return memcmp(enterprise, kNotificationAddress, sizeof kNotificationAddress) == 0;
}

bool events::decode::trap(unsigned char *buf, int len, snmp_trap_infoEMS *sti,
                          EMSsnmpVarBind *vars, Stop *stop) {
  const unsigned char *p = buf;
  const unsigned char *end = buf + std::max(len, 0);
  ber::Message message;
  if (!ber::message(buf, len, &message, true) || message.pdu_type != SNMP_TRAP_PDU ||
      static_cast<int64_t>(message.community_length) > sti->clen)
    return stop->set(Step::kEnvelope, p, end);
  ber::copy_octets(sti->community, message.community, message.community_length, end);
  sti->community[message.community_length] = '\0';
  sti->clen = static_cast<int32_t>(message.community_length);
  if (__builtin_expect(message.version != 0, 0)) parse_warning("invalid version");

  p = message.pdu;
  end = message.pdu_end;
  uint32_t length;
  const unsigned char *contents = ber::element(p, end, ASN_OBJECT_ID, &length);
  const int elen = contents == nullptr
                       ? -1
                       : ber::identifier(contents, length, end, sti->enterprise,
                                         std::min(sti->elen, SNMP_OID_MAX), true);
  if (elen < 0) return stop->set(Step::kEnterprise, p, end);
  sti->elen = elen;
  p = contents + length;
  // The agent's address, then generic-trap, specific-trap and time-stamp.
  int32_t *const numbers[] = {nullptr, reinterpret_cast<int32_t *>(&sti->gen),
                              reinterpret_cast<int32_t *>(&sti->specific),
                              reinterpret_cast<int32_t *>(&sti->time)};
  // Nearly every trap carries an IpAddress and a generic-trap of a common
  // form: read at their fixed offsets, they leave the specific-trap's
  // position waiting on no length octet.
  int i = 0;
  if (end - p >= 6 && p[0] == ASN_IPADDRESS && p[1] == 4) {
    if (const unsigned char *next = ber::common_integer(p + 6, end, numbers[1])) {
      memcpy(&sti->agent, p + 2, sizeof sti->agent);
      p = next;
      i = 2;
    }
  }
  for (; i < 4; ++i) {
    unsigned char type;
    contents = ber::header(p, end, &type, &length);
    bool read = contents != nullptr && (i == 0 ? agent_address(contents, length, type, sti)
                                               : ber::integer(contents, length, type, numbers[i]));
    if (!read) return stop->set(Step::kNumber, p, end, i);
    p = contents + length;
  }
  if ((contents = ber::element(p, end, ASN_SEQUENCE, &length)) == nullptr)
    return stop->set(Step::kList, p, end);
  p = contents;
  end = contents + length;
  const ber::ListReading list = ber::binding_list(
      p, end, vars, sti->maxvars, ber::kTrapRules,
      [sti](const SnmpVarBindEMS &binding) {
        return take_agent(binding, sti) ? ber::Take::kClaim : ber::Take::kKeep;
      },
      [](const unsigned char *, const SnmpVarBindEMS &) { return false; });
  if (list.count < 0) return stop->set(Step::kBinding, list.at, end);
  // However many notification-address bindings came, one is not counted.
  sti->vars = list.count - (list.kept < list.count);
  return true;
}

namespace {

// Reads the step the one pass stopped at again on the exported
// primitives, which say why it failed, and adds the step's own text.
int report(unsigned char *buf, int len, const events::decode::Stop &stop, snmp_trap_infoEMS *sti) {
  using events::decode::Step;
  unsigned char *const at = buf + (stop.at - buf);
  int room = static_cast<int>(stop.end - stop.at);
  unsigned char type;
  switch (stop.step) {
    case Step::kEnvelope: {
      int32_t version;
      unsigned char *p = auth_parse(buf, &room, sti->community, &sti->clen, &version);
      if (p == nullptr) return parse_failed("version/comm name parse error");
      if (version != 0) parse_warning("invalid version");
      if (asnParseHeader09(p, &room, &type) == nullptr) return parse_failed("type parse error");
      return parse_failed("packet is not a snmp trap");
    }
    case Step::kEnterprise: {
      int capacity = std::min(sti->elen, SNMP_OID_MAX);
      asnParseObjid09(at, &room, sti->enterprise, &capacity);
      return parse_failed("enterprise parse error");
    }
    case Step::kNumber: {
      static const char *const kTexts[] = {"agent-addr parse error", "generic-trap parse error",
                                           "specific-trap parse error", "time-stamp parse error"};
      int32_t number;
      if (stop.number == 0)
        asnParseIntOrIpaddr09(at, &room, &number, kIntSize);
      else
        asnParseInt09(at, &room, &number, kIntSize);
      return parse_failed(kTexts[stop.number]);
    }
    case Step::kList:
      if (asnParseHeader09(at, &room, &type) == nullptr)
        return parse_failed("varbind sequence parse error");
      return parse_failed("seq type parse error");
    default: {
      SnmpVarBindEMS binding{};
      const char *failure = events::decode::reread_binding(at, room, buf + std::max(len, 0),
                                                           &binding, ber::kTrapRules);
      return parse_failed(failure != nullptr ? failure : events::decode::kBindingShape);
    }
  }
}

}  // namespace

/// Decodes the message buf[0..len); returns 0 or -1.
extern "C" EVENTS_EXPORT int snmp_parse_trap(unsigned char *buf, int len, snmp_trap_infoEMS *sti,
                                             struct event_infoEMS_s *, EMSsnmpVarBind *vars) {
  sti->clen = std::min(sti->clen, SNMP_COMMUNITY_MAX - 1);
  events::decode::Stop stop;
  if (events::decode::trap(buf, len, sti, vars, &stop)) return 0;
  return report(buf, len, stop, sti);
}

extern "C" EVENTS_EXPORT void snmp_trap_reset_capacities(snmp_trap_infoEMS *sti, int maxvars) {
  sti->clen = SNMP_COMMUNITY_MAX - 1;
  sti->elen = SNMP_OID_MAX;
  sti->maxvars = maxvars;
}

extern "C" EVENTS_EXPORT uint32_t snmp_trap_agent_for_encoder(const snmp_trap_infoEMS *sti) {
  return ntohl(sti->agent);
}
