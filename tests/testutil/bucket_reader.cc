#include "testutil/bucket_reader.h"

#include <algorithm>
#include <memory>

#include "searchthing/codes.h"
#include "searchthing/fclex.h"
#include "searchthing/result.h"
#include "searchthing/tsidx.h"
#include "searchthing/warmslice.h"
#include "testutil/testutil.h"

namespace testutil {

namespace {

using term_list = std::vector<std::pair<uint32_t, std::string>>;

uint32_t collect_term(uint32_t term_id, const char* term, uint32_t len, void* cookie) {
  static_cast<term_list*>(cookie)->emplace_back(term_id, std::string(term, len));
  return 0;
}

}  // namespace

IndexContent read_index_file(const std::string& path) {
  IndexContent c;
  tarnix::wrc rc{};
  tarnix::warm* w = tarnix::st_warm_slice_open(path.c_str(), 0, &rc);
  if (w == nullptr) {
    c.rc = rc.warm_rc != 0 ? rc.warm_rc : -1;
    c.problem = "open failed";
    return c;
  }
  const uint32_t num_values = tarnix::st_warm_slice_values(w);
  c.latest = tarnix::st_warm_slice_latest(w);
  c.earliest = tarnix::st_warm_slice_earliest(w);
  c.num_postings = tarnix::hdr_num_postings(tarnix::warm_hdr(w));

  tarnix::tsval_reader vr{};
  if (tarnix::_tsval_reader_open(&vr, w, 1024, nullptr) != 0) c.problem = "value reader";
  for (uint32_t i = 0; i < num_values && c.problem.empty(); ++i) {
    tarnix::tsval v{};
    if (tarnix::_tsval_reader_decode(&vr, i, &v) != 0) {
      c.problem = "value " + std::to_string(i);
      break;
    }
    if (!c.values.empty() && tarnix::st_tsval_compare(&c.values.back(), &v) > 0) {
      c.problem = "values out of order at " + std::to_string(i);
    }
    c.values.push_back(v);
  }
  tarnix::_tsval_reader_close(&vr);

  term_list terms;
  if (c.problem.empty()) tarnix::st_fclex_apply(w->lex, nullptr, collect_term, &terms, nullptr);
  if (terms.size() != tarnix::st_warm_slice_terms(w) && c.problem.empty()) {
    c.problem = "lexicon holds " + std::to_string(terms.size()) + " terms";
  }
  auto pr = std::make_unique<tarnix::plist_reader>();
  if (c.problem.empty() && tarnix::_init_reader(pr.get(), w, 4096, nullptr) != 0) c.problem = "plist reader";
  for (const auto& [id, term] : terms) {
    if (!c.problem.empty()) break;
    std::vector<uint32_t> ids;
    if (tarnix::_seek_reader(pr.get(), id) != 0) {
      c.problem = "seek " + term;
      break;
    }
    for (;;) {
      uint32_t v = 0;
      if (tarnix::_next(pr.get(), &v) != 0) {
        c.problem = "list of " + term;
        break;
      }
      if (v == tarnix::END_OF_LIST) break;
      if (v >= num_values || (!ids.empty() && v <= ids.back())) {
        c.problem = "bad id in list of " + term;
        break;
      }
      ids.push_back(v);
    }
    const uint8_t* m = tarnix::_get_metadata_entry(w, id, 0, nullptr);
    if (m == nullptr) {
      c.problem = "metadata of " + term;
      break;
    }
    tarnix::st_term_metadata md{tarnix::load_be32(m), static_cast<int32_t>(tarnix::load_be32(m + 4)),
                                static_cast<int32_t>(tarnix::load_be32(m + 8))};
    if (c.problem.empty() && !ids.empty()) {
      int32_t lo = c.values[ids[0]].timestamp, hi = lo;
      for (uint32_t i : ids) {
        lo = std::min(lo, c.values[i].timestamp);
        hi = std::max(hi, c.values[i].timestamp);
      }
      if (md.count != ids.size() || md.earliest != lo || md.latest != hi) {
        c.problem = "metadata mismatch for " + term;
      }
    }
    c.metadata[term] = md;
    c.postings[term] = std::move(ids);
  }
  tarnix::close_plist_reader(pr.get());
  tarnix::st_warm_slice_close(w);
  return c;
}

void normalise(EventIndex* index) {
  for (auto& [term, addrs] : index->term_addresses) {
    std::sort(addrs.begin(), addrs.end());
    addrs.erase(std::unique(addrs.begin(), addrs.end()), addrs.end());
  }
}

BucketContent read_bucket(const std::string& dir) {
  BucketContent b;
  for (const std::string& name : list_dir(dir)) {
    int32_t earliest, latest;
    uint64_t id;
    if (tarnix::st_tsidx_file_parse(name.c_str(), &earliest, &latest, &id) == 0) continue;
    ++b.files;
    IndexContent c = read_index_file(dir + "/" + name);
    if (!c.problem.empty()) {
      b.problems.push_back(name + ": " + c.problem);
      continue;
    }
    if (c.latest != latest || c.earliest != earliest) b.problems.push_back(name + ": times differ from name");
    b.value_count += c.values.size();
    for (const tarnix::tsval& v : c.values) b.index.events[v.event_address] = v;
    for (const auto& [term, ids] : c.postings) {
      auto& addrs = b.index.term_addresses[term];
      for (uint32_t i : ids) addrs.push_back(c.values[i].event_address);
    }
  }
  normalise(&b.index);
  return b;
}

}  // namespace testutil
