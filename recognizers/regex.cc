#include "recognizers/regex.h"

#include <unicode/parseerr.h>
#include <unicode/regex.h>
#include <unicode/unistr.h>
#include <unicode/utypes.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <map>
#include <mutex>
#include <string>

#include "kit/diagnostics.h"
#include "kit/strings.h"
#include "kit/unicode.h"

namespace {

uint32_t icuFlags(uint64_t options) {
  static constexpr std::pair<uint64_t, uint32_t> kFlags[] = {
      {kLMRegexCaseInsensitive, UREGEX_CASE_INSENSITIVE},
      {kLMRegexAllowCommentsAndWhitespace, UREGEX_COMMENTS},
      {kLMRegexIgnoreMetacharacters, UREGEX_LITERAL},
      {kLMRegexDotMatchesLineSeparators, UREGEX_DOTALL},
      {kLMRegexAnchorsMatchLines, UREGEX_MULTILINE},
      {kLMRegexUseUnixLineSeparators, UREGEX_UNIX_LINES},
      {kLMRegexUseUnicodeWordBoundaries, UREGEX_UWORD},
  };
  uint32_t flags = 0;
  for (const auto& [option, flag] : kFlags) {
    if (options & option) flags |= flag;
  }
  return flags;
}

// Null when `pattern` does not compile.
std::unique_ptr<icu::RegexPattern> compilePattern(std::u16string_view pattern,
                                                  uint64_t options) {
  UErrorCode status = U_ZERO_ERROR;
  UParseError parseError{};
  const icu::UnicodeString source(pattern.data(), static_cast<int32_t>(pattern.size()));
  std::unique_ptr<icu::RegexPattern> compiled(
      icu::RegexPattern::compile(source, icuFlags(options), parseError, status));
  if (U_FAILURE(status)) compiled.reset();
  return compiled;
}

// Letter classes as case-insensitive recognizer patterns spell them, each with
// a spelling that matches the same code points without ICU's closing the set
// over case. ICU closes every set of a case-insensitive pattern one code point
// at a time, which costs milliseconds for a set of all letters and made up
// nearly all of a one-page analysis's time in a fresh process. Each of these
// sets is closed over case already, once U+0345 (which folds to a Greek
// letter) joins "\p{L}"; regex_test.cc checks every pair code point by code
// point.
struct CaseClosedSet {
  std::u16string_view spelling;
  std::u16string_view closed;  // the same set, matched case-sensitively
};
constexpr CaseClosedSet kCaseClosedSets[] = {
    {u"[[:alpha:]]", u"[[:alpha:]]"},
    {uR"([\p{L}])", uR"([\p{L}\x{345}])"},
    {uR"([\p{L}\d])", uR"([\p{L}\x{345}\d])"},
    {uR"([\p{L}\d\-])", uR"([\p{L}\x{345}\d\-])"},
    {uR"([\p{L}\d@.\-/_])", uR"([\p{L}\x{345}\d@.\-/_])"},
    {uR"([^\s<>"\x{201c}\x{201d}\x{ab}\x{bb}])", uR"([^\s<>"\x{201c}\x{201d}\x{ab}\x{bb}])"},
};

// Length of the quantifier at the start of `rest` ("*+", "{1,30}+", "?"...),
// 0 when there is none.
size_t quantifierLength(std::u16string_view rest) {
  size_t length = 0;
  if (!rest.empty() && (rest[0] == u'*' || rest[0] == u'+' || rest[0] == u'?')) {
    length = 1;
  } else if (!rest.empty() && rest[0] == u'{') {
    length = rest.find(u'}');
    if (length == std::u16string_view::npos) return 0;
    ++length;
  }
  if (length > 0 && length < rest.size() && (rest[length] == u'+' || rest[length] == u'?')) {
    ++length;
  }
  return length;
}

}  // namespace

std::vector<std::u16string_view> lmCaseClosedSetSpellings() {
  std::vector<std::u16string_view> spellings;
  for (const CaseClosedSet& set : kCaseClosedSets) spellings.push_back(set.spelling);
  return spellings;
}

