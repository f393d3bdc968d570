// Text facts on small hand-made pages: one per rule (the labels of each
// language are on the generated pages of text_languages_test.cc; a till
// receipt and a credit note printed negative are among the corpus files of
// the FactsTextGolden test).
#include <gtest/gtest.h>

#include <set>

#include "facts/labels.h"
#include "facts/text_facts.h"
#include "facts/text_facts_test_util.h"
#include "kit/unicode.h"

namespace {

using lmtest::analyse;
using lmtest::Row;

std::string text(const std::optional<LMDecimal>& d) { return d ? d->stringValue() : "-"; }
std::string text(const std::optional<std::u16string>& s) { return s ? lmUtf8(*s) : "-"; }

struct Case {
  const char* name;
  std::vector<Row> rows;
  const char* gross;
  const char* net;
  const char* tax;
  const char* currency;
  const char* date;
  const char* kind = "invoice";
  const char* currencyRule = nullptr;  // checked when given
};

void expectFacts(const Case& c) {
  SCOPED_TRACE(c.name);
  const auto parsed = analyse(c.rows);
  const LMFacts& f = parsed->facts;
  EXPECT_EQ(c.gross, text(f.gross));
  EXPECT_EQ(c.net, text(f.net));
  EXPECT_EQ(c.tax, text(f.tax));
  EXPECT_EQ(c.currency, text(f.currency));
  EXPECT_EQ(c.date, text(f.issueDate));
  EXPECT_EQ(c.kind, lmUtf8(f.kind));
  if (c.currencyRule) {
    EXPECT_EQ(lmUtf16(c.currencyRule), f.evidence.at(u"currency").at(u"rule").toString());
  }
}

TEST(TextFactsTest, GeometryAndArithmetic) {
  const Case cases[] = {
      // Labels over their values; the lines' subtotals are no net.
      {"below in the column",
       {{u"Invoice Date:", 350, 500}, {u"15/02/2020", 350, 488}, {u"Auckland, New Zealand", 60, 700},
        {u"Subtotal $ 40.00", 60, 460}, {u"Subtotal", 350, 440}, {u"$ 90.00", 350, 428},
        {u"GST 15%", 350, 410}, {u"$ 13.50", 350, 398}, {u"Total", 350, 380}, {u"$ 103.50", 350, 368}},
       "103.5", "90", "13.5", "NZD", "2020-02-15"},
      // A summary table: the heads over their values.
      {"heads over values",
       {{u"Data documento 07/03/2024", 300, 740}, {u"Imponibile", 250, 400}, {u"IVA 22%", 350, 400},
        {u"Totale documento", 430, 400}, {u"1.000,00", 250, 386}, {u"220,00", 350, 386},
        {u"1.220,00 EUR", 430, 386}},
       "1220", "1000", "220", "EUR", "2024-03-07"},
      // A "Total" column of line amounts; a balance paid off is no total.
      {"line totals and a paid balance",
       {{u"Date: 2024-04-02", 300, 740}, {u"Item        Qty   Price    Total", 60, 500},
        {u"Widget        2   40.00    80.00", 60, 485}, {u"Gadget        1   20.00    20.00", 60, 470},
        {u"Subtotal                  100.00", 60, 440}, {u"VAT 20%                    20.00", 60, 425},
        {u"Total                     120.00", 60, 410}, {u"Paid                      120.00", 60, 395},
        {u"Balance due                 0.00", 60, 380}},
       "120", "100", "20", "-", "2024-04-02"},
      // Two rates: the per-rate amounts add up to net and tax.
      {"two rates",
       {{u"Datum: 02.02.2024", 300, 740}, {u"netto 19%  100,00  MwSt  19,00", 250, 400},
        {u"netto 7%    50,00  MwSt   3,50", 250, 385}, {u"Endsumme        172,50 €", 250, 370}},
       "172.5", "150", "22.5", "EUR", "2024-02-02"},
      // The per-rate taxes stand unlabelled beside their bases.
      {"rate split without tax labels",
       {{u"Datum: 02.02.2024", 300, 740}, {u"Netto 7%   100,00", 250, 400}, {u"7,00", 450, 400},
        {u"Netto 19%   50,00", 250, 385}, {u"9,50", 450, 385}, {u"Gesamtbetrag 166,50", 250, 370}},
       "166.5", "150", "16.5", "-", "2024-02-02"},
      // A tax table: the rows' rates, bases and taxes add up; no label ties them.
      {"tax table by rate",
       {{u"Date : 05/04/2024", 300, 740}, {u"Taux", 250, 420}, {u"Base HT", 320, 420}, {u"TVA", 400, 420},
        {u"TTC", 460, 420}, {u"20,00 %", 250, 406}, {u"500,00", 320, 406}, {u"100,00", 400, 406},
        {u"600,00", 460, 406}, {u"5,50 %", 250, 392}, {u"100,00", 320, 392}, {u"5,50", 400, 392},
        {u"105,50", 460, 392}, {u"Net à payer  705,50 €", 300, 360}},
       "705.5", "600", "105.5", "EUR", "2024-04-05"},
      {"a rate column whose head carries the sign",
       {{u"Date : 05/04/2024", 300, 740}, {u"TVA FR 40 123456789", 60, 700}, {u"Taux %", 250, 420},
        {u"Base HT", 320, 420}, {u"Montant TVA", 400, 420}, {u"20,00", 250, 406}, {u"500,00", 320, 406},
        {u"100,00", 400, 406}, {u"10,00", 250, 392}, {u"100,00", 320, 392}, {u"10,00", 400, 392},
        {u"Net à payer  710,00 €", 300, 360}},
       "710", "600", "110", "EUR", "2024-04-05"},
      {"rates, bases and taxes without labels",
       {{u"Datum: 02.02.2024", 300, 740}, {u"19%", 250, 400}, {u"100,00", 320, 400}, {u"19,00", 400, 400},
        {u"7%", 250, 385}, {u"50,00", 320, 385}, {u"3,50", 400, 385}, {u"Gesamtbetrag 172,50", 250, 370}},
       "172.5", "150", "22.5", "-", "2024-02-02"},
      // Prices that include the tax: the net is not printed.
      {"tax included",
       {{u"Invoice date: 14 Mar 2024", 300, 740}, {u"Auckland", 60, 700}, {u"Total due  $ 287.50", 300, 400},
        {u"All charges include 15% GST:  $ 37.50", 60, 385}},
       "287.5", "250", "37.5", "NZD", "2024-03-14"},
      // Thousands set apart by a space, plain or no-break.
      {"thousands apart",
       {{u"Date : 15/01/2024", 300, 760}, {u"Total HT    1 000,00 €", 300, 420},
        {u"TVA 20 %      200,00 €", 300, 405}, {u"Total TTC   1\u00A0200,00 €", 300, 390}},
       "1200", "1000", "200", "EUR", "2024-01-15"},
      // A page's subtotal carried to the next is no total.
      {"carried forward",
       {{u"Datum: 02.02.2024", 300, 740}, {u"Summe Übertrag   1.250,00", 300, 700},
        {u"Gesamt           1.595,00", 300, 370}},
       "1595", "-", "-", "-", "2024-02-02"},
      // A small business charges no tax and says why.
      {"zero tax",
       {{u"Datum: 10.01.2024", 300, 740}, {u"Kein Ausweis der Umsatzsteuer (Kleinunternehmer)", 60, 420},
        {u"Gesamtbetrag   250,00 €", 300, 400}},
       "250", "250", "0", "EUR", "2024-01-10"},
  };
  for (const Case& c : cases) expectFacts(c);
}

TEST(TextFactsTest, CreditNotesSelfBillingAndReceipts) {
  const Case cases[] = {
      {"credit note printed positive",
       {{u"Credit note CN-7", 60, 780}, {u"Date: 2024-03-03", 300, 740}, {u"Net total   £ 50.00", 350, 400},
        {u"VAT 20%     £ 10.00", 350, 385}, {u"Total       £ 60.00", 350, 370}},
       "-60", "-50", "-10", "GBP", "2024-03-03", "credit-note"},
      {"minus behind the amounts",
       {{u"Datum: 05.03.2024", 300, 740}, {u"Nettobetrag   100,00-", 350, 400},
        {u"USt 19 %       19,00-", 350, 385}, {u"Gesamtbetrag  119,00-", 350, 370}},
       "-119", "-100", "-19", "-", "2024-03-05", "credit-note"},
      {"refund in the terms",
       {{u"Invoice 12   Date: 2024-03-03", 60, 780}, {u"Net total   £ 50.00", 350, 400},
        {u"VAT 20%     £ 10.00", 350, 385}, {u"Total       £ 60.00", 350, 370},
        {u"No refund after 30 days.", 60, 100}},
       "60", "50", "10", "GBP", "2024-03-03"},
      // A word that titles refunds also names items: on an amount's row it
      // is the item's.
      {"refund as the title",
       {{u"REFUND", 60, 780}, {u"Date: 2024-03-03", 300, 740}, {u"Net total   £ 50.00", 350, 400},
        {u"VAT 20%     £ 10.00", 350, 385}, {u"Total       £ 60.00", 350, 370}},
       "-60", "-50", "-10", "GBP", "2024-03-03", "credit-note"},
      {"refund on an item's row",
       {{u"Invoice 12   Date: 2024-03-03", 60, 780}, {u"Postage refund    -5,00   1   £ 5.00", 60, 600},
        {u"Net total   £ 50.00", 350, 400}, {u"VAT 20%     £ 10.00", 350, 385},
        {u"Total       £ 60.00", 350, 370}},
       "60", "50", "10", "GBP", "2024-03-03"},
      // "Gutschrift" titles a self-billed invoice: positive.
      {"self-billed",
       {{u"Gutschrift Nr. 5", 60, 780}, {u"Datum: 04.03.2024", 300, 740}, {u"Nettobetrag   200,00 €", 350, 400},
        {u"USt 19 %       38,00 €", 350, 385}, {u"Gesamtbetrag  238,00 €", 350, 370}},
       "238", "200", "38", "EUR", "2024-03-04"},
      // A till slip; its issue date is not the one after today.
      {"receipt", {{u"Rechnungsdatum 01.01.2099", 300, 760}, {u"Kassenbon 01.02.2024", 60, 740}},
       "-", "-", "-", "-", "2024-02-01", "receipt"},
  };
  for (const Case& c : cases) expectFacts(c);
}

TEST(TextFactsTest, CurrencyFromEvidence) {
  const Case cases[] = {
      {"code beside the total", {{u"Total  CHF 54.00", 300, 400}, {u"EUR 1 = CHF 0.95", 60, 300}}, "54", "-", "-",
       "CHF", "-", "invoice", "near the amount"},
      {"dollar by the address", {{u"ABN 51 824 753 556, Sydney", 60, 700}, {u"Total $ 20.00", 300, 400}}, "20", "-",
       "-", "AUD", "-", "invoice", "symbol near the amount, read by the country"},
      {"dollar by the tax number", {{u"IRD 123-456-789", 60, 700}, {u"Total $ 20.00", 300, 400}}, "20", "-", "-",
       "NZD", "-", "invoice", "symbol near the amount, read by the country"},
      {"most frequent mention", {{u"Total 20.00", 300, 400}, {u"Prices in GBP", 60, 300}, {u"GBP only", 60, 280}},
       "20", "-", "-", "GBP", "-", "invoice", "the only currency mentioned"},
      {"none", {{u"Total 20.00", 300, 400}}, "20", "-", "-", "-", "-"},
  };
  for (const Case& c : cases) expectFacts(c);
}

TEST(TextFactsTest, EvidenceAndTheStandardElementsUntouched) {
  const auto parsed = analyse({{u"Rechnungsdatum: 05.03.2024", 300, 740}, {u"Summe netto  100,00 EUR", 300, 400},
                               {u"MwSt 19 %     19,00 EUR", 300, 385}, {u"Gesamtbetrag 119,00 EUR", 300, 370}});
  const std::u16string before = LMValue(parsed->parser.result()).description();
  const LMFacts again = lmTextFacts(parsed->parser, {LMDate::fromComponents(2026, 6, 1, 12), {}});
  EXPECT_EQ(before, LMValue(parsed->parser.result()).description());
  const LMDictionary& gross = *again.evidence.at(u"gross").asDictionary();
  EXPECT_EQ(u"Gesamtbetrag", gross.at(u"anchor").toString());
  EXPECT_EQ(u"119,00", gross.at(u"text").toString());
  ASSERT_TRUE(gross.at(u"score").asDouble());
  EXPECT_GE(*gross.at(u"score").asDouble(), 0.9);
  EXPECT_EQ(0, gross.at(u"page").toInt());
  EXPECT_FALSE(again.failed(u"gross-total"));
  EXPECT_FALSE(again.failed(u"rate-tax"));
}

TEST(TextFactsTest, TaskRatesCheckTheTax) {
  const auto parsed = analyse({{u"Net   100.00", 300, 400}, {u"Tax     8.25", 300, 385}, {u"Total 108.25", 300, 370}});
  for (bool withRate : {false, true}) {
    SCOPED_TRACE(withRate);
    LMTextFactsOptions options;
    if (withRate) options.rates.push_back(*LMDecimal::fromString(std::string_view("8.25")));
    const LMFacts facts = lmTextFacts(parsed->parser, options);
    EXPECT_EQ("8.25", text(facts.tax));
    bool listed = false;
    for (const LMFactsCheck& c : facts.checks) listed = listed || (c.name == u"rate-tax" && c.ok);
    EXPECT_EQ(withRate, listed);
  }
}

TEST(LabelsTest, FoldedMatching) {
  struct LabelCase {
    const char16_t* text;
    const char16_t* label;  // folded; null: no label
  } cases[] = {
      {u"Gesamt-\nbetrag:", u"gesamtbetrag"}, {u"TOTAL TTC", u"total ttc"},
      {u"Fälligkeitsdatum", u"falligkeitsdatum"}, {u"T0tal:", u"total"},
      {u"Subtotal", u"subtotal"}, {u"Net à payer", u"net a payer"},
      {u"Importe  total", u"importe total"}, {u"excl. BTW", u"excl btw"},
      {u"Totalement", nullptr}, {u"Rückgeld", u"ruckgeld"}, {u"Total H.T.", u"total h t"},
      {u"T.V.A. 20 %", u"t v a"}, {u"Payment due date", u"payment due date"},
  };
  for (const LabelCase& c : cases) {
    SCOPED_TRACE(lmUtf8(c.text));
    const LMFoldedText folded = lmFoldLabelText(c.text);
    const auto found = lmFindLabels(folded.text);
    if (!c.label) {
      EXPECT_TRUE(found.empty());
      continue;
    }
    ASSERT_FALSE(found.empty());
    EXPECT_EQ(c.label, found.front().label->text);
  }
  // Every label is stored folded, so that folded text can find it, and
  // once: a second entry of the same words would never be found.
  std::set<std::u16string_view> seen;
  for (const LMLabel& label : lmLabelTable()) {
    SCOPED_TRACE(lmUtf8(label.text));
    EXPECT_EQ(label.text, lmFoldLabelText(label.text).text);
    EXPECT_TRUE(seen.insert(label.text).second);
  }
}

}  // namespace
