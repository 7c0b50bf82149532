// What another local user can do: files and IPC objects as created, planted
// symlinks and lock files in /tmp, a non-root process against a region root
// created, and a restricted region against a member of its group and a stranger.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "lock/lock_internal.h"
#include "tests/sample_schema.h"
#include "tests/test_support.h"

namespace {
constexpr uid_t kNobody = 65534;
constexpr gid_t kGroup = 4242;

mode_t mode_of(const char* path) {
  struct stat st;
  return ::lstat(path, &st) == 0 ? st.st_mode & 07777 : 0;
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
    struct semid_ds ds;  // semaphores know no umask
    ASSERT_EQ(0, ::semctl(lock::cmdb_semid, 0, IPC_STAT, &ds));
    EXPECT_EQ(std::tuple(0666 & ~mask, 0666 & ~mask, 0644 & ~mask, 0666u),
              std::tuple(mode_of("/tmp/cmdb_lock"), mode_of("/tmp/shm_lock"), mode_of("/dev/cmdb/page"),
                         ds.sem_perm.mode & 0777u)) << mask;
    EXPECT_EQ(0, cmdb_shm_remove("page"));
  }
  ::umask(022);
}

TEST_F(SecurityTest, PlantedSymlinksInTmpAreNotFollowed) {
  const char* victim = "/tmp/victim";
  for (const char* link : {"/tmp/cmdb_lock", "/tmp/shm_lock", "/tmp/cmdb_restore_lock"}) {
    for (const char* f : {"/tmp/cmdb_lock", "/tmp/shm_lock", "/tmp/cmdb_restore_lock"}) ::unlink(f);
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
    EXPECT_EQ(std::tuple(std::vector<uint8_t>{'k', 'e', 'e', 'p'}, 0600u),
              std::tuple(gk::test::read_file(victim), mode_of(victim))) << link;
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
  EXPECT_EQ(0, gk::test::run_child([semid] {
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
  }));
  struct stat st;
  ASSERT_EQ(0, cmdb_shm_stat("page", &st));
  EXPECT_EQ(520, st.st_size);
}

// Drops this (child) process to nobody, in kGroup or not, leaving what it
// inherited of the region: 0, or 1 when refused.
int become_nobody(bool member) {
  cleanup_cmdb_app_core();
  const gid_t groups[] = {kGroup};
  if (::setgroups(member ? 1 : 0, groups) != 0) return 1;
  return ::setresgid(kNobody, kNobody, kNobody) == 0 && ::setresuid(kNobody, kNobody, kNobody) == 0 ? 0 : 1;
}

// Mode and group of a file, as "0640:4242".
std::string access_of(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return "missing";
  char buf[32];
  snprintf(buf, sizeof buf, "%04o:%u", st.st_mode & 07777, static_cast<unsigned>(st.st_gid));
  return buf;
}

class HardeningTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to switch users";
    ::umask(022);
  }
  void TearDown() override { cleanup_cmdb_app_core(); }
  gk::test::SampleSchema schema_;
};

