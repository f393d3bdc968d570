// The keyed-archive encoder: a value tree, class by class, into the objects
// of a binary property list (LMPlistWriter); keyed_archive.h describes the
// layout.
#include <malloc.h>

#include <algorithm>
#include <memory>
#include <unordered_map>
#include <utility>

#include "elements/found_element.h"
#include "kit/keyed_coding.h"
#include "kit/unicode.h"
#include "service/archive_format.h"
#include "service/keyed_archive.h"
#include "service/plist_writer.h"

namespace {

[[noreturn]] void fail(std::string message) { lmArchiveFail(std::move(message)); }

std::string number(uint64_t n) { return std::to_string(n); }

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
      if (++depth_ > kLMMaxArchiveDepth)
        fail("the value tree nests deeper than " + number(kLMMaxArchiveDepth) + " levels");
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
      if (const LMArchivedClass* known = lmFindArchivedClass(className))
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
    // (An empty dictionary may leave the stack empty, without a data().)
    const uint32_t* pairs = pending_.data() + start;
    const uint32_t keys = plist_.array(pairs, entries.size(), 2);
    const uint32_t values = plist_.array(entries.empty() ? pairs : pairs + 1, entries.size(), 2);
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
        runs.push_back({run.range.length, &run.attributes()});
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
          lmAppendVarint(info, runLength);
          lmAppendVarint(info, *slot);
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
    const LMArchivedClass* known = lmFindArchivedClass(name);
    if (!element || !known || known->kind != LMArchiveKind::kElement)
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

}  // namespace

std::optional<std::vector<uint8_t>> lxDataSerialize(const LMValue& root, std::string* error) {
  return lmArchiveGuarded(error, "archiving", [&] { return ArchiveWriter().archive(root); });
}

std::optional<std::vector<uint8_t>> lxDataSerializeReleasing(LMValue&& root, std::string* error) {
  return lmArchiveGuarded(error, "archiving", [&] {
    ArchiveWriter writer;
    writer.releaseAsWritten();
    std::vector<uint8_t> bytes = writer.archive(root);
    root = LMValue();
    return bytes;
  });
}
