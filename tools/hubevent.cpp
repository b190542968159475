// hubevent: sends an event or a trap to hubd, or listens and prints every
// trap that arrives.
//
//   hubevent send [OPTIONS] event NUMBER DESCRIPTION [OPTIONS]
//   hubevent send [OPTIONS] trap ENTERPRISE GENERIC SPECIFIC [OID TYPE VALUE]... [OPTIONS]
//   hubevent listen [OPTIONS] [--format [KIND]] [--json] [FILTERS]
//
// Exit status: 0 done, 1 the connection or a send or receive failed,
// 2 bad usage.

#include <arpa/inet.h>
#include <fcntl.h>
#include <getopt.h>
#include <netdb.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "binding_args.h"
#include "cli.h"
#include "config_files.h"
#include "event.h"
#include "kz_mib.h"
#include "kz_platform.h"
#include "snmp.h"
#include "trp_format.h"
#include "usm.h"

namespace {

constexpr int kMaxBindings = 64;

const char kUsage[] =
    "usage: hubevent send [OPTIONS] event NUMBER DESCRIPTION [OPTIONS]\n"
    "       hubevent send [OPTIONS] trap ENTERPRISE GENERIC SPECIFIC [OID TYPE VALUE]...\n"
    "       hubevent listen [OPTIONS] [--format [KIND]] [--json] [FILTERS]\n"
    "       hubevent -V|--version\n"
    "options may also follow the command's words\n"
    "connection:\n"
    "  -t, --transport MODE  udp (1), unix (2), tcp (3), default (5), raw (6) or\n"
    "                        jetstream (7); default 5\n"
    "  -n, --name NAME       daemon host (udp, tcp), HOST:PORT (udp: that port, without\n"
    "                        connection events), socket path (unix),\n"
    "                        host+text/port (raw) or nats://HOST:PORT/STREAM (jetstream)\n"
    "      --durable NAME, --from WHERE   jetstream: the consumer listen takes from\n"
    "                        (hubevent) and where a new one starts\n"
    "  -s, --source N        application source number, 1 to 27; default 1\n"
    "      --status N, --target N   words copied into each transmission header\n"
    "event: --host H --data D --db D --object O --ip A --trap-specific T\n"
    "       --net-addr A --net-mask M\n"
    "trap:  --community C (public) --agent A.B.C.D (this host) --time TICKS (0);\n"
    "       TYPE is i INTEGER, u Gauge, c Counter, t TimeTicks, a IpAddress,\n"
    "       s OCTET STRING, x hex (\"00:11:22\" or \"00 11 22\") and d decimal\n"
    "       OCTET STRING, o OBJECT IDENTIFIER, n NULL\n"
    "listen: --count N   stop after N traps, connection events not counted\n"
    "        --format [KIND]  print each trap as the formatter lays it out for KIND:\n"
    "                     qmwevent (default), hubd, rqv, zxevents or wbx\n"
    "        --json       print each trap as one JSON object per line (with --format,\n"
    "                     the formatted text, category, severity and format name)\n"
    "        --color=WHEN  severity in colour: auto (on a terminal), always, never\n"
    "filters: --category N|NAME  --severity NAME|N  --enterprise OID  --agent A.B.C.D\n"
    "configuration (--format, --category, --severity): hubd.conf from KZHUBDCONF,\n"
    "        else KZ_CONF_DIR/C/hubd.conf; MIB labels from KZ_MIB_FILE, else\n"
    "        KZ_CONF_DIR/mib.labels; OID names from KZ_CONF_DIR/oid_to_label\n"
    "  --examples          use the bundled example configuration instead\n"
    "  --verbose           say which configuration files are read\n";

struct Options {
  int trans = EVENT_TRANS_DEFAULT;
  std::string name;
  int source = 1;
  int32_t status = 0;
  uint32_t target = 0;
  const char *texts[9] = {};  // host data db object ip trap-specific net-addr net-mask
  std::string community = "public";
  const char *agent = nullptr;
  uint32_t time = 0;
  long count = -1;
  int format_kind = -1;  // an rtrap_user, or -1: print the decoded fields
  std::string durable;    // jetstream: consumer name, and where it starts
  std::string from;
  bool json = false;
  bool verbose = false;
  bool color = false;
  // Filters of listen: empty or -1 when not given.
  std::string category;
  int severity = -1;
  ObjectIdEMS enterprise[SNMP_OID_MAX] = {};
  uint32_t enterprise_length = 0;
};

[[noreturn]] __attribute__((format(printf, 1, 2))) void usage_error(const char *fmt, ...) {
  char message[1024];
  va_list args;
  va_start(args, fmt);
  vsnprintf(message, sizeof message, fmt, args);
  va_end(args);
  cli_usage_error("%s", message);
}

[[noreturn]] __attribute__((format(printf, 1, 2))) void failure(const char *fmt, ...) {
  fprintf(stderr, "%s: ", cli_name());
  va_list args;
  va_start(args, fmt);
  vfprintf(stderr, fmt, args);
  va_end(args);
  fputc('\n', stderr);
  exit(1);
}

long number(const char *text, const char *what, long low, long high) {
  long value;
  if (!tools::read_number(text, low, high, 10, &value)) usage_error("bad %s '%s'", what, text);
  return value;
}

const struct {
  const char *name;
  int mode;
} kTransports[] = {{"udp", EVENT_TRANS_UDP},
                   {"unix", EVENT_TRANS_UNIX},
                   {"tcp", EVENT_TRANS_TCP},
                   {"default", EVENT_TRANS_DEFAULT},
                   {"raw", EVENT_TRANS_TCP_RAW},
                   {"jetstream", EVENT_TRANS_JETSTREAM}};

int transport(const char *text) {
  for (const auto &transport : kTransports)
    if (strcmp(text, transport.name) == 0) return transport.mode;
  int mode = static_cast<int>(number(text, "transport", EVENT_TRANS_UDP, EVENT_TRANS_JETSTREAM));
  if (mode == EVENT_TRANS_HOOK) usage_error("transport 4 only receives, through a hook");
  return mode;
}

const char *transport_name(int mode) {
  for (const auto &transport : kTransports)
    if (transport.mode == mode) return transport.name;
  return "?";
}

// The library sends UDP datagrams to port 162 only.  For "-t udp -n
// HOST:PORT" each message is framed bare (transport 6) into one end of a
// datagram socket pair, and pass_on sends it from the other end to
// HOST:PORT.  No connection events go that way: the pair is no connection.
int relay_pair = -1;  // the far end of the pair
int relay_out = -1;   // a UDP socket connected to HOST:PORT

event_infoEMS open_udp_port(const Options &options, const std::string &host,
                            const std::string &port) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo *found = nullptr;
  int resolved = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
  if (resolved != 0)
    failure("cannot connect by udp to %s: %s", options.name.c_str(), gai_strerror(resolved));
  relay_out = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  int pair[2];
  if (relay_out < 0 || connect(relay_out, found->ai_addr, found->ai_addrlen) != 0 ||
      socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair) != 0)
    failure("cannot connect by udp to %s: %s", options.name.c_str(), strerror(errno));
  freeaddrinfo(found);
  relay_pair = pair[1];
  event_infoEMS ei{};
  ei.sd = pair[0];
  ei.trans = EVENT_TRANS_TCP_RAW;
  ei.source = static_cast<uint32_t>(options.source);
  ei.agent = KZmyAddress();
  ei.status = options.status;
  ei.target = options.target;
  return ei;
}

