// tarnix-index: builds a bucket directory of index files from events, one
// event a line, or from synthetic events. Each flush of the in-memory slice
// writes one ".tsidx" file into the directory; a bad line stops the run with
// a one-line error, and the files flushed before it stay valid.
#include <dirent.h>
#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "generate.h"
#include "common/args.h"
#include "searchthing/hotslice.h"
#include "searchthing/lock.h"
#include "searchthing/result.h"
#include "searchthing/tsidx.h"

namespace {

constexpr int EXIT_INPUT = 1;

// The signal that asked the run to stop (SIGINT, SIGTERM, SIGHUP), or 0.
volatile sig_atomic_t stop_signal = 0;

void request_stop(int sig) { stop_signal = sig; }

const char* stop_name() {
  return stop_signal == SIGINT ? "stopped by SIGINT" : stop_signal == SIGTERM ? "stopped by SIGTERM" : "stopped by SIGHUP";
}
using tools::EXIT_USAGE;
using tools::parse_u64;
constexpr uint64_t PROGRESS_EVERY = 4096;   // events between looks at the clock
constexpr uint64_t MAX_GENERATE = 2000000000;

constexpr const char USAGE[] =
    "usage: tarnix-index -d DIR [options] [FILE|-]\n"
    "       tarnix-index -d DIR [options] --generate N [--seed S]\n"
    "       tarnix-index --generate N [--seed S] [--streaming] --emit-events\n"
    "\n"
    "Indexes events into the bucket directory DIR: each flush of the in-memory\n"
    "slice writes one \".tsidx\" file there. Events are read from FILE (standard\n"
    "input when it is \"-\" or missing), one a line, fields separated by tabs:\n"
    "  timestamp  event_address  event_type  source  source_type  host  terms\n"
    "where timestamp is a signed 32-bit number of seconds, event_address an\n"
    "unsigned 32-bit number, the next four are numbers below 2147483648 (an\n"
    "attribute column holds at most 31 bits; source 4294967295 marks deleted\n"
    "events and is refused), and terms are one or more terms separated by\n"
    "single spaces. Lines may end in CR LF. Each line is an event of its own,\n"
    "also when its event_address is one an earlier line had.\n"
    "\n"
    "options:\n"
    "  -d DIR               bucket directory (must exist)\n"
    "  --max-values N       events per slice (default 16384)\n"
    "  --max-terms N        distinct terms per slice (default 16384)\n"
    "  --max-term-chars N   bytes of distinct terms per slice (default 16384)\n"
    "  --max-postings N     (term, event) pairs per slice (default 16384)\n"
    "  --streaming          events come in time order (checked): timestamps never\n"
    "                       decrease, and equal timestamps have increasing addresses\n"
    "  --generate N         index N synthetic log-like events instead of reading\n"
    "  --seed S             seed of the synthetic events (default 1)\n"
    "  --tokens MIN-MAX     text tokens of a synthetic event beside its three field\n"
    "                       terms (default 4-14; at most 1000)\n"
    "  --emit-events        print the synthetic events in the input format instead\n"
    "                       of indexing them\n"
    "  -q                   no progress or summary on standard error\n"
    "  --help               this text\n"
    "\n"
    "A run that stops early (a bad line, a failed flush, memory that runs out,\n"
    "SIGINT, SIGTERM or SIGHUP) says from which line on nothing is indexed.\n"
    "Exit status: 0 done, 1 bad input, a failed flush or no memory, 2 usage\n"
    "error; stopped by a signal: the signal's status (130, 143, 129).\n";

struct options {
  const char* dir = nullptr;
  const char* input = nullptr;
  uint64_t max_values = tarnix::ST_TSIDX_DEFAULT_LIMIT;
  uint64_t max_terms = tarnix::ST_TSIDX_DEFAULT_LIMIT;
  uint64_t max_term_chars = tarnix::ST_TSIDX_DEFAULT_LIMIT;
  uint64_t max_postings = tarnix::ST_TSIDX_DEFAULT_LIMIT;
  bool streaming = false;
  bool quiet = false;
  bool generate = false;
  uint64_t generate_count = 0;
  uint64_t seed = 1;
  uint32_t min_tokens = tarnix_index::DEFAULT_MIN_TOKENS;
  uint32_t max_tokens = tarnix_index::DEFAULT_MAX_TOKENS;
  bool tokens_given = false;
  bool emit = false;
};

[[noreturn]] void usage_error(const char* fmt, const char* arg) { tools::usage_exit("tarnix-index", fmt, arg); }

options parse_args(int argc, char** argv) {
  options o;
  auto value = [&](int* i) -> const char* {
    if (*i + 1 >= argc) usage_error("%s needs a value", argv[*i]);
    return argv[++*i];
  };
  auto number = [&](int* i, uint64_t min, uint64_t max = UINT64_MAX) {
    const char* name = argv[*i];
    const char* v = value(i);
    uint64_t n;
    if (!parse_u64(v, &n)) usage_error("not a number: \"%s\"", v);
    if (n < min) usage_error("%s must be at least 1", name);
    if (n > max) usage_error("%s must be at most 4294967295", name);
    return n;
  };
  for (int i = 1; i < argc; ++i) {
    std::string_view a = argv[i];
    if (a == "--help" || a == "-h") {
      exit(tools::print_help("tarnix-index", USAGE));
    } else if (a == "-d") {
      o.dir = value(&i);
    } else if (a == "--max-values") {
      o.max_values = number(&i, 1, UINT32_MAX);
    } else if (a == "--max-terms") {
      o.max_terms = number(&i, 1, UINT32_MAX);
    } else if (a == "--max-term-chars") {
      o.max_term_chars = number(&i, 1, UINT32_MAX);
    } else if (a == "--max-postings") {
      o.max_postings = number(&i, 1, UINT32_MAX);
    } else if (a == "--streaming") {
      o.streaming = true;
    } else if (a == "-q") {
      o.quiet = true;
    } else if (a == "--generate") {
      o.generate = true;
      o.generate_count = number(&i, 0);
      // Addresses and timestamps of the synthetic events are 32-bit.
      if (o.generate_count > MAX_GENERATE) usage_error("--generate takes at most %s events", "2000000000");
    } else if (a == "--seed") {
      o.seed = number(&i, 0);
    } else if (a == "--tokens") {
      // MIN-MAX, or N for exactly N.
      const char* v = value(&i);
      std::string_view text = v;
      const size_t dash = text.find('-');
      std::string lo(text.substr(0, dash));
      std::string hi(dash == std::string_view::npos ? lo : std::string(text.substr(dash + 1)));
      uint64_t min = 0, max = 0;
      if (!parse_u64(lo.c_str(), &min) || !parse_u64(hi.c_str(), &max) || min > max ||
          max > tarnix_index::MAX_TOKENS) {
        usage_error("--tokens takes MIN-MAX with MIN <= MAX <= 1000: \"%s\"", v);
      }
      o.min_tokens = static_cast<uint32_t>(min);
      o.max_tokens = static_cast<uint32_t>(max);
      o.tokens_given = true;
    } else if (a == "--emit-events") {
      o.emit = true;
    } else if (a == "-" || a.empty() || a[0] != '-') {
      if (o.input != nullptr) usage_error("more than one input: \"%s\"", argv[i]);
      o.input = argv[i];
    } else {
      usage_error("unknown option \"%s\"", argv[i]);
    }
  }
  if (o.emit && !o.generate) usage_error("%s needs --generate", "--emit-events");
  if (o.tokens_given && !o.generate) usage_error("%s needs --generate", "--tokens");
  if (o.generate && o.input != nullptr) usage_error("--generate takes no input file (\"%s\")", o.input);
  if (!o.emit && o.dir == nullptr) usage_error("%s", "no bucket directory (-d DIR)");
  return o;
}

double now_s() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
}

