// Command-line helpers shared by the extra tools.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "libzero/standard-descriptors.h"

namespace tools {

// Exit status of every tool for a command-line fault.
inline constexpr int EXIT_USAGE = 2;

// A whole decimal number without sign or blanks that fits 64 bits.
inline bool parse_u64(const char* s, uint64_t* out) {
  if (s == nullptr || *s == '\0') return false;
  uint64_t v = 0;
  for (const char* p = s; *p != '\0'; ++p) {
    if (*p < '0' || *p > '9') return false;
    const auto d = static_cast<uint64_t>(*p - '0');
    if (v > (UINT64_MAX - d) / 10) return false;
    v = v * 10 + d;
  }
  *out = v;
  return true;
}

// Prints a tool's --help text. 0, or 1 (with a line on stderr) when it
// could not be written, so that a script never takes a lost text for one.
inline int print_help(const char* tool, const char* text) {
  if (fputs(text, stdout) >= 0 && fflush(stdout) == 0) return 0;
  fprintf(stderr, "%s: writing the help text failed\n", tool);
  return 1;
}

// "TOOL: <fmt with arg>" and a pointer to --help on stderr; exits with EXIT_USAGE.
[[noreturn]] inline void usage_exit(const char* tool, const char* fmt, const char* arg) {
  fprintf(stderr, "%s: ", tool);
  fprintf(stderr, fmt, arg);
  fprintf(stderr, "\n(try %s --help)\n", tool);
  exit(EXIT_USAGE);
}

// Runs a tool's work and gives its exit status. Standard input, output and
// error that the tool was started without are opened on /dev/null first, so
// that no file the tool opens takes their place (and its progress lines).
// The tools hold what they report in the standard containers, which throw
// when memory runs out: the tool then ends with one line and status 1
// rather than an abort. (The index library under them never throws.)
template <typename Work>
int run_guarded(const char* tool, Work&& work) noexcept {
  (void)tarnix::keep_standard_descriptors_open();
  try {
    return work();
  } catch (const std::bad_alloc&) {
    fprintf(stderr, "%s: out of memory\n", tool);
    return 1;
  }
}

}  // namespace tools
