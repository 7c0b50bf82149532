#include <pthread.h>

#include "util/util_internal.h"

extern "C" char* __progname;

namespace util {
namespace {
pid_t g_pid = 0;
void forget_pid() { g_pid = 0; }
}  // namespace

const char* progname() { return __progname; }

pid_t self_pid() {
  pid_t p = g_pid;
  if (p == 0) {
    static const int registered = pthread_atfork(nullptr, nullptr, forget_pid);
    (void)registered;
    p = g_pid = ::getpid();
  }
  return p;
}

}  // namespace util
