// Helpers shared by the tests: log capture, child processes, a minimal region.
#pragma once

#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "gikraidrum.h"

namespace gk::test {

// Everything the library handed to do_message, message and log_crash since the
// last clear, formatted. The test binary's own definitions of those platform
// functions replace the library's defaults.
std::string& captured_log();
// The format strings themselves, in call order: a host sees these, not just the text.
std::vector<std::string>& captured_formats();
void clear_log();
int count_occurrences(const std::string& haystack, const std::string& needle);

// Runs fn in a forked child and returns its exit status, or 128 + the signal
// that ended it. The child reports through its exit code, never gtest asserts.
int run_child(const std::function<int()>& fn);
pid_t start_child(const std::function<int()>& fn);
int wait_child(pid_t pid);

// A one-byte pipe for handing "ready" between processes.
struct Signal {
  int fd[2];
  Signal();
  ~Signal();
  void post();
  bool wait(int timeout_ms = 5000);
};

// A child process that runs `take`, reports it, and runs `give` when released.
// An alarm ends it after 10 s, so a lock that never comes fails instead of hanging.
class Holder {
 public:
  Holder(const std::function<void()>& take, const std::function<void()>& give);
  ~Holder();  // kills and reaps a child still running
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;
  bool held(int timeout_ms = 5000) { return took_.wait(timeout_ms); }
  int finish();  // releases the child; its exit status as run_child gives it
  int kill();    // SIGKILL; its status
  pid_t pid = -1;

 private:
  int reap();
  Signal took_, go_;
};

// What fn writes to standard output (or standard error), captured through a pipe.
std::string capture_stdout(const std::function<void()>& fn);
std::string capture_stderr(const std::function<void()>& fn);

// Length of a file, or -1 when it is missing; its bytes (empty when missing).
long file_size(const std::string& path);
std::vector<uint8_t> read_file(const std::string& path);
// Lines of /proc/self/maps whose path starts with `prefix`, and this process's
// open descriptors: what a detach must leave as it found them.
std::vector<std::string> mappings_of(const std::string& prefix);
std::vector<std::string> open_fds();

// The header and debug zone as creation lays them out, mapped into this process
// the way an attached process has them (cmdb.header, cmdb.debug_zone,
// nCfg_debug_zone). Domain capacity 16. Unmaps and clears the fields at the end.
struct MiniRegion {
  MiniRegion();
  ~MiniRegion();
  MiniRegion(const MiniRegion&) = delete;
  MiniRegion& operator=(const MiniRegion&) = delete;
  void* header_base = nullptr;
  void* debug_zone = nullptr;
  size_t debug_zone_len = 0;
};

}  // namespace gk::test
