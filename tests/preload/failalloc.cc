// Memory that runs out, for a program that a test runs as a separate
// process: loaded with LD_PRELOAD and configured by the environment, it
// does nothing unless asked.
//
//   TARNIX_FAIL_MALLOC=S:K:N  once a path ending in S has been opened (from
//                             the start when S is empty), of the memory
//                             allocations (malloc, calloc, realloc, aligned
//                             ones; operator new goes through malloc) the
//                             first K go through and the next N fail with
//                             ENOMEM (N = 0: every one after the K), as in a
//                             process at its memory limit
//
// Not for programs built with AddressSanitizer, whose allocator this one
// would stand in front of.
#undef _FORTIFY_SOURCE
#include <dlfcn.h>
#include <fcntl.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>

#include "rules.h"

namespace {

rule malloc_rule;
std::atomic<bool> armed{false};
std::atomic<long> allocations_seen{0};

__attribute__((constructor)) void read_settings() {
  read_rule("TARNIX_FAIL_MALLOC", true, &malloc_rule, ENOMEM);
  if (malloc_rule.on && malloc_rule.suffix[0] == '\0') armed = true;
}

bool allocation_fails() {
  if (!armed.load(std::memory_order_relaxed) || !counted_failure(malloc_rule, allocations_seen)) return false;
  errno = ENOMEM;
  return true;
}

int open_through(const char* name, const char* path, int flags, va_list ap) {
  const mode_t mode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(ap, mode_t) : 0;
  if (malloc_rule.on && path != nullptr && ends_with(path, malloc_rule.suffix)) armed = true;
  return reinterpret_cast<int (*)(const char*, int, ...)>(dlsym(RTLD_NEXT, name))(path, flags, mode);
}

}  // namespace

extern "C" {

// glibc's own allocator stays reachable under these names, so nothing here
// has to look the real functions up (which itself allocates).
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);

void* malloc(size_t n) noexcept { return allocation_fails() ? nullptr : __libc_malloc(n); }

void* calloc(size_t k, size_t n) noexcept { return allocation_fails() ? nullptr : __libc_calloc(k, n); }

void* realloc(void* p, size_t n) noexcept {
  // A shrink to nothing frees, and cannot fail.
  return n != 0 && allocation_fails() ? nullptr : __libc_realloc(p, n);
}

void* aligned_alloc(size_t align, size_t n) noexcept {
  return allocation_fails() ? nullptr : __libc_memalign(align, n);
}

void* memalign(size_t align, size_t n) noexcept { return allocation_fails() ? nullptr : __libc_memalign(align, n); }

int posix_memalign(void** out, size_t align, size_t n) noexcept {
  if (align < sizeof(void*) || (align & (align - 1)) != 0) return EINVAL;
  if (allocation_fails()) return ENOMEM;
  void* p = __libc_memalign(align, n);
  if (p == nullptr) return ENOMEM;
  *out = p;
  return 0;
}

int open(const char* path, int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  const int fd = open_through("open", path, flags, ap);
  va_end(ap);
  return fd;
}

int open64(const char* path, int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  const int fd = open_through("open64", path, flags, ap);
  va_end(ap);
  return fd;
}

}  // extern "C"
