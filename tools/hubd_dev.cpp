// hubd-dev: a development hub that plays the daemon's side of the event
// channel.  It listens on a Unix socket, a TCP port with transmission
// headers, a TCP port without headers and a UDP port, and relays every
// SNMPv1 trap it receives to every other connected client: with a
// transmission header on the Unix and TCP ports, as the bare message on the
// headerless port.  SNMPv2c traps and informs arriving on the UDP port are
// translated into the SNMPv1 traps that stand for them, and each inform is
// answered, so that every client receives them as it receives any trap.
// With --usm, SNMPv3 ones are too, under the users of a createUser file.
// It is a tool for tests and demonstrations, not the platform's daemon.
//
// Whatever it is sent, it relays exactly one checked BER element per
// message, so a headerless client's stream never falls out of step; anything
// else is dropped and counted.  Clients that stop reading get a bounded
// share of memory, then lose their connection.

#include <arpa/inet.h>
#include <fcntl.h>
#include <getopt.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "ber_reader.h"
#include "cli.h"
#include "event.h"
#include "snmp.h"
#include "usm.h"

namespace {

constexpr size_t kHeaderSize = sizeof(trap_headerEMS);
constexpr size_t kMaxQueuedPerClient = 4u << 20;
constexpr size_t kDefaultMaxQueued = 64u << 20;
// Datagrams taken from the UDP port in one call, and calls in a row before
// the other endpoints get their turn.
constexpr int kBatch = 32;
constexpr int kBatchesPerTurn = 8;
constexpr int kDefaultCoalesceMs = 5;
constexpr int kMaxCoalesceMs = 100;
// Asked of the kernel for each UDP port; without privileges it grants at
// most twice net.core.rmem_max.  It must hold what arrives while the hub
// leaves the port alone (see UdpPacing).
constexpr int kUdpReceiveBuffer = 4 << 20;

enum class Kind { UnixListener, TcpListener, RawListener, Udp, Framed, Raw };

// Why a message, a part of one, a client or a connection was dropped.
enum Drop {
  kNotATrap,
  kTrailingOctets,
  kTooLarge,
  kOutOfStep,
  kOverQueueLimit,
  kNoDescriptor,
  kNoSnmpV1Form,
  kSnmpV3Refused,
  // One reason for each of the codec's limits, SNMP_LIMIT_SUBIDENTIFIER on.
  kFirstLimit,
  kDropReasons = kFirstLimit + SNMP_LIMIT_TIME
};
const char *const kDropNames[kFirstLimit] = {
    "not a trap",         "trailing octets",         "too large",
    "stream out of step", "client over queue limit", "connection without descriptor",
    "no SNMPv1 form",     "SNMPv3 refused"};

const char *drop_name(int reason) {
  return reason < kFirstLimit ? kDropNames[reason] : snmp_limit_text(reason - kFirstLimit + 1);
}

Drop limit_drop(int limit) { return static_cast<Drop>(kFirstLimit + limit - 1); }

// Why a message that does not decode was refused: one of the codec's
// limits, or `otherwise`.
Drop refusal(const std::vector<unsigned char> &message, Drop otherwise) {
  int limit = snmp_message_limit(message.data(), static_cast<int>(message.size()));
  return limit == SNMP_LIMIT_NONE ? otherwise : limit_drop(limit);
}

// A decoded trap: its record and room for every binding a message can
// hold, each taking at least six octets.
struct Decoded {
  snmp_trap_infoEMS trap;
  std::vector<SnmpVarBindEMS> vars = std::vector<SnmpVarBindEMS>(EVENT_MAX_MESSAGE / 6);
};
Decoded decoded;

struct Endpoint {
  Kind kind;
  std::string name;
  std::vector<unsigned char> in;
  std::vector<unsigned char> out;
  // Output was left over when the client was last written to: it is not
  // reading, and what it is sent counts against the limits.
  bool behind = false;
  // A UDP port's last sender, whose address is its name.
  sockaddr_in sender{};
};

// Room for one batch of datagrams, set up once for the hub's life.  Each
// buffer holds one octet more than a message may, to tell one that was cut.
struct DatagramBatch {
  std::vector<unsigned char> octets =
      std::vector<unsigned char>(kBatch * (EVENT_MAX_MESSAGE + 1));
  iovec parts[kBatch];
  sockaddr_in from[kBatch];
  mmsghdr headers[kBatch];

  DatagramBatch() {
    for (int i = 0; i < kBatch; ++i) {
      parts[i] = {octets.data() + i * (EVENT_MAX_MESSAGE + 1), EVENT_MAX_MESSAGE + 1};
      headers[i] = mmsghdr{};
      headers[i].msg_hdr.msg_name = &from[i];
      headers[i].msg_hdr.msg_iov = &parts[i];
      headers[i].msg_hdr.msg_iovlen = 1;
    }
  }
  DatagramBatch(const DatagramBatch &) = delete;
  DatagramBatch &operator=(const DatagramBatch &) = delete;
};

// At a few thousand traps a second every datagram would wake the hub on
// its own, and on a virtual machine a wake-up costs more than relaying the
// trap.  So after a read that emptied the port in the middle of a steady
// stream, the hub leaves its UDP ports alone for as long as a batch takes
// to arrive at the rate just seen, --coalesce milliseconds at most, and
// then takes what came with one read and one write to each client.  The
// first trap after a quiet spell goes out at once, and so does everything
// when traps come faster than a batch in a millisecond.
struct UdpPacing {
  using Clock = std::chrono::steady_clock;
  Clock::duration longest{std::chrono::milliseconds(kDefaultCoalesceMs)};
  Clock::time_point last_read{}, resume{};

