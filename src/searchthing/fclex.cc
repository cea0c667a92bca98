// Lexicon section builder (in memory), the lexicon handle over a section in
// memory or behind a file descriptor, and its lookups. The byte layout is
// described in fclex.h.
//
// Divisions: helpers; term decoding; building (st_fclex_create); opening,
// closing and shape queries; block access; lookups (_find_block,
// st_fclex_get); walks (st_fclex_apply, st_fclex_enum).
#include "searchthing/fclex.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "searchthing/check.h"
#include "searchthing/codes.h"
#include "searchthing/fclex_io.h"

namespace tarnix {

namespace {

struct free_deleter {
  void operator()(void* p) const noexcept { free(p); }
};
using byte_buf = std::unique_ptr<uint8_t, free_deleter>;

// A block cache larger than this is never legitimate: the block reader keeps
// its capacity in 32 bits, and a header claiming more is corrupt.
constexpr uint64_t MAX_BLOCK_CACHE_SZ = 0xFFFFFFFFull;

// Size of the block cache for a section: a block never holds more than
// min(tperb, count) terms, so a corrupt, huge tperb cannot make us allocate
// more than the terms could ever fill.
uint64_t block_cache_bytes(uint32_t count, uint32_t tperb) noexcept {
  return _max_block_size(tperb < count ? tperb : count);
}

uint32_t hdr_count(const fclex* h) noexcept { return load_be32(h->body); }
uint32_t hdr_tperb(const fclex* h) noexcept { return load_be32(h->body + 4); }

// Compares a key with a decoded term. A stored term is at most 2047 bytes,
// so a longer key is compared on its first 2047 bytes against a term of
// exactly that length: long keys find the truncated term they were stored as.
int compare_key(const char* key, size_t key_len, const char* term, uint32_t term_len) noexcept {
  if (term_len == MAX_TERM_LEN && key_len > MAX_TERM_LEN) return strncmp(key, term, MAX_TERM_LEN);
  return strcmp(key, term);
}

// Terms stored in block b.
uint32_t terms_in_block(uint32_t count, uint32_t tperb, uint32_t b) noexcept {
  uint64_t first = static_cast<uint64_t>(b) * tperb;
  uint64_t left = count - first;
  return static_cast<uint32_t>(left < tperb ? left : tperb);
}

}  // namespace

// ---- Helpers --------------------------------------------------------------------

uint32_t _how_many_blocks_helper(uint32_t terms, uint32_t tperb) noexcept {
  ST_ASSERT_TEXT(terms > 0, "terms > 0");
  ST_ASSERT_TEXT(tperb > 0, "tperb > 0");
  // Counted in 64 bits: a damaged count near 2^32 would wrap to a few blocks
  // in 32 and make the section look smaller than its header says.
  return static_cast<uint32_t>((static_cast<uint64_t>(terms) + tperb - 1) / tperb);
}

uint32_t _how_many_blocks(const fclex* h) noexcept {
  return _how_many_blocks_helper(hdr_count(h), hdr_tperb(h));
}

uint32_t st_fclex_how_many_blocks(const fclex* h) noexcept { return _how_many_blocks(h); }

uint32_t _lcp(const char* a, const char* b) noexcept {
  if (a == nullptr || b == nullptr) return 0;
  uint32_t i = 0;
  while (a[i] != '\0' && a[i] == b[i]) ++i;
  return i;
}

bool _check_fd_support(const fclex* h) noexcept {
  if (h->fd < 0) {
    ST_ASSERT_TEXT(h->fclex_offset == static_cast<size_t>(-1), "handle->fclex_offset == (size_t)-1");
    ST_ASSERT_TEXT(h->block_cache == nullptr, "handle->block_cache == 0");
    ST_ASSERT_TEXT(h->block_cache_size == 0, "handle->block_cache_size == 0");
    return false;
  }
  ST_ASSERT_TEXT(h->block_offsets == nullptr, "handle->block_offsets == ((void *)0)");
  ST_ASSERT_TEXT(h->blocks == nullptr, "handle->blocks == ((void *)0)");
  ST_ASSERT_TEXT(h->fclex_offset != static_cast<size_t>(-1), "handle->fclex_offset != (size_t)-1");
  return true;
}

// ---- Term decoding ----------------------------------------------------------------
// Shared by the handle's lookups and the merge cursor. Every length is checked
// against the block's end before a byte is copied, so a corrupt block yields
// -12 instead of a read outside it.

int _fclex_decode_term(const uint8_t* block, uint64_t block_sz, uint64_t* off, uint32_t j,
                       uint32_t tperb, char* term, uint32_t* len, uint32_t* prefix_out) noexcept {
  const uint8_t* end = block + block_sz;
  uint64_t pos = *off;
  if (pos > block_sz) return WS_EDATA;
  uint32_t prefix = 0;
  uint64_t suffix = 0;
  if (j == 0) {
    uint32_t n = vbe_get(block + pos, end, &prefix);
    if (n == 0) return WS_EDATA;
    pos += n;
    suffix = prefix;  // the whole term
    prefix = 0;
  } else {
    uint32_t n = vbe_get(block + pos, end, &prefix);
    if (n == 0 || prefix > *len) return WS_EDATA;
    pos += n;
    if (j == tperb - 1) {
      // The last term of a full block carries no length: it runs to the end.
      suffix = block_sz - pos;
    } else {
      uint32_t s = 0;
      n = vbe_get(block + pos, end, &s);
      if (n == 0) return WS_EDATA;
      pos += n;
      suffix = s;
    }
  }
  if (suffix > block_sz - pos) return WS_EDATA;
  uint64_t total = prefix + suffix;
  if (total == 0 || total > MAX_TERM_LEN) return WS_EDATA;
  if (suffix <= 16 && block_sz - pos >= 16 && prefix + 16 <= TERM_BUF_SZ) {
    // Most suffixes are a few bytes: sixteen are copied at once (the term
    // buffer has room past the term, which ends in its NUL below), and only
    // the suffix's own bytes are checked for a NUL.
    uint64_t lo;
    uint64_t hi;
    memcpy(&lo, block + pos, 8);
    memcpy(&hi, block + pos + 8, 8);
    constexpr uint64_t ONES = 0x0101010101010101ull;
    constexpr uint64_t HIGHS = 0x8080808080808080ull;
    // Flags every zero byte (and possibly bytes after one, never before).
    const uint64_t zlo = (lo - ONES) & ~lo & HIGHS;
    const uint64_t zhi = (hi - ONES) & ~hi & HIGHS;
    const uint64_t mlo = suffix >= 8 ? ~uint64_t{0} : (uint64_t{1} << (8 * suffix)) - 1;
    const uint64_t mhi = suffix <= 8 ? 0 : suffix == 16 ? ~uint64_t{0} : (uint64_t{1} << (8 * (suffix - 8))) - 1;
    if (((zlo & mlo) | (zhi & mhi)) != 0) return WS_EDATA;
    memcpy(term + prefix, &lo, 8);
    memcpy(term + prefix + 8, &hi, 8);
  } else if (suffix <= 16) {
    for (uint64_t k = 0; k < suffix; ++k) {
      const uint8_t c = block[pos + k];
      if (c == 0) return WS_EDATA;
      term[prefix + k] = static_cast<char>(c);
    }
  } else {
    if (memchr(block + pos, '\0', suffix) != nullptr) return WS_EDATA;
    memcpy(term + prefix, block + pos, suffix);
  }
  term[total] = '\0';
  *len = static_cast<uint32_t>(total);
  *off = pos + suffix;
  if (prefix_out != nullptr) *prefix_out = prefix;
  return 0;
}

// ---- Building ----------------------------------------------------------------------

namespace {

// State of the in-memory builder: j = position in the current block, k =
// bytes written to the blocks area, l = blocks begun.
struct lex_build {
  uint8_t* offsets;
  uint8_t* blocks;
  uint64_t room;  // bytes of the blocks area the caller's buffer provides
  uint32_t tperb;
  uint32_t j;
  uint64_t k;
  uint32_t l;
};

void put_bytes(lex_build* b, const void* src, uint64_t n) noexcept {
  // The caller sized the buffer from the terms; running past it is a bug of
  // the caller, caught here before a byte lands outside the buffer.
  ST_ASSERT_TEXT(b->k + n <= b->room, "k < body_size");
  memcpy(b->blocks + b->k, src, n);
  b->k += n;
}

void put_vbe(lex_build* b, uint32_t v) noexcept {
  uint8_t tmp[5];
  put_bytes(b, tmp, st_encode_to_vbe(tmp, v));
}

void _update_lex(lex_build* b, const char* term, const char* prev) noexcept {
  size_t len = strlen(term);
  ST_ASSERT(len <= 0xFFFFFFFFu);
  auto length = static_cast<uint32_t>(len);
  if (b->j == 0) {
    if (b->l > 0) {
      ST_ASSERT(b->k <= 0xFFFFFFFFu);
      store_be32(b->offsets + 4ull * (b->l - 1), static_cast<uint32_t>(b->k));
    }
    b->l += 1;
    put_vbe(b, length);
    put_bytes(b, term, length);
    b->j = 1;
    return;
  }
  uint32_t p = _lcp(prev, term);
  if (b->j < b->tperb - 1) {
    put_vbe(b, p);
    put_vbe(b, length - p);
    put_bytes(b, term + p, length - p);
    b->j += 1;
    return;
  }
  ST_ASSERT_TEXT(b->j == b->tperb - 1, "*j == tperb - 1");
  put_vbe(b, p);
  put_bytes(b, term + p, length - p);
  b->j = 0;
}

void _populate_handle(fclex* h, uint8_t* body) noexcept {
  h->body = body;
  h->block_offsets = body + FCLEX_HEADER_SZ;
  h->blocks = body + FCLEX_HEADER_SZ + 4ull * _how_many_blocks(h);
  h->fd = -1;
  h->fclex_offset = static_cast<size_t>(-1);
  h->block_cache = nullptr;
  h->block_cache_size = 0;
}

fclex* new_handle() noexcept { return new (std::nothrow) fclex{}; }

}  // namespace

fclex* st_fclex_create(uint8_t* body, size_t body_size, const char* const* keywords,
                       uint32_t count, uint32_t tperb, uint32_t uncompressed_size) noexcept {
  for (uint32_t i = 1; i < count; ++i) {
    if (strcmp(keywords[i - 1], keywords[i]) >= 0) return nullptr;
  }
  if (tperb == 0 || count == 0 || uncompressed_size == 0) return nullptr;
  std::unique_ptr<fclex> h(new_handle());
  if (!h) return nullptr;
  uint32_t nblocks = _how_many_blocks_helper(count, tperb);
  uint64_t fixed = FCLEX_HEADER_SZ + 4ull * nblocks;
  ST_ASSERT_TEXT(fixed < body_size, "k < body_size");
  store_be32(body, count);
  store_be32(body + 4, tperb);
  store_be32(body + 8, uncompressed_size);
  _populate_handle(h.get(), body);

  lex_build b{h->block_offsets, h->blocks, body_size - fixed, tperb, 0, 0, 0};
  const char* prev = nullptr;
  for (uint32_t i = 0; i < count; ++i) {
    _update_lex(&b, keywords[i], prev);
    prev = keywords[i];
  }
  ST_ASSERT(b.k <= 0xFFFFFFFFu);
  store_be32(h->block_offsets + 4ull * (nblocks - 1), static_cast<uint32_t>(b.k));
  ST_ASSERT_TEXT(b.k < body_size, "k < body_size");
  return h.release();
}

// ---- Opening, closing, shape queries --------------------------------------------

fclex* st_fclex_open(uint8_t* body) noexcept {
  if (load_be32(body) == 0 || load_be32(body + 4) == 0) return nullptr;
  fclex* h = new_handle();
  if (h == nullptr) return nullptr;
  _populate_handle(h, body);
  return h;
}

fclex* st_fclex_open_fd(int fd, uint64_t offset) noexcept {
  byte_buf hdr(static_cast<uint8_t*>(calloc(1, 16)));
  if (!hdr) return nullptr;
  if (!_pread_verify(fd, hdr.get(), 16, offset, "reading fclex body")) return nullptr;
  uint32_t count = load_be32(hdr.get());
  uint32_t tperb = load_be32(hdr.get() + 4);
  if (count == 0 || tperb == 0) return nullptr;
  // The header is not trusted: the section it describes must lie inside the
  // file (as a read of its last block would find), and no block can be
  // larger than the blocks area, so the cache never grows with a claimed
  // count that the file cannot hold. It still takes a whole first term.
  uint64_t nblocks = _how_many_blocks_helper(count, tperb);
  uint8_t last[4];
  if (!_pread_verify(fd, last, 4, offset + FCLEX_HEADER_SZ + 4 * nblocks - 4, "error reading last block offset"))
    return nullptr;
  uint64_t blocks_sz = load_be32(last);
  struct stat st {};
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) &&
      offset + FCLEX_HEADER_SZ + 4 * nblocks + blocks_sz > static_cast<uint64_t>(st.st_size))
    return nullptr;
  uint64_t cache_sz = block_cache_bytes(count, tperb);
  if (cache_sz > blocks_sz) cache_sz = blocks_sz < _max_block_size(1) ? _max_block_size(1) : blocks_sz;
  if (cache_sz > MAX_BLOCK_CACHE_SZ) return nullptr;
  byte_buf cache(static_cast<uint8_t*>(calloc(1, cache_sz)));
  if (!cache) return nullptr;
  fclex* h = new_handle();
  if (h == nullptr) return nullptr;
  h->body = hdr.release();
  h->block_offsets = nullptr;
  h->blocks = nullptr;
  h->fd = fd;
  h->fclex_offset = offset;
  h->block_cache = cache.release();
  h->block_cache_size = cache_sz;
  return h;
}

