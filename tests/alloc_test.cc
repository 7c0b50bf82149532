// Pages, handles and slab caches in an owner process, what the allocator shows
// a person and what its verifier finds, a random run against a model, and a
// reader process that translates the owner's handles lazily; the files in
// /dev/cmdb behind them: open flags, failures and the directory listing they log.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "alloc/page_map.h"
#include "tests/alloc_fixture.h"
#include "tests/test_support.h"

namespace {
using gk::test::AllocRegion;
using gk::test::captured_log;
using gk::test::logged;

long file_size(const std::string& name) { return gk::test::file_size("/dev/cmdb/" + name); }
alloc::PageMapSlot& own_slot(uint32_t page) { return alloc::page_map()->slot[page]; }
cmdb_slab_header_t* header(uint32_t page) { return static_cast<cmdb_slab_header_t*>(own_slot(page).addr); }
bool all_zero(const void* p, size_t n) {
  const auto* b = static_cast<const unsigned char*>(p);
  return std::all_of(b, b + n, [](unsigned char c) { return c == 0; });
}
cmdb_slab_cache_t& cache(int c) { return AllocRegion::caches()->cache[c]; }

// A slab fills, the next block takes a new page, a block freed from the full
// slab comes back first and zero-filled, and the last free releases the page.
TEST(AllocTest, SlabLifecycle) {
  auto cache_index_boundaries = [] {  // by the static sizes unattached, by the shared table attached
    for (auto [size, idx] : {std::pair{0u, 0}, {31u, 0}, {32u, 1}, {8192u, 9}, {16383u, 9}, {16384u, -1}, {~0u, -1}})
      EXPECT_EQ(idx, cmdb_find_cache_idx(size)) << size;
  };
  cache_index_boundaries();
  AllocRegion region;
  cache_index_boundaries();
  uint32_t id = 0;
  auto* first = static_cast<char*>(cmf_shm_alloc(20, &id));
  EXPECT_EQ(std::tuple(static_cast<char*>(own_slot(1).addr) + 928, 8192L), std::tuple(first, file_size("1")));  // 24 + 4 * 226
  for (uint32_t b = 1; b < 226; ++b) ASSERT_NE(nullptr, cmf_shm_alloc(20, &id));
  EXPECT_EQ(CMF_SHMID(1, 225), id);
  EXPECT_EQ(first + 32, cmf_ptr_from_shmid(CMF_SHMID(1, 1), 0));
  ASSERT_NE(nullptr, cmf_shm_alloc(20, &id));
  EXPECT_EQ(std::tuple(CMF_SHMID(2, 0), 1u, 2u), std::tuple(id, cache(0).full.head, cache(0).partial.head));
  auto* victim = static_cast<char*>(cmf_ptr_from_shmid(CMF_SHMID(1, 17), 1));
  memset(victim, 0xAB, 32);
  EXPECT_EQ(0, cmf_shm_free(CMF_SHMID(1, 17)));
  EXPECT_EQ(std::tuple(1u, 0u), std::tuple(cache(0).partial.head, cache(0).full.head));
  EXPECT_EQ(victim, cmf_shm_alloc(20, &id));
  EXPECT_EQ(CMF_SHMID(1, 17), id);
  EXPECT_TRUE(all_zero(victim, 32));
  uint32_t ids[3];
  for (uint32_t& i : ids) ASSERT_NE(nullptr, cmf_shm_alloc(100, &i));
  for (uint32_t i : ids) EXPECT_EQ(0, cmf_shm_free(i));
  EXPECT_TRUE(gk::test::mappings_of("/dev/cmdb/3").empty());  // the owner's own mapping goes too
  EXPECT_EQ(std::tuple(-1L, 2, cmdb_page_slot_t{3, -1}.gen, 0u, static_cast<void*>(nullptr), 0),
            std::tuple(file_size("3"), AllocRegion::table()->page_cnt, AllocRegion::table()->slot[3].gen,
                       cache(2).partial.head | cache(2).full.head, own_slot(3).addr, cmf_shm_verify()));
}

TEST(AllocTest, BadHandlesAreRefusedOrEndTheProcess) {
  EXPECT_EQ(std::tuple(nullptr, -1), std::tuple(cmf_ptr_from_shmid(65536, 0), cmf_shm_verify()));  // nothing attached
  AllocRegion region;
  uint32_t id = 0;
  ASSERT_NE(nullptr, cmf_shm_alloc(20, &id));
  gk::test::clear_log();
  EXPECT_EQ(nullptr, cmf_ptr_from_shmid(0, 1));
  EXPECT_EQ("", captured_log());  // handle 0 is "none", quietly
  EXPECT_EQ(nullptr, cmf_ptr_from_shmid(CMF_SHMID(1, 226), 0));  // block beyond num
  EXPECT_EQ(nullptr, cmf_ptr_from_shmid(CMF_SHMID(64, 0), 0));   // page beyond the table
  EXPECT_EQ(-1, alloc::size_from_shmid(CMF_SHMID(50, 0)));       // a page not in use
  EXPECT_EQ(0u, captured_log().find("Error cmf_shm_slab,cmf_update_page,"));
  EXPECT_EQ(std::tuple(-1, -1), (std::tuple{alloc::free_page(200), alloc::free_page(3)}));  // the second: free
  EXPECT_TRUE(logged(",__cmf_free_page,") && logged(". page_idx=200,64,64\n"));
  for (uint32_t bad : {0u, CMF_SHMID(1, 300), CMF_SHMID(9, 0), CMF_SHMID(500, 0)}) {
    gk::test::clear_log();
    EXPECT_EQ(0, cmf_shm_free(bad));
    EXPECT_TRUE(logged("Critical error cmf_shm_slab,cmf_shm_free,")) << bad;
  }
  EXPECT_EQ(1u, header(1)->inuse);
  for (int32_t bad : {10, -2, 1 << 30}) {  // a slab header naming no cache: neither translated nor sized
    header(1)->cache = bad;
    EXPECT_EQ(nullptr, cmf_ptr_from_shmid(id, 0)) << bad;
    EXPECT_EQ(-1, alloc::size_from_shmid(id)) << bad;
  }
  header(1)->cache = 0;
  // Without the cache table, or with a listed page's file gone, the process ends.
  EXPECT_EQ(128 + SIGABRT, gk::test::run_child([id] { return cmdb.slab_caches = nullptr, cmf_ptr_from_shmid(id, 0), 0; }));
  ASSERT_EQ(0, cmdb_shm_remove("1"));
  EXPECT_EQ(128 + SIGABRT, gk::test::run_child([id] { return alloc::page_map_init(nullptr), cmf_ptr_from_shmid(id, 0), 0; }));
}

// Large blocks own their pages and reuse page numbers; the table grows by 64
// slots, and allocation stops at the handle limit.
TEST(AllocTest, LargeBlocksAndThePageTable) {
  AllocRegion region;
  cmdb.page_map_len = 0;  // a mapping recorded without its length counts as the table's
  uint32_t ids[10];
  for (uint32_t& id : ids) ASSERT_NE(nullptr, cmf_shm_alloc(20000, &id));
  auto* p = static_cast<char*>(cmf_ptr_from_shmid(ids[4], 1));
  EXPECT_EQ(std::tuple(CMF_SHMID(5, CMF_SHMID_LARGE), static_cast<char*>(own_slot(5).addr) + 8, 20008L),
            std::tuple(ids[4], p, file_size("5")));
  memset(p, 0x5A, 20000);
  const uint32_t gen = AllocRegion::table()->slot[5].gen;
  EXPECT_EQ(0, cmf_shm_free(ids[4]));
  EXPECT_EQ(-1, file_size("5"));
  uint32_t id = 0;
  p = static_cast<char*>(cmf_shm_alloc(20000, &id));
  EXPECT_EQ(std::tuple(ids[4], gen + 2, true), std::tuple(id, AllocRegion::table()->slot[5].gen, all_zero(p, 20000)));
  for (int i = 11; i <= 63; ++i) ASSERT_NE(nullptr, cmf_shm_alloc(16384, &id));
  EXPECT_EQ(520, cmdb.page_map_len);
  ASSERT_NE(nullptr, cmf_shm_alloc(16384, &id));
  EXPECT_EQ(std::tuple(CMF_SHMID(64, CMF_SHMID_LARGE), 1032L, 1032, 128, cmdb_page_slot_t{1, -1}.size, 0),
            std::tuple(id, file_size("page"), cmdb.page_map_len, alloc::page_map()->count,
                       AllocRegion::table()->slot[127].size, cmf_shm_verify()));
  // 65536 slots with every page from 1 up taken (the files are not needed).
  ASSERT_EQ(0, ::truncate("/dev/cmdb/page", alloc::table_bytes(65536)));
  ASSERT_TRUE(AllocRegion::reattach(true));
  cmdb_page_table_t* t = AllocRegion::table();
  t->page_max = 65536;
  for (int i = 1; i < 65536; ++i) t->slot[i] = cmdb_page_slot_t{2, 16};
  t->page_cnt = 65535;
  id = 7;
  gk::test::clear_log();
  EXPECT_EQ(nullptr, cmf_shm_alloc(20000, &id));
  EXPECT_EQ(std::tuple(7u, long(alloc::table_bytes(65536))), std::tuple(id, file_size("page")));
  EXPECT_TRUE(logged("No memory, cmf_shm_slab,__cmf_shm_alloc,"));
  t->slot[65535] = cmdb_page_slot_t{3, -1};
  t->page_cnt = 65534;
  ASSERT_NE(nullptr, cmf_shm_alloc(20000, &id));
  EXPECT_EQ(0xFFFFFFFFu, id);
}

TEST(AllocTest, Realloc) {
  AllocRegion region;
  uint32_t id = 0;
  auto* p = static_cast<unsigned char*>(cmf_shm_alloc(40, &id));
  for (int i = 0; i < 64; ++i) p[i] = static_cast<unsigned char>(i + 1);
  const uint32_t old_id = id;
  auto* q = static_cast<unsigned char*>(cmf_shm_realloc(p, 50, &id, -1));
  EXPECT_EQ(CMF_SHMID(1, 1), id);  // same cache, next block of the same slab
  for (int i = 0; i < 64; ++i) ASSERT_EQ(i < 50 ? i + 1 : 0, q[i]) << i;
  EXPECT_TRUE(all_zero(cmf_ptr_from_shmid(old_id, 0), 64));
  p = static_cast<unsigned char*>(cmf_shm_alloc(20000, &id));  // page 2
  memset(p, 0x11, 20000);
  const uint32_t gen = AllocRegion::table()->slot[2].gen;
  q = static_cast<unsigned char*>(cmf_shm_realloc(p, 30000, &id, -1));  // stays large: in place
  EXPECT_EQ(std::tuple(CMF_SHMID(2, CMF_SHMID_LARGE), static_cast<unsigned char*>(own_slot(2).addr) + 8, gen, 30008L),
            std::tuple(id, q, AllocRegion::table()->slot[2].gen, file_size("2")));
  EXPECT_TRUE(q[19999] == 0x11 && all_zero(q + 20000, 10000));
  auto* r = static_cast<unsigned char*>(cmf_shm_realloc(q, 100, &id, -1));  // into the 128-byte cache
  // The new block is had before the old one goes.
  EXPECT_EQ(std::tuple(CMF_SHMID(3, 0), -1L, true, 0), std::tuple(id, file_size("2"), r[99] == 0x11 && r[100] == 0,
                                                                 cmf_shm_verify()));
  gk::test::clear_log();
  EXPECT_EQ(nullptr, cmf_shm_realloc(nullptr, 10, nullptr, -1));
  EXPECT_TRUE(logged("Critical error cmf_shm_slab,cmf_shm_realloc,"));
  id = 0;  // no block yet: a fresh one
  p = static_cast<unsigned char*>(cmf_shm_realloc(nullptr, 10, &id, -1));
  ASSERT_NE(nullptr, p);
  const uint32_t kept = id;  // when the new block cannot be had, the old one and its handle stay
  cache(0).partial.head = 40;
  EXPECT_EQ(nullptr, cmf_shm_realloc(p, 20, &id, -1));
  EXPECT_TRUE(kept == id && logged(", page_idx=40\n"));
}

// A moved block's handle is rewritten in the locator block of its entry group,
// in whole records up to the count, and never past the end of that block.
TEST(AllocTest, LocatorRecordsFollowAMove) {
  AllocRegion region;
  constexpr uint32_t kLarge = 1100;  // records of a large block with 12 bytes past its last whole record
  uint32_t small_id = 0, large_id = 0, id = 0, other = 0;
  auto* small = static_cast<cmdb_locator_block_t*>(cmf_shm_alloc(268, &small_id));
  auto* large = static_cast<cmdb_locator_block_t*>(cmf_shm_alloc(12 + 16 * kLarge + 12, &large_id));
  void* p = cmf_shm_alloc(40, &id);
  ASSERT_NE(nullptr, cmf_shm_alloc(40, &other));
  *small = cmdb_locator_block_t{6, 3, 16};
  *large = cmdb_locator_block_t{6, kLarge + 1, kLarge + 1};  // a count past the block
  small->rec[0].shmid = small->rec[2].shmid = small->rec[3].shmid = id;  // rec 3 is beyond the count
  small->rec[1].shmid = other;
  cmdb.index_roots[1 + 2] = small_id;
  cmdb.index_roots[1 + 3] = large_id;
  const uint32_t old_id = id;
  p = cmf_shm_realloc(p, 50, &id, 1);  // a group without a locator: nothing rewritten
  EXPECT_EQ(old_id, small->rec[0].shmid);
  const uint32_t mid_id = id;
  for (int r : {0, 2, 3}) small->rec[r].shmid = mid_id;
  p = cmf_shm_realloc(p, 60, &id, 2);
  const uint32_t expect[] = {id, other, id, mid_id};
  for (int r = 0; r < 4; ++r) EXPECT_EQ(expect[r], small->rec[r].shmid) << r;
  const uint32_t before = large->rec[0].shmid = large->rec[kLarge].shmid = id;
  ASSERT_NE(nullptr, cmf_shm_realloc(p, 70, &id, 3));
  EXPECT_EQ(id, large->rec[0].shmid);
  EXPECT_EQ(before, large->rec[kLarge].shmid);
}

TEST(AllocTest, DisplayEstimateAndVerifier) {
  const std::pair<uint32_t, int> usable[] = {{0, 0}, {24, 16}, {131072, 131064}, {131073, 126993}, {200000, 195920}};
  for (auto [bytes, want] : usable) EXPECT_EQ(want, alloc::estimate_from_usable(bytes, 4096)) << bytes;
  EXPECT_EQ(0, estimate_malloc_size(nullptr));
  // Each case damages a region holding a partial slab of cache 1 (page 1), a
  // full slab of cache 0 (page 2) and a large block (page 3).
  const struct { const char* what; int code; std::function<void()> damage; } cases[] = {
      {"intact", 0, [] {}},
      {"page count", -4, [] { AllocRegion::table()->page_cnt += 1; }},
      {"free slot generation", -3, [] { AllocRegion::table()->slot[9].gen = 2; }},
      {"large page smaller than a slab object", -3, [] { AllocRegion::table()->slot[3].size = 16000; }},
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
    if (c.code == 0) {  // what `cmdbctl pages --raw` prints
      EXPECT_EQ("   page cnt=3, page max=64.\n"
                "slabp:cache=1,page=1,inuse=1,free=1, cache:num=120,objsize=64.\n"
                "slabp:cache=0,page=2,inuse=226,free=-1, cache:num=226,objsize=32.\n"
                "slabp:cache=-1,page=3, msize=20008.\n",
                gk::test::capture_stdout(cmf_slab_display_page));
    }
    c.damage();
    gk::test::clear_log();
    EXPECT_EQ(c.code, cmf_shm_verify()) << c.what;
    EXPECT_EQ(c.code != 0, captured_log().find("Inconsistent cmf_shm_slab,cmf_shm_verify,") == 0) << c.what;
  }
}

// Sizes across every cache and large blocks up to 300000 bytes, small ones most often.
uint32_t random_size(std::mt19937& rng) {
  const uint32_t r = rng() % 100;
  return r < 60 ? rng() % 300 : r < 92 ? rng() % 16384 : 16384 + rng() % (300000 - 16384 + 1);
}

// Random allocations, frees and resizes; every live block is checked against
// the bytes it must hold after each step.
TEST(AllocTest, RandomOperationsAgainstAModel) {
  AllocRegion region;
  std::mt19937 rng(20240611);
  struct Block { uint32_t id; std::vector<unsigned char> bytes; };
  std::vector<Block> live;
  auto scribble = [&](Block& b, void* p) {
    if (b.bytes.empty()) return;
    const size_t from = rng() % b.bytes.size(), n = std::min<size_t>(b.bytes.size() - from, 1 + rng() % 64);
    for (size_t i = from; i < from + n; ++i) b.bytes[i] = static_cast<unsigned char>(rng() | 1);
    memcpy(static_cast<unsigned char*>(p) + from, b.bytes.data() + from, n);
  };
  for (int step = 0; step < 10000; ++step) {
    const uint32_t op = rng() % 10;
    if (live.empty() || (op < 4 && live.size() < 96)) {
      Block b{0, std::vector<unsigned char>(random_size(rng))};
      void* p = cmf_shm_alloc(static_cast<uint32_t>(b.bytes.size()), &b.id);
      ASSERT_TRUE(p != nullptr && all_zero(p, b.bytes.size())) << "new block at step " << step;
      scribble(b, p);
      live.push_back(std::move(b));
    } else if (op < 7) {
      const size_t k = rng() % live.size();
      ASSERT_GE(cmf_shm_free(live[k].id), 0) << step;
      live[k] = std::move(live.back());
      live.pop_back();
    } else {
      Block& b = live[rng() % live.size()];
      const uint32_t size = random_size(rng);
      void* p = cmf_shm_realloc(cmf_ptr_from_shmid(b.id, 1), size, &b.id, -1);
      ASSERT_NE(nullptr, p) << step;
      b.bytes.resize(size, 0);  // what grows reads as zeros
      scribble(b, p);
    }
    for (const Block& b : live) {
      const void* p = cmf_ptr_from_shmid(b.id, 0);
      ASSERT_TRUE(p != nullptr && (b.bytes.empty() || memcmp(p, b.bytes.data(), b.bytes.size()) == 0))
          << "block " << b.id << " at step " << step;
    }
    if (step % 1000 == 999) {
      ASSERT_EQ(0, cmf_shm_verify()) << step;
    }
  }
  for (const Block& b : live) ASSERT_GE(cmf_shm_free(b.id), 0);
  EXPECT_EQ(0, AllocRegion::table()->page_cnt);
  EXPECT_EQ(0, cmf_shm_verify());
}

// Handles handed from the owner to the reader after the fork.
struct Mailbox { uint32_t a, b, c, d, e; };

bool filled(const void* p, int byte, size_t n) {
  const auto* q = static_cast<const unsigned char*>(p);
  return p != nullptr && std::all_of(q, q + n, [byte](unsigned char c) { return c == byte; });
}

// Reader-side check: the exit code names the failing line.
#define CHILD_CHECK(cond) \
  if (!(cond)) return __LINE__ % 250 + 1

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
    CHILD_CHECK(AllocRegion::reattach(false));
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

