#include "document/pdf_source.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <limits>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kit/diagnostics.h"
#include "kit/unicode.h"
#include "kit/test_support.h"

namespace {

std::vector<uint8_t> readFixture(const std::string& name) {
  std::ifstream in(std::string(LM_TESTDATA_DIR) + "/" + name, std::ios::binary);
  EXPECT_TRUE(in) << name;
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

std::shared_ptr<LMPdfSource> openFixture(const std::string& name) {
  return lmOpenPdfSource(readFixture(name));
}

std::shared_ptr<const LMPdfSourcePage> firstPage(const std::string& name) {
  auto file = openFixture(name);
  return file ? file->pageAtIndex(0) : nullptr;
}

std::string utf8(const std::u16string& s) { return lmUtf8(s); }

// Where `needle` stands in the page text (asserts that it does).
LMTextRange rangeOf(const LMPdfSourcePage& page, std::u16string_view needle) {
  size_t at = page.string().find(needle);
  EXPECT_NE(std::u16string::npos, at) << utf8(std::u16string(needle));
  return LMTextRange::make(at, needle.size());
}

const char* const kAllFixtures[] = {
    "pdf/a4_portrait.pdf",  "pdf/a4_landscape.pdf", "pdf/us_letter.pdf",
    "pdf/rotated.pdf",      "pdf/no_text.pdf",      "pdf/two_pages.pdf",
    "pdf/amount_row.pdf",   "pdf/nbsp.pdf",         "pdf/links.pdf",
    "pdf/ocr_creator.pdf",  "pdf/ocr_producer.pdf", "pdf/unicode.pdf",
    "pdf/offset_box.pdf",   "pdf/multipage.pdf",    "pdf/broken_xref.pdf",
    "pdf/protected_permissions.pdf", "sample-receipt.pdf"};

void expectNear(const LMRect& expected, const LMRect& actual, double tolerance) {
  EXPECT_NEAR(expected.x, actual.x, tolerance);
  EXPECT_NEAR(expected.y, actual.y, tolerance);
  EXPECT_NEAR(expected.width, actual.width, tolerance);
  EXPECT_NEAR(expected.height, actual.height, tolerance);
}

TEST(PdfFileTest, OpensFixturesWithPagesMediaBoxesAndTexts) {
  LMLogCapture log;  // broken_xref.pdf reports its repair
  const std::u16string portrait = u"Rechnung Nr. 4711\nDatum: 14.11.2026\nSumme netto 14,30 EUR";
  struct Case {
    const char* file;
    int64_t pages;
    LMRect mediaBox;       // of every page
    std::u16string text;   // of the first page
  } cases[] = {
      {"pdf/a4_portrait.pdf", 1, {0, 0, 595, 842}, portrait},
      {"pdf/a4_landscape.pdf", 1, {0, 0, 842, 595}, u"Querformat\nSeite 1"},
      {"pdf/us_letter.pdf", 1, {0, 0, 612, 792}, u"Invoice 12\nTotal 9.99 USD"},
      // The box as the PDF states it, not turned by /Rotate.
      {"pdf/rotated.pdf", 1, {0, 0, 595, 842}, u"Rotated\nSecond line"},
      // The box inherited from the page tree.
      {"pdf/two_pages.pdf", 2, {0, 0, 595, 842}, u"Erste Seite"},
      // The MediaBox, not the smaller CropBox.
      {"pdf/offset_box.pdf", 1, {100, 100, 595, 842}, u"Versetzt"},
      {"pdf/no_text.pdf", 1, {0, 0, 595, 842}, u""},
      {"pdf/multipage.pdf", 15, {0, 0, 595, 842}, u""},
      {"pdf/amount_row.pdf", 1, {0, 0, 595, 842}, u"Gesamtbetrag\n15,30 EUR"},
      // No-break spaces stay what they are.
      {"pdf/nbsp.pdf", 1, {0, 0, 595, 842}, u"Summe\u00a0netto 14,30\u00a0EUR"},
      // A character above U+FFFF, the ligature "fi" expanded, a thin space.
      {"pdf/unicode.pdf", 1, {0, 0, 595, 842}, u"Smile \U0001F600ok\nProfit\n10\u2009kg"},
      {"pdf/broken_xref.pdf", 1, {0, 0, 595, 842}, portrait},
      // Encrypted, with an empty user password.
      {"pdf/protected_permissions.pdf", 1, {0, 0, 595, 842},
       u"Geschützter Beleg\nSumme 12,50 EUR"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    auto file = openFixture(c.file);
    ASSERT_TRUE(file);
    EXPECT_EQ(c.pages, file->pageCount());
    for (int64_t i = 0; i < file->pageCount(); ++i) {
      auto page = file->pageAtIndex(i);
      ASSERT_TRUE(page);
      EXPECT_EQ(i, page->index());
      EXPECT_EQ(c.mediaBox, page->mediaBox());
    }
    if (c.pages == 15) continue;  // the long fixture is only counted
    EXPECT_EQ(utf8(c.text), utf8(file->pageAtIndex(0)->string()));
    EXPECT_EQ(c.text, file->pageAtIndex(0)->attributedString().string);
  }
}

TEST(PdfFileTest, LineBoundsAreInUserSpace) {
  struct Case {
    const char* file;
    double firstBaseline;  // where the content stream put the first line
    double firstX;
  } cases[] = {
      {"pdf/a4_portrait.pdf", 770, 72},
      {"pdf/us_letter.pdf", 720, 72},
      {"pdf/a4_landscape.pdf", 523, 72},
      {"pdf/rotated.pdf", 700, 100},
      {"pdf/offset_box.pdf", 800, 150},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    auto page = firstPage(c.file);
    ASSERT_TRUE(page);
    const auto& lines = page->lines();
    ASSERT_FALSE(lines.empty());
    const LMRect first = lines.front().bounds;
    EXPECT_NEAR(c.firstX, first.x, 0.5);
    EXPECT_LT(first.minY(), c.firstBaseline);
    EXPECT_GT(first.maxY(), c.firstBaseline);
    // Horizontal text stays wider than high, also on the turned page.
    EXPECT_GT(first.width, first.height);
    if (lines.size() > 1) {
      EXPECT_GT(first.y, lines.back().bounds.y);
    }
  }
}

TEST(PdfFileTest, RotatedPageGlyphStaysWhereTheContentPutIt) {
  auto page = firstPage("pdf/rotated.pdf");
  ASSERT_TRUE(page);
  // "R" drawn at (100, 700) with Helvetica 12: 8.7 points wide.
  const LMRect r = page->boundsForRange(LMTextRange::make(0, 1));
  EXPECT_NEAR(100, r.x, 0.5);
  EXPECT_NEAR(8.67, r.width, 0.5);
  EXPECT_LT(r.minY(), 700);
  EXPECT_GT(r.maxY(), 708);
  EXPECT_LT(r.height, 20);
  // "Second line" was drawn 200 points lower.
  const LMRect s = page->boundsForRange(rangeOf(*page, u"Second"));
  EXPECT_NEAR(r.y - 200, s.y, 0.5);
  EXPECT_NEAR(100, s.x, 0.5);
}

TEST(PdfFileTest, BoundsForRangeTellsEmptyFromInvalid) {
  auto page = firstPage("pdf/a4_portrait.pdf");
  ASSERT_TRUE(page);
  const uint64_t length = page->string().size();
  const uint64_t lineBreak = page->string().find(u'\n');
  const uint64_t huge = std::numeric_limits<uint64_t>::max();
  struct Case {
    const char* what;
    LMTextRange range;
    bool null;
  } cases[] = {
      {"empty at start", LMTextRange::make(0, 0), false},
      {"empty at end", LMTextRange::make(length, 0), false},
      {"only an inserted line break", LMTextRange::make(lineBreak, 1), false},
      {"past the end", LMTextRange::make(length, 1), true},
      {"one unit too long", LMTextRange::make(0, length + 1), true},
      {"not found", LMTextRange{}, true},
      {"wrapping length", LMTextRange::make(2, huge - 1), true},
      {"far location", LMTextRange::make(huge, 0), true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const LMRect bounds = page->boundsForRange(c.range);
    if (c.null) {
      EXPECT_TRUE(bounds.isNull());
    } else {
      EXPECT_EQ(LMRect::zero(), bounds);
    }
  }
}

TEST(PdfFileTest, BoundsForRangeUnitesTheSelectedCharacters) {
  auto page = firstPage("pdf/a4_portrait.pdf");
  ASSERT_TRUE(page);
  const auto& lines = page->lines();
  ASSERT_EQ(3u, lines.size());
  // A whole line: its own bounds. The whole page: all lines.
  expectNear(lines[1].bounds, page->boundsForRange(lines[1].range), 1e-9);
  LMRect all = lmRectUnion(lmRectUnion(lines[0].bounds, lines[1].bounds), lines[2].bounds);
  expectNear(all, page->boundsForRange(LMTextRange::make(0, page->string().size())), 1e-9);
  // Across a line break: the two lines' parts, the break adds nothing.
  const uint64_t breakAt = lines[0].range.end();
  const LMRect across = page->boundsForRange(LMTextRange::make(breakAt - 1, 3));
  const LMRect before = page->boundsForRange(LMTextRange::make(breakAt - 1, 1));
  const LMRect after = page->boundsForRange(LMTextRange::make(breakAt + 1, 1));
  expectNear(lmRectUnion(before, after), across, 1e-9);
  // A word inside a line: narrower than the line, same band.
  const LMRect word = page->boundsForRange(rangeOf(*page, u"14,30"));
  EXPECT_GT(word.x, lines[2].bounds.x + 50);
  EXPECT_LT(word.maxX(), lines[2].bounds.maxX());
  EXPECT_NEAR(lines[2].bounds.y, word.y, 1e-9);
}

TEST(PdfFileTest, CountsUtf16UnitsAndExpandsLigatures) {
  auto page = firstPage("pdf/unicode.pdf");
  ASSERT_TRUE(page);
  const LMTextRange smile = rangeOf(*page, u"\U0001F600");
  EXPECT_EQ(LMTextRange::make(6, 2), smile);
  EXPECT_EQ(10u, page->lines()[0].range.length);
  // Either half of the pair selects the whole character; the next character
  // starts where its glyph ends.
  const LMRect whole = page->boundsForRange(smile);
  EXPECT_GT(whole.width, 0);
  EXPECT_EQ(whole, page->boundsForRange(LMTextRange::make(smile.location, 1)));
  EXPECT_EQ(whole, page->boundsForRange(LMTextRange::make(smile.location + 1, 1)));
  EXPECT_TRUE(page->fontAtIndex(smile.location + 1));
  EXPECT_NEAR(whole.maxX(), page->boundsForRange(rangeOf(*page, u"ok")).x, 0.5);
  // "fi" from one ligature glyph (Helvetica's "B" here: 8 points at 12)
  // keeps that glyph's bounds, right after "Pro".
  const LMRect fi = page->boundsForRange(rangeOf(*page, u"fi"));
  EXPECT_NEAR(8.0, fi.width, 0.5);
  EXPECT_NEAR(page->boundsForRange(rangeOf(*page, u"Pro")).maxX(), fi.x, 0.5);
}

TEST(PdfFileTest, AmountBesideItsLabelIsLargerAndSlightlyHigher) {
  auto page = firstPage("pdf/amount_row.pdf");
  ASSERT_TRUE(page);
  const auto& lines = page->lines();
  ASSERT_EQ(2u, lines.size());
  const LMRect label = lines[0].bounds;
  const LMRect amount = lines[1].bounds;
  EXPECT_NEAR(72, label.x, 0.5);
  EXPECT_NEAR(523, amount.maxX(), 0.5);  // right-aligned at 523
  EXPECT_GT(amount.maxY(), label.maxY());
  EXPECT_TRUE(lmRectIntersects(LMRect{0, label.y, 1, label.height},
                               LMRect{0, amount.y, 1, amount.height}));
  const std::u16string& text = page->string();
  struct Case {
    uint64_t index;
    std::optional<LMPdfFont> font;
  } cases[] = {
      {0, LMPdfFont{u"Helvetica", 12}},
      {lines[1].range.location, LMPdfFont{u"Helvetica-Bold", 16}},
      {text.size() - 1, LMPdfFont{u"Helvetica-Bold", 16}},
      {text.find(u'\n'), std::nullopt},  // the inserted line break
      {text.size(), std::nullopt},
      {std::numeric_limits<uint64_t>::max(), std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.index);
    auto font = page->fontAtIndex(c.index);
    ASSERT_EQ(c.font.has_value(), font.has_value());
    if (!font) continue;
    EXPECT_EQ(utf8(c.font->name), utf8(font->name));
    EXPECT_DOUBLE_EQ(c.font->size, font->size);
  }
}

// What every consumer relies on, over every page of every fixture: the text
// is the lines joined by line breaks; the attribute runs tile the text,
// neighbours differ, and each run says what fontAtIndex says (so an inserted
// line break stands in a run without attributes).
void expectLinesAndRunsInStep(const LMPdfSourcePage& page) {
  const std::u16string& text = page.string();
  std::u16string joined;
  for (const LMPdfTextLine& line : page.lines()) {
    ASSERT_TRUE(line.range.fitsIn(text.size()));
    EXPECT_GT(line.range.length, 0u);
    std::u16string part = text.substr(line.range.location, line.range.length);
    EXPECT_EQ(std::u16string::npos, part.find(u'\n')) << utf8(part);
    if (!joined.empty()) joined += u'\n';
    EXPECT_EQ(joined.size(), line.range.location);
    joined += part;
    EXPECT_GT(line.bounds.width, 0);
    EXPECT_GT(line.bounds.height, 0);
    EXPECT_TRUE(lmRectIntersects(line.bounds, page.mediaBox()));
  }
  EXPECT_EQ(text, joined);

  uint64_t next = 0;
  const LMDictionary* previous = nullptr;
  for (const LMAttributeRun& run : page.attributedString().runs) {
    ASSERT_EQ(next, run.range.location);
    ASSERT_GT(run.range.length, 0u);
    if (previous) {
      EXPECT_FALSE(*previous == run.attributes);
    }
    for (uint64_t i = run.range.location; i < run.range.end(); ++i) {
      auto font = page.fontAtIndex(i);
      ASSERT_EQ(!run.attributes.empty(), font.has_value()) << i;
      if (!font) continue;
      EXPECT_EQ(font->name, run.attributes.at(kLMPdfFontNameAttribute).toString());
      EXPECT_EQ(font->size, *run.attributes.at(kLMPdfFontSizeAttribute).asDouble());
    }
    next = run.range.end();
    previous = &run.attributes;
  }
  EXPECT_EQ(text.size(), next);
}

TEST(PdfFileTest, LinesRunsAndTextAgreeOnEveryFixture) {
  LMLogCapture log;  // broken_xref.pdf reports its repair
  for (const char* name : kAllFixtures) {
    auto file = openFixture(name);
    ASSERT_TRUE(file) << name;
    for (int64_t i = 0; i < file->pageCount(); ++i) {
      SCOPED_TRACE(std::string(name) + " page " + std::to_string(i));
      auto page = file->pageAtIndex(i);
      ASSERT_TRUE(page);
      expectLinesAndRunsInStep(*page);
    }
  }
}

TEST(PdfFileTest, PageWithoutTextIsEmptyEverywhere) {
  auto file = openFixture("pdf/no_text.pdf");
  ASSERT_TRUE(file);
  auto page = file->pageAtIndex(0);
  ASSERT_TRUE(page);
  EXPECT_TRUE(page->string().empty());
  EXPECT_TRUE(page->lines().empty());
  EXPECT_EQ(0u, page->attributedString().length());
  EXPECT_TRUE(page->attributedString().runs.empty());
  EXPECT_EQ(LMRect::zero(), page->boundsForRange(LMTextRange::make(0, 0)));
  EXPECT_TRUE(page->boundsForRange(LMTextRange::make(0, 1)).isNull());
  EXPECT_FALSE(page->fontAtIndex(0));
  EXPECT_TRUE(page->links().empty());
  EXPECT_FALSE(file->string());
}

TEST(PdfFileTest, LinksCarryUrlsAndUserSpaceBounds) {
  auto page = firstPage("pdf/links.pdf");
  ASSERT_TRUE(page);
  auto links = page->links();
  ASSERT_EQ(2u, links.size());
  EXPECT_EQ(u"https://example.com/receipt", links[0].url);
  expectNear(LMRect{70, 695, 90, 17}, links[0].bounds, 1e-3);
  EXPECT_EQ(u"mailto:beleg@example.com", links[1].url);
  expectNear(LMRect{70, 645, 100, 17}, links[1].bounds, 1e-3);
  EXPECT_TRUE(firstPage("pdf/a4_portrait.pdf")->links().empty());
}

TEST(PdfFileTest, ReadsCreatorProducerAndDocumentText) {
  using Text = std::optional<std::u16string>;
  struct Case {
    const char* file;
    Text creator;
    Text producer;
    Text text;
  } cases[] = {
      {"pdf/two_pages.pdf", u"Writer", u"our fixture writer", u"Erste Seite\nZweite Seite"},
      {"pdf/ocr_creator.pdf", u"ABBYY FineReader 15", u"ABBYY FineReader 15",
       u"Gescannter Beleg"},
      {"pdf/ocr_producer.pdf", u"Microsoft Word", u"Adobe Acrobat 9.0 Paper Capture Plug-in",
       u"Gescannter Beleg"},
      {"pdf/nbsp.pdf", u"Writer", u"our fixture writer", u"Summe\u00a0netto 14,30\u00a0EUR"},
      // Encrypted strings come out decrypted.
      {"pdf/protected_permissions.pdf", u"Writer", u"our fixture writer",
       u"Geschützter Beleg\nSumme 12,50 EUR"},
      // No document information and no text.
      {"pdf/no_text.pdf", std::nullopt, std::nullopt, std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    auto file = openFixture(c.file);
    ASSERT_TRUE(file);
    EXPECT_EQ(c.creator, file->creator());
    EXPECT_EQ(c.producer, file->producer());
    EXPECT_EQ(c.text, file->string());
  }
}

// --- Failure paths ---------------------------------------------------------

TEST(PdfFileTest, UnreadableBytesGiveNullQuietly) {
  const std::string header = "%PDF-1.4\n";
  struct Case {
    const char* what;
    std::vector<uint8_t> bytes;
  } cases[] = {
      {"empty", {}},
      {"garbage", readFixture("pdf/garbage.pdf")},
      {"needs a password", readFixture("pdf/protected_password.pdf")},
      {"header only", std::vector<uint8_t>(header.begin(), header.end())},
      {"one byte", {0x25}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    LMLogCapture log;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(lmOpenPdfSource(c.bytes));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
  }
}

TEST(PdfFileTest, TruncatedFileOpensRepairedWithAnEmptyPage) {
  // The second half held the page object, the document information and the
  // cross-reference table: MuPDF rebuilds the rest and keeps the page slot.
  LMLogCapture log;
  testing::internal::CaptureStderr();
  {
    auto file = openFixture("pdf/truncated.pdf");
    ASSERT_TRUE(file);
    EXPECT_EQ(1, file->pageCount());
    auto page = file->pageAtIndex(0);
    ASSERT_TRUE(page);
    EXPECT_EQ(u"", page->string());
    EXPECT_TRUE(page->lines().empty());
    EXPECT_GT(page->mediaBox().width, 0);
    EXPECT_FALSE(file->creator());
    EXPECT_FALSE(file->string());
  }
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
  // Hundreds of MuPDF messages, one log entry.
  auto lines = log.lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_NE(std::string::npos, lines[0].find("MuPDF reported")) << lines[0];
}

TEST(PdfFileTest, RepairedFileIsReadAndReportedOnceInTheLog) {
  struct Case {
    const char* file;
    size_t logEntries;
  } cases[] = {{"pdf/broken_xref.pdf", 1}, {"sample-receipt.pdf", 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    LMLogCapture log;
    testing::internal::CaptureStderr();
    {
      auto file = openFixture(c.file);
      ASSERT_TRUE(file);
      EXPECT_FALSE(file->pageAtIndex(0)->attributedString().string.empty());
      file->pageAtIndex(0)->links();
      EXPECT_EQ(u"Writer", file->creator());
    }
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ(c.logEntries, log.lines().size());
  }
}

TEST(PdfFileTest, PagesOutliveTheirFileAndBytes) {
  std::shared_ptr<const LMPdfSourcePage> page;
  {
    std::vector<uint8_t> bytes = readFixture("pdf/two_pages.pdf");
    auto file = lmOpenPdfSource(bytes);
    ASSERT_TRUE(file);
    page = file->pageAtIndex(1);
    std::fill(bytes.begin(), bytes.end(), 0);
  }
  ASSERT_TRUE(page);
  EXPECT_EQ(u"Zweite Seite", page->string());
}

TEST(PdfFileTest, DocumentsAreReadOnSeveralThreadsAtOnce) {
  const char* const names[] = {"pdf/multipage.pdf", "sample-receipt.pdf",
                               "pdf/unicode.pdf", "pdf/broken_xref.pdf",
                               "pdf/rotated.pdf"};
  LMLogCapture log;  // broken_xref.pdf reports its repair
  // What one thread reads alone.
  std::vector<std::vector<uint8_t>> bytes;
  std::vector<std::u16string> expected;
  for (const char* name : names) {
    bytes.push_back(readFixture(name));
    auto file = lmOpenPdfSource(bytes.back());
    ASSERT_TRUE(file);
    expected.push_back(file->string().value_or(u""));
  }
  constexpr int kThreads = 4;
  constexpr int kRounds = 8;
  std::vector<int> mismatches(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < kRounds; ++round) {
        const size_t i = static_cast<size_t>(t + round) % bytes.size();
        auto file = lmOpenPdfSource(bytes[i]);
        if (!file) {
          ++mismatches[t];
          continue;
        }
        std::u16string text;
        for (int64_t p = 0; p < file->pageCount(); ++p) {
          auto page = file->pageAtIndex(p);
          if (p > 0) text += u'\n';
          text += page->attributedString().string;
          page->lines();
          page->links();
        }
        if (text != expected[i]) ++mismatches[t];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(0, mismatches[t]) << "thread " << t;
}

}  // namespace
