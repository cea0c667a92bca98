// Index file layout: the 60-byte header, the accepted magics, and the offset
// of every section, all computed from the header alone; plus the file-name
// builders and the fixed-size record arrays used to stream the offset and
// metadata tables.
//
// Header (big-endian, offset 0; bytes 60..63 are zero, the region is 64):
//   off size field         off size field
//    0   8  magic           32   4  h_size
//    8   4  num_values      36   4  d_size
//   12   4  num_postings    40   4  et_nbits
//   16   4  num_terms       44   4  s_nbits
//   20   4  et_size         48   4  st_nbits
//   24   4  s_size          52   4  h_nbits
//   28   4  st_size         56   4  d_nbits (always 1)
// Column size = nbits * (num_values div 8 + 1).
//
// Sections in file order, each starting at next8() of the previous end:
// values (64; 8 bytes each: timestamp, event address), event-type, source,
// source-type, host and deleted-flag columns, posting-list offset table
// (num_terms entries, 4 bytes in "Tarnix3" files, else 8; empty when
// num_values is 0), term metadata (12 bytes per term, 4 in "TarLex1"),
// [versions 3-5: num_terms*4 bytes of an older per-term table, skipped],
// lexicon, [versions 3-5: reverse lexicon at the lexicon's end rounded up
// to 4], postings (to the end of the file; size = last offset entry).
#pragma once

#include <cstddef>
#include <cstdint>

#include "searchthing/codes.h"
#include "searchthing/result.h"
#include "searchthing/types.h"

