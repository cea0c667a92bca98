// The command line of tarnix-optimize: parses the arguments into the
// settings of one optimize run over one bucket directory, chooses the log
// stream and runs it. Every command-line fault prints a one-line message and
// the usage text on standard error and returns -37 (exit status 219).
#pragma once

namespace tarnix {

// Parses argv, runs st_optimize once and returns its result (0, or a negative
// code; -37 for a command-line fault). Nothing is opened or locked before the
// whole command line has been accepted.
int optimize_main(int argc, char** argv) noexcept;

// Writes "MESSAGE: <message>" and the usage text with program_name to
// standard error. Returns -37.
int print_usage(const char* program_name, const char* message) noexcept;

}  // namespace tarnix
