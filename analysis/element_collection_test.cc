// Element collection and the whole parser on real fixtures and hand-made pages.
#include <gtest/gtest.h>

#include "analysis/receipt_parser.h"
#include "document/fake_pdf_source_test_util.h"
#include "document/receipt_document.h"

namespace {

LMReceiptParser analysed(std::shared_ptr<LMPDFDocument> pdf, bool ocr = false) {
  auto doc = std::make_shared<LMReceiptDocument>(std::move(pdf));
  doc->setOcr(ocr);
  LMReceiptParser parser;
  parser.setDoc(doc);
  parser.setDefaultCurrency(u"CHF");
  parser.setTaxes(LMArray{19, 7});
  parser.work();
  return parser;
}

std::shared_ptr<LMPDFDocument> sample() {
  std::ifstream in(std::string(LM_TESTDATA_DIR) + "/sample-receipt.pdf", std::ios::binary);
  const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                   std::istreambuf_iterator<char>());
  return LMPDFDocument::initWithData(bytes);
}

std::shared_ptr<LMPDFDocument> fakeDocument(const std::vector<std::u16string>& pageTexts) {
  auto file = std::make_shared<LMFakePdfSource>();
  std::u16string all;
  for (const auto& text : pageTexts) {
    file->pages_.push_back(LMFakePdfSourcePage::withLines({{text, {72, 700, 200, 12}}}));
    all += text;
  }
  file->string_ = all;
  return std::make_shared<LMPDFDocument>(file);
}

TEST(ElementCollectionTest, SampleReceiptEndToEnd) {
  LMReceiptParser parser = analysed(sample());
  const LMDictionary result = parser.result();
  EXPECT_EQ(u"15.3", result.at(u"gross").toString());
  EXPECT_EQ(u"15.3", result.at(u"net").toString());
  EXPECT_EQ(u"1", result.at(u"tax").toString());
  EXPECT_EQ(u"EUR", result.at(u"currency").toString());
  EXPECT_EQ(u"2026-11-14", parser.date()->descriptionDate());
  EXPECT_EQ(LMValue(true), result.at(u"letter"));
  EXPECT_EQ(LMValue(false), result.at(u"landscape"));

  // Every currency mention, "€" included, is filed as EUR.
  ASSERT_GE(result.at(u"currencies").len(), 6u);
  for (const LMValue& c : *result.at(u"currencies").asArray()) {
    EXPECT_EQ(u"EUR", c.objectAs<LMFoundElement>()->key().value_or(u""));
  }
  // The date recognizer's two dates; the detector is not asked for more.
  ASSERT_EQ(2u, parser.dates()->size());
  EXPECT_EQ(u"14.11.2026", parser.dates()->at(0)->dateString().value_or(u""));
  // No amount is cut out of a date's digits.
  for (const auto& n : *parser.numbers()) {
    EXPECT_NE(u"14.11", n->numberString().value_or(u""));
    EXPECT_FALSE(n->bold());  // even the bold total: no font weight is ever read
  }
  auto total = std::find_if(parser.numbers()->begin(), parser.numbers()->end(),
                            [](const auto& n) { return n->integerValue() == 1530; });
  ASSERT_NE(total, parser.numbers()->end());
  EXPECT_EQ(16, (*total)->fontSize());
  EXPECT_EQ(0, (*total)->page());
  EXPECT_EQ(u"Gesamtbetrag", (*total)->features()->at(u"term").toString());
  EXPECT_GT((*total)->bbox().x, 400);
  EXPECT_EQ(u"15,30", (*total)->string().value_or(u""));

  const LMArray& banks = *result.at(u"banks").asArray();
  ASSERT_EQ(1u, banks.size());
  EXPECT_EQ(u"DE89370400440532013000", banks[0].at(u"iban").toString());
  EXPECT_EQ(LMValue(LMArray{u"www.baeckerei-morgenrot.example"}), result.at(u"links"));
  ASSERT_EQ(1u, result.at(u"addresses").len());
  EXPECT_NE(std::u16string::npos, parser.address()->find(u"10115"));
  EXPECT_NE(std::u16string::npos, result.at(u"text").toString().find(u"Gesamtbetrag"));
  EXPECT_TRUE(result.at(u"terms").len() > 0);
  EXPECT_TRUE(result.at(u"taxTerms").len() > 0);
}