  // Called after each turn that read the ports, with how many it took.
  void after_read(int taken) {
    Clock::time_point now = Clock::now();
    Clock::duration since = now - last_read;
    last_read = now;
    if (longest == Clock::duration::zero() || taken >= kBatch || since > 2 * longest) return;
    // The time `taken` datagrams took, stretched to a batch's worth.
    Clock::duration pause = taken > 0 ? since * kBatch / taken : longest;
    if (pause >= std::chrono::milliseconds(1)) resume = now + std::min(pause, longest);
  }
  // Whether the ports are left alone now, and if so for how much longer.
  bool paused(timespec *left) const {
    auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(resume - Clock::now()).count();
    if (ns <= 0) return false;
    left->tv_sec = static_cast<time_t>(ns / 1000000000);
    left->tv_nsec = static_cast<long>(ns % 1000000000);
    return true;
  }
};

struct Hub {
  std::map<int, Endpoint> endpoints;
  bool verbose = false;
  size_t max_queued = kDefaultMaxQueued;
  size_t queued = 0;  // octets waiting in every client's output
  // Held open so that a connection can still be accepted, and closed at
  // once, when the process runs out of descriptors.
  int spare_fd = -1;
  unsigned long long received = 0, relayed = 0, dropped[kDropReasons] = {};
  unsigned long long translated = 0, informs_answered = 0;
  usm_table *usm = nullptr;  // with --usm
  std::string usm_path;
  unsigned long long usm_reports = 0;
  // The stream every relayed trap is published to, when one is named.
  event_infoEMS stream{};
  bool publishing = false;
  unsigned long long published = 0, not_published = 0;
  DatagramBatch batch;
  UdpPacing pacing;
  std::vector<unsigned char> datagram;  // the one being relayed
  std::vector<pollfd> waits;
};

volatile sig_atomic_t stop_requested = 0;
volatile sig_atomic_t report_requested = 0;
volatile sig_atomic_t reload_requested = 0;
std::string created_socket;  // removed on every way out

void on_signal(int signo) {
  if (signo == SIGUSR1)
    report_requested = 1;
  else if (signo == SIGHUP)
    reload_requested = 1;
  else
    stop_requested = 1;
}

// The usmStats counters and the Reports sent, ending the counters line.
void print_usm_counters(const Hub &hub) {
  if (hub.usm == nullptr) {
    putchar('\n');
    return;
  }
  usm_stats s;
  usm_table_stats(hub.usm, &s);
  printf(
      "; usm: unknown engine IDs %u, unknown user names %u, unsupported security levels %u, "
      "wrong digests %u, not in time windows %u, decryption errors %u, reports %llu\n",
      s.unknown_engine_ids, s.unknown_user_names, s.unsupported_sec_levels, s.wrong_digests,
      s.not_in_time_windows, s.decryption_errors, hub.usm_reports);
}

void print_counters(const Hub &hub) {
  printf("hubd-dev: received %llu, relayed %llu, dropped:", hub.received, hub.relayed);
  for (int reason = 0; reason < kDropReasons; ++reason)
    printf("%s %s %llu", reason ? "," : "", drop_name(reason), hub.dropped[reason]);
  printf("; translated %llu, informs answered %llu", hub.translated, hub.informs_answered);
  if (hub.publishing)
    printf("; published %llu, not published %llu", hub.published, hub.not_published);
  print_usm_counters(hub);
  fflush(stdout);
}

[[noreturn]] __attribute__((format(printf, 1, 2))) void fail(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  fprintf(stderr, "%s: ", cli_name());
  vfprintf(stderr, fmt, args);
  fputc('\n', stderr);
  va_end(args);
  if (!created_socket.empty()) unlink(created_socket.c_str());
  exit(1);
}

void usage() {
  fputs(
      "usage: hubd-dev [--unix PATH] [--tcp [tcp:][HOST:]PORT] [--raw-tcp [tcp:][HOST:]PORT]\n"
      "                [--udp [udp:][HOST:]PORT] [--coalesce MS] [--usm FILE]\n"
      "                [--max-queue OCTETS] [--verbose] [--version]\n"
      "  --unix PATH          Unix stream socket, transmission headers (transport 2)\n"
      "  --tcp ADDRESS        TCP with transmission headers (transport 3)\n"
      "  --raw-tcp ADDRESS    TCP without headers (transport 6)\n"
      "  --udp ADDRESS        UDP datagrams (transport 1); SNMPv2c traps and informs\n"
      "                       are relayed as SNMPv1 traps, informs answered\n"
      "  --coalesce MS        in a steady stream of datagrams, leave the UDP port\n"
      "                       for up to MS milliseconds after reading it empty, to\n"
      "                       take more at a time; 0 reads at once (default 5)\n"
      "  --usm FILE           SNMPv3 too, under the createUser lines of FILE; the\n"
      "                       local engine's ID and boots are kept in FILE.engine\n"
      "  --max-queue OCTETS   total output held for slow clients (default 64 MiB)\n"
      "  --jetstream URL      also publish every relayed trap to a NATS JetStream\n"
      "                       stream, nats://HOST:PORT[,HOST:PORT]...[/STREAM]\n"
      "                       (default stream TRAPS), created when missing with:\n"
      "  --replicas N         copies of the stream, 1 to 5 (default 1)\n"
      "  --max-age SECONDS    age limit of its traps (default 604800, 7 days)\n"
      "  --max-bytes OCTETS   size limit of the stream (default 1 GiB)\n"
      "  --batch N            publish up to N traps in one message while the\n"
      "                       stream is slower than the traps come (default 1)\n"
      "  --verbose            print one time-stamped line per relayed or dropped\n"
      "                       message, and let the library's decoding diagnostics\n"
      "                       reach standard error\n"
      "  -V, --version        print the version;  -h, --help  print this help\n"
      "A bare PORT listens on 127.0.0.1 only; HOST may be [IPv6] for TCP.\n"
      "At least one listener is required.\n"
      "SIGUSR1 prints the counters; SIGINT or SIGTERM prints them and stops the hub;\n"
      "SIGHUP rereads the --usm file.\n",
      stdout);
}

// Prints one line on standard output behind the time of day, so a verbose
// log can be read against a client's.
__attribute__((format(printf, 1, 2))) void stamped(const char *fmt, ...) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  tm local;
  localtime_r(&now.tv_sec, &local);
  char clock[16];
  strftime(clock, sizeof clock, "%H:%M:%S", &local);
  printf("%s.%03ld ", clock, now.tv_nsec / 1000000);
  va_list args;
  va_start(args, fmt);
  vprintf(fmt, args);
  va_end(args);
}

