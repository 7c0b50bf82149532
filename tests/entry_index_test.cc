// The sorted entry index: find, insert, re-position and delete, growth and
// shrink by 16 slots, and a randomized run against a sorted model.
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <map>
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

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...) {
  char buf[512];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  return buf;
}

// A u32-keyed table (key at offset 4 of a 12-byte data part, two child slots).
struct U32Table : TableFixture {
  explicit U32Table(NodeSpace& ns, int room = 64) : TableFixture(ns, 60, 0, 4, 4, 12, 2, room) {}
  int insert_at(int pos, uint32_t k) { return TableFixture::insert_at(pos, &k); }
  int rekey(int pos, uint32_t k) { return TableFixture::rekey(pos, &k); }
  int find(uint32_t k) { return TableFixture::find(&k); }
  // Keys in slot order.
  std::vector<uint32_t> keys() {
    std::vector<uint32_t> out;
    for (uint32_t s : slots()) {
      uint32_t k;
      memcpy(&k, key_at(static_cast<int>(s)), 4);
      out.push_back(k);
    }
    return out;
  }
};

TEST(EntryIndexTest, EmptyIndexFindsNothingAndGrowsOnFirstInsert) {
  NodeSpace ns;
  U32Table t(ns);
  const uint32_t before = t.table()->index;
  EXPECT_EQ(-1, t.find(5));
  ASSERT_EQ(0, t.insert_at(0, 5));
  EXPECT_NE(before, t.table()->index);  // the block moved; the table names the new one
  EXPECT_EQ(16, t.index()->capacity);
  EXPECT_EQ(Slots{0}, t.slots());
  EXPECT_EQ(0, t.find(5));
}

TEST(EntryIndexTest, InsertRenumbersFromThePosition) {
  NodeSpace ns;
  U32Table t(ns);
  for (uint32_t k : {10u, 20u, 30u}) ASSERT_EQ(0, t.insert_at(t.table()->count, k));
  EXPECT_EQ((Slots{0, 1, 2}), t.slots());
  ASSERT_EQ(0, t.insert_at(3, 15));  // appended: no slot changes
  EXPECT_EQ((Slots{0, 3, 1, 2}), t.slots());
  ASSERT_EQ(0, t.insert_at(0, 25));  // every existing slot moves up by one
  EXPECT_EQ((Slots{1, 4, 2, 0, 3}), t.slots());
  ASSERT_EQ(0, t.insert_at(2, 5));
  EXPECT_EQ((std::vector<uint32_t>{5, 10, 15, 20, 25, 30}), t.keys());
  for (int pos = 0; pos < t.table()->count; ++pos) {
    uint32_t k;
    memcpy(&k, t.key_at(pos), 4);
    EXPECT_EQ(pos, t.find(k));
  }
  EXPECT_EQ(-1, t.find(0));
  EXPECT_EQ(-1, t.find(31));
  EXPECT_EQ(-1, t.find(12));
}

TEST(EntryIndexTest, DuplicatesAreRefusedAndReported) {
  NodeSpace ns;
  U32Table t(ns);
  for (uint32_t k : {1u, 2u, 3u}) ASSERT_EQ(0, t.insert_at(t.table()->count, k));
  gk::test::clear_log();
  uint8_t d[12] = {};
  d[4] = 2;
  cmdb_index_req_t req = {3, d};
  EXPECT_EQ(-1, t.call(CMDB_INDEX_INSERT, &req));
  EXPECT_EQ(format("entry %p:%p duplicated action=2,cmf_shm_api,__cmf_svr_binary_find_index,353.\n",
                   static_cast<void*>(d + 4), static_cast<void*>(t.key_at(1))),
            captured_log());
  EXPECT_EQ(3, t.index()->count);
  gk::test::clear_log();
  req.pos = 0;  // entry 0 (key 1) to key 2, which entry 1 holds
  EXPECT_EQ(-1, t.call(CMDB_INDEX_REPOSITION, &req));
  EXPECT_EQ(format("entry %p:%p duplicated action=4,cmf_shm_api,__cmf_svr_binary_find_index,353.\n",
                   static_cast<void*>(d + 4), static_cast<void*>(t.key_at(1))),
            captured_log());
  EXPECT_EQ((Slots{0, 1, 2}), t.slots());
}

