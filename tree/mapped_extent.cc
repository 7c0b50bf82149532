// How far the mapping under an address reaches, from /proc/self/maps. The
// record `cmdb` keeps no lengths, and a host may point cmdb_node anywhere with
// set_shmtree_root, so the kernel's own list is the one reliable answer.
#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include <utility>

#include "tree/tree_internal.h"
#include "util/util_internal.h"

namespace tree {
namespace {

// Parses "start-end ..." at the head of a line; false when the line is cut short.
bool parse_range(const char* line, const char* end, uintptr_t* lo, uintptr_t* hi) {
  uintptr_t v[2] = {0, 0};
  int which = 0;
  for (const char* p = line; p < end; ++p) {
    char c = *p;
    int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    if (digit >= 0) {
      v[which] = v[which] << 4 | static_cast<uintptr_t>(digit);
    } else if (c == '-' && which == 0) {
      which = 1;
    } else {
      if (which != 1) return false;
      *lo = v[0];
      *hi = v[1];
      return true;
    }
  }
  return false;
}

}  // namespace

size_t mapped_bytes_from(const void* base) {
  util::UniqueFd fd(::open("/proc/self/maps", O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) return SIZE_MAX;
  const auto addr = reinterpret_cast<uintptr_t>(base);
  // One mapping only: a neighbour may be a guard page, so it never counts.
  // 1: the answer is hi - addr; -1: addr lies in a hole (the list is sorted).
  auto verdict = [addr](uintptr_t lo, uintptr_t hi) { return lo <= addr && addr < hi ? 1 : lo > addr ? -1 : 0; };
  char buf[4096];
  size_t have = 0;
  bool skipping = false;  // inside a line too long for the buffer, its range done
  for (;;) {
    ssize_t n = ::read(fd.get(), buf + have, sizeof buf - have);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return SIZE_MAX;
    if (n == 0) return 0;
    have += static_cast<size_t>(n);
    char* line = buf;
    char* stop = buf + have;
    for (char* nl; (nl = static_cast<char*>(memchr(line, '\n', static_cast<size_t>(stop - line)))) != nullptr;
         line = nl + 1) {
      uintptr_t lo, hi;
      if (std::exchange(skipping, false) || !parse_range(line, nl, &lo, &hi)) continue;
      if (int v = verdict(lo, hi); v != 0) return v > 0 ? hi - addr : 0;
    }
    size_t rest = static_cast<size_t>(stop - line);
    if (rest == sizeof buf) {  // a path longer than the buffer: judge by its head
      uintptr_t lo, hi;
      if (!skipping && parse_range(line, stop, &lo, &hi)) {
        if (int v = verdict(lo, hi); v != 0) return v > 0 ? hi - addr : 0;
      }
      skipping = true;
      rest = 0;
    }
    memmove(buf, line, rest);
    have = rest;
  }
}

}  // namespace tree
