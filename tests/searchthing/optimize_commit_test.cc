// The commit helpers of the optimize pass (link-and-unlink, the move to a
// fresh final name, the closing log line) and the optimize run called in
// process: iteration limits, the one-pass library form and the status file.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "searchthing/lock.h"
#include "searchthing/st.h"
#include "searchthing/tsidx.h"
#include "searchthing/tsidx_optimize.h"
#include "testutil/optimize_bucket.h"
#include "testutil/testutil.h"

namespace tarnix {
namespace {

// A log stream whose text the test can read.
class memlog {
 public:
  memlog() : f_(open_memstream(&buf_, &len_)) {}
  ~memlog() {
    if (f_ != nullptr) fclose(f_);
    free(buf_);
  }
  FILE* get() { return f_; }
  std::string text() {
    fflush(f_);
    return std::string(buf_, len_);
  }

 private:
  char* buf_ = nullptr;
  size_t len_ = 0;
  FILE* f_;
};

// Descriptors this process holds.
size_t open_descriptors() { return testutil::list_dir("/proc/self/fd").size(); }

TEST(OptimizeCommit, FinishedTextTable) {
  EXPECT_STREQ(_so_finished_text(-31), "no suitable pair of tsidx found for optimize");
  EXPECT_STREQ(_so_finished_text(-30), "less than 2 tsidx files in dir");
  EXPECT_STREQ(_so_finished_text(0), "files merged successfully");
  for (int32_t rc : {-29, -13, -1, -32, -35, 1}) {
    EXPECT_STREQ(_so_finished_text(rc), "failed, see rc for more details") << rc;
  }
}

TEST(OptimizeCommit, FinishedLineCarriesCodeAndErrno) {
  memlog log;
  wrc w{};
  w.warm_rc = -31;
  w.warm_errno = 17;
  _log_optimize_finished(log.get(), &w, nullptr);
  w.warm_rc = -4;
  int other = 5;
  _log_optimize_finished(log.get(), &w, &other);
  _log_optimize_finished(nullptr, &w, nullptr);
  const std::string expected(
      "tm={N} optimize finished: no suitable pair of tsidx found for optimize, (rc=-31 errno=17)\n"
      "tm={N} optimize finished: failed, see rc for more details, (rc=-4 errno=5)\n");
  EXPECT_TRUE(testutil::pattern_match(log.text(), expected)) << log.text();
}

TEST(OptimizeCommit, LinkAndUnlinkMovesOrReportsLinkError) {
  testutil::TempDir d;
  testutil::write_file(d.file("a"), {'a'});
  testutil::write_file(d.file("taken"), {'t'});
  memlog log;
  // Never over an existing name.
  EXPECT_EQ(_link_and_unlink(d.file("a").c_str(), d.file("taken").c_str(), log.get()), EEXIST);
  EXPECT_EQ(testutil::read_file(d.file("taken")), std::vector<uint8_t>{'t'});
  EXPECT_TRUE(testutil::exists(d.file("a")));
  const std::string warn("tm={N} WARN link command failed. rc=" + std::to_string(EEXIST) +
                         " Retrying the following files \n\t" + d.file("a") + "\n\t" +
                         d.file("taken") + "\n");
  EXPECT_TRUE(testutil::pattern_match(log.text(), warn)) << log.text();

  EXPECT_EQ(_link_and_unlink(d.file("a").c_str(), d.file("b").c_str(), nullptr), 0);
  EXPECT_FALSE(testutil::exists(d.file("a")));
  EXPECT_EQ(testutil::read_file(d.file("b")), std::vector<uint8_t>{'a'});
}

TEST(OptimizeCommit, MoveRetryTimeNamesTargetFromTimes) {
  testutil::TempDir d;
  testutil::write_file(d.file("x.merge"), {'m'});
  memlog log;
  ASSERT_EQ(move_retry_time(d.file("x.merge").c_str(), d.path().c_str(), -5, 300, log.get()), 0);
  std::vector<std::string> names = testutil::list_dir(d.path());
  ASSERT_EQ(names.size(), 1u);
  EXPECT_TRUE(testutil::pattern_match(names[0], std::string("300--5-{N}.tsidx"))) << names[0];
  const std::string lines("tm={N} intermediate=" + d.file("x.merge") + "\n" +
                          "tm={N} target=" + d.file(names[0]) + "\n");
  EXPECT_TRUE(testutil::pattern_match(log.text(), lines)) << log.text();
}

TEST(OptimizeCommit, MoveRetryTimeGivesUpAfterTenAttempts) {
  testutil::TempDir d;
  memlog log;
  const std::string missing = d.file("gone.merge");
  EXPECT_EQ(move_retry_time(missing.c_str(), d.path().c_str(), 1, 2, log.get()), ENOENT);
  std::string text = log.text();
  size_t warns = 0;
  for (size_t p = text.find("WARN link command failed. rc=" + std::to_string(ENOENT));
       p != std::string::npos; p = text.find("WARN link command failed", p + 1)) {
    ++warns;
  }
  EXPECT_EQ(warns, 10u);
  const std::string last("{*}\ntm={N} ERROR failed to move intermediate=" + missing +
                         " eno=" + std::to_string(ENOENT) + "\n");
  EXPECT_TRUE(testutil::pattern_match(text, last)) << text;
  EXPECT_EQ(testutil::list_dir(d.path()), std::vector<std::string>{});
}

TEST(OptimizeCommit, DirectoryListingAfterFailedMove) {
  testutil::TempDir d;
  testutil::write_file(d.file("1-1-1.tsidx"), {'x'});
  testutil::write_file(d.file("a:b-c.merge"), {});
  tsidx* t = st_tsidx_open(d.path().c_str(), 0, 0, 0);
  ASSERT_NE(t, nullptr);
  memlog log;
  _so_log_dir_listing(t, log.get());
  _so_log_dir_listing(t, nullptr);
  EXPECT_EQ(st_tsidx_close(t), 0);
  // Entries come in listing order; compare them sorted.
  std::string text = log.text();
  size_t first_end = text.find('\n');
  ASSERT_NE(first_end, std::string::npos);
  EXPECT_TRUE(testutil::pattern_match(text.substr(0, first_end + 1),
                                      "tm={N} dir listing for " + d.path() + "\n"));
  std::vector<std::string> entries;
  for (size_t p = first_end + 1; p < text.size();) {
    size_t e = text.find('\n', p);
    entries.push_back(testutil::strip_times(text.substr(p, e - p)));
    p = e + 1;
  }
  std::sort(entries.begin(), entries.end());
  EXPECT_EQ(entries, (std::vector<std::string>{
                         "tm=T \t" + d.path() + "/.", "tm=T \t" + d.path() + "/..",
                         "tm=T \t" + d.file("1-1-1.tsidx"), "tm=T \t" + d.file("a:b-c.merge")}));
}

// Forty index files of one value each in dir; all their events.
std::vector<testutil::event> forty_slices(const std::string& dir) {
  std::vector<testutil::event> all;
  for (uint32_t f = 0; f < 40; ++f) {
    auto ev = testutil::make_events(f, 1, 10 + f, 5000 + static_cast<int32_t>(f));
    EXPECT_NE(testutil::write_slice(dir, ev), "");
    all.insert(all.end(), ev.begin(), ev.end());
  }
  return all;
}

class OptimizeInProcess : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("OPTIMISTIC_ABOUT_FILE_LOCKING", "yes", 1);
    ASSERT_EQ(st_init(), 0);
  }
  testutil::TempDir dir_;
};

