// Alert mapping file reader: the lists it builds and every error text.

#include "alert_mapping.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/fixtures.h"
#include "trp_format.h"

using testsupport::write_file;

namespace {

class AlertFile : public ::testing::Test {
 protected:
  void SetUp() override {
    free_all_info();
    write_file(conf_,
               "cisco {1.3.6.1.4.1.9}\nenv {1.3.6.1.4.1.9.9.13}\n"
               "linkDown {1.3.6.1.4.1.9} 2 0 A 4 0 \"IGNORE\"\nf\nSDESC\nEDESC\n"
               "temp {1.3.6.1.4.1.9.9.13} 6 3 A 4 0 \"IGNORE\"\nf\nSDESC\nEDESC\n");
    setHubdConfFile(conf_.c_str());
    setenv("VORAD_CONF", vora_.c_str(), 1);
  }
  void TearDown() override {
    free_all_info();
    setHubdConfFile(nullptr);
    unsetenv("VORAD_CONF");
  }
  // Reads the configuration with `vora` as the alert file; returns the
  // alert file's error text.
  std::string read(const std::string &vora) {
    write_file(vora_, vora);
    char *error = nullptr;
    EXPECT_EQ(read_trapspec_file(&error), 0);
    return error;
  }

  testsupport::TempDir dir_;
  std::string conf_ = dir_.file("hubd.conf"), vora_ = dir_.file("vorad.conf");
};

TEST_F(AlertFile, BuildsTheSubvectorListsOfEachTrap) {
  ASSERT_EQ(read("# alerts\n"
                 "linkDown {1.3.6.1.4.1.9} 9 9\n"
                 "  96 2 10a1 1002 1 1 \"interface   $1\tof $A\"\n"
                 "\n"
                 "81 2 2001 20c3 2 2 \"\" 3 \"x\" ;\n"
                 "temp {.1.3.6.1.4.1.9.9.13} 6 3\n92 11 3004\n93 2 4001 ffffffff\n"
                 "98 1 5 \"load\"\n;\n"),
            "");
  struct Expected {
    int subvector, type;
    std::vector<int> codepoints;
    std::vector<std::pair<int, std::string>> data;
  };
  auto check = [](const char *name, const std::vector<Expected> &expected) {
    SCOPED_TRACE(name);
    trap_record *trap = nameToExactTrap(name);
    ASSERT_NE(trap, nullptr);
    EXPECT_STREQ(trap->alert_record_name, name);
    const alert_record *record = trap->alert_element;
    for (const Expected &e : expected) {
      ASSERT_NE(record, nullptr);
      EXPECT_EQ(record->subvector, e.subvector);
      EXPECT_EQ(record->type, e.type);
      EXPECT_EQ(std::vector<int>(record->codepoints, record->codepoints + record->num_codepoints),
                e.codepoints);
      std::vector<std::pair<int, std::string>> data;
      for (int i = 0; i < record->num_detaileddata; ++i)
        data.emplace_back(record->detailed_data[i]->dataid,
                          record->detailed_data[i]->dd_args->rawstring);
      EXPECT_EQ(data, e.data);
      record = record->next;
    }
    ASSERT_NE(record, nullptr);  // the all-zero terminator
    EXPECT_EQ(record->subvector | record->num_codepoints | record->num_detaileddata, 0);
    EXPECT_EQ(record->next, nullptr);
  };
  check("linkDown", {{0x96, 0, {0x10a1, 0x1002}, {{1, "interface $1 of $A"}}},
                     {0x81, 0, {0x2001, 0x20c3}, {{2, ""}, {3, "x"}}}});
  check("temp",
        {{0x92, 0x11, {0x3004}, {}}, {0x93, 0, {0x4001, -1}, {}}, {0x98, 0, {}, {{5, "load"}}}});
}

TEST_F(AlertFile, EveryErrorNamesItsLine) {
  const std::string head = "linkDown {1.3.6.1.4.1.9} 2 0\n";
  const std::string where = " of \"" + vora_ + "\"";
  const std::string too_long = head + "93 1 " + std::string(1020, '1') + "\n;\n";
  struct Case {
    std::string file, error;
  } cases[] = {
      {"linkDown {1.3.6.1.4.1.9} 2 0 x\n92 1 1 ;\n",
       "Bad name line in line #1" + where +
           ": linkDown {1.3.6.1.4.1.9} 2 0 x\n(matched 5, not4 tokens)\n"},
      {"x {1.3.a} 2 0\n", "Bad oid char in line #1" + where + ": x {1.3.a} 2 0\n"},
      {"x {1.3.6.1.4.1.11} 2 0\n",
       "No such enterprise as defined in line #1" + where + ": x {1.3.6.1.4.1.11} 2 0\n"},
      {"# c\nx {1.3.6.1.4.1.9.9} 2 0\n",
       "No such enterprise exact (7 vs 8) as defined in line #2 of\"" + vora_ +
           "\": x {1.3.6.1.4.1.9.9} 2 0\n"},
      {"linkUp {1.3.6.1.4.1.9} 2 0\n",
       "Did not find a matching trap name at line #1" + where + "\n"},
      {head + "93 1 5\n", "Did not find a description line in line #2" + where + "\n"},
      {too_long, "Line #2" + where + " too long\n"},
      {head + "93 1 \"open text\n;\n", "Bad char in line #2" + where + ": 93 1 \"open text\n"},
      {head + "93 1 5 0x6 ;\n", "Bad char in line #2" + where + ": 93 1 5 0x6 ;\n"},
      {head + "\"t\" 93 ;\n", "Bad char in line #2" + where + ": \"t\" 93 ;\n"},
      {head + "97 1 5 ;\n", "Invalid subvector number around line #2" + where + ": 97 1 5 ;\n"},
      {head + ";\n", "Invalid subvector number around line #2" + where + ": ;\n"},
      {head + "92 4 5 ;\n", "Invalid type around line #2" + where + ": 92 4 5 ;\n"},
      {head + "94 2 a0 c0 2 1 \"a\" 2 \"b\" ;\n",
       "Not the right number of Detailed Data subfields defined around line #2" + where +
           ": 94 2 a0 c0 2 1 \"a\" 2 \"b\" ;\n"},
      {head + "95 1 d0 3 1 \"a\" 2 \"b\" 3 ;\n",
       "Not enough Detailed Data subfields defined around line #2" + where +
           ": 95 1 d0 3 1 \"a\" 2 \"b\" 3 ;\n"},
      {head + "98 2 1 \"a\" 2 ;\n",
       "Not enough Detailed Data subfields defined aroundline #2" + where + ": 98 2 1 \"a\" 2 ;\n"},
      {head + "94 1 1\n96 1 2 ;\n",
       "Recommended Actions not defined around line #3" + where + ": 96 1 2 ;\n"},
      {head + "94 1 1 81 1 2\n81 1 3 ;\n",
       "Cause subvector not define around line #3" + where + ": 81 1 3 ;\n"},
      {head + "93 5 1 2 ;\n",
       "Subvector ends before its last number around line #2" + where + ": 93 5 1 2 ;\n"},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(read(c.file), c.error) << c.file;
    free_all_info();
  }
  unsetenv("VORAD_CONF");
  setenv("KZ_CONF_DIR", dir_.file("absent").c_str(), 1);
  EXPECT_EQ(read(""), "Could not lock vora format file \"" + dir_.file("absent/vorad.conf") +
                          "\": No such file or directory\n");
  unsetenv("KZ_CONF_DIR");
}

TEST_F(AlertFile, RecordsBeforeAnErrorStay) {
  EXPECT_NE(read("temp {1.3.6.1.4.1.9.9.13} 6 3\n93 1 1 ;\nlinkDown {1.3.6.1.4.1.9} 2 0\n97 ;\n"),
            "");
  EXPECT_NE(nameToExactTrap("temp")->alert_element, nullptr);
  EXPECT_EQ(nameToExactTrap("linkDown")->alert_element, nullptr);
}

// Lists the file cannot carry are refused when hung on a format: a stray
// key 81, two causes in a row, a wrong detailed-data count, an empty list.
// A code-point list longer than a line is written over several lines that
// read back; written without the check, a stray 81 writes nothing.
TEST_F(AlertFile, RefusesListsThatWouldNotReadBackAndWrapsLongLines) {
  ASSERT_EQ(read(""), "");
  auto list = [](std::vector<std::pair<int, int>> keys_and_counts) {
    alert_record *head = nullptr, **tail = &head;
    for (auto [key, count] : keys_and_counts) {
      auto *a = static_cast<alert_record *>(doMalloc(sizeof(alert_record)));
      a->subvector = key;
      a->num_codepoints = count;
      a->codepoints = static_cast<int *>(doMalloc(sizeof(int) * static_cast<unsigned>(count + 1)));
      for (int i = 0; i < count; ++i) a->codepoints[i] = 0x10000 + i;
      *tail = a;
      tail = &a->next;
    }
    *tail = static_cast<alert_record *>(doMalloc(sizeof(alert_record)));
    return head;
  };
  struct Case {
    std::vector<std::pair<int, int>> list;
    bool refused;
  } cases[] = {
      {{{0x94, 1}, {0x81, 1}}, false}, {{{0x81, 1}}, true},       {{{0x94, 1}, {0x95, 1}}, true},
      {{}, true},                      {{{0x93, 300}}, false},    {{{0x97, 1}}, true},
  };
  char name[] = "linkDown";
  for (const Case &c : cases) {
    alert_record *head = list(c.list);
    int result = insert_malloc_alert_record(nullptr, name, 2, 0, head);
    EXPECT_EQ(result != 0, c.refused) << c.list.size();
    if (result != 0) {
      trap_record holder = {};
      holder.alert_element = head;
      delete_vora_record(&holder);
    }
  }
  char *path = nullptr;
  ASSERT_EQ(write_voraspec_file(&path), 0);
  const std::string written = testsupport::read_file(vora_);
  size_t longest = 0;
  for (size_t start = 0, end; start < written.size(); start = end + 1) {
    end = written.find('\n', start);
    longest = std::max(longest, end - start);
  }
  EXPECT_LT(longest, 1023u) << written;
  EXPECT_EQ(read(written), "");
  ASSERT_NE(nameToExactTrap("linkDown")->alert_element, nullptr);
  EXPECT_EQ(nameToExactTrap("linkDown")->alert_element->num_codepoints, 300);

  trap_record *trap = nameToExactTrap("linkDown");
  delete_vora_record(trap);
  trap->alert_element = list({{0x81, 1}, {0x93, 1}});
  char *text = nullptr;
  size_t size = 0;
  FILE *out = open_memstream(&text, &size);
  ObjectIdEMS oid[] = {1, 3, 6, 1, 4, 1, 9};
  print_vora_rec(out, trap, oid, 7);
  fclose(out);
  EXPECT_STREQ(text, "linkDown {1.3.6.1.4.1.9} 2 0 \n93 1 10000  ;\n");
  free(text);
}

}  // namespace
