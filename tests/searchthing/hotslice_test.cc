#include "searchthing/hotslice.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

// Every operator new of this executable is counted, so a test can show that
// filling, preparing and resetting a slice allocates nothing.
namespace {
std::atomic<uint64_t> g_allocations{0};
}
void* operator new(std::size_t n) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(n == 0 ? 1 : n)) return p;
  throw std::bad_alloc();
}
void* operator new[](std::size_t n) { return operator new(n); }
void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return std::malloc(n == 0 ? 1 : n);
}
void* operator new[](std::size_t n, const std::nothrow_t& t) noexcept { return operator new(n, t); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace tarnix {
namespace {

struct slice_ptr {
  hot_slice* h;
  explicit slice_ptr(hot_slice* p) : h(p) {}
  ~slice_ptr() { st_hot_slice_close(h); }
  hot_slice* operator->() const { return h; }
  operator hot_slice*() const { return h; }
};

hot_slice* make(uint64_t tb, uint64_t terms, uint64_t nodes, uint64_t values, bool streaming) {
  wrc w{};
  hot_slice* h = st_hot_slice_create(tb, terms, nodes, values, streaming ? 1 : 0, &w);
  EXPECT_NE(h, nullptr) << w.warm_rc;
  return h;
}

int put(hot_slice* h, const std::string& term, int32_t ts, uint32_t addr, uint32_t attr = 0) {
  return st_hot_slice_put(h, term.c_str(), static_cast<uint32_t>(term.size()), ts, addr, attr, attr, attr, attr);
}

struct prepared {
  int rc;
  int32_t latest, earliest;
  uint32_t values, terms, postings;
  bool operator==(const prepared&) const = default;
};
prepared prep(hot_slice* h) {
  prepared p{};
  p.rc = st_hot_slice_prepare(h, &p.latest, &p.earliest, &p.values, &p.terms, &p.postings);
  return p;
}

// Sorted term i's ids.
std::vector<uint32_t> ids_of(const hot_slice* h, uint32_t t) {
  uint64_t start = 0;
  for (uint32_t i = 0; i < t; ++i) start += h->term_posting_counts[i];
  return std::vector<uint32_t>(h->postings + start, h->postings + start + h->term_posting_counts[t]);
}

TEST(HotSlice, CreateChecksCapacities) {
  struct row {
    uint64_t tb, terms, nodes, values;
    int want;
  };
  const row rows[] = {
      {1024, 256, 16, 16, WS_ENONAME},       {1024, 257, 16, 16, WS_ENONAME},
      {1024, 258, 16, 16, WS_SUCCESS},       {1024, 260, 1ull << 32, 16, WS_ENONAME},
      {1024, 260, 16, 1ull << 32, WS_ENONAME}, {1ull << 32, 260, 16, 16, WS_E32BIT},
      {1024, 1ull << 33, 16, 16, WS_E32BIT},
  };
  for (const row& r : rows) {
    for (int streaming = 0; streaming < 2; ++streaming) {
      wrc w{};
      hot_slice* h = st_hot_slice_create(r.tb, r.terms, r.nodes, r.values, streaming, &w);
      EXPECT_EQ(w.warm_rc, r.want) << r.terms << " " << streaming;
      EXPECT_EQ(h == nullptr, r.want != WS_SUCCESS);
      if (h != nullptr) {
        EXPECT_EQ(st_hot_slice_value_begin(h), streaming ? r.values : 0);
        EXPECT_EQ(st_hot_slice_is_streaming(h), streaming == 1);
      }
      st_hot_slice_close(h);
    }
  }
}

// A (term, event) pair put again right away is stored once; an event that
// comes back later in normal mode is merged at prepare, and num_postings
// still counts the duplicates of the last term (only).
TEST(HotSlice, DuplicatePostings) {
  struct put_args {
    const char* term;
    int32_t ts;
    uint32_t addr;
  };
  struct row {
    const char* what;
    bool streaming;
    std::vector<put_args> puts;
    uint32_t nodes, first_count;
    prepared want;
    std::vector<std::vector<uint32_t>> ids;  // per sorted term
  } rows[] = {
      {"same pair", false, {{"error", 10, 7}, {"error", 10, 7}}, 1, 1, {0, 10, 10, 1, 1, 1}, {{0}}},
      {"same pair streaming", true, {{"error", 10, 7}, {"error", 10, 7}}, 1, 1, {0, 10, 10, 1, 1, 1}, {{0}}},
      {"event again", false, {{"x", 1, 1}, {"x", 2, 2}, {"x", 1, 1}}, 3, 3, {0, 2, 1, 2, 1, 3}, {{0, 1}}},
      {"first term's duplicate", false, {{"a", 1, 1}, {"a", 2, 2}, {"a", 1, 1}, {"b", 3, 3}, {"b", 2, 2}}, 5, 3,
       {0, 3, 1, 3, 2, 4}, {{1, 2}, {0, 1}}},
  };
  for (const row& r : rows) {
    slice_ptr h(make(4096, 258, 64, 64, r.streaming));
    for (const put_args& a : r.puts) ASSERT_EQ(put(h, a.term, a.ts, a.addr), 0) << r.what;
    EXPECT_EQ(h->nodes_used, r.nodes) << r.what;
    EXPECT_EQ(h->term_metadata[0].count, r.first_count) << r.what;
    EXPECT_EQ(prep(h), r.want) << r.what;
    for (uint32_t t = 0; t < r.ids.size(); ++t) EXPECT_EQ(ids_of(h, t), r.ids[t]) << r.what << " term " << t;
    EXPECT_EQ(prep(h), r.want) << r.what << ": prepared twice, the saved results";
  }
}

TEST(HotSlice, LongTermIsCutTo2047Bytes) {
  slice_ptr h(make(8192, 258, 64, 64, false));
  std::string t(3000, 'q');
  t[2046] = 'z';
  ASSERT_EQ(put(h, t, 5, 5), 0);
  ASSERT_EQ(put(h, t.substr(0, 2047), 6, 6), 0);  // the same term
  ASSERT_EQ(prep(h).terms, 1u);
  EXPECT_EQ(std::string(h->sorted_terms[0]), t.substr(0, 2047));
  EXPECT_EQ(h->term_bytes_used, 2048u);
  // Term bytes are held against the cut length, 2047 and the NUL.
  slice_ptr small(make(2100, 258, 64, 64, false));
  EXPECT_EQ(put(small, t, 1, 1), 0);
  EXPECT_EQ(small->term_bytes_used, 2048u);
}

TEST(HotSlice, EmptyKeywordProbesSevenEighths) {
  // 258 - 258/8 = 226 terms may be held before the probe fails.
  slice_ptr h(make(1 << 16, 258, 1024, 1024, false));
  for (uint32_t i = 0; i < 226; ++i) ASSERT_EQ(put(h, "t" + std::to_string(i), 1, i), 0);
  EXPECT_EQ(put(h, "", 0, 0), 0);
  EXPECT_EQ(h->term_count, 226u);
  EXPECT_EQ(h->nodes_used, 226u);
  ASSERT_EQ(put(h, "t226", 1, 226), 0);
  EXPECT_EQ(put(h, "", 0, 0), -1);
  EXPECT_EQ(put(h, "t0", 1, 500), 0);  // a real put still fits
}

// A slice is filled with n puts (term "t<i>" when none is given; event i + 1,
// or event 1 for every put), then one more put (a probe when its term is
// empty) gives the code of the limit reached.
TEST(HotSlice, FullCodes) {
  struct row {
    const char* what;
    uint64_t tb, nodes, values;
    bool streaming;
    uint32_t n;
    std::string term;
    bool same_event;
    const char* last;
    int want;
  } rows[] = {
      {"terms: even a known term, the check comes first", 1 << 16, 1024, 1024, false, 258, "", false, "t0", -1},
      {"values", 1 << 16, 1024, 2, false, 2, "a", false, "b", -2},
      {"nodes", 1 << 16, 2, 1024, true, 2, "", true, "c", -3},
      {"term bytes: 7 of 8 used", 8, 1024, 1024, false, 1, "abcdef", false, "g", -4},
      {"probe: values, 16 - 2 = 14", 1 << 16, 1024, 16, false, 15, "t", false, "", -2},
      {"probe: nodes, 16 - 2 = 14", 1 << 16, 16, 1024, true, 15, "", true, "", -3},
      {"probe: term bytes, 57 with the NUL, 64 - 8 = 56", 64, 1024, 1024, false, 1, std::string(56, 'a'), false, "",
       -4},
  };
  for (const row& r : rows) {
    slice_ptr h(make(r.tb, 258, r.nodes, r.values, r.streaming));
    for (uint32_t i = 0; i < r.n; ++i) {
      ASSERT_EQ(put(h, r.term.empty() ? "t" + std::to_string(i) : r.term, 1, r.same_event ? 1 : i + 1), 0) << r.what;
    }
    EXPECT_EQ(put(h, r.last, 1, r.same_event ? 1 : r.n + 1), r.want) << r.what;
  }
}

// A keyword that starts with a NUL is a probe, whatever its length; a NUL
// further in is refused, unless the length stops before it.
TEST(HotSlice, KeywordsWithANul) {
  slice_ptr h(make(1024, 258, 1024, 1024, false));
  EXPECT_EQ(st_hot_slice_put(h, "\0ab", 3, 1, 1, 0, 0, 0, 0), 0);
  EXPECT_EQ(h->term_count, 0u);
  EXPECT_EQ(h->nodes_used, 0u);
  const char kw[] = "ab\0cd";
  EXPECT_EQ(st_hot_slice_put(h, kw, 5, 1, 1, 0, 0, 0, 0), -5);
  EXPECT_EQ(st_hot_slice_put(h, kw, 2, 1, 1, 0, 0, 0, 0), 0);
  EXPECT_EQ(st_hot_slice_put(h, kw, 0, 1, 1, 0, 0, 0, 0), 0);  // length 0: nothing stored
  EXPECT_EQ(h->term_count, 1u);
  EXPECT_EQ(h->nodes_used, 1u);
}

// The edges of put's checks: each one refuses, or lets through, exactly
// what the slice can hold.
TEST(HotSlice, PutChecksAtTheirEdges) {
  {
    // Streaming values run out at the capacity, and a full table refuses
    // every put, the last event's too: the caller flushes first.
    slice_ptr h(make(1 << 16, 258, 1024, 3, true));
    for (uint32_t e = 1; e <= 3; ++e) ASSERT_EQ(put(h, "a", static_cast<int32_t>(e), e), 0);
    EXPECT_EQ(put(h, "a", 4, 4), -2);
    EXPECT_EQ(h->nodes_used, 3u);
    EXPECT_EQ(put(h, "b", 3, 3), -2);
    EXPECT_EQ(prep(h).values, 3u);
  }
  {
    // Addresses whose probe steps cycle over full slots of a small table.
    slice_ptr h(make(1 << 16, 258, 1024, 6, false));
    for (uint32_t a : {3u, 15u, 27u, 39u, 51u, 63u}) ASSERT_EQ(put(h, "a", 1, a), 0) << a;
    const prepared p = prep(h);
    EXPECT_EQ(p.values, 6u);
    EXPECT_EQ(ids_of(h, 0).size(), 6u);
  }
}

TEST(HotSliceDeathTest, StreamingRejectsEarlierEvent) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        hot_slice* h = make(1024, 258, 64, 64, true);
        put(h, "a", 10, 1);
        put(h, "a", 9, 2);
      },
      "timestamp >= last->timestamp");
  EXPECT_DEATH(
      {
        hot_slice* h = make(1024, 258, 64, 64, true);
        put(h, "a", 10, 1);
        prepared p = prep(h);
        (void)p;
        put(h, "a", 11, 2);
      },
      "handle->prepared == 0");
}

