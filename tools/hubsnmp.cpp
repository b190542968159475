// hubsnmp: SNMPv1 and SNMPv3 get, get-next, set and walk against one
// agent, through the library's synchronous calls.
//
//   hubsnmp [OPTIONS] get HOST[:PORT] OID...
//   hubsnmp [OPTIONS] next HOST[:PORT] OID...
//   hubsnmp [OPTIONS] set HOST[:PORT] OID TYPE VALUE...
//   hubsnmp [OPTIONS] walk HOST[:PORT] [OID]
//
// Exit status: 0 done, 1 the agent or the exchange failed, 2 bad usage.

#include <arpa/inet.h>
#include <getopt.h>
#include <netdb.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "binding_args.h"
#include "kz_mib.h"
#include "kz_platform.h"
#include "snmp_call.h"
#include "trp_format.h"
#include "usm.h"

namespace {

const char kUsage[] =
    "usage: hubsnmp [OPTIONS] get HOST[:PORT] OID...\n"
    "       hubsnmp [OPTIONS] next HOST[:PORT] OID...\n"
    "       hubsnmp [OPTIONS] set HOST[:PORT] OID TYPE VALUE...\n"
    "       hubsnmp [OPTIONS] walk HOST[:PORT] [OID]   (default OID 1.3.6.1.2.1)\n"
    "  -c COMMUNITY  community (default public)\n"
    "  -t SECONDS    time-out of each wait (default 1)\n"
    "  -r SENDS      sends per request (default 3)\n"
    "  -v 1|3        SNMP version (default 1); for 3, as net-snmp:\n"
    "  -u USER -l noAuthNoPriv|authNoPriv|authPriv -a MD5|SHA|SHA-224|SHA-256|SHA-384|SHA-512\n"
    "  -A PASSPHRASE -x DES|AES|AES-192|AES-256 -X PASSPHRASE [-e ENGINEID] [-n CONTEXT]\n"
    "  TYPE is i INTEGER, u Gauge32, c Counter32, t TimeTicks, a IpAddress,\n"
    "  s STRING, x hex STRING, d decimal STRING, o OBJECT IDENTIFIER, n NULL\n"
    "  --help, --version\n";

[[noreturn]] __attribute__((format(printf, 2, 3))) void quit(int status, const char *fmt, ...) {
  fputs("hubsnmp: ", stderr);
  va_list args;
  va_start(args, fmt);
  vfprintf(stderr, fmt, args);
  va_end(args);
  fputc('\n', stderr);
  if (status == 2) fputs(kUsage, stderr);
  exit(status);
}

long number(const char *text, const char *what, long low, long high) {
  long value;
  if (!tools::read_number(text, low, high, 10, &value)) quit(2, "bad %s '%s'", what, text);
  return value;
}

void parse_oid(const char *text, ObjectIdEMS *arcs, uint32_t *length) {
  if (!tools::read_oid(text, arcs, length)) quit(2, "bad object identifier '%s'", text);
}

std::string dotted(const ObjectIdEMS *arcs, uint32_t length) {
  std::string text;
  for (uint32_t i = 0; i < length; ++i) {
    text += '.';
    text += std::to_string(arcs[i]);
  }
  return text;
}

// Prints one binding as "OID = Kind: value" on standard output, through the
// library's value printers, as a trap's bindings are shown.
void print_binding(SnmpVarBindEMS &b) {
  char kind[64], value[1024];
  formatKind(kind, sizeof kind, &b);
  formatValue(value, sizeof value, &b);
  printf("%s = %s: %s\n", dotted(b.oid, std::min<uint32_t>(b.oid_length, SNMP_OID_MAX)).c_str(),
         kind, value);
}

// Identifiers print as label paths: from the MIB label file of the
// environment, else from the bundled one.
void load_mib_labels() {
  if (KZmib_load_mib() == 0 || getenv("KZ_MIB_FILE") != nullptr) return;
  setenv("KZ_MIB_FILE", EVENTS_EXAMPLES_DIR "/mib.labels", 1);
  KZmib_load_mib();
}

// Resolves HOST[:PORT]; the port reaches the library through KZ_SNMP_PORT.
uint32_t agent_address(const char *text) {
  std::string host(text);
  size_t colon = host.rfind(':');
  if (colon != std::string::npos) {
    const char *port = text + colon + 1;
    number(port, "port", 1, 65535);
    setenv("KZ_SNMP_PORT", port, 1);
    host.resize(colon);
  }
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo *found = nullptr;
  if (host.empty() || getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || found == nullptr)
    quit(1, "unknown host '%s'", host.c_str());
  uint32_t address = reinterpret_cast<sockaddr_in *>(found->ai_addr)->sin_addr.s_addr;
  freeaddrinfo(found);
  return address;
}

[[noreturn]] void call_failed(snmp_call_info *sci, usm_session *session,
                              const std::vector<SnmpVarBindEMS> &sent) {
  if (sci->response.errstat == USM_AGENT_REPORT)
    quit(1, "the agent reported %s", usm_session_report(session));
  std::string text = snmpcall_error(sci);
  int index = sci->response.errindex;
  if (sci->response.errstat > 0 && index >= 1 && static_cast<size_t>(index) <= sent.size())
    text += " (" + dotted(sent[index - 1].oid, sent[index - 1].oid_length) + ")";
  quit(1, "%s", text.c_str());
}

// SNMPv3, net-snmp's option letters.
struct V3Options {
  bool on = false;
  const char *user = nullptr, *level = "noAuthNoPriv", *auth = nullptr, *auth_pass = nullptr,
             *priv = nullptr, *priv_pass = nullptr, *engine = nullptr, *context = "";
};

// Takes one SNMPv3 option; returns false if `c` is not one.
bool v3_option(int c, const char *arg, V3Options *v3) {
  const char **slot = c == 'u' ? &v3->user : c == 'l' ? &v3->level : c == 'a' ? &v3->auth
                    : c == 'A' ? &v3->auth_pass : c == 'x' ? &v3->priv : c == 'X' ? &v3->priv_pass
                    : c == 'e' ? &v3->engine : c == 'n' ? &v3->context : nullptr;
  if (c == 'v') {
    if (strcmp(arg, "1") != 0 && strcmp(arg, "3") != 0) quit(2, "version '%s' is not 1 or 3", arg);
    v3->on = arg[0] == '3';
    return true;
  }
  if (slot == nullptr) return false;
  *slot = arg;
  return true;
}

// The session -v 3 and its options ask for, or NULL for SNMPv1.
usm_session *v3_session(const V3Options &v3) {
  if (!v3.on) return nullptr;
  if (v3.user == nullptr) quit(2, "-v 3 needs -u USER");
  const bool auth = strcmp(v3.level, "noAuthNoPriv") != 0;
  const bool priv = strcmp(v3.level, "authPriv") == 0;
  if (!priv && auth && strcmp(v3.level, "authNoPriv") != 0) quit(2, "bad level '%s'", v3.level);
  if (auth && (v3.auth == nullptr || v3.auth_pass == nullptr)) quit(2, "%s needs -a and -A", v3.level);
  if (priv && (v3.priv == nullptr || v3.priv_pass == nullptr)) quit(2, "authPriv needs -x and -X");
  int auth_protocol = auth ? usm_protocol_by_name(v3.auth, 0) : USM_AUTH_NONE;
  int priv_protocol = priv ? usm_protocol_by_name(v3.priv, 1) : USM_PRIV_NONE;
  if (auth_protocol < 0) quit(2, "unknown authentication protocol '%s'", v3.auth);
  if (priv_protocol < 0) quit(2, "unknown privacy protocol '%s'", v3.priv);
  SnmpVarBindEMS engine{};
  if (v3.engine != nullptr) {
    const char *hex = strncasecmp(v3.engine, "0x", 2) == 0 ? v3.engine + 2 : v3.engine;
    if (!tools::read_value("x", hex, &engine).empty()) quit(2, "bad engine ID '%s'", v3.engine);
  }
  usm_session *session =
      usm_session_new(v3.user, auth_protocol, v3.auth_pass, priv_protocol, v3.priv_pass,
                      engine.val.string, static_cast<int>(engine.val_len), v3.context);
  if (session == nullptr)
    quit(2, "user, engine ID or context too long, or a passphrase under 8 characters");
  return session;
}

// One request, SNMPv3 under `session` or else SNMPv1.
int call(snmp_call_info *sci, usm_session *session, int command, SnmpVarBindEMS *in,
         SnmpVarBindEMS *out, int size) {
  if (session != nullptr) return usm_request(sci, session, command, in, out, size);
  return do_array_call(sci, in, out, size, command);
}

constexpr unsigned char kEndOfMibView = 0x82;

bool starts_with(const SnmpVarBindEMS &b, const SnmpVarBindEMS &root) {
  return b.oid_length >= root.oid_length &&
         memcmp(b.oid, root.oid, root.oid_length * sizeof(ObjectIdEMS)) == 0;
}

// Walks the subtree under root by repeated get-next; the end of the MIB
// (noSuchName, or SNMPv2's endOfMibView) and the first name outside the
// subtree end it.
void walk(snmp_call_info *sci, usm_session *session, const SnmpVarBindEMS &root) {
  std::vector<SnmpVarBindEMS> cursor(1, root);
  SnmpVarBindEMS next;
  for (;;) {
    memset(&next, 0, sizeof next);
    int status = session != nullptr
                     ? usm_request(sci, session, SNMP_GET_NEXT_REQ, &cursor[0], &next, 1)
                     : getnextvar(sci, &cursor[0], &next);
    if (status == 2) return;
    if (status != 0) call_failed(sci, session, cursor);
    if (!starts_with(next, root) || next.type == kEndOfMibView) return;
    // An agent that does not move forward would keep the walk going forever.
    if (next.oid_length == cursor[0].oid_length &&
        memcmp(next.oid, cursor[0].oid, next.oid_length * sizeof(ObjectIdEMS)) == 0)
      quit(1, "agent returned %s again", dotted(next.oid, next.oid_length).c_str());
    print_binding(next);
    cursor[0] = next;
  }
}

}  // namespace

