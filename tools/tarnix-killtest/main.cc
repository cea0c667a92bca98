// tarnix-killtest: crash consistency of tarnix-optimize. Builds buckets of
// small index files with tarnix-index, starts tarnix-optimize on them and
// kills it with SIGKILL at a random moment, again and again. After every
// kill it checks that every posting (term, time, event address) of the
// original files is still in the bucket's ".tsidx" files, that those files
// all open and read back, and that no event is held by two files unless the
// kill fell between the move of a merged file and the removal of its
// sources. Then, acting as the operator, it removes the lock files that the
// killed process left (their owner process is dead), except that a
// directory lock is left to the next run a few times, which must break it
// after its ten-second wait. Each bucket ends with a run that completes.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <dirent.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "common/args.h"
#include "searchthing/fclex.h"
#include "searchthing/result.h"
#include "searchthing/tsidx.h"
#include "searchthing/warmslice.h"

namespace {

constexpr const char USAGE[] =
    "usage: tarnix-killtest [options]\n"
    "\n"
    "Kills tarnix-optimize (SIGKILL) at random moments while it optimizes\n"
    "generated buckets of small index files, and checks after every kill that\n"
    "no event was lost.\n"
    "\n"
    "options:\n"
    "  --kills N            kills to make (default 100)\n"
    "  --seed S             seed of the buckets and of the kill moments (default 1)\n"
    "  --events N           events per bucket (default 3000)\n"
    "  --max-values M       events per index file (default 40)\n"
    "  --design-breaks K    times a directory lock left by a killed run is left\n"
    "                       for the next run to break after its 10 s wait\n"
    "                       (default 2; the operator removes the others)\n"
    "  --work DIR           directory for the buckets (default: a new one below\n"
    "                       $TMPDIR or /tmp, removed at the end)\n"
    "  --bin-dir DIR        where tarnix-index and tarnix-optimize are (default:\n"
    "                       this program's directory)\n"
    "  -v                   one line per kill (with KILLTEST_DEBUG set in the\n"
    "                       environment, also every file the kill left besides\n"
    "                       the index files, with its text)\n"
    "  --help               this text\n"
    "\n"
    "The full check, as run by hand:\n"
    "  tarnix-killtest --kills 120 --seed 7 -v\n"
    "SIGINT, SIGTERM or SIGHUP stop it after the bucket in hand: it reports what\n"
    "it did, removes its own work directory and ends by the signal.\n"
    "Exit status: 0 every check held, 1 a check failed, 2 usage or setup error.\n";

// The signal that asked the run to stop, or 0.
volatile sig_atomic_t stop_signal = 0;

void request_stop(int sig) { stop_signal = sig; }

struct options {
  uint32_t kills = 100;
  uint32_t seed = 1;
  uint32_t events = 3000;
  uint32_t max_values = 40;
  uint32_t design_breaks = 2;
  std::string work;
  std::string bin_dir;
  bool verbose = false;
};

// ---- Small helpers ------------------------------------------------------------

std::vector<std::string> list_dir(const std::string& dir) {
  std::vector<std::string> out;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) out.emplace_back(e->d_name);
    }
    closedir(d);
  }
  std::sort(out.begin(), out.end());
  return out;
}

bool ends_with(const std::string& s, const std::string& suffix) {
  return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool is_index_name(const std::string& name) {
  int32_t lo = 0, hi = 0;
  uint64_t id = 0;
  return tarnix::st_tsidx_file_parse(name.c_str(), &lo, &hi, &id) != 0;
}

std::set<std::string> index_files(const std::string& dir) {
  std::set<std::string> out;
  for (const auto& n : list_dir(dir)) {
    if (is_index_name(n)) out.insert(n);
  }
  return out;
}

void remove_tree(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return;
  if (S_ISDIR(st.st_mode)) {
    for (const auto& n : list_dir(path)) remove_tree(path + "/" + n);
    rmdir(path.c_str());
  } else {
    unlink(path.c_str());
  }
}

std::string read_text(const std::string& path) {
  std::string out;
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return out;
  char buf[512];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
  close(fd);
  return out;
}

double now_s() {
  timeval tv;
  gettimeofday(&tv, nullptr);
  return static_cast<double>(tv.tv_sec) + tv.tv_usec / 1e6;
}

// Starts argv with the environment plus OPTIMISTIC_ABOUT_FILE_LOCKING=1
// (the work directory may be on a file system without lock support) and
// standard output and error sent to /dev/null. Returns the child's pid.
pid_t spawn(const std::vector<std::string>& argv) {
  pid_t pid = fork();
  if (pid != 0) return pid;
  int null_fd = open("/dev/null", O_WRONLY);
  if (null_fd >= 0) {
    dup2(null_fd, 1);
    dup2(null_fd, 2);
  }
  setenv("OPTIMISTIC_ABOUT_FILE_LOCKING", "1", 1);
  unsetenv("LOG_TARNIX_OPTIMIZE");
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  execv(args[0], args.data());
  _exit(127);
}

int wait_status(pid_t pid) {
  int st = 0;
  while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
  }
  return st;
}

