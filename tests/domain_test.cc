// Domains: lookups by id and by name, the search modes, iteration with the
// current domain switched, root entities by scope, and the id index re-sort.
#include <gtest/gtest.h>
#include <string.h>
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

// The three domain sub-regions for `capacity` domains, filled the way the
// writing processes keep them: both indexes sorted, records in storage order.
struct Domains {
  explicit Domains(int capacity) : capacity(capacity) {
    table = static_cast<cmdb_domain_table_t*>(map_region_file("domain", capacity * 264 + 12));
    by_id = static_cast<uint32_t*>(map_region_file("domid_index", capacity * 4));
    by_name = static_cast<uint32_t*>(map_region_file("domname_index", capacity * 4));
    cmdb.domain = table;
    cmdb.domid_index = by_id;
    cmdb.domname_index = by_name;
    table->global_root = make_root({});
  }
  ~Domains() {
    cmdb.domain = cmdb.domid_index = cmdb.domname_index = nullptr;
    ::munmap(table, capacity * 264 + 12);
    ::munmap(by_id, capacity * 4);
    ::munmap(by_name, capacity * 4);
  }
  // A root block holding (gid, shmid) entries; gids ascending.
  static uint32_t make_root(const std::vector<std::pair<uint16_t, uint32_t>>& entries) {
    uint32_t shmid = 0;
    auto* r = static_cast<cmdb_root_block_t*>(cmf_shm_alloc(4 + 8 * static_cast<uint32_t>(entries.size()), &shmid));
    for (auto& [gid, slot] : entries) r->entry[r->count++] = {gid, 0, slot};
    return shmid;
  }
  void add(const char* name, uint32_t id, uint32_t root = 0) {
    const int n = table->count;
    strcpy(table->rec[n].name, name);
    table->rec[n].id = id;
    table->rec[n].root = root;
    table->count = n + 1;
    std::vector<uint32_t> ids(by_id, by_id + n), names(by_name, by_name + n);
    ids.push_back(static_cast<uint32_t>(n));
    names.push_back(static_cast<uint32_t>(n));
    std::sort(ids.begin(), ids.end(), [&](uint32_t a, uint32_t b) { return table->rec[a].id < table->rec[b].id; });
    std::sort(names.begin(), names.end(),
              [&](uint32_t a, uint32_t b) { return strcasecmp(table->rec[a].name, table->rec[b].name) < 0; });
    std::copy(ids.begin(), ids.end(), by_id);
    std::copy(names.begin(), names.end(), by_name);
  }
  int capacity;
  cmdb_domain_table_t* table;
  uint32_t* by_id;
  uint32_t* by_name;
};

TEST(DomainTest, NoDomains) {
  EXPECT_EQ(-1, __cmdb_find_find_last_domain_index());  // not even mapped
  Domains d(16);
  uint32_t count = 99;
  EXPECT_EQ(0u, cmf_shm_find_last_domain_id(&count));
  EXPECT_EQ(0u, count);
  EXPECT_EQ(0u, cmf_shm_find_last_domain_id(nullptr));
  EXPECT_EQ(-1, __cmdb_find_find_last_domain_index());
  EXPECT_EQ(0, cmf_shm_domain_size());
  for (int mode : {0, 1}) EXPECT_EQ(-1, __cmdb_find_domain_by_id(5, mode));
  EXPECT_EQ(0, __cmdb_find_domain_by_id(5, 2));
  EXPECT_EQ(0, __cmdb_find_domain_by_name("x", 7));
  cmf_set_cur_domain_id(42);
  int calls = 0;
  auto visitor = [](uint32_t, uintptr_t arg) { return ++*reinterpret_cast<int*>(arg); };
  EXPECT_EQ(0, cmf_iterate_all_domain(visitor, reinterpret_cast<uintptr_t>(&calls)));
  EXPECT_EQ(0, cmf_iterate_all_domain_until_nz(visitor, reinterpret_cast<uintptr_t>(&calls)));
  EXPECT_EQ(0, calls);
  EXPECT_EQ(42u, cmf_get_cur_domain_id());
}

