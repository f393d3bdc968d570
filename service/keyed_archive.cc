#include "service/keyed_archive.h"

#include <plist/plist.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <unordered_map>

#include "elements/found_element.h"
#include "kit/keyed_coding.h"
#include "kit/unicode.h"

namespace {

// Failures unwind to the two entry points, which turn them into the error
// text; nothing escapes this file.
struct ArchiveError {
  std::string message;
};

[[noreturn]] void fail(std::string message) { throw ArchiveError{std::move(message)}; }

std::string number(uint64_t n) { return std::to_string(n); }

// Both sides recurse once per level of nesting; these keep the stack small
// enough for any thread (also in sanitizer builds, whose frames are large).
constexpr size_t kMaxEncodeDepth = 512;
constexpr size_t kMaxDecodeDepth = 512;
// A keyed archive nests its property list only a few levels (top dictionary,
// $objects, an object, its reference array); anything far deeper is hostile
// and would make the parser recurse once per level.
constexpr size_t kMaxPlistDepth = 64;

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

// ------------------------------------------------ binary property-list writer

// `text` with U+0000 and unpaired surrogates replaced by U+FFFD.
std::u16string carriable(std::u16string_view text) {
  std::u16string out(text);
  for (size_t i = 0; i < out.size(); ++i) {
    const char16_t c = out[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < out.size() && out[i + 1] >= 0xDC00 &&
        out[i + 1] <= 0xDFFF)
      ++i;
    else if (c == 0 || (c >= 0xD800 && c <= 0xDFFF))
      out[i] = u'\uFFFD';
  }
  return out;
}

// A binary property list assembled object by object and written in one go.
// Texts, numbers and references are stored once however often they occur.
// (The archive is flat and its shape known, so this is much cheaper than a
// tree of parser nodes.)
class BinaryPlist {
 public:
  uint32_t text(std::u16string_view raw) {
    // U+0000 ends the text for readers that use C strings, and an unpaired
    // surrogate cannot be decoded by most; both become U+FFFD, one unit for
    // one, so ranges into the text stay valid.
    bool ascii = true;
    for (size_t i = 0; i < raw.size(); ++i) {
      const char16_t c = raw[i];
      if (c >= 0xD800 && c <= 0xDBFF && i + 1 < raw.size() && raw[i + 1] >= 0xDC00 &&
          raw[i + 1] <= 0xDFFF) {
        ascii = false;
        ++i;
      } else if (c == 0 || (c >= 0xD800 && c <= 0xDFFF)) {
        return text(carriable(raw));
      } else {
        ascii = ascii && c < 0x80;
      }
    }
    if (auto it = texts_.find(raw); it != texts_.end()) return it->second;
    const uint32_t node = ascii ? add(kAscii, 0, bytes_.size(), raw.size())
                                : add(kUtf16, 0, units_.size(), raw.size());
    if (ascii)
      bytes_.insert(bytes_.end(), raw.begin(), raw.end());
    else
      units_ += raw;
    texts_.emplace(raw, node);
    return node;
  }
  uint32_t integer(int64_t n) { return unique(integers_, kInteger, static_cast<uint64_t>(n)); }
  uint32_t real(double d) { return unique(reals_, kReal, std::bit_cast<uint64_t>(d)); }
  uint32_t boolean(bool b) { return unique(bools_, kBool, b); }
  uint32_t uid(uint64_t n) { return unique(uids_, kUid, n); }
  uint32_t data(const uint8_t* p, size_t n) {
    const uint32_t node = add(kData, 0, bytes_.size(), n);
    bytes_.insert(bytes_.end(), p, p + n);
    return node;
  }
  uint32_t array(const std::vector<uint32_t>& items) {
    const uint32_t node = add(kArray, 0, refs_.size(), items.size());
    refs_.insert(refs_.end(), items.begin(), items.end());
    return node;
  }
  uint32_t dictionary(const std::vector<uint32_t>& keys, const std::vector<uint32_t>& values) {
    const uint32_t node = add(kDict, 0, refs_.size(), keys.size());
    refs_.insert(refs_.end(), keys.begin(), keys.end());
    refs_.insert(refs_.end(), values.begin(), values.end());
    return node;
  }

