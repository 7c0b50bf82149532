// The two value orders of the tree, inline for the entry index's inner loop.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <bit>

namespace tree {

// Integer values are read with native loads, which are little-endian here.
static_assert(std::endian::native == std::endian::little);

// Version order (strverscmp) of two strings each held in a field of `size`
// bytes. A field with no NUL inside `size` ends at `size`, so a damaged value is
// never read past its field; such fields take the bounded twin below.
int version_compare_bounded(const char* a, const char* b, size_t size);

inline int compare_strings(const void* a, const void* b, int size) {
  const char* x = static_cast<const char*>(a);
  const char* y = static_cast<const char*>(b);
  const size_t n = size > 0 ? static_cast<size_t>(size) : 0;
  if (strnlen(x, n) < n && strnlen(y, n) < n) return strverscmp(x, y);
  return version_compare_bounded(x, y, n);
}

// Unsigned little-endian integers of `size` bytes: the highest differing byte
// decides, +1 or -1; equal values and size 0 give 0.
inline int compare_le(const void* a, const void* b, int size) {
  const auto* x = static_cast<const uint8_t*>(a);
  const auto* y = static_cast<const uint8_t*>(b);
  auto order = [](auto u, auto v) { return u == v ? 0 : u > v ? 1 : -1; };
  switch (size) {
    case 1: return order(x[0], y[0]);
    case 2: {
      uint16_t u, v;
      memcpy(&u, x, 2), memcpy(&v, y, 2);
      return order(u, v);
    }
    case 4: {
      uint32_t u, v;
      memcpy(&u, x, 4), memcpy(&v, y, 4);
      return order(u, v);
    }
    case 8: {
      uint64_t u, v;
      memcpy(&u, x, 8), memcpy(&v, y, 8);
      return order(u, v);
    }
    default:
      for (int i = size - 1; i >= 0; --i)
        if (x[i] != y[i]) return x[i] > y[i] ? 1 : -1;
      return 0;
  }
}

}  // namespace tree
