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
#include "searchthing/tsidx.h"

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
inline constexpr size_t SO_CANDIDATE_PATH_MAX = 4095;          // longer paths are cut
inline constexpr char SO_MERGE_SUFFIX[] = ".merge";

// A chosen group: positions in the size-sorted candidate list, ascending.
struct so_group {
  uint32_t pos[SO_MAX_GROUP];
  uint32_t count;
};

// One index file found by the candidate listing.
struct so_listed_file {
  char path[SO_CANDIDATE_PATH_MAX + 1];  // directory path, "/", file name (cut at 4095)
  int64_t size;                          // bytes when listed
  int32_t earliest;                      // second number of the file name
  int32_t latest;                        // first number of the file name
  uint64_t id;                           // third number of the file name
};

// The pass's candidate listing on its own, for other directory-wide
// operations: every file that filter accepts, in the directory's listing
// order, skipping locked, empty and unreadable files and, when size_limit is
// above 0, files larger than it; at most count_limit files (0: no limit).
// Returns the number listed with the array in *out (free it with free();
// null when none), or a negative code with *out null: -1 the directory
// cannot be listed, -2 no memory, -29 a lock state could not be read.
int _so_collect_candidates(tsidx* t, tsidx_filter filter, int64_t size_limit, uint32_t count_limit,
                           so_listed_file** out) noexcept;

// The group choice over n file sizes sorted smallest first. mode: 0 normal,
// 1 force, 2 all (any other value counts as force). max_allowed_size 0 means
// no limit. Returns 0 with the group in *out, or -31 when no group satisfies
// the rules. Pure: touches nothing but *out.
int _so_choose_group(const int64_t* sizes, uint32_t n, int32_t mode, uint32_t min_src_count,
                     uint64_t max_allowed_size, so_group* out) noexcept;

// One pass over every "%d-%d-%llu.tsidx" file of the directory, whatever its
// times. Returns the code also left in wrc_o->warm_rc: 0 a group was merged
// and committed; -1 the directory could not be listed; -2 no memory for the
// candidate list; -4 a source could not be opened or the intermediate could
// not be created; -11 closing the intermediate failed; -28 the intermediate
// existed; -29 a lock could not be taken; -30 fewer than 2 candidates; -31
// no group satisfies the rules; -35 the move to the final name failed; any
// other negative code is the merge's own.
int32_t st_tsidx_optimize_n(tsidx* t, int32_t mode, FILE* log, uint32_t min_src_count,
                            uint32_t lex_tpb, uint64_t page_size, wrc* wrc_o,
                            uint64_t max_allowed_size, int tstats) noexcept;

// The pass itself, over the names that filter accepts.
int32_t _st_tsidx_optimize(tsidx* t, int32_t mode, FILE* log, uint32_t min_src_count,
                           uint32_t lex_tpb, uint64_t page_size, tsidx_filter filter, wrc* wrc_o,
                           uint64_t max_allowed_size, int tstats) noexcept;

// Moves intermediate to a fresh "<dir>/<latest>-<earliest>-<id>.tsidx" name:
// up to 10 attempts, each with a new id. 0, or the last error number.
// Asserts "latest >= earliest".
int move_retry_time(const char* intermediate, const char* dir, int32_t earliest, int32_t latest,
                    FILE* log) noexcept;

// The pass's closing log line (nothing without a log stream). The error
// number printed is *errno_ptr when given, else w->warm_errno.
void _log_optimize_finished(FILE* log, const wrc* w, const int* errno_ptr) noexcept;

// After a failed move: "dir listing for <dir>" and one line per directory
// entry (its full path; "." and ".." included) on the log, if one is set.
void _so_log_dir_listing(tsidx* t, FILE* log) noexcept;

// The text of the closing log line for a pass code.
const char* _so_finished_text(int32_t rc) noexcept;

}  // namespace tarnix
