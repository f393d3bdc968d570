#include "kit/value.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <limits>

#include "kit/strings.h"
#include "kit/unicode.h"

namespace {

std::u16string ascii16(std::string_view s) {
  return std::u16string(s.begin(), s.end());
}

std::u16string doubleText(double d) {
  if (std::isnan(d)) return u"nan";
  if (std::isinf(d)) return d > 0 ? u"inf" : u"-inf";
  char buffer[64];
  auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, d);
  if (ec != std::errc()) return u"0";
  return ascii16(std::string_view(buffer, static_cast<size_t>(end - buffer)));
}

bool isAsciiDigit(char16_t c) { return c >= u'0' && c <= u'9'; }

// The leading integer of a text after white space, saturating on overflow.
int64_t leadingInteger(std::u16string_view s) {
  size_t i = 0;
  while (i < s.size() && lmIsWhitespaceOrNewline(s[i])) ++i;
  bool negative = false;
  if (i < s.size() && (s[i] == u'-' || s[i] == u'+')) negative = s[i++] == u'-';
  uint64_t magnitude = 0;
  bool overflow = false;
  for (; i < s.size() && isAsciiDigit(s[i]); ++i) {
    const uint64_t digit = s[i] - u'0';
    if (magnitude > (std::numeric_limits<uint64_t>::max() - digit) / 10) {
      overflow = true;
    } else {
      magnitude = magnitude * 10 + digit;
    }
  }
  constexpr auto kMax = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
  if (negative) {
    if (overflow || magnitude > kMax + 1) return std::numeric_limits<int64_t>::min();
    return magnitude == kMax + 1 ? std::numeric_limits<int64_t>::min()
                                 : -static_cast<int64_t>(magnitude);
  }
  if (overflow || magnitude > kMax) return std::numeric_limits<int64_t>::max();
  return static_cast<int64_t>(magnitude);
}

// The leading floating-point number of a text after white space; 0 when none.
float leadingFloat(std::u16string_view s) {
  size_t i = 0;
  while (i < s.size() && lmIsWhitespaceOrNewline(s[i])) ++i;
  std::string ascii;
  auto take = [&](auto accept) {
    while (i < s.size() && accept(s[i])) ascii.push_back(static_cast<char>(s[i++]));
  };
  if (i < s.size() && (s[i] == u'-' || s[i] == u'+')) {
    if (s[i] == u'-') ascii.push_back('-');
    ++i;
  }
  take(isAsciiDigit);
  if (i < s.size() && s[i] == u'.') {
    ascii.push_back('.');
    ++i;
    take(isAsciiDigit);
  }
  if (i + 1 < s.size() && (s[i] == u'e' || s[i] == u'E') &&
      (isAsciiDigit(s[i + 1]) ||
       (i + 2 < s.size() && (s[i + 1] == u'-' || s[i + 1] == u'+') && isAsciiDigit(s[i + 2])))) {
    ascii.push_back('e');
    ++i;
    if (s[i] == u'-' || s[i] == u'+') ascii.push_back(static_cast<char>(s[i++]));
    take(isAsciiDigit);
  }
  float value = 0;
  std::from_chars(ascii.data(), ascii.data() + ascii.size(), value);
  return value;
}

std::u16string numberText(const LMValue& v) {
  if (auto b = v.asBool()) return *b ? u"1" : u"0";
  if (auto i = v.asInt()) return ascii16(std::to_string(*i));
  if (auto d = v.asDouble()) return doubleText(*d);
  if (auto d = v.asDecimal()) return d->stringValue16();
  return std::u16string();
}

// Property-list style quoting for texts inside collection descriptions.
std::u16string quotedIfNeeded(const std::u16string& s) {
  const bool plain = !s.empty() && std::all_of(s.begin(), s.end(), [](char16_t c) {
    return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || isAsciiDigit(c) ||
           c == u'_' || c == u'.' || c == u'$' || c == u'/' || c == u':';
  });
  if (plain) return s;
  std::u16string out = u"\"";
  for (char16_t c : s) {
    if (c == u'"' || c == u'\\') out.push_back(u'\\');
    if (c == u'\n') {
      out += u"\\n";
      continue;
    }
    out.push_back(c);
  }
  out.push_back(u'"');
  return out;
}

