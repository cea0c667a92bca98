#include "searchthing/tsidx_optimize.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <string>
#include <exception>
#include <thread>
#include <vector>

#include "searchthing/check.h"
#include "searchthing/lock.h"
#include "searchthing/warmslice_merge.h"
#include "searchthing/warmslice_util.h"

namespace tarnix {

namespace {

long now_s() noexcept { return static_cast<long>(time(nullptr)); }

// One index file found by the listing.
struct so_candidate {
  std::string path;   // directory path, "/", file name; at most 4095 characters
  int64_t size;       // bytes when listed
  int32_t earliest;   // second number of the file name
  int32_t latest;     // first number of the file name
  uint64_t id;        // third number of the file name
};

struct collect_ctx {
  std::vector<so_candidate>* list;
  uint32_t count;
  int64_t size_limit;    // 0 or less: none
  uint32_t count_limit;  // 0: none
};

int _collect_candidate(tsidx*, warm*, int32_t latest, int32_t earliest, void* context,
                       const char* path, uint64_t id) noexcept {
  auto* ctx = static_cast<collect_ctx*>(context);
  if (ctx->count_limit != 0 && ctx->count >= ctx->count_limit) return 0;
  // A file with a lock beside it is being written, merged or deleted by
  // somebody else.
  int locked = st_islocked(path);
  if (locked == 1) return 0;
  if (locked < 0) return ST_ELOCK;
  int64_t size = 0;
  if (ospath_get_size(path, &size) != 0 || size == 0) return 0;
  if (ctx->size_limit > 0 && size > ctx->size_limit) return 0;
  try {
    ctx->list->push_back(so_candidate{std::string(path, strnlen(path, SO_CANDIDATE_PATH_MAX)),
                                      size, earliest, latest, id});
  } catch (const std::bad_alloc&) {
    return WS_ENOMEM;
  }
  ++ctx->count;
  return 0;
}

int _log_dir_entry(tsidx*, warm*, int32_t, int32_t, void* context, const char* path,
                   uint64_t) noexcept {
  fprintf(static_cast<FILE*>(context), "tm=%ld \t%s\n", now_s(), path);
  return 0;
}

// Holds back, for its lifetime, every signal that can wait (stop requests,
// a broken pipe, timers, limits, real-time and user signals), on the
// calling thread and the threads it starts. Only the faults a thread
// raises itself stay open, so that a crash is still reported; SIGKILL and
// SIGSTOP cannot be held. The signals held arrive when the old mask comes
// back.
class commit_signals_held {
 public:
  commit_signals_held() noexcept {
    sigset_t hold;
    sigfillset(&hold);
    for (int sig : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP, SIGSYS}) sigdelset(&hold, sig);
    pthread_sigmask(SIG_BLOCK, &hold, &old_);
  }
  ~commit_signals_held() { pthread_sigmask(SIG_SETMASK, &old_, nullptr); }
  commit_signals_held(const commit_signals_held&) = delete;
  commit_signals_held& operator=(const commit_signals_held&) = delete;

 private:
  sigset_t old_;
};

// The pass's resources: descriptor slots of the group and the source locks
// taken so far. Released explicitly, in the order the commit needs; what is
// still held when a path ends is exactly what that path leaves behind.
struct pass_state {
  const std::vector<so_candidate>* sorted = nullptr;
  so_group group{};
  int slots[SO_MAX_GROUP];
  uint32_t locked = 0;  // members 0..locked-1 hold their source lock
  bool keep_lock[SO_MAX_GROUP] = {};  // a source that is not to be released

  const so_candidate& member(uint32_t m) const { return (*sorted)[group.pos[m]]; }

