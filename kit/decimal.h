// Exact decimal numbers for money. A value is (-1)^sign x mantissa x
// 10^exponent with an unsigned mantissa of at most 38 decimal digits
// (0 ... 10^38 - 1) and an exponent in -128 ... 127, or the not-a-number value.
//
// Values are always kept compact: trailing zeros of the mantissa are moved
// into the exponent while the exponent can still grow (12.50 is 125e-1), and
// zero is mantissa 0, exponent 0, positive. So equal numbers have equal parts.
//
// Nothing here throws or aborts on bad data:
//  - any operation with a not-a-number operand gives not-a-number;
//  - division by zero gives not-a-number;
//  - a result whose exponent would pass 127 (after filling the mantissa up to
//    38 digits) gives not-a-number;
//  - a result smaller than the exponent -128 can hold is rounded (plain mode)
//    at the 10^-128 digit, so it loses digits and becomes zero when nothing
//    is left.
// Arithmetic results that need more than 38 significant digits are rounded
// to 38 in plain mode (half away from zero), e.g. 1/3 is 0.333...3 with 38
// threes and 2/3 ends in ...67.
//
// LMDecimal is an immutable value type: copies are cheap and concurrent use
// of const objects from several threads is safe.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// How to round away digits. The numeric values are fixed; never renumber. A
// value outside the four rounds like kPlain.
enum class LMRoundingMode : int {
  kPlain = 0,    // nearest; a tie goes away from zero (2.5 -> 3, -2.5 -> -3)
  kDown = 1,     // toward negative infinity (2.7 -> 2, -2.1 -> -3)
  kUp = 2,       // toward positive infinity (2.1 -> 3, -2.7 -> -2)
  kBankers = 3,  // nearest; a tie goes to the even digit (2.5 -> 2, 3.5 -> 4)
};

class LMDecimal {
 public:
  static constexpr int kMaxDigits = 38;
  static constexpr int kMinExponent = -128;
  static constexpr int kMaxExponent = 127;

  // Zero.
  LMDecimal() = default;

  static LMDecimal zero();
  static LMDecimal one();
  static LMDecimal notANumber();
  static LMDecimal fromInt(int64_t n);

  // mantissa x 10^exponent, negated when `negative`. A mantissa of more than
  // 38 digits is rounded (plain mode); the result is compacted. An exponent
  // too large to hold gives not-a-number; too small rounds as described above.
  static LMDecimal fromParts(unsigned __int128 mantissa, int exponent,
                             bool negative);

  // Reads plain or scientific text: an optional '+' or '-', digits with an
  // optional '.', at least one digit in all, then optionally 'e' or 'E', an
  // optional sign and at least one digit ("12.50", "-0.019", "1e3", ".5",
  // "5."). White space or any other extra character anywhere gives nullopt.
  // More than 38 significant digits are rounded (plain mode). Well-formed text
  // whose exponent is out of range gives not-a-number (too large) or rounds
  // toward zero (too small) as described above; "-0" is zero.
  static std::optional<LMDecimal> fromString(std::string_view text);
  static std::optional<LMDecimal> fromString(std::u16string_view text);

  // n x 10^-p where p is first cut to a signed 16-bit value (65538 acts as 2).
  // decimalNumberWithInteger(1250, 2) is 12.5.
  static LMDecimal decimalNumberWithInteger(int64_t n, int64_t shiftDecimalPlaces);
  // n hundredths: -305 is -3.05.
  static LMDecimal decimalNumberWithAmountInteger(int64_t n);

  bool isNaN() const { return nan_; }
  // False for not-a-number.
  bool isZero() const { return !nan_ && mantissa_ == 0; }
  // False for zero and not-a-number.
  bool isNegative() const { return negative_; }
  // The compact parts; both are 0 for zero and for not-a-number.
  unsigned __int128 mantissa() const { return mantissa_; }
  int exponent() const { return exponent_; }

