#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "testutil/bucket_reader.h"
#include "testutil/optimize_bucket.h"
#include "testutil/testutil.h"
#include "testutil/warmfile.h"

using testutil::RunResult;
using testutil::TempDir;

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr int kBigN = 20000;   // the sanitizers make the full run too slow
#else
constexpr int kBigN = 200000;
#endif

RunResult run_index(const std::vector<std::string>& args, const std::string& input = "") {
  return testutil::run_bin("tarnix-index", args, {}, input);
}

RunResult emit(int n, int seed, bool streaming = false) {
  std::vector<std::string> args = {"--generate", std::to_string(n), "--seed", std::to_string(seed), "--emit-events"};
  if (streaming) args.push_back("--streaming");
  return run_index(args);
}

// The events of input-format text, as the bucket reader reports them.
testutil::EventIndex parse_events(const std::string& text) {
  testutil::EventIndex idx;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    std::istringstream fields(line);
    tarnix::tsval v{};
    fields >> v.timestamp >> v.event_address >> v.event_type >> v.source >> v.source_type >> v.host;
    idx.events[v.event_address] = v;
    fields.get();  // the tab before the terms
    for (std::string term; std::getline(fields, term, ' ');) idx.term_addresses[term].push_back(v.event_address);
  }
  testutil::normalise(&idx);
  return idx;
}

// The bucket holds exactly the events, each once, and every term's postings.
void expect_bucket_holds(const std::string& dir, const testutil::EventIndex& expected, size_t n) {
  testutil::BucketContent b = testutil::read_bucket(dir);
  ASSERT_TRUE(b.problems.empty()) << b.problems.front();
  EXPECT_GE(b.files, 1);
  EXPECT_EQ(b.value_count, n) << "an event was split over two files or lost";
  ASSERT_EQ(b.index.events.size(), n);
  ASSERT_EQ(expected.events.size(), n);
  size_t differing = 0;
  for (const auto& [addr, v] : expected.events) {
    auto it = b.index.events.find(addr);
    if (it == b.index.events.end() || testutil::model_value(it->second) != testutil::model_value(v)) ++differing;
  }
  EXPECT_EQ(differing, 0u);
  EXPECT_EQ(b.index.term_addresses.size(), expected.term_addresses.size());
  EXPECT_TRUE(b.index.term_addresses == expected.term_addresses) << "postings differ";
}

// The number after the first `key` in text (0 when key is not there).
size_t number_after(const std::string& text, const std::string& key) {
  const size_t at = text.find(key);
  return at == std::string::npos ? 0 : std::strtoul(text.c_str() + at + key.size(), nullptr, 10);
}

