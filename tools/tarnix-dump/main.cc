// tarnix-dump FILE [--header] [--terms [--prefix P]] [--postings TERM]
//                  [--values [--limit N]] [--events TERM] [--json]
//
// Shows what an index file or lexicon-only file holds: its header and
// section layout, its terms with their metadata, a term's posting ids, its
// values, and the events that hold a term. It reads through the same
// bounded streaming readers as tarnix-check, so it works on files of any
// size and stops with a message (never a crash) where a file is damaged.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "../tarnix-check/inspect.h"
#include "common/args.h"
#include "common/text.h"

using namespace tarnix;
using namespace tarnix::inspect;

namespace {

const char USAGE[] =
    "usage: tarnix-dump FILE [--header] [--terms [--prefix P]] [--postings TERM]\n"
    "                        [--values [--limit N]] [--events TERM] [--json]\n"
    "  --header          header fields and the offset and size of every section (the default)\n"
    "  --terms           every term with its count, earliest and latest time\n"
    "  --prefix P        only the terms that begin with P\n"
    "  --postings TERM   the value ids of TERM's posting list\n"
    "  --values          every value: id, time, address, attributes, deleted flag\n"
    "  --limit N         at most N values\n"
    "  --events TERM     the events holding TERM, latest first (deleted values left out)\n"
    "  --json            one JSON document instead of text\n"
    "  --help            show this help\n"
    "Exit status: 0 done, 1 unreadable or damaged file, unknown term or output not written, 2 usage error.\n";

struct options {
  std::string file;
  bool header = false, terms = false, values = false, json = false;
  bool has_prefix = false, has_limit = false;
  std::string prefix, postings_term, events_term;
  bool postings = false, events = false;
  uint64_t limit = 0;
};

int fail(const std::string& msg) {
  fflush(stdout);
  fprintf(stderr, "tarnix-dump: %s\n", msg.c_str());
  return 1;
}

class dumper {
 public:
  explicit dumper(const options& o) : o_(o) {}

  int run() {
    int e = 0;
    if (!in_.open(o_.file, &e)) return fail(o_.file + ": " + open_error(e));
    if (in_.size() < WARM_HEADER_SZ || pread_full(in_.fd(), hdr_.b, WARM_HEADER_SZ, 0) != 60)
      return fail(o_.file + ": shorter than a 60-byte header");
    if (!verify_magic(&hdr_)) return fail(o_.file + ": unknown magic " + hex_bytes(hdr_.b, MAGIC_SZ));
    lexonly_ = !_has_full_metadata(&hdr_);
    _get_warm_slice_offsets(&hdr_, &off_);
    issue why;
    lex_ok_ = read_lex_layout(in_.fd(), in_.size(), off_.fclex, 0, &lex_, &why);
    if (!lex_ok_) lex_why_ = why.section + ": at " + why.position + ": expected " + why.expected + ", found " + why.found;
    postings_off_ = lex_ok_ ? lex_.end() : 0;
    if (lex_ok_ && _has_reverse_lex(&hdr_)) {
      rev_ok_ = read_lex_layout(in_.fd(), in_.size(), round_up4(lex_.end()), 0, &rev_, &why);
      postings_off_ = rev_ok_ ? rev_.end() : 0;
    }
    const bool any = o_.terms || o_.values || o_.postings || o_.events;
    if (o_.json) printf("{\"file\":%s", json_str(o_.file).c_str());
    int rc = 0;
    if (o_.header || !any) dump_header();
    if (rc == 0 && o_.terms) rc = dump_terms();
    if (rc == 0 && o_.postings) rc = dump_postings();
    if (rc == 0 && o_.values) rc = dump_values();
    if (rc == 0 && o_.events) rc = dump_events();
    if (o_.json) printf("}\n");
    return rc;
  }

 private:
  uint32_t nv() const { return lexonly_ ? 0 : hdr_num_values(&hdr_); }
  uint32_t nt() const { return hdr_num_terms(&hdr_); }
  uint32_t plo() const { return _get_plo_size(&hdr_); }

  // ---- header ---------------------------------------------------------------------