uint8_t* st_fclex_relocate(fclex* h, uint8_t* body) noexcept {
  ST_ASSERT(!_check_fd_support(h));
  memmove(body, h->body, st_fclex_size(h));
  _populate_handle(h, body);
  return h->blocks;
}

void st_fclex_close(fclex* h) noexcept {
  if (h == nullptr) return;
  if (_check_fd_support(h)) {
    free(h->body);
    free(h->block_cache);
  }
  h->body = nullptr;
  h->block_offsets = nullptr;
  h->blocks = nullptr;
  h->block_cache = nullptr;
  delete h;
}

uint32_t st_fclex_terms(const fclex* h) noexcept { return hdr_count(h); }

uint32_t st_fclex_blocksize(const fclex* h) noexcept {
  ST_ASSERT_TEXT(h->body != nullptr, "handle->body != ((void *)0)");
  return hdr_tperb(h);
}

uint32_t st_fclex_uncompressed_size(const fclex* h) noexcept { return load_be32(h->body + 8); }

uint64_t st_fclex_size(const fclex* h) noexcept {
  uint32_t count = hdr_count(h);
  uint32_t tperb = hdr_tperb(h);
  if (tperb == 0 || count == 0) return 0;
  uint32_t nblocks = _how_many_blocks_helper(count, tperb);
  uint64_t fixed = FCLEX_HEADER_SZ + 4ull * nblocks;
  if (!_check_fd_support(h)) return fixed + load_be32(h->block_offsets + 4ull * (nblocks - 1));
  uint8_t last[4];
  if (!_pread_verify(h->fd, last, 4, h->fclex_offset + fixed - 4, "error reading last block offset"))
    return 0;
  return fixed + load_be32(last);
}

