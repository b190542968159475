// The SNMPv3 user table and notification decoder: key localization against
// RFC 3414's published keys, the users file, the engine file, and traps
// sent by net-snmp's snmptrap under every protocol it offers, decoded,
// refused and counted.

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "support/fixtures.h"
#include "usm.h"

namespace {

using namespace std::chrono_literals;
using testsupport::write_file;

std::string hex(const unsigned char *p, int n) {
  std::string out;
  char pair[3];
  for (int i = 0; i < n; ++i) {
    snprintf(pair, sizeof pair, "%02x", p[i]);
    out += pair;
  }
  return out;
}

const unsigned char kRfcEngine[] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};
// The receiver's own engine.
const unsigned char kLocal[] = {0x80, 0x00, 0xC3, 0x4F, 0x05, 1, 2, 3, 4, 5, 6, 7, 8};

TEST(UsmKeys, LocalizedAsPublished) {
  struct {
    int auth, priv;
    const char *key;
  } cases[] = {
      // RFC 3414 A.3.1 and A.3.2.
      {USM_AUTH_MD5, USM_PRIV_NONE, "526f5eed9fcce26f8964c2930787d82b"},
      {USM_AUTH_SHA1, USM_PRIV_NONE, "6695febc9288e36282235fc7151f128497b38f3f"},
      // A privacy key is the same key, cut to the cipher's length...
      {USM_AUTH_SHA1, USM_PRIV_AES128, "6695febc9288e36282235fc7151f1284"},
      {USM_AUTH_MD5, USM_PRIV_DES, "526f5eed9fcce26f8964c2930787d82b"},
      // ...or extended: the Reeder form appends the key localized from the
      // key, as published for 3DES beside these vectors.
      {USM_AUTH_MD5, USM_PRIV_AES256_REEDER,
       "526f5eed9fcce26f8964c2930787d82b79eff44a90650ee0a3a40abfac5acc12"},
  };
  for (const auto &c : cases) {
    unsigned char key[USM_KEY_MAX];
    int length = sizeof key;
    ASSERT_EQ(usm_localize_key(c.auth, c.priv, "maplesyrup", kRfcEngine, sizeof kRfcEngine, key,
                               &length),
              USM_OK);
    EXPECT_EQ(hex(key, length), c.key) << c.auth << "/" << c.priv;
  }
  unsigned char key[USM_KEY_MAX];
  int length = sizeof key;
  EXPECT_EQ(usm_localize_key(USM_AUTH_SHA1, USM_PRIV_NONE, "short", kRfcEngine, 12, key, &length),
            USM_BAD_ARGUMENT);
  length = 8;
  EXPECT_EQ(usm_localize_key(USM_AUTH_SHA1, USM_PRIV_NONE, "maplesyrup", kRfcEngine, 12, key, &length),
            USM_BAD_ARGUMENT);
}

struct Table {
  usm_table *table = usm_table_new(kLocal, sizeof kLocal, 7);
  ~Table() { usm_table_free(table); }
};

TEST(UsmUsers, FileErrorsNameTheLineAndKeepTheUsers) {
  testsupport::TempDir dir;
  Table t;
  const std::string good = dir.file("good");
  write_file(good,
             "# users\n\ncreateUser -e 0x8000000001020304 shaAes SHA authpass123 AES privpass123\n"
             "createUser informer SHA-256 \"auth pass 123\" AES-256\n"
             "createUser open\n");
  chmod(good.c_str(), 0600);
  char message[256];
  ASSERT_EQ(usm_table_read_users(t.table, good.c_str(), message, sizeof message), 3) << message;
  EXPECT_STREQ(message, "");

  struct {
    const char *line, *error;
  } bad[] = {
      {"createUser", "createUser needs a user name"},
      {"createUser -e 0x80 u SHA authpass123", "-e needs an engine ID of 5 to 32 octets in hexadecimal"},
      {"createUser u SHA-999 authpass123", "unknown authentication protocol 'SHA-999'"},
      {"createUser u SHA", "no authentication passphrase"},
      {"createUser u SHA authpass123 AES-999", "unknown privacy protocol 'AES-999'"},
      {"createUser u SHA short", "passphrases need at least 8 characters"},
      {"createUser u SHA authpass123 AES privpass123 more", "unexpected 'more' after the passphrases"},
      {"createUser u SHA \"authpass123", "unclosed double quote"},
      {"rwuser u", "'rwuser' is not createUser"},
  };
  const std::string path = dir.file("bad");
  for (const auto &b : bad) {
    write_file(path, std::string("createUser fine MD5 authpass123\n") + b.line + "\n");
    EXPECT_EQ(usm_table_read_users(t.table, path.c_str(), message, sizeof message), -1) << b.line;
    EXPECT_EQ(message, path + ":2: " + b.error);
  }
  EXPECT_EQ(usm_table_user_count(t.table), 3);

  chmod(good.c_str(), 0644);
  ASSERT_EQ(usm_table_read_users(t.table, good.c_str(), message, sizeof message), 3);
  EXPECT_EQ(message, good + ": warning: others may read this file of passphrases");
  EXPECT_EQ(usm_table_remove_user(t.table, nullptr, 0, "informer"), USM_OK);
  EXPECT_EQ(usm_table_remove_user(t.table, nullptr, 0, "informer"), USM_UNKNOWN_USER);
  EXPECT_EQ(usm_table_user_count(t.table), 2);
}

