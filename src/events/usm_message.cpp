// SNMPv3 notifications under the user-based security model: the message
// and security parameter layers read in one pass, the digest checked in
// constant time, the time window kept when the local engine is the
// authoritative one, the scoped PDU decrypted and then translated as an
// SNMPv2c notification is.  Also the answers owed to a sender (Reports
// and the Response to an inform) and the two bindings a relay adds.

#include <openssl/crypto.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ber_reader.h"
#include "notification.h"
#include "usm_internal.h"

namespace {

namespace ber = events::ber;
using events::usm::Message;
using events::usm::put;
using events::usm::put_integer;
using events::usm::Scoped;
using events::usm::User;

constexpr int32_t kUsmModel = 3;
constexpr int32_t kMaxMessageSize = 65507;  // what one UDP datagram can hold
constexpr int32_t kMaxBoots = 2147483647;
constexpr int32_t kTimeWindow = 150;  // seconds, RFC 3414 2.2.3
constexpr unsigned char kAuthFlag = 1, kPrivFlag = 2, kReportableFlag = 4;
constexpr size_t kSaltSize = 8;

// What the check of a message found, beside its result.
struct Checked {
  const User *user = nullptr;
  const unsigned char *scoped = nullptr, *scoped_end = nullptr;  // the plain scoped PDU
};

bool read_integer(const unsigned char *&p, const unsigned char *end, int32_t *out) {
  unsigned char type;
  uint32_t length;
  if ((p = ber::header(p, end, &type, &length)) == nullptr || type != ASN_INTEGER ||
      !ber::integer(p, length, type, out))
    return false;
  p += length;
  return true;
}

bool read_octets(const unsigned char *&p, const unsigned char *end, const unsigned char **out,
                 uint32_t *out_len) {
  unsigned char type;
  if ((p = ber::header(p, end, &type, out_len)) == nullptr || type != ASN_OCTET_STR) return false;
  *out = p;
  p += *out_len;
  return true;
}

bool read_sequence(const unsigned char *&p, const unsigned char *end, const unsigned char **inner_end) {
  unsigned char type;
  uint32_t length;
  if ((p = ber::header(p, end, &type, &length)) == nullptr || type != ASN_SEQUENCE) return false;
  *inner_end = p + length;
  return true;
}

}  // namespace

bool events::usm::read_message(const unsigned char *buf, int len, Message *m) {
  const unsigned char *p = buf, *end = buf + std::max(len, 0), *inner_end;
  if (!read_sequence(p, end, &end) || !read_integer(p, end, &m->version)) return false;
  if (m->version != SNMP_MESSAGE_V3) return true;
  const unsigned char *flags;
  uint32_t flags_len;
  if (!read_sequence(p, end, &inner_end) || !read_integer(p, inner_end, &m->msg_id) ||
      !read_integer(p, inner_end, &m->max_size) || !read_octets(p, inner_end, &flags, &flags_len) ||
      flags_len != 1 || !read_integer(p, inner_end, &m->model) || p != inner_end)
    return false;
  m->flags = flags[0];
  const unsigned char *parameters;
  uint32_t parameters_len;
  if (!read_octets(p, end, &parameters, &parameters_len)) return false;
  const unsigned char *q = parameters, *q_end = parameters + parameters_len;
  if (!read_sequence(q, q_end, &q_end) || !read_octets(q, q_end, &m->engine, &m->engine_len) ||
      !read_integer(q, q_end, &m->boots) || !read_integer(q, q_end, &m->time) ||
      !read_octets(q, q_end, &m->user, &m->user_len) ||
      !read_octets(q, q_end, &m->auth, &m->auth_len) ||
      !read_octets(q, q_end, &m->priv, &m->priv_len) || q != q_end)
    return false;
  m->element = p;
  m->end = end;
  if ((p = ber::header(p, end, &m->data_type, &m->data_len)) == nullptr) return false;
  m->data = p;
  return p + m->data_len == end && m->engine_len <= USM_ENGINE_ID_MAX &&
         m->user_len <= USM_NAME_MAX && m->boots >= 0 && m->time >= 0;
}