// ---- Input lines ---------------------------------------------------------------

bool parse_field_u32(std::string_view s, uint32_t* out) {
  if (s.empty() || s.size() > 10) return false;
  uint64_t v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<uint64_t>(c - '0');
  }
  if (v > UINT32_MAX) return false;
  *out = static_cast<uint32_t>(v);
  return true;
}

bool parse_field_i32(std::string_view s, int32_t* out) {
  bool neg = !s.empty() && s[0] == '-';
  if (neg) s.remove_prefix(1);
  if (s.empty() || s.size() > 10) return false;
  int64_t v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  if (neg) v = -v;
  if (v < INT32_MIN || v > INT32_MAX) return false;
  *out = static_cast<int32_t>(v);
  return true;
}

// An event of the input, its terms pointing into the line.
struct parsed_event {
  int32_t timestamp;
  uint32_t fields[5];   // event_address, event_type, source, source_type, host
  std::vector<std::string_view> terms;
};

// Empty string when the line is an event, else what is wrong with it.
std::string parse_line(std::string_view line, parsed_event* e) {
  static const char* const NAMES[] = {"timestamp", "event_address", "event_type", "source",
                                      "source_type", "host"};
  std::string_view f[7];
  size_t n = 0;
  size_t start = 0;
  for (;;) {
    size_t tab = line.find('\t', start);
    if (n == 6 || tab == std::string_view::npos) {
      f[n++] = line.substr(start);
      break;
    }
    f[n++] = line.substr(start, tab - start);
    start = tab + 1;
  }
  if (n < 7) {
    return "expected 7 tab-separated fields (timestamp, event_address, event_type, source, "
           "source_type, host, terms), found " + std::to_string(n);
  }
  if (!parse_field_i32(f[0], &e->timestamp)) {
    return "timestamp \"" + std::string(f[0]) + "\" is not a signed 32-bit number";
  }
  for (int i = 0; i < 5; ++i) {
    if (!parse_field_u32(f[1 + i], &e->fields[i])) {
      return std::string(NAMES[1 + i]) + " \"" + std::string(f[1 + i]) + "\" is not an unsigned 32-bit number";
    }
  }
  if (e->fields[2] == 0xFFFFFFFFu) return "source 4294967295 marks deleted events";
  for (int i = 1; i < 5; ++i) {
    if (e->fields[i] > 0x7FFFFFFFu) {
      return std::string(NAMES[1 + i]) + " \"" + std::string(f[1 + i]) + "\" is above 2147483647";
    }
  }
  std::string_view terms = f[6];
  if (terms.find('\t') != std::string_view::npos) return "a term holds a tab (more than 7 fields)";
  e->terms.clear();
  if (terms.empty()) return "the event has no terms";
  size_t pos = 0;
  for (;;) {
    size_t sp = terms.find(' ', pos);
    std::string_view t = terms.substr(pos, sp == std::string_view::npos ? std::string_view::npos : sp - pos);
    if (t.empty()) return "empty term " + std::to_string(e->terms.size() + 1) + " (terms are separated by single spaces)";
    if (t.find('\0') != std::string_view::npos) {
      return "term " + std::to_string(e->terms.size() + 1) + " holds a NUL byte";
    }
    e->terms.push_back(t);
    if (sp == std::string_view::npos) break;
    pos = sp + 1;
  }
  return "";
}