    // The owner grew the table past 64 slots and filled page 70. While the
    // grown table is out of reach nothing translates and no dangling base is
    // kept; once it is back the reader remaps it.
    CHILD_CHECK(to_reader.wait());
    CHILD_CHECK(alloc::page_map()->count == 64 && cmdb.page_map_len == 520);
    CHILD_CHECK(::rename("/dev/cmdb/page", "/dev/cmdb/page.away") == 0);
    CHILD_CHECK(cmf_ptr_from_shmid(box->d, 0) == nullptr);
    CHILD_CHECK(cmdb.page == nullptr && cmdb.page_map_len == 0);
    CHILD_CHECK(cmf_ptr_from_shmid(box->e, 0) == nullptr);
    CHILD_CHECK(::rename("/dev/cmdb/page.away", "/dev/cmdb/page") == 0);
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

void make_file(const char* name, size_t len) { ::munmap(gk::test::map_region_file(name, len), len); }

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
  struct stat st;
  ASSERT_EQ(0, ::fstat(fds[2], &st));
  EXPECT_EQ(std::tuple(O_RDONLY, O_RDWR, 0L), std::tuple(::fcntl(fds[0], F_GETFL) & O_ACCMODE,
                                                         ::fcntl(fds[1], F_GETFL) & O_ACCMODE, long(st.st_size)));
  for (int fd : fds) ::close(fd);
  // Creation empties an existing file, then reserves the length asked for.
  int fd = cmdb_shm_create("page", 100);
  ASSERT_EQ(0, cmdb_shm_stat("page", &st));
  EXPECT_EQ(100, st.st_size);
  ::close(fd);
  EXPECT_EQ(std::tuple(0, -1, -1), (std::tuple{cmdb_shm_remove("page"), cmdb_shm_stat("page", &st),
                                               cmdb_shm_remove("page")}));
  const std::string name(70, 'n');  // paths are cut to 64 characters
  ASSERT_GE(fd = cmdb_shm_create(name.c_str(), 0), 0);
  ::close(fd);
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

}  // namespace
