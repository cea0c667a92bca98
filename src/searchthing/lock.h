// Advisory locks between the processes that share a bucket directory, and
// the file-status helpers the directory code uses everywhere.
//
// A lock on a path is the existence of "<path>.lock"; the lock file holds the
// owner's process id and host name ("%ld\n%s", no trailing newline, no NUL).
// On local file systems that create exclusively and atomically the lock is
// an O_EXCL create. On NFS, where O_EXCL is not trustworthy, the owner writes
// a private temporary file, hard-links it to the lock name and owns the lock
// when the lock's inode is its own temporary file's inode. Any other file
// system refuses to lock, unless OPTIMISTIC_ABOUT_FILE_LOCKING says that
// exclusive create can be trusted there.
//
// Stale locks: a process that dies holding a lock leaves its lock file.
// st_forced_lock waits for the lock; a lock file that stayed in place for
// the whole wait and whose status-change time is older than the start of the
// wait is taken to be stale and is removed under a second-level lock (the
// lock of the lock file), so that two processes breaking the same stale lock
// cannot remove each other's fresh lock.
//
// The only process-wide state is the lock-file text, built by st_init().
#pragma once

#include <cstddef>
#include <cstdint>

namespace tarnix {

inline constexpr uint32_t ST_FS_EXT = 0xEF53u;
inline constexpr uint32_t ST_FS_XFS = 0x58465342u;
inline constexpr uint32_t ST_FS_REISERFS = 0x52654973u;
inline constexpr uint32_t ST_FS_VXFS = 0xA501FCF5u;
inline constexpr uint32_t ST_FS_VZFS = 0x565A4653u;
inline constexpr uint32_t ST_FS_NFS = 0x6969u;
inline constexpr uint32_t ST_FS_TMPFS = 0x01021994u;

// Lock names (and every other path) must fit a buffer of this size.
inline constexpr size_t ST_LOCK_PATH_SZ = 4096;

// st_test_lock_capability results.
inline constexpr int ST_LOCKCAP_OK = 0;
inline constexpr int ST_LOCKCAP_EMPTY_PATH = 2;
inline constexpr int ST_LOCKCAP_STAT = 3;
inline constexpr int ST_LOCKCAP_NOT_DIR = 5;
inline constexpr int ST_LOCKCAP_TEMPFILE = 7;
inline constexpr int ST_LOCKCAP_LOCK = 9;

// Builds the lock-file text once per call ("0\nuninitialized" when the host
// name cannot be read). Call again in a forked child to take its own pid.
void set_lockfile_content() noexcept;
// set_lockfile_content(); returns 0. Must run before the first st_lock.
int st_init() noexcept;
// The current lock-file text, or null before st_init.
const char* st_lockfile_text() noexcept;

// 0 acquired, 1 held by someone else, -1 error or unsupported file system.
[[nodiscard]] int st_lock(const char* path) noexcept;
// 0 released or nothing to release, 1 transient failure, -1 hard failure.
int st_unlock(const char* path) noexcept;
// 1 lock file exists, 0 it does not, -1 its state cannot be read.
[[nodiscard]] int st_islocked(const char* path) noexcept;
// 0 acquired, negative error, 1 still held when the time ran out.
[[nodiscard]] int st_timeout_lock(const char* path, int seconds) noexcept;
// 0 acquired (breaking stale locks as needed), negative error; never positive.
[[nodiscard]] int st_forced_lock(const char* path, int seconds) noexcept;
// Removes the lock of path if its lock file is older than since (seconds
// since the epoch): 0 removed or nothing to do, -1 not removed, -2 hard
// failure (name too long, or the removal failed hard).
[[nodiscard]] int st_force_unlock(const char* path, int64_t since) noexcept;
// 1 when the file system of path is lock-safe (either method) or the
// environment says so, else 0.
[[nodiscard]] int st_fs_known(const char* path) noexcept;
// 0 works; 2 empty path; 3 cannot stat; 5 not a directory; 7 cannot create a
// temporary file; 9 lock failed.
[[nodiscard]] int st_test_lock_capability(const char* dir) noexcept;

// 1 when OPTIMISTIC_ABOUT_FILE_LOCKING is exactly "1", "t", "true" or "yes".
[[nodiscard]] int st_optimistic_about_locking() noexcept;

// Status-change time (which == 0) or modification time (which != 0) in
// milliseconds (whole seconds * 1000): 0, or -1 with *out_ms = 0.
int ospath_get_time(const char* path, int which, int64_t* out_ms) noexcept;
// The stat()/fstat() result; *out = file size on success.
int ospath_get_size(const char* path, int64_t* out) noexcept;
int osfile_get_size(int fd, int64_t* out) noexcept;
// 0 when the path exists (the stat() result).
int ospath_try_stat(const char* path) noexcept;

// ---- Seams ---------------------------------------------------------------------
// What the lock code asks of the world: the file-system type of a path, the
// clock and sleeping. The st_* operations above use the real ones; the
// _with forms take a record (null = the real world), which is how tests run
// the NFS method on a local disk and break stale locks without waiting.
struct lock_env {
  // 0 and the statfs() type number of path in *type, or -1 (statfs failed).
  int (*fs_type)(const char* path, uint32_t* type, void* ctx);
  // Wall-clock time in milliseconds since the epoch.
  int64_t (*now_ms)(void* ctx);
  void (*sleep_us)(uint32_t us, void* ctx);
  void* ctx;
};
// The real world: statfs, gettimeofday, usleep.
const lock_env* st_lock_env_real() noexcept;

[[nodiscard]] int _st_lock_with(const char* path, const lock_env* env) noexcept;
[[nodiscard]] int _st_timeout_lock_with(const char* path, int seconds, const lock_env* env) noexcept;
[[nodiscard]] int _st_forced_lock_with(const char* path, int seconds, const lock_env* env) noexcept;
[[nodiscard]] int _st_force_unlock_with(const char* path, int64_t since, const lock_env* env) noexcept;
[[nodiscard]] int _st_fs_known_with(const char* path, const lock_env* env) noexcept;

// The result of st_unlock for a failed unlink() with error number err.
// Asserts "0" for EFAULT, ENOTDIR and ENAMETOOLONG.
int _st_unlock_errno_result(int err) noexcept;

}  // namespace tarnix
