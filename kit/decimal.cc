#include "kit/decimal.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>

using u128 = unsigned __int128;

// The only way to set the fields directly; everything else goes through
// makeDecimal() below, which keeps values compact and in range.
struct LMDecimalBuilder {
  static LMDecimal raw(u128 mantissa, int exponent, bool negative, bool nan) {
    LMDecimal d;
    d.mantissa_ = mantissa;
    d.exponent_ = exponent;
    d.negative_ = negative;
    d.nan_ = nan;
    return d;
  }
};

namespace {

// Unsigned 256-bit scratch number, little-endian 64-bit limbs. Big enough for
// a product of two 38-digit mantissas and for a 38-digit mantissa scaled by
// 10^39 (both below 10^77 < 2^256); callers stay inside that, so nothing here
// checks for overflow.
struct U256 {
  std::array<uint64_t, 4> limb{};

  U256() = default;
  explicit U256(u128 v) {
    limb[0] = static_cast<uint64_t>(v);
    limb[1] = static_cast<uint64_t>(v >> 64);
  }

  bool isZero() const { return (limb[0] | limb[1] | limb[2] | limb[3]) == 0; }
  bool fits128() const { return (limb[2] | limb[3]) == 0; }
  u128 low128() const { return (static_cast<u128>(limb[1]) << 64) | limb[0]; }
  bool isOdd() const { return (limb[0] & 1) != 0; }

  void mulSmall(uint64_t factor) {
    u128 carry = 0;
    for (auto& l : limb) {
      const u128 t = static_cast<u128>(l) * factor + carry;
      l = static_cast<uint64_t>(t);
      carry = t >> 64;
    }
  }

  void addSmall(uint64_t v) {
    for (auto& l : limb) {
      l += v;
      if (l >= v) return;
      v = 1;
    }
  }

  // Divides in place, returns the remainder.
  uint64_t divSmall(uint64_t divisor) {
    u128 rem = 0;
    for (int i = 3; i >= 0; --i) {
      const u128 cur = (rem << 64) | limb[i];
      limb[i] = static_cast<uint64_t>(cur / divisor);
      rem = cur % divisor;
    }
    return static_cast<uint64_t>(rem);
  }

