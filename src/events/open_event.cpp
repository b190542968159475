// Event connection: opens a socket to hubd by one of the transports,
// announces the application with the connected event and says goodbye
// with the disconnecting event on closing.

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "event.h"
#include "events/channel.h"
#include "events/jetstream.h"
#include "kz_platform.h"

namespace {

constexpr int kSocketBuffer = 65536;
constexpr uint16_t kFallbackTrapPort = 162;

// Display names of the source numbers that have one; every other number
// is a related application.
constexpr const char *kRelatedApplication = "Related Application";
constexpr struct {
  unsigned source;
  const char *name;
} kApplicationNames[] = {
    {2, "Event Viewer"},      {3, "Topology Manager"},     {6, "Configuration Tool"},
    {8, "Trap Configurator"}, {9, "Alert Manager"},        {10, "Status Poller"},
    {11, "Data Gatherer"},    {12, "Report Generator"},    {13, "Command Line"},
    {15, "Discovery Daemon"}, {16, "Performance Monitor"}, {17, "Status Monitor"},
    {18, "Security Manager"}, {21, "Backup Manager"},      {23, "Vendor Application"},
    {24, "Remote Daemon"},    {26, "Web Console"},         {27, "Scheduler"},
};

// The first IPv4 address of a host name or dotted address, network order.
bool resolve(const char *host, in_addr *address) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo *found = nullptr;
  if (host == nullptr || getaddrinfo(host, nullptr, &hints, &found) != 0) return false;
  *address = reinterpret_cast<const sockaddr_in *>(found->ai_addr)->sin_addr;
  freeaddrinfo(found);
  return true;
}

// A TCP port by service name, host order; 0 if unknown.
uint16_t service_port(const char *service) {
  const servent *entry = getservbyname(service, "tcp");
  return entry != nullptr ? ntohs(static_cast<uint16_t>(entry->s_port)) : 0;
}

// Connects `sd` or closes it.  Returns sd, or -1.
int connect_or_close(int sd, const sockaddr *address, socklen_t size) {
  if (connect(sd, address, size) == 0) return sd;
  close(sd);
  return -1;
}

int connect_tcp(in_addr host, uint16_t port) {
  int sd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (sd < 0) return -1;
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr = host;
  to.sin_port = htons(port);
  return connect_or_close(sd, reinterpret_cast<sockaddr *>(&to), sizeof to);
}

int open_udp(const char *host, event_infoEMS *ei) {
  in_addr manager;
  if (!resolve(host, &manager)) return -1;
  ei->manager = manager.s_addr;
  int sd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (sd < 0) return -1;
  sockaddr_in local{};
  local.sin_family = AF_INET;
  if (bind(sd, reinterpret_cast<sockaddr *>(&local), sizeof local) == 0) return sd;
  close(sd);
  return -1;
}

int open_unix(const char *path) {
  struct stat info;
  if (path == nullptr || stat(path, &info) != 0) return -1;
  sockaddr_un to{};
  if (strlen(path) >= sizeof to.sun_path) return -1;
  to.sun_family = AF_UNIX;
  strcpy(to.sun_path, path);
  int sd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (sd < 0) return -1;
  return connect_or_close(sd, reinterpret_cast<sockaddr *>(&to), sizeof to);
}

int open_tcp_client(const char *host) {
  in_addr address;
  if (!resolve(host, &address)) return -1;
  uint16_t port = service_port("zxhubd-client");
  if (port == 0) return -1;
  return connect_tcp(address, port);
}

// "host", or "host+text/port", or "host+text/service": the text between
// '+' and '/' is not used.  Without a port the trap service is used, or
// port 162 if that is not registered.
int open_tcp_raw(const char *name) {
  if (name == nullptr) return -1;
  std::string host = name;
  uint16_t port = 0;
  size_t plus = host.find('+');
  if (plus != std::string::npos) {
    std::string rest = host.substr(plus + 1);
    host.resize(plus);
    size_t slash = rest.find('/');
    if (slash != std::string::npos) {
      const char *after = rest.c_str() + slash + 1;
      if (isdigit(static_cast<unsigned char>(*after)))
        port = static_cast<uint16_t>(atoi(after));
      else
        port = service_port(after);
    }
  }
  in_addr address;
  if (!resolve(host.c_str(), &address)) return -1;
  if (port == 0) port = service_port("zxhubd-trap");
  if (port == 0) port = kFallbackTrapPort;
  return connect_tcp(address, port);
}

}  // namespace

