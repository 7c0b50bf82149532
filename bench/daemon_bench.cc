// cmdbd against its floors: an acknowledged commit of one field through the C
// client against the store's own transaction alone (same SQLite commit, same
// sync settings, same file system); commits per second with 1, 4 and 16
// clients, where group commit shares each disk sync; `cmdbctl set` through
// cmdbd against a direct write.
//
// cmdbd runs in a sandbox nested in the suite's, so that its region is not the
// one the other benchmarks share. Its socket and store lie beside the
// benchmark binary, on the disk, where a sync is a real one; cmdbctl runs in
// the nested sandbox through setns.
#include <benchmark/benchmark.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include "daemon/store.h"
#include "gikraidrum/client.h"
#include "tools/common/sandbox.h"

namespace {

std::string scratch() {
  char exe[PATH_MAX] = {};
  ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
  std::string dir = n > 0 ? std::string(exe, static_cast<size_t>(n)) : "./x";
  return dir.substr(0, dir.rfind('/')) + "/daemon-bench";
}

int sh(const std::string& command) { return ::system(command.c_str()); }

// A process parked in a fresh sandbox; programs run in its namespaces.
class Nest {
 public:
  static Nest& get() {
    static Nest* n = new Nest;
    return *n;
  }
  bool ok() const { return holder_ > 0; }
  // Runs argv in the nested sandbox; waits for it unless `background`.
  pid_t run(std::vector<std::string> argv, bool background = false) {
    pid_t pid = ::fork();
    if (pid == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGTERM);  // nothing outlives the suite
      for (const char* ns : {"ipc", "mnt"}) {
        int fd = ::open(("/proc/" + std::to_string(holder_) + "/ns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0 || ::setns(fd, 0) != 0) _exit(126);
      }
      int null = ::open("/dev/null", O_WRONLY);
      ::dup2(null, 1);
      if (!background) ::dup2(null, 2);
      std::vector<char*> v;
      for (std::string& a : argv) v.push_back(a.data());
      v.push_back(nullptr);
      ::execv(v[0], v.data());
      _exit(127);
    }
    int st = 0;
    if (!background) ::waitpid(pid, &st, 0);
    return background ? pid : (WIFEXITED(st) ? WEXITSTATUS(st) : -1);
  }
  bool start_cmdbd() {
    std::lock_guard<std::mutex> hold(mu_);
    if (cmdbd_ > 0) return true;
    cmdbd_ = run({CMDBD_PATH, "--schema", GK_SOURCE_DIR "/examples/appliance.json", "--write-group", "0",
                  "--state-dir", dir_ + "/state", "--socket", socket()},
                 true);
    for (int i = 0; i < 400; ++i) {
      if (gk_client* c = gk_client_open(socket().c_str())) {
        gk_client_close(c);
        return true;
      }
      ::usleep(25000);
    }
    return false;
  }
  void stop_cmdbd() {
    if (cmdbd_ <= 0) return;
    ::kill(cmdbd_, SIGTERM);
    ::waitpid(cmdbd_, nullptr, 0);
    cmdbd_ = -1;
  }
  std::string socket() const { return dir_ + "/cmdbd.sock"; }
  const std::string& dir() const { return dir_; }

 private:
  Nest() : dir_(scratch()) {
    sh("rm -rf '" + dir_ + "' && mkdir -p '" + dir_ + "'");
    int p[2];
    if (::pipe(p) != 0) return;
    pid_t pid = ::fork();
    if (pid == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      int null = ::open("/dev/null", O_WRONLY);
      ::dup2(null, 1);
      std::string what;
      char ok = gk::sandbox::enter(&what, true) == 0 ? 1 : 0;
      if (::write(p[1], &ok, 1) != 1 || !ok) _exit(1);
      for (;;) ::pause();
    }
    char ok = 0;
    if (::read(p[0], &ok, 1) == 1 && ok) holder_ = pid;
    ::close(p[0]);
    ::close(p[1]);
  }
  std::mutex mu_;
  std::string dir_;
  pid_t holder_ = -1, cmdbd_ = -1;
};

std::string set_mtu(int index, int mtu) {
  return R"([{"op": "set", "path": "interface[)" + std::to_string(index) + R"(]", "values": {"mtu": )" +
         std::to_string(mtu) + "}}]";
}

// The floor: the store's commit of a revision as cmdbd writes one for a
// changed field, with nothing around it.
void BM_Daemon_StoreFloor(benchmark::State& state) {
  std::string dir = scratch() + "/floor", error;
  sh("rm -rf '" + dir + "' && mkdir -p '" + dir + "'");
  std::unique_ptr<cmdbd::Store> s = cmdbd::Store::open(dir, &error);
  if (s == nullptr || s->initialise("bench", "{}", R"({"global":{},"domains":[]})", &error) != 0)
    return state.SkipWithError(error.c_str());
  const std::string fields = R"("address":"0.0.0.0","description":"","enabled":1,"index":1,"name":"","netmask":"0.0.0.0")";
  int64_t i = 0;
  for (auto _ : state) {
    std::vector<cmdbd::Revision> revs(1);
    revs[0].pid = ::getpid();
    revs[0].command = "bench-client";
    revs[0].changes = R"([{"domain":"global","new":{)" + fields + R"(,"mtu":)" + std::to_string(1000 + (i + 1) % 2) +
                      R"(},"old":{)" + fields + R"(,"mtu":)" + std::to_string(1000 + i % 2) +
                      R"(},"op":"update","path":"interface[1]"}])";
    if (s->commit(&revs, cmdbd::Extras{}, &error) != 0) return state.SkipWithError(error.c_str());
    ++i;
  }
}
BENCHMARK(BM_Daemon_StoreFloor)->UseRealTime();

// Each thread its own client and its own entry; thread 0 starts cmdbd.
void BM_Daemon_Commit(benchmark::State& state) {
  Nest& n = Nest::get();
  if (!n.ok() || !n.start_cmdbd()) return state.SkipWithError("cmdbd did not start");
  gk_client* c = gk_client_open(n.socket().c_str());
  if (c == nullptr) return state.SkipWithError("cannot connect");
  const int index = 100 + state.thread_index();
  int64_t i = 0;
  for (auto _ : state)
    if (gk_client_commit_json(c, set_mtu(index, 1000 + static_cast<int>(i++ % 2)).c_str(), nullptr, nullptr) != 0)
      state.SkipWithError(gk_client_error(c));
  state.SetItemsProcessed(state.iterations());
  gk_client_close(c);
}
BENCHMARK(BM_Daemon_Commit)->UseRealTime()->Threads(1)->Threads(4)->Threads(16);

// A whole `cmdbctl set`: process start, schema, request; through cmdbd, then
// direct with cmdbd stopped.
void BM_Daemon_CmdbctlSet(benchmark::State& state) {
  Nest& n = Nest::get();
  const bool direct = state.range(0) != 0;
  if (!n.ok() || (direct ? (n.stop_cmdbd(), false) : !n.start_cmdbd()))
    return state.SkipWithError("cmdbd did not start");
  int64_t i = 0;
  for (auto _ : state) {
    std::string mtu = "mtu=" + std::to_string(1000 + i++ % 2);
    int st = n.run({CMDBCTL_PATH, direct ? "--direct" : "--socket", direct ? "--json" : n.socket(), "set",
                    "interface[2]", mtu});
    if (st != 0) return state.SkipWithError("cmdbctl set failed");
  }
}
BENCHMARK(BM_Daemon_CmdbctlSet)->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
