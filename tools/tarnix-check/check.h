// tarnix-check: the soundness check of one index file, lexicon-only file or
// bucket directory, as records that the command line prints as text or JSON.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "inspect.h"

namespace tarnix::inspect {

// Findings about one file. Problems are kept up to a limit per section (the
// counts keep counting), so a badly damaged file cannot flood the output or
// the memory.
struct file_report {
  std::string path;
  std::string magic;          // as found ("" when unreadable)
  bool lexicon_only = false;  // "TarLex1"
  bool header_ok = false;     // the header could be read and located the sections
  uint64_t size = 0;
  uint32_t num_values = 0;
  uint32_t num_terms = 0;
  uint32_t num_postings = 0;  // header field
  uint64_t postings_seen = 0; // ids decoded from the posting lists
  uint64_t count_sum = 0;     // sum of the metadata counts
  uint64_t deleted = 0;
  int32_t latest = 0, earliest = 0;
  uint64_t errors = 0, notes = 0;
  std::vector<issue> issues;  // stored findings, in section order after check_file
  // The lexicon walked cleanly (used by the bucket's distinct-term count).
  bool lexicon_ok = false;
  uint64_t lexicon_offset = 0;
};

void check_file(const std::string& path, file_report* rep);

struct lock_info {
  std::string name;
  int64_t age_s = 0;
  long pid = 0;
  std::string host;
  std::string owner;  // "running", "not running", "unknown"
};

struct entry_info {
  std::string name;
  uint64_t size = 0;
  int64_t age_s = 0;
  // For a ".pre-tsidx": the index file that is the same file under its
  // final name (a move whose removal of the old name failed), else "".
  std::string in_place_as;
};

struct bucket_report {
  std::string path;
  bool opened = false;
  int open_errno = 0;
  std::vector<file_report> files;   // ".tsidx" files and merged lexicons
  uint64_t index_files = 0, bytes = 0, events = 0;
  bool terms_counted = false;
  uint64_t distinct_terms = 0;
  std::vector<uint64_t> size_classes;  // files per power of two; [k] = sizes in [2^k, 2^(k+1)), [0] also 0 and 1
  uint32_t next_pass = 0;              // files a normal-mode pass would merge
  uint32_t candidates = 0;             // unlocked non-empty index files
  std::vector<lock_info> locks;
  std::vector<entry_info> intermediates, pre_tsidx, part_files, delete_markers;
  bool need_optimize = false;
  bool optimize_result = false;
  std::string params;                  // parameter file text, "" when absent
};

void check_bucket(const std::string& dir, bool count_terms, bucket_report* rep);

// Files that a normal-mode optimize pass would merge, from the candidates'
// sizes (any order): 0 when fewer than 2 or no group is suitable.
uint32_t next_pass_group(std::vector<int64_t> sizes, uint32_t min_src_count);

}  // namespace tarnix::inspect
