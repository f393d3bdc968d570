// The keyed-archive decoder: the objects of a binary property list, read in
// place (LMPlistReader), into a value tree, class by class, within the
// limits of LMUnarchiveLimits; keyed_archive.h describes what it accepts.
#include <algorithm>
#include <memory>
#include <unordered_map>
#include <utility>

#include "elements/found_element.h"
#include "kit/keyed_coding.h"
#include "kit/rect.h"
#include "kit/unicode.h"
#include "service/archive_format.h"
#include "service/keyed_archive.h"
#include "service/plist_reader.h"

namespace {

[[noreturn]] void fail(std::string message) { lmArchiveFail(std::move(message)); }

std::string number(uint64_t n) { return std::to_string(n); }

class ArchiveReader;

// The keyed coder a found element reads itself from: one object dictionary.
class ElementDecoder final : public LMKeyedDecoder {
 public:
  ElementDecoder(ArchiveReader& reader, const LMPlistNode& dict) : reader_(reader), dict_(dict) {}
  bool containsValueForKey(std::u16string_view key) const override {
    return item(key).type != LMPlistType::kNone;
  }
  int64_t decodeInt64(std::u16string_view key) const override;
  LMRect decodeRect(std::u16string_view key) const override;
  LMValue decodeObject(std::u16string_view key) const override;

 private:
  LMPlistNode item(std::u16string_view key) const;
  ArchiveReader& reader_;
  LMPlistNode dict_;
};

class ArchiveReader {
 public:
  ArchiveReader(std::span<const uint8_t> bytes, const LMUnarchiveLimits& limits)
      : plist_(bytes),
        maxObjects_(limits.maxObjects),
        maxDepth_(std::min(limits.maxDepth, kLMMaxArchiveDepth)),
        budget_(std::min<uint64_t>(limits.maxValues,
                                   std::max<uint64_t>(1'000'000, 16 * uint64_t{bytes.size()}))) {}

  LMValue read() {
    const LMPlistNode top = plist_.root();
    if (top.type != LMPlistType::kDict) fail("not a keyed archive: the top level is no dictionary");
    const LMPlistNode archiver = field(top, "$archiver");
    if (!LMPlistReader::isText(archiver)) fail("not a keyed archive: no $archiver");
    if (!LMPlistReader::textEquals(archiver, std::string_view("NSKeyedArchiver")))
      fail("not a keyed archive: $archiver is \"" + lmUtf8(LMPlistReader::text(archiver)) + "\"");
    if (field(top, "$version").type != LMPlistType::kInteger)
      fail("not a keyed archive: no $version");
    objects_ = field(top, "$objects");
    if (objects_.type != LMPlistType::kArray) fail("not a keyed archive: no $objects array");
    if (objects_.count == 0 ||
        !LMPlistReader::textEquals(plist_.item(objects_, 0), std::string_view("$null")))
      fail("$objects does not start with \"$null\"");
    if (objects_.count > maxObjects_)
      fail("$objects holds " + number(objects_.count) + " entries, more than the limit of " +
           number(maxObjects_));
    state_.assign(objects_.count, kIdle);

    const LMPlistNode topKeys = field(top, "$top");
    if (topKeys.type != LMPlistType::kDict) fail("not a keyed archive: no $top dictionary");
    const LMPlistNode root = field(topKeys, "root");
    if (root.type != LMPlistType::kNone) return reference(root, "$top root");
    LMDictionary unkeyed;
    spend(1);
    for (uint64_t i = 0; i < topKeys.count; ++i) {
      unkeyed.emplace(spendText(keyText(plist_.item(topKeys, i))),
                  reference(plist_.item(topKeys, topKeys.count + i), "$top"));
    }
    if (unkeyed.empty()) fail("$top is empty");
    return unkeyed;
  }

  // The object `uid` refers to; nil for the nil reference.
  LMValue decode(uint64_t uid) {
    if (uid >= objects_.count)
      fail("reference " + number(uid) + " is out of range (" + number(objects_.count) +
           " objects)");
    if (uid == 0) return LMValue();
    if (state_[uid] == kShared) {
      spend(1);
      return elements_.at(uid);
    }
    if (state_[uid] == kBusy)
      fail("object " + number(uid) + " refers to itself (a reference cycle)");
    state_[uid] = kBusy;
    LMValue value = decodeObject(uid);
    state_[uid] = kIdle;
    if (value.kind() == LMValueKind::kObject) {
      elements_.emplace(uid, value);
      state_[uid] = kShared;
    }
    return value;
  }

