// Semaphore reader/writer locks across real processes and their debug-zone
// trace; record locks on the lock files, the restore lock, and the lock set's
// lifecycle.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/sem.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <latch>
#include <thread>

#include "lock/lock_internal.h"
#include "tests/test_support.h"
#include "util/util_internal.h"

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
    pid = gk::test::start_child([&] { return ::alarm(10), cmdb.flags |= CMDB_FLAG_DEBUG, fn(), 0; });
    during();
    status = gk::test::wait_child(pid);
  });
  char want[160];
  snprintf(want, sizeof want,
           "Critial error, cmf_lock, __cmdb_rwlock_lock, 235, semid=%d, pid=%d, errno=%d exiting...\n", semid,
           int(pid), err);
  EXPECT_EQ(std::tuple(255, std::string(want)), std::tuple(status, out));
}

class LockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, cmdb_create_lock());
    ASSERT_EQ(0, cmf_lock_init());
    ASSERT_EQ(0, debug_zone_rwlock_init());
  }
  void TearDown() override { cmf_lock_cleanup(); }
  cmdb_debug_zone_t& zone() { return region_.dz(); }
  cmdb_lock_stat_t* stats() { return zone().lock_stats; }
  uint32_t* reader_pids() { return zone().reader_pids; }
  gk::test::MiniRegion region_;
};

// A writer waits for a reader of another process, with or without the debug
// zone that traces them.
TEST_F(LockTest, WriterWaitsForReaderOfAnotherProcess) {
  for (void* zone : {static_cast<void*>(nullptr), region_.debug_zone}) {
    cmdb.debug_zone = zone;
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
    EXPECT_EQ(0u, zone != nullptr ? 0u : stats()[0].pid | this->zone().reader_slot_next);  // untraced: nothing
  }
}

// A holder killed with SIGKILL gives its units back; the waiter on that lock goes on.
TEST_F(LockTest, KilledHolderReleasesEveryLock) {
  struct Case { void (*take)(); void (*wait)(); int held; int* id; };
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
    EXPECT_EQ(std::tuple(0, kFull), (std::tuple{waiter.finish(), val(*c.id)}));
  }
}

// Unlocking a free lock, or waiting on a set replaced by a fresh one for the
// key, ends the process with the fatal message.
TEST_F(LockTest, BrokenLockUseEndsTheProcess) {
  expect_fatal(cmf_shm_write_unlock, lock::cmdb_semid, ERANGE);
  expect_fatal([] { dbgz_runlock(0); }, lock::dbgz_semid[0], ERANGE);
  expect_fatal([] { dbgz_wunlock(1); }, lock::dbgz_semid[1], ERANGE);
  expect_fatal([] { dbgz_wlock_to_rlock(1); }, lock::dbgz_semid[1], ERANGE);
  for (int id : {lock::cmdb_semid, lock::dbgz_semid[0], lock::dbgz_semid[1]}) EXPECT_EQ(kFull, val(id));
  int old_id = lock::cmdb_semid, new_id = -1;
  Holder reader(cmf_shm_read_lock, [] {});
  ASSERT_TRUE(reader.held());
  expect_fatal(cmf_shm_write_lock, old_id, EIDRM, [&] {
    if (wait_for_waiter(old_id)) new_id = lock::cmdb_sem_create(CMDB_SEM_KEY);
  });
  EXPECT_NE(old_id, new_id);
  EXPECT_EQ(std::tuple(kFull, -1), std::tuple(val(new_id), val(old_id)));
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
              for (int idx : {-1, 2, INT_MIN}) {
                dbgz_runlock(idx), dbgz_wunlock(idx), dbgz_wlock_to_rlock(idx);
                dbgz_rlock(idx), dbgz_rlock_to_wlock(idx), dbgz_wlock(idx);
              }
              return val(lock::dbgz_semid[0]) == kFull && val(lock::dbgz_semid[1]) == kFull ? 0 : 1;
            }));
  dbgz_rlock(1);
  dbgz_rlock_to_wlock(1);
  EXPECT_EQ(std::tuple(0, kFull), std::tuple(val(lock::dbgz_semid[1]), val(lock::dbgz_semid[0])));
  dbgz_wlock_to_rlock(1);
  EXPECT_EQ(kFull - 1, val(lock::dbgz_semid[1]));
  dbgz_runlock(1);
}

