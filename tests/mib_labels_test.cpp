// MIB labels: the label file read through the environment, label paths of
// known, partly known and unknown identifiers, and the cut to a buffer.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "kz_mib.h"
#include "support/fixtures.h"

namespace {

using testsupport::write_file;

TEST(MibLabels, LabelPathsFromTheLabelFile) {
  testsupport::TempDir dir;
  setenv("KZ_CONF_DIR", dir.path().c_str(), 1);
  unsetenv("KZ_MIB_FILE");
  EXPECT_EQ(KZmib_get_mib_filename(), dir.file("mib.labels"));
  EXPECT_EQ(KZmib_load_mib(), -1);

  write_file(dir.file("labels"),
             "# standard tree\n"
             "1 iso\n1.3 org\n1.3.6 dod\n1.3.6.1 internet\n"
             "1.3.6.1.2 mgmt\n1.3.6.1.2.1 mib-2\n1.3.6.1.2.1.1 system\n"
             "\n  1.3.6.1.2.1.1.1\tsysDescr   # trailing comment\n"
             "1.3.6.1.4.1.49999.6 wrongName\n"
             "1.3.6.1.4.1.49999.6 events\n"  // a later line replaces the label
             "1.3.x.1 bad\n"
             "1.3.6.1.3 two words\n"
             "lonely\n");
  setenv("KZ_MIB_FILE", dir.file("labels").c_str(), 1);
  EXPECT_EQ(KZmib_get_mib_filename(), dir.file("labels"));
  ASSERT_EQ(KZmib_load_mib(), 0);

  const struct {
    std::vector<ObjectIdEMS> oid;
    const char *path;
  } cases[] = {
      {{1, 3, 6, 1, 2, 1, 1, 1, 0}, ".iso.org.dod.internet.mgmt.mib-2.system.sysDescr.0"},
      {{1, 3, 6, 1, 4, 1, 49999, 6, 3}, ".iso.org.dod.internet.4.1.49999.events.3"},
      {{1, 3, 6, 1, 3}, ".iso.org.dod.internet.3"},
      {{2, 3, 6}, ".2.3.6"},
      {{1, 4294967295u}, ".iso.4294967295"},
      {{}, ""},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.path);
    char buf[128];
    EXPECT_EQ(sprint__objid(buf, sizeof buf, c.oid.data(), static_cast<int>(c.oid.size())),
              static_cast<int>(strlen(c.path)));
    EXPECT_STREQ(buf, c.path);
  }

  const ObjectIdEMS sys_descr[] = {1, 3, 6, 1, 2, 1, 1, 1, 0};
  char small[12] = "xxxxxxxxxxx";
  EXPECT_EQ(sprint__objid(small, 10, sys_descr, 9), 9);
  EXPECT_STREQ(small, ".iso.org.");
  EXPECT_EQ(sprint__objid(small, 0, sys_descr, 9), 0);
  EXPECT_STREQ(small, ".iso.org.");

  // A failed reload keeps the labels read before.
  setenv("KZ_MIB_FILE", dir.file("missing").c_str(), 1);
  EXPECT_EQ(KZmib_load_mib(), -1);
  EXPECT_EQ(sprint__objid(small, sizeof small, sys_descr, 2), 8);

  setenv("KZ_MIB_FILE", EVENTS_SOURCE_DIR "/examples/mib.labels", 1);
  ASSERT_EQ(KZmib_load_mib(), 0);
  const ObjectIdEMS platform_events[] = {1, 3, 6, 1, 4, 1, 49999, 6, 3, 1};
  char path[128];
  sprint__objid(path, sizeof path, platform_events, 10);
  EXPECT_STREQ(path, ".iso.org.dod.internet.private.enterprises.kzPlatform.kzProducts."
                     "kzEventServices.platformEvents");

  testsupport::CapturedStream out(1);
  print_rawobjid(sys_descr, 3);
  fflush(stdout);
  EXPECT_EQ(out.text(), "1.3.6");
}

}  // namespace
