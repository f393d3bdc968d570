#include "recognizers/amount_recognizer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kit/unicode.h"
#include "recognizers/regex.h"

namespace {

// The findings in `text`; the block must be told each of them, with its
// range around its text.
std::vector<LMDictionary> find(std::u16string_view text) {
  std::vector<LMDictionary> told;
  const std::vector<LMDictionary> found = LMReceiptParserAmount().findAmountInText(
      text, [&](std::u16string_view, LMTextRange range, int64_t amount, int64_t places,
                const std::u16string* currency, const LMDictionary& info) {
        EXPECT_EQ(info.at(u"stringOriginal").toString(), text.substr(range.location, range.length));
        EXPECT_EQ(info.at(u"amount").toInt(), amount);
        EXPECT_EQ(info.at(u"places").toInt(), places);
        EXPECT_EQ(nullptr, currency);
        told.push_back(info);
      });
  EXPECT_EQ(found, told);
  return found;
}

TEST(AmountRecognizerTest, ReadsSeparatorsAndPlacesAndRefusesGluedOnes) {
  struct Case {
    std::u16string text;
    int64_t amount;
    int64_t places;  // -1: no amount
  } cases[] = {
      {u"1.234,56", 123456, 2},
      {u"1,234.56", 123456, 2},
      {u"1'234.50", 123450, 2},
      {u"12,34", 1234, 2},
      {u"12", 1200, 0},
      {u"1.234", 123400, 0},  // three digits after a separator are thousands
      {u"1,999", 199900, 0},
      {u"1.234.567,89", 123456789, 2},
      {u"12.345.678", 1234567800, 0},
      {u"1.2345", 123, 4},  // cut to hundredths, not rounded
      {u"1,9999", 199, 4},
      {u"-7,50", -750, 2},
      {u"0,50", 50, 2},
      {u"-0,50", -50, 2},
      {u"5,-", 500, 2},
      {u"5,\u2013", 500, 2},
      {u"5.\u2014", 500, 2},
      {u"5,\u2015", 500, 2},
      {u"-5,-", -500, 2},
      {u"1.234,\u2013", 123400, 2},
      {u"A123", 12300, 0},  // only digits, "," and "." are refused before a number
      // Numbers glued to separators or with leading zeros: none.
      {u"1,5", 0, -1},  // "1" is followed by ",", "5" stands behind one
      {u"12.3", 0, -1},  //
      {u"01234", 0, -1},  // postal code
      {u"01069 Dresden", 0, -1},
      {u"00,50", 0, -1},
      {u"0001", 0, -1},
      {u"12,", 0, -1},  // a trailing separator is refused as well
      {u".5", 0, -1},
      {u"", 0, -1},
      {u"keine Zahl", 0, -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.text));
    const auto found = find(c.text);
    ASSERT_EQ(c.places < 0 ? 0u : 1u, found.size());
    if (found.empty()) continue;
    EXPECT_EQ(c.amount, found[0].at(u"amount").toInt());
    EXPECT_EQ(c.places, found[0].at(u"places").toInt());
  }
}

TEST(AmountRecognizerTest, ReportsEveryFindingInTextOrder) {
  const auto found = find(u"Menge 2 x 3,20 EUR\nPLZ 01234 Summe 1.005,55\nRabatt -0,42");
  std::vector<std::u16string> strings;  // the postal code is skipped
  for (const LMDictionary& finding : found) strings.push_back(finding.at(u"stringOriginal").toString());
  ASSERT_EQ((std::vector<std::u16string>{u"2", u"3,20", u"1.005,55", u"-0,42"}), strings);
  EXPECT_EQ((std::vector<std::u16string>{u"amount", u"currency", u"places", u"stringOriginal"}),
            found[2].keys());
  EXPECT_TRUE(found[2].at(u"currency").isNull());
  EXPECT_NE(nullptr, found[2].at(u"amount").asInt());
}

TEST(AmountRecognizerTest, KeepsItsOwnCurrencyTable) {
  const LMRegex& regex = LMReceiptParserAmount::currencyRegularExpression();
  // Unlike the currency recognizer's, this table has "£", and a longer alias
  // must not touch any word character, digits included.
  EXPECT_EQ((std::vector<std::u16string>{u"\u00A3", u"EUR", u"Euro"}),
            regex.allStringMatchesinString(u"\u00A3 5, 12EUR, EUR 3, Euro, neuro"));
}

}  // namespace
