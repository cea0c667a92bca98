// The batch reader of posting lists must give exactly what _next gives, one
// value at a time: the same values, the same end, the same fault at the same
// value, and no read that _next would not have made at that point.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
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
  walk one_at_a_time(uint32_t term) {
    auto r = reader();
    walk out;
    EXPECT_EQ(_seek_reader(r.get(), term), 0);
    for (;;) {
      uint32_t v;
      out.rc = _next(r.get(), &v);
      if (out.rc != 0 || v == END_OF_LIST) break;
      out.values.push_back(v);
    }
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
      bool end = false;
      for (uint32_t i = 0; i < n; ++i) {
        if (buf[i] == END_OF_LIST) {
          EXPECT_EQ(i, 0u) << "the end marker comes alone";
          end = true;
          break;
        }
        out.values.push_back(buf[i]);
      }
      if (end) break;
    }
    close_plist_reader(r.get());
    return out;
  }
  // Encodes the lists the way the writer does (gaps and runs).
  static bytes encode(const std::vector<ids>& lists, std::vector<uint64_t>* ends) {
    bytes out;
    for (const ids& l : lists) {
      uint32_t last = 0;
      uint32_t run = 0;
      for (size_t i = 0; i < l.size(); ++i) {
        if (i > 0 && l[i] == last + 1) {
          ++run;
        } else {
          if (run > 0) {
            out.push_back(0);
            uint8_t b[5];
            out.insert(out.end(), b, b + st_encode_to_vbe(b, run));
            run = 0;
          }
          uint8_t b[5];
          out.insert(out.end(), b, b + st_encode_to_vbe(b, l[i] - last));
        }
        last = l[i];
      }
      if (run > 0) {
        out.push_back(0);
        uint8_t b[5];
        out.insert(out.end(), b, b + st_encode_to_vbe(b, run));
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

 public:
  ~PostingsBatchTest() override {
    if (fd_ >= 0) close(fd_);
  }
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

}  // namespace
}  // namespace tarnix
