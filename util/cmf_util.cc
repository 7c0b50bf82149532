// The library log: one threshold in the shared header governs every process,
// and one in the debug zone governs the events subsystem's trace.
#include <stdarg.h>
#include <stdio.h>

#include <atomic>

#include "gikraidrum.h"
#include "util/util_internal.h"

namespace util {
namespace {

void emit(const char* fmt, va_list ap) {
  if (cmdb.flags & CMDB_FLAG_DEBUG) {
    // A process may die or _exit right after the message that explains why.
    vprintf(fmt, ap);
    fflush(stdout);
  } else {
    do_message(fmt, ap);
  }
}

}  // namespace

void vlog(uint32_t level, const char* fmt, va_list ap) {
  if (cmdb_header_t* h = cmdb.header; h != nullptr) {
    // Any process may change the level at any moment; the read is one word load.
    if (std::atomic_ref<uint32_t>(h->log_level).load(std::memory_order_relaxed) < level) return;
  }
  emit(fmt, ap);
}

void log(uint32_t level, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vlog(level, fmt, ap);
  va_end(ap);
}

void log_alarm(const char* what, const char* source, const char* function, int line) {
  log(3, "%s %s,%s,%d.\n", what, source, function, line);
}

void vlog_event(int level, const char* fmt, va_list ap) {
  auto* dz = static_cast<cmdb_debug_zone_t*>(nCfg_debug_zone);
  if (dz == nullptr) return;
  // Any process may raise the level while events flow; one word load, no lock.
  if (std::atomic_ref<int32_t>(dz->event_log_level).load(std::memory_order_relaxed) <= level) return;
  emit(fmt, ap);
}

void log_event(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vlog_event(0, fmt, ap);
  va_end(ap);
}

}  // namespace util

extern "C" {

GK_API void dbg_cmdb(uint32_t level, const char* fmt, ...) noexcept {
  va_list ap;
  va_start(ap, fmt);
  util::vlog(level, fmt, ap);
  va_end(ap);
}

GK_API void dbg_cmdb_event(int level, const char* fmt, ...) noexcept {
  va_list ap;
  va_start(ap, fmt);
  util::vlog_event(level, fmt, ap);
  va_end(ap);
}

}  // extern "C"