TEST_F(OptimizeInProcess, ZeroAndNegativeLimitsRunOnePass) {
  for (int32_t limit : {0, -7}) {
    SCOPED_TRACE(limit);
    testutil::TempDir d;
    forty_slices(d.path());
    wrc w{};
    EXPECT_EQ(st_optimize(d.path().c_str(), SO_MODE_NORMAL, 0, limit, 8, 64, 0, nullptr, &w, 0, 0),
              0);
    EXPECT_EQ(testutil::tsidx_names(d.path()).size(), 9u);
  }
}

// Every pass closes its sources' descriptors (after removing them) and its
// output's.
TEST_F(OptimizeInProcess, UnlimitedRunEndsWhenNothingIsLeft) {
  const std::vector<testutil::event> all = forty_slices(dir_.path());
  wrc w{};
  testutil::write_file(dir_.file("tarnix-need-optimize.dat"), {});
  const size_t descriptors = open_descriptors();
  EXPECT_EQ(
      st_optimize(dir_.path().c_str(), SO_MODE_NORMAL, 1, 2147483647, 8, 64, 0, nullptr, &w, 0, 0),
      0);
  // The last pass found fewer than two files.
  EXPECT_EQ(w.warm_rc, ST_EFEWFILES);
  EXPECT_EQ(open_descriptors(), descriptors);
  std::vector<std::string> names = testutil::list_dir(dir_.path());
  ASSERT_EQ(names.size(), 2u);
  EXPECT_EQ(names[1], "optimize.result");
  std::vector<testutil::posting> got;
  ASSERT_TRUE(testutil::read_postings(dir_.file(names[0]), &got));
  EXPECT_EQ(got, testutil::postings_of(all));
}