TEST_F(HardeningTest, RestrictedRegionAdmitsItsGroupOnly) {
  ASSERT_EQ(0, gk::test::create_region(schema_, 3));
  ASSERT_EQ(0, cmf_shm_restrict(kGroup));
  ASSERT_EQ(0, init_cmdb_app_core(CMDB_MODE_OWNER));
  EXPECT_EQ(std::tuple(uint32_t(CMDB_EXT_RESTRICTED), kGroup),
            std::tuple(get_cmdb_header()->ext_flags & CMDB_EXT_RESTRICTED, get_cmdb_header()->write_gid));
  uint32_t id = 0;
  cmf_shm_write_lock();
  ASSERT_NE(nullptr, cmf_shm_alloc(30000, &id));  // a page made after the restriction
  cmf_shm_write_unlock();
  const std::string dir = CMDB_DIR;
  const std::string owner_writes = "0640:" + std::to_string(kGroup),
                    all_write = "0660:" + std::to_string(kGroup);
  for (const char* name : {"cmdb_node", "page", "cmdb_global", "domain", "1"})
    EXPECT_EQ(owner_writes, access_of(dir + name)) << name;
  EXPECT_EQ(owner_writes, access_of(dir + std::to_string(CMF_SHMID_PAGE(id))));
  for (const char* name :
       {"cmdb_global_rw", "cmdb_event", "debug_zone", "admin_login_status", "daemon_status"})
    EXPECT_EQ(all_write, access_of(dir + name)) << name;
  for (const char* path : {"/tmp/cmdb_lock", "/tmp/shm_lock", "/tmp/cmdb_restore_lock"})
    EXPECT_EQ(all_write, access_of(path)) << path;
  struct semid_ds ds;
  ASSERT_EQ(0, ::semctl(lock::cmdb_semid, 0, IPC_STAT, &ds));
  EXPECT_EQ(0660u, ds.sem_perm.mode & 0777u);
  EXPECT_EQ(kGroup, ds.sem_perm.gid);

  // A member attaches, reads under the lock and registers for events; it cannot write the data.
  EXPECT_EQ(0, gk::test::run_child([id] {
              if (become_nobody(true) != 0 || init_cmdb_app_core(CMDB_MODE_READER) != 0) return 1;
              cmf_shm_read_lock();
              const bool read =
                  get_cmdb_header()->magic == CMDB_HEADER_MAGIC && cmf_ptr_from_shmid(id, 0) != nullptr;
              cmf_shm_read_unlock();
              if (!read) return 2;
              if (cmdb_register_event("member", 91, CMDB_EV_INSERT, 0) != 0) return 3;
              return ::open(CMDB_DIR "cmdb_node", O_RDWR) == -1 && errno == EACCES ? 0 : 4;
            }));
  // A stranger reads nothing, stalls and kills nobody.
  const int semid = lock::cmdb_semid;
  EXPECT_EQ(0, gk::test::run_child([semid] {
              if (become_nobody(false) != 0) return 1;
              if (::open(CMDB_DIR "cmdb_node", O_RDONLY) != -1 || errno != EACCES) return 2;
              if (::open("/tmp/cmdb_lock", O_RDONLY) != -1 || errno != EACCES) return 3;
              if (cmf_get_restore_lock() != -1) return 4;
              if (::semctl(semid, 0, SETVAL, 0) != -1 || errno != EACCES) return 5;
              return init_cmdb_app_core(CMDB_MODE_READER) == -1 ? 0 : 6;
            }));
}

// A root process takes only lock files root owns: another user could plant one
// first and so own the region's locks.
TEST_F(HardeningTest, RootRefusesLockFilesOfAnotherOwner) {
  ASSERT_EQ(0, cmdb_create_lock());
  cmf_lock_cleanup();
  // With fs.protected_regular the kernel refuses such a file to O_CREAT first.
  const bool kernel_refuses_creat =
      gk::test::read_file("/proc/sys/fs/protected_regular") != std::vector<uint8_t>{'0', '\n'};
  struct Case {
    const char* planted;
    int (*call)();
    bool creates;
  } cases[] = {{"/tmp/cmdb_lock", cmdb_create_lock, true},
               {"/tmp/cmdb_lock", cmf_lock_init, false},
               {"/tmp/shm_lock", cmf_lock_init_for_cli, false},
               {"/tmp/cmdb_restore_lock", cmf_get_restore_lock, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.planted);
    int fd = ::open(c.planted, O_RDWR | O_CREAT, 0666);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, ::fchown(fd, kNobody, kNobody));
    ::close(fd);
    gk::test::clear_log();
    EXPECT_EQ(-1, c.call());
    if (!(c.creates && kernel_refuses_creat)) {
      EXPECT_NE(std::string::npos, gk::test::captured_log().find(std::string(c.planted) +
                                                                 " is owned by uid 65534, not by root"));
    }
    cmf_lock_cleanup();
    ASSERT_EQ(0, ::chown(c.planted, 0, 0));
  }
}
}  // namespace
