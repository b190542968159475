// Synchronous SNMP calls: request-id, retries and time-outs, the
// connect/disconnect alternation, array chunks and the error texts.

#include "snmp_call.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "events_msg.h"
#include "log_trace.h"

namespace {

struct CallState {
  // The agent's address; its port is set by init_snmp_call, its address
  // from the context before each wait.
  sockaddr_in agent{};
  // Connecting to an AF_UNSPEC address dissolves a datagram connection.
  sockaddr unspecified{};
  char error_text[512];
};

CallState state;

__attribute__((format(printf, 1, 2))) void trace(const char *fmt, ...) {
  if (!(snmptracemaskEMS & SNMP_TRACE_CALL)) return;
  va_list args;
  va_start(args, fmt);
  vfprintf(stderr, fmt, args);
  va_end(args);
}

void disconnect(snmp_call_info *sci) {
  state.unspecified.sa_family = AF_UNSPEC;
  connect(sci->sd, &state.unspecified, sizeof state.unspecified);
  sci->is_connected = 0;
}

using Clock = std::chrono::steady_clock;

// Each send waits at most this many time-outs in all, however many
// datagrams that do not answer it arrive in the meantime.
constexpr int kTimeoutsPerSend = 2;
// The largest error-status SNMPv1 defines, genErr.
constexpr int32_t kLastErrorStatus = 5;

// Waits until the socket is readable (1) or `deadline` passes; then
// connects or disconnects the socket and returns 0, or the connect
// failure.  A failing wait stores SNMPCALL_WAIT and returns its result.
int wait_until(snmp_call_info *sci, Clock::time_point deadline) {
  state.agent.sin_addr.s_addr = sci->addr;
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd wait = {sci->sd, POLLIN, 0};
    int ready = poll(&wait, 1, static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT_MAX)));
    if (ready == 0) {
      trace("snmp_call(): select timed out -- ");
      if (sci->is_connected) {
        trace("disconnecting\n");
        disconnect(sci);
        return 0;
      }
      trace("connecting..");
      int result = connect(sci->sd, reinterpret_cast<sockaddr *>(&state.agent), sizeof state.agent);
      if (result == 0) sci->is_connected = 1;
      trace("returned %d\n", result);
      return result;
    }
    // A descriptor that is not open fails the wait, as select does.
    if (ready == 1 && !(wait.revents & POLLNVAL)) return 1;
    if (ready == 1) errno = EBADF;
    else if (errno == EINTR) continue;
    sci->response.errstat = SNMPCALL_WAIT;
    sci->save_errno = errno;
    trace("snmp_call(): Select returned error: %s\n", strerror(sci->save_errno));
    if (sci->is_connected) disconnect(sci);
    return ready;
  }
}

// Whether the decoded datagram answers the request: a GetResponse with its
// request-id and community.  The sender's address is not compared.
bool answers_request(const snmp_call_info *sci) {
  const snmp_info &request = sci->request, &response = sci->response;
  if (response.reqid != request.reqid) {
    trace("snmp_call(): req_id's don't match\n");
    return false;
  }
  if (response.command != SNMP_GET_RSP || response.clen != request.clen ||
      memcmp(response.community, request.community, static_cast<size_t>(request.clen)) != 0) {
    trace("snmp_call(): not a GetResponse with the request's community\n");
    return false;
  }
  return true;
}

// An answer with an error-status SNMPv1 does not define, or a successful
// one whose bindings do not pair one to one with the request's, cannot be
// trusted: it is refused as undecodable.
bool well_formed(snmp_call_info *sci, int numvars) {
  const snmp_info &response = sci->response;
  if (response.errstat >= 0 && response.errstat <= kLastErrorStatus &&
      (response.errstat != 0 || response.vars == numvars))
    return true;
  trace("snmp_call(): malformed response: error-status %d with %d bindings for %d\n",
        response.errstat, response.vars, numvars);
  sci->response.errstat = SNMPCALL_PARSE;
  return false;
}

}  // namespace

extern "C" EVENTS_EXPORT snmp_call_info *init_snmp_call(int timeout, int retries) {
  auto *sci = static_cast<snmp_call_info *>(calloc(1, sizeof(snmp_call_info)));
  if (sci == nullptr) {
    trace("ERROR: init_snmp_call(): Out of memory.\n");
    return nullptr;
  }
  sci->request.vars = 1;
  sci->request.maxvars = 20;
  timeval now;
  gettimeofday(&now, nullptr);
  srand(static_cast<unsigned>(now.tv_usec ^ now.tv_sec));
  sci->request.reqid = rand();
  sci->timeout = static_cast<uint32_t>(timeout);
  sci->retries = static_cast<uint32_t>(retries);
  state.agent.sin_family = AF_INET;
  state.agent.sin_port = getSnmpPort();
  sci->sd = init_async_snmp();
  if (sci->sd < 0) {
    trace("ERROR: init_snmp_call(): Could not open socket: %s.\n", strerror(errno));
    free(sci);
    return nullptr;
  }
  return sci;
}

