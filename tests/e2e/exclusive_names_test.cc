// A new index file never takes the name of a file that is already there.
// Names are unique by the clock and a random number; with both pinned by the
// preloaded library (TARNIX_FIXED_TIME) the name a program will choose is
// known, and the test puts a file of its own there first.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "searchthing/tsidx.h"
#include "testutil/optimize_bucket.h"
#include "testutil/testutil.h"

namespace {

using namespace testutil;

// The id every name gets at 1000 seconds with a random part of 0.
const std::string kId = std::to_string((1000ull * 1000000u) << 16);
const std::string kJunk = "somebody else's file\n";

std::vector<std::string> pinned_env(std::vector<std::string> env = {}) {
  env.push_back("LD_PRELOAD=" + bin("libfailcalls.so"));
  env.push_back("TARNIX_FIXED_TIME=1000");
  // The sanitizers' runtime wants to be loaded first.
  const char* asan = getenv("ASAN_OPTIONS");
  env.push_back(std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") + ":verify_asan_link_order=0");
  return env;
}

void put_text(const std::string& path, const std::string& text) {
  write_file(path, std::vector<uint8_t>(text.begin(), text.end()));
}

// An indexer's flush: the file it writes first, and the name it moves that
// file to, are both taken. Nothing is overwritten, the run says so, and in
// the second case the written file keeps the events.
TEST(ExclusiveNames, IndexerNeverOverwrites) {
  struct Case {
    const char* taken;      // suffix of the name put there first
    const char* message;    // the indexer's error
    const char* left;       // what the indexer leaves beside it ("" for nothing)
  } cases[] = {
      {".pre-tsidx", "failed: WS_EOPEN (File exists)", ""},
      {".tsidx", "failed: ST_EMOVE (File exists)", ".pre-tsidx"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.taken);
    TempDir d;
    const std::string stem = "100-100-" + kId;
    put_text(d.file(stem + c.taken), kJunk);
    RunResult r = run_bin("tarnix-index", {"-d", d.path()}, pinned_env(), "100\t1\t1\t1\t1\t1\tfoo bar\n");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    EXPECT_EQ(read_text(d.file(stem + c.taken)), kJunk);
    if (*c.left != '\0') {
      std::vector<posting> kept;
      ASSERT_TRUE(read_postings(d.file(stem + c.left), &kept));
      EXPECT_EQ(kept, postings_of({{"bar", 100, 1}, {"foo", 100, 1}}));
    }
    std::vector<std::string> expected = {stem + c.taken};
    if (*c.left != '\0') expected.push_back(stem + c.left);
    std::sort(expected.begin(), expected.end());
    std::vector<std::string> index_files;
    for (const std::string& n : list_dir(d.path())) {
      if (n.find("tsidx") != std::string::npos) index_files.push_back(n);
    }
    EXPECT_EQ(index_files, expected);
  }
}

// The optimizer's merged file: every attempt at a final name meets the
// file put there first (locked, so that it is not a candidate itself). The
// pass fails with its move code, the file and the sources are untouched,
// and the merged data waits in the intermediate.
TEST(ExclusiveNames, OptimizerNeverOverwrites) {
  TempDir d;
  std::vector<event> all;
  for (uint32_t f = 0; f < 3; ++f) {
    auto ev = make_events(f + 1, 20, 1000 * f, 5000 + 100 * static_cast<int32_t>(f));
    ASSERT_NE(write_slice(d.path(), ev), "");
    all.insert(all.end(), ev.begin(), ev.end());
  }
  const std::vector<std::string> sources = tsidx_names(d.path());
  std::vector<std::string> bytes;
  for (const std::string& s : sources) bytes.push_back(read_text(d.file(s)));
  // The merged file's name: the latest and earliest times of all three.
  const auto [lo, hi] = std::minmax_element(all.begin(), all.end(),
                                            [](const event& a, const event& b) { return a.timestamp < b.timestamp; });
  const std::string final_name =
      std::to_string(hi->timestamp) + "-" + std::to_string(lo->timestamp) + "-" + kId + ".tsidx";
  const std::string taken = d.file(final_name);
  put_text(taken, kJunk);
  put_text(taken + ".lock", "");

  RunResult r = run_optimize({"-d", d.path(), "-m", "all", "-v"}, pinned_env(kOptimizeEnv));
  EXPECT_EQ(r.status, 256 - 35) << r.err;
  EXPECT_NE(r.err.find("WARN link command failed. rc=17"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("ERROR failed to move intermediate="), std::string::npos) << r.err;
  EXPECT_EQ(read_text(taken), kJunk);
  std::vector<std::string> names = sources;
  names.push_back(final_name);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(tsidx_names(d.path()), names);
  for (size_t k = 0; k < sources.size(); ++k) EXPECT_EQ(read_text(d.file(sources[k])), bytes[k]);
  const std::vector<std::string> merges = names_ending(d.path(), ".merge");
  ASSERT_EQ(merges.size(), 1u);
  std::vector<posting> merged;
  ASSERT_TRUE(read_postings(d.file(merges[0]), &merged));
  EXPECT_EQ(merged, postings_of(all));
}

// The intermediate's name holds the process id: a shell that puts a file
// there and then becomes the optimizer takes it first. The pass ends with
// its own code and leaves that file, the sources and their locks as they
// were.
TEST(ExclusiveNames, IntermediateAlreadyThere) {
  TempDir d;
  // Two files of different sizes: the smaller is the group's first member.
  for (uint32_t values : {20u, 40u}) {
    ASSERT_NE(write_slice(d.path(), make_events(values, values, 100 * values, 5000)), "");
  }
  std::vector<std::string> sources = tsidx_names(d.path());
  std::vector<std::string> bytes;
  for (const std::string& s : sources) bytes.push_back(read_text(d.file(s)));
  if (file_size(d.file(sources[0])) > file_size(d.file(sources[1]))) std::swap(sources[0], sources[1]);
  int32_t e[2], l[2];
  uint64_t id[2];
  for (int m = 0; m < 2; ++m) ASSERT_EQ(tarnix::st_tsidx_file_parse(sources[m].c_str(), &e[m], &l[m], &id[m]), 1);
  const std::string stem = d.path() + "/" + std::to_string(e[0]) + ":" + std::to_string(e[1]) + ":" +
                           std::to_string(id[0]) + "-" + std::to_string(l[0]) + ":" + std::to_string(l[1]) + ":" +
                           std::to_string(id[1]) + "-";

  RunResult r = run({"/bin/sh", "-c", "p=$1; shift; printf %s \"$0\" > \"$p$$.merge\" && exec \"$@\"", kJunk, stem,
                     bin("tarnix-optimize"), "-d", d.path(), "-m", "all", "-v"},
                    kOptimizeEnv);
  EXPECT_EQ(r.status, 256 - 28) << r.err;
  EXPECT_NE(r.err.find("(rc=-28 "), std::string::npos) << r.err;
  const std::vector<std::string> merges = names_ending(d.path(), ".merge");
  ASSERT_EQ(merges.size(), 1u);
  EXPECT_EQ(read_text(d.file(merges[0])), kJunk);
  EXPECT_EQ(names_ending(d.path(), ".lock").size(), 0u);
  std::sort(sources.begin(), sources.end());
  EXPECT_EQ(tsidx_names(d.path()), sources);
  for (size_t k = 0; k < sources.size(); ++k) EXPECT_EQ(read_text(d.file(sources[k])), bytes[k]);
}

}  // namespace