// ---- Reading a bucket ----------------------------------------------------------

using posting = std::tuple<std::string, int32_t, uint32_t>;  // term, time, event address
using value_key = std::pair<int32_t, uint32_t>;               // time, event address

struct bucket_state {
  std::vector<std::string> problems;       // files that do not read back
  std::set<posting> postings;
  std::map<value_key, uint32_t> holders;   // value -> number of files holding it
  std::map<std::string, std::set<value_key>> values;  // file name -> its values
};

uint32_t collect_term(uint32_t id, const char* term, uint32_t len, void* cookie) {
  auto* terms = static_cast<std::vector<std::pair<uint32_t, std::string>>*>(cookie);
  terms->emplace_back(id, std::string(term, len));
  return 0;
}

// Reads one index file into state; false when it cannot be read whole.
bool read_index(const std::string& path, bucket_state* state, std::set<value_key>* file_values) {
  tarnix::wrc rc{};
  tarnix::warm* w = tarnix::st_warm_slice_open(path.c_str(), 0, &rc);
  if (w == nullptr) return false;
  bool ok = true;
  const uint32_t nv = tarnix::st_warm_slice_values(w);
  std::vector<value_key> values;
  tarnix::tsval_reader vr{};
  if (tarnix::_tsval_reader_open(&vr, w, 1024, nullptr) != 0) ok = false;
  for (uint32_t i = 0; ok && i < nv; ++i) {
    tarnix::tsval v{};
    if (tarnix::_tsval_reader_decode(&vr, i, &v) != 0) ok = false;
    values.emplace_back(v.timestamp, v.event_address);
  }
  tarnix::_tsval_reader_close(&vr);
  std::vector<std::pair<uint32_t, std::string>> terms;
  if (ok && tarnix::st_fclex_apply(w->lex, nullptr, collect_term, &terms, nullptr) == tarnix::NOT_FOUND) ok = false;
  if (terms.size() != tarnix::st_warm_slice_terms(w)) ok = false;
  auto pr = std::make_unique<tarnix::plist_reader>();
  if (ok && tarnix::_init_reader(pr.get(), w, 4096, nullptr) != 0) ok = false;
  for (size_t t = 0; ok && t < terms.size(); ++t) {
    if (tarnix::_seek_reader(pr.get(), terms[t].first) != 0) {
      ok = false;
      break;
    }
    for (;;) {
      uint32_t v = 0;
      if (tarnix::_next(pr.get(), &v) != 0 || (v != tarnix::END_OF_LIST && v >= nv)) {
        ok = false;
        break;
      }
      if (v == tarnix::END_OF_LIST) break;
      state->postings.emplace(terms[t].second, values[v].first, values[v].second);
    }
  }
  if (ok) tarnix::close_plist_reader(pr.get());
  tarnix::st_warm_slice_close(w);
  if (ok) {
    file_values->insert(values.begin(), values.end());
    for (const auto& k : *file_values) state->holders[k] += 1;
  }
  return ok;
}

bucket_state read_bucket(const std::string& dir) {
  bucket_state s;
  for (const auto& n : index_files(dir)) {
    if (!read_index(dir + "/" + n, &s, &s.values[n])) s.problems.push_back(n);
  }
  return s;
}

// ---- Lock files ---------------------------------------------------------------------

std::string host_name() {
  char h[256] = {};
  if (gethostname(h, sizeof h - 1) != 0) return "";
  return h;
}

// Owner pid of a lock file ("%ld\n%s": pid, host), or -1 when the text is
// not a lock of this host.
long lock_owner(const std::string& path) {
  std::string text = read_text(path);
  size_t nl = text.find('\n');
  if (nl == std::string::npos || text.substr(nl + 1) != host_name()) return -1;
  char* end = nullptr;
  long pid = strtol(text.c_str(), &end, 10);
  if (end != text.c_str() + nl || pid <= 0) return -1;
  return pid;
}