std::u16string indentLines(const std::u16string& s) {
  std::u16string out;
  for (char16_t c : s) {
    out.push_back(c);
    if (c == u'\n') out += u"    ";
  }
  return out;
}

std::u16string describe(const LMValue& v, bool nested) {
  switch (v.kind()) {
    case LMValueKind::kNil:
      return u"(null)";
    case LMValueKind::kNull:
      return u"<null>";
    case LMValueKind::kString:
      return nested ? quotedIfNeeded(*v.asString()) : *v.asString();
    case LMValueKind::kArray: {
      const LMArray& a = *v.asArray();
      if (a.empty()) return u"(\n)";
      std::u16string out = u"(\n";
      for (size_t i = 0; i < a.size(); ++i) {
        out += u"    " + indentLines(describe(a[i], true));
        out += i + 1 < a.size() ? u",\n" : u"\n";
      }
      return out + u")";
    }
    case LMValueKind::kDictionary: {
      std::u16string out = u"{\n";
      for (const auto& e : *v.asDictionary()) {
        out += u"    " + quotedIfNeeded(e.key.str()) + u" = " +
               indentLines(describe(e.value, true)) + u";\n";
      }
      return out + u"}";
    }
    case LMValueKind::kData: {
      static constexpr char kHex[] = "0123456789abcdef";
      std::u16string out = u"<";
      const LMData& d = *v.asData();
      for (size_t i = 0; i < d.size(); ++i) {
        if (i && i % 4 == 0) out.push_back(u' ');
        out.push_back(static_cast<char16_t>(kHex[d[i] >> 4]));
        out.push_back(static_cast<char16_t>(kHex[d[i] & 15]));
      }
      return out + u">";
    }
    case LMValueKind::kDate: {
      const auto seconds = static_cast<std::time_t>(std::floor(v.asDate()->timeIntervalSince1970()));
      std::tm utc{};
      gmtime_r(&seconds, &utc);
      char buffer[64];
      std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S +0000", &utc);
      return ascii16(buffer);
    }
    case LMValueKind::kAttributedString:
      return v.asAttributedString()->string;
    case LMValueKind::kObject:
      return v.asObject()->description();
    default:
      return numberText(v);
  }
}

template <typename T>
int threeWay(const T& a, const T& b) {
  return a < b ? -1 : (b < a ? 1 : 0);
}

}  // namespace

// ---------------------------------------------------------------- LMDictionary

LMDictionary::LMDictionary(std::initializer_list<LMDictionaryEntry> entries) {
  for (const auto& e : entries) emplace(e.key, e.value);
}
LMDictionary::LMDictionary(const LMDictionary& other) : entries_(other.entries_) {
  if (other.index_) index_ = std::make_unique<Index>(*other.index_);
}
LMDictionary::LMDictionary(LMDictionary&&) noexcept = default;
LMDictionary& LMDictionary::operator=(const LMDictionary& other) {
  if (this != &other) *this = LMDictionary(other);
  return *this;
}
LMDictionary& LMDictionary::operator=(LMDictionary&&) noexcept = default;
LMDictionary::~LMDictionary() = default;

size_t LMDictionary::size() const { return entries_.size(); }
bool LMDictionary::empty() const { return entries_.empty(); }

std::optional<size_t> LMDictionary::position(std::u16string_view key) const {
  if (index_) {
    auto it = index_->find(key);
    if (it == index_->end()) return std::nullopt;
    return it->second;
  }
  for (size_t i = 0; i < entries_.size(); ++i) {
    if (entries_[i].key == key) return i;
  }
  return std::nullopt;
}

void LMDictionary::rebuildIndex() {
  index_.reset();
  if (entries_.size() <= kIndexThreshold) return;
  index_ = std::make_unique<Index>();
  for (size_t i = 0; i < entries_.size(); ++i) index_->emplace(entries_[i].key.str(), i);
}

