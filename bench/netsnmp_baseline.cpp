#include "netsnmp_baseline.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <cstdlib>
#include <vector>

namespace {

netsnmp_session *baseline_session() {
  static netsnmp_session session;
  static bool ready = false;
  if (!ready) {
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_LOAD_HOST_FILES, 1);
    setenv("MIBS", "", 1);
    init_snmp("libevents-bench");
    snmp_sess_init(&session);
    session.version = SNMP_VERSION_1;
    ready = true;
  }
  return &session;
}

}  // namespace

int bench::netsnmp_parse(const unsigned char *message, size_t length) {
  netsnmp_session *session = baseline_session();
  // snmp_parse may write into its input; give it its own copy as a receive
  // buffer would be.
  static std::vector<unsigned char> copy;
  copy.assign(message, message + length);
  netsnmp_pdu *pdu = static_cast<netsnmp_pdu *>(calloc(1, sizeof(netsnmp_pdu)));
  int result = snmp_parse(nullptr, session, pdu, copy.data(), copy.size());
  int bindings = 0;
  for (netsnmp_variable_list *v = pdu->variables; v != nullptr; v = v->next_variable) ++bindings;
  snmp_free_pdu(pdu);
  return result == 0 ? bindings : -1;
}
