#include "recognizers/bank_recognizer.h"

#include <gtest/gtest.h>

#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "kit/unicode.h"
#include "recognizers/regex.h"

namespace {

TEST(BankRecognizerTest, FindsGermanIbansWithAnySpacingOnly) {
  struct Case {
    std::u16string text;
    std::u16string iban;
    std::u16string bnc;
    std::u16string account;
  } cases[] = {
      {u"IBAN DE89 3704 0044 0532 0130 00", u"DE89370400440532013000", u"37040044",
       u"0532013000"},
      {u"de89370400440532013000", u"de89370400440532013000", u"37040044", u"0532013000"},
      {u"IBAN: D E 8 9 3704\n0044 0532\t0130 00.", u"DE89370400440532013000", u"37040044",
       u"0532013000"},
      {u"DE89\u00A03704\u00A00044\u00A00532\u00A00130\u00A000", u"DE89370400440532013000",
       u"37040044", u"0532013000"},
      // Nothing checks what follows the account number.
      {u"DE8937040044053201300099", u"DE89370400440532013000", u"37040044", u"0532013000"},
      // Check digits are not verified.
      {u"IBAN DE28700100809999999999", u"DE28700100809999999999", u"70010080", u"9999999999"},
      // Other countries and short numbers: none.
      {u"AT61 1904 3002 3457 3201", u"", u"", u""},
      {u"CH93 0076 2011 6238 5295 7", u"", u"", u""},
      {u"DE89 3704 0044 0532 0130 0", u"", u"", u""},  // 9 account digits
      {u"DE89 3704 0044 0532-0130-00", u"", u"", u""},
      {u"", u"", u"", u""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.text));
    LMDictionary told;  // what the block is told
    const auto found = LMReceiptParserBank().findBankInfoInText(
        c.text, [&](std::u16string_view, LMTextRange, std::u16string_view iban, int64_t,
                    std::u16string_view account, std::u16string_view bnc) {
          told = {{u"iban", std::u16string(iban)}, {u"account", std::u16string(account)},
                  {u"bnc", std::u16string(bnc)}};
        });
    ASSERT_EQ(c.iban.empty() ? 0u : 1u, found.size());
    if (found.empty()) continue;
    const LMDictionary expected{{u"iban", c.iban}, {u"account", c.account}, {u"bnc", c.bnc}};
    EXPECT_EQ(expected, found[0]);
    EXPECT_EQ(expected, told);
  }
}

TEST(BankRecognizerTest, Mod97Validation) {
  struct Case {
    std::u16string digits;
    bool valid;
  } cases[] = {
      {u"370400440532013000131489", true},  // DE89 3704 0044 0532 0130 00 rearranged
      {u"370400440532013000131488", false},
      {u"700100809999999999131428", false},
      {u"1", true},
      {u"98", true},
      {u"97", false},
      {u"", false},
      {u"a1", false},
      // Far beyond 64 bits; leaves remainder 1.
      {u"9999999999999999999999999999999999999910", true},
      {u"9999999999999999999999999999999999999911", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.digits));
    EXPECT_EQ(c.valid, LMReceiptParserBank().mod97Validation(c.digits));
  }
}

// The search tries the expression only at each "D"; it must find exactly what
// a search of the whole text finds, blanks before an IBAN included.
TEST(BankRecognizerTest, FindsWhatASearchOfTheWholeTextFinds) {
  // Texts of IBAN-shaped pieces (some a digit short or long) with blanks of
  // every kind, and noise.
  const std::vector<std::u16string> blanks = {u"", u"", u"", u" ", u"    ", u"\n", u"\t",
                                              u"\u00A0", u"\u2028", u"\u0085", u"\u000B"};
  const std::vector<std::u16string> noise = {u"x", u"AT61", u"D", u"\u200B", u"IBAN:", u"7"};
  std::mt19937 random(20261122);
  auto pick = [&](const std::vector<std::u16string>& from) { return from[random() % from.size()]; };
  size_t ibans = 0;
  for (int i = 0; i < 400; ++i) {
    std::u16string text;
    for (int j = 0; j < 4; ++j) {
      text += pick(noise) + pick(blanks);
      std::u16string characters = random() % 2 ? u"DE" : u"de";
      const int digits = 19 + static_cast<int>(random() % 4);
      for (int k = 0; k < digits; ++k) {
        characters += k == 7 && random() % 4 == 0 ? u'\u0663'  // an Arabic-Indic digit
                                                  : static_cast<char16_t>(u'0' + random() % 10);
      }
      for (char16_t c : characters) text += pick(blanks) + c;
      text += pick(blanks);
    }
    SCOPED_TRACE(lmUtf8(text));
    std::vector<std::pair<uint64_t, uint64_t>> expected;  // location, length
    LMReceiptParserBank::ibanRegularExpression().enumerateMatchesInString(
        text, [&](const LMRegexMatch& match, bool*) {
          expected.emplace_back(match.range().location, match.range().length);
        });
    std::vector<std::pair<uint64_t, uint64_t>> ranges;
    LMReceiptParserBank().findBankInfoInText(
        text, [&](std::u16string_view, LMTextRange range, std::u16string_view, int64_t,
                  std::u16string_view, std::u16string_view) {
          ranges.emplace_back(range.location, range.length);
        });
    ASSERT_EQ(expected, ranges);
    ibans += ranges.size();
  }
  EXPECT_GT(ibans, 20u);  // the texts do hold IBANs
}

}  // namespace
