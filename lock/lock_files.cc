// Lock files under /tmp and the start and end of a process's whole lock set.
//
// "/tmp/cmdb_lock" carries the event table lock and "/tmp/shm_lock" the hosts'
// byte-range locks, both fcntl record locks: they belong to the process, so
// threads never exclude each other through them, and closing any descriptor of a
// file drops every record lock the process holds on it. The restore lock is an
// flock on its own descriptor, independent of both.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include "lock/lock_internal.h"
#include "util/util_internal.h"

namespace lock {

int cmdb_event_lockfd = -1;
int shm_lockfd = -1;

int open_lock_file(const char* path, int flags, mode_t mode) {
  util::UniqueFd fd(::open(path, flags | O_NOFOLLOW, mode));
  if (!fd.valid() || ::geteuid() != 0) return fd.release();
  struct stat st;
  if (::fstat(fd.get(), &st) != 0) return -1;
  if (st.st_uid == 0) return fd.release();
  util::log(3, "%s,%d, %s is owned by uid %u, not by root: refusing it\n", util::src::kLock, __LINE__, path,
            static_cast<unsigned>(st.st_uid));
  errno = EPERM;
  return -1;  // ~UniqueFd closes it, keeping errno
}

namespace {

// The two long-lived descriptors are the library's own: an exec'd program must
// not inherit them.
constexpr int kOpenFlags = O_RDWR | O_CLOEXEC;

struct SemSet {
  key_t key;
  int* id;
};
// Created in this order; creation stops at the first failure.
const SemSet kSemSets[] = {
    {CMDB_SEM_KEY, &cmdb_semid}, {DBGZ_SEM_KEY, &dbgz_semid[0]}, {DBGZ_SEM_KEY + 1, &dbgz_semid[1]}};

void close_fd(int* fd) {
  if (*fd >= 0) ::close(*fd);
  *fd = -1;
}

// Creates `path` (0666 less the umask, never truncated) with its marker content,
// through the descriptor slot `fd`, and leaves the slot closed. 0 or -1.
int create_lock_file(int* fd, const char* path, const char* content) {
  close_fd(fd);
  *fd = open_lock_file(path, kOpenFlags | O_CREAT, 0666);
  if (*fd < 0) return -1;
  ssize_t n = ::write(*fd, content, strlen(content));  // never read back; a short write is harmless
  (void)n;
  close_fd(fd);
  return 0;
}

void close_lock_files() {
  close_fd(&cmdb_event_lockfd);
  close_fd(&shm_lockfd);
}

// Opens both lock files and attaches the main set. The daemon form first closes
// what an earlier call opened, which drops this process's record locks.
int lock_init(bool close_previous) {
  if (close_previous) close_fd(&cmdb_event_lockfd);
  cmdb_event_lockfd = open_lock_file(kEventLockPath, kOpenFlags, 0);
  if (cmdb_event_lockfd < 0) {
    const int err = errno;
    if (err == EPERM) return -1;  // a planted file, refused with its own line
    ::sleep(1);  // the creator may still be laying out the region
    const util::Site& at = util::site::kEventLockFile;
    util::log(3, "%s:%d: %s create cmdb_event_lockfd error %d\n", at.source, at.line, util::progname(), err);
    return -1;
  }
  if (close_previous) close_fd(&shm_lockfd);
  shm_lockfd = open_lock_file(kShmLockPath, kOpenFlags, 0);
  if (shm_lockfd < 0) {
    if (errno == EPERM) return -1;
    const util::Site& at = util::site::kShmLockFile;
    util::log(3, "%s:%d: create shm_lockfd error %d\n", at.source, at.line, errno);
    return -1;
  }
  // Unchecked: without the set the main lock is a no-op in this process.
  cmdb_semid = ::semget(CMDB_SEM_KEY, 1, 0666);
  return 0;
}

int shm_file_lock(int cmd, short type, int pos) {
  if (type != F_UNLCK) valid_shm_lock_file();
  return cmf_file_lock(shm_lockfd, cmd, type, pos);
}

}  // namespace

int cmf_file_lock(int fd, int cmd, short type, off_t pos) {
  struct flock fl {};
  fl.l_type = type;
  fl.l_whence = SEEK_SET;
  fl.l_start = pos;
  fl.l_len = 1;
  int rc = ::fcntl(fd, cmd, &fl);
  if (rc != 0) ::perror("lockerr");  // standard error: see util_internal.h
  return rc;
}

void valid_shm_lock_file() {
  if (::fcntl(shm_lockfd, F_GETFD) != -1) return;
  if (errno != EBADF) {
    const util::Site& at = util::site::kShmLockAccess;
    message("%s:%d failed to access file %s with err (%s)\n", at.function, at.line, kShmLockPath,
            strerror(errno));
    return;
  }
  // Closed behind our back (or never opened): reopen once; a failure shows in the lock step.
  shm_lockfd = open_lock_file(kShmLockPath, kOpenFlags, 0);
  if (shm_lockfd < 0)
    message("%s:%d failed to open lock file: %s\n", util::site::kShmLockReopen.function,
            util::site::kShmLockReopen.line, kShmLockPath);
}

}  // namespace lock

