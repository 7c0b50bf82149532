// Faults: processes SIGKILLed at random points while they hold or use the
// shared locks. After each kill the other processes must go on, every
// semaphore must be back at its full count once they are idle, no record lock
// may be left, a dead receiver's registration must go at the next send, and
// the region must pass the consistency check wherever the victim was between
// operations. Kills inside an operation are counted apart: nothing repairs the
// half-written data they leave, so the check there is reported, not required.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>

#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/stress/stress_fixture.h"
#include "tests/test_support.h"
#include "writer/config_writer.h"

namespace gk::stress {
namespace {

constexpr uint32_t kKeys = 200;
constexpr int kWorkers = 5;
constexpr uint16_t kSpareGid = kTag;  // registered and withdrawn by the victim sender
constexpr int kKillsPerPoint = 10;

// Shared with every child; children write only their own words.
struct Board {
  uint32_t stage;  // where the victim is; see the stage tables below
  uint32_t pause;  // set by the test: workers park outside every lock
  uint32_t paused[kWorkers];
  uint64_t progress[kWorkers];
  uint32_t serial;  // the writers' serials, so a replacement writer goes on from the last
};

uint64_t now_ns() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return uint64_t(ts.tv_sec) * 1000000000u + uint64_t(ts.tv_nsec);
}

int pick_op(std::mt19937& rng) { return static_cast<int>(rng() % 100); }

// One writer transaction on the global table and a domain, reporting its stage:
// 1 outside the lock, 2 locked between changes, 3 committing, 10..14 inside a
// change (insert, update, remove, child insert, domain removal or addition).
void write_some(writer::ConfigWriter& w, Board* b, std::mt19937& rng, bool report) {
  auto stage = [&](uint32_t s) {
    if (report) store(b->stage, s);
  };
  stage(1);
  if (w.begin() != 0) return;
  stage(2);
  for (int n = 1 + static_cast<int>(rng() % 2); n > 0; --n) {
    const int op = pick_op(rng);
    const uint32_t k = static_cast<uint32_t>(rng() % kKeys), dom = rng() % 3 ? 0 : 5;
    const writer::Location loc(dom, kItem);
    Item key;
    key_name(k, key.name);
    const uint32_t serial = std::atomic_ref<uint32_t>(b->serial).fetch_add(1) + 1;
    const Item it = make_item(rng() % 2 ? k : static_cast<uint32_t>(rng() % kKeys), serial, 0, dom);
    if (op < 45) {
      stage(10);
      w.insert(loc, &it);
    } else if (op < 65) {
      stage(11);
      w.update(loc, key.name, &it);  // a new key half the time: the entry moves in the index
    } else if (op < 90) {
      stage(12);
      w.remove(loc, key.name);
    } else if (op < 95) {
      const uint8_t tag[8] = {static_cast<uint8_t>(rng() % 32)};
      stage(13);
      w.insert(loc.child(key.name, kTag), tag);
    } else {  // a domain whose whole tree comes and goes
      stage(14);
      if (w.remove_domain(5) != 0) w.add_domain("branch5", 5);
    }
    stage(2);
  }
  stage(3);
  w.commit();
  stage(1);
}

int on_event(cmdb_event_msg_t*) { return 0; }

// Surviving processes. Each loops until the test ends it, counts its rounds,
// and parks outside every lock while the test checks.
enum Role { kReader, kNestedReader, kWriter, kReceiver, kVarListUser };

void park(Board* b, int idx) {
  if (!load(b->pause)) return;
  store(b->paused[idx], 1);
  while (load(b->pause)) ::usleep(200);
  store(b->paused[idx], 0);
}

int worker_main(Board* b, int idx, Role role, uint32_t seed) {
  cleanup_cmdb_app_core();
  if (init_cmdb_app_core(role == kWriter ? 2 : 1) != 0) return 2;
  std::mt19937 rng(seed);
  writer::ConfigWriter w;
  int fd = -1;
  if (role == kReceiver) {
    fd = cmdb_event_init("survivor", 1);
    if (fd < 0 || register_cmdb_event(kItem, 0x07, EVENT_WITH_DATA, on_event) != 0) return 3;
  }
  for (;;) {
    park(b, idx);
    switch (role) {
      case kReader:
      case kNestedReader: {
        cmf_shm_read_lock();
        if (role == kNestedReader) cmf_shm_read_lock();
        uint32_t* slot = cmdb_find_root_entity(0, kItem);
        void* t = slot == nullptr || *slot == 0 ? nullptr : cmf_ptr_from_shmid(*slot, 0);
        Item key;
        key_name(static_cast<uint32_t>(rng() % kKeys), key.name);
        if (t != nullptr) __cmf_svr_find_table_entry(t, key.name);
        if (role == kNestedReader) cmf_shm_read_unlock();
        cmf_shm_read_unlock();
        break;
      }
      case kWriter:
        write_some(w, b, rng, false);
        break;
      case kReceiver: {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 1) == 1) do_cmdb_event_handling();
        break;
      }
      case kVarListUser: {
        // Under the shared lock the capacity cannot change, so `used` stays
        // within what the update mapped; and entries below `used` lie inside
        // the file whatever a killed grower left.
        dbgz_rlock(1);
        if (cmf_var_list_update(&cmdb.admin_login_status) != 0) return 4;
        auto* head = static_cast<volatile cmdb_var_list_head_t*>(cmdb.admin_login_status);
        const uint32_t used = head->used;
        if (used > 0) (void)static_cast<volatile uint8_t*>(cmdb.admin_login_status)[16 + (used - 1) * head->unit];
        dbgz_runlock(1);
        break;
      }
    }
    std::atomic_ref<uint64_t>(b->progress[idx]).fetch_add(1);
    ::usleep(100);
  }
}

