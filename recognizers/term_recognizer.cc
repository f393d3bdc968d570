#include "recognizers/term_recognizer.h"

#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <array>
#include <utility>

#include "kit/diagnostics.h"
#include "kit/strings.h"
#include "recognizers/anchored_matcher.h"
#include "recognizers/pattern_escaping.h"
#include "recognizers/regex.h"

namespace {

// Term "/" weight, one per line. Terms weighted 0 or below are read and then
// left out; they stay in the tables as they are.
struct TermTable {
  const char16_t* lang;
  const char16_t* text;
};

const TermTable kGrossTables[] = {
    {u"de",
     u"Rechnungsbetrag/1\nRechnungsendbetrag/1\nTotalbetrag/1\nzu zahlender Betrag/1\n"
     u"Gesamtbetrag/1\nGesamtsumme/1\nBetrag/1\nBrutto/1.5\nEndbetrag/0.9\nEndsumme/0.9\n"
     u"Gesamt/0.9\nSumme/0.9\nTotal/1\nZahlbetrag/1\nZahlung/1\nZwischensumme/-0.5\nBar/-1\n"
     u"Gegeben/-1\nGuthaben/0\nR\u00FCckgeld/-1\nZur\u00FCck/-1\nGesamtbrutto/1"},
    // "State tax" and "State taxes" label totals on US receipts, so they stand here
    // and not among the tax terms.
    {u"en",
     u"Final Amount/1\nGross Amount/1\nGrand Total/1.2\nOrder total/1\nPaid in full/1\n"
     u"Total/0.8\nAmount/0.8\nFinal/0.5\nGross/1\nPrice/0.5\nSum/0.5\nState tax/1\n"
     u"State taxes/1"},
};

const TermTable kTaxTables[] = {
    {u"de",
     u"Mehrwertsteuer/1\nUmsatzsteuer/1\nUSt/1\nMwSt/1\nSteuer/0.5\nRabatt/-1\n"
     u"Verpackung/-1\nVersand/-1"},
    {u"en", u"VAT/1\nTax/0.9\nTaxes/0.8"},
};

// The pattern of one lower-cased term: its words escaped and joined by "\s+",
// so that any run of white space separates them, and no letter directly
// before or after the term.
std::u16string termPattern(const std::u16string& term) {
  std::vector<std::u16string> words;
  for (const std::u16string& word : lmSplit(term)) words.push_back(lmEscapedPatternForString(word));
  return u"((?<![[:alpha:]])" + lmJoin(words, u"\\s+") + u"(?![[:alpha:]]))";
}

// `text` case-folded as a case-insensitive pattern compares it (full folding,
// the default mappings).
std::u16string foldedCase(std::u16string_view text) {
  icu::UnicodeString folded(text.data(), static_cast<int32_t>(text.size()));
  folded.foldCase(U_FOLD_CASE_DEFAULT);
  return std::u16string(folded.getBuffer(), static_cast<size_t>(folded.length()));
}

// Case-insensitive, anchors at lines, not free-spacing.
constexpr uint64_t kTermOptions = kLMRegexCaseInsensitive | kLMRegexAnchorsMatchLines;

std::vector<LMTermEntry> buildEntries(const TermTable (&tables)[2], const char16_t* type) {
  std::vector<LMTermEntry> entries;
  for (const TermTable& table : tables) {
    for (const std::u16string& line : lmSplitBy(table.text, u"\n")) {
      const std::vector<std::u16string> parts = lmSplitBy(lmStrip(line), u"/");
      LMAssert(parts.size() == 2);
      if (parts.size() != 2) continue;
      LMTermEntry entry;
      entry.lang = table.lang;
      entry.key = lmLower(parts[0]);
      entry.weight = LMValue(parts[1]).toFloat();
      if (!(entry.weight > 0)) continue;
      entry.pattern = termPattern(entry.key);
      const std::vector<std::u16string> words = lmSplit(entry.key);
      entry.foldedFirstWord = words.empty() ? std::u16string() : foldedCase(words.front());
      entry.type = type;
      // The weight is single precision; the finding holds that value as a double.
      entry.finding = LMDictionary{{u"lang", entry.lang},
                                   {u"key", entry.key},
                                   {u"weight", static_cast<double>(entry.weight)},
                                   {u"type", entry.type}};
      entries.push_back(std::move(entry));
    }
  }
  return entries;
}

// Whether a match of `entry` can begin at `at`: an ASCII position must hold
// the first word's first character (folded) and be followed by its second
// one or by a character beyond ASCII. Positions beyond ASCII are tried.
bool mayBegin(const LMTermEntry& entry, std::u16string_view text, size_t at) {
  const std::u16string& word = entry.foldedFirstWord;
  const char16_t c = text[at];
  if (c >= 0x80) return !lmInsideSurrogatePair(text, at);
  if (word.empty()) return true;
  if (lmAsciiLower(c) != word[0]) return false;
  if (word.size() < 2) return true;
  if (at + 1 >= text.size()) return false;
  const char16_t next = text[at + 1];
  return next >= 0x80 || lmAsciiLower(next) == word[1];
}

// The entries of a table by the first unit of their folded first word (128:
// beyond ASCII), for finding in one pass which first words a text holds.
struct FirstUnitIndex {
  std::array<std::vector<size_t>, 129> entries;

