#include "document/receipt_document.h"

#include <utility>

#include "kit/diagnostics.h"

LMReceiptDocument::LMReceiptDocument(std::shared_ptr<LMPDFDocument> pdfDoc)
    : pdfDoc_(pdfDoc) {
  LMAssert(pdfDoc);
  pageCount_ = pdfDoc_ ? pdfDoc_->pageCount() : 0;
}

const std::optional<std::u16string>& LMReceiptDocument::text() {
  if (!text_ && pdfDoc_) text_ = pdfDoc_->string();
  return text_;
}

std::shared_ptr<const LMPdfSourcePage> LMReceiptDocument::validPage(int64_t page) const {
  if (!pdfDoc_ || page < 0 || page >= pageCount_) return nullptr;
  return pdfDoc_->pageAtIndex(page);
}

LMValue LMReceiptDocument::stringForPage(int64_t page) {
  if (auto cached = stringCache_.find(page); cached != stringCache_.end()) {
    return cached->second;
  }
  if (page < 0 || page >= pageCount_) return LMValue();  // invalid: not cached
  // A page that cannot be read counts as a page without text.
  const auto pdfPage = validPage(page);
  if (!pdfPage || pdfPage->string().empty()) {
    // Kept on purpose: nil now, the null marker from the cache afterwards.
    stringCache_.emplace(page, LMValue::null());
    return LMValue();
  }
  return stringCache_.emplace(page, LMValue(pdfPage->string())).first->second;
}

LMRect LMReceiptDocument::boundsForTextRange(LMTextRange range, int64_t page) const {
  const auto pdfPage = validPage(page);
  if (!pdfPage) return LMRect::null();
  // The adapter answers zero for an empty selection and null for a range
  // beyond the text, which is what callers need to tell them apart.
  return pdfPage->boundsForRange(range);
}