  bool bit(int i) const { return (limb[i / 64] >> (i % 64)) & 1; }
  void setBit(int i) { limb[i / 64] |= uint64_t{1} << (i % 64); }
  void shiftLeft1() {
    for (int i = 3; i > 0; --i) limb[i] = (limb[i] << 1) | (limb[i - 1] >> 63);
    limb[0] <<= 1;
  }
};

int cmp(const U256& a, const U256& b) {
  for (int i = 3; i >= 0; --i) {
    if (a.limb[i] != b.limb[i]) return a.limb[i] < b.limb[i] ? -1 : 1;
  }
  return 0;
}

U256 addWide(const U256& a, const U256& b) {
  U256 r;
  uint64_t carry = 0;
  for (int i = 0; i < 4; ++i) {
    const u128 t = static_cast<u128>(a.limb[i]) + b.limb[i] + carry;
    r.limb[i] = static_cast<uint64_t>(t);
    carry = static_cast<uint64_t>(t >> 64);
  }
  return r;
}

// a - b for a >= b.
U256 subWide(const U256& a, const U256& b) {
  U256 r;
  uint64_t borrow = 0;
  for (int i = 0; i < 4; ++i) {
    const uint64_t bi = b.limb[i] + borrow;
    borrow = (bi < borrow || a.limb[i] < bi) ? 1 : 0;
    r.limb[i] = a.limb[i] - bi;
  }
  return r;
}

U256 mul(u128 a, u128 b) {
  const uint64_t a0 = static_cast<uint64_t>(a), a1 = static_cast<uint64_t>(a >> 64);
  const uint64_t b0 = static_cast<uint64_t>(b), b1 = static_cast<uint64_t>(b >> 64);
  U256 r;
  const u128 p00 = static_cast<u128>(a0) * b0;
  const u128 p01 = static_cast<u128>(a0) * b1;
  const u128 p10 = static_cast<u128>(a1) * b0;
  const u128 p11 = static_cast<u128>(a1) * b1;
  r.limb[0] = static_cast<uint64_t>(p00);
  u128 mid = (p00 >> 64) + static_cast<uint64_t>(p01) + static_cast<uint64_t>(p10);
  r.limb[1] = static_cast<uint64_t>(mid);
  u128 high = (mid >> 64) + (p01 >> 64) + (p10 >> 64) + static_cast<uint64_t>(p11);
  r.limb[2] = static_cast<uint64_t>(high);
  r.limb[3] = static_cast<uint64_t>((high >> 64) + (p11 >> 64));
  return r;
}

// Plain shift-and-subtract; a few hundred steps at most, which is cheap next
// to everything else the service does with an amount.
void divMod(const U256& n, const U256& d, U256& quotient, U256& remainder) {
  quotient = U256();
  remainder = U256();
  for (int i = 255; i >= 0; --i) {
    remainder.shiftLeft1();
    if (n.bit(i)) remainder.limb[0] |= 1;
    if (cmp(remainder, d) >= 0) {
      remainder = subWide(remainder, d);
      quotient.setBit(i);
    }
  }
}

constexpr std::array<uint64_t, 20> kPow10Small = [] {
  std::array<uint64_t, 20> p{};
  p[0] = 1;
  for (size_t i = 1; i < p.size(); ++i) p[i] = p[i - 1] * 10;
  return p;
}();

constexpr std::array<u128, 39> kPow10 = [] {
  std::array<u128, 39> p{};
  p[0] = 1;
  for (size_t i = 1; i < p.size(); ++i) p[i] = p[i - 1] * 10;
  return p;
}();

constexpr u128 kMantissaLimit = kPow10[LMDecimal::kMaxDigits];  // 10^38

// m x 10^k; the caller keeps the result below 2^256.
U256 scaled(u128 m, int k) {
  U256 r(m);
  while (k > 0) {
    const int step = std::min(k, 19);
    r.mulSmall(kPow10Small[step]);
    k -= step;
  }
  return r;
}

int digitCount(u128 v) {
  int n = 0;
  while (n < static_cast<int>(kPow10.size()) && v >= kPow10[n]) ++n;
  return n;  // 39 for v >= 10^38
}

int digitCount(const U256& v) {
  if (v.fits128()) return digitCount(v.low128());
  U256 t = v;
  int n = 0;
  while (!t.fits128()) {
    t.divSmall(kPow10Small[19]);
    n += 19;
  }
  return n + digitCount(t.low128());
}

// What the dropped digits were worth against half a unit of the kept last
// digit.
enum class Tail { kExact, kBelowHalf, kHalf, kAboveHalf };

// Drops the `count` lowest digits of `m`. `sticky` says that non-zero digits
// were already lost below `m`'s lowest digit (a division remainder or a far
// smaller addend), which turns an apparent exact half into "above half".
Tail dropDigits(U256& m, int64_t count, bool sticky) {
  uint64_t top = 0;  // the most significant digit dropped so far
  bool rest = sticky;
  for (int64_t i = 0; i < count; ++i) {
    rest = rest || top != 0;
    if (m.isZero()) {
      top = 0;  // every digit left to drop is a zero
      break;
    }
    top = m.divSmall(10);
  }
  if (top > 5) return Tail::kAboveHalf;
  if (top == 5) return rest ? Tail::kAboveHalf : Tail::kHalf;
  if (top > 0) return Tail::kBelowHalf;
  return rest ? Tail::kBelowHalf : Tail::kExact;
}

// Whether the kept magnitude goes up by one unit.
bool roundsAway(Tail tail, LMRoundingMode mode, bool negative, bool lastOdd) {
  if (tail == Tail::kExact) return false;
  switch (mode) {
    case LMRoundingMode::kDown:
      return negative;
    case LMRoundingMode::kUp:
      return !negative;
    case LMRoundingMode::kBankers:
      return tail == Tail::kAboveHalf || (tail == Tail::kHalf && lastOdd);
    case LMRoundingMode::kPlain:
      break;
  }
  return tail >= Tail::kHalf;
}

// Every result is built here: rounds to 38 digits (and to the 10^-128 digit
// when the exponent is too small), fills the mantissa with zeros when the
// exponent is too large, gives NaN when that is not enough, and compacts.
// `sticky` only matters when digits are dropped; callers that pass it make
// sure the mantissa then has more than 38 digits.
LMDecimal makeDecimal(U256 m, int64_t exponent, bool negative, bool sticky,
                      LMRoundingMode mode) {
  const int64_t drop =
      std::max<int64_t>(digitCount(m) - LMDecimal::kMaxDigits,
                        LMDecimal::kMinExponent - exponent);
  if (drop > 0) {
    const Tail tail = dropDigits(m, drop, sticky);
    exponent += drop;
    if (roundsAway(tail, mode, negative, m.isOdd())) {
      m.addSmall(1);
      if (m.fits128() && m.low128() == kMantissaLimit) {
        m.divSmall(10);
        ++exponent;
      }
    }
  }
  u128 v = m.low128();
  if (v == 0) return LMDecimal();
  while (exponent > LMDecimal::kMaxExponent && v < kMantissaLimit / 10) {
    v *= 10;
    --exponent;
  }
  if (exponent > LMDecimal::kMaxExponent) return LMDecimal::notANumber();
  while (exponent < LMDecimal::kMaxExponent && v % 10 == 0) {
    v /= 10;
    ++exponent;
  }
  return LMDecimalBuilder::raw(v, static_cast<int>(exponent), negative, false);
}

LMDecimal makeDecimal(u128 m, int64_t exponent, bool negative) {
  return makeDecimal(U256(m), exponent, negative, false, LMRoundingMode::kPlain);
}

u128 magnitude(int64_t n) {
  return n < 0 ? static_cast<u128>(-(n + 1)) + 1 : static_cast<u128>(n);
}

// Compares |a| and |b| of two non-NaN values.
int compareMagnitude(const LMDecimal& a, const LMDecimal& b) {
  if (a.mantissa() == 0 || b.mantissa() == 0) {
    return (a.mantissa() != 0) - (b.mantissa() != 0);
  }
  const int da = digitCount(a.mantissa()), db = digitCount(b.mantissa());
  const int topA = da + a.exponent(), topB = db + b.exponent();
  if (topA != topB) return topA < topB ? -1 : 1;
  // Same leading position, so the exponents differ by less than 38 digits.
  const int shift = a.exponent() - b.exponent();
  const U256 ma = scaled(a.mantissa(), std::max(shift, 0));
  const U256 mb = scaled(b.mantissa(), std::max(-shift, 0));
  return cmp(ma, mb);
}

template <typename Char>
bool isDigit(Char c) {
  return c >= Char('0') && c <= Char('9');
}

template <typename Char>
std::optional<LMDecimal> parseDecimal(std::basic_string_view<Char> text) {
  // Enough to keep 38 digits plus the one that decides rounding; anything
  // further only counts as "something non-zero was there".
  constexpr int kKeptDigits = LMDecimal::kMaxDigits + 1;
  // Exponents past this are out of range whatever the digits; capping keeps
  // the arithmetic below from overflowing on absurd input.
  constexpr int64_t kExponentCap = 1'000'000;

  size_t i = 0;
  const size_t n = text.size();
  bool negative = false;
  if (i < n && (text[i] == Char('+') || text[i] == Char('-'))) {
    negative = text[i] == Char('-');
    ++i;
  }
  U256 m;
  int significant = 0;
  int64_t exponent = 0;
  bool sticky = false;
  bool anyDigit = false;
  auto take = [&](unsigned digit, bool fraction) {
    anyDigit = true;
    if (significant < kKeptDigits) {
      m.mulSmall(10);
      m.addSmall(digit);
      if (significant > 0 || digit != 0) ++significant;
      if (fraction) --exponent;
    } else {
      sticky = sticky || digit != 0;
      if (!fraction) ++exponent;
    }
  };
  while (i < n && isDigit(text[i])) take(static_cast<unsigned>(text[i++] - Char('0')), false);
  if (i < n && text[i] == Char('.')) {
    ++i;
    while (i < n && isDigit(text[i])) take(static_cast<unsigned>(text[i++] - Char('0')), true);
  }
  if (!anyDigit) return std::nullopt;
  if (i < n && (text[i] == Char('e') || text[i] == Char('E'))) {
    ++i;
    bool exponentNegative = false;
    if (i < n && (text[i] == Char('+') || text[i] == Char('-'))) {
      exponentNegative = text[i] == Char('-');
      ++i;
    }
    const size_t start = i;
    int64_t value = 0;
    while (i < n && isDigit(text[i])) {
      value = std::min(value * 10 + (text[i++] - Char('0')), kExponentCap);
    }
    if (i == start) return std::nullopt;
    exponent += exponentNegative ? -value : value;
  }
  if (i != n) return std::nullopt;
  return makeDecimal(m, exponent, negative, sticky, LMRoundingMode::kPlain);
}

std::string mantissaDigits(u128 v) {
  std::string s;
  do {
    s.push_back(static_cast<char>('0' + static_cast<int>(v % 10)));
    v /= 10;
  } while (v != 0);
  std::reverse(s.begin(), s.end());
  return s;
}

}  // namespace

