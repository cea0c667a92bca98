// Test-only builder of index files straight from the layout rules, without
// the library's writer: any version ("Tarnix3" to "Tarnix6"), any lexicon
// block size, posting lists with or without runs. Also independent decoders
// of the lexicon section and of posting lists, so that files written by the
// library can be checked byte by byte.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "searchthing/types.h"

namespace testutil {

struct built_term {
  std::string term;
  std::vector<uint32_t> ids;  // ascending value ids
};

struct index_recipe {
  std::string magic = "Tarnix6";
  std::vector<tarnix::tsval> values;  // in file order (latest first)
  std::vector<built_term> terms;      // ascending
  uint32_t tperb = 8;
  bool runs = true;  // code consecutive ids as runs
};

// Values sorted latest first (duplicates by event address dropped, the
// first seen kept) and each term's ascending ids, from (term, value) events.
index_recipe recipe_from_events(const std::vector<std::pair<std::string, tarnix::tsval>>& events);

// The whole file.
std::vector<uint8_t> build_index_file(const index_recipe& recipe);

// A lexicon section for the terms (ascending), as the layout fixes it.
std::vector<uint8_t> build_lexicon(const std::vector<std::string>& terms, uint32_t tperb,
                                   uint32_t uncompressed_size);
// All terms of the lexicon section at p; empty on a malformed section.
std::vector<std::string> decode_lexicon(const uint8_t* p, size_t avail);
// Size of the lexicon section at p.
uint64_t lexicon_size(const uint8_t* p);

// One posting list (gaps and runs) from [p, p + n).
std::vector<uint32_t> decode_postings(const uint8_t* p, size_t n);
// VBE gaps with runs, as the merge writes them; plain gaps otherwise.
std::vector<uint8_t> encode_postings(const std::vector<uint32_t>& ids, bool runs);

}  // namespace testutil
