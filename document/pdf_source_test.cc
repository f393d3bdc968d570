// The PDF adapter over the fixtures of testdata/, driven by the description
// tools/make_fixtures.py writes beside them (testdata/fixtures.json), and over
// PDFs written in memory for its limits.
#include "document/pdf_source.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <limits>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "document/fake_pdf_source_test_util.h"
#include "document/generated_pdf_test_util.h"
#include "kit/diagnostics.h"
#include "kit/test_support.h"
#include "kit/unicode.h"

namespace {

using nlohmann::json;

std::shared_ptr<LMPdfSource> openFixture(const std::string& name) {
  return lmOpenPdfSource(lmTestdataBytes(name));
}

std::optional<std::u16string> optionalText(const json& value) {
  if (value.is_null()) return std::nullopt;
  return lmUtf16(value.get<std::string>());
}

LMRect rectOf(const json& box) { return LMRect{box[0], box[1], box[2], box[3]}; }

void expectNear(const LMRect& expected, const LMRect& actual, double tolerance) {
  EXPECT_NEAR(expected.x, actual.x, tolerance);
  EXPECT_NEAR(expected.y, actual.y, tolerance);
  EXPECT_NEAR(expected.width, actual.width, tolerance);
  EXPECT_NEAR(expected.height, actual.height, tolerance);
}

// Where `needle` stands in the page text (asserts that it does).
LMTextRange rangeOf(const LMPdfSourcePage& page, std::u16string_view needle) {
  size_t at = page.string().find(needle);
  EXPECT_NE(std::u16string::npos, at) << lmUtf8(std::u16string(needle));
  return LMTextRange::make(at, needle.size());
}

// What every consumer relies on: the text is the lines joined by line
// breaks; the attribute runs tile the text, neighbours differ, and each run
// says what fontAtIndex says (so an inserted line break stands in a run
// without attributes).
void expectLinesAndRunsInStep(const LMPdfSourcePage& page) {
  const std::u16string& text = page.string();
  std::u16string joined;
  for (const LMPdfTextLine& line : page.lines()) {
    ASSERT_TRUE(line.range.fitsIn(text.size()));
    EXPECT_GT(line.range.length, 0u);
    std::u16string part = text.substr(line.range.location, line.range.length);
    EXPECT_EQ(std::u16string::npos, part.find(u'\n')) << lmUtf8(part);
    if (!joined.empty()) joined += u'\n';
    EXPECT_EQ(joined.size(), line.range.location);
    joined += part;
  }
  EXPECT_EQ(text, joined);
  EXPECT_EQ(text, page.attributedString().string);

  uint64_t next = 0;
  const LMDictionary* previous = nullptr;
  // A page of many font changes has a run per character: runs of one font
  // share one dictionary.
  std::vector<const LMDictionary*> fonts;
  for (const LMAttributeRun& run : page.attributedString().runs) {
    ASSERT_EQ(next, run.range.location);
    ASSERT_GT(run.range.length, 0u);
    if (previous) {
      EXPECT_FALSE(*previous == run.attributes());
    }
    if (!run.attributes().empty()) {
      auto same = std::find_if(fonts.begin(), fonts.end(),
                               [&](const LMDictionary* font) { return *font == run.attributes(); });
      if (same == fonts.end()) fonts.push_back(&run.attributes());
      else EXPECT_EQ(*same, &run.attributes());
    }
    for (uint64_t i = run.range.location; i < run.range.end(); ++i) {
      auto font = page.fontAtIndex(i);
      ASSERT_EQ(!run.attributes().empty(), font.has_value()) << i;
      if (!font) continue;
      EXPECT_EQ(font->name, run.attributes().at(kLMPdfFontNameAttribute).toString());
      EXPECT_EQ(font->size, *run.attributes().at(kLMPdfFontSizeAttribute).asDouble());
    }
    next = run.range.end();
    previous = &run.attributes();
  }
  EXPECT_EQ(text.size(), next);
}

// Each described line, in order: its text, where it starts (the left edge
// and a band around the baseline, in user space, also on the turned page)
// and its font.
void expectDescribedLines(const LMPdfSourcePage& page, const json& lines) {
  ASSERT_EQ(lines.size(), page.lines().size());
  for (size_t i = 0; i < lines.size(); ++i) {
    const json& want = lines[i];
    const LMPdfTextLine& line = page.lines()[i];
    SCOPED_TRACE(want["text"].get<std::string>());
    EXPECT_EQ(want["text"], lmUtf8(page.string().substr(line.range.location, line.range.length)));
    EXPECT_NEAR(want["x"].get<double>(), line.bounds.x, 0.5);
    EXPECT_LT(line.bounds.minY(), want["baseline"].get<double>());
    EXPECT_GT(line.bounds.maxY(), want["baseline"].get<double>());
    EXPECT_GT(line.bounds.width, line.bounds.height);
    const auto font = page.fontAtIndex(line.range.location);
    ASSERT_TRUE(font);
    EXPECT_EQ(want["font"], lmUtf8(font->name));
    EXPECT_DOUBLE_EQ(want["size"].get<double>(), font->size);
  }
}

TEST(PdfSourceTest, ReadsEveryFixtureAsItsDescriptionSays) {
  std::ifstream in(std::string(LM_TESTDATA_DIR) + "/fixtures.json");
  const json descriptions = json::parse(in);
  for (const auto& [name, fixture] : descriptions.items()) {
    SCOPED_TRACE(name);
    LMLogCapture log;
    testing::internal::CaptureStderr();
    {
      auto file = openFixture(name);
      ASSERT_EQ(fixture["opens"].get<bool>(), file != nullptr);
      if (file && !fixture["pages"].is_null()) {
        EXPECT_EQ(optionalText(fixture["creator"]), file->creator());
        EXPECT_EQ(optionalText(fixture["producer"]), file->producer());
        const json& pages = fixture["pages"];
        ASSERT_EQ(static_cast<int64_t>(pages.size()), file->pageCount());
        std::u16string documentText;
        bool anyText = false;
        for (size_t i = 0; i < pages.size(); ++i) {
          SCOPED_TRACE("page " + std::to_string(i));
          auto page = file->pageAtIndex(static_cast<int64_t>(i));
          ASSERT_TRUE(page);
          EXPECT_EQ(static_cast<int64_t>(i), page->index());
          // The box as the PDF states it (inherited, offset, not cropped or
          // turned).
          EXPECT_EQ(rectOf(pages[i]["media_box"]), page->mediaBox());
          expectLinesAndRunsInStep(*page);
          expectDescribedLines(*page, pages[i]["lines"]);
          const json& links = pages[i]["links"];
          const std::vector<LMPdfLink> found = page->links();
          ASSERT_EQ(links.size(), found.size());
          for (size_t l = 0; l < links.size(); ++l) {
            EXPECT_EQ(links[l]["uri"], lmUtf8(found[l].url));
            expectNear(rectOf(links[l]["rect"]), found[l].bounds, 1e-3);
          }
          documentText += (i > 0 ? u"\n" : u"") + page->string();
          anyText = anyText || !page->string().empty();
        }
        EXPECT_EQ(anyText ? std::optional(documentText) : std::nullopt, file->string());
      }
    }
    // MuPDF's messages go to the log: one entry for a file it could not open
    // or had to repair, none for the others.
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    const bool complained = !fixture["opens"].get<bool>() || fixture["repaired"].get<bool>();
    EXPECT_EQ(complained ? 1u : 0u, log.lines().size());
  }
}

TEST(PdfSourceTest, UnreadableBytesGiveNullQuietly) {
  const std::string header = "%PDF-1.4\n";
  for (const std::vector<uint8_t>& bytes :
       {std::vector<uint8_t>(), std::vector<uint8_t>{0x25},
        std::vector<uint8_t>(header.begin(), header.end())}) {
    SCOPED_TRACE(bytes.size());
    LMLogCapture log;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(lmOpenPdfSource(bytes));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
  }
}

TEST(PdfSourceTest, TruncatedFileOpensRepairedWithAnEmptyPage) {
  // The second half held the page object, the document information and the
  // cross-reference table: MuPDF rebuilds the rest and keeps the page slot.
  LMLogCapture log;
  auto file = openFixture("pdf/truncated.pdf");
  ASSERT_TRUE(file);
  ASSERT_EQ(1, file->pageCount());
  auto page = file->pageAtIndex(0);
  ASSERT_TRUE(page);
  EXPECT_EQ(u"", page->string());
  EXPECT_TRUE(page->lines().empty());
  EXPECT_GT(page->mediaBox().width, 0);
  EXPECT_FALSE(file->creator());
  EXPECT_FALSE(file->string());
}

TEST(PdfSourceTest, BoundsUniteTheSelectedCharactersAndAreNullOutsideTheText) {
  auto file = openFixture("pdf/a4_portrait.pdf");
  ASSERT_TRUE(file);
  auto page = file->pageAtIndex(0);
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
    EXPECT_TRUE(c.null ? bounds.isNull() : bounds == LMRect::zero());
  }
  // No font for an inserted line break or beyond the text.
  for (uint64_t index : {lineBreak, length, huge}) EXPECT_FALSE(page->fontAtIndex(index));

