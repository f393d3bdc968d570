// Date analysis: the date findings in reading order, and the first of them
// that is not in the future as the document date.
#include <algorithm>

#include "analysis/receipt_parser.h"

void LMReceiptParser::analyzeDateElements() {
  Dates sorted = dates_.value_or(Dates());
  std::stable_sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) {
    return a->sortWeight() > b->sortWeight();
  });
  dates_ = sorted;
  date_ = std::nullopt;
  const LMDate now = LMDate::now();
  for (const auto& finding : sorted) {
    if (finding->date() && finding->date()->daysSince(now) < 1) {
      date_ = finding->date();
      break;
    }
  }
}
