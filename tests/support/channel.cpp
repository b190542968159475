#include "support/channel.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>

#include "support/sample_trap.h"

namespace testsupport {

namespace {

int listening(int fd, const void *address, socklen_t size, const std::string &name) {
  if (bind(fd, static_cast<const sockaddr *>(address), size) != 0 || listen(fd, 8) != 0)
    throw std::runtime_error("cannot listen on " + name);
  return fd;
}

bool readable(int fd, int milliseconds) {
  pollfd waiter{fd, POLLIN, 0};
  return poll(&waiter, 1, milliseconds) > 0;
}

}  // namespace

std::string unique_loopback() {
  unsigned pid = static_cast<unsigned>(getpid());
  return "127." + std::to_string(pid / 254 / 256 % 256) + "." + std::to_string(pid / 254 % 256) +
         "." + std::to_string(1 + pid % 254);
}

Listener::Listener(const std::string &path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  fd_ = listening(socket(AF_UNIX, SOCK_STREAM, 0), &address, sizeof address, path);
}

Listener::Listener(const std::string &address, uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(port);
  inet_pton(AF_INET, address.c_str(), &local.sin_addr);
  fd_ = listening(fd, &local, sizeof local, address + ":" + std::to_string(port));
}

Listener::~Listener() { close(fd_); }

int Listener::accept_one() { return readable(fd_, 2000) ? accept(fd_, nullptr, nullptr) : -1; }

Trap::Trap() {
  memset(&info, 0, sizeof info);
  info.clen = 127;
  info.elen = 128;
  info.maxvars = 10;
}

std::string Trap::text(int binding) const {
  return std::string(reinterpret_cast<const char *>(vars[binding].val.string),
                     vars[binding].val_len);
}

Bytes sample_message(int bindings) {
  snmp_trap_infoEMS trap;
  SnmpVarBindEMS vars[5];
  make_sample_trap(&trap, vars, 5);
  trap.vars = bindings;
  Bytes message(1024);
  int length = static_cast<int>(message.size());
  if (snmpBuildTrapEMS(message.data(), &length, &trap, nullptr, vars) != 0)
    throw std::runtime_error("sample trap does not encode");
  message.resize(static_cast<size_t>(length));
  return message;
}

Bytes header_bytes(int32_t length) {
  trap_headerEMS header{length, 7, 4242, 0, 0, 0};
  const auto *octets = reinterpret_cast<const unsigned char *>(&header);
  return Bytes(octets, octets + sizeof header);
}

int receive_within(event_infoEMS *ei, Trap *trap, trap_headerEMS *header,
                   std::chrono::milliseconds limit) {
  if (!readable(ei->sd, static_cast<int>(limit.count()))) return -100;
  *trap = Trap();
  trap_headerEMS *received = nullptr;
  int result = recv_event_hdr(ei, &trap->info, trap->vars, &received);
  if (received != nullptr) *header = *received;
  return result;
}

std::unique_ptr<ChildProcess> start_dev_hub(std::vector<std::string> options) {
  options.insert(options.begin(), HUBD_DEV_PATH);
  auto hub = std::make_unique<ChildProcess>(options);
  EXPECT_NE(hub->wait_for_line("hubd-dev: ready", std::chrono::seconds(10)), "");
  return hub;
}

std::vector<Received> receive_all(int fd, int trans) {
  event_infoEMS ei{};
  ei.sd = fd;
  ei.trans = static_cast<uint16_t>(trans);
  std::vector<Received> all;
  Received one;
  int result;
  while ((result = receive_within(&ei, &one.trap, &one.header, std::chrono::seconds(2))) > 0)
    all.push_back(one);
  EXPECT_EQ(result, 0) << "the stream does not end after whole events";
  return all;
}

}  // namespace testsupport
