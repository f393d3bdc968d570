// Element collection, the first analysis stage: runs the recognizers over
// every page's normalized text and turns each finding into a found element
// placed on its page.
#pragma once
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "elements/element_lists.h"
#include "kit/cancellation.h"
#include "kit/limits.h"
#include "kit/value.h"

class LMReceiptDocument;

struct LMCollectedElements {
  // Every page's text, one after the other.
  std::u16string text;
  // Whether any page with text has the letter size or lies in landscape.
  bool letter = false;
  bool landscape = false;
  // In page order; amounts that overlap a date's characters are left out.
  LMFoundNumbers numbers;
  LMFoundDates dates;
  // Every currency mention, its key the currency code.
  LMFoundElements currencyFindings;
  LMFoundTerms grossTerms;
  LMFoundTerms taxTerms;
  // Postal addresses as descriptions; `address` is the first of them.
  std::vector<std::u16string> addresses;
  std::optional<std::u16string> address;
  // Web links, lowered: the page's link annotations, then those in its text.
  std::vector<std::u16string> links;
  // The currency code of the last page with text, nil when that page names
  // none; the bank findings (an array) of the last page with text. Both nil
  // when no page has text.
  LMValue currency;
  LMValue banks;
  // Set when the collection stopped early (see lmAnalysisStopReason or the
  // message of the element bound the document went beyond); the lists then
  // hold what was found up to there.
  std::u16string stopReason;
};

// Collects the elements of every page of `doc`; `ocr` folds the separators
// OCR misreads before dates and amounts are searched. The bounds and the
// cancellation are checked between the recognizers. Never throws.
LMCollectedElements lmCollectElements(LMReceiptDocument& doc, bool ocr,
                                      const LMAnalysisLimits& limits,
                                      const LMCancellation* cancellation);

// Why an analysis of `doc` stops now: the cancellation's message
// ("Cancelled" when it has none), else the message of the bound the PDF went
// beyond; empty to go on. `cancellation` and `doc` may be null.
std::u16string lmAnalysisStopReason(const LMCancellation* cancellation,
                                    const LMReceiptDocument* doc);
