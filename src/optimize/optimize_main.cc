#include "optimize_main.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "searchthing/lock.h"
#include "searchthing/result.h"
#include "searchthing/st.h"

namespace tarnix {

namespace {

constexpr uint64_t MIN_PAGE_SIZE = 16384;
constexpr int32_t MAX_SRC_COUNT = 32;

// Kept exactly as users and scripts know it, odd spellings and all: the
// long form "--iterations-max" is not what the parser accepts, and --final
// and --tstats are left out on purpose.
constexpr char USAGE_FORMAT[] =
    "usage:%s -d|--directory <dir>\n"
    "\t[-h|--help]\n"
    "\t[-m|--mode <normal|force|all> (defaults to normal)]\n"
    "\t[-v|--verbose]\n"
    "\t[-s|--min-src-count <number> (defaults to 8)]\n"
    "\t[-i|--iterations-max <number> (defaults to unlmitted)]\n"
    "\t[-b|--lex-tpb  <number> (default 64 - merged lexicon terms per block)]\n"
    "\t[-x|--max-allowed-size  <number> (max allowed extra disk space required, in bytes)]\n"
    "\t[-p]--page-size <bytes> (memory allocation size, default: 1048576 (1MB), minimum: %d)]\n";

struct run_settings {
  const char* directory = nullptr;
  int32_t mode = 0;
  bool isfinal = false;
  int32_t max_iteration = INT32_MAX;
  int32_t min_src_count = 8;
  int32_t lex_tpb = 64;
  uint64_t page_size = 0;
  uint64_t max_allowed_size = 0;
  bool verbose = false;
  bool tstats = false;
};

bool is(const char* arg, const char* name) noexcept { return strcmp(arg, name) == 0; }

// Numeric values must start with a decimal digit: signs, blanks and empty
// strings are refused before any conversion.
bool starts_with_digit(const char* s) noexcept {
  return s != nullptr && isdigit(static_cast<unsigned char>(s[0])) != 0;
}

// Signed decimal that lands in a 32-bit field without a range check; like
// the C conversion it replaces, a value past the 32-bit range keeps its low
// 32 bits.
int32_t to_int32(const char* s) noexcept {
  return static_cast<int32_t>(static_cast<uint32_t>(strtoll(s, nullptr, 10)));
}

}  // namespace

int print_usage(const char* program_name, const char* message) noexcept {
  fprintf(stderr, "MESSAGE: %s\n", message);
  fprintf(stderr, USAGE_FORMAT, program_name, static_cast<int>(MIN_PAGE_SIZE));
  return WS_ENONAME;
}

int optimize_main(int argc, char** argv) noexcept {
  const char* prog = argc > 0 && argv[0] != nullptr ? argv[0] : "tarnix-optimize";
  if (argc < 2) return print_usage(prog, "required parms not specified");

  run_settings s;
  s.verbose = getenv("LOG_TARNIX_OPTIMIZE") != nullptr;

  for (int i = 1; i < argc; ++i) {
    const char* arg = argv[i];
    // The value of an option, or null when the option is the last argument.
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;

    if (is(arg, "--directory") || (arg[0] == '-' && is(arg, "-d"))) {
      if (value == nullptr) return print_usage(prog, "specify directory");
      s.directory = value;
      ++i;
    } else if (arg[0] != '-') {
      return print_usage(prog, "unrecognized flag");
    } else if (is(arg, "--min-src-count") || is(arg, "-s")) {
      if (!starts_with_digit(value)) return print_usage(prog, "specify minimum source count");
      long long v = strtoll(value, nullptr, 10);
      if (v > MAX_SRC_COUNT) return print_usage(prog, "specify minimum source count at most 32");
      s.min_src_count = static_cast<int32_t>(v);
      ++i;
    } else if (is(arg, "--iteration-max") || is(arg, "-i")) {
      if (!starts_with_digit(value)) return print_usage(prog, "specify iteration max");
      s.max_iteration = to_int32(value);
      ++i;
    } else if (is(arg, "-m") || is(arg, "--mode")) {
      if (value == nullptr) return print_usage(prog, "specify mode");
      if (is(value, "normal")) {
        s.mode = 0;
      } else if (is(value, "force")) {
        s.mode = 1;
      } else if (is(value, "all")) {
        s.mode = 2;
      } else {
        return print_usage(prog, "invalid mode specified");
      }
      ++i;
    } else if (is(arg, "-b") || is(arg, "--lex-tpb")) {
      if (!starts_with_digit(value)) return print_usage(prog, "specify lexicon terms per block");
      s.lex_tpb = to_int32(value);
      ++i;
    } else if (is(arg, "-p") || is(arg, "--page-size")) {
      if (!starts_with_digit(value)) return print_usage(prog, "specify valid page size");
      // An overflowing conversion yields the largest value, which is
      // therefore refused too.
      unsigned long long v = strtoull(value, nullptr, 10);
      if (v < MIN_PAGE_SIZE || v == ULLONG_MAX) return print_usage(prog, "specify valid page size");
      s.page_size = v;
      ++i;
    } else if (is(arg, "-x") || is(arg, "--max-allowed-size")) {
      if (!starts_with_digit(value)) return print_usage(prog, "specify maximum number of bytes");
      // An overflowing conversion silently means "no limit".
      unsigned long long v = strtoull(value, nullptr, 10);
      s.max_allowed_size = v == ULLONG_MAX ? 0 : v;
      ++i;
    } else if (is(arg, "-v") || is(arg, "--verbose")) {
      s.verbose = true;
    } else if (is(arg, "--final")) {
      s.isfinal = true;
    } else if (is(arg, "--tstats")) {
      s.tstats = true;
    } else if (is(arg, "-h") || is(arg, "--help")) {
      return print_usage(prog, "HELP:");
    } else {
      return print_usage(prog, "unrecognized flag");
    }
  }

  if (s.directory == nullptr) return print_usage(prog, "required parms not specified");

  (void)st_init();
  FILE* log = s.verbose ? stderr : nullptr;
  wrc result{};
  int rc = st_optimize(s.directory, s.mode, s.isfinal ? 1 : 0, s.max_iteration,
                       static_cast<uint32_t>(s.min_src_count), static_cast<uint32_t>(s.lex_tpb),
                       s.page_size, log, &result, s.max_allowed_size, s.tstats ? 1 : 0);
  if (log != nullptr) fclose(log);
  return rc;
}

}  // namespace tarnix
