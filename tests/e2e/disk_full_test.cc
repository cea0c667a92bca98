// A merge that runs out of disk space: on a small tmpfs (mounted here, so
// the test needs root; it is skipped otherwise), the bucket's sources are
// put in place and the rest of the file system is filled up to a few bytes.
// tarnix-optimize must then fail with the merge's code as its exit status,
// print its "merge failed" line on standard error, and leave every source
// byte for byte as it was, with no new index file beside them.
//
// Without root, a limit on the size of the files the optimizer may write
// does the same at any byte: the merged file needs S bytes, so under every
// limit below S the merge must fail and keep its sources.
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <sys/statvfs.h>
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "testutil/optimize_bucket.h"
#include "testutil/testutil.h"

namespace {

using namespace testutil;

constexpr const char* TMPFS_SIZE = "size=2m";

class DiskFull : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "mounting a size-limited tmpfs needs root";
    mnt_ = tmp_.path() + "/mnt";
    ASSERT_EQ(0, mkdir(mnt_.c_str(), 0700));
    if (mount("tmpfs", mnt_.c_str(), "tmpfs", 0, TMPFS_SIZE) != 0) {
      GTEST_SKIP() << "cannot mount a tmpfs here: " << strerror(errno);
    }
    mounted_ = true;
    // Sources made once, outside the small file system.
    src_ = tmp_.path() + "/sources";
    ASSERT_EQ(0, mkdir(src_.c_str(), 0700));
    RunResult r =
        run_bin("tarnix-index", {"--generate", "4000", "--seed", "2", "-d", src_, "--max-values", "500", "-q"});
    ASSERT_EQ(0, r.status) << r.err;
    for (const std::string& n : tsidx_names(src_)) sources_[n] = read_file(src_ + "/" + n);
    ASSERT_GE(sources_.size(), 4u);
  }

  void TearDown() override {
    if (mounted_) {
      EXPECT_EQ(0, umount2(mnt_.c_str(), MNT_DETACH)) << strerror(errno);
    }
  }

  // Empties the tmpfs, puts the sources into a bucket on it and fills the
  // file system until `leave` bytes are free (none filled when leave < 0).
  std::string prepare(long long leave) {
    for (const std::string& n : list_dir(mnt_)) remove_tree(mnt_ + "/" + n);
    const std::string bucket = mnt_ + "/bucket";
    EXPECT_EQ(0, mkdir(bucket.c_str(), 0700));
    for (const auto& [name, bytes] : sources_) write_file(bucket + "/" + name, bytes);
    if (leave >= 0) {
      struct statvfs sv;
      EXPECT_EQ(0, statvfs(mnt_.c_str(), &sv));
      long long fill = static_cast<long long>(sv.f_bavail) * static_cast<long long>(sv.f_bsize) - leave;
      int fd = open((mnt_ + "/filler").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
      EXPECT_GE(fd, 0);
      std::vector<char> chunk(65536, 'f');
      while (fill > 0) {
        ssize_t n = write(fd, chunk.data(), static_cast<size_t>(std::min<long long>(fill, 65536)));
        if (n <= 0) break;
        fill -= n;
      }
      close(fd);
    }
    return bucket;
  }

  RunResult optimize(const std::string& bucket) {
    return run_optimize({"-d", bucket, "-m", "all", "-s", "2", "-i", "1"});
  }

  TempDir tmp_;
  std::string mnt_;
  std::string src_;
  bool mounted_ = false;
  std::map<std::string, std::vector<uint8_t>> sources_;
};

// With room to spare the same bucket merges: the failures below are the
// disk's doing.
TEST_F(DiskFull, WithRoomTheMergeSucceeds) {
  const std::string bucket = prepare(-1);
  RunResult r = optimize(bucket);
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_EQ(std::string::npos, r.err.find("merge failed"));
  EXPECT_EQ(1u, tsidx_names(bucket).size());
}

