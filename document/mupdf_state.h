// The MuPDF side of the PDF adapter (pdf_source.h): what an opened file and
// its pages share. Internal to document/.
//
// MuPDF reports errors by longjmp (fz_try/fz_catch). Every MuPDF call that
// can throw sits in a small function of its own that holds only plain C
// values and answers with a plain value; C++ objects with destructors never
// live in a frame that a longjmp could skip. The C++ classes only read the
// plain structures MuPDF hands back (structured text, link lists), which
// never throws.
//
// Threads: MuPDF needs one fz_context per thread. Every opened file gets a
// context of its own, sharing nothing with other files, so that files read
// on different threads never wait for each other. (Contexts cloned from one
// shared base did: MuPDF takes its allocation lock for every reference count,
// about 10,000 times for a one-page receipt, and two analyses in parallel
// ran only 1.2 times as fast as one.)
#pragma once
#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "document/mupdf_guards.h"
#include "document/pdf_source.h"
#include "kit/cancellation.h"
#include "kit/diagnostics.h"
#include "kit/limits.h"

// Makes `object` null in `doc`: what MuPDF reads a damaged object as, now
// without parsing it again.
inline void lmMuPdfMakeNull(fz_context* ctx, pdf_document* doc, int object) {
  fz_try(ctx) { pdf_update_object(ctx, doc, object, PDF_NULL); }
  fz_catch(ctx) {}
}

// The opened document, shared by the file and its pages so that a page may
// outlive the file object: MuPDF's context and document, the open options'
// limits and cancellation, and what the document has spent of them.
class LMMuPdfState {
 public:
  explicit LMMuPdfState(const LMPdfOpenOptions& options)
      : limits_(options.limits),
        cancellation_(options.cancellation),
        budget_(options.limits.maxPdfLibraryBytes) {}
  LMMuPdfState(const LMMuPdfState&) = delete;
  LMMuPdfState& operator=(const LMMuPdfState&) = delete;
  ~LMMuPdfState() {
    if (ctx_) {
      pdf_drop_document(ctx_, doc_);
      fz_flush_warnings(ctx_);
      fz_drop_context(ctx_);
    }
    messages_.logSummary();
  }

  // Makes the document's own context and routes its messages here. False
  // when MuPDF cannot make a context.
  bool makeContext() {
    fz_locks_context locks{locks_, lock, unlock};
    allocator_ = budget_.allocator();
    ctx_ = fz_new_context(&allocator_, &locks, kStoreSize);
    if (!ctx_) {
      lmLog("MuPDF: could not create its context");
      return false;
    }
    fz_set_warning_callback(ctx_, LMMuPdfMessages::onWarning, &messages_);
    fz_set_error_callback(ctx_, LMMuPdfMessages::onError, &messages_);
    // Nothing is ever drawn; without colour management a context costs next
    // to nothing to make.
    fz_disable_icc(ctx_);
    return true;
  }

  fz_context* ctx() const { return ctx_; }
  pdf_document* doc() const { return doc_; }
  void setDoc(pdf_document* doc) { doc_ = doc; }

  const LMAnalysisLimits& limits() const { return limits_; }
  LMCancellation* cancellation() const { return cancellation_.get(); }
  LMMuPdfMemoryBudget& budget() { return budget_; }

  const std::optional<std::u16string>& limitExceeded() const { return limitExceeded_; }
  // Records the first bound the document ran into.
  void exceed(std::u16string message) {
    if (!limitExceeded_) limitExceeded_ = std::move(message);
  }
  // After a MuPDF call: the objects it could not parse become null. MuPDF
  // does not remember such a failure and parses the object again at each
  // lookup, so a damaged object early in a list of pages, or a damaged font
  // every page uses, would be read to the end of the file once per page
  // (quadratic: 2,000 pages in 290 KB took 99 s).
  void forgetBrokenObjects() {
    for (int object : messages_.takeBrokenObjects()) lmMuPdfMakeNull(ctx_, doc_, object);
  }

  // Nothing more is read once a bound is hit or the call is cancelled.
  bool stopped() const { return limitExceeded_ || lmIsCancelled(cancellation_.get()); }

  // The characters of the pages read so far, each page counted once.
  int64_t charactersRead() const { return documentUnits_; }

  // Adds a page's text the first time that page is read (a long document
  // reads a page again after dropping it); false once the document's text
  // goes beyond its bound.
  bool chargePage(int64_t index, int64_t units) {
    if (counted_.size() <= static_cast<size_t>(index)) counted_.resize(index + 1, false);
    if (!counted_[index]) {
      counted_[index] = true;
      documentUnits_ += units;
    }
    return documentUnits_ <= limits_.maxDocumentCharacters;
  }

  // A page's text and lines, kept for the document's life once the page has
  // been read. A long document drops the pages it is not using and reads one
  // again from MuPDF when its character boxes are wanted, but not for what
  // needs only its text: the document's text, the reply's pages, the facts.
  // Within the document's bound on characters, and the reply holds the same
  // texts in the end.
  struct PageText {
    std::shared_ptr<LMAttributedString> text;
    std::vector<LMPdfTextLine> lines;
  };
  // Null when page `index` has not been read in full yet.
  const PageText* keptText(int64_t index) const {
    const auto i = static_cast<size_t>(index);
    return i < kept_.size() && kept_[i].text ? &kept_[i] : nullptr;
  }
  void keepText(int64_t index, PageText text) {
    const auto i = static_cast<size_t>(index);
    if (kept_.size() <= i) kept_.resize(i + 1);
    if (!kept_[i].text) kept_[i] = std::move(text);
  }

 private:
  // Fonts and other resources MuPDF keeps while a document is open. The
  // service reads text only (images are never decoded), so a modest store is
  // plenty.
  static constexpr size_t kStoreSize = 64u << 20;

  static void lock(void* locks, int which) { static_cast<std::mutex*>(locks)[which].lock(); }
  static void unlock(void* locks, int which) { static_cast<std::mutex*>(locks)[which].unlock(); }

  // MuPDF's locks of this document's context. A file is used by one thread
  // at a time (see pdf_source.h), so they are never contended.
  std::mutex locks_[FZ_LOCK_MAX];
  const LMAnalysisLimits limits_;
  const std::shared_ptr<LMCancellation> cancellation_;
  LMMuPdfMemoryBudget budget_;
  fz_alloc_context allocator_{};
  std::optional<std::u16string> limitExceeded_;
  std::vector<bool> counted_;
  std::vector<PageText> kept_;
  int64_t documentUnits_ = 0;
  fz_context* ctx_ = nullptr;
  pdf_document* doc_ = nullptr;
  LMMuPdfMessages messages_;
};
