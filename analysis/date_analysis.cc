#include "analysis/date_analysis.h"

#include <algorithm>

LMDateAnalysis lmAnalyzeDates(LMFoundDates dates, const LMDate& now) {
  LMDateAnalysis out;
  out.dates = std::move(dates);
  std::stable_sort(out.dates.begin(), out.dates.end(), [](const auto& a, const auto& b) {
    return a->sortWeight() > b->sortWeight();
  });
  for (const auto& finding : out.dates) {
    if (finding->date() && finding->date()->daysSince(now) < 1) {
      out.date = finding->date();
      break;
    }
  }
  return out;
}