  void close_slots() noexcept {
    for (int& fd : slots) {
      if (fd >= 0) close(fd);
      fd = -1;
    }
  }
  // The same for the slots of removed sources, on several threads at once:
  // where the file system discards the blocks it frees, the last close of a
  // removed file waits for the device, and these waits overlap. Slots left
  // without a thread are closed here.
  void close_removed_slots() noexcept {
    constexpr uint32_t MAX_CLOSERS = 8;
    const uint32_t closers = std::min(MAX_CLOSERS, std::max(group.count, 1u));
    std::thread threads[MAX_CLOSERS];
    auto close_every = [this, closers](uint32_t first) noexcept {
      for (uint32_t m = first; m < SO_MAX_GROUP; m += closers) {
        if (slots[m] >= 0) close(slots[m]);
        slots[m] = -1;
      }
    };
    uint32_t started = 0;
    try {
      for (; started < closers; ++started) threads[started] = std::thread(close_every, started);
    } catch (const std::exception&) {
    }
    for (uint32_t k = started; k < closers; ++k) close_every(k);
    for (uint32_t k = 0; k < started; ++k) threads[k].join();
  }
  void unlock_sources() noexcept {
    for (uint32_t m = 0; m < locked; ++m) {
      if (!keep_lock[m]) (void)st_unlock(member(m).path.c_str());
    }
    locked = 0;
  }
};

}  // namespace

int _so_choose_group(const int64_t* sizes, uint32_t n, int32_t mode, uint32_t min_src_count,
                     uint64_t max_allowed_size, so_group* out) noexcept {
  const bool normal = mode == SO_MODE_NORMAL;
  const bool all = mode == SO_MODE_ALL;
  out->count = 0;
  uint32_t i = 0;
  for (;;) {
    // Seed pair (j, j+1). In normal mode the pair must be of similar size
    // (the smaller more than half the larger) unless the larger is still
    // below 1 MiB; the seed is never held against the byte limits.
    uint32_t j = i;
    if (normal) {
      for (; j + 1 < n; ++j) {
        if (2 * sizes[j] > sizes[j + 1] || sizes[j + 1] <= SO_SMALL_FILE_SZ - 1) break;
      }
      if (j + 1 >= n) return ST_ENOGROUP;
    } else if (i + 1 >= n) {
      return ST_ENOGROUP;
    }
    out->pos[0] = j;
    out->pos[1] = j + 1;
    out->count = 2;
    int64_t total = sizes[j] + sizes[j + 1];

    // Extend with the following files while they fit. A file that stops the
    // extension stays counted in the total; nothing reads it afterwards.
    for (uint32_t k = j + 2; k < n && out->count < SO_MAX_GROUP; ++k) {
      if (!all) {
        if (sizes[k] > SO_SMALL_FILE_SZ && sizes[k] > total) break;
        total += sizes[k];
        if (total > SO_MAX_GROUP_TOTAL_SZ) break;
      } else {
        total += sizes[k];
      }
      if (max_allowed_size != 0 && static_cast<uint64_t>(total) > max_allowed_size) break;
      out->pos[out->count++] = k;
    }

    if (out->count >= min_src_count || !normal) return 0;
    // Too few members: normal mode looks again two places after the seed.
    i = j + 2;
    out->count = 0;
  }
}

int _link_and_unlink(const char* from, const char* to, FILE* log) noexcept {
  // A hard link never replaces an existing file, so a name taken in the
  // meantime makes the link fail instead of destroying somebody's index.
  if (link(from, to) != 0) {
    int err = errno != 0 ? errno : 69;
    if (log != nullptr) {
      fprintf(log, "tm=%ld WARN link command failed. rc=%i Retrying the following files \n\t%s\n\t%s\n",
              now_s(), err, from, to);
    }
    return err;
  }
  if (unlink(from) != 0) {
    // The file is already in place under its new name; a leftover old name
    // only costs space.
    int err = errno;
    if (log != nullptr) {
      fprintf(log, "tm=%ld WARN unlink command failed. rc=%i With the following files \n\t%s\n\t%s\n",
              now_s(), err, from, to);
    }
  }
  return 0;
}

