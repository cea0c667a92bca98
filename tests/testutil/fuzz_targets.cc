#include "testutil/fuzz_targets.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "optimize/optimize_main.h"
#include "searchthing/codes.h"
#include "searchthing/fclex.h"
#include "searchthing/fclex_io.h"
#include "searchthing/result.h"
#include "searchthing/tsidx.h"
#include "searchthing/warmslice.h"
#include "searchthing/warmslice_merge.h"
#include "searchthing/warmslice_util.h"

namespace testutil {

namespace {

using tarnix::warm;
using tarnix::wrc;

// A promise of the library broken: report and abort, so that the fuzzer
// keeps the input as a crash.
[[noreturn]] void broken(const char* target, const std::string& what) {
  fprintf(stderr, "fuzz target %s: %s\n", target, what.c_str());
  abort();
}

// ---- Files --------------------------------------------------------------------

void remove_all(const std::string& path) {
  std::error_code ec;
  std::filesystem::remove_all(path, ec);
}

std::string& temp_root() {
  static std::string root;
  return root;
}

void remove_temp_root() {
  if (!temp_root().empty()) remove_all(temp_root());
}

// A new file (never the old one: a mapping of it may still be open).
bool write_bytes(const std::string& path, const uint8_t* data, size_t size) {
  unlink(path.c_str());
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  out.close();
  return !out.fail();
}

std::vector<uint8_t> slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

std::string make_subdir(const std::string& name) {
  std::string d = fuzz_temp_dir() + "/" + name;
  mkdir(d.c_str(), 0700);
  return d;
}

// ---- Reading an open index file -------------------------------------------------

// (term, timestamp, event address), one per posting.
using triple = std::tuple<std::string, int32_t, uint32_t>;

struct file_report {
  int open_rc = 0;          // 0 opened, else the open's code
  std::string problem;      // first failure while reading an opened file
  std::set<triple> postings;
};

struct term_list {
  std::vector<std::pair<uint32_t, std::string>> terms;
};

uint32_t collect_term(uint32_t id, const char* term, uint32_t len, void* cookie) {
  auto* tl = static_cast<term_list*>(cookie);
  if (tl->terms.size() >= (1u << 20)) return tarnix::NOT_FOUND;
  tl->terms.emplace_back(id, std::string(term, len));
  return 1;
}

uint32_t count_term(uint32_t, const char*, uint32_t, void*) { return 1; }

void note(file_report* r, const std::string& what) {
  if (r->problem.empty()) r->problem = what;
}

// Everything an open file offers. Problems are noted, and reading goes on
// wherever it still can, so that every reader meets the damaged bytes.
void read_open_file(warm* w, bool mapped, file_report* r) {
  const tarnix::warm_header* h = tarnix::warm_hdr(w);
  const uint32_t nv = tarnix::st_warm_slice_values(w);
  const uint32_t nt = tarnix::st_warm_slice_terms(w);
  (void)tarnix::st_warm_slice_size(w);
  (void)tarnix::st_warm_slice_blocksize(w);
  (void)tarnix::size_without_vardata(h);
  if (nv > 0) {
    (void)tarnix::st_warm_slice_latest(w);
    (void)tarnix::st_warm_slice_earliest(w);
  }

  // Values.
  std::vector<tarnix::tsval> values;
  tarnix::tsval_reader vr{};
  if (tarnix::_tsval_reader_open(&vr, w, 64, nullptr) != 0) {
    note(r, "value reader open");
  } else {
    for (uint32_t i = 0; i < nv; ++i) {
      tarnix::tsval v{};
      if (tarnix::_tsval_reader_decode(&vr, i, &v) != 0) {
        note(r, "value " + std::to_string(i));
        break;
      }
      values.push_back(v);
    }
    tarnix::_tsval_reader_close(&vr);
  }

  // Terms: the walk, lookups of what it found, and keys that are not there.
  term_list tl;
  if (tarnix::st_fclex_apply(w->lex, nullptr, collect_term, &tl, nullptr) == tarnix::NOT_FOUND)
    note(r, "lexicon walk");
  if (tl.terms.size() != nt) note(r, "lexicon walk found " + std::to_string(tl.terms.size()) + " terms");
  for (size_t i = 0; i < tl.terms.size() && i < 64; ++i) {
    const auto& [id, term] = tl.terms[i];
    if (tl.terms[i].first != i) note(r, "term numbers out of order");
    if (tarnix::st_fclex_get(w->lex, term.c_str(), nullptr) != id) note(r, "lookup of " + term);
  }
  (void)tarnix::st_fclex_get(w->lex, "", nullptr);
  (void)tarnix::st_fclex_get(w->lex, "\x7f\x7f", nullptr);
  (void)tarnix::st_fclex_get(w->lex, std::string(3000, 'k').c_str(), nullptr);
  if (!tl.terms.empty()) {
    std::string prefix = tl.terms.back().second.substr(0, 1);
    (void)tarnix::st_fclex_apply(w->lex, prefix.c_str(), count_term, nullptr, nullptr);
  }
  std::vector<uint8_t> answers(4 * tarnix::FCLEX_ENUM_RECORD_SZ);
  (void)tarnix::st_warm_slice_enum(w, nullptr, 1, answers.data(), 4);

  // Posting lists and metadata, for every term number the header claims
  // (bounded: the offset table and metadata of that many terms lie inside
  // the file, or the open refused it).
  const bool full_meta = tarnix::_has_full_metadata(h);
  auto pr = std::make_unique<tarnix::plist_reader>();
  bool have_reader = tarnix::_init_reader(pr.get(), w, 1024, nullptr) == 0;
  if (!have_reader) note(r, "posting reader open");
  (void)tarnix::st_warm_slice_postings_size(w);
  for (uint32_t t = 0; t < nt; ++t) {
    uint64_t length = 0;
    if (have_reader) {
      if (tarnix::_seek_reader(pr.get(), t) != 0) {
        note(r, "seek to list " + std::to_string(t));
      } else {
        uint32_t prev = 0;
        for (;;) {
          uint32_t v = 0;
          if (tarnix::_next(pr.get(), &v) != 0) {
            note(r, "list " + std::to_string(t));
            break;
          }
          if (v == tarnix::END_OF_LIST) break;
          if (v >= nv) {
            note(r, "list " + std::to_string(t) + " names value " + std::to_string(v));
            break;
          }
          if (length > 0 && v <= prev) {
            note(r, "list " + std::to_string(t) + " does not ascend");
            break;
          }
          prev = v;
          ++length;
          if (t < tl.terms.size() && v < values.size()) {
            r->postings.emplace(tl.terms[t].second, values[v].timestamp, values[v].event_address);
          }
        }
      }
      if (t == 0) {
        uint32_t v = 0;
        if (tarnix::_seek_reader(pr.get(), 0) == 0) (void)tarnix::_seek(pr.get(), nv / 2, &v);
      }
    }
    (void)tarnix::st_warm_slice_pl_size(w, t);
    // A mapped handle offers full entries only; asking it for a short one
    // is a caller's mistake, not something a file can cause.
    if (mapped && !full_meta) continue;
    const uint8_t* m = tarnix::_get_metadata_entry(w, t, full_meta ? 0 : 1, nullptr);
    if (m == nullptr) {
      note(r, "metadata " + std::to_string(t));
      continue;
    }
    if (tarnix::load_be32(m) != length && have_reader) {
      note(r, "metadata count of term " + std::to_string(t));
    }
  }
  if (have_reader) tarnix::close_plist_reader(pr.get());
}

enum class open_mode { mapped, updating, descriptor };

file_report read_file(const std::string& path, open_mode mode) {
  file_report r;
  wrc rc{};
  warm* w = nullptr;
  switch (mode) {
    case open_mode::mapped: w = tarnix::st_warm_slice_open(path.c_str(), 0, &rc); break;
    case open_mode::updating: w = tarnix::st_warm_slice_open(path.c_str(), 1, &rc); break;
    case open_mode::descriptor: w = tarnix::st_warm_slice_open_fd(path.c_str(), 0, &rc); break;
  }
  if (w == nullptr) {
    r.open_rc = rc.warm_rc != 0 ? rc.warm_rc : INT_MIN;
    return r;
  }
  read_open_file(w, mode != open_mode::descriptor, &r);
  if (tarnix::st_warm_slice_close(w) != 0) note(&r, "close");
  return r;
}

// ---- Generated index files ---------------------------------------------------------

struct gen_event {
  std::vector<std::string> terms;
  int32_t timestamp;
  uint32_t address;
  uint32_t host;
};

// Deterministic events over a small vocabulary, with a few long terms and
// prefix chains so that lexicon blocks use every coding form.
std::vector<gen_event> make_events(uint32_t seed, uint32_t n, int32_t base_ts, uint32_t base_addr,
                                   bool long_terms) {
  static const char* const WORDS[] = {"alpha", "alphabet", "beta", "error", "errors",
                                      "get",   "host=web1", "post", "status=200", "status=404",
                                      "user",  "zeta"};
  uint64_t s = seed * 2654435761u + 1;
  auto next = [&s]() {
    s = s * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<uint32_t>(s >> 33);
  };
  std::vector<gen_event> out;
  for (uint32_t i = 0; i < n; ++i) {
    gen_event e;
    e.timestamp = base_ts + static_cast<int32_t>(i / 2);
    e.address = base_addr + i;
    e.host = next() % 5;
    uint32_t k = 1 + next() % 3;
    for (uint32_t j = 0; j < k; ++j) e.terms.emplace_back(WORDS[next() % 12]);
    e.terms.push_back("id" + std::to_string(next() % 40));
    if (long_terms && i % 7 == 0) e.terms.push_back(std::string(150 + next() % 300, 'l') + std::to_string(i));
    out.push_back(std::move(e));
  }
  return out;
}

// Indexes the events into dir (flushing every max_values values) and
// returns the paths of the index files it holds afterwards.
std::vector<std::string> write_bucket(const std::string& dir, const std::vector<gen_event>& events,
                                      uint64_t max_values) {
  tarnix::tsidx* t = tarnix::st_tsidx_open(dir.c_str(), 0, 0, 0);
  if (t == nullptr) return {};
  tarnix::st_tsidx_set_params(t, 16384, 1 << 20, 1 << 20, max_values);
  for (const auto& e : events) {
    for (const auto& term : e.terms) {
      (void)tarnix::st_tsidx_put(t, term.c_str(), static_cast<uint32_t>(term.size()), e.timestamp,
                                 e.address, e.address % 3, e.host % 2, 7, e.host);
    }
  }
  (void)tarnix::st_tsidx_close(t);
  std::vector<std::string> out;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(dir, ec)) {
    int32_t lo = 0, hi = 0;
    uint64_t id = 0;
    if (tarnix::st_tsidx_file_parse(e.path().filename().c_str(), &lo, &hi, &id)) out.push_back(e.path().string());
  }
  std::sort(out.begin(), out.end());
  return out;
}

// Merges the files into out_path; the merge's code.
int merge_files(const std::vector<std::string>& sources, const std::string& out_path, uint32_t tpb,
                uint64_t page_size, wrc* w) {
  std::vector<int> fds;
  for (const auto& s : sources) fds.push_back(open(s.c_str(), O_RDONLY | O_CLOEXEC));
  unlink(out_path.c_str());
  int tgt = open(out_path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  int rc = -1;
  bool all_open = tgt >= 0;
  for (int fd : fds) all_open = all_open && fd >= 0;
  if (all_open) {
    rc = tarnix::st_warm_slice_merge_n(0, tgt, fds.data(), static_cast<uint32_t>(fds.size()), tpb, page_size, w,
                                       0);
  }
  for (int fd : fds) {
    if (fd >= 0) close(fd);
  }
  if (tgt >= 0) close(tgt);
  return rc;
}

// The two valid sources of the merge target and the postings they hold.
struct merge_partners {
  std::string a, b;
  std::set<triple> postings;
  bool ok = false;
};

const merge_partners& partners() {
  static merge_partners p = [] {
    merge_partners m;
    std::string da = make_subdir("partner-a");
    std::string db = make_subdir("partner-b");
    auto fa = write_bucket(da, make_events(11, 24, 5000, 100, true), 1000);
    // The second source shares some values (same time and address) with
    // the first, so that the merge folds values together.
    auto fb = write_bucket(db, make_events(12, 20, 5006, 112, false), 1000);
    if (fa.size() != 1 || fb.size() != 1) return m;
    m.a = fa[0];
    m.b = fb[0];
    for (const auto& path : {m.a, m.b}) {
      file_report r = read_file(path, open_mode::mapped);
      if (r.open_rc != 0 || !r.problem.empty()) return m;
      m.postings.insert(r.postings.begin(), r.postings.end());
    }
    m.ok = true;
    return m;
  }();
  return p;
}

// ---- Lexicon sections ----------------------------------------------------------------

void exercise_handle(tarnix::fclex* h) {
  (void)tarnix::st_fclex_terms(h);
  (void)tarnix::st_fclex_blocksize(h);
  (void)tarnix::st_fclex_uncompressed_size(h);
  (void)tarnix::st_fclex_size(h);
  term_list tl;
  (void)tarnix::st_fclex_apply(h, nullptr, collect_term, &tl, nullptr);
  for (size_t i = 0; i < tl.terms.size() && i < 64; ++i) {
    (void)tarnix::st_fclex_get(h, tl.terms[i].second.c_str(), nullptr);
    std::string longer = tl.terms[i].second + std::string(2100, 'x');
    (void)tarnix::st_fclex_get(h, longer.c_str(), nullptr);
  }
  for (const char* key : {"", "a", "m", "zz", "\x7f"}) (void)tarnix::st_fclex_get(h, key, nullptr);
  std::string prefix = tl.terms.empty() ? std::string("e") : tl.terms[tl.terms.size() / 2].second.substr(0, 2);
  (void)tarnix::st_fclex_apply(h, prefix.c_str(), count_term, nullptr, nullptr);
  std::vector<uint8_t> answers(3 * tarnix::FCLEX_ENUM_RECORD_SZ);
  (void)tarnix::st_fclex_enum(h, nullptr, answers.data(), 3);
  (void)tarnix::st_fclex_enum(h, prefix.c_str(), answers.data(), 3);
}

// Walks a section with the block reader and a merge cursor, as a merge does.
void walk_with_reader(int fd, uint64_t offset) {
  auto c = std::make_unique<tarnix::lex_merge_cxt>();
  if (tarnix::_lex_reader_open(&c->_reader, fd, offset) != 0) {
    tarnix::_lex_reader_close(&c->_reader);
    return;
  }
  uint64_t size = 0;
  (void)tarnix::_lex_reader_get_size(&c->_reader, &size);
  int rc = tarnix::_reload_term(c.get());
  while (rc == 0) {
    uint32_t r = tarnix::_increment_cursor(c.get());
    if (c->_cursor >= c->_reader._bor._nterms) break;
    rc = static_cast<int>(r);
  }
  // Random access to the first and last blocks, as lookups would do it.
  const uint32_t nblocks =
      tarnix::_how_many_blocks_helper(c->_reader._bor._nterms, c->_reader._bor.tperb);
  for (uint32_t bid : {0u, nblocks - 1, nblocks / 2}) {
    wrc w{};
    (void)tarnix::_lex_reader_get(&c->_reader, bid, &w);
    uint64_t bs = 0;
    (void)tarnix::_get_block_size(&c->_reader, bid, &bs);
  }
  tarnix::_lex_reader_close(&c->_reader);
}

// ---- Parameter file ---------------------------------------------------------------------

struct params {
  uint64_t v[5];  // max_terms, max_term_chars, max_postings, max_values, txn_per_sync
};

params params_of(const tarnix::tsidx* t) {
  return params{{tarnix::st_tsidx_max_terms(t), tarnix::st_tsidx_max_term_chars(t),
                 tarnix::st_tsidx_max_postings(t), tarnix::st_tsidx_max_values(t),
                 tarnix::st_tsidx_txn_per_sync(t)}};
}

bool same(const params& a, const params& b) { return memcmp(a.v, b.v, sizeof a.v) == 0; }

constexpr char PARAMS_HEADER[] = "TARNIX AUTO-GENERATED FILE. DO NOT MODIFY.|";

// The parameter line's grammar, written out independently: 1 and the five
// numbers when the text is acceptable, 0 when it must be ignored, -1 when
// this reading cannot say (a NUL in the text, or a number that would
// overflow).
int parse_params(const std::string& text, params* out) {
  if (text.find('\0') != std::string::npos) return -1;
  const size_t hl = sizeof(PARAMS_HEADER) - 1;
  if (text.compare(0, hl, PARAMS_HEADER) != 0 || text.size() < hl) return 0;
  size_t pos = hl;
  for (int f = 0; f < 5; ++f) {
    size_t start = pos;
    uint64_t v = 0;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
      v = v * 10 + static_cast<uint64_t>(text[pos] - '0');
      ++pos;
    }
    if (pos == start) return 0;
    if (pos - start > 19) return -1;
    out->v[f] = v;
    if (f < 4) {
      if (pos >= text.size() || text[pos] != '|') return 0;
      ++pos;
    } else {
      if (pos < text.size() && text[pos] == '|') ++pos;
      if (pos != text.size()) return 0;
    }
  }
  return 1;
}

// ---- Command line --------------------------------------------------------------------------

constexpr char NO_DIR_ROOT[] = "/nonexistent-tarnix-fuzz";

bool takes_value(const std::string& a) {
  static const char* const OPTS[] = {"--min-src-count", "-s", "--iteration-max", "-i", "-m", "--mode",
                                     "-b", "--lex-tpb", "-p", "--page-size", "-x", "--max-allowed-size"};
  for (const char* o : OPTS) {
    if (a == o) return true;
  }
  return false;
}

}  // namespace