  std::vector<uint8_t> write(uint32_t top) const {
    std::vector<uint8_t> out{'b', 'p', 'l', 'i', 's', 't', '0', '0'};
    auto bigEndian = [&](uint64_t v, int size) {
      for (int i = size - 1; i >= 0; --i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
    };
    auto width = [](uint64_t v) {
      return v <= 0xFF ? 1 : v <= 0xFFFF ? 2 : v <= 0xFFFFFFFF ? 4 : 8;
    };
    auto marker = [&](uint8_t type, uint64_t count) {
      if (count < 15) return out.push_back(static_cast<uint8_t>(type | count));
      out.push_back(type | 0x0F);
      out.push_back(static_cast<uint8_t>(0x10 | std::countr_zero(unsigned(width(count)))));
      bigEndian(count, width(count));
    };
    const int refSize = width(nodes_.size());
    std::vector<uint64_t> offsets;
    offsets.reserve(nodes_.size());
    for (const Node& n : nodes_) {
      offsets.push_back(out.size());
      switch (n.type) {
        case kInteger: {
          // 1, 2 and 4 bytes are unsigned; 8 bytes are two's complement.
          const int size = n.value > 0xFFFFFFFF ? 8 : width(n.value);
          out.push_back(static_cast<uint8_t>(0x10 | std::countr_zero(unsigned(size))));
          bigEndian(n.value, size);
          break;
        }
        case kReal:
          out.push_back(0x23);
          bigEndian(n.value, 8);
          break;
        case kBool:
          out.push_back(n.value ? 0x09 : 0x08);
          break;
        case kUid:
          out.push_back(static_cast<uint8_t>(0x80 | (width(n.value) - 1)));
          bigEndian(n.value, width(n.value));
          break;
        case kData:
        case kAscii:
          marker(n.type == kData ? 0x40 : 0x50, n.count);
          out.insert(out.end(), bytes_.begin() + n.first, bytes_.begin() + n.first + n.count);
          break;
        case kUtf16:
          marker(0x60, n.count);
          for (size_t i = 0; i < n.count; ++i) bigEndian(units_[n.first + i], 2);
          break;
        case kArray:
        case kDict: {
          marker(n.type == kArray ? 0xA0 : 0xD0, n.count);
          const size_t refs = n.type == kArray ? n.count : 2 * n.count;
          for (size_t i = 0; i < refs; ++i) bigEndian(refs_[n.first + i], refSize);
          break;
        }
      }
    }
    const uint64_t table = out.size();
    const int offsetSize = width(table);
    for (uint64_t offset : offsets) bigEndian(offset, offsetSize);
    out.insert(out.end(), 6, 0);
    out.push_back(static_cast<uint8_t>(offsetSize));
    out.push_back(static_cast<uint8_t>(refSize));
    bigEndian(nodes_.size(), 8);
    bigEndian(top, 8);
    bigEndian(table, 8);
    return out;
  }

 private:
  enum Type : uint8_t { kAscii, kUtf16, kInteger, kReal, kBool, kUid, kData, kArray, kDict };
  struct Node {
    Type type;
    uint64_t value;  // integer, real bits, boolean or reference
    size_t first;    // into bytes_, units_ or refs_
    size_t count;
  };
  uint32_t add(Type type, uint64_t value, size_t first, size_t count) {
    nodes_.push_back({type, value, first, count});
    return static_cast<uint32_t>(nodes_.size() - 1);
  }
  uint32_t unique(std::unordered_map<uint64_t, uint32_t>& seen, Type type, uint64_t value) {
    auto [it, inserted] = seen.try_emplace(value, 0);
    if (inserted) it->second = add(type, value, 0, 0);
    return it->second;
  }

  std::vector<Node> nodes_;
  std::vector<uint8_t> bytes_;
  std::u16string units_;
  std::vector<uint32_t> refs_;
  // Looked up by view, so that the many repeated keys cost no copy.
  struct TextHash {
    using is_transparent = void;
    size_t operator()(std::u16string_view s) const { return std::hash<std::u16string_view>()(s); }
  };
  std::unordered_map<std::u16string, uint32_t, TextHash, std::equal_to<>> texts_;
  std::unordered_map<uint64_t, uint32_t> integers_, reals_, bools_, uids_;
};

// ------------------------------------------------------------- archive writer

class ArchiveWriter;

// An object of the archive being filled in: "$class" and its keys.
struct ObjectDict {
  std::vector<uint32_t> keys;
  std::vector<uint32_t> values;
};

// The keyed coder a found element writes itself into.
class ElementEncoder final : public LMKeyedEncoder {
 public:
  ElementEncoder(ArchiveWriter& writer, ObjectDict& dict) : writer_(writer), dict_(dict) {}
  void encodeInt64(std::u16string_view key, int64_t value) override;
  void encodeRect(std::u16string_view key, const LMRect& rect) override;
  void encodeObject(std::u16string_view key, const LMValue& value) override;

