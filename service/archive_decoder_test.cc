#include <gtest/gtest.h>
#include <plist/plist.h>

#include <functional>

#include "elements/found_number.h"
#include "service/archive_test_util.h"
#include "service/service_test_harness.h"

namespace {

std::vector<uint8_t> fixture(const std::string& name) { return lmTestdataBytes("archives/" + name); }

TEST(ArchiveDecoderTest, ReadsArchivesOfThePlatformsArchiver) {
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
      {"dp_dict.bin", LMDictionary{{u"$0", LMDictionary{{u"int", 1},
                                                        {u"string", u"string"},
                                                        {u"array", LMArray{true, hello, 42}}}}}},
      {"dp_nestedarrays.bin",
       LMDictionary{{u"$0", LMArray{LMArray{true}, LMArray{42, true, hello}}}}},
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
      {"bpylist2_nsmutabledata_archive.plist", LMData{'h', 'e', 'l', 'l', 'o'}},
      {"bpylist2_null_archive.plist", foo({{u"title", u"yo"}})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    EXPECT_EQ(dump(c.expected, true), dump(unserialize(fixture(c.file)), true));
  }
  EXPECT_NE(std::string::npos, failureOf(fixture("bpylist2_circular_archive.plist")).find("cycle"));
}

TEST(ArchiveDecoderTest, ReadsWhatOtherArchiversWrite) {
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
  const auto lone = withBytesReplaced(serialize(u"\u00E9\uFFFDx"), {0xFF, 0xFD}, {0xD8, 0x00});
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

TEST(ArchiveDecoderTest, RefusesMalformedArchives) {
  using Make = std::function<std::vector<uint8_t>(RawArchive&)>;
  // "abc" with the runs `info` over one empty dictionary, or over a text.
  const auto attributed = [](std::vector<char> info, bool textSlot = false) {
    return Make([info, textSlot](RawArchive& r) {
      const uint64_t text = r.add(plist_new_string("abc"));
      const uint64_t slot = textSlot ? text : r.object("NSDictionary", {});
      const uint64_t slots = r.object("NSArray", {{"NS.objects", uids({slot})}});
      const uint64_t data = r.add(plist_new_data(info.data(), info.size()));
      return r.bytes(r.object("NSAttributedString", {{"NSString", plist_new_uid(text)},
                                                     {"NSAttributes", plist_new_uid(slots)},
                                                     {"NSAttributeInfo", plist_new_uid(data)}}));
    });
  };
  struct Case {
    const char* name;
    Make make;
    const char* reason;
  } cases[] = {
      {"empty", [](RawArchive&) { return std::vector<uint8_t>{}; }, "empty"},
      {"garbage", [](RawArchive&) { return std::vector<uint8_t>(64, 'x'); },
       "not a binary property list"},
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
       [](RawArchive& r) {
         const uint64_t k = r.add(plist_new_string("k"));
         return r.bytes(r.object("NSDictionary", {{"NS.keys", uids({k, k})}, {"NS.objects", uids({k})}}));
       },
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
      {"decimal exponent 200",
       [](RawArchive& r) {
         const char mantissa[16] = {1};
         return r.bytes(r.object("NSDecimalNumber", {{"NS.length", plist_new_uint(1)},
                                                     {"NS.exponent", plist_new_uint(200)},
                                                     {"NS.mantissa.bo", plist_new_uint(1)},
                                                     {"NS.mantissa", plist_new_data(mantissa, 16)}}));
       },
       "NS.exponent 200"},
      {"attribute slot out of range", attributed({3, 1}), "attributes 1 of 1"},
      {"attribute runs too long", attributed({4, 0}), "pass the end"},
      {"attributes not dictionaries", attributed({3, 0}, true), "other than dictionaries"},
      {"ASCII text holding U+0000",
       [](RawArchive&) { return withBytesReplaced(serialize(u"aXb"), {'X'}, {0}); }, "holds U+0000"},
      {"UTF-16 text holding U+0000",
       [](RawArchive&) {
         return withBytesReplaced(serialize(u"éX"), {0, 'X'}, {0, 0});
       },
       "holds U+0000"},
      {"unsupported object type", [](RawArchive& r) { return r.bytes(r.add(plist_new_array())); },
       "unsupported property-list type"},
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

TEST(ArchiveDecoderTest, EnforcesItsLimits) {
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

TEST(ArchiveDecoderTest, PaysForKeysItHasToSearch) {
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
