#include <gtest/gtest.h>

#include "elements/found_element.h"
#include "service/archive_test_util.h"

namespace {

TEST(ArchiveEncoderTest, RefusesTreesItCannotArchive) {
  struct Stranger : LMObject {
    std::u16string className() const override { return u"LMStranger"; }
  };
  auto looped = std::make_shared<LMFoundElement>();
  looped->setUserInfo(LMArray{looped});
  LMValue deep = LMArray{};
  for (int i = 0; i < 3000; ++i) {
    LMArray outer;
    outer.push_back(std::move(deep));
    deep = std::move(outer);
  }
  struct Case {
    const char* name;
    LMValue tree;
    const char* reason;
  } cases[] = {
      {"nil in an array", LMArray{1, LMValue()}, "nil inside an array"},
      {"nil in a dictionary", LMDictionary{{u"k", LMValue()}}, "nil inside a dictionary"},
      {"overlapping runs", LMAttributedString{u"abc", {run(0, 2, {}), run(1, 2, {})}}, "overlap"},
      {"run past the end", LMAttributedString{u"abc", {run(2, 2, {})}}, "end of their text"},
      {"run not found", LMAttributedString{u"abc", {run(kLMNotFound, 1, {})}}, "end of their text"},
      {"foreign object", LMValue(std::make_shared<Stranger>()),
       "class LMStranger cannot be archived"},
      {"element in itself", LMValue(looped), "contains itself"},
      {"deep tree", deep, "deeper than 512"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string error;
    EXPECT_FALSE(lxDataSerialize(c.tree, &error));
    EXPECT_NE(std::string::npos, error.find(c.reason)) << error;
  }
  looped->setUserInfo(LMValue());
}

}  // namespace
