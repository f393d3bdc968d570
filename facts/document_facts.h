// The facts of an opened PDF: its embedded e-invoice, if any, and its page
// text, as lmBuildFacts merges them.
#pragma once
#include "analysis/receipt_parser.h"
#include "document/pdf_document.h"
#include "facts/facts.h"
#include "facts/facts_request.h"

// Lists the document's embedded files, picks the e-invoice among them
// (bounded reads; a broken attachment is skipped with its reason) and builds
// the facts with the text facts of `parser`, which has run.
LMFacts lmDocumentFacts(const LMFactsRequest& request, const LMPDFDocument& pdf,
                        const LMReceiptParser& parser);
