#include "support/nats_server.h"

#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

namespace testsupport {

uint16_t free_tcp_port() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (bind(fd, reinterpret_cast<sockaddr *>(&address), size) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size) != 0)
    address.sin_port = 0;
  close(fd);
  return ntohs(address.sin_port);
}

NatsNode::NatsNode(const TempDir &dir, const std::string &name, std::vector<std::string> cluster)
    : port_(free_tcp_port()),
      log_(dir.file(name + ".log")),
      args_{"nats-server", "-js", "-a", "127.0.0.1", "-p", std::to_string(port_), "-sd",
            dir.file(name), "--server_name", name, "-l", log_} {
  args_.insert(args_.end(), cluster.begin(), cluster.end());
  start();
}

// The server logs to a file: a pipe nobody reads would stop it once full.
bool NatsNode::start() {
  size_t logged_before = read_file(log_).size();
  process_ = std::make_unique<ChildProcess>(args_);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (read_file(log_).find("Server is ready", logged_before) == std::string::npos) {
    if (std::chrono::steady_clock::now() > deadline) {
      process_.reset();
      break;
    }
    poll(nullptr, 0, 50);
  }
  return running();
}

void NatsNode::kill_hard() {
  if (process_ == nullptr) return;
  kill(process_->pid(), SIGKILL);
  process_.reset();
}

NatsCluster::NatsCluster(const TempDir &dir) {
  uint16_t routes[3] = {free_tcp_port(), free_tcp_port(), free_tcp_port()};
  std::string route_list;
  for (uint16_t port : routes)
    route_list += (route_list.empty() ? "" : ",") + std::string("nats://127.0.0.1:") +
                  std::to_string(port);
  for (int i = 0; i < 3; ++i)
    nodes_.push_back(std::make_unique<NatsNode>(
        dir, "n" + std::to_string(i + 1),
        std::vector<std::string>{"--cluster_name", "c1", "--cluster",
                                 "nats://127.0.0.1:" + std::to_string(routes[i]), "--routes",
                                 route_list}));
}

bool NatsCluster::running() const {
  for (const auto &node : nodes_)
    if (!node->running()) return false;
  return true;
}

std::string NatsCluster::url() const {
  std::string url = "nats://";
  for (size_t i = 0; i < nodes_.size(); ++i) url += (i ? "," : "") + nodes_[i]->address();
  return url;
}

}  // namespace testsupport
