// recognizers/data_detector.h
// Finds links, postal addresses and written-out dates in a page's free text.
#pragma once
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kit/date.h"
#include "kit/text_range.h"
#include "kit/value.h"

enum class LMDetectedType { kDate, kLink, kAddress };

// Keys of LMDetectedItem::addressComponents.
inline constexpr char16_t kLMAddressCityKey[] = u"City";
inline constexpr char16_t kLMAddressCountryKey[] = u"Country";
inline constexpr char16_t kLMAddressStateKey[] = u"State";
inline constexpr char16_t kLMAddressStreetKey[] = u"Street";
inline constexpr char16_t kLMAddressZIPKey[] = u"ZIP";

struct LMDetectedItem {
  LMDetectedType type = LMDetectedType::kDate;
  // The matched text, in UTF-16 units of the searched text.
  LMTextRange range;
  // kDate: the day at 12:00 in the current time zone.
  std::optional<LMDate> date;
  // kLink: the URL as written, trailing sentence punctuation left out; for a
  // mail address "mailto:" followed by the address.
  std::u16string link;
  // kAddress: the parts found, keyed by the kLMAddress*Key names and inserted
  // in alphabetical key order. "Street" is the street line (name and house
  // number) with every run of white space made one blank; "City" likewise.
  // "State" only for US addresses, "Country" only when a country name follows
  // the city directly.
  LMDictionary addressComponents;
};

// The detector behind the analysis's secondary findings.
//
// Links: http:// and https:// URLs, "www." host names with an optional path,
// and mail addresses (reported as "mailto:" links).
// Addresses: German ("Musterstraße 12", "Am Markt 1" or "Muster Str. 3a",
// then a comma, separator or line break, then "10115 Berlin", the postcode
// optionally prefixed "D-"/"DE "; "A-"/"CH-" with four digits), US
// ("410 Terry Ave North" then "Seattle, WA 98109-5210"), UK ("10 Downing
// Street" then "London" and "SW1A 2AA") and French ("27 rue Henri Rolland"
// then "69100 Villeurbanne"). A street, a postcode and a city are always
// required; parts may be split over lines.
// Dates: a day, a month name (English, German, French; full or abbreviated)
// and a four-digit year in either order, with ordinals, "of", an optional
// leading weekday and commas ("Tuesday, March 3rd, 2021", "3rd of March
// 2021", "August 3 , 2014", "3. März 2021"), and year-first numeric dates
// ("2021/03/04", "2021-03-04", "2021.03.04"). Days that do not exist in
// their month are not reported.
//
// Thread-safe: the expressions are compiled once per process and only read.
class LMDataDetector {
 public:
  // Every date, link and address in `text`, sorted by range location (ties
  // keep the order dates, links, addresses). Findings of different types may
  // overlap; a date inside a link is not reported.
  std::vector<LMDetectedItem> findInText(std::u16string_view text) const;
};
