// Instance blocks as the writer lays them out: table and object blocks checked
// against their nodes and their allocator blocks, entry indexes, root blocks
// with their capacity in the first u16, locator records, and the freeing of
// whole subtrees. Blocks grow and shrink by moving: a new block, a copy, the
// handle's home updated, the old block freed at commit.
#include <string.h>

#include <algorithm>

#include "writer/names.h"
#include "writer/writer_internal.h"

namespace writer::detail {
namespace {

// A new entry index has room for this many slots, and grows by at least as many.
constexpr uint32_t kIndexSlots = CMDB_INDEX_STEP;
constexpr uint32_t kMaxDepth = 64;    // deeper than any schema: a loop of handles

// Growth of every array here: half again, at least `step`.
uint32_t grown(uint32_t have, uint32_t need, uint32_t step) {
  return std::max(need, have + std::max(step, have / 2));
}

int open_block(Tx& tx, uint32_t shmid, Block* b) {
  std::string why;
  if (!find_block(shmid, b, &why)) return tx.fail(-EIO, "the region is damaged: %s", why.c_str());
  return 0;
}

int damaged(Tx& tx, const char* what, uint16_t gid, uint32_t shmid, const std::string& detail) {
  return tx.fail(-EIO, "the region is damaged: the %s of %s (block %#x) %s", what, node_name(gid).c_str(),
                 shmid, detail.c_str());
}

Place global_place(const void* field) {
  return {Sub::kGlobal, 0,
          static_cast<uint32_t>(static_cast<const uint8_t*>(field) - static_cast<const uint8_t*>(cmdb.cmdb_global))};
}

// The new block for `old` moved to `bytes`, with the first `keep` bytes copied;
// the old one is freed at commit and `home` names the new one.
int move_block(Tx& tx, const Block& old, uint32_t bytes, uint32_t keep, const Place& home, const char* what,
               Block* out) {
  if (int r = tx.alloc(bytes, out, what); r != 0) return r;
  memcpy(out->p, old.p, std::min({keep, old.size, out->size}));
  if (int r = tx.defer_free(old.shmid); r != 0) return r;
  return tx.store(home, out->shmid);
}

}  // namespace

// ---- Tables, indexes, objects --------------------------------------------------

int open_table(Tx& tx, uint32_t shmid, const Node* node, Table* out) {
  Table t;
  if (int r = open_block(tx, shmid, &t.b); r != 0) return r;
  const auto* tb = t.t();
  if (t.b.size < kTableHead || tb->kind != CMDB_BLK_TABLE || tb->gid != node->gid)
    return damaged(tx, "table", node->gid, shmid, "is no table block of that gid");
  const uint32_t slots = static_cast<uint32_t>(slot_nodes(node).size());
  if (tb->nchild != slots)
    return damaged(tx, "table", node->gid, shmid, "has " + std::to_string(tb->nchild) + " child slots, not " +
                                                      std::to_string(slots));
  t.node = node;
  t.key = key_node(node);
  if (t.key == nullptr) return tx.fail(-EINVAL, "table %s has no key node", node_name(node->gid).c_str());
  t.es = node->size + 4 * slots + 8;
  t.room = (t.b.size - kTableHead) / t.es;
  if (tb->count < 0 || static_cast<uint32_t>(tb->count) > t.room)
    return damaged(tx, "table", node->gid, shmid, "counts " + std::to_string(tb->count) + " entries, room for " +
                                                      std::to_string(t.room));
  if (int r = open_block(tx, tb->index, &t.ix); r != 0) return r;
  const auto* ix = t.index();
  if (t.ix.size < kIndexHead || ix->kind != CMDB_BLK_INDEX || ix->key_gid != t.key->gid || ix->capacity < 0 ||
      kIndexHead + 4 * uint64_t(ix->capacity) > t.ix.size || ix->count != tb->count || ix->count > ix->capacity)
    return damaged(tx, "entry index", node->gid, tb->index, "does not fit its table");
  *out = t;
  return 0;
}

int check_slots(Tx& tx, const Table& t) {
  const auto* ix = t.index();
  std::vector<bool> seen(static_cast<size_t>(ix->count));
  for (int32_t i = 0; i < ix->count; ++i) {
    const uint32_t s = ix->slot[i];
    if (s >= static_cast<uint32_t>(ix->count) || seen[s])
      return damaged(tx, "entry index", t.node->gid, t.ix.shmid, "has slot " + std::to_string(i) + " = " +
                                                                     std::to_string(s));
    seen[s] = true;
  }
  return 0;
}

int open_object(Tx& tx, uint32_t shmid, const Node* node, Block* out) {
  if (int r = open_block(tx, shmid, out); r != 0) return r;
  const auto* o = out->as<cmdb_object_block_t>();
  const size_t slots = slot_nodes(node).size();
  if (out->size < kObjectHead || o->kind != CMDB_BLK_OBJECT || o->gid != node->gid || o->nchild != slots ||
      kObjectHead + 4 * uint64_t{o->nchild} + node->size > out->size)
    return damaged(tx, "object", node->gid, shmid, "is no object block of that node");
  return 0;
}

int open_instance(Tx& tx, uint32_t shmid, const Node* node, Block* out) {
  if (!is_table(node)) return open_object(tx, shmid, node, out);
  Table t;
  if (int r = open_table(tx, shmid, node, &t); r != 0) return r;
  *out = t.b;
  return 0;
}

int new_table(Tx& tx, const Node* table, const Place& home) {
  const Node* key = key_node(table);
  if (key == nullptr) return tx.fail(-EINVAL, "table %s has no key node", node_name(table->gid).c_str());
  const uint32_t slots = static_cast<uint32_t>(slot_nodes(table).size());
  constexpr uint32_t kFirstRoom = 4;
  Block ix, t;
  if (int r = tx.alloc(kIndexHead + 4 * kIndexSlots, &ix, "an entry index"); r != 0) return r;
  if (int r = tx.alloc(kTableHead + (table->size + 4 * slots + 8) * kFirstRoom, &t, "a table"); r != 0) return r;
  auto* ib = ix.as<cmdb_entry_index_t>();
  ib->kind = CMDB_BLK_INDEX;
  ib->key_gid = key->gid;
  ib->capacity = static_cast<int32_t>((ix.size - kIndexHead) / 4);
  auto* tb = t.as<cmdb_table_block_t>();
  tb->kind = CMDB_BLK_TABLE;
  tb->gid = table->gid;
  tb->nchild = static_cast<uint8_t>(slots);
  tb->index = ix.shmid;
  tb->unused0 = (t.size - kTableHead) / (table->size + 4 * slots + 8);  // room, for readers that check it
  return tx.store(home, t.shmid);
}

int new_object(Tx& tx, const Node* node, const Place& home) {
  const uint32_t slots = static_cast<uint32_t>(slot_nodes(node).size());
  Block b;
  if (int r = tx.alloc(kObjectHead + 4 * slots + node->size, &b, "an object"); r != 0) return r;
  auto* o = b.as<cmdb_object_block_t>();
  o->kind = CMDB_BLK_OBJECT;
  o->gid = node->gid;
  o->nchild = static_cast<uint16_t>(slots);
  // Only these kinds have a default block; for others the bytes after the
  // record's children are the next record.
  if (has_default_block(node))
    memcpy(b.p + kObjectHead + 4 * slots, reinterpret_cast<const uint8_t*>(node->child + node->nchild), node->size);
  return tx.store(home, b.shmid);
}

namespace {

int resize_table(Tx& tx, Table* t, const Place& home, uint32_t room) {
  const uint64_t bytes = kTableHead + uint64_t{t->es} * room;
  if (bytes > UINT32_MAX)
    return tx.fail(-ENOSPC, "table %s cannot grow past %u entries", node_name(t->node->gid).c_str(), t->room);
  Block moved;
  if (int r = move_block(tx, t->b, static_cast<uint32_t>(bytes), t->entry_offset(static_cast<uint32_t>(t->count())),
                         home, "a table", &moved);
      r != 0)
    return r;
  if (int r = locator_follow(tx, entry_group(t->node->gid), t->b.shmid, moved.shmid); r != 0) return r;
  t->b = moved;
  t->room = (moved.size - kTableHead) / t->es;
  t->t()->unused0 = t->room;
  return 0;
}

int resize_index(Tx& tx, Table* t, uint32_t capacity) {
  Block moved;
  const Place home{Sub::kBlock, t->b.shmid, offsetof(cmdb_table_block_t, index)};
  if (int r = move_block(tx, t->ix, kIndexHead + 4 * capacity, kIndexHead + 4 * static_cast<uint32_t>(t->count()),
                         home, "an entry index", &moved);
      r != 0)
    return r;
  t->ix = moved;
  t->index()->capacity = static_cast<int32_t>((moved.size - kIndexHead) / 4);
  return 0;
}

}  // namespace

int table_reserve(Tx& tx, Table* t, const Place& home, uint32_t entries) {
  if (t->room >= entries) return 0;
  return resize_table(tx, t, home, grown(t->room, entries, 4));
}

int table_trim(Tx& tx, Table* t, const Place& home) {
  const uint32_t count = static_cast<uint32_t>(t->count());
  if (t->room <= 8 || count * 2 >= t->room) return 0;
  const int r = resize_table(tx, t, home, std::max<uint32_t>(4, count + count / 2));
  return r == -ENOMEM ? 0 : r;  // the block keeps its room
}

int index_reserve(Tx& tx, Table* t) {
  const auto* ix = t->index();
  if (ix->capacity > ix->count) return 0;
  const uint32_t cap = grown(static_cast<uint32_t>(ix->capacity), static_cast<uint32_t>(ix->count) + 1, kIndexSlots);
  if (cap > (UINT32_MAX - kIndexHead) / 4)
    return tx.fail(-ENOSPC, "the entry index of table %s is full", node_name(t->node->gid).c_str());
  return resize_index(tx, t, cap);
}

int index_remove(Tx& tx, Table* t, uint32_t pos) {
  auto* ix = t->index();
  const int32_t count = ix->count;
  if (int r = tx.save(t->ix, 0, kIndexHead + 4 * static_cast<uint32_t>(count)); r != 0) return r;
  int32_t out = 0;
  for (int32_t i = 0; i < count; ++i) {
    const uint32_t s = ix->slot[i];
    if (s == pos) continue;
    ix->slot[out++] = s > pos ? s - 1 : s;
  }
  for (int32_t i = out; i < count; ++i) ix->slot[i] = 0;
  ix->count = out;
  // Room is given back once it is mostly unused, as the library's delete does.
  const uint32_t cap = static_cast<uint32_t>(ix->capacity);
  if (cap <= kIndexSlots || cap <= 2 * static_cast<uint32_t>(out) + kIndexSlots) return 0;
  const int r = resize_index(tx, t, static_cast<uint32_t>(out) + kIndexSlots);
  return r == -ENOMEM ? 0 : r;
}

int free_tree(Tx& tx, uint32_t shmid, const Node* node);

namespace {

int free_below(Tx& tx, uint32_t shmid, const Node* node, uint32_t depth) {
  if (shmid == 0) return 0;
  if (depth > kMaxDepth)
    return tx.fail(-EIO, "the region is damaged: the blocks below %s loop", node_name(node->gid).c_str());
  // Slots of kind-6 nodes hold a block of no format the writer knows: it is
  // freed whole.
  if (node->kind == CMDB_KIND_LIST) {
    Block b;
    if (int r = open_block(tx, shmid, &b); r != 0) return r;
    return tx.defer_free(shmid);
  }
  const std::vector<const Node*> kids = slot_nodes(node);
  if (is_table(node)) {
    Table t;
    if (int r = open_table(tx, shmid, node, &t); r != 0) return r;
    const int32_t count = t.count();
    for (int32_t pos = 0; pos < count; ++pos) {
      const cmdb_entry_t* e = t.entry(static_cast<uint32_t>(pos));
      const uint32_t ngid = e->ngid;
      std::vector<uint32_t> children(e->child, e->child + kids.size());
      for (size_t i = 0; i < kids.size(); ++i)
        if (int r = free_below(tx, children[i], kids[i], depth + 1); r != 0) return r;
      if (int r = locator_remove(tx, ngid); r != 0) return r;
    }
    if (int r = tcnt_add(tx, node->gid, -count); r != 0) return r;
    if (int r = tx.defer_free(t.ix.shmid); r != 0) return r;
    return tx.defer_free(shmid);
  }
  Block o;
  if (int r = open_object(tx, shmid, node, &o); r != 0) return r;
  const auto* ob = o.as<cmdb_object_block_t>();
  std::vector<uint32_t> children(ob->child, ob->child + kids.size());
  for (size_t i = 0; i < kids.size(); ++i)
    if (int r = free_below(tx, children[i], kids[i], depth + 1); r != 0) return r;
  return tx.defer_free(shmid);
}

}  // namespace

int free_tree(Tx& tx, uint32_t shmid, const Node* node) { return free_below(tx, shmid, node, 0); }

// ---- Root blocks ---------------------------------------------------------------

bool root_home(uint32_t domain, Place* out) {
  if (domain == 0) {
    *out = {Sub::kDomain, 0, offsetof(cmdb_domain_table_t, global_root)};
    return true;
  }
  const int rec = __cmdb_find_domain_by_id(domain, 0);
  if (rec < 0) return false;
  *out = {Sub::kDomain, 0,
          kDomainHead + static_cast<uint32_t>(rec) * uint32_t{sizeof(cmdb_domain_rec_t)} +
              uint32_t{offsetof(cmdb_domain_rec_t, root)}};
  return true;
}

namespace {

// A root block, its entries bounded by the block.
int open_root(Tx& tx, uint32_t shmid, Block* b, uint32_t* room) {
  if (int r = open_block(tx, shmid, b); r != 0) return r;
  *room = std::min<uint32_t>((b->size - std::min(b->size, kRootHead)) / 8, 0xFFFF);
  if (b->as<cmdb_root_block_t>()->count > *room)
    return tx.fail(-EIO, "the region is damaged: root block %#x counts %u entries, room for %u", shmid,
                   b->as<cmdb_root_block_t>()->count, *room);
  return 0;
}

// Where gid goes among the root entries (the entry itself when present).
uint32_t root_lower_bound(const cmdb_root_block_t* r, uint16_t gid) {
  const cmdb_root_entry_t* end = r->entry + r->count;
  return static_cast<uint32_t>(
      std::lower_bound(r->entry, end, gid, [](const cmdb_root_entry_t& e, uint16_t g) { return e.gid < g; }) -
      r->entry);
}

Place root_entry_place(uint32_t shmid, uint32_t at) {
  return {Sub::kBlock, shmid, kRootHead + 8 * at + uint32_t{offsetof(cmdb_root_entry_t, shmid)}};
}

}  // namespace

int root_slot(Tx& tx, const Place& home, uint16_t gid, Place* out, bool* found) {
  *found = false;
  uint32_t shmid = 0, room = 0;
  if (int r = tx.load(home, &shmid); r != 0 || shmid == 0) return r;
  Block b;
  if (int r = open_root(tx, shmid, &b, &room); r != 0) return r;
  const auto* rb = b.as<cmdb_root_block_t>();
  const uint32_t at = root_lower_bound(rb, gid);
  if (at < rb->count && rb->entry[at].gid == gid) {
    *out = root_entry_place(shmid, at);
    *found = true;
  }
  return 0;
}

int root_add(Tx& tx, const Place& home, uint16_t gid, Place* out) {
  uint32_t shmid = 0, room = 0;
  if (int r = tx.load(home, &shmid); r != 0) return r;
  Block b;
  if (shmid == 0) {
    if (int r = tx.alloc(kRootHead + 8 * 4, &b, "a root block"); r != 0) return r;
    b.as<cmdb_root_block_t>()->unused = static_cast<uint16_t>((b.size - kRootHead) / 8);
    if (int r = tx.store(home, b.shmid); r != 0) return r;
    shmid = b.shmid;
  }
  if (int r = open_root(tx, shmid, &b, &room); r != 0) return r;
  const uint32_t count = b.as<cmdb_root_block_t>()->count;
  if (count >= room) {
    const uint32_t more = std::min<uint32_t>(grown(room, count + 1, 4), 0xFFFF);
    if (more <= count) return tx.fail(-ENOSPC, "a root block is full");
    Block moved;
    if (int r = move_block(tx, b, kRootHead + 8 * more, kRootHead + 8 * count, home, "a root block", &moved); r != 0)
      return r;
    b = moved;
    b.as<cmdb_root_block_t>()->unused = static_cast<uint16_t>(std::min<uint32_t>((b.size - kRootHead) / 8, 0xFFFF));
  }
  auto* rb = b.as<cmdb_root_block_t>();
  const uint32_t at = root_lower_bound(rb, gid);
  if (int r = tx.save(b, 0, kRootHead + 8 * (count + 1)); r != 0) return r;
  memmove(&rb->entry[at + 1], &rb->entry[at], sizeof(cmdb_root_entry_t) * (count - at));
  rb->entry[at] = {gid, 0, 0};
  rb->count = static_cast<uint16_t>(count + 1);
  *out = root_entry_place(b.shmid, at);
  return 0;
}

// ---- Locator records ------------------------------------------------------------

int locator(Tx& tx, int group, Block* out) {
  const uint32_t shmid = group >= 0 && group < CMDB_LOCATOR_GROUPS ? cmdb.index_roots[1 + group] : 0;
  if (shmid == 0) return tx.fail(-EIO, "the region is damaged: entry group %d has no locator block", group);
  if (int r = open_block(tx, shmid, out); r != 0) return r;
  const auto* l = out->as<cmdb_locator_block_t>();
  if (out->size < kLocatorHead || l->kind != CMDB_BLK_LOCATOR || l->count > l->capacity ||
      kLocatorHead + 16 * uint64_t{l->capacity} > out->size)
    return tx.fail(-EIO, "the region is damaged: the locator block of entry group %d (%#x) does not fit its block",
                   group, shmid);
  return 0;
}

int locator_reserve(Tx& tx, int group) {
  const Place home = global_place(&cmdb.index_roots[1 + group]);
  Block b;
  if (cmdb.index_roots[1 + group] == 0) {
    // Creation makes all five; one that failed then is made now.
    if (int r = tx.alloc(kLocatorHead + 16 * 16, &b, "a locator block"); r != 0) return r;
    auto* l = b.as<cmdb_locator_block_t>();
    l->kind = CMDB_BLK_LOCATOR;
    l->capacity = (b.size - kLocatorHead) / 16;
    return tx.store(home, b.shmid);
  }
  if (int r = locator(tx, group, &b); r != 0) return r;
  const auto* l = b.as<cmdb_locator_block_t>();
  if (l->count < l->capacity) return 0;
  const uint32_t room = grown(l->capacity, l->count + 1, 16);
  if (room > (UINT32_MAX - kLocatorHead) / 16) return tx.fail(-ENOSPC, "entry group %d is full", group);
  Block moved;
  if (int r = move_block(tx, b, kLocatorHead + 16 * room, kLocatorHead + 16 * l->count, home, "a locator block", &moved);
      r != 0)
    return r;
  moved.as<cmdb_locator_block_t>()->capacity = (moved.size - kLocatorHead) / 16;
  return 0;
}

int next_ngid(Tx& tx, int group, uint32_t* ngid) {
  const uint32_t top = static_cast<uint32_t>(group) << 24;
  *ngid = top | 1;
  if (cmdb.index_roots[1 + group] == 0) return 0;
  Block b;
  if (int r = locator(tx, group, &b); r != 0) return r;
  const auto* l = b.as<cmdb_locator_block_t>();
  if (l->count == 0) return 0;
  const uint32_t last = l->rec[l->count - 1].ngid & kMaxSerial;
  if (last < kMaxSerial) {
    *ngid = top | (last + 1);
    return 0;
  }
  // Serials are sorted: the first record whose serial is above its rank
  // follows a gap.
  uint32_t want = 1;
  for (uint32_t i = 0; i < l->count; ++i, ++want)
    if ((l->rec[i].ngid & kMaxSerial) != want) break;
  *ngid = want <= kMaxSerial ? top | want : 0;
  return 0;
}

namespace {

// Signed differences order the records, as the readers' search expects.
uint32_t locator_lower_bound(const cmdb_locator_block_t* l, uint32_t ngid) {
  return static_cast<uint32_t>(
      std::lower_bound(l->rec, l->rec + l->count, ngid,
                       [](const cmdb_locator_rec_t& r, uint32_t n) { return static_cast<int32_t>(r.ngid - n) < 0; }) -
      l->rec);
}

}  // namespace

int locator_add(Tx& tx, const cmdb_locator_rec_t& rec) {
  Block b;
  if (int r = locator(tx, static_cast<int>(rec.ngid >> 24), &b); r != 0) return r;
  auto* l = b.as<cmdb_locator_block_t>();
  if (l->count >= l->capacity) return tx.fail(-ENOSPC, "the locator block of entry group %u is full", rec.ngid >> 24);
  const uint32_t i = locator_lower_bound(l, rec.ngid);
  if (int r = tx.save(b, 0, kLocatorHead + 16 * (l->count + 1)); r != 0) return r;
  memmove(&l->rec[i + 1], &l->rec[i], sizeof(cmdb_locator_rec_t) * (l->count - i));
  l->rec[i] = rec;
  l->count++;
  return 0;
}

int locator_remove(Tx& tx, uint32_t ngid) {
  const int group = static_cast<int>(ngid >> 24);
  if (group >= CMDB_LOCATOR_GROUPS || cmdb.index_roots[1 + group] == 0) return 0;
  Block b;
  if (int r = locator(tx, group, &b); r != 0) return r;
  auto* l = b.as<cmdb_locator_block_t>();
  const uint32_t i = locator_lower_bound(l, ngid);
  if (i >= l->count || l->rec[i].ngid != ngid) return 0;
  if (int r = tx.save(b, 0, kLocatorHead + 16 * l->count); r != 0) return r;
  memmove(&l->rec[i], &l->rec[i + 1], sizeof(cmdb_locator_rec_t) * (l->count - i - 1));
  l->count--;
  l->rec[l->count] = {};
  return 0;
}

int locator_renumber(Tx& tx, const Table& t, uint32_t from) {
  const int group = entry_group(t.node->gid);
  if (cmdb.index_roots[1 + group] == 0) return 0;
  Block b;
  if (int r = locator(tx, group, &b); r != 0) return r;
  auto* l = b.as<cmdb_locator_block_t>();
  for (uint32_t pos = from; pos < static_cast<uint32_t>(t.count()); ++pos) {
    const uint32_t ngid = t.entry(pos)->ngid, i = locator_lower_bound(l, ngid);
    if (i >= l->count || l->rec[i].ngid != ngid || l->rec[i].w3 == pos) continue;
    const uint32_t at = kLocatorHead + 16 * i + uint32_t{offsetof(cmdb_locator_rec_t, w3)};
    if (int r = tx.save(b, at, 4); r != 0) return r;
    l->rec[i].w3 = pos;
  }
  return 0;
}

int locator_follow(Tx& tx, int group, uint32_t from, uint32_t to) {
  if (cmdb.index_roots[1 + group] == 0) return 0;
  Block b;
  if (int r = locator(tx, group, &b); r != 0) return r;
  auto* l = b.as<cmdb_locator_block_t>();
  for (uint32_t i = 0; i < l->count; ++i) {
    if (l->rec[i].shmid != from) continue;
    if (int r = tx.save(b, kLocatorHead + 16 * i + uint32_t{offsetof(cmdb_locator_rec_t, shmid)}, 4); r != 0) return r;
    l->rec[i].shmid = to;
  }
  return 0;
}

int tcnt_add(Tx& tx, uint16_t gid, int delta) {
  cmdb_table_limit_t* lim = cmf_get_tablesize(gid);
  if (lim == nullptr || delta == 0) return 0;
  const Place at = global_place(&lim->tcnt);
  if (int r = tx.save(Sub::kGlobal, at.offset, 4); r != 0) return r;
  const int64_t n = static_cast<int64_t>(lim->tcnt) + delta;
  lim->tcnt = n < 0 ? 0 : static_cast<uint32_t>(n);
  return 0;
}

}  // namespace writer::detail
