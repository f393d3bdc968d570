// The wire encoding of requests and replies: the keyed-archive layout (a
// binary property list with "$archiver" "NSKeyedArchiver", "$version" 100000,
// "$objects" and "$top" {"root": ...}) for the whole value tree, found
// elements included.
//
// How values are written (index 0 of "$objects" is "$null", the nil
// reference; every class entry {"$classname", "$classes"} is written once):
//   booleans, integers, doubles  plist primitives; negative integers as the
//                                two's complement of a 64-bit integer
//   texts                        plist strings; equal texts are written once
//   bytes                        plist data
//   null marker                  one NSNull object shared by every use
//   dates                        NSDate {"NS.time": seconds since 2001-01-01 UTC}
//   decimals                     NSDecimalNumber {"NS.exponent", "NS.length",
//                                "NS.negative", "NS.compact", "NS.mantissa.bo" 1,
//                                "NS.mantissa": 16 bytes, eight little-endian
//                                16-bit words}; not-a-number is length 0, negative
//   arrays                       NSArray {"NS.objects": [references]}
//   dictionaries                 NSDictionary {"NS.keys", "NS.objects"}, keys in
//                                insertion order
//   attributed texts             NSAttributedString {"NSString"}; a text of length
//                                > 0 adds "NSAttributes": one dictionary when one
//                                run covers the whole text, otherwise an array of
//                                attribute dictionaries plus "NSAttributeInfo",
//                                bytes of base-128 varint pairs (run length, index
//                                into the array)
//   found elements               their class ("LMFoundNumber", ...) with $classes
//                                [class, superclasses..., "NSObject"] and exactly
//                                the keys their encodeWithCoder writes; rectangles
//                                as texts "{{x, y}, {w, h}}"; one element used
//                                twice is one object
//
// What cannot be written (the serializer answers nullopt with a reason): nil
// inside an array, dictionary or attribute dictionary (nil is fine as the root
// and as an element's property), shared objects other than found elements,
// attribute runs that overlap, run backwards or pass the end of their text, an
// element that contains itself, and trees nesting deeper than 512 levels.
// Texts cannot carry U+0000 or unpaired surrogates; both are written as
// U+FFFD (one unit for one, so ranges stay valid).
//
// What the reader accepts beyond what the writer produces: NSMutableDictionary,
// NSMutableArray, NSSet/NSMutableSet and NSOrderedSet/NSMutableOrderedSet (sets
// become arrays in archived order), NSString/NSMutableString objects
// ("NS.string" or UTF-8 "NS.bytes"), NSData/NSMutableData objects ("NS.data"),
// NSMutableAttributedString, and rectangles written inline as well as by
// reference. A class name the reader does not know is looked up along its
// "$classes"; when nothing there is known either, the object becomes a
// dictionary of its keys with its class name under "$classname" (keys holding
// the nil reference are left out). Such dictionaries are written back as plain
// dictionaries.
//
// The reader refuses texts holding U+0000 (no archive this system writes has
// them, and readers that use C strings cut them short) and nil inside arrays
// and dictionaries; it reads an unpaired surrogate as U+FFFD, one unit for
// one, as the writer writes it.
//
// "$top": an archive with a "root" key decodes to that object. Archives written
// with unkeyed top objects ("$0", "$1", ...) have no "root"; they decode to a
// dictionary of every "$top" key and its object, in archive order.
//
// Shared objects and cycles: the reader decodes each found element once and
// shares it wherever it is referenced. A reference cycle (an object that is
// reached again while it is being decoded) cannot be held by the value tree;
// the archive is refused.
//
// Both functions are thread-safe and never throw.
#pragma once
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kit/rect.h"
#include "kit/value.h"

// Limits the decoder enforces on untrusted input.
struct LMUnarchiveLimits {
  size_t maxBytes = 512u << 20;    // the archive itself
  size_t maxObjects = 10'000'000;  // entries of "$objects"
  // Nesting of containers and objects while decoding. The decoder recurses
  // once per level, so values above 512 act as 512.
  size_t maxDepth = 256;
  // Values in the decoded tree, a value reached through several references
  // counted at each of them and every 64 units of a text or bytes of data
  // counted once more. Never more than the larger of 1,000,000 and 16 per
  // byte of the archive, so that an archive of shared references cannot
  // expand far beyond its own size.
  size_t maxValues = 50'000'000;
};

// The archive of `root`; nullopt (and `error` set) when the tree holds
// something that cannot be archived.
std::optional<std::vector<uint8_t>> lxDataSerialize(const LMValue& root,
                                                    std::string* error = nullptr);

// The same archive, byte for byte, of a tree the caller gives up: each part
// of it is released as soon as it is written (elements and attributed texts
// as a whole, when this was their last owner) and the memory freed so is
// handed back to the system as the archive grows, so that a large tree and
// its archive are not held at once. `root` is nil afterwards.
std::optional<std::vector<uint8_t>> lxDataSerializeReleasing(LMValue&& root,
                                                             std::string* error = nullptr);

// The value tree of an archive; nullopt (and `error` set to a one-line
// reason) for anything that is not a well-formed keyed archive of supported
// classes within `limits`. The binary property list is read where it lies:
// its trailer is checked first, every object's offset, count and references
// when the archive reaches it, and nothing of the list is built or copied
// but the values that go into the tree, so that its own nesting and sharing
// cost nothing beyond what `limits` allows the tree.
std::optional<LMValue> lxDataUnserialize(std::span<const uint8_t> bytes,
                                         std::string* error = nullptr,
                                         const LMUnarchiveLimits& limits = {});
