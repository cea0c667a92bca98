// Index files for the tool tests, laid out by the test suite's own builder
// (testutil/warmfile.h), with the file offsets of every piece a test may
// corrupt, so that it knows which section it hit.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "testutil/warmfile.h"

namespace toolstest {

struct tvalue {
  int32_t ts;
  uint32_t addr, et, src, st, host;  // a source of 0xFFFFFFFF marks a deleted value
};

struct tterm {
  std::string term;
  std::vector<uint32_t> ids;  // ascending
};

struct built_file {
  std::vector<uint8_t> bytes;
  uint64_t pl_offs = 0, metadata = 0, lex_off = 0, postings_off = 0;
  std::vector<uint64_t> block_starts;  // file offsets of the lexicon blocks
  std::vector<uint64_t> list_starts;   // file offsets of the posting lists
};

inline uint64_t load_be(const std::vector<uint8_t>& b, uint64_t at, int n) {
  uint64_t v = 0;
  for (int i = 0; i < n; ++i) v = v << 8 | b[at + i];
  return v;
}

// values in file order (latest first), terms ascending. A deleted value
// widens the source column to 32 bits, as the library's writer does.
inline built_file build_index(const std::vector<tvalue>& values, const std::vector<tterm>& terms, uint32_t tperb,
                              bool runs, const char* magic = "Tarnix6") {
  testutil::ModelFile m;
  m.magic = magic;
  m.tperb = tperb;
  m.runs = runs;
  for (const tvalue& v : values) {
    m.values.push_back({v.ts, v.addr, v.et, v.src, v.st, v.host, v.src == 0xFFFFFFFFu});
    if (v.src == 0xFFFFFFFFu) m.nbits[1] = 32;
  }
  for (const tterm& t : terms) m.terms.push_back({t.term, t.ids});
  testutil::fill_metadata(m);
  built_file f;
  f.bytes = testutil::build_index_file(m);
  const testutil::ModelLayout l = testutil::layout_of(f.bytes);
  f.pl_offs = l.pl_offs;
  f.metadata = l.metadata;
  f.lex_off = l.fclex;
  f.postings_off = l.postings;
  const uint64_t nblocks = (terms.size() + tperb - 1) / tperb, blocks = l.fclex + 12 + 4 * nblocks;
  for (uint64_t b = 0; b < nblocks; ++b)
    f.block_starts.push_back(blocks + (b == 0 ? 0 : load_be(f.bytes, l.fclex + 12 + 4 * (b - 1), 4)));
  const int w = m.magic == "Tarnix3" ? 4 : 8;
  for (size_t t = 0; t < terms.size(); ++t)
    f.list_starts.push_back(l.postings + (t == 0 ? 0 : load_be(f.bytes, l.pl_offs + w * (t - 1), w)));
  return f;
}

}  // namespace toolstest