bool events::usm::read_scoped(const unsigned char *p, const unsigned char *end, Scoped *s) {
  uint32_t length;
  if (!read_sequence(p, end, &end) || !read_octets(p, end, &s->context_engine, &s->context_engine_len) ||
      !read_octets(p, end, &s->context_name, &s->context_name_len) ||
      s->context_engine_len > USM_ENGINE_ID_MAX || s->context_name_len > USM_NAME_MAX ||
      (p = ber::header(p, end, &s->pdu_type, &length)) == nullptr)
    return false;
  s->pdu = p;
  s->pdu_end = p + length;
  return true;
}

namespace {

int level_of(unsigned char flags) {
  return (flags & kPrivFlag) ? USM_AUTH_PRIV : (flags & kAuthFlag) ? USM_AUTH_NO_PRIV : USM_NO_AUTH_NO_PRIV;
}

// The HMAC of buf[0..len) with the digest field at `field` taken as zeros.
bool keyed_digest(const User &user, const unsigned char *buf, size_t len, const unsigned char *field,
                  unsigned char *mac) {
  static const unsigned char kZeros[USM_KEY_MAX] = {};
  const size_t mac_len = static_cast<size_t>(events::usm::auth_protocol(user.auth)->mac_len);
  unsigned char full[EVP_MAX_MD_SIZE];
  size_t full_len = 0;
  const size_t before = static_cast<size_t>(field - buf);
  bool ok = EVP_MAC_init(user.mac, nullptr, 0, nullptr) && EVP_MAC_update(user.mac, buf, before) &&
            EVP_MAC_update(user.mac, kZeros, mac_len) &&
            EVP_MAC_update(user.mac, field + mac_len, len - before - mac_len) &&
            EVP_MAC_final(user.mac, full, &full_len, sizeof full);
  memcpy(mac, full, mac_len);
  return ok;
}

// The cipher's key and IV for a message with these boots, time and salt.
void key_and_iv(const User &user, uint32_t boots, uint32_t time, const unsigned char *salt,
                unsigned char *iv) {
  if (user.priv == USM_PRIV_DES) {
    for (size_t i = 0; i < kSaltSize; ++i) iv[i] = user.priv_key[8 + i] ^ salt[i];
    return;
  }
  const unsigned char head[8] = {
      static_cast<unsigned char>(boots >> 24), static_cast<unsigned char>(boots >> 16),
      static_cast<unsigned char>(boots >> 8),  static_cast<unsigned char>(boots),
      static_cast<unsigned char>(time >> 24),  static_cast<unsigned char>(time >> 16),
      static_cast<unsigned char>(time >> 8),   static_cast<unsigned char>(time)};
  memcpy(iv, head, sizeof head);
  memcpy(iv + sizeof head, salt, kSaltSize);
}

// Runs the user's cipher over in[0..len) into out, which has room for
// len octets.  DES-CBC takes whole blocks; AES-CFB any length.
bool run_cipher(EVP_CIPHER_CTX *context, const User &user, bool encrypt, uint32_t boots,
                uint32_t time, const unsigned char *salt, const unsigned char *in, size_t len,
                unsigned char *out) {
  if (user.priv == USM_PRIV_DES && len % 8 != 0) return false;
  unsigned char iv[16];
  key_and_iv(user, boots, time, salt, iv);
  int written = 0, last = 0;
  return EVP_CipherInit_ex2(context, user.cipher, user.priv_key, iv, encrypt, nullptr) &&
         EVP_CIPHER_CTX_set_padding(context, 0) &&
         EVP_CipherUpdate(context, out, &written, in, static_cast<int>(len)) &&
         EVP_CipherFinal_ex(context, out + written, &last) &&
         static_cast<size_t>(written + last) == len;
}

}  // namespace

