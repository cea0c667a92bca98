#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "searchthing/fclex.h"
#include "searchthing/fclex_io.h"
#include "testutil/lexutil.h"
#include "testutil/testutil.h"

using namespace tarnix;
using testutil::TempDir;

namespace {

using terms_t = std::vector<std::string>;

struct source {
  terms_t terms;
  uint32_t tperb;
};

struct merge_result {
  int rc = 0;
  wrc w{};
  uint32_t merged = 0;
  terms_t terms;              // read back from the closed writer's section
  std::vector<bmap_t> bmaps;  // the first `merged` bitmaps
  std::vector<uint64_t> offsets;
  std::vector<uint64_t> ends;
  std::vector<uint64_t> sizes;  // st_fclex_size_fd of each source
  std::vector<uint8_t> section;
};

// Writes every source into one file (each behind a few junk bytes, so that
// offsets matter), then the raw sections as they are, merges them and
// closes the writer into a second file. split_min: 0 merges with
// st_fclex_merge_n, else with _fclex_merge_n_split and that many source
// terms as the least to split.
merge_result run_merge(const std::vector<source>& sources, uint32_t tperb, uint64_t page_sz = 0,
                       const std::vector<std::vector<uint8_t>>& raw = {}, uint64_t split_min = 0, int verbose = 0) {
  merge_result r;
  TempDir dir;
  int fd = open(dir.file("src").c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  uint64_t at = 0;
  for (size_t i = 0; i < sources.size() + raw.size(); ++i) {
    at += 3 + i % 5;
    r.offsets.push_back(at);
    uint64_t end = 0;
    if (i < sources.size()) {
      EXPECT_EQ(testutil::write_with_writer(fd, at, sources[i].terms, sources[i].tperb, 0, &end), 0);
    } else {
      const auto& bytes = raw[i - sources.size()];
      EXPECT_EQ(pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(at)),
                static_cast<ssize_t>(bytes.size()));
      end = at + bytes.size();
    }
    r.sizes.push_back(st_fclex_size_fd(fd, at));
    at = end;
  }
  std::vector<int> fds(r.offsets.size(), fd);
  r.ends.assign(r.offsets.size(), 0);
  lex_writer writer{};
  bmap_t* which = nullptr;
  const uint32_t n = static_cast<uint32_t>(fds.size());
  if (split_min == 0) {
    r.rc = st_fclex_merge_n(verbose, fds.data(), r.offsets.data(), n, tperb, page_sz, &writer, &r.merged, &which,
                            r.ends.data(), &r.w);
  } else {
    r.rc = _fclex_merge_n_split(verbose, fds.data(), r.offsets.data(), n, tperb, page_sz, &writer, &r.merged,
                                &which, r.ends.data(), &r.w, split_min);
  }
  if (r.rc == 0 && r.merged > 0) {
    r.bmaps.assign(which, which + r.merged);
    int out = open(dir.file("out").c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    uint64_t end = 0;
    EXPECT_EQ(_lex_writer_close(0, &writer, out, 0, &end), 0);
    EXPECT_EQ(testutil::read_with_reader(out, 0, &r.terms), 0);
    close(out);
    r.section = testutil::read_file(dir.file("out"));
    EXPECT_EQ(r.section.size(), end);
  } else {
    _lex_writer_discard(&writer);
  }
  _bmap_free(which);
  close(fd);
  return r;
}

// Worked merges: the union in order, one bit per source holding the term,
// and each source's end offset just after its section.
TEST(FclexMerge, WorkedExamples) {
  struct row {
    std::vector<source> sources;
    terms_t terms;
    std::vector<bmap_t> bmaps;
  };
  const row rows[] = {
      {{{{"x", "z"}, 2}, {{"y", "z"}, 2}}, {"x", "y", "z"}, {1, 2, 3}},
      {{{{"t"}, 1}, {{"t"}, 4}, {{"t"}, 64}}, {"t"}, {7}},
      {{{{"a", "c", "e"}, 1}, {{"b", "d"}, 2}, {{"apple", "apt", "bat"}, 64}},
       {"a", "apple", "apt", "b", "bat", "c", "d", "e"},
       {1, 4, 4, 2, 4, 1, 2, 1}},
  };
  for (const row& w : rows) {
    SCOPED_TRACE(w.terms.back());
    merge_result r = run_merge(w.sources, 4);
    ASSERT_EQ(r.rc, 0);
    EXPECT_EQ(r.merged, w.terms.size());
    EXPECT_EQ(r.terms, w.terms);
    EXPECT_EQ(r.bmaps, w.bmaps);
    for (size_t i = 0; i < w.sources.size(); ++i) {
      EXPECT_GT(r.sizes[i], 0u);
      EXPECT_EQ(r.ends[i], r.offsets[i] + r.sizes[i]);
    }
  }
}

TEST(FclexMerge, OneSourceIsReblocked) {
  std::mt19937 rng(1);
  terms_t terms = testutil::random_terms(rng, 1500, true);
  for (uint32_t tperb : {1u, 3u, 64u}) {
    SCOPED_TRACE(tperb);
    merge_result r = run_merge({{terms, 8}}, tperb, 9);
    ASSERT_EQ(r.rc, 0);
    EXPECT_EQ(r.terms, terms);
    EXPECT_EQ(r.section, testutil::build_with_writer(terms, tperb));
    EXPECT_TRUE(std::all_of(r.bmaps.begin(), r.bmaps.end(), [](bmap_t b) { return b == 1; }));
  }
}

// A source written as one block of more than 2^32 / 2052 terms (what a
// huge or negative block size gives) must merge again: its reader's buffer
// is bounded by the section, not by the block size.
TEST(FclexMerge, OneBlockOfMillionsOfTermsMergesAgain) {
  terms_t terms(2100000);
  for (size_t i = 0; i < terms.size(); ++i) terms[i] = "t" + std::to_string(10000000 + i);
  merge_result r = run_merge({{terms, 0xFFFFFFFFu}}, 64);
  ASSERT_EQ(r.rc, 0) << r.w.message;
  EXPECT_EQ(r.merged, terms.size());
  EXPECT_TRUE(r.terms == terms);
}

// The property the posting merge relies on: source i's m-th term is the
// merged term at which source i's m-th set bit occurs.
void check_against_model(const std::vector<source>& sources, const merge_result& r) {
  std::map<std::string, bmap_t> model;
  for (size_t i = 0; i < sources.size(); ++i) {
    for (const auto& t : sources[i].terms) model[t] |= 1u << i;
  }
  ASSERT_EQ(r.merged, model.size());
  ASSERT_EQ(r.terms.size(), model.size());
  size_t k = 0;
  for (const auto& [term, bits] : model) {
    ASSERT_EQ(r.terms[k], term) << k;
    ASSERT_EQ(r.bmaps[k], bits) << k;
    ++k;
  }
  for (size_t i = 0; i < sources.size(); ++i) {
    size_t m = 0;
    for (size_t t = 0; t < r.merged; ++t) {
      if (_bmap_is_set(&r.bmaps[t], static_cast<uint32_t>(i))) {
        ASSERT_EQ(r.terms[t], sources[i].terms[m++]);
      }
    }
    EXPECT_EQ(m, sources[i].terms.size());
  }
}

const uint32_t kTperbs[] = {1, 2, 3, 8, 64};

// n sources drawn from one pool (so that they overlap in every pattern),
// each keeping min_keep to 99 percent of it, with a random tperb each.
std::vector<source> random_sources(std::mt19937& rng, size_t n, size_t pool_base, bool long_terms,
                                   uint32_t min_keep) {
  terms_t pool = testutil::random_terms(rng, pool_base + rng() % (4 * pool_base), long_terms);
  std::vector<source> sources(n);
  for (source& s : sources) {
    s.tperb = kTperbs[rng() % 5];
    const uint32_t keep = min_keep + rng() % (100 - min_keep);
    for (const auto& t : pool) {
      if (rng() % 100 < keep) s.terms.push_back(t);
    }
    if (s.terms.empty()) s.terms.push_back(pool[rng() % pool.size()]);
  }
  return sources;
}

TEST(FclexMerge, RandomSourcesMatchTheUnionModel) {
  std::mt19937 rng(2024);
  for (int round = 0; round < 12; ++round) {
    SCOPED_TRACE(round);
    const size_t n = round == 0 ? 32 : 1 + rng() % 32;
    const std::vector<source> sources = random_sources(rng, n, 400, round % 3 == 0, 1);
    merge_result r = run_merge(sources, kTperbs[rng() % 5], round % 2 ? 64 : 0);
    ASSERT_EQ(r.rc, 0);
    check_against_model(sources, r);
    for (size_t i = 0; i < n; ++i) EXPECT_EQ(r.ends[i], r.offsets[i] + r.sizes[i]);
  }
}

TEST(FclexMerge, DamagedSourceStopsTheMergeWithItsIndex) {
  std::vector<uint8_t> good = testutil::build_with_writer({"apple", "apply", "apt", "bat", "bath"}, 4);
  struct damage {
    const char* name;
    size_t at;
    std::vector<uint8_t> with;
    int rc;
    const char* message;
  } cases[] = {
      // A section without terms stops the merge like any damage: the index
      // merge leaves out files without terms before it gets here.
      {"zero terms", 0, {0, 0, 0, 0}, WS_EEMPTYLEX, "_lex_reader_open in st_fclex_merge_n"},
      {"zero terms per block", 4, {0, 0, 0, 0}, WS_EEMPTYLEX, "_lex_reader_open in st_fclex_merge_n"},
      {"section past the end of the file", 16, {0, 0, 0x10, 0}, WS_EREAD,
       "_lex_reader_open in st_fclex_merge_n"},
      {"bad first term", 20, {0x80, 0x80, 0x80, 0x80, 0x80}, WS_EDATA,
       "_reload_term in st_fclex_merge_n"},
      {"bad later term", 29, {0x40}, WS_EDATA, "_reload_term in st_fclex_merge_n"},
      {"bad second block", 36, {0x00}, WS_EDATA, "_reload_term in st_fclex_merge_n"},
  };
  for (const auto& d : cases) {
    SCOPED_TRACE(d.name);
    std::vector<uint8_t> bad = good;
    std::copy(d.with.begin(), d.with.end(), bad.begin() + static_cast<long>(d.at));
    merge_result r = run_merge({{{"a"}, 1}, {{"b", "c"}, 2}}, 4, 0, {bad});
    EXPECT_EQ(r.rc, d.rc);
    EXPECT_EQ(r.w.warm_rc, d.rc);
    EXPECT_EQ(r.w.source_index, 2);
    EXPECT_STREQ(r.w.message, d.message);
  }
}

// A source whose terms do not strictly ascend is refused, naming it, wherever
// the disorder sits: first bytes, after a long shared prefix, a term that is
// a prefix of the one before, a repeat (front coding that takes the whole
// previous term), and a front-coded prefix shorter than the bytes really
// shared.
TEST(FclexMerge, SourceOutOfOrderIsRefused) {
  // One block of tperb 2 holding "abc" twice: 03 "abc", then prefix 3 and no
  // suffix.
  const std::vector<uint8_t> repeat = {0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0, 6, 0, 0, 0, 5, 3, 'a', 'b', 'c', 3};
  // "abc", then prefix 1 and suffix "bb" ("abb": shares 2 bytes, not 1).
  std::vector<uint8_t> short_prefix = {0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0, 6, 0, 0, 0, 7, 3, 'a', 'b', 'c', 1, 'b', 'b'};
  struct row {
    const char* name;
    std::vector<source> sources;
    std::vector<std::vector<uint8_t>> raw;
    int32_t index;
  };
  const row rows[] = {
      {"descending first byte", {{{"a", "c"}, 4}, {{"b", "a"}, 4}}, {}, 1},
      {"after a shared prefix", {{{"source::/var/log/b", "source::/var/log/c"}, 2},
                                 {{"source::/var/log/a", "source::/var/log/b", "source::/var/log/ab"}, 8}}, {}, 1},
      {"high bytes", {{{"x\xc3\xa9", "x\x41"}, 3}}, {}, 0},
      {"repeat", {{{"ab", "abd"}, 2}}, {repeat}, 1},
      {"short front-coded prefix", {{{"abb", "abd"}, 2}}, {short_prefix}, 1},
  };
  for (const row& w : rows) {
    SCOPED_TRACE(w.name);
    merge_result r = run_merge(w.sources, 4, 0, w.raw);
    EXPECT_EQ(r.rc, WS_EDATA);
    EXPECT_EQ(r.w.source_index, w.index);
    EXPECT_STREQ(r.w.message, "terms out of order in st_fclex_merge_n");
  }
  // A short front-coded prefix in order is fine: "abc" after "abb".
  std::copy_n("abb\x01" "bc", 6, short_prefix.begin() + 17);
  merge_result ok = run_merge({{{"abb", "abd"}, 2}}, 4, 0, {short_prefix});
  ASSERT_EQ(ok.rc, 0);
  EXPECT_EQ(ok.terms, (terms_t{"abb", "abc", "abd"}));
  EXPECT_EQ(ok.bmaps, (std::vector<bmap_t>{3, 2, 1}));
}

// A merge split at a pivot term (its halves on two threads) gives the
// section, bitmaps and end offsets of one pass; with a damaged source, the
// code, message and source index of one pass, whichever half meets the
// damage (the upper half gives up and the lower one goes on through it).
TEST(FclexMerge, SplitMergeMatchesOnePass) {
  std::mt19937 rng(99);
  int faults = 0;
  for (int round = 0; round < 10; ++round) {
    SCOPED_TRACE(round);
    const size_t n = round == 0 ? 32 : 1 + rng() % 12;
    const std::vector<source> sources = random_sources(rng, n, 300, round % 3 == 0, 5);
    const uint32_t tperb = kTperbs[rng() % 5];
    const merge_result one = run_merge(sources, tperb, 0, {}, UINT64_MAX);
    const merge_result two = run_merge(sources, tperb, 0, {}, 1);
    ASSERT_EQ(one.rc, 0);
    ASSERT_EQ(two.rc, 0);
    EXPECT_EQ(two.merged, one.merged);
    EXPECT_EQ(two.bmaps, one.bmaps);
    EXPECT_EQ(two.ends, one.ends);
    EXPECT_TRUE(two.section == one.section);

    // The largest source (the pivot's) out of order or undecodable at a
    // quarter, half or three quarters of its terms.
    size_t largest = 0;
    for (size_t i = 0; i < n; ++i) {
      if (sources[i].terms.size() > sources[largest].terms.size()) largest = i;
    }
    if (sources[largest].terms.size() < 8) continue;
    for (int at : {1, 2, 3}) {
      std::vector<source> bad = sources;
      terms_t& t = bad[largest].terms;
      const size_t k = t.size() * static_cast<size_t>(at) / 4;
      std::swap(t[k], t[k + 1]);
      const merge_result a = run_merge(bad, tperb, 0, {}, UINT64_MAX);
      const merge_result b = run_merge(bad, tperb, 0, {}, 1);
      // (A swap of a term and its extension leaves the extension alone: the
      // writer drops a term that is a prefix of the one before.)
      faults += a.rc == WS_EDATA;
      EXPECT_EQ(b.rc, a.rc);
      EXPECT_EQ(b.w.source_index, a.w.source_index);
      EXPECT_STREQ(b.w.message, a.w.message);
    }
  }
  EXPECT_GE(faults, 15);
}

// Two damaged sources: the pivot's has a term above every other early on
// (so its next term is out of order), the other a term out of order just
// above the pivot. One pass holds the first source at its high term and
// meets the second's fault first; the split merge must name the same source
// although its lower half reaches the high term before its split point.
TEST(FclexMerge, SplitMergeNamesTheSourceOnePassNames) {
  std::vector<source> sources(2);
  for (int s = 0; s < 2; ++s) {
    for (int t = 0; t < 2000 - 500 * s; ++t) sources[s].terms.push_back("w" + std::to_string(100000 + t));
    sources[s].tperb = 8;
  }
  sources[0].terms[100] = "w2";
  sources[1].terms[1001] = "w11";  // the pivot is the pivot source's middle term, "w101000"
  const merge_result one = run_merge(sources, 8, 0, {}, UINT64_MAX);
  ASSERT_EQ(one.rc, WS_EDATA);
  ASSERT_EQ(one.w.source_index, 1);
  ASSERT_STREQ(one.w.message, "terms out of order in st_fclex_merge_n");
  const merge_result two = run_merge(sources, 8, 0, {}, 1);
  EXPECT_EQ(two.rc, one.rc);
  EXPECT_EQ(two.w.source_index, one.w.source_index);
  EXPECT_STREQ(two.w.message, one.w.message);
}

TEST(FclexMerge, VerboseMergePrintsTheWriterLine) {
  testing::internal::CaptureStdout();
  merge_result r = run_merge({{{"a", "b", "c"}, 2}, {{"a", "b", "c"}, 2}}, 2, 0, {}, 0, 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "creating writer, num_blocks=3, num_terms=6, page_sz=1048576.\n");
  ASSERT_EQ(r.rc, 0);
  EXPECT_EQ(r.bmaps, (std::vector<bmap_t>{3, 3, 3}));
}

TEST(FclexMergeDeath, MoreThan32SourcesIsAnAssertion) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  std::vector<int> fds(33, -1);
  std::vector<uint64_t> offsets(33, 0), ends(33, 0);
  lex_writer writer{};
  bmap_t* which = nullptr;
  uint32_t merged = 0;
  wrc w{};
  EXPECT_DEATH(st_fclex_merge_n(0, fds.data(), offsets.data(), 33, 4, 0, &writer, &merged, &which,
                                ends.data(), &w),
               testutil::re_escape("src_sz <= _bmap_size_bits( *which_srcs_o )"));
}

}  // namespace
