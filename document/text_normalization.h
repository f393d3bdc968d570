// Folding of characters that optical character recognition confuses, and a
// small word tokenizer.
//
// The parser folds a page's text of an OCR document before it looks for dates
// and amounts: letters that look like digits become digits, the many dashes,
// blanks and quotation marks become one character each. Every fold replaces
// one UTF-16 unit by one, so a range found in folded text is valid in the
// text it was folded from.
//
// Threads: the table is built once on first use and only read afterwards;
// every function may run on several threads at once (on different texts).
#pragma once
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

// One row of the normalization table: the characters folded into `canonical`,
// one UTF-16 unit each, in the order they are folded.
struct LMNormalizationRow {
  char16_t canonical;
  std::u16string folded;
};
using LMNormalizationTable = std::vector<LMNormalizationRow>;

// The process-wide normalization table (fourteen rows: the digits 0, 1, 2, 4,
// 5, 6, 7, 8, then ",", ".", "-", " ", "'" and "\""). Built on the first call
// of this function or of normalizeLike; its rows are compiled in, so every
// call returns the same table. Never destroyed.
const LMNormalizationTable& lmConfigureNormalize();

// Replaces, in place, every character of `text` that the table folds into
// `character` by `character`. `character` must be one UTF-16 unit: anything
// else logs a soft assertion and changes nothing, as does a character
// without a row. The length of `text` never changes.
void normalizeLike(std::u16string& text, std::u16string_view character);

// The words of four or more word characters (\w) of `text`, lower-cased, in
// text order, duplicates kept. "Der Rechnungsbetrag ist 12 EUR" gives
// {"rechnungsbetrag"}.
std::vector<std::u16string> lmTokens(std::u16string_view text);

// lmTokens as a counted set: each distinct token with its number of
// occurrences.
using LMCountedSet = std::map<std::u16string, uint64_t>;
LMCountedSet lmTokensAsCountedSet(std::u16string_view text);
