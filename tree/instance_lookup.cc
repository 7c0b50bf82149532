// Read-side searches over instance blocks: child instances of an object or a
// table entry, the entry locator, devices, services and the filter match. They
// keep no state and take no lock: the caller holds the main lock shared across
// the lookup and the use of its result (exclusive to write through a slot).
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "tree/tree_internal.h"
#include "util/util_internal.h"

namespace tree {
namespace {

struct Slots {
  uint32_t* first;
  int n;
};

uint32_t* entry_slots(cmdb_table_block_t* t, int pos) {
  return static_cast<cmdb_entry_t*>(cmf_get_table_entry(t, static_cast<uint32_t>(pos)))->child;
}

// The child slots of a parent block for cmdb_find_child_obj, or none.
bool child_slots(void* parent, const void* key, int pos, Slots* out) {
  switch (*static_cast<const uint32_t*>(parent)) {
    case CMDB_BLK_OBJECT: {
      auto* o = static_cast<cmdb_object_block_t*>(parent);
      *out = {o->child, o->nchild};
      return true;
    }
    case CMDB_BLK_TABLE: {
      auto* t = static_cast<cmdb_table_block_t*>(parent);
      if (key != nullptr) {
        // Quietly: a table without a usable index simply has no such entry.
        auto* ix = static_cast<cmdb_entry_index_t*>(cmf_ptr_from_shmid(t->index, 0));
        if (ix == nullptr || *reinterpret_cast<const uint8_t*>(ix) != CMDB_BLK_INDEX) return false;
        pos = __cmf_svr_find_entry_by_index(t, &t->index, &ix, key);
      }
      if (pos < 0 || pos >= t->count) {
        const util::Site& at = util::site::kChildPosition;
        if (pos > t->count)
          util::log(4, "Warn in %s,%s,%d, table%d,cnt=%d,pos=%d.\n", at.source, at.function, at.line, t->gid,
                    t->count, pos);
        return false;
      }
      *out = {entry_slots(t, pos), t->nchild};
      return true;
    }
    default:
      return false;
  }
}

// The gid a child instance block names.
uint32_t block_gid(const void* block) {
  const auto* w = static_cast<const uint32_t*>(block);
  switch (w[0]) {
    case CMDB_BLK_OBJECT:
    case CMDB_BLK_TABLE:
      return w[offsetof(cmdb_object_block_t, gid) / sizeof(uint32_t)];
    case CMDB_BLK_OTHER:
      return w[1];
    default:
      return 0;
  }
}
static_assert(offsetof(cmdb_object_block_t, gid) == offsetof(cmdb_table_block_t, gid));

// First child block in the slots whose u16 gid (where objects and tables keep
// it) is gid. Slots that translate to nothing are passed over.
void* child_table(const uint32_t* slot, int n, uint32_t gid) {
  for (int i = 0; i < n; ++i) {
    auto* block = static_cast<uint8_t*>(cmf_ptr_from_shmid(slot[i], 0));
    if (block == nullptr) continue;
    uint16_t g;
    memcpy(&g, block + offsetof(cmdb_object_block_t, gid), sizeof g);
    if (g == static_cast<uint16_t>(gid)) return block;
  }
  return nullptr;
}

bool strings_equal(const char* a, const char* b, size_t n, bool fold_case) {
  return (fold_case ? strncasecmp(a, b, n) : strncmp(a, b, n)) == 0;
}

}  // namespace
}  // namespace tree

