#include "testutil/testutil.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <gtest/gtest.h>

namespace testutil {

TempDir::TempDir() {
  std::string base = ::testing::TempDir();
  if (base.empty() || base.back() != '/') base += "/";
  std::string templ = base + "tarnix-test-XXXXXX";
  std::vector<char> buf(templ.begin(), templ.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = buf.data();
}

TempDir::~TempDir() { remove_tree(path_); }

void remove_tree(const std::string& path) {
  std::error_code ec;
  std::filesystem::remove_all(path, ec);
}

std::vector<uint8_t> read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

void write_file(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::vector<std::string> list_dir(const std::string& path) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(path, ec)) names.push_back(e.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

std::string bin(const std::string& name) { return std::string(TARNIX_BIN_DIR) + "/" + name; }

namespace {
std::string slurp_fd(int fd) {
  std::string s;
  char buf[65536];
  lseek(fd, 0, SEEK_SET);
  ssize_t n;
  while ((n = read(fd, buf, sizeof(buf))) > 0) s.append(buf, static_cast<size_t>(n));
  return s;
}
int temp_fd() {
  char templ[] = "/tmp/tarnix-run-XXXXXX";
  int fd = mkstemp(templ);
  if (fd >= 0) unlink(templ);
  return fd;
}
// Forks and execs argv with the given descriptors as 0, 1 and 2.
pid_t start(const std::vector<std::string>& argv, const std::vector<std::string>& env, int in, int out,
            int err) {
  pid_t pid = fork();
  if (pid == 0) {
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    for (const auto& e : env) {
      auto eq = e.find('=');
      if (eq == std::string::npos) {
        unsetenv(e.c_str());
      } else {
        setenv(e.substr(0, eq).c_str(), e.substr(eq + 1).c_str(), 1);
      }
    }
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  return pid;
}

std::vector<std::string> with_bin(const std::string& name, const std::vector<std::string>& args) {
  std::vector<std::string> argv{bin(name)};
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}
}  // namespace

int wait_status(pid_t pid) {
  int status = 0;
  if (pid <= 0 || waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

RunResult run_bin(const std::string& name, const std::vector<std::string>& args,
                  const std::vector<std::string>& env, const std::string& stdin_data) {
  return run(with_bin(name, args), env, stdin_data);
}

pid_t spawn_bin(const std::string& name, const std::vector<std::string>& args,
                const std::vector<std::string>& env) {
  int null_in = open("/dev/null", O_RDONLY | O_CLOEXEC), null_out = open("/dev/null", O_WRONLY | O_CLOEXEC);
  pid_t pid = start(with_bin(name, args), env, null_in, null_out, null_out);
  close(null_in);
  close(null_out);
  return pid;
}

std::string read_text(const std::string& path) {
  auto bytes = read_file(path);
  return std::string(bytes.begin(), bytes.end());
}

int64_t file_size(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
}

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::vector<std::string> names_ending(const std::string& dir, const std::string& suffix) {
  std::vector<std::string> out;
  for (auto& n : list_dir(dir))
    if (n.ends_with(suffix)) out.push_back(n);
  return out;
}

RunResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env,
              const std::string& stdin_data) {
  int out = temp_fd(), err = temp_fd(), in = temp_fd();
  if (!stdin_data.empty()) {
    if (write(in, stdin_data.data(), stdin_data.size()) != static_cast<ssize_t>(stdin_data.size()))
      throw std::runtime_error("write stdin");
    lseek(in, 0, SEEK_SET);
  }
  pid_t pid = start(argv, env, in, out, err);
  RunResult r;
  r.status = wait_status(pid);
  r.out = slurp_fd(out);
  r.err = slurp_fd(err);
  close(out);
  close(err);
  close(in);
  return r;
}

}  // namespace testutil