// ---------------------------------------------------------------------------
// Victims: each reports its stage before every step that matters.

// Stages: 1 free, 2 holds the read lock, 3 holds it twice.
int reader_victim(Board* b, bool nested) {
  cleanup_cmdb_app_core();
  if (init_cmdb_app_core(1) != 0) return 2;
  for (;;) {
    store(b->stage, 1);
    cmf_shm_read_lock();
    store(b->stage, 2);
    if (nested) {
      cmf_shm_read_lock();
      store(b->stage, 3);
    }
    uint32_t* slot = cmdb_find_root_entity(0, kItem);
    if (slot != nullptr && *slot != 0) cmf_ptr_from_shmid(*slot, 0);
    ::usleep(50);
    if (nested) {
      cmf_shm_read_unlock();
      store(b->stage, 2);
    }
    cmf_shm_read_unlock();
    store(b->stage, 1);
  }
}

// Stages: 1 between calls, 2 inside cmf_var_list_alloc (which grows every time).
int var_list_victim(Board* b) {
  cleanup_cmdb_app_core();
  if (init_cmdb_app_core(1) != 0) return 2;
  for (;;) {
    store(b->stage, 1);
    if (cmf_var_list_update(&cmdb.admin_login_status) != 0) return 3;
    auto* head = static_cast<cmdb_var_list_head_t*>(cmdb.admin_login_status);
    store(head->used, load(head->capacity));
    store(b->stage, 2);
    cmf_var_list_alloc("admin_login_status");
  }
}

// Stages: 1 waiting for a datagram, 2 handling one.
int receiver_victim(Board* b) {
  cleanup_cmdb_app_core();
  if (init_cmdb_app_core(1) != 0) return 2;
  const int fd = cmdb_event_init("victim", 1);
  if (fd < 0 || register_cmdb_event(kItem, 0x07, EVENT_WITH_DATA, on_event) != 0) return 3;
  for (;;) {
    store(b->stage, 1);
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 10) != 1) continue;
    store(b->stage, 2);
    do_cmdb_event_handling();
  }
}

