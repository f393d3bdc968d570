// The issue date on small hand-made pages: the labels of other dates,
// periods and the order of slashed dates.
#include <gtest/gtest.h>

#include "facts/text_facts_test_util.h"
#include "kit/unicode.h"

namespace {

using lmtest::analyse;
using lmtest::Row;

TEST(TextDatesTest, IssueDateAndTheDoubtOfAnAmbiguousOrder) {
  const struct {
    const char* name;
    std::vector<Row> rows;
    const char* date;
    bool doubtful = false;  // the day and month could change places
  } cases[] = {
      // Order and delivery dates and a period are passed over.
      {"labels and periods",
       {{u"Bestelldatum: 01.02.2024", 300, 760}, {u"Lieferdatum: 03.02.2024", 300, 745},
        {u"Leistungszeitraum 01.01.2024 - 31.01.2024", 60, 730}, {u"Datum: 05.02.2024", 300, 715}},
       "2024-02-05"},
      {"beside the title, not the order",
       {{u"Version 2.6 vom 10.11.2025", 60, 780}, {u"Bestellung Nr. 77 vom 02.02.2024", 60, 760},
        {u"Teilrechnung Nr. 12 vom 05.02.2024", 60, 740}},
       "2024-02-05"},
      {"no label: the first date that is no period end",
       {{u"Zeitraum vom 06.12.2023 bis zum 06.12.2024", 60, 760}, {u"24.01.2024", 300, 740},
        {u"27.01.2024", 300, 700}},
       "2024-01-24"},
      {"two-digit year", {{u"Datum: 31.01.24", 300, 760}}, "2024-01-31"},
      {"month first: a due date reads only that way",
       {{u"Invoice Date: 03/04/2023", 300, 740}, {u"Due Date: 03/20/2023", 300, 725}}, "2023-03-04", true},
      {"month first by the country alone",
       {{u"Invoice Date: 03/04/2023", 300, 740}, {u"Springfield, USA", 60, 700}}, "2023-03-04", true},
      {"day first: a due date reads only that way",
       {{u"Invoice Date: 03/04/2023", 300, 740}, {u"Due Date: 20/04/2023", 300, 725}}, "2023-04-03"},
      {"English in dollars without a country",
       {{u"Invoice Date: 03/04/23", 300, 740}, {u"Thank you for your business", 60, 300},
        {u"Total $ 20.00", 300, 400}},
       "2023-03-04"},
      {"a US address", {{u"Invoice Date: 03/04/2023", 300, 740}, {u"Springfield, IL 62704", 60, 700}},
       "2023-03-04"},
      {"English in pounds without a country",
       {{u"Invoice Date: 03/04/2023", 300, 740}, {u"Thank you for your business", 60, 300},
        {u"Total £ 20.00", 300, 400}},
       "2023-04-03"},
      {"a period with month names",
       {{u"Services Jan 1 - Jan 31, 2024", 60, 760}, {u"February 2, 2024", 300, 740}}, "2024-02-02"},
      {"a period of days of one month",
       {{u"Hosting 1 - 31 January 2024", 60, 760}, {u"5 February 2024", 300, 740}}, "2024-02-05"},
      {"a period's start before its end without a year",
       {{u"01.01.2024 - 31.01.", 60, 760}, {u"Berlin, 03.02.2024", 300, 740}}, "2024-02-03"},
      {"a date and a time of day",
       {{u"05.02.2024 - 10:30", 60, 760}, {u"06.02.2024", 300, 740}}, "2024-02-05"},
      {"ordinal day", {{u"Invoice date: March 3rd, 2024", 300, 760}}, "2024-03-03"},
      {"first of the month, fr", {{u"Date : 1er mars 2024", 300, 760}}, "2024-03-01"},
      {"abbreviated month, fr", {{u"Date de facture : 15 janv. 2024", 300, 760}}, "2024-01-15"},
      {"abbreviated month, it", {{u"Data fattura: 12 gen 2024", 300, 760}}, "2024-01-12"},
      {"abbreviated month, nl", {{u"Factuurdatum: 3 mrt 2024", 300, 760}}, "2024-03-03"},
      {"payment due date",
       {{u"Payment due date: 15.03.2024", 300, 760}, {u"Berlin, 01.03.2024", 300, 740}}, "2024-03-01"},
      {"statement date", {{u"Statement date 14 Feb 2024", 300, 760}, {u"Pay by 28 Feb 2024", 300, 740}},
       "2024-02-14"},
      {"date of issue", {{u"Due by: 2024-03-30", 300, 760}, {u"Date of issue: 2024-03-01", 300, 740}},
       "2024-03-01"},
      {"data di emissione", {{u"Data di scadenza 30/04/2024", 300, 760}, {u"Data di emissione 02/04/2024", 300, 740}},
       "2024-04-02"},
      {"fecha de emisión", {{u"Vencimiento: 30/04/2024", 300, 760}, {u"Fecha de emisión: 02/04/2024", 300, 740}},
       "2024-04-02"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto parsed = analyse(c.rows);
    ASSERT_TRUE(parsed->facts.issueDate);
    EXPECT_EQ(c.date, lmUtf8(*parsed->facts.issueDate));
    if (!c.doubtful) continue;
    const auto score = parsed->facts.evidence.at(u"issueDate").at(u"score").asDouble();
    ASSERT_TRUE(score);
    EXPECT_LT(*score, 0.9);
  }
}

}  // namespace
