#include "service/keyed_archive.h"

#include <malloc.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <unordered_map>
#include <utility>

#include "elements/found_element.h"
#include "kit/keyed_coding.h"
#include "kit/unicode.h"
#include "service/plist_writer.h"

namespace {

// Failures unwind to the two entry points, which turn them into the error
// text; nothing escapes this file.
struct ArchiveError {
  std::string message;
};

[[noreturn]] void fail(std::string message) { throw ArchiveError{std::move(message)}; }

// The rectangle of an ASCII text as lmRectFromString reads it.
LMRect rectFromAscii(std::string_view ascii);

std::string number(uint64_t n) { return std::to_string(n); }

// Both sides recurse once per level of nesting; these keep the stack small
// enough for any thread (also in sanitizer builds, whose frames are large).
constexpr size_t kMaxEncodeDepth = 512;
constexpr size_t kMaxDecodeDepth = 512;

// ------------------------------------------------------------ class registry

enum class Kind {
  kDictionary,
  kArray,
  kString,
  kData,
  kNull,
  kDate,
  kDecimal,
  kAttributed,
  kElement
};

struct ArchivedClass {
  Kind kind;
  // What the writer puts after the class name in "$classes"; only the
  // classes it writes need them.
  std::vector<std::u16string> superclasses;
};

// Built once, read-only afterwards.
const ArchivedClass* findClass(std::u16string_view name) {
  static const auto* registry = new std::unordered_map<std::u16string_view, ArchivedClass>{
      {u"NSDictionary", {Kind::kDictionary, {u"NSObject"}}},
      {u"NSMutableDictionary", {Kind::kDictionary, {}}},
      {u"NSArray", {Kind::kArray, {u"NSObject"}}},
      {u"NSMutableArray", {Kind::kArray, {}}},
      {u"NSSet", {Kind::kArray, {}}},
      {u"NSMutableSet", {Kind::kArray, {}}},
      {u"NSOrderedSet", {Kind::kArray, {}}},
      {u"NSMutableOrderedSet", {Kind::kArray, {}}},
      {u"NSString", {Kind::kString, {}}},
      {u"NSMutableString", {Kind::kString, {}}},
      {u"NSData", {Kind::kData, {}}},
      {u"NSMutableData", {Kind::kData, {}}},
      {u"NSNull", {Kind::kNull, {u"NSObject"}}},
      {u"NSDate", {Kind::kDate, {u"NSObject"}}},
      {u"NSDecimalNumber", {Kind::kDecimal, {u"NSNumber", u"NSValue", u"NSObject"}}},
      {u"NSAttributedString", {Kind::kAttributed, {u"NSObject"}}},
      {u"NSMutableAttributedString", {Kind::kAttributed, {}}},
      {u"LMFoundElement", {Kind::kElement, {u"NSObject"}}},
      {u"LMFoundNumber", {Kind::kElement, {u"LMFoundElement", u"NSObject"}}},
      {u"LMFoundDate", {Kind::kElement, {u"LMFoundElement", u"NSObject"}}},
      {u"LMFoundTerm", {Kind::kElement, {u"LMFoundElement", u"NSObject"}}},
  };
  auto it = registry->find(name);
  return it == registry->end() ? nullptr : &it->second;
}

// Base-128 varints, low group first, high bit set on every byte but the last.
void appendVarint(LMData& out, uint64_t value) {
  for (; value > 0x7F; value >>= 7) out.push_back(static_cast<uint8_t>(0x80 | (value & 0x7F)));
  out.push_back(static_cast<uint8_t>(value));
}

bool readVarint(const LMData& in, size_t& pos, uint64_t& value) {
  value = 0;
  for (int shift = 0; pos < in.size(); shift += 7) {
    const uint64_t bits = in[pos] & 0x7F;
    if (shift > 63 || (shift == 63 && bits > 1)) return false;
    value |= bits << shift;
    if (!(in[pos++] & 0x80)) return true;
  }
  return false;
}

// ------------------------------------------------------------- archive writer

class ArchiveWriter;

// An object of the archive being filled in: its "$class" and keys, pairs of
// key and value nodes on the writer's stack of open objects. Objects nest
// (an element's value is written while the element is open), and an inner
// object is complete before the outer one takes its next key, so each open
// object's pairs lie together at the top of the stack.
struct ObjectDict {
  size_t start;
};

// The keyed coder a found element writes itself into.
class ElementEncoder final : public LMKeyedEncoder {
 public:
  ElementEncoder(ArchiveWriter& writer, ObjectDict& dict) : writer_(writer), dict_(dict) {}
  void encodeInt64(std::u16string_view key, int64_t value) override;
  void encodeRect(std::u16string_view key, const LMRect& rect) override;
  void encodeObject(std::u16string_view key, const LMValue& value) override;
  void encodeDictionary(std::u16string_view key, const LMDictionary& value) override;

 private:
  ArchiveWriter& writer_;
  ObjectDict& dict_;
};

class ArchiveWriter {
 public:
  // Makes archive() release each part of its tree once written (see
  // lxDataSerializeReleasing).
  void releaseAsWritten() { releasing_ = true; }

  std::vector<uint8_t> archive(const LMValue& root) {
    objects_.push_back(plist_.text(u"$null"));
    const uint64_t rootRef = encode(root);
    const uint32_t topKeys[] = {plist_.text(u"root"), plist_.uid(rootRef)};
    const uint32_t top[] = {plist_.text(u"$version"),  plist_.integer(100000),
                            plist_.text(u"$archiver"), plist_.text(u"NSKeyedArchiver"),
                            plist_.text(u"$top"),      plist_.dictionary(topKeys, 1),
                            plist_.text(u"$objects"),  plist_.array(objects_.data(), objects_.size())};
    return plist_.finish(plist_.dictionary(top, 4));
  }

