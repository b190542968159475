// The whole road of a trap, beside net-snmp's snmptrapd in the same run.
// One sender paces the same SNMPv1 Trap datagrams on loopback to
//   - libevents: hubd-dev's UDP port; the hub relays each trap to a client
//     on its Unix socket, where recv_event decodes it, trp_format lays it
//     out as the daemon's log line by the bundled configuration, and the
//     line goes to a file;
//   - snmptrapd, writing a format1 line per trap to a file (-Lf).
// Neither receiver sets its socket's receive buffer: both have the
// system's default (net.core.rmem_default).
//
// BM_Road*/RATE sends RATE traps in one second and reports the traps
// received, the traps lost and the CPU time per received trap of the
// receiving side: the hub's process and the client's thread, or
// snmptrapd's process.  BM_Road*NoLoss finds the highest rate at which
// every one of 5,000 traps arrives, twice running if the first try lost
// any: doubling from 2,000 a second to the first loss, then halving the
// gap twice.  Where the sender cannot
// keep up, the search ends there and sender_bound says so.
//
//   build/bench/road_bench
//
// ROAD_BENCH_HUBD names another hubd-dev binary to measure, for instance
// an older build.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "event.h"
#include "snmp.h"
#include "support/fixtures.h"
#include "trp_format.h"

namespace {

using testsupport::ChildProcess;
using testsupport::TempDir;

constexpr int kSearchTraps = 5000;
constexpr double kSearchStart = 2000;
constexpr double kSearchCeiling = 2e6;
constexpr int kBisections = 2;

TempDir &dir() {
  static TempDir instance;
  return instance;
}

// A link-down trap from 127.0.0.1 with the interface's index and states.
std::vector<unsigned char> encoded_trap() {
  static snmp_trap_infoEMS trap;
  static SnmpVarBindEMS vars[3];
  memcpy(trap.community, "public", 6);
  trap.clen = 6;
  const ObjectIdEMS enterprise[] = {1, 3, 6, 1, 6, 3, 1, 1, 5};
  memcpy(trap.enterprise, enterprise, sizeof enterprise);
  trap.elen = 9;
  trap.agent = 0x7F000001;
  trap.gen = 2;
  trap.time = 12345;
  trap.vars = 3;
  const ObjectIdEMS columns[] = {1, 7, 8};
  for (int i = 0; i < 3; ++i) {
    const ObjectIdEMS oid[] = {1, 3, 6, 1, 2, 1, 2, 2, 1, columns[i], 3};
    memcpy(vars[i].oid, oid, sizeof oid);
    vars[i].oid_length = 11;
    vars[i].type = 0x02;
    vars[i].val.integer = i == 0 ? 3 : i;
    vars[i].val_len = 4;
  }
  std::vector<unsigned char> message(EVENT_MAX_MESSAGE);
  int length = static_cast<int>(message.size());
  if (snmpBuildTrapEMS(message.data(), &length, &trap, nullptr, vars) != 0) abort();
  message.resize(length);
  return message;
}

double now_seconds() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec + t.tv_nsec / 1e9;
}

// Sends `count` copies of the trap to 127.0.0.1:port, `rate` a second:
// every millisecond the traps then due, in one sendmmsg call.  Returns
// the rate achieved.
double send_paced(uint16_t port, double rate, int count) {
  static const std::vector<unsigned char> message = encoded_trap();
  constexpr int kMostAtOnce = 64;
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  iovec part{const_cast<unsigned char *>(message.data()), message.size()};
  mmsghdr headers[kMostAtOnce] = {};
  for (mmsghdr &header : headers) {
    header.msg_hdr.msg_name = &to;
    header.msg_hdr.msg_namelen = sizeof to;
    header.msg_hdr.msg_iov = &part;
    header.msg_hdr.msg_iovlen = 1;
  }
  const double start = now_seconds();
  for (int sent = 0; sent < count;) {
    double elapsed = now_seconds() - start;
    int due = std::min(count, static_cast<int>(elapsed * rate) + 1);
    if (due <= sent) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      continue;
    }
    int n = sendmmsg(fd, headers, static_cast<unsigned>(std::min(due - sent, kMostAtOnce)), 0);
    if (n < 0 && errno != EINTR && errno != ENOBUFS) abort();
    sent += std::max(n, 0);
  }
  double seconds = now_seconds() - start;
  close(fd);
  return seconds > 0 ? count / seconds : rate;
}

// CPU time, user and system, of a single-threaded process in ns: the
// first field of /proc/PID/schedstat, exact where /proc/PID/stat counts
// clock ticks.
double process_cpu_ns(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/schedstat");
  double ns = 0;
  in >> ns;
  return ns;
}