  explicit FirstUnitIndex(const std::vector<LMTermEntry>& table) {
    for (size_t i = 0; i < table.size(); ++i) {
      const std::u16string& word = table[i].foldedFirstWord;
      if (!word.empty()) entries[std::min<size_t>(word[0], 128)].push_back(i);
    }
  }

  // For each entry, whether `folded` holds its folded first word.
  std::vector<bool> held(const std::vector<LMTermEntry>& table, std::u16string_view folded) const {
    std::vector<bool> held(table.size(), false);
    for (size_t i = 0; i < table.size(); ++i) held[i] = table[i].foldedFirstWord.empty();
    for (size_t at = 0; at < folded.size(); ++at) {
      for (size_t i : entries[std::min<size_t>(folded[at], 128)]) {
        const std::u16string& word = table[i].foldedFirstWord;
        if (!held[i] && folded.substr(at, word.size()) == word) held[i] = true;
      }
    }
    return held;
  }
};

std::vector<LMDictionary> findEntries(const std::vector<LMTermEntry>& entries,
                                      const FirstUnitIndex& index, std::u16string_view text,
                                      const LMReceiptParserTerm::Block& block) {
  std::vector<LMDictionary> found;
  // Most terms are on no page: a term whose first word the folded text does
  // not hold is not searched for.
  const std::vector<bool> held = index.held(entries, foldedCase(text));
  for (size_t i = 0; i < entries.size(); ++i) {
    if (!held[i]) continue;
    const LMTermEntry& entry = entries[i];
    auto onMatch = [&](const LMRegexMatch& match) {
      if (block) block(text, match.range(), entry.finding);
      found.push_back(entry.finding);
    };
    const std::shared_ptr<const LMRegex> regex = entry.regex();
    LMAnchoredMatcher matcher(*regex, text);
    if (matcher.usable()) {
      lmEachAnchoredMatch(
          matcher, text.size(), [&](size_t at) { return mayBegin(entry, text, at); }, onMatch);
    } else {
      // Finds nothing as well, but logs why.
      regex->enumerateMatchesInString(text, [&](const LMRegexMatch& m, bool*) { onMatch(m); });
    }
  }
  return found;
}

}  // namespace

std::shared_ptr<const LMRegex> LMTermEntry::regex() const {
  return LMRegex::regexWithPattern(pattern, kTermOptions, true);
}

const std::vector<LMTermEntry>& LMReceiptParserTerm::grossEntries() {
  static const auto* entries = new std::vector<LMTermEntry>(buildEntries(kGrossTables, u"gross"));
  return *entries;
}

const std::vector<LMTermEntry>& LMReceiptParserTerm::taxEntries() {
  static const auto* entries = new std::vector<LMTermEntry>(buildEntries(kTaxTables, u"tax"));
  return *entries;
}

std::vector<LMDictionary> LMReceiptParserTerm::findInText(std::u16string_view text, bool /*ocr*/,
                                                          const Block& block) const {
  static const auto* index = new FirstUnitIndex(grossEntries());
  return findEntries(grossEntries(), *index, text, block);
}

std::vector<LMDictionary> LMReceiptParserTerm::findTaxTermsInText(std::u16string_view text,
                                                                  bool /*ocr*/,
                                                                  const Block& block) const {
  static const auto* index = new FirstUnitIndex(taxEntries());
  return findEntries(taxEntries(), *index, text, block);
}
