// N-way merge of index files. Phases, in order: source headers, values (id
// mapping), attribute columns, lexicon (source bitmaps), posting lists and
// their offset table (per-term counts), term metadata, and the target header
// last. Every source is read with positional reads only, in large chunks;
// the target is written in large positional writes. Memory: the id mapping
// (4 bytes per source value), bitmaps and counts (4 bytes each per target
// term), one column buffer per side, the lexicon writer's pages and fixed
// per-source buffers.
#include "searchthing/warmslice_merge.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "searchthing/check.h"
#include "searchthing/codes.h"
#include "searchthing/fclex.h"
#include "searchthing/warmslice.h"
#include "searchthing/worker.h"

namespace tarnix {

namespace {

struct free_deleter {
  void operator()(void* p) const noexcept { free(p); }
};
template <class T>
using c_ptr = std::unique_ptr<T, free_deleter>;

template <class T>
c_ptr<T> c_alloc(uint64_t n, bool zero) noexcept {
  const uint64_t bytes = std::max<uint64_t>(n, 1) * sizeof(T);
  return c_ptr<T>(static_cast<T*>(zero ? calloc(1, bytes) : malloc(bytes)));
}

// Length of an open file, or UINT64_MAX when it cannot be had (no check).
uint64_t file_length(int fd) noexcept {
  struct stat st;
  if (fstat(fd, &st) != 0 || st.st_size < 0) return UINT64_MAX;
  return static_cast<uint64_t>(st.st_size);
}

// ---- Columns ----------------------------------------------------------------------

using hdr_word_fn = uint32_t (*)(const warm_header*) noexcept;
using hdr_offset_fn = file_offset_t (*)(const warm_header*) noexcept;

struct column_desc {
  hdr_word_fn get_nbits;
  hdr_word_fn get_size;
  hdr_offset_fn get_offset;
  hdr_field nbits_field;
  hdr_field size_field;
};

// The five attribute columns, in the order they are merged and laid out.
constexpr column_desc COLUMNS[] = {
    {et_nbits, et_size, _offset_et_array, HDR_ET_NBITS, HDR_ET_SIZE},
    {s_nbits, s_size, _offset_s_array, HDR_S_NBITS, HDR_S_SIZE},
    {st_nbits, st_size, _offset_st_array, HDR_ST_NBITS, HDR_ST_SIZE},
    {h_nbits, h_size, _offset_h_array, HDR_H_NBITS, HDR_H_SIZE},
    {get_nbits_d, d_size, _offset_d_array, HDR_D_NBITS, HDR_D_SIZE},
};

// Bytes that the elements of an n-value column of nbits bits occupy.
constexpr uint64_t column_bytes_needed(uint64_t n, uint64_t nbits) noexcept { return (n * nbits + 7) / 8; }

// Header fields that the column merge would trust blindly: widths outside
// 1..32 (the deleted flag exactly 1) or a size too small for the elements.
// Returns the index of the first bad source, or -1.
int64_t first_bad_column_header(const warm_header* hdrs, uint32_t src_count) noexcept {
  for (uint32_t i = 0; i < src_count; ++i) {
    const warm_header* h = &hdrs[i];
    if (d_nbits(h) != 1) return i;
    for (const column_desc& c : COLUMNS) {
      const uint32_t nb = c.nbits_field == HDR_D_NBITS ? d_nbits(h) : c.get_nbits(h);
      if (nb == 0 || nb > 32 || c.get_size(h) < column_bytes_needed(hdr_num_values(h), nb)) return i;
    }
  }
  return -1;
}

// ---- Values ------------------------------------------------------------------------

struct value_cxt {
  uint32_t* slice;       // this source's part of the id mapping
  tsval_reader reader;   // partial: value records only
  uint32_t cursor;       // next unconsumed value
};

struct value_writer {
  int fd;
  uint32_t cursor;  // values put so far = the next value's new id
  uint32_t bidx;    // records in buf
  uint8_t buf[4096 * TSVAL_RECORD_SZ];
  uint8_t last[TSVAL_RECORD_SZ];
};

int value_writer_put(value_writer* writer, const uint8_t rec[TSVAL_RECORD_SZ]) noexcept {
  if (writer->bidx == 4096) {
    const uint64_t off = WARM_HEADER_REGION_SZ + TSVAL_RECORD_SZ * (uint64_t{writer->cursor} - writer->bidx);
    if (!st_pwrite_full(writer->fd, writer->buf, sizeof(writer->buf), off)) return WS_EWRITE;
    writer->bidx = 0;
  }
  ST_ASSERT_TEXT(writer->bidx < (sizeof(writer->buf) / TSVAL_RECORD_SZ),
                 "writer->bidx < (sizeof(writer->buf) / sizeof(0[writer->buf]))");
  memcpy(writer->buf + TSVAL_RECORD_SZ * writer->bidx, rec, TSVAL_RECORD_SZ);
  writer->bidx++;
  memcpy(writer->last, rec, TSVAL_RECORD_SZ);
  writer->cursor++;
  ST_ASSERT_TEXT(writer->cursor > 0, "writer.cursor > 0");
  return WS_SUCCESS;
}

// ---- Postings ------------------------------------------------------------------------

inline constexpr uint32_t PLO_CACHE_ENTRIES = 0x100000;
// A source whose file holds its whole offset table reads the table through
// a window of this many entries instead: a merge walks each table forward
// once, so the window is refilled in place and stays in the cache, where a
// cache of the whole table takes fresh pages for every entry and makes each
// part of a split merge read the entries of the parts after it too. A
// table cut short keeps the whole cache, so that the first read of it fails
// at the source's first list, as it does without the window.
inline constexpr uint32_t PLO_WINDOW_ENTRIES = 4096;
// Source ids decoded and translated at once: the mapping loads of a batch
// are independent of each other, so their cache misses overlap instead of
// following one another.
inline constexpr uint32_t ID_BATCH = 256;
// A list's first batch is short: most lists are, and where a long one runs
// through ids the mapping moves alike, the rest is moved without a batch.
inline constexpr uint32_t FIRST_BATCH = 16;
// Sources that cover their own stretch of time (as successive slices of an
// indexer do) map runs of consecutive ids onto consecutive target ids. For
// such blocks a table 1/64 the size of the mapping gives the target id
// without touching the mapping, so the part of the mapping a merge keeps
// hot fits the processor's caches; and how far the ids keep moving alike,
// so that a list's postings there can be moved without translating them.
inline constexpr uint32_t DENSE_SHIFT = 6;
inline constexpr uint32_t DENSE_BLOCK = 1u << DENSE_SHIFT;
inline constexpr uint32_t NOT_DENSE = UINT_MAX;

struct id_block {
  uint32_t base;   // target id of the block's first id when the block is dense, else NOT_DENSE
  uint32_t reach;  // ids from the block's first up to (not including) reach map to base onwards
};

// Fills table (one entry per block of n mapping entries).
void dense_blocks(const uint32_t* slice, uint32_t n, id_block* table) noexcept {
  const uint32_t blocks = static_cast<uint32_t>((uint64_t{n} + DENSE_BLOCK - 1) / DENSE_BLOCK);
  for (uint32_t b = 0; b < blocks; ++b) {
    const uint32_t first = b * DENSE_BLOCK;
    const uint32_t len = std::min(DENSE_BLOCK, n - first);
    const uint32_t base = slice[first];
    bool dense = base <= UINT_MAX - DENSE_BLOCK;
    for (uint32_t k = 1; dense && k < len; ++k) dense = slice[first + k] == base + k;
    table[b].base = dense ? base : NOT_DENSE;
  }
  // A dense block reaches on through the next one when that one goes on
  // where it ends.
  for (uint32_t b = blocks; b-- > 0;) {
    const uint32_t first = b * DENSE_BLOCK;
    if (table[b].base == NOT_DENSE) {
      table[b].reach = first;
    } else if (b + 1 < blocks && table[b + 1].base == table[b].base + DENSE_BLOCK) {
      table[b].reach = table[b + 1].reach;
    } else {
      table[b].reach = first + std::min(DENSE_BLOCK, n - first);
    }
  }
}

inline uint64_t dense_block_count(uint32_t num_values) noexcept {
  return (uint64_t{num_values} + DENSE_BLOCK - 1) / DENSE_BLOCK;
}

// The dense-block tables of all sources, one after the other (each source's
// part of the mapping has its own). They are a shortcut only: without
// memory for them (null) every id goes through the mapping.
c_ptr<id_block> dense_tables(const warm_header* src_hdrs, uint32_t src_count, const uint32_t* mapping) noexcept {
  uint64_t entries = 0;
  for (uint32_t i = 0; i < src_count; ++i) entries += dense_block_count(hdr_num_values(&src_hdrs[i]));
  c_ptr<id_block> tables = c_alloc<id_block>(entries, false);
  if (!tables) return tables;
  id_block* next = tables.get();
  const uint32_t* slice = mapping;
  for (uint32_t i = 0; i < src_count; ++i) {
    const uint32_t n = hdr_num_values(&src_hdrs[i]);
    dense_blocks(slice, n, next);
    next += dense_block_count(n);
    slice += n;
  }
  return tables;
}

struct posting_src {
  plist_reader reader;
  uint32_t head;         // target id of the current posting, UINT_MAX when none
  uint32_t term_cursor;  // next source term to read
  uint64_t next_start;   // where that term's list starts: the end of the one before
  const uint32_t* slice; // this source's part of the id mapping
  const id_block* dense; // per block of ids, or null
  uint32_t num_values;   // ids at or above this are corrupt
  bool open;
  uint32_t pos;          // ids[pos] is head
  uint32_t cnt;          // translated ids in ids
  int held_rc;           // fault met after ids[cnt - 1], reported when reached
  bool ended;            // ids[cnt - 1] is the list's last posting
  uint32_t ids[ID_BATCH];
};

// Target id of source id (below the source's values) through the block
// table when its block is dense, else through the mapping.
inline uint32_t target_of(const id_block* dense, const uint32_t* slice, uint32_t id) noexcept {
  const uint32_t base = dense[id >> DENSE_SHIFT].base;
  return base != NOT_DENSE ? base + (id & (DENSE_BLOCK - 1)) : slice[id];
}

struct order_entry {
  uint32_t head;
  uint32_t src;
};

// Next batch of the current list: head becomes its first target id, or
// UINT_MAX at the end of the list. Returns 0 or the fault of the list's next
// value; *beyond tells a source id past the source's values (corrupt data)
// from a read fault. A fault further into the batch is held back until the
// postings before it are taken, so faults surface in the same order as when
// reading one id at a time.
int fill(posting_src* s, bool* beyond, uint32_t cap = ID_BATCH) noexcept {
  *beyond = false;
  s->pos = 0;
  s->cnt = 0;
  s->held_rc = WS_SUCCESS;
  s->ended = false;
  uint32_t n = 0;
  // Most lists hold a single posting (a term seen once in a source).
  uint32_t id;
  if (_take_single(&s->reader, &id)) {
    if (id >= s->num_values) {
      *beyond = true;
      return WS_EDATA;
    }
    s->ids[0] = s->dense != nullptr ? target_of(s->dense, s->slice, id) : s->slice[id];
    s->cnt = 1;
    s->ended = true;
    s->head = s->ids[0];
    return WS_SUCCESS;
  }
  int rc = _next_batch(&s->reader, s->ids, cap, &n);
  if (rc != 0) return rc;
  if (s->ids[0] == UINT_MAX) {
    s->head = UINT_MAX;
    return WS_SUCCESS;
  }
  // Ids are translated up to the first one past the source's values.
  const uint32_t* slice = s->slice;
  const uint32_t num_values = s->num_values;
  uint32_t* ids = s->ids;
  uint32_t good = 0;
  if (const id_block* dense = s->dense) {
    for (; good < n; ++good) {
      const uint32_t id = ids[good];
      if (id >= num_values) break;
      ids[good] = target_of(dense, slice, id);
    }
  } else {
    for (; good < n && ids[good] < num_values; ++good) ids[good] = slice[ids[good]];
  }
  if (good == 0) {
    *beyond = true;
    return WS_EDATA;
  }
  if (good < n) {
    s->held_rc = WS_EDATA;
  } else {
    // Nothing left to decode: the next _next would only give the end.
    s->ended = s->reader.left == 0 && s->reader.pending == 0;
  }
  s->cnt = good;
  s->head = s->ids[0];
  return WS_SUCCESS;
}

// Moves head to the list's next posting (UINT_MAX at the end).
inline int advance(posting_src* s) noexcept {
  if (++s->pos < s->cnt) {
    s->head = s->ids[s->pos];
    return WS_SUCCESS;
  }
  if (s->held_rc != 0) {
    int rc = s->held_rc;
    s->held_rc = WS_SUCCESS;
    return rc;
  }
  if (s->ended) {
    s->head = UINT_MAX;
    return WS_SUCCESS;
  }
  bool beyond;
  return fill(s, &beyond);
}

// A source whose header says it holds no terms takes no part in the
// lexicon and posting merges. Such a file is its fixed part and an empty
// lexicon (two for the versions with a reverse one), without postings. A
// header that says so over anything else is damaged: merged, the file's
// terms would be left out, and the file then removed.
int check_source_without_terms(int fd, const warm_header* h) noexcept {
  constexpr uint64_t EMPTY_LEXICON_SZ = 12;
  const uint64_t lex_off = _offset_fclex(h);
  uint64_t end = lex_off + EMPTY_LEXICON_SZ;
  if (_has_reverse_lex(h)) end = ((end + 3) & ~uint64_t{3}) + EMPTY_LEXICON_SZ;
  uint8_t count[4];
  if (!st_pread_full(fd, count, sizeof count, lex_off)) return WS_EREAD;
  if (load_be32(count) != 0 || hdr_num_postings(h) != 0 || file_length(fd) > end) return WS_EDATA;
  return 0;
}

}  // namespace

uint32_t get_nbits_d(const warm_header* h) noexcept {
  ST_ASSERT_TEXT(d_nbits(h) == 1, "__bswap_32 (header->d_nbits) == 1");
  return 1;
}

warm_header* _read_src_headers(const int* src_fds, uint32_t src_count, wrc* w) noexcept {
  c_ptr<warm_header> hdrs = c_alloc<warm_header>(src_count, true);
  if (!hdrs) {
    _set_rc(w, WS_ENOMEM);
    return nullptr;
  }
  for (uint32_t i = 0; i < src_count; ++i) {
    warm_header* h = hdrs.get() + i;
    if (!st_pread_full(src_fds[i], h->b, WARM_HEADER_SZ, 0)) {
      _set_rc_verbose(w, WS_EREAD, static_cast<int>(i), "pread warm header failure");
      return nullptr;
    }
    if (!verify_magic(h)) {
      _set_rc_verbose(w, WS_EMAGIC, static_cast<int>(i), "invalid magic");
      return nullptr;
    }
    if (hdr_num_terms(h) == 0) {
      const int rc = check_source_without_terms(src_fds[i], h);
      if (rc != 0) {
        _set_rc_verbose(w, rc, static_cast<int>(i), "header without terms over a file with terms");
        return nullptr;
      }
    }
  }
  return hdrs.release();
}

uint32_t* _merge_values(const int* src_fds, const warm_header* src_hdrs, uint32_t src_count, int tgt_fd,
                        warm_header* tgt_hdr, wrc* w, int tstats) noexcept {
  _set_rc(w, WS_SUCCESS);
  c_ptr<value_cxt> cxts = c_alloc<value_cxt>(src_count, true);
  if (!cxts) {
    _set_rc(w, WS_ENOMEM);
    return nullptr;
  }
  value_cxt* cx = cxts.get();
  uint32_t opened = 0;
  auto close_readers = [&]() noexcept {
    for (uint32_t i = 0; i < opened; ++i) _tsval_reader_close(&cx[i].reader);
  };
  uint64_t total = 0;
  for (uint32_t i = 0; i < src_count; ++i) {
    const uint32_t n = hdr_num_values(&src_hdrs[i]);
    int rc = _tsval_reader_open_partial(&cx[i].reader, src_fds[i], n, _offset_values(&src_hdrs[i]), 4096);
    if (rc != 0) {
      _set_rc_verbose(w, rc, static_cast<int>(i), "_tsval_reader_open_partial in _merge_values");
      close_readers();
      return nullptr;
    }
    opened++;
    total += n;
  }
  // A header that claims more values than its file holds would fail with a
  // short read while merging; refuse it before the mapping is sized by it.
  for (uint32_t i = 0; i < src_count; ++i) {
    const uint64_t need = _offset_values(&src_hdrs[i]) + TSVAL_RECORD_SZ * uint64_t{hdr_num_values(&src_hdrs[i])};
    if (file_length(src_fds[i]) < need) {
      _set_rc(w, WS_EREAD);
      close_readers();
      return nullptr;
    }
  }
  c_ptr<uint32_t> mapping = c_alloc<uint32_t>(total, true);
  if (!mapping) {
    _set_rc(w, WS_ENOMEM);
    close_readers();
    return nullptr;
  }
  uint64_t start = 0;
  for (uint32_t i = 0; i < src_count; ++i) {
    cx[i].slice = mapping.get() + start;
    start += hdr_num_values(&src_hdrs[i]);
  }

  c_ptr<value_writer> wp = c_alloc<value_writer>(1, false);
  if (!wp) {
    _set_rc(w, WS_ENOMEM);
    close_readers();
    return nullptr;
  }
  value_writer& writer = *wp;
  writer.fd = tgt_fd;
  writer.cursor = 0;
  writer.bidx = 0;

  tsval best{};
  tsval second{};
  tsval scratch{};
  for (;;) {
    // Ties keep the earlier source as best, and the earlier of equal
    // runners-up as second: a later source wins only when strictly below.
    int64_t best_i = -1;
    int64_t second_i = -1;
    uint32_t active = 0;
    for (uint32_t i = 0; i < src_count; ++i) {
      if (cx[i].cursor == cx[i].reader._num_values) continue;
      int rc = _tsval_reader_decode(&cx[i].reader, cx[i].cursor, &scratch);
      if (rc != 0) {
        _set_rc(w, rc);
        goto done;
      }
      active++;
      if (best_i < 0) {
        best_i = i;
        best = scratch;
      } else if (st_tsval_compare(&scratch, &best) < 0) {
        second_i = best_i;
        second = best;
        best_i = i;
        best = scratch;
      } else if (second_i < 0 || st_tsval_compare(&scratch, &second) < 0) {
        second_i = i;
        second = scratch;
      }
    }
    if (active == 0) break;
    {
      value_cxt* cxt = &cx[best_i];
      for (;;) {
        // At equal records the draining source goes on: a value that a scan
        // finds in several sources comes first from the earliest of them,
        // but one that the draining source reaches while it equals another
        // source's head comes first from the draining source.
        if (active > 1 && st_tsval_compare(&best, &second) > 0) break;
        ST_ASSERT_TEXT(cxt->cursor < cxt->reader._num_values, "cxt->cursor < cxt->reader._num_values");
        uint8_t rec[TSVAL_RECORD_SZ];
        store_be32(rec, static_cast<uint32_t>(best.timestamp));
        store_be32(rec + 4, best.event_address);
        uint32_t new_id;
        if (tstats == 0 && writer.cursor != 0 && memcmp(rec, writer.last, TSVAL_RECORD_SZ) == 0) {
          new_id = writer.cursor - 1;  // a duplicate shares the first copy's id
        } else {
          int rc = value_writer_put(&writer, rec);
          if (rc != 0) {
            _set_rc(w, rc);
            goto done;
          }
          new_id = writer.cursor - 1;
        }
        cxt->slice[cxt->cursor] = new_id;
        cxt->cursor++;
        if (cxt->cursor == cxt->reader._num_values) break;
        int rc = _tsval_reader_decode(&cxt->reader, cxt->cursor, &best);
        if (rc != 0) {
          _set_rc(w, rc);
          goto done;
        }
      }
    }
  }
  hdr_set(tgt_hdr, HDR_NUM_VALUES, writer.cursor);
  if (writer.bidx > 0) {
    const uint64_t off = _offset_values(tgt_hdr) + TSVAL_RECORD_SZ * (uint64_t{writer.cursor} - writer.bidx);
    if (!st_pwrite_full(tgt_fd, writer.buf, TSVAL_RECORD_SZ * uint64_t{writer.bidx}, off)) _set_rc(w, WS_EWRITE);
  }
done:
  writer.fd = -1;
  close_readers();
  if (w->warm_rc != WS_SUCCESS) return nullptr;
  return mapping.release();
}

int _merge_array(const int* src_fds, const warm_header* src_hdrs, uint32_t src_count, const uint32_t* mapping,
                 int tgt_fd, warm_header* tgt_hdr, wrc* w) noexcept {
  // The element loops below index by the header's widths and sizes; a
  // header that would make them reach outside the column is corrupt.
  int64_t bad = first_bad_column_header(src_hdrs, src_count);
  if (bad >= 0) return _set_rc_verbose(w, WS_EDATA, static_cast<int>(bad), "invalid column header in _merge_arrays");

  const uint32_t tgt_values = hdr_num_values(tgt_hdr);
  for (const column_desc& c : COLUMNS) {
    uint32_t width = src_count > 0 ? c.get_nbits(&src_hdrs[0]) : 0;
    for (uint32_t i = 1; i < src_count; ++i) width = std::max(width, c.get_nbits(&src_hdrs[i]));
    hdr_set(tgt_hdr, c.nbits_field, width);
    hdr_set(tgt_hdr, c.size_field, static_cast<uint32_t>(column_size(tgt_values, width)));
  }
  _set_rc(w, WS_SUCCESS);

  // A column that lies beyond the end of its file would fail with a short
  // read; find the first such (column, source) before sizing buffers by it.
  uint64_t lengths[32];
  for (uint32_t i = 0; i < src_count && i < 32; ++i) lengths[i] = file_length(src_fds[i]);
  for (const column_desc& c : COLUMNS) {
    for (uint32_t i = 0; i < src_count; ++i) {
      const uint64_t len = i < 32 ? lengths[i] : file_length(src_fds[i]);
      if (c.get_offset(&src_hdrs[i]) + c.get_size(&src_hdrs[i]) > len) {
        return _set_rc_verbose(w, WS_EREAD, static_cast<int>(i), "pread for _merge_arrays");
      }
    }
  }

  uint64_t tgt_ar_cap = 0;
  uint64_t src_ar_cap = 0;
  for (const column_desc& c : COLUMNS) {
    tgt_ar_cap = std::max<uint64_t>(tgt_ar_cap, c.get_size(tgt_hdr));
    for (uint32_t i = 0; i < src_count; ++i) src_ar_cap = std::max<uint64_t>(src_ar_cap, c.get_size(&src_hdrs[i]));
  }
  // Eight bytes of room past each column for copies of whole stretches.
  c_ptr<uint8_t> tgt_buf = c_alloc<uint8_t>(tgt_ar_cap + 8, false);
  c_ptr<uint8_t> src_buf = c_alloc<uint8_t>(src_ar_cap + 8, false);
  if (!tgt_buf || !src_buf) return _set_rc(w, WS_ENOMEM);

  for (const column_desc& c : COLUMNS) {
    const uint32_t tgt_array_size = c.get_size(tgt_hdr);
    const uint32_t tgt_width = c.get_nbits(tgt_hdr);
    ST_ASSERT(tgt_array_size <= tgt_ar_cap);
    memset(tgt_buf.get(), 0, tgt_array_size);
    const uint32_t* slice = mapping;
    for (uint32_t i = 0; i < src_count; ++i) {
      const warm_header* sh = &src_hdrs[i];
      const uint32_t width = c.get_nbits(sh);
      const uint32_t size = c.get_size(sh);
      const uint64_t off = c.get_offset(sh);
      ST_ASSERT_TEXT(off % 8 == 0, "get_offset(&src_hdrs[i]) % 8 == 0");
      ST_ASSERT(size <= src_ar_cap);
      if (!st_pread_full(src_fds[i], src_buf.get(), size, off)) {
        return _set_rc_verbose(w, WS_EREAD, static_cast<int>(i), "pread for _merge_arrays");
      }
      // Elements are re-placed, never translated; a later source's element
      // overwrites an earlier one at the same target value. Where the
      // mapping keeps a stretch of a source's values together (an
      // indexer's slices map whole stretches onto consecutive values) and
      // the widths agree, the stretch's bits move at once. Elements of 32
      // bits read as 0 and stay element by element, as do bit positions
      // past 32 bits, which the element code computes modulo 2^32.
      const uint32_t n = hdr_num_values(sh);
      const uint8_t* src = src_buf.get();
      uint8_t* tgt = tgt_buf.get();
      const bool stretches = width == tgt_width && width > 0 && width < 32 &&
                             uint64_t{n} * width <= 0xFFFFFFFFu && uint64_t{tgt_values} * width <= 0xFFFFFFFFu;
      constexpr uint32_t MIN_STRETCH = 32;
      for (uint32_t j = 0; j < n;) {
        uint32_t k = j + 1;
        if (stretches) {
          while (k < n && slice[k] == slice[k - 1] + 1) ++k;
        }
        if (k - j >= MIN_STRETCH) {
          copy_bits(tgt, uint64_t{slice[j]} * width, src, uint64_t{j} * width, uint64_t{k - j} * width);
          j = k;
          continue;
        }
        for (; j < k; ++j) encode_to_byte_str(tgt, decode_from_byte_str(src, j, width), slice[j], tgt_width);
      }
      slice += n;
    }
    const uint64_t tgt_off = c.get_offset(tgt_hdr);
    ST_ASSERT_TEXT(tgt_off % 8 == 0, "get_offset( tgt_hdr ) % 8 == 0");
    if (!st_pwrite_full(tgt_fd, tgt_buf.get(), tgt_array_size, tgt_off)) return _set_rc(w, WS_EWRITE);
  }
  return WS_SUCCESS;
}

namespace {

// A lexicon merge split in two: the merge proper, which reads only the
// sources and may run beside the value and column merges, and the rest,
// which writes the merged section at its place in the target (known once
// the columns are sized).
struct lexicon_merge {
  // inputs
  int verbose = 0;
  const int* src_fds = nullptr;
  const warm_header* src_hdrs = nullptr;
  uint32_t src_count = 0;
  uint32_t lex_tpb = 0;
  uint64_t page_size = 0;
  // results of run()
  wrc w{};
  int rc = 0;
  uint32_t active = 0;        // sources that take part (hold terms)
  uint32_t index_of[32] = {};
  uint32_t num_terms = 0;
  bmap_t* which = nullptr;
  lex_writer writer{};
  bool writer_open = false;
  uint64_t ends[32] = {};
  const lex_upper_hook* hook = nullptr;  // work to follow the upper half of a split merge
  uint32_t lower_terms = 0;              // merged terms below the split, 0 when not split