TEST(UsmEngine, BootsCountAcrossRestartsUnderOneId) {
  testsupport::TempDir dir;
  const std::string path = dir.file("engine");
  unsigned char first[USM_ENGINE_ID_MAX], second[USM_ENGINE_ID_MAX];
  int first_len = 0, second_len = 0;
  uint32_t boots = 0;
  char message[256];
  ASSERT_EQ(usm_engine_boot(path.c_str(), first, &first_len, &boots, message, sizeof message), 0);
  EXPECT_EQ(boots, 1u);
  ASSERT_EQ(usm_engine_boot(path.c_str(), second, &second_len, &boots, message, sizeof message), 0);
  EXPECT_EQ(boots, 2u);
  EXPECT_EQ(hex(first, first_len), hex(second, second_len));
  struct stat status;
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  write_file(path, "engineBoots 3\n");
  EXPECT_EQ(usm_engine_boot(path.c_str(), first, &first_len, &boots, message, sizeof message), -1);
  EXPECT_EQ(message, path + ": no engineID of 5 to 32 octets");
}

// One trap from snmptrap -v 3 under the sender's engine, as received.
std::vector<unsigned char> v3_trap(const std::vector<std::string> &security) {
  testsupport::TempDir state;
  setenv("SNMP_PERSISTENT_DIR", state.path().c_str(), 1);
  testsupport::UdpSocket receiver;
  std::vector<std::string> argv = {"snmptrap", "-v", "3", "-e", "0x8000000001020304"};
  argv.insert(argv.end(), security.begin(), security.end());
  for (const char *word : {"-m", "", "-M", ""}) argv.push_back(word);
  argv.push_back("127.0.0.1:" + std::to_string(receiver.port()));
  for (const char *word : {"4242", "1.3.6.1.4.1.49999.7.0.51", "1.3.6.1.2.1.1.5.0", "s", "hello"})
    argv.push_back(word);
  if (testsupport::run_command(argv) != 0) return {};
  return receiver.receive(5s);
}

struct Decoded {
  int result;
  snmp_trap_infoEMS trap{};
  SnmpVarBindEMS vars[4];
  usm_notification_info about;
};

Decoded decode(usm_table *table, std::vector<unsigned char> message) {
  Decoded d;
  snmp_trap_reset_capacities(&d.trap, 4);
  d.result = snmp_parse_notification_v3(message.data(), static_cast<int>(message.size()),
                                        0x0100007F, table, &d.trap, d.vars, &d.about);
  return d;
}

// Every protocol Debian's net-snmp offers, each with its own user.
TEST(UsmNotification, SnmptrapUnderEveryProtocol) {
  struct {
    const char *auth, *priv;
    int level;
  } cases[] = {
      {"MD5", nullptr, USM_AUTH_NO_PRIV},     {"SHA", nullptr, USM_AUTH_NO_PRIV},
      {"SHA-224", "DES", USM_AUTH_PRIV},      {"SHA-256", "AES", USM_AUTH_PRIV},
      {"SHA-384", "AES-192", USM_AUTH_PRIV},  {"SHA-512", "AES-256", USM_AUTH_PRIV},
      {"MD5", "AES-256", USM_AUTH_PRIV},      {"SHA", "AES-192", USM_AUTH_PRIV},
  };
  testsupport::TempDir dir;
  std::string users = "createUser -e 0x8000000001020304 plain\n";
  for (const auto &c : cases)
    users += std::string("createUser -e 0x8000000001020304 u") + c.auth + (c.priv ? c.priv : "") +
             " " + c.auth + " authpass123" + (c.priv ? std::string(" ") + c.priv + " privpass123" : "") +
             "\n";
  write_file(dir.file("users"), users);
  Table t;
  char message[256];
  ASSERT_GT(usm_table_read_users(t.table, dir.file("users").c_str(), message, sizeof message), 0)
      << message;

  for (const auto &c : cases) {
    const std::string user = std::string("u") + c.auth + (c.priv ? c.priv : "");
    std::vector<std::string> security = {"-u", user, "-l", c.priv ? "authPriv" : "authNoPriv",
                                         "-a", c.auth, "-A", "authpass123"};
    if (c.priv) security.insert(security.end(), {"-x", c.priv, "-X", "privpass123"});
    const std::vector<unsigned char> trap = v3_trap(security);
    ASSERT_FALSE(trap.empty()) << user;
    Decoded d = decode(t.table, trap);
    ASSERT_EQ(d.result, USM_OK) << user << ": " << usm_error(d.result);
    EXPECT_STREQ(reinterpret_cast<char *>(d.trap.community), user.c_str());
    EXPECT_EQ(d.trap.gen, 6u);
    EXPECT_EQ(d.trap.specific, 51u);
    EXPECT_EQ(d.trap.time, 4242u);
    ASSERT_EQ(d.trap.vars, 1);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(d.vars[0].val.string), d.vars[0].val_len), "hello");
    EXPECT_EQ(d.about.security_level, c.level);
    EXPECT_STREQ(d.about.user, user.c_str());
    EXPECT_EQ(hex(d.about.engine_id, d.about.engine_id_len), "8000000001020304");
    // A trap is owed nothing.
    unsigned char answer[512];
    int answer_length = sizeof answer;
    EXPECT_EQ(usm_build_answer(t.table, trap.data(), static_cast<int>(trap.size()), answer,
                               &answer_length),
              1);
  }
  usm_stats stats;
  usm_table_stats(t.table, &stats);
  EXPECT_EQ(stats.wrong_digests + stats.decryption_errors + stats.unknown_user_names, 0u);
}

