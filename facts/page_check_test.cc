#include "facts/page_check.h"

#include <gtest/gtest.h>

#include "facts/text_facts_test_util.h"
#include "kit/unicode.h"

TEST(PageCheckTest, FindsAmountsInTheirPrintedForms) {
  const auto parsed =
      lmtest::analyse({{u"Korrektur -8,79 EUR Summe 1.021,91 Total 1,234.50 Rest 2\u202F500,00 "
                        u"Pauschale 40,- Menge 12345", 72, 700}});
  struct Case {
    const char* amount;
    bool shown;
  } cases[] = {{"-8.79", true},   {"8.79", true},    {"1021.91", true}, {"1234.5", true},
               {"2500", true},    {"40", true},      {"21.91", false},  {"1.02", false},
               {"12345", false},  {"123.45", false}, {"879", false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.amount);
    EXPECT_EQ(c.shown, lmPageShowsAmount(parsed->parser, *LMDecimal::fromString(std::string_view(c.amount))));
  }
}

TEST(PageCheckTest, FindsDaysInEitherOrderAndCurrencyMentions) {
  const auto parsed =
      lmtest::analyse({{u"Date 05/11/2017 Lieferung 3.2.24 Betrag 10,00 EUR", 72, 700}});
  struct Case {
    const char16_t* day;
    bool shown;
  } cases[] = {{u"2017-11-05", true}, {u"2017-05-11", true}, {u"2024-02-03", true},
               {u"2024-03-02", true}, {u"2017-11-06", false}, {u"2011-05-17", false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.day));
    EXPECT_EQ(c.shown, lmPageShowsDay(parsed->parser, c.day));
  }
  EXPECT_EQ(std::optional<bool>(true), lmPageShowsCurrency(parsed->parser, u"EUR"));
  EXPECT_EQ(std::optional<bool>(false), lmPageShowsCurrency(parsed->parser, u"GBP"));
  EXPECT_EQ(std::nullopt,
            lmPageShowsCurrency(lmtest::analyse({{u"Betrag 10,00", 72, 700}})->parser, u"GBP"));
}