// Reads a listener address of the option `option`: [PREFIX:][HOST:]PORT,
// where PREFIX may only name the option's own transport and HOST may be an
// IPv6 address in brackets where `ipv6` allows it.  A bad address is a
// usage error; a host that does not resolve ends the hub.
sockaddr_storage inet_address(const char *option, const std::string &where, const char *prefix,
                              bool ipv6) {
  std::string rest = where;
  size_t colon = rest.find(':');
  if (colon != std::string::npos &&
      (rest.compare(0, colon, "udp") == 0 || rest.compare(0, colon, "tcp") == 0)) {
    if (rest.compare(0, colon, prefix) != 0)
      cli_usage_error("--%s cannot listen on '%s': a %s: address is another transport", option,
                      where.c_str(), rest.substr(0, colon).c_str());
    rest.erase(0, colon + 1);
  }
  std::string host = "127.0.0.1";
  std::string port = rest;
  if (!rest.empty() && rest[0] == '[') {
    size_t close = rest.find("]:");
    if (close == std::string::npos)
      cli_usage_error("--%s: bad address '%s'", option, where.c_str());
    if (!ipv6) cli_usage_error("--%s listens on IPv4 only, not on '%s'", option, where.c_str());
    host = rest.substr(1, close - 1);
    port = rest.substr(close + 2);
  } else if ((colon = rest.rfind(':')) != std::string::npos) {
    host = rest.substr(0, colon);
    port = rest.substr(colon + 1);
    if (host.find(':') != std::string::npos)
      cli_usage_error("--%s: write an IPv6 address in brackets, as [::1]:PORT, not '%s'", option,
                      where.c_str());
  }
  char *end = nullptr;
  long number = strtol(port.c_str(), &end, 10);
  if (port.empty() || *end != '\0' || number < 0 || number > 65535)
    cli_usage_error("--%s: bad port in '%s' (0 to 65535)", option, where.c_str());
  addrinfo hints{};
  hints.ai_family = ipv6 ? AF_UNSPEC : AF_INET;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo *found = nullptr;
  if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0)
    fail("unknown host '%s'", host.c_str());
  sockaddr_storage address{};
  memcpy(&address, found->ai_addr, found->ai_addrlen);
  freeaddrinfo(found);
  return address;
}

void set_nonblocking(int fd) { fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK); }

// The address a socket is bound to, as "HOST:PORT" or "[HOST]:PORT".
std::string bound_address(int fd) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
  char host[INET6_ADDRSTRLEN] = "?";
  if (address.ss_family == AF_INET6) {
    const auto &in6 = reinterpret_cast<const sockaddr_in6 &>(address);
    inet_ntop(AF_INET6, &in6.sin6_addr, host, sizeof host);
    return std::string("[") + host + "]:" + std::to_string(ntohs(in6.sin6_port));
  }
  const auto &in = reinterpret_cast<const sockaddr_in &>(address);
  inet_ntop(AF_INET, &in.sin_addr, host, sizeof host);
  return std::string(host) + ":" + std::to_string(ntohs(in.sin_port));
}

