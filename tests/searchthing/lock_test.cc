#include "searchthing/lock.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "testutil/testutil.h"

using namespace tarnix;
using testutil::TempDir;

namespace {

// The locked path itself must exist: its file system decides the method.
std::string existing(const TempDir& d, const std::string& name) {
  std::string p = d.file(name);
  testutil::write_file(p, {});
  return p;
}

// Sets (or unsets, with nullopt) OPTIMISTIC_ABOUT_FILE_LOCKING for one scope.
class OptimisticEnv {
 public:
  explicit OptimisticEnv(const std::optional<std::string>& value) {
    if (const char* old = getenv(kName)) old_ = old;
    set(value);
  }
  ~OptimisticEnv() { set(old_); }

 private:
  static void set(const std::optional<std::string>& v) { v ? setenv(kName, v->c_str(), 1) : unsetenv(kName); }
  static constexpr const char* kName = "OPTIMISTIC_ABOUT_FILE_LOCKING";
  std::optional<std::string> old_;
};

// A world whose file system has a chosen type and whose clock only moves
// when the lock code sleeps.
struct FakeWorld {
  uint32_t type = ST_FS_EXT;
  bool statfs_fails = false;
  int64_t now_ms = 0;
  int64_t slept_ms = 0;
  lock_env env{};

  explicit FakeWorld(uint32_t t, int64_t start_offset_ms = 0) : type(t) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    now_ms = static_cast<int64_t>(tv.tv_sec) * 1000 + tv.tv_usec / 1000 + start_offset_ms;
    env.ctx = this;
    env.fs_type = [](const char*, uint32_t* out, void* ctx) {
      auto* w = static_cast<FakeWorld*>(ctx);
      if (w->statfs_fails) return -1;
      *out = w->type;
      return 0;
    };
    env.now_ms = [](void* ctx) { return static_cast<FakeWorld*>(ctx)->now_ms; };
    env.sleep_us = [](uint32_t us, void* ctx) {
      auto* w = static_cast<FakeWorld*>(ctx);
      w->now_ms += us / 1000;
      w->slept_ms += us / 1000;
    };
  }
};

class Lock : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(st_init(), 0); }
  OptimisticEnv env_{std::nullopt};
  TempDir dir_;
};

TEST_F(Lock, TextIsPidNewlineHostWithoutTrailingNewline) {
  char host[65] = {};
  ASSERT_EQ(gethostname(host, 64), 0);
  EXPECT_EQ(std::string(st_lockfile_text()), std::to_string(getpid()) + "\n" + host);
}

