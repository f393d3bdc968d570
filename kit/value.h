// The value tree: the one type that task dictionaries, result dictionaries and
// findings are made of.
//
// An LMValue is nil (no value), the null marker, a boolean, an integer, a
// double, a UTF-16 text, bytes, an exact decimal, a date, an array, an
// insertion-ordered dictionary with text keys, an attributed text, or a shared
// object (a found element). Values copy deeply, except shared objects, which
// are reference-counted and shared like the objects they stand for, and
// attributed texts and long dictionary keys, which nothing changes once they
// are in a value and whose copies therefore share one block.
//
// Nothing here throws on unexpected kinds: every query answers with the
// zero-like value (0, false, empty text, nil). Values are not synchronised; a
// value that no thread changes may be read by many.
#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>
#include <vector>

#include "kit/date.h"
#include "kit/decimal.h"
#include "kit/key.h"
#include "kit/text_range.h"

class LMValue;
struct LMDictionaryEntry;

// The null marker: a value that is present and says "nothing".
struct LMNull {
  friend constexpr bool operator==(LMNull, LMNull) { return true; }
};

using LMData = std::vector<uint8_t>;

// An array of values; the kit's array helpers are free functions below.
using LMArray = std::vector<LMValue>;

// A dictionary with text keys that keeps the order in which keys were first
// inserted, so that everything written from it comes out in a stable order.
class LMDictionary {
 public:
  LMDictionary() = default;
  LMDictionary(std::initializer_list<LMDictionaryEntry> entries);
  LMDictionary(const LMDictionary&);
  LMDictionary(LMDictionary&&) noexcept;
  LMDictionary& operator=(const LMDictionary&);
  LMDictionary& operator=(LMDictionary&&) noexcept;
  ~LMDictionary();

  size_t size() const;
  size_t len() const { return size(); }
  bool empty() const;
  bool contains(std::u16string_view key) const;

  // The value under `key`, or a shared nil value when the key is absent.
  const LMValue& at(std::u16string_view key) const;
  // The value under `key`, or nullptr when the key is absent or its value is
  // the null marker (the lookup the analysis uses everywhere).
  const LMValue* key(std::u16string_view key) const;
  // Mutable access; nullptr when absent.
  LMValue* find(std::u16string_view key);

  // Stores `value` under `key`: a new key goes to the end, an existing key
  // keeps its place and gets the new value.
  void set(std::u16string_view key, LMValue value);
  // What `set` does, keeping `key` itself (shared storage and all) when the
  // key is new.
  void emplace(LMKey key, LMValue value);
  // Room for `count` entries without reallocating.
  void reserve(size_t count);
  // The value under `key`, inserted as nil first when absent.
  LMValue& operator[](std::u16string_view key);
  // Removes `key`; false when it was absent.
  bool remove(std::u16string_view key);
  void clear();

  // Stores and returns the key's integer value plus 1.
  int64_t incrementCounterForKey(std::u16string_view key);

  std::vector<std::u16string> keys() const;
  const std::vector<LMDictionaryEntry>& entries() const { return entries_; }
  std::vector<LMDictionaryEntry>::const_iterator begin() const;
  std::vector<LMDictionaryEntry>::const_iterator end() const;

  friend bool operator==(const LMDictionary& a, const LMDictionary& b);

 private:
  // Dictionaries above this size keep a hash index beside the entries; the
  // index is kept up to date on every change, never built lazily, so that
  // concurrent reads of a shared table stay reads.
  static constexpr size_t kIndexThreshold = 32;
  struct IndexHash {
    using is_transparent = void;
    size_t operator()(std::u16string_view key) const {
      return std::hash<std::u16string_view>()(key);
    }
  };
  using Index = std::unordered_map<std::u16string, size_t, IndexHash, std::equal_to<>>;
  std::optional<size_t> position(std::u16string_view key) const;
  // Adds a key known to be absent; returns its value.
  LMValue& append(LMKey key, LMValue value);
  void rebuildIndex();

  std::vector<LMDictionaryEntry> entries_;
  // Null until the dictionary outgrows kIndexThreshold; kept small because
  // every found element carries several dictionaries.
  std::unique_ptr<Index> index_;
};

// One run of attributes over a range of an attributed text. Runs with the
// same attributes may share one dictionary (a page's runs of one font do,
// and a page of many font changes has as many runs as characters): the
// dictionary is never changed once it is in a run.
struct LMAttributeRun {
  LMAttributeRun(LMTextRange range, LMDictionary attributes);
  // `attributes` null: a run without attributes.
  LMAttributeRun(LMTextRange range, std::shared_ptr<const LMDictionary> attributes);

  LMTextRange range;
  const LMDictionary& attributes() const;
  friend bool operator==(const LMAttributeRun&, const LMAttributeRun&);

 private:
  std::shared_ptr<const LMDictionary> attributes_;
};