// Passes what a send wrote into the pair on to HOST:PORT; returns `sent`.
int pass_on(int sent, const Options &options) {
  if (relay_pair < 0 || sent != 0) return sent;
  unsigned char message[EVENT_MAX_MESSAGE];
  ssize_t length = recv(relay_pair, message, sizeof message, MSG_DONTWAIT);
  if (length <= 0 || send(relay_out, message, static_cast<size_t>(length), 0) != length)
    failure("sending by udp to %s failed: %s", options.name.c_str(), strerror(errno));
  return 0;
}

void disconnect_hub(event_infoEMS *ei) {
  if (relay_pair < 0) {
    close_event(ei);
    return;
  }
  close(ei->sd);
  close(relay_pair);
  close(relay_out);
}

event_infoEMS connect_hub(const Options &options) {
  if (options.trans == EVENT_TRANS_UDP) {
    std::string name = options.name.rfind("udp:", 0) == 0 ? options.name.substr(4) : options.name;
    size_t colon = name.rfind(':');
    if (colon != std::string::npos)
      return open_udp_port(options, name.substr(0, colon), name.substr(colon + 1));
  }
  event_infoEMS ei{};
  ei.status = options.status;
  ei.target = options.target;
  const char *name = options.name.empty() ? nullptr : options.name.c_str();
  errno = 0;
  if (open_event(&ei, options.source, name, options.trans) < 0) {
    const char *reason = errno != 0 ? strerror(errno) : "no such host or service";
    if (options.trans == EVENT_TRANS_DEFAULT)
      failure(
          "cannot connect to the default daemon (KZ_HUBD_SOCKET, or KZ_SERVER if KZ_CLIENT=1): %s",
          reason);
    failure("cannot connect by %s to %s: %s", transport_name(options.trans),
            name ? name : "the local host", reason);
  }
  return ei;
}