int listen_inet(const sockaddr_storage &address, const std::string &where, int type) {
  int fd = socket(address.ss_family, type, 0);
  // A TCP port in TIME_WAIT may be taken again at once; a UDP port never
  // shared, since the two hubs would split the datagrams between them.
  int on = 1;
  if (type == SOCK_STREAM) setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  socklen_t size = address.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), size) != 0 ||
      (type == SOCK_STREAM && listen(fd, 16) != 0))
    fail("cannot listen on %s: %s", where.c_str(), strerror(errno));
  if (type == SOCK_DGRAM)
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kUdpReceiveBuffer, sizeof kUdpReceiveBuffer);
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

// Decodes the whole trap, every binding, as a client would.  Returns
// false if it does not decode.
bool decodes(const std::vector<unsigned char> &message) {
  snmp_trap_infoEMS &trap = decoded.trap;
  snmp_trap_reset_capacities(&trap, static_cast<int>(decoded.vars.size()));
  return snmp_parse_trap(const_cast<unsigned char *>(message.data()),
                         static_cast<int>(message.size()), &trap, nullptr,
                         decoded.vars.data()) == 0;
}

// Sums up the trap decodes() last decoded.
std::string describe_trap() {
  const snmp_trap_infoEMS &trap = decoded.trap;
  std::string text = "enterprise ";
  for (int i = 0; i < trap.elen; ++i) {
    if (i > 0) text += '.';
    text += std::to_string(trap.enterprise[i]);
  }
  text += " generic " + std::to_string(trap.gen) + " specific " + std::to_string(trap.specific);
  return text;
}

// The length of the BER SEQUENCE at the start of `octets`, header
// included, in the definite forms the library reads (short, or one to four
// length octets); 0 while its length is not yet all there, -1 if it is not
// such a SEQUENCE.
long element_length(const unsigned char *octets, size_t size) {
  if (size >= 1 && octets[0] != ASN_SEQUENCE) return -1;
  if (size < 2) return 0;
  uint32_t body = 0;
  int length_octets = 0;
  switch (events::ber::length(octets + 1, octets + size, &body, &length_octets)) {
    case events::ber::LengthForm::kBadForm:
      return -1;
    case events::ber::LengthForm::kShort:
      return 0;
    case events::ber::LengthForm::kOk:
      break;
  }
  return static_cast<long>(1 + length_octets + static_cast<long>(body));
}

