// lmBuildFacts: the facts answer of one task — the e-invoice's facts and the
// text's, chosen as the request asks, with the conflicts between the
// e-invoice and what the page shows.
#pragma once
#include <cstdint>
#include <span>
#include <string>

#include "analysis/receipt_parser.h"
#include "einvoice/attachment_selection.h"
#include "facts/facts.h"
#include "facts/facts_request.h"

// The facts for `request`. `parser` is the analysis of the page text (null
// for an e-invoice given as XML, which has no pages); `selection` the
// e-invoice found in the document (null or without an index when there is
// none) and `attachment` its file name.
//
// "best" takes the e-invoice's facts when it is usable, else the text's;
// "text" the text's; "e-invoice" the e-invoice's, or all values null with a
// failed "einvoice-used" check. An e-invoice that was found but not used is
// reported by a failed "einvoice-used" check with the reason. Conflicts are
// listed whenever a usable e-invoice and page findings exist.
LMFacts lmBuildFacts(const LMFactsRequest& request, const LMReceiptParser* parser,
                     const LMEInvoiceSelection* selection, std::u16string_view attachment);

// The facts of e-invoice XML given directly as a task's data.
LMFacts lmFactsFromXML(const LMFactsRequest& request, std::span<const uint8_t> xml);

// True when `bytes` start, after an optional byte order mark and white
// space, with "<": XML rather than a PDF.
bool lmLooksLikeXML(std::span<const uint8_t> bytes);
