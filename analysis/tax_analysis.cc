#include "analysis/tax_analysis.h"

#include <algorithm>

#include "analysis/term_assignment.h"
#include "kit/unicode.h"

namespace {

std::u16string integerText(int64_t v) { return lmUtf16(std::to_string(v)); }

}  // namespace

std::optional<std::vector<LMTaxRate>> lmTaxRates(const LMValue& taxes) {
  std::vector<LMTaxRate> rates;
  if (taxes.isNil() || taxes.isNull()) return rates;
  const LMArray* array = taxes.asArray();
  if (!array) return std::nullopt;
  for (const LMValue& rate : *array) {
    if (!rate.isNumber() && !rate.asString()) return std::nullopt;
    const std::u16string text = rate.toString();
    rates.push_back({text, LMDecimal::fromString(text).value_or(LMDecimal::notANumber())});
  }
  return rates;
}

std::optional<LMDecimal> lmAnalyzeTax(const std::vector<LMTaxRate>& rates,
                                      const std::optional<LMDecimal>& grossFound,
                                      const LMFoundNumbers& numbers, const LMFoundTerms& taxTerms) {
  const LMDecimal gross = grossFound.value_or(LMDecimal::notANumber());
  // Without a gross every expectation is 0 and no amount is a candidate.
  const int64_t ceiling =
      grossFound ? (gross * LMDecimal::fromString("0.30").value()).amountIntegerValue() : 0;
  const LMDecimal hundred = LMDecimal::fromInt(100);
  std::vector<int64_t> expected;
  for (const LMTaxRate& rate : rates) {
    if (!grossFound) {
      expected.push_back(0);
      continue;
    }
    const LMDecimal netPart = gross / (hundred + rate.percent);
    expected.push_back((gross - netPart * hundred).amountIntegerValue());
  }

  LMFoundNumbers candidates;
  for (const auto& n : numbers) {
    if (!n->hasFeatures()) n->setFeatures(LMDictionary());
    if (n->decimalPlaces() >= 2 && n->integerValue() > 0 && n->integerValue() <= ceiling) {
      candidates.push_back(n);
    }
  }

  const double maxTaxFactor =
      lmAssignNearestTerms(candidates, taxTerms,
                           [](LMFoundNumber& n, double d) { n.setTaxFactor(d); });

  for (const auto& candidate : candidates) {
    const int64_t amount = candidate->integerValue();
    double weight = 0;
    for (size_t i = 0; i < expected.size(); ++i) {
      const int64_t e = expected[i];
      if (e - 3 <= amount && amount <= e + 3) {
        candidate->setFeature(u"text_tax_" + rates[i].text + u"_percent_fit_" +
                                  integerText(e - 3) + u"_" + integerText(e + 3) + u"_" +
                                  integerText(amount),
                              2.0);
        weight = 2;
        break;
      }
    }
    if (candidate->taxFactor() > 0) {
      const double nearness = lmTermNearness(maxTaxFactor, candidate->taxFactor());
      candidate->setFeature(u"text_tax_term_nearby", nearness);
      weight += nearness;
    }
    candidate->setFeature(u"sort_Weight_tax", weight);
    candidate->setSortWeight(weight);
  }

  LMFoundNumbers ranked = candidates;
  // Among equal scores the smaller amount is preferred, unlike the gross.
  std::stable_sort(ranked.begin(), ranked.end(), [](const auto& a, const auto& b) {
    if (a->sortWeight() != b->sortWeight()) return a->sortWeight() > b->sortWeight();
    return a->integerValue() < b->integerValue();
  });
  if (!ranked.empty() && ranked.front()->sortWeight() > 0.5) return ranked.front()->decimalNumber();
  return std::nullopt;
}
