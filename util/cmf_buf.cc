// cmf_buf: a growable text buffer in process memory, with formatted appends and
// base64 conversion of the whole content. A zero record is valid and empty.
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "util/util_internal.h"

namespace util {

BufHeap g_buf_heap = {::calloc, ::realloc, ::malloc};

namespace {

constexpr uint32_t kInitialSize = 512;
constexpr uint32_t kGrowthSlack = 32;

// Codes the callers of the buffer see; each names one documented failure.
constexpr int kGrowFailed = -1;
constexpr int kFormatNoRoom = -2;
constexpr int kFormatStillLong = -3;
constexpr int kNoTemporary = -6;
constexpr int kCodecFailed = -152;

// Reallocates `data` to `bytes`: 0, or ENOMEM with the record untouched. A
// request beyond the 32-bit size field fails like an exhausted heap.
int resize(cmf_buf_t* b, uint64_t bytes) {
  if (bytes > UINT32_MAX) return ENOMEM;
  void* p = g_buf_heap.resize(b->data, static_cast<size_t>(bytes));
  if (p == nullptr) return ENOMEM;
  b->data = static_cast<char*>(p);
  b->size = static_cast<uint32_t>(bytes);
  return 0;
}

// Appends n bytes (or reserves them when src is null) after the growth rule.
int append(cmf_buf_t* b, const void* src, int n) {
  if (n < 0) return kGrowFailed;
  if (n == 0 && src != nullptr) {
    size_t sl = strlen(static_cast<const char*>(src));
    if (sl > INT32_MAX) return kGrowFailed;
    n = static_cast<int>(sl);
  }
  const auto* s = static_cast<const char*>(src);
  if (b->data == nullptr || uint64_t{b->size} <= uint64_t{b->len} + static_cast<uint64_t>(n) + 1) {
    // A source inside our own block would dangle once it moves.
    const bool inside = s != nullptr && b->data != nullptr && s >= b->data && s < b->data + b->size;
    const ptrdiff_t at = inside ? s - b->data : 0;
    if (resize(b, uint64_t{b->len} + static_cast<uint64_t>(n) + kGrowthSlack) != 0) {
      util::log(3, "%s:%d, realloc error. %d,%d,%d\n", site::kBufAppend.source, site::kBufAppend.line,
                static_cast<int>(b->size), static_cast<int>(b->len), n);
      return kGrowFailed;
    }
    if (inside) s = b->data + at;
  }
  b->last = b->data + b->len;
  if (s != nullptr) {
    memmove(b->data + b->len, s, static_cast<size_t>(n));
    b->len += static_cast<uint32_t>(n);
  }
  if (b->len < b->size) b->data[b->len] = '\0';
  return n;
}

// Replaces the content by n bytes of src; on failure the old content stays.
int replace(cmf_buf_t* b, const void* src, int n) {
  const uint32_t old_len = b->len;
  b->len = 0;
  int r = append(b, src, n);
  if (r < 0) b->len = old_len;  // append left the bytes where they were
  return r;
}

}  // namespace
}  // namespace util

