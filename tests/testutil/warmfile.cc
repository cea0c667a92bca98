#include "testutil/warmfile.h"

#include <algorithm>
#include <cstring>
#include <map>

namespace testutil {

namespace {

using bytes = std::vector<uint8_t>;

// Byte and bit work of its own, so that a fault in the library's codes
// cannot hide in both the file and its check.
void put32(bytes& b, uint64_t off, uint32_t v) {
  if (b.size() < off + 4) b.resize(off + 4);
  for (int i = 0; i < 4; ++i) b[off + i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}
void put64(bytes& b, uint64_t off, uint64_t v) {
  put32(b, off, static_cast<uint32_t>(v >> 32));
  put32(b, off + 4, static_cast<uint32_t>(v));
}
uint32_t get32(const uint8_t* p) { return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3]; }
uint32_t get32(const bytes& b, uint64_t off) { return get32(b.data() + off); }
uint64_t get64(const bytes& b, uint64_t off) { return (uint64_t{get32(b, off)} << 32) | get32(b, off + 4); }
void vbe(bytes& b, uint32_t v) {
  while (v >= 0x80) {
    b.push_back(static_cast<uint8_t>((v & 0x7F) | 0x80));
    v >>= 7;
  }
  b.push_back(static_cast<uint8_t>(v));
}
// Bounded VBE decode; false on a bad or truncated code.
bool unvbe(const uint8_t*& p, const uint8_t* end, uint32_t* out) {
  uint64_t v = 0;
  for (int i = 0; i < 5 && p < end; ++i) {
    const uint8_t c = *p++;
    v |= uint64_t{c & 0x7Fu} << (7 * i);
    if (!(c & 0x80)) {
      *out = static_cast<uint32_t>(v);
      return true;
    }
  }
  return false;
}
uint64_t next8(uint64_t x) { return x + 8 - x % 8; }
uint64_t next4(uint64_t x) { return (x + 3) & ~uint64_t{3}; }
uint32_t bits_for(uint32_t v) {
  uint32_t n = 1;
  while (n < 32 && (v >> n) != 0) ++n;
  return n;
}
void set_elem(bytes& b, uint64_t base, uint32_t idx, uint32_t nbits, uint32_t v) {
  for (uint32_t j = 0; j < nbits; ++j) {
    const uint64_t bit = uint64_t{idx} * nbits + j;
    uint8_t& byte = b[base + bit / 8];
    if ((v >> j) & 1) byte |= static_cast<uint8_t>(1u << (bit % 8));
    else byte &= static_cast<uint8_t>(~(1u << (bit % 8)));
  }
}
uint32_t get_elem(const bytes& b, uint64_t base, uint32_t idx, uint32_t nbits) {
  uint32_t v = 0;
  for (uint32_t j = 0; j < nbits && j < 32; ++j) {
    const uint64_t bit = uint64_t{idx} * nbits + j;
    if ((b[base + bit / 8] >> (bit % 8)) & 1) v |= 1u << j;
  }
  return v;
}
bool is_old(const std::string& magic) { return magic == "Tarnix3" || magic == "Tarnix4" || magic == "Tarnix5"; }
std::string magic_of(const bytes& b) {
  return std::string(reinterpret_cast<const char*>(b.data()), strnlen(reinterpret_cast<const char*>(b.data()), 8));
}

bytes encode_lexicon(const std::vector<std::string>& terms, uint32_t tperb, uint32_t uncompressed) {
  bytes blocks;
  std::vector<uint32_t> ends;
  for (size_t i = 0; i < terms.size(); ++i) {
    const std::string& t = terms[i];
    const uint32_t j = static_cast<uint32_t>(i % tperb);
    if (j == 0) {
      if (i > 0) ends.push_back(static_cast<uint32_t>(blocks.size()));
      vbe(blocks, static_cast<uint32_t>(t.size()));
      blocks.insert(blocks.end(), t.begin(), t.end());
      continue;
    }
    const std::string& p = terms[i - 1];
    uint32_t lcp = 0;
    while (lcp < p.size() && lcp < t.size() && p[lcp] == t[lcp]) ++lcp;
    vbe(blocks, lcp);
    if (j < tperb - 1) vbe(blocks, static_cast<uint32_t>(t.size() - lcp));
    blocks.insert(blocks.end(), t.begin() + lcp, t.end());
  }
  if (!terms.empty()) ends.push_back(static_cast<uint32_t>(blocks.size()));
  bytes s;
  put32(s, 0, static_cast<uint32_t>(terms.size()));
  put32(s, 4, tperb);
  put32(s, 8, uncompressed);
  for (size_t b = 0; b < ends.size(); ++b) put32(s, 12 + 4 * b, ends[b]);
  s.insert(s.end(), blocks.begin(), blocks.end());
  return s;
}

// Decodes the lexicon section at p (avail bytes there); returns its size,
// 0 on bad bytes with error set.
uint64_t lex_decode(const uint8_t* p, uint64_t avail, std::vector<std::string>* terms, std::string* error) {
  auto fail = [&](const char* what) {
    *error = what;
    return uint64_t{0};
  };
  if (avail < 12) return fail("lexicon header beyond the file");
  const uint32_t n = get32(p), tperb = get32(p + 4);
  if (n == 0) return 12;
  if (tperb == 0) return fail("lexicon tperb 0");
  const uint64_t nb = (uint64_t{n} + tperb - 1) / tperb;
  const uint64_t base = 12 + 4 * nb;
  if (base > avail) return fail("lexicon offsets beyond the file");
  uint64_t start = 0;
  for (uint64_t blk = 0; blk < nb; ++blk) {
    const uint64_t end = get32(p + 12 + 4 * blk);
    if (end < start || base + end > avail) return fail("bad block end");
    const uint8_t* q = p + base + start;
    const uint8_t* lim = p + base + end;
    std::string prev;
    for (uint32_t j = 0; j < tperb && blk * tperb + j < n; ++j) {
      uint32_t l, pre = 0;
      if (j > 0 && (!unvbe(q, lim, &pre) || pre > prev.size())) return fail("bad prefix");
      if (j == 0 || j < tperb - 1) {
        if (!unvbe(q, lim, &l)) return fail("bad length");
      } else {
        l = static_cast<uint32_t>(lim - q);
      }
      if (l > static_cast<uint64_t>(lim - q)) return fail("term past block");
      prev = prev.substr(0, pre) + std::string(reinterpret_cast<const char*>(q), l);
      q += l;
      if (terms) terms->push_back(prev);
    }
    start = end;
  }
  return base + start;
}

struct Offsets {
  uint64_t col[5], plo, meta, fclex;
};
Offsets offsets_from(const bytes& b) {
  Offsets o;
  const std::string magic = magic_of(b);
  const uint64_t nv = get32(b, 8), nt = get32(b, 16);
  uint64_t at = 64 + 8 * nv;
  for (int c = 0; c < 5; ++c) {
    o.col[c] = next8(at);
    at = o.col[c] + get32(b, 20 + 4 * c);
  }
  o.plo = next8(at);
  o.meta = next8(o.plo + (nv == 0 ? 0 : nt * (magic == "Tarnix3" ? 4 : 8)));
  o.fclex = next8(o.meta + nt * (magic == "TarLex1" ? 4 : 12));
  if (is_old(magic)) o.fclex += nt * 4;
  return o;
}

}  // namespace

ModelValue model_value(const tarnix::tsval& v) {
  const bool del = v.source == tarnix::DELETED_SOURCE;
  return ModelValue{v.timestamp, v.event_address, v.event_type, v.source, v.source_type, v.host, del};
}

tarnix::tsval to_tsval(const ModelValue& v) { return tarnix::tsval{v.ts, v.addr, v.et, v.src, v.stype, v.host}; }

ModelFile model_from_events(const std::vector<std::pair<std::string, tarnix::tsval>>& events) {
  std::map<uint32_t, tarnix::tsval> by_addr;
  for (const auto& e : events) by_addr.emplace(e.second.event_address, e.second);
  ModelFile m;
  for (const auto& kv : by_addr) m.values.push_back(model_value(kv.second));
  std::sort(m.values.begin(), m.values.end(), [](const ModelValue& a, const ModelValue& b) {
    return a.ts != b.ts ? a.ts > b.ts : a.addr > b.addr;
  });
  std::map<uint32_t, uint32_t> id_of;
  for (uint32_t i = 0; i < m.values.size(); ++i) id_of[m.values[i].addr] = i;
  std::map<std::string, std::vector<uint32_t>> lists;
  for (const auto& e : events) lists[e.first.substr(0, 2047)].push_back(id_of[e.second.event_address]);
  for (auto& [term, ids] : lists) {
    std::sort(ids.begin(), ids.end());
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    m.terms.push_back(ModelTerm{term, ids});
  }
  fill_metadata(m);
  return m;
}

void fill_metadata(ModelFile& m) {
  for (ModelTerm& t : m.terms) {
    t.count = static_cast<uint32_t>(t.ids.size());
    t.earliest = t.latest = 0;
    for (size_t k = 0; k < t.ids.size(); ++k) {
      const int32_t ts = m.values[t.ids[k]].ts;
      if (k == 0 || ts < t.earliest) t.earliest = ts;
      if (k == 0 || ts > t.latest) t.latest = ts;
    }
  }
}

std::vector<uint8_t> build_index_file(const ModelFile& m) {
  bytes f(64, 0);
  memcpy(f.data(), m.magic.c_str(), std::min<size_t>(8, m.magic.size() + 1));
  const uint32_t nv = static_cast<uint32_t>(m.values.size());
  const uint32_t nt = static_cast<uint32_t>(m.terms.size());
  uint32_t postings = 0, term_bytes = 0;
  for (const ModelTerm& t : m.terms) {
    postings += static_cast<uint32_t>(t.ids.size());
    term_bytes += static_cast<uint32_t>(t.term.size()) + 1;
  }
  uint32_t maxes[4] = {0, 0, 0, 0};
  for (const ModelValue& v : m.values) {
    maxes[0] = std::max(maxes[0], v.et);
    if (!v.deleted) maxes[1] = std::max(maxes[1], v.src);
    maxes[2] = std::max(maxes[2], v.stype);
    maxes[3] = std::max(maxes[3], v.host);
  }
  uint32_t nbits[5];
  for (int c = 0; c < 4; ++c) nbits[c] = m.nbits[c] != 0 ? m.nbits[c] : bits_for(maxes[c]);
  nbits[4] = 1;
  put32(f, 8, nv);
  put32(f, 12, postings);
  put32(f, 16, nt);
  for (int c = 0; c < 5; ++c) {
    put32(f, 20 + 4 * c, nbits[c] * (nv / 8 + 1));
    put32(f, 40 + 4 * c, nbits[c]);
  }
  for (uint32_t i = 0; i < nv; ++i) {
    put32(f, 64 + 8 * i, static_cast<uint32_t>(m.values[i].ts));
    put32(f, 68 + 8 * i, m.values[i].addr);
  }
  const Offsets o = offsets_from(f);
  f.resize(o.fclex, 0);
  for (uint32_t i = 0; i < nv; ++i) {
    const ModelValue& v = m.values[i];
    const uint32_t elems[5] = {v.et, v.deleted ? 0xFFFFFFFFu : v.src, v.stype, v.host, v.deleted ? 1u : 0u};
    for (int c = 0; c < 5; ++c) set_elem(f, o.col[c], i, nbits[c], elems[c]);
  }
  // Postings (gaps, and with runs a 0 then the count of consecutive ids
  // that follow), offset table and metadata.
  bytes pl;
  for (uint32_t t = 0; t < nt; ++t) {
    const ModelTerm& term = m.terms[t];
    uint32_t last = 0;
    for (size_t k = 0; k < term.ids.size();) {
      vbe(pl, term.ids[k] - last);
      last = term.ids[k++];
      uint32_t run = 0;
      while (m.runs && k < term.ids.size() && term.ids[k] == last + 1) last = term.ids[k++], ++run;
      if (run) pl.push_back(0), vbe(pl, run);
    }
    if (nv > 0) {
      if (m.magic == "Tarnix3") put32(f, o.plo + 4 * t, static_cast<uint32_t>(pl.size()));
      else put64(f, o.plo + 8 * t, pl.size());
    }
    put32(f, o.meta + 12 * t, term.count);
    put32(f, o.meta + 12 * t + 4, static_cast<uint32_t>(term.earliest));
    put32(f, o.meta + 12 * t + 8, static_cast<uint32_t>(term.latest));
  }
  // The older per-term table of versions 3 to 5: never read, filled with a
  // recognisable pattern so that a reader that does look at it stands out.
  if (is_old(m.magic)) std::fill(f.end() - 4 * nt, f.end(), 0xA5);
  std::vector<std::string> names;
  for (const ModelTerm& t : m.terms) names.push_back(t.term);
  bytes lex = encode_lexicon(names, m.tperb, term_bytes);
  f.insert(f.end(), lex.begin(), lex.end());
  if (is_old(m.magic)) {
    f.resize(next4(f.size()), 0);
    std::vector<std::string> rev;
    for (const std::string& s : names) rev.emplace_back(s.rbegin(), s.rend());
    std::sort(rev.begin(), rev.end());
    lex = encode_lexicon(rev, m.tperb, term_bytes);
    f.insert(f.end(), lex.begin(), lex.end());
  }
  f.insert(f.end(), pl.begin(), pl.end());
  return f;
}

std::vector<uint8_t> build_lexicon_file(const std::vector<std::string>& terms, const std::vector<uint32_t>& counts,
                                        uint32_t tperb) {
  bytes f(64, 0);
  memcpy(f.data(), "TarLex1", 8);
  put32(f, 16, static_cast<uint32_t>(terms.size()));
  const Offsets o = offsets_from(f);
  f.resize(o.fclex, 0);
  for (size_t t = 0; t < counts.size(); ++t) put32(f, o.meta + 4 * t, counts[t]);
  uint32_t term_bytes = 0;
  for (const std::string& t : terms) term_bytes += static_cast<uint32_t>(t.size()) + 1;
  const bytes lex = encode_lexicon(terms, tperb, term_bytes);
  f.insert(f.end(), lex.begin(), lex.end());
  return f;
}

ModelLayout layout_of(const std::vector<uint8_t>& b) {
  const Offsets o = offsets_from(b);
  std::string err;
  uint64_t end = o.fclex + lex_decode(b.data() + o.fclex, b.size() - o.fclex, nullptr, &err);
  if (is_old(magic_of(b))) {
    end = next4(end);
    end += lex_decode(b.data() + end, b.size() - end, nullptr, &err);
  }
  return ModelLayout{64, o.col[0], o.plo, o.meta, o.fclex, end, b.size()};
}

std::vector<std::string> decode_lexicon(const uint8_t* p, size_t avail) {
  std::vector<std::string> terms;
  std::string err;
  if (lex_decode(p, avail, &terms, &err) == 0) return {};
  return terms;
}

uint64_t lexicon_size(const uint8_t* p) {
  const uint32_t count = get32(p), tperb = get32(p + 4);
  if (count == 0) return 12;
  const uint64_t blocks = (uint64_t{count} + tperb - 1) / tperb;
  return 12 + 4 * blocks + get32(p + 12 + 4 * (blocks - 1));
}

ModelFile parse_index_file(const std::vector<uint8_t>& b, std::string* error) {
  ModelFile m;
  error->clear();
  if (b.size() < 64) {
    *error = "short header";
    return m;
  }
  m.magic = magic_of(b);
  const uint32_t nv = get32(b, 8), nt = get32(b, 16);
  m.num_postings = get32(b, 12);
  const Offsets o = offsets_from(b);
  if (o.fclex > b.size()) {
    *error = "fixed part beyond the file";
    return m;
  }
  uint32_t nbits[5];
  for (int c = 0; c < 5; ++c) nbits[c] = get32(b, 40 + 4 * c);
  for (int c = 0; c < 4; ++c) m.nbits[c] = nbits[c];
  for (uint32_t i = 0; i < nv; ++i) {
    ModelValue v{static_cast<int32_t>(get32(b, 64 + 8 * i)), get32(b, 68 + 8 * i)};
    v.et = get_elem(b, o.col[0], i, nbits[0]);
    v.src = get_elem(b, o.col[1], i, nbits[1]);
    v.stype = get_elem(b, o.col[2], i, nbits[2]);
    v.host = get_elem(b, o.col[3], i, nbits[3]);
    v.deleted = get_elem(b, o.col[4], i, nbits[4]) == 1;
    if (v.deleted) v.src = 0xFFFFFFFFu;
    m.values.push_back(v);
  }
  std::vector<std::string> names;
  const uint64_t lex_size = lex_decode(b.data() + o.fclex, b.size() - o.fclex, &names, error);
  if (lex_size == 0) return m;
  if (names.size() != nt) {
    *error = "lexicon term count differs from header";
    return m;
  }
  m.tperb = get32(b, o.fclex + 4);
  uint64_t postings = o.fclex + lex_size;
  if (is_old(m.magic)) {
    postings = next4(postings);
    if (postings > b.size()) {
      *error = "reverse lexicon beyond the file";
      return m;
    }
    const uint64_t r = lex_decode(b.data() + postings, b.size() - postings, nullptr, error);
    if (r == 0) return m;
    postings += r;
  }
  uint64_t start = 0;
  for (uint32_t t = 0; t < nt; ++t) {
    ModelTerm term{names[t], {}, get32(b, o.meta + 12 * t), static_cast<int32_t>(get32(b, o.meta + 12 * t + 4)),
                   static_cast<int32_t>(get32(b, o.meta + 12 * t + 8))};
    const uint64_t end = nv == 0 ? 0 : m.magic == "Tarnix3" ? get32(b, o.plo + 4 * t) : get64(b, o.plo + 8 * t);
    if (end < start || postings + end > b.size()) {
      *error = "bad offset table entry";
      return m;
    }
    const uint8_t* p = b.data() + postings + start;
    const uint8_t* lim = b.data() + postings + end;
    uint32_t cur = 0;
    while (p < lim) {
      uint32_t x;
      const bool run = !term.ids.empty() && *p == 0;
      if (run) ++p;
      if (!unvbe(p, lim, &x)) {
        *error = run ? "bad run" : "bad gap";
        return m;
      }
      if (!run) term.ids.push_back(cur += x);
      for (uint32_t k = 0; run && k < x; ++k) term.ids.push_back(++cur);
    }
    start = end;
    m.terms.push_back(term);
  }
  if (postings + start != b.size()) *error = "postings do not end the file";
  return m;
}

void PrintTo(const ModelValue& v, std::ostream* os) {
  *os << "{" << v.ts << "/" << v.addr << " et=" << v.et << " src=" << v.src << " st=" << v.stype << " h=" << v.host
      << (v.deleted ? " deleted" : "") << "}";
}

void PrintTo(const ModelTerm& t, std::ostream* os) {
  *os << "{" << (t.term.size() > 40 ? t.term.substr(0, 20) + "..." + t.term.substr(t.term.size() - 10) : t.term)
      << " n=" << t.count << " [" << t.earliest << "," << t.latest << "] ids:";
  for (size_t k = 0; k < t.ids.size() && k < 20; ++k) *os << " " << t.ids[k];
  if (t.ids.size() > 20) *os << " ...";
  *os << "}";
}

}  // namespace testutil
