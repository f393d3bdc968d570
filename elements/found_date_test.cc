#include "elements/found_date.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

TEST(FoundDateTest, SortWeightReadsPageThenHeightThenX) {
  struct Case {
    int64_t page;
    LMRect box;
    int64_t weight;
  } cases[] = {{0, {50, 700, 60, 10}, 100007000050},
               {1, {50, 700, 60, 10}, 99997000050},
               {0, {50.9, 700, 60, 10}, 100007000050},  // truncated
               {0, {50, -INFINITY, 60, 10}, INT64_MIN},  // a box off any page saturates
               {0, {50, 1e300, 60, 10}, INT64_MAX}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.weight);
    LMFoundDate d;
    d.setPage(c.page);
    d.setBbox(c.box);
    d.setSortWeight(5);  // stored, never read back
    EXPECT_EQ(c.weight, d.sortWeight());
    EXPECT_EQ(c.weight, d.jsonObject().at(u"sortWeight").toInt());
  }
}

}  // namespace
