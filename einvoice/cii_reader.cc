#include <cstring>

#include "einvoice/reader.h"
#include "einvoice/xml_tree.h"
#include "kit/strings.h"

namespace lm_einvoice {
namespace {

// Reads the CII elements; 1.0 names some of them differently.
class CIIReader {
 public:
  CIIReader(pugi::xml_node root, bool v1, Reading* r)
      : root_(root), v1_(v1), ram_(v1 ? kCII10Ram : kCIIRam), r_(r) {
    rsm_ = namespaceUri(root);
  }

  void read() {
    LMEInvoice& inv = r_->invoice;
    inv.syntax = v1_ ? u"CII-1.0" : u"CII";
    pugi::xml_node context = child(root_, rsm_, v1_ ? "SpecifiedExchangedDocumentContext"
                                                    : "ExchangedDocumentContext");
    inv.profileId = text(ram(ram(context, "GuidelineSpecifiedDocumentContextParameter"), "ID"))
                        .value_or(u"");
    inv.profile = profileName(inv.profileId);

    const char* headerName = v1_ ? "HeaderExchangedDocument" : "ExchangedDocument";
    const char* transactionName =
        v1_ ? "SpecifiedSupplyChainTradeTransaction" : "SupplyChainTradeTransaction";
    if (countChildren(root_, rsm_, headerName) > 1 ||
        countChildren(root_, rsm_, transactionName) > 1) {
      return r_->fail(u"more than one invoice in the document");
    }
    pugi::xml_node header = child(root_, rsm_, headerName);
    pugi::xml_node number = ram(header, "ID");
    inv.number = text(number);
    if (inv.number) inv.numberPath = path(number);
    inv.typeCode = text(ram(header, "TypeCode")).value_or(u"");
    inv.kind = lmEInvoiceKind(inv.typeCode);
    inv.issueDate = r_->date(ram(header, "IssueDateTime"), u"issue date", &inv.issueDatePath);

    pugi::xml_node transaction = child(root_, rsm_, transactionName);
    pugi::xml_node agreement = ram(transaction, v1_ ? "ApplicableSupplyChainTradeAgreement"
                                                    : "ApplicableHeaderTradeAgreement");
    pugi::xml_node settlement = ram(transaction, v1_ ? "ApplicableSupplyChainTradeSettlement"
                                                     : "ApplicableHeaderTradeSettlement");
    r_->currency(ram(settlement, "InvoiceCurrencyCode"));
    std::optional<std::u16string> taxCurrency = text(ram(settlement, "TaxCurrencyCode"));
    if (taxCurrency && *taxCurrency != inv.currency) inv.taxCurrency = taxCurrency;

    inv.seller = party(ram(agreement, "SellerTradeParty"));
    inv.buyer = party(ram(agreement, "BuyerTradeParty"));
    for (pugi::xml_node means = ram(settlement, "SpecifiedTradeSettlementPaymentMeans");
         means && !inv.seller.iban; means = next(means)) {
      inv.seller.iban = text(ram(ram(means, "PayeePartyCreditorFinancialAccount"), "IBANID"));
    }
    for (pugi::xml_node terms = ram(settlement, "SpecifiedTradePaymentTerms");
         terms && !inv.dueDate; terms = next(terms)) {
      inv.dueDate = r_->date(ram(terms, "DueDateDateTime"), u"due date", &inv.dueDatePath);
    }

    for (pugi::xml_node item = ram(transaction, "IncludedSupplyChainTradeLineItem"); item;
         item = next(item)) {
      inv.lines.push_back(line(item));
    }
    for (pugi::xml_node n = settlement.first_child(); n; n = n.next_sibling()) {
      if (namespaceUri(n) != ram_) continue;
      if (localName(n) == "ApplicableTradeTax") inv.taxes.push_back(tax(n));
      if (localName(n) == "SpecifiedTradeAllowanceCharge") allowance(n);
      if (localName(n) == "SpecifiedLogisticsServiceCharge") logisticsCharge(n);
    }

    pugi::xml_node sum = ram(settlement, v1_ ? "SpecifiedTradeSettlementMonetarySummation"
                                             : "SpecifiedTradeSettlementHeaderMonetarySummation");
    inv.lineTotal = r_->total(ram(sum, "LineTotalAmount"), u"line total");
    inv.chargeTotal = r_->total(ram(sum, "ChargeTotalAmount"), u"charge total");
    inv.allowanceTotal = r_->total(ram(sum, "AllowanceTotalAmount"), u"allowance total");
    inv.net = r_->total(ram(sum, "TaxBasisTotalAmount"), u"net");
    std::vector<pugi::xml_node> taxTotals;
    for (pugi::xml_node n = ram(sum, "TaxTotalAmount"); n; n = next(n)) taxTotals.push_back(n);
    r_->taxTotals(taxTotals);
    inv.rounding = r_->total(ram(sum, "RoundingAmount"), u"rounding");
    inv.gross = r_->total(ram(sum, "GrandTotalAmount"), u"gross");
    inv.prepaid = r_->total(ram(sum, "TotalPrepaidAmount"), u"prepaid");
    inv.due = r_->total(ram(sum, "DuePayableAmount"), u"due");
  }

