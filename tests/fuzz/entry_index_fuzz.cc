// The entry index of a table in a real allocator region, driven by a fuzzed
// sequence of inserts, re-positions, deletes and finds, some of which damage
// the index block (count, capacity, slots) or the table's count the way a
// faulty or hostile writer could. While nothing is damaged every answer must
// match a sorted model; once something is, only -1 and staying inside the
// blocks are required. During finds and re-positions (which never reallocate)
// everything of the two pages outside the table and index blocks is poisoned,
// so a read past a block is a sanitizer report even inside a mapping.
#include <sanitizer/asan_interface.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <set>
#include <vector>

#include "alloc/alloc_internal.h"
#include "alloc/page_map.h"
#include "tests/fuzz/fuzz_host.h"
#include "tests/sandbox.h"
#include "tests/tree_fixture.h"

namespace {
using gk::test::NodeSpace;
using gk::test::TableFixture;

constexpr int kRoom = 48;  // entries the table block holds

gk::test::AllocRegion* g_region;
NodeSpace* g_nodes;
TableFixture* g_tables[2];  // u32 keys; 6-byte string keys (version order)

// Poisons the object areas of the pages holding two blocks (past the slab
// header and links, which every translation reads), except the blocks
// themselves, for as long as it lives.
class Fence {
 public:
  Fence(const void* a, size_t a_bytes, const void* b, size_t b_bytes) {
    for (const void* p : {a, b}) pages_.insert(objects_of(reinterpret_cast<uintptr_t>(p)));
    for (auto [lo, hi] : pages_) ASAN_POISON_MEMORY_REGION(reinterpret_cast<void*>(lo), hi - lo);
    ASAN_UNPOISON_MEMORY_REGION(a, a_bytes);
    ASAN_UNPOISON_MEMORY_REGION(b, b_bytes);
  }
  ~Fence() {
    for (auto [lo, hi] : pages_) ASAN_UNPOISON_MEMORY_REGION(reinterpret_cast<void*>(lo), hi - lo);
  }
  Fence(const Fence&) = delete;
  Fence& operator=(const Fence&) = delete;

 private:
  static std::pair<uintptr_t, uintptr_t> objects_of(uintptr_t p) {
    const auto* m = static_cast<const alloc::PageMap*>(cmdb.page_maps);
    const auto* ct = static_cast<const cmdb_slab_cache_table_t*>(cmdb.slab_caches);
    for (int32_t i = 0; i < m->count; ++i) {
      const alloc::PageMapSlot& s = m->slot[i];
      const auto lo = reinterpret_cast<uintptr_t>(s.addr), hi = lo + static_cast<uint32_t>(s.len);
      if (s.addr == nullptr || p < lo || p >= hi) continue;
      const int32_t c = static_cast<const cmdb_slab_header_t*>(s.addr)->cache;
      return {lo + (c < 0 ? 8 : 24 + 4 * ct->cache[c].num), hi};
    }
    abort();
  }
  std::set<std::pair<uintptr_t, uintptr_t>> pages_;
};

// The fuzzer's view of one table: the keys in position order, and whether the
// shared data is still as the library left it.
struct Run {
  TableFixture* t;
  std::vector<std::vector<uint8_t>> keys;
  bool damaged = false;

  int key_size() const { return t->key->size; }
  std::vector<uint8_t> key_from(const uint8_t* p) const {
    std::vector<uint8_t> k(p, p + key_size());
    if (t->key->type == 5) k.back() = 0;  // strings keep their NUL inside the field
    return k;
  }
  int compare(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) const {
    return cmdb_compare_key(a.data(), b.data(), t->key);
  }
  int model_find(const std::vector<uint8_t>& k) const {
    for (size_t i = 0; i < keys.size(); ++i)
      if (compare(keys[i], k) == 0) return static_cast<int>(i);
    return -1;
  }
  std::unique_ptr<Fence> fence() const {
    cmdb_table_block_t* tb = t->table();
    cmdb_entry_index_t* ix = t->index();
    if (ix == nullptr) return nullptr;
    return std::make_unique<Fence>(tb, alloc::block_bytes_from(tb), ix, alloc::block_bytes_from(ix));
  }
};

// The table starts empty: every entry removed and the index cut back to nothing.
void reset(TableFixture* t) {
  cmdb_table_block_t* tb = t->table();
  tb->count = 0;
  cmdb_entry_index_t* ix = t->index();
  uint32_t fresh = 0;
  auto* nix = static_cast<cmdb_entry_index_t*>(cmf_shm_alloc(16, &fresh));
  if (nix == nullptr) abort();
  nix->kind = CMDB_BLK_INDEX;
  nix->key_gid = ix->key_gid;
  cmf_shm_free(tb->index);
  tb->index = fresh;
}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  gk::test::enter_sandbox();
  g_region = new gk::test::AllocRegion;
  g_nodes = new NodeSpace;
  g_tables[0] = new TableFixture(*g_nodes, 60, 0, 4, 4, 12, 2, kRoom);
  g_tables[1] = new TableFixture(*g_nodes, 70, 5, 6, 2, 12, 0, kRoom);
  return 0;
}