// Text with attributes over ranges (a page's rich text).
struct LMAttributedString {
  std::u16string string;
  std::vector<LMAttributeRun> runs;
  size_t length() const { return string.size(); }
  friend bool operator==(const LMAttributedString&, const LMAttributedString&);
};

// How a value holds an attributed text: behind a pointer, so that every
// value stays small (pages are few, every other value is many). The text is
// never changed once it is in a value, so copies share it.
struct LMAttributedStringRef {
  std::shared_ptr<const LMAttributedString> text;
  friend bool operator==(const LMAttributedStringRef& a, const LMAttributedStringRef& b) {
    return a.text == b.text || *a.text == *b.text;
  }
};

// Base of the shared objects a value can hold (the found elements).
class LMObject {
 public:
  virtual ~LMObject() = default;
  // The class name under which the object is known, e.g. "LMFoundNumber".
  virtual std::u16string className() const = 0;
  // "<ClassName: 0x...>" unless overridden.
  virtual std::u16string description() const;
  // The text form `toString` uses; nullopt means "use description".
  virtual std::optional<std::u16string> stringValue() const { return std::nullopt; }
  // A JSON-ready value tree; the description text unless overridden.
  virtual LMValue jsonObject() const;
  // Ascending order for sorting; identity order unless overridden.
  virtual int compare(const LMObject& other) const;
};

enum class LMValueKind {
  kNil,
  kNull,
  kBool,
  kInt,
  kDouble,
  kString,
  kData,
  kDecimal,
  kDate,
  kArray,
  kDictionary,
  kAttributedString,
  kObject,
};

class LMValue {
 public:
  LMValue() = default;
  LMValue(LMNull) : v_(LMNull{}) {}
  LMValue(bool b) : v_(b) {}
  template <typename T>
    requires(std::is_integral_v<T> && !std::is_same_v<T, bool> &&
             !std::is_same_v<T, char16_t> && !std::is_same_v<T, char>)
  LMValue(T i) : v_(static_cast<int64_t>(i)) {}
  LMValue(double d) : v_(d) {}
  LMValue(const char16_t* s) : v_(std::u16string(s)) {}
  LMValue(std::u16string s) : v_(std::move(s)) {}
  LMValue(std::u16string_view s) : v_(std::u16string(s)) {}
  LMValue(LMData d) : v_(std::move(d)) {}
  LMValue(LMDecimal d) : v_(d) {}
  LMValue(LMDate d) : v_(d) {}
  LMValue(LMArray a) : v_(std::move(a)) {}
  LMValue(LMDictionary d) : v_(std::move(d)) {}
  LMValue(LMAttributedString s)
      : v_(LMAttributedStringRef{std::make_shared<const LMAttributedString>(std::move(s))}) {}
  // Shares `s` instead of copying it.
  LMValue(LMAttributedStringRef s) : v_(std::move(s)) {}
  template <typename T>
    requires std::is_base_of_v<LMObject, T>
  LMValue(std::shared_ptr<T> o) {
    if (o) v_ = std::shared_ptr<LMObject>(std::move(o));
  }

  static LMValue null() { return LMValue(LMNull{}); }

  LMValueKind kind() const { return static_cast<LMValueKind>(v_.index()); }
  bool isNil() const { return kind() == LMValueKind::kNil; }
  bool isNull() const { return kind() == LMValueKind::kNull; }
  // A number in the platform's sense: boolean, integer, double or decimal.
  bool isNumber() const;

  // Typed access: nullptr when the value is of another kind.
  const bool* asBool() const { return std::get_if<bool>(&v_); }
  const int64_t* asInt() const { return std::get_if<int64_t>(&v_); }
  const double* asDouble() const { return std::get_if<double>(&v_); }
  const std::u16string* asString() const { return std::get_if<std::u16string>(&v_); }
  std::u16string* asString() { return std::get_if<std::u16string>(&v_); }
  const LMData* asData() const { return std::get_if<LMData>(&v_); }
  const LMDecimal* asDecimal() const { return std::get_if<LMDecimal>(&v_); }
  const LMDate* asDate() const { return std::get_if<LMDate>(&v_); }
  const LMArray* asArray() const { return std::get_if<LMArray>(&v_); }
  LMArray* asArray() { return std::get_if<LMArray>(&v_); }
  const LMDictionary* asDictionary() const { return std::get_if<LMDictionary>(&v_); }
  LMDictionary* asDictionary() { return std::get_if<LMDictionary>(&v_); }
  const LMAttributedString* asAttributedString() const {
    const auto* ref = std::get_if<LMAttributedStringRef>(&v_);
    return ref ? ref->text.get() : nullptr;
  }
  std::shared_ptr<LMObject> asObject() const;
  template <typename T>
  std::shared_ptr<T> objectAs() const {
    return std::dynamic_pointer_cast<T>(asObject());
  }