extern "C" {

// The slot of the child of `parent` (an object, or the entry of a table found
// by key or else by position) whose block names gid; a writer may replace the
// shmid through it.
GK_API uint32_t* cmdb_find_child_obj(void* parent, uint32_t gid, const void* key, int pos) noexcept {
  if (parent == nullptr) return nullptr;
  tree::Slots slots;
  if (!tree::child_slots(parent, key, pos, &slots)) return nullptr;
  for (int i = 0; i < slots.n; ++i) {
    const void* child = cmf_ptr_from_shmid(slots.first[i], 0);
    if (child != nullptr && static_cast<uint16_t>(tree::block_gid(child)) == static_cast<uint16_t>(gid))
      return slots.first + i;
  }
  return nullptr;
}

GK_API uint32_t* cmdb_find_child_entity(uint32_t parent_shmid, uint32_t gid, const void* key) noexcept {
  return cmdb_find_child_obj(cmf_ptr_from_shmid(parent_shmid, 0), gid, key, 0);
}

// Child slots sit where every entry keeps them, 8 bytes in.
GK_API void* cmf_find_table_child_table(void* table, int pos, uint32_t gid) noexcept {
  if (table == nullptr) return nullptr;
  auto* t = static_cast<cmdb_table_block_t*>(table);
  if (static_cast<uint32_t>(pos) >= static_cast<uint32_t>(t->count)) return nullptr;
  return tree::child_table(tree::entry_slots(t, pos), t->nchild, gid);
}

// Child slots sit where every object keeps them, 12 bytes in.
GK_API void* cmf_find_obj_child_table(void* obj, uint32_t gid) noexcept {
  if (obj == nullptr) return nullptr;
  auto* o = static_cast<cmdb_object_block_t*>(obj);
  return tree::child_table(o->child, o->nchild, gid);
}

// The locator record of an entry by its ngid, whose top byte names the entry
// group and so the locator block; all zero when there is none.
GK_API cmdb_locator_rec_t cmdb_entry_from_index(uint32_t ngid) noexcept {
  cmdb_locator_rec_t none = {0, 0, 0, 0};
  const uint32_t group = ngid >> CMDB_NGID_GROUP_SHIFT;
  if (cmdb.index_roots == nullptr || group >= CMDB_LOCATOR_GROUPS) return none;
  auto* block = static_cast<cmdb_locator_block_t*>(cmf_ptr_from_shmid(cmdb.index_roots[1 + group], 0));
  if (block == nullptr) return none;
  const int rec = cmf_svr_find_entry_index(block, ngid);
  return rec < 0 ? none : block->rec[rec];
}

GK_API void* cmf_find_device_entry(uint32_t id) noexcept {
  auto* d = static_cast<cmdb_device_table_t*>(cmdb.devices);
  if (d == nullptr) return nullptr;
  const int count = d->count < CMDB_DEVICES_MAX ? d->count : CMDB_DEVICES_MAX;
  int lo = 0, hi = count - 1;
  while (lo <= hi) {
    const int mid = (lo + hi) / 2;
    const int number = d->order[mid];  // 1-based; anything else is damage
    if (number < 1 || number > CMDB_DEVICES_MAX) return nullptr;
    uint8_t* rec = d->rec[number - 1];
    uint32_t rec_id;
    memcpy(&rec_id, rec, sizeof rec_id);
    const auto diff = static_cast<int32_t>(rec_id - id);
    if (diff == 0) return rec;
    if (diff > 0)
      hi = mid - 1;
    else
      lo = mid + 1;
  }
  return nullptr;
}

GK_API void* cmf_find_service_by_gid(uint32_t gid) noexcept {
  if (cmdb.services == nullptr) return nullptr;
  return bsearch(&gid, cmdb.services, CMDB_SERVICES, CMDB_SERVICE_SIZE, [](const void* k, const void* rec) {
    uint32_t a = *static_cast<const uint32_t*>(k), b;
    memcpy(&b, rec, sizeof b);
    return a < b ? -1 : a > b ? 1 : 0;
  });
}

// 1 when the entry's attribute equals the filter's value. The attribute must be
// a direct child of the table's node. Strings compare within their field.
GK_API int cmf_shm_match_filter(void* table, int pos, const void* filter) noexcept {
  if (table == nullptr || filter == nullptr) return 0;
  auto* t = static_cast<cmdb_table_block_t*>(table);
  if (pos < 0 || pos >= t->count) return 0;
  const cmdb_node_t* tnode = tree::find_node(t->gid);
  const auto* f = static_cast<const cmdb_filter_t*>(filter);
  const cmdb_node_t* attr = tnode == nullptr ? nullptr : cmdb_find_child_node(tnode, f->gid);
  if (attr == nullptr) return 0;
  const char* value = static_cast<const char*>(cmf_get_entry_data(table, static_cast<uint32_t>(pos))) + attr->offset;
  const auto* wanted = reinterpret_cast<const char*>(f->value);
  switch (attr->type) {
    case CMDB_TYPE_TEXT:
      return tree::strings_equal(value, wanted, attr->size, false);
    case CMDB_TYPE_STRING:
    case CMDB_TYPE_LIST:
      return tree::strings_equal(value, wanted, attr->size, (tnode->flags & CMDB_NODE_NOCASE) != 0);
    default:
      return memcmp(value, wanted, attr->size) == 0;
  }
}

}  // extern "C"
