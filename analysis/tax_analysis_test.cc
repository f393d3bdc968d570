#include "analysis/tax_analysis.h"

#include <gtest/gtest.h>

#include "analysis/stage_test_util.h"

namespace {

using lmtest::number;
using lmtest::text;

std::vector<LMTaxRate> rates(LMArray taxes) { return lmTaxRates(LMValue(std::move(taxes))).value(); }

TEST(TaxAnalysisTest, RatesOfTheWrongKindAreRefused) {
  struct Case {
    LMValue taxes;
    std::optional<size_t> count;
  } cases[] = {{LMValue(), 0},          {LMValue::null(), 0},
               {LMArray{19, u"7.7"}, 2}, {LMValue(u"19"), std::nullopt},
               {LMArray{19, LMDictionary{}}, std::nullopt}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.taxes.description()));
    const auto found = lmTaxRates(c.taxes);
    EXPECT_EQ(c.count, found ? std::optional<size_t>(found->size()) : std::nullopt);
  }
}

TEST(TaxAnalysisTest, RateFitWithinThreeHundredths) {
  struct Case {
    int64_t amount;
    bool fits;
  } cases[] = {{1900, true}, {1897, true}, {1903, true}, {1896, false}, {1904, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.amount);
    auto n = number(c.amount, 2, {100, 100, 50, 10});
    const auto tax = lmAnalyzeTax(rates({19}), LMDecimal::fromInt(119), {n}, {});
    EXPECT_EQ(c.fits, tax.has_value());
    EXPECT_EQ(c.fits, n->features()->contains(u"text_tax_19_percent_fit_1897_1903_" +
                                              LMValue(c.amount).toString()));
  }
}

TEST(TaxAnalysisTest, CeilingTieBreakAndMissingGross) {
  auto atCeiling = number(3000, 2, {100, 100, 50, 10});
  auto above = number(3001, 2, {100, 120, 50, 10});
  const auto nearTerm = lmAnalyzeTax(rates({19, 19}), LMDecimal::fromInt(100), {above, atCeiling},
                                     {lmtest::term(u"mwst", {100, 100, 50, 10})});
  EXPECT_TRUE(atCeiling->features()->contains(u"sort_Weight_tax"));
  EXPECT_FALSE(above->features()->contains(u"sort_Weight_tax"));
  // The only term-near candidate has the largest distance: share 0, no tax.
  EXPECT_FALSE(nearTerm);

  // Two amounts fit the same rate, given twice: the smaller wins, fitted once.
  auto a = number(700, 2, {100, 100, 50, 10});
  auto b = number(702, 2, {100, 200, 50, 10});
  EXPECT_EQ(u"7", text(lmAnalyzeTax(rates({7, 7}), LMDecimal::fromInt(107), {b, a}, {})));
  size_t fits = 0;
  const LMDictionary features = *a->features();
  for (const auto& e : features) fits += e.key.view().starts_with(u"text_tax_7_percent_fit");
  EXPECT_EQ(1u, fits);

  EXPECT_FALSE(lmAnalyzeTax(rates({19}), std::nullopt, {number(1900, 2, {0, 0, 1, 1})}, {}));
}

}  // namespace
