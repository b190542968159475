// The SNMPv3 user table: the local engine, its users and the usmStats
// counters; the users file of createUser lines; and the file that keeps
// the local engine's ID and boots counter across restarts.

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "usm_internal.h"

namespace {

using events::usm::User;

// Copies text into message[0..size) when there is room for anything.
void say(char *message, int size, const std::string &text) {
  if (message != nullptr && size > 0) snprintf(message, static_cast<size_t>(size), "%s", text.c_str());
}

bool same_engine(const User &user, const usm_table &table, const unsigned char *id, int len) {
  const unsigned char *bound = user.engine_id.empty() ? table.engine_id : user.engine_id.data();
  const int bound_len =
      user.engine_id.empty() ? table.engine_id_len : static_cast<int>(user.engine_id.size());
  return bound_len == len && memcmp(bound, id, static_cast<size_t>(len)) == 0;
}

// Hexadecimal octets, with or without a leading 0x.
bool parse_hex(std::string_view text, std::vector<unsigned char> *out) {
  if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
  if (text.empty() || text.size() % 2 != 0) return false;
  out->clear();
  for (size_t i = 0; i < text.size(); i += 2) {
    unsigned int octet;
    char pair[3] = {text[i], text[i + 1], '\0'};
    if (!isxdigit(static_cast<unsigned char>(pair[0])) ||
        !isxdigit(static_cast<unsigned char>(pair[1])) || sscanf(pair, "%2x", &octet) != 1)
      return false;
    out->push_back(static_cast<unsigned char>(octet));
  }
  return true;
}

// The words of a line; a word in double quotes may hold blanks.  Returns
// false for an unclosed quote.
bool split_words(const std::string &line, std::vector<std::string> *words) {
  size_t at = 0;
  while (true) {
    at = line.find_first_not_of(" \t\r", at);
    if (at == std::string::npos || line[at] == '#') return true;
    if (line[at] == '"') {
      size_t close = line.find('"', at + 1);
      if (close == std::string::npos) return false;
      words->push_back(line.substr(at + 1, close - at - 1));
      at = close + 1;
    } else {
      size_t end = line.find_first_of(" \t\r", at);
      words->push_back(line.substr(at, end == std::string::npos ? end : end - at));
      at = end;
    }
    if (at == std::string::npos) return true;
  }
}

void wipe(std::string &secret) { OPENSSL_cleanse(secret.data(), secret.size()); }

// Reads the whole file into *text, wiping the read buffer.  Returns 0, or
// the errno of the failure; *status receives the file's status.
int read_whole(const char *path, std::string *text, struct stat *status) {
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno;
  if (fstat(fd, status) != 0) {
    int error = errno;
    close(fd);
    return error;
  }
  char chunk[4096];
  ssize_t n;
  while ((n = read(fd, chunk, sizeof chunk)) > 0) text->append(chunk, static_cast<size_t>(n));
  const int error = n < 0 ? errno : 0;
  OPENSSL_cleanse(chunk, sizeof chunk);
  close(fd);
  if (error != 0) wipe(*text);
  return error;
}

// The lines of `text`, without their newlines.
std::vector<std::string_view> lines_of(std::string_view text) {
  std::vector<std::string_view> lines;
  for (size_t at = 0; at < text.size();) {
    size_t end = text.find('\n', at);
    if (end == std::string_view::npos) end = text.size();
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

// Reads one createUser line into a user.  Returns "" or what is wrong.
std::string read_user(const usm_table &table, std::vector<std::string> &words,
                      std::unique_ptr<User> *out) {
  size_t at = 1;
  std::vector<unsigned char> bound;
  if (words.size() > at && words[at] == "-e") {
    if (words.size() <= at + 1 || !parse_hex(words[at + 1], &bound) || bound.size() < 5 ||
        bound.size() > USM_ENGINE_ID_MAX)
      return "-e needs an engine ID of 5 to 32 octets in hexadecimal";
    at += 2;
  }
  if (words.size() <= at) return "createUser needs a user name";
  const std::string &name = words[at++];
  if (name.size() > USM_NAME_MAX) return "user name longer than 32 characters";
  int auth = USM_AUTH_NONE, priv = USM_PRIV_NONE;
  const char *auth_pass = nullptr, *priv_pass = nullptr;
  if (words.size() > at) {
    auth = usm_protocol_by_name(words[at].c_str(), 0);
    if (auth < 0) return "unknown authentication protocol '" + words[at] + "'";
    if (words.size() <= at + 1) return "no authentication passphrase";
    auth_pass = words[at + 1].c_str();
    at += 2;
  }
  if (words.size() > at) {
    priv = usm_protocol_by_name(words[at].c_str(), 1);
    if (priv < 0) return "unknown privacy protocol '" + words[at] + "'";
    priv_pass = words.size() > at + 1 ? words[at + 1].c_str() : auth_pass;
    at += 2;
  }
  if (words.size() > at) return "unexpected '" + words[at] + "' after the passphrases";
  const unsigned char *engine = bound.empty() ? table.engine_id : bound.data();
  const int engine_len = bound.empty() ? table.engine_id_len : static_cast<int>(bound.size());
  int result = events::usm::make_user(table.hmac, name, bound, engine, engine_len, auth, auth_pass,
                                      priv, priv_pass, out);
  if (result == USM_NO_CIPHER && priv == USM_PRIV_DES)
    return "DES needs OpenSSL's legacy provider, which could not be loaded";
  if (result != USM_OK) return "passphrases need at least 8 characters";
  return "";
}

// Puts `user` in `users`, in place of one with the same name and engine.
void put_user(const usm_table &table, std::vector<std::unique_ptr<User>> &users,
              std::unique_ptr<User> user) {
  const unsigned char *engine = user->engine_id.empty() ? table.engine_id : user->engine_id.data();
  const int len = user->engine_id.empty() ? table.engine_id_len
                                          : static_cast<int>(user->engine_id.size());
  for (auto &held : users)
    if (held->name == user->name && same_engine(*held, table, engine, len)) {
      held = std::move(user);
      return;
    }
  users.push_back(std::move(user));
}

}  // namespace

const User *events::usm::find_user(const usm_table &table, const unsigned char *engine_id,
                                   int engine_id_len, std::string_view name) {
  for (const auto &user : table.users)
    if (user->name == name && same_engine(*user, table, engine_id, engine_id_len))
      return user.get();
  return nullptr;
}

bool events::usm::engine_known(const usm_table &table, const unsigned char *engine_id,
                               int engine_id_len) {
  if (engine_id_len == table.engine_id_len &&
      memcmp(engine_id, table.engine_id, static_cast<size_t>(engine_id_len)) == 0)
    return true;
  for (const auto &user : table.users)
    if (same_engine(*user, table, engine_id, engine_id_len)) return true;
  return false;
}

int32_t events::usm::engine_time(const usm_table &table) {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int32_t>(now.tv_sec - table.started);
}

extern "C" EVENTS_EXPORT usm_table *usm_table_new(const unsigned char *engine_id,
                                                  int engine_id_len, uint32_t boots) {
  if (engine_id == nullptr || engine_id_len < 5 || engine_id_len > USM_ENGINE_ID_MAX)
    return nullptr;
  auto table = std::make_unique<usm_table>();
  memcpy(table->engine_id, engine_id, static_cast<size_t>(engine_id_len));
  table->engine_id_len = engine_id_len;
  table->boots = boots;
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  table->started = now.tv_sec;
  table->hmac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
  table->cipher_context = EVP_CIPHER_CTX_new();
  if (table->hmac == nullptr || table->cipher_context == nullptr ||
      RAND_bytes(reinterpret_cast<unsigned char *>(&table->salt), sizeof table->salt) != 1) {
    usm_table_free(table.release());
    return nullptr;
  }
  return table.release();
}

extern "C" EVENTS_EXPORT void usm_table_free(usm_table *table) {
  if (table == nullptr) return;
  table->users.clear();
  OPENSSL_cleanse(table->plain.data(), table->plain.size());
  EVP_CIPHER_CTX_free(table->cipher_context);
  EVP_MAC_free(table->hmac);
  delete table;
}

extern "C" EVENTS_EXPORT int usm_table_add_user(usm_table *table, const unsigned char *engine_id,
                                                int engine_id_len, const char *name, int auth,
                                                const char *auth_pass, int priv,
                                                const char *priv_pass) {
  if (name == nullptr || strlen(name) > USM_NAME_MAX || engine_id_len < 0 ||
      engine_id_len > USM_ENGINE_ID_MAX || (engine_id_len > 0 && engine_id_len < 5) ||
      (auth == USM_AUTH_NONE && priv != USM_PRIV_NONE))
    return USM_BAD_ARGUMENT;
  std::vector<unsigned char> bound(engine_id, engine_id + engine_id_len);
  const unsigned char *engine = engine_id_len > 0 ? engine_id : table->engine_id;
  const int engine_len = engine_id_len > 0 ? engine_id_len : table->engine_id_len;
  std::unique_ptr<User> user;
  int result = events::usm::make_user(table->hmac, name, std::move(bound), engine, engine_len,
                                      auth, auth_pass, priv, priv_pass, &user);
  if (result == USM_OK) put_user(*table, table->users, std::move(user));
  return result;
}

extern "C" EVENTS_EXPORT int usm_table_remove_user(usm_table *table,
                                                   const unsigned char *engine_id,
                                                   int engine_id_len, const char *name) {
  const unsigned char *engine = engine_id_len > 0 ? engine_id : table->engine_id;
  const int engine_len = engine_id_len > 0 ? engine_id_len : table->engine_id_len;
  for (auto it = table->users.begin(); it != table->users.end(); ++it)
    if ((*it)->name == name && same_engine(**it, *table, engine, engine_len)) {
      table->users.erase(it);
      return USM_OK;
    }
  return USM_UNKNOWN_USER;
}

extern "C" EVENTS_EXPORT int usm_table_read_users(usm_table *table, const char *path,
                                                  char *message, int message_size) {
  say(message, message_size, "");
  std::string text;
  struct stat status;
  if (int error = read_whole(path, &text, &status); error != 0) {
    say(message, message_size, std::string(path) + ": " + strerror(error));
    return -1;
  }

  std::vector<std::unique_ptr<User>> users;
  std::string error;
  int line_number = 0;
  for (std::string_view text_line : lines_of(text)) {
    if (!error.empty()) break;
    std::string line(text_line);
    ++line_number;
    std::vector<std::string> words;
    std::unique_ptr<User> user;
    if (!split_words(line, &words))
      error = "unclosed double quote";
    else if (!words.empty() && words[0] != "createUser")
      error = "'" + words[0] + "' is not createUser";
    else if (!words.empty() && (error = read_user(*table, words, &user)).empty())
      put_user(*table, users, std::move(user));
    wipe(line);
    for (std::string &word : words) wipe(word);
  }
  wipe(text);
  if (!error.empty()) {
    say(message, message_size, std::string(path) + ":" + std::to_string(line_number) + ": " + error);
    return -1;
  }
  table->users.swap(users);
  if (status.st_mode & (S_IRGRP | S_IROTH))
    say(message, message_size,
        std::string(path) + ": warning: others may read this file of passphrases");
  return static_cast<int>(table->users.size());
}

extern "C" EVENTS_EXPORT int usm_table_user_count(const usm_table *table) {
  return static_cast<int>(table->users.size());
}

extern "C" EVENTS_EXPORT void usm_table_stats(const usm_table *table, usm_stats *stats) {
  *stats = table->stats;
}

extern "C" EVENTS_EXPORT int usm_engine_boot(const char *path, unsigned char *engine_id,
                                             int *engine_id_len, uint32_t *boots,
                                             char *message, int message_size) {
  std::vector<unsigned char> id;
  unsigned long long last_boots = 0;
  std::string text;
  struct stat status;
  if (int error = read_whole(path, &text, &status); error == 0) {
    for (std::string_view line : lines_of(text)) {
      std::vector<std::string> words;
      split_words(std::string(line), &words);
      if (words.size() != 2) continue;
      if (words[0] == "engineID" && !parse_hex(words[1], &id)) id.clear();
      if (words[0] == "engineBoots") last_boots = strtoull(words[1].c_str(), nullptr, 10);
    }
    if (id.size() < 5 || id.size() > USM_ENGINE_ID_MAX) {
      say(message, message_size, std::string(path) + ": no engineID of 5 to 32 octets");
      return -1;
    }
  } else if (error != ENOENT) {
    say(message, message_size, std::string(path) + ": " + strerror(error));
    return -1;
  } else {
    // RFC 3411's form: enterprise 49999 with the high bit, format 5
    // (octets), then eight random octets.
    id = {0x80, 0x00, 0xC3, 0x4F, 0x05, 0, 0, 0, 0, 0, 0, 0, 0};
    if (RAND_bytes(id.data() + 5, 8) != 1) {
      say(message, message_size, std::string(path) + ": no random octets for an engine ID");
      return -1;
    }
  }
  // The counter stops at its largest value (RFC 3414 2.2.2); the engine
  // then needs a new ID.
  *boots = static_cast<uint32_t>(std::min(last_boots + 1, 2147483647ull));
  std::string hex = "0x";
  for (unsigned char octet : id) {
    char pair[3];
    snprintf(pair, sizeof pair, "%02x", octet);
    hex += pair;
  }
  const std::string contents = "# The local SNMP engine; engineBoots counts its starts.\nengineID " +
                           hex + "\nengineBoots " + std::to_string(*boots) + "\n";
  const std::string temporary = std::string(path) + ".new";
  int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  bool written = fd >= 0 &&
                 write(fd, contents.data(), contents.size()) == static_cast<ssize_t>(contents.size()) &&
                 fsync(fd) == 0;
  if (fd >= 0 && close(fd) != 0) written = false;
  if (!written || rename(temporary.c_str(), path) != 0) {
    say(message, message_size, std::string(path) + ": " + strerror(errno));
    unlink(temporary.c_str());
    return -1;
  }
  memcpy(engine_id, id.data(), id.size());
  *engine_id_len = static_cast<int>(id.size());
  return 0;
}
