// The tree's hot paths: find by key through a table's entry index, the cost of
// keeping the index in order as a table grows, and domain lookups.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "alloc/alloc_internal.h"
#include "alloc/page_map.h"
#include "gikraidrum.h"
#include "tree/tree_internal.h"
#include "tests/tree_fixture.h"

namespace {

constexpr uint16_t kKeyBytes = 32;  // string key field

uint32_t scramble(uint32_t i) { return i * 2654435761u; }  // a bijection: distinct keys

// A table of n entries holding distinct keys in no particular order (entry i
// has key i scrambled), with its index built in one go, and the keys of all
// entries in a random probe order.
struct BenchTable {
  BenchTable(uint32_t n, bool strings) : n(n) {
    const uint8_t type = strings ? 2 : 0;
    const uint16_t size = strings ? kKeyBytes : 4;
    cmdb_node_t* t = ns.add({100, 2, 0, static_cast<uint16_t>(size + 8), 0, 1});
    cmdb_node_t* e = ns.add({101, 1, 0, static_cast<uint16_t>(size + 8), 4, 1}, t);
    ns.add({102, 5, type, size, 4}, e);
    const uint32_t entry = size + 8 + 8;
    uint32_t index_shmid = 0;
    auto* ix = static_cast<cmdb_entry_index_t*>(cmf_shm_alloc(16 + 4 * n, &index_shmid));
    table = static_cast<cmdb_table_block_t*>(cmf_shm_alloc(32 + entry * n, &table_shmid));
    table->index = index_shmid;
    table->kind = CMDB_BLK_TABLE, table->gid = 100, table->count = static_cast<int32_t>(n);
    ix->kind = CMDB_BLK_INDEX, ix->key_gid = 102, ix->capacity = ix->count = static_cast<int32_t>(n);
    for (uint32_t i = 0; i < n; ++i) write_key(static_cast<uint8_t*>(cmf_get_entry_data(table, i)) + 4, i, strings);
    std::iota(ix->slot, ix->slot + n, 0u);
    std::sort(ix->slot, ix->slot + n, [&](uint32_t a, uint32_t b) {
      return cmdb_compare_key(key_of(a), key_of(b), tree_key()) < 0;
    });
    std::vector<uint32_t> order(n);
    std::iota(order.begin(), order.end(), 0u);
    std::shuffle(order.begin(), order.end(), std::mt19937(1));
    probes.resize(size_t{n} * size);
    for (uint32_t j = 0; j < n; ++j) memcpy(&probes[size_t{j} * size], key_of(order[j]), size);
    key_size = size;
  }
  static void write_key(uint8_t* at, uint32_t i, bool strings) {
    if (strings)
      snprintf(reinterpret_cast<char*>(at), kKeyBytes, "host%u.lan", scramble(i));
    else {
      const uint32_t k = scramble(i);
      memcpy(at, &k, 4);
    }
  }
  const uint8_t* key_of(uint32_t pos) const { return static_cast<uint8_t*>(cmf_get_entry_data(table, pos)) + 4; }
  const cmdb_node_t* tree_key() const { return reinterpret_cast<const cmdb_node_t*>(ns.base + ns.index[102]); }
  const void* probe(size_t j) const { return &probes[(j % n) * key_size]; }

