// Crash reports: each crash runs in a forked child that installs the handlers
// and dies; the parent checks how it died and reads the report it left.
// The writer, the line formatting and the file copy are checked in-process.
#include "libzero/create-crash-dump.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gnu/libc-version.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "searchthing/worker.h"
#include "testutil/testutil.h"

namespace {

using namespace tarnix;
using testutil::TempDir;

const std::string MSG_50K = "Crash log write attempted over the limit of (50kB), skipping.\n";
const std::string MSG_512K = "Crash log has overflowed the allowed limit (512kB), truncated.\n";
const std::string MSG_NOTATIONS =
    "Max crashlog notation count exceeded (1024), probably linked list of notations corrupted. "
    "breaking out.\n";
const std::string STDERR_HEADER =
    " Last few lines of stderr (may contain info on assertion failure, but also could be old):\n";

// Child exit codes that are not deaths by signal.
constexpr int CHILD_NOT_INSTALLED = 77;  // the handler could not be installed
constexpr int CHILD_SURVIVED = 99;       // the crash did not end the process

using testutil::read_text;

void put_file(const std::string& path, const std::string& text) {
  testutil::write_file(path, std::vector<uint8_t>(text.begin(), text.end()));
}

// The reports in a directory (nothing else there ends in ".log").
std::vector<std::string> crash_files(const std::string& dir) { return testutil::names_ending(dir, ".log"); }

std::string sent_line(pid_t pid) {
  return "   Signal sent by PID " + std::to_string(pid) + " running under UID " + std::to_string(getuid()) + ".";
}

std::string local_stamp(time_t t, const char* fmt) {
  struct tm tm;
  localtime_r(&t, &tm);
  char buf[64];
  strftime(buf, sizeof(buf), fmt, &tm);
  return buf;
}

// ---- Crashes ----------------------------------------------------------------
// Kept out of line and away from the sanitizers, so that the fault really is
// the one named.

__attribute__((noipa, no_sanitize("undefined"))) void crash_null_write() {
  volatile int* volatile p = nullptr;
  *p = 1;
}

// An address outside the canonical range faults without a fault address:
// the kernel reports it with a code of its own.
__attribute__((noipa, no_sanitize("address", "undefined"))) void crash_noncanonical_write() {
  volatile int* volatile p = reinterpret_cast<int*>(0x8000000000000000ULL);
  *p = 1;
}

__attribute__((noipa, no_sanitize("undefined"))) int crash_divide_by_zero() {
  volatile int zero = 0;
  volatile int n = 7;
  return n / zero;
}

__attribute__((noipa)) void crash_trap() { __builtin_trap(); }

// Recurses until the stack is used up: the handler can only run on a stack
// of its own.
volatile bool go_deeper = true;
__attribute__((noipa, no_sanitize("address", "undefined"))) int crash_stack_overflow(int depth) {
  volatile char frame[1024];
  frame[depth % 1024] = static_cast<char>(depth);
  return go_deeper ? crash_stack_overflow(depth + 1) + frame[0] : frame[0];
}

// Reads a mapped page that lies beyond the end of a (truncated) file.
__attribute__((noipa)) int crash_bus(const std::string& path) {
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
  if (fd < 0 || ftruncate(fd, 8192) != 0) return -1;
  void* m = mmap(nullptr, 8192, PROT_READ, MAP_SHARED, fd, 0);
  if (m == MAP_FAILED || ftruncate(fd, 0) != 0) return -1;
  volatile const char* p = static_cast<const char*>(m);
  return p[4096];
}

// ---- Running a crashing child ---------------------------------------------

struct death {
  bool signaled;
  int sig;     // when signaled
  int status;  // exit status otherwise
  pid_t pid;
};

bool handler_installed(int sig) {
  struct sigaction sa;
  if (sigaction(sig, nullptr, &sa) != 0) return false;
  // Only our handler asks for SA_RESETHAND; a sanitizer runtime that keeps
  // its own handler does not.
  return (sa.sa_flags & SA_SIGINFO) != 0 && (sa.sa_flags & SA_RESETHAND) != 0;
}

// In the child: no core dump, then `setup` (which installs the handler and
// returns the signal it will die of), then `crash`.
death run_child(const std::function<int()>& setup, const std::function<void()>& crash) {
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    struct rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    int sig = setup();
    if (sig <= 0 || !handler_installed(sig)) _exit(CHILD_NOT_INSTALLED);
    crash();
    _exit(CHILD_SURVIVED);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return {WIFSIGNALED(status), WIFSIGNALED(status) ? WTERMSIG(status) : 0,
          WIFEXITED(status) ? WEXITSTATUS(status) : -1, pid};
}

// Skips when the handler could not be installed; else the child must have
// died of `sig`.
#define EXPECT_DIED_OF(d, want_sig)                                                                  \
  do {                                                                                          \
    if (!(d).signaled && (d).status == CHILD_NOT_INSTALLED)                                     \
      GTEST_SKIP() << "the crash handler cannot be installed in this build (a sanitizer runtime " \
                      "keeps the fatal signals); run with ASAN_OPTIONS=handle_segv=0:...";     \
    ASSERT_TRUE((d).signaled) << "exit status " << (d).status;                                  \
    EXPECT_EQ((d).sig, (want_sig));                                                              \
  } while (0)

// Checks that the pieces occur in this order; reports the first one missing.
void expect_in_order(const std::string& text, const std::vector<std::string>& pieces) {
  size_t pos = 0;
  for (const auto& p : pieces) {
    size_t at = text.find(p, pos);
    ASSERT_NE(at, std::string::npos) << "missing (in order): [" << p << "]\nreport:\n" << text;
    pos = at + p.size();
  }
}

// Matches a text against a shape: '#' is a decimal digit, '$' an upper-case
// hexadecimal digit, '~' a lower-case one, '*' any run of characters other
// than a line end (as short as possible), anything else itself.
bool shape_match(std::string_view s, std::string_view shape) {
  if (shape.empty()) return s.empty();
  char k = shape[0];
  if (k == '*') {
    for (size_t i = 0; i <= s.size(); ++i) {
      if (shape_match(s.substr(i), shape.substr(1))) return true;
      if (i < s.size() && s[i] == '\n') return false;
    }
    return false;
  }
  if (s.empty()) return false;
  char c = s[0];
  bool ok = k == '#'   ? (c >= '0' && c <= '9')
            : k == '$' ? ((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))
            : k == '~' ? ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))
                       : c == k;
  return ok && shape_match(s.substr(1), shape.substr(1));
}