// ---- Indexing ---------------------------------------------------------------------

class indexer {
 public:
  indexer(const options& o, tarnix::tsidx* t) : o_(o), t_(t), start_(now_s()), last_report_(start_) {}

  // 0, or prints the error for line line_no and returns the exit status.
  int add(uint64_t line_no, int32_t ts, const uint32_t f[5], const std::vector<std::string_view>& terms) {
    if (o_.streaming && have_prev_ &&
        (ts < prev_ts_ || (ts == prev_ts_ && f[0] <= prev_addr_))) {
      return fail(line_no, "out of time order for --streaming: timestamp %d address %u after timestamp %d address %u",
                  ts, f[0], prev_ts_, prev_addr_);
    }
    // The slice takes a put whose address it already holds for more of that
    // event (an event's terms come one put each): a line that repeats the
    // address of an earlier line in the slice would be merged into it, its
    // own time and attributes lost. It is another event, so it goes into
    // the next file.
    forget_flushed_addresses();
    if (slice_addresses_.count(f[0]) != 0 && !flush_now()) return flush_failed(line_no);
    // A term given twice is stored once (also two that are the same once
    // cut to the longest term the slice keeps), so it is counted once.
    const std::vector<std::string_view>& own = unique_terms(terms);
    // An event goes into one file whole: split over two, its terms would
    // be found in neither file with all of them, and until both files met
    // in one merge the event would be counted twice. The empty term is a
    // probe that flushes a slice more than 7/8 full (and makes the slice);
    // a larger event than the eighth left can take is flushed for too.
    int r = tarnix::st_tsidx_put(t_, "", 0, ts, f[0], f[1], f[2], f[3], f[4]);
    if (r != 0) return put_failed(line_no, r, "");
    r = lacks_room(t_->hot_slice, own);
    if (r != 0 && tarnix::st_hot_slice_values(t_->hot_slice) != 0) {
      if (!flush_now()) return flush_failed(line_no);
      r = lacks_room(t_->hot_slice, own);
    }
    if (r != 0) return does_not_fit(line_no, r, nullptr);
    for (std::string_view term : own) {
      r = tarnix::st_tsidx_put(t_, term.data(), static_cast<uint32_t>(term.size()), ts, f[0], f[1], f[2],
                               f[3], f[4]);
      if (r != 0) return put_failed(line_no, r, term);
    }
    forget_flushed_addresses();
    if (slice_addresses_.empty()) {
      slice_first_line_ = line_no;
      slice_earliest_ = slice_latest_ = ts;
    }
    slice_last_line_ = line_no;
    slice_earliest_ = std::min(slice_earliest_, ts);
    slice_latest_ = std::max(slice_latest_, ts);
    slice_addresses_.insert(f[0]);
    have_prev_ = true;
    prev_ts_ = ts;
    prev_addr_ = f[0];
    ++events_;
    if (!o_.quiet && events_ % PROGRESS_EVERY == 0) {
      double now = now_s();
      if (now - last_report_ >= 1.0) {
        last_report_ = now;
        fprintf(stderr, "tarnix-index: %llu events, %.0f events/s, %llu files written\n",
                static_cast<unsigned long long>(events_), static_cast<double>(events_) / (now - start_),
                static_cast<unsigned long long>(files()));
      }
    }
    return 0;
  }

