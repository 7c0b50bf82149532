// Handles to addresses: every process maps the page files at addresses of its
// own, so shared records name blocks by handle and translate at each use.
#include <stdlib.h>

#include "alloc/alloc_internal.h"
#include "alloc/page_map.h"

namespace alloc {

void offset_abort(const void* slab, uint32_t shmid, const void* cache) {
  dbg_cmdb(3, "Error %s %s %d,slab=%p,page=%d,blkno=%d.%p,%p\n", kSrc, "cmf_shm_offset", __LINE__, slab,
           static_cast<int>(shmid >> 16), static_cast<int>(shmid & 0xFFFF), slab, cache);
  abort();
}

void* ptr_from_shmid(uint32_t shmid, int write) { return translate(shmid, write); }

int32_t size_from_shmid(uint32_t shmid) {
  // The page was brought up to date by the caller; only its slot is read here.
  const uint32_t page = shmid >> 16;
  const PageMap* m = page_map();
  const PageMapSlot* s = m != nullptr && page < static_cast<uint32_t>(m->count) ? &m->slot[page] : nullptr;
  if (s == nullptr || s->addr == nullptr || s->len < 8) {
    dbg_cmdb(3, "Error %s,%s,%d.\n", kSrc, "cmf_size_from_shmid", __LINE__);
    return -1;
  }
  const auto* h = static_cast<const cmdb_slab_header_t*>(s->addr);
  if (h->cache == -1) return s->len;
  const cmdb_slab_cache_table_t* ct = cache_table();
  if (ct == nullptr || h->cache < 0 || h->cache >= cache_count(ct)) {
    dbg_cmdb(3, "Error %s,%s,%d.\n", kSrc, "cmf_size_from_shmid", __LINE__);
    return -1;
  }
  return static_cast<int32_t>(ct->cache[h->cache].objsize);
}

}  // namespace alloc

extern "C" GK_API void* cmf_ptr_from_shmid(uint32_t shmid, int write) noexcept { return alloc::translate(shmid, write); }
