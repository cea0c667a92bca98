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
#include <vector>

#include "searchthing/check.h"
#include "searchthing/codes.h"

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

int _lex_writer_put(lex_writer* w, const char* term, uint64_t length) noexcept {
  ST_ASSERT_TEXT(w->tperb != 0, "tperb");
  // A stored term is at most 2047 bytes: every reader decodes into a buffer
  // of 2048, and the previous term is kept in one.
  if (length > MAX_TERM_LEN) return WS_E32BIT;
  uint32_t j = w->_cursor % w->tperb;
  auto len = static_cast<uint32_t>(length);
  int rc = 0;
  if (j == 0) {
    // Duplicates are dropped here, silently: the merge relies on it.
    if (strlen(w->prev_term) == len && memcmp(w->prev_term, term, len) == 0) return 0;
    if (w->_blocks_off != 0) {
      if (w->_blocks_off > 0xFFFFFFFFu) return WS_E32BIT;
      ST_ASSERT(w->_bo_idx < offset_slots(w));
      w->_block_end_offsets[w->_bo_idx++] = static_cast<uint32_t>(w->_blocks_off);
    }
    if ((rc = write_vbe(w, len)) != 0 || (rc = _write_to_pages(w, term, len)) != 0) return rc;
    memcpy(w->prev_term, term, len);
    w->prev_term[len] = '\0';
  } else {
    uint32_t p = 0;
    while (p < len && w->prev_term[p] != '\0' && w->prev_term[p] == term[p]) ++p;
    if (p == len) return 0;  // repeats the previous term
    if (j < w->tperb - 1) {
      if ((rc = write_vbe(w, p)) != 0 || (rc = write_vbe(w, len - p)) != 0) return rc;
    } else {
      ST_ASSERT_TEXT(w->_cursor % w->tperb == w->tperb - 1, "writer->_cursor % tperb == tperb -1");
      if ((rc = write_vbe(w, p)) != 0) return rc;
    }
    if ((rc = _write_to_pages(w, term + p, len - p)) != 0) return rc;
    memcpy(w->prev_term + p, term + p, len - p);
    w->prev_term[len] = '\0';
  }
  w->_cursor += 1;
  w->uncompressed_size += len;
  return 0;
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

  uint64_t cap = _max_block_size(tperb < count ? tperb : count);
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
                            &c->_cur_len);
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

// A section whose header holds no terms contributes nothing; it is 12 bytes.
constexpr uint64_t EMPTY_SECTION_SZ = FCLEX_HEADER_SZ;

bool exhausted(const lex_merge_cxt& c) noexcept { return c._cursor >= c._reader._bor._nterms; }

// The first 8 bytes of a term as a big-endian number, zero past its end:
// numbers compare as strcmp compares those bytes, so most comparisons of
// the merge settle on one integer comparison.
inline uint64_t term_key(const char* term, uint32_t len) noexcept {
  const uint64_t k = load_be64(reinterpret_cast<const uint8_t*>(term));  // the buffer holds 2048 bytes
  return len >= 8 ? k : len == 0 ? 0 : k & ~(~uint64_t{0} >> (8 * len));
}

// strcmp's sign for two terms with their keys.
inline int term_cmp(uint64_t ka, const char* a, uint64_t kb, const char* b) noexcept {
  if (ka != kb) return ka < kb ? -1 : 1;
  if ((ka & 0xFF) == 0) return 0;  // both end within the key's bytes
  return strcmp(a + 8, b + 8);
}

// Order of the live cursors: by current term, ties to the lower index, as
// _find_smallest_term picks them. A binary heap of cursor numbers in that
// order gives the same smallest cursor and the same drain bound (the
// smallest term among the others) with O(log n) comparisons per drain
// instead of a scan of every source.
struct cursor_heap {
  lex_merge_cxt* cxts;
  uint64_t keys[32];   // term_key of each cursor's current term
  uint32_t items[32];
  uint32_t n = 0;

  bool below(uint32_t a, uint32_t b) const noexcept {
    int c = term_cmp(keys[a], cxts[a]._cur_term, keys[b], cxts[b]._cur_term);
    return c < 0 || (c == 0 && a < b);
  }
  void push(uint32_t v) noexcept {
    keys[v] = term_key(cxts[v]._cur_term, cxts[v]._cur_len);
    uint32_t i = n++;
    while (i > 0) {
      uint32_t parent = (i - 1) / 2;
      if (!below(v, items[parent])) break;
      items[i] = items[parent];
      i = parent;
    }
    items[i] = v;
  }
  uint32_t pop() noexcept {
    uint32_t top = items[0];
    uint32_t v = items[--n];
    uint32_t i = 0;
    for (;;) {
      uint32_t c = 2 * i + 1;
      if (c >= n) break;
      if (c + 1 < n && below(items[c + 1], items[c])) ++c;
      if (!below(items[c], v)) break;
      items[i] = items[c];
      i = c;
    }
    if (n > 0) items[i] = v;
    return top;
  }
};

