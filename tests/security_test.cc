// What another local user can do: files and IPC objects as created, planted
// symlinks in /tmp, and a non-root process against a region root created.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "lock/lock_internal.h"
#include "tests/test_support.h"

namespace {
constexpr uid_t kNobody = 65534;

mode_t mode_of(const char* path) {
  struct stat st;
  return ::lstat(path, &st) == 0 ? st.st_mode & 07777 : 0;
}
std::string read_all(const char* path) {
  char buf[64] = {};
  int fd = ::open(path, O_RDONLY);
  ssize_t n = fd >= 0 ? ::read(fd, buf, sizeof buf - 1) : -1;
  if (fd >= 0) ::close(fd);
  return n >= 0 ? std::string(buf, size_t(n)) : "<unreadable>";
}

class SecurityTest : public ::testing::Test {
 protected:
  void TearDown() override { cmf_lock_cleanup(); }
  gk::test::MiniRegion region_;
};

TEST_F(SecurityTest, CreatedFilesAndSemaphoresHaveTheirModes) {
  for (mode_t mask : {mode_t{022}, mode_t{0}, mode_t{077}}) {
    ::umask(mask);
    ::unlink("/tmp/cmdb_lock");
    ::unlink("/tmp/shm_lock");
    ASSERT_EQ(0, cmdb_create_lock()) << mask;
    int fd = cmdb_shm_create("page", 520);
    ASSERT_GE(fd, 0);
    ::close(fd);
    EXPECT_EQ(0666 & ~mask, mode_of("/tmp/cmdb_lock")) << mask;
    EXPECT_EQ(0666 & ~mask, mode_of("/tmp/shm_lock")) << mask;
    EXPECT_EQ(0644 & ~mask, mode_of("/dev/cmdb/page")) << mask;
    // Semaphores know no umask.
    struct semid_ds ds;
    ASSERT_EQ(0, ::semctl(lock::cmdb_semid, 0, IPC_STAT, &ds));
    EXPECT_EQ(0666, ds.sem_perm.mode & 0777);
    EXPECT_EQ(0, cmdb_shm_remove("page"));
  }
  ::umask(022);
}

TEST_F(SecurityTest, PlantedSymlinksInTmpAreNotFollowed) {
  const char* victim = "/tmp/victim";
  for (const char* link : {"/tmp/cmdb_lock", "/tmp/shm_lock", "/tmp/cmdb_restore_lock"}) {
    ::unlink("/tmp/cmdb_lock");
    ::unlink("/tmp/shm_lock");
    ::unlink("/tmp/cmdb_restore_lock");
    int fd = ::open(victim, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_EQ(4, ::write(fd, "keep", 4));
    ::close(fd);
    ASSERT_EQ(0, ::symlink(victim, link));
    if (std::string(link) == "/tmp/cmdb_restore_lock") {
      EXPECT_EQ(-1, cmf_get_restore_lock()) << link;
    } else {
      EXPECT_EQ(-1, cmdb_create_lock()) << link;
      EXPECT_EQ(-1, cmf_lock_init()) << link;
    }
    EXPECT_EQ("keep", read_all(victim)) << link;
    EXPECT_EQ(0600u, mode_of(victim)) << link;
  }
}

// Root created the region with the usual umask; a process of another user may
// read it and take the semaphores, but not change the data or the lock files.
TEST_F(SecurityTest, NonRootUserAgainstRootsRegion) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to create as root and switch users";
  ::umask(022);
  ASSERT_EQ(0, cmdb_create_lock());
  int fd = cmdb_shm_create("page", 520);
  ASSERT_GE(fd, 0);
  ::close(fd);
  const int semid = lock::cmdb_semid;
  int status = gk::test::run_child([semid] {
    if (::setgid(kNobody) != 0 || ::setuid(kNobody) != 0) return 10;
    int ro = cmdb_shm_open("page", 0);
    if (ro < 0) return 11;  // the data is world-readable
    ::close(ro);
    errno = 0;
    if (cmdb_shm_open("page", 1) != -1 || errno != EACCES) return 12;
    if (cmdb_shm_create("page", 8) != -1) return 13;  // no truncation through the library either
    if (::open("/tmp/shm_lock", O_RDWR) != -1 || errno != EACCES) return 14;
    if (cmf_lock_init() != -1) return 15;  // so no record locks either
    // The semaphores are 0666: any user can take (and so hold) the main lock.
    sembuf take = {0, -1, IPC_NOWAIT}, give = {0, 1, IPC_NOWAIT};
    if (::semop(semid, &take, 1) != 0 || ::semop(semid, &give, 1) != 0) return 16;
    return 0;
  });
  EXPECT_EQ(0, status);
  struct stat st;
  ASSERT_EQ(0, cmdb_shm_stat("page", &st));
  EXPECT_EQ(520, st.st_size);
}
}  // namespace
