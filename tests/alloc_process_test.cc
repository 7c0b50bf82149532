// An owner allocates; a reader process translates the same handles lazily and
// follows every change at its next translation.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>

#include "alloc/page_map.h"
#include "tests/alloc_fixture.h"
#include "tests/test_support.h"

namespace {
using gk::test::AllocRegion;

// Handles handed from the owner to the reader after the fork.
struct Mailbox {
  uint32_t a, b, c, d, e;
};

bool filled(const void* p, int byte, size_t n) {
  const auto* q = static_cast<const unsigned char*>(p);
  for (size_t i = 0; i < n; ++i)
    if (q[i] != byte) return false;
  return true;
}

// Reader-side check: the exit code names the failing line.
#define CHILD_CHECK(cond) \
  do {                    \
    if (!(cond)) return __LINE__ % 250 + 1; \
  } while (0)

TEST(AllocProcessTest, ReaderFollowsTheOwner) {
  AllocRegion region;
  auto* box = static_cast<Mailbox*>(
      ::mmap(nullptr, sizeof(Mailbox), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(MAP_FAILED, box);
  memset(cmf_shm_alloc(20, &box->a), 0x0A, 20);     // page 1, alone in its slab
  memset(cmf_shm_alloc(20000, &box->b), 0x0B, 20000);  // page 2
  memset(cmf_shm_alloc(100, &box->c), 0x0C, 100);   // page 3, alone in its slab
  gk::test::Signal to_reader, to_owner;

  pid_t pid = gk::test::start_child([&]() -> int {
    CHILD_CHECK(AllocRegion::attach_reader());
    CHILD_CHECK(alloc::page_map()->slot[2].addr == nullptr);  // nothing mapped before first use
    CHILD_CHECK(filled(cmf_ptr_from_shmid(box->a, 0), 0x0A, 20));
    CHILD_CHECK(filled(cmf_ptr_from_shmid(box->b, 0), 0x0B, 20000));
    CHILD_CHECK(filled(cmf_ptr_from_shmid(box->c, 0), 0x0C, 100));
    CHILD_CHECK(alloc::page_map()->slot[2].mode == 0);
    CHILD_CHECK(cmf_shm_verify() == 0);
    to_owner.post();

    // The owner freed a, put a large block on its page, moved c, grew b in place.
    CHILD_CHECK(to_reader.wait());
    CHILD_CHECK(cmf_ptr_from_shmid(box->a, 0) == nullptr);
    CHILD_CHECK(filled(cmf_ptr_from_shmid(box->e, 0), 0x0E, 20000));
    CHILD_CHECK(cmf_ptr_from_shmid(CMF_SHMID(3, 0), 0) == nullptr);
    CHILD_CHECK(alloc::page_map()->slot[3].addr == nullptr);  // the stale mapping is gone
    CHILD_CHECK(filled(cmf_ptr_from_shmid(box->c, 0), 0x0C, 100));
    auto* b = static_cast<unsigned char*>(cmf_ptr_from_shmid(box->b, 0));
    CHILD_CHECK(alloc::page_map()->slot[2].len == 40008);
    CHILD_CHECK(filled(b, 0x0B, 20000) && filled(b + 20000, 0, 19999) && b[39999] == 0xBB);
    CHILD_CHECK(cmf_shm_verify() == 0);
    to_owner.post();

    // The owner grew the table past 64 slots and filled page 70.
    CHILD_CHECK(to_reader.wait());
    CHILD_CHECK(alloc::page_map()->count == 64 && cmdb.page_map_len == 520);
    CHILD_CHECK(filled(cmf_ptr_from_shmid(box->d, 0), 0x0D, 16384));
    CHILD_CHECK(alloc::page_map()->count == 128 && cmdb.page_map_len == 1032);
    CHILD_CHECK(cmf_shm_verify() == 0);
    return 0;
  });
  ASSERT_TRUE(to_owner.wait());

  ASSERT_EQ(0, cmf_shm_free(box->a));
  memset(cmf_shm_alloc(20000, &box->e), 0x0E, 20000);
  ASSERT_EQ(CMF_SHMID(1, CMF_SHMID_LARGE), box->e);  // a's page number, a new page
  ASSERT_NE(nullptr, cmf_shm_realloc(cmf_ptr_from_shmid(box->c, 1), 200, &box->c, -1));
  auto* b = static_cast<unsigned char*>(cmf_shm_realloc(cmf_ptr_from_shmid(box->b, 1), 40000, &box->b, -1));
  ASSERT_NE(nullptr, b);
  b[39999] = 0xBB;
  to_reader.post();
  ASSERT_TRUE(to_owner.wait());

  uint32_t id = 0;
  while (AllocRegion::table()->page_cnt < 69) ASSERT_NE(nullptr, cmf_shm_alloc(16384, &id));
  memset(cmf_shm_alloc(16384, &box->d), 0x0D, 16384);
  ASSERT_EQ(70u, CMF_SHMID_PAGE(box->d));
  to_reader.post();
  EXPECT_EQ(0, gk::test::wait_child(pid));
  ::munmap(box, sizeof(Mailbox));
}

TEST(AllocProcessTest, ReaderThatCannotRemapTheTableRecoversLater) {
  AllocRegion region;
  uint32_t id = 0;
  gk::test::Signal to_reader, to_owner;
  auto* box = static_cast<Mailbox*>(
      ::mmap(nullptr, sizeof(Mailbox), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(MAP_FAILED, box);
  pid_t pid = gk::test::start_child([&]() -> int {
    CHILD_CHECK(AllocRegion::attach_reader());
    to_owner.post();
    CHILD_CHECK(to_reader.wait());
    // The grown table is out of reach for a moment: no dangling base is kept.
    CHILD_CHECK(::rename("/dev/cmdb/page", "/dev/cmdb/page.away") == 0);
    CHILD_CHECK(cmf_ptr_from_shmid(box->d, 0) == nullptr);
    CHILD_CHECK(cmdb.page == nullptr && cmdb.page_map_len == 0);
    CHILD_CHECK(cmf_ptr_from_shmid(CMF_SHMID(1, CMF_SHMID_LARGE), 0) == nullptr);
    CHILD_CHECK(::rename("/dev/cmdb/page.away", "/dev/cmdb/page") == 0);
    CHILD_CHECK(filled(cmf_ptr_from_shmid(box->d, 0), 0x0D, 16384));
    CHILD_CHECK(cmdb.page_map_len == 1032);
    return 0;
  });
  ASSERT_TRUE(to_owner.wait());
  while (AllocRegion::table()->page_cnt < 69) ASSERT_NE(nullptr, cmf_shm_alloc(16384, &id));
  memset(cmf_shm_alloc(16384, &box->d), 0x0D, 16384);
  to_reader.post();
  EXPECT_EQ(0, gk::test::wait_child(pid));
  ::munmap(box, sizeof(Mailbox));
}

}  // namespace