extern "C" {

GK_API int cmf_buf_init(cmf_buf_t* b) noexcept {
  if (b == nullptr) return 0;
  *b = cmf_buf_t{};
  void* p = util::g_buf_heap.zalloc(util::kInitialSize, 1);
  if (p == nullptr) return -1;
  b->data = b->last = static_cast<char*>(p);
  b->size = util::kInitialSize;
  return static_cast<int>(util::kInitialSize);
}

GK_API int cmf_buf_free(cmf_buf_t* b) noexcept {
  if (b == nullptr) return 0;
  ::free(b->data);
  *b = cmf_buf_t{};
  return 0;
}

GK_API int cmf_buf_cat(cmf_buf_t* b, int c) noexcept {
  if (b == nullptr) return 0;
  if (b->size <= uint64_t{b->len} + 1 && util::resize(b, uint64_t{b->len} + util::kGrowthSlack) != 0) {
    util::log(3, "%s:%d, realloc error. %d,%d\n", util::site::kBufCat.source, util::site::kBufCat.line,
              static_cast<int>(b->size), static_cast<int>(b->len));
    return util::kGrowFailed;
  }
  b->last = b->data + b->len;
  *b->last = static_cast<char>(c);
  ++b->len;
  return 1;
}

GK_API int cmf_buf_append(cmf_buf_t* b, const void* src, int n) noexcept {
  if (b == nullptr) return 0;
  return util::append(b, src, n);
}

GK_API int cmf_buf_reset(cmf_buf_t* b, const void* src, int n) noexcept {
  if (b == nullptr) return 0;
  b->len = 0;
  return util::append(b, src, n);
}

GK_API int cmf_buf_vsnprintf(cmf_buf_t* b, const char* fmt, va_list ap) noexcept {
  if (b == nullptr) return 0;
  if (b->data == nullptr && cmf_buf_init(b) < 0) return util::kFormatNoRoom;

  va_list copy;
  va_copy(copy, ap);
  int r = vsnprintf(b->data + b->len, b->size - b->len - 1, fmt, copy);
  va_end(copy);
  if (static_cast<uint32_t>(r) < b->size - 1 - b->len) {
    b->len += static_cast<uint32_t>(r);
    return 0;
  }

  util::log(5, "cmf_buf overflow %d, %d, %d, realloc memory\n", r, static_cast<int>(b->size),
            static_cast<int>(b->len));
  // A negative r is an output error (say, an unconvertible wide character), not
  // a length: growing by it as unsigned would ask for gigabytes.
  if (r < 0 || util::append(b, nullptr, r) < 0) {
    util::log(3, "%s:%d, calloc error. %d,%d\n", util::site::kBufFormatGrow.source,
              util::site::kBufFormatGrow.line, static_cast<int>(b->size), r);
    b->data[b->len] = '\0';  // undo whatever the failed attempt wrote
    return util::kFormatNoRoom;
  }

  va_copy(copy, ap);
  int r2 = vsnprintf(b->data + b->len, b->size - 1 - b->len, fmt, copy);
  va_end(copy);
  if (static_cast<uint32_t>(r2) < b->size - 1 - b->len) {
    b->len += static_cast<uint32_t>(r2);
    return 1;
  }
  util::log(3, "%s:%d, cmf_buf error. %d,%d,%d\n", util::site::kBufFormatLong.source,
            util::site::kBufFormatLong.line, static_cast<int>(b->size), static_cast<int>(b->len), r2);
  b->data[b->len] = '\0';
  return util::kFormatStillLong;
}

GK_API int cmf_buf_snprintf(cmf_buf_t* b, const char* fmt, ...) noexcept {
  va_list ap;
  va_start(ap, fmt);
  int r = cmf_buf_vsnprintf(b, fmt, ap);
  va_end(ap);
  return r;
}

// Unlike the rest of the family the base64 pair has no "nothing to do" result,
// so a null record is refused with -1.
GK_API int cmf_buf_base64_encode(cmf_buf_t* b) noexcept {
  if (b == nullptr) return -1;
  const uint32_t tmp_size = 4 * b->len / 3 + 5;  // 32-bit on purpose: a wrap only makes the codec refuse
  auto* tmp = static_cast<char*>(util::g_buf_heap.alloc(tmp_size));
  if (tmp == nullptr) return util::kNoTemporary;
  if (b64_encode(reinterpret_cast<const unsigned char*>(b->data), static_cast<int>(b->len), tmp,
                 static_cast<int>(tmp_size)) < 0) {
    ::free(tmp);
    return util::kCodecFailed;
  }
  const size_t text_len = strnlen(tmp, tmp_size);
  if (text_len == tmp_size) {  // a host codec that left no terminator
    ::free(tmp);
    return util::kCodecFailed;
  }
  const int r = util::replace(b, tmp, static_cast<int>(text_len));
  ::free(tmp);
  if (r < 0) return util::kNoTemporary;
  b->data[b->len] = '\0';
  return static_cast<int>(b->len);
}

GK_API int cmf_buf_base64_decode(cmf_buf_t* b) noexcept {
  if (b == nullptr) return -1;
  const uint32_t tmp_size = (3 * b->len) >> 2;
  // Never ask for 0 bytes: a heap may answer that with null.
  auto* tmp = static_cast<unsigned char*>(util::g_buf_heap.alloc(tmp_size > 0 ? tmp_size : 1));
  if (tmp == nullptr) return util::kNoTemporary;
  // cmf_buf_cat stores no terminator; the text is read up to one.
  const char* text = "";
  if (b->data != nullptr) {
    b->data[b->len] = '\0';
    text = b->data;
  }
  const int r = b64_decode(text, tmp, static_cast<int>(tmp_size));
  if (r < 0 || static_cast<uint32_t>(r) > tmp_size) {
    ::free(tmp);
    return util::kCodecFailed;
  }
  // Decoded bytes may hold NULs, so r = 0 must not reach append's strlen.
  const int appended = util::replace(b, r > 0 ? tmp : nullptr, r);
  ::free(tmp);
  if (appended < 0) return util::kNoTemporary;
  return static_cast<int>(b->len);
}

}  // extern "C"
