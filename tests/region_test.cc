// Region lifecycle: creation from a schema, attach modes, detach, removal; the
// growable var list; the process handle and the shared header, whose version
// and log threshold every process shares.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>

#include <set>
#include <tuple>
#include <utility>

#include "tests/sample_schema.h"
#include "tests/test_support.h"

namespace {
using gk::test::captured_log;
using gk::test::file_size;
using gk::test::SampleSchema;

const std::string kDir = "/dev/cmdb/";
using gk::test::logged;
bool unmapped() { return gk::test::mappings_of(kDir).empty(); }

template <typename T = uint32_t>
T at(const void* base, size_t off) {
  T v;
  memcpy(&v, static_cast<const uint8_t*>(base) + off, sizeof v);
  return v;
}

bool all_zero(const void* p, size_t n) {
  for (size_t i = 0; i < n; ++i)
    if (static_cast<const uint8_t*>(p)[i] != 0) return false;
  return true;
}

int create(SampleSchema& s, uint32_t platform, std::string* summary = nullptr) {
  int r = 0;
  std::string out = gk::test::capture_stdout([&] { r = gk::test::create_region(s, platform); });
  if (summary != nullptr) *summary = out;
  return r;
}

cmdb_node_t node_at(const void* base, uint32_t off) { return at<cmdb_node_t>(base, off); }

class RegionTest : public ::testing::Test {
 protected:
  void SetUp() override { gk::test::clear_log(); }
  void TearDown() override { cleanup_cmdb_app_core(); }
};
// A region created from the sample schema on platform 3.
class CreatedTest : public RegionTest {
 protected:
  void SetUp() override {
    RegionTest::SetUp();
    ASSERT_EQ(0, create(s, 3));
  }
  SampleSchema s;
};

TEST_F(RegionTest, CreationLaysOutEverySubRegion) {
  // Domain-sized sub-regions follow the platform's capacity for gid 91 (2, 50, 500).
  struct { uint32_t platform; long domain, index, zone; uint32_t slots; } rows[] = {
      {1, 540, 8, 301788, 3}, {3, 13212, 200, 315036, 51}, {8, 132012, 2000, 439236, 501}};
  for (const auto& row : rows) {
    SampleSchema s;
    std::string summary;
    ASSERT_EQ(0, create(s, row.platform, &summary)) << captured_log();
    EXPECT_EQ("total_node=22 <= 1605, 424,4321, node_size=1004, sql=85, ds=164, max_gid=1861\n", summary);
    EXPECT_EQ(std::make_tuple(row.domain, row.index, row.index),
              std::make_tuple(file_size(kDir + "domain"), file_size(kDir + "domid_index"),
                              file_size(kDir + "domname_index")));
    auto zone = gk::test::read_file(kDir + "debug_zone");
    ASSERT_EQ(row.zone, static_cast<long>(zone.size()));
    EXPECT_EQ(row.slots, at(zone.data(), offsetof(cmdb_debug_zone_t, domain_slots)));
    memset(zone.data() + offsetof(cmdb_debug_zone_t, domain_slots), 0, 4);
    EXPECT_TRUE(all_zero(zone.data(), zone.size()));
  }
  struct { const char* name; long len; bool zero; } files[] = {
      {"cmdb_node", 1028, false}, {"cmdb_sql_node", 11220, false}, {"cmdb_datasource", 1314, false},
      {"cmdb_node_index", 7444, false}, {"page", 520, false}, {"cmdb_global", 38216, false},
      {"cmdb_global_rw", 32840, false}, {"cmdb_event", 49800, true}, {"devices", 11332, true},
      {"admin_login_status", 16, true}, {"daemon_status", 104, true}, {"domain", 132012, true}};
  for (const auto& f : files) {
    auto bytes = gk::test::read_file(kDir + f.name);
    EXPECT_EQ(f.len, static_cast<long>(bytes.size())) << f.name;
    EXPECT_TRUE(!f.zero || all_zero(bytes.data(), bytes.size())) << f.name;
  }
  auto page = gk::test::read_file(kDir + "page");
  EXPECT_EQ(std::make_tuple(1u, 64u), std::make_tuple(at(page.data(), 0), at(page.data(), 4)));

  auto global = gk::test::read_file(kDir + "cmdb_global");
  const uint32_t cache0[] = {10, 0, 0, 0, 0, 226, 32, 8192};   // count, lists, num, objsize, slab size
  EXPECT_EQ(0, memcmp(cache0, global.data(), sizeof cache0));
  EXPECT_EQ(1u, at(global.data(), 0x11C));
  std::set<uint32_t> handles;
  for (int k = 0; k < 5; ++k) handles.insert(at(global.data(), 0x120 + 4 * k));
  EXPECT_EQ(5u, handles.size());
  EXPECT_EQ(0u, handles.count(0));
  // Table limits: the kind-2 tables sorted by gid, with this platform's limits.
  ASSERT_EQ(4, at<uint16_t>(global.data(), 0x134));
  const uint32_t tables[] = {91, 100, 130, 346};
  for (int i = 0; i < 4; ++i) {
    const uint32_t g = tables[i];
    const uint32_t rec[] = {g, 0, uint32_t(cmdb_get_table_size(g, 8)), uint32_t(cmdb_get_table_tsize(g, 8)),
                            uint32_t(cmdb_get_table_sz_warning(g, 8))};
    EXPECT_EQ(0, memcmp(rec, global.data() + 0x138 + 20 * i, sizeof rec)) << g;
  }
  EXPECT_EQ(0, memcmp(global.data() + 0xAE8, SampleSchema().service_table, 35424));

  auto rw = gk::test::read_file(kDir + "cmdb_global_rw");
  cmdb_header_t h{};
  h.magic = CMDB_HEADER_MAGIC, h.log_level = 3, h.nodes = 1603, h.max_gid = 1861, h.sql = 85, h.platform = 8;
  EXPECT_EQ(0, memcmp(&h, rw.data(), sizeof h));
  EXPECT_TRUE(all_zero(rw.data() + sizeof h, rw.size() - sizeof h));

  // The creator keeps nothing of the creation but the host's fields: it attaches afresh.
  EXPECT_TRUE(unmapped());
  cmdb_record_t host_only{};
  host_only.platform = 8, host_only.schema = cmdb.schema, host_only.host_total = cmdb.host_total;
  host_only.service_table = cmdb.service_table;
  EXPECT_EQ(0, memcmp(&host_only, &cmdb, sizeof cmdb));
  EXPECT_EQ(0, access("/tmp/cmdb_lock", F_OK));
}

TEST_F(CreatedTest, NodeRecordsFollowTheDescriptors) {
  ASSERT_EQ(0, init_cmdb_app_core(2));
  ASSERT_EQ(CMDB_FLAG_OWNER | CMDB_FLAG_INITIALIZED, cmdb.flags);
  const void* base = cmdb.cmdb_node;
  auto* index = static_cast<const uint32_t*>(cmdb.cmdb_node_index);
  std::set<uint32_t> indexed;
  for (uint32_t g = 0; g < 1861; ++g)
    if (index[g] != 0 && node_at(base, index[g]).gid == g) indexed.insert(g);
  EXPECT_EQ((std::set<uint32_t>{91, 100, 101, 102, 103, 104, 105, 120, 121, 130, 131, 200, 201, 202, 210, 300,
                                301, 346, 347, 348, 349, 350}),
            indexed);   // 211 sits under a kind-10 node: never walked

  // Records lie back to back in walk order; each child slot points back at its parent.
  uint32_t off = 24, count = 0;
  for (; off < 1028; ++count) {
    cmdb_node_t n = node_at(base, off);
    EXPECT_EQ(off, index[n.gid]);
    bool linked = n.parent == 0;
    for (int i = 0; i < (n.parent ? node_at(base, n.parent).nchild : 0); ++i)
      linked |= at(base, n.parent + 24 + 4 * i) == off;
    EXPECT_TRUE(linked) << n.gid;
    off += 24 + 4 * n.nchild + (n.kind == 2 || n.kind == 3 || n.kind == 4 || n.kind == 8 ? n.size : 0);
  }
  EXPECT_EQ(std::make_tuple(1028u, 22u), std::make_tuple(off, count));

  using Row = std::tuple<int, int, int, int, int, int, int, int, int, uint32_t>;
  auto row = [&](uint16_t g) {
    cmdb_node_t n = node_at(base, index[g]);
    return Row{n.default_gid, n.scope, n.kind, n.type, n.flags, n.ds_index, n.nchild, n.size, n.offset, n.parent};
  };
  auto parent = [&](uint16_t g) { return g ? index[g] : 0u; };
  // default gid, scope, kind, type, flags, ds_index, nchild, size, offset, parent
  EXPECT_EQ(Row(0, 1, 2, 0, 0, 0, 0, 256, 0, 0), row(91));
  EXPECT_EQ(Row(0, 2, 1, 0, 0, 0, 3, 40, 0, parent(346)), row(347));
  EXPECT_EQ(Row(0, 3, 2, 0, 0x10, 0, 1, 48, 0, 0), row(100));
  EXPECT_EQ(Row(0, 1, 8, 0, 0x0D, 0, 2, 16, 0, 0), row(200));
  EXPECT_EQ(Row(0, 0, 10, 0, 0, 0, 1, 0, 0, 0), row(210));
  EXPECT_EQ(Row(346, 0, 3, 0, 0, 0, 1, 40, 0, 0), row(120));
  EXPECT_EQ(Row(0, 0, 2, 0, 0x02, 0, 0, 16, 0, 0), row(130));
  EXPECT_EQ(Row(0, 0, 5, 2, 0x03, 1, 0, 64, 0, 0), row(131));

  // Default blocks: copied from the descriptor, or borrowed through the default
  // gid; kind 8 keeps a zero block and leaves its descriptor's defaults alone.
  for (auto [g, byte] : {std::pair{346, 0x46}, {100, 0x10}, {104, 0x04}, {120, 0x46}, {200, 0}}) {
    cmdb_node_t n = node_at(base, index[g]);
    std::vector<uint8_t> expect(n.size, static_cast<uint8_t>(byte));
    EXPECT_EQ(0, memcmp(expect.data(), static_cast<const uint8_t*>(base) + index[g] + 24 + 4 * n.nchild, n.size));
  }
  EXPECT_NE(nullptr, s.system->defaults);

  auto* sql = static_cast<const char*>(cmdb.cmdb_sql_node);
  // The number replaces the long name's first two bytes.
  EXPECT_EQ(std::tuple(130, 1, "tlog", "traffic", 7, "affic_log_long_name"),
            std::tuple(at<uint16_t>(sql, 0), int(sql[2]), std::string(sql + 4), std::string(sql + 36),
                       at<uint16_t>(sql, 68), std::string(sql + 70)));
  EXPECT_EQ(std::make_tuple(131, 0), std::make_tuple(at<uint16_t>(sql, 132), int(sql[134])));
  EXPECT_EQ("event_log_first_long_name_that_runs_past_the_sixty_three_charac", std::string(sql + 136, 63));
  EXPECT_TRUE(all_zero(sql + 132 + 67, 11220 - 132 - 67));
  const uint16_t pairs[] = {6, 300, 346, 300, 100, 301, 200, 301, 201, 301, 202, 301, 91};
  EXPECT_EQ(0, memcmp(pairs, cmdb.cmdb_datasource, sizeof pairs));
  EXPECT_TRUE(all_zero(static_cast<uint8_t*>(cmdb.cmdb_datasource) + sizeof pairs, 1314 - sizeof pairs));
}

TEST_F(RegionTest, GidZeroNodesGetARecordButNoIndexSlot) {
  SampleSchema s;
  s.add_top(s.node("group", 0, 4, 0, 8, 0, {s.node("member", 140, 5, 1, 4, 0)}));
  std::string summary;
  ASSERT_EQ(0, create(s, 3, &summary));
  // Both passes count the gid-0 record, so the node sub-region fits what is written;
  // the node and default-byte totals count only nodes with a gid.
  EXPECT_EQ("total_node=23 <= 1605, 424,4321, node_size=1064, sql=85, ds=164, max_gid=1861\n", summary);
  EXPECT_EQ(24 + 1064, file_size(kDir + "cmdb_node"));
  ASSERT_EQ(0, init_cmdb_app_core(2));
  uint32_t member = static_cast<const uint32_t*>(cmdb.cmdb_node_index)[140];
  uint32_t group = node_at(cmdb.cmdb_node, member).parent;
  EXPECT_EQ(std::make_tuple(0, 4, member), std::make_tuple(int(node_at(cmdb.cmdb_node, group).gid),
                                                           int(node_at(cmdb.cmdb_node, group).kind),
                                                           at(cmdb.cmdb_node, group + 24)));
}

// Writes one byte of a var list in a child attached in `mode`: 0, or 128 + the signal.
int poke(int mode, void* cmdb_record_t::*field) {
  return gk::test::run_child([=] {
    if (init_cmdb_app_core(mode) != 0) return 2;
    signal(SIGSEGV, SIG_DFL);   // a sanitizer's handler would turn the fault into an exit code
    auto* p = static_cast<volatile uint8_t*>(cmdb.*field);
    *p = *p;
    return 0;
  });
}

TEST_F(CreatedTest, ReadersMapDataReadOnlyAndStatusReadWrite) {
  using R = cmdb_record_t;
  for (auto f : {&R::cmdb_node, &R::cmdb_sql_node, &R::cmdb_datasource, &R::cmdb_node_index, &R::page,
                 &R::cmdb_global, &R::domain, &R::domid_index, &R::domname_index, &R::devices})
    for (int mode : {1, 3, 2}) EXPECT_EQ(mode == 2 ? 0 : 128 + SIGSEGV, poke(mode, f)) << mode;
  for (auto f : {&R::cmdb_global_rw, &R::cmdb_event, &R::debug_zone, &R::admin_login_status})
    for (int mode : {1, 3, 2}) EXPECT_EQ(0, poke(mode, f)) << mode;

  // What a reader writes to the shared status, every process sees.
  ASSERT_EQ(0, gk::test::run_child([] {
    if (init_cmdb_app_core(1) != 0 || cmdb.flags != (CMDB_FLAG_ATTACHED | CMDB_FLAG_INITIALIZED)) return 2;
    if (cmdb.daemon_status != nullptr || nCfg_debug_zone != cmdb.debug_zone) return 3;
    static_cast<cmdb_debug_zone_t*>(cmdb.debug_zone)->mail_mode = 4;
    return 0;
  }));
  ASSERT_EQ(0, init_cmdb_app_core(3));
  EXPECT_EQ(std::tuple(uint32_t(CMDB_FLAG_INITIALIZED), 4u), std::tuple(cmdb.flags, orv_mail_mode()));
}

TEST_F(CreatedTest, RepeatedInitChangesNothingAndUnknownModesMapNothing) {
  ASSERT_EQ(0, init_cmdb_app_core(1));
  EXPECT_EQ(520, cmdb.page_map_len);
  cmdb_record_t before = cmdb;
  auto maps = gk::test::mappings_of(kDir);
  for (int mode : {0, 1, 2, 3, 5}) EXPECT_EQ(0, init_cmdb_app_core(mode));
  EXPECT_EQ(0, memcmp(&before, &cmdb, sizeof cmdb));
  EXPECT_EQ(maps, gk::test::mappings_of(kDir));
  cleanup_cmdb_app_core();

  ASSERT_EQ(0, init_cmdb_app_core(5));
  cmdb_record_t expect{};
  expect.flags = CMDB_FLAG_INITIALIZED;
  EXPECT_EQ(0, memcmp(&expect, &cmdb, sizeof cmdb));
  EXPECT_EQ(nullptr, nCfg_debug_zone);
  EXPECT_TRUE(unmapped());
}

TEST_F(RegionTest, InitWithoutLocksFailsOnceThenReturnsZero) {
  EXPECT_EQ(-1, init_cmdb_app_core(1));
  EXPECT_TRUE(logged("Can not get lock, cmf_shm_init,init_cmdb_app_core,"));
  EXPECT_EQ(0, init_cmdb_app_core(1));   // the once flag holds until cleanup
  EXPECT_EQ(0u, cmdb.flags);
  cleanup_cmdb_app_core();
  for (const char* f : {"/tmp/cmdb_lock", "/tmp/shm_lock"}) ASSERT_EQ(0, close(creat(f, 0666)));
  EXPECT_EQ(-1, init_cmdb_app_core(1));   // lock files, but no debug-zone semaphores
  EXPECT_TRUE(logged("Can not init debug_zone rwlock! cmf_shm_init,init_cmdb_app_core,"));
}

TEST_F(CreatedTest, CleanupLeavesNoMappingOrDescriptor) {
  auto fds = gk::test::open_fds();
  for (int mode : {1, 2}) {
    ASSERT_EQ(0, init_cmdb_app_core(mode));
    cmf_shm_read_lock();
    EXPECT_NE(nullptr, cmf_ptr_from_shmid(cmdb.index_roots[1], 0));   // maps a page file too
    cmf_shm_read_unlock();
    cleanup_cmdb_app_core();
    EXPECT_TRUE(all_zero(&cmdb, sizeof cmdb)) << mode;
    EXPECT_TRUE(unmapped()) << mode;
    EXPECT_EQ(fds, gk::test::open_fds()) << mode;
  }
}

TEST_F(RegionTest, InitProcessMapsDaemonStatusForEachAccess) {
  ASSERT_EQ(0, cmf_shm_create_init());
  EXPECT_EQ(std::make_tuple(104L, -1L), std::make_tuple(file_size(kDir + "daemon_status"), file_size(kDir + "page")));
  ASSERT_EQ(0, attach_cmfshm_for_init());
  static_cast<uint8_t*>(cmdb.daemon_status)[103] = 0x2A;
  EXPECT_EQ(0x2A, gk::test::read_file(kDir + "daemon_status")[103]);
  EXPECT_EQ(std::tuple(0, nullptr, 0, true),
            (std::tuple{detach_cmfshm_for_init(), cmdb.daemon_status, detach_cmfshm_for_init(), unmapped()}));

  ASSERT_EQ(0, attach_cmfshm_for_init());
  ASSERT_EQ(0, unlink((kDir + "daemon_status").c_str()));
  EXPECT_EQ(std::tuple(-3, true, -4),
            (std::tuple{detach_cmfshm_for_init(), logged("stat: daemon_status, errno=2.\n") && logged("create file error"),
                        attach_cmfshm_for_init()}));
  cleanup_cmdb_app_core();   // what the failed detach left is still this process's to release
  EXPECT_TRUE(unmapped());
}

TEST_F(CreatedTest, DestroyRemovesTheFourteenFiles) {
  ASSERT_EQ(0, cmf_shm_destroy());
  std::set<std::string> left;
  for (const char* name : {"daemon_status", "page", "cmdb_node", "debug_zone", "admin_login_status", "1"})
    if (file_size(kDir + name) >= 0) left.insert(name);
  EXPECT_EQ((std::set<std::string>{"daemon_status", "1"}), left);
  gk::test::clear_log();
  EXPECT_EQ(-3, cmf_shm_destroy());
  EXPECT_EQ(std::tuple(true, 0u), std::tuple(logged(", file=13,admin_login_status destroy file error 2\n"),
                                             captured_log().find("cmf_shm_init,")));
}

TEST_F(CreatedTest, AttachStopsAtTheFirstEmptyOrMissingFile) {
  const std::string devices = kDir + "devices";
  for (bool empty : {true, false}) {
    gk::test::clear_log();
    ASSERT_EQ(0, empty ? truncate(devices.c_str(), 0) : unlink(devices.c_str()));
    EXPECT_EQ(std::tuple(-4, true), (std::tuple{init_cmdb_app_core(1), logged("create file error") &&
                                                logged(empty ? "mmap: devices, errno=22." : "name=/dev/cmdb/devices")}));
    // What was mapped stays mapped.
    EXPECT_TRUE(cmdb.domain != nullptr && cmdb.admin_login_status == nullptr && !(cmdb.flags & CMDB_FLAG_INITIALIZED));
    cleanup_cmdb_app_core();
    EXPECT_TRUE(unmapped());
  }
}

TEST_F(RegionTest, CreationFailuresCreateLaterFilesButFillNone) {
  ASSERT_EQ(0, mkdir((kDir + "cmdb_event").c_str(), 0755));
  SampleSchema s;
  EXPECT_EQ(-3, create(s, 3));
  EXPECT_TRUE(logged("create file error"));
  EXPECT_EQ(std::make_tuple(38216L, 0L, 0L), std::make_tuple(file_size(kDir + "cmdb_global"),
                                                             file_size(kDir + "debug_zone"),
                                                             file_size(kDir + "admin_login_status")));
  EXPECT_NE(0, access("/tmp/cmdb_lock", F_OK));   // the debug-zone fill never ran
  EXPECT_TRUE(unmapped());
  ASSERT_EQ(0, rmdir((kDir + "cmdb_event").c_str()));

  SampleSchema zero;   // platform 0 has no domains: the indexes cannot be laid out
  EXPECT_EQ(-22, create(zero, 0));
  EXPECT_EQ(std::make_tuple(12L, 0L), std::make_tuple(file_size(kDir + "domain"), file_size(kDir + "devices")));
  EXPECT_TRUE(unmapped());
}

TEST_F(RegionTest, SchemasBeyondTheFixedTablesAreRefused) {
  enum Sort { kTables, kSql, kRefs, kGid };
  struct { Sort sort; int n; int result; const char* message; } rows[] = {
      {kTables, 120, 0, nullptr}, {kTables, 121, -14, "table limits holds at most 124 records, the schema needs 125"},
      {kSql, 83, 0, nullptr},     {kSql, 84, -14, "cmdb_sql_node holds at most 85 records, the schema needs 86"},
      {kRefs, 80, 0, nullptr},    {kRefs, 81, -14, "cmdb_datasource holds at most 328 records, the schema needs 330"},
      {kGid, 1861, 0, nullptr},   {kGid, 1862, -11, "gid 1862 of node extra is out of range, max 1861\n"},
      {kGid, 1900, -11, "gid 1900 of node extra is out of range"}};
  for (const auto& row : rows) {
    SampleSchema s;   // plus row.n nodes of one sort (or one node of gid row.n)
    std::vector<cmdb_node_desc_t*> extra;
    for (int k = 0; k < (row.sort == kGid ? 1 : row.n); ++k) {
      cmdb_node_desc_t* d = s.node("extra", row.sort == kGid ? row.n : 1000 + k, row.sort == kTables ? 2 : 5,
                                   row.sort == kRefs ? 12 : 0, 4, 0);
      if (row.sort == kSql) s.sql(d, cmdb_sql_desc_t{});
      if (row.sort == kRefs) s.refs(d, {1, 2, 3, 4});
      extra.push_back(d);
    }
    s.add_top(s.node("bulk", 999, 1, 0, 0, 0, extra));
    gk::test::clear_log();
    EXPECT_EQ(row.result, create(s, 3)) << row.n;
    if (row.message != nullptr) {
      EXPECT_TRUE(logged(row.message)) << captured_log();
      EXPECT_EQ(0, file_size(kDir + "cmdb_node"));   // refused before anything was written
    }
    EXPECT_TRUE(unmapped());
  }
  cmdb.schema = nullptr;
  EXPECT_EQ(-1, cmf_shm_create());
  EXPECT_TRUE(logged("no schema"));
}

const std::string kFile = "/dev/cmdb/admin_login_status";

cmdb_var_list_head_t* head() { return static_cast<cmdb_var_list_head_t*>(cmdb.admin_login_status); }

// Length of this process's one mapping of the var list, or -1 when it has none or several.
long mapped_length() {
  auto maps = gk::test::mappings_of(kFile);
  if (maps.size() != 1) return -1;
  unsigned long lo = 0, hi = 0;
  sscanf(maps[0].c_str(), "%lx-%lx", &lo, &hi);
  return static_cast<long>(hi - lo);
}

class VarListTest : public ::testing::Test {
 protected:
  void SetUp() override {
    gk::test::clear_log();
    gk::test::SampleSchema s;
    std::string out = gk::test::capture_stdout([&] { ASSERT_EQ(0, gk::test::create_region(s, 3)); });
    ASSERT_EQ(0, init_cmdb_app_core(2));
  }
  void TearDown() override { cleanup_cmdb_app_core(); }
};

TEST_F(VarListTest, GrowsBySixtyFourEntriesWhenFull) {
  EXPECT_EQ(-2, cmf_var_list_alloc("admin_login_status"));   // no unit yet
  cmf_var_list_set_unit(nullptr, 40);
  cmf_var_list_set_unit(cmdb.admin_login_status, 0);
  EXPECT_EQ(0u, head()->unit);
  cmf_var_list_set_unit(cmdb.admin_login_status, 40);
  ASSERT_EQ(40u, head()->unit);

  struct { uint32_t used, capacity; long file; } steps[] = {
      {0, 64, 2576}, {10, 64, 2576}, {63, 64, 2576}, {64, 128, 5136}, {127, 128, 5136}, {128, 192, 7696}};
  for (const auto& step : steps) {
    head()->used = step.used;
    ASSERT_EQ(0, cmf_var_list_alloc("admin_login_status"));
    EXPECT_EQ(step.capacity, head()->capacity) << step.used;
    EXPECT_EQ(step.file, file_size(kFile)) << step.used;
    // The new entries are usable here at once: write the last byte of the last one.
    static_cast<uint8_t*>(cmdb.admin_login_status)[16 + step.capacity * 40 - 1] = 0x5A;
  }
  EXPECT_EQ(8192, mapped_length());   // remapped in place or moved, never left behind
}

TEST_F(VarListTest, RefusesWhatIsNotTheGrowableList) {
  for (const char* name : {static_cast<const char*>(nullptr), "nope", "admin_login"}) {  // names compare exactly
    EXPECT_EQ(-1, cmf_var_list_alloc(name));
  }
  void* none = nullptr;  // and then the list before it has a unit
  EXPECT_EQ(std::tuple(-1, -2, -2), std::tuple(cmf_var_list_update(nullptr), cmf_var_list_update(&none),
                                               cmf_var_list_update(&cmdb.admin_login_status)));
  // Other var lists have no growable head: refused, never remapped or grown.
  const std::vector<uint8_t> page_before = gk::test::read_file("/dev/cmdb/page");
  using R = cmdb_record_t;
  for (auto [field, name] : {std::pair{&R::devices, "devices"}, {&R::daemon_status, "daemon_status"}, {&R::page, "page"}}) {
    void* base = cmdb.*field;
    EXPECT_EQ(-1, cmf_var_list_update(&(cmdb.*field))) << name;
    EXPECT_EQ(-1, cmf_var_list_alloc(name)) << name;
    EXPECT_EQ(base, cmdb.*field) << name;
  }
  EXPECT_EQ(page_before, gk::test::read_file("/dev/cmdb/page"));
  void* saved = std::exchange(cmdb.admin_login_status, nullptr);
  EXPECT_EQ(std::tuple(-2, -2), std::tuple(cmf_var_list_update(&cmdb.admin_login_status),
                                           cmf_var_list_alloc("admin_login_status")));
  cmdb.admin_login_status = saved;
  EXPECT_EQ(16, file_size(kFile));
}

TEST_F(VarListTest, GrowthElsewhereIsSeenAfterUpdate) {
  // Entries of 100 bytes: 64 of them span two pages, so a remap may have to move.
  cmf_var_list_set_unit(cmdb.admin_login_status, 100);
  gk::test::Signal ready, grown;
  pid_t reader = gk::test::start_child([&] {
    cleanup_cmdb_app_core();
    if (init_cmdb_app_core(1) != 0) return 2;
    ready.post();
    if (!grown.wait()) return 3;
    if (head()->capacity != 64 || mapped_length() != 4096) return 4;   // not yet remapped here
    if (cmf_var_list_update(&cmdb.admin_login_status) != 0) return 5;
    if (mapped_length() != 8192) return 6;
    auto* entries = static_cast<uint8_t*>(cmdb.admin_login_status) + 16;
    if (entries[63 * 100] != 0x11) return 7;
    entries[63 * 100 + 99] = 0x22;
    // A reader may grow it too (the var list is writable in every mode).
    head()->used = 64;
    if (cmf_var_list_alloc("admin_login_status") != 0 || head()->capacity != 128) return 8;
    return 0;
  });
  ASSERT_TRUE(ready.wait());
  ASSERT_EQ(0, cmf_var_list_alloc("admin_login_status"));
  static_cast<uint8_t*>(cmdb.admin_login_status)[16 + 63 * 100] = 0x11;
  grown.post();
  ASSERT_EQ(0, gk::test::wait_child(reader));
  EXPECT_EQ(std::tuple(0x22, 128u, 12816L), std::tuple(static_cast<uint8_t*>(cmdb.admin_login_status)[16 + 63 * 100 + 99],
                                                      head()->capacity, file_size(kFile)));
  ASSERT_EQ(0, cmf_var_list_update(&cmdb.admin_login_status));
  EXPECT_EQ(16384, mapped_length());
  static_cast<uint8_t*>(cmdb.admin_login_status)[12815] = 1;
  cleanup_cmdb_app_core();
  EXPECT_TRUE(gk::test::mappings_of(kFile).empty());
}

TEST(RegionHandleTest, NothingMappedBeforeAttach) {
  EXPECT_EQ(std::tuple(nullptr, nullptr, nullptr, static_cast<void*>(cmdb.statistics)),
            std::tuple(get_cmdb_header(), get_cmdb_dzone(), get_shmtree_root(), cmf_shm_statistics()));
  // Nothing to read or count without a header or debug zone: zeros, no fault.
  cmdb_save_version();
  EXPECT_EQ(std::make_tuple(0u, 0u, 0u, 0, 0u, 0u),
            std::make_tuple(cmdb_get_version(), get_cmdb_updatetime(), cmdb_get_owner(), cmdb_version_changed(),
                            set_cmdb_nxt_update(), orv_mail_mode()));
  // Before attach every level is written; the sandbox is this process's own.
  gk::test::clear_log();
  dbg_cmdb(5, "notice %d\n", 5);
  dbg_cmdb(99, "anything\n");
  EXPECT_EQ("notice 5\nanything\n", captured_log());
  struct stat st;
  EXPECT_NE(0, ::stat("/dev/cmdb/page", &st));
}

TEST(RegionHandleTest, VersionAndLogLevelSeenFromAnotherProcess) {
  gk::test::MiniRegion region;
  cmdb_save_version();
  EXPECT_EQ(0, cmdb_version_changed());
  pid_t writer = gk::test::start_child([] { return set_cmdb_nxt_update() == 0 ? 0 : 1; });
  ASSERT_EQ(0, gk::test::wait_child(writer));
  EXPECT_EQ(std::tuple(1, 1u, 1u, static_cast<uint32_t>(writer)),
            std::tuple(cmdb_version_changed(), cmdb_get_version(), get_cmdb_updatetime(), cmdb_get_owner()));
  // The returned value is the version before the increment; the counter wraps.
  get_cmdb_header()->version = 0xFFFFFFFFu;
  cmdb_save_version();
  EXPECT_EQ(0xFFFFFFFFu, set_cmdb_nxt_update());
  EXPECT_EQ(std::tuple(0u, static_cast<uint32_t>(getpid()), 1),
            std::tuple(cmdb_get_version(), cmdb_get_owner(), cmdb_version_changed()));

  gk::test::clear_log();
  dbg_cmdb(4, "dropped\n");
  dbg_cmdb(3, "kept %s\n", "three");
  cmf_backup_non_ha_conf();  // a host without backup hears why at the default level
  EXPECT_EQ("kept three\ncmf_do_backup_conf: configuration backup is not supported by this host\n", captured_log());
  ASSERT_EQ(0, gk::test::run_child([] { return get_cmdb_header()->log_level = 5, 0; }));
  gk::test::clear_log();
  dbg_cmdb(5, "now kept\n");
  dbg_cmdb(6, "still dropped\n");
  EXPECT_EQ("now kept\n", captured_log());
}

// The debug bit sends the log to standard output only, flushed at once: a
// process that ends without a stdio flush must not lose its last words.
TEST(RegionHandleTest, DebugBitWritesToStandardOutputFlushed) {
  gk::test::MiniRegion region;
  gk::test::clear_log();
  cmdb.flags |= CMDB_FLAG_DEBUG;
  std::string out = gk::test::capture_stdout([] {
    dbg_cmdb(3, "to stdout %d\n", 1);
    dbg_cmdb(4, "filtered first\n");
  });
  cmdb.flags &= ~CMDB_FLAG_DEBUG;
  EXPECT_EQ("to stdout 1\n", out);
  EXPECT_EQ("", captured_log());
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  pid_t pid = gk::test::start_child([&] {
    dup2(fds[1], 1);  // a pipe: stdio buffers it fully
    cmdb.flags |= CMDB_FLAG_DEBUG;
    dbg_cmdb(3, "last words %d\n", 7);
    _exit(0);  // no stdio flush on the way out
    return 0;
  });
  close(fds[1]);
  char buf[64] = {};
  ssize_t n = read(fds[0], buf, sizeof buf - 1);
  close(fds[0]);
  ASSERT_EQ(0, gk::test::wait_child(pid));
  EXPECT_EQ("last words 7\n", std::string(buf, n > 0 ? size_t(n) : 0));
}

}  // namespace
