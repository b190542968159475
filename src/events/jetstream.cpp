// The event channel on NATS JetStream (see jetstream.h).
//
// Publishing is asynchronous: a trap is handed to the client, which sends
// it with a message ID derived from this connection and a counter, waits
// for the stream's confirmation in the background and sends it again on a
// failure or a time-out; the stream drops the copies by that ID.  With
// batches, traps of one subject that come while two publications await
// their confirmation wait for the next confirmation (or for the batch to
// fill) and go out as one message: the cluster then agrees once on many
// traps, which is what a storm needs.
//
// Receiving pulls from a durable consumer.  The client's threads keep the
// requests going: the delivery thread asks for more as messages come, and
// asks again when a request ends with a status (it expired, or the
// consumer changed leader) or when nothing at all came for a while (a
// request lost with a leader); the reconnection handler asks again on the
// new connection.  The delivery thread queues each message and adds the
// number of its traps to the connection's eventfd, so the descriptor is
// readable exactly when a trap waits, and an application that polls it is
// never woken for nothing nor left waiting on a request the cluster lost.
// The caller's thread takes one count per trap, hands the trap over and
// acknowledges a message once all its traps are handed over.  The
// consumer's limit on unacknowledged messages bounds what can wait.

#include "events/jetstream.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "log_trace.h"

