// Result codes and the result record shared by every operation of the index
// library. An operation returns an integer (0 = success, negative = failure)
// and records the first failure it meets in the caller's `wrc`, together with
// the system error number at that moment, the index of the failing input and
// an optional message. The numbers are part of the interface: callers compare
// against them, the directory code reports them, and the program's exit status
// is the low eight bits of one of them. Never renumber.
#pragma once

#include <cerrno>
#include <cstdint>

namespace tarnix {

// Result record. Owned by the caller, passed by pointer (named `wrc_o` where
// it is an out-parameter). Plain aggregate: zero-initialise it.
struct wrc {
  int32_t warm_rc;       // 0 or a negative code below
  int32_t warm_errno;    // errno when the code was recorded
  int32_t source_index;  // failing input, -1 for none
  char message[512];     // NUL-terminated, at most 511 characters
};

// Index-file and lexicon codes.
inline constexpr int WS_SUCCESS = 0;
inline constexpr int ST_SUCCESS = 0;
inline constexpr int WS_ENOTAVAIL = -1;      // item not available / reverse lexicon count (fd open)
inline constexpr int WS_ENOMEM = -2;         // allocation failed
inline constexpr int WS_EMMAP = -3;          // mmap failed
inline constexpr int WS_EOPEN = -4;          // open or exclusive create failed
inline constexpr int WS_EEMPTY = -5;         // file opened for updating is empty
inline constexpr int WS_ESTAT = -6;          // file size could not be obtained
inline constexpr int WS_ETRUNC = -7;         // file shorter than header and lexicon say
inline constexpr int WS_EREAD = -8;          // positional read failed or short
inline constexpr int WS_EWRITE = -9;         // write failed or short
inline constexpr int WS_ECLOSE = -11;        // close of a freshly written file failed
inline constexpr int WS_EDATA = -12;         // inconsistent index data / malformed VBE
inline constexpr int WS_EMAGIC = -13;        // unknown magic
inline constexpr int WS_ELEX = -14;          // lexicon could not be sized or opened
inline constexpr int WS_EOVERRUN = -15;      // posting data overran its reserved space
inline constexpr int WS_E32BIT = -36;        // a record number or count exceeds 32 bits
inline constexpr int WS_ENONAME = -37;       // no file name given (also: command-line fault)
inline constexpr int WS_EEMPTYLEX = -39;     // lexicon header with 0 terms or 0 terms per block

// Directory-level codes (merge planning, commit, merged lexicons).
inline constexpr int ST_EEXISTS = -28;       // intermediate or output already exists
inline constexpr int ST_ELOCK = -29;         // a lock could not be taken
inline constexpr int ST_EFEWFILES = -30;     // fewer than 2 index files
inline constexpr int ST_ENOGROUP = -31;      // no group satisfies the rules
inline constexpr int ST_ETOOMANY = -32;      // more than 32 files for a merged lexicon
inline constexpr int ST_EDIROPEN = -33;      // directory handle could not be opened
inline constexpr int ST_EMOVE = -35;         // move to the final name failed

// Records rc with the current errno, source_index -1, empty message. Returns rc.
// Inline: the merges record success once per term or record they read.
inline int _set_rc(wrc* w, int rc) noexcept {
  w->warm_rc = rc;
  w->warm_errno = errno;
  w->source_index = -1;
  w->message[0] = '\0';
  return rc;
}
// As _set_rc, then warm_errno = err (an errno saved before cleanup calls).
int _set_rc_and_errno(wrc* w, int rc, int err) noexcept;
// Records rc, current errno, index, and at most 511 characters of message.
int _set_rc_verbose(wrc* w, int rc, int index, const char* message) noexcept;

// Short symbolic name of a code, for logs and tools ("WS_EREAD", ...).
const char* st_rc_name(int rc) noexcept;

}  // namespace tarnix