// Stages: 1 between calls, 2 holds the event table lock between table changes,
// 3 inside a registration, 4 inside an unregistration, 5 inside a send (which
// holds the lock for its whole walk).
int sender_victim(Board* b) {
  cleanup_cmdb_app_core();
  if (init_cmdb_app_core(1) != 0) return 2;
  const Item it = make_item(1, 1, 0, 0);
  for (;;) {
    store(b->stage, 1);
    cmdb_event_write_lock();
    store(b->stage, 3);
    _cmdb_register_event("victim_tx", kSpareGid, 0x01, 0);
    store(b->stage, 2);
    ::usleep(20);
    store(b->stage, 4);
    _cmdb_unregister_event("victim_tx", kSpareGid);
    store(b->stage, 2);
    cmdb_event_write_unlock();
    store(b->stage, 5);
    cmdb_event_call_daemon(kItem, 1, nullptr, &it, nullptr);
  }
}

int writer_victim(Board* b, uint32_t seed) {
  cleanup_cmdb_app_core();
  if (init_cmdb_app_core(2) != 0) return 2;
  std::mt19937 rng(seed);
  writer::ConfigWriter w;
  for (;;) write_some(w, b, rng, true);
}

// ---------------------------------------------------------------------------

struct Scenario {
  const char* name;
  std::vector<Role> survivors;
  std::vector<uint32_t> targets;  // stages to aim the kills at, in turn
  std::set<uint32_t> between;     // stages at which the victim was between operations
};

bool record_locks_free(const char* path) {
  const int fd = ::open(path, O_RDWR);
  if (fd < 0) return false;
  struct flock fl{};
  fl.l_type = F_WRLCK, fl.l_whence = SEEK_SET;  // l_len 0: the whole file
  const bool free = ::fcntl(fd, F_GETLK, &fl) == 0 && fl.l_type == F_UNLCK;
  ::close(fd);
  return free;
}

// Names in the event table record of gid: empty when it has none.
// REQUIRES: no event table lock held by this process.
std::vector<std::string> registered(uint16_t gid) {
  cmdb_event_entry_t e{};
  std::vector<std::string> out;
  cmdb_event_write_lock();
  if (cmdb_event_entry_act(gid, 0, &e) >= 0)
    for (const cmdb_event_proc_t& p : e.procs)
      if (p.process[0] != 0) out.emplace_back(p.process, strnlen(p.process, sizeof p.process));
  cmdb_event_write_unlock();
  return out;
}

// The registration table's own invariants. REQUIRES: event table lock.
bool event_table_consistent() {
  auto* t = static_cast<const cmdb_event_table_t*>(cmdb.cmdb_event);
  if (t == nullptr || t->count > CMDB_EVENT_MAX) return false;
  for (uint32_t i = 0; i < t->count; ++i) {
    const cmdb_event_entry_t& e = t->rec[i];
    if ((i > 0 && t->rec[i - 1].obj_gid >= e.obj_gid) || e.procs[0].process[0] == 0) return false;
    std::set<std::string> names;
    bool ended = false;
    for (const cmdb_event_proc_t& p : e.procs) {
      if (p.process[0] == 0) {
        ended = true;
        continue;
      }
      if (ended || !names.insert(std::string(p.process, strnlen(p.process, 20))).second) return false;
    }
  }
  return true;
}

class KillTest : public ::testing::Test {
 protected:
  void SetUp() override {
    board_ = shared_zeroed<Board>();
    ASSERT_NE(nullptr, board_);
    build_region();
  }
  // A fresh region with a table of some size for everyone to work on.
  void build_region() {
    schema_ = std::make_unique<StressSchema>();  // the builder consumes a schema's defaults
    gk::test::capture_stdout([&] { ASSERT_EQ(0, gk::test::create_region(*schema_, 3)); });
    ASSERT_EQ(0, init_cmdb_app_core(2));
    cmf_var_list_set_unit(cmdb.admin_login_status, 40);
    writer::ConfigWriter w;
    std::mt19937 rng(7);
    for (int i = 0; i < 150; ++i) write_some(w, board_, rng, false);
  }
  void TearDown() override {
    stop_workers();
    cleanup_cmdb_app_core();
    shared_free(board_);
  }
  void stop_workers() {
    for (pid_t p : workers_) ::kill(p, SIGKILL), gk::test::wait_child(p);
    workers_.clear();
    memset(board_, 0, sizeof *board_);
  }

