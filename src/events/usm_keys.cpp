// SNMPv3 keys: the protocols a user may have, passphrases turned into
// localized keys (RFC 3414 A.2, RFC 7860), privacy keys extended for the
// longer AES keys, and the OpenSSL objects that hold them.  Every buffer
// that held key material is wiped before it is let go.

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/params.h>
#include <openssl/provider.h>

#include <algorithm>
#include <cstring>
#include <strings.h>
#include <vector>

#include "usm_internal.h"

namespace {

using events::usm::AuthProtocol;
using events::usm::PrivProtocol;

constexpr AuthProtocol kAuth[] = {
    {"MD5", "MD5", 16, 12},          {"SHA", "SHA1", 20, 12},
    {"SHA-224", "SHA2-224", 28, 16}, {"SHA-256", "SHA2-256", 32, 24},
    {"SHA-384", "SHA2-384", 48, 32}, {"SHA-512", "SHA2-512", 64, 48}};
constexpr PrivProtocol kPriv[] = {
    {"DES", "DES-CBC", 16, false},          {"AES", "AES-128-CFB", 16, false},
    {"AES-192", "AES-192-CFB", 24, false},  {"AES-256", "AES-256-CFB", 32, false},
    {"AES-192-C", "AES-192-CFB", 24, true}, {"AES-256-C", "AES-256-CFB", 32, true}};

// RFC 3414 A.2: the passphrase repeated over one mebioctet makes the
// user's key, which hashed between two copies of an engine ID is localized
// to that engine.  `passphrase` may hold any octets.
bool localize(const AuthProtocol &auth, std::string_view passphrase, const unsigned char *engine,
              int engine_len, unsigned char *key) {
  constexpr size_t kStretch = 1 << 20;
  if (passphrase.empty()) return false;
  EVP_MD *md = EVP_MD_fetch(nullptr, auth.digest, nullptr);
  EVP_MD_CTX *context = EVP_MD_CTX_new();
  unsigned char block[4096];
  unsigned char ku[EVP_MAX_MD_SIZE];
  bool ok = md != nullptr && context != nullptr && EVP_DigestInit_ex2(context, md, nullptr);
  size_t at = 0;
  for (size_t done = 0; ok && done < kStretch; done += sizeof block) {
    for (unsigned char &octet : block) {
      octet = static_cast<unsigned char>(passphrase[at]);
      if (++at == passphrase.size()) at = 0;
    }
    ok = EVP_DigestUpdate(context, block, sizeof block);
  }
  const size_t ku_len = static_cast<size_t>(auth.key_len);
  ok = ok && EVP_DigestFinal_ex(context, ku, nullptr) && EVP_DigestInit_ex2(context, md, nullptr) &&
       EVP_DigestUpdate(context, ku, ku_len) && EVP_DigestUpdate(context, engine, engine_len) &&
       EVP_DigestUpdate(context, ku, ku_len) && EVP_DigestFinal_ex(context, key, nullptr);
  OPENSSL_cleanse(block, sizeof block);
  OPENSSL_cleanse(ku, sizeof ku);
  EVP_MD_CTX_free(context);
  EVP_MD_free(md);
  return ok;
}

// Extends the localized key key[0..*key_len) to `needed` octets.  The
// Blumenthal draft appends the hash of all the key so far, again and
// again; the Reeder draft appends the key localized from the key so far
// taken as a passphrase.
bool extend(const AuthProtocol &auth, bool reeder, const unsigned char *engine, int engine_len,
            unsigned char *key, int *key_len, int needed) {
  unsigned char more[EVP_MAX_MD_SIZE];
  bool ok = true;
  while (ok && *key_len < needed) {
    unsigned int more_len = static_cast<unsigned int>(auth.key_len);
    if (reeder) {
      ok = localize(auth, std::string_view(reinterpret_cast<char *>(key), *key_len), engine,
                    engine_len, more);
    } else {
      EVP_MD *md = EVP_MD_fetch(nullptr, auth.digest, nullptr);
      ok = md != nullptr && EVP_Digest(key, static_cast<size_t>(*key_len), more, &more_len, md,
                                       nullptr);
      EVP_MD_free(md);
    }
    const int take = std::min(static_cast<int>(more_len), needed - *key_len);
    memcpy(key + *key_len, more, static_cast<size_t>(take));
    *key_len += take;
  }
  OPENSSL_cleanse(more, sizeof more);
  return ok;
}

// OpenSSL 3 keeps DES in its legacy provider.  Loading any provider by
// name stops the default one from loading by itself, so both are loaded.
// They stay loaded for the life of the process.
bool load_legacy_provider() {
  static OSSL_PROVIDER *const standard = OSSL_PROVIDER_load(nullptr, "default");
  static OSSL_PROVIDER *const legacy = OSSL_PROVIDER_load(nullptr, "legacy");
  return standard != nullptr && legacy != nullptr;
}

}  // namespace

