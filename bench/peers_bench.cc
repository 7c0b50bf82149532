// What a user could pick instead, and the kernel floor underneath, measured in
// the same run as the library's own benchmarks so the report can pair them:
// LMDB lookups in an open read transaction (integer keys, and string keys in
// version order through a custom comparator), a whole read-transaction cycle,
// Boost.Interprocess map lookups and reader locks, a process-shared
// pthread_rwlock, a plain system call and a page file's life in tmpfs.
// Keys and probe order are those of tree_bench.cc's tables.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <lmdb.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/containers/map.hpp>
#include <boost/interprocess/managed_shared_memory.hpp>
#include <boost/interprocess/sync/interprocess_sharable_mutex.hpp>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace {

namespace bip = boost::interprocess;

uint32_t scramble(uint32_t i) { return i * 2654435761u; }  // as tree_bench.cc
std::string host_key(uint32_t i) { return "host" + std::to_string(scramble(i)) + ".lan"; }

std::vector<uint32_t> probe_order(uint32_t n) {
  std::vector<uint32_t> order(n);
  std::iota(order.begin(), order.end(), 0u);
  std::shuffle(order.begin(), order.end(), std::mt19937(1));
  return order;
}

void check(int rc, const char* what) {
  if (rc != 0) {
    fprintf(stderr, "%s: %s\n", what, mdb_strerror(rc));
    abort();
  }
}

int version_order(const MDB_val* a, const MDB_val* b) {
  return strverscmp(static_cast<const char*>(a->mv_data), static_cast<const char*>(b->mv_data));
}

// One environment per (size, key kind), loaded once in key order with
// MDB_APPEND and kept for the whole run; values are 8 bytes as the tree's.
struct LmdbTable {
  LmdbTable(uint32_t n, bool strings) : n(n), strings(strings) {
    const std::string dir = "/tmp/lmdb_" + std::to_string(n) + (strings ? "s" : "u");
    ::mkdir(dir.c_str(), 0700);
    check(mdb_env_create(&env), "env_create");
    check(mdb_env_set_mapsize(env, size_t{1} << 30), "set_mapsize");
    check(mdb_env_open(env, dir.c_str(), MDB_NOSYNC | MDB_NOMETASYNC | MDB_WRITEMAP, 0600), "env_open");
    MDB_txn* txn = nullptr;
    check(mdb_txn_begin(env, nullptr, 0, &txn), "txn_begin");
    check(mdb_dbi_open(txn, nullptr, strings ? 0 : MDB_INTEGERKEY, &dbi), "dbi_open");
    if (strings) check(mdb_set_compare(txn, dbi, version_order), "set_compare");
    uint64_t value = 0;
    if (strings) {
      for (uint32_t i = 0; i < n; ++i) keys.push_back(host_key(i));
      std::vector<std::string> sorted = keys;
      std::sort(sorted.begin(), sorted.end(),
                [](const std::string& a, const std::string& b) { return strverscmp(a.c_str(), b.c_str()) < 0; });
      for (const std::string& k : sorted) put(txn, k.c_str(), k.size() + 1, &value, MDB_APPEND);
    } else {
      for (uint32_t i = 0; i < n; ++i) ints.push_back(scramble(i));
      std::vector<uint32_t> sorted = ints;
      std::sort(sorted.begin(), sorted.end());
      for (uint32_t& k : sorted) put(txn, &k, 4, &value, MDB_APPEND);
    }
    check(mdb_txn_commit(txn), "commit");
    for (uint32_t j : probe_order(n)) order.push_back(j);
  }
  void put(MDB_txn* txn, const void* key, size_t len, uint64_t* value, unsigned flags) {
    MDB_val k{len, const_cast<void*>(key)}, v{8, value};
    check(mdb_put(txn, dbi, &k, &v, flags), "put");
  }
  MDB_val probe(size_t j) {
    const uint32_t i = order[j % n];
    if (strings) return {keys[i].size() + 1, keys[i].data()};
    return {4, &ints[i]};
  }
  static LmdbTable& get(uint32_t n, bool strings) {
    static std::map<std::pair<uint32_t, bool>, std::unique_ptr<LmdbTable>> made;
    auto& t = made[{n, strings}];
    if (!t) t = std::make_unique<LmdbTable>(n, strings);
    return *t;
  }

