// Facts read from the page text, over the found elements of the standard
// analysis (read only: the standard stages own them).
//
// For now the text source reports what the standard analysis chose — gross,
// currency and document date — with a low score, and leaves net and tax
// unknown rather than repeating the gross.
#pragma once
#include "analysis/receipt_parser.h"
#include "facts/facts.h"

// Text facts of a parser that has run. Without page text every value is null
// and a failed "page-text" check says so.
LMFacts lmTextFacts(const LMReceiptParser& parser);

// Evidence for a value found on the page: {"source": "text", "page", "box"
// ([x, y, width, height], points, origin top left), "anchor", "text",
// "score", "alternatives"}.
LMDictionary lmTextEvidence(const LMFoundElement& element, double score,
                            LMValue anchor = LMValue::null());