bool LMDictionary::contains(std::u16string_view key) const { return position(key).has_value(); }

const LMValue& LMDictionary::at(std::u16string_view key) const {
  auto p = position(key);
  return p ? entries_[*p].value : lmNil();
}

const LMValue* LMDictionary::key(std::u16string_view key) const {
  auto p = position(key);
  if (!p || entries_[*p].value.isNull() || entries_[*p].value.isNil()) return nullptr;
  return &entries_[*p].value;
}

LMValue* LMDictionary::find(std::u16string_view key) {
  auto p = position(key);
  return p ? &entries_[*p].value : nullptr;
}

void LMDictionary::set(std::u16string_view key, LMValue value) {
  (*this)[key] = std::move(value);
}

void LMDictionary::reserve(size_t count) { entries_.reserve(count); }

void LMDictionary::emplace(LMKey key, LMValue value) {
  if (auto p = position(key.view())) {
    entries_[*p].value = std::move(value);
    return;
  }
  append(std::move(key), std::move(value));
}

LMValue& LMDictionary::append(LMKey key, LMValue value) {
  entries_.push_back(LMDictionaryEntry{std::move(key), std::move(value)});
  if (index_) {
    index_->emplace(entries_.back().key.str(), entries_.size() - 1);
  } else if (entries_.size() > kIndexThreshold) {
    rebuildIndex();
  }
  return entries_.back().value;
}

LMValue& LMDictionary::operator[](std::u16string_view key) {
  if (auto p = position(key)) return entries_[*p].value;
  return append(LMKey(key), LMValue());
}

bool LMDictionary::remove(std::u16string_view key) {
  auto p = position(key);
  if (!p) return false;
  entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(*p));
  rebuildIndex();
  return true;
}

void LMDictionary::clear() {
  entries_.clear();
  index_.reset();
}

int64_t LMDictionary::incrementCounterForKey(std::u16string_view key) {
  LMValue& slot = (*this)[key];
  const int64_t next = slot.toInt() + 1;
  slot = LMValue(next);
  return next;
}

std::vector<std::u16string> LMDictionary::keys() const {
  std::vector<std::u16string> out;
  out.reserve(entries_.size());
  for (const auto& e : entries_) out.push_back(e.key.str());
  return out;
}

std::vector<LMDictionaryEntry>::const_iterator LMDictionary::begin() const {
  return entries_.begin();
}
std::vector<LMDictionaryEntry>::const_iterator LMDictionary::end() const {
  return entries_.end();
}

// Equal when both hold the same keys with equal values, in any order.
bool operator==(const LMDictionary& a, const LMDictionary& b) {
  if (a.size() != b.size()) return false;
  for (const auto& e : a.entries_) {
    auto p = b.position(e.key.view());
    if (!p || !(b.entries_[*p].value == e.value)) return false;
  }
  return true;
}

LMAttributeRun::LMAttributeRun(LMTextRange range, LMDictionary attributes)
    : range(range),
      attributes_(attributes.empty() ? nullptr
                                     : std::make_shared<const LMDictionary>(std::move(attributes))) {}

LMAttributeRun::LMAttributeRun(LMTextRange range, std::shared_ptr<const LMDictionary> attributes)
    : range(range), attributes_(std::move(attributes)) {}

const LMDictionary& LMAttributeRun::attributes() const {
  static const LMDictionary none;
  return attributes_ ? *attributes_ : none;
}

bool operator==(const LMAttributeRun& a, const LMAttributeRun& b) {
  return a.range == b.range && a.attributes() == b.attributes();
}

bool operator==(const LMAttributedString& a, const LMAttributedString& b) {
  return a.string == b.string && a.runs == b.runs;
}

// -------------------------------------------------------------------- LMObject

std::u16string LMObject::description() const {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, ": %p>", static_cast<const void*>(this));
  return u"<" + className() + ascii16(buffer);
}

LMValue LMObject::jsonObject() const { return LMValue(description()); }

int LMObject::compare(const LMObject& other) const {
  return threeWay(static_cast<const void*>(this), static_cast<const void*>(&other));
}

