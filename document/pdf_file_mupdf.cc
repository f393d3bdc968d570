// LMPdfFile over MuPDF's C API.
//
// MuPDF reports errors by longjmp (fz_try/fz_catch). Every MuPDF call that
// can throw sits in a small function below that holds only plain C values
// and answers with a plain value; C++ objects with destructors never live in
// a frame that a longjmp could skip. The C++ classes only read the plain
// structures MuPDF hands back (structured text, link lists), which never
// throws.
//
// Threads: MuPDF needs one fz_context per thread. Every opened file gets a
// context of its own, sharing nothing with other files, so that files read
// on different threads never wait for each other. (Contexts cloned from one
// shared base did: MuPDF takes its allocation lock for every reference count,
// about 10,000 times for a one-page receipt, and two analyses in parallel
// ran only 1.2 times as fast as one.)
#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "document/mupdf_guards.h"
#include "document/pdf_attachments_mupdf.h"
#include "document/pdf_file.h"
#include "kit/diagnostics.h"
#include "kit/unicode.h"

namespace {

// ---------------------------------------------------------------------------
// Contexts.

// Fonts and other resources MuPDF keeps while a document is open. The
// service reads text only (images are never decoded), so a modest store is
// plenty.
constexpr size_t kStoreSize = 64u << 20;

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

struct PageGeometry {
  fz_rect mediaBox;      // as the PDF states it; empty when it states none
  fz_rect displayBox;    // what MuPDF shows (crop box, defaults applied)
  fz_matrix fromUser;    // user space to MuPDF's display space
};

pdf_page* loadPage(fz_context* ctx, pdf_document* doc, int index, PageGeometry* geometry) {
  pdf_page* page = nullptr;
  fz_var(page);
  fz_try(ctx) {
    page = pdf_load_page(ctx, doc, index);
    pdf_obj* box = pdf_dict_get_inheritable(ctx, page->obj, PDF_NAME(MediaBox));
    geometry->mediaBox = pdf_to_rect(ctx, box);
    pdf_page_transform(ctx, page, &geometry->displayBox, &geometry->fromUser);
  }
  fz_catch(ctx) {
    fz_drop_page(ctx, reinterpret_cast<fz_page*>(page));
    page = nullptr;
  }
  return page;
}

// FZ_STEXT_PRESERVE_WHITESPACE keeps no-break and typographic spaces (without
// it MuPDF turns every horizontal space into a blank). Ligatures are
// deliberately expanded (no FZ_STEXT_PRESERVE_LIGATURES): the recognizers'
// terms are written in plain letters, and a kept U+FB06 would hide "st" in
// "Umsatzsteuer". Each expanded letter is its own character here, so offsets
// stay one character per code point: the first letter gets the glyph's box,
// the others a zero-width box at its end, and a range over them all has the
// glyph's bounds.
constexpr int kTextFlags = FZ_STEXT_PRESERVE_WHITESPACE;

// The page's structured text, or null. Content that fails halfway keeps the
// text found before the failure (`*complete` is then false).
fz_stext_page* extractText(fz_context* ctx, pdf_page* page, LMMuPdfGlyphBudget* budget,
                           bool* complete) {
  fz_stext_page* text = nullptr;
  fz_device* device = nullptr;
  fz_var(text);
  fz_var(device);
  *complete = true;
  fz_try(ctx) {
    fz_stext_options options{kTextFlags, 1.0f};
    text = fz_new_stext_page(ctx, pdf_bound_page(ctx, page));
    device = fz_new_stext_device(ctx, text, &options);
    budget->attach(device);
    // The contents and the annotations' appearances (filled-in form fields
    // show their values that way), as the page is shown.
    fz_run_page(ctx, reinterpret_cast<fz_page*>(page), device, fz_identity, budget->cookie);
    fz_close_device(ctx, device);
  }
  fz_always(ctx) { fz_drop_device(ctx, device); }
  fz_catch(ctx) { *complete = false; }
  return text;
}

fz_link* loadLinks(fz_context* ctx, pdf_page* page) {
  fz_link* links = nullptr;
  fz_var(links);
  fz_try(ctx) { links = fz_load_links(ctx, reinterpret_cast<fz_page*>(page)); }
  fz_catch(ctx) { links = nullptr; }
  return links;
}

// ---------------------------------------------------------------------------
// Conversions.

LMRect rectFromFz(const fz_rect& r) {
  double x0 = std::min(r.x0, r.x1), x1 = std::max(r.x0, r.x1);
  double y0 = std::min(r.y0, r.y1), y1 = std::max(r.y0, r.y1);
  return LMRect{x0, y0, x1 - x0, y1 - y0};
}

// The box around a quad of display space, in user space.
LMRect userRect(const fz_quad& quad, const fz_matrix& toUser) {
  const fz_point points[4] = {
      fz_transform_point(quad.ul, toUser), fz_transform_point(quad.ur, toUser),
      fz_transform_point(quad.ll, toUser), fz_transform_point(quad.lr, toUser)};
  double x0 = points[0].x, x1 = points[0].x, y0 = points[0].y, y1 = points[0].y;
  for (const fz_point& p : points) {
    x0 = std::min<double>(x0, p.x);
    x1 = std::max<double>(x1, p.x);
    y0 = std::min<double>(y0, p.y);
    y1 = std::max<double>(y1, p.y);
  }
  return LMRect{x0, y0, x1 - x0, y1 - y0};
}

// Font names without a subset tag ("ABCDEF+Helvetica" -> "Helvetica").
std::u16string fontName(fz_context* ctx, fz_font* font) {
  const char* name = font ? fz_font_name(ctx, font) : nullptr;
  std::string_view view = name ? name : "";
  if (view.size() > 7 && view[6] == '+' &&
      std::all_of(view.begin(), view.begin() + 6, [](char c) { return c >= 'A' && c <= 'Z'; })) {
    view.remove_prefix(7);
  }
  return lmUtf16(view);
}

void appendCodePoint(std::u16string& text, int c) {
  if (c < 0 || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) c = 0xFFFD;
  // A line break inside a line would split it in two for everyone reading
  // the page text by lines; it stands for the blank it separates.
  if (c == '\n' || c == '\r') c = ' ';
  if (c > 0xFFFF) {
    c -= 0x10000;
    text.push_back(static_cast<char16_t>(0xD800 + (c >> 10)));
    text.push_back(static_cast<char16_t>(0xDC00 + (c & 0x3FF)));
  } else {
    text.push_back(static_cast<char16_t>(c));
  }
}

// ---------------------------------------------------------------------------
// The opened document, shared by the file and its pages so that a page may
// outlive the file object.

class MuPdfDocument {
 public:
  explicit MuPdfDocument(const LMPdfOpenOptions& options)
      : limits_(options.limits),
        cancellation_(options.cancellation),
        budget_(options.limits.maxPdfLibraryBytes) {}
  MuPdfDocument(const MuPdfDocument&) = delete;
  MuPdfDocument& operator=(const MuPdfDocument&) = delete;
  ~MuPdfDocument() {
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

 private:
  static void lock(void* locks, int which) { static_cast<std::mutex*>(locks)[which].lock(); }
  static void unlock(void* locks, int which) { static_cast<std::mutex*>(locks)[which].unlock(); }

  // MuPDF's locks of this document's context. A file is used by one thread
  // at a time (see pdf_file.h), so they are never contended.
  std::mutex locks_[FZ_LOCK_MAX];
  const LMAnalysisLimits limits_;
  const std::shared_ptr<LMCancellation> cancellation_;
  LMMuPdfMemoryBudget budget_;
  fz_alloc_context allocator_{};
  std::optional<std::u16string> limitExceeded_;
  std::vector<bool> counted_;
  int64_t documentUnits_ = 0;
  fz_context* ctx_ = nullptr;
  pdf_document* doc_ = nullptr;
  LMMuPdfMessages messages_;
};

// ---------------------------------------------------------------------------

class MuPdfPage final : public LMPdfFilePage {
 public:
  MuPdfPage(std::shared_ptr<MuPdfDocument> document, pdf_page* page, int64_t index,
            const PageGeometry& geometry)
      : document_(std::move(document)), page_(page), index_(index) {
    toUser_ = fz_invert_matrix(geometry.fromUser);
    // A page without a usable MediaBox gets the box MuPDF shows it with.
    mediaBox_ = rectFromFz(geometry.mediaBox);
    if (mediaBox_.width <= 0 || mediaBox_.height <= 0) mediaBox_ = rectFromFz(geometry.displayBox);
  }
  ~MuPdfPage() override {
    fz_drop_page(document_->ctx(), reinterpret_cast<fz_page*>(page_));
  }

