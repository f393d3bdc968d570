#include "kit/key.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "kit/value.h"

namespace {

// Keys on both sides of the inline limit keep their text through copies,
// moves and assignments, and compare by text whatever their storage.
TEST(KeyTest, KeepsItsTextInlineOrShared) {
  const std::u16string longest(LMKey::kInlineUnits, u'a');
  for (const std::u16string& text : {std::u16string(), std::u16string(u"ä€"), longest,
                                     longest + u"b", std::u16string(300, u'x')}) {
    SCOPED_TRACE(text.size());
    LMKey key(text);
    LMKey copy = key;
    LMKey assigned(u"other");
    assigned = copy;
    LMKey moved = std::move(copy);
    EXPECT_EQ(text, key.view());
    EXPECT_EQ(text, assigned.view());
    EXPECT_EQ(text, moved.view());
    EXPECT_TRUE(copy.empty());
    EXPECT_EQ(key, LMKey(text));  // a separate block for a long one
    EXPECT_EQ(text.size() > LMKey::kInlineUnits, key.sharesStorageWith(moved));
  }
  EXPECT_FALSE(LMKey(longest + u"b") == LMKey(longest + u"c"));
  EXPECT_FALSE(LMKey(u"ab") == u"abc");
}

// A shared block lives as long as its last copy, on whatever thread that one
// is dropped (the sanitizer run catches a block freed too early or twice).
TEST(KeyTest, SharedTextOutlivesTheOriginalAcrossThreads) {
  std::vector<LMKey> copies;
  {
    const LMKey original(u"text_decimalplaces_eq_two");
    copies.assign(64, original);
  }
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = t; i < 64; i += 4) {
        LMKey mine = copies[i];
        EXPECT_EQ(u"text_decimalplaces_eq_two", mine.view());
        copies[i] = LMKey();
      }
    });
  }
  for (auto& thread : threads) thread.join();
}

TEST(KeyTest, DictionariesFindEntriesByTextWhateverTheKeyStorage) {
  LMDictionary d;
  d.emplace(LMKey(u"position_rightness"), 1);
  d.set(u"x", 2);
  d.emplace(LMKey(u"position_rightness"), 3);  // replaces, keeps its place
  EXPECT_EQ(2u, d.size());
  EXPECT_EQ(3, d.at(u"position_rightness").toInt());
  EXPECT_EQ(u"position_rightness", d.entries().front().key.view());
}

}  // namespace