TEST(TarnixIndex, GeneratedEventsMakeABucketThatHoldsThemAll) {
  RunResult e = emit(kBigN, 1);
  ASSERT_EQ(e.status, 0) << e.err;
  testutil::EventIndex expected = parse_events(e.out);
  ASSERT_EQ(expected.events.size(), static_cast<size_t>(kBigN)) << "addresses are unique";

  TempDir d;
  RunResult r = run_index({"--generate", std::to_string(kBigN), "--seed", "1", "-d", d.path(), "-q"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  expect_bucket_holds(d.path(), expected, kBigN);
  for (const auto& name : testutil::list_dir(d.path())) {
    EXPECT_EQ(name.find(".pre-tsidx"), std::string::npos) << name;
  }

  // The same events read from a file, with larger slices.
  TempDir from_file;
  std::string input = from_file.file("events.txt");
  testutil::write_file(input, std::vector<uint8_t>(e.out.begin(), e.out.end()));
  TempDir d2;
  r = run_index({"-d", d2.path(), "-q", "--max-values", "50000", "--max-terms", "200000",
                     "--max-term-chars", "4000000", "--max-postings", "1000000", input});
  ASSERT_EQ(r.status, 0) << r.err;
  expect_bucket_holds(d2.path(), expected, kBigN);
  EXPECT_LT(testutil::list_dir(d2.path()).size(), testutil::list_dir(d.path()).size());
}

TEST(TarnixIndex, StreamingModeTakesTimeOrderedEvents) {
  RunResult e = emit(5000, 7, true);
  ASSERT_EQ(e.status, 0);
  testutil::EventIndex expected = parse_events(e.out);
  TempDir d;
  RunResult r = run_index({"--generate", "5000", "--seed", "7", "--streaming", "-d", d.path(), "-q",
                               "--max-values", "700"});
  ASSERT_EQ(r.status, 0) << r.err;
  expect_bucket_holds(d.path(), expected, 5000);

  // The same events on standard input.
  TempDir d2;
  r = run_index({"--streaming", "-d", d2.path(), "-q", "-"}, e.out);
  ASSERT_EQ(r.status, 0) << r.err;
  expect_bucket_holds(d2.path(), expected, 5000);
}

TEST(TarnixIndex, SameSeedSameEvents) {
  RunResult a = emit(500, 1), b = emit(500, 1), c = emit(500, 2), shorter = emit(300, 1);
  ASSERT_EQ(a.status, 0);
  EXPECT_EQ(a.out, b.out);
  EXPECT_NE(a.out, c.out);
  EXPECT_EQ(a.out.compare(0, shorter.out.size(), shorter.out), 0) << "a shorter run is a prefix";
  EXPECT_EQ(std::count(a.out.begin(), a.out.end(), '\n'), 500);
  EXPECT_EQ(emit(0, 1).out, "");
  // Field terms and some jitter in the unordered events.
  EXPECT_NE(a.out.find("host::"), std::string::npos);
  EXPECT_NE(a.out.find("sourcetype::"), std::string::npos);
  testutil::EventIndex idx = parse_events(a.out);
  bool went_back = false;
  int32_t prev = INT32_MIN;
  for (const auto& [addr, v] : idx.events) {
    went_back |= v.timestamp < prev;
    prev = v.timestamp;
  }
  EXPECT_TRUE(went_back);
}

// The number of text tokens is a knob for denser corpora; its default is
// what the generator always made, so earlier corpora stay the same.
TEST(TarnixIndex, TokensSetTheTermsOfAnEvent) {
  RunResult plain = emit(400, 3);
  RunResult same = run_index({"--generate", "400", "--seed", "3", "--tokens", "4-14", "--emit-events"});
  ASSERT_EQ(plain.status, 0);
  EXPECT_EQ(plain.out, same.out);

  struct Case {
    const char* tokens;
    size_t min_terms, max_terms;   // field terms included
  } cases[] = {{"0", 3, 3}, {"20", 23, 23}, {"14-36", 17, 39}, {"4-14", 7, 17}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.tokens);
    RunResult r = run_index({"--generate", "400", "--seed", "3", "--tokens", c.tokens, "--emit-events"});
    ASSERT_EQ(r.status, 0) << r.err;
    std::istringstream in(r.out);
    std::string line;
    size_t lines = 0, fewest = SIZE_MAX, most = 0;
    while (std::getline(in, line)) {
      ++lines;
      const size_t terms = 1 + std::count(line.begin() + line.rfind('\t'), line.end(), ' ');
      fewest = std::min(fewest, terms);
      most = std::max(most, terms);
    }
    EXPECT_EQ(lines, 400u);
    EXPECT_EQ(fewest, c.min_terms);
    EXPECT_EQ(most, c.max_terms);
  }
}

const std::string OK1 = "100\t1\t2\t3\t4\t5\talpha beta\n";
const std::string OK2 = "101\t2\t2\t3\t4\t5\tgamma\n";

TEST(TarnixIndex, BadInputIsAOneLineErrorWithTheLineNumber) {
  const struct {
    const char* what;
    std::vector<std::string> extra_args;
    std::string input;
    int line;
    const char* message;
    size_t events_kept;  // flushed before the bad line (--max-values 2: one two-term event a file)
  } cases[] = {
      {"too few fields", {}, OK1 + "100\t1\t2\n", 2, "expected 7 tab-separated fields", 1},
      {"words only", {}, "hello world\n", 1, "found 1", 0},
      {"timestamp too large", {}, OK1 + OK2 + "2147483648\t3\t0\t0\t0\t0\tx\n", 3, "timestamp", 2},
      {"timestamp too small", {}, "-2147483649\t3\t0\t0\t0\t0\tx\n", 1, "timestamp", 0},
      {"timestamp not a number", {}, "12a\t3\t0\t0\t0\t0\tx\n", 1, "timestamp", 0},
      {"address too large", {}, OK1 + "1\t4294967296\t0\t0\t0\t0\tx\n", 2, "event_address", 1},
      {"host negative", {}, "1\t1\t0\t0\t0\t-1\tx\n", 1, "host", 0},
      {"deleted source", {}, OK1 + "1\t9\t0\t4294967295\t0\t0\tx\n", 2, "deleted", 1},
      // An attribute needs at most 31 bits: a wider one would read back as 0.
      {"host of 32 bits", {}, OK1 + "1\t9\t0\t0\t0\t2147483648\tx\n", 2, "host \"2147483648\" is above 2147483647", 1},
      {"source of 32 bits", {}, OK1 + "1\t9\t0\t4294967294\t0\t0\tx\n", 2,
       "source \"4294967294\" is above 2147483647", 1},
      {"NUL in a term", {}, OK1 + OK2 + std::string("1\t9\t0\t0\t0\t0\tab\0c\n", 17), 3, "NUL", 2},
      {"double space", {}, OK1 + "1\t9\t0\t0\t0\t0\ta  b\n", 2, "empty term 2", 1},
      {"trailing space", {}, "1\t9\t0\t0\t0\t0\ta \n", 1, "empty term 2", 0},
      {"no terms", {}, OK1 + "1\t9\t0\t0\t0\t0\t\n", 2, "no terms", 1},
      {"eight fields", {}, "1\t9\t0\t0\t0\t0\ta\tb\n", 1, "tab", 0},
      {"empty line", {}, OK1 + "\n", 2, "found 1", 1},
      {"streaming, earlier time", {"--streaming"}, OK1 + OK2 + "99\t7\t0\t0\t0\t0\tx\n", 3, "out of time order", 2},
      {"streaming, same time, lower address", {"--streaming"}, OK1 + "100\t0\t0\t0\t0\t0\tx\n", 2,
       "out of time order", 1},
      {"streaming, repeated event", {"--streaming"}, OK1 + OK1, 2, "out of time order", 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir d;
    std::vector<std::string> args = {"-d", d.path(), "--max-values", "2"};
    args.insert(args.end(), c.extra_args.begin(), c.extra_args.end());
    RunResult r = run_index(args, c.input);
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_EQ(r.err.rfind("tarnix-index: line " + std::to_string(c.line) + ": ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    // Then, when lines came before it, from where to go on.
    const std::string go_on = c.line == 1 ? "" : "tarnix-index: lines 1 to " + std::to_string(c.line - 1) +
                                                     " are indexed into " + d.path() + "; go on from line " +
                                                     std::to_string(c.line) + "\n";
    EXPECT_EQ(r.err.substr(r.err.find('\n') + 1), go_on);
    testutil::BucketContent b = testutil::read_bucket(d.path());
    EXPECT_TRUE(b.problems.empty());
    EXPECT_EQ(b.index.events.size(), c.events_kept);
  }
}

TEST(TarnixIndex, UnwritableDirectoryNamesTheLine) {
  // Nobody, root included, creates files in /proc.
  RunResult r = run_index({"-d", "/proc", "--max-values", "2"},
                          OK1 + OK2 + "102\t3\t0\t0\t0\t0\tx\n" + "103\t4\t0\t0\t0\t0\tx\n");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err.rfind("tarnix-index: line 3: writing an index file into /proc failed", 0), 0u) << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;

  TempDir d;
  testutil::write_file(d.file("plain"), {});
  const struct {
    std::vector<std::string> args;
    const char* message;
  } cases[] = {
      {{"-d", d.file("missing"), "-q"}, "missing"},
      {{"-d", d.file("plain")}, "not a directory"},
      {{"-d", d.path(), d.file("no-such-input")}, "cannot open"},
  };
  for (const auto& c : cases) {
    r = run_index(c.args, OK1);
    EXPECT_EQ(r.status, 1) << c.message;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
  }

  // Files may not grow past 20 KiB: the flush's write fails (the program
  // is not ended by the signal for it), and no part of an index file is
  // left under any name.
  TempDir small;
  r = testutil::run({"/bin/sh", "-c", "ulimit -f 40; exec \"$0\" \"$@\"", testutil::bin("tarnix-index"),
                     "-d", small.path(), "--generate", "3000", "--max-values", "200", "-q"});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(testutil::pattern_match(
      r.err, "tarnix-index: line {N}: writing an index file into " + small.path() + " failed: WS_EWRITE{*}\n"))
      << r.err;
  for (const std::string& name : testutil::list_dir(small.path()))
    EXPECT_EQ(name.find("tsidx"), std::string::npos) << name;  // nor .pre-tsidx
}

// A flush that fails ends the run and says where the events of the slice it
// lost are, so that the run can be taken up again with none lost or doubled:
// written again from its first line, or in the ".pre-tsidx" file a failed
// move leaves (also when the flush is the last one, after a bad line).
TEST(TarnixIndex, FailedFlushSaysWhereTheSlicesEventsAre) {
  TempDir scratch;
  const std::string events = emit(3000, 5).out;
  std::vector<std::string> lines;
  for (std::istringstream in(events); lines.emplace_back(), std::getline(in, lines.back());) lines.back() += '\n';
  lines.pop_back();
  auto text_of = [&](size_t from, size_t to) {  // lines from..to, counted from 1
    std::string t;
    for (size_t k = from; k <= to; ++k) t += lines[k - 1];
    return t;
  };
  const char* asan = getenv("ASAN_OPTIONS");
  const std::vector<std::string> failing_link = {
      "LD_PRELOAD=" + testutil::bin("libfailcalls.so"), "TARNIX_FAIL_LINK=5",
      std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") + ":verify_asan_link_order=0"};
  const struct {
    const char* what;
    const char* limit;  // ulimit -f, in 512-byte blocks
    const char* max_values;
    std::vector<std::string> env;
    std::string input;
    const char* bad_line;  // the error line before the flush's, if any
    bool moved_later;      // the slice's events wait in a .pre-tsidx
  } cases[] = {
      // Five files fit under the limit, the sixth does not.
      {"a file past the size limit", "39", "100", {}, events, nullptr, false},
      {"the last flush after a bad line", "1", "200", {}, text_of(1, 150) + "garbage\n", "line 151: expected 7", false},
      {"a move that fails", "unlimited", "200", failing_link, text_of(1, 150), nullptr, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string dir = scratch.file("bucket"), input = scratch.file("input");
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    testutil::write_file(input, std::vector<uint8_t>(c.input.begin(), c.input.end()));
    RunResult r = testutil::run({"/bin/sh", "-c", std::string("ulimit -f ") + c.limit + "; exec \"$0\" \"$@\"",
                                 testutil::bin("tarnix-index"), "-d", dir, "--max-values", c.max_values, "-q", input},
                                c.env);
    EXPECT_EQ(r.status, 1) << r.err;
    std::string err = r.err;
    if (c.bad_line != nullptr) {
      EXPECT_EQ(err.rfind(std::string("tarnix-index: ") + c.bad_line, 0), 0u) << err;
      err.erase(0, err.find('\n') + 1);
    }
    const std::string head = "tarnix-index: line {N}: writing an index file into " + dir + " failed: ";
    ASSERT_TRUE(testutil::pattern_match(
        err, c.moved_later ? head + "ST_EMOVE (Input/output error); the events of lines {N} to {N} are in " + dir +
                                 "/{*}.pre-tsidx, not yet under a \".tsidx\" name\n"
                           : head + "WS_EWRITE (File too large); the events of lines {N} to {N} were not written: "
                                    "index them again\n"))
        << err;
    const size_t first = number_after(err, "of lines "), last = number_after(err, " to ");
    EXPECT_LE(last, number_after(err, "line "));
    EXPECT_LE(first, last);
    // Every line before the slice is in the bucket, and nothing else.
    if (first > 1) {
      expect_bucket_holds(dir, parse_events(text_of(1, first - 1)), first - 1);
    } else {
      EXPECT_EQ(testutil::names_ending(dir, ".tsidx"), std::vector<std::string>{});
    }
    EXPECT_EQ(first > 1, c.limit[0] == '3');
    if (c.moved_later) {
      const size_t at = err.find(" are in ") + strlen(" are in ");
      const std::string left = err.substr(at, err.find(", not yet") - at);
      EXPECT_EQ(left, dir + "/" + testutil::names_ending(dir, ".pre-tsidx").at(0));
      const std::string moved = left.substr(0, left.size() - strlen(".pre-tsidx")) + ".tsidx";
      ASSERT_EQ(rename(left.c_str(), moved.c_str()), 0);
      expect_bucket_holds(dir, parse_events(text_of(1, last)), last);
    }
    testutil::remove_tree(dir);
  }
}

// A stop request (SIGINT, SIGTERM, SIGHUP) while the input is still coming
// ends the run between two lines: the slice in memory is written, a line
// says from where to go on, and the process ends by the signal.
TEST(TarnixIndex, StopRequestWritesTheSliceAndSaysWhereToGoOn) {
  TempDir scratch;
  const std::string events = emit(200, 7).out;
  const std::string input = scratch.file("input");
  testutil::write_file(input, std::vector<uint8_t>(events.begin(), events.end()));
  for (const auto& [sig, name] : {std::pair{SIGTERM, "SIGTERM"}, {SIGINT, "SIGINT"}, {SIGHUP, "SIGHUP"}}) {
    SCOPED_TRACE(name);
    const std::string dir = scratch.file("bucket");
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    // The input comes through a FIFO that stays open after its lines: the
    // tool waits for more when the signal comes, sent once it has set its
    // handlers (bits 1, 2 and 15 of SigCgt). Whatever it got through by then,
    // its line says.
    RunResult r = testutil::run(
        {"/bin/sh", "-c",
         "mkfifo \"$3\"; \"$0\" -d \"$2\" -q <\"$3\" & exec 3>\"$3\"; cat \"$1\" >&3; "
         "i=0; while [ $i -lt 500 ] && [ $(( 0x$(awk '/^SigCgt/ {print $2}' /proc/$!/status 2>/dev/null || echo 0) & "
         "0x4003 )) -ne $((0x4003)) ]; do i=$((i + 1)); sleep 0.01; done; "
         "sleep 0.1; kill -" + std::string(name + 3) + " $!; wait $!",
         testutil::bin("tarnix-index"), input, dir, scratch.file("fifo")});
    EXPECT_EQ(r.status, 128 + sig) << r.err;
    ASSERT_EQ(unlink(scratch.file("fifo").c_str()), 0);
    const size_t indexed = number_after(r.err, "lines 1 to ");
    if (indexed == 0) {
      EXPECT_EQ(r.err.rfind(std::string("tarnix-index: stopped by ") + name + " before line 1: nothing is indexed\n", 0), 0u)
          << r.err;
      EXPECT_EQ(testutil::names_ending(dir, ".tsidx"), std::vector<std::string>{});
    } else {
      // (The shell may add its own word on how the job ended.)
      EXPECT_EQ(r.err.rfind("tarnix-index: stopped by " + std::string(name) + ": lines 1 to " +
                                std::to_string(indexed) + " are indexed into " + dir + "; go on from line " +
                                std::to_string(indexed + 1) + "\n",
                            0),
                0u)
          << r.err;
      std::istringstream in(events);
      std::string text;
      for (std::string line; text.size() < events.size() && std::getline(in, line);) {
        if (static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) == indexed) break;
        text += line + "\n";
      }
      expect_bucket_holds(dir, parse_events(text), indexed);
    }
    EXPECT_EQ(testutil::names_ending(dir, ".pre-tsidx"), std::vector<std::string>{});
    testutil::remove_tree(dir);
  }
}

// Memory that runs out anywhere in a run ends it with a line that says what
// is not in the bucket: every line before the lines it names (or before the
// line it fails on) is there, each once, and nothing after them.
TEST(TarnixIndex, MemoryThatRunsOutSaysWhatIsMissing) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer's allocator cannot be replaced by the failing one";
#endif
  TempDir scratch;
  const std::string events = emit(400, 6).out;
  std::vector<std::string> lines;
  for (std::istringstream in(events); lines.emplace_back(), std::getline(in, lines.back());) lines.back() += '\n';
  lines.pop_back();
  const std::string input = scratch.file("input");
  testutil::write_file(input, std::vector<uint8_t>(events.begin(), events.end()));
  std::set<std::string> kinds;
  for (int k = 0; k <= 3000; k += 1 + k / 16) {
    SCOPED_TRACE("an allocation fails after " + std::to_string(k));
    const std::string dir = scratch.file("bucket");
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    RunResult r = testutil::run_bin(
        "tarnix-index", {"-d", dir, "--max-values", "100", "-q", input},
        {"LD_PRELOAD=" + testutil::bin("libfailalloc.so"), "TARNIX_FAIL_MALLOC=:" + std::to_string(k) + ":1"});
    size_t kept = lines.size();
    if (r.status != 0) {
      EXPECT_EQ(r.status, 1) << r.err;
      // What the line names as missing: the lines of the slice it lost, or
      // the line it stopped on and every one after; or, on a line of its
      // own, the lines that are indexed.
      const auto line_ends = std::count(r.err.begin(), r.err.end(), '\n');
      if (r.err.find(" are indexed into ") != std::string::npos) {
        EXPECT_EQ(line_ends, 2) << r.err;
        kept = number_after(r.err, "lines 1 to ");
        EXPECT_EQ(kept + 1, number_after(r.err, "line ")) << r.err;
      } else if (r.err.find(" lines ") != std::string::npos) {
        EXPECT_EQ(line_ends, 1) << r.err;
        kept = number_after(r.err, " lines ") - 1;
      } else if (r.err.rfind("tarnix-index: line ", 0) == 0) {
        EXPECT_EQ(line_ends, 1) << r.err;
        kept = number_after(r.err, "line ") - 1;
      } else {
        EXPECT_TRUE(r.err == "tarnix-index: out of memory\n" || r.err.find(": cannot open ") != std::string::npos)
            << r.err;
        kept = 0;
      }
      std::string kind;
      for (char ch : r.err.substr(0, r.err.find(" lines "))) {
        if (!isdigit(static_cast<unsigned char>(ch))) kind += ch;
      }
      kinds.insert(kind);
    }
    std::string text;
    for (size_t i = 0; i < kept; ++i) text += lines[i];
    if (kept != 0) {
      expect_bucket_holds(dir, parse_events(text), kept);
    } else {
      EXPECT_EQ(testutil::names_ending(dir, ".tsidx"), std::vector<std::string>{});
    }
    testutil::remove_tree(dir);
  }
  // Failures in opening and reading the input, in the slice and in the
  // tool's own bookkeeping, with and without a slice to lose.
  EXPECT_GE(kinds.size(), 5u) << ::testing::PrintToString(kinds);
}

// However full the slice and however large the event, every event lands in
// one file whole (a split one would be counted twice and found in neither
// file with all its terms); one that no empty slice could take is refused.
TEST(TarnixIndex, EveryEventLandsWholeInOneFile) {
  const struct {
    int n, seed;
    std::vector<std::string> generator, limits;
  } cases[] = {
      {3000, 1, {}, {"--max-values", "15"}},
      {2000, 3, {"--streaming"}, {"--max-values", "15"}},
      {300, 4, {"--tokens", "400-1000"}, {}},
      {1500, 5, {}, {"--max-postings", "100"}},
      {1500, 6, {}, {"--max-term-chars", "600", "--max-terms", "300"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.generator) + testing::PrintToString(c.limits));
    std::vector<std::string> args = {"--generate", std::to_string(c.n), "--seed", std::to_string(c.seed)};
    args.insert(args.end(), c.generator.begin(), c.generator.end());
    std::vector<std::string> emit_args = args;
    emit_args.push_back("--emit-events");
    RunResult e = run_index(emit_args);
    ASSERT_EQ(e.status, 0) << e.err;
    TempDir d;
    args.insert(args.end(), {"-d", d.path(), "-q"});
    args.insert(args.end(), c.limits.begin(), c.limits.end());
    RunResult r = run_index(args);
    ASSERT_EQ(r.status, 0) << r.err;
    expect_bucket_holds(d.path(), parse_events(e.out), static_cast<size_t>(c.n));
  }

  const std::string first = "100\t1\t0\t0\t0\t0\tz\n";
  const struct {
    std::vector<std::string> limits;
    std::string second;
    const char* message;
  } too_large[] = {
      {{"--max-values", "1"}, "101\t2\t0\t0\t0\t0\ta b\n", "(events)"},
      {{"--max-postings", "2"}, "101\t2\t0\t0\t0\t0\ta b c\n", "(postings)"},
      {{"--max-term-chars", "8"}, "101\t2\t0\t0\t0\t0\tabcd efgh\n", "(term characters)"},
  };
  for (const auto& c : too_large) {
    SCOPED_TRACE(c.message);
    TempDir d;
    std::vector<std::string> args = {"-d", d.path(), "-q"};
    args.insert(args.end(), c.limits.begin(), c.limits.end());
    RunResult r = run_index(args, first + c.second);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, std::string("tarnix-index: line 2: the event does not fit an empty slice ") + c.message +
                         "; raise the limits\ntarnix-index: lines 1 to 1 are indexed into " + d.path() +
                         "; go on from line 2\n");
    EXPECT_EQ(testutil::read_bucket(d.path()).value_count, 1u) << "the event before it is kept";
  }
}

// Every event of a bucket as one line of text: its value's fields, then its
// distinct terms in order. A sorted list, so that two events with the same
// address stay two.
std::vector<std::string> bucket_events(const std::string& dir) {
  std::vector<std::string> out;
  for (const std::string& name : testutil::tsidx_names(dir)) {
    const testutil::IndexContent f = testutil::read_index_file(dir + "/" + name);
    EXPECT_EQ(f.rc, 0) << name;
    EXPECT_EQ(f.problem, "") << name;
    std::vector<std::vector<std::string>> terms(f.values.size());
    for (const auto& [term, ids] : f.postings) {
      for (uint32_t id : ids) {
        if (id < terms.size()) terms[id].push_back(term);
      }
    }
    for (size_t i = 0; i < f.values.size(); ++i) {
      const tarnix::tsval& v = f.values[i];
      std::string line = std::to_string(v.timestamp) + " " + std::to_string(v.event_address) + " " +
                         std::to_string(v.event_type) + " " + std::to_string(v.source) + " " +
                         std::to_string(v.source_type) + " " + std::to_string(v.host) + " |";
      for (const std::string& t : terms[i]) line += " " + t;
      out.push_back(line);
    }
  }
  std::sort(out.begin(), out.end());
  return out;
}

// The same for input lines: terms cut to the 2047 bytes a slice keeps of
// a term, each once.
std::vector<std::string> input_events(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const size_t tab = [&] {
      size_t at = 0;
      for (int k = 0; k < 6; ++k) at = line.find('\t', at) + 1;
      return at;
    }();
    std::string head = line.substr(0, tab - 1);
    std::replace(head.begin(), head.end(), '\t', ' ');
    std::vector<std::string> terms;
    std::istringstream words(line.substr(tab));
    for (std::string t; std::getline(words, t, ' ');) terms.push_back(t.substr(0, 2047));
    std::sort(terms.begin(), terms.end());
    terms.erase(std::unique(terms.begin(), terms.end()), terms.end());
    head += " |";
    for (const std::string& t : terms) head += " " + t;
    out.push_back(head);
  }
  std::sort(out.begin(), out.end());
  return out;
}

// Each line is an event of its own and every one comes out as it went in,
// whatever the line repeats: the address of an earlier line at another time
// (which the slice would take for more of that event; the same time and
// address are one event, also to the merge), a term, or a term cut to the
// same first 2047 bytes; also over CR LF line ends, in either mode, and
// again after the bucket is merged.
TEST(TarnixIndex, EveryLineComesOutAsItsOwnEvent) {
  auto ev = [](int ts, int addr, int attrs, const std::string& terms) {
    const std::string a = std::to_string(attrs);
    return std::to_string(ts) + "\t" + std::to_string(addr) + "\t" + a + "\t" + a + "\t" + a + "\t" + a + "\t" +
           terms + "\n";
  };
  auto repeat = [](const std::string& term, int n) {
    std::string out = term;
    for (int i = 1; i < n; ++i) out += " " + term;
    return out;
  };
  const std::string x2047(2047, 'x');
  const std::string long_term(2000, 'q');
  const struct {
    const char* what;
    std::string input;
    size_t files;  // at the least
  } cases[] = {
      {"address again at once", ev(5, 7, 0, "a") + ev(6, 7, 3, "b"), 2},
      {"address again later", ev(5, 7, 0, "a") + ev(6, 8, 0, "b") + ev(7, 7, 1, "a"), 2},
      {"address again, same terms", ev(5, 7, 0, "a b") + ev(6, 9, 0, "a") + ev(7, 7, 0, "a b"), 2},
      {"a term 16385 times", ev(5, 7, 0, repeat("a", 16385) + " b") + ev(6, 8, 0, "a"), 1},
      {"a long term 9 times", ev(5, 7, 0, repeat(long_term, 9)) + ev(6, 8, 0, long_term + " c"), 1},
      {"terms alike in their first 2047 bytes", ev(5, 7, 0, x2047 + "1 " + x2047 + "2 " + x2047), 1},
      {"CR LF", "5\t7\t0\t0\t0\t0\ta b\r\n6\t8\t1\t1\t1\t1\tb\r\n", 1},
  };
  for (const auto& c : cases) {
    for (const bool streaming : {false, true}) {
      SCOPED_TRACE(std::string(c.what) + (streaming ? ", streaming" : ""));
      TempDir d;
      std::vector<std::string> args = {"-d", d.path(), "-q"};
      if (streaming) args.push_back("--streaming");
      RunResult r = run_index(args, c.input);
      ASSERT_EQ(r.status, 0) << r.err;
      EXPECT_EQ(r.err, "");
      EXPECT_GE(testutil::tsidx_names(d.path()).size(), c.files);
      const std::vector<std::string> want = input_events(c.input);
      EXPECT_EQ(bucket_events(d.path()), want);
      r = testutil::run_optimize({"-d", d.path(), "-m", "all"});
      ASSERT_EQ(r.status, 0) << r.err;
      EXPECT_EQ(testutil::tsidx_names(d.path()).size(), 1u);
      EXPECT_EQ(bucket_events(d.path()), want);
    }
  }
}

TEST(TarnixIndex, UsageErrors) {
  TempDir d;
  struct Case {
    std::vector<std::string> args;
    const char* message;
  } cases[] = {
      {{}, "no bucket directory"},
      {{"-d"}, "needs a value"},
      {{"-d", d.path(), "--bogus"}, "unknown option"},
      {{"-d", d.path(), "--max-values", "0"}, "at least 1"},
      {{"-d", d.path(), "--max-terms", "12x"}, "not a number"},
      {{"-d", d.path(), "--max-postings", "-5"}, "not a number"},
      {{"-d", d.path(), "--max-terms", "4294967296"}, "--max-terms must be at most 4294967295"},
      {{"-d", d.path(), "--max-values", "18446744073709551615"}, "--max-values must be at most 4294967295"},
      {{"--generate", "10", "--seed"}, "needs a value"},
      {{"--emit-events"}, "needs --generate"},
      {{"--generate", "2000000001", "--emit-events"}, "at most 2000000000"},
      {{"-d", d.path(), "--generate", "10", "events.txt"}, "no input file"},
      {{"-d", d.path(), "a.txt", "b.txt"}, "more than one input"},
      {{"--generate", "10", "--tokens", "9-3", "--emit-events"}, "MIN <= MAX <= 1000"},
      {{"--generate", "10", "--tokens", "1001", "--emit-events"}, "MIN <= MAX <= 1000"},
      {{"--generate", "10", "--tokens", "4-", "--emit-events"}, "MIN <= MAX <= 1000"},
      {{"--generate", "10", "--tokens", "-4", "--emit-events"}, "MIN <= MAX <= 1000"},
      {{"-d", d.path(), "--tokens", "4-14"}, "--tokens needs --generate"},
  };
  for (const auto& c : cases) {
    RunResult r = run_index(c.args);
    EXPECT_EQ(r.status, 2) << c.message;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
  }
  EXPECT_TRUE(testutil::list_dir(d.path()).empty());
  RunResult h = run_index({"--help"});
  EXPECT_EQ(h.status, 0);
  EXPECT_EQ(h.out.rfind("usage: tarnix-index", 0), 0u);
}

TEST(TarnixIndex, SummaryUnlessQuiet) {
  TempDir d;
  RunResult r = run_index({"-d", d.path(), "--generate", "100"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.err.find("tarnix-index: 100 events indexed into 1 files"), std::string::npos) << r.err;
  TempDir q;
  r = run_index({"-d", q.path(), "--generate", "100", "-q"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  // An empty input writes nothing.
  TempDir e;
  r = run_index({"-d", e.path(), "-q"}, "");
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(testutil::list_dir(e.path()).empty());
}

}  // namespace