  int64_t index() const override { return index_; }
  LMRect mediaBox() const override { return mediaBox_; }

  const std::u16string& string() const override {
    extract();
    return text_->string;
  }
  const LMAttributedString& attributedString() const override {
    extract();
    return *text_;
  }
  LMAttributedStringRef sharedAttributedString() const override {
    extract();
    return LMAttributedStringRef{text_};
  }
  const std::vector<LMPdfTextLine>& lines() const override {
    extract();
    return lines_;
  }

  LMRect boundsForRange(LMTextRange range) const override {
    extract();
    if (!range.fitsIn(unitChars_.size())) return LMRect::null();
    LMRect bounds = LMRect::null();
    int32_t last = kLineBreak;
    for (uint64_t i = range.location; i < range.end(); ++i) {
      int32_t c = unitChars_[i];
      if (c == kLineBreak || c == last) continue;  // inserted break, second surrogate
      bounds = lmRectUnion(bounds, chars_[c].bounds);
      last = c;
    }
    return bounds.isNull() ? LMRect::zero() : bounds;
  }

  std::optional<LMPdfFont> fontAtIndex(uint64_t index) const override {
    extract();
    if (index >= unitChars_.size() || unitChars_[index] == kLineBreak) return std::nullopt;
    return fonts_[chars_[unitChars_[index]].font];
  }