namespace events::jetstream {
namespace {

void put_word(std::string *out, uint32_t word) {
  const char octets[4] = {static_cast<char>(word >> 24), static_cast<char>(word >> 16),
                          static_cast<char>(word >> 8), static_cast<char>(word)};
  out->append(octets, 4);
}

uint32_t get_word(const unsigned char *p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

}  // namespace

void append_frame(std::string *batch, const trap_headerEMS &header, const unsigned char *message,
                  int length) {
  put_word(batch, static_cast<uint32_t>(length));
  put_word(batch, header.src);
  put_word(batch, static_cast<uint32_t>(header.pid));
  put_word(batch, static_cast<uint32_t>(header.status));
  put_word(batch, header.target);
  batch->append(reinterpret_cast<const char *>(message), static_cast<size_t>(length));
}

bool next_frame(const unsigned char *data, size_t size, size_t *offset, trap_headerEMS *header,
                const unsigned char **message) {
  if (*offset > size || size - *offset < kFrameHeader) return false;
  const unsigned char *p = data + *offset;
  uint32_t length = get_word(p);
  if (length > size - *offset - kFrameHeader || length > INT32_MAX) return false;
  header->len = static_cast<int32_t>(length);
  header->src = get_word(p + 4);
  header->pid = static_cast<int32_t>(get_word(p + 8));
  header->status = static_cast<int32_t>(get_word(p + 12));
  header->target = get_word(p + 16);
  *message = p + kFrameHeader;
  *offset += kFrameHeader + length;
  return true;
}

long count_frames(const unsigned char *data, size_t size) {
  long count = 0;
  size_t offset = 0;
  trap_headerEMS header;
  const unsigned char *message;
  while (next_frame(data, size, &offset, &header, &message)) ++count;
  return offset == size ? count : -1;
}

}  // namespace events::jetstream

#if EVENTS_HAVE_NATS

#include <nats/nats.h>

#include <cinttypes>
#include <ctime>
#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_set>
#include <vector>

#include "events/ber_reader.h"

namespace events::jetstream {
namespace {

constexpr const char *kDefaultStream = "TRAPS";
constexpr const char *kSubjectRoot = "traps";
constexpr int kDefaultReplicas = 1;
constexpr int64_t kDefaultMaxAgeSeconds = 7 * 24 * 3600;
constexpr int64_t kDefaultMaxBytes = int64_t{1} << 30;
constexpr int64_t kDefaultAckWaitSeconds = 30;
constexpr int kPullBatch = 128;          // messages asked for at a time
constexpr int kMaxAckPending = 1000;     // bounds what waits to be handed over
constexpr int kMaxBatch = 1000;          // traps in a batch, at most
constexpr size_t kMaxBatchOctets = 60000;
constexpr long kBatchWindow = 2;         // publications awaiting confirmation before traps wait
constexpr size_t kMaxOpenBatches = 16;   // one per subject
constexpr int64_t kPublishWaitMs = 2000; // confirmation time-out before a resend
constexpr int64_t kCloseWaitMs = 5000;
constexpr int64_t kPublishRetryMs = 60000;
constexpr int64_t kResendTickMs = 250;
constexpr int64_t kRequestLifeMs = 1500;     // a pull request expires after this
constexpr int64_t kQuietBeforeAskingAgainMs = 2000;
constexpr int64_t kLeastBetweenAsksMs = 250;  // after a status, against a loop of them
constexpr size_t kRememberedSequences = 16384;

// The queue entry other than a message.
natsMsg *const kDisconnected = reinterpret_cast<natsMsg *>(uintptr_t{1});

void report(const char *fmt, const char *detail) {
  logger(1, "jetstream", fmt, detail);
}

// What a URL names.
struct Address {
  std::vector<std::string> servers;
  std::string stream = kDefaultStream;
  std::string durable;
  std::string from;  // "", "start", "new", a sequence number or a time
  int replicas = kDefaultReplicas;
  int batch = 1;
  int64_t max_age_seconds = kDefaultMaxAgeSeconds;
  int64_t max_bytes = kDefaultMaxBytes;
  int64_t ack_wait_seconds = kDefaultAckWaitSeconds;
};

bool read_count(const std::string &text, int64_t low, int64_t high, int64_t *value) {
  if (text.empty() || text.size() > 18) return false;
  int64_t n = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    n = n * 10 + (c - '0');
  }
  if (n < low || n > high) return false;
  *value = n;
  return true;
}

// A name the server accepts for a stream or a consumer.
bool plain_name(const std::string &name) {
  if (name.empty() || name.size() > 64) return false;
  for (unsigned char c : name)
    if (c <= ' ' || c == '.' || c == '*' || c == '>' || c == '/' || c == '\\' || c >= 0x7F)
      return false;
  return true;
}

// nats://HOST:PORT[,HOST:PORT]...[/STREAM][?durable=NAME&from=...&replicas=N
// &max_age=SECONDS&max_bytes=OCTETS&ack_wait=SECONDS&batch=N]
bool parse_url(const char *url, Address *out, std::string *why) {
  std::string text = url != nullptr ? url : "";
  const std::string scheme = "nats://";
  if (text.compare(0, scheme.size(), scheme) != 0) return *why = "it must start with nats://", false;
  text.erase(0, scheme.size());
  std::string query;
  size_t mark = text.find('?');
  if (mark != std::string::npos) {
    query = text.substr(mark + 1);
    text.resize(mark);
  }
  size_t slash = text.find('/');
  if (slash != std::string::npos) {
    std::string stream = text.substr(slash + 1);
    text.resize(slash);
    if (!stream.empty()) out->stream = stream;
  }
  if (!plain_name(out->stream)) return *why = "bad stream name", false;
  size_t start = 0;
  while (start <= text.size()) {
    size_t comma = text.find(',', start);
    std::string server = text.substr(start, comma == std::string::npos ? comma : comma - start);
    if (server.compare(0, scheme.size(), scheme) == 0) server.erase(0, scheme.size());
    if (server.empty()) return *why = "an empty server address", false;
    out->servers.push_back(scheme + server);
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  while (!query.empty()) {
    size_t amp = query.find('&');
    std::string pair = query.substr(0, amp);
    query = amp == std::string::npos ? "" : query.substr(amp + 1);
    size_t eq = pair.find('=');
    std::string key = pair.substr(0, eq);
    std::string value = eq == std::string::npos ? "" : pair.substr(eq + 1);
    int64_t n = 0;
    if (key == "durable" && plain_name(value)) {
      out->durable = value;
    } else if (key == "from" && !value.empty()) {
      out->from = value;
    } else if (key == "replicas" && read_count(value, 1, 5, &n)) {
      out->replicas = static_cast<int>(n);
    } else if (key == "batch" && read_count(value, 1, kMaxBatch, &n)) {
      out->batch = static_cast<int>(n);
    } else if (key == "max_age" && read_count(value, 1, INT64_MAX / 1000000000, &n)) {
      out->max_age_seconds = n;
    } else if (key == "max_bytes" && read_count(value, 1, INT64_MAX, &n)) {
      out->max_bytes = n;
    } else if (key == "ack_wait" && read_count(value, 1, 86400, &n)) {
      out->ack_wait_seconds = n;
    } else {
      *why = "bad parameter '" + pair + "'";
      return false;
    }
  }
  return true;
}

// Seconds since the epoch of "YYYY-MM-DDTHH:MM:SSZ", or -1.
int64_t parse_time(const std::string &text) {
  tm fields{};
  const char *end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &fields);
  if (end == nullptr || (*end != 'Z' && *end != '\0') || (*end == 'Z' && end[1] != '\0')) return -1;
  return static_cast<int64_t>(timegm(&fields));
}

int64_t now_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

// What a message carries beside the trap, in one header, since every
// header costs the client and each server a search on every message:
// "SRC PID STATUS TARGET SINCE", SINCE being when the trap was first
// published, in ms of this host's monotonic clock.
constexpr const char *kFieldsHeader = "Events";

struct Fields {
  int64_t src = 1, pid = -1, status = 0, target = 0, since = 0;
};

void set_fields(natsMsg *msg, const Fields &f) {
  char text[112];
  snprintf(text, sizeof text, "%" PRId64 " %" PRId64 " %" PRId64 " %" PRId64 " %" PRId64, f.src,
           f.pid, f.status, f.target, f.since);
  natsMsgHeader_Set(msg, kFieldsHeader, text);
}

// Fields a message lacks keep their defaults.
Fields get_fields(natsMsg *msg) {
  Fields f;
  const char *text = nullptr;
  if (natsMsgHeader_Get(msg, kFieldsHeader, &text) != NATS_OK || text == nullptr) return f;
  int64_t *slots[] = {&f.src, &f.pid, &f.status, &f.target, &f.since};
  for (int64_t *slot : slots) {
    char *end = nullptr;
    long long value = strtoll(text, &end, 10);
    if (end == text) break;
    *slot = value;
    text = end;
  }
  return f;
}

// A batch carries its traps' fields in its frames, and only SINCE in a
// header of its own, which also tells it from a single trap.
constexpr const char *kBatchHeader = "Events-Batch";

bool is_batch(natsMsg *msg) {
  const char *text = nullptr;
  return natsMsgHeader_Get(msg, kBatchHeader, &text) == NATS_OK;
}

int64_t since_of(natsMsg *msg) {
  const char *text = nullptr;
  if (natsMsgHeader_Get(msg, kBatchHeader, &text) == NATS_OK && text != nullptr)
    return strtoll(text, nullptr, 10);
  return get_fields(msg).since;
}

// How many traps a message carries; a batch that does not read as one
// counts as one, which the caller's thread reports.
long traps_in(natsMsg *msg) {
  if (!is_batch(msg)) return 1;
  long count = count_frames(reinterpret_cast<const unsigned char *>(natsMsg_GetData(msg)),
                            static_cast<size_t>(natsMsg_GetDataLength(msg)));
  return count > 0 ? count : 1;
}

// Traps of one subject waiting to go out together.
struct Batch {
  std::string subject;
  std::string frames;
  int count = 0;
};

// What the client's threads share with the caller's.  The client's
// closed handler, the last call it makes for a connection, deletes it.
struct Link {
  std::atomic<long> unconfirmed{0};  // publications not yet stored
  std::mutex mutex;
  jsCtx *js = nullptr;
  std::vector<natsMsg *> to_resend;  // failed publications, sent on the next tick
  std::string id_prefix;             // of the message IDs
  uint64_t published = 0;
  int batch_limit = 1;               // traps in a batch; 1: no batches
  std::vector<Batch> batches;        // open, oldest first
  // Delivered messages not yet wholly handed over, and kDisconnected
  // marks; `ready` (the caller's descriptor) counts their traps.
  std::deque<natsMsg *> waiting;
  int ready = -1;
  bool closing = false;  // the caller is closing: queue no more
  natsConnection *nc = nullptr;
  std::string pull_subject, inbox;  // empty without a consumer
  bool asking = true;               // false once closing
  int outstanding = 0;              // messages asked for and not yet come
  int64_t last_ask_ms = 0;
  // Where the latest acknowledgements went.  Those sent just before a
  // connection broke may be lost; they are sent again after reconnecting.
  // The consumer's limit on unacknowledged messages bounds how many can be.
  std::deque<std::string> recent_acks;

