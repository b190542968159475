// hubevent: sends an event or a trap to hubd, or listens and prints every
// trap that arrives.
//
//   hubevent send [OPTIONS] event NUMBER DESCRIPTION
//   hubevent send [OPTIONS] trap ENTERPRISE GENERIC SPECIFIC [OID TYPE VALUE]...
//   hubevent listen [OPTIONS] [--format [KIND]] [--json]
//
// Exit status: 0 done, 1 the connection or a send or receive failed,
// 2 bad usage.

#include <arpa/inet.h>
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "binding_args.h"
#include "event.h"
#include "snmp.h"
#include "trp_format.h"

namespace {

constexpr int kMaxBindings = 64;

const char kUsage[] =
    "usage: hubevent send [OPTIONS] event NUMBER DESCRIPTION\n"
    "       hubevent send [OPTIONS] trap ENTERPRISE GENERIC SPECIFIC [OID TYPE VALUE]...\n"
    "       hubevent listen [OPTIONS] [--format [KIND]] [--json]\n"
    "       hubevent --version\n"
    "connection:\n"
    "  -t, --transport MODE  udp (1), unix (2), tcp (3), default (5) or raw (6); default 5\n"
    "  -n, --name NAME       daemon host (udp, tcp), socket path (unix) or\n"
    "                        host+text/port (raw)\n"
    "  -s, --source N        application source number, 1 to 27; default 1\n"
    "      --status N, --target N   words copied into each transmission header\n"
    "event: --host H --data D --db D --object O --ip A --trap-specific T\n"
    "       --net-addr A --net-mask M\n"
    "trap:  --community C (public) --agent A.B.C.D (this host) --time TICKS (0);\n"
    "       TYPE is i INTEGER, u Gauge, c Counter, t TimeTicks, a IpAddress,\n"
    "       s OCTET STRING, x hex and d decimal OCTET STRING, o OBJECT IDENTIFIER,\n"
    "       n NULL\n"
    "listen: --count N   stop after N traps (default: until interrupted)\n"
    "        --format [KIND]  print each trap as the formatter lays it out for KIND:\n"
    "                     qmwevent (default), hubd, rqv, zxevents or wbx; hubd.conf,\n"
    "                     oid_to_label and MIB labels from KZHUBDCONF, KZ_CONF_DIR and\n"
    "                     KZ_MIB_FILE, else from the bundled examples\n"
    "        --json       print each trap as one JSON object per line (with --format,\n"
    "                     the formatted text as its \"text\")\n";

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
};

// Reports on standard error and ends with `status`; bad usage (2) also
// shows the usage text.
[[noreturn]] void quit(int status, const char *fmt, va_list args) {
  fputs("hubevent: ", stderr);
  vfprintf(stderr, fmt, args);
  fputc('\n', stderr);
  if (status == 2) fputs(kUsage, stderr);
  exit(status);
}

[[noreturn]] __attribute__((format(printf, 1, 2))) void usage_error(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  quit(2, fmt, args);
}

