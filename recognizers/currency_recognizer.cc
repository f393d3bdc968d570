#include "recognizers/currency_recognizer.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "kit/diagnostics.h"
#include "kit/strings.h"
#include "recognizers/anchored_matcher.h"
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

// Where a mention can begin, for trying the expression only there: at every
// other position the engine would try each alias, each behind a look-behind.
// In a case-insensitive match an ASCII character of the text matches only
// itself in either case, so an ASCII position can begin only an alias with
// that first character, and an alias of several characters only if the next
// character is its second one or lies beyond ASCII. Positions beyond ASCII
// (a character there may fold to an alias's first) are always tried, but the
// second half of a surrogate pair, where no search begins.
class CurrencyStarts {
 public:
  explicit CurrencyStarts(const AliasTable& table) {
    for (const auto& [alias, code] : table) {
      if (alias.empty() || alias[0] >= 0x80) continue;  // tried anyway
      const char16_t first = lmAsciiLower(alias[0]);
      if (alias.size() == 1 || alias[1] >= 0x80) {
        alone_[first] = true;
      } else {
        pairs_[first][lmAsciiLower(alias[1])] = true;
      }
    }
  }

  bool mayBegin(std::u16string_view text, size_t at) const {
    const char16_t c = text[at];
    if (c >= 0x80) return !lmInsideSurrogatePair(text, at);
    const char16_t first = lmAsciiLower(c);
    if (alone_[first]) return true;
    if (at + 1 >= text.size()) return false;
    const char16_t next = text[at + 1];
    return next >= 0x80 || pairs_[first][lmAsciiLower(next)];
  }

 private:
  std::array<bool, 128> alone_{};
  std::array<std::array<bool, 128>, 128> pairs_{};
};

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
  CurrencyStarts starts{table};

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

  auto onMatch = [&](const LMRegexMatch& match) {
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
  };
  LMAnchoredMatcher matcher(tables.regex, text);
  if (matcher.usable()) {
    lmEachAnchoredMatch(
        matcher, text.size(), [&](size_t at) { return tables.starts.mayBegin(text, at); }, onMatch);
  } else {
    // Finds nothing as well, but logs why.
    tables.regex.enumerateMatchesInString(text, [&](const LMRegexMatch& m, bool*) { onMatch(m); });
  }

  currencyCode_ = std::move(bestCode);
  return found;
}
