/* SNMPv1 request PDUs: get, get-next and set requests encoded from a
 * snmp_info record and an array of SnmpVarBindEMS, responses decoded back
 * into the same two records, a one-shot exchange over an open UDP socket,
 * and the datagram transport that the synchronous call layer (snmp_call.h)
 * sends and receives with.
 *
 * Failures are reported by the result; texts go to standard error only
 * with bit SNMP_TRACE_REQUEST of snmptracemaskEMS.  Nothing allocates. */
#ifndef EVENTS_SNMP_CLNT_H
#define EVENTS_SNMP_CLNT_H

#include <netinet/in.h>
#include <stdint.h>

#include "events_export.h"
#include "snmp.h"

EVENTS_BEGIN_DECLS

/* PDU type octets. */
typedef enum {
  SNMP_GET_REQ = 0xA0,
  SNMP_GET_NEXT_REQ = 0xA1,
  SNMP_GET_RSP = 0xA2,
  SNMP_SET_REQ = 0xA3,
  SNMP_TRAP = 0xA4
} s_msg_type;

/* One request or response PDU.  The community is not terminated, and a
 * decoded one leaves the octets past clen unspecified. */
typedef struct {
  unsigned char community[SNMP_COMMUNITY_MAX];
  int32_t clen;          /* octets used in community */
  unsigned char command; /* an s_msg_type */
  int32_t reqid;
  int32_t errstat;
  int32_t errindex;
  int32_t vars;    /* bindings to encode, or bindings decoded */
  int32_t maxvars; /* response: capacity of the binding array */
} snmp_info;

EVENTS_STATIC_ASSERT(sizeof(snmp_info) == 156, "snmp_info layout");

/* Encoding and decoding.
 * snmpBuild09 encodes `request` and its first request->vars bindings as an
 * SNMPv1 message (version 0).  On input *out_length is the room at
 * out_data; returns 0 with *out_length set to the message length, or -2
 * (out_data then holds scratch).  Each layer must also fit 1,024 octets;
 * a community must be under 128 octets.
 * snmp_parse decodes the message data[0..length) into `response` and
 * `vars`.  REQUIRES: response->maxvars is the capacity of `vars` and
 * response->clen the community capacity (at most 128 is used).  Returns 0
 * or -1.  A response with more bindings than maxvars decodes maxvars of
 * them and leaves response->vars at maxvars + 1: callers clamp it.  A
 * binding of a type it does not decode (Opaque among them), or whose value
 * fails to decode, is counted and kept undecoded: its type stays,
 * `undecoded` is 1 and val_len 0 (snmp.h).  Decoded values are INTEGER,
 * IpAddress, Counter, Gauge, TimeTicks, OCTET STRING, NULL and OBJECT
 * IDENTIFIER.  Not declared beside net-snmp, which exports a snmp_parse of
 * its own. */
EVENTS_EXPORT int snmpBuild09(unsigned char *out_data, int *out_length, snmp_info *request,
                              SnmpVarBindEMS *vars);
#ifndef EVENTS_BESIDE_NETSNMP
EVENTS_EXPORT int snmp_parse(unsigned char *data, int length, snmp_info *response,
                             SnmpVarBindEMS *vars);
#endif

/* One exchange on the open UDP socket `sd`: sends `request` to `address`,
 * waits up to five seconds for one datagram and decodes it.  Returns 1
 * when it is the response to this request (same request-id and community,
 * a GetResponse), 0 when nothing came, -1 for any failure, a foreign
 * datagram included (it is not waited past).
 * REQUIRES: response->maxvars and response->clen as for snmp_parse. */
EVENTS_EXPORT int send_request(int sd, struct sockaddr_in address, snmp_info *request,
                               snmp_info *response, SnmpVarBindEMS *req_vars,
                               SnmpVarBindEMS *rsp_vars);

/* Datagram transport for requests.
 * init_async_snmp opens a non-blocking UDP socket; returns it, or -1 with
 * errno set.  send_snmp encodes `request` with request->vars bindings and
 * sends it to `addr` (IPv4, network order) on the SNMP port, or to the
 * connected peer when addr is 0; returns the octets sent, -2 when the
 * message cannot be built, -1 with errno set when sending failed.
 * recv_snmp takes one datagram without waiting, stores the sender in
 * *fromnode and decodes it into `response` and `vars` (capacities as for
 * snmp_parse); returns its length, -1 with errno set when receiving failed
 * (EAGAIN: nothing there), -2 when it cannot be decoded, or
 * SNMP_RECV_NOT_V1 when it decodes but its version is not SNMPv1's 0
 * (snmp_parse accepts any version).
 * getSnmpPort gives the agent port in network order: KZ_SNMP_PORT, else
 * the service snmp/udp, else 161.  errstring names an SNMPv1 or SNMPv2
 * error-status ("noError", "tooBig", ..., "authorizationError"), or
 * "unknown error"; the text is static. */
#define SNMP_RECV_NOT_V1 (-3)
EVENTS_EXPORT int init_async_snmp(void);
EVENTS_EXPORT int send_snmp(int sd, uint32_t addr, snmp_info *request, SnmpVarBindEMS *vars);
EVENTS_EXPORT int recv_snmp(int sd, struct sockaddr_in *fromnode, snmp_info *response,
                            SnmpVarBindEMS *vars);
EVENTS_EXPORT uint16_t getSnmpPort(void);
EVENTS_EXPORT const char *errstring(int errstat);

EVENTS_END_DECLS

#endif
