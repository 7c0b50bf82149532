// Translation and allocation costs in the owner process.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <boost/interprocess/managed_shared_memory.hpp>
#include <string>
#include <vector>

#include "tests/alloc_fixture.h"

namespace {
using gk::test::AllocRegion;

// A handle on a current mapping: the path every record the tree follows takes.
void BM_TranslateSlabBlock(benchmark::State& state) {
  AllocRegion region;
  uint32_t id = 0;
  cmf_shm_alloc(100, &id);
  for (auto _ : state) benchmark::DoNotOptimize(cmf_ptr_from_shmid(id, 0));
}
BENCHMARK(BM_TranslateSlabBlock);

void BM_TranslateLargeBlock(benchmark::State& state) {
  AllocRegion region;
  uint32_t id = 0;
  cmf_shm_alloc(20000, &id);
  for (auto _ : state) benchmark::DoNotOptimize(cmf_ptr_from_shmid(id, 0));
}
BENCHMARK(BM_TranslateLargeBlock);

// Alloc + free of one block while its slab stays alive (another block holds it).
void BM_AllocFreePair(benchmark::State& state) {
  AllocRegion region;
  const auto size = static_cast<uint32_t>(state.range(0));
  uint32_t anchor = 0, id = 0;
  cmf_shm_alloc(size, &anchor);
  for (auto _ : state) {
    benchmark::DoNotOptimize(cmf_shm_alloc(size, &id));
    cmf_shm_free(id);
  }
}
BENCHMARK(BM_AllocFreePair)->Arg(20)->Arg(100)->Arg(1000);

// A whole slab filled and emptied: one page file created and unlinked per
// iteration; items are blocks, so the per-item time is the amortised cost.
void BM_SlabLifecycle(benchmark::State& state) {
  AllocRegion region;
  const auto size = static_cast<uint32_t>(state.range(0));
  const int c = cmdb_find_cache_idx(size);
  const uint32_t num = AllocRegion::caches()->cache[c].num;
  std::vector<uint32_t> ids(num);
  for (auto _ : state) {
    for (uint32_t& id : ids) cmf_shm_alloc(size, &id);
    for (uint32_t id : ids) cmf_shm_free(id);
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * num);
}
BENCHMARK(BM_SlabLifecycle)->Arg(20)->Arg(1000);

// A large block: page file created, mapped, unmapped and unlinked each time.
void BM_LargeBlockPage(benchmark::State& state) {
  AllocRegion region;
  uint32_t id = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(cmf_shm_alloc(20000, &id));
    cmf_shm_free(id);
  }
}
BENCHMARK(BM_LargeBlockPage);

// The peer: Boost.Interprocess's segment allocator in a shared memory segment
// of this process, removed afterwards.
class BoostHeap {
 public:
  BoostHeap() : name_("gk_bench_heap_" + std::to_string(::getpid())) {
    boost::interprocess::shared_memory_object::remove(name_.c_str());
    heap = new boost::interprocess::managed_shared_memory(boost::interprocess::create_only, name_.c_str(), 64 << 20);
  }
  ~BoostHeap() {
    delete heap;
    boost::interprocess::shared_memory_object::remove(name_.c_str());
  }
  boost::interprocess::managed_shared_memory* heap;

 private:
  std::string name_;
};

void BM_AllocFreePair_Boost(benchmark::State& state) {
  BoostHeap b;
  const auto size = static_cast<size_t>(state.range(0));
  void* anchor = b.heap->allocate(size);
  for (auto _ : state) {
    void* p = b.heap->allocate(size);
    benchmark::DoNotOptimize(p);
    b.heap->deallocate(p);
  }
  b.heap->deallocate(anchor);
}
BENCHMARK(BM_AllocFreePair_Boost)->Arg(20)->Arg(100)->Arg(1000);

// As many blocks as one of our slabs holds, allocated then freed.
void BM_SlabLifecycle_Boost(benchmark::State& state) {
  const auto size = static_cast<uint32_t>(state.range(0));
  uint32_t num = 0;
  {
    AllocRegion region;
    num = AllocRegion::caches()->cache[cmdb_find_cache_idx(size)].num;
  }
  BoostHeap b;
  std::vector<void*> blocks(num);
  for (auto _ : state) {
    for (void*& p : blocks) p = b.heap->allocate(size);
    for (void* p : blocks) b.heap->deallocate(p);
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * num);
}
BENCHMARK(BM_SlabLifecycle_Boost)->Arg(20)->Arg(1000);

}  // namespace
