// Crash reporting: handlers for the fatal signals (SIGSEGV, SIGBUS, SIGILL,
// SIGABRT, SIGFPE) that run on a guarded alternate stack and write a plain
// text report (cause, registers, backtrace, system facts, notations) into a
// new file "crash-%Y-%m-%d-%H:%M:%S.log" in the log directory.
//
// Everything the handler needs is set up front; in the handler itself only
// async-signal-safe calls are made: fixed buffers, own number formatting and
// raw write(2) through a writer that caps the size of the report.
//
// This module stands alone: it does not use the index library.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tarnix {

// The build number printed on the second line of every report.
#ifndef TARNIX_BUILD_NUMBER
#define TARNIX_BUILD_NUMBER 1
#endif
inline constexpr int CRASH_LOG_BUILD_NUMBER = TARNIX_BUILD_NUMBER;

// Size limits of the report.
inline constexpr size_t CRASH_LOG_MAX_WRITE_SZ = 51200;    // one write
inline constexpr size_t CRASH_LOG_MAX_TOTAL_SZ = 524288;   // whole report
inline constexpr size_t CRASH_LOG_LINE_SZ = 256;           // formatted line buffer
inline constexpr size_t CRASH_LOG_MAX_NOTATIONS = 1024;    // per notation list
inline constexpr size_t CRASH_LOG_PATH_MAX_LEN = 4095;     // directory / stderr path

// ---- Log writer -----------------------------------------------------------

struct crash_log_writer;
using crash_log_write_func = void (*)(crash_log_writer* z, const void* buf, size_t len) noexcept;

struct crash_log_whand {
  crash_log_write_func do_write;
};

// Writer record: the write operation, the descriptor and the running total.
struct crash_log_writer {
  crash_log_whand whand;
  int fd;
  uint64_t total;
};

// Sets up a default writer on fd with a zero total.
void crash_log_writer_init(crash_log_writer* z, int fd) noexcept;

// The default write operation: writes nothing once the total is past the
// 512 kB limit, replaces one write of more than 50 kB by a notice, and the
// write that reaches the limit by the overflow notice.
void default_crash_log_write(crash_log_writer* z, const void* buf, size_t len) noexcept;

// Writes a NUL-terminated string through the writer.
void crash_log_write_str(crash_log_writer* z, const char* s) noexcept;

// Formats one line into a 256-byte buffer and writes it; a result longer
// than 255 characters is cut to 255, its last three replaced by full stops.
// Conversions: %d %i %u %x %X %s %c %p %%, flags '0' and '-', a width, and
// the length modifiers l, ll and z. Async-signal-safe.
void crash_log_printf(crash_log_writer* z, const char* fmt, ...) noexcept
    __attribute__((format(printf, 2, 3)));

// Copies at most max_sz bytes of a text file into the log, followed by
// "<truncating output>" when the file is longer. When title is not null it
// is formatted with the path (as in " %s: ") and written first. Returns 0,
// or -1 when the file cannot be opened (then nothing is written).
int crash_log_insert_file(crash_log_writer* z, const char* path, size_t max_sz,
                          const char* title) noexcept;

// Writes the call stack of the caller, one frame a line, skipping the first
// `skip` frames (this function itself is frame 0): "  [0x%016llX]" and
// " %s + %lu" (symbol and offset) or " ?".
void get_backtrace(crash_log_writer* z, int skip) noexcept;

// ---- Notations --------------------------------------------------------------
// Short texts (or render functions) that the report shows at its end: a
// global list, then the crashing thread's own stack.

struct crashlog_notation;
// Renders the notation; returns the number of bytes it wrote.
using crashlog_notation_render_func = size_t (*)(const crashlog_notation* n,
                                                 crash_log_writer* z) noexcept;
using crashlog_notation_destruct_func = void (*)(crashlog_notation* n) noexcept;

struct crashlog_notation {
  crashlog_notation_render_func render;
  crashlog_notation_destruct_func destruct;
  crashlog_notation* next;
  const void* data;  // the text of a string notation; the argument of a function notation
};

// The notation stack of one thread: root is the oldest, last the newest.
struct crashlog_notation_perthread_state {
  crashlog_notation* root;
  crashlog_notation* last;
};

// Render operation of string notations: writes the text in data.
size_t crashlog_notation_write_string(const crashlog_notation* n, crash_log_writer* z) noexcept;
// Destroy operation of notations made by the functions below: frees the
// record (and a string notation's text, which lives in the same block).
void default_crashlog_notation_destruct_func(crashlog_notation* n) noexcept;

// Appends a copy of text to the global list. Returns 0, or -1 when out of memory.
int crashlog_notation_global_add(const char* text) noexcept;
// Appends a notation rendered by render(n, z) with n->data == data.
int crashlog_notation_global_add_func(crashlog_notation_render_func render,
                                      const void* data) noexcept;
// Pushes onto / pops from the calling thread's stack (pop destroys the newest).
int crashlog_notation_perthread_push(const char* text) noexcept;
int crashlog_notation_perthread_push_func(crashlog_notation_render_func render,
                                          const void* data) noexcept;
void crashlog_notation_perthread_pop() noexcept;

// ---- Registration -----------------------------------------------------------

using crash_log_threadname_func = const char* (*)();
using crash_log_threadcount_func = unsigned (*)();
using crash_log_perthread_state_func = crashlog_notation_perthread_state* (*)();

// Path of the file that receives standard error; its tail goes into reports
// of SIGABRT (assertion failures write there before aborting).
void register_stderr_file_location(const char* path) noexcept;
void register_get_current_threadname_func(crash_log_threadname_func f) noexcept;
void register_get_threadcount_func(crash_log_threadcount_func f) noexcept;
// Without a registered function every thread has a stack of its own.
void register_get_crashlog_notation_perthread_state_func(crash_log_perthread_state_func f) noexcept;

// ---- Installation -----------------------------------------------------------

// Stores the log directory, resolves the C library's version functions, sets
// up the alternate stack and installs the handlers. Failures are printed with
// perror and leave the handlers uninstalled. Returns 0 when the handlers are
// installed, -1 otherwise.
int crash_log_creator_init(const char* dir) noexcept;
// The log directory is $TARNIX_HOME/var/log/tarnix, or "." without TARNIX_HOME.
int crash_log_creator_init_with_default_prefix() noexcept;

}  // namespace tarnix