bool pid_dead(long pid) { return kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH; }

struct leftovers {
  std::vector<std::string> source_locks;   // lock files in the bucket owned by a dead process
  bool dir_lock = false;                   // the bucket's own lock, owned by a dead process
  std::vector<std::string> merges;         // intermediate files of the killed process
  uint32_t locked_existing = 0;            // source locks whose index file still exists
  uint32_t empty_locks = 0;                // lock files created but not yet written
};

// A lock file whose owner is dead. An empty one was created by a process
// killed before it wrote its text: with no other process in the bucket than
// the one just killed, it is that process's.
bool stale_lock(const std::string& path, uint32_t* empty) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return false;
  if (st.st_size == 0) {
    ++*empty;
    return true;
  }
  long owner = lock_owner(path);
  return owner > 0 && pid_dead(owner);
}

leftovers find_leftovers(const std::string& dir, pid_t killed) {
  leftovers l;
  const std::string suffix = "-" + std::to_string(killed) + ".merge";
  for (const auto& n : list_dir(dir)) {
    if (ends_with(n, ".lock")) {
      if (stale_lock(dir + "/" + n, &l.empty_locks)) {
        l.source_locks.push_back(n);
        if (access((dir + "/" + n.substr(0, n.size() - 5)).c_str(), F_OK) == 0) l.locked_existing++;
      }
    } else if (ends_with(n, suffix)) {
      l.merges.push_back(n);
    }
  }
  l.dir_lock = stale_lock(dir + ".lock", &l.empty_locks);
  return l;
}

// ---- The test -------------------------------------------------------------------------

enum kill_phase { BEFORE_MERGE, DURING_MERGE, BETWEEN_MOVE_AND_REMOVAL, AFTER_REMOVAL, PHASES };
constexpr const char* PHASE_NAMES[PHASES] = {"before the merge", "during the merge",
                                             "between move and removal", "after the removal"};

struct tally {
  uint32_t kills = 0;
  uint32_t phase[PHASES] = {};
  uint32_t completed_runs = 0;      // runs that ended before their kill moment or after a kill
  uint32_t buckets = 0;
  uint32_t source_locks_removed = 0;
  uint32_t dir_locks_removed = 0;
  uint32_t dir_locks_broken = 0;    // by the next run's st_forced_lock
  uint32_t merges_left = 0;         // ".merge" files of killed runs (they stay)
  uint32_t duplicate_kills = 0;     // kills after which an event was held twice
  uint32_t empty_locks = 0;         // stale lock files without their owner's text
  std::vector<std::string> failures;
};

class killtest {
 public:
  explicit killtest(const options& o) : o_(o), rng_(o.seed) {}

  int run() {
    const double start = now_s();
    uint32_t bucket_seed = o_.seed * 1000;
    while (t_.kills < o_.kills && t_.failures.empty() && stop_signal == 0) {
      if (!one_bucket(bucket_seed++)) break;
    }
    report(now_s() - start);
    return t_.failures.empty() ? 0 : 1;
  }

 private:
  void fail(const std::string& what) {
    t_.failures.push_back(what);
    fprintf(stderr, "FAILED: %s\n", what.c_str());
  }

  std::string bin(const std::string& name) const { return o_.bin_dir + "/" + name; }

  // Checks the bucket against the original postings. An event may be held
  // by two files only when the kill fell between a move and the removal of
  // its sources (duplicates_allowed), or when such a kill earlier left it so.
  bool verify(const std::string& dir, bool duplicates_allowed, const std::string& when, bool* had_dups) {
    bucket_state s = read_bucket(dir);
    bool ok = true;
    for (const auto& p : s.problems) {
      fail(when + ": " + p + " does not read back");
      ok = false;
    }
    uint32_t lost = 0;
    for (const auto& p : original_) {
      if (s.postings.count(p) == 0) ++lost;
    }
    if (lost > 0) {
      fail(when + ": " + std::to_string(lost) + " postings lost");
      ok = false;
    }
    uint32_t fresh = 0;
    for (const auto& [k, n] : s.holders) {
      if (n < 2 || allowed_dups_.count(k) != 0) continue;
      ++fresh;
      if (duplicates_allowed) allowed_dups_.insert(k);
    }
    if (had_dups != nullptr) *had_dups = fresh > 0;
    if (fresh > 0 && !duplicates_allowed) {
      fail(when + ": " + std::to_string(fresh) + " events held by two files");
      ok = false;
    }
    return ok;
  }

