// The growable var list: growth by 64 entries, and other processes catching up.
#include <string.h>

#include <gtest/gtest.h>

#include "tests/sample_schema.h"
#include "tests/test_support.h"

namespace {
using gk::test::file_size;

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
  EXPECT_EQ(40u, head()->unit);

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
  EXPECT_EQ(-1, cmf_var_list_alloc(nullptr));
  EXPECT_EQ(-1, cmf_var_list_alloc("nope"));
  EXPECT_EQ(-1, cmf_var_list_alloc("admin_login"));   // names compare exactly
  EXPECT_EQ(-1, cmf_var_list_update(nullptr));
  EXPECT_EQ(-2, cmf_var_list_update(&cmdb.admin_login_status));   // no unit yet
  void* none = nullptr;
  EXPECT_EQ(-2, cmf_var_list_update(&none));
  // Other var lists have no growable head: refused, never remapped or grown.
  const std::vector<uint8_t> page_before = gk::test::read_file("/dev/cmdb/page");
  struct { void* cmdb_record_t::*field; const char* name; int update, alloc; } rows[] = {
      {&cmdb_record_t::devices, "devices", -1, -1},
      {&cmdb_record_t::daemon_status, "daemon_status", -1, -1},
      {&cmdb_record_t::page, "page", -1, -1},
  };
  for (const auto& row : rows) {
    void* base = cmdb.*row.field;
    EXPECT_EQ(row.update, cmf_var_list_update(&(cmdb.*row.field))) << row.name;
    EXPECT_EQ(row.alloc, cmf_var_list_alloc(row.name)) << row.name;
    EXPECT_EQ(base, cmdb.*row.field) << row.name;
  }
  EXPECT_EQ(page_before, gk::test::read_file("/dev/cmdb/page"));
  void* saved = cmdb.admin_login_status;
  cmdb.admin_login_status = nullptr;
  EXPECT_EQ(-2, cmf_var_list_update(&cmdb.admin_login_status));
  EXPECT_EQ(-2, cmf_var_list_alloc("admin_login_status"));
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
  EXPECT_EQ(0x22, static_cast<uint8_t*>(cmdb.admin_login_status)[16 + 63 * 100 + 99]);
  EXPECT_EQ(128u, head()->capacity);
  EXPECT_EQ(12816, file_size(kFile));
  ASSERT_EQ(0, cmf_var_list_update(&cmdb.admin_login_status));
  EXPECT_EQ(16384, mapped_length());
  static_cast<uint8_t*>(cmdb.admin_login_status)[12815] = 1;
  cleanup_cmdb_app_core();
  EXPECT_TRUE(gk::test::mappings_of(kFile).empty());
}

}  // namespace