 private:
  ArchiveWriter& writer_;
  ObjectDict& dict_;
};

class ArchiveWriter {
 public:
  std::vector<uint8_t> archive(const LMValue& root) {
    objects_.push_back(plist_.text(u"$null"));
    const uint64_t rootRef = encode(root);
    const uint32_t top = plist_.dictionary(
        {plist_.text(u"$version"), plist_.text(u"$archiver"), plist_.text(u"$top"),
         plist_.text(u"$objects")},
        {plist_.integer(100000), plist_.text(u"NSKeyedArchiver"),
         plist_.dictionary({plist_.text(u"root")}, {plist_.uid(rootRef)}), plist_.array(objects_)});
    return plist_.write(top);
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

  uint64_t push(uint32_t node) {
    objects_.push_back(node);
    return objects_.size() - 1;
  }
  // Texts and numbers: one entry of $objects however often they occur.
  uint64_t plain(uint32_t node) {
    auto [it, inserted] = plain_.try_emplace(node, 0);
    if (inserted) it->second = push(node);
    return it->second;
  }
  // An entry whose object is written after its contents.
  uint64_t reserve() { return push(0); }
  void fill(uint64_t ref, const ObjectDict& dict) {
    objects_[ref] = plist_.dictionary(dict.keys, dict.values);
  }
  uint64_t add(const ObjectDict& dict) { return push(plist_.dictionary(dict.keys, dict.values)); }

  void set(ObjectDict& dict, std::u16string_view key, uint32_t node) {
    dict.keys.push_back(plist_.text(key));
    dict.values.push_back(node);
  }

  ObjectDict objectOf(std::u16string_view className) {
    auto [it, inserted] = classes_.try_emplace(std::u16string(className), 0);
    if (inserted) {
      std::vector<uint32_t> chain{plist_.text(className)};
      if (const ArchivedClass* known = findClass(className))
        for (const std::u16string& super : known->superclasses) chain.push_back(plist_.text(super));
      ObjectDict entry;
      set(entry, u"$classes", plist_.array(chain));
      set(entry, u"$classname", plist_.text(className));
      it->second = add(entry);
    }
    ObjectDict dict;
    set(dict, u"$class", plist_.uid(it->second));
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
    std::vector<uint32_t> refs;
    refs.reserve(items.size());
    for (const LMValue& item : items) refs.push_back(member(item, "an array"));
    ObjectDict dict = objectOf(u"NSArray");
    set(dict, u"NS.objects", plist_.array(refs));
    fill(ref, dict);
    return ref;
  }

  uint64_t dictionary(const LMDictionary& entries) {
    DepthGuard depth(depth_);
    const uint64_t ref = reserve();
    std::vector<uint32_t> keys, values;
    for (const LMDictionaryEntry& entry : entries) {
      keys.push_back(plist_.uid(plain(plist_.text(entry.key))));
      values.push_back(member(entry.value, "a dictionary"));
    }
    ObjectDict dict = objectOf(u"NSDictionary");
    set(dict, u"NS.keys", plist_.array(keys));
    set(dict, u"NS.objects", plist_.array(values));
    fill(ref, dict);
    return ref;
  }

  uint64_t attributedString(const LMAttributedString& text) {
    DepthGuard depth(depth_);
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
        set(array, u"NS.objects", plist_.array(slots));
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
    const uint64_t ref = reserve();
    ObjectDict dict = objectOf(name);
    ElementEncoder coder(*this, dict);
    element->encodeWithCoder(coder);
    fill(ref, dict);
    elements_[element] = ref;
    return ref;
  }

  BinaryPlist plist_;
  std::vector<uint32_t> objects_;  // the property-list object of each entry
  std::unordered_map<uint32_t, uint64_t> plain_;
  std::unordered_map<std::u16string, uint64_t> classes_;
  std::unordered_map<const LMFoundElement*, uint64_t> elements_;
  uint64_t null_ = 0;
  size_t depth_ = 0;
};

void ElementEncoder::encodeInt64(std::u16string_view key, int64_t value) {
  writer_.set(dict_, key, writer_.plist_.integer(value));
}

void ElementEncoder::encodeRect(std::u16string_view key, const LMRect& rect) {
  // Written as the rectangle's text, by reference like any other text.
  writer_.set(dict_, key,
              writer_.plist_.uid(writer_.plain(writer_.plist_.text(lmStringFromRect(rect)))));
}

void ElementEncoder::encodeObject(std::u16string_view key, const LMValue& value) {
  writer_.set(dict_, key, writer_.plist_.uid(writer_.encode(value)));
}

// ------------------------------------------------- binary property-list check

uint64_t readBigEndian(const uint8_t* p, size_t n) {
  uint64_t value = 0;
  for (size_t i = 0; i < n; ++i) value = (value << 8) | p[i];
  return value;
}

// Checks a binary property list before the parser sees it. The parser
// recurses once per nesting level and builds a separate node for every
// reference, so a deep list overflows its stack and a list whose shared
// parts refer to each other in layers expands exponentially. Accepted are
// lists whose objects and references lie inside the data, whose graph from
// the root has no cycle, nests at most kMaxPlistDepth levels and expands to
// at most about twice its count of references.
void checkBinaryPlist(std::span<const uint8_t> b) {
  constexpr size_t kHeader = 8;
  constexpr size_t kTrailer = 32;
  if (b.size() < kHeader + kTrailer + 1 || std::memcmp(b.data(), "bplist00", kHeader) != 0)
    fail("not a binary property list");
  if (b.size() > std::numeric_limits<uint32_t>::max()) fail("the archive is too large");
  const uint8_t* trailer = b.data() + b.size() - kTrailer;
  const size_t offsetSize = trailer[6];
  const size_t refSize = trailer[7];
  const uint64_t count = readBigEndian(trailer + 8, 8);
  const uint64_t root = readBigEndian(trailer + 16, 8);
  const uint64_t table = readBigEndian(trailer + 24, 8);
  const uint64_t dataEnd = b.size() - kTrailer;
  if (offsetSize < 1 || offsetSize > 8 || refSize < 1 || refSize > 8 || count == 0 ||
      count > std::numeric_limits<uint32_t>::max() || root >= count || table < kHeader ||
      table > dataEnd || (dataEnd - table) / offsetSize < count) {
    fail("the property list's trailer is inconsistent");
  }

  // The references of every object, in one flat list.
  std::vector<uint64_t> first(count + 1, 0);
  std::vector<uint32_t> children;
  for (uint64_t i = 0; i < count; ++i) {
    first[i] = children.size();
    const uint64_t offset = readBigEndian(b.data() + table + i * offsetSize, offsetSize);
    if (offset < kHeader || offset >= table) fail("a property-list object lies outside the data");
    uint64_t p = offset + 1;
    const uint8_t low = b[offset] & 0x0F;
    auto sizeField = [&]() -> uint64_t {
      if (low != 0x0F) return low;
      if (p >= table || (b[p] & 0xF0) != 0x10 || (b[p] & 0x0F) > 3)
        fail("a property-list object has a malformed count");
      const size_t n = size_t{1} << (b[p] & 0x0F);
      if (table - p - 1 < n) fail("a property-list object has a malformed count");
      const uint64_t value = readBigEndian(b.data() + p + 1, n);
      p += 1 + n;
      // Nothing can be longer than the data it lies in.
      if (value > table) fail("a property-list object passes the end of the data");
      return value;
    };
    uint64_t length = 0;
    uint64_t refs = 0;
    const uint8_t type = b[offset] >> 4;
    switch (type) {
      case 0x0:
        if (low != 0x08 && low != 0x09) fail("unsupported property-list object");
        break;
      case 0x1:
        if (low > 4) fail("unsupported property-list integer size");
        length = uint64_t{1} << low;
        break;
      case 0x2:
        if (low != 2 && low != 3) fail("unsupported property-list real size");
        length = uint64_t{1} << low;
        break;
      case 0x3:
        if (low != 3) fail("unsupported property-list date size");
        length = 8;
        break;
      case 0x4:
      case 0x5:
        length = sizeField();
        break;
      case 0x6:
        length = 2 * sizeField();
        break;
      case 0x8:
        if (low > 3) fail("unsupported property-list reference size");
        length = low + 1;
        break;
      case 0xA:
        refs = sizeField();
        break;
      case 0xD:
        refs = 2 * sizeField();
        break;
      default:
        fail("unsupported property-list object");
    }
    if (refs) length = refs * refSize;
    if (length > table - p) fail("a property-list object passes the end of the data");
    // The parser aborts on a text holding U+0000.
    if (type == 0x5 || type == 0x6) {
      const uint64_t unit = type == 0x5 ? 1 : 2;
      for (uint64_t i = 0; i < length; i += unit) {
        if (std::all_of(&b[p + i], &b[p + i] + unit, [](uint8_t x) { return x == 0; }))
          fail("a property-list text holds U+0000");
      }
    }
    for (uint64_t r = 0; r < refs; ++r) {
      const uint64_t child = readBigEndian(b.data() + p + r * refSize, refSize);
      if (child >= count) fail("a property-list reference is out of range");
      children.push_back(static_cast<uint32_t>(child));
    }
  }
  first[count] = children.size();

  // Depth and expanded size of the graph from the root, without recursion.
  const uint64_t budget = 2 * (children.size() + count) + 1024;
  enum : uint8_t { kUnseen, kOpen, kClosed };
  std::vector<uint8_t> state(count, kUnseen);
  std::vector<uint32_t> height(count, 0);
  std::vector<uint64_t> expanded(count, 0);
  std::vector<std::pair<uint32_t, uint64_t>> stack{{static_cast<uint32_t>(root), first[root]}};
  state[root] = kOpen;
  while (!stack.empty()) {
    auto& [node, next] = stack.back();
    if (next < first[node + 1]) {
      const uint32_t child = children[next++];
      if (state[child] == kOpen) fail("the property list refers to itself");
      if (state[child] == kUnseen) {
        if (stack.size() >= kMaxPlistDepth) fail("the property list nests too deeply");
        state[child] = kOpen;
        stack.push_back({child, first[child]});
      }
      continue;
    }
    uint32_t h = 0;
    uint64_t size = 1;
    for (uint64_t c = first[node]; c < first[node + 1]; ++c) {
      h = std::max(h, height[children[c]]);
      size = std::min(size + expanded[children[c]], budget + 1);
    }
    if (h + 1 > kMaxPlistDepth) fail("the property list nests too deeply");
    if (size > budget) fail("the property list's shared parts expand too far");
    height[node] = h + 1;
    expanded[node] = size;
    state[node] = kClosed;
    stack.pop_back();
  }
}

// ------------------------------------------------------------- archive reader

struct PlistDeleter {
  void operator()(void* node) const { plist_free(node); }
};

plist_type typeOf(plist_t node) { return node ? plist_get_node_type(node) : PLIST_NONE; }
plist_t field(plist_t dict, const char* key) { return plist_dict_get_item(dict, key); }

std::u16string textOf(plist_t node) {
  char* value = nullptr;
  if (typeOf(node) == PLIST_KEY)
    plist_get_key_val(node, &value);
  else
    plist_get_string_val(node, &value);
  std::u16string text = value ? lmUtf16(value) : std::u16string();
  std::free(value);
  return text;
}

LMData dataOf(plist_t node) {
  char* value = nullptr;
  uint64_t length = 0;
  plist_get_data_val(node, &value, &length);
  const auto* p = reinterpret_cast<const uint8_t*>(value);
  LMData data(p, p + (value ? length : 0));
  std::free(value);
  return data;
}

int64_t integerOf(plist_t node) {
  uint64_t value = 0;
  plist_get_uint_val(node, &value);
  return static_cast<int64_t>(value);  // negatives are stored as two's complement
}

double realOf(plist_t node) {
  double value = 0;
  plist_get_real_val(node, &value);
  return value;
}

bool boolOf(plist_t node) {
  uint8_t value = 0;
  plist_get_bool_val(node, &value);
  return value != 0;
}

uint64_t uidOf(plist_t node) {
  uint64_t value = 0;
  plist_get_uid_val(node, &value);
  return value;
}

// Reads with the iterators: indexed access walks the list from its start.
std::vector<plist_t> arrayItems(plist_t array) {
  std::vector<plist_t> items;
  plist_array_iter iter = nullptr;
  plist_array_new_iter(array, &iter);
  if (!iter) throw std::bad_alloc();
  for (plist_t item = nullptr;; items.push_back(item)) {
    plist_array_next_item(array, iter, &item);
    if (!item) break;
  }
  std::free(iter);
  return items;
}

std::vector<std::pair<std::string, plist_t>> dictItems(plist_t dict) {
  std::vector<std::pair<std::string, plist_t>> items;
  plist_dict_iter iter = nullptr;
  plist_dict_new_iter(dict, &iter);
  if (!iter) throw std::bad_alloc();
  for (;;) {
    char* key = nullptr;
    plist_t value = nullptr;
    plist_dict_next_item(dict, iter, &key, &value);
    if (value) items.emplace_back(key ? key : "", value);
    std::free(key);
    if (!value) break;
  }
  std::free(iter);
  return items;
}

class ArchiveReader;

// The keyed coder a found element reads itself from: one object dictionary.
class ElementDecoder final : public LMKeyedDecoder {
 public:
  ElementDecoder(ArchiveReader& reader, plist_t dict) : reader_(reader), dict_(dict) {}
  bool containsValueForKey(std::u16string_view key) const override { return item(key); }
  int64_t decodeInt64(std::u16string_view key) const override;
  LMRect decodeRect(std::u16string_view key) const override;
  LMValue decodeObject(std::u16string_view key) const override;

