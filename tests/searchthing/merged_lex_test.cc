// Directory-wide lexicons: the merged lexicon of a bucket (union of the
// files' terms with summed counts), the filtered copy (native-order counts),
// the directory rules (2..32 files, locked and empty files skipped, no
// output ever replaced, stale temporaries erased), the status line, and the
// exact messages on standard output and standard error. Lexicon-only files
// are checked byte by byte with the test's own decoder and reopened through
// the index file reader.
#include "searchthing/merged_lex.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "searchthing/codes.h"
#include "searchthing/fclex.h"
#include "searchthing/lock.h"
#include "searchthing/tsidx.h"
#include "searchthing/warmslice.h"
#include "testutil/bucket_reader.h"
#include "testutil/optimize_bucket.h"
#include "testutil/testutil.h"
#include "testutil/warmfile.h"

namespace tarnix {
namespace {

using testutil::exists;
using testutil::TempDir;
using term_counts = std::map<std::string, uint32_t>;

class MergedLex : public ::testing::Test {
 protected:
  void SetUp() override { st_init(); }

  // n index files with different terms; file i holds 3 + i values.
  void fill(uint32_t n, uint32_t first_seed = 1) {
    for (uint32_t i = 0; i < n; ++i) {
      auto events = testutil::make_events(first_seed + i, 3 + i, 1000 * (first_seed + i), 5000 + 100 * i);
      ASSERT_NE(testutil::write_slice(dir.path(), events), "");
    }
  }

  // Term -> sum of the counts of every index file of the directory.
  term_counts expected_union() const {
    term_counts sum;
    for (const std::string& name : testutil::tsidx_names(dir.path())) {
      testutil::IndexContent c = testutil::read_index_file(dir.file(name));
      EXPECT_EQ(c.rc, 0) << name;
      for (const auto& [term, md] : c.metadata) sum[term] += md.count;
    }
    return sum;
  }

  int optimize(int verbose, uint32_t tperb, uint32_t min_count, int filter, wrc* w) {
    return st_optimize_lex(dir.path().c_str(), verbose, tperb, 0, min_count, filter, w);
  }
  std::string status() const { return testutil::read_text(dir.file("optimize.result")); }
  std::string merged() const { return dir.file(ST_MERGED_LEX_NAME); }
  std::string filtered() const { return dir.file(ST_FILTERED_LEX_NAME); }

