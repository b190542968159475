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

std::string unique_loopback() {
  unsigned pid = static_cast<unsigned>(getpid());
  return "127." + std::to_string(pid / 254 / 256 % 256) + "." + std::to_string(pid / 254 % 256) +
         "." + std::to_string(1 + pid % 254);
}

StreamListener StreamListener::unix_socket(const std::string &path) {
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 || listen(fd, 8) != 0)
    throw std::runtime_error("cannot listen on " + path);
  return StreamListener(fd);
}

StreamListener StreamListener::tcp(const std::string &address, uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(port);
  inet_pton(AF_INET, address.c_str(), &local.sin_addr);
  if (bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0 || listen(fd, 8) != 0)
    throw std::runtime_error("cannot listen on " + address + ":" + std::to_string(port));
  return StreamListener(fd);
}

StreamListener::StreamListener(StreamListener &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }

StreamListener::~StreamListener() {
  if (fd_ >= 0) close(fd_);
}

int StreamListener::accept_one(std::chrono::milliseconds limit) {
  pollfd waiter{fd_, POLLIN, 0};
  if (poll(&waiter, 1, static_cast<int>(limit.count())) <= 0) return -1;
  return accept(fd_, nullptr, nullptr);
}

Bytes read_until_closed(int fd, std::chrono::milliseconds limit) {
  Bytes all;
  auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd waiter{fd, POLLIN, 0};
    if (left.count() <= 0 || poll(&waiter, 1, static_cast<int>(left.count())) <= 0) return all;
    unsigned char chunk[4096];
    ssize_t n = read(fd, chunk, sizeof chunk);
    if (n <= 0) return all;
    all.insert(all.end(), chunk, chunk + n);
  }
}

std::vector<Frame> split_frames(const Bytes &stream) {
  std::vector<Frame> frames;
  size_t at = 0;
  while (at + sizeof(trap_headerEMS) <= stream.size()) {
    Frame frame;
    memcpy(&frame.header, stream.data() + at, sizeof frame.header);
    at += sizeof frame.header;
    size_t length = static_cast<size_t>(frame.header.len);
    if (at + length > stream.size()) break;
    frame.message.assign(stream.begin() + static_cast<long>(at),
                         stream.begin() + static_cast<long>(at + length));
    at += length;
    frames.push_back(frame);
  }
  EXPECT_EQ(at, stream.size()) << "the stream does not split into whole frames";
  return frames;
}

std::string Trap::text(int binding) const {
  return std::string(reinterpret_cast<const char *>(vars[binding].val.string),
                     vars[binding].val_len);
}

namespace {

void prepare(Trap *trap) {
  memset(&trap->info, 0, sizeof trap->info);
  trap->info.clen = 127;
  trap->info.elen = 128;
  trap->info.maxvars = 10;
}

}  // namespace

Trap decode(const Bytes &message) {
  Trap trap;
  prepare(&trap);
  Bytes copy = message;
  EXPECT_EQ(
      snmp_parse_trap(copy.data(), static_cast<int>(copy.size()), &trap.info, nullptr, trap.vars),
      0);
  return trap;
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

Bytes header_bytes(int32_t length, uint32_t src, int32_t pid) {
  trap_headerEMS header{length, src, pid, 0, 0, 0};
  const auto *octets = reinterpret_cast<const unsigned char *>(&header);
  return Bytes(octets, octets + sizeof header);
}

int receive_within(event_infoEMS *ei, Trap *trap, trap_headerEMS *header,
                   std::chrono::milliseconds limit) {
  pollfd waiter{ei->sd, POLLIN, 0};
  if (poll(&waiter, 1, static_cast<int>(limit.count())) <= 0) return -100;
  prepare(trap);
  trap_headerEMS *received = nullptr;
  int result = recv_event_hdr(ei, &trap->info, trap->vars, &received);
  if (received != nullptr) *header = *received;
  return result;
}

DevHub::DevHub(std::vector<std::string> options) {
  options.insert(options.begin(), HUBD_DEV_PATH);
  process_ = std::make_unique<ChildProcess>(options);
  if (process_->wait_for_line("hubd-dev: ready", std::chrono::seconds(10)).empty())
    throw std::runtime_error("hubd-dev did not start");
}

}  // namespace testsupport
