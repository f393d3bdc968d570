#include "analysis/gross_analysis.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "analysis/term_assignment.h"

namespace {

LMFoundNumbers filtered(const LMFoundNumbers& numbers, bool (*keep)(const LMFoundNumber&)) {
  LMFoundNumbers out;
  for (const auto& n : numbers) {
    if (keep(*n)) out.push_back(n);
  }
  return out;
}

}  // namespace

LMGrossAnalysis lmAnalyzeGross(const LMFoundNumbers& all, const LMFoundElements& currencyFindings,
                               const LMFoundTerms& grossTerms, const LMValue& collected,
                               const LMValue& fallback) {
  LMGrossAnalysis out;
  double smallestFont = std::numeric_limits<double>::infinity();
  double largestFont = 0;
  double maxRight = 0;
  for (const auto& n : all) {
    smallestFont = std::min(smallestFont, n->fontSize());
    largestFont = std::max(largestFont, n->fontSize());
    maxRight = std::max(maxRight, n->bbox().maxX());
    if (!n->hasFeatures()) n->setFeatures(LMDictionary());
  }
  // Documents whose numbers nearly share one size get no medium size.
  double mediumFont = std::numeric_limits<double>::quiet_NaN();
  if (smallestFont != largestFont &&
      std::fabs(std::fabs(smallestFont) - std::fabs(largestFont)) >= 3.1) {
    mediumFont = (smallestFont + largestFont) * 0.5;
  }

  out.numbers = filtered(all, [](const LMFoundNumber& n) {
    return n.decimalPlaces() >= 2 && n.integerValue() >= 0;
  });
  const LMFoundNumbers candidates = filtered(out.numbers, [](const LMFoundNumber& n) {
    return n.decimalPlaces() == 2 && n.integerValue() > 0;
  });

  const auto currenciesByPage = lmGroupByPage(currencyFindings);
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
      candidates, grossTerms,
      [](LMFoundNumber& n, double d) { n.setGrossFactor(d); });

  for (const auto& candidate : candidates) {
    double weight = 0;
    if (candidate->isOcr()) {
      weight += !std::isnan(mediumFont) && mediumFont < candidate->fontSize() ? 0.5 : 0;
    } else {
      candidate->setFeature(u"font_size", candidate->fontSize());
      weight += candidate->fontSize();
      const double bold = candidate->bold() ? 1 : 0;
      candidate->setFeature(u"font_bold", bold);
      weight += 1.1 * bold;
    }
    const double rightness = std::ceil(candidate->bbox().maxX() / maxRight * 3.0) / 3.0;
    candidate->setFeature(u"position_rightness", rightness);
    weight += rightness * 0.1;
    const double twoPlaces = candidate->decimalPlaces() == 2 ? 1 : 0;
    candidate->setFeature(u"text_decimalplaces_eq_two", twoPlaces);
    weight += twoPlaces;
    if (candidate->grossFactor() > 0) {
      const double nearness = lmTermNearness(maxGrossFactor, candidate->grossFactor());
      candidate->setFeature(u"text_gross_term_nearby", nearness);
      weight += nearness * 5.0;
    }
    candidate->setSortWeight(weight);
    candidate->keepDebugInfo();
  }

  LMFoundNumbers ranked = candidates;
  std::stable_sort(ranked.begin(), ranked.end(), [](const auto& a, const auto& b) {
    if (a->sortWeight() != b->sortWeight()) return a->sortWeight() > b->sortWeight();
    return a->integerValue() > b->integerValue();
  });

  if (!ranked.empty()) {
    out.gross = ranked.front()->decimalNumber();
    // The net is deliberately the gross; no later stage changes it.
    out.net = out.gross;
  }
  if (!ranked.empty() && ranked.front()->currencyCode()) {
    out.currency = LMValue(*ranked.front()->currencyCode());
  } else if (collected.isNil() || collected.isNull()) {
    out.currency = fallback;
  } else {
    out.currency = collected;
  }
  return out;
}
