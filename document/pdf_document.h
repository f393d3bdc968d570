// An opened PDF document as the worker and the analysis see it: the adapter's
// file plus the decision whether its text came from optical character
// recognition.
//
// Whether a document is OCR output is read from its metadata alone: the
// document information's Creator and then its Producer are matched against
// the known scanning and recognition programs. Page contents are not looked
// at.
//
// Threads: like the adapter file it wraps, one document is used by one
// thread at a time. The pattern lists behind isOCRDocument are built once
// and only read afterwards.
#pragma once
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "document/pdf_source.h"

class LMPDFDocument {
 public:
  // Opens PDF bytes through the adapter; null when they are no readable PDF
  // (an empty buffer included). The bytes are copied.
  static std::shared_ptr<LMPDFDocument> initWithData(std::span<const uint8_t> data,
                                                     const LMPdfOpenOptions& options = {});

  // Wraps an opened source. A null source gives a document without pages,
  // metadata or text.
  explicit LMPDFDocument(std::shared_ptr<LMPdfSource> source);

  // The wrapped source (may be null).
  const std::shared_ptr<LMPdfSource>& source() const { return source_; }

  int64_t pageCount() const;
  // Page `index`, or null when the index is out of range or the page cannot
  // be read.
  std::shared_ptr<const LMPdfSourcePage> pageAtIndex(int64_t index) const;
  // The document information's Creator and Producer; nullopt when absent.
  std::optional<std::u16string> creator() const;
  std::optional<std::u16string> producer() const;
  // The whole document's text; nullopt when no page has text.
  std::optional<std::u16string> string() const;
  // The first bound of the limits the document ran into while being read, as
  // the call's error message; nullopt while none (see LMPdfSource).
  std::optional<std::u16string> limitExceeded() const;

  // True when the Creator (non-empty) begins like a known OCR program's mark,
  // or failing that the Producer (non-empty) is Acrobat's Paper Capture
  // plug-in. Case-insensitive; both patterns are anchored at the start.
  bool isOCRDocument() const;

 private:
  std::shared_ptr<LMPdfSource> source_;
};
