#include "searchthing/lock.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "searchthing/check.h"

namespace tarnix {

namespace {

// The lock-file text of this process: "<pid>\n<hostname>". Built by
// set_lockfile_content(); the one piece of process-wide state of the library.
constexpr size_t HOST_NAME_SZ = 64;
char lockfile_buf[32 + HOST_NAME_SZ + 1];
const char* lockfile_text = nullptr;
constexpr char UNINITIALIZED_TEXT[] = "0\nuninitialized";

int real_fs_type(const char* path, uint32_t* type, void*) {
  struct statfs sfs;
  if (statfs(path, &sfs) != 0) return -1;
  // VxFS's magic has its top bit set: compare every type as 32 bits.
  *type = static_cast<uint32_t>(sfs.f_type);
  return 0;
}

int64_t real_now_ms(void*) {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return static_cast<int64_t>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
}

void real_sleep_us(uint32_t us, void*) { usleep(us); }

constexpr lock_env REAL_ENV = {real_fs_type, real_now_ms, real_sleep_us, nullptr};

const lock_env* env_or_real(const lock_env* env) { return env != nullptr ? env : &REAL_ENV; }

int64_t now_s(const lock_env* env) { return env->now_ms(env->ctx) / 1000; }

bool exclusive_create_fs(uint32_t type) {
  switch (type) {
    case ST_FS_EXT:
    case ST_FS_XFS:
    case ST_FS_REISERFS:
    case ST_FS_VXFS:
    case ST_FS_VZFS:
      return true;
    default:
      return false;
  }
}

// "<path>.lock" into dst (ST_LOCK_PATH_SZ bytes); false when it does not fit.
bool lock_name(char* dst, const char* path) {
  int n = snprintf(dst, ST_LOCK_PATH_SZ, "%s.lock", path);
  return n >= 0 && static_cast<size_t>(n) < ST_LOCK_PATH_SZ;
}

// Writes all of the lock-file text; the result is not needed by anybody:
// a lock is its file's existence.
void write_text(int fd) {
  const char* p = lockfile_text;
  size_t left = strlen(p);
  while (left > 0) {
    ssize_t n = write(fd, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    p += n;
    left -= static_cast<size_t>(n);
  }
}

int lock_exclusive_create(const char* lock) {
  int fd = open(lock, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) return errno == EEXIST ? 1 : -1;
  write_text(fd);
  close(fd);
  return 0;
}

// The directory part of path (as dirname() would give it) into dst.
void dir_part(char* dst, const char* path) {
  const char* end = path + strlen(path);
  while (end > path + 1 && end[-1] == '/') --end;   // trailing slashes
  const char* slash = end;
  while (slash > path && slash[-1] != '/') --slash;
  if (slash == path) {
    strcpy(dst, ".");
    return;
  }
  while (slash > path + 1 && slash[-1] == '/') --slash;
  size_t n = static_cast<size_t>(slash - path);
  if (n == 0) n = 1;   // the root
  memcpy(dst, path, n);
  dst[n] = '\0';
}

// The NFS method: link a private temporary file to the lock name; the lock
// is ours when the lock name's inode is our temporary file's.
int lock_hard_link(const char* path, const char* lock, const lock_env* env) {
  char host[HOST_NAME_SZ + 1];
  if (gethostname(host, HOST_NAME_SZ) != 0) return -1;
  host[HOST_NAME_SZ] = '\0';
  if (host[0] == '\0') return -1;
  for (char* c = host; *c != '\0'; ++c) {
    if (!isalnum(static_cast<unsigned char>(*c))) *c = '-';
  }
  struct stat st;
  if (lstat(lock, &st) == 0) return 1;

  // Any per-process value separates two lockers with the same pid on two
  // hosts sharing a name; the address of this process's text will do.
  char temp[ST_LOCK_PATH_SZ];
  int n = snprintf(temp, sizeof temp, "%s.%s-%ld.temp-%llu", path, host, static_cast<long>(getpid()),
                   static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(&lockfile_text)));
  if (n < 0 || static_cast<size_t>(n) >= sizeof temp) return -1;

  char dir[ST_LOCK_PATH_SZ];
  dir_part(dir, path);
  if (access(dir, R_OK | W_OK) != 0) return -1;

  if (unlink(temp) != 0 && errno != ENOENT) return -1;
  int fd = open(temp, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  write_text(fd);
  close(fd);
  struct stat temp_st;
  if (stat(temp, &temp_st) != 0) {
    unlink(temp);
    return -1;
  }

  for (;;) {
    // The link's own result cannot be trusted over NFS (a lost reply to a
    // link that succeeded reports failure); the inode comparison decides.
    (void)link(temp, lock);
    struct stat lock_st;
    if (stat(lock, &lock_st) != 0) {
      int err = errno;
      if (err == ENOENT || err == ENOMEM) continue;
      fprintf(stderr, "received unexpected ERRNO %i for stat()\n", err);
      unlink(temp);
      return -1;
    }
    if (lock_st.st_ino == temp_st.st_ino) {
      unlink(temp);
      return 0;
    }
    if (now_s(env) - static_cast<int64_t>(temp_st.st_ctime) > 5) {
      unlink(temp);
      return 1;
    }
    env->sleep_us(50000, env->ctx);
  }
}

}  // namespace

void set_lockfile_content() noexcept {
  char host[HOST_NAME_SZ + 1];
  if (gethostname(host, HOST_NAME_SZ) != 0) {
    lockfile_text = UNINITIALIZED_TEXT;
    return;
  }
  host[HOST_NAME_SZ] = '\0';
  snprintf(lockfile_buf, sizeof lockfile_buf, "%ld\n%s", static_cast<long>(getpid()), host);
  lockfile_text = lockfile_buf;
}

int st_init() noexcept {
  set_lockfile_content();
  return 0;
}

const char* st_lockfile_text() noexcept { return lockfile_text; }

const lock_env* st_lock_env_real() noexcept { return &REAL_ENV; }

int st_optimistic_about_locking() noexcept {
  const char* v = getenv("OPTIMISTIC_ABOUT_FILE_LOCKING");
  if (v == nullptr) return 0;
  return strcmp(v, "1") == 0 || strcmp(v, "t") == 0 || strcmp(v, "true") == 0 ||
         strcmp(v, "yes") == 0;
}

int _st_lock_with(const char* path, const lock_env* env) noexcept {
  ST_ASSERT_TEXT(lockfile_text != nullptr, "lockfile_text != ((void *)0)");
  env = env_or_real(env);
  char lock[ST_LOCK_PATH_SZ];
  if (!lock_name(lock, path)) return -1;
  uint32_t type = 0;
  bool have_type = env->fs_type(path, &type, env->ctx) == 0;
  if (st_optimistic_about_locking() || (have_type && exclusive_create_fs(type))) {
    return lock_exclusive_create(lock);
  }
  if (!have_type || type != ST_FS_NFS) return -1;
  return lock_hard_link(path, lock, env);
}

int st_lock(const char* path) noexcept { return _st_lock_with(path, nullptr); }

int _st_unlock_errno_result(int err) noexcept {
  switch (err) {
    case EPERM:
    case EIO:
    case EACCES:
    case EBUSY:
    case EISDIR:
    case EROFS:
    case ELOOP:
      return -1;
    case EFAULT:
    case ENOTDIR:
    case ENAMETOOLONG:
      // The caller handed over a path that cannot name a lock file.
      ST_ASSERT_TEXT(false, "0");
      return -1;
    case ENOMEM:
      return 1;
    default:
      return 0;   // ENOENT among them: nothing to release
  }
}

int st_unlock(const char* path) noexcept {
  char lock[ST_LOCK_PATH_SZ];
  if (!lock_name(lock, path)) return -1;
  if (unlink(lock) == 0) return 0;
  return _st_unlock_errno_result(errno);
}

int st_islocked(const char* path) noexcept {
  char lock[ST_LOCK_PATH_SZ];
  if (!lock_name(lock, path)) return -1;
  // The lock is the name, not what it points to: a symbolic link left as a
  // lock file, dangling or not, holds the lock as the exclusive create
  // that would take it sees.
  struct stat st;
  if (lstat(lock, &st) == 0) return 1;
  return errno == ENOENT ? 0 : -1;
}

int _st_timeout_lock_with(const char* path, int seconds, const lock_env* env) noexcept {
  env = env_or_real(env);
  int64_t deadline = now_s(env) + seconds;
  for (;;) {
    int r = _st_lock_with(path, env);
    if (r == -2) r = 1;
    if (r != 1) return r;
    env->sleep_us(10000, env->ctx);
    if (now_s(env) >= deadline) return 1;
  }
}

int st_timeout_lock(const char* path, int seconds) noexcept {
  return _st_timeout_lock_with(path, seconds, nullptr);
}

int _st_forced_lock_with(const char* path, int seconds, const lock_env* env) noexcept {
  env = env_or_real(env);
  for (;;) {
    int64_t since = now_s(env);
    int r = _st_timeout_lock_with(path, seconds, env);
    if (r <= 0) return r;
    // Held for the whole wait: break it if it is older than the wait.
    r = _st_force_unlock_with(path, since, env);
    if (r < -1) return r;
  }
}

int st_forced_lock(const char* path, int seconds) noexcept {
  return _st_forced_lock_with(path, seconds, nullptr);
}

namespace {

// The world of the second-level lock, taken on the name of a lock file: a
// lock file that is a symbolic link (dangling, looping, or pointing to
// another file system) is on the file system of its own directory, so that
// a stale one can be broken like a file.
struct lock_file_world {
  const lock_env* outer;
  lock_env env;
};

int lock_file_fs_type(const char* path, uint32_t* type, void* ctx) {
  const lock_env* outer = static_cast<lock_file_world*>(ctx)->outer;
  struct stat st;
  if (lstat(path, &st) != 0 || !S_ISLNK(st.st_mode)) return outer->fs_type(path, type, outer->ctx);
  char dir[ST_LOCK_PATH_SZ] = ".";
  if (const char* slash = strrchr(path, '/')) {
    const size_t len = slash == path ? 1 : static_cast<size_t>(slash - path);
    if (len >= sizeof dir) return -1;
    memcpy(dir, path, len);
    dir[len] = '\0';
  }
  return outer->fs_type(dir, type, outer->ctx);
}
int64_t lock_file_now_ms(void* ctx) {
  const lock_env* outer = static_cast<lock_file_world*>(ctx)->outer;
  return outer->now_ms(outer->ctx);
}
void lock_file_sleep_us(uint32_t us, void* ctx) {
  const lock_env* outer = static_cast<lock_file_world*>(ctx)->outer;
  outer->sleep_us(us, outer->ctx);
}

// Status-change time of the lock file itself (a link is not followed).
int lock_ctime_ms(const char* lock, int64_t* out_ms) noexcept {
  struct stat st;
  if (lstat(lock, &st) != 0) return -1;
  *out_ms = static_cast<int64_t>(st.st_ctime) * 1000;
  return 0;
}

}  // namespace

int _st_force_unlock_with(const char* path, int64_t since, const lock_env* env) noexcept {
  env = env_or_real(env);
  char lock[ST_LOCK_PATH_SZ];
  char lock_of_lock[ST_LOCK_PATH_SZ];
  if (!lock_name(lock, path) || !lock_name(lock_of_lock, lock)) return -2;
  const int64_t since_ms = since * 1000;
  int64_t ctime_ms = 0;
  if (lock_ctime_ms(lock, &ctime_ms) != 0 || ctime_ms >= since_ms) return -1;

  // Serialise the breakers: whoever holds the lock's lock re-checks that the
  // lock is still the stale one before removing it.
  lock_file_world world{env, {lock_file_fs_type, lock_file_now_ms, lock_file_sleep_us, nullptr}};
  world.env.ctx = &world;
  if (_st_forced_lock_with(lock, 10, &world.env) != 0) return -1;
  int r;
  if (lock_ctime_ms(lock, &ctime_ms) != 0) {
    r = -1;
  } else if (ctime_ms < since_ms) {
    r = st_unlock(path);
    if (r == -1) {
      r = -2;
    } else if (r == 1) {
      r = -1;
    }
  } else {
    r = 0;
  }
  (void)st_unlock(lock);   // drops the second-level lock
  return r;
}

int st_force_unlock(const char* path, int64_t since) noexcept {
  return _st_force_unlock_with(path, since, nullptr);
}

int _st_fs_known_with(const char* path, const lock_env* env) noexcept {
  env = env_or_real(env);
  if (st_optimistic_about_locking()) return 1;
  uint32_t type = 0;
  if (env->fs_type(path, &type, env->ctx) != 0) return 0;
  return exclusive_create_fs(type) || type == ST_FS_NFS ? 1 : 0;
}

int st_fs_known(const char* path) noexcept { return _st_fs_known_with(path, nullptr); }

int st_test_lock_capability(const char* dir) noexcept {
  if (dir == nullptr || dir[0] == '\0') return ST_LOCKCAP_EMPTY_PATH;
  struct stat st;
  if (stat(dir, &st) != 0) return ST_LOCKCAP_STAT;
  if (!S_ISDIR(st.st_mode)) return ST_LOCKCAP_NOT_DIR;
  char temp[ST_LOCK_PATH_SZ];
  int n = snprintf(temp, sizeof temp, "%s/test.XXXXXX", dir);
  if (n < 0 || static_cast<size_t>(n) >= sizeof temp) return ST_LOCKCAP_TEMPFILE;
  mode_t old = umask(0);
  umask(old | 066);
  int fd = mkstemp(temp);
  umask(old);
  if (fd < 0) return ST_LOCKCAP_TEMPFILE;
  if (st_lock(temp) < 0) {
    close(fd);
    return ST_LOCKCAP_LOCK;   // the temporary file stays, as evidence
  }
  close(fd);
  (void)st_unlock(temp);
  unlink(temp);
  return ST_LOCKCAP_OK;
}

int ospath_get_time(const char* path, int which, int64_t* out_ms) noexcept {
  struct stat st;
  if (stat(path, &st) != 0) {
    *out_ms = 0;
    return -1;
  }
  time_t t = which == 0 ? st.st_ctime : st.st_mtime;
  *out_ms = static_cast<int64_t>(t) * 1000;
  return 0;
}

int ospath_get_size(const char* path, int64_t* out) noexcept {
  struct stat st;
  int r = stat(path, &st);
  if (r == 0) *out = static_cast<int64_t>(st.st_size);
  return r;
}

int osfile_get_size(int fd, int64_t* out) noexcept {
  struct stat st;
  int r = fstat(fd, &st);
  if (r == 0) *out = static_cast<int64_t>(st.st_size);
  return r;
}

int ospath_try_stat(const char* path) noexcept {
  struct stat st;
  return stat(path, &st);
}

}  // namespace tarnix
