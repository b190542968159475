#include "support/fixtures.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char **environ;

namespace testsupport {

TempDir::TempDir() {
  const char *base = getenv("TMPDIR");
  std::string pattern = std::string(base ? base : "/tmp") + "/libevents-test-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = buffer.data();
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

CapturedStream::CapturedStream(int fd) : fd_(fd) {
  char pattern[] = "/tmp/libevents-capture-XXXXXX";
  int file = mkstemp(pattern);
  if (file < 0) throw std::runtime_error("mkstemp failed");
  path_ = pattern;
  fflush(fd == 1 ? stdout : stderr);
  saved_ = dup(fd);
  dup2(file, fd);
  close(file);
}

CapturedStream::~CapturedStream() {
  fflush(fd_ == 1 ? stdout : stderr);
  dup2(saved_, fd_);
  close(saved_);
  unlink(path_.c_str());
}

std::string CapturedStream::text() {
  fflush(fd_ == 1 ? stdout : stderr);
  return read_file(path_);
}

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream contents;
  contents << in.rdbuf();
  return contents.str();
}

void write_file(const std::string &path, const std::string &contents) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << contents;
}

namespace {

std::vector<char *> c_argv(const std::vector<std::string> &argv) {
  std::vector<char *> result;
  for (const std::string &arg : argv) result.push_back(const_cast<char *>(arg.c_str()));
  result.push_back(nullptr);
  return result;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string> &argv) {
  int pipe_fds[2];
  if (pipe(pipe_fds) != 0) throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], 1);
  posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], 2);
  posix_spawn_file_actions_addclose(&actions, pipe_fds[0]);
  std::vector<char *> args = c_argv(argv);
  int rc = posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipe_fds[1]);
  out_ = pipe_fds[0];
  if (rc != 0) {
    pid_ = -1;
    throw std::runtime_error("cannot start " + argv[0]);
  }
}

ChildProcess::~ChildProcess() {
  stop();
  if (out_ >= 0) close(out_);
}

std::string ChildProcess::wait_for_line(const std::string &needle,
                                        std::chrono::milliseconds limit) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    size_t newline;
    while ((newline = pending_.find('\n')) != std::string::npos) {
      std::string line = pending_.substr(0, newline);
      pending_.erase(0, newline + 1);
      if (line.find(needle) != std::string::npos) return line;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return "";
    pollfd waiter{out_, POLLIN, 0};
    if (poll(&waiter, 1, static_cast<int>(left.count())) <= 0) continue;
    char chunk[4096];
    ssize_t n = read(out_, chunk, sizeof chunk);
    if (n <= 0) return "";
    pending_.append(chunk, static_cast<size_t>(n));
  }
}

int ChildProcess::stop() {
  if (pid_ <= 0) return -1;
  kill(pid_, SIGTERM);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return status;
}

int run_command(const std::vector<std::string> &argv) {
  std::vector<char *> args = c_argv(argv);
  pid_t pid;
  if (posix_spawnp(&pid, args[0], nullptr, nullptr, args.data(), environ) != 0) return -1;
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

UdpSocket::UdpSocket() {
  fd_ = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
    throw std::runtime_error("cannot bind a UDP socket");
  socklen_t size = sizeof address;
  getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &size);
  port_ = ntohs(address.sin_port);
}

UdpSocket::~UdpSocket() { close(fd_); }

std::vector<unsigned char> UdpSocket::receive(std::chrono::milliseconds limit) {
  pollfd waiter{fd_, POLLIN, 0};
  if (poll(&waiter, 1, static_cast<int>(limit.count())) <= 0) return {};
  std::vector<unsigned char> datagram(65536);
  ssize_t n = recv(fd_, datagram.data(), datagram.size(), 0);
  datagram.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return datagram;
}

uint16_t free_udp_port() {
  UdpSocket probe;
  return probe.port();
}

}  // namespace testsupport