TEST(HotSlice, StreamingValuesAreInFileOrder) {
  slice_ptr h(make(4096, 258, 64, 64, true));
  ASSERT_EQ(put(h, "a", 5, 1, 1), 0);
  ASSERT_EQ(put(h, "b", 5, 1, 1), 0);  // same event again
  ASSERT_EQ(put(h, "a", 5, 2, 2), 0);
  ASSERT_EQ(put(h, "b", 7, 3, 3), 0);
  const prepared p = prep(h);
  ASSERT_EQ(p.rc, 0);
  EXPECT_EQ(p.values, 3u);
  EXPECT_EQ(p.latest, 7);
  EXPECT_EQ(p.earliest, 5);
  // Value 0 is the last value put.
  const tsval& v0 = h->values[st_hot_slice_value_begin(h)];
  EXPECT_EQ(v0.event_address, 3u);
  EXPECT_EQ(v0.host, 3u);
  EXPECT_EQ(ids_of(h, 0), (std::vector<uint32_t>{1, 2}));  // "a": events 2 and 1
  EXPECT_EQ(ids_of(h, 1), (std::vector<uint32_t>{0, 2}));  // "b": events 3 and 1
  EXPECT_EQ(get_largest_host(h), 3u);
}

TEST(HotSlice, NormalPrepareSortsValuesAndTerms) {
  slice_ptr h(make(4096, 258, 256, 64, false));
  // Out of order, equal timestamps, negative times.
  const int32_t ts[] = {5, -3, 9, 5, 0, 9};
  const std::string terms[] = {"zeta", "alpha", "mid", "alpha", "zeta", "beta"};
  for (uint32_t i = 0; i < 6; ++i) ASSERT_EQ(put(h, terms[i], ts[i], 100 + i, i), 0);
  const prepared p = prep(h);
  ASSERT_EQ(p.rc, 0);
  EXPECT_EQ(p.latest, 9);
  EXPECT_EQ(p.earliest, -3);
  std::vector<uint32_t> addrs;
  for (uint32_t i = 0; i < p.values; ++i) addrs.push_back(h->value_hash[i]->event_address);
  EXPECT_EQ(addrs, (std::vector<uint32_t>{105, 102, 103, 100, 104, 101}));
  ASSERT_EQ(p.terms, 4u);
  const char* want[] = {"alpha", "beta", "mid", "zeta"};
  for (uint32_t t = 0; t < 4; ++t) EXPECT_STREQ(h->sorted_terms[t], want[t]);
  EXPECT_EQ(ids_of(h, 0), (std::vector<uint32_t>{2, 5}));  // 103 and 101
  EXPECT_EQ(ids_of(h, 3), (std::vector<uint32_t>{3, 4}));  // 100 and 104
  const st_term_metadata& alpha = h->term_metadata[st_hot_slice_get_term_index(h, 0)];
  EXPECT_EQ(alpha.count, 2u);
  EXPECT_EQ(alpha.earliest, -3);
  EXPECT_EQ(alpha.latest, 5);
}

