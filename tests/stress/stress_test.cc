// Load: one owner changes the configuration through the writer while reader
// processes look entries up under the read lock and check every entry they
// see against its checksum and against the owner's record of what it
// committed. GK_STRESS_SECONDS sets the length of the run (default 12).
#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <time.h>

#include <chrono>
#include <random>
#include <vector>

#include "tests/stress/stress_fixture.h"
#include "tests/test_support.h"
#include "writer/config_writer.h"

namespace gk::stress {
namespace {

constexpr int kContexts = 4;   // 0 global, 1..3 domains that come and go
constexpr uint32_t kKeys = 320;  // more than a table may hold, so inserts also meet the limit
constexpr int kMaxReaders = 16;

// What the owner has committed, written while it holds the write lock, so a
// reader holding the read lock sees it exactly as the region has it.
struct KeyState {
  uint32_t present, serial, sum;  // serial: of the last write, also of a removal
};
struct Context {
  uint32_t live, id;
  char name[32];
  uint32_t count;
  KeyState key[kKeys];
};
// Faults: torn (checksum wrong), lost (committed, not found), ghost (found,
// not committed), stale (an older serial), a wrong version or domain lookup, a
// failed call.
struct ReaderFigures {
  uint64_t probes, event_checks, faults;
  char first_fault[120];
};
void fault(ReaderFigures& f, const char* what, uint32_t domain, int k = -1, uint32_t want = 0, uint32_t got = 0) {
  if (f.faults++ == 0)
    snprintf(f.first_fault, sizeof f.first_fault, "%s: domain %u key %d, committed serial %u, found %u", what, domain,
             k, want, got);
}
struct Shared {
  uint32_t version;  // the region's version once the owner's last commit is in
  uint32_t stop;
  Context ctx[kContexts];
  ReaderFigures reader[kMaxReaders];
};

int env_int(const char* name, int fallback) {
  const char* v = getenv(name);
  return v != nullptr && atoi(v) > 0 ? atoi(v) : fallback;
}
double now_s() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

// ---------------------------------------------------------------------------
// Readers

struct Heard {
  uint32_t domain, serial;
  int key;  // -2: a torn item
};
std::vector<Heard>* g_heard = nullptr;

int on_item_event(cmdb_event_msg_t* msg) {
  if (msg->data2 == 0 || msg->data_size != kItemSize || g_heard == nullptr) return 0;
  Item it;
  memcpy(&it, reinterpret_cast<const void*>(msg->data2), sizeof it);
  g_heard->push_back({msg->domain_id, it.serial, sum_ok(it) ? key_index(it.name) : -2});
  return 0;
}

// The entry of key k in context c as the reader's calls find it, or null.
// REQUIRES: main lock (shared).
const Item* find_item(const Context& c, uint32_t k) {
  uint32_t* slot = cmdb_find_root_entity(c.id, kItem);
  auto* t = slot == nullptr || *slot == 0 ? nullptr : cmf_ptr_from_shmid(*slot, 0);
  if (t == nullptr) return nullptr;
  Item key;
  key_name(k, key.name);
  const int pos = __cmf_svr_find_table_entry(t, key.name);
  return pos < 0 ? nullptr : static_cast<const Item*>(cmf_get_entry_data(t, static_cast<uint32_t>(pos)));
}

// Compares one lookup with the owner's record. REQUIRES: main lock (shared).
void probe(const Context& c, uint32_t k, ReaderFigures& f) {
  const KeyState& want = c.key[k];
  const Item* got = find_item(c, k);
  ++f.probes;
  if (got == nullptr) {
    if (want.present) fault(f, "lost", c.id, k, want.serial);
  } else if (!sum_ok(*got)) {
    fault(f, "torn", c.id, k);
  } else if (!want.present || got->serial != want.serial || got->sum != want.sum) {
    fault(f, "ghost or stale", c.id, k, want.serial, got->serial);
  }
}

void check_domains(const Context& c, ReaderFigures& f) {
  if (c.id == 0) return;
  const bool by_name = cmf_shm_find_domain_id(c.name) == c.id && cmdb_find_domain_by_name(c.name) != nullptr;
  const bool by_id = cmdb_find_domain_by_id(c.id) != nullptr;
  const char* name = cmf_shm_find_domain_name(c.id);
  const bool named = name != nullptr && strcmp(name, c.name) == 0;
  if (c.live ? !(by_name && by_id && named) : (cmf_shm_find_domain_id(c.name) != 0 || by_id)) fault(f, "domain", c.id);
}

int reader_main(Shared* sh, int idx, uint32_t seed) {
  cleanup_cmdb_app_core();  // a child's own attachment, not the inherited one
  if (init_cmdb_app_core(1) != 0) return 2;
  char me[20];
  snprintf(me, sizeof me, "stress_rd%d", idx);
  const int fd = cmdb_event_init(me, 1);
  std::vector<Heard> heard;
  g_heard = &heard;
  if (fd < 0 || register_cmdb_event(kItem, 0x03, EVENT_WITH_DATA, on_item_event) != 0) return 3;
  ReaderFigures& f = sh->reader[idx];
  std::mt19937 rng(seed);
  for (uint64_t round = 0; !load(sh->stop); ++round) {
    pollfd p{fd, POLLIN, 0};
    while (::poll(&p, 1, 0) == 1 && heard.size() < 4096)
      if (do_cmdb_event_handling() != 0) fault(f, "event handling", 0);
    cmf_shm_read_lock();
    // MAIN LOCK (shared)
    if (cmdb_get_version() != sh->version) fault(f, "version", 0, -1, sh->version, cmdb_get_version());
    const Context& c = sh->ctx[rng() % kContexts];
    check_domains(c, f);
    if (c.live && round % 64 == 0) {  // every key, and the count
      const uint32_t* slot = cmdb_find_root_entity(c.id, kItem);
      const auto* t = slot == nullptr || *slot == 0 ? nullptr : static_cast<cmdb_table_block_t*>(cmf_ptr_from_shmid(*slot, 0));
      if (c.count != (t == nullptr ? 0u : static_cast<uint32_t>(t->count))) fault(f, "count", c.id, -1, c.count);
      for (uint32_t k = 0; k < kKeys; ++k) probe(c, k, f);
    } else if (c.live) {
      cmf_shm_read_lock();  // nested: costs nothing, must change nothing
      for (int i = 0; i < 16; ++i) probe(c, static_cast<uint32_t>(rng() % kKeys), f);
      cmf_shm_read_unlock();
    }
    // An announced change must be visible to a reader that heard of it,
    // unless a later commit replaced it.
    for (const Heard& h : heard) {
      if (h.key == -2) fault(f, "event torn", h.domain);
      if (h.key < 0 || uint32_t(h.key) >= kKeys) continue;
      for (const Context& ctx : sh->ctx) {
        if (!ctx.live || ctx.id != h.domain) continue;
        const KeyState& want = ctx.key[h.key];
        if (want.serial < h.serial) fault(f, "event ahead of the record", ctx.id, h.key, want.serial, h.serial);
        if (want.present && want.serial == h.serial) {
          ++f.event_checks;
          const Item* got = find_item(ctx, static_cast<uint32_t>(h.key));
          if (got == nullptr || got->serial != h.serial)
            fault(f, "announced", ctx.id, h.key, h.serial, got == nullptr ? 0 : got->serial);
        }
      }
    }
    heard.clear();
    cmf_shm_read_unlock();
    // MAIN UNLOCK
    ::usleep(200);  // a reader has other work; without a pause readers would starve the writer
  }
  cmdb_event_cleanup();
  cleanup_cmdb_app_core();
  return 0;
}

// ---------------------------------------------------------------------------
// Owner

// What the run exercised, and what went wrong.
struct OwnerFigures {
  uint64_t changes = 0, moves = 0, domain_removals = 0, large_moves = 0, failed = 0, checks = 0;
  std::vector<std::string> check_faults;
};

class Owner {
 public:
  Owner(Shared* sh, uint32_t seed) : sh_(sh), rng_(seed) {}

