// Rectangles on a page: origin and size in PDF points, origin at the page's
// lower left, y growing upwards.
#pragma once
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
  static LMRect null();
  // The neutral start of a band intersection: covers every finite rectangle.
  static LMRect infinite();

  bool isNull() const;
  bool isInfinite() const;
  // Null, or without area.
  bool isEmpty() const;
  // The same rectangle with non-negative width and height.
  LMRect standardized() const;

  double minX() const { return standardized().x; }
  double minY() const { return standardized().y; }
  double maxX() const;
  double maxY() const;

  friend bool operator==(const LMRect&, const LMRect&) = default;
};

// True when both rectangles share an area; null and empty rectangles never
// intersect anything, and rectangles that only touch do not intersect.
bool lmRectIntersects(const LMRect& a, const LMRect& b);
// The shared area, or the null rectangle when they do not intersect.
LMRect lmRectIntersection(const LMRect& a, const LMRect& b);
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