  ~lexicon_merge() {
    if (writer_open) _lex_writer_discard(&writer);
    _bmap_free(which);
  }

  // The merge proper; its code is left in rc and w.
  void run() noexcept {
    const bmap_t bm_probe = 0;
    ST_ASSERT_TEXT(src_count <= _bmap_size_bits(bm_probe), "src_sz <= _bmap_size_bits( *which_srcs_o )");
    _set_rc(&w, WS_SUCCESS);
    // A source without terms has no lexicon to read (its section cannot
    // hold zero terms); it takes no part and gets no bit.
    int fds[32];
    uint64_t offsets[32];
    uint32_t header_terms[32];
    for (uint32_t i = 0; i < src_count; ++i) {
      if (hdr_num_terms(&src_hdrs[i]) == 0) continue;
      fds[active] = src_fds[i];
      offsets[active] = _offset_fclex(&src_hdrs[i]);
      header_terms[active] = hdr_num_terms(&src_hdrs[i]);
      index_of[active] = i;
      active++;
    }
    if (active > 0) {
      rc = _fclex_merge_n_split(verbose, fds, offsets, active, lex_tpb, page_size, &writer, &num_terms, &which, ends,
                                &w, FCLEX_MIN_SPLIT_TERMS, hook, &lower_terms, header_terms);
      writer_open = true;
      if (rc != 0 || w.warm_rc != 0) {
        // Codes recorded by the lexicon merge name the index among the
        // sources that took part; give them the caller's numbering.
        if (w.source_index >= 0 && static_cast<uint32_t>(w.source_index) < active) {
          w.source_index = static_cast<int32_t>(index_of[w.source_index]);
        }
        rc = w.warm_rc != 0 ? w.warm_rc : rc;
        return;
      }
    }
    if (num_terms == 0) rc = _set_rc(&w, WS_ENOTAVAIL);
  }

