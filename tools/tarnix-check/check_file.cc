// The check of one file. It reads the file in streaming passes, each
// through fixed buffers: the header and the layout it implies, the value
// table, the lexicon, and then the lexicon, term metadata, offset table and
// posting lists in lockstep, term by term. Posting ids are turned into
// timestamps through a small page cache of the value table.
#include "check.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "common/text.h"

namespace tarnix::inspect {

namespace {

constexpr size_t STORED_PER_SECTION = 20;
constexpr size_t BIG_BUF = 65536;

// Section order for the report: the order in which the file is laid out,
// so that the first problem listed is the one nearest its cause.
int section_rank(const std::string& s) {
  static const char* const order[] = {"file", "header", "values", "columns", "lexicon", "reverse lexicon",
                                      "offset table", "metadata", "postings", "padding"};
  for (size_t i = 0; i < sizeof(order) / sizeof(order[0]); ++i)
    if (s == order[i]) return static_cast<int>(i);
  return 100;
}

struct checker {
  file_report* rep;
  input_file in;
  warm_header hdr{};
  warm_offsets off{};
  lex_layout lex;
  lex_layout rev;
  uint64_t postings_off = 0;  // valid when postings_known
  bool postings_known = false;
  bool values_in_order = true;
  std::vector<std::pair<std::string, size_t>> stored;  // per section

  void add(issue i) {
    if (i.note) {
      ++rep->notes;
    } else {
      ++rep->errors;
    }
    auto it = std::find_if(stored.begin(), stored.end(), [&](auto& p) { return p.first == i.section; });
    if (it == stored.end()) {
      stored.emplace_back(i.section, 0);
      it = stored.end() - 1;
    }
    if (it->second++ < STORED_PER_SECTION) rep->issues.push_back(std::move(i));
  }
  void err(const char* section, std::string position, std::string expected, std::string found) {
    add(issue{section, std::move(position), std::move(expected), std::move(found), false});
  }
  void note(const char* section, std::string position, std::string text) {
    add(issue{section, std::move(position), std::move(text), "", true});
  }
  static void sink(void* ctx, const issue& i) { static_cast<checker*>(ctx)->add(i); }

  int fd() const { return in.fd(); }
  uint64_t size() const { return in.size(); }
  uint32_t nv() const { return hdr_num_values(&hdr); }
  uint32_t nt() const { return hdr_num_terms(&hdr); }
  uint32_t plo() const { return _get_plo_size(&hdr); }

  // ---- header ---------------------------------------------------------------

  bool check_header() {
    if (size() < WARM_HEADER_SZ) {
      err("header", "offset 0", "a 60-byte header", num(size()) + " bytes in the file");
      return false;
    }
    if (pread_full(fd(), hdr.b, WARM_HEADER_SZ, 0) != static_cast<int64_t>(WARM_HEADER_SZ)) {
      err("header", "offset 0", "a 60-byte header", "a failed read");
      return false;
    }
    rep->magic = magic_text(hdr);
    if (!verify_magic(&hdr)) {
      err("header", "offset 0 (magic)", "\"Tarnix3\" to \"Tarnix6\" or \"TarLex1\" with a NUL",
          hex_bytes(hdr.b, MAGIC_SZ));
      return false;
    }
    rep->lexicon_only = !_has_full_metadata(&hdr);
    rep->num_values = nv();
    rep->num_terms = nt();
    rep->num_postings = hdr_num_postings(&hdr);
    bool ok = true;
    if (!rep->lexicon_only) {
      struct col {
        const char* name;
        hdr_field size_f, nbits_f;
      };
      static const col cols[] = {{"et", HDR_ET_SIZE, HDR_ET_NBITS},
                                 {"s", HDR_S_SIZE, HDR_S_NBITS},
                                 {"st", HDR_ST_SIZE, HDR_ST_NBITS},
                                 {"h", HDR_H_SIZE, HDR_H_NBITS},
                                 {"d", HDR_D_SIZE, HDR_D_NBITS}};
      for (const col& c : cols) {
        const uint32_t nbits = hdr_get(&hdr, c.nbits_f);
        const uint32_t sz = hdr_get(&hdr, c.size_f);
        const bool is_d = c.nbits_f == HDR_D_NBITS;
        if (is_d ? nbits != 1 : (nbits == 0 || nbits > 32)) {
          err("header", "byte " + num(c.nbits_f) + " (" + c.name + "_nbits)", is_d ? "1" : "1 to 32", num(nbits));
          ok = false;
          continue;
        }
        if (nbits == 32)
          note("header", "byte " + num(c.nbits_f) + " (" + c.name + "_nbits)",
               "a 32-bit column: every element reads back as 0 (a deleted value's source 0xFFFFFFFF widens the "
               "source column so)");
        const uint64_t want = column_size(nv(), nbits);
        if (sz != want) {
          err("header", "byte " + num(c.size_f) + " (" + c.name + "_size)",
              num(want) + " (" + num(nbits) + " bits x (" + num(nv()) + " values div 8 + 1))", num(sz));
          ok = false;
        }
      }
    } else if (nv() != 0) {
      note("header", "byte 8 (num_values)", "a lexicon-only file with " + num(nv()) + " values; they are ignored");
    }
    if (nt() == 0) {
      err("header", "byte 16 (num_terms)", "at least 1 term", "0");
      ok = false;
    }
    if (!ok) return false;
    _get_warm_slice_offsets(&hdr, &off);
    if (size() < WARM_HEADER_REGION_SZ || off.fclex + 12 > size()) {
      err("file", "offset " + num(size()) + " (end of file)",
          "at least " + num(off.fclex + 12) + " bytes (the fixed part and lexicon header that the header's counts describe)",
          num(size()) + " bytes: the file is cut short or the header's counts are wrong");
      return false;
    }
    return true;
  }