bool events::usm::digest_matches(const User &user, const unsigned char *buf, int len,
                                 const Message &m) {
  if (user.auth == USM_AUTH_NONE) return true;
  unsigned char mac[USM_KEY_MAX];
  return m.auth_len == static_cast<uint32_t>(auth_protocol(user.auth)->mac_len) &&
         keyed_digest(user, buf, static_cast<size_t>(len), m.auth, mac) &&
         CRYPTO_memcmp(mac, m.auth, m.auth_len) == 0;
}

bool events::usm::decrypt(EVP_CIPHER_CTX *context, const User &user, const Message &m,
                          std::vector<unsigned char> *plain, const unsigned char **scoped,
                          const unsigned char **scoped_end) {
  if (m.data_type != ASN_OCTET_STR || m.priv_len != kSaltSize) return false;
  plain->resize(std::max<size_t>(m.data_len, 1));
  if (!run_cipher(context, user, false, static_cast<uint32_t>(m.boots),
                  static_cast<uint32_t>(m.time), m.priv, m.data, m.data_len, plain->data()))
    return false;
  *scoped = plain->data();
  *scoped_end = plain->data() + m.data_len;
  Scoped parts;
  return read_scoped(*scoped, *scoped_end, &parts);
}

namespace {

// Checks the message's security and finds its plain scoped PDU, without
// counting.  The order is RFC 3414 3.2's.
int check(usm_table &table, const unsigned char *buf, int len, const Message &m, Checked *out) {
  if (m.model != kUsmModel || (m.flags & (kAuthFlag | kPrivFlag)) == kPrivFlag)
    return SNMP_NOTIFICATION_NOT_NOTIFICATION;
  if (m.engine_len == 0 ||
      !events::usm::engine_known(table, m.engine, static_cast<int>(m.engine_len))) {
    if (m.data_type == ASN_SEQUENCE) *out = {nullptr, m.element, m.end};
    return USM_UNKNOWN_ENGINE_ID;
  }
  const User *user = events::usm::find_user(
      table, m.engine, static_cast<int>(m.engine_len),
      std::string_view(reinterpret_cast<const char *>(m.user), m.user_len));
  if (user == nullptr) return USM_UNKNOWN_USER;
  // A message below the user's level is refused too: whoever knows a name
  // could otherwise send unauthenticated traps in it.
  if (level_of(m.flags) != user->level()) return USM_UNSUPPORTED_SEC_LEVEL;
  out->user = user;
  if (!events::usm::digest_matches(*user, buf, len, m)) return USM_WRONG_DIGEST;
  // The local engine is authoritative: the message must be of this run
  // and of the last 150 seconds.  Checked before decryption, as RFC 3414
  // orders it; the scoped PDU is still read for the Report's request-id.
  int result = USM_OK;
  if (m.engine_len == static_cast<uint32_t>(table.engine_id_len) &&
      memcmp(m.engine, table.engine_id, m.engine_len) == 0 && user->auth != USM_AUTH_NONE &&
      (table.boots >= static_cast<uint32_t>(kMaxBoots) || static_cast<uint32_t>(m.boots) != table.boots ||
       std::abs(m.time - events::usm::engine_time(table)) > kTimeWindow))
    result = USM_NOT_IN_TIME_WINDOW;
  if (user->priv == USM_PRIV_NONE) {
    if (m.data_type != ASN_SEQUENCE) return SNMP_NOTIFICATION_MALFORMED;
    *out = {user, m.element, m.end};
    return result;
  }
  if (!events::usm::decrypt(table.cipher_context, *user, m, &table.plain, &out->scoped,
                           &out->scoped_end))
    return result != USM_OK ? result : USM_DECRYPTION_ERROR;
  return result;
}

void count(usm_stats &stats, int result) {
  switch (result) {
    case USM_UNSUPPORTED_SEC_LEVEL: ++stats.unsupported_sec_levels; break;
    case USM_NOT_IN_TIME_WINDOW: ++stats.not_in_time_windows; break;
    case USM_UNKNOWN_USER: ++stats.unknown_user_names; break;
    case USM_UNKNOWN_ENGINE_ID: ++stats.unknown_engine_ids; break;
    case USM_WRONG_DIGEST: ++stats.wrong_digests; break;
    case USM_DECRYPTION_ERROR: ++stats.decryption_errors; break;
    default: break;
  }
}

}  // namespace

