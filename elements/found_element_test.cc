#include "elements/found_element.h"

#include <gtest/gtest.h>

namespace {

TEST(FoundElementTest, NormalizedDistanceBands) {
  struct Case {
    const char* name;
    LMRect element, other, page;
    double expected;
  } cases[] = {
      {"same rectangle", {100, 700, 50, 12}, {100, 700, 50, 12}, {0, 0, 500, 600}, 0},
      {"same row, gap 10", {100, 700, 50, 12}, {160, 700, 50, 12}, {0, 0, 500, 600}, 0.98},
      {"same row, gap 600", {0, 700, 50, 12}, {650, 700, 50, 12}, {0, 0, 500, 600}, 0},
      {"same row, touching", {100, 700, 50, 12}, {150, 700, 50, 12}, {0, 0, 500, 600}, 0},
      {"same row, zero page width", {100, 700, 50, 12}, {160, 700, 50, 12}, {0, 0, 0, 600}, 1},
      {"column, gap 30", {100, 700, 50, 12}, {100, 658, 50, 12}, {0, 0, 500, 600}, 1.95},
      {"diagonal 3-4-5", {0, 0, 10, 10}, {13, 14, 10, 10}, {0, 0, 500, 600}, 7},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LMFoundElement e;
    e.setBbox(c.element);
    e.setPageBox(c.page);
    EXPECT_NEAR(c.expected, e.normalizedDistanceToRect(c.other), 1e-9);
  }
}

}  // namespace
