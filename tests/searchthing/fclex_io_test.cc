#include "searchthing/fclex_io.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "searchthing/fclex.h"
#include "testutil/lexutil.h"
#include "testutil/testutil.h"

using namespace tarnix;
using testutil::TempDir;

namespace {

// A new file, read-write, holding content.
struct scratch_file {
  TempDir dir;
  std::string path = dir.file("f");
  int fd = -1;
  explicit scratch_file(const std::vector<uint8_t>& content = {}) {
    testutil::write_file(path, content);
    fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  }
  explicit scratch_file(const std::string& s) : scratch_file(std::vector<uint8_t>(s.begin(), s.end())) {}
  ~scratch_file() { close(fd); }
};

// ---- Positional reads -----------------------------------------------------------------

TEST(FclexPread, VerifyReportsShortReadsWithTheLabel) {
  scratch_file f("0123456789");
  char buf[16] = {};
  testing::internal::CaptureStderr();
  EXPECT_EQ(_pread_verify(f.fd, buf, 4, 3, "unused"), 1);
  EXPECT_EQ(std::string(buf, 4), "3456");
  EXPECT_EQ(_pread_verify(f.fd, buf, 8, 6, "my label"), 0);
  std::string err = testing::internal::GetCapturedStderr();
  char want[256];
  snprintf(want, sizeof want, "read failed[my label] fd=%u buf=%p sz=8 off=6 nr=4\n",
           static_cast<unsigned>(f.fd), static_cast<void*>(buf));
  EXPECT_EQ(err, want);
}

TEST(FclexPread, TimedReadCountsAndComplains) {
  scratch_file f("abcdef");
  char buf[16];
  uint32_t hist[READ_HISTOGRAM_SZ] = {};
  testing::internal::CaptureStderr();
  EXPECT_EQ(st_timed_pread_msg(f.fd, buf, 6, 0, hist, 1), 6);
  EXPECT_EQ(st_timed_pread_msg(f.fd, buf, 6, 4, hist, 0), 2);  // quiet
  EXPECT_EQ(st_timed_pread_msg(f.fd, buf, 6, 4, nullptr, 1), 2);
  std::string err = testing::internal::GetCapturedStderr();
  uint32_t total = 0;
  for (uint32_t v : hist) total += v;
  EXPECT_EQ(total, 2u);  // the untimed read is not counted
  char want[256];
  snprintf(want, sizeof want, "read failed fd=%u buf=%p sz=6 off=4 nr=2, errno=",
           static_cast<unsigned>(f.fd), static_cast<void*>(buf));
  EXPECT_EQ(err.rfind(want, 0), 0u) << err;
  EXPECT_EQ(err.find('\n'), err.size() - 1);
}

// ---- Bitmap ----------------------------------------------------------------------------------

TEST(FclexBitmap, SetAndTestEveryBit) {
  for (uint32_t bit = 0; bit < 32; ++bit) {
    bmap_t m = 0;
    _bmap_set(&m, bit);
    EXPECT_EQ(m, 1u << bit);
    for (uint32_t other = 0; other < 32; ++other) EXPECT_EQ(_bmap_is_set(&m, other), other == bit);
  }
}

// ---- Block writer -------------------------------------------------------------------------------

TEST(FclexWriter, DropsRepeatsAndCountsOnce) {
  // The first repeat falls on a block start (whole-string check), the others
  // inside a block (prefix check).
  for (uint32_t tperb : {1u, 2u, 3u}) {
    SCOPED_TRACE(tperb);
    scratch_file f;
    lex_writer w{};
    ASSERT_EQ(_lex_writer_open(0, &w, tperb, 0, 10), 0);
    for (const char* t : {"a", "a", "b", "b", "b", "c", "c"}) {
      ASSERT_EQ(_lex_writer_put(&w, t, 1), 0);
    }
    EXPECT_EQ(w._cursor, 3u);
    EXPECT_EQ(w.uncompressed_size, 3u);
    uint64_t end = 0;
    ASSERT_EQ(_lex_writer_close(0, &w, f.fd, 0, &end), 0);
    EXPECT_EQ(w.pages, nullptr);
    EXPECT_EQ(w._block_end_offsets, nullptr);
    EXPECT_EQ(testutil::read_file(f.path), testutil::build_with_writer({"a", "b", "c"}, tperb));
  }
}

TEST(FclexWriter, OneBytePagesGiveTheSameSection) {
  std::mt19937 rng(3);
  std::vector<std::string> terms = testutil::random_terms(rng, 400, true);
  for (uint32_t tperb : {1u, 2u, 8u}) {
    EXPECT_EQ(testutil::build_with_writer(terms, tperb, 9),
              testutil::build_with_writer(terms, tperb, 0));
  }
}

TEST(FclexWriter, VerboseLinesShowThatMemoryIsPages) {
  // 5 terms, 21 block bytes; pages of 8 + 4 data bytes: 6 pages. The writer
  // holds nothing else but the offset slots.
  std::vector<std::string> terms = {"apple", "apply", "apt", "bat", "bath"};
  scratch_file f;
  lex_writer w{};
  testing::internal::CaptureStdout();
  ASSERT_EQ(_lex_writer_open(1, &w, 4, 12, 5), 0);
  for (const auto& t : terms) ASSERT_EQ(_lex_writer_put(&w, t.data(), t.size()), 0);
  uint64_t end = 0;
  ASSERT_EQ(_lex_writer_close(1, &w, f.fd, 100, &end), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "creating writer, num_blocks=2, num_terms=5, page_sz=12.\n"
            "closing writer, wrote page_num=6, page_bytes=21.\n");
  EXPECT_EQ(end, 141u);
  std::vector<uint8_t> file = testutil::read_file(f.path);
  EXPECT_EQ(std::vector<uint8_t>(file.begin() + 100, file.end()),
            testutil::build_with_writer(terms, 4));

  testing::internal::CaptureStdout();
  lex_writer d{};
  ASSERT_EQ(_lex_writer_open(1, &d, 64, 0, 1000), 0);
  _lex_writer_discard(&d);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "creating writer, num_blocks=16, num_terms=1000, page_sz=1048576.\n");
  EXPECT_EQ(d.pages, nullptr);
}

