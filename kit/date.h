// A point in time, and the calendar questions the analysis asks of it.
//
// Calendar answers use the Gregorian calendar in the process's current time
// zone (ICU's default zone, which follows TZ and /etc/localtime).
#pragma once
#include <cstdint>
#include <optional>
#include <string>

class LMDate {
 public:
  // Seconds between 1970-01-01 and 2001-01-01, both UTC.
  static constexpr double kSecondsFrom1970To2001 = 978307200.0;

  constexpr LMDate() = default;
  static constexpr LMDate fromTimeIntervalSinceReferenceDate(double seconds) {
    LMDate d;
    d.sinceReference_ = seconds;
    return d;
  }
  static constexpr LMDate fromTimeIntervalSince1970(double seconds) {
    return fromTimeIntervalSinceReferenceDate(seconds - kSecondsFrom1970To2001);
  }
  static LMDate now();

  // The date at `hour`:00 on the given day in the current time zone, read
  // leniently: day 31 of February becomes a day in March, month 13 a month of
  // the next year. nullopt only when the calendar cannot be created.
  static std::optional<LMDate> fromComponents(int64_t year, int64_t month, int64_t day,
                                              int64_t hour = 12);

  // Seconds since 2001-01-01 00:00 UTC (the reference date).
  constexpr double timeIntervalSinceReferenceDate() const { return sinceReference_; }
  constexpr double timeIntervalSince1970() const {
    return sinceReference_ + kSecondsFrom1970To2001;
  }

  // Whole seconds since 1970 as decimal text, rounded down (also before 1970).
  std::u16string unixTimeStampString() const;

  // Whole days from `other` to this date: both moved to the start of their
  // day, the difference in seconds divided by 86400 and truncated toward zero.
  // A one-day step across a 23-hour daylight-saving day therefore counts 0.
  int64_t daysSince(const LMDate& other) const;

  // The year in the current calendar and time zone.
  int64_t yearOfCommonEra() const;
  // "yyyy-MM-dd" in the current time zone.
  std::u16string descriptionDate() const;

  friend constexpr bool operator==(const LMDate&, const LMDate&) = default;
  friend constexpr auto operator<=>(const LMDate& a, const LMDate& b) {
    return a.sinceReference_ <=> b.sinceReference_;
  }

 private:
  double sinceReference_ = 0;
};
