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

TEST(TermRecognizerTest, FindsGrossAndTaxTermsStandingFree) {
  struct Case {
    bool tax;
    std::u16string text;
    Labels labels;
  } cases[] = {
      {false, u"Gesamtbetrag: 12,50", {u"gesamtbetrag/de"}},  // not "betrag" inside it
      {false, u"ZU ZAHLENDER\nBETRAG", {u"zu zahlender betrag/de", u"betrag/de"}},
      {false, u"zu  zahlender\t\r\n betrag", {u"zu zahlender betrag/de", u"betrag/de"}},
      {false, u"zuzahlender Betrag", {u"betrag/de"}},
      {false, u"Summe 3,00 Zwischensumme 2,00", {u"summe/de"}},
      {false, u"Total", {u"total/de", u"total/en"}},
      {false, u"Grand Total", {u"total/de", u"grand total/en", u"total/en"}},
      {false, u"Grand\nTotal", {u"total/de", u"grand total/en", u"total/en"}},
      {false, u"GESAMTBRUTTO", {u"gesamtbrutto/de"}},
      // A letter whose case folding, not its lower case, is the term's: long s.
      {false, u"\u017Fumme 3,00 \u017FUMME", {u"summe/de", u"summe/de"}},
      {false, u"Brutto: 5", {u"brutto/de"}},
      {false, u"Total:12 2Total", {u"total/de", u"total/de", u"total/en", u"total/en"}},
      {false, u"Totals Subtotal", {}},
      {false, u"State tax", {u"state tax/en"}},
      {false, u"State taxes", {u"state taxes/en"}},
      // Terms weighted 0 or below have no entry.
      {false, u"Bar Gegeben Guthaben R\u00FCckgeld Zur\u00FCck Zwischensumme", {}},
      {false, u"", {}},
      {true, u"MwSt. 19%", {u"mwst/de"}},
      {true, u"zzgl. 19% USt", {u"ust/de"}},
      {true, u"USt-IdNr DE123", {u"ust/de"}},  // "-" is no letter
      {true, u"Umsatzsteuer", {u"umsatzsteuer/de"}},  // not "steuer" inside it
      {true, u"Steuer", {u"steuer/de"}},
      {true, u"VAT 20% Tax Taxes", {u"vat/en", u"tax/en", u"taxes/en"}},
      {true, u"Versand Rabatt Verpackung", {}},
      {true, u"Mwst MWST mwst", {u"mwst/de", u"mwst/de", u"mwst/de"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.text));
    const LMReceiptParserTerm terms;
    EXPECT_EQ(c.labels, labels(c.tax ? terms.findTaxTermsInText(c.text, true)
                                     : terms.findInText(c.text, false)));
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
      ASSERT_NE(nullptr, entry.regex());
      EXPECT_NE(nullptr, entry.regex()->compiled());
    }
  }
}

}  // namespace
