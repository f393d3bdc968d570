#include "recognizers/currency_recognizer.h"

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <string>
#include <vector>

#include "kit/unicode.h"
#include "recognizers/regex.h"

namespace {

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
    Codes codes;  // a code of null reads as ""
    for (const LMDictionary& finding : recognizer.findInText(c.text, false)) {
      codes.push_back(finding.at(u"currencyCode").toString());
    }
    EXPECT_EQ(c.codes, codes);
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

// The search tries the expression only where a mention can begin; it must
// find exactly what a search of the whole text finds.
TEST(CurrencyRecognizerTest, FindsWhatASearchOfTheWholeTextFinds) {
  std::vector<std::u16string> pieces = {u"x", u"1", u" ", u"\n", u"-", u"\u00E4", u"\u017F",
                                        u"\U0001F600", u"$", u"\u20AC", u"\u00A3"};
  for (const auto& [alias, code] : LMReceiptParserCurrency::currencyTable()) {
    std::u16string upper = alias;
    for (char16_t& c : upper) c = c >= u'a' && c <= u'z' ? c - (u'a' - u'A') : c;
    pieces.push_back(alias);
    pieces.push_back(upper);
  }
  // Letters that fold to an alias's (long s to "s", the Kelvin sign to "k"),
  // then generated texts.
  std::vector<std::u16string> texts = {u"u\u017Fd 5 U\u017F$ 6 \u017Fusd", u"\u212Aeur EUR\u212A"};
  std::mt19937 random(20261126);
  for (int i = 0; i < 400; ++i) {
    std::u16string text;
    for (int j = 0; j < 12; ++j) text += pieces[random() % pieces.size()];
    texts.push_back(text);
  }
  for (const std::u16string& text : texts) {
    SCOPED_TRACE(lmUtf8(text));
    std::vector<LMTextRange> expected;
    LMReceiptParserCurrency::currencyRegularExpression().enumerateMatchesInString(
        text, [&](const LMRegexMatch& match, bool*) { expected.push_back(match.range()); });
    std::vector<LMTextRange> ranges;
    LMReceiptParserCurrency().findInText(
        text, false, [&](std::u16string_view, LMTextRange range, const std::u16string*) {
          ranges.push_back(range);
        });
    ASSERT_EQ(expected, ranges);
  }
}

}  // namespace
