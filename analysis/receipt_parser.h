// LMReceiptParser: the analysis of one opened receipt document.
//
// Set doc, defaultCurrency and taxes, call work() once, then read result().
// work() runs four stages in a fixed order, each a function from its inputs
// to its outputs: lmCollectElements (every page's amounts, dates, terms,
// currencies, bank accounts, links and addresses become found elements),
// lmAnalyzeGross, lmAnalyzeTax and lmAnalyzeDates. The parser holds what
// they hand on.
//
// A parser is used once, by one thread. Nothing throws. A document beyond
// the limits, a call cancelled while it runs, or `taxes` of the wrong kind
// (anything but an array of numbers or numeric texts, found when the tax
// stage is reached) stop the analysis early: work() answers false and
// stopReason() says why.
#pragma once
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "elements/element_lists.h"
#include "kit/cancellation.h"
#include "kit/decimal.h"
#include "kit/limits.h"
#include "kit/value.h"

class LMReceiptDocument;

class LMReceiptParser {
 public:
  using Numbers = LMFoundNumbers;
  using Dates = LMFoundDates;
  using Terms = LMFoundTerms;
  using Elements = LMFoundElements;

  LMReceiptParser();
  ~LMReceiptParser();

  // The document to analyse.
  void setDoc(std::shared_ptr<LMReceiptDocument> doc) { doc_ = std::move(doc); }
  const std::shared_ptr<LMReceiptDocument>& doc() const { return doc_; }
  // Currency code to fall back on when no currency is found near the gross;
  // passed through as it came (normally a text).
  void setDefaultCurrency(LMValue currency) { defaultCurrency_ = std::move(currency); }
  // Tax rates in percent (e.g. 19, 7); echoed in the result.
  void setTaxes(LMValue taxes) { taxes_ = std::move(taxes); }
  const LMValue& taxes() const { return taxes_; }

  // Bounds on the found elements per page and per document (the document's
  // own bounds are the PDF adapter's); the defaults unless set.
  void setLimits(const LMAnalysisLimits& limits) { limits_ = limits; }
  // Polled between pages and stages; may be null (never cancelled).
  void setCancellation(const LMCancellation* cancellation) { cancellation_ = cancellation; }

  // Runs the whole analysis: true when it ran to its end, false when it
  // stopped early (see stopReason()).
  bool work();
  // Why work() stopped early: the cancellation's message, the message naming
  // the bound the document went beyond, or kLMTaxesRefused. Empty after a
  // complete run.
  const std::u16string& stopReason() const { return stopReason_; }
  // The 21-key result dictionary built from the current state; the null
  // marker stands for every missing value, "factors" is always an (empty)
  // dictionary. Found elements stay shared objects inside it.
  LMDictionary result() const;
  // "<LMReceiptParser:\n" + the result's description + ">".
  std::u16string description() const;

  // State after work().
  // The document's text, which the document keeps (held here, not copied).
  const std::optional<std::u16string>& text() const;
  bool isOcr() const { return ocr_; }
  const std::optional<Numbers>& numbers() const { return numbers_; }
  const std::optional<Dates>& dates() const { return dates_; }
  const std::optional<std::vector<std::u16string>>& addresses() const { return addresses_; }
  const std::optional<std::vector<std::u16string>>& links() const { return links_; }
  const std::optional<LMDecimal>& gross() const { return gross_; }
  const std::optional<LMDecimal>& net() const { return net_; }
  const std::optional<LMDecimal>& tax() const { return tax_; }
  // Normally a currency code text; nil when none was found or given.
  const LMValue& currency() const { return currency_; }
  const std::optional<LMDate>& date() const { return date_; }
  const std::optional<std::u16string>& address() const { return address_; }
  // Every currency mention (its key is the currency code) and every gross
  // and tax term found, in page order.
  const std::optional<Elements>& currencyFindings() const { return currencyFindings_; }
  const std::optional<Terms>& termFindings() const { return termFindings_; }
  const std::optional<Terms>& termTaxFindings() const { return termTaxFindings_; }

 private:
  // True, with stopReason_ set, once the call is cancelled or the document
  // went beyond one of its bounds.
  bool stopped();

  std::shared_ptr<LMReceiptDocument> doc_;
  LMAnalysisLimits limits_;
  const LMCancellation* cancellation_ = nullptr;
  std::u16string stopReason_;
  LMValue defaultCurrency_;
  LMValue taxes_;

  // Points into the document that work() read, and keeps it alive.
  std::shared_ptr<const std::optional<std::u16string>> text_;
  bool ocr_ = false;
  std::optional<Numbers> numbers_;
  std::optional<Dates> dates_;
  std::optional<std::vector<std::u16string>> addresses_;
  std::optional<std::vector<std::u16string>> links_;
  std::optional<LMDecimal> gross_;
  std::optional<LMDecimal> net_;
  std::optional<LMDecimal> tax_;
  LMValue currency_;
  std::optional<LMDate> date_;
  std::optional<std::u16string> address_;

  std::optional<std::u16string> content_;
  LMDictionary factors_;
  std::optional<Elements> currencyFindings_;
  std::optional<Terms> termFindings_;
  std::optional<Terms> termTaxFindings_;
  LMValue banks_;
  bool letter_ = false;
  bool landscape_ = false;
};
