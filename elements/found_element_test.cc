#include <gtest/gtest.h>
#include <unicode/timezone.h>

#include "elements/found_date.h"
#include "elements/found_element.h"
#include "elements/found_number.h"
#include "elements/found_term.h"

namespace {

TEST(FoundElementTest, NormalizedDistanceBands) {
  struct Case {
    const char* name;
    LMRect element, other, page;
    double expected;
  } cases[] = {
      {"same rectangle", {100, 700, 50, 12}, {100, 700, 50, 12}, {0, 0, 500, 600}, 0},
      {"same row, gap 10", {100, 700, 50, 12}, {160, 700, 50, 12}, {0, 0, 500, 600}, 0.98},
      {"same row, gap 600", {0, 700, 50, 12}, {650, 700, 50, 12}, {0, 0, 500, 600}, 0},
      {"same row, touching", {100, 700, 50, 12}, {150, 700, 50, 12}, {0, 0, 500, 600}, 0},
      {"same row, zero page width", {100, 700, 50, 12}, {160, 700, 50, 12}, {0, 0, 0, 600}, 1},
      {"column, gap 30", {100, 700, 50, 12}, {100, 658, 50, 12}, {0, 0, 500, 600}, 1.95},
      {"diagonal 3-4-5", {0, 0, 10, 10}, {13, 14, 10, 10}, {0, 0, 500, 600}, 7},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LMFoundElement e;
    e.setBbox(c.element);
    e.setPageBox(c.page);
    EXPECT_NEAR(c.expected, e.normalizedDistanceToRect(c.other), 1e-9);
  }
}

TEST(FoundNumberTest, ValueIsAlwaysHundredths) {
  struct Case {
    int64_t integer;
    uint64_t places;
    const char16_t* text;
  } cases[] = {{1250, 2, u"12.5"}, {1250, 0, u"12.5"}, {-305, 2, u"-3.05"}, {0, 0, u"0"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.integer);
    LMFoundNumber n(c.integer, c.places);
    EXPECT_EQ(c.text, n.description());
    EXPECT_EQ(c.text, n.value().toString());
    EXPECT_EQ(c.text, n.jsonObject().jsonObject().at(u"number").toString());
  }
}

TEST(FoundNumberTest, JsonHasNullsAndTwoPlacesKeys) {
  LMFoundNumber n(1250, 2);
  n.setSortWeight(1.5);
  const LMValue json = n.jsonObject();
  EXPECT_TRUE(json.at(u"currencyCode").isNull());
  EXPECT_TRUE(json.at(u"features").isNull());
  EXPECT_EQ(2, json.at(u"places").toInt());
  EXPECT_EQ(2, json.at(u"decimalPlaces").toInt());
  EXPECT_EQ(LMValue(1.5), json.at(u"sortWeight"));
  EXPECT_FALSE(json.asDictionary()->contains(u"numberString"));
  n.setCurrencyCode(u"EUR");
  n.setFeatures(LMDictionary{{u"term", u"summe"}});
  EXPECT_EQ(u"{\"term\":\"summe\"}", n.jsonObject().at(u"features").toJSON().value());
}

TEST(FoundNumberTest, KeptNotesStayAsTheNumberWasWhenKept) {
  LMFoundNumber n(1250, 2);
  n.setFeatures(LMDictionary{{u"places", 2}});
  n.setSortWeight(1.5);
  n.keepDebugInfo();
  const LMValue kept = n.jsonObject();
  n.mutableFeatures()->set(u"sort_Weight_tax", 2.0);
  n.setSortWeight(2);
  n.setCurrencyCode(u"EUR");
  EXPECT_EQ(kept, LMValue(*n.debugInfo()));
  EXPECT_NE(kept, n.jsonObject());
  n.setDebugInfo(LMDictionary{{u"score", 0.75}});
  EXPECT_EQ(LMValue(LMDictionary{{u"score", 0.75}}), LMValue(*n.debugInfo()));
  n.keepDebugInfo();
  EXPECT_EQ(n.jsonObject(), LMValue(*n.debugInfo()));
}

TEST(FoundDateTest, SortWeightIsComputedOnEveryRead) {
  LMFoundDate d;
  d.setBbox({50, 700, 60, 10});
  EXPECT_EQ(100007000050, d.sortWeight());
  d.setSortWeight(5);
  EXPECT_EQ(100007000050, d.sortWeight());
  d.setPage(1);
  EXPECT_EQ(99997000050, d.sortWeight());
  d.setPage(0);
  d.setBbox({50.9, 700, 60, 10});
  EXPECT_EQ(100007000050, d.sortWeight());
  EXPECT_EQ(100007000050, d.jsonObject().at(u"sortWeight").toInt());
}

TEST(FoundDateTest, DescriptionIsTheDayInTheCurrentZone) {
  std::unique_ptr<icu::TimeZone> previous(icu::TimeZone::createDefault());
  icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("Europe/Berlin"));
  LMFoundDate d;
  d.setDate(LMDate::fromComponents(2021, 3, 3));
  EXPECT_EQ(u"2021-03-03", d.description());
  icu::TimeZone::adoptDefault(previous.release());
  LMFoundTerm term;
  term.setTermInfo(LMDictionary{{u"key", u"summe"}});
  EXPECT_TRUE(term.value().isNil());
}

}  // namespace