TEST(DomainTest, SearchModesById) {
  Domains d(16);
  // Storage order differs from id order.
  d.add("sales", 30);
  d.add("finance", 10);
  d.add("lab", 20);
  d.add("root", 40);
  struct {
    uint32_t id;
    int mode0, mode1, mode2;
  } cases[] = {{10, 1, 0, 0}, {20, 2, 1, 1}, {30, 0, 2, 2}, {40, 3, 3, 3},
               {5, -1, -1, 0}, {15, -1, -1, 1}, {35, -1, -1, 3}, {99, -1, -1, 4}};
  for (auto& c : cases) {
    EXPECT_EQ(c.mode0, __cmdb_find_domain_by_id(c.id, 0)) << c.id;
    EXPECT_EQ(c.mode1, __cmdb_find_domain_by_id(c.id, 1)) << c.id;
    EXPECT_EQ(c.mode2, __cmdb_find_domain_by_id(c.id, 2)) << c.id;
    EXPECT_EQ(c.mode2, __cmdb_find_domain_by_id(c.id, 9)) << c.id;
  }
  uint32_t count = 0;
  EXPECT_EQ(40u, cmf_shm_find_last_domain_id(&count));  // last in storage order
  EXPECT_EQ(4u, count);
  EXPECT_EQ(3, __cmdb_find_find_last_domain_index());
  EXPECT_STREQ("lab", cmf_shm_find_domain_name(20));
  EXPECT_EQ(nullptr, cmf_shm_find_domain_name(21));
}

TEST(DomainTest, NamesIgnoreCase) {
  Domains d(16);
  d.add("domain1", 11);
  d.add("Beta", 12);
  d.add("alpha", 13);
  struct {
    const char* name;
    uint32_t id;
    int mode0, mode1, mode2;
  } cases[] = {{"DOMAIN1", 11, 0, 2, 2}, {"beta", 12, 1, 1, 1}, {"ALPHA", 13, 2, 0, 0},
               {"aardvark", 0, -1, -1, 0}, {"c", 0, -1, -1, 2}, {"zeta", 0, -1, -1, 3}, {"", 0, -1, -1, 0}};
  for (auto& c : cases) {
    EXPECT_EQ(c.id, cmf_shm_find_domain_id(c.name)) << c.name;
    EXPECT_EQ(c.mode0, __cmdb_find_domain_by_name(c.name, 0)) << c.name;
    EXPECT_EQ(c.mode1, __cmdb_find_domain_by_name(c.name, 1)) << c.name;
    EXPECT_EQ(c.mode2, __cmdb_find_domain_by_name(c.name, 2)) << c.name;
  }
  EXPECT_EQ(0u, cmf_shm_find_domain_id(nullptr));
  EXPECT_EQ(-1, __cmdb_find_domain_by_name(nullptr, 2));
}

TEST(DomainTest, NamesCopiedIntoCallerBuffers) {
  Domains d(16);
  d.add("finance", 7);
  char buf[16];
  memset(buf, 'x', sizeof buf);
  EXPECT_EQ(0, cmf_shm_get_domain_name(buf, 4, 7));
  EXPECT_EQ(0, memcmp("fin\0xxxx", buf, 8));
  memset(buf, 'x', sizeof buf);
  EXPECT_EQ(0, cmf_shm_get_domain_name(buf, 12, 7));
  EXPECT_EQ(0, memcmp("finance\0\0\0\0\0xxxx", buf, 16));  // padded like strncpy
  EXPECT_EQ(-1, cmf_shm_get_domain_name(buf, 12, 8));
  EXPECT_EQ(0, cmf_shm_get_domain_name(buf, 0, 7));  // nothing to write into
  uint32_t id = 0;
  memset(buf, 'x', sizeof buf);
  EXPECT_EQ(0, cmf_shm_domain_info(0, buf, 5, &id));
  EXPECT_EQ(0, memcmp("fina\0x", buf, 6));
  EXPECT_EQ(7u, id);
  EXPECT_EQ(0, cmf_shm_domain_info(0, nullptr, 5, nullptr));
  for (int recno : {-1, 1, 1 << 30}) EXPECT_EQ(-1, cmf_shm_domain_info(recno, buf, 5, &id));
}

TEST(DomainTest, IterationSwitchesAndRestoresTheCurrentDomain) {
  Domains d(16);
  d.add("c", 30);
  d.add("a", 10);
  d.add("b", 20);
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
  EXPECT_EQ(0, cmf_iterate_all_domain(visitor, reinterpret_cast<uintptr_t>(&seen)));
  EXPECT_EQ((std::vector<uint32_t>{30, 10, 20}), seen.ids);  // storage order
  EXPECT_TRUE(seen.current_matches);
  EXPECT_EQ(5u, cmf_get_cur_domain_id());

  seen = {};
  seen.stop_at = 10;
  EXPECT_EQ(11, cmf_iterate_all_domain_until_nz(visitor, reinterpret_cast<uintptr_t>(&seen)));
  EXPECT_EQ((std::vector<uint32_t>{30, 10}), seen.ids);
  EXPECT_EQ(5u, cmf_get_cur_domain_id());

  seen = {};
  seen.stop_at = 30;  // the plain form keeps going and returns the last result
  EXPECT_EQ(0, cmf_iterate_all_domain(visitor, reinterpret_cast<uintptr_t>(&seen)));
  EXPECT_EQ(3u, seen.ids.size());
}