TEST(EntryIndexTest, RepositionToEitherEndAndBetween) {
  NodeSpace ns;
  U32Table t(ns);
  for (uint32_t k : {10u, 20u, 30u, 40u, 50u}) ASSERT_EQ(0, t.insert_at(t.table()->count, k));
  struct {
    int pos;
    uint32_t key;
    Slots want;
  } steps[] = {
      {1, 99, {0, 2, 3, 4, 1}},  // to the end
      {3, 1, {3, 0, 2, 4, 1}},   // to the start
      {2, 35, {3, 0, 2, 4, 1}},  // between its neighbours: stays
      {0, 36, {3, 2, 0, 4, 1}},  // one place up
      {1, 11, {3, 1, 2, 0, 4}},  // three places down
      {4, 50, {3, 1, 2, 0, 4}},  // unchanged key
  };
  for (auto& s : steps) {
    ASSERT_EQ(0, t.rekey(s.pos, s.key)) << s.key;
    EXPECT_EQ(s.want, t.slots()) << s.key;
    auto keys = t.keys();
    EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end()));
  }
}

TEST(EntryIndexTest, RepositionOfAnUnindexedPositionIsReported) {
  NodeSpace ns;
  U32Table t(ns);
  for (uint32_t k : {10u, 20u}) ASSERT_EQ(0, t.insert_at(t.table()->count, k));
  gk::test::clear_log();
  uint8_t d[12] = {};
  d[4] = 77;
  for (int pos : {2, 40, -3}) {
    cmdb_index_req_t req = {pos, d};
    EXPECT_EQ(-1, t.call(CMDB_INDEX_REPOSITION, &req));
  }
  EXPECT_EQ("cannot find org_idx for entry_idx:2\ncannot find org_idx for entry_idx:40\n"
            "cannot find org_idx for entry_idx:-3\n",
            captured_log());
  EXPECT_EQ((Slots{0, 1}), t.slots());
}

TEST(EntryIndexTest, UnchangedKeyNeedsNoSearch) {
  NodeSpace ns;
  U32Table t(ns);
  ASSERT_EQ(0, t.insert_at(0, 10));
  t.index()->count = 1000;  // damaged: any search would be refused
  EXPECT_EQ(0, t.rekey(0, 10));
  EXPECT_EQ(-1, t.rekey(0, 11));
  EXPECT_EQ(-1, t.find(10));
}

TEST(EntryIndexTest, DeleteRenumbersAndShrinksPast16FreeSlots) {
  NodeSpace ns;
  U32Table t(ns);
  for (uint32_t k : {40u, 10u, 30u, 20u}) ASSERT_EQ(0, t.insert_at(t.table()->count, k));
  EXPECT_EQ((Slots{1, 3, 2, 0}), t.slots());
  ASSERT_EQ(0, t.erase(2));  // key 30
  EXPECT_EQ((Slots{1, 2, 0}), t.slots());
  cmdb_entry_index_t* ix = t.index();
  EXPECT_EQ(0, __cmf_svr_binary_del_index(nullptr, &t.table()->index, &ix, 1));  // not indexed: renumbers only
  EXPECT_EQ((Slots{1, 0}), t.slots());

  // Entries before one more delete, the capacity then, the capacity after it.
  struct {
    int entries, before, after;
  } shrink[] = {{33, 48, 48}, {32, 48, 32}, {17, 32, 32}, {16, 32, 16}};
  for (auto& c : shrink) {
    NodeSpace ns2;
    U32Table u(ns2, 64);
    for (int i = 0; i < 33; ++i) ASSERT_EQ(0, u.insert_at(i, static_cast<uint32_t>(i)));
    while (u.table()->count > c.entries) ASSERT_EQ(0, u.erase(u.table()->count - 1));
    EXPECT_EQ(c.before, u.index()->capacity) << c.entries;
    ASSERT_EQ(0, u.erase(0));
    EXPECT_EQ(c.after, u.index()->capacity) << c.entries;
    EXPECT_EQ(c.entries - 1, u.index()->count);
    for (int pos = 0; pos < u.table()->count; ++pos) EXPECT_EQ(pos, u.find(static_cast<uint32_t>(pos + 1)));
  }
}

