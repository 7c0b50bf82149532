// Faults: processes SIGKILLed at random points while they hold or use the
// shared locks. After each kill the other processes must go on, every
// semaphore must be back at its full count once they are idle, no record lock
// may be left, a dead receiver's registration must go at the next send, and
// the region must pass the consistency check wherever the victim was between
// operations. Kills inside an operation are counted apart: nothing repairs the
// half-written data they leave (a writer's is the next writer's to take back,
// which writer_kill_test checks), so the check there is reported, not required.
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
    const uint32_t op = rng() % 100, k = rng() % kKeys, dom = rng() % 3 ? 0 : 5;
    const writer::Location loc(dom, kItem);
    Item key;
    key_name(k, key.name);
    const uint32_t serial = std::atomic_ref<uint32_t>(b->serial).fetch_add(1) + 1;
    const Item it = make_item(rng() % 2 ? k : rng() % kKeys, serial, 0, dom);
    const uint8_t tag[8] = {static_cast<uint8_t>(rng() % 32)};
    stage(op < 45 ? 10 : op < 65 ? 11 : op < 90 ? 12 : op < 95 ? 13 : 14);
    if (op < 45) w.insert(loc, &it);
    else if (op < 65) w.update(loc, key.name, &it);  // a new key half the time: the entry moves in the index
    else if (op < 90) w.remove(loc, key.name);
    else if (op < 95) w.insert(loc.child(key.name, kTag), tag);
    else if (w.remove_domain(5) != 0) w.add_domain("branch5", 5);  // a domain whose whole tree comes and goes
    stage(2);
  }
  stage(3);
  w.commit();
  stage(1);
}

// A forked child's own attachment instead of the one it inherited.
bool attach(int mode) {
  cleanup_cmdb_app_core();
  return init_cmdb_app_core(mode) == 0;
}

int on_event(cmdb_event_msg_t*) { return 0; }

void park(Board* b, int idx) {
  if (!load(b->pause)) return;
  store(b->paused[idx], 1);
  while (load(b->pause)) ::usleep(200);
  store(b->paused[idx], 0);
}

// Every process of a case runs one role in a loop until the test ends it. A
// survivor (idx >= 0) counts its rounds and parks outside every lock while the
// test checks; the victim (idx < 0) reports its stage before each step that
// matters, as listed per role.
enum Role { kReader, kNestedReader, kWriter, kReceiver, kVarListUser, kVarListGrower, kSender };

int process(Board* b, int idx, Role role, uint32_t seed) {
  if (!attach(role == kWriter ? 2 : 1)) return 2;
  auto stage = [&](uint32_t s) {
    if (idx < 0) store(b->stage, s);
  };
  std::mt19937 rng(seed);
  writer::ConfigWriter w;
  const int fd = role == kReceiver ? cmdb_event_init(idx < 0 ? "victim" : "survivor", 1) : -1;
  if (role == kReceiver && (fd < 0 || register_cmdb_event(kItem, 0x07, EVENT_WITH_DATA, on_event) != 0)) return 3;
  const Item sent = make_item(1, 1, 0, 0);
  for (;;) {
    if (idx >= 0) park(b, idx);
    switch (role) {
      case kReader:  // 1 free, 2 holds the read lock, 3 holds it twice
      case kNestedReader: {
        stage(1);
        cmf_shm_read_lock();
        stage(2);
        if (role == kNestedReader) cmf_shm_read_lock(), stage(3);
        uint32_t* slot = cmdb_find_root_entity(0, kItem);
        void* t = slot == nullptr || *slot == 0 ? nullptr : cmf_ptr_from_shmid(*slot, 0);
        Item key;
        key_name(static_cast<uint32_t>(rng() % kKeys), key.name);
        if (t != nullptr) __cmf_svr_find_table_entry(t, key.name);
        if (idx < 0) ::usleep(50);  // where the kills aim
        if (role == kNestedReader) cmf_shm_read_unlock(), stage(2);
        cmf_shm_read_unlock();
        break;
      }
      case kWriter:
        write_some(w, b, rng, idx < 0);
        break;
      case kReceiver: {  // 1 waiting for a datagram, 2 handling one
        stage(1);
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 1) == 1) stage(2), do_cmdb_event_handling();
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
      case kVarListGrower: {  // 1 between calls, 2 inside cmf_var_list_alloc (which grows every time)
        stage(1);
        if (cmf_var_list_update(&cmdb.admin_login_status) != 0) return 4;
        auto* head = static_cast<cmdb_var_list_head_t*>(cmdb.admin_login_status);
        store(head->used, load(head->capacity));
        stage(2);
        cmf_var_list_alloc("admin_login_status");
        break;
      }
      case kSender:  // 1 between calls, 2 holds the event table lock between table changes,
                     // 3 inside a registration, 4 inside an unregistration, 5 inside a send
                     // (which holds the lock for its whole walk)
        stage(1);
        cmdb_event_write_lock();
        stage(3);
        _cmdb_register_event("victim_tx", kSpareGid, 0x01, 0);
        stage(2);
        ::usleep(20);
        stage(4);
        _cmdb_unregister_event("victim_tx", kSpareGid);
        stage(2);
        cmdb_event_write_unlock();
        stage(5);
        cmdb_event_call_daemon(kItem, 1, nullptr, &sent, nullptr);
        break;
    }
    if (idx >= 0) std::atomic_ref<uint64_t>(b->progress[idx]).fetch_add(1), ::usleep(100);
  }
}

// ---------------------------------------------------------------------------