TEST(HotSlice, NormalPrepareWithoutValuesFails) {
  slice_ptr h(make(4096, 258, 64, 64, false));
  EXPECT_EQ(prep(h).rc, -1);
}

TEST(HotSlice, NoAllocationAfterCreateAndResetReuses) {
  for (bool streaming : {false, true}) {
    slice_ptr h(make(1 << 16, 1024, 4096, 1024, streaming));
    for (int round = 0; round < 2; ++round) {
      const uint64_t before = g_allocations.load();
      uint32_t n = 0;
      // Enough terms and postings for the sorts to leave their small-array paths.
      for (uint32_t e = 0; e < 600; ++e) {
        for (uint32_t k = 0; k < 5; ++k) {
          char term[16];
          snprintf(term, sizeof(term), "w%u", (e * 7 + k * 13) % 300);
          const uint32_t addr = streaming ? e : (e * 37) % 600;
          if (st_hot_slice_put(h, term, static_cast<uint32_t>(strlen(term)), static_cast<int32_t>(addr / 3), addr,
                               addr % 4, 0, 0, 0) == 0) {
            ++n;
          }
        }
      }
      const prepared p = prep(h);
      st_hot_slice_reset(h);
      EXPECT_EQ(g_allocations.load(), before) << "streaming " << streaming;
      EXPECT_EQ(n, 3000u);
      EXPECT_EQ(p.values, 600u);
      EXPECT_EQ(p.terms, 300u);
      EXPECT_EQ(h->term_count, 0u);
      EXPECT_EQ(h->nodes_used, 0u);
      EXPECT_EQ(st_hot_slice_values(h), 0u);
    }
  }
}

