// The allocator's interface to the other subsystems.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "gikraidrum.h"

namespace alloc {

// A fresh page table: CMDB_PAGE_SLOTS_STEP free slots.
inline constexpr int32_t kPageTableImageSize =
    offsetof(cmdb_page_table_t, slot) + CMDB_PAGE_SLOTS_STEP * sizeof(cmdb_page_slot_t);

// First content of the sub-region `page` (dst holds kPageTableImageSize bytes).
void write_page_table_image(cmdb_page_table_t* dst);
// First content of the slab-cache table at the start of `cmdb_global`.
void write_cache_table_image(cmdb_slab_cache_table_t* dst);

// Builds this process's page map from `table`, or from cmdb.page when null
// (nothing when that is null too): zero-filled, page_max slots (cmf_page_map_init).
// A map that the process already had is released first (its pages unmapped).
// A cmdb.page_map_len of 0 beside a mapped table is taken as the table's length;
// whoever maps `page` should record the mapping's length there.
void page_map_init(const cmdb_page_table_t* table);
// Unmaps every mapped slot of this process's page map and frees it.
void page_map_release();

// Capacity of a block in bytes (cmf_size_from_shmid): the cache's objsize, or
// for a large block its page length (block + 8). -1 when the page is not mapped
// or names no cache. REQUIRES: main lock (shared).
int32_t size_from_shmid(uint32_t shmid);

// A new page of `len` zero bytes, mapped read-write in this process: its
// number, or -1 after a log line. REQUIRES: main lock held exclusive, owner process.
int32_t alloc_page(uint32_t len);
// Unmaps the page and unlinks its file: 0, or -1 after a log line for a page
// out of range or free. REQUIRES: main lock held exclusive, owner process.
int free_page(uint32_t page);
// A new zero-filled block: its handle, or 0 after a log line.
// REQUIRES: main lock held exclusive, owner process.
uint32_t alloc_block(uint32_t size);

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
int open_in_dir(const char* name, int flags);
// The same without a word: for a caller that tries another way on failure.
int open_quiet(const char* name, int flags);

// estimate_malloc_size's arithmetic on a usable size.
int estimate_from_usable(uint32_t usable, int page_size);

}  // namespace alloc
