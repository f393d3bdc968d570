#include "recognizers/term_recognizer.h"

#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <utility>

#include "kit/diagnostics.h"
#include "kit/strings.h"
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

std::vector<LMDictionary> findEntries(const std::vector<LMTermEntry>& entries,
                                      std::u16string_view text,
                                      const LMReceiptParserTerm::Block& block) {
  std::vector<LMDictionary> found;
  // Most terms are on no page: a term whose first word the folded text does
  // not hold is not searched for.
  const std::u16string folded = foldedCase(text);
  for (const LMTermEntry& entry : entries) {
    if (folded.find(entry.foldedFirstWord) == std::u16string::npos) continue;
    entry.regex()->enumerateMatchesInString(text, [&](const LMRegexMatch& match, bool*) {
      if (block) block(text, match.range(), entry.finding);
      found.push_back(entry.finding);
    });
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
  return findEntries(grossEntries(), text, block);
}

std::vector<LMDictionary> LMReceiptParserTerm::findTaxTermsInText(std::u16string_view text,
                                                                  bool /*ocr*/,
                                                                  const Block& block) const {
  return findEntries(taxEntries(), text, block);
}
