// The merge's shortcuts through the posting-list writer and reader: a run of
// puts handed over at once must write the bytes, at the same moments, that
// single puts write, and a seek that starts where the previous list ended
// must find what a seek through both offset entries finds, faults included.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "searchthing/codes.h"
#include "searchthing/warmslice.h"
#include "testutil/testutil.h"

namespace tarnix {
namespace {

using ids = std::vector<uint32_t>;
using bytes = std::vector<uint8_t>;

struct free_del {
  void operator()(void* p) const { free(p); }
};

int open_new(const std::string& path, int flags) {
  testutil::write_file(path, {});
  return open(path.c_str(), flags | O_CLOEXEC);
}

// After each term: bytes produced, bytes written out (where the buffer was
// flushed) and distinct values counted.
struct writer_trace {
  std::vector<uint64_t> totals;
  std::vector<uint64_t> offsets;
  std::vector<uint32_t> counts;
  int rc = 0;
  uint32_t failed_at = 0;  // puts made in the term that failed, the failing one included
  bool operator==(const writer_trace&) const = default;
};

// Writes the terms with single puts (split 0) or with put runs of at most
// split values.
writer_trace write_terms(int fd, const std::vector<ids>& terms, uint32_t split) {
  std::unique_ptr<plw, free_del> w(static_cast<plw*>(calloc(1, sizeof(plw))));
  _plist_writer_open(w.get(), fd, 16);
  writer_trace out;
  for (const ids& t : terms) {
    _plist_writer_start_term(w.get());
    for (uint32_t i = 0; i < t.size() && out.rc == 0;) {
      if (split == 0) {
        out.rc = _plist_writer_put(w.get(), t[i++]);
        if (out.rc != 0) out.failed_at = i;
        continue;
      }
      const uint32_t n = std::min<uint32_t>(split, static_cast<uint32_t>(t.size()) - i);
      uint32_t done = 0;
      out.rc = _plist_writer_put_run(w.get(), t.data() + i, n, &done);
      if (out.rc != 0) {
        out.failed_at = i + done;
      } else {
        EXPECT_EQ(done, n);
      }
      i += n;
    }
    if (out.rc != 0) break;
    _plist_writer_end_term(w.get());
    out.totals.push_back(w->total);
    out.offsets.push_back(w->offset);
    out.counts.push_back(w->count_forterm);
  }
  const int close_rc = _plist_writer_close(w.get());
  if (out.rc == 0) out.rc = close_rc;
  return out;
}

std::vector<ids> writer_cases() {
  std::vector<ids> terms = {
      {5, 6, 7, 8, 20, 21, 40},              // the worked example
      {0},                                   // a single zero
      {1, 2},                                // a run right after the first value
      {3, 3, 3, 4, 4, 9, 9},                 // duplicates, also at the end of a run
      {0xFFFFFFFDu, 0xFFFFFFFEu},            // the largest values a list holds
      {},                                    // an empty term
  };
  // Long terms that cross the 8192-byte buffer many times: five-byte gaps,
  // runs across a flush, duplicates just before one.
  ids wide;
  for (uint32_t i = 0; i < 5000; ++i) wide.push_back(i * 300000u + (i % 3));
  terms.push_back(wide);
  ids mixed;
  uint32_t v = 7;
  for (uint32_t i = 0; i < 20000; ++i) {
    mixed.push_back(v);
    if (i % 11 == 0) mixed.push_back(v);
    v += i % 5 == 0 ? 1 + (i * 7919u) % 500000u : 1;
  }
  terms.push_back(mixed);
  return terms;
}

TEST(PostingsRunTest, PutRunWritesWhatSinglePutsWrite) {
  testutil::TempDir dir;
  const std::vector<ids> terms = writer_cases();
  int fd = open_new(dir.file("single"), O_RDWR);
  ASSERT_GE(fd, 0);
  const writer_trace want = write_terms(fd, terms, 0);
  close(fd);
  ASSERT_EQ(want.rc, 0);
  const bytes want_bytes = testutil::read_file(dir.file("single"));
  ASSERT_GT(want_bytes.size(), 3 * PLW_BUF_SZ);
  for (uint32_t split : {1u, 2u, 3u, 256u, 100000u}) {
    const std::string path = dir.file("run" + std::to_string(split));
    fd = open_new(path, O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(write_terms(fd, terms, split), want) << "split " << split;
    close(fd);
    EXPECT_EQ(testutil::read_file(path), want_bytes) << "split " << split;
  }
}

// A write that fails fails at the same put, with the same code.
TEST(PostingsRunTest, PutRunFailsAtTheSamePut) {
  testutil::TempDir dir;
  const std::vector<ids> terms = writer_cases();
  int fd = open_new(dir.file("ro"), O_RDONLY);
  ASSERT_GE(fd, 0);
  const writer_trace want = write_terms(fd, terms, 0);
  ASSERT_EQ(want.rc, WS_EWRITE);
  for (uint32_t split : {1u, 3u, 256u, 100000u}) EXPECT_EQ(write_terms(fd, terms, split), want) << "split " << split;
  close(fd);
}

// A file of postings bytes (lists of one value each, the value being the
// term number) followed by the offset table as given.
struct table_case {
  const char* name;
  uint32_t entry_size;
  std::vector<uint64_t> ends;
  uint64_t cut = 0;  // bytes of the table left, 0 = all
};

struct seek_step {
  int rc = 0;
  uint32_t value = 0;
  bool operator==(const seek_step&) const = default;
};

std::vector<seek_step> walk_terms(int fd, const table_case& c, uint64_t postings, bool after) {
  std::unique_ptr<plist_reader, free_del> r(static_cast<plist_reader*>(calloc(1, sizeof(plist_reader))));
  const uint32_t n = static_cast<uint32_t>(c.ends.size());
  EXPECT_EQ(_init_reader_helper(r.get(), fd, postings, n, c.entry_size, 0, postings, 1024, nullptr), 0);
  std::vector<seek_step> steps;
  uint64_t start = 0;
  // One term past the table, as a merge over a lexicon with one term too
  // many would ask for.
  for (uint32_t t = 0; t <= n; ++t) {
    seek_step s;
    s.rc = after ? _seek_reader_after(r.get(), t, start) : _seek_reader(r.get(), t);
    if (s.rc == 0) {
      start += r->left;
      s.rc = _next(r.get(), &s.value);
    }
    steps.push_back(s);
    if (s.rc != 0) break;
  }
  close_plist_reader(r.get());
  return steps;
}

TEST(PostingsRunTest, SeekAfterFindsWhatSeekFinds) {
  // Postings: byte k is VBE(k + 1) for k < 127, so the list [k, k + 1)
  // holds the single value k + 1; a longer list holds a run-less sequence.
  bytes postings;
  for (uint32_t k = 0; k < 120; ++k) postings.push_back(static_cast<uint8_t>(k + 1));
  const uint64_t psize = postings.size();
  std::vector<uint64_t> long_table;
  // More entries than the table buffer holds (1024), so that it reloads.
  for (uint32_t t = 0; t < 3000; ++t) long_table.push_back(std::clamp<uint64_t>(t / 30, 1, psize));
  std::vector<uint64_t> bad_late = long_table;
  bad_late[2500] = bad_late[2499] - 1;
  std::vector<table_case> cases = {
      {"good, 8-byte entries", 8, {1, 2, 5, 5, 9, 120}},
      {"good, 4-byte entries", 4, {1, 2, 5, 5, 9, 120}},
      {"offset going backwards", 8, {1, 4, 3, 9}},
      {"offset going backwards, 4-byte", 4, {1, 4, 3, 9}},
      {"offset past the postings", 8, {1, 2, 121, 122}},
      {"first offset past the postings", 4, {200, 201}},
      {"long table, reloads", 8, long_table},
      {"long table, fault after a reload", 4, bad_late},
      {"table cut short", 8, {1, 2, 3, 4}, 20},
      {"long table cut short", 4, long_table, 4 * 1500},
  };
  testutil::TempDir dir;
  int file_no = 0;
  for (const table_case& c : cases) {
    bytes file = postings;
    for (uint64_t e : c.ends) {
      uint8_t b[8];
      if (c.entry_size == 8) store_be64(b, e); else store_be32(b, static_cast<uint32_t>(e));
      file.insert(file.end(), b, b + c.entry_size);
    }
    if (c.cut != 0) file.resize(psize + c.cut);
    const std::string path = dir.file("t" + std::to_string(file_no++));
    testutil::write_file(path, file);
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    const std::vector<seek_step> want = walk_terms(fd, c, psize, false);
    ASSERT_FALSE(want.empty());
    EXPECT_NE(want.back().rc, 0) << c.name << ": every walk ends in a fault";
    EXPECT_EQ(walk_terms(fd, c, psize, true), want) << c.name;
    close(fd);
  }
}

}  // namespace
}  // namespace tarnix