// Writes as much of a client's output as its socket takes, in one call
// unless the socket takes it piecemeal.
void flush(Hub &hub, Endpoint &client, int fd) {
  while (!client.out.empty()) {
    ssize_t n = send(fd, client.out.data(), client.out.size(), MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // full for now, or broken: poll reports which
    client.out.erase(client.out.begin(), client.out.begin() + n);
    hub.queued -= static_cast<size_t>(n);
  }
  client.behind = !client.out.empty();
}

// Writes to every client with output waiting: once a turn, so that all the
// traps a turn relayed leave in one call per client.
void flush_all(Hub &hub) {
  for (auto &[fd, endpoint] : hub.endpoints)
    if (!endpoint.out.empty()) flush(hub, endpoint, fd);
}

void drop(Hub &hub, int fd, const char *why) {
  Endpoint &client = hub.endpoints[fd];
  if (hub.verbose) stamped("closed %s: %s\n", client.name.c_str(), why);
  hub.queued -= client.out.size();
  close(fd);
  hub.endpoints.erase(fd);
}

void drop_message(Hub &hub, Drop reason, size_t size, const std::string &sender) {
  ++hub.dropped[reason];
  if (hub.verbose)
    stamped("dropped %zu octets from %s: %s\n", size, sender.c_str(), drop_name(reason));
}

// Puts a relayed trap into the stream, with its sender's header fields.
void publish(Hub &hub, const trap_headerEMS &header, const std::vector<unsigned char> &message) {
  hub.stream.source = header.src;
  hub.stream.status = header.status;
  hub.stream.target = header.target;
  if (send_hex_buffer(&hub.stream, message.data(), static_cast<int>(message.size())) == 0)
    ++hub.published;
  else
    ++hub.not_published;
}

// Relays the trap at the start of one message from `from` to every other
// client, cutting off what follows it.  The header keeps the sender's
// fields and gets the hub's time.  The trap is added to each client's
// output; flush_all writes it.
void relay(Hub &hub, int from, trap_headerEMS header, std::vector<unsigned char> &message) {
  const std::string &sender = hub.endpoints[from].name;
  ++hub.received;
  long length = element_length(message.data(), message.size());
  bool valid = false;
  if (length > 0 && static_cast<size_t>(length) <= message.size()) {
    if (static_cast<size_t>(length) < message.size()) {
      drop_message(hub, kTrailingOctets, message.size() - static_cast<size_t>(length), sender);
      message.resize(static_cast<size_t>(length));
    }
    valid = decodes(message);
  }
  if (!valid) return drop_message(hub, refusal(message, kNotATrap), message.size(), sender);
  ++hub.relayed;
  header.len = static_cast<int32_t>(message.size());
  header.time = static_cast<int32_t>(time(nullptr));
  const auto *head = reinterpret_cast<const unsigned char *>(&header);
  std::vector<int> laggards;
  int receivers = 0;
  for (auto &[fd, client] : hub.endpoints) {
    if (fd == from || (client.kind != Kind::Framed && client.kind != Kind::Raw)) continue;
    size_t size = (client.kind == Kind::Framed ? kHeaderSize : 0) + message.size();
    // A client that took all it was sent always gets the message: only
    // one that has stopped reading can be over its share.
    if (client.behind &&
        (client.out.size() + size > std::min(kMaxQueuedPerClient, hub.max_queued) ||
         hub.queued + size > hub.max_queued)) {
      laggards.push_back(fd);
      continue;
    }
    if (client.kind == Kind::Framed) client.out.insert(client.out.end(), head, head + kHeaderSize);
    client.out.insert(client.out.end(), message.begin(), message.end());
    hub.queued += size;
    ++receivers;
  }
  if (hub.publishing) publish(hub, header, message);
  if (hub.verbose)
    stamped("relayed %zu octets from %s (source %u, pid %d) to %d client%s: %s\n", message.size(),
           sender.c_str(), header.src, header.pid, receivers, receivers == 1 ? "" : "s",
           describe_trap().c_str());
  for (int fd : laggards) {
    ++hub.dropped[kOverQueueLimit];
    drop(hub, fd, kDropNames[kOverQueueLimit]);
  }
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
      long element = element_length(in.data(), in.size());
      if (element < 0 || element > EVENT_MAX_MESSAGE) return false;
      if (element == 0) return true;
      start = 0;
      length = static_cast<size_t>(element);
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
  if (fd < 0 && (errno == EMFILE || errno == ENFILE) && hub.spare_fd >= 0) {
    // Out of descriptors: the connection would stay pending and poll would
    // report it again at once, for ever.  Take it with the spare and close
    // it, so the client learns at once.
    close(hub.spare_fd);
    fd = accept(listener, nullptr, nullptr);
    if (fd >= 0) close(fd);
    hub.spare_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ++hub.dropped[kNoDescriptor];
    if (hub.verbose) stamped("refused a connection: %s\n", strerror(EMFILE));
    return;
  }
  if (fd < 0) return;
  set_nonblocking(fd);
  const char *prefix = kind == Kind::Framed
                           ? (hub.endpoints[listener].kind == Kind::UnixListener ? "unix" : "tcp")
                           : "raw-tcp";
  std::string name = std::string(prefix) + "#" + std::to_string(fd);
  hub.endpoints[fd] = Endpoint{kind, name, {}, {}, false, {}};
  if (hub.verbose) stamped("accepted %s\n", name.c_str());
}

// A decoded record holds IpAddress values, the agent's among them, in
// wire order; the encoder takes them as numbers with the first octet high.
void to_encoder_order(snmp_trap_infoEMS *trap, SnmpVarBindEMS *vars) {
  trap->agent = snmp_trap_agent_for_encoder(trap);
  for (int i = 0; i < trap->vars; ++i)
    if (vars[i].type == ASN_IPADDRESS && !vars[i].undecoded)
      vars[i].val.integer = static_cast<int32_t>(ntohl(static_cast<uint32_t>(vars[i].val.integer)));
}

// Replaces an SNMPv2c trap or inform by the SNMPv1 trap that stands for it
// and answers an inform.  The agent address is the sender's unless a proxy
// named the agent in snmpTrapAddress.0.  Returns false if the message was
// dropped; anything else passes unchanged, for relay to check.
bool translate_notification(Hub &hub, int fd, const sockaddr_in &from,
                            std::vector<unsigned char> &message) {
  snmp_trap_infoEMS &trap = decoded.trap;
  std::vector<SnmpVarBindEMS> &vars = decoded.vars;
  snmp_trap_reset_capacities(&trap, static_cast<int>(vars.size()));
  snmp_notification_info about{};
  int result = snmp_parse_notification(message.data(), static_cast<int>(message.size()),
                                       from.sin_addr.s_addr, &trap, vars.data(), &about);
  if (about.version != SNMP_MESSAGE_V2C ||
      (about.pdu_type != SNMP_TRAP2_PDU && about.pdu_type != SNMP_INFORM_PDU))
    return true;
  unsigned char v1[EVENT_MAX_MESSAGE];
  int length = sizeof v1;
  const char *why = nullptr;
  Drop reason = kNoSnmpV1Form;
  if (result == SNMP_NOTIFICATION_OK) to_encoder_order(&trap, vars.data());
  if (result == SNMP_NOTIFICATION_MALFORMED) {
    reason = refusal(message, kNotATrap);
    why = reason == kNotATrap ? snmp_notification_error(result) : drop_name(reason);
  } else if (result != SNMP_NOTIFICATION_OK) {
    why = snmp_notification_error(result);
  } else if (int limit = snmp_trap_limit(&trap, vars.data()); limit != SNMP_LIMIT_NONE) {
    reason = limit_drop(limit);
    why = drop_name(reason);
  } else if (snmpBuildTrapEMS(v1, &length, &trap, nullptr, vars.data()) != 0) {
    why = "a value or identifier SNMPv1 cannot encode";
  }
  if (why != nullptr) {
    const std::string &sender = hub.endpoints[fd].name;
    ++hub.received;
    // A notification lost for want of an SNMPv1 form is news even when
    // nothing else is reported.
    if (hub.verbose || reason == kNoSnmpV1Form)
      stamped("refused a notification from %s: %s\n", sender.c_str(), why);
    drop_message(hub, reason, message.size(), sender);
    return false;
  }
  if (about.pdu_type == SNMP_INFORM_PDU) {
    unsigned char response[EVENT_MAX_MESSAGE + 64];
    int response_length = sizeof response;
    if (snmp_build_inform_response(message.data(), static_cast<int>(message.size()), response,
                                   &response_length) == 0 &&
        sendto(fd, response, static_cast<size_t>(response_length), 0,
               reinterpret_cast<const sockaddr *>(&from), sizeof from) == response_length)
      ++hub.informs_answered;
  }
  ++hub.translated;
  message.assign(v1, v1 + length);
  return true;
}

// Checks, decrypts and translates an SNMPv3 notification, sends the
// Report or Response its sender is owed, and leaves the SNMPv1 trap that
// stands for it in `message`, with the user and security level appended.
// Returns -1 if the message is not SNMPv3, 0 if it was dropped, 1 to relay.
int translate_v3(Hub &hub, int fd, const sockaddr_in &from, std::vector<unsigned char> &message) {
  static std::vector<SnmpVarBindEMS> vars(EVENT_MAX_MESSAGE / 7 + 2);
  static snmp_trap_infoEMS trap;
  snmp_trap_reset_capacities(&trap, static_cast<int>(vars.size()));
  usm_notification_info about;
  const int size = static_cast<int>(message.size());
  int result = snmp_parse_notification_v3(message.data(), size, from.sin_addr.s_addr, hub.usm,
                                          &trap, vars.data(), &about);
  if (about.version != SNMP_MESSAGE_V3) return -1;
  unsigned char answer[EVENT_MAX_MESSAGE + 256];
  int answer_length = sizeof answer;
  if (usm_build_answer(hub.usm, message.data(), size, answer, &answer_length) == 0 &&
      sendto(fd, answer, static_cast<size_t>(answer_length), 0,
             reinterpret_cast<const sockaddr *>(&from), sizeof from) == answer_length)
    ++(result == USM_OK ? hub.informs_answered : hub.usm_reports);
  unsigned char v1[EVENT_MAX_MESSAGE];
  int length = sizeof v1;
  if (result == USM_OK) to_encoder_order(&trap, vars.data());
  if (result == USM_OK && (usm_annotate(&about, &trap, vars.data()) != 0 ||
                           snmpBuildTrapEMS(v1, &length, &trap, nullptr, vars.data()) != 0))
    result = SNMP_NOTIFICATION_BAD_TRAP_OID;
  if (result != USM_OK) {
    const std::string &sender = hub.endpoints[fd].name;
    ++hub.received;
    if (hub.verbose)
      stamped("refused an SNMPv3 message from %s (user '%s'): %s\n", sender.c_str(), about.user,
             usm_error(result));
    drop_message(hub, result <= USM_UNSUPPORTED_SEC_LEVEL ? kSnmpV3Refused
                      : result == SNMP_NOTIFICATION_MALFORMED ? kNotATrap
                                                              : kNoSnmpV1Form,
                 message.size(), sender);
    return 0;
  }
  ++hub.translated;
  message.assign(v1, v1 + length);
  return 1;
}

// (Re)reads the --usm users file; a bad file leaves the users as they were.
// Complaints go to `complaints`: standard error while starting, standard
// output once serving has sent standard error away.
bool load_usm_users(Hub &hub, FILE *complaints) {
  char message[512];
  int users = usm_table_read_users(hub.usm, hub.usm_path.c_str(), message, sizeof message);
  if (message[0] != '\0') fprintf(complaints, "hubd-dev: %s\n", message);
  if (users >= 0) printf("hubd-dev: %d SNMPv3 users from %s\n", users, hub.usm_path.c_str());
  fflush(stdout);
  return users >= 0;
}

// Relays one datagram of `size` octets from `from` on the UDP port `fd`.
void take_datagram(Hub &hub, int fd, const sockaddr_in &from, const unsigned char *octets,
                   size_t size) {
  Endpoint &port = hub.endpoints[fd];
  std::string &name = port.name;
  if (from.sin_addr.s_addr != port.sender.sin_addr.s_addr || from.sin_port != port.sender.sin_port) {
    char text[64];
    snprintf(text, sizeof text, "udp %s:%u", inet_ntoa(from.sin_addr), ntohs(from.sin_port));
    name = text;
    port.sender = from;
  }
  if (size > EVENT_MAX_MESSAGE) {
    ++hub.received;
    return drop_message(hub, kTooLarge, size, name);
  }
  std::vector<unsigned char> &message = hub.datagram;
  message.assign(octets, octets + size);
  const int v3 = hub.usm != nullptr ? translate_v3(hub, fd, from, message) : -1;
  if (v3 == 1 || (v3 < 0 && translate_notification(hub, fd, from, message)))
    relay(hub, fd, headerless(), message);
}

// Takes the datagrams waiting on the UDP port `fd`, a batch per call,
// until the port is empty or a few batches were read.  A short batch
// found it empty: asking again costs a call per wake-up and, at a few
// thousand traps a second, seldom finds more.
int read_datagrams(Hub &hub, int fd) {
  DatagramBatch &batch = hub.batch;
  int taken = 0;
  for (int round = 0; round < kBatchesPerTurn; ++round) {
    for (mmsghdr &header : batch.headers) header.msg_hdr.msg_namelen = sizeof(sockaddr_in);
    int n = recvmmsg(fd, batch.headers, kBatch, MSG_DONTWAIT, nullptr);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      if (errno != EAGAIN && errno != EWOULDBLOCK)
        stamped("cannot read the UDP port: %s\n", strerror(errno));
      return taken;
    }
    for (int i = 0; i < n; ++i)
      take_datagram(hub, fd, batch.from[i], static_cast<unsigned char *>(batch.parts[i].iov_base),
                    batch.headers[i].msg_len);
    taken += n;
    if (n < kBatch) return taken;
  }
  return taken;
}

