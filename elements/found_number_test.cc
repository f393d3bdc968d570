#include "elements/found_number.h"

#include <gtest/gtest.h>

namespace {

TEST(FoundNumberTest, ValueIsAlwaysHundredths) {
  struct Case {
    int64_t integer;
    uint64_t places;
    const char16_t* text;
  } cases[] = {{1250, 2, u"12.5"}, {1250, 0, u"12.5"}, {-305, 2, u"-3.05"}, {0, 0, u"0"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.integer);
    LMFoundNumber n(c.integer, c.places);
    EXPECT_EQ(c.text, n.value().toString());
    EXPECT_EQ(c.text, n.jsonObject().jsonObject().at(u"number").toString());
  }
}

TEST(FoundNumberTest, KeptNotesStayAsTheNumberWasWhenKept) {
  LMFoundNumber n(1250, 2);
  n.setFeatures(LMDictionary{{u"places", 2}});
  n.setSortWeight(1.5);
  n.keepDebugInfo();
  const LMValue kept = n.jsonObject();
  n.setFeature(u"sort_Weight_tax", 2.0);
  n.setSortWeight(2);
  n.setCurrencyCode(u"EUR");
  EXPECT_EQ(kept, LMValue(*n.debugInfo()));
  EXPECT_NE(kept, n.jsonObject());
  n.setDebugInfo(LMDictionary{{u"score", 0.75}});
  EXPECT_EQ(LMValue(LMDictionary{{u"score", 0.75}}), LMValue(*n.debugInfo()));
  n.keepDebugInfo();
  EXPECT_EQ(n.jsonObject(), LMValue(*n.debugInfo()));
}

}  // namespace