extern "C" EVENTS_EXPORT const char *getApplName(int source) {
  unsigned number = static_cast<unsigned>(source) & 0xFFFFu;
  for (const auto &application : kApplicationNames)
    if (application.source == number) return application.name;
  return kRelatedApplication;
}

extern "C" EVENTS_EXPORT int set_sock_buf_size_if_larger(int sd, int buf_type, int new_size) {
  int current = 0;
  socklen_t size = sizeof current;
  if (getsockopt(sd, SOL_SOCKET, buf_type, &current, &size) == 0 && current < new_size)
    setsockopt(sd, SOL_SOCKET, buf_type, &new_size, sizeof new_size);
  return 0;
}

extern "C" EVENTS_EXPORT int open_event(event_infoEMS *ei, int source, const char *name,
                                        int trans) {
  CHANNEL_LOG("Beginning of open_event() call.\n");
  if (ei == nullptr || source < EVENT_SOURCE_FIRST || source > EVENT_SOURCE_LAST) return -1;

  int sd;
  switch (trans) {
    case EVENT_TRANS_UDP:
      sd = open_udp(name, ei);
      break;
    case EVENT_TRANS_UNIX:
      sd = open_unix(name);
      break;
    case EVENT_TRANS_TCP:
      sd = open_tcp_client(name);
      break;
    case EVENT_TRANS_TCP_RAW:
      sd = open_tcp_raw(name);
      break;
    case EVENT_TRANS_JETSTREAM:
      sd = events::jetstream::open(name);
      break;
    case EVENT_TRANS_DEFAULT: {
      if (!_ZXisClient()) return open_event(ei, source, KZhubdSocketPath(), EVENT_TRANS_UNIX);
      char *server = _KZDefaultServerName();
      int result = open_event(ei, source, server, EVENT_TRANS_TCP);
      free(server);
      return result;
    }
    default:
      return -1;
  }
  if (sd < 0) return -1;

  if (trans != EVENT_TRANS_JETSTREAM) {
    set_sock_buf_size_if_larger(sd, SO_SNDBUF, kSocketBuffer);
    set_sock_buf_size_if_larger(sd, SO_RCVBUF, kSocketBuffer);
  }
  if (trans == EVENT_TRANS_UNIX || trans == EVENT_TRANS_TCP) events::read_ahead_begin(sd);
  ei->agent = KZmyAddress();
  ei->sd = sd;
  ei->source = static_cast<uint32_t>(source);
  ei->trans = static_cast<uint16_t>(trans);

  CHANNEL_LOG("send the application wakeup event open_event().\n");
  // The daemon does not greet itself; a remote daemon is announced only on
  // the client service.
  if (source != EVENT_SOURCE_HUBD &&
      (source != EVENT_SOURCE_REMOTE_HUBD || trans == EVENT_TRANS_TCP)) {
    char text[128];
    snprintf(text, sizeof text, "%s connected to hubd.", getApplName(source));
    send_event(ei, EVENT_CONNECTED, nullptr, text, nullptr, nullptr);
  }
  CHANNEL_LOG("end of open_event().\n");
  return sd;
}

extern "C" EVENTS_EXPORT int close_event(event_infoEMS *ei) {
  if (ei == nullptr) return -1;
  CHANNEL_LOG("send application disconnect event from close_event().\n");
  // A remote daemon always says goodbye as on the client service, with a
  // transmission header, whatever socket it connected by.
  bool jetstream = ei->trans == EVENT_TRANS_JETSTREAM;
  if (ei->source == EVENT_SOURCE_REMOTE_HUBD && !jetstream) ei->trans = EVENT_TRANS_TCP;
  if (ei->source != EVENT_SOURCE_HUBD) {
    char text[128];
    snprintf(text, sizeof text, "%s disconnecting from hubd.",
             getApplName(static_cast<int>(ei->source)));
    send_event(ei, EVENT_DISCONNECTING, nullptr, text, nullptr, nullptr);
  }
  CHANNEL_LOG(" end of close_event().\n");
  events::read_ahead_end(ei->sd);
  return jetstream ? events::jetstream::close(ei->sd) : close(ei->sd);
}