extern "C" EVENTS_EXPORT void close_snmp_call(snmp_call_info *sci) {
  if (sci == nullptr) return;
  close(sci->sd);
  free(sci);
}

extern "C" EVENTS_EXPORT int init_snmp_2request(snmp_call_info *sci, uint32_t addr,
                                                const char *community, unsigned int comm_len) {
  sci->addr = addr;
  unsigned int length = std::min<unsigned int>(comm_len, SNMP_COMMUNITY_MAX);
  if (length > 0) memcpy(sci->request.community, community, length);
  sci->request.clen = static_cast<int32_t>(length);
  disconnect(sci);
  return 0;
}

extern "C" EVENTS_EXPORT int init_snmp_request(snmp_call_info *sci, uint32_t addr,
                                               const char *community) {
  return init_snmp_2request(sci, addr, community, static_cast<unsigned int>(strlen(community)));
}

extern "C" EVENTS_EXPORT char *snmpcall_error(snmp_call_info *sci) {
  char *text = state.error_text;
  const size_t room = sizeof state.error_text;
  switch (sci->response.errstat) {
    case SNMPCALL_UNKNOWN:
      snprintf(text, room, "Unknown SNMP ERROR:  %s.", strerror(sci->save_errno));
      break;
    case SNMPCALL_SEND:
      snprintf(text, room, "Could not send SNMP packet:  %s.", strerror(sci->save_errno));
      break;
    case SNMPCALL_BUILD:
      snprintf(text, room, "Internal error building SNMP packet.");
      break;
    case SNMPCALL_TIMEOUT:
      snprintf(text, room, "TIMED OUT: No SNMP response.");
      break;
    case SNMPCALL_WAIT:
      snprintf(text, room, "Internal error in select():  %s.", strerror(sci->save_errno));
      break;
    case SNMPCALL_RECV:
      if (sci->save_errno == ECONNREFUSED)
        snprintf(text, room, "%s",
                 _eventsMsg(1, 1, const_cast<char *>("Remote does not support SNMP.")));
      else
        snprintf(text, room, "Error on SNMP recvfrom():  %s.", strerror(sci->save_errno));
      break;
    case SNMPCALL_PARSE:
      snprintf(text, room, "Could not parse incoming SNMP packet.");
      break;
    case SNMPCALL_NOMEM:
      snprintf(text, room, "Out of memory.");
      break;
    case SNMPCALL_BAD_TYPE:
      snprintf(text, room, "Internal Error: Invalid data type for set.");
      break;
    default:
      snprintf(text, room, "SNMP Error:  %s", errstring(sci->response.errstat));
  }
  return text;
}

extern "C" EVENTS_EXPORT int snmp_call_send(snmp_call_info *sci, SnmpVarBindEMS *req_vars,
                                            int numvars) {
  sci->request.vars = numvars;
  int sent = send_snmp(sci->sd, sci->is_connected ? 0 : sci->addr, &sci->request, req_vars);
  if (sent >= 0) return 0;
  if (sent == -2) {
    sci->response.errstat = SNMPCALL_BUILD;
  } else if (sent == -1) {
    sci->response.errstat = SNMPCALL_SEND;
    sci->save_errno = errno;
  } else {
    sci->response.errstat = SNMPCALL_UNKNOWN;
  }
  int saved_errno = errno;
  trace("snmp_call(): send_snmp returned error: %s\n", snmpcall_error(sci));
  if (sci->is_connected) disconnect(sci);
  errno = saved_errno;
  return sci->response.errstat;
}

/// Waits with poll for the time-out given once per call, so a wait that
/// is interrupted or wakes for nothing continues with the time left.
extern "C" EVENTS_EXPORT int snmp_call_select(snmp_call_info *sci) {
  return wait_until(sci, Clock::now() + std::chrono::seconds(sci->timeout));
}