extern "C" {

GK_API void valid_shm_lock_file(void) noexcept { lock::valid_shm_lock_file(); }

// REQUIRES: no other lock of this library held (the event table lock is taken alone).
GK_API int cmdb_event_read_lock(void) noexcept {
  return lock::cmf_file_lock(lock::cmdb_event_lockfd, F_SETLKW, F_RDLCK, lock::kEventLockByte);
}
GK_API int cmdb_event_write_lock(void) noexcept {
  return lock::cmf_file_lock(lock::cmdb_event_lockfd, F_SETLKW, F_WRLCK, lock::kEventLockByte);
}
GK_API int cmdb_event_read_unlock(void) noexcept {
  return lock::cmf_file_lock(lock::cmdb_event_lockfd, F_SETLK, F_UNLCK, lock::kEventLockByte);
}
GK_API int cmdb_event_write_unlock(void) noexcept {
  return lock::cmf_file_lock(lock::cmdb_event_lockfd, F_SETLK, F_UNLCK, lock::kEventLockByte);
}

GK_API int cmf_shm_read_file_lock(int pos) noexcept { return lock::shm_file_lock(F_SETLKW, F_RDLCK, pos); }
GK_API int cmf_shm_write_file_lock(int pos) noexcept { return lock::shm_file_lock(F_SETLKW, F_WRLCK, pos); }
GK_API int cmf_shm_read_file_unlock(int pos) noexcept { return lock::shm_file_lock(F_SETLK, F_UNLCK, pos); }
GK_API int cmf_shm_write_file_unlock(int pos) noexcept { return lock::shm_file_lock(F_SETLK, F_UNLCK, pos); }

GK_API int cmf_get_restore_lock(void) noexcept {
  // The descriptor is the caller's, so it keeps the plain flags (no close-on-exec).
  util::UniqueFd fd(lock::open_lock_file(lock::kRestoreLockPath, O_RDWR | O_CREAT, 0666));
  if (!fd.valid()) return -1;
  if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) return -1;  // busy: ~UniqueFd closes ours
  return fd.release();
}

GK_API void cmf_restore_unlock(int fd) noexcept {
  if (fd < 0) return;
  if (::flock(fd, LOCK_UN) != 0)
    message("%s:%d => proc %d unlock failed w/ err (%s)\n", util::site::kRestoreUnlock.function,
            util::site::kRestoreUnlock.line, static_cast<int>(util::self_pid()), strerror(errno));
}

GK_API int cmdb_create_lock(void) noexcept {
  if (lock::create_lock_file(&lock::cmdb_event_lockfd, lock::kEventLockPath, "lock") != 0) return -1;
  if (lock::create_lock_file(&lock::shm_lockfd, lock::kShmLockPath, "1") != 0) return -1;
  for (const lock::SemSet& s : lock::kSemSets) {
    *s.id = lock::cmdb_sem_create(s.key);
    if (*s.id < 0) return *s.id;
  }
  return 0;
}

GK_API int cmf_lock_init(void) noexcept { return lock::lock_init(true); }

// Meant to be called once per process: descriptors of an earlier call stay open.
GK_API int cmf_lock_init_for_cli(void) noexcept { return lock::lock_init(false); }

GK_API void cmf_lock_cleanup(void) noexcept { lock::close_lock_files(); }

// Leaves "/tmp/shm_lock", the restore lock file and the debug-zone sets in place;
// cmdb_semid keeps its now stale value.
GK_API int cmdb_destroy_lock(void) noexcept {
  lock::close_lock_files();
  ::unlink(lock::kEventLockPath);
  return ::semctl(lock::cmdb_semid, 0, IPC_RMID);
}

}  // extern "C"