int send_event_command(const Options &options, int argc, char **argv) {
  if (argc != 2) usage_error("send event takes NUMBER DESCRIPTION");
  int event = static_cast<int>(number(argv[0], "event number", INT32_MIN, UINT32_MAX));
  const char *const *t = options.texts;
  event_infoEMS ei = connect_hub(options);
  int result;
  if (t[6] || t[7])
    result = send_event_ex_ex(&ei, event, t[0], argv[1], t[1], t[2], t[3], t[4], t[5], t[6], t[7]);
  else if (t[3] || t[4] || t[5])
    result = send_event_ex(&ei, event, t[0], argv[1], t[1], t[2], t[3], t[4], t[5]);
  else
    result = send_event(&ei, event, t[0], argv[1], t[1], t[2]);
  result = pass_on(result, options);
  disconnect_hub(&ei);
  if (result != 0) failure("sending the event failed: %s", strerror(errno));
  return 0;
}

// Refuses what would not arrive as given: what the library's decoders
// refuse, and numbers its encoder sends as others.
void refuse_beyond_limits(const snmp_trap_infoEMS &trap, const SnmpVarBindEMS *vars) {
  int limit = snmp_trap_limit(&trap, vars);
  if (limit != SNMP_LIMIT_NONE) usage_error("cannot send a %s", snmp_limit_text(limit));
}

int send_trap_command(const Options &options, int argc, char **argv) {
  static snmp_trap_infoEMS trap;
  static SnmpVarBindEMS vars[kMaxBindings];
  std::string refused = tools::read_trap(argc, argv, &trap, vars, kMaxBindings);
  if (!refused.empty()) usage_error("%s", refused.c_str());
  if (options.community.size() >= SNMP_COMMUNITY_MAX) usage_error("community too long");
  memcpy(trap.community, options.community.data(), options.community.size());
  trap.clen = static_cast<int32_t>(options.community.size());
  trap.time = options.time;
  refuse_beyond_limits(trap, vars);
  in_addr agent{};
  if (options.agent != nullptr && inet_pton(AF_INET, options.agent, &agent) != 1)
    usage_error("bad agent address '%s'", options.agent);

  event_infoEMS ei = connect_hub(options);
  trap.agent = ntohl(options.agent != nullptr ? agent.s_addr : ei.agent);
  int result = pass_on(send_trap(&ei, &trap, vars), options);
  disconnect_hub(&ei);
  if (result == -1) failure("the trap cannot be encoded");
  if (result != 0) failure("sending the trap failed: %s", strerror(errno));
  return 0;
}

// An IPv4 address whose octets lie in memory in wire order.
std::string address_text(const void *wire_order) {
  const auto *octets = static_cast<const unsigned char *>(wire_order);
  char text[16];
  snprintf(text, sizeof text, "%u.%u.%u.%u", octets[0], octets[1], octets[2], octets[3]);
  return text;
}

// An octet string by the value printers' rule: text (printable UTF-8), or
// "0x" and hexadecimal pairs.  *hex says which.
std::string octet_text(const unsigned char *octets, uint32_t length, bool *hex) {
  static char text[SNMP_STRING_MAX * 3 + 3];
  length = std::min<uint32_t>(length, SNMP_STRING_MAX);
  formatOctetString(text, sizeof text, const_cast<unsigned char *>(octets),
                    static_cast<int>(length));
  // The text form copies the octets unchanged; the hexadecimal one never does.
  *hex = std::string_view(text) != std::string_view(reinterpret_cast<const char *>(octets), length);
  return text;
}

// A binding's type name, the same in every output: formatKind's.
std::string kind_name(SnmpVarBindEMS &b) {
  char kind[32];
  formatKind(kind, sizeof kind, &b);
  std::string name = kind;
  while (!name.empty() && name.back() == ' ') name.pop_back();
  return name;
}

// How a value's text reads: a number, address or identifier as it is, or
// an octet string as text or in hexadecimal.
enum class Form { kPlain, kText, kHex };

// A binding's value as plain and JSON output show it: numbers, dotted
// addresses and identifiers, octet strings by octet_text.
std::string value_text(const SnmpVarBindEMS &b, Form *form) {
  *form = Form::kPlain;
  bool hex = false;
  std::string text;
  switch (b.type) {
    case ASN_INTEGER:
      return std::to_string(b.val.integer);
    case ASN_COUNTER:
    case ASN_GAUGE:
    case ASN_TIMETICKS:
      return std::to_string(static_cast<uint32_t>(b.val.integer));
    case ASN_IPADDRESS:
      return address_text(&b.val.integer);
    case ASN_OBJECT_ID:
      return tools::dotted(b.val.objid, b.val_len);
    case ASN_NULL:
      return "";
    default:
      text = octet_text(b.val.string, b.val_len, &hex);
      *form = hex ? Form::kHex : Form::kText;
      return text;
  }
}

