// Does the page show a value? The test behind the facts' conflicts: a value
// of the e-invoice that the page does not show is reported.
//
// A value counts as shown when the analysis found it (a found amount, date
// or currency mention) or when the page text holds it in one of its usual
// printed forms. The second test keeps our own reading limits — a minus
// sign the amount recognizer leaves out, a day/month order read the other
// way — from turning into false alarms.
#pragma once
#include <optional>
#include <string>

#include "analysis/receipt_parser.h"
#include "kit/decimal.h"

// `amount`, sign ignored, among the found amounts or in the page text as
// "1234,56", "1.234,56", "1,234.56", "1 234,56", "1'234.56", ... (whole
// amounts also as "1234,-"), not inside a longer number.
bool lmPageShowsAmount(const LMReceiptParser& parser, const LMDecimal& amount);

// The calendar day `isoDay` ("YYYY-MM-DD") among the found dates or in the
// page text as a numeric date in any of the usual orders and separators.
bool lmPageShowsDay(const LMReceiptParser& parser, const std::u16string& isoDay);

// Whether the page mentions the currency `code`; nullopt when it mentions no
// currency at all (then it cannot disagree).
std::optional<bool> lmPageShowsCurrency(const LMReceiptParser& parser, const std::u16string& code);
