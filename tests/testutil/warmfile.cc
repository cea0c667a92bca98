#include "testutil/warmfile.h"

#include <algorithm>
#include <cstring>
#include <map>

#include "searchthing/codes.h"

namespace testutil {

namespace {

void put32(std::vector<uint8_t>& b, uint32_t v) {
  uint8_t t[4];
  tarnix::store_be32(t, v);
  b.insert(b.end(), t, t + 4);
}
void put64(std::vector<uint8_t>& b, uint64_t v) {
  uint8_t t[8];
  tarnix::store_be64(t, v);
  b.insert(b.end(), t, t + 8);
}
void put_vbe(std::vector<uint8_t>& b, uint32_t v) {
  uint8_t t[5];
  const uint32_t n = tarnix::st_encode_to_vbe(t, v);
  b.insert(b.end(), t, t + n);
}
// Pads to the first multiple of 8 strictly above the current size.
void pad8(std::vector<uint8_t>& b) { b.resize(tarnix::next8(b.size()), 0); }

uint32_t lcp(const std::string& a, const std::string& b) {
  uint32_t n = 0;
  while (n < a.size() && n < b.size() && a[n] == b[n]) ++n;
  return n;
}

std::vector<uint8_t> column(const std::vector<tarnix::tsval>& values, uint32_t tarnix::tsval::*field,
                            uint32_t nbits, bool deleted_flag) {
  std::vector<uint8_t> c(tarnix::column_size(values.size(), nbits), 0);
  for (size_t i = 0; i < values.size(); ++i) {
    const uint32_t v = deleted_flag ? (values[i].source == tarnix::DELETED_SOURCE ? 1u : 0u) : values[i].*field;
    tarnix::encode_to_byte_str(c.data(), v, static_cast<uint32_t>(i), nbits);
  }
  return c;
}

}  // namespace

index_recipe recipe_from_events(const std::vector<std::pair<std::string, tarnix::tsval>>& events) {
  std::map<uint32_t, tarnix::tsval> by_addr;
  for (const auto& e : events) by_addr.emplace(e.second.event_address, e.second);
  index_recipe recipe;
  for (const auto& kv : by_addr) recipe.values.push_back(kv.second);
  std::sort(recipe.values.begin(), recipe.values.end(), [](const tarnix::tsval& a, const tarnix::tsval& b) {
    if (a.timestamp != b.timestamp) return a.timestamp > b.timestamp;
    return a.event_address > b.event_address;
  });
  std::map<uint32_t, uint32_t> id_of;
  for (uint32_t i = 0; i < recipe.values.size(); ++i) id_of[recipe.values[i].event_address] = i;
  std::map<std::string, std::vector<uint32_t>> lists;
  for (const auto& e : events) {
    std::string t = e.first.substr(0, 2047);
    lists[t].push_back(id_of[e.second.event_address]);
  }
  for (auto& kv : lists) {
    std::sort(kv.second.begin(), kv.second.end());
    kv.second.erase(std::unique(kv.second.begin(), kv.second.end()), kv.second.end());
    recipe.terms.push_back(built_term{kv.first, kv.second});
  }
  return recipe;
}

std::vector<uint8_t> build_lexicon(const std::vector<std::string>& terms, uint32_t tperb,
                                   uint32_t uncompressed_size) {
  const uint32_t count = static_cast<uint32_t>(terms.size());
  const uint32_t blocks = (count + tperb - 1) / tperb;
  std::vector<uint8_t> area;
  std::vector<uint32_t> ends;
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t j = i % tperb;
    const std::string& t = terms[i];
    if (j == 0) {
      if (i > 0) ends.push_back(static_cast<uint32_t>(area.size()));
      put_vbe(area, static_cast<uint32_t>(t.size()));
      area.insert(area.end(), t.begin(), t.end());
      continue;
    }
    const uint32_t p = lcp(terms[i - 1], t);
    put_vbe(area, p);
    if (j != tperb - 1) put_vbe(area, static_cast<uint32_t>(t.size()) - p);
    area.insert(area.end(), t.begin() + p, t.end());
  }
  ends.push_back(static_cast<uint32_t>(area.size()));
  std::vector<uint8_t> out;
  put32(out, count);
  put32(out, tperb);
  put32(out, uncompressed_size);
  for (uint32_t b = 0; b < blocks; ++b) put32(out, ends[b]);
  out.insert(out.end(), area.begin(), area.end());
  return out;
}