uint64_t st_fclex_size_fd(int fd, uint64_t offset) noexcept {
  uint8_t hdr[16];
  if (!_pread_verify(fd, hdr, 16, offset, "reading body for st_fclex_size_fd")) return 0;
  uint32_t count = load_be32(hdr);
  uint32_t tperb = load_be32(hdr + 4);
  // A count of 0 is as unusable as a tperb of 0: neither has a block count.
  if (tperb == 0 || count == 0) return 0;
  uint64_t nblocks = _how_many_blocks_helper(count, tperb);
  uint8_t last[4];
  if (!_pread_verify(fd, last, 4, offset + 4 * (nblocks + 3) - 4, "error reading last block offset"))
    return 0;
  return load_be32(last) + 4 * (nblocks + 3);
}

// ---- Block access ------------------------------------------------------------------

namespace {

// Block end offset idx in descriptor mode; -1 after a short read.
int64_t _get_block_offset_fd(fclex* h, uint32_t idx, uint32_t* histogram) noexcept {
  ST_ASSERT_TEXT(idx < _how_many_blocks(h), "idx < _how_many_blocks(handle)");
  uint8_t word[4];
  ssize_t n = st_timed_pread_msg(h->fd, word, 4, h->fclex_offset + FCLEX_HEADER_SZ + 4ull * idx,
                                 histogram, 0);
  if (n != 4) {
    fprintf(stderr, "read failed in get_block_offset_fd\n");
    return -1;
  }
  return load_be32(word);
}

// Start of block b within the blocks area (0 for block 0); -1 on a failed read.
int64_t block_start(fclex* h, uint32_t b, uint32_t* histogram) noexcept {
  if (b == 0) return 0;
  if (h->fd < 0) return load_be32(h->block_offsets + 4ull * (b - 1));
  return _get_block_offset_fd(h, b - 1, histogram);
}

// Makes block b addressable: *data and *size describe its bytes (inside the
// section in memory mode, in block_cache in descriptor mode). 0, -8 or -12.
int load_block(fclex* h, uint32_t b, uint32_t* histogram, const uint8_t** data,
               uint64_t* size) noexcept {
  uint32_t nblocks = _how_many_blocks(h);
  int64_t start = block_start(h, b, histogram);
  if (start < 0) return WS_EREAD;
  if (!_check_fd_support(h)) {
    uint64_t end = load_be32(h->block_offsets + 4ull * b);
    uint64_t last = load_be32(h->block_offsets + 4ull * (nblocks - 1));
    if (end <= static_cast<uint64_t>(start) || end > last) return WS_EDATA;
    *data = h->blocks + start;
    *size = end - static_cast<uint64_t>(start);
    return 0;
  }
  int64_t end = _get_block_offset_fd(h, b, histogram);
  if (end < 0) return WS_EREAD;
  if (end <= start || static_cast<uint64_t>(end - start) > h->block_cache_size) return WS_EDATA;
  uint64_t n = static_cast<uint64_t>(end - start);
  uint64_t at = h->fclex_offset + FCLEX_HEADER_SZ + 4ull * nblocks + static_cast<uint64_t>(start);
  if (st_timed_pread_msg(h->fd, h->block_cache, n, at, histogram, 0) != static_cast<ssize_t>(n)) {
    fprintf(stderr, "error preading block from offsets\n");
    return WS_EREAD;
  }
  *data = h->block_cache;
  *size = n;
  return 0;
}

// Reads the first term of block b into term. 0, -8 or -12 (recorded in w).
int first_term(fclex* h, uint32_t b, wrc* w, uint32_t* histogram, char* term,
               uint32_t* len) noexcept {
  const uint8_t* data = nullptr;
  uint64_t size = 0;
  int64_t start = block_start(h, b, histogram);
  if (start < 0) return _set_rc(w, WS_EREAD);
  if (!_check_fd_support(h)) {
    uint32_t nblocks = _how_many_blocks(h);
    uint64_t last = load_be32(h->block_offsets + 4ull * (nblocks - 1));
    uint64_t end = load_be32(h->block_offsets + 4ull * b);
    if (end <= static_cast<uint64_t>(start) || end > last) return _set_rc(w, WS_EDATA);
    data = h->blocks + start;
    size = end - static_cast<uint64_t>(start);
  } else {
    // One read of up to a whole first term (VBE(L) and 2047 bytes); a short
    // read near the end of the file is fine as long as the term is complete.
    uint64_t at = h->fclex_offset + FCLEX_HEADER_SZ + 4ull * _how_many_blocks(h) +
                  static_cast<uint64_t>(start);
    ssize_t n = st_timed_pread_msg(h->fd, h->block_cache, 2050, at, histogram, 0);
    if (n <= 0) return _set_rc(w, WS_EREAD);
    data = h->block_cache;
    size = static_cast<uint64_t>(n);
  }
  uint64_t off = 0;
  if (_fclex_decode_term(data, size, &off, 0, hdr_tperb(h), term, len) != 0)
    return _set_rc(w, WS_EDATA);
  return 0;
}

}  // namespace

