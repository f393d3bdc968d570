#include "einvoice/einvoice.h"

#include <array>
#include <cstdio>
#include <string_view>

#include <pugixml.hpp>

#include "einvoice/checks.h"
#include "einvoice/reader.h"
#include "einvoice/xml_tree.h"
#include "kit/strings.h"
#include "kit/unicode.h"

using namespace lm_einvoice;

namespace {

// The root local names that mean "an invoice", whatever their namespace.
constexpr std::array<std::string_view, 4> kInvoiceRoots = {
    "CrossIndustryInvoice", "CrossIndustryDocument", "Invoice", "CreditNote"};

std::u16string u16(std::string_view s) { return lmUtf16(s); }

struct Parsed {
  pugi::xml_document document;
  pugi::xml_node root;
  LMEInvoiceSyntax syntax = LMEInvoiceSyntax::kNone;
  std::u16string failure;
};

// A DOCTYPE in the prolog is refused outright: an invoice needs none, and
// it is where entity tricks live. Only the prolog is scanned (declaration,
// comments, processing instructions), up to the root element's start.
bool hasDoctype(std::string_view xml) {
  size_t at = 0;
  while ((at = xml.find('<', at)) != std::string_view::npos) {
    std::string_view rest = xml.substr(at);
    if (rest.starts_with("<?")) {
      at = xml.find("?>", at);
    } else if (rest.starts_with("<!--")) {
      at = xml.find("-->", at);
    } else {
      return rest.starts_with("<!");
    }
    if (at == std::string_view::npos) return false;
  }
  return false;
}

// Until the root is recognised, the bytes count as no readable XML.
void parse(std::span<const uint8_t> bytes, Parsed* out) {
  out->syntax = LMEInvoiceSyntax::kNotXml;
  if (bytes.size() > kLMEInvoiceMaxBytes) {
    out->failure = u"over the size limit (" + u16(std::to_string(bytes.size())) + u" bytes)";
    return;
  }
  std::string_view xml(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  if (xml.starts_with("\xEF\xBB\xBF")) xml.remove_prefix(3);
  if (hasDoctype(xml)) {
    out->failure = u"not accepted: a document type declaration";
    return;
  }
  // pugixml expands only the predefined entities and character references.
  const pugi::xml_parse_result result =
      out->document.load_buffer(xml.data(), xml.size(), pugi::parse_default, pugi::encoding_utf8);
  if (!result) {
    out->failure = u"not XML: " + u16(result.description()) + u" at byte " +
                   u16(std::to_string(result.offset));
    return;
  }
  int roots = 0;
  for (pugi::xml_node n = out->document.first_child(); n; n = n.next_sibling()) {
    if (n.type() != pugi::node_element) continue;
    if (++roots == 1) out->root = n;
  }
  if (roots != 1) {
    out->failure = roots == 0 ? u"not XML: no root element" : u"more than one root element";
    return;
  }
  // Namespace lookups read the attributes of an element's ancestors; the
  // bound on both keeps every lookup cheap.
  const TreeShape shape = measure(out->root, kLMEInvoiceMaxDepth);
  if (shape.depth > kLMEInvoiceMaxDepth) {
    out->failure = u"nested deeper than " + u16(std::to_string(kLMEInvoiceMaxDepth)) + u" elements";
    return;
  }
  if (shape.attributes > kLMEInvoiceMaxAttributes) {
    out->failure = u"more than " + u16(std::to_string(kLMEInvoiceMaxAttributes)) +
                   u" attributes on one element";
    return;
  }
  const std::string_view local = localName(out->root);
  const std::string_view ns = namespaceUri(out->root);
  if (local == "CrossIndustryInvoice" && ns == kCIIRoot) {
    out->syntax = LMEInvoiceSyntax::kCII;
  } else if (local == "CrossIndustryDocument" && ns == kCII10Root) {
    out->syntax = LMEInvoiceSyntax::kCII10;
  } else if ((local == "Invoice" && ns == kUBLInvoice) ||
             (local == "CreditNote" && ns == kUBLCreditNote)) {
    out->syntax = LMEInvoiceSyntax::kUBL;
  } else {
    bool invoiceLike = false;
    for (std::string_view name : kInvoiceRoots) invoiceLike = invoiceLike || name == local;
    out->syntax = invoiceLike ? LMEInvoiceSyntax::kUnsupported : LMEInvoiceSyntax::kNone;
    out->failure = (invoiceLike ? u"unsupported syntax: " : u"not an e-invoice: ") +
                   u16(ns.empty() ? std::string_view("no namespace") : ns) + u" " + u16(local);
  }
}

}  // namespace

std::u16string LMEInvoiceDay::isoString() const {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d", year, month, day);
  return lmUtf16(buffer);
}

LMDecimal LMEInvoice::signedAmount(const LMDecimal& amount) const {
  if (!isCreditNote()) return amount;
  return amount.isNegative() ? amount : -amount;
}

std::u16string lmEInvoiceKind(std::u16string_view typeCode) {
  static constexpr std::u16string_view kCreditNotes[] = {u"381", u"261", u"262", u"296", u"308",
                                                         u"396", u"420", u"458", u"532"};
  for (std::u16string_view code : kCreditNotes) {
    if (code == typeCode) return u"credit-note";
  }
  return u"invoice";
}

LMEInvoiceSyntax lmRecognizeEInvoice(std::span<const uint8_t> xml) {
  Parsed parsed;
  parse(xml, &parsed);
  return parsed.syntax;
}

LMEInvoiceReading lmReadEInvoice(std::span<const uint8_t> xml) {
  LMEInvoiceReading result;
  Parsed parsed;
  parse(xml, &parsed);
  if (!parsed.failure.empty()) {
    result.failure = parsed.failure;
    return result;
  }
  Reading reading;
  if (parsed.syntax == LMEInvoiceSyntax::kUBL) {
    readUBL(parsed.root, &reading);
  } else {
    readCII(parsed.root, parsed.syntax == LMEInvoiceSyntax::kCII10, &reading);
  }
  const LMEInvoice& invoice = reading.invoice;
  if (!invoice.gross) reading.fail(u"missing total: gross");
  result.checks = std::move(reading.fieldChecks);
  if (!reading.failure.empty()) {
    result.failure = std::move(reading.failure);
    return result;
  }
  std::vector<LMEInvoiceCheck> checks = lmCheckEInvoice(invoice);
  result.checks.insert(result.checks.begin(), checks.begin(), checks.end());
  result.invoice = std::move(reading.invoice);
  return result;
}
