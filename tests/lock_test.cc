// Semaphore reader/writer locks across real processes, and their debug-zone trace.
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <time.h>

#include <algorithm>
#include <climits>
#include <latch>
#include <thread>

#include "lock/lock_internal.h"
#include "tests/test_support.h"

namespace {
using gk::test::Holder;
constexpr int kFull = CMDB_RWLOCK_FULL;

int val(int id) { return ::semctl(id, 0, GETVAL); }
bool wait_for_waiter(int id) {  // until a process sleeps on the semaphore
  for (int i = 0; i < 5000 && ::semctl(id, 0, GETNCNT) != 1; ++i) ::usleep(1000);
  return ::semctl(id, 0, GETNCNT) == 1;
}

// Runs fn in a child that logs to standard output; `during` runs in the parent
// meanwhile. The child must end with the fatal message for `semid` and `err`.
void expect_fatal(
    const std::function<void()>& fn, int semid, int err, const std::function<void()>& during = [] {}) {
  pid_t pid = 0;
  int status = -1;
  std::string out = gk::test::capture_stdout([&] {
    pid = gk::test::start_child([&] {
      ::alarm(10);
      cmdb.flags |= CMDB_FLAG_DEBUG;
      fn();
      return 0;
    });
    during();
    status = gk::test::wait_child(pid);
  });
  char want[160];
  snprintf(want, sizeof want,
           "Critial error, cmf_lock, __cmdb_rwlock_lock, 235, semid=%d, pid=%d, errno=%d exiting...\n", semid,
           int(pid), err);
  EXPECT_EQ(255, status);
  EXPECT_EQ(want, out);
}

class LockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, cmdb_create_lock());
    ASSERT_EQ(0, cmf_lock_init());
    ASSERT_EQ(0, debug_zone_rwlock_init());
  }
  void TearDown() override { cmf_lock_cleanup(); }
  uint8_t* zone() { return static_cast<uint8_t*>(region_.debug_zone); }
  cmdb_lock_stat_t* stats() { return reinterpret_cast<cmdb_lock_stat_t*>(zone() + DZ_LOCK_STATS); }
  uint32_t* reader_pids() { return reinterpret_cast<uint32_t*>(zone() + DZ_READER_PIDS); }
  gk::test::MiniRegion region_;
};

TEST_F(LockTest, WriterWaitsForReaderOfAnotherProcess) {
  Holder reader(cmf_shm_read_lock, cmf_shm_read_unlock);
  ASSERT_TRUE(reader.held());
  Holder writer(cmf_shm_write_lock, cmf_shm_write_unlock);
  ASSERT_TRUE(wait_for_waiter(lock::cmdb_semid));
  EXPECT_EQ(kFull - 1, cmf_shm_lock_val());
  EXPECT_EQ(0, reader.finish());
  ASSERT_TRUE(writer.held());
  EXPECT_EQ(0, cmf_shm_lock_val());
  EXPECT_EQ(0, writer.finish());
  EXPECT_EQ(kFull, cmf_shm_lock_val());
}

// A holder killed with SIGKILL gives its units back; the waiter on that lock goes on.
TEST_F(LockTest, KilledHolderReleasesEveryLock) {
  struct Case {
    void (*take)();
    void (*wait)();
    int held;
    int* id;
  };
  const Case cases[] = {{cmf_shm_write_lock, cmf_shm_read_lock, 0, &lock::cmdb_semid},
                        {[] { dbgz_wlock(0); }, [] { dbgz_rlock(0); }, 0, &lock::dbgz_semid[0]},
                        {[] { dbgz_rlock(1); }, [] { dbgz_wlock(1); }, kFull - 1, &lock::dbgz_semid[1]}};
  for (const Case& c : cases) {
    Holder holder(c.take, [] {});
    ASSERT_TRUE(holder.held());
    EXPECT_EQ(c.held, val(*c.id));
    Holder waiter(c.wait, [] {});
    ASSERT_TRUE(wait_for_waiter(*c.id));
    EXPECT_EQ(128 + SIGKILL, holder.kill());
    EXPECT_TRUE(waiter.held());
    EXPECT_EQ(0, waiter.finish());
    EXPECT_EQ(kFull, val(*c.id));
  }
}