// Each process that takes the main lock claims the first free record and
// counts its requests there, while it still waits; with every record owned by
// others it is not counted, but its lock still works.
TEST_F(LockTest, LockStatsAndReaderSlots) {
  cmf_shm_read_lock(), cmf_shm_read_lock(), cmf_shm_read_unlock(), cmf_shm_read_unlock();
  cmf_shm_write_lock();
  const cmdb_lock_stat_t& mine = stats()[0];
  EXPECT_EQ(std::tuple(uint32_t(getpid()), 1u, 1u, true),
            std::tuple(mine.pid, mine.read_count, mine.write_count, mine.last_time != 0));
  Holder child(cmf_shm_read_lock, cmf_shm_read_unlock);
  ASSERT_TRUE(wait_for_waiter(lock::cmdb_semid));
  EXPECT_EQ(std::tuple(uint32_t(child.pid), 1u), std::tuple(stats()[1].pid, stats()[1].read_count));
  cmf_shm_write_unlock();
  EXPECT_EQ(0, child.finish());
  for (int free_rec : {-1, 17}) {
    for (uint32_t i = 0; i < 256; ++i) stats()[i] = {i == uint32_t(free_rec) ? 0 : 0x7FFF0000 + i, 0, 0, 0, 0};
    std::vector<cmdb_lock_stat_t> before(stats(), stats() + 256);
    EXPECT_EQ(0, gk::test::run_child([] {
                cmf_shm_write_lock();
                const int held = cmf_shm_lock_val();
                cmf_shm_write_unlock();
                return held == 0 ? 0 : 1;
              }));
    for (int i = 0; i < 256; ++i)
      EXPECT_EQ(i == free_rec, memcmp(&before[i], &stats()[i], sizeof(cmdb_lock_stat_t)) != 0) << i;
  }
  // Reader slots wrap after 255 and tell holders apart.
  zone().reader_slot_next = 255;
  Holder other(cmf_shm_read_lock, cmf_shm_read_unlock);
  ASSERT_TRUE(other.held());
  cmf_shm_read_lock();
  EXPECT_EQ(std::tuple(uint32_t(other.pid), uint32_t(getpid())), std::tuple(reader_pids()[255], reader_pids()[0]));
  cmf_shm_read_unlock();
  EXPECT_EQ(0u, reader_pids()[0]);
  EXPECT_EQ(0, other.finish());
  EXPECT_EQ(0u, reader_pids()[255]);
}

TEST_F(LockTest, DebugZoneInitReportsMissingSet) {
  ASSERT_EQ(0, ::semctl(lock::dbgz_semid[1], 0, IPC_RMID));
  EXPECT_EQ(-3, debug_zone_rwlock_init());
  ASSERT_EQ(0, ::semctl(lock::dbgz_semid[0], 0, IPC_RMID));
  EXPECT_EQ(-2, debug_zone_rwlock_init());
}

using gk::test::captured_log;
using gk::test::run_child;

// The lock another process meets on byte `pos` when it asks for `type`; F_UNLCK when none.
int probe(const char* path, int pos, short type = F_WRLCK) {
  return run_child([=] {
    struct flock fl = {};
    fl.l_type = type, fl.l_whence = SEEK_SET, fl.l_start = pos, fl.l_len = 1;
    int fd = ::open(path, O_RDWR);
    return fd >= 0 && ::fcntl(fd, F_GETLK, &fl) == 0 ? fl.l_type : 100;
  });
}


class LockFilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, cmdb_create_lock());
    ASSERT_EQ(0, cmf_lock_init());
    gk::test::clear_log();
  }
  void TearDown() override { cmf_lock_cleanup(); }
};

TEST_F(LockFilesTest, EventReadLockWaitsForWriterOfAnotherProcess) {
  Holder writer([] { cmdb_event_write_lock(); }, [] { cmdb_event_write_unlock(); });
  ASSERT_TRUE(writer.held());
  EXPECT_EQ(F_WRLCK, probe("/tmp/cmdb_lock", 1, F_RDLCK));
  EXPECT_EQ(F_UNLCK, probe("/tmp/cmdb_lock", 0));
  Holder reader([] { cmdb_event_read_lock(); }, [] {});
  EXPECT_FALSE(reader.held(200));
  EXPECT_EQ(0, writer.finish());
  EXPECT_TRUE(reader.held());
}

TEST_F(LockFilesTest, ByteRangeLocksCoverOneByte) {
  ASSERT_EQ(0, cmf_shm_write_file_lock(5));
  ASSERT_EQ(0, cmf_shm_read_file_lock(7));
  struct { int pos; short ask; int met; } cases[] = {
      {5, F_RDLCK, F_WRLCK}, {4, F_WRLCK, F_UNLCK}, {6, F_WRLCK, F_UNLCK}, {7, F_RDLCK, F_UNLCK}, {7, F_WRLCK, F_RDLCK}};
  for (const auto& c : cases) EXPECT_EQ(c.met, probe("/tmp/shm_lock", c.pos, c.ask)) << c.pos;
  EXPECT_EQ(0, run_child([] { return ::alarm(5), cmf_shm_write_file_lock(6); }));  // not held up by byte 5
  EXPECT_EQ(0, cmf_shm_read_file_unlock(5));  // either unlock releases either kind
  EXPECT_EQ(F_UNLCK, probe("/tmp/shm_lock", 5));
}