TEST(FclexWriter, OverlongTermAndReadOnlyDescriptorFail) {
  lex_writer w{};
  ASSERT_EQ(_lex_writer_open(0, &w, 2, 0, 3), 0);
  std::string t(MAX_TERM_LEN + 1, 'x');
  EXPECT_EQ(_lex_writer_put(&w, t.data(), t.size()), WS_E32BIT);
  EXPECT_EQ(_lex_writer_put(&w, t.data(), MAX_TERM_LEN), 0);
  EXPECT_EQ(w._cursor, 1u);
  // Closing onto a descriptor that cannot write fails, and frees the pages.
  scratch_file f;
  int ro = open(f.path.c_str(), O_RDONLY | O_CLOEXEC);
  uint64_t end = 0;
  EXPECT_EQ(_lex_writer_close(0, &w, ro, 0, &end), WS_EWRITE);
  EXPECT_EQ(w.pages, nullptr);
  close(ro);
}

// ---- Readers -------------------------------------------------------------------------------------

// A section of 2000 one-term blocks whose terms are long enough that the
// 2052-byte block buffer holds one block at a time.
struct big_section {
  scratch_file f;
  std::vector<std::string> terms;
  uint64_t end = 0;
  big_section() {
    for (int i = 0; i < 2000; ++i) {
      char head[16];
      snprintf(head, sizeof head, "%05d", i);
      terms.push_back(head + std::string(1100, 'x'));
    }
    EXPECT_EQ(testutil::write_with_writer(f.fd, 0, terms, 1, 0, &end), 0);
  }
};

