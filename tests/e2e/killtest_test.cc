// Crash consistency in short: tarnix-killtest kills tarnix-optimize ten
// times at random moments over small generated buckets and checks after
// each kill that no event was lost, that events are held twice only after a
// kill between a move and the removal of its sources, and that the next run
// completes (once over a stale directory lock, which it must break after its
// ten-second wait). The full check (100 kills and more) is run by hand:
// tarnix-killtest --kills 120 --seed 7 -v.
#include <gtest/gtest.h>

#include <string>

#include "testutil/testutil.h"

namespace {

TEST(KillTest, TenKillsLoseNoEvent) {
  testutil::TempDir d;
  testutil::RunResult r = testutil::run_bin("tarnix-killtest", {"--kills", "10", "--seed", "3", "--events", "1500",
                                                               "--max-values", "30", "--design-breaks", "1",
                                                               "--work", d.path() + "/work"});
  EXPECT_EQ(0, r.status) << r.out << r.err;
  EXPECT_NE(std::string::npos, r.out.find("kills: 10 ")) << r.out;
  EXPECT_NE(std::string::npos, r.out.find("result: OK")) << r.out;
}

TEST(KillTest, RefusesBadOptions) {
  for (const char* bad : {"--kills", "--max-values"}) {
    EXPECT_EQ(2, testutil::run_bin("tarnix-killtest", {bad, "0x"}).status) << bad;
  }
  testutil::RunResult r = testutil::run_bin("tarnix-killtest", {"--bin-dir", "/nonexistent"});
  EXPECT_EQ(2, r.status);
  EXPECT_NE(std::string::npos, r.err.find("tarnix-index not found"));
  // A work directory that is a file is a setup fault, not a failed check.
  testutil::TempDir d;
  testutil::write_file(d.file("plain"), {});
  r = testutil::run_bin("tarnix-killtest", {"--kills", "1", "--work", d.file("plain")});
  EXPECT_EQ(2, r.status);
  EXPECT_EQ(r.err, "tarnix-killtest: " + d.file("plain") + " is not a directory\n");
}

}  // namespace