// Out of space at different depths of the merge: at once, inside the value
// table or columns, and somewhere in the lexicon or the postings.
TEST_F(DiskFull, MergeFailsAndLeavesEverySourceIntact) {
  for (long long leave : {0LL, 4096LL, 32768LL, 131072LL}) {
    SCOPED_TRACE("free bytes " + std::to_string(leave));
    const std::string bucket = prepare(leave);
    RunResult r = optimize(bucket);
    // The "merge failed" line names the code, which is the exit status.
    const size_t at = r.err.find("merge failed for path=" + bucket + " rc=");
    ASSERT_NE(std::string::npos, at) << r.err;
    const int rc = atoi(r.err.c_str() + at + strlen("merge failed for path=") + bucket.size() + strlen(" rc="));
    EXPECT_LT(rc, 0);
    EXPECT_EQ(rc & 0xff, r.status) << r.err;
    // The system's own reason is kept with it.
    EXPECT_NE(std::string::npos, r.err.find(" errno=" + std::to_string(ENOSPC) + " ", at)) << r.err;
    EXPECT_TRUE(pattern_match(r.err.substr(at), "merge failed for path=" + bucket +
                                                     " rc={N} wrc={N} errno={N} file={*}]\n"))
        << r.err;
    // Every source as it was, and nothing else under a final name.
    EXPECT_EQ(sources_.size(), tsidx_names(bucket).size());
    for (const auto& [name, bytes] : sources_) EXPECT_EQ(bytes, read_file(bucket + "/" + name)) << name;
  }
}

// tarnix-optimize -m all over bucket with its files limited to `limit`
// bytes: a write past it must fail (EFBIG) as on a full disk, not end the
// process by SIGXFSZ, which the program ignores itself. Its exit status.
int optimize_with_file_limit(const std::string& bucket, rlim_t limit) {
  const std::string prog = bin("tarnix-optimize");
  const pid_t pid = fork();
  if (pid == 0) {
    signal(SIGXFSZ, SIG_DFL);
    const struct rlimit rl = {limit, limit};
    setrlimit(RLIMIT_FSIZE, &rl);
    setenv("OPTIMISTIC_ABOUT_FILE_LOCKING", "1", 1);
    const int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, 2);
    execl(prog.c_str(), prog.c_str(), "-d", bucket.c_str(), "-m", "all", "-i", "1", static_cast<char*>(nullptr));
    _exit(127);
  }
  int st = 0;
  if (pid < 0 || waitpid(pid, &st, 0) != pid) return -1;
  return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

// Every limit from below the postings' end up to one byte short of the
// merged file: the last stretch of postings is written last of all, and a
// failure there must fail the merge like any other.
TEST(FileSizeLimit, NoMergeSucceedsWithoutRoomForItsWholeFile) {
  TempDir src;
  RunResult r = run_bin("tarnix-index", {"--generate", "300", "--seed", "5", "-d", src.path(), "--max-values", "100", "-q"});
  ASSERT_EQ(0, r.status) << r.err;
  std::map<std::string, std::vector<uint8_t>> sources;
  std::vector<posting> all;
  for (const std::string& n : tsidx_names(src.path())) {
    sources[n] = read_file(src.file(n));
    ASSERT_TRUE(read_postings(src.file(n), &all));
  }
  ASSERT_GE(sources.size(), 3u);
  std::sort(all.begin(), all.end());

  auto fresh_bucket = [&](const TempDir& d) {
    for (const auto& [name, bytes] : sources) write_file(d.file(name), bytes);
  };
  TempDir whole;
  fresh_bucket(whole);
  ASSERT_EQ(0, optimize_with_file_limit(whole.path(), RLIM_INFINITY));
  ASSERT_EQ(1u, tsidx_names(whole.path()).size());
  const int64_t merged_size = file_size(whole.file(tsidx_names(whole.path())[0]));
  ASSERT_GT(merged_size, 9000);

  std::vector<int64_t> limits;
  for (int64_t l = merged_size - 9000; l < merged_size; l += 499) limits.push_back(l);
  limits.push_back(merged_size - 1);
  limits.push_back(merged_size);
  for (int64_t limit : limits) {
    SCOPED_TRACE("limit " + std::to_string(limit) + " of " + std::to_string(merged_size));
    TempDir d;
    fresh_bucket(d);
    const int status = optimize_with_file_limit(d.path(), static_cast<rlim_t>(limit));
    const std::vector<std::string> names = tsidx_names(d.path());
    if (limit < merged_size) {
      EXPECT_EQ(247, status) << "a failed write (-9)";
      EXPECT_EQ(sources.size(), names.size());
      for (const auto& [name, bytes] : sources) EXPECT_EQ(bytes, read_file(d.file(name))) << name;
    } else {
      ASSERT_EQ(0, status);
      ASSERT_EQ(1u, names.size());
      std::vector<posting> merged;
      ASSERT_TRUE(read_postings(d.file(names[0]), &merged));
      std::sort(merged.begin(), merged.end());
      EXPECT_TRUE(merged == all) << "every posting of the sources, and no other";
    }
  }
}

}  // namespace
