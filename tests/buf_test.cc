// The growable text buffer: growth rule, formatting paths, base64, failures.
#include <printf.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include <gtest/gtest.h>

#include "tests/test_support.h"
#include "util/util_internal.h"

namespace {
bool g_codec_fails = false;
}  // namespace

// This binary is the host: its codec is the library's, unless a test makes it fail.
extern "C" int b64_encode(const unsigned char* s, int n, char* d, int dn) noexcept {
  return g_codec_fails ? -1 : util::base64_encode(s, n, d, dn);
}
extern "C" int b64_decode(const char* s, unsigned char* d, int dn) noexcept {
  return g_codec_fails ? -1 : util::base64_decode(s, d, dn);
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
  ASSERT_EQ(1, cmf_buf_cat(&b, 'y'));  // len 511 of 512: the next byte grows it
  ASSERT_EQ(1, cmf_buf_cat(&b, 'z'));
  EXPECT_EQ(543u, b.size);
  EXPECT_EQ(b.data + 511, b.last);
  EXPECT_EQ(std::string(511, 'y') + "z", b.str());
  EXPECT_EQ(0, cmf_buf_append(&b, nullptr, 0));
  EXPECT_EQ(3, cmf_buf_append(&b, "abc", 0));
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
  EXPECT_EQ(-1, cmf_buf_cat(&b, 'x'));
  EXPECT_EQ(-1, cmf_buf_append(&b, "xy", 2));
  EXPECT_EQ(-2, cmf_buf_snprintf(&b, "%s", "x"));
  EXPECT_EQ(-6, cmf_buf_base64_encode(&b));
  EXPECT_EQ(-6, cmf_buf_base64_decode(&b));
  EXPECT_EQ(-1, cmf_buf_init(&fresh));
  util::g_buf_heap = {::calloc, ::realloc, ::malloc};
  EXPECT_EQ(0, memcmp(&before, &b, sizeof before));
  EXPECT_EQ(std::string(572, 'k'), b.str());
  EXPECT_EQ(nullptr, fresh.data);
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
  EXPECT_STREQ("keep", b.data);
  EXPECT_EQ(512u, b.size);
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
    EXPECT_EQ(n, cmf_buf_base64_decode(&b));
    EXPECT_EQ(bytes.substr(0, size_t(n)), b.str());
  }
  for (const char* bad : {"Zg=", "Zg===", "Z", "Zm9v=", "Zh==", "Zm 9v", "Zg==Zg==", "=", "Zm-v", "\xc3\xa9\xc3\xa9"}) {
    Buf b;
    cmf_buf_reset(&b, bad, 0);
    EXPECT_EQ(-152, cmf_buf_base64_decode(&b)) << bad;
    EXPECT_STREQ(bad, b.data);
  }
  Buf b;
  for (char c : std::string("YWJj")) cmf_buf_cat(&b, c);  // no terminator stored: decode must not overrun
  EXPECT_EQ(3, cmf_buf_base64_decode(&b));
  EXPECT_EQ(4, cmf_buf_base64_encode(&b));
  g_codec_fails = true;
  EXPECT_EQ(-152, cmf_buf_base64_encode(&b));
  EXPECT_STREQ("YWJj", b.data);
  unsigned char out[2];
  EXPECT_EQ(-1, util::base64_decode("YWJj", out, 2));  // destination one byte short
  EXPECT_EQ(-1, util::base64_encode(out, 2, b.data, 4));
  EXPECT_EQ(1, util::base64_decode("Zg", out, 2));  // an unpadded tail is accepted
}

}  // namespace