TEST_F(OptimizeInProcess, LibraryFormRunsOnePassWithDefaults) {
  forty_slices(dir_.path());
  tsidx* t = st_tsidx_open(dir_.path().c_str(), 0, 0, 0);
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(st_optimize_ex(t, SO_MODE_NORMAL), 0);
  EXPECT_EQ(testutil::tsidx_names(dir_.path()).size(), 9u);
  EXPECT_EQ(st_optimize_ex(t, SO_MODE_NORMAL), 0);
  EXPECT_EQ(testutil::tsidx_names(dir_.path()).size(), 1u);
  EXPECT_EQ(st_optimize_ex(t, SO_MODE_NORMAL), ST_EFEWFILES);
  EXPECT_EQ(st_tsidx_close(t), 0);
}

// An intermediate file of the pass's name stops it with -28 before anything
// is written: every lock is released, every descriptor closed and the
// sources left as they were, so the next pass, with the name free, merges
// them.
TEST_F(OptimizeInProcess, ExistingIntermediateStopsThePassAndReleasesEverything) {
  const testutil::TempDir& d = dir_;
  const auto a = testutil::make_events(1, 3, 10, 100);
  const auto b = testutil::make_events(2, 5, 20, 200);
  const std::string names[2] = {testutil::write_slice(d.path(), a), testutil::write_slice(d.path(), b)};
  const std::vector<uint8_t> before[2] = {testutil::read_file(d.file(names[0])), testutil::read_file(d.file(names[1]))};
  // The name is made of the first two members in group order, whichever
  // that is, and this process's id.
  std::vector<std::string> blockers;
  for (int first = 0; first < 2; ++first) {
    int32_t e0, l0, e1, l1;
    uint64_t i0, i1;
    ASSERT_EQ(st_tsidx_file_parse(names[first].c_str(), &e0, &l0, &i0), 1);
    ASSERT_EQ(st_tsidx_file_parse(names[1 - first].c_str(), &e1, &l1, &i1), 1);
    blockers.push_back(d.file(std::to_string(e0) + ":" + std::to_string(e1) + ":" + std::to_string(i0) + "-" +
                              std::to_string(l0) + ":" + std::to_string(l1) + ":" + std::to_string(i1) + "-" +
                              std::to_string(getpid()) + ".merge"));
    testutil::write_file(blockers.back(), {'x'});
  }
  const size_t descriptors = open_descriptors();
  wrc w{};
  EXPECT_EQ(st_optimize(d.path().c_str(), SO_MODE_FORCE, 0, 1, 2, 64, 0, nullptr, &w, 0, 0), ST_EEXISTS);
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_FALSE(testutil::exists(d.path() + ".lock"));
  for (int k = 0; k < 2; ++k) {
    EXPECT_FALSE(testutil::exists(d.file(names[k] + ".lock")));
    EXPECT_TRUE(testutil::read_file(d.file(names[k])) == before[k]);
  }
  for (const std::string& f : blockers) ASSERT_EQ(unlink(f.c_str()), 0);
  EXPECT_EQ(st_optimize(d.path().c_str(), SO_MODE_FORCE, 0, 1, 2, 64, 0, nullptr, &w, 0, 0), 0);
  const std::vector<std::string> left = testutil::tsidx_names(d.path());
  ASSERT_EQ(left.size(), 1u);
  std::vector<testutil::posting> got;
  ASSERT_TRUE(testutil::read_postings(d.file(left[0]), &got));
  std::vector<testutil::event> all = a;
  all.insert(all.end(), b.begin(), b.end());
  EXPECT_EQ(got, testutil::postings_of(all));
  EXPECT_EQ(testutil::list_dir(d.path()), left);
}

TEST(OptimizeStatus, StatusFileName) {
  char buf[4096];
  EXPECT_STREQ(so_status_filename("/var/b", buf), "/var/b/optimize.result");
  EXPECT_EQ(so_status_filename("x", buf), buf);
}

TEST_F(OptimizeInProcess, ExistingStatusFileIsLeftAsItIs) {
  const testutil::TempDir& d = dir_;
  testutil::write_file(d.file("optimize.result"), {'o', 'k'});
  wrc w{};
  EXPECT_EQ(st_optimize(d.path().c_str(), SO_MODE_FORCE, 1, 1, 8, 64, 0, nullptr, &w, 0, 0), 0);
  EXPECT_EQ(testutil::read_file(d.file("optimize.result")), (std::vector<uint8_t>{'o', 'k'}));
}

}  // namespace
}  // namespace tarnix
