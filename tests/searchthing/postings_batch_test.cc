// The batch reader of posting lists must give exactly what _next gives, one
// value at a time: the same values, the same end, the same fault at the same
// value, and no read that _next would not have made at that point. The same
// holds for the merge's other shortcuts: moving a stretch of a list straight
// into a writer, and taking a list of one value.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "searchthing/codes.h"
#include "searchthing/warmslice.h"
#include "testutil/testutil.h"

namespace tarnix {
namespace {

using bytes = std::vector<uint8_t>;
using ids = std::vector<uint32_t>;

struct free_del {
  void operator()(void* p) const { free(p); }
};

// What a walk over one list produced: the values, then the code that ended
// it (0 for the end marker).
struct walk {
  ids values;
  int rc = 0;
  bool operator==(const walk&) const = default;
};

class PostingsBatchTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (fd_ >= 0) close(fd_);
  }
  // A file holding the postings bytes then an 8-byte offset table.
  void make_file(const bytes& postings, const std::vector<uint64_t>& ends) {
    bytes file = postings;
    table_ = file.size();
    for (uint64_t e : ends) {
      uint8_t b[8];
      store_be64(b, e);
      file.insert(file.end(), b, b + 8);
    }
    path_ = dir_.file("postings" + std::to_string(files_++));
    testutil::write_file(path_, file);
    if (fd_ >= 0) close(fd_);
    fd_ = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd_, 0);
    ends_ = ends;
  }
  std::unique_ptr<plist_reader, free_del> reader() {
    std::unique_ptr<plist_reader, free_del> r(static_cast<plist_reader*>(calloc(1, sizeof(plist_reader))));
    EXPECT_EQ(_init_reader_helper(r.get(), fd_, table_, static_cast<uint32_t>(ends_.size()), 8, 0,
                                  ends_.empty() ? 0 : ends_.back(), 1024, nullptr),
              0);
    return r;
  }
  // Takes the rest of the list with _next.
  static void drain(plist_reader* r, walk* out) {
    uint32_t v;
    while ((out->rc = _next(r, &v)) == 0 && v != END_OF_LIST) out->values.push_back(v);
  }
  walk one_at_a_time(uint32_t term) {
    auto r = reader();
    walk out;
    EXPECT_EQ(_seek_reader(r.get(), term), 0);
    drain(r.get(), &out);
    close_plist_reader(r.get());
    return out;
  }
  walk batched(uint32_t term, uint32_t cap) {
    auto r = reader();
    walk out;
    EXPECT_EQ(_seek_reader(r.get(), term), 0);
    std::vector<uint32_t> buf(cap);
    for (;;) {
      uint32_t n = 0;
      out.rc = _next_batch(r.get(), buf.data(), cap, &n);
      if (out.rc != 0) {
        EXPECT_EQ(n, 0u);
        break;
      }
      EXPECT_GE(n, 1u);
      EXPECT_LE(n, cap);
      const auto end = std::find(buf.begin(), buf.begin() + n, END_OF_LIST);
      EXPECT_TRUE(end == buf.begin() || end == buf.begin() + n) << "the end marker comes alone";
      out.values.insert(out.values.end(), buf.begin(), end);
      if (end != buf.begin() + n) break;
    }
    close_plist_reader(r.get());
    return out;
  }
  // Encodes the lists the way the writer does (gaps and runs).
  static bytes encode(const std::vector<ids>& lists, std::vector<uint64_t>* ends) {
    bytes out;
    auto code = [&](uint32_t x) {
      uint8_t b[5];
      out.insert(out.end(), b, b + st_encode_to_vbe(b, x));
    };
    for (const ids& l : lists) {
      uint32_t run = 0;
      for (size_t i = 0; i < l.size(); ++i) {
        const bool in_run = i > 0 && l[i] == l[i - 1] + 1;
        run += in_run;
        if (run > 0 && (!in_run || i + 1 == l.size())) {
          out.push_back(0);
          code(run);
          run = 0;
        }
        if (!in_run) code(l[i] - (i > 0 ? l[i - 1] : 0));
      }
      ends->push_back(out.size());
    }
    return out;
  }

  testutil::TempDir dir_;
  std::string path_;
  int fd_ = -1;
  int files_ = 0;
  uint64_t table_ = 0;
  std::vector<uint64_t> ends_;
};

