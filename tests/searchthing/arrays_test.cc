// Fixed-size record arrays: buffered positional writes and reads.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "searchthing/codes.h"
#include "searchthing/warmslice_util.h"
#include "testutil/testutil.h"

namespace tarnix {
namespace {

class ArraysTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = dir_.file("array");
    fd_ = open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    ASSERT_GE(fd_, 0);
  }
  void TearDown() override { close(fd_); }
  std::vector<uint8_t> contents() { return testutil::read_file(path_); }
  static std::vector<uint8_t> rec8(uint64_t v) {
    std::vector<uint8_t> b(8);
    store_be64(b.data(), v);
    return b;
  }

  testutil::TempDir dir_;
  std::string path_;
  int fd_ = -1;
};

TEST_F(ArraysTest, WriterHoldsAFullBufferUntilAFurtherRecordArrives) {
  aw w{};
  // Closed with nothing buffered, a writer writes nothing.
  ASSERT_EQ(_aw_open(&w, fd_, 0, 12, 341), 0);
  ASSERT_EQ(_aw_close(&w), 0);
  EXPECT_EQ(contents().size(), 0u);
  ASSERT_EQ(_aw_open(&w, fd_, 16, 8, 2), 0);
  ASSERT_EQ(_aw_write(&w, rec8(1).data(), 8), 0);
  ASSERT_EQ(_aw_write(&w, rec8(2).data(), 8), 0);
  EXPECT_EQ(contents().size(), 0u) << "a full buffer is written only when the third record comes";
  ASSERT_EQ(_aw_write(&w, rec8(3).data(), 8), 0);
  auto c = contents();
  ASSERT_EQ(c.size(), 32u);
  EXPECT_EQ(load_be64(c.data() + 16), 1u);
  EXPECT_EQ(load_be64(c.data() + 24), 2u);
  ASSERT_EQ(_aw_close(&w), 0);
  c = contents();
  ASSERT_EQ(c.size(), 40u);
  EXPECT_EQ(load_be64(c.data() + 32), 3u);
  EXPECT_EQ(w.buf, nullptr);
  EXPECT_EQ(w.fd, -1);
  EXPECT_EQ(w.capacity, 0u);
}

TEST_F(ArraysTest, WriterReportsFailedWritesAndStillFreesOnClose) {
  int ro = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(ro, 0);
  aw w{};
  ASSERT_EQ(_aw_open(&w, ro, 0, 8, 1), 0);
  ASSERT_EQ(_aw_write(&w, rec8(1).data(), 8), 0);
  EXPECT_EQ(_aw_write(&w, rec8(2).data(), 8), WS_EWRITE);
  EXPECT_EQ(w.count, 1u) << "the unwritten record stays buffered";
  EXPECT_EQ(_aw_close(&w), WS_EWRITE);
  EXPECT_EQ(w.buf, nullptr);
  close(ro);
}

TEST_F(ArraysTest, ReadsPastTheLastRecordOrTheFileEnd) {
  ar_reader r{};
  // No descriptor at all: any read attempt would fail with -8 instead.
  ASSERT_EQ(_ar_open(&r, -1, 0, 8, 3, 4, nullptr), 0);
  wrc w{};
  EXPECT_EQ(_ar_get_i(&r, 3, 8, &w), nullptr);
  EXPECT_EQ(w.warm_rc, WS_ENOTAVAIL);
  EXPECT_EQ(_ar_get_i(&r, 0, 8, &w), nullptr);
  EXPECT_EQ(w.warm_rc, WS_EREAD);
  _ar_close(&r);
  // Fewer records in the file than the reader was opened for.
  testutil::write_file(path_, std::vector<uint8_t>(12 * 5, 7));
  ASSERT_EQ(_ar_open(&r, fd_, 0, 12, 10, 341, nullptr), 0);
  w = wrc{};
  EXPECT_EQ(_ar_get(&r, 12, &w), nullptr);
  EXPECT_EQ(w.warm_rc, WS_EREAD);
  _ar_close(&r);
}

TEST_F(ArraysTest, RandomAccessRefillsFromTheRequestedRecord) {
  std::vector<uint8_t> file;
  for (uint64_t i = 0; i < 6; ++i) {
    auto b = rec8(100 + i);
    file.insert(file.end(), b.begin(), b.end());
  }
  testutil::write_file(path_, file);
  ar_reader r{};
  ASSERT_EQ(_ar_open(&r, fd_, 0, 8, 6, 4, nullptr), 0);
  wrc w{};
  const uint8_t* p = _ar_get_i(&r, 5, 8, &w);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(load_be64(p), 105u);
  EXPECT_EQ(w.warm_rc, 0);
  EXPECT_EQ(r.first, 5u);
  EXPECT_EQ(r.buffered, 1u) << "record 5 of 6 with capacity 4 reads one record";
  p = _ar_get_i(&r, 3, 8, &w);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(load_be64(p), 103u);
  EXPECT_EQ(r.first, 3u);
  EXPECT_EQ(r.buffered, 3u);
  // Records 4 and 5 now come from the buffer, not from the file.
  auto changed = rec8(999);
  ASSERT_EQ(pwrite(fd_, changed.data(), 8, 40), 8);
  p = _ar_get(&r, 8, &w);
  EXPECT_EQ(load_be64(p), 104u);
  p = _ar_get(&r, 8, &w);
  EXPECT_EQ(load_be64(p), 105u);
  EXPECT_EQ(r.cursor, 6u);
  EXPECT_EQ(_ar_get(&r, 8, &w), nullptr);
  EXPECT_EQ(w.warm_rc, WS_ENOTAVAIL);
  _ar_close(&r);
}

TEST_F(ArraysTest, WrittenArraysReadBackInOrderAcrossBuffers) {
  struct Case {
    uint64_t obj_sz;
    uint32_t wcap, rcap, n;
  };
  for (Case c : {Case{8, 512, 1024, 3000}, Case{12, 341, 341, 1000}, Case{4, 1, 1, 17}, Case{4, 1024, 7, 1024}}) {
    SCOPED_TRACE(c.obj_sz * 1000 + c.n);
    ASSERT_EQ(ftruncate(fd_, 0), 0);
    aw w{};
    ASSERT_EQ(_aw_open(&w, fd_, 64, c.obj_sz, c.wcap), 0);
    std::vector<uint8_t> rec(c.obj_sz);
    for (uint32_t i = 0; i < c.n; ++i) {
      for (uint64_t k = 0; k < c.obj_sz; ++k) rec[k] = static_cast<uint8_t>(i * 7 + k);
      ASSERT_EQ(_aw_write(&w, rec.data(), c.obj_sz), 0);
    }
    ASSERT_EQ(_aw_close(&w), 0);
    EXPECT_EQ(contents().size(), 64 + c.obj_sz * c.n);
    ar_reader r{};
    ASSERT_EQ(_ar_open(&r, fd_, 64, c.obj_sz, c.n, c.rcap, nullptr), 0);
    wrc rc{};
    for (uint32_t i = 0; i < c.n; ++i) {
      const uint8_t* p = _ar_get(&r, c.obj_sz, &rc);
      ASSERT_NE(p, nullptr) << i;
      for (uint64_t k = 0; k < c.obj_sz; ++k) ASSERT_EQ(p[k], static_cast<uint8_t>(i * 7 + k));
    }
    _ar_close(&r);
  }
}

}  // namespace
}  // namespace tarnix
