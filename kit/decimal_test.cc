#include "kit/decimal.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>

// Failure messages show the number, not its bytes.
static void PrintTo(const LMDecimal& d, std::ostream* os) { *os << d.stringValue(); }

namespace {

LMDecimal dec(std::string_view text) {
  const std::optional<LMDecimal> d = LMDecimal::fromString(text);
  EXPECT_TRUE(d.has_value()) << text;
  return d.value_or(LMDecimal::notANumber());
}

const std::string k38Nines(38, '9');
const std::string k1e38 = "1" + std::string(38, '0');

TEST(DecimalTest, ParsesAndPrintsPlainNotation) {
  const struct {
    std::string text;
    std::string printed;
  } cases[] = {
      {"12.50", "12.5"},  {"-0.019", "-0.019"}, {"1e3", "1000"},   {"1.5E-2", "0.015"},
      {".5", "0.5"},      {"5.", "5"},           {"+7", "7"},       {"0.50", "0.5"},
      {"-0", "0"},        {"0.001", "0.001"},    {"-0.5", "-0.5"},  {"000123.4500", "123.45"},
      // 39 and more significant digits are rounded half away from zero.
      {"12345678901234567890123456789012345678.5", "12345678901234567890123456789012345679"},
      {"-12345678901234567890123456789012345678.49999", "-12345678901234567890123456789012345678"},
      {k38Nines + ".5", k1e38},
      {"0.000000000000000000000000000000000000000000012345678901234567890123456789012345678"
       "5000000001",
       "0.000000000000000000000000000000000000000000012345678901234567890123456789012345679"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(dec(c.text).stringValue(), c.printed);
  }
}

TEST(DecimalTest, RejectsMalformedText) {
  for (const char* text : {"", "-", "+", ".", "-.", "1.2.3", "1e", "1e+", "e5", "abc", " 1",
                           "1 ", "--1", "1x", "0x10", "1,5", "NaN"}) {
    SCOPED_TRACE(text);
    EXPECT_FALSE(LMDecimal::fromString(std::string_view(text)).has_value());
  }
}

TEST(DecimalTest, ExponentRangeOverflowsToNaNAndUnderflowsToZero) {
  const LMDecimal largest = LMDecimal::fromParts(dec(k38Nines).mantissa(), 127, false);
  EXPECT_FALSE(largest.isNaN());
  EXPECT_EQ(largest.stringValue(), k38Nines + std::string(127, '0'));
  EXPECT_TRUE(largest.multiplyByPowerOf10(1).isNaN());
  EXPECT_TRUE((largest + LMDecimal::fromParts(1, 127, false)).isNaN());
  EXPECT_TRUE((largest * dec("10")).isNaN());
  EXPECT_TRUE(dec("1e165").isNaN());
  EXPECT_EQ(dec("1e164").exponent(), 127);
  EXPECT_TRUE(LMDecimal::fromParts(1, 200, false).isNaN());
  EXPECT_TRUE(dec("1e99999999999999999999").isNaN());
  EXPECT_EQ(dec("-1e-129"), LMDecimal::zero());
  EXPECT_EQ(dec("5e-129"), LMDecimal::fromParts(1, -128, false));
  EXPECT_EQ(dec("12345e-131").stringValue(), "0." + std::string(126, '0') + "12");
  EXPECT_EQ(dec("1e-100") * dec("1e-100"), LMDecimal::zero());
  EXPECT_EQ(dec("1e-128").multiplyByPowerOf10(-1), LMDecimal::zero());
}

TEST(DecimalTest, BuildsFromShiftedIntegers) {
  const struct {
    int64_t n;
    int64_t shift;
    std::string printed;
  } cases[] = {
      {1250, 2, "12.5"},
      {-305, 2, "-3.05"},
      {1250, 65538, "12.5"},  // the shift is taken as a 16-bit value
      {5, -3, "5000"},
      {0, 2, "0"},
      {INT64_MIN, 0, "-9223372036854775808"},
      {INT64_MAX, 20, "0.09223372036854775807"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.printed);
    EXPECT_EQ(LMDecimal::decimalNumberWithInteger(c.n, c.shift).stringValue(), c.printed);
  }
  EXPECT_EQ(LMDecimal::decimalNumberWithAmountInteger(-305).stringValue(), "-3.05");
  const LMDecimal none = LMDecimal::decimalNumberWithAmountInteger(0);
  EXPECT_TRUE(none.isZero());
  EXPECT_EQ(none.exponent(), 0);
  EXPECT_FALSE(none.isTrue());
  EXPECT_EQ(LMDecimal::fromInt(-42).stringValue(), "-42");
}

TEST(DecimalTest, ArithmeticIsExactOrRoundedTo38Digits) {
  const struct {
    char op;
    std::string a, b, result;
  } cases[] = {
      {'*', "1.1", "1.1", "1.21"},
      {'+', "0.1", "0.2", "0.3"},
      {'-', "12.5", "12.50", "0"},
      {'-', "3", "5.05", "-2.05"},
      {'+', "-3", "5.05", "2.05"},
      {'*', "-0.5", "0.2", "-0.1"},
      {'/', "1", "3", "0.33333333333333333333333333333333333333"},
      {'/', "2", "3", "0.66666666666666666666666666666666666667"},
      {'/', "-2", "3", "-0.66666666666666666666666666666666666667"},
      {'/', "10", "7", "1.4285714285714285714285714285714285714"},
      {'/', "119", "100", "1.19"},
      {'/', "1e-100", "1e100", "0"},
      {'+', k38Nines, "1", k1e38},
      {'*', k38Nines, k38Nines, "99999999999999999999999999999999999998" + std::string(38, '0')},
      // Operands far apart: the smaller one still decides the rounding.
      {'+', "1e30", "1e-30", "1000000000000000000000000000000"},
      {'+', "1", "0.00000000000000000000000000000000000005", "1.0000000000000000000000000000000000001"},
      {'-', "1", "1e-60", "1"},
      {'-', "1", "0.000000000000000000000000000000000000005000000100",
       "0.99999999999999999999999999999999999999"},
      {'+', "-1", "0.000000000000000000000000000000000000005000000100",
       "-0.99999999999999999999999999999999999999"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.a + " " + c.op + " " + c.b);
    const LMDecimal a = dec(c.a), b = dec(c.b);
    const LMDecimal r = c.op == '+' ? a + b : c.op == '-' ? a - b : c.op == '*' ? a * b : a / b;
    EXPECT_EQ(r.stringValue(), c.result);
  }
}

TEST(DecimalTest, NaNAndDivisionByZeroGiveNaN) {
  const LMDecimal nan = LMDecimal::notANumber();
  EXPECT_TRUE((dec("1") / LMDecimal::zero()).isNaN());
  EXPECT_TRUE((LMDecimal::zero() / LMDecimal::zero()).isNaN());
  EXPECT_TRUE((nan + dec("1")).isNaN());
  EXPECT_TRUE((dec("1") - nan).isNaN());
  EXPECT_TRUE((LMDecimal::zero() * nan).isNaN());
  EXPECT_TRUE((-nan).isNaN());
  EXPECT_TRUE(nan.multiplyByPowerOf10(2).isNaN());
  EXPECT_EQ(nan.stringValue(), "NaN");
  EXPECT_TRUE(std::isnan(nan.doubleValue()));
}

TEST(DecimalTest, RoundsToDecimalPlacesInEveryMode) {
  using M = LMRoundingMode;
  const struct {
    std::string value;
    int64_t scale;
    M mode;
    std::string rounded;
  } cases[] = {
      {"2.5", 0, M::kPlain, "3"},       {"-2.5", 0, M::kPlain, "-3"},
      {"2.5", 0, M::kBankers, "2"},     {"-2.5", 0, M::kBankers, "-2"},
      {"3.5", 0, M::kBankers, "4"},     {"2.5000001", 0, M::kBankers, "3"},
      {"2.5", 0, M::kDown, "2"},        {"-2.5", 0, M::kDown, "-3"},
      {"2.5", 0, M::kUp, "3"},          {"-2.5", 0, M::kUp, "-2"},
      {"-2.1", 0, M::kDown, "-3"},      {"2.9", 0, M::kDown, "2"},
      {"-0.4", 0, M::kUp, "0"},         {"-0.4", 0, M::kDown, "-1"},
      {"1.25", 1, M::kBankers, "1.2"},  {"1.35", 1, M::kBankers, "1.4"},
      {"1234.5", -2, M::kPlain, "1200"}, {"1250", -2, M::kPlain, "1300"},
      {"1250", -2, M::kBankers, "1200"}, {"-1234.5", -2, M::kUp, "-1200"},
      {"9.995", 2, M::kPlain, "10"},    {"1.005", 65538, M::kPlain, "1.01"},
      {"12.5", 5, M::kUp, "12.5"},      {"0.001", -5, M::kPlain, "0"},
      {k38Nines, -1, M::kPlain, k1e38},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value + " scale " + std::to_string(c.scale) + " mode " +
                 std::to_string(static_cast<int>(c.mode)));
    const LMDecimal r = dec(c.value).decimalNumberByRoundingToDecimalPlaces(c.scale, c.mode);
    EXPECT_EQ(r.stringValue(), c.rounded);
    EXPECT_EQ(r.isNegative(), c.rounded[0] == '-');
  }
  EXPECT_EQ(dec("-1.005").fixedValue().stringValue(), "-1.01");
  EXPECT_EQ(dec("2.345").decimalNumberByRoundingToDecimalPlaces(2).stringValue(), "2.35");
  EXPECT_TRUE(LMDecimal::notANumber().fixedValue().isNaN());
}

TEST(DecimalTest, ComparesNumericallyWithNaNFirst) {
  const LMDecimal nan = LMDecimal::notANumber();
  const struct {
    LMDecimal a, b;
    int order;
  } cases[] = {
      {dec("12.5"), dec("12.50"), 0}, {dec("1"), dec("2"), -1},      {dec("-1"), dec("-2"), 1},
      {dec("-1"), dec("0"), -1},      {dec("0"), dec("-0"), 0},      {dec("1e-128"), dec("0"), 1},
      {dec("10"), dec("9.99"), 1},
      {dec("1.0000000000000000000000000000000000001"), dec("1"), 1},
      {dec("0.09"), dec("0.1"), -1},
      {nan, nan, 0},
      {nan, dec("-1e127"), -1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.a.stringValue() + " vs " + c.b.stringValue());
    EXPECT_EQ(c.a.compare(c.b), c.order);
    EXPECT_EQ(c.b.compare(c.a), -c.order);
    EXPECT_EQ(c.a == c.b, c.order == 0);
    EXPECT_EQ(c.a != c.b, c.order != 0);
    EXPECT_EQ(c.a < c.b, c.order < 0);
    EXPECT_EQ(c.a <= c.b, c.order <= 0);
    EXPECT_EQ(c.a > c.b, c.order > 0);
    EXPECT_EQ(c.a >= c.b, c.order >= 0);
  }
}

TEST(DecimalTest, IntegerValuesTruncateTowardZeroAndSaturate) {
  const struct {
    LMDecimal value;
    int64_t integer;
    int64_t amount;
  } cases[] = {
      {dec("12.99"), 12, 1299},  {dec("-3.05"), -3, -305}, {dec("12.345"), 12, 1234},
      {dec("-0.019"), 0, -1},    {dec("0.999"), 0, 99},    {dec("-0.5"), 0, -50},
      {LMDecimal::notANumber(), 0, 0},
      {dec("9223372036854775807"), INT64_MAX, INT64_MAX},
      {dec("9223372036854775808"), INT64_MAX, INT64_MAX},
      {dec("-9223372036854775808"), INT64_MIN, INT64_MIN},
      {dec("-92233720368547758.08"), -92233720368547758, INT64_MIN},
      {dec("1e127"), INT64_MAX, INT64_MAX},
      {dec("-1e30"), INT64_MIN, INT64_MIN},
      {dec("1e-128"), 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value.stringValue());
    EXPECT_EQ(c.value.integerValue(), c.integer);
    EXPECT_EQ(c.value.amountIntegerValue(), c.amount);
  }
}

TEST(DecimalTest, CalculatesAndDeductsPercentages) {
  const LMDecimal gross = dec("119");
  EXPECT_EQ(gross.decimalNumberCalculatePercentage(dec("19")).stringValue(), "22.61");
  EXPECT_EQ(gross.decimalNumberCalculatePercentage(std::nullopt), LMDecimal::zero());
  EXPECT_EQ(gross.decimalNumberByDeductingPercentage(dec("19")).stringValue(), "96.39");
  EXPECT_EQ(gross.decimalNumberByDeductingPercentage(std::nullopt), gross);
  EXPECT_TRUE(gross.decimalNumberCalculatePercentage(LMDecimal::notANumber()).isNaN());
  EXPECT_EQ(dec("-50").decimalNumberCalculatePercentage(dec("7.7")).stringValue(), "-3.85");
}

TEST(DecimalTest, RoundsToNearestFiveHundredths) {
  const struct {
    std::string value, rounded;
  } cases[] = {
      {"1.024", "1"},   {"1.025", "1.05"}, {"-1.025", "-1.05"}, {"1.074", "1.05"},
      {"1.075", "1.1"}, {"0", "0"},        {"-0.02", "0"},      {"19.99", "20"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value);
    EXPECT_EQ(dec(c.value).decimalNumberByRoundingToCHF().stringValue(), c.rounded);
  }
}

TEST(DecimalTest, ConvertsToNearestDouble) {
  EXPECT_EQ(dec("12.5").doubleValue(), 12.5);
  EXPECT_EQ(dec("-3.05").doubleValue(), -3.05);
  EXPECT_EQ(dec("0.1").doubleValue(), 0.1);
  EXPECT_EQ(dec("1e-128").doubleValue(), 1e-128);
}

}  // namespace
