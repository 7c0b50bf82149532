// The configuration tree's interface to the other subsystems.
#pragma once

#include <stdint.h>

#include "gikraidrum.h"

namespace tree {

// Node of a gid through cmdb_node_index, or null (gid 0, above 1860, no slot,
// or a record whose own gid differs). Only the low 16 bits of gid count.
const cmdb_node_t* find_node(uint32_t gid);

// Typed comparison: types 2, 5 and 13 in version order, others as unsigned
// little-endian integers of `size` bytes. <0, 0, >0.
int compare_typed(const void* a, const void* b, int type, int size);

// Descriptor walk. The visitor gets the descriptor, its index among its parent's
// children, the value it produced for the parent, and a place for this
// descriptor's own value (0 on entry); a negative result ends the walk with it.
// Kind 10 descriptors are visited but not descended into.
using DescVisitor = int (*)(cmdb_node_desc_t* desc, int index, uintptr_t parent_value, uintptr_t* own_value,
                            void* ctx);
// Walks `desc` as a top-level descriptor (index 0, parent value 0); -1 for a
// null descriptor or visitor.
int walk_descriptors(cmdb_node_desc_t* desc, DescVisitor visitor, void* ctx);

// Table size limits. One lookup over size_table serves the four exported
// getters; kind 0 entry group, 1 size, 2 total, 3 warning threshold. -1 for a
// platform index above 29 (as unsigned) or an unknown kind (logged); a gid
// without a row gets 0, 256, 256, 0. Only the low 16 bits of gid count.
int __cmdb_get_table_size(uint32_t gid, int platform, int kind);

// Appends the limits of table `gid` on `platform` (tcnt 0) to a table-limits
// block the creating process is filling; 0, or -1 when the block is full (or null).
int table_limits_append(cmdb_table_limits_t* limits, uint32_t gid, uint32_t platform);
// Sorts the block by gid, as the getters' halving search expects.
void table_limits_sort(cmdb_table_limits_t* limits);

}  // namespace tree