  // Where the kill fell, from what the killed run left:
  // - an intermediate that is also linked under a final name: the move had
  //   begun (the link is made before the old name goes), so the sources are
  //   all still there: between the move and the removal;
  // - an intermediate alone: during the merge;
  // - a locked source whose every value is in a file that this run made:
  //   the merged file is in place and the source not yet removed: between;
  // - locked sources otherwise: locked, intermediate not yet created: before;
  // - locks of sources that are gone: removed, not yet unlocked: after;
  // - nothing: between passes, listing, or exiting: before (the next merge).
  kill_phase classify(const std::string& dir, const leftovers& l, const std::vector<std::string>& added) {
    for (const auto& m : l.merges) {
      struct stat ms;
      if (stat((dir + "/" + m).c_str(), &ms) != 0) continue;
      for (const auto& n : index_files(dir)) {
        struct stat fs;
        if (stat((dir + "/" + n).c_str(), &fs) == 0 && fs.st_ino == ms.st_ino) return BETWEEN_MOVE_AND_REMOVAL;
      }
    }
    if (!l.merges.empty()) return DURING_MERGE;
    if (l.locked_existing > 0) {
      bucket_state s = read_bucket(dir);
      for (const auto& lock : l.source_locks) {
        const std::string src = lock.substr(0, lock.size() - 5);
        auto sv = s.values.find(src);
        if (sv == s.values.end()) continue;
        for (const auto& a : added) {
          // (A file that an earlier pass of the same run made can itself be
          // a locked source of the pass that was killed.)
          if (a == src) continue;
          const auto& av = s.values[a];
          if (std::includes(av.begin(), av.end(), sv->second.begin(), sv->second.end()))
            return BETWEEN_MOVE_AND_REMOVAL;
        }
      }
      return BEFORE_MERGE;
    }
    if (!l.source_locks.empty()) return AFTER_REMOVAL;
    return BEFORE_MERGE;
  }

  // Removes the lock files of dead owners (the operator's clean-up before
  // the next run), except the directory lock when keep_dir_lock.
  void clean_locks(const std::string& dir, const leftovers& l, bool keep_dir_lock) {
    for (const auto& n : l.source_locks) {
      if (unlink((dir + "/" + n).c_str()) == 0) t_.source_locks_removed++;
    }
    if (l.dir_lock && !keep_dir_lock) {
      if (unlink((dir + ".lock").c_str()) == 0) t_.dir_locks_removed++;
    }
  }

  std::vector<std::string> optimize_argv(const std::string& dir) const {
    return {bin("tarnix-optimize"), "-d", dir, "-s", "4"};
  }

