// Reads index files and whole bucket directories back into plain maps, so
// tests can compare what was indexed with what the files hold.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "searchthing/types.h"

namespace testutil {

struct IndexContent {
  int rc = 0;                    // 0, or the open's failure code
  std::string problem;           // empty when the file is self-consistent
  int32_t latest = 0;
  int32_t earliest = 0;
  uint32_t num_postings = 0;     // header field
  std::vector<tarnix::tsval> values;                        // in file order
  std::map<std::string, std::vector<uint32_t>> postings;    // term -> value ids
  std::map<std::string, tarnix::st_term_metadata> metadata; // term -> entry
};

// Opens path as an index file and decodes everything. Checks on the way
// that the values are in file order, that every list ascends, and that each
// term's metadata matches its list; the first mismatch goes into problem.
IndexContent read_index_file(const std::string& path);

// Term -> sorted, unique event addresses; event address -> value.
struct EventIndex {
  std::map<std::string, std::vector<uint32_t>> term_addresses;
  std::map<uint32_t, tarnix::tsval> events;
};

struct BucketContent {
  int files = 0;                 // ".tsidx" files found
  std::vector<std::string> problems;  // files that fail to open or are inconsistent
  uint64_t value_count = 0;      // sum of the files' value counts
  EventIndex index;              // union over the files
};

// Every "%d-%d-%llu.tsidx" file of dir.
BucketContent read_bucket(const std::string& dir);

// Sorts and de-duplicates every address list.
void normalise(EventIndex* index);

}  // namespace testutil