TEST(HotSlice, ManyTermsAndValuesRoundTripThroughPrepare) {
  // Enough entries that both hash tables probe a lot.
  slice_ptr h(make(1 << 20, 4000, 40000, 3001, false));  // full at 3000 values used
  std::vector<std::vector<uint32_t>> want(2000);
  for (uint32_t e = 0; e < 3000; ++e) {
    for (uint32_t k = 0; k < 10; ++k) {
      const uint32_t t = (e * 31 + k * 17) % 2000;
      char term[16];
      snprintf(term, sizeof(term), "%05u", t);
      ASSERT_EQ(put(h, term, static_cast<int32_t>(3000 - e), e * 1000003u, 0), 0);
      // Value id: latest first, so event e has id e.
      if (want[t].empty() || want[t].back() != e) want[t].push_back(e);
    }
  }
  const prepared p = prep(h);
  ASSERT_EQ(p.values, 3000u);
  ASSERT_EQ(p.terms, 2000u);
  for (uint32_t t = 0; t < 2000; ++t) {
    std::vector<uint32_t> w = want[t];
    std::sort(w.begin(), w.end());
    w.erase(std::unique(w.begin(), w.end()), w.end());
    EXPECT_EQ(ids_of(h, t), w) << t;
  }
}

TEST(HotSlice, SizeEstimateWrapsItsSmallSums) {
  EXPECT_EQ(st_hot_slice_size_est(10, 2, 3, 4), 10u + 2 + 64 + 24 * 6 + 4 * 7 + 8 * 11);
  // 2 * values wraps at 32 bits.
  EXPECT_EQ(st_hot_slice_size_est(0, 0, 0, 0x80000000u), 24ull * 0x80000000u + 4ull * 0x80000000u);
  slice_ptr h(make(1000, 300, 50, 40, false));
  EXPECT_EQ(st_hot_slice_size(h), 1000u + 12 * 300 + sizeof(hot_slice) + 16 * 600 + 24 * 40 +
                                      8 * (80 + 50 + 300) + 4 * (300 + 40 + 50));
}

TEST(GenericList, PushAppendPopAndFree) {
  static int freed = 0;
  freed = 0;
  gen_list* l = new_list([](void* p) {
    ++freed;
    delete static_cast<int*>(p);
  });
  ASSERT_NE(l, nullptr);
  EXPECT_EQ(pop_front(l), nullptr);
  ASSERT_EQ(append_list_node(l, new int(2)), 0);
  ASSERT_EQ(push_front(l, new int(1)), 0);
  ASSERT_EQ(append_list_node(l, new int(3)), 0);
  EXPECT_EQ(get_count(l), 3u);
  EXPECT_EQ(*static_cast<int*>(top_front(l)), 1);
  int* one = static_cast<int*>(pop_front(l));
  EXPECT_EQ(*one, 1);
  delete one;
  EXPECT_EQ(*static_cast<int*>(l->tail->data), 3);
  delete_list(l);
  EXPECT_EQ(freed, 2);
}

}  // namespace
}  // namespace tarnix