[[noreturn]] __attribute__((format(printf, 1, 2))) void failure(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  quit(1, fmt, args);
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

void parse_binding(const char *name, const char *type, const char *value, SnmpVarBindEMS *b) {
  memset(b, 0, sizeof *b);
  if (!tools::read_oid(name, b->oid, &b->oid_length))
    usage_error("bad object identifier '%s'", name);
  std::string refused = tools::read_value(type, value, b);
  if (!refused.empty()) usage_error("%s", refused.c_str());
}

event_infoEMS connect_hub(const Options &options) {
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
  close_event(&ei);
  if (result != 0) failure("sending the event failed: %s", strerror(errno));
  return 0;
}

int send_trap_command(const Options &options, int argc, char **argv) {
  if (argc < 3 || (argc - 3) % 3 != 0)
    usage_error("send trap takes ENTERPRISE GENERIC SPECIFIC and OID TYPE VALUE triples");
  if ((argc - 3) / 3 > kMaxBindings) usage_error("at most %d bindings", kMaxBindings);
  static snmp_trap_infoEMS trap;
  static SnmpVarBindEMS vars[kMaxBindings];
  if (options.community.size() >= SNMP_COMMUNITY_MAX) usage_error("community too long");
  memcpy(trap.community, options.community.data(), options.community.size());
  trap.clen = static_cast<int32_t>(options.community.size());
  uint32_t elen;
  if (!tools::read_oid(argv[0], trap.enterprise, &elen)) usage_error("bad enterprise '%s'", argv[0]);
  trap.elen = static_cast<int32_t>(elen);
  trap.gen = static_cast<uint32_t>(number(argv[1], "generic trap", 0, 6));
  trap.specific = static_cast<uint32_t>(number(argv[2], "specific trap", 0, UINT32_MAX));
  trap.time = options.time;
  trap.vars = (argc - 3) / 3;
  trap.maxvars = kMaxBindings;
  for (int i = 0; i < trap.vars; ++i)
    parse_binding(argv[3 + 3 * i], argv[4 + 3 * i], argv[5 + 3 * i], &vars[i]);
  in_addr agent{};
  if (options.agent != nullptr && inet_pton(AF_INET, options.agent, &agent) != 1)
    usage_error("bad agent address '%s'", options.agent);

  event_infoEMS ei = connect_hub(options);
  trap.agent = ntohl(options.agent != nullptr ? agent.s_addr : ei.agent);
  int result = send_trap(&ei, &trap, vars);
  close_event(&ei);
  if (result == -1) failure("the trap cannot be encoded");
  if (result != 0) failure("sending the trap failed: %s", strerror(errno));
  return 0;
}

std::string dotted(const ObjectIdEMS *arcs, uint32_t length) {
  std::string text;
  for (uint32_t i = 0; i < length && i < SNMP_OID_MAX; ++i) {
    if (i > 0) text += '.';
    text += std::to_string(arcs[i]);
  }
  return text;
}

// An IPv4 address whose octets lie in memory in wire order.
std::string address_text(const void *wire_order) {
  const auto *octets = static_cast<const unsigned char *>(wire_order);
  char text[16];
  snprintf(text, sizeof text, "%u.%u.%u.%u", octets[0], octets[1], octets[2], octets[3]);
  return text;
}

void print_value(const SnmpVarBindEMS &b) {
  switch (b.type) {
    case ASN_INTEGER:
      printf("INTEGER %d", b.val.integer);
      break;
    case ASN_COUNTER:
      printf("Counter %u", static_cast<uint32_t>(b.val.integer));
      break;
    case ASN_GAUGE:
      printf("Gauge %u", static_cast<uint32_t>(b.val.integer));
      break;
    case ASN_TIMETICKS:
      printf("TimeTicks %u", static_cast<uint32_t>(b.val.integer));
      break;
    case ASN_IPADDRESS:
      printf("IpAddress %s", address_text(&b.val.integer).c_str());
      break;
    case ASN_NULL:
      printf("NULL");
      break;
    case ASN_OBJECT_ID:
      printf("OID %s", dotted(b.val.objid, b.val_len).c_str());
      break;
    default:
      printf(b.type == ASN_OCTET_STR ? "STRING \"" : "OCTETS(0x%02x) \"", b.type);
      for (uint32_t i = 0; i < b.val_len && i < SNMP_STRING_MAX; ++i) {
        unsigned char c = b.val.string[i];
        if (c == '"' || c == '\\')
          printf("\\%c", c);
        else if (c >= 32 && c < 127)
          putchar(c);
        else
          printf("\\x%02x", c);
      }
      putchar('"');
      break;
  }
}

int format_kind(const char *text) {
  static const char *const kinds[] = {"qmwevent", "hubd", "rqv", "zxevents", "wbx"};
  for (int kind = 0; kind < 5; ++kind)
    if (strcmp(text, kinds[kind]) == 0) return kind;
  return -1;
}

// Points the formatter at the bundled examples for whatever the environment
// leaves unset.  The examples' node lists name installed paths, so they are
// read when a trap is matched, not when the file is loaded.
void use_bundled_configuration() {
  const std::string examples = EVENTS_EXAMPLES_DIR;
  if (getenv("KZHUBDCONF") == nullptr) {
    setHubdConfFile((examples + "/hubd.conf").c_str());
    trpFormatExpandSourceFiles = 0;
  }
  if (getenv("KZ_CONF_DIR") == nullptr) setenv("KZ_CONF_DIR", examples.c_str(), 1);
  if (getenv("KZ_MIB_FILE") == nullptr)
    setenv("KZ_MIB_FILE", (examples + "/mib.labels").c_str(), 1);
}

// The trap's text as the formatter lays it out for `kind`: the lines, or
// the reason the configuration could not be loaded; empty when the trap
// is not shown to that kind.
std::string formatted(int kind, snmp_trap_infoEMS &trap, SnmpVarBindEMS *vars) {
  static char text[16384];
  text[0] = '\0';
  char *host = nullptr;
  if (trp_format(static_cast<rtrap_user>(kind), &trap, text, sizeof text, vars, &host, 0) == -1)
    return "";
  return text;
}

// An octet string by the value printers' rule: text, or "0x" and
// hexadecimal pairs when it is not.
std::string octet_text(const unsigned char *octets, uint32_t length) {
  static char text[SNMP_STRING_MAX * 3 + 3];
  formatOctetString(text, sizeof text, const_cast<unsigned char *>(octets),
                    static_cast<int>(std::min<uint32_t>(length, SNMP_STRING_MAX)));
  return text;
}

nlohmann::ordered_json binding_json(SnmpVarBindEMS &b) {
  char kind[32];
  formatKind(kind, sizeof kind, &b);
  nlohmann::ordered_json binding = {{"oid", dotted(b.oid, b.oid_length)}, {"type", kind}};
  nlohmann::ordered_json &value = binding["value"];
  switch (b.type) {
    case ASN_INTEGER:
      value = b.val.integer;
      break;
    case ASN_COUNTER:
    case ASN_GAUGE:
    case ASN_TIMETICKS:
      value = static_cast<uint32_t>(b.val.integer);
      break;
    case ASN_IPADDRESS:
      value = address_text(&b.val.integer);
      break;
    case ASN_OBJECT_ID:
      value = dotted(b.val.objid, b.val_len);
      break;
    case ASN_NULL:
      break;
    default:
      value = octet_text(b.val.string, b.val_len);
      break;
  }
  return binding;
}

// One trap as one line of JSON.  Octet strings pass through the value
// printers' rule first; anything that is still not UTF-8 is replaced
// rather than allowed to stop the listener.
void print_json(long index, int length, const trap_headerEMS &header, snmp_trap_infoEMS &trap,
                SnmpVarBindEMS *vars, int format_kind) {
  ObjectIdEMS trap_oid[SNMP_OID_MAX + 2];
  int trap_oid_length = snmp_notification_oid(&trap, trap_oid, SNMP_OID_MAX + 2);
  nlohmann::ordered_json line = {
      {"trap", index},
      {"length", length},
      {"header",
       {{"source", header.src}, {"pid", header.pid}, {"status", header.status},
        {"target", header.target}, {"time", header.time}}},
      {"community", octet_text(trap.community, static_cast<uint32_t>(trap.clen))},
      {"enterprise", dotted(trap.enterprise, static_cast<uint32_t>(trap.elen))},
      {"agent", address_text(&trap.agent)},
      {"generic", trap.gen},
      {"specific", trap.specific},
      {"time", trap.time},
      {"trap_oid", trap_oid_length < 0 ? nlohmann::ordered_json()
                                       : nlohmann::ordered_json(dotted(
                                             trap_oid, static_cast<uint32_t>(trap_oid_length)))},
      {"bindings", nlohmann::ordered_json::array()}};
  for (int i = 0; i < trap.vars; ++i) line["bindings"].push_back(binding_json(vars[i]));
  if (format_kind >= 0) line["text"] = formatted(format_kind, trap, vars);
  puts(line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace).c_str());
  fflush(stdout);
}

