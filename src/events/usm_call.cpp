// SNMPv3 requests under one user: the agent's engine discovered once and
// kept with its boots and time, the request wrapped, sent and waited for
// on the call context's socket, and the response checked, decrypted and
// decoded by the SNMPv1 response decoder.

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <cstring>
#include <string>

#include "ber_reader.h"
#include "snmp_clnt.h"
#include "usm_internal.h"

namespace ber = events::ber;
using events::usm::Message;
using events::usm::put;
using events::usm::put_integer;
using events::usm::Scoped;

struct usm_session {
  std::string name;
  int auth = USM_AUTH_NONE, priv = USM_PRIV_NONE;
  std::string auth_pass, priv_pass;  // wiped once the keys are localized
  std::vector<unsigned char> engine;  // the agent's, once known
  uint32_t boots = 0;
  int32_t time = 0;
  int64_t learned = 0;  // monotonic seconds when boots and time were learned
  std::string context;
  std::unique_ptr<events::usm::User> user;
  EVP_MAC *hmac = nullptr;
  EVP_CIPHER_CTX *cipher_context = nullptr;
  std::vector<unsigned char> plain;
  uint64_t salt = 0;
  int32_t msg_id = 0;
  const char *report = "";

  ~usm_session() {
    OPENSSL_cleanse(auth_pass.data(), auth_pass.size());
    OPENSSL_cleanse(priv_pass.data(), priv_pass.size());
    user.reset();
    EVP_CIPHER_CTX_free(cipher_context);
    EVP_MAC_free(hmac);
  }
};