  void dump_header() {
    struct field {
      const char* name;
      hdr_field f;
    };
    static const field fields[] = {
        {"num_values", HDR_NUM_VALUES}, {"num_postings", HDR_NUM_POSTINGS}, {"num_terms", HDR_NUM_TERMS},
        {"et_size", HDR_ET_SIZE},       {"s_size", HDR_S_SIZE},             {"st_size", HDR_ST_SIZE},
        {"h_size", HDR_H_SIZE},         {"d_size", HDR_D_SIZE},             {"et_nbits", HDR_ET_NBITS},
        {"s_nbits", HDR_S_NBITS},       {"st_nbits", HDR_ST_NBITS},         {"h_nbits", HDR_H_NBITS},
        {"d_nbits", HDR_D_NBITS},
    };
    struct section {
      const char* name;
      uint64_t off, size;
      bool known;
    };
    const uint64_t plo_bytes = hdr_num_values(&hdr_) == 0 ? 0 : static_cast<uint64_t>(nt()) * plo();
    std::vector<section> secs;
    if (!lexonly_) {
      secs = {{"values", off_.values, 8ull * nv(), true},  {"et_array", off_.et, et_size(&hdr_), true},
              {"s_array", off_.s, s_size(&hdr_), true},    {"st_array", off_.st, st_size(&hdr_), true},
              {"h_array", off_.h, h_size(&hdr_), true},    {"d_array", off_.d, d_size(&hdr_), true},
              {"pl_offs", off_.pl_offs, plo_bytes, true}};
    }
    secs.push_back({"metadata", off_.metadata, static_cast<uint64_t>(nt()) * _metadata_entry_size(&hdr_), true});
    secs.push_back({"lexicon", off_.fclex, lex_ok_ ? lex_.size() : 0, lex_ok_});
    if (_has_reverse_lex(&hdr_)) secs.push_back({"reverse_lexicon", rev_.offset, rev_ok_ ? rev_.size() : 0, rev_ok_});
    if (!lexonly_) {
      const bool known = postings_off_ != 0 && postings_off_ <= in_.size();
      secs.push_back({"postings", postings_off_, known ? in_.size() - postings_off_ : 0, known});
    }
    if (o_.json) {
      printf(",\"header\":{\"magic\":%s,\"size\":%" PRIu64, json_str(magic_text(hdr_)).c_str(), in_.size());
      for (const field& f : fields) printf(",\"%s\":%u", f.name, hdr_get(&hdr_, f.f));
      if (lex_ok_)
        printf(",\"lexicon\":{\"terms\":%u,\"tperb\":%u,\"uncompressed\":%u,\"blocks\":%u}", lex_.count, lex_.tperb,
               lex_.usize, lex_.blocks);
      printf(",\"sections\":[");
      for (size_t i = 0; i < secs.size(); ++i) {
        printf("%s{\"name\":\"%s\",\"offset\":%" PRIu64 ",\"size\":", i ? "," : "", secs[i].name, secs[i].off);
        if (secs[i].known) {
          printf("%" PRIu64 "}", secs[i].size);
        } else {
          printf("null}");
        }
      }
      printf("]}");
      return;
    }
    printf("file          %s\n", o_.file.c_str());
    printf("size          %" PRIu64 "\n", in_.size());
    printf("magic         %s\n", magic_text(hdr_).c_str());
    for (const field& f : fields) printf("%-13s %u\n", f.name, hdr_get(&hdr_, f.f));
    if (lex_ok_) {
      printf("lexicon       %u terms, %u per block, %u blocks, uncompressed size %u\n", lex_.count, lex_.tperb,
             lex_.blocks, lex_.usize);
    } else {
      printf("lexicon       unreadable (%s)\n", lex_why_.c_str());
    }
    printf("%-16s %12s %12s\n", "section", "offset", "size");
    for (const section& s : secs) {
      if (s.known) {
        printf("%-16s %12" PRIu64 " %12" PRIu64 "\n", s.name, s.off, s.size);
      } else {
        printf("%-16s %12" PRIu64 " %12s\n", s.name, s.off, "?");
      }
    }
  }

