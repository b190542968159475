// net-snmp's snmpd as an independent agent on a free loopback port, with
// the read community "public" and the write community "private".
#ifndef EVENTS_TESTS_SUPPORT_SNMP_AGENT_H
#define EVENTS_TESTS_SUPPORT_SNMP_AGENT_H

#include <cstdint>
#include <memory>
#include <string>

#include "support/fixtures.h"

namespace testsupport {

class SnmpAgent {
 public:
  // Starts snmpd, with `extra` lines in its configuration, and waits for
  // its banner.
  explicit SnmpAgent(const std::string &extra = "");
  bool running() const { return running_; }
  uint16_t port() const { return port_; }

 private:
  TempDir dir_;
  uint16_t port_;
  std::unique_ptr<ChildProcess> process_;
  bool running_ = false;
};

}  // namespace testsupport

#endif
