#include "recognizers/regex.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unicode/regex.h>
#include <unicode/utf16.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "kit/diagnostics.h"
#include "kit/unicode.h"
#include "kit/test_support.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

std::string utf8(const std::optional<std::u16string>& text) {
  return text ? lmUtf8(*text) : std::string("<nullopt>");
}

TEST(RegexTest, MapsNamedGroupsToCaptureNumbers) {
  struct Case {
    std::u16string pattern;
    std::vector<std::pair<std::u16string, uint64_t>> mappings;
    std::u16string rewritten;
  };
  const Case cases[] = {
      {uR"((?<1-DAY>\d+)\.(?<1-MONTH>\d+))", {{u"1-DAY", 1}, {u"1-MONTH", 2}}, uR"((\d+)\.(\d+))"},
      {u"(?:x)(a)(?<n>b)", {{u"n", 2}}, u"(?:x)(a)(b)"},
      {u"(?<![x])(?<n>y)", {{u"n", 1}}, u"(?<![x])(y)"},
      {u"(?<=x)(?=y)(?!z)(?#note)(?<n>y)", {{u"n", 1}}, u"(?<=x)(?=y)(?!z)(?#note)(y)"},
      {u"((?<outer>a(?<inner>b)))", {{u"outer", 2}, {u"inner", 3}}, u"((a(b)))"},
      {u"(?<a_1>x)|(?<B-2>y)", {{u"a_1", 1}, {u"B-2", 2}}, u"(x)|(y)"},
      {u"plain(x)", {}, u"plain(x)"},
      // The count is naive on purpose: escaped and bracketed parentheses and
      // inline flag groups each count as a group.
      {uR"(\((?<n>x))", {{u"n", 2}}, uR"(\((x))"},
      {u"[(](?<n>x)", {{u"n", 2}}, u"[(](x)"},
      {u"(?i)(?<n>x)", {{u"n", 2}}, u"(?i)(x)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.pattern));
    const LMRegex regex(c.pattern);
    EXPECT_EQ(regex.groupNameMappings(), c.mappings);
    EXPECT_EQ(lmUtf8(regex.rewrittenPattern()), lmUtf8(c.rewritten));
  }
}

TEST(RegexTest, LooksGroupsUpByNameAndNotBeyondTheCompiledOnes) {
  const LMRegex regex(uR"((?<1-DAY>\d+)\.(?<1-MONTH>\d+) (\.(?<1-YEAR>\d+))?)");
  const std::u16string text = u"Date: 24.12 rest";
  const std::optional<LMRegexMatch> match = regex.firstMatchInString(text);
  ASSERT_TRUE(match.has_value());
  EXPECT_EQ(utf8(match->stringForGroupName(u"1-DAY")), "24");
  EXPECT_EQ(utf8((*match)[u"1-MONTH"]), "12");
  EXPECT_EQ(utf8(match->stringForGroupName(u"1-YEAR")), "");  // took no part
  EXPECT_EQ(utf8(match->stringForGroupName(u"1-HOUR")), "<nullopt>");
  EXPECT_EQ(match->rangeForGroupName(u"1-MONTH"), LMTextRange::make(9, 2));
  EXPECT_FALSE(match->rangeForGroupName(u"1-YEAR").found());
  EXPECT_FALSE(match->rangeForGroupName(u"1-HOUR").found());
  EXPECT_EQ(lmUtf8(match->stringValue()), "24.12");
  EXPECT_EQ(match->range(), LMTextRange::make(6, 5));
  EXPECT_EQ(match->numberOfRanges(), 5u);
  EXPECT_FALSE(match->rangeAtIndex(5).found());

  // The naive count gives "n" the number 2, but the compiled pattern has
  // only one group.
  const LMRegex cut(uR"(\((?<n>x))");
  const std::u16string cutText = u"(x";
  const std::optional<LMRegexMatch> beyond = cut.firstMatchInString(cutText);
  ASSERT_TRUE(beyond.has_value());
  EXPECT_EQ(utf8(beyond->stringForGroupName(u"n")), "<nullopt>");
  EXPECT_FALSE(beyond->rangeForGroupName(u"n").found());
}

TEST(RegexTest, CachesByPatternAndOptions) {
  const std::u16string pattern = u"cache-(?<n>\\d)";
  const auto first = LMRegex::regexWithPattern(pattern, 19, true);
  const auto again = LMRegex::regexWithPattern(pattern, 19, true);
  const auto otherOptions = LMRegex::regexWithPattern(pattern, 1, true);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first.get(), again.get());
  EXPECT_NE(first.get(), otherOptions.get());
  EXPECT_EQ(otherOptions->options(), 1u);

  const std::u16string uncachedPattern = u"uncached-(?<n>\\d)";
  const auto a = LMRegex::regexWithPattern(uncachedPattern, 19, false);
  const auto b = LMRegex::regexWithPattern(uncachedPattern, 19, false);
  const auto cached = LMRegex::regexWithPattern(uncachedPattern, 19, true);
  EXPECT_NE(a.get(), b.get());
  EXPECT_NE(cached.get(), a.get());
  EXPECT_NE(cached.get(), b.get());
}

