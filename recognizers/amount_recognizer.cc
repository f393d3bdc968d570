#include "recognizers/amount_recognizer.h"

#include <algorithm>

#include "kit/diagnostics.h"
#include "kit/strings.h"
#include "recognizers/pattern_escaping.h"
#include "recognizers/regex.h"

namespace {

// Capture groups: 1 the whole number, 2 the last thousands block, 3 the
// decimal part with its separator, 4 the decimal digits or the dash. The dash
// class holds hyphen-minus, en dash, em dash and horizontal bar.
const char16_t kAmountPattern[] =
    u"(?<![\\d\\,\\.])              # Not prefixed by\n"
    u"\n"
    u"(\\-?\\d+([\\,\\.\\']\\d\\d\\d)*   # Thousand separators\n"
    u"(?![\\d])                   # Thousands not followed by another number\n"
    u"([\\,\\.]                    # Separator for decimals \n"
    u"([\\-\\\u2013\\\u2014\\\u2015]|\\d{2,}))?)     # Dashes or 2+ digits\n"
    u"\n"
    u"(?![\\d\\,\\.])               # Not followed by";

constexpr int kDecimalGroup = 4;

// A longer alias stands free of word characters. It goes in unescaped, so the
// "$" of "us$", "a$", "au$" and "$a" is an end-of-line anchor; kept as it is.
const char16_t kFreeStandingAlias[] =
    u"(\n"
    u"(?<!\\w)  # Currency should stand free\n"
    u"%@       # Here we get EUR, USD, etc.\n"
    u"(?!\\w)   # Currency should stand free\n"
    u")   ";

struct AmountTables {
  std::u16string amountPattern = kAmountPattern;
  LMRegex amountRegex{amountPattern, kLMRegexDefaultOptions};
  std::vector<std::pair<std::u16string, std::u16string>> aliases = {
      {u"eur", u"EUR"}, {u"euro", u"EUR"}, {u"euros", u"EUR"}, {u"\u20AC", u"EUR"},
      {u"usd", u"USD"}, {u"$", u"USD"},    {u"us$", u"USD"},   {u"chf", u"CHF"},
      {u"gbp", u"GBP"}, {u"\u00A3", u"GBP"}, {u"$a", u"AUD"},  {u"a$", u"AUD"},
      {u"au$", u"AUD"}, {u"aud", u"AUD"}};
  std::vector<std::u16string> supported = supportedCodes(aliases);
  LMRegex currencyRegex{currencyPattern(aliases), kLMRegexDefaultOptions};

  AmountTables() {
    LMAssert(amountRegex.compiled() != nullptr);
    LMAssert(!supported.empty());
    LMAssert(currencyRegex.compiled() != nullptr);
  }

  static std::vector<std::u16string> supportedCodes(
      const std::vector<std::pair<std::u16string, std::u16string>>& aliases) {
    std::vector<std::u16string> codes;
    for (const auto& [alias, code] : aliases) codes.push_back(code);
    std::sort(codes.begin(), codes.end());
    codes.erase(std::unique(codes.begin(), codes.end()), codes.end());
    return codes;
  }

  static std::u16string currencyPattern(
      const std::vector<std::pair<std::u16string, std::u16string>>& aliases) {
    std::vector<std::u16string> pieces;
    for (const auto& [alias, code] : aliases) {
      pieces.push_back(alias.size() == 1 ? lmEscapedPatternForString(alias)
                                         : lmReplace(kFreeStandingAlias, u"%@", alias));
    }
    return u"(" + lmJoin(pieces, u"|") + u")";
  }
};

const AmountTables& amountTables() {
  static const auto* tables = new AmountTables;
  return *tables;
}

}  // namespace

const std::u16string& LMReceiptParserAmount::amountPattern() {
  return amountTables().amountPattern;
}

const LMRegex& LMReceiptParserAmount::amountRegularExpression() {
  return amountTables().amountRegex;
}

const std::vector<std::pair<std::u16string, std::u16string>>&
LMReceiptParserAmount::currencyAliases() {
  return amountTables().aliases;
}

const std::vector<std::u16string>& LMReceiptParserAmount::currenciesSupported() {
  return amountTables().supported;
}

const LMRegex& LMReceiptParserAmount::currencyRegularExpression() {
  return amountTables().currencyRegex;
}

std::vector<LMDictionary> LMReceiptParserAmount::findAmountInText(std::u16string_view text,
                                                                  const Block& block) const {
  std::vector<LMDictionary> found;
  amountRegularExpression().enumerateMatchesInString(text, [&](const LMRegexMatch& match,
                                                               bool*) {
    const std::u16string s = match.stringValue();
    const LMTextRange decimals = match.rangeAtIndex(kDecimalGroup);
    const size_t d = decimals.found() ? decimals.length : 0;

    std::u16string digits;
    int64_t places = 0;
    if (d == 1) {
      // A dash stands for the cents: "5,–" is 5,00.
      digits = s.substr(0, s.size() - 2) + u"00";
      places = 2;
    } else if (d < 3) {
      const char16_t separator = s.size() >= 3 ? s[s.size() - 3] : u'\0';
      if (separator == u',' || separator == u'.') {
        digits = s;
        places = static_cast<int64_t>(d);
      } else {
        digits = s + u"00";
      }
    } else {
      // Decimals beyond the hundredths are cut off, not rounded.
      digits = s.substr(0, s.size() - (d - 2));
      places = static_cast<int64_t>(d);
    }
    digits = lmReplace(lmReplace(lmReplace(digits, u".", u""), u",", u""), u"'", u"");

    // Leading-zero numbers such as postal codes and "00,50"; "0,50" stays.
    if (digits.size() > 3 && digits.front() == u'0') return;
    const bool negative = !digits.empty() && digits.front() == u'-';
    if (negative) digits.erase(0, 1);
    int64_t amount = LMValue(digits).toInt();
    if (negative) amount = -amount;

    LMDictionary info{{u"amount", amount},
                      {u"currency", LMValue::null()},
                      {u"places", places},
                      {u"stringOriginal", s}};
    if (block) block(text, match.range(), amount, places, nullptr, info);
    found.push_back(std::move(info));
  });
  return found;
}
