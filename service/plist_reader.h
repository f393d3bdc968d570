// LMPlistReader: a binary property list ("bplist00") read where it lies,
// for the keyed-archive decoder. Failures (a malformed list) unwind as
// LMArchiveError to the decoder's entry point.
#pragma once
#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "kit/unicode.h"
#include "kit/value.h"
#include "service/archive_format.h"
#include "service/plist_writer.h"

// An unsigned big-endian number of `n` bytes (at most 8).
inline uint64_t lmReadBigEndian(const uint8_t* p, size_t n) {
  switch (n) {  // the common widths without a loop
    case 1:
      return p[0];
    case 2:
      return uint64_t{p[0]} << 8 | p[1];
    default: {
      uint64_t value = 0;
      for (size_t i = 0; i < n; ++i) value = (value << 8) | p[i];
      return value;
    }
  }
}

enum class LMPlistType : uint8_t {
  kNone,  // an absent dictionary entry
  kBool,
  kInteger,
  kReal,
  kDate,
  kData,
  kAscii,
  kUtf16,
  kUid,
  kArray,
  kDict
};

// One object of a binary property list, read in place.
struct LMPlistNode {
  LMPlistType type = LMPlistType::kNone;
  // Bytes of data, units of a text, entries of an array or dictionary, bytes
  // of a number or reference; the value of a boolean.
  uint64_t count = 0;
  const uint8_t* payload = nullptr;
};