 private:
  plist_t item(std::u16string_view key) const { return field(dict_, lmUtf8(key).c_str()); }
  ArchiveReader& reader_;
  plist_t dict_;
};

class ArchiveReader {
 public:
  ArchiveReader(const LMUnarchiveLimits& limits, size_t archiveBytes)
      : maxObjects_(limits.maxObjects),
        maxDepth_(std::min(limits.maxDepth, kMaxDecodeDepth)),
        budget_(std::min<uint64_t>(limits.maxValues,
                                   std::max<uint64_t>(1'000'000, 16 * uint64_t{archiveBytes}))) {}

  LMValue read(plist_t top) {
    if (typeOf(top) != PLIST_DICT) fail("not a keyed archive: the top level is no dictionary");
    plist_t archiver = field(top, "$archiver");
    if (typeOf(archiver) != PLIST_STRING) fail("not a keyed archive: no $archiver");
    if (textOf(archiver) != u"NSKeyedArchiver")
      fail("not a keyed archive: $archiver is \"" + lmUtf8(textOf(archiver)) + "\"");
    if (typeOf(field(top, "$version")) != PLIST_UINT) fail("not a keyed archive: no $version");
    plist_t objects = field(top, "$objects");
    if (typeOf(objects) != PLIST_ARRAY) fail("not a keyed archive: no $objects array");
    objects_ = arrayItems(objects);
    if (objects_.empty() || typeOf(objects_[0]) != PLIST_STRING || textOf(objects_[0]) != u"$null")
      fail("$objects does not start with \"$null\"");
    if (objects_.size() > maxObjects_)
      fail("$objects holds " + number(objects_.size()) + " entries, more than the limit of " +
           number(maxObjects_));
    busy_.assign(objects_.size(), 0);

    plist_t topKeys = field(top, "$top");
    if (typeOf(topKeys) != PLIST_DICT) fail("not a keyed archive: no $top dictionary");
    if (plist_t root = field(topKeys, "root")) return reference(root, "$top root");
    LMDictionary unkeyed;
    spend(1);
    for (const auto& [key, value] : dictItems(topKeys)) {
      unkeyed.set(spendText(lmUtf16(key)), reference(value, "$top"));
    }
    if (unkeyed.empty()) fail("$top is empty");
    return unkeyed;
  }

