#include "searchthing/codes.h"

#include "searchthing/check.h"

namespace tarnix {

// The element spans at most 5 bytes (bit offset 0..7 plus 32 bits). Work on
// those bytes as one 64-bit word instead of bit by bit; the bytes touched are
// exactly the bytes that hold the element's bits.
void encode_to_byte_str(uint8_t* array, uint32_t value, uint32_t index, uint32_t nbits) noexcept {
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

uint32_t decode_from_byte_str(const uint8_t* array, uint32_t index, uint32_t nbits) noexcept {
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

uint32_t log2n(uint32_t v) noexcept {
  uint32_t r = 0;
  if (v & 0xFFFF0000u) { v >>= 16; r += 16; }
  if (v & 0xFF00u) { v >>= 8; r += 8; }
  if (v & 0xF0u) { v >>= 4; r += 4; }
  if (v & 0xCu) { v >>= 2; r += 2; }
  if (v & 0x2u) { r += 1; }
  return r + 1;
}

}  // namespace tarnix
