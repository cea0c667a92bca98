// tarnix-lex: builds the directory-wide lexicon of a bucket directory
// ("merged_lexicon.lex": every term of every index file with the sum of its
// counts), its copy filtered by term frequency ("filtered_merged_lexicon.lex"),
// and lists the terms and counts of such a lexicon-only file.
//
// The filter cannot make a lexicon without terms (the library treats that
// as a broken promise and aborts), so before filtering the tool reads the
// merged lexicon's counts and refuses, with a message and exit status 1, a
// minimum count that no term reaches.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "common/args.h"
#include "common/text.h"
#include "searchthing/lock.h"
#include "searchthing/merged_lex.h"
#include "searchthing/result.h"
#include "searchthing/tsidx.h"
#include "searchthing/warmslice_util.h"

namespace {

constexpr int EXIT_FAILED = 1;
using tools::EXIT_USAGE;
using tools::parse_u64;
constexpr uint32_t DEFAULT_TPB = 64;
constexpr uint64_t MIN_PAGE_SIZE = 9;   // an 8-byte page header and one byte

constexpr const char USAGE[] =
    "usage: tarnix-lex -d DIR [-v] [-b TPB] [-p PAGE_SIZE]\n"
    "       tarnix-lex -d DIR --filter MIN_COUNT [-v] [-b TPB] [-p PAGE_SIZE]\n"
    "       tarnix-lex --list FILE [--prefix P] [--native-counts]\n"
    "\n"
    "The first form merges the lexicons of the index files of the bucket\n"
    "directory DIR (2 to 32 unlocked, non-empty \".tsidx\" files) into\n"
    "DIR/merged_lexicon.lex: every term once, with the sum of its counts.\n"
    "The second writes DIR/filtered_merged_lexicon.lex from it, keeping the\n"
    "terms whose count is at least MIN_COUNT; its counts are stored in this\n"
    "machine's byte order. Neither replaces an existing output file. Both\n"
    "leave the line \"tarnix-optimize-lex complete with rc=... wrc=[...]\" in\n"
    "DIR/optimize.result. A MIN_COUNT that no term reaches is refused before\n"
    "anything is written (exit status 1).\n"
    "The third prints \"TERM<tab>COUNT\" for every term of a lexicon-only file\n"
    "(or index file), only those beginning with P when --prefix is given;\n"
    "bytes of a term outside printable ASCII, and the backslash, as \\xNN.\n"
    "Counts are read in this machine's byte order for a file named\n"
    "\"filtered_merged_lexicon.lex\" or with --native-counts, else big-endian.\n"
    "\n"
    "options:\n"
    "  -d DIR            bucket directory\n"
    "  --filter N        build the filtered lexicon with minimum count N\n"
    "  -v                progress messages on standard output\n"
    "  -b TPB            terms per lexicon block, at least 1 (default 64)\n"
    "  -p PAGE_SIZE      page size of the lexicon writer in bytes, 0 for the\n"
    "                    default of 1048576, else at least 9 (default 0)\n"
    "  --list FILE       print the terms and counts of FILE\n"
    "  --prefix P        with --list: only terms beginning with P\n"
    "  --native-counts   with --list: counts in this machine's byte order\n"
    "  --help            this text\n"
    "\n"
    "Exit status: 0 done (also when the directory has fewer than 2 index\n"
    "files: nothing to merge), 1 failure (the code is printed), 2 usage error.\n";

struct options {
  const char* dir = nullptr;
  bool filter = false;
  uint32_t min_count = 0;
  bool verbose = false;
  uint32_t tpb = DEFAULT_TPB;
  uint64_t page_size = 0;
  const char* list = nullptr;
  const char* prefix = nullptr;
  bool native_counts = false;
};

[[noreturn]] void usage_error(const char* fmt, const char* arg) { tools::usage_exit("tarnix-lex", fmt, arg); }

options parse_args(int argc, char** argv) {
  options o;
  bool dir_mode_option = false;  // an option that only the directory forms take
  auto value = [&](int* i) -> const char* {
    if (*i + 1 >= argc) usage_error("%s needs a value", argv[*i]);
    return argv[++*i];
  };
  auto number = [&](int* i, uint64_t max) {
    const char* v = value(i);
    uint64_t n;
    if (!parse_u64(v, &n) || n > max) usage_error("not a valid number: \"%s\"", v);
    return n;
  };
  for (int i = 1; i < argc; ++i) {
    std::string_view a = argv[i];
    if (a == "--help" || a == "-h") {
      exit(tools::print_help("tarnix-lex", USAGE));
    } else if (a == "-d") {
      o.dir = value(&i);
    } else if (a == "--filter") {
      o.filter = true;
      o.min_count = static_cast<uint32_t>(number(&i, UINT32_MAX));
    } else if (a == "-v") {
      o.verbose = true;
      dir_mode_option = true;
    } else if (a == "-b") {
      uint64_t n = number(&i, UINT32_MAX);
      if (n == 0) usage_error("%s must be at least 1", "-b");
      o.tpb = static_cast<uint32_t>(n);
      dir_mode_option = true;
    } else if (a == "-p") {
      uint64_t n = number(&i, UINT64_MAX);
      if (n != 0 && n < MIN_PAGE_SIZE) usage_error("%s must be 0 or at least 9", "-p");
      o.page_size = n;
      dir_mode_option = true;
    } else if (a == "--list") {
      o.list = value(&i);
    } else if (a == "--prefix") {
      o.prefix = value(&i);
    } else if (a == "--native-counts") {
      o.native_counts = true;
    } else {
      usage_error("unknown argument \"%s\"", argv[i]);
    }
  }
  if (o.list != nullptr) {
    if (o.dir != nullptr || o.filter || dir_mode_option) {
      usage_error("%s takes only --prefix and --native-counts", "--list");
    }
  } else {
    if (o.dir == nullptr) usage_error("%s", "no bucket directory (-d DIR) and no --list FILE");
    if (o.prefix != nullptr || o.native_counts) {
      usage_error("%s", "--prefix and --native-counts go with --list");
    }
  }
  return o;
}

// ---- --list ----------------------------------------------------------------------

struct list_state {
  std::string_view prefix;
};

int print_term(const char* term, uint32_t len, uint32_t count, void* cookie) {
  const auto* s = static_cast<const list_state*>(cookie);
  std::string_view t(term, len);
  if (t.substr(0, s->prefix.size()) != s->prefix) return 0;
  printf("%s\t%u\n", tools::plain_term(t).c_str(), count);
  return 0;
}

// Opens path read-only if it is a regular file; -1 after the error line.
// The open does not wait: a FIFO would otherwise hold it until a writer came.
int open_regular(const char* path) {
  int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    fprintf(stderr, "tarnix-lex: cannot open %s: %s\n", path, strerror(errno));
    return -1;
  }
  struct stat st;
  const bool known = fstat(fd, &st) == 0;
  if (!known || !S_ISREG(st.st_mode)) {
    const char* why = !known ? strerror(errno) : S_ISDIR(st.st_mode) ? strerror(EISDIR) : "not a regular file";
    fprintf(stderr, "tarnix-lex: cannot open %s: %s\n", path, why);
    close(fd);
    return -1;
  }
  return fd;
}

