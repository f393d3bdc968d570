// Assigns each candidate amount its nearest label on the same page.
#pragma once
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "elements/found_number.h"
#include "elements/found_term.h"

// The elements of each page, in their order: lookups by page stay linear in
// the number of elements however many pages a document has.
template <typename T>
std::unordered_map<int64_t, std::vector<const T*>> lmGroupByPage(
    const std::vector<std::shared_ptr<T>>& elements) {
  std::unordered_map<int64_t, std::vector<const T*>> byPage;
  for (const auto& e : elements) byPage[e->page()].push_back(e.get());
  return byPage;
}

// For every candidate, the term on the candidate's page with the smallest
// distance (the term's normalizedDistanceToRect of the candidate's box plus
// 0.1). A term as near as the best so far replaces it unless its key is
// shorter than the last chosen key; that key carries over from one candidate
// to the next on purpose. `setFactor` receives each chosen distance, and the
// chosen term's text is stored as the candidate's feature "term". Returns the
// largest distance chosen, 0 when none.
double lmAssignNearestTerms(
    const std::vector<std::shared_ptr<LMFoundNumber>>& candidates,
    const std::vector<std::shared_ptr<LMFoundTerm>>& terms,
    const std::function<void(LMFoundNumber&, double)>& setFactor);

// round((maxFactor - factor) / maxFactor * 100) / 100, rounding half away
// from zero: 1 for the nearest term in the document, 0 for the farthest.
double lmTermNearness(double maxFactor, double factor);