TEST_F(LockTest, UnlockOfFreeLockEndsProcess) {
  expect_fatal(cmf_shm_write_unlock, lock::cmdb_semid, ERANGE);
  expect_fatal([] { dbgz_runlock(0); }, lock::dbgz_semid[0], ERANGE);
  expect_fatal([] { dbgz_wunlock(1); }, lock::dbgz_semid[1], ERANGE);
  expect_fatal([] { dbgz_wlock_to_rlock(1); }, lock::dbgz_semid[1], ERANGE);
  for (int id : {lock::cmdb_semid, lock::dbgz_semid[0], lock::dbgz_semid[1]}) EXPECT_EQ(kFull, val(id));
}

// A fresh set for the key replaces the old one; a process waiting on the old one dies.
TEST_F(LockTest, SemCreateReplacesSetAndEndsItsWaiters) {
  int old_id = lock::cmdb_semid, new_id = -1;
  Holder reader(cmf_shm_read_lock, [] {});
  ASSERT_TRUE(reader.held());
  expect_fatal(cmf_shm_write_lock, old_id, EIDRM, [&] {
    if (wait_for_waiter(old_id)) new_id = lock::cmdb_sem_create(CMDB_SEM_KEY);
  });
  EXPECT_NE(old_id, new_id);
  EXPECT_EQ(kFull, val(new_id));
  EXPECT_EQ(-1, val(old_id));
}

TEST_F(LockTest, NestedReadLocksOfOneThreadTakeOneUnit) {
  std::latch held(3), release(1);
  auto reader = [&] {
    cmf_shm_read_lock();
    cmf_shm_read_lock();
    held.arrive_and_wait();
    release.wait();
    cmf_shm_read_unlock();
    cmf_shm_read_unlock();
  };
  std::thread a(reader), b(reader);
  held.arrive_and_wait();
  EXPECT_EQ(kFull - 2, cmf_shm_lock_val());
  release.count_down();
  a.join();
  b.join();
  EXPECT_EQ(kFull, cmf_shm_lock_val());
}

TEST_F(LockTest, DebugZoneLocksActOnlyForIndexZeroAndOne) {
  // Each call would change a value, block or end the child if it acted.
  EXPECT_EQ(0, gk::test::run_child([] {
              for (int idx : {-1, 2, 7, INT_MIN, INT_MAX}) {
                dbgz_runlock(idx), dbgz_wunlock(idx), dbgz_wlock_to_rlock(idx);
                dbgz_rlock(idx), dbgz_rlock_to_wlock(idx), dbgz_wlock(idx);
              }
              return val(lock::dbgz_semid[0]) == kFull && val(lock::dbgz_semid[1]) == kFull ? 0 : 1;
            }));
  for (int idx : {0, 1}) {
    int id = lock::dbgz_semid[idx];
    dbgz_rlock(idx);
    dbgz_rlock_to_wlock(idx);
    EXPECT_EQ(0, val(id));
    EXPECT_EQ(kFull, val(lock::dbgz_semid[1 - idx]));
    dbgz_wlock_to_rlock(idx);
    EXPECT_EQ(kFull - 1, val(id));
    dbgz_runlock(idx);
  }
}