  // Flushes what is left. 0 or the exit status.
  int finish(uint64_t last_line) {
    if (pending() && !flush_now()) return flush_failed(last_line);
    if (!o_.quiet) {
      double secs = now_s() - start_;
      fprintf(stderr, "tarnix-index: %llu events indexed into %llu files in %.2f s\n",
              static_cast<unsigned long long>(events_), static_cast<unsigned long long>(files()), secs);
    }
    return 0;
  }

  // The run stopped before line next_line (a bad line, an event that cannot
  // be taken, a failed read, a stop request; `stopped` names the last):
  // what is left is flushed and a line says from where to go on, so that
  // running again neither loses nor doubles an event. When a slice was
  // lost its own line said which lines, and nothing is added.
  void finish_early(uint64_t next_line, const char* stopped = nullptr) {
    if (lost_slice_) return;
    if (pending() && !flush_now()) {
      (void)flush_failed(next_line);
      return;
    }
    const auto last = static_cast<unsigned long long>(next_line - 1);
    if (last == 0) {
      if (stopped != nullptr) fprintf(stderr, "tarnix-index: %s before line 1: nothing is indexed\n", stopped);
      return;
    }
    fprintf(stderr, "tarnix-index: %s%slines 1 to %llu are indexed into %s; go on from line %llu\n",
            stopped != nullptr ? stopped : "", stopped != nullptr ? ": " : "", last, o_.dir, last + 1);
  }

  // Memory ran out on line_no. Nothing is flushed: part of that line's
  // event may be in the slice.
  int out_of_memory(uint64_t line_no) {
    lost_slice_ = true;
    forget_flushed_addresses();
    if (slice_addresses_.empty()) return fail(line_no, "out of memory");
    return fail(line_no, "out of memory; the events of lines %llu to %llu were not written: index them again",
                static_cast<unsigned long long>(slice_first_line_), static_cast<unsigned long long>(slice_last_line_));
  }

 private:
  // Files written when a put found the slice full, and by the tool's own
  // flushes (before an event that would not fit, and at the end).
  uint64_t files() const { return t_->full_count + own_files_; }

  bool pending() const { return t_->hot_slice != nullptr && tarnix::st_hot_slice_values(t_->hot_slice) != 0; }

  // Writes the slice into a file of its own; false when that failed.
  bool flush_now() {
    if (tarnix::st_tsidx_sync(t_) != 0) return false;
    ++own_files_;
    return true;
  }

