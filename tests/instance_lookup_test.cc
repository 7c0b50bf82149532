// Lookups over instance blocks: child instances, per-entry and per-object child
// tables, the entry locator, devices, services and the filter match.
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "tests/test_support.h"
#include "tests/tree_fixture.h"

namespace {
using gk::test::captured_log;
using gk::test::NodeSpace;
using gk::test::TableFixture;

// A child instance block of `kind` naming `gid` where that kind keeps it.
uint32_t make_child(uint32_t kind, uint16_t gid) {
  uint32_t shmid = 0;
  auto* w = static_cast<uint32_t*>(cmf_shm_alloc(32, &shmid));
  w[0] = kind;
  if (kind == CMDB_BLK_OTHER)
    w[1] = gid;
  else
    w[2] = gid | 0xABCD0000u;  // only the low 16 bits name the gid
  return shmid;
}

TEST(InstanceLookupTest, ChildOfAnObject) {
  uint32_t shmid = 0;
  auto* obj = static_cast<cmdb_object_block_t*>(cmf_shm_alloc(64, &shmid));
  obj->kind = CMDB_BLK_OBJECT;
  obj->nchild = 6;
  const uint32_t children[] = {0, make_child(9, 0), make_child(CMDB_BLK_TABLE, 11), make_child(CMDB_BLK_OTHER, 12),
                               make_child(CMDB_BLK_OBJECT, 13), make_child(CMDB_BLK_OBJECT, 11)};
  memcpy(obj->child, children, sizeof children);
  struct {
    uint32_t gid;
    int slot;  // -1: none
  } cases[] = {{11, 2}, {12, 3}, {13, 4}, {0x1000D, 4}, {14, -1}, {0xABCD, -1}};
  for (auto& c : cases) {
    EXPECT_EQ(c.slot < 0 ? nullptr : &obj->child[c.slot], cmdb_find_child_obj(obj, c.gid, nullptr, 0)) << c.gid;
    EXPECT_EQ(c.slot < 0 ? nullptr : &obj->child[c.slot], cmdb_find_child_entity(shmid, c.gid, nullptr)) << c.gid;
  }
  EXPECT_EQ(&obj->child[1], cmdb_find_child_obj(obj, 0, nullptr, 0));  // a block of unknown kind names gid 0
  // Per-object child tables go by the u16 at offset 8 and return the block.
  EXPECT_EQ(cmf_ptr_from_shmid(children[2], 0), cmf_find_obj_child_table(obj, 11));
  EXPECT_EQ(cmf_ptr_from_shmid(children[4], 0), cmf_find_obj_child_table(obj, 13));
  EXPECT_EQ(nullptr, cmf_find_obj_child_table(obj, 12));  // kind 7 keeps its gid elsewhere
  EXPECT_EQ(nullptr, cmf_find_obj_child_table(nullptr, 11));
  EXPECT_EQ(nullptr, cmdb_find_child_obj(nullptr, 11, nullptr, 0));
  EXPECT_EQ(nullptr, cmdb_find_child_entity(0, 11, nullptr));
  obj->kind = CMDB_BLK_INDEX;
  EXPECT_EQ(nullptr, cmdb_find_child_obj(obj, 11, nullptr, 0));
}

TEST(InstanceLookupTest, ChildOfATableEntryByPositionAndByKey) {
  NodeSpace ns;
  TableFixture t(ns, 60, 0, 4, 0, 8, 2, 8);
  for (uint32_t k : {100u, 200u, 300u}) ASSERT_EQ(0, t.insert_at(t.table()->count, &k));
  auto* e1 = static_cast<cmdb_entry_t*>(cmf_get_table_entry(t.table(), 1));
  e1->child[0] = make_child(CMDB_BLK_TABLE, 21);
  e1->child[1] = make_child(CMDB_BLK_OBJECT, 22);
  gk::test::clear_log();
  EXPECT_EQ(&e1->child[1], cmdb_find_child_obj(t.table(), 22, nullptr, 1));
  const uint32_t k200 = 200, k999 = 999;
  EXPECT_EQ(&e1->child[0], cmdb_find_child_obj(t.table(), 21, &k200, 0));  // the key wins over the position
  EXPECT_EQ(&e1->child[0], cmdb_find_child_entity(t.table_shmid, 21, &k200));
  EXPECT_EQ(nullptr, cmdb_find_child_obj(t.table(), 21, &k999, 1));
  EXPECT_EQ(nullptr, cmdb_find_child_obj(t.table(), 21, nullptr, 0));
  EXPECT_EQ("", captured_log());
  // Count 3: position 3 and -1 quietly find nothing, position 4 warns once.
  EXPECT_EQ(nullptr, cmdb_find_child_obj(t.table(), 21, nullptr, 3));
  EXPECT_EQ(nullptr, cmdb_find_child_obj(t.table(), 21, nullptr, -1));
  EXPECT_EQ("", captured_log());
  EXPECT_EQ(nullptr, cmdb_find_child_obj(t.table(), 21, nullptr, 4));
  EXPECT_EQ("Warn in cmf_shm_api,cmdb_find_child_obj,205, table60,cnt=3,pos=4.\n", captured_log());
  // Without a usable index a keyed lookup finds nothing, quietly.
  gk::test::clear_log();
  const uint32_t index = t.table()->index;
  t.table()->index = 0;
  EXPECT_EQ(nullptr, cmdb_find_child_obj(t.table(), 21, &k200, 0));
  t.table()->index = t.table_shmid;
  EXPECT_EQ(nullptr, cmdb_find_child_obj(t.table(), 21, &k200, 0));
  EXPECT_EQ("", captured_log());
  t.table()->index = index;

  EXPECT_EQ(cmf_ptr_from_shmid(e1->child[1], 0), cmf_find_table_child_table(t.table(), 1, 22));
  EXPECT_EQ(nullptr, cmf_find_table_child_table(t.table(), 1, 23));
  for (int pos : {3, -1, 1 << 30}) EXPECT_EQ(nullptr, cmf_find_table_child_table(t.table(), pos, 22)) << pos;
}

TEST(InstanceLookupTest, EntryLocator) {
  uint32_t roots[6] = {1, 0, 0, 0, 0, 0};
  std::vector<uint32_t> locators;
  for (int g = 0; g < 5; ++g) {
    auto* b = static_cast<cmdb_locator_block_t*>(cmf_shm_alloc(12 + 16 * 16, &roots[1 + g]));
    b->kind = CMDB_BLK_LOCATOR;
    b->capacity = 16;
    if (g == 2)
      for (uint32_t i = 0; i < 5; ++i) b->rec[b->count++] = {0x02000000u | (i * 3 + 1), 0x10000u + i, i, ~i};
  }
  cmdb.index_roots = roots;
  cmdb_locator_rec_t r = cmdb_entry_from_index(0x02000007);
  EXPECT_EQ(0x02000007u, r.ngid);
  EXPECT_EQ(0x10002u, r.shmid);
  EXPECT_EQ(2u, r.w2);
  EXPECT_EQ(~2u, r.w3);
  auto zero = [](cmdb_locator_rec_t z) { return z.ngid == 0 && z.shmid == 0 && z.w2 == 0 && z.w3 == 0; };
  EXPECT_TRUE(zero(cmdb_entry_from_index(0x02000008)));  // absent
  EXPECT_TRUE(zero(cmdb_entry_from_index(0x01000007)));  // empty group
  EXPECT_TRUE(zero(cmdb_entry_from_index(0x05000007)));  // no such group
  EXPECT_TRUE(zero(cmdb_entry_from_index(0xFF000007)));
  roots[3] = 0;
  EXPECT_TRUE(zero(cmdb_entry_from_index(0x02000007)));  // group block missing
  cmdb.index_roots = nullptr;
  EXPECT_TRUE(zero(cmdb_entry_from_index(0x02000007)));
}

TEST(InstanceLookupTest, DevicesByIdThroughTheOrderArray) {
  EXPECT_EQ(nullptr, cmf_find_device_entry(1));  // not mapped
  auto* d = static_cast<cmdb_device_table_t*>(gk::test::map_region_file("devices", 11332));
  cmdb.devices = d;
  EXPECT_EQ(nullptr, cmf_find_device_entry(0));  // count 0
  const uint32_t ids[] = {500, 20, 7000, 300, 1};  // records 1 to 5
  for (int i = 0; i < 5; ++i) memcpy(d->rec[i], &ids[i], 4);
  const uint8_t order[] = {5, 2, 4, 1, 3};
  memcpy(d->order, order, 5);
  d->count = 5;
  for (int i = 0; i < 5; ++i) EXPECT_EQ(d->rec[i], cmf_find_device_entry(ids[i])) << ids[i];
  for (uint32_t id : {0u, 2u, 499u, 7001u}) EXPECT_EQ(nullptr, cmf_find_device_entry(id)) << id;
  d->order[2] = 0;  // damaged: record numbers run 1 to 64
  EXPECT_EQ(nullptr, cmf_find_device_entry(300));
  d->order[2] = 65;
  EXPECT_EQ(nullptr, cmf_find_device_entry(300));
  d->order[2] = 4;
  d->count = 0xFFFF;  // bounded by the 64 records
  EXPECT_EQ(nullptr, cmf_find_device_entry(12345));
  cmdb.devices = nullptr;
}

TEST(InstanceLookupTest, ServicesByGid) {
  EXPECT_EQ(nullptr, cmf_find_service_by_gid(5));
  std::vector<uint8_t> services(CMDB_SERVICES * CMDB_SERVICE_SIZE);
  for (uint32_t i = 0; i < CMDB_SERVICES; ++i) {
    uint32_t gid = 10 + 7 * i;
    memcpy(&services[i * CMDB_SERVICE_SIZE], &gid, 4);
  }
  cmdb.services = services.data();
  for (uint32_t i : {0u, 1u, 81u, 163u})
    EXPECT_EQ(&services[i * CMDB_SERVICE_SIZE], cmf_find_service_by_gid(10 + 7 * i)) << i;
  for (uint32_t gid : {0u, 11u, 10u + 7 * 164}) EXPECT_EQ(nullptr, cmf_find_service_by_gid(gid)) << gid;
  cmdb.services = nullptr;
}

TEST(InstanceLookupTest, FilterMatch) {
  NodeSpace ns;
  // Table 70 with direct attributes; table 80 the same with case folding.
  struct Attr {
    uint16_t gid;
    uint8_t type;
    uint16_t size, offset;
  } attrs[] = {{71, 5, 8, 0}, {72, 2, 8, 8}, {73, 13, 8, 16}, {74, 0, 4, 24}};
  uint8_t data_part[28] = {};
  strcpy(reinterpret_cast<char*>(data_part), "Name");
  strcpy(reinterpret_cast<char*>(data_part) + 8, "Host");
  strcpy(reinterpret_cast<char*>(data_part) + 16, "Zone");
  data_part[24] = 0x2A, data_part[27] = 0x01;
  std::vector<std::string> outcomes;
  for (uint8_t flags : {0x00, 0x10}) {
    const uint16_t base = flags ? 80 : 70;
    cmdb_node_t* table = ns.add({base, 2, 0, 28, 0, 5, 0, flags});
    for (auto& a : attrs) ns.add({static_cast<uint16_t>(a.gid - 70 + base), 5, a.type, a.size, a.offset}, table);
    cmdb_node_t* group = ns.add({static_cast<uint16_t>(base + 5), 1, 0, 28, 0, 1}, table);
    ns.add({static_cast<uint16_t>(base + 6), 5, 0, 4, 24}, group);  // a grandchild
    uint32_t shmid = 0;
    auto* t = static_cast<cmdb_table_block_t*>(cmf_shm_alloc(32 + 2 * 36, &shmid));
    t->kind = CMDB_BLK_TABLE, t->gid = base, t->count = 2;
    memcpy(cmf_get_entry_data(t, 1), data_part, sizeof data_part);
    struct {
      uint16_t attr;
      std::vector<uint8_t> value;
    } filters[] = {{71, {'N', 'a', 'm', 'e', 0}}, {71, {'n', 'a', 'm', 'e', 0}}, {72, {'h', 'O', 's', 't', 0}},
                   {72, {'H', 'o', 's', 't', 0}}, {73, {'z', 'o', 'n', 'e', 0}}, {73, {'Z', 'o', 'n', 'x', 0}},
                   {74, {0x2A, 0, 0, 1}},         {74, {0x2A, 0, 0, 2}},         {76, {0x2A, 0, 0, 1}}};
    std::string row;
    for (auto& f : filters) {
      std::vector<uint8_t> filter(8 + f.value.size());
      const uint16_t gid = static_cast<uint16_t>(f.attr - 70 + base);
      memcpy(filter.data(), &gid, 2);
      memcpy(filter.data() + 8, f.value.data(), f.value.size());
      row += std::to_string(cmf_shm_match_filter(t, 1, filter.data()));
      EXPECT_EQ(0, cmf_shm_match_filter(t, 2, filter.data()));
      EXPECT_EQ(0, cmf_shm_match_filter(t, -1, filter.data()));
    }
    outcomes.push_back(row);
  }
  // Type 5 is always case-sensitive; types 2 and 13 fold case with flag 0x10;
  // others compare bytes; a grandchild never matches.
  EXPECT_EQ("100100100", outcomes[0]);
  EXPECT_EQ("101110100", outcomes[1]);
}

}  // namespace
