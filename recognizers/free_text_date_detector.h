// recognizers/free_text_date_detector.h
// The dates of LMDataDetector: a day, a month name and a four-digit year in
// either order, optionally after a weekday, and year-first numeric dates
// (see data_detector.h for the forms). Internal to recognizers/.
#pragma once
#include <string_view>
#include <vector>

#include "recognizers/data_detector.h"

namespace lm_detector {

// Every date in `text` as a kDate item, in text order; days that do not
// exist in their month are left out. Thread-safe.
std::vector<LMDetectedItem> findDates(std::u16string_view text);
// Compiles the date pattern now instead of at the first search.
void prepareDates();

}  // namespace lm_detector
