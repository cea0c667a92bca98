#include "searchthing/tsidx.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "searchthing/check.h"
#include "searchthing/hotslice.h"
#include "searchthing/warmslice.h"
#include "searchthing/warmslice_util.h"

namespace tarnix {

namespace {

constexpr size_t PARAMS_HEADER_LEN = sizeof(ST_PARAMS_HEADER) - 1;
static_assert(PARAMS_HEADER_LEN == 43);

struct dir_closer {
  void operator()(DIR* d) const noexcept { closedir(d); }
};
using unique_dir = std::unique_ptr<DIR, dir_closer>;

struct free_deleter {
  void operator()(void* p) const noexcept { free(p); }
};

// "<dir>/<name>" into dst (PATH_BUF_SZ bytes); false when it does not fit.
bool join(char* dst, const char* dir, const char* name) {
  int n = snprintf(dst, PATH_BUF_SZ, "%s/%s", dir, name);
  return n >= 0 && static_cast<size_t>(n) < PATH_BUF_SZ;
}

// ---- Name grammar ----------------------------------------------------------
// The numbers are written with %d and %llu, so a number here is an optional
// minus sign (signed fields only) and one or more digits that fit the field.

bool take_digits_u64(std::string_view& s, uint64_t* out) {
  size_t i = 0;
  uint64_t v = 0;
  while (i < s.size() && s[i] >= '0' && s[i] <= '9') {
    uint64_t d = static_cast<uint64_t>(s[i] - '0');
    if (v > (UINT64_MAX - d) / 10) return false;
    v = v * 10 + d;
    ++i;
  }
  if (i == 0) return false;
  s.remove_prefix(i);
  *out = v;
  return true;
}

bool take_u32(std::string_view& s, uint32_t* out) {
  uint64_t v;
  if (!take_digits_u64(s, &v) || v > UINT32_MAX) return false;
  *out = static_cast<uint32_t>(v);
  return true;
}

bool take_i32(std::string_view& s, int32_t* out) {
  bool neg = !s.empty() && s[0] == '-';
  if (neg) s.remove_prefix(1);
  uint64_t v;
  if (!take_digits_u64(s, &v)) return false;
  if (neg ? v > 2147483648ull : v > 2147483647ull) return false;
  *out = neg ? static_cast<int32_t>(-static_cast<int64_t>(v)) : static_cast<int32_t>(v);
  return true;
}

bool take_char(std::string_view& s, char c) {
  if (s.empty() || s[0] != c) return false;
  s.remove_prefix(1);
  return true;
}

// "%d-%d-%llu" at the front of s.
bool take_times_and_id(std::string_view& s, int32_t* latest, int32_t* earliest, uint64_t* id) {
  return take_i32(s, latest) && take_char(s, '-') && take_i32(s, earliest) && take_char(s, '-') &&
         take_digits_u64(s, id);
}

bool ends_with(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

// ---- Flush helpers ----------------------------------------------------------

void sleep_ms_real(uint32_t ms) { usleep(ms * 1000u); }

// Rough size of the file a slice with these counts makes: header, values
// with their columns, offset table and metadata, the terms, and about two
// bytes per posting gap.
uint64_t written_size_est(const hot_slice* h) {
  uint64_t values = st_hot_slice_values(h);
  return 64 + 16 * values + 20 * static_cast<uint64_t>(h->term_count) + h->term_bytes_used +
         2 * static_cast<uint64_t>(h->nodes_used);
}

uint64_t make_even(uint64_t v) { return (v & 1u) != 0 ? v + 1 : v; }

int ensure_hot_slice(tsidx* t) {
  if (t->hot_slice != nullptr) return 0;
  // The slice's term table wants an even capacity above 256.
  uint64_t terms = make_even(t->max_terms);
  if (terms <= 256) terms = 258;
  uint64_t nodes = t->max_postings;
  if (nodes > st_hot_slice_max_postings()) nodes = st_hot_slice_max_postings();
  uint64_t values = t->max_values;
  if (values > st_hot_slice_max_values()) values = st_hot_slice_max_values();
  t->hot_slice = st_hot_slice_create(t->max_term_chars, terms, nodes, values,
                                     (t->open_flags & ST_OPEN_STREAMING) != 0, &t->wrc);
  if (t->hot_slice == nullptr) {
    ST_ASSERT_TEXT(t->wrc.warm_rc != WS_SUCCESS, "wrc_o->warm_rc != WS_SUCCESS");
    return t->wrc.warm_rc;
  }
  return 0;
}

}  // namespace

// ---- Handle ---------------------------------------------------------------------

tsidx* st_tsidx_open(const char* path, uint32_t open_flags, int read_params, uint32_t part_id) noexcept {
  ST_ASSERT_TEXT(path != nullptr, "path != ((void *)0)");
  tsidx* t = new (std::nothrow) tsidx{};
  if (t == nullptr) return nullptr;
  size_t n = strlen(path);
  t->path = new (std::nothrow) char[n + 1];
  if (t->path == nullptr) {
    delete t;
    return nullptr;
  }
  memcpy(t->path, path, n + 1);
  t->max_term_chars = ST_TSIDX_DEFAULT_LIMIT;
  t->max_terms = ST_TSIDX_DEFAULT_LIMIT;
  t->max_postings = ST_TSIDX_DEFAULT_LIMIT;
  t->max_values = ST_TSIDX_DEFAULT_LIMIT;
  t->open_flags = open_flags;
  t->part_id = part_id;
  t->wrc.source_index = -1;
  if (read_params != 0) (void)deserialize_params(t);
  return t;
}

int st_tsidx_close(tsidx* t) noexcept {
  if (t == nullptr) return 0;
  int r = 0;
  if (t->hot_slice != nullptr) {
    r = st_tsidx_sync(t);
    st_hot_slice_close(t->hot_slice);
    t->hot_slice = nullptr;
  }
  if (t->txn_per_sync != 0) {
    if (t->txn_count > t->txn_per_sync) t->txn_per_sync = t->txn_count;
    (void)serialize_params(t);
  }
  delete[] t->path;
  delete t;
  return r;
}

// ---- File names -------------------------------------------------------------------

int st_tsidx_file_parse(const char* name, int32_t* earliest, int32_t* latest, uint64_t* id) noexcept {
  std::string_view s(name);
  constexpr std::string_view suffix = ".tsidx";
  if (s.size() < 6 || !ends_with(s, suffix)) return 0;
  int32_t l, e;
  uint64_t i;
  if (!take_times_and_id(s, &l, &e, &i) || s != suffix) return 0;
  *latest = l;
  *earliest = e;
  *id = i;
  return 1;
}

int st_tsidx_part_file_parse(const char* name, uint32_t part_id, int32_t* earliest, int32_t* latest,
                             uint64_t* id, uint32_t* part) noexcept {
  std::string_view s(name);
  constexpr std::string_view suffix = ".part-tsidx";
  if (s.size() < 11 || !ends_with(s, suffix)) return 0;
  int32_t l, e;
  uint64_t i;
  uint32_t p, owner;
  if (!take_times_and_id(s, &l, &e, &i) || !take_char(s, '.') || !take_u32(s, &p) ||
      !take_char(s, '.') || !take_u32(s, &owner) || s != suffix) {
    return 0;
  }
  if (owner != part_id) return 0;
  *latest = l;
  *earliest = e;
  *id = i;
  *part = p;
  return 1;
}

int st_tsidx_deleted_file_parse(const char* name, int32_t* earliest, int32_t* latest,
                                uint64_t* id) noexcept {
  std::string_view s(name);
  constexpr std::string_view suffix = ".tsidx.deleted";
  if (s.size() < 14 || !ends_with(s, suffix)) return 0;
  int32_t l, e;
  uint64_t i;
  if (!take_times_and_id(s, &l, &e, &i) || s != suffix) return 0;
  *latest = l;
  *earliest = e;
  *id = i;
  return 1;
}

// ---- Directory walk -----------------------------------------------------------------

int _tsidx_time_filter(tsidx*, const char* entry, int32_t* latest_out, int32_t* earliest_out,
                       uint64_t* id_out, int32_t hi, int32_t lo) noexcept {
  if (st_tsidx_file_parse(entry, earliest_out, latest_out, id_out) == 0) return 0;
  return *earliest_out <= hi && *latest_out >= lo;
}

int _tsidx_name_filter(tsidx*, const char* entry, int32_t* latest_out, int32_t* earliest_out,
                       uint64_t* id_out, int32_t, int32_t) noexcept {
  return st_tsidx_file_parse(entry, earliest_out, latest_out, id_out);
}

int _tsidx_part_filter(tsidx* t, const char* entry, int32_t* latest_out, int32_t* earliest_out,
                       uint64_t* id_out, int32_t, int32_t) noexcept {
  uint32_t part;
  return st_tsidx_part_file_parse(entry, t->part_id, earliest_out, latest_out, id_out, &part);
}

int _st_tsidx_apply(tsidx* t, int32_t lo, int32_t hi, tsidx_callback callback, void* context,
                    int pass_warm, tsidx_filter filter) noexcept {
  // Open descriptors of the accepted files, opened as index files only
  // after the listing, so that a callback never runs with the directory
  // stream open.
  struct pending {
    int fd;
    uint64_t id;
  };
  std::unique_ptr<pending, free_deleter> list;
  size_t capacity = 0;
  size_t used = 0;
  if (pass_warm != 0) {
    capacity = 256;
    list.reset(static_cast<pending*>(malloc(capacity * sizeof(pending))));
    if (list == nullptr) {
      fprintf(stderr, "st_tsidx_apply: malloc failed %i\n", errno);
      return -1;
    }
  }
  ST_ASSERT_TEXT(t != nullptr, "tsidx != ((void *)0)");
  unique_dir dir(opendir(t->path));
  if (dir == nullptr) return -1;

  int count = 0;
  char path[PATH_BUF_SZ];
  while (dirent* e = readdir(dir.get())) {
    int32_t latest = INT_MAX;
    int32_t earliest = INT_MIN;
    uint64_t id = 0;
    if (filter != nullptr) {
      if (filter(t, e->d_name, &latest, &earliest, &id, hi, lo) == 0) continue;
    } else {
      ST_ASSERT(!pass_warm);
    }
    if (!join(path, t->path, e->d_name)) continue;   // cannot be named: not ours
    if (pass_warm == 0) {
      int r = callback(t, nullptr, latest, earliest, context, path, id);
      if (r < 0) return r;
      ++count;
      continue;
    }
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    if (used == capacity) {
      void* bigger = realloc(list.get(), 2 * capacity * sizeof(pending));
      ST_ASSERT_TEXT(bigger != nullptr, "0 && \"unable to reallocate warms\"");
      (void)list.release();
      list.reset(static_cast<pending*>(bigger));
      capacity *= 2;
    }
    list.get()[used++] = {fd, id};
  }
  dir.reset();

  pending* items = list.get();
  for (size_t i = 0; i < used; ++i) {
    warm* w = st_warm_slice_open_from_fd(items[i].fd, 0, &t->wrc);
    if (w == nullptr) {
      close(items[i].fd);
      continue;
    }
    int r = callback(t, w, st_warm_slice_latest(w), st_warm_slice_earliest(w), context, nullptr,
                     items[i].id);
    (void)st_warm_slice_close(w);
    if (r < 0) {
      for (size_t j = i + 1; j < used; ++j) close(items[j].fd);
      return r;
    }
    ++count;
  }
  return count;
}

int st_tsidx_apply(tsidx* t, int32_t lo, int32_t hi, tsidx_callback callback, void* context) noexcept {
  return _st_tsidx_apply(t, lo, hi, callback, context, 1, _tsidx_time_filter);
}

// ---- Parameter file -----------------------------------------------------------------

int deserialize_params(tsidx* t) noexcept {
  char name[PATH_BUF_SZ];
  if (!join(name, t->path, ST_PARAMS_NAME)) return 0;
  int fd = open(name, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  char arr[256];
  ssize_t nr = 0;
  while (nr < static_cast<ssize_t>(sizeof(arr)) - 1) {
    ssize_t n = read(fd, arr + nr, sizeof(arr) - 1 - static_cast<size_t>(nr));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    nr += n;
  }
  close(fd);
  ST_ASSERT_TEXT(nr < (ssize_t)sizeof(arr), "nr < (ssize_t) sizeof(arr)");
  if (nr <= 0) return 0;

  std::string_view s(arr, static_cast<size_t>(nr));
  if (s.substr(0, PARAMS_HEADER_LEN) != std::string_view(ST_PARAMS_HEADER, PARAMS_HEADER_LEN)) {
    return 0;
  }
  s.remove_prefix(PARAMS_HEADER_LEN);
  // Five decimal fields, each ended by "|"; the last may end the text
  // instead. The values wrap rather than being checked: the file is ours.
  uint64_t field[5];
  for (int f = 0; f < 5; ++f) {
    size_t i = 0;
    uint64_t v = 0;
    while (i < s.size() && s[i] >= '0' && s[i] <= '9') {
      v = v * 10 + static_cast<uint64_t>(s[i] - '0');
      ++i;
    }
    if (i == 0) return 0;
    s.remove_prefix(i);
    field[f] = v;
    if (f == 4 && s.empty()) break;
    if (!take_char(s, '|')) return 0;
  }
  if (!s.empty()) return 0;
  t->max_terms = field[0];
  t->max_term_chars = field[1];
  t->max_postings = field[2];
  t->max_values = field[3];
  t->txn_per_sync = field[4];
  return 1;
}

int serialize_params(tsidx* t) noexcept {
  char final_name[PATH_BUF_SZ];
  char temp[PATH_BUF_SZ];
  if (!join(final_name, t->path, ST_PARAMS_NAME)) return -1;
  int n = snprintf(temp, sizeof temp, "%s/%s.part.%u", t->path, ST_PARAMS_NAME, t->part_id);
  if (n < 0 || static_cast<size_t>(n) >= sizeof temp) return -1;
  char line[256];
  int len = snprintf(line, sizeof line, "%s%llu|%llu|%llu|%llu|%llu|", ST_PARAMS_HEADER,
                     static_cast<unsigned long long>(t->max_terms),
                     static_cast<unsigned long long>(t->max_term_chars),
                     static_cast<unsigned long long>(t->max_postings),
                     static_cast<unsigned long long>(t->max_values),
                     static_cast<unsigned long long>(t->txn_per_sync));
  int fd = open(temp, O_RDWR | O_CREAT | O_EXCL | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return -1;
  // One write: the file is written whole or not taken.
  ssize_t w = write(fd, line, static_cast<size_t>(len));
  if (w != len) {
    close(fd);
    return -1;
  }
  if (close(fd) != 0) return -1;
  return rename(temp, final_name) == 0 ? 0 : -1;
}

// ---- Need-optimize marker ---------------------------------------------------------------

int st_tsidx_need_optimize(tsidx* t) noexcept {
  char name[PATH_BUF_SZ];
  if (!join(name, t->path, ST_NEED_OPTIMIZE_NAME)) return 0;
  return access(name, F_OK) == 0 ? 1 : 0;
}

int st_tsidx_set_need_optimize(tsidx* t) noexcept {
  char name[PATH_BUF_SZ];
  if (!join(name, t->path, ST_NEED_OPTIMIZE_NAME)) return -1;
  if (access(name, F_OK) == 0) return 0;
  int fd = open(name, O_RDWR | O_CREAT | O_EXCL | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return errno == EEXIST ? 0 : -1;   // another writer was quicker
  close(fd);
  return 0;
}

int st_tsidx_clear_need_optimize(tsidx* t) noexcept {
  char name[PATH_BUF_SZ];
  if (!join(name, t->path, ST_NEED_OPTIMIZE_NAME)) return -1;
  return unlink(name);
}

// ---- Flush ---------------------------------------------------------------------------

int st_tsidx_sync(tsidx* t) noexcept { return _st_tsidx_sync(t, ".pre-tsidx", 0); }

int _st_tsidx_sync_part(tsidx* t, uint32_t* counter) noexcept {
  if (*counter > ST_TSIDX_MAX_PART) return 0;
  char suffix[64];
  snprintf(suffix, sizeof suffix, ".%u.%u.part-tsidx", *counter, t->part_id);
  ++*counter;
  return _st_tsidx_sync(t, suffix, 1);
}

int _st_tsidx_move_into_place(const char* from, char* to, const char* dir, const warm* w,
                              tsidx_move_fn move, tsidx_sleep_ms_fn sleep_ms) noexcept {
  uint32_t delay_ms = 1;
  int err = 0;
  for (int attempt = 1; attempt <= ST_TSIDX_MOVE_ATTEMPTS; ++attempt) {
    // A fresh name each time: the id is what makes it unique.
    if (!_filename_from_time(to, dir, ".tsidx", st_warm_slice_earliest(w), st_warm_slice_latest(w))) {
      return ENAMETOOLONG;
    }
    err = move(from, to, nullptr);
    if (err == 0) return 0;
    // Running out of descriptors or memory passes; anything else will not.
    if (err != ENFILE && err != ENOMEM && err != EMFILE) return err;
    if (attempt == ST_TSIDX_MOVE_ATTEMPTS) break;
    sleep_ms(delay_ms);
    delay_ms = delay_ms * 2 > ST_TSIDX_MOVE_MAX_SLEEP_MS ? ST_TSIDX_MOVE_MAX_SLEEP_MS : delay_ms * 2;
  }
  return err;
}

int _st_tsidx_sync(tsidx* t, const char* suffix, int is_part) noexcept {
  ST_ASSERT_TEXT(t != nullptr, "tsidx != ((void *)0)");
  if (t->hot_slice == nullptr || st_hot_slice_values(t->hot_slice) == 0) return 0;

  char name[PATH_BUF_SZ];
  name[0] = '\0';
  warm* w = st_warm_slice_create(t->hot_slice, name, t->path, suffix, &t->wrc);
  if (w == nullptr) {
    // A half-written file is ours to remove; a name that existed already
    // (-4 on the exclusive create) belongs to somebody else.
    if (name[0] != '\0' && t->wrc.warm_rc != WS_EOPEN) unlink(name);
    st_hot_slice_reset(t->hot_slice);
    return -6;
  }
  if (is_part == 0) {
    char final_name[PATH_BUF_SZ];
    int err = _st_tsidx_move_into_place(name, final_name, t->path, w, _link_and_unlink, sleep_ms_real);
    if (err != 0) {
      _set_rc_and_errno(&t->wrc, ST_EMOVE, err);
      (void)st_warm_slice_close(w);
      st_hot_slice_reset(t->hot_slice);
      (void)st_tsidx_set_need_optimize(t);
      return -6;
    }
  }
  (void)st_warm_slice_close(w);
  st_hot_slice_reset(t->hot_slice);
  (void)st_tsidx_set_need_optimize(t);
  return 0;
}

// ---- Indexing --------------------------------------------------------------------------

tsidx_limits _st_tsidx_autotuned_limits(uint64_t target, uint64_t written_size_est,
                                        uint64_t term_chars, uint64_t terms, uint64_t postings,
                                        uint64_t values) noexcept {
  tsidx_limits l{};
  l.ratio = written_size_est == 0 ? 1.0
                                  : static_cast<double>(target) / static_cast<double>(written_size_est);
  auto scaled = [&](uint64_t v, uint64_t add) {
    return static_cast<uint64_t>(static_cast<double>(v) * l.ratio + static_cast<double>(add));
  };
  l.max_term_chars = scaled(term_chars, 1048576);
  l.max_postings = scaled(postings, 1048576);
  if (l.max_postings > st_hot_slice_max_postings()) l.max_postings = st_hot_slice_max_postings();
  l.max_values = scaled(values, 32768);
  if (l.max_values > st_hot_slice_max_values()) l.max_values = st_hot_slice_max_values();
  l.max_values = make_even(l.max_values);
  l.max_terms = make_even(scaled(terms, 65536));
  return l;
}

void _st_tsidx_note_full(tsidx* t, int full_code) noexcept {
  ++t->full_count;
  if (full_code <= -1 && full_code >= -4) ++t->full_reasons[-full_code - 1];
  if (t->txn_count != 0) t->txn_per_sync = t->txn_count;
  t->txn_count = 0;
  if (t->autotune == 0 || t->hot_slice == nullptr) return;
  const hot_slice* h = t->hot_slice;
  tsidx_limits l = _st_tsidx_autotuned_limits(t->autotune_target, written_size_est(h),
                                              h->term_bytes_used, h->term_count, h->nodes_used,
                                              st_hot_slice_values(h));
  t->max_term_chars = l.max_term_chars;
  t->max_postings = l.max_postings;
  t->max_values = l.max_values;
  t->max_terms = l.max_terms;
  t->txn_per_sync = static_cast<uint64_t>(static_cast<double>(t->txn_per_sync) * l.ratio);
}

int st_tsidx_put(tsidx* t, const char* term, uint32_t len, int32_t timestamp,
                 uint32_t event_address, uint32_t event_type, uint32_t source,
                 uint32_t source_type, uint32_t host) noexcept {
  // A 32-bit attribute column reads back as 0 (its decoding masks every bit
  // away), so no attribute that must survive may need one. The source
  // 0xFFFFFFFF marks a deleted event and is kept out of the column's width.
  constexpr uint32_t ATTRIBUTE_LIMIT = 0x80000000u;
  if (event_type >= ATTRIBUTE_LIMIT || source_type >= ATTRIBUTE_LIMIT || host >= ATTRIBUTE_LIMIT ||
      (source >= ATTRIBUTE_LIMIT && source != 0xFFFFFFFFu)) {
    return WS_ENONAME;
  }
  int r = ensure_hot_slice(t);
  if (r != 0) return r;
  r = st_hot_slice_put(t->hot_slice, term, len, timestamp, event_address, event_type, source,
                       source_type, host);
  if (r == 0 || r < -4) return r;   // stored, or a term that no flush can help (-5)
  _st_tsidx_note_full(t, r);
  int s = st_tsidx_sync(t);
  if (t->autotune != 0) {
    // The next slice is made to the new limits.
    st_hot_slice_close(t->hot_slice);
    t->hot_slice = nullptr;
  }
  if (s != 0) return s;
  r = ensure_hot_slice(t);
  if (r != 0) return r;
  return st_hot_slice_put(t->hot_slice, term, len, timestamp, event_address, event_type, source,
                          source_type, host);
}

// ---- Accessors ---------------------------------------------------------------------------

uint64_t st_tsidx_max_terms(const tsidx* t) noexcept { return t->max_terms; }
uint64_t st_tsidx_max_term_chars(const tsidx* t) noexcept { return t->max_term_chars; }
uint64_t st_tsidx_max_postings(const tsidx* t) noexcept { return t->max_postings; }
uint64_t st_tsidx_max_values(const tsidx* t) noexcept { return t->max_values; }
uint64_t st_tsidx_txn_per_sync(const tsidx* t) noexcept { return t->txn_per_sync; }
int32_t st_tsidx_warm_rc(const tsidx* t) noexcept { return t->wrc.warm_rc; }
int32_t st_tsidx_warm_errno(const tsidx* t) noexcept { return t->wrc.warm_errno; }

void st_tsidx_set_params(tsidx* t, uint64_t max_terms, uint64_t max_term_chars, uint64_t max_postings,
                         uint64_t max_values) noexcept {
  t->max_terms = max_terms;
  t->max_term_chars = max_term_chars;
  t->max_postings = max_postings;
  t->max_values = max_values;
}

void st_tsidx_autotune(tsidx* t, uint64_t target) noexcept {
  t->autotune = target != 0 ? 1 : 0;
  t->autotune_target = target;
}

}  // namespace tarnix