// ---- Public ------------------------------------------------------------------------------

const std::string& fuzz_temp_dir() {
  if (temp_root().empty()) {
    const char* base = getenv("TMPDIR");
    std::string tmpl = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/tarnix-fuzz-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) broken("setup", "cannot create a temporary directory");
    temp_root() = buf.data();
    atexit(remove_temp_root);
  }
  return temp_root();
}

int fuzz_index_file(const uint8_t* data, size_t size) {
  static const std::string path = make_subdir("index") + "/in.tsidx";
  if (!write_bytes(path, data, size)) broken("index_file", "cannot write the input");
  for (open_mode m : {open_mode::mapped, open_mode::updating, open_mode::descriptor}) {
    file_report r = read_file(path, m);
    (void)r;
  }
  return 0;
}

int fuzz_lexicon(const uint8_t* data, size_t size) {
  static const std::string path = make_subdir("lexicon") + "/in.lex";
  if (!write_bytes(path, data, size)) broken("lexicon", "cannot write the input");
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) broken("lexicon", "cannot open the input");

  // Memory mode, as the mapped open uses it: only over a section that the
  // bytes hold completely, in a buffer of exactly the section's size.
  uint64_t sz = tarnix::st_fclex_size_fd(fd, 0);
  if (sz >= 16 && sz <= size) {
    std::vector<uint8_t> body(data, data + sz);
    if (tarnix::fclex* h = tarnix::st_fclex_open(body.data())) {
      exercise_handle(h);
      tarnix::st_fclex_close(h);
    }
  }
  if (tarnix::fclex* h = tarnix::st_fclex_open_fd(fd, 0)) {
    exercise_handle(h);
    tarnix::st_fclex_close(h);
  }
  walk_with_reader(fd, 0);
  close(fd);
  return 0;
}