int move_retry_time(const char* intermediate, const char* dir, int32_t earliest, int32_t latest,
                    FILE* log) noexcept {
  ST_ASSERT_TEXT(latest >= earliest, "latest >= earliest");
  char target[PATH_BUF_SZ];
  int err = 0;
  for (int attempt = 0; attempt < SO_MOVE_ATTEMPTS; ++attempt) {
    // Every attempt draws a new id: the usual reason for a failed link is a
    // name that somebody else took.
    if (!_filename_from_time(target, dir, ".tsidx", earliest, latest)) {
      err = ENAMETOOLONG;
      break;
    }
    err = _link_and_unlink(intermediate, target, log);
    if (err == 0) {
      if (log != nullptr) {
        fprintf(log, "tm=%ld intermediate=%s\n", now_s(), intermediate);
        fprintf(log, "tm=%ld target=%s\n", now_s(), target);
      }
      return 0;
    }
  }
  if (log != nullptr) {
    fprintf(log, "tm=%ld ERROR failed to move intermediate=%s eno=%i\n", now_s(), intermediate, err);
  }
  return err;
}

void _so_log_dir_listing(tsidx* t, FILE* log) noexcept {
  if (log == nullptr) return;
  fprintf(log, "tm=%ld dir listing for %s\n", now_s(), t->path);
  (void)_st_tsidx_apply(t, INT_MIN, INT_MAX, _log_dir_entry, log, 0, nullptr);
}

const char* _so_finished_text(int32_t rc) noexcept {
  static const char* const texts[32] = {
      "no suitable pair of tsidx found for optimize",  // -31
      "less than 2 tsidx files in dir",                // -30
      "failed, see rc for more details",               // -29
      "failed, see rc for more details",               // -28
      "failed, see rc for more details",               // -27
      "failed, see rc for more details",               // -26
      "failed, see rc for more details",               // -25
      "failed, see rc for more details",               // -24
      "failed, see rc for more details",               // -23
      "failed, see rc for more details",               // -22
      "failed, see rc for more details",               // -21
      "failed, see rc for more details",               // -20
      "failed, see rc for more details",               // -19
      "failed, see rc for more details",               // -18
      "failed, see rc for more details",               // -17
      "failed, see rc for more details",               // -16
      "failed, see rc for more details",               // -15
      "failed, see rc for more details",               // -14
      "failed, see rc for more details",               // -13
      "failed, see rc for more details",               // -12
      "failed, see rc for more details",               // -11
      "failed, see rc for more details",               // -10
      "failed, see rc for more details",               // -9
      "failed, see rc for more details",               // -8
      "failed, see rc for more details",               // -7
      "failed, see rc for more details",               // -6
      "failed, see rc for more details",               // -5
      "failed, see rc for more details",               // -4
      "failed, see rc for more details",               // -3
      "failed, see rc for more details",               // -2
      "failed, see rc for more details",               // -1
      "files merged successfully",                     // 0
  };
  if (rc >= -31 && rc <= 0) return texts[rc + 31];
  return "failed, see rc for more details";
}

void _log_optimize_finished(FILE* log, const wrc* w, const int* errno_ptr) noexcept {
  if (log == nullptr) return;
  fprintf(log, "tm=%ld optimize finished: %s, (rc=%i errno=%i)\n", now_s(),
          _so_finished_text(w->warm_rc), w->warm_rc,
          errno_ptr != nullptr ? *errno_ptr : w->warm_errno);
}

int32_t st_tsidx_optimize_n(tsidx* t, int32_t mode, FILE* log, uint32_t min_src_count,
                            uint32_t lex_tpb, uint64_t page_size, wrc* wrc_o,
                            uint64_t max_allowed_size, int tstats) noexcept {
  return _st_tsidx_optimize(t, mode, log, min_src_count, lex_tpb, page_size, _tsidx_name_filter,
                            wrc_o, max_allowed_size, tstats);
}