  // Writes the merged section into the target and hands over the bitmaps.
  int finish(int tgt_fd, warm_header* tgt_hdr, bmap_t** which_srcs_o, uint64_t* postings_start,
             uint64_t* tgt_postings_start, wrc* out) noexcept {
    *which_srcs_o = nullptr;
    for (uint32_t i = 0; i < src_count; ++i) postings_start[i] = _offset_fclex(&src_hdrs[i]);
    if (rc != 0) {
      *out = w;
      return rc;
    }
    if (active != src_count) {
      // Bits name positions among the sources that took part.
      for (uint32_t t = 0; t < num_terms; ++t) {
        bmap_t in = which[t];
        bmap_t mapped = 0;
        for (uint32_t k = 0; k < active; ++k) {
          if (in & (bmap_t{1} << k)) mapped |= bmap_t{1} << index_of[k];
        }
        which[t] = mapped;
      }
    }
    for (uint32_t k = 0; k < active; ++k) postings_start[index_of[k]] = ends[k];

    hdr_set(tgt_hdr, HDR_NUM_TERMS, num_terms);
    writer_open = false;
    int wrc_rc = _lex_writer_close(verbose, &writer, tgt_fd, _offset_fclex(tgt_hdr), tgt_postings_start);
    if (wrc_rc != 0) return _set_rc(out, wrc_rc);
    // Versions 3 to 5: the postings follow a second, reverse lexicon.
    for (uint32_t k = 0; k < active; ++k) {
      const uint32_t i = index_of[k];
      if (!_has_reverse_lex(&src_hdrs[i])) continue;
      const uint64_t off = (postings_start[i] + 3) & ~uint64_t{3};
      const uint64_t size = st_fclex_size_fd(src_fds[i], off);
      if (size == 0) return _set_rc_verbose(out, WS_ELEX, static_cast<int>(i), "st_fclex_size_fd for reverse lex");
      postings_start[i] = off + size;
    }
    *which_srcs_o = which;
    which = nullptr;
    return WS_SUCCESS;
  }
};

}  // namespace

int _merge_lexicon(int verbose, const int* src_fds, const warm_header* src_hdrs, uint32_t src_count,
                   uint32_t lex_tpb, uint64_t page_size, int tgt_fd, warm_header* tgt_hdr, bmap_t** which_srcs_o,
                   uint64_t* postings_start, uint64_t* tgt_postings_start, wrc* w) noexcept {
  lexicon_merge lm;
  lm.verbose = verbose;
  lm.src_fds = src_fds;
  lm.src_hdrs = src_hdrs;
  lm.src_count = src_count;
  lm.lex_tpb = lex_tpb;
  lm.page_size = page_size;
  lm.run();
  return lm.finish(tgt_fd, tgt_hdr, which_srcs_o, postings_start, tgt_postings_start, w);
}

namespace {

// Opens one reader per source for a posting merge (each at its first term)
// and points the sources at their part of the id mapping.
int open_posting_sources(posting_src* srcs, const int* src_fds, const warm_header* src_hdrs,
                         const uint64_t* postings_start, uint32_t src_count, const uint32_t* mapping,
                         const id_block* dense, wrc* w) noexcept {
  const uint32_t* slice = mapping;
  for (uint32_t i = 0; i < src_count; ++i) {
    const warm_header* sh = &src_hdrs[i];
    const uint32_t n_terms = hdr_num_terms(sh);
    const uint64_t table_off = _offset_pl_offs(sh);
    const uint32_t plo_size = _get_plo_size(sh);
    const uint64_t postings_size =
        _pl_offset(table_off, n_terms, src_fds[i], plo_size == 8, static_cast<int64_t>(n_terms) - 1);
    const uint64_t length = file_length(src_fds[i]);
    const bool whole = length != UINT64_MAX && length >= table_off + uint64_t{plo_size} * n_terms;
    int rc = _init_reader_helper(&srcs[i].reader, src_fds[i], table_off, n_terms, plo_size, postings_start[i],
                                 postings_size, whole ? PLO_WINDOW_ENTRIES : PLO_CACHE_ENTRIES, nullptr);
    if (rc != 0) return _set_rc_verbose(w, rc, static_cast<int>(i), "_init_reader_helper in _merge_all_postings_n");
    srcs[i].open = true;
    srcs[i].head = UINT_MAX;
    srcs[i].term_cursor = 0;
    srcs[i].next_start = 0;
    srcs[i].slice = slice;
    srcs[i].num_values = hdr_num_values(sh);
    srcs[i].dense = dense;
    if (dense != nullptr) dense += dense_block_count(srcs[i].num_values);
    slice += srcs[i].num_values;
  }
  return WS_SUCCESS;
}

void close_posting_sources(posting_src* srcs, uint32_t src_count) noexcept {
  for (uint32_t i = 0; i < src_count; ++i) {
    if (srcs[i].open) close_plist_reader(&srcs[i].reader);
    srcs[i].open = false;
  }
}

// Merges the lists of term t (bitmap bm) into writer; 0 or the code left in w.
int merge_term_postings(posting_src* srcs, uint32_t src_count, bmap_t bm, plw* writer, wrc* w) noexcept {
  int rc = 0;
  const uint32_t src_sz = src_count;
  ST_ASSERT_TEXT(src_sz <= _bmap_size_bits(bm), "src_sz <= _bmap_size_bits( &bm )");
  // The term's sources ordered by (head, source index): the first is the
  // one to drain, up to the second's head. This is the order of smallest
  // head first with ties to the earlier source.
  order_entry order[32];
  uint32_t n_order = 0;
  // Set bits in ascending order: the sources that hold the term.
  for (bmap_t rest = src_count >= 32 ? bm : bm & ((bmap_t{1} << src_count) - 1); rest != 0; rest &= rest - 1) {
    const uint32_t i = static_cast<uint32_t>(__builtin_ctz(rest));
    posting_src* s = &srcs[i];
    if ((rc = _seek_reader_after(&s->reader, s->term_cursor, s->next_start)) != 0) {
      _set_rc_verbose(w, rc, static_cast<int>(i), "_seek_reader in _merge_all_postings");
      return rc;
    }
    s->term_cursor++;
    s->next_start += s->reader.left;
    bool beyond = false;
    if ((rc = fill(s, &beyond, FIRST_BATCH)) != 0) {
      _set_rc_verbose(w, rc, static_cast<int>(i),
                      beyond ? "src_tsval_id beyond the values in _merge_all_postings"
                             : "_next in _merge_all_postings");
      return rc;
    }
    if (s->head == UINT_MAX) {
      _set_rc_verbose(w, WS_ENOTAVAIL, static_cast<int>(i), "src_tsval_id is UINT_MAX in _merge_all_postings");
      return WS_ENOTAVAIL;
    }
    // Sources come in ascending index order: an equal head stays behind.
    uint32_t j = n_order++;
    while (j > 0 && order[j - 1].head > s->head) {
      order[j] = order[j - 1];
      --j;
    }
    order[j] = {s->head, i};
  }
  // Source lists ascend strictly (the reader refuses anything else) and
  // the value merge hands out ids in the order it consumes each source,
  // so every source's heads ascend and the merged list never goes back.
  _plist_writer_start_term(writer);
  uint32_t lo = 0;
  while (lo < n_order) {
    posting_src* best = &srcs[order[lo].src];
    const uint32_t bound = lo + 1 < n_order ? order[lo + 1].head : UINT_MAX;
    for (;;) {
      // The batch's ids up to the bound go out without looking back at
      // the other sources (ids ascend, so the first one past it ends the
      // drain). With a single source left the bound is UINT_MAX, which no
      // id reaches.
      const uint32_t first = best->pos;
      const uint32_t cnt = best->cnt;
      uint32_t k = first;
      while (k < cnt && best->ids[k] <= bound) ++k;
      if ((rc = _plist_writer_put_run(writer, best->ids + first, k - first, nullptr)) != 0) {
        _set_rc(w, rc);
          return rc;
      }
      if (k < cnt) {
        best->pos = k;
        best->head = best->ids[k];
        break;
      }
      best->pos = cnt - 1;
      if (best->held_rc == 0 && !best->ended && best->dense != nullptr) {
        // The batch went out whole. Where the list goes on inside a stretch
        // of ids that the mapping moves alike, its postings up to the bound
        // go from the reader to the writer without a batch.
        const uint32_t cur = best->reader.current;
        const uint32_t target = best->ids[cnt - 1];  // cur's target id, at most bound
        const uint32_t reach = best->dense[cur >> DENSE_SHIFT].reach;
        if (cur < reach) {
          const uint64_t room = bound == UINT_MAX ? UINT_MAX : uint64_t{bound} - target;
          const auto limit = static_cast<uint32_t>(std::min<uint64_t>(reach - 1, uint64_t{cur} + room));
          if ((rc = _plist_move(&best->reader, writer, limit, target - cur)) != 0) {
            _set_rc(w, rc);
            return rc;
          }
        }
      }
      if ((rc = advance(best)) != 0) {
        _set_rc(w, rc);
          return rc;
      }
      if (best->head == UINT_MAX || best->head > bound) break;
    }
    if (best->head == UINT_MAX) {
      ++lo;
      continue;
    }
    // Its new head lies past the second's: move it back to its place.
    const order_entry moved{best->head, order[lo].src};
    uint32_t j = lo;
    while (j + 1 < n_order && (order[j + 1].head < moved.head ||
                               (order[j + 1].head == moved.head && order[j + 1].src < moved.src))) {
      order[j] = order[j + 1];
      ++j;
    }
    order[j] = moved;
  }
  return _plist_writer_end_term(writer);
}

// Most memory the upper part's output may take, and the fewest terms on
// either side of a split.
constexpr uint64_t UPPER_MAX_BYTES = 48u << 20;
constexpr uint32_t UPPER_MIN_TERMS = 1024;

struct lower_end_part;
void hand_back(lower_end_part* back) noexcept;

// The upper part of the terms, merged on a second thread into memory while
// the lower part is merged into the file; it is written after it once both
// are done. It gives up (and the lower merge goes on through its terms) on
// any fault, when its output outgrows its memory, or when the sources'
// positions it started from are not where the lower merge ends: the merged
// bytes, codes and messages are then those of a single merge.
struct upper_postings {
  uint32_t first_term = 0;    // in the merged terms
  uint32_t num_terms = 0;     // of this part
  uint32_t src_count = 0;
  const bmap_t* which = nullptr;  // this part's bitmaps
  uint32_t* counts = nullptr;     // this part's counts
  c_ptr<posting_src> srcs;
  c_ptr<plw> writer;
  c_ptr<uint8_t> bytes;       // the merged lists
  c_ptr<uint64_t> ends;       // each term's end, from the first list's start
  uint32_t start_cursor[32] = {};
  uint64_t start_offset[32] = {};
  uint32_t postings = 0;
  uint32_t merged = 0;        // terms merged when it stopped
  bool ok = false;            // it stopped without a fault and its writer closed
  std::atomic<bool> stop{false};  // the lower merge failed: nothing here is wanted
  // Its progress, and the term at which it stops because another merge
  // took over the terms from there on.
  std::atomic<uint32_t> done{0};
  std::atomic<uint32_t> limit{UINT32_MAX};
  std::atomic<bool> finished{false};
  // Closed only when a test holds the part back until the lower merge has
  // reached it (the part then waits before its first term).
  std::atomic<bool> gate{true};
  // Where its output goes once merged, decided by the lower merge when it
  // reaches the part: the part writes it there itself, so that the write
  // overlaps the lower merge's last work, or leaves it to the lower merge.
  static constexpr int PLACE_PENDING = 0;
  static constexpr int PLACE_AT = 1;
  static constexpr int PLACE_NONE = -1;
  std::atomic<int> place{PLACE_PENDING};
  int place_fd = -1;
  uint64_t place_offset = 0;
  bool placed = false;  // its output went out whole at place_offset
  std::thread* runner = nullptr;   // the thread merging this part, when not the merge's own
  // The end of the lower part, offered for this part's thread to take over
  // once it is done with its own terms; wake counts the offers and places.
  std::atomic<lower_end_part*> back{nullptr};
  std::atomic<uint32_t> wake{0};
  wrc w{};

