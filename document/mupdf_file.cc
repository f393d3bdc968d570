// LMPdfSource over MuPDF: opening the bytes, the document's page list and
// information. The pages are in mupdf_page.cc, the embedded files in
// mupdf_attachments.cc; mupdf_state.h says how MuPDF's errors and threads are
// handled.
#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "document/mupdf_attachments.h"
#include "document/mupdf_page.h"
#include "document/mupdf_state.h"
#include "document/pdf_source.h"
#include "kit/unicode.h"

namespace {

// A file of up to this many pages keeps the pages it made while their texts
// stay below kKeptCharacters; beyond either, a page is kept only while a
// caller holds it.
constexpr size_t kPagesAlwaysKept = 64;
constexpr int64_t kKeptCharacters = 500000;

// ---------------------------------------------------------------------------
// MuPDF calls, each inside its own fz_try. Plain values only.

pdf_document* openDocument(fz_context* ctx, const uint8_t* data, size_t size) {
  fz_buffer* buffer = nullptr;
  fz_stream* stream = nullptr;
  pdf_document* doc = nullptr;
  fz_var(buffer);
  fz_var(stream);
  fz_var(doc);
  fz_try(ctx) {
    buffer = fz_new_buffer_from_copied_data(ctx, data, size);
    stream = fz_open_buffer(ctx, buffer);
    doc = pdf_open_document_with_stream(ctx, stream);
    // Files encrypted with an empty user password open like any other;
    // files that need a real password are unreadable here.
    if (pdf_needs_password(ctx, doc) && !pdf_authenticate_password(ctx, doc, "")) {
      fz_throw(ctx, FZ_ERROR_GENERIC, "document needs a password");
    }
  }
  fz_always(ctx) {
    fz_drop_stream(ctx, stream);
    fz_drop_buffer(ctx, buffer);
  }
  fz_catch(ctx) {
    pdf_drop_document(ctx, doc);
    doc = nullptr;
  }
  return doc;
}

// The page count, or -1 when the page tree cannot be read.
int countPages(fz_context* ctx, pdf_document* doc) {
  int count = -1;
  fz_var(count);
  fz_try(ctx) { count = pdf_count_pages(ctx, doc); }
  fz_catch(ctx) { count = -1; }
  return count;
}

// The Info dictionary's text entry `key` as UTF-8, owned by the document;
// null when absent or not a string.
const char* infoText(fz_context* ctx, pdf_document* doc, pdf_obj* key) {
  const char* text = nullptr;
  fz_var(text);
  fz_try(ctx) {
    pdf_obj* info = pdf_dict_get(ctx, pdf_trailer(ctx, doc), PDF_NAME(Info));
    pdf_obj* value = pdf_dict_get(ctx, info, key);
    if (pdf_is_string(ctx, value)) text = pdf_to_text_string(ctx, value);
  }
  fz_catch(ctx) { text = nullptr; }
  return text;
}

class LMMuPdfFile final : public LMPdfSource {
 public:
  LMMuPdfFile(std::shared_ptr<LMMuPdfState> document, int pageCount,
            std::optional<std::u16string> creator, std::optional<std::u16string> producer)
      : document_(std::move(document)),
        pages_(static_cast<size_t>(pageCount)),
        weakPages_(static_cast<size_t>(pageCount)),
        failed_(static_cast<size_t>(pageCount), false),
        creator_(std::move(creator)),
        producer_(std::move(producer)) {}

  int64_t pageCount() const override { return static_cast<int64_t>(pages_.size()); }

  std::shared_ptr<const LMPdfSourcePage> pageAtIndex(int64_t index) const override {
    if (index < 0 || index >= pageCount()) return nullptr;
    const size_t i = static_cast<size_t>(index);
    if (pages_[i]) return pages_[i];
    if (auto kept = weakPages_[i].lock()) return kept;
    // A page that cannot be read is not tried again.
    if (failed_[i]) return nullptr;
    std::shared_ptr<const LMPdfSourcePage> made = lmLoadMuPdfPage(document_, index);
    if (!made) {
      failed_[i] = true;
      return nullptr;
    }
    // Short documents keep every page, so that asking again costs nothing.
    // Long ones keep a page only while someone holds it, so that memory
    // follows the pages in use rather than the page count.
    if (pages_.size() <= kPagesAlwaysKept && document_->charactersRead() < kKeptCharacters) {
      pages_[i] = made;
    } else {
      weakPages_[i] = made;
    }
    return made;
  }

  std::optional<std::u16string> creator() const override { return creator_; }
  std::optional<std::u16string> producer() const override { return producer_; }
  std::optional<std::u16string> limitExceeded() const override {
    return document_->limitExceeded();
  }

  std::optional<std::u16string> string() const override {
    std::u16string text;
    bool anyText = false;
    for (int64_t i = 0; i < pageCount(); ++i) {
      if (i > 0) text.push_back(u'\n');
      if (auto page = pageAtIndex(i)) {
        text += page->string();
        anyText = anyText || !page->string().empty();
      }
    }
    if (!anyText) return std::nullopt;
    return text;
  }

  std::vector<LMPdfAttachment> attachments() const override {
    return lmReadPdfAttachments(document_->ctx(), document_->doc());
  }

 private:
  std::shared_ptr<LMMuPdfState> document_;
  mutable std::vector<std::shared_ptr<const LMPdfSourcePage>> pages_;
  mutable std::vector<std::weak_ptr<const LMPdfSourcePage>> weakPages_;
  mutable std::vector<bool> failed_;
  std::optional<std::u16string> creator_;
  std::optional<std::u16string> producer_;
};

std::optional<std::u16string> optionalText(const char* utf8) {
  if (!utf8) return std::nullopt;
  return lmUtf16(utf8);
}

}  // namespace

std::shared_ptr<LMPdfSource> lmOpenPdfSource(std::span<const uint8_t> bytes,
                                         const LMPdfOpenOptions& options) {
  if (bytes.empty()) return nullptr;
  auto document = std::make_shared<LMMuPdfState>(options);
  if (!document->makeContext()) return nullptr;
  fz_context* ctx = document->ctx();
  document->setDoc(openDocument(ctx, bytes.data(), bytes.size()));
  if (!document->doc()) return nullptr;
  int pageCount = countPages(ctx, document->doc());
  if (pageCount < 0) return nullptr;
  if (pageCount > options.limits.maxPages) {
    document->exceed(lmLimitMessage(options.limits.maxPages, u"pages"));
    pageCount = 0;
  }
  // MuPDF finds page n of a flat page tree by walking the n pages before it,
  // so reading every page of such a tree is quadratic (5,000 pages: about
  // 3 s here); the page bound bounds it. Its cached page list
  // (pdf_load_page_tree) would make it linear but leaks every page object it
  // hands out in this version.
  auto creator = optionalText(infoText(ctx, document->doc(), PDF_NAME(Creator)));
  auto producer = optionalText(infoText(ctx, document->doc(), PDF_NAME(Producer)));
  return std::make_shared<LMMuPdfFile>(std::move(document), pageCount, std::move(creator),
                                     std::move(producer));
}
