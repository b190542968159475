// hubd-dev: a development hub that plays the daemon's side of the event
// channel.  It listens on a Unix socket, a TCP port with transmission
// headers, a TCP port without headers and a UDP port, and relays every
// SNMPv1 trap it receives to every other connected client: with a
// transmission header on the Unix and TCP ports, as the bare message on the
// headerless port.  It is a tool for tests and demonstrations, not the
// platform's daemon.

#include <arpa/inet.h>
#include <fcntl.h>
#include <getopt.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "event.h"
#include "snmp.h"

namespace {

constexpr size_t kHeaderSize = sizeof(trap_headerEMS);
constexpr size_t kMaxQueued = 4u << 20;  // a client that falls further behind is dropped

enum class Kind { UnixListener, TcpListener, RawListener, Udp, Framed, Raw };

struct Endpoint {
  Kind kind;
  std::string name;
  std::vector<unsigned char> in;
  std::vector<unsigned char> out;
};

struct Hub {
  std::map<int, Endpoint> endpoints;
  bool verbose = false;
};

volatile sig_atomic_t stop_requested = 0;
std::string created_socket;  // removed on every way out

void on_signal(int) { stop_requested = 1; }

[[noreturn]] void fail(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  fputs("hubd-dev: ", stderr);
  vfprintf(stderr, fmt, args);
  fputc('\n', stderr);
  va_end(args);
  if (!created_socket.empty()) unlink(created_socket.c_str());
  exit(1);
}

void usage(FILE *to) {
  fputs(
      "usage: hubd-dev [--unix PATH] [--tcp [HOST:]PORT] [--raw-tcp [HOST:]PORT]\n"
      "                [--udp [HOST:]PORT] [--verbose]\n"
      "  --unix PATH          Unix stream socket, transmission headers (transport 2)\n"
      "  --tcp [HOST:]PORT    TCP with transmission headers (transport 3)\n"
      "  --raw-tcp [HOST:]PORT TCP without headers (transport 6)\n"
      "  --udp [HOST:]PORT    UDP datagrams (transport 1)\n"
      "  --verbose            print one line per relayed or dropped message\n"
      "At least one listener is required.  SIGINT or SIGTERM stops the hub.\n",
      to);
}

sockaddr_in inet_address(const std::string &where) {
  std::string host = "0.0.0.0";
  std::string port = where;
  size_t colon = where.rfind(':');
  if (colon != std::string::npos) {
    host = where.substr(0, colon);
    port = where.substr(colon + 1);
  }
  char *end = nullptr;
  long number = strtol(port.c_str(), &end, 10);
  if (port.empty() || *end != '\0' || number < 0 || number > 65535)
    fail("bad port in '%s'", where.c_str());
  addrinfo hints{};
  hints.ai_family = AF_INET;
  addrinfo *found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0)
    fail("unknown host '%s'", host.c_str());
  sockaddr_in address = *reinterpret_cast<sockaddr_in *>(found->ai_addr);
  freeaddrinfo(found);
  address.sin_port = htons(static_cast<uint16_t>(number));
  return address;
}

void set_nonblocking(int fd) { fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK); }

int listen_inet(const std::string &where, int type) {
  sockaddr_in address = inet_address(where);
  int fd = socket(AF_INET, type, 0);
  int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
      (type == SOCK_STREAM && listen(fd, 16) != 0))
    fail("cannot listen on %s: %s", where.c_str(), strerror(errno));
  set_nonblocking(fd);
  return fd;
}

int listen_unix(const std::string &path) {
  sockaddr_un address{};
  if (path.size() >= sizeof address.sun_path) fail("socket path too long: %s", path.c_str());
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, path.c_str());
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  struct stat info;
  if (stat(path.c_str(), &info) == 0) {
    // A socket nobody answers on is left over from an earlier run.
    if (!S_ISSOCK(info.st_mode)) fail("%s exists and is not a socket", path.c_str());
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0)
      fail("another hub is listening on %s", path.c_str());
    unlink(path.c_str());
  }
  if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 || listen(fd, 16) != 0)
    fail("cannot listen on %s: %s", path.c_str(), strerror(errno));
  created_socket = path;
  set_nonblocking(fd);
  return fd;
}

std::string describe_trap(const std::vector<unsigned char> &message) {
  static snmp_trap_infoEMS trap;
  static SnmpVarBindEMS vars[1];
  memset(&trap, 0, sizeof trap);
  trap.clen = 127;
  trap.elen = 128;
  trap.maxvars = 1;
  if (snmp_parse_trap(const_cast<unsigned char *>(message.data()), static_cast<int>(message.size()),
                      &trap, nullptr, vars) != 0)
    return "";
  std::string text = "enterprise ";
  for (int i = 0; i < trap.elen; ++i) text += (i ? "." : "") + std::to_string(trap.enterprise[i]);
  text += " generic " + std::to_string(trap.gen) + " specific " + std::to_string(trap.specific);
  return text;
}

