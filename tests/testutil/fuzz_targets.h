// Fuzz targets over the parts of the library that read bytes from outside:
// index files, lexicon sections, the merge, the directory handle's parameter
// file and the command line. Each target takes arbitrary bytes and must
// return normally whatever they are; a target that finds the library
// breaking one of its own promises (a merge that reports success but leaves
// an unreadable file, a parameter file that does not read back as written)
// aborts with a message on standard error, so the fuzzer reports it like a
// crash.
//
// The same functions are linked into the libFuzzer programs under fuzz/
// (built with clang) and into the regression test under tests/fuzz/ (built
// with the normal compiler), which replays every input kept in
// tests/fuzz/corpus/<target>/.
//
// Input files are written into a private temporary directory of the process
// (created on first use, removed at exit).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace testutil {

// Opens the bytes as an index file in each open mode (mapped for reading,
// mapped for updating, descriptor-based) and reads everything an open file
// offers: every value through the value reader, every term through the
// lexicon handle (walk and lookups), every posting list through the posting
// reader and every metadata entry.
int fuzz_index_file(const uint8_t* data, size_t size);

// The bytes as a lexicon section: the handle in memory mode (over exactly
// the section's own size, when the bytes hold it) and in descriptor mode
// (walk, lookups, enumeration), then the block reader and a merge cursor
// over every term.
int fuzz_lexicon(const uint8_t* data, size_t size);

// Merges the bytes, as an index file, with two valid index files into a
// new file. A merge that returns 0 must leave a file that opens in both
// modes, reads back completely and still holds every posting of the two
// valid sources.
int fuzz_merge(const uint8_t* data, size_t size);

// Writes the bytes as the parameter file of an empty directory and opens a
// directory handle that reads it; closing the handle writes the file again
// when it holds a transaction count, and that file must read back to the
// same limits.
int fuzz_params(const uint8_t* data, size_t size);

// Splits the bytes on NULs into an argument vector and runs the command
// line with it. Every directory argument is replaced by a path below a
// directory that does not exist, so nothing on disk is ever touched, and
// "-v"/"--verbose" in a flag position become "--tstats" (the run would
// otherwise close the process's standard error).
int fuzz_cmdline(const uint8_t* data, size_t size);

// Name -> target, for the replay test and the fuzz programs.
using fuzz_target_fn = int (*)(const uint8_t*, size_t);
struct fuzz_target_entry {
  const char* name;
  fuzz_target_fn fn;
};
extern const fuzz_target_entry FUZZ_TARGETS[5];

// The private temporary directory of this process.
const std::string& fuzz_temp_dir();

// Writes the seed inputs of every target below dir/<target>/ (generated
// index files, a merged file, lexicon sections, parameter lines, command
// lines). Returns the number of files written, or -1.
int fuzz_make_seeds(const std::string& dir);

}  // namespace testutil