  // The reference of `value`; 0 (the nil reference) for nil.
  uint64_t encode(const LMValue& value) {
    switch (value.kind()) {
      case LMValueKind::kNil:
        return 0;
      case LMValueKind::kNull:
        return null();
      case LMValueKind::kBool:
        return plain(plist_.boolean(*value.asBool()));
      case LMValueKind::kInt:
        return plain(plist_.integer(*value.asInt()));
      case LMValueKind::kDouble:
        return plain(plist_.real(*value.asDouble()));
      case LMValueKind::kString:
        return plain(plist_.text(*value.asString()));
      case LMValueKind::kData:
        return push(plist_.data(value.asData()->data(), value.asData()->size()));
      case LMValueKind::kDecimal:
        return decimal(*value.asDecimal());
      case LMValueKind::kDate:
        return date(*value.asDate());
      case LMValueKind::kArray:
        return array(*value.asArray());
      case LMValueKind::kDictionary:
        return dictionary(*value.asDictionary());
      case LMValueKind::kAttributedString:
        return attributedString(*value.asAttributedString());
      case LMValueKind::kObject:
        return object(value.asObject());
    }
    fail("a value of unknown kind");
  }

 private:
  friend class ElementEncoder;

  struct DepthGuard {
    explicit DepthGuard(size_t& depth) : depth_(depth) {
      if (++depth_ > kMaxEncodeDepth)
        fail("the value tree nests deeper than " + number(kMaxEncodeDepth) + " levels");
    }
    ~DepthGuard() { --depth_; }
    size_t& depth_;
  };

  // Attributed texts and elements are shared and read-only, and so is what
  // an element hands over: their parts are never released.
  struct KeptParts {
    explicit KeptParts(bool& releasing) : releasing_(releasing), outer_(releasing) {
      releasing = false;
    }
    ~KeptParts() { releasing_ = outer_; }
    bool& releasing_;
    bool outer_;
  };

  // Releases `value`, a part of the tree that archive() was given to
  // release, once it is written. An element whose last owner this was is
  // forgotten too, since its address may be taken by another one. Memory
  // freed this way is handed back to the system every kTrimEvery bytes of
  // archive, so that the tree's memory shrinks as the archive's grows.
  void written(const LMValue& value) {
    if (!releasing_) return;
    LMValue& part = const_cast<LMValue&>(value);  // the tree is this writer's (releasing_)
    std::shared_ptr<LMObject> shared = part.asObject();
    part = LMValue();
    if (shared && shared.use_count() == 1)
      elements_.erase(dynamic_cast<const LMFoundElement*>(shared.get()));
    shared.reset();
    if (plist_.size() >= nextTrim_) {
      malloc_trim(0);
      nextTrim_ = plist_.size() + kTrimEvery;
    }
  }

  uint64_t push(uint32_t node) {
    objects_.push_back(node);
    return objects_.size() - 1;
  }
  // Texts and numbers: one entry of $objects however often they occur.
  uint64_t plain(uint32_t node) {
    if (node >= plain_.size()) plain_.resize(std::max<size_t>(node + 1, 2 * plain_.size()), 0);
    if (!plain_[node]) plain_[node] = static_cast<uint32_t>(push(node));
    return plain_[node];
  }
  // An entry whose object is written after its contents.
  uint64_t reserve() { return push(0); }
  // The open object's dictionary node; the object is closed.
  uint32_t close(const ObjectDict& dict) {
    const uint32_t node = plist_.dictionary(pending_.data() + dict.start,
                                             (pending_.size() - dict.start) / 2);
    pending_.resize(dict.start);
    return node;
  }
  void fill(uint64_t ref, const ObjectDict& dict) { objects_[ref] = close(dict); }
  uint64_t add(const ObjectDict& dict) { return push(close(dict)); }

  void set(const ObjectDict& dict, std::u16string_view key, uint32_t node) {
    (void)dict;  // always the object on top
    pending_.push_back(keyText(key));
    pending_.push_back(node);
  }

  // The text node of an object's key. Keys are nearly always the same few
  // literals, so the node is remembered by the key's address (and checked
  // against its text, should another text come to lie there).
  uint32_t keyText(std::u16string_view key) {
    KeyCacheEntry& cached =
        keyCache_[(reinterpret_cast<uintptr_t>(key.data()) >> 1) % std::size(keyCache_)];
    if (cached.data == key.data() && cached.text == key) return cached.node;
    cached = {key.data(), std::u16string(key), plist_.text(key)};
    return cached.node;
  }

  ObjectDict objectOf(std::u16string_view className) {
    uint64_t classRef = 0;
    for (const auto& [name, ref] : classes_)
      if (name == className) classRef = ref;
    if (!classRef) {
      std::vector<uint32_t> chain{plist_.text(className)};
      if (const ArchivedClass* known = findClass(className))
        for (const std::u16string& super : known->superclasses) chain.push_back(plist_.text(super));
      ObjectDict entry{pending_.size()};
      set(entry, u"$classes", plist_.array(chain.data(), chain.size()));
      set(entry, u"$classname", plist_.text(className));
      classRef = add(entry);
      classes_.emplace_back(className, classRef);
    }
    ObjectDict dict{pending_.size()};
    set(dict, u"$class", plist_.uid(classRef));
    return dict;
  }

  uint64_t null() {
    if (!null_) null_ = add(objectOf(u"NSNull"));
    return null_;
  }

  uint64_t date(const LMDate& date) {
    ObjectDict dict = objectOf(u"NSDate");
    set(dict, u"NS.time", plist_.real(date.timeIntervalSinceReferenceDate()));
    return add(dict);
  }

