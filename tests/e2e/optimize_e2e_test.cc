// tarnix-optimize on real bucket directories: index files written through
// the directory handle, the program run as a separate process, and the
// result read back posting by posting.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "searchthing/tsidx.h"
#include "searchthing/warmslice.h"
#include "testutil/optimize_bucket.h"
#include "testutil/testutil.h"

namespace tarnix {
namespace {

using namespace testutil;

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
  for (const std::string& name : tsidx_names(dir)) {
    std::vector<posting> one;
    EXPECT_TRUE(read_postings(dir + "/" + name, &one)) << name;
    all.insert(all.end(), one.begin(), one.end());
  }
  std::sort(all.begin(), all.end());
  return all;
}

// Name and bytes of every index file in dir.
std::map<std::string, std::vector<uint8_t>> snapshot(const std::string& dir) {
  std::map<std::string, std::vector<uint8_t>> out;
  for (const std::string& name : tsidx_names(dir)) out[name] = read_file(dir + "/" + name);
  return out;
}

// A bucket with `files` slices of `values` values each; returns every event.
std::vector<event> fill_bucket(const std::string& dir, uint32_t files, uint32_t values) {
  std::vector<event> all;
  for (uint32_t f = 0; f < files; ++f) {
    auto ev = make_events(f + 1, values, 1 + f * values, 1000000 + static_cast<int32_t>(f) * 100);
    EXPECT_NE(write_slice(dir, ev), "");
    all.insert(all.end(), ev.begin(), ev.end());
  }
  return all;
}

// The log lines of a pass that fails with rc, and of a merge that fails on
// a file with a bad magic.
std::string failed_pass(const std::string& rc) {
  return "tm={N} optimize finished: failed, see rc for more details, (rc=" + rc + " errno={N})\n" +
         "tm={N} exiting tarnix-optimize process with rc=" + rc + "\n";
}
std::string bad_magic(const std::string& dir, const std::string& file) {
  return "merge failed for path=" + dir + " rc=-13 wrc=-13 errno={N} file=" + file + " hint=invalid magic]\n";
}

// No lock, intermediate or unfinished file left, and tarnix-check (its own
// streaming reader, independent of the library) finds the bucket sound.
void expect_bucket_clean(const std::string& dir) {
  for (const char* suffix : {".lock", ".merge", ".pre-tsidx"}) EXPECT_EQ(names_ending(dir, suffix).size(), 0u);
  RunResult r = run_bin("tarnix-check", {"-q", dir});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

TEST(OptimizeRun, OneFileIsNothingToDo) {
  TempDir d;
  ASSERT_NE(write_slice(d.path(), make_events(1, 5, 100, 1000)), "");
  auto before = tsidx_names(d.path());
  RunResult r = run_optimize({"-d", d.path(), "-v"});
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(pattern_match(r.err, start_pattern(d.path(), kDefaultSettings) + kNothingToDoPattern)) << r.err;
  EXPECT_EQ(tsidx_names(d.path()), before);
  // The directory lock, taken for the pass, is gone with it.
  EXPECT_FALSE(exists(d.path() + ".lock"));
}

TEST(OptimizeRun, UnusableDirectoryFails) {
  TempDir d;
  // Without the environment's blessing the file system of a missing path is
  // unknown, so the directory lock fails.
  const std::string missing = d.file("missing");
  RunResult r =
      run_optimize({"-d", missing, "-v", "--final"}, {"OPTIMISTIC_ABOUT_FILE_LOCKING", "LOG_TARNIX_OPTIMIZE"});
  EXPECT_EQ(r.status, 227);
  const std::string settings =
      "mode=0 verbose=true isfinal=true max_iteration=2147483647 min_src_count=8 lex_tpb=64";
  EXPECT_TRUE(pattern_match(r.err, start_pattern(missing, settings) + failed_pass("-29"))) << r.err;
  EXPECT_EQ(list_dir(d.path()), std::vector<std::string>{});

  // A regular file cannot be listed; neither a status file nor a lock is left.
  const std::string file = d.file("not-a-dir");
  write_file(file, {'x'});
  r = run_optimize({"-d", file, "-v", "--final"});
  EXPECT_EQ(r.status, 255);
  EXPECT_TRUE(pattern_match(r.err, "{*}" + failed_pass("-1"))) << r.err;
  EXPECT_EQ(list_dir(d.path()), std::vector<std::string>{"not-a-dir"});
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
    TempDir d;
    auto all = fill_bucket(d.path(), 3, 2);
    RunResult r = run_optimize({"-d", d.path(), "-s", "2", "-i", "1", "-x", c.limit});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(tsidx_names(d.path()).size(), c.files_left);
    EXPECT_EQ(all_postings(d.path()), postings_of(all));
  }
}

TEST(OptimizeRun, MergesGroupIntoFreshNameAndRemovesSources) {
  TempDir d;
  std::vector<event> all;
  for (int32_t f = 0; f < 3; ++f) {
    auto ev = make_events(10 + f, 4 + f, 100 * (f + 1), 5000 + 1000 * f);
    ASSERT_NE(write_slice(d.path(), ev), "");
    all.insert(all.end(), ev.begin(), ev.end());
  }
  int32_t latest = INT32_MIN, earliest = INT32_MAX;
  std::vector<uint64_t> ids;
  for (const std::string& name : tsidx_names(d.path())) {
    name_parts p = parse(name);
    latest = std::max(latest, p.latest);
    earliest = std::min(earliest, p.earliest);
    ids.push_back(p.id);
  }
  write_file(d.file("tarnix-need-optimize.dat"), {});

  RunResult r = run_optimize({"-d", d.path(), "-s", "2"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  std::vector<std::string> names = list_dir(d.path());
  ASSERT_EQ(names.size(), 1u) << ::testing::PrintToString(names);
  name_parts p = parse(names[0]);
  EXPECT_EQ(p.latest, latest);
  EXPECT_EQ(p.earliest, earliest);
  EXPECT_EQ(std::count(ids.begin(), ids.end(), p.id), 0);
  EXPECT_EQ(all_postings(d.path()), postings_of(all));
  EXPECT_FALSE(exists(d.path() + ".lock"));
}

TEST(OptimizeRun, VerboseLogOfOneMerge) {
  TempDir d;
  const std::string small = write_slice(d.path(), make_events(1, 2, 10, 700));
  const std::string big = write_slice(d.path(), make_events(2, 20, 100, 900));
  ASSERT_NE(small, "");
  ASSERT_NE(big, "");
  ASSERT_LT(file_size(d.file(small)), file_size(d.file(big)));
  name_parts a = parse(small), b = parse(big);
  auto str = [](auto v) { return std::to_string(v); };
  const std::string dir = d.path() + "/", small_sz = str(file_size(dir + small)), big_sz = str(file_size(dir + big));

  RunResult r = run_optimize({"-d", d.path(), "-v", "-s", "2", "-b", "16"});
  EXPECT_EQ(r.status, 0);
  const std::string expected =
      start_pattern(d.path(),
                    "mode=0 verbose=true isfinal=false max_iteration=2147483647 min_src_count=2 lex_tpb=16") +
      "tm={N} source_0=" + dir + small + " sz=" + small_sz + "\n" +
      "tm={N} source_1=" + dir + big + " sz=" + big_sz + "\n" +
      // Earliest values first, then the latest values.
      "tm={N} intermediate=" + dir + str(a.earliest) + ":" + str(b.earliest) + ":" + str(a.id) + "-" +
      str(a.latest) + ":" + str(b.latest) + ":" + str(b.id) + "-{N}.merge\n" +
      "tm={N} target=" + dir + str(std::max(a.latest, b.latest)) + "-" + str(std::min(a.earliest, b.earliest)) +
      "-{N}.tsidx\n" + "tm={N} optimize finished: files merged successfully, (rc=0 errno={N})\n" +
      kNothingToDoPattern;
  EXPECT_TRUE(pattern_match(r.err, expected)) << r.err;
}

TEST(OptimizeRun, SkipsEmptyLockedAndOversizedFiles) {
  TempDir d;
  std::vector<std::vector<event>> ev;
  std::vector<std::string> name;
  for (uint32_t k = 1; k <= 4; ++k) {
    ev.push_back(make_events(k, 3, 10 * k, 100 * static_cast<int32_t>(k)));
    name.push_back(write_slice(d.path(), ev.back()));
    ASSERT_NE(name.back(), "");
  }
  const std::string locked = name[2], oversized = name[3], empty = "500-100-77.tsidx";
  write_file(d.file(locked + ".lock"), {'1'});
  // 750 MiB is the largest candidate outside mode all; sparse, so cheap.
  pad_to(d.file(oversized), 786432001);
  write_file(d.file(empty), {});
  // The one file that is none of the above holds exactly `want`.
  auto expect_merged = [&](const std::vector<std::string>& names, std::vector<event> want) {
    std::string merged;
    for (const std::string& n : names) {
      if (n != locked && n != oversized && n != empty) merged = n;
    }
    std::vector<posting> got;
    ASSERT_TRUE(read_postings(d.file(merged), &got));
    EXPECT_EQ(got, postings_of(want));
  };

  RunResult r = run_optimize({"-d", d.path(), "-m", "force", "-s", "2"});
  EXPECT_EQ(r.status, 0) << r.err;
  std::vector<std::string> names = tsidx_names(d.path());
  ASSERT_EQ(names.size(), 4u) << ::testing::PrintToString(names);
  EXPECT_TRUE(exists(d.file(locked)));
  EXPECT_TRUE(exists(d.file(locked + ".lock")));
  EXPECT_EQ(file_size(d.file(oversized)), 786432001);
  EXPECT_EQ(file_size(d.file(empty)), 0);
  std::vector<event> want = ev[0];
  want.insert(want.end(), ev[1].begin(), ev[1].end());
  expect_merged(names, want);

  // Again in force mode: the merged file is the only candidate.
  EXPECT_EQ(run_optimize({"-d", d.path(), "-m", "force", "-s", "2"}).status, 0);
  EXPECT_EQ(tsidx_names(d.path()), names);

  // Mode all takes the oversized file too.
  r = run_optimize({"-d", d.path(), "-m", "all", "-s", "2"});
  EXPECT_EQ(r.status, 0) << r.err;
  names = tsidx_names(d.path());
  ASSERT_EQ(names.size(), 3u) << ::testing::PrintToString(names);
  EXPECT_FALSE(exists(d.file(oversized)));
  want.insert(want.end(), ev[3].begin(), ev[3].end());
  expect_merged(names, want);
}

TEST(OptimizeRun, MergeFailureLeavesIntermediateAndLocks) {
  TempDir d;
  fill_bucket(d.path(), 3, 4);
  std::vector<std::string> sources = tsidx_names(d.path());
  // The largest one is last in the group.
  std::string bad = sources[0];
  for (const std::string& s : sources) {
    if (file_size(d.file(s)) > file_size(d.file(bad))) bad = s;
  }
  pad_to(d.file(bad), file_size(d.file(bad)) + 4096);
  corrupt_magic(d.file(bad));

  // Silent run, but the failure is still reported; --final still leaves
  // the status file.
  RunResult r = run_optimize({"-d", d.path(), "-m", "force", "-s", "2", "--final"});
  EXPECT_EQ(r.status, 256 - 13);
  EXPECT_TRUE(pattern_match(r.err, bad_magic(d.path(), d.file(bad)))) << r.err;
  EXPECT_EQ(tsidx_names(d.path()), sources);
  for (const std::string& s : sources) EXPECT_TRUE(exists(d.file(s + ".lock"))) << s;
  EXPECT_EQ(names_ending(d.path(), ".merge").size(), 1u);
  EXPECT_EQ(file_size(d.file("optimize.result")), 0);
  EXPECT_FALSE(exists(d.path() + ".lock"));

  // The locked sources are left alone by the next run.
  r = run_optimize({"-d", d.path(), "-m", "force", "-s", "2", "-v"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.err.find("less than 2 tsidx files in dir, (rc=-30"), std::string::npos) << r.err;
}

TEST(OptimizeRun, MergeFailureNamesPositionInSortedList) {
  TempDir d;
  std::string small = write_slice(d.path(), make_events(1, 2, 10, 100));
  std::string mid = write_slice(d.path(), make_events(2, 2, 20, 200));
  std::string large = write_slice(d.path(), make_events(3, 2, 30, 300));
  ASSERT_NE(large, "");
  // Sorted: small, mid (2 MiB), large (3 MiB). The small file is no partner
  // for mid, so the group is (mid, large); mid fails as group member 0, and
  // the report names position 0 of the sorted list, the small file.
  pad_to(d.file(mid), 2 * 1048576);
  pad_to(d.file(large), 3 * 1048576);
  corrupt_magic(d.file(mid));
  RunResult r = run_optimize({"-d", d.path(), "-s", "2"});
  EXPECT_EQ(r.status, 256 - 13);
  EXPECT_TRUE(pattern_match(r.err, bad_magic(d.path(), d.file(small)))) << r.err;
  EXPECT_FALSE(exists(d.file(small + ".lock")));
  EXPECT_TRUE(exists(d.file(mid + ".lock")));
  EXPECT_TRUE(exists(d.file(large + ".lock")));
}

// The process's own limits, as a shell's ulimit sets them for it.
// Descriptors run out while the sources are opened: the pass gives back
// every lock it took and leaves nothing behind. The file-size limit makes
// the merge's writes fail: that is a failed merge like any other (sources
// locked, intermediate kept), where no source is to blame.
TEST(OptimizeRun, ProcessLimitsFailThePass) {
  struct Case {
    const char* limit;
    int status;
    const char* err;   // pattern, "" for nothing; DIR stands for the bucket
    bool sources_locked;
  } cases[] = {
      {"ulimit -n 12", 256 - 4, "", false},
      {"trap '' XFSZ; ulimit -f 1", 256 - 9,
       "merge failed for path=DIR rc=-9 wrc=-9 errno=27 file=dontknow hint=]\n", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.limit);
    TempDir d;
    auto all = fill_bucket(d.path(), 32, 3);
    const auto sources = snapshot(d.path());

    RunResult r = run({"/bin/sh", "-c", std::string(c.limit) + "; exec \"$0\" \"$@\"", bin("tarnix-optimize"),
                       "-d", d.path(), "-m", "all"},
                      kOptimizeEnv);
    EXPECT_EQ(r.status, c.status) << r.err;
    std::string want = c.err;
    if (const size_t at = want.find("DIR"); at != std::string::npos) want.replace(at, 3, d.path());
    EXPECT_TRUE(pattern_match(r.err, want)) << r.err;

    EXPECT_TRUE(snapshot(d.path()) == sources);
    EXPECT_EQ(names_ending(d.path(), ".lock").size(), c.sources_locked ? sources.size() : 0u);
    EXPECT_EQ(names_ending(d.path(), ".merge").size(), c.sources_locked ? 1u : 0u);
    EXPECT_FALSE(exists(d.path() + ".lock"));
    if (c.sources_locked) continue;

    // Nothing is held, so the next run merges everything.
    r = run_optimize({"-d", d.path(), "-m", "all"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(tsidx_names(d.path()).size(), 1u);
    EXPECT_EQ(all_postings(d.path()), postings_of(all));
    expect_bucket_clean(d.path());
  }
}

// System calls made to fail inside tarnix-optimize (tests/preload): every
// way a pass can end after it took locks, and what it must leave. Nothing
// may stay locked unless the merge itself failed, the sources are never
// touched, and an intermediate stays once it was written.
TEST(OptimizeRun, FailedCallsEndThePassCleanly) {
  TempDir scratch;
  const std::string dir_lock = scratch.file("bucket.lock");
  struct Case {
    const char* what;
    std::string fault;    // NAME=value for the preloaded library
    int status;
    bool intermediate_left;
    const char* log;      // a line the verbose log must hold
  } cases[] = {
      {"every link fails", "TARNIX_FAIL_LINK=18", 256 - 35, true,
       "ERROR failed to move intermediate="},
      {"closing the intermediate fails", "TARNIX_FAIL_CLOSE=.merge:5", 256 - 11, true,
       "(rc=-11 errno=5)"},
      {"the first source lock fails", "TARNIX_FAIL_OPEN=.tsidx.lock:0:0:13", 256 - 29, false,
       "(rc=-29 errno=13)"},
      {"the fourth source lock fails", "TARNIX_FAIL_OPEN=.tsidx.lock:3:0:13", 256 - 29, false,
       "source_3="},
      {"the directory lock fails after the merge", "TARNIX_FAIL_OPEN=" + dir_lock + ":1:0:13", 256 - 29, true,
       "(rc=-29 errno=13)"},
      {"the third source cannot be opened", "TARNIX_FAIL_OPEN=.tsidx:2:1:13", 256 - 4, false,
       "(rc=-4 errno=13)"},
      {"the intermediate cannot be created", "TARNIX_FAIL_OPEN=.merge:0:1:13", 256 - 4, false,
       "(rc=-4 errno=13)"},
      {"a source is locked by somebody for a moment", "TARNIX_FAIL_OPEN=.tsidx.lock:2:1:17", 0, false,
       "optimize finished: files merged successfully"},
  };
  const char* asan = getenv("ASAN_OPTIONS");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string dir = scratch.file("bucket");
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    auto all = fill_bucket(dir, 8, 3);
    const auto sources = snapshot(dir);

    std::vector<std::string> env = kOptimizeEnv;
    env.push_back("LD_PRELOAD=" + bin("libfailcalls.so"));
    env.push_back(c.fault);
    // The sanitizers' runtime wants to be loaded first.
    env.push_back(std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") + ":verify_asan_link_order=0");
    const auto start = std::chrono::steady_clock::now();
    RunResult r = run_optimize({"-d", dir, "-m", "all", "-v"}, env);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_NE(r.err.find(c.log), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("merge failed"), std::string::npos) << r.err;
    EXPECT_EQ(names_ending(dir, ".lock").size(), 0u);
    EXPECT_FALSE(exists(dir_lock));
    EXPECT_EQ(names_ending(dir, ".merge").size(), c.intermediate_left ? 1u : 0u);
    if (c.status == 0) {
      // The lock that seemed taken was tried again half a second later.
      EXPECT_GE(waited, std::chrono::milliseconds(500));
    } else {
      EXPECT_TRUE(snapshot(dir) == sources);
      r = run_optimize({"-d", dir, "-m", "all"});
      EXPECT_EQ(r.status, 0) << r.err;
    }
    EXPECT_EQ(tsidx_names(dir).size(), 1u);
    EXPECT_EQ(all_postings(dir), postings_of(all));
    remove_tree(dir);
  }
}

// A disk that fails to read the sources (EIO) at any point of a pass, for
// good or just once. A merge that meets the error fails with its code and
// the system's reason, keeps every source as it was (locked, beside an
// intermediate that is not a valid file); one that does not meet it (a read
// whose failure only moves where the posting merge is split) makes the very
// bytes of an undisturbed run. Either way no event is lost or doubled.
TEST(OptimizeRun, ReadErrorsInTheSourcesLoseNothing) {
  TempDir scratch;
  const std::string model = scratch.file("model");
  ASSERT_EQ(mkdir(model.c_str(), 0755), 0);
  const std::vector<event> all = fill_bucket(model, 8, 40);
  const auto sources = snapshot(model);
  const std::string clean = scratch.file("clean");
  ASSERT_EQ(mkdir(clean.c_str(), 0755), 0);
  for (const auto& [name, bytes] : sources) write_file(clean + "/" + name, bytes);
  RunResult r = run_optimize({"-d", clean, "-m", "all"});
  ASSERT_EQ(r.status, 0) << r.err;
  ASSERT_EQ(tsidx_names(clean).size(), 1u);
  const std::vector<uint8_t> merged = read_file(clean + "/" + tsidx_names(clean)[0]);

  const char* asan = getenv("ASAN_OPTIONS");
  std::set<std::string> hints;
  int reads = 20000;  // more than a pass makes, until the first sweep ends
  for (const int failures : {0, 1}) {  // 0: every read from the K-th on
    int failed = 0;
    bool done = false;
    for (int k = 0; !done && k <= reads; k += 1 + k / 8) {
      SCOPED_TRACE("failures " + std::to_string(failures) + " after " + std::to_string(k) + " reads");
      const std::string dir = scratch.file("bucket");
      ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
      for (const auto& [name, bytes] : sources) write_file(dir + "/" + name, bytes);
      std::vector<std::string> env = kOptimizeEnv;
      env.push_back("LD_PRELOAD=" + bin("libfailcalls.so"));
      env.push_back("TARNIX_FAIL_PREAD=.tsidx:" + std::to_string(k) + ":" + std::to_string(failures) + ":5");
      env.push_back(std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") + ":verify_asan_link_order=0");
      r = run_optimize({"-d", dir, "-m", "all"}, env);
      if (r.status == 0) {
        // With failures = 0 the run made at most k reads: the sweep ends.
        if (failures == 0) {
          done = true;
          reads = k;
        }
        EXPECT_EQ(r.err, "");
        const std::vector<std::string> names = tsidx_names(dir);
        ASSERT_EQ(names.size(), 1u);
        EXPECT_TRUE(read_file(dir + "/" + names[0]) == merged);
        expect_bucket_clean(dir);
      } else {
        ++failed;
        const std::string head = "merge failed for path=" + dir + " rc=";
        const size_t at = r.err.find(head);
        ASSERT_NE(at, std::string::npos) << r.err;
        EXPECT_EQ(atoi(r.err.c_str() + at + head.size()) & 0xff, r.status) << r.err;
        EXPECT_NE(r.err.find(" errno=5 ", at), std::string::npos) << r.err;
        const size_t hint = r.err.find("hint=", at);
        ASSERT_NE(hint, std::string::npos) << r.err;
        hints.insert(r.err.substr(hint, r.err.find(']', hint) - hint));
        EXPECT_TRUE(snapshot(dir) == sources);
        EXPECT_EQ(names_ending(dir, ".tsidx.lock").size(), sources.size());
        const std::vector<std::string> left = names_ending(dir, ".merge");
        ASSERT_EQ(left.size(), 1u);
        const std::vector<uint8_t> head_bytes = read_file(dir + "/" + left[0]);
        EXPECT_TRUE(head_bytes.size() < 8 || memcmp(head_bytes.data(), "Tarnix", 6) != 0);
      }
      EXPECT_EQ(all_postings(dir), postings_of(all));
      remove_tree(dir);
    }
    EXPECT_TRUE(done || failures == 1);
    EXPECT_GE(failed, 10);
  }
  // The error was met in each phase of the merge: headers, values and
  // columns, lexicon, metadata and posting lists.
  EXPECT_GE(hints.size(), 5u) << ::testing::PrintToString(hints);
}

// Memory that cannot be had, once or from some allocation on, anywhere in a
// run: the run ends with a code (never an abort), no event is lost or
// doubled at any moment, and once the locks a failed merge keeps are
// lifted a run with memory enough gives the bytes of an undisturbed one.
TEST(OptimizeRun, MemoryThatRunsOutLosesNothing) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer's allocator cannot be replaced by the failing one";
#endif
  TempDir scratch;
  const std::string model = scratch.file("model");
  ASSERT_EQ(mkdir(model.c_str(), 0755), 0);
  const std::vector<event> all = fill_bucket(model, 10, 40);
  const auto sources = snapshot(model);
  RunResult r = run_optimize({"-d", model, "-m", "all"});
  ASSERT_EQ(r.status, 0) << r.err;
  ASSERT_EQ(tsidx_names(model).size(), 1u);
  const std::vector<uint8_t> merged = read_file(model + "/" + tsidx_names(model)[0]);

  for (const int failures : {1, 0}) {  // 0: every allocation from the K-th on
    int failed_merges = 0;
    bool all_done = false;
    for (int k = 0; k <= 4000 && !all_done; k += 1 + k / 16) {
      SCOPED_TRACE("failures " + std::to_string(failures) + " after " + std::to_string(k) + " allocations");
      const std::string dir = scratch.file("bucket");
      ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
      for (const auto& [name, bytes] : sources) write_file(dir + "/" + name, bytes);
      std::vector<std::string> env = kOptimizeEnv;
      env.push_back("LD_PRELOAD=" + bin("libfailalloc.so"));
      env.push_back("TARNIX_FAIL_MALLOC=.tsidx:" + std::to_string(k) + ":" + std::to_string(failures));
      r = run_optimize({"-d", dir, "-m", "all"}, env);
      // 254: a merge (or a later listing) without memory; 255: the listing
      // of a later pass, which finds nothing left to merge, without it.
      EXPECT_TRUE(r.status == 0 || r.status == 254 || r.status == 255) << r.status << " " << r.err;
      EXPECT_EQ(all_postings(dir), postings_of(all));
      if (r.err.find("merge failed for path=" + dir + " rc=-2 wrc=-2 errno=12 ") != std::string::npos) {
        ++failed_merges;
        EXPECT_TRUE(snapshot(dir) == sources);
      }
      if (failures == 0 && r.status == 0) all_done = true;  // no allocation failed: the sweep is through
      for (const char* left : {".lock", ".merge"})
        for (const std::string& name : names_ending(dir, left)) ASSERT_EQ(unlink((dir + "/" + name).c_str()), 0);
      ASSERT_EQ(run_optimize({"-d", dir, "-m", "all"}).status, 0);
      ASSERT_EQ(tsidx_names(dir).size(), 1u);
      EXPECT_TRUE(read_file(dir + "/" + tsidx_names(dir)[0]) == merged);
      remove_tree(dir);
    }
    EXPECT_TRUE(all_done || failures == 1);
    EXPECT_GE(failed_merges, 10);
  }
}

// A source that cannot be removed once its merge is in place keeps its
// lock, so that later passes neither merge its events a second time nor
// take it again and again; the run ends and says which file it is.
TEST(OptimizeRun, SourceThatCannotBeRemovedStaysLocked) {
  for (const bool tstats : {false, true}) {
    SCOPED_TRACE(tstats ? "--tstats" : "without --tstats");
    TempDir d;
    auto all = fill_bucket(d.path(), 4, 3);
    const auto sources = snapshot(d.path());
    const std::string stuck = tsidx_names(d.path())[1];

    std::vector<std::string> env = kOptimizeEnv;
    env.push_back("LD_PRELOAD=" + bin("libfailcalls.so"));
    env.push_back("TARNIX_FAIL_UNLINK=/" + stuck + ":1");
    const char* asan = getenv("ASAN_OPTIONS");
    env.push_back(std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") + ":verify_asan_link_order=0");
    std::vector<std::string> args = {"-d", d.path(), "-m", "all", "-s", "2", "-i", "5"};
    if (tstats) args.push_back("--tstats");
    RunResult r = run_optimize(args, env);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "remove failed for path=" + d.file(stuck) +
                         " errno=1: its events are also in the merged file; it stays locked\n");
    // The merged file and the stuck source, as it was and locked; no other
    // lock, and the merged file holds every event once.
    const std::vector<std::string> names = tsidx_names(d.path());
    ASSERT_EQ(names.size(), 2u);
    EXPECT_EQ(names_ending(d.path(), ".lock"), std::vector<std::string>{stuck + ".lock"});
    EXPECT_EQ(read_file(d.file(stuck)), sources.at(stuck));
    const std::string merged = names[0] == stuck ? names[1] : names[0];
    std::vector<posting> got;
    ASSERT_TRUE(read_postings(d.file(merged), &got));
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, postings_of(all));
  }
}

// One merged file holding every event once, and a clean bucket.
void expect_merged_once(const std::string& dir, const std::vector<event>& all) {
  const std::vector<std::string> names = tsidx_names(dir);
  ASSERT_EQ(names.size(), 1u);
  expect_bucket_clean(dir);
  std::vector<posting> got;
  ASSERT_TRUE(read_postings(dir + "/" + names[0], &got));
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, postings_of(all));
}

// A signal that arrives once the merged file is in place waits until the
// sources and every lock are gone: the run ends by the signal after its
// first pass, with every event in the bucket once.
TEST(OptimizeRun, StopRequestDuringTheCommitWaitsForIt) {
  for (const int sig : {SIGTERM, SIGINT, SIGHUP, SIGPIPE, SIGUSR1, SIGIO, SIGRTMIN}) {
    SCOPED_TRACE(strsignal(sig));
    TempDir d;
    auto all = fill_bucket(d.path(), 4, 3);
    std::vector<std::string> env = kOptimizeEnv;
    env.push_back("LD_PRELOAD=" + bin("libfailcalls.so"));
    env.push_back("TARNIX_SIGNAL_AT_LINK=" + std::to_string(sig));
    const char* asan = getenv("ASAN_OPTIONS");
    env.push_back(std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") + ":verify_asan_link_order=0");
    RunResult r = run_optimize({"-d", d.path(), "-m", "all", "-s", "2", "-i", "5"}, env);
    // A broken pipe is ignored; the others end the run once its pass is done.
    EXPECT_EQ(r.status, sig == SIGPIPE ? 0 : 128 + sig) << r.err;
    expect_merged_once(d.path(), all);
  }
}

// Logging into a pipe nobody reads, or under a limit on file sizes, fails
// those writes; it does not end the run (nor, in the middle of a commit,
// leave the merged file beside its sources).
TEST(OptimizeRun, LogWithoutReaderDoesNotStopTheRun) {
  TempDir d;
  auto all = fill_bucket(d.path(), 4, 3);
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  close(p[0]);
  const std::string prog = bin("tarnix-optimize");
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    dup2(p[1], 2);
    setenv("OPTIMISTIC_ABOUT_FILE_LOCKING", "1", 1);
    execl(prog.c_str(), prog.c_str(), "-d", d.path().c_str(), "-m", "all", "-v", static_cast<char*>(nullptr));
    _exit(127);
  }
  close(p[1]);
  EXPECT_EQ(wait_status(pid), 0);
  expect_merged_once(d.path(), all);
}

// The same events indexed twice: without --tstats each twin pair becomes
// one value of the merged file, with it both stay.
TEST(OptimizeRun, TstatsKeepsTwinValuesApart) {
  for (bool tstats : {false, true}) {
    SCOPED_TRACE(tstats ? "--tstats" : "without --tstats");
    TempDir d;
    const auto ev = make_events(5, 40, 100, 7000);
    ASSERT_NE(write_slice(d.path(), ev), "");
    ASSERT_NE(write_slice(d.path(), ev), "");
    std::vector<std::string> args = {"-d", d.path(), "-m", "all"};
    if (tstats) args.push_back("--tstats");
    RunResult r = run_optimize(args);
    ASSERT_EQ(r.status, 0) << r.err;
    const std::vector<std::string> names = tsidx_names(d.path());
    ASSERT_EQ(names.size(), 1u);
    wrc w{};
    warm* h = st_warm_slice_open(d.file(names[0]).c_str(), 0, &w);
    ASSERT_NE(h, nullptr) << w.message;
    EXPECT_EQ(st_warm_slice_values(h), tstats ? 80u : 40u);
    st_warm_slice_close(h);
  }
}

// The program installs its crash reporting before anything else: a merge
// that meets a broken invariant (terms per block 0, which the command line
// lets through) leaves a report in TARNIX_HOME.
TEST(OptimizeRun, AbortLeavesACrashReport) {
  TempDir d;
  const std::string bucket = d.file("bucket"), logs = d.file("home/var/log/tarnix");
  ASSERT_EQ(mkdir(bucket.c_str(), 0755), 0);
  ASSERT_EQ(system(("mkdir -p '" + logs + "'").c_str()), 0);
  fill_bucket(bucket, 2, 3);
  std::vector<std::string> env = kOptimizeEnv;
  env.push_back("TARNIX_HOME=" + d.file("home"));
  RunResult r = run_optimize({"-d", bucket, "-m", "all", "-b", "0"}, env);
  EXPECT_EQ(r.status, 128 + SIGABRT) << r.err;
  EXPECT_NE(r.err.find("Assertion `tperb > 0' failed."), std::string::npos) << r.err;
  const std::vector<std::string> reports = names_ending(logs, ".log");
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].rfind("crash-", 0), 0u);
  EXPECT_NE(read_text(logs + "/" + reports[0]).find("Received fatal signal 6 (Aborted).\n"), std::string::npos);
}

TEST(OptimizeRun, IterationLimitStopsAfterOnePass) {
  TempDir d;
  auto all = fill_bucket(d.path(), 40, 1);
  RunResult r = run_optimize({"-d", d.path(), "-i", "1", "-v"});
  EXPECT_EQ(r.status, 0);
  // 32 files merged into one, 8 left.
  EXPECT_EQ(tsidx_names(d.path()).size(), 9u);
  EXPECT_TRUE(pattern_match(r.err,
                            "{*}optimize finished: files merged successfully, (rc=0 errno={N})\n"
                            "tm={N} exiting tarnix-optimize process with rc=0\n"))
      << r.err;
  EXPECT_EQ(r.err.find("optimize finished"), r.err.rfind("optimize finished"));
  EXPECT_NE(r.err.find("source_31="), std::string::npos);
  EXPECT_EQ(r.err.find("source_32="), std::string::npos);
  EXPECT_EQ(all_postings(d.path()), postings_of(all));

  // Unlimited: the remaining nine form one group.
  EXPECT_EQ(run_optimize({"-d", d.path()}).status, 0);
  EXPECT_EQ(tsidx_names(d.path()).size(), 1u);
  EXPECT_EQ(all_postings(d.path()), postings_of(all));
}

TEST(OptimizeRun, FullRunOverManySlicesKeepsEveryPosting) {
  TempDir d;
  std::vector<event> all;
  for (uint32_t f = 0; f < 200; ++f) {
    auto ev = make_events(f, 1 + f % 5, 10 + f * 10, 2000 + static_cast<int32_t>(f % 37) * 50);
    ASSERT_NE(write_slice(d.path(), ev), "");
    all.insert(all.end(), ev.begin(), ev.end());
  }
  RunResult r = run_optimize({"-d", d.path(), "-v", "-s", "2"});
  EXPECT_EQ(r.status, 0);
  EXPECT_LT(tsidx_names(d.path()).size(), 10u);
  EXPECT_GE(std::count(r.err.begin(), r.err.end(), '\n'), 8);
  EXPECT_EQ(all_postings(d.path()), postings_of(all));
  expect_bucket_clean(d.path());
}

TEST(OptimizeRun, TwoOptimizersAndAnIndexerShareOneBucket) {
  TempDir d, reference;
  fill_bucket(d.path(), 40, 3);
  fill_bucket(reference.path(), 40, 3);
  // The indexer's synthetic events depend on the seed alone, so the same
  // command on a bucket that nobody optimizes gives the expected postings.
  auto index_args = [](const std::string& dir) {
    return std::vector<std::string>{"-d", dir, "-q", "--generate", "20000", "--seed", "7", "--max-values", "150"};
  };
  const std::vector<std::string> env = {"OPTIMISTIC_ABOUT_FILE_LOCKING=yes", "LOG_TARNIX_OPTIMIZE"};
  pid_t indexer = spawn_bin("tarnix-index", index_args(d.path()), env);
  ASSERT_GT(indexer, 0);

  // Pairs of optimizers, one pair after the other, for as long as the
  // indexer is writing.
  int indexer_status = -1;
  for (int round = 0; round < 200 && indexer_status < 0; ++round) {
    pid_t first = spawn_bin("tarnix-optimize", {"-d", d.path(), "-s", "2"}, env);
    pid_t second = spawn_bin("tarnix-optimize", {"-d", d.path(), "-s", "2", "-m", "force"}, env);
    EXPECT_EQ(wait_status(first), 0);
    EXPECT_EQ(wait_status(second), 0);
    int status = 0;
    if (waitpid(indexer, &status, WNOHANG) == indexer) {
      indexer_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
  }
  if (indexer_status < 0) indexer_status = wait_status(indexer);
  EXPECT_EQ(indexer_status, 0);
  EXPECT_EQ(run_bin("tarnix-index", index_args(reference.path())).status, 0);

  // A last run gathers what the indexer added after the others finished.
  EXPECT_EQ(run_optimize({"-d", d.path(), "-s", "2"}).status, 0);
  EXPECT_LT(tsidx_names(d.path()).size(), tsidx_names(reference.path()).size());
  EXPECT_EQ(all_postings(d.path()), all_postings(reference.path()));
  expect_bucket_clean(d.path());
}

}  // namespace
}  // namespace tarnix