  ~upper_postings() {
    if (srcs) close_posting_sources(srcs.get(), src_count);
  }

  void open_gate() noexcept {
    gate.store(true, std::memory_order_release);
    gate.notify_all();
  }

  void set_place(int where, int fd, uint64_t offset) noexcept {
    place_fd = fd;
    place_offset = offset;
    place.store(where, std::memory_order_release);
    place.notify_all();
    wake.fetch_add(1, std::memory_order_release);
    wake.notify_all();
  }

  void offer_back(lower_end_part* b) noexcept {
    back.store(b, std::memory_order_release);
    wake.fetch_add(1, std::memory_order_release);
    wake.notify_all();
  }

  // Nothing of the part is wanted: it stops at its next term, or does not
  // start, and writes nothing.
  void cancel() noexcept {
    stop.store(true, std::memory_order_relaxed);
    open_gate();
    if (place.load(std::memory_order_acquire) == PLACE_PENDING) set_place(PLACE_NONE, -1, 0);
  }

  void run() noexcept {
    while (!gate.load(std::memory_order_acquire)) gate.wait(false, std::memory_order_acquire);
    uint32_t u = 0;
    bool fault = false;
    for (; u < num_terms && !fault; ++u) {
      if (stop.load(std::memory_order_relaxed)) return;
      if (u == limit.load(std::memory_order_acquire)) break;
      fault = merge_term_postings(srcs.get(), src_count, which[u], writer.get(), &w) != 0;
      counts[u] = be32(writer->count_forterm);
      postings += writer->count_forterm;
      ends.get()[u] = writer->total;
      done.store(u + 1, std::memory_order_relaxed);
    }
    merged = u;
    ok = !fault && _plist_writer_close(writer.get()) == 0;
    finished.store(true, std::memory_order_release);
    if (!ok) return;
    // Until the lower merge says where the output goes, this thread takes
    // over the end of the lower part if it is offered.
    bool handed = false;
    int where = PLACE_PENDING;
    for (;;) {
      const uint32_t seen = wake.load(std::memory_order_acquire);
      where = place.load(std::memory_order_acquire);
      if (where != PLACE_PENDING) break;
      lower_end_part* b = back.load(std::memory_order_acquire);
      if (!handed && b != nullptr && !stop.load(std::memory_order_relaxed)) {
        handed = true;
        hand_back(b);
        continue;
      }
      wake.wait(seen, std::memory_order_acquire);
    }
    if (where == PLACE_AT) placed = st_pwrite_full(place_fd, bytes.get(), writer->total, place_offset);
  }

  // Memory for num_terms terms of output from sources holding list_bytes
  // bytes of lists, the readers at start_cursor and start_offset.
  bool prepare(const int* src_fds, const warm_header* src_hdrs, const uint64_t* postings_start,
               const uint32_t* mapping, const id_block* dense, uint64_t list_bytes) noexcept {
    srcs = c_alloc<posting_src>(src_count, true);
    writer = c_alloc<plw>(1, false);
    const uint64_t cap = std::min<uint64_t>(UPPER_MAX_BYTES, 2 * list_bytes + (1u << 20));
    bytes = c_alloc<uint8_t>(cap, false);
    ends = c_alloc<uint64_t>(num_terms, false);
    if (!srcs || !writer || !bytes || !ends) return false;
    wrc ignored{};
    if (open_posting_sources(srcs.get(), src_fds, src_hdrs, postings_start, src_count, mapping, dense, &ignored) != 0) {
      close_posting_sources(srcs.get(), src_count);
      return false;
    }
    for (uint32_t i = 0; i < src_count; ++i) {
      srcs.get()[i].term_cursor = start_cursor[i];
      srcs.get()[i].next_start = start_offset[i];
    }
    _plist_writer_open_mem(writer.get(), bytes.get(), cap);
    return true;
  }
};


// Where to split merged terms [0, n) of a posting merge whose sources start
// at term base[i]. The work of a part is its list bytes and, per source
// list, as much again as 14 bytes of lists take (measured: a list costs
// about 60 ns beside the 4.5 ns per byte).
struct split_point {
  uint32_t term = 0;    // the first term of the part above; 0 when there is none
  uint32_t cursor[32];  // each source's term number there
  uint64_t offset[32];  // each source's list offset there
  uint64_t bytes = 0;   // list bytes from there on
};

class split_planner {
 public:
  split_planner(const int* src_fds, const warm_header* src_hdrs, uint32_t src_count, const bmap_t* which, uint32_t n,
                const uint32_t* base, uint32_t step) noexcept
      : fds_(src_fds), hdrs_(src_hdrs), src_count_(src_count), which_(which), n_(n), base_(base), step_(step) {}

