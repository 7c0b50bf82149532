// Node records by gid, entry addressing, defaults, child slots, the typed value
// order and the descriptor walk.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "tests/tree_fixture.h"
#include "tree/tree_internal.h"
#include "tree/typed_compare.h"

namespace {
using gk::test::NodeSpace;

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
  struct {
    int type, size;
    Bytes a, b;
    int want;
  } cases[] = {
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
  d.type_scope = 0x30;  // type 0: "a2" ends in a NUL where "a10" has '0'
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
  EXPECT_EQ(28u, cmf_get_entry_size(t));
  auto* e1 = static_cast<cmdb_entry_t*>(cmf_get_table_entry(t, 1));
  ASSERT_EQ(block + 32 + 28, reinterpret_cast<uint8_t*>(e1));
  e1->ngid = 0x03000011;
  EXPECT_EQ(0x03000011u, cmf_get_entry_ngid(t, 1));
  EXPECT_EQ(block + 60 + 16, cmf_get_entry_data(t, 1));
  const uint8_t commits[][3] = {{0x14, 1, 0x00}, {0x10, 1, 0x00}, {0x05, 0, 0x01}, {0x01, 0, 0x01}};
  for (auto& c : commits) {  // flags before, pending after, flags after
    e1->flags = c[0];
    EXPECT_EQ(block + 60 + 16, cmf_commit_get_entry_data(t, 1));
    EXPECT_EQ(c[1], t->pending);
    EXPECT_EQ(c[2], e1->flags);
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
  EXPECT_EQ(nullptr, copy_cmdb_default(nullptr, &dst, 0));
  EXPECT_EQ(0xEE, dst);
}

TEST(TreeNodeTest, ChildSlotsMasterKeyAndChildNodes) {
  NodeSpace ns;
  cmdb_node_t* table = ns.add({50, 2, 0, 32, 0, 1});
  cmdb_node_t* entry = ns.add({51, 1, 0, 32, 6, 5}, table);
  ns.add({52, 4, 0, 4, 0}, entry);
  cmdb_node_t* attr = ns.add({53, 5, 2, 8, 8}, entry);
  ns.add({54, 3, 0, 4, 0}, entry);
  EXPECT_EQ(2u, cmf_node_child_size(table));  // kinds 4, 5, 3
  EXPECT_EQ(2u, cmf_node_child_size(entry));
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
  EXPECT_EQ(entry, cmdb_find_child_node(table, 51));
  EXPECT_EQ(attr, cmdb_find_child_node(entry, 53));
  EXPECT_EQ(nullptr, cmdb_find_child_node(table, 53));  // a grandchild
  EXPECT_EQ(nullptr, cmdb_find_child_node(table, 50));  // top level
  EXPECT_EQ(nullptr, cmdb_find_child_node(nullptr, 51));
}

TEST(TreeNodeTest, DescriptorWalk) {
  cmdb_node_desc_t d[7] = {};
  cmdb_node_desc_t* kids0[] = {&d[1], &d[2], &d[5]};
  cmdb_node_desc_t *kids2[] = {&d[3]}, *kids3[] = {&d[4]}, *kids5[] = {&d[6]};
  for (int i = 0; i < 7; ++i) d[i].gid = 100 + i;
  d[0].nchild = 3, d[0].children = kids0;
  d[2].nchild = 1, d[2].children = kids2, d[2].kind = 0xFA;  // kind 10 in the low bits: not descended
  d[3].nchild = 1, d[3].children = kids3;
  d[5].nchild = 1, d[5].children = kids5;
  std::vector<std::vector<uintptr_t>> seen;
  auto visitor = [](cmdb_node_desc_t* desc, int index, uintptr_t parent, uintptr_t* own, void* ctx) {
    static_cast<std::vector<std::vector<uintptr_t>>*>(ctx)->push_back({desc->gid, uintptr_t(index), parent, *own});
    *own = desc->gid;
    return desc->gid == 106 ? -7 : 0;
  };
  EXPECT_EQ(-7, tree::walk_descriptors(&d[0], visitor, &seen));
  EXPECT_EQ((std::vector<std::vector<uintptr_t>>{
                {100, 0, 0, 0}, {101, 0, 100, 0}, {102, 1, 100, 0}, {105, 2, 100, 0}, {106, 0, 105, 0}}),
            seen);
  EXPECT_EQ(-1, tree::walk_descriptors(nullptr, visitor, &seen));
  EXPECT_EQ(-1, tree::walk_descriptors(&d[0], nullptr, &seen));
  kids0[1] = nullptr;  // a null child ends the walk as a failure
  EXPECT_EQ(-1, tree::walk_descriptors(&d[0], [](cmdb_node_desc_t*, int, uintptr_t, uintptr_t*, void*) { return 0; },
                                       nullptr));
}

TEST(TreeNodeTest, ExportedDescriptors) {
  const std::pair<const cmdb_node_desc_t*, std::vector<std::pair<int, uint8_t>>> cases[] = {
      {&__cli_domain_node, {{16, 91}, {24, 0x41}, {29, 0x10}, {30, 2}, {35, 0x08}, {81, 1}, {86, 1}}},
      {&__cli_fqdn_node, {{16, 92}, {24, 2}, {29, 0x02}, {30, 5}, {34, 0x04}, {35, 0x10}, {81, 1}, {86, 1}}}};
  for (auto& [d, bytes] : cases) {
    uint8_t want[128] = {}, got[128];
    for (auto& [off, v] : bytes) want[off] = v;
    memcpy(got, d, 128);
    memset(got, 0, 16);  // the name and help pointers
    EXPECT_EQ(0, memcmp(want, got, 128)) << d->name;
  }
  EXPECT_STREQ("config domain objects", __cli_domain_node.help);
  EXPECT_STREQ("domain server name", __cli_fqdn_node.help);
}

}  // namespace