  // Within the text the bounds unite the selected characters.
  const auto& lines = page->lines();
  ASSERT_EQ(3u, lines.size());
  // A whole line: its own bounds. The whole page: all lines.
  expectNear(lines[1].bounds, page->boundsForRange(lines[1].range), 1e-9);
  LMRect all = lmRectUnion(lmRectUnion(lines[0].bounds, lines[1].bounds), lines[2].bounds);
  expectNear(all, page->boundsForRange(LMTextRange::make(0, length)), 1e-9);
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

TEST(PdfSourceTest, CountsUtf16UnitsAndExpandsLigatures) {
  auto file = openFixture("pdf/unicode.pdf");
  ASSERT_TRUE(file);
  auto page = file->pageAtIndex(0);
  const LMTextRange smile = rangeOf(*page, u"\U0001F600");
  EXPECT_EQ(LMTextRange::make(6, 2), smile);
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

TEST(PdfSourceTest, PagesOutliveTheirFileAndBytes) {
  std::shared_ptr<const LMPdfSourcePage> page;
  {
    std::vector<uint8_t> bytes = lmTestdataBytes("pdf/two_pages.pdf");
    auto file = lmOpenPdfSource(bytes);
    ASSERT_TRUE(file);
    page = file->pageAtIndex(1);
    std::fill(bytes.begin(), bytes.end(), 0);
  }
  ASSERT_TRUE(page);
  EXPECT_EQ(u"Zweite Seite", page->string());
}

TEST(PdfSourceTest, ALongDocumentKeepsADroppedPagesTextButReadsItsBoxesAgain) {
  // Beyond 64 pages a page lives only while it is held.
  std::vector<std::string> contents(65, lmGeneratedLines(3, "Summe 12,34 EUR", 8, 12));
  auto file = lmOpenPdfSource(lmGeneratedPdf(contents));
  ASSERT_TRUE(file);
  LMAttributedStringRef text;
  LMRect bounds;
  {
    auto page = file->pageAtIndex(64);
    ASSERT_TRUE(page);
    text = page->sharedAttributedString();
    bounds = page->boundsForRange(LMTextRange::make(6, 5));
  }
  auto again = file->pageAtIndex(64);
  ASSERT_TRUE(again);
  EXPECT_EQ(text.text.get(), &again->attributedString());  // kept, not read again
  EXPECT_EQ(3u, again->lines().size());
  EXPECT_FALSE(bounds.isNull());
  EXPECT_EQ(bounds, again->boundsForRange(LMTextRange::make(6, 5)));
  EXPECT_EQ(text.text->string, again->string());
}

TEST(PdfSourceTest, DocumentsAreReadOnSeveralThreadsAtOnce) {
  LMLogCapture log;  // broken_xref.pdf reports its repair
  std::vector<std::vector<uint8_t>> bytes;
  std::vector<std::u16string> expected;  // what one thread reads alone
  for (const char* name : {"pdf/multipage.pdf", "sample-receipt.pdf", "pdf/unicode.pdf",
                           "pdf/broken_xref.pdf", "pdf/rotated.pdf"}) {
    bytes.push_back(lmTestdataBytes(name));
    auto file = lmOpenPdfSource(bytes.back());
    ASSERT_TRUE(file);
    expected.push_back(file->string().value_or(u""));
  }
  constexpr int kThreads = 4;
  std::vector<int> mismatches(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 8; ++round) {
        const size_t i = static_cast<size_t>(t + round) % bytes.size();
        auto file = lmOpenPdfSource(bytes[i]);
        std::u16string text;
        for (int64_t p = 0; file && p < file->pageCount(); ++p) {
          auto page = file->pageAtIndex(p);
          text += (p > 0 ? u"\n" : u"") + page->attributedString().string;
          page->links();
        }
        if (!file || text != expected[i]) ++mismatches[t];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(0, mismatches[t]) << "thread " << t;
}

TEST(PdfSourceTest, ADamagedObjectIsParsedOnce) {
  // An array that is never closed runs to the end of the file: in the first
  // page, or in the font every page uses. MuPDF reads such an object as null
  // and reports it twice (the parse, the lookup); it would parse and report it
  // again at every later page, since each lookup of a page passes the first.
  const LMData pages = lmGeneratedPdf(std::vector(100, lmGeneratedLines(1, "Summe", 8, 12)));
  for (const auto& [from, to, withText] : {std::tuple{"842]", "842 ", 99},
                                           std::tuple{"/BaseFont/", "/BaseFont[", 100}}) {
    SCOPED_TRACE(to);
    LMLogCapture log;
    auto file = lmOpenPdfSource(lmDamaged(pages, from, to));
    ASSERT_TRUE(file);
    EXPECT_EQ(withText, lmOccurrences(lmUtf8(file->string().value_or(u"")), "Summe"));
    // Hundreds of MuPDF's messages or two: one log entry, when the file goes.
    file.reset();
    ASSERT_EQ(1u, log.lines().size());
    unsigned problems = 0;
    ASSERT_EQ(1, std::sscanf(log.lines()[0].c_str(), "MuPDF reported %u", &problems));
    EXPECT_LT(problems, 2 * 100u) << log.lines()[0];
  }
}

// --- Limits ------------------------------------------------------------------

TEST(PdfSourceTest, ADocumentBeyondABoundIsNotReadFurther) {
  LMLogCapture log;  // a stopped page is logged
  struct Case {
    const char* name;
    LMData pdf;
    LMAnalysisLimits limits;
    std::u16string message;  // empty: within the limits
  } cases[] = {
      {"pages", lmGeneratedPdf({lmGeneratedLines(1, "x")}, 5001), LMAnalysisLimits(),
       u"Document too large: more than 5000 pages"},
      {"short lines on a page", lmGeneratedPdf({lmGeneratedLines(210000, "a", 0.0005, 0.001)}),
       LMAnalysisLimits(), u"Document too large: more than 200000 characters on page 1"},
      {"characters on a page",
       lmGeneratedPdf({lmGeneratedLines(10, "x", 8, 12), lmGeneratedLines(40, "x", 8, 12)}),
       {.maxPageCharacters = 50}, u"Document too large: more than 50 characters on page 2"},
      {"characters just within", lmGeneratedPdf({lmGeneratedLines(25, "x", 8, 12)}),
       {.maxPageCharacters = 49}, u""},
      {"characters in the document",
       lmGeneratedPdf({lmGeneratedLines(30, "x", 8, 12), lmGeneratedLines(30, "x", 8, 12)}),
       {.maxDocumentCharacters = 100}, u"Document too large: more than 100 characters in the document"},
      {"the library's memory", lmGeneratedPdf({lmGeneratedLines(15000, "12,34 EUR")}),
       {.maxPdfLibraryBytes = 8u << 20}, u"Document too large: more than 8 MB of memory to read page 1"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LMPdfOpenOptions options;
    options.limits = c.limits;
    auto file = lmOpenPdfSource(c.pdf, options);
    ASSERT_TRUE(file);
    const auto text = file->string();
    EXPECT_EQ(c.message, file->limitExceeded().value_or(u""));
    if (c.message.empty() || file->pageCount() == 0) continue;
    // The page that went beyond the bound keeps nothing of what was read.
    auto last = file->pageAtIndex(file->pageCount() - 1);
    ASSERT_TRUE(last);
    EXPECT_TRUE(last->string().empty());
    EXPECT_TRUE(last->lines().empty());
  }
}

TEST(PdfSourceTest, ACancelledDocumentReadsNoMorePages) {
  auto cancellation = std::make_shared<LMCancellation>();
  LMPdfOpenOptions options;
  options.cancellation = cancellation;
  auto file = lmOpenPdfSource(
      lmGeneratedPdf({lmGeneratedLines(3, "Seite 1"), lmGeneratedLines(3, "Seite 2")}), options);
  ASSERT_TRUE(file);
  EXPECT_FALSE(file->pageAtIndex(0)->string().empty());
  cancellation->cancel(u"gone");
  EXPECT_TRUE(file->pageAtIndex(1)->string().empty());
  EXPECT_FALSE(file->limitExceeded());
}

}  // namespace
