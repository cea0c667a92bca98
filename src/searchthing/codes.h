// The byte-level codes of the index format, in one place: big-endian fixed
// width integers, the variable-byte code (VBE) used for posting gaps, run
// lengths and lexicon lengths, the bit-packed arrays of the value columns,
// and the bit-width function that sizes them. Nothing else in the library
// shifts bytes. Pure functions over caller-owned memory; nothing allocates.
//
// VBE: 7-bit groups, least significant first; every byte but the last has
// 0x80 set. 0 -> 00, 127 -> 7F, 128 -> 80 01, 300 -> AC 02,
// 4294967295 -> FF FF FF FF 0F. The fifth byte always ends a number: its
// high bit set makes the code invalid; its bits above bit 31 are dropped.
//
// Bit-packed arrays: array bit k is bit (k mod 8) of byte k div 8, least
// significant bit first; element i of width n occupies array bits i*n to
// i*n+n-1 (i*n computed in 32 bits), element bit j at array bit i*n+j.
#pragma once

#include <cstddef>
#include <cstdint>

#include "searchthing/check.h"

namespace tarnix {

inline uint16_t load_be16(const uint8_t* p) noexcept {
  return static_cast<uint16_t>((p[0] << 8) | p[1]);
}
inline uint32_t load_be32(const uint8_t* p) noexcept {
  uint32_t v;
  __builtin_memcpy(&v, p, 4);
  return __builtin_bswap32(v);
}
inline uint64_t load_be64(const uint8_t* p) noexcept {
  uint64_t v;
  __builtin_memcpy(&v, p, 8);
  return __builtin_bswap64(v);
}
inline void store_be32(uint8_t* p, uint32_t v) noexcept {
  v = __builtin_bswap32(v);
  __builtin_memcpy(p, &v, 4);
}
inline void store_be64(uint8_t* p, uint64_t v) noexcept {
  v = __builtin_bswap64(v);
  __builtin_memcpy(p, &v, 8);
}
// Host <-> big-endian for 32-bit words held in memory (e.g. count arrays).
inline uint32_t be32(uint32_t v) noexcept { return __builtin_bswap32(v); }

// Writes value as VBE into dst (room for 5 bytes). Returns bytes written, 1..5.
// Unrolled on purpose: one branch per byte, no loop and no table; this and
// the decoder run once per posting, so they live here to be inlined.
inline uint32_t st_encode_to_vbe(uint8_t* dst, uint32_t v) noexcept {
  if (v < (1u << 7)) {
    dst[0] = static_cast<uint8_t>(v);
    return 1;
  }
  if (v < (1u << 14)) {
    dst[0] = static_cast<uint8_t>((v & 0x7F) | 0x80);
    dst[1] = static_cast<uint8_t>(v >> 7);
    return 2;
  }
  if (v < (1u << 21)) {
    dst[0] = static_cast<uint8_t>((v & 0x7F) | 0x80);
    dst[1] = static_cast<uint8_t>(((v >> 7) & 0x7F) | 0x80);
    dst[2] = static_cast<uint8_t>(v >> 14);
    return 3;
  }
  if (v < (1u << 28)) {
    dst[0] = static_cast<uint8_t>((v & 0x7F) | 0x80);
    dst[1] = static_cast<uint8_t>(((v >> 7) & 0x7F) | 0x80);
    dst[2] = static_cast<uint8_t>(((v >> 14) & 0x7F) | 0x80);
    dst[3] = static_cast<uint8_t>(v >> 21);
    return 4;
  }
  dst[0] = static_cast<uint8_t>((v & 0x7F) | 0x80);
  dst[1] = static_cast<uint8_t>(((v >> 7) & 0x7F) | 0x80);
  dst[2] = static_cast<uint8_t>(((v >> 14) & 0x7F) | 0x80);
  dst[3] = static_cast<uint8_t>(((v >> 21) & 0x7F) | 0x80);
  dst[4] = static_cast<uint8_t>(v >> 28);
  return 5;
}

// Decodes a VBE number from src, reading at most 5 bytes. Returns the bytes
// consumed (1..5) or 0xFFFFFFFF when the fifth byte has its high bit set.
// The caller makes sure five bytes are readable or the code ends earlier.
inline uint32_t st_decode_from_vbe(uint32_t* value, const uint8_t* s) noexcept {
  uint32_t v = s[0] & 0x7Fu;
  if ((s[0] & 0x80) == 0) {
    *value = v;
    return 1;
  }
  v |= static_cast<uint32_t>(s[1] & 0x7F) << 7;
  if ((s[1] & 0x80) == 0) {
    *value = v;
    return 2;
  }
  v |= static_cast<uint32_t>(s[2] & 0x7F) << 14;
  if ((s[2] & 0x80) == 0) {
    *value = v;
    return 3;
  }
  v |= static_cast<uint32_t>(s[3] & 0x7F) << 21;
  if ((s[3] & 0x80) == 0) {
    *value = v;
    return 4;
  }
  // The fifth byte ends the number whatever it holds; bits past 31 are
  // dropped without complaint, a set high bit makes the code invalid.
  if (s[4] & 0x80) {
    *value = v;
    return 0xFFFFFFFFu;
  }
  v |= static_cast<uint32_t>(s[4]) << 28;
  *value = v;
  return 5;
}

// Bounded form for untrusted data: decodes from [p, limit). Returns bytes
// consumed (1..5), or 0 when the code is invalid or runs past limit.
inline uint32_t vbe_get(const uint8_t* p, const uint8_t* limit, uint32_t* value) noexcept {
  if (limit - p >= 5) {
    uint32_t n = st_decode_from_vbe(value, p);
    return n == 0xFFFFFFFFu ? 0 : n;
  }
  uint32_t v = 0;
  for (uint32_t i = 0; p + i < limit; ++i) {
    v |= static_cast<uint32_t>(p[i] & 0x7F) << (7 * i);
    if ((p[i] & 0x80) == 0) {
      *value = v;
      return i + 1;
    }
  }
  return 0;
}

// Number of bytes VBE needs for value (1..5).
inline uint32_t vbe_len(uint32_t v) noexcept {
  return v < (1u << 7) ? 1 : v < (1u << 14) ? 2 : v < (1u << 21) ? 3 : v < (1u << 28) ? 4 : 5;
}

// Stores the low nbits of value as element index (nbits 1..32; 0 asserts
// "nbits != 0"). Every one of the element's bits is set or cleared, so an
// element can be overwritten in place; neighbours are untouched.
// The element spans at most 5 bytes (bit offset 0..7 plus 32 bits). Work on
// those bytes as one 64-bit word instead of bit by bit; the bytes touched are
// exactly the bytes that hold the element's bits.
inline void encode_to_byte_str(uint8_t* array, uint32_t value, uint32_t index, uint32_t nbits) noexcept {
  ST_ASSERT(nbits != 0);
  uint32_t bit = index * nbits;  // 32-bit arithmetic, as the format defines
  uint8_t* p = array + (bit >> 3);
  uint32_t shift = bit & 7;
  uint32_t nbytes = (shift + nbits + 7) >> 3;
  uint64_t mask = ((nbits == 32 ? 0xFFFFFFFFull : ((1ull << nbits) - 1))) << shift;
  uint64_t word = 0;
  for (uint32_t i = 0; i < nbytes; ++i) word |= static_cast<uint64_t>(p[i]) << (8 * i);
  word = (word & ~mask) | ((static_cast<uint64_t>(value) << shift) & mask);
  for (uint32_t i = 0; i < nbytes; ++i) p[i] = static_cast<uint8_t>(word >> (8 * i));
}

// Element index of a bit-packed array; 0 when nbits is 0. The result is
// masked with (1 << nbits) - 1, shift count modulo 32: for nbits 32 the mask
// is 0 and the result is always 0. Kept so on purpose; the writers never
// produce 32-bit columns for values that must survive.
inline uint32_t decode_from_byte_str(const uint8_t* array, uint32_t index, uint32_t nbits) noexcept {
  if (nbits == 0) return 0;
  uint32_t bit = index * nbits;
  const uint8_t* p = array + (bit >> 3);
  uint32_t shift = bit & 7;
  uint32_t nbytes = (shift + nbits + 7) >> 3;
  uint64_t word = 0;
  for (uint32_t i = 0; i < nbytes; ++i) word |= static_cast<uint64_t>(p[i]) << (8 * i);
  uint32_t v = static_cast<uint32_t>(word >> shift);
  // The mask's shift count is taken modulo 32: for 32-bit elements the mask
  // is 0 and so is the result. Kept as the format's readers always had it.
  uint32_t mask = (1u << (nbits & 31)) - 1u;
  return v & mask;
}

// Copies nbits bits of a bit-packed array (bits in the order elements are
// packed: from the low bit of each byte up) from bit src_bit of src to bit
// dst_bit of dst, 57 at a time; dst's other bits are untouched. Both
// arrays must have 8 bytes of room past the last byte of the copied bits.
// Element i of width w starts at bit i * w: a stretch of elements that
// keep their order moves at once.
inline void copy_bits(uint8_t* dst, uint64_t dst_bit, const uint8_t* src, uint64_t src_bit, uint64_t nbits) noexcept {
  while (nbits > 0) {
    const uint32_t chunk = nbits < 57 ? static_cast<uint32_t>(nbits) : 57;
    const uint64_t mask = (uint64_t{1} << chunk) - 1;
    uint64_t v;
    __builtin_memcpy(&v, src + (src_bit >> 3), 8);
    v = (v >> (src_bit & 7)) & mask;
    uint8_t* p = dst + (dst_bit >> 3);
    const uint32_t shift = dst_bit & 7;
    uint64_t word;
    __builtin_memcpy(&word, p, 8);
    word = (word & ~(mask << shift)) | (v << shift);
    __builtin_memcpy(p, &word, 8);
    src_bit += chunk;
    dst_bit += chunk;
    nbits -= chunk;
  }
}

// Bits needed to hold value, at least 1: log2n(0) = 1, log2n(256) = 9.
uint32_t log2n(uint32_t value) noexcept;

// The first multiple of 8 strictly above x: every index-file section is
// followed by 1 to 8 bytes of zero padding.
inline constexpr uint64_t next8(uint64_t x) noexcept { return x + 8 - (x % 8); }

// Bytes an index file reserves for a column of n elements of nbits bits.
inline constexpr uint64_t column_size(uint64_t n, uint64_t nbits) noexcept {
  return nbits * (n / 8 + 1);
}

}  // namespace tarnix
