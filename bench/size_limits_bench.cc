// Table limits: the creation-time scan of size_table, and the run-time getters
// over a full table-limits block.
#include <benchmark/benchmark.h>

#include <memory>

#include "gikraidrum.h"
#include "tree/tree_internal.h"

namespace {

// First row, last row, and a gid without a row (the whole scan, then the default).
void BM_SizeTableLookup(benchmark::State& state) {
  const auto gid = static_cast<uint32_t>(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(cmdb_get_table_tsize(gid, 13));
}
BENCHMARK(BM_SizeTableLookup)->Arg(91)->Arg(1726)->Arg(92);

// What the creating process pays for a schema with a full block of table nodes.
void BM_BuildFullBlock(benchmark::State& state) {
  auto block = std::make_unique<cmdb_table_limits_t>();
  for (auto _ : state) {
    block->count = 0;
    for (int i = CMDB_TABLE_LIMITS_MAX; i > 0; --i) tree::table_limits_append(block.get(), 7 * i, 13);
    tree::table_limits_sort(block.get());
    benchmark::DoNotOptimize(block->rec[0].gid);
  }
}
BENCHMARK(BM_BuildFullBlock);

// Every gid of a full block in turn, then misses between them.
void BM_TableCountGetter(benchmark::State& state) {
  auto block = std::make_unique<cmdb_table_limits_t>();
  for (int i = 1; i <= CMDB_TABLE_LIMITS_MAX; ++i) tree::table_limits_append(block.get(), 7 * i, 13);
  cmdb.table_limits = block.get();
  const uint32_t offset = static_cast<uint32_t>(state.range(0));
  uint32_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(cmf_get_table_tcnt(7 * (i % CMDB_TABLE_LIMITS_MAX + 1) + offset));
    ++i;
  }
  cmdb.table_limits = nullptr;
}
BENCHMARK(BM_TableCountGetter)->ArgName("miss")->Arg(0)->Arg(3);

}  // namespace
