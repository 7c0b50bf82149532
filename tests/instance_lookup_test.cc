// Lookups over instance blocks: child instances, child tables, the entry
// locator, devices, services and the filter match.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/test_support.h"
#include "tests/tree_fixture.h"

namespace {
using gk::test::captured_log;
using gk::test::NodeSpace;

// Allocator blocks come from a private allocator region per test.
class InstanceLookupTest : public ::testing::Test {
  gk::test::AllocRegion alloc_;
};

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
    EXPECT_EQ(want, cmdb_find_child_obj(obj, gid, nullptr, 0)) << gid;
    EXPECT_EQ(want, cmdb_find_child_entity(shmid, gid, nullptr)) << gid;
  }
  EXPECT_EQ(cmf_ptr_from_shmid(kids[2], 0), cmf_find_obj_child_table(obj, 11));  // the block itself
  EXPECT_EQ(nullptr, cmf_find_obj_child_table(obj, 12));  // kind 7 keeps its gid elsewhere
  EXPECT_EQ(nullptr, cmdb_find_child_entity(0, 11, nullptr));
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
  EXPECT_EQ(&e1->child[1], cmdb_find_child_obj(t.table(), 22, nullptr, 1));
  EXPECT_EQ(&e1->child[0], cmdb_find_child_obj(t.table(), 21, &k200, 0));  // the key wins over the position
  EXPECT_EQ(&e1->child[0], cmdb_find_child_entity(t.table_shmid, 21, &k200));
  EXPECT_EQ(nullptr, cmdb_find_child_obj(t.table(), 21, &k999, 1));
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

  EXPECT_EQ(cmf_ptr_from_shmid(e1->child[1], 0), cmf_find_table_child_table(t.table(), 1, 22));
  EXPECT_EQ(nullptr, cmf_find_table_child_table(t.table(), 1, 23));
  for (int pos : {3, -1}) EXPECT_EQ(nullptr, cmf_find_table_child_table(t.table(), pos, 22)) << pos;
}

TEST_F(InstanceLookupTest, EntryLocator) {
  uint32_t roots[6] = {1};
  for (int g = 0; g < 5; ++g) {
    auto* b = static_cast<cmdb_locator_block_t*>(cmf_shm_alloc(12 + 16 * 16, &roots[1 + g]));
    b->kind = CMDB_BLK_LOCATOR, b->capacity = 16;
    if (g == 2)
      for (uint32_t i = 0; i < 5; ++i) b->rec[b->count++] = {0x02000000u | (i * 3 + 1), 0x10000u + i, i, ~i};
  }
  cmdb.index_roots = roots;
  cmdb_locator_rec_t r = cmdb_entry_from_index(0x02000007);
  EXPECT_TRUE(r.ngid == 0x02000007u && r.shmid == 0x10002u && r.w2 == 2 && r.w3 == ~2u);
  auto zero = [](uint32_t ngid) {
    cmdb_locator_rec_t z = cmdb_entry_from_index(ngid);
    return z.ngid == 0 && z.shmid == 0 && z.w2 == 0 && z.w3 == 0;
  };
  for (uint32_t ngid : {0x02000008u, 0x01000007u, 0x05000007u, 0xFF000007u}) EXPECT_TRUE(zero(ngid)) << ngid;
  roots[3] = 0;  // group 2's block missing
  EXPECT_TRUE(zero(0x02000007));
  cmdb.index_roots = nullptr;
  EXPECT_TRUE(zero(0x02000007));
}

TEST_F(InstanceLookupTest, DevicesAndServices) {
  EXPECT_EQ(nullptr, cmf_find_device_entry(1));  // not mapped
  auto* d = static_cast<cmdb_device_table_t*>(gk::test::map_region_file("devices", 11332));
  cmdb.devices = d;
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

}  // namespace
