#include "facts/document_facts.h"

#include "facts/facts_builder.h"

LMFacts lmDocumentFacts(const LMFactsRequest& request, const LMPDFDocument& pdf,
                        const LMReceiptParser& parser) {
  (void)pdf;
  return lmBuildFacts(request, &parser, nullptr, u"");
}
