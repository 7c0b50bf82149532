// Handles to addresses: every process maps the page files at addresses of its
// own, so shared records name blocks by handle and translate at each use.
#include <stdlib.h>

#include "alloc/alloc_internal.h"
#include "alloc/page_map.h"
#include "util/util_internal.h"

namespace alloc {

void offset_abort(const void* slab, uint32_t shmid, const void* cache) {
  util::log(3, "Error %s %s %d,slab=%p,page=%d,blkno=%d.%p,%p\n", kSrc, "cmf_shm_offset", __LINE__, slab,
            static_cast<int>(CMF_SHMID_PAGE(shmid)), static_cast<int>(CMF_SHMID_BLKNO(shmid)), slab, cache);
  abort();
}

int32_t size_from_shmid(uint32_t shmid) {
  // The page was brought up to date by the caller; only its slot is read here.
  const uint32_t page = CMF_SHMID_PAGE(shmid);
  const PageMap* m = page_map();
  const PageMapSlot* s = m != nullptr && page < static_cast<uint32_t>(m->count) ? &m->slot[page] : nullptr;
  if (s == nullptr || s->addr == nullptr || s->len < static_cast<int32_t>(kLargeHead)) {
    util::log_alarm("Error", kSrc, "cmf_size_from_shmid");
    return -1;
  }
  const auto* h = static_cast<const cmdb_slab_header_t*>(s->addr);
  if (h->cache == -1) return s->len;
  const cmdb_slab_cache_table_t* ct = cache_table();
  if (ct == nullptr || h->cache < 0 || h->cache >= cache_count(ct)) {
    util::log_alarm("Error", kSrc, "cmf_size_from_shmid");
    return -1;
  }
  return static_cast<int32_t>(ct->cache[h->cache].objsize);
}

namespace {
// What a lookup has to hand: the pages of this thread's last two lookups (a
// table and its index come in turns), and the last two block remainders, which
// spare the hot path its one division.
struct Recent {
  uint32_t page[2];
  struct {
    uint32_t off, objsize, rest;
  } rem[2];
};
__attribute__((tls_model("initial-exec"))) thread_local Recent t_recent = {};

// Bytes from `off` (counted from a slab's first block) to the end of its block.
uint32_t rest_of_block(uint32_t off, uint32_t objsize) {
  for (const auto& r : t_recent.rem)
    if (r.off == off && r.objsize == objsize) return r.rest;
  const uint32_t rest = objsize - off % objsize;
  t_recent.rem[1] = t_recent.rem[0];
  t_recent.rem[0] = {off, objsize, rest};
  return rest;
}

// Bytes from p to the end of its block when p lies in the page of slot s.
size_t block_bytes_in(const PageMapSlot& s, uintptr_t p) {
  const auto base = reinterpret_cast<uintptr_t>(s.addr);
  if (s.addr == nullptr || s.len < static_cast<int32_t>(kSlabHead) || p < base ||
      p - base >= static_cast<uint32_t>(s.len))
    return 0;
  const auto* h = static_cast<const cmdb_slab_header_t*>(s.addr);
  const uintptr_t at = p - base;
  if (h->cache == -1) return at >= kLargeHead ? static_cast<uint32_t>(s.len) - at : 0;
  const cmdb_slab_cache_table_t* ct = cache_table();
  if (ct == nullptr || h->cache < 0 || h->cache >= cache_count(ct)) return 0;
  const cmdb_slab_cache_t& d = ct->cache[h->cache];
  const uint64_t first = kSlabHead + uint64_t{sizeof(int32_t)} * d.num;
  if (d.objsize == 0 || slab_bytes(d) > s.len || at < first || at - first >= uint64_t{d.num} * d.objsize) return 0;
  // at < s.len: the offset fits 32 bits.
  return rest_of_block(static_cast<uint32_t>(at - first), d.objsize);
}
}  // namespace

size_t block_bytes_from(const void* p) {
  const PageMap* m = page_map();
  if (m == nullptr || p == nullptr) return 0;
  const auto at = reinterpret_cast<uintptr_t>(p);
  for (uint32_t page : t_recent.page)
    if (page < static_cast<uint32_t>(m->count))
      if (size_t n = block_bytes_in(m->slot[page], at); n != 0) return n;
  for (int32_t i = 0; i < m->count; ++i)
    if (size_t n = block_bytes_in(m->slot[i], at); n != 0) {
      t_recent.page[1] = t_recent.page[0];
      t_recent.page[0] = static_cast<uint32_t>(i);
      return n;
    }
  return 0;
}

}  // namespace alloc

extern "C" GK_API void* cmf_ptr_from_shmid(uint32_t shmid, int write) noexcept { return alloc::translate(shmid, write); }