int fuzz_merge(const uint8_t* data, size_t size) {
  const merge_partners& p = partners();
  if (!p.ok) broken("merge", "cannot build the two valid sources");
  static const std::string dir = make_subdir("merge");
  const std::string src = dir + "/in.tsidx";
  const std::string out = dir + "/out.tsidx";
  if (!write_bytes(src, data, size)) broken("merge", "cannot write the input");
  wrc w{};
  int rc = merge_files({p.a, src, p.b}, out, 4, 64, &w);
  if (rc != w.warm_rc) {
    broken("merge", "returned " + std::to_string(rc) + " but recorded " + std::to_string(w.warm_rc));
  }
  if (rc > 0) broken("merge", "positive result " + std::to_string(rc));
  if (rc == 0) {
    // A merge that takes the input must keep all of it too: the input has to
    // open like any index file, and what it holds is in the merged file. An
    // input whose header has no terms has no lexicon to open; only its
    // values take part.
    const file_report in = read_file(src, open_mode::descriptor);
    const bool has_terms = size >= 20 && (data[16] | data[17] | data[18] | data[19]) != 0;
    if (in.open_rc != 0 && has_terms) {
      broken("merge", "merged an input that does not open: " + std::to_string(in.open_rc));
    }
    std::set<triple> all = p.postings;
    all.insert(in.postings.begin(), in.postings.end());
    for (open_mode m : {open_mode::mapped, open_mode::descriptor}) {
      file_report r = read_file(out, m);
      if (r.open_rc != 0) broken("merge", "merged file does not open: " + std::to_string(r.open_rc));
      if (!r.problem.empty()) broken("merge", "merged file is damaged: " + r.problem);
      for (const auto& t : all) {
        if (r.postings.count(t) == 0) {
          broken("merge", "merged file lost the posting (" + std::get<0>(t) + ", " +
                              std::to_string(std::get<1>(t)) + ", " + std::to_string(std::get<2>(t)) + ")");
        }
      }
    }
  }
  unlink(out.c_str());
  return 0;
}