  TempDir dir;
};

// The terms and counts of a lexicon-only file, decoded independently of the
// library; nothing when the layout is wrong. No values, so the metadata
// starts at 120 (values 64, five empty columns at 72..104, an empty offset
// table at 112), 4 bytes per term, then the lexicon at the next multiple of
// 8 strictly above the metadata's end.
std::optional<term_counts> lex_counts(const std::vector<uint8_t>& b, bool native) {
  if (b.size() < 64 || memcmp(b.data(), "TarLex1", 8) != 0) return {};
  for (size_t i = 8; i < 60; ++i) {
    if ((i < 16 || i >= 20) && b[i] != 0) return {};  // everything but the term count is zero
  }
  const uint32_t n = load_be32(b.data() + 16);
  const uint64_t md_end = 120 + 4ull * n;
  const uint64_t lex_off = md_end + 8 - md_end % 8;
  if (lex_off + 16 > b.size() || load_be32(b.data() + lex_off) != n) return {};
  if (lex_off + testutil::lexicon_size(b.data() + lex_off) != b.size()) return {};
  const std::vector<std::string> terms = testutil::decode_lexicon(b.data() + lex_off, b.size() - lex_off);
  if (terms.size() != n) return {};
  term_counts out;
  for (uint32_t t = 0; t < n; ++t) {
    uint32_t c;
    memcpy(&c, b.data() + 120 + 4 * t, 4);
    out[terms[t]] = native ? c : load_be32(b.data() + 120 + 4 * t);
  }
  return out;
}

std::optional<term_counts> lex_counts(const std::string& path, bool native) {
  return lex_counts(testutil::read_file(path), native);
}

// True when the file holds no header: empty, or zeros where it would be.
bool no_header(const std::string& path) {
  const auto bytes = testutil::read_file(path);
  return std::all_of(bytes.begin(), bytes.begin() + std::min<long>(static_cast<long>(bytes.size()), 60),
                     [](uint8_t b) { return b == 0; });
}

int open_in(const std::string& path) { return open(path.c_str(), O_RDONLY | O_CLOEXEC); }
int open_out(const std::string& path) { return open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600); }

// st_warm_slice_merge_lex_n of the files at srcs into out.
int merge_lex(const std::vector<std::string>& srcs, uint32_t tperb, const std::string& out, wrc* w) {
  std::vector<int> fds;
  for (const auto& s : srcs) fds.push_back(open_in(s));
  const int out_fd = open_out(out);
  const int rc = st_warm_slice_merge_lex_n(0, out_fd, fds.data(), static_cast<uint32_t>(fds.size()), tperb, 0, w);
  for (int fd : fds) close(fd);
  close(out_fd);
  return rc;
}

// st_warm_slice_filter_lex of the file at in into out.
int filter_lex(const std::string& in, uint32_t min_count, const std::string& out, wrc* w) {
  const int in_fd = open_in(in);
  const int out_fd = open_out(out);
  const int rc = st_warm_slice_filter_lex(0, out_fd, in_fd, 64, 0, min_count, w);
  close(in_fd);
  close(out_fd);
  return rc;
}

// Index files of the directory in its own listing order.
std::vector<std::string> listing_order(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  while (dirent* e = readdir(d)) {
    int32_t a, b;
    uint64_t id;
    if (st_tsidx_file_parse(e->d_name, &a, &b, &id)) names.push_back(e->d_name);
  }
  closedir(d);
  return names;
}

TEST_F(MergedLex, MergedLexiconIsTheUnionWithSummedCounts) {
  fill(4);
  const term_counts want = expected_union();
  ASSERT_GT(want.size(), 10u);
  // Four terms per block and tiny pages: many blocks, many pages.
  wrc w{};
  ASSERT_EQ(st_optimize_lex(dir.path().c_str(), 0, 4, 64, 0, 0, &w), 0) << w.warm_rc << " " << w.message;
  EXPECT_EQ(w.warm_rc, 0);
  EXPECT_FALSE(exists(merged() + ".tmp"));
  EXPECT_EQ(lex_counts(merged(), false), want);
  EXPECT_EQ(status().rfind("tarnix-optimize-lex complete with rc=0 wrc=[0,", 0), 0u) << status();
  EXPECT_EQ(status().back(), '\n');

  // The index file reader opens it as a lexicon-only file.
  wrc ow{};
  warm* h = st_warm_slice_open_fd(merged().c_str(), 0, &ow);
  ASSERT_NE(h, nullptr) << ow.warm_rc;
  EXPECT_FALSE(_has_full_metadata(warm_hdr(h)));
  ASSERT_EQ(st_warm_slice_terms(h), want.size());
  uint32_t t = 0;
  for (const auto& [term, count] : want) {
    EXPECT_EQ(st_fclex_get(h->lex, term.c_str(), nullptr), t) << term;
    EXPECT_EQ(get_metadata_entry(h, t), count) << term;
    const uint8_t* raw = _get_metadata_entry(h, t++, 1, nullptr);
    ASSERT_NE(raw, nullptr);
    EXPECT_EQ(load_be32(raw), count) << term;
  }
  st_warm_slice_close(h);

  // The library's own walk agrees.
  int fd = open_in(merged());
  term_counts walked;
  auto note = [](const char* term, uint32_t len, uint32_t count, void* cookie) {
    (*static_cast<term_counts*>(cookie))[std::string(term, len)] = count;
    return 0;
  };
  ASSERT_EQ(st_lex_file_walk(fd, 0, note, &walked, &w), 0);
  close(fd);
  EXPECT_EQ(walked, want);
}

TEST_F(MergedLex, LockedEmptyAndOtherFilesAreLeftOut) {
  fill(3);
  const std::vector<std::string> names = testutil::tsidx_names(dir.path());
  // Locked: its terms are not merged.
  testutil::write_file(dir.file(names[0]) + ".lock", {'x'});
  testutil::IndexContent locked = testutil::read_index_file(dir.file(names[0]));
  // Empty, or not an index-file name: ignored.
  testutil::write_file(dir.file("100-50-7.tsidx"), {});
  testutil::write_file(dir.file("100-50.tsidx"), {1, 2, 3});

  term_counts want;
  for (size_t i = 1; i < names.size(); ++i) {
    for (const auto& [term, md] : testutil::read_index_file(dir.file(names[i])).metadata) want[term] += md.count;
  }
  tsidx* t = st_tsidx_open(dir.path().c_str(), 1, 0, static_cast<uint32_t>(-1));
  wrc w{};
  ASSERT_EQ(st_tsidx_merge_lex_n(t, 0, 8, 0, &w), 0) << w.warm_rc;
  st_tsidx_close(t);
  EXPECT_EQ(lex_counts(merged(), false), want);
  // The locked file has terms of its own, which the merge left out.
  EXPECT_TRUE(std::any_of(locked.metadata.begin(), locked.metadata.end(),
                          [&](const auto& e) { return want.count(e.first) == 0; }));
}

// Too few files is not a failure of the operation; too many is, and then
// nothing at all is written.
TEST(MergedLexDir, FileCountLimits) {
  st_init();
  for (uint32_t files : {0, 1, 2}) {
    TempDir d;
    for (uint32_t i = 0; i < files; ++i) {
      ASSERT_NE(testutil::write_slice(d.path(), testutil::make_events(i + 1, 2, 100 * (i + 1), 10)), "");
    }
    const int recorded = files < 2 ? ST_EFEWFILES : 0;
    wrc w{};
    EXPECT_EQ(st_optimize_lex(d.path().c_str(), 0, 64, 0, 0, 0, &w), 0) << files;
    EXPECT_EQ(w.warm_rc, recorded) << files;
    EXPECT_EQ(exists(d.file(ST_MERGED_LEX_NAME)), recorded == 0) << files;
    EXPECT_EQ(testutil::read_text(d.file("optimize.result")),
              "tarnix-optimize-lex complete with rc=" + std::to_string(recorded) + " wrc=[" +
                  std::to_string(recorded) + "," + std::to_string(w.warm_errno) + "]\n")
        << files;
  }
}

TEST_F(MergedLex, ThirtyTwoFilesMergeAndThirtyThreeAreRefused) {
  for (uint32_t i = 0; i < 33; ++i) {
    ASSERT_NE(testutil::write_slice(dir.path(), testutil::make_events(i + 1, 1, 10 * (i + 1), 100 + i)), "");
  }
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  wrc w{};
  EXPECT_EQ(optimize(1, 64, 0, 0, &w), ST_ETOOMANY);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Number of tsidx files 33 exceeds the maximum number 32\n"
            "Lexicon merge aborted. Cannot merge lexicon of more than 32 tsidx files\n");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(w.warm_rc, ST_ETOOMANY);
  EXPECT_EQ(status().rfind("tarnix-optimize-lex complete with rc=-32 wrc=[-32,", 0), 0u) << status();
  EXPECT_FALSE(exists(merged()));
  EXPECT_FALSE(exists(merged() + ".tmp"));
  // Quietly: the same refusal, and not a word.
  testing::internal::CaptureStdout();
  EXPECT_EQ(optimize(0, 64, 0, 0, &w), ST_ETOOMANY);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_FALSE(exists(merged()));

