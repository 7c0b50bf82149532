// Slab caches: ten size classes carve pages into equal blocks; larger requests
// get a page of their own. Only the owner allocates, under the exclusive main
// lock; every block it hands out is zero-filled.
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include "alloc/alloc_internal.h"
#include "alloc/page_map.h"
#include "util/util_internal.h"

namespace alloc {
namespace {

struct SizeClass {
  uint32_t objsize;
  uint32_t slab_size;
};
inline constexpr SizeClass kSizeClasses[CMDB_SLAB_CACHES] = {
    {32, 8192},     {64, 8192},     {128, 32768},   {256, 32768},    {512, 65536},
    {1024, 65536},  {2048, 65536},  {4096, 65536},  {8192, 131072},  {16384, 262144},
};
// 24 bytes of slab header, then per block a 4-byte free-chain link and the block.
constexpr uint32_t objects_per_slab(SizeClass c) { return (c.slab_size - 24) / (c.objsize + 4); }
static_assert(objects_per_slab(kSizeClasses[0]) == 226 && objects_per_slab(kSizeClasses[2]) == 248);
static_assert(objects_per_slab(kSizeClasses[5]) == 63 && objects_per_slab(kSizeClasses[9]) == 15);

int find_cache(const cmdb_slab_cache_table_t* ct, uint32_t size) {
  if (ct == nullptr) {  // not attached: the classes every region is created with
    for (int c = 0; c < CMDB_SLAB_CACHES; ++c)
      if (kSizeClasses[c].objsize > size) return c;
    return -1;
  }
  for (int c = 0, n = cache_count(ct); c < n; ++c)
    if (ct->cache[c].objsize > size) return c;
  return -1;
}

// The slab header of `page`, mapped for writing, when the page holds a slab of
// a cache of the table and the whole slab fits its mapping; null otherwise.
cmdb_slab_header_t* slab_for_write(uint32_t page) {
  const cmdb_slab_cache_table_t* ct = cache_table();
  if (page == 0 || ct == nullptr) return nullptr;
  const PageMapSlot* s = cmf_update_page(page, 1);
  if (s == nullptr || s->addr == nullptr || s->len < 24) return nullptr;
  auto* h = static_cast<cmdb_slab_header_t*>(s->addr);
  if (h->cache < 0 || h->cache >= cache_count(ct) || slab_bytes(ct->cache[h->cache]) > s->len) return nullptr;
  return h;
}

// REQUIRES: main lock held exclusive (for all that follows).
void cmf_slab_add(cmdb_slab_header_t* slab, cmdb_slab_list_t* list) {
  if (list->head != 0) {
    cmdb_slab_header_t* old_head = slab_for_write(list->head);
    if (old_head == nullptr) {
      dbg_cmdb(3, "Critical error %s,%s,%d.\n", kSrc, "cmf_slab_add", __LINE__);
      return;
    }
    old_head->prev = slab->page;
    slab->next = list->head;
  } else {
    list->tail = slab->page;
    slab->next = 0;
  }
  slab->prev = 0;
  list->head = slab->page;
}

// Leaves the slab's own prev and next as they were; cmf_slab_add sets both.
void cmf_slab_del(cmdb_slab_header_t* slab, cmdb_slab_list_t* list) {
  cmdb_slab_header_t* pred = nullptr;
  cmdb_slab_header_t* succ = nullptr;
  if (slab->prev != 0 && (pred = slab_for_write(slab->prev)) == nullptr) {
    dbg_cmdb(3, "Critical error %s,%s,%d.\n", kSrc, "cmf_slab_del", __LINE__);
    return;
  }
  if (slab->next != 0) {
    if ((succ = slab_for_write(slab->next)) == nullptr) {
      dbg_cmdb(3, "Critical error %s,%s,%d.\n", kSrc, "cmf_slab_del", __LINE__);
      return;
    }
    succ->prev = slab->prev;
  } else {
    list->tail = slab->prev;
  }
  if (pred != nullptr)
    pred->next = slab->next;
  else
    list->head = slab->next;
}

// A new page of `len` bytes mapped for writing, or null (the page is not kept).
void* new_page(uint32_t len, int32_t* page) {
  *page = __cmf_alloc_page(len);
  if (*page < 0) return nullptr;
  const PageMapSlot* s = cmf_update_page(static_cast<uint32_t>(*page), 1);
  return s != nullptr ? s->addr : nullptr;
}

// Where the locator records of an entry group point at a block that moved.
void follow_locators(int group, uint32_t old_id, uint32_t new_id) {
  if (cmdb.index_roots == nullptr) return;
  const uint32_t locator = cmdb.index_roots[1 + group];
  auto* blk = static_cast<unsigned char*>(translate(locator, 1));
  if (blk == nullptr) return;
  int32_t cap = size_from_shmid(locator);
  if ((locator & 0xFFFF) == CMF_SHMID_LARGE) cap -= 8;
  if (cap < 12) return;
  // The count is trusted only as far as the block reaches.
  uint32_t count = 0;
  memcpy(&count, blk + 4, 4);
  count = std::min<uint32_t>(count, static_cast<uint32_t>(cap - 12) / 16);
  for (uint32_t i = 0; i < count; ++i) {
    unsigned char* rec = blk + 12 + 16 * i;
    uint32_t id;
    memcpy(&id, rec + 4, 4);
    if (id == old_id) memcpy(rec + 4, &new_id, 4);
  }
}

// The last cache's objsize: requests this large get a page of their own.
uint32_t large_threshold(const cmdb_slab_cache_table_t* ct) {
  int n = cache_count(ct);
  return n > 0 ? ct->cache[n - 1].objsize : 0;
}

}  // namespace

void write_cache_table_image(void* dst) {
  auto* t = static_cast<cmdb_slab_cache_table_t*>(dst);
  memset(t, 0, sizeof *t);
  t->count = CMDB_SLAB_CACHES;
  for (int c = 0; c < CMDB_SLAB_CACHES; ++c) {
    t->cache[c].objsize = kSizeClasses[c].objsize;
    t->cache[c].slab_size = kSizeClasses[c].slab_size;
    t->cache[c].num = objects_per_slab(kSizeClasses[c]);
  }
}
static_assert(sizeof(cmdb_slab_cache_table_t) == kCacheTableImageSize);

uint32_t __cmf_shm_alloc(uint32_t size) {
  cmdb_slab_cache_table_t* ct = cache_table();
  const int c = find_cache(ct, size);
  if (ct == nullptr) {
    dbg_cmdb(3, "No memory, %s,%s,%d.\n", kSrc, "__cmf_shm_alloc", __LINE__);
    return 0;
  }
  int32_t page = -1;
  if (c < 0) {
    void* p = size <= INT32_MAX - 8 ? new_page(size + 8, &page) : nullptr;
    if (p == nullptr) {
      dbg_cmdb(3, "No memory, %s,%s,%d.\n", kSrc, "__cmf_shm_alloc", __LINE__);
      return 0;
    }
    auto* h = static_cast<cmdb_slab_header_t*>(p);
    h->cache = -1;
    h->page = static_cast<uint32_t>(page);
    return CMF_SHMID(page, CMF_SHMID_LARGE);
  }

  cmdb_slab_cache_t& d = ct->cache[c];
  cmdb_slab_header_t* h;
  if (d.partial.head == 0) {
    // A descriptor whose slab would not fit its page gets no page at all.
    const bool sane = d.num > 0 && d.slab_size <= INT32_MAX && slab_bytes(d) <= d.slab_size;
    void* p = sane ? new_page(d.slab_size, &page) : nullptr;
    if (p == nullptr) {
      dbg_cmdb(3, "No memory, %s,%s,%d.\n", kSrc, "__cmf_shm_alloc", __LINE__);
      return 0;
    }
    h = static_cast<cmdb_slab_header_t*>(p);
    h->cache = c;
    h->page = static_cast<uint32_t>(page);
    h->inuse = 0;
    h->free = 0;
    for (uint32_t i = 0; i + 1 < d.num; ++i) h->next_free[i] = static_cast<int32_t>(i + 1);
    h->next_free[d.num - 1] = -1;
    cmf_slab_add(h, &d.partial);
  } else {
    page = static_cast<int32_t>(d.partial.head);
    h = slab_for_write(d.partial.head);
    if (h == nullptr || h->cache != c || h->inuse >= d.num || h->free < 0 ||
        static_cast<uint32_t>(h->free) >= d.num) {
      dbg_cmdb(3, "No memory, %s,%s,%d. slabp=%p, page_idx=%d\n", kSrc, "__cmf_shm_alloc", __LINE__,
               static_cast<void*>(h), page);
      return 0;
    }
  }
  const uint32_t b = static_cast<uint32_t>(h->free);
  h->free = h->next_free[b];
  h->inuse += 1;
  if (h->free == -1) {
    cmf_slab_del(h, &d.partial);
    cmf_slab_add(h, &d.full);
  }
  return CMF_SHMID(page, b);
}

}  // namespace alloc

