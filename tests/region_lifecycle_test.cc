// Region lifecycle: creation from a schema, attach modes, detach, removal.
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <set>

#include "tests/sample_schema.h"
#include "tests/test_support.h"

namespace {
using gk::test::captured_log;
using gk::test::file_size;
using gk::test::SampleSchema;

const std::string kDir = "/dev/cmdb/";

template <typename T>
T at(const std::vector<uint8_t>& bytes, size_t off) {
  T v{};
  if (off + sizeof v <= bytes.size()) memcpy(&v, bytes.data() + off, sizeof v);
  return v;
}

uint32_t u32(const void* p) {
  uint32_t v;
  memcpy(&v, p, sizeof v);
  return v;
}

bool all_zero(const void* p, size_t n) {
  auto* b = static_cast<const uint8_t*>(p);
  for (size_t i = 0; i < n; ++i)
    if (b[i] != 0) return false;
  return true;
}

int create(SampleSchema& s, uint32_t platform, std::string* summary = nullptr) {
  int r = 0;
  std::string out = gk::test::capture_stdout([&] { r = gk::test::create_region(s, platform); });
  if (summary != nullptr) *summary = out;
  return r;
}

cmdb_node_t node_at(const uint8_t* base, uint32_t off) {
  cmdb_node_t n;
  memcpy(&n, base + off, sizeof n);
  return n;
}

class RegionTest : public ::testing::Test {
 protected:
  void SetUp() override { gk::test::clear_log(); }
  void TearDown() override { cleanup_cmdb_app_core(); }
};

TEST_F(RegionTest, CreationLaysOutEverySubRegion) {
  // Domain-sized sub-regions follow the platform's capacity for gid 91.
  struct { uint32_t platform; long domain, index, zone; uint32_t slots; } rows[] = {
      {1, 540, 8, 301788, 3}, {3, 13212, 200, 315036, 51}, {8, 132012, 2000, 439236, 501}};
  for (const auto& row : rows) {
    SampleSchema s;
    std::string summary;
    ASSERT_EQ(0, create(s, row.platform, &summary)) << captured_log();
    EXPECT_EQ(row.domain, file_size(kDir + "domain"));
    EXPECT_EQ(row.index, file_size(kDir + "domid_index"));
    EXPECT_EQ(row.index, file_size(kDir + "domname_index"));
    auto zone = gk::test::read_file(kDir + "debug_zone");
    EXPECT_EQ(row.zone, static_cast<long>(zone.size()));
    EXPECT_EQ(row.slots, at<uint32_t>(zone, DZ_DOMAIN_SLOTS));
    memset(zone.data() + DZ_DOMAIN_SLOTS, 0, 4);
    EXPECT_TRUE(all_zero(zone.data(), zone.size()));
    EXPECT_EQ("total_node=22 <= 1605, 424,4321, node_size=1004, sql=85, ds=164, max_gid=1861\n", summary);
  }
  struct { const char* name; long len; } fixed[] = {
      {"cmdb_node", 24 + SampleSchema::kNodeSize}, {"cmdb_sql_node", 11220}, {"cmdb_datasource", 1314},
      {"cmdb_node_index", 7444}, {"page", 520}, {"cmdb_global", 38216}, {"cmdb_global_rw", 32840},
      {"cmdb_event", 49800}, {"devices", 11332}, {"admin_login_status", 16}, {"daemon_status", 104}};
  for (const auto& f : fixed) EXPECT_EQ(f.len, file_size(kDir + f.name)) << f.name;
  for (const char* zeroed : {"cmdb_event", "devices", "admin_login_status", "domain", "daemon_status"}) {
    auto bytes = gk::test::read_file(kDir + zeroed);
    EXPECT_TRUE(all_zero(bytes.data(), bytes.size())) << zeroed;
  }

  auto page = gk::test::read_file(kDir + "page");
  EXPECT_EQ(64, at<int32_t>(page, 4));
  EXPECT_EQ(1, at<int32_t>(page, 0));   // the five locator blocks share one slab page
  for (int slot = 2; slot < 64; ++slot) {
    EXPECT_EQ(1u, at<uint32_t>(page, 8 + 8 * slot));
    EXPECT_EQ(-1, at<int32_t>(page, 12 + 8 * slot));
  }

  auto global = gk::test::read_file(kDir + "cmdb_global");
  EXPECT_EQ(10, at<int32_t>(global, 0));
  EXPECT_EQ(226u, at<uint32_t>(global, 4 + 16));
  EXPECT_EQ(32u, at<uint32_t>(global, 4 + 20));
  EXPECT_EQ(8192u, at<uint32_t>(global, 4 + 24));
  EXPECT_EQ(1u, at<uint32_t>(global, 0x11C));
  std::set<uint32_t> handles;
  for (int k = 0; k < 5; ++k) handles.insert(at<uint32_t>(global, 0x120 + 4 * k));
  EXPECT_EQ(5u, handles.size());
  EXPECT_EQ(0u, handles.count(0));
  // Table limits: the kind-2 tables, sorted by gid, with this platform's limits.
  const uint32_t tables[] = {91, 100, 130, 346};
  ASSERT_EQ(4, at<uint16_t>(global, 0x134));
  for (int i = 0; i < 4; ++i) {
    size_t rec = 0x134 + 4 + 20 * i;
    EXPECT_EQ(tables[i], at<uint32_t>(global, rec));
    EXPECT_EQ(0u, at<uint32_t>(global, rec + 4));
    EXPECT_EQ(static_cast<uint32_t>(cmdb_get_table_size(tables[i], 8)), at<uint32_t>(global, rec + 8));
    EXPECT_EQ(static_cast<uint32_t>(cmdb_get_table_tsize(tables[i], 8)), at<uint32_t>(global, rec + 12));
    EXPECT_EQ(static_cast<uint32_t>(cmdb_get_table_sz_warning(tables[i], 8)), at<uint32_t>(global, rec + 16));
  }
  EXPECT_EQ(0, memcmp(global.data() + 0xAE8, SampleSchema().service_table, 35424));

  auto rw = gk::test::read_file(kDir + "cmdb_global_rw");
  EXPECT_EQ(CMDB_HEADER_MAGIC, at<uint32_t>(rw, 0));
  EXPECT_EQ(3u, at<uint32_t>(rw, 4));
  EXPECT_EQ(1603, at<uint16_t>(rw, 8));
  EXPECT_EQ(1861, at<uint16_t>(rw, 10));
  EXPECT_EQ(85, at<uint16_t>(rw, 12));
  EXPECT_EQ(8u, at<uint32_t>(rw, 0x2C));
  EXPECT_TRUE(all_zero(rw.data() + 0x30, rw.size() - 0x30));

  // The creator keeps nothing of the creation: it attaches afresh.
  EXPECT_TRUE(gk::test::mappings_of(kDir).empty());
  cmdb_record_t host_only{};
  host_only.platform = 8;
  host_only.schema = cmdb.schema;
  host_only.service_table = cmdb.service_table;
  host_only.host_total = cmdb.host_total;
  EXPECT_EQ(0, memcmp(&host_only, &cmdb, sizeof cmdb));
  EXPECT_EQ(0, access("/tmp/cmdb_lock", F_OK));
  EXPECT_EQ(0, access("/tmp/shm_lock", F_OK));
}

TEST_F(RegionTest, NodeRecordsFollowTheDescriptors) {
  SampleSchema s;
  ASSERT_EQ(0, create(s, 3));
  ASSERT_EQ(0, init_cmdb_app_core(2));
  ASSERT_EQ(CMDB_FLAG_OWNER | CMDB_FLAG_INITIALIZED, cmdb.flags);
  auto* base = static_cast<const uint8_t*>(cmdb.cmdb_node);
  auto* index = static_cast<const uint32_t*>(cmdb.cmdb_node_index);
  const std::set<uint32_t> built = {91,  100, 101, 102, 103, 104, 105, 120, 121, 130, 131,
                                    200, 201, 202, 210, 300, 301, 346, 347, 348, 349, 350};
  std::set<uint32_t> indexed;
  for (uint32_t g = 0; g < 1861; ++g)
    if (index[g] != 0) {
      indexed.insert(g);
      EXPECT_EQ(g, node_at(base, index[g]).gid);
    }
  EXPECT_EQ(built, indexed);

  // Records lie back to back in walk order; every child slot points back at its parent.
  uint32_t off = 24, count = 0;
  while (off < 24 + SampleSchema::kNodeSize) {
    cmdb_node_t n = node_at(base, off);
    EXPECT_EQ(off, index[n.gid]);
    if (n.parent != 0) {
      cmdb_node_t p = node_at(base, n.parent);
      bool linked = false;
      for (int i = 0; i < p.nchild; ++i) linked |= u32(base + n.parent + 24 + 4 * i) == off;
      EXPECT_TRUE(linked) << n.gid;
    }
    bool data = n.kind == 2 || n.kind == 3 || n.kind == 4 || n.kind == 8;
    off += 24 + 4 * n.nchild + (data ? n.size : 0);
    ++count;
  }
  EXPECT_EQ(24u + SampleSchema::kNodeSize, off);
  EXPECT_EQ(built.size(), count);

  struct { uint16_t gid, default_gid; uint8_t scope, kind, type, flags, ds_index, nchild; uint16_t size, offset, parent; } rows[] = {
      {91, 0, 1, 2, 0, 0, 0, 0, 256, 0, 0},     {346, 0, 2, 2, 0, 0, 0, 1, 40, 0, 0},
      {347, 0, 2, 1, 0, 0, 0, 3, 40, 0, 346},   {349, 0, 0, 5, 1, 0, 0, 0, 4, 32, 347},
      {100, 0, 3, 2, 0, 0x10, 0, 1, 48, 0, 0},  {104, 0, 0, 4, 0, 0, 0, 1, 8, 40, 101},
      {200, 0, 1, 8, 0, 0x0D, 0, 2, 16, 0, 0},  {201, 0, 0, 5, 5, 0, 0, 0, 12, 4, 200},
      {210, 0, 0, 10, 0, 0, 0, 1, 0, 0, 0},     {120, 346, 0, 3, 0, 0, 0, 1, 40, 0, 0},
      {130, 0, 0, 2, 0, 0x02, 0, 0, 16, 0, 0},  {131, 0, 0, 5, 2, 0x03, 1, 0, 64, 0, 0}};
  for (const auto& row : rows) {
    cmdb_node_t n = node_at(base, index[row.gid]);
    EXPECT_EQ(row.default_gid, n.default_gid) << row.gid;
    EXPECT_EQ(row.scope, n.scope) << row.gid;
    EXPECT_EQ(row.kind, n.kind) << row.gid;
    EXPECT_EQ(row.type, n.type) << row.gid;
    EXPECT_EQ(row.flags, n.flags) << row.gid;
    EXPECT_EQ(row.ds_index, n.ds_index) << row.gid;
    EXPECT_EQ(row.nchild, n.nchild) << row.gid;
    EXPECT_EQ(row.size, n.size) << row.gid;
    EXPECT_EQ(row.offset, n.offset) << row.gid;
    EXPECT_EQ(row.parent ? index[row.parent] : 0u, n.parent) << row.gid;
  }
  EXPECT_EQ(0u, index[211]);   // under a kind-10 node: never walked

  // Default blocks: copied from the descriptor, or borrowed by default gid;
  // kind 8 keeps a zero block and its descriptor's defaults.
  struct { uint16_t gid; uint8_t byte; } blocks[] = {{346, 0x46}, {100, 0x10}, {104, 0x04}, {120, 0x46}, {200, 0}};
  for (const auto& b : blocks) {
    cmdb_node_t n = node_at(base, index[b.gid]);
    const uint8_t* block = base + index[b.gid] + 24 + 4 * n.nchild;
    for (int i = 0; i < n.size; ++i) ASSERT_EQ(b.byte, block[i]) << b.gid << " byte " << i;
  }
  EXPECT_NE(nullptr, s.system->defaults);

  auto* sql = static_cast<const uint8_t*>(cmdb.cmdb_sql_node);
  EXPECT_EQ(130, sql[0] | sql[1] << 8);
  EXPECT_EQ(1, sql[2]);
  EXPECT_STREQ("tlog", reinterpret_cast<const char*>(sql + 4));
  EXPECT_STREQ("traffic", reinterpret_cast<const char*>(sql + 36));
  EXPECT_EQ(7, sql[68] | sql[69] << 8);   // the number replaces the long name's first two bytes
  EXPECT_STREQ("affic_log_long_name", reinterpret_cast<const char*>(sql + 70));
  const uint8_t* second = sql + 132;
  EXPECT_EQ(131, second[0] | second[1] << 8);
  EXPECT_EQ(0, second[2]);
  EXPECT_EQ(std::string("event_log_first_long_name_that_runs_past_the_sixty_three_charac"),
            std::string(reinterpret_cast<const char*>(second + 4), 63));
  EXPECT_TRUE(all_zero(second + 67, 132 - 67));
  EXPECT_TRUE(all_zero(sql + 264, 11220 - 264));

  const uint16_t pairs[] = {6, 300, 346, 300, 100, 301, 200, 301, 201, 301, 202, 301, 91};
  EXPECT_EQ(0, memcmp(pairs, cmdb.cmdb_datasource, sizeof pairs));
  EXPECT_TRUE(all_zero(static_cast<uint8_t*>(cmdb.cmdb_datasource) + sizeof pairs, 1314 - sizeof pairs));
}

TEST_F(RegionTest, GidZeroNodesGetARecordButNoIndexSlot) {
  SampleSchema s;
  s.add_top(s.node("group", 0, 4, 0, 8, 0, {s.node("member", 140, 5, 1, 4, 0)}));
  std::string summary;
  ASSERT_EQ(0, create(s, 3, &summary));
  // Both passes count the gid-0 record, so the node sub-region fits what was written.
  const int node_size = SampleSchema::kNodeSize + 24 + 4 + 8 + 24;
  EXPECT_EQ(24 + node_size, file_size(kDir + "cmdb_node"));
  EXPECT_EQ("total_node=23 <= 1605, 432,4321, node_size=" + std::to_string(node_size) +
                ", sql=85, ds=164, max_gid=1861\n",
            summary);
  ASSERT_EQ(0, init_cmdb_app_core(2));
  auto* base = static_cast<const uint8_t*>(cmdb.cmdb_node);
  uint32_t member = static_cast<const uint32_t*>(cmdb.cmdb_node_index)[140];
  ASSERT_NE(0u, member);
  cmdb_node_t group = node_at(base, node_at(base, member).parent);
  EXPECT_EQ(0, group.gid);
  EXPECT_EQ(4, group.kind);
  EXPECT_EQ(member, u32(base + node_at(base, member).parent + 24));
}

// Writes one byte of a var list in a child attached in `mode`: 0, or the signal.
int poke(int mode, void* cmdb_record_t::*field) {
  return gk::test::run_child([=] {
    if (init_cmdb_app_core(mode) != 0) return 2;
    signal(SIGSEGV, SIG_DFL);   // a sanitizer's handler would turn the fault into an exit code
    auto* p = static_cast<volatile uint8_t*>(cmdb.*field);
    *p = *p;
    return 0;
  });
}

TEST_F(RegionTest, ReadersMapDataReadOnlyAndStatusReadWrite) {
  SampleSchema s;
  ASSERT_EQ(0, create(s, 3));
  using R = cmdb_record_t;
  struct { void* R::*field; bool writable; } rows[] = {
      {&R::cmdb_node, false},     {&R::cmdb_sql_node, false},  {&R::cmdb_datasource, false},
      {&R::cmdb_node_index, false}, {&R::page, false},          {&R::cmdb_global, false},
      {&R::domain, false},        {&R::domid_index, false},    {&R::domname_index, false},
      {&R::devices, false},       {&R::cmdb_global_rw, true},  {&R::cmdb_event, true},
      {&R::debug_zone, true},     {&R::admin_login_status, true}};
  for (int mode : {1, 3})
    for (const auto& row : rows) EXPECT_EQ(row.writable ? 0 : 128 + SIGSEGV, poke(mode, row.field)) << mode;
  for (const auto& row : rows) EXPECT_EQ(0, poke(2, row.field));

  // What a reader writes to the shared status, every process sees.
  ASSERT_EQ(0, gk::test::run_child([] {
    if (init_cmdb_app_core(1) != 0 || cmdb.flags != (CMDB_FLAG_ATTACHED | CMDB_FLAG_INITIALIZED)) return 2;
    if (cmdb.daemon_status != nullptr || nCfg_debug_zone != cmdb.debug_zone) return 3;
    static_cast<uint32_t*>(cmdb.debug_zone)[DZ_MAIL_MODE / 4] = 4;
    return 0;
  }));
  ASSERT_EQ(0, init_cmdb_app_core(3));
  EXPECT_EQ(CMDB_FLAG_INITIALIZED, cmdb.flags);
  EXPECT_EQ(4u, orv_mail_mode());
}

TEST_F(RegionTest, SecondInitChangesNothing) {
  SampleSchema s;
  ASSERT_EQ(0, create(s, 3));
  ASSERT_EQ(0, init_cmdb_app_core(1));
  EXPECT_EQ(520, cmdb.page_map_len);
  cmdb_record_t before = cmdb;
  auto maps = gk::test::mappings_of(kDir);
  for (int mode : {0, 1, 2, 3, 5}) EXPECT_EQ(0, init_cmdb_app_core(mode));
  EXPECT_EQ(0, memcmp(&before, &cmdb, sizeof cmdb));
  EXPECT_EQ(maps, gk::test::mappings_of(kDir));
}

TEST_F(RegionTest, UnknownModeMapsNothing) {
  SampleSchema s;
  ASSERT_EQ(0, create(s, 3));
  ASSERT_EQ(0, init_cmdb_app_core(5));
  cmdb_record_t expect{};
  expect.flags = CMDB_FLAG_INITIALIZED;
  EXPECT_EQ(0, memcmp(&expect, &cmdb, sizeof cmdb));
  EXPECT_EQ(nullptr, nCfg_debug_zone);
  EXPECT_TRUE(gk::test::mappings_of(kDir).empty());
}

TEST_F(RegionTest, InitWithoutLocksFailsOnceThenReturnsZero) {
  EXPECT_EQ(-1, init_cmdb_app_core(1));
  EXPECT_NE(std::string::npos, captured_log().find("Can not get lock, cmf_shm_init,init_cmdb_app_core,"));
  EXPECT_EQ(0, init_cmdb_app_core(1));   // the once flag holds until cleanup
  EXPECT_EQ(0u, cmdb.flags);
  cleanup_cmdb_app_core();
  // Lock files without the debug-zone semaphores.
  for (const char* f : {"/tmp/cmdb_lock", "/tmp/shm_lock"}) ASSERT_EQ(0, close(creat(f, 0666)));
  gk::test::clear_log();
  EXPECT_EQ(-1, init_cmdb_app_core(1));
  EXPECT_NE(std::string::npos,
            captured_log().find("Can not init debug_zone rwlock! cmf_shm_init,init_cmdb_app_core,"));
}

TEST_F(RegionTest, CleanupLeavesNoMappingOrDescriptor) {
  SampleSchema s;
  ASSERT_EQ(0, create(s, 3));
  auto fds = gk::test::open_fds();
  for (int mode : {1, 2}) {
    ASSERT_EQ(0, init_cmdb_app_core(mode));
    cmf_shm_read_lock();
    EXPECT_NE(nullptr, cmf_ptr_from_shmid(cmdb.index_roots[1], 0));   // maps a page file too
    cmf_shm_read_unlock();
    EXPECT_FALSE(gk::test::mappings_of(kDir).empty());
    cleanup_cmdb_app_core();
    EXPECT_TRUE(all_zero(&cmdb, sizeof cmdb)) << mode;
    EXPECT_TRUE(gk::test::mappings_of(kDir).empty()) << mode;
    EXPECT_EQ(fds, gk::test::open_fds()) << mode;
  }
}

TEST_F(RegionTest, InitProcessMapsDaemonStatusForEachAccess) {
  ASSERT_EQ(0, cmf_shm_create_init());
  EXPECT_EQ(104, file_size(kDir + "daemon_status"));
  EXPECT_EQ(-1, file_size(kDir + "page"));
  ASSERT_EQ(0, attach_cmfshm_for_init());
  static_cast<uint8_t*>(cmdb.daemon_status)[103] = 0x2A;
  EXPECT_EQ(0x2A, gk::test::read_file(kDir + "daemon_status")[103]);
  EXPECT_EQ(0, detach_cmfshm_for_init());
  EXPECT_EQ(nullptr, cmdb.daemon_status);
  EXPECT_EQ(0, detach_cmfshm_for_init());
  EXPECT_TRUE(gk::test::mappings_of(kDir).empty());

  ASSERT_EQ(0, attach_cmfshm_for_init());
  ASSERT_EQ(0, unlink((kDir + "daemon_status").c_str()));
  EXPECT_EQ(-3, detach_cmfshm_for_init());
  EXPECT_NE(std::string::npos, captured_log().find("stat: daemon_status, errno=2.\n"));
  EXPECT_NE(std::string::npos, captured_log().find("create file error"));
  EXPECT_EQ(-4, attach_cmfshm_for_init());
  // The mapping the failed detach left is still this process's to release.
  cleanup_cmdb_app_core();
  EXPECT_TRUE(gk::test::mappings_of(kDir).empty());
}

TEST_F(RegionTest, DestroyRemovesTheFourteenFiles) {
  SampleSchema s;
  ASSERT_EQ(0, create(s, 3));
  ASSERT_EQ(0, cmf_shm_destroy());
  std::set<std::string> left;
  for (const char* name : {"daemon_status", "page", "cmdb_node", "debug_zone", "admin_login_status", "1"})
    if (file_size(kDir + name) >= 0) left.insert(name);
  EXPECT_EQ((std::set<std::string>{"daemon_status", "1"}), left);
  gk::test::clear_log();
  EXPECT_EQ(-3, cmf_shm_destroy());
  EXPECT_NE(std::string::npos, captured_log().find(", file=13,admin_login_status destroy file error 2\n"));
  EXPECT_EQ(0, captured_log().find("cmf_shm_init,"));
}

TEST_F(RegionTest, AttachStopsAtTheFirstMissingFile) {
  SampleSchema s;
  ASSERT_EQ(0, create(s, 3));
  ASSERT_EQ(0, unlink((kDir + "devices").c_str()));
  gk::test::clear_log();
  EXPECT_EQ(-4, init_cmdb_app_core(1));
  EXPECT_NE(std::string::npos, captured_log().find("name=/dev/cmdb/devices"));
  EXPECT_NE(std::string::npos, captured_log().find("create file error"));
  EXPECT_NE(nullptr, cmdb.domain);   // what was mapped stays mapped
  EXPECT_EQ(nullptr, cmdb.admin_login_status);
  EXPECT_EQ(0u, cmdb.flags & CMDB_FLAG_INITIALIZED);
  cleanup_cmdb_app_core();
  EXPECT_TRUE(gk::test::mappings_of(kDir).empty());
}

TEST_F(RegionTest, CreationFailuresCreateLaterFilesButFillNone) {
  ASSERT_EQ(0, mkdir((kDir + "cmdb_event").c_str(), 0755));
  SampleSchema s;
  EXPECT_EQ(-3, create(s, 3));
  EXPECT_NE(std::string::npos, captured_log().find("create file error"));
  EXPECT_EQ(38216, file_size(kDir + "cmdb_global"));   // groups before the failure are complete
  EXPECT_EQ(0, file_size(kDir + "debug_zone"));
  EXPECT_EQ(0, file_size(kDir + "admin_login_status"));
  EXPECT_NE(0, access("/tmp/cmdb_lock", F_OK));   // the debug-zone fill never ran
  EXPECT_TRUE(gk::test::mappings_of(kDir).empty());
  ASSERT_EQ(0, rmdir((kDir + "cmdb_event").c_str()));

  // Platform 0 has no domains: the indexes would be empty.
  SampleSchema zero;
  EXPECT_EQ(-22, create(zero, 0));
  EXPECT_EQ(12, file_size(kDir + "domain"));
  EXPECT_EQ(0, file_size(kDir + "devices"));
  EXPECT_TRUE(gk::test::mappings_of(kDir).empty());
}

TEST_F(RegionTest, SchemasBeyondTheFixedTablesAreRefused) {
  // extra nodes of each sort on top of the sample, and what creation says.
  enum Sort { kTables, kSql, kRefs, kGid };
  struct { Sort sort; int n; int result; const char* message; } rows[] = {
      {kTables, 120, 0, nullptr},   {kTables, 121, -14, "table limits holds at most 124 records, the schema needs 125"},
      {kSql, 83, 0, nullptr},       {kSql, 84, -14, "cmdb_sql_node holds at most 85 records, the schema needs 86"},
      {kRefs, 80, 0, nullptr},      {kRefs, 81, -14, "cmdb_datasource holds at most 328 records, the schema needs 330"},
      {kGid, 1860, 0, nullptr},     {kGid, 1861, -11, "gid 1861 of node extra is out of range, max 1860"},
      {kGid, 1900, -11, "gid 1900 of node extra is out of range"}};
  for (const auto& row : rows) {
    SampleSchema s;
    std::vector<cmdb_node_desc_t*> extra;
    for (int k = 0; k < (row.sort == kGid ? 1 : row.n); ++k) {
      uint32_t gid = row.sort == kGid ? row.n : 1000 + k;
      cmdb_node_desc_t* d = s.node("extra", gid, row.sort == kTables ? 2 : 5, row.sort == kRefs ? 12 : 0, 4, 0);
      if (row.sort == kSql) s.sql(d, cmdb_sql_desc_t{});
      if (row.sort == kRefs) s.refs(d, {1, 2, 3, 4});
      extra.push_back(d);
    }
    s.add_top(s.node("bulk", 999, 1, 0, 0, 0, extra));
    gk::test::clear_log();
    EXPECT_EQ(row.result, create(s, 3)) << row.n;
    if (row.message != nullptr) {
      EXPECT_NE(std::string::npos, captured_log().find(row.message)) << captured_log();
      EXPECT_EQ(0, file_size(kDir + "cmdb_node"));   // refused before anything was written
    }
    EXPECT_TRUE(gk::test::mappings_of(kDir).empty());
  }
  cmdb.schema = nullptr;
  EXPECT_EQ(-1, cmf_shm_create());
  EXPECT_NE(std::string::npos, captured_log().find("no schema"));
}

}  // namespace