  // A value that must be a reference.
  LMValue reference(const LMPlistNode& node, const char* where) {
    if (node.type != LMPlistType::kUid) fail(std::string(where) + " is not a reference");
    return decode(LMPlistReader::uid(node));
  }

  template <typename Key>
  LMPlistNode field(const LMPlistNode& dict, Key key) const {
    if (!open_.empty() && open_.back().payload == dict.payload &&
        open_.back().count == dict.count && dict.type == LMPlistType::kDict) {
      const OpenObject& o = open_.back();
      for (uint64_t i = 0; i < o.count; ++i) {
        if (LMPlistReader::textEquals(openKeys_[o.firstKey + i], key))
          return plist_.item(dict, o.count + i);
      }
      return {};
    }
    return plist_.field(dict, key);
  }
  LMPlistNode field(const LMPlistNode& dict, const char* key) const {
    return field(dict, std::string_view(key));
  }

 private:
  struct DepthGuard {
    DepthGuard(ArchiveReader& r) : depth_(r.depth_) {
      if (++depth_ > r.maxDepth_)
        fail("the archive nests deeper than " + number(r.maxDepth_) + " levels");
    }
    ~DepthGuard() { --depth_; }
    size_t& depth_;
  };

  // The object being decoded, innermost last. The keys of an object with few
  // of them are read once when it is opened, so that each lookup compares
  // texts only; an object with more is searched in the property list.
  static constexpr uint64_t kFewKeys = 32;
  struct OpenObject {
    const uint8_t* payload;
    size_t firstKey;  // into openKeys_
    uint64_t count;
  };
  struct OpenGuard {
    OpenGuard(ArchiveReader& r, const LMPlistNode& dict) : r_(r), firstKey_(r.openKeys_.size()) {
      if (dict.count > kFewKeys) return;
      for (uint64_t i = 0; i < dict.count; ++i) r.openKeys_.push_back(r.plist_.item(dict, i));
      r.open_.push_back({dict.payload, firstKey_, dict.count});
      opened_ = true;
    }
    ~OpenGuard() {
      if (!opened_) return;
      r_.open_.pop_back();
      r_.openKeys_.resize(firstKey_);
    }
    ArchiveReader& r_;
    size_t firstKey_;
    bool opened_ = false;
  };

  // Charged the same whichever layout a value comes in (a key of an unknown
  // object costs what the key of a dictionary does), so that what this
  // system writes of a decoded tree decodes within the same budget.
  void spend(uint64_t cost) {
    spent_ += cost;
    if (spent_ > budget_) fail("the archive expands to more than " + number(budget_) + " values");
  }
  std::u16string&& spendText(std::u16string&& text) {
    spend(1 + text.size() / 64);
    return std::move(text);
  }
  LMKey spendKey(LMKey key) {
    spend(1 + key.size() / 64);
    return key;
  }

  // A text of at most LMKey::kInlineUnits units as a key, without a
  // detour through a string when it is plain ASCII.
  static LMKey shortKey(const LMPlistNode& node) {
    if (node.type == LMPlistType::kAscii) {
      char16_t units[LMKey::kInlineUnits];
      bool plain = true;
      for (uint64_t i = 0; i < node.count; ++i) {
        units[i] = node.payload[i];
        plain &= node.payload[i] != 0 && node.payload[i] < 0x80;
      }
      if (plain) return LMKey(std::u16string_view(units, node.count));
    }
    return LMKey(LMPlistReader::text(node));
  }

  // The entry `uid` of "$objects".
  LMPlistNode entry(uint64_t uid) const { return plist_.item(objects_, uid); }

  std::u16string keyText(const LMPlistNode& key) const {
    if (!LMPlistReader::isText(key)) fail("a property-list dictionary key is not a text");
    return LMPlistReader::text(key);
  }

  // A text, number or data value; nil for anything else.
  LMValue plainValue(const LMPlistNode& node) {
    switch (node.type) {
      case LMPlistType::kAscii:
      case LMPlistType::kUtf16:
        return spendText(LMPlistReader::text(node));
      case LMPlistType::kInteger:
        spend(1);
        return LMPlistReader::integer(node);
      case LMPlistType::kReal:
        spend(1);
        return LMPlistReader::real(node);
      case LMPlistType::kBool:
        spend(1);
        return node.count != 0;
      case LMPlistType::kData:
        spend(1 + node.count / 64);
        return LMPlistReader::data(node);
      default:
        return LMValue();
    }
  }

