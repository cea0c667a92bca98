// The project's assertion: on in every build type. A broken invariant of the
// program itself (never a byte read from a file) writes the condition and
// its place to standard error with raw writes and aborts, so that the crash
// handler reports it.
#pragma once

namespace tarnix {
[[noreturn]] void st_assert_fail(const char* text, const char* file, int line) noexcept;
}

// ST_ASSERT(cond): the text is the condition as written.
#define ST_ASSERT(cond) \
  ((cond) ? (void)0 : ::tarnix::st_assert_fail(#cond, __FILE__, __LINE__))
// ST_ASSERT_TEXT(cond, text): where the text of the assertion is fixed.
#define ST_ASSERT_TEXT(cond, text) \
  ((cond) ? (void)0 : ::tarnix::st_assert_fail(text, __FILE__, __LINE__))
