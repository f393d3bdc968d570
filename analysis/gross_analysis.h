// Gross amount analysis, the second stage: scores every plausible amount by
// font size, boldness, horizontal position, two decimal places and nearness
// of a gross term, and takes the best as gross, net and (through its nearest
// currency mention) currency.
#pragma once
#include <optional>

#include "elements/element_lists.h"
#include "kit/decimal.h"
#include "kit/value.h"

struct LMGrossAnalysis {
  // The numbers with two or more places that are not negative, in their
  // order; the later stages read only these.
  LMFoundNumbers numbers;
  // Unset when no amount with two places above 0 was found. The net is
  // deliberately the gross.
  std::optional<LMDecimal> gross;
  std::optional<LMDecimal> net;
  // The gross's nearest currency mention on its page; else `collected`
  // (the collection's currency), or `fallback` when that is nil or null.
  LMValue currency;
};

// Scores `numbers` against the currency mentions and gross terms on their
// pages. The candidates' features, currency codes, gross factors and sort
// weights are written into the shared elements. Equal scores prefer the
// larger amount. Never throws.
LMGrossAnalysis lmAnalyzeGross(const LMFoundNumbers& numbers,
                               const LMFoundElements& currencyFindings,
                               const LMFoundTerms& grossTerms, const LMValue& collected,
                               const LMValue& fallback);
