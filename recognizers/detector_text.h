// recognizers/detector_text.h
// What the data detector's parts share: slices of the searched text, the
// character classes their patterns use, and the gaps allowed between the
// parts of a date or an address. Internal to recognizers/.
#pragma once
#include <unicode/uchar.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "kit/text_range.h"
#include "recognizers/regex.h"

namespace lm_detector {

// LMRegex counts every "(" that does not open "(?:", "(?#", a look-ahead or
// a look-behind as a capture group, so the detector's patterns write literal
// brackets as \x{28} and \x{29}, and use possessive quantifiers instead of
// atomic groups or inline flags. Blanks inside brackets are written \x20 or \h.
inline constexpr uint64_t kCaseInsensitive =
    kLMRegexCaseInsensitive | kLMRegexAllowCommentsAndWhitespace;
inline constexpr uint64_t kCaseSensitive = kLMRegexAllowCommentsAndWhitespace;

// The part `range` of `text`; empty when the range does not fit.
inline std::u16string_view slice(std::u16string_view text, LMTextRange range) {
  if (!range.fitsIn(text.size())) return {};
  return text.substr(range.location, range.length);
}

// `range` moved by `offset`; a range not found stays not found.
inline LMTextRange shifted(LMTextRange range, uint64_t offset) {
  return range.found() ? LMTextRange::make(range.location + offset, range.length) : range;
}

inline bool isUpper(char16_t c) { return u_isUUppercase(c); }
inline bool isLetter(char16_t c) { return u_isalpha(c); }
// What the patterns' \h matches: tab and the space separators.
inline bool isHorizontalSpace(char16_t c) {
  return c == u'\t' || u_charType(c) == U_SPACE_SEPARATOR;
}

// True when `word` is one of the entries of `list`.
template <size_t N>
bool contains(const char16_t* const (&list)[N], std::u16string_view word) {
  return std::any_of(std::begin(list), std::end(list),
                     [&](const char16_t* entry) { return word == entry; });
}

// are a gap between layout columns) or one line break with any blanks around
// it (a no-break space of the source arrives as a line break). OGAP is the
// same, optional. OGAP goes into a pattern before GAP, since replacing GAP
// would change it too.
inline constexpr char16_t kGapPattern[] = u"(?: \\h{1,3}+ (?!\\h) (?: \\R \\h*+ )?+ | \\h*+ \\R \\h*+ )";
inline constexpr char16_t kOptionalGapPattern[] =
    u"(?: \\h{0,3}+ (?!\\h) (?: \\R \\h*+ )?+ | \\h*+ \\R \\h*+ )";

}  // namespace lm_detector
