// tarnix-check against files laid out byte by byte by the test's own
// builder (sound, and corrupted one field at a time), against files written
// by the library's writer and merge, and against bucket directories.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "searchthing/codes.h"
#include "searchthing/warmslice_util.h"
#include "testutil/testutil.h"
#include "tools/library_files.h"
#include "tools/tsidx_builder.h"

using namespace toolstest;
using testutil::TempDir;

namespace {

testutil::RunResult check(const std::vector<std::string>& args) { return testutil::run_bin("tarnix-check", args); }

// The section named by the first problem line of the output ("" if none).
std::string first_problem_section(const std::string& out) {
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) {
    // FILE: SECTION: at POSITION: expected ...
    const size_t a = line.find(": "), b = line.find(": at ", a + 2);
    if (line.find(": expected ") != std::string::npos && a != std::string::npos && b != std::string::npos)
      return line.substr(a + 2, b - a - 2);
  }
  return "";
}

// A small file with runs, equal timestamps, a deleted value and 11 terms
// over three blocks of four.
built_file sample_file(bool runs = true, const char* magic = "Tarnix6", uint32_t tperb = 4) {
  std::vector<tvalue> v = {
      {500, 90, 3, 1, 2, 7}, {500, 80, 1, 2, 2, 7}, {450, 70, 0, 3, 1, 6},   {400, 60, 2, 0xFFFFFFFFu, 1, 5},
      {390, 50, 5, 4, 9, 4}, {300, 40, 1, 5, 3, 3}, {250, 30, 7, 1, 3, 2},   {200, 20, 6, 2, 1, 1},
      {150, 10, 4, 3, 2, 0}, {-5, 5, 1, 1, 1, 1},
  };
  std::vector<tterm> t = {
      {"alpha", {0, 1, 2, 3, 4}}, {"alphabet", {1}},     {"alps", {2, 5, 9}},  {"beta", {0, 9}},
      {"betamax", {3, 4, 5, 6}}, {"gamma", {7}},        {"host::a", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}},
      {"host::b", {8}},          {"zeta", {4, 6, 8}},   {"zeta1", {9}},         {"zz", {0, 2, 4, 6, 8}},
  };
  return build_index(v, t, tperb, runs, magic);
}

std::string write_tmp(const TempDir& d, const std::string& name, const std::vector<uint8_t>& bytes) {
  testutil::write_file(d.file(name), bytes);
  return d.file(name);
}

TEST(TarnixCheck, BuiltFilesOfEveryShapeAreSound) {
  TempDir d;
  const std::vector<tvalue> one = {{7, 1, 0, 0, 0, 0}};
  const std::pair<const char*, built_file> shapes[] = {
      {"runs", sample_file(true)},
      {"gaps", sample_file(false)},
      {"tperb1", sample_file(true, "Tarnix6", 1)},
      {"tperb2", sample_file(true, "Tarnix6", 2)},
      {"tperb64", sample_file(true, "Tarnix6", 64)},
      {"v3", sample_file(true, "Tarnix3")},
      {"v5", sample_file(false, "Tarnix5")},
      {"single", build_index(one, {{"x", {0}}}, 8, false)},
      {"longterm", build_index(one, {{std::string(2047, 'q'), {0}}, {"r", {0}}}, 8, false)},
  };
  for (const auto& [name, f] : shapes) {
    auto r = check({write_tmp(d, std::string(name) + ".tsidx", f.bytes)});
    EXPECT_EQ(r.status, 0) << name << "\n" << r.out << r.err;
    EXPECT_NE(r.out.find(": sound: 0 problems"), std::string::npos) << name << "\n" << r.out;
  }
  // The summary states what the file holds.
  auto r = check({d.file("runs.tsidx")});
  EXPECT_NE(r.out.find("10 values (1 deleted), 11 terms, 36 postings, times -5..500"), std::string::npos) << r.out;
}