using alloc::kSrc;

extern "C" {

GK_API int cmdb_find_cache_idx(uint32_t size) noexcept { return alloc::find_cache(alloc::cache_table(), size); }

GK_API void* cmf_shm_alloc(uint32_t size, uint32_t* shmid) noexcept {
  const uint32_t id = alloc::__cmf_shm_alloc(size);
  if (id == 0) return nullptr;
  void* p = alloc::translate(id, 1);
  if (p == nullptr) {
    dbg_cmdb(3, "Critical error %s,%s,%d.\n", kSrc, "cmf_shm_alloc", __LINE__);
    return nullptr;
  }
  if (shmid != nullptr) *shmid = id;
  return p;
}

// 0 when no page is released, else what the release returns (0 or -1).
GK_API int cmf_shm_free(uint32_t shmid) noexcept {
  const uint32_t page = shmid >> 16;
  const alloc::PageMapSlot* s = alloc::cmf_update_page(page, 1);
  if (s == nullptr || s->addr == nullptr || s->len < 8) {
    dbg_cmdb(3, "Critical error %s,%s,%d.\n", kSrc, "cmf_shm_free", __LINE__);
    return 0;
  }
  auto* h = static_cast<cmdb_slab_header_t*>(s->addr);
  if (h->cache == -1) return alloc::__cmf_free_page(page);

  // Beyond the base contract: a header, block number or count that cannot be
  // right is refused rather than followed outside the slab.
  cmdb_slab_cache_table_t* ct = alloc::cache_table();
  const uint32_t b = shmid & 0xFFFF;
  if (ct == nullptr || h->cache < 0 || h->cache >= alloc::cache_count(ct) ||
      alloc::slab_bytes(ct->cache[h->cache]) > s->len || b >= ct->cache[h->cache].num || h->inuse == 0) {
    dbg_cmdb(3, "Critical error %s,%s,%d.\n", kSrc, "cmf_shm_free", __LINE__);
    return 0;
  }
  cmdb_slab_cache_t& d = ct->cache[h->cache];
  const bool was_full = h->free == -1;
  if (void* blk = alloc::translate(shmid, 1); blk != nullptr)
    memset(blk, 0, d.objsize);
  else
    dbg_cmdb(3, "Critical error %s,%s,%d.\n", kSrc, "cmf_shm_free", __LINE__);
  h->next_free[b] = h->free;
  h->free = static_cast<int32_t>(b);
  h->inuse -= 1;
  if (was_full) {
    alloc::cmf_slab_del(h, &d.full);
    alloc::cmf_slab_add(h, &d.partial);
  }
  if (h->inuse == 0) {
    // No empty slab is held back: its memory goes back at once.
    alloc::cmf_slab_del(h, &d.partial);
    return alloc::__cmf_free_page(page);
  }
  return 0;
}

GK_API void* cmf_shm_realloc(void* ptr, uint32_t size, uint32_t* shmid, int group) noexcept {
  if (shmid == nullptr) {
    dbg_cmdb(3, "Critical error %s,%s,%d.\n", kSrc, "cmf_shm_realloc", __LINE__);
    return nullptr;
  }
  const uint32_t old_id = *shmid;
  const uint32_t page = old_id >> 16;
  const alloc::PageMapSlot* s = alloc::cmf_update_page(page, 1);
  if (s == nullptr || s->addr == nullptr) {
    // No block behind the handle (0, or a released page): nothing to copy or
    // free, so this is a fresh allocation whose handle the caller receives.
    void* p = cmf_shm_alloc(size, shmid);
    return p;
  }
  cmdb_slab_cache_table_t* ct = alloc::cache_table();
  const bool large = (old_id & 0xFFFF) == CMF_SHMID_LARGE;
  if (large && ct != nullptr && size >= alloc::large_threshold(ct)) {
    // Stays large: the page file is resized in place and the handle is kept.
    if (s->len < 8 || static_cast<const cmdb_slab_header_t*>(s->addr)->cache != -1) {
      dbg_cmdb(3, "Critical error %s,%s,%d.\n", kSrc, "cmf_shm_realloc", __LINE__);
      return nullptr;
    }
    char name[16];
    snprintf(name, sizeof name, "%u", page);
    const char* path = alloc::build_path(name);
    const int32_t old_len = s->len;
    util::UniqueFd fd(::open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (!fd.valid()) {
      dbg_cmdb(3, "open file %s error %s,%s,%d.\n", path, kSrc, "cmf_shm_realloc", __LINE__);
      return nullptr;
    }
    if (size > INT32_MAX - 8 || ::ftruncate(fd.get(), off_t(size) + 8) != 0) {
      dbg_cmdb(3, "No memory %s,%s,%d.\n", kSrc, "cmf_shm_realloc", __LINE__);
      return nullptr;
    }
    void* p = ::mmap(nullptr, size_t(size) + 8, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (p == MAP_FAILED) {
      // Put the length back, so the file still matches the table for everyone.
      (void)::ftruncate(fd.get(), old_len);
      dbg_cmdb(3, "Critical error %s,%s,%d.\n", kSrc, "cmf_shm_realloc", __LINE__);
      return nullptr;
    }
    fd.reset();
    alloc::page_table()->slot[page].size = static_cast<int32_t>(size + 8);
    alloc::PageMapSlot& own = alloc::page_map()->slot[page];
    ::munmap(own.addr, size_t(own.len));
    own.addr = p;
    own.len = static_cast<int32_t>(size + 8);
    own.mode = 1;
    return static_cast<char*>(p) + 8;
  }

  // Otherwise the block moves, even within its own cache.
  const uint32_t new_id = alloc::__cmf_shm_alloc(size);
  if (new_id == 0) return nullptr;
  void* dst = alloc::translate(new_id, 1);
  if (dst == nullptr) {
    dbg_cmdb(3, "%s,%s,%d, shmid=%u.\n", kSrc, "cmf_shm_realloc", __LINE__, old_id);
    return nullptr;
  }
  int32_t cap = alloc::size_from_shmid(old_id);
  if (large) cap -= 8;  // the page length counts the block's 8-byte header
  const void* src = ptr != nullptr ? ptr : alloc::translate(old_id, 0);
  if (cap > 0 && src != nullptr) memcpy(dst, src, std::min<uint32_t>(static_cast<uint32_t>(cap), size));
  cmf_shm_free(old_id);
  if (group >= 0 && group <= 4 && *shmid != new_id) alloc::follow_locators(group, old_id, new_id);
  *shmid = new_id;
  return dst;
}

}  // extern "C"
