#include "elements/feature_log.h"

#include <gtest/gtest.h>

namespace {

// One write: a key and its value, or a clear() when key is null; `keep`
// fixes the log after the write.
struct Write {
  const char16_t* key;
  LMValue value;
  bool keep = false;
};

std::u16string json(const LMDictionary& d) { return LMValue(d).toJSON().value_or(u"?"); }

TEST(FeatureLogTest, MakesTheDictionaryOfEveryKeptPrefix) {
  const std::vector<std::vector<Write>> cases = {
      {{u"amount", 1250},
       {u"currency", LMValue::null()},
       {u"places", 2},
       {u"stringOriginal", u"12,50"},
       {u"term", u"total", true},
       {u"font_size", 9.5},
       {u"term", u"tax"},
       {u"sort_Weight_tax", 2.0}},
      // A repeated key keeps its first place; the last value wins.
      {{u"term", u"a"},
       {u"term", u"bb"},
       {u"font_bold", 1.0},
       {u"term", u"ccc", true},
       {u"term", u"dddd"},
       {u"term", 7}},
      // A written-again key that a keep() fixed stays in the kept prefix.
      {{u"term", u"near", true}, {u"term", u"nearer"}},
      // Keys and values beyond the known ones; a clear in between.
      {{u"text_tax_7_percent_fit_1_7_4", 2.0},
       {u"flag", true, true},
       {nullptr, {}},
       {u"list", LMArray{1, u"x"}},
       {u"amount", 3},
       {u"flag", false, true}},
  };
  for (size_t c = 0; c < cases.size(); ++c) {
    SCOPED_TRACE(c);
    LMFeatureLog log;
    LMDictionary expected;
    std::vector<std::pair<size_t, std::u16string>> kept;
    for (const Write& w : cases[c]) {
      if (w.key) {
        log.set(w.key, w.value);
        expected.set(w.key, w.value);
      } else {
        log.clear();
        expected.clear();
      }
      if (w.keep) kept.emplace_back(log.keep(), json(expected));
    }
    EXPECT_EQ(json(expected), json(log.dictionary(log.size())));
    for (const auto& [count, text] : kept) EXPECT_EQ(text, json(log.dictionary(count)));
  }
}

}  // namespace