  // ---- layout: where the lexicon and the postings are ----------------------------

  // Where the posting lists end if the lexicon is lay: the file's end when
  // the header, lexicon and offset table agree. Returns false when a
  // reverse lexicon is needed and cannot be read.
  bool tail_matches(const warm_header& h, const lex_layout& lay) {
    uint64_t end = lay.end();
    if (_has_reverse_lex(&h)) {
      lex_layout r;
      issue why;
      if (!read_lex_layout(fd(), size(), round_up4(end), 0, &r, &why)) return false;
      end = r.end();
    }
    if (!_has_full_metadata(&h)) return end == size();
    uint64_t last = 0;
    if (hdr_num_values(&h) > 0) {
      warm_offsets o;
      _get_warm_slice_offsets(&h, &o);
      uint8_t e[8];
      const uint32_t w = _get_plo_size(&h);
      if (pread_full(fd(), e, w, o.pl_offs + static_cast<uint64_t>(w) * (hdr_num_terms(&h) - 1)) != w) return false;
      last = w == 4 ? load_be32(e) : load_be64(e);
    }
    return end <= size() && size() - end == last;
  }

  bool locate_lexicon() {
    issue why;
    lex_layout lay;
    const bool read = read_lex_layout(fd(), size(), off.fclex, 0, &lay, &why);
    if (read && lay.count == nt()) {
      lex = lay;
      return true;
    }
    uint8_t cnt[4] = {0, 0, 0, 0};
    pread_full(fd(), cnt, 4, off.fclex);
    const uint32_t found = load_be32(cnt);
    if (found == nt()) {
      // The count agrees: the lexicon is where the header says, and damaged.
      add(why);
      return false;
    }
    // Is the header right and only the lexicon's count word wrong?
    lex_layout by_header;
    issue why2;
    if (read_lex_layout(fd(), size(), off.fclex, nt(), &by_header, &why2) && tail_matches(hdr, by_header)) {
      err("lexicon", "offset " + num(off.fclex) + " (term count)", num(nt()) + " (the header's num_terms)", num(found));
      by_header.count = nt();
      lex = by_header;
      return true;
    }
    // Would another value count place a matching lexicon? (The columns fix
    // num_values to eight possibilities.)
    if (!rep->lexicon_only && d_size(&hdr) >= 1) {
      const uint64_t base = 8ull * (d_size(&hdr) - 1);
      for (uint64_t cand = base; cand < base + 8 && cand <= 0xFFFFFFFFull; ++cand) {
        if (cand == nv()) continue;
        warm_header h2 = hdr;
        hdr_set(&h2, HDR_NUM_VALUES, static_cast<uint32_t>(cand));
        warm_offsets o2;
        _get_warm_slice_offsets(&h2, &o2);
        lex_layout l2;
        issue w2;
        if (o2.fclex + 12 <= size() && read_lex_layout(fd(), size(), o2.fclex, 0, &l2, &w2) && l2.count == nt() &&
            tail_matches(h2, l2)) {
          err("header", "byte 8 (num_values)", num(cand) + " (the count that places the lexicon and postings)",
              num(nv()));
          return false;
        }
      }
    }
    err("header", "offset " + num(off.fclex) + " (lexicon)",
        "the lexicon of num_terms=" + num(nt()) + " terms where the header's counts place it",
        read ? "a lexicon header with " + num(found) + " terms" : why.expected + " missing (" + why.found + ")");
    return false;
  }