std::u16string lmCaseClosedSpelling(std::u16string_view pattern, uint64_t options) {
  const bool freeSpacing = options & kLMRegexAllowCommentsAndWhitespace;
  std::u16string out;
  out.reserve(pattern.size() + 64);
  size_t depth = 0;  // nesting of "[" sets
  for (size_t i = 0; i < pattern.size();) {
    const char16_t c = pattern[i];
    if (c == u'\\' && i + 1 < pattern.size() && pattern[i + 1] == u'Q') {
      const size_t end = pattern.find(u"\\E", i + 2);
      const size_t stop = end == std::u16string_view::npos ? pattern.size() : end + 2;
      out.append(pattern.substr(i, stop - i));
      i = stop;
      continue;
    }
    // Comments are copied as they are, "(?#...)" and, free-spacing, "#" to the line's end.
    const bool inlineComment = pattern.substr(i).starts_with(u"(?#");
    if (depth == 0 && (inlineComment || (freeSpacing && c == u'#'))) {
      const size_t end = pattern.find(inlineComment ? u')' : u'\n', i);
      const size_t stop = end == std::u16string_view::npos ? pattern.size() : end + 1;
      out.append(pattern.substr(i, stop - i));
      i = stop;
      continue;
    }
    if (c == u'\\') {
      out.append(pattern.substr(i, std::min<size_t>(2, pattern.size() - i)));
      i += 2;
      continue;
    }
    if (depth == 0 && c == u'[') {
      const CaseClosedSet* known = nullptr;
      for (const CaseClosedSet& set : kCaseClosedSets) {
        if (pattern.substr(i).starts_with(set.spelling)) known = &set;
      }
      if (known) {
        i += known->spelling.size();
        const size_t quantifier = quantifierLength(pattern.substr(i));
        out += u"(?-i:";
        out += known->closed;
        out += pattern.substr(i, quantifier);
        out += u')';
        i += quantifier;
        continue;
      }
    }
    if (c == u'[') ++depth;
    if (c == u']' && depth > 0) --depth;
    out += c;
    ++i;
  }
  return out;
}

namespace {

// The one place ICU offsets become ranges.
LMTextRange groupRange(const icu::RegexMatcher& matcher, int32_t group) {
  UErrorCode status = U_ZERO_ERROR;
  const int32_t start = matcher.start(group, status);
  const int32_t end = matcher.end(group, status);
  return U_SUCCESS(status) ? LMTextRange::fromICU(start, end) : LMTextRange{};
}

std::vector<LMTextRange> allGroupRanges(const icu::RegexMatcher& matcher) {
  std::vector<LMTextRange> ranges(static_cast<size_t>(matcher.groupCount()) + 1);
  for (size_t i = 0; i < ranges.size(); ++i) {
    ranges[i] = groupRange(matcher, static_cast<int32_t>(i));
  }
  return ranges;
}

std::u16string substring(std::u16string_view text, const LMTextRange& range) {
  if (!range.fitsIn(text.size())) return std::u16string();
  return std::u16string(text.substr(range.location, range.length));
}

// Calls `onMatch(matcher)` for each match of `pattern` in `text` until it
// returns false.
template <typename OnMatch>
void forEachMatch(const icu::RegexPattern& pattern, std::u16string_view text,
                  OnMatch&& onMatch) {
  LMAssert(text.size() <= static_cast<uint64_t>(std::numeric_limits<int32_t>::max()),
           "Text of %llu units is too long to search",
           static_cast<unsigned long long>(text.size()));
  if (text.size() > static_cast<uint64_t>(std::numeric_limits<int32_t>::max())) return;
  // A read-only alias of the caller's text: nothing is copied. The matcher
  // refers to `input`, so `input` must be declared first.
  const icu::UnicodeString input(false, text.data(), static_cast<int32_t>(text.size()));
  UErrorCode status = U_ZERO_ERROR;
  // RegexMatcher is not thread-safe, so every search gets its own.
  std::unique_ptr<icu::RegexMatcher> matcher(pattern.matcher(input, status));
  if (U_FAILURE(status) || !matcher) return;
  matcher->setTimeLimit(kLMRegexTimeLimit, status);
  while (matcher->find(status) && U_SUCCESS(status)) {
    if (!onMatch(static_cast<const icu::RegexMatcher&>(*matcher))) return;
  }
  if (U_FAILURE(status)) {
    lmLogf("Regular expression search stopped: %s", u_errorName(status));
  }
}

// Finds each named-group opening "(?<name>"; group 1 is the name.
const icu::RegexPattern* groupNameFinder() {
  static const auto* finder = compilePattern(uR"(\(\?\<([\w\d\-]+)\>)", 0).release();
  return finder;
}

// Matches every "(" except one opening a non-capturing group, a comment, a
// look-ahead or a look-behind; plain and named groups both count.
const icu::RegexPattern* captureGroupCounter() {
  static const auto* counter =
      compilePattern(uR"(\((?!\?([\:\#\=\!]|\<\!|\<\=)))", 0).release();
  return counter;
}

struct ExpressionCache {
  std::mutex mutex;
  std::map<std::u16string, std::shared_ptr<const LMRegex>, std::less<>> entries;
};

ExpressionCache& expressionCache() {
  static auto* cache = new ExpressionCache;
  return *cache;
}

}  // namespace

