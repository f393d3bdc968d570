// A range of UTF-16 code units in a text, and conversions from ICU's offsets.
#pragma once
#include <cstdint>
#include <limits>

// The location of a range that was not found.
inline constexpr uint64_t kLMNotFound =
    static_cast<uint64_t>(std::numeric_limits<int64_t>::max());

struct LMTextRange {
  uint64_t location = kLMNotFound;
  uint64_t length = 0;

  static constexpr LMTextRange make(uint64_t location, uint64_t length) {
    return LMTextRange{location, length};
  }
  // A range from ICU's start and end offsets; a negative start (a group that
  // took no part in the match) gives the not-found range.
  static constexpr LMTextRange fromICU(int32_t start, int32_t end) {
    if (start < 0 || end < start) return LMTextRange{};
    return LMTextRange{static_cast<uint64_t>(start),
                       static_cast<uint64_t>(end - start)};
  }

  constexpr bool found() const { return location != kLMNotFound; }
  constexpr uint64_t end() const { return location + length; }
  // True when this range lies inside a text of `textLength` units.
  constexpr bool fitsIn(uint64_t textLength) const {
    return found() && location <= textLength && length <= textLength - location;
  }
  constexpr bool contains(uint64_t index) const {
    return found() && index >= location && index < end();
  }
  // True when both ranges share at least one unit.
  constexpr bool intersects(const LMTextRange& other) const {
    return found() && other.found() && location < other.end() &&
           other.location < end();
  }
  friend constexpr bool operator==(const LMTextRange&, const LMTextRange&) = default;
};
