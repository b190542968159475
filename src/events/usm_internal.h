// The user table's insides, shared by the key, table and message modules.
#ifndef EVENTS_SRC_USM_INTERNAL_H
#define EVENTS_SRC_USM_INTERNAL_H

#include <openssl/evp.h>

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

#endif