TEST_F(Lock, SecondLockOfSamePathIsHeld) {
  std::string p = existing(dir_, "bucket");
  EXPECT_EQ(st_islocked(p.c_str()), 0);
  EXPECT_EQ(st_lock(p.c_str()), 0);
  EXPECT_EQ(st_lock(p.c_str()), 1);
  EXPECT_EQ(st_islocked(p.c_str()), 1);
  EXPECT_EQ(testutil::read_text(p + ".lock"), st_lockfile_text());
  struct stat st;
  ASSERT_EQ(stat((p + ".lock").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u & ~static_cast<unsigned>(umask(umask(0))));
  EXPECT_EQ(st_unlock(p.c_str()), 0);
  EXPECT_EQ(st_islocked(p.c_str()), 0);
  EXPECT_EQ(st_lock(p.c_str()), 0);
  EXPECT_EQ(st_unlock(p.c_str()), 0);
}

TEST_F(Lock, MissingPathHasNoFileSystemToTrust) {
  std::string p = dir_.file("missing");
  EXPECT_EQ(st_lock(p.c_str()), -1);
  EXPECT_EQ(st_islocked(p.c_str()), 0);
  OptimisticEnv e(std::string("1"));
  EXPECT_EQ(st_lock(p.c_str()), 0);
  EXPECT_EQ(st_unlock(p.c_str()), 0);
  EXPECT_EQ(st_unlock(dir_.file("never-locked").c_str()), 0) << "unlock without a lock succeeds";
}

TEST_F(Lock, LongPathsAreRefused) {
  for (size_t len : {4091u, 4092u, 5000u}) {
    std::string p = dir_.path() + "/";
    p.append(len - p.size(), 'a');
    ASSERT_EQ(p.size(), len);
    EXPECT_EQ(st_lock(p.c_str()), -1) << len;
    EXPECT_EQ(st_islocked(p.c_str()), -1) << len;
    EXPECT_EQ(st_force_unlock(p.c_str(), 0), -2) << len;
  }
  // 4085 characters: the lock name fits, and so does the lock's own lock.
  std::string p = dir_.path() + "/";
  p.append(4085 - p.size(), 'a');
  EXPECT_NE(st_force_unlock(p.c_str(), 0), -2);
}

TEST_F(Lock, OptimismIsSpelledExactly) {
  struct Case {
    std::optional<std::string> value;
    int lock;
    int known;
  } cases[] = {
      {std::nullopt, -1, 0}, {"1", 0, 1},     {"t", 0, 1},    {"true", 0, 1}, {"yes", 0, 1},
      {"Yes", -1, 0},        {"TRUE", -1, 0}, {"2", -1, 0},   {"", -1, 0},    {"yes ", -1, 0},
      {"y", -1, 0},
  };
  FakeWorld tmpfs(ST_FS_TMPFS);
  for (const auto& c : cases) {
    OptimisticEnv e(c.value);
    std::string p = dir_.file("opt");
    EXPECT_EQ(_st_lock_with(p.c_str(), &tmpfs.env), c.lock) << c.value.value_or("<unset>");
    EXPECT_EQ(_st_fs_known_with(p.c_str(), &tmpfs.env), c.known) << c.value.value_or("<unset>");
    EXPECT_EQ(st_unlock(p.c_str()), 0);
  }
}

TEST_F(Lock, RealTmpfsIsRefusedUnlessOptimistic) {
  struct statfs sfs;
  if (statfs("/dev/shm", &sfs) != 0 || static_cast<uint32_t>(sfs.f_type) != ST_FS_TMPFS) {
    GTEST_SKIP() << "no tmpfs at /dev/shm";
  }
  char templ[] = "/dev/shm/tarnix-lock-XXXXXX";
  ASSERT_NE(mkdtemp(templ), nullptr);
  std::string p = std::string(templ) + "/bucket";
  EXPECT_EQ(st_fs_known(p.c_str()), 0);
  EXPECT_EQ(st_lock(templ), -1);
  EXPECT_EQ(st_islocked(templ), 0);
  {
    OptimisticEnv e(std::string("yes"));
    EXPECT_EQ(st_fs_known(templ), 1);
    EXPECT_EQ(st_lock(templ), 0);
    EXPECT_EQ(st_lock(templ), 1);
    EXPECT_EQ(st_unlock(templ), 0);
  }
  {
    OptimisticEnv e(std::string("YES"));
    EXPECT_EQ(st_lock(templ), -1);
  }
  testutil::remove_tree(templ);
}

TEST_F(Lock, FileSystemTable) {
  struct Case {
    uint32_t type;
    bool statfs_fails;
    int known;
  } cases[] = {
      {ST_FS_EXT, false, 1},  {ST_FS_XFS, false, 1},   {ST_FS_REISERFS, false, 1},
      {ST_FS_VXFS, false, 1}, {ST_FS_VZFS, false, 1},  {ST_FS_NFS, false, 1},
      {ST_FS_TMPFS, false, 0}, {0x9123683Eu, false, 0}, {ST_FS_EXT, true, 0},
  };
  for (const auto& c : cases) {
    FakeWorld w(c.type);
    w.statfs_fails = c.statfs_fails;
    std::string p = dir_.file("fs");
    EXPECT_EQ(_st_fs_known_with(p.c_str(), &w.env), c.known) << std::hex << c.type;
    EXPECT_EQ(_st_lock_with(p.c_str(), &w.env), c.known ? 0 : -1) << std::hex << c.type;
    EXPECT_EQ(st_unlock(p.c_str()), 0);
  }
  EXPECT_EQ(st_fs_known(dir_.path().c_str()), 1);   // the test directory is on a disk file system
}

TEST_F(Lock, HardLinkMethodLocksAndLeavesNoTemporaryFile) {
  FakeWorld nfs(ST_FS_NFS);
  std::string p = existing(dir_, "bucket");
  EXPECT_EQ(_st_lock_with(p.c_str(), &nfs.env), 0);
  EXPECT_EQ(testutil::read_text(p + ".lock"), st_lockfile_text());
  EXPECT_EQ(testutil::list_dir(dir_.path()), (std::vector<std::string>{"bucket", "bucket.lock"}));
  EXPECT_EQ(_st_lock_with(p.c_str(), &nfs.env), 1);
  EXPECT_EQ(nfs.slept_ms, 0);
  EXPECT_EQ(st_unlock(p.c_str()), 0);
  EXPECT_EQ(_st_lock_with(p.c_str(), &nfs.env), 0);
  EXPECT_EQ(st_unlock(p.c_str()), 0);
  EXPECT_EQ(testutil::list_dir(dir_.path()), std::vector<std::string>{"bucket"});
  EXPECT_EQ(_st_lock_with(dir_.file("missing/bucket").c_str(), &nfs.env), -1) << "the method needs its directory";
}

TEST_F(Lock, TimeoutLockGivesUpWhenTheTimeRunsOut) {
  std::string p = existing(dir_, "held");
  ASSERT_EQ(st_lock(p.c_str()), 0);
  FakeWorld w(ST_FS_EXT);
  EXPECT_EQ(_st_timeout_lock_with(p.c_str(), 3, &w.env), 1);
  EXPECT_GE(w.slept_ms, 2000);
  EXPECT_LE(w.slept_ms, 3010);
  EXPECT_EQ(st_islocked(p.c_str()), 1);
  FakeWorld free_world(ST_FS_EXT);
  ASSERT_EQ(st_unlock(p.c_str()), 0);
  EXPECT_EQ(_st_timeout_lock_with(p.c_str(), 3, &free_world.env), 0);
  EXPECT_EQ(free_world.slept_ms, 0);
  EXPECT_EQ(st_unlock(p.c_str()), 0);
  // Errors are not waited for.
  FakeWorld tmpfs(ST_FS_TMPFS);
  EXPECT_EQ(_st_timeout_lock_with(p.c_str(), 3, &tmpfs.env), -1);
  EXPECT_EQ(tmpfs.slept_ms, 0);
}

TEST_F(Lock, ForcedLockBreaksStaleLocksAfterTheirWait) {
  struct Case {
    const char* what;
    bool second_level;
    int64_t min_ms, max_ms;
  } cases[] = {
      // A lock left by a process on another host; the clock says it is 20 s old.
      {"stale lock", false, 9000, 11000},
      // A breaker crashed while it held the lock of the lock: both are stale.
      {"stale lock and lock of the lock", true, 19000, 31000},
  };
  for (const auto& c : cases) {
    TempDir d;
    std::string p = existing(d, "bucket");
    testutil::write_file(p + ".lock", {'1', '2', '\n', 'g', 'o', 'n', 'e'});
    if (c.second_level) testutil::write_file(p + ".lock.lock", {'2', '\n', 'x'});
    FakeWorld w(ST_FS_EXT, 20000);
    EXPECT_EQ(_st_forced_lock_with(p.c_str(), 10, &w.env), 0) << c.what;
    EXPECT_GE(w.slept_ms, c.min_ms) << c.what;
    EXPECT_LE(w.slept_ms, c.max_ms) << c.what;
    EXPECT_EQ(testutil::read_text(p + ".lock"), st_lockfile_text()) << c.what;
    EXPECT_EQ(testutil::list_dir(d.path()), (std::vector<std::string>{"bucket", "bucket.lock"}))
        << c.what << ": second-level lock left behind";
    EXPECT_EQ(st_unlock(p.c_str()), 0);
  }
}

TEST_F(Lock, ForcedLockWithTheRealClockOnAFreeLock) {
  std::string p = existing(dir_, "bucket");
  EXPECT_EQ(st_forced_lock(p.c_str(), 10), 0);
  EXPECT_EQ(st_islocked(p.c_str()), 1);
  EXPECT_EQ(st_unlock(p.c_str()), 0);
}

TEST_F(Lock, ForceUnlockKeepsALockNewerThanSince) {
  std::string p = existing(dir_, "bucket");
  ASSERT_EQ(st_lock(p.c_str()), 0);
  int64_t ctime_ms = 0;
  ASSERT_EQ(ospath_get_time((p + ".lock").c_str(), 0, &ctime_ms), 0);
  EXPECT_EQ(st_force_unlock(p.c_str(), ctime_ms / 1000), -1);
  EXPECT_EQ(st_force_unlock(p.c_str(), ctime_ms / 1000 - 100), -1);
  EXPECT_EQ(st_islocked(p.c_str()), 1);
  // Older than since: removed, and the second-level lock is gone again.
  EXPECT_EQ(st_force_unlock(p.c_str(), ctime_ms / 1000 + 1), 0);
  EXPECT_EQ(st_islocked(p.c_str()), 0);
  EXPECT_EQ(st_islocked((p + ".lock").c_str()), 0);
  // No lock at all: its time cannot be read.
  EXPECT_EQ(st_force_unlock(p.c_str(), ctime_ms / 1000 + 1), -1);
}

// A symbolic link left as a lock file, dangling or not, holds the lock
// (an exclusive create of the name fails), so it must count as held and,
// once stale, be broken like a file; else a pass picks the file and waits
// for its lock forever.
TEST_F(Lock, SymbolicLinkAsLockFile) {
  for (const char* target : {"nowhere", "bucket", "bucket.lock"}) {
    SCOPED_TRACE(target);
    std::string p = existing(dir_, "bucket");
    ASSERT_EQ(symlink(target, (p + ".lock").c_str()), 0);
    EXPECT_EQ(st_islocked(p.c_str()), 1);
    EXPECT_EQ(st_lock(p.c_str()), 1);
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    EXPECT_EQ(st_force_unlock(p.c_str(), tv.tv_sec + 20), 0);
    EXPECT_EQ(testutil::list_dir(dir_.path()), std::vector<std::string>{"bucket"}) << "only the link goes";
  }
  // A locked path that is a dangling link has no file system to trust.
  ASSERT_EQ(symlink("nowhere", dir_.file("gone").c_str()), 0);
  EXPECT_EQ(st_lock(dir_.file("gone").c_str()), -1);
}

TEST(LockUnlock, ErrorNumberTable) {
  struct Case {
    int err;
    int result;
  } cases[] = {
      {EPERM, -1}, {EIO, -1},    {EACCES, -1}, {EBUSY, -1}, {EISDIR, -1}, {EROFS, -1},
      {ELOOP, -1}, {ENOMEM, 1},  {ENOENT, 0},  {EEXIST, 0}, {EINTR, 0},   {41, 0},
      {42, 0},     {EDQUOT, 0},  {1000, 0},
  };
  for (const auto& c : cases) EXPECT_EQ(_st_unlock_errno_result(c.err), c.result) << c.err;
}

TEST(LockUnlockDeathTest, ProgrammingErrorsAbort) {
  for (int err : {EFAULT, ENOTDIR, ENAMETOOLONG}) {
    EXPECT_DEATH(_st_unlock_errno_result(err), "Assertion `0' failed") << err;
  }
  // Unlocking through a file gives ENOTDIR.
  TempDir d;
  testutil::write_file(d.file("plain"), {1});
  EXPECT_DEATH((void)st_unlock(d.file("plain/x").c_str()), "Assertion `0' failed");
}

TEST_F(Lock, UnlockAndIsLockedMapRealFailures) {
  // The lock name is a directory: EISDIR, a hard failure.
  std::string p = dir_.file("dirlock");
  ASSERT_EQ(mkdir((p + ".lock").c_str(), 0755), 0);
  EXPECT_EQ(st_unlock(p.c_str()), -1);
  // A symlink loop in the path: ELOOP.
  ASSERT_EQ(symlink("loop", dir_.file("loop").c_str()), 0);
  EXPECT_EQ(st_unlock(dir_.file("loop/x").c_str()), -1);
  // is-locked cannot read through a file.
  testutil::write_file(dir_.file("plain"), {1});
  EXPECT_EQ(st_islocked(dir_.file("plain/x").c_str()), -1);
}

TEST_F(Lock, LockCapabilityCodes) {
  EXPECT_EQ(st_test_lock_capability(""), ST_LOCKCAP_EMPTY_PATH);
  EXPECT_EQ(st_test_lock_capability(dir_.file("missing").c_str()), ST_LOCKCAP_STAT);
  testutil::write_file(dir_.file("plain"), {1});
  EXPECT_EQ(st_test_lock_capability(dir_.file("plain").c_str()), ST_LOCKCAP_NOT_DIR);
  EXPECT_EQ(st_test_lock_capability("/proc"), ST_LOCKCAP_TEMPFILE);
  mode_t before = umask(022);
  EXPECT_EQ(st_test_lock_capability(dir_.path().c_str()), ST_LOCKCAP_OK);
  EXPECT_EQ(umask(before), 022u) << "the file-creation mask is restored";
  EXPECT_EQ(testutil::list_dir(dir_.path()), std::vector<std::string>{"plain"});

  struct statfs sfs;
  if (statfs("/dev/shm", &sfs) == 0 && static_cast<uint32_t>(sfs.f_type) == ST_FS_TMPFS) {
    char templ[] = "/dev/shm/tarnix-cap-XXXXXX";
    ASSERT_NE(mkdtemp(templ), nullptr);
    EXPECT_EQ(st_test_lock_capability(templ), ST_LOCKCAP_LOCK);
    auto left = testutil::list_dir(templ);
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].rfind("test.", 0), 0u);
    testutil::remove_tree(templ);
  }
}

