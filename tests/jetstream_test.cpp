// The event channel on NATS JetStream, against real nats-server processes
// on loopback ports: one node, a hub publishing to it, and a three-node
// cluster that loses a node while traps flow.

#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <tuple>
#include <string>
#include <vector>

#include "event.h"
#include "support/fixtures.h"
#include "support/nats_server.h"
#include "support/sample_trap.h"

namespace {

using namespace std::chrono_literals;
using testsupport::ChildProcess;
using testsupport::NatsCluster;
using testsupport::NatsNode;
using testsupport::TempDir;

constexpr int kSource = 13;

// Opens a JetStream connection, trying again while a new cluster elects
// its leaders.
event_infoEMS open_stream(const std::string &url, int source = kSource) {
  event_infoEMS ei{};
  auto deadline = std::chrono::steady_clock::now() + 20s;
  while (open_event(&ei, source, url.c_str(), EVENT_TRANS_JETSTREAM) < 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      ADD_FAILURE() << "cannot open " << url;
      break;
    }
    usleep(200000);
  }
  return ei;
}

int send_numbered(event_infoEMS *ei, uint32_t specific) {
  snmp_trap_infoEMS trap;
  SnmpVarBindEMS vars[5];
  testsupport::make_sample_trap(&trap, vars, 5);
  trap.specific = specific;
  return send_trap(ei, &trap, vars);
}

// The next trap on ei, waited for by polling its descriptor as an
// application would; -1 when none comes in time or the receive fails.
// Platform events (the connected and disconnecting events) are skipped: the
// sample trap's enterprise ends in 2, the platform's in 1.
long receive_numbered(event_infoEMS *ei, std::chrono::seconds limit = 20s) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd wait = {ei->sd, POLLIN, 0};
    if (left.count() <= 0 || poll(&wait, 1, static_cast<int>(left.count())) != 1) return -1;
    snmp_trap_infoEMS trap;
    SnmpVarBindEMS vars[10];
    snmp_trap_reset_capacities(&trap, 10);
    int length = recv_event(ei, &trap, vars);
    if (length <= 0) return -1;
    if (trap.elen == 10 && trap.enterprise[9] == 2) return trap.specific;
  }
}

std::vector<long> receive_n(event_infoEMS *ei, int n) {
  std::vector<long> got;
  while (static_cast<int>(got.size()) < n) {
    long specific = receive_numbered(ei);
    if (specific < 0) break;
    got.push_back(specific);
  }
  return got;
}

std::set<long> range(long first, long end) {
  std::set<long> all;
  for (long i = first; i < end; ++i) all.insert(i);
  return all;
}

TEST(JetStream, ATrapArrivesAsOnTheSocketPath) {
  TempDir dir;
  NatsNode node(dir, "n1");
  ASSERT_TRUE(node.running());
  std::string url = "nats://" + node.address() + "/T1";
  event_infoEMS sender = open_stream(url);
  // The receiver has the daemon's number, which sends no connected event:
  // the sender's comes first, then its traps, in the order it sent them.
  event_infoEMS receiver = open_stream(url + "?durable=console", EVENT_SOURCE_HUBD);
  sender.status = 5;
  sender.target = 9;
  snmp_trap_infoEMS trap;
  SnmpVarBindEMS vars[5];
  testsupport::make_sample_trap(&trap, vars, 5);
  ASSERT_EQ(send_trap(&sender, &trap, vars), 0);

  // What the Unix-socket path would carry: the same message octets after
  // a header with the sender's fields.
  unsigned char expected[EVENT_MAX_MESSAGE];
  int expected_length = sizeof expected;
  ASSERT_EQ(snmpBuildTrapEMS(expected, &expected_length, &trap, &sender, vars), 0);
  ASSERT_EQ(receive_numbered(&receiver), 17);
  EXPECT_EQ(std::vector<unsigned char>(recv_packetEMS, recv_packetEMS + recv_headerEMS->len),
            std::vector<unsigned char>(expected, expected + expected_length));
  EXPECT_EQ(recv_headerEMS->src, static_cast<uint32_t>(kSource));
  EXPECT_EQ(recv_headerEMS->pid, getpid());
  EXPECT_EQ(recv_headerEMS->status, 5);
  EXPECT_EQ(recv_headerEMS->target, 9u);
  EXPECT_NEAR(recv_headerEMS->time, time(nullptr), 60);

  // A message that does not decode is acknowledged and reported, and the
  // next one comes.
  const unsigned char junk[24] = {0x30, 0x16, 0x02, 0x01, 0x00};
  ASSERT_EQ(send_hex_buffer(&sender, junk, sizeof junk), 0);
  ASSERT_EQ(send_numbered(&sender, 18), 0);
  snmp_trap_infoEMS received;
  SnmpVarBindEMS received_vars[10];
  snmp_trap_reset_capacities(&received, 10);
  EXPECT_EQ(recv_event(&receiver, &received, received_vars), -1);
  EXPECT_EQ(receive_numbered(&receiver), 18);

  // Bad names are refused.
  event_infoEMS bad{};
  for (const char *name : {"http://x/", "nats://127.0.0.1:1/T?durable=a.b",
                           "nats://127.0.0.1:1/T?replicas=9", "nats://127.0.0.1:1/T?what=1"})
    EXPECT_EQ(open_event(&bad, kSource, name, EVENT_TRANS_JETSTREAM), -1) << name;
  close_event(&receiver);
  close_event(&sender);
}

