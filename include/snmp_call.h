/* Synchronous SNMP calls: a small blocking client for SNMPv1 get,
 * get-next and set.
 *
 * An application makes a call context with a time-out and a retry count,
 * aims it at an agent and a community, and issues single or array
 * requests.  Each call sends the request, waits for the response with the
 * same request-id, sends again after each time-out, and returns 0, the
 * agent's error-status (positive), or one of the library's codes below,
 * whose text snmpcall_error gives.  Between time-outs the socket is
 * connected to the agent and disconnected again in turn, so that an agent
 * port that refuses datagrams shows as SNMPCALL_RECV (-6) on a later wait.
 *
 * What answers a request: a decodable SNMPv1 GetResponse with the
 * request's request-id and community.  Any other datagram that decodes (a
 * stale answer, another PDU type, another community or version) is
 * skipped: the call waits again with the full time-out and sends nothing
 * more.  So that a stream of such datagrams cannot hold a call for ever,
 * each send waits at most twice the time-out in all; then it counts as
 * timed out.  A datagram that cannot be decoded at all ends the call with
 * SNMPCALL_PARSE, and so does an answer whose error-status SNMPv1 does not
 * define (outside 0 to 5) or that reports success with another number of
 * bindings than were asked for.
 *
 * Known limit: the sender's address is not compared, since multi-homed
 * agents answer from another address than the one asked; anyone who can
 * reach the socket and guess the request-id and community can answer.
 *
 * Waits block the calling thread; the module's socket address and error
 * text are process-wide, so calls are not thread-safe. */
#ifndef EVENTS_SNMP_CALL_H
#define EVENTS_SNMP_CALL_H

#include <stdint.h>

#include "events_export.h"
#include "snmp_clnt.h"

EVENTS_BEGIN_DECLS

/* The library's own results, carried in response.errstat as well. */
#define SNMPCALL_UNKNOWN -1    /* sending failed in another way */
#define SNMPCALL_SEND -2       /* the datagram could not be sent */
#define SNMPCALL_BUILD -3      /* the request could not be encoded */
#define SNMPCALL_TIMEOUT -4    /* every send timed out */
#define SNMPCALL_WAIT -5       /* waiting for the socket failed */
#define SNMPCALL_RECV -6       /* receiving failed */
#define SNMPCALL_PARSE -7      /* the response could not be decoded */
#define SNMPCALL_NOMEM -8      /* reserved for applications */
#define SNMPCALL_BAD_TYPE -9   /* reserved for applications */

/* Largest array chunk sent as one request. */
#define SNMPCALL_CHUNK 10

/* One call context, owned by the application. */
typedef struct {
  int32_t sd;            /* UDP socket */
  uint32_t addr;         /* agent IPv4 address, network order */
  snmp_info request;
  snmp_info response;    /* last response; errstat also holds the codes above */
  uint32_t retries;      /* sends per call */
  uint32_t timeout;      /* seconds to wait for each response */
  int32_t save_errno;    /* errno of the last system failure */
  int32_t is_connected;  /* 1 while the socket is connected to the agent */
} snmp_call_info;

EVENTS_STATIC_ASSERT(sizeof(snmp_call_info) == 336, "snmp_call_info layout");

/* Contexts.  init_snmp_call returns a new context with a random first
 * request-id, or NULL (with bit SNMP_TRACE_CALL the reason goes to
 * standard error).  close_snmp_call closes its socket and frees it; NULL
 * is ignored.  init_snmp_2request aims the context at `addr` (network
 * order) with comm_len octets of `community`, cut to 128, and dissolves any
 * connection; init_snmp_request takes a terminated community.  Both
 * return 0.  A community of 128 octets cannot be encoded: calls then fail
 * with SNMPCALL_BUILD. */
EVENTS_EXPORT snmp_call_info *init_snmp_call(int timeout, int retries);
EVENTS_EXPORT void close_snmp_call(snmp_call_info *sci);
EVENTS_EXPORT int init_snmp_2request(snmp_call_info *sci, uint32_t addr, const char *community,
                                     unsigned int comm_len);
EVENTS_EXPORT int init_snmp_request(snmp_call_info *sci, uint32_t addr, const char *community);

/* Requests.  getvar and getnextvar send one binding (its type set to
 * NULL) and decode one binding into *outvar.  The array calls send `size`
 * bindings in requests of at most SNMPCALL_CHUNK, each with its own
 * request-id, and stop at the first chunk that does not return 0, its
 * response.errindex then counting from the start of the whole array; get
 * and get-next set the input types to NULL, set sends them as given.
 * do_array_call does the same for any PDU type `reqtype`. */
EVENTS_EXPORT int getvar(snmp_call_info *sci, SnmpVarBindEMS *invar, SnmpVarBindEMS *outvar);
EVENTS_EXPORT int getnextvar(snmp_call_info *sci, SnmpVarBindEMS *invar, SnmpVarBindEMS *outvar);
EVENTS_EXPORT int getvar_array(snmp_call_info *sci, SnmpVarBindEMS *inarray,
                               SnmpVarBindEMS *outarray, int size);
EVENTS_EXPORT int getnextvar_array(snmp_call_info *sci, SnmpVarBindEMS *inarray,
                                   SnmpVarBindEMS *outarray, int size);
EVENTS_EXPORT int setvar_array(snmp_call_info *sci, SnmpVarBindEMS *inarray,
                               SnmpVarBindEMS *outarray, int size);
EVENTS_EXPORT int do_array_call(snmp_call_info *sci, SnmpVarBindEMS *inarray,
                                SnmpVarBindEMS *outarray, int size, int reqtype);

/* One exchange of numvars bindings with request.command, and its three
 * steps.  snmp_call_send sends (0 or a code); snmp_call_select waits up to
 * `timeout` seconds and returns 1 when the socket is readable, 0 after a
 * time-out (having connected or disconnected the socket), or a negative
 * value; snmp_call_recv takes one datagram and returns 1 for the response
 * to this request, 0 when nothing was there or the datagram does not
 * answer this request, or a negative value (a malformed answer included).
 * After 1, response.vars is numvars when errstat is 0. */
EVENTS_EXPORT int snmp_call(snmp_call_info *sci, SnmpVarBindEMS *req_vars,
                            SnmpVarBindEMS *rsp_vars, int numvars);
EVENTS_EXPORT int snmp_call_send(snmp_call_info *sci, SnmpVarBindEMS *req_vars, int numvars);
EVENTS_EXPORT int snmp_call_select(snmp_call_info *sci);
EVENTS_EXPORT int snmp_call_recv(snmp_call_info *sci, SnmpVarBindEMS *rsp_vars, int numvars);

/* The text of response.errstat, in a static buffer overwritten by the next
 * call. */
EVENTS_EXPORT char *snmpcall_error(snmp_call_info *sci);

EVENTS_END_DECLS

#endif
