// The table-limits block in cmdb_global: this platform's limits of every table
// node, sorted by gid, next to each table's live entry count. The creating
// process fills it once; the getters below serve every process afterwards.
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>

#include "gikraidrum.h"
#include "tree/tree_internal.h"

namespace tree {

// What the getters answer for a table without limits.
constexpr uint32_t kNoLimit = UINT32_MAX;

namespace {

// Records the block can hold, whatever its count says: a damaged count must not
// take a search past the end of cmdb_global's table-limits area.
int record_count(const cmdb_table_limits_t* t) { return std::min<int>(t->count, CMDB_TABLE_LIMITS_MAX); }

int compare_gids(const void* a, const void* b) {
  return static_cast<int32_t>(static_cast<const cmdb_table_limit_t*>(a)->gid -
                              static_cast<const cmdb_table_limit_t*>(b)->gid);
}

// REQUIRES: main lock held shared.
int find_pos(const cmdb_table_limits_t* t, uint32_t gid) {
  if (t == nullptr) return -1;
  const uint32_t sought = gid & 0xFFFF;
  int32_t low = 0, high = record_count(t) - 1;
  while (low <= high) {
    const int32_t mid = (low + high) / 2;
    const auto diff = static_cast<int32_t>(sought - t->rec[mid].gid);
    if (diff == 0) return mid;
    if (diff > 0)
      low = mid + 1;
    else
      high = mid - 1;
  }
  return -1;
}

cmdb_table_limits_t* shared_limits() { return static_cast<cmdb_table_limits_t*>(cmdb.table_limits); }

// REQUIRES: main lock held shared.
cmdb_table_limit_t* find_record(uint32_t gid) {
  cmdb_table_limits_t* t = shared_limits();
  const int pos = find_pos(t, gid);
  return pos < 0 ? nullptr : &t->rec[pos];
}

}  // namespace

int table_limits_append(cmdb_table_limits_t* limits, uint32_t gid, uint32_t platform) {
  if (limits == nullptr || limits->count >= CMDB_TABLE_LIMITS_MAX) return -1;
  // A platform index beyond int's range still reads as "above 29" to the lookup.
  const auto p = static_cast<int>(platform);
  cmdb_table_limit_t& r = limits->rec[limits->count];
  r.gid = gid & 0xFFFF;
  r.tcnt = 0;
  r.size = static_cast<uint32_t>(cmdb_get_table_size(gid, p));
  r.tsize = static_cast<uint32_t>(cmdb_get_table_tsize(gid, p));
  r.sz_warning = static_cast<uint32_t>(cmdb_get_table_sz_warning(gid, p));
  ++limits->count;
  return 0;
}

void table_limits_sort(cmdb_table_limits_t* limits) {
  if (limits == nullptr) return;
  ::qsort(limits->rec, static_cast<size_t>(record_count(limits)), sizeof(cmdb_table_limit_t), compare_gids);
}

}  // namespace tree

extern "C" {

GK_API int cmf_get_table_tcnt_pos(uint32_t gid) noexcept {
  return tree::find_pos(tree::shared_limits(), gid);
}

GK_API cmdb_table_limit_t* cmf_get_tablesize(uint32_t gid) noexcept { return tree::find_record(gid); }

GK_API uint32_t cmf_get_table_tcnt(uint32_t gid) noexcept {
  const cmdb_table_limit_t* r = tree::find_record(gid);
  return r == nullptr ? tree::kNoLimit : r->tcnt;
}

GK_API uint32_t cmf_get_max_table_entry(uint32_t gid) noexcept {
  const cmdb_table_limit_t* r = tree::find_record(gid);
  return r == nullptr ? tree::kNoLimit : r->size;
}

GK_API uint32_t cmf_get_max_table_tentry(uint32_t gid) noexcept {
  const cmdb_table_limit_t* r = tree::find_record(gid);
  return r == nullptr ? tree::kNoLimit : r->tsize;
}

}  // extern "C"