TEST(RegexTest, MatchKeepsSharedRegexAlive) {
  const std::u16string text = u"total 42";
  auto regex = LMRegex::regexWithPattern(u"(?<1-N>\\d+)", 19, false);
  const std::weak_ptr<const LMRegex> weak = regex;
  std::optional<LMRegexMatch> match = regex->firstMatchInString(text);
  regex.reset();
  ASSERT_TRUE(match.has_value());
  EXPECT_FALSE(weak.expired());
  EXPECT_EQ(utf8((*match)[u"1-N"]), "42");
  match.reset();
  EXPECT_TRUE(weak.expired());
}

TEST(RegexTest, InvalidPatternLogsOnceAndFindsNothing) {
  const std::u16string text = u"abc (abc";
  LMLogCapture log;
  const LMRegex regex(u"(?<n>abc");
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_THAT(log.lines()[0], StartsWith("Assertion <regex.cc:"));
  EXPECT_THAT(log.lines()[0], HasSubstr("(regex_) failed assertion"));
  EXPECT_EQ(regex.compiled(), nullptr);
  int calls = 0;
  regex.enumerateMatchesInString(text, [&](const LMRegexMatch&, bool*) { ++calls; });
  EXPECT_EQ(calls, 0);
  EXPECT_TRUE(regex.allStringMatchesinString(text).empty());
  EXPECT_FALSE(regex.firstMatchInString(text).has_value());
  EXPECT_EQ(regex.numberOfMatchesInString(text), 0u);
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST(RegexTest, DuplicateNameLogsAndLastDefinitionWins) {
  LMLogCapture log;
  const LMRegex regex(u"(?<a>x)(?<a>y)");
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_THAT(log.lines()[0], StartsWith("Only define once! <regex.cc:"));
  EXPECT_THAT(log.lines()[0], HasSubstr("failed assertion"));
  ASSERT_EQ(regex.groupNameMappings().size(), 1u);
  EXPECT_EQ(regex.groupNameMappings()[0].second, 2u);
  EXPECT_EQ(regex.rewrittenPattern(), u"(x)(y)");
  const std::u16string text = u"xy";
  const std::optional<LMRegexMatch> match = regex.firstMatchInString(text);
  ASSERT_TRUE(match.has_value());
  EXPECT_EQ(utf8((*match)[u"a"]), "y");
}

TEST(RegexTest, AppliesOptionBitsAndReportsEmptyMatches) {
  struct Case {
    const char* name;
    std::u16string pattern;
    uint64_t options;
    std::u16string text;
    std::vector<std::u16string> matches;
  };
  const Case cases[] = {
      {"default ignores case", u"total", kLMRegexDefaultOptions, u"TOTAL", {u"TOTAL"}},
      {"default ignores spaces", u"total amount", kLMRegexDefaultOptions, u"total amount totalamount", {u"totalamount"}},
      {"default anchors at lines", u"^\\w", kLMRegexDefaultOptions, u"ab\ncd", {u"a", u"c"}},
      {"options 0 case-sensitive", u"total", 0, u"TOTAL total", {u"total"}},
      {"options 0 spaces count", u"a b", 0, u"ab a b", {u"a b"}},
      {"options 0 anchors at text", u"^\\w", 0, u"ab\ncd", {u"a"}},
      {"literal", u"a.c", kLMRegexIgnoreMetacharacters, u"abc a.c", {u"a.c"}},
      {"dot without line separators", u"a.c", 0, u"a\nc", {}},
      {"dot with line separators", u"a.c", kLMRegexDotMatchesLineSeparators, u"a\nc", {u"a\nc"}},
      {"any line separator", u"a$", kLMRegexAnchorsMatchLines, u"a\r\nb", {u"a"}},
      {"unix line separators", u"a$", kLMRegexAnchorsMatchLines | kLMRegexUseUnixLineSeparators, u"a\r\nb", {}},
      {"simple word boundaries", u"\\bcan\\b", 0, u"can't", {u"can"}},
      {"unicode word boundaries", u"\\bcan\\b", kLMRegexUseUnicodeWordBoundaries, u"can't", {}},
      {"empty text", u"\\d+", kLMRegexDefaultOptions, u"", {}},
      // Empty matches are reported and the search still moves on.
      {"empty matches", u"x*", kLMRegexDefaultOptions, u"ab", {u"", u"", u""}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const LMRegex regex(c.pattern, c.options);
    EXPECT_EQ(regex.allStringMatchesinString(c.text), c.matches);
    EXPECT_EQ(regex.numberOfMatchesInString(c.text), c.matches.size());
  }
}

TEST(RegexTest, RangesCountUtf16Units) {
  const LMRegex regex(u"(?<n>\\d+)");
  const std::u16string text = u"\U0001F600 12 \U0001F600345";
  std::vector<LMTextRange> ranges;
  regex.enumerateMatchesInString(text, [&](const LMRegexMatch& match, bool*) {
    ranges.push_back(match.rangeForGroupName(u"n"));
  });
  EXPECT_THAT(ranges, ElementsAre(LMTextRange::make(3, 2), LMTextRange::make(8, 3)));
}

// Where a pattern compiled by ICU itself matches in `text`.
std::vector<int32_t> icuMatchStarts(std::u16string_view pattern, uint32_t flags,
                                    const icu::UnicodeString& text) {
  UErrorCode status = U_ZERO_ERROR;
  UParseError parseError{};
  std::unique_ptr<icu::RegexPattern> compiled(icu::RegexPattern::compile(
      icu::UnicodeString(pattern.data(), static_cast<int32_t>(pattern.size())), flags,
      parseError, status));
  std::unique_ptr<icu::RegexMatcher> matcher(compiled ? compiled->matcher(text, status) : nullptr);
  std::vector<int32_t> starts;
  while (U_SUCCESS(status) && matcher && matcher->find(status)) {
    starts.push_back(matcher->start(status));
  }
  EXPECT_TRUE(U_SUCCESS(status)) << u_errorName(status);
  return starts;
}

TEST(RegexTest, CaseClosedSpellingsMatchTheSameCodePoints) {
  icu::UnicodeString every;  // every code point but the surrogates, one after another
  for (UChar32 c = 1; c <= 0x10FFFF; ++c) {
    if (!U_IS_SURROGATE(c)) every.append(c);
  }
  const uint32_t flags = UREGEX_CASE_INSENSITIVE;
  for (std::u16string_view spelling : lmCaseClosedSetSpellings()) {
    SCOPED_TRACE(lmUtf8(std::u16string(spelling)));
    const std::u16string closed = lmCaseClosedSpelling(spelling, 0);
    EXPECT_NE(closed, spelling);
    const std::vector<int32_t> expected = icuMatchStarts(spelling, flags, every);
    EXPECT_GT(expected.size(), 1000u);
    EXPECT_EQ(icuMatchStarts(closed, flags, every), expected);
  }
}

TEST(RegexTest, CaseClosedSpellingLeavesOtherPartsAlone) {
  const struct Case {
    std::u16string pattern;
    uint64_t options;
    std::u16string spelled;
  } cases[] = {
      {u"(?<![[:alpha:]])x(?![[:alpha:]])", 0,
       u"(?<!(?-i:[[:alpha:]]))x(?!(?-i:[[:alpha:]]))"},
      {uR"(w [\p{L}\d\-]++ (?: . [\p{L}\d\-]{1,3}? )+)", 0,
       uR"(w (?-i:[\p{L}\x{345}\d\-]++) (?: . (?-i:[\p{L}\x{345}\d\-]{1,3}?) )+)"},
      // Inside another set, escaped, quoted or in a comment: not a set of its own.
      {u"[a[[:alpha:]]]", 0, u"[a[[:alpha:]]]"},
      {uR"(\[[:alpha:]])", 0, uR"(\[[:alpha:]])"},
      {uR"(\Q[[:alpha:]]\E)", 0, uR"(\Q[[:alpha:]]\E)"},
      {u"(?# [[:alpha:]])x", 0, u"(?# [[:alpha:]])x"},
      {u"x # [[:alpha:]]\n[[:alpha:]]", kLMRegexAllowCommentsAndWhitespace,
       u"x # [[:alpha:]]\n(?-i:[[:alpha:]])"},
      {u"[[:alpha:]]\\d", 0, u"(?-i:[[:alpha:]])\\d"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.pattern));
    EXPECT_EQ(lmUtf8(lmCaseClosedSpelling(c.pattern, c.options)), lmUtf8(c.spelled));
  }
  // Free-spacing patterns get the spelling; the pattern and its groups stay as written.
  const LMRegex regex(u"(?<w>[[:alpha:]]+) # word");
  EXPECT_EQ(lmUtf8(regex.rewrittenPattern()), "([[:alpha:]]+) # word");
  EXPECT_EQ(utf8(regex.firstMatchInString(u"1 \u0130stanbul.")->stringForGroupName(u"w")),
            "\u0130stanbul");
}

TEST(RegexTest, SharedRegexSearchesFromManyThreads) {
  const auto regex = LMRegex::regexWithPattern(u"(?<1-N>\\d+)", 19, true);
  const std::u16string text = u"1 22 333 4444";
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        if (LMRegex::regexWithPattern(u"(?<1-N>\\d+)", 19, true) != regex) ++wrong;
        std::u16string joined;
        regex->enumerateMatchesInString(text, [&](const LMRegexMatch& match, bool*) {
          joined += *match[u"1-N"];
        });
        if (joined != u"1223334444") ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
}

TEST(RegexTest, PathologicalSearchStopsInsteadOfHanging) {
  LMLogCapture log;
  // Nested quantifiers over a text that almost matches backtrack
  // exponentially; the time limit ends the search with no match.
  LMRegex regex(u"^(a+)+$", 0);
  const std::u16string text = std::u16string(40, u'a') + u"!";
  EXPECT_TRUE(regex.allStringMatchesinString(text).empty());
  ASSERT_EQ(1u, log.lines().size());
  EXPECT_THAT(log.lines()[0], HasSubstr("U_REGEX_TIME_OUT"));
  // Ordinary text is unaffected.
  EXPECT_EQ(1u, regex.allStringMatchesinString(std::u16string(40, u'a')).size());
}

}  // namespace
