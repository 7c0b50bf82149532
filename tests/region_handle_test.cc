// The process handle and the shared header: version bookkeeping across processes.
#include <gtest/gtest.h>

#include <tuple>

#include "tests/test_support.h"

namespace {

TEST(RegionHandleTest, NothingMappedBeforeAttach) {
  EXPECT_EQ(nullptr, get_cmdb_header());
  EXPECT_EQ(nullptr, get_cmdb_dzone());
  EXPECT_EQ(nullptr, get_shmtree_root());
  EXPECT_EQ(static_cast<void*>(cmdb.statistics), cmf_shm_statistics());
  // Nothing to read or count without a header or debug zone: zeros, no fault.
  cmdb_save_version();
  EXPECT_EQ(std::make_tuple(0u, 0u, 0u, 0, 0u, 0u),
            std::make_tuple(cmdb_get_version(), get_cmdb_updatetime(), cmdb_get_owner(), cmdb_version_changed(),
                            set_cmdb_nxt_update(), orv_mail_mode()));
}

TEST(RegionHandleTest, VersionChangeSeenFromAnotherProcess) {
  gk::test::MiniRegion region;
  cmdb_save_version();
  EXPECT_EQ(0, cmdb_version_changed());
  EXPECT_EQ(0u, cmdb_get_version());

  pid_t writer = gk::test::start_child([] { return set_cmdb_nxt_update() == 0 ? 0 : 1; });
  ASSERT_EQ(0, gk::test::wait_child(writer));
  EXPECT_EQ(1, cmdb_version_changed());
  EXPECT_EQ(1u, cmdb_get_version());
  EXPECT_EQ(cmdb_get_version(), get_cmdb_updatetime());
  EXPECT_EQ(static_cast<uint32_t>(writer), cmdb_get_owner());

  // The returned value is the version before the increment; the counter wraps.
  get_cmdb_header()->version = 0xFFFFFFFFu;
  cmdb_save_version();
  EXPECT_EQ(0xFFFFFFFFu, set_cmdb_nxt_update());
  EXPECT_EQ(0u, cmdb_get_version());
  EXPECT_EQ(static_cast<uint32_t>(getpid()), cmdb_get_owner());
  EXPECT_EQ(1, cmdb_version_changed());
}

TEST(RegionHandleTest, MailModeCopyAndTreeRoot) {
  gk::test::MiniRegion region;
  *reinterpret_cast<uint32_t*>(static_cast<char*>(region.debug_zone) + DZ_MAIL_MODE) = 4;
  EXPECT_EQ(4u, orv_mail_mode());
  int root = 0;
  set_shmtree_root(&root);
  EXPECT_EQ(&root, get_shmtree_root());
  EXPECT_EQ(&root, cmdb.cmdb_node);
  set_shmtree_root(nullptr);
  EXPECT_EQ(static_cast<char*>(region.header_base) + 0x38, get_cmdb_stat_global());
}

}  // namespace
