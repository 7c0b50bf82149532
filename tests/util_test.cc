// Utilities: the growable text buffer and base64; boot values and global flags
// in daemon_status, mode names, the backup and execution wrappers as the
// platform receives them, and bfcpy.
#include <gtest/gtest.h>
#include <limits.h>
#include <printf.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include <string>
#include <vector>

#include "tests/test_support.h"
#include "util/util_internal.h"

namespace {
bool g_codec_fails = false;
uintptr_t g_first;
std::string g_text;
std::vector<uint8_t> g_block;
}  // namespace

// This binary is the host: its codec is the library's, unless a test makes it fail.
extern "C" int b64_encode(const unsigned char* s, int n, char* d, int dn) noexcept {
  return g_codec_fails ? -1 : util::base64_encode(s, n, d, dn);
}
extern "C" int b64_decode(const char* s, unsigned char* d, int dn) noexcept {
  return g_codec_fails ? -1 : util::base64_decode(s, d, dn);
}

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
using gk::test::captured_log;

struct Buf : cmf_buf_t {
  Buf() : cmf_buf_t{} { gk::test::clear_log(); }
  ~Buf() { cmf_buf_free(this); }
  std::string str() const { return std::string(data, len); }
};

int format(cmf_buf_t* b, const char* fmt, ...) {  // no format attribute: lets %W through
  va_list ap;
  va_start(ap, fmt);
  int r = cmf_buf_vsnprintf(b, fmt, ap);
  va_end(ap);
  return r;
}

TEST(BufTest, GrowthRuleAtItsBoundaries) {
  for (int chars : {510, 511}) {  // a zero record is initialised to 512 by the first format
    Buf b;
    EXPECT_EQ(chars - 510, cmf_buf_snprintf(&b, "%s", std::string(size_t(chars), 'x').c_str()));
    EXPECT_EQ(chars == 510 ? 512u : 543u, b.size);
    EXPECT_EQ(std::string(size_t(chars), 'x'), b.data);
    EXPECT_EQ(chars == 510 ? "" : "cmf_buf overflow 511, 512, 0, realloc memory\n", captured_log());
  }
  Buf b;
  ASSERT_EQ(512, cmf_buf_init(&b));
  ASSERT_EQ(510, cmf_buf_append(&b, std::string(510, 'y').c_str(), 0));
  ASSERT_EQ(1, cmf_buf_cat(&b, 'y'));  // len 511 of 512: even an empty format grows it
  EXPECT_EQ(1, cmf_buf_snprintf(&b, "%s", ""));
  ASSERT_EQ(1, cmf_buf_cat(&b, 'z'));
  EXPECT_EQ(std::tuple(543u, b.data + 511, std::string(511, 'y') + "z"), std::tuple(b.size, b.last, b.str()));
  EXPECT_EQ(std::tuple(0, 3), (std::tuple{cmf_buf_append(&b, nullptr, 0), cmf_buf_append(&b, "abc", 0)}));
  EXPECT_EQ(std::string(511, 'y') + "zabc", b.data);

  Buf d;  // a zero record grows from nothing; a source inside the block survives its move
  ASSERT_EQ(1, cmf_buf_cat(&d, 'q'));
  EXPECT_EQ(32u, d.size);
  for (int n = 1; n < 64; n *= 2) ASSERT_EQ(n, cmf_buf_append(&d, d.data, n));
  EXPECT_EQ(std::string(64, 'q'), d.str());
  EXPECT_EQ(2, cmf_buf_reset(&d, "hi", 2));
  EXPECT_STREQ("hi", d.data);
}

TEST(BufTest, NullRecordIsIgnoredExceptByBase64) {
  EXPECT_EQ(0, cmf_buf_init(nullptr) | cmf_buf_free(nullptr) | cmf_buf_cat(nullptr, 'a') |
                   cmf_buf_append(nullptr, "abc", 3) | cmf_buf_reset(nullptr, "abc", 3) |
                   cmf_buf_snprintf(nullptr, "%d", 1));
  EXPECT_EQ(-1, cmf_buf_base64_encode(nullptr));
  EXPECT_EQ(-1, cmf_buf_base64_decode(nullptr));
}