int merge_loop(lex_merge_cxt* cxts, uint32_t n, lex_writer* writer, bmap_t* which_srcs,
               wrc* w) noexcept {
  cursor_heap heap{cxts, {}, {}, 0};
  for (uint32_t i = 0; i < n; ++i) {
    if (exhausted(cxts[i])) continue;
    ST_ASSERT_TEXT(cxts[i]._cur_term[0] != '\0', "cur_term[0] != '\\0'");
    heap.push(i);
  }
  while (heap.n > 0) {
    const uint32_t s = heap.pop();
    lex_merge_cxt* cxt = &cxts[s];
    const uint32_t b = heap.n > 0 ? heap.items[0] : 0;
    const char* bound = heap.n > 0 ? cxts[b]._cur_term : nullptr;
    const uint64_t bound_key = heap.n > 0 ? heap.keys[b] : 0;
    uint64_t key = heap.keys[s];
    // Drain the smallest source up to (and including) the second-smallest
    // term: equal terms are written once, and the repeat from the next
    // source lands its bit on the same merged term.
    while (!exhausted(*cxt) && (bound == nullptr || term_cmp(key, cxt->_cur_term, bound_key, bound) <= 0)) {
      ST_ASSERT_TEXT(cxt->_cursor < cxt->_reader._bor._nterms,
                     "cxt->_cursor < cxt->_reader._bor._nterms");
      int rc = _lex_writer_put(writer, cxt->_cur_term, cxt->_cur_len);
      if (rc != 0) return _set_rc(w, rc);
      ST_ASSERT(writer->_cursor > 0);
      _bmap_set(&which_srcs[writer->_cursor - 1], s);
      // A term that cannot be decoded must stop the merge: carrying on with
      // the stale term would give bitmaps that name the wrong sources.
      uint32_t r = _increment_cursor(cxt);
      if (r != 0 && r != 0xFFFFFFFFu)
        return _set_rc_verbose(w, static_cast<int>(r), static_cast<int>(s),
                               "_reload_term in st_fclex_merge_n");
      if (exhausted(*cxt)) break;
      // Terms of a source must strictly ascend (the writer's previous term
      // is the one just consumed): a damaged source out of order would
      // give an unsorted merged lexicon and bitmaps that renumber postings
      // onto the wrong terms. (key is still the key of that term.)
      const uint64_t next_key = term_key(cxt->_cur_term, cxt->_cur_len);
      if (term_cmp(next_key, cxt->_cur_term, key, writer->prev_term) <= 0)
        return _set_rc_verbose(w, WS_EDATA, static_cast<int>(s), "terms out of order in st_fclex_merge_n");
      key = next_key;
    }
    if (!exhausted(*cxt)) {
      ST_ASSERT_TEXT(cxt->_cur_term[0] != '\0', "cur_term[0] != '\\0'");
      heap.push(s);
    }
  }
  return 0;
}

}  // namespace

int st_fclex_merge_n(int verbose, const int* fds, const uint64_t* offsets, uint32_t src_sz,
                     uint32_t tperb, uint64_t page_sz, lex_writer* writer, uint32_t* merged_terms,
                     bmap_t** which_srcs_o, uint64_t* src_end_offsets, wrc* w) noexcept {
  ST_ASSERT_TEXT(src_sz <= _bmap_size_bits(bmap_t{}),
                 "src_sz <= _bmap_size_bits( *which_srcs_o )");
  _set_rc(w, 0);
  *writer = lex_writer{};
  *merged_terms = 0;
  *which_srcs_o = nullptr;

  std::unique_ptr<lex_merge_cxt[]> cxts(new (std::nothrow) lex_merge_cxt[src_sz == 0 ? 1 : src_sz]());
  if (!cxts) return _set_rc(w, WS_ENOMEM);
  std::vector<bool> empty(src_sz, false);
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
    if (rc == WS_EEMPTYLEX && cxts[i]._reader._bor._nterms == 0) {
      // A source without terms is merged as an exhausted cursor, so that a
      // file whose lexicon is empty does not stop the merge of its partners.
      empty[i] = true;
      continue;
    }
    if (rc != 0) return _set_rc_verbose(w, rc, static_cast<int>(i), "_lex_reader_open in st_fclex_merge_n");
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
    rc = merge_loop(cxts.get(), src_sz, writer, *which_srcs_o, w);
    if (rc != 0) return rc;
  }

  *merged_terms = writer->_cursor;
  for (uint32_t i = 0; i < src_sz; ++i) {
    uint64_t size = EMPTY_SECTION_SZ;
    if (!empty[i]) {
      int rc = _lex_reader_get_size(&cxts[i]._reader, &size);
      if (rc != 0)
        return _set_rc_verbose(w, rc, static_cast<int>(i), "_lex_reader_get_size in st_fclex_merge_n");
    }
    src_end_offsets[i] = offsets[i] + size;
  }
  return 0;
}

}  // namespace tarnix