// Text quoted for a line of its own: quotes, backslashes and control
// characters escaped; other octets (UTF-8 included) as they are.
std::string quoted_text(const std::string &text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 32 || c == 127) {
      char escape[8];
      snprintf(escape, sizeof escape, "\\x%02x", c);
      out += escape;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + '"';
}

int format_kind(const char *text) {
  static const char *const kinds[] = {"qmwevent", "hubd", "rqv", "zxevents", "wbx"};
  for (int kind = 0; kind < 5; ++kind)
    if (strcmp(text, kinds[kind]) == 0) return kind;
  return -1;
}

// What the configuration makes of a trap: the formatter's text and
// category, and the format it chose.
struct Classified {
  bool shown = false;  // false: the kind does not show this trap
  int category = -1;
  const trap_record *record = nullptr;
  std::string text;
};

// Reads the configuration before the first trap arrives, so that a file
// that is missing or wrong is reported at once and not as a trap's text.
void load_configuration() {
  const char *hint = "hubevent --verbose lists the files; --examples uses the bundled ones";
  if (KZmib_load_mib() != 0)
    failure("cannot read the MIB label file %s (%s)", KZmib_get_mib_filename(), hint);
  char *error = nullptr;
  if (read_trapspec_file(&error) != 0) {
    std::string reason = error != nullptr ? error : "";
    while (!reason.empty() && reason.back() == '\n') reason.pop_back();
    failure("cannot read the trap configuration: %s (%s)", reason.c_str(), hint);
  }
}

// Formats the trap for `kind` and finds the format it chose.
Classified classify(int kind, snmp_trap_infoEMS &trap, SnmpVarBindEMS *vars) {
  static char text[16384];
  text[0] = '\0';
  char *host = nullptr;
  Classified result;
  result.category =
      trp_format(static_cast<rtrap_user>(kind), &trap, text, sizeof text, vars, &host, 0);
  if (result.category == -1) return result;
  result.shown = true;
  result.text = text;
  if (host == nullptr) return result;  // the configuration could not be reloaded
  trap_record *record = nullptr;
  enterprise_info *enterprise = nullptr;
  find_trap_format(trap.enterprise, static_cast<unsigned>(trap.elen), trap.gen, trap.specific,
                   &record, &enterprise, host);
  result.record = record;
  return result;
}

const char *category_name(int category) {
  if (category < 0 || category >= EMS_MAX_CATEGORIES || EMScategories[category] == nullptr)
    return "";
  return EMScategories[category];
}

// ANSI colours of the severities 0 (Cleared) to 5 (Major).
const char *const kSeverityColors[] = {"32", "", "36", "33", "1;31", "31"};

std::string painted(const std::string &text, int severity, bool color) {
  if (!color || severity < 0 || severity > 5 || *kSeverityColors[severity] == '\0') return text;
  std::string body = text, tail;
  while (!body.empty() && body.back() == '\n') {
    body.pop_back();
    tail += '\n';
  }
  return std::string("\033[") + kSeverityColors[severity] + "m" + body + "\033[0m" + tail;
}

int severity_of(const Classified &c) { return c.record != nullptr ? c.record->severity : -1; }

// The receive time, local, to the millisecond: 2026-11-24T04:10:02.345+0000.
std::string received_time() {
  timeval now{};
  gettimeofday(&now, nullptr);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char date[32], zone[8];
  strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &local);
  strftime(zone, sizeof zone, "%z", &local);
  char text[64];
  snprintf(text, sizeof text, "%s.%03ld%s", date, static_cast<long>(now.tv_usec / 1000), zone);
  return text;
}

nlohmann::ordered_json binding_json(SnmpVarBindEMS &b) {
  nlohmann::ordered_json binding = {{"oid", tools::dotted(b.oid, b.oid_length)},
                                    {"type", kind_name(b)}};
  nlohmann::ordered_json &value = binding["value"];
  Form form = Form::kPlain;
  switch (b.type) {
    case ASN_INTEGER:
      value = b.val.integer;
      break;
    case ASN_COUNTER:
    case ASN_GAUGE:
    case ASN_TIMETICKS:
      value = static_cast<uint32_t>(b.val.integer);
      break;
    case ASN_NULL:
      break;
    default:
      value = value_text(b, &form);
      if (form != Form::kPlain) binding["encoding"] = form == Form::kHex ? "hex" : "text";
      break;
  }
  return binding;
}

