#include "kit/date.h"

#include <gtest/gtest.h>

#include "kit/test_support.h"
#include <unicode/timezone.h>

#include <memory>

namespace {

TEST(DateTest, UnixTimeStampRoundsDownAlsoBefore1970) {
  EXPECT_EQ(u"0", LMDate::fromTimeIntervalSince1970(0.9).unixTimeStampString());
  EXPECT_EQ(u"-1", LMDate::fromTimeIntervalSince1970(-0.5).unixTimeStampString());
  EXPECT_EQ(u"1614729600", LMDate::fromTimeIntervalSince1970(1614729600).unixTimeStampString());
}

TEST(DateTest, ComponentsAreLenientAndAtNoonInTheCurrentZone) {
  LMTimeZoneScope zone(u"Europe/Berlin");
  auto d = LMDate::fromComponents(2021, 3, 3);
  ASSERT_TRUE(d);
  EXPECT_EQ(1614769200.0, d->timeIntervalSince1970());  // 12:00 CET = 11:00 UTC
  EXPECT_EQ(u"2021-03-03", d->descriptionDate());
  EXPECT_EQ(u"2023-03-03", LMDate::fromComponents(2023, 2, 31)->descriptionDate());
  EXPECT_EQ(u"2024-01-05", LMDate::fromComponents(2023, 13, 5)->descriptionDate());
  EXPECT_EQ(2021, d->yearOfCommonEra());
}

TEST(DateTest, DaysSinceTruncatesAcrossShortDaylightSavingDay) {
  LMTimeZoneScope zone(u"Europe/Berlin");
  // 2021-03-28 has 23 hours in Berlin: the step from the 28th to the 29th
  // spans 23 hours between the starts of the days and so counts as 0 days.
  auto day28 = *LMDate::fromComponents(2021, 3, 28);
  auto day29 = *LMDate::fromComponents(2021, 3, 29);
  auto day30 = *LMDate::fromComponents(2021, 3, 30);
  EXPECT_EQ(0, day29.daysSince(day28));
  EXPECT_EQ(1, day30.daysSince(day28));
  EXPECT_EQ(-1, day28.daysSince(day30));
  auto jan1 = *LMDate::fromComponents(2021, 1, 1, 0);
  auto jan1Late = *LMDate::fromComponents(2021, 1, 1, 23);
  EXPECT_EQ(0, jan1Late.daysSince(jan1));
  EXPECT_EQ(364, LMDate::fromComponents(2021, 12, 31)->daysSince(jan1));
}

TEST(DateTest, YearFollowsTheZoneAtNewYear) {
  // 2021-12-31 23:30 UTC is already 2022 in Berlin.
  auto instant = LMDate::fromTimeIntervalSince1970(1640993400);
  {
    LMTimeZoneScope zone(u"Europe/Berlin");
    EXPECT_EQ(2022, instant.yearOfCommonEra());
  }
  {
    LMTimeZoneScope zone(u"UTC");
    EXPECT_EQ(2021, instant.yearOfCommonEra());
    EXPECT_EQ(u"2021-12-31", instant.descriptionDate());
  }
}

}  // namespace
