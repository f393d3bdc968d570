#include "recognizers/currency_recognizer.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "kit/unicode.h"
#include "recognizers/regex.h"

namespace {

std::vector<std::u16string> codes(const std::vector<LMDictionary>& found) {
  std::vector<std::u16string> out;
  for (const LMDictionary& finding : found) {
    const LMValue& code = finding.at(u"currencyCode");
    out.push_back(code.isNull() ? u"<null>" : code.toString());
  }
  return out;
}

TEST(CurrencyRecognizerTest, MapsAliasesThatStandFreeAndKeepsTheMostFrequentCode) {
  using Codes = std::vector<std::u16string>;
  struct Case {
    std::u16string text;
    Codes codes;
    std::u16string kept;  // the most frequent code, the earlier one on a tie
  } cases[] = {
      {u"Total 12,50 EUR, paid in \u20AC", {u"EUR", u"EUR"}, u"EUR"},
      {u"12EUR 3eur", {u"EUR", u"EUR"}, u"EUR"},  // a digit is no letter
      {u"Euro EUROS euro-Preis", {u"EUR", u"EUR", u"EUR"}, u"EUR"},
      {u"NEUROLOGIE Eurasia", {}, u"<none>"},
      {u"EURO2", {u"EUR"}, u"EUR"},
      {u"\u00A3 10 GBP 10", {u"GBP"}, u"GBP"},  // no "£" in the table
      {u"$5 US$ 3 USD", {u"USD", u"USD", u"USD"}, u"USD"},
      {u"A$ 10, AU$ 10, AUD 10", {u"AUD", u"AUD", u"AUD"}, u"AUD"},
      {u"$A 10", {u"AUD"}, u"AUD"},  // the longer alias wins over "$"
      {u"CHF chf Chf", {u"CHF", u"CHF", u"CHF"}, u"CHF"},
      {u"USDollar", {}, u"<none>"},
      {u"", {}, u"<none>"},
      {u"USD 5 / CHF 3 / CHF 4 / USD 2", {u"USD", u"CHF", u"CHF", u"USD"}, u"CHF"},  // CHF reached 2 first
      {u"USD 5 / CHF 3", {u"USD", u"CHF"}, u"USD"},
      {u"EUR 1 $ 2 $ 3 EUR 4 EUR 5", {u"EUR", u"USD", u"USD", u"EUR", u"EUR"}, u"EUR"},
      {u"EUR 1 $ 2 $ 3", {u"EUR", u"USD", u"USD"}, u"USD"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.text));
    LMReceiptParserCurrency recognizer;
    EXPECT_EQ(c.codes, codes(recognizer.findInText(c.text, false)));
    EXPECT_EQ(c.kept, recognizer.currencyCode().value_or(u"<none>"));
  }
}

TEST(CurrencyRecognizerTest, ReportsRangesAndForgetsTheLastSearch) {
  const std::u16string text = u"Betrag: 10,00 \u20AC\nin CHF";
  LMReceiptParserCurrency recognizer;
  std::vector<std::pair<std::u16string, std::u16string>> seen;  // matched text, code
  const auto found =
      recognizer.findInText(text, false, [&](std::u16string_view searched, LMTextRange range,
                                             const std::u16string* code) {
        ASSERT_NE(nullptr, code);
        seen.emplace_back(searched.substr(range.location, range.length), *code);
      });
  EXPECT_EQ((std::vector<std::pair<std::u16string, std::u16string>>{{u"\u20AC", u"EUR"},
                                                                    {u"CHF", u"CHF"}}),
            seen);
  EXPECT_EQ(2u, found.size());
  EXPECT_EQ(u"EUR", recognizer.currencyCode().value_or(u""));

  recognizer.findInText(u"no currency here", false);
  EXPECT_FALSE(recognizer.currencyCode().has_value());
}

}  // namespace