TEST(BufTest, FailedGrowthLeavesTheRecordAsItWas) {
  Buf b, fresh;
  ASSERT_EQ(541, cmf_buf_append(&b, std::string(541, 'k').c_str(), 0));  // zero record: size 573
  for (int i = 0; i < 30; ++i) ASSERT_EQ(1, cmf_buf_cat(&b, 'k'));      // len 571 of 573
  ASSERT_EQ(1, cmf_buf_cat(&b, 'k'));                                  // len 572: any growth reallocates
  const cmf_buf_t before = b;
  util::g_buf_heap = {[](size_t, size_t) -> void* { return nullptr; }, [](void*, size_t) -> void* { return nullptr; },
                      [](size_t) -> void* { return nullptr; }};
  EXPECT_EQ(std::tuple(-1, -1, -2, -6, -6, -1),
            (std::tuple{cmf_buf_cat(&b, 'x'), cmf_buf_append(&b, "xy", 2), cmf_buf_snprintf(&b, "%s", "x"),
                        cmf_buf_base64_encode(&b), cmf_buf_base64_decode(&b), cmf_buf_init(&fresh)}));
  util::g_buf_heap = {::calloc, ::realloc, ::malloc};
  EXPECT_EQ(std::tuple(0, std::string(572, 'k'), nullptr), std::tuple(memcmp(&before, &b, sizeof before), b.str(), fresh.data));
  EXPECT_EQ(
      "cmf_util:614, realloc error. 573,572\ncmf_util:589, realloc error. 573,572,2\n"
      "cmf_buf overflow 1, 573, 572, realloc memory\ncmf_util:589, realloc error. 573,572,1\n"
      "cmf_util:777, calloc error. 573,1\n",
      captured_log());
}

TEST(BufTest, FormattingErrorsFailWithoutTouchingContent) {
  Buf b;
  ASSERT_EQ(0, cmf_buf_snprintf(&b, "keep"));
  const wchar_t bad[] = {0xD800, 0};  // no multibyte form: vsnprintf reports -1
  EXPECT_EQ(-2, cmf_buf_snprintf(&b, "x%lsy", bad));
  EXPECT_EQ(std::tuple("keep", 512u), std::tuple(std::string(b.data), b.size));
  EXPECT_EQ("cmf_buf overflow -1, 512, 4, realloc memory\ncmf_util:777, calloc error. 512,-1\n", captured_log());

  static int calls = 0;  // a conversion that prints more each time: the second pass overflows too
  register_printf_specifier(
      'W', [](FILE* f, const printf_info*, const void* const*) { return fprintf(f, "%*s", 600 + 100 * calls++, ""); },
      [](const printf_info*, size_t, int*, int*) { return 0; });
  gk::test::clear_log();
  EXPECT_EQ(-3, format(&b, "%W"));
  EXPECT_STREQ("keep", b.data);
  EXPECT_EQ("cmf_buf overflow 600, 512, 4, realloc memory\ncmf_util:785, cmf_buf error. 636,4,700\n", captured_log());
}

TEST(BufTest, Base64AtEveryPaddingLengthAndOnBadInput) {
  const std::string bytes("f\0o\xff" "bar", 7);
  const char* text[] = {"", "Zg==", "ZgA=", "ZgBv", "ZgBv/w==", "ZgBv/2I=", "ZgBv/2Jh", "ZgBv/2Jhcg=="};
  for (int n = 0; n <= 7; ++n) {
    Buf b;  // n = 0 stays a zero record
    if (n > 0) cmf_buf_append(&b, bytes.data(), n);
    EXPECT_EQ(int(strlen(text[n])), cmf_buf_base64_encode(&b)) << n;
    EXPECT_STREQ(text[n], b.data);
    EXPECT_EQ(std::tuple(n, bytes.substr(0, size_t(n))), (std::tuple{cmf_buf_base64_decode(&b), b.str()}));
  }
  for (const char* bad : {"Zg=", "Zg===", "Z", "Zm9v=", "Zh==", "Zm 9v", "Zg==Zg==", "Zm8=Zm8=", "=", "Zm-v", "\xc3\xa9\xc3\xa9"}) {
    Buf b;
    cmf_buf_reset(&b, bad, 0);
    EXPECT_EQ(std::tuple(-152, std::string(bad)), (std::tuple{cmf_buf_base64_decode(&b), std::string(b.data)}));
  }
  Buf b;
  for (char c : std::string("YWJj")) cmf_buf_cat(&b, c);  // no terminator stored: decode must not overrun
  EXPECT_EQ(std::tuple(3, 4), (std::tuple{cmf_buf_base64_decode(&b), cmf_buf_base64_encode(&b)}));
  g_codec_fails = true;
  EXPECT_EQ(std::tuple(-152, std::string("YWJj")), (std::tuple{cmf_buf_base64_encode(&b), std::string(b.data)}));
  unsigned char out[4];  // short destinations, an unpadded tail (accepted), a sextet after padding
  EXPECT_EQ(std::tuple(-1, -1, 1, -1), std::tuple(util::base64_decode("YWJj", out, 2), util::base64_encode(out, 2, b.data, 4),
                                                  util::base64_decode("Zg", out, 2), util::base64_decode("Zg=A", out, 4)));
}


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
  EXPECT_EQ(std::tuple(0x5u, 0u, 0x4u), std::tuple(ds.words[1], global_flag_if_set(0x2), global_flag_if_set(0x6)));
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
  for (const auto& f : fields)
    EXPECT_EQ(std::tuple(0xA0000000u + f.word, 0xA0000000u + f.word), std::tuple(ds.words[f.word], f.get())) << f.word;
  EXPECT_EQ(0u, ds.words[1] | ds.words[2] | ds.words[6] | ds.words[9]);
  gk::test::MiniRegion region;
  set_init0_mail_mode(2);
  EXPECT_EQ(std::tuple(2u, 2u), std::tuple(get_init0_mail_mode(), orv_mail_mode()));
}