TEST(DomainTest, RootEntitiesByScope) {
  NodeSpace ns;
  ns.add({100, 4, 0, 4, 0, 0, 0});  // global
  ns.add({200, 4, 0, 4, 0, 0, 2});  // per domain
  ns.add({300, 4, 0, 4, 0, 0, 3});  // per domain, also global
  ns.add({400, 4, 0, 4, 0, 0, 2});  // per domain, in no root block
  Domains d(16);
  d.table->global_root = Domains::make_root({{100, 0x1001}, {200, 0x1002}, {300, 0x1003}});
  d.add("seven", 7, Domains::make_root({{100, 0x7001}, {200, 0x7002}, {300, 0x7003}}));
  auto slot = [](uint32_t domain, uint32_t gid) {
    uint32_t* s = cmdb_find_root_entity(domain, gid);
    return s == nullptr ? 0u : *s;
  };
  gk::test::clear_log();
  EXPECT_EQ(0x1001u, slot(7, 100));  // the domain given is ignored
  EXPECT_EQ(0x1001u, slot(0, 100));
  EXPECT_EQ(0x1001u, slot(99, 100));
  EXPECT_EQ(0x7002u, slot(7, 200));
  EXPECT_EQ(0x7003u, slot(7, 0x1012C));  // gid 300 in the low 16 bits
  EXPECT_EQ(0x1003u, slot(0, 300));
  EXPECT_EQ(0u, slot(8, 200));  // no such domain
  EXPECT_EQ(0u, slot(7, 400));  // no root entry
  EXPECT_EQ(0u, slot(7, 500));  // no node
  EXPECT_EQ("", captured_log());
  EXPECT_EQ(0u, slot(0, 200));
  EXPECT_EQ(0u, slot(0, 400));
  const std::string tail = std::to_string(getpid()) + "," + program_invocation_short_name + "\n";
  EXPECT_EQ("domain_id is not set for domain setting 200. pid=" + tail +
                "domain_id is not set for domain setting 400. pid=" + tail,
            captured_log());
  // Root blocks by name: null names the global context.
  EXPECT_EQ(cmf_ptr_from_shmid(d.table->global_root, 0), cmdb_find_domain_by_name(nullptr));
  EXPECT_EQ(cmf_ptr_from_shmid(d.table->rec[0].root, 0), cmdb_find_domain_by_name("SEVEN"));
  EXPECT_EQ(nullptr, cmdb_find_domain_by_name("eight"));
  EXPECT_EQ(nullptr, cmdb_find_domain_entity(nullptr, tree::find_node(100)));
}

TEST(DomainTest, ResortOfTheIdIndexSeenByAnotherProcess) {
  Domains d(16);
  for (uint32_t id : {50u, 10u, 40u, 20u, 30u}) d.add(("d" + std::to_string(id)).c_str(), id);
  std::reverse(d.by_id, d.by_id + 5);
  std::vector<uint32_t> names(d.by_name, d.by_name + 5);
  ASSERT_EQ(0, gk::test::run_child([] {
    cmf_shm_resolve_alldomain();
    return 0;
  }));
  EXPECT_EQ((std::vector<uint32_t>{1, 3, 4, 2, 0}), std::vector<uint32_t>(d.by_id, d.by_id + 5));
  EXPECT_EQ(names, std::vector<uint32_t>(d.by_name, d.by_name + 5));  // untouched
  EXPECT_EQ(2, __cmdb_find_domain_by_id(40, 0));

  std::reverse(d.by_id, d.by_id + 5);
  cmdb.domname_index = nullptr;  // both indexes must be mapped
  cmf_shm_resolve_alldomain();
  EXPECT_EQ((std::vector<uint32_t>{0, 2, 4, 3, 1}), std::vector<uint32_t>(d.by_id, d.by_id + 5));
}

TEST(DomainTest, DamagedIndexesAreNotFollowed) {
  Domains d(16);
  d.add("a", 1);
  d.add("b", 2);
  d.by_id[1] = 9;  // names a record past the count
  d.by_name[0] = 0xFFFFFFFFu;
  EXPECT_EQ(-1, __cmdb_find_domain_by_id(2, 0));
  EXPECT_EQ(-1, __cmdb_find_domain_by_id(3, 2));
  EXPECT_EQ(-1, __cmdb_find_domain_by_name("a", 0));
  EXPECT_EQ(nullptr, cmdb_find_domain_by_id(2));
  cmf_shm_resolve_alldomain();  // left as it is
  EXPECT_EQ(9u, d.by_id[1]);
  d.table->count = -5;
  EXPECT_EQ(-1, __cmdb_find_find_last_domain_index());
  EXPECT_EQ(0, __cmdb_find_domain_by_id(1, 2));
}

}  // namespace
