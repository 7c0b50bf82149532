// Rebuilding a region in place. Nothing of what it clears is read: every page
// the page table lists goes through the table (so attached processes drop
// their mappings at their next touch, as they do for any page released), the
// allocator's lists and the table limits are written as creation writes them,
// and the configuration starts empty.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "writer/config_writer.h"
#include "writer/writer_internal.h"

namespace writer {
using namespace detail;

namespace {

// The allocator's size classes, fixed by the region's format.
constexpr uint32_t kSlabSizes[CMDB_SLAB_CACHES] = {8192, 8192, 32768, 32768, 65536, 65536, 65536, 65536, 131072, 262144};

void release_pages() {
  auto* pt = pages();
  const int64_t slots = std::min<int64_t>(pt->page_max, (int64_t{cmdb.page_map_len} - 8) / 8);
  for (int64_t p = 1; p < slots; ++p) {
    cmdb_page_slot_t& s = pt->slot[p];
    // The generation moves on, and stays odd: the slot is free.
    s.gen += (s.gen & 1) != 0 ? 2 : 1;
    s.size = -1;
    char name[16];
    snprintf(name, sizeof name, "%d", static_cast<int>(p));
    cmdb_shm_remove(name);
  }
  pt->page_cnt = 0;
}

void fresh_caches() {
  auto* ct = static_cast<cmdb_slab_cache_table_t*>(cmdb.slab_caches);
  memset(ct, 0, sizeof *ct);
  ct->count = CMDB_SLAB_CACHES;
  for (uint32_t c = 0; c < CMDB_SLAB_CACHES; ++c) {
    cmdb_slab_cache_t& d = ct->cache[c];
    d.objsize = 32u << c;
    d.slab_size = kSlabSizes[c];
    d.num = (d.slab_size - sizeof(cmdb_slab_header_t)) / (d.objsize + 4);
  }
}

// One record per table node, as creation appends them, sorted by gid.
void fresh_limits(uint32_t platform) {
  auto* lim = static_cast<cmdb_table_limits_t*>(cmdb.table_limits);
  memset(lim, 0, sizeof *lim);
  const int p = static_cast<int>(platform);
  for (uint32_t gid = 1; gid < CMDB_NODE_INDEX_SLOTS && lim->count < CMDB_TABLE_LIMITS_MAX; ++gid) {
    const Node* n = node_of(gid);
    if (n == nullptr || n->kind != CMDB_KIND_TABLE) continue;
    lim->rec[lim->count++] = {gid, 0, static_cast<uint32_t>(cmdb_get_table_size(gid, p)),
                              static_cast<uint32_t>(cmdb_get_table_tsize(gid, p)),
                              static_cast<uint32_t>(cmdb_get_table_sz_warning(gid, p))};
  }
}

int fresh_locators(std::string* error) {
  for (int g = 0; g < CMDB_LOCATOR_GROUPS; ++g) {
    uint32_t shmid = 0;
    auto* l = static_cast<cmdb_locator_block_t*>(
        cmf_shm_alloc(kLocatorHead + 16 * CMDB_LOCATOR_CAPACITY, &shmid));
    if (l == nullptr) {
      *error = "no memory for the locator blocks of a region made afresh";
      return -ENOMEM;
    }
    l->kind = CMDB_BLK_LOCATOR;
    l->capacity = CMDB_LOCATOR_CAPACITY;
    cmdb.index_roots[1 + g] = shmid;
  }
  cmdb.index_roots[0] = 1;
  return 0;
}

}  // namespace

int ConfigWriter::reset() {
  if (locked_) return fail(-EALREADY, "a transaction is already open");
  const uint32_t need = CMDB_FLAG_INITIALIZED | CMDB_FLAG_OWNER;
  if ((cmdb.flags & need) != need || cmdb.header == nullptr)
    return fail(-EPERM, "only the process attached as owner (mode 2) can write");
  cmf_shm_write_lock();  // MAIN LOCK (exclusive) until commit or rollback
  locked_ = true;
  recovered_ = 0;
  events_.clear();
  mark_events_.assign(1, 0);
  std::string why;
  int r = measure_region(&why) ? 0 : -EIO;
  if (r == 0) {
    release_pages();
    fresh_caches();
    fresh_limits(cmdb.header->platform);
    for (Sub s : {Sub::kDomain, Sub::kDomainIds, Sub::kDomainNames}) memset(sub_region(s).p, 0, sub_region(s).size);
    r = fresh_locators(&why);
  }
  // Whatever a dead writer left is gone with the rest.
  cmdb.header->change_pid = 0;
  ::unlink(kJournalPath);
  set_cmdb_nxt_update();
  if (r != 0) {
    end_transaction();
    return fail(r, "%s", why.c_str());
  }
  tx_->open();
  return 0;
}

}  // namespace writer