  // One bucket: generate it, then kill runs until one completes.
  bool one_bucket(uint32_t seed) {
    const std::string dir = o_.work + "/bucket-" + std::to_string(seed);
    remove_tree(dir);
    unlink((dir + ".lock").c_str());
    mkdir(dir.c_str(), 0700);
    pid_t ix = spawn({bin("tarnix-index"), "--generate", std::to_string(o_.events), "--seed",
                      std::to_string(seed), "-d", dir, "--max-values", std::to_string(o_.max_values), "-q"});
    int st = wait_status(ix);
    if (!WIFEXITED(st) || WEXITSTATUS(st) != 0) {
      fail("tarnix-index failed in " + dir);
      return false;
    }
    bucket_state orig = read_bucket(dir);
    if (!orig.problems.empty() || orig.postings.empty()) {
      fail("generated bucket " + dir + " does not read back");
      return false;
    }
    original_ = std::move(orig.postings);
    allowed_dups_.clear();
    t_.buckets++;

    // How long an unhindered run takes, on a copy: kill moments are drawn
    // from that span (plus a little, so some runs end before their kill).
    double span = calibrate(dir);
    for (;;) {
      if (t_.kills >= o_.kills) break;
      std::set<std::string> before = index_files(dir);
      std::uniform_real_distribution<double> delay(0.0, span * 1.1);
      const double d = delay(rng_);
      pid_t pid = spawn(optimize_argv(dir));
      usleep(static_cast<useconds_t>(d * 1e6));
      kill(pid, SIGKILL);
      st = wait_status(pid);
      if (!(WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL)) {
        // The run ended before its kill moment: it must have succeeded.
        t_.completed_runs++;
        if (!WIFEXITED(st) || WEXITSTATUS(st) != 0) fail("a run that was not killed failed");
        verify(dir, false, "after a complete run", nullptr);
        break;
      }
      t_.kills++;
      const std::string when = "kill " + std::to_string(t_.kills);
      leftovers l = find_leftovers(dir, pid);
      std::set<std::string> after = index_files(dir);
      std::vector<std::string> added;
      for (const auto& n : after) {
        if (before.count(n) == 0) added.push_back(n);
      }
      bool dups = false;
      const kill_phase phase = classify(dir, l, added);
      t_.phase[phase]++;
      verify(dir, phase == BETWEEN_MOVE_AND_REMOVAL, when + " (" + PHASE_NAMES[phase] + ")", &dups);
      if (dups) t_.duplicate_kills++;
      t_.merges_left += static_cast<uint32_t>(l.merges.size());
      t_.empty_locks += l.empty_locks;
      if (o_.verbose) {
        fprintf(stderr, "%s after %.1f ms: %s; %zu new files, %zu stale source locks%s%s\n", when.c_str(),
                d * 1e3, PHASE_NAMES[phase], added.size(), l.source_locks.size(),
                l.dir_lock ? ", stale directory lock" : "", dups ? ", events held twice" : "");
      }
      if (getenv("KILLTEST_DEBUG") != nullptr) {
        for (const auto& n : list_dir(dir)) {
          if (!is_index_name(n)) fprintf(stderr, "    %s: %s\n", n.c_str(), read_text(dir + "/" + n).c_str());
        }
        fprintf(stderr, "    dir lock: %s\n", read_text(dir + ".lock").c_str());
      }
      if (!t_.failures.empty()) return false;

      const bool design_break = l.dir_lock && t_.dir_locks_broken < o_.design_breaks;
      clean_locks(dir, l, design_break);
      if (design_break) {
        // The next run meets the dead process's directory lock: it waits
        // its 10 seconds, breaks the lock and goes on to the end.
        // (A lock made in the same second as the run starts counts as
        // fresh for a whole further wait: the times compare in seconds.)
        sleep(1);
        const double t0 = now_s();
        pid_t next = spawn(optimize_argv(dir));
        st = wait_status(next);
        const double took = now_s() - t0;
        if (!WIFEXITED(st) || WEXITSTATUS(st) != 0) {
          fail(when + ": the run after it did not complete over the stale directory lock");
          return false;
        }
        // The wait is counted in whole seconds of the clock: 9 to 10 s.
        if (took < 8.5) fail(when + ": the stale directory lock was broken before the 10 s wait");
        if (access((dir + ".lock").c_str(), F_OK) == 0) fail(when + ": directory lock still there");
        t_.dir_locks_broken++;
        t_.completed_runs++;
        if (o_.verbose) fprintf(stderr, "%s: the next run broke the directory lock after %.1f s\n",
                                when.c_str(), took);
        verify(dir, false, when + ", after the run that broke the lock", nullptr);
        break;
      }
    }
    // Whatever the last kill left, a run to the end completes and keeps
    // every event.
    leftovers l = find_leftovers(dir, 0);
    clean_locks(dir, l, false);
    pid_t last = spawn(optimize_argv(dir));
    st = wait_status(last);
    if (!WIFEXITED(st) || WEXITSTATUS(st) != 0) fail("the closing run of " + dir + " failed");
    t_.completed_runs++;
    verify(dir, false, "after the closing run of " + dir, nullptr);
    remove_tree(dir);
    return t_.failures.empty();
  }

