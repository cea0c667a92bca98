#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "searchthing/codes.h"
#include "searchthing/warmslice.h"
#include "testutil/testutil.h"
#include "testutil/warmfile.h"

namespace tarnix {
namespace {

using warm_ptr = std::unique_ptr<warm, int (*)(warm*)>;

// A file of n values (timestamp 1000 - i, address i, attributes from i) and
// one term holding all of them.
std::string write_values(const testutil::TempDir& dir, uint32_t n) {
  testutil::ModelFile recipe;
  recipe.terms.push_back({"all", {}});
  for (uint32_t i = 0; i < n; ++i) {
    recipe.values.push_back(
        testutil::model_value({static_cast<int32_t>(1000 - i), i, i % 5, i == 3 ? DELETED_SOURCE : i, 7, i * 3}));
    recipe.terms[0].ids.push_back(i);
  }
  testutil::fill_metadata(recipe);
  const std::string path = dir.file("values.tsidx");
  testutil::write_file(path, testutil::build_index_file(recipe));
  return path;
}

TEST(TsvalOrder, LaterFirstThenLargerAddressFirst) {
  struct row {
    tsval a, b;
    int want;
  };
  const row rows[] = {
      {{5, 1, 0, 0, 0, 0}, {6, 1, 0, 0, 0, 0}, 1},
      {{6, 1, 0, 0, 0, 0}, {5, 1, 0, 0, 0, 0}, -1},
      {{-1, 1, 0, 0, 0, 0}, {1, 1, 0, 0, 0, 0}, 1},       // signed times
      {{5, 1, 0, 0, 0, 0}, {5, 0xFFFFFFFF, 0, 0, 0, 0}, 1}, // unsigned addresses
      {{5, 9, 0, 0, 0, 0}, {5, 2, 0, 0, 0, 0}, -1},
      {{5, 9, 1, 2, 3, 4}, {5, 9, 0, 0, 0, 0}, 0},         // attributes do not count
  };
  for (const row& r : rows) {
    SCOPED_TRACE(&r - rows);
    EXPECT_EQ(st_tsval_compare(&r.a, &r.b), r.want);
    uint8_t a[8], b[8];
    store_be32(a, static_cast<uint32_t>(r.a.timestamp));
    store_be32(a + 4, r.a.event_address);
    store_be32(b, static_cast<uint32_t>(r.b.timestamp));
    store_be32(b + 4, r.b.event_address);
    EXPECT_EQ(st_ntsval_compare(a, b), r.want);
  }
}

TEST(TsvalEncode, DeletedValueKeepsLowSourceBitsAndFlag) {
  uint8_t buf[256] = {};
  warm w{};
  w.body = buf;
  warm_header* h = reinterpret_cast<warm_header*>(buf);
  hdr_set(h, HDR_ET_NBITS, 3);
  hdr_set(h, HDR_S_NBITS, 5);
  hdr_set(h, HDR_ST_NBITS, 1);
  hdr_set(h, HDR_H_NBITS, 2);
  hdr_set(h, HDR_D_NBITS, 1);
  w.et_array = buf + 100;
  w.s_array = buf + 120;
  w.st_array = buf + 140;
  w.h_array = buf + 160;
  w.d_array = buf + 180;
  uint8_t rec[8];
  const tsval v{-2, 0xABCDEF01, 6, DELETED_SOURCE, 1, 3};
  _encode_tsval(rec, 2, &v, &w);
  EXPECT_EQ(load_be32(rec), 0xFFFFFFFEu);
  EXPECT_EQ(load_be32(rec + 4), 0xABCDEF01u);
  EXPECT_EQ(decode_from_byte_str(w.s_array, 2, 5), 31u);
  EXPECT_EQ(decode_from_byte_str(w.d_array, 2, 1), 1u);
  EXPECT_EQ(decode_from_byte_str(w.et_array, 2, 3), 6u);
  EXPECT_EQ(decode_from_byte_str(w.h_array, 2, 2), 3u);
  // Overwritten in place with a live value: the flag is cleared.
  const tsval live{-2, 1, 0, 4, 0, 0};
  _encode_tsval(rec, 2, &live, &w);
  EXPECT_EQ(decode_from_byte_str(w.d_array, 2, 1), 0u);
  EXPECT_EQ(decode_from_byte_str(w.s_array, 2, 5), 4u);
}

TEST(TsvalReader, ReadAheadHintAndRange) {
  testutil::TempDir dir;
  const std::string path = write_values(dir, 10);
  wrc rc{};
  warm_ptr wp(st_warm_slice_open(path.c_str(), 0, &rc), st_warm_slice_close);
  ASSERT_NE(wp, nullptr) << rc.warm_rc;
  tsval_reader r;
  ASSERT_EQ(_tsval_reader_open(&r, wp.get(), 4, nullptr), 0);
  tsval v{};
  // Capacity 4, 10 values: decoding 8 reads 8 and 9 only; 9 is then cached.
  ASSERT_EQ(_tsval_reader_decode(&r, 8, &v), 0);
  EXPECT_EQ(r.cache_first, 8u);
  EXPECT_EQ(r.cache_count, 2u);
  EXPECT_EQ(v.timestamp, 992);
  EXPECT_EQ(tsval_reader_decode_from_cache(&r, 9, &v), 0);
  EXPECT_EQ(v.event_address, 9u);
  EXPECT_EQ(tsval_reader_decode_from_cache(&r, 7, &v), -1);
  // A hint outside the read-ahead window reads one record only.
  ASSERT_EQ(tsval_reader_decode_hint(&r, 2, &v, 7), 0);
  EXPECT_EQ(r.cache_first, 2u);
  EXPECT_EQ(r.cache_count, 1u);
  ASSERT_EQ(tsval_reader_decode_hint(&r, 3, &v, 5), 0);
  EXPECT_EQ(r.cache_first, 3u);
  EXPECT_EQ(r.cache_count, 4u);
  EXPECT_EQ(v.source, DELETED_SOURCE);
  EXPECT_EQ(v.event_type, 3u);
  EXPECT_EQ(v.host, 9u);
  EXPECT_EQ(v.source_type, 7u);
  // Out of range: -12, buffer unchanged.
  EXPECT_EQ(_tsval_reader_decode(&r, 10, &v), -12);
  EXPECT_EQ(r.cache_first, 3u);
  EXPECT_EQ(r.cache_count, 4u);
  _tsval_reader_close(&r);
  EXPECT_EQ(r._buf, nullptr);

  // Without read-ahead every value is one read and nothing is cached.
  ASSERT_EQ(_tsval_reader_open(&r, wp.get(), 0, nullptr), 0);
  for (uint32_t i = 0; i < 10; ++i) {
    ASSERT_EQ(_tsval_reader_decode(&r, i, &v), 0);
    EXPECT_EQ(v.event_address, i);
    EXPECT_EQ(v.source, i == 3 ? DELETED_SOURCE : i);
  }
  EXPECT_EQ(r.cache_count, 0u);
  _tsval_reader_close(&r);
}

TEST(TsvalReader, PartialReaderAndShortRead) {
  testutil::TempDir dir;
  const std::string path = write_values(dir, 10);
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  tsval_reader r;
  // Claims 40 values: the file holds far fewer records.
  ASSERT_EQ(_tsval_reader_open_partial(&r, fd, 40, 64, 8), 0);
  tsval v{};
  ASSERT_EQ(_tsval_reader_decode(&r, 1, &v), 0);
  EXPECT_EQ(v.timestamp, 999);
  EXPECT_EQ(v.event_address, 1u);
  EXPECT_EQ(v.event_type, 0xFFFFFFFFu);
  EXPECT_EQ(v.source, 0xFFFFFFFFu);
  EXPECT_EQ(v.source_type, 0xFFFFFFFFu);
  EXPECT_EQ(v.host, 0xFFFFFFFFu);
  EXPECT_EQ(_tsval_reader_decode(&r, 39, &v), -8);
  EXPECT_EQ(r.cache_count, 0u);
  // Still usable after the failure.
  ASSERT_EQ(_tsval_reader_decode(&r, 0, &v), 0);
  EXPECT_EQ(v.timestamp, 1000);
  // Columns attached by the caller belong to the reader from then on.
  for (uint8_t** col : {&r.et_array, &r.s_array, &r.st_array, &r.h_array, &r.d_array}) {
    *col = static_cast<uint8_t*>(calloc(8, 1));
  }
  r.et_nbits = r.s_nbits = r.st_nbits = r.h_nbits = r.d_nbits = 1;
  _tsval_reader_close(&r);
  close(fd);
}

TEST(TsvalReader, AllEventsSkipsDeletedAndAppliesCallback) {
  testutil::TempDir dir;
  const std::string path = write_values(dir, 10);
  for (int mode = 0; mode < 2; ++mode) {
    wrc rc{};
    warm_ptr wp(mode == 0 ? st_warm_slice_open(path.c_str(), 0, &rc) : st_warm_slice_open_fd(path.c_str(), 0, &rc),
                st_warm_slice_close);
    ASSERT_NE(wp, nullptr) << rc.warm_rc;
    tsval* arr = static_cast<tsval*>(malloc(sizeof(tsval) * 2));
    arr[0] = tsval{1, 2, 3, 4, 5, 6};
    uint64_t cap = 2, pos = 1;
    ASSERT_EQ(st_warm_slice_all_events(wp.get(), &arr, &cap, &pos, &rc), 0);
    EXPECT_EQ(pos, 10u);  // one kept, nine live of ten
    EXPECT_GE(cap, 11u);
    EXPECT_EQ(arr[0].host, 6u);
    EXPECT_EQ(arr[3].event_address, 2u);
    EXPECT_EQ(arr[4].event_address, 4u);
    free(arr);

    struct ctx {
      std::vector<uint32_t> addrs;
    } c;
    auto cb = [](const tsval* v, void* p) -> int {
      static_cast<ctx*>(p)->addrs.push_back(v->event_address);
      return v->event_address == 6 ? 42 : 0;
    };
    EXPECT_EQ(st_warm_slice_apply_events(wp.get(), cb, &c, &rc), 42);
    EXPECT_EQ(c.addrs, (std::vector<uint32_t>{0, 1, 2, 4, 5, 6}));
  }
}

}  // namespace
}  // namespace tarnix
