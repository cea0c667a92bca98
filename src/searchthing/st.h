// Public face of the index library as the optimizer uses it: the optimize
// run over one bucket directory (repeated merge passes until nothing is left
// to do), its one-pass form for an open directory handle, and the name of the
// status file that a final run leaves behind.
#pragma once

#include <cstdint>
#include <cstdio>

#include "searchthing/result.h"

namespace tarnix {

struct tsidx;

// Runs merge passes over dir until a pass returns non-zero or max_iteration
// passes have run (2147483647 = unlimited; 0 and negative limits run one
// pass). Logs to log when it is set. With isfinal, leaves an empty
// "optimize.result" in dir whatever the outcome. Returns 0 when nothing is
// left to merge (-30, -31) or the limit was reached, -1 when the directory
// handle could not be opened, else the failing pass's code.
[[nodiscard]] int32_t st_optimize(const char* dir, int32_t mode, int isfinal, int32_t max_iteration,
                                  uint32_t min_src_count, uint32_t lex_tpb, uint64_t page_size,
                                  FILE* log, wrc* wrc_o, uint64_t max_allowed_size,
                                  int tstats) noexcept;

// One pass over an open directory handle with the default settings (minimum
// source count 8, 64 terms per block, default page size, no size limit).
// Returns the pass's code.
[[nodiscard]] int32_t st_optimize_ex(tsidx* thing, int32_t mode) noexcept;

// Writes "<dir>/optimize.result" into buffer (4096 bytes). Returns buffer.
char* so_status_filename(const char* dir, char* buffer) noexcept;

}  // namespace tarnix