  // One transaction of one to three changes. REQUIRES: no lock held.
  void transaction(bool growing) {
    if (w_.begin() != 0) return void(++f.failed);
    // MAIN LOCK (exclusive)
    const uint32_t before = cmdb_get_version();
    bool changed = false;
    for (int n = 1 + static_cast<int>(rng_() % 3); n > 0; --n) changed |= change(growing);
    watch_global_table();
    if (changed) store(sh_->version, before + 1);
    if (w_.commit() != 0) ++f.failed;
    // MAIN UNLOCK
    // The whole check, mid-run, while the tables are full or draining; after
    // the commit, which frees what the transaction gave up.
    if (++transactions_ % 2000 == 0) {
      const writer::RegionReport r = check_region();
      ++f.checks;
      f.check_faults.insert(f.check_faults.end(), r.faults.begin(), r.faults.end());
    }
  }

  OwnerFigures f;

 private:
  uint32_t pick(const Context& c, bool present) {
    uint32_t k = static_cast<uint32_t>(rng_() % kKeys);
    for (uint32_t i = 0; i < kKeys; ++i, k = (k + 1) % kKeys)
      if ((c.key[k].present != 0) == present) return k;
    return kKeys;
  }

  bool change(bool growing) {
    const int which = rng_() % 2 ? 0 : 1 + static_cast<int>(rng_() % (kContexts - 1));
    Context& c = sh_->ctx[which];
    const int op = static_cast<int>(rng_() % 100);
    if (which != 0 && (!c.live || op < 2)) return domain_change(c);
    const writer::Location loc(c.id, kItem);
    const int insert_share = growing ? 70 : 15, update_end = growing ? 88 : 50;
    if (op < insert_share) {
      const uint32_t k = pick(c, false);
      const Item it = make_item(k, ++serial_, 0, c.id);
      const int r = k == kKeys ? -ENOSPC : w_.insert(loc, &it, static_cast<int>(rng_() % (c.count + 1)));
      if (r == -ENOSPC) return false;
      if (r != 0) return ++f.failed, false;
      c.key[k] = {1, it.serial, it.sum};
      ++c.count, ++f.changes;
      return true;
    }
    const uint32_t k = pick(c, true);
    if (k == kKeys) return false;
    Item key;
    key_name(k, key.name);
    if (op < insert_share + 8) {  // a tag below the entry: a child table that deletes take along
      const uint32_t id = static_cast<uint32_t>(rng_() % 64);
      uint8_t tag[8] = {};
      memcpy(tag, &id, 4);
      const int r = w_.insert(loc.child(key.name, kTag), tag);
      if (r == 0) return ++f.changes, true;
      if (r != -EEXIST && r != -ENOSPC) ++f.failed;
      return false;
    }
    if (op < update_end) {  // an update, half of them to a new key, which moves the entry in the index
      const uint32_t k2 = rng_() % 2 ? pick(c, false) : k;
      if (k2 == kKeys) return false;
      const Item it = make_item(k2, ++serial_, 0, c.id);
      if (w_.update(loc, key.name, &it) != 0) return ++f.failed, false;
      c.key[k] = {0, it.serial, 0};
      c.key[k2] = {1, it.serial, it.sum};
      f.moves += k2 != k, ++f.changes;
      return true;
    }
    if (w_.remove(loc, key.name) != 0) return ++f.failed, false;
    c.key[k] = {0, ++serial_, 0};
    --c.count, ++f.changes;
    return true;
  }

