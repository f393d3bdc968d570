#include "kit/short_text.h"

#include <gtest/gtest.h>

#include <utility>

namespace {

TEST(ShortTextTest, KeepsEveryTextAcrossCopiesAndMoves) {
  const std::optional<std::u16string> cases[] = {
      std::nullopt, u"", u"R", u"EUR", u"EURO", u"Schweizer Franken", std::u16string(1, u'\0')};
  for (const auto& text : cases) {
    SCOPED_TRACE(text ? std::string(text->begin(), text->end()) : "<none>");
    LMShortText held(text);
    EXPECT_EQ(text, held.value());
    EXPECT_EQ(text.has_value(), held.hasValue());
    LMShortText copy(held);
    LMShortText moved(std::move(held));
    EXPECT_EQ(text, copy.value());
    EXPECT_EQ(text, moved.value());
    LMShortText overwritten(std::optional<std::u16string>(u"a longer text first"));
    overwritten = copy;
    EXPECT_EQ(text, overwritten.value());
    overwritten.assign(u"USD");
    EXPECT_EQ(u"USD", overwritten.value());
    EXPECT_EQ(text, copy.value());
  }
}

}  // namespace
