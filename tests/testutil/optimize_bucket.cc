#include "testutil/optimize_bucket.h"

#include <algorithm>
#include <random>

#include "searchthing/tsidx.h"
#include "testutil/bucket_reader.h"
#include "testutil/testutil.h"

namespace testutil {

std::string write_slice(const std::string& dir, const std::vector<event>& events) {
  std::vector<std::string> before = tsidx_names(dir);
  tarnix::tsidx* t = tarnix::st_tsidx_open(dir.c_str(), 0, 0, 0);
  if (t == nullptr) return "";
  bool ok = true;
  for (const event& e : events) {
    if (tarnix::st_tsidx_put(t, e.term.c_str(), static_cast<uint32_t>(e.term.size()), e.timestamp,
                             e.address, e.address % 7, e.address % 5, e.address % 3,
                             e.address % 11) != 0) {
      ok = false;
    }
  }
  if (tarnix::st_tsidx_sync(t) != 0) ok = false;
  if (tarnix::st_tsidx_close(t) != 0) ok = false;
  if (!ok) return "";
  for (const std::string& name : tsidx_names(dir)) {
    if (!std::binary_search(before.begin(), before.end(), name)) return name;
  }
  return "";
}

std::vector<event> make_events(uint32_t seed, uint32_t values, uint32_t first_address,
                               int32_t base_ts) {
  static const char* const vocabulary[] = {"error", "warn",  "info", "host=a", "host=b",
                                           "user",  "login", "disk", "net",    "cpu"};
  std::mt19937 rng(seed);
  std::vector<event> events;
  for (uint32_t v = 0; v < values; ++v) {
    int32_t ts = base_ts + static_cast<int32_t>(rng() % (values + 1));
    uint32_t address = first_address + v;
    uint32_t nterms = 2 + rng() % 3;
    uint32_t first = rng() % 10;
    for (uint32_t k = 0; k < nterms; ++k) {
      events.push_back(event{vocabulary[(first + k) % 10], ts, address});
    }
    // A term private to this value, so that lexicons differ between files.
    events.push_back(event{"id" + std::to_string(address), ts, address});
  }
  return events;
}

bool read_postings(const std::string& path, std::vector<posting>* out) {
  const IndexContent c = read_index_file(path);
  for (const auto& [term, ids] : c.postings)
    for (uint32_t id : ids) out->emplace_back(term, c.values[id].timestamp, c.values[id].event_address);
  std::sort(out->begin(), out->end());
  return c.rc == 0 && c.problem.empty();
}

std::vector<std::string> tsidx_names(const std::string& dir) {
  std::vector<std::string> names;
  for (const std::string& name : list_dir(dir)) {
    int32_t earliest, latest;
    uint64_t id;
    if (tarnix::st_tsidx_file_parse(name.c_str(), &earliest, &latest, &id) == 1)
      names.push_back(name);
  }
  return names;
}

namespace {

bool match_at(const std::string& t, size_t ti, const std::string& p, size_t pi) {
  while (pi < p.size()) {
    if (p.compare(pi, 3, "{*}") == 0) {
      for (size_t k = ti; k <= t.size(); ++k) {
        if (match_at(t, k, p, pi + 3)) return true;
      }
      return false;
    }
    if (p.compare(pi, 3, "{N}") == 0) {
      size_t k = ti;
      if (k < t.size() && t[k] == '-') ++k;
      size_t digits = k;
      while (k < t.size() && t[k] >= '0' && t[k] <= '9') ++k;
      if (k == digits) return false;
      ti = k;
      pi += 3;
      continue;
    }
    if (ti >= t.size() || t[ti] != p[pi]) return false;
    ++ti;
    ++pi;
  }
  return ti == t.size();
}

}  // namespace

bool pattern_match(const std::string& text, const std::string& pattern) {
  return match_at(text, 0, pattern, 0);
}

std::string strip_times(const std::string& text) {
  std::string out;
  size_t i = 0;
  while (i < text.size()) {
    if (text.compare(i, 3, "tm=") == 0) {
      size_t k = i + 3;
      while (k < text.size() && text[k] >= '0' && text[k] <= '9') ++k;
      if (k > i + 3 && k < text.size() && text[k] == ' ') {
        out += "tm=T ";
        i = k + 1;
        continue;
      }
    }
    out += text[i++];
  }
  return out;
}

const std::vector<std::string> kOptimizeEnv = {"OPTIMISTIC_ABOUT_FILE_LOCKING=yes", "LOG_TARNIX_OPTIMIZE"};

RunResult run_optimize(const std::vector<std::string>& args, const std::vector<std::string>& env) {
  return run_bin("tarnix-optimize", args, env);
}

std::string start_pattern(const std::string& dir, const std::string& settings) {
  return "tm={N} tarnix-optimize start: dir=" + dir + " " + settings + "\n";
}

const std::string kDefaultSettings =
    "mode=0 verbose=true isfinal=false max_iteration=2147483647 min_src_count=8 lex_tpb=64";
const std::string kNothingToDoPattern =
    "tm={N} optimize finished: less than 2 tsidx files in dir, (rc=-30 errno={N})\n"
    "tm={N} exiting tarnix-optimize process with rc=-30\n";

std::vector<posting> postings_of(const std::vector<event>& events) {
  std::vector<posting> out;
  for (const event& e : events) out.emplace_back(e.term, e.timestamp, e.address);
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace testutil
