// hubsnmp: SNMPv1 and SNMPv3 get, get-next, set and walk against one
// agent, through the library's synchronous calls, with net-snmp's options
// and output.
//
//   hubsnmp [OPTIONS] get [udp:]HOST[:PORT] OID...
//   hubsnmp [OPTIONS] next [udp:]HOST[:PORT] OID...
//   hubsnmp [OPTIONS] set [udp:]HOST[:PORT] OID TYPE VALUE...
//   hubsnmp [OPTIONS] walk [udp:]HOST[:PORT] [OID]
//
// Options may come before or after the command word.  Exit status: 0 done,
// 1 the agent or the exchange failed, 2 bad usage or objects a get did not
// find.

#include <arpa/inet.h>
#include <netdb.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "binding_args.h"
#include "cli.h"
#include "config_files.h"
#include "kz_mib.h"
#include "snmp_call.h"
#include "trp_format.h"
#include "usm.h"

namespace {

const char kUsage[] =
    "usage: hubsnmp [OPTIONS] get AGENT OID...\n"
    "       hubsnmp [OPTIONS] next AGENT OID...\n"
    "       hubsnmp [OPTIONS] set AGENT OID TYPE VALUE...\n"
    "       hubsnmp [OPTIONS] walk AGENT [OID]   (default OID 1.3.6.1.2.1)\n"
    "AGENT is [udp:]HOST[:PORT]; OID is numeric or a label of the MIB label file\n"
    "(sysDescr.0, IF-MIB::ifOperStatus.3) or of oid_to_label.\n"
    "  -v 1|3        SNMP version (default 1; 2c is not spoken); for 3, as net-snmp:\n"
    "  -u USER  -l noAuthNoPriv|authNoPriv|authPriv\n"
    "  -a MD5|SHA|SHA-224|SHA-256|SHA-384|SHA-512  -A PASSPHRASE\n"
    "  -x DES|AES|AES-192|AES-256  -X PASSPHRASE  [-e ENGINEID] [-n CONTEXT]\n"
    "  -c COMMUNITY  community (default public)\n"
    "  -t SECONDS    time-out of each wait, fractions rounded up (default 1)\n"
    "  -r RETRIES    sends after the first one (default 2)\n"
    "  -O FLAGS      n numeric names, f full label paths, q no type and no '=',\n"
    "                v values only\n"
    "  --split       send a set of more than 10 bindings in several requests\n"
    "  --verbose     list the configuration files read (MIB labels, OID names)\n"
    "  TYPE is i INTEGER, u Gauge32, c Counter32, t TimeTicks, a IpAddress,\n"
    "  s STRING, x hex STRING, d decimal STRING, o OBJECT IDENTIFIER, n NULL\n"
    "  -h, --help, -V, --version\n";

// The agent's error-status for an object it does not have.
constexpr int kNoSuchName = 2;

enum class Names { Short, Full, Numeric };

struct Settings {
  const char *community = "public";
  double timeout = 1;
  long retries = 2;
  Names names = Names::Short;
  bool quick = false;       // -Oq: "NAME VALUE", no type
  bool value_only = false;  // -Ov
  bool split = false;
  bool verbose = false;  // name the configuration files read
  // SNMPv3 (-v 3), net-snmp's letters.
  bool v3 = false;
  const char *user = nullptr, *level = "noAuthNoPriv", *auth = nullptr, *auth_pass = nullptr,
             *priv = nullptr, *priv_pass = nullptr, *engine = nullptr, *context = "";
};

// The agent a command talks to: the call context, and under -v 3 the
// user's session beside it.
struct Agent {
  snmp_call_info *sci;
  usm_session *session;
};

long number(const char *text, const char *what, long low, long high) {
  long value;
  if (!tools::read_number(text, low, high, 10, &value)) cli_usage_error("bad %s '%s'", what, text);
  return value;
}

void set_version(Settings &s, const char *text) {
  if (strcmp(text, "1") != 0 && strcmp(text, "3") != 0)
    cli_usage_error("SNMP version '%s' is not supported; only -v 1 and -v 3 are", text);
  s.v3 = text[0] == '3';
}
void set_community(Settings &s, const char *text) { s.community = text; }
void set_timeout(Settings &s, const char *text) {
  char *end = nullptr;
  errno = 0;
  s.timeout = strtod(text, &end);
  if (*text == '\0' || *end != '\0' || errno != 0 || !(s.timeout > 0 && s.timeout <= 3600))
    cli_usage_error("bad time-out '%s': seconds above 0, at most 3600", text);
}
void set_retries(Settings &s, const char *text) { s.retries = number(text, "retries", 0, 100); }
void set_user(Settings &s, const char *text) { s.user = text; }
// Levels as net-snmp takes them: any case, or the numbers 1 to 3.
void set_level(Settings &s, const char *text) {
  static const char *const kLevels[] = {"noAuthNoPriv", "authNoPriv", "authPriv"};
  for (int i = 0; i < 3; ++i)
    if (strcasecmp(text, kLevels[i]) == 0 || (text[0] == '1' + i && text[1] == '\0')) {
      s.level = kLevels[i];
      return;
    }
  cli_usage_error("bad security level '%s': noAuthNoPriv, authNoPriv or authPriv", text);
}
void set_auth(Settings &s, const char *text) { s.auth = text; }
void set_auth_pass(Settings &s, const char *text) { s.auth_pass = text; }
void set_priv(Settings &s, const char *text) { s.priv = text; }
void set_priv_pass(Settings &s, const char *text) { s.priv_pass = text; }
void set_engine(Settings &s, const char *text) { s.engine = text; }
void set_context(Settings &s, const char *text) { s.context = text; }
void set_output(Settings &s, const char *text) {
  for (const char *flag = text; *flag != '\0'; ++flag) {
    switch (*flag) {
      case 'n':
        s.names = Names::Numeric;
        break;
      case 'f':
        s.names = Names::Full;
        break;
      case 'q':
        s.quick = true;
        break;
      case 'v':
        s.value_only = true;
        break;
      default:
        cli_usage_error("unknown output flag '%c' in -O%s", *flag, text);
    }
  }
}

// The options that take a value, as net-snmp's tools spell them.
const struct {
  char letter;
  void (*apply)(Settings &, const char *);
} kOptions[] = {{'v', set_version},
                {'c', set_community},
                {'t', set_timeout},
                {'r', set_retries},
                {'O', set_output},
                {'u', set_user},
                {'l', set_level},
                {'a', set_auth},
                {'A', set_auth_pass},
                {'x', set_priv},
                {'X', set_priv_pass},
                {'e', set_engine},
                {'n', set_context}};

// Takes the options out of argv wherever they stand and returns the other
// words.  A word after "--", and a word such as "-1" that is no option,
// stays a word, so negative set values need no quoting.
std::vector<const char *> parse_options(int argc, char **argv, Settings &s) {
  std::vector<const char *> words;
  for (int i = 1; i < argc; ++i) {
    const char *arg = argv[i];
    if (strcmp(arg, "--") == 0) {
      words.insert(words.end(), argv + i + 1, argv + argc);
      break;
    }
    if (strcmp(arg, "-h") == 0 || strcmp(arg, "--help") == 0) {
      fputs(kUsage, stdout);
      exit(0);
    }
    if (strcmp(arg, "-V") == 0 || strcmp(arg, "--version") == 0) {
      cli_print_version();
      exit(0);
    }
    if (strcmp(arg, "--split") == 0) {
      s.split = true;
      continue;
    }
    if (strcmp(arg, "--verbose") == 0) {
      s.verbose = true;
      continue;
    }
    const auto *option = std::find_if(std::begin(kOptions), std::end(kOptions), [&](const auto &o) {
      return arg[0] == '-' && arg[1] == o.letter;
    });
    if (option == std::end(kOptions)) {
      if (arg[0] == '-' && isalpha(static_cast<unsigned char>(arg[1])))
        cli_usage_error("unknown option '%s'", arg);
      if (strncmp(arg, "--", 2) == 0 && arg[2] != '\0') cli_usage_error("unknown option '%s'", arg);
      words.push_back(arg);
      continue;
    }
    const char *value = arg[2] != '\0' ? arg + 2 : i + 1 < argc ? argv[++i] : nullptr;
    if (value == nullptr) cli_usage_error("option -%c needs a value", option->letter);
    option->apply(s, value);
  }
  return words;
}

// The session -v 3 and its options ask for, or NULL for SNMPv1.
usm_session *v3_session(const Settings &s) {
  if (!s.v3) return nullptr;
  if (s.user == nullptr) cli_usage_error("-v 3 needs -u USER");
  const bool auth = strcmp(s.level, "noAuthNoPriv") != 0;
  const bool priv = strcmp(s.level, "authPriv") == 0;
  if (auth && (s.auth == nullptr || s.auth_pass == nullptr))
    cli_usage_error("-l %s needs -a and -A", s.level);
  if (priv && (s.priv == nullptr || s.priv_pass == nullptr))
    cli_usage_error("-l authPriv needs -x and -X");
  const int auth_protocol = auth ? usm_protocol_by_name(s.auth, 0) : USM_AUTH_NONE;
  const int priv_protocol = priv ? usm_protocol_by_name(s.priv, 1) : USM_PRIV_NONE;
  if (auth_protocol < 0) cli_usage_error("unknown authentication protocol '%s'", s.auth);
  if (priv_protocol < 0) cli_usage_error("unknown privacy protocol '%s'", s.priv);
  SnmpVarBindEMS engine{};
  if (s.engine != nullptr) {
    const char *hex = strncasecmp(s.engine, "0x", 2) == 0 ? s.engine + 2 : s.engine;
    if (!tools::read_value("x", hex, &engine).empty())
      cli_usage_error("bad engine ID '%s'", s.engine);
  }
  usm_session *session =
      usm_session_new(s.user, auth_protocol, s.auth_pass, priv_protocol, s.priv_pass,
                      engine.val.string, static_cast<int>(engine.val_len), s.context);
  if (session == nullptr)
    cli_usage_error("user, engine ID or context too long, or a passphrase under 8 characters");
  return session;
}

// An identifier as the output flags ask: dotted numbers, the full label
// path, or by default the path from its last label on ("sysDescr.0");
// with no label it stays numeric.
std::string name_of(const ObjectIdEMS *arcs, uint32_t length, Names names) {
  if (names == Names::Numeric) return tools::dotted(arcs, length, true);
  length = std::min<uint32_t>(length, SNMP_OID_MAX);
  // Labels may be of any length: a path that fills the room may be cut.
  std::vector<char> path(256);
  while (sprint__objid(path.data(), static_cast<int>(path.size()), arcs,
                       static_cast<int>(length)) >= static_cast<int>(path.size()) - 1)
    path.resize(path.size() * 2);
  std::string text = path.data();
  if (names == Names::Full) return text;
  for (size_t end = text.size(); end > 0;) {
    size_t start = text.rfind('.', end - 1);
    std::string arc = text.substr(start + 1, end - start - 1);
    if (arc.find_first_not_of("0123456789") != std::string::npos) return text.substr(start + 1);
    end = start;
  }
  return text;
}

// One binding on standard output, as net-snmp's flags arrange it: "NAME =
// Kind: value" by default.  Values are the library's printers' text, but an
// identifier value is named as the names are, and nothing is cut.  A value
// the library kept undecoded prints as "(value not decoded)".
void print_binding(SnmpVarBindEMS &b, const Settings &s) {
  char kind[64];
  std::vector<char> value(3 * SNMP_STRING_MAX + 64);
  formatKind(kind, sizeof kind, &b);
  std::string text;
  if (b.undecoded) {
    text = "(value not decoded)";
  } else if (b.type == ASN_OBJECT_ID) {
    text = name_of(b.val.objid, b.val_len, s.names);
  } else {
    formatValue(value.data(), static_cast<int>(value.size()), &b);
    text = value.data();
  }
  std::string line;
  if (!s.value_only) line = name_of(b.oid, b.oid_length, s.names) + (s.quick ? " " : " = ");
  if (!s.quick) line += std::string(kind) + ": ";
  printf("%s%s\n", line.c_str(), text.c_str());
}

// Resolves [udp:]HOST[:PORT]; the port reaches the library through
// KZ_SNMP_PORT.  Only UDP over IPv4 is spoken.
uint32_t agent_address(const char *text) {
  std::string host(text);
  if (host.rfind("udp:", 0) == 0) host.erase(0, 4);
  size_t colon = host.find(':');
  if (colon != std::string::npos &&
      host.find_first_not_of("0123456789", colon + 1) != std::string::npos) {
    // "tcp:HOST", "udp6:HOST", "[::1]:161", "::1": not UDP over IPv4.
    std::string prefix = host.substr(0, colon);
    if (!prefix.empty() &&
        prefix.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789") == std::string::npos &&
        host.compare(colon, 2, "::") != 0)
      cli_usage_error("transport '%s:' is not supported; hubsnmp speaks udp: over IPv4",
                      prefix.c_str());
    cli_usage_error("'%s' is not an IPv4 agent; hubsnmp speaks udp: over IPv4", text);
  }
  if (colon != std::string::npos) {
    std::string port = host.substr(colon + 1);
    number(port.c_str(), "port", 1, 65535);
    setenv("KZ_SNMP_PORT", port.c_str(), 1);
    host.resize(colon);
  }
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo *found = nullptr;
  if (host.empty() || getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || found == nullptr) {
    fprintf(stderr, "%s: unknown host '%s'\n", cli_name(), host.c_str());
    exit(1);
  }
  uint32_t address = reinterpret_cast<sockaddr_in *>(found->ai_addr)->sin_addr.s_addr;
  freeaddrinfo(found);
  return address;
}

// One request of `size` bindings, SNMPv3 under the agent's session or else
// SNMPv1, in requests of at most SNMPCALL_CHUNK bindings either way; an
// error-index counts from the first binding of `in`.
int call(const Agent &agent, int command, SnmpVarBindEMS *in, SnmpVarBindEMS *out, int size) {
  if (agent.session == nullptr) return do_array_call(agent.sci, in, out, size, command);
  for (int sent = 0; sent < size; sent += SNMPCALL_CHUNK) {
    int result = usm_request(agent.sci, agent.session, command, in + sent, out + sent,
                             std::min(SNMPCALL_CHUNK, size - sent));
    if (result > 0 && agent.sci->response.errindex > 0) agent.sci->response.errindex += sent;
    if (result != 0) return result;
  }
  return 0;
}

// The failure text, naming the binding the agent's error-index points at,
// or the Report an SNMPv3 agent refused with.
std::string failure(const Agent &agent, const std::vector<SnmpVarBindEMS> &sent, Names names) {
  snmp_call_info *sci = agent.sci;
  if (sci->response.errstat == USM_AGENT_REPORT)
    return std::string("the agent reported ") + usm_session_report(agent.session);
  std::string text = snmpcall_error(sci);
  long index = sci->response.errindex;
  if (sci->response.errstat > 0 && index >= 1 && static_cast<size_t>(index) <= sent.size())
    text += " (" + name_of(sent[index - 1].oid, sent[index - 1].oid_length, names) + ")";
  return text;
}

[[noreturn]] void fail(const std::string &text) {
  fprintf(stderr, "%s: %s\n", cli_name(), text.c_str());
  exit(1);
}

// Every binding asked for must come back.
void check_answered(const std::vector<SnmpVarBindEMS> &response) {
  size_t answered = static_cast<size_t>(std::count_if(
      response.begin(), response.end(), [](const auto &b) { return b.oid_length > 0; }));
  if (answered < response.size())
    fail("the agent answered " + std::to_string(answered) + " of " +
         std::to_string(response.size()) + " objects");
}

// SNMPv2's exception value at the end of the MIB, which an SNMPv3 agent
// answers a get-next past the last object with.
constexpr unsigned char kEndOfMibView = 0x82;

// SNMP's order of identifiers: arc by arc, a prefix before what extends it.
bool before(const SnmpVarBindEMS &a, const SnmpVarBindEMS &b) {
  return std::lexicographical_compare(a.oid, a.oid + a.oid_length, b.oid, b.oid + b.oid_length);
}

bool starts_with(const SnmpVarBindEMS &b, const SnmpVarBindEMS &root) {
  return b.oid_length >= root.oid_length && std::equal(root.oid, root.oid + root.oid_length, b.oid);
}

// Walks the subtree under root by repeated get-next, as snmpwalk does: the
// end of the MIB (noSuchName or endOfMibView) or the first name outside
// the subtree ends
// it, an answer that does not move forward is an error, and a subtree with
// nothing under it is asked for as an object of its own.
void walk(const Agent &agent, const SnmpVarBindEMS &root, const Settings &s) {
  std::vector<SnmpVarBindEMS> cursor(1, root), next(1);
  // A single arc has no encoding; what follows ".1" follows ".1.0" too.
  if (root.oid_length == 1) cursor[0].oid[cursor[0].oid_length++] = 0;
  int printed = 0;
  for (;;) {
    next[0] = SnmpVarBindEMS{};
    int status = call(agent, SNMP_GET_NEXT_REQ, &cursor[0], &next[0], 1);
    if (status == kNoSuchName) break;
    if (status != 0) fail(failure(agent, cursor, s.names));
    check_answered(next);
    if (!starts_with(next[0], root) || next[0].type == kEndOfMibView) break;
    if (!before(cursor[0], next[0]))
      fail("OID not increasing: " + name_of(cursor[0].oid, cursor[0].oid_length, s.names) +
           " >= " + name_of(next[0].oid, next[0].oid_length, s.names));
    print_binding(next[0], s);
    ++printed;
    cursor[0] = next[0];
  }
  if (printed > 0) return;
  cursor[0] = root;
  next[0] = SnmpVarBindEMS{};
  int status = call(agent, SNMP_GET_REQ, &cursor[0], &next[0], 1);
  if (status == 0 && next[0].oid_length > 0)
    print_binding(next[0], s);
  else if (status != kNoSuchName)
    fail(failure(agent, cursor, s.names));
}

// A get leaves out each object the agent does not have, names it on
// standard error and asks again for the rest, as snmpget does.  Returns
// the exit status.
int get(const Agent &agent, std::vector<SnmpVarBindEMS> request, const Settings &s) {
  int status = 0;
  std::vector<SnmpVarBindEMS> response;
  while (!request.empty()) {
    response.assign(request.size(), SnmpVarBindEMS{});
    int result = call(agent, SNMP_GET_REQ, request.data(), response.data(),
                      static_cast<int>(request.size()));
    long index = agent.sci->response.errindex;
    if (result != kNoSuchName || index < 1 || static_cast<size_t>(index) > request.size()) {
      if (result != 0) fail(failure(agent, request, s.names));
      break;
    }
    fprintf(stderr, "%s: %s\n", cli_name(), failure(agent, request, s.names).c_str());
    request.erase(request.begin() + index - 1);
    response.clear();
    status = 2;
  }
  check_answered(response);
  for (SnmpVarBindEMS &b : response) print_binding(b, s);
  return status;
}

}  // namespace

