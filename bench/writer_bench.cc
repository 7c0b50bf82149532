// The configuration writer: one change per transaction (lock, index, locator,
// version, announcement) at several table sizes, a batch of changes in one
// transaction, and domains coming and going.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/sample_schema.h"
#include "writer/config_writer.h"

namespace {

constexpr uint16_t kUser = 346;  // per-domain table, 32-byte string key; 3000 entries on platform 20

// The region of the sample schema on a platform with room for 3000 users per
// table and 3008 in all,
// attached as its owner; made once for the suite.
writer::ConfigWriter* owner() {
  static writer::ConfigWriter* w = []() -> writer::ConfigWriter* {
    fflush(stdout);
    const int saved = ::dup(1), null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ::dup2(null, 1);  // the creation's summary line
    cleanup_cmdb_app_core();
    static gk::test::SampleSchema schema;
    const int r = gk::test::create_region(schema, 20);
    fflush(stdout);
    ::dup2(saved, 1);
    ::close(saved);
    ::close(null);
    return r == 0 && init_cmdb_app_core(2) == 0 ? new writer::ConfigWriter : nullptr;
  }();
  return w;
}

std::vector<uint8_t> user(int n) {
  std::vector<uint8_t> d(40, 0);
  snprintf(reinterpret_cast<char*>(d.data()), 32, "user%d", n);
  return d;
}

// A domain whose user table holds n entries.
uint32_t domain_with(int n) {
  writer::ConfigWriter& w = *owner();
  const uint32_t id = static_cast<uint32_t>(n) + 1;
  if (w.add_domain(("bench" + std::to_string(n)).c_str(), id) == 0)
    for (int i = 0; i < n; ++i) w.insert(writer::Location(id, kUser), user(i).data());
  return id;
}

void BM_InsertRemove(benchmark::State& state) {
  if (owner() == nullptr) return state.SkipWithError("no region");
  writer::ConfigWriter& w = *owner();
  const int n = static_cast<int>(state.range(0));
  const writer::Location loc(domain_with(n), kUser);
  const std::vector<uint8_t> extra = user(n / 2 * 7 + 1000000);  // lands mid-index
  for (auto _ : state) {
    if (w.insert(loc, extra.data(), static_cast<int>(n / 2)) != 0 || w.remove(loc, extra.data()) != 0)
      return state.SkipWithError(w.error().c_str());
  }
  state.SetItemsProcessed(2 * state.iterations());
}
BENCHMARK(BM_InsertRemove)->Arg(16)->Arg(256)->Arg(2048)->Unit(benchmark::kMicrosecond);

void BM_UpdateNewKey(benchmark::State& state) {
  if (owner() == nullptr) return state.SkipWithError("no region");
  writer::ConfigWriter& w = *owner();
  const int n = static_cast<int>(state.range(0));
  const writer::Location loc(domain_with(n), kUser);
  const std::vector<uint8_t> a = user(0), b = user(9999999);  // first and last in key order
  for (auto _ : state) {
    if (w.update(loc, a.data(), b.data()) != 0 || w.update(loc, b.data(), a.data()) != 0)
      return state.SkipWithError(w.error().c_str());
  }
  state.SetItemsProcessed(2 * state.iterations());
}
BENCHMARK(BM_UpdateNewKey)->Arg(16)->Arg(2048)->Unit(benchmark::kMicrosecond);

// 100 inserts and their removal in one transaction: the per-change cost
// without the lock and version bump of each.
void BM_BatchedInserts(benchmark::State& state) {
  if (owner() == nullptr) return state.SkipWithError("no region");
  writer::ConfigWriter& w = *owner();
  const writer::Location loc(domain_with(0), kUser);
  std::vector<std::vector<uint8_t>> rows;
  for (int i = 0; i < 100; ++i) rows.push_back(user(i));
  for (auto _ : state) {
    w.begin();
    for (const auto& r : rows) w.insert(loc, r.data());
    for (const auto& r : rows) w.remove(loc, r.data());
    w.commit();
  }
  state.SetItemsProcessed(200 * state.iterations());
}
BENCHMARK(BM_BatchedInserts)->Unit(benchmark::kMicrosecond);

// A reader's whole lookup of one row: lock, the domain's root entity, the
// table's translation, the find, the row's data copied out, unlock; and the
// find alone on the same table, for the ratio.
struct UserProbes {
  explicit UserProbes(int n) : domain(domain_with(n)) {
    for (int i = 0; i < n; ++i) keys.push_back(user(i * 7919 % n));  // a stride that visits all
  }
  const void* key(size_t j) const { return keys[j % keys.size()].data(); }
  uint32_t domain;
  std::vector<std::vector<uint8_t>> keys;
};

// The domain's root entity, the table's translation, the find, the row copied out.
int read_row(const UserProbes& p, size_t j, uint8_t (&row)[40]) {
  const uint32_t* root = cmdb_find_root_entity(p.domain, kUser);
  void* table = root != nullptr ? cmf_ptr_from_shmid(*root, 0) : nullptr;
  const int pos = table != nullptr ? __cmf_svr_find_table_entry(table, p.key(j)) : -1;
  if (pos >= 0) memcpy(row, cmf_get_entry_data(table, static_cast<uint32_t>(pos)), sizeof row);
  return pos;
}

void BM_LockedReadString(benchmark::State& state) {
  if (owner() == nullptr) return state.SkipWithError("no region");
  const UserProbes p(static_cast<int>(state.range(0)));
  uint8_t row[40];
  size_t j = 0;
  for (auto _ : state) {
    cmf_shm_read_lock();
    const int pos = read_row(p, j++, row);
    cmf_shm_read_unlock();
    if (pos < 0) return state.SkipWithError("row not found");
    benchmark::DoNotOptimize(row);
  }
}
BENCHMARK(BM_LockedReadString)->Arg(100)->Arg(2048);

// The same chain under a read lock taken once: what a reader pays per row
// beyond the lock.
void BM_ReadChainString(benchmark::State& state) {
  if (owner() == nullptr) return state.SkipWithError("no region");
  const UserProbes p(static_cast<int>(state.range(0)));
  uint8_t row[40];
  size_t j = 0;
  cmf_shm_read_lock();
  for (auto _ : state) {
    if (read_row(p, j++, row) < 0) break;
    benchmark::DoNotOptimize(row);
  }
  cmf_shm_read_unlock();
  if (read_row(p, 0, row) < 0) state.SkipWithError("row not found");
}
BENCHMARK(BM_ReadChainString)->Arg(100)->Arg(2048);

void BM_FindStringInRegion(benchmark::State& state) {
  if (owner() == nullptr) return state.SkipWithError("no region");
  const UserProbes p(static_cast<int>(state.range(0)));
  cmf_shm_read_lock();
  void* table = cmf_ptr_from_shmid(*cmdb_find_root_entity(p.domain, kUser), 0);
  cmf_shm_read_unlock();
  size_t j = 0;
  for (auto _ : state) {
    const int pos = __cmf_svr_find_table_entry(table, p.key(j++));
    if (pos < 0) return state.SkipWithError("row not found");
    benchmark::DoNotOptimize(pos);
  }
}
BENCHMARK(BM_FindStringInRegion)->Arg(100)->Arg(2048);

void BM_AddRemoveDomain(benchmark::State& state) {
  if (owner() == nullptr) return state.SkipWithError("no region");
  writer::ConfigWriter& w = *owner();
  for (uint32_t i = 0; i < 100; ++i) w.add_domain(("around" + std::to_string(i)).c_str(), 100000 + i);
  for (auto _ : state) {
    if (w.add_domain("passing", 7777777) != 0 || w.remove_domain(7777777) != 0)
      return state.SkipWithError(w.error().c_str());
  }
  state.SetItemsProcessed(2 * state.iterations());
}
BENCHMARK(BM_AddRemoveDomain)->Unit(benchmark::kMicrosecond);

}  // namespace
