#include "service/plist_writer.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include "service/archive_test_util.h"

namespace {

TEST(PlistWriterTest, ReferencesTakeTheWidthTheListNeeds) {
  // About two objects per number: below 256 objects, below 65,536, above.
  for (const auto& [numbers, width] : {std::pair{100, 1}, {300, 2}, {40'000, 4}}) {
    SCOPED_TRACE(numbers);
    LMArray items;
    for (int64_t i = 0; i < numbers; ++i) items.push_back(i * 1000 + 7);
    const std::vector<uint8_t> bytes = serialize(items);
    EXPECT_EQ(width, bytes[bytes.size() - 25]);  // the trailer's reference size
    plist_t parsed = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(bytes.data()), bytes.size(), &parsed);
    EXPECT_TRUE(parsed);
    plist_free(parsed);
    EXPECT_EQ(dump(items), dump(unserialize(bytes)));
  }
}

}  // namespace