TEST(JetStream, DurableConsumersShareResumeAndEachNameGetsAll) {
  TempDir dir;
  NatsNode node(dir, "n1");
  ASSERT_TRUE(node.running());
  std::string url = "nats://" + node.address() + "/T2";
  event_infoEMS sender = open_stream(url);
  // Two connections under one name before anything is sent: both ask for
  // traps, and the server shares them out.
  event_infoEMS left = open_stream(url + "?durable=shared");
  event_infoEMS right = open_stream(url + "?durable=shared");
  for (uint32_t i = 0; i < 300; ++i) ASSERT_EQ(send_numbered(&sender, i), 0);

  std::set<long> shared;
  size_t from_left = 0, from_right = 0;
  while (shared.size() < 300) {
    pollfd waits[2] = {{left.sd, POLLIN, 0}, {right.sd, POLLIN, 0}};
    if (poll(waits, 2, 10000) <= 0) break;
    for (auto [wait, ei, count] : {std::tuple{waits[0], &left, &from_left},
                                   std::tuple{waits[1], &right, &from_right}}) {
      if (wait.revents == 0) continue;
      long specific = receive_numbered(ei, 1s);
      if (specific < 0) continue;
      EXPECT_TRUE(shared.insert(specific).second) << specific << " twice";
      ++*count;
    }
  }
  EXPECT_EQ(shared, range(0, 300));
  EXPECT_GT(from_left, 0u);
  EXPECT_GT(from_right, 0u);

  // Another name gets every trap; stopped half-way and opened again, it
  // goes on where it stopped.
  event_infoEMS first = open_stream(url + "?durable=other");
  std::vector<long> before = receive_n(&first, 120);
  close_event(&first);
  event_infoEMS second = open_stream(url + "?durable=other");
  std::vector<long> after = receive_n(&second, 180);
  std::set<long> all(before.begin(), before.end());
  all.insert(after.begin(), after.end());
  EXPECT_EQ(before.size() + after.size(), 300u);
  EXPECT_EQ(all, range(0, 300));
  close_event(&second);

  // A consumer killed mid-stream resumes after the last trap it
  // acknowledged; what it held unacknowledged comes again.
  std::string killed = url + "?durable=killed&ack_wait=1";
  ChildProcess doomed({JETSTREAM_PEER_PATH, "take", killed, "100"});
  std::set<long> taken;
  for (std::string line; !(line = doomed.wait_for_line("", 30s)).empty();)
    taken.insert(std::stol(line));
  int status = doomed.stop();
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "the peer's receive failed";
  ASSERT_EQ(taken, range(0, 100));
  event_infoEMS resumed = open_stream(killed);
  std::vector<long> rest = receive_n(&resumed, 200);
  EXPECT_EQ(std::set<long>(rest.begin(), rest.end()), range(100, 300));
  EXPECT_EQ(rest.size(), 200u);
  close_event(&resumed);
  close_event(&left);
  close_event(&right);
  close_event(&sender);
}

