#include "analysis/receipt_parser.h"

#include "analysis/date_analysis.h"
#include "analysis/element_collection.h"
#include "analysis/gross_analysis.h"
#include "analysis/tax_analysis.h"
#include "document/receipt_document.h"
#include "kit/diagnostics.h"

namespace {

template <typename T>
LMValue objectsOrNull(const std::optional<std::vector<std::shared_ptr<T>>>& objects) {
  if (!objects) return LMValue::null();
  LMArray array;
  array.reserve(objects->size());
  for (const auto& o : *objects) array.emplace_back(o);
  return LMValue(std::move(array));
}

LMValue textsOrNull(const std::optional<std::vector<std::u16string>>& texts) {
  if (!texts) return LMValue::null();
  LMArray array(texts->begin(), texts->end());
  return LMValue(std::move(array));
}

template <typename T>
LMValue valueOrNull(const std::optional<T>& value) {
  return value ? LMValue(*value) : LMValue::null();
}

LMValue orNull(const LMValue& value) { return value.isNil() ? LMValue::null() : value; }

}  // namespace

LMReceiptParser::LMReceiptParser() = default;
LMReceiptParser::~LMReceiptParser() = default;

bool LMReceiptParser::work() {
  LMAssert(doc_);
  text_ = doc_ ? std::shared_ptr<const std::optional<std::u16string>>(doc_, &doc_->text())
               : nullptr;
  ocr_ = doc_ && doc_->isOCR();
  content_ = std::u16string();
  factors_ = LMDictionary();
  if (stopped()) return false;
  LMAssert(text());
  if (!text()) return true;

  LMCollectedElements collected = lmCollectElements(*doc_, ocr_, limits_, cancellation_);
  stopReason_ = std::move(collected.stopReason);
  content_ = std::move(collected.text);
  letter_ = collected.letter;
  landscape_ = collected.landscape;
  dates_ = std::move(collected.dates);
  addresses_ = std::move(collected.addresses);
  address_ = std::move(collected.address);
  links_ = std::move(collected.links);
  currencyFindings_ = std::move(collected.currencyFindings);
  termFindings_ = std::move(collected.grossTerms);
  termTaxFindings_ = std::move(collected.taxTerms);
  banks_ = std::move(collected.banks);
  numbers_ = std::move(collected.numbers);
  currency_ = std::move(collected.currency);
  if (stopped()) return false;

  LMGrossAnalysis gross =
      lmAnalyzeGross(*numbers_, *currencyFindings_, *termFindings_, currency_, defaultCurrency_);
  numbers_ = std::move(gross.numbers);
  gross_ = gross.gross;
  net_ = gross.net;
  currency_ = std::move(gross.currency);
  if (stopped()) return false;

  const std::optional<std::vector<LMTaxRate>> rates = lmTaxRates(taxes_);
  if (!rates) {
    stopReason_ = kLMTaxesRefused;
    return false;
  }
  tax_ = lmAnalyzeTax(*rates, gross_, *numbers_, *termTaxFindings_);
  if (stopped()) return false;

  LMDateAnalysis dates = lmAnalyzeDates(std::move(*dates_), LMDate::now());
  dates_ = std::move(dates.dates);
  date_ = dates.date;
  return true;
}

const std::optional<std::u16string>& LMReceiptParser::text() const {
  static const std::optional<std::u16string> kNone;
  return text_ ? *text_ : kNone;
}

bool LMReceiptParser::stopped() {
  if (stopReason_.empty()) stopReason_ = lmAnalysisStopReason(cancellation_, doc_.get());
  return !stopReason_.empty();
}

LMDictionary LMReceiptParser::result() const {
  LMValue text = LMValue::null();
  if (content_ && !content_->empty()) {
    text = *content_;
  } else if (const std::optional<std::u16string>& whole = this->text()) {
    text = *whole;
  }
  return LMDictionary{
      {u"ocr", ocr_},
      {u"letter", letter_},
      {u"landscape", landscape_},
      {u"date", valueOrNull(date_)},
      {u"dates", objectsOrNull(dates_)},
      {u"terms", objectsOrNull(termFindings_)},
      {u"taxTerms", objectsOrNull(termTaxFindings_)},
      {u"net", valueOrNull(net_)},
      {u"gross", valueOrNull(gross_)},
      {u"numbers", objectsOrNull(numbers_)},
      {u"currency", orNull(currency_)},
      {u"currencies", objectsOrNull(currencyFindings_)},
      {u"taxes", orNull(taxes_)},
      // Rate and per-rate values are part of the result's shape but no stage
      // computes them yet.
      {u"taxPercent", LMValue::null()},
      {u"taxValues", LMValue::null()},
      {u"tax", valueOrNull(tax_)},
      {u"links", textsOrNull(links_)},
      {u"addresses", textsOrNull(addresses_)},
      {u"banks", orNull(banks_)},
      {u"text", text},
      {u"factors", factors_},
  };
}

std::u16string LMReceiptParser::description() const {
  return u"<LMReceiptParser:\n" + LMValue(result()).description() + u">";
}
