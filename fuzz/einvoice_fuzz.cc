// Arbitrary bytes through the e-invoice reader and the attachment choice,
// checking what callers rely on: a reading has a record exactly when it has
// no failure; a record has a gross total, a currency of three capital
// letters, and a path for every total; checks carry the fixed names.
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "einvoice/attachment_selection.h"
#include "einvoice/einvoice.h"

namespace {

void require(bool condition) {
  if (!condition) __builtin_trap();
}

void requireTotal(const std::optional<LMEInvoiceAmount>& amount) {
  if (amount) require(!amount->path.empty() && !amount->value.isNaN());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::span<const uint8_t> bytes(data, size);
  LMEInvoiceReading reading = lmReadEInvoice(bytes);
  require(reading.invoice.has_value() == reading.failure.empty());
  if (const auto& inv = reading.invoice) {
    require(inv->gross.has_value() && inv->currency.size() == 3);
    for (const auto* total : {&inv->lineTotal, &inv->allowanceTotal, &inv->chargeTotal, &inv->net,
                              &inv->tax, &inv->taxInTaxCurrency, &inv->gross, &inv->prepaid,
                              &inv->rounding, &inv->due}) {
      requireTotal(*total);
    }
    require(inv->kind == u"invoice" || inv->kind == u"credit-note");
  }
  for (const LMEInvoiceCheck& check : reading.checks) {
    static const std::u16string kNames[] = {u"lines-sum", u"net-total", u"tax-total", u"rate-tax",
                                            u"gross-total", u"due-total", u"field"};
    bool known = false;
    for (const std::u16string& name : kNames) known = known || name == check.name;
    require(known && !check.detail.empty());
  }
  // The same bytes as the only attachment, declared as XML: chosen exactly
  // when the root is an invoice's or the bytes are no XML.
  LMEInvoiceCandidate candidate{u"invoice.xml", u"text/xml", u"Alternative", true, bytes};
  LMEInvoiceSelection selection = lmSelectEInvoice({&candidate, 1});
  const LMEInvoiceSyntax syntax = lmRecognizeEInvoice(bytes);
  require(selection.index.has_value() == (syntax != LMEInvoiceSyntax::kNone));
  if (selection.index) require(selection.reading.failure == reading.failure);
  return 0;
}