// A receiving side: where its traps are sent, how many it has taken, and
// the CPU time it has used.
class Receiver {
 public:
  virtual ~Receiver() = default;
  virtual uint16_t port() const = 0;
  virtual long received() = 0;
  virtual double cpu_ns() = 0;
  // The part of cpu_ns() spent relaying, where there is a relay.
  virtual double relay_cpu_ns() { return 0; }
};

// hubd-dev on a UDP port, relaying to a client thread on its Unix socket.
class HubRoad : public Receiver {
 public:
  HubRoad() {
    const char *binary = getenv("ROAD_BENCH_HUBD");
    std::string socket = dir().file("hub.socket");
    hub_ = std::make_unique<ChildProcess>(std::vector<std::string>{
        binary != nullptr ? binary : HUBD_DEV_PATH, "--unix", socket, "--udp", "127.0.0.1:0"});
    std::string line = hub_->wait_for_line("listening on udp", std::chrono::seconds(10));
    if (line.empty() || hub_->wait_for_line("ready", std::chrono::seconds(10)).empty()) return;
    port_ = static_cast<uint16_t>(atoi(line.substr(line.rfind(':') + 1).c_str()));
    if (open_event(&client_, 2, socket.c_str(), EVENT_TRANS_UNIX) < 0) port_ = 0;
    if (port_ != 0) client_thread_ = std::thread(&HubRoad::take_traps, this);
  }
  ~HubRoad() override {
    // Wakes the client from its wait, with no more to read.
    if (port_ != 0) shutdown(client_.sd, SHUT_RDWR);
    if (client_thread_.joinable()) client_thread_.join();
    if (port_ != 0) close_event(&client_);
  }
  uint16_t port() const override { return port_; }
  long received() override { return taken_.load(); }
  double cpu_ns() override {
    timespec t{};
    clockid_t clock;
    pthread_getcpuclockid(client_thread_.native_handle(), &clock);
    clock_gettime(clock, &t);
    return relay_cpu_ns() + t.tv_sec * 1e9 + t.tv_nsec;
  }
  double relay_cpu_ns() override { return process_cpu_ns(hub_->pid()); }

 private:
  // What an application on the hub does: takes a trap, waiting for it if
  // none is there, formats it for the log and writes the line.
  void take_traps() {
    FILE *out = fopen(dir().file("libevents.log").c_str(), "w");
    static snmp_trap_infoEMS trap;
    static SnmpVarBindEMS vars[16];
    static char line[8192];
    for (;;) {
      snmp_trap_reset_capacities(&trap, 16);
      if (recv_event(&client_, &trap, vars) <= 0) break;
      line[0] = '\0';
      char *host = nullptr;
      if (trp_format(HUBD_USER, &trap, line, sizeof line, vars, &host, 0) >= 0) fputs(line, out);
      taken_.fetch_add(1, std::memory_order_relaxed);
    }
    fclose(out);
  }

  std::unique_ptr<ChildProcess> hub_;
  event_infoEMS client_{};
  uint16_t port_ = 0;
  std::thread client_thread_;
  std::atomic<long> taken_{0};
};

off_t file_size(const std::string &path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? info.st_size : 0;
}

long count_lines(const std::string &path) {
  std::ifstream in(path);
  long lines = 0;
  std::string line;
  while (std::getline(in, line)) ++lines;
  return lines;
}

