// This process's page map: which page files it has mapped, and how.
// Private to the allocator; other folders see only alloc_internal.h.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "gikraidrum.h"
#include "util/util_internal.h"

namespace alloc {

// One slot per page-table slot. A slot is current when addr is set and gen and
// len equal the table slot's gen and size; a current read-write mapping also
// serves reads.
struct PageMapSlot {
  uint32_t gen;   // table gen at the time of mapping; 0 = none
  uint32_t mode;  // 0 read only, 1 read-write
  int32_t len;    // length of the mapping; -1 (0 in a fresh map) = none
  void* addr;     // null = not mapped
};
static_assert(sizeof(PageMapSlot) == 24);

// Heap block: the count, then `count` slots. The count never exceeds the slots
// that this process's mapping of `page` covers, so an index below it always
// reads inside that mapping.
struct PageMap {
  int32_t count;
  int32_t reserved;
  PageMapSlot slot[];
};
static_assert(offsetof(PageMap, slot) == 8);

inline constexpr const char* kSrc = util::src::kAlloc;  // the name every message of the allocator carries

inline constexpr size_t kSlabHead = offsetof(cmdb_slab_header_t, next_free);
inline constexpr size_t kLargeHead = sizeof(cmdb_large_header_t);

constexpr int64_t table_bytes(int64_t slots) {
  return int64_t{offsetof(cmdb_page_table_t, slot)} + int64_t{sizeof(cmdb_page_slot_t)} * slots;
}
static_assert(table_bytes(CMDB_PAGE_SLOTS_STEP) == 520 && table_bytes(2 * CMDB_PAGE_SLOTS_STEP) == 1032);

inline cmdb_page_table_t* page_table() { return static_cast<cmdb_page_table_t*>(cmdb.page); }
inline PageMap* page_map() { return static_cast<PageMap*>(cmdb.page_maps); }
inline cmdb_slab_cache_table_t* cache_table() { return static_cast<cmdb_slab_cache_table_t*>(cmdb.slab_caches); }

// "/dev/cmdb/<name>" in this thread's 65-byte path buffer, cut to 64 characters.
const char* build_path(const char* name);

// A host that maps `page` itself may leave cmdb.page_map_len 0: the mapping is
// then taken to be as long as the table says, and that length is recorded so
// that the allocator unmaps exactly it when the table grows.
void adopt_table_length();

// Slots of `page` that this process's mapping of it covers.
inline int64_t mapped_table_slots() {
  const int64_t len = cmdb.page_map_len;
  return len < table_bytes(0) ? 0 : (len - table_bytes(0)) / int64_t{sizeof(cmdb_page_slot_t)};
}

// Caches that the table may name: its count, clamped to the descriptors there are.
inline int32_t cache_count(const cmdb_slab_cache_table_t* t) {
  int32_t n = t->count;
  return n < 0 ? 0 : n > CMDB_SLAB_CACHES ? CMDB_SLAB_CACHES : n;
}

// Brings this process's slot for `page` up to date (cmf_update_page) and
// returns it, or null when the process has no slot for the page (page beyond
// the table, map not enlargeable, table lost). The slot's addr is null when the
// page is not allocated. Ends the process when an allocated page file cannot be
// opened or mapped. The returned slot is valid until the next call that may
// enlarge the map.
// REQUIRES: main lock, shared for reads, exclusive for writes.
PageMapSlot* cmf_update_page_slow(uint32_t page, int write);

inline PageMapSlot* cmf_update_page(uint32_t page, int write) {
  // The fast path: a current mapping with enough access, no system call.
  const cmdb_page_table_t* t = page_table();
  PageMap* m = page_map();
  if (t != nullptr && m != nullptr && page < static_cast<uint32_t>(m->count) &&
      page < static_cast<uint32_t>(t->page_max)) {
    PageMapSlot& s = m->slot[page];
    const cmdb_page_slot_t& ts = t->slot[page];
    if (s.addr != nullptr && s.gen == ts.gen && s.len == ts.size && static_cast<uint32_t>(write != 0) <= s.mode)
      return &s;
  }
  return cmf_update_page_slow(page, write);
}

// Bytes that a slab of cache `c` uses: header, free-chain links, objects.
inline int64_t slab_bytes(uint32_t num, uint32_t objsize) {
  return int64_t{kSlabHead} + int64_t{num} * int64_t{sizeof(int32_t)} + int64_t{num} * objsize;
}
inline int64_t slab_bytes(const cmdb_slab_cache_t& c) { return slab_bytes(c.num, c.objsize); }

// Logs the missing slab header or cache table and ends the process.
[[noreturn]] void offset_abort(const void* slab, uint32_t shmid, const void* cache);

// Offset of the block inside its slab page (cmf_shm_offset), or -1 when the
// page's header names no cache of the table, the block is not below the cache's
// num, or the slab does not fit the mapping. Aborts only when the header or the
// cache table is missing altogether. *objsize gets the block size. Each shared
// field is read once, so a writer racing with the checks cannot undo them.
inline int32_t cmf_shm_offset_in(const PageMapSlot& slot, uint32_t shmid, uint32_t* objsize = nullptr) {
  const auto* h = static_cast<const cmdb_slab_header_t*>(slot.addr);
  const cmdb_slab_cache_table_t* ct = cache_table();
  if (h == nullptr || ct == nullptr) offset_abort(h, shmid, ct);
  if (slot.len < static_cast<int32_t>(kSlabHead)) return -1;
  const int32_t c = __atomic_load_n(&h->cache, __ATOMIC_RELAXED);
  if (c < 0 || c >= cache_count(ct)) return -1;
  const uint32_t num = __atomic_load_n(&ct->cache[c].num, __ATOMIC_RELAXED);
  const uint32_t size = __atomic_load_n(&ct->cache[c].objsize, __ATOMIC_RELAXED);
  const uint32_t blkno = CMF_SHMID_BLKNO(shmid);
  if (blkno >= num || slab_bytes(num, size) > slot.len) return -1;
  if (objsize != nullptr) *objsize = size;
  return static_cast<int32_t>(kSlabHead + sizeof(int32_t) * num + blkno * size);
}

// The translation behind cmf_ptr_from_shmid; *bytes gets the block's extent
// (as block_bytes_from would give it, without searching the pages).
inline void* translate(uint32_t shmid, int write, size_t* bytes = nullptr) {
  const PageMapSlot* s = cmf_update_page(CMF_SHMID_PAGE(shmid), write);
  if (s == nullptr || s->addr == nullptr) return nullptr;
  if (CMF_SHMID_BLKNO(shmid) == CMF_SHMID_LARGE) {
    if (s->len < static_cast<int32_t>(kLargeHead)) return nullptr;
    if (bytes != nullptr) *bytes = static_cast<size_t>(s->len) - kLargeHead;
    return static_cast<char*>(s->addr) + kLargeHead;
  }
  uint32_t objsize = 0;
  int32_t off = cmf_shm_offset_in(*s, shmid, &objsize);
  if (off < 0) return nullptr;
  if (bytes != nullptr) *bytes = objsize;
  return static_cast<char*>(s->addr) + off;
}

}  // namespace alloc
