// How facts are shown to people: money as text with the currency's minor
// unit, the JSON projection of the "facts" dictionary and the one-line
// summary of the command line.
#pragma once
#include <string>
#include <string_view>

#include "kit/decimal.h"
#include "kit/value.h"

// Decimal places of the currency's minor unit (ISO 4217): 0 for JPY, KRW, ...,
// 3 for BHD, KWD, ..., 2 for every other code and for an unknown one.
int lmCurrencyMinorUnit(std::u16string_view code);

// `value` with at least `places` decimal places and more when it has more
// non-zero ones: (84.6, 2) -> "84.60", (0.125, 2) -> "0.125", (120, 0) -> "120".
std::u16string lmMoneyText(const LMDecimal& value, int places);

// The "facts" dictionary ready for JSON: money (gross, net, tax, due, the
// per-rate and line amounts, allowances, alternatives' values) as money text
// in the facts' currency, other decimals as plain decimal text.
LMValue lmFactsJSONObject(const LMDictionary& facts);

// "FILE: gross 529.87 net 445.27 tax 84.60 EUR date 2018-10-31 (e-invoice)":
// an unknown value is "-", a value whose score is below 0.5 is followed by
// "?", and each conflict and failed check is appended ("; ! gross: e-invoice
// 529.87 not on the page", "; ! check tax-total failed").
std::string lmFactsSummary(std::string_view file, const LMDictionary& facts);
