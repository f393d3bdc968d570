// LMFacts: the answer a bookkeeper can file — gross, net, tax, currency and
// dates with where each came from, how sure we are and the checks they
// passed. Built by the e-invoice and text sources, merged by lmBuildFacts
// (facts/facts_builder.h) and sent as the reply's "facts" dictionary.
//
// Money is exact (LMDecimal) and signed as a bookkeeper enters it: a credit
// note's totals are negative. Dates are calendar days as "YYYY-MM-DD" text.
#pragma once
#include <optional>
#include <string>
#include <vector>

#include "kit/decimal.h"
#include "kit/value.h"

struct LMFactsCheck {
  std::u16string name;  // "lines-sum", "net-total", ..., "einvoice-used", "page-text"
  bool ok = false;
  std::u16string detail;
};

struct LMFacts {
  // "e-invoice" or "text"; nullopt when no source gave a value.
  std::optional<std::u16string> source;
  std::u16string kind = u"invoice";  // "invoice", "credit-note" or "receipt"
  std::optional<std::u16string> invoiceNumber;
  std::optional<std::u16string> issueDate;
  std::optional<std::u16string> dueDate;
  std::optional<std::u16string> currency;
  std::optional<LMDecimal> gross;
  std::optional<LMDecimal> net;
  std::optional<LMDecimal> tax;
  std::optional<LMDecimal> due;
  // Entries exactly as the reply holds them (see lmFactsDictionary).
  LMArray taxes;
  LMArray allowances;
  LMArray charges;
  LMArray lines;
  LMValue seller = LMValue::null();
  LMValue buyer = LMValue::null();
  std::vector<LMFactsCheck> checks;
  LMArray conflicts;
  // Per field ("gross", "net", ...): the evidence dictionary.
  LMDictionary evidence;
  LMValue eInvoice = LMValue::null();

  // The score of `field`'s evidence; 0 without evidence.
  double score(std::u16string_view field) const;
  // True when a check of that name is listed and failed.
  bool failed(std::u16string_view check) const;
};

// The reply's "facts" dictionary, keys in their documented order; absent
// values are the null marker.
LMDictionary lmFactsDictionary(const LMFacts& facts);
