// The command line of tarnix-optimize, run as the built program: every
// refused command line gives its exact message, the usage text and exit
// status 219; accepted ones reach the optimize run, whose start line on the
// log shows what the parser made of the options.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "optimize/optimize_main.h"
#include "testutil/optimize_bucket.h"
#include "testutil/testutil.h"

namespace tarnix {
namespace {

using testutil::RunResult;
using testutil::run_optimize;

const std::string kProgram = testutil::bin("tarnix-optimize");

std::string usage_for(const std::string& prog) {
  return "usage:" + prog +
         " -d|--directory <dir>\n"
         "\t[-h|--help]\n"
         "\t[-m|--mode <normal|force|all> (defaults to normal)]\n"
         "\t[-v|--verbose]\n"
         "\t[-s|--min-src-count <number> (defaults to 8)]\n"
         "\t[-i|--iterations-max <number> (defaults to unlmitted)]\n"
         "\t[-b|--lex-tpb  <number> (default 64 - merged lexicon terms per block)]\n"
         "\t[-x|--max-allowed-size  <number> (max allowed extra disk space required, in bytes)]\n"
         "\t[-p]--page-size <bytes> (memory allocation size, default: 1048576 (1MB), minimum: "
         "16384)]\n";
}

// The arguments, each in brackets, for the trace of a case.
std::string shown(const std::vector<std::string>& args) {
  std::string out;
  for (const std::string& a : args) out += "[" + a + "]";
  return out;
}

struct fault_case {
  std::vector<std::string> args;
  std::string message;
};

TEST(OptimizeCli, RefusedCommandLinesPrintMessageAndUsage) {
  const std::string d = "/nonexistent-bucket";
  const std::vector<fault_case> cases = {
      {{}, "required parms not specified"},
      {{"-v"}, "required parms not specified"},
      {{"--final", "--tstats", "-m", "all"}, "required parms not specified"},
      // Arguments without a leading dash, unknown and combined forms.
      {{d}, "unrecognized flag"},
      {{"-d", d, "extra"}, "unrecognized flag"},
      {{"--directory=" + d}, "unrecognized flag"},
      {{"-d" + d}, "unrecognized flag"},
      {{"-vd", d}, "unrecognized flag"},
      {{"-D", d}, "unrecognized flag"},
      {{"-d", d, "--iterations-max", "3"}, "unrecognized flag"},
      {{"-d", d, "--final=1"}, "unrecognized flag"},
      {{"-d", d, ""}, "unrecognized flag"},
      {{"-d", d, "-"}, "unrecognized flag"},
      // Missing values.
      {{"-d"}, "specify directory"},
      {{"-v", "--directory"}, "specify directory"},
      {{"-d", d, "-s"}, "specify minimum source count"},
      {{"-d", d, "--iteration-max"}, "specify iteration max"},
      {{"-d", d, "-m"}, "specify mode"},
      {{"-d", d, "--lex-tpb"}, "specify lexicon terms per block"},
      {{"-d", d, "--page-size"}, "specify valid page size"},
      {{"-d", d, "--max-allowed-size"}, "specify maximum number of bytes"},
      // Numbers must begin with a decimal digit.
      {{"-d", d, "-s", "-1"}, "specify minimum source count"},
      {{"-d", d, "-s", "+3"}, "specify minimum source count"},
      {{"-d", d, "-s", " 3"}, "specify minimum source count"},
      {{"-d", d, "-s", ""}, "specify minimum source count"},
      {{"-d", d, "-i", "-1"}, "specify iteration max"},
      {{"-d", d, "-i", "many"}, "specify iteration max"},
      {{"-d", d, "-b", "x64"}, "specify lexicon terms per block"},
      {{"-d", d, "-p", "-16384"}, "specify valid page size"},
      {{"-d", d, "-x", "-1"}, "specify maximum number of bytes"},
      {{"-d", d, "-x", ""}, "specify maximum number of bytes"},
      // Ranges.
      {{"-d", d, "-s", "33"}, "specify minimum source count at most 32"},
      {{"-d", d, "--min-src-count", "99999999999999999999"}, "specify minimum source count at most 32"},
      {{"-d", d, "-p", "16383"}, "specify valid page size"},
      {{"-d", d, "-p", "0"}, "specify valid page size"},
      {{"-d", d, "-p", "18446744073709551615"}, "specify valid page size"},
      {{"-d", d, "-p", "99999999999999999999999"}, "specify valid page size"},
      // Mode words are exact.
      {{"-d", d, "-m", "All"}, "invalid mode specified"},
      {{"-d", d, "--mode", "NORMAL"}, "invalid mode specified"},
      {{"-d", d, "-m", "2"}, "invalid mode specified"},
      {{"-d", d, "-m", ""}, "invalid mode specified"},
      // Help anywhere, even after valid options; the first fault wins.
      {{"-h"}, "HELP:"},
      {{"-d", d, "-v", "-m", "force", "--help"}, "HELP:"},
      {{"-h", "-d"}, "HELP:"},
      {{"-d", d, "-s", "33", "-h"}, "specify minimum source count at most 32"},
      {{"-d", d, "bogus", "-h"}, "unrecognized flag"},
  };
  for (const fault_case& c : cases) {
    SCOPED_TRACE(shown(c.args));
    RunResult r = run_optimize(c.args);
    EXPECT_EQ(r.status, 219);
    EXPECT_EQ(r.err, "MESSAGE: " + c.message + "\n" + usage_for(kProgram));
    EXPECT_EQ(r.out, "");
  }
}

TEST(OptimizeCli, OptimizeMainReturnsMinus37ForFaults) {
  char prog[] = "tarnix-optimize", opt[] = "-s", val[] = "40";
  char* argv[] = {prog, opt, val, nullptr};
  // In a child, whose standard error the death test keeps out of the output.
  EXPECT_EXIT(_exit(optimize_main(3, argv) == -37 && print_usage("x", "y") == -37 ? 0 : 1),
              ::testing::ExitedWithCode(0), "");
}

struct accept_case {
  std::vector<std::string> args;  // "DIR" stands for the bucket directory
  std::string settings;           // the start line from "mode=" on
};

TEST(OptimizeCli, AcceptedCommandLinesReachTheRun) {
  const std::vector<accept_case> cases = {
      {{"-d", "DIR", "-v"}, testutil::kDefaultSettings},
      {{"--directory", "DIR", "--verbose", "-m", "force", "-s", "0", "-i", "5", "-b", "0", "--final"},
       "mode=1 verbose=true isfinal=true max_iteration=5 min_src_count=0 lex_tpb=0"},
      {{"-v", "--mode", "all", "--min-src-count", "32", "--iteration-max", "0", "--lex-tpb", "7", "-d", "DIR"},
       "mode=2 verbose=true isfinal=false max_iteration=0 min_src_count=32 lex_tpb=7"},
      {{"-d", "DIR", "-v", "-s", "1", "-m", "normal", "-i", "2147483647"},
       "mode=0 verbose=true isfinal=false max_iteration=2147483647 min_src_count=1 lex_tpb=64"},
      // Digits first is all that is checked; the rest of the text is ignored.
      {{"-d", "DIR", "-v", "-i", "12abc", "-b", "3x"},
       "mode=0 verbose=true isfinal=false max_iteration=12 min_src_count=8 lex_tpb=3"},
      // Page sizes 16384 .. 2^64-2 and any extra-space limit are taken.
      {{"-d", "DIR", "-v", "-p", "16384", "-x", "0"}, testutil::kDefaultSettings},
      {{"-d", "DIR", "-v", "--page-size", "18446744073709551614", "--max-allowed-size",
        "99999999999999999999999", "--tstats"},
       testutil::kDefaultSettings},
      // A later directory replaces an earlier one.
      {{"-d", "/nonexistent-bucket", "-v", "-d", "DIR"}, testutil::kDefaultSettings},
  };
  for (const accept_case& c : cases) {
    testutil::TempDir dir;
    std::vector<std::string> args = c.args;
    for (std::string& a : args) {
      if (a == "DIR") a = dir.path();
    }
    SCOPED_TRACE(shown(args));
    RunResult r = run_optimize(args);
    EXPECT_EQ(r.status, 0);
    // An empty directory: one pass finds fewer than two files.
    EXPECT_TRUE(testutil::pattern_match(
        r.err, testutil::start_pattern(dir.path(), c.settings) + testutil::kNothingToDoPattern))
        << r.err;
  }
}

TEST(OptimizeCli, LogStreamFollowsVerboseAndEnvironment) {
  testutil::TempDir dir;
  RunResult quiet = run_optimize({"-d", dir.path()});
  EXPECT_EQ(quiet.status, 0);
  EXPECT_EQ(quiet.err, "");

  // Set to anything, even the empty string, the variable turns logging on.
  RunResult env_empty =
      run_optimize({"-d", dir.path()}, {"OPTIMISTIC_ABOUT_FILE_LOCKING=yes", "LOG_TARNIX_OPTIMIZE="});
  RunResult flag = run_optimize({"-d", dir.path(), "-v"});
  EXPECT_EQ(env_empty.status, 0);
  EXPECT_NE(env_empty.err, "");
  EXPECT_EQ(testutil::strip_times(env_empty.err), testutil::strip_times(flag.err));
}

TEST(OptimizeCli, FinalRunLeavesStatusFile) {
  testutil::TempDir dir;
  EXPECT_EQ(run_optimize({"-d", dir.path()}).status, 0);
  EXPECT_EQ(testutil::list_dir(dir.path()), std::vector<std::string>{});
  EXPECT_EQ(run_optimize({"-d", dir.path(), "--final"}).status, 0);
  EXPECT_EQ(testutil::list_dir(dir.path()), std::vector<std::string>{"optimize.result"});
  EXPECT_TRUE(testutil::read_file(dir.file("optimize.result")).empty());
}

}  // namespace
}  // namespace tarnix
