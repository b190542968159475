// nats-server with JetStream on a loopback port, for the tests and the
// benchmarks of the JetStream transport: a single node, or the nodes of a
// cluster, each with its store in a directory of its own.
#ifndef EVENTS_TESTS_SUPPORT_NATS_SERVER_H
#define EVENTS_TESTS_SUPPORT_NATS_SERVER_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/fixtures.h"

namespace testsupport {

// A TCP port on 127.0.0.1 that was free a moment ago.
uint16_t free_tcp_port();

class NatsNode {
 public:
  // Starts node `name` with its store under `dir`; `cluster` holds the
  // cluster options, if any.  running() says whether it came up.
  NatsNode(const TempDir &dir, const std::string &name, std::vector<std::string> cluster = {});
  bool start();
  void kill_hard();  // SIGKILL, as a crash would
  bool running() const { return process_ != nullptr; }
  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

 private:
  uint16_t port_;
  std::string log_;
  std::vector<std::string> args_;
  std::unique_ptr<ChildProcess> process_;
};

// Three nodes in one cluster.  url() names them all, in order.
class NatsCluster {
 public:
  explicit NatsCluster(const TempDir &dir);
  NatsNode &node(int i) { return *nodes_[static_cast<size_t>(i)]; }
  bool running() const;
  std::string url() const;

 private:
  std::vector<std::unique_ptr<NatsNode>> nodes_;
};

}  // namespace testsupport

#endif
