#include "analysis/date_analysis.h"

#include <gtest/gtest.h>

namespace {

const LMDate kNow = *LMDate::fromComponents(2026, 6, 1, 12);

std::shared_ptr<LMFoundDate> dateAt(double secondsFromNow, int64_t page, double y) {
  auto d = std::make_shared<LMFoundDate>();
  d->setDate(LMDate::fromTimeIntervalSinceReferenceDate(kNow.timeIntervalSinceReferenceDate() +
                                                        secondsFromNow));
  d->setPage(page);
  d->setBbox({50, y, 50, 10});
  return d;
}

TEST(DateAnalysisTest, ReadingOrderThenTheFirstDateNotAfterToday) {
  auto future = dateAt(2 * 86400, 0, 800);
  auto past = dateAt(-365 * 86400, 0, 700);
  auto secondPage = dateAt(0, 1, 800);
  const LMDateAnalysis out = lmAnalyzeDates({secondPage, past, future}, kNow);
  EXPECT_EQ((LMFoundDates{future, past, secondPage}), out.dates);
  EXPECT_EQ(past->date(), out.date);
  EXPECT_FALSE(lmAnalyzeDates({}, kNow).date);
}

TEST(DateAnalysisTest, TodayCountsTomorrowDoesNot) {
  struct Case {
    double secondsFromNow;
    bool taken;
  } cases[] = {{-86400, true}, {11 * 3600, true}, {13 * 3600, false}, {86400, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.secondsFromNow);
    EXPECT_EQ(c.taken, lmAnalyzeDates({dateAt(c.secondsFromNow, 0, 0)}, kNow).date.has_value());
  }
}

}  // namespace