int main(int argc, char **argv) {
  cli_init(argv[0]);
  Settings s;
  std::vector<const char *> words = parse_options(argc, argv, s);
  if (words.size() < 2) cli_usage_error("a command and an agent are needed");
  const std::string command = words[0] == std::string("getnext") ? "next" : words[0];
  const char **args = words.data() + 2;
  size_t count = words.size() - 2;
  const int step = command == "set" ? 3 : 1;
  if (command == "get" || command == "next") {
    if (count < 1) cli_usage_error("%s needs at least one OID", command.c_str());
  } else if (command == "set") {
    if (count < 3 || count % 3 != 0) cli_usage_error("set needs OID TYPE VALUE triples");
    if (count / 3 > SNMPCALL_CHUNK && !s.split)
      cli_usage_error(
          "a set of %zu bindings would go in several requests and not be atomic; "
          "give at most %d, or --split",
          count / 3, SNMPCALL_CHUNK);
  } else if (command == "walk") {
    if (count > 1) cli_usage_error("walk takes one OID");
  } else {
    cli_usage_error("unknown command '%s'", command.c_str());
  }

  tools::load_names();
  if (s.verbose) config_report(stderr);
  std::vector<SnmpVarBindEMS> request;
  for (size_t i = 0; i < count; i += step) {
    SnmpVarBindEMS b{};
    if (!tools::read_oid(args[i], b.oid, &b.oid_length, command == "walk" ? 1 : 2))
      cli_usage_error("unknown object identifier '%s'", args[i]);
    if (step == 3) {
      std::string refused = tools::read_value(args[i + 1], args[i + 2], &b);
      if (!refused.empty()) cli_usage_error("%s", refused.c_str());
    }
    request.push_back(b);
  }
  if (command == "walk" && request.empty()) {
    SnmpVarBindEMS root{};
    tools::read_oid("1.3.6.1.2.1", root.oid, &root.oid_length);
    request.push_back(root);
  }

  usm_session *session = v3_session(s);
  uint32_t address = agent_address(words[1]);
  // The library waits in whole seconds and counts sends, not retries.
  snmp_call_info *sci =
      init_snmp_call(static_cast<int>(std::ceil(s.timeout)), static_cast<int>(s.retries) + 1);
  if (sci == nullptr) fail(std::string("cannot open a UDP socket: ") + strerror(errno));
  init_snmp_request(sci, address, s.community);
  const Agent agent{sci, session};
  int status = 0;
  if (command == "walk") {
    walk(agent, request[0], s);
  } else if (command == "get") {
    status = get(agent, request, s);
  } else {
    std::vector<SnmpVarBindEMS> response(request.size());
    if (call(agent, command == "set" ? SNMP_SET_REQ : SNMP_GET_NEXT_REQ, request.data(),
             response.data(), static_cast<int>(request.size())) != 0)
      fail(failure(agent, request, s.names));
    check_answered(response);
    for (SnmpVarBindEMS &b : response) print_binding(b, s);
  }
  close_snmp_call(sci);
  usm_session_free(session);
  return status;
}
