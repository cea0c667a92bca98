// Failures injected into the system calls of a program that a test runs as
// a separate process: loaded with LD_PRELOAD and configured by the
// environment, it does nothing unless asked.
//
//   TARNIX_FAIL_LINK=E        every link() fails with error number E
//   TARNIX_FAIL_OPEN=S:K:N:E  of the open() calls for paths ending in S, the
//                             first K go through and the next N fail with
//                             error number E (N = 0: every one after the K)
//   TARNIX_FAIL_CLOSE=S:E     close() of a descriptor whose file's path ends
//                             in S closes it and then fails with E
//   TARNIX_FAIL_UNLINK=S:E    unlink() of a path ending in S fails with E and
//                             removes nothing
//   TARNIX_FAIL_PREAD=S:K:N:E of the pread() calls on descriptors whose file's
//                             path ends in S, the first K go through and the
//                             next N fail with error number E (N = 0: every
//                             one after the K), as a failing disk would
//   TARNIX_SIGNAL_AT_LINK=G   link() links and then sends signal G to the
//                             process (as a stop request from outside would)
//   TARNIX_FIXED_TIME=T       gettimeofday() always gives T seconds and rand()
//                             always 0, so that every file name the program
//                             makes is known beforehand (nothing may wait for
//                             the clock to move)
//
// S may hold ':'; the numbers are taken from the end. Memory that runs out
// is the business of failalloc.cc, a library of its own.
#undef _FORTIFY_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "rules.h"

namespace {

rule link_rule, open_rule, close_rule, unlink_rule, pread_rule;
int link_signal = 0;
bool time_fixed = false;
long fixed_seconds = 0;
std::atomic<long> opens_seen{0};
std::atomic<long> preads_seen{0};

__attribute__((constructor)) void read_settings() {
  if (const char* v = getenv("TARNIX_FAIL_LINK")) {
    link_rule.on = true;
    link_rule.err = atoi(v);
  }
  read_rule("TARNIX_FAIL_OPEN", true, &open_rule);
  read_rule("TARNIX_FAIL_CLOSE", false, &close_rule);
  read_rule("TARNIX_FAIL_UNLINK", false, &unlink_rule);
  read_rule("TARNIX_FAIL_PREAD", true, &pread_rule);
  if (const char* v = getenv("TARNIX_SIGNAL_AT_LINK")) {
    link_signal = atoi(v);
    if (link_signal <= 0) bad_setting("TARNIX_SIGNAL_AT_LINK");
  }
  if (const char* v = getenv("TARNIX_FIXED_TIME")) {
    char* stop = nullptr;
    fixed_seconds = strtol(v, &stop, 10);
    if (*v == '\0' || *stop != '\0') bad_setting("TARNIX_FIXED_TIME");
    time_fixed = true;
  }
}

template <typename F>
F next(const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

bool fd_path_ends_in(int fd, const char* suffix) {
  char proc[64], path[SUFFIX_SZ];
  snprintf(proc, sizeof proc, "/proc/self/fd/%d", fd);
  const ssize_t n = readlink(proc, path, sizeof path - 1);
  return n > 0 && (path[n] = '\0', ends_with(path, suffix));
}

bool pread_fails(int fd) {
  if (!pread_rule.on || !fd_path_ends_in(fd, pread_rule.suffix)) return false;
  if (!counted_failure(pread_rule, preads_seen)) return false;
  errno = pread_rule.err;
  return true;
}

bool open_fails(const char* path) {
  if (!open_rule.on || path == nullptr || !ends_with(path, open_rule.suffix)) return false;
  if (!counted_failure(open_rule, opens_seen)) return false;
  errno = open_rule.err;
  return true;
}

mode_t mode_of(int flags, va_list ap) {
  return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(ap, mode_t) : 0;
}

int open_through(const char* name, const char* path, int flags, mode_t mode) {
  if (open_fails(path)) return -1;
  return next<int (*)(const char*, int, ...)>(name)(path, flags, mode);
}

}  // namespace

extern "C" {

int link(const char* from, const char* to) noexcept {
  if (link_rule.on) {
    errno = link_rule.err;
    return -1;
  }
  static auto real = next<int (*)(const char*, const char*)>("link");
  const int r = real(from, to);
  if (link_signal != 0) {
    const int err = errno;
    kill(getpid(), link_signal);
    errno = err;
  }
  return r;
}

int open(const char* path, int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  const mode_t mode = mode_of(flags, ap);
  va_end(ap);
  return open_through("open", path, flags, mode);
}

int open64(const char* path, int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  const mode_t mode = mode_of(flags, ap);
  va_end(ap);
  return open_through("open64", path, flags, mode);
}

int close(int fd) {
  static auto real = next<int (*)(int)>("close");
  if (!close_rule.on) return real(fd);
  const bool hit = fd_path_ends_in(fd, close_rule.suffix);
  const int r = real(fd);
  if (!hit || r != 0) return r;
  errno = close_rule.err;
  return -1;
}

ssize_t pread(int fd, void* buf, size_t n, off_t offset) {
  static auto real = next<ssize_t (*)(int, void*, size_t, off_t)>("pread");
  if (pread_fails(fd)) return -1;
  return real(fd, buf, n, offset);
}

ssize_t pread64(int fd, void* buf, size_t n, off_t offset) {
  static auto real = next<ssize_t (*)(int, void*, size_t, off_t)>("pread64");
  if (pread_fails(fd)) return -1;
  return real(fd, buf, n, offset);
}

int unlink(const char* path) noexcept {
  if (unlink_rule.on && ends_with(path, unlink_rule.suffix)) {
    errno = unlink_rule.err;
    return -1;
  }
  static auto real = next<int (*)(const char*)>("unlink");
  return real(path);
}

int gettimeofday(struct timeval* tv, void* tz) noexcept {
  static auto real = next<int (*)(struct timeval*, void*)>("gettimeofday");
  if (!time_fixed) return real(tv, tz);
  tv->tv_sec = fixed_seconds;
  tv->tv_usec = 0;
  return 0;
}

int rand() noexcept {
  static auto real = next<int (*)()>("rand");
  return time_fixed ? 0 : real();
}

}  // extern "C"
