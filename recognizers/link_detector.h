// recognizers/link_detector.h
// The links of LMDataDetector: http:// and https:// URLs, "www." host names
// with an optional path, and mail addresses. Internal to recognizers/.
#pragma once
#include <string_view>
#include <vector>

#include "recognizers/data_detector.h"

namespace lm_detector {

// Every URL in `text` as a kLink item, in text order. Thread-safe.
std::vector<LMDetectedItem> findURLs(std::u16string_view text);
// Every mail address in `text` as a kLink item ("mailto:" and the address),
// in text order, leaving out those that overlap one of `urls` (user names
// in URLs). Thread-safe.
std::vector<LMDetectedItem> findMailAddresses(std::u16string_view text,
                                              const std::vector<LMDetectedItem>& urls);
// Compiles the link pattern now instead of at the first search.
void prepareLinks();

}  // namespace lm_detector