// The user and security level of a trap relayed from SNMPv3, if it is one.
void add_usm_fields(nlohmann::ordered_json &line, const snmp_trap_infoEMS &trap,
                    const SnmpVarBindEMS *vars) {
  char user[USM_NAME_MAX + 1];
  int level = usm_annotation(&trap, vars, user);
  if (level == 0) return;
  line["user"] = user;
  line["security_level"] = usm_level_name(level);
}

// One trap as one line of JSON.  Octet strings pass through the value
// printers' rule first; anything that is still not UTF-8 is replaced
// rather than allowed to stop the listener.
void print_json(long index, int length, const trap_headerEMS &header, snmp_trap_infoEMS &trap,
                SnmpVarBindEMS *vars, const Classified *classified) {
  ObjectIdEMS trap_oid[SNMP_OID_MAX + 2];
  int trap_oid_length = snmp_notification_oid(&trap, trap_oid, SNMP_OID_MAX + 2);
  bool hex = false;
  nlohmann::ordered_json line = {
      {"trap", index},
      {"received", received_time()},
      {"length", length},
      {"header",
       {{"source", header.src}, {"pid", header.pid}, {"status", header.status},
        {"target", header.target}, {"time", header.time}}},
      {"community", octet_text(trap.community, static_cast<uint32_t>(trap.clen), &hex)},
      {"enterprise", tools::dotted(trap.enterprise, static_cast<uint32_t>(trap.elen))},
      {"agent", address_text(&trap.agent)},
      {"generic", trap.gen},
      {"specific", trap.specific},
      {"time", trap.time},
      {"trap_oid", trap_oid_length < 0 ? nlohmann::ordered_json()
                                       : nlohmann::ordered_json(tools::dotted(
                                             trap_oid, static_cast<uint32_t>(trap_oid_length)))},
      {"bindings", nlohmann::ordered_json::array()}};
  for (int i = 0; i < trap.vars; ++i) line["bindings"].push_back(binding_json(vars[i]));
  add_usm_fields(line, trap, vars);
  if (classified != nullptr) {
    line["format"] = classified->record != nullptr ? classified->record->name : "";
    line["category"] = classified->category;
    line["category_name"] = category_name(classified->category);
    line["severity"] = severityToString(severity_of(*classified));
    line["text"] = classified->text;
  }
  puts(line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace).c_str());
  fflush(stdout);
}

void print_trap(long index, int length, const trap_headerEMS &header, snmp_trap_infoEMS &trap,
                SnmpVarBindEMS *vars, const Classified *classified, bool color) {
  printf("trap %ld received %s: %d octets from source %u, pid %d, status %d, target %u\n", index,
         received_time().c_str(), length, header.src, header.pid, header.status, header.target);
  bool hex = false;
  printf("  community   %s\n",
         octet_text(trap.community, static_cast<uint32_t>(trap.clen), &hex).c_str());
  printf("  enterprise  %s\n",
         tools::dotted(trap.enterprise, static_cast<uint32_t>(trap.elen)).c_str());
  printf("  agent       %s\n", address_text(&trap.agent).c_str());
  printf("  generic     %u\n  specific    %u\n  time        %u\n", trap.gen, trap.specific,
         trap.time);
  if (classified != nullptr && classified->record != nullptr) {
    int severity = severity_of(*classified);
    printf("  format      %s, category %d %s, severity %s\n", classified->record->name,
           classified->category, category_name(classified->category),
           painted(severityToString(severity), severity, color).c_str());
  }
  for (int i = 0; i < trap.vars; ++i) {
    Form form = Form::kPlain;
    std::string value = value_text(vars[i], &form);
    printf("  %s = %s: %s\n", tools::dotted(vars[i].oid, vars[i].oid_length).c_str(),
           kind_name(vars[i]).c_str(), (form == Form::kText ? quoted_text(value) : value).c_str());
  }
  putchar('\n');
  fflush(stdout);
}

// The connected and disconnecting events that every client of the daemon
// sends about itself.
bool is_connection_event(const snmp_trap_infoEMS &trap) {
  static const ObjectIdEMS kPlatform[] = {1, 3, 6, 1, 4, 1, 49999, 6, 3, 1};
  constexpr int kArcs = sizeof kPlatform / sizeof kPlatform[0];
  return trap.gen == 6 && trap.elen == kArcs &&
         memcmp(trap.enterprise, kPlatform, sizeof kPlatform) == 0 &&
         (trap.specific == EVENT_CONNECTED || trap.specific == EVENT_DISCONNECTING);
}