// A binary property list read where it lies. The trailer is checked up front;
// each object is found through the offset table when it is asked for, and its
// offset, count and references are checked against the data then. Nothing is
// built ahead of the caller and nothing is copied but the texts and bytes it
// takes, so a list whose parts nest deeply or are shared many times costs only
// what the caller walks of it, under the caller's own limits.
class LMPlistReader {
 public:
  explicit LMPlistReader(std::span<const uint8_t> b) : data_(b.data()) {
    constexpr size_t kHeader = 8;
    constexpr size_t kTrailer = 32;
    if (b.size() < kHeader + kTrailer + 1 || std::memcmp(b.data(), "bplist00", kHeader) != 0)
      lmArchiveFail("not a binary property list");
    const uint8_t* trailer = b.data() + b.size() - kTrailer;
    offsetSize_ = trailer[6];
    refSize_ = trailer[7];
    count_ = lmReadBigEndian(trailer + 8, 8);
    root_ = lmReadBigEndian(trailer + 16, 8);
    table_ = lmReadBigEndian(trailer + 24, 8);
    const uint64_t dataEnd = b.size() - kTrailer;
    if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8 || count_ == 0 ||
        root_ >= count_ || table_ < kHeader || table_ > dataEnd ||
        (dataEnd - table_) / offsetSize_ < count_) {
      lmArchiveFail("the property list's trailer is inconsistent");
    }
    if (count_ <= kCachedObjects) cache_.resize(count_);
  }

  LMPlistNode root() const { return object(root_); }

  // Entry `i` of an array, or of a dictionary's keys (i < count) followed by
  // its values.
  LMPlistNode item(const LMPlistNode& container, uint64_t i) const {
    const uint64_t ref = lmReadBigEndian(container.payload + i * refSize_, refSize_);
    if (ref >= count_) lmArchiveFail("a property-list reference is out of range");
    return object(ref);
  }

  // The value under the ASCII `key` of a dictionary; kNone when absent.
  template <typename Key>
  LMPlistNode field(const LMPlistNode& dict, Key key) const {
    if (dict.type != LMPlistType::kDict) return {};
    for (uint64_t i = 0; i < dict.count; ++i) {
      if (textEquals(item(dict, i), key)) return item(dict, dict.count + i);
    }
    return {};
  }

  // Object `index` (below the count), read once and then remembered for
  // lists of up to kCachedObjects objects.
  LMPlistNode object(uint64_t index) const {
    if (cache_.empty()) return parse(index);
    LMPlistNode& cached = cache_[index];
    if (cached.type == LMPlistType::kNone) cached = parse(index);
    return cached;
  }

  LMPlistNode parse(uint64_t index) const {
    const uint64_t offset = lmReadBigEndian(data_ + table_ + index * offsetSize_, offsetSize_);
    if (offset < 8 || offset >= table_) lmArchiveFail("a property-list object lies outside the data");
    const uint8_t marker = data_[offset];
    const uint8_t low = marker & 0x0F;
    uint64_t p = offset + 1;
    auto sizeField = [&]() -> uint64_t {
      if (low != 0x0F) return low;
      if (p >= table_ || (data_[p] & 0xF0) != 0x10 || (data_[p] & 0x0F) > 3)
        lmArchiveFail("a property-list object has a malformed count");
      const size_t n = size_t{1} << (data_[p] & 0x0F);
      if (table_ - p - 1 < n) lmArchiveFail("a property-list object has a malformed count");
      const uint64_t value = lmReadBigEndian(data_ + p + 1, n);
      p += 1 + n;
      // Nothing can be longer than the data it lies in.
      if (value > table_) lmArchiveFail("a property-list object passes the end of the data");
      return value;
    };
    LMPlistNode node;
    uint64_t length = 0;
    switch (marker >> 4) {
      case 0x0:
        if (low != 0x08 && low != 0x09) lmArchiveFail("unsupported property-list object");
        return {LMPlistType::kBool, low == 0x09 ? 1u : 0u, nullptr};
      case 0x1:
        if (low > 4) lmArchiveFail("unsupported property-list integer size");
        node = {LMPlistType::kInteger, uint64_t{1} << low, nullptr};
        length = node.count;
        break;
      case 0x2:
        if (low != 2 && low != 3) lmArchiveFail("unsupported property-list real size");
        node = {LMPlistType::kReal, uint64_t{1} << low, nullptr};
        length = node.count;
        break;
      case 0x3:
        if (low != 3) lmArchiveFail("unsupported property-list date size");
        node = {LMPlistType::kDate, 8, nullptr};
        length = 8;
        break;
      case 0x4:
        node = {LMPlistType::kData, sizeField(), nullptr};
        length = node.count;
        break;
      case 0x5:
        node = {LMPlistType::kAscii, sizeField(), nullptr};
        length = node.count;
        break;
      case 0x6:
        node = {LMPlistType::kUtf16, sizeField(), nullptr};
        length = 2 * node.count;
        break;
      case 0x8:
        if (low > 7) lmArchiveFail("unsupported property-list reference size");
        node = {LMPlistType::kUid, uint64_t{low} + 1, nullptr};
        length = node.count;
        break;
      case 0xA:
        node = {LMPlistType::kArray, sizeField(), nullptr};
        length = node.count * refSize_;
        break;
      case 0xD:
        node = {LMPlistType::kDict, sizeField(), nullptr};
        length = 2 * node.count * refSize_;
        break;
      default:
        lmArchiveFail("unsupported property-list object");
    }
    if (length > table_ - p) lmArchiveFail("a property-list object passes the end of the data");
    node.payload = data_ + p;
    return node;
  }

  static bool isText(const LMPlistNode& n) {
    return n.type == LMPlistType::kAscii || n.type == LMPlistType::kUtf16;
  }

  // Whether a text object holds exactly `key` (ASCII or UTF-16 units).
  template <typename Key>
  static bool textEquals(const LMPlistNode& n, Key key) {
    if (!isText(n) || n.count != key.size()) return false;
    if (n.type == LMPlistType::kAscii) {
      if constexpr (std::is_same_v<Key, std::string_view>)
        return key.empty() || std::memcmp(n.payload, key.data(), key.size()) == 0;
      for (size_t i = 0; i < key.size(); ++i)
        if (n.payload[i] != static_cast<uint32_t>(key[i])) return false;
      return true;
    }
    for (size_t i = 0; i < key.size(); ++i) {
      const uint32_t unit = uint32_t{n.payload[2 * i]} << 8 | n.payload[2 * i + 1];
      if (unit != static_cast<uint32_t>(key[i])) return false;
    }
    return true;
  }

  // A text's units. U+0000 is refused (it ends texts for readers that use C
  // strings, so no archive of this system's holds it); unpaired surrogates
  // become U+FFFD, one unit for one, as the writer does. Bytes above 0x7F in
  // an ASCII text are read as UTF-8.
  static std::u16string text(const LMPlistNode& n) {
    if (n.type == LMPlistType::kAscii) {
      const uint8_t* bytes = n.payload;
      uint8_t high = 0;
      bool zero = false;
      for (uint64_t i = 0; i < n.count; ++i) {
        high |= bytes[i];
        zero |= bytes[i] == 0;
      }
      if (zero) lmArchiveFail("a property-list text holds U+0000");
      if (high & 0x80) return lmUtf16(std::string_view(reinterpret_cast<const char*>(bytes), n.count));
      return std::u16string(bytes, bytes + n.count);  // one unit a byte, no zero fill first
    }
    std::u16string out;
    if (n.type != LMPlistType::kUtf16) return out;
    out.resize(n.count);
    for (uint64_t i = 0; i < n.count; ++i) {
      out[i] = static_cast<char16_t>(n.payload[2 * i] << 8 | n.payload[2 * i + 1]);
      if (out[i] == 0) lmArchiveFail("a property-list text holds U+0000");
    }
    lmMakeCarriable(out);
    return out;
  }

  static LMData data(const LMPlistNode& n) {
    if (n.type != LMPlistType::kData) return {};
    return LMData(n.payload, n.payload + n.count);
  }

  // Integers of 1, 2 and 4 bytes are unsigned, of 8 bytes two's complement;
  // of 16 bytes the low 8 count. Booleans read as 0 and 1.
  static int64_t integer(const LMPlistNode& n) {
    if (n.type == LMPlistType::kBool) return static_cast<int64_t>(n.count);
    if (n.type != LMPlistType::kInteger) return 0;
    const size_t size = std::min<uint64_t>(n.count, 8);
    return static_cast<int64_t>(lmReadBigEndian(n.payload + n.count - size, size));
  }

  static double real(const LMPlistNode& n) {
    if (n.type != LMPlistType::kReal) return 0;
    if (n.count == 4)
      return std::bit_cast<float>(static_cast<uint32_t>(lmReadBigEndian(n.payload, 4)));
    return std::bit_cast<double>(lmReadBigEndian(n.payload, 8));
  }

  static uint64_t uid(const LMPlistNode& n) {
    return n.type == LMPlistType::kUid ? lmReadBigEndian(n.payload, n.count) : 0;
  }

 private:
  static constexpr uint64_t kCachedObjects = 1u << 20;
  const uint8_t* data_;
  mutable std::vector<LMPlistNode> cache_;
  size_t offsetSize_;
  size_t refSize_;
  uint64_t count_;
  uint64_t root_;
  uint64_t table_;
};