  LMValue decodeObject(uint64_t uid) {
    const LMPlistNode node = entry(uid);
    if (node.type != LMPlistType::kDict) {
      LMValue value = plainValue(node);
      if (value.isNil()) fail("object " + number(uid) + " is of an unsupported property-list type");
      return value;
    }
    DepthGuard depth(*this);
    // Looking keys up walks the object's keys; objects of the known classes
    // have a handful, and more are paid for.
    spend(node.count > kFewKeys ? node.count : 1);
    OpenGuard open(*this, node);
    const auto& [kind, name] = classOf(uid, node);
    if (!kind) return unknownObject(node, name);
    switch (*kind) {
      case LMArchiveKind::kDictionary:
        return dictionaryObject(node);
      case LMArchiveKind::kArray:
        return references(field(node, "NS.objects"), "NS.objects");
      case LMArchiveKind::kString:
        if (const LMPlistNode text = plainField(node, "NS.string"); LMPlistReader::isText(text))
          return plainValue(text);
        if (const LMPlistNode bytes = plainField(node, "NS.bytes"); bytes.type == LMPlistType::kData) {
          spend(1 + bytes.count / 64);
          return lmUtf16(std::string_view(reinterpret_cast<const char*>(bytes.payload), bytes.count));
        }
        fail("a text object has neither NS.string nor NS.bytes");
      case LMArchiveKind::kData:
        if (const LMPlistNode bytes = plainField(node, "NS.data"); bytes.type == LMPlistType::kData)
          return plainValue(bytes);
        fail("a data object has no NS.data");
      case LMArchiveKind::kNull:
        return LMValue::null();
      case LMArchiveKind::kDate: {
        const LMPlistNode time = plainField(node, "NS.time");
        if (time.type == LMPlistType::kReal)
          return LMDate::fromTimeIntervalSinceReferenceDate(LMPlistReader::real(time));
        if (time.type == LMPlistType::kInteger)
          return LMDate::fromTimeIntervalSinceReferenceDate(
              static_cast<double>(LMPlistReader::integer(time)));
        fail("a date has no NS.time number");
      }
      case LMArchiveKind::kDecimal:
        return decimalObject(node);
      case LMArchiveKind::kAttributed:
        return attributedStringObject(node);
      case LMArchiveKind::kElement: {
        std::shared_ptr<LMFoundElement> element = lmMakeFoundElement(name);
        if (!element) fail("class " + lmUtf8(name) + " has no element");
        element->initWithCoder(ElementDecoder(*this, node));
        return LMValue(std::move(element));
      }
    }
    fail("object " + number(uid) + " is of an unknown kind");
  }

  // The kind of a class, or nullopt with its $classname for one we do not
  // know. A subclass we do not know reads as the first superclass we do.
  struct ResolvedClass {
    std::optional<LMArchiveKind> kind;
    std::u16string name;
  };
  const ResolvedClass& classOf(uint64_t uid, const LMPlistNode& dict) {
    const LMPlistNode ref = field(dict, "$class");
    if (ref.type != LMPlistType::kUid) fail("object " + number(uid) + " has no $class reference");
    const uint64_t classUid = LMPlistReader::uid(ref);
    if (auto it = resolved_.find(classUid); it != resolved_.end()) return it->second;
    if (classUid == 0 || classUid >= objects_.count)
      fail("object " + number(uid) + " has a $class reference out of range");
    const LMPlistNode classEntry = entry(classUid);
    if (classEntry.type != LMPlistType::kDict)
      fail("class entry " + number(classUid) + " is not a dictionary");
    const LMPlistNode name = field(classEntry, "$classname");
    if (!LMPlistReader::isText(name)) fail("class entry " + number(classUid) + " has no $classname");
    ResolvedClass resolved{std::nullopt, LMPlistReader::text(name)};
    if (const LMArchivedClass* known = lmFindArchivedClass(resolved.name)) {
      resolved.kind = known->kind;
    } else if (const LMPlistNode chain = field(classEntry, "$classes");
               chain.type == LMPlistType::kArray) {
      spend(chain.count);
      for (uint64_t i = 0; i < chain.count; ++i) {
        const LMPlistNode super = plist_.item(chain, i);
        if (!LMPlistReader::isText(super)) continue;
        std::u16string candidate = LMPlistReader::text(super);
        if (const LMArchivedClass* known = lmFindArchivedClass(candidate)) {
          resolved = {known->kind, std::move(candidate)};
          break;
        }
      }
    }
    spend(1);  // each class entry is resolved once
    return resolved_.emplace(classUid, std::move(resolved)).first->second;
  }

