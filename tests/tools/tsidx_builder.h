// A small, independent writer of index files for the tool tests: it lays a
// file out byte by byte from a list of values and a list of terms with
// their posting ids, and remembers where every piece went, so that a test
// can corrupt exactly one field and know which section it hit.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "searchthing/codes.h"
#include "searchthing/warmslice_util.h"

namespace toolstest {

using namespace tarnix;

struct tvalue {
  int32_t ts;
  uint32_t addr, et, src, st, host;
};

struct tterm {
  std::string term;
  std::vector<uint32_t> ids;  // ascending
};

struct built_file {
  std::vector<uint8_t> bytes;
  warm_offsets off{};
  uint64_t lex_off = 0, lex_blocks_off = 0, lex_end = 0, postings_off = 0;
  std::vector<uint64_t> block_starts;  // file offsets of the blocks
  std::vector<uint64_t> list_starts;   // file offsets of the posting lists
};

inline void put_vbe(std::vector<uint8_t>& out, uint32_t v) {
  uint8_t b[5];
  const uint32_t n = st_encode_to_vbe(b, v);
  out.insert(out.end(), b, b + n);
}

// A lexicon section of the terms at tperb terms per block.
inline std::vector<uint8_t> build_lexicon(const std::vector<std::string>& terms, uint32_t tperb,
                                          std::vector<uint32_t>* block_starts = nullptr) {
  std::vector<uint8_t> blocks;
  std::vector<uint32_t> ends;
  uint32_t usize = 0;
  for (size_t t = 0; t < terms.size(); ++t) {
    const uint32_t j = static_cast<uint32_t>(t % tperb);
    const std::string& s = terms[t];
    usize += static_cast<uint32_t>(s.size());
    if (j == 0) {
      if (t > 0) ends.push_back(static_cast<uint32_t>(blocks.size()));
      if (block_starts) block_starts->push_back(static_cast<uint32_t>(blocks.size()));
      put_vbe(blocks, static_cast<uint32_t>(s.size()));
      blocks.insert(blocks.end(), s.begin(), s.end());
      continue;
    }
    const std::string& p = terms[t - 1];
    uint32_t lcp = 0;
    while (lcp < p.size() && lcp < s.size() && p[lcp] == s[lcp]) ++lcp;
    put_vbe(blocks, lcp);
    if (j < tperb - 1) put_vbe(blocks, static_cast<uint32_t>(s.size() - lcp));
    blocks.insert(blocks.end(), s.begin() + lcp, s.end());
  }
  ends.push_back(static_cast<uint32_t>(blocks.size()));
  std::vector<uint8_t> sec(12 + 4 * ends.size());
  store_be32(sec.data(), static_cast<uint32_t>(terms.size()));
  store_be32(sec.data() + 4, tperb);
  store_be32(sec.data() + 8, usize);
  for (size_t b = 0; b < ends.size(); ++b) store_be32(sec.data() + 12 + 4 * b, ends[b]);
  sec.insert(sec.end(), blocks.begin(), blocks.end());
  return sec;
}

// A posting list; with runs, consecutive ids after the first use the run form.
inline std::vector<uint8_t> build_list(const std::vector<uint32_t>& ids, bool runs) {
  std::vector<uint8_t> out;
  uint32_t last = 0;
  for (size_t i = 0; i < ids.size();) {
    if (runs && i > 0 && ids[i] == last + 1) {
      uint32_t k = 0;
      while (i < ids.size() && ids[i] == last + 1) {
        last = ids[i];
        ++k;
        ++i;
      }
      out.push_back(0);
      put_vbe(out, k);
      continue;
    }
    put_vbe(out, ids[i] - (i == 0 ? 0 : last));
    last = ids[i];
    ++i;
  }
  return out;
}

// The whole file. values must be in file order (latest first), terms
// ascending. magic: "Tarnix3".."Tarnix6" (versions 3 to 5 get a zero
// per-term table and a reverse lexicon copy).
inline built_file build_index(const std::vector<tvalue>& values, const std::vector<tterm>& terms, uint32_t tperb,
                              bool runs, const char* magic = MAGIC_V6) {
  built_file f;
  warm_header h{};
  _set_magic(&h, magic);
  const uint32_t nv = static_cast<uint32_t>(values.size());
  const uint32_t nt = static_cast<uint32_t>(terms.size());
  uint32_t np = 0;
  for (const tterm& t : terms) np += static_cast<uint32_t>(t.ids.size());
  uint32_t mx[4] = {0, 0, 0, 0};
  for (const tvalue& v : values) {
    mx[0] = std::max(mx[0], v.et);
    mx[1] = std::max(mx[1], v.src);
    mx[2] = std::max(mx[2], v.st);
    mx[3] = std::max(mx[3], v.host);
  }
  const hdr_field nb[4] = {HDR_ET_NBITS, HDR_S_NBITS, HDR_ST_NBITS, HDR_H_NBITS};
  const hdr_field sz[4] = {HDR_ET_SIZE, HDR_S_SIZE, HDR_ST_SIZE, HDR_H_SIZE};
  for (int c = 0; c < 4; ++c) {
    hdr_set(&h, nb[c], log2n(mx[c]));
    hdr_set(&h, sz[c], static_cast<uint32_t>(column_size(nv, log2n(mx[c]))));
  }
  hdr_set(&h, HDR_D_NBITS, 1);
  hdr_set(&h, HDR_D_SIZE, static_cast<uint32_t>(column_size(nv, 1)));
  hdr_set(&h, HDR_NUM_VALUES, nv);
  hdr_set(&h, HDR_NUM_TERMS, nt);
  hdr_set(&h, HDR_NUM_POSTINGS, np);
  _get_warm_slice_offsets(&h, &f.off);
  std::vector<uint8_t>& b = f.bytes;
  b.assign(f.off.fclex, 0);
  memcpy(b.data(), h.b, WARM_HEADER_SZ);
  uint8_t* cols[5] = {b.data() + f.off.et, b.data() + f.off.s, b.data() + f.off.st, b.data() + f.off.h,
                      b.data() + f.off.d};
  for (uint32_t i = 0; i < nv; ++i) {
    const tvalue& v = values[i];
    store_be32(b.data() + 64 + 8 * i, static_cast<uint32_t>(v.ts));
    store_be32(b.data() + 64 + 8 * i + 4, v.addr);
    encode_to_byte_str(cols[0], v.et, i, log2n(mx[0]));
    encode_to_byte_str(cols[1], v.src, i, log2n(mx[1]));
    encode_to_byte_str(cols[2], v.st, i, log2n(mx[2]));
    encode_to_byte_str(cols[3], v.host, i, log2n(mx[3]));
    encode_to_byte_str(cols[4], v.src == 0xFFFFFFFFu ? 1 : 0, i, 1);
  }
  const uint32_t plo = _get_plo_size(&h);
  std::vector<uint8_t> postings;
  std::vector<uint64_t> starts;
  for (uint32_t t = 0; t < nt; ++t) {
    starts.push_back(postings.size());
    std::vector<uint8_t> l = build_list(terms[t].ids, runs);
    postings.insert(postings.end(), l.begin(), l.end());
    if (nv > 0) {
      if (plo == 4) {
        store_be32(b.data() + f.off.pl_offs + 4 * t, static_cast<uint32_t>(postings.size()));
      } else {
        store_be64(b.data() + f.off.pl_offs + 8 * t, postings.size());
      }
    }
    int32_t lo = 0, hi = 0;
    for (size_t k = 0; k < terms[t].ids.size(); ++k) {
      const int32_t ts = values[terms[t].ids[k]].ts;
      if (k == 0 || ts < lo) lo = ts;
      if (k == 0 || ts > hi) hi = ts;
    }
    uint8_t* m = b.data() + f.off.metadata + 12 * t;
    store_be32(m, static_cast<uint32_t>(terms[t].ids.size()));
    store_be32(m + 4, static_cast<uint32_t>(lo));
    store_be32(m + 8, static_cast<uint32_t>(hi));
  }
  std::vector<std::string> names;
  for (const tterm& t : terms) names.push_back(t.term);
  std::vector<uint32_t> bstarts;
  std::vector<uint8_t> lex = build_lexicon(names, tperb, &bstarts);
  f.lex_off = b.size();
  const uint64_t nblocks = bstarts.size();
  f.lex_blocks_off = f.lex_off + 12 + 4 * nblocks;
  for (uint32_t s : bstarts) f.block_starts.push_back(f.lex_blocks_off + s);
  b.insert(b.end(), lex.begin(), lex.end());
  f.lex_end = b.size();
  if (_has_reverse_lex(&h)) {
    while (b.size() % 4 != 0) b.push_back(0);
    b.insert(b.end(), lex.begin(), lex.end());
  }
  f.postings_off = b.size();
  for (uint64_t s : starts) f.list_starts.push_back(f.postings_off + s);
  b.insert(b.end(), postings.begin(), postings.end());
  return f;
}

// A lexicon-only ("TarLex1") file: header, one count per term, lexicon.
inline std::vector<uint8_t> build_lexicon_only(const std::vector<std::string>& terms,
                                               const std::vector<uint32_t>& counts, uint32_t tperb) {
  warm_header h{};
  _set_magic(&h, MAGIC_LEX);
  hdr_set(&h, HDR_NUM_TERMS, static_cast<uint32_t>(terms.size()));
  warm_offsets o;
  _get_warm_slice_offsets(&h, &o);
  std::vector<uint8_t> b(o.fclex, 0);
  memcpy(b.data(), h.b, WARM_HEADER_SZ);
  for (size_t t = 0; t < counts.size(); ++t) store_be32(b.data() + o.metadata + 4 * t, counts[t]);
  std::vector<uint8_t> lex = build_lexicon(terms, tperb);
  b.insert(b.end(), lex.begin(), lex.end());
  return b;
}

}  // namespace toolstest