TEST(ElementCollectionTest, LinkAnnotationsKeepOnlyWebLinks) {
  LMReceiptParser parser = analysed(lmOpenFixture("links.pdf"));
  EXPECT_EQ(LMValue(LMArray{u"https://example.com/receipt"}), parser.result().at(u"links"));
}

TEST(ElementCollectionTest, LastPageWithTextDecidesTheCurrency) {
  LMReceiptParser parser = analysed(fakeDocument({u"Summe 12,50 EUR", u"Danke"}));
  // Page 2 names no currency, so the collection leaves none and the gross's
  // own nearest mention (on page 1, no box) decides.
  EXPECT_EQ(u"12.5", parser.result().at(u"gross").toString());
  LMReceiptParser none = analysed(fakeDocument({u"Danke", u"Bis bald"}));
  EXPECT_EQ(u"CHF", none.currency().toString());
}

TEST(ElementCollectionTest, DateOverlapIgnoresThePage) {
  // "12,50" on page 2 stands at the character positions of the date on
  // page 1, so it is not collected; the same amount elsewhere is.
  LMReceiptParser parser = analysed(fakeDocument({u"Datum 24.12.2023", u"Summe 12,50 EUR 9,99"}));
  ASSERT_EQ(1u, parser.dates()->size());
  std::vector<int64_t> amounts;
  for (const auto& n : *parser.numbers()) amounts.push_back(n->integerValue());
  EXPECT_EQ(std::vector<int64_t>{999}, amounts);
}

TEST(ElementCollectionTest, DetectorDatesOnlyWhenTheRecognizerFoundNone) {
  LMReceiptParser fallback = analysed(fakeDocument({u"Invoice date: March 3rd, 2021"}));
  ASSERT_EQ(1u, fallback.dates()->size());
  EXPECT_EQ(u"2021-03-03", fallback.date()->descriptionDate());
  LMReceiptParser both = analysed(fakeDocument({u"Datum 24.12.2023", u"March 3rd, 2021"}));
  ASSERT_EQ(1u, both.dates()->size());
  EXPECT_EQ(u"2023-12-24", both.date()->descriptionDate());
}

TEST(ElementCollectionTest, OcrDocumentsFoldSeparatorsForDatesOnly) {
  // OCR text often reads the date's points as commas: folded for the date
  // search, the amount search sees the text as it stands.
  const std::vector<std::u16string> page{u"Datum 24,12,2023 Summe 12,50"};
  LMReceiptParser ocr = analysed(fakeDocument(page), true);
  EXPECT_TRUE(ocr.result().at(u"ocr").toBool());
  ASSERT_EQ(1u, ocr.dates()->size());
  EXPECT_EQ(u"2023-12-24", ocr.date()->descriptionDate());
  ASSERT_EQ(1u, ocr.numbers()->size());
  EXPECT_EQ(1250, ocr.numbers()->at(0)->integerValue());
  EXPECT_TRUE(ocr.numbers()->at(0)->isOcr());
  LMReceiptParser plain = analysed(fakeDocument(page), false);
  EXPECT_TRUE(plain.dates()->empty());
}

TEST(ElementCollectionTest, DocumentWithoutTextRunsNoStage) {
  LMReceiptParser parser = analysed(lmOpenFixture("no_text.pdf"));
  const LMDictionary result = parser.result();
  EXPECT_TRUE(result.at(u"numbers").isNull());
  EXPECT_TRUE(result.at(u"text").isNull());
  EXPECT_TRUE(result.at(u"currency").isNull());
}

}  // namespace