// Whether the category given as a filter (a number or a name, any case)
// is `category`.
bool category_matches(const std::string &wanted, int category) {
  long number;
  if (tools::read_number(wanted.c_str(), 0, EMS_MAX_CATEGORIES - 1, 10, &number))
    return number == category;
  return strcasecmp(wanted.c_str(), category_name(category)) == 0;
}

bool passes_filters(const Options &options, const snmp_trap_infoEMS &trap,
                    const Classified *classified) {
  if (options.enterprise_length > 0 &&
      (static_cast<uint32_t>(trap.elen) < options.enterprise_length ||
       memcmp(trap.enterprise, options.enterprise,
              options.enterprise_length * sizeof(ObjectIdEMS)) != 0))
    return false;
  if (options.agent != nullptr) {
    in_addr agent{};
    inet_pton(AF_INET, options.agent, &agent);
    if (memcmp(&agent, &trap.agent, sizeof trap.agent) != 0) return false;
  }
  if (classified == nullptr) return true;
  if (!options.category.empty() && !category_matches(options.category, classified->category))
    return false;
  return options.severity < 0 || options.severity == severity_of(*classified);
}

// Why a message that arrived is not a trap, from the receive result and, for
// a decoding failure, the decoder's own verdict on the octets.
std::string undecodable_reason(int result) {
  if (result == EVENT_RECV_NOT_SEQUENCE) return "it does not start with a SEQUENCE";
  if (result == EVENT_RECV_BAD_SIZE)
    return "its length is under 20 or over " + std::to_string(EVENT_MAX_MESSAGE) + " octets";
  static snmp_trap_infoEMS trap;
  static SnmpVarBindEMS vars[kMaxBindings];
  snmp_trap_reset_capacities(&trap, kMaxBindings);
  int length = std::min(recv_headerEMS->len, EVENT_MAX_MESSAGE);
  int decoded = snmp_parse_notification(recv_packetEMS, length, 0, &trap, vars, nullptr);
  return decoded == SNMP_NOTIFICATION_OK ? "it cannot be decoded"
                                         : snmp_notification_error(decoded);
}

int stop_pipe[2] = {-1, -1};

void on_stop(int) {
  char byte = 0;
  ssize_t ignored = write(stop_pipe[1], &byte, 1);
  (void)ignored;
}

int listen_command(const Options &options, int argc) {
  if (argc != 0) usage_error("listen takes no arguments");
  if (pipe2(stop_pipe, O_CLOEXEC) != 0) failure("pipe: %s", strerror(errno));
  struct sigaction action {};
  action.sa_handler = on_stop;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);

  // The configuration is read only when something needs a trap's format.
  const bool configured =
      options.format_kind >= 0 || !options.category.empty() || options.severity >= 0;
  const int kind = options.format_kind >= 0 ? options.format_kind : HUBD_USER;
  event_infoEMS ei = connect_hub(options);
  if (configured && options.verbose) config_report(stderr);
  if (configured) load_configuration();
  fprintf(stderr, "%s: listening\n", cli_name());
  static snmp_trap_infoEMS trap;
  static SnmpVarBindEMS vars[kMaxBindings];
  int status = 0;
  long received = 0, undecodable = 0;
  while (options.count < 0 || received < options.count) {
    pollfd waits[2] = {{ei.sd, POLLIN, 0}, {stop_pipe[0], POLLIN, 0}};
    if (poll(waits, 2, -1) < 0) continue;
    if (waits[1].revents) break;
    snmp_trap_reset_capacities(&trap, kMaxBindings);
    trap_headerEMS *header = nullptr;
    errno = 0;  // set only when the receive, not the decoding, fails
    int length = recv_event_hdr(&ei, &trap, vars, &header);
    if (length > 0) {
      Classified classified;
      if (configured) classified = classify(kind, trap, vars);
      if (configured && !classified.shown) continue;
      const Classified *about = configured ? &classified : nullptr;
      if (!passes_filters(options, trap, about)) continue;
      long index = is_connection_event(trap) ? received + 1 : ++received;
      if (options.json) {
        print_json(index, length, *header, trap, vars, options.format_kind >= 0 ? about : nullptr);
      } else if (options.format_kind >= 0) {
        fputs(painted(classified.text, severity_of(classified), options.color).c_str(), stdout);
        fflush(stdout);
      } else {
        print_trap(index, length, *header, trap, vars, about, options.color);
      }
    } else if (length == EVENT_RECV_CLOSED) {
      fprintf(stderr, "%s: the daemon closed the connection\n", cli_name());
      status = 1;
      break;
    } else if ((length == EVENT_RECV_ERROR && errno == 0) || length == EVENT_RECV_NOT_SEQUENCE ||
               length == EVENT_RECV_BAD_SIZE) {
      if (length == EVENT_RECV_ERROR && ei.trans == EVENT_TRANS_TCP_RAW) {
        fprintf(stderr, "%s: the stream holds a message whose length cannot be read\n",
                cli_name());
        status = 1;
        break;
      }
      ++undecodable;
      fprintf(stderr, "%s: skipped a message of %d octets that is not a trap: %s\n", cli_name(),
              recv_headerEMS->len, undecodable_reason(length).c_str());
    } else {
      fprintf(stderr, "%s: receiving failed: %s\n", cli_name(), strerror(errno));
      status = 1;
      break;
    }
  }
  if (options.verbose || undecodable > 0)
    fprintf(stderr, "%s: %ld traps, %ld messages not decodable\n", cli_name(), received,
            undecodable);
  close_event(&ei);
  return status;
}

