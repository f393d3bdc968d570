#include "kit/value.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <limits>

#include "kit/unicode.h"

namespace {

class Thing : public LMObject {
 public:
  std::u16string className() const override { return u"Thing"; }
  LMValue jsonObject() const override { return LMDictionary{{u"thing", true}}; }
};

TEST(ValueTest, ToIntReadsLeadingIntegersAndSaturates) {
  struct Case {
    LMValue value;
    int64_t expected;
  } cases[] = {
      {u"42abc", 42},
      {u"  -7,5", -7},
      {u"+3", 3},
      {u"abc", 0},
      {u"", 0},
      {u"99999999999999999999", std::numeric_limits<int64_t>::max()},
      {u"-99999999999999999999", std::numeric_limits<int64_t>::min()},
      {LMValue(3.9), 3},
      {LMValue(-3.9), -3},
      {LMValue(true), 1},
      {LMDecimal::fromString("12.99").value(), 12},
      {LMDate::fromTimeIntervalSince1970(1000), 0},
      {LMValue::null(), 0},
      {LMValue(), 0},
      {LMArray{1, 2}, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.value.description()));
    EXPECT_EQ(c.expected, c.value.toInt());
  }
}

TEST(ValueTest, ToBoolAndToFloatFollowTextRules) {
  for (const char16_t* yes : {u"YES", u"true", u" t", u"-0009", u"1x", u"Y"}) {
    SCOPED_TRACE(lmUtf8(yes));
    EXPECT_TRUE(LMValue(yes).toBool());
  }
  for (const char16_t* no : {u"NO", u"false", u"0", u"", u"-0", u"x1", u" "}) {
    SCOPED_TRACE(lmUtf8(no));
    EXPECT_FALSE(LMValue(no).toBool());
  }
  EXPECT_FLOAT_EQ(3.5f, LMValue(u" 3.5kg").toFloat());
  EXPECT_FLOAT_EQ(-1e3f, LMValue(u"-1e3").toFloat());
  EXPECT_FLOAT_EQ(2.f, LMValue(u"2e").toFloat());
  EXPECT_FLOAT_EQ(0.f, LMValue(u"x").toFloat());
  EXPECT_FLOAT_EQ(1000.f, LMValue(LMDate::fromTimeIntervalSince1970(1000)).toFloat());
}

TEST(ValueTest, ToStringOfEveryKind) {
  EXPECT_EQ(u"", LMValue::null().toString());
  EXPECT_EQ(u"", LMValue().toString());
  EXPECT_EQ(u"3.5", LMValue(3.5).toString());
  EXPECT_EQ(u"0.1", LMValue(0.1).toString());
  EXPECT_EQ(u"-12", LMValue(-12).toString());
  EXPECT_EQ(u"1", LMValue(true).toString());
  EXPECT_EQ(u"12.5", LMValue(LMDecimal::decimalNumberWithAmountInteger(1250)).toString());
  EXPECT_EQ(u"0", LMValue(LMDate::fromTimeIntervalSince1970(0.9)).toString());
  EXPECT_EQ(u"€", LMValue(LMData{0xE2, 0x82, 0xAC}).toString());
  EXPECT_EQ(u"", LMValue(LMData{0xFF}).toString());
  EXPECT_EQ(0u, LMValue(std::make_shared<Thing>()).toString().find(u"<Thing: 0x"));
}

TEST(ValueTest, TruthAndEmptiness) {
  struct Case {
    LMValue value;
    bool isTrue;
  } cases[] = {
      {LMValue(), false},
      {LMValue::null(), false},
      {LMArray{}, false},
      {LMArray{1}, true},
      {u"", false},
      {u"x", true},
      {LMDictionary{}, false},
      {LMDictionary{{u"a", 1}}, true},
      {0, false},
      {0.0, false},
      {-1, true},
      {LMDecimal::zero(), false},
      {LMDecimal::notANumber(), false},
      {LMDecimal::fromInt(2), true},
      {LMData{}, false},
      {LMDate(), true},
      {std::make_shared<Thing>(), true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.value.description()));
    EXPECT_EQ(c.isTrue, c.value.isTrue());
  }
  EXPECT_FALSE(LMValue::null().isNotEmpty());
  EXPECT_TRUE(LMValue(u"a").isNotEmpty());
  EXPECT_TRUE(LMValue::null().nilOrObject().isNil());
  EXPECT_EQ(LMValue(3), LMValue(3).nilOrObject());
}

