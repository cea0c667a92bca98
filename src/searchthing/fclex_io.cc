// Lexicon I/O: positional reads, the source bitmap, the paged block writer,
// the block-offset and block readers, the merge cursor and the N-way
// lexicon merge. The section layout is described in fclex.h.
//
// Memory: the writer holds only its pages (plus one offset slot per block);
// a reader holds one block cache and 1024 cached block offsets; a merge holds
// one reader per source, the writer and the which-sources bitmaps.
#include "searchthing/fclex_io.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <thread>
#include <vector>

#include "searchthing/check.h"
#include "searchthing/codes.h"
#include "searchthing/worker.h"

namespace tarnix {

// ---- Positional reads ---------------------------------------------------------------

namespace {

uint64_t now_us() noexcept {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

// Counter for a read that took us microseconds: below 8 us is 0, and each
// further factor of 8 moves one counter up, the last catching the rest.
int histogram_bucket(uint64_t us) noexcept {
  uint64_t v = us / 8;
  int k = 0;
  while (v > 0 && k < READ_HISTOGRAM_SZ - 1) {
    v /= 8;
    ++k;
  }
  return k;
}

ssize_t pread_eintr(int fd, void* buf, size_t n, uint64_t offset) noexcept {
  for (;;) {
    ssize_t r = pread(fd, buf, n, static_cast<off_t>(offset));
    if (r < 0 && errno == EINTR) continue;
    return r;
  }
}

}  // namespace

bool st_pread_full(int fd, void* buf, uint64_t n, uint64_t offset) noexcept {
  auto* p = static_cast<uint8_t*>(buf);
  while (n > 0) {
    ssize_t r = pread(fd, p, n, static_cast<off_t>(offset));
    if (r < 0 && errno == EINTR) continue;
    if (r < 1) return false;
    p += r;
    n -= static_cast<uint64_t>(r);
    offset += static_cast<uint64_t>(r);
  }
  return true;
}

bool st_pwrite_full(int fd, const void* buf, uint64_t n, uint64_t offset) noexcept {
  auto* p = static_cast<const uint8_t*>(buf);
  while (n > 0) {
    ssize_t w = pwrite(fd, p, n, static_cast<off_t>(offset));
    if (w < 0 && errno == EINTR) continue;
    if (w < 1) return false;
    p += w;
    n -= static_cast<uint64_t>(w);
    offset += static_cast<uint64_t>(w);
  }
  return true;
}

ssize_t st_timed_pread_msg(int fd, void* buf, size_t n, uint64_t offset, uint32_t* histogram,
                           int complain) noexcept {
  uint64_t t0 = histogram != nullptr ? now_us() : 0;
  ssize_t r = pread_eintr(fd, buf, n, offset);
  if (histogram != nullptr) histogram[histogram_bucket(now_us() - t0)] += 1;
  if (complain && r != static_cast<ssize_t>(n)) {
    fprintf(stderr, "read failed fd=%u buf=%p sz=%lu off=%lu nr=%ld, errno=%i\n",
            static_cast<unsigned>(fd), buf, static_cast<unsigned long>(n),
            static_cast<unsigned long>(offset), static_cast<long>(r), errno);
  }
  return r;
}

int _pread_verify(int fd, void* buf, size_t n, uint64_t offset, const char* label) noexcept {
  // A regular file returns fewer bytes only at its end; keep reading until
  // n bytes arrived or the file ended, so a signal never fakes a short read.
  auto* p = static_cast<uint8_t*>(buf);
  size_t got = 0;
  ssize_t r = 0;
  while (got < n) {
    r = pread_eintr(fd, p + got, n - got, offset + got);
    if (r <= 0) break;
    got += static_cast<size_t>(r);
  }
  if (got == n) return 1;
  unsigned long nr = r < 0 ? static_cast<unsigned long>(r) : static_cast<unsigned long>(got);
  fprintf(stderr, "read failed[%s] fd=%u buf=%p sz=%lu off=%lu nr=%lu\n", label,
          static_cast<unsigned>(fd), buf, static_cast<unsigned long>(n),
          static_cast<unsigned long>(offset), nr);
  return 0;
}

// ---- Source bitmap --------------------------------------------------------------------

bool _bmap_is_set(const bmap_t* bmap, uint32_t bit) noexcept {
  ST_ASSERT_TEXT(bit < _bmap_size_bits(*bmap), "bit < _bmap_size_bits(bmap)");
  return (*bmap & (1u << bit)) != 0;
}

void _bmap_set(bmap_t* bmap, uint32_t bit) noexcept {
  ST_ASSERT_TEXT(bit < _bmap_size_bits(*bmap), "bit < _bmap_size_bits(bmap)");
  *bmap |= 1u << bit;
}

void _bmap_free(bmap_t* which_srcs) noexcept { free(which_srcs); }

// ---- Block writer -------------------------------------------------------------------------
// The section is built in pages of _page_sz bytes; the first 8 bytes of a
// page hold its free byte count, data follows. Pages are written once, in
// order, at close, so the section is never held contiguously.

struct lex_pages {
  std::vector<std::unique_ptr<uint8_t[]>> list;
};

namespace {

constexpr uint64_t DEFAULT_PAGE_SZ = 1048576;
constexpr uint64_t PAGE_HDR_SZ = sizeof(size_t);

size_t page_free(const uint8_t* page) noexcept {
  size_t v;
  memcpy(&v, page, sizeof v);
  return v;
}
void set_page_free(uint8_t* page, size_t v) noexcept { memcpy(page, &v, sizeof v); }

// Allocates a page and appends it; -2 when either allocation fails.
int add_page(lex_writer* w) noexcept {
  std::unique_ptr<uint8_t[]> page(new (std::nothrow) uint8_t[w->_page_sz]);
  if (!page) return WS_ENOMEM;
  set_page_free(page.get(), w->_page_sz - PAGE_HDR_SZ);
  uint8_t* raw = page.get();
  try {
    w->pages->list.push_back(std::move(page));
  } catch (const std::bad_alloc&) {
    return WS_ENOMEM;
  }
  w->page = raw;
  return 0;
}

int _write_to_pages(lex_writer* w, const void* bytes, uint64_t n) noexcept {
  ST_ASSERT_TEXT(w->page != nullptr, "page");
  const auto* src = static_cast<const uint8_t*>(bytes);
  while (n > 0) {
    size_t free_sz = page_free(w->page);
    if (free_sz == 0) {
      int rc = add_page(w);
      if (rc != 0) return rc;
      continue;
    }
    uint64_t chunk = n < free_sz ? n : free_sz;
    memcpy(w->page + (w->_page_sz - free_sz), src, chunk);
    set_page_free(w->page, free_sz - chunk);
    w->_blocks_off += chunk;
    src += chunk;
    n -= chunk;
  }
  return 0;
}

int write_vbe(lex_writer* w, uint32_t v) noexcept {
  uint8_t tmp[5];
  return _write_to_pages(w, tmp, st_encode_to_vbe(tmp, v));
}

uint32_t offset_slots(const lex_writer* w) noexcept {
  return _how_many_blocks_helper(w->expected_terms, w->tperb);
}

void free_writer(lex_writer* w) noexcept {
  free(w->_block_end_offsets);
  w->_block_end_offsets = nullptr;
  delete w->pages;
  w->pages = nullptr;
  w->page = nullptr;
}

}  // namespace

int _lex_writer_open(int verbose, lex_writer* w, uint32_t tperb, uint64_t page_sz,
                     uint32_t expected_terms) noexcept {
  w->_cursor = 0;
  w->prev_term[0] = '\0';
  w->prev_len = 0;
  w->_blocks_off = 0;
  w->_bo_idx = 0;
  w->uncompressed_size = 0;
  w->tperb = tperb;
  w->expected_terms = expected_terms;
  uint32_t nblocks = _how_many_blocks_helper(expected_terms, tperb);
  w->_page_sz = page_sz == 0 ? DEFAULT_PAGE_SZ : page_sz;
  ST_ASSERT_TEXT(w->_page_sz >= PAGE_HDR_SZ + 1, "writer->_page_sz >= sizeof(size_t) + 1");
  if (verbose) {
    printf("creating writer, num_blocks=%u, num_terms=%u, page_sz=%llu.\n", nblocks,
           expected_terms, static_cast<unsigned long long>(w->_page_sz));
    fflush(stdout);
  }
  w->page = nullptr;
  w->pages = nullptr;
  w->_block_end_offsets = static_cast<uint32_t*>(calloc(nblocks, sizeof(uint32_t)));
  if (w->_block_end_offsets == nullptr) return WS_ENOMEM;
  w->pages = new (std::nothrow) lex_pages;
  if (w->pages == nullptr || add_page(w) != 0) {
    free_writer(w);
    return WS_ENOMEM;
  }
  return 0;
}

namespace {

// Appends a term known to differ from the previous one, of which it shares
// the first lcp bytes (exactly: the next byte differs or one of them ends).
int put_distinct(lex_writer* w, const char* term, uint32_t len, uint32_t lcp) noexcept {
  const uint32_t j = w->_cursor % w->tperb;
  int rc = 0;
  if (j == 0) {
    if (w->_blocks_off != 0) {
      if (w->_blocks_off > 0xFFFFFFFFu) return WS_E32BIT;
      ST_ASSERT(w->_bo_idx < offset_slots(w));
      w->_block_end_offsets[w->_bo_idx++] = static_cast<uint32_t>(w->_blocks_off);
    }
    if ((rc = write_vbe(w, len)) != 0 || (rc = _write_to_pages(w, term, len)) != 0) return rc;
    memcpy(w->prev_term, term, len);
  } else {
    if (j < w->tperb - 1) {
      if ((rc = write_vbe(w, lcp)) != 0 || (rc = write_vbe(w, len - lcp)) != 0) return rc;
    } else {
      ST_ASSERT_TEXT(w->_cursor % w->tperb == w->tperb - 1, "writer->_cursor % tperb == tperb -1");
      if ((rc = write_vbe(w, lcp)) != 0) return rc;
    }
    if ((rc = _write_to_pages(w, term + lcp, len - lcp)) != 0) return rc;
    memcpy(w->prev_term + lcp, term + lcp, len - lcp);
  }
  w->prev_term[len] = '\0';
  w->prev_len = len;
  w->_cursor += 1;
  w->uncompressed_size += len;
  return 0;
}

}  // namespace

int _lex_writer_put(lex_writer* w, const char* term, uint64_t length) noexcept {
  ST_ASSERT_TEXT(w->tperb != 0, "tperb");
  // A stored term is at most 2047 bytes: every reader decodes into a buffer
  // of 2048, and the previous term is kept in one.
  if (length > MAX_TERM_LEN) return WS_E32BIT;
  const auto len = static_cast<uint32_t>(length);
  if (w->_cursor % w->tperb == 0) {
    // Duplicates are dropped here, silently: the merge relies on it.
    if (strlen(w->prev_term) == len && memcmp(w->prev_term, term, len) == 0) return 0;
    return put_distinct(w, term, len, 0);
  }
  uint32_t p = 0;
  while (p < len && w->prev_term[p] != '\0' && w->prev_term[p] == term[p]) ++p;
  if (p == len) return 0;  // repeats the previous term
  return put_distinct(w, term, len, p);
}

int _lex_writer_put_next(lex_writer* w, const char* term, uint32_t len, uint32_t lcp) noexcept {
  ST_ASSERT_TEXT(w->tperb != 0, "tperb");
  if (len > MAX_TERM_LEN) return WS_E32BIT;
  ST_ASSERT(lcp < len && lcp <= w->prev_len);
  return put_distinct(w, term, len, lcp);
}

int _lex_writer_close(int verbose, lex_writer* w, int fd, uint64_t offset,
                      uint64_t* end_offset) noexcept {
  struct release {
    lex_writer* w;
    ~release() { free_writer(w); }
  } guard{w};
  if (w->_blocks_off != 0) {
    if (w->_blocks_off > 0xFFFFFFFFu) return WS_E32BIT;
    ST_ASSERT(w->_bo_idx < offset_slots(w));
    w->_block_end_offsets[w->_bo_idx++] = static_cast<uint32_t>(w->_blocks_off);
  }
  uint64_t end = offset + FCLEX_HEADER_SZ + 4ull * w->_bo_idx + w->_blocks_off;

  uint8_t word[4];
  const uint32_t header[3] = {w->_cursor, w->tperb, w->uncompressed_size};
  for (int i = 0; i < 3; ++i) {
    store_be32(word, header[i]);
    if (!st_pwrite_full(fd, word, 4, offset + 4ull * i)) return WS_EWRITE;
  }
  // The block end offsets, big-endian, in chunks of one stack buffer.
  uint8_t chunk[4096];
  uint64_t at = offset + FCLEX_HEADER_SZ;
  for (uint32_t i = 0; i < w->_bo_idx;) {
    uint32_t n = 0;
    for (; n < sizeof chunk / 4 && i < w->_bo_idx; ++n, ++i) {
      store_be32(chunk + 4 * n, w->_block_end_offsets[i]);
    }
    if (!st_pwrite_full(fd, chunk, 4ull * n, at)) return WS_EWRITE;
    at += 4ull * n;
  }
  if (w->_bo_idx > 0) {
    ST_ASSERT_TEXT(w->_blocks_off == w->_block_end_offsets[w->_bo_idx - 1],
                   "writer->_blocks_off == writer->_block_end_offsets[ writer->_bo_idx - 1]");
  }
  if (w->pages == nullptr || w->pages->list.empty()) {
    *end_offset = end;
    return WS_EWRITE;
  }
  for (const auto& page : w->pages->list) {
    uint64_t used = w->_page_sz - PAGE_HDR_SZ - page_free(page.get());
    if (!st_pwrite_full(fd, page.get() + PAGE_HDR_SZ, used, at)) {
      *end_offset = end;
      return WS_EWRITE;
    }
    at += used;
  }
  if (verbose) {
    printf("closing writer, wrote page_num=%u, page_bytes=%llu.\n",
           static_cast<unsigned>(w->pages->list.size()),
           static_cast<unsigned long long>(w->_blocks_off));
    fflush(stdout);
  }
  *end_offset = end;
  return 0;
}

void _lex_writer_discard(lex_writer* w) noexcept { free_writer(w); }

// ---- Block-offset reader -------------------------------------------------------------------

namespace {

uint32_t reader_blocks(const bo_reader* r) noexcept {
  return _how_many_blocks_helper(r->_nterms, r->tperb);
}

}  // namespace

int _bor_get(bo_reader* r, uint32_t bid, uint64_t* off) noexcept {
  ST_ASSERT_TEXT(r->_fd >= 0, "((reader->_fd) >= 0)");
  uint32_t nblocks = reader_blocks(r);
  ST_ASSERT_TEXT(bid <= nblocks, "bid <= num_blocks");
  uint64_t base = r->offset + FCLEX_HEADER_SZ + 4ull * nblocks;
  if (bid == 0) {
    *off = base;
    return 0;
  }
  if (r->count > 0 && bid >= r->first && bid - r->first < r->count) {
    *off = base + load_be32(r->cache + 4ull * (bid - r->first));
    return 0;
  }
  uint32_t n = nblocks - bid + 1;
  if (n > BOR_CACHE_ENTRIES) n = BOR_CACHE_ENTRIES;
  r->count = 0;
  if (!_pread_verify(r->_fd, r->cache, 4ull * n, r->offset + FCLEX_HEADER_SZ + 4ull * (bid - 1),
                     "bo_reader_get"))
    return WS_EREAD;
  r->first = bid;
  r->count = n;
  *off = base + load_be32(r->cache);
  return 0;
}

void _bor_close(bo_reader* r) noexcept {
  r->_fd = -1;
  r->first = 0;
  r->count = 0;
}

// ---- Block reader ------------------------------------------------------------------------------

int _lex_reader_open(lex_reader* r, int fd, uint64_t offset) noexcept {
  *r = lex_reader{};
  r->_bor._fd = -1;
  r->first_block = static_cast<uint32_t>(-1);
  r->_c_off = -1;
  uint8_t hdr[FCLEX_HEADER_SZ];
  if (!_pread_verify(fd, hdr, sizeof hdr, offset, "lex_reader_open")) return WS_EREAD;
  uint32_t count = load_be32(hdr);
  uint32_t tperb = load_be32(hdr + 4);
  r->_bor.offset = offset;
  r->_bor._nterms = count;
  r->_bor.tperb = tperb;
  r->uncompressed_size = load_be32(hdr + 8);
  if (count == 0 || tperb == 0) return WS_EEMPTYLEX;

  // The header is not trusted: the section it describes must lie inside the
  // file, and its blocks must have room for its terms (every term takes at
  // least one byte). This bounds what the counts can make a merge allocate
  // by the size of the file.
  uint64_t nblocks = _how_many_blocks_helper(count, tperb);
  uint8_t last[4];
  if (!_pread_verify(fd, last, 4, offset + FCLEX_HEADER_SZ + 4 * nblocks - 4, "lex_reader_open"))
    return WS_EREAD;
  uint64_t blocks_sz = load_be32(last);
  uint64_t section_end = offset + FCLEX_HEADER_SZ + 4 * nblocks + blocks_sz;
  struct stat st{};
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && section_end > static_cast<uint64_t>(st.st_size))
    return WS_EREAD;
  if (blocks_sz < count) return WS_EDATA;