  // The objects of a reference array such as "NS.objects"; absent is empty.
  LMArray references(const LMPlistNode& array, const char* name) {
    LMArray items;
    if (array.type == LMPlistType::kNone) return items;
    if (array.type != LMPlistType::kArray) fail(std::string(name) + " is not an array");
    items.reserve(std::min<uint64_t>(array.count, 4096));
    for (uint64_t i = 0; i < array.count; ++i) {
      items.push_back(reference(plist_.item(array, i), name));
      if (items.back().isNil()) fail(std::string("nil inside ") + name);
    }
    return items;
  }

  LMValue dictionaryObject(const LMPlistNode& node) {
    const LMPlistNode keys = field(node, "NS.keys");
    const LMPlistNode values = field(node, "NS.objects");
    const auto countOf = [&](const LMPlistNode& array, const char* name) -> uint64_t {
      if (array.type == LMPlistType::kNone) return 0;
      if (array.type != LMPlistType::kArray) fail(std::string(name) + " is not an array");
      return array.count;
    };
    const uint64_t count = countOf(keys, "NS.keys");
    if (count != countOf(values, "NS.objects"))
      fail("NS.keys and NS.objects differ in length (" + number(count) + " and " +
           number(countOf(values, "NS.objects")) + ")");
    LMDictionary dict;
    dict.reserve(std::min<uint64_t>(count, 4096));
    for (uint64_t i = 0; i < count; ++i) {
      LMKey key = keyOf(plist_.item(keys, i));
      LMValue value = reference(plist_.item(values, i), "NS.objects");
      if (value.isNil()) fail("nil inside NS.objects");
      dict.emplace(std::move(key), std::move(value));
    }
    return dict;
  }

  // A dictionary key: a reference to a text, read as the text (other
  // objects are decoded to tell what they are). A long key read before is
  // shared with its earlier uses.
  LMKey keyOf(const LMPlistNode& ref) {
    if (ref.type != LMPlistType::kUid) fail("NS.keys is not a reference");
    const uint64_t uid = LMPlistReader::uid(ref);
    if (uid > 0 && uid < objects_.count) {
      const LMPlistNode node = entry(uid);
      if (LMPlistReader::isText(node)) {
        if (node.count <= LMKey::kInlineUnits) return spendKey(shortKey(node));
        for (const auto& [known, key] : longKeys_) {
          if (known == uid) return spendKey(key);
        }
        LMKey key(LMPlistReader::text(node));
        if (longKeys_.size() < kLongKeysKept) longKeys_.emplace_back(uid, key);
        return spendKey(std::move(key));
      }
    }
    LMValue key = decode(uid);
    if (key.isNil()) fail("nil inside NS.keys");
    std::u16string* text = key.asString();
    if (!text) fail("a dictionary key is not a text");
    return std::move(*text);
  }

  // A plain value stored inline or behind a reference.
  LMPlistNode plainField(const LMPlistNode& dict, const char* key) {
    const LMPlistNode node = field(dict, key);
    if (node.type != LMPlistType::kUid) return node;
    const uint64_t uid = LMPlistReader::uid(node);
    if (uid >= objects_.count) fail(std::string(key) + " refers out of range");
    return entry(uid);
  }

  std::optional<int64_t> integerField(const LMPlistNode& dict, const char* key) {
    const LMPlistNode node = field(dict, key);
    if (node.type == LMPlistType::kNone) return std::nullopt;
    if (node.type == LMPlistType::kInteger || node.type == LMPlistType::kBool)
      return LMPlistReader::integer(node);
    fail(std::string(key) + " is not a number");
  }

