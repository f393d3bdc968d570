#include <gtest/gtest.h>
#include <unicode/timezone.h>

#include <map>

#include "elements/found_date.h"
#include "elements/found_element.h"
#include "elements/found_number.h"
#include "elements/found_term.h"

namespace {

// An archive kept in memory: what an element writes is what it reads back.
class MemoryCoder : public LMKeyedEncoder, public LMKeyedDecoder {
 public:
  void encodeInt64(std::u16string_view key, int64_t value) override { values_.set(key, value); }
  void encodeRect(std::u16string_view key, const LMRect& rect) override {
    values_.set(key, lmStringFromRect(rect));
    rects_[std::u16string(key)] = rect;
  }
  void encodeObject(std::u16string_view key, const LMValue& value) override {
    values_.set(key, value);
  }
  bool containsValueForKey(std::u16string_view key) const override {
    return values_.contains(key);
  }
  int64_t decodeInt64(std::u16string_view key) const override { return values_.at(key).toInt(); }
  LMRect decodeRect(std::u16string_view key) const override {
    auto it = rects_.find(std::u16string(key));
    return it == rects_.end() ? LMRect::zero() : it->second;
  }
  LMValue decodeObject(std::u16string_view key) const override { return values_.at(key); }
  const LMDictionary& values() const { return values_; }

 private:
  LMDictionary values_;
  std::map<std::u16string, LMRect> rects_;
};

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

TEST(FoundElementTest, ArchiveKeepsOnlyItsKeys) {
  auto e = std::make_shared<LMFoundElement>();
  e->setPage(2);
  e->setPageBox({0, 0, 595, 842});
  e->setBbox({10, 20, 30, 40});
  e->setUserInfo(LMDictionary{{u"a", 1}});
  e->setString(u"EUR");
  e->setKey(u"EUR");
  e->setRange({5, 3});
  e->setOcr(true);
  e->setFontSize(12);
  e->setDebugInfo(LMDictionary{{u"x", 1}});
  MemoryCoder coder;
  e->encodeWithCoder(coder);
  EXPECT_EQ((std::vector<std::u16string>{u"page", u"pageBox", u"bbox", u"userInfo", u"string",
                                         u"key"}),
            coder.values().keys());
  auto restored = lmMakeFoundElement(e->className());
  ASSERT_TRUE(restored);
  restored->initWithCoder(coder);
  EXPECT_EQ(2, restored->page());
  EXPECT_EQ(e->pageBox(), restored->pageBox());
  EXPECT_EQ(e->bbox(), restored->bbox());
  EXPECT_EQ(e->userInfo(), restored->userInfo());
  EXPECT_EQ(u"EUR", restored->string().value());
  EXPECT_EQ(u"EUR", restored->key().value());
  EXPECT_FALSE(restored->range().found());
  EXPECT_FALSE(restored->isOcr());
  EXPECT_EQ(0, restored->fontSize());
  EXPECT_FALSE(restored->debugInfo().has_value());
  EXPECT_EQ(nullptr, lmMakeFoundElement(u"NSObject"));
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

TEST(FoundNumberTest, ArchiveRestoresValueButNotPlaces) {
  LMFoundNumber n(1530, 2);
  n.setNumberString(u"15,30");
  n.setDebugInfo(LMDictionary{{u"page", 0}});
  n.setCurrencyCode(u"EUR");
  MemoryCoder coder;
  n.encodeWithCoder(coder);
  auto restored = std::dynamic_pointer_cast<LMFoundNumber>(lmMakeFoundElement(u"LMFoundNumber"));
  restored->initWithCoder(coder);
  EXPECT_EQ(1530, restored->integerValue());
  EXPECT_EQ(u"15,30", restored->numberString().value());
  EXPECT_EQ(LMValue(LMDictionary{{u"page", 0}}), LMValue(restored->debugInfo().value()));
  EXPECT_EQ(0u, restored->decimalPlaces());
  EXPECT_FALSE(restored->currencyCode().has_value());
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

TEST(FoundDateTest, DescriptionAndArchive) {
  std::unique_ptr<icu::TimeZone> previous(icu::TimeZone::createDefault());
  icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("Europe/Berlin"));
  LMFoundDate d;
  d.setDate(LMDate::fromComponents(2021, 3, 3));
  d.setDateString(u"03.03.2021");
  EXPECT_EQ(u"2021-03-03", d.description());
  MemoryCoder coder;
  d.encodeWithCoder(coder);
  LMFoundDate restored;
  restored.initWithCoder(coder);
  EXPECT_EQ(d.date(), restored.date());
  EXPECT_EQ(u"03.03.2021", restored.dateString().value());
  icu::TimeZone::adoptDefault(previous.release());
  LMFoundTerm term;
  term.setTermInfo(LMDictionary{{u"key", u"summe"}});
  MemoryCoder termCoder;
  term.encodeWithCoder(termCoder);
  EXPECT_EQ(6u, termCoder.values().size());
  EXPECT_TRUE(term.value().isNil());
}

}  // namespace