  // No block is larger than the blocks area: a lexicon of one huge block
  // (a large or negative block size given to the writer) needs no more
  // than its own size, however many terms it holds.
  uint64_t cap = _max_block_size(tperb < count ? tperb : count);
  if (cap > blocks_sz) cap = blocks_sz < _max_block_size(1) ? _max_block_size(1) : blocks_sz;
  if (cap > 0xFFFFFFFFull) return WS_ENOMEM;
  r->buf = static_cast<uint8_t*>(calloc(1, cap));
  if (r->buf == nullptr) return WS_ENOMEM;
  r->capacity = static_cast<uint32_t>(cap);
  r->_bor._fd = fd;
  return 0;
}

namespace {

bool bor_cached(const bo_reader* r, uint32_t bid) noexcept {
  return bid == 0 || (r->count > 0 && bid >= r->first && bid - r->first < r->count);
}

const uint8_t* fail(wrc* w, int rc) noexcept {
  _set_rc(w, rc);
  return nullptr;
}

// _lex_reader_get, also giving the block's size when size is not null (the
// merge cursor bounds its decoding by it).
//
// Reading sequentially, the start of the block after the buffer is the end
// of the buffer, and the buffer never takes a block whose end would need a
// new offset read (except its first block): so every offset needed for the
// buffered blocks stays in the offset cache, and a sequential walk reads the
// block end offsets exactly once, 1024 at a time.
const uint8_t* reader_get(lex_reader* r, uint32_t bid, uint64_t* size, wrc* w) noexcept {
  uint32_t nblocks = reader_blocks(&r->_bor);
  ST_ASSERT_TEXT(bid < nblocks, "bid < num_blocks");
  int rc = 0;
  const auto c_off = static_cast<uint64_t>(r->_c_off);
  if (r->cached_blocks > 0 && bid >= r->first_block && bid - r->first_block < r->cached_blocks) {
    uint64_t bid_off = c_off;
    if (bid != r->first_block) {
      if ((rc = _bor_get(&r->_bor, bid, &bid_off)) != 0) return fail(w, rc);
      // The offsets were checked when the blocks were read; a file changed
      // under us since then is inconsistent data.
      if (bid_off < c_off || bid_off - c_off >= r->_c_valid_bytes) return fail(w, WS_EDATA);
      ST_ASSERT_TEXT(bid_off >= c_off, "bid_off >= reader->_c_off");
      ST_ASSERT_TEXT(bid_off - c_off < r->_c_valid_bytes,
                     "bid_off - reader->_c_off < reader->_c_valid_bytes");
    }
    if (size != nullptr) {
      uint64_t end = c_off + r->_c_valid_bytes;
      if (bid + 1 - r->first_block < r->cached_blocks) {
        if ((rc = _bor_get(&r->_bor, bid + 1, &end)) != 0) return fail(w, rc);
      }
      if (end <= bid_off || end > c_off + r->_c_valid_bytes) return fail(w, WS_EDATA);
      *size = end - bid_off;
    }
    return r->buf + (bid_off - c_off);
  }

  uint64_t start_off = 0;
  if (r->cached_blocks > 0 && bid == r->first_block + r->cached_blocks) {
    start_off = c_off + r->_c_valid_bytes;
  } else if ((rc = _bor_get(&r->_bor, bid, &start_off)) != 0) {
    return fail(w, rc);
  }
  // Take as many whole blocks as the buffer holds, at least one.
  uint32_t num2read = 0;
  uint64_t end_off = start_off;
  uint64_t first_sz = 0;
  for (uint32_t b = bid; b < nblocks; ++b) {
    if (b > bid && !bor_cached(&r->_bor, b + 1)) break;
    uint64_t next = 0;
    if ((rc = _bor_get(&r->_bor, b + 1, &next)) != 0) return fail(w, rc);
    if (next <= end_off) return fail(w, WS_EDATA);  // offsets must strictly increase
    if (next - start_off > r->capacity) break;
    if (b == bid) first_sz = next - start_off;
    end_off = next;
    ++num2read;
  }
  if (num2read == 0) return fail(w, WS_EDATA);  // larger than any block can be
  ST_ASSERT_TEXT(num2read > 0, "num2read > 0");
  ST_ASSERT_TEXT(end_off > start_off, "end_off > start_off");
  uint64_t n = end_off - start_off;
  r->cached_blocks = 0;
  if (!_pread_verify(r->_bor._fd, r->buf, n, start_off, "lex_reader_get")) return fail(w, WS_EREAD);
  r->first_block = bid;
  r->cached_blocks = num2read;
  r->_c_off = static_cast<int64_t>(start_off);
  r->_c_valid_bytes = static_cast<uint32_t>(n);
  if (size != nullptr) *size = first_sz;
  return r->buf;
}

}  // namespace

const uint8_t* _lex_reader_get(lex_reader* r, uint32_t bid, wrc* w) noexcept {
  return reader_get(r, bid, nullptr, w);
}

int _lex_reader_get_size(lex_reader* r, uint64_t* size) noexcept {
  uint64_t end = 0;
  int rc = _bor_get(&r->_bor, reader_blocks(&r->_bor), &end);
  if (rc != 0) return rc;
  *size = end - r->_bor.offset;
  return 0;
}

int _get_block_size(lex_reader* r, uint32_t bid, uint64_t* size) noexcept {
  uint64_t start = 0;
  uint64_t end = 0;
  int rc = _bor_get(&r->_bor, bid, &start);
  if (rc == 0) rc = _bor_get(&r->_bor, bid + 1, &end);
  if (rc != 0) return rc;
  if (end <= start) return WS_EDATA;
  ST_ASSERT_TEXT(end > start, "end > start");
  *size = end - start;
  return 0;
}

void _lex_reader_close(lex_reader* r) noexcept {
  _bor_close(&r->_bor);
  free(r->buf);
  r->buf = nullptr;
  r->first_block = static_cast<uint32_t>(-1);
  r->cached_blocks = 0;
  r->capacity = 0;
  r->_c_valid_bytes = 0;
}

// ---- Merge cursor ------------------------------------------------------------------------------

int _reload_term(lex_merge_cxt* c) noexcept {
  ST_ASSERT_TEXT(c->_cursor < c->_reader._bor._nterms, "cxt->_cursor < cxt->_reader._bor._nterms");
  uint32_t tperb = c->_reader._bor.tperb;
  uint32_t j = c->_cursor % tperb;
  if (c->block == nullptr || j == 0) {
    uint32_t bid = c->_cursor / tperb;
    wrc w{};
    uint64_t size = 0;
    const uint8_t* block = reader_get(&c->_reader, bid, &size, &w);
    if (block == nullptr) return w.warm_rc;
    c->block = block;
    c->_block_sz = size;
    c->_block_off = 0;
  }
  if (j != 0 && j == tperb - 1) {
    ST_ASSERT_TEXT(c->_cursor % tperb == tperb - 1, "cxt->_cursor % tperb == tperb - 1");
    uint64_t block_size = c->_block_sz;
    ST_ASSERT_TEXT(block_size - c->_block_off == (unsigned)(block_size - c->_block_off),
                   "block_size - cxt->_block_off == (unsigned)( block_size - cxt->_block_off )");
  }
  return _fclex_decode_term(c->block, c->_block_sz, &c->_block_off, j, tperb, c->_cur_term,
                            &c->_cur_len, &c->_cur_prefix);
}

uint32_t _increment_cursor(lex_merge_cxt* c) noexcept {
  if (c->_cursor >= c->_reader._bor._nterms) return 0xFFFFFFFFu;
  ST_ASSERT_TEXT(c->_cur_term[0] != '\0', "cxt->_cur_term[0]");
  c->_cursor += 1;
  if (c->_cursor == c->_reader._bor._nterms) return 0;
  return static_cast<uint32_t>(_reload_term(c));
}

uint32_t _find_smallest_term(lex_merge_cxt* cxts, uint32_t n, uint32_t* smallest,
                             uint32_t* second) noexcept {
  // A strict '<' in index order: among equal terms the lowest-indexed source
  // is smallest, so a common term is written from its first holder.
  uint32_t live = 0;
  *smallest = 0xFFFFFFFFu;
  *second = 0xFFFFFFFFu;
  for (uint32_t i = 0; i < n; ++i) {
    lex_merge_cxt* c = &cxts[i];
    if (c->_cursor >= c->_reader._bor._nterms) continue;
    ST_ASSERT_TEXT(c->_cur_term[0] != '\0', "cur_term[0] != '\\0'");
    ++live;
    if (*smallest == 0xFFFFFFFFu) {
      *smallest = i;
    } else if (strcmp(c->_cur_term, cxts[*smallest]._cur_term) < 0) {
      *second = *smallest;
      *smallest = i;
    } else if (*second == 0xFFFFFFFFu || strcmp(c->_cur_term, cxts[*second]._cur_term) < 0) {
      *second = i;
    }
  }
  return live;
}

// ---- N-way merge ---------------------------------------------------------------------------------

namespace {

bool exhausted(const lex_merge_cxt& c) noexcept { return c._cursor >= c._reader._bor._nterms; }

// The merge is a tournament (loser) tree over the cursors that keeps, with
// every loser, the length of the prefix it shares with the term that beat
// it. All terms in the tree are at or above the last term written, so two
// of them that share prefixes of different lengths with it are ordered by
// those lengths alone; only terms sharing equally much are compared, and
// then from that position on. A source's next term shares with the term
// just written the prefix its front coding names (or more), so the long
// common prefixes of neighbouring terms ("source::/var/log/...") are never
// compared again. Ties go to the lower source index, so a common term is
// written from its first holder and the other holders add their bits to it.
constexpr uint32_t NO_CURSOR = 0xFFFFFFFFu;  // an exhausted or missing cursor: above every term

// True when cursor a's term sorts before cursor b's (equal terms by index);
// both share at least their first h bytes. *lcp receives the length of the
// prefix the two terms share.
inline bool sorts_before(const lex_merge_cxt* cx, uint32_t a, uint32_t b, uint32_t h, uint32_t* lcp) noexcept {
  const auto* x = reinterpret_cast<const uint8_t*>(cx[a]._cur_term);
  const auto* y = reinterpret_cast<const uint8_t*>(cx[b]._cur_term);
  const uint32_t la = cx[a]._cur_len;
  const uint32_t lb = cx[b]._cur_len;
  const uint32_t m = la < lb ? la : lb;
  // Eight bytes at a time, the last word masked to the shorter term (the
  // buffers hold TERM_BUF_SZ bytes, so only a word that would run past them
  // is compared bytewise).
  for (uint32_t i = h; i < m; i += 8) {
    if (i + 8 > TERM_BUF_SZ) {
      while (i < m && x[i] == y[i]) ++i;
      *lcp = i;
      if (i < m) return x[i] < y[i];
      break;
    }
    uint64_t diff = load_be64(x + i) ^ load_be64(y + i);
    if (m - i < 8) diff &= ~uint64_t{0} << (8 * (8 - (m - i)));
    if (diff != 0) {
      const uint32_t at = i + static_cast<uint32_t>(__builtin_clzll(diff)) / 8;
      *lcp = at;
      return x[at] < y[at];
    }
  }
  *lcp = m;
  if (la != lb) return la < lb;
  return a < b;
}

struct loser_tree {
  lex_merge_cxt* cxts;
  uint32_t leaves;        // a power of two, at least the number of cursors
  uint32_t loser[32];     // internal nodes 1 .. leaves-1
  uint32_t lcp[32];       // prefix each loser shares with its node's winner
  uint32_t winner;        // NO_CURSOR when every cursor is exhausted
  uint32_t winner_lcp;    // prefix the winner shares with the last term written

