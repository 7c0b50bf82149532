// Pages, handles and slab caches in one owner process.
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

#include "alloc/page_map.h"
#include "tests/alloc_fixture.h"
#include "tests/test_support.h"

namespace {
using gk::test::AllocRegion;
using gk::test::captured_log;

off_t file_size(const std::string& name) {
  struct stat st;
  return ::stat(("/dev/cmdb/" + name).c_str(), &st) == 0 ? st.st_size : -1;
}
alloc::PageMapSlot& own_slot(uint32_t page) { return alloc::page_map()->slot[page]; }
bool all_zero(const void* p, size_t n) {
  const auto* b = static_cast<const unsigned char*>(p);
  for (size_t i = 0; i < n; ++i)
    if (b[i] != 0) return false;
  return true;
}
cmdb_slab_cache_t& cache(int c) { return AllocRegion::caches()->cache[c]; }

TEST(AllocTest, CacheIndexBoundaries) {
  const std::pair<uint32_t, int> cases[] = {{0, 0},    {31, 0},    {32, 1},    {100, 2},         {8191, 8},
                                            {8192, 9}, {16383, 9}, {16384, -1}, {0xFFFFFFFF, -1}};
  for (auto [size, idx] : cases) EXPECT_EQ(idx, cmdb_find_cache_idx(size)) << "unattached, size " << size;
  AllocRegion region;
  for (auto [size, idx] : cases) EXPECT_EQ(idx, cmdb_find_cache_idx(size)) << "attached, size " << size;
}

TEST(AllocTest, SlabFillsThenTakesANewPage) {
  AllocRegion region;
  uint32_t id = 0;
  auto* first = static_cast<char*>(cmf_shm_alloc(20, &id));
  ASSERT_NE(nullptr, first);
  EXPECT_EQ(65536u, id);
  EXPECT_EQ(1, AllocRegion::table()->page_cnt);
  EXPECT_EQ(8192, file_size("1"));
  EXPECT_EQ(static_cast<char*>(own_slot(1).addr) + 928, first);  // 24 + 4 * 226
  for (uint32_t b = 1; b < 226; ++b) {
    ASSERT_NE(nullptr, cmf_shm_alloc(20, &id));
    ASSERT_EQ(CMF_SHMID(1, b), id);
  }
  EXPECT_EQ(first + 32, cmf_ptr_from_shmid(CMF_SHMID(1, 1), 0));
  ASSERT_NE(nullptr, cmf_shm_alloc(20, &id));
  EXPECT_EQ(CMF_SHMID(2, 0), id);
  EXPECT_EQ(1u, cache(0).full.head);
  EXPECT_EQ(1u, cache(0).full.tail);
  EXPECT_EQ(2u, cache(0).partial.head);
  EXPECT_EQ(-1, static_cast<cmdb_slab_header_t*>(own_slot(1).addr)->free);
  EXPECT_EQ(0, cmf_shm_verify());
}

TEST(AllocTest, FreedBlockOfFullSlabIsHandedOutNextZeroFilled) {
  AllocRegion region;
  uint32_t id = 0;
  for (int i = 0; i < 227; ++i) ASSERT_NE(nullptr, cmf_shm_alloc(20, &id));  // page 1 full, page 2 partial
  auto* victim = static_cast<char*>(cmf_ptr_from_shmid(CMF_SHMID(1, 17), 1));
  memset(victim, 0xAB, 32);
  EXPECT_EQ(0, cmf_shm_free(CMF_SHMID(1, 17)));
  EXPECT_EQ(1u, cache(0).partial.head);
  EXPECT_EQ(2u, cache(0).partial.tail);
  EXPECT_EQ(0u, cache(0).full.head);
  EXPECT_EQ(victim, cmf_shm_alloc(20, &id));
  EXPECT_EQ(CMF_SHMID(1, 17), id);
  EXPECT_TRUE(all_zero(victim, 32));
  EXPECT_EQ(0, cmf_shm_verify());
}

TEST(AllocTest, LastFreeReleasesThePage) {
  AllocRegion region;
  uint32_t ids[3];
  for (uint32_t& id : ids) ASSERT_NE(nullptr, cmf_shm_alloc(100, &id));
  for (uint32_t id : ids) {
    EXPECT_EQ(32768, file_size("1"));
    EXPECT_EQ(0, cmf_shm_free(id));
  }
  EXPECT_EQ(-1, file_size("1"));
  EXPECT_EQ(0, AllocRegion::table()->page_cnt);
  EXPECT_EQ((cmdb_page_slot_t{3, -1}.gen), AllocRegion::table()->slot[1].gen);
  EXPECT_EQ(0u, cache(2).partial.head | cache(2).partial.tail | cache(2).full.head);
  EXPECT_EQ(nullptr, own_slot(1).addr);
}

TEST(AllocTest, TranslationRefusesWhatIsNotThere) {
  EXPECT_EQ(nullptr, cmf_ptr_from_shmid(65536, 0));  // nothing attached
  AllocRegion region;
  uint32_t id = 0;
  ASSERT_NE(nullptr, cmf_shm_alloc(20, &id));
  gk::test::clear_log();
  for (int write : {0, 1}) EXPECT_EQ(nullptr, cmf_ptr_from_shmid(0, write));
  EXPECT_EQ("", captured_log());
  EXPECT_EQ(nullptr, cmf_ptr_from_shmid(CMF_SHMID(1, 226), 0));  // block beyond num
  EXPECT_EQ(nullptr, cmf_ptr_from_shmid(CMF_SHMID(64, 0), 0));   // page beyond the table
  EXPECT_EQ(0u, captured_log().find("Error cmf_shm_slab,cmf_update_page,"));
  EXPECT_EQ(-1, alloc::__cmf_free_page(200));
  EXPECT_EQ(-1, alloc::__cmf_free_page(3));  // inside the table but free
  EXPECT_NE(std::string::npos, captured_log().find(",__cmf_free_page,"));
  EXPECT_NE(std::string::npos, captured_log().find(". page_idx=200,64,64\n"));
  EXPECT_EQ(1, AllocRegion::table()->page_cnt);
  auto* h = static_cast<cmdb_slab_header_t*>(own_slot(1).addr);
  for (int32_t bad : {10, -2, 1 << 30}) {
    h->cache = bad;
    EXPECT_EQ(nullptr, cmf_ptr_from_shmid(id, 0)) << bad;
  }
}

TEST(AllocTest, ReadMappingIsReplacedForWriting) {
  AllocRegion region;
  uint32_t id = 0;
  ASSERT_NE(nullptr, cmf_shm_alloc(20, &id));
  alloc::page_map_init(nullptr);  // forget this process's mappings
  void* r = cmf_ptr_from_shmid(id, 0);
  ASSERT_NE(nullptr, r);
  EXPECT_EQ(0u, own_slot(1).mode);
  void* w = cmf_ptr_from_shmid(id, 1);
  ASSERT_NE(nullptr, w);
  EXPECT_EQ(1u, own_slot(1).mode);
  EXPECT_EQ(w, cmf_ptr_from_shmid(id, 0));  // the write mapping serves reads
  EXPECT_EQ(1u, own_slot(1).mode);
}

TEST(AllocTest, LargeBlocksOwnTheirPagesAndPageNumbersAreReused) {
  AllocRegion region;
  uint32_t ids[10];
  for (uint32_t& id : ids) ASSERT_NE(nullptr, cmf_shm_alloc(20000, &id));
  EXPECT_EQ(CMF_SHMID(5, CMF_SHMID_LARGE), ids[4]);
  auto* p = static_cast<char*>(cmf_ptr_from_shmid(ids[4], 1));
  EXPECT_EQ(static_cast<char*>(own_slot(5).addr) + 8, p);
  EXPECT_EQ(20008, AllocRegion::table()->slot[5].size);
  EXPECT_EQ(20008, file_size("5"));
  EXPECT_TRUE(all_zero(p, 20000));
  memset(p, 0x5A, 20000);
  const uint32_t gen = AllocRegion::table()->slot[5].gen;
  EXPECT_EQ(0, cmf_shm_free(ids[4]));
  EXPECT_EQ(-1, file_size("5"));
  uint32_t id = 0;
  p = static_cast<char*>(cmf_shm_alloc(20000, &id));
  EXPECT_EQ(ids[4], id);
  EXPECT_EQ(gen + 2, AllocRegion::table()->slot[5].gen);
  EXPECT_TRUE(all_zero(p, 20000));
}

TEST(AllocTest, TableGrowsBySixtyFourSlots) {
  AllocRegion region;
  cmdb.page_map_len = 0;  // a mapping recorded without its length counts as the table's
  uint32_t id = 0;
  for (int i = 1; i <= 63; ++i) ASSERT_NE(nullptr, cmf_shm_alloc(16384, &id));
  EXPECT_EQ(520, cmdb.page_map_len);
  EXPECT_EQ(520, file_size("page"));
  ASSERT_NE(nullptr, cmf_shm_alloc(16384, &id));
  EXPECT_EQ(CMF_SHMID(64, CMF_SHMID_LARGE), id);
  EXPECT_EQ(1032, file_size("page"));
  EXPECT_EQ(1032, cmdb.page_map_len);
  EXPECT_EQ(128, AllocRegion::table()->page_max);
  EXPECT_EQ(128, alloc::page_map()->count);
  EXPECT_EQ((cmdb_page_slot_t{1, -1}.size), AllocRegion::table()->slot[127].size);
  EXPECT_EQ(0, cmf_shm_verify());
}

TEST(AllocTest, PageNumbersStopAtTheHandleLimit) {
  AllocRegion region;
  // 65536 slots with every page from 1 up taken (the files are not needed).
  ASSERT_EQ(0, ::truncate("/dev/cmdb/page", alloc::table_bytes(65536)));
  ASSERT_TRUE(AllocRegion::reattach(true));
  cmdb_page_table_t* t = AllocRegion::table();
  t->page_max = 65536;
  for (int i = 1; i < 65536; ++i) t->slot[i] = cmdb_page_slot_t{2, 16};
  t->page_cnt = 65535;
  uint32_t id = 7;
  gk::test::clear_log();
  EXPECT_EQ(nullptr, cmf_shm_alloc(20000, &id));
  EXPECT_EQ(7u, id);
  EXPECT_EQ(65536, t->page_max);
  EXPECT_EQ(alloc::table_bytes(65536), file_size("page"));
  EXPECT_NE(std::string::npos, captured_log().find("No memory, cmf_shm_slab,__cmf_shm_alloc,"));
  t->slot[65535] = cmdb_page_slot_t{3, -1};
  t->page_cnt = 65534;
  ASSERT_NE(nullptr, cmf_shm_alloc(20000, &id));
  EXPECT_EQ(0xFFFFFFFFu, id);
}

TEST(AllocTest, ListedPageWithoutItsFileEndsTheProcess) {
  AllocRegion region;
  uint32_t id = 0;
  ASSERT_NE(nullptr, cmf_shm_alloc(20, &id));
  // Without the cache table a slab block has no layout to be found by.
  EXPECT_EQ(128 + SIGABRT, gk::test::run_child([id] {
    cmdb.slab_caches = nullptr;
    cmf_ptr_from_shmid(id, 0);
    return 0;
  }));
  ASSERT_EQ(0, cmdb_shm_remove("1"));
  EXPECT_EQ(128 + SIGABRT, gk::test::run_child([id] {
    alloc::page_map_init(nullptr);
    cmf_ptr_from_shmid(id, 0);
    return 0;
  }));
}

TEST(AllocTest, FreeOfNothingChangesNothing) {
  AllocRegion region;
  uint32_t id = 0;
  ASSERT_NE(nullptr, cmf_shm_alloc(20, &id));
  for (uint32_t bad : {0u, CMF_SHMID(1, 300), CMF_SHMID(9, 0), CMF_SHMID(500, 0)}) {
    gk::test::clear_log();
    EXPECT_EQ(0, cmf_shm_free(bad));
    EXPECT_NE(std::string::npos, captured_log().find("Critical error cmf_shm_slab,cmf_shm_free,")) << bad;
  }
  EXPECT_EQ(1u, static_cast<cmdb_slab_header_t*>(own_slot(1).addr)->inuse);
  EXPECT_EQ(0, cmf_shm_verify());
}

TEST(AllocTest, ReallocMovesSlabBlocks) {
  AllocRegion region;
  uint32_t id = 0;
  auto* p = static_cast<unsigned char*>(cmf_shm_alloc(40, &id));
  for (int i = 0; i < 64; ++i) p[i] = static_cast<unsigned char>(i + 1);
  const uint32_t old_id = id;
  auto* q = static_cast<unsigned char*>(cmf_shm_realloc(p, 50, &id, -1));
  ASSERT_NE(nullptr, q);
  EXPECT_NE(old_id, id);
  EXPECT_EQ(CMF_SHMID(1, 1), id);  // same cache, next block of the same slab
  for (int i = 0; i < 64; ++i) ASSERT_EQ(i < 50 ? i + 1 : 0, q[i]) << i;
  EXPECT_TRUE(all_zero(cmf_ptr_from_shmid(old_id, 0), 64));
  EXPECT_EQ(0, cmf_shm_verify());
}

TEST(AllocTest, ReallocOfLargeBlocks) {
  AllocRegion region;
  uint32_t id = 0;
  auto* p = static_cast<unsigned char*>(cmf_shm_alloc(20000, &id));
  memset(p, 0x11, 20000);
  const uint32_t gen = AllocRegion::table()->slot[1].gen;
  auto* q = static_cast<unsigned char*>(cmf_shm_realloc(p, 30000, &id, -1));  // stays large: in place
  ASSERT_NE(nullptr, q);
  EXPECT_EQ(CMF_SHMID(1, CMF_SHMID_LARGE), id);
  EXPECT_EQ(static_cast<unsigned char*>(own_slot(1).addr) + 8, q);
  EXPECT_EQ(30008, AllocRegion::table()->slot[1].size);
  EXPECT_EQ(gen, AllocRegion::table()->slot[1].gen);
  EXPECT_EQ(30008, file_size("1"));
  EXPECT_EQ(0x11, q[19999]);
  EXPECT_TRUE(all_zero(q + 20000, 10000));

  auto* r = static_cast<unsigned char*>(cmf_shm_realloc(q, 100, &id, -1));  // into the 128-byte cache
  ASSERT_NE(nullptr, r);
  EXPECT_EQ(2, cmdb_find_cache_idx(100));
  EXPECT_EQ(2u, cache(2).partial.head);
  EXPECT_EQ(CMF_SHMID(2, 0), id);
  EXPECT_EQ(0x11, r[99]);
  EXPECT_EQ(0, r[100]);
  EXPECT_EQ(-1, file_size("1"));
  EXPECT_EQ(0, cmf_shm_verify());
}

TEST(AllocTest, ReallocEdges) {
  AllocRegion region;
  gk::test::clear_log();
  EXPECT_EQ(nullptr, cmf_shm_realloc(nullptr, 10, nullptr, -1));
  EXPECT_NE(std::string::npos, captured_log().find("Critical error cmf_shm_slab,cmf_shm_realloc,"));
  uint32_t id = 0;  // no block yet: a fresh one
  void* p = cmf_shm_realloc(nullptr, 10, &id, -1);
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(65536u, id);
  // When the new block cannot be had, the old one and its handle stay.
  cache(0).partial.head = 40;
  gk::test::clear_log();
  EXPECT_EQ(nullptr, cmf_shm_realloc(p, 20, &id, -1));
  EXPECT_EQ(65536u, id);
  EXPECT_NE(std::string::npos, captured_log().find(", page_idx=40\n"));
}

TEST(AllocTest, LocatorRecordsFollowAMove) {
  AllocRegion region;
  uint32_t loc_id = 0, id = 0, other = 0;
  auto* loc = static_cast<cmdb_locator_block_t*>(cmf_shm_alloc(268, &loc_id));
  void* p = cmf_shm_alloc(40, &id);
  ASSERT_NE(nullptr, cmf_shm_alloc(40, &other));
  *loc = cmdb_locator_block_t{6, 3, 16};
  loc->rec[0].shmid = id;
  loc->rec[1].shmid = other;
  loc->rec[2].shmid = id;
  loc->rec[3].shmid = id;  // beyond count: not a record
  cmdb.index_roots[1 + 2] = loc_id;
  const uint32_t old_id = id;
  p = cmf_shm_realloc(p, 50, &id, 1);  // another group's locator: untouched
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(old_id, loc->rec[0].shmid);
  const uint32_t mid_id = id;
  for (int r : {0, 2, 3}) loc->rec[r].shmid = mid_id;
  ASSERT_NE(nullptr, cmf_shm_realloc(p, 60, &id, 2));
  const uint32_t expect[] = {id, other, id, mid_id};
  for (int r = 0; r < 4; ++r) EXPECT_EQ(expect[r], loc->rec[r].shmid) << r;
}

}  // namespace
