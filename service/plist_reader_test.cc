#include "service/plist_reader.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <functional>

#include "service/archive_test_util.h"

namespace {

// A binary property list written byte by byte: object i is an array of the
// references refs(i); object 0 is the top.
std::vector<uint8_t> handWrittenPlist(size_t count,
                                      const std::function<std::vector<uint32_t>(size_t)>& refs) {
  std::vector<uint8_t> out{'b', 'p', 'l', 'i', 's', 't', '0', '0'};
  auto big = [&](uint64_t v, int n) {
    for (int i = n - 1; i >= 0; --i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
  };
  std::vector<uint64_t> offsets;
  for (size_t i = 0; i < count; ++i) {
    offsets.push_back(out.size());
    const std::vector<uint32_t> r = refs(i);
    out.push_back(static_cast<uint8_t>(0xA0 | r.size()));
    for (uint32_t ref : r) big(ref, 4);
  }
  const uint64_t table = out.size();
  for (uint64_t o : offsets) big(o, 8);
  out.insert(out.end(), {0, 0, 0, 0, 0, 0, 8, 4});
  big(count, 8);
  big(0, 8);
  big(table, 8);
  return out;
}

TEST(PlistReaderTest, ReadsThePropertyListOnlyWhereTheArchiveLeads) {
  const auto next = [](size_t n) {
    return [n](size_t i) {
      return i + 1 < n ? std::vector<uint32_t>{uint32_t(i + 1)} : std::vector<uint32_t>{};
    };
  };
  // Lists a tree-building parser would choke on: over a million levels (more
  // objects than the reader remembers), sixty layers of [next, next] (2^60
  // nodes) and a loop. None is an archive.
  const auto layers = handWrittenPlist(61, [](size_t i) {
    return i < 60 ? std::vector<uint32_t>{uint32_t(i + 1), uint32_t(i + 1)}
                  : std::vector<uint32_t>{};
  });
  const auto loop =
      handWrittenPlist(2, [](size_t i) { return std::vector<uint32_t>{uint32_t(1 - i)}; });
  for (const auto& plist : {handWrittenPlist(1'100'000, next(1'100'000)), layers, loop}) {
    EXPECT_NE(std::string::npos, failureOf(plist).find("top level is no dictionary"));
  }

  // 10,000 nested arrays inside an object are not a value the archive holds.
  RawArchive raw;
  plist_t inner = plist_new_array();
  for (int i = 0; i < 10'000; ++i) {
    plist_t outer = plist_new_array();
    plist_array_append_item(outer, inner);
    inner = outer;
  }
  EXPECT_NE(std::string::npos,
            failureOf(raw.bytes(raw.object("Deep", {{"list", inner}}))).find("unsupported value"));

  // Offsets and references are checked where they are used.
  const std::vector<uint8_t> good = serialize(LMArray{1});
  const size_t offsetSize = good[good.size() - 26];
  const size_t table = good.back();  // below 256 in so small an archive
  const size_t root = good[good.size() - 9];
  std::vector<uint8_t> outside = good;
  outside[table + root * offsetSize + offsetSize - 1] = 0xFF;
  EXPECT_NE(std::string::npos, failureOf(outside).find("lies outside the data"));
  std::vector<uint8_t> rootBeyond = good;
  rootBeyond[rootBeyond.size() - 9] = 0xFF;
  EXPECT_NE(std::string::npos, failureOf(rootBeyond).find("trailer is inconsistent"));
}

}  // namespace
