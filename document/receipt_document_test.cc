#include "document/receipt_document.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "document/fake_pdf_source_test_util.h"
#include "kit/unicode.h"

namespace {

// A document of two pages: page 0 with text, page 1 without.
std::shared_ptr<LMFakePdfSource> twoPageFile() {
  auto withText = LMFakePdfSourcePage::withLines({{u"Summe 14,30", {72, 700, 80, 12}}});
  withText->bounds_[{6, 5}] = LMRect{120, 700, 32, 12};
  auto file = std::make_shared<LMFakePdfSource>();
  file->pages_ = {withText, LMFakePdfSourcePage::withLines({})};
  return file;
}

TEST(ReceiptDocumentTest, PageTextsAreCachedWithTheNullMarker) {
  auto file = twoPageFile();
  LMReceiptDocument document(std::make_shared<LMPDFDocument>(file));
  // A page without text: nil on the first call, the null marker afterwards.
  EXPECT_TRUE(document.stringForPage(1).isNil());
  EXPECT_TRUE(document.stringForPage(1).isNull());
  EXPECT_TRUE(document.stringForPage(1).isNull());
  for (int call = 0; call < 2; ++call) {
    EXPECT_EQ(LMValue(u"Summe 14,30"), document.stringForPage(0));
  }
  EXPECT_EQ(2, file->pageRequests_);  // each page once
  // An invalid index is never cached: nil on every call.
  for (int64_t index : {2, 2, -1}) {
    SCOPED_TRACE(index);
    EXPECT_TRUE(document.stringForPage(index).isNil());
  }
}

TEST(ReceiptDocumentTest, BoundsComeFromTheAskedPageAndNullForAnInvalidOne) {
  const LMReceiptDocument document(std::make_shared<LMPDFDocument>(twoPageFile()));
  struct Case {
    const char* name;
    LMTextRange range;
    int64_t page;
    LMRect expected;
  } cases[] = {
      {"selected characters", {6, 5}, 0, {120, 700, 32, 12}},
      {"page beyond the last", {0, 1}, 2, LMRect::null()},
      {"negative page", {0, 1}, -1, LMRect::null()},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(lmUtf8(lmStringFromRect(c.expected)),
              lmUtf8(lmStringFromRect(document.boundsForTextRange(c.range, c.page))));
  }
}

TEST(ReceiptDocumentTest, MissingTextIsFetchedAgainOnEachRead) {
  auto file = twoPageFile();
  LMReceiptDocument document(std::make_shared<LMPDFDocument>(file));
  for (int read = 1; read <= 3; ++read) {
    EXPECT_EQ(std::nullopt, document.text());
    EXPECT_EQ(read, file->stringRequests_);
  }
  file->string_ = u"Summe 14,30";
  EXPECT_EQ(u"Summe 14,30", document.text());
  file->string_ = u"changed";
  EXPECT_EQ(u"Summe 14,30", document.text());
  EXPECT_EQ(4, file->stringRequests_);
}

TEST(ReceiptDocumentTest, NullDocumentLogsAndHasNoPages) {
  LMLogCapture capture;
  LMReceiptDocument document(nullptr);
  ASSERT_EQ(1u, capture.lines().size());
  EXPECT_THAT(capture.lines()[0], testing::HasSubstr("(pdfDoc) failed assertion"));
  EXPECT_EQ(0, document.pageCount());
  EXPECT_EQ(std::nullopt, document.text());
  EXPECT_TRUE(document.stringForPage(0).isNil());
  EXPECT_TRUE(document.boundsForTextRange({0, 0}, 0).isNull());
}

}  // namespace
