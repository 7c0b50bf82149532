#include <pthread.h>

#include <atomic>

#include "util/util_internal.h"

extern "C" char* __progname;

namespace util {
namespace {
// Threads fill the cache at once on first use; each stores the same value, but
// the stores must be atomic to be race-free. Relaxed: the value is all there is.
std::atomic<pid_t> g_pid{0};
static_assert(std::atomic<pid_t>::is_always_lock_free);
void forget_pid() { g_pid.store(0, std::memory_order_relaxed); }
}  // namespace

const char* progname() { return __progname; }

pid_t self_pid() {
  pid_t p = g_pid.load(std::memory_order_relaxed);
  if (p == 0) {
    static const int registered = pthread_atfork(nullptr, nullptr, forget_pid);
    (void)registered;
    p = ::getpid();
    g_pid.store(p, std::memory_order_relaxed);
  }
  return p;
}

}  // namespace util
