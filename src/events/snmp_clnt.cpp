// Request PDUs: get, get-next and set requests out, responses in.

#include "snmp_clnt.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "message_decoders.h"
#include "log_trace.h"

namespace {

namespace ber = events::ber;

// Every layer of a request is built within this many octets.
constexpr int kScratch = 1024;
constexpr int kIntSize = 4;
constexpr int kResponseWaitMs = 5000;

__attribute__((format(printf, 1, 2))) void trace(const char *fmt, ...) {
  if (!(snmptracemaskEMS & SNMP_TRACE_REQUEST)) return;
  va_list args;
  va_start(args, fmt);
  vfprintf(stderr, fmt, args);
  va_end(args);
}

int build_failed(int error) {
  trace("snmpBuild09: error %d\n", error);
  return -2;
}

void wrong_version(int32_t version) {
  trace("snmp_parse: Wrong version: %d...Continuing anyway\n", version);
}

int parse_failed(int error) {
  trace("snmp_parse: parse error %d\n", error);
  return -1;
}

}  // namespace

bool events::decode::response(unsigned char *data, int length, snmp_info *response,
                              SnmpVarBindEMS *vars, Stop *stop) {
  const unsigned char *p = data;
  const unsigned char *end = data + std::max(length, 0);
  ber::Message message;
  if (!ber::message(data, length, &message, true) ||
      static_cast<int64_t>(message.community_length) > response->clen)
    return stop->set(Step::kEnvelope, p, end);
  ber::copy_octets(response->community, message.community, message.community_length, end);
  response->clen = static_cast<int32_t>(message.community_length);
  if (__builtin_expect(message.version != 0, 0)) wrong_version(message.version);
  response->command = message.pdu_type;

  p = message.pdu;
  end = message.pdu_end;
  int32_t *const numbers[] = {&response->reqid, &response->errstat, &response->errindex};
  for (int i = 0; i < 3; ++i) {
    if (const unsigned char *next = ber::common_integer(p, end, numbers[i])) {
      p = next;
      continue;
    }
    unsigned char type;
    uint32_t n;
    const unsigned char *contents = ber::header(p, end, &type, &n);
    if (contents == nullptr || !ber::integer(contents, n, type, numbers[i]))
      return stop->set(Step::kNumber, p, end, i);
    p = contents + n;
  }
  uint32_t n;
  const unsigned char *contents = ber::element(p, end, ASN_SEQUENCE, &n);
  if (contents == nullptr) return stop->set(Step::kList, p, end);
  p = contents;
  end = contents + n;
  // A value that does not decode leaves its binding kept but undecoded,
  // and is reported from a reading into scratch.
  auto keep_undecoded = [&](const unsigned char *at, const SnmpVarBindEMS &binding) {
    SnmpVarBindEMS scratch{};
    const char *failure = reread_binding(data + (at - data), static_cast<int>(end - at),
                                         data + std::max(length, 0), &scratch, ber::kResponseRules);
    if (failure == kInvalidType) trace("snmp_parse: bad type returned (%x)\n", binding.type);
    return true;
  };
  // One binding more than the array holds is counted, not decoded: callers
  // rely on the count of maxvars + 1.
  const ber::ListReading list = ber::binding_list(
      p, end, vars, response->maxvars, ber::kResponseRules,
      [](const SnmpVarBindEMS &) { return ber::Take::kKeep; }, keep_undecoded);
  if (list.count < 0) return stop->set(Step::kBinding, list.at, end);
  response->vars = list.count + (list.at < end);
  return true;
}

namespace {

// Reads the step the one pass stopped at again on the exported
// primitives, which say why it failed, and traces the step's number.
int report(unsigned char *data, int length, const events::decode::Stop &stop,
           snmp_info *response) {
  using events::decode::Step;
  unsigned char *const at = data + (stop.at - data);
  int room = static_cast<int>(stop.end - stop.at);
  unsigned char type;
  switch (stop.step) {
    case Step::kEnvelope: {
      // One octet more than the record's array, for the terminator.
      unsigned char community[SNMP_COMMUNITY_MAX + 1];
      int32_t version;
      unsigned char *p = auth_parse(data, &room, community, &response->clen, &version);
      if (p == nullptr) return parse_failed(1);
      if (version != 0) wrong_version(version);
      asnParseHeader09(p, &room, &type);
      return parse_failed(2);
    }
    case Step::kNumber: {
      int32_t number;
      asnParseInt09(at, &room, &number, kIntSize);
      return parse_failed(4 + stop.number);
    }
    case Step::kList:
      return parse_failed(asnParseHeader09(at, &room, &type) == nullptr ? 7 : 8);
    default: {
      SnmpVarBindEMS binding{};
      events::decode::reread_binding(at, room, data + std::max(length, 0), &binding,
                                     ber::kResponseRules);
      return parse_failed(80);
    }
  }
}

}  // namespace