  // ---- terms ------------------------------------------------------------------------

  int need_lexicon() {
    if (!lex_ok_) return fail(o_.file + ": " + lex_why_);
    return 0;
  }

  int dump_terms() {
    if (need_lexicon() != 0) return 1;
    lex_walker w;
    w.open(in_.fd(), lex_);
    if (o_.has_prefix && !w.seek_block(find_block(in_.fd(), lex_, o_.prefix))) return fail("cannot seek the lexicon");
    const uint32_t esz = _metadata_entry_size(&hdr_);
    seq_reader meta;
    meta.open(in_.fd(), off_.metadata, off_.metadata + static_cast<uint64_t>(nt()) * esz, 65536);
    meta.seek(off_.metadata + static_cast<uint64_t>(w.term_index()) * esz);
    if (o_.json) printf(",\"terms\":[");
    bool first = true;
    std::string_view t;
    int r;
    while ((r = w.next(&t)) == 1) {
      uint8_t m[TERM_METADATA_SZ] = {0};
      const bool have = meta.get_bytes(m, esz);
      if (o_.has_prefix) {
        if (t.substr(0, o_.prefix.size()) != o_.prefix) {
          if (t > std::string_view(o_.prefix)) break;
          continue;
        }
      }
      if (!have) {
        if (o_.json) printf("]");
        return fail("metadata entry of term " + num(w.term_index() - 1) + " cannot be read");
      }
      const uint32_t count = tools::load_count(m, lexonly_ && tools::counts_in_native_order(o_.file));
      if (o_.json) {
        printf("%s{\"term\":%s,\"count\":%u", first ? "" : ",", json_str(t).c_str(), count);
        if (!lexonly_)
          printf(",\"earliest\":%d,\"latest\":%d", static_cast<int32_t>(load_be32(m + 4)),
                 static_cast<int32_t>(load_be32(m + 8)));
        printf("}");
      } else if (lexonly_) {
        printf("%s\t%u\n", tools::plain_term(t).c_str(), count);
      } else {
        printf("%s\t%u\t%d\t%d\n", tools::plain_term(t).c_str(), count, static_cast<int32_t>(load_be32(m + 4)),
               static_cast<int32_t>(load_be32(m + 8)));
      }
      first = false;
    }
    if (o_.json) printf("]");
    if (r < 0) {
      const issue& i = w.failure();
      return fail(i.section + ": at " + i.position + ": expected " + i.expected + ", found " + i.found);
    }
    return 0;
  }

  // Term number of key, or -1 (with a message) when it is absent or the
  // lexicon cannot be read.
  int64_t find_term(const std::string& key) {
    if (need_lexicon() != 0) return -1;
    lex_walker w;
    w.open(in_.fd(), lex_);
    if (!w.seek_block(find_block(in_.fd(), lex_, key))) {
      fail("cannot seek the lexicon");
      return -1;
    }
    std::string_view t;
    int r;
    while ((r = w.next(&t)) == 1) {
      if (t == key) return w.term_index() - 1;
      if (t > std::string_view(key)) break;
    }
    if (r < 0) {
      const issue& i = w.failure();
      fail(i.section + ": at " + i.position + ": expected " + i.expected + ", found " + i.found);
    } else {
      fail("term " + quote_term(key) + " is not in " + o_.file);
    }
    return -1;
  }