  void locate_postings() {
    uint64_t end = lex.end();
    if (_has_reverse_lex(&hdr)) {
      issue why;
      if (!read_lex_layout(fd(), size(), round_up4(end), 0, &rev, &why)) {
        why.section = "reverse lexicon";
        add(why);
        return;
      }
      if (rev.count != nt()) {
        err("reverse lexicon", "offset " + num(rev.offset) + " (term count)", num(nt()) + " (the header's num_terms)",
            num(rev.count));
      }
      end = rev.end();
    }
    postings_off = end;
    postings_known = true;
    if (rep->lexicon_only && end != size()) {
      err("file", "offset " + num(end), "the file to end with its lexicon (" + num(end) + " bytes)",
          num(size()) + " bytes");
    }
  }

  // ---- padding ----------------------------------------------------------------

  void check_zero(uint64_t from, uint64_t to, const char* after) {
    if (to <= from || to > size()) return;
    uint8_t b[16];
    const size_t n = static_cast<size_t>(std::min<uint64_t>(to - from, sizeof(b)));
    if (pread_full(fd(), b, n, from) != static_cast<int64_t>(n)) return;
    for (size_t i = 0; i < n; ++i) {
      if (b[i] != 0) {
        note("padding", "offset " + num(from + i), std::string("non-zero padding byte ") + hex_bytes(b + i, 1) +
                                                       " after the " + after);
        return;
      }
    }
  }

  void check_padding() {
    check_zero(WARM_HEADER_SZ, WARM_HEADER_REGION_SZ, "header");
    if (rep->lexicon_only) {
      check_zero(off.metadata + 4ull * nt(), off.fclex, "metadata");
      return;
    }
    check_zero(off.values + 8ull * nv(), off.et, "value table");
    check_zero(off.et + et_size(&hdr), off.s, "event-type column");
    check_zero(off.s + s_size(&hdr), off.st, "source column");
    check_zero(off.st + st_size(&hdr), off.h, "source-type column");
    check_zero(off.h + h_size(&hdr), off.d, "host column");
    check_zero(off.d + d_size(&hdr), off.pl_offs, "deleted-flag column");
    const uint64_t plo_bytes = nv() == 0 ? 0 : static_cast<uint64_t>(nt()) * plo();
    check_zero(off.pl_offs + plo_bytes, off.metadata, "offset table");
    const uint64_t meta_end = off.metadata + TERM_METADATA_SZ * static_cast<uint64_t>(nt());
    check_zero(meta_end, _has_reverse_lex(&hdr) ? off.fclex - 4ull * nt() : off.fclex, "metadata");
  }

  // ---- values -------------------------------------------------------------------

  void check_values() {
    seq_reader r;
    r.open(fd(), off.values, off.values + 8ull * nv(), BIG_BUF);
    column_reader d;
    d.open(fd(), off.d, d_size(&hdr), 1);
    int32_t pts = 0;
    uint32_t paddr = 0;
    for (uint32_t i = 0; i < nv(); ++i) {
      uint8_t rec[8];
      if (!r.get_bytes(rec, 8)) {
        err("values", "value " + num(i), "an 8-byte value record", "a failed read");
        return;
      }
      const int32_t ts = static_cast<int32_t>(load_be32(rec));
      const uint32_t addr = load_be32(rec + 4);
      if (i == 0) rep->latest = ts;
      rep->earliest = ts;
      if (i > 0) {
        if (ts == pts && addr == paddr) {
          values_in_order = false;
          err("values", "value " + num(i) + " (offset " + num(off.values + 8ull * i) + ")",
              "a value other than value " + num(i - 1),
              "a duplicate (time " + snum(ts) + ", address " + num(addr) + ")");
        } else if (ts > pts || (ts == pts && addr > paddr)) {
          values_in_order = false;
          err("values", "value " + num(i) + " (offset " + num(off.values + 8ull * i) + ")",
              "a value after (time " + snum(pts) + ", address " + num(paddr) + "): an earlier time or a smaller address",
              "(time " + snum(ts) + ", address " + num(addr) + ")");
        }
      }
      pts = ts;
      paddr = addr;
      rep->deleted += d.get(i);
    }
  }

