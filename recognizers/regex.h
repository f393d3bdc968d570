// Regular expressions whose named groups may carry names the engine rejects.
//
// Recognizer patterns name their groups freely, e.g. (?<1-DAY>\d+), with names
// that begin with a digit or contain "-". LMRegex finds every named group,
// remembers the capture number each name will have, rewrites the group into a
// plain "(" and compiles the result with ICU. Matches come out as LMRegexMatch
// objects that look groups up by name. Ranges count UTF-16 code units.
#pragma once
#include <unicode/uversion.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kit/text_range.h"

U_NAMESPACE_BEGIN
class RegexPattern;
U_NAMESPACE_END

// Pattern option bits. Bits not listed here are ignored.
inline constexpr uint64_t kLMRegexCaseInsensitive = 1;
inline constexpr uint64_t kLMRegexAllowCommentsAndWhitespace = 2;
inline constexpr uint64_t kLMRegexIgnoreMetacharacters = 4;
inline constexpr uint64_t kLMRegexDotMatchesLineSeparators = 8;
inline constexpr uint64_t kLMRegexAnchorsMatchLines = 16;
inline constexpr uint64_t kLMRegexUseUnixLineSeparators = 32;
inline constexpr uint64_t kLMRegexUseUnicodeWordBoundaries = 64;
// The options of every recognizer pattern unless it says otherwise (19):
// case-insensitive, free-spacing with "#" comments, "^" and "$" at line ends.
// Every search stops after about this many engine steps (roughly
// milliseconds) for one match attempt: normal text never comes near it, a
// pathological one ends the search (no further matches) instead of hanging.
inline constexpr int32_t kLMRegexTimeLimit = 250;

inline constexpr uint64_t kLMRegexDefaultOptions =
    kLMRegexCaseInsensitive | kLMRegexAllowCommentsAndWhitespace |
    kLMRegexAnchorsMatchLines;

class LMRegexMatch;

// `pattern` as a case-insensitive pattern is compiled: each letter class that
// is closed over case already (such as "[[:alpha:]]" or "[\p{L}\d]", outside
// other sets and comments) is wrapped, with its quantifier, in "(?-i:...)",
// so that ICU need not close it over case code point by code point. Matches
// exactly what `pattern` matches with kLMRegexCaseInsensitive; groups keep
// their numbers. `options` tells whether "#" starts a comment.
std::u16string lmCaseClosedSpelling(std::u16string_view pattern, uint64_t options);
// The letter classes lmCaseClosedSpelling wraps, as patterns spell them.
std::vector<std::u16string_view> lmCaseClosedSetSpellings();

// A compiled pattern with named groups.
//
// Construction never fails: when the rewritten pattern does not compile, a
// soft assertion is logged, compiled() is null and the object finds nothing.
// Read-only after construction, so one object may be used by any number of
// threads at once (every search makes its own matcher).
//
// Lifetime: matches handed out by an LMRegex owned by a std::shared_ptr (as
// regexWithPattern returns it) keep the LMRegex alive themselves. Matches of
// an LMRegex created any other way (on the stack, as a member) only point at
// it and must not outlive it. Not copyable or movable, since matches point at it.
class LMRegex : public std::enable_shared_from_this<LMRegex> {
 public:
  // Group name -> capture number (1-based; 0 is the whole match), in the
  // order the names first appear in the pattern.
  using GroupNameMappings = std::vector<std::pair<std::u16string, uint64_t>>;
  // Called once per match; setting *stop to true ends the enumeration. The
  // match is valid during the call; copy it to keep it (see LMRegexMatch).
  using MatchBlock = std::function<void(const LMRegexMatch& match, bool* stop)>;

  // The object for `pattern` and `options`. With `cache` true, the object
  // made earlier for the same pattern and options is returned as is (one per
  // key for the life of the process; thread-safe). With `cache` false, a new
  // object every time and nothing is stored. Never null.
  static std::shared_ptr<const LMRegex> regexWithPattern(
      std::u16string_view pattern, uint64_t options, bool cache);

  // `pattern` as written, with named groups, compiled with kLMRegexDefaultOptions.
  explicit LMRegex(std::u16string_view pattern);
  // `pattern` as written, with named groups; `options` are kLMRegex* bits.
  LMRegex(std::u16string_view pattern, uint64_t options);
  ~LMRegex();
  LMRegex(const LMRegex&) = delete;
  LMRegex& operator=(const LMRegex&) = delete;