// Lists that cross the 4096-byte buffer many times, with runs of every
// length (a run of one, runs longer than a batch) and gaps of every width.
std::vector<ids> random_lists(uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<ids> lists;
  for (int l = 0; l < 6; ++l) {
    ids v;
    uint32_t cur = rng() % 3;
    const int n = l == 0 ? 1 : 1000 * l + static_cast<int>(rng() % 500);
    for (int i = 0; i < n; ++i) {
      v.push_back(cur);
      switch (rng() % 6) {
        case 0: cur += 1; break;
        case 1: cur += 2 + rng() % 100; break;
        case 2: cur += 200 + rng() % 20000; break;
        case 3: cur += 1u << (14 + rng() % 8); break;
        default: cur += 1 + (rng() % 3 == 0 ? 700 : 0); break;
      }
    }
    lists.push_back(v);
  }
  return lists;
}

TEST_F(PostingsBatchTest, SameValuesAsOneAtATime) {
  for (uint32_t seed : {1u, 2u, 3u}) {
    std::vector<uint64_t> ends;
    std::vector<ids> lists = random_lists(seed);
    make_file(encode(lists, &ends), ends);
    for (uint32_t t = 0; t < lists.size(); ++t) {
      walk want = one_at_a_time(t);
      ASSERT_EQ(want.rc, 0);
      ASSERT_EQ(want.values, lists[t]);
      for (uint32_t cap : {1u, 2u, 7u, 256u, 5000u}) {
        EXPECT_EQ(batched(t, cap), want) << "seed " << seed << " term " << t << " cap " << cap;
      }
    }
  }
}

// A fault in the middle of a list: both walks stop at the same value with
// the same code, whatever the batch size.
TEST_F(PostingsBatchTest, FaultAtTheSameValue) {
  struct fault_case {
    const char* name;
    size_t where;   // byte of the list to replace
    bytes with;     // replacement bytes
  };
  std::vector<uint64_t> base_ends;
  ids list;
  for (uint32_t i = 0; i < 6000; ++i) list.push_back(i * 200 + (i % 7 == 0 ? 1 : 0));
  const bytes good = encode({list}, &base_ends);
  const fault_case cases[] = {
      {"five continuation bytes", 100, {0x80, 0x80, 0x80, 0x80, 0x80}},
      {"code past the list's end", good.size() - 1, {0x81}},
      {"run beyond the largest id", 2000, {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F}},
      {"five continuation bytes across the buffer", 4094, {0x80, 0x80, 0x80, 0x80, 0x80}},
  };
  for (const fault_case& c : cases) {
    bytes b = good;
    ASSERT_LE(c.where + c.with.size(), b.size()) << c.name;
    std::copy(c.with.begin(), c.with.end(), b.begin() + static_cast<long>(c.where));
    make_file(b, {b.size()});
    walk want = one_at_a_time(0);
    EXPECT_NE(want.rc, 0) << c.name;
    for (uint32_t cap : {1u, 3u, 256u}) EXPECT_EQ(batched(0, cap), want) << c.name << " cap " << cap;
  }
}

// The file ends before the list's offset says (the table follows the cut
// bytes): whatever _next makes of it, the batch makes the same.
TEST_F(PostingsBatchTest, ShortFile) {
  std::vector<uint64_t> ends;
  ids list;
  for (uint32_t i = 0; i < 5000; ++i) list.push_back(i * 2);
  bytes b = encode({list}, &ends);
  const uint64_t claimed = b.size();
  b.resize(4096 + 100);  // the second buffer comes up short
  make_file(b, {claimed});
  walk want = one_at_a_time(0);
  for (uint32_t cap : {1u, 256u}) EXPECT_EQ(batched(0, cap), want) << "cap " << cap;
}

// What a writer and a reader hold after moving part of a list: the writer's
// fields and output, then what the reader gives from there on.
struct moved {
  int rc = 0;
  uint64_t offset = 0, total = 0;
  uint32_t bytes = 0, count = 0, run = 0, last = 0;
  std::vector<uint8_t> out;  // the writer's memory up to offset, then its buffer
  walk rest;                 // the reader's values after the move, and its fault
  bool operator==(const moved&) const = default;
};