TEST(EntryIndexTest, FullIndexThatCannotGrowIsReported) {
  NodeSpace ns;
  U32Table t(ns);
  for (uint32_t k = 0; k < 16; ++k) ASSERT_EQ(0, t.insert_at(static_cast<int>(k), k));
  gk::test::clear_log();
  uint8_t d[12] = {};
  d[4] = 99;
  cmdb_index_req_t req = {16, d};
  cmdb_entry_index_t* ix = t.index();
  EXPECT_EQ(-1, __cmf_svr_binary_find_index(t.table(), nullptr, &ix, &req, CMDB_INDEX_INSERT));
  EXPECT_EQ("entry count 16 overflow 16, cmf_shm_api,__cmf_svr_binary_find_index,364.\n", captured_log());
  EXPECT_EQ(16, t.index()->count);
}

TEST(EntryIndexTest, OtherActionsEndWithZero) {
  NodeSpace ns;
  U32Table t(ns);
  for (uint32_t k : {1u, 2u, 3u}) ASSERT_EQ(0, t.insert_at(t.table()->count, k));
  uint32_t present = 2, absent = 9;
  for (int action : {0, 3, 5, 8, -1, 1 << 20})
    for (const uint32_t* k : {&present, &absent}) EXPECT_EQ(0, t.call(action, k)) << action;
  EXPECT_EQ((Slots{0, 1, 2}), t.slots());
}

TEST(EntryIndexTest, FindThroughTheTableChecksTheIndexBlock) {
  NodeSpace ns;
  U32Table t(ns);
  for (uint32_t k : {7u, 3u}) ASSERT_EQ(0, t.insert_at(t.table()->count, k));
  uint32_t k = 3;
  EXPECT_EQ(1, __cmf_svr_find_table_entry(t.table(), &k));
  k = 4;
  EXPECT_EQ(-1, __cmf_svr_find_table_entry(t.table(), &k));
  gk::test::clear_log();
  const uint32_t good = t.table()->index;
  t.table()->index = 0;
  EXPECT_EQ(-1, __cmf_svr_find_table_entry(t.table(), &k));
  t.table()->index = t.table_shmid;  // a table block, not an index
  EXPECT_EQ(-1, __cmf_svr_find_table_entry(t.table(), &k));
  EXPECT_EQ(format("Critical error in cmf_shm_api,__cmf_svr_find_table_entry,160, shmid=0.\n"
                   "Critical error in cmf_shm_api,__cmf_svr_find_table_entry,160, shmid=%d.\n",
                   static_cast<int>(t.table_shmid)),
            captured_log());
  t.table()->index = good;
  // Damage that would send a search outside the block is refused quietly.
  cmdb_entry_index_t* ix = t.index();
  ix->count = ix->capacity + 1;
  EXPECT_EQ(-1, __cmf_svr_find_table_entry(t.table(), &k));
  ix->count = -1;
  EXPECT_EQ(-1, __cmf_svr_find_table_entry(t.table(), &k));
  ix->count = 2;
  ix->key_gid = 1861;  // no node describes the key
  EXPECT_EQ(-1, __cmf_svr_find_table_entry(t.table(), &k));
  EXPECT_EQ(-1, __cmf_svr_find_table_entry(nullptr, &k));
}

TEST(EntryIndexTest, StringKeysInVersionOrder) {
  NodeSpace ns;
  TableFixture t(ns, 70, 2, 16, 0, 20, 0, 16);
  const char* keys[] = {"10.0.0.10", "a10", "10.0.0.9", "a2", "b", "10.0.0.100"};
  for (const char* k : keys) {
    char buf[16] = {};
    strcpy(buf, k);
    ASSERT_EQ(0, t.insert_at(t.table()->count, buf));
  }
  std::vector<std::string> order;
  for (uint32_t s : t.slots()) order.emplace_back(reinterpret_cast<const char*>(t.key_at(static_cast<int>(s))));
  EXPECT_EQ((std::vector<std::string>{"10.0.0.9", "10.0.0.10", "10.0.0.100", "a2", "a10", "b"}), order);
  EXPECT_EQ(3, t.find("a2"));  // a caller's key may be shorter than the field
  EXPECT_EQ(-1, t.find("a3"));
}