  // The posting ids of term t, handed one by one to each(id); false with a
  // message when the list cannot be read.
  template <typename Each>
  bool for_postings(uint32_t t, Each each) {
    if (lexonly_) {
      fail(o_.file + ": a lexicon-only file has no posting lists");
      return false;
    }
    if (nv() == 0) return true;
    if (postings_off_ == 0 || postings_off_ > in_.size()) {
      fail(o_.file + ": the postings section cannot be located");
      return false;
    }
    uint64_t start = 0, end = 0;
    uint8_t e[8];
    if (t > 0) {
      if (pread_full(in_.fd(), e, plo(), off_.pl_offs + static_cast<uint64_t>(t - 1) * plo()) != plo()) {
        fail("offset entry " + num(t - 1) + " cannot be read");
        return false;
      }
      start = plo() == 4 ? load_be32(e) : load_be64(e);
    }
    if (pread_full(in_.fd(), e, plo(), off_.pl_offs + static_cast<uint64_t>(t) * plo()) != plo()) {
      fail("offset entry " + num(t) + " cannot be read");
      return false;
    }
    end = plo() == 4 ? load_be32(e) : load_be64(e);
    const uint64_t psize = in_.size() - postings_off_;
    if (end < start || end > psize) {
      fail("term " + num(t) + ": posting list [" + num(start) + ", " + num(end) + ") outside the postings section (" +
           num(psize) + " bytes)");
      return false;
    }
    seq_reader r;
    r.open(in_.fd(), postings_off_ + start, postings_off_ + end, 4096);
    plist_decoder d;
    d.start(&r, end - start);
    uint32_t id;
    int rc;
    while ((rc = d.next(&id)) == 1) {
      if (id >= nv()) {
        fail("posting id " + num(id) + " is not below num_values " + num(nv()));
        return false;
      }
      if (!each(id)) return false;
    }
    if (rc < 0) {
      fail("postings: at offset " + num(d.at()) + ": expected " + d.why_expected() + ", found " + d.why_found());
      return false;
    }
    return true;
  }

  int dump_postings() {
    const int64_t t = find_term(o_.postings_term);
    if (t < 0) return 1;
    if (o_.json) printf(",\"postings\":{\"term\":%s,\"term_id\":%" PRId64 ",\"ids\":[", json_str(o_.postings_term).c_str(), t);
    bool first = true;
    const bool ok = for_postings(static_cast<uint32_t>(t), [&](uint32_t id) {
      if (o_.json) {
        printf("%s%u", first ? "" : ",", id);
      } else {
        printf("%u\n", id);
      }
      first = false;
      return true;
    });
    if (o_.json) printf("]}");
    return ok ? 0 : 1;
  }

  // ---- values ------------------------------------------------------------------------

  void print_value(bool with_id, uint32_t id, int32_t ts, uint32_t addr, uint32_t et, uint32_t src, uint32_t st,
                   uint32_t host, bool deleted, bool first) {
    if (o_.json) {
      printf("%s{", first ? "" : ",");
      if (with_id) printf("\"id\":%u,", id);
      printf("\"timestamp\":%d,\"event_address\":%u,\"event_type\":%u,\"source\":%u,\"source_type\":%u,\"host\":%u", ts,
             addr, et, src, st, host);
      if (with_id) printf(",\"deleted\":%s", deleted ? "true" : "false");
      printf("}");
    } else if (with_id) {
      printf("%u\t%d\t%u\t%u\t%u\t%u\t%u\t%d\n", id, ts, addr, et, src, st, host, deleted ? 1 : 0);
    } else {
      printf("%d\t%u\t%u\t%u\t%u\t%u\n", ts, addr, et, src, st, host);
    }
  }

  bool columns_fit() {
    return off_.d + d_size(&hdr_) <= in_.size();
  }

  int dump_values() {
    if (lexonly_) return fail(o_.file + ": a lexicon-only file has no values");
    if (!columns_fit()) return fail(o_.file + ": the value table and columns run past the end of the file");
    seq_reader r;
    r.open(in_.fd(), off_.values, off_.values + 8ull * nv(), 65536);
    value_columns c;
    c.open(in_.fd(), hdr_, off_);
    const uint64_t n = o_.has_limit ? std::min<uint64_t>(o_.limit, nv()) : nv();
    if (o_.json) {
      printf(",\"values\":[");
    } else {
      printf("id\ttimestamp\taddress\tevent_type\tsource\tsource_type\thost\tdeleted\n");
    }
    for (uint32_t i = 0; i < n; ++i) {
      uint8_t rec[8];
      if (!r.get_bytes(rec, 8)) {
        if (o_.json) printf("]");
        return fail("value " + num(i) + " cannot be read");
      }
      const bool del = c.d.get(i) != 0;
      print_value(true, i, static_cast<int32_t>(load_be32(rec)), load_be32(rec + 4), c.et.get(i),
                  del ? DELETED_SOURCE : c.s.get(i), c.st.get(i), c.h.get(i), del, i == 0);
    }
    if (o_.json) printf("]");
    return 0;
  }

