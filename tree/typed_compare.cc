// Version order for string fields that may lack their NUL.
#include "tree/typed_compare.h"

namespace tree {
namespace {

// Scanning states: plain text, an integral part, a fractional part (digits after
// leading zeros), and leading zeros only.
enum : uint8_t { kNormal = 0, kIntegral = 3, kFraction = 6, kZeros = 9 };
// What decides at the first difference: the byte difference, or the length of
// the digit runs; other values are the result itself.
enum : int { kByDiff = 2, kByLength = 3 };

// Indexed by state + class of the byte (0 other, 1 digit 1-9, 2 the digit 0).
constexpr uint8_t kNext[] = {kNormal, kIntegral, kZeros,    kNormal, kIntegral, kIntegral,
                             kNormal, kFraction, kFraction, kNormal, kFraction, kZeros};
// Indexed by state * 3 + class of b's byte, the state having taken a's byte.
constexpr int kDecide[] = {
    kByDiff, kByDiff, kByDiff, kByDiff, kByLength, kByDiff,   kByDiff, kByDiff,   kByDiff,    // normal
    kByDiff, -1,      -1,      +1,      kByLength, kByLength, +1,      kByLength, kByLength,  // integral
    kByDiff, kByDiff, kByDiff, kByDiff, kByDiff,   kByDiff,   kByDiff, kByDiff,   kByDiff,    // fraction
    kByDiff, +1,      +1,      -1,      kByDiff,   kByDiff,   -1,      kByDiff,   kByDiff,    // zeros
};

constexpr bool is_digit(unsigned char c) { return c >= '0' && c <= '9'; }
constexpr int byte_class(unsigned char c) { return (c == '0') + is_digit(c); }

}  // namespace

int version_compare_bounded(const char* a, const char* b, size_t size) {
  // Bytes at or past `size` read as NUL.
  auto at = [size](const char* s, size_t i) { return i < size ? static_cast<unsigned char>(s[i]) : 0; };
  size_t i = 0;
  unsigned char c1 = at(a, 0), c2 = at(b, 0);
  int state = kNormal + byte_class(c1);
  int diff;
  while ((diff = c1 - c2) == 0) {
    if (c1 == 0) return 0;
    state = kNext[state];
    ++i;
    c1 = at(a, i);
    c2 = at(b, i);
    state += byte_class(c1);
  }
  switch (int decide = kDecide[state * 3 + byte_class(c2)]) {
    case kByDiff:
      return diff;
    case kByLength:
      // The longer run of digits is the larger number.
      for (++i; is_digit(at(a, i)); ++i)
        if (!is_digit(at(b, i))) return 1;
      return is_digit(at(b, i)) ? -1 : diff;
    default:
      return decide;
  }
}

}  // namespace tree