  ~Link() {
    for (natsMsg *msg : to_resend) natsMsg_Destroy(msg);
  }
};

// The next message ID.  REQUIRES: link.mutex held.
std::string next_id(Link &link) { return link.id_prefix + std::to_string(++link.published); }

// Takes open batch `i` out as a message to publish, counted unconfirmed
// from now.  REQUIRES: link.mutex held.
natsMsg *seal(Link &link, size_t i) {
  Batch batch = std::move(link.batches[i]);
  link.batches.erase(link.batches.begin() + static_cast<long>(i));
  natsMsg *msg = nullptr;
  if (natsMsg_Create(&msg, batch.subject.c_str(), nullptr, batch.frames.data(),
                     static_cast<int>(batch.frames.size())) != NATS_OK) {
    fprintf(stderr, "jetstream: %d traps were dropped: no memory for their batch\n", batch.count);
    return nullptr;
  }
  natsMsgHeader_Set(msg, "Nats-Msg-Id", next_id(link).c_str());
  natsMsgHeader_Set(msg, kBatchHeader, std::to_string(now_ms()).c_str());
  ++link.unconfirmed;
  return msg;
}

// How long the client waits for a publication's confirmation.
jsPubOptions publish_options() {
  jsPubOptions options;
  jsPubOptions_Init(&options);
  options.MaxWait = kPublishWaitMs;
  return options;
}

// Publishes sealed batches, without the lock: the client takes locks of
// its own.  One it does not take goes again on the next tick.
void send_sealed(Link &link, std::vector<natsMsg *> &sealed) {
  jsPubOptions options = publish_options();
  for (natsMsg *&msg : sealed) {
    if (msg == nullptr || js_PublishMsgAsync(link.js, &msg, &options) == NATS_OK) continue;
    std::lock_guard<std::mutex> hold(link.mutex);
    link.to_resend.push_back(msg);
  }
  sealed.clear();
}

// Seals the oldest batch when confirmations leave room for it.
// REQUIRES: link.mutex held.
void seal_if_room(Link &link, std::vector<natsMsg *> *sealed) {
  if (!link.batches.empty() && link.unconfirmed < kBatchWindow) sealed->push_back(seal(link, 0));
}

// A publication the stream refused or did not confirm in time goes out
// again on the next tick under the same message ID, for a minute from its
// first attempt: long enough for a cluster to elect new leaders.  Waiting
// for the tick keeps a stream without a leader, which refuses at once,
// from being asked thousands of times a second; and the handler must not
// sleep, since the confirmations of every other publication wait behind it.
// A confirmation makes room for the next batch.
void on_publish_result(jsCtx *, natsMsg *msg, jsPubAck *, jsPubAckErr *failure, void *closure) {
  Link &link = *static_cast<Link *>(closure);
  if (failure != nullptr && now_ms() - since_of(msg) <= kPublishRetryMs) {
    std::lock_guard<std::mutex> hold(link.mutex);
    link.to_resend.push_back(msg);
    return;
  }
  if (failure != nullptr)
    fprintf(stderr, "jetstream: %ld traps were not stored within %lld s: %s\n", traps_in(msg),
            static_cast<long long>(kPublishRetryMs / 1000),
            failure->ErrText != nullptr ? failure->ErrText : natsStatus_GetText(failure->Err));
  --link.unconfirmed;
  natsMsg_Destroy(msg);
  std::vector<natsMsg *> sealed;
  {
    std::lock_guard<std::mutex> hold(link.mutex);
    seal_if_room(link, &sealed);
  }
  send_sealed(link, sealed);
}

// The tick: a subscription nothing is sent to, whose time-out calls it.
// Besides the resends, it sends what batches are open, so that no trap
// waits longer than a tick even while confirmations are slow.
void on_tick(natsConnection *, natsSubscription *, natsMsg *msg, void *closure) {
  Link &link = *static_cast<Link *>(closure);
  natsMsg_Destroy(msg);
  std::vector<natsMsg *> due;
  {
    std::lock_guard<std::mutex> hold(link.mutex);
    due.swap(link.to_resend);
    while (!link.batches.empty()) due.push_back(seal(link, 0));
  }
  send_sealed(link, due);
}

// Queues a delivered message (or kDisconnected) for the caller's thread
// and counts its traps on the caller's descriptor.
void post(Link &link, natsMsg *msg) {
  if (link.closing) {
    if (msg != kDisconnected) natsMsg_Destroy(msg);
    return;
  }
  link.waiting.push_back(msg);
  uint64_t count = msg == kDisconnected ? 1 : static_cast<uint64_t>(traps_in(msg));
  while (write(link.ready, &count, sizeof count) < 0 && errno == EINTR) {
  }
}

// Asks for more traps when half of what was asked for has come, or, with
// `again`, in any case: the earlier requests are taken for lost.
void ask(Link &link, bool again) {
  if (link.pull_subject.empty() || !link.asking) return;
  if (again) link.outstanding = 0;
  if (link.outstanding > kPullBatch / 2) return;
  char request[64];
  snprintf(request, sizeof request, "{\"batch\":%d,\"expires\":%lld}", kPullBatch - link.outstanding,
           static_cast<long long>(kRequestLifeMs * 1000000));
  if (natsConnection_PublishRequestString(link.nc, link.pull_subject.c_str(), link.inbox.c_str(),
                                          request) == NATS_OK) {
    link.outstanding = kPullBatch;
    link.last_ask_ms = now_ms();
  }
}

// The delivery thread: a message of traps is queued; a status (the request
// expired or the consumer changed leader) or a silence (null) means
// asking again.
void on_message(natsConnection *, natsSubscription *, natsMsg *msg, void *closure) {
  Link &link = *static_cast<Link *>(closure);
  std::lock_guard<std::mutex> hold(link.mutex);
  const char *status = nullptr;
  if (msg == nullptr) {
    ask(link, true);
  } else if (natsMsgHeader_Get(msg, "Status", &status) == NATS_OK &&
             natsMsg_GetDataLength(msg) == 0) {
    natsMsg_Destroy(msg);
    link.outstanding = 0;
    if (now_ms() - link.last_ask_ms >= kLeastBetweenAsksMs) ask(link, true);
  } else {
    if (link.outstanding > 0) --link.outstanding;
    ask(link, false);
    post(link, msg);
  }
}

void on_disconnected(natsConnection *, void *closure) {
  Link &link = *static_cast<Link *>(closure);
  std::lock_guard<std::mutex> hold(link.mutex);
  post(link, kDisconnected);
}

// Requests and the latest acknowledgements may have died with the old
// connection.
void on_reconnected(natsConnection *nc, void *closure) {
  Link &link = *static_cast<Link *>(closure);
  std::lock_guard<std::mutex> hold(link.mutex);
  for (const std::string &reply : link.recent_acks)
    natsConnection_PublishString(nc, reply.c_str(), "+ACK");
  ask(link, true);
}

void on_closed(natsConnection *, void *closure) { delete static_cast<Link *>(closure); }

struct Connection {
  natsConnection *nc = nullptr;
  jsCtx *js = nullptr;
  natsSubscription *deliveries = nullptr;
  natsSubscription *tick = nullptr;
  int ready = -1;          // the caller's descriptor, also link->ready
  Link *link = new Link;  // the closed handler's once connected
  Address address;
  size_t offset = 0;  // where the next trap starts in the first waiting batch
  // Stream sequences handed over lately: a message delivered again after
  // its acknowledgement was lost, or after a new consumer leader forgot it
  // was delivered, is acknowledged and not handed twice.
  std::unordered_set<uint64_t> handed;
  std::deque<uint64_t> handed_order;

