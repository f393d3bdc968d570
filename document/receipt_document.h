// The opened document as the analysis of one task uses it: the PDF document,
// its page count, the OCR flag, page texts through per-page caches, and text
// ranges of a page mapped back to rectangles on it.
//
// The caches never drop an entry: a page's text is fetched from the adapter
// at most once for the life of the object (an invalid page index is never
// cached). Made and used by one thread, the task's; not synchronised.
#pragma once
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "document/pdf_document.h"
#include "kit/rect.h"
#include "kit/text_range.h"
#include "kit/value.h"

class LMReceiptDocument {
 public:
  // Wraps `pdfDoc` and reads its page count. A null document logs a soft
  // assertion and gives a document without pages or text.
  explicit LMReceiptDocument(std::shared_ptr<LMPDFDocument> pdfDoc);

  const std::shared_ptr<LMPDFDocument>& pdfDoc() const { return pdfDoc_; }
  // The page count, read once at creation.
  int64_t pageCount() const { return pageCount_; }
  // Whether the document's text came from OCR; false until set.
  bool isOCR() const { return ocr_; }
  void setOcr(bool ocr) { ocr_ = ocr; }

  // The whole document's text, fetched on the first call and kept; nullopt
  // when the document has none, and then fetched again on the next call.
  // The reference stays valid until the next call.
  const std::optional<std::u16string>& text();

  // The adapter's text of page `page`: the text; nil when the page has none
  // or the index is out of range. A page without text is remembered as the
  // null marker, which later calls return: nil on the first call, null on
  // the following ones. Callers treat both as "no text".
  LMValue stringForPage(int64_t page);

  // The rectangle enclosing the characters of `range` on page `page`: the
  // zero rectangle when the range selects nothing, the null rectangle when
  // the request is invalid (page index out of range, range beyond the
  // page's text).
  LMRect boundsForTextRange(LMTextRange range, int64_t page) const;

 private:
  // The page, or null when `page` is out of range.
  std::shared_ptr<const LMPdfSourcePage> validPage(int64_t page) const;

  std::shared_ptr<LMPDFDocument> pdfDoc_;
  std::optional<std::u16string> text_;
  int64_t pageCount_ = 0;
  // Page index -> text, or the null marker for a page without text.
  std::map<int64_t, LMValue> stringCache_;
  bool ocr_ = false;
};
