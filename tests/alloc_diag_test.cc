// What the allocator shows a person (display, heap estimate) and what its
// verifier finds in a damaged region.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "alloc/page_map.h"
#include "tests/alloc_fixture.h"
#include "tests/test_support.h"

namespace {
using gk::test::AllocRegion;

cmdb_slab_header_t* header(uint32_t page) {
  return static_cast<cmdb_slab_header_t*>(alloc::page_map()->slot[page].addr);
}

TEST(AllocDiagTest, DisplayShowsEveryAllocatedPage) {
  AllocRegion region;
  EXPECT_EQ("   page cnt=0, page max=64.\n", gk::test::capture_stdout(cmf_slab_display_page));
  uint32_t id = 0;
  ASSERT_NE(nullptr, cmf_shm_alloc(40, &id));     // page 1, 64-byte cache
  ASSERT_NE(nullptr, cmf_shm_alloc(16384, &id));  // page 2, to be released
  for (int i = 0; i < 226; ++i) ASSERT_NE(nullptr, cmf_shm_alloc(20, &id));  // page 3, full
  ASSERT_NE(nullptr, cmf_shm_alloc(20000, &id));                              // page 4
  ASSERT_EQ(0, cmf_shm_free(CMF_SHMID(2, CMF_SHMID_LARGE)));
  EXPECT_EQ(
      "   page cnt=3, page max=64.\n"
      "slabp:cache=1,page=1,inuse=1,free=1, cache:num=120,objsize=64.\n"
      "slabp:cache=0,page=3,inuse=226,free=-1, cache:num=226,objsize=32.\n"
      "slabp:cache=-1,page=4, msize=20008.\n",
      gk::test::capture_stdout(cmf_slab_display_page));
  header(3)->cache = 42;
  EXPECT_NE(std::string::npos, gk::test::capture_stdout(cmf_slab_display_page).find("Error idx=3, size=8192.\n"));
}

TEST(AllocDiagTest, EstimateFromUsableSize) {
  const struct {
    uint32_t usable;
    int expected;
  } cases[] = {{0, 0}, {24, 16}, {131072, 131064}, {131073, 131073 - 4096 + 16}, {200000, 195920}};
  for (auto c : cases) EXPECT_EQ(c.expected, alloc::estimate_from_usable(c.usable, 4096)) << c.usable;
  EXPECT_EQ(0, estimate_malloc_size(nullptr));
}

TEST(AllocDiagTest, VerifierFindsDamage) {
  // Each case damages a region holding a partial slab of cache 1 (page 1), a
  // full slab of cache 0 (page 2) and a large block (page 3).
  const struct {
    const char* what;
    int code;
    std::function<void()> damage;
  } cases[] = {
      {"intact", 0, [] {}},
      {"page count", -4, [] { AllocRegion::table()->page_cnt += 1; }},
      {"free slot generation", -3, [] { AllocRegion::table()->slot[9].gen = 2; }},
      {"tail", -5, [] { AllocRegion::caches()->cache[1].partial.tail = 3; }},
      {"prev link", -5, [] { header(1)->prev = 2; }},
      {"partial slab without free block", -6, [] { header(1)->free = -1; }},
      {"inuse", -7, [] { header(1)->inuse = 2; }},
      {"free chain cycle", -7, [] { header(1)->next_free[5] = 1; }},
      {"slab off every list", -8, [] { AllocRegion::caches()->cache[0].full = cmdb_slab_list_t{0, 0}; }},
      {"list through itself", -9, [] { header(2)->next = 2; }},
      {"descriptor", -10, [] { AllocRegion::caches()->cache[4].num = 1000; }},
      {"page_max", -2, [] { AllocRegion::table()->page_max = 1000; }},
  };
  for (const auto& c : cases) {
    AllocRegion region;
    uint32_t id = 0;
    ASSERT_NE(nullptr, cmf_shm_alloc(40, &id));
    for (int i = 0; i < 226; ++i) ASSERT_NE(nullptr, cmf_shm_alloc(20, &id));
    ASSERT_NE(nullptr, cmf_shm_alloc(20000, &id));
    c.damage();
    gk::test::clear_log();
    EXPECT_EQ(c.code, cmf_shm_verify()) << c.what;
    EXPECT_EQ(c.code != 0, gk::test::captured_log().find("Inconsistent cmf_shm_slab,cmf_shm_verify,") == 0) << c.what;
  }
}

}  // namespace
