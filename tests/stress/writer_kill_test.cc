// A writer SIGKILLed anywhere in a transaction, allocator calls and commit
// included: the next writer's begin() takes the change back, or finishes it
// once committed, so the region holds the configuration from before that
// transaction or after it, nothing in between, and passes the whole check.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <random>

#include "tests/stress/stress_fixture.h"
#include "tests/test_support.h"
#include "writer/config_writer.h"

namespace gk::stress {
namespace {

struct Board {
  uint32_t stage;          // 1 outside, 2 locked, 3 committing, 10..14 inside a change
  uint64_t before, after;  // digests of the configuration at begin and before commit
  uint32_t serial;
};

// FNV-1a over the domains and every context's item entries with their tags,
// in key order: equal configurations give equal digests.
// REQUIRES: main lock.
uint64_t digest() {
  uint64_t h = 14695981039346656037ull;
  auto mix = [&](const void* p, size_t n) {
    for (size_t i = 0; i < n; ++i) h = (h ^ static_cast<const uint8_t*>(p)[i]) * 1099511628211ull;
  };
  std::function<void(void*, uint32_t, uint16_t)> table = [&](void* t, uint32_t size, uint16_t kid) {
    const auto* ix =
        static_cast<const cmdb_entry_index_t*>(cmf_ptr_from_shmid(static_cast<cmdb_table_block_t*>(t)->index, 0));
    for (int32_t i = 0; i < ix->count; ++i) {
      mix(cmf_get_entry_data(t, ix->slot[i]), size);
      const uint32_t* child = kid == 0 ? nullptr : cmdb_find_child_obj(t, kid, nullptr, static_cast<int>(ix->slot[i]));
      if (child != nullptr && *child != 0) table(cmf_ptr_from_shmid(*child, 0), 8, 0);
    }
  };
  const auto* dt = static_cast<const cmdb_domain_table_t*>(cmdb.domain);
  std::map<uint32_t, std::string> contexts = {{0, ""}};
  for (int32_t i = 0; i < dt->count; ++i) contexts[dt->rec[i].id] = dt->rec[i].name;
  for (const auto& [id, name] : contexts) {
    mix(&id, 4), mix(name.data(), name.size());
    const uint32_t* slot = cmdb_find_root_entity(id, kItem);
    if (slot != nullptr && *slot != 0) table(cmf_ptr_from_shmid(*slot, 0), kItemSize, kTag);
  }
  return h;
}

void publish(uint64_t& word, uint64_t v) { std::atomic_ref<uint64_t>(word).store(v); }
uint64_t read(uint64_t& word) { return std::atomic_ref<uint64_t>(word).load(); }

// Transactions of one to three changes, each of them announced to the test
// through the board before it starts.
int victim(Board* b, uint32_t seed) {
  cleanup_cmdb_app_core();
  if (init_cmdb_app_core(2) != 0) return 2;
  std::mt19937 rng(seed);
  writer::ConfigWriter w;
  for (;;) {
    store(b->stage, 1);
    if (w.begin() != 0) return 3;
    const uint64_t d0 = digest();
    publish(b->before, d0), publish(b->after, d0);
    store(b->stage, 2);
    for (int n = 1 + static_cast<int>(rng() % 3); n > 0; --n) {
      const uint32_t k = static_cast<uint32_t>(rng() % 120), dom = rng() % 3 ? 0 : 5, op = rng() % 100;
      const writer::Location loc(dom, kItem);
      Item key;
      key_name(k, key.name);
      const Item it = make_item(rng() % 2 ? k : static_cast<uint32_t>(rng() % 120), ++b->serial, 0, dom);
      const uint8_t tag[8] = {static_cast<uint8_t>(rng() % 32)};
      store(b->stage, op < 40 ? 10 : op < 60 ? 11 : op < 85 ? 12 : op < 95 ? 13 : 14);
      if (op < 40) w.insert(loc, &it);
      else if (op < 60) w.update(loc, key.name, &it);
      else if (op < 85) w.remove(loc, key.name);
      else if (op < 95) w.insert(loc.child(key.name, kTag), tag);
      else if (w.remove_domain(5) != 0) w.add_domain("branch5", 5);
      store(b->stage, 2);
    }
    publish(b->after, digest());
    store(b->stage, 3);
    w.commit();
  }
}

TEST(WriterKillTest, TheNextWriterTakesBackOrFinishesADeadWritersTransaction) {
  StressSchema schema;
  gk::test::capture_stdout([&] { ASSERT_EQ(0, gk::test::create_region(schema, 3)); });
  ASSERT_EQ(0, init_cmdb_app_core(2));
  Board* b = shared_zeroed<Board>();
  ASSERT_NE(nullptr, b);
  publish(b->before, digest()), publish(b->after, digest());  // an empty region; no one else is attached
  const uint32_t targets[] = {2, 3, 10, 11, 12, 13, 14};
  std::map<uint32_t, int> stages;
  int recovered = 0;
  std::mt19937 rng(0x6b11);
  for (int round = 0; round < 10 * 7; ++round) {
    SCOPED_TRACE("kill " + std::to_string(round));
    store(b->stage, 0);
    const pid_t v = gk::test::start_child([&] { return victim(b, 500 + static_cast<uint32_t>(round)); });
    // Some rounds first let a few transactions through; each aims at a stage,
    // then lets 0-40 us pass.
    ::usleep(static_cast<useconds_t>(rng() % 3000));
    const uint32_t target = targets[round % 7];
    using Clock = std::chrono::steady_clock;
    for (auto t0 = Clock::now(); load(b->stage) != target && Clock::now() - t0 < std::chrono::milliseconds(500);) {
    }
    for (auto t0 = Clock::now(), end = t0 + std::chrono::microseconds(rng() % 40); Clock::now() < end;) {
    }
    ::kill(v, SIGKILL);
    ASSERT_EQ(128 + SIGKILL, gk::test::wait_child(v));
    stages[load(b->stage)]++;

    writer::ConfigWriter w;
    ASSERT_EQ(0, w.begin()) << w.error();
    recovered += w.recovered() != 0;
    const uint64_t now = digest();
    EXPECT_TRUE(now == read(b->before) || now == read(b->after)) << "stage " << load(b->stage);
    const writer::RegionReport r = writer::verify_region(8);  // under the write lock w holds
    EXPECT_TRUE(r.ok()) << "stage " << load(b->stage) << ": " << ::testing::PrintToString(r.faults);
    ASSERT_EQ(0, w.commit());
    if (HasFailure()) break;
  }
  printf("writer kills:");
  for (const auto& [stage, n] : stages) printf(" stage %u x%d", stage, n);
  printf("; %d changes taken back or finished by the next writer\n", recovered);
  EXPECT_GE(recovered, 7);  // kills did land inside changes
  shared_free(b);
  cleanup_cmdb_app_core();
}

}  // namespace
}  // namespace gk::stress
