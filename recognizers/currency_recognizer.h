// recognizers/currency_recognizer.h
// Finds currency symbols, names and codes in text and keeps the most frequent.
#pragma once
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kit/text_range.h"
#include "kit/value.h"

class LMRegex;

// One finding is a dictionary with the single key "currencyCode": the ISO 4217
// code of the alias found, or the null marker for an alias without a code.
//
// One object serves one search at a time (currencyCode() belongs to the last
// search); the class-wide table and pattern are built once per process and
// only read afterwards, so separate objects may search on separate threads.
class LMReceiptParserCurrency {
 public:
  // `code` is nullptr for an alias without a code.
  using Block = std::function<void(std::u16string_view text, LMTextRange range,
                                   const std::u16string* code)>;

  // Every currency mention in `text`, in text order; `block` (optional) is
  // called for each before it is added. Afterwards currencyCode() is the code
  // found most often (of equally frequent codes, the one that got there
  // first), or nullopt when nothing was found. `ocr` has no effect. Never
  // throws.
  std::vector<LMDictionary> findInText(std::u16string_view text, bool ocr,
                                       const Block& block = {});

  // The code found most often in the last search; nullopt before any search
  // and after one that found nothing.
  const std::optional<std::u16string>& currencyCode() const { return currencyCode_; }

  // The alias table (lower-case alias -> ISO code) in table order.
  static const std::vector<std::pair<std::u16string, std::u16string>>& currencyTable();
  // The distinct codes of the table, sorted.
  static const std::vector<std::u16string>& currenciesSupported();
  // The alternation of all aliases, longer aliases first (case-insensitive,
  // free-spacing, anchors at lines). An alias of several characters must not
  // touch a letter on either side; one of a single character may.
  static const LMRegex& currencyRegularExpression();

 private:
  std::optional<std::u16string> currencyCode_;
};