std::vector<std::string> split_lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

// Index of the first line equal to `line`, or the line count.
size_t find_line(const std::vector<std::string>& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) - lines.begin();
}

// A backtrace frame: address, then symbol and offset or a question mark.
bool is_frame_line(const std::string& line) {
  const std::string addr = "  [0x$$$$$$$$$$$$$$$$]";
  if (line.size() < addr.size() || !shape_match(line.substr(0, addr.size()), addr)) return false;
  std::string rest = line.substr(addr.size());
  if (rest == " ?") return true;
  size_t plus = rest.rfind(" + ");
  if (rest.size() < 2 || rest[0] != ' ' || rest[1] == ' ' || plus == std::string::npos || plus < 2) return false;
  std::string off = rest.substr(plus + 3);
  return !off.empty() && off.find_first_not_of("0123456789") == std::string::npos;
}

// The one report in dir; empty when there is none or more than one.
std::string the_report(const std::string& dir, std::string* name = nullptr) {
  auto files = crash_files(dir);
  EXPECT_EQ(files.size(), 1u) << "reports in " << dir;
  if (files.size() != 1) return "";
  if (name != nullptr) *name = files[0];
  return read_text(dir + "/" + files[0]);
}

std::string expected_uname_line() {
  struct utsname u;
  uname(&u);
  return std::string(" ") + u.sysname + " / " + u.nodename + " / " + u.release + " / " + u.version +
         " / " + u.machine + "\n";
}

// The release-file section this machine should give, or "" when there is none.
std::string expected_release_section() {
  static const char* const files[] = {"/etc/fedora-release",    "/etc/redhat-release",
                                      "/etc/debian_version",    "/etc/SuSE-release",
                                      "/etc/slackware-version", "/etc/gentoo-release",
                                      "/etc/mandrake-release"};
  for (const char* f : files) {
    if (!testutil::exists(f)) continue;
    std::string body = read_text(f);
    if (body.size() > 1000) body = body.substr(0, 1000) + "<truncating output>";
    return std::string(" ") + f + ": " + body + "\n";
  }
  return "";
}

// ---- The common shape of every report -------------------------------------

void check_common_sections(const std::string& r, int sig, time_t before, time_t after,
                           const std::string& name) {
  std::vector<std::string> lines = split_lines(r);
  // Build line: the build number and the local time, which is also the name.
  const std::string build = "[build " + std::to_string(CRASH_LOG_BUILD_NUMBER) + "] ";
  auto at = std::find_if(lines.begin(), lines.end(), [&](const std::string& l) { return l.rfind(build, 0) == 0; });
  ASSERT_NE(at, lines.end()) << r;
  std::string stamp = at->substr(build.size());
  ASSERT_TRUE(shape_match(stamp, "####-##-## ##:##:##")) << stamp;
  EXPECT_EQ(name, "crash-" + stamp.substr(0, 10) + "-" + stamp.substr(11) + ".log");
  bool in_window = false;
  for (time_t t = before; t <= after; ++t) {
    if (local_stamp(t, "%Y-%m-%d %H:%M:%S") == stamp) in_window = true;
  }
  EXPECT_TRUE(in_window) << "build line time " << stamp << " is not the local time";

  expect_in_order(r, {"Received fatal signal " + std::to_string(sig) + " (" + strsignal(sig) + ").\n",
                      " Cause:\n   "});
  EXPECT_EQ(r.find("siginfo has different signal number"), std::string::npos);

#ifdef __x86_64__
  size_t regs = find_line(lines, " Registers:");
  ASSERT_LT(regs + 23, lines.size()) << r;
  EXPECT_TRUE(is_frame_line(lines[regs + 1].substr(8)) && lines[regs + 1].rfind("    RIP:", 0) == 0)
      << lines[regs + 1];
  size_t i = regs + 2;
  for (const char* reg : {"RDI", "RSI", "RBP", "RSP", "RAX", "RBX", "RCX", "RDX", "R8", "R9", "R10", "R11",
                          "R12", "R13", "R14", "R15", "EFL", "TRAPNO", "ERR", "CSGSFS", "OLDMASK"}) {
    EXPECT_TRUE(shape_match(lines[i], std::string("    ") + reg + ":  [0x$$$$$$$$$$$$$$$$]")) << lines[i];
    ++i;
  }
  expect_in_order(r, {"    OLDMASK:", "]\n\n OS: Linux\n Arch: x86-64\n\n Backtrace:\n"});
#endif
  // At least one frame after the backtrace header, all in the frame form,
  // then the system line.
  size_t bt = find_line(lines, " Backtrace:");
  ASSERT_LT(bt + 2, lines.size());
  size_t frames = 0;
  while (bt + 1 + frames < lines.size() && is_frame_line(lines[bt + 1 + frames])) ++frames;
  EXPECT_GE(frames, 1u) << r;
  EXPECT_EQ(lines[bt + 1 + frames] + "\n", expected_uname_line());
#ifdef __x86_64__
  // The handler's own frames are skipped: the stack starts where the signal
  // struck, at the instruction pointer of the registers.
  EXPECT_EQ(lines[bt + 1], lines[regs + 1].substr(8)) << r;
#endif

  std::string tail = expected_release_section();
  std::vector<std::string> order = {" Backtrace:\n", expected_uname_line()};
  if (!tail.empty()) order.push_back(tail);
  if (access("/lib64/libc.so.6", F_OK) == 0) {
    order.push_back(std::string(" glibc version: ") + gnu_get_libc_version() + "\n");
    order.push_back(std::string(" glibc release: ") + gnu_get_libc_release() + "\n");
  } else {
    EXPECT_EQ(r.find(" glibc version: "), std::string::npos);
  }
  order.push_back("Last errno: ");
  order.push_back("\nx86 CPUID registers:\n         0: ");
  order.push_back("\n  80000000: ");
  expect_in_order(r, order);
  bool has_leaf1 = false;
  for (const auto& l : lines) {
    if (shape_match(l, "         1: $$$$$$$$ $$$$$$$$ $$$$$$$$ $$$$$$$$")) has_leaf1 = true;
  }
  EXPECT_TRUE(has_leaf1);

  const std::string last = "terminating...\n";
  ASSERT_GE(r.size(), last.size());
  EXPECT_EQ(r.substr(r.size() - last.size()), last);
}

