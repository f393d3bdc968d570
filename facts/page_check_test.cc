#include "facts/page_check.h"

#include <gtest/gtest.h>

#include "document/fake_pdf_source_test_util.h"
#include "document/receipt_document.h"
#include "kit/unicode.h"

namespace {

LMReceiptParser analysed(const std::u16string& text) {
  auto file = std::make_shared<LMFakePdfSource>();
  file->pages_.push_back(LMFakePdfSourcePage::withLines({{text, {72, 700, 300, 12}}}));
  file->string_ = text;
  LMReceiptParser parser;
  parser.setDoc(std::make_shared<LMReceiptDocument>(std::make_shared<LMPDFDocument>(file)));
  parser.work();
  return parser;
}

LMDecimal money(const char* text) { return *LMDecimal::fromString(std::string_view(text)); }

}  // namespace

TEST(PageCheckTest, FindsAmountsInTheirPrintedForms) {
  const LMReceiptParser parser =
      analysed(u"Korrektur -8,79 EUR Summe 1.021,91 Total 1,234.50 Rest 2\u202F500,00 "
               u"Pauschale 40,- Menge 12345");
  struct Case {
    const char* amount;
    bool shown;
  } cases[] = {{"-8.79", true},   {"8.79", true},    {"1021.91", true}, {"1234.5", true},
               {"2500", true},    {"40", true},      {"21.91", false},  {"1.02", false},
               {"12345", false},  {"123.45", false}, {"879", false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.amount);
    EXPECT_EQ(c.shown, lmPageShowsAmount(parser, money(c.amount)));
  }
}

TEST(PageCheckTest, FindsDaysInEitherOrderAndCurrencyMentions) {
  const LMReceiptParser parser = analysed(u"Date 05/11/2017 Lieferung 3.2.24 Betrag 10,00 EUR");
  struct Case {
    const char16_t* day;
    bool shown;
  } cases[] = {{u"2017-11-05", true}, {u"2017-05-11", true}, {u"2024-02-03", true},
               {u"2024-03-02", true}, {u"2017-11-06", false}, {u"2011-05-17", false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.day));
    EXPECT_EQ(c.shown, lmPageShowsDay(parser, c.day));
  }
  EXPECT_EQ(std::optional<bool>(true), lmPageShowsCurrency(parser, u"EUR"));
  EXPECT_EQ(std::optional<bool>(false), lmPageShowsCurrency(parser, u"GBP"));
  EXPECT_EQ(std::nullopt, lmPageShowsCurrency(analysed(u"Betrag 10,00"), u"GBP"));
}