TEST(FclexReader, SequentialReadLoadsOffsetsInTwoRuns) {
  big_section s;
  auto c = std::make_unique<lex_merge_cxt>();
  ASSERT_EQ(_lex_reader_open(&c->_reader, s.f.fd, 0), 0);
  EXPECT_EQ(c->_reader.capacity, 2052u);
  std::vector<std::pair<uint32_t, uint32_t>> runs;  // (first, count) of every offset load
  auto note = [&] {
    auto run = std::make_pair(c->_reader._bor.first, c->_reader._bor.count);
    if (run.second != 0 && (runs.empty() || runs.back() != run)) runs.push_back(run);
  };
  ASSERT_EQ(_reload_term(c.get()), 0);
  note();
  for (uint32_t i = 0; i < s.terms.size(); ++i) {
    ASSERT_EQ(std::string(c->_cur_term, c->_cur_len), s.terms[i]);
    EXPECT_EQ(c->_reader.first_block, i);
    ASSERT_EQ(_increment_cursor(c.get()), 0u);
    note();
  }
  EXPECT_EQ(_increment_cursor(c.get()), 0xFFFFFFFFu);
  EXPECT_EQ(runs, (std::vector<std::pair<uint32_t, uint32_t>>{{1, 1024}, {1025, 976}}));
  uint64_t size = 0;
  EXPECT_EQ(_lex_reader_get_size(&c->_reader, &size), 0);
  EXPECT_EQ(size, s.end);
  _lex_reader_close(&c->_reader);
  EXPECT_EQ(c->_reader.buf, nullptr);
  EXPECT_EQ(c->_reader._bor._fd, -1);
}

TEST(FclexReader, BlockOffsetsAreAbsoluteAndCached) {
  big_section s;
  lex_reader r{};
  ASSERT_EQ(_lex_reader_open(&r, s.f.fd, 0), 0);
  uint64_t base = 12 + 4 * 2000;
  uint64_t off = 0;
  ASSERT_EQ(_bor_get(&r._bor, 0, &off), 0);
  EXPECT_EQ(off, base);
  EXPECT_EQ(r._bor.count, 0u);  // block 0 needs no read
  ASSERT_EQ(_bor_get(&r._bor, 1500, &off), 0);
  EXPECT_EQ(off, base + 1500 * 1107);  // VBE(1105) is 2 bytes
  EXPECT_EQ(r._bor.first, 1500u);
  EXPECT_EQ(r._bor.count, 501u);
  ASSERT_EQ(_bor_get(&r._bor, 2000, &off), 0);
  EXPECT_EQ(off, s.end);
  EXPECT_EQ(r._bor.first, 1500u);  // served from the cache
  uint64_t size = 0;
  ASSERT_EQ(_get_block_size(&r, 1999, &size), 0);
  EXPECT_EQ(size, 1107u);
  _lex_reader_close(&r);
}

TEST(FclexReader, SmallBlocksAreReadManyAtATime) {
  std::mt19937 rng(5);
  std::vector<std::string> terms = testutil::random_terms(rng, 2000, false);
  scratch_file f;
  uint64_t end = 0;
  ASSERT_EQ(testutil::write_with_writer(f.fd, 0, terms, 4, 0, &end), 0);
  lex_reader r{};
  ASSERT_EQ(_lex_reader_open(&r, f.fd, 0), 0);
  EXPECT_EQ(r.capacity, 4u * 2052u);
  wrc w{};
  const uint8_t* b0 = _lex_reader_get(&r, 0, &w);
  ASSERT_NE(b0, nullptr);
  EXPECT_GT(r.cached_blocks, 10u);
  EXPECT_LE(r._c_valid_bytes, r.capacity);
  const uint8_t* b5 = _lex_reader_get(&r, 5, &w);
  uint64_t off0 = 0;
  uint64_t off5 = 0;
  ASSERT_EQ(_bor_get(&r._bor, 0, &off0), 0);
  ASSERT_EQ(_bor_get(&r._bor, 5, &off5), 0);
  EXPECT_EQ(b5 - b0, static_cast<long>(off5 - off0));  // same buffer, no new read
  EXPECT_EQ(r.first_block, 0u);
  _lex_reader_close(&r);
}