  uint64_t decimal(const LMDecimal& value) {
    // Eight 16-bit words, least significant first, each little-endian.
    uint8_t mantissa[16] = {};
    uint64_t length = 0;
    unsigned __int128 m = value.mantissa();
    for (int word = 0; word < 8; ++word, m >>= 16) {
      mantissa[2 * word] = static_cast<uint8_t>(m & 0xFF);
      mantissa[2 * word + 1] = static_cast<uint8_t>((m >> 8) & 0xFF);
      if (m & 0xFFFF) length = word + 1;
    }
    ObjectDict dict = objectOf(u"NSDecimalNumber");
    set(dict, u"NS.exponent", plist_.integer(value.exponent()));
    set(dict, u"NS.length", plist_.integer(static_cast<int64_t>(length)));
    // Not-a-number is the value of length 0 with the sign set.
    set(dict, u"NS.negative", plist_.boolean(value.isNaN() || value.isNegative()));
    set(dict, u"NS.compact", plist_.boolean(true));
    set(dict, u"NS.mantissa.bo", plist_.integer(1));
    set(dict, u"NS.mantissa", plist_.data(mantissa, sizeof mantissa));
    return add(dict);
  }

  // A reference inside a collection, where nil has no place.
  uint32_t member(const LMValue& value, const char* where) {
    const uint64_t ref = encode(value);
    if (!ref) fail(std::string("nil inside ") + where);
    return plist_.uid(ref);
  }

  uint64_t array(const LMArray& items) {
    DepthGuard depth(depth_);
    const uint64_t ref = reserve();
    // The references go on the stack of open objects too, below the object.
    const size_t start = pending_.size();
    for (const LMValue& item : items) {
      const uint32_t member = this->member(item, "an array");
      pending_.push_back(member);
      written(item);
    }
    const uint32_t members = plist_.array(pending_.data() + start, items.size());
    pending_.resize(start);
    ObjectDict dict = objectOf(u"NSArray");
    set(dict, u"NS.objects", members);
    fill(ref, dict);
    return ref;
  }

  uint64_t dictionary(const LMDictionary& entries) {
    DepthGuard depth(depth_);
    const uint64_t ref = reserve();
    // Key and value references in pairs, below the object.
    const size_t start = pending_.size();
    for (const LMDictionaryEntry& entry : entries) {
      const uint32_t key = plist_.uid(plain(plist_.text(entry.key.view())));
      const uint32_t value = member(entry.value, "a dictionary");
      pending_.push_back(key);
      pending_.push_back(value);
      written(entry.value);
    }
    const uint32_t keys = plist_.array(pending_.data() + start, entries.size(), 2);
    const uint32_t values = plist_.array(pending_.data() + start + 1, entries.size(), 2);
    pending_.resize(start);
    ObjectDict dict = objectOf(u"NSDictionary");
    set(dict, u"NS.keys", keys);
    set(dict, u"NS.objects", values);
    fill(ref, dict);
    return ref;
  }

  uint64_t attributedString(const LMAttributedString& text) {
    DepthGuard depth(depth_);
    KeptParts kept(releasing_);
    const uint64_t ref = reserve();
    ObjectDict dict = objectOf(u"NSAttributedString");
    set(dict, u"NSString", plist_.uid(plain(plist_.text(text.string))));
    const uint64_t length = text.string.size();
    if (length > 0) {
      // The runs as a reader expects them: from the start of the text, in
      // order, gaps filled by runs without attributes.
      const LMDictionary none;
      std::vector<std::pair<uint64_t, const LMDictionary*>> runs;
      uint64_t at = 0;
      for (const LMAttributeRun& run : text.runs) {
        if (run.range.length == 0) continue;
        if (!run.range.fitsIn(length) || run.range.location < at)
          fail("attribute runs overlap, run backwards or pass the end of their text");
        if (run.range.location > at) runs.push_back({run.range.location - at, &none});
        runs.push_back({run.range.length, &run.attributes});
        at = run.range.end();
      }
      if (at < length) runs.push_back({length - at, &none});

      if (runs.size() == 1) {
        set(dict, u"NSAttributes", plist_.uid(dictionary(*runs[0].second)));
      } else {
        // One array slot per run; runs without attributes share one slot.
        LMData info;
        std::vector<uint32_t> slots;
        std::optional<uint64_t> emptySlot;
        for (const auto& [runLength, attributes] : runs) {
          std::optional<uint64_t> slot = attributes->empty() ? emptySlot : std::nullopt;
          if (!slot) {
            slot = slots.size();
            slots.push_back(plist_.uid(dictionary(*attributes)));
            if (attributes->empty()) emptySlot = slot;
          }
          appendVarint(info, runLength);
          appendVarint(info, *slot);
        }
        ObjectDict array = objectOf(u"NSArray");
        set(array, u"NS.objects", plist_.array(slots.data(), slots.size()));
        set(dict, u"NSAttributes", plist_.uid(add(array)));
        set(dict, u"NSAttributeInfo", plist_.uid(push(plist_.data(info.data(), info.size()))));
      }
    }
    fill(ref, dict);
    return ref;
  }

  uint64_t object(const std::shared_ptr<LMObject>& shared) {
    const auto* element = dynamic_cast<const LMFoundElement*>(shared.get());
    const std::u16string name = shared->className();
    const ArchivedClass* known = findClass(name);
    if (!element || !known || known->kind != Kind::kElement)
      fail("objects of class " + lmUtf8(name) + " cannot be archived");
    // 0 marks an element whose encoding is under way.
    auto [it, inserted] = elements_.try_emplace(element, 0);
    if (!inserted) {
      if (!it->second) fail("the element of class " + lmUtf8(name) + " contains itself");
      return it->second;
    }
    DepthGuard depth(depth_);
    KeptParts kept(releasing_);
    const uint64_t ref = reserve();
    ObjectDict dict = objectOf(name);
    ElementEncoder coder(*this, dict);
    element->encodeWithCoder(coder);
    fill(ref, dict);
    elements_[element] = ref;
    return ref;
  }

