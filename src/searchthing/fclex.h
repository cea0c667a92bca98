// Front-coded lexicon section ("fclex"): the term dictionary inside every
// index file and lexicon-only file. Maps a term to its number (position in
// ascending unsigned byte order) and walks the terms in order.
//
// Section (all words big-endian unsigned 32-bit, no magic, byte aligned):
//   0   term count (>= 1)
//   4   tperb, terms per block (>= 1)
//   8   uncompressed size (informative only)
//   12  B block end offsets, B = ceil(count / tperb), relative to the blocks
//       area, strictly increasing
//   12+4B  the blocks, back to back
// Within a block, with j = position in block, L = term length, P = common
// prefix with the previous term:
//   j == 0            VBE(L) term bytes
//   0 < j < tperb-1   VBE(P) VBE(L-P) suffix
//   j == tperb-1      VBE(P) suffix (its length is the rest of the block)
// Terms are NUL-free, non-empty, strictly ascending, at most 2047 bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "searchthing/result.h"

namespace tarnix {

inline constexpr uint32_t FCLEX_HEADER_SZ = 12;
inline constexpr uint32_t MAX_TERM_LEN = 2047;
inline constexpr uint32_t TERM_BUF_SZ = 2048;
inline constexpr uint32_t NOT_FOUND = 0xFFFFFFFFu;

// Lexicon handle, memory mode (over a section owned by the caller) or
// descriptor mode (reads on demand from a file).
struct fclex {
  uint8_t* body;            // memory: the section; fd: private 16-byte header copy
  uint8_t* block_offsets;   // memory: inside body; fd: null
  uint8_t* blocks;          // memory: inside body; fd: null
  int fd;                   // fd mode: the file; memory: -1
  size_t fclex_offset;      // fd mode: section offset; memory: (size_t)-1
  uint8_t* block_cache;     // fd mode: one block; memory: null
  size_t block_cache_size;  // fd mode: min(tperb, count) * 2052; memory: 0
};

// True in descriptor mode, false in memory mode; asserts that the fields
// agree with the mode.
bool _check_fd_support(const fclex* h) noexcept;

// Longest common prefix of two NUL-terminated strings; 0 when either is null.
uint32_t _lcp(const char* a, const char* b) noexcept;

// Decodes the term at position j of a block of block_sz bytes, starting at
// *off, into term (TERM_BUF_SZ bytes). For j > 0, term and *len hold the
// previous term of the block on entry. Never reads outside the block.
// *prefix (when not null) receives the bytes taken from the previous term.
// 0, or -12 when the bytes are malformed (bad VBE, a length running past the
// block, an empty or over-long term, a NUL byte, a prefix longer than the
// previous term). Advances *off past the term.
int _fclex_decode_term(const uint8_t* block, uint64_t block_sz, uint64_t* off, uint32_t j,
                       uint32_t tperb, char* term, uint32_t* len, uint32_t* prefix = nullptr) noexcept;

// Blocks for terms at tperb per block; asserts "terms > 0", "tperb > 0".
uint32_t _how_many_blocks_helper(uint32_t terms, uint32_t tperb) noexcept;
uint32_t _how_many_blocks(const fclex* h) noexcept;
uint32_t st_fclex_how_many_blocks(const fclex* h) noexcept;
// Largest block a reader must hold: tperb * 2052.
inline constexpr uint64_t _max_block_size(uint32_t tperb) noexcept {
  return static_cast<uint64_t>(tperb) * 2052u;
}

// Builds a section into body (body_size bytes, sized by the caller) from
// count strictly ascending NUL-terminated terms. Null when the terms do not
// ascend, when tperb, count or uncompressed_size is 0, or on allocation
// failure. Returns a memory-mode handle over body.
fclex* st_fclex_create(uint8_t* body, size_t body_size, const char* const* keywords,
                       uint32_t count, uint32_t tperb, uint32_t uncompressed_size) noexcept;
// Memory-mode handle over a section at body; null if tperb or count is 0.
fclex* st_fclex_open(uint8_t* body) noexcept;
// Descriptor-mode handle over the section at offset of fd; null if the
// 16-byte read fails, tperb or count is 0, or an allocation fails.
fclex* st_fclex_open_fd(int fd, uint64_t offset) noexcept;
// Copies the section to body, rebinds the handle there; returns the new blocks.
uint8_t* st_fclex_relocate(fclex* h, uint8_t* body) noexcept;
void st_fclex_close(fclex* h) noexcept;

uint32_t st_fclex_terms(const fclex* h) noexcept;
uint32_t st_fclex_blocksize(const fclex* h) noexcept;
uint32_t st_fclex_uncompressed_size(const fclex* h) noexcept;
// Total section size; 0 when a read fails or tperb is 0.
uint64_t st_fclex_size(const fclex* h) noexcept;
// Size of the section at offset of fd without a handle; 0 on failure.
uint64_t st_fclex_size_fd(int fd, uint64_t offset) noexcept;

// Block whose first term is the greatest not above key; -1 after a failed
// read (recorded in w: -8, or -12 for a malformed VBE).
int64_t _find_block(fclex* h, const char* key, wrc* w, uint32_t* histogram) noexcept;
// Term number, or NOT_FOUND (absent, null arguments, failed read);
// 0xFFFFFFF4 (-12) for a malformed VBE.
uint32_t st_fclex_get(fclex* h, const char* term, uint32_t* histogram) noexcept;

// Calls cb(term number, term, length, cookie) for each term beginning with
// prefix (all when null), in order. Returns the sum of the results, or
// all ones at once when a callback returns all ones.
using fclex_apply_cb = uint32_t (*)(uint32_t term_id, const char* term, uint32_t len, void* cookie);
uint32_t st_fclex_apply(fclex* h, const char* prefix, fclex_apply_cb cb, void* cookie,
                        uint32_t* histogram) noexcept;
// Copies matching terms into records of 2052 bytes (2047 bytes + NUL, then
// the unsigned 32-bit term number, host order); returns how many stored.
inline constexpr size_t FCLEX_ENUM_RECORD_SZ = 2052;
uint32_t st_fclex_enum(fclex* h, const char* prefix, uint8_t* array, uint32_t capacity) noexcept;

}  // namespace tarnix