class PostingsMoveTest : public PostingsBatchTest {
 protected:
  // The first value of the list put as v0 + delta, then the values up to
  // limit taken with _next and put one by one (by_move false) or moved at
  // once. The writer's memory holds cap bytes (a smaller one makes a flush
  // fail).
  moved run(uint32_t term, uint32_t limit, uint32_t delta, bool by_move, uint64_t cap = 1u << 20) {
    auto r = reader();
    std::unique_ptr<plw, free_del> w(static_cast<plw*>(calloc(1, sizeof(plw))));
    std::vector<uint8_t> mem(cap);
    _plist_writer_open_mem(w.get(), mem.data(), cap);
    _plist_writer_start_term(w.get());
    moved m;
    EXPECT_EQ(_seek_reader(r.get(), term), 0);
    uint32_t v = 0;
    EXPECT_EQ(_next(r.get(), &v), 0);
    EXPECT_NE(v, END_OF_LIST);
    EXPECT_EQ(_plist_writer_put(w.get(), v + delta), 0);
    bool pending_value = false;  // v was read past the limit and is the rest's first
    int fault = 0;               // the reader's fault, where the rest begins
    if (by_move) {
      m.rc = _plist_move(r.get(), w.get(), limit, delta);
      if (m.rc == WS_EREAD) std::swap(m.rc, fault);
    } else {
      for (;;) {
        if ((fault = _next(r.get(), &v)) != 0) break;
        if (v == END_OF_LIST || v > limit) {
          pending_value = v != END_OF_LIST;
          break;
        }
        if ((m.rc = _plist_writer_put(w.get(), v + delta)) != 0) break;
      }
    }
    m.offset = w->offset;
    m.total = w->total;
    m.bytes = w->bytes;
    m.count = w->count_forterm;
    m.run = w->run;
    m.last = w->last_value;
    m.out.assign(mem.begin(), mem.begin() + static_cast<long>(std::min<uint64_t>(w->offset, cap)));
    m.out.insert(m.out.end(), w->buf, w->buf + w->bytes);
    m.rest.rc = fault;
    if (m.rc == 0 && fault == 0) {
      if (pending_value) m.rest.values.push_back(v);
      drain(r.get(), &m.rest);
    }
    close_plist_reader(r.get());
    return m;
  }
};

// Lists coded as no writer codes them, each still read by _next: a gap of 1
// instead of a run, a gap of 0 written as 80 00, a run after a run, and
// codes of every width.
bytes odd_list() {
  bytes b = {5, 0x01, 0x01, 0x80, 0x00, 0x00, 0x02, 0x00, 0x03, 0x02, 0x03};
  for (uint32_t i = 0; i < 700; ++i) {
    const uint32_t gap = i % 9 == 0 ? 1 : i % 13 == 0 ? 70000 : i % 7 == 0 ? 300 : 2 + i % 100;
    uint8_t c[5];
    b.insert(b.end(), c, c + st_encode_to_vbe(c, gap));
    if (i % 17 == 0) b.insert(b.end(), {0x00, static_cast<uint8_t>(1 + i % 5)});
  }
  return b;
}

