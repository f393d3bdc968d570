// The page text as the text facts read it: every page folded once, the
// labels found in it with their boxes, the currency mentions, the tax rates
// printed as percentages and the country the document speaks of; and the
// geometry that ties a found element to the labels around it.
//
// Built over the found elements of the standard analysis, read only.
#pragma once
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <memory>
#include <vector>

#include "elements/found_element.h"
#include "elements/found_date.h"
#include "elements/found_number.h"
#include "facts/labels.h"
#include "kit/decimal.h"
#include "kit/rect.h"

class LMReceiptParser;
struct LMPageGeometry;

inline constexpr double kLMNoNextValue = 1e12;

// A label on a page.
struct LMLabelHit {
  const LMLabel* label;
  int64_t page;
  LMRect box;           // PDF points, origin bottom left (as the elements' boxes)
  std::u16string text;  // as printed
  bool valueOnRow = false;  // an amount or date stands to its right on its row
};

// A currency named on a page.
struct LMCurrencyMention {
  std::u16string code;  // ISO 4217; "$" and "kr" resolved by the country
  int64_t page;
  LMRect box;
  std::u16string text;
  bool symbolOnly;      // "$" or "kr", whose code came from the country
};

// A percentage printed on a page ("19 %", "5,5%").
struct LMRateMention {
  LMDecimal rate;
  int64_t page;
  LMRect box;
};

// How strongly an element's neighbourhood names each role.
struct LMRoleTies {
  static constexpr size_t kRoles = 10;
  std::array<double, kRoles> score{};       // by LMLabelRole
  std::array<double, kRoles> onRow{};       // any label of the role left on the row: its weight
  std::array<const LMLabelHit*, kRoles> anchor{};
  double of(LMLabelRole role) const { return score[static_cast<size_t>(role)]; }
  const LMLabelHit* anchorOf(LMLabelRole role) const { return anchor[static_cast<size_t>(role)]; }
  double onRowOf(LMLabelRole role) const { return onRow[static_cast<size_t>(role)]; }
};

class LMTextLayout {
 public:
  explicit LMTextLayout(const LMReceiptParser& parser);

  const std::vector<LMLabelHit>& labels() const { return labels_; }
  const std::vector<LMCurrencyMention>& currencies() const { return currencies_; }
  // Percentages printed on the pages, distinct, as written ("19", "5.5").
  const std::vector<LMDecimal>& rates() const { return rates_; }
  // Every percentage printed, with its box, in page order.
  const std::vector<LMRateMention>& rateMentions() const { return rateMentions_; }
  // Amounts with two decimals the standard recognizers left out (a minus in
  // front, a currency sign behind), as elements of this layout's own; the
  // standard elements stay untouched.
  const std::vector<std::shared_ptr<LMFoundNumber>>& extraAmounts() const { return extraAmounts_; }
  // Whether `element`, a standard amount, is only a part of an amount of
  // this layout's own: "234,56" of "1 234,56", whose thousands a space sets
  // apart.
  bool supersedes(const LMFoundElement& element) const;
  // Dates with month names the standard recognizers do not know ("12 marzo
  // 2024", "15 de enero de 2024", "1 februari 2024"), likewise the layout's own.
  const std::vector<std::shared_ptr<LMFoundDate>>& extraDates() const { return extraDates_; }
  // Two-letter country code the document points to most (VAT id prefixes,
  // phone prefixes, country names), or empty.
  const std::u16string& country() const { return country_; }
  // The language the document's commonest words belong to ("de", "en",
  // "fr", "it", "es", "nl"), or empty.
  const std::u16string& language() const { return language_; }
  // The normalised text of page `page` (the found elements' ranges point
  // into it); empty for a page without text.
  std::u16string_view pageText(int64_t page) const {
    return page >= 0 && static_cast<size_t>(page) < pageTexts_.size() ? pageTexts_[page]
                                                                      : std::u16string_view();
  }
  // The bounds of page `page`; the zero rectangle for a page without text.
  LMRect pageBox(int64_t page) const {
    return page >= 0 && static_cast<size_t>(page) < pageBoxes_.size() ? pageBoxes_[page] : LMRect::zero();
  }
  // Sum of the weights of the labels of `role` on all pages.
  double roleWeight(LMLabelRole role) const;

  // The labels that tie `element`: the nearest label on its row to its
  // left, and the nearest label above it in its column (a table head or a
  // label over its value). On a row of several values ("netto 100,00 MwSt
  // 19,00", "USt 19% von 100,00 = 19,00") a value ties fully when it is the
  // row's last or another label follows it before the next value; those
  // between tie less. `nextOnRow`: where the next value to its right begins
  // (infinity when none).
  LMRoleTies ties(const LMFoundElement& element, double nextOnRow = kLMNoNextValue) const;

 private:
  void markValuesOnRows(const LMReceiptParser& parser);
  // `numbers`, `dates`, `known`: the standard elements' ranges on the page.
  void collectAmounts(const LMPageGeometry& page, std::u16string_view text,
                      const std::vector<LMTextRange>& numbers, const std::vector<LMTextRange>& dates);
  void collectDates(const LMPageGeometry& page, std::u16string_view text, const LMFoldedText& folded,
                    const std::vector<LMTextRange>& known);
  // The labels of page `page`: [first, end) indices into labels_.
  std::pair<size_t, size_t> labelsOn(int64_t page) const;
  // Puts an element of this layout's own at `range` of the page.
  static void place(LMFoundElement& element, const LMPageGeometry& page, LMTextRange range,
                    std::u16string_view text);

  std::vector<std::u16string> pageTexts_;
  std::vector<LMRect> pageBoxes_;
  std::vector<LMLabelHit> labels_;
  std::vector<LMCurrencyMention> currencies_;
  std::vector<LMDecimal> rates_;
  std::vector<LMRateMention> rateMentions_;
  std::vector<std::shared_ptr<LMFoundNumber>> extraAmounts_;
  struct GroupedAmount {
    int64_t page;
    LMTextRange range;
  };
  std::vector<GroupedAmount> groupedAmounts_;  // in page and text order
  std::vector<std::shared_ptr<LMFoundDate>> extraDates_;
  std::u16string country_;
  std::u16string language_;
};

// The month (1 to 12) a folded word names in one of the six languages
// ("marz", "giugno", "oct"), or 0.
int lmMonthNamed(std::u16string_view word);

// True when `a` and `b` share most of their height (the same text row).
bool lmSameRow(const LMRect& a, const LMRect& b);
