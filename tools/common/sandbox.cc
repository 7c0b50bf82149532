#include "tools/common/sandbox.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

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

// A mount point must exist on the host; an unprivileged user cannot make one.
bool have_dir(const char* path) {
  if (::mkdir(path, 0755) == 0 || errno == EEXIST) return true;
  struct stat st;
  return ::stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// The top folder under /tmp that holds `path` ("/tmp/x" for "/tmp/x/y/z"), or "".
std::string tmp_top(const char* path) {
  char real[PATH_MAX];
  if (path == nullptr || ::realpath(path, real) == nullptr || strncmp(real, "/tmp/", 5) != 0) return "";
  std::string top(real);
  size_t end = top.find('/', 5);
  return end == std::string::npos ? top : top.substr(0, end);
}

// A checkout under /tmp stays reachable under the fresh /tmp: the folder is
// opened before the mount hides it and bound back in through its descriptor.
class TmpKeeper {
 public:
  TmpKeeper() {
    char cwd[PATH_MAX];
    for (const std::string& top : {tmp_top(::getcwd(cwd, sizeof cwd)), tmp_top("/proc/self/exe")}) {
      if (top.empty() || (!tops_.empty() && tops_[0].first == top)) continue;
      int fd = ::open(top.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
      if (fd >= 0) tops_.push_back({top, fd});
    }
  }
  ~TmpKeeper() {
    for (auto& t : tops_) ::close(t.second);
  }
  TmpKeeper(const TmpKeeper&) = delete;
  TmpKeeper& operator=(const TmpKeeper&) = delete;

  bool restore() {
    for (auto& [top, fd] : tops_) {
      char src[64];
      snprintf(src, sizeof src, "/proc/self/fd/%d", fd);
      if (::mkdir(top.c_str(), 0755) != 0 && errno != EEXIST) return false;
      if (::mount(src, top.c_str(), "none", MS_BIND | MS_REC, nullptr) != 0) return false;  // type ignored
    }
    // The working directory still names the hidden folder; enter the bound one.
    char cwd[PATH_MAX];
    if (!tops_.empty() && ::getcwd(cwd, sizeof cwd) != nullptr && ::chdir(cwd) != 0) return false;
    return true;
  }

 private:
  std::vector<std::pair<std::string, int>> tops_;
};

}  // namespace

bool inside() { return getenv(kMarker) != nullptr; }

int enter(std::string* what, bool fresh, bool own_pids) {
  if (inside() && !fresh) return 0;
  uid_t uid = getuid();
  gid_t gid = getgid();
  if (!have_dir("/dev/cmdb")) return fail(what, "creating /dev/cmdb on the host");
  // The daemon's socket and store; without them its defaults are unusable
  // inside, but everything else works.
  const bool run_dir = have_dir("/run/cmdb"), state_dir = have_dir("/var/lib/cmdb");
  int flags = CLONE_NEWNS | CLONE_NEWIPC;
  if (uid != 0) flags |= CLONE_NEWUSER;
  if (own_pids) flags |= CLONE_NEWPID;
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
  TmpKeeper keep;  // opened inside the new namespace: a bind takes only its own mounts
  if (::mount("gk-tmp", "/tmp", "tmpfs", 0, "mode=1777") != 0) return fail(what, "mounting tmpfs on /tmp");
  if (!keep.restore()) return fail(what, "binding the working folder back under /tmp");
  if (::mount("gk-cmdb", "/dev/cmdb", "tmpfs", 0, "mode=0755") != 0)
    return fail(what, "mounting tmpfs on /dev/cmdb");
  if (run_dir && ::mount("gk-run", "/run/cmdb", "tmpfs", 0, "mode=0755") != 0)
    return fail(what, "mounting tmpfs on /run/cmdb");
  if (state_dir && ::mount("gk-state", "/var/lib/cmdb", "tmpfs", 0, "mode=0755") != 0)
    return fail(what, "mounting tmpfs on /var/lib/cmdb");
  setenv(kMarker, "1", 1);
  return 0;
}

namespace {

int status_of(int wait_status) {
  return WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : 128 + WTERMSIG(wait_status);
}

// Signals the sandbox's outer process and its init take with sigwait.
sigset_t relayed_signals() {
  sigset_t set;
  sigemptyset(&set);
  for (int sig : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGCHLD}) sigaddset(&set, sig);
  return set;
}

[[noreturn]] void exec_command(const std::vector<std::string>& argv, const sigset_t& mask) {
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  ::execvp(args[0], args.data());
  int err = errno;
  fprintf(stderr, "%s: %s\n", args[0], strerror(err));
  _exit(err == ENOENT ? 127 : 126);
}

// PID 1 of the sandbox. The kernel delivers it only signals it handles, so it
// waits for them blocked; it reaps every orphan, and its exit ends the rest.
[[noreturn]] void be_init(const std::vector<std::string>& argv, const sigset_t& mask) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // the outer process gone: end the sandbox too
  // A /proc of this namespace, so that pids read there are the ones processes
  // inside see; without it (a masked host /proc refuses the mount) they still work.
  ::mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr);
  pid_t child = ::fork();
  if (child < 0) _exit(126);
  if (child == 0) exec_command(argv, mask);
  sigset_t set = relayed_signals();
  for (;;) {
    int sig = 0;
    if (sigwait(&set, &sig) != 0) continue;
    if (sig == SIGTERM || sig == SIGHUP) ::kill(child, sig);
    if (sig != SIGCHLD) continue;
    int st = 0;
    for (pid_t p; (p = ::waitpid(-1, &st, WNOHANG)) > 0;)
      if (p == child) _exit(status_of(st));
  }
}

}  // namespace

int run(const std::vector<std::string>& argv) {
  if (argv.empty()) {
    errno = EINVAL;
    return -1;
  }
  sigset_t set = relayed_signals(), mask;
  sigprocmask(SIG_BLOCK, &set, &mask);
  pid_t init = ::fork();
  if (init == 0) be_init(argv, mask);
  int result = -1;
  while (init > 0) {
    int sig = 0, st = 0;
    if (sigwait(&set, &sig) != 0) continue;
    if (sig == SIGTERM || sig == SIGHUP) ::kill(init, sig);
    if (sig == SIGCHLD && ::waitpid(init, &st, WNOHANG) == init) {
      result = status_of(st);
      break;
    }
  }
  int err = errno;
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  errno = err;
  return result;
}

const char* requirements() {
  return "Private mount and IPC namespaces need root, or a user where unprivileged user\n"
         "namespaces are allowed (kernel.unprivileged_userns_clone=1,\n"
         "user.max_user_namespaces > 0), with the directory /dev/cmdb present on the host\n"
         "(as root: mkdir -p /dev/cmdb /run/cmdb /var/lib/cmdb; the last two let the owner\n"
         "daemon's default socket and store work inside).\n";
}

}  // namespace gk::sandbox