  ASSERT_EQ(unlink(dir.file(testutil::tsidx_names(dir.path())[5]).c_str()), 0);
  EXPECT_EQ(optimize(0, 64, 0, 0, &w), 0) << w.warm_rc;
  EXPECT_EQ(lex_counts(merged(), false), expected_union());
}

TEST_F(MergedLex, VerboseMessagesGoToStdoutOnlyWhenAsked) {
  fill(2);
  std::string want = "creating merged lexicon from 2 tsidx files\n";
  uint32_t i = 0;
  for (const std::string& name : listing_order(dir.path())) {
    char line[8192];
    snprintf(line, sizeof line, "\t%3u. opening src_file=\"%s\", size=%lld\n", i++, dir.file(name).c_str(),
             static_cast<long long>(testutil::file_size(dir.file(name))));
    want += line;
  }
  want += "generating " + merged() + ".tmp from 2 tsidx files\n";

  for (int verbose : {0, 1}) {
    unlink(merged().c_str());
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    wrc w{};
    EXPECT_EQ(optimize(verbose, 64, 0, 0, &w), 0);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    if (verbose) {
      // Then the lexicon writer's own line.
      EXPECT_EQ(out.substr(0, want.size()), want);
      EXPECT_EQ(out.substr(want.size()).rfind("creating writer, num_blocks=", 0), 0u) << out;
    } else {
      EXPECT_EQ(out, "");
    }
  }

  // Refusals, in this order: both outputs exist, then the filter's input
  // is gone.
  testing::internal::CaptureStdout();
  wrc fw{};
  ASSERT_EQ(optimize(1, 64, 0, 1, &fw), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout().rfind("filtering merged lexicon\n", 0), 0u);
  struct {
    int filter;
    bool drop_input;
    std::string text;
  } refusals[] = {
      {0, false, "Lexicon merge aborted. Output file \"" + merged() + "\" already exists.\n"},
      {1, false, "Lexicon filtering aborted. Output file \"" + filtered() + "\" already exists.\n"},
      {1, true, "Lexicon filtering aborted. Input file \"" + merged() + "\" does not exist.\n"},
  };
  for (const auto& r : refusals) {
    if (r.drop_input) unlink(merged().c_str());
    testing::internal::CaptureStdout();
    wrc w{};
    EXPECT_EQ(optimize(1, 64, 0, r.filter, &w), ST_EEXISTS);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), r.text);
  }
}

