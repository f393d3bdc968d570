#include "recognizers/anchored_matcher.h"

#include <unicode/regex.h>
#include <unicode/unistr.h>

#include <limits>
#include <vector>

LMAnchoredMatcher::LMAnchoredMatcher(const LMRegex& regex, std::u16string_view text)
    : regex_(regex), text_(text) {
  if (!regex.compiled() ||
      text.size() > static_cast<size_t>(std::numeric_limits<int32_t>::max())) {
    return;
  }
  // A read-only alias of the caller's text: nothing is copied.
  input_ = std::make_unique<icu::UnicodeString>(false, text.data(),
                                                static_cast<int32_t>(text.size()));
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexMatcher> matcher(regex.compiled()->matcher(*input_, status));
  if (U_FAILURE(status) || !matcher) return;
  // Look-arounds see beyond the region, and "^" and "$" keep to line ends
  // rather than the region's ends: a match at `start` is the one a search of
  // the whole text finds there.
  matcher->useTransparentBounds(true);
  matcher->useAnchoringBounds(false);
  matcher->setTimeLimit(kLMRegexTimeLimit, status);
  if (U_FAILURE(status)) return;
  matcher_ = std::move(matcher);
}

LMAnchoredMatcher::~LMAnchoredMatcher() = default;

std::optional<LMRegexMatch> LMAnchoredMatcher::matchAt(size_t start) {
  if (!matcher_ || start > text_.size()) return std::nullopt;
  UErrorCode status = U_ZERO_ERROR;
  matcher_->region(static_cast<int64_t>(start), static_cast<int64_t>(text_.size()), status);
  if (U_FAILURE(status) || !matcher_->lookingAt(status) || U_FAILURE(status)) {
    return std::nullopt;
  }
  std::vector<LMTextRange> ranges(static_cast<size_t>(matcher_->groupCount()) + 1);
  for (size_t i = 0; i < ranges.size(); ++i) {
    const int32_t group = static_cast<int32_t>(i);
    const int32_t begin = matcher_->start(group, status);
    const int32_t end = matcher_->end(group, status);
    ranges[i] = U_SUCCESS(status) ? LMTextRange::fromICU(begin, end) : LMTextRange{};
  }
  return LMRegexMatch(regex_, text_, std::move(ranges));
}
