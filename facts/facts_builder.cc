#include "facts/facts_builder.h"

#include "facts/einvoice_facts.h"
#include "facts/page_check.h"
#include "facts/text_facts.h"
#include "kit/date.h"

namespace {

// The task's rates (numbers or numeric texts; anything else is passed over,
// as the standard analysis has already answered a task of wrong kinds).
LMTextFactsOptions textOptions(const LMReceiptParser& parser) {
  LMTextFactsOptions options;
  if (const LMArray* rates = parser.taxes().asArray()) {
    for (const LMValue& rate : *rates) {
      std::optional<LMDecimal> decimal;
      if (const LMDecimal* d = rate.asDecimal()) decimal = *d;
      else if (const int64_t* i = rate.asInt()) decimal = LMDecimal::fromInt(*i);
      else if (rate.asDouble() || rate.asString()) decimal = LMDecimal::fromString(rate.toString());
      if (decimal && !decimal->isNaN() && !decimal->isNegative()) options.rates.push_back(*decimal);
    }
  }
  return options;
}

template <typename T>
LMValue orNull(const std::optional<T>& value) {
  return value ? LMValue(*value) : LMValue::null();
}

LMArray conflicts(const LMFacts& einvoice, const LMFacts& text, const LMReceiptParser& parser) {
  LMArray out;
  auto add = [&](const char16_t* field, LMValue eValue, LMValue tValue) {
    out.emplace_back(
        LMDictionary{{u"field", field}, {u"eInvoice", std::move(eValue)}, {u"text", std::move(tValue)}});
  };
  if (einvoice.gross && !lmPageShowsAmount(parser, *einvoice.gross)) {
    add(u"gross", *einvoice.gross, orNull(text.gross));
  }
  if (einvoice.issueDate && !lmPageShowsDay(parser, *einvoice.issueDate)) {
    add(u"issueDate", *einvoice.issueDate, orNull(text.issueDate));
  }
  if (einvoice.currency && lmPageShowsCurrency(parser, *einvoice.currency) == false) {
    add(u"currency", *einvoice.currency, orNull(text.currency));
  }
  return out;
}

}  // namespace

LMFacts lmBuildFacts(const LMFactsRequest& request, const LMReceiptParser* parser,
                     const LMEInvoiceSelection* selection, std::u16string_view attachment) {
  LMFacts text;
  if (parser) {
    text = lmTextFacts(*parser, textOptions(*parser));
  } else {
    text.checks.push_back({u"page-text", false, u"no page text"});
  }
  const bool found = selection && selection->index;
  const bool usable = found && selection->reading.invoice;
  LMFacts einvoice;
  if (usable) einvoice = lmEInvoiceFacts(selection->reading, attachment, selection->count);

  LMFacts facts;
  if (request.source == LMFactsSource::kText || (request.source == LMFactsSource::kBest && !usable)) {
    facts = text;
    facts.eInvoice = einvoice.eInvoice;
  } else if (usable) {
    // The text's own checks speak of the text's values, not of these.
    facts = einvoice;
  } else {
    // "e-invoice" asked for and none usable: every value stays null.
    facts.checks = text.checks;
  }
  if (found && !usable && request.source != LMFactsSource::kText) {
    facts.checks.push_back({u"einvoice-used", false, selection->reading.failure});
  } else if (!found && request.source == LMFactsSource::kEInvoice) {
    facts.checks.push_back({u"einvoice-used", false, u"no e-invoice in the document"});
  }
  if (usable && parser && parser->text()) facts.conflicts = conflicts(einvoice, text, *parser);
  return facts;
}

LMFacts lmFactsFromXML(const LMFactsRequest& request, std::span<const uint8_t> xml) {
  LMEInvoiceSelection selection;
  selection.index = 0;
  selection.reading = lmReadEInvoice(xml);
  selection.count = selection.reading.invoice ? 1 : 0;
  return lmBuildFacts(request, nullptr, &selection, u"");
}

bool lmLooksLikeXML(std::span<const uint8_t> bytes) {
  size_t i = 0;
  if (bytes.size() >= 3 && bytes[0] == 0xEF && bytes[1] == 0xBB && bytes[2] == 0xBF) i = 3;
  while (i < bytes.size() && (bytes[i] == ' ' || bytes[i] == '\t' || bytes[i] == '\r' || bytes[i] == '\n')) ++i;
  return i < bytes.size() && bytes[i] == '<';
}
