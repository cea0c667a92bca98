#include "testutil/oldformat_merge.h"

#include <algorithm>
#include <cstring>

namespace testutil {

namespace {

using bytes = std::vector<uint8_t>;

void put32(bytes& b, uint64_t off, uint32_t v) {
  if (b.size() < off + 4) b.resize(off + 4);
  for (int i = 0; i < 4; ++i) b[off + i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}
void put64(bytes& b, uint64_t off, uint64_t v) {
  put32(b, off, static_cast<uint32_t>(v >> 32));
  put32(b, off + 4, static_cast<uint32_t>(v));
}
uint32_t get32(const bytes& b, uint64_t off) {
  uint32_t v = 0;
  for (int i = 0; i < 4; ++i) v = (v << 8) | b[off + i];
  return v;
}
uint64_t get64(const bytes& b, uint64_t off) { return (uint64_t{get32(b, off)} << 32) | get32(b, off + 4); }
void vbe(bytes& b, uint32_t v) {
  while (v >= 0x80) {
    b.push_back(static_cast<uint8_t>((v & 0x7F) | 0x80));
    v >>= 7;
  }
  b.push_back(static_cast<uint8_t>(v));
}
// Bounded VBE decode; false on a bad or truncated code.
bool unvbe(const bytes& b, uint64_t& pos, uint64_t end, uint32_t* out) {
  uint64_t v = 0;
  for (int i = 0; i < 5; ++i) {
    if (pos >= end) return false;
    uint8_t c = b[pos++];
    v |= uint64_t{c & 0x7Fu} << (7 * i);
    if (!(c & 0x80)) {
      *out = static_cast<uint32_t>(v);
      return true;
    }
  }
  return false;
}
uint64_t next8(uint64_t x) { return x + 8 - x % 8; }
uint32_t bits_for(uint32_t v) {
  uint32_t n = 1;
  while (n < 32 && (v >> n) != 0) ++n;
  return n;
}
void set_elem(bytes& b, uint64_t base, uint32_t idx, uint32_t nbits, uint32_t v) {
  for (uint32_t j = 0; j < nbits; ++j) {
    uint64_t bit = uint64_t{idx} * nbits + j;
    uint8_t& byte = b[base + bit / 8];
    if ((v >> j) & 1) byte |= static_cast<uint8_t>(1u << (bit % 8));
    else byte &= static_cast<uint8_t>(~(1u << (bit % 8)));
  }
}
uint32_t get_elem(const bytes& b, uint64_t base, uint32_t idx, uint32_t nbits) {
  uint32_t v = 0;
  for (uint32_t j = 0; j < nbits && j < 32; ++j) {
    uint64_t bit = uint64_t{idx} * nbits + j;
    if ((b[base + bit / 8] >> (bit % 8)) & 1) v |= 1u << j;
  }
  return v;
}
bool is_old(const std::string& magic) { return magic == "Tarnix3" || magic == "Tarnix4" || magic == "Tarnix5"; }

bytes encode_lexicon(const std::vector<std::string>& terms, uint32_t tperb) {
  bytes blocks;
  std::vector<uint32_t> ends;
  uint64_t uncompressed = 0;
  for (size_t i = 0; i < terms.size(); ++i) {
    const std::string& t = terms[i];
    uncompressed += t.size();
    uint32_t j = static_cast<uint32_t>(i % tperb);
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
  put32(s, 8, static_cast<uint32_t>(uncompressed));
  for (size_t b = 0; b < ends.size(); ++b) put32(s, 12 + 4 * b, ends[b]);
  s.insert(s.end(), blocks.begin(), blocks.end());
  return s;
}

// Decodes the lexicon section at off; returns its size, 0 on bad bytes.
uint64_t decode_lexicon(const bytes& b, uint64_t off, std::vector<std::string>* terms, std::string* error) {
  if (off + 12 > b.size()) {
    *error = "lexicon header beyond the file";
    return 0;
  }
  const uint32_t n = get32(b, off), tperb = get32(b, off + 4);
  if (n == 0) return 12;
  if (tperb == 0) {
    *error = "lexicon tperb 0";
    return 0;
  }
  const uint64_t nb = (uint64_t{n} + tperb - 1) / tperb;
  const uint64_t base = off + 12 + 4 * nb;
  if (base > b.size()) {
    *error = "lexicon offsets beyond the file";
    return 0;
  }
  uint64_t start = 0;
  for (uint64_t blk = 0; blk < nb; ++blk) {
    const uint64_t end = get32(b, off + 12 + 4 * blk);
    if (end < start || base + end > b.size()) {
      *error = "bad block end";
      return 0;
    }
    uint64_t pos = base + start;
    std::string prev;
    for (uint32_t j = 0; j < tperb && blk * tperb + j < n; ++j) {
      uint32_t l, p;
      if (j == 0) {
        if (!unvbe(b, pos, base + end, &l) || pos + l > base + end) {
          *error = "bad first term";
          return 0;
        }
        prev.assign(reinterpret_cast<const char*>(&b[pos]), l);
        pos += l;
      } else {
        if (!unvbe(b, pos, base + end, &p) || p > prev.size()) {
          *error = "bad prefix";
          return 0;
        }
        if (j < tperb - 1) {
          if (!unvbe(b, pos, base + end, &l)) {
            *error = "bad suffix length";
            return 0;
          }
        } else {
          l = static_cast<uint32_t>(base + end - pos);
        }
        if (pos + l > base + end) {
          *error = "suffix past block";
          return 0;
        }
        prev = prev.substr(0, p) + std::string(reinterpret_cast<const char*>(&b[pos]), l);
        pos += l;
      }
      if (terms) terms->push_back(prev);
    }
    start = end;
  }
  return 12 + 4 * nb + start;
}

struct Offsets {
  uint64_t et, s, st, h, d, plo, meta, fclex;
};
Offsets offsets_from(const bytes& b) {
  Offsets o;
  const std::string magic(reinterpret_cast<const char*>(b.data()));
  const uint64_t nv = get32(b, 8), nt = get32(b, 16);
  o.et = next8(64 + 8 * nv);
  o.s = next8(o.et + get32(b, 20));
  o.st = next8(o.s + get32(b, 24));
  o.h = next8(o.st + get32(b, 28));
  o.d = next8(o.h + get32(b, 32));
  o.plo = next8(o.d + get32(b, 36));
  o.meta = next8(o.plo + (nv == 0 ? 0 : nt * (magic == "Tarnix3" ? 4 : 8)));
  o.fclex = next8(o.meta + nt * (magic == "TarLex1" ? 4 : 12));
  if (is_old(magic)) o.fclex += nt * 4;
  return o;
}

}  // namespace

void fill_metadata(ModelFile& m) {
  for (ModelTerm& t : m.terms) {
    t.count = static_cast<uint32_t>(t.ids.size());
    t.earliest = 0x7FFFFFFF;
    t.latest = static_cast<int32_t>(0x80000000u);
    for (uint32_t id : t.ids) {
      t.earliest = std::min(t.earliest, m.values[id].ts);
      t.latest = std::max(t.latest, m.values[id].ts);
    }
  }
}

std::vector<uint8_t> build_index_file(const ModelFile& m) {
  bytes f(64, 0);
  memcpy(f.data(), m.magic.c_str(), std::min<size_t>(8, m.magic.size() + 1));
  const uint32_t nv = static_cast<uint32_t>(m.values.size());
  const uint32_t nt = static_cast<uint32_t>(m.terms.size());
  uint32_t postings = 0;
  for (const ModelTerm& t : m.terms) postings += static_cast<uint32_t>(t.ids.size());
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
  const uint64_t col_off[5] = {o.et, o.s, o.st, o.h, o.d};
  f.resize(o.fclex, 0);
  for (uint32_t i = 0; i < nv; ++i) {
    const ModelValue& v = m.values[i];
    const uint32_t elems[5] = {v.et, v.deleted ? 0xFFFFFFFFu : v.src, v.stype, v.host, v.deleted ? 1u : 0u};
    for (int c = 0; c < 5; ++c) set_elem(f, col_off[c], i, nbits[c], elems[c]);
  }
  // Postings, offset table and metadata.
  bytes pl;
  for (uint32_t t = 0; t < nt; ++t) {
    const ModelTerm& term = m.terms[t];
    uint32_t last = 0, run = 0;
    for (size_t k = 0; k < term.ids.size(); ++k) {
      uint32_t v = term.ids[k];
      if (m.runs && k > 0 && v == last + 1) {
        ++run;
      } else {
        if (run) {
          pl.push_back(0);
          vbe(pl, run);
          run = 0;
        }
        vbe(pl, v - last);
      }
      last = v;
    }
    if (run) {
      pl.push_back(0);
      vbe(pl, run);
    }
    if (nv > 0) {
      if (m.magic == "Tarnix3") put32(f, o.plo + 4 * t, static_cast<uint32_t>(pl.size()));
      else put64(f, o.plo + 8 * t, pl.size());
    }
    put32(f, o.meta + 12 * t, term.count);
    put32(f, o.meta + 12 * t + 4, static_cast<uint32_t>(term.earliest));
    put32(f, o.meta + 12 * t + 8, static_cast<uint32_t>(term.latest));
  }
  if (is_old(m.magic)) {
    for (uint64_t k = o.fclex - 4 * uint64_t{nt}; k < o.fclex; ++k) f[k] = 0xAB;  // skipped by readers
  }
  std::vector<std::string> names;
  for (const ModelTerm& t : m.terms) names.push_back(t.term);
  bytes lex = encode_lexicon(names, m.tperb);
  f.insert(f.end(), lex.begin(), lex.end());
  if (is_old(m.magic)) {
    f.resize((f.size() + 3) & ~size_t{3}, 0);
    std::vector<std::string> rev;
    for (const std::string& s : names) rev.emplace_back(s.rbegin(), s.rend());
    std::sort(rev.begin(), rev.end());
    bytes rlex = encode_lexicon(rev, m.tperb);
    f.insert(f.end(), rlex.begin(), rlex.end());
  }
  f.insert(f.end(), pl.begin(), pl.end());
  return f;
}

ModelLayout layout_of(const std::vector<uint8_t>& b) {
  const Offsets o = offsets_from(b);
  ModelLayout l{64, o.et, o.plo, o.meta, o.fclex, 0, b.size()};
  std::string err;
  uint64_t end = o.fclex + decode_lexicon(b, o.fclex, nullptr, &err);
  if (is_old(std::string(reinterpret_cast<const char*>(b.data())))) {
    end = (end + 3) & ~uint64_t{3};
    end += decode_lexicon(b, end, nullptr, &err);
  }
  l.postings = end;
  return l;
}

ModelFile parse_index_file(const std::vector<uint8_t>& b, std::string* error) {
  ModelFile m;
  error->clear();
  if (b.size() < 64) {
    *error = "short header";
    return m;
  }
  m.magic = std::string(reinterpret_cast<const char*>(b.data()), strnlen(reinterpret_cast<const char*>(b.data()), 8));
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
  const uint64_t col_off[5] = {o.et, o.s, o.st, o.h, o.d};
  for (uint32_t i = 0; i < nv; ++i) {
    ModelValue v{static_cast<int32_t>(get32(b, 64 + 8 * i)), get32(b, 68 + 8 * i)};
    v.et = get_elem(b, col_off[0], i, nbits[0]);
    v.src = get_elem(b, col_off[1], i, nbits[1]);
    v.stype = get_elem(b, col_off[2], i, nbits[2]);
    v.host = get_elem(b, col_off[3], i, nbits[3]);
    v.deleted = get_elem(b, col_off[4], i, nbits[4]) == 1;
    if (v.deleted) v.src = 0xFFFFFFFFu;
    m.values.push_back(v);
  }
  std::vector<std::string> names;
  uint64_t lex_size = decode_lexicon(b, o.fclex, &names, error);
  if (lex_size == 0) return m;
  if (names.size() != nt) {
    *error = "lexicon term count differs from header";
    return m;
  }
  m.tperb = get32(b, o.fclex + 4);
  uint64_t postings = o.fclex + lex_size;
  if (is_old(m.magic)) {
    postings = (postings + 3) & ~uint64_t{3};
    uint64_t r = decode_lexicon(b, postings, nullptr, error);
    if (r == 0) return m;
    postings += r;
  }
  const bool plo32 = m.magic == "Tarnix3";
  uint64_t start = 0;
  for (uint32_t t = 0; t < nt; ++t) {
    ModelTerm term;
    term.term = names[t];
    term.count = get32(b, o.meta + 12 * t);
    term.earliest = static_cast<int32_t>(get32(b, o.meta + 12 * t + 4));
    term.latest = static_cast<int32_t>(get32(b, o.meta + 12 * t + 8));
    const uint64_t end = nv == 0 ? 0 : plo32 ? get32(b, o.plo + 4 * t) : get64(b, o.plo + 8 * t);
    if (end < start || postings + end > b.size()) {
      *error = "bad offset table entry";
      return m;
    }
    uint64_t pos = postings + start;
    uint32_t cur = 0;
    while (pos < postings + end) {
      uint32_t x;
      if (!term.ids.empty() && b[pos] == 0) {
        ++pos;
        if (!unvbe(b, pos, postings + end, &x)) {
          *error = "bad run";
          return m;
        }
        for (uint32_t k = 0; k < x; ++k) term.ids.push_back(++cur);
      } else {
        if (!unvbe(b, pos, postings + end, &x)) {
          *error = "bad gap";
          return m;
        }
        cur += x;
        term.ids.push_back(cur);
      }
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
