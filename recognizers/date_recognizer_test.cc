#include "recognizers/date_recognizer.h"

#include <gtest/gtest.h>

#include "kit/test_support.h"
#include <unicode/timezone.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kit/unicode.h"
#include "recognizers/regex.h"

namespace {

constexpr int64_t kPivotYear = 2026;

// The days found in `text`; the block must be told the same dates.
std::vector<std::u16string> days(std::u16string_view text, int64_t pivot = kPivotYear) {
  std::vector<LMDate> told;
  const std::vector<LMDate> found = LMReceiptParserDate(pivot).findDatesInText(
      text, [&](std::u16string_view, LMTextRange, const LMDate& date) { told.push_back(date); });
  EXPECT_EQ(found, told);
  std::vector<std::u16string> out;
  for (const LMDate& date : found) out.push_back(date.descriptionDate());
  return out;
}

TEST(DateRecognizerTest, ReadsEveryFormAndRefusesGluedOrIncompleteOnes) {
  LMTimeZoneScope zone(u"Europe/Berlin");
  struct Case {
    std::u16string text;
    std::vector<std::u16string> days;
  } cases[] = {
      {u"24.12.2023", {u"2023-12-24"}},
      {u"24. 12. 23", {u"2023-12-24"}},
      {u"1.1.24", {u"2024-01-01"}},
      {u"24-12-2023", {u"2023-12-24"}},
      {u"2023-12-24", {u"2023-12-24"}},
      {u"2023-03-24T17:59:01.000", {u"2023-03-24"}},
      {u"24. Dezember 2023", {u"2023-12-24"}},
      {u"24. J\u00E4nner 2024", {u"2024-01-24"}},
      {u"24. J\u00C4NNER 2024", {u"2024-01-24"}},
      {u"1. M\u00E4rz 2023", {u"2023-03-01"}},
      {u"1 Mrz 2023", {u"2023-03-01"}},
      {u"3 0kt 2023", {u"2023-10-03"}},
      {u"3 OKT 2023", {u"2023-10-03"}},
      {u"1 Juno 2023", {u"2023-06-01"}},
      {u"1 Julei 2023", {u"2023-07-01"}},
      {u"11. Juli 2014", {u"2014-07-11"}},
      {u"December 24, 2023", {u"2023-12-24"}},
      {u"August 3 , 2014", {u"2014-08-03"}},
      {u"sept 9,2023", {u"2023-09-09"}},
      {u"24 Dec 2023", {u"2023-12-24"}},
      {u"24Dec2023", {u"2023-12-24"}},
      {u"24 DEC 23", {u"2023-12-24"}},
      {u"24 Dec '23", {u"2023-12-24"}},
      {u"12/24/2023", {u"2023-12-24"}},  // month first
      {u"05/06/2023", {u"2023-05-06"}},  // ambiguous: month first wins
      {u"24/12/2023", {u"2023-12-24"}},  // day first only when month first fails
      {u"13/06/2023", {u"2023-06-13"}},
      {u"24.12 23", {u"2023-12-24"}},
      {u"31.02.2023", {u"2023-03-03"}},  // lenient, not refused
      {u"24.12.0023", {u"2023-12-24"}},  // a four-digit year below 100 is expanded too
      // Glued to digits or incomplete: no date.
      {u"124.12.2023", {}}, {u"24.12.20231", {}}, {u"32.12.2023", {}}, {u"24.13.2023", {}},
      {u"24-12-23", {}},  // the dashed form needs four year digits
      {u"24.12.", {}},      {u"24 Dezembers 2023", {}}, {u"24.12.202", {}}, {u"2023", {}}, {u"", {}},
      {u"3. Nov. 2026", {}},  // no point after an abbreviated month
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.text));
    EXPECT_EQ(c.days, days(c.text));
  }
}

TEST(DateRecognizerTest, ExpandsTwoDigitYearsAroundThePivotYear) {
  struct Case {
    int64_t year;
    int64_t pivot;
    int64_t expected;
  } cases[] = {
      {26, 2026, 2026}, {27, 2026, 2027}, {28, 2026, 1928}, {0, 2026, 2000},
      {99, 2026, 1999}, {1, 2000, 2001},  {2, 2000, 1902},  {2023, 2026, 2023},
      {100, 2026, 100},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.year << " around " << c.pivot);
    EXPECT_EQ(c.expected, LMReceiptParserDate::expandedYear(c.year, c.pivot));
  }
  // The search expands with the pivot it was given.
  LMTimeZoneScope zone(u"Europe/Berlin");
  EXPECT_EQ(std::vector<std::u16string>{u"2028-01-01"}, days(u"1.1.28", 2027));
}

