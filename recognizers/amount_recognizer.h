// recognizers/amount_recognizer.h
// Finds money-like numbers in text and reads them as hundredths.
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kit/text_range.h"
#include "kit/value.h"

class LMRegex;

// One finding is an info dictionary with exactly these keys, in this order:
//   "amount"         integer, the value in hundredths, signed
//   "currency"       the null marker (amounts carry no currency here)
//   "places"         integer, the decimal places seen in the text (2 for a dash)
//   "stringOriginal" the matched text as it stands
class LMReceiptParserAmount {
 public:
  // `currency` is always nullptr: this recognizer does not read currencies.
  using Block = std::function<void(std::u16string_view text, LMTextRange range,
                                   int64_t amount, int64_t places,
                                   const std::u16string* currency,
                                   const LMDictionary& info)>;
  // Every amount in `text`, in text order; `block` (optional) is called for each
  // finding before it is added. Numbers with a leading zero and more than three
  // digits (postal codes, "00,50") are skipped and reach neither. Never throws;
  // no amounts gives an empty array.
  // Thread-safe: the pattern is compiled once and only read afterwards.
  std::vector<LMDictionary> findAmountInText(std::u16string_view text,
                                             const Block& block = {}) const;

  // The amount pattern as written (free-spacing, with comments; 312 characters)
  // and its compiled form (case-insensitive, free-spacing, anchors at lines).
  static const std::u16string& amountPattern();
  static const LMRegex& amountRegularExpression();

  // A currency alias table (alias -> ISO code, in table order), its distinct
  // codes sorted, and an expression that finds the aliases. The amount search
  // does not use them; currencies are recognised by LMReceiptParserCurrency,
  // whose table differs (it has no "£").
  static const std::vector<std::pair<std::u16string, std::u16string>>& currencyAliases();
  static const std::vector<std::u16string>& currenciesSupported();
  static const LMRegex& currencyRegularExpression();
};
