// Shared test fixtures: temporary directories, captured standard streams,
// child processes and loopback sockets.  All of them are real: files in a
// fresh directory, pipes, processes and sockets, cleaned up on destruction.
#ifndef EVENTS_TESTS_SUPPORT_FIXTURES_H
#define EVENTS_TESTS_SUPPORT_FIXTURES_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace testsupport {

// A fresh directory under $TMPDIR, removed with its contents.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;

  const std::string &path() const { return path_; }
  std::string file(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Redirects a standard stream (by descriptor, 1 or 2) into a file for its
// lifetime; text() returns everything written so far.
class CapturedStream {
 public:
  explicit CapturedStream(int fd);
  ~CapturedStream();
  CapturedStream(const CapturedStream &) = delete;
  CapturedStream &operator=(const CapturedStream &) = delete;

  std::string text();

 private:
  int fd_;
  int saved_;
  std::string path_;
};

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &contents);

// A child process with its standard output (and error) on a pipe.
class ChildProcess {
 public:
  explicit ChildProcess(const std::vector<std::string> &argv);
  ~ChildProcess();  // SIGTERM, then waits
  ChildProcess(const ChildProcess &) = delete;
  ChildProcess &operator=(const ChildProcess &) = delete;

  // Reads output until a line containing `needle` arrives or the time runs
  // out; returns that line, or "" on time-out or end of output.
  std::string wait_for_line(const std::string &needle, std::chrono::milliseconds limit);
  // Sends SIGTERM and returns the exit status.
  int stop();
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int out_ = -1;
  std::string pending_;
};

// Runs a command to completion; returns its exit status.
int run_command(const std::vector<std::string> &argv);

// A UDP socket bound to 127.0.0.1 on a free port.
class UdpSocket {
 public:
  UdpSocket();
  ~UdpSocket();
  UdpSocket(const UdpSocket &) = delete;
  UdpSocket &operator=(const UdpSocket &) = delete;

  int fd() const { return fd_; }
  uint16_t port() const { return port_; }
  // Waits for one datagram; returns its bytes, empty on time-out.
  std::vector<unsigned char> receive(std::chrono::milliseconds limit);

 private:
  int fd_;
  uint16_t port_;
};

// A UDP port on 127.0.0.1 that was free a moment ago.
uint16_t free_udp_port();

}  // namespace testsupport

#endif
