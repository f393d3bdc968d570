#include "kit/unicode.h"

#include <cstdint>

namespace {

void appendUtf8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out.push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (c >> 6)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (c >> 12)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (c >> 18)));
    out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

void appendUtf16(std::u16string& out, char32_t c) {
  if (c < 0x10000) {
    out.push_back(static_cast<char16_t>(c));
  } else {
    c -= 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 + (c >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + (c & 0x3FF)));
  }
}

// Decodes one code point at `i`; returns false for an invalid sequence and
// then advances `i` by one byte.
bool decodeUtf8(std::string_view s, size_t& i, char32_t& out) {
  const auto b0 = static_cast<uint8_t>(s[i]);
  int extra;
  char32_t c;
  char32_t minimum;
  if (b0 < 0x80) {
    out = b0;
    ++i;
    return true;
  } else if ((b0 & 0xE0) == 0xC0) {
    extra = 1, c = b0 & 0x1F, minimum = 0x80;
  } else if ((b0 & 0xF0) == 0xE0) {
    extra = 2, c = b0 & 0x0F, minimum = 0x800;
  } else if ((b0 & 0xF8) == 0xF0) {
    extra = 3, c = b0 & 0x07, minimum = 0x10000;
  } else {
    ++i;
    return false;
  }
  if (s.size() - i <= static_cast<size_t>(extra)) {
    ++i;
    return false;
  }
  for (int k = 1; k <= extra; ++k) {
    const auto b = static_cast<uint8_t>(s[i + k]);
    if ((b & 0xC0) != 0x80) {
      ++i;
      return false;
    }
    c = (c << 6) | (b & 0x3F);
  }
  if (c < minimum || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
    ++i;
    return false;
  }
  i += extra + 1;
  out = c;
  return true;
}

}  // namespace

std::string lmUtf8(std::u16string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    char32_t c = text[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() &&
        text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      ++i;
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      c = 0xFFFD;
    }
    appendUtf8(out, c);
  }
  return out;
}

std::u16string lmUtf16(std::string_view utf8) {
  std::u16string out;
  out.reserve(utf8.size());
  size_t i = 0;
  while (i < utf8.size()) {
    char32_t c;
    appendUtf16(out, decodeUtf8(utf8, i, c) ? c : 0xFFFD);
  }
  return out;
}

std::optional<std::u16string> lmUtf16Strict(std::string_view utf8) {
  std::u16string out;
  out.reserve(utf8.size());
  size_t i = 0;
  while (i < utf8.size()) {
    char32_t c;
    if (!decodeUtf8(utf8, i, c)) return std::nullopt;
    appendUtf16(out, c);
  }
  return out;
}