namespace {
// The library's part of an insert or re-key, with the table count the damage
// left (or the true one); then the table's own part, by the true count.
int index_call(Run& run, int action, int pos, const std::vector<uint8_t>& key, int32_t shown_count) {
  TableFixture* t = run.t;
  std::vector<uint8_t> d(t->data_size);
  memcpy(d.data() + t->key->offset, key.data(), key.size());
  cmdb_index_req_t req = {pos, d.data()};
  t->table()->count = shown_count;
  int r;
  {
    std::unique_ptr<Fence> fence = action == CMDB_INDEX_REPOSITION ? run.fence() : nullptr;
    r = t->call(action, &req);
  }
  const int n = static_cast<int>(run.keys.size());
  t->table()->count = n;
  if (r != 0) return r;
  auto* at = static_cast<uint8_t*>(cmf_get_table_entry(t->table(), static_cast<uint32_t>(pos)));
  if (action == CMDB_INDEX_INSERT) {
    memmove(at + t->entry_size, at, t->entry_size * static_cast<size_t>(n - pos));
    memset(at, 0, t->entry_size);
    t->table()->count = n + 1;
  }
  memcpy(t->data(pos), d.data(), t->data_size);
  return 0;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  Run run{g_tables[data[0] & 1], {}};
  reset(run.t);
  int32_t shown_count = -1;  // the table count the damage left, or -1 for the true one
  const size_t ks = static_cast<size_t>(run.key_size());
  for (size_t i = 1; i + 2 + ks <= size; i += 2 + ks) {
    const uint8_t op = data[i] % 8, arg = data[i + 1];
    const std::vector<uint8_t> key = run.key_from(data + i + 2);
    const int n = static_cast<int>(run.keys.size());
    const int32_t shown = shown_count >= 0 ? shown_count : n;
    int r = 0;
    switch (op) {
      case 0:
      case 1: {  // insert at a position inside the table or just after it
        if (n == kRoom) break;
        const int pos = arg % (n + 1);
        r = index_call(run, CMDB_INDEX_INSERT, pos, key, shown);
        if (!run.damaged && (r == 0) != (run.model_find(key) < 0)) abort();
        if (r == 0) run.keys.insert(run.keys.begin() + pos, key);
        break;
      }
      case 2: {  // re-key an entry
        if (n == 0) break;
        const int pos = arg % n;
        const int other = run.model_find(key);
        r = index_call(run, CMDB_INDEX_REPOSITION, pos, key, shown);
        if (!run.damaged && (r == 0) != (other < 0 || other == pos)) abort();
        if (r == 0) run.keys[static_cast<size_t>(pos)] = key;
        break;
      }
      case 3: {  // delete
        if (n == 0) break;
        const int pos = arg % n;
        run.t->erase(pos);
        run.keys.erase(run.keys.begin() + pos);
        break;
      }
      case 4:
      case 5: {  // find
        run.t->table()->count = shown;
        {
          auto fence = run.fence();
          r = run.t->find(key.data());
        }
        run.t->table()->count = n;
        if (!run.damaged && r != run.model_find(key)) abort();
        // A damaged slot may name an entry past the count but inside the block
        // (the fence catches any read outside it).
        if (r < -1 || (!run.damaged && r >= n)) abort();
        break;
      }
      default: {  // damage
        cmdb_entry_index_t* ix = run.t->index();
        int32_t v = 0;
        memcpy(&v, data + i + 2, 4 < ks ? 4 : ks);
        const size_t slots = (alloc::block_bytes_from(ix) - 16) / 4;
        switch (arg % 4) {
          case 0: ix->count = v; break;
          case 1: ix->capacity = v; break;
          case 2: if (slots > 0) ix->slot[(arg / 4) % slots] = static_cast<uint32_t>(v); break;
          default: shown_count = v & 0x7FFFFFFF; break;
        }
        run.damaged = true;
        break;
      }
    }
  }
  run.t->table()->count = 0;
  return 0;
}