LMDecimal LMDecimal::zero() { return LMDecimal(); }
LMDecimal LMDecimal::one() { return LMDecimalBuilder::raw(1, 0, false, false); }
LMDecimal LMDecimal::notANumber() { return LMDecimalBuilder::raw(0, 0, false, true); }

LMDecimal LMDecimal::fromInt(int64_t n) { return makeDecimal(magnitude(n), 0, n < 0); }

LMDecimal LMDecimal::fromParts(unsigned __int128 mantissa, int exponent, bool negative) {
  return makeDecimal(mantissa, exponent, negative);
}

std::optional<LMDecimal> LMDecimal::fromString(std::string_view text) {
  return parseDecimal(text);
}

std::optional<LMDecimal> LMDecimal::fromString(std::u16string_view text) {
  return parseDecimal(text);
}

LMDecimal LMDecimal::decimalNumberWithInteger(int64_t n, int64_t shiftDecimalPlaces) {
  const int16_t shift = static_cast<int16_t>(shiftDecimalPlaces);
  return makeDecimal(magnitude(n), -static_cast<int64_t>(shift), n < 0);
}

LMDecimal LMDecimal::decimalNumberWithAmountInteger(int64_t n) {
  return decimalNumberWithInteger(n, 2);
}

LMDecimal LMDecimal::add(const LMDecimal& other) const {
  if (nan_ || other.nan_) return notANumber();
  if (isZero()) return other;
  if (other.isZero()) return *this;
  const bool thisHigher = exponent_ >= other.exponent_;
  const LMDecimal& hi = thisHigher ? *this : other;
  const LMDecimal& lo = thisHigher ? other : *this;
  const int diff = hi.exponent_ - lo.exponent_;

  U256 hm, lm;
  int64_t exponent;
  bool sticky = false;
  if (diff <= kMaxDigits) {
    // Exact: line both up at the smaller exponent.
    hm = scaled(hi.mantissa_, diff);
    lm = U256(lo.mantissa_);
    exponent = lo.exponent_;
  } else {
    // The smaller operand sits entirely below the 38 digits the result can
    // keep. Give the larger one 39 extra digits and fold the smaller one in
    // at that position; what falls below it only matters as "non-zero".
    hm = scaled(hi.mantissa_, kMaxDigits + 1);
    exponent = static_cast<int64_t>(hi.exponent_) - (kMaxDigits + 1);
    const int below = diff - (kMaxDigits + 1);
    if (below > kMaxDigits) {
      sticky = true;
    } else {
      lm = U256(lo.mantissa_ / kPow10[below]);
      sticky = lo.mantissa_ % kPow10[below] != 0;
    }
  }

  if (hi.negative_ == lo.negative_) {
    return makeDecimal(addWide(hm, lm), exponent, hi.negative_, sticky, LMRoundingMode::kPlain);
  }
  if (sticky) {
    // hi - (lm + fraction) = (hi - lm - 1) + (1 - fraction): borrow the unit
    // and keep the positive leftover as the sticky part.
    const U256 r = subWide(subWide(hm, lm), U256(1));
    return makeDecimal(r, exponent, hi.negative_, true, LMRoundingMode::kPlain);
  }
  const int c = cmp(hm, lm);
  if (c == 0) return zero();
  if (c > 0) return makeDecimal(subWide(hm, lm), exponent, hi.negative_, false, LMRoundingMode::kPlain);
  return makeDecimal(subWide(lm, hm), exponent, lo.negative_, false, LMRoundingMode::kPlain);
}