const AuthProtocol *events::usm::auth_protocol(int auth) {
  return auth >= USM_AUTH_MD5 && auth <= USM_AUTH_SHA512 ? &kAuth[auth - 1] : nullptr;
}

const PrivProtocol *events::usm::priv_protocol(int priv) {
  return priv >= USM_PRIV_DES && priv <= USM_PRIV_AES256_REEDER ? &kPriv[priv - 1] : nullptr;
}

events::usm::User::~User() {
  OPENSSL_cleanse(auth_key, sizeof auth_key);
  OPENSSL_cleanse(priv_key, sizeof priv_key);
  EVP_MAC_CTX_free(mac);
  EVP_CIPHER_free(cipher);
}

int events::usm::make_user(EVP_MAC *hmac, std::string_view name, std::vector<unsigned char> bound,
                           const unsigned char *engine, int engine_len, int auth,
                           const char *auth_pass, int priv, const char *priv_pass,
                           std::unique_ptr<User> *out) {
  auto user = std::make_unique<User>();
  user->name = name;
  user->engine_id = std::move(bound);
  user->auth = auth;
  user->priv = priv;
  if (auth != USM_AUTH_NONE) {
    int length = USM_KEY_MAX;
    if (usm_localize_key(auth, USM_PRIV_NONE, auth_pass, engine, engine_len, user->auth_key,
                         &length) != USM_OK)
      return USM_BAD_ARGUMENT;
    user->auth_key_len = length;
    const AuthProtocol &protocol = *auth_protocol(auth);
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST,
                                         const_cast<char *>(protocol.digest), 0),
        OSSL_PARAM_construct_end()};
    user->mac = EVP_MAC_CTX_new(hmac);
    if (user->mac == nullptr ||
        !EVP_MAC_init(user->mac, user->auth_key, static_cast<size_t>(length), params))
      return USM_NO_CIPHER;
  }
  if (priv != USM_PRIV_NONE) {
    int length = USM_KEY_MAX;
    if (usm_localize_key(auth, priv, priv_pass, engine, engine_len, user->priv_key, &length) !=
        USM_OK)
      return USM_BAD_ARGUMENT;
    user->priv_key_len = length;
    if (priv == USM_PRIV_DES && !load_legacy_provider()) return USM_NO_CIPHER;
    user->cipher = EVP_CIPHER_fetch(nullptr, priv_protocol(priv)->cipher, nullptr);
    if (user->cipher == nullptr) return USM_NO_CIPHER;
  }
  *out = std::move(user);
  return USM_OK;
}

extern "C" EVENTS_EXPORT int usm_protocol_by_name(const char *name, int privacy) {
  for (int number = 1; number <= (privacy ? USM_PRIV_AES256_REEDER : USM_AUTH_SHA512); ++number)
    if (strcasecmp(name, privacy ? kPriv[number - 1].name : kAuth[number - 1].name) == 0)
      return number;
  return -1;
}

extern "C" EVENTS_EXPORT int usm_localize_key(int auth, int priv, const char *passphrase,
                                              const unsigned char *engine_id, int engine_id_len,
                                              unsigned char *key, int *key_len) {
  const AuthProtocol *protocol = events::usm::auth_protocol(auth);
  const PrivProtocol *cipher = events::usm::priv_protocol(priv);
  if (protocol == nullptr || (priv != USM_PRIV_NONE && cipher == nullptr) ||
      passphrase == nullptr || strlen(passphrase) < 8 || engine_id_len < 0 || engine_id_len > USM_ENGINE_ID_MAX)
    return USM_BAD_ARGUMENT;
  unsigned char scratch[2 * USM_KEY_MAX];
  int length = protocol->key_len;
  bool ok = localize(*protocol, passphrase, engine_id, engine_id_len, scratch);
  if (ok && cipher != nullptr) {
    ok = extend(*protocol, cipher->reeder, engine_id, engine_id_len, scratch, &length,
                cipher->key_len);
    length = cipher->key_len;
  }
  ok = ok && length <= *key_len;
  if (ok) {
    memcpy(key, scratch, static_cast<size_t>(length));
    *key_len = length;
  }
  OPENSSL_cleanse(scratch, sizeof scratch);
  return ok ? USM_OK : USM_BAD_ARGUMENT;
}
