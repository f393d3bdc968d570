#include "recognizers/term_recognizer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kit/unicode.h"
#include "recognizers/regex.h"

namespace {

// "key/lang" of each finding, in order.
std::vector<std::u16string> labels(const std::vector<LMDictionary>& found) {
  std::vector<std::u16string> out;
  for (const LMDictionary& finding : found) {
    out.push_back(finding.at(u"key").toString() + u"/" + finding.at(u"lang").toString());
  }
  return out;
}

using Labels = std::vector<std::u16string>;

TEST(TermRecognizerTest, FindsGrossTermsStandingFree) {
  struct Case {
    std::u16string text;
    Labels labels;
  } cases[] = {
      {u"Gesamtbetrag: 12,50", {u"gesamtbetrag/de"}},  // not "betrag" inside it
      {u"ZU ZAHLENDER\nBETRAG", {u"zu zahlender betrag/de", u"betrag/de"}},
      {u"zu  zahlender\t\r\n betrag", {u"zu zahlender betrag/de", u"betrag/de"}},
      {u"zuzahlender Betrag", {u"betrag/de"}},
      {u"Summe 3,00 Zwischensumme 2,00", {u"summe/de"}},
      {u"Total", {u"total/de", u"total/en"}},
      {u"Grand Total", {u"total/de", u"grand total/en", u"total/en"}},
      {u"Grand\nTotal", {u"total/de", u"grand total/en", u"total/en"}},
      {u"GESAMTBRUTTO", {u"gesamtbrutto/de"}},
      {u"Brutto: 5", {u"brutto/de"}},
      {u"Total:12 2Total", {u"total/de", u"total/de", u"total/en", u"total/en"}},
      {u"Totals Subtotal", {}},
      {u"State tax", {u"state tax/en"}},
      {u"State taxes", {u"state taxes/en"}},
      // Terms weighted 0 or below have no entry.
      {u"Bar Gegeben Guthaben R\u00FCckgeld Zur\u00FCck Zwischensumme", {}},
      {u"", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.text));
    EXPECT_EQ(c.labels, labels(LMReceiptParserTerm().findInText(c.text, false)));
  }
}

TEST(TermRecognizerTest, FindsTaxTerms) {
  struct Case {
    std::u16string text;
    Labels labels;
  } cases[] = {
      {u"MwSt. 19%", {u"mwst/de"}},
      {u"zzgl. 19% USt", {u"ust/de"}},
      {u"USt-IdNr DE123", {u"ust/de"}},  // "-" is no letter
      {u"Umsatzsteuer", {u"umsatzsteuer/de"}},  // not "steuer" inside it
      {u"Steuer", {u"steuer/de"}},
      {u"VAT 20% Tax Taxes", {u"vat/en", u"tax/en", u"taxes/en"}},
      {u"Versand Rabatt Verpackung", {}},
      {u"Mwst MWST mwst", {u"mwst/de", u"mwst/de", u"mwst/de"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.text));
    EXPECT_EQ(c.labels, labels(LMReceiptParserTerm().findTaxTermsInText(c.text, true)));
  }
}

TEST(TermRecognizerTest, FindingsCarryLanguageWeightAndType) {
  const auto gross = LMReceiptParserTerm().findInText(u"Total", false);
  ASSERT_EQ(2u, gross.size());
  const LMDictionary de{{u"lang", u"de"}, {u"key", u"total"}, {u"weight", 1.0},
                        {u"type", u"gross"}};
  // Weights are single precision: 0.8 is stored as the float's value.
  const LMDictionary en{{u"lang", u"en"}, {u"key", u"total"},
                        {u"weight", static_cast<double>(0.8f)}, {u"type", u"gross"}};
  EXPECT_EQ(de, gross[0]);
  EXPECT_EQ(en, gross[1]);
}

TEST(TermRecognizerTest, GroupsFindingsByEntryNotByPosition) {
  const std::u16string text = u"Summe 5\nTotal 6\nSumme 7";
  std::vector<uint64_t> locations;
  std::vector<LMDictionary> seen;
  const auto found = LMReceiptParserTerm().findInText(
      text, false, [&](std::u16string_view, LMTextRange range, const LMDictionary& finding) {
        locations.push_back(range.location);
        seen.push_back(finding);
      });
  EXPECT_EQ((Labels{u"summe/de", u"summe/de", u"total/de", u"total/en"}), labels(found));
  EXPECT_EQ((std::vector<uint64_t>{0, 16, 8, 8}), locations);
  EXPECT_EQ(found, seen);
}

// A broken pattern would only log: every term of both tables must compile.
TEST(TermRecognizerTest, EveryTableEntryCompiles) {
  for (const auto* entries : {&LMReceiptParserTerm::grossEntries(),
                              &LMReceiptParserTerm::taxEntries()}) {
    for (const LMTermEntry& entry : *entries) {
      SCOPED_TRACE(lmUtf8(entry.key));
      ASSERT_NE(nullptr, entry.rx);
      EXPECT_NE(nullptr, entry.rx->compiled());
    }
  }
}

}  // namespace