  LMValue decimalObject(const LMPlistNode& node) {
    const int64_t exponent = integerField(node, "NS.exponent").value_or(0);
    const int64_t length = integerField(node, "NS.length").value_or(0);
    const bool negative = integerField(node, "NS.negative").value_or(0) != 0;
    const int64_t order =
        integerField(node, "NS.mantissa.bo").value_or(1);  // 1 little, 2 big endian
    if (exponent < LMDecimal::kMinExponent || exponent > LMDecimal::kMaxExponent)
      fail("NS.exponent " + std::to_string(exponent) + " is out of range");
    if (length < 0 || length > 8) fail("NS.length " + std::to_string(length) + " is out of range");
    if (order != 1 && order != 2) fail("NS.mantissa.bo names no byte order");
    const LMPlistNode mantissa = plainField(node, "NS.mantissa");
    if (mantissa.type != LMPlistType::kData) fail("a decimal number has no NS.mantissa");
    const uint8_t* bytes = mantissa.payload;
    if (mantissa.count < static_cast<uint64_t>(2 * length) || mantissa.count > 16)
      fail("NS.mantissa has " + number(mantissa.count) + " bytes");
    if (length == 0) return negative ? LMDecimal::notANumber() : LMDecimal::zero();
    unsigned __int128 m = 0;
    for (int64_t word = length - 1; word >= 0; --word) {
      const unsigned first = bytes[2 * word];
      const unsigned second = bytes[2 * word + 1];
      m = (m << 16) | (order == 1 ? (second << 8 | first) : (first << 8 | second));
    }
    return LMDecimal::fromParts(m, static_cast<int>(exponent), negative);
  }

  // Attribute dictionaries are copied into every run that uses them.
  static uint64_t weight(const LMValue& value) {
    uint64_t w = 1 + value.len() / 64;
    if (const LMArray* a = value.asArray())
      for (const LMValue& item : *a) w += weight(item);
    if (const LMDictionary* d = value.asDictionary())
      for (const LMDictionaryEntry& e : *d) w += weight(e.value);
    return w;
  }

  LMValue attributedStringObject(const LMPlistNode& node) {
    LMAttributedString result;
    if (const LMPlistNode text = field(node, "NSString"); text.type != LMPlistType::kNone) {
      LMValue value =
          LMPlistReader::isText(text) ? plainValue(text) : reference(text, "NSString");
      std::u16string* string = value.asString();
      if (!string) fail("NSString of an attributed text is not a text");
      result.string = std::move(*string);
    }
    const uint64_t length = result.string.size();
    const LMPlistNode attributesRef = field(node, "NSAttributes");
    const LMPlistNode infoRef = field(node, "NSAttributeInfo");
    if (length == 0 || attributesRef.type == LMPlistType::kNone) return result;
    LMValue attributes = reference(attributesRef, "NSAttributes");
    if (infoRef.type == LMPlistType::kNone) {
      LMDictionary* all = attributes.asDictionary();
      if (!all) fail("NSAttributes without NSAttributeInfo is not a dictionary");
      if (!all->empty()) result.runs.push_back({LMTextRange::make(0, length), std::move(*all)});
      return result;
    }
    const LMValue info = infoRef.type == LMPlistType::kData ? plainValue(infoRef)
                                                           : reference(infoRef, "NSAttributeInfo");
    const LMData* varints = info.asData();
    LMArray* slots = attributes.asArray();
    if (!varints) fail("NSAttributeInfo is not data");
    if (!slots) fail("NSAttributes with NSAttributeInfo is not an array");
    for (const LMValue& slot : *slots) {
      if (!slot.asDictionary()) fail("NSAttributes holds something other than dictionaries");
    }
    // Runs of one slot share its dictionary.
    std::vector<std::shared_ptr<const LMDictionary>> shared(slots->size());
    for (size_t i = 0; i < slots->size(); ++i) {
      LMDictionary& dictionary = *(*slots)[i].asDictionary();
      if (!dictionary.empty()) shared[i] = std::make_shared<const LMDictionary>(std::move(dictionary));
    }
    size_t pos = 0;
    for (uint64_t at = 0; at < length;) {
      uint64_t runLength = 0;
      uint64_t slot = 0;
      if (!lmReadVarint(*varints, pos, runLength) || !lmReadVarint(*varints, pos, slot))
        fail("NSAttributeInfo ends before the text does");
      if (slot >= slots->size())
        fail("NSAttributeInfo names attributes " + number(slot) + " of " + number(slots->size()));
      if (runLength > length - at) fail("attribute runs pass the end of the text");
      if (runLength > 0) {
        spend(1);
        result.runs.push_back({LMTextRange::make(at, runLength), shared[slot]});
      }
      at += runLength;
    }
    return result;
  }