  // After the drain the subscription's thread has made its last call.
  static void stop(natsSubscription *sub) {
    if (sub == nullptr) return;
    if (natsSubscription_Drain(sub) == NATS_OK)
      natsSubscription_WaitForDrainCompletion(sub, kCloseWaitMs);
    natsSubscription_Destroy(sub);
  }

  // Traps that open requests deliver after the drain would wait a whole
  // ack_wait on the server before coming again: no more requests, and the
  // open ones are let run out (filled, or expired) first.
  void let_requests_run_out() {
    for (;;) {
      {
        std::lock_guard<std::mutex> hold(link->mutex);
        link->asking = false;
        int64_t all_ended = link->last_ask_ms + kRequestLifeMs + kLeastBetweenAsksMs;
        if (link->outstanding == 0 || now_ms() > all_ended) return;
      }
      poll(nullptr, 0, 20);
    }
  }

  ~Connection() {
    if (deliveries != nullptr) let_requests_run_out();
    stop(deliveries);
    stop(tick);
    {
      std::lock_guard<std::mutex> hold(link->mutex);
      link->closing = true;
    }
    // What is still queued was never wholly handed over: the server is
    // told so, and delivers it again at once rather than after the wait
    // for an acknowledgement.  The client's threads are done with it.
    for (natsMsg *msg : link->waiting) {
      if (msg == kDisconnected) continue;
      const char *reply = natsMsg_GetReply(msg);
      if (reply != nullptr) natsConnection_PublishString(nc, reply, "-NAK");
      natsMsg_Destroy(msg);
    }
    link->waiting.clear();
    if (js != nullptr) jsCtx_Destroy(js);
    if (nc != nullptr) {
      natsConnection_FlushTimeout(nc, kCloseWaitMs);
      natsConnection_Close(nc);
      natsConnection_Destroy(nc);
    } else {
      delete link;
    }
    ::close(ready);
  }
};

std::map<int, std::unique_ptr<Connection>> connections;

Connection *find(int sd) {
  auto it = connections.find(sd);
  return it == connections.end() ? nullptr : it->second.get();
}

bool ensure_stream(Connection &c) {
  jsStreamInfo *info = nullptr;
  jsErrCode code = static_cast<jsErrCode>(0);
  natsStatus s = js_GetStreamInfo(&info, c.js, c.address.stream.c_str(), nullptr, &code);
  if (s == NATS_OK) {
    jsStreamInfo_Destroy(info);
    return true;
  }
  if (s != NATS_NOT_FOUND) return report("no stream: %s", natsStatus_GetText(s)), false;
  std::string subjects = std::string(kSubjectRoot) + ".>";
  const char *subject_list[] = {subjects.c_str()};
  jsStreamConfig config;
  jsStreamConfig_Init(&config);
  config.Name = c.address.stream.c_str();
  config.Subjects = subject_list;
  config.SubjectsLen = 1;
  config.Storage = js_FileStorage;
  config.Replicas = c.address.replicas;
  config.MaxAge = c.address.max_age_seconds * 1000000000;
  config.MaxBytes = c.address.max_bytes;
  s = js_AddStream(&info, c.js, &config, nullptr, &code);
  if (s == NATS_OK) {
    jsStreamInfo_Destroy(info);
    return true;
  }
  // Another process may have created it in the meantime.
  if (js_GetStreamInfo(&info, c.js, c.address.stream.c_str(), nullptr, &code) == NATS_OK) {
    jsStreamInfo_Destroy(info);
    return true;
  }
  report("cannot create the stream: %s", natsStatus_GetText(s));
  return false;
}

bool ensure_consumer(Connection &c) {
  jsConsumerInfo *info = nullptr;
  jsErrCode code = static_cast<jsErrCode>(0);
  const char *stream = c.address.stream.c_str();
  const char *durable = c.address.durable.c_str();
  if (js_GetConsumerInfo(&info, c.js, stream, durable, nullptr, &code) == NATS_OK) {
    jsConsumerInfo_Destroy(info);
    return true;
  }
  jsConsumerConfig config;
  jsConsumerConfig_Init(&config);
  config.Durable = durable;
  config.AckPolicy = js_AckExplicit;
  config.MaxAckPending = kMaxAckPending;
  config.AckWait = c.address.ack_wait_seconds * 1000000000;
  const std::string &from = c.address.from;
  int64_t number = 0;
  if (from.empty() || from == "start") {
    config.DeliverPolicy = js_DeliverAll;
  } else if (from == "new") {
    config.DeliverPolicy = js_DeliverNew;
  } else if (read_count(from, 1, INT64_MAX, &number)) {
    config.DeliverPolicy = js_DeliverByStartSequence;
    config.OptStartSeq = static_cast<uint64_t>(number);
  } else if ((number = parse_time(from)) >= 0) {
    config.DeliverPolicy = js_DeliverByStartTime;
    config.OptStartTime = number * 1000000000;
  } else {
    report("bad from '%s': start, new, a sequence number or YYYY-MM-DDTHH:MM:SSZ", from.c_str());
    return false;
  }
  natsStatus s = js_AddConsumer(&info, c.js, stream, &config, nullptr, &code);
  if (s != NATS_OK) return report("cannot create the consumer: %s", natsStatus_GetText(s)), false;
  jsConsumerInfo_Destroy(info);
  return true;
}

bool start_pulling(Connection &c) {
  natsInbox *inbox = nullptr;
  if (natsInbox_Create(&inbox) != NATS_OK) return false;
  std::lock_guard<std::mutex> hold(c.link->mutex);
  c.link->inbox = inbox;
  natsInbox_Destroy(inbox);
  c.link->pull_subject = "$JS.API.CONSUMER.MSG.NEXT." + c.address.stream + "." + c.address.durable;
  if (natsConnection_SubscribeTimeout(&c.deliveries, c.nc, c.link->inbox.c_str(),
                                      kQuietBeforeAskingAgainMs, on_message, c.link) != NATS_OK)
    return false;
  // The consumer's limit, not the client's, decides what waits.
  natsSubscription_SetPendingLimits(c.deliveries, -1, -1);
  ask(*c.link, true);
  return true;
}

bool connect(Connection &c) {
  natsOptions *options = nullptr;
  if (natsOptions_Create(&options) != NATS_OK) return false;
  std::vector<const char *> servers;
  for (const std::string &server : c.address.servers) servers.push_back(server.c_str());
  bool ok = natsOptions_SetServers(options, servers.data(), static_cast<int>(servers.size())) ==
                NATS_OK &&
            natsOptions_SetTimeout(options, 2000) == NATS_OK &&
            natsOptions_SetMaxReconnect(options, -1) == NATS_OK &&
            natsOptions_SetReconnectWait(options, 250) == NATS_OK &&
            natsOptions_SetName(options, "libevents") == NATS_OK &&
            // Servers are tried in the order the URL names them.
            natsOptions_SetNoRandomize(options, true) == NATS_OK &&
            natsOptions_SetDisconnectedCB(options, on_disconnected, c.link) == NATS_OK &&
            natsOptions_SetReconnectedCB(options, on_reconnected, c.link) == NATS_OK &&
            natsOptions_SetClosedCB(options, on_closed, c.link) == NATS_OK;
  natsStatus s = ok ? natsConnection_Connect(&c.nc, options) : NATS_ERR;
  natsOptions_Destroy(options);
  c.link->nc = c.nc;
  if (s != NATS_OK) return report("cannot connect: %s", natsStatus_GetText(s)), false;
  jsOptions js_options;
  jsOptions_Init(&js_options);
  js_options.PublishAsync.MaxPending = 16384;
  js_options.PublishAsync.AckHandler = on_publish_result;
  js_options.PublishAsync.AckHandlerClosure = c.link;
  if (natsConnection_JetStream(&c.js, c.nc, &js_options) != NATS_OK) return false;
  c.link->js = c.js;
  natsInbox *inbox = nullptr;
  if (natsInbox_Create(&inbox) != NATS_OK) return false;
  s = natsConnection_SubscribeTimeout(&c.tick, c.nc, inbox, kResendTickMs, on_tick, c.link);
  natsInbox_Destroy(inbox);
  return s == NATS_OK;
}

// "traps.SOURCE.E1.E2...": the enterprise of an SNMPv1 trap, read from the
// message; "_" for a message that does not show one.
std::string subject_of(uint32_t source, const unsigned char *message, int length) {
  std::string subject = kSubjectRoot;
  subject += '.';
  subject += std::to_string(source);
  ber::Message envelope;
  ObjectIdEMS enterprise[SNMP_OID_MAX] = {};
  unsigned char type;
  uint32_t size;
  const unsigned char *p;
  int count = -1;
  if (ber::message(message, length, &envelope) && envelope.pdu_type == SNMP_TRAP_PDU &&
      (p = ber::header(envelope.pdu, envelope.pdu_end, &type, &size)) != nullptr &&
      type == ASN_OBJECT_ID)
    count = ber::objid(p, size, envelope.pdu_end, enterprise, SNMP_OID_MAX);
  if (count <= 0) return subject + "._";
  for (int i = 0; i < count; ++i) {
    subject += '.';
    subject += std::to_string(enterprise[i]);
  }
  return subject;
}

// The stream sequence and time of a message from the
// tokens of its acknowledgement subject: $JS.ACK.STREAM.CONSUMER.DELIVERED.
// SSEQ.CSEQ.NANOS.PENDING, with two tokens more (domain, account) in the
// newer form.
struct Delivery {
  uint64_t sequence = 0;
  int64_t nanos = 0;
};

Delivery delivery_of(natsMsg *msg) {
  Delivery d;
  const char *reply = natsMsg_GetReply(msg);
  if (reply == nullptr) return d;
  const char *tokens[12];
  size_t count = 0;
  tokens[count++] = reply;
  for (const char *p = reply; *p != '\0'; ++p)
    if (*p == '.' && count++ < 12) tokens[count - 1] = p + 1;
  size_t first = count == 9 ? 4 : count >= 11 ? 6 : 0;
  if (first == 0) return d;
  d.sequence = strtoull(tokens[first + 1], nullptr, 10);
  d.nanos = strtoll(tokens[first + 3], nullptr, 10);
  return d;
}

void remember(Connection &c, uint64_t sequence) {
  if (!c.handed.insert(sequence).second) return;
  c.handed_order.push_back(sequence);
  if (c.handed_order.size() > kRememberedSequences) {
    c.handed.erase(c.handed_order.front());
    c.handed_order.pop_front();
  }
}

// Takes one trap's count off the caller's descriptor, waiting for one.
bool take_one(Connection &c) {
  for (;;) {
    uint64_t unit = 0;
    ssize_t n = read(c.ready, &unit, sizeof unit);
    if (n == static_cast<ssize_t>(sizeof unit)) return true;
    if (n < 0 && errno != EINTR && errno != EAGAIN) return false;
    pollfd wait = {c.ready, POLLIN, 0};
    if (poll(&wait, 1, -1) < 0 && errno != EINTR) return false;
  }
}

// Acknowledges the first waiting message, wholly handed over (or delivered
// again), and drops it.
void finish(Connection &c, natsMsg *msg, uint64_t sequence) {
  const char *reply = natsMsg_GetReply(msg);
  if (reply != nullptr) natsConnection_PublishString(c.nc, reply, "+ACK");
  remember(c, sequence);
  {
    std::lock_guard<std::mutex> hold(c.link->mutex);
    if (reply != nullptr) {
      c.link->recent_acks.emplace_back(reply);
      if (c.link->recent_acks.size() > static_cast<size_t>(kMaxAckPending))
        c.link->recent_acks.pop_front();
    }
    c.link->waiting.pop_front();
  }
  natsMsg_Destroy(msg);
  c.offset = 0;
}

// Copies the next trap of `msg` into the caller's area.  Returns 1, or
// EVENT_RECV_BAD_SIZE for a trap too large or a batch that does not read
// as one (then `*done`: the rest of it is dropped too).
int hand_over(Connection &c, natsMsg *msg, trap_headerEMS *header, unsigned char *packet,
              bool *done) {
  const unsigned char *data = reinterpret_cast<const unsigned char *>(natsMsg_GetData(msg));
  size_t size = static_cast<size_t>(natsMsg_GetDataLength(msg));
  const unsigned char *trap = data;
  // Past a batch's first trap the message is known to be a batch.
  if (c.offset == 0 && !is_batch(msg)) {
    *done = true;
    Fields f = get_fields(msg);
    header->len = static_cast<int32_t>(size);
    header->src = static_cast<uint32_t>(f.src);
    header->pid = static_cast<int32_t>(f.pid);
    header->status = static_cast<int32_t>(f.status);
    header->target = static_cast<uint32_t>(f.target);
  } else if ((c.offset == 0 && count_frames(data, size) < 0) ||
             !next_frame(data, size, &c.offset, header, &trap)) {
    *done = true;
    if (tracelogfp) log_trace("recv_trap", "JetStream batch of %zu bytes is not framed.", size);
    return EVENT_RECV_BAD_SIZE;
  } else {
    *done = c.offset == size;
  }
  if (header->len > EVENT_MAX_MESSAGE) {
    if (tracelogfp) log_trace("recv_trap", "JetStream trap = %d bytes is too large.", header->len);
    return EVENT_RECV_BAD_SIZE;
  }
  memcpy(packet, trap, static_cast<size_t>(header->len));
  return 1;
}

// Sends a trap into its subject's open batch, and what batches are due.
int add_to_batch(Link &link, std::string subject, const trap_headerEMS &header,
                 const unsigned char *message, int length) {
  std::vector<natsMsg *> sealed;
  {
    std::lock_guard<std::mutex> hold(link.mutex);
    size_t i = 0;
    while (i < link.batches.size() && link.batches[i].subject != subject) ++i;
    if (i == link.batches.size()) {
      if (i == kMaxOpenBatches) sealed.push_back(seal(link, 0));
      link.batches.push_back(Batch{std::move(subject), {}, 0});
      i = link.batches.size() - 1;
    }
    Batch &batch = link.batches[i];
    append_frame(&batch.frames, header, message, length);
    if (++batch.count >= link.batch_limit || batch.frames.size() >= kMaxBatchOctets)
      sealed.push_back(seal(link, i));
    seal_if_room(link, &sealed);
  }
  send_sealed(link, sealed);
  return 0;
}

}  // namespace

int open(const char *url) {
  auto c = std::make_unique<Connection>();
  std::string why;
  if (!parse_url(url, &c->address, &why)) {
    report("bad JetStream URL: %s", why.c_str());
    return -1;
  }
  c->ready = c->link->ready = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE);
  if (c->ready < 0) return -1;
  c->link->batch_limit = c->address.batch;
  char host[64] = "";
  gethostname(host, sizeof host - 1);
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  c->link->id_prefix = std::string(host) + "-" + std::to_string(getpid()) + "-" +
                       std::to_string(now.tv_sec * 1000000000LL + now.tv_nsec) + "-";
  if (!connect(*c) || !ensure_stream(*c)) return -1;
  if (!c->address.durable.empty() && (!ensure_consumer(*c) || !start_pulling(*c))) return -1;
  int sd = c->ready;
  connections[sd] = std::move(c);
  return sd;
}

