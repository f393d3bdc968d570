#include "analysis/gross_analysis.h"

#include <gtest/gtest.h>

#include "analysis/stage_test_util.h"

namespace {

using lmtest::number;
using lmtest::term;
using lmtest::text;

LMGrossAnalysis gross(const LMFoundNumbers& numbers, const LMFoundTerms& terms = {}) {
  return lmAnalyzeGross(numbers, {}, terms, LMValue(), LMValue());
}

TEST(GrossAnalysisTest, CurrencyIsTheGrossOwnMentionElseCollectedElseFallback) {
  struct Case {
    const char* name;
    bool withAmount;
    LMValue collected;
    std::u16string expected;
  } cases[] = {{"no amount, nothing collected", false, LMValue(), u"CHF"},
               {"no amount, null collected", false, LMValue::null(), u"CHF"},
               {"no amount, collected", false, u"EUR", u"EUR"},
               {"the gross's mention wins", true, u"EUR", u"USD"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LMFoundNumbers numbers;
    if (c.withAmount) numbers.push_back(number(1000, 2, {100, 100, 50, 10}));
    const LMGrossAnalysis out = lmAnalyzeGross(
        numbers, {lmtest::mention(u"USD", {160, 100, 20, 10})}, {}, c.collected, u"CHF");
    EXPECT_EQ(c.expected, out.currency.toString());
  }
}

TEST(GrossAnalysisTest, OnlyTwoPlacePositiveAmountsCompete) {
  const LMFoundNumbers numbers{number(999900, 3, {400, 100, 50, 10}, 30),
                               number(888800, 1, {400, 120, 50, 10}, 30),
                               number(-500000, 2, {400, 140, 50, 10}, 30),
                               number(0, 2, {400, 160, 50, 10}, 30),
                               number(1530, 2, {400, 180, 50, 10}, 10)};
  const LMGrossAnalysis out = gross(numbers);
  // Three places stay in the numbers but never compete; one place goes.
  EXPECT_EQ((LMFoundNumbers{numbers[0], numbers[3], numbers[4]}), out.numbers);
  EXPECT_EQ(u"15.3", text(out.gross));
  EXPECT_EQ(u"15.3", text(out.net));
}

TEST(GrossAnalysisTest, ScoresFontRightnessAndTermNearness) {
  // A large total at the right edge next to "gesamtbetrag"; line items left.
  auto total = number(1530, 2, {450, 100, 60, 14}, 16);
  auto item = number(780, 2, {150, 300, 50, 10}, 10);
  auto third = number(145, 2, {140, 280, 10, 10}, 10);
  const LMGrossAnalysis out = lmAnalyzeGross(
      {item, total, third},
      {lmtest::mention(u"EUR", {515, 100, 20, 14}), lmtest::mention(u"USD", {50, 500, 20, 10})},
      {term(u"gesamtbetrag", {50, 100, 80, 12}), term(u"summe", {50, 300, 40, 12})}, LMValue(),
      LMValue());
  EXPECT_EQ(u"15.3", text(out.gross));
  EXPECT_EQ(u"EUR", out.currency.toString());
  EXPECT_EQ(u"gesamtbetrag", total->features()->at(u"term").toString());
  // The item at 200 of a 510 right edge: ceil(200/510*3)/3 = 2/3.
  EXPECT_DOUBLE_EQ(2.0 / 3.0, *item->features()->at(u"position_rightness").asDouble());
  EXPECT_GT(*total->features()->at(u"text_gross_term_nearby").asDouble(),
            *third->features()->at(u"text_gross_term_nearby").asDouble());
  // The notes are kept after the scoring.
  EXPECT_EQ(LMValue(*total->features()), total->debugInfo()->at(u"features"));
}

TEST(GrossAnalysisTest, TermsOnOtherPagesAndTies) {
  auto a = number(1000, 2, {100, 100, 50, 10});
  EXPECT_EQ(u"20", text(gross({a, number(2000, 2, {100, 400, 50, 10})},
                              {term(u"total", {100, 700, 50, 10}, 1)})
                            .gross));  // equal scores: the larger amount
  EXPECT_FALSE(a->features()->contains(u"term"));
  // The one term-near candidate has the largest distance: its share is 0.
  gross({a}, {term(u"total", {100, 100, 50, 10})});
  EXPECT_EQ(0.0, *a->features()->at(u"text_gross_term_nearby").asDouble());
}

TEST(GrossAnalysisTest, OcrNumbersGetOnlyTheMediumFontBonus) {
  struct Case {
    double bigFont;
    std::u16string gross;
  } cases[] = {{20, u"50"},   // 20 is above the medium 15: 0.5 bonus
               {12, u"90"}};  // 10 and 12 differ by less than 3.1: no medium
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bigFont);
    auto big = number(5000, 2, {100, 100, 50, 10}, c.bigFont);
    auto small = number(9000, 2, {100, 200, 50, 10}, 10);
    big->setOcr(true);
    small->setOcr(true);
    EXPECT_EQ(c.gross, text(gross({big, small}).gross));
    EXPECT_FALSE(big->features()->contains(u"font_size"));
  }
}

}  // namespace
