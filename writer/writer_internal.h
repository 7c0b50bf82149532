// Pieces of the writer shared by its sources. Everything here works on the
// shared region through the library's public API and the `cmdb` record, and
// trusts nothing it reads there: a handle is checked against the allocator's
// own records before it is followed, a count against the block that holds it,
// a node record against the sub-region, so that a damaged region is refused
// with a text naming the damage and no read or write leaves the block or
// sub-region it is meant for.
//
// Every change goes through Tx, which journals the old bytes before it writes
// (writer/journal.h), defers frees to the commit, and can take the region back
// to any mark.
// REQUIRES (everything that changes something): main lock held exclusive,
// owner process.
#pragma once

#include <stdarg.h>
#include <stdint.h>

#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "gikraidrum.h"
#include "writer/config_writer.h"
#include "writer/journal.h"

namespace writer::detail {

inline constexpr uint32_t kMaxSerial = 0x00FFFFFF;  // the low 24 bits of an ngid
inline constexpr uint32_t kTableHead = offsetof(cmdb_table_block_t, entries);
inline constexpr uint32_t kIndexHead = offsetof(cmdb_entry_index_t, slot);
inline constexpr uint32_t kRootHead = offsetof(cmdb_root_block_t, entry);
inline constexpr uint32_t kLocatorHead = offsetof(cmdb_locator_block_t, rec);
inline constexpr uint32_t kObjectHead = offsetof(cmdb_object_block_t, child);
inline constexpr uint32_t kDomainHead = offsetof(cmdb_domain_table_t, rec);

// ---- The region's sub-regions ------------------------------------------------

// The sub-regions a change writes; kBlock names an allocator block instead,
// kPageHead the head of a page file (slab header and free chain).
enum class Sub : uint8_t { kBlock = 0, kHeader, kGlobal, kDomain, kDomainIds, kDomainNames, kPages, kPageHead, kCount };

struct Span {
  uint8_t* p = nullptr;
  uint32_t size = 0;
};
// Measures the sub-regions this process has mapped (their files' lengths);
// run at each transaction's start. False when one is missing.
bool measure_region(std::string* why);
Span sub_region(Sub s);
uint32_t node_region_size();
// Domains the domain sub-regions have room for.
int32_t domain_slots();

// ---- Node records ------------------------------------------------------------

// A node record as it lies in cmdb_node. Records follow one another unpadded,
// so one may lie at any offset: the writer reads them through this packed
// copy of cmdb_node_t's layout, which the compiler reads with unaligned loads.
struct __attribute__((packed)) Node {
  uint16_t gid;
  uint16_t default_gid;
  uint8_t scope, kind, type, flags, ds_index, nchild;
  uint8_t unused0[2];
  uint16_t size;
  uint16_t offset;
  uint32_t unused1;
  uint32_t parent;
  uint32_t child[];
};
static_assert(sizeof(Node) == sizeof(cmdb_node_t) && offsetof(Node, size) == offsetof(cmdb_node_t, size) &&
              offsetof(Node, parent) == offsetof(cmdb_node_t, parent) &&
              offsetof(Node, child) == offsetof(cmdb_node_t, child));
// Typed order of two values of `n`'s type and size, as the library's searches
// compare them: strings in version order, anything else as an unsigned
// little-endian integer.
int compare_values(const Node* n, const uint8_t* a, const uint8_t* b);

// Node records lie whole inside cmdb_node, or are not found.
const Node* node_of(uint32_t gid);
const Node* node_at(uint32_t offset);
inline bool is_table(const Node* n) { return n->kind == CMDB_KIND_TABLE || n->kind == CMDB_KIND_SUBTABLE; }
inline bool has_default_block(const Node* n) {
  return is_table(n) || n->kind == CMDB_KIND_OBJECT || n->kind == CMDB_KIND_DEFAULTS;
}
// Whether a child node has an instance block of its own, and so a child slot.
inline bool takes_slot(const Node* n) {
  return is_table(n) || n->kind == CMDB_KIND_OBJECT || (n->kind == CMDB_KIND_LIST && n->type == CMDB_TYPE_LIST);
}
inline bool is_string(const Node* n) { return n->type < 32 && (CMDB_STRING_TYPES >> n->type & 1) != 0; }
// The node whose children own the child slots: a table's entry node (its first
// child), or the node itself for an object. Null for a table without one.
const Node* slot_owner(const Node* node);
// The nodes of the child slots of `node`'s instances, in slot order, as
// cmf_node_child_size counts them.
std::vector<const Node*> slot_nodes(const Node* node);
// The node whose offset, type and size describe a table's key: the entry
// node's attribute that lies at the entry node's offset (where
// cmdb_get_master_key points), else the entry node itself.
const Node* key_node(const Node* table);
// Entry group (0..4) of a table's entries.
int entry_group(uint16_t gid);

// ---- Checked blocks ----------------------------------------------------------

// An allocator block: its page is allocated in the page table, the page's
// header agrees with its slot and its cache, and the block lies inside it.
struct Block {
  uint32_t shmid = 0;
  uint8_t* p = nullptr;
  uint32_t size = 0;  // the block's capacity
  template <class T>
  T* as() const {
    return reinterpret_cast<T*>(p);
  }
};
// The block of a handle, or false with the reason in *why. `write` maps its
// page for writing (the owner); a reader maps it read-only.
bool find_block(uint32_t shmid, Block* b, std::string* why, bool write = true);
// Whether the allocator has the block handed out (not on a free chain).
bool block_in_use(uint32_t shmid);

// The page table, and the head of an allocated page (null for a page the
// table does not hold).
cmdb_page_table_t* pages();
cmdb_slab_header_t* page_head(uint32_t page);

// Where a handle is kept: a word in a block or in a sub-region.
struct Place {
  Sub sub = Sub::kBlock;
  uint32_t shmid = 0;  // the block, for Sub::kBlock
  uint32_t offset = 0;
};

// ---- The transaction ---------------------------------------------------------

class Tx {
 public:
  Tx() = default;
  Tx(const Tx&) = delete;
  Tx& operator=(const Tx&) = delete;

