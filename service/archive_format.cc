#include "service/archive_format.h"

#include <unordered_map>

// Built once, read-only afterwards.
const LMArchivedClass* lmFindArchivedClass(std::u16string_view name) {
  static const auto* registry = new std::unordered_map<std::u16string_view, LMArchivedClass>{
      {u"NSDictionary", {LMArchiveKind::kDictionary, {u"NSObject"}}},
      {u"NSMutableDictionary", {LMArchiveKind::kDictionary, {}}},
      {u"NSArray", {LMArchiveKind::kArray, {u"NSObject"}}},
      {u"NSMutableArray", {LMArchiveKind::kArray, {}}},
      {u"NSSet", {LMArchiveKind::kArray, {}}},
      {u"NSMutableSet", {LMArchiveKind::kArray, {}}},
      {u"NSOrderedSet", {LMArchiveKind::kArray, {}}},
      {u"NSMutableOrderedSet", {LMArchiveKind::kArray, {}}},
      {u"NSString", {LMArchiveKind::kString, {}}},
      {u"NSMutableString", {LMArchiveKind::kString, {}}},
      {u"NSData", {LMArchiveKind::kData, {}}},
      {u"NSMutableData", {LMArchiveKind::kData, {}}},
      {u"NSNull", {LMArchiveKind::kNull, {u"NSObject"}}},
      {u"NSDate", {LMArchiveKind::kDate, {u"NSObject"}}},
      {u"NSDecimalNumber", {LMArchiveKind::kDecimal, {u"NSNumber", u"NSValue", u"NSObject"}}},
      {u"NSAttributedString", {LMArchiveKind::kAttributed, {u"NSObject"}}},
      {u"NSMutableAttributedString", {LMArchiveKind::kAttributed, {}}},
      {u"LMFoundElement", {LMArchiveKind::kElement, {u"NSObject"}}},
      {u"LMFoundNumber", {LMArchiveKind::kElement, {u"LMFoundElement", u"NSObject"}}},
      {u"LMFoundDate", {LMArchiveKind::kElement, {u"LMFoundElement", u"NSObject"}}},
      {u"LMFoundTerm", {LMArchiveKind::kElement, {u"LMFoundElement", u"NSObject"}}},
  };
  auto it = registry->find(name);
  return it == registry->end() ? nullptr : &it->second;
}

void lmAppendVarint(LMData& out, uint64_t value) {
  for (; value > 0x7F; value >>= 7) out.push_back(static_cast<uint8_t>(0x80 | (value & 0x7F)));
  out.push_back(static_cast<uint8_t>(value));
}

bool lmReadVarint(const LMData& in, size_t& pos, uint64_t& value) {
  value = 0;
  for (int shift = 0; pos < in.size(); shift += 7) {
    const uint64_t bits = in[pos] & 0x7F;
    if (shift > 63 || (shift == 63 && bits > 1)) return false;
    value |= bits << shift;
    if (!(in[pos++] & 0x80)) return true;
  }
  return false;
}