TEST(DateRecognizerTest, DatesAreAtNoonInTheCurrentZone) {
  struct Case {
    const char16_t* zone;
    double seconds;
  } cases[] = {{u"Europe/Berlin", 1703415600}, {u"America/New_York", 1703437200}};
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.zone));
    LMTimeZoneScope zone(c.zone);
    const auto found = LMReceiptParserDate(kPivotYear).findDatesInText(u"24.12.2023");
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(c.seconds, found[0].timeIntervalSince1970());
  }
}

// The search tries the expression only where a date can begin; it must find
// exactly what a search of the whole text finds.
TEST(DateRecognizerTest, FindsWhatASearchOfTheWholeTextFinds) {
  // Texts made of date-shaped pieces, near misses and noise.
  const std::vector<std::u16string> days = {u"1", u"05", u"24", u"31", u"32", u"0", u"124",
                                            u"\U0001D7CF\U0001D7D0"};  // mathematical digits
  const std::vector<std::u16string> months = {
      u"1", u"12", u"13", u"05", u"Dec", u"dezember", u"M\u00C4RZ", u"mar", u"Mrz",
      u"J\u00E4nner", u"Jux", u"Mai", u"0kt", u"\u017Fept",  // long s, folds to "s"
      u"o\u212At",                                           // Kelvin sign, folds to "k"
      u"\uFB00eb"};
  const std::vector<std::u16string> years = {u"2023", u"23", u"202", u"20231", u"0023",
                                             u"\u0661\u0662\u0663\u0664"};  // Arabic-Indic
  const std::vector<std::u16string> separators = {u".", u". ", u"-", u"/", u" ", u"   ",
                                                  u", ", u" '", u"\n", u""};
  const std::vector<std::u16string> noise = {u"x", u"Summe ", u"\u00A0", u"9", u"\n"};
  std::mt19937 random(20261122);
  auto pick = [&](const std::vector<std::u16string>& from) { return from[random() % from.size()]; };
  const std::vector<uint8_t> page = lmTestdataBytes("receipt-page.txt");
  // The page, dates at the edges of where a date can begin, generated texts.
  std::vector<std::u16string> texts = {
      lmUtf16(std::string_view(reinterpret_cast<const char*>(page.data()), page.size())),
      u"\u017Fept 9, 2023",  // long s
      u"M\u00C4RZ 24, 2023 J\u00E4nner 1, 2024",
      u"\u0661\u0662\u0663\u0664-12-24",  // Arabic-Indic year
      u"\U0001D7D0\U0001D7CE\U0001D7D0\U0001D7D1-12-24",  // mathematical digits
      u"\uFB00eb 1, 2023 \u00DFep 1, 2023",
      u"240kt 2023, 0kt 3, 2023",
      u"24    Dec 2023 24.    Dec 2023 24   Dec   '23",
      u"2\U0001D7CE23-12-24 20\u0662\u0663-12-24",  // years of mixed digits
  };
  for (int i = 0; i < 400; ++i) {
    std::u16string text;
    for (int j = 0; j < 6; ++j) {
      text += pick(noise);
      const std::u16string first = pick(separators);
      const std::u16string second = random() % 4 ? first : pick(separators);
      if (random() % 3 == 0) {  // month name first
        text += pick(months) + first + pick(days) + second + pick(years);
      } else {
        text += pick(random() % 2 ? days : years) + first + pick(months) + second +
                pick(random() % 2 ? years : days);
      }
    }
    texts.push_back(text);
  }
  ASSERT_GT(texts[0].size(), 1000u);
  size_t dates = 0;
  for (const std::u16string& text : texts) {
    SCOPED_TRACE(lmUtf8(text));
    std::vector<std::pair<uint64_t, uint64_t>> expected;  // location, length
    LMReceiptParserDate::dateRegularExpression().enumerateMatchesInString(
        text, [&](const LMRegexMatch& match, bool*) {
          expected.emplace_back(match.range().location, match.range().length);
        });
    std::vector<std::pair<uint64_t, uint64_t>> ranges;
    LMReceiptParserDate(kPivotYear).findDatesInText(
        text, [&](std::u16string_view, LMTextRange range, const LMDate&) {
          ranges.emplace_back(range.location, range.length);
        });
    ASSERT_EQ(expected, ranges);
    dates += ranges.size();
  }
  EXPECT_GT(dates, 50u);  // the texts do hold dates
}

}  // namespace
