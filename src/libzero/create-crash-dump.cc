// Crash reporting: notations, registration, the handler and its
// installation (the writer and formatting are in crash-log-writer.cc).
//
// Rules for everything the handler reaches: no heap, no stdio, no locks, no
// objects with destructors; numbers are formatted by hand into fixed buffers
// and written with write(2). What would need the heap or a lock (the C library
// version functions, the names of the signals, the UTC offset of local time,
// the first call of backtrace, which loads libgcc) is done at installation.
#include "libzero/create-crash-dump.h"

#include <cpuid.h>
#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/ucontext.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "libzero/crash-log-writer.h"

namespace tarnix {

using crash_internal::fmt_into;
using crash_internal::write_frame;

// ---------------------------------------------------------------------------
// Notations and registration
// ---------------------------------------------------------------------------

namespace {

constexpr char MSG_TOO_MANY_NOTATIONS[] =
    "Max crashlog notation count exceeded (1024), probably linked list of notations corrupted. "
    "breaking out.\n";

struct crash_settings {
  char dir[CRASH_LOG_PATH_MAX_LEN + 1];
  const char* (*libc_version)();
  const char* (*libc_release)();
  char stderr_path[CRASH_LOG_PATH_MAX_LEN + 1];
  bool stderr_registered;
  crash_log_threadname_func threadname;
  crash_log_threadcount_func threadcount;
  crash_log_perthread_state_func perthread_state;
  long utc_offset_s;           // of local time, taken at installation
  char signame[32][64];        // strsignal of the handled signals
  char* altstack;              // the whole mapping, guard pages included
  size_t altstack_map_sz;
};

crash_settings g_cs;

// The global notations: appended under the mutex, read by the handler
// without it (each link is published with a release store).
std::mutex g_notation_mu;
crashlog_notation* g_global_root = nullptr;
crashlog_notation* g_global_last = nullptr;

thread_local crashlog_notation_perthread_state t_notation_state = {nullptr, nullptr};

crashlog_notation_perthread_state* _default_perthread_state() { return &t_notation_state; }

crashlog_notation_perthread_state* _perthread_state() noexcept {
  crash_log_perthread_state_func f = __atomic_load_n(&g_cs.perthread_state, __ATOMIC_ACQUIRE);
  return f != nullptr ? f() : _default_perthread_state();
}

// Records are made here and freed by default_crashlog_notation_destruct_func,
// hence malloc/free: the destroy operation is a plain function pointer.
crashlog_notation* _make_notation(crashlog_notation_render_func render, const void* data,
                                  const char* text) noexcept {
  size_t text_sz = text != nullptr ? strlen(text) + 1 : 0;
  auto* n = static_cast<crashlog_notation*>(malloc(sizeof(crashlog_notation) + text_sz));
  if (n == nullptr) return nullptr;
  n->render = render;
  n->destruct = &default_crashlog_notation_destruct_func;
  n->next = nullptr;
  n->data = data;
  if (text != nullptr) {
    char* copy = reinterpret_cast<char*>(n + 1);
    memcpy(copy, text, text_sz);
    n->data = copy;
  }
  return n;
}

int _global_add(crashlog_notation* n) noexcept {
  if (n == nullptr) return -1;
  std::lock_guard<std::mutex> lock(g_notation_mu);
  if (g_global_last == nullptr) {
    __atomic_store_n(&g_global_root, n, __ATOMIC_RELEASE);
  } else {
    __atomic_store_n(&g_global_last->next, n, __ATOMIC_RELEASE);
  }
  g_global_last = n;
  return 0;
}

int _perthread_push(crashlog_notation* n) noexcept {
  if (n == nullptr) return -1;
  crashlog_notation_perthread_state* cnpsp = _perthread_state();
  CRASH_ASSERT_TEXT(cnpsp != nullptr, "cnpsp != ((void *)0)");
  if (cnpsp->root == nullptr) {
    __atomic_store_n(&cnpsp->root, n, __ATOMIC_RELEASE);
  } else {
    CRASH_ASSERT_TEXT(cnpsp->last != nullptr, "cnpsp->last != ((void *)0)");
    __atomic_store_n(&cnpsp->last->next, n, __ATOMIC_RELEASE);
  }
  cnpsp->last = n;
  return 0;
}

}  // namespace

size_t crashlog_notation_write_string(const crashlog_notation* n, crash_log_writer* z) noexcept {
  const char* s = static_cast<const char*>(n->data);
  if (s == nullptr) return 0;
  size_t len = strlen(s);
  if (len > 0) z->whand.do_write(z, s, len);
  return len;
}

void default_crashlog_notation_destruct_func(crashlog_notation* n) noexcept { free(n); }

int crashlog_notation_global_add(const char* text) noexcept {
  return _global_add(_make_notation(&crashlog_notation_write_string, nullptr, text != nullptr ? text : ""));
}

int crashlog_notation_global_add_func(crashlog_notation_render_func render, const void* data) noexcept {
  if (render == nullptr) return -1;
  return _global_add(_make_notation(render, data, nullptr));
}

int crashlog_notation_perthread_push(const char* text) noexcept {
  return _perthread_push(
      _make_notation(&crashlog_notation_write_string, nullptr, text != nullptr ? text : ""));
}

int crashlog_notation_perthread_push_func(crashlog_notation_render_func render,
                                          const void* data) noexcept {
  if (render == nullptr) return -1;
  return _perthread_push(_make_notation(render, data, nullptr));
}

void crashlog_notation_perthread_pop() noexcept {
  crashlog_notation_perthread_state* cnpsp = _perthread_state();
  CRASH_ASSERT_TEXT(cnpsp != nullptr, "cnpsp != ((void *)0)");
  CRASH_ASSERT_TEXT(cnpsp->root != nullptr, "cnpsp->root != ((void *)0)");
  CRASH_ASSERT_TEXT(cnpsp->last != nullptr, "cnpsp->last != ((void *)0)");
  crashlog_notation* gone = cnpsp->last;
  if (cnpsp->root == gone) {
    __atomic_store_n(&cnpsp->root, nullptr, __ATOMIC_RELEASE);
    cnpsp->last = nullptr;
  } else {
    // The stack is singly linked from the root: find the one before the last.
    crashlog_notation* prev = cnpsp->root;
    while (prev->next != gone) {
      CRASH_ASSERT_TEXT(prev->next != nullptr, "the last notation is linked from the root");
      prev = prev->next;
    }
    __atomic_store_n(&prev->next, nullptr, __ATOMIC_RELEASE);
    cnpsp->last = prev;
  }
  gone->next = nullptr;
  if (gone->destruct != nullptr) gone->destruct(gone);
}

void register_stderr_file_location(const char* path) noexcept {
  if (path == nullptr) {
    g_cs.stderr_registered = false;
    g_cs.stderr_path[0] = '\0';
    return;
  }
  fmt_into(g_cs.stderr_path, sizeof(g_cs.stderr_path), "%s", path);
  g_cs.stderr_registered = true;
}

void register_get_current_threadname_func(crash_log_threadname_func f) noexcept {
  __atomic_store_n(&g_cs.threadname, f, __ATOMIC_RELEASE);
}

void register_get_threadcount_func(crash_log_threadcount_func f) noexcept {
  __atomic_store_n(&g_cs.threadcount, f, __ATOMIC_RELEASE);
}

void register_get_crashlog_notation_perthread_state_func(crash_log_perthread_state_func f) noexcept {
  __atomic_store_n(&g_cs.perthread_state, f, __ATOMIC_RELEASE);
}

// ---------------------------------------------------------------------------
// The handler and its installation
// ---------------------------------------------------------------------------

namespace {

constexpr int HANDLED_SIGNALS[] = {SIGSEGV, SIGBUS, SIGILL, SIGABRT, SIGFPE};

constexpr char RELEASE_FILES[][32] = {
    "/etc/fedora-release",    "/etc/redhat-release", "/etc/debian_version",
    "/etc/SuSE-release",      "/etc/slackware-version", "/etc/gentoo-release",
    "/etc/mandrake-release",
};

constexpr size_t STDERR_TAIL_SZ = 800;
constexpr size_t RELEASE_FILE_MAX_SZ = 1000;
constexpr int FD_SCAN_MAX_GAP = 20;

struct civil_time {
  int year, month, day, hour, minute, second;
};

// Local time from the epoch seconds and the UTC offset taken at installation
// (localtime_r may take the time-zone lock, which a crashing thread may hold).
civil_time _civil_from_epoch(long long t) noexcept {
  long long days = t / 86400;
  long long secs = t % 86400;
  if (secs < 0) {
    secs += 86400;
    --days;
  }
  // Days since 1970-01-01 to year/month/day (proleptic Gregorian calendar).
  long long zd = days + 719468;
  long long era = (zd >= 0 ? zd : zd - 146096) / 146097;
  long long doe = zd - era * 146097;
  long long yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  long long doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  long long mp = (5 * doy + 2) / 153;
  long long d = doy - (153 * mp + 2) / 5 + 1;
  long long m = mp < 10 ? mp + 3 : mp - 9;
  long long y = yoe + era * 400 + (m <= 2 ? 1 : 0);
  civil_time ct;
  ct.year = static_cast<int>(y);
  ct.month = static_cast<int>(m);
  ct.day = static_cast<int>(d);
  ct.hour = static_cast<int>(secs / 3600);
  ct.minute = static_cast<int>(secs / 60 % 60);
  ct.second = static_cast<int>(secs % 60);
  return ct;
}

const char* _signame(int sig) noexcept {
  if (sig > 0 && sig < 32 && g_cs.signame[sig][0] != '\0') return g_cs.signame[sig];
  return "Unknown signal";
}

const char* _cause_text(int sig, int code, int err) noexcept {
  static constexpr const char* SEGV_TEXT[] = {"No memory mapped", "Memory access denied"};
  static constexpr const char* BUS_TEXT[] = {"Unaligned memory access",
                                             "Non-existent accessed physical address"};
  static constexpr const char* FPE_TEXT[] = {
      "Integer division by zero",      "Integer overflow",
      "Floating point division by zero", "Floating point overflow",
      "Floating point underflow",      "Inexact floating point result",
      "Invalid floating point operation", "Floating point subscript out of range"};
  static constexpr const char* ILL_TEXT[] = {
      "Illegal opcode",   "Illegal operand for opcode", "Illegal addressing mode for opcode",
      "Illegal trap",     "Privileged opcode",          "Privileged register access",
      "Coprocessor error", "Internal stack error"};
  switch (sig) {
    case SIGSEGV:
      if (code >= 1 && code <= 2) return SEGV_TEXT[code - 1];
      break;
    case SIGBUS:
      if (code >= 1 && code <= 2) return BUS_TEXT[code - 1];
      if (code == 3) return err == 12 ? "Out of swap space" : "Hardware error";
      break;
    case SIGFPE:
      if (code >= 1 && code <= 8) return FPE_TEXT[code - 1];
      break;
    case SIGILL:
      if (code >= 1 && code <= 8) return ILL_TEXT[code - 1];
      break;
    default:
      break;
  }
  return nullptr;
}

unsigned long long _addr(const void* p) noexcept {
  return static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p));
}

