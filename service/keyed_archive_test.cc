#include "service/keyed_archive.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <map>
#include <random>

#include "elements/found_date.h"
#include "elements/found_number.h"
#include "elements/found_term.h"
#include "kit/unicode.h"

// The archive's layout as other readers see it (class chains, decimal and
// attribute-run encodings, what is written once) is checked with Python's
// plistlib by keyed_archive_interop_test.py.

namespace {

using PlistPtr = std::unique_ptr<void, decltype(&plist_free)>;

std::vector<uint8_t> toBytes(plist_t node) {
  char* bytes = nullptr;
  uint32_t length = 0;
  plist_to_bin(node, &bytes, &length);
  std::vector<uint8_t> out(bytes, bytes + length);
  plist_to_bin_free(bytes);
  return out;
}

plist_t uids(const std::vector<uint64_t>& refs) {
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

std::vector<uint8_t> serialize(const LMValue& value) {
  std::string error;
  auto bytes = lxDataSerialize(value, &error);
  EXPECT_TRUE(bytes) << error;
  return bytes.value_or(std::vector<uint8_t>{});
}

LMValue unserialize(const std::vector<uint8_t>& bytes) {
  std::string error;
  auto decoded = lxDataUnserialize(bytes, &error);
  EXPECT_TRUE(decoded) << error;
  return decoded.value_or(LMValue());
}

LMValue roundTrip(const LMValue& value) { return unserialize(serialize(value)); }

std::string failureOf(const std::vector<uint8_t>& bytes, const LMUnarchiveLimits& limits = {}) {
  std::string error;
  EXPECT_FALSE(lxDataUnserialize(bytes, &error, limits));
  EXPECT_FALSE(error.empty());
  return error;
}

// A text that tells every kind apart (the value tree's == compares numbers
// across kinds): doubles by their bits, decimals by their parts, dictionary
// keys in order (or sorted), elements by class.
std::string dump(const LMValue& v, bool sortKeys = false) {
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
               dump(r.attributes, sortKeys);
      return out;
    }
    case LMValueKind::kObject:
      return "<" + lmUtf8(v.asObject()->className()) + ">";
    case LMValueKind::kString:
      return text(*v.asString());
    default:  // nil, null, booleans, integers, data
      return std::to_string(static_cast<int>(v.kind())) + ":" + lmUtf8(v.description());
  }
}

LMDecimal dec(const char* text) { return LMDecimal::fromString(std::string_view(text)).value(); }

LMAttributeRun run(uint64_t location, uint64_t length, LMDictionary attributes) {
  return {LMTextRange::make(location, length), std::move(attributes)};
}

// ------------------------------------------------------------- round trips

TEST(KeyedArchiveTest, RoundTripsEveryKindOfValueExactly) {
  const LMValue cases[] = {
      LMValue(),
      true,
      false,
      0,
      -1,
      std::numeric_limits<int64_t>::min(),
      std::numeric_limits<int64_t>::max(),
      int64_t{1} << 40,
      0.1,
      -0.0,
      1e300,
      std::numeric_limits<double>::infinity(),
      u"",
      u"Grüße 😀 \U0001F9FE",
      u"$null",
      LMData{},
      LMData{0, 255, 16, 128},
      LMValue::null(),
      LMDate::fromTimeIntervalSinceReferenceDate(631152000.123456),
      LMDate::fromTimeIntervalSinceReferenceDate(-1.000001),
      dec("12.50"),
      dec("-0.019"),
      dec("99999999999999999999999999999999999999"),
      dec("1e-128"),
      dec("-9e127"),
      LMDecimal::zero(),
      LMDecimal::notANumber(),
      LMArray{},
      LMDictionary{},
      LMArray{1, 1.0, true, u"1", LMArray{LMDictionary{}}},
      LMDictionary{{u"z", 1}, {u"a", LMValue::null()}, {u"m", LMArray{u"x", u"x"}}},
  };
  for (const LMValue& value : cases) {
    SCOPED_TRACE(dump(value));
    EXPECT_EQ(dump(value), dump(roundTrip(value)));
  }
  // Texts cannot carry U+0000 or unpaired surrogates; one unit for one.
  EXPECT_EQ(LMValue(u"a\uFFFDb\uFFFD"), roundTrip(std::u16string{u'a', 0, u'b', char16_t(0xD800)}));
  EXPECT_EQ(LMValue(std::u16string(100'000, u'\uFFFD')), roundTrip(std::u16string(100'000, u'\0')));
}

