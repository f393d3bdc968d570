#include "elements/found_element.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <vector>

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

// Elements made one after another share the page box only when it is the
// same to the bit; each keeps its own as set.
TEST(FoundElementTest, PageBoxKeptAsSetInEveryOrder) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const LMRect boxes[] = {{0, 0, 595.28, 841.89}, {0, 0, 595.28, 841.89}, {-0.0, 0, 595.28, 841.89},
                          {0, 0, 842, 595},       {nan, 0, 1, 1},         {nan, 0, 1, 1}};
  std::vector<LMFoundElement> elements(std::size(boxes));
  for (size_t i = 0; i < elements.size(); ++i) elements[i].setPageBox(boxes[i]);
  EXPECT_EQ(LMRect::zero(), LMFoundElement().pageBox());
  for (size_t i = 0; i < elements.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(0, std::memcmp(&boxes[i], &elements[i].pageBox(), sizeof(LMRect)));
  }
}

}  // namespace
