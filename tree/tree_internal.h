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

}  // namespace tree