  // Each source's term cursor every step merged terms, and its list bytes
  // in all. False without memory, without two steps of terms, or when the
  // sources' offsets cannot be read.
  bool scan() noexcept {
    if (n_ < 2 * step_) return false;
    cursors_ = c_alloc<uint32_t>(uint64_t{n_ / step_ + 1} * src_count_, true);
    if (!cursors_) return false;
    if (base_ != nullptr) memcpy(end_, base_, 4ull * src_count_);
    const bmap_t mask = src_count_ >= 32 ? ~bmap_t{0} : (bmap_t{1} << src_count_) - 1;
    for (uint32_t t = 0; t < n_; ++t) {
      if (t % step_ == 0) memcpy(cursors_.get() + uint64_t{t / step_} * src_count_, end_, 4ull * src_count_);
      for (bmap_t rest = which_[t] & mask; rest != 0; rest &= rest - 1) end_[__builtin_ctz(rest)]++;
    }
    all_ = 0;
    for (uint32_t i = 0; i < src_count_; ++i) {
      uint64_t off = 0;
      if (!start_of(i, end_[i], &off)) return false;
      all_ += off;
    }
    return true;
  }

  // A multiple of step terms above mark ref_mark, at least margin of work
  // above it and leaving step terms above it, from which on the work is
  // about percent of the work from mark ref_mark on and the list bytes at
  // most UPPER_MAX_BYTES * 3 / 8 (the part's output may be larger than its
  // input): the lowest from which on the work is at most that, or the mark
  // below it when that comes closer. The last such multiple when none
  // holds that little. False when there is none or the sources' offsets
  // cannot be read.
  bool find(uint32_t ref_mark, uint64_t margin, uint32_t percent, split_point* out) noexcept {
    const uint64_t max_bytes = UPPER_MAX_BYTES * 3 / 8;
    uint64_t ref = 0;
    uint64_t bytes = 0;
    if (!work_from(ref_mark, &ref, &bytes)) return false;
    const uint64_t want = ref * percent / 100;
    uint32_t lo = ref_mark + 1;
    uint32_t hi = (n_ - step_) / step_;
    if (hi < lo) return false;
    // Past the margin first (the work from a mark on falls as the mark rises).
    for (uint32_t top = hi; margin > 0 && lo < top;) {
      const uint32_t mid = lo + (top - lo) / 2;
      uint64_t work = 0;
      if (!work_from(mid, &work, &bytes)) return false;
      if (ref - work >= margin) top = mid; else lo = mid + 1;
    }
    const uint32_t lowest = lo;
    while (lo < hi) {
      const uint32_t mid = lo + (hi - lo) / 2;
      uint64_t work = 0;
      if (!work_from(mid, &work, &bytes)) return false;
      if (bytes <= max_bytes && work <= want) hi = mid; else lo = mid + 1;
    }
    uint64_t work = 0;
    if (!work_from(lo, &work, &bytes)) return false;
    // A few terms can hold much of the work: the mark below may come closer.
    uint64_t below_work = 0;
    uint64_t below_bytes = 0;
    if (lo > lowest && work <= want) {
      if (!work_from(lo - 1, &below_work, &below_bytes)) return false;
      if (below_bytes <= max_bytes && below_work - want < want - work) {
        --lo;
        bytes = below_bytes;
      }
    }
    if (bytes == 0) return false;
    for (uint32_t i = 0; i < src_count_; ++i) {
      out->cursor[i] = cursors_.get()[uint64_t{lo} * src_count_ + i];
      if (!start_of(i, out->cursor[i], &out->offset[i])) return false;
    }
    out->bytes = bytes;
    out->term = lo * step_;
    return true;
  }

 private:
  static constexpr uint64_t LIST_WORK = 14;

  // A source's list bytes before its term c: the end of the list before it.
  bool start_of(uint32_t i, uint32_t c, uint64_t* off) const noexcept {
    if (c == 0) {
      *off = 0;
      return true;
    }
    const warm_header* sh = &hdrs_[i];
    const uint64_t sz = _get_plo_size(sh);
    uint8_t e[8] = {};
    if (c > hdr_num_terms(sh) || !st_pread_full(fds_[i], e, sz, _offset_pl_offs(sh) + (c - 1) * sz)) return false;
    *off = sz == 8 ? load_be64(e) : load_be32(e);
    return true;
  }

  // The work and the list bytes from mark m on.
  bool work_from(uint32_t m, uint64_t* work, uint64_t* bytes) const noexcept {
    uint64_t before = 0;
    uint64_t lists = 0;
    for (uint32_t i = 0; i < src_count_; ++i) {
      const uint32_t c = cursors_.get()[uint64_t{m} * src_count_ + i];
      uint64_t off = 0;
      if (!start_of(i, c, &off)) return false;
      before += off;
      lists += end_[i] - c;
    }
    *bytes = all_ >= before ? all_ - before : 0;
    *work = *bytes + LIST_WORK * lists;
    return true;
  }

  const int* fds_;
  const warm_header* hdrs_;
  uint32_t src_count_;
  const bmap_t* which_;
  uint32_t n_;
  const uint32_t* base_;
  uint32_t step_;
  c_ptr<uint32_t> cursors_;
  uint32_t end_[32] = {};  // each source's cursor after the last term
  uint64_t all_ = 0;       // list bytes before end_
};

}  // namespace

uint32_t _posting_split_term(const int* src_fds, const warm_header* src_hdrs, uint32_t src_count, const bmap_t* which,
                             uint32_t num_terms, uint32_t* cursor_o, uint64_t* offset_o,
                             uint64_t* upper_bytes_o) noexcept {
  // The upper part gets about two thirds of the work: the lower merge also
  // writes the offset table and shares the processors with the gathering
  // of the metadata times (and takes over the upper part's end when it
  // gets there first).
  split_planner plan(src_fds, src_hdrs, src_count, which, num_terms, nullptr, UPPER_MIN_TERMS);
  split_point sp;
  if (!plan.scan() || !plan.find(0, 0, 65, &sp)) return 0;
  memcpy(cursor_o, sp.cursor, 4ull * src_count);
  memcpy(offset_o, sp.offset, 8ull * src_count);
  *upper_bytes_o = sp.bytes;
  return sp.term;
}

namespace {

// Sets up the upper part from its first term on: its readers placed at each
// source's term there, its memory sized by its sources' list bytes. False
// when there is no such part or it cannot be placed.
bool place_upper(upper_postings* up, const int* src_fds, const warm_header* src_hdrs, const uint64_t* postings_start,
                 uint32_t src_count, const uint32_t* mapping, const id_block* dense, const bmap_t* which,
                 uint32_t* counts, uint32_t num_terms) noexcept {
  uint64_t sum = 0;
  const uint32_t first = _posting_split_term(src_fds, src_hdrs, src_count, which, num_terms, up->start_cursor,
                                             up->start_offset, &sum);
  if (first == 0) return false;
  up->first_term = first;
  up->num_terms = num_terms - first;
  up->src_count = src_count;
  up->which = which + first;
  up->counts = counts + first;
  return up->prepare(src_fds, src_hdrs, postings_start, mapping, dense, sum);
}

// The upper posting part run on the upper lexicon half's thread as soon as
// that half is merged (and the value merge has given the mapping): it no
// longer waits for the lower half. Its first term is known only when the
// halves are joined; the posting merge then takes it as the upper part if
// the lower part ends where it starts.
struct early_upper {
  const int* src_fds = nullptr;
  const warm_header* src_hdrs = nullptr;
  uint32_t src_count = 0;
  // The mapping from the value merge: state 1 once it is there, -1 when
  // the merge failed before.
  std::atomic<int> values_state{0};
  const uint32_t* mapping = nullptr;
  upper_postings up;
  c_ptr<uint32_t> counts;
  c_ptr<id_block> dense;
  uint64_t postings_start[32] = {};
  uint64_t list_bytes = 0;

  void set_values(int state, const uint32_t* m) noexcept {
    mapping = m;
    values_state.store(state, std::memory_order_release);
    values_state.notify_all();
  }

  // Eligible merges: every source a "Tarnix6" file holding terms (the
  // lexicon's bits then name sources directly).
  static bool eligible(const warm_header* hdrs, uint32_t n) noexcept {
    for (uint32_t i = 0; i < n; ++i) {
      if (_has_reverse_lex(&hdrs[i]) || hdr_num_terms(&hdrs[i]) == 0) return false;
    }
    return true;
  }

  c_ptr<bmap_t> which;          // the upper half's bitmaps, copied
  uint32_t terms = 0;
  std::thread worker;

  ~early_upper() {
    up.cancel();
    if (worker.joinable()) worker.join();
  }

  // On the upper lexicon half's thread: takes what the half leaves behind
  // and starts the work on a thread of its own, so that the lexicon halves
  // are joined without waiting for it.
  static void hook(void* cookie, const bmap_t* which, uint32_t terms, const uint32_t* split) noexcept {
    auto* e = static_cast<early_upper*>(cookie);
    if (!e->place(which, terms, split)) return;
    // Without a thread the posting merge splits as it sees fit once the
    // lexicon is done.
    (void)start_worker(&e->worker, [e] { e->run(); });
  }

  // Everything the part needs but the mapping: its bitmaps, each source's
  // postings section and first list in it, the memory for its counts.
  bool place(const bmap_t* half_which, uint32_t half_terms, const uint32_t* split) noexcept {
    if (half_terms == 0) return false;
    for (uint32_t i = 0; i < src_count; ++i) {
      const warm_header* sh = &src_hdrs[i];
      const uint64_t size = st_fclex_size_fd(src_fds[i], _offset_fclex(sh));
      if (size == 0) return false;
      postings_start[i] = _offset_fclex(sh) + size;
      const uint64_t sz = _get_plo_size(sh);
      const uint32_t n_terms = hdr_num_terms(sh);
      if (split[i] > n_terms) return false;
      up.start_cursor[i] = split[i];
      up.start_offset[i] = 0;
      uint8_t e[8] = {};
      if (split[i] > 0) {
        if (!st_pread_full(src_fds[i], e, sz, _offset_pl_offs(sh) + (split[i] - 1) * sz)) return false;
        up.start_offset[i] = sz == 8 ? load_be64(e) : load_be32(e);
      }
      if (!st_pread_full(src_fds[i], e, sz, _offset_pl_offs(sh) + (uint64_t{n_terms} - 1) * sz)) return false;
      const uint64_t all = sz == 8 ? load_be64(e) : load_be32(e);
      list_bytes += all > up.start_offset[i] ? all - up.start_offset[i] : 0;
    }
    if (list_bytes > UPPER_MAX_BYTES * 3 / 8) return false;
    which = c_alloc<bmap_t>(half_terms, false);
    counts = c_alloc<uint32_t>(half_terms, false);
    if (!which || !counts) return false;
    memcpy(which.get(), half_which, sizeof(bmap_t) * uint64_t{half_terms});
    terms = half_terms;
    up.num_terms = half_terms;
    up.src_count = src_count;
    up.which = which.get();
    up.counts = counts.get();
    return true;
  }