  void start_workers(const std::vector<Role>& roles) {
    for (size_t i = 0; i < roles.size(); ++i)
      workers_.push_back(gk::test::start_child([this, i, r = roles[i]] {
        return worker_main(board_, static_cast<int>(i), r, 100 + static_cast<uint32_t>(i));
      }));
  }

  // Every worker finishes at least two more rounds within the time limit.
  bool survivors_go_on() {
    for (size_t i = 0; i < workers_.size(); ++i) {
      int st = 0;
      if (::waitpid(workers_[i], &st, WNOHANG) == workers_[i]) {
        ADD_FAILURE() << "worker " << i << " ended: status " << (WIFSIGNALED(st) ? 128 + WTERMSIG(st) : WEXITSTATUS(st));
        return false;
      }
    }
    uint64_t before[kWorkers];
    for (size_t i = 0; i < workers_.size(); ++i) before[i] = std::atomic_ref<uint64_t>(board_->progress[i]).load();
    for (int waited_ms = 0; waited_ms < 5000; waited_ms += 1) {
      bool all = true;
      for (size_t i = 0; i < workers_.size(); ++i)
        all &= std::atomic_ref<uint64_t>(board_->progress[i]).load() >= before[i] + 2;
      if (all) return true;
      ::usleep(1000);
    }
    return false;
  }

  bool pause_workers() {
    store(board_->pause, 1);
    for (int waited_ms = 0; waited_ms < 5000; ++waited_ms) {
      bool all = true;
      for (size_t i = 0; i < workers_.size(); ++i) all &= load(board_->paused[i]) == 1;
      if (all) return true;
      ::usleep(1000);
    }
    return false;
  }
  void resume_workers() { store(board_->pause, 0); }

  // Runs kills against `victim` and checks the aftermath of each.
  // Each kill aims at the next target stage: once the victim reports it, a
  // random pause of 0-40 us, then SIGKILL; the stage it died in is what counts.
  void run(const Scenario& s, const std::function<int(uint32_t round)>& victim) {
    const int kills = kKillsPerPoint * static_cast<int>(s.targets.size());
    start_workers(s.survivors);
    std::mt19937 rng(0x5eed);
    for (int round = 0; round < kills; ++round) {
      SCOPED_TRACE(std::string(s.name) + " kill " + std::to_string(round));
      store(board_->stage, 0);
      const pid_t v = gk::test::start_child([&] { return victim(static_cast<uint32_t>(round)); });
      for (int i = 0; i < 5000 && load(board_->stage) == 0; ++i) ::usleep(200);
      ASSERT_NE(0u, load(board_->stage)) << "the victim never started";
      const uint32_t target = s.targets[static_cast<size_t>(round) % s.targets.size()];
      for (const uint64_t t0 = now_ns(); load(board_->stage) != target && now_ns() - t0 < 500000000u;) {
      }
      const uint32_t pause_us = static_cast<uint32_t>(rng() % 41);
      for (const uint64_t t0 = now_ns(); now_ns() - t0 < pause_us * 1000u;) {
      }
      ::kill(v, SIGKILL);
      ASSERT_EQ(128 + SIGKILL, gk::test::wait_child(v));
      const uint32_t stage = load(board_->stage);
      const bool between = s.between.count(stage) != 0;
      points_[std::string(s.name) + "/" + std::to_string(stage)]++;

      ASSERT_TRUE(survivors_go_on());
      ASSERT_TRUE(pause_workers());
      EXPECT_EQ(CMDB_RWLOCK_FULL, cmf_shm_lock_val());
      EXPECT_EQ(CMDB_RWLOCK_FULL, sem_value(230236254));
      EXPECT_EQ(CMDB_RWLOCK_FULL, sem_value(230236255));
      EXPECT_TRUE(record_locks_free("/tmp/cmdb_lock"));
      EXPECT_TRUE(record_locks_free("/tmp/shm_lock"));
      cmf_shm_read_lock();
      const CheckReport r = check_region();
      cmf_shm_read_unlock();
      cmdb_event_write_lock();
      const bool events_ok = event_table_consistent();
      cmdb_event_write_unlock();
      if (between) {
        EXPECT_EQ(0, r.errors) << "stage " << stage << ": " << r.first;
        EXPECT_TRUE(events_ok) << "stage " << stage;
      } else {
        ++inside_;
        inside_consistent_ += r.errors == 0 && events_ok;
        if (r.errors != 0 || !events_ok) {  // nothing repairs it: start again on a fresh region
          stop_workers();
          cleanup_cmdb_app_core();
          build_region();
          start_workers(s.survivors);
          continue;
        }
      }
      after_kill(stage);
      resume_workers();
      if (HasFatalFailure()) return;
    }
  }