void print_trap(long index, int length, const trap_headerEMS &header, const snmp_trap_infoEMS &trap,
                const SnmpVarBindEMS *vars) {
  printf("trap %ld: %d octets from source %u, pid %d, status %d, target %u\n", index, length,
         header.src, header.pid, header.status, header.target);
  printf("  community   %s\n", reinterpret_cast<const char *>(trap.community));
  printf("  enterprise  %s\n", dotted(trap.enterprise, static_cast<uint32_t>(trap.elen)).c_str());
  printf("  agent       %s\n", address_text(&trap.agent).c_str());
  printf("  generic     %u\n  specific    %u\n  time        %u\n", trap.gen, trap.specific,
         trap.time);
  for (int i = 0; i < trap.vars; ++i) {
    printf("  %s = ", dotted(vars[i].oid, vars[i].oid_length).c_str());
    print_value(vars[i]);
    putchar('\n');
  }
  putchar('\n');
  fflush(stdout);
}

int stop_pipe[2] = {-1, -1};

void on_stop(int) {
  char byte = 0;
  ssize_t ignored = write(stop_pipe[1], &byte, 1);
  (void)ignored;
}

int listen_command(const Options &options, int argc) {
  if (argc != 0) usage_error("listen takes no arguments");
  if (pipe(stop_pipe) != 0) failure("pipe: %s", strerror(errno));
  struct sigaction action {};
  action.sa_handler = on_stop;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);

  event_infoEMS ei = connect_hub(options);
  if (options.format_kind >= 0) use_bundled_configuration();
  fprintf(stderr, "hubevent: listening\n");
  static snmp_trap_infoEMS trap;
  static SnmpVarBindEMS vars[kMaxBindings];
  int status = 0;
  for (long received = 0; options.count < 0 || received < options.count;) {
    pollfd waits[2] = {{ei.sd, POLLIN, 0}, {stop_pipe[0], POLLIN, 0}};
    if (poll(waits, 2, -1) < 0) continue;
    if (waits[1].revents) break;
    trap.clen = SNMP_COMMUNITY_MAX - 1;
    trap.elen = SNMP_OID_MAX;
    trap.maxvars = kMaxBindings;
    trap_headerEMS *header = nullptr;
    int length = recv_event_hdr(&ei, &trap, vars, &header);
    if (length > 0 && options.json) {
      print_json(++received, length, *header, trap, vars, options.format_kind);
    } else if (length > 0 && options.format_kind >= 0) {
      ++received;
      fputs(formatted(options.format_kind, trap, vars).c_str(), stdout);
      fflush(stdout);
    } else if (length > 0) {
      print_trap(++received, length, *header, trap, vars);
    } else if (length == EVENT_RECV_CLOSED) {
      fprintf(stderr, "hubevent: the daemon closed the connection\n");
      status = 1;
      break;
    } else if (length == EVENT_RECV_ERROR || length == EVENT_RECV_NOT_SEQUENCE ||
               length == EVENT_RECV_BAD_SIZE) {
      fprintf(stderr, "hubevent: skipped a message that is not a trap (%d)\n", length);
      if (length == EVENT_RECV_ERROR && ei.trans == EVENT_TRANS_TCP_RAW) {
        status = 1;
        break;
      }
    } else {
      fprintf(stderr, "hubevent: receiving failed: %s\n", strerror(errno));
      status = 1;
      break;
    }
  }
  close_event(&ei);
  return status;
}

}  // namespace

