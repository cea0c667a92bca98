// Fixed-size record arrays: the posting-list offset table and the term
// metadata table are streamed record by record through one buffer each,
// with positional reads and writes only, so that any number of array
// readers and writers can share one descriptor.
#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "searchthing/check.h"
#include "searchthing/fclex_io.h"
#include "searchthing/warmslice_util.h"

namespace tarnix {

int _aw_open(aw* w, int fd, uint64_t offset, uint64_t obj_sz, uint32_t capacity) noexcept {
  ST_ASSERT(obj_sz > 0 && capacity > 0);
  w->fd = fd;
  w->offset = offset;
  w->count = 0;
  w->capacity = capacity;
  w->_obj_sz = obj_sz;
  w->buf = static_cast<uint8_t*>(malloc(obj_sz * capacity));
  if (w->buf == nullptr) {
    w->capacity = 0;
    return WS_ENOMEM;
  }
  return WS_SUCCESS;
}

int _aw_write(aw* w, const void* obj, uint64_t osz) noexcept {
  ST_ASSERT_TEXT(osz == w->_obj_sz, "osz == aw->_obj_sz");
  // The buffer goes out only when a further record arrives, so that close
  // always has something to write unless nothing was ever written.
  if (w->count == w->capacity) {
    const uint64_t n = w->_obj_sz * w->capacity;
    if (!st_pwrite_full(w->fd, w->buf, n, w->offset)) return WS_EWRITE;  // records stay buffered
    w->offset += n;
    w->count = 0;
  }
  memcpy(w->buf + w->_obj_sz * w->count, obj, osz);
  w->count++;
  return WS_SUCCESS;
}

int _aw_close(aw* w) noexcept {
  int rc = WS_SUCCESS;
  if (w->count > 0 && w->buf != nullptr && !st_pwrite_full(w->fd, w->buf, w->_obj_sz * w->count, w->offset)) {
    rc = WS_EWRITE;
  }
  free(w->buf);
  w->buf = nullptr;
  w->count = 0;
  w->offset = 0;
  w->capacity = 0;
  w->fd = -1;
  return rc;
}

int _ar_open(ar_reader* r, int fd, uint64_t offset, uint64_t obj_sz, uint32_t count, uint32_t capacity,
             uint32_t* timing) noexcept {
  ST_ASSERT(obj_sz > 0 && capacity > 0);
  *r = ar_reader{};
  r->fd = fd;
  r->offset = offset;
  r->_obj_sz = obj_sz;
  r->count = count;
  r->capacity = capacity;
  r->timing = timing;
  // Not zeroed: a large buffer costs address space only, and only the pages
  // that the array's records reach are ever touched.
  r->buf = static_cast<uint8_t*>(malloc(obj_sz * capacity));
  if (r->buf == nullptr) {
    r->capacity = 0;
    return WS_ENOMEM;
  }
  return WS_SUCCESS;
}

const uint8_t* _ar_get_loaded(ar_reader* r, uint64_t objsz, wrc* w) noexcept {
  ST_ASSERT_TEXT(objsz == r->_obj_sz, "objsz == reader->_obj_sz");
  const uint32_t c = r->cursor;
  if (c >= r->count) {
    _set_rc(w, WS_ENOTAVAIL);
    return nullptr;
  }
  const bool held = r->buffered > 0 && r->first <= c && c - r->first < r->buffered;
  if (!held) {
    // A failed read still leaves the range marked as buffered; callers give
    // up on the array after a failure, so nothing is served from it.
    r->first = c;
    r->buffered = std::min(r->capacity, r->count - c);
    const uint64_t n = r->buffered * r->_obj_sz;
    const uint64_t at = r->offset + static_cast<uint64_t>(c) * r->_obj_sz;
    ssize_t got = st_read_at(r->fd, r->mem, r->buf, n, at, r->timing);
    if (got < 0 || static_cast<uint64_t>(got) != n) {
      _set_rc(w, WS_EREAD);
      return nullptr;
    }
  }
  _set_rc(w, WS_SUCCESS);
  r->cursor = c + 1;
  return r->buf + static_cast<uint64_t>(c - r->first) * r->_obj_sz;
}

const uint8_t* _ar_get_i(ar_reader* r, uint32_t i, uint64_t objsz, wrc* w) noexcept {
  r->cursor = i;
  return _ar_get(r, objsz, w);
}

int _ar_close(ar_reader* r) noexcept {
  free(r->buf);
  r->buf = nullptr;
  r->buffered = 0;
  return WS_SUCCESS;
}

}  // namespace tarnix
