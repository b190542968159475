// Platform SNMP transport: requests and responses as UDP datagrams on a
// non-blocking socket, encoded and decoded by the library's request codec.

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "snmp_clnt.h"

namespace {

// Largest request the transport builds; the request codec's own layers
// are bounded by 1,024 octets as well.
constexpr int kRequestMax = 1024;

struct Transport {
  // One whole datagram, so a long response is never cut short.
  unsigned char datagram[65536];
};

Transport transport;

}  // namespace

extern "C" EVENTS_EXPORT int init_async_snmp(void) {
  return socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

extern "C" EVENTS_EXPORT uint16_t getSnmpPort(void) {
  if (const char *text = getenv("KZ_SNMP_PORT")) {
    char *end = nullptr;
    errno = 0;
    long port = strtol(text, &end, 10);
    if (errno == 0 && end != text && *end == '\0' && port > 0 && port <= 65535)
      return htons(static_cast<uint16_t>(port));
  }
  if (const servent *service = getservbyname("snmp", "udp"))
    return static_cast<uint16_t>(service->s_port);
  return htons(161);
}

extern "C" EVENTS_EXPORT int send_snmp(int sd, uint32_t addr, snmp_info *request,
                                       SnmpVarBindEMS *vars) {
  unsigned char packet[kRequestMax];
  int length = sizeof packet;
  if (snmpBuild09(packet, &length, request, vars) != 0) return -2;
  ssize_t sent;
  if (addr == 0) {
    sent = send(sd, packet, static_cast<size_t>(length), 0);
  } else {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = getSnmpPort();
    to.sin_addr.s_addr = addr;
    sent = sendto(sd, packet, static_cast<size_t>(length), 0, reinterpret_cast<sockaddr *>(&to),
                  sizeof to);
  }
  return sent < 0 ? -1 : static_cast<int>(sent);
}

extern "C" EVENTS_EXPORT int recv_snmp(int sd, struct sockaddr_in *fromnode, snmp_info *response,
                                       SnmpVarBindEMS *vars) {
  socklen_t from_length = sizeof *fromnode;
  ssize_t received = recvfrom(sd, transport.datagram, sizeof transport.datagram, MSG_DONTWAIT,
                              reinterpret_cast<sockaddr *>(fromnode), &from_length);
  if (received < 0) return -1;
  if (snmp_parse(transport.datagram, static_cast<int>(received), response, vars) != 0) return -2;
  // The decoder reads any version; the envelope, read again, says which.
  unsigned char community[SNMP_COMMUNITY_MAX + 1];
  int community_length = SNMP_COMMUNITY_MAX, length = static_cast<int>(received);
  int32_t version = -1;
  auth_parse(transport.datagram, &length, community, &community_length, &version);
  return version == 0 ? static_cast<int>(received) : SNMP_RECV_NOT_V1;
}

extern "C" EVENTS_EXPORT const char *errstring(int errstat) {
  // SNMPv1's, then those SNMPv2 added, which SNMPv3 agents answer with.
  static const char *const kNames[] = {
      "noError", "tooBig", "noSuchName", "badValue", "readOnly", "genErr",
      "noAccess", "wrongType", "wrongLength", "wrongEncoding", "wrongValue", "noCreation",
      "inconsistentValue", "resourceUnavailable", "commitFailed", "undoFailed",
      "authorizationError", "notWritable", "inconsistentName"};
  if (errstat >= 0 && errstat < static_cast<int>(sizeof kNames / sizeof kNames[0]))
    return kNames[errstat];
  return "unknown error";
}
