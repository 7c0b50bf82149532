// Consistency check of the allocator's shared structures: the page table, the
// two slab lists of every cache and every slab header. Reads only, through the
// same bounds as translation, so a corrupt region is reported, never followed.
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <memory>

#include "alloc/alloc_internal.h"
#include "alloc/page_map.h"
#include "util/util_internal.h"

namespace alloc {
namespace {

enum VerifyError {
  kNoRegion = -1,       // page table, page map or cache table missing
  kBadTable = -2,       // page_max or page_cnt out of range
  kBadSlot = -3,        // a slot's size or generation cannot be right
  kBadPageCount = -4,   // page_cnt differs from the allocated slots
  kBadLink = -5,        // a list's head, tail, prev or next is wrong
  kWrongList = -6,      // a slab on the list that does not match its free state
  kBadFreeChain = -7,   // inuse out of range or not matching the free chain
  kUnreachable = -8,    // an allocated page neither on a list nor a large block
  kListedTwice = -9,    // a page on two lists, or twice on one
  kBadDescriptor = -10, // a cache descriptor whose slab does not fit its page
};

int report(int code, int line, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
int report(int code, int line, const char* fmt, ...) {
  char detail[256];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(detail, sizeof detail, fmt, ap);
  va_end(ap);
  util::log(3, "Inconsistent %s,%s,%d: %s.\n", kSrc, "cmf_shm_verify", line, detail);
  return code;
}
#define REPORT(code, ...) report(code, __LINE__, __VA_ARGS__)

// The table slot of page i, read afresh: mapping a page may remap the table.
const cmdb_page_slot_t* table_slot(int64_t i) {
  const cmdb_page_table_t* t = page_table();
  return t != nullptr && i < mapped_table_slots() ? &t->slot[i] : nullptr;
}

// Checks one slab of cache c reached through a list; 0 or an error code.
int check_slab(int c, const cmdb_slab_cache_t& d, uint32_t p, uint32_t prev, bool full) {
  const PageMapSlot* s = cmf_update_page(p, 0);
  if (s == nullptr || s->addr == nullptr || s->len < slab_bytes(d))
    return REPORT(kBadLink, "cache %d lists page %u, which holds no slab", c, p);
  const auto* h = static_cast<const cmdb_slab_header_t*>(s->addr);
  if (h->cache != c || h->page != p)
    return REPORT(kBadLink, "cache %d lists page %u whose header says cache %d page %u", c, p, h->cache, h->page);
  if (h->prev != prev) return REPORT(kBadLink, "page %u: prev %u, expected %u", p, h->prev, prev);
  if ((h->free == -1) != full)
    return REPORT(kWrongList, "page %u with free %d on the %s list of cache %d", p, h->free, full ? "full" : "partial",
                  c);
  if (h->inuse == 0 || h->inuse > d.num) return REPORT(kBadFreeChain, "page %u: inuse %u of %u", p, h->inuse, d.num);
  std::unique_ptr<uint8_t[]> on_chain(new (std::nothrow) uint8_t[d.num]());
  if (!on_chain) return REPORT(kNoRegion, "no memory");
  uint32_t len = 0;
  for (int32_t b = h->free; b != -1; b = h->next_free[b]) {
    if (b < 0 || static_cast<uint32_t>(b) >= d.num || on_chain[b])
      return REPORT(kBadFreeChain, "page %u: free chain reaches %d", p, b);
    on_chain[b] = 1;
    ++len;
  }
  if (len != d.num - h->inuse)
    return REPORT(kBadFreeChain, "page %u: inuse %u but %u free of %u", p, h->inuse, len, d.num);
  return 0;
}

// Every slot: size and gen agree (gen is odd while free, even while
// allocated), and page_cnt counts the allocated ones.
int check_table(int32_t page_max) {
  int32_t allocated = 0;
  for (int32_t i = 0; i < page_max; ++i) {
    const cmdb_page_slot_t ts = *table_slot(i);
    const bool odd = (ts.gen & 1) != 0;
    if (ts.size == -1) {
      if (!odd) return REPORT(kBadSlot, "free slot %d has gen %u", i, ts.gen);
      continue;
    }
    if (ts.size <= 0 || i == 0 || odd || static_cast<uint32_t>(i) > CMF_SHMID_MAX_PAGE)
      return REPORT(kBadSlot, "slot %d: size %d gen %u", i, ts.size, ts.gen);
    ++allocated;
  }
  if (page_table()->page_cnt != allocated)
    return REPORT(kBadPageCount, "page_cnt %d, allocated slots %d", page_table()->page_cnt, allocated);
  return 0;
}

// One list of cache c, marking each page it reaches in `seen`.
int check_list(int c, const cmdb_slab_cache_t& d, bool full, int32_t page_max, uint8_t* seen) {
  const cmdb_slab_list_t& list = full ? d.full : d.partial;
  uint32_t prev = 0;
  for (uint32_t p = list.head; p != 0;) {
    const cmdb_page_slot_t* ts = p < static_cast<uint32_t>(page_max) ? table_slot(p) : nullptr;
    if (ts == nullptr || ts->size == -1) return REPORT(kBadLink, "cache %d lists free page %u", c, p);
    if (seen[p]) return REPORT(kListedTwice, "page %u listed twice", p);
    seen[p] = 1;
    if (ts->size != static_cast<int32_t>(d.slab_size))
      return REPORT(kBadLink, "page %u of cache %d is %d bytes", p, c, ts->size);
    if (int r = check_slab(c, d, p, prev, full); r != 0) return r;
    prev = p;
    p = static_cast<const cmdb_slab_header_t*>(page_map()->slot[p].addr)->next;
  }
  if (list.tail != prev) return REPORT(kBadLink, "cache %d: tail %u, last slab %u", c, list.tail, prev);
  return 0;
}

// Every allocated page no list reached must hold one large block.
int check_unlisted(const cmdb_slab_cache_table_t* ct, int32_t page_max, const uint8_t* seen) {
  const int32_t ncache = cache_count(ct);
  const uint32_t large_min = ncache > 0 ? ct->cache[ncache - 1].objsize : 0;
  for (int32_t i = 1; i < page_max; ++i) {
    const cmdb_page_slot_t* ts = table_slot(i);
    if (ts == nullptr || ts->size == -1 || seen[i]) continue;
    const int32_t size = ts->size;
    const PageMapSlot* s = cmf_update_page(static_cast<uint32_t>(i), 0);
    const auto* h = s != nullptr && s->addr != nullptr && s->len >= static_cast<int32_t>(kLargeHead)
                        ? static_cast<const cmdb_large_header_t*>(s->addr)
                        : nullptr;
    if (h == nullptr || h->cache != -1 || h->page != static_cast<uint32_t>(i))
      return REPORT(kUnreachable, "page %d is on no list and holds no large block", i);
    if (static_cast<int64_t>(size) < int64_t(large_min) + int64_t{kLargeHead})
      return REPORT(kBadSlot, "large page %d is only %d bytes", i, size);
  }
  return 0;
}

}  // namespace
}  // namespace alloc

// REQUIRES: main lock (shared at least).
extern "C" GK_API int cmf_shm_verify(void) noexcept {
  using namespace alloc;
  const cmdb_slab_cache_table_t* ct = cache_table();
  if (page_table() == nullptr || ct == nullptr) return REPORT(kNoRegion, "region not mapped");
  const int32_t page_max = page_table()->page_max;
  if (page_max < 1 || page_max > mapped_table_slots())
    return REPORT(kBadTable, "page_max %d, mapping holds %lld slots", page_max,
                  static_cast<long long>(mapped_table_slots()));
  if (int r = check_table(page_max); r != 0) return r;
  std::unique_ptr<uint8_t[]> seen(new (std::nothrow) uint8_t[size_t(page_max)]());
  if (!seen) return REPORT(kNoRegion, "no memory");
  for (int c = 0; c < cache_count(ct); ++c) {
    const cmdb_slab_cache_t& d = ct->cache[c];
    if (d.num == 0 || d.slab_size > INT32_MAX || slab_bytes(d) > d.slab_size)
      return REPORT(kBadDescriptor, "cache %d: num %u objsize %u slab_size %u", c, d.num, d.objsize,
                    d.slab_size);
    for (const bool full : {false, true})
      if (int r = check_list(c, d, full, page_max, seen.get()); r != 0) return r;
  }
  return check_unlisted(ct, page_max, seen.get());
}
