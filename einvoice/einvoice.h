// The e-invoice reader: a typed record of an invoice's XML (UN/CEFACT CII,
// its 1.0 predecessor, UBL 2.1 invoices and credit notes) and the arithmetic
// checks over it.
//
// The record keeps every value as the XML writes it: amounts keep their sign
// and their places, texts are trimmed of surrounding white space. A credit
// note is not negated here; LMEInvoice::isCreditNote() says whether it is one
// and signedAmount() gives an amount signed the way a bookkeeper enters it.
//
// Money is exact (LMDecimal, read from the text, never through a float).
// Nothing here throws on bad input; the reader bounds the size and nesting
// depth it accepts. All functions are thread-safe (no shared state).
#pragma once
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kit/decimal.h"

// A calendar day as the document writes it (no time, no time zone).
struct LMEInvoiceDay {
  int32_t year = 0;
  int32_t month = 0;
  int32_t day = 0;

  // "YYYY-MM-DD".
  std::u16string isoString() const;
  friend bool operator==(const LMEInvoiceDay&, const LMEInvoiceDay&) = default;
};

// An amount with the element it was read from: the qualified names of the
// elements from the root down, as the document writes them, e.g.
// "/rsm:CrossIndustryInvoice/rsm:SupplyChainTradeTransaction/…/ram:GrandTotalAmount".
struct LMEInvoiceAmount {
  LMDecimal value;
  std::string path;
};

struct LMEInvoiceParty {
  std::optional<std::u16string> name;
  // The VAT identifier (a tax registration with scheme "VA" in CII, the party
  // tax scheme "VAT" in UBL); nullopt when the party has none.
  std::optional<std::u16string> vatId;
  // The postal address in one line: street lines, postcode and city, country
  // code, joined with ", ".
  std::optional<std::u16string> address;
  // Only the seller carries one: the IBAN of the first payee account.
  std::optional<std::u16string> iban;
};

struct LMEInvoiceLine {
  std::optional<std::u16string> id;
  std::optional<std::u16string> name;
  std::optional<LMDecimal> quantity;
  // The net price of one unit (of the price's base quantity).
  std::optional<LMDecimal> unitPrice;
  // The line's net amount.
  std::optional<LMDecimal> net;
  // The tax rate in percent.
  std::optional<LMDecimal> rate;
  // Set for a line that details another (a sub-line): the parent's id. Only
  // lines without a parent add up to the line total.
  std::optional<std::u16string> parentId;
};

// A document-level allowance (charge false) or charge (charge true).
struct LMEInvoiceAllowance {
  bool charge = false;
  LMDecimal amount;
  // Percent of `basis`, when the document states it.
  std::optional<LMDecimal> rate;
  std::optional<LMDecimal> basis;
  // The tax rate the allowance or charge falls under.
  std::optional<LMDecimal> taxRate;
  std::optional<std::u16string> reason;
};

// One entry of the per-rate tax breakdown.
struct LMEInvoiceTax {
  // Percent; nullopt when the entry states none (some exempt categories).
  std::optional<LMDecimal> rate;
  std::optional<LMDecimal> basis;
  std::optional<LMDecimal> amount;
  // UNCL 5305 category code ("S", "Z", "E", "AE", "K", "G", "O", "L", "M").
  std::optional<std::u16string> category;
  std::optional<std::u16string> exemptionReason;
  std::optional<std::u16string> exemptionReasonCode;
};

struct LMEInvoice {
  // "CII", "UBL" or "CII-1.0".
  std::u16string syntax;
  // "MINIMUM", "BASIC WL", "BASIC", "EN 16931", "EXTENDED", "XRECHNUNG",
  // "PEPPOL BIS 3"; nullopt when the identifier below is unknown or absent.
  std::optional<std::u16string> profile;
  // The guideline (CII) or customization (UBL) identifier as written; empty
  // when absent.
  std::u16string profileId;
  // The UNTDID 1001 document type code as written ("380", "381", ...); for a
  // UBL credit note without a code "381".
  std::u16string typeCode;
  // "invoice" or "credit-note" (see lmEInvoiceKind).
  std::u16string kind;

  std::optional<std::u16string> number;
  std::optional<LMEInvoiceDay> issueDate;
  std::optional<LMEInvoiceDay> dueDate;
  // The document currency (ISO 4217, three capital letters).
  std::u16string currency;
  // The tax accounting currency when the document names one that differs
  // from `currency`; the tax in it is `taxInTaxCurrency`.
  std::optional<std::u16string> taxCurrency;
  // Paths (see LMEInvoiceAmount) of the values above; empty when absent.
  std::string numberPath, issueDatePath, dueDatePath, currencyPath;

