#include "einvoice/checks.h"

#include <functional>

#include <gtest/gtest.h>

#include "einvoice/einvoice_test_util.h"
#include "kit/unicode.h"

namespace {

TEST(EInvoiceChecksTest, EachCheckFailsOnItsOwnNumbers) {
  const LMEInvoice base = *lmtest::read(lmtest::testFile("cii-allowances.xml")).invoice;
  auto d = [](const char* s) { return *LMDecimal::fromString(std::string_view(s)); };
  struct Case {
    const char* name;
    std::function<void(LMEInvoice&)> change;
    const char* failed;
  } cases[] = {
      {"a line off", [&](LMEInvoice& i) { i.lines[1].net = d("50.01"); }, "lines-sum"},
      {"a sub-line does not count",
       [&](LMEInvoice& i) {
         i.lines.push_back(i.lines[0]);
         i.lines.back().parentId = std::u16string(1, u'1');
       },
       ""},
      {"allowance total off", [&](LMEInvoice& i) { i.allowanceTotal->value = d("19.00"); },
       "net-total"},
      {"one rate's tax off", [&](LMEInvoice& i) { i.taxes[1].amount = d("3.51"); },
       "tax-total rate-tax"},
      {"rounded half up", [&](LMEInvoice& i) {
         i.taxes[1].basis = d("50.50");  // 3.535 -> 3.54
         i.taxes[1].amount = d("3.54");
         i.tax->value = d("38.69");
         i.gross->value = i.due->value = d("273.69");
       }, ""},
      {"gross off", [&](LMEInvoice& i) { i.gross->value = d("273.66"); },
       "gross-total due-total"},
      {"prepaid counted", [&](LMEInvoice& i) {
         i.prepaid = LMEInvoiceAmount{d("73.65"), ""};
         i.due->value = d("200.00");
       }, ""},
      {"rounding counted", [&](LMEInvoice& i) {
         i.rounding = LMEInvoiceAmount{d("0.35"), ""};
       }, "due-total"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LMEInvoice inv = base;
    c.change(inv);
    EXPECT_EQ(c.failed, lmtest::failedChecks(lmCheckEInvoice(inv)));
  }
  // The detail shows the numbers.
  LMEInvoice inv = base;
  inv.gross->value = d("273.6");
  EXPECT_EQ(u"gross 273.60 != 235.00 + 38.65 = 273.65", lmCheckEInvoice(inv)[5].detail);
}

}  // namespace