  // Empties the addresses of the slice once it was written to a file.
  void forget_flushed_addresses() {
    if (files() == slice_files_) return;
    slice_addresses_.clear();
    slice_files_ = files();
  }

  // The event's terms without repeats, in their order.
  const std::vector<std::string_view>& unique_terms(const std::vector<std::string_view>& terms) {
    unique_.clear();
    seen_terms_.clear();
    for (std::string_view t : terms) {
      if (seen_terms_.insert(t.substr(0, tarnix::HOT_MAX_TERM_LEN)).second) unique_.push_back(t);
    }
    return unique_;
  }

  // 0 when every put of the event's terms will find room in the slice, or
  // the "full" code (-1 terms, -2 values, -3 list nodes, -4 term bytes) of
  // the first that might not. A put checks the slice before it stores, the
  // values also after the event's own value went in.
  static int lacks_room(const tarnix::hot_slice* h, const std::vector<std::string_view>& terms) {
    const uint64_t n = terms.size();
    uint64_t bytes = 0;
    for (std::string_view t : terms) bytes += std::min<uint64_t>(t.size(), tarnix::HOT_MAX_TERM_LEN) + 1;
    if (h->term_count + n > h->term_capacity) return -1;
    if (tarnix::st_hot_slice_values(h) + (n > 1 ? 1u : 0u) >= h->value_capacity) return -2;
    if (h->nodes_used + n > h->list_node_capacity) return -3;
    if (h->term_bytes_used + bytes > h->term_bytes_capacity) return -4;
    return 0;
  }

  // The error line for line_no. Nothing on the way allocates: it also
  // reports that memory ran out.
  [[gnu::format(printf, 2, 3)]] static int fail(uint64_t line_no, const char* format, ...) {
    char what[2048];
    va_list ap;
    va_start(ap, format);
    vsnprintf(what, sizeof what, format, ap);
    va_end(ap);
    fprintf(stderr, "tarnix-index: line %llu: %s\n", static_cast<unsigned long long>(line_no), what);
    return EXIT_INPUT;
  }

  // Also says where the events of the slice that was lost are: the run
  // stops here, and whoever runs it again needs to know from which line on
  // (or which file still holds them) so that no event is lost or doubled.
  int flush_failed(uint64_t line_no) {
    lost_slice_ = true;
    const int rc = t_->wrc.warm_rc;
    const char* why = strerror(t_->wrc.warm_errno);
    const char* name = tarnix::st_rc_name(rc);
    if (slice_addresses_.empty()) {
      return fail(line_no, "writing an index file into %s failed: %s (%s)", o_.dir, name, why);
    }
    const auto first = static_cast<unsigned long long>(slice_first_line_);
    const auto last = static_cast<unsigned long long>(slice_last_line_);
    if (rc == tarnix::ST_EMOVE) {
      char file[PATH_MAX];
      return fail(line_no,
                  "writing an index file into %s failed: %s (%s); the events of lines %llu to %llu are in %s, not "
                  "yet under a \".tsidx\" name",
                  o_.dir, name, why, first, last, unmoved_file(file, sizeof file));
    }
    return fail(line_no,
                "writing an index file into %s failed: %s (%s); the events of lines %llu to %llu were not written: "
                "index them again",
                o_.dir, name, why, first, last);
  }

  // The ".pre-tsidx" file a failed move left: named by the slice's latest
  // and earliest times and a number of its own.
  const char* unmoved_file(char* out, size_t size) const {
    char head[32];
    const int head_len = snprintf(head, sizeof head, "%d-%d-", slice_latest_, slice_earliest_);
    int matches = 0;
    snprintf(out, size, "%s/%s*.pre-tsidx", o_.dir, head);
    if (DIR* d = opendir(o_.dir)) {
      while (dirent* e = readdir(d)) {
        std::string_view name = e->d_name;
        if (name.starts_with(std::string_view(head, static_cast<size_t>(head_len))) && name.ends_with(".pre-tsidx") &&
            ++matches == 1)
          snprintf(out, size, "%s/%s", o_.dir, e->d_name);
      }
      closedir(d);
    }
    if (matches > 1) snprintf(out, size, "%s/%s*.pre-tsidx", o_.dir, head);
    return out;
  }