int publish(int sd, const trap_headerEMS &header, const unsigned char *message, int length) {
  Connection *c = find(sd);
  if (c == nullptr || length < 0) return -1;
  Link &link = *c->link;
  std::string subject = subject_of(header.src, message, length);
  if (link.batch_limit > 1) return add_to_batch(link, std::move(subject), header, message, length);
  natsMsg *msg = nullptr;
  if (natsMsg_Create(&msg, subject.c_str(), nullptr, reinterpret_cast<const char *>(message),
                     length) != NATS_OK)
    return -1;
  {
    std::lock_guard<std::mutex> hold(link.mutex);
    natsMsgHeader_Set(msg, "Nats-Msg-Id", next_id(link).c_str());
  }
  set_fields(msg, {header.src, header.pid, header.status, header.target, now_ms()});
  jsPubOptions options = publish_options();
  ++link.unconfirmed;
  natsStatus s = js_PublishMsgAsync(c->js, &msg, &options);
  if (msg != nullptr) {  // not taken
    --link.unconfirmed;
    natsMsg_Destroy(msg);
  }
  return s == NATS_OK ? 0 : -1;
}

int receive(int sd, trap_headerEMS *header, unsigned char *packet) {
  Connection *c = find(sd);
  if (c == nullptr || c->address.durable.empty()) return EVENT_RECV_ERROR;
  for (;;) {
    if (!take_one(*c)) return EVENT_RECV_ERROR;
    natsMsg *msg = nullptr;
    {
      std::lock_guard<std::mutex> hold(c->link->mutex);
      msg = c->link->waiting.front();
      if (msg == kDisconnected) c->link->waiting.pop_front();
    }
    if (msg == kDisconnected) return EVENT_RECV_ERROR;
    Delivery d = delivery_of(msg);
    if (c->offset == 0 && c->handed.count(d.sequence) != 0) {
      // Delivered again: its traps were all handed over already.
      for (long rest = traps_in(msg) - 1; rest > 0; --rest) take_one(*c);
      finish(*c, msg, d.sequence);
      continue;
    }
    bool done = false;
    int result = hand_over(*c, msg, header, packet, &done);
    header->time = static_cast<int32_t>(d.nanos / 1000000000);
    if (done) finish(*c, msg, d.sequence);
    return result;
  }
}