namespace tarnix {

inline constexpr size_t WARM_HEADER_SZ = 60;
inline constexpr size_t WARM_HEADER_REGION_SZ = 64;
inline constexpr size_t MAGIC_SZ = 8;
inline constexpr size_t TERM_METADATA_SZ = 12;   // full entry
inline constexpr size_t SHORT_METADATA_SZ = 4;   // "TarLex1": count only
inline constexpr size_t TSVAL_RECORD_SZ = 8;
inline constexpr size_t PATH_BUF_SZ = 4096;      // every path buffer

inline constexpr char MAGIC_V3[MAGIC_SZ] = "Tarnix3";
inline constexpr char MAGIC_V4[MAGIC_SZ] = "Tarnix4";
inline constexpr char MAGIC_V5[MAGIC_SZ] = "Tarnix5";
inline constexpr char MAGIC_V6[MAGIC_SZ] = "Tarnix6";
inline constexpr char MAGIC_LEX[MAGIC_SZ] = "TarLex1";

// Byte offsets of the header fields.
enum hdr_field : uint32_t {
  HDR_NUM_VALUES = 8,
  HDR_NUM_POSTINGS = 12,
  HDR_NUM_TERMS = 16,
  HDR_ET_SIZE = 20,
  HDR_S_SIZE = 24,
  HDR_ST_SIZE = 28,
  HDR_H_SIZE = 32,
  HDR_D_SIZE = 36,
  HDR_ET_NBITS = 40,
  HDR_S_NBITS = 44,
  HDR_ST_NBITS = 48,
  HDR_H_NBITS = 52,
  HDR_D_NBITS = 56,
};

// The header as stored: 60 raw bytes, read through the accessors below.
struct warm_header {
  uint8_t b[WARM_HEADER_SZ];
};

inline uint32_t hdr_get(const warm_header* h, hdr_field f) noexcept { return load_be32(h->b + f); }
inline void hdr_set(warm_header* h, hdr_field f, uint32_t v) noexcept { store_be32(h->b + f, v); }
inline uint32_t hdr_num_values(const warm_header* h) noexcept { return hdr_get(h, HDR_NUM_VALUES); }
inline uint32_t hdr_num_postings(const warm_header* h) noexcept { return hdr_get(h, HDR_NUM_POSTINGS); }
inline uint32_t hdr_num_terms(const warm_header* h) noexcept { return hdr_get(h, HDR_NUM_TERMS); }

// Column accessors by name, as the merge's column table uses them.
inline uint32_t et_nbits(const warm_header* h) noexcept { return hdr_get(h, HDR_ET_NBITS); }
inline uint32_t s_nbits(const warm_header* h) noexcept { return hdr_get(h, HDR_S_NBITS); }
inline uint32_t st_nbits(const warm_header* h) noexcept { return hdr_get(h, HDR_ST_NBITS); }
inline uint32_t h_nbits(const warm_header* h) noexcept { return hdr_get(h, HDR_H_NBITS); }
inline uint32_t d_nbits(const warm_header* h) noexcept { return hdr_get(h, HDR_D_NBITS); }
inline uint32_t et_size(const warm_header* h) noexcept { return hdr_get(h, HDR_ET_SIZE); }
inline uint32_t s_size(const warm_header* h) noexcept { return hdr_get(h, HDR_S_SIZE); }
inline uint32_t st_size(const warm_header* h) noexcept { return hdr_get(h, HDR_ST_SIZE); }
inline uint32_t h_size(const warm_header* h) noexcept { return hdr_get(h, HDR_H_SIZE); }
inline uint32_t d_size(const warm_header* h) noexcept { return hdr_get(h, HDR_D_SIZE); }

// True exactly for the five accepted magics (compared as 8 bytes, NUL included).
bool verify_magic(const warm_header* h) noexcept;
// Writes "Tarnix6" and its NUL.
void _init_magic(warm_header* h) noexcept;
// Writes any magic (8 bytes).
void _set_magic(warm_header* h, const char magic[MAGIC_SZ]) noexcept;
bool _has_magic(const warm_header* h, const char magic[MAGIC_SZ]) noexcept;
// 4 for "Tarnix3", else 8.
uint32_t _get_plo_size(const warm_header* h) noexcept;
// False only for "TarLex1".
bool _has_full_metadata(const warm_header* h) noexcept;
// True for versions 3 to 5.
bool _has_reverse_lex(const warm_header* h) noexcept;
// 12, or 4 for "TarLex1".
inline uint32_t _metadata_entry_size(const warm_header* h) noexcept {
  return _has_full_metadata(h) ? TERM_METADATA_SZ : SHORT_METADATA_SZ;
}

// Section offsets (64-bit, from the header alone).
file_offset_t _offset_values(const warm_header* h) noexcept;
file_offset_t _offset_et_array(const warm_header* h) noexcept;
file_offset_t _offset_s_array(const warm_header* h) noexcept;
file_offset_t _offset_st_array(const warm_header* h) noexcept;
file_offset_t _offset_h_array(const warm_header* h) noexcept;
file_offset_t _offset_d_array(const warm_header* h) noexcept;
file_offset_t _offset_pl_offs(const warm_header* h) noexcept;
file_offset_t _offset_metadata(const warm_header* h) noexcept;
file_offset_t _offset_fclex(const warm_header* h) noexcept;
// The fixed part: everything before the lexicon (= _offset_fclex).
file_offset_t size_without_vardata(const warm_header* h) noexcept;
// What a descriptor-based reader maps: everything before the metadata.
inline file_offset_t _reading_map_size(const warm_header* h) noexcept { return _offset_metadata(h); }

struct warm_offsets {
  file_offset_t values, et, s, st, h, d, pl_offs, metadata, fclex;
};
void _get_warm_slice_offsets(const warm_header* h, warm_offsets* out) noexcept;
// Reads the 60 header bytes of fd at 0 (short read: -8) and computes the
// offsets. hdr_out may be null.
int st_warm_slice_offsets(int fd, warm_offsets* out, warm_header* hdr_out) noexcept;

// ---- File names -----------------------------------------------------------
// A fresh unique id: (microseconds since the epoch << 16) | rand() % 65535,
// the generator seeded once per process with the process id.
uint64_t st_unique_id() noexcept;
// "%s/%d-%d-%llu%s": prefix (a trailing '/' dropped), latest, earliest, a new
// unique id, suffix; into dst of PATH_BUF_SZ bytes. Returns dst.
char* st_warm_slice_filename_from_time(char* dst, const char* prefix, const char* suffix,
                                       int32_t earliest, int32_t latest) noexcept;
// The same; false when the name did not fit and was cut at the buffer's end
// (a file must never be made under such a name: it has lost its suffix).
bool _filename_from_time(char* dst, const char* prefix, const char* suffix, int32_t earliest,
                         int32_t latest) noexcept;

// ---- Fixed-size record arrays ------------------------------------------------
// Array writer: records appended to a buffer, written with one positional
// write per full buffer (only when a further record arrives) and at close.
struct aw {
  int fd;
  uint64_t offset;   // file offset of the next write
  uint8_t* buf;
  uint32_t count;    // records in buf
  uint32_t capacity; // records buf can hold
  uint64_t _obj_sz;
};
// 0 or -2 (buffer of obj_sz * capacity bytes).
int _aw_open(aw* w, int fd, uint64_t offset, uint64_t obj_sz, uint32_t capacity) noexcept;
// 0 or -9; asserts "osz == aw->_obj_sz".
int _aw_write(aw* w, const void* obj, uint64_t osz) noexcept;
// 0 or -9; frees the buffer and resets the writer whatever happens.
int _aw_close(aw* w) noexcept;

// Array reader over count records of _obj_sz bytes at offset.
struct ar_reader {
  uint8_t* buf;
  int fd;
  const uint8_t* mem;   // not null: the file is in memory here, fd unused
  uint64_t offset;      // file offset of record 0
  uint64_t _obj_sz;
  uint32_t cursor;      // next record number
  uint32_t count;       // records in the array
  uint32_t capacity;    // records the buffer holds
  uint32_t first;       // record number of the first buffered record
  uint32_t buffered;    // buffered records, 0 = empty
  uint32_t* timing;     // read-time histogram, or null
};
// 0 or -2. Cursor 0, buffer empty.
int _ar_open(ar_reader* r, int fd, uint64_t offset, uint64_t obj_sz, uint32_t count,
             uint32_t capacity, uint32_t* timing) noexcept;
// Record at the cursor (raw, big-endian) valid until the next call, or null
// with the code recorded in w (-1 past the end, -8 short read, -36). Asserts
// "objsz == reader->_obj_sz".
const uint8_t* _ar_get_loaded(ar_reader* r, uint64_t objsz, wrc* w) noexcept;
// The same: a record already buffered is taken here, without a call, as the
// merges take one or more per term.
inline const uint8_t* _ar_get(ar_reader* r, uint64_t objsz, wrc* w) noexcept {
  const uint32_t c = r->cursor;
  if (r->buffered == 0 || c < r->first || c - r->first >= r->buffered || c >= r->count || objsz != r->_obj_sz)
    return _ar_get_loaded(r, objsz, w);
  _set_rc(w, WS_SUCCESS);
  r->cursor = c + 1;
  return r->buf + static_cast<uint64_t>(c - r->first) * objsz;
}
const uint8_t* _ar_get_i(ar_reader* r, uint32_t i, uint64_t objsz, wrc* w) noexcept;
int _ar_close(ar_reader* r) noexcept;

}  // namespace tarnix
