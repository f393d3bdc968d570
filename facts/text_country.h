// Where a document comes from and which language it is written in, from the
// clues in its text: country names and large cities, web domains, phone
// prefixes, VAT ids; and the commonest words of six languages. The country
// reads "$" and "kr"; the country and the language decide the order of a
// slashed date.
#pragma once
#include <array>
#include <map>
#include <string>
#include <string_view>

class LMCountryClues {
 public:
  // Adds the clues of one page: `text` as printed, `folded` as
  // lmFoldLabelText folds it.
  void addPage(std::u16string_view text, std::u16string_view folded);
  // The two-letter code with the most votes, or empty.
  std::u16string country() const;
  // "de", "en", "fr", "it", "es" or "nl", by the most common words; empty
  // when no word of them was seen.
  std::u16string language() const;

 private:
  std::map<std::u16string, int> countries_;
  std::array<int, 6> languages_{};
};

// The currency of "$" and of "kr" in a country (two-letter code; the US
// dollar and the Swedish krona when the country is unknown).
std::u16string lmDollarOf(std::u16string_view country);
std::u16string lmKronaOf(std::u16string_view country);