  // The pattern as passed, named groups included.
  const std::u16string& pattern() const { return pattern_; }
  uint64_t options() const { return options_; }
  const GroupNameMappings& groupNameMappings() const { return groupNameMappings_; }
  // The pattern actually compiled: every "(?<name>" replaced by "(".
  const std::u16string& rewrittenPattern() const { return rewrittenPattern_; }
  // The compiled pattern, or null when compiling failed. Owned by this object.
  const icu::RegexPattern* compiled() const { return regex_.get(); }

  // The capture number of the group called `name`, or nullopt when the
  // pattern names no such group.
  std::optional<uint64_t> captureIndexForGroupName(std::u16string_view name) const;

  // Calls `block` for every match in `text`, left to right, until it sets
  // *stop. `text` must outlive every match kept from the block. No matching
  // options are supported: every bit of `matchingOptions` is ignored.
  void enumerateMatchesInString(std::u16string_view text, uint64_t matchingOptions,
                                const MatchBlock& block) const;
  void enumerateMatchesInString(std::u16string_view text,
                                const MatchBlock& block) const;

  // The whole-match text of every match, in order.
  std::vector<std::u16string> allStringMatchesinString(std::u16string_view text) const;
  // The first match, or nullopt. Valid only while `text` lives.
  std::optional<LMRegexMatch> firstMatchInString(std::u16string_view text) const;
  uint64_t numberOfMatchesInString(std::u16string_view text) const;

 private:
  // Finds the named groups, rewrites and compiles the pattern.
  void configure();
  // Maps `label` to capture number `offset` + 1, replacing an earlier mapping.
  void setLabel(std::u16string label, uint64_t offset);

  std::u16string pattern_;
  uint64_t options_ = 0;
  GroupNameMappings groupNameMappings_;
  std::u16string rewrittenPattern_;
  std::unique_ptr<icu::RegexPattern> regex_;
};

// One match: the ranges of all groups of an LMRegex in a searched text.
//
// Holds a view of the searched text, not a copy: a match is valid only while
// that text lives. It keeps its LMRegex alive when that is owned by a
// std::shared_ptr, and otherwise only points at it (see LMRegex). Immutable;
// copies are cheap apart from the range list.
class LMRegexMatch {
 public:
  // `ranges`: index 0 is the whole match, then one per capture group; a
  // group that took no part has location kLMNotFound.
  LMRegexMatch(const LMRegex& regex, std::u16string_view text,
               std::vector<LMTextRange> ranges);

  const LMRegex& regex() const { return *regex_; }
  // The searched text.
  std::u16string_view text() const { return text_; }

  // The text of the group called `name`: nullopt for a name the pattern does
  // not define (or whose number the compiled pattern lacks), "" for a group
  // that took no part in the match.
  std::optional<std::u16string> stringForGroupName(std::u16string_view name) const;
  std::optional<std::u16string> operator[](std::u16string_view name) const {
    return stringForGroupName(name);
  }
  // The range of the group called `name`; not found for an unknown name or a
  // group that took no part.
  LMTextRange rangeForGroupName(std::u16string_view name) const;

  // The whole match's text and range.
  std::u16string stringValue() const;
  LMTextRange range() const { return rangeAtIndex(0); }

  // Number of ranges: capture groups + 1.
  uint64_t numberOfRanges() const { return ranges_.size(); }
  // The range of group `index`; not found when index >= numberOfRanges().
  LMTextRange rangeAtIndex(uint64_t index) const;

  // Helpers that cut this match's ranges out of `text` (normally the searched
  // text). A range that does not fit in `text` gives "".
  // The whole match's text.
  std::u16string inString(std::u16string_view text) const;
  // Group `index`: nullopt when index >= numberOfRanges(), "" when the group
  // took no part.
  std::optional<std::u16string> inString(std::u16string_view text, uint64_t index) const;
  // Every group, index 0 to numberOfRanges() - 1; non-participating give "".
  std::vector<std::u16string> groupsInString(std::u16string_view text) const;

 private:
  std::shared_ptr<const LMRegex> owner_;  // null when the regex is not shared-owned
  const LMRegex* regex_;
  std::u16string_view text_;
  std::vector<LMTextRange> ranges_;
};