extern "C" EVENTS_EXPORT int snmp_call_recv(snmp_call_info *sci, SnmpVarBindEMS *rsp_vars,
                                            int numvars) {
  sci->response.maxvars = numvars;
  sci->response.clen = SNMP_COMMUNITY_MAX;
  sci->response.errstat = 0;
  sockaddr_in from{};
  int received = recv_snmp(sci->sd, &from, &sci->response, rsp_vars);
  if (received == -1) {
    sci->response.errstat = SNMPCALL_RECV;
    sci->save_errno = errno;
    trace("snmp_call(): recv_snmp returned error: %s\n", snmpcall_error(sci));
    if (sci->save_errno == EAGAIN) return 0;
    if (sci->is_connected) disconnect(sci);
    return -1;
  }
  if (received == SNMP_RECV_NOT_V1) {
    trace("snmp_call(): not an SNMPv1 message\n");
    return 0;
  }
  if (received < 0) {
    sci->response.errstat = SNMPCALL_PARSE;
    trace("snmp_call(): recv_snmp returned error: %s\n", snmpcall_error(sci));
    return received;
  }
  if (!answers_request(sci)) return 0;
  return well_formed(sci, numvars) ? 1 : -1;
}

extern "C" EVENTS_EXPORT int snmp_call(snmp_call_info *sci, SnmpVarBindEMS *req_vars,
                                       SnmpVarBindEMS *rsp_vars, int numvars) {
  int64_t retry = sci->retries;
  // Resends keep the request-id; only a new call takes a new one.
  ++sci->request.reqid;
  while (--retry >= 0) {
    int sent = snmp_call_send(sci, req_vars, numvars);
    if (sent != 0 && !(sent == SNMPCALL_SEND && errno == EAGAIN)) return sci->response.errstat;
    // Wait until a time-out sends again.  A datagram that does not answer
    // only waits again, with the full time-out, but never past the send's
    // own deadline: a stream of them cannot hold the call.
    const Clock::time_point send_deadline =
        Clock::now() + kTimeoutsPerSend * std::chrono::seconds(sci->timeout);
    for (;;) {
      int ready =
          wait_until(sci, std::min(Clock::now() + std::chrono::seconds(sci->timeout), send_deadline));
      if (ready == 0) break;
      if (ready != 1 || snmp_call_recv(sci, rsp_vars, numvars) != 0) return sci->response.errstat;
    }
  }
  sci->response.errstat = SNMPCALL_TIMEOUT;
  return sci->response.errstat;
}

extern "C" EVENTS_EXPORT int getvar(snmp_call_info *sci, SnmpVarBindEMS *invar,
                                    SnmpVarBindEMS *outvar) {
  invar->type = ASN_NULL;
  sci->request.command = SNMP_GET_REQ;
  return snmp_call(sci, invar, outvar, 1);
}

extern "C" EVENTS_EXPORT int getnextvar(snmp_call_info *sci, SnmpVarBindEMS *invar,
                                        SnmpVarBindEMS *outvar) {
  invar->type = ASN_NULL;
  sci->request.command = SNMP_GET_NEXT_REQ;
  return snmp_call(sci, invar, outvar, 1);
}

extern "C" EVENTS_EXPORT int do_array_call(snmp_call_info *sci, SnmpVarBindEMS *inarray,
                                           SnmpVarBindEMS *outarray, int size, int reqtype) {
  sci->request.command = static_cast<unsigned char>(reqtype);
  int result = 0;
  int sent = 0;  // bindings of the chunks before this one
  while (size > 0) {
    int n = std::min(size, SNMPCALL_CHUNK);
    if (reqtype != SNMP_SET_REQ)
      for (int i = 0; i < n; ++i) inarray[i].type = ASN_NULL;
    result = snmp_call(sci, inarray, outarray, n);
    if (result != 0) {
      // The agent counts within its chunk; the caller counts in the array.
      if (result > 0 && sci->response.errindex > 0) sci->response.errindex += sent;
      return result;
    }
    sent += n;
    inarray += n;
    outarray += n;
    size -= n;
  }
  return result;
}

extern "C" EVENTS_EXPORT int getvar_array(snmp_call_info *sci, SnmpVarBindEMS *inarray,
                                          SnmpVarBindEMS *outarray, int size) {
  return do_array_call(sci, inarray, outarray, size, SNMP_GET_REQ);
}

extern "C" EVENTS_EXPORT int getnextvar_array(snmp_call_info *sci, SnmpVarBindEMS *inarray,
                                              SnmpVarBindEMS *outarray, int size) {
  return do_array_call(sci, inarray, outarray, size, SNMP_GET_NEXT_REQ);
}

extern "C" EVENTS_EXPORT int setvar_array(snmp_call_info *sci, SnmpVarBindEMS *inarray,
                                          SnmpVarBindEMS *outarray, int size) {
  return do_array_call(sci, inarray, outarray, size, SNMP_SET_REQ);
}
