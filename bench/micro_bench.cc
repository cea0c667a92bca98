// Micro-benchmarks of the merge's inner parts: VBE encode and decode, and,
// over one group of 32 index files written by the index file writer, the
// posting-list merge, the lexicon merge and the column re-placement, each
// run on its own with the inputs the earlier phases of a merge give it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "searchthing/codes.h"
#include "searchthing/fclex_io.h"
#include "searchthing/hotslice.h"
#include "searchthing/warmslice.h"
#include "searchthing/warmslice_merge.h"

namespace {

using namespace tarnix;

// ---- VBE -----------------------------------------------------------------------------

// Gaps as posting lists have them: mostly one or two bytes, a few wider.
std::vector<uint32_t> gap_values(size_t n) {
  std::mt19937 rng(7);
  std::vector<uint32_t> v(n);
  for (uint32_t& x : v) {
    const uint32_t r = rng() % 100;
    x = r < 60 ? rng() % 128 : r < 90 ? rng() % 16384 : r < 98 ? rng() % (1u << 21) : rng();
  }
  return v;
}

void BM_VbeEncode(benchmark::State& state) {
  const std::vector<uint32_t> v = gap_values(1 << 16);
  std::vector<uint8_t> out(v.size() * 5);
  for (auto _ : state) {
    uint8_t* p = out.data();
    for (uint32_t x : v) p += st_encode_to_vbe(p, x);
    benchmark::DoNotOptimize(p);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * v.size()));
}
BENCHMARK(BM_VbeEncode);

void BM_VbeDecode(benchmark::State& state) {
  const std::vector<uint32_t> v = gap_values(1 << 16);
  std::vector<uint8_t> enc(v.size() * 5 + 8);
  uint8_t* p = enc.data();
  for (uint32_t x : v) p += st_encode_to_vbe(p, x);
  const uint8_t* end = p;
  for (auto _ : state) {
    uint64_t sum = 0;
    for (const uint8_t* q = enc.data(); q < end;) {
      uint32_t x;
      q += st_decode_from_vbe(&x, q);
      sum += x;
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * v.size()));
}
BENCHMARK(BM_VbeDecode);

// ---- A group of 32 index files --------------------------------------------------------

struct Group {
  std::string dir;
  std::vector<std::string> files;
  std::vector<int> fds;
  uint64_t postings = 0;
  uint64_t values = 0;
  uint64_t terms = 0;
  ~Group() {
    for (int fd : fds) close(fd);
    for (const std::string& f : files) unlink(f.c_str());
    if (!dir.empty()) rmdir(dir.c_str());
  }
};

// 32 files of consecutive time ranges, as an indexer writes them: shared
// words with a skewed frequency and numbers that are mostly private.
const Group& group() {
  static Group g;
  if (!g.files.empty()) return g;
  constexpr uint32_t SOURCES = 32, EVENTS = 6000, TERMS = 10;
  char templ[] = "/tmp/micro-bench-XXXXXX";
  if (mkdtemp(templ) == nullptr) abort();
  g.dir = templ;
  std::mt19937 rng(42);
  for (uint32_t s = 0; s < SOURCES; ++s) {
    wrc w{};
    hot_slice* hot = st_hot_slice_create(64u << 20, 1u << 20, EVENTS * TERMS + 16, EVENTS + 16, 0, &w);
    if (hot == nullptr) abort();
    for (uint32_t e = 0; e < EVENTS; ++e) {
      const uint32_t n = s * EVENTS + e;
      const int32_t ts = 1700000000 + static_cast<int32_t>(n / 4);
      for (uint32_t k = 0; k < TERMS; ++k) {
        char term[64];
        const uint32_t r = rng() % 100;
        if (r < 20) snprintf(term, sizeof term, "common%u", r % 8);
        else if (r < 80) snprintf(term, sizeof term, "word%u", static_cast<unsigned>((rng() % 4000) * (rng() % 4000) / 4000));
        else snprintf(term, sizeof term, "%u", static_cast<unsigned>(rng() % 1000000));
        if (st_hot_slice_put(hot, term, static_cast<uint32_t>(strlen(term)), ts, 1000 + n, rng() % 16, rng() % 12,
                             rng() % 4, rng() % 40) != 0) {
          abort();
        }
      }
    }
    char name[PATH_BUF_SZ];
    warm* wf = st_warm_slice_create(hot, name, g.dir.c_str(), ".tsidx", &w);
    if (wf == nullptr) abort();
    g.postings += hdr_num_postings(warm_hdr(wf));
    g.values += hdr_num_values(warm_hdr(wf));
    g.terms += hdr_num_terms(warm_hdr(wf));
    st_warm_slice_close(wf);
    st_hot_slice_close(hot);
    g.files.push_back(name);
    g.fds.push_back(open(name, O_RDONLY | O_CLOEXEC));
  }
  return g;
}

