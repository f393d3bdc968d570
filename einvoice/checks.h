// The arithmetic checks over an e-invoice record, in exact decimals.
#pragma once
#include <vector>

#include "einvoice/einvoice.h"

// In this order, each only where its inputs exist:
//  "lines-sum"   the lines without a parent add up to the line total;
//  "net-total"   net = line total - allowance total + charge total;
//  "tax-total"   tax = the sum of the per-rate taxes;
//  "rate-tax"    one per rate: tax = basis x rate / 100, to the cent, half up;
//  "gross-total" gross = net + tax;
//  "due-total"   due = gross - prepaid + rounding.
// An absent allowance, charge, prepaid or rounding total counts as zero.
std::vector<LMEInvoiceCheck> lmCheckEInvoice(const LMEInvoice& invoice);