  gk::test::AllocRegion alloc;
  gk::test::NodeSpace ns;
  uint32_t n;
  uint32_t table_shmid = 0;
  uint32_t key_size = 0;
  cmdb_table_block_t* table;
  std::vector<uint8_t> probes;
};

void find_by_key(benchmark::State& state, bool strings) {
  BenchTable t(static_cast<uint32_t>(state.range(0)), strings);
  size_t j = 0;
  for (auto _ : state) {
    int pos = __cmf_svr_find_table_entry(t.table, t.probe(j++));
    benchmark::DoNotOptimize(pos);
  }
  if (__cmf_svr_find_table_entry(t.table, t.probe(0)) < 0) state.SkipWithError("key not found");
}
void BM_FindU32(benchmark::State& state) { find_by_key(state, false); }
void BM_FindString(benchmark::State& state) { find_by_key(state, true); }
BENCHMARK(BM_FindU32)->Arg(16)->Arg(100)->Arg(1000)->Arg(10000)->Arg(1000000);
BENCHMARK(BM_FindString)->Arg(100)->Arg(10000)->Arg(1000000);

// The floor under a find: std::lower_bound over the same keys, sorted in a
// private array, probed in the same order, behind a call as a find is.
__attribute__((noinline)) bool plain_find(const std::vector<uint32_t>& keys, uint32_t key) {
  auto it = std::lower_bound(keys.begin(), keys.end(), key);
  return it != keys.end() && *it == key;
}
void BM_FindU32_Floor(benchmark::State& state) {
  const auto n = static_cast<uint32_t>(state.range(0));
  std::vector<uint32_t> keys(n);
  for (uint32_t i = 0; i < n; ++i) keys[i] = scramble(i);
  std::vector<uint32_t> probes = keys;
  std::shuffle(probes.begin(), probes.end(), std::mt19937(1));
  std::sort(keys.begin(), keys.end());
  size_t j = 0;
  for (auto _ : state) benchmark::DoNotOptimize(plain_find(keys, probes[j++ % n]));
}
BENCHMARK(BM_FindU32_Floor)->Arg(16)->Arg(100)->Arg(1000);

// The steps around the search of a find at 100 entries, each alone: the index
// handle's translation with its extent (0), the table block's extent (1), the
// table's and the key's schema nodes (2).
void BM_FindStep(benchmark::State& state) {
  BenchTable t(100, false);
  const uint32_t index = t.table->index;
  for (auto _ : state) {
    size_t bytes = 0;
    switch (state.range(0)) {
      case 0: benchmark::DoNotOptimize(alloc::translate(index, 0, &bytes)); break;
      case 1: benchmark::DoNotOptimize(alloc::block_bytes_from(t.table)); break;
      default:
        benchmark::DoNotOptimize(tree::find_node(100));
        benchmark::DoNotOptimize(tree::find_node(102));
    }
    benchmark::DoNotOptimize(bytes);
  }
}
BENCHMARK(BM_FindStep)->Arg(0)->Arg(1)->Arg(2);

// One insert at a random position and the delete of the same entry: the index
// side of what a writer pays per change, O(n) slot moves and renumbering.
void BM_InsertDeleteU32(benchmark::State& state) {
  const auto n = static_cast<uint32_t>(state.range(0));
  BenchTable t(n, false);
  std::mt19937 rng(3);
  uint8_t data[12] = {};
  for (auto _ : state) {
    const uint32_t key = scramble(n + rng() % n) | 1u;  // outside the table's keys, most of the time
    memcpy(data + 4, &key, 4);
    const int pos = static_cast<int>(rng() % (n + 1));
    cmdb_index_req_t req = {pos, data};
    auto* ix = static_cast<cmdb_entry_index_t*>(cmf_ptr_from_shmid(t.table->index, 1));
    if (__cmf_svr_binary_find_index(t.table, &t.table->index, &ix, &req, CMDB_INDEX_INSERT) == 0)
      __cmf_svr_binary_del_index(t.table, &t.table->index, &ix, pos);
  }
}
BENCHMARK(BM_InsertDeleteU32)->Arg(100)->Arg(10000)->Arg(1000000);

// 3 000 domains, looked up by id and by (differently cased) name.
struct BenchDomains {
  static constexpr int kCount = 3000;
  BenchDomains() {
    table = static_cast<cmdb_domain_table_t*>(gk::test::map_region_file("domain", kCount * 264 + 12));
    by_id = static_cast<uint32_t*>(gk::test::map_region_file("domid_index", kCount * 4));
    by_name = static_cast<uint32_t*>(gk::test::map_region_file("domname_index", kCount * 4));
    cmdb.domain = table, cmdb.domid_index = by_id, cmdb.domname_index = by_name;
    for (int i = 0; i < kCount; ++i) {
      table->rec[i].id = scramble(static_cast<uint32_t>(i)) >> 1;
      snprintf(table->rec[i].name, 256, "tenant-%u", scramble(static_cast<uint32_t>(i)));
    }
    table->count = kCount;
    std::iota(by_id, by_id + kCount, 0u);
    std::iota(by_name, by_name + kCount, 0u);
    std::sort(by_name, by_name + kCount,
              [&](uint32_t a, uint32_t b) { return strcasecmp(table->rec[a].name, table->rec[b].name) < 0; });
    cmf_shm_resolve_alldomain();
  }
  cmdb_domain_table_t* table;
  uint32_t* by_id;
  uint32_t* by_name;
};

void BM_DomainById(benchmark::State& state) {
  BenchDomains d;
  uint32_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(__cmdb_find_domain_by_id(d.table->rec[i++ % d.kCount].id, 0));
}
BENCHMARK(BM_DomainById);

void BM_DomainByName(benchmark::State& state) {
  BenchDomains d;
  std::vector<std::string> names;
  for (int i = 0; i < d.kCount; ++i) names.push_back("TENANT-" + std::string(d.table->rec[i].name + 7));
  uint32_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(__cmdb_find_domain_by_name(names[i++ % d.kCount].c_str(), 0));
}
BENCHMARK(BM_DomainByName);

}  // namespace
