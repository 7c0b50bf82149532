// Boot values and global flags in daemon_status, mode names, the backup and
// execution wrappers as the platform receives them, and bfcpy.
#include <limits.h>
#include <string.h>
#include <sys/mman.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/test_support.h"

namespace {
uintptr_t g_first;
std::string g_text;
std::vector<uint8_t> g_block;
}  // namespace

// This binary is the host: capture what the wrappers hand to the platform.
extern "C" int cmf_do_backup_conf(uintptr_t first, const char* text, const void* block) noexcept {
  g_first = first, g_text = text;
  g_block.assign(static_cast<const uint8_t*>(block), static_cast<const uint8_t*>(block) + 20);
  return 10;
}
extern "C" int cmf_do_exec_conf(uintptr_t value, const void* block) noexcept {
  g_first = value, g_text = "<exec>";
  g_block.assign(static_cast<const uint8_t*>(block), static_cast<const uint8_t*>(block) + 20);
  return 20;
}

namespace {

// daemon_status as a mode-0 or mode-2 process has it: mapped for good, shared with children.
struct MappedStatus {
  uint32_t* words = static_cast<uint32_t*>(
      ::mmap(nullptr, sizeof(cmdb_daemon_status_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  MappedStatus() { cmdb.daemon_status = words; }
  ~MappedStatus() { cmdb.daemon_status = nullptr, ::munmap(words, sizeof(cmdb_daemon_status_t)); }
};

TEST(BootValuesTest, GlobalFlagsAcrossProcesses) {
  MappedStatus ds;
  global_flag_set_flag(0x4);
  global_flag_set_flag(0x1);
  EXPECT_EQ(0x5u, ds.words[1]);
  EXPECT_EQ(0u, global_flag_if_set(0x2));
  EXPECT_EQ(0x4u, global_flag_if_set(0x6));
  global_flag_unset_flag(0x1);
  ASSERT_EQ(0, gk::test::run_child([] { return global_flag_set_flag(0x100), 0; }));
  EXPECT_EQ(0x104u, global_flag_if_set(~0u));
  global_flag_set_flag(0);
  EXPECT_EQ(0u, ds.words[1]);
}

TEST(BootValuesTest, Init0ValuesLandAtTheirOffsets) {
  struct { void (*set)(uint32_t); uint32_t (*get)(); int word; } fields[] = {
      {set_init0_mail_mode, get_init0_mail_mode, 0},     {set_init0_dbdaemon_flag, get_init0_dbdaemon_flag, 3},
      {set_init0_fips_mode, get_init0_fips_mode, 4},     {set_init0_entropy_token, get_init0_entropy_token, 5},
      {set_init0_reload_type, get_init0_reload_type, 7}, {set_init0_reload_value, get_init0_reload_value, 8}};
  MappedStatus ds;
  for (const auto& f : fields) f.set(0xA0000000u + uint32_t(f.word));  // no debug zone yet: mail mode stays here
  for (const auto& f : fields) {
    EXPECT_EQ(0xA0000000u + uint32_t(f.word), ds.words[f.word]) << f.word;
    EXPECT_EQ(0xA0000000u + uint32_t(f.word), f.get()) << f.word;
  }
  EXPECT_EQ(0u, ds.words[1] | ds.words[2] | ds.words[6] | ds.words[9]);
  gk::test::MiniRegion region;
  set_init0_mail_mode(2);
  EXPECT_EQ(2u, get_init0_mail_mode());
  EXPECT_EQ(2u, orv_mail_mode());
}

TEST(BootValuesTest, OpmodeNames) {
  const std::pair<int, const char*> cases[] = {{1, "Server"},     {2, "Gateway"},   {4, "Transparent"},
                                               {8, "Management"}, {3, "Unknown 3"}, {-1, "Unknown -1"},
                                               {0, "Unknown 0"},  {INT_MIN, "Unknown -2147483648"}};
  for (const auto& [mode, name] : cases) EXPECT_STREQ(name, orv_opmode_name(mode)) << mode;
  gk::test::MiniRegion region;
  static_cast<uint32_t*>(region.debug_zone)[DZ_MAIL_MODE / 4] = 4;
  EXPECT_STREQ("Transparent", orv_opmode_name(0));
}

TEST(BootValuesTest, BackupAndExecBlocksAsThePlatformSeesThem) {
  using Bytes = std::vector<uint8_t>;
  const Bytes zero(20, 0);
  auto with = [&](uint8_t b0, uint8_t b2) { Bytes v = zero; v[0] = b0, v[2] = b2; return v; };
  EXPECT_EQ(10, cmf_backup_non_haconf_conf());
  EXPECT_EQ(with(1, 2), g_block);
  EXPECT_EQ(10, cmf_backup_non_ha_conf());
  EXPECT_EQ(with(1, 3), g_block);
  EXPECT_EQ("", g_text);
  EXPECT_EQ(10, cmf_backup_system_conf("sys.conf", 0xEE));
  EXPECT_EQ(with(0, 0xEE), g_block);
  EXPECT_EQ("sys.conf", g_text);
  EXPECT_EQ(0u, g_first);
  int value = 0;
  EXPECT_EQ(20, cmf_ha_exec_conf(&value, 0x11223344, 7));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(&value), g_first);
  EXPECT_EQ((Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0x44, 0x33, 0x22, 0x11, 7, 0, 0, 0, 1, 0, 0, 0}), g_block);
}

TEST(BootValuesTest, BfcpyTakesSourceBitsUnderTheMask) {
  struct { int len; uint8_t mask, want0, want2; } cases[] = {
      {3, 0xFF, 0x0F, 0x0F}, {3, 0x00, 0xF0, 0xF0}, {3, 0x3C, 0xCC, 0xCC}, {2, 0xFF, 0x0F, 0xF0}, {-5, 0xFF, 0xF0, 0xF0}};
  for (const auto& c : cases) {
    uint8_t dst[3] = {0xF0, 0xF0, 0xF0}, src[3] = {0x0F, 0x0F, 0x0F}, mask[3] = {c.mask, c.mask, c.mask};
    EXPECT_EQ(0, bfcpy(dst, src, c.len, mask));
    EXPECT_EQ(c.want0, dst[0]) << c.len << " " << int(c.mask);
    EXPECT_EQ(c.want2, dst[2]) << c.len << " " << int(c.mask);
  }
}

// These go through the region lifecycle's temporary mapping of daemon_status.
TEST(BootValuesTest, UnmappedProcessMapsForEachAccessOnly) {
  ASSERT_EQ(0, cmf_shm_create_init());
  ASSERT_EQ(0, attach_cmfshm_for_init());
  set_init0_reload_value(77);
  ASSERT_EQ(0, gk::test::run_child([] {
    if (detach_cmfshm_for_init() != 0 || get_init0_reload_value() != 77) return 2;
    set_init0_fips_mode(5);
    global_flag_set_flag(0x8);
    return cmdb.daemon_status == nullptr ? 0 : 3;
  }));
  EXPECT_EQ(5u, get_init0_fips_mode());
  EXPECT_EQ(0x8u, global_flag_if_set(0x8));
}

TEST(BootValuesTest, MissingStatusRegionTouchesNothing) {
  set_init0_reload_type(9);
  global_flag_set_flag(0x2);
  EXPECT_EQ(0u, get_init0_reload_type() | global_flag_if_set(~0u));
  EXPECT_EQ(nullptr, cmdb.daemon_status);
}

}  // namespace
