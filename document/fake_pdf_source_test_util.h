// Hand-made PDF pages and files for the document layer's tests, a log
// capture, and the PDF fixtures opened through the adapter.
#pragma once
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "document/pdf_document.h"
#include "document/pdf_source.h"
#include "kit/diagnostics.h"
#include "kit/test_support.h"

class LMFakePdfSourcePage : public LMPdfSourcePage {
 public:
  struct Line {
    std::u16string text;
    LMRect bounds;
  };
  // string() is the lines' texts joined with "\n"; each line's range is its
  // place in that text. `Page` may be a subclass that answers differently.
  template <typename Page = LMFakePdfSourcePage>
  static std::shared_ptr<Page> withLines(const std::vector<Line>& lines,
                                         LMRect mediaBox = {0, 0, 595, 842}) {
    auto page = std::make_shared<Page>();
    page->mediaBox_ = mediaBox;
    for (const Line& line : lines) {
      if (!page->string_.empty()) page->string_ += u'\n';
      page->lines_.push_back(
          {LMTextRange::make(page->string_.size(), line.text.size()), line.bounds});
      page->string_ += line.text;
    }
    page->attributed_.string = page->string_;
    return page;
  }

  int64_t index() const override { return 0; }
  LMRect mediaBox() const override { return mediaBox_; }
  const std::u16string& string() const override { return string_; }
  const LMAttributedString& attributedString() const override { return attributed_; }
  const std::vector<LMPdfTextLine>& lines() const override { return lines_; }
  // What `bounds_` holds for the range (zero when nothing), null beyond the text.
  LMRect boundsForRange(LMTextRange range) const override {
    if (!range.fitsIn(string_.size())) return LMRect::null();
    auto it = bounds_.find({range.location, range.length});
    return it == bounds_.end() ? LMRect::zero() : it->second;
  }
  std::optional<LMPdfFont> fontAtIndex(uint64_t) const override { return std::nullopt; }
  std::vector<LMPdfLink> links() const override { return {}; }

  LMRect mediaBox_;
  std::u16string string_;
  LMAttributedString attributed_;
  std::vector<LMPdfTextLine> lines_;
  std::map<std::pair<uint64_t, uint64_t>, LMRect> bounds_;
};

// Counts how often pages and the document text are asked for.
class LMFakePdfSource : public LMPdfSource {
 public:
  int64_t pageCount() const override { return static_cast<int64_t>(pages_.size()); }
  std::shared_ptr<const LMPdfSourcePage> pageAtIndex(int64_t index) const override {
    ++pageRequests_;
    if (index < 0 || index >= pageCount()) return nullptr;
    return pages_[static_cast<size_t>(index)];
  }
  std::optional<std::u16string> creator() const override { return creator_; }
  std::optional<std::u16string> producer() const override { return producer_; }
  std::optional<std::u16string> string() const override {
    ++stringRequests_;
    return string_;
  }

  std::vector<std::shared_ptr<const LMPdfSourcePage>> pages_;
  std::optional<std::u16string> creator_, producer_, string_;
  mutable int stringRequests_ = 0;
  mutable int pageRequests_ = 0;
};

// testdata/pdf/`name` opened through the adapter; null when unreadable.
inline std::shared_ptr<LMPDFDocument> lmOpenFixture(const std::string& name) {
  return LMPDFDocument::initWithData(lmTestdataBytes("pdf/" + name));
}