namespace {

// Steps 2 to 17 of the pass; the caller records the result and logs it.
int _optimize_pass(tsidx* t, int32_t mode, FILE* log, uint32_t min_src_count, uint32_t lex_tpb,
                   uint64_t page_size, tsidx_filter filter, wrc* wrc_o, uint64_t max_allowed_size,
                   int tstats, std::vector<so_candidate>& cands, pass_state& ps) noexcept {
  const char* dir = t->path;
  if (st_forced_lock(dir, SO_DIR_LOCK_WAIT_S) < 0) return ST_ELOCK;

  collect_ctx ctx{&cands, 0, mode == SO_MODE_ALL ? 0 : SO_MAX_CANDIDATE_SZ, SO_MAX_CANDIDATES};
  int rc = _st_tsidx_apply(t, INT_MIN, INT_MAX, _collect_candidate, &ctx, 0, filter);
  if (rc < 0) {
    (void)st_unlock(dir);
    return rc;
  }
  if (cands.size() < 2) {
    (void)st_unlock(dir);
    return ST_EFEWFILES;
  }

  std::sort(cands.begin(), cands.end(),
            [](const so_candidate& a, const so_candidate& b) { return a.size < b.size; });
  std::vector<int64_t> sizes;
  try {
    sizes.reserve(cands.size());
  } catch (const std::bad_alloc&) {
    (void)st_unlock(dir);
    return WS_ENOMEM;
  }
  for (const so_candidate& c : cands) sizes.push_back(c.size);
  ps.sorted = &cands;
  if (_so_choose_group(sizes.data(), static_cast<uint32_t>(sizes.size()), mode, min_src_count,
                       max_allowed_size, &ps.group) != 0) {
    (void)st_unlock(dir);
    return ST_ENOGROUP;
  }

  int32_t earliest = INT32_MAX;
  int32_t latest = INT32_MIN;
  for (uint32_t m = 0; m < ps.group.count; ++m) {
    earliest = std::min(earliest, ps.member(m).earliest);
    latest = std::max(latest, ps.member(m).latest);
  }

  // Source locks, taken while the directory lock is held so that no other
  // optimizer lists these files meanwhile. A source locked by somebody who
  // does not go through the directory lock is waited for, without limit.
  for (uint32_t m = 0; m < ps.group.count; ++m) {
    const so_candidate& c = ps.member(m);
    if (log != nullptr) {
      fprintf(log, "tm=%ld source_%i=%s sz=%llu\n", now_s(), static_cast<int>(m), c.path.c_str(),
              static_cast<unsigned long long>(c.size));
    }
    int lr;
    while ((lr = st_lock(c.path.c_str())) > 0) usleep(SO_LOCK_RETRY_US);
    if (lr < 0) {
      ps.unlock_sources();
      (void)st_unlock(dir);
      return ST_ELOCK;
    }
    ps.locked = m + 1;
  }
  // The merge runs holding only the source locks.
  (void)st_unlock(dir);

  for (uint32_t m = 0; m < ps.group.count; ++m) {
    ps.slots[m] = open(ps.member(m).path.c_str(), O_RDONLY | O_CLOEXEC);
    if (ps.slots[m] < 0) {
      ps.unlock_sources();
      ps.close_slots();
      return WS_EOPEN;
    }
  }

  // Earliest values first, then latest values: not the order of the final
  // names. Kept as it is; tools that clean up after crashed runs know it.
  const so_candidate& m0 = ps.member(0);
  const so_candidate& m1 = ps.member(1);
  char intermediate[PATH_BUF_SZ];
  snprintf(intermediate, sizeof intermediate, "%s/%d:%d:%llu-%d:%d:%llu-%llu%s", dir, m0.earliest,
           m1.earliest, static_cast<unsigned long long>(m0.id), m0.latest, m1.latest,
           static_cast<unsigned long long>(m1.id), static_cast<unsigned long long>(getpid()),
           SO_MERGE_SUFFIX);
  if (ospath_try_stat(intermediate) == 0) {
    ps.unlock_sources();
    ps.close_slots();
    return ST_EEXISTS;
  }
  int out = open(intermediate, O_RDWR | O_CREAT | O_EXCL | O_TRUNC | O_CLOEXEC, 0600);
  if (out < 0) {
    ps.unlock_sources();
    ps.close_slots();
    return WS_EOPEN;
  }

  rc = st_warm_slice_merge_n(0, out, ps.slots, ps.group.count, lex_tpb, page_size, wrc_o, tstats);
  if (rc != 0) {
    // Left as it is on purpose: the sources keep their locks (so later
    // passes leave them alone), the descriptors stay open and the
    // intermediate stays for inspection. The message goes to standard error
    // even when the run is silent.
    uint32_t bad = static_cast<uint32_t>(wrc_o->source_index);
    const char* file = bad < ps.group.count ? cands[bad].path.c_str() : "dontknow";
    fprintf(stderr, "merge failed for path=%s rc=%i wrc=%i errno=%i file=%s hint=%s]\n", dir, rc,
            wrc_o->warm_rc, wrc_o->warm_errno, file, wrc_o->message);
    return rc;
  }
  if (close(out) != 0) {
    ps.unlock_sources();
    ps.close_slots();
    return WS_ECLOSE;
  }

  if (st_forced_lock(dir, SO_DIR_LOCK_WAIT_S) < 0) {
    ps.unlock_sources();
    ps.close_slots();
    return ST_ELOCK;
  }
  // From the move to the last unlock a stop request waits: the merged file
  // and its sources must not both stay in the bucket.
  const commit_signals_held held;
  if (move_retry_time(intermediate, dir, earliest, latest, log) != 0) {
    _so_log_dir_listing(t, log);
    (void)st_unlock(dir);
    ps.close_slots();
    ps.unlock_sources();
    return ST_EMOVE;
  }

  // The merged file is in place: the sources go, then the locks. Their
  // names go in group order while the slots still hold the files, so that
  // the blocks are freed as the slots close, on several threads. A source
  // that cannot be removed holds events that the merged file now holds as
  // well: it keeps its lock, as after a crash at this point, so that no
  // later pass merges them a second time (and passes do not merge it over
  // and over), and the operator is told on standard error.
  for (uint32_t m = 0; m < ps.group.count; ++m) {
    const char* path = ps.member(m).path.c_str();
    if (unlink(path) != 0 && errno != ENOENT) {
      fprintf(stderr, "remove failed for path=%s errno=%i: its events are also in the merged file; it stays locked\n",
              path, errno);
      ps.keep_lock[m] = true;
    }
  }
  ps.close_removed_slots();
  (void)st_unlock(dir);
  ps.unlock_sources();
  return 0;
}

}  // namespace

