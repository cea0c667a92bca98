// Posting lists: the streaming writer (gaps and runs, one 8192-byte buffer)
// and the buffered reader (one 4096-byte buffer plus the offset-table
// array reader). The encoding is described in warmslice.h: VBE(first), then
// VBE(gap) for each value that is not one above its predecessor, and a zero
// byte followed by VBE(k) for k further values each one above the last. A
// zero byte after the first value can only mean a run, as gaps are never 0.
#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "searchthing/check.h"
#include "searchthing/codes.h"
#include "searchthing/fclex_io.h"
#include "searchthing/warmslice.h"

namespace tarnix {

namespace {

// A put emits at most 6 bytes for a pending run and 5 for a gap; flushing
// once more than 8180 bytes are held keeps the next put or end of term in
// the buffer.
constexpr uint32_t PLW_MARGIN = 12;

inline void emit_run(plw* w) noexcept {
  w->buf[w->bytes] = 0;
  uint32_t n = 1 + st_encode_to_vbe(w->buf + w->bytes + 1, w->run);
  w->bytes += n;
  w->total += n;
}

// The buffer's first n bytes to where the writer's output goes: the file,
// or the memory of a writer opened with _plist_writer_open_mem (which takes
// no more than its capacity).
inline bool flush_out(const plw* w, uint32_t n) noexcept {
  if (w->mem == nullptr) return st_pwrite_full(w->fd, w->buf, n, w->offset);
  if (w->offset > w->mem_cap || n > w->mem_cap - w->offset) return false;
  memcpy(w->mem + w->offset, w->buf, n);
  return true;
}

}  // namespace

// ---- Writer -----------------------------------------------------------------

int _plist_writer_open(plw* w, int fd, uint64_t offset) noexcept {
  w->mem = nullptr;
  w->mem_cap = 0;
  w->fd = fd;
  w->offset = offset;
  w->bytes = 0;
  w->total = 0;
  w->count_forterm = 0;
  w->run = 0;
  w->last_value = 0;
  return WS_SUCCESS;
}

int _plist_writer_open_mem(plw* w, uint8_t* mem, uint64_t capacity) noexcept {
  _plist_writer_open(w, -1, 0);
  w->mem = mem;
  w->mem_cap = capacity;
  return WS_SUCCESS;
}

int _plist_writer_start_term(plw* w) noexcept {
  w->count_forterm = 0;
  w->run = 0;
  w->last_value = 0;
  return WS_SUCCESS;
}

int _plist_writer_put(plw* w, uint32_t value) noexcept {
  const uint32_t cur_value = value;
  if (w->count_forterm > 0 && cur_value == w->last_value + 1 && w->last_value != END_OF_LIST) {
    w->run++;
  } else {
    // A value equal to the last one is a duplicate (two source values merged
    // into one target value): neither written nor counted.
    if (w->count_forterm > 0 && cur_value == w->last_value) return WS_SUCCESS;
    if (w->run > 0) {
      emit_run(w);
      w->run = 0;
    }
    ST_ASSERT_TEXT(w->count_forterm == 0 || cur_value > w->last_value,
                   "plw->count_forterm == 0 || cur_value > plw->last_value");
    uint32_t n = st_encode_to_vbe(w->buf + w->bytes, cur_value - w->last_value);
    w->bytes += n;
    w->total += n;
  }
  w->last_value = cur_value;
  w->count_forterm++;
  if (w->bytes + PLW_MARGIN >= PLW_BUF_SZ + 1) {
    if (!flush_out(w, w->bytes)) return WS_EWRITE;  // buffer kept
    w->offset += w->bytes;
    w->bytes = 0;
  }
  return WS_SUCCESS;
}

int _plist_writer_put_run(plw* w, const uint32_t* values, uint32_t n, uint32_t* done) noexcept {
  // _plist_writer_put for each value in turn, with the writer's fields held
  // in locals; the buffer goes out at the same values as with single puts.
  uint32_t bytes = w->bytes;
  uint64_t total = w->total;
  uint32_t count = w->count_forterm;
  uint32_t run = w->run;
  uint32_t last = w->last_value;
  uint32_t i = 0;
  int rc = WS_SUCCESS;
  while (i < n) {
    const uint32_t v = values[i++];
    if (count > 0 && v == last + 1 && last != END_OF_LIST) {
      run++;
    } else {
      if (count > 0 && v == last) continue;
      if (run > 0) {
        w->buf[bytes] = 0;
        const uint32_t k = 1 + st_encode_to_vbe(w->buf + bytes + 1, run);
        bytes += k;
        total += k;
        run = 0;
      }
      ST_ASSERT_TEXT(count == 0 || v > last, "plw->count_forterm == 0 || cur_value > plw->last_value");
      const uint32_t k = st_encode_to_vbe(w->buf + bytes, v - last);
      bytes += k;
      total += k;
    }
    last = v;
    count++;
    if (bytes + PLW_MARGIN >= PLW_BUF_SZ + 1) {
      if (!flush_out(w, bytes)) {
        rc = WS_EWRITE;  // buffer kept
        break;
      }
      w->offset += bytes;
      bytes = 0;
    }
  }
  w->bytes = bytes;
  w->total = total;
  w->count_forterm = count;
  w->run = run;
  w->last_value = last;
  if (done != nullptr) *done = i;
  return rc;
}

int _plist_writer_end_term(plw* w) noexcept {
  // The run count itself is cleared by the next start of a term.
  if (w->run > 0) emit_run(w);
  return WS_SUCCESS;
}

int _plist_writer_close(plw* w) noexcept {
  int rc = WS_SUCCESS;
  if (w->bytes > 0) {
    if (flush_out(w, w->bytes)) {
      w->offset += w->bytes;
      w->bytes = 0;
    } else {
      rc = WS_EWRITE;
    }
  }
  w->fd = -1;
  return rc;
}

// ---- Offsets ------------------------------------------------------------------

uint64_t _pl_offset(uint64_t table_offset, uint32_t num_terms, int fd, bool plo64, int64_t term_id) noexcept {
  if (term_id < 0) return 0;
  ST_ASSERT_TEXT(static_cast<uint32_t>(term_id) < num_terms, "(unsigned)term_id < num_terms");
  // A failed read is not detected: the zeroed buffer yields offset 0.
  uint8_t b[8] = {};
  const uint64_t sz = plo64 ? 8 : 4;
  (void)!pread(fd, b, sz, static_cast<off_t>(table_offset + static_cast<uint64_t>(term_id) * sz));
  return plo64 ? load_be64(b) : load_be32(b);
}

uint64_t _pl_offset_warm(warm* w, int64_t term_id) noexcept {
  const warm_header* h = warm_hdr(w);
  if (w->fd >= 0) return _pl_offset(_offset_pl_offs(h), hdr_num_terms(h), w->fd, w->plo64, term_id);
  // A writer's in-memory handle has no descriptor: read its table directly.
  if (term_id < 0) return 0;
  ST_ASSERT_TEXT(static_cast<uint32_t>(term_id) < hdr_num_terms(h), "(unsigned)term_id < num_terms");
  return w->plo64 ? load_be64(w->pl_offs + 8 * term_id) : load_be32(w->pl_offs + 4 * term_id);
}

uint64_t st_warm_slice_pl_size(warm* w, uint32_t term_id) noexcept {
  return _pl_offset_warm(w, term_id) - _pl_offset_warm(w, static_cast<int64_t>(term_id) - 1);
}

uint64_t st_warm_slice_postings_size(warm* w) noexcept {
  if (w->postings_size != 0) return w->postings_size;
  const uint32_t n = hdr_num_terms(warm_hdr(w));
  if (n == 0) return 0;
  w->postings_size = _pl_offset_warm(w, static_cast<int64_t>(n) - 1);
  return w->postings_size;
}

// ---- Reader -------------------------------------------------------------------

int _init_reader_helper(plist_reader* r, int fd, uint64_t table_offset, uint32_t num_terms, uint32_t plo_size,
                        uint64_t postings_offset, uint64_t postings_size, uint32_t bufcap,
                        uint32_t* timing) noexcept {
  r->fd = fd;
  r->mem = nullptr;
  r->postings_offset = postings_offset;
  r->postings_size = postings_size;
  r->buf_start = 0;
  r->left = 0;
  r->pos = 0;
  r->valid = 0;
  r->current = 0;
  r->returned = 0;
  r->pending = 0;
  r->timing = timing;
  _set_rc(&r->rc, WS_SUCCESS);
  return _ar_open(&r->plo_reader, fd, table_offset, plo_size, num_terms, std::max<uint32_t>(bufcap, 1024),
                  timing);
}

int _init_reader(plist_reader* r, warm* w, uint32_t bufcap, uint32_t* timing) noexcept {
  const warm_header* h = warm_hdr(w);
  const uint64_t postings_offset = static_cast<uint64_t>(w->postings - w->body);
  const uint64_t postings_size = st_warm_slice_postings_size(w);
  const int rc = _init_reader_helper(r, w->fd, _offset_pl_offs(h), hdr_num_terms(h), _get_plo_size(h),
                                     postings_offset, postings_size, bufcap, timing);
  // A writer's handle has no descriptor: its whole file is in its buffer.
  if (w->fd < 0) r->mem = r->plo_reader.mem = w->body;
  return rc;
}

namespace {

// Offset-table entry i as a 64-bit number, or a negative code.
inline int plo_entry(plist_reader* r, uint32_t i, uint64_t* out) noexcept {
  const uint64_t sz = r->plo_reader._obj_sz;
  const uint8_t* e = _ar_get_i(&r->plo_reader, i, sz, &r->rc);
  if (e == nullptr) return r->rc.warm_rc;
  if (sz == 8) {
    *out = load_be64(e);
  } else {
    ST_ASSERT_TEXT(sz == 4, "reader->plo_reader._obj_sz == sizeof( st_plo32_t )");
    *out = load_be32(e);
  }
  return WS_SUCCESS;
}

}  // namespace

namespace {

// Positions the reader on the list [start, end) of the postings.
int position(plist_reader* r, uint64_t start, uint64_t end) noexcept {
  // Offsets that go backwards or past the postings would send the reader
  // outside the list: the table is corrupt.
  if (end < start || end > r->postings_size) return WS_EDATA;
  if (start >= r->buf_start && start - r->buf_start <= r->valid) {
    r->pos = static_cast<uint32_t>(start - r->buf_start);
  } else {
    r->buf_start = start;
    r->pos = 0;
    r->valid = 0;
  }
  r->left = end - start;
  r->current = 0;
  r->returned = 0;
  r->pending = 0;
  return WS_SUCCESS;
}

}  // namespace

int _seek_reader(plist_reader* r, uint32_t term_id) noexcept {
  uint64_t start = 0;
  uint64_t end = 0;
  int rc;
  if (term_id > 0 && (rc = plo_entry(r, term_id - 1, &start)) != 0) return rc;
  if ((rc = plo_entry(r, term_id, &end)) != 0) return rc;
  return position(r, start, end);
}

int _seek_reader_after(plist_reader* r, uint32_t term_id, uint64_t start) noexcept {
  // The entry before term_id was the last one read, so the table buffer
  // still holds it: only the term's own entry is looked up, straight from
  // the buffer when it is there.
  const ar_reader& t = r->plo_reader;
  uint64_t end = 0;
  if (t.buffered > 0 && term_id >= t.first && term_id - t.first < t.buffered && term_id < t.count &&
      (t._obj_sz == 8 || t._obj_sz == 4)) {
    const uint8_t* e = t.buf + static_cast<uint64_t>(term_id - t.first) * t._obj_sz;
    end = t._obj_sz == 8 ? load_be64(e) : load_be32(e);
    r->plo_reader.cursor = term_id + 1;
    // A merge visits many tables in turn; fetch this one's next entries
    // while the lists are merged.
    if (term_id - t.first + 16 < t.buffered) __builtin_prefetch(e + 16 * t._obj_sz);
  } else {
    int rc = plo_entry(r, term_id, &end);
    if (rc != 0) return rc;
  }
  return position(r, start, end);
}

namespace {

// The rest of _next once the buffer holds what the next value needs.
inline int next_in_buffer(plist_reader* r, uint32_t* value) noexcept {
  const uint8_t* p = r->buf + r->pos;
  const uint8_t* limit = r->buf + std::min<uint64_t>(r->valid, r->pos + r->left);
  if (p >= limit) return WS_EDATA;
  uint32_t v;
  uint32_t used;
  uint32_t next_value;
  if (r->returned > 0 && *p == 0) {
    uint32_t k;
    uint32_t n = vbe_get(p + 1, limit, &k);
    if (n == 0 || k == 0 || k > END_OF_LIST - 1 - r->current) return WS_EDATA;
    next_value = r->current + 1;
    r->pending = k - 1;
    used = 1 + n;
  } else {
    uint32_t n = vbe_get(p, limit, &v);
    // Values ascend strictly and never reach the end marker.
    if (n == 0 || v > END_OF_LIST - 1 - r->current) return WS_EDATA;
    next_value = r->current + v;
    used = n;
  }
  r->pos += used;
  r->left -= used;
  r->returned++;
  r->current = next_value;
  *value = next_value;
  return WS_SUCCESS;
}

}  // namespace

namespace {

// Reads the next 4096 bytes of the postings from the current position when
// fewer than five are buffered and the buffer does not reach the end of
// the postings: 0, or -8 when the read gives nothing.
inline int refill_if_short(plist_reader* r) noexcept {
  if (r->valid - r->pos >= 5 || r->buf_start + r->valid >= r->postings_size) return WS_SUCCESS;
  r->buf_start += r->pos;
  const uint64_t want = std::min<uint64_t>(PLR_BUF_SZ, r->postings_size - r->buf_start);
  const uint64_t at = r->postings_offset + r->buf_start;
  ssize_t got = st_read_at(r->fd, r->mem, r->buf, want, at, r->timing);
  r->pos = 0;
  if (got < 1) {
    r->valid = 0;
    return WS_EREAD;
  }
  r->valid = static_cast<uint32_t>(got);
  return WS_SUCCESS;
}

}  // namespace

int _next(plist_reader* r, uint32_t* value) noexcept {
  *value = END_OF_LIST;
  if (r->pending > 0) {
    r->pending--;
    r->current++;
    r->returned++;
    *value = r->current;
    return WS_SUCCESS;
  }
  if (r->left == 0) return WS_SUCCESS;
  if (int rc = refill_if_short(r); rc != 0) return rc;
  return next_in_buffer(r, value);
}

bool _take_single(plist_reader* r, uint32_t* value) noexcept {
  // _next would decode the code from the buffer as it stands: no run, no
  // read due (five bytes buffered or the buffer reaching the end of the
  // postings), the whole list buffered.
  if (r->returned != 0 || r->pending != 0 || r->left == 0 || r->left > 5 || r->left > r->valid - r->pos ||
      (r->valid - r->pos < 5 && r->buf_start + r->valid < r->postings_size))
    return false;
  const uint8_t* p = r->buf + r->pos;
  uint32_t v;
  const uint32_t n = vbe_get(p, p + r->left, &v);
  if (n == 0 || n != r->left || v > END_OF_LIST - 1 - r->current) return false;
  r->pos += n;
  r->left = 0;
  r->returned = 1;
  r->current += v;
  *value = r->current;
  return true;
}

int _next_batch(plist_reader* r, uint32_t* values, uint32_t cap, uint32_t* n) noexcept {
  *n = 0;
  if (cap == 0) return WS_SUCCESS;
  // The first value as _next gives it; without a call when no read can be
  // due (five bytes buffered) and no run is pending.
  int rc;
  if (r->pending == 0 && r->left > 0 && r->valid - r->pos >= 5) {
    values[0] = END_OF_LIST;
    rc = next_in_buffer(r, &values[0]);
  } else {
    rc = _next(r, &values[0]);
  }
  if (rc != 0) return rc;
  *n = 1;
  if (values[0] == END_OF_LIST) return WS_SUCCESS;
  uint32_t k = 1;
  uint32_t current = r->current;
  uint32_t pending = r->pending;
  // The rest of the list in this buffer: the bytes _next would decode
  // without a read, while it would still find five bytes or the end of
  // the postings in the buffer.
  const uint8_t* p = r->buf + r->pos;
  const uint64_t list_idx = std::min<uint64_t>(r->valid, r->pos + r->left);
  const bool buffer_is_last = r->buf_start + r->valid >= r->postings_size;
  const uint64_t safe_idx =
      buffer_is_last ? list_idx : std::min<uint64_t>(list_idx, r->valid >= 4 ? r->valid - 4 : 0);
  const uint8_t* const list_end = r->buf + list_idx;
  const uint8_t* const safe_end = r->buf + safe_idx;
  while (k < cap) {
    if (pending > 0) {
      const uint32_t take = std::min(pending, cap - k);
      for (uint32_t i = 0; i < take; ++i) values[k + i] = current + 1 + i;
      current += take;
      pending -= take;
      k += take;
      continue;
    }
    if (p >= safe_end) break;
    // Neither a fault nor the end of the list is taken here: _next meets
    // them on the next call, exactly where it would have.
    if (*p == 0) {
      uint32_t run;
      uint32_t used = vbe_get(p + 1, list_end, &run);
      if (used == 0 || run == 0 || run > END_OF_LIST - 1 - current) break;
      p += 1 + used;
      values[k++] = ++current;
      pending = run - 1;
    } else {
      uint32_t gap;
      uint32_t used = vbe_get(p, list_end, &gap);
      if (used == 0 || gap > END_OF_LIST - 1 - current) break;
      p += used;
      current += gap;
      values[k++] = current;
    }
  }
  const uint32_t consumed = static_cast<uint32_t>(p - (r->buf + r->pos));
  r->pos += consumed;
  r->left -= consumed;
  r->returned += k - 1;
  r->current = current;
  r->pending = pending;
  *n = k;
  return WS_SUCCESS;
}

namespace {

constexpr uint64_t BYTES_01 = 0x0101010101010101ull;
constexpr uint64_t BYTES_80 = 0x8080808080808080ull;

// Eight one-byte gap codes of 2 to 127 each (no run, no longer code, no gap
// a writer would have made a run of): true, and their sum in *sum.
inline bool eight_short_gaps(const uint8_t* p, uint32_t* sum) noexcept {
  uint64_t x;
  memcpy(&x, p, 8);
  // A byte below 2 sets its high bit in x - 2 while its own is clear.
  if ((x & BYTES_80) != 0 || ((x - 2 * BYTES_01) & ~x & BYTES_80) != 0) return false;
  const uint64_t pairs = (x & 0x00FF00FF00FF00FFull) + ((x >> 8) & 0x00FF00FF00FF00FFull);
  *sum = static_cast<uint32_t>((pairs * 0x0001000100010001ull) >> 48);
  return true;
}

}  // namespace

int _plist_move(plist_reader* r, plw* w, uint32_t limit, uint32_t delta) noexcept {
  uint32_t cur = r->current;
  uint32_t pending = r->pending;
  uint32_t returned = r->returned;
  uint32_t bytes = w->bytes;
  uint64_t total = w->total;
  uint32_t count = w->count_forterm;
  uint32_t run = w->run;
  uint8_t* const out = w->buf;
  int rc = WS_SUCCESS;
  limit = std::max(limit, cur);  // nothing at or below the current value is left
  // What _next and _plist_writer_put would each do for the value, with the
  // target value cur + delta: a gap of 1 lengthens the writer's run, a gap
  // of 0 is a duplicate, any other gap is written as it was read.
  auto emit_gap = [&](uint32_t gap) noexcept {
    if (run > 0) {
      out[bytes] = 0;
      const uint32_t m = 1 + st_encode_to_vbe(out + bytes + 1, run);
      bytes += m;
      total += m;
      run = 0;
    }
    const uint32_t m = st_encode_to_vbe(out + bytes, gap);
    bytes += m;
    total += m;
    count++;
  };
  bool stop = false;
  while (!stop) {
    if (pending > 0) {
      if (cur >= limit) break;
      const uint32_t take = std::min(pending, limit - cur);
      cur += take;
      pending -= take;
      returned += take;
      run += take;
      count += take;
      if (pending > 0) break;
    }
    if (r->left == 0) break;
    if ((rc = refill_if_short(r)) != 0) break;
    // Codes starting before safe are decoded from the buffer as it stands:
    // _next would read nothing for them (five bytes left or the buffer at
    // the end of the postings), and they lie in the list.
    const uint8_t* const buf = r->buf;
    const bool at_end = r->buf_start + r->valid >= r->postings_size;
    const uint32_t list_end = r->pos + static_cast<uint32_t>(std::min<uint64_t>(r->valid - r->pos, r->left));
    const uint32_t safe = at_end ? list_end : std::min(list_end, r->valid >= 4 ? r->valid - 4 : 0);
    if (safe <= r->pos) break;  // left to _next, which refuses it
    uint32_t q = r->pos;
    while (q < safe) {
      // Eight one-byte gaps at once while none of them could need a read,
      // a flush or a run: the bytes are those a writer makes of them.
      uint32_t sum;
      if (run == 0 && q + 8 <= list_end && (at_end || q + 12 <= r->valid) &&
          bytes + 8 + PLW_MARGIN < PLW_BUF_SZ + 1 && eight_short_gaps(buf + q, &sum) && sum <= limit - cur) {
        memcpy(out + bytes, buf + q, 8);
        bytes += 8;
        total += 8;
        count += 8;
        returned += 8;
        cur += sum;
        q += 8;
        continue;
      }
      const uint8_t b = buf[q];
      uint32_t k;
      if (b == 0) {
        // A run: the next value is one above, k - 1 more follow.
        const uint32_t n = vbe_get(buf + q + 1, buf + list_end, &k);
        if (n == 0 || k == 0 || k > END_OF_LIST - 1 - cur || cur >= limit) {
          stop = true;
          break;
        }
        q += 1 + n;
        cur++;
        returned++;
        run++;
        count++;
        pending = k - 1;
        break;
      }
      if (b < 0x80) {
        k = b;
        if (k > limit - cur) {
          stop = true;
          break;
        }
        q++;
      } else {
        const uint32_t n = vbe_get(buf + q, buf + list_end, &k);
        if (n == 0 || k > END_OF_LIST - 1 - cur || k > limit - cur) {
          stop = true;
          break;
        }
        q += n;
      }
      returned++;
      cur += k;
      if (k == 1) {
        run++;
        count++;
        continue;
      }
      if (k == 0) continue;  // the writer drops a repeated value
      emit_gap(k);
      if (bytes + PLW_MARGIN >= PLW_BUF_SZ + 1) {
        w->bytes = bytes;
        if (!flush_out(w, bytes)) {
          rc = WS_EWRITE;  // buffer kept
          stop = true;
          break;
        }
        w->offset += bytes;
        bytes = 0;
      }
    }
    r->left -= q - r->pos;
    r->pos = q;
  }
  r->current = cur;
  r->pending = pending;
  r->returned = returned;
  w->bytes = bytes;
  w->total = total;
  w->count_forterm = count;
  w->run = run;
  w->last_value = cur + delta;
  return rc;
}

int _seek(plist_reader* r, uint32_t target, uint32_t* value) noexcept {
  uint32_t v;
  int rc = _next(r, &v);
  if (rc != 0) return rc;
  while (v != END_OF_LIST && v < target) {
    if (r->pending > 0 && target - r->current <= r->pending) {
      // Jump inside the run without decoding anything.
      r->pending -= target - r->current;
      r->returned += target - r->current;
      r->current = target;
      *value = target;
      return WS_SUCCESS;
    }
    r->current += r->pending;
    r->returned += r->pending;
    r->pending = 0;
    if ((rc = _next(r, &v)) != 0) return rc;
  }
  *value = v;
  return WS_SUCCESS;
}

void close_plist_reader(plist_reader* r) noexcept { _ar_close(&r->plo_reader); }

int64_t st_warm_slice_pl_hash(warm* w, uint32_t term_id) noexcept {
  plist_reader* r = static_cast<plist_reader*>(calloc(1, sizeof(plist_reader)));
  if (r == nullptr) return -1;
  int64_t result = -1;
  if (_init_reader(r, w, 1024, nullptr) == 0) {
    if (_seek_reader(r, term_id) == 0) {
      uint64_t h = 5381;
      uint32_t v;
      int rc;
      while ((rc = _next(r, &v)) == 0 && v != END_OF_LIST) h = h * 33 + v;
      if (rc == 0) result = static_cast<int64_t>(h);
    }
    close_plist_reader(r);
  }
  free(r);
  return result;
}

}  // namespace tarnix