  double calibrate(const std::string& dir) {
    const std::string copy = dir + "-calibration";
    remove_tree(copy);
    mkdir(copy.c_str(), 0700);
    for (const auto& n : index_files(dir)) {
      std::string text = read_text(dir + "/" + n);
      int fd = open((copy + "/" + n).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
      if (fd >= 0) {
        (void)!write(fd, text.data(), text.size());
        close(fd);
      }
    }
    const double t0 = now_s();
    wait_status(spawn(optimize_argv(copy)));
    const double took = now_s() - t0;
    remove_tree(copy);
    return took > 0.001 ? took : 0.001;
  }

  void report(double seconds) {
    printf("kills: %u in %u buckets (%.0f s)\n", t_.kills, t_.buckets, seconds);
    for (int p = 0; p < PHASES; ++p) printf("  %-26s %u\n", PHASE_NAMES[p], t_.phase[p]);
    printf("kills that left an event in two files: %u\n", t_.duplicate_kills);
    printf("runs that completed: %u\n", t_.completed_runs);
    printf("stale locks of killed runs: %u source locks removed by the operator, %u directory locks "
           "removed by the operator, %u broken by the next run after its 10 s wait\n",
           t_.source_locks_removed, t_.dir_locks_removed, t_.dir_locks_broken);
    printf("  (of them %u empty: the run was killed between creating a lock file and writing its text)\n",
           t_.empty_locks);
    printf("intermediate files left by killed runs: %u\n", t_.merges_left);
    if (stop_signal != 0) printf("stopped by signal %d before its %u kills\n", static_cast<int>(stop_signal), o_.kills);
    printf("result: %s\n", t_.failures.empty() ? "OK" : "FAILED");
    for (const auto& f : t_.failures) printf("  %s\n", f.c_str());
  }

  options o_;
  std::mt19937 rng_;
  tally t_;
  std::set<posting> original_;
  std::set<value_key> allowed_dups_;  // events a kill between move and removal left in two files
};

bool parse_u32(const char* s, uint32_t* out) {
  if (s == nullptr || *s < '0' || *s > '9') return false;
  char* end = nullptr;
  unsigned long v = strtoul(s, &end, 10);
  if (*end != '\0' || v > 0xFFFFFFFFul) return false;
  *out = static_cast<uint32_t>(v);
  return true;
}

}  // namespace

static int tool_main(int argc, char** argv) {
  options o;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
    bool ok = true;
    if (a == "--kills") {
      ok = parse_u32(v, &o.kills), ++i;
    } else if (a == "--seed") {
      ok = parse_u32(v, &o.seed), ++i;
    } else if (a == "--events") {
      ok = parse_u32(v, &o.events), ++i;
    } else if (a == "--max-values") {
      ok = parse_u32(v, &o.max_values) && o.max_values > 0, ++i;
    } else if (a == "--design-breaks") {
      ok = parse_u32(v, &o.design_breaks), ++i;
    } else if (a == "--work") {
      ok = v != nullptr, o.work = v ? v : "", ++i;
    } else if (a == "--bin-dir") {
      ok = v != nullptr, o.bin_dir = v ? v : "", ++i;
    } else if (a == "-v") {
      o.verbose = true;
    } else if (a == "--help") {
      return tools::print_help("tarnix-killtest", USAGE);
    } else {
      ok = false;
    }
    if (!ok) {
      fprintf(stderr, "tarnix-killtest: bad option %s\n%s", a.c_str(), USAGE);
      return 2;
    }
  }
  if (o.bin_dir.empty()) {
    char self[4096] = {};
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    std::string s = n > 0 ? std::string(self, static_cast<size_t>(n)) : std::string(argv[0]);
    o.bin_dir = s.substr(0, s.rfind('/'));
  }
  for (const char* p : {"tarnix-index", "tarnix-optimize"}) {
    if (access((o.bin_dir + "/" + p).c_str(), X_OK) != 0) {
      fprintf(stderr, "tarnix-killtest: %s/%s not found\n", o.bin_dir.c_str(), p);
      return 2;
    }
  }
  bool own_work = o.work.empty();
  if (own_work) {
    const char* base = getenv("TMPDIR");
    std::string tmpl = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/tarnix-killtest-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) {
      fprintf(stderr, "tarnix-killtest: cannot create a work directory\n");
      return 2;
    }
    o.work = buf.data();
  } else if (mkdir(o.work.c_str(), 0700) != 0 && errno != EEXIST) {
    fprintf(stderr, "tarnix-killtest: cannot create %s: %s\n", o.work.c_str(), strerror(errno));
    return 2;
  }
  // A setup fault, not a failed check: the buckets could not be made there.
  struct stat st;
  if (stat(o.work.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    fprintf(stderr, "tarnix-killtest: %s is not a directory\n", o.work.c_str());
    return 2;
  }
  struct sigaction stop {};
  stop.sa_handler = request_stop;
  sigemptyset(&stop.sa_mask);
  stop.sa_flags = SA_RESTART;
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &stop, nullptr);
  int rc = killtest(o).run();
  if (own_work) remove_tree(o.work);
  if (stop_signal != 0) {
    fflush(stdout);
    signal(stop_signal, SIG_DFL);
    raise(stop_signal);
  }
  return rc;
}

int main(int argc, char** argv) {
  return tools::run_guarded("tarnix-killtest", [&] { return tool_main(argc, argv); });
}
