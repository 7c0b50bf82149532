// Record locks on the lock files, the restore lock, and the lock set's lifecycle.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/sem.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "lock/lock_internal.h"
#include "tests/test_support.h"
#include "util/util_internal.h"

namespace {
using gk::test::capture_stderr;
using gk::test::captured_log;
using gk::test::Holder;
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

std::string read_file(const char* path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), {}};
}

auto open_fds() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

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
  struct {
    int pos;
    short ask;
    int met;
  } cases[] = {{5, F_RDLCK, F_WRLCK},
               {4, F_WRLCK, F_UNLCK},
               {6, F_WRLCK, F_UNLCK},
               {7, F_RDLCK, F_UNLCK},
               {7, F_WRLCK, F_RDLCK}};
  for (const auto& c : cases) EXPECT_EQ(c.met, probe("/tmp/shm_lock", c.pos, c.ask)) << c.pos;
  EXPECT_EQ(0, run_child([] {
              ::alarm(5);
              return cmf_shm_write_file_lock(6);
            }));                              // not held up by byte 5
  EXPECT_EQ(0, cmf_shm_read_file_unlock(5));  // either unlock releases either kind
  EXPECT_EQ(F_UNLCK, probe("/tmp/shm_lock", 5));
}

TEST_F(LockFilesTest, RestoreLockIsExclusiveAndNonBlocking) {
  int fd = cmf_get_restore_lock();
  ASSERT_GE(fd, 0);
  auto before = open_fds();
  EXPECT_EQ(-1, cmf_get_restore_lock());
  EXPECT_EQ(before, open_fds());  // the failed call closed what it opened
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
  struct Case {
    void (*remove)();
    int (*init)() noexcept;
    std::string log;
    bool pause;
  };
  const Case cases[] = {
      {[] { ::unlink("/tmp/shm_lock"); }, cmf_lock_init, "cmf_lock:193: create shm_lockfd error 2\n", false},
      {[] { ::unlink("/tmp/shm_lock"); }, cmf_lock_init_for_cli, "cmf_lock:193: create shm_lockfd error 2\n",
       false},
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
  EXPECT_EQ(-1, lock::cmdb_event_lockfd);
  EXPECT_EQ(-1, lock::shm_lockfd);
  EXPECT_NE(0, ::access("/tmp/cmdb_lock", F_OK));
  EXPECT_EQ(0, ::access("/tmp/shm_lock", F_OK));
  EXPECT_EQ(-1, ::semctl(old, 0, GETVAL));
  EXPECT_EQ(0, debug_zone_rwlock_init());
  EXPECT_EQ(-1, cmdb_destroy_lock());  // the id is stale now
  // Attaching before any set exists succeeds with the main lock switched off.
  ASSERT_EQ(0, cmdb_create_lock());
  for (int key : {CMDB_SEM_KEY, DBGZ_SEM_KEY, DBGZ_SEM_KEY + 1})
    ::semctl(::semget(key, 1, 0666), 0, IPC_RMID);
  EXPECT_EQ(0, cmf_lock_init());
  EXPECT_EQ(-1, cmf_shm_lock_val());
}

TEST_F(LockFilesTest, CreateLockWritesMarkersAndLeavesFilesClosed) {
  int event_fd = lock::cmdb_event_lockfd, shm_fd = lock::shm_lockfd;
  int fd = ::open("/tmp/cmdb_lock", O_WRONLY | O_TRUNC);
  ASSERT_EQ(8, ::write(fd, "XXXXXXXX", 8));
  ::close(fd);
  ::unlink("/tmp/shm_lock");
  EXPECT_EQ(0, cmdb_create_lock());
  EXPECT_EQ(-1, ::fcntl(event_fd, F_GETFD));
  EXPECT_EQ(-1, ::fcntl(shm_fd, F_GETFD));
  EXPECT_EQ("lockXXXX", read_file("/tmp/cmdb_lock"));  // never truncated
  EXPECT_EQ("1", read_file("/tmp/shm_lock"));
  ::unlink("/tmp/shm_lock");
  ASSERT_EQ(0, ::mkdir("/tmp/shm_lock", 0755));
  EXPECT_EQ(-1, cmdb_create_lock());
  ::rmdir("/tmp/shm_lock");
}

TEST_F(LockFilesTest, ShmFileLockReopensDescriptorClosedBehindItsBack) {
  ::close(lock::shm_lockfd);
  EXPECT_EQ(0, cmf_shm_write_file_lock(3));
  EXPECT_EQ(F_WRLCK, probe("/tmp/shm_lock", 3));
  std::string err = capture_stderr([] {
    ::close(lock::shm_lockfd);
    ::unlink("/tmp/shm_lock");
    EXPECT_EQ(-1, cmf_shm_read_file_lock(3));
    cmf_lock_cleanup();
    EXPECT_EQ(-1, cmdb_event_read_lock());
  });
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
