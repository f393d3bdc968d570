#include "facts/document_facts.h"

#include "facts/facts_builder.h"

LMFacts lmDocumentFacts(const LMFactsRequest& request, const LMPDFDocument& pdf,
                        const LMReceiptParser& parser) {
  const std::vector<LMPdfAttachment> attachments =
      pdf.source() ? pdf.source()->attachments() : std::vector<LMPdfAttachment>();
  std::vector<LMEInvoiceCandidate> candidates;
  candidates.reserve(attachments.size());
  // A file that could not be read is offered without bytes: if it was meant
  // as the e-invoice, the choice reports why it is not usable.
  for (const LMPdfAttachment& a : attachments) {
    candidates.push_back({a.name, a.mimeType, a.relationship, a.inAF, a.bytes});
  }
  const LMEInvoiceSelection selection = lmSelectEInvoice(candidates);
  const std::u16string attachment =
      selection.index ? candidates[*selection.index].name : std::u16string();
  return lmBuildFacts(request, &parser, &selection, attachment);
}