struct Scenario {
  const char* name;
  std::vector<Role> victims;  // by round, in turn
  std::vector<Role> survivors;
  std::vector<uint32_t> targets;  // stages to aim the kills at, in turn
  std::set<uint32_t> inside;      // stages at which the victim was inside an operation nothing repairs
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

// The registration table's own invariants.
// REQUIRES: event table lock.
bool events_consistent() {
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
        return process(board_, static_cast<int>(i), r, 100 + static_cast<uint32_t>(i));
      }));
  }

  // True once every worker passes `done` within 5 s.
  template <class Done>
  bool all_workers(Done done) {
    for (int waited_ms = 0; waited_ms < 5000; ++waited_ms, ::usleep(1000)) {
      bool all = true;
      for (size_t i = 0; i < workers_.size(); ++i) all &= done(i);
      if (all) return true;
    }
    return false;
  }
  // Every worker is alive and finishes at least two more rounds.
  bool survivors_go_on() {
    for (size_t i = 0; i < workers_.size(); ++i) {
      int st = 0;
      if (::waitpid(workers_[i], &st, WNOHANG) == workers_[i]) {
        ADD_FAILURE() << "worker " << i << " ended: status " << (WIFSIGNALED(st) ? 128 + WTERMSIG(st) : WEXITSTATUS(st));
        return false;
      }
    }
    uint64_t before[kWorkers];
    auto progress = [this](size_t i) { return std::atomic_ref<uint64_t>(board_->progress[i]).load(); };
    for (size_t i = 0; i < workers_.size(); ++i) before[i] = progress(i);
    return all_workers([&](size_t i) { return progress(i) >= before[i] + 2; });
  }
  bool pause_workers() {
    store(board_->pause, 1);
    return all_workers([this](size_t i) { return load(board_->paused[i]) == 1; });
  }
  void resume_workers() { store(board_->pause, 0); }

  // Runs kills against the case's victims and checks the aftermath of each.
  // Each kill aims at the next target stage: once the victim reports it, a
  // random pause of 0-40 us, then SIGKILL; the stage it died in is what counts.
  void run(const Scenario& s) {
    const int kills = kKillsPerPoint * static_cast<int>(s.targets.size());
    start_workers(s.survivors);
    std::mt19937 rng(0x5eed);
    for (int round = 0; round < kills; ++round) {
      SCOPED_TRACE(std::string(s.name) + " kill " + std::to_string(round));
      store(board_->stage, 0);
      const pid_t v = gk::test::start_child([&] {
        return process(board_, -1, s.victims[static_cast<size_t>(round) % s.victims.size()], 1000 + round);
      });
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
      points_[std::string(s.name) + "/" + std::to_string(stage)]++;

      ASSERT_TRUE(survivors_go_on());
      ASSERT_TRUE(pause_workers());
      EXPECT_EQ(CMDB_RWLOCK_FULL, cmf_shm_lock_val());
      EXPECT_EQ(CMDB_RWLOCK_FULL, sem_value(230236254));
      EXPECT_EQ(CMDB_RWLOCK_FULL, sem_value(230236255));
      EXPECT_TRUE(record_locks_free("/tmp/cmdb_lock"));
      EXPECT_TRUE(record_locks_free("/tmp/shm_lock"));
      const writer::RegionReport r = check_region();
      cmdb_event_write_lock();
      const bool events_ok = events_consistent();
      cmdb_event_write_unlock();
      if (s.inside.count(stage) == 0) {
        EXPECT_TRUE(r.ok()) << "stage " << stage << ": " << ::testing::PrintToString(r.faults);
        EXPECT_TRUE(events_ok) << "stage " << stage;
      } else {
        ++inside_;
        inside_consistent_ += r.ok() && events_ok;
        if (!r.ok() || !events_ok) {  // nothing repairs it: start again on a fresh region
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
    std::string points;
    for (const auto& [point, n] : points_) points += " " + point + " x" + std::to_string(n);
    printf("%s kill points:%s; %d inside an operation, %d of them left everything consistent\n", s.name,
           points.c_str(), inside_, inside_consistent_);
  }

  // Runs with the survivors parked, after the checks passed.
  std::function<void(uint32_t stage)> after_kill = [](uint32_t) {};

  std::unique_ptr<StressSchema> schema_;
  Board* board_ = nullptr;
  std::vector<pid_t> workers_;
  std::map<std::string, int> points_;
  int inside_ = 0, inside_consistent_ = 0;
};

TEST_F(KillTest, WriterHoldingTheWriteLock) {
  // From its first change to its commit a transaction is under way: only a
  // writer outside the lock is between operations.
  run({"writer", {kWriter}, {kReader, kNestedReader, kReceiver}, {1, 2, 3, 10, 11, 12, 13, 14}, {2, 3, 10, 11, 12, 13, 14}});
}

TEST_F(KillTest, ReaderHoldingTheReadLock) {
  run({"reader", {kReader, kNestedReader}, {kReader, kWriter, kReceiver}, {1, 3, 2, 3}, {}});
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
  run({"var_list", {kVarListGrower}, {kVarListUser, kVarListUser, kWriter}, {1, 2}, {}});
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
  run({"receiver", {kReceiver}, {kWriter, kReceiver, kReader}, {1, 2}, {}});
}

TEST_F(KillTest, SenderHoldingTheEventTableLock) {
  after_kill = [&](uint32_t) {
    const std::vector<std::string> names = registered(kSpareGid);
    EXPECT_LE(names.size(), 1u);  // at most the victim's own, left by a kill inside its registration
    EXPECT_TRUE(names.empty() || cmdb_unregister_event("victim_tx", kSpareGid) == 0);
  };
  run({"sender", {kSender}, {kWriter, kReceiver, kReader}, {1, 2, 3, 4, 5}, {3, 4}});
}

}  // namespace
}  // namespace gk::stress
