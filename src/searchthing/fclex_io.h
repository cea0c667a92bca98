// Lexicon I/O: positional-read helpers (with an optional read-time
// histogram), the 32-bit source bitmap, the paged block writer that streams a
// lexicon section of any size, the sequential block reader with its cached
// block-offset reader, and the N-way lexicon merge.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "searchthing/fclex.h"
#include "searchthing/result.h"

namespace tarnix {

// ---- Positional reads ---------------------------------------------------------
// Read-time histogram: 7 counters; counter k counts reads that took below
// 8 * 8^k microseconds (k = 6: the rest).
inline constexpr int READ_HISTOGRAM_SZ = 7;

// One pread. With a histogram the read is timed and counted. With complain
// set, a count other than n prints
// "read failed fd=%u buf=%p sz=%lu off=%lu nr=%ld, errno=%i\n" to stderr.
ssize_t st_timed_pread_msg(int fd, void* buf, size_t n, uint64_t offset, uint32_t* histogram,
                           int complain) noexcept;
// st_timed_pread_msg, or with mem set a copy of mem[offset, offset + n):
// the readers of a writer's in-memory handle, which has no descriptor, read
// its buffer instead.
inline ssize_t st_read_at(int fd, const uint8_t* mem, void* buf, size_t n, uint64_t offset,
                          uint32_t* histogram) noexcept {
  if (mem == nullptr) return st_timed_pread_msg(fd, buf, n, offset, histogram, 1);
  std::memcpy(buf, mem + offset, n);
  return static_cast<ssize_t>(n);
}
// All n bytes at offset, continuing over EINTR and partial transfers. False
// after an error, a transfer of nothing, or (reading) the end of the file.
bool st_pread_full(int fd, void* buf, uint64_t n, uint64_t offset) noexcept;
bool st_pwrite_full(int fd, const void* buf, uint64_t n, uint64_t offset) noexcept;
// 1 when pread returned exactly n bytes; else prints
// "read failed[%s] fd=%u buf=%p sz=%lu off=%lu nr=%lu\n" with label, returns 0.
int _pread_verify(int fd, void* buf, size_t n, uint64_t offset, const char* label) noexcept;

// ---- Source bitmap --------------------------------------------------------------
// One word per merged term; bit i set when merge source i holds the term.
using bmap_t = uint32_t;
inline constexpr uint32_t _bmap_size_bits(const bmap_t&) noexcept { return 32; }
bool _bmap_is_set(const bmap_t* bmap, uint32_t bit) noexcept;  // asserts "bit < _bmap_size_bits(bmap)"
void _bmap_set(bmap_t* bmap, uint32_t bit) noexcept;
// Frees a which_srcs array allocated by st_fclex_merge_n (null accepted).
void _bmap_free(bmap_t* which_srcs) noexcept;

// ---- Block writer ------------------------------------------------------------------
struct lex_pages;  // ordered list of pages, private to the writer

// Caller-owned, value-initialised (lex_writer w{}) before _lex_writer_open.
struct lex_writer {
  uint32_t _cursor;             // distinct terms written
  uint32_t uncompressed_size;   // sum of their lengths
  uint64_t _blocks_off;         // block bytes produced
  uint64_t _page_sz;            // page size, 8-byte free count included
  uint32_t _bo_idx;             // block end offsets recorded
  char prev_term[TERM_BUF_SZ];  // last term written
  uint32_t prev_len;            // its length
  uint32_t expected_terms;
  uint32_t tperb;
  uint8_t* page;                // current page
  uint32_t* _block_end_offsets; // one slot per block of expected_terms
  lex_pages* pages;
};

// 0 or -2. page_sz 0 means 1048576, else it must be at least 9. With
// verbose prints "creating writer, num_blocks=%u, num_terms=%u, page_sz=%llu.\n".
int _lex_writer_open(int verbose, lex_writer* w, uint32_t tperb, uint64_t page_sz,
                     uint32_t expected_terms) noexcept;
// 0, -2 or -36. A term equal to the previous one is dropped silently.
int _lex_writer_put(lex_writer* w, const char* term, uint64_t length) noexcept;
// _lex_writer_put of a term that ascends past the previous one, with which
// it shares exactly its first lcp bytes (lcp < len): no comparison is made.
int _lex_writer_put_next(lex_writer* w, const char* term, uint32_t len, uint32_t lcp) noexcept;
// Writes the section at offset of fd; end_offset = offset just past it.
// 0, -9 or -36. Always frees the writer's memory.
int _lex_writer_close(int verbose, lex_writer* w, int fd, uint64_t offset,
                      uint64_t* end_offset) noexcept;
// Frees the writer's memory without writing (failed merges).
void _lex_writer_discard(lex_writer* w) noexcept;

// ---- Block-offset reader and block reader -----------------------------------------
inline constexpr uint32_t BOR_CACHE_ENTRIES = 1024;

struct bo_reader {
  int _fd;
  uint64_t offset;                   // section offset
  uint32_t _nterms;
  uint32_t tperb;
  uint8_t cache[BOR_CACHE_ENTRIES * 4];  // block end offsets as stored
  uint32_t first;                    // first block whose start the cache holds
  uint32_t count;                    // cached entries
};

struct lex_reader {
  bo_reader _bor;
  uint32_t uncompressed_size;
  uint8_t* buf;                      // min(tperb, nterms) * 2052 bytes
  uint32_t first_block;              // first cached block, (uint32_t)-1 when none
  uint32_t cached_blocks;
  uint32_t capacity;                 // bytes of buf
  uint32_t _c_valid_bytes;
  int64_t _c_off;                    // file offset of buf[0]
};

// 0, -8 (header read), -39 (term count or tperb 0), -2.
int _lex_reader_open(lex_reader* r, int fd, uint64_t offset) noexcept;
// Pointer to block bid inside the buffer, or null with the code in w.
const uint8_t* _lex_reader_get(lex_reader* r, uint32_t bid, wrc* w) noexcept;
// 0 or -8; size = the section's total size.
int _lex_reader_get_size(lex_reader* r, uint64_t* size) noexcept;
// Size of block bid; 0 or -8.
int _get_block_size(lex_reader* r, uint32_t bid, uint64_t* size) noexcept;
void _lex_reader_close(lex_reader* r) noexcept;
// Absolute file offset of the start of block bid (bid = B: end of blocks).
int _bor_get(bo_reader* r, uint32_t bid, uint64_t* off) noexcept;
void _bor_close(bo_reader* r) noexcept;

// ---- N-way lexicon merge ------------------------------------------------------------
// Merge cursor, one per source.
struct lex_merge_cxt {
  lex_reader _reader;
  uint32_t _cursor;           // source term currently loaded
  const uint8_t* block;       // block of the current term, null before the first load
  uint64_t _block_off;        // decoding position in the block
  char _cur_term[TERM_BUF_SZ];
  uint32_t _cur_len;          // length of _cur_term
  uint32_t _cur_prefix;       // leading bytes _cur_term took from the term before it
  uint64_t _block_sz;         // size of the current block (bounds decoding)
};
int _reload_term(lex_merge_cxt* c) noexcept;
// 0, a code of _reload_term, or all ones when already exhausted.
uint32_t _increment_cursor(lex_merge_cxt* c) noexcept;
// Live cursors; smallest and second are indexes or all ones.
uint32_t _find_smallest_term(lex_merge_cxt* cxts, uint32_t n, uint32_t* smallest,
                             uint32_t* second) noexcept;

// Merges the lexicon sections at offsets[i] of fds[i] (src_sz <= 32) into
// writer (opened here with tperb, page_sz). which_srcs_o receives an array
// (free with _bmap_free) with one bitmap per merged term; src_end_offsets[i]
// the end of source i's section. Returns the code recorded in w.
int st_fclex_merge_n(int verbose, const int* fds, const uint64_t* offsets, uint32_t src_sz,
                     uint32_t tperb, uint64_t page_sz, lex_writer* writer, uint32_t* merged_terms,
                     bmap_t** which_srcs_o, uint64_t* src_end_offsets, wrc* w) noexcept;
// Merges of fewer source terms than this run in one pass.
inline constexpr uint64_t FCLEX_MIN_SPLIT_TERMS = 65536;

// Work that follows the upper half of a split merge on its own thread, once
// that half has merged without a fault and before the halves are joined:
// fn gets the half's bitmaps (numbered from its first term), its number of
// terms and, for each source, the number of its first term in the half.
struct lex_upper_hook {
  void (*fn)(void* cookie, const bmap_t* which, uint32_t terms, const uint32_t* split) noexcept;
  void* cookie;
};

// The same; a merge of min_split_terms source terms or more is split in
// two halves at a pivot term, merged at once on two threads. With a hook,
// its work follows the upper half; *lower_terms_o (when not null) receives
// the number of merged terms below the pivot when the merge was split and
// both halves went through, else 0. With header_terms, a source whose
// lexicon holds another number of terms than header_terms[i] fails the
// merge with -12.
int _fclex_merge_n_split(int verbose, const int* fds, const uint64_t* offsets, uint32_t src_sz, uint32_t tperb,
                         uint64_t page_sz, lex_writer* writer, uint32_t* merged_terms, bmap_t** which_srcs_o,
                         uint64_t* src_end_offsets, wrc* w, uint64_t min_split_terms,
                         const lex_upper_hook* hook = nullptr, uint32_t* lower_terms_o = nullptr,
                         const uint32_t* header_terms = nullptr) noexcept;

}  // namespace tarnix
