// The user table's insides, shared by the key, table and message modules.
#ifndef EVENTS_SRC_USM_INTERNAL_H
#define EVENTS_SRC_USM_INTERNAL_H

#include <openssl/evp.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "usm.h"

namespace events::usm {

struct AuthProtocol {
  const char *name;    // net-snmp's
  const char *digest;  // OpenSSL's
  int key_len;         // the digest's length, that of the localized key
  int mac_len;         // octets of the HMAC a message carries
};
struct PrivProtocol {
  const char *name;
  const char *cipher;
  int key_len;  // octets of key the cipher takes (DES: key and pre-IV)
  bool reeder;  // key extension by the Reeder draft, else Blumenthal's
};
// Both return nullptr for a number out of range (and for NONE).
const AuthProtocol *auth_protocol(int auth);
const PrivProtocol *priv_protocol(int priv);

// One user with its localized keys and the OpenSSL objects that use them.
struct User {
  std::string name;
  std::vector<unsigned char> engine_id;  // empty: the local engine
  int auth = USM_AUTH_NONE;
  int priv = USM_PRIV_NONE;
  unsigned char auth_key[USM_KEY_MAX];
  int auth_key_len = 0;
  unsigned char priv_key[USM_KEY_MAX];
  int priv_key_len = 0;
  EVP_MAC_CTX *mac = nullptr;     // HMAC keyed with auth_key
  EVP_CIPHER *cipher = nullptr;
  ~User();
  int level() const {
    return priv != USM_PRIV_NONE ? USM_AUTH_PRIV
                                 : auth != USM_AUTH_NONE ? USM_AUTH_NO_PRIV : USM_NO_AUTH_NO_PRIV;
  }
};

// Makes a user bound to `bound` (empty: the local engine) whose keys are
// localized to engine[0..engine_len), the local engine's ID for a user
// bound to it.  Returns USM_OK, USM_BAD_ARGUMENT or USM_NO_CIPHER.
int make_user(EVP_MAC *hmac, std::string_view name, std::vector<unsigned char> bound,
              const unsigned char *engine, int engine_len, int auth, const char *auth_pass,
              int priv, const char *priv_pass, std::unique_ptr<User> *out);

}  // namespace events::usm

struct usm_table {
  unsigned char engine_id[USM_ENGINE_ID_MAX];
  int engine_id_len = 0;
  uint32_t boots = 0;
  int64_t started = 0;  // monotonic seconds at creation
  std::vector<std::unique_ptr<events::usm::User>> users;
  usm_stats stats{};
  EVP_MAC *hmac = nullptr;
  EVP_CIPHER_CTX *cipher_context = nullptr;
  std::vector<unsigned char> plain;  // the decrypted scoped PDU
  uint64_t salt = 0;                 // privacy salt of the answers
};

namespace events::usm {
// The user `name` bound to engine_id[0..engine_id_len), a user bound to
// the local engine answering to the local engine's ID; nullptr if none.
const User *find_user(const usm_table &table, const unsigned char *engine_id, int engine_id_len,
                      std::string_view name);
// Whether any user, or the local engine, has that engine ID.
bool engine_known(const usm_table &table, const unsigned char *engine_id, int engine_id_len);
// Seconds since the table's engine started.
int32_t engine_time(const usm_table &table);
}  // namespace events::usm

namespace events::usm {

// An SNMPv3 message's layers above its scoped PDU.
struct Message {
  int32_t version = 0, msg_id = 0, max_size = 0, model = 0;
  unsigned char flags = 0;
  const unsigned char *engine = nullptr, *user = nullptr, *auth = nullptr, *priv = nullptr;
  uint32_t engine_len = 0, user_len = 0, auth_len = 0, priv_len = 0;
  int32_t boots = 0, time = 0;
  unsigned char data_type = 0;  // SEQUENCE: a plain scoped PDU; OCTET STRING: encrypted
  const unsigned char *data = nullptr;  // msgData's contents
  uint32_t data_len = 0;
  const unsigned char *element = nullptr, *end = nullptr;  // msgData whole
};

// The scoped PDU: contextEngineID, contextName and the PDU's type and
// contents.  Octets after it (a cipher's padding) are ignored.
struct Scoped {
  const unsigned char *context_engine = nullptr, *context_name = nullptr;
  uint32_t context_engine_len = 0, context_name_len = 0;
  unsigned char pdu_type = 0;
  const unsigned char *pdu = nullptr, *pdu_end = nullptr;
};

// Who sends a message, under which security: the authoritative engine's
// ID, boots and time, and the user (none: noAuthNoPriv under user_name).
struct Sender {
  const unsigned char *engine;
  size_t engine_len;
  uint32_t boots, time;
  int32_t msg_id;
  const User *user;
  std::string_view user_name;
  bool reportable;
  EVP_CIPHER_CTX *context;
  uint64_t *salt;  // privacy salt counter
};

// Reads the version and, for SNMPv3, every layer down to msgData.
bool read_message(const unsigned char *buf, int len, Message *m);
bool read_scoped(const unsigned char *p, const unsigned char *end, Scoped *s);
// Whether the message's digest is the user's (true for a user without
// authentication); compared in constant time.
bool digest_matches(const User &user, const unsigned char *buf, int len, const Message &m);
// Decrypts msgData into *plain; [*scoped, *scoped_end) is the scoped PDU.
bool decrypt(EVP_CIPHER_CTX *context, const User &user, const Message &m,
             std::vector<unsigned char> *plain, const unsigned char **scoped,
             const unsigned char **scoped_end);
// The message around a scoped PDU; "" when the cipher or digest fails.
std::string wrap(const Sender &sender, std::string scoped);
// BER writing for the small messages built here.
void put(std::string &out, unsigned char type, std::string_view contents);
void put_integer(std::string &out, unsigned char type, int64_t value);

}  // namespace events::usm

#endif