  // Plays the cursors below their ends (end null: their terms' end).
  void build(uint32_t n, const uint32_t* end) noexcept {
    leaves = 1;
    while (leaves < n) leaves *= 2;
    uint32_t win[64];
    for (uint32_t i = 0; i < leaves; ++i) {
      const bool live = i < n && !exhausted(cxts[i]) && (end == nullptr || cxts[i]._cursor < end[i]);
      win[leaves + i] = live ? i : NO_CURSOR;
    }
    for (uint32_t node = leaves - 1; node >= 1; --node) {
      const uint32_t a = win[2 * node];
      const uint32_t b = win[2 * node + 1];
      uint32_t l = 0;
      if (a == NO_CURSOR || b == NO_CURSOR) {
        win[node] = a == NO_CURSOR ? b : a;
        loser[node] = NO_CURSOR;
      } else if (sorts_before(cxts, a, b, 0, &l)) {
        win[node] = a;
        loser[node] = b;
      } else {
        win[node] = b;
        loser[node] = a;
      }
      lcp[node] = l;
    }
    winner = win[1];
    winner_lcp = 0;
  }

  // The winner's cursor moved on to a term sharing h bytes with the one it
  // held (or ran out: cand NO_CURSOR); plays it up from its leaf.
  void replay(uint32_t leaf, uint32_t cand, uint32_t h) noexcept {
    for (uint32_t node = (leaves + leaf) / 2; node >= 1; node /= 2) {
      const uint32_t v = loser[node];
      if (v == NO_CURSOR) continue;
      const uint32_t hv = lcp[node];
      if (cand == NO_CURSOR || hv > h) {
        loser[node] = cand;
        lcp[node] = h;
        cand = v;
        h = hv;
      } else if (hv == h) {
        uint32_t l = 0;
        if (sorts_before(cxts, v, cand, h, &l)) {
          loser[node] = cand;
          cand = v;
        }
        lcp[node] = l;
      }
    }
    winner = cand;
    winner_lcp = h;
  }
};

// Merged terms of the upper half of a split merge, front-coded against
// each other in memory (prefix length, suffix length, suffix), for the
// lower half's writer to take over once it has written its own.
struct term_list {
  static constexpr uint64_t MAX_BYTES = 64u << 20;
  uint32_t _cursor = 0;
  uint32_t prev_len = 0;
  char prev_term[TERM_BUF_SZ];
  std::vector<uint8_t> bytes;
};

int put_next(lex_writer* w, const char* term, uint32_t len, uint32_t lcp) noexcept {
  return _lex_writer_put_next(w, term, len, lcp);
}

int put_next(term_list* l, const char* term, uint32_t len, uint32_t lcp) noexcept {
  if (l->bytes.size() > term_list::MAX_BYTES) return WS_ENOMEM;
  uint8_t head[10];
  uint32_t n = st_encode_to_vbe(head, lcp);
  n += st_encode_to_vbe(head + n, len - lcp);
  try {
    l->bytes.insert(l->bytes.end(), head, head + n);
    l->bytes.insert(l->bytes.end(), term + lcp, term + len);
  } catch (const std::bad_alloc&) {
    return WS_ENOMEM;
  }
  memcpy(l->prev_term + lcp, term + lcp, len - lcp);
  l->prev_term[len] = '\0';
  l->prev_len = len;
  l->_cursor++;
  return 0;
}

// Length of the prefix two terms share.
uint32_t shared_prefix(const char* a, uint32_t la, const char* b, uint32_t lb) noexcept {
  const uint32_t m = la < lb ? la : lb;
  uint32_t i = 0;
  while (i < m && a[i] == b[i]) ++i;
  return i;
}

// What merge_loop returns when the lower half of a split merge meets a term
// at or above the pivot before its source's split point (a source out of
// order): one pass would take the upper half's terms before that one, so the
// merge goes on in one pass from there.
constexpr int PIVOT_REACHED = 1;

// The merge proper, from the cursors' current terms up to end[i] for
// cursor i (end null: to its last term). A cursor that reaches its end has
// its next term loaded and checked as the full merge would have, and then
// stops. Continuing (resume) after such a stop, the writer's last term is
// the one before the cursors' current terms. With a pivot (the lower half
// of a split merge), a term at or above it is left unwritten and the merge
// stops with PIVOT_REACHED.
template <class Out>
int merge_loop(lex_merge_cxt* cxts, uint32_t n, Out* writer, bmap_t* which_srcs, wrc* w, const uint32_t* end,
               bool resume, const char* pivot = nullptr, uint32_t pivot_len = 0) noexcept {
  for (uint32_t i = 0; i < n; ++i) {
    if (!exhausted(cxts[i])) ST_ASSERT_TEXT(cxts[i]._cur_term[0] != '\0', "cur_term[0] != '\\0'");
  }
  loser_tree tree{};
  tree.cxts = cxts;
  if (n == 0) return 0;
  tree.build(n, end);
  bool written = resume;
  if (resume && tree.winner != NO_CURSOR) {
    const lex_merge_cxt& c = cxts[tree.winner];
    tree.winner_lcp = shared_prefix(c._cur_term, c._cur_len, writer->prev_term, writer->prev_len);
  }
  // The prefix the last term written shares with the pivot, which it is
  // below: a term sharing less with that term is above the pivot, one
  // sharing more is below it, and only one sharing as much is compared.
  uint32_t below = 0;
  while (tree.winner != NO_CURSOR) {
    const uint32_t s = tree.winner;
    lex_merge_cxt* cxt = &cxts[s];
    ST_ASSERT_TEXT(cxt->_cursor < cxt->_reader._bor._nterms, "cxt->_cursor < cxt->_reader._bor._nterms");
    const uint32_t len = cxt->_cur_len;
    if (pivot != nullptr) {
      const uint32_t h = written ? tree.winner_lcp : 0;
      if (h < below) return PIVOT_REACHED;
      if (h == below) {
        const uint32_t m = len < pivot_len ? len : pivot_len;
        uint32_t i = h;
        while (i < m && cxt->_cur_term[i] == pivot[i]) ++i;
        const bool at_or_above =
            i == len ? len >= pivot_len
                     : i == pivot_len || static_cast<uint8_t>(cxt->_cur_term[i]) > static_cast<uint8_t>(pivot[i]);
        if (at_or_above) return PIVOT_REACHED;
        below = i;
      }
    }
    // A term equal to the last one written (another source holds it too)
    // only adds its source's bit.
    if (!written || tree.winner_lcp != writer->prev_len || len != writer->prev_len) {
      int rc = put_next(writer, cxt->_cur_term, len, tree.winner_lcp);
      if (rc != 0) return _set_rc(w, rc);
      written = true;
    }
    ST_ASSERT(writer->_cursor > 0);
    _bmap_set(&which_srcs[writer->_cursor - 1], s);
    // A term that cannot be decoded must stop the merge: carrying on with
    // the stale term would give bitmaps that name the wrong sources.
    uint32_t r = _increment_cursor(cxt);
    if (r != 0 && r != 0xFFFFFFFFu)
      return _set_rc_verbose(w, static_cast<int>(r), static_cast<int>(s), "_reload_term in st_fclex_merge_n");
    if (exhausted(*cxt)) {
      tree.replay(s, NO_CURSOR, 0);
      continue;
    }
    // The new term shares with the one just written (the writer's previous
    // term) at least the prefix its front coding took from it. Terms of a
    // source must strictly ascend: a damaged source out of order would give
    // an unsorted merged lexicon and bitmaps that renumber postings onto the
    // wrong terms.
    const auto* cur = reinterpret_cast<const uint8_t*>(cxt->_cur_term);
    const auto* prev = reinterpret_cast<const uint8_t*>(writer->prev_term);
    const uint32_t cur_len = cxt->_cur_len;
    const uint32_t prev_len = writer->prev_len;
    const uint32_t m = cur_len < prev_len ? cur_len : prev_len;
    uint32_t h = cxt->_cur_prefix < m ? cxt->_cur_prefix : m;
    while (h < m && cur[h] == prev[h]) ++h;
    if (h == cur_len || (h < prev_len && cur[h] < prev[h]))
      return _set_rc_verbose(w, WS_EDATA, static_cast<int>(s), "terms out of order in st_fclex_merge_n");
    tree.replay(s, end != nullptr && cxt->_cursor >= end[s] ? NO_CURSOR : s, h);
  }
  return 0;
}

// Places cursor c (its reader open) on term t, decoding the terms of t's
// block before it; t at the end leaves it exhausted. 0 or a decoding code.
int seek_cursor(lex_merge_cxt* c, uint32_t t) noexcept {
  const uint32_t tperb = c->_reader._bor.tperb;
  c->_cursor = t - t % tperb;
  c->block = nullptr;
  if (t >= c->_reader._bor._nterms) {
    c->_cursor = c->_reader._bor._nterms;
    return 0;
  }
  for (;;) {
    int rc = _reload_term(c);
    if (rc != 0 || c->_cursor == t) return rc;
    c->_cursor++;
  }
}

// The number of source c's first term at or above key (its terms ascending
// around it: the term before it is below key), or -1 when that cannot be
// established. Leaves c on that term.
int64_t first_at_or_above(lex_merge_cxt* c, const char* key) noexcept {
  const uint32_t n = c->_reader._bor._nterms;
  const uint32_t tperb = c->_reader._bor.tperb;
  const uint32_t blocks = _how_many_blocks_helper(n, tperb);
  auto below = [&]() noexcept {
    return strcmp(c->_cur_term, key) < 0;
  };
  // The last block whose first term is below the key.
  uint32_t lo = 0;
  uint32_t hi = blocks;  // block hi's first term is at or above the key (hi == blocks: past the end)
  if (seek_cursor(c, 0) != 0) return -1;
  if (!below()) return 0;
  while (hi - lo > 1) {
    const uint32_t mid = lo + (hi - lo) / 2;
    if (seek_cursor(c, mid * tperb) != 0) return -1;
    if (below()) lo = mid; else hi = mid;
  }
  // Through block lo: the first term at or above the key, each term above
  // the one before.
  if (seek_cursor(c, lo * tperb) != 0) return -1;
  char prev[TERM_BUF_SZ];
  for (;;) {
    memcpy(prev, c->_cur_term, c->_cur_len + 1);
    const uint32_t next = c->_cursor + 1;
    if (next == n) return hi == blocks ? static_cast<int64_t>(n) : -1;
    if (next % tperb == 0) {
      // Block hi begins at or above the key.
      if (next / tperb != hi) return -1;
      if (seek_cursor(c, next) != 0 || below()) return -1;
      return strcmp(prev, c->_cur_term) < 0 ? static_cast<int64_t>(next) : -1;
    }
    c->_cursor = next;
    if (_reload_term(c) != 0 || strcmp(prev, c->_cur_term) >= 0) return -1;
    if (!below()) return next;
  }
}

// The upper half of a split merge: the cursors (own readers) from each
// source's first term at or above the pivot.
struct upper_lexicon {
  uint32_t n = 0;
  char pivot[TERM_BUF_SZ];  // the first term of the upper half's range
  uint32_t pivot_len = 0;
  std::unique_ptr<lex_merge_cxt[]> cxts;
  term_list terms;
  bmap_t* which = nullptr;
  wrc w{};
  int rc = 0;
  ~upper_lexicon() {
    for (uint32_t i = 0; cxts && i < n; ++i) {
      if (cxts[i]._reader.buf != nullptr) _lex_reader_close(&cxts[i]._reader);
    }
    free(which);
  }
};

// Appends the upper half's terms to the writer and their bitmaps after the
// lower half's. Inside a block the writer codes a term as the list does
// (shared prefix, suffix length, suffix), so those stretches of the list
// are copied as they stand; a block's first and last terms, and the half's
// first term, go through the writer.
int append_upper(upper_lexicon* up, lex_writer* writer, bmap_t* which, wrc* w) noexcept {
  const uint32_t base = writer->_cursor;
  const uint32_t tperb = writer->tperb;
  char term[TERM_BUF_SZ];
  uint32_t len = 0;
  const uint8_t* p = up->terms.bytes.data();
  const uint8_t* const end = p + up->terms.bytes.size();
  const uint8_t* copied = nullptr;  // start of the stretch to copy
  for (uint32_t k = 0; k < up->terms._cursor; ++k) {
    const uint8_t* const coded = p;
    const uint32_t prev_len = len;
    uint32_t lcp = 0;
    uint32_t suffix = 0;
    p += vbe_get(p, end, &lcp);
    p += vbe_get(p, end, &suffix);
    memcpy(term + lcp, p, suffix);
    p += suffix;
    len = lcp + suffix;
    term[len] = '\0';
    const uint32_t j = writer->_cursor % tperb;
    if (k > 0 && j != 0 && j != tperb - 1 && len <= MAX_TERM_LEN) {
      if (copied == nullptr) copied = coded;
      writer->_cursor += 1;
      writer->uncompressed_size += len;
      continue;
    }
    int rc = 0;
    if (copied != nullptr) {
      rc = _write_to_pages(writer, copied, static_cast<uint64_t>(coded - copied));
      copied = nullptr;
      if (rc != 0) return _set_rc(w, rc);
    }
    // The first shares with the lower half's last term what it shares.
    if (k == 0) {
      lcp = shared_prefix(term, len, writer->prev_term, writer->prev_len);
    } else {
      // The writer's previous term is the one before, of which only the
      // length is looked at: its first lcp bytes are this term's.
      memcpy(writer->prev_term, term, lcp);
      writer->prev_len = prev_len;
    }
    if ((rc = _lex_writer_put_next(writer, term, len, lcp)) != 0) return _set_rc(w, rc);
  }
  if (copied != nullptr) {
    const int rc = _write_to_pages(writer, copied, static_cast<uint64_t>(end - copied));
    if (rc != 0) return _set_rc(w, rc);
    memcpy(writer->prev_term, term, len + 1);
    writer->prev_len = len;
  }
  memcpy(which + base, up->which, sizeof(bmap_t) * uint64_t{up->terms._cursor});
  return 0;
}


// Sets up the upper half of a split merge over the n sources (fds, offsets;
// lower[i] the lower half's cursor, at its first term): the pivot is the
// middle term of the source with the most terms; split[i] receives source
// i's first term at or above it. False when the merge is not split.
bool place_upper_lexicon(upper_lexicon* up, const int* fds, const uint64_t* offsets, uint32_t n,
                         lex_merge_cxt* lower, uint32_t* split) noexcept {
  uint32_t largest = 0;
  uint64_t all = 0;
  for (uint32_t i = 0; i < n; ++i) {
    all += lower[i]._reader._bor._nterms;
    if (lower[i]._reader._bor._nterms > lower[largest]._reader._bor._nterms) largest = i;
  }
  if (all == 0) return false;
  up->n = n;
  up->cxts.reset(new (std::nothrow) lex_merge_cxt[n]());
  if (!up->cxts) return false;
  uint64_t upper_terms = 0;
  char* const pivot = up->pivot;
  for (uint32_t k = 0; k <= n; ++k) {
    // The largest source first, for the pivot.
    const uint32_t i = k == 0 ? largest : k - 1;
    if (k > 0 && i == largest) continue;
    lex_merge_cxt* c = &up->cxts[i];
    if (_lex_reader_open(&c->_reader, fds[i], offsets[i]) != 0) return false;
    const uint32_t terms = c->_reader._bor._nterms;
    if (k == 0) {
      if (seek_cursor(c, terms / 2) != 0) return false;
      memcpy(pivot, c->_cur_term, c->_cur_len + 1);
      up->pivot_len = c->_cur_len;
    }
    const int64_t at = first_at_or_above(c, pivot);
    if (at < 0 || seek_cursor(c, static_cast<uint32_t>(at)) != 0) return false;
    split[i] = static_cast<uint32_t>(at);
    upper_terms += terms - split[i];
  }
  if (upper_terms == 0 || upper_terms == all) return false;
  up->which = static_cast<bmap_t*>(calloc(upper_terms, sizeof(bmap_t)));
  if (up->which == nullptr) return false;
  up->terms.prev_term[0] = '\0';
  return true;
}

}  // namespace

int st_fclex_merge_n(int verbose, const int* fds, const uint64_t* offsets, uint32_t src_sz,
                     uint32_t tperb, uint64_t page_sz, lex_writer* writer, uint32_t* merged_terms,
                     bmap_t** which_srcs_o, uint64_t* src_end_offsets, wrc* w) noexcept {
  return _fclex_merge_n_split(verbose, fds, offsets, src_sz, tperb, page_sz, writer, merged_terms, which_srcs_o,
                              src_end_offsets, w, FCLEX_MIN_SPLIT_TERMS);
}

int _fclex_merge_n_split(int verbose, const int* fds, const uint64_t* offsets, uint32_t src_sz, uint32_t tperb,
                         uint64_t page_sz, lex_writer* writer, uint32_t* merged_terms, bmap_t** which_srcs_o,
                         uint64_t* src_end_offsets, wrc* w, uint64_t min_split_terms,
                         const lex_upper_hook* hook, uint32_t* lower_terms_o,
                         const uint32_t* header_terms) noexcept {
  if (lower_terms_o != nullptr) *lower_terms_o = 0;
  ST_ASSERT_TEXT(src_sz <= _bmap_size_bits(bmap_t{}),
                 "src_sz <= _bmap_size_bits( *which_srcs_o )");
  _set_rc(w, 0);
  *writer = lex_writer{};
  *merged_terms = 0;
  *which_srcs_o = nullptr;

  std::unique_ptr<lex_merge_cxt[]> cxts(new (std::nothrow) lex_merge_cxt[src_sz == 0 ? 1 : src_sz]());
  if (!cxts) return _set_rc(w, WS_ENOMEM);
  struct close_all {
    lex_merge_cxt* c;
    uint32_t n;
    ~close_all() {
      for (uint32_t i = 0; i < n; ++i) {
        if (c[i]._reader.buf != nullptr) _lex_reader_close(&c[i]._reader);
      }
    }
  } closer{cxts.get(), src_sz};

  uint64_t total = 0;
  for (uint32_t i = 0; i < src_sz; ++i) {
    int rc = _lex_reader_open(&cxts[i]._reader, fds[i], offsets[i]);
    if (rc != 0) return _set_rc_verbose(w, rc, static_cast<int>(i), "_lex_reader_open in st_fclex_merge_n");
    // The lexicon must hold as many terms as its file says: with fewer, the
    // postings of the missing terms would be left behind unnoticed.
    if (header_terms != nullptr && cxts[i]._reader._bor._nterms != header_terms[i]) {
      return _set_rc_verbose(w, WS_EDATA, static_cast<int>(i),
                             "lexicon term count differs from the header in st_fclex_merge_n");
    }
    total += cxts[i]._reader._bor._nterms;
    rc = _reload_term(&cxts[i]);
    if (rc != 0) return _set_rc_verbose(w, rc, static_cast<int>(i), "_reload_term in st_fclex_merge_n");
  }
  if (total > 0xFFFFFFFFu) return _set_rc(w, WS_E32BIT);

  *which_srcs_o = static_cast<bmap_t*>(calloc(total == 0 ? 1 : total, sizeof(bmap_t)));
  if (*which_srcs_o == nullptr) return _set_rc(w, WS_ENOMEM);

  if (total > 0 || src_sz == 0) {
    // Zero sources cannot open a writer (it asserts on zero expected terms).
    int rc = _lex_writer_open(verbose, writer, tperb, page_sz, static_cast<uint32_t>(total));
    if (rc != 0) return _set_rc(w, rc);
    // A large merge is split at a pivot term: the terms above it are merged
    // on a second thread while this one merges those below, then appended.
    // Whenever the upper half fails, this merge goes on through the terms
    // above the pivot itself, so codes and messages are those of one pass.
    upper_lexicon up;
    uint32_t split[32];
    std::thread upper_thread;
    if (total >= min_split_terms && place_upper_lexicon(&up, fds, offsets, src_sz, cxts.get(), split)) {
      (void)start_worker(&upper_thread, [&up, &split, hook] {
        up.rc = merge_loop(up.cxts.get(), up.n, &up.terms, up.which, &up.w, nullptr, false);
        if (up.rc == 0 && hook != nullptr) hook->fn(hook->cookie, up.which, up.terms._cursor, split);
      });
    }
    if (!upper_thread.joinable()) {
      rc = merge_loop(cxts.get(), src_sz, writer, *which_srcs_o, w, nullptr, false);
      if (rc != 0) return rc;
    } else {
      rc = merge_loop(cxts.get(), src_sz, writer, *which_srcs_o, w, split, false, up.pivot, up.pivot_len);
      upper_thread.join();
      if (rc != 0 && rc != PIVOT_REACHED) return rc;
      if (rc == 0 && up.rc == 0) {
        const uint32_t lower_terms = writer->_cursor;
        rc = append_upper(&up, writer, *which_srcs_o, w);
        if (rc == 0 && lower_terms_o != nullptr) *lower_terms_o = lower_terms;
      } else {
        rc = merge_loop(cxts.get(), src_sz, writer, *which_srcs_o, w, nullptr, true);
      }
      if (rc != 0) return rc;
    }
  }

  *merged_terms = writer->_cursor;
  for (uint32_t i = 0; i < src_sz; ++i) {
    uint64_t size = 0;
    int rc = _lex_reader_get_size(&cxts[i]._reader, &size);
    if (rc != 0) return _set_rc_verbose(w, rc, static_cast<int>(i), "_lex_reader_get_size in st_fclex_merge_n");
    src_end_offsets[i] = offsets[i] + size;
  }
  return 0;
}

}  // namespace tarnix
