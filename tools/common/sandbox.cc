#include "tools/common/sandbox.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace gk::sandbox {
namespace {

// Children inherit the environment, so a re-exec inside the sandbox stays in it.
constexpr const char* kMarker = "GK_SANDBOXED";

bool write_file(const char* path, const char* text) {
  int fd = ::open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  ssize_t n = ::write(fd, text, strlen(text));
  int err = errno;
  ::close(fd);
  errno = err;
  return n == static_cast<ssize_t>(strlen(text));
}

int fail(std::string* what, const char* step) {
  int err = errno != 0 ? errno : EPERM;
  if (what != nullptr) *what = step;
  return err;
}

}  // namespace

bool inside() { return getenv(kMarker) != nullptr; }

int enter(std::string* what, bool fresh) {
  if (inside() && !fresh) return 0;
  uid_t uid = getuid();
  gid_t gid = getgid();
  // The mount point must exist on the host; an unprivileged user cannot make it.
  if (::mkdir("/dev/cmdb", 0755) != 0 && errno != EEXIST) {
    struct stat st;
    if (::stat("/dev/cmdb", &st) != 0) return fail(what, "creating /dev/cmdb on the host");
  }
  int flags = CLONE_NEWNS | CLONE_NEWIPC;
  if (uid != 0) flags |= CLONE_NEWUSER;
  if (::unshare(flags) != 0) return fail(what, "unshare of the mount and IPC namespaces");
  if (uid != 0) {
    char map[64];
    write_file("/proc/self/setgroups", "deny");
    snprintf(map, sizeof map, "0 %u 1\n", static_cast<unsigned>(uid));
    if (!write_file("/proc/self/uid_map", map)) return fail(what, "writing uid_map");
    snprintf(map, sizeof map, "0 %u 1\n", static_cast<unsigned>(gid));
    if (!write_file("/proc/self/gid_map", map)) return fail(what, "writing gid_map");
  }
  // Source and type are ignored for a propagation change; named, checkers see no null string.
  if (::mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0)
    return fail(what, "making the mount tree private");
  if (::mount("gk-tmp", "/tmp", "tmpfs", 0, "mode=1777") != 0) return fail(what, "mounting tmpfs on /tmp");
  if (::mount("gk-cmdb", "/dev/cmdb", "tmpfs", 0, "mode=0755") != 0)
    return fail(what, "mounting tmpfs on /dev/cmdb");
  setenv(kMarker, "1", 1);
  return 0;
}

const char* requirements() {
  return "Private mount and IPC namespaces need root, or a user where unprivileged user\n"
         "namespaces are allowed (kernel.unprivileged_userns_clone=1,\n"
         "user.max_user_namespaces > 0), with the directory /dev/cmdb present on the host\n"
         "(as root: mkdir -p /dev/cmdb).\n";
}

}  // namespace gk::sandbox
