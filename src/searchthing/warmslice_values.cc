// The value table of an index file: the order of values, their on-disk
// encoding (8-byte record plus five bit-packed column elements) and the
// buffered value reader that merges and enumerations walk it with.
#include <cstdlib>
#include <cstring>

#include "searchthing/check.h"
#include "searchthing/codes.h"
#include "searchthing/fclex_io.h"
#include "searchthing/warmslice.h"

namespace tarnix {

namespace {

int compare_keys(int32_t ta, uint32_t aa, int32_t tb, uint32_t ab) noexcept {
  if (ta < tb) return 1;
  if (ta > tb) return -1;
  if (aa < ab) return 1;
  if (aa > ab) return -1;
  return 0;
}

void decode_record(const tsval_reader* r, uint32_t id, const uint8_t* rec, tsval* out) noexcept {
  out->timestamp = static_cast<int32_t>(load_be32(rec));
  out->event_address = load_be32(rec + 4);
  if (r->et_array == nullptr) {
    out->event_type = out->source = out->source_type = out->host = 0xFFFFFFFFu;
    return;
  }
  out->event_type = decode_from_byte_str(r->et_array, id, r->et_nbits);
  out->source = decode_from_byte_str(r->s_array, id, r->s_nbits);
  out->source_type = decode_from_byte_str(r->st_array, id, r->st_nbits);
  out->host = decode_from_byte_str(r->h_array, id, r->h_nbits);
  if (decode_from_byte_str(r->d_array, id, r->d_nbits) == 1) out->source = DELETED_SOURCE;
}

}  // namespace

int st_tsval_compare(const tsval* a, const tsval* b) noexcept {
  return compare_keys(a->timestamp, a->event_address, b->timestamp, b->event_address);
}

int st_ntsval_compare(const uint8_t* a, const uint8_t* b) noexcept {
  return compare_keys(static_cast<int32_t>(load_be32(a)), load_be32(a + 4), static_cast<int32_t>(load_be32(b)),
                      load_be32(b + 4));
}

void _encode_tsval(uint8_t* record_out, uint32_t id, const tsval* v, warm* w) noexcept {
  ST_ASSERT_TEXT(w->et_array != nullptr, "warm->et_array");
  ST_ASSERT_TEXT(w->s_array != nullptr, "warm->s_array");
  ST_ASSERT_TEXT(w->st_array != nullptr, "warm->st_array");
  ST_ASSERT_TEXT(w->h_array != nullptr, "warm->h_array");
  ST_ASSERT_TEXT(w->d_array != nullptr, "warm->d_array");
  const warm_header* h = warm_hdr(w);
  store_be32(record_out, static_cast<uint32_t>(v->timestamp));
  store_be32(record_out + 4, v->event_address);
  encode_to_byte_str(w->et_array, v->event_type, id, et_nbits(h));
  encode_to_byte_str(w->s_array, v->source, id, s_nbits(h));
  encode_to_byte_str(w->st_array, v->source_type, id, st_nbits(h));
  encode_to_byte_str(w->h_array, v->host, id, h_nbits(h));
  encode_to_byte_str(w->d_array, v->source == DELETED_SOURCE ? 1u : 0u, id, d_nbits(h));
}

int _tsval_reader_open(tsval_reader* r, warm* w, uint32_t bufcap, uint32_t* timing) noexcept {
  memset(r, 0, sizeof(*r));
  const warm_header* h = warm_hdr(w);
  if (bufcap > 0) {
    r->_buf = static_cast<uint8_t*>(malloc(static_cast<size_t>(bufcap) * TSVAL_RECORD_SZ));
    if (r->_buf == nullptr) return WS_ENOMEM;
  }
  r->capacity = bufcap;
  r->et_array = w->et_array;
  r->s_array = w->s_array;
  r->st_array = w->st_array;
  r->h_array = w->h_array;
  r->d_array = w->d_array;
  r->et_nbits = et_nbits(h);
  r->s_nbits = s_nbits(h);
  r->st_nbits = st_nbits(h);
  r->h_nbits = h_nbits(h);
  r->d_nbits = d_nbits(h);
  r->borrowed = true;
  r->_fd = w->fd;
  // A writer's handle has no descriptor: its whole file is in its buffer.
  r->_mem = w->fd < 0 ? w->body : nullptr;
  r->values_offset = static_cast<uint64_t>(w->values - w->body);
  r->_num_values = hdr_num_values(h);
  r->timing = timing;
  return WS_SUCCESS;
}

int _tsval_reader_open_partial(tsval_reader* r, int fd, uint32_t num_values, uint64_t values_offset,
                               uint32_t bufcap) noexcept {
  memset(r, 0, sizeof(*r));
  if (bufcap > 0) {
    r->_buf = static_cast<uint8_t*>(malloc(static_cast<size_t>(bufcap) * TSVAL_RECORD_SZ));
    if (r->_buf == nullptr) return WS_ENOMEM;
  }
  r->capacity = bufcap;
  r->borrowed = false;
  r->_fd = fd;
  r->values_offset = values_offset;
  r->_num_values = num_values;
  return WS_SUCCESS;
}

int tsval_reader_decode_hint(tsval_reader* r, uint32_t id, tsval* out, uint32_t hint) noexcept {
  if (id >= r->_num_values) return WS_EDATA;
  if (r->cache_count > 0 && r->cache_first <= id && id - r->cache_first < r->cache_count) {
    decode_record(r, id, r->_buf + static_cast<size_t>(id - r->cache_first) * TSVAL_RECORD_SZ, out);
    return WS_SUCCESS;
  }
  const uint64_t off = r->values_offset + static_cast<uint64_t>(id) * TSVAL_RECORD_SZ;
  if (r->capacity == 0) {
    uint8_t rec[TSVAL_RECORD_SZ];
    if (st_read_at(r->_fd, r->_mem, rec, sizeof(rec), off, r->timing) != static_cast<ssize_t>(sizeof(rec))) {
      return WS_EREAD;
    }
    decode_record(r, id, rec, out);
    return WS_SUCCESS;
  }
  uint32_t n = r->_num_values - id;
  if (n > r->capacity) n = r->capacity;
  // A hint elsewhere says the next request will not follow this one.
  if (hint != 0 && (hint < id || hint - id >= n)) n = 1;
  const size_t bytes = static_cast<size_t>(n) * TSVAL_RECORD_SZ;
  if (st_read_at(r->_fd, r->_mem, r->_buf, bytes, off, r->timing) != static_cast<ssize_t>(bytes)) {
    r->cache_count = 0;
    return WS_EREAD;
  }
  r->cache_first = id;
  r->cache_count = n;
  decode_record(r, id, r->_buf, out);
  return WS_SUCCESS;
}

int _tsval_reader_decode(tsval_reader* r, uint32_t id, tsval* out) noexcept {
  return tsval_reader_decode_hint(r, id, out, 0);
}

int tsval_reader_decode_from_cache(tsval_reader* r, uint32_t id, tsval* out) noexcept {
  if (r->cache_count == 0 || id < r->cache_first || id - r->cache_first >= r->cache_count) return WS_ENOTAVAIL;
  decode_record(r, id, r->_buf + static_cast<size_t>(id - r->cache_first) * TSVAL_RECORD_SZ, out);
  return WS_SUCCESS;
}

void _tsval_reader_close(tsval_reader* r) noexcept {
  if (r == nullptr) return;
  free(r->_buf);
  if (!r->borrowed) {
    free(r->et_array);
    free(r->s_array);
    free(r->st_array);
    free(r->h_array);
    free(r->d_array);
  }
  memset(r, 0, sizeof(*r));
}

int st_warm_slice_all_events(warm* w, tsval** array, uint64_t* cap, uint64_t* pos, wrc* wrc_o) noexcept {
  ST_ASSERT(*pos <= *cap);
  _set_rc(wrc_o, WS_SUCCESS);
  const uint32_t n = st_warm_slice_values(w);
  if (*cap < *pos + n) {
    tsval* grown = static_cast<tsval*>(realloc(*array, sizeof(tsval) * (*pos + n)));
    if (grown == nullptr) {
      free(*array);
      *array = nullptr;
      return _set_rc(wrc_o, WS_ENOMEM);
    }
    *array = grown;
    *cap = *pos + n;
  }
  tsval_reader r;
  if (_tsval_reader_open(&r, w, 16384, nullptr) != 0) return _set_rc(wrc_o, WS_ENOMEM);
  for (uint32_t i = 0; i < n; ++i) {
    tsval* slot = &(*array)[*pos];
    const int rc = _tsval_reader_decode(&r, i, slot);
    if (rc != 0) {
      _tsval_reader_close(&r);
      return _set_rc_verbose(wrc_o, rc, -1, "_tsval_reader_decode in st_warm_slice_all_events");
    }
    // A deleted value is overwritten by the next one.
    if (slot->source != DELETED_SOURCE) *pos += 1;
  }
  _tsval_reader_close(&r);
  return WS_SUCCESS;
}

int st_warm_slice_apply_events(warm* w, tsval_cb cb, void* context, wrc* wrc_o) noexcept {
  _set_rc(wrc_o, WS_SUCCESS);
  tsval_reader r;
  if (_tsval_reader_open(&r, w, 16384, nullptr) != 0) return _set_rc(wrc_o, WS_ENOMEM);
  const uint32_t n = st_warm_slice_values(w);
  int result = WS_SUCCESS;
  for (uint32_t i = 0; i < n; ++i) {
    tsval v;
    const int rc = _tsval_reader_decode(&r, i, &v);
    if (rc != 0) {
      result = _set_rc_verbose(wrc_o, rc, -1, "_tsval_reader_decode in st_warm_slice_apply_events");
      break;
    }
    if (v.source == DELETED_SOURCE) continue;
    // A callback that returns nonzero ends the walk with its result.
    result = cb(&v, context);
    if (result != 0) break;
  }
  _tsval_reader_close(&r);
  return result;
}

}  // namespace tarnix