void read_client(Hub &hub, int fd) {
  unsigned char chunk[65536];
  ssize_t n = recv(fd, chunk, sizeof chunk, 0);
  if (n < 0 && (errno == EINTR || errno == EAGAIN)) return;
  if (n <= 0) return drop(hub, fd, n == 0 ? "end of stream" : strerror(errno));
  std::vector<unsigned char> &in = hub.endpoints[fd].in;
  in.insert(in.end(), chunk, chunk + n);
  if (!take_messages(hub, fd)) {
    ++hub.dropped[kOutOfStep];
    drop(hub, fd, kDropNames[kOutOfStep]);
  }
}

void serve(Hub &hub) {
  sigset_t blocked, during_wait;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGINT);
  sigaddset(&blocked, SIGTERM);
  sigaddset(&blocked, SIGUSR1);
  if (hub.usm != nullptr) sigaddset(&blocked, SIGHUP);
  sigprocmask(SIG_BLOCK, &blocked, &during_wait);
  struct sigaction action {};
  action.sa_handler = on_signal;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGUSR1, &action, nullptr);
  if (hub.usm != nullptr) sigaction(SIGHUP, &action, nullptr);
  signal(SIGPIPE, SIG_IGN);
  hub.spare_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  // The library's decoder reports every message it refuses on standard
  // error.  Junk traffic must not reach a terminal or, worse, block the hub
  // on a pipe that nobody reads.
  if (!hub.verbose) {
    int null = open("/dev/null", O_WRONLY);
    if (null >= 0) {
      dup2(null, STDERR_FILENO);
      close(null);
    }
  }

  printf("hubd-dev: ready\n");
  fflush(stdout);
  while (!stop_requested) {
    std::vector<pollfd> &waits = hub.waits;
    waits.clear();
    timespec pause_left{};
    const bool paused = hub.pacing.paused(&pause_left);
    for (auto &[fd, endpoint] : hub.endpoints)
      if (!(paused && endpoint.kind == Kind::Udp))
        waits.push_back({fd, static_cast<short>(POLLIN | (endpoint.out.empty() ? 0 : POLLOUT)), 0});
    if (ppoll(waits.data(), waits.size(), paused ? &pause_left : nullptr, &during_wait) < 0) {
      if (report_requested) print_counters(hub);
      report_requested = 0;
      if (reload_requested) load_usm_users(hub, stdout);
      reload_requested = 0;
      continue;
    }
    int datagrams = -1;  // none read this turn
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
          datagrams = std::max(datagrams, 0) + read_datagrams(hub, wait.fd);
          break;
        default:
          // Output it can take now is written with everyone's below.
          if (wait.revents & (POLLIN | POLLHUP | POLLERR)) read_client(hub, wait.fd);
          break;
      }
    }
    if (datagrams >= 0) hub.pacing.after_read(datagrams);
    flush_all(hub);
    fflush(stdout);
  }
  for (auto &[fd, endpoint] : hub.endpoints) close(fd);
  if (!created_socket.empty()) unlink(created_socket.c_str());
  print_counters(hub);
  printf("hubd-dev: stopped\n");
}

