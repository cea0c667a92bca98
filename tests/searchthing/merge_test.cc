// N-way merge of index files: worked examples of the value, posting and
// metadata merges, the driver's failure table, mixed versions, and a
// property test over groups written by the index file writer, all checked
// against an independent parse of the target's bytes and a model merge.
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "searchthing/codes.h"
#include "searchthing/hotslice.h"
#include "searchthing/warmslice.h"
#include "searchthing/warmslice_merge.h"
#include "testutil/testutil.h"
#include "testutil/warmfile.h"

// While g_thread_refusal is set, no thread starts: pthread_create fails as
// it does when the system has no task left (1), or throws as the allocation
// of a thread's state does when memory runs out (2).
namespace {
std::atomic<int> g_thread_refusal{0};
}
extern "C" int pthread_create(pthread_t* t, const pthread_attr_t* attr, void* (*fn)(void*), void* arg) {
  using create_fn = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const auto real = reinterpret_cast<create_fn>(dlsym(RTLD_NEXT, "pthread_create"));
  switch (g_thread_refusal.load()) {
    case 1:
      return EAGAIN;
    case 2:
      throw std::bad_alloc();
    default:
      return real(t, attr, fn, arg);
  }
}

namespace tarnix {
namespace {

using testutil::ModelFile;
using testutil::ModelTerm;
using testutil::ModelValue;
using bytes = std::vector<uint8_t>;

// The model of a merge: values in the value merge's order, equal
// (timestamp, address) neighbours made one unless tstats, the columns of the
// last copy in source order, the lists through the mapping.
ModelFile reference_merge(const std::vector<ModelFile>& srcs, bool tstats, uint32_t tperb) {
  struct Entry {
    ModelValue v;
    uint32_t src, j;
  };
  auto key_less = [](const ModelValue& a, const ModelValue& b) {  // a is written before b
    return a.ts != b.ts ? a.ts > b.ts : a.addr > b.addr;
  };
  // Taken in the value merge's order: pick the first of the smallest heads
  // (ties: earlier source), drain it while its head is not after the
  // runner-up's (so at equal heads the draining source goes on).
  std::vector<Entry> all;
  std::vector<uint32_t> cur(srcs.size(), 0);
  auto head = [&](uint32_t s) {
    ModelValue v = srcs[s].values[cur[s]];
    // A 32-bit column element always reads as 0 (the decode's mask quirk).
    if (srcs[s].nbits[0] == 32) v.et = 0;
    if (srcs[s].nbits[1] == 32 && !v.deleted) v.src = 0;
    if (srcs[s].nbits[2] == 32) v.stype = 0;
    if (srcs[s].nbits[3] == 32) v.host = 0;
    return v;
  };
  for (;;) {
    int best = -1, second = -1;
    for (uint32_t s = 0; s < srcs.size(); ++s) {
      if (cur[s] == srcs[s].values.size()) continue;
      if (best < 0) {
        best = static_cast<int>(s);
      } else if (key_less(head(s), head(best))) {
        second = best;
        best = static_cast<int>(s);
      } else if (second < 0 || key_less(head(s), head(second))) {
        second = static_cast<int>(s);
      }
    }
    if (best < 0) break;
    while (cur[best] < srcs[best].values.size() && (second < 0 || !key_less(head(second), head(best)))) {
      all.push_back({head(best), static_cast<uint32_t>(best), cur[best]});
      cur[best]++;
    }
  }
  ModelFile out;
  out.tperb = tperb;
  std::vector<std::vector<uint32_t>> mapping(srcs.size());
  for (uint32_t s = 0; s < srcs.size(); ++s) mapping[s].resize(srcs[s].values.size());
  for (const Entry& e : all) {
    if (out.values.empty() || tstats || out.values.back().ts != e.v.ts || out.values.back().addr != e.v.addr) {
      out.values.push_back(e.v);
    }
    mapping[e.src][e.j] = static_cast<uint32_t>(out.values.size() - 1);
  }
  // Columns: the later source (and later position) overwrites.
  std::vector<const Entry*> by_src(all.size());
  for (size_t k = 0; k < all.size(); ++k) by_src[k] = &all[k];
  std::stable_sort(by_src.begin(), by_src.end(), [](const Entry* a, const Entry* b) { return a->src < b->src; });
  for (const Entry* e : by_src) {
    ModelValue& t = out.values[mapping[e->src][e->j]];
    t = ModelValue{t.ts, t.addr, e->v.et, e->v.src, e->v.stype, e->v.host, e->v.deleted};
  }
  std::map<std::string, ModelTerm> terms;
  for (uint32_t s = 0; s < srcs.size(); ++s) {
    for (const ModelTerm& t : srcs[s].terms) {
      ModelTerm& m = terms.try_emplace(t.term, ModelTerm{t.term, {}, 0, t.earliest, t.latest}).first->second;
      m.earliest = std::min(m.earliest, t.earliest);
      m.latest = std::max(m.latest, t.latest);
      for (uint32_t id : t.ids) m.ids.push_back(mapping[s][id]);
    }
  }
  for (auto& [name, t] : terms) {
    std::sort(t.ids.begin(), t.ids.end());
    t.ids.erase(std::unique(t.ids.begin(), t.ids.end()), t.ids.end());
    t.count = static_cast<uint32_t>(t.ids.size());
    out.num_postings += t.count;
    out.terms.push_back(t);
  }
  for (int c = 0; c < 4; ++c) {
    for (const ModelFile& s : srcs) out.nbits[c] = std::max(out.nbits[c], s.nbits[c]);
  }
  return out;
}

// The first difference of two sequences, for readable failures.
template <class T>
void expect_same(const std::vector<T>& got, const std::vector<T>& want, const char* what) {
  EXPECT_EQ(got.size(), want.size()) << what;
  for (size_t k = 0; k < std::min(got.size(), want.size()); ++k) {
    if (!(got[k] == want[k])) {
      ADD_FAILURE() << what << " differ first at " << k << ": got " << ::testing::PrintToString(got[k])
                    << " want " << ::testing::PrintToString(want[k]);
      return;
    }
  }
}

struct MergeRun {
  int rc = 0;
  wrc w{};
  bytes target;
  uint32_t postings = 0;  // the header's count, of a posting merge alone
  std::vector<uint32_t> counts;
};

// What the merge's phases leave when run one by one; freed with the record.
enum phase : int { kValues = 1, kColumns = 2, kLexicon = 4, kAllButPostings = 7 };
struct Phases {
  Phases() = default;
  Phases(const Phases&) = delete;
  ~Phases() {
    _bmap_free(which);
    free(mapping);
    free(hdrs);
  }
  uint32_t n() const { return static_cast<uint32_t>(fds.size()); }
  std::vector<int> fds;
  int tfd = -1;
  wrc w{};
  warm_header* hdrs = nullptr;
  warm_header tgt{};
  uint32_t* mapping = nullptr;
  bmap_t* which = nullptr;
  uint64_t starts[32] = {}, tgt_start = 0;
};

class MergeTest : public ::testing::Test {
 protected:
  void TearDown() override { release(); }
  void release() {
    for (int fd : fds_) close(fd);
    fds_.clear();
  }
  int keep(int fd) {
    EXPECT_GE(fd, 0);
    fds_.push_back(fd);
    return fd;
  }
  // Writes and opens the sources; they stay open until release().
  std::vector<int> sources(const std::vector<bytes>& files) {
    std::vector<int> fds;
    for (const bytes& f : files) {
      const std::string p = dir_.file("src" + std::to_string(counter_++) + ".tsidx");
      testutil::write_file(p, f);
      fds.push_back(keep(open(p.c_str(), O_RDONLY | O_CLOEXEC)));
    }
    return fds;
  }
  // A fresh target file, open for writing until release().
  int target() {
    last_target_ = dir_.file("target" + std::to_string(counter_++) + ".merge");
    return keep(open(last_target_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  }
  // Cuts an open source to size bytes, so that only the phases after this
  // point meet the damage.
  void cut_source(int fd, uint64_t size) {
    const std::string self = "/proc/self/fd/" + std::to_string(fd);
    EXPECT_EQ(ftruncate(keep(open(self.c_str(), O_WRONLY | O_CLOEXEC)), static_cast<off_t>(size)), 0);
  }

  // Merges the sources into a fresh target, returns its bytes.
  // verbose 1 runs the phases in turn on this thread (and prints the
  // lexicon writer's lines), though a large lexicon or posting merge is
  // still split in two halves; 0 also runs the lexicon merge beside the
  // value and column merges.
  MergeRun merge_files(const std::vector<bytes>& files, int tstats = 0, uint32_t tpb = 4, uint64_t page = 0,
                       int verbose = 0) {
    std::vector<int> fds = sources(files);
    const int tfd = target();
    MergeRun r{};
    r.rc = st_warm_slice_merge_n(verbose, tfd, fds.data(), static_cast<uint32_t>(fds.size()), tpb, page, &r.w, tstats);
    release();
    r.target = testutil::read_file(last_target_);
    return r;
  }

  // Runs the given phases on the sources into a fresh target; without the
  // value phase the target is a lexicon-only file.
  void run_phases(Phases& p, const std::vector<bytes>& files, int phases, int tstats = 0) {
    p.fds = sources(files);
    p.tfd = target();
    p.hdrs = _read_src_headers(p.fds.data(), p.n(), &p.w);
    ASSERT_NE(p.hdrs, nullptr);
    if (phases & kValues) {
      _init_magic(&p.tgt);
      p.mapping = _merge_values(p.fds.data(), p.hdrs, p.n(), p.tfd, &p.tgt, &p.w, tstats);
      ASSERT_NE(p.mapping, nullptr) << p.w.warm_rc;
    } else {
      _set_magic(&p.tgt, MAGIC_LEX);
    }
    if (phases & kColumns) {
      ASSERT_EQ(_merge_array(p.fds.data(), p.hdrs, p.n(), p.mapping, p.tfd, &p.tgt, &p.w), 0);
    }
    if (phases & kLexicon) {
      ASSERT_EQ(_merge_lexicon(0, p.fds.data(), p.hdrs, p.n(), 8, 0, p.tfd, &p.tgt, &p.which, p.starts,
                               &p.tgt_start, &p.w),
                0);
    }
  }

  // Merges the files and checks the result against the model merge of
  // their models.
  ModelFile check_merge(const std::vector<bytes>& files, const std::vector<ModelFile>& models, int tstats,
                        uint32_t tpb, uint64_t page = 0) {
    MergeRun r = merge_files(files, tstats, tpb, page);
    EXPECT_EQ(r.rc, 0) << r.w.message << " index " << r.w.source_index;
    std::string err;
    ModelFile got = testutil::parse_index_file(r.target, &err);
    EXPECT_EQ(err, "");
    ModelFile want = reference_merge(models, tstats != 0, tpb);
    EXPECT_EQ(got.magic, "Tarnix6");
    EXPECT_EQ(got.tperb, tpb);
    expect_same(got.values, want.values, "values");
    expect_same(got.terms, want.terms, "terms");
    EXPECT_EQ(got.num_postings, want.num_postings);
    for (int c = 0; c < 4; ++c) EXPECT_EQ(got.nbits[c], want.nbits[c]) << "column " << c;
    return got;
  }

  // Builds the sources from models (metadata filled from their lists when
  // fill is set), merges, and checks the result against the model merge.
  ModelFile merge_and_check(std::vector<ModelFile> srcs, int tstats = 0, uint32_t tpb = 4, bool fill = true) {
    std::vector<bytes> files;
    for (ModelFile& m : srcs) {
      if (fill) testutil::fill_metadata(m);
      files.push_back(testutil::build_index_file(m));
      std::string err;
      m = testutil::parse_index_file(files.back(), &err);  // widths as stored
      EXPECT_EQ(err, "");
    }
    return check_merge(files, srcs, tstats, tpb);
  }

  testutil::TempDir dir_;
  int counter_ = 0;
  std::string last_target_;
  std::vector<int> fds_;
};

ModelFile file_of(std::vector<ModelValue> values, std::vector<std::pair<std::string, std::vector<uint32_t>>> terms) {
  ModelFile m;
  m.values = std::move(values);
  for (auto& [name, ids] : terms) m.terms.push_back(ModelTerm{name, ids});
  return m;
}

bytes file_bytes(const ModelFile& m) { return testutil::build_index_file(m); }

TEST_F(MergeTest, ValueMergeMappingsWithAndWithoutTstats) {
  struct Case {
    int tstats;
    std::vector<std::pair<int32_t, uint32_t>> target;
    std::vector<uint32_t> map0, map1;
  };
  const Case cases[] = {
      {0, {{100, 7}, {95, 3}, {90, 1}}, {0, 2}, {0, 1}},
      {1, {{100, 7}, {100, 7}, {95, 3}, {90, 1}}, {0, 3}, {1, 2}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.tstats);
    const ModelFile a = file_of({{100, 7}, {90, 1}}, {{"a", {0, 1}}});
    ModelFile b = file_of({{100, 7}, {95, 3}}, {{"a", {0, 1}}});
    {
      Phases p;
      ASSERT_NO_FATAL_FAILURE(run_phases(p, {file_bytes(a), file_bytes(b)}, kValues, c.tstats));
      EXPECT_EQ(hdr_num_values(&p.tgt), c.target.size());
      EXPECT_EQ(std::vector<uint32_t>(p.mapping, p.mapping + 2), c.map0);
      EXPECT_EQ(std::vector<uint32_t>(p.mapping + 2, p.mapping + 4), c.map1);
    }
    release();
    bytes t = testutil::read_file(last_target_);
    ASSERT_EQ(t.size(), 64 + 8 * c.target.size());
    for (size_t k = 0; k < c.target.size(); ++k) {
      EXPECT_EQ(static_cast<int32_t>(load_be32(&t[64 + 8 * k])), c.target[k].first);
      EXPECT_EQ(load_be32(&t[68 + 8 * k]), c.target[k].second);
    }
    // And through the whole merge.
    b.terms.push_back(ModelTerm{"b", {1}});
    merge_and_check({a, b}, c.tstats);
  }
}

TEST_F(MergeTest, ValueOrderTiesAndBufferBoundaries) {
  // Equal timestamps: larger address first; negative timestamps after every
  // non-negative one; address 0xFFFFFFFF before smaller ones.
  merge_and_check({file_of({{5, 5}, {-3, 2}}, {{"x", {0, 1}}}),
                   file_of({{5, 9}, {0, 0xFFFFFFFFu}, {0, 4}, {-3, 1}}, {{"x", {0, 2}}, {"y", {1, 3}}})});
  // Two equal records inside one source become one value.
  ModelFile dup = merge_and_check({file_of({{7, 1}, {7, 1}, {6, 1}}, {{"d", {0, 1, 2}}})});
  EXPECT_EQ(dup.values.size(), 2u);
  EXPECT_EQ(dup.terms[0].ids, (std::vector<uint32_t>{0, 1}));
  // 4096 and 4097 merged values: a full value buffer and one more.
  for (uint32_t n : {4095u, 4096u, 4097u, 9000u}) {
    SCOPED_TRACE(n);
    ModelFile a, b;
    for (uint32_t i = 0; i < n; ++i) {
      ModelValue v{static_cast<int32_t>(100000 - i), i, i % 7, i % 3, i % 5, i % 11};
      (i % 2 ? a : b).values.push_back(v);
    }
    std::vector<uint32_t> ids_a(a.values.size()), ids_b(b.values.size());
    std::iota(ids_a.begin(), ids_a.end(), 0u);
    std::iota(ids_b.begin(), ids_b.end(), 0u);
    a.terms = {ModelTerm{"all", ids_a}};
    b.terms = {ModelTerm{"all", ids_b}, ModelTerm{"b", {0}}};
    EXPECT_EQ(merge_and_check({a, b}).values.size(), n);
  }
}

TEST_F(MergeTest, PostingListsMergeThroughTheMappingAndSkipAbsentSources) {
  // Term "m" only in sources 0 and 2: source 1's cursor stays for "z".
  ModelFile s0 = file_of({{30, 1}, {10, 1}}, {{"a", {0}}, {"m", {0, 1}}, {"z", {1}}});
  ModelFile s1 = file_of({{20, 1}}, {{"b", {0}}, {"z", {0}}});
  ModelFile s2 = file_of({{25, 1}, {10, 1}}, {{"m", {0, 1}}, {"n", {1}}});
  ModelFile got = merge_and_check({s0, s1, s2});
  // Values: 30, 25, 20, 10 (10/1 in sources 0 and 2 merged).
  ASSERT_EQ(got.values.size(), 4u);
  ASSERT_EQ(got.terms.size(), 5u);
  EXPECT_EQ(got.terms[2].term, "m");
  EXPECT_EQ(got.terms[2].ids, (std::vector<uint32_t>{0, 1, 3}));
  EXPECT_EQ(got.terms[2].count, 3u) << "id 3 comes from two sources and counts once";
  EXPECT_EQ(got.terms[4].ids, (std::vector<uint32_t>{2, 3}));
  EXPECT_EQ(got.num_postings, 1u + 1u + 3u + 1u + 2u);
}

TEST_F(MergeTest, MetadataTakesPostingCountsAndSourceTimes) {
  ModelFile a = file_of({{200, 1}, {150, 2}, {100, 3}}, {});
  ModelFile b = file_of({{150, 2}, {50, 4}}, {});
  a.terms = {ModelTerm{"t", {0, 1, 2}, 3, 100, 200}};
  b.terms = {ModelTerm{"t", {0, 1}, 2, 50, 150}};
  ModelFile got = merge_and_check({a, b}, 0, 4, false);
  ASSERT_EQ(got.terms.size(), 1u);
  EXPECT_EQ(got.terms[0].count, 4u);
  EXPECT_EQ(got.terms[0].earliest, 50);
  EXPECT_EQ(got.terms[0].latest, 200);
  // Signed minimum: a negative earliest wins over positive ones.
  b.terms[0].earliest = -5;
  EXPECT_EQ(merge_and_check({a, b}, 0, 4, false).terms[0].earliest, -5);
}

TEST_F(MergeTest, SingleSourceIsReproduced) {
  ModelFile m = file_of({{50, 9, 3, 2, 1, 6}, {40, 8, 1, 0, 0, 0}, {40, 2, 2, 1, 1, 1}, {-7, 0, 0, 0, 1, 2}},
                        {{"apple", {0, 1, 2}}, {"apply", {3}}, {"bat", {0, 2, 3}}});
  m.values[1].deleted = true;
  m.values[1].src = 0xFFFFFFFFu;
  for (uint32_t tpb : {1u, 2u, 64u}) {
    ModelFile got = merge_and_check({m}, 0, tpb);
    EXPECT_EQ(got.values.size(), 4u);
    EXPECT_TRUE(got.values[1].deleted);
  }
}

TEST_F(MergeTest, ColumnWidthsAreTheWidestSources) {
  ModelFile a = file_of({{9, 1, 7}, {8, 1, 1}}, {{"a", {0, 1}}});  // event type width 3
  ModelFile b = file_of({{7, 1, 31}, {6, 1, 20}}, {{"a", {1}}});   // width 5
  EXPECT_EQ(merge_and_check({a, b}).nbits[0], 5u);
  MergeRun r = merge_files({file_bytes(a), file_bytes(b)});
  EXPECT_EQ(load_be32(&r.target[HDR_ET_SIZE]), 5u * (4 / 8 + 1));
  EXPECT_EQ(load_be32(&r.target[HDR_D_NBITS]), 1u);
  // With tstats both copies stay, each with its own columns; at equal values
  // the source being drained goes on, here the later one.
  ModelFile got = merge_and_check({file_of({{10, 4, 0, 0, 0, 3}, {9, 1}}, {{"h", {0}}}),
                                   file_of({{11, 1}, {10, 4, 0, 0, 0, 12}}, {{"h", {1}}})},
                                  1);
  ASSERT_EQ(got.values.size(), 4u);
  EXPECT_EQ(got.values[1].host, 12u);
  EXPECT_EQ(got.values[2].host, 3u);
  // Two sources with the same value and different hosts: the later wins.
  got = merge_and_check({file_of({{10, 4, 0, 0, 0, 3}}, {{"h", {0}}}), file_of({{10, 4, 0, 0, 0, 12}}, {{"h", {0}}})});
  ASSERT_EQ(got.values.size(), 1u);
  EXPECT_EQ(got.values[0].host, 12u);
}

TEST_F(MergeTest, SourcesWithoutTermsTakeNoPartInTheLexicon) {
  ModelFile empty = file_of({{60, 1}, {5, 1}}, {});
  ModelFile full = file_of({{30, 2}}, {{"k", {0}}, {"l", {0}}});
  ModelFile old_empty = file_of({{20, 3}}, {});
  old_empty.magic = "Tarnix4";
  ModelFile got = merge_and_check({empty, full, old_empty, empty});
  EXPECT_EQ(got.values.size(), 4u);
  EXPECT_EQ(got.terms[0].ids, std::vector<uint32_t>{1});
  // No terms anywhere: the merge fails with -1 and leaves no header.
  MergeRun r = merge_files({file_bytes(empty), file_bytes(empty)});
  EXPECT_EQ(r.rc, WS_ENOTAVAIL);
  EXPECT_EQ(r.w.warm_rc, WS_ENOTAVAIL);
  ASSERT_GE(r.target.size(), 64u);
  EXPECT_EQ(bytes(r.target.begin(), r.target.begin() + 64), bytes(64, 0));
}

TEST_F(MergeTest, MixedVersionsMerge) {
  std::vector<ModelFile> srcs;
  const char* magics[] = {"Tarnix3", "Tarnix4", "Tarnix5", "Tarnix6", "Tarnix3"};
  for (int k = 0; k < 5; ++k) {
    ModelFile m;
    m.magic = magics[k];
    m.tperb = static_cast<uint32_t>(1 + k * 3);
    for (int i = 0; i < 40; ++i) m.values.push_back({1000 - 7 * i - k, static_cast<uint32_t>(i % 9), 1u + k, 2, 3, 4});
    std::sort(m.values.begin(), m.values.end(),
              [](const ModelValue& x, const ModelValue& y) { return x.ts != y.ts ? x.ts > y.ts : x.addr > y.addr; });
    for (int t = 0; t < 12; ++t) {
      ModelTerm term{"term" + std::to_string(t * (k + 1)), {}};
      for (uint32_t i = 0; i < 40; ++i) {
        if ((i + t) % (k + 2) == 0) term.ids.push_back(i);
      }
      m.terms.push_back(term);
    }
    std::sort(m.terms.begin(), m.terms.end(), [](const ModelTerm& x, const ModelTerm& y) { return x.term < y.term; });
    srcs.push_back(m);
  }
  merge_and_check(srcs, 0, 5);
  merge_and_check(srcs, 1, 3);
}

// Every header is read before anything is written.
TEST_F(MergeTest, BadHeadersAreReportedBeforeAnythingIsWritten) {
  const bytes good = file_bytes(file_of({{1, 1}}, {{"a", {0}}}));
  auto with_magic = [&](const char* magic) {
    bytes b = good;
    memcpy(b.data(), magic, 8);
    return b;
  };
  struct Case {
    const char* what;
    bytes file;
    int rc;
    const char* message;
  };
  const Case cases[] = {
      {"lower case", with_magic("tarnix6"), WS_EMAGIC, "invalid magic"},
      {"version 7", with_magic("Tarnix7"), WS_EMAGIC, "invalid magic"},
      {"version 2", with_magic("Tarnix2"), WS_EMAGIC, "invalid magic"},
      {"short header", bytes(good.begin(), good.begin() + 30), WS_EREAD, "pread warm header failure"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    MergeRun r = merge_files({good, good, c.file, good});
    EXPECT_EQ(r.rc, c.rc);
    EXPECT_EQ(r.w.source_index, 2);
    EXPECT_STREQ(r.w.message, c.message);
    EXPECT_TRUE(r.target.empty());
  }
}

TEST_F(MergeTest, DamagedSourcesGiveCodesNotCrashes) {
  ModelFile m;
  for (int i = 0; i < 300; ++i) m.values.push_back({5000 - i, static_cast<uint32_t>(i), 1, 2, 3, 4});
  for (int t = 0; t < 50; ++t) {
    ModelTerm term{"t" + std::to_string(1000 + t), {}};
    for (uint32_t i = t; i < 300; i += 1 + t % 5) term.ids.push_back(i);
    m.terms.push_back(term);
  }
  testutil::fill_metadata(m);
  const bytes good = file_bytes(m);
  const testutil::ModelLayout l = testutil::layout_of(good);
  const bytes first = file_bytes(file_of({{99999, 1}}, {{"t1001", {0}}}));
  auto cut = [&](uint64_t size) { return bytes(good.begin(), good.begin() + static_cast<long>(size)); };
  auto with = [&](hdr_field f, uint32_t v) {
    bytes b = good;
    store_be32(&b[f], v);
    return b;
  };
  auto lexicon_count = [&](uint32_t v) {
    bytes b = good;
    store_be32(&b[l.fclex], v);
    return b;
  };
  bytes without_terms_or_postings = with(HDR_NUM_TERMS, 0);
  store_be32(&without_terms_or_postings[HDR_NUM_POSTINGS], 0);
  // Versions 3 to 5 find their postings after a second, reverse lexicon:
  // one that cannot be sized leaves nowhere to read them from.
  ModelFile old = m;
  old.magic = "Tarnix4";
  bytes unsizable_reverse = file_bytes(old);
  const uint64_t old_lex = testutil::layout_of(unsizable_reverse).fclex;
  const uint64_t reverse_at = (old_lex + testutil::lexicon_size(&unsizable_reverse[old_lex]) + 3) & ~uint64_t{3};
  store_be32(&unsizable_reverse[reverse_at + 4], 0);  // terms per block
  struct Case {
    const char* what;
    bytes file;  // the second source, after first
    int rc;
    int index;            // -2: not checked
    const char* message;  // null: not checked; else of the first phase to fail: a cut loses every later section too
  };
  const Case cases[] = {
      {"cut inside the values", cut(l.values + 100), WS_EREAD, -1, ""},
      {"cut inside the columns", cut(l.columns + 20), WS_EREAD, 1, "pread for _merge_arrays"},
      {"cut inside the offset table", cut(l.pl_offs + 16), WS_EREAD, 1, "_lex_reader_open in st_fclex_merge_n"},
      {"cut inside the metadata", cut(l.metadata + 30), WS_EREAD, 1, "_lex_reader_open in st_fclex_merge_n"},
      {"cut inside the postings", cut(l.postings + 40), WS_EREAD, -1, ""},
      // A header claiming far more values or a larger column than the file
      // holds fails with a short read, before any memory is sized by it.
      {"far more values", with(HDR_NUM_VALUES, 0xF0000000u), WS_EREAD, -1, ""},
      {"far larger column", with(HDR_H_SIZE, 0xF0000000u), WS_EREAD, 1, "pread for _merge_arrays"},
      // Widths the column code cannot use.
      {"deleted flags 2 bits wide", with(HDR_D_NBITS, 2), WS_EDATA, 1, nullptr},
      {"event types 0 bits wide", with(HDR_ET_NBITS, 0), WS_EDATA, 1, nullptr},
      {"source column of 1 byte", with(HDR_S_SIZE, 1), WS_EDATA, 1, nullptr},
      {"posting beyond the values", file_bytes(file_of({{10, 1}, {9, 1}}, {{"p", {0, 5}}})), WS_EDATA, -2, nullptr},
      // A lexicon that disagrees with its header about the number of terms
      // would leave the postings of the terms it lacks behind.
      {"lexicon of one term fewer", lexicon_count(49), WS_EDATA, 1,
       "lexicon term count differs from the header in st_fclex_merge_n"},
      {"lexicon without terms", lexicon_count(0), WS_EEMPTYLEX, 1, "_lex_reader_open in st_fclex_merge_n"},
      // A header that says there are no terms would leave the file's terms
      // out of the merge, and the file would then be removed.
      {"header without terms", with(HDR_NUM_TERMS, 0), WS_EDATA, 1, "header without terms over a file with terms"},
      {"header without terms or postings", without_terms_or_postings, WS_EDATA, 1,
       "header without terms over a file with terms"},
      {"reverse lexicon without blocks", unsizable_reverse, WS_ELEX, 1, "st_fclex_size_fd for reverse lex"},
      // An empty list for a term the lexicon says the source holds.
      {"empty list", file_bytes(file_of({{10, 1}}, {{"p", {}}, {"q", {0}}})), WS_ENOTAVAIL, 1,
       "src_tsval_id is UINT_MAX in _merge_all_postings"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    MergeRun r = merge_files({first, c.file});
    EXPECT_EQ(r.rc, c.rc) << r.w.message;
    EXPECT_EQ(r.w.warm_rc, c.rc);
    if (c.index != -2) {
      EXPECT_EQ(r.w.source_index, c.index) << r.w.message;
    }
    if (c.message != nullptr) {
      EXPECT_STREQ(r.w.message, c.message);
    }
    if (r.target.size() >= 64) {
      EXPECT_EQ(bytes(r.target.begin(), r.target.begin() + 64), bytes(64, 0));
    }
  }
  // Values out of order still get ids in the order they are taken, so the
  // mapped lists keep ascending: the merge completes.
  ModelFile unsorted = file_of({{10, 1}, {90, 1}, {10, 1}}, {{"p", {0, 1, 2}}});
  MergeRun r = merge_files({file_bytes(file_of({{50, 1}}, {{"p", {0}}})), file_bytes(unsorted)});
  EXPECT_EQ(r.rc, 0) << r.w.message;
}

TEST_F(MergeTest, LexiconOnlyTargetSumsSourceCounts) {
  ModelFile a = file_of({{3, 1}, {2, 1}}, {{"a", {0, 1}}, {"c", {1}}});
  ModelFile b = file_of({{3, 1}}, {{"b", {0}}, {"c", {0}}});
  testutil::fill_metadata(a);
  testutil::fill_metadata(b);
  Phases p;
  ASSERT_NO_FATAL_FAILURE(run_phases(p, {file_bytes(a), file_bytes(b)}, kLexicon));
  ASSERT_EQ(hdr_num_terms(&p.tgt), 3u);
  EXPECT_EQ(std::vector<bmap_t>(p.which, p.which + 3), (std::vector<bmap_t>{1, 2, 3}));
  ASSERT_EQ(_merge_metadata(p.fds.data(), p.hdrs, 2, p.which, nullptr, p.tfd, &p.tgt, &p.w), 0);
  bytes t = testutil::read_file(last_target_);
  const uint64_t meta = _offset_metadata(&p.tgt);
  ASSERT_GE(t.size(), meta + 12);
  EXPECT_EQ(load_be32(&t[meta]), 2u);
  EXPECT_EQ(load_be32(&t[meta + 4]), 1u);
  EXPECT_EQ(load_be32(&t[meta + 8]), 2u) << "count only, summed over sources";
}

// ---- Property test over files written by the index file writer ----------------

std::string random_term(std::mt19937& rng) {
  static const char* stems[] = {"host", "hostname", "error", "err", "a", "zz", "source::/var/log", "x"};
  std::string t = stems[rng() % 8];
  switch (rng() % 4) {
    case 0: break;
    case 1: t += std::to_string(rng() % 20); break;
    case 2: t += "=" + std::to_string(rng() % 5); break;
    case 3: t = std::string(1500 + rng() % 547, 'q') + std::to_string(rng() % 3); break;
  }
  return t;
}

TEST_F(MergeTest, RandomGroupsMatchTheModelMerge) {
  const unsigned seed = ::testing::UnitTest::GetInstance()->random_seed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  for (int round = 0; round < 16; ++round) {
    SCOPED_TRACE(round);
    // The last rounds are an indexer's slices: each source its own stretch
    // of time, neighbours sharing the second at their border, and few terms,
    // so that long lists run through ids the mapping moves alike.
    const bool sliced = round >= 12;
    const uint32_t n_src = round == 0 ? 32 : 1 + rng() % 32;
    std::vector<bytes> files;
    std::vector<ModelFile> models;
    const int32_t base = static_cast<int32_t>(rng() % 2000) - 1000;
    for (uint32_t s = 0; s < n_src; ++s) {
      if (sliced && s > 0 && rng() % 4 == 0) {
        // A slice indexed twice: every value has a twin in the same place.
        files.push_back(bytes(files.back()));
        models.push_back(ModelFile(models.back()));
        continue;
      }
      wrc w{};
      hot_slice* hot = st_hot_slice_create(1 << 20, 1024, 8192, 1024, 0, &w);
      ASSERT_NE(hot, nullptr) << w.warm_rc;
      const uint32_t events = sliced ? 100 + rng() % 600 : 1 + rng() % 60;
      for (uint32_t e = 0; e < events; ++e) {
        // Overlapping times, repeated addresses, duplicates across sources.
        int32_t ts = base + static_cast<int32_t>(rng() % 200) - 100;
        uint32_t addr = rng() % 40;
        if (sliced) {
          ts = base + static_cast<int32_t>(s * 100 + e * 101 / events);
          addr = rng() % 400;
        }
        const uint32_t src = rng() % 10 == 0 ? 0xFFFFFFFFu : rng() % 6;
        const uint32_t terms = 1 + rng() % 4;
        for (uint32_t k = 0; k < terms; ++k) {
          std::string t = sliced ? "k" + std::to_string(rng() % (k + 2)) : random_term(rng);
          ASSERT_EQ(st_hot_slice_put(hot, t.c_str(), static_cast<uint32_t>(t.size()), ts, addr, rng() % 9, src,
                                     rng() % 3, rng() % 70),
                    0);
        }
      }
      char name[PATH_BUF_SZ];
      warm* wf = st_warm_slice_create(hot, name, dir_.path().c_str(), ".tsidx", &w);
      ASSERT_NE(wf, nullptr) << w.warm_rc;
      st_warm_slice_close(wf);
      st_hot_slice_close(hot);
      files.push_back(testutil::read_file(name));
      unlink(name);
      std::string err;
      models.push_back(testutil::parse_index_file(files.back(), &err));
      ASSERT_EQ(err, "");
    }
    const int tstats = static_cast<int>(rng() % 4 == 0);
    const uint32_t tpb = 1 + rng() % 70;
    const ModelFile got = check_merge(files, models, tstats, tpb, round % 3 == 0 ? 9 : 0);
    // The relation term -> {(timestamp, address)} is the union of the sources'.
    std::map<std::string, std::set<std::pair<int32_t, uint32_t>>> union_rel, merged_rel;
    for (const ModelFile& m : models) {
      for (const ModelTerm& t : m.terms) {
        for (uint32_t id : t.ids) union_rel[t.term].insert({m.values[id].ts, m.values[id].addr});
      }
    }
    for (const ModelTerm& t : got.terms) {
      for (uint32_t id : t.ids) merged_rel[t.term].insert({got.values[id].ts, got.values[id].addr});
    }
    EXPECT_EQ(merged_rel, union_rel);
    // The target opens both ways with the counts of its header.
    const bytes target = testutil::read_file(last_target_);
    for (int by_fd = 0; by_fd < 2; ++by_fd) {
      wrc w{};
      warm* h = by_fd ? st_warm_slice_open_fd(last_target_.c_str(), 0, &w)
                      : st_warm_slice_open(last_target_.c_str(), 0, &w);
      ASSERT_NE(h, nullptr) << w.warm_rc;
      EXPECT_EQ(st_warm_slice_terms(h), got.terms.size());
      EXPECT_EQ(st_warm_slice_values(h), got.values.size());
      EXPECT_EQ(st_warm_slice_postings_size(h), target.size() - testutil::layout_of(target).postings);
      EXPECT_EQ(st_warm_slice_close(h), 0);
    }
  }
}

// ---- The posting merge split across two threads ---------------------------------

class PostingSplitTest : public MergeTest {
 protected:
  // Runs the phases up to the postings for the sources into a fresh target
  // and merges the postings in one pass or split; returns the target's
  // bytes. cut, when not 0, is the length the last source is cut to once
  // the lexicon is merged: only the posting merge meets the damage.
  MergeRun run(const std::vector<bytes>& files, int mode, uint32_t* split_term = nullptr, uint64_t cut = 0) {
    MergeRun r;
    {
      Phases p;
      run_phases(p, files, kAllButPostings);
      if (HasFatalFailure()) return r;
      const uint32_t terms = hdr_num_terms(&p.tgt);
      if (cut != 0) cut_source(p.fds.back(), cut);
      if (split_term != nullptr) {
        uint32_t cursors[32];
        uint64_t offsets[32], upper = 0;
        *split_term = _posting_split_term(p.fds.data(), p.hdrs, p.n(), p.which, terms, cursors, offsets, &upper);
      }
      r.w = p.w;
      r.counts.assign(terms, 0);
      r.rc = _merge_all_postings_split(p.fds.data(), p.hdrs, p.starts, p.n(), p.mapping, p.which, r.counts.data(),
                                       terms, p.tfd, p.tgt_start, &p.tgt, &r.w, mode);
      r.postings = hdr_get(&p.tgt, HDR_NUM_POSTINGS);
    }
    release();
    r.target = testutil::read_file(last_target_);
    return r;
  }
};

// n index files of many terms each (terms drawn with stride `step` from a
// vocabulary of `vocab`, so that files share most of them), each of
// `values` values covering its own stretch of time: merges large enough to
// be split.
std::vector<bytes> many_term_files(int n, int values, int terms, int vocab, int step, unsigned seed) {
  std::vector<bytes> out;
  std::mt19937 rng(seed);
  for (int s = 0; s < n; ++s) {
    ModelFile m;
    for (int i = 0; i < values; ++i) m.values.push_back({1000 * s + 999 - i, static_cast<uint32_t>(i), 1, 2, 3, 4});
    std::set<int> names;
    for (int t = 0; t < terms; ++t) names.insert((t * step + s * 7) % vocab);
    for (int name : names) {
      ModelTerm term{"w" + std::to_string(100000 + name), {}};
      const auto v = static_cast<uint32_t>(values);
      for (uint32_t i = rng() % 5; i < v; i += 1 + rng() % (v / 3)) term.ids.push_back(i);
      m.terms.push_back(term);
    }
    testutil::fill_metadata(m);
    out.push_back(file_bytes(m));
  }
  return out;
}

// The split merge writes the bytes, counts, codes and messages of the
// single pass, for good sources and for sources damaged below, at and
// above the point where the upper part starts (where the upper part gives
// up and the single pass takes over) and where the end of the upper part
// is taken over: with the upper part's thread held back until its end is
// taken over, and until it went through before (the end then not used).
TEST_F(PostingSplitTest, SplitMatchesOnePass) {
  const std::vector<bytes> files = many_term_files(5, 600, 7000, 9000, 1, 7);
  uint32_t split_term = 0;
  MergeRun one = run(files, POSTINGS_ONE_PASS, &split_term);
  ASSERT_EQ(one.rc, 0) << one.w.message;
  ASSERT_GT(split_term, 0u) << "the merge is too small to be split";
  ASSERT_LT(split_term + 2 * 1024, one.counts.size()) << "the upper part is too small for its end to be taken over";
  const testutil::ModelLayout l = testutil::layout_of(files.back());
  const uint64_t postings = files.back().size() - l.postings;
  auto expect_same_failure = [](const MergeRun& a, const MergeRun& b) {
    EXPECT_EQ(a.rc, b.rc);
    EXPECT_EQ(a.w.source_index, b.w.source_index);
    EXPECT_STREQ(a.w.message, b.w.message);
  };
  for (int mode : {POSTINGS_SPLIT, POSTINGS_SPLIT_TAKE_OVER, POSTINGS_SPLIT_LATE_TAKE_OVER, POSTINGS_SPLIT_HAND_BACK,
                   POSTINGS_SPLIT_LATE_HAND_BACK}) {
    SCOPED_TRACE(mode);
    MergeRun two = run(files, mode);
    EXPECT_EQ(two.rc, 0);
    EXPECT_EQ(two.counts, one.counts);
    EXPECT_EQ(two.postings, one.postings);
    EXPECT_TRUE(two.target == one.target);

    // Damage in the last source's postings: a byte that makes an id run
    // past the values, at a fraction of the way through its lists.
    int faults = 0;
    for (double at : {0.05, 0.2, 0.3, 0.5, 0.7, 0.9, 0.99}) {
      SCOPED_TRACE(at);
      std::vector<bytes> bad = files;
      bad.back()[l.postings + static_cast<uint64_t>(at * static_cast<double>(postings))] = 0x7F;
      MergeRun a = run(bad, POSTINGS_ONE_PASS);
      MergeRun b = run(bad, mode);
      expect_same_failure(a, b);
      faults += a.rc != 0;
      if (a.rc == 0) {
        EXPECT_EQ(a.counts, b.counts);
        EXPECT_TRUE(a.target == b.target);
      }
      // A cut there: the lists after it cannot be read.
      bad.back().assign(files.back().begin(), files.back().begin() + static_cast<long>(l.postings + at * postings));
      a = run(bad, POSTINGS_ONE_PASS);
      b = run(bad, mode);
      EXPECT_NE(a.rc, 0);
      expect_same_failure(a, b);
    }
    EXPECT_GE(faults, 3) << "the damage should reach every part";
  }
}

// A source whose offset table is cut short fails the posting merge at its
// first list, however far into the table the cut lies, with every part of a
// split merge; the lists before it are merged.
TEST_F(PostingSplitTest, CutOffsetTableFailsAtTheSourcesFirstList) {
  const std::vector<bytes> files = many_term_files(5, 600, 7000, 9000, 1, 7);
  // Merged term k is name k: the last source's names start at 4 x 7.
  const uint32_t first_of_last = 4 * 7;
  uint32_t split_term = 0;
  const MergeRun good = run(files, POSTINGS_ONE_PASS, &split_term);
  ASSERT_EQ(good.rc, 0) << good.w.message;
  ASSERT_GT(split_term, first_of_last);
  const testutil::ModelLayout l = testutil::layout_of(files.back());
  const uint32_t terms = load_be32(&files.back()[HDR_NUM_TERMS]);
  ASSERT_GT(terms, 5000u);
  const uint32_t entry = _get_plo_size(reinterpret_cast<const warm_header*>(files.back().data()));
  for (uint32_t cut_at : {terms / 2, terms - 10}) {
    for (int mode : {POSTINGS_ONE_PASS, POSTINGS_SPLIT, POSTINGS_SPLIT_TAKE_OVER, POSTINGS_SPLIT_HAND_BACK}) {
      SCOPED_TRACE(testing::Message() << "cut at entry " << cut_at << ", mode " << mode);
      MergeRun r = run(files, mode, nullptr, l.pl_offs + uint64_t{entry} * cut_at);
      EXPECT_EQ(r.rc, WS_EREAD);
      EXPECT_EQ(r.w.source_index, 4);
      EXPECT_STREQ(r.w.message, "_seek_reader in _merge_all_postings");
      for (uint32_t t = 0; t < split_term; ++t) {
        ASSERT_EQ(r.counts[t] != 0, t < first_of_last) << "term " << t;
        if (t < first_of_last) {
          ASSERT_EQ(r.counts[t], good.counts[t]);
        }
      }
    }
  }
}

// A source whose metadata is cut short fails the metadata merge at the
// first record of the 341 read with the one the cut takes; the records of
// the terms before it are written.
TEST_F(MergeTest, CutMetadataFailsWhereReadsOf341RecordsMeetIt) {
  const std::vector<bytes> files = many_term_files(5, 600, 7000, 9000, 1, 7);
  Phases p;
  ASSERT_NO_FATAL_FAILURE(run_phases(p, files, kAllButPostings));
  std::vector<uint32_t> counts(hdr_num_terms(&p.tgt));
  ASSERT_EQ(_merge_all_postings_n(p.fds.data(), p.hdrs, p.starts, 5, p.mapping, p.which, counts.data(),
                                  hdr_num_terms(&p.tgt), p.tfd, p.tgt_start, &p.tgt, &p.w),
            0);
  const uint32_t cut_record = 6000;
  cut_source(p.fds.back(), testutil::layout_of(files.back()).metadata + TERM_METADATA_SZ * cut_record);
  EXPECT_EQ(_merge_metadata(p.fds.data(), p.hdrs, 5, p.which, counts.data(), p.tfd, &p.tgt, &p.w), WS_EREAD);
  EXPECT_EQ(p.w.source_index, 4);
  EXPECT_STREQ(p.w.message, "_ar_get for metadata");
  // Merged term k is name k; the last source's names start at 4 x 7.
  const uint32_t failed_term = 4 * 7 + cut_record / 341 * 341;
  const bytes t = testutil::read_file(last_target_);
  uint32_t written = 0;
  while (written < counts.size() && load_be32(&t[_offset_metadata(&p.tgt) + TERM_METADATA_SZ * written]) != 0) {
    ++written;
  }
  EXPECT_EQ(written, failed_term);
}

// A merge large enough to split its lexicon (and to merge the upper half's
// posting lists as soon as that half is done) writes the file of a merge
// that runs every phase in turn, also when its threads cannot start (every
// phase then runs on the caller's thread), and fails with the same code,
// message and source index when a source is damaged in either half of its
// lexicon or of its posting lists.
TEST_F(MergeTest, ThreadedMergeMatchesThePhasesInTurn) {
  const std::vector<bytes> files = many_term_files(8, 500, 9000, 20000, 3, 11);
  const MergeRun in_turn = merge_files(files, 0, 8, 0, 1);
  ASSERT_EQ(in_turn.rc, 0) << in_turn.w.message;
  // Threads start (0), pthread_create fails (1) or throws (2).
  for (int refusal : {0, 1, 2}) {
    SCOPED_TRACE(refusal);
    g_thread_refusal.store(refusal);
    const MergeRun threaded = merge_files(files, 0, 8, 0, 0);
    g_thread_refusal.store(0);
    EXPECT_EQ(threaded.rc, 0) << threaded.w.message;
    EXPECT_TRUE(threaded.target == in_turn.target);
  }

  // Damage in the last source (which the pivot's source is not): a term out
  // of order or a bad byte a quarter or three quarters into its lexicon or
  // posting lists. Then two sources damaged at once, each in a part that
  // another thread may merge: the threaded merge still reports the failure
  // the phases in turn meet first.
  const testutil::ModelLayout l = testutil::layout_of(files.back());
  const testutil::ModelLayout l2 = testutil::layout_of(files[2]);
  constexpr uint64_t NONE = UINT64_MAX;
  struct damage {
    const char* what;
    uint64_t at, at2;  // in the last source and in source 2
  } cases[] = {
      {"lexicon, lower half", l.fclex + (l.postings - l.fclex) / 4, NONE},
      {"lexicon, upper half", l.fclex + (l.postings - l.fclex) * 3 / 4, NONE},
      {"postings, lower half", l.postings + (l.size - l.postings) / 4, NONE},
      {"postings, upper half", l.postings + (l.size - l.postings) * 3 / 4, NONE},
      {"postings of both", l.postings + (l.size - l.postings) * 3 / 4, l2.postings + (l2.size - l2.postings) / 4},
      {"lower lexicon, upper postings", l.fclex + (l.postings - l.fclex) / 4,
       l2.postings + (l2.size - l2.postings) * 3 / 4},
      {"lexicons of both", l.fclex + (l.postings - l.fclex) / 4, l2.fclex + (l2.postings - l2.fclex) * 3 / 4},
  };
  int faults = 0;
  for (const damage& d : cases) {
    for (uint8_t byte : {uint8_t{0x00}, uint8_t{0x7F}, uint8_t{0xFF}}) {
      SCOPED_TRACE(std::string(d.what) + " byte " + std::to_string(byte));
      std::vector<bytes> bad = files;
      bad.back()[d.at] = byte;
      if (d.at2 != NONE) bad[2][d.at2] = byte;
      const MergeRun a = merge_files(bad, 0, 8, 0, 1);
      const MergeRun b = merge_files(bad, 0, 8, 0, 0);
      faults += a.rc != 0;
      EXPECT_EQ(b.rc, a.rc);
      EXPECT_EQ(b.w.source_index, a.w.source_index);
      EXPECT_STREQ(b.w.message, a.w.message);
      if (a.rc == 0) {
        EXPECT_TRUE(b.target == a.target);
      }
    }
  }
  EXPECT_GE(faults, 12);
}

}  // namespace
}  // namespace tarnix
