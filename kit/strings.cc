#include "kit/strings.h"

#include <unicode/locid.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <algorithm>

bool lmIsWhitespaceOrNewline(char16_t c) {
  if (c == u'\t' || (c >= 0x0A && c <= 0x0D) || c == 0x85 || c == u' ') return true;
  if (c < 0x80) return false;
  const int8_t type = u_charType(c);
  return type == U_SPACE_SEPARATOR || type == U_LINE_SEPARATOR ||
         type == U_PARAGRAPH_SEPARATOR;
}

std::u16string lmLower(std::u16string_view text) {
  icu::UnicodeString s(false, text.data(), static_cast<int32_t>(text.size()));
  icu::UnicodeString lower(s);
  lower.toLower(icu::Locale::getRoot());
  return std::u16string(lower.getBuffer(), static_cast<size_t>(lower.length()));
}

std::u16string lmStrip(std::u16string_view text) {
  size_t begin = 0;
  size_t end = text.size();
  while (begin < end && lmIsWhitespaceOrNewline(text[begin])) ++begin;
  while (end > begin && lmIsWhitespaceOrNewline(text[end - 1])) --end;
  return std::u16string(text.substr(begin, end - begin));
}

std::vector<std::u16string> lmSplit(std::u16string_view text) {
  std::vector<std::u16string> pieces;
  size_t start = 0;
  for (size_t i = 0; i <= text.size(); ++i) {
    if (i == text.size() || lmIsWhitespaceOrNewline(text[i])) {
      if (i > start) pieces.emplace_back(text.substr(start, i - start));
      start = i + 1;
    }
  }
  return pieces;
}

std::vector<std::u16string> lmSplitBy(std::u16string_view text,
                                      std::u16string_view separator) {
  std::vector<std::u16string> pieces;
  if (separator.empty()) {
    pieces.emplace_back(text);
    return pieces;
  }
  size_t start = 0;
  while (true) {
    const size_t hit = text.find(separator, start);
    if (hit == std::u16string_view::npos) {
      pieces.emplace_back(text.substr(start));
      return pieces;
    }
    pieces.emplace_back(text.substr(start, hit - start));
    start = hit + separator.size();
  }
}

std::u16string lmStripAllBlanks(std::u16string_view text) {
  std::u16string out;
  out.reserve(text.size());
  for (char16_t c : text) {
    if (!lmIsWhitespaceOrNewline(c)) out.push_back(c);
  }
  return out;
}

std::u16string lmReplace(std::u16string_view text, std::u16string_view search,
                         std::u16string_view replacement) {
  if (search.empty()) return std::u16string(text);
  std::u16string out;
  out.reserve(text.size());
  size_t start = 0;
  while (true) {
    const size_t hit = text.find(search, start);
    if (hit == std::u16string_view::npos) break;
    out.append(text.substr(start, hit - start));
    out.append(replacement);
    start = hit + search.size();
  }
  out.append(text.substr(start));
  return out;
}

std::u16string lmSliceFrom(std::u16string_view text, int64_t from, int64_t to) {
  const auto length = static_cast<int64_t>(text.size());
  if (length == 0 || from >= length) return std::u16string();
  if (from < 0) from = std::max<int64_t>(from + length, 0);
  int64_t end;
  if (to < 0) {
    end = length + to;
  } else if (to == 0) {
    end = length;  // 0 means "to the end", so a slice never ends at index 0
  } else {
    end = to;
  }
  if (end <= from) return std::u16string();
  const int64_t count = std::max<int64_t>(std::min(length - from, end - from), 0);
  return std::u16string(text.substr(static_cast<size_t>(from), static_cast<size_t>(count)));
}

std::u16string lmJoin(const std::vector<std::u16string>& pieces,
                      std::u16string_view separator) {
  std::u16string out;
  for (size_t i = 0; i < pieces.size(); ++i) {
    if (i) out.append(separator);
    out.append(pieces[i]);
  }
  return out;
}
