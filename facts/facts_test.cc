#include <gtest/gtest.h>

#include "facts/facts.h"
#include "facts/facts_builder.h"
#include "facts/facts_format.h"
#include "facts/facts_request.h"
#include "kit/unicode.h"

TEST(FactsRequestTest, ReadsFactsAndSource) {
  struct Case {
    LMDictionary task;
    bool ok;
    bool wanted;
    LMFactsSource source;
  } cases[] = {
      {{}, true, false, LMFactsSource::kBest},
      {{{u"facts", LMValue::null()}}, true, false, LMFactsSource::kBest},
      {{{u"facts", true}}, true, true, LMFactsSource::kBest},
      {{{u"facts", 2}}, true, true, LMFactsSource::kBest},
      {{{u"facts", 0}}, true, false, LMFactsSource::kBest},
      {{{u"facts", u"yes"}}, true, false, LMFactsSource::kBest},
      {{{u"facts", true}, {u"factsFrom", u"text"}}, true, true, LMFactsSource::kText},
      {{{u"facts", true}, {u"factsFrom", u"e-invoice"}}, true, true, LMFactsSource::kEInvoice},
      {{{u"facts", true}, {u"factsFrom", u"pdf"}}, false, true, LMFactsSource::kBest},
      {{{u"facts", true}, {u"factsFrom", 3}}, false, true, LMFactsSource::kBest},
      // Without facts the task stays a standard one.
      {{{u"factsFrom", u"pdf"}}, true, false, LMFactsSource::kBest},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(LMValue(c.task).description()));
    std::u16string error;
    auto request = lmFactsRequest(c.task, &error);
    ASSERT_EQ(c.ok, request.has_value());
    if (!request) {
      EXPECT_NE(std::u16string::npos, error.find(u"factsFrom"));
      continue;
    }
    EXPECT_EQ(c.wanted, request->wanted);
    EXPECT_EQ(c.source, request->source);
  }
}

TEST(FactsFormatTest, MoneyKeepsTheMinorUnitAndMorePlaces) {
  struct Case {
    const char* value;
    const char16_t* currency;
    const char16_t* text;
  } cases[] = {{"84.6", u"EUR", u"84.60"},    {"0.125", u"EUR", u"0.125"},
               {"120", u"JPY", u"120"},       {"120.50", u"JPY", u"120.5"},
               {"-529.870", u"EUR", u"-529.87"}, {"1.5", u"KWD", u"1.500"},
               {"7", u"XYZ", u"7.00"},        {"0", u"EUR", u"0.00"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value);
    EXPECT_EQ(c.text, lmMoneyText(*LMDecimal::fromString(std::string_view(c.value)),
                                  lmCurrencyMinorUnit(c.currency)));
  }
}

TEST(FactsFormatTest, SummaryMarksDoubtConflictsAndFailedChecks) {
  LMFacts facts;
  facts.source = u"e-invoice";
  facts.currency = u"EUR";
  facts.gross = *LMDecimal::fromString(std::string_view("529.87"));
  facts.tax = *LMDecimal::fromString(std::string_view("84.6"));
  facts.issueDate = u"2018-10-31";
  facts.evidence.set(u"gross", LMDictionary{{u"score", 1.0}});
  facts.evidence.set(u"tax", LMDictionary{{u"score", 0.3}});
  facts.checks.push_back({u"gross-total", true, u""});
  facts.checks.push_back({u"tax-total", false, u"84.60 != 80.00"});
  facts.conflicts.emplace_back(LMDictionary{
      {u"field", u"gross"}, {u"eInvoice", *facts.gross}, {u"text", LMValue::null()}});
  EXPECT_EQ(
      "a.pdf: gross 529.87 net - tax 84.60? EUR date 2018-10-31 (e-invoice)"
      "; ! gross: e-invoice 529.87 not on the page; ! check tax-total failed",
      lmFactsSummary("a.pdf", lmFactsDictionary(facts)));
}

TEST(FactsBuilderTest, XMLThatIsNoEInvoiceSaysWhyAndHasNoValues) {
  const std::string xml = "<?xml version=\"1.0\"?><note>hello</note>";
  const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(xml.data()), xml.size());
  EXPECT_TRUE(lmLooksLikeXML(bytes));
  for (LMFactsSource source : {LMFactsSource::kBest, LMFactsSource::kText, LMFactsSource::kEInvoice}) {
    SCOPED_TRACE(lmUtf8(lmFactsSourceName(source)));
    const LMFacts facts = lmFactsFromXML({true, source}, bytes);
    EXPECT_FALSE(facts.gross);
    EXPECT_FALSE(facts.source);
    EXPECT_TRUE(facts.failed(u"page-text"));
    EXPECT_EQ(source != LMFactsSource::kText, facts.failed(u"einvoice-used"));
  }
}
