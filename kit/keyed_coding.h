// The coder interfaces through which shared objects (the found elements) write
// and read their archive form. The wire format's archiver implements them;
// objects only name their keys.
#pragma once
#include <cstdint>
#include <string_view>

#include "kit/rect.h"
#include "kit/value.h"

class LMKeyedEncoder {
 public:
  virtual ~LMKeyedEncoder() = default;
  virtual void encodeInt64(std::u16string_view key, int64_t value) = 0;
  virtual void encodeRect(std::u16string_view key, const LMRect& rect) = 0;
  // Any value of the tree; nil is written as the archive's null reference.
  virtual void encodeObject(std::u16string_view key, const LMValue& value) = 0;
  // A dictionary as encodeObject writes it, for coders that can write one
  // without the copy into a value; the default makes the copy.
  virtual void encodeDictionary(std::u16string_view key, const LMDictionary& value) {
    encodeObject(key, LMValue(value));
  }
};

class LMKeyedDecoder {
 public:
  virtual ~LMKeyedDecoder() = default;
  virtual bool containsValueForKey(std::u16string_view key) const = 0;
  // 0 when the key is missing or holds no integer.
  virtual int64_t decodeInt64(std::u16string_view key) const = 0;
  // The zero rectangle when the key is missing or holds no rectangle.
  virtual LMRect decodeRect(std::u16string_view key) const = 0;
  // Nil when the key is missing or holds the null reference.
  virtual LMValue decodeObject(std::u16string_view key) const = 0;
};
