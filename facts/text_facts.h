// Facts read from the page text: a second analysis over the found elements
// and page text of the standard analysis (read only: the standard stages own
// the elements and what they store in them appears in the standard reply).
//
// Labels in six languages tie amounts and dates to their roles by geometry
// (same row to the right, below in the same column); the amounts are then
// searched for net + tax = gross and tax = net x rate, and a consistent set
// beats a merely labelled one. The kind (invoice, credit note, receipt), the
// currency (from the mentions near the chosen amounts, "$" by the document's
// country) and the issue date (by label, never a due, delivery or order date,
// a period's end or a day after today) follow. docs/facts.md tells the rules.
#pragma once
#include <optional>
#include <vector>

#include "analysis/receipt_parser.h"
#include "facts/facts.h"
#include "kit/date.h"

struct LMTextFactsOptions {
  // The last day an issue date may have; default: now.
  std::optional<LMDate> today;
  // The task's tax rates in percent, tried besides the page's and the
  // country's usual ones.
  std::vector<LMDecimal> rates;
};

// Text facts of a parser that has run. Without page text every value is null
// and a failed "page-text" check says so.
LMFacts lmTextFacts(const LMReceiptParser& parser, const LMTextFactsOptions& options = {});

// Evidence for a value found on the page: {"source": "text", "page", "box"
// ([x, y, width, height], points, origin top left), "anchor", "text",
// "score", "alternatives"}.
LMDictionary lmTextEvidence(const LMFoundElement& element, double score,
                            LMValue anchor = LMValue::null());