uint64_t lexicon_size(const uint8_t* p) {
  const uint32_t count = tarnix::load_be32(p);
  const uint32_t tperb = tarnix::load_be32(p + 4);
  const uint32_t blocks = (count + tperb - 1) / tperb;
  return 12ull + 4ull * blocks + tarnix::load_be32(p + 12 + 4 * (blocks - 1));
}

std::vector<std::string> decode_lexicon(const uint8_t* p, size_t avail) {
  std::vector<std::string> out;
  if (avail < 16) return {};
  const uint32_t count = tarnix::load_be32(p);
  const uint32_t tperb = tarnix::load_be32(p + 4);
  if (count == 0 || tperb == 0) return {};
  const uint32_t blocks = (count + tperb - 1) / tperb;
  if (12ull + 4ull * blocks > avail || lexicon_size(p) > avail) return {};
  const uint8_t* area = p + 12 + 4 * blocks;
  std::string prev;
  for (uint32_t b = 0; b < blocks; ++b) {
    const uint32_t start = b == 0 ? 0 : tarnix::load_be32(p + 12 + 4 * (b - 1));
    const uint32_t end = tarnix::load_be32(p + 12 + 4 * b);
    const uint8_t* q = area + start;
    const uint8_t* lim = area + end;
    for (uint32_t j = 0; j < tperb && out.size() < count; ++j) {
      uint32_t a = 0, l = 0, n;
      if (j == 0) {
        if ((n = tarnix::vbe_get(q, lim, &l)) == 0 || l > static_cast<uint32_t>(lim - q - n)) return {};
        q += n;
        prev.assign(reinterpret_cast<const char*>(q), l);
        q += l;
      } else {
        if ((n = tarnix::vbe_get(q, lim, &a)) == 0 || a > prev.size()) return {};
        q += n;
        if (j == tperb - 1) {
          l = static_cast<uint32_t>(lim - q);
        } else if ((n = tarnix::vbe_get(q, lim, &l)) == 0) {
          return {};
        } else {
          q += n;
        }
        if (l > static_cast<uint32_t>(lim - q)) return {};
        prev = prev.substr(0, a) + std::string(reinterpret_cast<const char*>(q), l);
        q += l;
      }
      out.push_back(prev);
    }
  }
  return out;
}

std::vector<uint8_t> encode_postings(const std::vector<uint32_t>& ids, bool runs) {
  std::vector<uint8_t> out;
  uint32_t last = 0;
  size_t i = 0;
  while (i < ids.size()) {
    put_vbe(out, ids[i] - last);
    last = ids[i];
    ++i;
    if (!runs) continue;
    uint32_t k = 0;
    while (i < ids.size() && ids[i] == last + 1) {
      ++k;
      last = ids[i++];
    }
    if (k > 0) {
      out.push_back(0);
      put_vbe(out, k);
    }
  }
  return out;
}

std::vector<uint32_t> decode_postings(const uint8_t* p, size_t n) {
  std::vector<uint32_t> out;
  const uint8_t* lim = p + n;
  uint32_t cur = 0;
  while (p < lim) {
    uint32_t v = 0, c;
    if (!out.empty() && *p == 0) {
      if ((c = tarnix::vbe_get(p + 1, lim, &v)) == 0) return out;
      p += 1 + c;
      for (uint32_t k = 0; k < v; ++k) out.push_back(++cur);
    } else {
      if ((c = tarnix::vbe_get(p, lim, &v)) == 0) return out;
      p += c;
      cur += v;
      out.push_back(cur);
    }
  }
  return out;
}

