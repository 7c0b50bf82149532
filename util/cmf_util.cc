// The library log: one threshold in the shared header governs every process.
#include <stdarg.h>
#include <stdio.h>

#include <atomic>

#include "gikraidrum.h"
#include "util/util_internal.h"

void util::emit_log(const char* fmt, va_list ap) {
  if (cmdb.flags & CMDB_FLAG_DEBUG) {
    // A process may die or _exit right after the message that explains why.
    vprintf(fmt, ap);
    fflush(stdout);
  } else
    do_message(fmt, ap);
}

extern "C" GK_API void dbg_cmdb(uint32_t level, const char* fmt, ...) noexcept {
  if (cmdb_header_t* h = cmdb.header; h != nullptr) {
    // Any process may change the level at any moment; the read is one word load.
    uint32_t threshold = std::atomic_ref<uint32_t>(h->log_level).load(std::memory_order_relaxed);
    if (threshold < level) return;
  }
  va_list ap;
  va_start(ap, fmt);
  util::emit_log(fmt, ap);
  va_end(ap);
}
