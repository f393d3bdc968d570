#include "analysis/term_assignment.h"

#include <cmath>
#include <limits>

double lmAssignNearestTerms(
    const std::vector<std::shared_ptr<LMFoundNumber>>& candidates,
    const std::vector<std::shared_ptr<LMFoundTerm>>& terms,
    const std::function<void(LMFoundNumber&, double)>& setFactor) {
  const auto termsByPage = lmGroupByPage(terms);
  std::u16string lastKey;
  double maxFactor = 0;
  for (const auto& candidate : candidates) {
    double best = std::numeric_limits<double>::infinity();
    const auto onPage = termsByPage.find(candidate->page());
    if (onPage == termsByPage.end()) continue;
    for (const LMFoundTerm* term : onPage->second) {
      const double d = term->normalizedDistanceToRect(candidate->bbox()) + 0.1;
      if (d > best) continue;
      const std::u16string key = term->key().value_or(u"");
      if (d == best && key.size() < lastKey.size()) continue;
      setFactor(*candidate, d);
      candidate->setFeature(u"term", term->string().value_or(u""));
      lastKey = key;
      best = d;
      maxFactor = std::max(maxFactor, d);
    }
  }
  return maxFactor;
}

double lmTermNearness(double maxFactor, double factor) {
  return std::round((maxFactor - factor) / maxFactor * 100) / 100;
}
