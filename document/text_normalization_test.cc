#include "document/text_normalization.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "document/fake_pdf_source_test_util.h"
#include "kit/unicode.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;

TEST(TextNormalizationTest, FoldsOnlyTheRowOfTheGivenOneCharacter) {
  struct Case {
    std::u16string text;
    std::u16string character;
    std::u16string expected;
  } cases[] = {
      // "T" and "A" fold into 7 and 4 only when those rows are asked for.
      {u"T0TAL 1O,5O", u"0", u"T0TAL 10,50"},
      {u"l1iIL", u"1", u"11111"},
      {u"ZAsSbTB", u"5", u"ZA55bTB"},
      {u"12,50", u".", u"12.50"},
      {u"12.50", u",", u"12,50"},
      {u"a~b\u2013c\u2014d\u2022e\u2011f-g", u"-", u"a-b-c-d-e-f-g"},
      {u"a\u00A0b\u2009c\u3000d\u202Fe", u" ", u"a b c d e"},
      // Line breaks and the object replacement character are no blanks.
      {u"a\nb\rc\uFFFCd", u" ", u"a\nb\rc\uFFFCd"},
      {u"\u2018x\u2019 `y'", u"'", u"'x' 'y'"},
      {u"\u201Cx\u201D", u"\"", u"\"x\""},
      // Characters without a row change nothing.
      {u"T0TAL 1O,5O", u"3", u"T0TAL 1O,5O"},
      // Halves of a surrogate pair are never folded.
      {u"O\U0001F600O", u"0", u"0\U0001F6000"},
      // Anything but one character is refused with a log entry.
      {u"T0TAL 1O,5O", u"ab", u"T0TAL 1O,5O"},
      {u"T0TAL 1O,5O", u"", u"T0TAL 1O,5O"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.text) + " like " + lmUtf8(c.character));
    LMLogCapture capture;
    std::u16string text = c.text;
    normalizeLike(text, c.character);
    EXPECT_EQ(c.expected, text);
    EXPECT_EQ(c.text.size(), text.size());
    ASSERT_EQ(c.character.size() == 1 ? 0u : 1u, capture.lines().size());
    if (c.character.size() != 1) {
      EXPECT_THAT(capture.lines()[0], HasSubstr("(character.size() == 1) failed assertion"));
    }
  }
}

TEST(TextNormalizationTest, TokensAreLowerCaseWordsOfFourOrMore) {
  EXPECT_THAT(lmTokens(u"Der Rechnungsbetrag ist 12 EUR"), ElementsAre(u"rechnungsbetrag"));
  EXPECT_THAT(lmTokens(u"MwSt. MWST 2024 \u00DCber-Summe_x abc"),
              ElementsAre(u"mwst", u"mwst", u"2024", u"\u00FCber", u"summe_x"));
  EXPECT_TRUE(lmTokens(u"").empty());
  EXPECT_THAT(lmTokensAsCountedSet(u"Summe summe SUMME netto"),
              ElementsAre(Pair(u"netto", 1u), Pair(u"summe", 3u)));
}

}  // namespace
