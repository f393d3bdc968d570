#include "document/pdf_page.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "document/fake_pdf_source_test_util.h"
#include "kit/unicode.h"

namespace {

using ::testing::HasSubstr;
using Line = LMFakePdfSourcePage::Line;

LMPDFPage pageWithLines(const std::vector<Line>& lines, LMRect mediaBox = {0, 0, 595, 842}) {
  return LMPDFPage(LMFakePdfSourcePage::withLines(lines, mediaBox), 0);
}

TEST(PDFPageTest, ClassifiesTheMediaBox) {
  struct Case {
    double width, height;
    bool letter, landscape;
  } cases[] = {
      {595, 842, true, false},   {842, 595, true, true},
      {612, 792, false, false},  // 792 is 50 points short of 842
      {640, 842, true, false},   {642.6, 842, false, false},
      {547.4, 842, false, false},  // 47.6 off: the bound is exclusive
      {500, 500, false, false},  {0, 0, false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.width << " x " << c.height);
    const LMPDFPage page = pageWithLines({}, {0, 0, c.width, c.height});
    EXPECT_EQ(c.letter, page.isLetter());
    EXPECT_EQ(c.landscape, page.isLandscape());
  }
}

TEST(PDFPageTest, OrdersRowsTopDownAndLinesInARowLeftToRight) {
  struct Case {
    const char* name;
    std::vector<Line> lines;
    std::u16string expected;
  } cases[] = {
      {"amount slightly higher than its label",
       {{u"15,30 EUR", {400, 402, 80, 16}}, {u"Gesamtbetrag", {72, 400, 90, 12}}},
       u"Gesamtbetrag\n15,30 EUR"},
      {"rows given bottom up", {{u"unten", {72, 100, 40, 12}}, {u"oben", {72, 700, 40, 12}}},
       u"oben\nunten"},
      // Sorted by y: D [106,116], C [104,114], A [100,110], B [95,105]. The
      // band has narrowed to [106,110] when B comes, so B overlaps A but
      // starts a row of its own.
      {"the band narrows",
       {{u"A", {10, 100, 5, 10}}, {u"B", {20, 95, 5, 10}},
        {u"C", {30, 104, 5, 10}}, {u"D", {40, 106, 5, 10}}},
       u"A\nC\nD\nB"},
      // B breaks A's band and starts a row without setting the band, so C
      // joins B's row although the two do not overlap; D breaks C's band.
      {"the line after a break always joins its row",
       {{u"A", {10, 100, 5, 10}}, {u"B", {300, 60, 5, 10}},
        {u"C", {50, 40, 5, 10}}, {u"D", {10, 20, 5, 10}}},
       u"A\nC\nB\nD"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(lmUtf8(c.expected), lmUtf8(pageWithLines(c.lines).string()));
  }
}

TEST(PDFPageTest, EveryLineCarriesItsBoxAndRange) {
  const LMPDFPage page =
      pageWithLines({{u"14,30", {400, 400, 30, 12}}, {u"Summe", {72, 400, 40.5, 12}}});
  const LMAttributedString& text = page.attributedString();
  EXPECT_EQ(u"Summe\n14,30", text.string);
  // The "\n" between the lines carries no attributes.
  ASSERT_EQ(2u, text.runs.size());
  EXPECT_EQ(LMTextRange::make(0, 5), text.runs[0].range);
  EXPECT_EQ(LMTextRange::make(6, 5), text.runs[1].range);
  EXPECT_EQ(LMValue(u"{{72, 400}, {40.5, 12}}"), text.runs[0].attributes().at(u"LMPDFLineBox"));
  EXPECT_EQ(LMValue(u"{6, 5}"), text.runs[0].attributes().at(u"LMPDFLineRange"));
  EXPECT_EQ(LMValue(u"{{400, 400}, {30, 12}}"), text.runs[1].attributes().at(u"LMPDFLineBox"));
  EXPECT_EQ(LMValue(u"{0, 5}"), text.runs[1].attributes().at(u"LMPDFLineRange"));
}

TEST(PDFPageTest, NoBreakSpaceSplitsTheTextButNotTheLine) {
  const LMPDFPage page = pageWithLines({{u"Summe\u00A0netto 14,30\u00A0EUR", {72, 700, 200, 12}}});
  EXPECT_EQ(u"Summe\nnetto 14,30\nEUR", page.string());
  ASSERT_EQ(1u, page.lines().size());
  EXPECT_EQ(LMTextRange::make(0, 21), page.lines()[0].range);
  EXPECT_EQ((LMRect{72, 700, 200, 12}), page.lines()[0].bbox);
  ASSERT_EQ(1u, page.attributedString().runs.size());
  EXPECT_EQ(LMTextRange::make(0, 21), page.attributedString().runs[0].range);
}

TEST(PDFPageTest, BrokenInputGivesAnEmptyOrCutBackPage) {
  LMLogCapture capture;
  const LMPDFPage nullPage(nullptr, -1);
  EXPECT_EQ(u"", nullPage.string());
  EXPECT_FALSE(nullPage.isLetter());
  ASSERT_EQ(2u, capture.lines().size());
  EXPECT_THAT(capture.lines()[0], HasSubstr("(page) failed assertion"));
  EXPECT_THAT(capture.lines()[1], HasSubstr("(pageNumber >= 0) failed assertion"));

  // Lines without text behind them are not taken.
  auto empty = LMFakePdfSourcePage::withLines({});
  empty->lines_.push_back({LMTextRange::make(0, 3), {72, 700, 10, 12}});
  EXPECT_TRUE(LMPDFPage(empty, 0).lines().empty());
  EXPECT_EQ(u"", LMPDFPage(empty, 0).string());

  // A line range beyond the text keeps what lies inside it.
  auto overlong = LMFakePdfSourcePage::withLines({{u"Summe", {72, 700, 40, 12}}});
  overlong->lines_.push_back({LMTextRange::make(3, 10), {72, 600, 40, 12}});
  const LMPDFPage cut(overlong, 0);
  ASSERT_EQ(2u, cut.lines().size());
  EXPECT_EQ(LMTextRange::make(3, 2), cut.lines()[1].range);
  EXPECT_EQ(u"Summe\nme", cut.string());
}

TEST(PDFPageTest, NormalizePDFStringCleansUnitForUnit) {
  struct Case {
    std::u16string raw, expected;
  } cases[] = {
      {std::u16string(u"a\0b", 3), u"a\nb"},
      {u"a\u00A0b\u2000c\u200Ad\u3000e\u202Ff\u205Fg\u1680h\u180Ei", u"a\nb\nc\nd\ne\nf\ng\nh\ni"},
      {u"a\rb\u2028c\u2029d\uFFFCe", u"a\nb\nc\nd\ne"},
      // Unlike the OCR folding, the page cleaning leaves the tilde alone.
      {u"1\u20132\u20143\u20114\u20435\u20226~7", u"1-2-3-4-5-6~7"},
      {u"\u2018a\u2019 `b' \u201Cc\u201D", u"'a' 'b' \"c\""},
      {u"a b\tc \U0001F600", u"a b\tc \U0001F600"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.raw));
    EXPECT_EQ(c.expected, LMPDFPage::normalizePDFString(c.raw));
  }
}

TEST(PDFPageTest, OriginalRangeForRangeWalksTheSortedLines) {
  // Sorted lines: "oben" {6, 4}, then "unten" {0, 5}; running totals 5, 11.
  const LMPDFPage page =
      pageWithLines({{u"unten", {72, 100, 40, 12}}, {u"oben", {72, 700, 40, 12}}});
  struct Case {
    LMTextRange range, expected;
  } cases[] = {
      {{4, 3}, {6 - 5, 3}},
      {{5, 1}, {uint64_t{0} - 11, 1}},  // wraps around
      {{10, 7}, {uint64_t{0} - 11, 7}},
      {{11, 1}, {kLMNotFound, 0}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(lmStringFromRange(c.range)));
    EXPECT_EQ(c.expected, page.originalRangeForRange(c.range));
  }
}

}  // namespace
