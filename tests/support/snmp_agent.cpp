#include "support/snmp_agent.h"

#include <cstdlib>
#include <string>

using namespace std::chrono_literals;

namespace testsupport {

SnmpAgent::SnmpAgent(const std::string &extra) : port_(free_udp_port()) {
  write_file(dir_.file("snmpd.conf"), "agentaddress udp:127.0.0.1:" + std::to_string(port_) +
                                          "\n"
                                          "rocommunity public 127.0.0.1\n"
                                          "rwcommunity private 127.0.0.1\n"
                                          "sysLocation lab\n"
                                          "dontLogTCPWrappersConnects yes\n" +
                                          extra);
  // snmpd keeps its persistent state here rather than in the system's
  // directory.
  setenv("SNMP_PERSISTENT_DIR", dir_.path().c_str(), 1);
  process_ = std::make_unique<ChildProcess>(std::vector<std::string>{
      "snmpd", "-f", "-Lo", "-C", "-c", dir_.file("snmpd.conf"), "-m", "", "-M", ""});
  running_ = !process_->wait_for_line("NET-SNMP version", 10s).empty();
}

}  // namespace testsupport