TEST(DictionaryTest, KeepsInsertionOrderAndReplacesInPlace) {
  LMDictionary d;
  for (int i = 0; i < 40; ++i) d.set(u"k" + lmUtf16(std::to_string(39 - i)), i);
  d.set(u"k39", u"first");
  d.set(u"k0", LMValue::null());
  ASSERT_EQ(40u, d.size());
  EXPECT_EQ(u"k39", d.entries().front().key);
  EXPECT_EQ(u"first", d.at(u"k39").toString());
  EXPECT_EQ(u"k0", d.entries().back().key);
  EXPECT_TRUE(d.contains(u"k0"));
  EXPECT_EQ(nullptr, d.key(u"k0"));       // null marker reads as nil
  EXPECT_EQ(nullptr, d.key(u"missing"));  // so does an absent key
  EXPECT_TRUE(d.at(u"missing").isNil());
  EXPECT_TRUE(d.remove(u"k20"));
  EXPECT_FALSE(d.remove(u"k20"));
  EXPECT_EQ(39u, d.size());
  EXPECT_EQ(20, d.at(u"k19").toInt());  // index still right after removal
  d.set(u"k20", 7);
  EXPECT_EQ(u"k20", d.entries().back().key);
}

TEST(ArrayTest, HelpersSortJoinMapAndFilter) {
  LMArray a{3, LMDecimal::fromString("2.5").value(), 1.5, 10};
  LMArray sorted = lmSorted(a);
  EXPECT_EQ(u"1.5, 2.5, 3, 10", lmJoin(sorted, u", "));
  EXPECT_EQ(u"a,b,c", lmJoin(lmSorted(LMArray{u"c", u"a", u"b"}), u","));
  LMArray mapped = lmMap(a, [](const LMValue& v) { return v.toInt() > 2 ? v : LMValue(); });
  EXPECT_EQ(u"3 10", lmJoin(mapped, u" "));
  LMArray odd = lmFilter(LMArray{1, 2, 3}, [](const LMValue& v) { return v.toInt() % 2 == 1; });
  EXPECT_EQ(u"1 3", lmJoin(odd, u" "));
  EXPECT_EQ(nullptr, lmFirst(LMArray{}));
  EXPECT_EQ(LMValue(10), *lmLast(a));
}

TEST(JsonTest, ProjectionTurnsDatesAndDecimalsIntoText) {
  LMDictionary d{{u"date", LMDate::fromTimeIntervalSince1970(1614729600.7)},
                 {u"gross", LMDecimal::decimalNumberWithAmountInteger(1250)},
                 {u"list", LMArray{LMDecimal::fromInt(1), LMValue::null()}},
                 {u"thing", std::make_shared<Thing>()}};
  LMValue projected = LMValue(d).jsonObject();
  EXPECT_EQ(u"{\"date\":\"1614729600\",\"gross\":\"12.5\",\"list\":[\"1\",null],"
            u"\"thing\":{\"thing\":true}}",
            projected.toJSON().value());
  // Without the projection a date cannot be written.
  EXPECT_FALSE(LMValue(d).toJSON().has_value());
  EXPECT_FALSE(LMValue(LMArray{LMData{1}}).toJSON().has_value());
  EXPECT_FALSE(LMValue(LMArray{std::numeric_limits<double>::infinity()}).toJSON().has_value());
  EXPECT_EQ(u"[\n  1,\n  \"ä\"\n]", LMValue(LMArray{1, u"ä"}).toJSONPretty().value());
}

