#include "searchthing/merged_lex.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "searchthing/fclex_io.h"
#include "searchthing/lock.h"
#include "searchthing/st.h"
#include "searchthing/tsidx.h"
#include "searchthing/tsidx_optimize.h"
#include "searchthing/warmslice_merge.h"
#include "searchthing/warmslice_util.h"

namespace tarnix {

namespace {

// Records per buffered read or write of the count tables.
constexpr uint32_t SHORT_ENTRIES_PER_IO = 8192;
constexpr uint32_t FULL_ENTRIES_PER_IO = 2730;

struct free_deleter {
  void operator()(void* p) const noexcept { free(p); }
};
template <typename T>
using c_ptr = std::unique_ptr<T, free_deleter>;

// Descriptors opened by an operation, closed when it ends whatever happens.
struct fd_set_guard {
  int fds[ST_MERGE_LEX_MAX_FILES + 1];
  fd_set_guard() noexcept {
    for (int& fd : fds) fd = -1;
  }
  ~fd_set_guard() { close_all(); }
  void close_all() noexcept {
    for (int& fd : fds) {
      if (fd >= 0) close(fd);
      fd = -1;
    }
  }
};

struct fd_guard {
  int fd = -1;
  ~fd_guard() {
    if (fd >= 0) close(fd);
  }
  // The close result of a freshly written file matters; report it once.
  int close_now() noexcept {
    int rc = close(fd);
    fd = -1;
    return rc;
  }
};

struct ar_guard {
  ar_reader r{};
  ~ar_guard() {
    if (r.buf != nullptr) _ar_close(&r);
  }
};

struct aw_guard {
  aw a{};
  ~aw_guard() {
    if (a.buf != nullptr) (void)_aw_close(&a);
  }
};

struct lex_cxt_guard {
  lex_merge_cxt* c = new (std::nothrow) lex_merge_cxt();
  ~lex_cxt_guard() {
    if (c != nullptr && c->_reader.buf != nullptr) _lex_reader_close(&c->_reader);
    delete c;
  }
};

struct writer_guard {
  lex_writer w{};
  bool open = false;
  ~writer_guard() {
    if (open) _lex_writer_discard(&w);
  }
};

bool pwrite_all(int fd, const void* buf, size_t n, uint64_t off) noexcept {
  const auto* p = static_cast<const uint8_t*>(buf);
  while (n > 0) {
    ssize_t got = pwrite(fd, p, n, static_cast<off_t>(off));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    p += got;
    n -= static_cast<size_t>(got);
    off += static_cast<uint64_t>(got);
  }
  return true;
}

void init_lex_header(warm_header* h) noexcept {
  memset(h->b, 0, sizeof h->b);
  _set_magic(h, MAGIC_LEX);
}

// "<dir>/<name>" and "<dir>/<name>.tmp". false when the names do not fit.
bool make_names(const char* dir, const char* name, char* final_path, char* tmp_path) noexcept {
  int n = snprintf(final_path, PATH_BUF_SZ, "%s/%s", dir, name);
  if (n < 0 || static_cast<size_t>(n) >= PATH_BUF_SZ) return false;
  n = snprintf(tmp_path, PATH_BUF_SZ, "%s%s", final_path, ST_LEX_TMP_SUFFIX);
  return n >= 0 && static_cast<size_t>(n) < PATH_BUF_SZ;
}

// A temporary left by an interrupted run is in the way of the exclusive
// create; when it cannot be removed, the create will say so.
void erase_tmp(const char* tmp_path) noexcept {
  if (unlink(tmp_path) != 0 && errno != ENOENT) {
    fprintf(stderr, "ERROR failed to erase lex tempfile=%s, lex-optimize will likely fail; errno=%i\n", tmp_path,
            errno);
  }
}

// Opens path read-only when it is a regular file, else -1 with errno set.
// The open does not wait: a FIFO put in a file's place would hold it until
// a writer came.
int open_regular_file(const char* path) noexcept {
  const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return -1;
  struct stat st;
  const bool known = fstat(fd, &st) == 0;
  if (!known || !S_ISREG(st.st_mode)) {
    const int err = !known ? errno : S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    close(fd);
    errno = err;
    return -1;
  }
  return fd;
}

// Which file a name stands for.
struct file_id {
  dev_t dev = 0;
  ino_t ino = 0;
};

bool names_file(const char* path, const file_id& id) noexcept {
  struct stat st;
  return stat(path, &st) == 0 && st.st_dev == id.dev && st.st_ino == id.ino;
}

// The exclusive create of the temporary; *id says which file it is.
int create_tmp(const char* tmp_path, file_id* id) noexcept {
  const int fd = open(tmp_path, O_RDWR | O_CREAT | O_EXCL | O_TRUNC | O_CLOEXEC, 0600);
  struct stat st;
  if (fd >= 0 && fstat(fd, &st) == 0) *id = file_id{st.st_dev, st.st_ino};
  return fd;
}

// The temporary reaches its final name only by a hard link: a name that
// exists meanwhile makes the link fail instead of being replaced. A second
// run in the same directory erases the temporary name as it would a dead
// run's and writes its own file under it: only the name of this run's own,
// whole file is moved, and a link that still caught the other's (it took
// the name between the look and the link) is undone, so that no half-made
// file ever has the final name.
int move_into_place(int verbose, const char* tmp_path, const char* final_path, const file_id& own,
                    wrc* w) noexcept {
  int err = 0;
  for (int attempt = 0; attempt < ST_LEX_MOVE_ATTEMPTS; ++attempt) {
    if (!names_file(tmp_path, own)) {
      errno = ENOENT;
      return _set_rc_verbose(w, ST_EMOVE, -1, "another run took the temporary file's name");
    }
    err = _link_and_unlink(tmp_path, final_path, nullptr);
    if (err == 0) {
      if (names_file(final_path, own)) return 0;
      (void)unlink(final_path);
      errno = ENOENT;
      return _set_rc_verbose(w, ST_EMOVE, -1, "another run took the temporary file's name");
    }
  }
  if (verbose) {
    printf("Failed to move \"%s\" to \"%s\" eno=%i", tmp_path, final_path, err);
    fflush(stdout);
  }
  return _set_rc_and_errno(w, ST_EMOVE, err);
}

// The header of a lexicon-only (or index) file, checked, and its metadata
// section held against the file's size, so that a header with a huge term
// count fails with a code instead of sizing allocations.
int read_checked_header(int fd, warm_header* h, wrc* w) noexcept {
  c_ptr<warm_header> hdr(_read_src_headers(&fd, 1, w));
  if (!hdr) return w->warm_rc;
  *h = *hdr;
  struct stat st{};
  if (fstat(fd, &st) != 0) return _set_rc(w, WS_ESTAT);
  const uint64_t need = _offset_metadata(h) + uint64_t{hdr_num_terms(h)} * _metadata_entry_size(h);
  if (S_ISREG(st.st_mode) && need > static_cast<uint64_t>(st.st_size)) return _set_rc(w, WS_ETRUNC);
  return 0;
}

int open_metadata_reader(int fd, const warm_header* h, ar_reader* r, wrc* w) noexcept {
  const bool full = _has_full_metadata(h);
  int rc = _ar_open(r, fd, _offset_metadata(h), _metadata_entry_size(h), hdr_num_terms(h),
                    full ? FULL_ENTRIES_PER_IO : SHORT_ENTRIES_PER_IO, nullptr);
  if (rc != 0) return _set_rc(w, rc);
  return 0;
}

// Opens the lexicon of h at fd and loads term 0; its term count must be
// the header's.
int open_lexicon(int fd, const warm_header* h, lex_merge_cxt* c, wrc* w) noexcept {
  int rc = _lex_reader_open(&c->_reader, fd, _offset_fclex(h));
  if (rc != 0) return _set_rc(w, rc);
  if (c->_reader._bor._nterms != hdr_num_terms(h)) {
    return _set_rc_verbose(w, WS_EDATA, 0, "lexicon term count differs from the header's");
  }
  rc = _reload_term(c);
  if (rc != 0) return _set_rc(w, rc);
  return 0;
}

}  // namespace

// ---- File operations ------------------------------------------------------------------

int st_warm_slice_merge_lex_n(int verbose, int out_fd, const int* fds, uint32_t n, uint32_t tperb,
                              uint64_t page_sz, wrc* w) noexcept {
  _set_rc(w, WS_SUCCESS);
  warm_header tgt_hdr;
  init_lex_header(&tgt_hdr);

  c_ptr<warm_header> src_hdrs(_read_src_headers(fds, n, w));
  if (!src_hdrs) return w->warm_rc;

  // The lexicon step of the index merge, into a target without values: its
  // lexicon lands right after the short metadata.
  uint64_t postings_start[ST_MERGE_LEX_MAX_FILES] = {};
  uint64_t tgt_end = 0;
  bmap_t* which_raw = nullptr;
  if (_merge_lexicon(verbose, fds, src_hdrs.get(), n, tperb, page_sz, out_fd, &tgt_hdr, &which_raw, postings_start,
                     &tgt_end, w) != 0) {
    return w->warm_rc;
  }
  std::unique_ptr<bmap_t, void (*)(bmap_t*) noexcept> which_srcs(which_raw, _bmap_free);

  // No posting counts: each term's count is the sum of its sources' counts.
  int rc = _merge_metadata(fds, src_hdrs.get(), n, which_srcs.get(), nullptr, out_fd, &tgt_hdr, w);
  if (rc != 0 || w->warm_rc != 0) return w->warm_rc != 0 ? w->warm_rc : _set_rc(w, rc);
  which_srcs.reset();

  // Last, so that a failed merge never leaves a file with a valid header.
  if (!pwrite_all(out_fd, tgt_hdr.b, WARM_HEADER_SZ, 0)) return _set_rc(w, WS_EWRITE);
  return w->warm_rc;
}

int st_warm_slice_filter_lex(int verbose, int out_fd, int in_fd, uint32_t tperb, uint64_t page_sz,
                             uint32_t min_count, wrc* w) noexcept {
  _set_rc(w, WS_SUCCESS);
  warm_header dst_hdr;
  init_lex_header(&dst_hdr);
  warm_header in_hdr;
  if (read_checked_header(in_fd, &in_hdr, w) != 0) return w->warm_rc;

  const uint32_t num_terms = hdr_num_terms(&in_hdr);
  c_ptr<uint8_t> keep(static_cast<uint8_t*>(calloc(num_terms == 0 ? 1 : num_terms, 1)));
  if (!keep) return _set_rc(w, WS_ENOMEM);

  // Counts: keep the terms that occur often enough. The count is stored in
  // the machine's own byte order, unlike every other word of the file; the
  // consumers of the filtered file read it as a plain integer.
  uint32_t kept = 0;
  {
    ar_guard in;
    if (open_metadata_reader(in_fd, &in_hdr, &in.r, w) != 0) return w->warm_rc;
    aw_guard out;
    int rc = _aw_open(&out.a, out_fd, _offset_metadata(&dst_hdr), SHORT_METADATA_SZ, SHORT_ENTRIES_PER_IO);
    if (rc != 0) return _set_rc(w, rc);
    const uint64_t entry_sz = _metadata_entry_size(&in_hdr);
    for (uint32_t t = 0; t < num_terms; ++t) {
      const uint8_t* entry = _ar_get(&in.r, entry_sz, w);
      if (entry == nullptr) return w->warm_rc;
      const uint32_t count = load_be32(entry);
      if (count < min_count) continue;
      keep.get()[t] = 1;
      uint8_t native[SHORT_METADATA_SZ];
      memcpy(native, &count, sizeof native);
      if ((rc = _aw_write(&out.a, native, SHORT_METADATA_SZ)) != 0) return _set_rc(w, rc);
      ++kept;
    }
    hdr_set(&dst_hdr, HDR_NUM_TERMS, kept);
    if ((rc = _aw_close(&out.a)) != 0) return _set_rc(w, rc);
  }

  // Lexicon: the kept terms, in their order, into a fresh block layout.
  lex_cxt_guard in;
  if (in.c == nullptr) return _set_rc(w, WS_ENOMEM);
  if (open_lexicon(in_fd, &in_hdr, in.c, w) != 0) return w->warm_rc;
  writer_guard out;
  int rc = _lex_writer_open(verbose, &out.w, tperb, page_sz, kept);
  if (rc != 0) return _set_rc(w, rc);
  out.open = true;
  for (uint32_t t = 0; t < num_terms; ++t) {
    if (keep.get()[t]) (void)_lex_writer_put(&out.w, in.c->_cur_term, in.c->_cur_len);
    uint32_t r = _increment_cursor(in.c);
    if (r != 0 && r != 0xFFFFFFFFu) return _set_rc(w, static_cast<int>(r));
  }
  uint64_t end = 0;
  out.open = false;  // closing frees the writer whatever it returns
  rc = _lex_writer_close(verbose, &out.w, out_fd, _offset_fclex(&dst_hdr), &end);
  if (rc != 0) return _set_rc(w, rc);

  if (!pwrite_all(out_fd, dst_hdr.b, WARM_HEADER_SZ, 0)) return _set_rc(w, WS_EWRITE);
  return w->warm_rc;
}

// ---- Directory operations ---------------------------------------------------------------

int st_tsidx_merge_lex_n(tsidx* t, int verbose, uint32_t tperb, uint64_t page_sz, wrc* w) noexcept {
  _set_rc(w, WS_SUCCESS);
  fd_set_guard slots;  // [0, 32) sources, [32] the output

  so_listed_file* listed_raw = nullptr;
  int listed = _so_collect_candidates(t, _tsidx_name_filter, 0, 0, &listed_raw);
  c_ptr<so_listed_file> files(listed_raw);
  if (listed < 0) return _set_rc(w, listed);
  const auto count = static_cast<unsigned long>(listed);
  if (count < 2) return _set_rc(w, ST_EFEWFILES);
  if (count > ST_MERGE_LEX_MAX_FILES) {
    if (verbose) {
      printf("Number of tsidx files %lu exceeds the maximum number %lu\n", count,
             static_cast<unsigned long>(ST_MERGE_LEX_MAX_FILES));
      printf("Lexicon merge aborted. Cannot merge lexicon of more than %lu tsidx files\n",
             static_cast<unsigned long>(ST_MERGE_LEX_MAX_FILES));
      fflush(stdout);
    }
    return _set_rc(w, ST_ETOOMANY);
  }

  char final_path[PATH_BUF_SZ];
  char tmp_path[PATH_BUF_SZ];
  if (!make_names(t->path, ST_MERGED_LEX_NAME, final_path, tmp_path)) return _set_rc(w, WS_EOPEN);
  erase_tmp(tmp_path);
  if (ospath_try_stat(final_path) == 0) {
    if (verbose) {
      printf("Lexicon merge aborted. Output file \"%s\" already exists.\n", final_path);
      fflush(stdout);
    }
    return _set_rc(w, ST_EEXISTS);
  }
  int& out_fd = slots.fds[ST_MERGE_LEX_MAX_FILES];
  file_id own;
  out_fd = create_tmp(tmp_path, &own);
  if (out_fd < 0) return _set_rc(w, WS_EOPEN);

  if (verbose) printf("creating merged lexicon from %lu tsidx files\n", count);
  for (unsigned long i = 0; i < count; ++i) {
    const so_listed_file& f = files.get()[i];
    if (verbose) {
      printf("\t%3lu. opening src_file=\"%s\", size=%llu\n", i, f.path, static_cast<unsigned long long>(f.size));
    }
    slots.fds[i] = open_regular_file(f.path);
    if (slots.fds[i] < 0) {
      if (verbose) fflush(stdout);
      return _set_rc(w, WS_EOPEN);  // the temporary stays; the next run erases it
    }
  }
  if (verbose) {
    printf("generating %s from %lu tsidx files\n", tmp_path, count);
    fflush(stdout);
  }
  int rc = st_warm_slice_merge_lex_n(verbose, out_fd, slots.fds, static_cast<uint32_t>(count), tperb, page_sz, w);
  if (rc < 0) return rc;

  const int out_close = close(out_fd);
  out_fd = -1;
  slots.close_all();
  // A written file whose close failed may not hold what was written.
  if (out_close != 0) return _set_rc(w, WS_ECLOSE);
  return move_into_place(verbose, tmp_path, final_path, own, w);
}

int st_tsidx_filter_merged_lex(tsidx* t, int verbose, uint32_t tperb, uint64_t page_sz, uint32_t min_count,
                               wrc* w) noexcept {
  _set_rc(w, WS_SUCCESS);
  char input[PATH_BUF_SZ];
  char unused[PATH_BUF_SZ];
  if (!make_names(t->path, ST_MERGED_LEX_NAME, input, unused)) return _set_rc(w, WS_EOPEN);
  if (ospath_try_stat(input) != 0) {
    if (verbose) {
      printf("Lexicon filtering aborted. Input file \"%s\" does not exist.\n", input);
      fflush(stdout);
    }
    return _set_rc(w, ST_EEXISTS);
  }
  char final_path[PATH_BUF_SZ];
  char tmp_path[PATH_BUF_SZ];
  if (!make_names(t->path, ST_FILTERED_LEX_NAME, final_path, tmp_path)) return _set_rc(w, WS_EOPEN);
  erase_tmp(tmp_path);
  if (ospath_try_stat(final_path) == 0) {
    if (verbose) {
      printf("Lexicon filtering aborted. Output file \"%s\" already exists.\n", final_path);
      fflush(stdout);
    }
    return _set_rc(w, ST_EEXISTS);
  }

  fd_guard out;
  file_id own;
  out.fd = create_tmp(tmp_path, &own);
  if (out.fd < 0) return _set_rc(w, WS_EOPEN);
  if (verbose) {
    printf("filtering merged lexicon\n");
    fflush(stdout);
  }
  fd_guard in;
  in.fd = open_regular_file(input);
  if (in.fd < 0) return _set_rc(w, WS_EOPEN);

  int rc = st_warm_slice_filter_lex(verbose, out.fd, in.fd, tperb, page_sz, min_count, w);
  if (rc < 0) return rc;
  (void)close(in.fd);
  in.fd = -1;
  if (out.close_now() != 0) return _set_rc(w, WS_ECLOSE);
  return move_into_place(verbose, tmp_path, final_path, own, w);
}

int st_optimize_lex(const char* dir, int verbose, uint32_t tperb, uint64_t page_sz, uint32_t min_count, int filter,
                    wrc* w) noexcept {
  int rc;
  tsidx* t = st_tsidx_open(dir, 1, 0, static_cast<uint32_t>(-1));
  if (t == nullptr) {
    rc = _set_rc(w, ST_EDIROPEN);
  } else {
    rc = filter != 0 ? st_tsidx_filter_merged_lex(t, verbose, tperb, page_sz, min_count, w)
                     : st_tsidx_merge_lex_n(t, verbose, tperb, page_sz, w);
    (void)st_tsidx_close(t);
  }

  // The line is written beside the status file and renamed over it, so
  // that two runs at once leave one whole line, not one written over the
  // other.
  char status[PATH_BUF_SZ];
  char beside[PATH_BUF_SZ + 32];
  so_status_filename(dir, status);
  snprintf(beside, sizeof beside, "%s.%ld", status, static_cast<long>(getpid()));
  FILE* f = fopen(beside, "w");
  if (f == nullptr) {
    fprintf(stderr, "failed to open file %s\n", status);
  } else {
    const bool written = fprintf(f, "tarnix-optimize-lex complete with rc=%i wrc=[%i,%i]\n", rc, w->warm_rc,
                                 w->warm_errno) > 0;
    if (fclose(f) != 0 || !written || rename(beside, status) != 0) {
      fprintf(stderr, "failed to write file %s\n", status);
      (void)unlink(beside);
    }
  }
  // Nothing to merge is not a failure of this operation.
  if (rc == ST_EFEWFILES || rc == ST_ENOGROUP) return 0;
  return rc;
}

// ---- Reading lexicon-only files -----------------------------------------------------------

int st_lex_file_walk(int fd, int native_counts, lex_file_cb cb, void* cookie, wrc* w) noexcept {
  _set_rc(w, WS_SUCCESS);
  warm_header h;
  if (read_checked_header(fd, &h, w) != 0) return w->warm_rc;
  const uint32_t num_terms = hdr_num_terms(&h);
  if (num_terms == 0) return 0;
  ar_guard meta;
  if (open_metadata_reader(fd, &h, &meta.r, w) != 0) return w->warm_rc;
  lex_cxt_guard lex;
  if (lex.c == nullptr) return _set_rc(w, WS_ENOMEM);
  if (open_lexicon(fd, &h, lex.c, w) != 0) return w->warm_rc;
  const uint64_t entry_sz = _metadata_entry_size(&h);
  for (uint32_t t = 0; t < num_terms; ++t) {
    const uint8_t* entry = _ar_get(&meta.r, entry_sz, w);
    if (entry == nullptr) return w->warm_rc;
    uint32_t count;
    if (native_counts) {
      memcpy(&count, entry, sizeof count);
    } else {
      count = load_be32(entry);
    }
    int r = cb(lex.c->_cur_term, lex.c->_cur_len, count, cookie);
    if (r < 0) return r;
    uint32_t next = _increment_cursor(lex.c);
    if (next != 0 && next != 0xFFFFFFFFu) return _set_rc(w, static_cast<int>(next));
  }
  return 0;
}

int st_lex_file_count_kept(int fd, uint32_t min_count, uint32_t* kept, wrc* w) noexcept {
  _set_rc(w, WS_SUCCESS);
  *kept = 0;
  warm_header h;
  if (read_checked_header(fd, &h, w) != 0) return w->warm_rc;
  ar_guard meta;
  if (open_metadata_reader(fd, &h, &meta.r, w) != 0) return w->warm_rc;
  const uint64_t entry_sz = _metadata_entry_size(&h);
  for (uint32_t t = 0; t < hdr_num_terms(&h); ++t) {
    const uint8_t* entry = _ar_get(&meta.r, entry_sz, w);
    if (entry == nullptr) return w->warm_rc;
    if (load_be32(entry) >= min_count) ++*kept;
  }
  return 0;
}

}  // namespace tarnix