  // The object `uid` refers to; nil for the nil reference.
  LMValue decode(uint64_t uid) {
    if (uid >= objects_.size())
      fail("reference " + number(uid) + " is out of range (" + number(objects_.size()) +
           " objects)");
    if (uid == 0) return LMValue();
    if (auto it = elements_.find(uid); it != elements_.end()) {
      spend(1);
      return it->second;
    }
    if (busy_[uid]) fail("object " + number(uid) + " refers to itself (a reference cycle)");
    busy_[uid] = 1;
    LMValue value = decodeObject(uid);
    busy_[uid] = 0;
    if (value.kind() == LMValueKind::kObject) elements_.emplace(uid, value);
    return value;
  }

  // A value that must be a reference.
  LMValue reference(plist_t node, const char* where) {
    if (typeOf(node) != PLIST_UID) fail(std::string(where) + " is not a reference");
    return decode(uidOf(node));
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

  // Charged the same whichever layout a value comes in (a key of an unknown
  // object costs what the key of a dictionary does), so that what this
  // system writes of a decoded tree decodes within the same budget.
  void spend(uint64_t cost) {
    spent_ += cost;
    if (spent_ > budget_) fail("the archive expands to more than " + number(budget_) + " values");
  }
  const std::u16string& spendText(const std::u16string& text) {
    spend(1 + text.size() / 64);
    return text;
  }

  // A text, number or data value; nil for anything else.
  LMValue plainValue(plist_t node) {
    switch (typeOf(node)) {
      case PLIST_STRING:
      case PLIST_KEY: {
        std::u16string text = textOf(node);
        spendText(text);
        return text;
      }
      case PLIST_UINT:
        spend(1);
        return integerOf(node);
      case PLIST_REAL:
        spend(1);
        return realOf(node);
      case PLIST_BOOLEAN:
        spend(1);
        return boolOf(node);
      case PLIST_DATA: {
        LMData data = dataOf(node);
        spend(1 + data.size() / 64);
        return data;
      }
      default:
        return LMValue();
    }
  }

  LMValue decodeObject(uint64_t uid) {
    plist_t node = objects_[uid];
    if (typeOf(node) != PLIST_DICT) {
      LMValue value = plainValue(node);
      if (value.isNil()) fail("object " + number(uid) + " is of an unsupported property-list type");
      return value;
    }
    DepthGuard depth(*this);
    spend(1);
    const auto [kind, name] = classOf(uid, node);
    if (!kind) return unknownObject(node, name);
    switch (*kind) {
      case Kind::kDictionary:
        return dictionaryObject(node);
      case Kind::kArray:
        return references(field(node, "NS.objects"), "NS.objects");
      case Kind::kString:
        if (plist_t text = plainField(node, "NS.string"); typeOf(text) == PLIST_STRING)
          return plainValue(text);
        if (plist_t bytes = plainField(node, "NS.bytes"); typeOf(bytes) == PLIST_DATA) {
          const LMValue utf8 = plainValue(bytes);
          const LMData& d = *utf8.asData();
          return lmUtf16(std::string_view(reinterpret_cast<const char*>(d.data()), d.size()));
        }
        fail("a text object has neither NS.string nor NS.bytes");
      case Kind::kData:
        if (plist_t bytes = plainField(node, "NS.data"); typeOf(bytes) == PLIST_DATA)
          return plainValue(bytes);
        fail("a data object has no NS.data");
      case Kind::kNull:
        return LMValue::null();
      case Kind::kDate: {
        plist_t time = plainField(node, "NS.time");
        if (typeOf(time) == PLIST_REAL)
          return LMDate::fromTimeIntervalSinceReferenceDate(realOf(time));
        if (typeOf(time) == PLIST_UINT)
          return LMDate::fromTimeIntervalSinceReferenceDate(static_cast<double>(integerOf(time)));
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
  std::pair<std::optional<Kind>, std::u16string> classOf(uint64_t uid, plist_t dict) {
    plist_t ref = field(dict, "$class");
    if (typeOf(ref) != PLIST_UID) fail("object " + number(uid) + " has no $class reference");
    const uint64_t classUid = uidOf(ref);
    if (auto it = resolved_.find(classUid); it != resolved_.end()) return it->second;
    if (classUid == 0 || classUid >= objects_.size())
      fail("object " + number(uid) + " has a $class reference out of range");
    plist_t entry = objects_[classUid];
    if (typeOf(entry) != PLIST_DICT)
      fail("class entry " + number(classUid) + " is not a dictionary");
    plist_t name = field(entry, "$classname");
    if (typeOf(name) != PLIST_STRING)
      fail("class entry " + number(classUid) + " has no $classname");
    std::pair<std::optional<Kind>, std::u16string> resolved{std::nullopt, textOf(name)};
    std::vector<std::u16string> candidates{resolved.second};
    if (plist_t chain = field(entry, "$classes"); typeOf(chain) == PLIST_ARRAY) {
      for (plist_t super : arrayItems(chain))
        if (typeOf(super) == PLIST_STRING) candidates.push_back(textOf(super));
    }
    for (const std::u16string& candidate : candidates) {
      if (const ArchivedClass* known = findClass(candidate)) {
        resolved = {known->kind, candidate};
        break;
      }
    }
    return resolved_.emplace(classUid, resolved).first->second;
  }

  // The objects of a reference array such as "NS.objects"; absent is empty.
  LMArray references(plist_t array, const char* name) {
    LMArray items;
    if (!array) return items;
    if (typeOf(array) != PLIST_ARRAY) fail(std::string(name) + " is not an array");
    for (plist_t ref : arrayItems(array)) {
      items.push_back(reference(ref, name));
      if (items.back().isNil()) fail(std::string("nil inside ") + name);
    }
    return items;
  }

  LMValue dictionaryObject(plist_t node) {
    const LMArray keys = references(field(node, "NS.keys"), "NS.keys");
    LMArray values = references(field(node, "NS.objects"), "NS.objects");
    if (keys.size() != values.size())
      fail("NS.keys and NS.objects differ in length (" + number(keys.size()) + " and " +
           number(values.size()) + ")");
    LMDictionary dict;
    for (size_t i = 0; i < keys.size(); ++i) {
      const std::u16string* key = keys[i].asString();
      if (!key) fail("a dictionary key is not a text");
      dict.set(*key, std::move(values[i]));
    }
    return dict;
  }

  // A plain value stored inline or behind a reference.
  plist_t plainField(plist_t dict, const char* key) {
    plist_t node = field(dict, key);
    if (typeOf(node) != PLIST_UID) return node;
    const uint64_t uid = uidOf(node);
    if (uid >= objects_.size()) fail(std::string(key) + " refers out of range");
    return objects_[uid];
  }

  std::optional<int64_t> integerField(plist_t dict, const char* key) {
    plist_t node = field(dict, key);
    if (!node) return std::nullopt;
    if (typeOf(node) == PLIST_UINT) return integerOf(node);
    if (typeOf(node) == PLIST_BOOLEAN) return boolOf(node) ? 1 : 0;
    fail(std::string(key) + " is not a number");
  }

  LMValue decimalObject(plist_t node) {
    const int64_t exponent = integerField(node, "NS.exponent").value_or(0);
    const int64_t length = integerField(node, "NS.length").value_or(0);
    const bool negative = integerField(node, "NS.negative").value_or(0) != 0;
    const int64_t order =
        integerField(node, "NS.mantissa.bo").value_or(1);  // 1 little, 2 big endian
    if (exponent < LMDecimal::kMinExponent || exponent > LMDecimal::kMaxExponent)
      fail("NS.exponent " + std::to_string(exponent) + " is out of range");
    if (length < 0 || length > 8) fail("NS.length " + std::to_string(length) + " is out of range");
    if (order != 1 && order != 2) fail("NS.mantissa.bo names no byte order");
    plist_t mantissa = plainField(node, "NS.mantissa");
    if (typeOf(mantissa) != PLIST_DATA) fail("a decimal number has no NS.mantissa");
    const LMData bytes = dataOf(mantissa);
    if (bytes.size() < static_cast<size_t>(2 * length) || bytes.size() > 16)
      fail("NS.mantissa has " + number(bytes.size()) + " bytes");
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

  LMValue attributedStringObject(plist_t node) {
    LMAttributedString result;
    if (plist_t text = field(node, "NSString")) {
      LMValue value = typeOf(text) == PLIST_STRING ? plainValue(text) : reference(text, "NSString");
      if (!value.asString()) fail("NSString of an attributed text is not a text");
      result.string = *value.asString();
    }
    const uint64_t length = result.string.size();
    plist_t attributesRef = field(node, "NSAttributes");
    plist_t infoRef = field(node, "NSAttributeInfo");
    if (length == 0 || !attributesRef) return result;
    const LMValue attributes = reference(attributesRef, "NSAttributes");
    if (!infoRef) {
      const LMDictionary* all = attributes.asDictionary();
      if (!all) fail("NSAttributes without NSAttributeInfo is not a dictionary");
      if (!all->empty()) result.runs.push_back({LMTextRange::make(0, length), *all});
      return result;
    }
    const LMValue info =
        typeOf(infoRef) == PLIST_DATA ? plainValue(infoRef) : reference(infoRef, "NSAttributeInfo");
    const LMData* runs = info.asData();
    const LMArray* slots = attributes.asArray();
    if (!runs) fail("NSAttributeInfo is not data");
    if (!slots) fail("NSAttributes with NSAttributeInfo is not an array");
    std::vector<uint64_t> weights;
    for (const LMValue& slot : *slots) {
      if (!slot.asDictionary()) fail("NSAttributes holds something other than dictionaries");
      weights.push_back(weight(slot));
    }
    // Decoding the array paid for each dictionary once; copies beyond one a
    // slot cost again.
    std::vector<bool> used(slots->size());
    size_t pos = 0;
    for (uint64_t at = 0; at < length;) {
      uint64_t runLength = 0;
      uint64_t slot = 0;
      if (!readVarint(*runs, pos, runLength) || !readVarint(*runs, pos, slot))
        fail("NSAttributeInfo ends before the text does");
      if (slot >= slots->size())
        fail("NSAttributeInfo names attributes " + number(slot) + " of " + number(slots->size()));
      if (runLength > length - at) fail("attribute runs pass the end of the text");
      if (runLength > 0) {
        if (used[slot]) spend(weights[slot]);
        used[slot] = true;
        result.runs.push_back({LMTextRange::make(at, runLength), *(*slots)[slot].asDictionary()});
      }
      at += runLength;
    }
    return result;
  }

  // An object of a class we do not know: its class name under "$classname"
  // and its keys; keys holding nil are left out.
  LMDictionary unknownObject(plist_t node, const std::u16string& className) {
    LMDictionary dict{{u"$classname", className}};
    spend(1);  // the key "$classname"
    spendText(className);
    for (const auto& [key, value] : dictItems(node)) {
      if (key == "$class") continue;
      LMValue decoded = inlineValue(value);
      if (!decoded.isNil()) dict.set(spendText(lmUtf16(key)), std::move(decoded));
    }
    return dict;
  }

  // A key of an unknown object: a reference or a plain value.
  LMValue inlineValue(plist_t node) {
    if (typeOf(node) == PLIST_UID) return decode(uidOf(node));
    LMValue value = plainValue(node);
    if (value.isNil()) fail("an object of an unknown class holds an unsupported value");
    return value;
  }

  const size_t maxObjects_;
  const size_t maxDepth_;
  const uint64_t budget_;
  std::vector<plist_t> objects_;
  std::vector<uint8_t> busy_;
  std::unordered_map<uint64_t, LMValue> elements_;
  std::unordered_map<uint64_t, std::pair<std::optional<Kind>, std::u16string>> resolved_;
  size_t depth_ = 0;
  uint64_t spent_ = 0;
};

int64_t ElementDecoder::decodeInt64(std::u16string_view key) const {
  plist_t node = item(key);
  if (typeOf(node) == PLIST_UINT) return integerOf(node);
  if (typeOf(node) == PLIST_BOOLEAN) return boolOf(node) ? 1 : 0;
  return 0;
}

LMRect ElementDecoder::decodeRect(std::u16string_view key) const {
  plist_t node = item(key);
  if (typeOf(node) == PLIST_STRING) return lmRectFromString(textOf(node));
  if (typeOf(node) != PLIST_UID) return LMRect::zero();
  const LMValue value = reader_.decode(uidOf(node));
  return value.asString() ? lmRectFromString(*value.asString()) : LMRect::zero();
}

LMValue ElementDecoder::decodeObject(std::u16string_view key) const {
  plist_t node = item(key);
  return typeOf(node) == PLIST_UID ? reader_.decode(uidOf(node)) : LMValue();
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

std::optional<LMValue> lxDataUnserialize(std::span<const uint8_t> bytes, std::string* error,
                                         const LMUnarchiveLimits& limits) {
  return guarded(error, "unarchiving", [&] {
    if (bytes.empty()) fail("the archive is empty");
    if (bytes.size() > limits.maxBytes)
      fail("the archive has " + number(bytes.size()) + " bytes, more than the limit of " +
           number(limits.maxBytes));
    checkBinaryPlist(bytes);
    plist_t parsed = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(bytes.data()), static_cast<uint32_t>(bytes.size()),
                   &parsed);
    if (!parsed) fail("the property list cannot be parsed");
    std::unique_ptr<void, PlistDeleter> top(parsed);
    return ArchiveReader(limits, bytes.size()).read(top.get());
  });
}

LMRect lmRectFromString(std::u16string_view text) {
  std::string ascii;
  for (char16_t c : text) {
    if (c > 0x7F) return LMRect::zero();
    ascii.push_back(static_cast<char>(c));
  }
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