  uint32_t n;
  bool strings;
  MDB_env* env = nullptr;
  MDB_dbi dbi = 0;
  std::vector<std::string> keys;
  std::vector<uint32_t> ints;
  std::vector<uint32_t> order;
};

// mdb_get in a read transaction held open across the loop: the lookup alone.
void lmdb_find(benchmark::State& state, bool strings) {
  LmdbTable& t = LmdbTable::get(static_cast<uint32_t>(state.range(0)), strings);
  MDB_txn* txn = nullptr;
  check(mdb_txn_begin(t.env, nullptr, MDB_RDONLY, &txn), "txn_begin");
  size_t j = 0;
  MDB_val v;
  for (auto _ : state) {
    MDB_val k = t.probe(j++);
    if (mdb_get(txn, t.dbi, &k, &v) != 0) state.SkipWithError("key not found");
    benchmark::DoNotOptimize(v.mv_data);
  }
  mdb_txn_abort(txn);
}
void BM_FindU32_Lmdb(benchmark::State& state) { lmdb_find(state, false); }
void BM_FindString_Lmdb(benchmark::State& state) { lmdb_find(state, true); }
BENCHMARK(BM_FindU32_Lmdb)->Arg(16)->Arg(100)->Arg(1000)->Arg(10000)->Arg(1000000);
BENCHMARK(BM_FindString_Lmdb)->Arg(100)->Arg(10000)->Arg(1000000);

// The reader's whole cycle: begin a read transaction, get, abort.
void BM_LockedReadString_Lmdb(benchmark::State& state) {
  LmdbTable& t = LmdbTable::get(static_cast<uint32_t>(state.range(0)), true);
  size_t j = 0;
  MDB_val v;
  for (auto _ : state) {
    MDB_txn* txn = nullptr;
    check(mdb_txn_begin(t.env, nullptr, MDB_RDONLY, &txn), "txn_begin");
    MDB_val k = t.probe(j++);
    if (mdb_get(txn, t.dbi, &k, &v) != 0) state.SkipWithError("key not found");
    benchmark::DoNotOptimize(v.mv_data);
    mdb_txn_abort(txn);
  }
}
BENCHMARK(BM_LockedReadString_Lmdb)->Arg(100)->Arg(10000);

// A put of a new key and its delete, in a write transaction committed every
// 1024 pairs (no sync): the B-tree's cost per change, commit amortised.
void BM_InsertDeleteU32_Lmdb(benchmark::State& state) {
  const auto n = static_cast<uint32_t>(state.range(0));
  LmdbTable& t = LmdbTable::get(n, false);
  std::mt19937 rng(3);
  MDB_txn* txn = nullptr;
  check(mdb_txn_begin(t.env, nullptr, 0, &txn), "txn_begin");
  uint64_t value = 0;
  int64_t done = 0;
  for (auto _ : state) {
    uint32_t key = scramble(n + rng() % n) | 1u;  // as tree_bench.cc: outside the keys, mostly
    MDB_val k{4, &key}, v{8, &value};
    if (mdb_put(txn, t.dbi, &k, &v, MDB_NOOVERWRITE) == 0) mdb_del(txn, t.dbi, &k, nullptr);
    if (++done % 1024 == 0) {
      check(mdb_txn_commit(txn), "commit");
      check(mdb_txn_begin(t.env, nullptr, 0, &txn), "txn_begin");
    }
  }
  check(mdb_txn_commit(txn), "commit");
}
BENCHMARK(BM_InsertDeleteU32_Lmdb)->Arg(100)->Arg(10000)->Arg(1000000);

// A Boost.Interprocess segment in /dev/shm under a name of this process,
// removed when the object goes.
class BoostSegment {
 public:
  explicit BoostSegment(const char* what, size_t bytes)
      : name_("gk_bench_" + std::string(what) + "_" + std::to_string(::getpid())) {
    bip::shared_memory_object::remove(name_.c_str());
    segment = std::make_unique<bip::managed_shared_memory>(bip::create_only, name_.c_str(), bytes);
  }
  ~BoostSegment() {
    segment.reset();
    bip::shared_memory_object::remove(name_.c_str());
  }
  std::unique_ptr<bip::managed_shared_memory> segment;

 private:
  std::string name_;
};