TEST_F(Lock, FileStatusHelpers) {
  int64_t v = 123;
  EXPECT_EQ(ospath_get_time(dir_.file("missing").c_str(), 0, &v), -1);
  EXPECT_EQ(v, 0);
  v = 123;
  EXPECT_EQ(ospath_get_time(dir_.file("missing").c_str(), 1, &v), -1);
  EXPECT_EQ(v, 0);
  EXPECT_NE(ospath_get_size(dir_.file("missing").c_str(), &v), 0);
  EXPECT_NE(ospath_try_stat(dir_.file("missing").c_str()), 0);

  std::string f = dir_.file("five");
  testutil::write_file(f, {1, 2, 3, 4, 5});
  struct timeval times[2] = {{1000000, 0}, {1234567, 999999}};
  ASSERT_EQ(utimes(f.c_str(), times), 0);
  EXPECT_EQ(ospath_get_time(f.c_str(), 1, &v), 0);
  EXPECT_EQ(v, 1234567000);
  EXPECT_EQ(ospath_get_time(f.c_str(), 7, &v), 0);
  EXPECT_EQ(v, 1234567000);
  struct stat st;
  ASSERT_EQ(stat(f.c_str(), &st), 0);
  EXPECT_EQ(ospath_get_time(f.c_str(), 0, &v), 0);
  EXPECT_EQ(v, static_cast<int64_t>(st.st_ctime) * 1000);
  EXPECT_EQ(ospath_get_size(f.c_str(), &v), 0);
  EXPECT_EQ(v, 5);
  int fd = open(f.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  v = 0;
  EXPECT_EQ(osfile_get_size(fd, &v), 0);
  EXPECT_EQ(v, 5);
  close(fd);
  EXPECT_NE(osfile_get_size(fd, &v), 0);
  EXPECT_EQ(ospath_try_stat(f.c_str()), 0);
}

// Two processes take and release one lock many times; a marker file made
// with O_EXCL inside the critical section would fail if both ever held it.
void compete(const std::string& lock_path, const std::string& marker, int rounds, uint32_t fs) {
  set_lockfile_content();
  FakeWorld world(fs);
  // The hard-link method measures its 5 s against the real clock.
  lock_env env = *st_lock_env_real();
  env.fs_type = world.env.fs_type;
  env.ctx = &world;
  int violations = 0;
  for (int i = 0; i < rounds; ++i) {
    int r;
    while ((r = _st_lock_with(lock_path.c_str(), &env)) == 1) usleep(100);
    if (r != 0) _exit(3);
    int fd = open(marker.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
    if (fd < 0) {
      ++violations;
    } else {
      close(fd);
      usleep(50);
      unlink(marker.c_str());
    }
    if (st_unlock(lock_path.c_str()) != 0) _exit(4);
  }
  _exit(violations == 0 ? 0 : 2);
}

class LockCompetition : public ::testing::TestWithParam<uint32_t> {};

TEST_P(LockCompetition, NeverBothHoldTheLock) {
  TempDir d;
  std::string p = existing(d, "bucket");
  std::string marker = d.file("inside");
  pid_t kids[2];
  for (pid_t& k : kids) {
    k = fork();
    ASSERT_GE(k, 0);
    if (k == 0) compete(p, marker, 150, GetParam());
  }
  for (pid_t k : kids) {
    int status = 0;
    ASSERT_EQ(waitpid(k, &status, 0), k);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
  }
  EXPECT_EQ(testutil::list_dir(d.path()), std::vector<std::string>{"bucket"})
      << "lock, marker or temporary file left";
}

INSTANTIATE_TEST_SUITE_P(Methods, LockCompetition, ::testing::Values(ST_FS_EXT, ST_FS_NFS));

}  // namespace