// The local SNMPv3 engine, one boot further, and its users.
void start_usm(Hub &hub) {
  unsigned char engine_id[USM_ENGINE_ID_MAX];
  int engine_id_len = 0;
  uint32_t boots = 0;
  char message[512];
  if (usm_engine_boot((hub.usm_path + ".engine").c_str(), engine_id, &engine_id_len, &boots,
                      message, sizeof message) != 0)
    fail("%s", message);
  hub.usm = usm_table_new(engine_id, engine_id_len, boots);
  if (hub.usm == nullptr) fail("cannot set up SNMPv3 (OpenSSL)");
  if (!load_usm_users(hub, stderr)) exit(1);
}

}  // namespace

// A listener asked for on the command line, its address read at once so
// that a bad one is a usage error before anything listens.
struct Listener {
  Kind kind;
  std::string where;
  sockaddr_storage address;
};

// What the start-up line calls each kind of listener.
const char *listener_name(Kind kind) {
  switch (kind) {
    case Kind::UnixListener: return "unix";
    case Kind::TcpListener: return "tcp";
    case Kind::RawListener: return "raw-tcp";
    default: return "udp";
  }
}

int main(int argc, char **argv) {
  cli_init(argv[0]);
  static const option options[] = {{"unix", required_argument, nullptr, 'u'},
                                   {"tcp", required_argument, nullptr, 't'},
                                   {"raw-tcp", required_argument, nullptr, 'r'},
                                   {"udp", required_argument, nullptr, 'd'},
                                   {"max-queue", required_argument, nullptr, 'q'},
                                   {"verbose", no_argument, nullptr, 'v'},
                                   {"usm", required_argument, nullptr, 'U'},
                                   {"jetstream", required_argument, nullptr, 'j'},
                                   {"replicas", required_argument, nullptr, 'R'},
                                   {"max-age", required_argument, nullptr, 'A'},
                                   {"max-bytes", required_argument, nullptr, 'B'},
                                   {"batch", required_argument, nullptr, 'b'},
                                   {"coalesce", required_argument, nullptr, 'c'},
                                   {"version", no_argument, nullptr, 'V'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
  Hub hub;
  std::vector<Listener> listeners;
  std::string stream_url, stream_limits;
  int option;
  opterr = 0;
  while ((option = getopt_long(argc, argv, ":u:t:r:d:q:vVh", options, nullptr)) != -1) {
    switch (option) {
      case 'u':
        if (std::any_of(listeners.begin(), listeners.end(),
                        [](const Listener &l) { return l.kind == Kind::UnixListener; }))
          cli_usage_error("only one --unix socket");
        listeners.push_back({Kind::UnixListener, optarg, {}});
        break;
      case 't':
        listeners.push_back({Kind::TcpListener, optarg, inet_address("tcp", optarg, "tcp", true)});
        break;
      case 'r':
        listeners.push_back(
            {Kind::RawListener, optarg, inet_address("raw-tcp", optarg, "tcp", true)});
        break;
      case 'd':
        // Datagrams are answered and translated with IPv4 sender addresses.
        listeners.push_back({Kind::Udp, optarg, inet_address("udp", optarg, "udp", false)});
        break;
      case 'q': {
        char *end = nullptr;
        errno = 0;
        unsigned long long octets = strtoull(optarg, &end, 10);
        if (*optarg == '\0' || *end != '\0' || errno != 0 || octets == 0 || octets > SIZE_MAX / 2)
          cli_usage_error("bad --max-queue '%s': a number of octets above 0", optarg);
        hub.max_queued = static_cast<size_t>(octets);
        break;
      }
      case 'c': {
        char *end = nullptr;
        long ms = strtol(optarg, &end, 10);
        if (*optarg == '\0' || *end != '\0' || ms < 0 || ms > kMaxCoalesceMs)
          cli_usage_error("bad --coalesce '%s': milliseconds from 0 to %d", optarg, kMaxCoalesceMs);
        hub.pacing.longest = std::chrono::milliseconds(ms);
        break;
      }
      case 'v':
        hub.verbose = true;
        break;
      case 'U':
        hub.usm_path = optarg;
        break;
      case 'j':
        stream_url = optarg;
        break;
      case 'R':
      case 'A':
      case 'B':
      case 'b': {
        // Passed on as the stream URL's parameters, which the library checks.
        const char *key = option == 'R'   ? "replicas"
                          : option == 'A' ? "max_age"
                          : option == 'B' ? "max_bytes"
                                          : "batch";
        if (*optarg == '\0' || strspn(optarg, "0123456789") != strlen(optarg))
          cli_usage_error("bad stream limit '%s': a whole number is needed", optarg);
        stream_limits += std::string(stream_limits.empty() ? "" : "&") + key + "=" + optarg;
        break;
      }
      case 'V':
        cli_print_version();
        return 0;
      case 'h':
        usage();
        return 0;
      case ':':
        cli_usage_error("option '%s' needs a value", argv[optind - 1]);
      default:
        if (optopt != 0) cli_usage_error("unknown option '-%c'", optopt);
        cli_usage_error("unknown option '%s'", argv[optind - 1]);
    }
  }
  if (optind != argc) cli_usage_error("unexpected argument '%s'", argv[optind]);
  if (listeners.empty())
    cli_usage_error("at least one listener is needed (--unix, --tcp, --raw-tcp, --udp)");
  if (!hub.usm_path.empty()) start_usm(hub);
  for (const Listener &l : listeners) {
    int fd = l.kind == Kind::UnixListener ? listen_unix(l.where)
             : listen_inet(l.address, l.where, l.kind == Kind::Udp ? SOCK_DGRAM : SOCK_STREAM);
    hub.endpoints[fd] = Endpoint{l.kind, l.where, {}, {}, false, {}};
    printf("%s: listening on %s %s\n", cli_name(), listener_name(l.kind),
           l.kind == Kind::UnixListener ? l.where.c_str() : bound_address(fd).c_str());
  }
  if (!stream_url.empty()) {
    if (!stream_limits.empty())
      stream_url += (stream_url.find('?') == std::string::npos ? "?" : "&") + stream_limits;
    // The hub's own source number: no connected event of its own.
    if (open_event(&hub.stream, EVENT_SOURCE_HUBD, stream_url.c_str(), EVENT_TRANS_JETSTREAM) < 0)
      fail("cannot publish to %s", stream_url.c_str());
    hub.publishing = true;
    printf("%s: publishing to %s\n", cli_name(), stream_url.c_str());
  }
  serve(hub);
  usm_table_free(hub.usm);
  if (hub.publishing) close_event(&hub.stream);
  return 0;
}