// --------------------------------------------------------------------- LMValue

const LMValue& lmNil() {
  static const auto* nil = new LMValue();
  return *nil;
}

bool LMValue::isNumber() const {
  const auto k = kind();
  return k == LMValueKind::kBool || k == LMValueKind::kInt || k == LMValueKind::kDouble ||
         k == LMValueKind::kDecimal;
}

std::shared_ptr<LMObject> LMValue::asObject() const {
  if (auto o = std::get_if<std::shared_ptr<LMObject>>(&v_)) return *o;
  return nullptr;
}

int64_t lmSaturatedInt(double d) {
  if (std::isnan(d)) return 0;
  if (d >= 9.2233720368547758e18) return std::numeric_limits<int64_t>::max();
  if (d <= -9.2233720368547758e18) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(d);
}

int64_t LMValue::toInt() const {
  switch (kind()) {
    case LMValueKind::kBool:
      return *asBool() ? 1 : 0;
    case LMValueKind::kInt:
      return *asInt();
    case LMValueKind::kDouble:
      return lmSaturatedInt(*asDouble());
    case LMValueKind::kDecimal:
      return asDecimal()->integerValue();
    case LMValueKind::kString:
      return leadingInteger(*asString());
    default:
      return 0;
  }
}

float LMValue::toFloat() const {
  switch (kind()) {
    case LMValueKind::kBool:
    case LMValueKind::kInt:
      return static_cast<float>(toInt());
    case LMValueKind::kDouble:
      return static_cast<float>(*asDouble());
    case LMValueKind::kDecimal:
      return static_cast<float>(asDecimal()->doubleValue());
    case LMValueKind::kString:
      return leadingFloat(*asString());
    case LMValueKind::kDate:
      return static_cast<float>(asDate()->timeIntervalSince1970());
    default:
      return 0;
  }
}

bool LMValue::toBool() const {
  switch (kind()) {
    case LMValueKind::kBool:
      return *asBool();
    case LMValueKind::kInt:
      return *asInt() != 0;
    case LMValueKind::kDouble:
      return *asDouble() != 0;
    case LMValueKind::kDecimal:
      return !asDecimal()->isZero() && !asDecimal()->isNaN();
    case LMValueKind::kString: {
      const std::u16string& s = *asString();
      size_t i = 0;
      while (i < s.size() && lmIsWhitespaceOrNewline(s[i])) ++i;
      if (i < s.size() && (s[i] == u'-' || s[i] == u'+')) ++i;
      while (i < s.size() && s[i] == u'0') ++i;
      if (i >= s.size()) return false;
      const char16_t c = s[i];
      return c == u'Y' || c == u'y' || c == u'T' || c == u't' || (c >= u'1' && c <= u'9');
    }
    default:
      return false;
  }
}

std::u16string LMValue::toString() const {
  switch (kind()) {
    case LMValueKind::kNil:
    case LMValueKind::kNull:
      return std::u16string();
    case LMValueKind::kString:
      return *asString();
    case LMValueKind::kData: {
      const LMData& d = *asData();
      auto text = lmUtf16Strict(
          std::string_view(reinterpret_cast<const char*>(d.data()), d.size()));
      return text ? *text : std::u16string();
    }
    case LMValueKind::kDate:
      return asDate()->unixTimeStampString();
    case LMValueKind::kAttributedString:
      return asAttributedString()->string;
    case LMValueKind::kObject: {
      auto o = asObject();
      if (auto s = o->stringValue()) return *s;
      return o->description();
    }
    case LMValueKind::kArray:
    case LMValueKind::kDictionary:
      return description();
    default:
      return numberText(*this);
  }
}

bool LMValue::isTrue() const {
  switch (kind()) {
    case LMValueKind::kNil:
    case LMValueKind::kNull:
      return false;
    case LMValueKind::kBool:
    case LMValueKind::kInt:
    case LMValueKind::kDouble:
    case LMValueKind::kDecimal:
      return toBool();
    case LMValueKind::kString:
    case LMValueKind::kData:
    case LMValueKind::kArray:
    case LMValueKind::kDictionary:
    case LMValueKind::kAttributedString:
      return len() != 0;
    default:
      return true;
  }
}

