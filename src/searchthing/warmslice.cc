// Opening and closing index files, the handle's accessors and term metadata
// access, file names for open files, and the small maintenance operations
// over an open file (delete marks, term enumeration, one term's metadata).
//
// Nothing in a file is trusted: before anything is mapped, the header's
// section offsets and the lexicon's own size words are checked against the
// file's length, so that a short or damaged file gives a result code and a
// reader never touches a byte beyond the end of the file.
#include "searchthing/warmslice.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "searchthing/check.h"
#include "searchthing/codes.h"
#include "searchthing/fclex_io.h"
#include "searchthing/hotslice.h"

namespace tarnix {

namespace {

constexpr uint64_t round4(uint64_t x) noexcept { return (x + 3) & ~static_cast<uint64_t>(3); }

// Size of the lexicon section at off of fd, 0 when it cannot be sized. The
// term count and block size are looked at first: a zero in either has no
// block structure to size.
uint64_t lex_extent(int fd, uint64_t off) noexcept {
  uint8_t head[8];
  if (!st_pread_full(fd, head, sizeof(head), off)) return 0;
  if (load_be32(head) == 0 || load_be32(head + 4) == 0) return 0;
  return st_fclex_size_fd(fd, off);
}

// Every attribute column must hold num_values elements of its width, and
// values need a deleted flag of one bit: a flag of no bits could not be set.
bool columns_fit(const warm_header* h) noexcept {
  const uint64_t n = hdr_num_values(h);
  if (n > 0 && d_nbits(h) != 1) return false;
  const uint32_t sizes[] = {et_size(h), s_size(h), st_size(h), h_size(h), d_size(h)};
  const uint32_t widths[] = {et_nbits(h), s_nbits(h), st_nbits(h), h_nbits(h), d_nbits(h)};
  for (int i = 0; i < 5; ++i) {
    if (widths[i] > 32) return false;
    if (sizes[i] < (n * widths[i] + 7) / 8) return false;
  }
  return true;
}

void set_pointers(warm* w) noexcept {
  warm_offsets o;
  _get_warm_slice_offsets(warm_hdr(w), &o);
  w->values = w->body + o.values;
  w->et_array = w->body + o.et;
  w->s_array = w->body + o.s;
  w->st_array = w->body + o.st;
  w->h_array = w->body + o.h;
  w->d_array = w->body + o.d;
  w->pl_offs = w->body + o.pl_offs;
  w->plo64 = _get_plo_size(warm_hdr(w)) == 8;
}

// A handle under construction: until release() everything it holds
// (lexicon, mapping, descriptor when owned, the record itself) is freed.
struct open_guard {
  warm* w = nullptr;
  bool close_fd = true;
  ~open_guard() {
    if (w == nullptr) return;
    if (w->lex != nullptr) st_fclex_close(w->lex);
    if (w->map.ptr != nullptr) munmap(w->map.ptr, w->map.len);
    if (close_fd && w->fd >= 0) close(w->fd);
    free(w);
  }
  warm* release() noexcept {
    warm* r = w;
    w = nullptr;
    return r;
  }
};

// Reads and checks the header of fd; the file's length into *file_size.
int read_header(int fd, warm_header* h, uint64_t* file_size, wrc* wrc_o) noexcept {
  struct stat st;
  if (fstat(fd, &st) != 0) return _set_rc_verbose(wrc_o, WS_ESTAT, -1, "fstat warm slice");
  *file_size = static_cast<uint64_t>(st.st_size);
  if (!st_pread_full(fd, h->b, WARM_HEADER_SZ, 0)) return _set_rc_verbose(wrc_o, WS_EREAD, -1, "pread warm header failure");
  if (!verify_magic(h)) return _set_rc(wrc_o, WS_EMAGIC);
  return WS_SUCCESS;
}

// Length of everything up to the end of the last lexicon, checked against
// the file: -14 when a lexicon cannot be sized, -7 when the file is shorter.
int mapped_extent(int fd, const warm_header* h, uint64_t file_size, uint64_t* len, wrc* wrc_o) noexcept {
  const uint64_t lex_off = size_without_vardata(h);
  const uint64_t lex_sz = lex_extent(fd, lex_off);
  if (lex_sz == 0) return _set_rc_verbose(wrc_o, WS_ELEX, -1, "st_fclex_size_fd");
  uint64_t l = lex_off + lex_sz;
  if (l > file_size) return _set_rc(wrc_o, WS_ETRUNC);
  if (_has_reverse_lex(h)) {
    l = round4(l);
    const uint64_t rev_sz = lex_extent(fd, l);
    if (rev_sz == 0) return _set_rc_verbose(wrc_o, WS_ELEX, -1, "st_fclex_size_fd for reverse lex");
    l += rev_sz;
    if (l > file_size) return _set_rc(wrc_o, WS_ETRUNC);
  }
  *len = l;
  return WS_SUCCESS;
}

// Steps shared by both mapped opens, once the mapping is in place.
int finish_mapped(warm* w, wrc* wrc_o) noexcept {
  const warm_header* h = warm_hdr(w);
  if (!verify_magic(h)) return _set_rc(wrc_o, WS_EMAGIC);
  if (!columns_fit(h)) return _set_rc_verbose(wrc_o, WS_EDATA, -1, "value columns do not fit the header");
  set_pointers(w);
  w->metadata = w->body + _offset_metadata(h);
  w->metadata_offset = NO_OFFSET;

  const uint64_t lex_off = size_without_vardata(h);
  uint8_t* lex = w->body + lex_off;
  if (memcmp(lex, h->b + HDR_NUM_TERMS, 4) != 0) return _set_rc(wrc_o, WS_EDATA);
  w->lex = st_fclex_open(lex);
  if (w->lex == nullptr) return _set_rc(wrc_o, WS_ENOMEM);
  uint64_t end = lex_off + st_fclex_size(w->lex);
  if (_has_reverse_lex(h)) {
    const uint64_t rev_off = round4(end);
    if (rev_off + 4 > w->map.len) return _set_rc(wrc_o, WS_ETRUNC);
    uint8_t* rev = w->body + rev_off;
    if (memcmp(rev, h->b + HDR_NUM_TERMS, 4) != 0) return _set_rc(wrc_o, WS_EDATA);
    fclex* rl = st_fclex_open(rev);
    if (rl == nullptr) return _set_rc(wrc_o, WS_ENOMEM);
    const uint32_t rev_terms = st_fclex_terms(rl);
    end = rev_off + st_fclex_size(rl);
    st_fclex_close(rl);
    if (rev_terms != hdr_num_terms(h)) return _set_rc(wrc_o, WS_EDATA);
  }
  if (end > w->map.len) return _set_rc(wrc_o, WS_ETRUNC);
  w->postings = w->body + end;
  if (st_fclex_terms(w->lex) != hdr_num_terms(h)) return _set_rc(wrc_o, WS_EDATA);
  return WS_SUCCESS;
}

// Allocates a zeroed handle into g and opens filename into its descriptor;
// false with -2 or -4 recorded.
bool new_handle_open(open_guard* g, const char* filename, int flags, const char* what, wrc* wrc_o) noexcept {
  g->w = static_cast<warm*>(calloc(1, sizeof(warm)));
  if (g->w == nullptr) {
    _set_rc(wrc_o, WS_ENOMEM);
    return false;
  }
  g->w->fd = -1;
  ST_ASSERT(*filename != '\0');
  g->w->fd = open(filename, flags | O_CLOEXEC);
  if (g->w->fd < 0) {
    _set_rc_verbose(wrc_o, WS_EOPEN, -1, what);
    return false;
  }
  return true;
}

warm* _map_for_reading(const char* filename, wrc* wrc_o) noexcept {
  open_guard g;
  if (!new_handle_open(&g, filename, O_RDONLY, "open warm slice for reading", wrc_o)) return nullptr;
  warm* w = g.w;
  warm_header h;
  uint64_t file_size = 0;
  uint64_t len = 0;
  if (read_header(w->fd, &h, &file_size, wrc_o) != 0) return nullptr;
  if (mapped_extent(w->fd, &h, file_size, &len, wrc_o) != 0) return nullptr;
  void* p = mmap(nullptr, len, PROT_READ, MAP_SHARED, w->fd, 0);
  if (p == MAP_FAILED) {
    _set_rc(wrc_o, WS_EMMAP);
    return nullptr;
  }
  w->map = warm_map{p, len};
  w->body = static_cast<uint8_t*>(p);
  if (finish_mapped(w, wrc_o) != 0) return nullptr;
  return g.release();
}

warm* _map_for_updating(const char* filename, wrc* wrc_o) noexcept {
  open_guard g;
  if (!new_handle_open(&g, filename, O_RDWR, "open warm slice for updating", wrc_o)) return nullptr;
  warm* w = g.w;
  struct stat st;
  if (fstat(w->fd, &st) != 0) {
    _set_rc(wrc_o, WS_ESTAT);
    return nullptr;
  }
  if (st.st_size == 0) {
    _set_rc(wrc_o, WS_EEMPTY);
    return nullptr;
  }
  // The whole file is mapped; it must still hold what its header and
  // lexicon promise before anything is read through the mapping.
  warm_header h;
  uint64_t file_size = 0;
  uint64_t len = 0;
  if (read_header(w->fd, &h, &file_size, wrc_o) != 0) return nullptr;
  if (mapped_extent(w->fd, &h, file_size, &len, wrc_o) != 0) return nullptr;
  void* p = mmap(nullptr, file_size, PROT_READ | PROT_WRITE, MAP_SHARED, w->fd, 0);
  if (p == MAP_FAILED) {
    _set_rc(wrc_o, WS_EMMAP);
    return nullptr;
  }
  w->map = warm_map{p, file_size};
  w->body = static_cast<uint8_t*>(p);
  if (finish_mapped(w, wrc_o) != 0) return nullptr;
  return g.release();
}

warm* _map_for_reading_fd(int fd, wrc* wrc_o) noexcept {
  ST_ASSERT(wrc_o);
  _set_rc(wrc_o, WS_SUCCESS);
  open_guard g;
  g.close_fd = false;  // on failure the caller keeps its descriptor
  g.w = static_cast<warm*>(calloc(1, sizeof(warm)));
  if (g.w == nullptr) {
    _set_rc(wrc_o, WS_ENOMEM);
    return nullptr;
  }
  warm* w = g.w;
  w->fd = fd;
  warm_header h;
  uint64_t file_size = 0;
  if (read_header(fd, &h, &file_size, wrc_o) != 0) return nullptr;
  const uint64_t map_sz = _reading_map_size(&h);
  if (map_sz > file_size) return _set_rc(wrc_o, WS_ETRUNC), nullptr;
  void* p = mmap(nullptr, map_sz, PROT_READ, MAP_SHARED, fd, 0);
  if (p == MAP_FAILED) {
    _set_rc(wrc_o, WS_EMMAP);
    return nullptr;
  }
  w->map = warm_map{p, map_sz};
  w->body = static_cast<uint8_t*>(p);
  if (!columns_fit(&h)) return _set_rc_verbose(wrc_o, WS_EDATA, -1, "value columns do not fit the header"), nullptr;
  set_pointers(w);
  w->metadata = nullptr;
  w->metadata_offset = map_sz;

  const uint64_t lex_off = size_without_vardata(&h);
  // Sized before the handle is made: a lexicon that claims more than the
  // file holds is a short file (-7), found before its block cache is sized.
  const uint64_t claimed = lex_extent(fd, lex_off);
  if (claimed != 0 && lex_off + claimed > file_size) return _set_rc(wrc_o, WS_ETRUNC), nullptr;
  w->lex = st_fclex_open_fd(fd, lex_off);
  if (w->lex == nullptr) return _set_rc_verbose(wrc_o, WS_ELEX, -1, "st_fclex_open_fd"), nullptr;
  const uint64_t lex_sz = st_fclex_size(w->lex);
  if (lex_sz == 0) return _set_rc_verbose(wrc_o, WS_ELEX, -1, "st_fclex_size"), nullptr;
  uint64_t end = lex_off + lex_sz;
  if (end > file_size) return _set_rc(wrc_o, WS_ETRUNC), nullptr;
  if (_has_reverse_lex(&h)) {
    const uint64_t rev_off = round4(end);
    const uint64_t rev_claimed = lex_extent(fd, rev_off);
    if (rev_claimed != 0 && rev_off + rev_claimed > file_size) return _set_rc(wrc_o, WS_ETRUNC), nullptr;
    fclex* rl = st_fclex_open_fd(fd, rev_off);
    if (rl == nullptr) return _set_rc_verbose(wrc_o, WS_ELEX, -1, "st_fclex_open_fd for reverse lex"), nullptr;
    const uint64_t rev_sz = st_fclex_size(rl);
    const uint32_t rev_terms = st_fclex_terms(rl);
    st_fclex_close(rl);
    if (rev_sz == 0) return _set_rc_verbose(wrc_o, WS_ELEX, -1, "st_fclex_size for reverse lex"), nullptr;
    // -1, not -12 as in the mapped open: callers have always told these apart.
    if (rev_terms != hdr_num_terms(&h)) return _set_rc(wrc_o, WS_ENOTAVAIL), nullptr;
    end = rev_off + rev_sz;
    if (end > file_size) return _set_rc(wrc_o, WS_ETRUNC), nullptr;
  }
  // Only ever used as an offset: the postings lie beyond the mapping.
  w->postings = w->body + end;
  if (st_fclex_terms(w->lex) != hdr_num_terms(&h)) return _set_rc(wrc_o, WS_ELEX), nullptr;
  return g.release();
}

}  // namespace

warm* st_warm_slice_open(const char* filename, int for_updating, wrc* wrc_o) noexcept {
  ST_ASSERT(wrc_o);
  _set_rc(wrc_o, WS_SUCCESS);
  if (filename == nullptr) {
    _set_rc(wrc_o, WS_ENONAME);
    return nullptr;
  }
  return for_updating ? _map_for_updating(filename, wrc_o) : _map_for_reading(filename, wrc_o);
}

warm* st_warm_slice_open_fd(const char* filename, int for_updating, wrc* wrc_o) noexcept {
  ST_ASSERT(wrc_o);
  _set_rc(wrc_o, WS_SUCCESS);
  if (filename == nullptr) {
    _set_rc(wrc_o, WS_ENONAME);
    return nullptr;
  }
  ST_ASSERT(*filename != '\0');
  const int fd = open(filename, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    _set_rc_verbose(wrc_o, WS_EOPEN, -1, "open warm slice");
    return nullptr;
  }
  warm* w = st_warm_slice_open_from_fd(fd, for_updating, wrc_o);
  if (w == nullptr) {
    const int err = errno;
    close(fd);
    errno = err;
  }
  return w;
}

warm* st_warm_slice_open_from_fd(int fd, int for_updating, wrc* wrc_o) noexcept {
  ST_ASSERT(for_updating == 0);
  return _map_for_reading_fd(fd, wrc_o);
}

int st_warm_slice_close(warm* handle) noexcept {
  ST_ASSERT_TEXT(handle != nullptr, "handle != ((void *)0)");
  if (handle->lex != nullptr) st_fclex_close(handle->lex);
  handle->lex = nullptr;
  if (handle->fd < 0) {
    // A writer's handle: its body is the buffer the file was written from.
    free(handle->body);
    free(handle);
    return 0;
  }
  if (handle->map.ptr != nullptr) {
    ST_ASSERT_TEXT(handle->map.ptr == (void*)handle->body, "handle->map.ptr == (void *) handle->body");
    if (msync(handle->map.ptr, handle->map.len, MS_SYNC) != 0) return -1;
    const int retval = munmap(handle->map.ptr, handle->map.len);
    ST_ASSERT(retval != -1);
    if (retval != 0) return -1;
    handle->map.ptr = nullptr;
  }
  const int rc = close(handle->fd);
  free(handle);
  return rc;
}

// ---- Accessors ----------------------------------------------------------------------

uint64_t st_warm_slice_size(const warm* w) noexcept {
  ST_ASSERT_TEXT(w != nullptr, "warm != ((void *)0)");
  return w->map.len;
}

uint32_t st_warm_slice_terms(const warm* w) noexcept {
  ST_ASSERT_TEXT(w != nullptr, "warm != ((void *)0)");
  ST_ASSERT_TEXT(w->body != nullptr, "warm->body != ((void *)0)");
  return hdr_num_terms(warm_hdr(w));
}

uint32_t st_warm_slice_values(const warm* w) noexcept {
  ST_ASSERT_TEXT(w != nullptr, "warm != ((void *)0)");
  ST_ASSERT_TEXT(w->body != nullptr, "warm->body != ((void *)0)");
  return hdr_num_values(warm_hdr(w));
}

uint32_t st_warm_slice_blocksize(const warm* w) noexcept {
  ST_ASSERT_TEXT(w != nullptr, "warm != ((void *)0)");
  return st_fclex_blocksize(w->lex);
}

int32_t st_warm_slice_latest(const warm* w) noexcept {
  ST_ASSERT_TEXT(w != nullptr, "warm != ((void *)0)");
  ST_ASSERT_TEXT(w->body != nullptr, "warm->body != ((void *)0)");
  if (hdr_num_values(warm_hdr(w)) == 0) return 0;
  return static_cast<int32_t>(load_be32(w->values));
}

int32_t st_warm_slice_earliest(const warm* w) noexcept {
  ST_ASSERT_TEXT(w != nullptr, "warm != ((void *)0)");
  ST_ASSERT_TEXT(w->body != nullptr, "warm->body != ((void *)0)");
  const uint32_t n = hdr_num_values(warm_hdr(w));
  if (n == 0) return 0;
  return static_cast<int32_t>(load_be32(w->values + static_cast<uint64_t>(n - 1) * TSVAL_RECORD_SZ));
}

file_offset_t size_without_vardata(const warm* handle) noexcept {
  ST_ASSERT_TEXT(handle != nullptr, "handle != ((void *)0)");
  return size_without_vardata(warm_hdr(handle));
}

// ---- Term metadata -------------------------------------------------------------------

namespace {
bool _check_fd_support_warm(const warm* w) noexcept {
  if (w->metadata == nullptr) {
    ST_ASSERT_TEXT(w->metadata_offset != NO_OFFSET, "warm->metadata_offset != ((file_offset_t)-1)");
    ST_ASSERT_TEXT(w->fd >= 0, "((warm->fd) >= 0)");
    return true;
  }
  ST_ASSERT_TEXT(w->metadata_offset == NO_OFFSET, "warm->metadata_offset == ((file_offset_t)-1)");
  return false;
}
}  // namespace

const uint8_t* _get_metadata_entry(warm* w, uint32_t term_id, int count_only, uint32_t* timing) noexcept {
  if (term_id >= hdr_num_terms(warm_hdr(w))) return nullptr;
  const bool full = _has_full_metadata(warm_hdr(w));
  if (_check_fd_support_warm(w)) {
    const uint32_t e = full ? TERM_METADATA_SZ : SHORT_METADATA_SZ;
    if (!full) ST_ASSERT(count_only);
    const uint64_t off = w->metadata_offset + static_cast<uint64_t>(e) * term_id;
    if (st_timed_pread_msg(w->fd, w->metadata_buffer, e, off, timing, 1) != static_cast<ssize_t>(e)) return nullptr;
    return w->metadata_buffer;
  }
  ST_ASSERT(full);
  return w->metadata + static_cast<uint64_t>(TERM_METADATA_SZ) * term_id;
}

uint32_t get_metadata_entry(warm* w, uint32_t term_id) noexcept {
  const uint8_t* e = _get_metadata_entry(w, term_id, 1, nullptr);
  return e == nullptr ? 0 : load_be32(e);
}

void _set_metadata_fd(warm* w, uint32_t term_id, const st_term_metadata* m) noexcept {
  uint8_t e[TERM_METADATA_SZ];
  store_be32(e, m->count);
  store_be32(e + 4, static_cast<uint32_t>(m->earliest));
  store_be32(e + 8, static_cast<uint32_t>(m->latest));
  uint64_t off = w->metadata_offset + static_cast<uint64_t>(TERM_METADATA_SZ) * term_id;
  size_t done = 0;
  while (done < sizeof(e)) {
    const ssize_t r = pwrite(w->fd, e + done, sizeof(e) - done, static_cast<off_t>(off + done));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) ST_ASSERT_TEXT(false, "0 && \"write failed in _set_metadata_fd\"");
    done += static_cast<size_t>(r);
  }
}

