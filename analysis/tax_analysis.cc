// Tax analysis: for every configured rate, the tax such a rate includes in
// the gross; amounts within three hundredths of one of those, or near a tax
// term, score, and the best scoring amount above 0.5 becomes the tax.
#include <algorithm>
#include <stdexcept>

#include "analysis/receipt_parser.h"
#include "analysis/term_assignment.h"
#include "kit/unicode.h"

namespace {

struct Rate {
  std::u16string text;  // as given, for the feature name
  LMDecimal percent;
};

// The configured rates; a value of the wrong kind is the caller's error.
std::vector<Rate> ratesFrom(const LMValue& taxes) {
  std::vector<Rate> rates;
  if (taxes.isNil() || taxes.isNull()) return rates;
  const LMArray* array = taxes.asArray();
  if (!array) throw std::invalid_argument("taxes must be an array of numbers");
  for (const LMValue& rate : *array) {
    if (!rate.isNumber() && !rate.asString()) {
      throw std::invalid_argument("taxes must be an array of numbers");
    }
    const std::u16string text = rate.toString();
    rates.push_back({text, LMDecimal::fromString(text).value_or(LMDecimal::notANumber())});
  }
  return rates;
}

std::u16string integerText(int64_t v) { return lmUtf16(std::to_string(v)); }

}  // namespace

void LMReceiptParser::analyzeTaxElements() {
  const std::vector<Rate> rates = ratesFrom(taxes_);
  const LMDecimal gross = gross_.value_or(LMDecimal::notANumber());
  // Without a gross every expectation is 0 and no amount is a candidate.
  const int64_t ceiling =
      gross_ ? (gross * LMDecimal::fromString("0.30").value()).amountIntegerValue() : 0;
  const LMDecimal hundred = LMDecimal::fromInt(100);
  std::vector<int64_t> expected;
  for (const Rate& rate : rates) {
    if (!gross_) {
      expected.push_back(0);
      continue;
    }
    const LMDecimal netPart = gross / (hundred + rate.percent);
    expected.push_back((gross - netPart * hundred).amountIntegerValue());
  }

  Numbers candidates;
  for (const auto& n : numbers_.value_or(Numbers())) {
    if (!n->features()) n->setFeatures(LMDictionary());
    if (n->decimalPlaces() >= 2 && n->integerValue() > 0 && n->integerValue() <= ceiling) {
      candidates.push_back(n);
    }
  }

  const double maxTaxFactor =
      lmAssignNearestTerms(candidates, termTaxFindings_.value_or(Terms()),
                           [](LMFoundNumber& n, double d) { n.setTaxFactor(d); });

  for (const auto& candidate : candidates) {
    LMDictionary& features = *candidate->mutableFeatures();
    const int64_t amount = candidate->integerValue();
    double weight = 0;
    for (size_t i = 0; i < expected.size(); ++i) {
      const int64_t e = expected[i];
      if (e - 3 <= amount && amount <= e + 3) {
        features.set(u"text_tax_" + rates[i].text + u"_percent_fit_" + integerText(e - 3) + u"_" +
                         integerText(e + 3) + u"_" + integerText(amount),
                     2.0);
        weight = 2;
        break;
      }
    }
    if (candidate->taxFactor() > 0) {
      const double nearness = lmTermNearness(maxTaxFactor, candidate->taxFactor());
      features.set(u"text_tax_term_nearby", nearness);
      weight += nearness;
    }
    features.set(u"sort_Weight_tax", weight);
    candidate->setSortWeight(weight);
  }

  Numbers ranked = candidates;
  // Among equal scores the smaller amount is preferred, unlike the gross.
  std::stable_sort(ranked.begin(), ranked.end(), [](const auto& a, const auto& b) {
    if (a->sortWeight() != b->sortWeight()) return a->sortWeight() > b->sortWeight();
    return a->integerValue() < b->integerValue();
  });
  if (!ranked.empty() && ranked.front()->sortWeight() > 0.5) {
    tax_ = ranked.front()->decimalNumber();
  }
}
