// The text of one PDF page as the analysis reads it.
//
// LMPDFPage takes the adapter's lines of a page, cleans each line's text
// (normalizePDFString) and orders the lines so that text standing side by
// side on the page (a label at the left, its amount at the right) comes out
// as neighbouring lines, rows from top to bottom. Every line of the page text
// carries its rectangle and its range in the adapter's raw page text as
// attributes. The page also classifies its format (about A4, landscape).
//
// A page is complete when its constructor returns and never changes
// afterwards; it keeps its adapter page alive. The attributes of the page
// text are made on first use, once (guarded), so a page may be read by
// several threads.
#pragma once
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "document/pdf_source.h"
#include "kit/rect.h"
#include "kit/text_range.h"
#include "kit/value.h"

// Attribute names of the page text's runs. Their values are texts:
// lmStringFromRect of the line's bbox, lmStringFromRange of its range.
inline constexpr char16_t kLMPDFLineBoxAttribute[] = u"LMPDFLineBox";
inline constexpr char16_t kLMPDFLineRangeAttribute[] = u"LMPDFLineRange";

// One line of a page's text.
struct LMPDFLine {
  // The line's text after LMPDFPage::normalizePDFString; as long as the raw
  // text, so it may hold line breaks where the raw text had no-break spaces.
  std::u16string string;
  // The line's bounds on the page.
  LMRect bbox;
  // Where the line's raw text stands in the adapter's page string().
  LMTextRange range;

  // `string` with kLMPDFLineBoxAttribute and kLMPDFLineRangeAttribute over
  // its whole length (no run when the line is empty). Made on each call.
  LMAttributedString attributedString() const;
};

class LMPDFPage {
 public:
  // Builds the page text of `page`, page index `pageNumber` (0-based). A null
  // page or a negative index logs a soft assertion and goes on; a null page
  // gives an empty page text and a page that is neither letter nor landscape.
  LMPDFPage(std::shared_ptr<const LMPdfSourcePage> page, int64_t pageNumber);

  // The character cleaning every line goes through: NUL, line feed, carriage
  // return, U+FFFC and the no-break and typographic spaces (U+00A0, U+1680,
  // U+180E, U+2000-U+200A, U+2028, U+2029, U+202F, U+205F, U+3000) become
  // "\n"; the dashes (hyphen-minus, U+2011, U+2043, U+2012, U+2013, U+2014,
  // U+2022) become "-"; U+0060, U+2018, U+2019 and the apostrophe become "'";
  // U+201C and U+201D become "\"". One UTF-16 unit is replaced by one, so the
  // result has the length of `text` and ranges carry over.
  static std::u16string normalizePDFString(std::u16string_view text);

  // A range for `range` computed from the lines in their sorted order: at the
  // first line where the running total of (line length + 1) exceeds
  // range.location, that line's location minus the total (wrapping around
  // as unsigned) with range.length; the not-found range (kLMNotFound, 0) when
  // no line qualifies. Kept as it has always computed; nothing in the
  // analysis relies on it.
  LMTextRange originalRangeForRange(LMTextRange range) const;

  const std::shared_ptr<const LMPdfSourcePage>& pdfPage() const { return pdfPage_; }
  int64_t pageNumber() const { return pageNumber_; }
  // The lines sorted top to bottom (greater origin y first), then left to
  // right.
  const std::vector<LMPDFLine>& lines() const { return lines_; }
  // The page text: the lines grouped into rows of overlapping vertical
  // extent, each row's lines left to right, everything joined with "\n" (no
  // trailing "\n"). Each line's text carries the two line attributes; the
  // "\n" between lines carries none. Empty for a page without text.
  const LMAttributedString& attributedString() const;
  // The plain text of attributedString(), made without its attributes (a
  // page of 100,000 short lines gives each line two texts of attributes).
  const std::u16string& string() const { return attributedString_.string; }
  // The media box is about 595 x 842 points (A4) in either orientation:
  // each side within 47.6 points, exclusive.
  bool isLetter() const { return letter_; }
  // The media box is wider than high.
  bool isLandscape() const { return landscape_; }

 private:
  void classifyFormat();
  void extractLines();
  void buildText();

  std::shared_ptr<const LMPdfSourcePage> pdfPage_;
  std::vector<LMPDFLine> lines_;
  int64_t pageNumber_;
  bool landscape_ = false;
  bool letter_ = false;
  // The lines in the order of the page text, and the line before which a
  // "\n" is not preceded by a line of the same row.
  std::vector<const LMPDFLine*> textOrder_;
  mutable std::once_flag runsMade_;
  mutable LMAttributedString attributedString_;
};
