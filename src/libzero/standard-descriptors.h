// Standard input, output and error that a process was started without.
#pragma once

namespace tarnix {

// Opens /dev/null on each of descriptors 0, 1 and 2 that is closed. Called
// first thing in main: otherwise the next file the process opens takes the
// lowest free number, and what is printed to standard output or error (log
// lines, progress, a crash report) is written into that file, which may be
// an index file or a lexicon. 0, or -1 when /dev/null could not be opened.
int keep_standard_descriptors_open() noexcept;

}  // namespace tarnix
