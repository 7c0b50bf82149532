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
// The slab header, then per block a free-chain link and the block.
constexpr uint32_t objects_per_slab(SizeClass c) {
  return static_cast<uint32_t>((c.slab_size - kSlabHead) / (c.objsize + sizeof(int32_t)));
}
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
  if (s == nullptr || s->addr == nullptr || s->len < static_cast<int32_t>(kSlabHead)) return nullptr;
  auto* h = static_cast<cmdb_slab_header_t*>(s->addr);
  if (h->cache < 0 || h->cache >= cache_count(ct) || slab_bytes(ct->cache[h->cache]) > s->len) return nullptr;
  return h;
}

// REQUIRES: main lock held exclusive (for all that follows).
void cmf_slab_add(cmdb_slab_header_t* slab, cmdb_slab_list_t* list) {
  if (list->head != 0) {
    cmdb_slab_header_t* old_head = slab_for_write(list->head);
    if (old_head == nullptr) {
      util::log_alarm("Critical error", kSrc, "cmf_slab_add");
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
    util::log_alarm("Critical error", kSrc, "cmf_slab_del");
    return;
  }
  if (slab->next != 0) {
    if ((succ = slab_for_write(slab->next)) == nullptr) {
      util::log_alarm("Critical error", kSrc, "cmf_slab_del");
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
  *page = alloc_page(len);
  if (*page < 0) return nullptr;
  const PageMapSlot* s = cmf_update_page(static_cast<uint32_t>(*page), 1);
  return s != nullptr ? s->addr : nullptr;
}

// Where the locator records of an entry group point at a block that moved.
void follow_locators(int group, uint32_t old_id, uint32_t new_id) {
  if (cmdb.index_roots == nullptr) return;
  const uint32_t locator = cmdb.index_roots[1 + group];
  auto* blk = static_cast<cmdb_locator_block_t*>(translate(locator, 1));
  if (blk == nullptr) return;
  int32_t cap = size_from_shmid(locator);
  if (CMF_SHMID_BLKNO(locator) == CMF_SHMID_LARGE) cap -= static_cast<int32_t>(kLargeHead);
  constexpr int32_t kHead = offsetof(cmdb_locator_block_t, rec);
  if (cap < kHead) return;
  // The count is trusted only as far as the block reaches.
  const uint32_t count =
      std::min<uint32_t>(blk->count, static_cast<uint32_t>(cap - kHead) / sizeof(cmdb_locator_rec_t));
  for (uint32_t i = 0; i < count; ++i)
    if (blk->rec[i].shmid == old_id) blk->rec[i].shmid = new_id;
}

// The last cache's objsize: requests this large get a page of their own.
uint32_t large_threshold(const cmdb_slab_cache_table_t* ct) {
  int n = cache_count(ct);
  return n > 0 ? ct->cache[n - 1].objsize : 0;
}

// A large block that stays large: its page file is resized in place and the
// handle is kept. The new address, or null (the old block stays as it was).
void* resize_in_place(const PageMapSlot& s, uint32_t id, uint32_t size) {
  const uint32_t page = CMF_SHMID_PAGE(id);
  if (s.len < static_cast<int32_t>(kLargeHead) || static_cast<const cmdb_large_header_t*>(s.addr)->cache != -1) {
    util::log_alarm("Critical error", kSrc, "cmf_shm_realloc");
    return nullptr;
  }
  char name[16];
  snprintf(name, sizeof name, "%u", page);
  const char* path = build_path(name);
  const int32_t old_len = s.len;
  util::UniqueFd fd(::open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0666));
  if (!fd.valid()) {
    util::log(3, "open file %s error %s,%s,%d.\n", path, kSrc, "cmf_shm_realloc", __LINE__);
    return nullptr;
  }
  const uint32_t len = size + kLargeHead;
  if (size > INT32_MAX - kLargeHead || ::ftruncate(fd.get(), off_t{len}) != 0) {
    util::log_alarm("No memory", kSrc, "cmf_shm_realloc");
    return nullptr;
  }
  void* p = ::mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (p == MAP_FAILED) {
    // Put the length back, so the file still matches the table for everyone.
    (void)::ftruncate(fd.get(), old_len);
    util::log_alarm("Critical error", kSrc, "cmf_shm_realloc");
    return nullptr;
  }
  fd.reset();
  // The gen stays: other processes remap at their next translation because the size changed.
  page_table()->slot[page].size = static_cast<int32_t>(len);
  PageMapSlot& own = page_map()->slot[page];
  ::munmap(own.addr, size_t(own.len));
  own = PageMapSlot{own.gen, 1, static_cast<int32_t>(len), p};
  return static_cast<char*>(p) + kLargeHead;
}

// Moves the block to a new one of `size` bytes, even within its own cache, and
// frees the old one. The new block's address and *new_id, or null with
// nothing changed.
void* move_block(const void* ptr, uint32_t old_id, uint32_t size, uint32_t* new_id) {
  *new_id = alloc_block(size);
  if (*new_id == 0) return nullptr;
  void* dst = translate(*new_id, 1);
  if (dst == nullptr) {
    util::log(3, "%s,%s,%d, shmid=%u.\n", kSrc, "cmf_shm_realloc", __LINE__, old_id);
    return nullptr;
  }
  int32_t cap = size_from_shmid(old_id);
  if (CMF_SHMID_BLKNO(old_id) == CMF_SHMID_LARGE) cap -= static_cast<int32_t>(kLargeHead);
  const void* src = ptr != nullptr ? ptr : translate(old_id, 0);
  if (cap > 0 && src != nullptr) memcpy(dst, src, std::min<uint32_t>(static_cast<uint32_t>(cap), size));
  cmf_shm_free(old_id);
  return dst;
}

}  // namespace

void write_cache_table_image(cmdb_slab_cache_table_t* t) {
  memset(t, 0, sizeof *t);
  t->count = CMDB_SLAB_CACHES;
  for (int c = 0; c < CMDB_SLAB_CACHES; ++c) {
    t->cache[c].objsize = kSizeClasses[c].objsize;
    t->cache[c].slab_size = kSizeClasses[c].slab_size;
    t->cache[c].num = objects_per_slab(kSizeClasses[c]);
  }
}

namespace {

// A large block: a page of its own. Its handle, or 0 (logged).
uint32_t alloc_large(uint32_t size) {
  int32_t page = -1;
  void* p = size <= INT32_MAX - kLargeHead ? new_page(size + kLargeHead, &page) : nullptr;
  if (p == nullptr) {
    util::log_alarm("No memory,", kSrc, "__cmf_shm_alloc");
    return 0;
  }
  *static_cast<cmdb_large_header_t*>(p) = cmdb_large_header_t{-1, static_cast<uint32_t>(page)};
  return CMF_SHMID(page, CMF_SHMID_LARGE);
}

// The slab of cache c to take a block from, its page number in *page: the head
// of its partial list, or a new slab pushed there with every block on its free
// chain. Null (logged).
cmdb_slab_header_t* slab_with_room(int c, cmdb_slab_cache_t& d, int32_t* page) {
  if (d.partial.head != 0) {
    *page = static_cast<int32_t>(d.partial.head);
    cmdb_slab_header_t* h = slab_for_write(d.partial.head);
    if (h == nullptr || h->cache != c || h->inuse >= d.num || h->free < 0 ||
        static_cast<uint32_t>(h->free) >= d.num) {
      util::log(3, "No memory, %s,%s,%d. slabp=%p, page_idx=%d\n", kSrc, "__cmf_shm_alloc", __LINE__,
                static_cast<void*>(h), static_cast<int>(d.partial.head));
      return nullptr;
    }
    return h;
  }
  // A descriptor whose slab would not fit its page gets no page at all.
  const bool sane = d.num > 0 && d.slab_size <= INT32_MAX && slab_bytes(d) <= d.slab_size;
  auto* h = static_cast<cmdb_slab_header_t*>(sane ? new_page(d.slab_size, page) : nullptr);
  if (h == nullptr) {
    util::log_alarm("No memory,", kSrc, "__cmf_shm_alloc");
    return nullptr;
  }
  h->cache = c;
  h->page = static_cast<uint32_t>(*page);
  h->inuse = 0;
  h->free = 0;
  for (uint32_t i = 0; i + 1 < d.num; ++i) h->next_free[i] = static_cast<int32_t>(i + 1);
  h->next_free[d.num - 1] = -1;
  cmf_slab_add(h, &d.partial);
  return h;
}

}  // namespace

uint32_t alloc_block(uint32_t size) {
  cmdb_slab_cache_table_t* ct = cache_table();
  const int c = find_cache(ct, size);
  if (ct == nullptr) {
    util::log_alarm("No memory,", kSrc, "__cmf_shm_alloc");
    return 0;
  }
  if (c < 0) return alloc_large(size);
  cmdb_slab_cache_t& d = ct->cache[c];
  int32_t page = -1;
  cmdb_slab_header_t* h = slab_with_room(c, d, &page);
  if (h == nullptr) return 0;
  // The first free block of the newest slab: no search.
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
  const uint32_t id = alloc::alloc_block(size);
  if (id == 0) return nullptr;
  void* p = alloc::translate(id, 1);
  if (p == nullptr) {
    util::log_alarm("Critical error", kSrc, "cmf_shm_alloc");
    return nullptr;
  }
  if (shmid != nullptr) *shmid = id;
  return p;
}

// 0 when no page is released, else what the release returns (0 or -1).
GK_API int cmf_shm_free(uint32_t shmid) noexcept {
  const uint32_t page = CMF_SHMID_PAGE(shmid);
  const alloc::PageMapSlot* s = alloc::cmf_update_page(page, 1);
  if (s == nullptr || s->addr == nullptr || s->len < static_cast<int32_t>(alloc::kLargeHead)) {
    util::log_alarm("Critical error", kSrc, "cmf_shm_free");
    return 0;
  }
  auto* h = static_cast<cmdb_slab_header_t*>(s->addr);
  if (h->cache == -1) return alloc::free_page(page);

  // Beyond the base contract: a header, block number or count that cannot be
  // right is refused rather than followed outside the slab.
  cmdb_slab_cache_table_t* ct = alloc::cache_table();
  const uint32_t b = CMF_SHMID_BLKNO(shmid);
  if (ct == nullptr || h->cache < 0 || h->cache >= alloc::cache_count(ct) ||
      alloc::slab_bytes(ct->cache[h->cache]) > s->len || b >= ct->cache[h->cache].num || h->inuse == 0) {
    util::log_alarm("Critical error", kSrc, "cmf_shm_free");
    return 0;
  }
  cmdb_slab_cache_t& d = ct->cache[h->cache];
  const bool was_full = h->free == -1;
  if (void* blk = alloc::translate(shmid, 1); blk != nullptr)
    memset(blk, 0, d.objsize);
  else
    util::log_alarm("Critical error", kSrc, "cmf_shm_free");
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
    return alloc::free_page(page);
  }
  return 0;
}

