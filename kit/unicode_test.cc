#include "kit/unicode.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(UnicodeTest, RoundTripsAndReplacesInvalidInput) {
  const std::u16string text = u"Grüße €1 \U0001F600";
  EXPECT_EQ(text, lmUtf16(lmUtf8(text)));
  EXPECT_EQ(u"a\uFFFDb", lmUtf16("a\xFF" "b"));
  EXPECT_EQ("\xEF\xBF\xBD", lmUtf8(std::u16string(1, u'\xD800')));
  EXPECT_FALSE(lmUtf16Strict("\xC0\xAF").has_value());      // overlong
  EXPECT_FALSE(lmUtf16Strict("\xED\xA0\x80").has_value());  // surrogate
  EXPECT_FALSE(lmUtf16Strict("\xE2\x82").has_value());      // truncated
  EXPECT_EQ(u"€", lmUtf16Strict("\xE2\x82\xAC").value());
}

}  // namespace
