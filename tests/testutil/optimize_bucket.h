// Bucket directories for the optimizer's tests: write index files through
// the directory handle (one flushed slice per call) and read every posting
// of an index file back as (term, timestamp, event address) triples.
#pragma once

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include "testutil/testutil.h"

namespace testutil {

struct event {
  std::string term;
  int32_t timestamp;
  uint32_t address;
};

// (term, timestamp, event address), one per posting.
using posting = std::tuple<std::string, int32_t, uint32_t>;

// Writes one ".tsidx" file into dir from the events; returns its name
// (without the directory), or "" on failure.
std::string write_slice(const std::string& dir, const std::vector<event>& events);

// Deterministic events: `values` values with distinct addresses starting at
// first_address, timestamps in [base_ts, base_ts + values), each with two to
// four terms drawn from a small vocabulary by seed.
std::vector<event> make_events(uint32_t seed, uint32_t values, uint32_t first_address,
                               int32_t base_ts);

// Every posting of an index file, sorted; false when it cannot be read.
bool read_postings(const std::string& path, std::vector<posting>* out);

// Names of the "%d-%d-%llu.tsidx" files of a directory, sorted.
std::vector<std::string> tsidx_names(const std::string& dir);

// Whole-text match of a pattern that is literal except for "{N}" (an
// optional minus and one or more decimal digits) and "{*}" (any text,
// line ends included).
bool pattern_match(const std::string& text, const std::string& pattern);

// The text with every "tm=<digits> " replaced by "tm=T ".
std::string strip_times(const std::string& text);

// tarnix-optimize with these arguments; by default with lock files trusted
// and the log variable unset.
extern const std::vector<std::string> kOptimizeEnv;
RunResult run_optimize(const std::vector<std::string>& args,
                       const std::vector<std::string>& env = kOptimizeEnv);

// Log patterns of a run: its start line, and the lines that end a run over
// a directory with fewer than two index files. kDefaultSettings is the start
// line's "mode=..." part for -v and nothing else.
std::string start_pattern(const std::string& dir, const std::string& settings);
extern const std::string kDefaultSettings;
extern const std::string kNothingToDoPattern;

// The events as postings, sorted.
std::vector<posting> postings_of(const std::vector<event>& events);

}  // namespace testutil
