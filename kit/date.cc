#include "kit/date.h"

#include <unicode/gregocal.h>
#include <unicode/timezone.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>

namespace {

// A calendar in the current default zone, one per thread (ICU calendars are
// not thread-safe and expensive to create).
icu::Calendar* threadCalendar() {
  thread_local std::unique_ptr<icu::Calendar> calendar;
  if (!calendar) {
    UErrorCode status = U_ZERO_ERROR;
    auto created = std::make_unique<icu::GregorianCalendar>(status);
    if (U_FAILURE(status)) return nullptr;
    calendar = std::move(created);
  }
  // Follow changes of the default zone (tests switch it).
  std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createDefault());
  if (zone && calendar->getTimeZone() != *zone) calendar->adoptTimeZone(zone.release());
  calendar->setLenient(true);
  return calendar.get();
}

constexpr double kMillisFrom1970To2001 = LMDate::kSecondsFrom1970To2001 * 1000.0;

// Milliseconds (ICU's UDate) of the start of the day that holds `date`.
std::optional<double> startOfDay(const LMDate& date) {
  icu::Calendar* calendar = threadCalendar();
  if (!calendar) return std::nullopt;
  UErrorCode status = U_ZERO_ERROR;
  calendar->setTime(date.timeIntervalSince1970() * 1000.0, status);
  calendar->set(UCAL_HOUR_OF_DAY, 0);
  calendar->set(UCAL_MINUTE, 0);
  calendar->set(UCAL_SECOND, 0);
  calendar->set(UCAL_MILLISECOND, 0);
  const UDate start = calendar->getTime(status);
  if (U_FAILURE(status)) return std::nullopt;
  return start;
}

}  // namespace

LMDate LMDate::now() {
  using namespace std::chrono;
  return fromTimeIntervalSince1970(
      duration<double>(system_clock::now().time_since_epoch()).count());
}

std::optional<LMDate> LMDate::fromComponents(int64_t year, int64_t month, int64_t day,
                                             int64_t hour) {
  icu::Calendar* calendar = threadCalendar();
  if (!calendar) return std::nullopt;
  auto clamp = [](int64_t v) {
    return static_cast<int32_t>(std::clamp<int64_t>(v, -100000000, 100000000));
  };
  calendar->clear();
  calendar->set(UCAL_EXTENDED_YEAR, clamp(year));
  calendar->set(UCAL_MONTH, clamp(month - 1));
  calendar->set(UCAL_DATE, clamp(day));
  calendar->set(UCAL_HOUR_OF_DAY, clamp(hour));
  UErrorCode status = U_ZERO_ERROR;
  const UDate millis = calendar->getTime(status);
  if (U_FAILURE(status)) return std::nullopt;
  return fromTimeIntervalSinceReferenceDate((millis - kMillisFrom1970To2001) / 1000.0);
}

std::u16string LMDate::unixTimeStampString() const {
  const double seconds = std::floor(timeIntervalSince1970());
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%.0f", seconds);
  std::u16string out;
  for (const char* p = buffer; *p; ++p) out.push_back(static_cast<char16_t>(*p));
  return out;
}

int64_t LMDate::daysSince(const LMDate& other) const {
  const auto mine = startOfDay(*this);
  const auto theirs = startOfDay(other);
  if (!mine || !theirs) return 0;
  // Truncation toward zero is intended: a 23-hour day between two starts counts 0.
  return static_cast<int64_t>(std::trunc((*mine - *theirs) / 1000.0 / 86400.0));
}

int64_t LMDate::yearOfCommonEra() const {
  icu::Calendar* calendar = threadCalendar();
  if (!calendar) return 0;
  UErrorCode status = U_ZERO_ERROR;
  calendar->setTime(timeIntervalSince1970() * 1000.0, status);
  const int32_t year = calendar->get(UCAL_EXTENDED_YEAR, status);
  return U_FAILURE(status) ? 0 : year;
}

std::u16string LMDate::descriptionDate() const {
  icu::Calendar* calendar = threadCalendar();
  if (!calendar) return std::u16string();
  UErrorCode status = U_ZERO_ERROR;
  calendar->setTime(timeIntervalSince1970() * 1000.0, status);
  const int32_t year = calendar->get(UCAL_EXTENDED_YEAR, status);
  const int32_t month = calendar->get(UCAL_MONTH, status) + 1;
  const int32_t day = calendar->get(UCAL_DATE, status);
  if (U_FAILURE(status)) return std::u16string();
  char buffer[48];
  std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d", year, month, day);
  std::u16string out;
  for (const char* p = buffer; *p; ++p) out.push_back(static_cast<char16_t>(*p));
  return out;
}