// ---- Lookups -------------------------------------------------------------------------

int64_t _find_block(fclex* h, const char* key, wrc* w, uint32_t* histogram) noexcept {
  wrc local{};
  if (w == nullptr) w = &local;
  uint32_t nblocks = _how_many_blocks(h);
  if (nblocks == 1) return 0;
  size_t key_len = strlen(key);
  char term[TERM_BUF_SZ];
  uint32_t len = 0;
  uint32_t lo = 0;
  uint32_t hi = nblocks - 1;
  for (;;) {
    uint32_t mid = hi == lo + 1 ? hi : lo + (hi - lo) / 2;
    if (first_term(h, mid, w, histogram, term, &len) != 0) return -1;
    int cmp = compare_key(key, key_len, term, len);
    if (hi == lo + 1) return cmp < 0 ? lo : hi;
    if (cmp == 0) return mid;
    if (cmp < 0) {
      hi = mid;
    } else {
      lo = mid;
    }
    if (hi == lo) return hi;
  }
}

namespace {

// Walks the terms of block b in order, calling f(term number, term, length);
// f returns false to stop. 0, -8 or -12.
template <class F>
int scan_block(fclex* h, uint32_t b, uint32_t* histogram, F&& f) noexcept {
  const uint8_t* data = nullptr;
  uint64_t size = 0;
  int rc = load_block(h, b, histogram, &data, &size);
  if (rc != 0) return rc;
  uint32_t tperb = hdr_tperb(h);
  uint32_t n = terms_in_block(hdr_count(h), tperb, b);
  char term[TERM_BUF_SZ];
  term[0] = '\0';
  uint32_t len = 0;
  uint64_t off = 0;
  for (uint32_t j = 0; j < n; ++j) {
    rc = _fclex_decode_term(data, size, &off, j, tperb, term, &len);
    if (rc != 0) return rc;
    if (!f(static_cast<uint32_t>(static_cast<uint64_t>(b) * tperb + j), term, len)) return 1;
  }
  return 0;
}

uint32_t _find_word(fclex* h, const char* key, uint32_t* histogram) noexcept {
  int64_t b = 0;
  if (key[0] != '\0') {
    wrc w{};
    b = _find_block(h, key, &w, histogram);
    if (b < 0) return w.warm_rc == WS_EDATA ? static_cast<uint32_t>(WS_EDATA) : NOT_FOUND;
  }
  size_t key_len = strlen(key);
  uint32_t found = NOT_FOUND;
  // Every term of the block is compared; the block is short, and a match can
  // only be in it.
  int rc = scan_block(h, static_cast<uint32_t>(b), histogram,
                      [&](uint32_t id, const char* term, uint32_t len) {
                        if (compare_key(key, key_len, term, len) != 0) return true;
                        found = id;
                        return false;
                      });
  if (rc == WS_EDATA) return static_cast<uint32_t>(WS_EDATA);
  if (rc < 0) return NOT_FOUND;
  return found;
}

}  // namespace

