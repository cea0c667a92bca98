// The report on a bucket directory: every index file checked, the files of
// unfinished work (intermediates, flushes, part files, locks) listed, the
// sizes summarised, the next optimize pass predicted, and optionally the
// number of distinct terms over all index files, counted by a streaming
// k-way merge of their lexicons.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <queue>
#include <signal.h>

#include "check.h"

namespace tarnix::inspect {

namespace {

// Constants of the optimizer's normal-mode pass.
constexpr int64_t CANDIDATE_SIZE_LIMIT = 786432000;
constexpr uint32_t CANDIDATE_COUNT_LIMIT = 10000;
constexpr int64_t SMALL_FILE = 1048576;
constexpr int64_t GROUP_BYTE_LIMIT = 1572864000;
constexpr uint32_t LARGEST_GROUP = 32;
constexpr uint32_t MIN_SRC_COUNT = 8;
// Lexicons merged at once; more are merged in rounds through temporary files.
constexpr size_t MERGE_FAN_IN = 256;

bool ends_with(const std::string& s, const char* suffix) {
  const size_t n = strlen(suffix);
  return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

// "%d-%d-%llu.tsidx", as the optimizer reads index-file names.
bool is_index_name(const std::string& name) {
  if (name.size() < 6 || !ends_with(name, ".tsidx")) return false;
  int a, b;
  unsigned long long id;
  return sscanf(name.c_str(), "%d-%d-%llu.tsidx", &a, &b, &id) == 3;
}

// ---- distinct terms ---------------------------------------------------------------

class term_source {
 public:
  virtual ~term_source() = default;
  // 1 with a term (valid until the next call), 0 at the end, -1 on damage.
  virtual int next(std::string_view* t) = 0;
};

class lex_source : public term_source {
 public:
  bool open(const std::string& path, uint64_t lex_off) {
    int e;
    if (!in_.open(path, &e)) return false;
    lex_layout lay;
    issue why;
    if (!read_lex_layout(in_.fd(), in_.size(), lex_off, 0, &lay, &why)) return false;
    w_.open(in_.fd(), lay);
    return true;
  }
  int next(std::string_view* t) override { return w_.next(t); }

 private:
  input_file in_;
  lex_walker w_;
};

// A run of distinct ascending terms in a temporary file: a 4-byte length,
// then the bytes, per term.
class run_source : public term_source {
 public:
  explicit run_source(FILE* f) : f_(f) {
    fflush(f_);
    const long end = ftell(f_);
    r_.open(fileno(f_), 0, end < 0 ? 0 : static_cast<uint64_t>(end), 8192);
  }
  ~run_source() override { fclose(f_); }
  int next(std::string_view* t) override {
    uint32_t len;
    if (r_.left() == 0) return 0;
    if (!r_.get_be32(&len) || len > LEX_TERM_MAX || !r_.get_bytes(buf_, len)) return -1;
    *t = std::string_view(buf_, len);
    return 1;
  }

 private:
  FILE* f_;
  seq_reader r_;
  char buf_[LEX_TERM_BUF];
};

// Merges the sources; calls out(term) once per distinct term in order.
// False when a source failed.
template <typename Out>
bool merge_sources(std::vector<std::unique_ptr<term_source>>& srcs, Out out) {
  struct head {
    std::string_view term;
    size_t src;
  };
  auto later = [](const head& a, const head& b) { return a.term > b.term; };
  std::priority_queue<head, std::vector<head>, decltype(later)> q(later);
  for (size_t i = 0; i < srcs.size(); ++i) {
    std::string_view t;
    const int r = srcs[i]->next(&t);
    if (r < 0) return false;
    if (r == 1) q.push({t, i});
  }
  std::string last;
  bool any = false;
  while (!q.empty()) {
    head h = q.top();
    q.pop();
    if (!any || h.term != last) {
      last.assign(h.term);
      any = true;
      out(std::string_view(last));
    }
    std::string_view t;
    const int r = srcs[h.src]->next(&t);
    if (r < 0) return false;
    if (r == 1) q.push({t, h.src});
  }
  return true;
}

struct lex_ref {
  std::string path;
  uint64_t offset;
};

// Distinct terms over the lexicons; false when one could not be read.
bool count_distinct(const std::vector<lex_ref>& lexicons, uint64_t* count) {
  std::vector<FILE*> runs;
  auto open_lex = [&](const lex_ref& l) -> std::unique_ptr<term_source> {
    auto s = std::make_unique<lex_source>();
    if (!s->open(l.path, l.offset)) return nullptr;
    return s;
  };
  // First round: lexicons in groups, each group to a run unless one group suffices.
  std::vector<std::unique_ptr<term_source>> group;
  if (lexicons.size() <= MERGE_FAN_IN) {
    for (const lex_ref& l : lexicons) {
      auto s = open_lex(l);
      if (!s) return false;
      group.push_back(std::move(s));
    }
    *count = 0;
    return merge_sources(group, [&](std::string_view) { ++*count; });
  }
  auto write_run = [&](std::vector<std::unique_ptr<term_source>>& g) -> bool {
    FILE* f = tmpfile();
    if (f == nullptr) return false;
    bool ok = merge_sources(g, [&](std::string_view t) {
      uint8_t len[4];
      store_be32(len, static_cast<uint32_t>(t.size()));
      fwrite(len, 1, 4, f);
      fwrite(t.data(), 1, t.size(), f);
    });
    if (ferror(f)) ok = false;
    if (!ok) {
      fclose(f);
      return false;
    }
    runs.push_back(f);
    g.clear();
    return true;
  };
  for (size_t i = 0; i < lexicons.size(); ++i) {
    auto s = open_lex(lexicons[i]);
    if (!s) return false;
    group.push_back(std::move(s));
    if (group.size() == MERGE_FAN_IN || i + 1 == lexicons.size()) {
      if (!write_run(group)) return false;
    }
  }
  // Further rounds over the runs.
  while (true) {
    std::vector<FILE*> cur;
    cur.swap(runs);
    std::vector<std::unique_ptr<term_source>> g;
    for (size_t i = 0; i < cur.size(); ++i) g.push_back(std::make_unique<run_source>(cur[i]));
    if (g.size() <= MERGE_FAN_IN) {
      *count = 0;
      return merge_sources(g, [&](std::string_view) { ++*count; });
    }
    std::vector<std::unique_ptr<term_source>> part;
    for (size_t i = 0; i < g.size(); ++i) {
      part.push_back(std::move(g[i]));
      if (part.size() == MERGE_FAN_IN || i + 1 == g.size()) {
        if (!write_run(part)) return false;
      }
    }
  }
}

// ---- other entries ----------------------------------------------------------------

std::string host_name() {
  char h[256] = {0};
  if (gethostname(h, sizeof(h) - 1) != 0) return "";
  return h;
}

lock_info read_lock(const std::string& dir, const std::string& name, time_t now) {
  lock_info li;
  li.name = name;
  const std::string path = dir + "/" + name;
  struct stat st;
  if (stat(path.c_str(), &st) == 0) li.age_s = static_cast<int64_t>(now - st.st_ctime);
  input_file in;
  int e;
  li.owner = "unknown";
  if (!in.open(path, &e)) return li;
  char text[256] = {0};
  const int64_t n = pread_full(in.fd(), text, sizeof(text) - 1, 0);
  if (n <= 0) return li;
  text[n] = '\0';
  char* nl = strchr(text, '\n');
  if (nl == nullptr) return li;
  *nl = '\0';
  char* endp = nullptr;
  li.pid = strtol(text, &endp, 10);
  if (endp == text || *endp != '\0') return li;
  li.host = nl + 1;
  if (li.host == host_name() && li.pid > 0) {
    li.owner = (kill(static_cast<pid_t>(li.pid), 0) == 0 || errno == EPERM) ? "running" : "not running";
  }
  return li;
}

}  // namespace

uint32_t next_pass_group(std::vector<int64_t> s, uint32_t min_src_count) {
  std::sort(s.begin(), s.end());
  const size_t n = s.size();
  if (n < 2) return 0;
  size_t i = 0;
  while (true) {
    size_t j = i;
    while (j + 1 < n && !(2 * s[j] > s[j + 1] || s[j + 1] <= SMALL_FILE - 1)) ++j;
    if (j + 1 >= n) return 0;
    int64_t total = s[j] + s[j + 1];
    uint32_t members = 2;
    for (size_t k = j + 2; k < n && members < LARGEST_GROUP; ++k) {
      if (s[k] > SMALL_FILE && s[k] > total) break;
      total += s[k];
      if (total > GROUP_BYTE_LIMIT) break;
      ++members;
    }
    if (members >= min_src_count) return members;
    i = j + 2;
  }
}

void check_bucket(const std::string& dir, bool count_terms, bucket_report* rep) {
  rep->path = dir;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) {
    rep->open_errno = errno;
    return;
  }
  rep->opened = true;
  std::vector<std::string> names;
  while (dirent* e = readdir(d)) {
    if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
    names.emplace_back(e->d_name);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  const time_t now = time(nullptr);
  std::vector<int64_t> candidates;
  std::vector<lex_ref> lexicons;
  // (device, inode) of every index file, to tell a flush's leftover name
  // from a flush whose file never reached its final name.
  std::map<std::pair<dev_t, ino_t>, std::string> index_inodes;
  std::vector<std::pair<dev_t, ino_t>> pre_inodes;
  for (const std::string& name : names) {
    const std::string path = dir + "/" + name;
    struct stat st;
    if (stat(path.c_str(), &st) != 0) continue;
    if (!S_ISREG(st.st_mode)) {
      // The optimizer goes by names and sizes: it would take this entry as a
      // source, fail to read it and leave its whole group locked.
      // A merged lexicon's name taken by something else keeps the lexicon
      // tools from ever writing or reading the real one.
      const bool lexicon = name == "merged_lexicon.lex" || name == "filtered_merged_lexicon.lex";
      if ((is_index_name(name) && st.st_size > 0) || lexicon) {
        file_report fr;
        fr.path = path;
        fr.errors = 1;
        fr.issues.push_back(issue{"file", "type", lexicon ? "a regular lexicon file" : "a regular index file",
                                  S_ISDIR(st.st_mode) ? "a directory" : "not a regular file"});
        rep->files.push_back(std::move(fr));
      }
      continue;
    }
    const uint64_t sz = static_cast<uint64_t>(st.st_size);
    entry_info ei{name, sz, static_cast<int64_t>(now - st.st_mtime), ""};
    if (ends_with(name, ".tsidx")) {
      index_inodes.emplace(std::make_pair(st.st_dev, st.st_ino), name);
      file_report fr;
      check_file(path, &fr);
      if (fr.lexicon_only) {
        // Sound as a lexicon, but the optimizer refuses it as a source (-13)
        // and leaves its whole group locked.
        ++fr.errors;
        fr.issues.push_back(issue{"file", "magic", "an index file under an index file's name", "a lexicon-only file"});
      }
      ++rep->index_files;
      rep->bytes += sz;
      if (fr.header_ok) rep->events += fr.num_values;
      if (fr.lexicon_ok) lexicons.push_back({path, fr.lexicon_offset});
      rep->files.push_back(std::move(fr));
      uint32_t cls = 0;
      for (uint64_t v = sz; v > 1; v >>= 1) ++cls;
      if (rep->size_classes.size() <= cls) rep->size_classes.resize(cls + 1, 0);
      ++rep->size_classes[cls];
      struct stat lk;
      const bool locked = stat((path + ".lock").c_str(), &lk) == 0;
      if (is_index_name(name) && !locked && sz > 0 && static_cast<int64_t>(sz) <= CANDIDATE_SIZE_LIMIT &&
          candidates.size() < CANDIDATE_COUNT_LIMIT)
        candidates.push_back(static_cast<int64_t>(sz));
    } else if (name == "merged_lexicon.lex" || name == "filtered_merged_lexicon.lex") {
      file_report fr;
      check_file(path, &fr);
      rep->files.push_back(std::move(fr));
    } else if (ends_with(name, ".lock")) {
      rep->locks.push_back(read_lock(dir, name, now));
    } else if (ends_with(name, ".merge")) {
      rep->intermediates.push_back(ei);
    } else if (ends_with(name, ".pre-tsidx")) {
      rep->pre_tsidx.push_back(ei);
      pre_inodes.emplace_back(st.st_dev, st.st_ino);
    } else if (ends_with(name, ".part-tsidx")) {
      rep->part_files.push_back(ei);
    } else if (ends_with(name, ".tsidx.deleted")) {
      rep->delete_markers.push_back(ei);
    } else if (name == "tarnix-need-optimize.dat") {
      rep->need_optimize = true;
    } else if (name == "optimize.result") {
      rep->optimize_result = true;
    } else if (name == "tarnix-autogen-params.dat") {
      input_file in;
      int e;
      if (in.open(path, &e)) {
        char text[256] = {0};
        const int64_t n = pread_full(in.fd(), text, sizeof(text) - 1, 0);
        if (n > 0) rep->params.assign(text, static_cast<size_t>(n));
      }
    }
  }
  for (size_t k = 0; k < pre_inodes.size(); ++k) {
    auto same = index_inodes.find(pre_inodes[k]);
    if (same != index_inodes.end()) rep->pre_tsidx[k].in_place_as = same->second;
  }
  rep->candidates = static_cast<uint32_t>(candidates.size());
  rep->next_pass = next_pass_group(candidates, MIN_SRC_COUNT);
  if (count_terms) {
    uint64_t n = 0;
    if (lexicons.empty() || count_distinct(lexicons, &n)) {
      rep->terms_counted = true;
      rep->distinct_terms = n;
    }
  }
}

}  // namespace tarnix::inspect
