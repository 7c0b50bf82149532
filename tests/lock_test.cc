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
using gk::test::Signal;
using gk::test::start_child;
using gk::test::wait_child;
constexpr int kFull = CMDB_RWLOCK_FULL;

int val(int id) { return ::semctl(id, 0, GETVAL); }
bool wait_for_waiter(int id) {  // until one process sleeps on the semaphore
  for (int i = 0; i < 5000; ++i, ::usleep(1000))
    if (::semctl(id, 0, GETNCNT) == 1) return true;
  return false;
}

// A child whose log goes to standard output, and how it ended: status and output.
struct LoggedChild {
  pid_t pid;
  int out;
};
LoggedChild start_logged(const std::function<void()>& fn) {
  int p[2];
  if (::pipe(p) != 0) abort();
  pid_t pid = start_child([&] {
    ::dup2(p[1], 1);
    cmdb.flags |= CMDB_FLAG_DEBUG;
    fn();
    return 0;
  });
  ::close(p[1]);
  return {pid, p[0]};
}
std::pair<int, std::string> finish(LoggedChild c) {
  std::string out;
  char buf[512];
  for (ssize_t n; (n = ::read(c.out, buf, sizeof buf)) > 0;) out.append(buf, size_t(n));
  ::close(c.out);
  return {wait_child(c.pid), out};
}

std::string fatal_text(int semid, pid_t pid, int err) {
  char buf[200];
  snprintf(buf, sizeof buf, "Critial error, cmf_lock, __cmdb_rwlock_lock, 235, semid=%d, pid=%d, errno=%d exiting...\n",
           semid, int(pid), err);
  return buf;
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
  Signal held, release, got, done;
  pid_t reader = start_child([&] {
    cmf_shm_read_lock();
    held.post();
    if (!release.wait()) return 2;
    cmf_shm_read_unlock();
    return 0;
  });
  ASSERT_TRUE(held.wait());
  EXPECT_EQ(kFull - 1, cmf_shm_lock_val());
  pid_t writer = start_child([&] {
    ::alarm(5);
    cmf_shm_write_lock();
    got.post();
    if (!done.wait()) return 2;
    cmf_shm_write_unlock();
    return 0;
  });
  ASSERT_TRUE(wait_for_waiter(lock::cmdb_semid));
  EXPECT_FALSE(got.wait(100));
  release.post();
  ASSERT_TRUE(got.wait());
  EXPECT_EQ(0, cmf_shm_lock_val());
  done.post();
  EXPECT_EQ(0, wait_child(reader));
  EXPECT_EQ(0, wait_child(writer));
  EXPECT_EQ(kFull, cmf_shm_lock_val());
}

// A holder killed with SIGKILL gives its units back; the waiter on that lock goes on.
TEST_F(LockTest, KilledHolderReleasesEveryLock) {
  struct Case { void (*lock)(); void (*wait)(); int held; int* id; };
  const Case cases[] = {
      {cmf_shm_write_lock, [] { cmf_shm_read_lock(); cmf_shm_read_unlock(); }, 0, &lock::cmdb_semid},
      {[] { dbgz_wlock(0); }, [] { dbgz_rlock(0); dbgz_runlock(0); }, 0, &lock::dbgz_semid[0]},
      {[] { dbgz_rlock(1); }, [] { dbgz_wlock(1); dbgz_wunlock(1); }, kFull - 1, &lock::dbgz_semid[1]}};
  for (const Case& c : cases) {
    Signal held;
    pid_t holder = start_child([&]() -> int { c.lock(); held.post(); for (;;) ::pause(); });
    ASSERT_TRUE(held.wait());
    EXPECT_EQ(c.held, val(*c.id));
    pid_t waiter = start_child([&] { ::alarm(5); c.wait(); return 0; });
    ASSERT_TRUE(wait_for_waiter(*c.id));
    ::kill(holder, SIGKILL);
    EXPECT_EQ(128 + SIGKILL, wait_child(holder));
    EXPECT_EQ(0, wait_child(waiter));
    EXPECT_EQ(kFull, val(*c.id));
  }
}

