// Code-point catalog: catalogs built by codeptcat-build from text lists,
// found through NLSPATH, searched per set, refused when damaged, and shown
// by call_formatKWMcp.

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "codeptcat.h"
#include "support/fixtures.h"

namespace {

using testsupport::read_file;
using testsupport::write_file;

const char kList[] =
    "# set code text\n"
    "1 0001 Link failure\n"
    "1 0010 Cable unplugged\n"
    "1 0002 Power\\nlost\n"
    "2 0x5 Replace the adapter\n"
    "7 FFFE Last\n";

// Builds a catalog from `list`; returns the tool's exit status.
int build(const testsupport::TempDir &dir, const std::string &list, const std::string &catalog) {
  write_file(dir.file("list"), list);
  return testsupport::run_command({CODEPTCAT_BUILD_PATH, dir.file("list"), catalog});
}

// The first test of the program: the path is searched only while none is set.
TEST(CodePointCatalog, FoundThroughNlspathAndSearchedPerSet) {
  testsupport::TempDir dir;
  mkdir(dir.file("En_US").c_str(), 0755);
  ASSERT_EQ(build(dir, kList, dir.file("En_US/codepoint.cat")), 0);
  setenv("NLSPATH", ("/nonexistent/%N:" + dir.path() + "/%L/%N").c_str(), 1);
  ASSERT_EQ(codeptcatinit(), 0);

  const struct {
    int set, code;
    const char *text;
  } cases[] = {
      {1, 0x0001, "Link failure"},
      {1, 0x0002, "Power\nlost"},
      {1, 0x0010, "Cable unplugged"},
      {1, 0x0003, "0003"},
      {1, 0x0000, "0000"},
      {2, 0x0005, "Replace the adapter"},
      {2, 0x0006, "0006"},
      {7, 0xFFFE, "Last"},
      {4, 0x0001, "0001"},  // a set without entries
      {1, 0xFFFF, ""},
      {9, 0x0005, "-"},
      {0, 0x0005, "-"},
  };
  for (const auto &c : cases) EXPECT_STREQ(codeptstr(c.set, c.code), c.text) << c.set << ":" << c.code;

  // Another load replaces the catalog; a refused one leaves none.
  ASSERT_EQ(build(dir, "3 0001 Only\n", dir.file("other.cat")), 0);
  codeptpath(dir.file("other.cat").c_str());
  ASSERT_EQ(codeptcatinit(), 0);
  EXPECT_STREQ(codeptstr(3, 1), "Only");
  EXPECT_STREQ(codeptstr(1, 1), "0001");
  codeptpath(dir.file("missing.cat").c_str());
  EXPECT_EQ(codeptcatinit(), -1);
  EXPECT_STREQ(codeptstr(9, 5), "0005");
}

TEST(CodePointCatalog, DamagedCatalogsAreRefused) {
  testsupport::TempDir dir;
  ASSERT_EQ(build(dir, kList, dir.file("good.cat")), 0);
  const std::string good = read_file(dir.file("good.cat"));
  auto load = [&](const std::string &image) {
    write_file(dir.file("bad.cat"), image);
    codeptpath(dir.file("bad.cat").c_str());
    return codeptcatinit();
  };
  for (size_t i = 0; i < CODEPT_MAGIC_SIZE; ++i) {
    std::string image = good;
    image[i] ^= 0x20;
    EXPECT_EQ(load(image), -2) << "magic octet " << i;
  }
  std::string no_entries = good.substr(0, CODEPT_HEADER_SIZE);
  memset(&no_entries[CODEPT_MAGIC_SIZE], 0, 4);
  EXPECT_EQ(load(no_entries), -2);
  std::string negative = good;
  memset(&negative[CODEPT_MAGIC_SIZE], 0xFF, 4);
  EXPECT_EQ(load(negative), -2);
  EXPECT_EQ(load(good.substr(0, CODEPT_HEADER_SIZE - 1)), -2);
  EXPECT_EQ(load(good.substr(0, CODEPT_HEADER_SIZE + 8 * 5 - 1)), -2);
  EXPECT_STREQ(codeptstr(1, 1), "0001");

  // Texts cut off at the end of the file stay inside the text area.
  EXPECT_EQ(load(good.substr(0, good.size() - 2)), 0);
  EXPECT_STREQ(codeptstr(7, 0xFFFE), "Las");
  std::string wild = good;
  memset(&wild[CODEPT_HEADER_SIZE + 4], 0xFF, 4);  // first entry's text offset
  EXPECT_EQ(load(wild), 0);
  EXPECT_STREQ(codeptstr(1, 1), "0001");
  EXPECT_EQ(load(""), -2);

  EXPECT_EQ(build(dir, "1 0001 One\n1 1 Again\n", dir.file("dup.cat")), 1);
  EXPECT_EQ(build(dir, "8 0001 Set out of range\n", dir.file("dup.cat")), 1);
  EXPECT_EQ(build(dir, "# nothing\n", dir.file("dup.cat")), 1);
  struct stat st;
  EXPECT_NE(stat(dir.file("dup.cat").c_str(), &st), 0);
}

SnmpVarBindEMS octets(const std::string &value) {
  SnmpVarBindEMS binding{};
  binding.type = ASN_OCTET_STR;
  memcpy(binding.val.string, value.data(), value.size());
  binding.val_len = static_cast<uint32_t>(value.size());
  return binding;
}

TEST(CodePointCatalog, BindingsShowTheirCodePointsWithTexts) {
  testsupport::TempDir dir;
  ASSERT_EQ(build(dir, kList, dir.file("codepoint.cat")), 0);
  codeptpath(dir.file("codepoint.cat").c_str());

  SnmpVarBindEMS integer{};
  integer.type = ASN_INTEGER;
  integer.val.integer = 0x00020005;
  SnmpVarBindEMS counter = integer;
  counter.type = ASN_COUNTER;
  const std::string both("\0\1\0\1\0\1\xFF\xFF\0\1\0\3\0\2\0\5", 16);
  SnmpVarBindEMS big = octets(std::string(SNMP_STRING_MAX, '\0'));
  big.val_len = 100000;  // longer than the value area: only the area is read
  const struct {
    SnmpVarBindEMS binding;
    int buflen, vars, k;
    const char *text;
  } cases[] = {
      {integer, 64, 1, 0, "2:0005 Replace the adapter"},
      {octets(both), 128, 2, 1, "1:0001 Link failure; 1:0003 0003; 2:0005 Replace the adapter"},
      {octets(both), 20, 2, 1, "1:0001 Link failure"},
      {octets(both.substr(0, 6)), 64, 1, 0, "1:0001 Link failure; (2 stray octets)"},
      {octets(""), 64, 1, 0, ""},
      {counter, 64, 3, 2, "$%3 not code points"},
      {integer, 64, 1, 1, ""},  // the slot past the trap's last binding
      {big, 24, 1, 0, "0:0000 -; 0:0000 -; 0:0"},
  };
  for (const auto &c : cases) {
    char buffer[256];
    memset(buffer, 'x', sizeof buffer);
    int length = call_formatKWMcp(buffer, c.buflen, &c.binding, c.vars, c.k);
    EXPECT_STREQ(buffer, c.text);
    EXPECT_EQ(length, static_cast<int>(strlen(c.text)));
  }
  char untouched = 'x';
  EXPECT_EQ(call_formatKWMcp(&untouched, 0, &integer, 1, 0), 0);
  EXPECT_EQ(untouched, 'x');
}

}  // namespace
