// tarnix-optimize on real bucket directories: index files written through
// the directory handle, the program run as a separate process, and the
// result read back posting by posting.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "searchthing/tsidx.h"
#include "testutil/optimize_bucket.h"
#include "testutil/testutil.h"

namespace tarnix {
namespace {

using testutil::posting;

const std::string kProgram = testutil::bin("tarnix-optimize");
const std::vector<std::string> kEnv = {"OPTIMISTIC_ABOUT_FILE_LOCKING=yes", "LOG_TARNIX_OPTIMIZE"};

testutil::RunResult run_opt(const std::vector<std::string>& args,
                            const std::vector<std::string>& env = kEnv) {
  std::vector<std::string> argv = {kProgram};
  argv.insert(argv.end(), args.begin(), args.end());
  return testutil::run(argv, env);
}

int64_t file_size(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
}

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

void pad_to(const std::string& path, int64_t size) { ASSERT_EQ(truncate(path.c_str(), size), 0); }

void corrupt_magic(const std::string& path) {
  int fd = open(path.c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(pwrite(fd, "X", 1, 0), 1);
  close(fd);
}

struct name_parts {
  int32_t latest, earliest;
  uint64_t id;
};
name_parts parse(const std::string& name) {
  name_parts p{};
  EXPECT_EQ(st_tsidx_file_parse(name.c_str(), &p.earliest, &p.latest, &p.id), 1) << name;
  return p;
}

// Postings of every index file in dir, as one sorted multiset.
std::vector<posting> all_postings(const std::string& dir) {
  std::vector<posting> all;
  for (const std::string& name : testutil::tsidx_names(dir)) {
    std::vector<posting> one;
    EXPECT_TRUE(testutil::read_postings(dir + "/" + name, &one)) << name;
    all.insert(all.end(), one.begin(), one.end());
  }
  std::sort(all.begin(), all.end());
  return all;
}

int count_suffix(const std::string& dir, const std::string& suffix) {
  int n = 0;
  for (const std::string& name : testutil::list_dir(dir)) {
    if (name.size() >= suffix.size() &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
      ++n;
    }
  }
  return n;
}

// A bucket with `files` slices of `values` values each; returns every event.
std::vector<testutil::event> fill_bucket(const std::string& dir, uint32_t files, uint32_t values,
                                         uint32_t first_address = 1) {
  std::vector<testutil::event> all;
  for (uint32_t f = 0; f < files; ++f) {
    auto ev = testutil::make_events(f + first_address, values, first_address + f * values,
                                    1000000 + static_cast<int32_t>(f) * 100);
    EXPECT_NE(testutil::write_slice(dir, ev), "");
    all.insert(all.end(), ev.begin(), ev.end());
  }
  return all;
}

TEST(OptimizeRun, OneFileIsNothingToDo) {
  testutil::TempDir d;
  ASSERT_NE(testutil::write_slice(d.path(), testutil::make_events(1, 5, 100, 1000)), "");
  auto before = testutil::tsidx_names(d.path());
  testutil::RunResult r = run_opt({"-d", d.path(), "-v"});
  EXPECT_EQ(r.status, 0);
  const std::string expected(
      "tm={N} tarnix-optimize start: dir=" + d.path() +
      " mode=0 verbose=true isfinal=false max_iteration=2147483647 min_src_count=8 "
      "lex_tpb=64\n"
      "tm={N} optimize finished: less than 2 tsidx files in dir, (rc=-30 errno={N})\n"
      "tm={N} exiting tarnix-optimize process with rc=-30\n");
  EXPECT_TRUE(testutil::pattern_match(r.err, expected)) << r.err;
  EXPECT_EQ(testutil::tsidx_names(d.path()), before);
}

TEST(OptimizeRun, MissingDirectoryCannotBeLocked) {
  testutil::TempDir d;
  const std::string missing = d.file("missing");
  // Without the environment's blessing the file system of a missing path is
  // unknown, so the directory lock fails.
  testutil::RunResult r = run_opt({"-d", missing, "-v", "--final"},
                                  {"OPTIMISTIC_ABOUT_FILE_LOCKING", "LOG_TARNIX_OPTIMIZE"});
  EXPECT_EQ(r.status, 227);
  const std::string expected(
      "tm={N} tarnix-optimize start: dir=" + missing +
      " mode=0 verbose=true isfinal=true max_iteration=2147483647 min_src_count=8 "
      "lex_tpb=64\n"
      "tm={N} optimize finished: failed, see rc for more details, (rc=-29 errno={N})\n"
      "tm={N} exiting tarnix-optimize process with rc=-29\n");
  EXPECT_TRUE(testutil::pattern_match(r.err, expected)) << r.err;
  EXPECT_EQ(testutil::list_dir(d.path()), std::vector<std::string>{});
}

TEST(OptimizeRun, RegularFileAsDirectoryCannotBeListed) {
  testutil::TempDir d;
  const std::string file = d.file("not-a-dir");
  testutil::write_file(file, {'x'});
  testutil::RunResult r = run_opt({"-d", file, "-v", "--final"});
  EXPECT_EQ(r.status, 255);
  EXPECT_TRUE(testutil::pattern_match(
      r.err,
      "{*}tm={N} optimize finished: failed, see rc for more details, (rc=-1 errno={N})\n"
      "tm={N} exiting tarnix-optimize process with rc=-1\n"))
      << r.err;
  // Neither a status file (there is no directory) nor a lock is left.
  EXPECT_EQ(testutil::list_dir(d.path()), std::vector<std::string>{"not-a-dir"});
}

TEST(OptimizeRun, ExtraSpaceLimitCutsTheGroup) {
  struct {
    std::string limit;
    size_t files_left;
  } cases[] = {
      {"1", 2},                        // only the seed pair, which is never held against the limit
      {"99999999999999999999999", 1},  // an overflowing limit means none
      {"0", 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.limit);
    testutil::TempDir d;
    auto all = fill_bucket(d.path(), 3, 2);
    testutil::RunResult r = run_opt({"-d", d.path(), "-s", "2", "-i", "1", "-x", c.limit});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(testutil::tsidx_names(d.path()).size(), c.files_left);
    EXPECT_EQ(all_postings(d.path()), testutil::postings_of(all));
  }
}

TEST(OptimizeRun, MergesGroupIntoFreshNameAndRemovesSources) {
  testutil::TempDir d;
  std::vector<testutil::event> all;
  for (int32_t f = 0; f < 3; ++f) {
    auto ev = testutil::make_events(10 + f, 4 + f, 100 * (f + 1), 5000 + 1000 * f);
    ASSERT_NE(testutil::write_slice(d.path(), ev), "");
    all.insert(all.end(), ev.begin(), ev.end());
  }
  int32_t latest = INT32_MIN, earliest = INT32_MAX;
  std::vector<uint64_t> ids;
  for (const std::string& name : testutil::tsidx_names(d.path())) {
    name_parts p = parse(name);
    latest = std::max(latest, p.latest);
    earliest = std::min(earliest, p.earliest);
    ids.push_back(p.id);
  }
  testutil::write_file(d.file("tarnix-need-optimize.dat"), {});

  testutil::RunResult r = run_opt({"-d", d.path(), "-s", "2"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  std::vector<std::string> names = testutil::list_dir(d.path());
  ASSERT_EQ(names.size(), 1u) << ::testing::PrintToString(names);
  name_parts p = parse(names[0]);
  EXPECT_EQ(p.latest, latest);
  EXPECT_EQ(p.earliest, earliest);
  EXPECT_EQ(std::count(ids.begin(), ids.end(), p.id), 0);
  EXPECT_EQ(all_postings(d.path()), testutil::postings_of(all));
  EXPECT_FALSE(exists(d.path() + ".lock"));
}

TEST(OptimizeRun, VerboseLogOfOneMerge) {
  testutil::TempDir d;
  std::string small = testutil::write_slice(d.path(), testutil::make_events(1, 2, 10, 700));
  std::string big = testutil::write_slice(d.path(), testutil::make_events(2, 20, 100, 900));
  ASSERT_NE(small, "");
  ASSERT_NE(big, "");
  ASSERT_LT(file_size(d.file(small)), file_size(d.file(big)));
  name_parts a = parse(small), b = parse(big);
  const std::string small_sz = std::to_string(file_size(d.file(small)));
  const std::string big_sz = std::to_string(file_size(d.file(big)));

  testutil::RunResult r = run_opt({"-d", d.path(), "-v", "-s", "2", "-b", "16"});
  EXPECT_EQ(r.status, 0);
  const std::string dir = d.path();
  const std::string expected(
      "tm={N} tarnix-optimize start: dir=" + dir +
      " mode=0 verbose=true isfinal=false max_iteration=2147483647 min_src_count=2 lex_tpb=16\n"
      "tm={N} source_0=" +
      d.file(small) + " sz=" + small_sz +
      "\n"
      "tm={N} source_1=" +
      d.file(big) + " sz=" + big_sz +
      "\n"
      // Earliest values first, then the latest values.
      "tm={N} intermediate=" +
      dir + "/" + std::to_string(a.earliest) + ":" + std::to_string(b.earliest) + ":" +
      std::to_string(a.id) + "-" + std::to_string(a.latest) + ":" + std::to_string(b.latest) + ":" +
      std::to_string(b.id) +
      "-{N}.merge\n"
      "tm={N} target=" +
      dir + "/" + std::to_string(std::max(a.latest, b.latest)) + "-" +
      std::to_string(std::min(a.earliest, b.earliest)) +
      "-{N}.tsidx\n"
      "tm={N} optimize finished: files merged successfully, (rc=0 errno={N})\n"
      "tm={N} optimize finished: less than 2 tsidx files in dir, (rc=-30 errno={N})\n"
      "tm={N} exiting tarnix-optimize process with rc=-30\n");
  EXPECT_TRUE(testutil::pattern_match(r.err, expected)) << r.err;
}

TEST(OptimizeRun, SkipsEmptyLockedAndOversizedFiles) {
  testutil::TempDir d;
  auto ev_a = testutil::make_events(1, 3, 10, 100);
  auto ev_b = testutil::make_events(2, 3, 20, 200);
  auto ev_c = testutil::make_events(3, 3, 30, 300);
  auto ev_e = testutil::make_events(4, 3, 40, 400);
  ASSERT_NE(testutil::write_slice(d.path(), ev_a), "");
  ASSERT_NE(testutil::write_slice(d.path(), ev_b), "");
  std::string locked = testutil::write_slice(d.path(), ev_c);
  std::string oversized = testutil::write_slice(d.path(), ev_e);
  ASSERT_NE(locked, "");
  ASSERT_NE(oversized, "");
  testutil::write_file(d.file(locked + ".lock"), {'1'});
  // 750 MiB is the largest candidate outside mode all; sparse, so cheap.
  pad_to(d.file(oversized), 786432001);
  testutil::write_file(d.file("500-100-77.tsidx"), {});

  testutil::RunResult r = run_opt({"-d", d.path(), "-m", "force", "-s", "2"});
  EXPECT_EQ(r.status, 0) << r.err;
  std::vector<std::string> names = testutil::tsidx_names(d.path());
  ASSERT_EQ(names.size(), 4u) << ::testing::PrintToString(names);
  EXPECT_TRUE(exists(d.file(locked)));
  EXPECT_TRUE(exists(d.file(locked + ".lock")));
  EXPECT_EQ(file_size(d.file(oversized)), 786432001);
  EXPECT_EQ(file_size(d.file("500-100-77.tsidx")), 0);
  std::string merged;
  for (const std::string& n : names) {
    if (n != locked && n != oversized && n != "500-100-77.tsidx") merged = n;
  }
  std::vector<posting> got;
  ASSERT_TRUE(testutil::read_postings(d.file(merged), &got));
  std::vector<testutil::event> ab = ev_a;
  ab.insert(ab.end(), ev_b.begin(), ev_b.end());
  EXPECT_EQ(got, testutil::postings_of(ab));

  // Again in force mode: the merged file is the only candidate.
  EXPECT_EQ(run_opt({"-d", d.path(), "-m", "force", "-s", "2"}).status, 0);
  EXPECT_EQ(testutil::tsidx_names(d.path()), names);

  // Mode all takes the oversized file too.
  r = run_opt({"-d", d.path(), "-m", "all", "-s", "2"});
  EXPECT_EQ(r.status, 0) << r.err;
  names = testutil::tsidx_names(d.path());
  ASSERT_EQ(names.size(), 3u) << ::testing::PrintToString(names);
  EXPECT_FALSE(exists(d.file(oversized)));
  EXPECT_FALSE(exists(d.file(merged)));
  for (const std::string& n : names) {
    if (n != locked && n != "500-100-77.tsidx") merged = n;
  }
  got.clear();
  ASSERT_TRUE(testutil::read_postings(d.file(merged), &got));
  ab.insert(ab.end(), ev_e.begin(), ev_e.end());
  EXPECT_EQ(got, testutil::postings_of(ab));
}

TEST(OptimizeRun, MergeFailureLeavesIntermediateAndLocks) {
  testutil::TempDir d;
  fill_bucket(d.path(), 3, 4);
  std::vector<std::string> sources = testutil::tsidx_names(d.path());
  // The largest one is last in the group.
  std::string bad = sources[0];
  for (const std::string& s : sources) {
    if (file_size(d.file(s)) > file_size(d.file(bad))) bad = s;
  }
  pad_to(d.file(bad), file_size(d.file(bad)) + 4096);
  corrupt_magic(d.file(bad));

  // Silent run, but the failure is still reported; --final still leaves
  // the status file.
  testutil::RunResult r = run_opt({"-d", d.path(), "-m", "force", "-s", "2", "--final"});
  EXPECT_EQ(r.status, 256 - 13);
  const std::string expected("merge failed for path=" + d.path() +
                             " rc=-13 wrc=-13 errno={N} file=" + d.file(bad) +
                             " hint=invalid magic]\n");
  EXPECT_TRUE(testutil::pattern_match(r.err, expected)) << r.err;
  EXPECT_EQ(testutil::tsidx_names(d.path()), sources);
  for (const std::string& s : sources) EXPECT_TRUE(exists(d.file(s + ".lock"))) << s;
  EXPECT_EQ(count_suffix(d.path(), ".merge"), 1);
  EXPECT_TRUE(exists(d.file("optimize.result")));
  EXPECT_EQ(file_size(d.file("optimize.result")), 0);
  EXPECT_FALSE(exists(d.path() + ".lock"));

  // The locked sources are left alone by the next run.
  r = run_opt({"-d", d.path(), "-m", "force", "-s", "2", "-v"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.err.find("less than 2 tsidx files in dir, (rc=-30"), std::string::npos) << r.err;
}

TEST(OptimizeRun, MergeFailureNamesPositionInSortedList) {
  testutil::TempDir d;
  std::string small = testutil::write_slice(d.path(), testutil::make_events(1, 2, 10, 100));
  std::string mid = testutil::write_slice(d.path(), testutil::make_events(2, 2, 20, 200));
  std::string large = testutil::write_slice(d.path(), testutil::make_events(3, 2, 30, 300));
  ASSERT_NE(large, "");
  // Sorted: small, mid (2 MiB), large (3 MiB). The small file is no partner
  // for mid, so the group is (mid, large); mid fails as group member 0, and
  // the report names position 0 of the sorted list, the small file.
  pad_to(d.file(mid), 2 * 1048576);
  pad_to(d.file(large), 3 * 1048576);
  corrupt_magic(d.file(mid));
  testutil::RunResult r = run_opt({"-d", d.path(), "-s", "2"});
  EXPECT_EQ(r.status, 256 - 13);
  const std::string expected("merge failed for path=" + d.path() +
                             " rc=-13 wrc=-13 errno={N} file=" + d.file(small) +
                             " hint=invalid magic]\n");
  EXPECT_TRUE(testutil::pattern_match(r.err, expected)) << r.err;
  EXPECT_FALSE(exists(d.file(small + ".lock")));
  EXPECT_TRUE(exists(d.file(mid + ".lock")));
  EXPECT_TRUE(exists(d.file(large + ".lock")));
}

TEST(OptimizeRun, IterationLimitStopsAfterOnePass) {
  testutil::TempDir d;
  auto all = fill_bucket(d.path(), 40, 1);
  testutil::RunResult r = run_opt({"-d", d.path(), "-i", "1", "-v"});
  EXPECT_EQ(r.status, 0);
  // 32 files merged into one, 8 left.
  EXPECT_EQ(testutil::tsidx_names(d.path()).size(), 9u);
  const std::string tail(
      "{*}optimize finished: files merged successfully, (rc=0 errno={N})\n"
      "tm={N} exiting tarnix-optimize process with rc=0\n");
  EXPECT_TRUE(testutil::pattern_match(r.err, tail)) << r.err;
  EXPECT_EQ(r.err.find("optimize finished"), r.err.rfind("optimize finished"));
  EXPECT_NE(r.err.find("source_31="), std::string::npos);
  EXPECT_EQ(r.err.find("source_32="), std::string::npos);
  EXPECT_EQ(all_postings(d.path()), testutil::postings_of(all));

  // Unlimited: the remaining nine form one group.
  r = run_opt({"-d", d.path()});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(testutil::tsidx_names(d.path()).size(), 1u);
  EXPECT_EQ(all_postings(d.path()), testutil::postings_of(all));
}

// The format checker reads the bucket with its own streaming reader, so a
// clean report is a check independent of the library that wrote the files.
void expect_bucket_sound(const std::string& dir) {
  testutil::RunResult r = testutil::run({testutil::bin("tarnix-check"), "-q", dir});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

TEST(OptimizeRun, FullRunOverManySlicesKeepsEveryPosting) {
  testutil::TempDir d;
  std::vector<testutil::event> all;
  for (uint32_t f = 0; f < 200; ++f) {
    auto ev =
        testutil::make_events(f, 1 + f % 5, 10 + f * 10, 2000 + static_cast<int32_t>(f % 37) * 50);
    ASSERT_NE(testutil::write_slice(d.path(), ev), "");
    all.insert(all.end(), ev.begin(), ev.end());
  }
  testutil::RunResult r = run_opt({"-d", d.path(), "-v", "-s", "2"});
  EXPECT_EQ(r.status, 0);
  std::vector<std::string> names = testutil::tsidx_names(d.path());
  EXPECT_LT(names.size(), 10u);
  EXPECT_GE(std::count(r.err.begin(), r.err.end(), '\n'), 8);
  EXPECT_EQ(all_postings(d.path()), testutil::postings_of(all));
  EXPECT_EQ(count_suffix(d.path(), ".lock"), 0);
  EXPECT_EQ(count_suffix(d.path(), ".merge"), 0);
  expect_bucket_sound(d.path());
}

// Starts a built program in the background with its output discarded.
pid_t spawn(const std::string& program, const std::vector<std::string>& args) {
  pid_t pid = fork();
  if (pid == 0) {
    int null_fd = open("/dev/null", O_WRONLY);
    dup2(null_fd, 1);
    dup2(null_fd, 2);
    setenv("OPTIMISTIC_ABOUT_FILE_LOCKING", "yes", 1);
    unsetenv("LOG_TARNIX_OPTIMIZE");
    std::string prog = program;
    std::vector<std::string> copy = args;
    std::vector<char*> argv;
    argv.push_back(prog.data());
    for (std::string& a : copy) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(prog.c_str(), argv.data());
    _exit(127);
  }
  return pid;
}

int wait_status(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST(OptimizeRun, TwoOptimizersAndAnIndexerShareOneBucket) {
  testutil::TempDir d;
  testutil::TempDir reference;
  fill_bucket(d.path(), 40, 3);
  fill_bucket(reference.path(), 40, 3);
  // The indexer's synthetic events depend on the seed alone, so the same
  // command on a bucket that nobody optimizes gives the expected postings.
  const std::vector<std::string> index_args = {"-q", "--generate",   "20000", "--seed",
                                               "7",  "--max-values", "150"};
  std::vector<std::string> args = {"-d", d.path()};
  args.insert(args.end(), index_args.begin(), index_args.end());
  pid_t indexer = spawn(testutil::bin("tarnix-index"), args);
  ASSERT_GT(indexer, 0);

  // Pairs of optimizers, one pair after the other, for as long as the
  // indexer is writing.
  int indexer_status = -1;
  for (int round = 0; round < 200 && indexer_status < 0; ++round) {
    pid_t first = spawn(kProgram, {"-d", d.path(), "-s", "2"});
    pid_t second = spawn(kProgram, {"-d", d.path(), "-s", "2", "-m", "force"});
    EXPECT_EQ(wait_status(first), 0);
    EXPECT_EQ(wait_status(second), 0);
    int status = 0;
    if (waitpid(indexer, &status, WNOHANG) == indexer) {
      indexer_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
  }
  if (indexer_status < 0) indexer_status = wait_status(indexer);
  EXPECT_EQ(indexer_status, 0);

  std::vector<std::string> ref_args = {"-d", reference.path()};
  ref_args.insert(ref_args.end(), index_args.begin(), index_args.end());
  EXPECT_EQ(wait_status(spawn(testutil::bin("tarnix-index"), ref_args)), 0);

  // A last run gathers what the indexer added after the others finished.
  EXPECT_EQ(run_opt({"-d", d.path(), "-s", "2"}).status, 0);
  EXPECT_LT(testutil::tsidx_names(d.path()).size(), testutil::tsidx_names(reference.path()).size());
  EXPECT_EQ(all_postings(d.path()), all_postings(reference.path()));
  EXPECT_EQ(count_suffix(d.path(), ".lock"), 0);
  EXPECT_EQ(count_suffix(d.path(), ".merge"), 0);
  EXPECT_EQ(count_suffix(d.path(), ".pre-tsidx"), 0);
  expect_bucket_sound(d.path());
}

}  // namespace
}  // namespace tarnix