  int dump_events() {
    const int64_t t = find_term(o_.events_term);
    if (t < 0) return 1;
    if (!columns_fit()) return fail(o_.file + ": the value table and columns run past the end of the file");
    value_cache vc;
    vc.open(in_.fd(), off_.values, nv());
    value_columns c;
    c.open(in_.fd(), hdr_, off_);
    if (o_.json) {
      printf(",\"events\":{\"term\":%s,\"events\":[", json_str(o_.events_term).c_str());
    } else {
      printf("timestamp\taddress\tevent_type\tsource\tsource_type\thost\n");
    }
    bool first = true;
    const bool ok = for_postings(static_cast<uint32_t>(t), [&](uint32_t id) {
      int32_t ts;
      uint32_t addr;
      if (!vc.get(id, &ts, &addr)) {
        fail("value " + num(id) + " cannot be read");
        return false;
      }
      if (c.d.get(id) != 0) return true;  // deleted
      print_value(false, id, ts, addr, c.et.get(id), c.s.get(id), c.st.get(id), c.h.get(id), false, first);
      first = false;
      return true;
    });
    if (o_.json) printf("]}");
    return ok ? 0 : 1;
  }

  const options& o_;
  input_file in_;
  warm_header hdr_{};
  warm_offsets off_{};
  bool lexonly_ = false;
  lex_layout lex_, rev_;
  bool lex_ok_ = false, rev_ok_ = false;
  std::string lex_why_;
  uint64_t postings_off_ = 0;
};

int usage_error(const std::string& msg) {
  fprintf(stderr, "tarnix-dump: %s\n%s", msg.c_str(), USAGE);
  return 2;
}

}  // namespace

static int tool_main(int argc, char** argv) {
  options o;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&](std::string* out) {
      if (i + 1 >= argc) return false;
      *out = argv[++i];
      return true;
    };
    if (a == "--help") {
      return tools::print_help("tarnix-dump", USAGE);
    } else if (a == "--header") {
      o.header = true;
    } else if (a == "--terms") {
      o.terms = true;
    } else if (a == "--values") {
      o.values = true;
    } else if (a == "--json") {
      o.json = true;
    } else if (a == "--prefix") {
      if (!value(&o.prefix)) return usage_error("--prefix needs a value");
      o.has_prefix = true;
    } else if (a == "--postings") {
      if (!value(&o.postings_term)) return usage_error("--postings needs a term");
      o.postings = true;
    } else if (a == "--events") {
      if (!value(&o.events_term)) return usage_error("--events needs a term");
      o.events = true;
    } else if (a == "--limit") {
      std::string v;
      if (!value(&v)) return usage_error("--limit needs a number");
      uint64_t n = 0;
      if (!tools::parse_u64(v.c_str(), &n)) return usage_error("not a number: " + v);
      o.limit = n;
      o.has_limit = true;
    } else if (a.size() > 1 && a[0] == '-') {
      return usage_error("unknown option " + a);
    } else if (o.file.empty()) {
      o.file = a;
    } else {
      return usage_error("more than one FILE: " + a);
    }
  }
  if (o.file.empty()) return usage_error("no FILE given");
  if (o.has_prefix && !o.terms) return usage_error("--prefix needs --terms");
  if (o.has_limit && !o.values) return usage_error("--limit needs --values");
  dumper d(o);
  const int status = d.run();
  // Output cut short (a full disk, a closed pipe) is not a dump.
  if (fflush(stdout) != 0 || ferror(stdout)) {
    fprintf(stderr, "tarnix-dump: writing the output failed: %s\n", strerror(errno));
    return 1;
  }
  return status;
}

int main(int argc, char** argv) {
  return tools::run_guarded("tarnix-dump", [&] { return tool_main(argc, argv); });
}
