// Trying a compiled pattern at chosen positions of a text only.
//
// A search that knows where its matches can begin (a date begins with a digit
// or a month name) can skip all other positions instead of letting the engine
// try each one. Trying the pattern at every position where a match can begin,
// left to right, and going on after the end of each match found, gives
// exactly the matches of a full search, as long as no position where a match
// can begin is skipped.
#pragma once
#include <unicode/utf16.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <optional>
#include <string_view>

#include "recognizers/regex.h"

U_NAMESPACE_BEGIN
class RegexMatcher;
class UnicodeString;
U_NAMESPACE_END

// Not thread-safe; make one per search. `regex` and `text` must outlive it
// and the matches it hands out.
class LMAnchoredMatcher {
 public:
  LMAnchoredMatcher(const LMRegex& regex, std::u16string_view text);
  ~LMAnchoredMatcher();
  LMAnchoredMatcher(const LMAnchoredMatcher&) = delete;
  LMAnchoredMatcher& operator=(const LMAnchoredMatcher&) = delete;

  // False when the pattern did not compile or the text is too long to search;
  // matchAt then finds nothing.
  bool usable() const { return matcher_ != nullptr; }

  // The match that begins exactly at `start`, as a search of the whole text
  // would find it there: look-behind and look-ahead see the text on both
  // sides. nullopt when the pattern does not match at `start`.
  std::optional<LMRegexMatch> matchAt(size_t start);

 private:
  const LMRegex& regex_;
  std::u16string_view text_;
  std::unique_ptr<icu::UnicodeString> input_;  // aliases text_
  std::unique_ptr<icu::RegexMatcher> matcher_;
};

// What the searches' tests of where a match can begin share. In a
// case-insensitive match an ASCII character of the text matches only itself
// in either case; no search begins on the second half of a surrogate pair.
inline char16_t lmAsciiLower(char16_t c) { return c >= u'A' && c <= u'Z' ? c + (u'a' - u'A') : c; }
inline bool lmInsideSurrogatePair(std::u16string_view text, size_t at) {
  return U16_IS_TRAIL(text[at]) && at > 0 && U16_IS_LEAD(text[at - 1]);
}

// Calls `onMatch` with every match of the pattern of `matcher` in its text,
// as a search of the whole text finds them: left to right, going on after
// the end of each match, but trying the pattern only where `mayBegin(at)`.
// `mayBegin` must be true wherever a match can begin.
template <typename MayBegin, typename OnMatch>
void lmEachAnchoredMatch(LMAnchoredMatcher& matcher, size_t textSize, const MayBegin& mayBegin,
                         const OnMatch& onMatch) {
  size_t position = 0;
  while (position < textSize) {
    std::optional<LMRegexMatch> match;
    if (mayBegin(position)) match = matcher.matchAt(position);
    if (!match) {
      ++position;
      continue;
    }
    onMatch(*match);
    position = std::max<size_t>(match->range().end(), position + 1);
  }
}