  std::vector<LMPdfLink> links() const override {
    fz_context* ctx = document_->ctx();
    fz_link* first = loadLinks(ctx, page_);
    std::vector<LMPdfLink> links;
    for (fz_link* link = first; link; link = link->next) {
      // Links to places inside the document ("#page=2") are no URLs.
      if (!link->uri || !fz_is_external_link(ctx, link->uri)) continue;
      links.push_back(LMPdfLink{lmUtf16(link->uri),
                                rectFromFz(fz_transform_rect(link->rect, toUser_))});
    }
    fz_drop_link(ctx, first);
    return links;
  }

 private:
  static constexpr int32_t kLineBreak = -1;

  struct Char {
    LMRect bounds;
    uint32_t font;
  };

  // Builds the text model on first use. A page beyond a bound of the
  // document's limits keeps no text and records the bound.
  void extract() const {
    if (extracted_) return;
    extracted_ = true;
    if (document_->stopped()) return;
    fz_context* ctx = document_->ctx();
    const LMAnalysisLimits& limits = document_->limits();
    fz_cookie cookie{};
    LMMuPdfGlyphBudget glyphs;
    // Glyphs become about one character each; the glyph budget only stops
    // runaway pages early, the characters are counted exactly below.
    glyphs.left = 2 * limits.maxPageCharacters;
    glyphs.cookie = &cookie;
    bool complete = true;
    fz_stext_page* text = nullptr;
    {
      LMCancellation::Registration abort;
      if (LMCancellation* cancellation = document_->cancellation()) {
        abort = cancellation->onCancel([&cookie] { cookie.abort = 1; });
      }
      LMMuPdfGlyphBudget::current = &glyphs;
      document_->budget().takeRefused();
      text = extractText(ctx, page_, &glyphs, &complete);
      LMMuPdfGlyphBudget::current = nullptr;
    }
    const bool outOfMemory = document_->budget().takeRefused() && !complete;
    if (!complete) {
      lmLogf("PDF page %lld: text extraction stopped early", static_cast<long long>(index_));
    }
    const std::u16string page = lmUtf16(std::to_string(index_ + 1));
    bool withinPage = !glyphs.exceeded;
    if (text && withinPage && !outOfMemory) {
      withinPage = build(ctx, text, limits.maxPageCharacters);
    }
    if (text) fz_drop_stext_page(ctx, text);
    if (outOfMemory) {
      document_->exceed(lmLimitMessage(
          static_cast<int64_t>(limits.maxPdfLibraryBytes >> 20), u"MB of memory to read page " + page));
    } else if (!withinPage) {
      document_->exceed(lmLimitMessage(limits.maxPageCharacters, u"characters on page " + page));
    } else if (!document_->chargePage(index_, static_cast<int64_t>(text_->string.size()))) {
      document_->exceed(lmLimitMessage(limits.maxDocumentCharacters, u"characters in the document"));
    } else {
      return;
    }
    clearText();
  }