std::vector<uint8_t> build_index_file(const index_recipe& recipe) {
  using tarnix::tsval;
  const bool v3 = recipe.magic == "Tarnix3";
  const bool reverse = recipe.magic != "Tarnix6" && recipe.magic != "TarLex1";
  const uint32_t nv = static_cast<uint32_t>(recipe.values.size());
  const uint32_t nt = static_cast<uint32_t>(recipe.terms.size());
  uint32_t largest[4] = {0, 0, 0, 0};
  for (const tsval& v : recipe.values) {
    largest[0] = std::max(largest[0], v.event_type);
    if (v.source != tarnix::DELETED_SOURCE) largest[1] = std::max(largest[1], v.source);
    largest[2] = std::max(largest[2], v.source_type);
    largest[3] = std::max(largest[3], v.host);
  }
  uint32_t nbits[4];
  for (int i = 0; i < 4; ++i) nbits[i] = tarnix::log2n(largest[i]);
  std::vector<uint8_t> cols[5] = {
      column(recipe.values, &tsval::event_type, nbits[0], false),
      column(recipe.values, &tsval::source, nbits[1], false),
      column(recipe.values, &tsval::source_type, nbits[2], false),
      column(recipe.values, &tsval::host, nbits[3], false),
      column(recipe.values, &tsval::source, 1, true),
  };
  std::vector<std::vector<uint8_t>> lists;
  uint64_t num_postings = 0;
  for (const built_term& t : recipe.terms) {
    lists.push_back(encode_postings(t.ids, recipe.runs));
    num_postings += t.ids.size();
  }

  std::vector<uint8_t> f(8, 0);
  memcpy(f.data(), recipe.magic.data(), std::min<size_t>(recipe.magic.size(), 7));
  put32(f, nv);
  put32(f, static_cast<uint32_t>(num_postings));
  put32(f, nt);
  for (int i = 0; i < 5; ++i) put32(f, static_cast<uint32_t>(cols[i].size()));
  for (int i = 0; i < 4; ++i) put32(f, nbits[i]);
  put32(f, 1);
  f.resize(64, 0);
  for (const tsval& v : recipe.values) {
    put32(f, static_cast<uint32_t>(v.timestamp));
    put32(f, v.event_address);
  }
  for (const auto& c : cols) {
    pad8(f);
    f.insert(f.end(), c.begin(), c.end());
  }
  pad8(f);
  uint64_t end = 0;
  for (size_t t = 0; t < nt && nv > 0; ++t) {
    end += lists[t].size();
    if (v3) {
      put32(f, static_cast<uint32_t>(end));
    } else {
      put64(f, end);
    }
  }
  pad8(f);
  for (const built_term& t : recipe.terms) {
    int32_t earliest = 0, latest = 0;
    for (size_t k = 0; k < t.ids.size(); ++k) {
      const int32_t ts = recipe.values[t.ids[k]].timestamp;
      if (k == 0 || ts < earliest) earliest = ts;
      if (k == 0 || ts > latest) latest = ts;
    }
    put32(f, static_cast<uint32_t>(t.ids.size()));
    put32(f, static_cast<uint32_t>(earliest));
    put32(f, static_cast<uint32_t>(latest));
  }
  pad8(f);
  // The older per-term table of versions 3 to 5: never read, filled with a
  // recognisable pattern so that a reader that does look at it stands out.
  if (reverse) f.resize(f.size() + 4ull * nt, 0xA5);
  std::vector<std::string> names;
  uint32_t term_bytes = 0;
  for (const built_term& t : recipe.terms) {
    names.push_back(t.term);
    term_bytes += static_cast<uint32_t>(t.term.size()) + 1;
  }
  const std::vector<uint8_t> lex = build_lexicon(names, recipe.tperb, term_bytes);
  f.insert(f.end(), lex.begin(), lex.end());
  if (reverse) {
    std::vector<std::string> rev;
    for (const std::string& s : names) rev.emplace_back(s.rbegin(), s.rend());
    std::sort(rev.begin(), rev.end());
    f.resize((f.size() + 3) & ~static_cast<size_t>(3), 0);
    const std::vector<uint8_t> rlex = build_lexicon(rev, recipe.tperb, term_bytes);
    f.insert(f.end(), rlex.begin(), rlex.end());
  }
  for (const auto& l : lists) f.insert(f.end(), l.begin(), l.end());
  return f;
}

}  // namespace testutil
