#include "facts/einvoice_facts.h"

#include "kit/unicode.h"

namespace {

template <typename T>
LMValue orNull(const std::optional<T>& value) {
  return value ? LMValue(*value) : LMValue::null();
}

LMDictionary pathEvidence(const std::string& path) {
  return LMDictionary{{u"source", u"e-invoice"}, {u"path", lmUtf16(path)}, {u"score", 1.0}};
}

LMValue party(const LMEInvoiceParty& p) {
  if (!p.name && !p.vatId && !p.address && !p.iban) return LMValue::null();
  return LMDictionary{{u"name", orNull(p.name)},
                      {u"vatId", orNull(p.vatId)},
                      {u"address", orNull(p.address)},
                      {u"iban", orNull(p.iban)}};
}

}  // namespace

LMFacts lmEInvoiceFacts(const LMEInvoiceReading& reading, std::u16string_view attachment,
                        size_t count) {
  LMFacts facts;
  if (!reading.invoice) return facts;
  const LMEInvoice& invoice = *reading.invoice;
  auto signedTotal = [&](const std::optional<LMEInvoiceAmount>& amount,
                         std::u16string_view field) -> std::optional<LMDecimal> {
    if (!amount) return std::nullopt;
    facts.evidence.set(field, pathEvidence(amount->path));
    return invoice.signedAmount(amount->value);
  };
  auto signedValue = [&](const std::optional<LMDecimal>& amount) {
    return amount ? LMValue(invoice.signedAmount(*amount)) : LMValue::null();
  };

  facts.source = u"e-invoice";
  facts.kind = invoice.kind;
  facts.invoiceNumber = invoice.number;
  if (invoice.number) facts.evidence.set(u"invoiceNumber", pathEvidence(invoice.numberPath));
  if (invoice.issueDate) {
    facts.issueDate = invoice.issueDate->isoString();
    facts.evidence.set(u"issueDate", pathEvidence(invoice.issueDatePath));
  }
  if (invoice.dueDate) {
    facts.dueDate = invoice.dueDate->isoString();
    facts.evidence.set(u"dueDate", pathEvidence(invoice.dueDatePath));
  }
  facts.currency = invoice.currency;
  facts.evidence.set(u"currency", pathEvidence(invoice.currencyPath));
  facts.gross = signedTotal(invoice.gross, u"gross");
  facts.net = signedTotal(invoice.net, u"net");
  facts.tax = signedTotal(invoice.tax, u"tax");
  if (invoice.due && (!invoice.gross || invoice.due->value != invoice.gross->value)) {
    facts.due = invoice.signedAmount(invoice.due->value);
  }

  for (const LMEInvoiceTax& t : invoice.taxes) {
    facts.taxes.emplace_back(LMDictionary{{u"rate", orNull(t.rate)},
                                          {u"net", signedValue(t.basis)},
                                          {u"tax", signedValue(t.amount)},
                                          {u"category", orNull(t.category)},
                                          {u"exemptionReason", orNull(t.exemptionReason)}});
  }
  for (const LMEInvoiceAllowance& a : invoice.allowances) {
    (a.charge ? facts.charges : facts.allowances)
        .emplace_back(LMDictionary{
            {u"amount", a.amount}, {u"rate", orNull(a.rate)}, {u"reason", orNull(a.reason)}});
  }
  facts.seller = party(invoice.seller);
  facts.buyer = party(invoice.buyer);
  for (const LMEInvoiceLine& l : invoice.lines) {
    facts.lines.emplace_back(LMDictionary{{u"name", orNull(l.name)},
                                          {u"quantity", orNull(l.quantity)},
                                          {u"unitPrice", orNull(l.unitPrice)},
                                          {u"net", orNull(l.net)},
                                          {u"rate", orNull(l.rate)}});
  }
  for (const LMEInvoiceCheck& c : reading.checks) facts.checks.push_back({c.name, c.ok, c.detail});
  facts.eInvoice = LMDictionary{{u"syntax", invoice.syntax},
                                {u"profile", orNull(invoice.profile)},
                                {u"profileId", invoice.profileId},
                                {u"typeCode", invoice.typeCode},
                                {u"attachment", attachment.empty() ? LMValue::null()
                                                                   : LMValue(attachment)},
                                {u"count", static_cast<int64_t>(count)}};
  return facts;
}
