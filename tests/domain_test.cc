// Domains: lookups by id and by name in every search mode, iteration with the
// current domain switched, root entities by scope, and the id index re-sort.
#include <gtest/gtest.h>
#include <strings.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/test_support.h"
#include "tests/tree_fixture.h"
#include "tree/tree_internal.h"

namespace {
using gk::test::captured_log;
using gk::test::map_region_file;
using gk::test::NodeSpace;

// Allocator blocks come from a private allocator region per test.
class DomainTest : public ::testing::Test {
  gk::test::AllocRegion alloc_;
};

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

TEST_F(DomainTest, NoDomains) {
  EXPECT_EQ(-1, __cmdb_find_find_last_domain_index());  // not mapped
  Domains d;
  uint32_t count = 99;
  EXPECT_EQ(0u, cmf_shm_find_last_domain_id(&count));
  EXPECT_EQ(0u, count);
  EXPECT_EQ(-1, __cmdb_find_find_last_domain_index());
  EXPECT_EQ(-1, __cmdb_find_domain_by_id(5, 1));
  EXPECT_EQ(0, __cmdb_find_domain_by_id(5, 2));
  cmf_set_cur_domain_id(42);
  int calls = 0;
  auto visitor = [](uint32_t, uintptr_t arg) { return ++*reinterpret_cast<int*>(arg); };
  EXPECT_EQ(0, cmf_iterate_all_domain(visitor, reinterpret_cast<uintptr_t>(&calls)));
  EXPECT_EQ(0, cmf_iterate_all_domain_until_nz(visitor, reinterpret_cast<uintptr_t>(&calls)));
  EXPECT_EQ(0, calls);
  EXPECT_EQ(42u, cmf_get_cur_domain_id());
}

TEST_F(DomainTest, LookupsByIdAndByNameInEveryMode) {
  Domains d;
  d.add("sales", 30), d.add("finance", 10), d.add("lab", 20), d.add("Root", 40);
  const int by_id[][4] = {{10, 1, 0, 0}, {20, 2, 1, 1}, {40, 3, 3, 3}, {5, -1, -1, 0}, {35, -1, -1, 3}, {99, -1, -1, 4}};
  for (auto& [id, mode0, mode1, mode2] : by_id) {
    EXPECT_EQ(mode0, __cmdb_find_domain_by_id(id, 0)) << id;
    EXPECT_EQ(mode1, __cmdb_find_domain_by_id(id, 1)) << id;
    EXPECT_EQ(mode2, __cmdb_find_domain_by_id(id, 7)) << id;
  }
  const std::pair<const char*, std::vector<int>> by_name[] = {  // id, then modes 0, 1 and 2
      {"FINANCE", {10, 1, 0, 0}}, {"root", {40, 3, 2, 2}}, {"Lab", {20, 2, 1, 1}}, {"aardvark", {0, -1, -1, 0}},
      {"m", {0, -1, -1, 2}},      {"zeta", {0, -1, -1, 4}}};
  for (auto& [name, want] : by_name) {
    EXPECT_EQ(static_cast<uint32_t>(want[0]), cmf_shm_find_domain_id(name)) << name;
    for (int mode = 0; mode < 3; ++mode) EXPECT_EQ(want[1 + mode], __cmdb_find_domain_by_name(name, mode)) << name;
  }
  uint32_t count = 0;
  EXPECT_EQ(40u, cmf_shm_find_last_domain_id(&count));  // last in storage order
  EXPECT_EQ(4u, count);
  EXPECT_STREQ("lab", cmf_shm_find_domain_name(20));
  EXPECT_EQ(nullptr, cmf_shm_find_domain_name(21));
  char buf[16];
  memset(buf, 'x', sizeof buf);
  EXPECT_EQ(0, cmf_shm_get_domain_name(buf, 4, 10));
  EXPECT_EQ(0, memcmp("fin\0xxxx", buf, 8));
  EXPECT_EQ(-1, cmf_shm_get_domain_name(buf, 4, 11));
  uint32_t id = 0;
  EXPECT_EQ(0, cmf_shm_domain_info(1, buf, 12, &id));
  EXPECT_EQ(0, memcmp("finance\0\0\0\0\0xxxx", buf, 16));  // padded as strncpy pads
  EXPECT_EQ(10u, id);
  for (int recno : {-1, 4}) EXPECT_EQ(-1, cmf_shm_domain_info(recno, buf, 5, &id));
}

TEST_F(DomainTest, IterationSwitchesAndRestoresTheCurrentDomain) {
  Domains d;
  d.add("c", 30), d.add("a", 10), d.add("b", 20);
  struct Seen {
    std::vector<uint32_t> ids;
    bool current_matches = true;
    uint32_t stop_at = 0;
  } seen;
  auto visitor = [](uint32_t id, uintptr_t arg) {
    auto* s = reinterpret_cast<Seen*>(arg);
    s->ids.push_back(id);
    s->current_matches &= cmf_get_cur_domain_id() == id;
    return id == s->stop_at ? static_cast<int>(id) + 1 : 0;
  };
  cmf_set_cur_domain_id(5);
  seen.stop_at = 30;  // the plain form goes on and returns the last result
  EXPECT_EQ(0, cmf_iterate_all_domain(visitor, reinterpret_cast<uintptr_t>(&seen)));
  EXPECT_EQ((std::vector<uint32_t>{30, 10, 20}), seen.ids);  // storage order
  EXPECT_TRUE(seen.current_matches);
  EXPECT_EQ(5u, cmf_get_cur_domain_id());
  seen = {};
  seen.stop_at = 10;
  EXPECT_EQ(11, cmf_iterate_all_domain_until_nz(visitor, reinterpret_cast<uintptr_t>(&seen)));
  EXPECT_EQ((std::vector<uint32_t>{30, 10}), seen.ids);
  EXPECT_EQ(5u, cmf_get_cur_domain_id());
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
  EXPECT_EQ(cmf_ptr_from_shmid(d.table->global_root, 0), cmdb_find_domain_by_name(nullptr));
  EXPECT_EQ(cmf_ptr_from_shmid(d.table->rec[0].root, 0), cmdb_find_domain_by_name("SEVEN"));
  EXPECT_EQ(nullptr, cmdb_find_domain_by_name("eight"));
}

TEST_F(DomainTest, IdIndexResortedByAnotherProcess) {
  Domains d;
  for (uint32_t id : {50u, 10u, 40u, 20u, 30u}) d.add("d" + std::to_string(id), id);
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

TEST_F(DomainTest, DamagedIndexesAreNotFollowed) {
  Domains d;
  d.add("a", 1), d.add("b", 2);
  d.by_id[1] = 9;  // a record past the count
  d.by_name[0] = 0xFFFFFFFFu;
  EXPECT_EQ(-1, __cmdb_find_domain_by_id(2, 0));
  EXPECT_EQ(-1, __cmdb_find_domain_by_id(3, 2));
  EXPECT_EQ(-1, __cmdb_find_domain_by_name("a", 0));
  cmf_shm_resolve_alldomain();  // left as it is
  EXPECT_EQ(9u, d.by_id[1]);
  d.table->count = -5;
  EXPECT_EQ(-1, __cmdb_find_find_last_domain_index());
  EXPECT_EQ(0, __cmdb_find_domain_by_id(1, 2));
}

}  // namespace

// Counts in shared memory are bounded by what holds them: a record count past
// the `domain` mapping, or a root block count past its allocator block, never
// sends a lookup outside either.
TEST_F(DomainTest, CountsPastTheirMappingOrBlockAreBounded) {
  Domains d;
  NodeSpace ns;
  const cmdb_node_t* node = ns.add({40, 4, 0, 4, 0, 0, 0});
  d.add("alpha", 7, Domains::root({{40, 0x10001}}));
  d.table->global_root = Domains::root({{40, 0x20001}});
  auto* global = static_cast<cmdb_root_block_t*>(cmf_ptr_from_shmid(d.table->global_root, 1));
  global->count = 0xFFFF;  // its 32-byte block holds three entries
  const uint32_t* slot = cmdb_find_domain_entity(global, node);
  if (slot != nullptr) {
    EXPECT_LT(reinterpret_cast<const char*>(slot), reinterpret_cast<const char*>(global) + 32);
  }
  global->count = 1;
  d.table->count = 0x7FFFFFF0;  // the mapping holds a few dozen records
  uint32_t count = 0;
  cmf_shm_find_last_domain_id(&count);
  EXPECT_LT(count, 64u);
  EXPECT_GE(count, 1u);
  char name[16];
  EXPECT_EQ(-1, cmf_shm_domain_info(1 << 20, name, sizeof name, nullptr));
  int visited = 0;
  cmf_iterate_all_domain([](uint32_t, uintptr_t arg) { return ++*reinterpret_cast<int*>(arg), 0; },
                         reinterpret_cast<uintptr_t>(&visited));
  EXPECT_EQ(static_cast<int>(count), visited);
}
