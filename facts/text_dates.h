// The issue date among the dates of a page: by its label, or beside the
// document's title or number, else the date nearest the head of the
// document. Never a date a due, delivery, order or period label ties, either
// end of a period ("01.01. - 31.01.2024", "Jan 1 - Jan 31, 2024", "vom ...
// bis zum ..."), or a day after today.
//
// A slashed date whose first two numbers could both be the month is read in
// the order the document's unambiguous slashed dates use ("03/20/2023" can
// only put the month first); without such a date by the country (month first
// in the US), and without a country by the language and the currency (an
// English document in dollars puts the month first).
#pragma once
#include <optional>
#include <string>
#include <vector>

#include "elements/found_date.h"
#include "facts/text_layout.h"
#include "kit/date.h"

class LMReceiptParser;

struct LMDateCandidate {
  const LMFoundDate* element = nullptr;
  std::u16string day;  // "YYYY-MM-DD"
  double score = 0;
  const LMLabelHit* anchor = nullptr;
};

struct LMDateChoice {
  std::optional<LMDateCandidate> best;
  // Up to three other days, best first, each with a score of at most 0.45.
  std::vector<LMDateCandidate> alternatives;
};

LMDateChoice lmChooseIssueDate(const LMReceiptParser& parser, const LMTextLayout& layout, const LMDate& today);
