// The configuration tree's interface to the other subsystems.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "gikraidrum.h"

namespace tree {

// Node of a gid through cmdb_node_index, or null (gid 0, above 1860, no slot,
// or a record whose own gid differs). Only the low 16 bits of gid count.
// Gid 1861 has no slot: the index ends before it and is never read past.
// A record that would reach past the mapping of cmdb_node is no node either.
const cmdb_node_t* find_node(uint32_t gid);

// The record at `offset` in cmdb_node (a parent or child link), or null for
// offset 0 or a record that would reach past the mapping.
const cmdb_node_t* node_at(uint32_t offset);

// Typed comparison: types 2, 5 and 13 in version order, others as unsigned
// little-endian integers of `size` bytes. <0, 0, >0.
int compare_typed(const void* a, const void* b, int type, int size);

constexpr bool is_string_type(int type) {
  return type >= 0 && type < 32 && ((CMDB_STRING_TYPES >> type) & 1) != 0;
}
static_assert(is_string_type(CMDB_TYPE_STRING) && is_string_type(CMDB_TYPE_TEXT) && is_string_type(CMDB_TYPE_LIST) &&
              !is_string_type(CMDB_TYPE_REF) && !is_string_type(14) && !is_string_type(-1));

// Descriptor walk. The visitor gets the descriptor, its index among its parent's
// children, the value it produced for the parent, and a place for this
// descriptor's own value (0 on entry); a negative result ends the walk with it.
// Kind 10 descriptors are visited but not descended into.
using DescVisitor = int (*)(cmdb_node_desc_t* desc, int index, uintptr_t parent_value, uintptr_t* own_value,
                            void* ctx);
// Walks `desc` as a top-level descriptor (index 0, parent value 0); -1 for a
// null descriptor or visitor.
int walk_descriptors(cmdb_node_desc_t* desc, DescVisitor visitor, void* ctx);

// Bytes from `base` to the end of the mapping that holds it, read from the
// kernel's map list; SIZE_MAX when that list cannot be read, 0 when nothing is
// mapped at base. A system call: for bounding shared data, not for hot paths.
size_t mapped_bytes_from(const void* base);

// Table size limits. One lookup over size_table serves the four exported
// getters. -1 for a platform index above 29 (as unsigned) or an unknown kind
// (logged); a gid without a row gets 0, 256, 256, 0. Only the low 16 bits of
// gid count.
enum LimitKind { kEntryGroup = 0, kSizeLimit = 1, kTotalLimit = 2, kWarningLimit = 3 };
int table_size_lookup(uint32_t gid, int platform, int kind);

// Appends the limits of table `gid` on `platform` (tcnt 0) to a table-limits
// block the creating process is filling; 0, or -1 when the block is full (or null).
int table_limits_append(cmdb_table_limits_t* limits, uint32_t gid, uint32_t platform);
// Sorts the block by gid, as the getters' halving search expects.
void table_limits_sort(cmdb_table_limits_t* limits);

}  // namespace tree