TEST_F(LockFilesTest, RestoreLockIsExclusiveAndNonBlocking) {
  int fd = cmf_get_restore_lock();
  ASSERT_GE(fd, 0);
  auto before = gk::test::open_fds();
  EXPECT_EQ(-1, cmf_get_restore_lock());
  EXPECT_EQ(before, gk::test::open_fds());  // the failed call closed what it opened
  EXPECT_EQ(0, run_child([] { return cmf_get_restore_lock() == -1 ? 0 : 1; }));
  cmf_restore_unlock(fd);
  EXPECT_EQ(0, run_child([] { return cmf_get_restore_lock() >= 0 ? 0 : 1; }));
  cmf_restore_unlock(-1);
  EXPECT_EQ("", captured_log());
  ::close(fd);
  cmf_restore_unlock(fd);
  EXPECT_EQ("cmf_restore_unlock:402 => proc " + std::to_string(getpid()) +
                " unlock failed w/ err (Bad file descriptor)\n",
            captured_log());
}

TEST_F(LockFilesTest, LockInitFailsWhenAFileIsMissing) {
  std::string no_event =
      std::string("cmf_lock:184: ") + util::progname() + " create cmdb_event_lockfd error 2\n";
  struct Case { void (*remove)(); int (*init)() noexcept; std::string log; bool pause; };
  const Case cases[] = {
      {[] { ::unlink("/tmp/shm_lock"); }, cmf_lock_init, "cmf_lock:193: create shm_lockfd error 2\n", false},
      {[] { ::unlink("/tmp/shm_lock"); }, cmf_lock_init_for_cli, "cmf_lock:193: create shm_lockfd error 2\n", false},
      {[] { cmdb_destroy_lock(); }, cmf_lock_init, no_event, true}};
  for (const Case& c : cases) {
    ASSERT_EQ(0, cmdb_create_lock());
    c.remove();
    gk::test::clear_log();
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(-1, c.init());
    auto waited = std::chrono::steady_clock::now() - t0;
    EXPECT_EQ(c.log, captured_log());
    EXPECT_EQ(c.pause, waited >= std::chrono::milliseconds(900));
    EXPECT_EQ(!c.pause, ::fcntl(lock::cmdb_event_lockfd, F_GETFD) != -1);  // open when only shm_lock failed
  }
}

TEST_F(LockFilesTest, DestroyRemovesEventFileAndMainSetOnly) {
  int old = lock::cmdb_semid;
  EXPECT_EQ(0, cmdb_destroy_lock());
  EXPECT_EQ(std::tuple(-1, -1, -1, 0, -1, 0),
            std::tuple(lock::cmdb_event_lockfd, lock::shm_lockfd, ::access("/tmp/cmdb_lock", F_OK),
                       ::access("/tmp/shm_lock", F_OK), ::semctl(old, 0, GETVAL), debug_zone_rwlock_init()));
  EXPECT_EQ(-1, cmdb_destroy_lock());  // the id is stale now
  // Attaching before any set exists succeeds with the main lock switched off.
  ASSERT_EQ(0, cmdb_create_lock());
  for (int key : {CMDB_SEM_KEY, DBGZ_SEM_KEY, DBGZ_SEM_KEY + 1})
    ::semctl(::semget(key, 1, 0666), 0, IPC_RMID);
  EXPECT_EQ(0, cmf_lock_init());
  EXPECT_EQ(-1, cmf_shm_lock_val());
}

TEST_F(LockFilesTest, ShmFileLockReopensDescriptorClosedBehindItsBack) {
  ::close(lock::shm_lockfd);
  EXPECT_EQ(0, cmf_shm_write_file_lock(3));
  EXPECT_EQ(F_WRLCK, probe("/tmp/shm_lock", 3));
  std::string err = gk::test::capture_output([] {
    ::close(lock::shm_lockfd);
    ::unlink("/tmp/shm_lock");
    EXPECT_EQ(-1, cmf_shm_read_file_lock(3));
    cmf_lock_cleanup();
    EXPECT_EQ(-1, cmdb_event_read_lock());
  }, 2);
  EXPECT_EQ("lockerr: Bad file descriptor\nlockerr: Bad file descriptor\n", err);
  EXPECT_EQ("valid_shm_lock_file:353 failed to open lock file: /tmp/shm_lock\n", captured_log());
}

// Closing a lock file's descriptor drops the process's record locks on it.
TEST_F(LockFilesTest, DaemonInitDropsRecordLocksCliInitKeepsThem) {
  for (auto [init, kept] : {std::pair{&cmf_lock_init, false}, std::pair{&cmf_lock_init_for_cli, true}}) {
    ASSERT_EQ(0, cmf_shm_write_file_lock(9));
    ASSERT_EQ(0, init());
    EXPECT_EQ(kept ? F_WRLCK : F_UNLCK, probe("/tmp/shm_lock", 9));
    cmf_shm_write_file_unlock(9);
  }
}

}  // namespace
