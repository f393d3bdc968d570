// Rectangles on a page: origin and size in PDF points, origin at the page's
// lower left, y growing upwards.
#pragma once
#include <algorithm>
#include <limits>
#include <string>
#include <string_view>

#include "kit/text_range.h"

struct LMRect {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;

  // Nothing selected.
  static constexpr LMRect zero() { return LMRect{}; }
  // An invalid request: origin at positive infinity, size 0.
  static constexpr LMRect null() { return LMRect{kInf, kInf, 0, 0}; }
  // The neutral start of a band intersection: covers every finite rectangle.
  static constexpr LMRect infinite() { return LMRect{-kBig / 2, -kBig / 2, kBig, kBig}; }

  // The small helpers below are defined here: the analysis calls them for
  // every pair of elements it compares.
  bool isNull() const { return x == kInf && y == kInf; }
  bool isInfinite() const { return *this == infinite(); }
  // Null, or without area.
  bool isEmpty() const { return isNull() || width == 0 || height == 0; }
  // The same rectangle with non-negative width and height.
  LMRect standardized() const {
    if (isNull()) return *this;
    LMRect r = *this;
    if (r.width < 0) r.x += r.width, r.width = -r.width;
    if (r.height < 0) r.y += r.height, r.height = -r.height;
    return r;
  }

  double minX() const { return standardized().x; }
  double minY() const { return standardized().y; }
  double maxX() const {
    const LMRect r = standardized();
    return r.x + r.width;
  }
  double maxY() const {
    const LMRect r = standardized();
    return r.y + r.height;
  }

  friend bool operator==(const LMRect&, const LMRect&) = default;

 private:
  static constexpr double kInf = std::numeric_limits<double>::infinity();
  static constexpr double kBig = std::numeric_limits<double>::max();
};

// The shared area, or the null rectangle when they do not intersect.
inline LMRect lmRectIntersection(const LMRect& a, const LMRect& b) {
  if (a.isEmpty() || b.isEmpty()) return LMRect::null();
  const LMRect p = a.standardized();
  const LMRect q = b.standardized();
  const double x0 = std::max(p.x, q.x);
  const double y0 = std::max(p.y, q.y);
  const double x1 = std::min(p.x + p.width, q.x + q.width);
  const double y1 = std::min(p.y + p.height, q.y + q.height);
  if (!(x0 < x1) || !(y0 < y1)) return LMRect::null();
  return LMRect{x0, y0, x1 - x0, y1 - y0};
}
// True when both rectangles share an area; null and empty rectangles never
// intersect anything, and rectangles that only touch do not intersect.
inline bool lmRectIntersects(const LMRect& a, const LMRect& b) {
  return !lmRectIntersection(a, b).isNull();
}
// The smallest rectangle holding both; a null operand is ignored.
LMRect lmRectUnion(const LMRect& a, const LMRect& b);

// "{{x, y}, {width, height}}" with each number in its shortest exact form.
std::u16string lmStringFromRect(const LMRect& r);
// The same text written to `out`, which has room for kLMRectTextCapacity
// units; answers the units written. For callers that need no string of it.
constexpr size_t kLMRectTextCapacity = 4 * 32 + 16;
size_t lmWriteRectText(const LMRect& r, char16_t* out);
// The rectangle of a text "{{x, y}, {width, height}}" as lmStringFromRect
// writes it (white space around the numbers and braces is allowed; "inf" and
// "nan" are read). Anything else gives the zero rectangle.
LMRect lmRectFromString(std::u16string_view text);
// The same for a text of ASCII bytes.
LMRect lmRectFromAscii(std::string_view ascii);
// "{location, length}".
std::u16string lmStringFromRange(const LMTextRange& r);
