#include "kit/rect.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <random>

#include "kit/unicode.h"

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

TEST(RectTest, UnionAndTextForms) {
  EXPECT_EQ((LMRect{0, 0, 10, 10}), lmRectUnion(LMRect::null(), {0, 0, 10, 10}));
  EXPECT_EQ((LMRect{0, 0, 20, 15}), lmRectUnion({0, 0, 10, 10}, {15, 5, 5, 10}));
  EXPECT_EQ(u"{{10, 20.5}, {100, 0}}", lmStringFromRect({10, 20.5, 100, 0}));
  EXPECT_EQ(u"{3, 14}", lmStringFromRange({3, 14}));
}

TEST(RectTest, ReadsRectanglesFromTheirText) {
  struct Case {
    std::u16string text;
    LMRect rect;
  } cases[] = {
      {u"{{1, 2}, {3, 4}}", {1, 2, 3, 4}},
      {u"{{-1.5,2e3},{0.25,+4}}", {-1.5, 2000, 0.25, 4}},
      {u" { { 1 , 2 } , { 3 , 4 } } ", {1, 2, 3, 4}},
      {u"{{1, 2}, {3}}", {}},
      {u"{{1, 2}, {3, 4}} x", {}},
      {u"{{a, 2}, {3, 4}}", {}},
      {u"{{1e999, 2}, {3, 4}}", {}},
      {u"{{１, 2}, {3, 4}}", {}},
      {u"", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.text));
    EXPECT_EQ(c.rect, lmRectFromString(c.text));
  }
  EXPECT_TRUE(lmRectFromString(lmStringFromRect(LMRect::null())).isNull());

  // Every number comes back to the bit, whichever way it is read: page
  // coordinates (floats widened, as MuPDF gives them), numbers of any size,
  // and negative zero.
  std::mt19937_64 random(7);
  for (int i = 0; i < 20'000; ++i) {
    const double page = static_cast<float>(std::uniform_real_distribution<double>(-900, 900)(random));
    const double any = std::bit_cast<double>(random());
    const LMRect r{page, std::isfinite(any) ? any : 1.0, std::round(page * 100) / 100, -0.0};
    const LMRect back = lmRectFromString(lmStringFromRect(r));
    ASSERT_EQ(std::bit_cast<uint64_t>(r.x), std::bit_cast<uint64_t>(back.x)) << r.x;
    ASSERT_EQ(std::bit_cast<uint64_t>(r.y), std::bit_cast<uint64_t>(back.y)) << r.y;
    ASSERT_EQ(std::bit_cast<uint64_t>(r.width), std::bit_cast<uint64_t>(back.width)) << r.width;
    ASSERT_EQ(std::bit_cast<uint64_t>(r.height), std::bit_cast<uint64_t>(back.height));
  }
}

}  // namespace
