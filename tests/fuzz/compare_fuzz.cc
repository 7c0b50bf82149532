// Typed comparison on fuzzed type, size, offset and bytes. Each value lives in
// a heap block of exactly offset + size bytes, so a read past the field is a
// sanitizer report. The order must be antisymmetric and reflexive, and the
// three entry points must agree with one another.
#include <stdlib.h>
#include <string.h>

#include <memory>

#include "gikraidrum.h"

namespace {
int sign(int v) { return (v > 0) - (v < 0); }
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 5) return 0;
  const uint8_t type = data[0];
  const uint16_t field = static_cast<uint16_t>(data[1] | (data[2] & 0x03) << 8);  // up to 1023 bytes
  const uint16_t offset = data[3] & 0x1F;
  const uint8_t split = data[4];
  data += 5;
  size -= 5;
  // The rest fills a then b; what the input lacks stays zero, a common tail for
  // strings. new[] gives even an empty block an address of its own.
  const std::unique_ptr<uint8_t[]> a_block(new uint8_t[offset + field]()), b_block(new uint8_t[offset + field]());
  uint8_t *a = a_block.get(), *b = b_block.get();
  const size_t na = size < split ? size : split;
  memcpy(a + offset, data, na < field ? na : field);
  const size_t nb = size - na;
  memcpy(b + offset, data + na, nb < field ? nb : field);

  cmdb_node_t node{};
  node.type = type;
  node.size = field;
  node.offset = offset;
  cmdb_node_desc_t desc{};
  desc.type_scope = static_cast<uint8_t>(type & 15);
  desc.size = field;
  desc.offset = offset;

  const int ab = cmdb_compare_key(a + offset, b + offset, &node);
  const int ba = cmdb_compare_key(b + offset, a + offset, &node);
  if (sign(ab) != -sign(ba)) abort();
  if (cmdb_compare_key(a + offset, a + offset, &node) != 0) abort();
  if (sign(cmdb_compare_attr_data(a, b, &node)) != sign(ab)) abort();
  // The descriptor carries four bits of type.
  if (type < 16 && sign(cli_compare_attr_data(a, b, &desc)) != sign(ab)) abort();
  return 0;
}