TEST(TarnixCheck, LexiconOnlyFileIsSoundAndItsDamageIsNamed) {
  TempDir d;
  const std::vector<uint8_t> lex = testutil::build_lexicon_file({"a", "ab", "b", "c", "cd"}, {3, 1, 4, 1, 5}, 2);
  auto r = check({write_tmp(d, "merged_lexicon.lex", lex)});
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("TarLex1, 5 terms"), std::string::npos) << r.out;
  std::vector<uint8_t> bad = lex;
  bad.push_back(0);  // a lexicon-only file ends with its lexicon
  r = check({write_tmp(d, "trail.lex", bad)});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(first_problem_section(r.out), "file") << r.out;
  bad = lex;
  bad[testutil::layout_of(lex).fclex + 12] = 0xFF;  // the first block end offset now exceeds the blocks
  r = check({write_tmp(d, "blk.lex", bad)});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(first_problem_section(r.out), "lexicon") << r.out;
}

void add32(std::vector<uint8_t>& b, uint64_t at, int32_t delta) {
  tarnix::store_be32(b.data() + at, tarnix::load_be32(b.data() + at) + static_cast<uint32_t>(delta));
}

TEST(TarnixCheck, EachCorruptionIsNamedBySection) {
  using namespace tarnix;
  const struct {
    const char* name;
    std::function<void(std::vector<uint8_t>&, const built_file&)> mutate;
    const char* section;
  } cases[] = {
      {"magic", [](auto& b, auto&) { b[6] = '9'; }, "header"},
      {"num_values+1", [](auto& b, auto&) { add32(b, HDR_NUM_VALUES, 1); }, "header"},
      {"num_values-1", [](auto& b, auto&) { add32(b, HDR_NUM_VALUES, -1); }, "header"},
      {"num_terms+1", [](auto& b, auto&) { add32(b, HDR_NUM_TERMS, 1); }, "header"},
      {"num_postings-1", [](auto& b, auto&) { add32(b, HDR_NUM_POSTINGS, -1); }, "header"},
      {"et_size", [](auto& b, auto&) { add32(b, HDR_ET_SIZE, 8); }, "header"},
      {"h_nbits", [](auto& b, auto&) { add32(b, HDR_H_NBITS, 1); }, "header"},
      {"d_nbits", [](auto& b, auto&) { add32(b, HDR_D_NBITS, 1); }, "header"},
      {"value order", [](auto& b, auto&) { add32(b, 64 + 8 * 5, 1000); }, "values"},
      {"duplicate value", [](auto& b, auto&) { add32(b, 64 + 8 * 1 + 4, 10); }, "values"},
      {"lexicon count", [](auto& b, auto& f) { add32(b, f.lex_off, 1); }, "lexicon"},
      {"block offset", [](auto& b, auto& f) { add32(b, f.lex_off + 12, 1); }, "lexicon"},
      {"term order", [](auto& b, auto& f) { b[f.block_starts[1] + 1] = 'a'; }, "lexicon"},
      {"term length", [](auto& b, auto& f) { b[f.block_starts[2]] = 0; }, "lexicon"},
      {"offset entry", [](auto& b, auto& f) { add32(b, f.pl_offs + 8 * 3 + 4, 40); }, "offset table"},
      {"metadata count", [](auto& b, auto& f) { add32(b, f.metadata + 12 * 4, 1); }, "metadata"},
      {"metadata earliest", [](auto& b, auto& f) { add32(b, f.metadata + 12 * 2 + 4, -1); }, "metadata"},
      {"metadata latest", [](auto& b, auto& f) { add32(b, f.metadata + 12 * 6 + 8, 1); }, "metadata"},
      {"posting id past values", [](auto& b, auto& f) { b[f.list_starts[5]] = 0x7F; }, "postings"},
      {"posting gap", [](auto& b, auto& f) { b[f.list_starts[2] + 1] = 0x80; }, "postings"},
      {"cut-off posting code", [](auto& b, auto&) { b[b.size() - 1] = 0x80; }, "postings"},
      {"truncated postings", [](auto& b, auto&) { b.erase(b.end() - 3, b.end()); }, "file"},
      {"truncated fixed part", [](auto& b, auto& f) { b.resize(f.metadata); }, "file"},
      {"truncated header", [](auto& b, auto&) { b.resize(40); }, "header"},
      {"trailing bytes", [](auto& b, auto&) { b.push_back(0); }, "file"},
  };
  TempDir d;
  const built_file f = sample_file(false);
  for (const auto& c : cases) {
    std::vector<uint8_t> b = f.bytes;
    c.mutate(b, f);
    auto r = check({write_tmp(d, "c.tsidx", b)});
    EXPECT_EQ(r.status, 1) << c.name << "\n" << r.out;
    EXPECT_EQ(first_problem_section(r.out), c.section) << c.name << "\n" << r.out;
    EXPECT_NE(r.out.find(": UNSOUND: "), std::string::npos) << c.name;
  }
}