int fuzz_params(const uint8_t* data, size_t size) {
  static const std::string dir = make_subdir("params");
  const std::string file = dir + "/tarnix-autogen-params.dat";
  remove_all(dir);
  mkdir(dir.c_str(), 0700);
  if (!write_bytes(file, data, size)) broken("params", "cannot write the input");

  tarnix::tsidx* t = tarnix::st_tsidx_open(dir.c_str(), 0, 1, static_cast<uint32_t>(-1));
  if (t == nullptr) return 0;
  const params got = params_of(t);

  // At most 255 bytes are read; whatever they hold decides.
  params want{{16384, 16384, 16384, 16384, 0}};
  params parsed{};
  std::string text(reinterpret_cast<const char*>(data), size < 255 ? size : 255);
  int verdict = parse_params(text, &parsed);
  if (verdict == 1) want = parsed;
  if (verdict >= 0 && !same(got, want)) broken("params", "limits differ from the line's numbers");

  (void)tarnix::st_tsidx_close(t);
  // With a transaction count the handle wrote the file again: it must read
  // back to the same numbers.
  if (got.v[4] != 0) {
    tarnix::tsidx* again = tarnix::st_tsidx_open(dir.c_str(), 0, 1, static_cast<uint32_t>(-1));
    if (again == nullptr) return 0;
    const params back = params_of(again);
    (void)tarnix::st_tsidx_close(again);
    if (!same(back, got)) broken("params", "rewritten parameter file reads back differently");
  }
  return 0;
}

