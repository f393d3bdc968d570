// The gross, tax and date stages on hand-made elements.
#include <gtest/gtest.h>
#include <unicode/timezone.h>

#include "analysis/receipt_parser.h"

namespace {

std::shared_ptr<LMFoundNumber> number(int64_t hundredths, uint64_t places, LMRect box,
                                      double fontSize = 10, int64_t page = 0) {
  auto n = std::make_shared<LMFoundNumber>(hundredths, places);
  n->setBbox(box);
  n->setPageBox({0, 0, 595, 842});
  n->setFontSize(fontSize);
  n->setPage(page);
  return n;
}

std::shared_ptr<LMFoundTerm> term(const std::u16string& key, LMRect box, int64_t page = 0) {
  auto t = std::make_shared<LMFoundTerm>();
  t->setKey(key);
  t->setString(key);
  t->setBbox(box);
  t->setPageBox({0, 0, 595, 842});
  t->setPage(page);
  return t;
}

std::shared_ptr<LMFoundElement> currencyMention(const std::u16string& code, LMRect box) {
  auto e = std::make_shared<LMFoundElement>();
  e->setKey(code);
  e->setBbox(box);
  e->setPageBox({0, 0, 595, 842});
  return e;
}

std::u16string text(const std::optional<LMDecimal>& d) {
  return d ? d->stringValue16() : u"nil";
}

TEST(GrossAnalysisTest, NoNumbersFallsBackToCollectedThenDefaultCurrency) {
  LMReceiptParser parser;
  parser.setDefaultCurrency(u"CHF");
  parser.analyzeAmountElements();
  EXPECT_TRUE(parser.numbers()->empty());
  EXPECT_FALSE(parser.gross());
  EXPECT_FALSE(parser.net());
  EXPECT_EQ(u"CHF", parser.currency().toString());

  LMReceiptParser collected;
  collected.setDefaultCurrency(u"CHF");
  collected.setCurrency(u"EUR");
  collected.analyzeAmountElements();
  EXPECT_EQ(u"EUR", collected.currency().toString());
}

TEST(GrossAnalysisTest, OnlyTwoPlacePositiveAmountsCompete) {
  LMReceiptParser parser;
  auto big3 = number(999900, 3, {400, 100, 50, 10}, 30);  // stays in numbers, never gross
  auto big1 = number(888800, 1, {400, 120, 50, 10}, 30);  // dropped from numbers
  auto negative = number(-500000, 2, {400, 140, 50, 10}, 30);
  auto zero = number(0, 2, {400, 160, 50, 10}, 30);
  auto small = number(1530, 2, {400, 180, 50, 10}, 10);
  parser.setNumbers({big3, big1, negative, zero, small});
  parser.analyzeAmountElements();
  ASSERT_EQ(3u, parser.numbers()->size());
  EXPECT_EQ(big3, parser.numbers()->at(0));
  EXPECT_EQ(zero, parser.numbers()->at(1));
  EXPECT_EQ(u"15.3", text(parser.gross()));
  EXPECT_EQ(u"15.3", text(parser.net()));
}

TEST(GrossAnalysisTest, ScoresFontRightnessAndTermNearness) {
  LMReceiptParser parser;
  // A large total at the right edge next to "gesamtbetrag"; a line item left.
  auto total = number(1530, 2, {450, 100, 60, 14}, 16);
  auto item = number(780, 2, {150, 300, 50, 10}, 10);
  auto third = number(145, 2, {140, 280, 10, 10}, 10);
  parser.setNumbers({item, total, third});
  parser.setTermFindings({term(u"gesamtbetrag", {50, 100, 80, 12}),
                          term(u"summe", {50, 300, 40, 12})});
  parser.setCurrencyFindings({currencyMention(u"EUR", {515, 100, 20, 14}),
                              currencyMention(u"USD", {50, 500, 20, 10})});
  parser.analyzeAmountElements();
  EXPECT_EQ(u"15.3", text(parser.gross()));
  EXPECT_EQ(u"EUR", parser.currency().toString());
  const LMDictionary& f = *total->features();
  EXPECT_EQ(16, f.at(u"font_size").toInt());
  EXPECT_EQ(0, f.at(u"font_bold").toInt());  // bold is never set
  EXPECT_DOUBLE_EQ(1.0, *f.at(u"position_rightness").asDouble());
  EXPECT_DOUBLE_EQ(1.0, *f.at(u"text_decimalplaces_eq_two").asDouble());
  EXPECT_EQ(u"gesamtbetrag", f.at(u"term").toString());
  // The item at 200 of a 510 right edge: ceil(200/510*3)/3 = 2/3.
  EXPECT_DOUBLE_EQ(2.0 / 3.0, *item->features()->at(u"position_rightness").asDouble());
  // The farthest term gets no share; the nearer one the larger share.
  ASSERT_TRUE(item->features()->contains(u"text_gross_term_nearby"));
  EXPECT_GT(*total->features()->at(u"text_gross_term_nearby").asDouble(),
            *third->features()->at(u"text_gross_term_nearby").asDouble());
  EXPECT_EQ(u"15.3", total->debugInfo()->at(u"number").toString());
}

TEST(GrossAnalysisTest, SingleTermCandidateGetsZeroShareAndTiesPreferLarger) {
  LMReceiptParser parser;
  auto a = number(1000, 2, {100, 100, 50, 10});
  auto b = number(2000, 2, {100, 400, 50, 10});
  parser.setNumbers({a, b});
  parser.setTermFindings({term(u"total", {100, 700, 50, 10}, 1)});  // other page
  parser.analyzeAmountElements();
  EXPECT_EQ(u"20", text(parser.gross()));  // equal scores: the larger amount
  EXPECT_FALSE(a->features()->contains(u"term"));

  LMReceiptParser single;
  auto only = number(1000, 2, {300, 100, 50, 10});
  single.setNumbers({only});
  single.setTermFindings({term(u"total", {100, 100, 50, 10})});
  single.analyzeAmountElements();
  EXPECT_EQ(0.0, *only->features()->at(u"text_gross_term_nearby").asDouble());
  EXPECT_EQ(u"total", only->features()->at(u"term").toString());
}

TEST(GrossAnalysisTest, OcrNumbersGetOnlyTheMediumFontBonus) {
  LMReceiptParser parser;
  auto big = number(5000, 2, {100, 100, 50, 10}, 20);
  auto small = number(9000, 2, {100, 200, 50, 10}, 10);
  big->setOcr(true);
  small->setOcr(true);
  parser.setNumbers({big, small});
  parser.analyzeAmountElements();
  EXPECT_EQ(u"50", text(parser.gross()));  // 0.5 bonus: 20 is above the medium 15
  EXPECT_FALSE(big->features()->contains(u"font_size"));

  LMReceiptParser close;  // sizes 10 and 12 differ by less than 3.1: no medium
  auto b2 = number(5000, 2, {100, 100, 50, 10}, 12);
  auto s2 = number(9000, 2, {100, 200, 50, 10}, 10);
  b2->setOcr(true);
  s2->setOcr(true);
  close.setNumbers({b2, s2});
  close.analyzeAmountElements();
  EXPECT_EQ(u"90", text(close.gross()));
}

TEST(TaxAnalysisTest, RateFitWithinThreeHundredths) {
  struct Case {
    int64_t amount;
    bool fits;
  } cases[] = {{1900, true}, {1897, true}, {1903, true}, {1896, false}, {1904, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.amount);
    LMReceiptParser parser;
    parser.setGross(LMDecimal::fromInt(119));
    parser.setTaxes(LMArray{19});
    auto n = number(c.amount, 2, {100, 100, 50, 10});
    parser.setNumbers({n});
    parser.analyzeTaxElements();
    EXPECT_EQ(c.fits, parser.tax().has_value());
    if (c.fits) {
      EXPECT_TRUE(n->features()->contains(u"text_tax_19_percent_fit_1897_1903_" +
                                          std::u16string(LMValue(c.amount).toString())));
    }
  }
}

TEST(TaxAnalysisTest, CeilingTieBreakAndMissingGross) {
  LMReceiptParser parser;
  parser.setGross(LMDecimal::fromInt(100));
  parser.setTaxes(LMArray{19, 19});
  auto atCeiling = number(3000, 2, {100, 100, 50, 10});
  auto above = number(3001, 2, {100, 120, 50, 10});
  parser.setTermTaxFindings({term(u"mwst", {100, 100, 50, 10})});
  parser.setNumbers({above, atCeiling});
  parser.analyzeTaxElements();
  EXPECT_TRUE(atCeiling->features()->contains(u"sort_Weight_tax"));
  EXPECT_FALSE(above->features()->contains(u"sort_Weight_tax"));
  // The only term-near candidate has the maximum factor: share 0, so no tax.
  EXPECT_FALSE(parser.tax());

  LMReceiptParser two;  // two amounts fit the same rate: the smaller wins
  two.setGross(LMDecimal::fromString("107.00").value());
  two.setTaxes(LMArray{7, 7});
  auto a = number(700, 2, {100, 100, 50, 10});
  auto b = number(702, 2, {100, 200, 50, 10});
  two.setNumbers({b, a});
  two.analyzeTaxElements();
  EXPECT_EQ(u"7", text(two.tax()));
  size_t fits = 0;
  for (const auto& e : *a->features()) fits += e.key.view().starts_with(u"text_tax_7_percent_fit");
  EXPECT_EQ(1u, fits);

  LMReceiptParser noGross;
  noGross.setTaxes(LMArray{19});
  noGross.setNumbers({number(1900, 2, {0, 0, 1, 1})});
  noGross.analyzeTaxElements();
  EXPECT_FALSE(noGross.tax());
}

TEST(TaxAnalysisTest, WrongKindOfTaxesIsRefused) {
  LMReceiptParser parser;
  parser.setGross(LMDecimal::fromInt(100));
  parser.setTaxes(u"19");
  EXPECT_THROW(parser.analyzeTaxElements(), std::invalid_argument);
  parser.setTaxes(LMArray{LMDictionary{}});
  EXPECT_THROW(parser.analyzeTaxElements(), std::invalid_argument);
  parser.setTaxes(LMArray{u"7.7"});
  EXPECT_NO_THROW(parser.analyzeTaxElements());
}

TEST(DateAnalysisTest, FirstNonFutureDateInReadingOrder) {
  auto at = [](std::optional<LMDate> date, int64_t page, double y) {
    auto d = std::make_shared<LMFoundDate>();
    d->setDate(date);
    d->setPage(page);
    d->setBbox({50, y, 50, 10});
    return d;
  };
  const LMDate now = LMDate::now();
  const LMDate tomorrow = LMDate::fromTimeIntervalSinceReferenceDate(
      now.timeIntervalSinceReferenceDate() + 2 * 86400);
  const LMDate lastYear = LMDate::fromTimeIntervalSinceReferenceDate(
      now.timeIntervalSinceReferenceDate() - 365 * 86400);
  auto future = at(tomorrow, 0, 800);
  auto past = at(lastYear, 0, 700);
  auto secondPage = at(now, 1, 800);
  LMReceiptParser parser;
  parser.setDates({secondPage, past, future});
  parser.analyzeDateElements();
  ASSERT_EQ(3u, parser.dates()->size());
  EXPECT_EQ(future, parser.dates()->at(0));
  EXPECT_EQ(secondPage, parser.dates()->at(2));
  EXPECT_EQ(lastYear, parser.date());

  LMReceiptParser allFuture;
  allFuture.setDates({future});
  allFuture.analyzeDateElements();
  EXPECT_FALSE(allFuture.date());
  EXPECT_EQ(1u, allFuture.dates()->size());

  LMReceiptParser none;
  none.analyzeDateElements();
  EXPECT_TRUE(none.dates()->empty());
}

TEST(ReceiptParserTest, ResultHasAllKeysBeforeWork) {
  LMReceiptParser parser;
  const LMDictionary result = parser.result();
  EXPECT_EQ((std::vector<std::u16string>{u"ocr", u"letter", u"landscape", u"date", u"dates",
                                         u"terms", u"taxTerms", u"net", u"gross", u"numbers",
                                         u"currency", u"currencies", u"taxes", u"taxPercent",
                                         u"taxValues", u"tax", u"links", u"addresses", u"banks",
                                         u"text", u"factors"}),
            result.keys());
  for (const auto& e : result) {
    SCOPED_TRACE(std::string(e.key.view().begin(), e.key.view().end()));
    if (e.key == u"ocr" || e.key == u"letter" || e.key == u"landscape") {
      EXPECT_EQ(LMValue(false), e.value);
    } else if (e.key == u"factors") {
      EXPECT_EQ(LMValue(LMDictionary()), e.value);
    } else {
      EXPECT_TRUE(e.value.isNull());
    }
  }
  EXPECT_EQ(0u, parser.description().find(u"<LMReceiptParser:\n{\n"));
}

}  // namespace