GK_API void* cmf_shm_realloc(void* ptr, uint32_t size, uint32_t* shmid, int group) noexcept {
  if (shmid == nullptr) {
    util::log_alarm("Critical error", kSrc, "cmf_shm_realloc");
    return nullptr;
  }
  const uint32_t old_id = *shmid;
  const alloc::PageMapSlot* s = alloc::cmf_update_page(CMF_SHMID_PAGE(old_id), 1);
  // No block behind the handle (0, or a released page): nothing to copy or
  // free, so this is a fresh allocation whose handle the caller receives.
  if (s == nullptr || s->addr == nullptr) return cmf_shm_alloc(size, shmid);
  const cmdb_slab_cache_table_t* ct = alloc::cache_table();
  const bool large = CMF_SHMID_BLKNO(old_id) == CMF_SHMID_LARGE;
  if (large && ct != nullptr && size >= alloc::large_threshold(ct)) return alloc::resize_in_place(*s, old_id, size);
  uint32_t new_id = 0;
  void* moved = alloc::move_block(ptr, old_id, size, &new_id);
  if (moved == nullptr) return nullptr;
  if (group >= 0 && group < CMDB_LOCATOR_GROUPS && *shmid != new_id) alloc::follow_locators(group, old_id, new_id);
  *shmid = new_id;
  return moved;
}

}  // extern "C"