  LMPlistWriter plist_;
  std::vector<uint32_t> objects_;  // the property-list object of each entry
  std::vector<uint32_t> pending_;  // pairs of the open objects, innermost last
  std::vector<uint32_t> plain_;    // entry of each text or number node; 0: none yet
  std::vector<std::pair<std::u16string, uint64_t>> classes_;  // a handful
  std::unordered_map<const LMFoundElement*, uint64_t> elements_;
  struct KeyCacheEntry {
    const char16_t* data = nullptr;
    std::u16string text;
    uint32_t node = 0;
  };
  KeyCacheEntry keyCache_[61];
  uint64_t null_ = 0;
  size_t depth_ = 0;
  static constexpr uint64_t kTrimEvery = 16u << 20;
  bool releasing_ = false;  // the tree's parts are released once written
  uint64_t nextTrim_ = kTrimEvery;
};

void ElementEncoder::encodeInt64(std::u16string_view key, int64_t value) {
  writer_.set(dict_, key, writer_.plist_.integer(value));
}

void ElementEncoder::encodeRect(std::u16string_view key, const LMRect& rect) {
  // Written as the rectangle's text, by reference like any other text.
  char16_t text[kLMRectTextCapacity];
  const std::u16string_view view(text, lmWriteRectText(rect, text));
  writer_.set(dict_, key, writer_.plist_.uid(writer_.plain(writer_.plist_.text(view))));
}

void ElementEncoder::encodeObject(std::u16string_view key, const LMValue& value) {
  writer_.set(dict_, key, writer_.plist_.uid(writer_.encode(value)));
}

void ElementEncoder::encodeDictionary(std::u16string_view key, const LMDictionary& value) {
  writer_.set(dict_, key, writer_.plist_.uid(writer_.dictionary(value)));
}

// ------------------------------------------------ binary property-list reader

uint64_t readBigEndian(const uint8_t* p, size_t n) {
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

enum class PlistType : uint8_t {
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
struct PlistNode {
  PlistType type = PlistType::kNone;
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
class PlistReader {
 public:
  explicit PlistReader(std::span<const uint8_t> b) : data_(b.data()) {
    constexpr size_t kHeader = 8;
    constexpr size_t kTrailer = 32;
    if (b.size() < kHeader + kTrailer + 1 || std::memcmp(b.data(), "bplist00", kHeader) != 0)
      fail("not a binary property list");
    const uint8_t* trailer = b.data() + b.size() - kTrailer;
    offsetSize_ = trailer[6];
    refSize_ = trailer[7];
    count_ = readBigEndian(trailer + 8, 8);
    root_ = readBigEndian(trailer + 16, 8);
    table_ = readBigEndian(trailer + 24, 8);
    const uint64_t dataEnd = b.size() - kTrailer;
    if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8 || count_ == 0 ||
        root_ >= count_ || table_ < kHeader || table_ > dataEnd ||
        (dataEnd - table_) / offsetSize_ < count_) {
      fail("the property list's trailer is inconsistent");
    }
    if (count_ <= kCachedObjects) cache_.resize(count_);
  }

  PlistNode root() const { return object(root_); }

  // Entry `i` of an array, or of a dictionary's keys (i < count) followed by
  // its values.
  PlistNode item(const PlistNode& container, uint64_t i) const {
    const uint64_t ref = readBigEndian(container.payload + i * refSize_, refSize_);
    if (ref >= count_) fail("a property-list reference is out of range");
    return object(ref);
  }

  // The value under the ASCII `key` of a dictionary; kNone when absent.
  template <typename Key>
  PlistNode field(const PlistNode& dict, Key key) const {
    if (dict.type != PlistType::kDict) return {};
    for (uint64_t i = 0; i < dict.count; ++i) {
      if (textEquals(item(dict, i), key)) return item(dict, dict.count + i);
    }
    return {};
  }

  // Object `index` (below the count), read once and then remembered for
  // lists of up to kCachedObjects objects.
  PlistNode object(uint64_t index) const {
    if (cache_.empty()) return parse(index);
    PlistNode& cached = cache_[index];
    if (cached.type == PlistType::kNone) cached = parse(index);
    return cached;
  }

  PlistNode parse(uint64_t index) const {
    const uint64_t offset = readBigEndian(data_ + table_ + index * offsetSize_, offsetSize_);
    if (offset < 8 || offset >= table_) fail("a property-list object lies outside the data");
    const uint8_t marker = data_[offset];
    const uint8_t low = marker & 0x0F;
    uint64_t p = offset + 1;
    auto sizeField = [&]() -> uint64_t {
      if (low != 0x0F) return low;
      if (p >= table_ || (data_[p] & 0xF0) != 0x10 || (data_[p] & 0x0F) > 3)
        fail("a property-list object has a malformed count");
      const size_t n = size_t{1} << (data_[p] & 0x0F);
      if (table_ - p - 1 < n) fail("a property-list object has a malformed count");
      const uint64_t value = readBigEndian(data_ + p + 1, n);
      p += 1 + n;
      // Nothing can be longer than the data it lies in.
      if (value > table_) fail("a property-list object passes the end of the data");
      return value;
    };
    PlistNode node;
    uint64_t length = 0;
    switch (marker >> 4) {
      case 0x0:
        if (low != 0x08 && low != 0x09) fail("unsupported property-list object");
        return {PlistType::kBool, low == 0x09 ? 1u : 0u, nullptr};
      case 0x1:
        if (low > 4) fail("unsupported property-list integer size");
        node = {PlistType::kInteger, uint64_t{1} << low, nullptr};
        length = node.count;
        break;
      case 0x2:
        if (low != 2 && low != 3) fail("unsupported property-list real size");
        node = {PlistType::kReal, uint64_t{1} << low, nullptr};
        length = node.count;
        break;
      case 0x3:
        if (low != 3) fail("unsupported property-list date size");
        node = {PlistType::kDate, 8, nullptr};
        length = 8;
        break;
      case 0x4:
        node = {PlistType::kData, sizeField(), nullptr};
        length = node.count;
        break;
      case 0x5:
        node = {PlistType::kAscii, sizeField(), nullptr};
        length = node.count;
        break;
      case 0x6:
        node = {PlistType::kUtf16, sizeField(), nullptr};
        length = 2 * node.count;
        break;
      case 0x8:
        if (low > 7) fail("unsupported property-list reference size");
        node = {PlistType::kUid, uint64_t{low} + 1, nullptr};
        length = node.count;
        break;
      case 0xA:
        node = {PlistType::kArray, sizeField(), nullptr};
        length = node.count * refSize_;
        break;
      case 0xD:
        node = {PlistType::kDict, sizeField(), nullptr};
        length = 2 * node.count * refSize_;
        break;
      default:
        fail("unsupported property-list object");
    }
    if (length > table_ - p) fail("a property-list object passes the end of the data");
    node.payload = data_ + p;
    return node;
  }

  static bool isText(const PlistNode& n) {
    return n.type == PlistType::kAscii || n.type == PlistType::kUtf16;
  }

  // Whether a text object holds exactly `key` (ASCII or UTF-16 units).
  template <typename Key>
  static bool textEquals(const PlistNode& n, Key key) {
    if (!isText(n) || n.count != key.size()) return false;
    if (n.type == PlistType::kAscii) {
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
  static std::u16string text(const PlistNode& n) {
    if (n.type == PlistType::kAscii) {
      const uint8_t* bytes = n.payload;
      uint8_t high = 0;
      bool zero = false;
      for (uint64_t i = 0; i < n.count; ++i) {
        high |= bytes[i];
        zero |= bytes[i] == 0;
      }
      if (zero) fail("a property-list text holds U+0000");
      if (high & 0x80) return lmUtf16(std::string_view(reinterpret_cast<const char*>(bytes), n.count));
      return std::u16string(bytes, bytes + n.count);  // one unit a byte, no zero fill first
    }
    std::u16string out;
    if (n.type != PlistType::kUtf16) return out;
    out.resize(n.count);
    for (uint64_t i = 0; i < n.count; ++i) {
      out[i] = static_cast<char16_t>(n.payload[2 * i] << 8 | n.payload[2 * i + 1]);
      if (out[i] == 0) fail("a property-list text holds U+0000");
    }
    lmMakeCarriable(out);
    return out;
  }

  static LMData data(const PlistNode& n) {
    if (n.type != PlistType::kData) return {};
    return LMData(n.payload, n.payload + n.count);
  }

  // Integers of 1, 2 and 4 bytes are unsigned, of 8 bytes two's complement;
  // of 16 bytes the low 8 count. Booleans read as 0 and 1.
  static int64_t integer(const PlistNode& n) {
    if (n.type == PlistType::kBool) return static_cast<int64_t>(n.count);
    if (n.type != PlistType::kInteger) return 0;
    const size_t size = std::min<uint64_t>(n.count, 8);
    return static_cast<int64_t>(readBigEndian(n.payload + n.count - size, size));
  }

  static double real(const PlistNode& n) {
    if (n.type != PlistType::kReal) return 0;
    if (n.count == 4)
      return std::bit_cast<float>(static_cast<uint32_t>(readBigEndian(n.payload, 4)));
    return std::bit_cast<double>(readBigEndian(n.payload, 8));
  }

  static uint64_t uid(const PlistNode& n) {
    return n.type == PlistType::kUid ? readBigEndian(n.payload, n.count) : 0;
  }

 private:
  static constexpr uint64_t kCachedObjects = 1u << 20;
  const uint8_t* data_;
  mutable std::vector<PlistNode> cache_;
  size_t offsetSize_;
  size_t refSize_;
  uint64_t count_;
  uint64_t root_;
  uint64_t table_;
};

// ------------------------------------------------------------- archive reader

class ArchiveReader;

// The keyed coder a found element reads itself from: one object dictionary.
class ElementDecoder final : public LMKeyedDecoder {
 public:
  ElementDecoder(ArchiveReader& reader, const PlistNode& dict) : reader_(reader), dict_(dict) {}
  bool containsValueForKey(std::u16string_view key) const override {
    return item(key).type != PlistType::kNone;
  }
  int64_t decodeInt64(std::u16string_view key) const override;
  LMRect decodeRect(std::u16string_view key) const override;
  LMValue decodeObject(std::u16string_view key) const override;

 private:
  PlistNode item(std::u16string_view key) const;
  ArchiveReader& reader_;
  PlistNode dict_;
};

class ArchiveReader {
 public:
  ArchiveReader(std::span<const uint8_t> bytes, const LMUnarchiveLimits& limits)
      : plist_(bytes),
        maxObjects_(limits.maxObjects),
        maxDepth_(std::min(limits.maxDepth, kMaxDecodeDepth)),
        budget_(std::min<uint64_t>(limits.maxValues,
                                   std::max<uint64_t>(1'000'000, 16 * uint64_t{bytes.size()}))) {}

  LMValue read() {
    const PlistNode top = plist_.root();
    if (top.type != PlistType::kDict) fail("not a keyed archive: the top level is no dictionary");
    const PlistNode archiver = field(top, "$archiver");
    if (!PlistReader::isText(archiver)) fail("not a keyed archive: no $archiver");
    if (!PlistReader::textEquals(archiver, std::string_view("NSKeyedArchiver")))
      fail("not a keyed archive: $archiver is \"" + lmUtf8(PlistReader::text(archiver)) + "\"");
    if (field(top, "$version").type != PlistType::kInteger)
      fail("not a keyed archive: no $version");
    objects_ = field(top, "$objects");
    if (objects_.type != PlistType::kArray) fail("not a keyed archive: no $objects array");
    if (objects_.count == 0 ||
        !PlistReader::textEquals(plist_.item(objects_, 0), std::string_view("$null")))
      fail("$objects does not start with \"$null\"");
    if (objects_.count > maxObjects_)
      fail("$objects holds " + number(objects_.count) + " entries, more than the limit of " +
           number(maxObjects_));
    state_.assign(objects_.count, kIdle);

    const PlistNode topKeys = field(top, "$top");
    if (topKeys.type != PlistType::kDict) fail("not a keyed archive: no $top dictionary");
    const PlistNode root = field(topKeys, "root");
    if (root.type != PlistType::kNone) return reference(root, "$top root");
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
  LMValue reference(const PlistNode& node, const char* where) {
    if (node.type != PlistType::kUid) fail(std::string(where) + " is not a reference");
    return decode(PlistReader::uid(node));
  }

  template <typename Key>
  PlistNode field(const PlistNode& dict, Key key) const {
    if (!open_.empty() && open_.back().payload == dict.payload &&
        open_.back().count == dict.count && dict.type == PlistType::kDict) {
      const OpenObject& o = open_.back();
      for (uint64_t i = 0; i < o.count; ++i) {
        if (PlistReader::textEquals(openKeys_[o.firstKey + i], key))
          return plist_.item(dict, o.count + i);
      }
      return {};
    }
    return plist_.field(dict, key);
  }
  PlistNode field(const PlistNode& dict, const char* key) const {
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
    OpenGuard(ArchiveReader& r, const PlistNode& dict) : r_(r), firstKey_(r.openKeys_.size()) {
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
  static LMKey shortKey(const PlistNode& node) {
    if (node.type == PlistType::kAscii) {
      char16_t units[LMKey::kInlineUnits];
      bool plain = true;
      for (uint64_t i = 0; i < node.count; ++i) {
        units[i] = node.payload[i];
        plain &= node.payload[i] != 0 && node.payload[i] < 0x80;
      }
      if (plain) return LMKey(std::u16string_view(units, node.count));
    }
    return LMKey(PlistReader::text(node));
  }

  // The entry `uid` of "$objects".
  PlistNode entry(uint64_t uid) const { return plist_.item(objects_, uid); }

  std::u16string keyText(const PlistNode& key) const {
    if (!PlistReader::isText(key)) fail("a property-list dictionary key is not a text");
    return PlistReader::text(key);
  }

  // A text, number or data value; nil for anything else.
  LMValue plainValue(const PlistNode& node) {
    switch (node.type) {
      case PlistType::kAscii:
      case PlistType::kUtf16:
        return spendText(PlistReader::text(node));
      case PlistType::kInteger:
        spend(1);
        return PlistReader::integer(node);
      case PlistType::kReal:
        spend(1);
        return PlistReader::real(node);
      case PlistType::kBool:
        spend(1);
        return node.count != 0;
      case PlistType::kData:
        spend(1 + node.count / 64);
        return PlistReader::data(node);
      default:
        return LMValue();
    }
  }

  LMValue decodeObject(uint64_t uid) {
    const PlistNode node = entry(uid);
    if (node.type != PlistType::kDict) {
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
      case Kind::kDictionary:
        return dictionaryObject(node);
      case Kind::kArray:
        return references(field(node, "NS.objects"), "NS.objects");
      case Kind::kString:
        if (const PlistNode text = plainField(node, "NS.string"); PlistReader::isText(text))
          return plainValue(text);
        if (const PlistNode bytes = plainField(node, "NS.bytes"); bytes.type == PlistType::kData) {
          spend(1 + bytes.count / 64);
          return lmUtf16(std::string_view(reinterpret_cast<const char*>(bytes.payload), bytes.count));
        }
        fail("a text object has neither NS.string nor NS.bytes");
      case Kind::kData:
        if (const PlistNode bytes = plainField(node, "NS.data"); bytes.type == PlistType::kData)
          return plainValue(bytes);
        fail("a data object has no NS.data");
      case Kind::kNull:
        return LMValue::null();
      case Kind::kDate: {
        const PlistNode time = plainField(node, "NS.time");
        if (time.type == PlistType::kReal)
          return LMDate::fromTimeIntervalSinceReferenceDate(PlistReader::real(time));
        if (time.type == PlistType::kInteger)
          return LMDate::fromTimeIntervalSinceReferenceDate(
              static_cast<double>(PlistReader::integer(time)));
        fail("a date has no NS.time number");
      }
      case Kind::kDecimal:
        return decimalObject(node);
      case Kind::kAttributed:
        return attributedStringObject(node);
      case Kind::kElement: {
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
    std::optional<Kind> kind;
    std::u16string name;
  };
  const ResolvedClass& classOf(uint64_t uid, const PlistNode& dict) {
    const PlistNode ref = field(dict, "$class");
    if (ref.type != PlistType::kUid) fail("object " + number(uid) + " has no $class reference");
    const uint64_t classUid = PlistReader::uid(ref);
    if (auto it = resolved_.find(classUid); it != resolved_.end()) return it->second;
    if (classUid == 0 || classUid >= objects_.count)
      fail("object " + number(uid) + " has a $class reference out of range");
    const PlistNode classEntry = entry(classUid);
    if (classEntry.type != PlistType::kDict)
      fail("class entry " + number(classUid) + " is not a dictionary");
    const PlistNode name = field(classEntry, "$classname");
    if (!PlistReader::isText(name)) fail("class entry " + number(classUid) + " has no $classname");
    ResolvedClass resolved{std::nullopt, PlistReader::text(name)};
    if (const ArchivedClass* known = findClass(resolved.name)) {
      resolved.kind = known->kind;
    } else if (const PlistNode chain = field(classEntry, "$classes");
               chain.type == PlistType::kArray) {
      spend(chain.count);
      for (uint64_t i = 0; i < chain.count; ++i) {
        const PlistNode super = plist_.item(chain, i);
        if (!PlistReader::isText(super)) continue;
        std::u16string candidate = PlistReader::text(super);
        if (const ArchivedClass* known = findClass(candidate)) {
          resolved = {known->kind, std::move(candidate)};
          break;
        }
      }
    }
    spend(1);  // each class entry is resolved once
    return resolved_.emplace(classUid, std::move(resolved)).first->second;
  }

  // The objects of a reference array such as "NS.objects"; absent is empty.
  LMArray references(const PlistNode& array, const char* name) {
    LMArray items;
    if (array.type == PlistType::kNone) return items;
    if (array.type != PlistType::kArray) fail(std::string(name) + " is not an array");
    items.reserve(std::min<uint64_t>(array.count, 4096));
    for (uint64_t i = 0; i < array.count; ++i) {
      items.push_back(reference(plist_.item(array, i), name));
      if (items.back().isNil()) fail(std::string("nil inside ") + name);
    }
    return items;
  }

  LMValue dictionaryObject(const PlistNode& node) {
    const PlistNode keys = field(node, "NS.keys");
    const PlistNode values = field(node, "NS.objects");
    const auto countOf = [&](const PlistNode& array, const char* name) -> uint64_t {
      if (array.type == PlistType::kNone) return 0;
      if (array.type != PlistType::kArray) fail(std::string(name) + " is not an array");
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
  LMKey keyOf(const PlistNode& ref) {
    if (ref.type != PlistType::kUid) fail("NS.keys is not a reference");
    const uint64_t uid = PlistReader::uid(ref);
    if (uid > 0 && uid < objects_.count) {
      const PlistNode node = entry(uid);
      if (PlistReader::isText(node)) {
        if (node.count <= LMKey::kInlineUnits) return spendKey(shortKey(node));
        for (const auto& [known, key] : longKeys_) {
          if (known == uid) return spendKey(key);
        }
        LMKey key(PlistReader::text(node));
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
  PlistNode plainField(const PlistNode& dict, const char* key) {
    const PlistNode node = field(dict, key);
    if (node.type != PlistType::kUid) return node;
    const uint64_t uid = PlistReader::uid(node);
    if (uid >= objects_.count) fail(std::string(key) + " refers out of range");
    return entry(uid);
  }

  std::optional<int64_t> integerField(const PlistNode& dict, const char* key) {
    const PlistNode node = field(dict, key);
    if (node.type == PlistType::kNone) return std::nullopt;
    if (node.type == PlistType::kInteger || node.type == PlistType::kBool)
      return PlistReader::integer(node);
    fail(std::string(key) + " is not a number");
  }

  LMValue decimalObject(const PlistNode& node) {
    const int64_t exponent = integerField(node, "NS.exponent").value_or(0);
    const int64_t length = integerField(node, "NS.length").value_or(0);
    const bool negative = integerField(node, "NS.negative").value_or(0) != 0;
    const int64_t order =
        integerField(node, "NS.mantissa.bo").value_or(1);  // 1 little, 2 big endian
    if (exponent < LMDecimal::kMinExponent || exponent > LMDecimal::kMaxExponent)
      fail("NS.exponent " + std::to_string(exponent) + " is out of range");
    if (length < 0 || length > 8) fail("NS.length " + std::to_string(length) + " is out of range");
    if (order != 1 && order != 2) fail("NS.mantissa.bo names no byte order");
    const PlistNode mantissa = plainField(node, "NS.mantissa");
    if (mantissa.type != PlistType::kData) fail("a decimal number has no NS.mantissa");
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

  LMValue attributedStringObject(const PlistNode& node) {
    LMAttributedString result;
    if (const PlistNode text = field(node, "NSString"); text.type != PlistType::kNone) {
      LMValue value =
          PlistReader::isText(text) ? plainValue(text) : reference(text, "NSString");
      std::u16string* string = value.asString();
      if (!string) fail("NSString of an attributed text is not a text");
      result.string = std::move(*string);
    }
    const uint64_t length = result.string.size();
    const PlistNode attributesRef = field(node, "NSAttributes");
    const PlistNode infoRef = field(node, "NSAttributeInfo");
    if (length == 0 || attributesRef.type == PlistType::kNone) return result;
    LMValue attributes = reference(attributesRef, "NSAttributes");
    if (infoRef.type == PlistType::kNone) {
      LMDictionary* all = attributes.asDictionary();
      if (!all) fail("NSAttributes without NSAttributeInfo is not a dictionary");
      if (!all->empty()) result.runs.push_back({LMTextRange::make(0, length), std::move(*all)});
      return result;
    }
    const LMValue info = infoRef.type == PlistType::kData ? plainValue(infoRef)
                                                           : reference(infoRef, "NSAttributeInfo");
    const LMData* varints = info.asData();
    LMArray* slots = attributes.asArray();
    if (!varints) fail("NSAttributeInfo is not data");
    if (!slots) fail("NSAttributes with NSAttributeInfo is not an array");
    for (const LMValue& slot : *slots) {
      if (!slot.asDictionary()) fail("NSAttributes holds something other than dictionaries");
    }
    // The runs first, to know each slot's last use: that one takes the
    // dictionary, the others copy it.
    struct Run {
      LMTextRange range;
      uint64_t slot;
    };
    std::vector<Run> runs;
    std::vector<size_t> lastUse(slots->size(), SIZE_MAX);
    size_t pos = 0;
    for (uint64_t at = 0; at < length;) {
      uint64_t runLength = 0;
      uint64_t slot = 0;
      if (!readVarint(*varints, pos, runLength) || !readVarint(*varints, pos, slot))
        fail("NSAttributeInfo ends before the text does");
      if (slot >= slots->size())
        fail("NSAttributeInfo names attributes " + number(slot) + " of " + number(slots->size()));
      if (runLength > length - at) fail("attribute runs pass the end of the text");
      if (runLength > 0) {
        // Decoding the array paid for each dictionary once; copies beyond
        // one a slot cost again.
        if (lastUse[slot] != SIZE_MAX) spend(weight((*slots)[slot]));
        lastUse[slot] = runs.size();
        runs.push_back({LMTextRange::make(at, runLength), slot});
      }
      at += runLength;
    }
    result.runs.reserve(runs.size());
    for (size_t i = 0; i < runs.size(); ++i) {
      LMDictionary& attributesOfRun = *(*slots)[runs[i].slot].asDictionary();
      result.runs.push_back({runs[i].range, lastUse[runs[i].slot] == i
                                                ? std::move(attributesOfRun)
                                                : LMDictionary(attributesOfRun)});
    }
    return result;
  }

  // An object of a class we do not know: its class name under "$classname"
  // and its keys; keys holding nil are left out.
  LMDictionary unknownObject(const PlistNode& node, const std::u16string& className) {
    LMDictionary dict{{u"$classname", className}};
    spend(1);  // the key "$classname"
    spend(1 + className.size() / 64);
    for (uint64_t i = 0; i < node.count; ++i) {
      const PlistNode key = plist_.item(node, i);
      if (PlistReader::textEquals(key, std::string_view("$class"))) continue;
      std::u16string name = keyText(key);
      LMValue decoded = inlineValue(plist_.item(node, node.count + i));
      if (!decoded.isNil()) dict.emplace(spendText(std::move(name)), std::move(decoded));
    }
    return dict;
  }

  // A key of an unknown object: a reference or a plain value.
  LMValue inlineValue(const PlistNode& node) {
    if (node.type == PlistType::kUid) return decode(PlistReader::uid(node));
    LMValue value = plainValue(node);
    if (value.isNil()) fail("an object of an unknown class holds an unsupported value");
    return value;
  }

  friend class ElementDecoder;

  const PlistReader plist_;
  const size_t maxObjects_;
  const size_t maxDepth_;
  const uint64_t budget_;
  PlistNode objects_;
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
  std::vector<PlistNode> openKeys_;
  size_t depth_ = 0;
  uint64_t spent_ = 0;
};

PlistNode ElementDecoder::item(std::u16string_view key) const {
  return reader_.field(dict_, key);
}

int64_t ElementDecoder::decodeInt64(std::u16string_view key) const {
  return PlistReader::integer(item(key));
}

LMRect ElementDecoder::decodeRect(std::u16string_view key) const {
  PlistNode node = item(key);
  if (node.type == PlistType::kUid) {
    // Nearly always a reference to an ASCII text: read where it lies.
    const uint64_t uid = PlistReader::uid(node);
    if (uid > 0 && uid < reader_.objects_.count) {
      const PlistNode text = reader_.entry(uid);
      if (text.type == PlistType::kAscii) {
        reader_.spend(1 + text.count / 64);
        return rectFromAscii(
            std::string_view(reinterpret_cast<const char*>(text.payload), text.count));
      }
    }
  }
  if (PlistReader::isText(node)) return lmRectFromString(PlistReader::text(node));
  if (node.type != PlistType::kUid) return LMRect::zero();
  const LMValue value = reader_.decode(PlistReader::uid(node));
  return value.asString() ? lmRectFromString(*value.asString()) : LMRect::zero();
}

LMValue ElementDecoder::decodeObject(std::u16string_view key) const {
  const PlistNode node = item(key);
  return node.type == PlistType::kUid ? reader_.decode(PlistReader::uid(node)) : LMValue();
}

template <typename F>
auto guarded(std::string* error, const char* what, F&& f) -> decltype(std::optional(f())) {
  std::string message;
  try {
    return f();
  } catch (const ArchiveError& e) {
    message = e.message;
  } catch (const std::bad_alloc&) {
    message = std::string("out of memory while ") + what;
  } catch (const std::exception& e) {
    message = std::string(what) + " failed: " + e.what();
  }
  if (error) *error = std::move(message);
  return std::nullopt;
}

}  // namespace

std::optional<std::vector<uint8_t>> lxDataSerialize(const LMValue& root, std::string* error) {
  return guarded(error, "archiving", [&] { return ArchiveWriter().archive(root); });
}

std::optional<std::vector<uint8_t>> lxDataSerializeReleasing(LMValue&& root, std::string* error) {
  return guarded(error, "archiving", [&] {
    ArchiveWriter writer;
    writer.releaseAsWritten();
    std::vector<uint8_t> bytes = writer.archive(root);
    root = LMValue();
    return bytes;
  });
}

std::optional<LMValue> lxDataUnserialize(std::span<const uint8_t> bytes, std::string* error,
                                         const LMUnarchiveLimits& limits) {
  return guarded(error, "unarchiving", [&] {
    if (bytes.empty()) fail("the archive is empty");
    if (bytes.size() > limits.maxBytes)
      fail("the archive has " + number(bytes.size()) + " bytes, more than the limit of " +
           number(limits.maxBytes));
    return ArchiveReader(bytes, limits).read();
  });
}

LMRect lmRectFromString(std::u16string_view text) {
  std::string ascii;
  for (char16_t c : text) {
    if (c > 0x7F) return LMRect::zero();
    ascii.push_back(static_cast<char>(c));
  }
  return rectFromAscii(ascii);
}

namespace {

LMRect rectFromAscii(std::string_view ascii) {
  const char* p = ascii.data();
  const char* end = p + ascii.size();
  auto skipSpace = [&] {
    while (p < end && (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r')) ++p;
  };
  auto expect = [&](char c) {
    skipSpace();
    return p < end && *p == c ? (++p, true) : false;
  };
  auto readNumber = [&](double& out) {
    skipSpace();
    if (p + 1 < end && *p == '+' && p[1] != '-') ++p;
    auto [next, ec] = std::from_chars(p, end, out);
    p = next;
    return ec == std::errc();
  };
  LMRect r;
  const bool ok = expect('{') && expect('{') && readNumber(r.x) && expect(',') && readNumber(r.y) &&
                  expect('}') && expect(',') && expect('{') && readNumber(r.width) && expect(',') &&
                  readNumber(r.height) && expect('}') && expect('}');
  skipSpace();
  return ok && p == end ? r : LMRect::zero();
}

}  // namespace
