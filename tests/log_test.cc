// The library log: threshold from the shared header, destination by the debug bit.
#include <gtest/gtest.h>

#include "tests/test_support.h"

namespace {
using gk::test::captured_log;

TEST(LogTest, BeforeAttachEveryLevelIsWritten) {
  gk::test::clear_log();
  dbg_cmdb(5, "notice %d\n", 5);
  dbg_cmdb(99, "anything\n");
  EXPECT_EQ("notice 5\nanything\n", captured_log());
}

TEST(LogTest, HeaderLevelFiltersAcrossProcesses) {
  gk::test::MiniRegion region;
  gk::test::clear_log();
  dbg_cmdb(4, "dropped\n");
  dbg_cmdb(3, "kept %s\n", "three");
  EXPECT_EQ("kept three\n", captured_log());
  // Another attached process raises the level: this one sees it at once.
  ASSERT_EQ(0, gk::test::run_child([] {
    get_cmdb_header()->log_level = 5;
    return 0;
  }));
  dbg_cmdb(5, "now kept\n");
  dbg_cmdb(6, "still dropped\n");
  EXPECT_EQ("kept three\nnow kept\n", captured_log());
}

TEST(LogTest, DebugBitWritesToStandardOutputOnly) {
  gk::test::MiniRegion region;
  gk::test::clear_log();
  cmdb.flags |= CMDB_FLAG_DEBUG;
  std::string out = gk::test::capture_stdout([] {
    dbg_cmdb(3, "to stdout %d\n", 1);
    dbg_cmdb(4, "filtered first\n");
  });
  cmdb.flags &= ~CMDB_FLAG_DEBUG;
  EXPECT_EQ("to stdout 1\n", out);
  EXPECT_EQ("", captured_log());
}

TEST(LogTest, DebugOutputIsNotLeftInTheStdioBuffer) {
  gk::test::MiniRegion region;
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  fflush(stdout);   // the child must inherit an empty buffer
  pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], 1);   // a pipe: stdio buffers it fully
    cmdb.flags |= CMDB_FLAG_DEBUG;
    dbg_cmdb(3, "last words %d\n", 7);
    _exit(0);          // no stdio flush on the way out
  }
  close(fds[1]);
  char buf[64] = {};
  ssize_t n = read(fds[0], buf, sizeof buf - 1);
  close(fds[0]);
  ASSERT_EQ(0, gk::test::wait_child(pid));
  EXPECT_EQ("last words 7\n", std::string(buf, n > 0 ? size_t(n) : 0));
}

TEST(LogTest, SandboxIsPrivate) {
  // Each test process has its own empty /dev/cmdb and IPC namespace.
  struct stat st;
  EXPECT_NE(0, ::stat("/dev/cmdb/page", &st));
  EXPECT_EQ(0, ::access("/dev/cmdb", W_OK));
}

}  // namespace
