// Hand-built tree data for the tests and benchmarks: node records in files of
// the sandbox's /dev/cmdb, mapped as an attached process maps them, and tables
// with their entry index in allocator blocks.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <vector>

#include "gikraidrum.h"
#include "tests/alloc_fixture.h"
#include "tests/test_support.h"

namespace gk::test {

struct NodeSpec {
  uint16_t gid;
  uint8_t kind, type;
  uint16_t size, offset;
  uint8_t nchild = 0, scope = 0, flags = 0;
};

// cmdb_node and cmdb_node_index; records appended as the builder lays them out.
struct NodeSpace {
  explicit NodeSpace(size_t bytes = 64 * 1024) : bytes(bytes) {
    cmdb.cmdb_node = base = static_cast<char*>(map_region_file("cmdb_node", bytes));
    cmdb.cmdb_node_index = index = static_cast<uint32_t*>(map_region_file("cmdb_node_index", 7444));
  }
  explicit NodeSpace(std::initializer_list<NodeSpec> top) : NodeSpace() {
    for (const NodeSpec& s : top) add(s);
  }
  NodeSpace(const NodeSpace&) = delete;
  NodeSpace& operator=(const NodeSpace&) = delete;
  ~NodeSpace() {
    cmdb.cmdb_node = cmdb.cmdb_node_index = nullptr;
    ::munmap(base, bytes);
    ::munmap(index, 7444);
  }
  // Appends a node, linked as the next free child of `parent` (null: top level).
  cmdb_node_t* add(const NodeSpec& s, cmdb_node_t* parent = nullptr) {
    auto* n = reinterpret_cast<cmdb_node_t*>(base + cursor);
    *n = {s.gid, 0, s.scope, s.kind, s.type, s.flags, 0, s.nchild, {}, s.size, s.offset, 0, 0};
    const bool has_default = s.kind == 2 || s.kind == 3 || s.kind == 4 || s.kind == 8;
    cursor = (cursor + 24 + 4u * s.nchild + (has_default ? s.size : 0u) + 3) & ~3u;
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
  uint32_t offset_of(const cmdb_node_t* n) const { return static_cast<uint32_t>(reinterpret_cast<const char*>(n) - base); }

  size_t bytes;
  char* base;
  uint32_t* index;
  uint32_t cursor = 24;
};

// Table node `gid` (kind 2), entry node gid + 1, key attribute gid + 2; a table
// block with room for `room` entries and an empty index (capacity 0), changed
// as the writers change them: the index before the entries on insert and
// re-position, after them on delete. REQUIRES: main lock held exclusive.
struct TableFixture {
  TableFixture(NodeSpace& ns, uint16_t gid, uint8_t key_type, uint16_t key_size, uint16_t key_offset,
               uint16_t data_size, uint8_t nchild, int room)
      : data_size(data_size), entry_size(data_size + 4u * nchild + 8) {
    cmdb_node_t* t = ns.add({gid, 2, 0, data_size, 0, 1});
    cmdb_node_t* e = ns.add({static_cast<uint16_t>(gid + 1), 1, 0, data_size, key_offset, 1}, t);
    key = ns.add({static_cast<uint16_t>(gid + 2), 5, key_type, key_size, key_offset}, e);
    uint32_t index_shmid = 0;
    auto* ix = static_cast<cmdb_entry_index_t*>(cmf_shm_alloc(16, &index_shmid));
    auto* tb = static_cast<cmdb_table_block_t*>(cmf_shm_alloc(32 + entry_size * room, &table_shmid));
    if (tb == nullptr || ix == nullptr) abort();
    tb->kind = CMDB_BLK_TABLE, tb->gid = gid, tb->nchild = nchild, tb->index = index_shmid;
    ix->kind = CMDB_BLK_INDEX, ix->key_gid = key->gid;
  }
  cmdb_table_block_t* table() const { return static_cast<cmdb_table_block_t*>(cmf_ptr_from_shmid(table_shmid, 1)); }
  cmdb_entry_index_t* index() const { return static_cast<cmdb_entry_index_t*>(cmf_ptr_from_shmid(table()->index, 1)); }
  uint8_t* data(int pos) const { return static_cast<uint8_t*>(cmf_get_entry_data(table(), static_cast<uint32_t>(pos))); }
  uint8_t* key_at(int pos) const { return data(pos) + key->offset; }
  std::vector<uint32_t> slots() const {
    std::vector<uint32_t> out;
    for (int i = 0; i < index()->count; ++i) out.push_back(index()->slot[i]);
    return out;
  }
  int call(int action, const void* arg) {
    cmdb_entry_index_t* ix = index();
    return __cmf_svr_binary_find_index(table(), &table()->index, &ix, arg, action);
  }
  int find(const void* k) { return call(CMDB_INDEX_FIND, k); }
  std::vector<uint8_t> with_key(std::vector<uint8_t> d, const void* k) const {
    memcpy(d.data() + key->offset, k, key->size);
    return d;
  }
  int insert_at(int pos, const void* k) {
    std::vector<uint8_t> d = with_key(std::vector<uint8_t>(data_size), k);
    cmdb_index_req_t req = {pos, d.data()};
    if (int r = call(CMDB_INDEX_INSERT, &req); r != 0) return r;
    auto* at = static_cast<uint8_t*>(cmf_get_table_entry(table(), static_cast<uint32_t>(pos)));
    memmove(at + entry_size, at, entry_size * static_cast<size_t>(table()->count - pos));
    memset(at, 0, entry_size);
    table()->count++;
    memcpy(data(pos), d.data(), data_size);
    return 0;
  }
  int erase(int pos) {
    auto* at = static_cast<uint8_t*>(cmf_get_table_entry(table(), static_cast<uint32_t>(pos)));
    memmove(at, at + entry_size, entry_size * static_cast<size_t>(table()->count - pos - 1));
    table()->count--;
    cmdb_entry_index_t* ix = index();
    return __cmf_svr_binary_del_index(table(), &table()->index, &ix, pos);
  }
  int rekey(int pos, const void* k) {
    std::vector<uint8_t> d = with_key(std::vector<uint8_t>(data(pos), data(pos) + data_size), k);
    cmdb_index_req_t req = {pos, d.data()};
    if (int r = call(CMDB_INDEX_REPOSITION, &req); r != 0) return r;
    memcpy(data(pos), d.data(), data_size);
    return 0;
  }

  uint16_t data_size;
  uint32_t entry_size;
  uint32_t table_shmid = 0;
  cmdb_node_t* key;
};

}  // namespace gk::test