TEST_F(LockTest, UnlockOfFreeLockEndsProcess) {
  struct Case { void (*unlock)(); int* id; };
  const Case cases[] = {{cmf_shm_write_unlock, &lock::cmdb_semid},
                        {[] { dbgz_runlock(0); }, &lock::dbgz_semid[0]},
                        {[] { dbgz_wunlock(1); }, &lock::dbgz_semid[1]},
                        {[] { dbgz_wlock_to_rlock(1); }, &lock::dbgz_semid[1]}};
  for (const Case& c : cases) {
    LoggedChild child = start_logged(c.unlock);
    auto [status, out] = finish(child);
    EXPECT_EQ(255, status);
    EXPECT_EQ(fatal_text(*c.id, child.pid, ERANGE), out);
    EXPECT_EQ(kFull, val(*c.id));
  }
}

// A fresh set for the key replaces the old one; a process waiting on the old one dies.
TEST_F(LockTest, SemCreateReplacesSetAndEndsItsWaiters) {
  Signal held, release;
  int old_id = lock::cmdb_semid;
  pid_t reader = start_child([&] { cmf_shm_read_lock(); held.post(); return release.wait() ? 0 : 2; });
  ASSERT_TRUE(held.wait());
  LoggedChild writer = start_logged([] { cmf_shm_write_lock(); });
  ASSERT_TRUE(wait_for_waiter(old_id));
  int new_id = lock::cmdb_sem_create(CMDB_SEM_KEY);
  auto [status, out] = finish(writer);
  release.post();
  EXPECT_EQ(0, wait_child(reader));
  EXPECT_EQ(255, status);
  EXPECT_EQ(fatal_text(old_id, writer.pid, EIDRM), out);
  ASSERT_GE(new_id, 0);
  EXPECT_NE(old_id, new_id);
  EXPECT_EQ(kFull, val(new_id));
  EXPECT_EQ(-1, val(old_id));
}

TEST_F(LockTest, NestedReadLocksOfOneThreadTakeOneUnit) {
  cmf_shm_read_lock();
  cmf_shm_read_lock();
  EXPECT_EQ(kFull - 1, cmf_shm_lock_val());
  cmf_shm_read_unlock();
  EXPECT_EQ(kFull - 1, cmf_shm_lock_val());
  cmf_shm_read_unlock();
  EXPECT_EQ(kFull, cmf_shm_lock_val());
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
    int id = lock::dbgz_semid[idx], other = lock::dbgz_semid[1 - idx];
    dbgz_rlock(idx);
    EXPECT_EQ(kFull - 1, val(id));
    dbgz_rlock_to_wlock(idx);
    EXPECT_EQ(0, val(id));
    EXPECT_EQ(kFull, val(other));
    dbgz_wlock_to_rlock(idx);
    EXPECT_EQ(kFull - 1, val(id));
    dbgz_runlock(idx);
    EXPECT_EQ(kFull, val(id));
  }
}

TEST_F(LockTest, LockStatsCountRequestsPerProcess) {
  time_t t0 = ::time(nullptr);
  cmf_shm_read_lock();
  cmf_shm_read_lock();
  cmf_shm_read_unlock();
  cmf_shm_read_unlock();
  cmf_shm_write_lock();
  cmf_shm_write_unlock();
  const cmdb_lock_stat_t& mine = stats()[0];
  EXPECT_EQ(uint32_t(getpid()), mine.pid);
  EXPECT_EQ(1u, mine.read_count);
  EXPECT_EQ(1u, mine.write_count);
  EXPECT_GE(mine.last_time, t0);
  EXPECT_LE(mine.last_time, ::time(nullptr));
  // A forked child gets a record of its own, counted while it still waits.
  cmf_shm_write_lock();
  pid_t child = start_child([] { cmf_shm_read_lock(); cmf_shm_read_unlock(); return 0; });
  ASSERT_TRUE(wait_for_waiter(lock::cmdb_semid));
  EXPECT_EQ(uint32_t(child), stats()[1].pid);
  EXPECT_EQ(1u, stats()[1].read_count);
  EXPECT_NE(0, stats()[1].last_time);
  EXPECT_EQ(0, std::count(reader_pids(), reader_pids() + 256, uint32_t(child)));
  cmf_shm_write_unlock();
  EXPECT_EQ(0, wait_child(child));
  EXPECT_EQ(2u, mine.write_count);
  EXPECT_EQ(1u, mine.read_count);
  // A wiped zone (a fresh region) is claimed again from the start.
  memset(stats(), 0, 256 * sizeof(cmdb_lock_stat_t));
  cmf_shm_write_lock();
  cmf_shm_write_unlock();
  EXPECT_EQ(uint32_t(getpid()), stats()[0].pid);
  EXPECT_EQ(1u, stats()[0].write_count);
}

