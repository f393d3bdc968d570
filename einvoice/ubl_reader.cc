#include "einvoice/reader.h"
#include "einvoice/xml_tree.h"
#include "kit/strings.h"

namespace lm_einvoice {
namespace {

pugi::xml_node cac(pugi::xml_node parent, std::string_view local) {
  return child(parent, kCac, local);
}
pugi::xml_node cbc(pugi::xml_node parent, std::string_view local) {
  return child(parent, kCbc, local);
}
pugi::xml_node next(pugi::xml_node node) {
  return nextSame(node, namespaceUri(node), localName(node));
}

class UBLReader {
 public:
  UBLReader(pugi::xml_node root, Reading* r)
      : root_(root), creditNote_(localName(root) == "CreditNote"), r_(r) {}

  void read() {
    LMEInvoice& inv = r_->invoice;
    inv.syntax = u"UBL";
    inv.profileId = text(cbc(root_, "CustomizationID")).value_or(u"");
    inv.profile = profileName(inv.profileId);
    if (!inv.profile) inv.profile = profileName(text(cbc(root_, "ProfileID")).value_or(u""));
    if (countChildren(root_, kCbc, "ID") > 1 ||
        countChildren(root_, kCac, "LegalMonetaryTotal") > 1) {
      return r_->fail(u"more than one invoice in the document");
    }
    pugi::xml_node number = cbc(root_, "ID");
    inv.number = text(number);
    if (inv.number) inv.numberPath = path(number);
    inv.typeCode = text(cbc(root_, creditNote_ ? "CreditNoteTypeCode" : "InvoiceTypeCode"))
                       .value_or(creditNote_ ? u"381" : u"380");
    inv.kind = creditNote_ ? u"credit-note" : lmEInvoiceKind(inv.typeCode);
    inv.issueDate = r_->date(cbc(root_, "IssueDate"), u"issue date", &inv.issueDatePath);
    inv.dueDate = r_->date(cbc(root_, "DueDate"), u"due date", &inv.dueDatePath);
    for (pugi::xml_node means = cac(root_, "PaymentMeans"); means; means = next(means)) {
      if (!inv.dueDate) {
        inv.dueDate = r_->date(cbc(means, "PaymentDueDate"), u"due date", &inv.dueDatePath);
      }
      if (!inv.seller.iban) inv.seller.iban = text(cbc(cac(means, "PayeeFinancialAccount"), "ID"));
    }
    r_->currency(cbc(root_, "DocumentCurrencyCode"));
    std::optional<std::u16string> taxCurrency = text(cbc(root_, "TaxCurrencyCode"));
    if (taxCurrency && *taxCurrency != inv.currency) inv.taxCurrency = taxCurrency;

    std::optional<std::u16string> iban = inv.seller.iban;
    inv.seller = party(cac(cac(root_, "AccountingSupplierParty"), "Party"));
    inv.seller.iban = iban;
    inv.buyer = party(cac(cac(root_, "AccountingCustomerParty"), "Party"));

    const char* lineName = creditNote_ ? "CreditNoteLine" : "InvoiceLine";
    for (pugi::xml_node n = cac(root_, lineName); n; n = next(n)) inv.lines.push_back(line(n));
    for (pugi::xml_node n = cac(root_, "AllowanceCharge"); n; n = next(n)) allowance(n);

    // One tax total per currency; the breakdown sits in the document currency's.
    std::vector<pugi::xml_node> taxAmounts;
    for (pugi::xml_node n = cac(root_, "TaxTotal"); n; n = next(n)) {
      if (pugi::xml_node amount = cbc(n, "TaxAmount")) taxAmounts.push_back(amount);
    }
    if (pugi::xml_node chosen = r_->taxTotals(taxAmounts)) {
      for (pugi::xml_node s = cac(chosen.parent(), "TaxSubtotal"); s; s = next(s)) {
        inv.taxes.push_back(tax(s));
      }
    }

    pugi::xml_node sum = cac(root_, "LegalMonetaryTotal");
    inv.lineTotal = r_->total(cbc(sum, "LineExtensionAmount"), u"line total");
    inv.allowanceTotal = r_->total(cbc(sum, "AllowanceTotalAmount"), u"allowance total");
    inv.chargeTotal = r_->total(cbc(sum, "ChargeTotalAmount"), u"charge total");
    inv.net = r_->total(cbc(sum, "TaxExclusiveAmount"), u"net");
    inv.gross = r_->total(cbc(sum, "TaxInclusiveAmount"), u"gross");
    inv.prepaid = r_->total(cbc(sum, "PrepaidAmount"), u"prepaid");
    inv.rounding = r_->total(cbc(sum, "PayableRoundingAmount"), u"rounding");
    inv.due = r_->total(cbc(sum, "PayableAmount"), u"due");
  }

