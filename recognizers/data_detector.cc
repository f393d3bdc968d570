#include "recognizers/data_detector.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "recognizers/address_detector.h"
#include "recognizers/free_text_date_detector.h"
#include "recognizers/link_detector.h"

// How the detector stays fast: it runs on every page, so each pattern is
// written to let the engine skip most positions cheaply, and reads only the
// stretches of text around what every finding must hold (a year, a postcode).
// The address patterns are case-sensitive and begin with an upper-case letter
// or a digit; month names are compiled into a prefix tree; weekday names,
// street words and state codes are checked in code after a match instead of
// being tried as long alternations at every word.

std::vector<LMDetectedItem> LMDataDetector::findInText(std::u16string_view text) const {
  std::vector<LMDetectedItem> items;
  if (text.empty()) return items;

  std::vector<LMDetectedItem> urls = lm_detector::findURLs(text);
  std::vector<LMDetectedItem> mailAddresses = lm_detector::findMailAddresses(text, urls);

  items = lm_detector::findDates(text);
  // A date in a URL is part of its path ("/2021/03/04/news").
  std::erase_if(items, [&](const LMDetectedItem& date) {
    return std::any_of(urls.begin(), urls.end(),
                       [&](const LMDetectedItem& url) { return url.range.intersects(date.range); });
  });
  for (std::vector<LMDetectedItem>* part : {&urls, &mailAddresses}) {
    items.insert(items.end(), std::make_move_iterator(part->begin()),
                 std::make_move_iterator(part->end()));
  }
  std::vector<LMDetectedItem> addresses = lm_detector::findAddresses(text);
  items.insert(items.end(), std::make_move_iterator(addresses.begin()),
               std::make_move_iterator(addresses.end()));

  std::stable_sort(items.begin(), items.end(), [](const auto& a, const auto& b) {
    return a.range.location < b.range.location;
  });
  return items;
}
