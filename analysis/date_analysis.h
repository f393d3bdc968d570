// Date analysis, the last stage: the date findings in reading order, and the
// first of them that is not in the future as the document date.
#pragma once
#include <optional>

#include "elements/element_lists.h"
#include "kit/date.h"

struct LMDateAnalysis {
  // Earlier pages first, then higher on the page, then further right.
  LMFoundDates dates;
  // The first of them whose daysSince(now) is below 1 (a day not after
  // today's); unset when there is none.
  std::optional<LMDate> date;
};

LMDateAnalysis lmAnalyzeDates(LMFoundDates dates, const LMDate& now);