void events::usm::put(std::string &out, unsigned char type, std::string_view contents) {
  out += static_cast<char>(type);
  const size_t n = contents.size();
  if (n < 0x80) {
    out += static_cast<char>(n);
  } else {
    const int octets = n > 0xFFFFFF ? 4 : n > 0xFFFF ? 3 : n > 0xFF ? 2 : 1;
    out += static_cast<char>(0x80 | octets);
    for (int i = octets - 1; i >= 0; --i) out += static_cast<char>(n >> (8 * i));
  }
  out += contents;
}

void events::usm::put_integer(std::string &out, unsigned char type, int64_t value) {
  std::string octets;
  do {
    octets.insert(octets.begin(), static_cast<char>(value & 0xFF));
    value >>= 8;
  } while (!(value == 0 && !(octets[0] & 0x80)) && !(value == -1 && (octets[0] & 0x80)));
  put(out, type, octets);
}

namespace {

std::string_view view(const unsigned char *p, size_t n) {
  return std::string_view(reinterpret_cast<const char *>(p), n);
}

std::string_view view(const unsigned char *p, const unsigned char *end) {
  return view(p, static_cast<size_t>(end - p));
}

}  // namespace

std::string events::usm::wrap(const Sender &sender, std::string scoped) {
  const User *user = sender.user;
  const int level = user != nullptr ? user->level() : USM_NO_AUTH_NO_PRIV;
  const uint32_t boots = sender.boots, time = sender.time;
  std::string salt, data;
  if (level == USM_AUTH_PRIV) {
    uint64_t next = ++*sender.salt;
    if (user->priv == USM_PRIV_DES) next = (static_cast<uint64_t>(boots) << 32) | (next & 0xFFFFFFFF);
    for (int i = 7; i >= 0; --i) salt += static_cast<char>(next >> (8 * i));
    if (user->priv == USM_PRIV_DES) scoped.resize((scoped.size() + 7) / 8 * 8, '\0');
    std::string cipher(scoped.size(), '\0');
    if (!run_cipher(sender.context, *user, true, boots, time,
                    reinterpret_cast<const unsigned char *>(salt.data()),
                    reinterpret_cast<const unsigned char *>(scoped.data()), scoped.size(),
                    reinterpret_cast<unsigned char *>(cipher.data())))
      return "";
    put(data, ASN_OCTET_STR, cipher);
  } else {
    data = std::move(scoped);
  }
  const size_t mac_len =
      level >= USM_AUTH_NO_PRIV ? static_cast<size_t>(events::usm::auth_protocol(user->auth)->mac_len) : 0;
  std::string global, parameters, sequence, priv_field, message, body;
  put_integer(global, ASN_INTEGER, sender.msg_id);
  put_integer(global, ASN_INTEGER, kMaxMessageSize);
  const char flags = static_cast<char>(
      (level == USM_AUTH_PRIV ? kAuthFlag | kPrivFlag : level == USM_AUTH_NO_PRIV ? kAuthFlag : 0) |
      (sender.reportable ? kReportableFlag : 0));
  put(global, ASN_OCTET_STR, std::string(1, flags));
  put_integer(global, ASN_INTEGER, kUsmModel);
  put(sequence, ASN_OCTET_STR, view(sender.engine, sender.engine_len));
  put_integer(sequence, ASN_INTEGER, boots);
  put_integer(sequence, ASN_INTEGER, time);
  put(sequence, ASN_OCTET_STR, sender.user_name);
  put(sequence, ASN_OCTET_STR, std::string(mac_len, '\0'));
  put(priv_field, ASN_OCTET_STR, salt);
  sequence += priv_field;
  put(parameters, ASN_SEQUENCE, sequence);
  put_integer(body, ASN_INTEGER, SNMP_MESSAGE_V3);
  put(body, ASN_SEQUENCE, global);
  put(body, ASN_OCTET_STR, parameters);
  body += data;
  put(message, ASN_SEQUENCE, body);
  if (mac_len > 0) {
    auto *octets = reinterpret_cast<unsigned char *>(message.data());
    unsigned char *field = octets + message.size() - data.size() - priv_field.size() - mac_len;
    if (!keyed_digest(*user, octets, message.size(), field, field)) return "";
  }
  return message;
}