TEST(BootValuesTest, OpmodeNames) {
  const std::pair<int, const char*> cases[] = {{1, "Server"}, {2, "Gateway"}, {4, "Transparent"}, {8, "Management"},
                                               {3, "Unknown 3"}, {0, "Unknown 0"}, {INT_MIN, "Unknown -2147483648"}};
  for (const auto& [mode, name] : cases) EXPECT_STREQ(name, orv_opmode_name(mode)) << mode;
  gk::test::MiniRegion region;
  region.dz().mail_mode = 4;
  EXPECT_STREQ("Transparent", orv_opmode_name(0));
}

TEST(BootValuesTest, BackupAndExecBlocksAsThePlatformSeesThem) {
  using Bytes = std::vector<uint8_t>;
  const Bytes zero(20, 0);
  auto with = [&](uint8_t b0, uint8_t b2) { Bytes v = zero; v[0] = b0, v[2] = b2; return v; };
  EXPECT_EQ(std::tuple(10, with(1, 2)), (std::tuple{cmf_backup_non_haconf_conf(), g_block}));
  EXPECT_EQ(std::tuple(10, with(1, 3), ""), (std::tuple{cmf_backup_non_ha_conf(), g_block, g_text}));
  EXPECT_EQ(std::tuple(10, with(0, 0xEE), "sys.conf", 0u),
            (std::tuple{cmf_backup_system_conf("sys.conf", 0xEE), g_block, g_text, g_first}));
  int value = 0;
  EXPECT_EQ(std::tuple(20, reinterpret_cast<uintptr_t>(&value),
                       Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0x44, 0x33, 0x22, 0x11, 7, 0, 0, 0, 1, 0, 0, 0}),
            (std::tuple{cmf_ha_exec_conf(&value, 0x11223344, 7), g_first, g_block}));
}

TEST(BootValuesTest, BfcpyTakesSourceBitsUnderTheMask) {
  struct { int len; uint8_t mask, want0, want2; } cases[] = {
      {3, 0xFF, 0x0F, 0x0F}, {3, 0x00, 0xF0, 0xF0}, {3, 0x3C, 0xCC, 0xCC}, {2, 0xFF, 0x0F, 0xF0}, {-5, 0xFF, 0xF0, 0xF0}};
  for (const auto& c : cases) {
    uint8_t dst[3] = {0xF0, 0xF0, 0xF0}, src[3] = {0x0F, 0x0F, 0x0F}, mask[3] = {c.mask, c.mask, c.mask};
    EXPECT_EQ(std::tuple(0, c.want0, c.want2), (std::tuple{bfcpy(dst, src, c.len, mask), dst[0], dst[2]}))
        << c.len << " " << int(c.mask);
    EXPECT_EQ(std::tuple(0, 0, c.want0), (std::tuple{bfcpy(dst, nullptr, 3, mask), bfcpy(dst, src, 3, nullptr), dst[0]}));
  }
}

// An init process maps daemon_status for each access only; without the file
// nothing is read or written.
TEST(BootValuesTest, UnmappedProcessMapsForEachAccessOnly) {
  set_init0_reload_type(9);
  global_flag_set_flag(0x2);
  EXPECT_EQ(0u, get_init0_reload_type() | global_flag_if_set(~0u));
  ASSERT_EQ(0, cmf_shm_create_init());
  ASSERT_EQ(0, attach_cmfshm_for_init());
  set_init0_reload_value(77);
  ASSERT_EQ(0, gk::test::run_child([] {
    if (detach_cmfshm_for_init() != 0 || get_init0_reload_value() != 77) return 2;
    set_init0_fips_mode(5);
    global_flag_set_flag(0x8);
    return cmdb.daemon_status == nullptr ? 0 : 3;
  }));
  EXPECT_EQ(std::tuple(5u, 0x8u), std::tuple(get_init0_fips_mode(), global_flag_if_set(0x8)));
}

}  // namespace