TEST(JsonTest, WriterInPiecesWritesWhatTheLibraryWrites) {
  LMArray many;
  for (int i = 0; i < 20000; ++i) many.emplace_back(LMDictionary{{u"n", i * 0.1}});
  const LMValue cases[] = {
      LMValue(LMDictionary{{u"a", LMArray{}}, {u"b", LMDictionary{}}, {u"c\"\n\u00e4", -0.0},
                           {u"d", LMArray{1e300, 5e-324, -7, true, LMValue::null()}},
                           {u"e", u"tab\t\u0001 \xD800 \U0001F600"}}),
      LMValue(LMArray{LMArray{LMArray{}}, LMDictionary{{u"x", LMArray{1, 2}}}}),
      LMValue(many),
  };
  for (const LMValue& value : cases) {
    for (bool pretty : {false, true}) {
      SCOPED_TRACE(pretty);
      std::string written;
      int pieces = 0;
      ASSERT_TRUE(lmWriteJSON(value, 0, pretty, [&](std::string_view piece) {
        written += piece;
        ++pieces;
      }));
      const auto tree = nlohmann::ordered_json::parse(written);
      EXPECT_EQ(tree.dump(pretty ? 2 : -1), written);
      EXPECT_EQ(pieces > 1, written.size() > 70000);
    }
  }
}

TEST(JsonTest, WriterProjectsAsJsonObjectDoes) {
  const LMValue decimal = LMDecimal::decimalNumberWithAmountInteger(1250);
  const LMDictionary d{{u"date", LMDate::fromTimeIntervalSince1970(1614729600.7)},
                       {u"list", LMArray{decimal, std::make_shared<Thing>()}}};
  for (int projections : {0, 1, 2}) {
    SCOPED_TRACE(projections);
    LMValue projected = LMValue(d);
    for (int i = 0; i < projections; ++i) projected = projected.jsonObject();
    std::string written;
    const bool ok =
        lmWriteJSON(LMValue(d), projections, false, [&](std::string_view p) { written += p; });
    EXPECT_EQ(projected.toJSONData().has_value(), ok);
    EXPECT_EQ(projected.toJSONData().value_or(""), written);
  }
}

TEST(JsonTest, ReadsObjectsAndArraysAndRefusesEverythingElse) {
  auto parsed = LMValue::fromJSON(u"{\"b\": [1, 2.5, true, null, \"x\u00e4\"], \"a\": {}}");
  ASSERT_TRUE(parsed);
  EXPECT_EQ(u"b", parsed->asDictionary()->entries()[0].key);
  const LMArray& b = *parsed->at(u"b").asArray();
  EXPECT_EQ(LMValueKind::kInt, b[0].kind());
  EXPECT_EQ(LMValueKind::kDouble, b[1].kind());
  EXPECT_EQ(LMValueKind::kBool, b[2].kind());
  EXPECT_TRUE(b[3].isNull());
  EXPECT_EQ(u"x\u00e4", b[4].toString());
  for (const char16_t* bad : {u"", u"{", u"42", u"\"text\"", u"{\"a\":}", u"[1,]"}) {
    SCOPED_TRACE(lmUtf8(bad));
    EXPECT_FALSE(LMValue::fromJSON(bad).has_value());
  }
  EXPECT_FALSE(LMValue::fromJSONData(std::string(100000, '[')).has_value());
  EXPECT_TRUE(LMValue::fromJSONData(std::string(100, '[') + std::string(100, ']')).has_value());
}

TEST(ValueTest, EqualityIsDeepAndNumbersCompareByValue) {
  EXPECT_EQ(LMValue(LMArray{1, u"a"}), LMValue(LMArray{1, u"a"}));
  EXPECT_FALSE(LMValue(LMArray{1}) == LMValue(LMArray{2}));
  EXPECT_EQ(LMValue(LMDictionary{{u"a", 1}, {u"b", 2}}),
            LMValue(LMDictionary{{u"b", 2}, {u"a", 1}}));
  EXPECT_EQ(LMValue(1), LMValue(1.0));
  EXPECT_EQ(LMValue(LMDecimal::fromInt(5)), LMValue(5));
  EXPECT_FALSE(LMValue(u"1") == LMValue(1));
  EXPECT_FALSE(LMValue() == LMValue::null());
  // Attributed strings made apart compare by text and runs.
  const LMAttributedString text{u"ab", {{LMTextRange::make(0, 1), LMDictionary{{u"b", true}}}}};
  EXPECT_EQ(LMValue(text), LMValue(LMAttributedString(text)));
  EXPECT_FALSE(LMValue(text) == LMValue(LMAttributedString{u"ab", {}}));
}

}  // namespace