  // On the part's own thread: waits for the mapping, then merges.
  void run() noexcept {
    int state = values_state.load(std::memory_order_acquire);
    while (state == 0) {
      values_state.wait(0, std::memory_order_acquire);
      state = values_state.load(std::memory_order_acquire);
    }
    if (state < 0) return;
    dense = dense_tables(src_hdrs, src_count, mapping);
    if (!up.prepare(src_fds, src_hdrs, postings_start, mapping, dense.get(), list_bytes)) return;
    up.run();
  }
};

int merge_postings(const int* src_fds, const warm_header* src_hdrs, const uint64_t* postings_start,
                   uint32_t src_count, const uint32_t* mapping, const bmap_t* which_srcs, uint32_t* counts,
                   uint32_t num_terms, int tgt_fd, uint64_t tgt_postings_start, warm_header* tgt_hdr, wrc* w,
                   int mode, upper_postings* ready) noexcept;

}  // namespace

int _merge_all_postings_n(const int* src_fds, const warm_header* src_hdrs, const uint64_t* postings_start,
                          uint32_t src_count, const uint32_t* mapping, const bmap_t* which_srcs, uint32_t* counts,
                          uint32_t num_terms, int tgt_fd, uint64_t tgt_postings_start, warm_header* tgt_hdr,
                          wrc* w) noexcept {
  return _merge_all_postings_split(src_fds, src_hdrs, postings_start, src_count, mapping, which_srcs, counts,
                                   num_terms, tgt_fd, tgt_postings_start, tgt_hdr, w, POSTINGS_SPLIT);
}

int _merge_all_postings_split(const int* src_fds, const warm_header* src_hdrs, const uint64_t* postings_start,
                              uint32_t src_count, const uint32_t* mapping, const bmap_t* which_srcs,
                              uint32_t* counts, uint32_t num_terms, int tgt_fd, uint64_t tgt_postings_start,
                              warm_header* tgt_hdr, wrc* w, int mode) noexcept {
  return merge_postings(src_fds, src_hdrs, postings_start, src_count, mapping, which_srcs, counts, num_terms, tgt_fd,
                        tgt_postings_start, tgt_hdr, w, mode, nullptr);
}

namespace {

// A take-over starts at a multiple of 32 terms (a few terms can hold a
// million postings), and ahead of the upper part's progress by about a
// millisecond's work: the part goes on while the take-over is placed.
constexpr uint32_t TAKE_OVER_STEP = 32;
constexpr uint64_t TAKE_OVER_MARGIN = 200000;

// While the upper part's thread is still merging, this thread takes over
// the end of it: from a term well ahead of the part's progress on, about
// half the work left (a little less: this thread then writes the end and
// the offset table out). tail is placed there, with counts of its own, and
// the part is told to stop there; whether it did is known once it is
// joined. False when nothing is taken over.
bool take_over_end(upper_postings* up, upper_postings* tail, c_ptr<uint32_t>* tail_counts, const int* src_fds,
                   const warm_header* src_hdrs, const uint64_t* postings_start, uint32_t src_count,
                   const uint32_t* mapping, const id_block* dense, int mode) noexcept {
  const bool late = mode == POSTINGS_SPLIT_LATE_TAKE_OVER;
  const bool held = mode == POSTINGS_SPLIT_TAKE_OVER || late;
  if (!late && up->finished.load(std::memory_order_acquire)) return false;
  split_planner plan(src_fds, src_hdrs, src_count, up->which, up->num_terms, up->start_cursor, TAKE_OVER_STEP);
  if (!plan.scan()) return false;
  // The part's progress once the scan is done.
  const uint32_t from = held ? 0 : up->done.load(std::memory_order_relaxed) / TAKE_OVER_STEP;
  split_point sp;
  if (!plan.find(from, held ? 0 : TAKE_OVER_MARGIN, 45, &sp)) return false;
  tail->first_term = sp.term;
  tail->num_terms = up->num_terms - sp.term;
  tail->src_count = src_count;
  tail->which = up->which + sp.term;
  *tail_counts = c_alloc<uint32_t>(tail->num_terms, false);
  if (!*tail_counts) return false;
  tail->counts = tail_counts->get();
  memcpy(tail->start_cursor, sp.cursor, sizeof(uint32_t) * src_count);
  memcpy(tail->start_offset, sp.offset, sizeof(uint64_t) * src_count);
  if (!tail->prepare(src_fds, src_hdrs, postings_start, mapping, dense, sp.bytes)) return false;
  up->limit.store(sp.term, std::memory_order_release);
  // Past its first term already, the part cannot stop there.
  return late || up->done.load(std::memory_order_acquire) <= sp.term;
}

// The end of the lower part of a split posting merge, taken over by the
// upper part's thread when that is done first: from a term ahead of the
// lower merge's progress on, about half the work left. The lower merge
// stops there and takes the end's output when the end went through and
// starts where it stands and ends where the upper part starts; else it goes
// on through the end's terms itself.
struct lower_end_part {
  const int* src_fds = nullptr;
  const warm_header* src_hdrs = nullptr;
  const uint64_t* postings_start = nullptr;
  uint32_t src_count = 0;
  const uint32_t* mapping = nullptr;
  const id_block* dense = nullptr;
  const bmap_t* which = nullptr;  // from the lower part's first term
  uint32_t lower_end = 0;         // the upper part's first term
  int mode = POSTINGS_SPLIT;
  // The lower merge's term, stored every TAKE_OVER_STEP terms before it
  // looks at the limit; with both sequentially consistent, a limit placed
  // ahead of the term seen is seen by the lower merge when it gets there.
  std::atomic<uint32_t> at{0};
  std::atomic<uint32_t> limit{UINT32_MAX};
  std::atomic<bool> planned{false};  // limit placed, or no end taken over
  std::atomic<bool> settled{false};  // and the end merged, or not
  upper_postings part;
  c_ptr<uint32_t> counts;