std::shared_ptr<const LMRegex> LMRegex::regexWithPattern(std::u16string_view pattern,
                                                         uint64_t options, bool cache) {
  if (!cache) return std::make_shared<const LMRegex>(pattern, options);

  std::u16string key(pattern);
  key += u'/';
  key += lmUtf16(std::to_string(options));
  ExpressionCache& expressions = expressionCache();
  {
    std::lock_guard<std::mutex> lock(expressions.mutex);
    if (auto it = expressions.entries.find(key); it != expressions.entries.end()) {
      return it->second;
    }
  }
  // Compiled outside the lock; should another thread have stored the key
  // meanwhile, its object wins so that every caller gets the same one.
  auto made = std::make_shared<const LMRegex>(pattern, options);
  std::lock_guard<std::mutex> lock(expressions.mutex);
  return expressions.entries.try_emplace(std::move(key), std::move(made)).first->second;
}

LMRegex::LMRegex(std::u16string_view pattern) : LMRegex(pattern, kLMRegexDefaultOptions) {}

LMRegex::LMRegex(std::u16string_view pattern, uint64_t options)
    : pattern_(pattern), options_(options) {
  configure();
}

LMRegex::~LMRegex() = default;

void LMRegex::configure() {
  const icu::RegexPattern* finder = groupNameFinder();
  const icu::RegexPattern* counter = captureGroupCounter();
  LMAssert(finder && counter);
  if (finder && counter) {
    // Deliberately naive: an escaped "\(", a "(" in a bracket class or in a
    // "#" comment and an inline flag group such as "(?i)" each count as a
    // group. Recognizer patterns are written with that in mind.
    std::vector<uint64_t> openings;
    forEachMatch(*counter, pattern_, [&](const icu::RegexMatcher& m) {
      openings.push_back(groupRange(m, 0).location);
      return true;
    });
    std::vector<std::pair<std::u16string, uint64_t>> labels;  // name, "(?<" location
    forEachMatch(*finder, pattern_, [&](const icu::RegexMatcher& m) {
      labels.emplace_back(substring(pattern_, groupRange(m, 1)), groupRange(m, 0).location);
      return true;
    });
    for (auto& [label, location] : labels) {
      LMAssert(!captureIndexForGroupName(label), "Only define once!");
      // Groups opened before this one; its own "(" is not among them.
      const auto before = std::lower_bound(openings.begin(), openings.end(), location);
      setLabel(std::move(label), static_cast<uint64_t>(before - openings.begin()));
    }
  }

  rewrittenPattern_ = pattern_;
  for (const auto& [name, index] : groupNameMappings_) {
    rewrittenPattern_ = lmReplace(rewrittenPattern_, u"(?<" + name + u">", u"(");
  }
  regex_ = compilePattern((options_ & kLMRegexCaseInsensitive)
                             ? lmCaseClosedSpelling(rewrittenPattern_, options_)
                             : rewrittenPattern_,
                         options_);
  LMAssert(regex_);
}

