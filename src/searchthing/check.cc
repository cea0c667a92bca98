#include "searchthing/check.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace tarnix {

namespace {
void put(const char* s) noexcept {
  size_t n = strlen(s);
  while (n > 0) {
    ssize_t w = write(2, s, n);
    if (w <= 0) return;
    s += w;
    n -= static_cast<size_t>(w);
  }
}
}  // namespace

void st_assert_fail(const char* text, const char* file, int line) noexcept {
  char num[16];
  int i = sizeof(num) - 1;
  num[i] = '\0';
  unsigned v = line < 0 ? 0u : static_cast<unsigned>(line);
  do {
    num[--i] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0 && i > 0);
  put(file);
  put(":");
  put(num + i);
  put(": Assertion `");
  put(text);
  put("' failed.\n");
  abort();
}

}  // namespace tarnix
