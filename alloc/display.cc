// Diagnostics for a person at the command line: the page table and every page
// header, and a heap block's requested size.
#include <malloc.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "alloc/alloc_internal.h"
#include "alloc/page_map.h"

namespace alloc {

// The heap's chunk bookkeeping, as the estimate has always counted it: up to
// the default mmap threshold a chunk spends one size word on its head; above
// it the chunk is a mapping of its own, rounded to pages, with a two-word head.
constexpr int32_t kMmapThreshold = 128 * 1024;
constexpr int32_t kChunkHead = sizeof(size_t), kMappedChunkHead = 2 * sizeof(size_t);

int estimate_from_usable(uint32_t usable, int page_size) {
  const auto n = static_cast<int32_t>(usable);
  if (n == 0) return 0;
  if (n <= kMmapThreshold) return n - kChunkHead;
  return n - page_size + kMappedChunkHead;
}

}  // namespace alloc

extern "C" {

// REQUIRES: main lock (shared at least). Maps pages read-only as it goes; the
// mappings stay for later translations.
GK_API void cmf_slab_display_page(void) noexcept {
  const cmdb_page_table_t* t = alloc::page_table();
  if (t == nullptr) return;
  printf("   page cnt=%d, page max=%d.\n", t->page_cnt, t->page_max);
  const int64_t slots = std::min<int64_t>(std::max<int32_t>(t->page_max, 0), alloc::mapped_table_slots());
  for (int64_t i = 0; i < slots; ++i) {
    t = alloc::page_table();  // a page touched below may have made this process remap the table
    if (t == nullptr) return;
    const int32_t size = t->slot[i].size;
    if (size == -1) continue;
    const alloc::PageMapSlot* s = alloc::cmf_update_page(static_cast<uint32_t>(i), 0);
    const cmdb_slab_cache_table_t* ct = alloc::cache_table();
    const auto* h = s != nullptr && s->addr != nullptr && s->len >= static_cast<int32_t>(alloc::kSlabHead)
                        ? static_cast<const cmdb_slab_header_t*>(s->addr)
                        : nullptr;
    const int32_t ncache = ct != nullptr ? alloc::cache_count(ct) : 0;
    if (h != nullptr && h->cache >= 0 && h->cache < ncache) {
      const cmdb_slab_cache_t& d = ct->cache[h->cache];
      printf("slabp:cache=%d,page=%d,inuse=%d,free=%d, cache:num=%d,objsize=%d.\n", h->cache,
             static_cast<int>(h->page), static_cast<int>(h->inuse), h->free, static_cast<int>(d.num),
             static_cast<int>(d.objsize));
    } else if (s != nullptr && s->addr != nullptr && s->len >= static_cast<int32_t>(alloc::kLargeHead) &&
               static_cast<const cmdb_slab_header_t*>(s->addr)->cache == -1) {
      printf("slabp:cache=%d,page=%d, msize=%d.\n", -1,
             static_cast<int>(static_cast<const cmdb_slab_header_t*>(s->addr)->page), s->len);
    } else {
      printf("Error idx=%d, size=%d.\n", static_cast<int>(i), size);
    }
  }
}

GK_API int estimate_malloc_size(void* ptr) noexcept {
  // Written once, with the same value, by whichever thread comes first.
  static std::atomic<int> page_size{0};
  int ps = page_size.load(std::memory_order_relaxed);
  if (ps == 0) page_size.store(ps = getpagesize(), std::memory_order_relaxed);
  return alloc::estimate_from_usable(static_cast<uint32_t>(malloc_usable_size(ptr)), ps);
}

}  // extern "C"
