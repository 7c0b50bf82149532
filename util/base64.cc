// RFC 4648 base64, the codec behind the default b64_encode / b64_decode.
#include <stdint.h>

#include "util/util_internal.h"

namespace util {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr int sextet(unsigned char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}
static_assert(sextet('A') == 0 && sextet('a') == 26 && sextet('0') == 52 && sextet('/') == 63);
static_assert(sextet('=') == -1 && sextet('-') == -1 && sextet(0xC3) == -1);

}  // namespace

int base64_encode(const unsigned char* src, int srclen, char* dst, int dstlen) {
  if (srclen < 0 || dstlen <= 0 || (src == nullptr && srclen > 0) || dst == nullptr) return -1;
  const int64_t need = (int64_t{srclen} + 2) / 3 * 4 + 1;  // text and its NUL
  if (need > dstlen) return -1;
  char* out = dst;
  int i = 0;
  for (; srclen - i >= 3; i += 3) {
    uint32_t v = uint32_t{src[i]} << 16 | uint32_t{src[i + 1]} << 8 | src[i + 2];
    *out++ = kAlphabet[v >> 18];
    *out++ = kAlphabet[(v >> 12) & 63];
    *out++ = kAlphabet[(v >> 6) & 63];
    *out++ = kAlphabet[v & 63];
  }
  if (const int rest = srclen - i; rest > 0) {
    uint32_t v = uint32_t{src[i]} << 16 | (rest == 2 ? uint32_t{src[i + 1]} << 8 : 0);
    *out++ = kAlphabet[v >> 18];
    *out++ = kAlphabet[(v >> 12) & 63];
    *out++ = rest == 2 ? kAlphabet[(v >> 6) & 63] : '=';
    *out++ = '=';
  }
  *out = '\0';
  return static_cast<int>(out - dst);
}

// Strict about the alphabet, about data after padding and about non-zero bits
// left in the last character; missing padding at the very end is accepted, as
// texts cut from URLs and headers often lack it.
int base64_decode(const char* src, unsigned char* dst, int dstlen) {
  if (src == nullptr || dstlen < 0 || (dst == nullptr && dstlen > 0)) return -1;
  int n = 0;
  uint32_t acc = 0;  // only the low `bits` bits are pending
  int bits = 0, pad = 0;
  for (const auto* p = reinterpret_cast<const unsigned char*>(src); *p != '\0'; ++p) {
    if (*p == '=') {
      ++pad;
      continue;
    }
    const int v = sextet(*p);
    if (v < 0 || pad > 0) return -1;
    acc = (acc << 6 | static_cast<uint32_t>(v)) & 0x3FFF;
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      if (n >= dstlen) return -1;
      dst[n++] = static_cast<unsigned char>(acc >> bits);
    }
  }
  // A final group of 1 character cannot hold a byte; 2 or 3 leave 4 or 2 bits,
  // which must be zero and, when padded, be padded by 2 or 1 '='.
  if (bits == 6 || (acc & ((1u << bits) - 1)) != 0) return -1;
  if (pad > 0 && pad != bits / 2) return -1;
  return n;
}

}  // namespace util