int fuzz_cmdline(const uint8_t* data, size_t size) {
  static const bool ready = [] {
    struct stat st;
    if (stat(NO_DIR_ROOT, &st) == 0) broken("cmdline", std::string(NO_DIR_ROOT) + " exists");
    unsetenv("LOG_TARNIX_OPTIMIZE");
    return true;
  }();
  (void)ready;

  std::vector<std::string> args{"tarnix-optimize"};
  std::string cur;
  for (size_t i = 0; i < size && args.size() < 64; ++i) {
    if (data[i] == 0) {
      args.push_back(cur);
      cur.clear();
    } else {
      cur += static_cast<char>(data[i]);
    }
  }
  if (size > 0 && args.size() < 64) args.push_back(cur);

  // The parser's walk: a directory value is redirected below a directory
  // that does not exist, the verbose flag becomes another plain flag.
  for (size_t i = 1; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--directory" || a == "-d") {
      if (i + 1 < args.size()) {
        std::string v = args[i + 1].substr(0, 200);
        for (char& c : v) {
          if (c == '/') c = '_';
        }
        args[i + 1] = std::string(NO_DIR_ROOT) + "/" + v;
        ++i;
      }
    } else if (a.empty() || a[0] != '-') {
      break;
    } else if (takes_value(a)) {
      ++i;
    } else if (a == "-v" || a == "--verbose") {
      args[i] = "--tstats";
    }
  }

  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);

  // The usage text goes to standard error on every refusal: keep it quiet.
  fflush(stderr);
  int saved = dup(2);
  int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (saved >= 0 && null_fd >= 0) dup2(null_fd, 2);
  int rc = tarnix::optimize_main(static_cast<int>(args.size()), argv.data());
  fflush(stderr);
  if (saved >= 0) {
    dup2(saved, 2);
    close(saved);
  }
  if (null_fd >= 0) close(null_fd);
  // Nothing exists below the directory: the run can only end in a refusal
  // of the command line (-37) or in the first pass failing to take the
  // directory lock (-29).
  if (rc != tarnix::WS_ENONAME && rc != tarnix::ST_ELOCK) broken("cmdline", "result " + std::to_string(rc));
  return 0;
}