  // ---- lexicon ------------------------------------------------------------------

  bool walk_lexicon(const lex_layout& lay, const char* section) {
    lex_walker w;
    w.open(fd(), lay, &checker::sink, this, section);
    std::string_view t;
    int r;
    while ((r = w.next(&t)) == 1) {
    }
    if (r < 0) {
      add(w.failure());
      return false;
    }
    return true;
  }

  // ---- terms: metadata, offsets and postings in lockstep ---------------------------------

  void check_lexicon_only_metadata() {
    seq_reader m;
    m.open(fd(), off.metadata, off.metadata + 4ull * nt(), BIG_BUF);
    const bool native = tools::counts_in_native_order(rep->path);
    for (uint32_t t = 0; t < nt(); ++t) {
      uint8_t c[4];
      if (!m.get_bytes(c, sizeof(c))) {
        err("metadata", "term " + num(t), "a 4-byte count", "a failed read");
        return;
      }
      rep->count_sum += tools::load_count(c, native);
    }
  }

  // The last offset entry is the postings section's length, so the file
  // must end exactly there.
  void check_tail() {
    if (nv() == 0) return;
    uint8_t e[8];
    const uint64_t at = off.pl_offs + static_cast<uint64_t>(nt() - 1) * plo();
    if (pread_full(fd(), e, plo(), at) != plo()) return;
    const uint64_t last = plo() == 4 ? load_be32(e) : load_be64(e);
    const uint64_t postings_size = size() - postings_off;
    if (last != postings_size) {
      err("file", "offset " + num(size()) + " (end of file)",
          num(postings_off + last) + " bytes (postings offset " + num(postings_off) + " + the last offset entry " +
              num(last) + ")",
          num(size()) + (last > postings_size ? " bytes: the file is cut short or the last offset entry is wrong"
                                              : " bytes: trailing bytes or a wrong last offset entry"));
    }
  }