  void clearText() const {
    text_ = std::make_shared<LMAttributedString>();
    lines_ = {};
    chars_ = {};
    fonts_ = {};
    unitChars_ = {};
  }

  // False, with the model half built, as soon as the text grows beyond
  // `maxUnits`.
  bool build(fz_context* ctx, fz_stext_page* text, int64_t maxUnits) const {
    std::u16string& string = text_->string;
    std::map<std::pair<std::u16string, double>, uint32_t> fontIndex;
    fz_font* lastFont = nullptr;
    float lastSize = -1;
    uint32_t lastFontIndex = 0;
    for (fz_stext_block* block = text->first_block; block; block = block->next) {
      if (block->type != FZ_STEXT_BLOCK_TEXT) continue;
      for (fz_stext_line* line = block->u.t.first_line; line; line = line->next) {
        if (!line->first_char) continue;
        if (!string.empty()) {
          if (static_cast<int64_t>(string.size()) >= maxUnits) return false;
          string.push_back(u'\n');
          unitChars_.push_back(kLineBreak);
        }
        const uint64_t start = string.size();
        LMRect bounds = LMRect::null();
        for (fz_stext_char* c = line->first_char; c; c = c->next) {
          if (c->font != lastFont || c->size != lastSize) {
            // Rounded so that float noise in text matrices does not split runs.
            const double size = std::round(static_cast<double>(c->size) * 100) / 100;
            auto key = std::make_pair(fontName(ctx, c->font), size);
            auto [it, inserted] = fontIndex.try_emplace(key, static_cast<uint32_t>(fonts_.size()));
            if (inserted) fonts_.push_back(LMPdfFont{key.first, size});
            lastFont = c->font;
            lastSize = c->size;
            lastFontIndex = it->second;
          }
          const int32_t index = static_cast<int32_t>(chars_.size());
          chars_.push_back(Char{userRect(c->quad, toUser_), lastFontIndex});
          bounds = lmRectUnion(bounds, chars_.back().bounds);
          appendCodePoint(string, c->c);
          if (static_cast<int64_t>(string.size()) > maxUnits) return false;
          unitChars_.resize(string.size(), index);
        }
        lines_.push_back(LMPdfTextLine{LMTextRange::make(start, string.size() - start), bounds});
      }
    }
    buildRuns();
    return true;
  }

