// tarnix-dump against a small file whose every byte the test's builder laid
// out (so the expected output is known), and against a merged file, where
// its posting lists must agree with the library's own posting reader.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testutil/testutil.h"
#include "tools/library_files.h"
#include "tools/tsidx_builder.h"

using namespace toolstest;
using testutil::TempDir;

namespace {

testutil::RunResult dump(const std::vector<std::string>& args) { return testutil::run_bin("tarnix-dump", args); }

const std::vector<tvalue> kValues = {
    {500, 90, 3, 1, 2, 7}, {500, 80, 1, 2, 2, 7}, {450, 70, 0, 3, 1, 6}, {400, 60, 2, 0xFFFFFFFFu, 1, 5},
    {390, 50, 5, 4, 9, 4}, {-5, 5, 1, 1, 1, 1},
};
const std::vector<tterm> kTerms = {
    {"alpha", {0, 1, 2, 3, 4}}, {"alphabet", {1}}, {"alps", {2, 5}}, {"beta", {0, 5}},
    {"betamax", {3, 4}},        {"tab\there", {4}}, {"zz", {0, 2, 4}},
};

class TarnixDump : public ::testing::Test {
 protected:
  void SetUp() override { testutil::write_file(path_, file_.bytes); }
  TempDir dir_;
  built_file file_ = build_index(kValues, kTerms, 4, true);
  std::string path_ = dir_.file("small.tsidx");
};

TEST_F(TarnixDump, HeaderShowsFieldsAndSections) {
  char metadata[128], postings[128];
  snprintf(metadata, sizeof(metadata), "%-16s %12llu %12llu\n", "metadata",
           static_cast<unsigned long long>(file_.metadata), 84ull);
  snprintf(postings, sizeof(postings), "%-16s %12llu %12llu\n", "postings",
           static_cast<unsigned long long>(file_.postings_off),
           static_cast<unsigned long long>(file_.bytes.size() - file_.postings_off));
  for (const auto& args : {std::vector<std::string>{path_}, std::vector<std::string>{path_, "--header"}}) {
    auto r = dump(args);
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string wants[] = {"magic         Tarnix6\n",     "num_values    6\n",
                                 "num_postings  16\n",          "num_terms     7\n",
                                 "lexicon       7 terms, 4 per block, 2 blocks", metadata, postings};
    for (const std::string& want : wants) EXPECT_NE(r.out.find(want), std::string::npos) << want << "\n" << r.out;
  }
}

TEST_F(TarnixDump, TermsWithMetadataAndPrefix) {
  const char* every =
      "alpha\t5\t390\t500\n"
      "alphabet\t1\t500\t500\n"
      "alps\t2\t-5\t450\n"
      "beta\t2\t-5\t500\n"
      "betamax\t2\t390\t400\n"
      "tab\\x09here\t1\t390\t390\n"
      "zz\t3\t390\t500\n";
  const struct {
    const char* prefix;  // nullptr: no --prefix
    const char* out;
  } cases[] = {
      {nullptr, every},
      {"", every},
      {"alp", "alpha\t5\t390\t500\nalphabet\t1\t500\t500\nalps\t2\t-5\t450\n"},
      {"beta", "beta\t2\t-5\t500\nbetamax\t2\t390\t400\n"},
      {"z", "zz\t3\t390\t500\n"},
      {"q", ""},
      {"zzz", ""},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = {path_, "--terms"};
    if (c.prefix) args.insert(args.end(), {"--prefix", c.prefix});
    auto r = dump(args);
    ASSERT_EQ(r.status, 0) << (c.prefix ? c.prefix : "(none)") << r.err;
    EXPECT_EQ(r.out, c.out) << (c.prefix ? c.prefix : "(none)");
  }
}

TEST_F(TarnixDump, PostingsValuesAndEvents) {
  auto r = dump({path_, "--postings", "alpha"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "0\n1\n2\n3\n4\n");
  EXPECT_EQ(dump({path_, "--postings", "tab\there"}).out, "4\n");
  // The deleted value's source 0xFFFFFFFF makes the source column 32 bits
  // wide, and a 32-bit element reads back as 0: sources show as 0, as the
  // library's own reader sees them.
  r = dump({path_, "--values", "--limit", "4"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "id\ttimestamp\taddress\tevent_type\tsource\tsource_type\thost\tdeleted\n"
            "0\t500\t90\t3\t0\t2\t7\t0\n"
            "1\t500\t80\t1\t0\t2\t7\t0\n"
            "2\t450\t70\t0\t0\t1\t6\t0\n"
            "3\t400\t60\t2\t4294967295\t1\t5\t1\n");
  // Without a deleted value the source column is narrow and reads back whole.
  std::vector<tvalue> live = kValues;
  live[3].src = 4;
  testutil::write_file(dir_.file("live.tsidx"), build_index(live, kTerms, 4, false).bytes);
  EXPECT_EQ(dump({dir_.file("live.tsidx"), "--values", "--limit", "4"}).out,
            "id\ttimestamp\taddress\tevent_type\tsource\tsource_type\thost\tdeleted\n"
            "0\t500\t90\t3\t1\t2\t7\t0\n"
            "1\t500\t80\t1\t2\t2\t7\t0\n"
            "2\t450\t70\t0\t3\t1\t6\t0\n"
            "3\t400\t60\t2\t4\t1\t5\t0\n");
  r = dump({path_, "--values"});
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 7);
  // Events holding "alpha", latest first, without the deleted value 3.
  r = dump({path_, "--events", "alpha"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "timestamp\taddress\tevent_type\tsource\tsource_type\thost\n"
            "500\t90\t3\t0\t2\t7\n"
            "500\t80\t1\t0\t2\t7\n"
            "450\t70\t0\t0\t1\t6\n"
            "390\t50\t5\t0\t9\t4\n");
}

TEST_F(TarnixDump, JsonForm) {
  auto r = dump({path_, "--json", "--terms", "--prefix", "alp", "--postings", "beta", "--values", "--limit", "1",
                 "--events", "zz"});
  ASSERT_EQ(r.status, 0) << r.err;
  for (const char* want : {"\"terms\":[{\"term\":\"alpha\",\"count\":5,\"earliest\":390,\"latest\":500},",
                           "\"postings\":{\"term\":\"beta\",\"term_id\":3,\"ids\":[0,5]}",
                           "\"values\":[{\"id\":0,\"timestamp\":500,\"event_address\":90,\"event_type\":3,"
                           "\"source\":0,\"source_type\":2,\"host\":7,\"deleted\":false}]",
                           "\"events\":{\"term\":\"zz\",\"events\":[{\"timestamp\":500"})
    EXPECT_NE(r.out.find(want), std::string::npos) << want << "\n" << r.out;
  EXPECT_EQ(r.out.find("header"), std::string::npos) << "no header unless asked for";
  r = dump({path_, "--json", "--terms", "--prefix", "tab"});
  EXPECT_NE(r.out.find("\"term\":\"tab\\u0009here\""), std::string::npos) << r.out;
}

TEST_F(TarnixDump, FailuresAndUsage) {
  // A damaged posting list is reported, not followed.
  std::vector<uint8_t> b = file_.bytes;
  b[file_.list_starts[1]] = 0x7F;  // "alphabet" -> id 127
  testutil::write_file(dir_.file("bad.tsidx"), b);
  const struct {
    std::vector<std::string> args;
    int status;
    const char* err;
  } cases[] = {
      {{path_, "--postings", "nope"}, 1, "is not in"},
      {{path_, "--events", "alph"}, 1, "is not in"},
      {{dir_.file("missing.tsidx")}, 1, "No such file"},
      {{dir_.file("bad.tsidx"), "--events", "alphabet"}, 1, "not below num_values"},
      {{path_, "--bogus"}, 2, "usage: tarnix-dump"},
      {{path_, "--postings"}, 2, "usage: tarnix-dump"},
      {{path_, "--values", "--limit", "x"}, 2, "not a number"},
      {{path_, "--values", "--limit", " -5"}, 2, "not a number:  -5"},
      {{path_, "--prefix", "a"}, 2, "--prefix needs --terms"},
      {{}, 2, "no FILE"},
      {{dir_.file("fifo")}, 1, "fifo: not a regular file"},  // refused at once, not waited on
      {{dir_.path()}, 1, ": Is a directory"},
  };
  ASSERT_EQ(mkfifo(dir_.file("fifo").c_str(), 0600), 0);
  for (const auto& c : cases) {
    auto r = dump(c.args);
    EXPECT_EQ(r.status, c.status) << c.err;
    EXPECT_NE(r.err.find(c.err), std::string::npos) << c.err << "\n" << r.err;
  }
  // Output that could not be written is not a dump.
  auto full = testutil::run({"/bin/sh", "-c", "exec \"$0\" \"$@\" >/dev/full", testutil::bin("tarnix-dump"), path_,
                             "--values"});
  EXPECT_EQ(full.status, 1);
  EXPECT_EQ(full.err, "tarnix-dump: writing the output failed: No space left on device\n");
  auto r = dump({"--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("--events TERM"), std::string::npos);
  // Nor is a help text that could not be written, from any tool.
  for (const char* tool : {"tarnix-dump", "tarnix-check", "tarnix-index", "tarnix-lex", "tarnix-killtest"}) {
    full = testutil::run({"/bin/sh", "-c", "exec \"$0\" --help >/dev/full", testutil::bin(tool)});
    EXPECT_EQ(full.status, 1) << tool;
    EXPECT_EQ(full.err, std::string(tool) + ": writing the help text failed\n");
  }
}

TEST(TarnixDumpLexicon, LexiconOnlyFileTerms) {
  TempDir d;
  testutil::write_file(d.file("merged_lexicon.lex"), testutil::build_lexicon_file({"a", "ab", "b"}, {3, 1, 4}, 2));
  auto r = dump({d.file("merged_lexicon.lex"), "--terms"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "a\t3\nab\t1\nb\t4\n");
  r = dump({d.file("merged_lexicon.lex"), "--postings", "a"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("no posting lists"), std::string::npos);
}

// ---- agreement with the library's reader on a merged file ---------------------------

TEST(TarnixDumpAgreement, PostingsMatchTheLibraryReaderOnAMergedFile) {
  TempDir d;
  std::vector<std::string> files;
  for (uint32_t s = 1; s <= 4; ++s) files.push_back(write_slice(d.path(), s, 200, 0));
  const std::string out = merge_files(d.file("m.merge"), files, 5);
  wrc w{};
  warm* wm = st_warm_slice_open(out.c_str(), 0, &w);
  ASSERT_NE(wm, nullptr) << w.warm_rc;
  auto terms = dump({out, "--terms"});
  ASSERT_EQ(terms.status, 0) << terms.err;
  std::istringstream lines(terms.out);
  uint32_t n = 0;
  for (std::string line; std::getline(lines, line); ++n) {
    const std::string term = line.substr(0, line.find('\t'));
    auto r = dump({out, "--postings", term});
    ASSERT_EQ(r.status, 0) << term << r.err;
    const uint32_t id = st_fclex_get(wm->lex, term.c_str(), nullptr);
    ASSERT_EQ(id, n) << term;
    plist_reader pr;
    ASSERT_EQ(_init_reader(&pr, wm, 1024, nullptr), 0);
    ASSERT_EQ(_seek_reader(&pr, id), 0);
    std::string expect;
    uint32_t v;
    while (_next(&pr, &v) == 0 && v != END_OF_LIST) expect += std::to_string(v) + "\n";
    close_plist_reader(&pr);
    EXPECT_EQ(r.out, expect) << term;
  }
  EXPECT_EQ(n, st_warm_slice_terms(wm));
  st_warm_slice_close(wm);
}

}  // namespace
