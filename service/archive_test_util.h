// What the keyed-archive tests share: archives assembled by hand with
// libplist (an independent writer of binary property lists), the round trip
// through this system's writer and reader, and a text of a value tree that
// tells every kind apart.
#pragma once
#include <gtest/gtest.h>
#include <plist/plist.h>

#include <algorithm>
#include <bit>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kit/unicode.h"
#include "service/keyed_archive.h"

using PlistPtr = std::unique_ptr<void, decltype(&plist_free)>;

inline std::vector<uint8_t> toBytes(plist_t node) {
  char* bytes = nullptr;
  uint32_t length = 0;
  plist_to_bin(node, &bytes, &length);
  std::vector<uint8_t> out(bytes, bytes + length);
  plist_to_bin_free(bytes);
  return out;
}

inline plist_t uids(const std::vector<uint64_t>& refs) {
  plist_t array = plist_new_array();
  for (uint64_t r : refs) plist_array_append_item(array, plist_new_uid(r));
  return array;
}

// A keyed archive assembled by hand, for input our writer never produces.
class RawArchive {
 public:
  RawArchive() : top_(plist_new_dict(), &plist_free), objects_(plist_new_array()) {
    plist_dict_set_item(top_.get(), "$archiver", plist_new_string("NSKeyedArchiver"));
    plist_dict_set_item(top_.get(), "$version", plist_new_uint(100000));
    plist_dict_set_item(top_.get(), "$objects", objects_);
    add(plist_new_string("$null"));
  }
  uint64_t add(plist_t node) {
    plist_array_append_item(objects_, node);
    return count_++;
  }
  // An object of `className` (whose superclasses are `supers`) with `fields`.
  uint64_t object(const std::string& className,
                  std::initializer_list<std::pair<const char*, plist_t>> fields,
                  std::initializer_list<const char*> supers = {}) {
    auto [it, inserted] = classes_.try_emplace(className, 0);
    if (inserted) {
      plist_t entry = plist_new_dict();
      plist_dict_set_item(entry, "$classname", plist_new_string(className.c_str()));
      plist_t chain = plist_new_array();
      plist_array_append_item(chain, plist_new_string(className.c_str()));
      for (const char* super : supers) plist_array_append_item(chain, plist_new_string(super));
      plist_dict_set_item(entry, "$classes", chain);
      it->second = add(entry);
    }
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, "$class", plist_new_uid(it->second));
    for (const auto& [key, value] : fields) plist_dict_set_item(dict, key, value);
    return add(dict);
  }
  plist_t top() { return top_.get(); }
  std::vector<uint8_t> bytes(uint64_t root) {
    plist_t topKeys = plist_new_dict();
    plist_dict_set_item(topKeys, "root", plist_new_uid(root));
    plist_dict_set_item(top_.get(), "$top", topKeys);
    return toBytes(top_.get());
  }

 private:
  PlistPtr top_;
  plist_t objects_;
  uint64_t count_ = 0;
  std::map<std::string, uint64_t> classes_;
};

inline std::vector<uint8_t> serialize(const LMValue& value) {
  std::string error;
  auto bytes = lxDataSerialize(value, &error);
  EXPECT_TRUE(bytes) << error;
  return bytes.value_or(std::vector<uint8_t>{});
}

inline LMValue unserialize(const std::vector<uint8_t>& bytes) {
  std::string error;
  auto decoded = lxDataUnserialize(bytes, &error);
  EXPECT_TRUE(decoded) << error;
  return decoded.value_or(LMValue());
}

inline LMValue roundTrip(const LMValue& value) { return unserialize(serialize(value)); }

inline std::string failureOf(const std::vector<uint8_t>& bytes, const LMUnarchiveLimits& limits = {}) {
  std::string error;
  EXPECT_FALSE(lxDataUnserialize(bytes, &error, limits));
  EXPECT_FALSE(error.empty());
  return error;
}

// A text that tells every kind apart (the value tree's == compares numbers
// across kinds): doubles by their bits, decimals by their parts, dictionary
// keys in order (or sorted).
inline std::string dump(const LMValue& v, bool sortKeys = false) {
  auto text = [](std::u16string_view s) { return '"' + lmUtf8(s) + '"'; };
  switch (v.kind()) {
    case LMValueKind::kDouble:
      return "d" + std::to_string(std::bit_cast<uint64_t>(*v.asDouble()));
    case LMValueKind::kDate:
      return "t" +
             std::to_string(std::bit_cast<uint64_t>(v.asDate()->timeIntervalSinceReferenceDate()));
    case LMValueKind::kDecimal: {
      const LMDecimal& d = *v.asDecimal();
      return d.isNaN() ? "NaN" : d.stringValue() + "e" + std::to_string(d.exponent());
    }
    case LMValueKind::kArray: {
      std::string out = "[";
      for (const LMValue& item : *v.asArray()) out += dump(item, sortKeys) + ",";
      return out + "]";
    }
    case LMValueKind::kDictionary: {
      std::vector<std::string> entries;
      for (const auto& e : *v.asDictionary())
        entries.push_back(text(e.key.view()) + "=" + dump(e.value, sortKeys));
      if (sortKeys) std::sort(entries.begin(), entries.end());
      std::string out = "{";
      for (const std::string& e : entries) out += e + ";";
      return out + "}";
    }
    case LMValueKind::kAttributedString: {
      std::string out = "A" + text(v.asAttributedString()->string);
      for (const LMAttributeRun& r : v.asAttributedString()->runs)
        out += "(" + std::to_string(r.range.location) + "," + std::to_string(r.range.length) + ")" +
               dump(r.attributes(), sortKeys);
      return out;
    }
    case LMValueKind::kString:
      return text(*v.asString());
    default:  // nil, null, booleans, integers, data
      return std::to_string(static_cast<int>(v.kind())) + ":" + lmUtf8(v.description());
  }
}

// `bytes` with the first `pattern` in them replaced by `replacement` of the
// same length: for input this system's writer never makes.
inline std::vector<uint8_t> withBytesReplaced(std::vector<uint8_t> bytes,
                                              const std::vector<uint8_t>& pattern,
                                              const std::vector<uint8_t>& replacement) {
  const auto at = std::search(bytes.begin(), bytes.end(), pattern.begin(), pattern.end());
  EXPECT_NE(bytes.end(), at);
  if (at != bytes.end()) std::copy(replacement.begin(), replacement.end(), at);
  return bytes;
}

inline LMDecimal dec(const char* text) { return LMDecimal::fromString(std::string_view(text)).value(); }

inline LMAttributeRun run(uint64_t location, uint64_t length, LMDictionary attributes) {
  return {LMTextRange::make(location, length), std::move(attributes)};
}
