// Shared helpers for the test suite: temporary directories that clean up
// after themselves, file helpers, and the paths of the built programs.
#pragma once

#include <string>
#include <vector>
#include <cstdint>
#include <sys/types.h>

namespace testutil {

// A fresh directory under the test temp dir, removed (recursively) on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

void remove_tree(const std::string& path);
std::vector<uint8_t> read_file(const std::string& path);
void write_file(const std::string& path, const std::vector<uint8_t>& bytes);
// Names in a directory (without "." and ".."), sorted.
std::vector<std::string> list_dir(const std::string& path);

// Path of a built program (tarnix-optimize, tarnix-index, ...).
std::string bin(const std::string& name);

// Result of running a command: exit status (or 128 + signal) and its output.
struct RunResult {
  int status;
  std::string out;
  std::string err;
};
// Runs argv with extra environment entries ("NAME=value"; "NAME" alone unsets).
RunResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
              const std::string& stdin_data = "");
// run() of the built program `name` (see bin()) with these arguments.
RunResult run_bin(const std::string& name, const std::vector<std::string>& args,
                  const std::vector<std::string>& env = {}, const std::string& stdin_data = "");
// Starts the built program `name` in the background, its output discarded,
// with the environment changed as for run(); wait_status() waits for it and
// gives its status the way run() does (-1 when it cannot be waited for).
pid_t spawn_bin(const std::string& name, const std::vector<std::string>& args,
                const std::vector<std::string>& env = {});
int wait_status(pid_t pid);

// A file's content as text; its size (-1 when missing); whether it exists.
std::string read_text(const std::string& path);
int64_t file_size(const std::string& path);
bool exists(const std::string& path);
// Names in a directory that end in `suffix`, sorted.
std::vector<std::string> names_ending(const std::string& dir, const std::string& suffix);

}  // namespace testutil