  LMEInvoiceParty seller;
  LMEInvoiceParty buyer;
  std::vector<LMEInvoiceLine> lines;
  std::vector<LMEInvoiceAllowance> allowances;  // allowances and charges, in document order
  std::vector<LMEInvoiceTax> taxes;

  // The totals, each as written. `tax` is in the document currency (when the
  // document states tax totals in two currencies, the one in `currency`).
  std::optional<LMEInvoiceAmount> lineTotal;       // sum of line net amounts
  std::optional<LMEInvoiceAmount> allowanceTotal;  // document-level allowances
  std::optional<LMEInvoiceAmount> chargeTotal;     // document-level charges
  std::optional<LMEInvoiceAmount> net;             // total without tax
  std::optional<LMEInvoiceAmount> tax;             // total tax
  std::optional<LMEInvoiceAmount> taxInTaxCurrency;
  std::optional<LMEInvoiceAmount> gross;           // total with tax
  std::optional<LMEInvoiceAmount> prepaid;
  std::optional<LMEInvoiceAmount> rounding;
  std::optional<LMEInvoiceAmount> due;             // amount payable

  bool isCreditNote() const { return kind == u"credit-note"; }
  // `amount` as a bookkeeper enters it: for a credit note always negative
  // (or zero) whichever sign the document writes; otherwise unchanged.
  LMDecimal signedAmount(const LMDecimal& amount) const;
};

// The result of a check over the record. Names: "lines-sum", "net-total",
// "tax-total", "rate-tax", "gross-total", "due-total", and "field" for an
// optional value that could not be read (the detail names it).
struct LMEInvoiceCheck {
  std::u16string name;
  bool ok = false;
  // The numbers compared, e.g. "1 + 2 = 3" or "gross 10.00 != net 8.00 + tax 1.00".
  std::u16string detail;
};

struct LMEInvoiceReading {
  // Present when the XML is a supported e-invoice with its totals; then
  // `failure` is empty.
  std::optional<LMEInvoice> invoice;
  // The checks that apply, in a fixed order; also the "field" checks of
  // optional values left null. A failed check does not change any value.
  std::vector<LMEInvoiceCheck> checks;
  // Why there is no usable record ("not XML: …", "unsupported syntax: …",
  // "over the size limit", "missing total: gross", ...); empty when usable.
  std::u16string failure;
};

// What the root element says about the XML, without reading it further.
enum class LMEInvoiceSyntax {
  kNone,         // well-formed XML of another kind
  kUnsupported,  // an invoice-like root in a namespace this reader does not read
  kCII,
  kCII10,
  kUBL,
  kNotXml,       // not well-formed XML, or over a limit
};

// Limits of the reader; the XML is refused beyond them.
inline constexpr size_t kLMEInvoiceMaxBytes = 16u << 20;
inline constexpr int kLMEInvoiceMaxDepth = 64;
inline constexpr int kLMEInvoiceMaxAttributes = 64;  // on one element

// The syntax of `xml`, from its root element's name and namespace URI alone
// (never from a file name). Bounded like lmReadEInvoice.
LMEInvoiceSyntax lmRecognizeEInvoice(std::span<const uint8_t> xml);

// Reads an e-invoice (UTF-8; a byte-order mark is skipped). Never throws.
// Bytes over kLMEInvoiceMaxBytes, elements nested deeper than
// kLMEInvoiceMaxDepth or with more than kLMEInvoiceMaxAttributes attributes,
// a document type declaration, no XML, an unsupported root, a second
// invoice in the file, a missing gross total, any stated total that is not a
// number (see below) or is stated twice, or a missing or malformed currency
// give a reading without a record and the failure text. Field checks found
// before the failure stay in `checks`.
// Other totals may be absent (null). A bad optional value (an impossible due
// date, a line amount that is no number) is left null and listed as a
// failed "field" check.
//
// Numbers are read as XML writes decimals: an optional sign, digits and at
// most one point, at most 18 digits; anything else is not a number.
LMEInvoiceReading lmReadEInvoice(std::span<const uint8_t> xml);

// "credit-note" for the UNTDID 1001 credit-note codes (381, 261, 262, 296,
// 308, 396, 420, 458, 532), otherwise "invoice" (380, 383, 384, 386, 389,
// 751, ...).
std::u16string lmEInvoiceKind(std::u16string_view typeCode);
