// Tax analysis, the third stage: for every configured rate, the tax such a
// rate includes in the gross; amounts within three hundredths of one of
// those, or near a tax term, score, and the best scoring amount above 0.5
// becomes the tax.
#pragma once
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "elements/element_lists.h"
#include "kit/decimal.h"
#include "kit/value.h"

struct LMTaxRate {
  std::u16string text;  // as given, for the feature names
  LMDecimal percent;    // not-a-number when the text is no number
};

// The message for rates of the wrong kind.
inline constexpr std::u16string_view kLMTaxesRefused = u"taxes must be an array of numbers";

// The rates of a task's "taxes": none for nil or null, nullopt when the value
// is of the wrong kind (anything but an array of numbers and texts).
std::optional<std::vector<LMTaxRate>> lmTaxRates(const LMValue& taxes);

// The tax among `numbers` for `gross` (none without a gross). Candidates are
// the amounts with two or more places above 0 and at most 30 % of the gross;
// their features and sort weights are written into the shared elements.
// Equal scores prefer the smaller amount. Never throws.
std::optional<LMDecimal> lmAnalyzeTax(const std::vector<LMTaxRate>& rates,
                                      const std::optional<LMDecimal>& gross,
                                      const LMFoundNumbers& numbers, const LMFoundTerms& taxTerms);
