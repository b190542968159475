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

#include "ber_reader.h"
#include "decode_paths.h"
#include "log_trace.h"

namespace {

// Every layer of a request is built within this many octets.
constexpr int kScratch = 1024;
constexpr int kIntSize = 4;
// Room each binding value is decoded with; never more than the message holds.
constexpr int kValueRoom = 1028;
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

int parse_failed(int error) {
  trace("snmp_parse: parse error %d\n", error);
  return -1;
}

}  // namespace

namespace events::paths {

// Decodes the response step by step on the exported primitives, which
// report the first failure.  `community` holds one octet more than the
// record's array, for the envelope decoder's terminator.
int response_reporting(unsigned char *data, int length, snmp_info *response,
                       unsigned char *community, SnmpVarBindEMS *vars) {
  unsigned char *const end = data + std::max(length, 0);
  int32_t version;
  unsigned char *p = auth_parse(data, &length, community, &response->clen, &version);
  if (p == nullptr) return parse_failed(1);
  memcpy(response->community, community, static_cast<size_t>(response->clen));
  if (version != 0) trace("snmp_parse: Wrong version: %d...Continuing anyway\n", version);
  unsigned char type;
  if ((p = asnParseHeader09(p, &length, &type)) == nullptr) return parse_failed(2);
  response->command = type;
  if ((p = asnParseInt09(p, &length, &response->reqid, kIntSize)) == nullptr)
    return parse_failed(4);
  if ((p = asnParseInt09(p, &length, &response->errstat, kIntSize)) == nullptr)
    return parse_failed(5);
  if ((p = asnParseInt09(p, &length, &response->errindex, kIntSize)) == nullptr)
    return parse_failed(6);
  if ((p = asnParseHeader09(p, &length, &type)) == nullptr) return parse_failed(7);
  if (type != ASN_SEQUENCE) return parse_failed(8);
  int count = 0;
  // The count is raised in the loop test, so a response with more bindings
  // than the array holds ends with maxvars + 1: callers rely on that.
  while (length > 0 && count++ < response->maxvars) {
    SnmpVarBindEMS *binding = &vars[count - 1];
    int name_length = SNMP_OID_MAX;
    int value_length = 0;
    unsigned char *value = nullptr;
    p = parse_var_op(p, binding->oid, &name_length, &binding->type, &value_length, &value,
                     &length);
    if (p == nullptr) return parse_failed(80);
    binding->oid_length = static_cast<uint32_t>(name_length);
    binding->val_len = static_cast<uint32_t>(value_length);
    // A value that fails to decode leaves the binding kept but undecoded.
    const char *failure = decode_value(
        value, std::min<int>(kValueRoom, static_cast<int>(end - value)), binding, {false, true});
    if (failure == kInvalidType) trace("snmp_parse: bad type returned (%x)\n", binding->type);
    binding->undecoded = failure != nullptr;
  }
  response->vars = count;
  return 0;
}

// Decodes a well-formed version-0 response in one pass without reporting.
// Returns false, with the records possibly part-written, for anything
// else: a failure, or a case whose diagnostics the reporting path writes.
bool response_fast(const unsigned char *data, int length, snmp_info *response,
                   SnmpVarBindEMS *vars) {
  namespace ber = events::ber;
  ber::Message message;
  if (!ber::message(data, length, &message) || message.version != 0 ||
      static_cast<int64_t>(message.community_length) > response->clen)
    return false;
  memcpy(response->community, message.community, message.community_length);
  response->clen = static_cast<int32_t>(message.community_length);
  response->command = message.pdu_type;
  const unsigned char *const end = message.pdu_end;
  const unsigned char *p = message.pdu;
  unsigned char type;
  uint32_t n = 0;
  int32_t *const numbers[] = {&response->reqid, &response->errstat, &response->errindex};
  for (int32_t *number : numbers) {
    if ((p = ber::header(p + n, end, &type, &n)) == nullptr || !ber::integer(p, n, type, number))
      return false;
  }
  if ((p = ber::element(p + n, end, ASN_SEQUENCE, &n)) == nullptr) return false;
  // One binding more than the array holds is counted, not decoded.
  bool more;
  int count = ber::binding_list(p, p + n, vars, response->maxvars, false, &more,
                                [](const SnmpVarBindEMS &) { return false; });
  if (count < 0) return false;
  response->vars = count + more;
  return true;
}

}  // namespace events::paths

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

/// Decodes one response message.  The community is decoded through a
/// buffer one octet longer than the record's, which leaves room for the
/// envelope decoder's terminator even when clen is the full 128.
extern "C" EVENTS_EXPORT int snmp_parse(unsigned char *data, int length, snmp_info *response,
                                        SnmpVarBindEMS *vars) {
  response->clen = std::clamp(response->clen, 0, SNMP_COMMUNITY_MAX);
  const int32_t clen = response->clen;
  if (events::paths::response_fast(data, length, response, vars)) return 0;
  response->clen = clen;
  unsigned char community[SNMP_COMMUNITY_MAX + 1];
  return events::paths::response_reporting(data, length, response, community, vars);
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
