// The text buffer driven by a fuzzed sequence of operations, checked against a
// plain byte string; then base64 decode of arbitrary text, and the round trip
// of whatever the buffer holds.
#include <stdlib.h>
#include <string.h>

#include <string>

#include "gikraidrum.h"
#include "tests/fuzz/fuzz_host.h"

namespace {
void check(const cmf_buf_t& b, const std::string& model) {
  if (b.len != model.size()) abort();
  if (b.len > 0 && (b.data == nullptr || b.len >= b.size || memcmp(b.data, model.data(), b.len) != 0)) abort();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  cmf_buf_t b{};
  std::string model;
  size_t i = 0;
  // Operations: a byte of opcode, a byte of length, then that many bytes of operand.
  // Self-appends double the content: past a megabyte the run proves nothing new.
  while (i + 2 <= size && model.size() < (size_t{1} << 20)) {
    const uint8_t op = data[i] % 8;
    size_t n = data[i + 1];
    i += 2;
    if (n > size - i) n = size - i;
    const char* arg = reinterpret_cast<const char*>(data + i);
    i += n;
    switch (op) {
      case 0:  // init takes a record that owns nothing
        cmf_buf_free(&b);
        if (cmf_buf_init(&b) != 512) abort();
        model.clear();
        break;
      case 1:
        if (cmf_buf_cat(&b, n) != 1) abort();
        model.push_back(static_cast<char>(n));
        break;
      case 2:
        if (n > 0) {
          if (cmf_buf_append(&b, arg, static_cast<int>(n)) != static_cast<int>(n)) abort();
          model.append(arg, n);
        }
        break;
      case 3:
        if (n > 0) {
          if (cmf_buf_reset(&b, arg, static_cast<int>(n)) != static_cast<int>(n)) abort();
          model.assign(arg, n);
        }
        break;
      case 4: {  // text without NULs through the formatted append
        const std::string s(arg, strnlen(arg, n));
        int r = cmf_buf_snprintf(&b, "%s|%zu", s.c_str(), n * 1000);
        if (r < 0) abort();
        model += s + "|" + std::to_string(n * 1000);
        break;
      }
      case 5: {  // append from inside the buffer itself: the source moves with a growth
        if (b.len == 0) break;
        const size_t from = n % b.len;
        const size_t k = b.len - from;
        const std::string part = model.substr(from, k);
        if (cmf_buf_append(&b, b.data + from, static_cast<int>(k)) != static_cast<int>(k)) abort();
        model += part;
        break;
      }
      case 6: {
        const std::string before = model;
        if (cmf_buf_base64_encode(&b) < 0) abort();
        if (cmf_buf_base64_decode(&b) != static_cast<int>(before.size())) abort();
        break;
      }
      default: {  // arbitrary text: refused with the content kept, or replaced by what it encodes
        const std::string text(arg, strnlen(arg, n));
        if (cmf_buf_reset(&b, text.c_str(), 0) != static_cast<int>(text.size())) abort();
        model = text;
        int r = cmf_buf_base64_decode(&b);
        if (r != -152) {
          if (r < 0 || static_cast<uint32_t>(r) != b.len) abort();
          model.assign(b.data, b.len);
          if (cmf_buf_base64_encode(&b) < 0 || cmf_buf_base64_decode(&b) != r) abort();
        }
        break;
      }
    }
    check(b, model);
  }
  cmf_buf_free(&b);
  return 0;
}
