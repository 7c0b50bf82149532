// Instance blocks as the writer lays them out: node records read through the
// node index, table and object blocks, root blocks with their capacity in the
// first u16, locator records, and the freeing of whole subtrees.
#include <string.h>

#include <algorithm>

#include "writer/writer_internal.h"

namespace writer::detail {
namespace {

constexpr uint32_t kTableHead = offsetof(cmdb_table_block_t, entries);
constexpr uint32_t kRootHead = offsetof(cmdb_root_block_t, entry);
constexpr uint32_t kLocatorHead = offsetof(cmdb_locator_block_t, rec);
constexpr int kIndexSlots = 16;  // a new entry index has room for this many before it grows
constexpr uint32_t kNodeIndexSlots = 1861;

template <class T>
T* block(uint32_t shmid) {
  return shmid == 0 ? nullptr : static_cast<T*>(cmf_ptr_from_shmid(shmid, 1));
}

uint32_t entry_size(const cmdb_node_t* table, uint32_t nchild) { return table->size + 4 * nchild + 8; }

// Growth of every array here: half again, at least `step`.
uint32_t grown(uint32_t have, uint32_t need, uint32_t step) {
  return std::max(need, have + std::max(step, have / 2));
}

}  // namespace

const cmdb_node_t* node_of(uint32_t gid) {
  const uint16_t g = static_cast<uint16_t>(gid);
  // The node index has 1861 slots, so gid 1861 has none: it is no node here.
  if (g == 0 || g >= kNodeIndexSlots || cmdb.cmdb_node_index == nullptr || cmdb.cmdb_node == nullptr)
    return nullptr;
  const cmdb_node_t* n = node_at(static_cast<const uint32_t*>(cmdb.cmdb_node_index)[g]);
  return n != nullptr && n->gid == g ? n : nullptr;
}

const cmdb_node_t* node_at(uint32_t offset) {
  if (offset == 0 || cmdb.cmdb_node == nullptr) return nullptr;
  return reinterpret_cast<const cmdb_node_t*>(static_cast<const char*>(cmdb.cmdb_node) + offset);
}

uint32_t offset_of(const cmdb_node_t* node) {
  return static_cast<uint32_t>(reinterpret_cast<const char*>(node) -
                               static_cast<const char*>(cmdb.cmdb_node));
}

const cmdb_node_t* slot_owner(const cmdb_node_t* node) {
  if (!is_table(node)) return node;
  return node->nchild > 0 ? node_at(node->child[0]) : nullptr;
}

// Walks the children as cmf_node_child_size counts them, so slot numbers agree
// with the nchild of the blocks.
int child_slot(const cmdb_node_t* node, uint16_t gid) {
  const cmdb_node_t* owner = slot_owner(node);
  if (owner == nullptr) return -1;
  int slot = 0;
  for (int i = 0; i < owner->nchild; ++i) {
    const cmdb_node_t* c = node_at(owner->child[i]);
    if (c == nullptr) break;
    if (!takes_slot(c)) continue;
    if (c->gid == gid) return slot;
    ++slot;
  }
  return -1;
}

const cmdb_node_t* key_node(const cmdb_node_t* table) {
  const cmdb_node_t* entry = slot_owner(table);
  if (entry == nullptr) return nullptr;
  for (int i = 0; i < entry->nchild; ++i) {
    const cmdb_node_t* c = node_at(entry->child[i]);
    if (c == nullptr) break;
    if (c->offset == entry->offset && c->size > 0 && !takes_slot(c) && !has_default_block(c) && c->kind != 10)
      return c;
  }
  return entry;
}

int entry_group(uint16_t gid) {
  const int g = cmdb_get_table_entry_grp(gid);
  return g >= 0 && g < kGroups ? g : 0;
}

cmdb_table_block_t* new_table(const cmdb_node_t* table, uint32_t* shmid) {
  const cmdb_node_t* key = key_node(table);
  if (key == nullptr) return nullptr;
  const uint32_t nchild = cmf_node_child_size(table);
  constexpr uint32_t kFirstRoom = 4;
  uint32_t index_shmid = 0, table_shmid = 0;
  auto* ix = static_cast<cmdb_entry_index_t*>(
      cmf_shm_alloc(offsetof(cmdb_entry_index_t, slot) + 4 * kIndexSlots, &index_shmid));
  if (ix == nullptr) return nullptr;
  auto* t = static_cast<cmdb_table_block_t*>(
      cmf_shm_alloc(kTableHead + entry_size(table, nchild) * kFirstRoom, &table_shmid));
  if (t == nullptr) {
    cmf_shm_free(index_shmid);
    return nullptr;
  }
  ix->kind = CMDB_BLK_INDEX;
  ix->key_gid = key->gid;
  ix->capacity = kIndexSlots;
  t->kind = CMDB_BLK_TABLE;
  t->gid = table->gid;
  t->nchild = static_cast<uint8_t>(nchild);
  t->index = index_shmid;
  table_room(t) = kFirstRoom;
  *shmid = table_shmid;
  return t;
}

cmdb_object_block_t* new_object(const cmdb_node_t* node, uint32_t* shmid) {
  const uint32_t nchild = cmf_node_child_size(node);
  uint32_t id = 0;
  auto* o = static_cast<cmdb_object_block_t*>(cmf_shm_alloc(12 + 4 * nchild + node->size, &id));
  if (o == nullptr) return nullptr;
  o->kind = CMDB_BLK_OBJECT;
  o->gid = node->gid;
  o->nchild = static_cast<uint16_t>(nchild);
  // Only these kinds have a default block; for others the bytes after the
  // record's children are the next record.
  if (has_default_block(node)) copy_cmdb_default(node, cmf_get_obj_data(o), 0);
  *shmid = id;
  return o;
}

cmdb_table_block_t* table_reserve(cmdb_table_block_t* t, uint32_t* slot, uint32_t entries) {
  if (table_room(t) >= entries) return t;
  const uint32_t room = grown(table_room(t), entries, 4);
  const uint32_t bytes = kTableHead + cmf_get_entry_size(t) * room;
  auto* moved = static_cast<cmdb_table_block_t*>(cmf_shm_realloc(t, bytes, slot, entry_group(t->gid)));
  if (moved == nullptr) return nullptr;
  table_room(moved) = room;
  return moved;
}

cmdb_table_block_t* table_trim(cmdb_table_block_t* t, uint32_t* slot) {
  const uint32_t count = static_cast<uint32_t>(t->count), room = table_room(t);
  if (room <= 8 || count * 2 >= room) return t;
  const uint32_t keep = std::max<uint32_t>(4, count + count / 2);
  const uint32_t bytes = kTableHead + cmf_get_entry_size(t) * keep;
  auto* moved = static_cast<cmdb_table_block_t*>(cmf_shm_realloc(t, bytes, slot, entry_group(t->gid)));
  if (moved == nullptr) return t;  // the block keeps its room
  table_room(moved) = keep;
  return moved;
}

void free_tree(uint32_t shmid) {
  auto* b = block<uint8_t>(shmid);
  if (b == nullptr) return;
  if (b[0] == CMDB_BLK_OBJECT) {
    auto* o = reinterpret_cast<cmdb_object_block_t*>(b);
    for (uint32_t i = 0; i < o->nchild; ++i) free_tree(o->child[i]);
  } else if (b[0] == CMDB_BLK_TABLE) {
    auto* t = reinterpret_cast<cmdb_table_block_t*>(b);
    for (int32_t pos = 0; pos < t->count; ++pos) {
      auto* e = static_cast<cmdb_entry_t*>(cmf_get_table_entry(t, static_cast<uint32_t>(pos)));
      for (uint32_t i = 0; i < t->nchild; ++i) free_tree(e->child[i]);
      locator_remove(e->ngid);
    }
    tcnt_add(t->gid, -t->count);
    if (t->index != 0) cmf_shm_free(t->index);
  }
  cmf_shm_free(shmid);
}

uint32_t* root_home(uint32_t domain) {
  auto* table = static_cast<cmdb_domain_table_t*>(cmdb.domain);
  if (table == nullptr) return nullptr;
  if (domain == 0) return &table->global_root;
  const int rec = __cmdb_find_domain_by_id(domain, 0);
  return rec < 0 ? nullptr : &table->rec[rec].root;
}

cmdb_root_block_t* new_root(uint32_t* home) {
  constexpr uint16_t kFirstRoom = 4;
  auto* r = static_cast<cmdb_root_block_t*>(cmf_shm_alloc(kRootHead + 8 * kFirstRoom, home));
  if (r != nullptr) r->unused = kFirstRoom;
  return r;
}

namespace {
// Insertion point of gid among the root entries (the entry itself when present).
int root_lower_bound(const cmdb_root_block_t* r, uint16_t gid) {
  const cmdb_root_entry_t* end = r->entry + r->count;
  return static_cast<int>(
      std::lower_bound(r->entry, end, gid, [](const cmdb_root_entry_t& e, uint16_t g) { return e.gid < g; }) -
      r->entry);
}
}  // namespace

uint32_t* root_slot(uint32_t* home, uint16_t gid) {
  auto* r = block<cmdb_root_block_t>(*home);
  if (r == nullptr) return nullptr;
  const int at = root_lower_bound(r, gid);
  return at < r->count && r->entry[at].gid == gid ? &r->entry[at].shmid : nullptr;
}

uint32_t* root_add(uint32_t* home, uint16_t gid, uint32_t shmid) {
  auto* r = block<cmdb_root_block_t>(*home);
  if (r == nullptr) return nullptr;
  // A root block made elsewhere may not record its capacity: it is full then.
  const uint32_t room = std::max<uint32_t>(r->unused, r->count);
  if (room <= r->count) {
    const uint32_t more = std::min<uint32_t>(grown(room, r->count + 1u, 4), 0xFFFF);
    if (more <= r->count) return nullptr;
    r = static_cast<cmdb_root_block_t*>(cmf_shm_realloc(r, kRootHead + 8 * more, home, -1));
    if (r == nullptr) return nullptr;
    r->unused = static_cast<uint16_t>(more);
  }
  const int at = root_lower_bound(r, gid);
  memmove(&r->entry[at + 1], &r->entry[at], sizeof(cmdb_root_entry_t) * static_cast<size_t>(r->count - at));
  r->entry[at] = {gid, 0, shmid};
  r->count++;
  return &r->entry[at].shmid;
}

void root_drop(uint32_t* home, uint16_t gid) {
  auto* r = block<cmdb_root_block_t>(*home);
  if (r == nullptr) return;
  const int at = root_lower_bound(r, gid);
  if (at >= r->count || r->entry[at].gid != gid) return;
  memmove(&r->entry[at], &r->entry[at + 1],
          sizeof(cmdb_root_entry_t) * static_cast<size_t>(r->count - at - 1));
  r->count--;
  r->entry[r->count] = {};
}

cmdb_locator_block_t* locator(int group) {
  if (cmdb.index_roots == nullptr || group < 0 || group >= kGroups) return nullptr;
  return block<cmdb_locator_block_t>(cmdb.index_roots[1 + group]);
}

bool locator_reserve(int group) {
  if (cmdb.index_roots == nullptr || group < 0 || group >= kGroups) return false;
  uint32_t* home = &cmdb.index_roots[1 + group];
  cmdb_locator_block_t* l = locator(group);
  if (l == nullptr) {
    // Creation makes all five; one that failed then is made now.
    constexpr uint32_t kFirstRoom = 16;
    l = static_cast<cmdb_locator_block_t*>(cmf_shm_alloc(kLocatorHead + 16 * kFirstRoom, home));
    if (l == nullptr) return false;
    l->kind = CMDB_BLK_LOCATOR;
    l->capacity = kFirstRoom;
  }
  if (l->count < l->capacity) return true;
  const uint32_t room = grown(l->capacity, l->count + 1, 16);
  l = static_cast<cmdb_locator_block_t*>(cmf_shm_realloc(l, kLocatorHead + 16 * room, home, -1));
  if (l == nullptr) return false;
  l->capacity = room;
  return true;
}

uint32_t next_ngid(int group) {
  const uint32_t top = static_cast<uint32_t>(group) << 24;
  const cmdb_locator_block_t* l = locator(group);
  if (l == nullptr || l->count == 0) return top | 1;
  const uint32_t last = l->rec[l->count - 1].ngid & kMaxSerial;
  if (last < kMaxSerial) return top | (last + 1);
  // Serials are sorted: the first record whose serial is above its rank
  // follows a gap.
  uint32_t want = 1;
  for (uint32_t i = 0; i < l->count; ++i, ++want)
    if ((l->rec[i].ngid & kMaxSerial) != want) return top | want;
  return want <= kMaxSerial ? top | want : 0;
}

void locator_add(const cmdb_locator_rec_t& rec) {
  cmdb_locator_block_t* l = locator(static_cast<int>(rec.ngid >> 24));
  if (l == nullptr || l->count >= l->capacity) return;
  // Signed differences order the records, as the readers' search expects.
  cmdb_locator_rec_t* first = l->rec;
  cmdb_locator_rec_t* at = std::lower_bound(
      first, first + l->count, rec.ngid,
      [](const cmdb_locator_rec_t& r, uint32_t ngid) { return static_cast<int32_t>(r.ngid - ngid) < 0; });
  const size_t i = static_cast<size_t>(at - l->rec);
  memmove(&l->rec[i + 1], &l->rec[i], sizeof(cmdb_locator_rec_t) * (l->count - i));
  l->rec[i] = rec;
  l->count++;
}

void locator_remove(uint32_t ngid) {
  cmdb_locator_block_t* l = locator(static_cast<int>(ngid >> 24));
  if (l == nullptr) return;
  const int i = cmf_svr_find_entry_index(l, ngid);
  if (i < 0) return;
  memmove(&l->rec[i], &l->rec[i + 1], sizeof(cmdb_locator_rec_t) * (l->count - static_cast<uint32_t>(i) - 1));
  l->count--;
  l->rec[l->count] = {};
}

void locator_renumber(cmdb_table_block_t* t, uint32_t from) {
  cmdb_locator_block_t* l = locator(entry_group(t->gid));
  if (l == nullptr) return;
  for (uint32_t pos = from; pos < static_cast<uint32_t>(t->count); ++pos) {
    const int i = cmf_svr_find_entry_index(l, cmf_get_entry_ngid(t, pos));
    if (i >= 0) l->rec[i].w3 = pos;
  }
}

void tcnt_add(uint16_t gid, int delta) {
  cmdb_table_limit_t* lim = cmf_get_tablesize(gid);
  if (lim == nullptr) return;
  const int64_t n = static_cast<int64_t>(lim->tcnt) + delta;
  lim->tcnt = n < 0 ? 0 : static_cast<uint32_t>(n);
}

}  // namespace writer::detail