namespace {

constexpr const char *kReportNames[] = {
    "usmStatsUnsupportedSecLevels", "usmStatsNotInTimeWindows", "usmStatsUnknownUserNames",
    "usmStatsUnknownEngineIDs",     "usmStatsWrongDigests",     "usmStatsDecryptionErrors"};
constexpr int kNotInTimeWindows = 2;
constexpr unsigned char kAuthFlag = 1, kPrivFlag = 2;

int64_t now_seconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

// Sends `message` to the agent and waits for the message with `msg_id`,
// sending again after each time-out.  Returns 0 with the answer read into
// *m, or an SNMPCALL_ code.
int exchange(snmp_call_info *sci, const std::string &message, int32_t msg_id,
             std::vector<unsigned char> *answer, Message *m) {
  sockaddr_in agent{};
  agent.sin_family = AF_INET;
  agent.sin_port = getSnmpPort();
  agent.sin_addr.s_addr = sci->addr;
  for (uint32_t sent = 0; sent < std::max(sci->retries, 1u); ++sent) {
    if (sendto(sci->sd, message.data(), message.size(), 0, reinterpret_cast<sockaddr *>(&agent),
               sizeof agent) != static_cast<ssize_t>(message.size())) {
      sci->save_errno = errno;
      return SNMPCALL_SEND;
    }
    timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
      timespec now;
      clock_gettime(CLOCK_MONOTONIC, &now);
      const int64_t waited = (now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000;
      const int64_t left = static_cast<int64_t>(sci->timeout) * 1000 - waited;
      if (left <= 0) break;
      pollfd wait = {sci->sd, POLLIN, 0};
      int ready = poll(&wait, 1, static_cast<int>(left));
      if (ready < 0 && errno == EINTR) continue;
      if (ready < 0) {
        sci->save_errno = errno;
        return SNMPCALL_WAIT;
      }
      if (ready == 0) break;
      answer->resize(65536);
      ssize_t n = recv(sci->sd, answer->data(), answer->size(), 0);
      if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
      if (n < 0) {
        sci->save_errno = errno;
        return SNMPCALL_RECV;
      }
      answer->resize(static_cast<size_t>(n));
      *m = Message();
      // Anything else, a late answer to an earlier send included, is
      // passed over.
      if (events::usm::read_message(answer->data(), static_cast<int>(n), m) &&
          m->version == SNMP_MESSAGE_V3 && m->msg_id == msg_id)
        return 0;
    }
  }
  return SNMPCALL_TIMEOUT;
}

// A scoped PDU of the given type with no bindings but its request-id.
std::string scoped_pdu(std::string_view engine, std::string_view context, unsigned char type,
                       std::string_view pdu_contents) {
  std::string body, out;
  put(body, ASN_OCTET_STR, engine);
  put(body, ASN_OCTET_STR, context);
  put(body, type, pdu_contents);
  put(out, ASN_SEQUENCE, body);
  return out;
}

std::string_view text(const std::vector<unsigned char> &octets) {
  return std::string_view(reinterpret_cast<const char *>(octets.data()), octets.size());
}

// Asks the agent for its engine ID, boots and time: an empty request at
// noAuthNoPriv, answered by a Report.
int discover(snmp_call_info *sci, usm_session &s) {
  std::string pdu;
  put_integer(pdu, ASN_INTEGER, ++sci->request.reqid);
  put_integer(pdu, ASN_INTEGER, 0);
  put_integer(pdu, ASN_INTEGER, 0);
  put(pdu, ASN_SEQUENCE, "");
  const int32_t msg_id = ++s.msg_id;
  const events::usm::Sender probe = {nullptr, 0, 0, 0, msg_id, nullptr, "", true,
                                     s.cipher_context, &s.salt};
  std::vector<unsigned char> answer;
  Message m;
  int result = exchange(sci, events::usm::wrap(probe, scoped_pdu("", "", SNMP_GET_REQ, pdu)),
                        msg_id, &answer, &m);
  if (result != 0) return result;
  if (m.engine_len < 5) return SNMPCALL_PARSE;
  s.engine.assign(m.engine, m.engine + m.engine_len);
  s.boots = static_cast<uint32_t>(m.boots);
  s.time = m.time;
  s.learned = now_seconds();
  return 0;
}

// The usmStats counter a Report names (1 to 6), or 0.
int report_counter(const Scoped &scoped) {
  const unsigned char *p = scoped.pdu;
  unsigned char type;
  uint32_t length = 0;
  for (int skip = 0; skip < 3 && p != nullptr; ++skip) {
    p = ber::header(p, scoped.pdu_end, &type, &length);
    if (p != nullptr) p += length;
  }
  if (p == nullptr || (p = ber::header(p, scoped.pdu_end, &type, &length)) == nullptr) return 0;
  SnmpVarBindEMS binding{};
  static const ObjectIdEMS kUsmStats[] = {1, 3, 6, 1, 6, 3, 15, 1, 1};
  if (ber::binding(p, p + length, &binding, ber::kStrictRules) == nullptr || binding.undecoded ||
      binding.oid_length != 11 ||
      memcmp(binding.oid, kUsmStats, sizeof kUsmStats) != 0 || binding.oid[9] < 1 ||
      binding.oid[9] > 6)
    return 0;
  return static_cast<int>(binding.oid[9]);
}

// One request and its answer.  Returns 0 with the response decoded, 1
// when the agent reported a stale time (boots and time are taken anew),
// or a result for the caller.
int request_once(snmp_call_info *sci, usm_session &s, const std::string &pdu_element,
                 SnmpVarBindEMS *out, int size) {
  const int32_t msg_id = ++s.msg_id;
  const events::usm::Sender sender = {
      s.engine.data(), s.engine.size(), s.boots,
      static_cast<uint32_t>(s.time + (now_seconds() - s.learned)), msg_id, s.user.get(), s.name,
      true, s.cipher_context, &s.salt};
  std::string scoped_body, scoped;
  put(scoped_body, ASN_OCTET_STR, text(s.engine));
  put(scoped_body, ASN_OCTET_STR, s.context);
  scoped_body += pdu_element;
  put(scoped, ASN_SEQUENCE, scoped_body);
  std::string message = events::usm::wrap(sender, std::move(scoped));
  if (message.empty()) return SNMPCALL_BUILD;
  std::vector<unsigned char> answer;
  Message m;
  int result = exchange(sci, message, msg_id, &answer, &m);
  if (result != 0) return result;

  // Only a Report may come unauthenticated from an agent we authenticate to.
  const bool authenticated = (m.flags & kAuthFlag) != 0;
  if (authenticated && !events::usm::digest_matches(*s.user, answer.data(),
                                                    static_cast<int>(answer.size()), m))
    return SNMPCALL_PARSE;
  const unsigned char *begin = m.element, *end = m.end;
  if ((m.flags & kPrivFlag) &&
      !events::usm::decrypt(s.cipher_context, *s.user, m, &s.plain, &begin, &end))
    return SNMPCALL_PARSE;
  Scoped answered;
  if (!events::usm::read_scoped(begin, end, &answered)) return SNMPCALL_PARSE;
  if (answered.pdu_type == SNMP_REPORT_PDU) {
    const int counter = report_counter(answered);
    s.report = counter > 0 ? kReportNames[counter - 1] : "an unknown Report";
    if (counter == kNotInTimeWindows && authenticated) {
      s.boots = static_cast<uint32_t>(m.boots);
      s.time = m.time;
      s.learned = now_seconds();
      return 1;
    }
    return USM_AGENT_REPORT;
  }
  if (answered.pdu_type != SNMP_GET_RSP || (s.user->auth != USM_AUTH_NONE && !authenticated))
    return SNMPCALL_PARSE;
  // The response PDU in an SNMPv1 envelope, for the SNMPv1 decoder.
  std::string body, v1;
  put_integer(body, ASN_INTEGER, 0);
  put(body, ASN_OCTET_STR, "");
  put(body, answered.pdu_type,
      std::string_view(reinterpret_cast<const char *>(answered.pdu),
                       static_cast<size_t>(answered.pdu_end - answered.pdu)));
  put(v1, ASN_SEQUENCE, body);
  sci->response.maxvars = size;
  sci->response.clen = SNMP_COMMUNITY_MAX;
  if (snmp_parse(reinterpret_cast<unsigned char *>(v1.data()), static_cast<int>(v1.size()),
                 &sci->response, out) != 0 ||
      sci->response.reqid != sci->request.reqid)
    return SNMPCALL_PARSE;
  sci->response.vars = std::min(sci->response.vars, size);
  return sci->response.errstat;
}

int request(snmp_call_info *sci, usm_session &s, int command, SnmpVarBindEMS *in,
            SnmpVarBindEMS *out, int size) {
  if (size < 1 || size > SNMPCALL_CHUNK) return SNMPCALL_BUILD;
  if (s.engine.empty()) {
    int result = discover(sci, s);
    if (result != 0) return result;
  }
  if (s.user == nullptr) {
    int result = events::usm::make_user(s.hmac, s.name, {}, s.engine.data(),
                                        static_cast<int>(s.engine.size()), s.auth,
                                        s.auth_pass.c_str(), s.priv, s.priv_pass.c_str(), &s.user);
    OPENSSL_cleanse(s.auth_pass.data(), s.auth_pass.size());
    OPENSSL_cleanse(s.priv_pass.data(), s.priv_pass.size());
    if (result != USM_OK) return SNMPCALL_BUILD;
  }
  // The PDU as the SNMPv1 encoder writes it, taken out of its envelope.
  SnmpVarBindEMS vars[SNMPCALL_CHUNK];
  for (int i = 0; i < size; ++i) {
    vars[i] = in[i];
    if (command != SNMP_SET_REQ) {
      vars[i].type = ASN_NULL;
      vars[i].val_len = 0;
    }
  }
  snmp_info pdu{};
  pdu.command = static_cast<unsigned char>(command);
  pdu.vars = size;
  unsigned char v1[4096];
  for (int attempt = 0; attempt < 2; ++attempt) {
    pdu.reqid = ++sci->request.reqid;
    int length = sizeof v1;
    if (snmpBuild09(v1, &length, &pdu, vars) != 0) return SNMPCALL_BUILD;
    const unsigned char *p = v1, *end = v1 + length;
    unsigned char type;
    uint32_t element;
    if ((p = ber::header(p, end, &type, &element)) == nullptr) return SNMPCALL_BUILD;
    for (int skip = 0; skip < 2 && p != nullptr; ++skip)
      if ((p = ber::header(p, end, &type, &element)) != nullptr) p += element;
    if (p == nullptr) return SNMPCALL_BUILD;
    int result = request_once(sci, s, std::string(reinterpret_cast<const char *>(p), end - p),
                              out, size);
    if (result != 1) return result;
  }
  return USM_AGENT_REPORT;  // stale twice over
}

}  // namespace