  void check_terms(bool lexicon_sound) {
    const uint64_t postings_size = size() - postings_off;
    seq_reader meta, table, post;
    meta.open(fd(), off.metadata, off.metadata + TERM_METADATA_SZ * static_cast<uint64_t>(nt()), BIG_BUF);
    const uint64_t plo_bytes = nv() == 0 ? 0 : static_cast<uint64_t>(nt()) * plo();
    table.open(fd(), off.pl_offs, off.pl_offs + plo_bytes, BIG_BUF);
    post.open(fd(), postings_off, size(), BIG_BUF);
    lex_walker names;
    if (lexicon_sound) names.open(fd(), lex);
    value_cache vc;
    vc.open(fd(), off.values, nv());
    plist_decoder dec;
    uint64_t prev_end = 0;
    bool lists_clean = true;
    for (uint32_t t = 0; t < nt(); ++t) {
      std::string_view name;
      std::string pos = "term " + num(t);
      if (lexicon_sound && names.next(&name) == 1) pos += " " + quote_term(name);
      uint8_t m[TERM_METADATA_SZ];
      if (!meta.get_bytes(m, sizeof(m))) {
        err("metadata", pos, "a 12-byte metadata entry", "a failed read");
        return;
      }
      const uint32_t count = load_be32(m);
      const int32_t earliest = static_cast<int32_t>(load_be32(m + 4));
      const int32_t latest = static_cast<int32_t>(load_be32(m + 8));
      rep->count_sum += count;
      uint64_t end = 0;
      if (nv() > 0) {
        uint32_t e32 = 0;
        const bool got = plo() == 4 ? table.get_be32(&e32) : table.get_be64(&end);
        if (!got) {
          err("offset table", pos, "an offset entry", "a failed read");
          return;
        }
        if (plo() == 4) end = e32;
      }
      bool list_ok = true;
      if (end < prev_end) {
        err("offset table", pos + " (offset " + num(off.pl_offs + static_cast<uint64_t>(t) * plo()) + ")",
            "an end offset of at least " + num(prev_end) + " (the previous entry)", num(end));
        list_ok = false;
      } else if (end > postings_size) {
        err("offset table", pos + " (offset " + num(off.pl_offs + static_cast<uint64_t>(t) * plo()) + ")",
            "an end offset within the postings section (" + num(postings_size) + " bytes)", num(end));
        list_ok = false;
      }
      uint64_t n = 0;
      int32_t tmin = 0, tmax = 0;
      uint32_t first = 0, last = 0;
      if (list_ok) {
        post.seek(postings_off + prev_end);
        dec.start(&post, end - prev_end);
        uint32_t id;
        int r;
        while ((r = dec.next(&id)) == 1) {
          if (n > 0 && id <= last) {
            err("postings", pos + " (offset " + num(dec.at()) + ")", "ids above " + num(last), num(id));
            list_ok = false;
            break;
          }
          if (id >= nv()) {
            err("postings", pos + " (offset " + num(dec.at()) + ")", "ids below num_values " + num(nv()), num(id));
            list_ok = false;
            break;
          }
          if (n == 0) first = id;
          last = id;
          if (!values_in_order) {
            int32_t ts;
            uint32_t addr;
            if (vc.get(id, &ts, &addr)) {
              if (n == 0 || ts < tmin) tmin = ts;
              if (n == 0 || ts > tmax) tmax = ts;
            }
          }
          ++n;
        }
        if (r < 0) {
          err("postings", pos + " (offset " + num(dec.at()) + ")", dec.why_expected(), dec.why_found());
          list_ok = false;
        }
      }
      rep->postings_seen += n;
      if (!list_ok) lists_clean = false;
      if (list_ok) {
        if (n != count) {
          err("metadata", pos + " (offset " + num(off.metadata + TERM_METADATA_SZ * static_cast<uint64_t>(t)) + ")",
              "count " + num(n) + " (the length of its posting list)", num(count));
        }
        if (n > 0) {
          bool times = true;
          if (values_in_order) {
            // Values run latest first, so a list's first id holds its
            // latest time and its last id its earliest.
            uint32_t addr;
            if (!vc.get(first, &tmax, &addr) || !vc.get(last, &tmin, &addr)) {
              err("values", pos, "the timestamps of its postings", "a failed read");
              times = false;
            }
          }
          const uint64_t at = off.metadata + TERM_METADATA_SZ * static_cast<uint64_t>(t);
          if (times && earliest != tmin)
            err("metadata", pos + " (offset " + num(at + 4) + ")",
                "earliest " + snum(tmin) + " (the smallest timestamp of its postings)", snum(earliest));
          if (times && latest != tmax)
            err("metadata", pos + " (offset " + num(at + 8) + ")",
                "latest " + snum(tmax) + " (the largest timestamp of its postings)", snum(latest));
        }
      }
      prev_end = std::max(prev_end, std::min(end, postings_size));
    }
    if (nv() == 0 && postings_size != 0) {
      err("file", "offset " + num(postings_off), "the file to end with its lexicon (no values, no postings)",
          num(postings_size) + " further bytes");
    }
    // Against the lists' true lengths when they all decoded (a damaged
    // count is then reported once, under the metadata), else the counts.
    const uint32_t np = hdr_num_postings(&hdr);
    const uint64_t total = lists_clean ? rep->postings_seen : rep->count_sum;
    const char* what = lists_clean ? "the number of postings in the lists" : "the sum of the metadata counts";
    if (np < total) {
      err("header", "byte 12 (num_postings)", num(total) + " (" + what + ") or more", num(np));
    } else if (np > total) {
      note("header", "byte 12 (num_postings)",
           num(np) + " is " + num(np - total) + " above " + what +
               " (a flushed slice counts the duplicates of its last term)");
    }
  }

  void run() {
    int e = 0;
    if (!in.open(rep->path, &e)) {
      err("file", "open", "a readable file", open_error(e));
      return;
    }
    rep->size = size();
    if (!check_header()) return;
    if (!locate_lexicon()) return;
    rep->header_ok = true;
    rep->lexicon_offset = lex.offset;
    locate_postings();
    check_padding();
    if (!rep->lexicon_only) check_values();
    const bool lexicon_sound = walk_lexicon(lex, "lexicon");
    rep->lexicon_ok = lexicon_sound;
    if (rep->lexicon_only) {
      check_lexicon_only_metadata();
      return;
    }
    if (!postings_known) return;
    if (!lexicon_sound) note("postings", "offset " + num(postings_off), "the lexicon is damaged, so the postings' start is in doubt");
    check_tail();
    check_terms(lexicon_sound);
  }
};

}  // namespace

void check_file(const std::string& path, file_report* rep) {
  rep->path = path;
  checker c;
  c.rep = rep;
  c.run();
  std::stable_sort(rep->issues.begin(), rep->issues.end(),
                   [](const issue& a, const issue& b) { return section_rank(a.section) < section_rank(b.section); });
}

}  // namespace tarnix::inspect
