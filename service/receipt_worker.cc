#include "service/receipt_worker.h"

#include "analysis/receipt_parser.h"
#include "document/pdf_document.h"
#include "document/receipt_document.h"
#include "facts/document_facts.h"
#include "facts/facts_builder.h"
#include "kit/limits.h"

void LMXPCWorker::work() {
  const LMValue* data = (*this)[u"data"];
  if (!data) {
    doneWithErrorMessage(u"data required");
    return;
  }
  const LMData* bytes = data->asData();
  if (!bytes) {
    doneWithErrorMessage(u"data must be the bytes of a PDF file");
    return;
  }
  std::u16string factsError;
  const std::optional<LMFactsRequest> facts =
      lmFactsRequest(*object().asDictionary(), &factsError);
  if (!facts) {
    doneWithErrorMessage(factsError);
    return;
  }
  if (facts->wanted && lmLooksLikeXML(*bytes)) {
    doneWithResult(LMDictionary{{u"facts", lmFactsDictionary(lmFactsFromXML(*facts, *bytes))},
                                {u"pages", LMArray()}});
    return;
  }
  // The analysis ends before the reply is archived: what only it held (the
  // document, the parser's state) is gone by then, and the result tree is
  // the findings' last owner, so that archiving can free them as it goes.
  std::u16string error;
  std::optional<LMDictionary> result = analyze(*bytes, *facts, &error);
  if (!result) {
    doneWithErrorMessage(error);
    return;
  }
  doneWithResult(std::move(*result));
}

std::optional<LMDictionary> LMXPCWorker::analyze(const LMData& bytes, const LMFactsRequest& facts,
                                                 std::u16string* error) {
  auto fail = [&](std::u16string_view message) -> std::optional<LMDictionary> {
    *error = message;
    return std::nullopt;
  };
  if (bytes.size() > limits_.maxPdfBytes)
    return fail(lmLimitMessage(static_cast<int64_t>(limits_.maxPdfBytes >> 20), u"MB of PDF"));
  if (cancellation()->isCancelled()) return fail(cancellation()->message());
  LMPdfOpenOptions options;
  options.limits = limits_;
  options.cancellation = cancellation();
  std::shared_ptr<LMPDFDocument> pdf = LMPDFDocument::initWithData(bytes, options);
  if (!pdf) return fail(u"Could not open document");
  if (auto exceeded = pdf->limitExceeded()) return fail(*exceeded);
  auto document = std::make_shared<LMReceiptDocument>(pdf);
  // The pages' text before the first pattern: in a fresh process the first
  // pattern compiled waits for ICU to load its data, which the command
  // line's preparing thread is doing meanwhile.
  document->text();
  document->setOcr(pdf->isOCRDocument());

  LMReceiptParser parser;
  parser.setDoc(document);
  const LMValue* currency = (*this)[u"currency"];
  parser.setDefaultCurrency(currency ? *currency : LMValue(u""));
  const LMValue* taxes = (*this)[u"taxes"];
  parser.setTaxes(taxes ? *taxes : LMValue(LMArray()));
  parser.setLimits(limits_);
  parser.setCancellation(cancellation().get());
  if (!parser.work()) return fail(parser.stopReason());

  LMArray pages;
  for (int64_t i = 0; i < pdf->pageCount(); ++i) {
    if (cancellation()->isCancelled()) return fail(cancellation()->message());
    auto page = pdf->pageAtIndex(i);
    if (page && page->attributedString().length() > 0) {
      pages.emplace_back(page->sharedAttributedString());
    } else {
      pages.emplace_back(LMAttributedString());
    }
  }
  // The pages' texts were kept when the analysis read them; a page read here
  // for the first time could still run into a bound.
  if (auto exceeded = pdf->limitExceeded()) return fail(*exceeded);
  LMDictionary result = parser.result();
  result.set(u"pages", std::move(pages));
  if (facts.wanted) result.set(u"facts", lmFactsDictionary(lmDocumentFacts(facts, *pdf, parser)));
  return result;
}

LMXPCReply lmPerformReceiptTask(const LMDictionary& task) {
  return lmPerformReceiptTask(LMDictionary(task));
}

LMXPCReply lmPerformReceiptTask(LMDictionary&& task) {
  LMXPCWorker worker;
  LMXPCReply reply;
  worker.performWithObject(LMValue(std::move(task)),
                           [&reply](LMXPCReply r) { reply = std::move(r); });
  return reply;
}