extern "C" EVENTS_EXPORT usm_session *usm_session_new(const char *user, int auth,
                                                      const char *auth_pass, int priv,
                                                      const char *priv_pass,
                                                      const unsigned char *engine_id,
                                                      int engine_id_len, const char *context) {
  if (user == nullptr || strlen(user) > USM_NAME_MAX || engine_id_len < 0 ||
      engine_id_len > USM_ENGINE_ID_MAX || (engine_id_len > 0 && engine_id_len < 5) ||
      (auth == USM_AUTH_NONE && priv != USM_PRIV_NONE) ||
      (auth != USM_AUTH_NONE && events::usm::auth_protocol(auth) == nullptr) ||
      (priv != USM_PRIV_NONE && events::usm::priv_protocol(priv) == nullptr) ||
      (auth != USM_AUTH_NONE && (auth_pass == nullptr || strlen(auth_pass) < 8)) ||
      (priv != USM_PRIV_NONE && (priv_pass == nullptr || strlen(priv_pass) < 8)) ||
      (context != nullptr && strlen(context) > USM_NAME_MAX))
    return nullptr;
  auto s = std::make_unique<usm_session>();
  s->name = user;
  s->auth = auth;
  s->priv = priv;
  if (auth_pass != nullptr) s->auth_pass = auth_pass;
  if (priv_pass != nullptr) s->priv_pass = priv_pass;
  if (engine_id_len > 0) s->engine.assign(engine_id, engine_id + engine_id_len);
  s->learned = now_seconds();
  if (context != nullptr) s->context = context;
  s->hmac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
  s->cipher_context = EVP_CIPHER_CTX_new();
  if (s->hmac == nullptr || s->cipher_context == nullptr ||
      RAND_bytes(reinterpret_cast<unsigned char *>(&s->salt), sizeof s->salt) != 1 ||
      RAND_bytes(reinterpret_cast<unsigned char *>(&s->msg_id), sizeof s->msg_id) != 1)
    return nullptr;
  s->msg_id &= 0x3FFFFFFF;
  return s.release();
}

extern "C" EVENTS_EXPORT void usm_session_free(usm_session *session) { delete session; }

extern "C" EVENTS_EXPORT int usm_request(snmp_call_info *sci, usm_session *session, int command,
                                         SnmpVarBindEMS *in, SnmpVarBindEMS *out, int size) {
  int result = request(sci, *session, command, in, out, size);
  sci->response.errstat = result;
  return result;
}

extern "C" EVENTS_EXPORT const char *usm_session_report(const usm_session *session) {
  return session->report;
}