namespace {

// The scoped PDU of a Report of the local engine: one usmStats counter.
std::string report(const usm_table &table, int32_t request_id, int result) {
  const int arc = -result - 4;  // usmStatsUnsupportedSecLevels is .1
  std::string name = {0x2B, 6, 1, 6, 3, 15, 1, 1, static_cast<char>(arc), 0};
  const usm_stats &s = table.stats;
  const uint32_t counters[] = {s.unsupported_sec_levels, s.not_in_time_windows,
                               s.unknown_user_names,     s.unknown_engine_ids,
                               s.wrong_digests,          s.decryption_errors};
  std::string binding, list, bindings, pdu, scoped;
  put(binding, ASN_OBJECT_ID, name);
  put_integer(binding, ASN_COUNTER, counters[arc - 1]);
  put(list, ASN_SEQUENCE, binding);
  put_integer(pdu, ASN_INTEGER, request_id);
  put_integer(pdu, ASN_INTEGER, 0);
  put_integer(pdu, ASN_INTEGER, 0);
  put(pdu, ASN_SEQUENCE, list);
  put(scoped, ASN_OCTET_STR, view(table.engine_id, static_cast<size_t>(table.engine_id_len)));
  put(scoped, ASN_OCTET_STR, "");
  put(scoped, SNMP_REPORT_PDU, pdu);
  std::string out;
  put(out, ASN_SEQUENCE, scoped);
  return out;
}

// The scoped PDU of the Response to an inform: its context, request-id
// and bindings, no error.
std::string response(const Scoped &inform) {
  const unsigned char *p = inform.pdu;
  unsigned char type;
  uint32_t length;
  if ((p = ber::header(p, inform.pdu_end, &type, &length)) == nullptr || type != ASN_INTEGER)
    return "";
  const unsigned char *request_id_end = p + length;
  for (int skip = 0; skip < 2 && p != nullptr; ++skip) {
    p = ber::header(p + length, inform.pdu_end, &type, &length);
  }
  if (p == nullptr) return "";
  const unsigned char *list = p + length;
  std::string pdu(view(inform.pdu, request_id_end)), scoped, out;
  put_integer(pdu, ASN_INTEGER, 0);
  put_integer(pdu, ASN_INTEGER, 0);
  pdu += view(list, inform.pdu_end);
  put(scoped, ASN_OCTET_STR, view(inform.context_engine, inform.context_engine_len));
  put(scoped, ASN_OCTET_STR, view(inform.context_name, inform.context_name_len));
  put(scoped, SNMP_RESPONSE_PDU, pdu);
  put(out, ASN_SEQUENCE, scoped);
  return out;
}

// The local engine as the authoritative sender of an answer.
events::usm::Sender local_sender(usm_table &table, int32_t msg_id, const User *user,
                                 std::string_view user_name) {
  return {table.engine_id, static_cast<size_t>(table.engine_id_len), table.boots,
          static_cast<uint32_t>(events::usm::engine_time(table)), msg_id, user, user_name, false,
          table.cipher_context, &table.salt};
}

void copy_text(char *to, const unsigned char *from, uint32_t n) {
  memcpy(to, from, n);
  to[n] = '\0';
}

}  // namespace

