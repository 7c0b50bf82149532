// Every test and benchmark process runs in private mount and IPC namespaces
// with fresh tmpfs on /dev/cmdb and /tmp, so the fixed paths and IPC keys of the
// library never reach the host's, and ctest can run tests in parallel.
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/sandbox.h"

namespace {

bool write_file(const char* path, const char* text) {
  int fd = ::open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  ssize_t n = ::write(fd, text, strlen(text));
  ::close(fd);
  return n == static_cast<ssize_t>(strlen(text));
}

[[noreturn]] void refuse(const char* what, int err) {
  fprintf(stderr,
          "test sandbox: %s failed: %s.\n"
          "The tests need private mount and IPC namespaces: run them as root, or as a user\n"
          "where unprivileged user namespaces are allowed (kernel.unprivileged_userns_clone=1,\n"
          "user.max_user_namespaces > 0), with the directory /dev/cmdb present on the host\n"
          "(as root: mkdir -p /dev/cmdb).\n",
          what, strerror(err));
  exit(2);
}

}  // namespace

namespace gk::test {

void enter_sandbox() {
  if (getenv("GK_SANDBOXED") != nullptr) return;  // a re-exec inside the sandbox
  uid_t uid = getuid();
  gid_t gid = getgid();
  if (::mkdir("/dev/cmdb", 0755) != 0 && errno != EEXIST) {
    struct stat st;
    if (::stat("/dev/cmdb", &st) != 0) refuse("creating /dev/cmdb on the host", errno);
  }
  int flags = CLONE_NEWNS | CLONE_NEWIPC;
  if (uid != 0) flags |= CLONE_NEWUSER;
  if (::unshare(flags) != 0) refuse("unshare of the mount and IPC namespaces", errno);
  if (uid != 0) {
    char map[64];
    write_file("/proc/self/setgroups", "deny");
    snprintf(map, sizeof map, "0 %u 1\n", static_cast<unsigned>(uid));
    if (!write_file("/proc/self/uid_map", map)) refuse("writing uid_map", errno);
    snprintf(map, sizeof map, "0 %u 1\n", static_cast<unsigned>(gid));
    if (!write_file("/proc/self/gid_map", map)) refuse("writing gid_map", errno);
  }
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    refuse("making the mount tree private", errno);
  if (::mount("gk-tmp", "/tmp", "tmpfs", 0, "mode=1777") != 0) refuse("mounting tmpfs on /tmp", errno);
  if (::mount("gk-cmdb", "/dev/cmdb", "tmpfs", 0, "mode=0755") != 0)
    refuse("mounting tmpfs on /dev/cmdb", errno);
  setenv("GK_SANDBOXED", "1", 1);
}

}  // namespace gk::test
