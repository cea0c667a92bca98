// An open index file ("warm slice", ".tsidx"): the handle over its sections,
// mapped open (everything before the postings mapped) and descriptor-based
// open (only what precedes the term metadata mapped; metadata and lexicon by
// positional reads), the value table and its buffered reader, the posting
// lists with their streaming writer and buffered reader, and the writer that
// turns a prepared hot slice into a new file. Layout: warmslice_util.h.
#pragma once

#include <cstddef>
#include <cstdint>

#include "searchthing/fclex.h"
#include "searchthing/result.h"
#include "searchthing/types.h"
#include "searchthing/warmslice_util.h"

namespace tarnix {

struct hot_slice;

struct warm_map {
  void* ptr;
  uint64_t len;
};

// Open index file. Exactly one of metadata (mapped) and metadata_offset
// (descriptor-based, equal to map.len) is set.
struct warm {
  int fd;                        // -1 for a writer's in-memory handle
  warm_map map;
  uint8_t* body;                 // the header (= map.ptr, or the writer's buffer)
  uint8_t* values;               // body + 64
  uint8_t* et_array;
  uint8_t* s_array;
  uint8_t* st_array;
  uint8_t* h_array;
  uint8_t* d_array;
  bool plo64;                    // offset entries are 8 bytes
  uint8_t* pl_offs;
  uint8_t* metadata;             // mapped mode, else null
  file_offset_t metadata_offset; // descriptor mode, else NO_OFFSET
  uint8_t metadata_buffer[TERM_METADATA_SZ];
  uint8_t* postings;             // body + end of the last lexicon (an offset only in fd mode)
  fclex* lex;
  uint64_t postings_size;        // cache, 0 = not yet known
};

inline const warm_header* warm_hdr(const warm* w) noexcept {
  return reinterpret_cast<const warm_header*>(w->body);
}

// ---- Open and close ------------------------------------------------------------
warm* st_warm_slice_open(const char* filename, int for_updating, wrc* wrc_o) noexcept;
warm* st_warm_slice_open_fd(const char* filename, int for_updating, wrc* wrc_o) noexcept;
// Descriptor-based open; for_updating must be 0. On success the handle owns fd.
warm* st_warm_slice_open_from_fd(int fd, int for_updating, wrc* wrc_o) noexcept;
int st_warm_slice_close(warm* w) noexcept;

uint64_t st_warm_slice_size(const warm* w) noexcept;
uint32_t st_warm_slice_terms(const warm* w) noexcept;
uint32_t st_warm_slice_values(const warm* w) noexcept;
uint32_t st_warm_slice_blocksize(const warm* w) noexcept;
int32_t st_warm_slice_latest(const warm* w) noexcept;
int32_t st_warm_slice_earliest(const warm* w) noexcept;
file_offset_t size_without_vardata(const warm* w) noexcept;

// Pointer to term_id's big-endian metadata entry (one pread in fd mode),
// or null after a short read.
const uint8_t* _get_metadata_entry(warm* w, uint32_t term_id, int count_only,
                                   uint32_t* timing) noexcept;
// The entry's count, 0 when it cannot be read.
uint32_t get_metadata_entry(warm* w, uint32_t term_id) noexcept;
// Writes a metadata entry by positional write (fd mode).
void _set_metadata_fd(warm* w, uint32_t term_id, const st_term_metadata* m) noexcept;

// Name for an open index file from its value table's times.
char* st_warm_slice_filename(char* dst, const char* prefix, const char* suffix, const warm* w) noexcept;
char* st_warm_slice_fd_filename(char* dst, const char* prefix, const char* suffix,
                                const hot_slice* hot) noexcept;

// ---- Values --------------------------------------------------------------------
// 1 when a sorts after b (earlier time, or equal time and smaller address),
// -1 when before, 0 when equal.
int st_tsval_compare(const tsval* a, const tsval* b) noexcept;
// The same on two 8-byte on-disk records.
int st_ntsval_compare(const uint8_t* a, const uint8_t* b) noexcept;
// Writes the 8-byte record and the five column elements of value id into w.
void _encode_tsval(uint8_t* record_out, uint32_t id, const tsval* v, warm* w) noexcept;

struct tsval_reader {
  uint8_t* et_array;
  uint8_t* s_array;
  uint8_t* st_array;
  uint8_t* h_array;
  uint8_t* d_array;
  uint32_t et_nbits, s_nbits, st_nbits, h_nbits, d_nbits;
  int _fd;
  const uint8_t* _mem;         // not null: the file is in memory here, _fd unused
  uint64_t values_offset;
  uint32_t _num_values;
  uint8_t* _buf;               // read-ahead of raw records, or null
  uint32_t cache_first;
  uint32_t cache_count;        // 0 = empty
  uint32_t capacity;           // records _buf holds, 0 = no read-ahead
  bool borrowed;               // columns point into a mapping
  uint32_t* timing;
};
int _tsval_reader_open(tsval_reader* r, warm* w, uint32_t bufcap, uint32_t* timing) noexcept;
int _tsval_reader_open_partial(tsval_reader* r, int fd, uint32_t num_values,
                               uint64_t values_offset, uint32_t bufcap) noexcept;
// 0, -8 or -12.
int tsval_reader_decode_hint(tsval_reader* r, uint32_t id, tsval* out, uint32_t hint) noexcept;
int _tsval_reader_decode(tsval_reader* r, uint32_t id, tsval* out) noexcept;
// 0, or -1 when id is not buffered (no read).
int tsval_reader_decode_from_cache(tsval_reader* r, uint32_t id, tsval* out) noexcept;
void _tsval_reader_close(tsval_reader* r) noexcept;

// Decodes every non-deleted value into *array (grown to *pos + num_values).
int st_warm_slice_all_events(warm* w, tsval** array, uint64_t* cap, uint64_t* pos, wrc* wrc_o) noexcept;
using tsval_cb = int (*)(const tsval* v, void* context);
int st_warm_slice_apply_events(warm* w, tsval_cb cb, void* context, wrc* wrc_o) noexcept;

// ---- Posting lists ---------------------------------------------------------------
// List of strictly ascending ids x1 < ... < xn: VBE(x1), then VBE(gap) for
// each value not one above its predecessor; a run v, v+1, .., v+k after an
// explicitly coded v is a zero byte and VBE(k). 5,6,7,8,20,21,40 ->
// 05 00 03 0C 00 01 13.
inline constexpr uint32_t PLW_BUF_SZ = 8192;
inline constexpr uint32_t PLR_BUF_SZ = 4096;
inline constexpr uint32_t END_OF_LIST = 0xFFFFFFFFu;

struct plw {
  int fd;
  uint64_t offset;         // file offset of the next write
  uint8_t buf[PLW_BUF_SZ];
  uint32_t bytes;          // bytes in buf
  uint64_t total;          // bytes produced so far
  uint32_t count_forterm;
  uint32_t run;            // pending run length
  uint32_t last_value;
  uint8_t* mem;            // not null: the output goes here (offset counts from it)
  uint64_t mem_cap;        // bytes mem holds; a write past them fails (-9)
};
int _plist_writer_open(plw* w, int fd, uint64_t offset) noexcept;
// A writer whose output goes to memory[0 .. capacity) instead of a file.
int _plist_writer_open_mem(plw* w, uint8_t* mem, uint64_t capacity) noexcept;
int _plist_writer_start_term(plw* w) noexcept;
int _plist_writer_put(plw* w, uint32_t value) noexcept;   // 0 or -9
// _plist_writer_put of values[0..n) in turn, the same bytes and writes; stops
// at the first failing put (-9). *done (if not null) is the number of puts
// made, the failing one included.
int _plist_writer_put_run(plw* w, const uint32_t* values, uint32_t n, uint32_t* done) noexcept;
int _plist_writer_end_term(plw* w) noexcept;
int _plist_writer_close(plw* w) noexcept;                 // 0 or -9

struct plist_reader {
  int fd;
  const uint8_t* mem;         // not null: the file is in memory here, fd unused
  uint8_t buf[PLR_BUF_SZ];
  uint64_t postings_offset;   // file offset of the postings section
  uint64_t postings_size;
  uint64_t buf_start;         // offset of buf within the postings
  uint64_t left;              // bytes left in the current list
  uint32_t pos;               // position in buf
  uint32_t valid;             // valid bytes in buf
  uint32_t current;           // current value
  uint32_t returned;          // values returned from the current list
  uint32_t pending;           // pending run count
  ar_reader plo_reader;       // offset table, _obj_sz 4 or 8
  uint32_t* timing;
  wrc rc;                     // failures of the offset-table reader
};
int _init_reader(plist_reader* r, warm* w, uint32_t bufcap, uint32_t* timing) noexcept;
// Field set-up over an offset table at table_offset (num_terms entries of
// plo_size bytes) and a postings section [postings_offset, +postings_size).
int _init_reader_helper(plist_reader* r, int fd, uint64_t table_offset, uint32_t num_terms,
                        uint32_t plo_size, uint64_t postings_offset, uint64_t postings_size,
                        uint32_t bufcap, uint32_t* timing) noexcept;
int _seek_reader(plist_reader* r, uint32_t term_id) noexcept;
// _seek_reader for a walk over the terms in order: start is where the
// previous term's list ended (the end the previous seek of this reader
// found), 0 for term 0. Only term_id's own entry is read; same codes.
int _seek_reader_after(plist_reader* r, uint32_t term_id, uint64_t start) noexcept;
// 0, -8 or -12; value END_OF_LIST at the end of the list.
int _next(plist_reader* r, uint32_t* value) noexcept;
// Up to cap values at once: the first exactly as _next gives it (its code is
// the result; END_OF_LIST ends the list), then as many more as the buffered
// bytes hold without another read and without a fault, so that a fault or
// a read happens at the same value as with _next. *n values are stored.
int _next_batch(plist_reader* r, uint32_t* values, uint32_t cap, uint32_t* n) noexcept;
// Moves the current list's next values v, as long as v <= limit, into the
// writer as target values v + delta: the same reads, bytes, writes and
// counts as taking each with _next and putting v + delta with
// _plist_writer_put, without decoding the values one by one where the
// codes can be copied. For a stretch of source values that a mapping moves
// by delta alike. The writer's last value must be the reader's current
// value plus delta, with at least one value read from the list and put.
// Stops early (0) at a code _next would refuse, leaving it to _next;
// otherwise 0, -8 (read) or -9 (write).
int _plist_move(plist_reader* r, plw* w, uint32_t limit, uint32_t delta) noexcept;
// A list just positioned that holds one value, coded in the bytes already
// buffered with no read due: takes it as _next would (true). Otherwise
// (false) the reader is untouched.
bool _take_single(plist_reader* r, uint32_t* value) noexcept;
int _seek(plist_reader* r, uint32_t target, uint32_t* value) noexcept;
void close_plist_reader(plist_reader* r) noexcept;

uint64_t _pl_offset(uint64_t table_offset, uint32_t num_terms, int fd, bool plo64, int64_t term_id) noexcept;
uint64_t _pl_offset_warm(warm* w, int64_t term_id) noexcept;
uint64_t st_warm_slice_pl_size(warm* w, uint32_t term_id) noexcept;
uint64_t st_warm_slice_postings_size(warm* w) noexcept;
int64_t st_warm_slice_pl_hash(warm* w, uint32_t term_id) noexcept;

// ---- Writer -----------------------------------------------------------------------
// Writes a prepared hot slice as a new file "%s/%d-%d-%llu%s" (prefix,
// latest, earliest, unique id, suffix), its path into filename (4096
// bytes), exclusive create mode 0600. Returns an in-memory handle (fd -1).
// An attribute of 2^31 or more (a deleted value's source mark aside) would
// need a 32-bit column, which cannot hold it: the slice is refused with -36
// and no file is made.
warm* st_warm_slice_create(hot_slice* hot, char* filename, const char* prefix, const char* suffix,
                           wrc* wrc_o) noexcept;

// ---- Further operations ----------------------------------------------------------------
uint32_t st_warm_slice_delete_by_tsval(warm* w, const tsval* addrs, uint32_t n) noexcept;
int st_warm_slice_enum(warm* w, const char* prefix, int which, uint8_t* answers, uint32_t capacity) noexcept;
int st_warm_slice_meta(warm* w, const char* term, st_term_metadata* meta) noexcept;

}  // namespace tarnix