const LMValue& LMValue::nilOrObject() const { return isNull() ? lmNil() : *this; }

uint64_t LMValue::len() const {
  switch (kind()) {
    case LMValueKind::kString:
      return asString()->size();
    case LMValueKind::kData:
      return asData()->size();
    case LMValueKind::kArray:
      return asArray()->size();
    case LMValueKind::kDictionary:
      return asDictionary()->size();
    case LMValueKind::kAttributedString:
      return asAttributedString()->length();
    default:
      return 0;
  }
}

const LMValue* LMValue::key(std::u16string_view k) const {
  const LMDictionary* d = asDictionary();
  return d ? d->key(k) : nullptr;
}

const LMValue& LMValue::at(std::u16string_view k) const {
  const LMDictionary* d = asDictionary();
  return d ? d->at(k) : lmNil();
}

std::u16string LMValue::description() const { return describe(*this, false); }

int LMValue::compare(const LMValue& other) const {
  if (isNumber() && other.isNumber()) {
    const LMDecimal* a = asDecimal();
    const LMDecimal* b = other.asDecimal();
    if ((a || b) && !asDouble() && !other.asDouble()) {
      const LMDecimal left = a ? *a : LMDecimal::fromInt(toInt());
      const LMDecimal right = b ? *b : LMDecimal::fromInt(other.toInt());
      return left.compare(right);
    }
    if (a || b) {
      const double x = a ? a->doubleValue() : (asDouble() ? *asDouble() : static_cast<double>(toInt()));
      const double y = b ? b->doubleValue() : (other.asDouble() ? *other.asDouble() : static_cast<double>(other.toInt()));
      return threeWay(x, y);
    }
    if (asDouble() || other.asDouble()) {
      const double x = asDouble() ? *asDouble() : static_cast<double>(toInt());
      const double y = other.asDouble() ? *other.asDouble() : static_cast<double>(other.toInt());
      return threeWay(x, y);
    }
    return threeWay(toInt(), other.toInt());
  }
  if (kind() != other.kind()) return threeWay(static_cast<int>(kind()), static_cast<int>(other.kind()));
  switch (kind()) {
    case LMValueKind::kString:
      return threeWay(*asString(), *other.asString());
    case LMValueKind::kDate:
      return threeWay(asDate()->timeIntervalSinceReferenceDate(),
                      other.asDate()->timeIntervalSinceReferenceDate());
    case LMValueKind::kObject:
      return asObject()->compare(*other.asObject());
    case LMValueKind::kArray:
    case LMValueKind::kDictionary:
      return threeWay(len(), other.len());
    default:
      return 0;
  }
}

bool operator==(const LMValue& a, const LMValue& b) {
  if (a.isNumber() && b.isNumber()) return a.compare(b) == 0;
  return a.v_ == b.v_;
}

// ------------------------------------------------------------- array helpers

LMArray lmSorted(LMArray a) {
  std::stable_sort(a.begin(), a.end(),
                   [](const LMValue& x, const LMValue& y) { return x.compare(y) < 0; });
  return a;
}

std::u16string lmJoin(const LMArray& a, std::u16string_view separator) {
  std::u16string out;
  for (size_t i = 0; i < a.size(); ++i) {
    if (i) out.append(separator);
    out.append(a[i].toString());
  }
  return out;
}

LMArray lmMap(const LMArray& a, const std::function<LMValue(const LMValue&)>& f) {
  LMArray out;
  out.reserve(a.size());
  for (const LMValue& e : a) {
    LMValue mapped = f(e);
    if (!mapped.isNil()) out.push_back(std::move(mapped));
  }
  return out;
}

LMArray lmFilter(const LMArray& a, const std::function<bool(const LMValue&)>& f) {
  LMArray out;
  for (const LMValue& e : a) {
    if (f(e)) out.push_back(e);
  }
  return out;
}
