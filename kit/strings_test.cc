#include "kit/strings.h"

#include <gtest/gtest.h>

#include "kit/unicode.h"

namespace {

using Pieces = std::vector<std::u16string>;

TEST(StringsTest, SplitDropsEmptyPiecesAndSplitByKeepsThem) {
  EXPECT_EQ((Pieces{u"a", u"b"}), lmSplit(u"  a\tb\n"));
  EXPECT_EQ((Pieces{u"a", u"b"}), lmSplit(u"a\u00A0\u2009b"));
  EXPECT_EQ(Pieces{}, lmSplit(u" \n "));
  EXPECT_EQ((Pieces{u"a", u"", u"b"}), lmSplitBy(u"a;;b", u";"));
  EXPECT_EQ((Pieces{u"", u""}), lmSplitBy(u";", u";"));
  EXPECT_EQ((Pieces{u"abc"}), lmSplitBy(u"abc", u";"));
  EXPECT_EQ((Pieces{u"a", u"b"}), lmSplitBy(u"a--b", u"--"));
}

TEST(StringsTest, WhitespaceSetIncludesNoBreakAndTypographicSpaces) {
  for (char16_t c : {u' ', u'\t', u'\n', u'\r', u'\u000B', u'\u000C', u'\u0085', u'\u00A0',
                     u'\u2007', u'\u202F', u'\u2028', u'\u3000'}) {
    SCOPED_TRACE(static_cast<int>(c));
    EXPECT_TRUE(lmIsWhitespaceOrNewline(c));
  }
  for (char16_t c : {u'a', u'0', u'\u200B', u'-', u'\u00AD'}) {
    SCOPED_TRACE(static_cast<int>(c));
    EXPECT_FALSE(lmIsWhitespaceOrNewline(c));
  }
  EXPECT_EQ(u"12,50EUR", lmStripAllBlanks(u" 12,50\u00A0EUR\n"));
  EXPECT_EQ(u"a b", lmStrip(u"\u00A0\n a b \t"));
  EXPECT_EQ(u"", lmStrip(u" \n"));
}

TEST(StringsTest, ReplaceIsPlainAndIgnoresEmptySearch) {
  EXPECT_EQ(u"1234", lmReplace(u"1.234", u".", u""));
  EXPECT_EQ(u"a.*b", lmReplace(u"a(b", u"(", u".*"));
  EXPECT_EQ(u"abc", lmReplace(u"abc", u"", u"x"));
  EXPECT_EQ(u"xx", lmReplace(u"aaaa", u"aa", u"x"));
  EXPECT_EQ(u"5", lmReplace(u"N", u"N", u"5"));
}

TEST(StringsTest, SliceCountsFromTheEndAndNeverFails) {
  struct Case {
    std::u16string text;
    int64_t from, to;
    std::u16string expected;
  } cases[] = {
      {u"abcdef", 1, 3, u"bc"},    {u"abcdef", -2, 0, u"ef"},  {u"abcdef", 0, -1, u"abcde"},
      {u"abcdef", 4, 2, u""},      {u"abcdef", 2, 100, u"cdef"}, {u"abcdef", 6, 0, u""},
      {u"abc", -10, 0, u"abc"},    {u"", 0, 0, u""},           {u"abc", 0, -3, u""},
      {u"abc", 0, -10, u""},       {u"abc", 1, 1, u""},
      // A surrogate pair counts as two units; slicing may split it.
      {u"a\U0001F600b", 1, 3, u"\U0001F600"}, {u"a\U0001F600b", -1, 0, u"b"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.text) + " " + std::to_string(c.from) + " " + std::to_string(c.to));
    EXPECT_EQ(c.expected, lmSliceFrom(c.text, c.from, c.to));
  }
}

TEST(StringsTest, LowerUsesFullCaseMapping) {
  EXPECT_EQ(u"mwst. summe", lmLower(u"MwSt. SUMME"));
  EXPECT_EQ(u"äöü straße", lmLower(u"ÄÖÜ STRAßE"));
}

}  // namespace
