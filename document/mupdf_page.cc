// See mupdf_state.h for how MuPDF's errors and threads are handled.
#include "document/mupdf_page.h"

#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kit/diagnostics.h"
#include "kit/unicode.h"

namespace {

// ---------------------------------------------------------------------------
// MuPDF calls, each inside its own fz_try. Plain values only.

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

class LMMuPdfPage final : public LMPdfSourcePage {
 public:
  LMMuPdfPage(std::shared_ptr<LMMuPdfState> document, pdf_page* page, int64_t index,
            const PageGeometry& geometry)
      : document_(std::move(document)), page_(page), index_(index) {
    toUser_ = fz_invert_matrix(geometry.fromUser);
    // A page without a usable MediaBox gets the box MuPDF shows it with.
    mediaBox_ = rectFromFz(geometry.mediaBox);
    if (mediaBox_.width <= 0 || mediaBox_.height <= 0) mediaBox_ = rectFromFz(geometry.displayBox);
  }
  ~LMMuPdfPage() override {
    fz_drop_page(document_->ctx(), reinterpret_cast<fz_page*>(page_));
  }

  int64_t index() const override { return index_; }
  LMRect mediaBox() const override { return mediaBox_; }

  const std::u16string& string() const override {
    extract(false);
    return text_->string;
  }
  const LMAttributedString& attributedString() const override {
    extract(false);
    return *text_;
  }
  LMAttributedStringRef sharedAttributedString() const override {
    extract(false);
    return LMAttributedStringRef{text_};
  }
  const std::vector<LMPdfTextLine>& lines() const override {
    extract(false);
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

  // Builds the text model on first use; `boxes`: the characters' boxes and
  // fonts are wanted, not only the text and lines. A page read before in this
  // document takes its text and lines from the document's kept copy and is
  // read from MuPDF again only for boxes. A page beyond a bound of the
  // document's limits keeps no text and records the bound; once the document
  // is stopped, nothing more is read.
  void extract(bool boxes = true) const {
    if (extracted_ && (boxed_ || !boxes)) return;
    if (document_->stopped()) {
      extracted_ = boxed_ = true;
      return;
    }
    if (!extracted_ && !boxes) {
      if (const LMMuPdfState::PageText* kept = document_->keptText(index_)) {
        extracted_ = true;
        text_ = kept->text;
        lines_ = kept->lines;
        return;
      }
    }
    if (extracted_) {  // the kept text: read again for the boxes
      text_ = std::make_shared<LMAttributedString>();
      lines_.clear();
    }
    extracted_ = boxed_ = true;
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
      document_->forgetBrokenObjects();
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
      document_->keepText(index_, {text_, lines_});
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
    // One dictionary per font, shared by all of the font's runs.
    std::vector<std::shared_ptr<const LMDictionary>> fontAttributes(fonts_.size());
    uint64_t i = 0;
    while (i < unitChars_.size()) {
      const int32_t c = unitChars_[i];
      uint64_t end = i + 1;
      if (c == kLineBreak) {
        text_->runs.push_back(LMAttributeRun{LMTextRange::make(i, 1), nullptr});
        i = end;
        continue;
      }
      const uint32_t font = chars_[c].font;
      while (end < unitChars_.size() && unitChars_[end] != kLineBreak &&
             chars_[unitChars_[end]].font == font) {
        ++end;
      }
      if (!fontAttributes[font]) {
        LMDictionary attributes;
        attributes.set(kLMPdfFontNameAttribute, LMValue(fonts_[font].name));
        attributes.set(kLMPdfFontSizeAttribute, LMValue(fonts_[font].size));
        fontAttributes[font] = std::make_shared<const LMDictionary>(std::move(attributes));
      }
      text_->runs.push_back(LMAttributeRun{LMTextRange::make(i, end - i), fontAttributes[font]});
      i = end;
    }
  }

  std::shared_ptr<LMMuPdfState> document_;
  pdf_page* page_;
  int64_t index_;
  fz_matrix toUser_;
  LMRect mediaBox_;

  // The text model, built on first use (one thread uses a page at a time).
  mutable bool extracted_ = false;
  mutable bool boxed_ = false;  // chars_, fonts_ and unitChars_ built too
  // Shared with whoever keeps the page's text beyond the page.
  mutable std::shared_ptr<LMAttributedString> text_ = std::make_shared<LMAttributedString>();
  mutable std::vector<LMPdfTextLine> lines_;
  mutable std::vector<Char> chars_;
  mutable std::vector<LMPdfFont> fonts_;
  // For every UTF-16 unit of the string: its character in chars_, or
  // kLineBreak for a line break inserted between lines.
  mutable std::vector<int32_t> unitChars_;
};

}  // namespace

std::shared_ptr<const LMPdfSourcePage> lmLoadMuPdfPage(std::shared_ptr<LMMuPdfState> state,
                                                      int64_t index) {
  PageGeometry geometry{};
  pdf_page* page = loadPage(state->ctx(), state->doc(), static_cast<int>(index), &geometry);
  state->forgetBrokenObjects();
  if (!page) return nullptr;
  return std::make_shared<LMMuPdfPage>(std::move(state), page, index, geometry);
}