// Copies text into the log line by line: each kept line gets the prefix,
// NUL and CR are dropped, a tab becomes a space, any other byte outside
// 0x20..0x7E becomes '?', and lines left empty are dropped.
struct line_cleaner {
  crash_log_writer* z;
  const char* prefix;
  char line[512];
  size_t len;
  bool started;  // the current line has content (and its prefix)
};

void _cleaner_flush(line_cleaner* c) noexcept {
  if (c->len > 0) c->z->whand.do_write(c->z, c->line, c->len);
  c->len = 0;
}

void _cleaner_feed(line_cleaner* c, const char* p, size_t n) noexcept {
  for (size_t i = 0; i < n; ++i) {
    auto ch = static_cast<unsigned char>(p[i]);
    if (ch == '\n') {
      if (c->started) {
        if (c->len == sizeof(c->line)) _cleaner_flush(c);
        c->line[c->len++] = '\n';
        _cleaner_flush(c);
      }
      c->started = false;
      continue;
    }
    if (ch == '\0' || ch == '\r') continue;
    char out = ch == '\t' ? ' ' : (ch < 0x20 || ch > 0x7E) ? '?' : static_cast<char>(ch);
    if (!c->started) {
      for (const char* q = c->prefix; *q != '\0'; ++q) c->line[c->len++] = *q;
      c->started = true;
    }
    if (c->len == sizeof(c->line)) _cleaner_flush(c);
    c->line[c->len++] = out;
  }
}