  std::function<void(uint32_t)> after_kill = [](uint32_t) {};

  void report(const char* name) {
    printf("%s: %zu distinct kill points:", name, points_.size());
    int total = 0;
    for (const auto& [point, n] : points_) printf(" %s x%d", point.c_str(), n), total += n;
    printf("; %d kills, %d inside an operation (%d of them left everything consistent, the others needed a fresh "
           "region)\n", total, inside_, inside_consistent_);
    fflush(stdout);
  }

  std::unique_ptr<StressSchema> schema_;
  Board* board_ = nullptr;
  std::vector<pid_t> workers_;
  std::map<std::string, int> points_;
  int inside_ = 0, inside_consistent_ = 0;
};

TEST_F(KillTest, WriterHoldingTheWriteLock) {
  run({"writer", {kReader, kNestedReader, kReceiver}, {1, 2, 3, 10, 11, 12, 13, 14}, {1, 2, 3}},
      [&](uint32_t round) { return writer_victim(board_, 1000 + round); });
  report("writer");
}

TEST_F(KillTest, ReaderHoldingTheReadLock) {
  // Odd rounds nest; targets 2 and 3 alternate with them.
  run({"reader", {kReader, kWriter, kReceiver}, {1, 3, 2, 3}, {1, 2, 3}},
      [&](uint32_t round) { return reader_victim(board_, round % 2 == 1); });
  report("reader");
}

TEST_F(KillTest, ProcessInsideVarListGrowth) {
  after_kill = [&](uint32_t) {
    auto* head = static_cast<const cmdb_var_list_head_t*>(cmdb.admin_login_status);
    struct stat st{};
    ASSERT_EQ(0, cmdb_shm_stat("admin_login_status", &st));
    // Whatever point the grower died at, the file covers the published capacity.
    EXPECT_GE(uint64_t(st.st_size), uint64_t(load(head->capacity)) * load(head->unit) + 16);
    EXPECT_LE(load(head->used), load(head->capacity));
  };
  run({"var_list", {kVarListUser, kVarListUser, kWriter}, {1, 2}, {1, 2}},
      [&](uint32_t) { return var_list_victim(board_); });
  report("var_list");
}

TEST_F(KillTest, ReceiverWhileEventsAreSent) {
  after_kill = [&](uint32_t) {
    // The writer's random changes may all have been refused since the kill, so
    // announce one here: the send to the dead receiver must remove it.
    const Item it = make_item(1, 1, 0, 0);
    ASSERT_EQ(0, cmdb_event_call_daemon(kItem, 1, nullptr, &it, nullptr));
    const std::vector<std::string> names = registered(kItem);
    EXPECT_EQ(0, std::count(names.begin(), names.end(), "victim"));
    EXPECT_EQ(1, std::count(names.begin(), names.end(), "survivor"));
  };
  run({"receiver", {kWriter, kReceiver, kReader}, {1, 2}, {1, 2}},
      [&](uint32_t) { return receiver_victim(board_); });
  report("receiver");
}

TEST_F(KillTest, SenderHoldingTheEventTableLock) {
  after_kill = [&](uint32_t) {
    const std::vector<std::string> names = registered(kSpareGid);
    EXPECT_LE(names.size(), 1u);  // at most the victim's own, left by a kill inside its registration
    if (!names.empty()) {
      EXPECT_EQ(0, cmdb_unregister_event("victim_tx", kSpareGid));
    }
  };
  run({"sender", {kWriter, kReceiver, kReader}, {1, 2, 3, 4, 5}, {1, 2, 5}},
      [&](uint32_t) { return sender_victim(board_); });
  report("sender");
}

}  // namespace
}  // namespace gk::stress
