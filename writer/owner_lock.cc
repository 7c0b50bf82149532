#include "writer/owner_lock.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "writer/journal.h"

namespace writer {
namespace {

// The pid the holder wrote, or 0 while it has not written it yet.
pid_t read_holder(int fd) {
  char buf[24] = {};
  ssize_t n;
  while ((n = ::pread(fd, buf, sizeof buf - 1, 0)) < 0 && errno == EINTR) {
  }
  if (n <= 0) return 0;
  char* end = nullptr;
  const long pid = strtol(buf, &end, 10);
  return end != buf && pid > 0 && pid <= INT32_MAX ? static_cast<pid_t>(pid) : 0;
}

// Opens the lock file, making it when absent. 0 or an errno value.
int open_lock_file(int64_t group, int* out) {
  const mode_t mode = group >= 0 ? 0660 : 0644;
  int fd = ::open(kOwnerLockPath, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
  if (fd >= 0) {
    // The umask may have taken bits that members of the group need.
    if (::fchmod(fd, mode) != 0 ||
        (group >= 0 && geteuid() == 0 && ::fchown(fd, 0, static_cast<gid_t>(group)) != 0)) {
      const int err = errno;
      ::close(fd);
      ::unlink(kOwnerLockPath);
      return err;
    }
  } else if (errno == EEXIST) {
    fd = ::open(kOwnerLockPath, O_RDWR | O_NOFOLLOW | O_CLOEXEC);
  }
  if (fd < 0) return errno;
  *out = fd;
  return 0;
}

}  // namespace

int OwnerLock::fail(int err, const std::string& what) {
  error_ = std::string(kOwnerLockPath) + ": " + what;
  return -err;
}

int OwnerLock::acquire(int64_t group, int wait_ms) {
  if (fd_ >= 0) return 0;
  error_.clear();
  int fd = -1;
  if (int err = open_lock_file(group, &fd); err != 0) return fail(err, strerror(err));
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    const int err = errno;
    ::close(fd);
    return fail(err, strerror(err));
  }
  if (!S_ISREG(st.st_mode)) {
    ::close(fd);
    return fail(EINVAL, "not a regular file");
  }
  if (geteuid() == 0 && st.st_uid != 0) {
    ::close(fd);
    return fail(EPERM, "owned by uid " + std::to_string(st.st_uid) + ", not root: remove it");
  }
  // A busy lock is tried again every millisecond until the wait is over; the
  // holder writes its pid just after it takes the lock, so an empty file is
  // looked at again for a moment too.
  for (int waited_ms = 0;; ++waited_ms) {
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) break;
    if (errno == EINTR) continue;
    const int err = errno;
    const pid_t pid = err == EWOULDBLOCK ? read_holder(fd) : 0;
    if (err == EWOULDBLOCK && (waited_ms < wait_ms || (pid == 0 && waited_ms < 100))) {
      ::usleep(1000);
      continue;
    }
    ::close(fd);
    if (pid > 0) return pid;
    return fail(err == EWOULDBLOCK ? EBUSY : err,
                err == EWOULDBLOCK ? "held by a process that does not name itself" : strerror(err));
  }
  char text[24];
  const int len = snprintf(text, sizeof text, "%d\n", static_cast<int>(getpid()));
  if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, text, static_cast<size_t>(len), 0) != len) {
    const int err = errno;
    ::close(fd);  // lets go of the lock too
    return fail(err, strerror(err));
  }
  fd_ = fd;
  return 0;
}

void OwnerLock::release() {
  if (fd_ < 0) return;
  if (::ftruncate(fd_, 0) != 0) {
    // The next holder overwrites the stale pid; nothing else reads it unlocked.
  }
  ::close(fd_);
  fd_ = -1;
}

void remove_writer_files() {
  ::unlink(kOwnerLockPath);
  ::unlink(detail::kJournalPath);
}

}  // namespace writer
