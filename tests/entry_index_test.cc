// The sorted entry index: find, insert, re-position and delete, growth and
// shrink by 16 slots, the reports, and a randomized run against a sorted model.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "tests/test_support.h"
#include "tests/tree_fixture.h"

namespace {
using gk::test::captured_log;
using gk::test::NodeSpace;
using gk::test::TableFixture;
using Slots = std::vector<uint32_t>;

// Allocator blocks come from a private allocator region per test.
class EntryIndexTest : public ::testing::Test {
  gk::test::AllocRegion alloc_;
};

std::string format(const char* fmt, const void* a, const void* b, int action) {
  char buf[256];
  snprintf(buf, sizeof buf, fmt, a, b, action);
  return buf;
}

// u32 keys at offset 4 of a 12-byte data part; entries own two child slots.
struct U32Table : TableFixture {
  explicit U32Table(NodeSpace& ns, int room = 64) : TableFixture(ns, 60, 0, 4, 4, 12, 2, room) {}
  U32Table(NodeSpace& ns, std::initializer_list<uint32_t> keys) : U32Table(ns) {
    for (uint32_t k : keys) insert_at(table()->count, k);
  }
  int insert_at(int pos, uint32_t k) { return TableFixture::insert_at(pos, &k); }
  int rekey(int pos, uint32_t k) { return TableFixture::rekey(pos, &k); }
  int find(uint32_t k) { return TableFixture::find(&k); }
  int request(int action, int pos, uint32_t k) {
    std::vector<uint8_t> d = with_key(std::vector<uint8_t>(12), &k);
    cmdb_index_req_t req = {pos, d.data()};
    int r = call(action, &req);
    last_key = d.data() + 4;  // for the reports' addresses; dangling, compared only
    return r;
  }
  const void* last_key = nullptr;
};

TEST_F(EntryIndexTest, EmptyIndexFindsNothingAndGrowsOnFirstInsert) {
  NodeSpace ns;
  U32Table t(ns);
  const uint32_t before = t.table()->index;
  EXPECT_EQ(-1, t.find(5));
  ASSERT_EQ(0, t.insert_at(0, 5));
  EXPECT_NE(before, t.table()->index);  // moved: the table names the new block
  EXPECT_EQ(16, t.index()->capacity);
  EXPECT_EQ(Slots{0}, t.slots());
  EXPECT_EQ(0, t.find(5));
}

TEST_F(EntryIndexTest, InsertRenumbersFromThePosition) {
  NodeSpace ns;
  U32Table t(ns, {10, 20, 30});
  ASSERT_EQ(0, t.insert_at(3, 15));  // appended: no slot changes
  EXPECT_EQ((Slots{0, 3, 1, 2}), t.slots());
  ASSERT_EQ(0, t.insert_at(0, 25));  // every existing slot moves up
  EXPECT_EQ((Slots{1, 4, 2, 0, 3}), t.slots());
  ASSERT_EQ(0, t.insert_at(2, 5));
  for (int pos = 0; pos < 6; ++pos) EXPECT_EQ(pos, t.find(*reinterpret_cast<uint32_t*>(t.key_at(pos))));
  for (uint32_t absent : {0u, 12u, 31u}) EXPECT_EQ(-1, t.find(absent));
}

TEST_F(EntryIndexTest, RefusalsAreReported) {
  NodeSpace ns;
  U32Table t(ns, {1, 2, 3});
  const char* dup = "entry %p:%p duplicated action=%d,cmf_shm_api,__cmf_svr_binary_find_index,353.\n";
  gk::test::clear_log();
  EXPECT_EQ(-1, t.request(CMDB_INDEX_INSERT, 3, 2));
  std::string want = format(dup, t.last_key, t.key_at(1), 2);
  EXPECT_EQ(-1, t.request(CMDB_INDEX_REPOSITION, 0, 2));  // entry 0 to the key entry 1 holds
  want += format(dup, t.last_key, t.key_at(1), 4);
  for (int pos : {3, 40, -3}) EXPECT_EQ(-1, t.request(CMDB_INDEX_REPOSITION, pos, 77));
  want += "cannot find org_idx for entry_idx:3\ncannot find org_idx for entry_idx:40\n"
          "cannot find org_idx for entry_idx:-3\n";
  EXPECT_EQ(want, captured_log());
  // Full, and it cannot grow (no shmid field to follow a move).
  for (uint32_t k = 4; k <= 16; ++k) ASSERT_EQ(0, t.insert_at(static_cast<int>(k) - 1, k));
  gk::test::clear_log();
  const uint32_t k99 = 99;
  std::vector<uint8_t> d = t.with_key(std::vector<uint8_t>(12), &k99);
  cmdb_index_req_t req = {16, d.data()};
  cmdb_entry_index_t* ix = t.index();
  EXPECT_EQ(-1, __cmf_svr_binary_find_index(t.table(), nullptr, &ix, &req, CMDB_INDEX_INSERT));
  EXPECT_EQ("entry count 16 overflow 16, cmf_shm_api,__cmf_svr_binary_find_index,364.\n", captured_log());
  EXPECT_EQ(16, t.index()->count);
  // Actions without a meaning end with 0 whether or not the key is there.
  for (int action : {0, 3, 5, -1})
    for (uint32_t k : {2u, 99u}) EXPECT_EQ(0, t.call(action, &k)) << action;
  EXPECT_EQ(16, t.index()->count);
}

TEST_F(EntryIndexTest, RepositionToEitherEndAndBetween) {
  NodeSpace ns;
  U32Table t(ns, {10, 20, 30, 40, 50});
  struct {
    int pos;
    uint32_t key;
    Slots want;
  } steps[] = {{1, 99, {0, 2, 3, 4, 1}}, {3, 1, {3, 0, 2, 4, 1}},  {2, 35, {3, 0, 2, 4, 1}},
               {0, 36, {3, 2, 0, 4, 1}}, {1, 11, {3, 1, 2, 0, 4}}, {4, 50, {3, 1, 2, 0, 4}}};
  for (auto& s : steps) {  // to the end, to the start, stays, one up, three down, unchanged
    ASSERT_EQ(0, t.rekey(s.pos, s.key)) << s.key;
    EXPECT_EQ(s.want, t.slots()) << s.key;
  }
  t.index()->count = 1000;  // damaged: a search would be refused, an unchanged key needs none
  EXPECT_EQ(0, t.rekey(0, 36));
  EXPECT_EQ(-1, t.rekey(0, 37));
  EXPECT_EQ(-1, t.find(36));
}

TEST_F(EntryIndexTest, DeleteRenumbersAndShrinksPast16FreeSlots) {
  NodeSpace ns;
  U32Table t(ns, {40, 10, 30, 20});
  ASSERT_EQ(0, t.erase(2));
  EXPECT_EQ((Slots{1, 2, 0}), t.slots());
  cmdb_entry_index_t* ix = t.index();
  EXPECT_EQ(0, __cmf_svr_binary_del_index(nullptr, &t.table()->index, &ix, 1));  // not indexed: renumbers only
  EXPECT_EQ((Slots{1, 0}), t.slots());
  const int shrink[][3] = {{33, 48, 48}, {32, 48, 32}, {17, 32, 32}, {16, 32, 16}};
  for (auto& [entries, before, after] : shrink) {  // entries and capacity before one more delete, capacity after
    NodeSpace ns2;
    U32Table u(ns2);
    for (int i = 0; i < 33; ++i) ASSERT_EQ(0, u.insert_at(i, static_cast<uint32_t>(i)));
    while (u.table()->count > entries) ASSERT_EQ(0, u.erase(u.table()->count - 1));
    EXPECT_EQ(before, u.index()->capacity) << entries;
    ASSERT_EQ(0, u.erase(0));
    EXPECT_EQ(after, u.index()->capacity) << entries;
    for (int pos = 0; pos < u.table()->count; ++pos) EXPECT_EQ(pos, u.find(static_cast<uint32_t>(pos + 1)));
  }
}

TEST_F(EntryIndexTest, FindThroughTheTableChecksTheIndexBlock) {
  NodeSpace ns;
  U32Table t(ns, {7, 3});
  uint32_t k = 3;
  EXPECT_EQ(1, __cmf_svr_find_table_entry(t.table(), &k));
  gk::test::clear_log();
  const uint32_t good = t.table()->index;
  for (uint32_t bad : {0u, t.table_shmid}) {  // none, and a table block
    t.table()->index = bad;
    EXPECT_EQ(-1, __cmf_svr_find_table_entry(t.table(), &k));
  }
  EXPECT_EQ("Critical error in cmf_shm_api,__cmf_svr_find_table_entry,160, shmid=0.\n"
            "Critical error in cmf_shm_api,__cmf_svr_find_table_entry,160, shmid=" +
                std::to_string(static_cast<int>(t.table_shmid)) + ".\n",
            captured_log());
  t.table()->index = good;
  // Damage that would lead a search out of the block is refused quietly.
  for (int32_t count : {t.index()->capacity + 1, -1}) {
    t.index()->count = count;
    EXPECT_EQ(-1, __cmf_svr_find_table_entry(t.table(), &k));
  }
  t.index()->count = 2;
  t.index()->key_gid = 1861;  // no node describes the key
  EXPECT_EQ(-1, __cmf_svr_find_table_entry(t.table(), &k));
}

TEST_F(EntryIndexTest, StringKeysInVersionOrderAndLocators) {
  NodeSpace ns;
  TableFixture t(ns, 70, 2, 16, 0, 20, 0, 16);
  for (const char* k : {"10.0.0.10", "a10", "10.0.0.9", "a2", "b", "10.0.0.100"}) {
    char buf[16] = {};
    ASSERT_EQ(0, t.insert_at(t.table()->count, strcpy(buf, k)));
  }
  std::vector<std::string> order;
  for (uint32_t s : t.slots()) order.emplace_back(reinterpret_cast<const char*>(t.key_at(static_cast<int>(s))));
  EXPECT_EQ((std::vector<std::string>{"10.0.0.9", "10.0.0.10", "10.0.0.100", "a2", "a10", "b"}), order);
  EXPECT_EQ(3, t.find("a2"));  // a caller's key may be shorter than the field
  EXPECT_EQ(-1, t.find("a3"));

  const uint32_t ngids[] = {0x01000002, 0x01000005, 0x01000010, 0x01000011, 0x01000400};
  std::vector<uint8_t> raw(12 + 16 * 5);  // exactly five records
  auto* b = reinterpret_cast<cmdb_locator_block_t*>(raw.data());
  b->capacity = 5;
  for (uint32_t n : ngids) b->rec[b->count++].ngid = n;
  for (int i = 0; i < 5; ++i) EXPECT_EQ(i, cmf_svr_find_entry_index(b, ngids[i]));
  for (uint32_t n : {0u, 0x01000003u, 0x01000401u}) EXPECT_EQ(-1, cmf_svr_find_entry_index(b, n));
  b->count = 1000;  // never searched past the capacity
  EXPECT_EQ(4, cmf_svr_find_entry_index(b, 0x01000400));
}

// 20 000 random inserts, re-positions and deletes, checked after each against a
// sorted model: keys ascending, each position once, count and capacity
// consistent, keys found where the model has them.
template <class Key>
void run_model(TableFixture& t, std::mt19937& rng, Key (*make)(std::mt19937&)) {
  std::vector<Key> by_pos, sorted;
  auto add = [&](const Key& k) { sorted.insert(std::lower_bound(sorted.begin(), sorted.end(), k), k); };
  auto drop = [&](const Key& k) { sorted.erase(std::lower_bound(sorted.begin(), sorted.end(), k)); };
  for (int step = 0; step < 20000; ++step) {
    const int n = static_cast<int>(by_pos.size());
    const unsigned op = rng() % 10;
    Key k = make(rng);
    const bool taken = std::find(by_pos.begin(), by_pos.end(), k) != by_pos.end();
    if (n == 0 || (op < 4 && n < 1500)) {
      const int pos = static_cast<int>(rng() % (n + 1));
      ASSERT_EQ(taken ? -1 : 0, t.insert_at(pos, &k)) << step;
      if (!taken) by_pos.insert(by_pos.begin() + pos, k), add(k);
    } else if (const int pos = static_cast<int>(rng() % n); op < 7) {
      ASSERT_EQ(taken && !(by_pos[pos] == k) ? -1 : 0, t.rekey(pos, &k)) << step;
      if (!taken) drop(by_pos[pos]), add(k), by_pos[pos] = k;
    } else {
      ASSERT_EQ(0, t.erase(pos)) << step;
      drop(by_pos[pos]);
      by_pos.erase(by_pos.begin() + pos);
    }
    const cmdb_entry_index_t* ix = t.index();
    ASSERT_EQ(static_cast<int>(by_pos.size()), ix->count) << step;
    ASSERT_TRUE(ix->capacity % 16 == 0 && ix->count <= ix->capacity && ix->capacity <= ix->count + 16) << step;
    std::vector<bool> seen(by_pos.size());
    for (int i = 0; i < ix->count; ++i) {
      ASSERT_LT(ix->slot[i], by_pos.size()) << step;
      ASSERT_FALSE(seen[ix->slot[i]]) << step;
      seen[ix->slot[i]] = true;
      ASSERT_TRUE(by_pos[ix->slot[i]] == sorted[i]) << step << " slot " << i;
    }
    if (!by_pos.empty()) {
      const int pos = static_cast<int>(rng() % by_pos.size());
      ASSERT_EQ(pos, t.find(&by_pos[pos])) << step;
    }
  }
}

struct VersionKey {
  char text[12];
  bool operator==(const VersionKey& o) const { return strcmp(text, o.text) == 0; }
  bool operator<(const VersionKey& o) const { return strverscmp(text, o.text) < 0; }
};

TEST_F(EntryIndexTest, RandomizedAgainstSortedModel) {
  NodeSpace ns;
  std::mt19937 rng(20240611);
  TableFixture ints(ns, 80, 0, 4, 0, 8, 1, 1600);
  run_model<uint32_t>(ints, rng, [](std::mt19937& r) { return static_cast<uint32_t>(r() % 4000) * 0x10001u; });
  TableFixture strings(ns, 90, 5, 12, 4, 16, 0, 1600);
  run_model<VersionKey>(strings, rng, [](std::mt19937& r) {
    VersionKey k = {};
    snprintf(k.text, sizeof k.text, "%c%u.%u", "ab"[r() % 2], unsigned(r() % 40), unsigned(r() % 60));
    return k;
  });
}

// Tables past the caches take another search path (fetching ahead); it must
// find, miss and place keys exactly as the model's order says.
template <class Key, class Make>
void check_large_table(TableFixture& t, int n, Make make) {
  std::vector<Key> keys(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) keys[i] = make(static_cast<uint32_t>(i) * 2);  // odd inputs stay absent
  uint32_t index_shmid = 0;
  auto* ix = static_cast<cmdb_entry_index_t*>(cmf_shm_alloc(16 + 4 * static_cast<uint32_t>(n + 1), &index_shmid));
  ASSERT_NE(nullptr, ix);
  cmf_shm_free(t.table()->index);
  t.table()->index = index_shmid;
  ix->kind = CMDB_BLK_INDEX, ix->key_gid = t.key->gid, ix->capacity = n + 1, ix->count = n;
  t.table()->count = n;
  for (int i = 0; i < n; ++i) memcpy(t.key_at(i), &keys[i], sizeof(Key));
  std::iota(ix->slot, ix->slot + n, 0u);
  std::sort(ix->slot, ix->slot + n, [&](uint32_t a, uint32_t b) { return keys[a] < keys[b]; });
  std::mt19937 rng(7);
  for (int probe = 0; probe < 3000; ++probe) {
    const int pos = static_cast<int>(rng() % static_cast<uint32_t>(n));
    ASSERT_EQ(pos, t.find(&keys[pos])) << probe;
    const Key absent = make(rng() % static_cast<uint32_t>(2 * n) | 1u);
    ASSERT_EQ(-1, t.find(&absent)) << probe;
  }
  for (int probe = 0; probe < 4; ++probe) {  // the insertion point of a missing key
    const Key absent = make(rng() % static_cast<uint32_t>(2 * n) | 1u);
    const auto below = std::count_if(keys.begin(), keys.end(), [&](const Key& k) { return k < absent; });
    ASSERT_EQ(0, t.insert_at(n, &absent));
    EXPECT_EQ(static_cast<uint32_t>(n), t.index()->slot[below]) << probe;
    ASSERT_EQ(0, t.erase(n));
  }
}

TEST_F(EntryIndexTest, LargeTablesFindMissAndPlaceAsTheModel) {
  NodeSpace ns;
  constexpr int kInts = 400000, kStrings = 250000;  // both well past 6 MiB of slots and entries
  TableFixture ints(ns, 80, 0, 4, 4, 8, 0, kInts + 1);
  check_large_table<uint32_t>(ints, kInts, [](uint32_t i) { return i * 2654435761u; });
  TableFixture strings(ns, 90, 5, 12, 4, 16, 0, kStrings + 1);
  check_large_table<VersionKey>(strings, kStrings, [](uint32_t i) {
    VersionKey k = {};
    snprintf(k.text, sizeof k.text, "h%u.%02u", i / 100 % 100000u, i % 100);
    return k;
  });
}

}  // namespace

