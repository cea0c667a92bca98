#include "searchthing/codes.h"

#include "searchthing/check.h"

namespace tarnix {

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