  bool domain_change(Context& c) {
    if (c.live) {
      if (w_.remove_domain(c.id) != 0) return ++f.failed, false;
      store(c.live, 0);
      for (KeyState& k : c.key) k = {};
      c.count = 0, ++f.domain_removals, ++f.changes;
      return true;
    }
    const uint32_t id = ++domain_serial_ * 7;
    char name[32];
    snprintf(name, sizeof name, id % 2 ? "Branch%u" : "branch%u", id);
    if (w_.add_domain(name, id) != 0) return ++f.failed, false;
    memcpy(c.name, name, sizeof name);
    c.id = id, c.live = 1, ++f.changes;
    return true;
  }

  // Counts the moves of the global table into, out of and between large blocks.
  // REQUIRES: main lock held exclusive.
  void watch_global_table() {
    uint32_t* slot = cmdb_find_root_entity(0, kItem);
    const uint32_t shmid = slot == nullptr ? 0 : *slot;
    const bool large = CMF_SHMID_BLKNO(shmid) == CMF_SHMID_LARGE || CMF_SHMID_BLKNO(last_global_) == CMF_SHMID_LARGE;
    if (shmid != last_global_ && shmid != 0 && last_global_ != 0 && large) ++f.large_moves;
    last_global_ = shmid;
  }