LMDecimal LMDecimal::subtract(const LMDecimal& other) const { return add(-other); }

LMDecimal LMDecimal::multiply(const LMDecimal& other) const {
  if (nan_ || other.nan_) return notANumber();
  if (isZero() || other.isZero()) return zero();
  return makeDecimal(mul(mantissa_, other.mantissa_),
                     static_cast<int64_t>(exponent_) + other.exponent_,
                     negative_ != other.negative_, false, LMRoundingMode::kPlain);
}

LMDecimal LMDecimal::divide(const LMDecimal& other) const {
  if (nan_ || other.nan_ || other.isZero()) return notANumber();
  if (isZero()) return zero();
  // Scale the dividend so the quotient has at least 39 digits: 38 to keep and
  // one to round on, with the remainder deciding ties. The dividend then has
  // at most 77 digits, which still fits.
  const int k = std::max(0, kMaxDigits + 1 + digitCount(other.mantissa_) -
                                digitCount(mantissa_));
  U256 quotient, remainder;
  divMod(scaled(mantissa_, k), U256(other.mantissa_), quotient, remainder);
  return makeDecimal(quotient, static_cast<int64_t>(exponent_) - other.exponent_ - k,
                     negative_ != other.negative_, !remainder.isZero(),
                     LMRoundingMode::kPlain);
}

