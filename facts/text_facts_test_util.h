// Small hand-made pages for the text facts' tests: rows of text placed on a
// page whose characters all have the same width, analysed by the standard
// analysis and then by the text facts.
#pragma once
#include <memory>
#include <vector>

#include "analysis/receipt_parser.h"
#include "document/fake_pdf_source_test_util.h"
#include "document/receipt_document.h"
#include "facts/text_facts.h"

namespace lmtest {

// A page whose text has fixed-width characters: a range's box is its share
// of its line's box.
class MonospacePage : public LMFakePdfSourcePage {
 public:
  LMRect boundsForRange(LMTextRange range) const override {
    if (!range.fitsIn(string_.size())) return LMRect::null();
    for (const LMPdfTextLine& line : lines_) {
      if (range.location < line.range.location || range.end() > line.range.end()) continue;
      const double unit = line.bounds.width / std::max<uint64_t>(line.range.length, 1);
      return {line.bounds.x + unit * (range.location - line.range.location), line.bounds.y,
              unit * range.length, line.bounds.height};
    }
    return LMRect::zero();
  }
};

// A row of text at (x, y) from the bottom left, 5 points per character.
struct Row {
  const char16_t* text;
  double x;
  double y;
};

struct Parsed {
  LMReceiptParser parser;
  LMFacts facts;
};

inline std::unique_ptr<Parsed> analyse(const std::vector<Row>& rows) {
  std::vector<LMFakePdfSourcePage::Line> lines;
  for (const Row& row : rows) {
    const std::u16string text(row.text);
    lines.push_back({text, {row.x, row.y, 5.0 * text.size(), 10}});
  }
  auto page = LMFakePdfSourcePage::withLines<MonospacePage>(lines);
  auto file = std::make_shared<LMFakePdfSource>();
  file->string_ = page->string_;
  file->pages_.push_back(page);
  auto out = std::make_unique<Parsed>();
  out->parser.setDoc(std::make_shared<LMReceiptDocument>(std::make_shared<LMPDFDocument>(file)));
  out->parser.work();
  out->facts = lmTextFacts(out->parser, {LMDate::fromComponents(2026, 6, 1, 12), {}});
  return out;
}

}  // namespace lmtest
