// OID name tree: a mapping file with every kind of line read into a tree
// and looked up both ways, the name templates of ranges, and the dumps.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "oidtree.h"
#include "support/fixtures.h"

namespace {

using testsupport::write_file;

std::vector<ObjectIdEMS> arcs(const std::string &dotted) {
  std::vector<ObjectIdEMS> out;
  for (size_t start = 0; start < dotted.size();) {
    size_t dot = dotted.find('.', start);
    if (dot == std::string::npos) dot = dotted.size();
    out.push_back(static_cast<ObjectIdEMS>(std::stoul(dotted.substr(start, dot - start))));
    start = dot + 1;
  }
  return out;
}

class MappingFile : public ::testing::Test {
 protected:
  oidnode *read(const std::string &contents) {
    write_file(dir_.file("oid_to_label"), contents);
    tree_ = TreeParseOidFile(tree_, dir_.file("oid_to_label").c_str());
    return tree_;
  }
  const char *name(const std::string &dotted) {
    std::vector<ObjectIdEMS> oid = arcs(dotted);
    return TreeLookupOid(tree_, oid.data(), static_cast<int>(oid.size()));
  }
  void TearDown() override { oidFreeTree(tree_); }

  testsupport::TempDir dir_;
  oidnode *tree_ = nullptr;
};

TEST_F(MappingFile, EveryKindOfLine) {
  const std::string name63(63, 'n');
  ASSERT_NE(read("# enterprises of the example configuration\n"
                 "  \"ent\"=1.3.6.1.4.1.49999   # the platform\n"
                 "\"hex\"=${ent}.0x10\n"
                 "\"oct\"=${ent}.010\n"
                 "\"spaced\"= 1.3.6\n"
                 "\"letters\"=1.3.six\n"
                 "\"dup\"=1.3\n"
                 "\"dup\"=1.4\n"
                 "\"glued\"=${ent}7\n"
                 "${ent}.1=\"platform\"\n"
                 "${ent}.1=\"renamed\"\n"
                 "${ent}.2= \"blank after equals\"\n"
                 "1.3.6.1.4.1.49999.3=\"numeric\"\n"
                 "${hex}.1=\"viaHex\"\n"
                 "${oct}.1=\"viaOctal\"\n"
                 "${dup}.1=\"newestLocal\"\n"
                 "${glued}.1=\"glued\"\n"
                 "${nosuch}.1=\"unknown local\"\n"
                 "${ent.1=\"no closing brace\"\n"
                 "${ent}.4=\"unterminated\n"
                 "${ent}.5=\"" + name63 + "\"\n"
                 "${ent}.6=\"" + name63 + "x\"\n"
                 "${ent}.7.i(1..3)=\"port${i+100}\"\n"
                 "${ent}.8.v(4..6)=\"v${v}/${v*2}/${v-4}/${v%4}/${v/2} $$\"\n"
                 "${ent}.9.i(1..3)=\"p${j}\"\n"
                 "${ent}.10.i(1..2000000)=\"huge\"\n"
                 "${ent}.11\\\n"
                 ".1=\"joined\" # a comment ends the join \\\n"
                 "${ent}.12=\"after join\"\n"
                 "${ent}.13=\"" + std::string(1100, 'x') + "\"\n"
                 "${ent}.14=\"short\" #" + std::string(1100, 'c') + "\n"
                 "${ent}.15.i(0..3)=\"n${i}\"\n"
                 "${ent}.zz=\"stops the file\"\n"
                 "${ent}.16=\"never read\"\n"),
            nullptr);

  const struct {
    const char *oid;
    const char *name;  // nullptr: no name
  } cases[] = {
      {"1.3.6.1.4.1.49999.1", "renamed"},
      {"1.3.6.1.4.1.49999", nullptr},  // a prefix without a name of its own
      {"1.3.6.1.4.1.49999.2", nullptr},
      {"1.3.6.1.4.1.49999.3", nullptr},
      {"1.3.6.1.4.1.49999.16.1", "viaHex"},
      {"1.3.6.1.4.1.49999.8.1", "viaOctal"},
      {"1.4.1", "newestLocal"},
      {"1.3.6.1.4.1.499997.1", nullptr},
      {"1.3.6.1.4.1.49999.4", nullptr},
      {"1.3.6.1.4.1.49999.5", name63.c_str()},
      {"1.3.6.1.4.1.49999.6", nullptr},
      {"1.3.6.1.4.1.49999.7.1", "port101"},
      {"1.3.6.1.4.1.49999.7.3", "port103"},
      {"1.3.6.1.4.1.49999.7.4", nullptr},
      {"1.3.6.1.4.1.49999.8.4", "v4/8/0/0/2 $$"},
      {"1.3.6.1.4.1.49999.8.6", "v6/12/2/2/3 $$"},
      {"1.3.6.1.4.1.49999.9.1", nullptr},
      {"1.3.6.1.4.1.49999.10.1", nullptr},
      {"1.3.6.1.4.1.49999.11.1", "joined"},
      {"1.3.6.1.4.1.49999.12", "after join"},
      {"1.3.6.1.4.1.49999.13", nullptr},
      {"1.3.6.1.4.1.49999.14", "short"},
      {"1.3.6.1.4.1.49999.15.0", "n0"},
      {"1.3.6.1.4.1.49999.16", nullptr},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.oid);
    const char *found = name(c.oid);
    if (c.name == nullptr) {
      EXPECT_EQ(found, nullptr) << found;
    } else {
      EXPECT_STREQ(found, c.name);
    }
  }
  EXPECT_EQ(TreeLookupOid(tree_, nullptr, 0), nullptr);