TEST(KeyedArchiveTest, AttributedStringsComeBackRunByRun) {
  const LMDictionary a{{u"LMPDFLineBox", u"{{72, 400}, {40.5, 12}}"}};
  const LMDictionary b{{u"font", u"Helvetica-Bold"}, {u"size", 11.5}};
  // Where `out` differs from `in`, the wire form cannot tell the two apart.
  struct Case {
    const char* name;
    LMAttributedString in;
    std::vector<LMAttributeRun> out;
  } cases[] = {
      {"empty", {u"", {}}, {}},
      {"no runs", {u"Summe", {}}, {}},
      {"one run over all", {u"Summe", {run(0, 5, a)}}, {run(0, 5, a)}},
      {"two runs", {u"Summe 12,50", {run(0, 6, a), run(6, 5, b)}}, {run(0, 6, a), run(6, 5, b)}},
      {"equal neighbours stay apart",
       {u"abcd", {run(0, 2, a), run(2, 2, a)}},
       {run(0, 2, a), run(2, 2, a)}},
      {"run without attributes kept",
       {u"ab\ncd", {run(0, 2, a), run(2, 1, {}), run(3, 2, b)}},
       {run(0, 2, a), run(2, 1, {}), run(3, 2, b)}},
      {"gaps become runs without attributes",
       {u"ab\ncd", {run(0, 2, a), run(3, 2, b)}},
       {run(0, 2, a), run(2, 1, {}), run(3, 2, b)}},
      {"zero-length runs dropped",
       {u"abc", {run(0, 0, b), run(0, 3, a), run(3, 0, b)}},
       {run(0, 3, a)}},
      {"one empty run is no runs", {u"abc", {run(0, 3, {})}}, {}},
      {"long runs",
       {std::u16string(300, u'x'), {run(0, 200, a), run(200, 100, b)}},
       {run(0, 200, a), run(200, 100, b)}},
      {"non-BMP text counts units",
       {u"😀x", {run(0, 2, a), run(2, 1, b)}},
       {run(0, 2, a), run(2, 1, b)}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(dump(LMAttributedString{c.in.string, c.out}), dump(roundTrip(c.in)));
  }
}

TEST(KeyedArchiveTest, ElementsKeepTheirArchivedPropertiesOnly) {
  auto number = std::make_shared<LMFoundNumber>(-305, 2);
  number->setPage(3);
  number->setPageBox(LMRect{0, 0, 595.28, 841.89});
  number->setBbox(LMRect{-1.5, 1e-7, 42, 11.25});
  number->setString(u"-3,05");
  number->setKey(u"amount");
  number->setUserInfo(LMDictionary{{u"n", 1}, {u"d", LMData{1, 2, 3}}});
  number->setNumberString(u"-3,05");
  number->setDebugInfo(LMDictionary{{u"score", 0.75}});
  number->setRange(LMTextRange::make(4, 5));
  number->setOcr(true);
  number->setBold(true);
  number->setSortWeight(2.5);
  number->setCurrencyCode(u"EUR");
  auto back = roundTrip(number).objectAs<LMFoundNumber>();
  ASSERT_TRUE(back);
  EXPECT_EQ(-305, back->integerValue());
  EXPECT_EQ(3, back->page());
  EXPECT_EQ(number->pageBox(), back->pageBox());
  EXPECT_EQ(number->bbox(), back->bbox());
  EXPECT_EQ(number->string(), back->string());
  EXPECT_EQ(number->key(), back->key());
  EXPECT_EQ(dump(number->userInfo()), dump(back->userInfo()));
  EXPECT_EQ(number->numberString(), back->numberString());
  EXPECT_EQ(number->debugInfo(), back->debugInfo());
  // Not archived.
  EXPECT_EQ(0u, back->decimalPlaces());
  EXPECT_EQ(LMTextRange(), back->range());
  EXPECT_FALSE(back->isOcr() || back->bold() || back->currencyCode());
  EXPECT_EQ(0, back->sortWeight());

  auto date = std::make_shared<LMFoundDate>();
  date->setDate(LMDate::fromTimeIntervalSinceReferenceDate(636249600.000001));
  date->setDateString(u"01.03.2021");
  auto dateBack = roundTrip(date).objectAs<LMFoundDate>();
  ASSERT_TRUE(dateBack);
  EXPECT_EQ(date->date(), dateBack->date());
  EXPECT_EQ(date->dateString(), dateBack->dateString());

  auto term = std::make_shared<LMFoundTerm>();
  term->setTermInfo(LMValue(u"table entry"));
  auto termBack = roundTrip(term).objectAs<LMFoundTerm>();
  ASSERT_TRUE(termBack);
  EXPECT_TRUE(termBack->termInfo().isNil());
}

size_t countOfClass(const std::vector<uint8_t>& bytes, const char* className) {
  plist_t top = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(bytes.data()), bytes.size(), &top);
  PlistPtr owner(top, &plist_free);
  plist_t objects = plist_dict_get_item(top, "$objects");
  size_t n = 0;
  for (uint32_t i = 0; i < plist_array_get_size(objects); ++i) {
    plist_t object = plist_array_get_item(objects, i);
    plist_t ref =
        plist_get_node_type(object) == PLIST_DICT ? plist_dict_get_item(object, "$class") : nullptr;
    uint64_t uid = 0;
    if (ref) plist_get_uid_val(ref, &uid);
    plist_t name =
        ref ? plist_dict_get_item(plist_array_get_item(objects, uid), "$classname") : nullptr;
    if (name && plist_string_val_compare(name, className) == 0) ++n;
  }
  return n;
}

