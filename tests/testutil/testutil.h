// Shared helpers for the test suite: temporary directories that clean up
// after themselves, file helpers, and the paths of the built programs.
#pragma once

#include <string>
#include <vector>
#include <cstdint>

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

}  // namespace testutil
