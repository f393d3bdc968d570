#include "kit/rect.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <string_view>

namespace {

// Copies `s` to `p`; returns the end.
char* putText(char* p, std::string_view s) { return std::copy(s.begin(), s.end(), p); }

// Writes `d` at `p` the way rectangles show their numbers ("12.5", "inf",
// "nan"); returns the end. `p` must have room for 32 characters.
char* putNumber(char* p, double d) {
  if (std::isinf(d)) return putText(p, d > 0 ? "inf" : "-inf");
  if (std::isnan(d)) return putText(p, "nan");
  auto [end, ec] = std::to_chars(p, p + 32, d);
  return ec == std::errc() ? end : putText(p, "0");
}

}  // namespace

LMRect lmRectUnion(const LMRect& a, const LMRect& b) {
  if (a.isNull()) return b;
  if (b.isNull()) return a;
  const LMRect p = a.standardized();
  const LMRect q = b.standardized();
  const double x0 = std::min(p.x, q.x);
  const double y0 = std::min(p.y, q.y);
  const double x1 = std::max(p.x + p.width, q.x + q.width);
  const double y1 = std::max(p.y + p.height, q.y + q.height);
  return LMRect{x0, y0, x1 - x0, y1 - y0};
}

size_t lmWriteRectText(const LMRect& r, char16_t* out) {
  // Built in one buffer: rectangles are written for every line of every page.
  char buffer[kLMRectTextCapacity];
  char* p = putText(buffer, "{{");
  p = putText(putNumber(p, r.x), ", ");
  p = putText(putNumber(p, r.y), "}, {");
  p = putText(putNumber(p, r.width), ", ");
  p = putText(putNumber(p, r.height), "}}");
  std::copy(buffer, p, out);
  return static_cast<size_t>(p - buffer);
}

std::u16string lmStringFromRect(const LMRect& r) {
  char16_t text[kLMRectTextCapacity];
  return std::u16string(text, lmWriteRectText(r, text));
}

std::u16string lmStringFromRange(const LMTextRange& r) {
  auto text = [](uint64_t v) {
    const std::string s = std::to_string(v);
    return std::u16string(s.begin(), s.end());
  };
  return u"{" + text(r.location) + u", " + text(r.length) + u"}";
}

LMRect lmRectFromString(std::u16string_view text) {
  std::string ascii;
  for (char16_t c : text) {
    if (c > 0x7F) return LMRect::zero();
    ascii.push_back(static_cast<char>(c));
  }
  return lmRectFromAscii(ascii);
}

LMRect lmRectFromAscii(std::string_view ascii) {
  const char* p = ascii.data();
  const char* end = p + ascii.size();
  auto skipSpace = [&] {
    while (p < end && (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r')) ++p;
  };
  auto expect = [&](char c) {
    skipSpace();
    return p < end && *p == c ? (++p, true) : false;
  };
  auto readNumber = [&](double& out) {
    skipSpace();
    if (p + 1 < end && *p == '+' && p[1] != '-') ++p;
    auto [next, ec] = std::from_chars(p, end, out);
    p = next;
    return ec == std::errc();
  };
  LMRect r;
  const bool ok = expect('{') && expect('{') && readNumber(r.x) && expect(',') && readNumber(r.y) &&
                  expect('}') && expect(',') && expect('{') && readNumber(r.width) && expect(',') &&
                  readNumber(r.height) && expect('}') && expect('}');
  skipSpace();
  return ok && p == end ? r : LMRect::zero();
}
