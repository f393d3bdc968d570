// LMAnalysisLimits: how much of a document one call may read and find.
//
// The bounds keep the time and memory of one analysis bounded by these
// numbers instead of by the input: a few kilobytes of compressed PDF can
// draw millions of characters. A document beyond a bound is not analysed;
// the call is answered with lmLimitMessage(), which names the bound. The
// defaults sit well above real receipts and invoices (a thousand-page
// invoice with 40 amounts a page stays far inside them); docs/reliability.md
// lists them with what they cost.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

struct LMAnalysisLimits {
  // Bytes of one PDF (the command line's input file, the task's "data").
  size_t maxPdfBytes = 64u << 20;
  // Pages of a document, checked when it is opened.
  int64_t maxPages = 5000;
  // UTF-16 units of one page's text (its lines and the breaks between them).
  int64_t maxPageCharacters = 200000;
  // UTF-16 units of the whole document's text.
  int64_t maxDocumentCharacters = 2000000;
  // Found elements (amounts, dates, terms, currency mentions) on one page and
  // in the whole document.
  int64_t maxPageElements = 2000;
  int64_t maxDocumentElements = 250000;
  // Memory the PDF library may hold for one document (its copy of the
  // file, parsed objects, fonts, a page's text while it is read).
  size_t maxPdfLibraryBytes = 320u << 20;
};

// "Document too large: more than <count> <what>", e.g.
// lmLimitMessage(2000, u"found elements on page 3").
std::u16string lmLimitMessage(int64_t count, std::u16string_view what);
