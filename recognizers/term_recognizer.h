// recognizers/term_recognizer.h
// Finds the weighted words that label a total ("Gesamtbetrag", "Grand Total")
// or a tax line ("MwSt", "VAT").
#pragma once
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kit/text_range.h"
#include "kit/value.h"

class LMRegex;

// One term of the built-in German ("de") and English ("en") tables.
struct LMTermEntry {
  std::u16string lang;  // "de" or "en"
  std::u16string key;   // the term, lower-cased
  std::u16string pattern;
  // The term's first word case-folded (full folding). The pattern matches
  // only where the case-folded text holds it: the engine compares a word of
  // a case-insensitive pattern with the text by full case folding, from a
  // character's start to a character's end.
  std::u16string foldedFirstWord;

  // The compiled pattern, compiled on first use (most terms are on no page)
  // and kept for the process. Thread-safe.
  std::shared_ptr<const LMRegex> regex() const;
  float weight = 0;     // always above 0: terms weighted 0 or below get no entry
  std::u16string type;  // "gross" or "tax"
  // {"lang", "key", "weight", "type"}, in this order. The weight is a double
  // holding the single-precision value (0.9 reads 0.89999997615814209).
  LMDictionary finding;
};

// A finding is LMTermEntry::finding of the entry that matched. A term matches
// in any letter case, not glued to a letter on either side ("betrag" is not
// found inside "Gesamtbetrag"), and the words of a term of several words may
// be separated by any run of white space, line breaks included.
class LMReceiptParserTerm {
 public:
  using Block = std::function<void(std::u16string_view text, LMTextRange range,
                                   const LMDictionary& finding)>;

  // The findings of the gross terms / the tax terms in `text`, grouped by
  // entry in table order ("de" before "en"), each group in text order; not
  // sorted by position. Overlapping terms each give their own finding
  // ("Grand Total" also gives "total" twice, once per language). `block`
  // (optional) is called for each finding before it is added. `ocr` has no
  // effect. Never throws. Thread-safe: the entries are built once per process
  // and only read afterwards.
  std::vector<LMDictionary> findInText(std::u16string_view text, bool ocr,
                                       const Block& block = {}) const;
  std::vector<LMDictionary> findTaxTermsInText(std::u16string_view text, bool ocr,
                                               const Block& block = {}) const;

  static const std::vector<LMTermEntry>& grossEntries();
  static const std::vector<LMTermEntry>& taxEntries();
};