TEST_F(MergedLex, SecondRunStopsAndLeavesTheOutputUntouched) {
  fill(3);
  wrc w{};
  ASSERT_EQ(optimize(0, 64, 0, 0, &w), 0);
  const auto first = testutil::read_file(merged());
  // New files arrive; the existing output is still not replaced.
  fill(1, 50);
  EXPECT_EQ(optimize(0, 64, 0, 0, &w), ST_EEXISTS);
  EXPECT_EQ(w.warm_rc, ST_EEXISTS);
  EXPECT_EQ(status().rfind("tarnix-optimize-lex complete with rc=-28 wrc=[-28,", 0), 0u) << status();
  EXPECT_EQ(testutil::read_file(merged()), first);
  EXPECT_FALSE(exists(merged() + ".tmp"));

  ASSERT_EQ(optimize(0, 64, 2, 1, &w), 0);
  const auto filtered_first = testutil::read_file(filtered());
  EXPECT_EQ(optimize(0, 64, 0, 1, &w), ST_EEXISTS);
  EXPECT_EQ(testutil::read_file(filtered()), filtered_first);
}

TEST_F(MergedLex, StaleTemporaryIsErasedAndReplaced) {
  fill(2);
  for (int filter : {0, 1}) {
    const std::string out = filter ? filtered() : merged();
    testutil::write_file(out + ".tmp", std::vector<uint8_t>(100, 0xAB));
    testing::internal::CaptureStderr();
    wrc w{};
    EXPECT_EQ(optimize(0, 64, 1, filter, &w), 0) << w.warm_rc;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_FALSE(exists(out + ".tmp"));
    EXPECT_EQ(lex_counts(out, filter != 0), expected_union()) << out;
  }
}

// A temporary that cannot be erased is reported on standard error even
// without verbose; the exclusive create then fails.
TEST_F(MergedLex, EraseWarningGoesToStderrAlways) {
  fill(2);
  const std::string tmp = merged() + ".tmp";
  ASSERT_EQ(mkdir(tmp.c_str(), 0700), 0);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  wrc w{};
  EXPECT_EQ(optimize(0, 64, 0, 0, &w), WS_EOPEN);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR failed to erase lex tempfile=" + tmp +
                                                        ", lex-optimize will likely fail; errno=" +
                                                        std::to_string(EISDIR) + "\n");
  EXPECT_FALSE(exists(merged()));
  rmdir(tmp.c_str());
}