// Damage a faulty or hostile writer could leave in shared memory: no action may
// read past the table or index block for it, and none may succeed on it.
TEST_F(EntryIndexTest, DamagedIndexOrTableIsRefusedWithoutLeavingItsBlocks) {
  struct Damage {
    const char* what;
    void (*apply)(cmdb_table_block_t* t, cmdb_entry_index_t* ix);
  } cases[] = {
      {"slot far past the table", [](cmdb_table_block_t*, cmdb_entry_index_t* ix) { ix->slot[1] = 0xFFFFFFF0u; }},
      {"capacity past the block", [](cmdb_table_block_t*, cmdb_entry_index_t* ix) { ix->capacity = ix->count = 1 << 20; }},
      {"negative count", [](cmdb_table_block_t*, cmdb_entry_index_t* ix) { ix->count = -5; }},
      {"table count past its block", [](cmdb_table_block_t* t, cmdb_entry_index_t*) { t->count = 1 << 24; }},
      {"negative table count", [](cmdb_table_block_t* t, cmdb_entry_index_t*) { t->count = -1; }},
  };
  for (const Damage& d : cases) {
    NodeSpace ns;
    U32Table t(ns, {30, 10, 20});
    d.apply(t.table(), t.index());
    gk::test::clear_log();
    EXPECT_EQ(-1, t.find(10)) << d.what;
    EXPECT_EQ(-1, t.find(99)) << d.what;
    EXPECT_EQ(-1, t.request(CMDB_INDEX_INSERT, 0, 5)) << d.what;
    EXPECT_EQ(-1, t.request(CMDB_INDEX_REPOSITION, 2, 7)) << d.what;
    EXPECT_NE(std::string::npos, captured_log().find("damaged")) << d.what << ": " << captured_log();
    // A table count that cannot be trusted refuses through the table itself.
    EXPECT_EQ(-1, __cmf_svr_find_table_entry(t.table(), &(const uint32_t&)10u)) << d.what;
  }
}

TEST_F(EntryIndexTest, BlocksOutsideTheAllocatorAreSearchedAsTheySay) {
  NodeSpace ns;
  U32Table t(ns, {1, 2});
  // A host's own copy of the index: no allocator block bounds it, its header is trusted.
  std::vector<uint32_t> copy(4 + 16);
  memcpy(copy.data(), t.index(), 16 + 8);
  auto* ix = reinterpret_cast<cmdb_entry_index_t*>(copy.data());
  for (uint32_t k : {1u, 2u}) {
    const int want = __cmf_svr_find_table_entry(t.table(), &k);
    ASSERT_GE(want, 0);
    EXPECT_EQ(want, __cmf_svr_binary_find_index(t.table(), nullptr, &ix, &k, CMDB_INDEX_FIND));
  }
  const uint32_t absent = 3;
  EXPECT_EQ(-1, __cmf_svr_binary_find_index(t.table(), nullptr, &ix, &absent, CMDB_INDEX_FIND));
}
