// Node records by gid, entry addressing, defaults, child slots, the typed value
// order and the descriptor walk.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>

#include <random>
#include <string>
#include <vector>

#include "tests/test_support.h"
#include "tests/tree_fixture.h"
#include "tree/tree_internal.h"
#include "tree/typed_compare.h"

namespace {
using gk::test::NodeSpace;

TEST(TreeNodeTest, GidRangeAndLow16Bits) {
  NodeSpace ns;
  cmdb_node_t* n5 = ns.add({5, 4, 0, 4, 0});
  cmdb_node_t* n1860 = ns.add({1860, 4, 0, 4, 0});
  struct {
    uint32_t gid;
    const cmdb_node_t* want;
  } cases[] = {{0, nullptr},        {5, n5},          {0x10005, n5}, {0xFFFF0005u, n5}, {1860, n1860},
               {1861, nullptr},     {1862, nullptr},  {6, nullptr},  {0xFFFF, nullptr}, {0x10000, nullptr}};
  for (auto& c : cases) EXPECT_EQ(c.want, tree::find_node(c.gid)) << c.gid;
  // A slot whose record carries another gid is no node.
  ns.index[7] = ns.offset_of(n5);
  EXPECT_EQ(nullptr, tree::find_node(7));
}

TEST(TreeNodeTest, RecordsReachingPastTheMappingAreNoNodes) {
  NodeSpace ns(8192);
  cmdb_node_t* ok = ns.add({3, 4, 0, 4, 0});
  ns.index[10] = 0xFFFFFFF0u;  // far outside
  ns.index[11] = 8192 - 8;     // head crosses the end
  auto* last = reinterpret_cast<cmdb_node_t*>(ns.base + 8192 - 28);
  last->gid = 12;
  last->nchild = 2;  // child list crosses the end
  ns.index[12] = 8192 - 28;
  auto* fits = reinterpret_cast<cmdb_node_t*>(ns.base + 8192 - 24);
  fits->gid = 13;  // exactly at the end: fits
  ns.index[13] = 8192 - 24;
  EXPECT_EQ(ok, tree::find_node(3));
  EXPECT_EQ(nullptr, tree::find_node(10));
  EXPECT_EQ(nullptr, tree::find_node(11));
  EXPECT_EQ(nullptr, tree::find_node(12));
  EXPECT_EQ(fits, tree::find_node(13));
  // Child links are bounded the same way.
  EXPECT_EQ(nullptr, tree::node_at(8192 - 8));
  EXPECT_EQ(nullptr, tree::node_at(0));
}

TEST(TreeNodeTest, RegionRebuiltAtTheSameAddressIsJudgedAfresh) {
  // Reserve room, map a small node area, look up, then map a larger one over it.
  void* room = ::mmap(nullptr, 1 << 16, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(MAP_FAILED, room);
  auto* index = static_cast<uint32_t*>(gk::test::map_region_file("cmdb_node_index", 7444));
  cmdb.cmdb_node_index = index;
  cmdb.cmdb_node = gk::test::map_region_file("cmdb_node", 4096, room);
  index[9] = 5000;
  EXPECT_EQ(nullptr, tree::find_node(9));
  ASSERT_EQ(room, gk::test::map_region_file("cmdb_node", 1 << 16, room));
  reinterpret_cast<cmdb_node_t*>(static_cast<char*>(room) + 5000)->gid = 9;
  EXPECT_EQ(static_cast<char*>(room) + 5000, reinterpret_cast<const char*>(tree::find_node(9)));
  ::munmap(room, 1 << 16);
  cmdb.cmdb_node = nullptr;
  cmdb.cmdb_node_index = nullptr;
}

TEST(TreeNodeTest, MissingSubRegionsFindNothing) {
  EXPECT_EQ(nullptr, tree::find_node(5));
  EXPECT_EQ(nullptr, cmdb_find_child_node(nullptr, 5));
  EXPECT_EQ(nullptr, cmdb_get_master_key(5, nullptr));
}

TEST(TreeNodeTest, TypedOrder) {
  struct {
    int type;
    int size;
    std::vector<uint8_t> a, b;
    int sign;
  } cases[] = {
      {0, 4, {0x00, 0x01, 0, 0}, {0xFF, 0x00, 0, 0}, 1},  // 256 above 255
      {0, 4, {0xFF, 0, 0, 0}, {0, 1, 0, 0}, -1},
      {0, 4, {7, 7, 7, 7}, {7, 7, 7, 7}, 0},
      {0, 1, {0x80}, {0x7F}, 1},  // unsigned
      {0, 2, {0x00, 0x80}, {0xFF, 0x7F}, 1},
      {0, 3, {0xFF, 0xFF, 0x00}, {0x00, 0x00, 0x01}, -1},  // odd width: top byte decides
      {0, 8, {0, 0, 0, 0, 0, 0, 0, 0x80}, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F}, 1},
      {12, 16, std::vector<uint8_t>(16, 1), [] { std::vector<uint8_t> v(16, 1); v[15] = 2; v[0] = 0; return v; }(), -1},
      {0, 0, {1}, {2}, 0},  // size 0 is equal
      {3, 6, {'b', 0, 0, 0, 0, 0}, {'a', '1', '0', 0, 0, 0}, -1},  // type 3 is an integer: byte 2 decides
  };
  for (auto& c : cases) {
    int r = tree::compare_typed(c.a.data(), c.b.data(), c.type, c.size);
    EXPECT_EQ(c.sign, r) << "type " << c.type << " size " << c.size;
    EXPECT_EQ(-c.sign, tree::compare_typed(c.b.data(), c.a.data(), c.type, c.size));
  }
  struct {
    const char* a;
    const char* b;
  } ascending[] = {{"a2", "a10"}, {"10.0.0.9", "10.0.0.10"}, {"item9", "item10"}, {"", "a"}, {"abc", "abd"},
                   {"x01", "x1"}, {"1.010", "1.09"}};
  for (int type : {2, 5, 13})
    for (auto& s : ascending) {
      char a[32] = {}, b[32] = {};
      strcpy(a, s.a), strcpy(b, s.b);
      EXPECT_LT(tree::compare_typed(a, b, type, 32), 0) << s.a << " " << s.b;
      EXPECT_GT(tree::compare_typed(b, a, type, 32), 0);
      EXPECT_EQ(0, tree::compare_typed(a, a, type, 32));
    }
}

TEST(TreeNodeTest, BoundedVersionOrderMatchesTheSystemOne) {
  std::mt19937 rng(7);
  const char alphabet[] = "0019a.-";
  auto make = [&] {
    std::string s(rng() % 9, ' ');
    for (char& c : s) c = alphabet[rng() % (sizeof alphabet - 1)];
    return s;
  };
  for (int i = 0; i < 20000; ++i) {
    std::string a = make(), b = rng() % 4 == 0 ? a.substr(0, a.size() / 2) + make() : make();
    ASSERT_EQ(strverscmp(a.c_str(), b.c_str()), tree::version_compare_bounded(a.c_str(), b.c_str(), 16))
        << a << " " << b;
  }
  // A field without its NUL ends at its size; nothing past it is read (exact
  // heap blocks, so the sanitizer would see a stray read).
  std::vector<char> x = {'v', '1', '0'}, y = {'v', '9', 0};
  EXPECT_GT(tree::compare_strings(x.data(), y.data(), 3), 0);
  std::vector<char> z = {'v', '1', '0'};
  EXPECT_EQ(0, tree::compare_strings(x.data(), z.data(), 3));
}

TEST(TreeNodeTest, ComparisonsThroughNodesAndDescriptors) {
  NodeSpace ns;
  cmdb_node_t* s = ns.add({20, 5, 2, 16, 4});
  cmdb_node_t* u = ns.add({21, 5, 0, 4, 20});
  char a[24] = {}, b[24] = {};
  strcpy(a + 4, "a2"), strcpy(b + 4, "a10");
  a[20] = 1, b[23] = 1;  // 1 versus 1 << 24
  EXPECT_LT(cmdb_compare_attr_data(a, b, s), 0);
  EXPECT_LT(cmdb_compare_attr_data(a, b, u), 0);
  EXPECT_LT(cmdb_compare_key(a + 4, b + 4, s), 0);
  cmdb_node_desc_t d{};
  d.offset = 4, d.size = 16, d.type_scope = 0x32;  // type 2; scope bits ignored
  EXPECT_LT(cli_compare_attr_data(a, b, &d), 0);
  d.type_scope = 0x30;  // type 0: integer of the first differing top byte
  strcpy(b + 4, "a2");
  b[15] = 9;
  EXPECT_LT(cli_compare_attr_data(a, b, &d), 0);
}

TEST(TreeNodeTest, EntryAddressingAndCommit) {
  NodeSpace ns;
  ns.add({30, 2, 0, 12, 0, 1});
  alignas(8) uint8_t block[32 + 3 * 28] = {};
  auto* t = reinterpret_cast<cmdb_table_block_t*>(block);
  t->kind = 3, t->gid = 30, t->nchild = 2, t->count = 3, t->pending = 2;
  EXPECT_EQ(12u + 8 + 8, cmf_get_entry_size(t));
  auto* e1 = static_cast<cmdb_entry_t*>(cmf_get_table_entry(t, 1));
  EXPECT_EQ(block + 32 + 28, reinterpret_cast<uint8_t*>(e1));
  e1->ngid = 0x03000011;
  EXPECT_EQ(0x03000011u, cmf_get_entry_ngid(t, 1));
  EXPECT_EQ(block + 32 + 28 + 16, cmf_get_entry_data(t, 1));
  struct {
    uint8_t flags;
    uint32_t pending_after;
    uint8_t flags_after;
  } commits[] = {{0x14, 1, 0x00}, {0x10, 1, 0x00}, {0x05, 0, 0x01}, {0x01, 0, 0x01}};
  for (auto& c : commits) {
    e1->flags = c.flags;
    EXPECT_EQ(block + 32 + 28 + 16, cmf_commit_get_entry_data(t, 1));
    EXPECT_EQ(c.pending_after, t->pending);
    EXPECT_EQ(c.flags_after, e1->flags);
  }
  alignas(8) uint8_t obj[64] = {};
  reinterpret_cast<cmdb_object_block_t*>(obj)->nchild = 3;
  EXPECT_EQ(obj + 24, cmf_get_obj_data(obj));
}

TEST(TreeNodeTest, DefaultsCopyNeverMoreThanSize) {
  NodeSpace ns;
  cmdb_node_t* n = ns.add({40, 4, 0, 8, 0, 2});
  auto* def = static_cast<uint8_t*>(get_cmdb_default_ptr(n));
  ASSERT_EQ(reinterpret_cast<uint8_t*>(n) + 24 + 8, def);
  for (int i = 0; i < 8; ++i) def[i] = static_cast<uint8_t>(0xA0 + i);
  struct {
    int32_t len;
    int copied;
  } cases[] = {{0, 8}, {3, 3}, {8, 8}, {100, 8}, {-1, 0}, {INT32_MIN, 0}};
  for (auto& c : cases) {
    uint8_t dst[16];
    memset(dst, 0xEE, sizeof dst);
    EXPECT_EQ(def, copy_cmdb_default(n, dst, c.len));
    for (int i = 0; i < 16; ++i) EXPECT_EQ(i < c.copied ? 0xA0 + i : 0xEE, dst[i]) << c.len << " byte " << i;
  }
  uint8_t dst = 0xEE;
  EXPECT_EQ(nullptr, copy_cmdb_default(nullptr, &dst, 0));
  EXPECT_EQ(nullptr, get_cmdb_default_ptr(nullptr));
  EXPECT_EQ(0xEE, dst);
}

TEST(TreeNodeTest, ChildSlotsMasterKeyAndChildNodes) {
  NodeSpace ns;
  cmdb_node_t* table = ns.add({50, 2, 0, 32, 0, 1});
  cmdb_node_t* entry = ns.add({51, 1, 0, 32, 0, 5}, table);
  entry->offset = 6;  // the key's offset inside a data part
  ns.add({52, 4, 0, 4, 0}, entry);
  cmdb_node_t* attr = ns.add({53, 5, 2, 8, 8}, entry);
  ns.add({54, 3, 0, 4, 0, 0}, entry);
  EXPECT_EQ(2u, cmf_node_child_size(table));  // kinds 4, 5, 3
  EXPECT_EQ(2u, cmf_node_child_size(entry));
  ns.add({55, 6, 13, 4, 0}, entry);  // kind 6 counts with type 13 only
  EXPECT_EQ(3u, cmf_node_child_size(table));
  ns.add({56, 6, 2, 4, 0}, entry);
  EXPECT_EQ(3u, cmf_node_child_size(table));
  entry->child[1] = 0;  // a zero offset ends the walk
  EXPECT_EQ(1u, cmf_node_child_size(table));
  cmdb_node_t* bare = ns.add({57, 3, 0, 4, 0, 0});
  EXPECT_EQ(0u, cmf_node_child_size(bare));
  EXPECT_EQ(0u, cmf_node_child_size(nullptr));

  uint8_t data[32];
  EXPECT_EQ(data + 6, cmdb_get_master_key(50, data));
  EXPECT_EQ(nullptr, cmdb_get_master_key(51, data));  // not a table
  EXPECT_EQ(nullptr, cmdb_get_master_key(57, data));  // no entry node
  EXPECT_EQ(nullptr, cmdb_get_master_key(999, data));

  EXPECT_EQ(entry, cmdb_find_child_node(table, 51));
  EXPECT_EQ(attr, cmdb_find_child_node(entry, 53));
  EXPECT_EQ(nullptr, cmdb_find_child_node(table, 53));  // grandchild
  EXPECT_EQ(nullptr, cmdb_find_child_node(table, 50));  // top level
  EXPECT_EQ(nullptr, cmdb_find_child_node(nullptr, 51));
}

struct Visit {
  uint32_t gid;
  int index;
  uintptr_t parent;
};

TEST(TreeNodeTest, DescriptorWalk) {
  cmdb_node_desc_t d[7] = {};
  cmdb_node_desc_t* root_kids[] = {&d[1], &d[2], &d[5]};
  cmdb_node_desc_t* skip_kids[] = {&d[3]};
  cmdb_node_desc_t* deep_kids[] = {&d[4]};
  cmdb_node_desc_t* last_kids[] = {&d[6]};
  for (int i = 0; i < 7; ++i) d[i].gid = 100 + i;
  d[0].nchild = 3, d[0].children = root_kids;
  d[2].nchild = 1, d[2].children = skip_kids, d[2].kind = 0xFA;  // kind 10 in the low bits
  d[3].nchild = 1, d[3].children = deep_kids;
  d[5].nchild = 1, d[5].children = last_kids;
  std::vector<Visit> seen;
  auto visitor = [](cmdb_node_desc_t* desc, int index, uintptr_t parent, uintptr_t* own, void* ctx) {
    static_cast<std::vector<Visit>*>(ctx)->push_back({desc->gid, index, parent});
    *own = desc->gid;
    return desc->gid == 106 ? -7 : 0;
  };
  EXPECT_EQ(-7, tree::walk_descriptors(&d[0], visitor, &seen));
  std::vector<Visit> want = {{100, 0, 0}, {101, 0, 100}, {102, 1, 100}, {105, 2, 100}, {106, 0, 105}};
  ASSERT_EQ(want.size(), seen.size());
  for (size_t i = 0; i < want.size(); ++i) {
    EXPECT_EQ(want[i].gid, seen[i].gid);
    EXPECT_EQ(want[i].index, seen[i].index);
    EXPECT_EQ(want[i].parent, seen[i].parent);
  }
  seen.clear();
  EXPECT_EQ(0, tree::walk_descriptors(&d[3], visitor, &seen));
  EXPECT_EQ(2u, seen.size());
  EXPECT_EQ(-1, tree::walk_descriptors(nullptr, visitor, &seen));
  EXPECT_EQ(-1, tree::walk_descriptors(&d[0], nullptr, &seen));
  root_kids[1] = nullptr;  // a null child ends the walk as a failure
  EXPECT_EQ(-1, tree::walk_descriptors(&d[0], [](cmdb_node_desc_t*, int, uintptr_t, uintptr_t*, void*) { return 0; },
                                       nullptr));
}

TEST(TreeNodeTest, ExportedDescriptorImages) {
  struct {
    const cmdb_node_desc_t* d;
    const char* name;
    const char* help;
    std::vector<std::pair<int, uint8_t>> bytes;  // every other byte is zero
  } cases[] = {
      {&__cli_domain_node, "domain", "config domain objects",
       {{16, 91}, {24, 0x41}, {29, 0x10}, {30, 2}, {35, 0x08}, {81, 1}, {86, 1}}},
      {&__cli_fqdn_node, "fqdn", "domain server name",
       {{16, 92}, {24, 2}, {29, 0x02}, {30, 5}, {34, 0x04}, {35, 0x10}, {81, 1}, {86, 1}}},
  };
  for (auto& c : cases) {
    EXPECT_STREQ(c.name, c.d->name);
    EXPECT_STREQ(c.help, c.d->help);
    uint8_t want[128] = {}, got[128];
    for (auto& [off, v] : c.bytes) want[off] = v;
    memcpy(got, c.d, 128);
    memset(got, 0, 16);  // the two string pointers
    for (int i = 0; i < 128; ++i) EXPECT_EQ(want[i], got[i]) << c.name << " byte " << i;
  }
}

}  // namespace