TEST_F(MergedLex, FilterKeepsTermsWithCountAtLeastMinInNativeOrder) {
  fill(5);
  wrc w{};
  ASSERT_EQ(optimize(0, 64, 0, 0, &w), 0);
  const term_counts all = expected_union();
  uint32_t top = 0;
  for (const auto& [term, c] : all) top = std::max(top, c);
  ASSERT_GT(top, 2u);

  for (uint32_t min_count : {0u, 1u, 2u, 3u, top}) {
    SCOPED_TRACE(min_count);
    unlink(filtered().c_str());
    term_counts want;
    for (const auto& [term, c] : all) {
      if (c >= min_count) want[term] = c;
    }
    ASSERT_FALSE(want.empty());
    ASSERT_EQ(optimize(0, 3, min_count, 1, &w), 0) << w.warm_rc;
    EXPECT_EQ(lex_counts(filtered(), true), want);

    int fd = open_in(filtered());
    uint32_t kept = 0;
    EXPECT_EQ(st_lex_file_count_kept(fd, 0, &kept, &w), 0);
    EXPECT_EQ(kept, want.size());
    close(fd);

    // Reopened by the index file reader: the entries hold native-order words.
    wrc ow{};
    warm* h = st_warm_slice_open_fd(filtered().c_str(), 0, &ow);
    ASSERT_NE(h, nullptr) << ow.warm_rc;
    ASSERT_EQ(st_warm_slice_terms(h), want.size());
    uint32_t t = 0;
    for (const auto& [term, count] : want) {
      const uint8_t* raw = _get_metadata_entry(h, t, 1, nullptr);
      ASSERT_NE(raw, nullptr);
      uint32_t native;
      memcpy(&native, raw, 4);
      EXPECT_EQ(native, count) << term;
      EXPECT_EQ(get_metadata_entry(h, t), load_be32(raw));
      EXPECT_EQ(st_fclex_get(h->lex, term.c_str(), nullptr), t++);
    }
    st_warm_slice_close(h);
  }
  // The merged input is untouched by filtering.
  EXPECT_EQ(lex_counts(merged(), false), all);
}

// Keeping no term cannot make a lexicon: the writer's promise of at least
// one term is an invariant of the program. Callers find out beforehand with
// st_lex_file_count_kept.
TEST_F(MergedLex, FilterKeepingNothingIsAnAssertion) {
  fill(2);
  wrc w{};
  ASSERT_EQ(optimize(0, 64, 0, 0, &w), 0);
  int in = open_in(merged());
  uint32_t kept = 1;
  EXPECT_EQ(st_lex_file_count_kept(in, 0xFFFFFFFFu, &kept, &w), 0);
  EXPECT_EQ(kept, 0u);
  const std::string out_path = dir.file("out.lex");
  EXPECT_DEATH(
      {
        wrc dw{};
        st_warm_slice_filter_lex(0, open_out(out_path), in, 64, 0, 0xFFFFFFFFu, &dw);
      },
      "terms > 0");
  close(in);
}

// Index files written by the test's own builder, to reach the failure paths.
std::string put_index(const TempDir& d, const std::string& name, const std::vector<std::string>& terms) {
  std::vector<std::pair<std::string, tsval>> events;
  uint32_t addr = 1;
  for (const std::string& t : terms) events.push_back({t, tsval{100, addr++, 0, 0, 0, 0}});
  testutil::write_file(d.file(name), testutil::build_index_file(testutil::model_from_events(events)));
  return d.file(name);
}