// Records are never freed: with all 256 owned by others a process is not
// counted, but its lock still works; the first free record is the one claimed.
TEST_F(LockTest, LockStatsClaimFirstFreeRecordOrNone) {
  for (int free_rec : {-1, 255, 17}) {
    for (uint32_t i = 0; i < 256; ++i) stats()[i] = {i == uint32_t(free_rec) ? 0 : 0x7FFF0000 + i, 0, 0, 0, 0};
    std::vector<cmdb_lock_stat_t> before(stats(), stats() + 256);
    EXPECT_EQ(0, gk::test::run_child([] {
      cmf_shm_write_lock();
      int held = cmf_shm_lock_val();
      cmf_shm_write_unlock();
      return held == 0 && cmf_shm_lock_val() == kFull ? 0 : 1;
    }));
    for (int i = 0; i < 256; ++i) {
      if (i == free_rec) EXPECT_EQ(1u, stats()[i].write_count);
      else EXPECT_EQ(0, memcmp(&before[i], &stats()[i], sizeof(cmdb_lock_stat_t))) << i;
    }
  }
}

TEST_F(LockTest, ReaderSlotsWrapAndDistinguishHolders) {
  zone()[DZ_READER_SLOT_NEXT] = 255;
  Signal held, release;
  pid_t other = start_child([&] {
    cmf_shm_read_lock();
    held.post();
    if (!release.wait()) return 2;
    cmf_shm_read_unlock();
    return 0;
  });
  ASSERT_TRUE(held.wait());
  EXPECT_EQ(uint32_t(other), reader_pids()[255]);
  EXPECT_EQ(0, zone()[DZ_READER_SLOT_NEXT]);
  cmf_shm_read_lock();
  EXPECT_EQ(uint32_t(getpid()), reader_pids()[0]);
  cmf_shm_read_unlock();
  EXPECT_EQ(0u, reader_pids()[0]);
  EXPECT_EQ(uint32_t(other), reader_pids()[255]);
  release.post();
  EXPECT_EQ(0, wait_child(other));
  EXPECT_EQ(0u, reader_pids()[255]);
  for (int i = 0; i < 256; ++i) cmf_shm_read_lock(), cmf_shm_read_unlock();
  EXPECT_EQ(1, zone()[DZ_READER_SLOT_NEXT]);
}

// Without a debug zone the lock works and no bookkeeping is attempted.
TEST_F(LockTest, LocksWorkWithoutDebugZone) {
  cmdb.debug_zone = nullptr;
  cmf_shm_read_lock();
  EXPECT_EQ(kFull - 1, cmf_shm_lock_val());
  cmf_shm_read_unlock();
  cmf_shm_write_lock();
  EXPECT_EQ(0, cmf_shm_lock_val());
  cmf_shm_write_unlock();
  cmdb.debug_zone = region_.debug_zone;
  EXPECT_EQ(0u, stats()[0].pid);
  EXPECT_EQ(0, zone()[DZ_READER_SLOT_NEXT]);
}

TEST_F(LockTest, UnattachedLocksAreNoOps) {
  EXPECT_EQ(0, gk::test::run_child([] {
    lock::cmdb_semid = lock::dbgz_semid[0] = lock::dbgz_semid[1] = -1;
    cmf_shm_write_unlock();  // fatal if it reached a semaphore
    dbgz_wunlock(0);
    cmf_shm_write_lock();
    return cmf_shm_lock_val() == -1 ? 0 : 1;
  }));
  EXPECT_EQ(kFull, cmf_shm_lock_val());
}

TEST_F(LockTest, DebugZoneInitReportsMissingSet) {
  ASSERT_EQ(0, ::semctl(lock::dbgz_semid[1], 0, IPC_RMID));
  int first = lock::dbgz_semid[0];
  EXPECT_EQ(-3, debug_zone_rwlock_init());
  EXPECT_EQ(first, lock::dbgz_semid[0]);
  ASSERT_EQ(0, ::semctl(first, 0, IPC_RMID));
  EXPECT_EQ(-2, debug_zone_rwlock_init());
}

}  // namespace
