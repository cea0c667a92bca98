// Helpers that the crash handler shares with the log writer. Internal to
// src/libzero; every function here is async-signal-safe.
#pragma once

#include <cstddef>

namespace tarnix {

struct crash_log_writer;

namespace crash_internal {

// Writes all of buf to fd, retrying on EINTR and partial writes; gives up
// silently on any other failure (a dying process has nobody to tell).
void write_all(int fd, const void* buf, size_t len) noexcept;

// This module's own assertion (it does not use the index library's): the
// text and place go to standard error with raw writes, then abort.
[[noreturn]] void assert_fail(const char* text, const char* file, int line) noexcept;

// Formats into buf (capacity cap, always NUL-terminated) with the
// conversions of crash_log_printf; returns false when the result did not fit.
bool fmt_into(char* buf, size_t cap, const char* fmt, ...) noexcept
    __attribute__((format(printf, 3, 4)));

// One backtrace frame: "  [0x%016llX]" and " %s + %lu" or " ?", and the line end.
void write_frame(crash_log_writer* z, void* addr) noexcept;

}  // namespace crash_internal
}  // namespace tarnix

#define CRASH_ASSERT_TEXT(cond, text) \
  ((cond) ? (void)0 : ::tarnix::crash_internal::assert_fail(text, __FILE__, __LINE__))
