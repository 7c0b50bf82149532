// The growable text buffer: growth rule, formatting paths, base64, failures.
#include <printf.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include <gtest/gtest.h>

#include "tests/test_support.h"
#include "util/util_internal.h"

namespace {
using gk::test::captured_log;
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

TEST(BufTest, FormattedAppendFitsOrGrowsOnce) {
  struct Case { int chars, result; uint32_t size; const char* log; } cases[] = {
      {510, 0, 512, ""},
      {511, 1, 543, "cmf_buf overflow 511, 512, 0, realloc memory\n"},
  };
  for (const Case& c : cases) {
    Buf b;  // zero record: the first format initialises it
    EXPECT_EQ(c.result, cmf_buf_snprintf(&b, "%s", std::string(size_t(c.chars), 'x').c_str())) << c.chars;
    EXPECT_EQ(c.size, b.size);
    EXPECT_EQ(std::string(size_t(c.chars), 'x'), b.data);
    EXPECT_EQ(b.data, b.last);
    EXPECT_EQ(c.log, captured_log());
  }
  Buf b;
  ASSERT_EQ(0, cmf_buf_snprintf(&b, "%s=%d;", "a", 1));
  ASSERT_EQ(0, cmf_buf_snprintf(&b, "%s=%d;", "b", 22));
  EXPECT_STREQ("a=1;b=22;", b.data);
}

TEST(BufTest, AppendAndCatFollowTheGrowthRule) {
  Buf b;
  ASSERT_EQ(512, cmf_buf_init(&b));
  ASSERT_EQ(511, cmf_buf_append(&b, nullptr, 511));  // room only: len stays
  EXPECT_EQ(543u, b.size);
  EXPECT_EQ(0u, b.len);
  ASSERT_EQ(0, cmf_buf_append(&b, nullptr, 0));
  EXPECT_EQ(3, cmf_buf_append(&b, "abc", 0));
  EXPECT_STREQ("abc", b.data);

  Buf c;
  ASSERT_EQ(512, cmf_buf_init(&c));
  ASSERT_EQ(510, cmf_buf_append(&c, std::string(510, 'y').c_str(), 0));
  ASSERT_EQ(1, cmf_buf_cat(&c, 'y'));  // len 511, size 512
  EXPECT_EQ(512u, c.size);
  ASSERT_EQ(1, cmf_buf_cat(&c, 'z'));
  EXPECT_EQ(543u, c.size);
  EXPECT_EQ(512u, c.len);
  EXPECT_EQ(c.data + 511, c.last);
  EXPECT_EQ(std::string(511, 'y') + "z", c.str());

  Buf d;  // zero record grows from nothing, and a source inside the block survives the move
  ASSERT_EQ(1, cmf_buf_cat(&d, 'q'));
  EXPECT_EQ(32u, d.size);
  for (int i = 0; i < 6; ++i) {
    const int n = int(d.len);
    ASSERT_EQ(n, cmf_buf_append(&d, d.data, n));
  }
  EXPECT_EQ(std::string(64, 'q'), d.str());
  EXPECT_EQ(2, cmf_buf_reset(&d, "hi", 2));
  EXPECT_STREQ("hi", d.data);
}

TEST(BufTest, NullRecordIsIgnoredExceptByBase64) {
  EXPECT_EQ(0, cmf_buf_init(nullptr));
  EXPECT_EQ(0, cmf_buf_free(nullptr));
  EXPECT_EQ(0, cmf_buf_cat(nullptr, 'a'));
  EXPECT_EQ(0, cmf_buf_append(nullptr, "abc", 3));
  EXPECT_EQ(0, cmf_buf_reset(nullptr, "abc", 3));
  EXPECT_EQ(0, cmf_buf_snprintf(nullptr, "%d", 1));
  EXPECT_EQ(-1, cmf_buf_base64_encode(nullptr));
  EXPECT_EQ(-1, cmf_buf_base64_decode(nullptr));
  Buf b;
  EXPECT_EQ(0, cmf_buf_free(&b));
  EXPECT_EQ(nullptr, b.data);
  EXPECT_EQ(0u, b.size);
}

TEST(BufTest, FailedGrowthLeavesTheRecordAsItWas) {
  Buf b, fresh;
  ASSERT_EQ(511, cmf_buf_append(&b, std::string(511, 'k').c_str(), 511));  // zero record: size 543
  ASSERT_EQ(30, cmf_buf_append(&b, std::string(30, 'k').c_str(), 30));
  ASSERT_EQ(1, cmf_buf_cat(&b, 'k'));  // len 542 of 543: any growth now reallocates
  const cmf_buf_t before = b;
  util::g_buf_heap.resize = [](void*, size_t) -> void* { return nullptr; };
  util::g_buf_heap.alloc = [](size_t) -> void* { return nullptr; };
  util::g_buf_heap.zalloc = [](size_t, size_t) -> void* { return nullptr; };
  EXPECT_EQ(-1, cmf_buf_cat(&b, 'x'));
  EXPECT_EQ(-1, cmf_buf_append(&b, "xy", 2));
  EXPECT_EQ(-2, cmf_buf_snprintf(&b, "%s", "x"));
  EXPECT_EQ(-6, cmf_buf_base64_encode(&b));
  EXPECT_EQ(-6, cmf_buf_base64_decode(&b));
  EXPECT_EQ(0, memcmp(&before, &b, sizeof before));
  EXPECT_EQ(std::string(542, 'k'), b.str());
  EXPECT_EQ(-1, cmf_buf_init(&fresh));
  EXPECT_EQ(nullptr, fresh.data);
  util::g_buf_heap = {::calloc, ::realloc, ::malloc};
  EXPECT_EQ(
      "cmf_util:614, realloc error. 543,542\n"
      "cmf_util:589, realloc error. 543,542,2\n"
      "cmf_buf overflow 1, 543, 542, realloc memory\n"
      "cmf_util:589, realloc error. 543,542,1\n"
      "cmf_util:777, calloc error. 543,1\n",
      captured_log());
}

TEST(BufTest, FormattingErrorsFailWithoutTouchingContent) {
  Buf b;
  ASSERT_EQ(0, cmf_buf_snprintf(&b, "keep"));
  const wchar_t bad[] = {0xD800, 0};  // no multibyte form: vsnprintf reports -1
  EXPECT_EQ(-2, cmf_buf_snprintf(&b, "x%lsy", bad));
  EXPECT_STREQ("keep", b.data);
  EXPECT_EQ(512u, b.size);
  EXPECT_NE(std::string::npos, captured_log().find("cmf_util:777, calloc error. 512,-1\n"));

  // A conversion that prints more each time it runs: the second pass still overflows.
  static int calls = 0;
  register_printf_specifier(
      'W',
      [](FILE* f, const printf_info*, const void* const*) { return fprintf(f, "%*s", 600 + 100 * calls++, ""); },
      [](const printf_info*, size_t, int*, int*) { return 0; });
  gk::test::clear_log();
  EXPECT_EQ(-3, format(&b, "%W"));
  EXPECT_STREQ("keep", b.data);
  EXPECT_EQ("cmf_buf overflow 600, 512, 4, realloc memory\ncmf_util:785, cmf_buf error. 636,4,700\n", captured_log());
}

TEST(BufTest, Base64RoundTripsAtEveryPaddingLength) {
  const std::string text("f\0o\xff" "bar", 7);
  const char* expect[] = {"", "Zg==", "ZgA=", "ZgBv", "ZgBv/w==", "ZgBv/2I=", "ZgBv/2Jh", "ZgBv/2Jhcg=="};
  for (int n = 0; n <= 7; ++n) {
    Buf b;
    if (n > 0) {  // n = 0 stays a zero record
      ASSERT_EQ(n, cmf_buf_append(&b, text.data(), n));
    }
    EXPECT_EQ(int(strlen(expect[n])), cmf_buf_base64_encode(&b)) << n;
    EXPECT_STREQ(expect[n], b.data);
    EXPECT_EQ(n, cmf_buf_base64_decode(&b));
    EXPECT_EQ(text.substr(0, size_t(n)), b.str());
    EXPECT_EQ('\0', b.data[b.len]);
  }
}

TEST(BufTest, CodecFailureLeavesContentAndReturns152) {
  const char* bad[] = {"Zg=", "Zg===", "Z", "Zm9v=", "Zh==", "Zm 9v", "Zg==Zg==", "=", "Zm-v", "\xc3\xa9\xc3\xa9"};
  for (const char* text : bad) {
    Buf b;
    cmf_buf_reset(&b, text, 0);
    EXPECT_EQ(-152, cmf_buf_base64_decode(&b)) << text;
    EXPECT_STREQ(text, b.data);
  }
  Buf b;
  for (char c : std::string("YWJj")) cmf_buf_cat(&b, c);  // cat leaves no terminator; decode must not overrun
  EXPECT_EQ(3, cmf_buf_base64_decode(&b));
  EXPECT_EQ(4, cmf_buf_base64_encode(&b));
  g_codec_fails = true;
  EXPECT_EQ(-152, cmf_buf_base64_encode(&b));
  g_codec_fails = false;
  EXPECT_STREQ("YWJj", b.data);
  EXPECT_EQ(-1, util::base64_encode(reinterpret_cast<const unsigned char*>("abcd"), 4, b.data, 8));
  unsigned char out[2];
  EXPECT_EQ(-1, util::base64_decode("YWJj", out, 2));
  EXPECT_EQ(1, util::base64_decode("Zg", out, 2));  // unpadded tail accepted
}

}  // namespace
