// The configuration tree: node records, typed order and the descriptor walk;
// the sorted entry index; lookups over instance blocks; domains; per-platform
// table limits.
#include <gtest/gtest.h>
#include <limits.h>
#include <strings.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "tests/test_support.h"
#include "tests/tree_fixture.h"
#include "tree/tree_internal.h"
#include "tree/typed_compare.h"

namespace {
using gk::test::captured_log;
using gk::test::map_region_file;
using gk::test::NodeSpace;
using gk::test::TableFixture;
using Slots = std::vector<uint32_t>;

// Allocator blocks come from a private allocator region per test.
class EntryIndexTest : public ::testing::Test {
  gk::test::AllocRegion alloc_;
};
using InstanceLookupTest = EntryIndexTest;
using DomainTest = EntryIndexTest;

TEST(TreeNodeTest, LookupByGidNeverLeavesTheMappings) {
  NodeSpace ns(8192);
  cmdb_node_t* n5 = ns.add({5, 4, 0, 4, 0});
  cmdb_node_t* n1860 = ns.add({1860, 4, 0, 4, 0});
  ns.index[7] = ns.offset_of(n5);  // a record of another gid
  ns.index[10] = 0xFFFFFFF0u;      // far outside
  ns.index[11] = 8192 - 8;         // head crosses the end
  ns.index[12] = 8192 - 28;        // child list crosses the end
  reinterpret_cast<cmdb_node_t*>(ns.base + 8192 - 28)->nchild = 2;
  reinterpret_cast<cmdb_node_t*>(ns.base + 8192 - 28)->gid = 12;
  ns.index[13] = 8192 - 24;  // ends exactly at the end
  reinterpret_cast<cmdb_node_t*>(ns.base + 8192 - 24)->gid = 13;
  const cmdb_node_t* n13 = reinterpret_cast<cmdb_node_t*>(ns.base + 8192 - 24);
  struct {
    uint32_t gid;
    const cmdb_node_t* want;
  } cases[] = {{0, nullptr},  {5, n5},        {0x10005, n5},  {0xFFFF0005u, n5}, {1860, n1860}, {1861, nullptr},
               {1862, nullptr}, {6, nullptr}, {7, nullptr},   {10, nullptr},     {11, nullptr},  {12, nullptr},
               {13, n13},     {0xFFFF, nullptr}};
  for (auto& c : cases) EXPECT_EQ(c.want, tree::find_node(c.gid)) << c.gid;
  EXPECT_EQ(nullptr, tree::node_at(8192 - 8));
}

// The file `name` at `len` bytes, mapped over `at`.
void* map_file_at(const char* name, size_t len, void* at) {
  char path[64];
  snprintf(path, sizeof path, CMDB_DIR "%s", name);
  int fd = ::open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(len)) != 0) return nullptr;
  void* p = ::mmap(at, len, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0);
  ::close(fd);
  return p == MAP_FAILED ? nullptr : p;
}

TEST(TreeNodeTest, RegionRebuiltAtTheSameAddressIsJudgedAfresh) {
  void* room = ::mmap(nullptr, 1 << 16, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(MAP_FAILED, room);
  auto* index = static_cast<uint32_t*>(gk::test::map_region_file("cmdb_node_index", 7444));
  cmdb.cmdb_node_index = index;
  cmdb.cmdb_node = map_file_at("cmdb_node", 4096, room);
  index[9] = 5000;
  EXPECT_EQ(nullptr, tree::find_node(9));  // past the small mapping
  ASSERT_EQ(room, map_file_at("cmdb_node", 1 << 16, room));
  reinterpret_cast<cmdb_node_t*>(static_cast<char*>(room) + 5000)->gid = 9;
  EXPECT_EQ(static_cast<char*>(room) + 5000, reinterpret_cast<const char*>(tree::find_node(9)));
  cmdb.cmdb_node = cmdb.cmdb_node_index = nullptr;
  EXPECT_EQ(nullptr, tree::find_node(9));
  ::munmap(room, 1 << 16);
}

TEST(TreeNodeTest, TypedOrder) {
  using Bytes = std::vector<uint8_t>;
  struct { int type, size; Bytes a, b; int want; } cases[] = {
      {0, 4, {0x00, 0x01, 0, 0}, {0xFF, 0x00, 0, 0}, 1},  // 256 above 255
      {0, 4, {7, 7, 7, 7}, {7, 7, 7, 7}, 0},
      {0, 1, {0x80}, {0x7F}, 1},  // unsigned
      {0, 3, {0xFF, 0xFF, 0x00}, {0x00, 0x00, 0x01}, -1},
      {0, 8, {0, 0, 0, 0, 0, 0, 0, 0x80}, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F}, 1},
      {12, 5, {9, 0, 0, 0, 1}, {0, 0, 0, 0, 2}, -1},
      {0, 0, {1}, {2}, 0},                                    // size 0 is equal
      {3, 4, {'b', 0, 0, 0}, {'a', '1', '0', 0}, -1},        // not a string type: bytes from the top
  };
  for (auto& c : cases) {
    EXPECT_EQ(c.want, tree::compare_typed(c.a.data(), c.b.data(), c.type, c.size)) << c.type << "/" << c.size;
    EXPECT_EQ(-c.want, tree::compare_typed(c.b.data(), c.a.data(), c.type, c.size));
  }
  const char* ascending[][2] = {{"a2", "a10"}, {"10.0.0.9", "10.0.0.10"}, {"item9", "item10"}, {"x01", "x1"}, {"", "a"}};
  for (int type : {2, 5, 13})
    for (auto& s : ascending) {
      char a[32] = {}, b[32] = {};
      strcpy(a, s[0]), strcpy(b, s[1]);
      EXPECT_LT(tree::compare_typed(a, b, type, 32), 0) << s[0] << " " << s[1];
      EXPECT_GT(tree::compare_typed(b, a, type, 32), 0);
    }
  // Through nodes and descriptors: the value at the node's offset.
  NodeSpace ns;
  cmdb_node_t* s = ns.add({20, 5, 2, 16, 4});
  char a[20] = "....a2", b[20] = "....a10";
  EXPECT_LT(cmdb_compare_attr_data(a, b, s), 0);
  EXPECT_LT(cmdb_compare_key(a + 4, b + 4, s), 0);
  cmdb_node_desc_t d{};
  d.offset = 4, d.size = 16, d.type_scope = 0x32;  // type 2; the scope bits do not count
  EXPECT_LT(cli_compare_attr_data(a, b, &d), 0);
}

