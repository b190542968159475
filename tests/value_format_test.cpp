// Value printers: octet strings, binding values and kinds, identifiers,
// severities and node lists, each as a table of inputs and exact texts.

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kz_mib.h"
#include "oidtree.h"
#include "support/fixtures.h"
#include "support/sample_trap.h"
#include "trp_format.h"

namespace {

using testsupport::set_binding_int;
using testsupport::set_oid;
using testsupport::write_file;

TEST(ValuePrinters, OctetStringsAsTextOrHex) {
  const struct {
    std::string bytes;
    int length_override;  // -1: the bytes' length
    int strict;
    int buflen;
    std::string expected;
  } cases[] = {
      {"hello", -1, 0, 64, "hello"},
      {"\x01\x02\xff", -1, 0, 64, "0x01 02 ff"},
      {std::string("ab\0c", 4), -1, 0, 64, "0x61 62 00 63"},  // a NUL byte: all hex
      {"a\x01\x02z", -1, 0, 64, "a\x01\x02z"},                // half unprintable: text
      {"a\x01\x02\x03", -1, 0, 64, "0x61 01 02 03"},
      {"a\tb\n", -1, 0, 64, "a\tb\n"},
      {"a\tb", -1, 1, 64, "0x61 09 62"},  // strict: white space is not printable
      {"", -5, 0, 64, "0x"},              // negative length
      {"", -5, 0, 2, ""},
      {"abcdef", -1, 0, 5, "ab"},         // cut at a character, no marker
      {"\x01\x02\x03", -1, 0, 9, "0x01 02 "},  // cut at a byte
      {"abc", -1, 0, 1, ""},
  };
  for (const auto &c : cases) {
    strictHex = c.strict;
    std::vector<char> out(c.buflen + 8, '#');
    int length = c.length_override == -1 ? static_cast<int>(c.bytes.size()) : c.length_override;
    formatOctetString(out.data(), c.buflen,
                      reinterpret_cast<unsigned char *>(const_cast<char *>(c.bytes.data())), length);
    EXPECT_EQ(out.data(), c.expected) << c.bytes;
    EXPECT_EQ(out[c.buflen], '#') << "wrote past the buffer for " << c.bytes;
  }
  strictHex = 0;

  ASSERT_NE(setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
  char out[16];
  unsigned char accented[] = "d\xc3\xa9j\xc3\xa0";  // "déjà"
  formatOctetString(out, 7, accented, 6);  // the second "à" does not fit whole
  EXPECT_STREQ(out, "d\xc3\xa9j");
  setlocale(LC_CTYPE, "C");
}

TEST(ValuePrinters, ValuesAndKindsByType) {
  const struct {
    unsigned char type;
    int32_t value;
    std::string value_text, kind_text;
  } cases[] = {
      {0x02, -5, "-5", "Integer"},
      {0x41, static_cast<int32_t>(4000000000u), "4000000000", "Counter"},
      {0x42, 7, "7", "Gauge"},
      {0x43, 360000, "360000", "Ticks"},
      {0x05, 0, "", "Empty"},
      {0x03, 0, "Unknown ASN.1 type: 3", "Unknown type: 3 "},
  };
  SnmpVarBindEMS var{};
  set_oid(var.oid, &var.oid_length, {1, 3, 6, 1, 4, 1, 9999, 1});
  char text[64];
  for (const auto &c : cases) {
    set_binding_int(&var, c.type, c.value);
    formatValue(text, sizeof text, &var);
    EXPECT_EQ(text, c.value_text);
    formatKind(text, 30, &var);
    EXPECT_EQ(text, c.kind_text);
    formatKind(text, 29, &var);
    EXPECT_STREQ(text, "");
  }
  // IpAddress octets lie in wire order; a loopback address has a name,
  // a documentation address none.
  var.type = 0x40;
  memcpy(var.val.string, "\x7f\x00\x00\x01", 4);
  formatValue(text, sizeof text, &var);
  EXPECT_STREQ(text, "localhost");
  memcpy(var.val.string, "\xc0\x00\x02\x07", 4);
  formatValue(text, sizeof text, &var);
  EXPECT_STREQ(text, "192.0.2.7");
  formatValue(text, 5, &var);
  EXPECT_STREQ(text, "192.");
}

TEST(ValuePrinters, ObjectIdentifiersAsNumbersNamesAndLabels) {
  ObjectIdEMS oid[] = {1, 3, 6, 1, 4, 1, 49999, 6, 3, 1};
  const struct {
    int buflen;
    std::string expected;
  } numbers[] = {{64, "1.3.6.1.4.1.49999.6.3.1"}, {9, ""}, {12, "1.3.6.1."}, {24, "1.3.6.1.4.1.49999.6."}};
  for (const auto &c : numbers) {
    char buf[64];
    char *at = buf;
    int room = c.buflen;
    formatObjectID(&at, &room, oid, 10, 0);
    EXPECT_EQ(buf, c.expected) << c.buflen;
    EXPECT_EQ(at - buf, static_cast<long>(c.expected.size()));
    EXPECT_EQ(room, c.buflen - static_cast<int>(c.expected.size()));
  }

  testsupport::TempDir dir;
  write_file(dir.file("mib.labels"),
             "1 iso\n1.3 org\n1.3.6 dod\n1.3.6.1 internet\n1.3.6.1.4 private\n"
             "1.3.6.1.4.1 enterprises\n1.3.6.1.4.1.49999 platformEnterpriseName\n"
             "1.3.6.1.4.1.49999.6 platformProductsBranch\n"
             "1.3.6.1.4.1.49999.6.3 platformEventServices\n");
  setenv("KZ_MIB_FILE", dir.file("mib.labels").c_str(), 1);
  ASSERT_EQ(KZmib_load_mib(), 0);
  const struct {
    std::vector<ObjectIdEMS> arcs;
    std::string expected;
  } labels[] = {
      {{1, 3, 6, 1, 4, 1, 49999}, "private.enterprises.platformEnterpriseName"},
      // Longer than 50 characters: the last whole labels within 50.
      {{1, 3, 6, 1, 4, 1, 49999, 6, 3, 1}, "platformProductsBranch.platformEventServices.1"},
      {{1, 3, 6}, ".iso.org.dod"},
  };
  for (const auto &c : labels) {
    char buf[128];
    char *at = buf;
    int room = sizeof buf;
    formatObjectID(&at, &room, const_cast<ObjectIdEMS *>(c.arcs.data()),
                   static_cast<unsigned>(c.arcs.size()), 1);
    EXPECT_EQ(buf, c.expected);
  }
  unsetenv("KZ_MIB_FILE");
  write_file(dir.file("empty.labels"), "");
  setenv("KZ_MIB_FILE", dir.file("empty.labels").c_str(), 1);
  KZmib_load_mib();
  unsetenv("KZ_MIB_FILE");
}

TEST(ValuePrinters, TreeNamesForEnumerationsAndIdentifiers) {
  testsupport::TempDir dir;
  write_file(dir.file("oid_to_label"),
             "\"lab\"=1.3.6.1.4.1.9999\n"
             "${lab}.1.5.2=\"testing\"\n"
             "${lab}.7=\"labProducts\"\n"
             "${lab}=\"labEnterprise\"\n");
  oidTree = parseOidFile(dir.file("oid_to_label").c_str());
  ASSERT_NE(oidTree, nullptr);
  SnmpVarBindEMS var{};
  set_oid(var.oid, &var.oid_length, {1, 3, 6, 1, 4, 1, 9999, 1, 5});
  char text[64];
  set_binding_int(&var, 0x02, 2);
  formatValue(text, sizeof text, &var);
  EXPECT_STREQ(text, "testing");
  formatValue(text, 7, &var);  // a name is whole or nothing
  EXPECT_STREQ(text, "");
  set_binding_int(&var, 0x02, 3);
  formatValue(text, sizeof text, &var);
  EXPECT_STREQ(text, "3");
  // An identifier value is named by all its arcs but the last.
  var.type = 0x06;
  set_oid(var.val.objid, &var.val_len, {1, 3, 6, 1, 4, 1, 9999, 7, 42});
  formatValue(text, sizeof text, &var);
  EXPECT_STREQ(text, "labProducts");

  snmp_trap_infoEMS trap{};
  uint32_t elen = 0;
  set_oid(trap.enterprise, &elen, {1, 3, 6, 1, 4, 1, 9999});
  trap.elen = static_cast<int32_t>(elen);
  formatEnterprise(text, sizeof text, &trap, 1);
  EXPECT_STREQ(text, "labEnterprise");
  formatEnterprise(text, sizeof text, &trap, 0);
  EXPECT_STREQ(text, "1.3.6.1.4.1.9999");
  oidFreeTree(oidTree);
  oidTree = nullptr;
}

TEST(ValuePrinters, SeveritiesAndNodeLists) {
  for (int severity = 0; severity <= 5; ++severity)
    EXPECT_EQ(stringToSeverity(severityToString(severity)), severity);
  EXPECT_STREQ(severityToString(5), "Major");
  EXPECT_STREQ(severityToString(6), "Unknown");
  EXPECT_EQ(stringToSeverity("major"), 0);

  const struct {
    std::vector<const char *> nodes;
    int buflen;
    std::string expected;
  } cases[] = {
      {{}, 64, "ALL SOURCES"},
      {{"alpha", "beta"}, 64, "alpha beta"},
      {{"alpha", "beta", "gamma"}, 14, "alpha ..."},
      {{"a-very-long-node-name"}, 3, ".."},
  };
  for (const auto &c : cases) {
    trap_record record{};
    record.nodeCnt = static_cast<int>(c.nodes.size());
    record.nodeList = const_cast<char **>(c.nodes.data());
    std::vector<char> out(c.buflen + 1, '#');
    trpFmtSprintNodes(&record, out.data(), c.buflen);
    EXPECT_EQ(out.data(), c.expected);
    EXPECT_EQ(out[c.buflen], '#');
  }
}

}  // namespace
