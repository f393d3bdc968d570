// recognizers/address_detector.h
// The postal addresses of LMDataDetector: German, Austrian and Swiss, US,
// UK and French street lines followed by a postcode and a city (see
// data_detector.h for the forms). Internal to recognizers/.
#pragma once
#include <string_view>
#include <vector>

#include "recognizers/data_detector.h"

namespace lm_detector {

// Every address in `text` as a kAddress item, sorted by range location; no
// two overlap (of overlapping ones the earlier start wins, then the longer
// range). Thread-safe.
std::vector<LMDetectedItem> findAddresses(std::u16string_view text);
// Compiles the address patterns now instead of at the first search.
void prepareAddresses();

}  // namespace lm_detector