TEST(EntryIndexTest, LocatorSearch) {
  const uint32_t ngids[] = {0x01000002, 0x01000005, 0x01000010, 0x01000011, 0x01000400};
  // Exactly five records: a search that strayed past them would be seen.
  std::vector<uint8_t> raw(12 + 16 * 5);
  auto* b = reinterpret_cast<cmdb_locator_block_t*>(raw.data());
  b->kind = CMDB_BLK_LOCATOR;
  b->capacity = 5;
  for (uint32_t n : ngids) b->rec[b->count++].ngid = n;
  for (int i = 0; i < 5; ++i) EXPECT_EQ(i, cmf_svr_find_entry_index(b, ngids[i]));
  for (uint32_t n : {0u, 0x01000003u, 0x01000401u, 0x02000002u}) EXPECT_EQ(-1, cmf_svr_find_entry_index(b, n));
  b->count = 1000;  // never searched past the capacity
  EXPECT_EQ(4, cmf_svr_find_entry_index(b, 0x01000400));
  b->count = 0;
  EXPECT_EQ(-1, cmf_svr_find_entry_index(b, ngids[0]));
  EXPECT_EQ(-1, cmf_svr_find_entry_index(nullptr, 1));
}

// 20 000 random inserts, re-positions and deletes, the index checked after each
// against a sorted model: keys strictly ascending, each position exactly once,
// count and capacity consistent, every key found where the model has it.
template <class Key>
void run_model(TableFixture& t, std::mt19937& rng, Key (*make)(std::mt19937&)) {
  std::vector<Key> by_pos;  // the table's keys, by position
  std::vector<Key> sorted;  // the same keys in order
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
    } else if (op < 7) {
      const int pos = static_cast<int>(rng() % n);
      const bool same = by_pos[pos] == k;
      ASSERT_EQ(taken && !same ? -1 : 0, t.rekey(pos, &k)) << step;
      if (!taken) drop(by_pos[pos]), add(k), by_pos[pos] = k;
    } else {
      const int pos = static_cast<int>(rng() % n);
      ASSERT_EQ(0, t.erase(pos)) << step;
      drop(by_pos[pos]);
      by_pos.erase(by_pos.begin() + pos);
    }
    const cmdb_entry_index_t* ix = t.index();
    ASSERT_EQ(static_cast<int>(by_pos.size()), ix->count) << step;
    ASSERT_EQ(0, ix->capacity % 16) << step;
    ASSERT_TRUE(ix->count <= ix->capacity && ix->capacity <= ix->count + 16) << step << " " << ix->capacity;
    std::vector<bool> seen(by_pos.size());
    for (int i = 0; i < ix->count; ++i) {
      const uint32_t pos = ix->slot[i];
      ASSERT_LT(pos, by_pos.size()) << step;
      ASSERT_FALSE(seen[pos]) << step;
      seen[pos] = true;
      ASSERT_TRUE(by_pos[pos] == sorted[i]) << step << " slot " << i;
    }
    for (int probe = 0; probe < 2 && !by_pos.empty(); ++probe) {
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

TEST(EntryIndexTest, RandomizedAgainstSortedModel) {
  NodeSpace ns(1 << 20);
  std::mt19937 rng(20240611);
  {
    TableFixture t(ns, 80, 0, 4, 0, 8, 1, 1600);
    run_model<uint32_t>(t, rng, [](std::mt19937& r) { return static_cast<uint32_t>(r() % 4000) * 0x10001u; });
  }
  {
    TableFixture t(ns, 90, 5, 12, 4, 16, 0, 1600);
    run_model<VersionKey>(t, rng, [](std::mt19937& r) {
      VersionKey k = {};
      snprintf(k.text, sizeof k.text, "%c%u.%u", "ab"[r() % 2], static_cast<unsigned>(r() % 40),
               static_cast<unsigned>(r() % 60));
      return k;
    });
  }
}

}  // namespace