  // The failure of the step in progress: a negative errno and its text.
  int fail(int code, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
  int vfail(int code, const char* fmt, va_list ap) __attribute__((format(printf, 3, 0)));
  const std::string& error() const { return error_; }

  // A transaction with its start as mark 0. The journal opens, and the
  // region's change_pid names this process, at the first change.
  // REQUIRES: write lock.
  void open() { marks_.assign(1, {}); }

  // Before a write: the old bytes of the range go to the journal (unless the
  // block was made since the last mark, or was saved whole since).
  int save(const Block& b, uint32_t offset, uint32_t len);
  int save(Sub s, uint32_t offset, uint32_t len);
  int save_whole(const Block& b) { return save(b, 0, b.size); }

  // A zero-filled block, recorded so a rollback frees it again; -ENOMEM with a
  // text when the allocator refuses.
  int alloc(uint32_t bytes, Block* out, const char* what);
  // Frees the block when the transaction commits.
  int defer_free(uint32_t shmid);

  // Handles kept in places.
  int load(const Place& at, uint32_t* v);
  int store(const Place& at, uint32_t v);

  // Savepoints: 0 is the transaction's start.
  size_t mark();
  size_t marks() const { return marks_.size(); }
  // Takes the region back to what it was at mark m (which stays); 0 or a
  // negative errno when a block the log names cannot be found any more.
  int rollback_to(size_t m);
  // Forgets the marks from m on; their changes stay.
  void release(size_t m) { marks_.resize(m); }
  // Forgets the transaction, leaving change_pid and the journal to the next
  // writer's recovery.
  void abandon();
  // Commits: the journal says so, then the deferred frees run. REQUIRES: the
  // version bumped if anything changed.
  void commit();
  // Ends the transaction (after commit or a rollback to 0): change_pid
  // cleared, journal emptied.
  void close();

  // A dead writer's transaction, named by the header's change_pid: rolled back
  // (or, once committed, finished). 0, or a negative errno with a text when
  // what it left cannot be undone.
  int recover(uint32_t dead_pid);

 private:
  struct Entry {
    Rec kind;
    Sub sub;
    uint32_t target, offset, len;
    size_t at;  // where the record lies in the journal
  };
  struct Mark {
    size_t log = 0, journal = sizeof(JournalHead), defers = 0;
  };
  // What the log holds of one block or sub-region since the innermost mark
  // (the log position `base`): saved whole, or made, at `whole_at` (a save
  // then is needless while that position lies past the innermost mark), or
  // `saved` bytes of ranges.
  struct Touch {
    size_t base = 0;
    uint64_t saved = 0;
    bool whole = false;
    size_t whole_at = 0;
  };
  int start();
  int save_range(Sub s, uint32_t shmid, const uint8_t* base, uint32_t size, uint32_t offset, uint32_t len);
  // Where an entry's range lies now, or null when its page is gone.
  uint8_t* locate(const Entry& e);
  int restore(const Entry& e);
  // Journals what a call into the allocator may change: the cache table, the
  // page table's head and the slot it takes or gives back, and the heads of
  // the slabs whose lists it may relink. `freed` is the block a free gives
  // back, 0 for an allocation of `bytes`.
  int enter_allocator(uint32_t freed, uint32_t bytes);
  int append_raw(Rec kind, Sub s, uint32_t target, uint32_t offset, const void* data, uint32_t len);
  // Undoes the log from entry `from` on, newest first, without the allocator:
  // ranges get their old bytes, blocks made are zeroed and their allocator
  // state is put back as it was.
  int undo(size_t from, bool tolerant);

  std::string error_;
  Journal journal_;
  bool started_ = false;
  std::vector<Entry> log_;
  std::vector<Mark> marks_;
  std::vector<uint32_t> defers_;
  std::unordered_set<uint32_t> deferred_;  // the same, to find a block reached twice
  std::unordered_map<uint64_t, Touch> touched_;
};

// ---- Instance blocks -----------------------------------------------------------

// A table block with its entry index, checked for one step of a change.
struct Table {
  Block b, ix;
  const Node* node = nullptr;
  const Node* key = nullptr;
  uint32_t es = 0;    // entry size
  uint32_t room = 0;  // entries the block has room for
  cmdb_table_block_t* t() const { return b.as<cmdb_table_block_t>(); }
  cmdb_entry_index_t* index() const { return ix.as<cmdb_entry_index_t>(); }
  int32_t count() const { return t()->count; }
  uint32_t entry_offset(uint32_t pos) const { return kTableHead + pos * es; }
  cmdb_entry_t* entry(uint32_t pos) const { return reinterpret_cast<cmdb_entry_t*>(b.p + entry_offset(pos)); }
  uint8_t* data(uint32_t pos) const { return b.p + entry_offset(pos) + 8 + 4 * t()->nchild; }
  uint32_t data_offset(uint32_t pos) const { return entry_offset(pos) + 8 + 4 * t()->nchild; }
};
int open_table(Tx& tx, uint32_t shmid, const Node* node, Table* out);
// Every index slot names a distinct entry in use: the O(n) check that changes
// of the index run first.
int check_slots(Tx& tx, const Table& t);
int open_object(Tx& tx, uint32_t shmid, const Node* node, Block* out);
// An instance of `node`, table or object, checked as such.
int open_instance(Tx& tx, uint32_t shmid, const Node* node, Block* out);

// New instance blocks, stored at `home`.
int new_table(Tx& tx, const Node* table, const Place& home);
int new_object(Tx& tx, const Node* node, const Place& home);
// Room for `entries` entries, moving the block (and its locator records)
// when it must; `t` follows.
int table_reserve(Tx& tx, Table* t, const Place& home, uint32_t entries);
// Gives back room once more than half of it is free.
int table_trim(Tx& tx, Table* t, const Place& home);
// Room for one more slot in the entry index, moving it when it must.
int index_reserve(Tx& tx, Table* t);
// Removes position `pos` from the index and renumbers the positions above it,
// as the library's delete does.
int index_remove(Tx& tx, Table* t, uint32_t pos);

// Frees an instance and everything below it at commit: child blocks, entry
// indexes, and for every entry of a table its locator record and its count in
// the table limits.
int free_tree(Tx& tx, uint32_t shmid, const Node* node);

// Root blocks: u16 capacity (the root block's first, otherwise unused, u16),
// u16 count, entries sorted by gid.
// The place of a context's root handle; false when the domain does not exist.
bool root_home(uint32_t domain, Place* out);
// The place of the root entry's handle for `gid`, or false when there is none
// (or no root block).
int root_slot(Tx& tx, const Place& home, uint16_t gid, Place* out, bool* found);
// Adds a root entry for gid (making the root block when there is none).
int root_add(Tx& tx, const Place& home, uint16_t gid, Place* out);

// Locator records of entry group g: {ngid, table shmid, table gid, position}.
int locator(Tx& tx, int group, Block* out);
int locator_reserve(Tx& tx, int group);
// A serial not in use in the group: one past the highest, or the lowest free
// one once the highest has reached kMaxSerial. 0 when all are taken.
int next_ngid(Tx& tx, int group, uint32_t* ngid);
int locator_add(Tx& tx, const cmdb_locator_rec_t& rec);
int locator_remove(Tx& tx, uint32_t ngid);
// Keeps the position word of the records of entries at `from` and later.
int locator_renumber(Tx& tx, const Table& t, uint32_t from);
// Makes the records that name block `from` name `to` (the table moved).
int locator_follow(Tx& tx, int group, uint32_t from, uint32_t to);

// Adds delta to the table's live count in the table limits, when it has a record.
int tcnt_add(Tx& tx, uint16_t gid, int delta);

// ---- Checks of the sub-regions a transaction starts from ---------------------

// The domain table, both domain indexes, the table limits' count and the
// locator directory, checked once per transaction: everything after reads
// them through the library's searches.
int check_heads(Tx& tx);

}  // namespace writer::detail

namespace writer {

// One public call: a transaction of its own when the caller has none, and a
// savepoint that a failure rolls back to, unless the caller keeps savepoints
// of its own (then a failed call may leave part of its change, for the
// caller's rollback).
class ConfigWriter::Call {
 public:
  explicit Call(ConfigWriter* w) : w_(w) {
    if (!w->locked_) {
      status_ = w->begin();
      owned_ = status_ == 0;
    }
    if (status_ == 0 && w->tx_->marks() == 1) mark_ = w->mark();
  }
  ~Call() {
    if (owned_ && w_->locked_) failed_ ? w_->rollback() : w_->commit();
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  int status() const { return status_; }
  // The call's result; a failure takes back what the call changed.
  int done(int r) {
    failed_ = r != 0;
    if (mark_ == 0) return r;
    if (r == 0) {
      w_->release(mark_);
    } else if (w_->rollback_to(mark_) != 0) {
      // The region changed under the call in a way the log cannot take back:
      // the transaction is given up, for the next writer to recover.
      const std::string why = w_->error();
      w_->abandon();
      return w_->fail(-EIO, "%s", why.c_str());
    } else {
      w_->release(mark_);
    }
    return r;
  }

 private:
  ConfigWriter* w_;
  int status_ = 0;
  bool owned_ = false, failed_ = false;
  size_t mark_ = 0;
};

}  // namespace writer
