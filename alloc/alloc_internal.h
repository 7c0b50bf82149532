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
// A map that the process already had is released first (its pages unmapped).
// A cmdb.page_map_len of 0 beside a mapped table is taken as the table's length;
// whoever maps `page` should record the mapping's length there.
void page_map_init(const cmdb_page_table_t* table);
// Unmaps every mapped slot of this process's page map and frees it.
void page_map_release();

// cmf_ptr_from_shmid without the exported symbol's indirection, for the tree.
// REQUIRES: main lock, shared for reads, exclusive for writes.
void* ptr_from_shmid(uint32_t shmid, int write);
// Capacity of a block in bytes (cmf_size_from_shmid): the cache's objsize, or
// for a large block its page length (block + 8). -1 when the page is not mapped
// or names no cache. REQUIRES: main lock (shared).
int32_t size_from_shmid(uint32_t shmid);

// Page allocation (__cmf_alloc_page): the new page number, or -1. The page
// file is `len` zero bytes, mapped read-write in this process.
// REQUIRES: main lock held exclusive, owner process.
int32_t __cmf_alloc_page(uint32_t len);
// Page release (__cmf_free_page): unmaps, unlinks the file. 0, or -1.
// REQUIRES: main lock held exclusive, owner process.
int __cmf_free_page(uint32_t page);
// A new block (__cmf_shm_alloc): its handle, or 0.
// REQUIRES: main lock held exclusive, owner process.
uint32_t __cmf_shm_alloc(uint32_t size);

// Bytes from `p` to the end of the allocator block that holds it, in this
// process's mappings of the pages; 0 when p lies in no block (a slab's header
// or links, a page this process has not mapped, or no page at all). For
// bounding records whose counts live in shared memory.
// REQUIRES: main lock (shared).
size_t block_bytes_from(const void* p);

// Lists "/dev/cmdb/" to the library log and log_crash, in reverse name order.
void cmdb_shm_list_dir();
// open(2) of a name in "/dev/cmdb/" with O_NOFOLLOW and close-on-exec; -1 with
// errno kept (EISDIR reported as EINVAL), after logging the failure.
int __cmdb_shm_open(const char* name, int flags);

// estimate_malloc_size's arithmetic on a usable size.
int estimate_from_usable(uint32_t usable, int page_size);

}  // namespace alloc