  Shared* sh_;
  std::mt19937 rng_;
  writer::ConfigWriter w_;
  uint32_t serial_ = 0, domain_serial_ = 0, last_global_ = 0;
  uint64_t transactions_ = 0;
};

TEST(StressTest, ReadersNeverSeeTornOrLostEntriesWhileTheOwnerWrites) {
  const int seconds = env_int("GK_STRESS_SECONDS", 12), readers = std::min(env_int("GK_STRESS_READERS", 4), kMaxReaders);
  const uint32_t seed = static_cast<uint32_t>(env_int("GK_STRESS_SEED", 20240917));
  StressSchema schema;
  gk::test::capture_stdout([&] { ASSERT_EQ(0, gk::test::create_region(schema, 3)); });
  ASSERT_EQ(0, init_cmdb_app_core(2));
  Shared* sh = shared_zeroed<Shared>();
  ASSERT_NE(nullptr, sh);
  sh->version = cmdb_get_version();
  std::vector<pid_t> pids;
  for (int i = 0; i < readers; ++i)
    pids.push_back(gk::test::start_child([=] { return reader_main(sh, i, seed + 1 + static_cast<uint32_t>(i)); }));

  Owner owner(sh, seed);
  const double start = now_s(), end = start + seconds;
  for (double t = start; t < end; t = now_s()) {
    // Alternate filling and draining phases, so tables grow into large blocks and give room back.
    owner.transaction(static_cast<int>((t - start) / 0.3) % 2 == 0);
  }
  const double owner_s = now_s() - start;
  store(sh->stop, 1);
  for (pid_t p : pids) EXPECT_EQ(0, gk::test::wait_child(p));

  ReaderFigures all{};
  for (int i = 0; i < readers; ++i) {
    const ReaderFigures& r = sh->reader[i];
    all.probes += r.probes, all.event_checks += r.event_checks;
    EXPECT_EQ(0u, r.faults) << "reader " << i << ", first: " << r.first_fault;
  }
  const writer::RegionReport check = check_region();
  const OwnerFigures& o = owner.f;
  printf("stress: %d s, %d readers, seed %u; %.0f changes/s, %lu large-block moves; %lu lookups, %lu announced "
         "entries checked; %lu whole checks\n",
         seconds, readers, seed, double(o.changes) / owner_s, o.large_moves, all.probes, all.event_checks, o.checks);
  EXPECT_TRUE(check.ok()) << ::testing::PrintToString(check.faults);
  EXPECT_TRUE(o.check_faults.empty()) << ::testing::PrintToString(o.check_faults);
  EXPECT_GT(o.checks, 0u);
  EXPECT_EQ(0u, o.failed);
  // The run must have done what it claims to exercise.
  EXPECT_GT(all.probes, 1000u);
  EXPECT_GT(all.event_checks, 0u);
  EXPECT_GT(o.moves, 0u);
  EXPECT_GT(o.domain_removals, 0u);
  EXPECT_GT(o.large_moves, 0u);
  shared_free(sh);
  cleanup_cmdb_app_core();
}

}  // namespace
}  // namespace gk::stress
