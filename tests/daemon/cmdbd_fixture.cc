#include "tests/daemon/cmdbd_fixture.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>

namespace gk::cmdbd_test {
namespace {

constexpr const char* kLog = "/tmp/cmdbd.log";

Json::Value parse(const char* text, size_t len) {
  Json::Value v;
  std::unique_ptr<Json::CharReader>(Json::CharReaderBuilder().newCharReader())->parse(text, text + len, &v, nullptr);
  return v;
}

}  // namespace

bool Cmdbd::start(const std::vector<std::string>& args, const std::vector<std::string>& env) {
  std::string notify = "/tmp/notify." + std::to_string(getpid());
  ::unlink(notify.c_str());
  int ns = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s", notify.c_str());
  if (ns < 0 || ::bind(ns, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return false;
  pid_ = ::fork();
  if (pid_ == 0) {
    int fd = ::open(kLog, O_WRONLY | O_CREAT | O_APPEND, 0644);
    ::dup2(fd, 2);
    setenv("NOTIFY_SOCKET", notify.c_str(), 1);
    for (const std::string& e : env) putenv(strdup(e.c_str()));
    std::vector<std::string> all = {CMDBD_PATH, "--schema", GK_SOURCE_DIR "/examples/appliance.json"};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : all) argv.push_back(a.data());
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    _exit(127);
  }
  bool ready = false;
  for (int waited = 0; !ready && waited < 20000; waited += 50) {
    pollfd p{ns, POLLIN, 0};
    if (::poll(&p, 1, 50) == 1) {
      char buf[512] = {};
      if (::recv(ns, buf, sizeof buf - 1, 0) > 0 && strstr(buf, "READY=1") != nullptr) ready = true;
    } else if (::waitpid(pid_, nullptr, WNOHANG) == pid_) {
      pid_ = -1;
      break;
    }
  }
  ::close(ns);
  ::unlink(notify.c_str());
  return ready;
}

int Cmdbd::stop(int sig) {
  if (pid_ <= 0) return -1;
  ::kill(pid_, sig);
  int st = 0;
  while (::waitpid(pid_, &st, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

std::string Cmdbd::log() const { return run(std::string("cat ") + kLog); }

std::string run(const std::string& command, int* status, bool merge) {
  std::string cmd = command + (merge ? " 2>&1" : "");
  FILE* p = ::popen(cmd.c_str(), "r");
  std::string out;
  char buf[4096];
  size_t n;
  while (p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  int st = p != nullptr ? ::pclose(p) : -1;
  if (status != nullptr) *status = st >= 0 && WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return out;
}

Json::Value dump() {
  int st = 0;
  const std::string text = run(std::string(CMDBCTL_PATH) + " dump", &st);
  return st == 0 ? parse(text.data(), text.size()) : Json::Value();
}

int commit(gk_client* c, const std::string& operations, uint64_t* revision) {
  return gk_client_commit_json(c, operations.c_str(), nullptr, revision);
}

Json::Value status(gk_client* c) {
  char* text = nullptr;
  if (gk_client_request(c, R"({"request": "status"})", &text) != 0) return Json::Value();
  const Json::Value v = parse(text, strlen(text));
  free(text);
  return v;
}

int as_user(uid_t uid, gid_t gid, const std::vector<gid_t>& groups, int (*fn)()) {
  pid_t pid = ::fork();
  if (pid == 0) {
    if (::setgroups(groups.size(), groups.data()) != 0 || ::setresgid(gid, gid, gid) != 0 ||
        ::setresuid(uid, uid, uid) != 0)
      _exit(99);
    _exit(fn());
  }
  int st = 0;
  ::waitpid(pid, &st, 0);
  return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

}  // namespace gk::cmdbd_test