void flush(Endpoint &client, int fd) {
  while (!client.out.empty()) {
    ssize_t n = send(fd, client.out.data(), client.out.size(), MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;  // full for now, or broken: poll reports which
    client.out.erase(client.out.begin(), client.out.begin() + n);
  }
}

void drop(Hub &hub, int fd, const char *why) {
  if (hub.verbose) printf("closed %s: %s\n", hub.endpoints[fd].name.c_str(), why);
  close(fd);
  hub.endpoints.erase(fd);
}

// Relays one message from `from` to every other client.  The header keeps
// the sender's fields and gets the hub's time.
void relay(Hub &hub, int from, trap_headerEMS header, const std::vector<unsigned char> &message) {
  const std::string &sender = hub.endpoints[from].name;
  std::string summary = describe_trap(message);
  if (summary.empty()) {
    if (hub.verbose)
      printf("dropped %zu octets from %s: not an SNMPv1 trap\n", message.size(), sender.c_str());
    return;
  }
  header.len = static_cast<int32_t>(message.size());
  header.time = static_cast<int32_t>(time(nullptr));
  const auto *head = reinterpret_cast<const unsigned char *>(&header);
  std::vector<int> laggards;
  int receivers = 0;
  for (auto &[fd, client] : hub.endpoints) {
    if (fd == from || (client.kind != Kind::Framed && client.kind != Kind::Raw)) continue;
    if (client.kind == Kind::Framed) client.out.insert(client.out.end(), head, head + kHeaderSize);
    client.out.insert(client.out.end(), message.begin(), message.end());
    flush(client, fd);
    if (client.out.size() > kMaxQueued) laggards.push_back(fd);
    ++receivers;
  }
  if (hub.verbose)
    printf("relayed %zu octets from %s (source %u, pid %d) to %d client%s: %s\n", message.size(),
           sender.c_str(), header.src, header.pid, receivers, receivers == 1 ? "" : "s",
           summary.c_str());
  for (int fd : laggards) drop(hub, fd, "too far behind");
}

trap_headerEMS headerless(void) {
  trap_headerEMS header{};
  header.src = 1;
  header.pid = -1;
  return header;
}

// Takes every complete message out of a client's input.  Returns false if
// the stream is out of step and the client must go.
bool take_messages(Hub &hub, int fd) {
  for (;;) {
    std::vector<unsigned char> &in = hub.endpoints[fd].in;
    trap_headerEMS header = headerless();
    size_t start, length;
    if (hub.endpoints[fd].kind == Kind::Framed) {
      if (in.size() < kHeaderSize) return true;
      memcpy(&header, in.data(), kHeaderSize);
      if (header.len < 0 || header.len > EVENT_MAX_MESSAGE) return false;
      start = kHeaderSize;
      length = static_cast<size_t>(header.len);
    } else {
      if (in.empty()) return true;
      if (in[0] != 0x30) return false;
      if (in.size() < 2) return true;
      size_t octets = in[1] < 0x80 ? 0 : in[1] & 0x7Fu;
      if (octets > 2) return false;
      if (in.size() < 2 + octets) return true;
      size_t body = octets == 0 ? in[1] : 0;
      for (size_t i = 0; i < octets; ++i) body = (body << 8) | in[2 + i];
      start = 0;
      length = 2 + octets + body;
      if (length > EVENT_MAX_MESSAGE) return false;
    }
    if (in.size() < start + length) return true;
    std::vector<unsigned char> message(in.begin() + static_cast<long>(start),
                                       in.begin() + static_cast<long>(start + length));
    in.erase(in.begin(), in.begin() + static_cast<long>(start + length));
    relay(hub, fd, header, message);
    if (hub.endpoints.count(fd) == 0) return true;
  }
}

void accept_client(Hub &hub, int listener, Kind kind) {
  int fd = accept(listener, nullptr, nullptr);
  if (fd < 0) return;
  set_nonblocking(fd);
  const char *prefix = kind == Kind::Framed
                           ? (hub.endpoints[listener].kind == Kind::UnixListener ? "unix" : "tcp")
                           : "raw-tcp";
  std::string name = std::string(prefix) + "#" + std::to_string(fd);
  hub.endpoints[fd] = Endpoint{kind, name, {}, {}};
  if (hub.verbose) printf("accepted %s\n", name.c_str());
}

void read_datagram(Hub &hub, int fd) {
  std::vector<unsigned char> message(EVENT_MAX_MESSAGE + 1);
  sockaddr_in from{};
  socklen_t size = sizeof from;
  ssize_t n =
      recvfrom(fd, message.data(), message.size(), 0, reinterpret_cast<sockaddr *>(&from), &size);
  if (n <= 0) return;
  char name[64];
  snprintf(name, sizeof name, "udp %s:%u", inet_ntoa(from.sin_addr), ntohs(from.sin_port));
  hub.endpoints[fd].name = name;
  if (n > EVENT_MAX_MESSAGE) {
    if (hub.verbose) printf("dropped a datagram from %s: too large\n", name);
    return;
  }
  message.resize(static_cast<size_t>(n));
  relay(hub, fd, headerless(), message);
}

void read_client(Hub &hub, int fd) {
  unsigned char chunk[65536];
  ssize_t n = recv(fd, chunk, sizeof chunk, 0);
  if (n < 0 && (errno == EINTR || errno == EAGAIN)) return;
  if (n <= 0) return drop(hub, fd, n == 0 ? "end of stream" : strerror(errno));
  std::vector<unsigned char> &in = hub.endpoints[fd].in;
  in.insert(in.end(), chunk, chunk + n);
  if (!take_messages(hub, fd)) drop(hub, fd, "not a framed trap stream");
}

void serve(Hub &hub) {
  sigset_t blocked, during_wait;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGINT);
  sigaddset(&blocked, SIGTERM);
  sigprocmask(SIG_BLOCK, &blocked, &during_wait);
  struct sigaction action {};
  action.sa_handler = on_signal;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  signal(SIGPIPE, SIG_IGN);

  printf("hubd-dev: ready\n");
  fflush(stdout);
  while (!stop_requested) {
    std::vector<pollfd> waits;
    for (auto &[fd, endpoint] : hub.endpoints)
      waits.push_back({fd, static_cast<short>(POLLIN | (endpoint.out.empty() ? 0 : POLLOUT)), 0});
    if (ppoll(waits.data(), waits.size(), nullptr, &during_wait) < 0) continue;
    for (const pollfd &wait : waits) {
      if (wait.revents == 0 || hub.endpoints.count(wait.fd) == 0) continue;
      Endpoint &endpoint = hub.endpoints[wait.fd];
      switch (endpoint.kind) {
        case Kind::UnixListener:
        case Kind::TcpListener:
          accept_client(hub, wait.fd, Kind::Framed);
          break;
        case Kind::RawListener:
          accept_client(hub, wait.fd, Kind::Raw);
          break;
        case Kind::Udp:
          read_datagram(hub, wait.fd);
          break;
        default:
          if (wait.revents & POLLOUT) flush(endpoint, wait.fd);
          if (wait.revents & (POLLIN | POLLHUP | POLLERR)) read_client(hub, wait.fd);
          break;
      }
    }
    fflush(stdout);
  }
  for (auto &[fd, endpoint] : hub.endpoints) close(fd);
  if (!created_socket.empty()) unlink(created_socket.c_str());
  printf("hubd-dev: stopped\n");
}

}  // namespace