// ---- File names ----------------------------------------------------------------------

char* st_warm_slice_filename(char* dst, const char* prefix, const char* suffix, const warm* w) noexcept {
  return st_warm_slice_filename_from_time(dst, prefix, suffix, st_warm_slice_earliest(w), st_warm_slice_latest(w));
}

char* st_warm_slice_fd_filename(char* dst, const char* prefix, const char* suffix, const hot_slice* hot) noexcept {
  ST_ASSERT_TEXT(prefix != nullptr, "prefix != ((void *)0)");
  ST_ASSERT_TEXT(*prefix != '\0', "*prefix != '\\0'");
  ST_ASSERT_TEXT(prefix[strlen(prefix) - 1] != '/', "prefix[(strlen(prefix)) -1] != '/'");
  return st_warm_slice_filename_from_time(dst, prefix, suffix, hot->earliest, hot->latest);
}

// ---- Maintenance -----------------------------------------------------------------------

uint32_t st_warm_slice_delete_by_tsval(warm* w, const tsval* addrs, uint32_t n) noexcept {
  const uint32_t nv = hdr_num_values(warm_hdr(w));
  uint32_t i = 0, j = 0, marked = 0;
  while (i < nv && j < n) {
    const uint8_t* rec = w->values + static_cast<uint64_t>(i) * TSVAL_RECORD_SZ;
    const tsval v{static_cast<int32_t>(load_be32(rec)), load_be32(rec + 4), 0, 0, 0, 0};
    const int c = st_tsval_compare(&v, &addrs[j]);
    if (c == 0) {
      encode_to_byte_str(w->d_array, 1, i, d_nbits(warm_hdr(w)));
      ++marked;
      ++i;
      ++j;
    } else if (c < 0) {
      ++i;
    } else {
      ++j;
    }
  }
  return marked;
}

