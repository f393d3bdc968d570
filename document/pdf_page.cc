#include "document/pdf_page.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "kit/diagnostics.h"

namespace {

// What the cleaning makes of a unit of page text: NUL, line breaks, no-break
// and typographic spaces, the line and paragraph separators and the object
// replacement character become line breaks (on purpose: a no-break space in
// a line splits it), dashes and the bullet '-', typographic single quotes and
// the backtick '\'', typographic double quotes '"'. Every unit it changes is
// a character of its own, never half of a surrogate pair.
char16_t cleanedUnit(char16_t c) {
  switch (c) {
    case 0x0000: case 0x000A: case 0x000D: case 0x00A0: case 0x1680: case 0x180E:
    case 0x2028: case 0x2029: case 0x202F: case 0x205F: case 0x3000: case 0xFFFC:
      return u'\n';
    case 0x2011: case 0x2012: case 0x2013: case 0x2014: case 0x2022: case 0x2043:
      return u'-';
    case 0x0060: case 0x2018: case 0x2019:
      return u'\'';
    case 0x201C: case 0x201D:
      return u'"';
    default:
      return c >= 0x2000 && c <= 0x200A ? u'\n' : c;
  }
}

// True when `v` is `target` or its magnitude lies within the A4 tolerance.
bool nearSide(double v, double target) {
  return v == target || std::fabs(std::fabs(v) - target) < 47.6;
}

// Order of the lines: higher on the page first, then further left. Lines
// whose origin is not a number go last so that the order stays strict.
bool lineBefore(const LMPDFLine& a, const LMPDFLine& b) {
  const bool aNaN = std::isnan(a.bbox.y);
  const bool bNaN = std::isnan(b.bbox.y);
  if (aNaN != bNaN) return bNaN;
  if (!aNaN && a.bbox.y != b.bbox.y) return a.bbox.y > b.bbox.y;
  return a.bbox.x < b.bbox.x || (std::isnan(b.bbox.x) && !std::isnan(a.bbox.x));
}

bool lineLeftOf(const LMPDFLine* a, const LMPDFLine* b) {
  return a->bbox.x < b->bbox.x || (std::isnan(b->bbox.x) && !std::isnan(a->bbox.x));
}

LMDictionary lineAttributes(const LMPDFLine& line) {
  return LMDictionary{{kLMPDFLineBoxAttribute, LMValue(lmStringFromRect(line.bbox))},
                      {kLMPDFLineRangeAttribute, LMValue(lmStringFromRange(line.range))}};
}

void appendLine(LMAttributedString& text, const LMPDFLine& line) {
  if (!line.string.empty()) {
    text.runs.push_back(LMAttributeRun{
        LMTextRange::make(text.string.size(), line.string.size()), lineAttributes(line)});
  }
  text.string += line.string;
}

}  // namespace

LMAttributedString LMPDFLine::attributedString() const {
  LMAttributedString text;
  appendLine(text, *this);
  return text;
}

LMPDFPage::LMPDFPage(std::shared_ptr<const LMPdfSourcePage> page, int64_t pageNumber)
    : pdfPage_(page), pageNumber_(pageNumber) {
  LMAssert(page);
  LMAssert(pageNumber >= 0);
  classifyFormat();
  extractLines();
  buildText();
}

std::u16string LMPDFPage::normalizePDFString(std::u16string_view text) {
  std::u16string cleaned(text);
  for (char16_t& c : cleaned) c = cleanedUnit(c);
  return cleaned;
}

void LMPDFPage::classifyFormat() {
  const LMRect box = pdfPage_ ? pdfPage_->mediaBox() : LMRect::zero();
  const double width = box.width;
  const double height = box.height;
  const double shortSide = std::min(width, height);
  const double longSide = std::max(width, height);
  letter_ = nearSide(shortSide, 595) && nearSide(longSide, 842);
  landscape_ = longSide != height;
}

void LMPDFPage::extractLines() {
  if (!pdfPage_) return;
  const std::u16string& raw = pdfPage_->string();
  if (raw.empty()) return;
  // Cleaning maps unit to unit, so cleaning the page text once and cutting
  // each line out of it gives each line's own cleaned text.
  const std::u16string cleaned = normalizePDFString(raw);
  const std::vector<LMPdfTextLine>& found = pdfPage_->lines();
  lines_.reserve(found.size());
  for (const LMPdfTextLine& source : found) {
    LMTextRange range = source.range;
    if (!range.fitsIn(raw.size())) {
      // Keep what lies inside the text.
      const uint64_t location = std::min<uint64_t>(range.location, raw.size());
      range = LMTextRange::make(location, std::min(range.length, raw.size() - location));
    }
    LMPDFLine line;
    line.string = cleaned.substr(range.location, range.length);
    line.bbox = source.bounds.isNull() ? LMRect::zero() : source.bounds;
    line.range = range;
    lines_.push_back(std::move(line));
  }
  std::stable_sort(lines_.begin(), lines_.end(), lineBefore);
}

void LMPDFPage::buildText() {
  // Rows: consecutive lines whose vertical extents share a band.
  std::vector<std::vector<const LMPDFLine*>> rows;
  std::vector<const LMPDFLine*> row;
  LMRect band = LMRect::infinite();
  for (const LMPDFLine& line : lines_) {
    const LMRect strip{0, line.bbox.y, 1, line.bbox.height};
    if (lmRectIntersects(band, strip)) {
      band = lmRectIntersection(band, strip);
    } else {
      rows.push_back(std::move(row));
      row.clear();
      // Kept on purpose: the line that broke the band does not set the new
      // band, so the next line always joins its row.
      band = LMRect::infinite();
    }
    row.push_back(&line);
  }
  rows.push_back(std::move(row));

  for (size_t r = 0; r < rows.size(); ++r) {
    if (r > 0) textOrder_.push_back(nullptr);
    std::stable_sort(rows[r].begin(), rows[r].end(), lineLeftOf);
    for (size_t i = 0; i < rows[r].size(); ++i) {
      if (i > 0) textOrder_.push_back(nullptr);
      textOrder_.push_back(rows[r][i]);
    }
  }
  for (const LMPDFLine* line : textOrder_) {
    attributedString_.string += line ? std::u16string_view(line->string) : u"\n";
  }
}

const LMAttributedString& LMPDFPage::attributedString() const {
  std::call_once(runsMade_, [this] {
    uint64_t at = 0;
    for (const LMPDFLine* line : textOrder_) {
      if (line && !line->string.empty()) {
        attributedString_.runs.push_back(LMAttributeRun{
            LMTextRange::make(at, line->string.size()), lineAttributes(*line)});
      }
      at += line ? line->string.size() : 1;
    }
  });
  return attributedString_;
}

LMTextRange LMPDFPage::originalRangeForRange(LMTextRange range) const {
  uint64_t total = 0;
  for (const LMPDFLine& line : lines_) {
    total += line.range.length + 1;
    // Unsigned on purpose: the location wraps around when total exceeds it.
    if (total > range.location) return LMTextRange::make(line.range.location - total, range.length);
  }
  return LMTextRange::make(kLMNotFound, 0);
}