int main(int argc, char **argv) {
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
      {"durable", required_argument, nullptr, kDurable},
      {"from", required_argument, nullptr, kFrom},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0}};
  if (argc < 2) usage_error("a command is required");
  if (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0) {
    fputs(kUsage, stdout);
    return 0;
  }
  if (strcmp(argv[1], "--version") == 0) {
    printf("hubevent %s\n", EVENTS_VERSION);
    return 0;
  }
  std::string command = argv[1];
  if (command != "send" && command != "listen") usage_error("unknown command '%s'", argv[1]);

  Options options;
  optind = 2;
  int option;
  while ((option = getopt_long(argc, argv, "+t:n:s:h", options_table, nullptr)) != -1) {
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
        if (kind == nullptr && optind < argc && format_kind(argv[optind]) >= 0) kind = argv[optind++];
        options.format_kind = kind == nullptr ? QMWEVENT_USER : format_kind(kind);
        if (options.format_kind < 0) usage_error("unknown format kind '%s'", kind);
        break;
      }
      case kJson:
        options.json = true;
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
      default:
        usage_error("bad option");
    }
  }
  if (options.trans == EVENT_TRANS_UNIX && options.name.empty())
    usage_error("-t unix needs the socket path: -n PATH");
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
  int rest = argc - optind;
  char **args = argv + optind;
  if (command == "listen") return listen_command(options, rest);
  if (rest >= 1 && strcmp(args[0], "event") == 0)
    return send_event_command(options, rest - 1, args + 1);
  if (rest >= 1 && strcmp(args[0], "trap") == 0)
    return send_trap_command(options, rest - 1, args + 1);
  usage_error("send takes 'event' or 'trap'");
}
