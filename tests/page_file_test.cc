// Files in /dev/cmdb: open flags, failures and the directory listing they log.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tests/test_support.h"

namespace {
using gk::test::captured_log;

void make_file(const char* name, size_t len) {
  std::string path = std::string("/dev/cmdb/") + name;
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, ::ftruncate(fd, off_t(len)));
  ::close(fd);
}

// The listing shows the whole directory: start from an empty one even when
// the binary runs every case in one sandbox.
void empty_dir() {
  DIR* d = ::opendir("/dev/cmdb");
  ASSERT_NE(nullptr, d);
  while (struct dirent* e = ::readdir(d)) {
    std::string path = std::string("/dev/cmdb/") + e->d_name;
    if (e->d_name[0] != '.' && ::unlink(path.c_str()) != 0) ::rmdir(path.c_str());
  }
  ::closedir(d);
}

std::string listing_line(const char* name) {
  struct stat st;
  EXPECT_EQ(0, ::lstat((std::string("/dev/cmdb//") + name).c_str(), &st));
  char when[64], line[160];
  ctime_r(&st.st_atime, when);
  snprintf(line, sizeof line, "%-20s %-8ld %s", name, static_cast<long>(st.st_size), when);
  return line;
}

TEST(PageFileTest, OpenAndCreateGiveCloseOnExecDescriptors) {
  make_file("page", 520);
  int fds[] = {cmdb_shm_open("page", 0), cmdb_shm_open("page", 1), cmdb_shm_create("fresh", 0)};
  for (int fd : fds) {
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(::fcntl(fd, F_GETFD) & FD_CLOEXEC);
  }
  EXPECT_EQ(O_RDONLY, ::fcntl(fds[0], F_GETFL) & O_ACCMODE);
  EXPECT_EQ(O_RDWR, ::fcntl(fds[1], F_GETFL) & O_ACCMODE);
  struct stat st;
  ASSERT_EQ(0, ::fstat(fds[2], &st));
  EXPECT_EQ(0, st.st_size);
  for (int fd : fds) ::close(fd);
  // Creation empties an existing file, then reserves the length asked for.
  int fd = cmdb_shm_create("page", 100);
  ASSERT_EQ(0, cmdb_shm_stat("page", &st));
  EXPECT_EQ(100, st.st_size);
  ::close(fd);
  EXPECT_EQ(0, cmdb_shm_remove("page"));
  EXPECT_EQ(-1, cmdb_shm_stat("page", &st));
  EXPECT_EQ(-1, cmdb_shm_remove("page"));
}

TEST(PageFileTest, PathsAreCutToSixtyFourCharacters) {
  const std::string name(70, 'n');
  int fd = cmdb_shm_create(name.c_str(), 0);
  ASSERT_GE(fd, 0);
  ::close(fd);
  struct stat st;
  EXPECT_EQ(0, ::stat(("/dev/cmdb/" + name.substr(0, 64 - 10)).c_str(), &st));
}

TEST(PageFileTest, RefusedOpensKeepErrnoAndLogTheDirectory) {
  empty_dir();
  make_file("page", 520);
  make_file("1", 8192);
  make_file("2", 20008);
  ASSERT_EQ(0, ::mkdir("/dev/cmdb/dir", 0755));
  ASSERT_EQ(0, ::symlink("/dev/cmdb/page", "/dev/cmdb/link"));
  struct Case {
    const char* name;
    int writable;
    int err;
  } cases[] = {{"dir", 1, EINVAL}, {"link", 0, ELOOP}, {"missing", 1, ENOENT}};
  for (const Case& c : cases) {
    gk::test::clear_log();
    errno = 0;
    EXPECT_EQ(-1, cmdb_shm_open(c.name, c.writable)) << c.name;
    EXPECT_EQ(c.err, errno) << c.name;
    char head[200];
    snprintf(head, sizeof head, "name=/dev/cmdb/%s, errno=%d, %s.\n", c.name, c.err, strerror(c.err));
    const std::string& log = captured_log();
    // Once to the log and once to log_crash, then the listing and a trace.
    EXPECT_EQ(2, gk::test::count_occurrences(log, head)) << log;
    EXPECT_EQ(0u, log.find(std::string(program_invocation_short_name) + ",cmf_shm_slab,"));
    std::string listing;
    for (const char* n : {"page", "link", "dir", "2", "1", "..", "."}) listing += listing_line(n) + "[crash] " + listing_line(n);
    EXPECT_NE(std::string::npos, log.find(listing + "[trace]\n")) << log;
    // The host's log functions get the formats themselves, not pre-formatted text.
    std::vector<std::string> formats(2, "%s,%s,%d, name=%s, errno=%d, %s.\n");
    formats.resize(2 + 2 * 7, "%-20s %-8ld %s");
    EXPECT_EQ(formats, gk::test::captured_formats());
  }
}

}  // namespace

// Paths are built in a per-thread buffer: threads working on files of their own
// at once must each reach exactly their own file.
TEST(PageFileTest, ThreadsBuildPathsOfTheirOwn) {
  constexpr int kThreads = 4, kRounds = 150;
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t, &wrong] {
      for (int i = 0; i < kRounds; ++i) {
        const std::string name = "t" + std::to_string(t) + "_" + std::to_string(i % 7);
        const int32_t len = 100 * (t + 1) + i;
        int fd = cmdb_shm_create(name.c_str(), len);
        struct stat st;
        if (fd < 0 || ::fstat(fd, &st) != 0 || st.st_size != len) ++wrong;
        if (fd >= 0) ::close(fd);
        if (cmdb_shm_stat(name.c_str(), &st) != 0 || st.st_size != len) ++wrong;
        if (cmdb_shm_remove(name.c_str()) != 0) ++wrong;
      }
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(0, wrong.load());
}
