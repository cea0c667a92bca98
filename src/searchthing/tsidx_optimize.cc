#include "searchthing/tsidx_optimize.h"

namespace tarnix {

int _so_choose_group(const int64_t* sizes, uint32_t n, int32_t mode, uint32_t min_src_count,
                     uint64_t max_allowed_size, so_group* out) noexcept {
  const bool normal = mode == SO_MODE_NORMAL;
  const bool all = mode == SO_MODE_ALL;
  out->count = 0;
  uint32_t i = 0;
  for (;;) {
    // Seed pair (j, j+1). In normal mode the pair must be of similar size
    // (the smaller more than half the larger) unless the larger is still
    // below 1 MiB; the seed is never held against the byte limits.
    uint32_t j = i;
    if (normal) {
      for (; j + 1 < n; ++j) {
        if (2 * sizes[j] > sizes[j + 1] || sizes[j + 1] <= SO_SMALL_FILE_SZ - 1) break;
      }
      if (j + 1 >= n) return ST_ENOGROUP;
    } else if (i + 1 >= n) {
      return ST_ENOGROUP;
    }
    out->pos[0] = j;
    out->pos[1] = j + 1;
    out->count = 2;
    int64_t total = sizes[j] + sizes[j + 1];

    // Extend with the following files while they fit. A file that stops the
    // extension stays counted in the total; nothing reads it afterwards.
    for (uint32_t k = j + 2; k < n && out->count < SO_MAX_GROUP; ++k) {
      if (!all) {
        if (sizes[k] > SO_SMALL_FILE_SZ && sizes[k] > total) break;
        total += sizes[k];
        if (total > SO_MAX_GROUP_TOTAL_SZ) break;
      } else {
        total += sizes[k];
      }
      if (max_allowed_size != 0 && static_cast<uint64_t>(total) > max_allowed_size) break;
      out->pos[out->count++] = k;
    }

    if (out->count >= min_src_count || !normal) return 0;
    // Too few members: normal mode looks again two places after the seed.
    i = j + 2;
    out->count = 0;
  }
}

}  // namespace tarnix