  // Results rounded to 38 significant digits in plain mode.
  LMDecimal add(const LMDecimal& other) const;
  LMDecimal subtract(const LMDecimal& other) const;
  LMDecimal multiply(const LMDecimal& other) const;
  LMDecimal divide(const LMDecimal& other) const;
  // Exact unless the exponent leaves its range (see above).
  LMDecimal multiplyByPowerOf10(int16_t power) const;

  LMDecimal operator+(const LMDecimal& other) const { return add(other); }
  LMDecimal operator-(const LMDecimal& other) const { return subtract(other); }
  LMDecimal operator*(const LMDecimal& other) const { return multiply(other); }
  LMDecimal operator/(const LMDecimal& other) const { return divide(other); }
  // Zero and not-a-number are their own negation.
  LMDecimal operator-() const;

  // Numeric order: -1, 0 or 1 (12.5 and 12.50 are equal). Not-a-number is
  // equal to itself and below every number, so this is a total order that
  // sorting can rely on.
  int compare(const LMDecimal& other) const;
  // All six follow compare(): not-a-number equals only not-a-number and is
  // less than every number (NaN < 0 is true).
  bool operator==(const LMDecimal& other) const { return compare(other) == 0; }
  bool operator!=(const LMDecimal& other) const { return compare(other) != 0; }
  bool operator<(const LMDecimal& other) const { return compare(other) < 0; }
  bool operator<=(const LMDecimal& other) const { return compare(other) <= 0; }
  bool operator>(const LMDecimal& other) const { return compare(other) > 0; }
  bool operator>=(const LMDecimal& other) const { return compare(other) >= 0; }

  // Plain notation, never scientific: "12.5", "-3.05", "0.001", "100000", "0";
  // "NaN" for not-a-number. Large exponents give long runs of zeros.
  std::string stringValue() const;
  std::u16string stringValue16() const;
  // The nearest double; NaN for not-a-number. For display only, never money.
  double doubleValue() const;

  // The whole part, cut toward zero (12.99 -> 12, -3.05 -> -3), saturating at
  // INT64_MAX / INT64_MIN. Not-a-number gives 0.
  int64_t integerValue() const;
  // Whole hundredths, cut toward zero (12.345 -> 1234, -0.019 -> -1), with the
  // same saturation; not-a-number gives 0.
  int64_t amountIntegerValue() const;

  // Rounded to `scale` digits after the point, the scale first cut to a signed
  // 16-bit value; a negative scale rounds to tens, hundreds, ... (1234.5 at
  // -2 is 1200). Not-a-number stays not-a-number; a result past the exponent
  // range is not-a-number.
  LMDecimal decimalNumberByRoundingToDecimalPlaces(int64_t scale,
                                                   LMRoundingMode mode) const;
  // Plain mode.
  LMDecimal decimalNumberByRoundingToDecimalPlaces(int64_t scale) const;
  // Two places, plain mode.
  LMDecimal fixedValue() const;

  // (this / 100) x percentage; zero when the percentage is absent. A
  // not-a-number percentage gives not-a-number.
  LMDecimal decimalNumberCalculatePercentage(
      const std::optional<LMDecimal>& percentage) const;
  // this - decimalNumberCalculatePercentage(percentage).
  LMDecimal decimalNumberByDeductingPercentage(
      const std::optional<LMDecimal>& percentage) const;
  // To the nearest 0.05, ties away from zero (1.025 -> 1.05, -1.025 -> -1.05).
  LMDecimal decimalNumberByRoundingToCHF() const;

  // False for zero and for not-a-number.
  bool isTrue() const { return !nan_ && mantissa_ != 0; }

 private:
  // Eight-byte aligned, so that a decimal takes 24 bytes and values that can
  // hold one stay small; the compiler reads it as one 128-bit number.
  typedef unsigned __int128 Mantissa __attribute__((aligned(8)));
  Mantissa mantissa_ = 0;
  int exponent_ = 0;
  bool negative_ = false;
  bool nan_ = false;

  friend struct LMDecimalBuilder;
};