extern "C" EVENTS_EXPORT int snmp_parse_notification_v3(const unsigned char *buf, int len,
                                                        uint32_t source, usm_table *table,
                                                        snmp_trap_infoEMS *sti,
                                                        EMSsnmpVarBind *vars,
                                                        usm_notification_info *about) {
  usm_notification_info ignored;
  if (about == nullptr) about = &ignored;
  memset(about, 0, sizeof *about);
  Message m;
  const bool readable = read_message(buf, len, &m);
  about->version = m.version;
  if (m.version != SNMP_MESSAGE_V3) return SNMP_NOTIFICATION_NOT_NOTIFICATION;
  if (!readable) return SNMP_NOTIFICATION_MALFORMED;
  about->msg_id = m.msg_id;
  about->security_level = level_of(m.flags);
  copy_text(about->user, m.user, m.user_len);
  memcpy(about->engine_id, m.engine, m.engine_len);
  about->engine_id_len = static_cast<int32_t>(m.engine_len);

  Checked checked;
  int result = check(*table, buf, len, m, &checked);
  count(table->stats, result);
  if (result != USM_OK) return result;
  Scoped scoped;
  if (!read_scoped(checked.scoped, checked.scoped_end, &scoped)) return SNMP_NOTIFICATION_MALFORMED;
  about->pdu_type = scoped.pdu_type;
  memcpy(about->context_engine_id, scoped.context_engine, scoped.context_engine_len);
  about->context_engine_id_len = static_cast<int32_t>(scoped.context_engine_len);
  copy_text(about->context_name, scoped.context_name, scoped.context_name_len);
  if (scoped.pdu_type != SNMP_TRAP2_PDU && scoped.pdu_type != SNMP_INFORM_PDU)
    return SNMP_NOTIFICATION_NOT_NOTIFICATION;
  // The user name stands in the community's place, as a proxy maps a
  // security name to a community (RFC 3584 5.2).
  if (static_cast<int32_t>(m.user_len) > std::min(sti->clen, SNMP_COMMUNITY_MAX - 1))
    return SNMP_NOTIFICATION_MALFORMED;
  memcpy(sti->community, m.user, m.user_len);
  sti->community[m.user_len] = '\0';
  sti->clen = static_cast<int32_t>(m.user_len);
  return events::translate_notification_pdu(scoped.pdu, scoped.pdu_end, source, sti, vars,
                                            &about->request_id, nullptr, nullptr);
}

extern "C" EVENTS_EXPORT int usm_build_answer(usm_table *table, const unsigned char *buf, int len,
                                              unsigned char *out, int *out_length) {
  Message m;
  if (!read_message(buf, len, &m) || m.version != SNMP_MESSAGE_V3) return -1;
  Checked checked;
  const int result = check(*table, buf, len, m, &checked);
  Scoped scoped;
  const bool has_scoped = checked.scoped != nullptr && read_scoped(checked.scoped, checked.scoped_end, &scoped);
  int32_t request_id = 0;
  const unsigned char *p;
  unsigned char type;
  uint32_t length;
  if (has_scoped && (p = ber::header(scoped.pdu, scoped.pdu_end, &type, &length)) != nullptr &&
      type == ASN_INTEGER)
    ber::integer(p, length, type, &request_id);

  std::string message;
  if (result == USM_OK) {
    if (!has_scoped || scoped.pdu_type != SNMP_INFORM_PDU) return 1;
    std::string scoped_response = response(scoped);
    if (scoped_response.empty()) return -1;
    message = events::usm::wrap(local_sender(*table, m.msg_id, checked.user, checked.user->name),
                                std::move(scoped_response));
  } else if ((m.flags & kReportableFlag) && result <= USM_UNSUPPORTED_SEC_LEVEL &&
             result >= USM_DECRYPTION_ERROR) {
    // Only a Report of a stale message goes under the user's key: the
    // sender needs it authenticated to take the engine's boots and time.
    const User *user = result == USM_NOT_IN_TIME_WINDOW ? checked.user : nullptr;
    std::unique_ptr<User> no_privacy;
    if (user != nullptr && user->priv != USM_PRIV_NONE) {
      // A Report goes at authNoPriv at most.
      no_privacy = std::make_unique<User>();
      no_privacy->auth = user->auth;
      no_privacy->mac = EVP_MAC_CTX_dup(user->mac);
      if (no_privacy->mac == nullptr) return -1;
      user = no_privacy.get();
    }
    message = events::usm::wrap(local_sender(*table, m.msg_id, user, view(m.user, m.user_len)),
                                report(*table, request_id, result));
  } else {
    return 1;
  }
  if (message.empty() || message.size() > static_cast<size_t>(*out_length)) return -1;
  memcpy(out, message.data(), message.size());
  *out_length = static_cast<int>(message.size());
  return 0;
}