TEST(TreeNodeTest, BoundedVersionOrderMatchesTheSystemOne) {
  std::mt19937 rng(7);
  auto make = [&] {
    std::string s(rng() % 9, ' ');
    for (char& c : s) c = "0019a.-"[rng() % 7];
    return s;
  };
  for (int i = 0; i < 20000; ++i) {
    std::string a = make(), b = rng() % 4 == 0 ? a.substr(0, a.size() / 2) + make() : make();
    ASSERT_EQ(strverscmp(a.c_str(), b.c_str()), tree::version_compare_bounded(a.c_str(), b.c_str(), 16)) << a << " " << b;
  }
  // Fields without a NUL end at their size (exact heap blocks: a stray read shows under the sanitizer).
  std::vector<char> x = {'v', '1', '0'}, y = {'v', '9', 0}, z = {'v', '1', '0'};
  EXPECT_GT(tree::compare_strings(x.data(), y.data(), 3), 0);
  EXPECT_EQ(0, tree::compare_strings(x.data(), z.data(), 3));
}

TEST(TreeNodeTest, EntryAddressingCommitAndDefaults) {
  NodeSpace ns;
  cmdb_node_t* node = ns.add({30, 2, 0, 12, 0, 1});
  alignas(8) uint8_t block[32 + 3 * 28] = {};
  auto* t = reinterpret_cast<cmdb_table_block_t*>(block);
  t->gid = 30, t->nchild = 2, t->count = 3, t->pending = 2;
  auto* e1 = static_cast<cmdb_entry_t*>(cmf_get_table_entry(t, 1));
  ASSERT_EQ(block + 32 + 28, reinterpret_cast<uint8_t*>(e1));
  e1->ngid = 0x03000011;
  EXPECT_EQ(std::tuple(28u, 0x03000011u, static_cast<void*>(block + 60 + 16)),
            std::tuple(cmf_get_entry_size(t), cmf_get_entry_ngid(t, 1), cmf_get_entry_data(t, 1)));
  const uint8_t commits[][3] = {{0x14, 1, 0x00}, {0x10, 1, 0x00}, {0x05, 0, 0x01}, {0x01, 0, 0x01}};
  for (auto& c : commits) {  // flags before, pending after, flags after
    e1->flags = c[0];
    EXPECT_EQ(block + 60 + 16, cmf_commit_get_entry_data(t, 1));
    EXPECT_EQ(std::tuple(c[1], c[2]), std::tuple(t->pending, e1->flags));
  }
  alignas(8) uint8_t obj[32] = {};
  reinterpret_cast<cmdb_object_block_t*>(obj)->nchild = 3;
  EXPECT_EQ(obj + 24, cmf_get_obj_data(obj));

  auto* def = static_cast<uint8_t*>(get_cmdb_default_ptr(node));
  ASSERT_EQ(reinterpret_cast<uint8_t*>(node) + 28, def);
  for (int i = 0; i < 12; ++i) def[i] = static_cast<uint8_t>(0xA0 + i);
  const int32_t lengths[][2] = {{0, 12}, {3, 3}, {12, 12}, {100, 12}, {-1, 0}, {INT32_MIN, 0}};
  for (auto& [len, copied] : lengths) {
    uint8_t dst[16];
    memset(dst, 0xEE, sizeof dst);
    EXPECT_EQ(def, copy_cmdb_default(node, dst, len));
    for (int i = 0; i < 16; ++i) EXPECT_EQ(i < copied ? 0xA0 + i : 0xEE, dst[i]) << len << " byte " << i;
  }
  uint8_t dst = 0xEE;
  EXPECT_EQ(std::tuple(nullptr, 0xEE), (std::tuple{copy_cmdb_default(nullptr, &dst, 0), dst}));
}

TEST(TreeNodeTest, ChildSlotsMasterKeyAndChildNodes) {
  NodeSpace ns;
  cmdb_node_t* table = ns.add({50, 2, 0, 32, 0, 1});
  cmdb_node_t* entry = ns.add({51, 1, 0, 32, 6, 5}, table);
  ns.add({52, 4, 0, 4, 0}, entry);
  cmdb_node_t* attr = ns.add({53, 5, 2, 8, 8}, entry);
  ns.add({54, 3, 0, 4, 0}, entry);
  EXPECT_EQ(std::tuple(2u, 2u), std::tuple(cmf_node_child_size(table), cmf_node_child_size(entry)));  // kinds 4, 5, 3
  ns.add({55, 6, 13, 4, 0}, entry);  // kind 6 counts with type 13 only
  ns.add({56, 6, 2, 4, 0}, entry);
  EXPECT_EQ(3u, cmf_node_child_size(table));
  entry->child[1] = 0;  // a zero offset ends the count
  EXPECT_EQ(1u, cmf_node_child_size(table));
  ns.add({57, 3, 0, 4, 0});  // a table without an entry node
  EXPECT_EQ(0u, cmf_node_child_size(tree::find_node(57)));

  uint8_t data[32];
  EXPECT_EQ(data + 6, cmdb_get_master_key(50, data));
  for (uint32_t gid : {51u, 57u, 999u}) EXPECT_EQ(nullptr, cmdb_get_master_key(gid, data)) << gid;
  EXPECT_EQ(std::tuple(entry, attr), std::tuple(cmdb_find_child_node(table, 51), cmdb_find_child_node(entry, 53)));
  // A grandchild, a top-level node, no parent.
  for (auto [parent, gid] : {std::pair{table, 53}, {table, 50}, {nullptr, 51}})
    EXPECT_EQ(nullptr, cmdb_find_child_node(parent, static_cast<uint16_t>(gid))) << gid;
}

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