int main(int argc, char **argv) {
  static const option kLong[] = {{"help", no_argument, nullptr, 'h'},
                                 {"version", no_argument, nullptr, 'V'},
                                 {nullptr, 0, nullptr, 0}};
  const char *community = "public";
  int timeout = 1;
  int retries = 3;
  V3Options v3;
  int c;
  while ((c = getopt_long(argc, argv, "+c:t:r:v:u:l:a:A:x:X:e:n:", kLong, nullptr)) != -1) {
    switch (c) {
      case 'c':
        community = optarg;
        break;
      case 't':
        timeout = static_cast<int>(number(optarg, "time-out", 0, 3600));
        break;
      case 'r':
        retries = static_cast<int>(number(optarg, "retries", 0, 100));
        break;
      case 'h':
        fputs(kUsage, stdout);
        return 0;
      case 'V':
        puts("hubsnmp (libevents) " EVENTS_VERSION);
        return 0;
      default:
        if (v3_option(c, optarg, &v3)) break;
        fputs(kUsage, stderr);
        return 2;
    }
  }
  if (argc - optind < 2) quit(2, "a command and an agent are needed");
  std::string command = argv[optind];
  char **args = argv + optind + 2;
  int count = argc - optind - 2;

  std::vector<SnmpVarBindEMS> request;
  if (command == "get" || command == "next") {
    if (count < 1) quit(2, "%s needs at least one OID", command.c_str());
  } else if (command == "set") {
    if (count < 3 || count % 3 != 0) quit(2, "set needs OID TYPE VALUE triples");
  } else if (command == "walk") {
    if (count > 1) quit(2, "walk takes one OID");
  } else {
    quit(2, "unknown command '%s'", command.c_str());
  }
  int step = command == "set" ? 3 : 1;
  for (int i = 0; i < count; i += step) {
    SnmpVarBindEMS b{};
    parse_oid(args[i], b.oid, &b.oid_length);
    if (step == 3) {
      std::string refused = tools::read_value(args[i + 1], args[i + 2], &b);
      if (!refused.empty()) quit(2, "%s", refused.c_str());
    }
    request.push_back(b);
  }
  if (command == "walk" && request.empty()) {
    SnmpVarBindEMS root{};
    parse_oid("1.3.6.1.2.1", root.oid, &root.oid_length);
    request.push_back(root);
  }

  usm_session *session = v3_session(v3);
  uint32_t address = agent_address(argv[optind + 1]);
  load_mib_labels();
  snmp_call_info *sci = init_snmp_call(timeout, retries);
  if (sci == nullptr) quit(1, "cannot open a UDP socket: %s", strerror(errno));
  init_snmp_request(sci, address, community);
  if (command == "walk") {
    walk(sci, session, request[0]);
  } else {
    std::vector<SnmpVarBindEMS> response(request.size());
    int reqtype = command == "get" ? SNMP_GET_REQ : command == "next" ? SNMP_GET_NEXT_REQ : SNMP_SET_REQ;
    if (call(sci, session, reqtype, request.data(), response.data(),
             static_cast<int>(request.size())) != 0)
      call_failed(sci, session, request);
    for (SnmpVarBindEMS &b : response)
      if (b.oid_length > 0) print_binding(b);
  }
  close_snmp_call(sci);
  usm_session_free(session);
  return 0;
}
