#include "tests/test_support.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

namespace gk::test {
namespace {
std::string g_log;
std::vector<std::string> g_formats;

void append_v(const char* fmt, va_list ap) {
  g_formats.push_back(fmt);
  char buf[4096];
  va_list copy;
  va_copy(copy, ap);
  int n = vsnprintf(buf, sizeof buf, fmt, copy);
  va_end(copy);
  if (n > 0) g_log.append(buf, static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n) : sizeof buf - 1);
}
}  // namespace

long file_size(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

std::vector<uint8_t> read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::string> mappings_of(const std::string& prefix) {
  std::ifstream in("/proc/self/maps");
  std::vector<std::string> out;
  for (std::string line; std::getline(in, line);) {
    size_t path = line.find('/');
    if (path != std::string::npos && line.compare(path, prefix.size(), prefix) == 0) out.push_back(line);
  }
  return out;
}

std::vector<std::string> open_fds() {
  std::vector<std::string> out;
  DIR* d = ::opendir("/proc/self/fd");
  if (d == nullptr) return out;
  while (dirent* e = ::readdir(d)) {
    char target[256] = {};
    std::string link = std::string("/proc/self/fd/") + e->d_name;
    ssize_t n = ::readlink(link.c_str(), target, sizeof target - 1);
    // The directory stream's own descriptor is the one that names /proc.
    if (n > 0 && strncmp(target, "/proc/", 6) != 0) out.push_back(std::string(e->d_name) + " " + target);
  }
  ::closedir(d);
  return out;
}

std::string& captured_log() { return g_log; }
std::vector<std::string>& captured_formats() { return g_formats; }
void clear_log() {
  g_log.clear();
  g_formats.clear();
}

int count_occurrences(const std::string& haystack, const std::string& needle) {
  int n = 0;
  for (size_t pos = haystack.find(needle); pos != std::string::npos; pos = haystack.find(needle, pos + 1)) ++n;
  return n;
}

pid_t start_child(const std::function<int()>& fn) {
  fflush(stdout);
  fflush(stderr);
  pid_t pid = ::fork();
  if (pid == 0) _exit(fn());
  return pid;
}

int wait_child(pid_t pid) {
  int status = 0;
  if (::waitpid(pid, &status, 0) != pid) return -1;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

int run_child(const std::function<int()>& fn) { return wait_child(start_child(fn)); }

Signal::Signal() {
  if (::pipe2(fd, O_CLOEXEC) != 0) abort();
}
Signal::~Signal() {
  ::close(fd[0]);
  ::close(fd[1]);
}
void Signal::post() {
  char c = 'k';
  if (::write(fd[1], &c, 1) != 1) abort();
}
bool Signal::wait(int timeout_ms) {
  struct pollfd p = {fd[0], POLLIN, 0};
  if (::poll(&p, 1, timeout_ms) != 1) return false;
  char c;
  return ::read(fd[0], &c, 1) == 1;
}

Holder::Holder(const std::function<void()>& take, const std::function<void()>& give) {
  pid = start_child([&] {
    ::alarm(10);
    take();
    took_.post();
    go_.wait(-1);
    give();
    return 0;
  });
}
Holder::~Holder() {
  if (pid > 0) kill();
}
int Holder::finish() {
  go_.post();
  return reap();
}
int Holder::kill() {
  ::kill(pid, SIGKILL);
  return reap();
}
int Holder::reap() {
  int status = wait_child(pid);
  pid = -1;
  return status;
}

std::string capture_output(const std::function<void()>& fn, int fd) {
  FILE* stream = fd == 1 ? stdout : stderr;
  fflush(stream);
  int p[2];
  if (::pipe(p) != 0) abort();
  int saved = ::dup(fd);
  ::dup2(p[1], fd);
  ::close(p[1]);
  fn();
  fflush(stream);
  ::dup2(saved, fd);
  ::close(saved);
  std::string out;
  char buf[4096];
  for (ssize_t n; (n = ::read(p[0], buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(n));
  ::close(p[0]);
  return out;
}

MiniRegion::MiniRegion() {
  header_base = map_region_file("cmdb_global_rw", CMDB_GLOBAL_RW_SIZE);
  debug_zone_len = CMDB_DZ_SIZE(16 + 1);
  debug_zone = map_region_file("debug_zone", debug_zone_len);
  auto* h = static_cast<cmdb_header_t*>(header_base);
  h->magic = CMDB_HEADER_MAGIC;
  h->log_level = 3;
  h->nodes = 1603;
  h->max_gid = CMDB_MAX_GID;
  h->sql = 85;
  dz().domain_slots = 17;
  cmdb.cmdb_global_rw = header_base;
  cmdb.header = h;
  cmdb.stat_global = static_cast<char*>(header_base) + CMDB_HEADER_STAT_GLOBAL;
  cmdb.debug_zone = debug_zone;
  nCfg_debug_zone = debug_zone;
}

MiniRegion::~MiniRegion() {
  cmdb.cmdb_global_rw = nullptr;
  cmdb.header = nullptr;
  cmdb.stat_global = nullptr;
  cmdb.debug_zone = nullptr;
  nCfg_debug_zone = nullptr;
  ::munmap(header_base, CMDB_GLOBAL_RW_SIZE);
  ::munmap(debug_zone, debug_zone_len);
}

}  // namespace gk::test

// The test binaries are the host here: these replace the library's defaults.
extern "C" {
void do_message(const char* fmt, va_list ap) noexcept { gk::test::append_v(fmt, ap); }
void message(const char* fmt, ...) noexcept {
  va_list ap;
  va_start(ap, fmt);
  gk::test::append_v(fmt, ap);
  va_end(ap);
}
void log_crash(const char* fmt, ...) noexcept {
  va_list ap;
  va_start(ap, fmt);
  gk::test::g_log.append("[crash] ");
  gk::test::append_v(fmt, ap);
  va_end(ap);
}
void print_trace(int) noexcept { gk::test::g_log.append("[trace]\n"); }
}
