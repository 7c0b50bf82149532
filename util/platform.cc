// Default platform interfaces. Each is a weak, exported definition: a host that
// defines a function of the same name replaces it, and the library's own calls
// (which go through the PLT, never to a local alias) reach the host's version.
// Nothing in this file calls another function of this file for the same reason.
#include <errno.h>
#include <execinfo.h>
#include <stdarg.h>
#include <stdlib.h>
#include <syslog.h>

#include "gikraidrum.h"
#include "util/util_internal.h"

#define GK_PLATFORM extern "C" GK_API __attribute__((weak, noinline))

namespace {
thread_local uint32_t t_cur_domain = 0;
}  // namespace

GK_PLATFORM void do_message(const char* fmt, va_list ap) noexcept { vsyslog(LOG_INFO, fmt, ap); }

GK_PLATFORM void message(const char* fmt, ...) noexcept {
  va_list ap;
  va_start(ap, fmt);
  vsyslog(LOG_NOTICE, fmt, ap);
  va_end(ap);
}

GK_PLATFORM void log_crash(const char* fmt, ...) noexcept {
  va_list ap;
  va_start(ap, fmt);
  vsyslog(LOG_CRIT, fmt, ap);
  va_end(ap);
}

GK_PLATFORM void print_trace(int depth) noexcept {
  void* frames[32];
  int n = backtrace(frames, 32);
  char** names = backtrace_symbols(frames, n);
  if (names == nullptr) return;
  for (int i = depth < 0 ? 0 : depth; i < n; ++i) syslog(LOG_CRIT, "  #%d %s", i, names[i]);
  free(names);
}

GK_PLATFORM void* nCfg_query(int) noexcept { return nullptr; }

GK_PLATFORM uint32_t cmf_get_cur_domain_id(void) noexcept { return t_cur_domain; }

GK_PLATFORM void cmf_set_cur_domain_id(uint32_t id) noexcept { t_cur_domain = id; }

GK_PLATFORM int cmf_do_backup_conf(uintptr_t, const char*, const void*) noexcept {
  util::log(3, "%s: configuration backup is not supported by this host\n", "cmf_do_backup_conf");
  errno = ENOTSUP;
  return -ENOTSUP;
}

GK_PLATFORM int cmf_do_exec_conf(uintptr_t, const void*) noexcept {
  util::log(3, "%s: configuration execution is not supported by this host\n", "cmf_do_exec_conf");
  errno = ENOTSUP;
  return -ENOTSUP;
}

GK_PLATFORM int b64_encode(const unsigned char* src, int srclen, char* dst, int dstlen) noexcept {
  return util::base64_encode(src, srclen, dst, dstlen);
}

GK_PLATFORM int b64_decode(const char* src, unsigned char* dst, int dstlen) noexcept {
  return util::base64_decode(src, dst, dstlen);
}