void LMRegex::setLabel(std::u16string label, uint64_t offset) {
  for (auto& [name, index] : groupNameMappings_) {
    if (name == label) {
      index = offset + 1;
      return;
    }
  }
  groupNameMappings_.emplace_back(std::move(label), offset + 1);
}

std::optional<uint64_t> LMRegex::captureIndexForGroupName(std::u16string_view name) const {
  for (const auto& [label, index] : groupNameMappings_) {
    if (label == name) return index;
  }
  return std::nullopt;
}

void LMRegex::enumerateMatchesInString(std::u16string_view text, uint64_t /*matchingOptions*/,
                                       const MatchBlock& block) const {
  if (!regex_ || !block) return;
  forEachMatch(*regex_, text, [&](const icu::RegexMatcher& m) {
    bool stop = false;
    block(LMRegexMatch(*this, text, allGroupRanges(m)), &stop);
    return !stop;
  });
}

void LMRegex::enumerateMatchesInString(std::u16string_view text,
                                       const MatchBlock& block) const {
  enumerateMatchesInString(text, 0, block);
}

std::vector<std::u16string> LMRegex::allStringMatchesinString(std::u16string_view text) const {
  std::vector<std::u16string> matches;
  if (!regex_) return matches;
  forEachMatch(*regex_, text, [&](const icu::RegexMatcher& m) {
    matches.push_back(substring(text, groupRange(m, 0)));
    return true;
  });
  return matches;
}

std::optional<LMRegexMatch> LMRegex::firstMatchInString(std::u16string_view text) const {
  std::optional<LMRegexMatch> first;
  if (!regex_) return first;
  forEachMatch(*regex_, text, [&](const icu::RegexMatcher& m) {
    first.emplace(*this, text, allGroupRanges(m));
    return false;
  });
  return first;
}

uint64_t LMRegex::numberOfMatchesInString(std::u16string_view text) const {
  uint64_t count = 0;
  if (!regex_) return count;
  forEachMatch(*regex_, text, [&](const icu::RegexMatcher&) {
    ++count;
    return true;
  });
  return count;
}

LMRegexMatch::LMRegexMatch(const LMRegex& regex, std::u16string_view text,
                           std::vector<LMTextRange> ranges)
    : owner_(regex.weak_from_this().lock()),
      regex_(&regex),
      text_(text),
      ranges_(std::move(ranges)) {}

std::optional<std::u16string> LMRegexMatch::stringForGroupName(std::u16string_view name) const {
  const std::optional<uint64_t> index = regex_->captureIndexForGroupName(name);
  if (!index) return std::nullopt;
  return inString(text_, *index);
}

LMTextRange LMRegexMatch::rangeForGroupName(std::u16string_view name) const {
  const std::optional<uint64_t> index = regex_->captureIndexForGroupName(name);
  return index ? rangeAtIndex(*index) : LMTextRange{};
}

std::u16string LMRegexMatch::stringValue() const { return inString(text_); }

LMTextRange LMRegexMatch::rangeAtIndex(uint64_t index) const {
  return index < ranges_.size() ? ranges_[index] : LMTextRange{};
}

std::u16string LMRegexMatch::inString(std::u16string_view text) const {
  return substring(text, rangeAtIndex(0));
}

std::optional<std::u16string> LMRegexMatch::inString(std::u16string_view text,
                                                     uint64_t index) const {
  if (index >= ranges_.size()) return std::nullopt;
  return substring(text, ranges_[index]);
}

std::vector<std::u16string> LMRegexMatch::groupsInString(std::u16string_view text) const {
  std::vector<std::u16string> groups;
  groups.reserve(ranges_.size());
  for (const LMTextRange& range : ranges_) groups.push_back(substring(text, range));
  return groups;
}
