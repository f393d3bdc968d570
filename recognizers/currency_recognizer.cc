#include "recognizers/currency_recognizer.h"

#include <algorithm>
#include <cstdint>

#include "kit/diagnostics.h"
#include "kit/strings.h"
#include "recognizers/pattern_escaping.h"
#include "recognizers/regex.h"

namespace {

using AliasTable = std::vector<std::pair<std::u16string, std::u16string>>;

const char16_t kFreeStandingAlias[] =
    u"(\n"
    u"(?<![[:alpha:]])  # Currency should stand free\n"
    u"%@                # Here we get EUR, USD, etc.\n"
    u"(?![[:alpha:]])   # Currency should stand free\n"
    u")";

std::u16string currencyPattern(const AliasTable& table) {
  // Longer aliases first: where one alias begins another at the same place
  // ("$" and "$a"), the longer one wins.
  std::vector<std::u16string> aliases;
  for (const auto& [alias, code] : table) aliases.push_back(alias);
  std::stable_sort(aliases.begin(), aliases.end(),
                   [](const std::u16string& a, const std::u16string& b) {
                     return a.size() > b.size();
                   });
  std::vector<std::u16string> pieces;
  for (const std::u16string& alias : aliases) {
    const std::u16string escaped = lmEscapedPatternForString(alias);
    pieces.push_back(alias.size() == 1 ? escaped
                                       : lmReplace(kFreeStandingAlias, u"%@", escaped));
  }
  return u"(" + lmJoin(pieces, u"|") + u")";
}

struct CurrencyTables {
  // There is no "£" here on purpose: a pound sign alone is not taken as a
  // currency mention.
  const AliasTable table = {
      {u"eur", u"EUR"}, {u"euro", u"EUR"}, {u"euros", u"EUR"}, {u"\u20AC", u"EUR"},
      {u"usd", u"USD"}, {u"$", u"USD"},    {u"us$", u"USD"},   {u"chf", u"CHF"},
      {u"gbp", u"GBP"}, {u"$a", u"AUD"},   {u"a$", u"AUD"},    {u"au$", u"AUD"},
      {u"aud", u"AUD"}};
  LMDictionary codes;  // alias -> code, for lookups
  std::vector<std::u16string> supported;
  LMRegex regex{currencyPattern(table), kLMRegexDefaultOptions};

  CurrencyTables() {
    for (const auto& [alias, code] : table) {
      codes.set(alias, code);
      supported.push_back(code);
    }
    std::sort(supported.begin(), supported.end());
    supported.erase(std::unique(supported.begin(), supported.end()), supported.end());
    LMAssert(!supported.empty());
    LMAssert(regex.compiled() != nullptr);
  }
};

const CurrencyTables& currencyTables() {
  static const auto* tables = new CurrencyTables;
  return *tables;
}

}  // namespace

const std::vector<std::pair<std::u16string, std::u16string>>&
LMReceiptParserCurrency::currencyTable() {
  return currencyTables().table;
}

const std::vector<std::u16string>& LMReceiptParserCurrency::currenciesSupported() {
  return currencyTables().supported;
}

const LMRegex& LMReceiptParserCurrency::currencyRegularExpression() {
  return currencyTables().regex;
}

std::vector<LMDictionary> LMReceiptParserCurrency::findInText(std::u16string_view text,
                                                              bool /*ocr*/,
                                                              const Block& block) {
  const CurrencyTables& tables = currencyTables();
  std::vector<LMDictionary> found;
  LMDictionary counter;  // code -> times seen
  int64_t bestCount = 0;
  std::optional<std::u16string> bestCode;

  tables.regex.enumerateMatchesInString(text, [&](const LMRegexMatch& match, bool*) {
    const std::u16string alias = lmLower(match.stringValue());
    if (alias.empty()) return;
    const LMValue* code = tables.codes.key(alias);
    const std::u16string* codeText = code ? code->asString() : nullptr;
    if (codeText) {
      const int64_t seen = counter.incrementCounterForKey(*codeText);
      // Strictly more: of codes seen equally often the first to get there wins.
      if (seen > bestCount) {
        bestCount = seen;
        bestCode = *codeText;
      }
    }
    if (block) block(text, match.range(), codeText);
    found.push_back(LMDictionary{
        {u"currencyCode", codeText ? LMValue(*codeText) : LMValue::null()}});
  });

  currencyCode_ = std::move(bestCode);
  return found;
}
