// Helpers shared by the tests: log capture, child processes, region files.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "gikraidrum.h"

namespace gk::test {

// Everything the library handed to do_message, message and log_crash since the
// last clear, formatted, and the format strings themselves in call order (a
// host sees those, not just the text). The test binary's definitions of those
// platform functions replace the library's defaults.
std::string& captured_log();
std::vector<std::string>& captured_formats();
void clear_log();
int count_occurrences(const std::string& haystack, const std::string& needle);
inline bool logged(const std::string& text) { return captured_log().find(text) != std::string::npos; }

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

// What fn writes to descriptor 1 (or 2), captured through a pipe.
std::string capture_output(const std::function<void()>& fn, int fd = 1);
inline std::string capture_stdout(const std::function<void()>& fn) { return capture_output(fn, 1); }

// Length of a file, or -1 when it is missing; its bytes (empty when missing).
long file_size(const std::string& path);
std::vector<uint8_t> read_file(const std::string& path);
// Lines of /proc/self/maps whose path starts with `prefix`, and this process's
// open descriptors: what a detach must leave as it found them.
std::vector<std::string> mappings_of(const std::string& prefix);
std::vector<std::string> open_fds();

// A new file of `len` zero bytes in /dev/cmdb, mapped shared read-write; aborts on failure.
inline void* map_region_file(const char* name, size_t len) {
  const std::string path = std::string(CMDB_DIR) + name;
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(len)) != 0) abort();
  void* p = ::mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  if (p == MAP_FAILED) abort();
  return p;
}

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
  cmdb_debug_zone_t& dz() { return *static_cast<cmdb_debug_zone_t*>(debug_zone); }
};

}  // namespace gk::test
