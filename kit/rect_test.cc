#include "kit/rect.h"

#include <gtest/gtest.h>

namespace {

TEST(RectTest, IntersectionNeedsSharedArea) {
  struct Case {
    LMRect a, b;
    bool intersects;
  } cases[] = {
      {{0, 0, 10, 10}, {5, 5, 10, 10}, true},
      {{0, 0, 10, 10}, {10, 0, 5, 5}, false},  // touching edges
      {{0, 0, 10, 10}, {0, 0, 0, 10}, false},  // empty never intersects
      {{0, 0, 10, 10}, LMRect::null(), false},
      {{0, 0, 10, 10}, LMRect::infinite(), true},
      {{10, 10, -10, -10}, {2, 2, 1, 1}, true},  // negative sizes are standardized
      {{0, 700, 1, 12}, {0, 705, 1, 12}, true},
  };
  int row = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(row++);
    EXPECT_EQ(c.intersects, lmRectIntersects(c.a, c.b));
    EXPECT_EQ(c.intersects, lmRectIntersects(c.b, c.a));
  }
  EXPECT_EQ((LMRect{5, 5, 5, 5}), lmRectIntersection({0, 0, 10, 10}, {5, 5, 10, 10}));
  EXPECT_EQ((LMRect{0, 700, 1, 5}),
            lmRectIntersection(LMRect::infinite(), {0, 700, 1, 5}));
  EXPECT_TRUE(lmRectIntersection({0, 0, 1, 1}, {2, 2, 1, 1}).isNull());
}

TEST(RectTest, NullZeroAndTextForms) {
  EXPECT_TRUE(LMRect::null().isNull());
  EXPECT_FALSE(LMRect::zero().isNull());
  EXPECT_TRUE(LMRect::zero().isEmpty());
  EXPECT_EQ((LMRect{0, 0, 10, 10}), lmRectUnion(LMRect::null(), {0, 0, 10, 10}));
  EXPECT_EQ((LMRect{0, 0, 20, 15}), lmRectUnion({0, 0, 10, 10}, {15, 5, 5, 10}));
  EXPECT_EQ(u"{{10, 20.5}, {100, 0}}", lmStringFromRect({10, 20.5, 100, 0}));
  EXPECT_EQ(u"{3, 14}", lmStringFromRange({3, 14}));
}

}  // namespace
