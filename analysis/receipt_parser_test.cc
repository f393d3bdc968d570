#include "analysis/receipt_parser.h"

#include <gtest/gtest.h>

#include "analysis/tax_analysis.h"
#include "document/fake_pdf_source_test_util.h"
#include "document/receipt_document.h"

namespace {

std::unique_ptr<LMReceiptParser> analysed(std::shared_ptr<LMPDFDocument> pdf, LMValue taxes) {
  auto parser = std::make_unique<LMReceiptParser>();
  parser->setDoc(std::make_shared<LMReceiptDocument>(std::move(pdf)));
  parser->setDefaultCurrency(u"CHF");
  parser->setTaxes(std::move(taxes));
  const bool complete = parser->work();
  EXPECT_EQ(parser->stopReason().empty(), complete);
  return parser;
}

std::shared_ptr<LMPDFDocument> sample() {
  return LMPDFDocument::initWithData(lmTestdataBytes("sample-receipt.pdf"));
}

// The gross, tax, currency, date and banks of the sample are checked end to
// end by tools/lmreceipt_analyze_test.py.
TEST(ReceiptParserTest, SampleReceiptElements) {
  const auto parser = analysed(sample(), LMArray{19, 7});
  EXPECT_EQ(LMValue(true), parser->result().at(u"letter"));
  // Every currency mention, "€" included, is filed as EUR.
  ASSERT_GE(parser->currencyFindings()->size(), 6u);
  for (const auto& c : *parser->currencyFindings()) EXPECT_EQ(u"EUR", c->key().value_or(u""));
  // The date recognizer's two dates; no amount is cut out of their digits.
  ASSERT_EQ(2u, parser->dates()->size());
  EXPECT_EQ(u"14.11.2026", parser->dates()->at(0)->dateString().value_or(u""));
  for (const auto& n : *parser->numbers()) EXPECT_NE(u"14.11", n->numberString().value_or(u""));
  EXPECT_EQ(std::vector<std::u16string>{u"www.baeckerei-morgenrot.example"}, *parser->links());
  EXPECT_NE(std::u16string::npos, parser->address()->find(u"10115"));
}

TEST(ReceiptParserTest, TaxesOfTheWrongKindStopTheAnalysisAtTheTaxStage) {
  const auto refused = analysed(sample(), u"19");
  EXPECT_EQ(kLMTaxesRefused, refused->stopReason());
  EXPECT_TRUE(refused->gross());  // the gross stage ran before
  // A document without text reaches no stage, so its rates are never read.
  const auto noText = analysed(lmOpenFixture("no_text.pdf"), u"19");
  EXPECT_TRUE(noText->stopReason().empty());
  const LMDictionary result = noText->result();
  for (const char16_t* key : {u"numbers", u"text", u"currency", u"gross"}) {
    EXPECT_TRUE(result.at(key).isNull()) << testing::PrintToString(std::u16string(key));
  }
}

}  // namespace