extern "C" EVENTS_EXPORT const char *usm_error(int result) {
  switch (result) {
    case USM_UNSUPPORTED_SEC_LEVEL:
      return "security level not the user's (usmStatsUnsupportedSecLevels)";
    case USM_NOT_IN_TIME_WINDOW:
      return "not in the time window (usmStatsNotInTimeWindows)";
    case USM_UNKNOWN_USER:
      return "unknown user name (usmStatsUnknownUserNames)";
    case USM_UNKNOWN_ENGINE_ID:
      return "unknown engine ID (usmStatsUnknownEngineIDs)";
    case USM_WRONG_DIGEST:
      return "wrong digest (usmStatsWrongDigests)";
    case USM_DECRYPTION_ERROR:
      return "decryption error (usmStatsDecryptionErrors)";
    case USM_BAD_ARGUMENT:
      return "bad argument";
    case USM_NO_CIPHER:
      return "cipher or digest not available from OpenSSL";
    default:
      return snmp_notification_error(result);
  }
}

extern "C" EVENTS_EXPORT const char *usm_level_name(int security_level) {
  switch (security_level) {
    case USM_NO_AUTH_NO_PRIV:
      return "noAuthNoPriv";
    case USM_AUTH_NO_PRIV:
      return "authNoPriv";
    case USM_AUTH_PRIV:
      return "authPriv";
    default:
      return "unknown";
  }
}

namespace {
constexpr ObjectIdEMS kUserAnnotation[] = {1, 3, 6, 1, 4, 1, 49999, 6, 4, 1, 0};
constexpr ObjectIdEMS kLevelAnnotation[] = {1, 3, 6, 1, 4, 1, 49999, 6, 4, 2, 0};
constexpr uint32_t kAnnotationLength = sizeof kUserAnnotation / sizeof kUserAnnotation[0];

void name_binding(SnmpVarBindEMS &binding, const ObjectIdEMS *oid, unsigned char type) {
  memcpy(binding.oid, oid, sizeof kUserAnnotation);
  binding.oid_length = kAnnotationLength;
  binding.type = type;
}

bool names(const SnmpVarBindEMS &binding, const ObjectIdEMS *oid, unsigned char type) {
  return binding.type == type && binding.oid_length == kAnnotationLength &&
         memcmp(binding.oid, oid, sizeof kUserAnnotation) == 0;
}
}  // namespace

extern "C" EVENTS_EXPORT int usm_annotate(const usm_notification_info *about,
                                          snmp_trap_infoEMS *sti, EMSsnmpVarBind *vars) {
  if (sti->vars < 0 || sti->vars + 2 > sti->maxvars) return -1;
  SnmpVarBindEMS &user = vars[sti->vars];
  name_binding(user, kUserAnnotation, ASN_OCTET_STR);
  user.val_len = static_cast<uint32_t>(strnlen(about->user, USM_NAME_MAX));
  memcpy(user.val.string, about->user, user.val_len);
  SnmpVarBindEMS &level = vars[sti->vars + 1];
  name_binding(level, kLevelAnnotation, ASN_INTEGER);
  level.val.integer = about->security_level;
  level.val_len = 4;
  sti->vars += 2;
  return 0;
}

extern "C" EVENTS_EXPORT int usm_annotation(const snmp_trap_infoEMS *sti,
                                            const EMSsnmpVarBind *vars, char *user) {
  int level = 0;
  user[0] = '\0';
  for (int i = 0; i < sti->vars; ++i) {
    if (names(vars[i], kUserAnnotation, ASN_OCTET_STR) && vars[i].val_len <= USM_NAME_MAX) {
      memcpy(user, vars[i].val.string, vars[i].val_len);
      user[vars[i].val_len] = '\0';
    } else if (names(vars[i], kLevelAnnotation, ASN_INTEGER)) {
      level = vars[i].val.integer;
    }
  }
  return level;
}