TEST_F(PostingsMoveTest, MoveMatchesNextAndPut) {
  struct list_case {
    const char* name;
    bytes list;
    uint64_t claimed_extra = 0;  // bytes the offset table claims beyond the list's
  };
  std::vector<list_case> cases;
  std::vector<uint64_t> ends;
  for (uint32_t seed : {1u, 2u}) {
    for (const ids& l : random_lists(seed)) {
      if (l.size() > 1) cases.push_back({"random", encode({l}, &ends)});
    }
  }
  // One-byte gaps for pages on end, then the same broken by short runs:
  // most of it is moved eight codes at a time, and flushes fall inside such
  // stretches at every alignment.
  ids plain;
  ids broken;
  std::mt19937 rng(7);
  for (uint32_t i = 0, x = 3; i < 30000; ++i, x += 2 + i % 100) plain.push_back(x);
  for (uint32_t i = 0, x = 3; i < 30000; ++i, x += rng() % 16 == 0 ? 1 : 2 + rng() % 30) broken.push_back(x);
  cases.push_back({"one-byte gaps", encode({plain}, &ends)});
  cases.push_back({"one-byte gaps and runs", encode({broken}, &ends)});
  cases.push_back({"odd codes", odd_list()});
  bytes faulty = odd_list();
  faulty.insert(faulty.begin() + 300, {0x00, 0x00});
  cases.push_back({"run of zero inside", faulty});
  bytes beyond = odd_list();
  beyond.insert(beyond.begin() + 200, {0xFF, 0xFF, 0xFF, 0xFF, 0x0F});
  cases.push_back({"value past the largest id", beyond});
  // The list claims more bytes than the postings hold: the reader reads the
  // offset table behind them as codes, then comes up short.
  bytes cut = odd_list();
  cut.resize(cut.size() / 2);
  cases.push_back({"list past the postings", cut, 200});
  for (const list_case& c : cases) {
    make_file(c.list, {c.list.size() + c.claimed_extra});
    const walk all = one_at_a_time(0);
    ASSERT_GE(all.values.size(), 2u) << c.name;
    const ids& v = all.values;
    const uint32_t first = v.front();
    for (uint32_t limit : {first, v[1], v[v.size() / 3], v[v.size() / 2] + 1, v.back(), END_OF_LIST - 1}) {
      for (uint32_t delta : {0u, 9u, 0u - first}) {
        if (delta != 0u - first && uint64_t{v.back()} + delta >= END_OF_LIST) continue;
        const moved want = run(0, limit, delta, false);
        EXPECT_EQ(run(0, limit, delta, true), want) << c.name << " limit " << limit << " delta " << delta;
      }
    }
    // A writer whose memory ends after a few flushes fails at the same value.
    for (uint64_t cap : {uint64_t{8000}, uint64_t{20000}}) {
      const moved want = run(0, END_OF_LIST - 1, 0, false, cap);
      EXPECT_EQ(run(0, END_OF_LIST - 1, 0, true, cap), want) << c.name << " cap " << cap;
    }
  }
}

// A list of one value is taken as _next takes it; any other list, or one
// whose code is not all buffered without a read, is left as it was.
TEST_F(PostingsBatchTest, TakeSingleMatchesNext) {
  std::vector<ids> lists = {{0}, {127}, {128}, {1u << 21}, {0xFFFFFFF0u}, {3, 4}, {3, 9}};
  // Enough one-value lists that some straddle the end of the 4096-byte buffer.
  for (uint32_t i = 0; i < 2000; ++i) lists.push_back({i * 1000});
  std::vector<uint64_t> ends;
  make_file(encode(lists, &ends), ends);
  uint32_t taken = 0;
  auto r = reader();
  auto s = reader();
  uint64_t start = 0;
  for (uint32_t t = 0; t < lists.size(); ++t) {
    ASSERT_EQ(_seek_reader_after(r.get(), t, start), 0);
    ASSERT_EQ(_seek_reader_after(s.get(), t, start), 0);
    start += r->left;
    uint32_t want = 0;
    ASSERT_EQ(_next(r.get(), &want), 0);
    uint32_t got = 0;
    const plist_reader before = *s;
    if (_take_single(s.get(), &got)) {
      ++taken;
      EXPECT_EQ(lists[t].size(), 1u) << "term " << t;
      EXPECT_EQ(got, want) << "term " << t;
    } else {
      EXPECT_EQ(memcmp(&before, s.get(), sizeof(plist_reader)), 0) << "term " << t;
      ASSERT_EQ(_next(s.get(), &got), 0);
      EXPECT_EQ(got, want);
    }
    // Both readers stand at the same place: a list of one value is over.
    for (plist_reader* x : {r.get(), s.get()}) {
      if (lists[t].size() == 1) {
        EXPECT_EQ(_next(x, &got), 0);
        EXPECT_EQ(got, END_OF_LIST);
      }
    }
    EXPECT_EQ(r->pos, s->pos);
    EXPECT_EQ(r->buf_start, s->buf_start);
  }
  EXPECT_GT(taken, 1900u);
  EXPECT_LT(taken, 2005u);
  close_plist_reader(r.get());
  close_plist_reader(s.get());
}

}  // namespace
}  // namespace tarnix
