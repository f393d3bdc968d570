#include "service/keyed_archive.h"

#include <gtest/gtest.h>

#include <limits>
#include <optional>

#include "elements/found_date.h"
#include "elements/found_number.h"
#include "service/archive_test_util.h"

// The archive's layout as other readers see it (class chains, decimal and
// attribute-run encodings, what is written once) is checked with Python's
// plistlib by keyed_archive_interop_test.py.

namespace {

TEST(KeyedArchiveTest, RoundTripsEveryKindOfValueExactly) {
  const LMValue cases[] = {
      LMValue(),
      true,
      false,
      0,
      -1,
      std::numeric_limits<int64_t>::min(),
      std::numeric_limits<int64_t>::max(),
      0.1,
      -0.0,
      1e300,
      std::numeric_limits<double>::infinity(),
      u"",
      u"Grüße 😀 \U0001F9FE",
      u"$null",
      LMData{},
      LMData{0, 255, 16, 128},
      LMValue::null(),
      LMDate::fromTimeIntervalSinceReferenceDate(631152000.123456),
      LMDate::fromTimeIntervalSinceReferenceDate(-1.000001),
      dec("12.50"),
      dec("-0.019"),
      dec("99999999999999999999999999999999999999"),
      dec("1e-128"),
      dec("-9e127"),
      LMDecimal::zero(),
      LMDecimal::notANumber(),
      LMArray{},
      LMDictionary{},
      LMArray{1, 1.0, true, u"1", LMArray{LMDictionary{}}},
      LMDictionary{{u"z", 1}, {u"a", LMValue::null()}, {u"m", LMArray{u"x", u"x"}}},
  };
  for (const LMValue& value : cases) {
    SCOPED_TRACE(dump(value));
    EXPECT_EQ(dump(value), dump(roundTrip(value)));
  }
  // Texts cannot carry U+0000 or unpaired surrogates; one unit for one.
  EXPECT_EQ(LMValue(u"a\uFFFDb\uFFFD"), roundTrip(std::u16string{u'a', 0, u'b', char16_t(0xD800)}));
  EXPECT_EQ(LMValue(std::u16string(100'000, u'\uFFFD')), roundTrip(std::u16string(100'000, u'\0')));
}

TEST(KeyedArchiveTest, AttributedStringsComeBackRunByRun) {
  const LMDictionary a{{u"LMPDFLineBox", u"{{72, 400}, {40.5, 12}}"}};
  const LMDictionary b{{u"font", u"Helvetica-Bold"}, {u"size", 11.5}};
  using Runs = std::vector<LMAttributeRun>;
  // Where `out` differs from `in`, the wire form cannot tell the two apart.
  struct Case {
    const char* name;
    LMAttributedString in;
    std::optional<Runs> out = std::nullopt;  // none: `in`'s runs
  } cases[] = {
      {"empty", {u"", {}}},
      {"no runs", {u"Summe", {}}},
      {"one run over all", {u"Summe", {run(0, 5, a)}}},
      {"equal neighbours stay apart", {u"abcd", {run(0, 2, a), run(2, 2, a)}}},
      {"run without attributes kept", {u"ab\ncd", {run(0, 2, a), run(2, 1, {}), run(3, 2, b)}}},
      {"gaps become runs without attributes",
       {u"ab\ncd", {run(0, 2, a), run(3, 2, b)}},
       Runs{run(0, 2, a), run(2, 1, {}), run(3, 2, b)}},
      {"zero-length runs dropped",
       {u"abc", {run(0, 0, b), run(0, 3, a), run(3, 0, b)}},
       Runs{run(0, 3, a)}},
      {"one empty run is no runs", {u"abc", {run(0, 3, {})}}, Runs{}},
      {"long runs", {std::u16string(300, u'x'), {run(0, 200, a), run(200, 100, b)}}},
      {"non-BMP text counts units", {u"😀x", {run(0, 2, a), run(2, 1, b)}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const LMAttributedString expected{c.in.string, c.out.value_or(c.in.runs)};
    EXPECT_EQ(dump(expected), dump(roundTrip(c.in)));
  }
}

TEST(KeyedArchiveTest, ElementsKeepTheirArchivedPropertiesOnly) {
  auto number = std::make_shared<LMFoundNumber>(-305, 2);
  number->setPage(3);
  number->setPageBox(LMRect{0, 0, 595.28, 841.89});
  number->setBbox(LMRect{-1.5, 1e-7, 42, 11.25});
  number->setString(u"-3,05");
  number->setKey(u"amount");
  number->setUserInfo(LMDictionary{{u"n", 1}, {u"d", LMData{1, 2, 3}}});
  number->setNumberString(u"-3,05");
  number->setDebugInfo(LMDictionary{{u"score", 0.75}});
  number->setRange(LMTextRange::make(4, 5));
  number->setOcr(true);
  number->setBold(true);
  number->setSortWeight(2.5);
  number->setCurrencyCode(u"EUR");
  auto back = roundTrip(number).objectAs<LMFoundNumber>();
  ASSERT_TRUE(back);
  EXPECT_EQ(-305, back->integerValue());
  EXPECT_EQ(3, back->page());
  EXPECT_EQ(number->pageBox(), back->pageBox());
  EXPECT_EQ(number->bbox(), back->bbox());
  EXPECT_EQ(number->string(), back->string());
  EXPECT_EQ(number->key(), back->key());
  EXPECT_EQ(dump(number->userInfo()), dump(back->userInfo()));
  EXPECT_EQ(number->numberString(), back->numberString());
  EXPECT_EQ(number->debugInfo(), back->debugInfo());
  // Not archived; nor are the decimal places or a term's information, which
  // the interop test checks.
  EXPECT_EQ(LMTextRange(), back->range());
  EXPECT_FALSE(back->isOcr() || back->bold() || back->currencyCode());
  EXPECT_EQ(0, back->sortWeight());

  auto date = std::make_shared<LMFoundDate>();
  date->setDate(LMDate::fromTimeIntervalSinceReferenceDate(636249600.000001));
  date->setDateString(u"01.03.2021");
  auto dateBack = roundTrip(date).objectAs<LMFoundDate>();
  ASSERT_TRUE(dateBack);
  EXPECT_EQ(date->date(), dateBack->date());
  EXPECT_EQ(date->dateString(), dateBack->dateString());
}

// That a shared element is written once is the interop test's.
TEST(KeyedArchiveTest, SharedElementsAreReadShared) {
  auto shared = std::make_shared<LMFoundNumber>(1250, 2);
  auto other = std::make_shared<LMFoundNumber>(700, 2);
  const std::vector<uint8_t> bytes =
      serialize(LMDictionary{{u"numbers", LMArray{shared, other}}, {u"gross", shared}});
  const LMValue decoded = unserialize(bytes);
  const LMArray* numbers = decoded.at(u"numbers").asArray();
  ASSERT_TRUE(numbers && numbers->size() == 2);
  EXPECT_EQ(decoded.at(u"gross").asObject(), (*numbers)[0].asObject());
  EXPECT_NE((*numbers)[0].asObject(), (*numbers)[1].asObject());
}

TEST(KeyedArchiveTest, ReleasingTheTreeWritesTheSameBytes) {
  const auto tree = [] {
    auto shared = std::make_shared<LMFoundNumber>(1250, 2);
    shared->setDebugInfo(LMDictionary{{u"score", 0.75}});
    LMArray many;
    for (int i = 0; i < 30'000; ++i) many.push_back(std::make_shared<LMFoundNumber>(i, 2));
    return LMValue(LMDictionary{{u"gross", shared},
                                {u"numbers", LMArray{shared, LMData{1, 2}, std::move(many)}},
                                {u"page", LMAttributedString{u"ab", {run(0, 1, {{u"b", true}})}}}});
  };
  LMValue given = tree();
  const auto released = lxDataSerializeReleasing(std::move(given));
  ASSERT_TRUE(released);
  EXPECT_EQ(serialize(tree()), *released);
  EXPECT_TRUE(given.isNil());
}

}  // namespace