  // Runs of characters with the same font and size. Each inserted line break
  // stands in a run of its own without attributes, so the runs cover the
  // whole string and agree with fontAtIndex.
  void buildRuns() const {
    uint64_t i = 0;
    while (i < unitChars_.size()) {
      const int32_t c = unitChars_[i];
      uint64_t end = i + 1;
      if (c == kLineBreak) {
        text_->runs.push_back(LMAttributeRun{LMTextRange::make(i, 1), LMDictionary()});
        i = end;
        continue;
      }
      const uint32_t font = chars_[c].font;
      while (end < unitChars_.size() && unitChars_[end] != kLineBreak &&
             chars_[unitChars_[end]].font == font) {
        ++end;
      }
      LMDictionary attributes;
      attributes.set(kLMPdfFontNameAttribute, LMValue(fonts_[font].name));
      attributes.set(kLMPdfFontSizeAttribute, LMValue(fonts_[font].size));
      text_->runs.push_back(LMAttributeRun{LMTextRange::make(i, end - i), std::move(attributes)});
      i = end;
    }
  }

  std::shared_ptr<MuPdfDocument> document_;
  pdf_page* page_;
  int64_t index_;
  fz_matrix toUser_;
  LMRect mediaBox_;

  // The text model, built on first use (one thread uses a page at a time).
  mutable bool extracted_ = false;
  // Shared with whoever keeps the page's text beyond the page.
  mutable std::shared_ptr<LMAttributedString> text_ = std::make_shared<LMAttributedString>();
  mutable std::vector<LMPdfTextLine> lines_;
  mutable std::vector<Char> chars_;
  mutable std::vector<LMPdfFont> fonts_;
  // For every UTF-16 unit of the string: its character in chars_, or
  // kLineBreak for a line break inserted between lines.
  mutable std::vector<int32_t> unitChars_;
};

// ---------------------------------------------------------------------------

class MuPdfFile final : public LMPdfFile {
 public:
  MuPdfFile(std::shared_ptr<MuPdfDocument> document, int pageCount,
            std::optional<std::u16string> creator, std::optional<std::u16string> producer)
      : document_(std::move(document)),
        pages_(static_cast<size_t>(pageCount)),
        weakPages_(static_cast<size_t>(pageCount)),
        failed_(static_cast<size_t>(pageCount), false),
        creator_(std::move(creator)),
        producer_(std::move(producer)) {}

  int64_t pageCount() const override { return static_cast<int64_t>(pages_.size()); }

  std::shared_ptr<const LMPdfFilePage> pageAtIndex(int64_t index) const override {
    if (index < 0 || index >= pageCount()) return nullptr;
    const size_t i = static_cast<size_t>(index);
    if (pages_[i]) return pages_[i];
    if (auto kept = weakPages_[i].lock()) return kept;
    // A page that cannot be read is not tried again.
    if (failed_[i]) return nullptr;
    PageGeometry geometry{};
    pdf_page* page = loadPage(document_->ctx(), document_->doc(), static_cast<int>(index),
                              &geometry);
    if (!page) {
      failed_[i] = true;
      return nullptr;
    }
    auto made = std::make_shared<MuPdfPage>(document_, page, index, geometry);
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
  std::shared_ptr<MuPdfDocument> document_;
  mutable std::vector<std::shared_ptr<const LMPdfFilePage>> pages_;
  mutable std::vector<std::weak_ptr<const LMPdfFilePage>> weakPages_;
  mutable std::vector<bool> failed_;
  std::optional<std::u16string> creator_;
  std::optional<std::u16string> producer_;
};

std::optional<std::u16string> optionalText(const char* utf8) {
  if (!utf8) return std::nullopt;
  return lmUtf16(utf8);
}

}  // namespace

std::shared_ptr<LMPdfFile> lmOpenPdfFile(std::span<const uint8_t> bytes,
                                         const LMPdfOpenOptions& options) {
  if (bytes.empty()) return nullptr;
  auto document = std::make_shared<MuPdfDocument>(options);
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
  return std::make_shared<MuPdfFile>(std::move(document), pageCount, std::move(creator),
                                     std::move(producer));
}
