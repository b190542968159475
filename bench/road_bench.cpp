// The whole road of a trap, measured as CPU time per trap on the receiving
// side: the same SNMPv1 Trap datagrams are sent on loopback to
//   - libevents: recv_event decodes each, trp_format lays it out as the
//     daemon's log line by the bundled configuration, and the line goes to
//     a file;
//   - net-snmp's snmptrapd, writing a format1 line per trap to a file
//     (-Lf), its CPU time read from /proc before and after.
// The sender is paced so that neither receiver drops datagrams; only the
// traps that arrived are counted.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "event.h"
#include "snmp.h"
#include "trp_format.h"

namespace {

constexpr int kTraps = 5000;

std::string temp_dir() {
  static std::string dir;
  if (dir.empty()) {
    char name[] = "/tmp/road_bench-XXXXXX";
    if (mkdtemp(name) == nullptr) abort();
    dir = name;
  }
  return dir;
}

void write_text(const std::string &path, const std::string &text) {
  std::ofstream(path) << text;
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

// Sends kTraps copies of `message` to 127.0.0.1:port, about 4,000 a second.
void send_traps(uint16_t port, const std::vector<unsigned char> &message) {
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  for (int i = 0; i < kTraps; ++i) {
    sendto(fd, message.data(), message.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    if (i % 4 == 3) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  close(fd);
}

double thread_cpu_seconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return t.tv_sec + t.tv_nsec / 1e9;
}

void BM_RoadLibevents(benchmark::State &state) {
  std::ifstream in(EVENTS_EXAMPLES_DIR "/hubd.conf");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  for (size_t at; (at = text.find("/usr/KZ/conf/C/")) != std::string::npos;)
    text.replace(at, 15, EVENTS_EXAMPLES_DIR "/");
  write_text(temp_dir() + "/hubd.conf", text);
  setHubdConfFile((temp_dir() + "/hubd.conf").c_str());
  setenv("KZ_CONF_DIR", EVENTS_EXAMPLES_DIR, 1);
  setenv("KZ_MIB_FILE", EVENTS_EXAMPLES_DIR "/mib.labels", 1);
  std::vector<unsigned char> message = encoded_trap();

  for (auto _ : state) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    set_sock_buf_size_if_larger(fd, SO_RCVBUF, 8 << 20);
    event_infoEMS ei{};
    ei.sd = fd;
    ei.trans = EVENT_TRANS_UDP;
    FILE *out = fopen((temp_dir() + "/libevents.log").c_str(), "w");
    static snmp_trap_infoEMS trap;
    static SnmpVarBindEMS vars[16];
    static char line[8192];
    std::thread sender(send_traps, ntohs(address.sin_port), std::cref(message));
    double start = thread_cpu_seconds();
    long received = 0;
    pollfd wait_for{fd, POLLIN, 0};
    while (poll(&wait_for, 1, 1000) > 0) {
      trap.clen = SNMP_COMMUNITY_MAX - 1;
      trap.elen = SNMP_OID_MAX;
      trap.maxvars = 16;
      if (recv_event(&ei, &trap, vars) <= 0) continue;
      line[0] = '\0';
      char *host = nullptr;
      if (trp_format(HUBD_USER, &trap, line, sizeof line, vars, &host, 0) >= 0) fputs(line, out);
      ++received;
    }
    fflush(out);
    double cpu = thread_cpu_seconds() - start;
    sender.join();
    fclose(out);
    close(fd);
    state.counters["traps"] = static_cast<double>(received);
    state.counters["cpu_us_per_trap"] = received > 0 ? cpu * 1e6 / received : 0;
  }
}
BENCHMARK(BM_RoadLibevents)->Iterations(1)->Unit(benchmark::kMillisecond);

long process_cpu_ticks(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  size_t at = text.rfind(')');
  if (at == std::string::npos) return -1;
  // Fields after the command: state is field 3; utime and stime are 14, 15.
  std::vector<std::string> fields;
  size_t pos = at + 2;
  while (pos < text.size()) {
    size_t end = text.find(' ', pos);
    fields.push_back(text.substr(pos, end - pos));
    if (end == std::string::npos) break;
    pos = end + 1;
  }
  return std::stol(fields[11]) + std::stol(fields[12]);
}

long count_lines(const std::string &path) {
  std::ifstream in(path);
  long lines = 0;
  std::string line;
  while (std::getline(in, line)) ++lines;
  return lines;
}

void BM_RoadSnmptrapd(benchmark::State &state) {
  std::string conf = temp_dir() + "/snmptrapd.conf";
  write_text(conf,
             "disableAuthorization yes\n"
             "format1 %y-%m-%l %h:%j:%k %a %N %w %q %v\\n\n");
  std::string log = temp_dir() + "/snmptrapd.log";
  std::vector<unsigned char> message = encoded_trap();
  for (auto _ : state) {
    unlink(log.c_str());
    uint16_t port = static_cast<uint16_t>(30000 + getpid() % 20000);
    std::string listen = "udp:127.0.0.1:" + std::to_string(port);
    pid_t pid = fork();
    if (pid == 0) {
      execlp("snmptrapd", "snmptrapd", "-f", "-Lf", log.c_str(), "-n", "-C", "-c", conf.c_str(),
             "-m", "", "-M", "", "-On", listen.c_str(), static_cast<char *>(nullptr));
      _exit(127);
    }
    // Its banner line says it is listening.
    for (int i = 0; i < 100 && count_lines(log) < 1; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    long before = process_cpu_ticks(pid);
    send_traps(port, message);
    long lines = count_lines(log), previous = -1;
    while (lines != previous) {
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
      previous = lines;
      lines = count_lines(log);
    }
    long after = process_cpu_ticks(pid);
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    long received = lines - 1;
    double cpu = static_cast<double>(after - before) / sysconf(_SC_CLK_TCK);
    state.counters["traps"] = static_cast<double>(received);
    state.counters["cpu_us_per_trap"] = received > 0 ? cpu * 1e6 / received : 0;
  }
}
BENCHMARK(BM_RoadSnmptrapd)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
