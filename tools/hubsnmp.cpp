// hubsnmp: SNMPv1 get, get-next, set and walk against one agent, through
// the library's synchronous calls.
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

namespace {

const char kUsage[] =
    "usage: hubsnmp [OPTIONS] get HOST[:PORT] OID...\n"
    "       hubsnmp [OPTIONS] next HOST[:PORT] OID...\n"
    "       hubsnmp [OPTIONS] set HOST[:PORT] OID TYPE VALUE...\n"
    "       hubsnmp [OPTIONS] walk HOST[:PORT] [OID]   (default OID 1.3.6.1.2.1)\n"
    "  -c COMMUNITY  community (default public)\n"
    "  -t SECONDS    time-out of each wait (default 1)\n"
    "  -r SENDS      sends per request (default 3)\n"
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
  char kind[64], value[1024] = "(value not decoded)";
  formatKind(kind, sizeof kind, &b);
  if (!b.undecoded) formatValue(value, sizeof value, &b);
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

[[noreturn]] void call_failed(snmp_call_info *sci, const std::vector<SnmpVarBindEMS> &sent) {
  std::string text = snmpcall_error(sci);
  int index = sci->response.errindex;
  if (sci->response.errstat > 0 && index >= 1 && static_cast<size_t>(index) <= sent.size())
    text += " (" + dotted(sent[index - 1].oid, sent[index - 1].oid_length) + ")";
  quit(1, "%s", text.c_str());
}

bool starts_with(const SnmpVarBindEMS &b, const SnmpVarBindEMS &root) {
  return b.oid_length >= root.oid_length &&
         memcmp(b.oid, root.oid, root.oid_length * sizeof(ObjectIdEMS)) == 0;
}

// Walks the subtree under root by repeated get-next; the end of the MIB
// (noSuchName) and the first name outside the subtree end it.
void walk(snmp_call_info *sci, const SnmpVarBindEMS &root) {
  std::vector<SnmpVarBindEMS> cursor(1, root);
  SnmpVarBindEMS next;
  for (;;) {
    memset(&next, 0, sizeof next);
    int status = getnextvar(sci, &cursor[0], &next);
    if (status == 2) return;
    if (status != 0) call_failed(sci, cursor);
    if (!starts_with(next, root)) return;
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
  int c;
  while ((c = getopt_long(argc, argv, "+c:t:r:", kLong, nullptr)) != -1) {
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

  uint32_t address = agent_address(argv[optind + 1]);
  load_mib_labels();
  snmp_call_info *sci = init_snmp_call(timeout, retries);
  if (sci == nullptr) quit(1, "cannot open a UDP socket: %s", strerror(errno));
  init_snmp_request(sci, address, community);
  if (command == "walk") {
    walk(sci, request[0]);
  } else {
    std::vector<SnmpVarBindEMS> response(request.size());
    int reqtype = command == "get" ? SNMP_GET_REQ : command == "next" ? SNMP_GET_NEXT_REQ : SNMP_SET_REQ;
    if (do_array_call(sci, request.data(), response.data(), static_cast<int>(request.size()),
                      reqtype) != 0)
      call_failed(sci, request);
    for (SnmpVarBindEMS &b : response)
      if (b.oid_length > 0) print_binding(b);
  }
  close_snmp_call(sci);
  return 0;
}