 private:
  pugi::xml_node ram(pugi::xml_node parent, std::string_view local) const {
    return child(parent, ram_, local);
  }
  pugi::xml_node next(pugi::xml_node node) const { return nextSame(node, ram_, localName(node)); }
  // The tax rate: RateApplicablePercent, or ApplicablePercent in 1.0.
  std::optional<LMDecimal> rate(pugi::xml_node tax, const char16_t* field) const {
    pugi::xml_node n = ram(tax, "RateApplicablePercent");
    return r_->amount(n ? n : ram(tax, "ApplicablePercent"), field);
  }

  LMEInvoiceParty party(pugi::xml_node node) const {
    LMEInvoiceParty p;
    p.name = text(ram(node, "Name"));
    for (pugi::xml_node reg = ram(node, "SpecifiedTaxRegistration"); reg && !p.vatId;
         reg = next(reg)) {
      pugi::xml_node id = ram(reg, "ID");
      if (std::strcmp(id.attribute("schemeID").value(), "VA") == 0) p.vatId = text(id);
    }
    pugi::xml_node a = ram(node, "PostalTradeAddress");
    std::optional<std::u16string> city = text(ram(a, "CityName"));
    std::optional<std::u16string> postcode = text(ram(a, "PostcodeCode"));
    std::optional<std::u16string> place =
        joined({lmStrip(postcode.value_or(u"") + u" " + city.value_or(u""))});
    p.address = joined({text(ram(a, "LineOne")), text(ram(a, "LineTwo")),
                        text(ram(a, "LineThree")), place, text(ram(a, "CountryID"))});
    return p;
  }

  LMEInvoiceLine line(pugi::xml_node item) const {
    LMEInvoiceLine l;
    pugi::xml_node document = ram(item, "AssociatedDocumentLineDocument");
    l.id = text(ram(document, "LineID"));
    l.parentId = text(ram(document, "ParentLineID"));
    l.name = text(ram(ram(item, "SpecifiedTradeProduct"), "Name"));
    pugi::xml_node agreement =
        ram(item, v1_ ? "SpecifiedSupplyChainTradeAgreement" : "SpecifiedLineTradeAgreement");
    l.unitPrice = r_->amount(ram(ram(agreement, "NetPriceProductTradePrice"), "ChargeAmount"),
                             u"line unit price");
    pugi::xml_node delivery =
        ram(item, v1_ ? "SpecifiedSupplyChainTradeDelivery" : "SpecifiedLineTradeDelivery");
    l.quantity = r_->amount(ram(delivery, "BilledQuantity"), u"line quantity");
    pugi::xml_node settlement =
        ram(item, v1_ ? "SpecifiedSupplyChainTradeSettlement" : "SpecifiedLineTradeSettlement");
    l.rate = rate(ram(settlement, "ApplicableTradeTax"), u"line tax rate");
    pugi::xml_node sum = ram(settlement, v1_ ? "SpecifiedTradeSettlementMonetarySummation"
                                             : "SpecifiedTradeSettlementLineMonetarySummation");
    l.net = r_->amount(ram(sum, "LineTotalAmount"), u"line net");
    return l;
  }

  LMEInvoiceTax tax(pugi::xml_node node) const {
    LMEInvoiceTax t;
    t.rate = rate(node, u"tax rate");
    t.basis = r_->amount(ram(node, "BasisAmount"), u"tax basis");
    t.amount = r_->amount(ram(node, "CalculatedAmount"), u"tax amount");
    t.category = text(ram(node, "CategoryCode"));
    t.exemptionReason = text(ram(node, "ExemptionReason"));
    t.exemptionReasonCode = text(ram(node, "ExemptionReasonCode"));
    return t;
  }

  void allowance(pugi::xml_node node) const {
    std::optional<LMDecimal> amount = r_->amount(ram(node, "ActualAmount"), u"allowance amount");
    if (!amount) return;
    LMEInvoiceAllowance a;
    pugi::xml_node indicator = ram(node, "ChargeIndicator");
    a.charge = text(indicator.first_child()).value_or(u"") == u"true";
    a.amount = *amount;
    a.rate = r_->amount(ram(node, "CalculationPercent"), u"allowance percent");
    a.basis = r_->amount(ram(node, "BasisAmount"), u"allowance basis");
    a.taxRate = rate(ram(node, "CategoryTradeTax"), u"allowance tax rate");
    a.reason = text(ram(node, "Reason"));
    r_->invoice.allowances.push_back(std::move(a));
  }

  void logisticsCharge(pugi::xml_node node) const {
    std::optional<LMDecimal> amount = r_->amount(ram(node, "AppliedAmount"), u"charge amount");
    if (!amount) return;
    LMEInvoiceAllowance a;
    a.charge = true;
    a.amount = *amount;
    a.taxRate = rate(ram(node, "AppliedTradeTax"), u"charge tax rate");
    a.reason = text(ram(node, "Description"));
    r_->invoice.allowances.push_back(std::move(a));
  }

  pugi::xml_node root_;
  bool v1_;
  std::string_view rsm_;
  std::string_view ram_;
  Reading* r_;
};

}  // namespace

void readCII(pugi::xml_node root, bool v1, Reading* reading) {
  CIIReader(root, v1, reading).read();
}

}  // namespace lm_einvoice