// Reads the value of --color.
bool color_wanted(const char *when) {
  if (when == nullptr || strcmp(when, "always") == 0) return true;
  if (strcmp(when, "never") == 0) return false;
  if (strcmp(when, "auto") != 0) usage_error("--color takes auto, always or never, not '%s'", when);
  const char *term = getenv("TERM");
  return isatty(STDOUT_FILENO) && getenv("NO_COLOR") == nullptr && term != nullptr &&
         strcmp(term, "dumb") != 0;
}

int severity_number(const char *text) {
  long number;
  if (tools::read_number(text, 0, 5, 10, &number)) return static_cast<int>(number);
  for (int severity = 0; severity <= 5; ++severity)
    if (strcasecmp(text, severityToString(severity)) == 0) return severity;
  usage_error("unknown severity '%s' (Cleared, Indeterminate, Warning, Minor, Critical, Major or "
              "0 to 5)",
              text);
}

// Whether the next argument is one of the command's words even when it
// begins with '-': an event's NUMBER and DESCRIPTION, a binding's VALUE.
bool next_is_word(const std::vector<char *> &words) {
  if (words.empty()) return false;
  if (strcmp(words[0], "event") == 0) return words.size() == 1 || words.size() == 2;
  return strcmp(words[0], "trap") == 0 && words.size() >= 6 && (words.size() - 6) % 3 == 0;
}

}  // namespace

