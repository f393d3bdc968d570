// Forgiving operations on UTF-16 text. Every function returns a new value and
// never fails: out-of-range arguments give the empty text. Lengths, indexes
// and ranges count UTF-16 code units.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// True for the white space and line break characters: tab, U+000A-U+000D,
// U+0085 and every character of the Unicode separator categories (Zs, Zl,
// Zp), so U+00A0 and the typographic spaces count.
bool lmIsWhitespaceOrNewline(char16_t c);

inline uint64_t lmLen(std::u16string_view text) { return text.size(); }

// Lower-case form by the root locale's full case mapping (the length may change).
std::u16string lmLower(std::u16string_view text);

// Leading and trailing white space and line breaks removed.
std::u16string lmStrip(std::u16string_view text);

// Cut at every white space or line break; empty pieces are dropped.
std::vector<std::u16string> lmSplit(std::u16string_view text);

// Cut at every occurrence of `separator`; empty pieces are kept. An empty
// separator gives the whole text as the one piece.
std::vector<std::u16string> lmSplitBy(std::u16string_view text,
                                      std::u16string_view separator);

// Every white space and line break removed.
std::u16string lmStripAllBlanks(std::u16string_view text);

// Every occurrence of `search` replaced (plain text, not a pattern), left to
// right without overlaps. An empty `search` returns `text` unchanged.
std::u16string lmReplace(std::u16string_view text, std::u16string_view search,
                         std::u16string_view replacement);

// A slice with counting from the end: a negative `from` counts from the end
// (clamped at 0); `to` < 0 counts from the end, `to` == 0 means "to the end"
// (so a slice never ends at index 0), and an end beyond the text is cut back.
// An empty or inverted slice gives the empty text.
std::u16string lmSliceFrom(std::u16string_view text, int64_t from, int64_t to);

// `pieces` joined with `separator` between them.
std::u16string lmJoin(const std::vector<std::u16string>& pieces,
                      std::u16string_view separator);
