// Crash consistency in short: tarnix-killtest kills tarnix-optimize ten
// times at random moments over small generated buckets and checks after
// each kill that no event was lost, that events are held twice only after a
// kill between a move and the removal of its sources, and that the next run
// completes (once over a stale directory lock, which it must break after its
// ten-second wait). The full check (100 kills and more) is run by hand:
// tarnix-killtest --kills 120 --seed 7 -v.
#include <gtest/gtest.h>

#include <string>
#include <vector>

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

// A stop request ends the run after the bucket in hand: the report, its
// own work directory removed, and the end by the signal.
TEST(KillTest, StopRequestReportsAndCleansUp) {
  testutil::TempDir tmp;
  testutil::RunResult r = testutil::run(
      {"/bin/sh", "-c",
       "\"$0\" --kills 50 --events 600 --max-values 30 --design-breaks 0 & "
       "i=0; while [ $i -lt 500 ] && [ $(( 0x$(awk '/^SigCgt/ {print $2}' /proc/$!/status 2>/dev/null || echo 0) & "
         "0x4003 )) -ne $((0x4003)) ]; do i=$((i + 1)); sleep 0.01; done; "
       "kill -TERM $!; wait $!",
       testutil::bin("tarnix-killtest")},
      {"TMPDIR=" + tmp.path()});
  EXPECT_EQ(128 + 15, r.status) << r.out << r.err;
  EXPECT_NE(std::string::npos, r.out.find("stopped by signal 15 before its 50 kills\nresult: OK\n")) << r.out;
  EXPECT_EQ(testutil::list_dir(tmp.path()), std::vector<std::string>{});
}

}  // namespace