TEST_F(EntryIndexTest, DeleteRenumbersAndShrinksPast16FreeSlots) {
  NodeSpace ns;
  U32Table t(ns, {40, 10, 30});
  cmdb_entry_index_t* ix = t.index();
  EXPECT_EQ(0, __cmf_svr_binary_del_index(nullptr, &t.table()->index, &ix, 1));  // not indexed: renumbers only
  EXPECT_EQ((Slots{1, 0}), t.slots());
  const int shrink[][3] = {{33, 48, 48}, {32, 48, 32}, {17, 32, 32}, {16, 32, 16}};
  for (auto& [entries, before, after] : shrink) {  // entries and capacity before one more delete, capacity after
    NodeSpace ns2;
    U32Table u(ns2);
    EXPECT_EQ(-1, u.find(0));
    for (int i = 0; i < 33; ++i) ASSERT_EQ(0, u.insert_at(i, static_cast<uint32_t>(i)));
    while (u.table()->count > entries) ASSERT_EQ(0, u.erase(u.table()->count - 1));
    const int had = u.index()->capacity;
    ASSERT_EQ(0, u.erase(0));
    EXPECT_EQ(std::tuple(before, after), std::tuple(had, u.index()->capacity)) << entries;
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
  for (int32_t count : {t.index()->capacity + 1, -1, 2}) {  // and at last a key no node describes
    t.index()->count = count;
    if (count == 2) t.index()->key_gid = 1861;
    EXPECT_EQ(-1, __cmf_svr_find_table_entry(t.table(), &k)) << count;
  }
}

TEST_F(EntryIndexTest, StringKeysAndLocators) {
  NodeSpace ns;
  TableFixture t(ns, 70, 2, 16, 0, 20, 0, 16);
  for (const char* k : {"10.0.0.10", "a10", "10.0.0.9", "a2", "b", "10.0.0.100"}) {
    char buf[16] = {};
    ASSERT_EQ(0, t.insert_at(t.table()->count, strcpy(buf, k)));
  }
  EXPECT_EQ(std::tuple(3, -1), std::tuple(t.find("a2"), t.find("a3")));  // keys shorter than the field
  // A key filling its field has no NUL: what follows the field is not part of it.
  TableFixture full(ns, 80, 2, 4, 0, 8, 0, 4);
  for (const char* k : {"abcd", "abce"}) ASSERT_EQ(0, full.insert_at(full.table()->count, k));
  for (int pos : {0, 1}) memset(full.data(pos) + 4, 'z', 4);
  EXPECT_EQ(std::tuple(0, 1), std::tuple(full.find("abcd"), full.find("abce")));

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

// Damage a faulty or hostile writer could leave in shared memory: no action may
// read past the table or index block for it, and none may succeed on it.
TEST_F(EntryIndexTest, DamagedIndexOrTableIsRefusedWithoutLeavingItsBlocks) {
  struct Damage { const char* what; void (*apply)(cmdb_table_block_t* t, cmdb_entry_index_t* ix); } cases[] = {
      {"slot far past the table", [](cmdb_table_block_t*, cmdb_entry_index_t* ix) { ix->slot[0] = 0xFFFFFFF0u; }},
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
    // A table count that cannot be trusted refuses through the table itself too.
    EXPECT_EQ(std::tuple(-1, -1, -1, -1, true, -1),
              (std::tuple{t.find(10), t.find(99), t.request(CMDB_INDEX_INSERT, 0, 5), t.request(CMDB_INDEX_REPOSITION, 2, 7),
                          gk::test::logged("damaged"), __cmf_svr_find_table_entry(t.table(), &(const uint32_t&)10u)}))
        << d.what << ": " << captured_log();
  }
  NodeSpace ns;
  U32Table t(ns, {10, 20});
  t.index()->count = 1000;  // a search would be refused; re-keying to the same key needs none
  EXPECT_EQ(std::tuple(0, -1), (std::tuple{t.rekey(0, 10), t.rekey(0, 11)}));
}

TEST_F(EntryIndexTest, BlocksOutsideTheAllocatorAreSearchedAsTheySay) {
  NodeSpace ns;
  U32Table t(ns, {1, 2});
  // A host's own copy of the index: no allocator block bounds it, its header is trusted.
  std::vector<uint32_t> copy(4 + 16);
  memcpy(copy.data(), t.index(), 16 + 8);
  auto* ix = reinterpret_cast<cmdb_entry_index_t*>(copy.data());
  for (auto [k, want] : {std::pair{1u, 0}, {2u, 1}, {3u, -1}})
    EXPECT_EQ(want, __cmf_svr_binary_find_index(t.table(), nullptr, &ix, &k, CMDB_INDEX_FIND)) << k;
}

// A child block of `kind` naming `gid` where that kind keeps it (high bits noise).
uint32_t make_child(uint32_t kind, uint16_t gid) {
  uint32_t shmid = 0;
  auto* w = static_cast<uint32_t*>(cmf_shm_alloc(32, &shmid));
  w[0] = kind;
  w[kind == CMDB_BLK_OTHER ? 1 : 2] = gid | 0xABCD0000u;
  return shmid;
}

TEST_F(InstanceLookupTest, ChildOfAnObject) {
  uint32_t shmid = 0;
  auto* obj = static_cast<cmdb_object_block_t*>(cmf_shm_alloc(64, &shmid));
  obj->kind = CMDB_BLK_OBJECT, obj->nchild = 6;
  const uint32_t kids[] = {0, make_child(9, 0), make_child(CMDB_BLK_TABLE, 11), make_child(CMDB_BLK_OTHER, 12),
                           make_child(CMDB_BLK_OBJECT, 13), make_child(CMDB_BLK_OBJECT, 11)};
  memcpy(obj->child, kids, sizeof kids);
  const int cases[][2] = {{11, 2}, {12, 3}, {13, 4}, {0x1000D, 4}, {0, 1}, {14, -1}, {0xABCD, -1}};  // gid, slot
  for (auto& [gid, slot] : cases) {
    uint32_t* want = slot < 0 ? nullptr : &obj->child[slot];
    EXPECT_EQ(std::tuple(want, want), std::tuple(cmdb_find_child_obj(obj, gid, nullptr, 0),
                                                 cmdb_find_child_entity(shmid, gid, nullptr))) << gid;
  }
  // The table block itself; kind 7 keeps its gid elsewhere; no block.
  EXPECT_EQ(std::tuple(cmf_ptr_from_shmid(kids[2], 0), static_cast<void*>(nullptr), nullptr),
            std::tuple(cmf_find_obj_child_table(obj, 11), cmf_find_obj_child_table(obj, 12),
                       cmdb_find_child_entity(0, 11, nullptr)));
  obj->kind = CMDB_BLK_INDEX;
  EXPECT_EQ(nullptr, cmdb_find_child_obj(obj, 11, nullptr, 0));
}

TEST_F(InstanceLookupTest, ChildOfATableEntryByPositionAndByKey) {
  NodeSpace ns;
  gk::test::TableFixture t(ns, 60, 0, 4, 0, 8, 2, 8);
  for (uint32_t k : {100u, 200u, 300u}) ASSERT_EQ(0, t.insert_at(t.table()->count, &k));
  auto* e1 = static_cast<cmdb_entry_t*>(cmf_get_table_entry(t.table(), 1));
  e1->child[0] = make_child(CMDB_BLK_TABLE, 21);
  e1->child[1] = make_child(CMDB_BLK_OBJECT, 22);
  const uint32_t k200 = 200, k999 = 999;
  gk::test::clear_log();
  // By position; by key, which wins over the position; a key not there.
  EXPECT_EQ(std::tuple(&e1->child[1], &e1->child[0], &e1->child[0], nullptr),
            std::tuple(cmdb_find_child_obj(t.table(), 22, nullptr, 1), cmdb_find_child_obj(t.table(), 21, &k200, 0),
                       cmdb_find_child_entity(t.table_shmid, 21, &k200), cmdb_find_child_obj(t.table(), 21, &k999, 1)));
  for (int pos : {0, 3, -1}) EXPECT_EQ(nullptr, cmdb_find_child_obj(t.table(), 21, nullptr, pos));
  const uint32_t index = t.table()->index;
  for (uint32_t bad : {0u, t.table_shmid}) {  // no usable index: nothing found, quietly
    t.table()->index = bad;
    EXPECT_EQ(nullptr, cmdb_find_child_obj(t.table(), 21, &k200, 0));
  }
  t.table()->index = index;
  EXPECT_EQ("", captured_log());
  EXPECT_EQ(nullptr, cmdb_find_child_obj(t.table(), 21, nullptr, 4));  // past the count: one warning
  EXPECT_EQ("Warn in cmf_shm_api,cmdb_find_child_obj,205, table60,cnt=3,pos=4.\n", captured_log());

  EXPECT_EQ(std::tuple(cmf_ptr_from_shmid(e1->child[1], 0), static_cast<void*>(nullptr)),
            std::tuple(cmf_find_table_child_table(t.table(), 1, 22), cmf_find_table_child_table(t.table(), 1, 23)));
  for (int pos : {3, -1}) EXPECT_EQ(nullptr, cmf_find_table_child_table(t.table(), pos, 22)) << pos;
}

TEST_F(InstanceLookupTest, EntryLocatorDevicesAndServices) {
  uint32_t roots[6] = {1};
  for (int g = 0; g < 5; ++g) {
    auto* b = static_cast<cmdb_locator_block_t*>(cmf_shm_alloc(12 + 16 * 16, &roots[1 + g]));
    b->kind = CMDB_BLK_LOCATOR, b->capacity = 16;
    if (g == 2)
      for (uint32_t i = 0; i < 5; ++i) b->rec[b->count++] = {0x02000000u | (i * 3 + 1), 0x10000u + i, i, ~i};
  }
  cmdb.index_roots = roots;
  auto found = [](uint32_t ngid) { return cmdb_entry_from_index(ngid).shmid; };  // a miss is all zeros
  cmdb_locator_rec_t r = cmdb_entry_from_index(0x02000007);
  EXPECT_TRUE(r.ngid == 0x02000007u && r.shmid == 0x10002u && r.w2 == 2 && r.w3 == ~2u);
  for (uint32_t ngid : {0x02000008u, 0x01000007u, 0x05000007u, 0xFF000007u}) EXPECT_EQ(0u, found(ngid)) << ngid;
  roots[3] = 0;  // group 2's block missing
  EXPECT_EQ(0u, found(0x02000007));
  cmdb.index_roots = nullptr;
  EXPECT_EQ(0u, found(0x02000007));

  EXPECT_EQ(nullptr, cmf_find_device_entry(1));  // not mapped
  auto* d = static_cast<cmdb_device_table_t*>(cmdb.devices = map_region_file("devices", 11332));
  EXPECT_EQ(nullptr, cmf_find_device_entry(0));  // count 0
  const uint32_t ids[] = {500, 20, 7000, 300, 1};  // records 1 to 5
  for (int i = 0; i < 5; ++i) memcpy(d->rec[i], &ids[i], 4);
  memcpy(d->order, "\5\2\4\1\3", 5);
  d->count = 5;
  for (int i = 0; i < 5; ++i) EXPECT_EQ(d->rec[i], cmf_find_device_entry(ids[i])) << ids[i];
  for (uint32_t id : {0u, 2u, 7001u}) EXPECT_EQ(nullptr, cmf_find_device_entry(id)) << id;
  for (uint8_t bad : {0, 65}) {  // record numbers run 1 to 64
    d->order[2] = bad;
    EXPECT_EQ(nullptr, cmf_find_device_entry(300));
  }
  d->count = 0xFFFF;  // bounded by the 64 records
  EXPECT_EQ(nullptr, cmf_find_device_entry(12345));

  EXPECT_EQ(nullptr, cmf_find_service_by_gid(10));
  std::vector<uint32_t> services(CMDB_SERVICES * CMDB_SERVICE_SIZE / 4);
  for (uint32_t i = 0; i < CMDB_SERVICES; ++i) services[i * CMDB_SERVICE_SIZE / 4] = 10 + 7 * i;
  cmdb.services = services.data();
  for (uint32_t i : {0u, 81u, 163u}) EXPECT_EQ(&services[i * CMDB_SERVICE_SIZE / 4], cmf_find_service_by_gid(10 + 7 * i));
  for (uint32_t gid : {0u, 11u, 10u + 7 * 164}) EXPECT_EQ(nullptr, cmf_find_service_by_gid(gid)) << gid;
}

TEST_F(InstanceLookupTest, FilterMatch) {
  NodeSpace ns;
  const uint8_t data_part[28] = {'N', 'a', 'm', 'e', 0, 0, 0, 0, 'H', 'o', 's', 't', 0, 0, 0, 0,
                                 'Z', 'o', 'n', 'e', 0, 0, 0, 0, 0x2A, 0, 0, 0x01};
  // Attributes 1 to 4 of the table (types 5, 2, 13, 0), 6 a grandchild; filters by attribute.
  const std::pair<int, std::string> filters[] = {{1, "Name"}, {1, "name"}, {2, "hOst"}, {2, "Host"}, {3, "zone"},
                                                 {3, "Zonx"}, {4, std::string("*\0\0\1", 4)},
                                                 {4, std::string("*\0\0\2", 4)}, {6, std::string("*\0\0\1", 4)}};
  std::vector<std::string> rows;
  for (uint16_t base : {70, 80}) {  // 80 folds case (node flag 0x10)
    cmdb_node_t* table = ns.add({base, 2, 0, 28, 0, 5, 0, static_cast<uint8_t>(base == 80 ? 0x10 : 0)});
    const uint8_t types[] = {5, 2, 13, 0};
    for (int i = 0; i < 4; ++i)
      ns.add({static_cast<uint16_t>(base + 1 + i), 5, types[i], static_cast<uint16_t>(i < 3 ? 8 : 4),
              static_cast<uint16_t>(8 * i)}, table);
    ns.add({static_cast<uint16_t>(base + 6), 5, 0, 4, 24}, ns.add({static_cast<uint16_t>(base + 5), 1, 0, 28, 0, 1}, table));
    uint32_t shmid = 0;
    auto* t = static_cast<cmdb_table_block_t*>(cmf_shm_alloc(32 + 2 * 36, &shmid));
    t->kind = CMDB_BLK_TABLE, t->gid = base, t->count = 2;
    memcpy(cmf_get_entry_data(t, 1), data_part, sizeof data_part);
    std::string row;
    for (auto& [attr, value] : filters) {
      std::vector<uint8_t> filter(8 + value.size() + 1);
      filter[0] = static_cast<uint8_t>(base + attr);
      memcpy(filter.data() + 8, value.data(), value.size());
      row += std::to_string(cmf_shm_match_filter(t, 1, filter.data()));
      EXPECT_EQ(0, cmf_shm_match_filter(t, 2, filter.data()) + cmf_shm_match_filter(t, -1, filter.data()));
    }
    rows.push_back(row);
  }
  // Type 5 is always case-sensitive, types 2 and 13 fold case with flag 0x10,
  // others compare bytes, and a grandchild never matches.
  EXPECT_EQ((std::vector<std::string>{"100100100", "101110100"}), rows);
}

// The three domain sub-regions, kept as the writers keep them: both indexes
// sorted, records in storage order.
struct Domains {
  Domains() {
    cmdb.domain = table = static_cast<cmdb_domain_table_t*>(map_region_file("domain", 16 * 264 + 12));
    cmdb.domid_index = by_id = static_cast<uint32_t*>(map_region_file("domid_index", 64));
    cmdb.domname_index = by_name = static_cast<uint32_t*>(map_region_file("domname_index", 64));
  }
  static uint32_t root(const std::vector<std::pair<uint16_t, uint32_t>>& entries) {
    uint32_t shmid = 0;
    auto* r = static_cast<cmdb_root_block_t*>(cmf_shm_alloc(4 + 8 * static_cast<uint32_t>(entries.size()), &shmid));
    for (auto& [gid, slot] : entries) r->entry[r->count++] = {gid, 0, slot};
    return shmid;
  }
  void add(const std::string& name, uint32_t id, uint32_t root_shmid = 0) {
    const int n = table->count++;
    strcpy(table->rec[n].name, name.c_str());
    table->rec[n].id = id, table->rec[n].root = root_shmid;
    by_id[n] = by_name[n] = static_cast<uint32_t>(n);
    std::sort(by_id, by_id + n + 1, [&](uint32_t a, uint32_t b) { return table->rec[a].id < table->rec[b].id; });
    std::sort(by_name, by_name + n + 1,
              [&](uint32_t a, uint32_t b) { return strcasecmp(table->rec[a].name, table->rec[b].name) < 0; });
  }
  std::vector<uint32_t> ids() const { return std::vector<uint32_t>(by_id, by_id + table->count); }
  cmdb_domain_table_t* table;
  uint32_t *by_id, *by_name;
};

TEST_F(DomainTest, LookupsByIdAndByNameInEveryMode) {
  EXPECT_EQ(std::tuple(-1, 0), std::tuple(__cmdb_find_find_last_domain_index(), cmf_shm_domain_size()));  // not mapped
  Domains d;
  uint32_t count = 99;
  EXPECT_EQ(std::tuple(0u, 0u, -1, 0), (std::tuple{cmf_shm_find_last_domain_id(&count), count,
                                                   __cmdb_find_domain_by_id(5, 1), __cmdb_find_domain_by_id(5, 2)}));
  d.add("sales", 30), d.add("finance", 10), d.add("lab", 20), d.add("Root", 40);
  const int by_id[][4] = {{10, 1, 0, 0}, {20, 2, 1, 1}, {40, 3, 3, 3}, {5, -1, -1, 0}, {35, -1, -1, 3}, {99, -1, -1, 4}};
  for (auto& [id, mode0, mode1, mode2] : by_id)
    EXPECT_EQ(std::tuple(mode0, mode1, mode2), std::tuple(__cmdb_find_domain_by_id(id, 0), __cmdb_find_domain_by_id(id, 1),
                                                          __cmdb_find_domain_by_id(id, 7))) << id;
  const std::pair<const char*, std::vector<int>> by_name[] = {  // id, then modes 0, 1 and 2
      {"FINANCE", {10, 1, 0, 0}}, {"root", {40, 3, 2, 2}}, {"Lab", {20, 2, 1, 1}}, {"aardvark", {0, -1, -1, 0}},
      {"m", {0, -1, -1, 2}},      {"zeta", {0, -1, -1, 4}}};
  for (auto& [name, want] : by_name) {
    EXPECT_EQ(static_cast<uint32_t>(want[0]), cmf_shm_find_domain_id(name)) << name;
    for (int mode = 0; mode < 3; ++mode) EXPECT_EQ(want[1 + mode], __cmdb_find_domain_by_name(name, mode)) << name;
  }
  EXPECT_EQ(-1, __cmdb_find_domain_by_name(nullptr, 0));
  EXPECT_EQ(std::tuple(40u, 4u, 4), (std::tuple{cmf_shm_find_last_domain_id(&count), count, cmf_shm_domain_size()}));  // last in storage order
  EXPECT_STREQ("lab", cmf_shm_find_domain_name(20));
  EXPECT_EQ(nullptr, cmf_shm_find_domain_name(21));
  char buf[16];
  memset(buf, 'x', sizeof buf);
  EXPECT_EQ(std::tuple(0, 0, -1), (std::tuple{cmf_shm_get_domain_name(buf, 4, 10), memcmp("fin\0xxxx", buf, 8),
                                               cmf_shm_get_domain_name(buf, 4, 11)}));
  uint32_t id = 0;  // padded as strncpy pads
  EXPECT_EQ(std::tuple(0, 0, 10u), (std::tuple{cmf_shm_domain_info(1, buf, 12, &id),
                                               memcmp("finance\0\0\0\0\0xxxx", buf, 16), id}));
  for (int recno : {-1, 4}) EXPECT_EQ(-1, cmf_shm_domain_info(recno, buf, 5, &id));
}

TEST_F(DomainTest, IterationSwitchesAndRestoresTheCurrentDomain) {
  Domains d;
  struct Seen { std::vector<uint32_t> ids; bool current_matches = true; uint32_t stop_at = 0; } seen;
  auto visitor = [](uint32_t id, uintptr_t arg) {
    auto* s = reinterpret_cast<Seen*>(arg);
    s->ids.push_back(id);
    s->current_matches &= cmf_get_cur_domain_id() == id;
    return id == s->stop_at ? static_cast<int>(id) + 1 : 0;
  };
  cmf_set_cur_domain_id(5);
  EXPECT_EQ(0, cmf_iterate_all_domain_until_nz(visitor, reinterpret_cast<uintptr_t>(&seen)));  // none yet
  d.add("c", 30), d.add("a", 10), d.add("b", 20);
  seen.stop_at = 30;  // the plain form goes on and returns the last result
  EXPECT_EQ(0, cmf_iterate_all_domain(visitor, reinterpret_cast<uintptr_t>(&seen)));
  EXPECT_EQ(std::tuple(std::vector<uint32_t>{30, 10, 20}, true, 5u),  // storage order
            std::tuple(seen.ids, seen.current_matches, cmf_get_cur_domain_id()));
  seen = {};
  seen.stop_at = 10;
  EXPECT_EQ(11, cmf_iterate_all_domain_until_nz(visitor, reinterpret_cast<uintptr_t>(&seen)));
  EXPECT_EQ(std::tuple(std::vector<uint32_t>{30, 10}, 5u), std::tuple(seen.ids, cmf_get_cur_domain_id()));
}

TEST_F(DomainTest, RootEntitiesByScope) {
  NodeSpace ns;
  for (auto [gid, scope] : {std::pair{100, 0}, {200, 2}, {300, 3}, {400, 2}})
    ns.add({static_cast<uint16_t>(gid), 4, 0, 4, 0, 0, static_cast<uint8_t>(scope)});
  Domains d;
  d.table->global_root = Domains::root({{100, 0x1001}, {200, 0x1002}, {300, 0x1003}});
  d.add("seven", 7, Domains::root({{100, 0x7001}, {200, 0x7002}, {300, 0x7003}}));
  auto slot = [](uint32_t domain, uint32_t gid) {
    uint32_t* s = cmdb_find_root_entity(domain, gid);
    return s == nullptr ? 0u : *s;
  };
  gk::test::clear_log();
  const uint32_t cases[][3] = {{7, 100, 0x1001},     {99, 100, 0x1001}, {7, 200, 0x7002}, {7, 0x1012C, 0x7003},
                               {0, 300, 0x1003},     {8, 200, 0},       {7, 400, 0},      {7, 500, 0}};
  for (auto& [domain, gid, want] : cases) EXPECT_EQ(want, slot(domain, gid)) << domain << "/" << gid;
  EXPECT_EQ("", captured_log());
  EXPECT_EQ(0u, slot(0, 200));  // needs a domain
  EXPECT_EQ("domain_id is not set for domain setting 200. pid=" + std::to_string(getpid()) + "," +
                program_invocation_short_name + "\n",
            captured_log());
  EXPECT_EQ(std::tuple(cmf_ptr_from_shmid(d.table->global_root, 0), cmf_ptr_from_shmid(d.table->rec[0].root, 0),
                       static_cast<void*>(nullptr)),
            std::tuple(cmdb_find_domain_by_name(nullptr), cmdb_find_domain_by_name("SEVEN"),
                       cmdb_find_domain_by_name("eight")));
}

TEST_F(DomainTest, IdIndexResortedByAnotherProcess) {
  Domains d;
  for (uint32_t id : {50u, 10u, 40u, 20u, 30u}) d.add(std::to_string(id), id);
  std::reverse(d.by_id, d.by_id + 5);
  const std::vector<uint32_t> names(d.by_name, d.by_name + 5);
  ASSERT_EQ(0, gk::test::run_child([] { return cmf_shm_resolve_alldomain(), 0; }));
  EXPECT_EQ((std::vector<uint32_t>{1, 3, 4, 2, 0}), d.ids());
  EXPECT_EQ(names, std::vector<uint32_t>(d.by_name, d.by_name + 5));  // untouched
  std::reverse(d.by_id, d.by_id + 5);
  cmdb.domname_index = nullptr;  // both indexes must be mapped
  cmf_shm_resolve_alldomain();
  EXPECT_EQ((std::vector<uint32_t>{0, 2, 4, 3, 1}), d.ids());
}

// Damaged indexes are not followed, and counts are bounded by what holds them:
// a record count past the `domain` mapping, or a root block count past its
// allocator block, never sends a lookup outside either.
TEST_F(DomainTest, DamageIsNotFollowed) {
  Domains d;
  d.add("a", 1), d.add("b", 2);
  d.by_id[1] = 9;  // a record past the count
  d.by_name[0] = 0xFFFFFFFFu;
  EXPECT_EQ(std::tuple(-1, -1, -1), std::tuple(__cmdb_find_domain_by_id(2, 0), __cmdb_find_domain_by_id(3, 2),
                                                __cmdb_find_domain_by_name("a", 0)));
  cmf_shm_resolve_alldomain();  // left as it is
  EXPECT_EQ(9u, d.by_id[1]);
  d.table->count = -5;
  EXPECT_EQ(std::tuple(-1, 0), std::tuple(__cmdb_find_find_last_domain_index(), __cmdb_find_domain_by_id(1, 2)));

  d.table->count = 0;
  NodeSpace ns;
  const cmdb_node_t* node = ns.add({40, 4, 0, 4, 0, 0, 0});
  d.add("alpha", 7, Domains::root({{40, 0x10001}}));
  d.table->global_root = Domains::root({{40, 0x20001}});
  auto* global = static_cast<cmdb_root_block_t*>(cmf_ptr_from_shmid(d.table->global_root, 1));
  global->count = 0xFFFF;  // its 32-byte block holds three entries
  const uint32_t* slot = cmdb_find_domain_entity(global, node);
  EXPECT_TRUE(slot == nullptr || reinterpret_cast<const char*>(slot) < reinterpret_cast<const char*>(global) + 32);
  global->count = 1;
  d.table->count = 0x7FFFFFF0;  // the mapping holds a few dozen records
  uint32_t count = 0;
  cmf_shm_find_last_domain_id(&count);
  EXPECT_TRUE(count >= 1 && count < 64) << count;
  char name[16];
  EXPECT_EQ(-1, cmf_shm_domain_info(1 << 20, name, sizeof name, nullptr));
  int visited = 0;
  cmf_iterate_all_domain([](uint32_t, uintptr_t arg) { return ++*reinterpret_cast<int*>(arg), 0; },
                         reinterpret_cast<uintptr_t>(&visited));
  EXPECT_EQ(static_cast<int>(count), visited);
}

constexpr uint32_t kAbsent = 0xFFFFFFFF;

using Lookup = int (*)(uint32_t, int);

// Every figure is in the digest below; here what it cannot show: the gid's high
// bits ignored, a gid without a row, platforms outside the table.
TEST(SizeTableTest, GidBitsMissingRowsAndBadPlatforms) {
  for (auto [gid, want] : {std::pair{0x10000u | 91, 50}, {0x70000u | 92, 256}, {0xFFFFu, 256}})
    EXPECT_EQ(want, cmdb_get_table_size(gid, 3)) << gid;
  const std::pair<uint32_t, int> groups[] = {{717, 4}, {35, 3}, {92, 0}, {0x10000 | 711, 1}, {0, 0}};
  for (auto [gid, group] : groups) EXPECT_EQ(group, cmdb_get_table_entry_grp(gid)) << gid;

  // An index outside 0..29, as unsigned, fails every kind, whether the gid has a row or not.
  for (Lookup fn : {cmdb_get_table_size, cmdb_get_table_tsize, cmdb_get_table_sz_warning})
    for (uint32_t gid : {91u, 92u, 30001u})
      for (int platform : {30, 31, 1000, -1, INT_MIN})
        EXPECT_EQ(-1, fn(gid, platform)) << gid << " on " << platform;
}

// Every figure of the table as the getters give it, with each row's place,
// entry group and mark, folded into one digest. The rows were checked one by
// one against the published table when it was written; a figure changed since
// shows here.
TEST(SizeTableTest, EveryFigureAsPublished) {
  uint64_t h = 14695981039346656037u;
  auto mix = [&h](uint64_t v) { h = (h ^ v) * 1099511628211u; };
  for (int i = 0; i < CMDB_SIZE_TABLE_ROWS; ++i) {
    const uint16_t gid = size_table[i].gid;
    mix(gid), mix(static_cast<uint64_t>(cmdb_get_table_entry_grp(gid))), mix(size_table[i].flag);
    for (int p = 0; p < CMDB_PLATFORMS; ++p)
      for (Lookup fn : {cmdb_get_table_size, cmdb_get_table_tsize, cmdb_get_table_sz_warning})
        mix(static_cast<uint32_t>(fn(gid, p)));
  }
  EXPECT_EQ(0x7217abaae705e0c6ull, h);
}

// The block lives in cmdb_global in a real region; the getters only see cmdb.table_limits.
class TableLimitsTest : public testing::Test {
 protected:
  void SetUp() override { cmdb.table_limits = block_.get(); }
  void TearDown() override { cmdb.table_limits = nullptr; }
  void expect_absent(uint32_t gid) {
    EXPECT_EQ(-1, cmf_get_table_tcnt_pos(gid)) << gid;
    EXPECT_EQ(nullptr, cmf_get_tablesize(gid)) << gid;
    EXPECT_EQ(kAbsent, cmf_get_table_tcnt(gid)) << gid;
    EXPECT_EQ(kAbsent, cmf_get_max_table_entry(gid)) << gid;
    EXPECT_EQ(kAbsent, cmf_get_max_table_tentry(gid)) << gid;
  }
  std::unique_ptr<cmdb_table_limits_t> block_ = std::make_unique<cmdb_table_limits_t>();
};

TEST_F(TableLimitsTest, BuiltBlockServesEveryGetter) {
  for (void* block : {static_cast<void*>(block_.get()), static_cast<void*>(nullptr)}) {  // empty, missing
    cmdb.table_limits = block;
    for (uint32_t gid : {0u, 1u, 91u, 0xFFFFu}) expect_absent(gid);
  }
  cmdb.table_limits = block_.get();
  EXPECT_EQ(-1, tree::table_limits_append(nullptr, 91, 3));
  tree::table_limits_sort(nullptr);
  for (uint32_t gid : {1707u, 91u, 92u, 346u, 0x10000u | 711, 35u, 1u})
    ASSERT_EQ(0, tree::table_limits_append(block_.get(), gid, 3));
  tree::table_limits_sort(block_.get());
  ASSERT_EQ(7, block_->count);
  const uint32_t sorted[] = {1, 35, 91, 92, 346, 711, 1707};
  for (int i = 0; i < 7; ++i) {
    const uint32_t g = sorted[i];
    const cmdb_table_limit_t& r = block_->rec[i];
    const auto size = uint32_t(cmdb_get_table_size(g, 3)), tsize = uint32_t(cmdb_get_table_tsize(g, 3));
    EXPECT_EQ(std::tuple(g, 0u, size, tsize, uint32_t(cmdb_get_table_sz_warning(g, 3))),
              std::tuple(r.gid, r.tcnt, r.size, r.tsize, r.sz_warning));
    EXPECT_EQ(i, cmf_get_table_tcnt_pos(g));
    EXPECT_EQ(i, cmf_get_table_tcnt_pos(0xABC0000 | g));
    EXPECT_EQ(&block_->rec[i], cmf_get_tablesize(g));
    block_->rec[i].tcnt = 10 + i;  // as a writer keeps it
    EXPECT_EQ(10u + i, cmf_get_table_tcnt(g));
    EXPECT_EQ(size, cmf_get_max_table_entry(g));
    EXPECT_EQ(tsize, cmf_get_max_table_tentry(g));
  }
  for (uint32_t gid : {0u, 2u, 34u, 36u, 90u, 93u, 712u, 1706u, 1708u, 0xFFFFu, 0x10000u}) expect_absent(gid);
}

TEST_F(TableLimitsTest, FullBlockFindsEveryPosition) {
  // Descending gids 992, 984, ..., 8: the sort has every record to move.
  for (int i = 0; i < CMDB_TABLE_LIMITS_MAX; ++i)
    ASSERT_EQ(0, tree::table_limits_append(block_.get(), 8 * (CMDB_TABLE_LIMITS_MAX - i), 5));
  EXPECT_EQ(-1, tree::table_limits_append(block_.get(), 2000, 5));
  ASSERT_EQ(CMDB_TABLE_LIMITS_MAX, block_->count);
  tree::table_limits_sort(block_.get());
  for (int i = 0; i < CMDB_TABLE_LIMITS_MAX; ++i) {
    const uint32_t gid = 8 * (i + 1);
    ASSERT_EQ(gid, block_->rec[i].gid);
    EXPECT_EQ(i, cmf_get_table_tcnt_pos(gid));
    expect_absent(gid - 1);
    expect_absent(gid + 1);
  }
  expect_absent(2000);
  // A damaged count must not take the search past the block (ASan watches the heap copy).
  block_->count = 0xFFFF;
  tree::table_limits_sort(block_.get());
  EXPECT_EQ(CMDB_TABLE_LIMITS_MAX - 1, cmf_get_table_tcnt_pos(8 * CMDB_TABLE_LIMITS_MAX));
  for (uint32_t gid : {8u * CMDB_TABLE_LIMITS_MAX + 8, 0x7FFFu}) expect_absent(gid);
  EXPECT_EQ(-1, tree::table_limits_append(block_.get(), 500, 3));
}

}  // namespace