  EXPECT_STREQ(findOidInTree(tree_, "port102"), "1.3.6.1.4.1.49999.7.2");
  EXPECT_STREQ(findOidInTree(tree_, "newestLocal"), "1.4.1");
  EXPECT_EQ(findOidInTree(tree_, "never read"), nullptr);
  EXPECT_STREQ(findEntOidstring("dup"), "1.4");
  EXPECT_EQ(findEntOidstring("spaced"), nullptr);
}

TEST_F(MappingFile, SiblingsStayOrderedAndLookupsAreExact) {
  oidnode *tree = nullptr;
  for (const char *oid : {"1.5", "1.2", "1.9", "1.2.7", ".1.3"}) {
    ASSERT_NE(TreeInsertOid(&tree, oid, buildOidData(oid)), nullptr) << oid;
  }
  EXPECT_EQ(TreeInsertOid(&tree, "1.4.x", buildOidData("bad")), nullptr);
  EXPECT_EQ(TreeInsertOid(&tree, "1..4", buildOidData("bad")), nullptr);
  EXPECT_EQ(TreeInsertOid(&tree, "1.4294967296", buildOidData("bad")), nullptr);
  std::vector<ObjectIdEMS> seen;
  for (const oidnode *n = tree->child->child; n != nullptr; n = n->sib) seen.push_back(n->val);
  EXPECT_EQ(seen, (std::vector<ObjectIdEMS>{2, 3, 5, 9}));  // nothing of the failed ones
  ObjectIdEMS two[] = {1, 2}, deeper[] = {1, 2, 7, 1}, root_arc[] = {1};
  EXPECT_STREQ(TreeLookupOid(tree, two, 2), "1.2");
  EXPECT_EQ(TreeLookupOid(tree, deeper, 4), nullptr);
  EXPECT_EQ(TreeLookupOid(tree, root_arc, 1), nullptr);
  oidFreeTree(tree);
}

TEST_F(MappingFile, UnreadableFileKeepsTheOldTree) {
  read("\"e\"=1.3\n${e}.1=\"one\"\n");
  EXPECT_EQ(TreeParseOidFile(tree_, dir_.file("missing").c_str()), nullptr);
  EXPECT_STREQ(name("1.3.1"), "one");
  // A directory opens but cannot be read: an error, not an empty file.
  EXPECT_EQ(parseOidFile(dir_.path().c_str()), nullptr);
}

TEST(StrSub, ExpandsTheLetterOrFails) {
  const struct {
    const char *tmpl;
    long value;
    int result;
    const char *text;
  } cases[] = {
      {"port${i}", 7, 0, "port7"},
      {"${i+100}:${i-10}:${i*3}:${i/2}:${i%5}", 7, 0, "107:-3:21:3:2"},
      {"$$i $ {i} $x", 1, 0, "$$i $ {i} $x"},
      {"${j}", 1, 1, nullptr},
      {"${i+1", 1, 2, nullptr},
      {"${i", 1, 2, nullptr},
      {"${i^2}", 1, 3, nullptr},
      {"${i/0}", 1, 4, nullptr},
      {"${i%0}", 1, 4, nullptr},
      {"${i+}", 1, 4, nullptr},
      {"${i*99999999999}", 1, 4, nullptr},
      {"0123456789${i}", 12345, 4, nullptr},  // 15 characters do not fit 15 bytes
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.tmpl);
    char out[15] = "unchanged";
    EXPECT_EQ(strsub(out, sizeof out, c.tmpl, 'i', c.value), c.result);
    EXPECT_STREQ(out, c.text != nullptr ? c.text : "unchanged");
  }
}

TEST_F(MappingFile, DumpsListLocalsAndNamedNodes) {
  read("\"b\"=1.3.0x1\n\"a\"=${b}.2\n${a}.5=\"five\"\n${b}=\"one\"\n");
  testsupport::CapturedStream out(1);
  dumpLocalList();
  dumpOidTree(tree_, "");
  dumpOidTree(tree_, "x");
  fflush(stdout);
  EXPECT_EQ(out.text(),
            "\nLocal mappings:\n\t'a' -> .1.3.1.2\n\t'b' -> .1.3.1\n"
            "Exposed mappings:\n\t.1.3.1 -> 'one'\n\t.1.3.1.2.5 -> 'five'\n"
            "\tx.1.3.1 -> 'one'\n\tx.1.3.1.2.5 -> 'five'\n");
}

TEST(Examples, BundledMappingFileNamesTheExampleConfiguration) {
  oidnode *tree = parseOidFile(EVENTS_SOURCE_DIR "/examples/oid_to_label");
  ASSERT_NE(tree, nullptr);
  const struct {
    const char *oid, *name;
  } cases[] = {
      {"1.3.6.1.4.1.49999.6.3.1", "platformEvents"},
      {"1.3.6.1.2.1.2.2.1.7", "ifAdminStatus"},
      {"1.3.6.1.2.1.2.2.1.8.2.2", "down"},
      {"1.3.6.1.4.1.9.9.13.1.3.1.3.1.100", "100 (373 K)"},
      {"1.3.6.1.4.1.9.9.13.16", "sensor16"},
  };
  for (const auto &c : cases) {
    std::vector<ObjectIdEMS> oid = arcs(c.oid);
    EXPECT_STREQ(TreeLookupOid(tree, oid.data(), static_cast<int>(oid.size())), c.name) << c.oid;
  }
  oidFreeTree(tree);
}

}  // namespace