int main(int argc, char **argv) {
  cli_init(argv[0]);
  // Printable UTF-8 in octet strings is text, whatever the caller's locale.
  if (setlocale(LC_CTYPE, "C.UTF-8") == nullptr) setlocale(LC_CTYPE, "");
  enum {
    kStatus = 256,
    kTarget,
    kHost,
    kData,
    kDb,
    kObject,
    kIp,
    kTrapSpecific,
    kNetAddr,
    kNetMask,
    kCommunity,
    kAgent,
    kTime,
    kCount,
    kFormat,
    kJson,
    kVerbose,
    kExamples,
    kColor,
    kCategory,
    kSeverity,
    kEnterprise,
    kDurable,
    kFrom
  };
  static const option options_table[] = {
      {"transport", required_argument, nullptr, 't'},
      {"name", required_argument, nullptr, 'n'},
      {"source", required_argument, nullptr, 's'},
      {"status", required_argument, nullptr, kStatus},
      {"target", required_argument, nullptr, kTarget},
      {"host", required_argument, nullptr, kHost},
      {"data", required_argument, nullptr, kData},
      {"db", required_argument, nullptr, kDb},
      {"object", required_argument, nullptr, kObject},
      {"ip", required_argument, nullptr, kIp},
      {"trap-specific", required_argument, nullptr, kTrapSpecific},
      {"net-addr", required_argument, nullptr, kNetAddr},
      {"net-mask", required_argument, nullptr, kNetMask},
      {"community", required_argument, nullptr, kCommunity},
      {"agent", required_argument, nullptr, kAgent},
      {"time", required_argument, nullptr, kTime},
      {"count", required_argument, nullptr, kCount},
      {"format", optional_argument, nullptr, kFormat},
      {"json", no_argument, nullptr, kJson},
      {"verbose", no_argument, nullptr, kVerbose},
      {"examples", no_argument, nullptr, kExamples},
      {"color", optional_argument, nullptr, kColor},
      {"category", required_argument, nullptr, kCategory},
      {"severity", required_argument, nullptr, kSeverity},
      {"enterprise", required_argument, nullptr, kEnterprise},
      {"durable", required_argument, nullptr, kDurable},
      {"from", required_argument, nullptr, kFrom},
      {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'V'},
      {nullptr, 0, nullptr, 0}};
  if (argc < 2) usage_error("a command is required: send or listen");
  if (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0) {
    fputs(kUsage, stdout);
    return 0;
  }
  if (strcmp(argv[1], "--version") == 0 || strcmp(argv[1], "-V") == 0) {
    cli_print_version();
    return 0;
  }
  std::string command = argv[1];
  if (command != "send" && command != "listen") usage_error("unknown command %s", argv[1]);

  Options options;
  bool examples = false;
  const char *enterprise = nullptr;
  options.color = color_wanted("auto");
  std::vector<char *> words;
  opterr = 0;
  optind = 2;
  for (;;) {
    int option;
    while ((option = getopt_long(argc, argv, "+:t:n:s:hV", options_table, nullptr)) != -1) {
      if (option >= kHost && option <= kNetMask) {
        options.texts[option - kHost] = optarg;
        continue;
      }
      switch (option) {
        case 't':
          options.trans = transport(optarg);
          break;
        case 'n':
          options.name = optarg;
          break;
        case 's':
          options.source =
              static_cast<int>(number(optarg, "source", EVENT_SOURCE_FIRST, EVENT_SOURCE_LAST));
          break;
        case kStatus:
          options.status = static_cast<int32_t>(number(optarg, "status", INT32_MIN, INT32_MAX));
          break;
        case kTarget:
          options.target = static_cast<uint32_t>(number(optarg, "target", 0, UINT32_MAX));
          break;
        case kCommunity:
          options.community = optarg;
          break;
        case kAgent:
          options.agent = optarg;
          break;
        case kTime:
          options.time = static_cast<uint32_t>(number(optarg, "time", 0, UINT32_MAX));
          break;
        case kCount:
          options.count = number(optarg, "count", 1, LONG_MAX);
          break;
        case kFormat: {
          // The kind may follow as a word of its own: "--format hubd".
          const char *kind = optarg;
          if (kind == nullptr && optind < argc && format_kind(argv[optind]) >= 0)
            kind = argv[optind++];
          options.format_kind = kind == nullptr ? QMWEVENT_USER : format_kind(kind);
          if (options.format_kind < 0) usage_error("unknown format kind '%s'", kind);
          break;
        }
        case kJson:
          options.json = true;
          break;
        case kVerbose:
          options.verbose = true;
          break;
        case kExamples:
          examples = true;
          break;
        case kColor:
          options.color = color_wanted(optarg);
          break;
        case kCategory:
          options.category = optarg;
          break;
        case kSeverity:
          options.severity = severity_number(optarg);
          break;
        case kEnterprise:
          enterprise = optarg;  // read once the configuration is known
          break;
        case kDurable:
          options.durable = optarg;
          break;
        case kFrom:
          options.from = optarg;
          break;
        case 'h':
          fputs(kUsage, stdout);
          return 0;
        case 'V':
          cli_print_version();
          return 0;
        case ':':
          usage_error("option %s needs a value", argv[optind - 1]);
        default:
          usage_error("unknown option %s", argv[optind - 1]);
      }
    }
    if (optind >= argc) break;
    words.push_back(argv[optind++]);
    while (next_is_word(words) && optind < argc) words.push_back(argv[optind++]);
  }
  if (options.trans == EVENT_TRANS_UNIX && options.name.empty())
    usage_error("-t unix needs the socket path: -n PATH");
  if (command == "listen" && options.agent != nullptr) {
    in_addr agent{};
    if (inet_pton(AF_INET, options.agent, &agent) != 1)
      usage_error("bad agent address '%s'", options.agent);
  }
  if (examples && config_use_examples() != 0) return 1;
  // Identifiers may be names of the MIB label file and oid_to_label.
  tools::load_names();
  if (enterprise != nullptr &&
      !tools::read_oid(enterprise, options.enterprise, &options.enterprise_length))
    usage_error("bad enterprise '%s'", enterprise);
  if (options.trans == EVENT_TRANS_JETSTREAM) {
    if (options.name.empty()) usage_error("-t jetstream needs the stream's URL: -n nats://...");
    if (command == "listen") {
      options.name += options.name.find('?') == std::string::npos ? '?' : '&';
      options.name += "durable=" + (options.durable.empty() ? "hubevent" : options.durable);
      if (!options.from.empty()) options.name += "&from=" + options.from;
    }
  } else if (!options.durable.empty() || !options.from.empty()) {
    usage_error("--durable and --from are for -t jetstream");
  }
  int rest = static_cast<int>(words.size());
  words.push_back(nullptr);
  char **args = words.data();
  if (command == "listen") return listen_command(options, rest);
  if (rest >= 1 && strcmp(args[0], "event") == 0)
    return send_event_command(options, rest - 1, args + 1);
  if (rest >= 1 && strcmp(args[0], "trap") == 0)
    return send_trap_command(options, rest - 1, args + 1);
  usage_error("send takes 'event' or 'trap'");
}