/// Builds the message from the inside out, each layer within the caller's
/// buffer and the 1,024-octet scratch area in turn.
extern "C" EVENTS_EXPORT int snmpBuild09(unsigned char *out_data, int *out_length,
                                         snmp_info *request, SnmpVarBindEMS *vars) {
  if (request->vars <= 0) {
    trace("snmpBuild09: No variables set!\n");
    return -2;
  }
  unsigned char scratch[kScratch];
  int room = *out_length;
  unsigned char *p = out_data;
  for (int i = 0; i < request->vars; ++i) {
    SnmpVarBindEMS *binding = &vars[i];
    // Lengths beyond the record's arrays would read past them.
    bool string = binding->type == ASN_OCTET_STR, identifier = binding->type == ASN_OBJECT_ID;
    if (binding->oid_length > SNMP_OID_MAX || (string && binding->val_len > SNMP_STRING_MAX) ||
        (identifier && binding->val_len > SNMP_OID_MAX))
      return build_failed(1);
    int name_length = static_cast<int>(binding->oid_length);
    p = build_var_op(p, binding->oid, &name_length, binding->type,
                     static_cast<int>(binding->val_len), binding->val.string, &room);
    if (p == nullptr) return build_failed(1);
  }
  int list_length = static_cast<int>(p - out_data);

  room = kScratch;
  p = asnBuildHeader09(scratch, &room, ASN_SEQUENCE, list_length);
  if (p == nullptr || room < list_length) return build_failed(10);
  memcpy(p, out_data, static_cast<size_t>(list_length));
  list_length += static_cast<int>(p - scratch);

  room = *out_length;
  if ((p = asnBuildInt09(out_data, &room, &request->reqid, kIntSize)) == nullptr)
    return build_failed(2);
  if ((p = asnBuildInt09(p, &room, &request->errstat, kIntSize)) == nullptr)
    return build_failed(3);
  if ((p = asnBuildInt09(p, &room, &request->errindex, kIntSize)) == nullptr)
    return build_failed(4);
  if (room < list_length) return build_failed(5);
  memcpy(p, scratch, static_cast<size_t>(list_length));
  int contents_length = static_cast<int>(p - out_data) + list_length;

  room = kScratch;
  p = asnBuildHeader09(scratch, &room, request->command, contents_length);
  if (p == nullptr) return build_failed(6);
  if (room < contents_length) return build_failed(7);
  memcpy(p, out_data, static_cast<size_t>(contents_length));
  int pdu_length = static_cast<int>(p - scratch) + contents_length;

  // The envelope's outer length assumes a short-form community header.
  if (request->clen < 0 || request->clen >= SNMP_COMMUNITY_MAX) return build_failed(8);
  room = *out_length;
  int32_t version = 0;
  p = auth_build(out_data, &room, request->community, &request->clen, &version, pdu_length);
  if (p == nullptr) return build_failed(8);
  if (room < pdu_length) return build_failed(9);
  memcpy(p, scratch, static_cast<size_t>(pdu_length));
  *out_length = static_cast<int>(p - out_data) + pdu_length;
  return 0;
}

/// Decodes one response message.
extern "C" EVENTS_EXPORT int snmp_parse(unsigned char *data, int length, snmp_info *response,
                                        SnmpVarBindEMS *vars) {
  response->clen = std::clamp(response->clen, 0, SNMP_COMMUNITY_MAX);
  events::decode::Stop stop;
  if (events::decode::response(data, length, response, vars, &stop)) return 0;
  return report(data, length, stop, response);
}

extern "C" EVENTS_EXPORT int send_request(int sd, struct sockaddr_in address, snmp_info *request,
                                          snmp_info *response, SnmpVarBindEMS *req_vars,
                                          SnmpVarBindEMS *rsp_vars) {
  unsigned char packet[kScratch];
  int length = sizeof packet;
  if (snmpBuild09(packet, &length, request, req_vars) != 0) return -1;
  if (dump_packetEMS) hexdumpEMS(packet, length);
  if (sendto(sd, packet, static_cast<size_t>(length), 0, reinterpret_cast<sockaddr *>(&address),
             sizeof address) < 0) {
    perror("sendto");
    return -1;
  }
  pollfd wait = {sd, POLLIN, 0};
  int ready = poll(&wait, 1, kResponseWaitMs);
  if (ready == 0) return 0;
  if (ready < 0) {
    if (errno == EINTR)
      trace("snmp_request:Interupted\n");
    else if (snmptracemaskEMS & SNMP_TRACE_REQUEST)
      perror("send_request: select");
    return -1;
  }
  if (!(wait.revents & (POLLIN | POLLERR | POLLHUP))) {
    trace("snmp_request: wrong fd set\n");
    return -1;
  }
  sockaddr_in from{};
  socklen_t from_length = sizeof from;
  ssize_t received = recvfrom(sd, packet, sizeof packet, 0, reinterpret_cast<sockaddr *>(&from),
                              &from_length);
  if (received < 0) {
    perror("recvfrom");
    return -1;
  }
  if (dump_packetEMS) {
    char text[INET_ADDRSTRLEN];
    printf("received %d bytes from %s:\n", static_cast<int>(received),
           inet_ntop(AF_INET, &from.sin_addr, text, sizeof text));
    hexdumpEMS(packet, static_cast<int>(received));
  }
  if (snmp_parse(packet, static_cast<int>(received), response, rsp_vars) != 0) return -1;
  if (response->reqid != request->reqid || response->clen != request->clen ||
      memcmp(response->community, request->community, static_cast<size_t>(request->clen)) != 0 ||
      response->command != SNMP_GET_RSP)
    return -1;
  return 1;
}