  void mark(std::atomic<bool>* flag) noexcept {
    flag->store(true, std::memory_order_release);
    flag->notify_all();
  }
};

void hand_back(lower_end_part* b) noexcept {
  const bool held = b->mode == POSTINGS_SPLIT_HAND_BACK || b->mode == POSTINGS_SPLIT_LATE_HAND_BACK;
  upper_postings& m = b->part;
  split_planner plan(b->src_fds, b->src_hdrs, b->src_count, b->which, b->lower_end, nullptr, TAKE_OVER_STEP);
  split_point sp;
  // Nothing to take over once the lower merge is through its part.
  bool ready = b->at.load(std::memory_order_relaxed) < b->lower_end && plan.scan() &&
               plan.find(held ? 0 : b->at.load(std::memory_order_relaxed) / TAKE_OVER_STEP,
                         held ? 0 : TAKE_OVER_MARGIN, 45, &sp);
  if (ready) {
    m.first_term = sp.term;
    m.num_terms = b->lower_end - sp.term;
    m.src_count = b->src_count;
    m.which = b->which + sp.term;
    m.place.store(upper_postings::PLACE_NONE, std::memory_order_relaxed);  // the lower merge writes it
    b->counts = c_alloc<uint32_t>(m.num_terms, false);
    m.counts = b->counts.get();
    memcpy(m.start_cursor, sp.cursor, sizeof(uint32_t) * b->src_count);
    memcpy(m.start_offset, sp.offset, sizeof(uint64_t) * b->src_count);
    ready = b->counts && m.prepare(b->src_fds, b->src_hdrs, b->postings_start, b->mapping, b->dense, sp.bytes);
  }
  bool passed = true;
  if (ready) {
    b->limit.store(sp.term, std::memory_order_seq_cst);
    passed = b->at.load(std::memory_order_seq_cst) > sp.term;
  }
  b->mark(&b->planned);
  if (!passed) m.run();
  b->mark(&b->settled);
}

// The posting merge; ready, when not null, is an upper part already merged
// (from its first_term on), taken if this merge ends where it starts.
int merge_postings(const int* src_fds, const warm_header* src_hdrs, const uint64_t* postings_start,
                   uint32_t src_count, const uint32_t* mapping, const bmap_t* which_srcs, uint32_t* counts,
                   uint32_t num_terms, int tgt_fd, uint64_t tgt_postings_start, warm_header* tgt_hdr, wrc* w,
                   int mode, upper_postings* ready) noexcept {
  c_ptr<posting_src> srcs_owner = c_alloc<posting_src>(src_count, true);
  c_ptr<plw> writer_owner = c_alloc<plw>(1, false);
  if (!srcs_owner || !writer_owner) return _set_rc(w, WS_ENOMEM);
  if (tgt_postings_start == 0) return _set_rc(w, WS_ENOTAVAIL);
  posting_src* srcs = srcs_owner.get();
  plw* writer = writer_owner.get();
  aw table{};
  table.fd = -1;
  upper_postings own;
  upper_postings& up = ready != nullptr ? *ready : own;
  std::thread upper_thread;
  upper_postings tail;  // the end of the upper part, when this thread takes it over
  c_ptr<uint32_t> tail_counts;
  lower_end_part back;  // the end of this part, when the upper part's thread takes it over
  auto cleanup = [&]() noexcept {
    back.part.stop.store(true, std::memory_order_relaxed);
    up.cancel();
    if (upper_thread.joinable()) upper_thread.join();
    if (up.runner != nullptr && up.runner->joinable()) up.runner->join();
    close_posting_sources(srcs, src_count);
    if (table.buf != nullptr) _aw_close(&table);
  };
  _plist_writer_open(writer, tgt_fd, tgt_postings_start);

  const c_ptr<id_block> dense_owner = dense_tables(src_hdrs, src_count, mapping);
  int rc = open_posting_sources(srcs, src_fds, src_hdrs, postings_start, src_count, mapping, dense_owner.get(), w);
  if (rc != 0) {
    cleanup();
    return rc;
  }

  // 128 KiB of offsets at a time: one write per 4 KiB cost this thread,
  // which all others wait for at the end, a millisecond or two.
  rc = _aw_open(&table, tgt_fd, _offset_pl_offs(tgt_hdr), 8, 512 * 32);
  if (rc != 0) {
    _set_rc(w, rc);
    cleanup();
    return rc;
  }

  uint32_t lower_end = num_terms;
  if (ready != nullptr) {
    if (ready->first_term > 0 && ready->first_term < num_terms && ready->num_terms == num_terms - ready->first_term)
      lower_end = ready->first_term;
  } else if (mode != POSTINGS_ONE_PASS && place_upper(&own, src_fds, src_hdrs, postings_start, src_count, mapping,
                                                     dense_owner.get(), which_srcs, counts, num_terms)) {
    if (mode == POSTINGS_SPLIT_TAKE_OVER) own.gate.store(false, std::memory_order_relaxed);
    // Without a thread: one merge through all terms.
    if (start_worker(&upper_thread, [&own] { own.run(); })) lower_end = own.first_term;
  }

  const bool hand_back_on =
      lower_end < num_terms &&
      (mode == POSTINGS_SPLIT || mode == POSTINGS_SPLIT_HAND_BACK || mode == POSTINGS_SPLIT_LATE_HAND_BACK) &&
      (upper_thread.joinable() || (up.runner != nullptr && up.runner->joinable()));
  if (hand_back_on) {
    back.src_fds = src_fds;
    back.src_hdrs = src_hdrs;
    back.postings_start = postings_start;
    back.src_count = src_count;
    back.mapping = mapping;
    back.dense = dense_owner.get();
    back.which = which_srcs;
    back.lower_end = lower_end;
    back.mode = mode;
    up.offer_back(&back);
    if (mode != POSTINGS_SPLIT) {
      // Held until the upper part is done and has placed the end it takes
      // over (or went wrong, and takes over nothing).
      while (!back.planned.load(std::memory_order_acquire) &&
             !(up.finished.load(std::memory_order_acquire) && !up.ok)) {
        std::this_thread::yield();
      }
    }
  }
  bool end_handed_back = false;  // this part's end came from the upper part's thread

  uint32_t total = 0;
  auto put_entry = [&](uint64_t end) noexcept {
    // Straight into the table's buffer while it has room; _aw_write writes
    // it out when the next entry arrives to a full buffer.
    if (table.count < table.capacity) {
      store_be64(table.buf + 8 * uint64_t{table.count}, end);
      table.count++;
      return WS_SUCCESS;
    }
    uint8_t entry[8];
    store_be64(entry, end);
    return _aw_write(&table, entry, 8);
  };
  for (uint32_t t = 0; t < num_terms; ++t) {
    if (hand_back_on && t % TAKE_OVER_STEP == 0 && t < lower_end) {
      back.at.store(t, std::memory_order_seq_cst);
      if (mode != POSTINGS_SPLIT_LATE_HAND_BACK && back.limit.load(std::memory_order_seq_cst) == t) {
        while (!back.settled.load(std::memory_order_acquire)) back.settled.wait(false, std::memory_order_acquire);
        // The end is taken when it went through from where this merge
        // stands to where the upper part (done, without a fault) starts.
        const upper_postings& m = back.part;
        bool joins = m.ok && m.merged == m.num_terms && up.finished.load(std::memory_order_acquire) && up.ok &&
                     up.merged == up.num_terms;
        for (uint32_t i = 0; joins && i < src_count; ++i) {
          const posting_src& end = m.srcs.get()[i];
          joins = srcs[i].term_cursor == m.start_cursor[i] && srcs[i].next_start == m.start_offset[i] &&
                  end.term_cursor == up.start_cursor[i] && end.next_start == up.start_offset[i];
        }
        if (joins) {
          const uint64_t base = writer->total;
          if (!st_pwrite_full(tgt_fd, m.bytes.get(), m.writer->total, tgt_postings_start + base)) {
            rc = _set_rc(w, WS_EWRITE);
            cleanup();
            return rc;
          }
          for (uint32_t u = 0; u < m.num_terms; ++u) {
            if ((rc = put_entry(base + m.ends.get()[u])) != 0) {
              _set_rc(w, rc);
              cleanup();
              return rc;
            }
          }
          memcpy(counts + t, m.counts, sizeof(uint32_t) * uint64_t{m.num_terms});
          writer->total += m.writer->total;
          total += m.postings;
          end_handed_back = true;
          t = lower_end;
        }
      }
    }
    if (t == lower_end) {
      if (hand_back_on) {
        back.at.store(lower_end, std::memory_order_seq_cst);
        back.part.stop.store(true, std::memory_order_relaxed);
      }
      // The end of an upper part still under way is taken over here, so
      // that the two threads finish about together.
      const bool running = upper_thread.joinable() || (up.runner != nullptr && up.runner->joinable());
      // Where the upper part's output goes is known now: after this
      // merge's, if the part starts where this merge stands.
      const posting_src* here = end_handed_back ? back.part.srcs.get() : srcs;
      bool starts_here = true;
      for (uint32_t i = 0; starts_here && i < src_count; ++i) {
        starts_here = here[i].term_cursor == up.start_cursor[i] && here[i].next_start == up.start_offset[i];
      }
      if (starts_here) {
        up.set_place(upper_postings::PLACE_AT, tgt_fd, tgt_postings_start + writer->total);
      } else {
        up.set_place(upper_postings::PLACE_NONE, -1, 0);
      }
      if (mode == POSTINGS_SPLIT_LATE_TAKE_OVER && upper_thread.joinable()) upper_thread.join();
      bool took = running && take_over_end(&up, &tail, &tail_counts, src_fds, src_hdrs, postings_start, src_count,
                                           mapping, dense_owner.get(), mode);
      up.open_gate();
      if (took) {
        tail.set_place(upper_postings::PLACE_NONE, -1, 0);  // written out below
        tail.run();
      }
      // The upper part, when it went through and starts where this merge
      // stands, follows this one's lists; else this merge goes on. A part
      // that stopped where the end was taken over is followed by that end,
      // if the end went through and starts where the part stopped.
      if (upper_thread.joinable()) upper_thread.join();
      if (up.runner != nullptr && up.runner->joinable()) up.runner->join();
      bool follows = up.ok && starts_here;
      if (follows && took) {
        if (up.merged == tail.first_term) {
          follows = tail.ok;
          for (uint32_t i = 0; follows && i < src_count; ++i) {
            const posting_src& end = up.srcs.get()[i];
            follows = end.term_cursor == tail.start_cursor[i] && end.next_start == tail.start_offset[i];
          }
        } else {
          took = false;  // the part went through before it saw where to stop
          follows = up.merged == up.num_terms;
        }
      }
      // A part handed back ends where the upper part starts, which went
      // through: the upper part follows it.
      ST_ASSERT(follows || !end_handed_back);
      if (follows) {
        const uint64_t base = writer->total;
        const uint64_t up_size = up.writer->total;
        const uint32_t up_terms = took ? tail.first_term : num_terms - t;
        // The part wrote its output itself unless that write failed (it is
        // then tried again here, for this thread's errno).
        if ((!up.placed && !st_pwrite_full(tgt_fd, up.bytes.get(), up_size, tgt_postings_start + base)) ||
            (took && !st_pwrite_full(tgt_fd, tail.bytes.get(), tail.writer->total, tgt_postings_start + base + up_size))) {
          rc = _set_rc(w, WS_EWRITE);
          cleanup();
          return rc;
        }
        for (uint32_t u = 0; u < num_terms - t; ++u) {
          const uint64_t end = u < up_terms ? base + up.ends.get()[u] : base + up_size + tail.ends.get()[u - up_terms];
          if ((rc = put_entry(end)) != 0) {
            _set_rc(w, rc);
            cleanup();
            return rc;
          }
        }
        // The lower part's last bytes, still in its buffer, go out at close
        // just before the upper part.
        if (up.counts != counts + t) memcpy(counts + t, up.counts, sizeof(uint32_t) * uint64_t{up_terms});
        writer->total += up_size;
        total += up.postings;
        if (took) {
          memcpy(counts + t + up_terms, tail.counts, sizeof(uint32_t) * uint64_t{tail.num_terms});
          writer->total += tail.writer->total;
          total += tail.postings;
        }
        break;
      }
    }
    if ((rc = merge_term_postings(srcs, src_count, which_srcs[t], writer, w)) != 0) {
      cleanup();
      return rc;
    }
    // Ids that the value merge made one appear once: the count is of
    // distinct ids.
    counts[t] = be32(writer->count_forterm);
    total += writer->count_forterm;
    if ((rc = put_entry(writer->total)) != 0) {
      _set_rc(w, rc);
      cleanup();
      return rc;
    }
  }
  if (num_terms > 0) _set_rc(w, WS_SUCCESS);
  rc = _aw_close(&table);
  if (rc != 0) {
    _set_rc(w, rc);
    cleanup();
    return rc;
  }
  // The writer's last buffer ends the postings, the far end of the file;
  // the writes that follow (metadata, header) lie before it. On a full disk
  // or at a file size limit this can be the one write that fails, and the
  // merge must fail with it: otherwise a file cut short would be committed
  // and its sources removed.
  rc = _plist_writer_close(writer);
  if (rc != 0) {
    _set_rc(w, rc);
    cleanup();
    return rc;
  }
  hdr_set(tgt_hdr, HDR_NUM_POSTINGS, total);
  cleanup();
  return WS_SUCCESS;
}

}  // namespace

namespace {

// Opens a reader over each source's term metadata (full records), 341 at a
// time; 0, or the first failure's code recorded with its source's index.
int open_metadata_readers(ar_reader* readers, const int* src_fds, const warm_header* src_hdrs, uint32_t src_count,
                          wrc* w) noexcept {
  for (uint32_t si = 0; si < src_count; ++si) {
    ST_ASSERT_TEXT((_has_full_metadata(&src_hdrs[si]) ? TERM_METADATA_SZ : SHORT_METADATA_SZ) == TERM_METADATA_SZ,
                   "(_has_full_metadata(&src_hdrs[si]) ? sizeof( struct st_term_metadata ) : sizeof( unsigned )) "
                   "== sizeof( struct st_term_metadata )");
    // 341 records (4 KiB) at a time: the 32 buffers stay in the cache, which
    // larger reads (fewer calls) were measured to lose.
    const int rc = _ar_open(&readers[si], src_fds[si], _offset_metadata(&src_hdrs[si]), TERM_METADATA_SZ,
                            hdr_num_terms(&src_hdrs[si]), 341, nullptr);
    if (rc != 0) return _set_rc_verbose(w, rc, static_cast<int>(si), "_ar_open");
  }
  return 0;
}

}  // namespace

int _merge_metadata(const int* src_fds, const warm_header* src_hdrs, uint32_t src_count, const bmap_t* which_srcs,
                    const uint32_t* counts, int tgt_fd, const warm_header* tgt_hdr, wrc* w) noexcept {
  c_ptr<ar_reader> readers_owner = c_alloc<ar_reader>(src_count, true);
  if (!readers_owner) {
    _set_rc(w, WS_ENOMEM);
    return WS_SUCCESS;  // the failure is seen in w only
  }
  ar_reader* readers = readers_owner.get();
  const bool full = _has_full_metadata(tgt_hdr);
  const uint64_t entry_sz = full ? TERM_METADATA_SZ : SHORT_METADATA_SZ;
  aw out{};
  int rc = _aw_open(&out, tgt_fd, _offset_metadata(tgt_hdr), entry_sz, full ? 341 : 1024);
  if (rc != 0) return _set_rc(w, rc);
  auto cleanup = [&]() noexcept {
    for (uint32_t i = 0; i < src_count; ++i) _ar_close(&readers[i]);
    if (out.buf != nullptr) _aw_close(&out);
  };
  if ((rc = open_metadata_readers(readers, src_fds, src_hdrs, src_count, w)) != 0) {
    cleanup();
    return rc;
  }
  const uint32_t num_terms = hdr_num_terms(tgt_hdr);
  for (uint32_t t = 0; t < num_terms; ++t) {
    const bmap_t bm = which_srcs[t];
    int32_t earliest = INT_MAX;
    int32_t latest = INT_MIN;
    uint32_t sum = 0;
    bool first = true;
    // Set bits in ascending order: the sources that hold the term.
    for (bmap_t rest = src_count >= 32 ? bm : bm & ((bmap_t{1} << src_count) - 1); rest != 0; rest &= rest - 1) {
      const uint32_t i = static_cast<uint32_t>(__builtin_ctz(rest));
      const uint8_t* rec = _ar_get(&readers[i], TERM_METADATA_SZ, w);
      if (rec == nullptr) {
        rc = _set_rc_verbose(w, w->warm_rc, static_cast<int>(i), "_ar_get for metadata");
        cleanup();
        return rc;
      }
      const int32_t e = static_cast<int32_t>(load_be32(rec + 4));
      const int32_t l = static_cast<int32_t>(load_be32(rec + 8));
      if (first || e < earliest) earliest = e;
      if (first || l > latest) latest = l;
      first = false;
      sum += load_be32(rec);
    }
    uint8_t entry[TERM_METADATA_SZ];
    store_be32(entry, counts != nullptr ? be32(counts[t]) : sum);
    store_be32(entry + 4, static_cast<uint32_t>(earliest));
    store_be32(entry + 8, static_cast<uint32_t>(latest));
    if ((rc = _aw_write(&out, entry, entry_sz)) != 0) {
      _set_rc(w, rc);
      cleanup();
      return rc;
    }
  }
  rc = _aw_close(&out);
  if (rc != 0) _set_rc(w, rc);
  cleanup();
  return rc;
}

namespace {

// The term metadata of an index-file merge in two halves: the sources'
// times, gathered beside the posting merge (they need only the bitmaps),
// and the records, written once the posting counts exist. The records and
// the point where a failed read stops them are those of _merge_metadata.
struct metadata_times {
  static constexpr uint32_t MAX_GATHERED_TERMS = 4u << 20;  // 32 MiB of times
  const int* src_fds = nullptr;
  const warm_header* src_hdrs = nullptr;
  uint32_t src_count = 0;
  const bmap_t* which = nullptr;
  uint32_t num_terms = 0;
  c_ptr<int32_t> times;  // earliest and latest of each term
  uint32_t done = 0;     // terms gathered before a failure (all when none)
  wrc w{};
  int rc = 0;