TEST(MergedLexFiles, MergeFailuresRecordCodeAndLeaveNoHeader) {
  TempDir d;
  const std::string good = put_index(d, "a", {"alpha", "beta"});
  const std::string bad = put_index(d, "b", {"gamma"});
  auto bad_magic = testutil::read_file(bad);
  bad_magic[0] = 't';
  testutil::write_file(bad, bad_magic);
  const std::string shortfile = d.file("c");
  testutil::write_file(shortfile, {'T', 'a', 'r'});
  const std::string noterms = put_index(d, "e", {});

  struct {
    std::vector<std::string> srcs;
    int rc;
    int index;
    const char* message;
  } cases[] = {
      {{good, bad}, WS_EMAGIC, 1, "invalid magic"},
      {{shortfile, good}, WS_EREAD, 0, "pread warm header failure"},
      {{noterms, noterms}, WS_ENOTAVAIL, -1, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    wrc w{};
    EXPECT_EQ(merge_lex(c.srcs, 8, d.file("out"), &w), c.rc);
    EXPECT_EQ(w.warm_rc, c.rc);
    EXPECT_EQ(w.source_index, c.index);
    EXPECT_STREQ(w.message, c.message);
    EXPECT_TRUE(no_header(d.file("out")));
  }

  // A source without terms beside one with terms merges.
  wrc w{};
  EXPECT_EQ(merge_lex({noterms, good}, 8, d.file("out"), &w), 0);
  EXPECT_EQ(lex_counts(d.file("out"), false), (term_counts{{"alpha", 1}, {"beta", 1}}));
}

TEST(MergedLexFiles, FilterAndWalkRefuseDamagedInput) {
  TempDir d;
  // A good lexicon-only file made by the merge.
  const std::string b = put_index(d, "b", {"two", "four"});
  wrc w{};
  ASSERT_EQ(merge_lex({put_index(d, "a", {"one", "two", "three"}), b}, 2, d.file("lex"), &w), 0);
  const auto lex = testutil::read_file(d.file("lex"));
  ASSERT_EQ(lex_counts(lex, false), (term_counts{{"four", 1}, {"one", 1}, {"three", 1}, {"two", 2}}));

  std::vector<uint8_t> bad_magic = lex;
  bad_magic[6] = '2';
  std::vector<uint8_t> huge_count = lex;
  store_be32(huge_count.data() + 16, 100000);  // metadata would run past the end
  std::vector<uint8_t> count_mismatch = lex;
  store_be32(count_mismatch.data() + 16, 5);  // same lexicon offset; the lexicon says 4
  struct {
    const char* name;
    std::vector<uint8_t> bytes;
    int rc;
  } cases[] = {
      {"magic", bad_magic, WS_EMAGIC},
      {"huge", huge_count, WS_ETRUNC},
      {"mismatch", count_mismatch, WS_EDATA},
      {"cut", std::vector<uint8_t>(lex.begin(), lex.end() - 3), WS_EREAD},
      {"short", {'T', 'a', 'r', 'L', 'e', 'x', '1', 0}, WS_EREAD},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    testutil::write_file(d.file(c.name), c.bytes);
    wrc fw{};
    EXPECT_EQ(filter_lex(d.file(c.name), 0, d.file("filtered"), &fw), c.rc);
    EXPECT_TRUE(no_header(d.file("filtered")));
    int in = open_in(d.file(c.name));
    wrc ww{};
    EXPECT_EQ(st_lex_file_walk(in, 0, [](const char*, uint32_t, uint32_t, void*) { return 0; }, nullptr, &ww), c.rc);
    close(in);
  }

  // Filtering an index file (full metadata) works as well.
  EXPECT_EQ(filter_lex(b, 1, d.file("filtered"), &w), 0);
  EXPECT_EQ(lex_counts(d.file("filtered"), true), (term_counts{{"four", 1}, {"two", 1}}));
}

TEST(MergedLexDir, MissingDirectoryIsReportedAndNoStatusIsWritten) {
  TempDir d;
  const std::string missing = d.file("nope");
  testing::internal::CaptureStderr();
  wrc w{};
  EXPECT_EQ(st_optimize_lex(missing.c_str(), 0, 64, 0, 0, 0, &w), WS_ENOTAVAIL);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "failed to open file " + missing + "/optimize.result\n");
}

}  // namespace
}  // namespace tarnix