int list_file(const options& o) {
  int fd = open_regular(o.list);
  if (fd < 0) return EXIT_FAILED;
  // The filtered lexicon keeps its counts in the machine's own order.
  const bool native = o.native_counts || tools::counts_in_native_order(o.list);

  list_state s{o.prefix != nullptr ? std::string_view(o.prefix) : std::string_view()};
  tarnix::wrc w{};
  int rc = tarnix::st_lex_file_walk(fd, native ? 1 : 0, print_term, &s, &w);
  close(fd);
  if (fflush(stdout) != 0) {
    fprintf(stderr, "tarnix-lex: writing the list failed: %s\n", strerror(errno));
    return EXIT_FAILED;
  }
  if (rc != 0) {
    fprintf(stderr, "tarnix-lex: cannot read %s: rc=%i (%s)%s%s\n", o.list, rc, tarnix::st_rc_name(rc),
            w.message[0] != '\0' ? " " : "", w.message);
    return EXIT_FAILED;
  }
  return 0;
}

// ---- Directory forms --------------------------------------------------------------

// 0 when filtering may go ahead, else the exit status. A missing merged
// lexicon is left to the library, which refuses it with its own code.
int check_filter_keeps_terms(const options& o) {
  std::string input = std::string(o.dir) + "/" + tarnix::ST_MERGED_LEX_NAME;
  if (access(input.c_str(), F_OK) != 0) return 0;
  int fd = open_regular(input.c_str());
  if (fd < 0) return EXIT_FAILED;
  uint32_t kept = 0;
  tarnix::wrc w{};
  int rc = tarnix::st_lex_file_count_kept(fd, o.min_count, &kept, &w);
  close(fd);
  if (rc != 0) {
    fprintf(stderr, "tarnix-lex: cannot read %s: rc=%i (%s)\n", input.c_str(), rc, tarnix::st_rc_name(rc));
    return EXIT_FAILED;
  }
  if (kept == 0) {
    fprintf(stderr,
            "tarnix-lex: no term of %s has a count of at least %u; the filtered lexicon would be empty, "
            "nothing written\n",
            input.c_str(), o.min_count);
    return EXIT_FAILED;
  }
  return 0;
}

