// The handle on one bucket directory: its path, the limits that size new hot
// slices, the directory's file-name grammar and the walk over its index
// files, the parameter file that remembers the limits between processes, the
// need-optimize marker, and the flush of the hot slice into a new index file.
//
// Bucket directory names:
//   "%d-%d-%llu.tsidx"               index file (latest, earliest, unique id)
//   "%d-%d-%llu.pre-tsidx"           index file being flushed, before its move
//   "%d-%d-%llu.%u.%u.part-tsidx"    part file (part number 0..31, part_id)
//   "%d-%d-%llu.tsidx.deleted"       index file whose events are being deleted
//   "<path>.lock"                    lock file (lock.h)
//   "tarnix-autogen-params.dat"      parameter file; ".part.%u" its temporary
//   "tarnix-need-optimize.dat"       need-optimize marker (empty file)
//
// A flushed slice is written under a ".pre-tsidx" name and reaches its final
// ".tsidx" name only by a hard link, so a reader never sees a half-written
// index file under an index-file name.
#pragma once

#include <cstdint>
#include <cstdio>

#include "searchthing/result.h"

namespace tarnix {

struct hot_slice;
struct warm;

inline constexpr uint64_t ST_TSIDX_DEFAULT_LIMIT = 16384;
// Bit of open_flags: new hot slices are made in streaming mode (events are
// put in time order).
inline constexpr uint32_t ST_OPEN_STREAMING = 1u;
// Part files of one transaction are numbered 0..ST_TSIDX_MAX_PART.
inline constexpr uint32_t ST_TSIDX_MAX_PART = 31;
// Flush moves: attempts, and the sleep between them (1 ms doubling to 1000).
inline constexpr int ST_TSIDX_MOVE_ATTEMPTS = 61;
inline constexpr uint32_t ST_TSIDX_MOVE_MAX_SLEEP_MS = 1000;

inline constexpr char ST_PARAMS_NAME[] = "tarnix-autogen-params.dat";
inline constexpr char ST_PARAMS_HEADER[] = "TARNIX AUTO-GENERATED FILE. DO NOT MODIFY.|";
inline constexpr char ST_NEED_OPTIMIZE_NAME[] = "tarnix-need-optimize.dat";

// Directory handle. Created zeroed by st_tsidx_open, freed by st_tsidx_close.
struct tsidx {
  char* path;                    // owned copy of the bucket directory
  tarnix::hot_slice* hot_slice;  // slice being filled, created on first put
  uint64_t max_term_chars;
  uint64_t max_terms;
  uint64_t max_postings;
  uint64_t max_values;
  uint64_t full_count;           // times a hot slice filled up
  uint64_t txn_count;            // transactions since the last fill-up
  uint64_t txn_per_sync;         // transactions that fitted the last full slice, 0 = unknown
  uint32_t full_reasons[4];      // fill-ups by reason: [-code - 1] for the put codes -1..-4
  int autotune;                  // rescale the limits from the last full slice
  uint64_t autotune_target;      // bytes a written slice should have
  uint32_t open_flags;           // ST_OPEN_STREAMING
  tarnix::wrc wrc;               // last failure of an operation on this directory
  uint32_t part_id;              // this writer's part files and parameter temporary
};

// ---- Handle ----------------------------------------------------------------------
// Null only when memory is short; the directory is not touched unless
// read_params is non-zero (then the parameter file is read).
[[nodiscard]] tsidx* st_tsidx_open(const char* path, uint32_t open_flags, int read_params,
                                   uint32_t part_id) noexcept;
// Flushes and closes the hot slice, writes the parameter file when
// txn_per_sync is known, frees the handle. Returns the flush's code or 0.
int st_tsidx_close(tsidx* t) noexcept;

// ---- File names --------------------------------------------------------------------
// 1 and the three numbers for "%d-%d-%llu.tsidx" (first number into latest),
// else 0 (outputs untouched).
[[nodiscard]] int st_tsidx_file_parse(const char* name, int32_t* earliest, int32_t* latest,
                                      uint64_t* id) noexcept;
// 1 for "%d-%d-%llu.%u.%u.part-tsidx" whose last number is part_id, else 0.
[[nodiscard]] int st_tsidx_part_file_parse(const char* name, uint32_t part_id, int32_t* earliest,
                                           int32_t* latest, uint64_t* id, uint32_t* part) noexcept;
// 1 for "%d-%d-%llu.tsidx.deleted", else 0.
[[nodiscard]] int st_tsidx_deleted_file_parse(const char* name, int32_t* earliest, int32_t* latest,
                                              uint64_t* id) noexcept;

// ---- Directory walk ------------------------------------------------------------------
// Filter: accept (non-zero) or refuse an entry name; on acceptance the
// outputs hold the name's times and id.
using tsidx_filter = int (*)(tsidx* t, const char* entry, int32_t* latest_out,
                             int32_t* earliest_out, uint64_t* id_out, int32_t hi, int32_t lo);
// Callback: warm is the open index file (pass_warm) or null, path the full
// path (without pass_warm) or null. A negative result stops the walk.
using tsidx_callback = int (*)(tsidx* t, warm* w, int32_t latest, int32_t earliest, void* context,
                               const char* path, uint64_t id);

// The standard filter: an index-file name whose earliest <= hi and latest >= lo.
int _tsidx_time_filter(tsidx* t, const char* entry, int32_t* latest_out, int32_t* earliest_out,
                       uint64_t* id_out, int32_t hi, int32_t lo) noexcept;
// Every index-file name, whatever its times.
int _tsidx_name_filter(tsidx* t, const char* entry, int32_t* latest_out, int32_t* earliest_out,
                       uint64_t* id_out, int32_t hi, int32_t lo) noexcept;
// Part files of this handle's part_id.
int _tsidx_part_filter(tsidx* t, const char* entry, int32_t* latest_out, int32_t* earliest_out,
                       uint64_t* id_out, int32_t hi, int32_t lo) noexcept;

// The walk: entries in listing order, filtered (every entry, "." and ".."
// included, without a filter; pass_warm needs a filter). Returns the number
// of files visited, or a negative code (-1: the directory cannot be listed,
// or a callback's negative result).
int _st_tsidx_apply(tsidx* t, int32_t lo, int32_t hi, tsidx_callback callback, void* context,
                    int pass_warm, tsidx_filter filter) noexcept;
// Open index files whose time range meets [lo, hi].
int st_tsidx_apply(tsidx* t, int32_t lo, int32_t hi, tsidx_callback callback, void* context) noexcept;

// ---- Parameter file ------------------------------------------------------------------
// Reads the limits and txn_per_sync; a missing, empty or corrupt file
// changes nothing. Returns 1 when the limits were taken, else 0.
int deserialize_params(tsidx* t) noexcept;
// Writes the file through its temporary and a rename: 0, or -1 (nothing
// replaced).
int serialize_params(tsidx* t) noexcept;

// ---- Need-optimize marker -------------------------------------------------------------
[[nodiscard]] int st_tsidx_need_optimize(tsidx* t) noexcept;   // 1 marker exists, else 0
int st_tsidx_set_need_optimize(tsidx* t) noexcept;            // 0 created or already there, -1
int st_tsidx_clear_need_optimize(tsidx* t) noexcept;          // the unlink() result

// ---- Flush ---------------------------------------------------------------------------
// _st_tsidx_sync(t, ".pre-tsidx", 0).
int st_tsidx_sync(tsidx* t) noexcept;
// Writes the transaction's part file number *counter and moves the counter
// on, so that successive calls write parts 0, 1, ... 31; past 31 nothing is
// written and the counter stays.
int _st_tsidx_sync_part(tsidx* t, uint32_t* counter) noexcept;
// Writes the hot slice as "<path>/%d-%d-%llu<suffix>"; unless is_part, moves
// it to a fresh ".tsidx" name. 0 (also with nothing to write) or -6 with the
// cause in t->wrc (-35 when the move failed; the ".pre-tsidx" file stays).
int _st_tsidx_sync(tsidx* t, const char* suffix, int is_part) noexcept;

// link(from, to), then unlink(from): 0, or the link's error number (69 when
// errno was 0). A failed unlink is logged and still counts as done. Defined
// with the optimize pass (tsidx_optimize.cc).
int _link_and_unlink(const char* from, const char* to, FILE* log) noexcept;

// The flush's move into place: up to ST_TSIDX_MOVE_ATTEMPTS calls of
// move(from, fresh ".tsidx" name for w in dir, null); only ENFILE, ENOMEM
// and EMFILE are retried, after sleep_ms(1), (2), (4) ... at most 1000.
// Returns 0 (the final name in to, PATH_BUF_SZ bytes) or the last error.
using tsidx_move_fn = int (*)(const char* from, const char* to, FILE* log);
using tsidx_sleep_ms_fn = void (*)(uint32_t ms);
int _st_tsidx_move_into_place(const char* from, char* to, const char* dir, const warm* w,
                              tsidx_move_fn move, tsidx_sleep_ms_fn sleep_ms) noexcept;

// ---- Indexing ------------------------------------------------------------------------
// Puts one (term, event) pair. The hot slice is created from the limits on
// the first put. When the slice is full the handle flushes it (st_tsidx_sync)
// and retries once. An empty term is a capacity probe: it flushes a slice
// that is more than 7/8 full, so that the next event fits whole. Returns 0,
// -37 for an event type, source, source type or host of 2^31 or more (the
// source 0xFFFFFFFF of a deleted event aside) without storing anything, a
// hot-slice put code (-5: NUL within the term), or the failing flush's or
// create's code.
int st_tsidx_put(tsidx* t, const char* term, uint32_t len, int32_t timestamp,
                 uint32_t event_address, uint32_t event_type, uint32_t source,
                 uint32_t source_type, uint32_t host) noexcept;
// Records a fill-up with the hot slice's put code (-1..-4) and, with
// autotuning, rescales the limits from the full slice.
void _st_tsidx_note_full(tsidx* t, int full_code) noexcept;
// The limits a full slice with these counts suggests for autotune_target.
struct tsidx_limits {
  uint64_t max_term_chars, max_terms, max_postings, max_values;
  double ratio;
};
tsidx_limits _st_tsidx_autotuned_limits(uint64_t target, uint64_t written_size_est,
                                        uint64_t term_chars, uint64_t terms, uint64_t postings,
                                        uint64_t values) noexcept;

// ---- Accessors -------------------------------------------------------------------------
uint64_t st_tsidx_max_terms(const tsidx* t) noexcept;
uint64_t st_tsidx_max_term_chars(const tsidx* t) noexcept;
uint64_t st_tsidx_max_postings(const tsidx* t) noexcept;
uint64_t st_tsidx_max_values(const tsidx* t) noexcept;
uint64_t st_tsidx_txn_per_sync(const tsidx* t) noexcept;
int32_t st_tsidx_warm_rc(const tsidx* t) noexcept;
int32_t st_tsidx_warm_errno(const tsidx* t) noexcept;
void st_tsidx_set_params(tsidx* t, uint64_t max_terms, uint64_t max_term_chars, uint64_t max_postings,
                         uint64_t max_values) noexcept;
// target 0 switches autotuning off, else on with that target in bytes.
void st_tsidx_autotune(tsidx* t, uint64_t target) noexcept;

}  // namespace tarnix
