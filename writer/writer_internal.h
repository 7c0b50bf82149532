// Pieces of the writer shared by its sources: node records, instance blocks,
// root blocks and locator records. Everything here works on the shared region
// through the library's public API and the `cmdb` record.
// REQUIRES (every function that changes something): main lock held exclusive,
// owner process.
#pragma once

#include <stdint.h>

#include <vector>

#include "gikraidrum.h"
#include "writer/config_writer.h"

namespace writer {

// Opens a transaction for one call when the caller has none, and commits it.
class ConfigWriter::AutoTransaction {
 public:
  explicit AutoTransaction(ConfigWriter* w) : w_(w) {
    if (!w->locked_) {
      status_ = w->begin();
      owned_ = status_ == 0;
    }
  }
  ~AutoTransaction() {
    if (owned_) w_->commit();
  }
  AutoTransaction(const AutoTransaction&) = delete;
  AutoTransaction& operator=(const AutoTransaction&) = delete;
  int status() const { return status_; }

 private:
  ConfigWriter* w_;
  int status_ = 0;
  bool owned_ = false;
};

}  // namespace writer

namespace writer::detail {

inline constexpr uint16_t kDomainGid = 91;
inline constexpr uint32_t kMaxSerial = 0x00FFFFFF;  // the low 24 bits of an ngid
inline constexpr int kGroups = 5;                   // entry groups 0..4

// Node records (read-only after creation).
const cmdb_node_t* node_of(uint32_t gid);
const cmdb_node_t* node_at(uint32_t offset);
uint32_t offset_of(const cmdb_node_t* node);
inline bool is_table(const cmdb_node_t* n) { return n->kind == 2 || n->kind == 3; }
inline bool has_default_block(const cmdb_node_t* n) {
  return n->kind == 2 || n->kind == 3 || n->kind == 4 || n->kind == 8;
}
// Whether a child node has an instance block of its own, and so a child slot.
inline bool takes_slot(const cmdb_node_t* n) {
  return is_table(n) || n->kind == 4 || (n->kind == 6 && n->type == 13);
}
// The node whose children own the child slots: a table's entry node (its first
// child), or the node itself for an object. Null for a table without one.
const cmdb_node_t* slot_owner(const cmdb_node_t* node);
// Slot number of child `gid` among the slots of `node`'s instances, or -1.
int child_slot(const cmdb_node_t* node, uint16_t gid);
// The node whose offset, type and size describe a table's key: the entry
// node's attribute that lies at the entry node's offset (where
// cmdb_get_master_key points), else the entry node itself.
const cmdb_node_t* key_node(const cmdb_node_t* table);
// Entry group (0..4) of a table's entries.
int entry_group(uint16_t gid);

// New instance blocks, zero-filled but for their heads. Null when the
// allocator refuses.
cmdb_table_block_t* new_table(const cmdb_node_t* table, uint32_t* shmid);
cmdb_object_block_t* new_object(const cmdb_node_t* node, uint32_t* shmid);
// Room in entries of a table block (kept in its unused word at offset 4).
inline uint32_t& table_room(cmdb_table_block_t* t) { return t->unused0; }
// Makes room for `entries` entries, moving the block when it must: *slot (the
// handle's home) and the locator records of the table's entry group follow.
// Null when the allocator refuses; the table is then unchanged.
cmdb_table_block_t* table_reserve(cmdb_table_block_t* t, uint32_t* slot, uint32_t entries);
// Gives back room after deletes once more than half of it is free.
cmdb_table_block_t* table_trim(cmdb_table_block_t* t, uint32_t* slot);

// Frees a block and everything below it: child blocks, entry indexes, and for
// every entry of a table its locator record and its count in the table limits.
void free_tree(uint32_t shmid);

// Root blocks: u16 capacity (the root block's first, otherwise unused, u16),
// u16 count, entries sorted by gid.
uint32_t* root_home(uint32_t domain);  // the word that holds the root block's handle; null: no such domain
cmdb_root_block_t* new_root(uint32_t* home);
// The slot of the root entry for gid, or null.
uint32_t* root_slot(uint32_t* home, uint16_t gid);
// Adds a root entry for gid holding `shmid`; null when the allocator refuses.
uint32_t* root_add(uint32_t* home, uint16_t gid, uint32_t shmid);
void root_drop(uint32_t* home, uint16_t gid);

// Locator records of entry group g: {ngid, table shmid, table gid, position}.
cmdb_locator_block_t* locator(int group);
// Room for one more record; false when the allocator refuses.
bool locator_reserve(int group);
// A serial not in use in the group: one past the highest, or the lowest free
// one once the highest has reached kMaxSerial. 0 when all are taken.
uint32_t next_ngid(int group);
// REQUIRES: locator_reserve(group) succeeded since the last add.
void locator_add(const cmdb_locator_rec_t& rec);
void locator_remove(uint32_t ngid);
// Keeps the position word of the records of entries at `from` and later.
void locator_renumber(cmdb_table_block_t* t, uint32_t from);

// Adds delta to the table's live count in the table limits, when it has a record.
void tcnt_add(uint16_t gid, int delta);

}  // namespace writer::detail
