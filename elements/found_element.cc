#include "elements/found_element.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "elements/found_date.h"
#include "elements/found_number.h"
#include "elements/found_term.h"

namespace {

LMDictionary rectDictionary(const LMRect& r) {
  return LMDictionary{{u"x", r.x}, {u"y", r.y}, {u"w", r.width}, {u"h", r.height}};
}

}  // namespace

const LMRect& LMFoundElement::pageBox() const {
  static constexpr LMRect kZero;
  return pageBox_ ? *pageBox_ : kZero;
}

void LMFoundElement::setPageBox(const LMRect& r) {
  // Elements are made page by page, so the box of the last call on this
  // thread is nearly always the one asked for, and one copy serves them all.
  // Compared bit for bit: -0 must stay -0 and a NaN box its own.
  thread_local std::shared_ptr<const LMRect> last;
  if (!last || std::memcmp(last.get(), &r, sizeof r) != 0) last = std::make_shared<const LMRect>(r);
  pageBox_ = last;
}

LMDictionary LMFoundElement::jsonDictionary() const {
  return LMDictionary{{u"page", page_},
                      {u"pageBox", rectDictionary(pageBox())},
                      {u"bbox", rectDictionary(bbox_)},
                      {u"ocr", ocr_},
                      {u"bold", bold_},
                      {u"fontSize", fontSize_},
                      {u"letter", letter_},
                      {u"landscape", landscape_}};
}

void LMFoundElement::setUserInfo(LMValue v) {
  userInfo_ = v.isNil() ? nullptr : std::make_shared<const LMValue>(std::move(v));
}

std::optional<LMDictionary> LMFoundElement::debugInfo() const {
  if (!debugInfo_) return std::nullopt;
  return *debugInfo_;
}

void LMFoundElement::setDebugInfo(std::optional<LMDictionary> d) {
  debugInfo_ = d ? std::make_shared<const LMDictionary>(std::move(*d)) : nullptr;
}

void LMFoundElement::encodeWithCoder(LMKeyedEncoder& coder) const {
  coder.encodeInt64(u"page", page_);
  coder.encodeRect(u"pageBox", pageBox());
  coder.encodeRect(u"bbox", bbox_);
  coder.encodeObject(u"userInfo", userInfo());
  coder.encodeObject(u"string", lmOptionalText(string_));
  coder.encodeObject(u"key", lmOptionalText(key_.value()));
}

void LMFoundElement::initWithCoder(const LMKeyedDecoder& coder) {
  setPage(coder.decodeInt64(u"page"));
  setPageBox(coder.decodeRect(u"pageBox"));
  setBbox(coder.decodeRect(u"bbox"));
  setUserInfo(coder.decodeObject(u"userInfo"));
  setString(lmTextFromObject(coder.decodeObject(u"string")));
  setKey(lmTextFromObject(coder.decodeObject(u"key")));
}

double LMFoundElement::normalizedDistanceToRect(const LMRect& r) const {
  const LMRect& b = bbox_;
  const LMRect& page = pageBox();
  double dx = 0;
  double dy = 0;
  if (!lmRectIntersects(b, r)) {
    const LMRect& left = b.x > r.x ? r : b;
    const LMRect& right = r.x > b.x ? r : b;
    dx = left.x == right.x ? 0 : right.x - (left.x + left.width);
    const LMRect& lower = b.y > r.y ? r : b;
    const LMRect& upper = r.y > b.y ? r : b;
    dy = lower.y == upper.y ? 0 : upper.y - (lower.y + lower.height);
    dx = std::max(dx, 0.0);
    dy = std::max(dy, 0.0);
  }
  if (lmRectIntersects(LMRect{0, r.y, 1, r.height}, LMRect{0, b.y, 1, b.height})) {
    // Kept on purpose: inside the row band a wider gap scores lower, and a
    // gap of a page width or more scores 0 like touching boxes.
    double ratio = dx == 0 ? 1 : (page.width == 0 ? 0 : dx / page.width);
    ratio = std::clamp(ratio, 0.0, 1.0);
    return 1 - ratio;
  }
  if (lmRectIntersects(LMRect{r.x, 0, r.width, 1}, LMRect{b.x, 0, b.width, 1})) {
    double ratio = dy == 0 ? 1 : (page.height == 0 ? 0 : dy / page.height);
    ratio = std::clamp(ratio, 0.0, 1.0);
    return 2 - ratio;
  }
  return std::max(std::sqrt(dx * dx + dy * dy) + 2, 2.0);
}

std::shared_ptr<LMFoundElement> lmMakeFoundElement(std::u16string_view className) {
  if (className == u"LMFoundElement") return std::make_shared<LMFoundElement>();
  if (className == u"LMFoundNumber") return std::make_shared<LMFoundNumber>();
  if (className == u"LMFoundDate") return std::make_shared<LMFoundDate>();
  if (className == u"LMFoundTerm") return std::make_shared<LMFoundTerm>();
  return nullptr;
}

LMValue lmOptionalText(const std::optional<std::u16string>& text) {
  return text ? LMValue(*text) : LMValue();
}

std::optional<std::u16string> lmTextFromObject(const LMValue& value) {
  if (const std::u16string* s = value.asString()) return *s;
  return std::nullopt;
}
