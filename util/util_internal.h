// Small owners and helpers shared by every subsystem.
#pragma once

#include <errno.h>
#include <unistd.h>

#include <utility>

#include "gikraidrum.h"

namespace util {

// Move-only descriptor owner; closing preserves errno so callers can report it.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& o) noexcept : fd_(o.release()) {}
  UniqueFd& operator=(UniqueFd&& o) noexcept {
    if (this != &o) reset(o.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) {
      int saved = errno;
      ::close(fd_);
      errno = saved;
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// The program's short name, as messages print it.
const char* progname();

// The caller's pid without a system call: cached, and refreshed in a forked child.
pid_t self_pid();

}  // namespace util

namespace util {

// Heap calls of the text buffer. Tests swap an entry to make one call fail;
// nothing else changes them.
struct BufHeap {
  void* (*zalloc)(size_t count, size_t size);
  void* (*resize)(void* block, size_t bytes);
  void* (*alloc)(size_t bytes);
};
extern BufHeap g_buf_heap;

// RFC 4648 codec behind the exported b64_encode / b64_decode defaults (same
// contracts), reachable here even when a host replaces those defaults.
int base64_encode(const unsigned char* src, int srclen, char* dst, int dstlen);
int base64_decode(const char* src, unsigned char* dst, int dstlen);

}  // namespace util