  // --- Forgiving conversions ---
  // Number: its integer value (doubles truncate, decimals cut the fraction);
  // text: the leading integer after white space (0 when none, saturating);
  // anything else 0.
  int64_t toInt() const;
  // Number or text: its float value; date: seconds since 1970; else 0.
  float toFloat() const;
  // Number: non-zero; text: after white space, an optional sign and zeros, the
  // first character is one of "YyTt1-9"; anything else false.
  bool toBool() const;
  // Text: itself; null marker and nil: ""; data: UTF-8 decoded ("" when not
  // valid UTF-8); date: unixTimeStampString; number: its text; decimal: its
  // plain notation; anything else: its description.
  std::u16string toString() const;
  // Null marker, nil, zero numbers, not-a-number decimals and empty
  // collections and texts are false; everything else is true.
  bool isTrue() const;
  bool isNotNull() const { return !isNull(); }
  // Nil for the null marker, the value itself otherwise.
  const LMValue& nilOrObject() const;
  // The length of a text, data or attributed text, the count of an array or
  // dictionary; 0 for anything else.
  uint64_t len() const;
  bool isNotEmpty() const { return nilOrObject().len() != 0; }
  // Dictionary lookup forwarded (nullptr when this is no dictionary).
  const LMValue* key(std::u16string_view k) const;
  // Dictionary lookup that answers a shared nil for anything missing.
  const LMValue& at(std::u16string_view k) const;

  // A readable form in property-list style ("(\n    a,\n    b\n)" for arrays,
  // "{\n    key = value;\n}" for dictionaries).
  std::u16string description() const;

  // --- JSON ---
  // A JSON-ready tree: dictionaries and arrays rebuilt with projected values,
  // dates as their whole Unix seconds text, decimals as their plain notation
  // text, shared objects as their own jsonObject; everything else as it is.
  LMValue jsonObject() const;
  // Compact JSON text / pretty JSON text / JSON bytes of a JSON-ready tree;
  // nullopt when the tree holds something JSON cannot carry (data, attributed
  // texts, nil, non-finite doubles).
  std::optional<std::u16string> toJSON() const;
  std::optional<std::u16string> toJSONPretty() const;
  std::optional<std::string> toJSONData() const;
  // Parses JSON whose top level is an array or an object; nullopt on any error.
  static std::optional<LMValue> fromJSON(std::u16string_view text);
  static std::optional<LMValue> fromJSONData(std::string_view bytes);

  // Ordering used by `lmSorted`: numbers numerically (decimals exactly),
  // texts by UTF-16 units, dates by time, objects by their own compare;
  // values of different kinds order by kind.
  int compare(const LMValue& other) const;

  friend bool operator==(const LMValue& a, const LMValue& b);

 private:
  std::variant<std::monostate, LMNull, bool, int64_t, double, std::u16string, LMData,
               LMDecimal, LMDate, LMArray, LMDictionary, LMAttributedStringRef,
               std::shared_ptr<LMObject>>
      v_;
};

struct LMDictionaryEntry {
  LMKey key;
  LMValue value;
  friend bool operator==(const LMDictionaryEntry&, const LMDictionaryEntry&) = default;
};

// A shared nil value, for lookups that return references.
const LMValue& lmNil();

// `d` cut toward zero, saturated to int64_t (infinities included); 0 for NaN.
// A plain cast of a double beyond int64_t's range is undefined.
int64_t lmSaturatedInt(double d);

// --- JSON in pieces ---
// Receives JSON text piece by piece (UTF-8, pieces of about 64 KiB).
using LMJSONSink = std::function<void(std::string_view piece)>;
// Writes `value` as JSON to `sink` without building the text or a JSON tree
// first: the bytes of v.toJSONData() (pretty: of v.toJSONPretty() in UTF-8)
// where v is `value` after `projections` passes of jsonObject(), projected as
// the writer goes. Answers false, having written nothing, when that would be
// nullopt. Memory beyond `value` stays at one piece and the projection of one
// shared object at a time.
bool lmWriteJSON(const LMValue& value, int projections, bool pretty, const LMJSONSink& sink);

// --- Array helpers ---
// The first / last element, or nullptr when the array is empty.
inline const LMValue* lmFirst(const LMArray& a) { return a.empty() ? nullptr : &a.front(); }
inline const LMValue* lmLast(const LMArray& a) { return a.empty() ? nullptr : &a.back(); }
// Ascending by LMValue::compare; stable.
LMArray lmSorted(LMArray a);
// The elements' texts (toString) joined with `separator`.
std::u16string lmJoin(const LMArray& a, std::u16string_view separator);
// The closure's results, nil results dropped.
LMArray lmMap(const LMArray& a, const std::function<LMValue(const LMValue&)>& f);
// The elements for which the closure answers true, order kept.
LMArray lmFilter(const LMArray& a, const std::function<bool(const LMValue&)>& f);
