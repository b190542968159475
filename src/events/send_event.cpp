// Sending: traps and already encoded messages written with the framing of
// the connection's transport, and platform events built as
// enterprise-specific traps of the platform's enterprise.

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "event.h"
#include "events/channel.h"
#include "events/jetstream.h"
#include "log_trace.h"

namespace {

constexpr uint16_t kTrapPort = 162;
constexpr int kEventBindings = 10;
constexpr uint32_t kEventNameLength = 13;
constexpr const char *kNoHost = "<none>";

// Sub-identifier before the final 0 of each event variable, in binding
// order: sourceId, hostName, trapDescr, trapData, dataBase, objectname,
// ipaddress, trapspecific, network address, network mask.
constexpr ObjectIdEMS kEventVariables[kEventBindings] = {2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
constexpr ObjectIdEMS kPlatformEnterprise[] = {1, 3, 6, 1, 4, 1, 49999, 6, 3, 1};

struct SendState {
  snmp_trap_infoEMS event_trap{};
  SnmpVarBindEMS event_vars[kEventBindings]{};
  trap_headerEMS header{};
  bool initialised = false;
  uint32_t my_address = 0;  // network order; 0 until a look-up succeeds
  timeval start_time{};     // of the process's first event
};

SendState state;

void initialise_event_trap() {
  if (state.initialised) return;
  snmp_trap_infoEMS &trap = state.event_trap;
  memcpy(trap.community, "kestrl", 6);
  trap.clen = 6;
  memcpy(trap.enterprise, kPlatformEnterprise, sizeof kPlatformEnterprise);
  trap.elen = sizeof kPlatformEnterprise / sizeof kPlatformEnterprise[0];
  trap.gen = 6;
  trap.vars = 5;
  trap.maxvars = 5;
  for (int i = 0; i < kEventBindings; ++i) {
    SnmpVarBindEMS &binding = state.event_vars[i];
    memcpy(binding.oid, kPlatformEnterprise, sizeof kPlatformEnterprise);
    binding.oid[10] = 1;
    binding.oid[11] = kEventVariables[i];
    binding.oid[12] = 0;
    binding.oid_length = kEventNameLength;
    binding.type = ASN_OCTET_STR;
  }
  state.event_vars[0].type = ASN_INTEGER;
  state.event_vars[0].val_len = 4;
  state.initialised = true;
}

uint32_t my_address() {
  if (state.my_address != 0) return state.my_address;
  char name[257] = {};
  if (gethostname(name, sizeof name - 1) != 0) return 0;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo *found = nullptr;
  if (getaddrinfo(name, nullptr, &hints, &found) != 0) return 0;
  state.my_address = reinterpret_cast<const sockaddr_in *>(found->ai_addr)->sin_addr.s_addr;
  freeaddrinfo(found);
  return state.my_address;
}

// Hundredths of a second since the first event of the process (which is
// stamped 0).
uint32_t event_time() {
  timeval now;
  gettimeofday(&now, nullptr);
  if (state.start_time.tv_sec == 0 && state.start_time.tv_usec == 0) state.start_time = now;
  long seconds = now.tv_sec - state.start_time.tv_sec;
  long micros = now.tv_usec - state.start_time.tv_usec;
  if (micros < 0) {
    --seconds;
    micros += 1000000;
  }
  return static_cast<uint32_t>(seconds * 100 + micros / 10000);
}

void set_text(SnmpVarBindEMS &binding, const char *text, size_t length) {
  binding.val_len = static_cast<uint32_t>(std::min<size_t>(length, SNMP_STRING_MAX));
  memcpy(binding.val.string, text, binding.val_len);
}

void set_text(SnmpVarBindEMS &binding, const char *text) {
  if (text == nullptr) text = "";
  set_text(binding, text, strnlen(text, SNMP_STRING_MAX));
}

// The first word of `host`, or "<none>" when there is none.
void set_host(SnmpVarBindEMS &binding, const char *host) {
  if (host != nullptr) {
    while (isspace(static_cast<unsigned char>(*host))) ++host;
    size_t length = 0;
    while (host[length] != '\0' && !isspace(static_cast<unsigned char>(host[length]))) ++length;
    if (length > 0) return set_text(binding, host, length);
  }
  set_text(binding, kNoHost);
}

// Writes every octet of the iovecs, continuing after partial writes and
// signals.  Returns 0 or the failing result.
int send_all(int sd, iovec *parts, int count, const sockaddr_in *to) {
  msghdr message{};
  if (to != nullptr) {
    message.msg_name = const_cast<sockaddr_in *>(to);
    message.msg_namelen = sizeof *to;
  }
  message.msg_iov = parts;
  message.msg_iovlen = static_cast<size_t>(count);
  while (message.msg_iovlen > 0) {
    ssize_t sent = sendmsg(sd, &message, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) return static_cast<int>(sent);
    auto left = static_cast<size_t>(sent);
    while (message.msg_iovlen > 0 && left >= message.msg_iov->iov_len) {
      left -= message.msg_iov->iov_len;
      ++message.msg_iov;
      --message.msg_iovlen;
    }
    if (message.msg_iovlen > 0) {
      message.msg_iov->iov_base = static_cast<char *>(message.msg_iov->iov_base) + left;
      message.msg_iov->iov_len -= left;
    }
  }
  return 0;
}

// Writes one encoded message with the framing of ei->trans.
int write_message(event_infoEMS *ei, const unsigned char *message, int length) {
  iovec parts[2];
  parts[1] = {const_cast<unsigned char *>(message), static_cast<size_t>(length)};
  switch (ei->trans) {
    case EVENT_TRANS_UDP: {
      sockaddr_in to{};
      to.sin_family = AF_INET;
      to.sin_addr.s_addr = ei->manager;
      to.sin_port = htons(kTrapPort);
      return send_all(ei->sd, &parts[1], 1, &to);
    }
    case EVENT_TRANS_UNIX:
    case EVENT_TRANS_TCP:
    case EVENT_TRANS_JETSTREAM: {
      trap_headerEMS &header = state.header;
      header.len = length;
      header.src = ei->source;
      header.pid = getpid();
      header.status = ei->status;
      header.target = ei->target;
      if (ei->trans == EVENT_TRANS_JETSTREAM)
        return events::jetstream::publish(ei->sd, header, message, length);
      parts[0] = {&header, sizeof header};
      CHANNEL_LOG("calling send() SNMP packet from send_trap().\n");
      return send_all(ei->sd, parts, 2, nullptr);
    }
    case EVENT_TRANS_TCP_RAW:
      return send_all(ei->sd, &parts[1], 1, nullptr);
    default:
      return 0;
  }
}

int send_message(event_infoEMS *ei, const unsigned char *message, int length) {
  if (dump_packetEMS) sigblockhexdump(message, length);
  return write_message(ei, message, length);
}

// Fills the event trap and its first `vars` bindings; `extra` holds the
// texts of bindings 5 onwards.
void fill_event(const event_infoEMS *ei, int event, const char *host, const char *descr,
                const char *data, const char *db, const char *const *extra, int vars) {
  initialise_event_trap();
  snmp_trap_infoEMS &trap = state.event_trap;
  trap.agent = ntohl(my_address());
  trap.time = event_time();
  trap.specific = static_cast<uint32_t>(event);
  trap.vars = vars;
  trap.status = ei->status;
  trap.target = ei->target;

  SnmpVarBindEMS *bindings = state.event_vars;
  bindings[0].val.integer = static_cast<int32_t>(ei->source);
  set_host(bindings[1], host);
  set_text(bindings[2], descr);
  set_text(bindings[3], data);
  set_text(bindings[4], db);
  for (int i = 5; i < vars; ++i) set_text(bindings[i], extra[i - 5]);
}

// A binding's text for the platform log, zero-terminated.
struct LoggedText {
  explicit LoggedText(int index) {
    const SnmpVarBindEMS &binding = state.event_vars[index];
    memcpy(text, binding.val.string, binding.val_len);
    text[binding.val_len] = '\0';
  }
  char text[SNMP_STRING_MAX + 1];
};

// Logs the bindings and sends the filled event trap (the two wider
// variants share their log texts).
int send_filled_event(event_infoEMS *ei) {
  if (state.event_trap.vars == 5) {
    CHANNEL_LOG("Values of vars[0] %d vars[1] %s vars[2] %s vars [3] %s vars[4] %s .\n",
                state.event_vars[0].val.integer, LoggedText(1).text, LoggedText(2).text,
                LoggedText(3).text, LoggedText(4).text);
    CHANNEL_LOG("call send_trap from send_event().\n");
  } else {
    CHANNEL_LOG("Values of vars[0] %d vars[1] %s vars[2] %s vars [3] %s vars[4] %s vars [5] %s.\n",
                state.event_vars[0].val.integer, LoggedText(1).text, LoggedText(2).text,
                LoggedText(3).text, LoggedText(4).text, LoggedText(5).text);
    CHANNEL_LOG("call send_trap from send_event_ex().\n");
  }
  return send_trap(ei, &state.event_trap, state.event_vars);
}

}  // namespace

extern "C" EVENTS_EXPORT int send_trap(event_infoEMS *ei, snmp_trap_infoEMS *sti,
                                       EMSsnmpVarBind *vars) {
  CHANNEL_LOG("Beginning of  send_trap().\n");
  if (ei == nullptr || sti == nullptr) return -1;
  unsigned char message[EVENT_MAX_MESSAGE];
  int length = sizeof message;
  if (snmpBuildTrapEMS(message, &length, sti, ei, vars) != 0) return -1;
  int result = send_message(ei, message, length);
  CHANNEL_LOG("send_trap() completed.\n");
  return result;
}

extern "C" EVENTS_EXPORT int send_hex_buffer(event_infoEMS *ei, const unsigned char *bufp,
                                             int buflen) {
  if (ei == nullptr || bufp == nullptr || buflen < 0) return -1;
  return send_message(ei, bufp, buflen);
}

extern "C" EVENTS_EXPORT int send_event(event_infoEMS *ei, int event, const char *host,
                                        const char *descr, const char *data, const char *db) {
  CHANNEL_LOG("Beginning of send_event()\n");
  if (ei == nullptr || descr == nullptr) return -1;
  fill_event(ei, event, host, descr, data, db, nullptr, 5);
  return send_filled_event(ei);
}

extern "C" EVENTS_EXPORT int send_event_ex(event_infoEMS *ei, int event, const char *host,
                                           const char *descr, const char *data, const char *db,
                                           const char *selname, const char *ipaddress,
                                           const char *trapspecific) {
  CHANNEL_LOG("Beginning of send_event_ex()\n");
  if (ei == nullptr || descr == nullptr) return -1;
  const char *extra[] = {selname, ipaddress, trapspecific};
  fill_event(ei, event, host, descr, data, db, extra, 8);
  return send_filled_event(ei);
}

extern "C" EVENTS_EXPORT int send_event_ex_ex(event_infoEMS *ei, int event, const char *host,
                                              const char *descr, const char *data, const char *db,
                                              const char *selname, const char *ipaddress,
                                              const char *trapspecific, const char *networkAddr,
                                              const char *networkMask) {
  CHANNEL_LOG("Beginning of send_event_ex()\n");
  if (ei == nullptr || descr == nullptr) return -1;
  const char *extra[] = {selname, ipaddress, trapspecific, networkAddr, networkMask};
  fill_event(ei, event, host, descr, data, db, extra, 10);
  return send_filled_event(ei);
}