  int put_failed(uint64_t line_no, int r, std::string_view term) {
    if (r == -6) return flush_failed(line_no);
    // No slice: the memory for one of the limits given could not be had.
    if (t_->hot_slice == nullptr) {
      return fail(line_no, "cannot make the in-memory slice: %s; lower the limits", tarnix::st_rc_name(r));
    }
    if (r == -1 || r == -2 || r == -3 || r == -4) {
      return does_not_fit(line_no, r, &term);
    }
    return fail(line_no, "cannot index the event: %s", tarnix::st_rc_name(r));
  }

  // The event, or one of its terms (its first 64 bytes shown), that no
  // empty slice could take.
  int does_not_fit(uint64_t line_no, int full_code, const std::string_view* term) {
    static const char* const WHAT[] = {"terms", "events", "postings", "term characters"};
    const char* limit = WHAT[-full_code - 1];
    if (term == nullptr) return fail(line_no, "the event does not fit an empty slice (%s); raise the limits", limit);
    return fail(line_no, "the term \"%.*s\" does not fit an empty slice (%s); raise the limits",
                static_cast<int>(std::min<size_t>(term->size(), 64)), term->data(), limit);
  }

  const options& o_;
  tarnix::tsidx* t_;
  double start_;
  double last_report_;
  uint64_t events_ = 0;
  uint64_t own_files_ = 0;
  bool lost_slice_ = false;  // a flush failed or memory ran out
  bool have_prev_ = false;
  int32_t prev_ts_ = 0;
  uint32_t prev_addr_ = 0;
  // Addresses of the events in the slice, and files() when it was made;
  // the lines and times of its events.
  std::unordered_set<uint32_t> slice_addresses_;
  uint64_t slice_files_ = 0;
  uint64_t slice_first_line_ = 0;
  uint64_t slice_last_line_ = 0;
  int32_t slice_earliest_ = 0;
  int32_t slice_latest_ = 0;
  std::vector<std::string_view> unique_;
  std::unordered_set<std::string_view> seen_terms_;
};

int emit_events(const options& o) {
  tarnix_index::event_generator gen(o.generate_count, o.seed, o.streaming, o.min_tokens, o.max_tokens);
  tarnix_index::event e;
  std::string out;
  auto written = [&] { return fwrite(out.data(), 1, out.size(), stdout) == out.size(); };
  auto failed = [] {
    fprintf(stderr, "tarnix-index: writing the events failed: %s\n", strerror(errno));
    return EXIT_INPUT;
  };
  while (gen.next(&e)) {
    out += tarnix_index::format_event(e);
    out += '\n';
    if (out.size() >= (1u << 20)) {
      if (!written()) return failed();
      out.clear();
    }
  }
  if (!written() || fflush(stdout) != 0) return failed();
  return 0;
}

int run_generated(const options& o, indexer* ix) {
  // In streaming mode the events come in time order.
  tarnix_index::event_generator gen(o.generate_count, o.seed, o.streaming, o.min_tokens, o.max_tokens);
  tarnix_index::event e;
  std::vector<std::string_view> terms;
  uint64_t n = 0;
  for (;;) {
    if (stop_signal != 0) {
      ix->finish_early(n + 1, stop_name());
      return EXIT_INPUT;
    }
    int r = 0;
    try {
      if (!gen.next(&e)) break;
      ++n;
      terms.assign(e.terms.begin(), e.terms.end());
      uint32_t f[5] = {e.event_address, e.event_type, e.source, e.source_type, e.host};
      r = ix->add(n, e.timestamp, f, terms);
    } catch (const std::bad_alloc&) {
      return ix->out_of_memory(n + 1);
    }
    if (r != 0) {
      ix->finish_early(n);
      return r;
    }
  }
  return ix->finish(n);
}

