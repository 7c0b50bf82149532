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

#define GK_PLATFORM extern "C" GK_API __attribute__((weak, noinline))

namespace {
thread_local uint32_t t_cur_domain = 0;

constexpr char kB64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr int b64_value(unsigned char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}
static_assert(b64_value('A') == 0 && b64_value('/') == 63 && b64_value('=') == -1);
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
  dbg_cmdb(3, "%s: configuration backup is not supported by this host\n", "cmf_do_backup_conf");
  errno = ENOTSUP;
  return -ENOTSUP;
}

GK_PLATFORM int cmf_do_exec_conf(uintptr_t, const void*) noexcept {
  dbg_cmdb(3, "%s: configuration execution is not supported by this host\n", "cmf_do_exec_conf");
  errno = ENOTSUP;
  return -ENOTSUP;
}

GK_PLATFORM int b64_encode(const unsigned char* src, int srclen, char* dst, int dstlen) noexcept {
  if (srclen < 0 || dstlen < 0 || (src == nullptr && srclen > 0) || dst == nullptr) return -1;
  const long need = (static_cast<long>(srclen) + 2) / 3 * 4 + 1;
  if (need > dstlen) return -1;
  char* out = dst;
  int i = 0;
  for (; i + 2 < srclen; i += 3) {
    uint32_t v = uint32_t(src[i]) << 16 | uint32_t(src[i + 1]) << 8 | src[i + 2];
    *out++ = kB64Alphabet[v >> 18];
    *out++ = kB64Alphabet[(v >> 12) & 63];
    *out++ = kB64Alphabet[(v >> 6) & 63];
    *out++ = kB64Alphabet[v & 63];
  }
  if (i < srclen) {
    uint32_t v = uint32_t(src[i]) << 16 | (i + 1 < srclen ? uint32_t(src[i + 1]) << 8 : 0);
    *out++ = kB64Alphabet[v >> 18];
    *out++ = kB64Alphabet[(v >> 12) & 63];
    *out++ = i + 1 < srclen ? kB64Alphabet[(v >> 6) & 63] : '=';
    *out++ = '=';
  }
  *out = '\0';
  return static_cast<int>(out - dst);
}

GK_PLATFORM int b64_decode(const char* src, unsigned char* dst, int dstlen) noexcept {
  if (src == nullptr || dstlen < 0 || (dst == nullptr && dstlen > 0)) return -1;
  int n = 0;
  uint32_t acc = 0;
  int bits = 0, pad = 0;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(src); *p != '\0'; ++p) {
    if (*p == '=') {
      ++pad;
      continue;
    }
    int v = b64_value(*p);
    if (v < 0 || pad > 0) return -1;  // bad character, or data after padding
    acc = acc << 6 | static_cast<uint32_t>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      if (n >= dstlen) return -1;
      dst[n++] = static_cast<unsigned char>(acc >> bits);
    }
  }
  // A group ends with 0, 2 or 3 characters; leftover bits must be zero.
  if (bits >= 6 || (acc & ((1u << bits) - 1)) != 0 || pad > 2) return -1;
  if (pad > 0 && (bits / 2 != pad)) return -1;
  return n;
}
