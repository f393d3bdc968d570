// Labels of the text facts: the words that name a value's role on a page
// ("Gesamtbetrag", "Total HT", "MwSt", "Rechnungsdatum", "Fälligkeitsdatum",
// ...) in German, English, French, Italian, Spanish and Dutch.
//
// The tables are data compiled in, held in folded form (lmFoldLabelText), so
// matching needs no collation or regular expression at start-up: the page
// text is folded once and the folded labels are looked up in it.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

enum class LMLabelRole : uint8_t {
  kGross,       // total including tax
  kNet,         // total without tax
  kTax,         // tax amount
  kIssueDate,   // the document's date
  kOtherAmount, // an amount that is none of them: change, tip, due balance, ...
  kOtherDate,   // a date that is not the issue date: due, delivery, order, period
  kCreditNote,  // the title of a credit note
  kZeroTax,     // tax-free, reverse charge, small business, export
  kReceipt,     // wording of a till receipt
  kTitle,       // the document's title or number: "Rechnung Nr.", "Invoice #"
};

struct LMLabel {
  std::u16string_view text;  // folded
  LMLabelRole role;
  double weight;             // how surely the words name the role, 0 to 1
};

// Text folded for label matching, with where each folded unit came from.
struct LMFoldedText {
  std::u16string text;
  std::vector<uint32_t> origin;  // per unit of `text`: its index in the input
};

// Lower case without accents ("ä" -> "a", "ß" -> "ss", "œ" -> "oe");
// colons, dots, line breaks and other punctuation become one space, runs of
// spaces one; OCR's digit slips between letters ("T0tal", "Summ3") become the
// letters they stand for. Letters of other scripts pass unchanged.
LMFoldedText lmFoldLabelText(std::u16string_view text);

// A label found in folded text: [begin, end) in the folded text.
struct LMLabelMatch {
  const LMLabel* label;
  uint32_t begin;
  uint32_t end;
};

// The labels in `folded`, leftmost longest, not overlapping, each at word
// boundaries.
std::vector<LMLabelMatch> lmFindLabels(std::u16string_view folded);

// Every label of the tables (for tests and the table checks).
const std::vector<LMLabel>& lmLabelTable();