int run_input(const options& o, indexer* ix) {
  bool from_stdin = o.input == nullptr || strcmp(o.input, "-") == 0;
  FILE* in = from_stdin ? stdin : fopen(o.input, "re");
  if (in == nullptr) {
    fprintf(stderr, "tarnix-index: cannot open %s: %s\n", o.input, strerror(errno));
    return EXIT_INPUT;
  }
  char* buf = nullptr;
  size_t cap = 0;
  uint64_t line_no = 0;
  parsed_event e;
  int status = 0;
  uint64_t next_line = 0;  // the first line not indexed, after an error
  const char* stopped = nullptr;
  for (;;) {
    // A stop request ends the run between two lines (a read that waits
    // for input is interrupted by it).
    if (stop_signal != 0) {
      stopped = stop_name();
      status = EXIT_INPUT;
      next_line = line_no + 1;
      break;
    }
    errno = 0;
    ssize_t len = getline(&buf, &cap, in);
    if (len < 0 && stop_signal != 0) continue;
    if (len < 0) {
      // Also when getline could not make its buffer large enough: the
      // stream is then neither at its end nor marked failed.
      if (ferror(in) || !feof(in)) {
        next_line = line_no + 1;
        fprintf(stderr, "tarnix-index: line %llu: reading failed: %s\n",
                static_cast<unsigned long long>(line_no + 1), strerror(errno));
        status = EXIT_INPUT;
      }
      break;
    }
    ++line_no;
    std::string_view line(buf, static_cast<size_t>(len));
    if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    bool out_of_memory = false;
    try {
      std::string problem = parse_line(line, &e);
      if (!problem.empty()) {
        fprintf(stderr, "tarnix-index: line %llu: %s\n", static_cast<unsigned long long>(line_no), problem.c_str());
        status = EXIT_INPUT;
        next_line = line_no;
        break;
      }
      status = ix->add(line_no, e.timestamp, e.fields, e.terms);
    } catch (const std::bad_alloc&) {
      out_of_memory = true;
    }
    if (out_of_memory) {
      status = ix->out_of_memory(line_no);
      free(buf);
      if (!from_stdin) fclose(in);
      return status;
    }
    if (status != 0) {
      next_line = line_no;
      break;
    }
  }
  free(buf);
  if (!from_stdin) fclose(in);
  if (status != 0) {
    // What was read before the line that stopped the run is flushed: the
    // files stay valid and complete up to it.
    ix->finish_early(next_line, stopped);
    return status;
  }
  return ix->finish(line_no);
}

}  // namespace

static int tool_main(int argc, char** argv) {
  options o = parse_args(argc, argv);
  if (o.emit) return emit_events(o);

  tarnix::st_init();
  // Past a file-size limit a write fails (and the unfinished file is
  // removed) instead of the process being ended in the middle of it; a
  // reader of the progress lines that goes away only loses them (the
  // slice in memory would go with the process).
  signal(SIGXFSZ, SIG_IGN);
  signal(SIGPIPE, SIG_IGN);
  // A stop request flushes the slice in memory and says from which line on
  // to go on; the process then ends by the signal all the same. (No
  // SA_RESTART: a read waiting for input must return.)
  struct sigaction stop {};
  stop.sa_handler = request_stop;
  sigemptyset(&stop.sa_mask);
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &stop, nullptr);
  struct stat st;
  if (stat(o.dir, &st) != 0) {
    fprintf(stderr, "tarnix-index: %s: %s\n", o.dir, strerror(errno));
    return EXIT_INPUT;
  }
  if (!S_ISDIR(st.st_mode)) {
    fprintf(stderr, "tarnix-index: %s: not a directory\n", o.dir);
    return EXIT_INPUT;
  }
  tarnix::tsidx* t = tarnix::st_tsidx_open(o.dir, o.streaming ? tarnix::ST_OPEN_STREAMING : 0u, 0, 0);
  if (t == nullptr) {
    fprintf(stderr, "tarnix-index: out of memory\n");
    return EXIT_INPUT;
  }
  tarnix::st_tsidx_set_params(t, o.max_terms, o.max_term_chars, o.max_postings, o.max_values);
  indexer ix(o, t);
  int status = o.generate ? run_generated(o, &ix) : run_input(o, &ix);
  // Everything was flushed above (or failed to flush): nothing is left for
  // close to write.
  if (t->hot_slice != nullptr) tarnix::st_hot_slice_reset(t->hot_slice);
  (void)tarnix::st_tsidx_close(t);
  // Stopped early: the process ends by the signal, as it was asked to.
  if (stop_signal != 0 && status != 0) {
    signal(stop_signal, SIG_DFL);
    raise(stop_signal);
  }
  return status;
}

int main(int argc, char** argv) {
  return tools::run_guarded("tarnix-index", [&] { return tool_main(argc, argv); });
}
