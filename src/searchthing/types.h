// Plain records shared by every part of the index library.
#pragma once

#include <cstdint>

namespace tarnix {

// Unsigned 64-bit file offset; all ones means none.
using file_offset_t = uint64_t;
inline constexpr file_offset_t NO_OFFSET = ~static_cast<file_offset_t>(0);

// A value's position in an index file's value table.
using tsval_id = uint32_t;

// Source number of a deleted value.
inline constexpr uint32_t DELETED_SOURCE = 0xFFFFFFFFu;

// One event value. Order (st_tsval_compare): later timestamp first (signed),
// then larger event address first (unsigned).
struct tsval {
  int32_t timestamp;
  uint32_t event_address;
  uint32_t event_type;
  uint32_t source;       // DELETED_SOURCE marks a deleted value
  uint32_t source_type;
  uint32_t host;
};

// Per-term metadata in host order. On disk: three big-endian 32-bit words
// (count, earliest, latest); lexicon-only files keep count alone.
struct st_term_metadata {
  uint32_t count;
  int32_t earliest;
  int32_t latest;
};

}  // namespace tarnix
