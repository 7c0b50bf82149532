// Hand-built node records for the tree tests: cmdb_node and cmdb_node_index as
// files in the sandbox's /dev/cmdb, mapped the way an attached process has them.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "gikraidrum.h"

namespace gk::test {

inline void* map_region_file(const char* name, size_t len, void* at = nullptr) {
  char path[128];
  snprintf(path, sizeof path, "/dev/cmdb/%s", name);
  int fd = ::open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(len)) != 0) abort();
  void* p = ::mmap(at, len, PROT_READ | PROT_WRITE, MAP_SHARED | (at != nullptr ? MAP_FIXED : 0), fd, 0);
  ::close(fd);
  if (p == MAP_FAILED) abort();
  return p;
}

struct NodeSpec {
  uint16_t gid;
  uint8_t kind;
  uint8_t type;
  uint16_t size;
  uint16_t offset;
  uint8_t nchild = 0;
  uint8_t scope = 0;
  uint8_t flags = 0;
};

// Records are appended as the node builder lays them out: 24 zero bytes first,
// then head, child offsets and, for kinds 2, 3, 4 and 8, the default block.
struct NodeSpace {
  explicit NodeSpace(size_t bytes = 64 * 1024) : bytes(bytes) {
    base = static_cast<char*>(map_region_file("cmdb_node", bytes));
    index = static_cast<uint32_t*>(map_region_file("cmdb_node_index", 7444));
    cmdb.cmdb_node = base;
    cmdb.cmdb_node_index = index;
  }
  ~NodeSpace() {
    cmdb.cmdb_node = nullptr;
    cmdb.cmdb_node_index = nullptr;
    ::munmap(base, bytes);
    ::munmap(index, 7444);
  }
  NodeSpace(const NodeSpace&) = delete;
  NodeSpace& operator=(const NodeSpace&) = delete;

  // Appends a node and links it as the next free child of `parent` (null: top level).
  cmdb_node_t* add(const NodeSpec& s, cmdb_node_t* parent = nullptr) {
    auto* n = reinterpret_cast<cmdb_node_t*>(base + cursor);
    n->gid = s.gid;
    n->kind = s.kind;
    n->type = s.type;
    n->size = s.size;
    n->offset = s.offset;
    n->nchild = s.nchild;
    n->scope = s.scope;
    n->flags = s.flags;
    bool has_default = s.kind == 2 || s.kind == 3 || s.kind == 4 || s.kind == 8;
    cursor += 24 + 4u * s.nchild + (has_default ? s.size : 0u);
    cursor = (cursor + 3) & ~3u;
    if (s.gid < 1861) index[s.gid] = offset_of(n);
    if (parent != nullptr) {
      n->parent = offset_of(parent);
      for (int i = 0; i < parent->nchild; ++i)
        if (parent->child[i] == 0) {
          parent->child[i] = offset_of(n);
          break;
        }
    }
    return n;
  }
  uint32_t offset_of(const cmdb_node_t* n) const {
    return static_cast<uint32_t>(reinterpret_cast<const char*>(n) - base);
  }

  size_t bytes;
  char* base;
  uint32_t* index;
  uint32_t cursor = 24;
};