const fuzz_target_entry FUZZ_TARGETS[5] = {
    {"index_file", fuzz_index_file}, {"lexicon", fuzz_lexicon}, {"merge", fuzz_merge},
    {"params", fuzz_params},         {"cmdline", fuzz_cmdline},
};

// ---- Seeds ----------------------------------------------------------------------------------

int fuzz_make_seeds(const std::string& dir) {
  int written = 0;
  auto put = [&](const std::string& target, const std::string& name, const std::vector<uint8_t>& bytes) {
    std::string d = dir + "/" + target;
    mkdir(dir.c_str(), 0755);
    mkdir(d.c_str(), 0755);
    if (write_bytes(d + "/" + name, bytes.data(), bytes.size())) ++written;
  };
  auto text = [](const std::string& s) { return std::vector<uint8_t>(s.begin(), s.end()); };

  // Index files: small generated slices, one with long terms, and a merge.
  std::vector<std::string> files;
  struct bucket_spec {
    uint32_t seed, events;
    uint64_t max_values;
    bool long_terms;
  };
  int k = 0;
  for (const bucket_spec& b : {bucket_spec{1, 30, 8, false}, bucket_spec{2, 24, 24, true},
                               bucket_spec{3, 3, 4, false}, bucket_spec{4, 60, 60, false}}) {
    std::string bd = make_subdir("seed-bucket-" + std::to_string(k++));
    auto got = write_bucket(bd, make_events(b.seed, b.events, 1000 + 100 * static_cast<int32_t>(b.seed),
                                            10 * b.seed, b.long_terms),
                            b.max_values);
    files.insert(files.end(), got.begin(), got.end());
  }
  if (files.size() < 3) return -1;
  std::string merged = make_subdir("seed-merge") + "/merged.tsidx";
  wrc w{};
  if (merge_files({files[0], files[1], files[2]}, merged, 3, 0, &w) == 0) files.push_back(merged);

  int n = 0;
  for (const auto& f : files) {
    std::vector<uint8_t> bytes = slurp(f);
    if (bytes.size() > 16384) continue;
    std::string name = "slice-" + std::to_string(n++);
    put("index_file", name, bytes);
    put("merge", name, bytes);
    // The lexicon section, cut out of the file.
    int fd = open(f.c_str(), O_RDONLY | O_CLOEXEC);
    tarnix::warm_offsets o{};
    tarnix::warm_header h{};
    if (fd >= 0 && tarnix::st_warm_slice_offsets(fd, &o, &h) == 0) {
      uint64_t sz = tarnix::st_fclex_size_fd(fd, o.fclex);
      if (sz > 0 && o.fclex + sz <= bytes.size()) {
        put("lexicon", name, std::vector<uint8_t>(bytes.begin() + static_cast<long>(o.fclex),
                                                  bytes.begin() + static_cast<long>(o.fclex + sz)));
      }
    }
    if (fd >= 0) close(fd);
  }

  const std::string hdr = PARAMS_HEADER;
  put("params", "full", text(hdr + "16384|16384|16384|16384|12|"));
  put("params", "no-final-bar", text(hdr + "1|2|3|4|5"));
  put("params", "empty-field", text(hdr + "1|2||4|5|"));
  put("params", "zero-txn", text(hdr + "100|200|300|400|0|"));
  put("params", "wide", text(hdr + "18446744073709551615|99999999999999999999|3|4|5|"));

  auto argv_seed = [&](const std::string& name, const std::vector<std::string>& args) {
    std::vector<uint8_t> b;
    for (size_t i = 0; i < args.size(); ++i) {
      if (i > 0) b.push_back(0);
      b.insert(b.end(), args[i].begin(), args[i].end());
    }
    put("cmdline", name, b);
  };
  argv_seed("all", {"-d", "bucket", "-m", "all", "-s", "2", "-i", "3", "-b", "16", "-p", "16384", "-x",
                    "1000000", "-v", "--final", "--tstats"});
  argv_seed("long", {"--directory", "b", "--mode", "force", "--min-src-count", "33", "--iteration-max", "0",
                     "--lex-tpb", "0", "--page-size", "18446744073709551615", "--max-allowed-size",
                     "99999999999999999999999", "--verbose"});
  argv_seed("help", {"-d", "x", "-h"});
  argv_seed("bare", {"bucket"});
  argv_seed("missing", {"-d"});
  argv_seed("badmode", {"-d", "x", "-m", "All"});
  return written;
}

}  // namespace testutil