TEST_F(LockTest, LockStatsCountRequestsPerProcess) {
  time_t t0 = ::time(nullptr);
  cmf_shm_read_lock(), cmf_shm_read_lock(), cmf_shm_read_unlock(), cmf_shm_read_unlock();
  cmf_shm_write_lock();
  const cmdb_lock_stat_t& mine = stats()[0];
  EXPECT_EQ(uint32_t(getpid()), mine.pid);
  EXPECT_EQ(1u, mine.read_count);
  EXPECT_EQ(1u, mine.write_count);
  EXPECT_GE(mine.last_time, t0);
  EXPECT_LE(mine.last_time, ::time(nullptr));
  // A forked child gets a record of its own, counted while it still waits.
  Holder child(cmf_shm_read_lock, cmf_shm_read_unlock);
  ASSERT_TRUE(wait_for_waiter(lock::cmdb_semid));
  EXPECT_EQ(uint32_t(child.pid), stats()[1].pid);
  EXPECT_EQ(1u, stats()[1].read_count);
  EXPECT_NE(0, stats()[1].last_time);
  cmf_shm_write_unlock();
  EXPECT_EQ(0, child.finish());
  cmf_shm_read_lock(), cmf_shm_read_unlock();
  EXPECT_EQ(2u, mine.read_count);
  // A wiped zone (a fresh region) is claimed again from the start.
  memset(stats(), 0, 256 * sizeof(cmdb_lock_stat_t));
  cmf_shm_write_lock(), cmf_shm_write_unlock();
  EXPECT_EQ(uint32_t(getpid()), stats()[0].pid);
  EXPECT_EQ(1u, stats()[0].write_count);
}

// Records are never freed: with all 256 owned by others a process is not
// counted, but its lock still works; the first free record is the one claimed.
TEST_F(LockTest, LockStatsClaimFirstFreeRecordOrNone) {
  for (int free_rec : {-1, 255, 17}) {
    for (uint32_t i = 0; i < 256; ++i)
      stats()[i] = {i == uint32_t(free_rec) ? 0 : 0x7FFF0000 + i, 0, 0, 0, 0};
    std::vector<cmdb_lock_stat_t> before(stats(), stats() + 256);
    EXPECT_EQ(0, gk::test::run_child([] {
                cmf_shm_write_lock();
                int held = cmf_shm_lock_val();
                cmf_shm_write_unlock();
                return held == 0 && cmf_shm_lock_val() == kFull ? 0 : 1;
              }));
    for (int i = 0; i < 256; ++i)
      EXPECT_EQ(i == free_rec, memcmp(&before[i], &stats()[i], sizeof(cmdb_lock_stat_t)) != 0) << i;
  }
}

TEST_F(LockTest, ReaderSlotsWrapAndDistinguishHolders) {
  zone()[DZ_READER_SLOT_NEXT] = 255;
  Holder other(cmf_shm_read_lock, cmf_shm_read_unlock);
  ASSERT_TRUE(other.held());
  cmf_shm_read_lock();
  EXPECT_EQ(uint32_t(other.pid), reader_pids()[255]);
  EXPECT_EQ(uint32_t(getpid()), reader_pids()[0]);
  cmf_shm_read_unlock();
  EXPECT_EQ(0u, reader_pids()[0]);
  EXPECT_EQ(0, other.finish());
  EXPECT_EQ(0u, reader_pids()[255]);
  for (int i = 0; i < 256; ++i) cmf_shm_read_lock(), cmf_shm_read_unlock();
  EXPECT_EQ(1, zone()[DZ_READER_SLOT_NEXT]);
}

TEST_F(LockTest, LocksWorkWithoutDebugZone) {
  cmdb.debug_zone = nullptr;
  Holder reader(cmf_shm_read_lock, cmf_shm_read_unlock);
  ASSERT_TRUE(reader.held());
  Holder writer(cmf_shm_write_lock, cmf_shm_write_unlock);
  EXPECT_FALSE(writer.held(100));
  EXPECT_EQ(0, reader.finish());
  EXPECT_TRUE(writer.held());
  EXPECT_EQ(0, writer.finish());
  cmdb.debug_zone = region_.debug_zone;
  EXPECT_EQ(0u, stats()[0].pid);
  EXPECT_EQ(0, zone()[DZ_READER_SLOT_NEXT]);
}

TEST_F(LockTest, DebugZoneInitReportsMissingSet) {
  ASSERT_EQ(0, ::semctl(lock::dbgz_semid[1], 0, IPC_RMID));
  EXPECT_EQ(-3, debug_zone_rwlock_init());
  ASSERT_EQ(0, ::semctl(lock::dbgz_semid[0], 0, IPC_RMID));
  EXPECT_EQ(-2, debug_zone_rwlock_init());
}

}  // namespace