  void gather() noexcept {
    _set_rc(&w, WS_SUCCESS);
    c_ptr<ar_reader> readers_owner = c_alloc<ar_reader>(src_count, true);
    if (!readers_owner) {
      _set_rc(&w, WS_ENOMEM);  // recorded only, as _merge_metadata does
      return;
    }
    ar_reader* readers = readers_owner.get();
    struct close_readers {
      ar_reader* r;
      uint32_t n;
      ~close_readers() {
        for (uint32_t i = 0; i < n; ++i) _ar_close(&r[i]);
      }
    } closer{readers, src_count};
    if ((rc = open_metadata_readers(readers, src_fds, src_hdrs, src_count, &w)) != 0) return;
    int32_t* out = times.get();
    for (uint32_t t = 0; t < num_terms; ++t, done = t) {
      const bmap_t bm = which[t];
      int32_t earliest = INT_MAX;
      int32_t latest = INT_MIN;
      bool first = true;
      for (bmap_t rest = src_count >= 32 ? bm : bm & ((bmap_t{1} << src_count) - 1); rest != 0; rest &= rest - 1) {
        const uint32_t i = static_cast<uint32_t>(__builtin_ctz(rest));
        const uint8_t* rec = _ar_get(&readers[i], TERM_METADATA_SZ, &w);
        if (rec == nullptr) {
          rc = _set_rc_verbose(&w, w.warm_rc, static_cast<int>(i), "_ar_get for metadata");
          return;
        }
        const int32_t e = static_cast<int32_t>(load_be32(rec + 4));
        const int32_t l = static_cast<int32_t>(load_be32(rec + 8));
        if (first || e < earliest) earliest = e;
        if (first || l > latest) latest = l;
        first = false;
      }
      out[2 * t] = earliest;
      out[2 * t + 1] = latest;
    }
  }

  // Writes the records of the gathered terms; the gathering's failure, if
  // any, after them.
  int write(const uint32_t* counts, int tgt_fd, const warm_header* tgt_hdr, wrc* out_w) noexcept {
    if (rc == 0 && w.warm_rc == WS_ENOMEM) {
      *out_w = w;
      return WS_SUCCESS;
    }
    // This write is all that is left of the merge when the postings are
    // done: the records are put straight into a buffer of 192 KiB, as one
    // write per 4 KiB took twice as long.
    aw out{};
    int wrc_rc = _aw_open(&out, tgt_fd, _offset_metadata(tgt_hdr), TERM_METADATA_SZ, 341 * 48);
    if (wrc_rc != 0) return _set_rc(out_w, wrc_rc);
    const int32_t* tm = times.get();
    for (uint32_t t = 0; t < done; ++t) {
      uint8_t buffered[TERM_METADATA_SZ];
      uint8_t* entry = out.count < out.capacity ? out.buf + TERM_METADATA_SZ * out.count : buffered;
      store_be32(entry, be32(counts[t]));
      store_be32(entry + 4, static_cast<uint32_t>(tm[2 * t]));
      store_be32(entry + 8, static_cast<uint32_t>(tm[2 * t + 1]));
      if (entry != buffered) {
        out.count++;
      } else if ((wrc_rc = _aw_write(&out, entry, TERM_METADATA_SZ)) != 0) {
        _set_rc(out_w, wrc_rc);
        _aw_close(&out);
        return wrc_rc;
      }
    }
    if (rc != 0) {
      _aw_close(&out);
      *out_w = w;
      return rc;
    }
    wrc_rc = _aw_close(&out);
    if (wrc_rc != 0) _set_rc(out_w, wrc_rc);
    return wrc_rc;
  }
};

}  // namespace

int st_warm_slice_merge_n(int verbose, int tgt_fd, const int* src_fds, uint32_t src_count, uint32_t lex_tpb,
                          uint64_t page_size, wrc* w, int tstats) noexcept {
  _set_rc(w, WS_SUCCESS);
  warm_header tgt_hdr{};
  _init_magic(&tgt_hdr);

  c_ptr<warm_header> src_hdrs(_read_src_headers(src_fds, src_count, w));
  if (!src_hdrs) return w->warm_rc;
  // A lexicon-only file ("TarLex1") has no values and short metadata: it
  // cannot be a source of an index-file merge, whatever its name says.
  for (uint32_t i = 0; i < src_count; ++i) {
    if (!_has_full_metadata(&src_hdrs.get()[i]))
      return _set_rc_verbose(w, WS_EMAGIC, static_cast<int>(i), "lexicon-only file as merge source");
  }

  // The lexicon merge reads nothing the value and column merges write, so
  // it runs on a thread of its own beside them; only its section's place
  // in the target waits for the columns. A large lexicon merge is itself
  // split in two halves, and the upper half's posting lists are merged as
  // soon as that half and the value merge are done. With verbose the
  // phases keep their order, and so do the lines they print.
  c_ptr<uint32_t> mapping;  // outlives every thread that reads it
  early_upper early;
  early.src_fds = src_fds;
  early.src_hdrs = src_hdrs.get();
  early.src_count = src_count;
  const lex_upper_hook hook{early_upper::hook, &early};
  lexicon_merge lm;
  lm.verbose = verbose;
  lm.src_fds = src_fds;
  lm.src_hdrs = src_hdrs.get();
  lm.src_count = src_count;
  lm.lex_tpb = lex_tpb;
  lm.page_size = page_size;
  if (!verbose && early_upper::eligible(src_hdrs.get(), src_count)) lm.hook = &hook;
  std::thread lexicon_thread;
  // Without a thread the lexicon merge runs here, after the columns.
  if (!verbose) (void)start_worker(&lexicon_thread, [&lm] { lm.run(); });
  struct join_on_exit {
    std::thread& t;
    early_upper& e;
    ~join_on_exit() {
      if (e.values_state.load(std::memory_order_acquire) == 0) e.set_values(-1, nullptr);
      if (t.joinable()) t.join();
    }
  } joiner{lexicon_thread, early};
  const bool lexicon_beside = lexicon_thread.joinable();

  mapping.reset(_merge_values(src_fds, src_hdrs.get(), src_count, tgt_fd, &tgt_hdr, w, tstats));
  if (!mapping) return w->warm_rc;
  early.set_values(1, mapping.get());

  if (_merge_array(src_fds, src_hdrs.get(), src_count, mapping.get(), tgt_fd, &tgt_hdr, w) != 0) return w->warm_rc;

  if (lexicon_beside) {
    lexicon_thread.join();
  } else {
    lm.run();
  }
  uint64_t postings_start[32] = {};
  uint64_t tgt_postings_start = 0;
  bmap_t* which_raw = nullptr;
  if (lm.finish(tgt_fd, &tgt_hdr, &which_raw, postings_start, &tgt_postings_start, w) != 0) return w->warm_rc;
  std::unique_ptr<bmap_t, void (*)(bmap_t*) noexcept> which_srcs(which_raw, _bmap_free);
  const uint32_t num_terms = hdr_num_terms(&tgt_hdr);

  c_ptr<uint32_t> counts = c_alloc<uint32_t>(num_terms, false);
  if (!counts) return _set_rc(w, WS_ENOMEM);

  // The sources' times for the term metadata need only the bitmaps: they
  // are gathered on the second thread while the postings are merged here.
  metadata_times mt;
  mt.src_fds = src_fds;
  mt.src_hdrs = src_hdrs.get();
  mt.src_count = src_count;
  mt.which = which_srcs.get();
  mt.num_terms = num_terms;
  std::thread times_thread;
  if (lexicon_beside && _has_full_metadata(&tgt_hdr) && num_terms <= metadata_times::MAX_GATHERED_TERMS) {
    mt.times = c_alloc<int32_t>(2 * uint64_t{num_terms}, false);
    if (mt.times && !start_worker(&times_thread, [&mt] { mt.gather(); })) mt.times.reset();
  }
  struct join_times {
    std::thread& t;
    ~join_times() {
      if (t.joinable()) t.join();
    }
  } times_joiner{times_thread};

  // The upper part merged early is taken when it starts where the lexicon
  // split (with the same sections); else the merge splits as it sees fit.
  upper_postings* ready = nullptr;
  if (early.worker.joinable() && lm.lower_terms > 0 && lm.lower_terms < num_terms &&
      early.terms == num_terms - lm.lower_terms &&
      std::equal(postings_start, postings_start + src_count, early.postings_start)) {
    early.up.first_term = lm.lower_terms;
    early.up.runner = &early.worker;
    ready = &early.up;
  } else if (early.worker.joinable()) {
    early.up.cancel();
    early.worker.join();
  }
  if (merge_postings(src_fds, src_hdrs.get(), postings_start, src_count, mapping.get(), which_srcs.get(),
                     counts.get(), num_terms, tgt_fd, tgt_postings_start, &tgt_hdr, w, POSTINGS_SPLIT, ready) != 0) {
    return w->warm_rc;
  }
  mapping.reset();
  int rc = 0;
  if (times_thread.joinable()) {
    times_thread.join();
    rc = mt.write(counts.get(), tgt_fd, &tgt_hdr, w);
  } else {
    rc = _merge_metadata(src_fds, src_hdrs.get(), src_count, which_srcs.get(), counts.get(), tgt_fd, &tgt_hdr, w);
  }
  if (rc != 0 || w->warm_rc != 0) return w->warm_rc != 0 ? w->warm_rc : rc;
  which_srcs.reset();

  // Last, so that a target whose merge failed never carries a valid header.
  if (!st_pwrite_full(tgt_fd, tgt_hdr.b, WARM_HEADER_SZ, 0)) return _set_rc(w, WS_EWRITE);
  return w->warm_rc;
}

}  // namespace tarnix