  // An object of a class we do not know: its class name under "$classname"
  // and its keys; keys holding nil are left out.
  LMDictionary unknownObject(const LMPlistNode& node, const std::u16string& className) {
    LMDictionary dict{{u"$classname", className}};
    spend(1);  // the key "$classname"
    spend(1 + className.size() / 64);
    for (uint64_t i = 0; i < node.count; ++i) {
      const LMPlistNode key = plist_.item(node, i);
      if (LMPlistReader::textEquals(key, std::string_view("$class"))) continue;
      std::u16string name = keyText(key);
      LMValue decoded = inlineValue(plist_.item(node, node.count + i));
      if (!decoded.isNil()) dict.emplace(spendText(std::move(name)), std::move(decoded));
    }
    return dict;
  }

  // A key of an unknown object: a reference or a plain value.
  LMValue inlineValue(const LMPlistNode& node) {
    if (node.type == LMPlistType::kUid) return decode(LMPlistReader::uid(node));
    LMValue value = plainValue(node);
    if (value.isNil()) fail("an object of an unknown class holds an unsupported value");
    return value;
  }

  friend class ElementDecoder;

  const LMPlistReader plist_;
  const size_t maxObjects_;
  const size_t maxDepth_;
  const uint64_t budget_;
  LMPlistNode objects_;
  // Per entry of "$objects": being decoded (a reference to it now is a
  // cycle), or a decoded element, shared by every later reference.
  enum : uint8_t { kIdle, kBusy, kShared };
  std::vector<uint8_t> state_;
  std::unordered_map<uint64_t, LMValue> elements_;
  std::unordered_map<uint64_t, ResolvedClass> resolved_;
  // Keys longer than LMKey keeps inline, by the text's entry in "$objects";
  // archives use a few dozen distinct keys, so a short list does.
  static constexpr size_t kLongKeysKept = 64;
  std::vector<std::pair<uint64_t, LMKey>> longKeys_;
  std::vector<OpenObject> open_;
  std::vector<LMPlistNode> openKeys_;
  size_t depth_ = 0;
  uint64_t spent_ = 0;
};

LMPlistNode ElementDecoder::item(std::u16string_view key) const {
  return reader_.field(dict_, key);
}

int64_t ElementDecoder::decodeInt64(std::u16string_view key) const {
  return LMPlistReader::integer(item(key));
}

LMRect ElementDecoder::decodeRect(std::u16string_view key) const {
  LMPlistNode node = item(key);
  if (node.type == LMPlistType::kUid) {
    // Nearly always a reference to an ASCII text: read where it lies.
    const uint64_t uid = LMPlistReader::uid(node);
    if (uid > 0 && uid < reader_.objects_.count) {
      const LMPlistNode text = reader_.entry(uid);
      if (text.type == LMPlistType::kAscii) {
        reader_.spend(1 + text.count / 64);
        return lmRectFromAscii(
            std::string_view(reinterpret_cast<const char*>(text.payload), text.count));
      }
    }
  }
  if (LMPlistReader::isText(node)) return lmRectFromString(LMPlistReader::text(node));
  if (node.type != LMPlistType::kUid) return LMRect::zero();
  const LMValue value = reader_.decode(LMPlistReader::uid(node));
  return value.asString() ? lmRectFromString(*value.asString()) : LMRect::zero();
}

LMValue ElementDecoder::decodeObject(std::u16string_view key) const {
  const LMPlistNode node = item(key);
  return node.type == LMPlistType::kUid ? reader_.decode(LMPlistReader::uid(node)) : LMValue();
}

}  // namespace

std::optional<LMValue> lxDataUnserialize(std::span<const uint8_t> bytes, std::string* error,
                                         const LMUnarchiveLimits& limits) {
  return lmArchiveGuarded(error, "unarchiving", [&] {
    if (bytes.empty()) fail("the archive is empty");
    if (bytes.size() > limits.maxBytes)
      fail("the archive has " + number(bytes.size()) + " bytes, more than the limit of " +
           number(limits.maxBytes));
    return ArchiveReader(bytes, limits).read();
  });
}
