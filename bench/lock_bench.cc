// Cost of the main lock against the bare semaphore steps it is built on.
#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <sys/sem.h>

#include <cstdlib>

#include "gikraidrum.h"

namespace {

// Lock files, sets and a debug zone for the bookkeeping, made once per process.
void attach_locks() {
  static const bool ready = [] {
    size_t len = CMDB_DZ_SIZE(17);
    void* zone = ::mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (zone == MAP_FAILED || cmdb_create_lock() != 0 || cmf_lock_init() != 0 ||
        debug_zone_rwlock_init() != 0)
      abort();
    cmdb.debug_zone = zone;
    return true;
  }();
  (void)ready;
}

void BM_NestedReadLockPair(benchmark::State& state) {
  attach_locks();
  cmf_shm_read_lock();
  for (auto _ : state) {
    cmf_shm_read_lock();
    cmf_shm_read_unlock();
    benchmark::ClobberMemory();
  }
  cmf_shm_read_unlock();
}
BENCHMARK(BM_NestedReadLockPair);

// The baseline: one -1/+1 pair with SEM_UNDO on a private semaphore, shared by
// the threads of the two-thread run as the main lock is.
void BM_Floor_SemopPair(benchmark::State& state) {
  static const int id = [] {
    int made = ::semget(IPC_PRIVATE, 1, IPC_CREAT | 0600);
    struct sembuf fill = {0, CMDB_RWLOCK_FULL, 0};
    if (made < 0 || ::semop(made, &fill, 1) != 0) abort();
    return made;
  }();
  struct sembuf down = {0, -1, SEM_UNDO}, up = {0, 1, SEM_UNDO};
  for (auto _ : state) {
    ::semop(id, &down, 1);
    ::semop(id, &up, 1);
  }
}
BENCHMARK(BM_Floor_SemopPair)->Threads(1)->Threads(2)->UseRealTime();

void BM_ReadLockPair(benchmark::State& state) {
  attach_locks();
  for (auto _ : state) {
    cmf_shm_read_lock();
    cmf_shm_read_unlock();
  }
}
BENCHMARK(BM_ReadLockPair)->Threads(1)->Threads(2)->UseRealTime();

void BM_WriteLockPair(benchmark::State& state) {
  attach_locks();
  for (auto _ : state) {
    cmf_shm_write_lock();
    cmf_shm_write_unlock();
  }
}
BENCHMARK(BM_WriteLockPair);

}  // namespace
