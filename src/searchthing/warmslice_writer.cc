// The index file writer: a prepared hot slice becomes a new index file.
// The whole file is assembled in one zeroed buffer sized from the slice's
// counts with room for the worst case (5 bytes per posting, the lexicon's
// longest codes), so nothing is reallocated while writing; the buffer is
// then written to a freshly, exclusively created file, and stays behind as
// an in-memory handle (fd -1) usable like an opened file until closed.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "searchthing/check.h"
#include "searchthing/codes.h"
#include "searchthing/hotslice.h"
#include "searchthing/warmslice.h"

namespace tarnix {

namespace {

// Records rc, releases the writer's handle and yields null.
warm* fail(warm* w, wrc* wrc_o, int rc, int err) noexcept {
  if (w != nullptr) st_warm_slice_close(w);
  _set_rc_and_errno(wrc_o, rc, err);
  return nullptr;
}

// Builds the header of the slice's file. False when an attribute column
// would need 32 bits: the elements of such a column read back as 0, so the
// file would silently change every value's attribute.
bool build_header(warm_header* h, hot_slice* hot, uint32_t num_values, uint32_t num_terms,
                  uint32_t num_postings) noexcept {
  memset(h->b, 0, sizeof(h->b));
  _init_magic(h);
  hdr_set(h, HDR_NUM_VALUES, num_values);
  hdr_set(h, HDR_NUM_POSTINGS, num_postings);
  hdr_set(h, HDR_NUM_TERMS, num_terms);
  struct column {
    hdr_field size, nbits;
    uint32_t largest;
  };
  const column cols[] = {
      {HDR_ET_SIZE, HDR_ET_NBITS, get_largest_event_type(hot)},
      {HDR_S_SIZE, HDR_S_NBITS, get_largest_source(hot)},
      {HDR_ST_SIZE, HDR_ST_NBITS, get_largest_source_type(hot)},
      {HDR_H_SIZE, HDR_H_NBITS, get_largest_host(hot)},
  };
  bool fits = true;
  for (const column& c : cols) {
    const uint32_t nbits = log2n(c.largest);
    fits = fits && nbits < 32;
    hdr_set(h, c.nbits, nbits);
    hdr_set(h, c.size, static_cast<uint32_t>(column_size(num_values, nbits)));
  }
  hdr_set(h, HDR_D_NBITS, 1);
  hdr_set(h, HDR_D_SIZE, static_cast<uint32_t>(column_size(num_values, 1)));
  return fits;
}

warm* _warm_slice_create(hot_slice* hot, char* filename, const char* prefix, const char* suffix,
                         wrc* wrc_o) noexcept {
  _set_rc(wrc_o, WS_SUCCESS);
  warm* w = static_cast<warm*>(calloc(1, sizeof(warm)));
  if (w == nullptr) return fail(nullptr, wrc_o, WS_ENOMEM, errno);
  w->plo64 = true;
  w->fd = -1;

  int32_t latest = 0, earliest = 0;
  uint32_t num_values = 0, num_terms = 0, num_postings = 0;
  if (st_hot_slice_prepare(hot, &latest, &earliest, &num_values, &num_terms, &num_postings) != 0) {
    free(w);
    _set_rc_verbose(wrc_o, WS_ENOTAVAIL, -1, "st_hot_slice_prepare: no values");
    return nullptr;
  }
  warm_header h;
  if (!build_header(&h, hot, num_values, num_terms, num_postings)) {
    free(w);
    _set_rc_verbose(wrc_o, WS_E32BIT, -1, "attribute value needs a 32-bit column in st_warm_slice_create");
    return nullptr;
  }

  // One buffer for the whole file: the fixed part, then room for the
  // lexicon (its worst case is below 17 bytes per term plus the term bytes)
  // and 5 bytes per posting.
  const uint64_t fixed = size_without_vardata(&h);
  const uint64_t term_bytes = hot->term_bytes_used;
  const uint64_t buf_sz = fixed + 5ull * num_postings + 9ull * num_terms + 4 + (2ull * num_terms + 3) * 4 +
                          term_bytes;
  uint8_t* buf = static_cast<uint8_t*>(calloc(1, buf_sz));
  if (buf == nullptr) {
    const int err = errno;
    free(w);
    return fail(nullptr, wrc_o, WS_ENOMEM, err);
  }
  memcpy(buf, h.b, WARM_HEADER_SZ);
  w->body = buf;
  w->map = warm_map{buf, buf_sz};
  warm_offsets o;
  _get_warm_slice_offsets(&h, &o);
  w->values = buf + o.values;
  w->et_array = buf + o.et;
  w->s_array = buf + o.s;
  w->st_array = buf + o.st;
  w->h_array = buf + o.h;
  w->d_array = buf + o.d;
  w->pl_offs = buf + o.pl_offs;
  w->metadata = buf + o.metadata;
  w->metadata_offset = NO_OFFSET;

  // Values, latest first.
  ST_ASSERT(st_hot_slice_value_end(hot) - st_hot_slice_value_begin(hot) == num_values);
  if (st_hot_slice_is_streaming(hot)) {
    const uint32_t begin = st_hot_slice_value_begin(hot);
    for (uint32_t i = 0; i < num_values; ++i) {
      const uint32_t hot_i = begin + i;
      if (i > 0) {
        ST_ASSERT_TEXT(hot->values[hot_i - 1].timestamp >= hot->values[hot_i].timestamp,
                       "hot->values[ hot_i - 1 ].timestamp >= hot->values[ hot_i ].timestamp");
      }
      _encode_tsval(w->values + static_cast<uint64_t>(i) * TSVAL_RECORD_SZ, i, &hot->values[hot_i], w);
    }
  } else {
    for (uint32_t i = 0; i < num_values; ++i) {
      _encode_tsval(w->values + static_cast<uint64_t>(i) * TSVAL_RECORD_SZ, i, hot->value_hash[i], w);
    }
  }

  // Lexicon, 8 terms per block; the postings follow it directly.
  w->lex = st_fclex_create(buf + fixed, buf_sz - fixed, hot->sorted_terms, num_terms, 8,
                           static_cast<uint32_t>(term_bytes));
  if (w->lex == nullptr) return fail(w, wrc_o, WS_ENOMEM, errno);
  const uint64_t postings_off = fixed + st_fclex_size(w->lex);
  w->postings = buf + postings_off;

  uint64_t written = 0;
  uint64_t start = 0;
  for (uint32_t t = 0; t < num_terms; ++t) {
    const uint32_t count = hot->term_posting_counts[t];
    const uint32_t* ids = hot->postings + start;
    uint32_t prev_tsval_id = 0;
    for (uint32_t k = 0; k < count; ++k) {
      const uint32_t tsval_id = ids[k];
      if (postings_off + written + 6 > buf_sz) {
        fprintf(stderr, "%d overrun writing posting list: %u\n", static_cast<int>(time(nullptr)), tsval_id);
        return fail(w, wrc_o, WS_EOVERRUN, 0);
      }
      ST_ASSERT(tsval_id >= prev_tsval_id);
      written += st_encode_to_vbe(buf + postings_off + written, tsval_id - prev_tsval_id);
      prev_tsval_id = tsval_id;
    }
    start += count;
    store_be64(w->pl_offs + 8ull * t, written);
    const st_term_metadata& m = hot->term_metadata[st_hot_slice_get_term_index(hot, t)];
    uint8_t* e = w->metadata + TERM_METADATA_SZ * static_cast<uint64_t>(t);
    store_be32(e, count);
    store_be32(e + 4, static_cast<uint32_t>(m.earliest));
    store_be32(e + 8, static_cast<uint32_t>(m.latest));
  }
  const uint64_t file_sz = postings_off + written;
  w->map.len = file_sz;
  w->postings_size = written;

  if (!_filename_from_time(filename, prefix, suffix, earliest, latest)) {
    return fail(w, wrc_o, WS_EOPEN, ENAMETOOLONG);
  }
  const int fd = open(filename, O_RDWR | O_CREAT | O_EXCL | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return fail(w, wrc_o, WS_EOPEN, errno);
  uint64_t done = 0;
  while (done < file_sz) {
    const ssize_t r = write(fd, buf + done, file_sz - done);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) {
      const int err = r == 0 ? ENOSPC : errno;
      close(fd);
      return fail(w, wrc_o, WS_EWRITE, err);
    }
    done += static_cast<uint64_t>(r);
  }
  if (close(fd) != 0) return fail(w, wrc_o, WS_ECLOSE, errno);
  _set_rc(wrc_o, WS_SUCCESS);
  return w;
}

}  // namespace

warm* st_warm_slice_create(hot_slice* hot, char* filename, const char* prefix, const char* suffix,
                           wrc* wrc_o) noexcept {
  ST_ASSERT_TEXT(hot != nullptr, "hot != ((void *)0)");
  ST_ASSERT_TEXT(filename != nullptr, "filename != ((void *)0)");
  ST_ASSERT_TEXT(prefix != nullptr, "prefix!= ((void *)0)");
  ST_ASSERT_TEXT(*prefix != '\0', "*prefix!= '\\0'");
  ST_ASSERT_TEXT(suffix != nullptr, "suffix != ((void *)0)");
  char copy[PATH_BUF_SZ];
  snprintf(copy, sizeof(copy), "%s", prefix);
  const size_t n = strlen(copy);
  if (n > 1 && copy[n - 1] == '/') copy[n - 1] = '\0';
  return _warm_slice_create(hot, filename, copy, suffix, wrc_o);
}

}  // namespace tarnix