 private:
  LMEInvoiceParty party(pugi::xml_node node) const {
    LMEInvoiceParty p;
    p.name = text(cbc(cac(node, "PartyName"), "Name"));
    if (!p.name) p.name = text(cbc(cac(node, "PartyLegalEntity"), "RegistrationName"));
    for (pugi::xml_node scheme = cac(node, "PartyTaxScheme"); scheme && !p.vatId;
         scheme = next(scheme)) {
      if (text(cbc(cac(scheme, "TaxScheme"), "ID")) == u"VAT") {
        p.vatId = text(cbc(scheme, "CompanyID"));
      }
    }
    pugi::xml_node a = cac(node, "PostalAddress");
    std::optional<std::u16string> postcode = text(cbc(a, "PostalZone"));
    std::optional<std::u16string> city = text(cbc(a, "CityName"));
    p.address = joined({text(cbc(a, "StreetName")), text(cbc(a, "AdditionalStreetName")),
                        text(cbc(cac(a, "AddressLine"), "Line")),
                        lmStrip(postcode.value_or(u"") + u" " + city.value_or(u"")),
                        text(cbc(cac(a, "Country"), "IdentificationCode"))});
    return p;
  }

  LMEInvoiceLine line(pugi::xml_node node) const {
    LMEInvoiceLine l;
    l.id = text(cbc(node, "ID"));
    l.quantity = r_->amount(cbc(node, creditNote_ ? "CreditedQuantity" : "InvoicedQuantity"),
                            u"line quantity");
    l.net = r_->amount(cbc(node, "LineExtensionAmount"), u"line net");
    pugi::xml_node item = cac(node, "Item");
    l.name = text(cbc(item, "Name"));
    l.rate = r_->amount(cbc(cac(item, "ClassifiedTaxCategory"), "Percent"), u"line tax rate");
    l.unitPrice = r_->amount(cbc(cac(node, "Price"), "PriceAmount"), u"line unit price");
    return l;
  }

  void allowance(pugi::xml_node node) const {
    std::optional<LMDecimal> amount = r_->amount(cbc(node, "Amount"), u"allowance amount");
    if (!amount) return;
    LMEInvoiceAllowance a;
    a.charge = text(cbc(node, "ChargeIndicator")) == u"true";
    a.amount = *amount;
    a.rate = r_->amount(cbc(node, "MultiplierFactorNumeric"), u"allowance percent");
    a.basis = r_->amount(cbc(node, "BaseAmount"), u"allowance basis");
    a.taxRate = r_->amount(cbc(cac(node, "TaxCategory"), "Percent"), u"allowance tax rate");
    a.reason = text(cbc(node, "AllowanceChargeReason"));
    r_->invoice.allowances.push_back(std::move(a));
  }

  LMEInvoiceTax tax(pugi::xml_node node) const {
    LMEInvoiceTax t;
    t.basis = r_->amount(cbc(node, "TaxableAmount"), u"tax basis");
    t.amount = r_->amount(cbc(node, "TaxAmount"), u"tax amount");
    pugi::xml_node category = cac(node, "TaxCategory");
    t.rate = r_->amount(cbc(category, "Percent"), u"tax rate");
    t.category = text(cbc(category, "ID"));
    t.exemptionReason = text(cbc(category, "TaxExemptionReason"));
    t.exemptionReasonCode = text(cbc(category, "TaxExemptionReasonCode"));
    return t;
  }

  pugi::xml_node root_;
  bool creditNote_;
  Reading* r_;
};

}  // namespace

void readUBL(pugi::xml_node root, Reading* reading) { UBLReader(root, reading).read(); }

}  // namespace lm_einvoice
