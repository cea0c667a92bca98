#include "searchthing/codes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "searchthing/result.h"

using namespace tarnix;

namespace {

struct VbeCase {
  uint32_t value;
  std::vector<uint8_t> bytes;
};

// Every length from one to five bytes at both of its ends; the five distinct
// groups of the last case show the order in which groups are placed.
const VbeCase kVbeCases[] = {
    {0, {0x00}},
    {1, {0x01}},
    {127, {0x7F}},
    {128, {0x80, 0x01}},
    {300, {0xAC, 0x02}},
    {16383, {0xFF, 0x7F}},
    {16384, {0x80, 0x80, 0x01}},
    {(1u << 21) - 1, {0xFF, 0xFF, 0x7F}},
    {1u << 21, {0x80, 0x80, 0x80, 0x01}},
    {(1u << 28) - 1, {0xFF, 0xFF, 0xFF, 0x7F}},
    {1u << 28, {0x80, 0x80, 0x80, 0x80, 0x01}},
    {1u | (2u << 7) | (3u << 14) | (4u << 21) | (5u << 28), {0x81, 0x82, 0x83, 0x84, 0x05}},
    {0xFFFFFFFFu, {0xFF, 0xFF, 0xFF, 0xFF, 0x0F}},
};

TEST(Coding, VbeGoldenVectorsEncodeAndDecode) {
  for (const auto& c : kVbeCases) {
    SCOPED_TRACE(c.value);
    uint8_t buf[8] = {0};
    uint32_t n = st_encode_to_vbe(buf, c.value);
    ASSERT_EQ(n, c.bytes.size());
    EXPECT_EQ(std::vector<uint8_t>(buf, buf + n), c.bytes);
    EXPECT_EQ(vbe_len(c.value), n);
    // The bytes after the encoding are poisoned: the decoder must stop on its own.
    uint8_t padded[8];
    memset(padded, 0xEE, sizeof(padded));
    memcpy(padded, c.bytes.data(), c.bytes.size());
    uint32_t v = 0;
    EXPECT_EQ(st_decode_from_vbe(&v, padded), n);
    EXPECT_EQ(v, c.value);
    EXPECT_EQ(vbe_get(c.bytes.data(), c.bytes.data() + c.bytes.size(), &v), n);
    EXPECT_EQ(v, c.value);
    // Every truncated prefix is refused by the bounded decoder.
    for (size_t cut = 0; cut < c.bytes.size(); ++cut)
      EXPECT_EQ(vbe_get(c.bytes.data(), c.bytes.data() + cut, &v), 0u) << "cut " << cut;
  }
}

TEST(Coding, VbeFifthByteRules) {
  uint32_t v = 0;
  const uint8_t invalid[] = {0xFF, 0xFF, 0xFF, 0xFF, 0x80, 0x00};
  EXPECT_EQ(st_decode_from_vbe(&v, invalid), 0xFFFFFFFFu);
  EXPECT_EQ(vbe_get(invalid, invalid + sizeof(invalid), &v), 0u);
  // A fifth byte above 15 is truncated without complaint.
  const uint8_t high[] = {0x80, 0x80, 0x80, 0x80, 0x7F};
  EXPECT_EQ(st_decode_from_vbe(&v, high), 5u);
  EXPECT_EQ(v, 0xF0000000u);
}

TEST(Coding, VbeRandomRoundTrip) {
  std::mt19937 rng(12345);
  std::vector<uint8_t> buf;
  std::vector<uint32_t> vals;
  for (int i = 0; i < 20000; ++i) {
    uint32_t v = rng() >> (rng() % 32);
    vals.push_back(v);
    uint8_t tmp[5];
    uint32_t n = st_encode_to_vbe(tmp, v);
    buf.insert(buf.end(), tmp, tmp + n);
  }
  const uint8_t* p = buf.data();
  const uint8_t* end = buf.data() + buf.size();
  for (uint32_t expect : vals) {
    uint32_t v;
    uint32_t n = vbe_get(p, end, &v);
    ASSERT_GT(n, 0u);
    ASSERT_EQ(v, expect);
    p += n;
  }
  EXPECT_EQ(p, end);
}

TEST(Coding, BitArrayElementPlacement) {
  // Element 3 of a 5-bit array starts at bit 15: byte 1 bit 7, byte 2 bits 0-3.
  uint8_t a[4] = {0};
  encode_to_byte_str(a, 0x1F, 3, 5);
  EXPECT_EQ(std::vector<uint8_t>(a, a + 4), (std::vector<uint8_t>{0x00, 0x80, 0x0F, 0x00}));
  EXPECT_EQ(decode_from_byte_str(a, 3, 5), 0x1Fu);
  // Writing 0 over all ones clears exactly the element's bits.
  uint8_t b[4] = {0xFF, 0xFF, 0xFF, 0xFF};
  encode_to_byte_str(b, 0, 3, 5);
  EXPECT_EQ(std::vector<uint8_t>(b, b + 4), (std::vector<uint8_t>{0xFF, 0x7F, 0xF0, 0xFF}));
}

TEST(Coding, BitArrayWidthsRoundTripAndOverwrite) {
  std::mt19937 rng(7);
  for (uint32_t nbits = 1; nbits <= 31; ++nbits) {
    SCOPED_TRACE(nbits);
    const uint32_t n = 301;
    std::vector<uint8_t> arr(column_size(n, nbits) + 8, 0xA5);
    std::vector<uint32_t> expect(n);
    const uint32_t mask = (1u << nbits) - 1;
    for (uint32_t i = 0; i < n; ++i) {
      expect[i] = rng() & mask;
      encode_to_byte_str(arr.data(), rng() | 0x80000000u, i, nbits);  // overwritten below
    }
    for (uint32_t i = n; i-- > 0;) encode_to_byte_str(arr.data(), expect[i] | ~mask, i, nbits);
    for (uint32_t i = 0; i < n; ++i) ASSERT_EQ(decode_from_byte_str(arr.data(), i, nbits), expect[i]);
    // The byte after the elements' last byte is untouched.
    EXPECT_EQ(arr[(n * nbits + 7) / 8], 0xA5);
  }
}

// A stretch of elements moved by copy_bits reads back as the same elements
// moved one by one, for every width, for stretches at any element offset in
// either array, and leaves every other bit as it was.
TEST(Coding, CopyBitsMovesStretchesOfElements) {
  std::mt19937 rng(11);
  for (uint32_t nbits = 1; nbits <= 31; ++nbits) {
    for (int round = 0; round < 20; ++round) {
      SCOPED_TRACE(testing::Message() << "nbits " << nbits << " round " << round);
      const uint32_t n = 1 + rng() % 300;
      const uint32_t from = rng() % 50;
      const uint32_t to = rng() % 50;
      std::vector<uint8_t> src(column_size(from + n, nbits) + 8);
      for (uint8_t& b : src) b = static_cast<uint8_t>(rng());
      std::vector<uint8_t> one(column_size(to + n + 50, nbits) + 8);
      for (uint8_t& b : one) b = static_cast<uint8_t>(rng());
      std::vector<uint8_t> bulk = one;
      for (uint32_t i = 0; i < n; ++i)
        encode_to_byte_str(one.data(), decode_from_byte_str(src.data(), from + i, nbits), to + i, nbits);
      copy_bits(bulk.data(), uint64_t{to} * nbits, src.data(), uint64_t{from} * nbits, uint64_t{n} * nbits);
      ASSERT_EQ(bulk, one);
    }
  }
}

TEST(Coding, BitArrayWidthZeroAndThirtyTwo) {
  uint8_t a[8];
  memset(a, 0xFF, sizeof(a));
  EXPECT_EQ(decode_from_byte_str(a, 5, 0), 0u);
  // A 32-bit element always reads back as 0: the mask's shift wraps.
  encode_to_byte_str(a, 0x12345678, 0, 32);
  EXPECT_EQ(a[0], 0x78);
  EXPECT_EQ(decode_from_byte_str(a, 0, 32), 0u);
}

TEST(CodingDeathTest, EncodeWidthZeroAsserts) {
  uint8_t a[4] = {0};
  EXPECT_DEATH(encode_to_byte_str(a, 1, 0, 0), "nbits != 0");
}

TEST(Coding, Log2n) {
  const std::pair<uint32_t, uint32_t> cases[] = {{0, 1}, {1, 1}, {2, 2}, {3, 2}, {4, 3}, {255, 8},
                                                 {256, 9}, {65535, 16}, {65536, 17},
                                                 {0x7FFFFFFF, 31}, {0xFFFFFFFF, 32}};
  for (auto [v, bits] : cases) EXPECT_EQ(log2n(v), bits) << v;
}

TEST(Coding, BigEndianFixedWidth) {
  uint8_t b[8];
  store_be32(b, 0x01020304);
  EXPECT_EQ(std::vector<uint8_t>(b, b + 4), (std::vector<uint8_t>{1, 2, 3, 4}));
  EXPECT_EQ(load_be32(b), 0x01020304u);
  store_be64(b, 0x0102030405060708ull);
  EXPECT_EQ(std::vector<uint8_t>(b, b + 8), (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(load_be64(b), 0x0102030405060708ull);
  EXPECT_EQ(next8(0), 8u);
  EXPECT_EQ(next8(7), 8u);
  EXPECT_EQ(next8(8), 16u);
}

TEST(ResultRecord, RecordingRules) {
  wrc w{};
  std::string long_msg(600, 'x');
  errno = 17;
  EXPECT_EQ(_set_rc_verbose(&w, -8, 3, long_msg.c_str()), -8);
  EXPECT_EQ(w.warm_rc, -8);
  EXPECT_EQ(w.warm_errno, 17);
  EXPECT_EQ(w.source_index, 3);
  EXPECT_EQ(strlen(w.message), 511u);
  EXPECT_EQ(_set_rc(&w, 0), 0);
  EXPECT_EQ(w.source_index, -1);
  EXPECT_EQ(w.message[0], '\0');
  errno = 2;
  EXPECT_EQ(_set_rc_and_errno(&w, -8, 5), -8);
  EXPECT_EQ(w.warm_errno, 5);
}

}  // namespace
