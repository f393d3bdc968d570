// Gross amount analysis: scores every plausible amount by font size,
// boldness, horizontal position, two decimal places and nearness of a gross
// term, and takes the best as gross, net and (through its nearest currency
// mention) currency.
#include <algorithm>
#include <cmath>
#include <limits>

#include "analysis/receipt_parser.h"
#include "analysis/term_assignment.h"

namespace {

using Numbers = LMReceiptParser::Numbers;

Numbers filtered(const Numbers& numbers, bool (*keep)(const LMFoundNumber&)) {
  Numbers out;
  for (const auto& n : numbers) {
    if (keep(*n)) out.push_back(n);
  }
  return out;
}

}  // namespace

void LMReceiptParser::analyzeAmountElements() {
  const Numbers all = numbers_.value_or(Numbers());
  double smallestFont = std::numeric_limits<double>::infinity();
  double largestFont = 0;
  double maxRight = 0;
  for (const auto& n : all) {
    smallestFont = std::min(smallestFont, n->fontSize());
    largestFont = std::max(largestFont, n->fontSize());
    maxRight = std::max(maxRight, n->bbox().maxX());
    if (!n->features()) n->setFeatures(LMDictionary());
  }
  // Documents whose numbers nearly share one size get no medium size.
  double mediumFont = std::numeric_limits<double>::quiet_NaN();
  if (smallestFont != largestFont &&
      std::fabs(std::fabs(smallestFont) - std::fabs(largestFont)) >= 3.1) {
    mediumFont = (smallestFont + largestFont) * 0.5;
  }

  numbers_ = filtered(all, [](const LMFoundNumber& n) {
    return n.decimalPlaces() >= 2 && n.integerValue() >= 0;
  });
  const Numbers candidates = filtered(*numbers_, [](const LMFoundNumber& n) {
    return n.decimalPlaces() == 2 && n.integerValue() > 0;
  });

  const auto currenciesByPage = lmGroupByPage(currencyFindings_.value_or(Elements()));
  for (const auto& candidate : candidates) {
    double best = std::numeric_limits<double>::infinity();
    const auto onPage = currenciesByPage.find(candidate->page());
    if (onPage == currenciesByPage.end()) continue;
    for (const LMFoundElement* finding : onPage->second) {
      const double d = finding->normalizedDistanceToRect(candidate->bbox());
      if (d < best) {
        best = d;
        candidate->setCurrencyCode(finding->key());
      }
    }
  }

  const double maxGrossFactor = lmAssignNearestTerms(
      candidates, termFindings_.value_or(Terms()),
      [](LMFoundNumber& n, double d) { n.setGrossFactor(d); });

  for (const auto& candidate : candidates) {
    LMDictionary& features = *candidate->mutableFeatures();
    double weight = 0;
    if (candidate->isOcr()) {
      weight += !std::isnan(mediumFont) && mediumFont < candidate->fontSize() ? 0.5 : 0;
    } else {
      features.set(u"font_size", candidate->fontSize());
      weight += candidate->fontSize();
      const double bold = candidate->bold() ? 1 : 0;
      features.set(u"font_bold", bold);
      weight += 1.1 * bold;
    }
    const double rightness = std::ceil(candidate->bbox().maxX() / maxRight * 3.0) / 3.0;
    features.set(u"position_rightness", rightness);
    weight += rightness * 0.1;
    const double twoPlaces = candidate->decimalPlaces() == 2 ? 1 : 0;
    features.set(u"text_decimalplaces_eq_two", twoPlaces);
    weight += twoPlaces;
    if (candidate->grossFactor() > 0) {
      const double nearness = lmTermNearness(maxGrossFactor, candidate->grossFactor());
      features.set(u"text_gross_term_nearby", nearness);
      weight += nearness * 5.0;
    }
    candidate->setSortWeight(weight);
    candidate->keepDebugInfo();
  }

  Numbers ranked = candidates;
  std::stable_sort(ranked.begin(), ranked.end(), [](const auto& a, const auto& b) {
    if (a->sortWeight() != b->sortWeight()) return a->sortWeight() > b->sortWeight();
    return a->integerValue() > b->integerValue();
  });

  if (!ranked.empty()) {
    gross_ = ranked.front()->decimalNumber();
    // The net is deliberately the gross; no later stage changes it.
    net_ = gross_;
  }
  if (!ranked.empty() && ranked.front()->currencyCode()) {
    currency_ = LMValue(*ranked.front()->currencyCode());
  } else if (currency_.isNil() || currency_.isNull()) {
    currency_ = defaultCurrency_;
  }
}
