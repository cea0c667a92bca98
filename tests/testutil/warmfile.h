// Test-only index files laid out straight from the layout rules, without the
// library's readers or writers: a builder of any version ("Tarnix3" to
// "Tarnix6", any lexicon block size, posting lists with or without runs) from
// a plain model, and an independent parser of any version back into it, so
// that files written by the library can be checked byte by byte.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "searchthing/types.h"

namespace testutil {

struct ModelValue {
  int32_t ts;
  uint32_t addr;
  uint32_t et = 0, src = 0, stype = 0, host = 0;
  bool deleted = false;  // the deleted-flag column; source reads as 0xFFFFFFFF
  bool operator==(const ModelValue&) const = default;
};

struct ModelTerm {
  std::string term;
  std::vector<uint32_t> ids;  // ascending value ids
  uint32_t count = 0;         // metadata
  int32_t earliest = 0, latest = 0;
  bool operator==(const ModelTerm&) const = default;
};

struct ModelFile {
  std::string magic = "Tarnix6";
  std::vector<ModelValue> values;  // file order
  std::vector<ModelTerm> terms;    // ascending
  uint32_t tperb = 8;
  bool runs = true;                // posting lists with runs (else plain gaps)
  // Column widths; 0 means log2n of the column's largest element.
  uint32_t nbits[4] = {0, 0, 0, 0};
  uint32_t num_postings = 0;       // header field as read (builder: sum of ids)
};

ModelValue model_value(const tarnix::tsval& v);
tarnix::tsval to_tsval(const ModelValue& v);

// Values sorted latest first (duplicates by event address dropped, the
// first seen kept), each term (cut to 2047 bytes) with its ascending ids
// and its metadata, from (term, value) events.
ModelFile model_from_events(const std::vector<std::pair<std::string, tarnix::tsval>>& events);

// Fills count/earliest/latest of every term from its ids and the values
// (0 and 0 for an empty list).
void fill_metadata(ModelFile& m);
// The file's bytes; the lexicon's uncompressed size counts each term's NUL,
// as the index file writer does.
std::vector<uint8_t> build_index_file(const ModelFile& m);
// A lexicon-only ("TarLex1") file: header, one count per term, lexicon.
std::vector<uint8_t> build_lexicon_file(const std::vector<std::string>& terms, const std::vector<uint32_t>& counts,
                                        uint32_t tperb);
// Parses any version; "error" is set (and the result partial) on bad bytes.
ModelFile parse_index_file(const std::vector<uint8_t>& bytes, std::string* error);

// Offsets of interest to truncation tests, from a file's header.
struct ModelLayout {
  uint64_t values, columns, pl_offs, metadata, fclex, postings, size;
};
ModelLayout layout_of(const std::vector<uint8_t>& bytes);

// All terms of the lexicon section at p; empty on a malformed section.
std::vector<std::string> decode_lexicon(const uint8_t* p, size_t avail);
// Size of the lexicon section at p, from its header and last block end.
uint64_t lexicon_size(const uint8_t* p);

// Readable gtest output for the model records.
void PrintTo(const ModelValue& v, std::ostream* os);
void PrintTo(const ModelTerm& t, std::ostream* os);

}  // namespace testutil