int st_warm_slice_enum(warm* w, const char* prefix, int which, uint8_t* answers, uint32_t capacity) noexcept {
  ST_ASSERT(which == 1);
  const uint32_t n = st_fclex_enum(w->lex, prefix, answers, capacity);
  for (uint32_t i = 0; i < n; ++i) {
    uint8_t* rec = answers + static_cast<size_t>(i) * FCLEX_ENUM_RECORD_SZ;
    uint32_t term_id;
    memcpy(&term_id, rec + TERM_BUF_SZ, sizeof(term_id));
    const uint8_t* e = _get_metadata_entry(w, term_id, 1, nullptr);
    if (e == nullptr) return WS_EREAD;
    const uint32_t count = load_be32(e);
    memcpy(rec + TERM_BUF_SZ, &count, sizeof(count));
  }
  return static_cast<int>(n);
}

int st_warm_slice_meta(warm* w, const char* term, st_term_metadata* meta) noexcept {
  const uint32_t id = st_fclex_get(w->lex, term, nullptr);
  if (id == 0xFFFFFFF4u) return WS_EDATA;
  if (id == NOT_FOUND) return WS_ELEX;
  const bool full = _has_full_metadata(warm_hdr(w));
  const uint8_t* e = _get_metadata_entry(w, id, full ? 0 : 1, nullptr);
  if (e == nullptr) return WS_EREAD;
  meta->count = load_be32(e);
  meta->earliest = full ? static_cast<int32_t>(load_be32(e + 4)) : 0;
  meta->latest = full ? static_cast<int32_t>(load_be32(e + 8)) : 0;
  return WS_SUCCESS;
}

}  // namespace tarnix
