// One optimize pass over a bucket directory: list the index files that may
// be merged, choose a group of them by size, lock it, merge it into a
// ".merge" intermediate, move the result to a fresh "%d-%d-%llu.tsidx" name
// under the directory lock and remove the sources.
//
// Locks: directory lock, then the source locks one by one; the directory
// lock is dropped for the merge and taken again for the commit. Commit
// order: move the result into place, remove the sources, drop the directory
// lock, drop the source locks. A crash between move and removal leaves the
// merged file and its sources; a crash before the move leaves a ".merge"
// file and source locks.
#pragma once

#include <cstdint>
#include <cstdio>

#include "searchthing/result.h"

namespace tarnix {

inline constexpr int32_t SO_MODE_NORMAL = 0;
inline constexpr int32_t SO_MODE_FORCE = 1;
inline constexpr int32_t SO_MODE_ALL = 2;

inline constexpr uint32_t SO_MAX_CANDIDATES = 10000;           // count limit of the candidate list
inline constexpr int64_t SO_MAX_CANDIDATE_SZ = 786432000;      // 750 MiB, modes normal and force
inline constexpr int64_t SO_SMALL_FILE_SZ = 1048576;           // 1 MiB
inline constexpr int64_t SO_MAX_GROUP_TOTAL_SZ = 1572864000;   // 1500 MiB, modes normal and force
inline constexpr uint32_t SO_MAX_GROUP = 32;                   // one bit per source in a term bitmap
inline constexpr uint32_t SO_LOCK_RETRY_US = 500000;           // source-lock retry, no limit
inline constexpr int SO_DIR_LOCK_WAIT_S = 10;
inline constexpr int SO_MOVE_ATTEMPTS = 10;

// A chosen group: positions in the size-sorted candidate list, ascending.
struct so_group {
  uint32_t pos[SO_MAX_GROUP];
  uint32_t count;
};

// The group choice over n file sizes sorted smallest first. mode: 0 normal,
// 1 force, 2 all (any other value counts as force). max_allowed_size 0 means
// no limit. Returns 0 with the group in *out, or -31 when no group satisfies
// the rules. Pure: touches nothing but *out.
int _so_choose_group(const int64_t* sizes, uint32_t n, int32_t mode, uint32_t min_src_count,
                     uint64_t max_allowed_size, so_group* out) noexcept;

}  // namespace tarnix
