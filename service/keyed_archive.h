// The wire encoding of requests and replies: the keyed-archive layout (a
// binary property list with "$archiver" "NSKeyedArchiver", "$version" 100000,
// "$objects" and "$top" {"root": ...}) for the whole value tree, found
// elements included.
//
// Both functions are thread-safe and never throw.
#pragma once
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kit/value.h"

// Limits the decoder enforces on untrusted input.
struct LMUnarchiveLimits {
  size_t maxBytes = 512u << 20;    // the archive itself
  size_t maxObjects = 10'000'000;  // entries of "$objects"
  size_t maxDepth = 256;           // nesting of containers while decoding
};

// The archive of `root`; nullopt (and `error` set) when the tree holds
// something that cannot be archived.
std::optional<std::vector<uint8_t>> lxDataSerialize(const LMValue& root,
                                                    std::string* error = nullptr);

// The value tree of an archive; nullopt (and `error` set to a one-line
// reason) for anything that is not a well-formed keyed archive of supported
// classes within `limits`.
std::optional<LMValue> lxDataUnserialize(std::span<const uint8_t> bytes,
                                         std::string* error = nullptr,
                                         const LMUnarchiveLimits& limits = {});