using ShmAlloc = bip::allocator<std::pair<const uint32_t, uint64_t>, bip::managed_shared_memory::segment_manager>;
using ShmMap = bip::map<uint32_t, uint64_t, std::less<uint32_t>, ShmAlloc>;

void BM_FindU32_BoostMap(benchmark::State& state) {
  const auto n = static_cast<uint32_t>(state.range(0));
  BoostSegment seg("map", size_t{n} * 96 + (size_t{1} << 20));
  auto* m = seg.segment->construct<ShmMap>("m")(ShmAlloc(seg.segment->get_segment_manager()));
  for (uint32_t i = 0; i < n; ++i) m->emplace(scramble(i), i);
  std::vector<uint32_t> probes;
  for (uint32_t j : probe_order(n)) probes.push_back(scramble(j));
  size_t j = 0;
  for (auto _ : state) {
    auto it = m->find(probes[j++ % n]);
    benchmark::DoNotOptimize(it);
  }
}
BENCHMARK(BM_FindU32_BoostMap)->Arg(100)->Arg(10000)->Arg(1000000);

// Reader-lock pairs of the peers on a lock in shared memory, one and two
// threads (each thread a reader, as two processes would be).
template <class Lock>
Lock* shared_lock_object() {
  static Lock* lock = [] {
    void* at = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (at == MAP_FAILED) abort();
    return new (at) Lock;
  }();
  return lock;
}

struct SharedRwlock {
  SharedRwlock() {
    pthread_rwlockattr_t a;
    pthread_rwlockattr_init(&a);
    pthread_rwlockattr_setpshared(&a, PTHREAD_PROCESS_SHARED);
    pthread_rwlock_init(&lock, &a);
    pthread_rwlockattr_destroy(&a);
  }
  pthread_rwlock_t lock;
};

void BM_ReadLockPair_PthreadRwlock(benchmark::State& state) {
  pthread_rwlock_t* l = &shared_lock_object<SharedRwlock>()->lock;
  for (auto _ : state) {
    pthread_rwlock_rdlock(l);
    pthread_rwlock_unlock(l);
  }
}
BENCHMARK(BM_ReadLockPair_PthreadRwlock)->Threads(1)->Threads(2)->UseRealTime();

void BM_WriteLockPair_PthreadRwlock(benchmark::State& state) {
  pthread_rwlock_t* l = &shared_lock_object<SharedRwlock>()->lock;
  for (auto _ : state) {
    pthread_rwlock_wrlock(l);
    pthread_rwlock_unlock(l);
  }
}
BENCHMARK(BM_WriteLockPair_PthreadRwlock);

void BM_ReadLockPair_BoostSharable(benchmark::State& state) {
  auto* l = shared_lock_object<bip::interprocess_sharable_mutex>();
  for (auto _ : state) {
    l->lock_sharable();
    l->unlock_sharable();
  }
}
BENCHMARK(BM_ReadLockPair_BoostSharable)->Threads(1)->Threads(2)->UseRealTime();

void BM_WriteLockPair_BoostSharable(benchmark::State& state) {
  auto* l = shared_lock_object<bip::interprocess_sharable_mutex>();
  for (auto _ : state) {
    l->lock();
    l->unlock();
  }
}
BENCHMARK(BM_WriteLockPair_BoostSharable);

// The cheapest trip into the kernel and back.
void BM_Floor_Syscall(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(::syscall(SYS_getppid));
}
BENCHMARK(BM_Floor_Syscall);

// A page file's life in tmpfs, as a slab page lives: create, size, map, first
// write to each 4 KiB page, unmap, close, unlink. Arg: file bytes.
void BM_Floor_PageFile(benchmark::State& state) {
  const auto bytes = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    int fd = ::open("/dev/cmdb/bench_page", O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(bytes)) != 0) return state.SkipWithError("open");
    auto* p = static_cast<char*>(::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    if (p == MAP_FAILED) return state.SkipWithError("mmap");
    for (size_t off = 0; off < bytes; off += 4096) p[off] = 1;
    ::munmap(p, bytes);
    ::close(fd);
    ::unlink("/dev/cmdb/bench_page");
  }
}
BENCHMARK(BM_Floor_PageFile)->Arg(4096)->Arg(65536);

}  // namespace
