#include "document/text_normalization.h"

#include "kit/diagnostics.h"
#include "kit/strings.h"
#include "recognizers/regex.h"

const LMNormalizationTable& lmConfigureNormalize() {
  static const auto* table = new LMNormalizationTable{
      {u'0', u"DOoQ"},
      {u'1', u"liIL"},
      {u'2', u"Z"},
      {u'4', u"A"},
      {u'5', u"sS"},
      {u'6', u"b"},
      {u'7', u"T"},
      {u'8', u"B"},
      {u',', u"."},
      {u'.', u","},
      // The tilde counts as a dash here, unlike in the page cleaning.
      {u'-', u"~-\u2011\u2043\u2012\u2013\u2014\u2022"},
      // Line feed, carriage return and U+FFFC are not folded into a blank;
      // the page cleaning has already made them line breaks.
      {u' ',
       u"\u00A0\u1680\u180E\u2000\u2001\u2002\u2003\u2004\u2005\u2006\u2007\u2008"
       u"\u2009\u200A\u2028\u2029\u202F\u205F\u3000"},
      {u'\'', u"\u0060\u2018\u2019'"},
      {u'"', u"\u201C\u201D"},
  };
  return *table;
}

void normalizeLike(std::u16string& text, std::u16string_view character) {
  LMAssert(character.size() == 1);
  const LMNormalizationTable& table = lmConfigureNormalize();
  if (character.size() != 1) return;  // no row has a longer or empty key
  const char16_t canonical = character[0];
  for (const LMNormalizationRow& row : table) {
    if (row.canonical != canonical) continue;
    // One pass with a set test gives what replacing each folded character in
    // turn gives: nothing is folded into anything but `canonical`.
    for (char16_t& unit : text) {
      if (row.folded.find(unit) != std::u16string::npos) unit = canonical;
    }
    return;
  }
}

std::vector<std::u16string> lmTokens(std::u16string_view text) {
  static const auto* words = new std::shared_ptr<const LMRegex>(LMRegex::regexWithPattern(
      uR"(\w\w\w\w+)", kLMRegexCaseInsensitive | kLMRegexDotMatchesLineSeparators, true));
  return (*words)->allStringMatchesinString(lmLower(text));
}

LMCountedSet lmTokensAsCountedSet(std::u16string_view text) {
  LMCountedSet counts;
  for (std::u16string& token : lmTokens(text)) ++counts[std::move(token)];
  return counts;
}