int main(int argc, char **argv) {
  static const option options[] = {{"unix", required_argument, nullptr, 'u'},
                                   {"tcp", required_argument, nullptr, 't'},
                                   {"raw-tcp", required_argument, nullptr, 'r'},
                                   {"udp", required_argument, nullptr, 'd'},
                                   {"verbose", no_argument, nullptr, 'v'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
  Hub hub;
  std::vector<std::pair<Kind, std::string>> listeners;
  int option;
  while ((option = getopt_long(argc, argv, "u:t:r:d:vh", options, nullptr)) != -1) {
    switch (option) {
      case 'u':
        listeners.emplace_back(Kind::UnixListener, optarg);
        break;
      case 't':
        listeners.emplace_back(Kind::TcpListener, optarg);
        break;
      case 'r':
        listeners.emplace_back(Kind::RawListener, optarg);
        break;
      case 'd':
        listeners.emplace_back(Kind::Udp, optarg);
        break;
      case 'v':
        hub.verbose = true;
        break;
      case 'h':
        usage(stdout);
        return 0;
      default:
        usage(stderr);
        return 2;
    }
  }
  if (optind != argc || listeners.empty()) {
    usage(stderr);
    return 2;
  }
  for (const auto &[kind, where] : listeners) {
    int fd;
    switch (kind) {
      case Kind::UnixListener:
        if (!created_socket.empty()) fail("only one --unix socket");
        fd = listen_unix(where);
        break;
      case Kind::Udp:
        fd = listen_inet(where, SOCK_DGRAM);
        break;
      default:
        fd = listen_inet(where, SOCK_STREAM);
        break;
    }
    hub.endpoints[fd] = Endpoint{kind, where, {}, {}};
    if (hub.verbose) printf("listening on %s\n", where.c_str());
  }
  serve(hub);
  return 0;
}
