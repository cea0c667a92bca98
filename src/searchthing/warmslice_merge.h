// N-way merge of up to 32 index files into one new "Tarnix6" index file:
// value tables (with the id mapping every later phase translates through),
// the five attribute columns, the lexicons (with one source bitmap per
// merged term), the posting lists and the term metadata. Every section of
// the target is written with positional writes at offsets computed from the
// target header, and the header is written last, so that a target whose
// merge failed never carries a valid header.
#pragma once

#include <cstdint>

#include "searchthing/fclex_io.h"
#include "searchthing/result.h"
#include "searchthing/warmslice_util.h"

namespace tarnix {

// Merges src_count (<= 32) open index files, in that order, into tgt_fd
// (empty, open for reading and writing). lex_tpb and page_size go to the
// lexicon writer (page_size 0: 1 MiB); verbose lets it print its lines;
// tstats non-zero keeps values with equal timestamp and address apart.
// Returns 0 or the negative code left in w (with the failing source's index
// where there is one). The descriptors are neither closed nor truncated; on
// failure the target's header region stays zero.
int st_warm_slice_merge_n(int verbose, int tgt_fd, const int* src_fds, uint32_t src_count, uint32_t lex_tpb,
                          uint64_t page_size, wrc* w, int tstats) noexcept;

// ---- Phases, in the order the driver runs them ----------------------------------

// Reads and checks the 60-byte header of every source: -8 "pread warm
// header failure" or -13 "invalid magic" with the source's index, -2. The
// array (src_count headers) is the caller's; free it with free().
warm_header* _read_src_headers(const int* src_fds, uint32_t src_count, wrc* w) noexcept;

// Merges the value tables into the target's (from offset 64) and sets the
// target's num_values. Returns the id mapping (one new id per source value,
// source-major; free it with free()), or null with the code in w.
uint32_t* _merge_values(const int* src_fds, const warm_header* src_hdrs, uint32_t src_count, int tgt_fd,
                        warm_header* tgt_hdr, wrc* w, int tstats) noexcept;

// Sets the target's five column widths and sizes and re-places every
// source's column elements at their new value ids. 0 or a code.
int _merge_array(const int* src_fds, const warm_header* src_hdrs, uint32_t src_count, const uint32_t* mapping,
                 int tgt_fd, warm_header* tgt_hdr, wrc* w) noexcept;

// Merges the lexicons into the target at _offset_fclex(tgt_hdr) (the
// target's num_values and column fields must be set; any target magic, so
// the lexicon-only merge uses it too), sets the target's num_terms, returns
// the bitmaps in *which_srcs_o (free with _bmap_free), each source's
// postings start (past a reverse lexicon for versions 3 to 5) and the
// target's. A merge without terms records -1. Sources whose header holds no
// terms take no part in the lexicon merge and never get a bit.
int _merge_lexicon(int verbose, const int* src_fds, const warm_header* src_hdrs, uint32_t src_count,
                   uint32_t lex_tpb, uint64_t page_size, int tgt_fd, warm_header* tgt_hdr, bmap_t** which_srcs_o,
                   uint64_t* postings_start, uint64_t* tgt_postings_start, wrc* w) noexcept;

// Merges the posting lists through the mapping, writes them from
// tgt_postings_start, the offset table at _offset_pl_offs(tgt_hdr), the
// big-endian per-term counts and the target's num_postings.
int _merge_all_postings_n(const int* src_fds, const warm_header* src_hdrs, const uint64_t* postings_start,
                          uint32_t src_count, const uint32_t* mapping, const bmap_t* which_srcs, uint32_t* counts,
                          uint32_t num_terms, int tgt_fd, uint64_t tgt_postings_start, warm_header* tgt_hdr,
                          wrc* w) noexcept;

// How a posting merge may use a second thread. With a split, the upper part
// of a large merge goes to a second thread; this one takes over the end of
// it when it reaches it first, and that thread takes over the end of this
// one's part when it is done first. The others hold a thread back so that
// each way the two can meet is reached: the second thread until the end of
// its part is taken over (from the part's start on), or until the part went
// through (the end then taken over all the same, and left unused); this
// thread until the second has taken over the end of its part (from its
// start on), or with that end left unused (this thread goes on through it).
enum : int {
  POSTINGS_ONE_PASS = 0,
  POSTINGS_SPLIT = 1,
  POSTINGS_SPLIT_TAKE_OVER = 2,
  POSTINGS_SPLIT_LATE_TAKE_OVER = 3,
  POSTINGS_SPLIT_HAND_BACK = 4,
  POSTINGS_SPLIT_LATE_HAND_BACK = 5,
};

// The same, in one of the modes above (always with the same results).
int _merge_all_postings_split(const int* src_fds, const warm_header* src_hdrs, const uint64_t* postings_start,
                              uint32_t src_count, const uint32_t* mapping, const bmap_t* which_srcs,
                              uint32_t* counts, uint32_t num_terms, int tgt_fd, uint64_t tgt_postings_start,
                              warm_header* tgt_hdr, wrc* w, int mode) noexcept;

// Where a split posting merge starts its upper part: a multiple of 1024
// merged terms whose lists hold about two thirds of the work (list bytes
// and source lists) and at most 18 MiB of list bytes, leaving 1024 terms or more
// on either side; 0 when there is no such term. cursor_o[i] and offset_o[i]
// receive source i's term number and list offset there, *upper_bytes_o
// the upper part's list bytes.
uint32_t _posting_split_term(const int* src_fds, const warm_header* src_hdrs, uint32_t src_count, const bmap_t* which,
                             uint32_t num_terms, uint32_t* cursor_o, uint64_t* offset_o,
                             uint64_t* upper_bytes_o) noexcept;

// Writes the target's term metadata at _offset_metadata(tgt_hdr): counts[t]
// (big-endian) or, when counts is null, the sum of the sources' counts;
// earliest and latest from the sources' own metadata. Full 12-byte records,
// or the count alone for a "TarLex1" target. Returns 0 or a code; a failed
// allocation of the readers is only recorded in w (and 0 returned).
int _merge_metadata(const int* src_fds, const warm_header* src_hdrs, uint32_t src_count, const bmap_t* which_srcs,
                    const uint32_t* counts, int tgt_fd, const warm_header* tgt_hdr, wrc* w) noexcept;

// The deleted-flag column's width, asserted to be 1.
uint32_t get_nbits_d(const warm_header* h) noexcept;

}  // namespace tarnix
