#include "einvoice/checks.h"

#include <string>

#include "einvoice/xml_tree.h"

namespace {

using lm_einvoice::money;

LMEInvoiceCheck compare(const char16_t* name, const LMDecimal& stated, const std::u16string& label,
                        const LMDecimal& computed, const std::u16string& formula) {
  LMEInvoiceCheck check{name, stated == computed, {}};
  check.detail = label + u" " + money(stated) + (check.ok ? u" = " : u" != ") + formula +
                 u" = " + money(computed);
  return check;
}

LMDecimal valueOr0(const std::optional<LMEInvoiceAmount>& amount) {
  return amount ? amount->value : LMDecimal::zero();
}

}  // namespace

std::vector<LMEInvoiceCheck> lmCheckEInvoice(const LMEInvoice& invoice) {
  std::vector<LMEInvoiceCheck> checks;

  if (invoice.lineTotal) {
    LMDecimal sum;
    std::u16string terms;
    int count = 0;
    bool complete = true;
    for (const LMEInvoiceLine& line : invoice.lines) {
      if (line.parentId) continue;
      if (!line.net) complete = false;
      if (!line.net) break;
      sum = sum + *line.net;
      if (count < 6) terms += (count ? u" + " : u"") + money(*line.net);
      if (count == 6) terms += u" + …";
      ++count;
    }
    if (count > 0 && complete) {
      checks.push_back(compare(u"lines-sum", invoice.lineTotal->value, u"line total",
                               sum, terms));
    }
  }

  if (invoice.net && invoice.lineTotal) {
    const LMDecimal allowances = valueOr0(invoice.allowanceTotal);
    const LMDecimal charges = valueOr0(invoice.chargeTotal);
    checks.push_back(compare(u"net-total", invoice.net->value, u"net",
                             invoice.lineTotal->value - allowances + charges,
                             money(invoice.lineTotal->value) + u" - " + money(allowances) +
                                 u" + " + money(charges)));
  }

  if (invoice.tax && !invoice.taxes.empty()) {
    LMDecimal sum;
    std::u16string terms;
    bool complete = true;
    for (const LMEInvoiceTax& tax : invoice.taxes) {
      if (!tax.amount) complete = false;
      if (!tax.amount) break;
      sum = sum + *tax.amount;
      terms += (terms.empty() ? u"" : u" + ") + money(*tax.amount);
    }
    if (complete) checks.push_back(compare(u"tax-total", invoice.tax->value, u"tax", sum, terms));
  }

  for (const LMEInvoiceTax& tax : invoice.taxes) {
    if (!tax.rate || !tax.basis || !tax.amount) continue;
    const LMDecimal computed = (*tax.basis * *tax.rate / LMDecimal::fromInt(100))
                                   .decimalNumberByRoundingToDecimalPlaces(2, LMRoundingMode::kPlain);
    checks.push_back(compare(u"rate-tax", *tax.amount, u"tax at " + tax.rate->stringValue16() + u" %",
                             computed, money(*tax.basis) + u" x " + tax.rate->stringValue16() + u" %"));
  }

  if (invoice.gross && invoice.net && invoice.tax) {
    checks.push_back(compare(u"gross-total", invoice.gross->value, u"gross",
                             invoice.net->value + invoice.tax->value,
                             money(invoice.net->value) + u" + " + money(invoice.tax->value)));
  }

  if (invoice.due && invoice.gross) {
    const LMDecimal prepaid = valueOr0(invoice.prepaid);
    const LMDecimal rounding = valueOr0(invoice.rounding);
    checks.push_back(compare(u"due-total", invoice.due->value, u"due",
                             invoice.gross->value - prepaid + rounding,
                             money(invoice.gross->value) + u" - " + money(prepaid) + u" + " +
                                 money(rounding)));
  }
  return checks;
}
