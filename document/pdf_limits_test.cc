#include <gtest/gtest.h>

#include "document/generated_pdf_test_util.h"
#include "document/pdf_source.h"
#include "kit/diagnostics.h"
#include "kit/test_support.h"

namespace {

LMAnalysisLimits limitsWith(void (*change)(LMAnalysisLimits&)) {
  LMAnalysisLimits limits;
  if (change) change(limits);
  return limits;
}

TEST(PdfLimitsTest, ADocumentBeyondABoundIsNotReadFurther) {
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
      {"characters on a page", lmGeneratedPdf({lmGeneratedLines(10, "x", 8, 12), lmGeneratedLines(40, "x", 8, 12)}),
       limitsWith([](LMAnalysisLimits& l) { l.maxPageCharacters = 50; }),
       u"Document too large: more than 50 characters on page 2"},
      {"characters just within", lmGeneratedPdf({lmGeneratedLines(25, "x", 8, 12)}),
       limitsWith([](LMAnalysisLimits& l) { l.maxPageCharacters = 49; }), u""},
      {"characters in the document",
       lmGeneratedPdf({lmGeneratedLines(30, "x", 8, 12), lmGeneratedLines(30, "x", 8, 12)}),
       limitsWith([](LMAnalysisLimits& l) { l.maxDocumentCharacters = 100; }),
       u"Document too large: more than 100 characters in the document"},
      {"the library's memory", lmGeneratedPdf({lmGeneratedLines(15000, "12,34 EUR")}),
       limitsWith([](LMAnalysisLimits& l) { l.maxPdfLibraryBytes = 8u << 20; }),
       u"Document too large: more than 8 MB of memory to read page 1"},
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

TEST(PdfLimitsTest, ACancelledDocumentReadsNoMorePages) {
  auto cancellation = std::make_shared<LMCancellation>();
  LMPdfOpenOptions options;
  options.cancellation = cancellation;
  auto file = lmOpenPdfSource(lmGeneratedPdf({lmGeneratedLines(3, "Seite 1"),
                                            lmGeneratedLines(3, "Seite 2")}),
                            options);
  ASSERT_TRUE(file);
  EXPECT_FALSE(file->pageAtIndex(0)->string().empty());
  cancellation->cancel(u"gone");
  EXPECT_TRUE(file->pageAtIndex(1)->string().empty());
  EXPECT_FALSE(file->limitExceeded());
}

}  // namespace