// The hub puts what it relays into the stream; with --batch, traps that
// come faster than the stream confirms them go out in batches, and each
// still wakes a poll of its own, in order, with its sender's fields.
TEST(JetStream, TheHubPublishesInBatchesAndEachTrapWakesThePoll) {
  TempDir dir;
  NatsNode node(dir, "n1");
  ASSERT_TRUE(node.running());
  std::string url = "nats://" + node.address() + "/T5";
  std::string socket = dir.file("hub.socket");
  ChildProcess hub({HUBD_DEV_PATH, "--unix", socket, "--jetstream", url, "--batch", "50"});
  ASSERT_FALSE(hub.wait_for_line("hubd-dev: ready", 20s).empty());
  event_infoEMS receiver = open_stream(url + "?durable=console");
  event_infoEMS sender{};
  ASSERT_GE(open_event(&sender, kSource, socket.c_str(), EVENT_TRANS_UNIX), 0);
  constexpr long kTraps = 2000;
  for (uint32_t i = 0; i < kTraps; ++i) ASSERT_EQ(send_numbered(&sender, i), 0);
  std::vector<long> got;
  bool fields_kept = true;
  while (static_cast<long>(got.size()) < kTraps) {
    long specific = receive_numbered(&receiver);
    if (specific < 0) break;
    got.push_back(specific);
    // The sender's source; the publisher's, that is the hub's, process.
    fields_kept &= recv_headerEMS->src == static_cast<uint32_t>(kSource) &&
                   recv_headerEMS->pid == hub.pid();
  }
  std::vector<long> expected(kTraps);
  for (long i = 0; i < kTraps; ++i) expected[static_cast<size_t>(i)] = i;
  EXPECT_EQ(got, expected);
  EXPECT_TRUE(fields_kept);
  close_event(&sender);
  close_event(&receiver);
}

TEST(JetStream, AServerThatGoesAwayFailsTheReceiveAndComesBack) {
  TempDir dir;
  NatsNode node(dir, "n1");
  ASSERT_TRUE(node.running());
  std::string url = "nats://" + node.address() + "/T3";
  event_infoEMS sender = open_stream(url);
  event_infoEMS receiver = open_stream(url + "?durable=console");
  ASSERT_EQ(send_numbered(&sender, 1), 0);
  ASSERT_EQ(receive_numbered(&receiver), 1);
  node.kill_hard();
  // Platform events still waiting come first; then the loss is reported.
  int result = 0;
  for (int i = 0; i < 5 && result >= 0; ++i) {
    snmp_trap_infoEMS trap;
    SnmpVarBindEMS vars[10];
    snmp_trap_reset_capacities(&trap, 10);
    result = recv_event(&receiver, &trap, vars);
  }
  EXPECT_EQ(result, -1);
  ASSERT_TRUE(node.start());
  ASSERT_EQ(send_numbered(&sender, 2), 0);
  // A server killed outright may not have kept the last acknowledgement:
  // trap 1 may come again, before trap 2.
  long next = receive_numbered(&receiver, 30s);
  if (next == 1) next = receive_numbered(&receiver, 30s);
  EXPECT_EQ(next, 2);
  close_event(&receiver);
  close_event(&sender);
}

TEST(JetStream, AClusterLosesANodeWhileTrapsFlowAndEveryTrapArrivesOnce) {
  constexpr long kTraps = 10000;
  TempDir dir;
  NatsCluster cluster(dir);
  ASSERT_TRUE(cluster.running());
  // Traps lost in flight with the node come again after ack_wait.
  std::string url = cluster.url() + "/T4?replicas=3&ack_wait=5";
  event_infoEMS receiver = open_stream(url + "&durable=console");
  ChildProcess sender({JETSTREAM_PEER_PATH, "send", url, std::to_string(kTraps)});

  // Clients go to the first server named, so the node killed is the one
  // both of them are connected to.  The node's loss is reported once; a
  // silence is not, and a stall ends the loop rather than the test's time.
  std::map<long, int> seen;
  int failures = 0;
  auto deadline = std::chrono::steady_clock::now() + 90s;
  while (static_cast<long>(seen.size()) < kTraps && std::chrono::steady_clock::now() < deadline) {
    long specific = receive_numbered(&receiver, 20s);
    if (specific < 0) {
      ++failures;
      continue;
    }
    ++seen[specific];
    if (seen.size() == 3000) cluster.node(0).kill_hard();
    if (seen.size() == 6000) cluster.node(0).start();
  }
  EXPECT_EQ(static_cast<long>(seen.size()), kTraps);
  long twice = 0;
  for (const auto &[specific, count] : seen) twice += count > 1;
  EXPECT_EQ(twice, 0);
  EXPECT_GE(failures, 1) << "the node's loss was not reported";
  close_event(&receiver);
}

}  // namespace
