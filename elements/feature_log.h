// LMFeatureLog: the named features of a found number, kept as the list of
// writes that made them rather than as a dictionary.
//
// The analysis writes a handful of features into every number and reads them
// only when the number is written out; a dictionary per number held most of a
// big document's memory. Known keys take a byte, numbers and null take no
// storage of their own; other keys and values are kept aside. The log only
// grows, so the dictionary as it stood after any earlier write can be made
// again from a prefix of it.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "kit/value.h"

class LMFeatureLog {
 public:
  // How many writes the log holds: what dictionary(count) takes to make the
  // dictionary as it is now.
  size_t size() const { return entries_.size(); }
  // LMDictionary::set(key, value) on the features.
  void set(std::u16string_view key, LMValue value);
  // Makes room for `count` more writes at once.
  void reserve(size_t count) { entries_.reserve(entries_.size() + count); }
  // Empties the features.
  void clear();
  // size(), after which the writes so far stay as they are, so that
  // dictionary(size()) keeps making the same dictionary.
  size_t keep();
  // The features the first `count` writes made, keys in the order of their
  // first write since the last clear().
  LMDictionary dictionary(size_t count) const;

 private:
  enum class Kind : uint8_t { kClear, kDouble, kInteger, kNull, kAside };
  struct Entry {
    uint8_t key;  // index into the known keys, or kKeyAside
    Kind kind;
    uint32_t keyAside;  // index into aside_ of the key text when key is kKeyAside
    uint64_t bits;      // the double's or the integer's bits; index into aside_ for kAside
  };
  static constexpr uint8_t kKeyAside = 0xff;
  std::vector<Entry> entries_;
  std::vector<LMValue> aside_;
  uint32_t kept_ = 0;
};