TEST(TarnixCheck, RandomDamageNeverCrashes) {
  TempDir d;
  std::mt19937 rng(12345);
  std::vector<std::string> paths;
  const built_file bases[] = {sample_file(true), sample_file(false, "Tarnix3", 2), sample_file(true, "Tarnix6", 1)};
  for (int i = 0; i < 240; ++i) {
    std::vector<uint8_t> b = bases[i % 3].bytes;
    const int flips = 1 + static_cast<int>(rng() % 4);
    for (int k = 0; k < flips; ++k) b[rng() % b.size()] ^= static_cast<uint8_t>(1 + rng() % 255);
    if (i % 5 == 0) b.resize(rng() % b.size());
    paths.push_back(write_tmp(d, "f" + std::to_string(i) + ".tsidx", b));
  }
  // One run over every file, then the JSON form.
  auto r = check(paths);
  EXPECT_TRUE(r.status == 0 || r.status == 1) << r.status << r.err;
  paths.insert(paths.begin(), "--json");
  r = check(paths);
  EXPECT_TRUE(r.status == 0 || r.status == 1) << r.status << r.err;
  EXPECT_EQ(r.out.rfind("{\"sound\":", 0), 0u);
}

TEST(TarnixCheck, UsageErrorsAndHelp) {
  auto r = check({"--bogus", "x"});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("usage: tarnix-check"), std::string::npos);
  EXPECT_EQ(check({}).status, 2);
  r = check({"--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("usage: tarnix-check"), std::string::npos);
  r = check({"/nonexistent/file.tsidx"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(first_problem_section(r.out), "file");
}

// ---- files of the library's writer and merge ----------------------------------

TEST(TarnixCheck, WriterAndMergeOutputIsSound) {
  TempDir d;
  std::vector<std::string> files;
  for (uint32_t s = 1; s <= 5; ++s) files.push_back(write_slice(d.path(), s, 150 + 40 * s, s % 2));
  // A flushed slice may count its last term's duplicates in num_postings:
  // a note, never a problem.
  const std::string m = merge_files(d.file("m.merge"), files, 64);
  files.push_back(m);
  files.push_back(merge_files(d.file("m2.merge"), {files[0], m}, 3));
  for (const auto& f : files) {
    auto r = check({f});
    EXPECT_EQ(r.status, 0) << f << "\n" << r.out;
  }
}

// ---- bucket directories --------------------------------------------------------------

TEST(TarnixCheck, BucketReportListsStateAndPredictsTheNextPass) {
  TempDir d;
  for (uint32_t s = 1; s <= 9; ++s) write_slice(d.path(), s, 60, 0);
  auto r = check({"--terms", d.path()});
  EXPECT_EQ(r.status, 0) << r.out;
  for (const char* want : {"9 index files", "next pass: 9 of 9 candidate files", "distinct terms"})
    EXPECT_NE(r.out.find(want), std::string::npos) << want << "\n" << r.out;

  // Lock two files: they stop being candidates, and 7 are too few for a group.
  auto names = testutil::list_dir(d.path());
  testutil::write_file(d.file(names[0] + ".lock"), {'4', '2', '\n', 'h', 'o', 's', 't'});
  testutil::write_file(d.file(names[1] + ".lock"), {'4', '3', '\n', 'h'});
  testutil::write_file(d.file("1:2:3-4:5:6-7.merge"), {1, 2, 3});
  for (const char* empty : {"5-4-3.pre-tsidx", "5-4-3.0.9.part-tsidx", "tarnix-need-optimize.dat"})
    testutil::write_file(d.file(empty), {});
  r = check({d.path()});
  EXPECT_EQ(r.status, 0) << r.out;
  const std::string wants[] = {"next pass: 0 of 7 candidate files",
                               names[0] + ".lock: age ",
                               "owner pid 42 on host host",
                               "intermediate: 1:2:3-4:5:6-7.merge: 3 bytes",
                               "unfinished flush: 5-4-3.pre-tsidx",
                               "part file: 5-4-3.0.9.part-tsidx",
                               "tarnix-need-optimize.dat present"};
  for (const std::string& want : wants)
    EXPECT_NE(r.out.find(want), std::string::npos) << want << "\n" << r.out;

  // A flush whose old name could not be removed after the move leaves a
  // second name of a file in place: moving it again would count its
  // events twice, so it is not called an unfinished flush.
  ASSERT_EQ(link(d.file(names[2]).c_str(), d.file("6-5-4.pre-tsidx").c_str()), 0);
  r = check({d.path()});
  EXPECT_NE(r.out.find(": leftover name: 6-5-4.pre-tsidx: the same file as " + names[2] +
                       ", whose events are in place; remove this name\n"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(r.out.find("unfinished flush: 6-5-4"), std::string::npos) << r.out;
  r = check({"--json", d.path()});
  EXPECT_NE(r.out.find("{\"name\":\"6-5-4.pre-tsidx\",\"size\":" + std::to_string(testutil::read_file(d.file(names[2])).size()) +
                       ",\"age_s\":"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find(",\"in_place_as\":\"" + names[2] + "\"}"), std::string::npos) << r.out;

  // One damaged index file makes the bucket unsound.
  std::vector<uint8_t> b = testutil::read_file(d.file(names[3]));
  b[20] ^= 0x10;
  testutil::write_file(d.file(names[3]), b);
  r = check({"-q", d.path()});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(first_problem_section(r.out), "header") << r.out;
  EXPECT_EQ(r.out.find("bucket:"), std::string::npos) << "-q prints problems only";
}

// What the optimizer would take as a source and then refuse, leaving its
// group locked, makes a bucket unsound; what cannot be read whole (a FIFO)
// is refused at once; a report that cannot be written is a failure.
TEST(TarnixCheck, EntriesTheOptimizerRefusesAndUnwritableReports) {
  const std::vector<uint8_t> lex = testutil::build_lexicon_file({"a", "b"}, {1, 2}, 2);
  const struct {
    const char* what;
    std::function<void(const TempDir&)> add;
    const char* found;
  } cases[] = {
      {"directory", [](const TempDir& d) { ASSERT_EQ(mkdir(d.file("5-1-1.tsidx").c_str(), 0755), 0); },
       "expected a regular index file, found a directory"},
      {"lexicon-only file", [&](const TempDir& d) { write_tmp(d, "5-1-1.tsidx", lex); },
       "expected an index file under an index file's name, found a lexicon-only file"},
      {"FIFO merged lexicon", [](const TempDir& d) { ASSERT_EQ(mkfifo(d.file("merged_lexicon.lex").c_str(), 0600), 0); },
       "expected a regular lexicon file, found not a regular file"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir d;
    for (uint32_t s = 1; s <= 2; ++s) write_slice(d.path(), s, 40, 0);
    ASSERT_EQ(check({"-q", d.path()}).status, 0);
    c.add(d);
    auto r = check({"-q", d.path()});
    EXPECT_EQ(r.status, 1);
    const bool lexicon = c.what[0] == 'F';
    EXPECT_EQ(r.out, d.file(lexicon ? "merged_lexicon.lex" : "5-1-1.tsidx") + ": file: at " +
                         (c.what[0] == 'l' ? "magic" : "type") + ": " + c.found + "\n");
  }

  TempDir d;
  ASSERT_EQ(mkfifo(d.file("fifo").c_str(), 0600), 0);
  auto r = check({d.file("fifo")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("expected a readable file, found not a regular file"), std::string::npos) << r.out;

  const std::string file = write_slice(d.path(), 3, 40, 0);
  r = testutil::run({"/bin/sh", "-c", "exec \"$0\" \"$@\" >/dev/full", testutil::bin("tarnix-check"), file});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "tarnix-check: writing the report failed: No space left on device\n");
}

TEST(TarnixCheck, DistinctTermsMatchTheUnionOfTheLexicons) {
  TempDir d;
  // Overlapping term sets in three files built by the test's builder.
  const std::vector<std::vector<std::string>> sets = {{"a", "b", "c", "x"}, {"b", "c", "d"}, {"aa", "x", "y", "z"}};
  for (size_t i = 0; i < sets.size(); ++i) {
    std::vector<tterm> t;
    for (const auto& s : sets[i]) t.push_back({s, {0, 1}});
    const built_file f = build_index({{9, 3, 0, 0, 0, 0}, {8, 2, 0, 0, 0, 0}}, t, 2, true);
    write_tmp(d, "9-8-" + std::to_string(i) + ".tsidx", f.bytes);
  }
  auto r = check({"--terms", d.path()});
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find(", 8 distinct terms"), std::string::npos) << r.out;
  r = check({"--json", "--terms", d.path()});
  EXPECT_NE(r.out.find("\"distinct_terms\":8"), std::string::npos) << r.out;
}

TEST(TarnixCheck, NextPassFollowsTheSizeRules) {
  // Files of given sizes (contents irrelevant to the prediction).
  const struct {
    std::vector<size_t> sizes;
    const char* expect;
  } cases[] = {
      {{100, 200, 300, 400, 500, 600, 700, 800}, "next pass: 8 of 8"},
      {{100, 200, 300}, "next pass: 0 of 3"},
      {{100}, "next pass: 0 of 1"},
      {{2 << 20, 5 << 20, 11 << 20, 23 << 20, 47 << 20, 95 << 20, 191 << 20, 383 << 20}, "next pass: 0 of 8"},
  };
  for (const auto& c : cases) {
    TempDir d;
    for (size_t i = 0; i < c.sizes.size(); ++i)
      ASSERT_EQ(truncate(write_tmp(d, "10-5-" + std::to_string(i) + ".tsidx", {}).c_str(), c.sizes[i]), 0);
    auto r = check({d.path()});
    EXPECT_NE(r.out.find(c.expect), std::string::npos) << c.expect << "\n" << r.out;
  }
}

// A bucket generated by tarnix-index: every flushed file, their 32-way
// merge, and the bucket after an optimize run all check clean.
TEST(TarnixCheck, GeneratedBucketAnd32WayMergeAreSound) {
  TempDir d;
  auto g =
      testutil::run_bin("tarnix-index", {"-d", d.path(), "--generate", "6000", "--seed", "7", "--max-values", "150"});
  ASSERT_EQ(g.status, 0) << g.err;
  std::vector<std::string> files;
  for (const auto& n : testutil::names_ending(d.path(), ".tsidx")) files.push_back(d.file(n));
  ASSERT_GE(files.size(), 32u);
  auto r = check({"-q", d.path()});
  EXPECT_EQ(r.status, 0) << r.out;

  files.resize(32);
  TempDir out;
  r = check({merge_files(out.file("m32.merge"), files, 64)});
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find(": sound: 0 problems"), std::string::npos) << r.out;

  auto o = testutil::run_bin("tarnix-optimize", {"-d", d.path(), "-m", "all"}, {"OPTIMISTIC_ABOUT_FILE_LOCKING=yes"});
  EXPECT_EQ(o.status, 0) << o.err;
  r = check({"--terms", d.path()});
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("6000 events"), std::string::npos) << r.out;
}

}  // namespace