// The state a merge has reached before its posting phase.
struct Prepared {
  warm_header* hdrs = nullptr;
  uint32_t* mapping = nullptr;
  bmap_t* which = nullptr;
  warm_header tgt{};
  uint64_t postings_start[32] = {};
  uint64_t tgt_postings_start = 0;
  std::string target;
  int tfd = -1;
  ~Prepared() {
    free(hdrs);
    free(mapping);
    _bmap_free(which);
    if (tfd >= 0) close(tfd);
    if (!target.empty()) unlink(target.c_str());
  }
};

bool prepare(const Group& g, Prepared* p) {
  const uint32_t n = static_cast<uint32_t>(g.fds.size());
  wrc w{};
  p->target = g.dir + "/target.merge";
  unlink(p->target.c_str());
  p->tfd = open(p->target.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  _init_magic(&p->tgt);
  p->hdrs = _read_src_headers(g.fds.data(), n, &w);
  if (p->hdrs == nullptr) return false;
  p->mapping = _merge_values(g.fds.data(), p->hdrs, n, p->tfd, &p->tgt, &w, 0);
  if (p->mapping == nullptr) return false;
  if (_merge_array(g.fds.data(), p->hdrs, n, p->mapping, p->tfd, &p->tgt, &w) != 0) return false;
  return _merge_lexicon(0, g.fds.data(), p->hdrs, n, 64, 0, p->tfd, &p->tgt, &p->which, p->postings_start,
                        &p->tgt_postings_start, &w) == 0;
}

void BM_PostingMerge32(benchmark::State& state) {
  const Group& g = group();
  Prepared p;
  if (!prepare(g, &p)) {
    state.SkipWithError("preparing the merge failed");
    return;
  }
  const uint32_t num_terms = hdr_num_terms(&p.tgt);
  std::vector<uint32_t> counts(num_terms);
  for (auto _ : state) {
    wrc w{};
    warm_header tgt = p.tgt;
    if (_merge_all_postings_n(g.fds.data(), p.hdrs, p.postings_start, static_cast<uint32_t>(g.fds.size()),
                              p.mapping, p.which, counts.data(), num_terms, p.tfd, p.tgt_postings_start, &tgt,
                              &w) != 0) {
      state.SkipWithError("posting merge failed");
      return;
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * g.postings));
  state.counters["postings"] = static_cast<double>(g.postings);
}
BENCHMARK(BM_PostingMerge32)->Unit(benchmark::kMillisecond);

void BM_LexiconMerge32(benchmark::State& state) {
  const Group& g = group();
  warm_header* hdrs = nullptr;
  {
    wrc w{};
    hdrs = _read_src_headers(g.fds.data(), static_cast<uint32_t>(g.fds.size()), &w);
  }
  if (hdrs == nullptr) {
    state.SkipWithError("headers");
    return;
  }
  std::vector<uint64_t> offsets(g.fds.size()), ends(g.fds.size());
  for (size_t i = 0; i < g.fds.size(); ++i) offsets[i] = _offset_fclex(&hdrs[i]);
  uint32_t merged = 0;
  for (auto _ : state) {
    wrc w{};
    lex_writer writer{};
    bmap_t* which = nullptr;
    int rc = st_fclex_merge_n(0, g.fds.data(), offsets.data(), static_cast<uint32_t>(g.fds.size()), 64, 0, &writer,
                              &merged, &which, ends.data(), &w);
    _lex_writer_discard(&writer);
    _bmap_free(which);
    if (rc != 0) {
      state.SkipWithError("lexicon merge failed");
      break;
    }
  }
  free(hdrs);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * g.terms));
  state.counters["source_terms"] = static_cast<double>(g.terms);
  state.counters["merged_terms"] = static_cast<double>(merged);
}
BENCHMARK(BM_LexiconMerge32)->Unit(benchmark::kMillisecond);

void BM_ColumnReplace32(benchmark::State& state) {
  const Group& g = group();
  Prepared p;
  if (!prepare(g, &p)) {
    state.SkipWithError("preparing the merge failed");
    return;
  }
  for (auto _ : state) {
    wrc w{};
    warm_header tgt = p.tgt;
    if (_merge_array(g.fds.data(), p.hdrs, static_cast<uint32_t>(g.fds.size()), p.mapping, p.tfd, &tgt, &w) != 0) {
      state.SkipWithError("column merge failed");
      return;
    }
  }
  // Five columns, one element per source value each.
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * g.values * 5));
}
BENCHMARK(BM_ColumnReplace32)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
