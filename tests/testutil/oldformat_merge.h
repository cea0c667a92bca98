// Test-only index files for the merge tests: a builder that lays out a file
// of any version ("Tarnix3" to "Tarnix6") from a plain model, with its own
// lexicon front coding and posting encoding, and an independent parser that
// reads a file of any version back into the same model. Neither uses the
// library's readers or writers, so the merge is checked against the bytes.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

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

// Fills count/earliest/latest of every term from its ids and the values.
void fill_metadata(ModelFile& m);
// The file's bytes.
std::vector<uint8_t> build_index_file(const ModelFile& m);
// Parses any version; "error" is set (and the result partial) on bad bytes.
ModelFile parse_index_file(const std::vector<uint8_t>& bytes, std::string* error);

// Offsets of interest to truncation tests, from a file's header.
struct ModelLayout {
  uint64_t values, columns, pl_offs, metadata, fclex, postings, size;
};
ModelLayout layout_of(const std::vector<uint8_t>& bytes);

// Readable gtest output for the model records.
void PrintTo(const ModelValue& v, std::ostream* os);
void PrintTo(const ModelTerm& t, std::ostream* os);

}  // namespace testutil
