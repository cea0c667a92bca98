// The environment rules of the preloaded failure libraries: which calls
// fail, counted how, with which error. Each library that includes this
// reads its own rules in its constructor.
#pragma once

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t SUFFIX_SZ = 4096;

struct rule {
  bool on = false;
  char suffix[SUFFIX_SZ] = {};
  long skip = 0;
  long count = 0;
  int err = 0;
};

// Takes the last `n` ':'-separated numbers off text into out[] (in order)
// and leaves the rest in suffix. False when they are not there.
bool split(const char* text, int n, char* suffix, long* out) {
  size_t end = strlen(text);
  for (int k = n - 1; k >= 0; --k) {
    size_t colon = end;
    while (colon > 0 && text[colon - 1] != ':') --colon;
    if (colon == 0 || colon == end) return false;
    char* stop = nullptr;
    out[k] = strtol(text + colon, &stop, 10);
    if (stop != text + end) return false;
    end = colon - 1;
  }
  if (end >= SUFFIX_SZ) return false;
  memcpy(suffix, text, end);
  suffix[end] = '\0';
  return true;
}

bool ends_with(const char* s, const char* suffix) {
  const size_t n = strlen(s), m = strlen(suffix);
  return n >= m && memcmp(s + n - m, suffix, m) == 0;
}

[[noreturn]] void bad_setting(const char* name) {
  fprintf(stderr, "failcalls: cannot read %s\n", name);
  _exit(125);
}

// S:K:N:E when counted, else S:E; S:K:N when counted and the error is
// fixed_err.
void read_rule(const char* name, bool counted, rule* r, int fixed_err = 0) {
  const char* v = getenv(name);
  if (v == nullptr) return;
  long n[3] = {0, 0, fixed_err};
  const int numbers = (counted ? 2 : 0) + (fixed_err == 0 ? 1 : 0);
  if (!split(v, numbers, r->suffix, counted ? n : n + 2)) bad_setting(name);
  r->on = true;
  r->skip = n[0];
  r->count = n[1];
  r->err = static_cast<int>(n[2]);
}

// Counts a call of a counted rule: whether it is one of those that fail.
bool counted_failure(const rule& r, std::atomic<long>& seen_so_far) {
  const long seen = seen_so_far.fetch_add(1);
  if (seen < r.skip) return false;
  return r.count == 0 || seen < r.skip + r.count;
}

}  // namespace