// Each refusal has its result and its counter, and none yields a trap.
TEST(UsmNotification, RefusalsAreCounted) {
  testsupport::TempDir dir;
  write_file(dir.file("users"),
             "createUser -e 0x8000000001020304 shaAes SHA authpass123 AES privpass123\n"
             "createUser -e 0x8000000001020304 shaDes SHA authpass123 DES privpass123\n");
  Table t;
  char message[256];
  ASSERT_EQ(usm_table_read_users(t.table, dir.file("users").c_str(), message, sizeof message), 2);
  const std::vector<std::string> good = {"-u", "shaAes", "-l", "authPriv", "-a", "SHA", "-A",
                                         "authpass123", "-x", "AES", "-X", "privpass123"};
  const std::vector<unsigned char> trap = v3_trap(good);
  ASSERT_FALSE(trap.empty());
  std::vector<unsigned char> tampered = trap;
  tampered[tampered.size() - 3] ^= 1;

  std::vector<std::string> wrong_pass = good, unknown = good, lower = good, wrong_priv = good;
  wrong_pass[7] = "authpass124";
  unknown[1] = "nobody";
  lower.resize(8);
  lower[3] = "authNoPriv";
  wrong_priv[11] = "privpass124";
  std::vector<std::string> des = good;
  des[1] = "shaDes";
  des[9] = "DES";
  des[11] = "privpass124";
  struct {
    std::vector<unsigned char> message;
    int result;
    uint32_t usm_stats::*counter;
  } cases[] = {
      {tampered, USM_WRONG_DIGEST, &usm_stats::wrong_digests},
      {v3_trap(wrong_pass), USM_WRONG_DIGEST, &usm_stats::wrong_digests},
      {v3_trap(unknown), USM_UNKNOWN_USER, &usm_stats::unknown_user_names},
      {v3_trap(lower), USM_UNSUPPORTED_SEC_LEVEL, &usm_stats::unsupported_sec_levels},
      // A wrong privacy passphrase leaves the digest right and the
      // plaintext garbage.
      {v3_trap(wrong_priv), USM_DECRYPTION_ERROR, &usm_stats::decryption_errors},
      {v3_trap(des), USM_DECRYPTION_ERROR, &usm_stats::decryption_errors},
  };
  for (auto &c : cases) {
    ASSERT_FALSE(c.message.empty());
    usm_stats before, after;
    usm_table_stats(t.table, &before);
    EXPECT_EQ(decode(t.table, c.message).result, c.result) << usm_error(c.result);
    usm_table_stats(t.table, &after);
    EXPECT_EQ(after.*c.counter, before.*c.counter + 1) << usm_error(c.result);
  }
  // Under another engine ID the same user is unknown, and so is the engine.
  Table other;
  ASSERT_NE(other.table, nullptr);
  EXPECT_EQ(decode(other.table, trap).result, USM_UNKNOWN_ENGINE_ID);
  // SNMPv2c goes back to the caller.
  Decoded v2 = decode(t.table, {0x30, 0x03, 0x02, 0x01, 0x01});
  EXPECT_EQ(v2.result, SNMP_NOTIFICATION_NOT_NOTIFICATION);
  EXPECT_EQ(v2.about.version, SNMP_MESSAGE_V2C);
}

}  // namespace
