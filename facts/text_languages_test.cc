// Generated pages per language: every label of a role on a page of the same
// few layouts, so that a missing or misread label shows by its name.
#include <gtest/gtest.h>

#include "facts/text_facts_test_util.h"
#include "kit/unicode.h"

namespace {

using lmtest::analyse;
using lmtest::Row;

struct Language {
  const char* name;
  std::vector<const char16_t*> gross, net, tax, date;
  const char16_t* rate;  // as printed after the tax label
  const char16_t* otherDate;  // a due date's label
};

const Language kLanguages[] = {
    {"it",
     {u"Totale documento", u"Totale fattura", u"Totale da pagare", u"Importo totale", u"Netto a pagare"},
     {u"Imponibile", u"Totale imponibile", u"Base imponibile", u"Importo netto"},
     {u"IVA", u"Totale IVA", u"Imposta", u"Importo IVA"},
     {u"Data fattura", u"Data documento", u"Data emissione", u"Data"},
     u"22%", u"Scadenza"},
    {"es",
     {u"Total factura", u"Importe total", u"Total a pagar", u"Total con IVA"},
     {u"Base imponible", u"Subtotal", u"Importe neto", u"Total sin IVA"},
     {u"IVA", u"Cuota IVA", u"Total IVA", u"Importe IVA"},
     {u"Fecha factura", u"Fecha de emisión", u"Fecha", u"Fecha de expedición"},
     u"21%", u"Fecha de vencimiento"},
    {"nl",
     {u"Totaal incl. BTW", u"Totaalbedrag", u"Te betalen", u"Factuurbedrag"},
     {u"Totaal excl. BTW", u"Subtotaal", u"Nettobedrag", u"Totaal exclusief BTW"},
     {u"BTW", u"BTW bedrag", u"Totaal BTW", u"Omzetbelasting"},
     {u"Factuurdatum", u"Datum factuur", u"Datum", u"Documentdatum"},
     u"21%", u"Vervaldatum"},
    {"fr",
     {u"Total TTC", u"Montant TTC", u"Net à payer", u"Total T.T.C."},
     {u"Total HT", u"Montant HT", u"Total H.T.", u"Sous-total"},
     {u"TVA", u"Montant TVA", u"Total TVA", u"Taxe sur la valeur ajoutée"},
     {u"Date de facture", u"Date d'émission", u"Date", u"Date de la facture"},
     u"20 %", u"Date d'échéance"},
    {"de",
     {u"Gesamtbetrag", u"Rechnungsbetrag", u"Endbetrag", u"Summe brutto"},
     {u"Nettobetrag", u"Summe netto", u"Zwischensumme", u"Netto"},
     {u"MwSt", u"USt", u"Umsatzsteuer", u"Mehrwertsteuer"},
     {u"Rechnungsdatum", u"Datum", u"Belegdatum", u"Ausstellungsdatum"},
     u"19 %", u"Fällig am"},
    {"en",
     {u"Total", u"Invoice total", u"Amount due", u"Total incl. VAT"},
     {u"Subtotal", u"Net total", u"Total excl. VAT", u"Net amount"},
     {u"VAT", u"VAT amount", u"Tax", u"Value added tax"},
     {u"Invoice date", u"Date of issue", u"Issue date", u"Bill date"},
     u"20%", u"Due date"},
};

// The amounts of every page: net 1000.00 at each language's rate, so a tax
// of ten times the rate.
std::u16string taxOf(const Language& l) {
  return lmUtf16(std::to_string(10 * std::stoi(lmUtf8(l.rate)))) + u",00";
}

std::string grossOf(const Language& l) { return std::to_string(1000 + 10 * std::stoi(lmUtf8(l.rate))); }

std::u16string joined(const char16_t* label, const char16_t* value) {
  return std::u16string(label) + u"  " + value;
}

TEST(TextLanguagesTest, EveryLabelOnGeneratedPages) {
  for (const Language& l : kLanguages) {
    const size_t variants = std::max({l.gross.size(), l.net.size(), l.tax.size(), l.date.size()});
    for (size_t i = 0; i < variants; ++i) {
      const char16_t* gross = l.gross[i % l.gross.size()];
      const char16_t* net = l.net[i % l.net.size()];
      const char16_t* tax = l.tax[i % l.tax.size()];
      const char16_t* date = l.date[i % l.date.size()];
      SCOPED_TRACE(std::string(l.name) + ": " + lmUtf8(gross) + " / " + lmUtf8(net) + " / " + lmUtf8(tax) +
                   " / " + lmUtf8(date));
      const std::u16string taxLabel = std::u16string(tax) + u" " + l.rate;
      const std::u16string grossValue = lmUtf16(grossOf(l)) + u",00";
      // Two layouts: each value right of its label; each label over its value.
      for (bool stacked : {false, true}) {
        SCOPED_TRACE(stacked ? "label over value" : "value right of label");
        std::vector<std::u16string> texts;
        std::vector<Row> page;
        if (!stacked) {
          texts = {joined(l.otherDate, u"30/04/2024"), joined(date, u"02/04/2024"), joined(net, u"1.000,00 €"),
                   joined(taxLabel.c_str(), taxOf(l).c_str()), joined(gross, (grossValue + u" €").c_str())};
        } else {
          texts = {l.otherDate, u"30/04/2024", date, u"02/04/2024", net, u"1.000,00", taxLabel, taxOf(l),
                   gross, grossValue};
        }
        double y = 760;
        for (const std::u16string& t : texts) page.push_back({t.c_str(), 300, y -= 15});
        const auto parsed = analyse(page);
        const LMFacts& f = parsed->facts;
        EXPECT_EQ(grossOf(l), f.gross ? f.gross->stringValue() : "-");
        EXPECT_EQ("1000", f.net ? f.net->stringValue() : "-");
        EXPECT_EQ(lmUtf8(taxOf(l)).substr(0, 3), f.tax ? f.tax->stringValue() : "-");
        EXPECT_EQ("2024-04-02", f.issueDate ? lmUtf8(*f.issueDate) : "-");
      }
    }
  }
}

}  // namespace