// A table block with room for `room` entries and its entry index (capacity 0),
// both allocator blocks, changed the way the writing processes change them:
// the index first, then the entries. REQUIRES: main lock held exclusive.
struct TableFixture {
  // Table node `gid` (kind 2) with an entry node gid + 1 and the key attribute
  // gid + 2 of `key_type`/`key_size` at `key_offset` in a `data_size` data part.
  TableFixture(NodeSpace& ns, uint16_t gid, uint8_t key_type, uint16_t key_size, uint16_t key_offset,
               uint16_t data_size, uint8_t nchild, int room)
      : data_size(data_size), nchild(nchild) {
    cmdb_node_t* t = ns.add({gid, 2, 0, data_size, 0, 1});
    cmdb_node_t* e = ns.add({static_cast<uint16_t>(gid + 1), 1, 0, data_size, key_offset, 1}, t);
    key = ns.add({static_cast<uint16_t>(gid + 2), 5, key_type, key_size, key_offset}, e);
    entry_size = data_size + 4u * nchild + 8;
    uint32_t index_shmid = 0;
    auto* ix = static_cast<cmdb_entry_index_t*>(cmf_shm_alloc(16, &index_shmid));
    auto* tb = static_cast<cmdb_table_block_t*>(cmf_shm_alloc(32 + entry_size * room, &table_shmid));
    if (tb == nullptr || ix == nullptr) abort();
    tb->index = index_shmid;
    tb->kind = CMDB_BLK_TABLE;
    tb->gid = gid;
    tb->nchild = nchild;
    ix->kind = CMDB_BLK_INDEX;
    ix->key_gid = key->gid;
  }
  cmdb_table_block_t* table() const { return static_cast<cmdb_table_block_t*>(cmf_ptr_from_shmid(table_shmid, 1)); }
  cmdb_entry_index_t* index() const {
    return static_cast<cmdb_entry_index_t*>(cmf_ptr_from_shmid(table()->index, 1));
  }
  uint8_t* data(int pos) const { return static_cast<uint8_t*>(cmf_get_entry_data(table(), static_cast<uint32_t>(pos))); }
  uint8_t* key_at(int pos) const { return data(pos) + key->offset; }
  std::vector<uint32_t> slots() const {
    cmdb_entry_index_t* ix = index();
    std::vector<uint32_t> out;
    for (int i = 0; i < ix->count; ++i) out.push_back(ix->slot[i]);
    return out;
  }
  int call(int action, const void* arg) {
    cmdb_entry_index_t* ix = index();
    return __cmf_svr_binary_find_index(table(), &table()->index, &ix, arg, action);
  }
  int find(const void* k) { return call(CMDB_INDEX_FIND, k); }
  // Inserts an entry with key k at position pos; the index hears of it first.
  int insert_at(int pos, const void* k) {
    std::vector<uint8_t> d(data_size, 0);
    memcpy(d.data() + key->offset, k, key->size);
    cmdb_index_req_t req = {pos, d.data()};
    if (int r = call(CMDB_INDEX_INSERT, &req); r != 0) return r;
    cmdb_table_block_t* t = table();
    auto* at = static_cast<uint8_t*>(cmf_get_table_entry(t, static_cast<uint32_t>(pos)));
    memmove(at + entry_size, at, entry_size * static_cast<size_t>(t->count - pos));
    memset(at, 0, entry_size);
    t->count++;
    memcpy(data(pos), d.data(), data_size);
    return 0;
  }
  // Removes the entry at pos; the index hears of it after the table moved.
  int erase(int pos) {
    cmdb_table_block_t* t = table();
    auto* at = static_cast<uint8_t*>(cmf_get_table_entry(t, static_cast<uint32_t>(pos)));
    memmove(at, at + entry_size, entry_size * static_cast<size_t>(t->count - pos - 1));
    t->count--;
    cmdb_entry_index_t* ix = index();
    return __cmf_svr_binary_del_index(t, &t->index, &ix, pos);
  }
  // Gives the entry at pos a new key: re-position with the new data, then store it.
  int rekey(int pos, const void* k) {
    std::vector<uint8_t> d(data(pos), data(pos) + data_size);
    memcpy(d.data() + key->offset, k, key->size);
    cmdb_index_req_t req = {pos, d.data()};
    if (int r = call(CMDB_INDEX_REPOSITION, &req); r != 0) return r;
    memcpy(data(pos), d.data(), data_size);
    return 0;
  }

  uint16_t data_size;
  uint8_t nchild;
  uint32_t entry_size;
  uint32_t table_shmid = 0;
  cmdb_node_t* key;
};

}  // namespace gk::test