int _so_collect_candidates(tsidx* t, tsidx_filter filter, int64_t size_limit, uint32_t count_limit,
                           so_listed_file** out) noexcept {
  *out = nullptr;
  std::vector<so_candidate> cands;
  collect_ctx ctx{&cands, 0, size_limit, count_limit};
  int rc = _st_tsidx_apply(t, INT_MIN, INT_MAX, _collect_candidate, &ctx, 0, filter);
  if (rc < 0) return rc;
  if (cands.empty()) return 0;
  auto* files = static_cast<so_listed_file*>(calloc(cands.size(), sizeof(so_listed_file)));
  if (files == nullptr) return WS_ENOMEM;
  for (size_t i = 0; i < cands.size(); ++i) {
    const so_candidate& c = cands[i];
    memcpy(files[i].path, c.path.data(), c.path.size());  // at most 4095 bytes, NUL from calloc
    files[i].size = c.size;
    files[i].earliest = c.earliest;
    files[i].latest = c.latest;
    files[i].id = c.id;
  }
  *out = files;
  return static_cast<int>(cands.size());
}

int32_t _st_tsidx_optimize(tsidx* t, int32_t mode, FILE* log, uint32_t min_src_count,
                           uint32_t lex_tpb, uint64_t page_size, tsidx_filter filter, wrc* wrc_o,
                           uint64_t max_allowed_size, int tstats) noexcept {
  _set_rc(wrc_o, 0);
  pass_state ps;
  for (int& fd : ps.slots) fd = -1;
  int result;
  {
    std::vector<so_candidate> cands;
    result = _optimize_pass(t, mode, log, min_src_count, lex_tpb, page_size, filter, wrc_o,
                            max_allowed_size, tstats, cands, ps);
  }
  _set_rc(wrc_o, result);
  _log_optimize_finished(log, wrc_o, nullptr);
  return wrc_o->warm_rc;
}

}  // namespace tarnix
