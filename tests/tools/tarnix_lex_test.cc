// tarnix-lex end to end: a bucket built by tarnix-index, its merged and
// filtered lexicons, --list of both (big-endian and native counts), the
// refusal of a minimum count that keeps nothing, exit statuses and usage
// errors.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testutil/bucket_reader.h"
#include "testutil/optimize_bucket.h"
#include "testutil/testutil.h"
#include "testutil/warmfile.h"

using testutil::exists;
using testutil::RunResult;
using testutil::TempDir;

namespace {

using term_counts = std::map<std::string, uint32_t>;

RunResult lex(const std::vector<std::string>& args) { return testutil::run_bin("tarnix-lex", args); }

// A bucket of several index files from tarnix-index.
void make_bucket(const TempDir& dir, int events, int seed) {
  RunResult r = testutil::run_bin("tarnix-index", {"-d", dir.path(), "--generate", std::to_string(events), "--seed",
                                                  std::to_string(seed), "--max-values", "60", "-q"});
  ASSERT_EQ(r.status, 0) << r.err;
}

term_counts expected_union(const TempDir& dir) {
  term_counts sum;
  for (const std::string& name : testutil::tsidx_names(dir.path())) {
    testutil::IndexContent c = testutil::read_index_file(dir.file(name));
    EXPECT_EQ(c.rc, 0) << name;
    for (const auto& [term, md] : c.metadata) sum[term] += md.count;
  }
  return sum;
}

// "TERM<tab>COUNT" lines; terms must come in ascending order.
term_counts parse_list(const std::string& text) {
  term_counts m;
  std::istringstream in(text);
  std::string prev;
  for (std::string line; std::getline(in, line);) {
    const size_t tab = line.rfind('\t');
    EXPECT_NE(tab, std::string::npos) << line;
    if (tab == std::string::npos) continue;
    const std::string term = line.substr(0, tab);
    EXPECT_LT(prev, term);
    prev = term;
    m[term] = static_cast<uint32_t>(std::stoul(line.substr(tab + 1)));
  }
  return m;
}

term_counts at_least(const term_counts& all, uint32_t min_count) {
  term_counts m;
  for (const auto& [t, c] : all)
    if (c >= min_count) m[t] = c;
  return m;
}

uint32_t highest(const term_counts& all) {
  uint32_t top = 0;
  for (const auto& [t, c] : all) top = std::max(top, c);
  return top;
}

TEST(TarnixLex, MergeFilterAndList) {
  TempDir dir;
  make_bucket(dir, 240, 7);
  ASSERT_GE(testutil::tsidx_names(dir.path()).size(), 3u);
  const term_counts all = expected_union(dir);
  const std::string merged = dir.file("merged_lexicon.lex");
  const std::string filtered = dir.file("filtered_merged_lexicon.lex");

  RunResult r = lex({"-d", dir.path(), "-b", "5", "-p", "100"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(testutil::read_text(dir.file("optimize.result")).rfind("tarnix-optimize-lex complete with rc=0 wrc=[0,", 0),
            0u);

  r = lex({"--list", merged});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(parse_list(r.out), all);

  // A prefix selects a contiguous part of the list.
  const std::string prefix = all.begin()->first.substr(0, 1);
  term_counts with_prefix;
  for (const auto& [t, c] : all)
    if (t.rfind(prefix, 0) == 0) with_prefix[t] = c;
  r = lex({"--list", merged, "--prefix", prefix});
  ASSERT_EQ(r.status, 0);
  EXPECT_EQ(parse_list(r.out), with_prefix);
  r = lex({"--list", merged, "--prefix", "\x7f" "no-such-term"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");

  const uint32_t min_count = highest(all) / 2 + 1;
  const term_counts want = at_least(all, min_count);
  ASSERT_FALSE(want.empty());
  ASSERT_LT(want.size(), all.size());
  r = lex({"-d", dir.path(), "--filter", std::to_string(min_count), "-v"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.rfind("filtering merged lexicon\n", 0), 0u) << r.out;

  // The filtered file is recognised by its name; a copy under another name
  // needs --native-counts, and without it shows every count byte-swapped.
  r = lex({"--list", filtered});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(parse_list(r.out), want);
  const std::string copy = dir.file("copy.lex");
  testutil::write_file(copy, testutil::read_file(filtered));
  r = lex({"--list", copy, "--native-counts"});
  EXPECT_EQ(parse_list(r.out), want);
  r = lex({"--list", copy});
  term_counts as_big_endian;
  const bool little = std::endian::native == std::endian::little;
  for (const auto& [t, c] : want) as_big_endian[t] = little ? __builtin_bswap32(c) : c;
  EXPECT_EQ(parse_list(r.out), as_big_endian);
  // The other tools read the filtered file's counts the same way.
  r = testutil::run_bin("tarnix-dump", {filtered, "--terms"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(parse_list(r.out), want);
  uint64_t sum = 0;
  for (const auto& [t, c] : want) sum += c;
  r = testutil::run_bin("tarnix-check", {"--json", filtered});
  EXPECT_NE(r.out.find("\"count_sum\":" + std::to_string(sum) + ","), std::string::npos) << r.out;

  // Neither output is ever replaced.
  const auto merged_bytes = testutil::read_file(merged);
  const auto filtered_bytes = testutil::read_file(filtered);
  struct {
    std::vector<std::string> args;
    const char* err;
  } again[] = {
      {{"-d", dir.path()}, "tarnix-lex: merging failed: rc=-28 (ST_EEXISTS)"},
      {{"-d", dir.path(), "--filter", "1"}, "tarnix-lex: filtering failed: rc=-28 (ST_EEXISTS)"},
  };
  for (const auto& a : again) {
    r = lex(a.args);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err.rfind(a.err, 0), 0u) << r.err;
  }
  EXPECT_EQ(testutil::read_file(merged), merged_bytes);
  EXPECT_EQ(testutil::read_file(filtered), filtered_bytes);
}

// The library cannot write a lexicon without terms; the tool finds out from
// the counts first and refuses without touching the directory.
TEST(TarnixLex, FilterThatKeepsNothingIsRefused) {
  TempDir dir;
  make_bucket(dir, 120, 3);
  ASSERT_EQ(lex({"-d", dir.path()}).status, 0);
  const uint32_t top = highest(expected_union(dir));
  RunResult r = lex({"-d", dir.path(), "--filter", std::to_string(top + 1)});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "tarnix-lex: no term of " + dir.file("merged_lexicon.lex") + " has a count of at least " +
                       std::to_string(top + 1) + "; the filtered lexicon would be empty, nothing written\n");
  EXPECT_FALSE(exists(dir.file("filtered_merged_lexicon.lex")));
  EXPECT_FALSE(exists(dir.file("filtered_merged_lexicon.lex.tmp")));
  // The highest count itself keeps something.
  r = lex({"-d", dir.path(), "--filter", std::to_string(top)});
  EXPECT_EQ(r.status, 0) << r.err;
  r = lex({"--list", dir.file("filtered_merged_lexicon.lex")});
  EXPECT_EQ(parse_list(r.out), at_least(expected_union(dir), top));
}

TEST(TarnixLex, DirectoryOutcomes) {
  // One index file: nothing to merge, not a failure.
  TempDir one;
  ASSERT_NE(testutil::write_slice(one.path(), testutil::make_events(1, 3, 10, 100)), "");
  RunResult r = lex({"-d", one.path(), "-v"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "tarnix-lex: fewer than 2 index files in " + one.path() + ", nothing merged\n");
  const std::string result = testutil::read_text(one.file("optimize.result"));
  EXPECT_EQ(result.rfind("tarnix-optimize-lex complete with rc=-30 wrc=[-30,", 0), 0u) << result;
  EXPECT_FALSE(exists(one.file("merged_lexicon.lex")));

  // Filtering without a merged lexicon.
  r = lex({"-d", one.path(), "--filter", "1", "-v"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "Lexicon filtering aborted. Input file \"" + one.file("merged_lexicon.lex") +
                       "\" does not exist.\n");
  EXPECT_EQ(r.err.rfind("tarnix-lex: filtering failed: rc=-28 (ST_EEXISTS)", 0), 0u) << r.err;
  EXPECT_NE(r.err.find(": " + one.file("merged_lexicon.lex") + " does not exist (build it with tarnix-lex -d first)\n"),
            std::string::npos)
      << r.err;

  // A status line that cannot be written (files may not grow at all) is
  // not left as an empty file without a word.
  // (Its standard error goes through a pipe, which the limit leaves alone.)
  r = testutil::run({"/bin/sh", "-c", "(ulimit -f 0; exec \"$0\" \"$@\") 2>&1 | cat", testutil::bin("tarnix-lex"),
                     "-d", one.path()});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("failed to write file " + one.file("optimize.result") + "\n"), std::string::npos) << r.out;

  // A FIFO in the merged lexicon's place is refused at once, not waited on.
  ASSERT_EQ(mkfifo(one.file("merged_lexicon.lex").c_str(), 0600), 0);
  r = lex({"-d", one.path(), "--filter", "1"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "tarnix-lex: cannot open " + one.file("merged_lexicon.lex") + ": not a regular file\n");
  EXPECT_FALSE(exists(one.file("filtered_merged_lexicon.lex")));

  // A directory that cannot be listed.
  r = lex({"-d", one.file("missing")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("failed to open file " + one.file("missing") + "/optimize.result\n"), std::string::npos);
  EXPECT_NE(r.err.find("tarnix-lex: merging failed: rc=-1 (WS_ENOTAVAIL)"), std::string::npos) << r.err;
}

// Started without a standard output, the tool must not let the merged
// lexicon take its number: the -v lines would be written into it. A second
// merge is refused, and says why.
TEST(TarnixLex, ClosedStandardOutputAndAnExistingLexicon) {
  TempDir closed, open;
  for (const TempDir* d : {&closed, &open}) {
    for (int f = 1; f <= 2; ++f) ASSERT_NE(testutil::write_slice(d->path(), testutil::make_events(f, 20, 1, 1000)), "");
  }
  RunResult r = testutil::run({"/bin/sh", "-c", "exec \"$0\" -d \"$1\" -v >&-", testutil::bin("tarnix-lex"), closed.path()});
  ASSERT_EQ(r.status, 0) << r.err;
  ASSERT_EQ(lex({"-d", open.path(), "-v"}).status, 0);
  EXPECT_TRUE(testutil::read_file(closed.file("merged_lexicon.lex")) == testutil::read_file(open.file("merged_lexicon.lex")));
  r = lex({"-d", open.path()});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("merging failed: rc=-28 (ST_EEXISTS) errno="), std::string::npos) << r.err;
  EXPECT_NE(r.err.find(": " + open.file("merged_lexicon.lex") + " exists already (remove it to build it again)\n"),
            std::string::npos)
      << r.err;
}

// A second run started while the first writes erases the first one's
// temporary name (as it would a dead run's) and writes its own file under
// it. Whatever happens next, even the second run killed, only a whole
// lexicon may ever have the final name, and the status file holds one line.
TEST(TarnixLex, SecondRunAtOnceNeverLeavesAHalfMadeLexicon) {
  TempDir dir;
  RunResult r = testutil::run_bin("tarnix-index", {"-d", dir.path(), "--generate", "60000", "--seed", "5", "--tokens",
                                                  "10-30", "--max-values", "5000", "--max-terms", "300000",
                                                  "--max-term-chars", "30000000", "--max-postings", "3000000", "-q"});
  ASSERT_EQ(r.status, 0) << r.err;
  const term_counts all = expected_union(dir);
  int raced = 0;
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const pid_t first = testutil::spawn_bin("tarnix-lex", {"-d", dir.path()});
    for (int i = 0; i < 2000 && !exists(dir.file("merged_lexicon.lex.tmp")); ++i) usleep(1000);
    const pid_t second = testutil::spawn_bin("tarnix-lex", {"-d", dir.path()});
    const int first_status = testutil::wait_status(first);
    // Caught while it may still be writing under the temporary name.
    kill(second, SIGKILL);
    (void)testutil::wait_status(second);
    if (first_status != 0) ++raced;
    if (exists(dir.file("merged_lexicon.lex"))) {
      EXPECT_EQ(testutil::run_bin("tarnix-check", {"-q", dir.file("merged_lexicon.lex")}).status, 0);
      EXPECT_EQ(parse_list(lex({"--list", dir.file("merged_lexicon.lex")}).out), all);
    } else {
      EXPECT_NE(first_status, 0);
    }
    const std::string status = testutil::read_text(dir.file("optimize.result"));
    EXPECT_EQ(std::count(status.begin(), status.end(), '\n'), 1) << status;
    for (const char* left : {"merged_lexicon.lex", "merged_lexicon.lex.tmp"}) (void)unlink(dir.file(left).c_str());
  }
  std::cout << raced << " of 3 rounds had the second run take the temporary name\n";
}

// System calls made to fail inside the merge (tests/preload): the merged
// lexicon never appears half-made, the temporary stays for inspection, and
// the next run replaces it and finishes.
TEST(TarnixLex, FailedCallsLeaveNoMergedLexicon) {
  TempDir dir;
  make_bucket(dir, 240, 9);
  const term_counts all = expected_union(dir);
  struct {
    std::string fault;
    const char* err;
    const char* status_line;
  } cases[] = {
      {"TARNIX_FAIL_LINK=1", "tarnix-lex: merging failed: rc=-35 (ST_EMOVE) errno=1",
       "tarnix-optimize-lex complete with rc=-35 wrc=[-35,1]"},
      {"TARNIX_FAIL_CLOSE=merged_lexicon.lex.tmp:5", "tarnix-lex: merging failed: rc=-11 (WS_ECLOSE) errno=5",
       "tarnix-optimize-lex complete with rc=-11 wrc=[-11,5]"},
      // The tool reads each index file's header once before the merge; the
      // merge's third open fails.
      {"TARNIX_FAIL_OPEN=.tsidx:" + std::to_string(testutil::tsidx_names(dir.path()).size() + 2) + ":1:13",
       "tarnix-lex: merging failed: rc=-4 (WS_EOPEN) errno=13",
       "tarnix-optimize-lex complete with rc=-4 wrc=[-4,13]"},
  };
  const char* asan = getenv("ASAN_OPTIONS");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.fault);
    RunResult r = testutil::run(
        {testutil::bin("tarnix-lex"), "-d", dir.path()},
        {"LD_PRELOAD=" + testutil::bin("libfailcalls.so"), c.fault,
         std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") + ":verify_asan_link_order=0"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err.rfind(c.err, 0), 0u) << r.err;
    EXPECT_EQ(testutil::read_text(dir.file("optimize.result")).rfind(c.status_line, 0), 0u);
    EXPECT_FALSE(exists(dir.file("merged_lexicon.lex")));
    EXPECT_TRUE(exists(dir.file("merged_lexicon.lex.tmp")));

    r = lex({"-d", dir.path()});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_FALSE(exists(dir.file("merged_lexicon.lex.tmp")));
    EXPECT_EQ(parse_list(lex({"--list", dir.file("merged_lexicon.lex")}).out), all);
    ASSERT_EQ(unlink(dir.file("merged_lexicon.lex").c_str()), 0);
  }
}

// Memory that runs out anywhere in the merge, or in the tool around it,
// gives one line and status 1, never an abort, and never a merged lexicon
// other than the whole one.
TEST(TarnixLex, MemoryThatRunsOutGivesOneLine) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer's allocator cannot be replaced by the failing one";
#endif
  TempDir dir;
  make_bucket(dir, 240, 9);
  const term_counts all = expected_union(dir);
  int failed = 0;
  for (int k = 0; k <= 400; k += 1 + k / 16) {
    SCOPED_TRACE("an allocation fails after " + std::to_string(k));
    RunResult r = testutil::run({testutil::bin("tarnix-lex"), "-d", dir.path()},
                                {"LD_PRELOAD=" + testutil::bin("libfailalloc.so"),
                                 "TARNIX_FAIL_MALLOC=.tsidx:" + std::to_string(k) + ":1"});
    if (r.status == 0) {
      EXPECT_EQ(parse_list(lex({"--list", dir.file("merged_lexicon.lex")}).out), all);
    } else {
      ++failed;
      EXPECT_EQ(r.status, 1);
      EXPECT_EQ(r.err.rfind("tarnix-lex: ", 0), 0u) << r.err;
      EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
      EXPECT_FALSE(exists(dir.file("merged_lexicon.lex")));
    }
    for (const char* left : {"merged_lexicon.lex", "merged_lexicon.lex.tmp", "optimize.result"})
      (void)unlink(dir.file(left).c_str());
  }
  EXPECT_GE(failed, 10);
}

TEST(TarnixLex, ListRefusesWhatItCannotRead) {
  TempDir dir;
  testutil::write_file(dir.file("junk.lex"), std::vector<uint8_t>(100, 'x'));
  struct {
    std::string file;
    std::string err_start;
  } cases[] = {
      {dir.file("missing.lex"), "tarnix-lex: cannot open " + dir.file("missing.lex") + ": "},
      {dir.file("junk.lex"), "tarnix-lex: cannot read " + dir.file("junk.lex") + ": rc=-13 (WS_EMAGIC)"},
      {dir.file("fifo"), "tarnix-lex: cannot open " + dir.file("fifo") + ": not a regular file\n"},
      {dir.path(), "tarnix-lex: cannot open " + dir.path() + ": Is a directory\n"},
  };
  ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
  for (const auto& c : cases) {
    RunResult r = lex({"--list", c.file});
    EXPECT_EQ(r.status, 1) << c.file;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind(c.err_start, 0), 0u) << r.err;
  }
}

// One term per line whatever its bytes: control bytes, the backslash and
// bytes above ASCII are written as \xNN.
TEST(TarnixLex, ListEscapesBytesThatAreNotPrintable) {
  TempDir dir;
  const std::vector<std::string> terms = {"a\tb", "c\nd", "e\\f", "g h~", "\xff"};
  testutil::write_file(dir.file("odd.lex"), testutil::build_lexicon_file(terms, {1, 2, 3, 4, 5}, 2));
  RunResult r = lex({"--list", dir.file("odd.lex")});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "a\\x09b\t1\nc\\x0Ad\t2\ne\\x5Cf\t3\ng h~\t4\n\\xFF\t5\n");
}

// A lexicon-only file under an index file's name has no metadata for the
// merge to take its counts from: the run names it and writes nothing.
TEST(TarnixLex, LexiconOnlyFileUnderAnIndexNameIsRefused) {
  TempDir dir;
  make_bucket(dir, 200, 3);
  ASSERT_EQ(lex({"-d", dir.path()}).status, 0);
  ASSERT_EQ(rename(dir.file("merged_lexicon.lex").c_str(), dir.file("7-7-7.tsidx").c_str()), 0);
  RunResult r = lex({"-d", dir.path()});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "tarnix-lex: " + dir.path() + "/7-7-7.tsidx is a lexicon-only file under an index file's name; "
                   "move it away\n");
  EXPECT_FALSE(exists(dir.file("merged_lexicon.lex")));
}

TEST(TarnixLex, UsageErrors) {
  TempDir dir;
  const std::vector<std::vector<std::string>> bad = {
      {},
      {"-d"},
      {"-v"},
      {"-d", dir.path(), "-b", "0"},
      {"-d", dir.path(), "-b", "4294967296"},
      {"-d", dir.path(), "-p", "8"},
      {"-d", dir.path(), "-p", "12x"},
      {"-d", dir.path(), "--filter", "-1"},
      {"-d", dir.path(), "--filter"},
      {"-d", dir.path(), "--prefix", "a"},
      {"-d", dir.path(), "--native-counts"},
      {"--list", "x", "-d", dir.path()},
      {"--list", "x", "--filter", "2"},
      {"--list", "x", "-b", "8"},
      {"-d", dir.path(), "extra"},
      {"-d", dir.path(), "--bogus"},
  };
  for (const auto& args : bad) {
    RunResult r = lex(args);
    std::string joined;
    for (const auto& a : args) joined += a + " ";
    EXPECT_EQ(r.status, 2) << joined;
    EXPECT_EQ(r.err.rfind("tarnix-lex: ", 0), 0u) << joined;
    EXPECT_NE(r.err.find("(try tarnix-lex --help)"), std::string::npos) << joined;
    EXPECT_EQ(r.out, "") << joined;
  }
  // Nothing was written by a refused command line.
  EXPECT_TRUE(testutil::list_dir(dir.path()).empty());

  RunResult r = lex({"--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind("usage: tarnix-lex -d DIR", 0), 0u);
  EXPECT_NE(r.out.find("--native-counts"), std::string::npos);
}

}  // namespace