// 0 when no file under an index file's name is a lexicon-only file, else
// the exit status after naming the first. The lexicon merge takes its
// sources' term counts from their metadata, which such a file does not
// have, and treats one as a broken promise (it aborts).
int check_no_lexicon_only_sources(const options& o) {
  DIR* d = opendir(o.dir);
  if (d == nullptr) return 0;  // the merge reports the directory itself
  int status = 0;
  while (dirent* e = readdir(d)) {
    int32_t earliest, latest;
    uint64_t id;
    if (tarnix::st_tsidx_file_parse(e->d_name, &earliest, &latest, &id) != 1) continue;
    const std::string path = std::string(o.dir) + "/" + e->d_name;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) continue;
    tarnix::warm_header h;
    struct stat st;
    const bool lexicon_only = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) &&
                              pread(fd, h.b, sizeof(h.b), 0) == static_cast<ssize_t>(sizeof(h.b)) &&
                              tarnix::verify_magic(&h) && !tarnix::_has_full_metadata(&h);
    close(fd);
    if (lexicon_only) {
      fprintf(stderr, "tarnix-lex: %s is a lexicon-only file under an index file's name; move it away\n",
              path.c_str());
      status = EXIT_FAILED;
      break;
    }
  }
  closedir(d);
  return status;
}

int run_dir(const options& o) {
  // A reader of the -v lines that goes away only loses them, rather than
  // ending the merge with its temporary file half-written.
  signal(SIGPIPE, SIG_IGN);
  if (o.filter) {
    int refused = check_filter_keeps_terms(o);
    if (refused != 0) return refused;
  } else {
    int refused = check_no_lexicon_only_sources(o);
    if (refused != 0) return refused;
  }
  tarnix::wrc w{};
  int rc = tarnix::st_optimize_lex(o.dir, o.verbose ? 1 : 0, o.tpb, o.page_size, o.min_count, o.filter ? 1 : 0, &w);
  fflush(stdout);
  if (rc != 0) {
    // A failed move's message has no line end of its own.
    if (o.verbose && rc == tarnix::ST_EMOVE) printf("\n");
    fflush(stdout);
    // -28 stands for an input that is missing as well as an output that
    // exists: the line says which.
    std::string why;
    if (rc == tarnix::ST_EEXISTS) {
      const std::string merged = std::string(o.dir) + "/merged_lexicon.lex";
      const std::string out = o.filter ? std::string(o.dir) + "/filtered_merged_lexicon.lex" : merged;
      struct stat st;
      if (o.filter && stat(merged.c_str(), &st) != 0) {
        why = ": " + merged + " does not exist (build it with tarnix-lex -d first)";
      } else if (stat(out.c_str(), &st) == 0) {
        why = ": " + out + " exists already (remove it to build it again)";
      }
    }
    fprintf(stderr, "tarnix-lex: %s failed: rc=%i (%s) errno=%i%s%s%s\n", o.filter ? "filtering" : "merging", rc,
            tarnix::st_rc_name(rc), w.warm_errno, w.message[0] != '\0' ? " " : "", w.message, why.c_str());
    return EXIT_FAILED;
  }
  if (w.warm_rc == tarnix::ST_EFEWFILES || w.warm_rc == tarnix::ST_ENOGROUP) {
    fprintf(stderr, "tarnix-lex: fewer than 2 index files in %s, nothing merged\n", o.dir);
  }
  return 0;
}

}  // namespace

static int tool_main(int argc, char** argv) {
  tarnix::st_init();
  // Past a file-size limit a write fails and is reported, instead of the
  // process being ended in the middle of it.
  signal(SIGXFSZ, SIG_IGN);
  options o = parse_args(argc, argv);
  return o.list != nullptr ? list_file(o) : run_dir(o);
}

int main(int argc, char** argv) {
  return tools::run_guarded("tarnix-lex", [&] { return tool_main(argc, argv); });
}