void _cleaner_finish(line_cleaner* c) noexcept {
  if (c->started) _cleaner_feed(c, "\n", 1);
  _cleaner_flush(c);
}

ssize_t _pread_full(int fd, char* buf, size_t len, off_t off) noexcept {
  size_t got = 0;
  while (got < len) {
    ssize_t r = pread(fd, buf + got, len - got, off + static_cast<off_t>(got));
    if (r < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (r == 0) break;
    got += static_cast<size_t>(r);
  }
  return static_cast<ssize_t>(got);
}

// The last lines of the registered stderr file (reports of SIGABRT only).
void _write_stderr_tail(crash_log_writer* z) noexcept {
  if (!g_cs.stderr_registered || g_cs.stderr_path[0] == '\0') return;
  int fd = open(g_cs.stderr_path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  struct stat st;
  if (fstat(fd, &st) != 0 || st.st_size <= 0) {
    close(fd);
    return;
  }
  auto size = static_cast<size_t>(st.st_size);
  // When the file is longer than the tail, read one byte more: the tail
  // starts after the first line end found, which may be that byte.
  char buf[STDERR_TAIL_SZ + 1];
  size_t want = size > STDERR_TAIL_SZ ? STDERR_TAIL_SZ + 1 : size;
  ssize_t got = _pread_full(fd, buf, want, static_cast<off_t>(size - want));
  close(fd);
  if (got <= 0) return;
  size_t start = 0;
  auto n = static_cast<size_t>(got);
  if (size > STDERR_TAIL_SZ) {
    while (start < n && buf[start] != '\n') ++start;
    if (start < n) ++start;
  }
  crash_log_write_str(z,
                      " Last few lines of stderr (may contain info on assertion failure, but also could "
                      "be old):\n");
  line_cleaner c{z, "    ", {}, 0, false};
  _cleaner_feed(&c, buf + start, n - start);
  _cleaner_finish(&c);
}

void _write_memory_map(crash_log_writer* z) noexcept {
  int fd = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  line_cleaner c{z, " MAP: ", {}, 0, false};
  char buf[2048];
  for (;;) {
    ssize_t r = read(fd, buf, sizeof(buf));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    _cleaner_feed(&c, buf, static_cast<size_t>(r));
  }
  _cleaner_finish(&c);
  close(fd);
}

void _write_open_descriptors(crash_log_writer* z) noexcept {
  crash_log_write_str(z, "\nFile descriptors open:");
  unsigned found = 0;
  int gap = 0;
  for (int fd = 0; gap < FD_SCAN_MAX_GAP; ++fd) {
    char link[64];
    char target[512];
    fmt_into(link, sizeof(link), "/proc/self/fd/%d", fd);
    ssize_t n = readlink(link, target, sizeof(target) - 1);
    if (n < 0) {
      ++gap;
      continue;
    }
    gap = 0;
    target[n] = '\0';
    ++found;
    crash_log_printf(z, "\n%d: %s", fd, target);
  }
  crash_log_printf(z, "\n(Total %u)\n", found);
}

void _write_cause(crash_log_writer* z, int sig, const siginfo_t* si) noexcept {
  crash_log_write_str(z, " Cause:\n");
  if (si == nullptr) {
    crash_log_write_str(z, "   Unknown signal origin (no signal information).\n");
    return;
  }
  const char* text = _cause_text(sig, si->si_code, si->si_errno);
  if (text != nullptr) {
    crash_log_printf(z, "   %s at address [0x%016llX].\n", text, _addr(si->si_addr));
  } else if (si->si_code == SI_USER || si->si_code == SI_QUEUE || si->si_code == SI_TKILL) {
    crash_log_printf(z, "   Signal sent by PID %ld running under UID %ld.\n",
                     static_cast<long>(si->si_pid), static_cast<long>(si->si_uid));
  } else {
    crash_log_write_str(z, "   Unknown signal origin (si_code=");
    if (sig == SIGSEGV || sig == SIGBUS || sig == SIGFPE || sig == SIGILL) {
      crash_log_printf(z, "%d, si_addr=[0x%016llX]", si->si_code, _addr(si->si_addr));
    } else {
      crash_log_printf(z, "%d", si->si_code);
    }
    if (si->si_errno != 0) crash_log_printf(z, ", si_errno=%d", si->si_errno);
    crash_log_write_str(z, ").\n");
  }
}

void _write_registers(crash_log_writer* z, const void* uctx) noexcept {
  crash_log_write_str(z, " Registers:\n");
#ifdef __x86_64__
  if (uctx == nullptr) return;
  const auto* uc = static_cast<const ucontext_t*>(uctx);
  const greg_t* g = uc->uc_mcontext.gregs;
  crash_log_printf(z, "    %s:", "RIP");
  write_frame(z, reinterpret_cast<void*>(g[REG_RIP]));
  static constexpr struct {
    const char* name;
    int reg;
  } REGS[] = {
      {"RDI", REG_RDI},       {"RSI", REG_RSI},       {"RBP", REG_RBP},
      {"RSP", REG_RSP},       {"RAX", REG_RAX},       {"RBX", REG_RBX},
      {"RCX", REG_RCX},       {"RDX", REG_RDX},       {"R8", REG_R8},
      {"R9", REG_R9},         {"R10", REG_R10},       {"R11", REG_R11},
      {"R12", REG_R12},       {"R13", REG_R13},       {"R14", REG_R14},
      {"R15", REG_R15},       {"EFL", REG_EFL},       {"TRAPNO", REG_TRAPNO},
      {"ERR", REG_ERR},       {"CSGSFS", REG_CSGSFS}, {"OLDMASK", REG_OLDMASK},
  };
  for (const auto& r : REGS) {
    crash_log_printf(z, "    %s:  [0x%016llX]\n", r.name, static_cast<unsigned long long>(g[r.reg]));
  }
#else
  (void)uctx;
#endif
}

void _write_uname(crash_log_writer* z) noexcept {
  struct utsname u;
  if (uname(&u) != 0) return;
  crash_log_printf(z, " %s / %s / %s / %s / %s\n", u.sysname, u.nodename, u.release, u.version,
                   u.machine);
}

void _write_release_file(crash_log_writer* z) noexcept {
  for (const auto& path : RELEASE_FILES) {
    if (crash_log_insert_file(z, path, RELEASE_FILE_MAX_SZ, " %s: ") == 0) {
      crash_log_write_str(z, "\n");
      return;
    }
  }
}

void _write_notation_list(crash_log_writer* z, const crashlog_notation* n) noexcept {
  size_t count = 0;
  for (; n != nullptr; n = __atomic_load_n(&n->next, __ATOMIC_ACQUIRE)) {
    if (count == CRASH_LOG_MAX_NOTATIONS) {
      crash_log_write_str(z, MSG_TOO_MANY_NOTATIONS);
      return;
    }
    ++count;
    if (n->render != nullptr && n->render(n, z) > 0) crash_log_write_str(z, "\n");
  }
}

void _write_notations(crash_log_writer* z) noexcept {
  _write_notation_list(z, __atomic_load_n(&g_global_root, __ATOMIC_ACQUIRE));
  const crashlog_notation_perthread_state* cnpsp = _perthread_state();
  if (cnpsp != nullptr) _write_notation_list(z, __atomic_load_n(&cnpsp->root, __ATOMIC_ACQUIRE));
}

void _write_cpuid(crash_log_writer* z) noexcept {
#ifdef __x86_64__
  crash_log_write_str(z, "\nx86 CPUID registers:\n");
  unsigned a, b, c, d;
  __cpuid(0, a, b, c, d);
  unsigned max_basic = a & 0xFFFFu;
  for (unsigned leaf = 0; leaf <= max_basic; ++leaf) {
    __cpuid_count(leaf, 0, a, b, c, d);
    crash_log_printf(z, "  %8X: %08X %08X %08X %08X\n", leaf, a, b, c, d);
  }
  __cpuid(0x80000000u, a, b, c, d);
  unsigned max_ext = a;
  if (max_ext >= 0x80000000u) {
    if (max_ext > 0x8000FFFFu) max_ext = 0x8000FFFFu;  // nonsense from a broken hypervisor
    for (unsigned leaf = 0x80000000u; leaf <= max_ext; ++leaf) {
      __cpuid_count(leaf, 0, a, b, c, d);
      crash_log_printf(z, "  %8X: %08X %08X %08X %08X\n", leaf, a, b, c, d);
    }
  }
#else
  (void)z;
#endif
}

int _open_crash_file(const char* path) noexcept {
  return open(path, O_WRONLY | O_CREAT | O_EXCL | O_TRUNC | O_CLOEXEC, 0600);
}

void _set_default_actions() noexcept {
  struct sigaction sa;
  memset(&sa, 0, sizeof(sa));
  sa.sa_handler = SIG_DFL;
  sigemptyset(&sa.sa_mask);
  for (int sig : HANDLED_SIGNALS) sigaction(sig, &sa, nullptr);
}

// The default actions are in place when the handler returns. A fault made by
// an instruction repeats and ends the process; a signal that was sent (kill,
// raise, abort) does not repeat, so it is raised again.
void _let_signal_take_its_course(int sig, const siginfo_t* si) noexcept {
  if (si == nullptr || si->si_code <= 0) raise(sig);
}

void _crash_handler(int sig, siginfo_t* si, void* uctx) {
  int saved_errno = errno;
  _set_default_actions();

  // The report file, named after the local time; an existing file (a crash
  // in the same second) means no report.
  civil_time ct = _civil_from_epoch(static_cast<long long>(time(nullptr)) + g_cs.utc_offset_s);
  char path[CRASH_LOG_PATH_MAX_LEN + 64];
  fmt_into(path, sizeof(path), "%s/crash-%04d-%02d-%02d-%02d:%02d:%02d.log", g_cs.dir, ct.year,
            ct.month, ct.day, ct.hour, ct.minute, ct.second);
  bool out_of_fds = false;
  int fd = _open_crash_file(path);
  if (fd < 0 && (errno == ENFILE || errno == EMFILE)) {
    out_of_fds = true;
    if (close(0) == 0) fd = _open_crash_file(path);
  }
  if (fd < 0) {
    _let_signal_take_its_course(sig, si);
    errno = saved_errno;
    return;
  }
  crash_log_writer w;
  crash_log_writer_init(&w, fd);
  crash_log_writer* z = &w;
  if (out_of_fds) crash_log_write_str(z, "(Out of file descriptors!)\n");

  crash_log_printf(z, "[build %d] %04d-%02d-%02d %02d:%02d:%02d\n", CRASH_LOG_BUILD_NUMBER, ct.year,
                   ct.month, ct.day, ct.hour, ct.minute, ct.second);
  if (out_of_fds) _write_open_descriptors(z);

  crash_log_printf(z, "Received fatal signal %d (%s).\n", sig, _signame(sig));
  if (si != nullptr && si->si_signo != sig) {
    crash_log_printf(z, "   [siginfo has different signal number: %d!]\n", si->si_signo);
  }
  _write_cause(z, sig, si);

  crash_log_threadname_func tname = __atomic_load_n(&g_cs.threadname, __ATOMIC_ACQUIRE);
  if (tname != nullptr) crash_log_printf(z, " Crashing thread: %s\n", tname());

  _write_registers(z, uctx);

  crash_log_write_str(z, "\n OS: Linux\n Arch: x86-64\n\n Backtrace:\n");
  // Skipped: get_backtrace itself, this handler and the signal trampoline.
  get_backtrace(z, 3);

  _write_uname(z);
  if (sig == SIGABRT) _write_stderr_tail(z);
  _write_release_file(z);
  if (g_cs.libc_version != nullptr) {
    crash_log_printf(z, " glibc version: %s\n", g_cs.libc_version());
  }
  if (g_cs.libc_release != nullptr) {
    crash_log_printf(z, " glibc release: %s\n", g_cs.libc_release());
  }
  if (sig == SIGSEGV || sig == SIGBUS) _write_memory_map(z);

  crash_log_printf(z, "Last errno: %d\n", saved_errno);
  crash_log_threadcount_func tcount = __atomic_load_n(&g_cs.threadcount, __ATOMIC_ACQUIRE);
  if (tcount != nullptr) crash_log_printf(z, "Threads running: %u\n", tcount());

  _write_notations(z);
  _write_cpuid(z);
  crash_log_write_str(z, "terminating...\n");
  close(fd);

  _let_signal_take_its_course(sig, si);
  errno = saved_errno;
}

void _resolve_libc_functions() noexcept {
  g_cs.libc_version = nullptr;
  g_cs.libc_release = nullptr;
  void* h = dlopen("/lib64/libc.so.6", RTLD_LAZY);
  if (h == nullptr) return;
  // The C library stays loaded (the process uses it), so the functions stay
  // valid after dlclose.
  g_cs.libc_version = reinterpret_cast<const char* (*)()>(dlsym(h, "gnu_get_libc_version"));
  g_cs.libc_release = reinterpret_cast<const char* (*)()>(dlsym(h, "gnu_get_libc_release"));
  dlclose(h);
}

// Everything the handler would otherwise have to compute with calls that
// may allocate or lock.
void _prepare_for_handler() noexcept {
  time_t now = time(nullptr);
  struct tm tm;
  g_cs.utc_offset_s = localtime_r(&now, &tm) != nullptr ? tm.tm_gmtoff : 0;
  for (int sig : HANDLED_SIGNALS) {
    const char* name = strsignal(sig);
    fmt_into(g_cs.signame[sig], sizeof(g_cs.signame[sig]), "%s", name != nullptr ? name : "");
  }
  // The first backtrace loads libgcc's unwinder, which allocates.
  void* frames[4];
  backtrace(frames, 4);
}

// The guarded alternate stack: no-access pages on both sides of the usable range.
int _setup_alternate_stack() noexcept {
  long page = sysconf(_SC_PAGESIZE);
  if (page == -1) {
    perror("cannot find process page size");
    return -1;
  }
  auto page_sz = static_cast<size_t>(page);
  size_t map_sz = (2047 / page_sz + 11) * page_sz;
  size_t stack_sz = (2047 / page_sz + 9) * page_sz;
  void* map = mmap(nullptr, map_sz, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (map == MAP_FAILED) {
    perror("cannot allocate alternate stack");
    return -1;
  }
  char* base = static_cast<char*>(map);
  if (mprotect(base + page_sz, stack_sz, PROT_READ | PROT_WRITE) != 0) {
    perror("cannot change memory protection on alternate stack");
    munmap(map, map_sz);
    return -1;
  }
  stack_t ss;
  memset(&ss, 0, sizeof(ss));
  ss.ss_sp = base + page_sz;
  ss.ss_size = stack_sz;
  ss.ss_flags = 0;
  if (sigaltstack(&ss, nullptr) != 0) {
    perror("cannot set alternate stack");
    munmap(map, map_sz);
    return -1;
  }
  // A second installation replaces the stack of the first.
  if (g_cs.altstack != nullptr) munmap(g_cs.altstack, g_cs.altstack_map_sz);
  g_cs.altstack = base;
  g_cs.altstack_map_sz = map_sz;
  return 0;
}

int _install_handlers() noexcept {
  struct sigaction sa;
  memset(&sa, 0, sizeof(sa));
  sa.sa_sigaction = &_crash_handler;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER | SA_RESETHAND;
  constexpr int count = sizeof(HANDLED_SIGNALS) / sizeof(HANDLED_SIGNALS[0]);
  for (int i = 0; i < count; ++i) {
    if (sigaction(HANDLED_SIGNALS[i], &sa, nullptr) != 0) {
      fprintf(stderr, "cannot sigaction signal %d (%s)", HANDLED_SIGNALS[i],
              strsignal(HANDLED_SIGNALS[i]));
      for (int j = i - 1; j >= 0; --j) signal(HANDLED_SIGNALS[j], SIG_DFL);
      return -1;
    }
  }
  return 0;
}

}  // namespace

int crash_log_creator_init(const char* dir) noexcept {
  fmt_into(g_cs.dir, sizeof(g_cs.dir), "%s", dir != nullptr ? dir : ".");
  _resolve_libc_functions();
  _prepare_for_handler();
  if (_setup_alternate_stack() != 0) return -1;
  return _install_handlers();
}

int crash_log_creator_init_with_default_prefix() noexcept {
  char dir[CRASH_LOG_PATH_MAX_LEN + 1];
  const char* home = getenv("TARNIX_HOME");
  if (home != nullptr) {
    fmt_into(dir, sizeof(dir), "%s/%s", home, "var/log/tarnix");
  } else {
    fmt_into(dir, sizeof(dir), "%s", ".");
  }
  return crash_log_creator_init(dir);
}

}  // namespace tarnix
