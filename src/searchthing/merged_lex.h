// Directory-wide lexicons: the lexicons of every index file of a bucket
// directory merged into one lexicon-only file, "merged_lexicon.lex", and a
// copy of it filtered by term frequency, "filtered_merged_lexicon.lex".
//
// A lexicon-only file ("TarLex1") has the 60-byte index file header with
// num_values 0, no values, columns, offset table or postings: its sections
// are the term metadata in the short form (one 32-bit count per term, at
// _offset_metadata) and the lexicon (at _offset_fclex). The counts of
// "merged_lexicon.lex" are big-endian like every other word; the counts of
// "filtered_merged_lexicon.lex" are in the writing machine's native byte
// order, on purpose (its consumers read them as plain integers).
//
// Both operations write under "<final>.tmp" first and reach the final name
// only by a hard link, so an existing output is never replaced and a reader
// never sees a half-written file under a final name. A failed run leaves its
// temporary behind; the next run erases it before it starts.
//
// Progress and refusal messages go to standard output and only when verbose
// is set; the warning about a temporary that cannot be erased always goes to
// standard error.
#pragma once

#include <cstdint>

#include "searchthing/result.h"

namespace tarnix {

struct tsidx;

inline constexpr char ST_MERGED_LEX_NAME[] = "merged_lexicon.lex";
inline constexpr char ST_FILTERED_LEX_NAME[] = "filtered_merged_lexicon.lex";
inline constexpr char ST_LEX_TMP_SUFFIX[] = ".tmp";
inline constexpr uint32_t ST_MERGE_LEX_MAX_FILES = 32;   // one bit per source in a term bitmap
inline constexpr int ST_LEX_MOVE_ATTEMPTS = 10;

// Opens dir (failure: -33), builds "merged_lexicon.lex" (filter == 0) or
// "filtered_merged_lexicon.lex" from it (filter != 0, keeping the terms
// whose count is at least min_count), closes dir, and replaces the contents
// of "<dir>/optimize.result" with
// "tarnix-optimize-lex complete with rc=%i wrc=[%i,%i]\n". Returns 0 or the
// negative code; -30 and -31 (nothing to merge) are returned as 0 while the
// status line still shows them.
int st_optimize_lex(const char* dir, int verbose, uint32_t tperb, uint64_t page_sz, uint32_t min_count,
                    int filter, wrc* w) noexcept;

// Merges the lexicons of every unlocked, non-empty "%d-%d-%llu.tsidx" file
// of the directory (listing order) into "merged_lexicon.lex". 0 or the code
// recorded in w: -30 fewer than 2 files, -32 more than 32 (nothing
// written), -28 the output exists, -4 a file could not be opened or
// created, -35 the move to the final name failed, or the merge's own code.
int st_tsidx_merge_lex_n(tsidx* t, int verbose, uint32_t tperb, uint64_t page_sz, wrc* w) noexcept;

// Writes "filtered_merged_lexicon.lex" from "merged_lexicon.lex". 0 or the
// code recorded in w: -28 the input is missing or the output exists, -4,
// -35, or the filter's own code. A min_count above every count is a broken
// promise of the caller (the lexicon writer asserts on zero terms).
int st_tsidx_filter_merged_lex(tsidx* t, int verbose, uint32_t tperb, uint64_t page_sz, uint32_t min_count,
                               wrc* w) noexcept;

// Writes a lexicon-only file to out_fd (empty, read-write) from n (<= 32)
// open index files: the union of their lexicons, each term with the sum of
// the sources' counts (big-endian). The sources must carry full metadata
// (index files, not lexicon-only files; asserted). Returns w->warm_rc: -8
// or -13 for a bad source header (with its index), -1 when the sources hold
// no terms, -9 short header write, or a lexicon or metadata code. The
// header is written last.
int st_warm_slice_merge_lex_n(int verbose, int out_fd, const int* fds, uint32_t n, uint32_t tperb,
                              uint64_t page_sz, wrc* w) noexcept;

// Writes to out_fd the terms of the open lexicon-only (or index) file in_fd
// whose count is at least min_count, with their counts in native byte
// order. Returns w->warm_rc. Asserts when no term is kept.
int st_warm_slice_filter_lex(int verbose, int out_fd, int in_fd, uint32_t tperb, uint64_t page_sz,
                             uint32_t min_count, wrc* w) noexcept;

// ---- Reading lexicon-only files ---------------------------------------------------
// Calls cb(term, length, count, cookie) for every term of the file at fd in
// order (a "TarLex1" file or an index file; the count is the first word of
// the term's metadata entry, read in native byte order when native_counts is
// set, else big-endian). A negative callback result stops the walk and is
// returned. Returns 0 or a code recorded in w: -8/-13 bad header, -7 the
// metadata runs past the end of the file, -12 the lexicon's term count
// differs from the header's, or a reader's code.
using lex_file_cb = int (*)(const char* term, uint32_t len, uint32_t count, void* cookie);
int st_lex_file_walk(int fd, int native_counts, lex_file_cb cb, void* cookie, wrc* w) noexcept;

// Number of terms of the file at fd whose count (big-endian) is at least
// min_count, in *kept: what st_warm_slice_filter_lex would keep. Reads the
// header and the metadata only. 0 or a code recorded in w (as above).
int st_lex_file_count_kept(int fd, uint32_t min_count, uint32_t* kept, wrc* w) noexcept;

}  // namespace tarnix
