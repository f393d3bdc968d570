// The page text as the text facts read it: ties of values to labels, the
// facts' own amounts and dates, currency mentions and the country.
#include <gtest/gtest.h>

#include "facts/text_amounts.h"
#include "facts/text_facts_test_util.h"
#include "facts/text_layout.h"
#include "kit/unicode.h"

namespace {

using lmtest::analyse;
using lmtest::Row;

// The strongest role an amount of `value` hundredths is tied to, by name.
std::string strongestRole(const LMTextLayout& layout, const LMReceiptParser& parser, int64_t value) {
  std::vector<const LMFoundNumber*> all;
  for (const auto& n : *parser.numbers()) all.push_back(n.get());
  for (const auto& n : layout.extraAmounts()) all.push_back(n.get());
  for (const LMFoundNumber* n : all) {
    if (n->integerValue() != value) continue;
    double next = kLMNoNextValue;
    for (const LMFoundNumber* m : all) {
      if (m != n && lmSameRow(m->bbox(), n->bbox()) && m->bbox().x > n->bbox().x)
        next = std::min(next, m->bbox().x);
    }
    const LMRoleTies ties = layout.ties(*n, next);
    const char* names[] = {"gross",      "net",    "tax",  "issue",   "other",
                           "other-date", "credit", "zero", "receipt", "title"};
    size_t best = 0;
    for (size_t r = 1; r < LMRoleTies::kRoles; ++r) best = ties.score[r] > ties.score[best] ? r : best;
    return ties.score[best] > 0 ? names[best] : "none";
  }
  return "not found";
}

TEST(TextLayoutTest, ValuesTieToTheirLabels) {
  struct Case {
    const char* name;
    std::vector<Row> rows;
    int64_t value;
    const char* role;
  } cases[] = {
      {"row, right of the label", {{u"Gesamtbetrag    119,00", 300, 400}}, 11900, "gross"},
      {"nearest label on the row wins", {{u"Summe netto  MwSt 19 %  19,00", 250, 400}}, 1900, "tax"},
      {"value before the row's next label", {{u"netto 100,00  MwSt 19,00", 250, 400}}, 10000, "net"},
      {"value between values ties less, yet ties", {{u"USt 19% von 100,00 = 19,00", 250, 400}}, 10000, "tax"},
      {"label over its value", {{u"Total", 400, 300}, {u"279.84", 400, 288}}, 27984, "gross"},
      {"a label with its own value heads no column",
       {{u"Gesamtsumme: 184,00", 400, 300}, {u"170,64", 440, 288}}, 17064, "none"},
      {"too far below", {{u"Total", 400, 500}, {u"279.84", 400, 300}}, 27984, "none"},
      {"change is no total", {{u"Rückgeld BAR   EUR   6,95", 60, 570}}, 695, "other"},
      {"left of the label ties nothing", {{u"19,00  MwSt", 300, 400}}, 1900, "none"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto parsed = analyse(c.rows);
    const LMTextLayout layout(parsed->parser);
    EXPECT_EQ(c.role, strongestRole(layout, parsed->parser, c.value));
  }
}

TEST(TextLayoutTest, AmountsAndDatesOfItsOwn) {
  struct Case {
    const char16_t* text;
    std::vector<int64_t> amounts;  // hundredths, in text order
    std::vector<const char*> days;
  } cases[] = {
      {u"Total TTC -233,47 €", {-23347}, {}},
      {u"Total CHF 1'234.50", {123450}, {}},
      {u"Total TTC 1 234,56 €", {123456}, {}}, {u"Total 12 345 678,90", {1234567890}, {}},
      {u"Menge 1 12,50", {1250}, {}},
      {u"TVA 5,50 % 12,5", {}, {}},
      {u"Data fattura: 12 marzo 2024", {}, {"2024-03-12"}},
      {u"Fecha: 15 de enero de 2024", {}, {"2024-01-15"}},
      {u"Factuurdatum 1 februari 2024", {}, {"2024-02-01"}},
      {u"Scadenza 31 febbraio 2024", {}, {}},
      {u"marzo 2024", {}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.text));
    const auto parsed = analyse({{c.text, 100, 400}});
    const LMTextLayout layout(parsed->parser);
    // What the standard recognizers found is not found twice.
    std::vector<int64_t> amounts;
    for (const auto& n : *parsed->parser.numbers()) amounts.push_back(n->integerValue());
    for (const auto& n : layout.extraAmounts()) amounts.push_back(n->integerValue());
    for (int64_t wanted : c.amounts)
      EXPECT_EQ(1, std::count(amounts.begin(), amounts.end(), wanted)) << wanted;
    std::vector<std::string> days;
    for (const auto& d : layout.extraDates()) days.push_back(lmUtf8(d->date()->descriptionDate()));
    if (parsed->parser.dates()) {
      for (const auto& d : *parsed->parser.dates()) days.push_back(lmUtf8(d->date()->descriptionDate()));
    }
    EXPECT_EQ(std::vector<std::string>(c.days.begin(), c.days.end()), days);
    // The facts' own elements lie where their text is.
    for (const auto& n : layout.extraAmounts()) {
      EXPECT_EQ(*n->string(),
                std::u16string(layout.pageText(0).substr(n->range().location, n->range().length)));
      EXPECT_GT(n->bbox().width, 0);
    }
  }
}

TEST(TextLayoutTest, ThousandsAcrossALineBreakOnlyOnOneRow) {
  // The page cleaning makes a no-break space a line break: on one row it
  // sets thousands apart, between rows it parts a line number from a price.
  for (bool oneRow : {true, false}) {
    SCOPED_TRACE(oneRow);
    const auto parsed = oneRow ? analyse({{u"Total 1\u00A0000,00", 100, 400}})
                               : analyse({{u"Pos. 1", 100, 400}, {u"000,00", 100, 380}});
    const LMTextLayout layout(parsed->parser);
    std::vector<int64_t> amounts;
    for (const auto& n : layout.extraAmounts()) amounts.push_back(n->integerValue());
    EXPECT_EQ(oneRow ? std::vector<int64_t>{100000} : std::vector<int64_t>{0}, amounts);
  }
}

TEST(TextLayoutTest, CountryAndCurrencyMentions) {
  struct Case {
    const char16_t* text;
    const char* country;
    const char* codes;  // the mentions' codes, joined
  } cases[] = {
      {u"Tel. +64 9 555 0100  Total $ 5.00", "NZ", "NZD"},
      {u"www.example.com.au  A$ 5.00 and $ 6.00", "AU", "AUD AUD"},
      {u"USt-IdNr. DE123456789  Summe 5,00 EUR", "DE", "EUR"},
      {u"Org.nr NO 923 609 016 MVA, Norge  kr 120,00", "NO", "NOK"},
      {u"Invoice IV00000000963  Total US$ 5.00", "", "USD"},
      {u"Rs -40.00 discount, ₹ 319.00", "", "INR INR"},
      {u"Frau Fr. Müller, Euro 5,00 or € 5,00, £ 3.00", "", "EUR EUR GBP"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.text));
    const auto parsed = analyse({{c.text, 60, 400}});
    const LMTextLayout layout(parsed->parser);
    EXPECT_EQ(c.country, lmUtf8(layout.country()));
    std::string codes;
    for (const LMCurrencyMention& m : layout.currencies())
      codes += (codes.empty() ? "" : " ") + lmUtf8(m.code);
    EXPECT_EQ(c.codes, codes);
  }
}

TEST(TextLayoutTest, PagesWithoutAnythingToRead) {
  for (const std::vector<Row>& rows :
       {std::vector<Row>{{u" ", 60, 400}}, std::vector<Row>{{u"Total", 60, 400}},
        std::vector<Row>{{u"Gesamtbetrag Gesamtbetrag", 60, 400}}}) {
    const auto parsed = analyse(rows);
    EXPECT_FALSE(parsed->facts.gross);
    EXPECT_FALSE(parsed->facts.net);
    EXPECT_FALSE(parsed->facts.issueDate);
    EXPECT_TRUE(parsed->facts.evidence.empty());
  }
}

}  // namespace