uint32_t st_fclex_get(fclex* h, const char* term, uint32_t* histogram) noexcept {
  if (h == nullptr || term == nullptr) return NOT_FOUND;
  return _find_word(h, term, histogram);
}

// ---- Walks -----------------------------------------------------------------------------

uint32_t st_fclex_apply(fclex* h, const char* prefix, fclex_apply_cb cb, void* cookie,
                        uint32_t* histogram) noexcept {
  if (h == nullptr || cb == nullptr) return NOT_FOUND;
  size_t prefix_len = prefix == nullptr ? 0 : strlen(prefix);
  int64_t first = 0;
  if (prefix_len > 0) {
    wrc w{};
    first = _find_block(h, prefix, &w, histogram);
    if (first < 0) return NOT_FOUND;
  }
  uint32_t nblocks = _how_many_blocks(h);
  uint32_t sum = 0;
  bool stop = false;
  bool aborted = false;
  for (uint32_t b = static_cast<uint32_t>(first); b < nblocks && !stop; ++b) {
    int rc = scan_block(h, b, histogram, [&](uint32_t id, const char* term, uint32_t len) {
      if (prefix_len > 0) {
        int cmp = strncmp(term, prefix, prefix_len);
        if (cmp < 0) return true;  // before the prefix range, in the first block
        if (cmp > 0) {             // past the range: done
          stop = true;
          return false;
        }
      }
      uint32_t r = cb(id, term, len, cookie);
      if (r == NOT_FOUND) {
        aborted = stop = true;
        return false;
      }
      sum += r;
      return true;
    });
    // A block that cannot be read or decoded ends the walk as a failure.
    if (rc < 0) return NOT_FOUND;
  }
  return aborted ? NOT_FOUND : sum;
}

namespace {

struct enum_state {
  uint8_t* array;
  uint32_t capacity;
  uint32_t stored;
};

uint32_t enum_one(uint32_t id, const char* term, uint32_t len, void* cookie) {
  auto* st = static_cast<enum_state*>(cookie);
  if (st->stored >= st->capacity) return NOT_FOUND;
  uint8_t* rec = st->array + static_cast<size_t>(st->stored) * FCLEX_ENUM_RECORD_SZ;
  memset(rec, 0, TERM_BUF_SZ);
  memcpy(rec, term, len);
  memcpy(rec + TERM_BUF_SZ, &id, 4);
  st->stored += 1;
  return st->stored >= st->capacity ? NOT_FOUND : 1;
}

}  // namespace

uint32_t st_fclex_enum(fclex* h, const char* prefix, uint8_t* array, uint32_t capacity) noexcept {
  if (capacity == 0 || array == nullptr) return 0;
  enum_state st{array, capacity, 0};
  st_fclex_apply(h, prefix, enum_one, &st, nullptr);
  return st.stored;
}

}  // namespace tarnix
