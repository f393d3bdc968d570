#include "service/receipt_worker.h"

#include <stdexcept>

#include "analysis/receipt_parser.h"
#include "document/pdf_document.h"
#include "document/receipt_document.h"
#include "facts/document_facts.h"
#include "facts/facts_builder.h"

void LMXPCWorker::work() {
  const LMValue* data = (*this)[u"data"];
  if (!data) {
    doneWithErrorMessage(u"data required");
    return;
  }
  const LMData* bytes = data->asData();
  if (!bytes) throw std::invalid_argument("data must be the bytes of a PDF file");
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
  std::shared_ptr<LMPDFDocument> pdf = LMPDFDocument::initWithData(*bytes);
  if (!pdf) {
    doneWithErrorMessage(u"Could not open document");
    return;
  }
  auto document = std::make_shared<LMReceiptDocument>(pdf);
  document->setOcr(pdf->isOCRDocument());

  LMReceiptParser parser;
  parser.setDoc(document);
  const LMValue* currency = (*this)[u"currency"];
  parser.setDefaultCurrency(currency ? *currency : LMValue(u""));
  const LMValue* taxes = (*this)[u"taxes"];
  parser.setTaxes(taxes ? *taxes : LMValue(LMArray()));
  parser.work();

  LMArray pages;
  for (int64_t i = 0; i < pdf->pageCount(); ++i) {
    auto page = pdf->pageAtIndex(i);
    if (page && page->attributedString().length() > 0) {
      pages.emplace_back(page->attributedString());
    } else {
      pages.emplace_back(LMAttributedString());
    }
  }
  LMDictionary result = parser.result();
  result.set(u"pages", std::move(pages));
  if (facts->wanted) result.set(u"facts", lmFactsDictionary(lmDocumentFacts(*facts, *pdf, parser)));
  doneWithResult(std::move(result));
}

LMXPCReply lmPerformReceiptTask(const LMDictionary& task) {
  LMXPCWorker worker;
  LMXPCReply reply;
  worker.performWithObject(LMValue(task), [&reply](LMXPCReply r) { reply = std::move(r); });
  return reply;
}
