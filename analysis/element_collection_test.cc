#include "analysis/element_collection.h"

#include <gtest/gtest.h>

#include "document/fake_pdf_source_test_util.h"
#include "document/receipt_document.h"

namespace {

LMCollectedElements collected(std::shared_ptr<LMPDFDocument> pdf, bool ocr = false,
                               const LMAnalysisLimits& limits = LMAnalysisLimits()) {
  LMReceiptDocument doc(std::move(pdf));
  return lmCollectElements(doc, ocr, limits, nullptr);
}

std::shared_ptr<LMPDFDocument> fakeDocument(const std::vector<std::u16string>& pageTexts) {
  auto file = std::make_shared<LMFakePdfSource>();
  file->string_ = std::u16string();
  for (const auto& text : pageTexts) {
    file->pages_.push_back(LMFakePdfSourcePage::withLines({{text, {72, 700, 200, 12}}}));
    *file->string_ += text;
  }
  return std::make_shared<LMPDFDocument>(file);
}

std::vector<int64_t> amounts(const LMCollectedElements& c) {
  std::vector<int64_t> out;
  for (const auto& n : c.numbers) out.push_back(n->integerValue());
  return out;
}

TEST(ElementCollectionTest, LinkAnnotationsKeepOnlyWebLinks) {
  EXPECT_EQ(std::vector<std::u16string>{u"https://example.com/receipt"},
            collected(lmOpenFixture("links.pdf")).links);
}

TEST(ElementCollectionTest, TheLastPageWithTextDecidesTheCurrency) {
  EXPECT_TRUE(collected(fakeDocument({u"Summe 12,50 EUR", u"Danke"})).currency.isNil());
  EXPECT_EQ(u"EUR", collected(fakeDocument({u"Danke", u"Summe 12,50 EUR"})).currency.toString());
}

TEST(ElementCollectionTest, DateOverlapIgnoresThePage) {
  // "12,50" on page 2 stands at the character positions of the date on
  // page 1, so it is not collected; the amount elsewhere is.
  const LMCollectedElements c = collected(fakeDocument({u"Datum 24.12.2023", u"Summe 12,50 EUR 9,99"}));
  ASSERT_EQ(1u, c.dates.size());
  EXPECT_EQ(std::vector<int64_t>{999}, amounts(c));
}

TEST(ElementCollectionTest, DetectorDatesOnlyWhenTheRecognizerFoundNone) {
  const auto day = [](const LMCollectedElements& c) {
    return c.dates.size() == 1 ? c.dates[0]->date()->descriptionDate() : std::u16string(u"not one date");
  };
  EXPECT_EQ(u"2021-03-03", day(collected(fakeDocument({u"Invoice date: March 3rd, 2021"}))));
  EXPECT_EQ(u"2023-12-24", day(collected(fakeDocument({u"Datum 24.12.2023", u"March 3rd, 2021"}))));
}

TEST(ElementCollectionTest, CrossingAnElementBoundStopsTheCollection) {
  // Three amounts per page; the bound is crossed on the last page too.
  const std::u16string page = u"1,00 2,00 3,00";
  struct Case {
    int64_t perPage, perDocument;
    std::vector<std::u16string> pages;
    std::u16string stopReason;
  } cases[] = {
      {2, 100, {page}, u"Document too large: more than 2 found elements on page 1"},
      {2, 100, {u"Danke", page}, u"Document too large: more than 2 found elements on page 2"},
      {3, 5, {page, page}, u"Document too large: more than 5 found elements in the document"},
      {3, 6, {page, page}, u""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.perPage);
    const LMAnalysisLimits limits{.maxPageElements = c.perPage, .maxDocumentElements = c.perDocument};
    EXPECT_EQ(c.stopReason, collected(fakeDocument(c.pages), false, limits).stopReason);
  }
}

TEST(ElementCollectionTest, OcrDocumentsFoldSeparatorsForDatesOnly) {
  // OCR text often reads the date's points as commas: folded for the date
  // search, the amount search sees the text as it stands.
  const auto page = [] { return fakeDocument({u"Datum 24,12,2023 Summe 12,50"}); };
  const LMCollectedElements ocr = collected(page(), true);
  ASSERT_EQ(1u, ocr.dates.size());
  EXPECT_EQ(u"2023-12-24", ocr.dates[0]->date()->descriptionDate());
  EXPECT_EQ(std::vector<int64_t>{1250}, amounts(ocr));
  EXPECT_TRUE(ocr.numbers[0]->isOcr());
  EXPECT_TRUE(collected(page(), false).dates.empty());
}

}  // namespace