// ---- One case per fatal signal ----------------------------------------------

struct crash_case {
  const char* label;
  int sig;
  std::function<void(const std::string& dir)> crash;
  std::vector<std::string> causes;  // cause line shapes, one of which must match
  bool has_map;
};

TEST(CrashLog, EachFatalSignalLeavesOneCompleteReport) {
  const std::vector<crash_case> cases = {
      {"null write", SIGSEGV, [](const std::string&) { crash_null_write(); },
       {"   No memory mapped at address [0x0000000000000000]."}, true},
      {"page past end of file", SIGBUS, [](const std::string& d) { crash_bus(d + "/bus.dat"); },
       {"   Non-existent accessed physical address at address [0x$$$$$$$$$$$$$$$$]."}, true},
      {"division by zero", SIGFPE, [](const std::string&) { crash_divide_by_zero(); },
       {"   Integer division by zero at address [0x$$$$$$$$$$$$$$$$]."}, false},
      // The kernel decides the code of ud2 (an illegal opcode or operand).
      {"trap instruction", SIGILL, [](const std::string&) { crash_trap(); },
       {"   Illegal opcode at address [0x$$$$$$$$$$$$$$$$].",
        "   Illegal operand for opcode at address [0x$$$$$$$$$$$$$$$$]."},
       false},
      {"abort", SIGABRT, [](const std::string&) { abort(); }, {"SENT"}, false},
#ifdef __x86_64__
      {"non-canonical address", SIGSEGV, [](const std::string&) { crash_noncanonical_write(); },
       {"   Unknown signal origin (si_code=128, si_addr=[0x0000000000000000])."}, true},
#endif
      {"stack overflow", SIGSEGV, [](const std::string&) { crash_stack_overflow(0); },
       {"   No memory mapped at address [0x$$$$$$$$$$$$$$$$].",
        "   Memory access denied at address [0x$$$$$$$$$$$$$$$$]."},
       true},
      // A worker of the merge has a signal stack of its own.
      {"stack overflow on a worker thread", SIGSEGV,
       [](const std::string&) {
         std::thread worker;
         if (tarnix::start_worker(&worker, [] { crash_stack_overflow(0); })) worker.join();
       },
       {"   No memory mapped at address [0x$$$$$$$$$$$$$$$$].",
        "   Memory access denied at address [0x$$$$$$$$$$$$$$$$]."},
       true},
      // A sent SIGSEGV does not repeat: the handler raises it again.
      {"SIGSEGV by kill", SIGSEGV, [](const std::string&) { kill(getpid(), SIGSEGV); }, {"SENT"},
       true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    TempDir tmp;
    time_t before = time(nullptr);
    death d = run_child(
        [&] {
          if (crash_log_creator_init(tmp.path().c_str()) != 0) return -1;
          errno = EDOM;
          return c.sig;
        },
        [&] {
          errno = EDOM;
          c.crash(tmp.path());
        });
    time_t after = time(nullptr);
    EXPECT_DIED_OF(d, c.sig);

    std::string name;
    std::string r = the_report(tmp.path(), &name);
    ASSERT_FALSE(r.empty());
    struct stat st;
    ASSERT_EQ(stat((tmp.path() + "/" + name).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    check_common_sections(r, c.sig, before, after, name);
    std::vector<std::string> lines = split_lines(r);
    size_t cause = find_line(lines, " Cause:") + 1;
    ASSERT_LT(cause + 1, lines.size());
    bool matched = false;
    for (const auto& want : c.causes) {
      matched |= want == "SENT" ? lines[cause] == sent_line(d.pid) : shape_match(lines[cause], want);
    }
    EXPECT_TRUE(matched) << lines[cause];
    EXPECT_EQ(lines[cause + 1], " Registers:");

    EXPECT_EQ(r.find(" MAP: ") != std::string::npos, c.has_map);
    if (c.has_map) {
      // The memory map lies between the system facts and the saved errno.
      expect_in_order(r, {expected_uname_line(), "\n MAP: ", "\nLast errno: "});
      size_t map_lines = 0;
      for (const auto& l : lines) {
        if (l.rfind(" MAP: ", 0) == 0) {
          ++map_lines;
          EXPECT_TRUE(shape_match(l, " MAP: ~*-~* *")) << l;
        }
      }
      EXPECT_GE(map_lines, 3u);
    }
    // No stderr file was registered.
    EXPECT_EQ(r.find(STDERR_HEADER), std::string::npos);
    // Nothing optional was registered either.
    EXPECT_EQ(r.find("Crashing thread"), std::string::npos);
    EXPECT_EQ(r.find("Threads running"), std::string::npos);
    // The saved errno is the one before the signal.
    expect_in_order(r, {"Last errno: " + std::to_string(EDOM) + "\n\nx86 CPUID registers:\n"});
  }
}

// Every cause line, from signals the child sends itself with the code, error
// number and address a fault would carry. A fault that was only sent does
// not come back once the handler returns, so such a child lives on.
TEST(CrashLog, CauseLineOfEveryCode) {
  constexpr uintptr_t ADDR = 0x1234ABCD;
  const std::string at = " at address [0x000000001234ABCD].";
  struct cause_case {
    int sig, code, err;
    std::string line;
  };
  std::vector<cause_case> cases = {
      {SIGSEGV, 1, 0, "   No memory mapped" + at},
      {SIGSEGV, 2, 0, "   Memory access denied" + at},
      {SIGBUS, 1, 0, "   Unaligned memory access" + at},
      {SIGBUS, 2, 0, "   Non-existent accessed physical address" + at},
      {SIGBUS, 3, 12, "   Out of swap space" + at},
      {SIGBUS, 3, 5, "   Hardware error" + at},
      {SIGSEGV, 3, 7, "   Unknown signal origin (si_code=3, si_addr=[0x000000001234ABCD], si_errno=7)."},
      {SIGBUS, 4, 0, "   Unknown signal origin (si_code=4, si_addr=[0x000000001234ABCD])."},
      {SIGFPE, 9, 0, "   Unknown signal origin (si_code=9, si_addr=[0x000000001234ABCD])."},
      {SIGILL, 9, 0, "   Unknown signal origin (si_code=9, si_addr=[0x000000001234ABCD])."},
      {SIGABRT, 5, 0, "   Unknown signal origin (si_code=5)."},
      {SIGABRT, SI_QUEUE, 0, "SENT"},
  };
  const char* fpe[] = {"Integer division by zero",        "Integer overflow",
                       "Floating point division by zero", "Floating point overflow",
                       "Floating point underflow",        "Inexact floating point result",
                       "Invalid floating point operation", "Floating point subscript out of range"};
  const char* ill[] = {"Illegal opcode",      "Illegal operand for opcode", "Illegal addressing mode for opcode",
                       "Illegal trap",        "Privileged opcode",          "Privileged register access",
                       "Coprocessor error",   "Internal stack error"};
  for (int k = 0; k < 8; ++k) {
    cases.push_back({SIGFPE, k + 1, 0, std::string("   ") + fpe[k] + at});
    cases.push_back({SIGILL, k + 1, 0, std::string("   ") + ill[k] + at});
  }
  for (const cause_case& c : cases) {
    SCOPED_TRACE(std::string(strsignal(c.sig)) + " code " + std::to_string(c.code));
    TempDir tmp;
    death d = run_child([&] { return crash_log_creator_init(tmp.path().c_str()) == 0 ? c.sig : -1; },
                        [&] {
                          siginfo_t info;
                          memset(&info, 0, sizeof info);
                          info.si_signo = c.sig;
                          info.si_code = c.code;
                          info.si_errno = c.err;
                          if (c.code > 0) {
                            info.si_addr = reinterpret_cast<void*>(ADDR);
                          } else {
                            info.si_pid = getpid();
                            info.si_uid = getuid();
                          }
                          syscall(SYS_rt_tgsigqueueinfo, getpid(), gettid(), c.sig, &info);
                        });
    if (!d.signaled && d.status == CHILD_NOT_INSTALLED) GTEST_SKIP() << "the crash handler cannot be installed";
    // Sent without a fault: raised again when only sent, else the child goes on.
    if (c.code > 0) {
      EXPECT_FALSE(d.signaled);
      EXPECT_EQ(d.status, CHILD_SURVIVED);
    } else {
      EXPECT_TRUE(d.signaled);
      EXPECT_EQ(d.sig, c.sig);
    }
    const std::vector<std::string> lines = split_lines(the_report(tmp.path()));
    const size_t cause = find_line(lines, " Cause:") + 1;
    ASSERT_LT(cause, lines.size());
    EXPECT_EQ(lines[cause], c.line != "SENT" ? c.line : sent_line(d.pid));
  }
}

// ---- Where the report goes --------------------------------------------------

TEST(CrashLog, ReportDirectoryFollowsTarnixHome) {
  struct where_case {
    const char* label;
    bool set_home;
    bool make_dir;  // create TARNIX_HOME/var/log/tarnix
    bool expect_report;
  };
  const where_case cases[] = {
      {"TARNIX_HOME with its log directory", true, true, true},
      {"no TARNIX_HOME: the current directory", false, false, true},
      {"TARNIX_HOME without its log directory: no report", true, false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    TempDir home, cwd;
    std::string logdir = home.path() + "/var/log/tarnix";
    for (const char* sub : {"/var", "/var/log", "/var/log/tarnix"}) {
      ASSERT_TRUE(!c.make_dir || mkdir((home.path() + sub).c_str(), 0700) == 0) << sub;
    }
    death d = run_child(
        [&] {
          if (chdir(cwd.path().c_str()) != 0) return -1;
          c.set_home ? setenv("TARNIX_HOME", home.path().c_str(), 1) : unsetenv("TARNIX_HOME");
          return crash_log_creator_init_with_default_prefix() == 0 ? SIGFPE : -1;
        },
        [] { crash_divide_by_zero(); });
    EXPECT_DIED_OF(d, SIGFPE);
    const std::string& expected_dir = c.set_home ? logdir : cwd.path();
    const std::string& other_dir = c.set_home ? cwd.path() : logdir;
    EXPECT_EQ(crash_files(expected_dir).size(), c.expect_report ? 1u : 0u);
    EXPECT_TRUE(crash_files(other_dir).empty());
    EXPECT_TRUE(crash_files(home.path()).empty());
  }
}

TEST(CrashLog, CrashInAnOccupiedSecondWritesNoReport) {
  TempDir tmp;
  // Occupy every name the crash could take, as an earlier crash in the same
  // second would have.
  time_t now = time(nullptr);
  std::vector<std::string> names;
  for (time_t t = now - 2; t <= now + 10; ++t) {
    names.push_back(local_stamp(t, "crash-%Y-%m-%d-%H:%M:%S.log"));
    put_file(tmp.file(names.back()), "earlier crash\n");
  }
  death d = run_child([&] { return crash_log_creator_init(tmp.path().c_str()) == 0 ? SIGSEGV : -1; },
                      [] { crash_null_write(); });
  EXPECT_DIED_OF(d, SIGSEGV);
  EXPECT_EQ(crash_files(tmp.path()).size(), names.size());
  for (const auto& n : names) EXPECT_EQ(read_text(tmp.file(n)), "earlier crash\n") << n;
}

TEST(CrashLog, OutOfDescriptorsReportsTheOpenDescriptors) {
  TempDir tmp;
  death d = run_child(
      [&] {
        if (crash_log_creator_init(tmp.path().c_str()) != 0) return -1;
        struct rlimit lim = {32, 32};
        if (setrlimit(RLIMIT_NOFILE, &lim) != 0) return -1;
        while (open("/dev/null", O_RDONLY) >= 0) {
        }
        return SIGSEGV;
      },
      [] { crash_null_write(); });
  EXPECT_DIED_OF(d, SIGSEGV);
  std::string name;
  std::string r = the_report(tmp.path(), &name);
  ASSERT_FALSE(r.empty());
  // Descriptor 0 was given up for the report; all 32 were open.
  EXPECT_EQ(r.rfind("(Out of file descriptors!)\n[build ", 0), 0u) << r;
  expect_in_order(r, {"\nFile descriptors open:\n0: " + tmp.path() + "/" + name + "\n1: ", "\n31: ",
                      "\n(Total 32)\n", "Received fatal signal 11 ("});
  EXPECT_EQ(r.find("\n32: "), std::string::npos);
  EXPECT_EQ(r.substr(r.size() - 15), "terminating...\n");
}

// ---- Standard error tail (SIGABRT only) ------------------------------------

TEST(CrashLog, AbortReportShowsTheCleanedTailOfStderr) {
  // 120 lines of 31 bytes and the 41-byte assertion: the last 800 bytes
  // start inside line 95, so the tail starts with line 96.
  // n numbered lines; *tail gets them from line `from` on as the report shows them.
  auto numbered = [](const char* fmt, int n, int from, std::string* tail) {
    std::string all;
    for (int i = 0; i < n; ++i) {
      char buf[64];
      snprintf(buf, sizeof(buf), fmt, i);
      all += buf;
      if (i >= from) *tail += std::string("    ") + buf;
    }
    return all;
  };
  const std::string assertion = "prog: check.cc:12: Assertion `x' failed.\n";
  std::string long_tail, tail_800;
  const std::string long_content = numbered("diagnostic line %03d of the run\n", 120, 96, &long_tail) + assertion;
  long_tail += "    " + assertion;
  // 25 lines of 32 bytes fill the 800 bytes exactly. Before them, a line
  // end keeps the window's first byte a line start; another byte does not.
  const std::string lines_800 = numbered("line %02d .......................\n", 25, 0, &tail_800);
  ASSERT_EQ(lines_800.size(), 800u);
  const std::string tail_800_but_first = tail_800.substr(tail_800.find('\n') + 1);
  static const char tricky_raw[] =
      "first\n\tindented\r\n\n\r\nbin\x01"
      "ary\x7f\xff end\nnul\0byte\nno line end";
  std::string tricky(tricky_raw, sizeof(tricky_raw) - 1);

  struct tail_case {
    const char* label;
    int sig;
    bool do_register;
    std::string content;
    std::string tail;  // "": no section
  };
  const tail_case cases[] = {
      // Tabs become spaces, CR and NUL vanish, other unprintables are '?',
      // empty lines are left out.
      {"short file: all of it, cleaned", SIGABRT, true, tricky,
       "    first\n     indented\n    bin?ary?? end\n    nulbyte\n    no line end\n"},
      {"long file: from the first line start in the last 800 bytes", SIGABRT, true, long_content, long_tail},
      {"exactly 800 bytes: all of it", SIGABRT, true, lines_800, tail_800},
      {"801 bytes after a line end: the window starts a line", SIGABRT, true, "\n" + lines_800, tail_800},
      {"801 bytes inside a line: from the next one", SIGABRT, true, "x" + lines_800, tail_800_but_first},
      {"empty file: no section", SIGABRT, true, "", ""},
      {"not registered: no section", SIGABRT, false, "lost\n", ""},
      {"not an abort: no section", SIGFPE, true, "kept out\n", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    TempDir tmp;
    std::string errfile = tmp.file("stderr.txt");
    death d = run_child(
        [&] {
          int fd = open(errfile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
          if (fd < 0 || dup2(fd, 2) < 0) return -1;
          if (write(2, c.content.data(), c.content.size()) != static_cast<ssize_t>(c.content.size())) return -1;
          if (c.do_register) register_stderr_file_location(errfile.c_str());
          return crash_log_creator_init(tmp.path().c_str()) == 0 ? c.sig : -1;
        },
        [&] {
          if (c.sig == SIGABRT) abort();
          crash_divide_by_zero();
        });
    EXPECT_DIED_OF(d, c.sig);
    std::string r = the_report(tmp.path());
    ASSERT_FALSE(r.empty());
    if (c.tail.empty()) {
      EXPECT_EQ(r.find(STDERR_HEADER), std::string::npos);
      continue;
    }
    // Right after the system line; the release file or the errno follows.
    expect_in_order(r, {expected_uname_line() + STDERR_HEADER + c.tail});
    size_t after = r.find(STDERR_HEADER + c.tail) + STDERR_HEADER.size() + c.tail.size();
    EXPECT_NE(r.substr(after, 4), "    ");
  }
}

// ---- Notations, thread name and thread count -------------------------------

size_t render_with_prefix(const crashlog_notation* n, crash_log_writer* z) noexcept {
  const char* s = static_cast<const char*>(n->data);
  crash_log_printf(z, "fn:%s", s);
  return 3 + strlen(s);
}

size_t render_nothing(const crashlog_notation*, crash_log_writer*) noexcept { return 0; }

const char* thread_name() { return "worker-7"; }
unsigned thread_count() { return 3; }

TEST(CrashLog, NotationsRenderInOrderAfterTheThreadFacts) {
  TempDir tmp;
  death d = run_child(
      [&] {
        register_get_current_threadname_func(&thread_name);
        register_get_threadcount_func(&thread_count);
        // In this order (a braced list is evaluated left to right); the empty
        // notation and render_nothing write nothing, so no line.
        const int rcs[] = {crashlog_notation_global_add("alpha"),
                           crashlog_notation_global_add_func(&render_with_prefix, "payload"),
                           crashlog_notation_global_add(""),
                           crashlog_notation_global_add_func(&render_nothing, nullptr),
                           crashlog_notation_global_add("beta"),
                           crashlog_notation_perthread_push("gamma"),
                           crashlog_notation_perthread_push("delta"),
                           crashlog_notation_perthread_push("epsilon"),
                           (crashlog_notation_perthread_pop(), 0),
                           crashlog_notation_perthread_push_func(&render_with_prefix, "zeta"),
                           crashlog_notation_perthread_push("eta"),
                           (crashlog_notation_perthread_pop(), 0)};
        const bool bad = std::any_of(std::begin(rcs), std::end(rcs), [](int rc) { return rc != 0; });
        return !bad && crash_log_creator_init(tmp.path().c_str()) == 0 ? SIGSEGV : -1;
      },
      [] { crash_null_write(); });
  EXPECT_DIED_OF(d, SIGSEGV);
  std::string r = the_report(tmp.path());
  ASSERT_FALSE(r.empty());
  expect_in_order(r, {" Cause:\n   No memory mapped at address [0x0000000000000000].\n"
                      " Crashing thread: worker-7\n Registers:\n",
                      "\nThreads running: 3\nalpha\nfn:payload\nbeta\ngamma\ndelta\nfn:zeta\n"
                      "\nx86 CPUID registers:\n"});
  EXPECT_EQ(r.find("epsilon"), std::string::npos);
  EXPECT_EQ(r.find("\neta\n"), std::string::npos);
}

crashlog_notation g_ping, g_pong;
crashlog_notation_perthread_state g_cycle_state;
crashlog_notation_perthread_state* cycle_state() { return &g_cycle_state; }

TEST(CrashLog, NotationListsStopAt1024) {
  TempDir tmp;
  death d = run_child(
      [&] {
        // Exactly 1024 global notations: all shown, no notice.
        for (int i = 0; i < 1024; ++i) {
          if (crashlog_notation_global_add("g") != 0) return -1;
        }
        // A corrupted per-thread list that loops: cut after 1024 with the notice.
        g_ping = {&crashlog_notation_write_string, nullptr, &g_pong, "ping"};
        g_pong = {&crashlog_notation_write_string, nullptr, &g_ping, "pong"};
        g_cycle_state = {&g_ping, &g_pong};
        register_get_crashlog_notation_perthread_state_func(&cycle_state);
        return crash_log_creator_init(tmp.path().c_str()) == 0 ? SIGILL : -1;
      },
      [] { crash_trap(); });
  EXPECT_DIED_OF(d, SIGILL);
  std::string r = the_report(tmp.path());
  ASSERT_FALSE(r.empty());
  std::string want;
  for (int i = 0; i < 1024; ++i) want += "g\n";
  for (int i = 0; i < 512; ++i) want += "ping\npong\n";
  want += MSG_NOTATIONS + "\nx86 CPUID registers:\n";
  expect_in_order(r, {"Last errno: ", "\n" + want});
  size_t first = r.find(MSG_NOTATIONS);
  EXPECT_EQ(r.find(MSG_NOTATIONS, first + 1), std::string::npos);
}

crashlog_notation_perthread_state* no_state() { return nullptr; }

crashlog_notation g_lone_root = {&crashlog_notation_write_string, nullptr, nullptr, "r"};
crashlog_notation_perthread_state g_broken_state = {&g_lone_root, nullptr};
crashlog_notation_perthread_state* broken_state() { return &g_broken_state; }

void push_with_state_func(crash_log_perthread_state_func f) {
  register_get_crashlog_notation_perthread_state_func(f);
  (void)crashlog_notation_perthread_push("x");
}

TEST(CrashLog, NotationStackMisuseIsAnAssertion) {
  EXPECT_DEATH(crashlog_notation_perthread_pop(), "cnpsp->root != \\(\\(void \\*\\)0\\)");
  EXPECT_DEATH(push_with_state_func(&no_state), "cnpsp != \\(\\(void \\*\\)0\\)");
  EXPECT_DEATH(push_with_state_func(&broken_state), "cnpsp->last != \\(\\(void \\*\\)0\\)");
}

// ---- Installation failure ---------------------------------------------------

TEST(CrashLog, FailedInstallationPrintsWhyAndLeavesDefaults) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "an address-space limit cannot be set under AddressSanitizer";
#else
  TempDir tmp;
  std::string errfile = tmp.file("stderr.txt");
  death d = run_child(
      [&]() -> int {
        int fd = open(errfile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        // No room for the alternate stack.
        struct rlimit as = {0, 0};
        getrlimit(RLIMIT_AS, &as);
        as.rlim_cur = 1;
        if (fd < 0 || dup2(fd, 2) < 0 || setrlimit(RLIMIT_AS, &as) != 0) _exit(2);
        int rc = crash_log_creator_init(tmp.path().c_str());
        struct sigaction sa;
        sigaction(SIGSEGV, nullptr, &sa);
        _exit(rc == -1 && sa.sa_handler == SIG_DFL ? 0 : 1);
      },
      [] {});
  ASSERT_FALSE(d.signaled);
  EXPECT_EQ(d.status, 0);
  EXPECT_EQ(read_text(errfile).rfind("cannot allocate alternate stack: ", 0), 0u) << read_text(errfile);
  EXPECT_TRUE(crash_files(tmp.path()).empty());
#endif
}

// ---- The writer -------------------------------------------------------------

// A writer on a fresh file; content() reads back what it wrote.
struct writer_file {
  TempDir tmp;
  std::string path = tmp.file("out.log");
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  crash_log_writer z;
  writer_file() { crash_log_writer_init(&z, fd); }
  ~writer_file() { close(fd); }
  std::string content() const { return read_text(path); }
};

TEST(CrashLogWriter, EnforcesTheWriteAndTotalLimits) {
  // Oversized writes leave their notice each, and the notices count towards
  // the total: enough of them alone fill the log.
  const size_t notices = (524288 + MSG_50K.size() - 1) / MSG_50K.size() - 1;
  std::string only_notices;
  for (size_t i = 0; i < notices; ++i) only_notices += MSG_50K;
  struct limit_case {
    const char* label;
    size_t full_writes;          // writes of exactly 50 kB first
    std::vector<size_t> writes;  // then these sizes, each written as that many 'a'
    std::string expected;        // what follows the leading 'a' bytes
    size_t expected_plain;       // count of 'a' bytes that must come first
  };
  const limit_case cases[] = {
      {"a write of exactly 50 kB passes", 1, {}, "", 51200},
      {"a larger write is replaced by the notice", 0, {51201, 10}, MSG_50K + std::string(10, 'a'), 0},
      {"just under the total limit everything passes", 10, {12287}, "", 524287},
      {"the write that reaches the limit is replaced, then nothing", 10, {12287, 1, 1, 50}, MSG_512K, 524287},
      {"the write that passes the limit is replaced", 11, {7}, MSG_512K, 512000},
      {"skipped writes still count towards the total", 0, std::vector<size_t>(20000, 60000),
       only_notices + MSG_512K, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    writer_file w;
    ASSERT_GE(w.fd, 0);
    std::vector<size_t> writes(c.full_writes, 51200);
    writes.insert(writes.end(), c.writes.begin(), c.writes.end());
    for (size_t n : writes) {
      std::string buf(n, 'a');
      w.z.whand.do_write(&w.z, buf.data(), buf.size());
    }
    std::string got = w.content();
    ASSERT_EQ(got.size(), c.expected_plain + c.expected.size());
    EXPECT_EQ(got.substr(0, c.expected_plain), std::string(c.expected_plain, 'a'));
    EXPECT_EQ(got.substr(c.expected_plain), c.expected);
  }
}

void discard_write(crash_log_writer*, const void*, size_t) noexcept {}

void write_through_foreign_writer() {
  writer_file w;
  w.z.whand.do_write = &discard_write;
  default_crash_log_write(&w.z, "x", 1);
}

TEST(CrashLogWriter, RefusesAWriterWithAnotherWriteOperation) {
  EXPECT_DEATH(write_through_foreign_writer(), "z->whand.do_write == &default_crash_log_write");
}

TEST(CrashLogWriter, LongLinesAreCutTo255WithFullStops) {
  struct line_case {
    size_t len;
    std::string expected;
  };
  const line_case cases[] = {
      {0, ""},
      {254, std::string(254, 'x')},
      {255, std::string(255, 'x')},
      {256, std::string(252, 'x') + "..."},
      {1000, std::string(252, 'x') + "..."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.len);
    writer_file w;
    crash_log_printf(&w.z, "%s", std::string(c.len, 'x').c_str());
    EXPECT_EQ(w.content(), c.expected);
  }
  // The cut also takes the line end.
  writer_file w;
  crash_log_printf(&w.z, "[%s]\n", std::string(300, 'y').c_str());
  EXPECT_EQ(w.content(), "[" + std::string(251, 'y') + "...");
}

TEST(CrashLogWriter, NumbersFormatLikePrintf) {
  std::vector<std::function<void(crash_log_writer*, char*, size_t)>> cases;
#define FMT_CASE(...)                                                             \
  cases.push_back([](crash_log_writer* z, char* buf, size_t sz) {                 \
    crash_log_printf(z, __VA_ARGS__);                                             \
    snprintf(buf, sz, __VA_ARGS__);                                               \
  })
  FMT_CASE("%d|%d|%d|%d", 0, -1, INT_MAX, INT_MIN);
  FMT_CASE("%ld|%ld|%lu", LONG_MAX, LONG_MIN, ULONG_MAX);
  FMT_CASE("%u|%X|%x|%08X|%8X|%8X", 4000000000u, 0xDEADBEEFu, 0xabcu, 0x1Fu, 0x80000008u, 0u);
  FMT_CASE("[0x%016llX] [0x%016llX]", 0ULL, 0xFEDCBA9876543210ULL);
  FMT_CASE("%04d-%02d-%02d %02d:%02d:%02d", 2024, 2, 29, 0, 5, 59);
  FMT_CASE("%04d|%-5d|%5s|%-5s|%c|100%%", -12, 42, "ab", "cd", 'q');
  FMT_CASE("%zu %zd %s", static_cast<size_t>(123456789), static_cast<ssize_t>(-5), "tail");
#undef FMT_CASE
  for (size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(i);
    writer_file w;
    char want[256];
    cases[i](&w.z, want, sizeof(want));
    EXPECT_EQ(w.content(), want);
  }
}

TEST(CrashLogWriter, InsertFileCopiesUpToItsLimit) {
  constexpr size_t MISSING = static_cast<size_t>(-1);
  struct insert_case {
    const char* label;
    size_t file_sz;
    size_t limit;
    const char* title;
  };
  const insert_case cases[] = {
      {"shorter than the limit", 10, 1000, nullptr},
      {"exactly the limit", 1000, 1000, nullptr},
      {"longer than the limit", 2500, 1000, " %s: "},
      {"longer than the copy buffer", 5000, 4000, nullptr},
      {"empty", 0, 1000, " %s: "},
      {"missing: nothing written", MISSING, 1000, " %s: "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    writer_file w;
    std::string path = w.tmp.file("release"), body;
    for (size_t i = 0; c.file_sz != MISSING && i < c.file_sz; ++i) body += static_cast<char>('a' + i % 26);
    if (c.file_sz != MISSING) put_file(path, body);
    EXPECT_EQ(crash_log_insert_file(&w.z, path.c_str(), c.limit, c.title), c.file_sz == MISSING ? -1 : 0);
    std::string want = c.title != nullptr ? " " + path + ": " : "";
    want += body.substr(0, c.limit) + (body.size() > c.limit ? "<truncating output>" : "");
    EXPECT_EQ(w.content(), c.file_sz == MISSING ? "" : want);
  }
}

TEST(CrashLogWriter, BacktraceWritesOneFrameALine) {
  // Called from one place, so that the frames above differ only by the skip.
  auto trace = [](int skip) {
    writer_file w;
    get_backtrace(&w.z, skip);
    return w.content();
  };
  const std::string all = trace(0), skipped = trace(1);
  std::vector<std::string> lines = split_lines(all);
  ASSERT_GE(lines.size(), 2u);
  for (const auto& l : lines) EXPECT_TRUE(is_frame_line(l)) << l;
  EXPECT_EQ(all.back(), '\n');
  // Skipping frames drops exactly that many lines from the top.
  EXPECT_EQ(std::count(skipped.begin(), skipped.end(), '\n') + 1, std::count(all.begin(), all.end(), '\n'));
  EXPECT_EQ(trace(1000), "");
}

}  // namespace
