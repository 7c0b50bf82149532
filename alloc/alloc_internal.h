// The allocator's interface to the other subsystems.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "gikraidrum.h"

namespace alloc {

inline constexpr size_t kPageTableImageSize = 520;   // 64 free slots
inline constexpr size_t kCacheTableImageSize = 284;  // count + ten descriptors

// First content of the sub-region `page` (dst holds kPageTableImageSize bytes).
void write_page_table_image(void* dst);
// First content of the slab-cache table at the start of `cmdb_global`.
void write_cache_table_image(void* dst);

// Builds this process's page map from `table`, or from cmdb.page when null
// (nothing when that is null too): zero-filled, page_max slots (cmf_page_map_init).
void page_map_init(const cmdb_page_table_t* table);
// Unmaps every mapped slot of this process's page map and frees it.
void page_map_release();

}  // namespace alloc
