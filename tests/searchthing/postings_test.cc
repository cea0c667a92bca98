// Posting lists: the writer's exact bytes, the reader over gaps and runs,
// skipping, malformed lists, and lists longer than either buffer.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "searchthing/codes.h"
#include "searchthing/warmslice.h"
#include "testutil/testutil.h"

namespace tarnix {
namespace {

using bytes = std::vector<uint8_t>;
using ids = std::vector<uint32_t>;
using offsets = std::vector<uint64_t>;

class PostingsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = dir_.file("postings");
    fd_ = open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    ASSERT_GE(fd_, 0);
    writer_.reset(static_cast<plw*>(calloc(1, sizeof(plw))));
    reader_.reset(static_cast<plist_reader*>(calloc(1, sizeof(plist_reader))));
  }
  void TearDown() override { close(fd_); }

  // Writes the lists through the writer at offset 0 of an emptied file;
  // returns the end offsets.
  offsets write_lists(const std::vector<ids>& lists) {
    EXPECT_EQ(ftruncate(fd_, 0), 0);
    offsets ends;
    EXPECT_EQ(_plist_writer_open(writer_.get(), fd_, 0), 0);
    for (const ids& l : lists) {
      _plist_writer_start_term(writer_.get());
      for (uint32_t v : l) EXPECT_EQ(_plist_writer_put(writer_.get(), v), 0);
      _plist_writer_end_term(writer_.get());
      ends.push_back(writer_->total);
    }
    EXPECT_EQ(_plist_writer_close(writer_.get()), 0);
    return ends;
  }

  // A file of: postings at 0 (given bytes), then an offset table of
  // plo_size-byte entries; opens the reader over it.
  void open_reader(const bytes& postings, const offsets& ends, uint32_t plo_size = 8) {
    bytes file = postings;
    const uint64_t table = file.size();
    for (uint64_t e : ends) {
      uint8_t b[8];
      if (plo_size == 8) store_be64(b, e); else store_be32(b, static_cast<uint32_t>(e));
      file.insert(file.end(), b, b + plo_size);
    }
    testutil::write_file(path_, file);
    ASSERT_EQ(_init_reader_helper(reader_.get(), fd_, table, static_cast<uint32_t>(ends.size()), plo_size, 0,
                                  ends.empty() ? 0 : ends.back(), 1024, nullptr),
              0);
  }

  ids read_list(uint32_t term, int* rc_out = nullptr) {
    ids out;
    int rc = _seek_reader(reader_.get(), term);
    uint32_t v;
    while (rc == 0 && (rc = _next(reader_.get(), &v)) == 0 && v != END_OF_LIST) out.push_back(v);
    if (rc_out) *rc_out = rc;
    else EXPECT_EQ(rc, 0);
    return out;
  }

  testutil::TempDir dir_;
  std::string path_;
  int fd_ = -1;
  std::unique_ptr<plw, decltype(&free)> writer_{nullptr, &free};
  std::unique_ptr<plist_reader, decltype(&free)> reader_{nullptr, &free};
};

TEST_F(PostingsTest, WriterEmitsGapsAndRuns) {
  struct Case {
    std::vector<ids> lists;
    bytes expected;
    offsets ends;
    uint32_t count;  // of the last list
  };
  const Case cases[] = {
      {{{5, 6, 7, 8, 20, 21, 40}}, {0x05, 0x00, 0x03, 0x0C, 0x00, 0x01, 0x13}, {7}, 7},
      {{{7, 7, 8}}, {0x07, 0x00, 0x01}, {3}, 2},
      {{{0}}, {0x00}, {1}, 1},
      {{{0, 1}}, {0x00, 0x00, 0x01}, {3}, 2},
      {{{300, 302}}, {0xAC, 0x02, 0x02}, {3}, 2},
      {{{10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20}}, {0x0A, 0x00, 0x0A}, {3}, 11},
      {{{}}, {}, {0}, 0},
      // A list starts with a plain value, never a run: neither the first
      // list at 1 nor a new term at the last term's value plus one.
      {{{1, 2}}, {0x01, 0x00, 0x01}, {3}, 2},
      {{{8}, {9}}, {0x08, 0x09}, {1, 2}, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.lists));
    EXPECT_EQ(write_lists(c.lists), c.ends);
    EXPECT_EQ(testutil::read_file(path_), c.expected);
    EXPECT_EQ(writer_->count_forterm, c.count);
  }
}

TEST_F(PostingsTest, ReaderDecodesGapsRunsAndEmptyLists) {
  // Term 0 coded with runs, term 1 empty, term 2 the same values as plain
  // gaps (as the file writer emits them), term 3 the single value 0.
  open_reader({0x05, 0x00, 0x03, 0x0C, 0x00, 0x01, 0x13, 0x05, 0x01, 0x01, 0x01, 0x0C, 0x01, 0x13, 0x00},
              {7, 7, 14, 15});
  const ids expected = {5, 6, 7, 8, 20, 21, 40};
  EXPECT_EQ(read_list(0), expected);
  EXPECT_EQ(read_list(1), ids{});
  EXPECT_EQ(read_list(2), expected);
  EXPECT_EQ(read_list(3), ids{0});
  // Back to an earlier list: the buffer is refilled from there.
  EXPECT_EQ(read_list(0), expected);
  close_plist_reader(reader_.get());
  // Four-byte offset tables.
  open_reader({0x03, 0x04, 0x00, 0x02}, {1, 4}, 4);
  EXPECT_EQ(read_list(0), ids{3});
  EXPECT_EQ(read_list(1), (ids{4, 5, 6}));
  close_plist_reader(reader_.get());
}