TEST(KeyedArchiveTest, WritesSharedElementsOnceAndReadsThemShared) {
  auto shared = std::make_shared<LMFoundNumber>(1250, 2);
  auto other = std::make_shared<LMFoundNumber>(700, 2);
  const std::vector<uint8_t> bytes =
      serialize(LMDictionary{{u"numbers", LMArray{shared, other}}, {u"gross", shared}});
  EXPECT_EQ(2u, countOfClass(bytes, "LMFoundNumber"));
  const LMValue decoded = unserialize(bytes);
  const LMArray* numbers = decoded.at(u"numbers").asArray();
  ASSERT_TRUE(numbers && numbers->size() == 2);
  EXPECT_EQ(decoded.at(u"gross").asObject(), (*numbers)[0].asObject());
  EXPECT_NE((*numbers)[0].asObject(), (*numbers)[1].asObject());
}

TEST(KeyedArchiveTest, ReferencesTakeTheWidthTheListNeeds) {
  // About two objects per number: below 256 objects, below 65,536, above.
  for (const auto& [numbers, width] : {std::pair{100, 1}, {300, 2}, {40'000, 4}}) {
    SCOPED_TRACE(numbers);
    LMArray items;
    for (int64_t i = 0; i < numbers; ++i) items.push_back(i * 1000 + 7);
    const std::vector<uint8_t> bytes = serialize(items);
    EXPECT_EQ(width, bytes[bytes.size() - 25]);  // the trailer's reference size
    plist_t parsed = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(bytes.data()), bytes.size(), &parsed);
    EXPECT_TRUE(parsed);
    plist_free(parsed);
    EXPECT_EQ(dump(items), dump(unserialize(bytes)));
  }
}

TEST(KeyedArchiveTest, ReleasingTheTreeWritesTheSameBytes) {
  const auto tree = [] {
    auto shared = std::make_shared<LMFoundNumber>(1250, 2);
    shared->setDebugInfo(LMDictionary{{u"score", 0.75}});
    LMArray many;
    for (int i = 0; i < 30'000; ++i) many.push_back(std::make_shared<LMFoundNumber>(i, 2));
    return LMValue(LMDictionary{{u"gross", shared},
                                {u"numbers", LMArray{shared, LMData{1, 2}, std::move(many)}},
                                {u"page", LMAttributedString{u"ab", {run(0, 1, {{u"b", true}})}}}});
  };
  LMValue given = tree();
  const auto released = lxDataSerializeReleasing(std::move(given));
  ASSERT_TRUE(released);
  EXPECT_EQ(serialize(tree()), *released);
  EXPECT_TRUE(given.isNil());
}

TEST(KeyedArchiveTest, ReadsRectanglesFromTheirText) {
  struct Case {
    std::u16string text;
    LMRect rect;
  } cases[] = {
      {u"{{1, 2}, {3, 4}}", {1, 2, 3, 4}},
      {u"{{-1.5,2e3},{0.25,+4}}", {-1.5, 2000, 0.25, 4}},
      {u" { { 1 , 2 } , { 3 , 4 } } ", {1, 2, 3, 4}},
      {u"{{1, 2}, {3}}", {}},
      {u"{{1, 2}, {3, 4}} x", {}},
      {u"{{a, 2}, {3, 4}}", {}},
      {u"{{1e999, 2}, {3, 4}}", {}},
      {u"{{１, 2}, {3, 4}}", {}},
      {u"", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.text));
    EXPECT_EQ(c.rect, lmRectFromString(c.text));
  }
  EXPECT_TRUE(lmRectFromString(lmStringFromRect(LMRect::null())).isNull());

  // Every number comes back to the bit, whichever way it is read: page
  // coordinates (floats widened, as MuPDF gives them), numbers of any size,
  // and negative zero.
  std::mt19937_64 random(7);
  for (int i = 0; i < 20'000; ++i) {
    const double page = static_cast<float>(std::uniform_real_distribution<double>(-900, 900)(random));
    const double any = std::bit_cast<double>(random());
    const LMRect r{page, std::isfinite(any) ? any : 1.0, std::round(page * 100) / 100, -0.0};
    const LMRect back = lmRectFromString(lmStringFromRect(r));
    ASSERT_EQ(std::bit_cast<uint64_t>(r.x), std::bit_cast<uint64_t>(back.x)) << r.x;
    ASSERT_EQ(std::bit_cast<uint64_t>(r.y), std::bit_cast<uint64_t>(back.y)) << r.y;
    ASSERT_EQ(std::bit_cast<uint64_t>(r.width), std::bit_cast<uint64_t>(back.width)) << r.width;
    ASSERT_EQ(std::bit_cast<uint64_t>(r.height), std::bit_cast<uint64_t>(back.height));
  }
}

// ------------------------------------------------------- other archivers

std::vector<uint8_t> fixture(const std::string& name) {
  std::ifstream in(std::string(LM_TESTDATA_DIR) + "/archives/" + name, std::ios::binary);
  EXPECT_TRUE(in) << name;
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(KeyedArchiveTest, ReadsArchivesOfThePlatformsArchiver) {
  const LMValue hello = u"Hello, World!";
  const LMData asdf{'a', 's', 'd', 'f', 'a', 's', 'd', 'f', 'a', 'd', 's', 'f', 'a', 'd', 's', 'f'};
  const auto foo = [](std::initializer_list<LMDictionaryEntry> entries) {
    LMDictionary d{{u"$classname", u"crap.Foo"}};
    for (const auto& e : entries) d.set(e.key.view(), e.value);
    return LMValue(d);
  };
  struct Case {
    const char* file;
    LMValue expected;
  } cases[] = {
      {"dp_onevalue.bin", LMDictionary{{u"$0", true}}},
      {"dp_primitives.bin", LMDictionary{{u"$0", 1},
                                         {u"$1", 1},
                                         {u"$2", 1.0},
                                         {u"$3", 1.5},
                                         {u"$4", asdf},
                                         {u"$5", true},
                                         {u"$6", hello},
                                         {u"$7", hello},
                                         {u"$8", hello},
                                         {u"$9", false},
                                         {u"$10", false},
                                         {u"$11", 42}}},
      {"dp_arrays.bin", LMDictionary{{u"$0", LMArray{1, 1, 1.0, 1.5, asdf, true, hello, hello,
                                                     hello, false, false, 42}},
                                     {u"$1", LMArray{true, hello, 42}},
                                     {u"$2", LMArray{true}},
                                     {u"$3", LMArray{42, true, hello}}}},
      {"dp_dict.bin", LMDictionary{{u"$0", LMDictionary{{u"int", 1},
                                                        {u"string", u"string"},
                                                        {u"array", LMArray{true, hello, 42}}}}}},
      {"dp_nestedarrays.bin",
       LMDictionary{{u"$0", LMArray{LMArray{true}, LMArray{42, true, hello}}}}},
      {"bpylist2_simple_archive.plist",
       foo({{u"active", true}, {u"count", 42}, {u"title", u"yo"}})},
      {"bpylist2_complex_archive.plist",
       foo({{u"active", true},
            {u"categories", LMArray{u"banana", u"apple"}},
            {u"count", 42},
            {u"metadata", LMDictionary{{u"fruit", u"kiwi"}, {u"veg", u"asparagus"}}},
            {u"title", u"yo"}})},
      {"bpylist2_data_archive.plist", foo({{u"stamp", LMData{}}, {u"title", u"yo"}})},
      {"bpylist2_dataclass_archive.plist",
       LMDictionary{{u"$classname", u"FooDataclass"},
                    {u"float_field", 3.15},
                    {u"int_field", 5},
                    {u"list_field", LMArray{u"foo", u"bar", u"baz"}},
                    {u"str_field", u"hello"}}},
      {"bpylist2_date_archive.plist",
       foo({{u"stamp", LMDate::fromTimeIntervalSinceReferenceDate(509523358.684097)},
            {u"title", u"hello"}})},
      {"bpylist2_empty_archive.plist", foo({})},
      {"bpylist2_nsmutabledata_archive.plist", LMData{'h', 'e', 'l', 'l', 'o'}},
      {"bpylist2_null_archive.plist", foo({{u"title", u"yo"}})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    EXPECT_EQ(dump(c.expected, true), dump(unserialize(fixture(c.file)), true));
  }
  EXPECT_NE(std::string::npos, failureOf(fixture("bpylist2_circular_archive.plist")).find("cycle"));
}

TEST(KeyedArchiveTest, ReadsWhatOtherArchiversWrite) {
  using Make = std::function<uint64_t(RawArchive&)>;
  const auto text = [](const char* s) { return plist_new_string(s); };
  struct Case {
    const char* name;
    Make make;
    LMValue expected;
  } cases[] = {
      {"big-endian mantissa",
       [](RawArchive& r) {
         const char mantissa[16] = {0x01, 0x31};
         return r.object("NSDecimalNumber",
                         {{"NS.exponent", plist_new_uint(static_cast<uint64_t>(-2))},
                          {"NS.length", plist_new_uint(1)},
                          {"NS.negative", plist_new_bool(1)},
                          {"NS.mantissa.bo", plist_new_uint(2)},
                          {"NS.mantissa", plist_new_data(mantissa, 16)}});
       },
       dec("-3.05")},
      {"text objects",
       [&](RawArchive& r) {
         const uint64_t a = r.object("NSMutableString", {{"NS.string", text("Summe")}});
         const uint64_t b = r.object("NSString", {{"NS.bytes", plist_new_data("\xC3\xA4", 2)}});
         return r.object("NSMutableArray", {{"NS.objects", uids({a, b})}});
       },
       LMArray{u"Summe", u"ä"}},
      {"date in whole seconds",
       [](RawArchive& r) {
         return r.object("NSDate", {{"NS.time", plist_new_uint(60)}});
       },
       LMDate::fromTimeIntervalSinceReferenceDate(60)},
      {"subclasses read as the superclass we know",
       [](RawArchive& r) {
         const uint64_t one = r.add(plist_new_uint(1));
         const uint64_t list =
             r.object("MyList", {{"NS.objects", uids({one})}}, {"NSMutableArray", "NSArray"});
         return r.object("MySet", {{"NS.objects", uids({list})}}, {"NSSet"});
       },
       LMArray{LMValue(LMArray{1})}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RawArchive raw;
    EXPECT_EQ(dump(c.expected), dump(unserialize(raw.bytes(c.make(raw)))));
  }

  // An object of an unknown class with more keys than are read up front,
  // one of them a 16-byte integer (its low 64 bits count).
  {
    RawArchive raw;
    plist_t wide = plist_new_dict();
    plist_dict_set_item(wide, "$class", plist_new_uid(raw.add(plist_new_dict())));
    LMDictionary expected{{u"$classname", u"Wide"}};
    for (int i = 0; i < 40; ++i) {
      plist_dict_set_item(wide, ("k" + std::to_string(i)).c_str(), plist_new_uint(i));
      expected.set(lmUtf16("k" + std::to_string(i)), i);
    }
    plist_dict_set_item(wide, "big", plist_new_uint(UINT64_MAX));
    expected.set(u"big", -1);
    plist_dict_set_item(plist_array_get_item(plist_dict_get_item(raw.top(), "$objects"), 1),
                        "$classname", plist_new_string("Wide"));
    EXPECT_EQ(dump(LMValue(expected), true), dump(unserialize(raw.bytes(raw.add(wide))), true));
  }

  // A lone surrogate in a UTF-16 text reads as U+FFFD, one unit for one.
  std::vector<uint8_t> lone = serialize(u"\u00E9\uFFFDx");
  const std::vector<uint8_t> replacement{0xFF, 0xFD};
  auto at = std::search(lone.begin(), lone.end(), replacement.begin(), replacement.end());
  ASSERT_NE(at, lone.end());
  at[0] = 0xD8;
  at[1] = 0x00;
  EXPECT_EQ(LMValue(u"\u00E9\uFFFDx"), unserialize(lone));

  // Elements: a subclass, rectangles inline, by reference and malformed.
  RawArchive raw;
  const uint64_t box = raw.add(text("{{0, 0}, {595, 842}}"));
  const uint64_t root = raw.object("LMFoundAmount",
                                   {{"value", plist_new_uint(1250)},
                                    {"pageBox", plist_new_uid(box)},
                                    {"bbox", text("{{10, 20}, {30, 40}}")},
                                    {"page", text("{{1, 2}, {3, 4}}")}},
                                   {"LMFoundNumber", "LMFoundElement", "NSObject"});
  auto element = unserialize(raw.bytes(root)).objectAs<LMFoundNumber>();
  ASSERT_TRUE(element);
  EXPECT_EQ(1250, element->integerValue());
  EXPECT_EQ((LMRect{0, 0, 595, 842}), element->pageBox());
  EXPECT_EQ((LMRect{10, 20, 30, 40}), element->bbox());
  EXPECT_EQ(0, element->page());
}

// ------------------------------------------------------------ failure paths

TEST(KeyedArchiveTest, RefusesTreesItCannotArchive) {
  struct Stranger : LMObject {
    std::u16string className() const override { return u"LMStranger"; }
  };
  auto looped = std::make_shared<LMFoundElement>();
  looped->setUserInfo(LMArray{looped});
  LMValue deep = LMArray{};
  for (int i = 0; i < 3000; ++i) {
    LMArray outer;
    outer.push_back(std::move(deep));
    deep = std::move(outer);
  }
  struct Case {
    const char* name;
    LMValue tree;
    const char* reason;
  } cases[] = {
      {"nil in an array", LMArray{1, LMValue()}, "nil inside an array"},
      {"nil in a dictionary", LMDictionary{{u"k", LMValue()}}, "nil inside a dictionary"},
      {"nil in attributes", LMAttributedString{u"ab", {run(0, 2, {{u"k", LMValue()}})}},
       "nil inside a dictionary"},
      {"overlapping runs", LMAttributedString{u"abc", {run(0, 2, {}), run(1, 2, {})}}, "overlap"},
      {"runs backwards", LMAttributedString{u"abc", {run(2, 1, {}), run(0, 1, {})}}, "overlap"},
      {"run past the end", LMAttributedString{u"abc", {run(2, 2, {})}}, "end of their text"},
      {"run not found", LMAttributedString{u"abc", {run(kLMNotFound, 1, {})}}, "end of their text"},
      {"foreign object", LMValue(std::make_shared<Stranger>()),
       "class LMStranger cannot be archived"},
      {"element in itself", LMValue(looped), "contains itself"},
      {"deep tree", deep, "deeper than 512"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string error;
    EXPECT_FALSE(lxDataSerialize(c.tree, &error));
    EXPECT_NE(std::string::npos, error.find(c.reason)) << error;
  }
  looped->setUserInfo(LMValue());
}

// `bytes` with the last byte of the first occurrence of `pattern` set to 0.
std::vector<uint8_t> withZeroAfter(std::vector<uint8_t> bytes,
                                   const std::vector<uint8_t>& pattern) {
  auto at = std::search(bytes.begin(), bytes.end(), pattern.begin(), pattern.end());
  if (at != bytes.end()) at[pattern.size() - 1] = 0;
  return bytes;
}

TEST(KeyedArchiveTest, RefusesMalformedArchives) {
  using Make = std::function<std::vector<uint8_t>(RawArchive&)>;
  const auto decimal = [](RawArchive& r, uint64_t length, int64_t exponent, uint64_t order) {
    const char mantissa[16] = {1};
    return r.bytes(r.object("NSDecimalNumber",
                            {{"NS.length", plist_new_uint(length)},
                             {"NS.exponent", plist_new_uint(static_cast<uint64_t>(exponent))},
                             {"NS.mantissa.bo", plist_new_uint(order)},
                             {"NS.mantissa", plist_new_data(mantissa, 16)}}));
  };
  // "abc" with the runs `info` over one empty dictionary, or over a text.
  const auto attributed = [](RawArchive& r, std::vector<char> info, bool textSlot = false) {
    const uint64_t text = r.add(plist_new_string("abc"));
    const uint64_t slot = textSlot ? text : r.object("NSDictionary", {});
    const uint64_t slots = r.object("NSArray", {{"NS.objects", uids({slot})}});
    const uint64_t data = r.add(plist_new_data(info.data(), info.size()));
    return r.bytes(r.object("NSAttributedString", {{"NSString", plist_new_uid(text)},
                                                   {"NSAttributes", plist_new_uid(slots)},
                                                   {"NSAttributeInfo", plist_new_uid(data)}}));
  };
  const auto dictionary = [](RawArchive& r, plist_t key, size_t keyCount) {
    const uint64_t k = r.add(key);
    return r.bytes(r.object("NSDictionary", {{"NS.keys", uids(std::vector<uint64_t>(keyCount, k))},
                                             {"NS.objects", uids({k})}}));
  };
  struct Case {
    const char* name;
    Make make;
    const char* reason;
  } cases[] = {
      {"empty", [](RawArchive&) { return std::vector<uint8_t>{}; }, "empty"},
      {"garbage", [](RawArchive&) { return std::vector<uint8_t>(64, 'x'); },
       "not a binary property list"},
      {"plist but no archive",
       [](RawArchive&) {
         PlistPtr a(uids({1}), &plist_free);
         return toBytes(a.get());
       },
       "top level is no dictionary"},
      {"wrong $archiver",
       [](RawArchive& r) {
         plist_dict_set_item(r.top(), "$archiver", plist_new_string("NSArchiver"));
         return r.bytes(1);
       },
       "$archiver is \"NSArchiver\""},
      {"no $objects",
       [](RawArchive& r) {
         plist_dict_remove_item(r.top(), "$objects");
         return r.bytes(1);
       },
       "no $objects"},
      {"$top without root",
       [](RawArchive& r) {
         r.bytes(0);
         plist_dict_set_item(r.top(), "$top", plist_new_dict());
         return toBytes(r.top());
       },
       "$top is empty"},
      {"reference out of range", [](RawArchive& r) { return r.bytes(99); }, "out of range"},
      {"key and object counts differ",
       [&](RawArchive& r) { return dictionary(r, plist_new_string("k"), 2); },
       "differ in length (2 and 1)"},
      {"nil in an array",
       [](RawArchive& r) {
         return r.bytes(r.object("NSArray", {{"NS.objects", uids({0})}}));
       },
       "nil inside NS.objects"},
      {"array entry not a reference",
       [](RawArchive& r) {
         plist_t items = plist_new_array();
         plist_array_append_item(items, plist_new_uint(3));
         return r.bytes(r.object("NSArray", {{"NS.objects", items}}));
       },
       "not a reference"},
      {"class entry not a dictionary",
       [](RawArchive& r) {
         plist_t o = plist_new_dict();
         plist_dict_set_item(o, "$class", plist_new_uid(r.add(plist_new_string("NSArray"))));
         return r.bytes(r.add(o));
       },
       "is not a dictionary"},
      {"object without class", [](RawArchive& r) { return r.bytes(r.add(plist_new_dict())); },
       "no $class"},
      {"decimal exponent 200", [&](RawArchive& r) { return decimal(r, 1, 200, 1); },
       "NS.exponent 200"},
      {"attribute slot out of range",
       [&](RawArchive& r) {
         return attributed(r, {3, 1});
       },
       "attributes 1 of 1"},
      {"attribute runs too long",
       [&](RawArchive& r) {
         return attributed(r, {4, 0});
       },
       "pass the end"},
      {"attributes not dictionaries",
       [&](RawArchive& r) {
         return attributed(r, {3, 0}, true);
       },
       "other than dictionaries"},
      {"ASCII text holding U+0000",
       [](RawArchive&) { return withZeroAfter(serialize(u"aXb"), {'X'}); }, "holds U+0000"},
      {"UTF-16 text holding U+0000",
       [](RawArchive&) {
         return withZeroAfter(serialize(u"éX"), {0, 'X'});
       },
       "holds U+0000"},
      {"unsupported object type", [](RawArchive& r) { return r.bytes(r.add(plist_new_array())); },
       "unsupported property-list type"},
      {"cycle through an array",
       [](RawArchive& r) {
         return r.bytes(r.object("NSArray", {{"NS.objects", uids({2})}}));
       },
       "reference cycle"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RawArchive raw;
    const std::string error = failureOf(c.make(raw));
    EXPECT_NE(std::string::npos, error.find(c.reason)) << error;
  }
}

// `depth` arrays, each holding the next by reference.
std::vector<uint8_t> nestedArrays(size_t depth) {
  RawArchive raw;
  for (uint64_t i = 0; i < depth; ++i)
    raw.object("NSArray", {{"NS.objects", uids(i + 1 < depth ? std::vector<uint64_t>{3 + i}
                                                             : std::vector<uint64_t>{})}});
  return raw.bytes(2);  // after "$null" and the class entry
}

TEST(KeyedArchiveTest, EnforcesItsLimits) {
  const std::vector<uint8_t> bytes = serialize(LMArray{1, 2, 3});
  struct Case {
    const char* name;
    LMUnarchiveLimits limits;
    std::vector<uint8_t> archive;
    const char* reason;  // nullptr: accepted
  } cases[] = {
      {"bytes", {.maxBytes = bytes.size() - 1}, bytes, "more than the limit"},
      {"objects", {.maxObjects = 3}, bytes, "more than the limit of 3"},
      {"values", {.maxValues = 3}, bytes, "expands to more than 3"},
      {"depth 256", {}, nestedArrays(256), nullptr},
      {"depth 257", {}, nestedArrays(257), "deeper than 256"},
      {"depth 10,000", {}, nestedArrays(10'000), "deeper than 256"},
      {"own depth", {.maxDepth = 10}, nestedArrays(11), "deeper than 10"},
      {"ceiling", {.maxDepth = 1'000'000}, nestedArrays(512), nullptr},
      {"over the ceiling", {.maxDepth = 1'000'000}, nestedArrays(513), "deeper than 512"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string error;
    EXPECT_EQ(!c.reason, lxDataUnserialize(c.archive, &error, c.limits).has_value()) << error;
    if (c.reason) {
      EXPECT_NE(std::string::npos, error.find(c.reason)) << error;
    }
  }

  // Sixty layers of [next, next] would expand to 2^60 values.
  RawArchive raw;
  for (uint64_t i = 0; i < 60; ++i) raw.object("NSArray", {{"NS.objects", uids({3 + i, 3 + i})}});
  raw.add(plist_new_string("leaf"));
  EXPECT_NE(std::string::npos, failureOf(raw.bytes(2)).find("expands to more than"));
}

// A binary property list written byte by byte: object i is an array of the
// references refs(i); object 0 is the top.
std::vector<uint8_t> handWrittenPlist(size_t count,
                                      const std::function<std::vector<uint32_t>(size_t)>& refs) {
  std::vector<uint8_t> out{'b', 'p', 'l', 'i', 's', 't', '0', '0'};
  auto big = [&](uint64_t v, int n) {
    for (int i = n - 1; i >= 0; --i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
  };
  std::vector<uint64_t> offsets;
  for (size_t i = 0; i < count; ++i) {
    offsets.push_back(out.size());
    const std::vector<uint32_t> r = refs(i);
    out.push_back(static_cast<uint8_t>(0xA0 | r.size()));
    for (uint32_t ref : r) big(ref, 4);
  }
  const uint64_t table = out.size();
  for (uint64_t o : offsets) big(o, 8);
  out.insert(out.end(), {0, 0, 0, 0, 0, 0, 8, 4});
  big(count, 8);
  big(0, 8);
  big(table, 8);
  return out;
}

TEST(KeyedArchiveTest, ReadsThePropertyListOnlyWhereTheArchiveLeads) {
  const auto next = [](size_t n) {
    return [n](size_t i) {
      return i + 1 < n ? std::vector<uint32_t>{uint32_t(i + 1)} : std::vector<uint32_t>{};
    };
  };
  // Lists a tree-building parser would choke on: over a million levels (more
  // objects than the reader remembers), sixty layers of [next, next] (2^60
  // nodes) and a loop. None is an archive.
  const auto layers = handWrittenPlist(61, [](size_t i) {
    return i < 60 ? std::vector<uint32_t>{uint32_t(i + 1), uint32_t(i + 1)}
                  : std::vector<uint32_t>{};
  });
  const auto loop =
      handWrittenPlist(2, [](size_t i) { return std::vector<uint32_t>{uint32_t(1 - i)}; });
  for (const auto& plist : {handWrittenPlist(1'100'000, next(1'100'000)), layers, loop}) {
    EXPECT_NE(std::string::npos, failureOf(plist).find("top level is no dictionary"));
  }

  // 10,000 nested arrays inside an object are not a value the archive holds.
  RawArchive raw;
  plist_t inner = plist_new_array();
  for (int i = 0; i < 10'000; ++i) {
    plist_t outer = plist_new_array();
    plist_array_append_item(outer, inner);
    inner = outer;
  }
  EXPECT_NE(std::string::npos,
            failureOf(raw.bytes(raw.object("Deep", {{"list", inner}}))).find("unsupported value"));

  // Offsets and references are checked where they are used.
  const std::vector<uint8_t> good = serialize(LMArray{1});
  const size_t offsetSize = good[good.size() - 26];
  const size_t table = good.back();  // below 256 in so small an archive
  const size_t root = good[good.size() - 9];
  std::vector<uint8_t> outside = good;
  outside[table + root * offsetSize + offsetSize - 1] = 0xFF;
  EXPECT_NE(std::string::npos, failureOf(outside).find("lies outside the data"));
  std::vector<uint8_t> rootBeyond = good;
  rootBeyond[rootBeyond.size() - 9] = 0xFF;
  EXPECT_NE(std::string::npos, failureOf(rootBeyond).find("trailer is inconsistent"));
}

TEST(KeyedArchiveTest, PaysForKeysItHasToSearch) {
  // An array object with a thousand keys besides its own, referenced three
  // thousand times: each use searches the keys, so each is paid for.
  RawArchive raw;
  raw.object("NSArray", {});  // the class entry, at 1
  plist_t wide = plist_new_dict();
  plist_dict_set_item(wide, "$class", plist_new_uid(1));
  for (int i = 0; i < 1000; ++i)
    plist_dict_set_item(wide, ("k" + std::to_string(i)).c_str(), plist_new_uint(i));
  const uint64_t junk = raw.add(wide);
  const uint64_t root =
      raw.object("NSArray", {{"NS.objects", uids(std::vector<uint64_t>(3000, junk))}});
  EXPECT_NE(std::string::npos, failureOf(raw.bytes(root)).find("expands to more than"));

  // Used once, the same object reads as the empty array it is.
  RawArchive once;
  once.object("NSArray", {});
  plist_t copy = plist_copy(wide);
  const uint64_t single = once.add(copy);
  EXPECT_EQ(dump(LMArray{}), dump(unserialize(once.bytes(single))));
}

}  // namespace
