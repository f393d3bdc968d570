// recognizers/bank_recognizer.h
// Finds German IBANs in text and offers the ISO 7064 mod-97 check.
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "kit/text_range.h"
#include "kit/value.h"

class LMRegex;

// One finding is a dictionary with exactly these keys, in this order:
//   "iban"    the whole match with all white space removed (letter case kept)
//   "account" the 10-digit account number
//   "bnc"     the 8-digit bank code
// An IBAN is "DE", 2 check digits, the bank code and the account number, with
// any white space (line breaks included) before, between and after the
// characters. Check digits are not verified, and a match may stop in the
// middle of a longer run of digits.
class LMReceiptParserBank {
 public:
  // `reserved` is always 0.
  using Block = std::function<void(std::u16string_view text, LMTextRange range,
                                   std::u16string_view iban, int64_t reserved,
                                   std::u16string_view account, std::u16string_view bnc)>;

  // Every IBAN in `text`, in text order; `block` (optional) is called for each
  // before it is added. Never throws; no IBANs gives an empty array.
  // Thread-safe: the expression is built once and only read afterwards.
  std::vector<LMDictionary> findBankInfoInText(std::u16string_view text,
                                               const Block& block = {}) const;

  // True when `digits` as a number leaves remainder 1 when divided by 97; the
  // caller passes the digit string the IBAN rule prescribes (country and check
  // digits moved to the end, letters turned into numbers). Computed piecewise,
  // so any length works; a letter ends the number read from a piece. An empty
  // string gives false.
  bool mod97Validation(std::u16string_view digits) const;

  // The IBAN expression (case-insensitive, free-spacing, anchors at lines)
  // with the groups "country", "checksum", "bnc" and "account".
  static const LMRegex& ibanRegularExpression();
};