TEST_F(PostingsTest, SeekJumpsInsideARun) {
  open_reader({0x0A, 0x00, 0x0A, 0x05, 0x0A, 0x0A}, {3, 6});
  uint32_t v;
  ASSERT_EQ(_seek_reader(reader_.get(), 0), 0);
  ASSERT_EQ(_seek(reader_.get(), 15, &v), 0);
  EXPECT_EQ(v, 15u);
  ASSERT_EQ(_next(reader_.get(), &v), 0);
  EXPECT_EQ(v, 16u);
  ASSERT_EQ(_seek(reader_.get(), 25, &v), 0);
  EXPECT_EQ(v, END_OF_LIST);
  // Gaps only: 5, 15, 25.
  ASSERT_EQ(_seek_reader(reader_.get(), 1), 0);
  ASSERT_EQ(_seek(reader_.get(), 6, &v), 0);
  EXPECT_EQ(v, 15u);
  ASSERT_EQ(_seek(reader_.get(), 15, &v), 0);
  EXPECT_EQ(v, 25u) << "seek takes at least one value";
  close_plist_reader(reader_.get());
}

TEST_F(PostingsTest, MalformedListsAreRejected) {
  struct Case {
    const char* what;
    bytes postings;
  };
  const Case cases[] = {
      {"five-byte code with high bit", {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01}},
      {"code runs past the list", {0x05, 0x80}},
      {"run of zero", {0x05, 0x00, 0x00}},
      {"values overflow 32 bits", {0x05, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(ftruncate(fd_, 0), 0);
    open_reader(c.postings, {c.postings.size()});
    int rc = 0;
    read_list(0, &rc);
    EXPECT_EQ(rc, WS_EDATA);
    close_plist_reader(reader_.get());
  }
}

TEST_F(PostingsTest, BadOffsetsAndShortPostings) {
  open_reader({0x01, 0x02}, {2, 1});
  EXPECT_EQ(_seek_reader(reader_.get(), 1), WS_EDATA) << "end before start";
  reader_->postings_size = 1;
  EXPECT_EQ(_seek_reader(reader_.get(), 0), WS_EDATA) << "end past the postings";
  EXPECT_EQ(_seek_reader(reader_.get(), 2), WS_ENOTAVAIL) << "no such term";
  close_plist_reader(reader_.get());
  // Postings that end before their offsets say give a read failure.
  open_reader({0x01, 0x02}, {2});
  reader_->postings_size = 9000;
  reader_->postings_offset = 100000;  // nothing to read there
  int rc = 0;
  read_list(0, &rc);
  EXPECT_EQ(rc, WS_EREAD);
  close_plist_reader(reader_.get());
}

// Lists far past 8192 bytes (mixed runs and gaps) and many short lists whose
// repeated values the writer drops.
TEST_F(PostingsTest, ListsRoundTripThroughBothBuffers) {
  std::mt19937 rng(1234);
  std::vector<ids> lists;
  for (uint32_t n : {1u, 3u, 5000u, 40000u, 2u, 70000u}) {
    ids l;
    for (uint32_t i = 0, v = rng() % 3; i < n; ++i) {
      l.push_back(v);
      uint32_t r = rng() % 10;
      v += r < 5 ? 1 : r < 8 ? 2 + rng() % 100 : 1000 + rng() % 100000;
    }
    lists.push_back(l);
  }
  offsets ends = write_lists(lists);
  ASSERT_GT(ends.back(), 3 * PLW_BUF_SZ);
  bytes p = testutil::read_file(path_);
  ASSERT_EQ(p.size(), ends.back());
  open_reader(p, ends);
  for (uint32_t t = 0; t < lists.size(); ++t) EXPECT_EQ(read_list(t), lists[t]) << t;
  // Skipping through a long list gives the first value at or above each target.
  ASSERT_EQ(_seek_reader(reader_.get(), 3), 0);
  for (size_t k = 0; k < lists[3].size(); k += 997) {
    uint32_t v;
    ASSERT_EQ(_seek(reader_.get(), lists[3][k], &v), 0);
    ASSERT_EQ(v, lists[3][k]);
  }
  close_plist_reader(reader_.get());

  rng.seed(99);
  std::vector<ids> puts, expected;
  for (int t = 0; t < 200; ++t) {
    ids put, exp;
    uint32_t v = rng() % 50;
    for (uint32_t i = 0, n = rng() % 60; i < n; ++i) {
      put.push_back(v);
      if (exp.empty() || exp.back() != v) exp.push_back(v);
      v += rng() % 4;  // 0 repeats the value: dropped by the writer
    }
    puts.push_back(put);
    expected.push_back(exp);
  }
  ends = write_lists(puts);
  open_reader(testutil::read_file(path_), ends);
  for (uint32_t t = 0; t < expected.size(); ++t) EXPECT_EQ(read_list(t), expected[t]) << t;
  close_plist_reader(reader_.get());
}

}  // namespace
}  // namespace tarnix