LMDecimal LMDecimal::multiplyByPowerOf10(int16_t power) const {
  if (nan_ || isZero()) return *this;
  return makeDecimal(mantissa_, static_cast<int64_t>(exponent_) + power, negative_);
}

LMDecimal LMDecimal::operator-() const {
  if (nan_ || isZero()) return *this;
  return LMDecimalBuilder::raw(mantissa_, exponent_, !negative_, false);
}

int LMDecimal::compare(const LMDecimal& other) const {
  if (nan_ || other.nan_) return static_cast<int>(other.nan_) - static_cast<int>(nan_);
  if (negative_ != other.negative_) return negative_ ? -1 : 1;
  const int c = compareMagnitude(*this, other);
  return negative_ ? -c : c;
}

std::string LMDecimal::stringValue() const {
  if (nan_) return "NaN";
  std::string digits = mantissaDigits(mantissa_);
  std::string out = negative_ ? "-" : "";
  if (exponent_ >= 0) {
    out += digits;
    if (mantissa_ != 0) out.append(static_cast<size_t>(exponent_), '0');
    return out;
  }
  const size_t places = static_cast<size_t>(-exponent_);
  if (digits.size() > places) {
    out += digits.substr(0, digits.size() - places);
    out += '.';
    out += digits.substr(digits.size() - places);
  } else {
    out += "0.";
    out.append(places - digits.size(), '0');
    out += digits;
  }
  return out;
}

std::u16string LMDecimal::stringValue16() const {
  const std::string s = stringValue();
  return std::u16string(s.begin(), s.end());
}

double LMDecimal::doubleValue() const {
  if (nan_) return std::numeric_limits<double>::quiet_NaN();
  // from_chars rounds correctly and ignores the locale, unlike strtod.
  const std::string text = (negative_ ? "-" : "") + mantissaDigits(mantissa_) + "e" +
                           std::to_string(exponent_);
  double value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

namespace {

// The value x 10^extraPower cut toward zero, saturated to int64_t.
int64_t truncatedInteger(const LMDecimal& d, int extraPower) {
  if (d.isNaN() || d.isZero()) return 0;
  constexpr u128 kCap = static_cast<u128>(1) << 63;  // |INT64_MIN|
  const int64_t exponent = static_cast<int64_t>(d.exponent()) + extraPower;
  u128 value = 0;
  if (exponent >= 0) {
    value = d.mantissa();
    for (int64_t i = 0; i < exponent && value < kCap; ++i) value *= 10;
  } else if (-exponent <= LMDecimal::kMaxDigits) {
    value = d.mantissa() / kPow10[static_cast<size_t>(-exponent)];
  }
  if (d.isNegative()) {
    return value >= kCap ? std::numeric_limits<int64_t>::min() : -static_cast<int64_t>(value);
  }
  if (value >= kCap) return std::numeric_limits<int64_t>::max();
  return static_cast<int64_t>(value);
}

}  // namespace

int64_t LMDecimal::integerValue() const { return truncatedInteger(*this, 0); }

int64_t LMDecimal::amountIntegerValue() const { return truncatedInteger(*this, 2); }

LMDecimal LMDecimal::decimalNumberByRoundingToDecimalPlaces(int64_t scale,
                                                           LMRoundingMode mode) const {
  if (nan_) return *this;
  const int64_t target = -static_cast<int64_t>(static_cast<int16_t>(scale));
  if (exponent_ >= target) return *this;
  U256 m(mantissa_);
  const Tail tail = dropDigits(m, target - exponent_, false);
  if (roundsAway(tail, mode, negative_, m.isOdd())) m.addSmall(1);
  return makeDecimal(m, target, negative_, false, LMRoundingMode::kPlain);
}

LMDecimal LMDecimal::decimalNumberByRoundingToDecimalPlaces(int64_t scale) const {
  return decimalNumberByRoundingToDecimalPlaces(scale, LMRoundingMode::kPlain);
}

LMDecimal LMDecimal::fixedValue() const { return decimalNumberByRoundingToDecimalPlaces(2); }

LMDecimal LMDecimal::decimalNumberCalculatePercentage(
    const std::optional<LMDecimal>& percentage) const {
  if (!percentage) return zero();
  return divide(fromInt(100)).multiply(*percentage);
}

LMDecimal LMDecimal::decimalNumberByDeductingPercentage(
    const std::optional<LMDecimal>& percentage) const {
  return subtract(decimalNumberCalculatePercentage(percentage));
}

LMDecimal LMDecimal::decimalNumberByRoundingToCHF() const {
  const LMDecimal twenty = fromInt(20);
  return multiply(twenty).decimalNumberByRoundingToDecimalPlaces(0).divide(twenty);
}
