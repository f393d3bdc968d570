#include "recognizers/bank_recognizer.h"

#include <unicode/uchar.h>

#include <optional>
#include <string>

#include "kit/diagnostics.h"
#include "kit/strings.h"
#include "recognizers/anchored_matcher.h"
#include "recognizers/regex.h"

namespace {

// Every "_" becomes "\s*" before compiling. The blanks after the group names
// are ignored in free-spacing mode.
const char16_t kIbanTemplate[] =
    u"(?<country>   _D_E_)\n"
    u"(?<checksum>  _\\d_\\d_)\n"
    u"(?<bnc>       _\\d_\\d_\\d_\\d_\\d_\\d_\\d_\\d_)\n"
    u"(?<account>   _\\d_\\d_\\d_\\d_\\d_\\d_\\d_\\d_\\d_\\d_)";

// Digits per piece of the remainder computation: two digits of remainder and
// seven new ones always fit in 64 bits.
constexpr int64_t kPieceLength = 7;

std::u16string decimalText(int64_t n) {
  std::u16string text;
  for (char c : std::to_string(n)) text.push_back(static_cast<char16_t>(c));
  return text;
}

}  // namespace

const LMRegex& LMReceiptParserBank::ibanRegularExpression() {
  static const auto* regex = [] {
    auto* made = new LMRegex(lmReplace(kIbanTemplate, u"_", u"\\s*"), kLMRegexDefaultOptions);
    LMAssert(made->compiled() != nullptr);
    return made;
  }();
  return *regex;
}

std::vector<LMDictionary> LMReceiptParserBank::findBankInfoInText(std::u16string_view text,
                                                                  const Block& block) const {
  std::vector<LMDictionary> found;
  auto onMatch = [&](const LMRegexMatch& match) {
    const std::u16string iban = lmStripAllBlanks(match.stringValue());
    const std::u16string account = lmStripAllBlanks(match[u"account"].value_or(u""));
    const std::u16string bnc = lmStripAllBlanks(match[u"bnc"].value_or(u""));
    if (block) block(text, match.range(), iban, 0, account, bnc);
    found.push_back(LMDictionary{{u"iban", iban}, {u"account", account}, {u"bnc", bnc}});
  };

  const LMRegex& regex = ibanRegularExpression();
  LMAnchoredMatcher matcher(regex, text);
  if (!matcher.usable()) {
    // Finds nothing as well, but logs why.
    regex.enumerateMatchesInString(text, [&](const LMRegexMatch& m, bool*) { onMatch(m); });
    return found;
  }
  // A search of the whole text tries the expression at every position, and
  // its leading "\s*" makes each run of blanks cost the square of its length.
  // Trying it at each "D" only gives the same matches: a match is blanks and
  // then "D" (in either case; no other character matches it) and the rest,
  // so the expression matches from a blank only if it matches from the next
  // "D", and a search of the whole text begins that match at the first blank
  // of the run before the "D" (but not before the end of the previous match).
  size_t position = 0;
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] != u'D' && text[at] != u'd') continue;
    std::optional<LMRegexMatch> match = matcher.matchAt(at);
    if (!match) continue;
    size_t start = at;
    // "\s" is the White_Space property; none of its characters needs two units.
    while (start > position && u_hasBinaryProperty(text[start - 1], UCHAR_WHITE_SPACE)) --start;
    if (start < at) match = matcher.matchAt(start);
    LMAssert(match.has_value());
    if (!match) continue;
    onMatch(*match);
    position = match->range().end();
    at = position - 1;
  }
  return found;
}

bool LMReceiptParserBank::mod97Validation(std::u16string_view digits) const {
  std::u16string rest;
  for (size_t position = 0;; position += kPieceLength) {
    const std::u16string piece = lmSliceFrom(digits, static_cast<int64_t>(position),
                                             static_cast<int64_t>(position) + kPieceLength);
    if (piece.empty()) break;
    rest = decimalText(LMValue(rest + piece).toInt() % 97);
  }
  return rest == u"1";
}
