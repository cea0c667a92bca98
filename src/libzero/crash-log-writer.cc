// The crash log writer and its formatting: a bounded subset of printf into
// fixed buffers, the write operation that caps the size of a report, file
// copies and the backtrace. Everything here is async-signal-safe (backtrace
// once libgcc is loaded, dladdr in practice): no heap, no stdio, no locks.
#include "libzero/crash-log-writer.h"

#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "libzero/create-crash-dump.h"

namespace tarnix {

namespace {

constexpr char MSG_WRITE_TOO_BIG[] = "Crash log write attempted over the limit of (50kB), skipping.\n";
constexpr char MSG_OVERFLOW[] = "Crash log has overflowed the allowed limit (512kB), truncated.\n";
constexpr char MSG_TRUNCATING[] = "<truncating output>";

// A bounded output buffer: characters past the capacity (less one for the
// terminating NUL) are counted as overflow, not stored.
struct fmt_buf {
  char* buf;
  size_t cap;
  size_t len;
  bool over;
};

void _fmt_put(fmt_buf* b, char c) noexcept {
  if (b->len + 1 < b->cap) {
    b->buf[b->len++] = c;
  } else {
    b->over = true;
  }
}

void _fmt_pad(fmt_buf* b, char c, int n) noexcept {
  for (int i = 0; i < n; ++i) _fmt_put(b, c);
}

// Digits of v in the given base, most significant first, into out (at least
// 24 bytes); returns the count.
int _fmt_digits(unsigned long long v, unsigned base, bool upper, char* out) noexcept {
  const char* dig = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  char rev[24];
  int n = 0;
  do {
    rev[n++] = dig[v % base];
    v /= base;
  } while (v != 0);
  for (int i = 0; i < n; ++i) out[i] = rev[n - 1 - i];
  return n;
}

void _fmt_number(fmt_buf* b, bool neg, const char* prefix, const char* digits, int ndig, int width,
                 bool zero, bool left) noexcept {
  int plen = static_cast<int>(strlen(prefix));
  int body = ndig + (neg ? 1 : 0) + plen;
  int pad = width > body ? width - body : 0;
  if (!left && !zero) _fmt_pad(b, ' ', pad);
  if (neg) _fmt_put(b, '-');
  for (int i = 0; i < plen; ++i) _fmt_put(b, prefix[i]);
  if (!left && zero) _fmt_pad(b, '0', pad);
  for (int i = 0; i < ndig; ++i) _fmt_put(b, digits[i]);
  if (left) _fmt_pad(b, ' ', pad);
}

// The subset of printf the reports need; see crash_log_printf.
void _fmt_v(fmt_buf* b, const char* fmt, va_list ap) noexcept {
  for (const char* p = fmt; *p != '\0'; ++p) {
    if (*p != '%') {
      _fmt_put(b, *p);
      continue;
    }
    ++p;
    bool zero = false, left = false;
    for (;; ++p) {
      if (*p == '0') {
        zero = true;
      } else if (*p == '-') {
        left = true;
      } else {
        break;
      }
    }
    int width = 0;
    while (*p >= '0' && *p <= '9') width = width * 10 + (*p++ - '0');
    int longs = 0;
    bool size_mod = false;
    while (*p == 'l') {
      ++longs;
      ++p;
    }
    if (*p == 'z') {
      size_mod = true;
      ++p;
    }
    char digits[24];
    switch (*p) {
      case '\0':
        return;
      case 'd':
      case 'i': {
        long long v;
        if (longs >= 2) {
          v = va_arg(ap, long long);
        } else if (longs == 1) {
          v = va_arg(ap, long);
        } else if (size_mod) {
          v = va_arg(ap, ssize_t);
        } else {
          v = va_arg(ap, int);
        }
        bool neg = v < 0;
        unsigned long long u = neg ? 0ULL - static_cast<unsigned long long>(v)
                                   : static_cast<unsigned long long>(v);
        int n = _fmt_digits(u, 10, false, digits);
        _fmt_number(b, neg, "", digits, n, width, zero, left);
        break;
      }
      case 'u':
      case 'x':
      case 'X': {
        unsigned long long u;
        if (longs >= 2) {
          u = va_arg(ap, unsigned long long);
        } else if (longs == 1) {
          u = va_arg(ap, unsigned long);
        } else if (size_mod) {
          u = va_arg(ap, size_t);
        } else {
          u = va_arg(ap, unsigned);
        }
        int n = _fmt_digits(u, *p == 'u' ? 10 : 16, *p == 'X', digits);
        _fmt_number(b, false, "", digits, n, width, zero, left);
        break;
      }
      case 'p': {
        auto u = reinterpret_cast<uintptr_t>(va_arg(ap, void*));
        int n = _fmt_digits(u, 16, false, digits);
        _fmt_number(b, false, "0x", digits, n, width, zero, left);
        break;
      }
      case 's': {
        const char* s = va_arg(ap, const char*);
        if (s == nullptr) s = "(null)";
        int n = static_cast<int>(strlen(s));
        int pad = width > n ? width - n : 0;
        if (!left) _fmt_pad(b, ' ', pad);
        for (int i = 0; i < n; ++i) _fmt_put(b, s[i]);
        if (left) _fmt_pad(b, ' ', pad);
        break;
      }
      case 'c': {
        char c = static_cast<char>(va_arg(ap, int));
        int pad = width > 1 ? width - 1 : 0;
        if (!left) _fmt_pad(b, ' ', pad);
        _fmt_put(b, c);
        if (left) _fmt_pad(b, ' ', pad);
        break;
      }
      case '%':
        _fmt_put(b, '%');
        break;
      default:
        _fmt_put(b, '%');
        _fmt_put(b, *p);
        break;
    }
  }
}

void _write(crash_log_writer* z, const void* buf, size_t len) noexcept {
  z->whand.do_write(z, buf, len);
}

}  // namespace

namespace crash_internal {

void write_all(int fd, const void* buf, size_t len) noexcept {
  const char* p = static_cast<const char*>(buf);
  while (len > 0) {
    ssize_t w = write(fd, p, len);
    if (w < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (w == 0) return;
    p += w;
    len -= static_cast<size_t>(w);
  }
}

void _put_raw(const char* s) noexcept { write_all(2, s, strlen(s)); }

[[noreturn]] void assert_fail(const char* text, const char* file, int line) noexcept {
  char num[16];
  int i = sizeof(num) - 1;
  num[i] = '\0';
  unsigned v = line < 0 ? 0u : static_cast<unsigned>(line);
  do {
    num[--i] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0 && i > 0);
  _put_raw(file);
  _put_raw(":");
  _put_raw(num + i);
  _put_raw(": Assertion `");
  _put_raw(text);
  _put_raw("' failed.\n");
  abort();
}


bool fmt_into(char* buf, size_t cap, const char* fmt, ...) noexcept {
  fmt_buf b{buf, cap, 0, false};
  va_list ap;
  va_start(ap, fmt);
  _fmt_v(&b, fmt, ap);
  va_end(ap);
  buf[b.len] = '\0';
  return !b.over;
}

void write_frame(crash_log_writer* z, void* addr) noexcept {
  crash_log_printf(z, "  [0x%016llX]", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(addr)));
  Dl_info info;
  if (dladdr(addr, &info) != 0 && info.dli_sname != nullptr) {
    auto off = reinterpret_cast<uintptr_t>(addr) - reinterpret_cast<uintptr_t>(info.dli_saddr);
    crash_log_printf(z, " %s + %lu\n", info.dli_sname, static_cast<unsigned long>(off));
  } else {
    crash_log_write_str(z, " ?\n");
  }
}

}  // namespace crash_internal

void crash_log_writer_init(crash_log_writer* z, int fd) noexcept {
  z->whand.do_write = &default_crash_log_write;
  z->fd = fd;
  z->total = 0;
}

void default_crash_log_write(crash_log_writer* z, const void* buf, size_t len) noexcept {
  CRASH_ASSERT_TEXT(z->whand.do_write == &default_crash_log_write,
                    "z->whand.do_write == &default_crash_log_write");
  if (z->total > CRASH_LOG_MAX_TOTAL_SZ - 1) return;
  if (len > CRASH_LOG_MAX_WRITE_SZ) {
    buf = MSG_WRITE_TOO_BIG;
    len = sizeof(MSG_WRITE_TOO_BIG) - 1;
  }
  z->total += len;
  if (z->total >= CRASH_LOG_MAX_TOTAL_SZ) {
    buf = MSG_OVERFLOW;
    len = sizeof(MSG_OVERFLOW) - 1;
  }
  crash_internal::write_all(z->fd, buf, len);
}

void crash_log_write_str(crash_log_writer* z, const char* s) noexcept { _write(z, s, strlen(s)); }

void crash_log_printf(crash_log_writer* z, const char* fmt, ...) noexcept {
  char line[CRASH_LOG_LINE_SZ];
  fmt_buf b{line, sizeof(line), 0, false};
  va_list ap;
  va_start(ap, fmt);
  _fmt_v(&b, fmt, ap);
  va_end(ap);
  if (b.over) {
    // Cut to 255 characters and show the cut with three full stops.
    b.len = CRASH_LOG_LINE_SZ - 1;
    line[b.len - 1] = line[b.len - 2] = line[b.len - 3] = '.';
  }
  _write(z, line, b.len);
}

int crash_log_insert_file(crash_log_writer* z, const char* path, size_t max_sz,
                          const char* title) noexcept {
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  if (title != nullptr) crash_log_printf(z, title, path);
  char buf[1024];
  size_t left = max_sz;
  bool more = false;
  for (;;) {
    size_t want = left < sizeof(buf) ? left : sizeof(buf);
    if (want == 0) {
      // At the limit: is anything left in the file?
      ssize_t r;
      do {
        r = read(fd, buf, 1);
      } while (r < 0 && errno == EINTR);
      more = r > 0;
      break;
    }
    ssize_t r = read(fd, buf, want);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    _write(z, buf, static_cast<size_t>(r));
    left -= static_cast<size_t>(r);
  }
  close(fd);
  if (more) crash_log_write_str(z, MSG_TRUNCATING);
  return 0;
}

__attribute__((noinline)) void get_backtrace(crash_log_writer* z, int skip) noexcept {
  void* frames[128];
  int n = backtrace(frames, 128);
  // Frames are counted from this function. A wrapper around backtrace (as a
  // sanitizer runtime installs) adds frames of its own in front, so find
  // this function's frame by its caller's return address.
  void* caller = __builtin_return_address(0);
  int self = 0;
  for (int i = 0; i < n; ++i) {
    if (frames[i] == caller) {
      self = i > 0 ? i - 1 : 0;
      break;
    }
  }
  for (int i = self + (skip < 0 ? 0 : skip); i < n; ++i) crash_internal::write_frame(z, frames[i]);
}

}  // namespace tarnix