TEST(FclexReader, FailedBlockReadIsRecorded) {
  scratch_file f(testutil::build_with_writer({"apple", "apply", "apt", "bat", "bath"}, 4));
  lex_reader r{};
  ASSERT_EQ(_lex_reader_open(&r, f.fd, 0), 0);
  ASSERT_EQ(ftruncate(f.fd, 30), 0);  // the blocks vanish after the open
  wrc w{};
  testing::internal::CaptureStderr();
  EXPECT_EQ(_lex_reader_get(&r, 0, &w), nullptr);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(w.warm_rc, WS_EREAD);
  EXPECT_NE(err.find("read failed[lex_reader_get]"), std::string::npos) << err;
  _lex_reader_close(&r);
}

TEST(FclexReader, DescriptorHandleFetchFailureMessage) {
  // Block 1 is 04 'bath' 04 01 'e', at section bytes 36 to 43.
  scratch_file f(testutil::build_with_writer({"apple", "apply", "apt", "bat", "bath", "bathe"}, 4));
  ASSERT_EQ(testutil::file_size(f.path), 44);
  fclex* h = st_fclex_open_fd(f.fd, 0);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(st_fclex_get(h, "bathe", nullptr), 5u);
  ASSERT_EQ(ftruncate(f.fd, 42), 0);  // block 1 loses its tail, its first term stays
  testing::internal::CaptureStderr();
  EXPECT_EQ(st_fclex_get(h, "bathe", nullptr), NOT_FOUND);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "error preading block from offsets\n");
  ASSERT_EQ(ftruncate(f.fd, 14), 0);  // the offsets are gone
  testing::internal::CaptureStderr();
  EXPECT_EQ(st_fclex_get(h, "bathe", nullptr), NOT_FOUND);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "read failed in get_block_offset_fd\n");
  st_fclex_close(h);
}

// ---- Invariants ---------------------------------------------------------------------------------

TEST(FclexIoDeath, NamedAssertions) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  using testutil::re_escape;
  lex_writer w{};
  EXPECT_DEATH(_lex_writer_open(0, &w, 4, 8, 10), re_escape("writer->_page_sz >= sizeof(size_t) + 1"));
  EXPECT_DEATH(_lex_writer_open(0, &w, 4, 0, 0), re_escape("terms > 0"));
  bmap_t m = 0;
  EXPECT_DEATH(_bmap_set(&m, 32), re_escape("bit < _bmap_size_bits(bmap)"));
  EXPECT_DEATH(_bmap_is_set(&m, 40), re_escape("bit < _bmap_size_bits(bmap)"));
  lex_reader closed{};
  closed._bor._fd = -1;
  uint64_t off = 0;
  EXPECT_DEATH(_bor_get(&closed._bor, 0, &off), re_escape("((reader->_fd) >= 0)"));
}

TEST(FclexIoDeath, ReaderBoundsAreAsserted) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  using testutil::re_escape;
  scratch_file f(testutil::build_with_writer({"a", "b", "c"}, 2));
  lex_reader r{};
  ASSERT_EQ(_lex_reader_open(&r, f.fd, 0), 0);
  uint64_t off = 0;
  EXPECT_DEATH(_bor_get(&r._bor, 3, &off), re_escape("bid <= num_blocks"));
  wrc w{};
  EXPECT_DEATH(_lex_reader_get(&r, 2, &w), re_escape("bid < num_blocks"));
  _lex_reader_close(&r);
}

}  // namespace
