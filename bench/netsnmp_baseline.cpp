#include "netsnmp_baseline.h"

#include <dlfcn.h>

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Parser = int (*)(void *, netsnmp_session *, netsnmp_pdu *, u_char *, size_t);

// net-snmp's snmp_parse, looked up in net-snmp's own library: the plain
// name may bind to libevents' parser of the same name.
Parser netsnmp_parser() {
  static Parser parser = [] {
    Dl_info info;
    void *handle = nullptr;
    if (dladdr(reinterpret_cast<void *>(&snmp_sess_init), &info) != 0)
      handle = dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD);
    void *symbol = handle ? dlsym(handle, "snmp_parse") : nullptr;
    if (symbol == nullptr) {
      fprintf(stderr, "net-snmp's snmp_parse not found in its library\n");
      abort();
    }
    return reinterpret_cast<Parser>(symbol);
  }();
  return parser;
}

// Parse hook for net-snmp sessions, so that their receive path uses
// net-snmp's parser whatever the link order.
int parse_hook(netsnmp_session *session, netsnmp_pdu *pdu, u_char *data, size_t length) {
  return netsnmp_parser()(nullptr, session, pdu, data, length);
}

void init_library() {
  static bool ready = false;
  if (ready) return;
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_LOAD_HOST_FILES, 1);
  setenv("MIBS", "", 1);
  init_snmp("libevents-bench");
  ready = true;
}

netsnmp_session *parse_session() {
  static netsnmp_session session;
  static bool ready = false;
  if (!ready) {
    init_library();
    snmp_sess_init(&session);
    // Any version the message carries, as a trap receiver takes them.
    session.version = SNMP_DEFAULT_VERSION;
    ready = true;
  }
  return &session;
}

netsnmp_session *agent_session = nullptr;

}  // namespace

int bench::netsnmp_parse(const unsigned char *message, size_t length) {
  netsnmp_session *session = parse_session();
  // snmp_parse may write into its input; give it its own copy as a receive
  // buffer would be.
  static std::vector<unsigned char> copy;
  copy.assign(message, message + length);
  netsnmp_pdu *pdu = static_cast<netsnmp_pdu *>(calloc(1, sizeof(netsnmp_pdu)));
  int result = netsnmp_parser()(nullptr, session, pdu, copy.data(), copy.size());
  int bindings = 0;
  for (netsnmp_variable_list *v = pdu->variables; v != nullptr; v = v->next_variable) ++bindings;
  snmp_free_pdu(pdu);
  return result == 0 ? bindings : -1;
}

std::vector<unsigned char> bench::netsnmp_v3_notification(const unsigned char *v2c, size_t length) {
  static const unsigned char kEngine[] = {0x80, 0x00, 0x00, 0x00, 0x01, 0x02, 0x03, 0x04};
  netsnmp_session *session = parse_session();
  char user[] = "-e 0x8000000001020304 shaAes SHA authpass123 AES privpass123";
  usm_parse_create_usmUser("createUser", user);
  std::vector<unsigned char> copy(v2c, v2c + length);
  netsnmp_pdu *pdu = static_cast<netsnmp_pdu *>(calloc(1, sizeof(netsnmp_pdu)));
  std::vector<unsigned char> out;
  if (netsnmp_parser()(nullptr, session, pdu, copy.data(), copy.size()) == 0) {
    pdu->version = SNMP_VERSION_3;
    pdu->securityModel = SNMP_SEC_MODEL_USM;
    pdu->securityLevel = SNMP_SEC_LEVEL_AUTHPRIV;
    pdu->securityName = strdup("shaAes");
    pdu->securityNameLen = 6;
    pdu->securityEngineID = static_cast<u_char *>(netsnmp_memdup(kEngine, sizeof kEngine));
    pdu->securityEngineIDLen = sizeof kEngine;
    pdu->contextEngineID = static_cast<u_char *>(netsnmp_memdup(kEngine, sizeof kEngine));
    pdu->contextEngineIDLen = sizeof kEngine;
    pdu->contextName = strdup("");
    netsnmp_session sender;
    snmp_sess_init(&sender);
    sender.version = SNMP_VERSION_3;
    size_t size = 4096, offset = 0;
    u_char *packet = static_cast<u_char *>(malloc(size));
    if (snmp_build(&packet, &size, &offset, &sender, pdu) == 0) {
      // Built from the end of the buffer backwards.
      out.assign(packet + size - offset, packet + size);
    }
    free(packet);
  }
  snmp_free_pdu(pdu);
  return out;
}

bool bench::netsnmp_open(uint16_t port, const char *community) {
  init_library();
  std::string peer = "udp:127.0.0.1:" + std::to_string(port);
  netsnmp_transport *transport = netsnmp_transport_open_client("snmp", peer.c_str());
  if (transport == nullptr) return false;
  netsnmp_session session;
  snmp_sess_init(&session);
  session.version = SNMP_VERSION_1;
  session.community = reinterpret_cast<u_char *>(const_cast<char *>(community));
  session.community_len = strlen(community);
  session.timeout = 2000000;
  session.retries = 1;
  agent_session = snmp_add_full(&session, transport, nullptr, parse_hook, nullptr, nullptr,
                                nullptr, nullptr, nullptr);
  return agent_session != nullptr;
}

bool bench::netsnmp_get_sysdescr() {
  static const oid kSysDescr[] = {1, 3, 6, 1, 2, 1, 1, 1, 0};
  netsnmp_pdu *request = snmp_pdu_create(SNMP_MSG_GET);
  snmp_add_null_var(request, kSysDescr, sizeof kSysDescr / sizeof kSysDescr[0]);
  netsnmp_pdu *response = nullptr;
  int status = snmp_synch_response(agent_session, request, &response);
  bool ok = status == STAT_SUCCESS && response != nullptr && response->errstat == SNMP_ERR_NOERROR;
  if (response != nullptr) snmp_free_pdu(response);
  return ok;
}
