// What the keyed-archive encoder (archive_encoder.cc) and decoder
// (archive_decoder.cc) share: the classes this system writes and reads, the
// varints of attribute runs, the bound on nesting, and the failure that
// unwinds to the entry points of keyed_archive.h, which turn it into their
// error text. Nothing here is meant for use outside the archive code.
#pragma once
#include <cstddef>
#include <cstdint>
#include <exception>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kit/value.h"

// Both sides recurse once per level of nesting; this keeps the stack small
// enough for any thread (also in sanitizer builds, whose frames are large).
inline constexpr size_t kLMMaxArchiveDepth = 512;

struct LMArchiveError {
  std::string message;
};

[[noreturn]] inline void lmArchiveFail(std::string message) {
  throw LMArchiveError{std::move(message)};
}

enum class LMArchiveKind {
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

struct LMArchivedClass {
  LMArchiveKind kind;
  // What the writer puts after the class name in "$classes"; only the
  // classes it writes need them.
  std::vector<std::u16string> superclasses;
};

// The class named `name`; nullptr for a class this system does not know.
// Thread-safe (the registry is built once).
const LMArchivedClass* lmFindArchivedClass(std::u16string_view name);

// Base-128 varints, low group first, high bit set on every byte but the
// last. lmReadVarint answers false (and stops) at a truncated or too long one.
void lmAppendVarint(LMData& out, uint64_t value);
bool lmReadVarint(const LMData& in, size_t& pos, uint64_t& value);

// The result of `f`, or nullopt with `error` set to why it failed: the
// message of an LMArchiveError, or "out of memory while <what>".
template <typename F>
auto lmArchiveGuarded(std::string* error, const char* what, F&& f) -> decltype(std::optional(f())) {
  std::string message;
  try {
    return f();
  } catch (const LMArchiveError& e) {
    message = e.message;
  } catch (const std::bad_alloc&) {
    message = std::string("out of memory while ") + what;
  } catch (const std::exception& e) {
    message = std::string(what) + " failed: " + e.what();
  }
  if (error) *error = std::move(message);
  return std::nullopt;
}