// snmptrapd writing a line per trap to a log.  The log is counted only
// once its size has stopped changing, so that counting costs the machine
// nothing while traps flow.
class Snmptrapd : public Receiver {
 public:
  Snmptrapd() : log_(dir().file("snmptrapd.log")) {
    std::string conf = dir().file("snmptrapd.conf");
    testsupport::write_file(conf,
                            "disableAuthorization yes\n"
                            "format1 %y-%m-%l %h:%j:%k %a %N %w %q %v\\n\n");
    unlink(log_.c_str());
    uint16_t port = testsupport::free_udp_port();
    daemon_ = std::make_unique<ChildProcess>(std::vector<std::string>{
        "snmptrapd", "-f", "-Lf", log_, "-n", "-C", "-c", conf, "-m", "", "-M", "", "-On",
        "udp:127.0.0.1:" + std::to_string(port)});
    // Its banner line says it is listening.
    for (int i = 0; i < 100 && count_lines(log_) < 1; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    if (count_lines(log_) == 1) port_ = port;
  }
  uint16_t port() const override { return port_; }
  long received() override {
    for (off_t size = -1; size != file_size(log_);) {
      size = file_size(log_);
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return count_lines(log_) - 1;
  }
  double cpu_ns() override { return process_cpu_ns(daemon_->pid()); }

 private:
  std::string log_;
  std::unique_ptr<ChildProcess> daemon_;
  uint16_t port_ = 0;
};

struct Trial {
  long sent = 0, received = 0;
  double cpu_ns = 0, relay_cpu_ns = 0, sent_rate = 0;
  bool lossless() const { return received == sent; }
};

// Sends `count` traps at `rate` and waits until the receiver has taken
// them all or has taken none for 300 ms.
Trial run_trial(Receiver &receiver, double rate, int count) {
  long before = receiver.received();
  double cpu_before = receiver.cpu_ns(), relay_before = receiver.relay_cpu_ns();
  Trial trial;
  trial.sent = count;
  trial.sent_rate = send_paced(receiver.port(), rate, count);
  for (long taken = -1; trial.received != count && trial.received != taken;) {
    taken = trial.received;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    trial.received = receiver.received() - before;
  }
  trial.cpu_ns = receiver.cpu_ns() - cpu_before;
  trial.relay_cpu_ns = receiver.relay_cpu_ns() - relay_before;
  return trial;
}

void report(benchmark::State &state, const Trial &trial) {
  state.counters["sent_rate"] = trial.sent_rate;
  state.counters["traps"] = static_cast<double>(trial.received);
  state.counters["lost"] = static_cast<double>(trial.sent - trial.received);
  double per_trap = trial.received > 0 ? 1e-3 / static_cast<double>(trial.received) : 0;
  state.counters["cpu_us_per_trap"] = trial.cpu_ns * per_trap;
  if (trial.relay_cpu_ns > 0) state.counters["hub_us_per_trap"] = trial.relay_cpu_ns * per_trap;
}

// Whether every trap arrives at `rate`.  A loss is counted only if it
// happens again, so that one stall of a shared machine does not end a
// search.  Sets `sender_bound` if the sender fell short of the rate.
bool lossless_at(Receiver &receiver, double rate, bool *sender_bound) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    Trial trial = run_trial(receiver, rate, kSearchTraps);
    *sender_bound = trial.sent_rate < 0.9 * rate;
    if (trial.lossless()) return true;
  }
  return false;
}

// The highest rate at which every trap arrived: doubling to the first
// loss, then bisecting.  A sender that cannot keep up ends the search.
void find_no_loss_rate(benchmark::State &state, Receiver &receiver) {
  double good = 0, bad = 0;
  bool sender_bound = false;
  for (double rate = kSearchStart; bad == 0 && !sender_bound && rate <= kSearchCeiling;
       rate *= 2) {
    if (!lossless_at(receiver, rate, &sender_bound))
      bad = rate;
    else if (!sender_bound)
      good = rate;
  }
  for (int i = 0; bad != 0 && good != 0 && i < kBisections; ++i) {
    double rate = (good + bad) / 2;
    bool ignored;
    (lossless_at(receiver, rate, &ignored) ? good : bad) = rate;
  }
  state.counters["no_loss_rate"] = good;
  state.counters["sender_bound"] = sender_bound;
}

void configure_formatting() {
  std::ifstream in(EVENTS_EXAMPLES_DIR "/hubd.conf");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  for (size_t at; (at = text.find("/usr/KZ/conf/C/")) != std::string::npos;)
    text.replace(at, 15, EVENTS_EXAMPLES_DIR "/");
  testsupport::write_file(dir().file("hubd.conf"), text);
  setHubdConfFile(dir().file("hubd.conf").c_str());
  setenv("KZ_CONF_DIR", EVENTS_EXAMPLES_DIR, 1);
  setenv("KZ_MIB_FILE", EVENTS_EXAMPLES_DIR "/mib.labels", 1);
}

// Runs `measure` on a fresh receiver of the kind Side in each iteration.
template <class Side>
void on_fresh_receiver(benchmark::State &state,
                       void (*measure)(benchmark::State &, Receiver &)) {
  configure_formatting();
  for (auto _ : state) {
    Side receiver;
    if (receiver.port() == 0) return state.SkipWithError("the receiver did not start");
    measure(state, receiver);
  }
}

void at_rate(benchmark::State &state, Receiver &receiver) {
  double rate = static_cast<double>(state.range(0));
  report(state, run_trial(receiver, rate, static_cast<int>(rate)));
}

template <class Side>
void BM_RoadAtRate(benchmark::State &state) {
  on_fresh_receiver<Side>(state, at_rate);
}

template <class Side>
void BM_RoadNoLoss(benchmark::State &state) {
  on_fresh_receiver<Side>(state, find_no_loss_rate);
}

void rates(benchmark::internal::Benchmark *b) {
  b->Arg(4000)->Arg(15000)->Arg(50000)->Iterations(1)->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_RoadAtRate<HubRoad>)->Name("BM_RoadHub")->Apply(rates);
BENCHMARK(BM_RoadAtRate<Snmptrapd>)->Name("BM_RoadSnmptrapd")->Apply(rates);
BENCHMARK(BM_RoadNoLoss<HubRoad>)->Name("BM_RoadHubNoLoss")->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RoadNoLoss<Snmptrapd>)->Name("BM_RoadSnmptrapdNoLoss")->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
