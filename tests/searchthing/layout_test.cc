#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "searchthing/warmslice_util.h"

using namespace tarnix;

namespace {

warm_header make_header(const char* magic, uint32_t values, uint32_t terms, uint32_t nbits = 1) {
  warm_header h{};
  _set_magic(&h, magic);
  hdr_set(&h, HDR_NUM_VALUES, values);
  hdr_set(&h, HDR_NUM_TERMS, terms);
  const uint32_t size = static_cast<uint32_t>(column_size(values, nbits));
  for (auto f : {HDR_ET_NBITS, HDR_S_NBITS, HDR_ST_NBITS, HDR_H_NBITS}) hdr_set(&h, f, nbits);
  hdr_set(&h, HDR_D_NBITS, 1);
  for (auto f : {HDR_ET_SIZE, HDR_S_SIZE, HDR_ST_SIZE, HDR_H_SIZE}) hdr_set(&h, f, size);
  hdr_set(&h, HDR_D_SIZE, static_cast<uint32_t>(column_size(values, 1)));
  return h;
}

TEST(Layout, ValuesAndColumnsWithFullPaddingOnMultiplesOfEight) {
  // One value: the event-type column starts at 80; eight values: 136.
  warm_header h1 = make_header(MAGIC_V6, 1, 1);
  EXPECT_EQ(_offset_values(&h1), 64u);
  EXPECT_EQ(_offset_et_array(&h1), 80u);
  warm_header h8 = make_header(MAGIC_V6, 8, 1);
  EXPECT_EQ(_offset_et_array(&h8), 136u);
  // 7 values, 1-bit columns: each column is 1 byte, so et at 128 ends at 129,
  // next at 136. With 8-bit columns of 7 values (8 bytes) a column ending on
  // a multiple of 8 is followed by 8 bytes of padding.
  warm_header h = make_header(MAGIC_V6, 7, 1, 8);
  EXPECT_EQ(_offset_et_array(&h), 128u);  // next8(64 + 56)
  EXPECT_EQ(et_size(&h), 8u);
  EXPECT_EQ(_offset_s_array(&h), 144u);   // 136 would be no padding
  EXPECT_EQ(_offset_st_array(&h), 160u);
  EXPECT_EQ(_offset_h_array(&h), 176u);
  EXPECT_EQ(_offset_d_array(&h), 192u);
  EXPECT_EQ(_offset_pl_offs(&h), 200u);   // d column is 1 byte
}

TEST(Layout, OffsetTableMetadataAndLexicon) {
  // Ten terms: 40 bytes of offsets in a "Tarnix3" file, 80 in "Tarnix6".
  warm_header v3 = make_header(MAGIC_V3, 4, 10);
  warm_header v6 = make_header(MAGIC_V6, 4, 10);
  EXPECT_EQ(_get_plo_size(&v3), 4u);
  EXPECT_EQ(_get_plo_size(&v6), 8u);
  EXPECT_EQ(_offset_pl_offs(&v3), _offset_pl_offs(&v6));
  EXPECT_EQ(_offset_metadata(&v3), next8(_offset_pl_offs(&v3) + 40));
  EXPECT_EQ(_offset_metadata(&v6), next8(_offset_pl_offs(&v6) + 80));
  // Versions 3-5 skip num_terms * 4 more bytes before the lexicon.
  EXPECT_EQ(_offset_fclex(&v3), next8(_offset_metadata(&v3) + 120) + 40);
  EXPECT_EQ(_offset_fclex(&v6), next8(_offset_metadata(&v6) + 120));
  EXPECT_EQ(size_without_vardata(&v6), _offset_fclex(&v6));
  // Terms without values have no offset table.
  warm_header none = make_header(MAGIC_V6, 0, 5);
  EXPECT_EQ(_offset_metadata(&none), _offset_pl_offs(&none) + 8);
  // Lexicon-only files hold 4-byte metadata records.
  warm_header lex = make_header(MAGIC_LEX, 0, 3);
  EXPECT_EQ(_offset_fclex(&lex), next8(_offset_metadata(&lex) + 12));
}

TEST(Layout, MagicPredicates) {
  struct Case {
    const char* magic;
    bool valid, full, reverse;
    uint32_t plo;
  } cases[] = {{"Tarnix3", true, true, true, 4}, {"Tarnix4", true, true, true, 8},
               {"Tarnix5", true, true, true, 8}, {"Tarnix6", true, true, false, 8},
               {"TarLex1", true, false, false, 8}};
  for (const auto& c : cases) {
    warm_header h{};
    memcpy(h.b, c.magic, 8);
    EXPECT_EQ(verify_magic(&h), c.valid) << c.magic;
    EXPECT_EQ(_has_full_metadata(&h), c.full) << c.magic;
    EXPECT_EQ(_has_reverse_lex(&h), c.reverse) << c.magic;
    EXPECT_EQ(_get_plo_size(&h), c.plo) << c.magic;
  }
  for (const char* bad : {"Tarnix7", "Tarnix2", "tarnix6", "TarLex2"}) {
    warm_header h{};
    memcpy(h.b, bad, 8);
    EXPECT_FALSE(verify_magic(&h)) << bad;
  }
  warm_header h{};
  memcpy(h.b, "Tarnix6", 8);
  h.b[7] = 'x';  // no terminating NUL
  EXPECT_FALSE(verify_magic(&h));
  warm_header z{};
  _init_magic(&z);
  EXPECT_EQ(memcmp(z.b, "Tarnix6\0", 8), 0);
}

TEST(FileNames, FormatAndUniqueness) {
  char a[PATH_BUF_SZ], b[PATH_BUF_SZ];
  st_warm_slice_filename_from_time(a, "/x/bucket/", ".tsidx", -5, 100);
  st_warm_slice_filename_from_time(b, "/x/bucket", ".tsidx", -5, 100);
  std::string sa(a), sb(b);
  EXPECT_EQ(sa.rfind("/x/bucket/100--5-", 0), 0u) << sa;
  EXPECT_EQ(sa.substr(sa.size() - 6), ".tsidx");
  EXPECT_NE(sa, sb);
  st_warm_slice_filename_from_time(a, "/", ".tsidx", -5, 100);
  EXPECT_EQ(std::string(a).rfind("/100--5-", 0), 0u) << a;
  // Ids drawn in a burst are all distinct.
  std::set<uint64_t> ids;
  for (int i = 0; i < 1000; ++i) ids.insert(st_unique_id());
  EXPECT_GT(ids.size(), 990u);
}

// A name too long for the buffer is cut at its end like a formatted write,
// and the builder says so: such a name has lost its suffix.
TEST(FileNames, CutNamesAreReported) {
  char name[PATH_BUF_SZ];
  bool was_whole = false, was_cut = false;
  for (size_t len = PATH_BUF_SZ - 80; len < PATH_BUF_SZ + 10; ++len) {
    const std::string prefix = "/" + std::string(len - 1, 'p');
    const bool whole = _filename_from_time(name, prefix.c_str(), ".tsidx", -5, 100);
    const std::string got(name);
    if (whole) {
      EXPECT_FALSE(was_cut) << len << ": a longer prefix fits again";
      EXPECT_EQ(got.rfind(prefix + "/100--5-", 0), 0u) << len;
      EXPECT_EQ(got.substr(got.size() - 6), ".tsidx") << len;
      was_whole = true;
    } else {
      EXPECT_EQ(got.size(), PATH_BUF_SZ - 1) << len;
      was_cut = true;
    }
  }
  EXPECT_TRUE(was_whole && was_cut);
}

}  // namespace