int close(int sd) {
  auto it = connections.find(sd);
  if (it == connections.end()) return -1;
  // Every trap sent is stored, or given up after its minute of resending.
  Link &link = *it->second->link;
  std::vector<natsMsg *> sealed;
  {
    std::lock_guard<std::mutex> hold(link.mutex);
    while (!link.batches.empty()) sealed.push_back(seal(link, 0));
  }
  send_sealed(link, sealed);
  int64_t give_up = now_ms() + kPublishRetryMs + 2 * kPublishWaitMs;
  while (link.unconfirmed > 0 && now_ms() < give_up) poll(nullptr, 0, 20);
  if (link.unconfirmed > 0)
    fprintf(stderr, "jetstream: %ld traps were not confirmed by the stream\n",
            link.unconfirmed.load());
  natsConnection_FlushTimeout(it->second->nc, kCloseWaitMs);
  connections.erase(it);
  return 0;
}

}  // namespace events::jetstream

#else  // built without the NATS client

namespace events::jetstream {

namespace {
int not_built() {
  logger(1, "jetstream", "%s",
         "the JetStream transport is not available: libevents was built without libnats");
  return -1;
}
}  // namespace

int open(const char *) { return not_built(); }
int publish(int, const trap_headerEMS &, const unsigned char *, int) { return -1; }
int receive(int, trap_headerEMS *, unsigned char *) { return EVENT_RECV_ERROR; }
int close(int) { return -1; }

}  // namespace events::jetstream

#endif
