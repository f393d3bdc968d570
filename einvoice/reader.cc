#include "einvoice/reader.h"

#include "einvoice/xml_tree.h"
#include "kit/strings.h"
#include "kit/unicode.h"

namespace lm_einvoice {

void Reading::fail(std::u16string why) {
  if (failure.empty()) failure = std::move(why);
}

std::optional<LMDecimal> Reading::amount(pugi::xml_node node, const char16_t* field) {
  Number n = number(node);
  if (n.state == Number::State::kBad) {
    fieldChecks.push_back(
        {u"field", false, std::u16string(field) + u": cannot read \"" + n.written + u"\""});
  }
  if (n.state != Number::State::kOk) return std::nullopt;
  return n.value;
}

std::optional<LMEInvoiceAmount> Reading::total(pugi::xml_node node, const char16_t* field,
                                               bool single) {
  if (single && node && nextSame(node, namespaceUri(node), localName(node))) {
    fail(u"total stated twice: " + std::u16string(field));
    return std::nullopt;
  }
  Number n = number(node);
  if (n.state == Number::State::kBad) {
    fail(u"unreadable total: " + std::u16string(field) + u" \"" + n.written + u"\"");
  }
  if (n.state != Number::State::kOk) return std::nullopt;
  return LMEInvoiceAmount{n.value, path(node)};
}

std::optional<LMEInvoiceDay> Reading::date(pugi::xml_node node, const char16_t* field,
                                           std::string* where) {
  bool present = false;
  std::optional<LMEInvoiceDay> value = day(node, &present);
  if (present && !value) {
    pugi::xml_node inner = node.find_child([](pugi::xml_node n) {
      return n.type() == pugi::node_element;
    });
    fieldChecks.push_back({u"field", false,
                           std::u16string(field) + u": cannot read \"" +
                               text(inner ? inner : node).value_or(u"") + u"\""});
  }
  if (value) *where = path(node);
  return value;
}

void Reading::currency(pugi::xml_node node) {
  std::optional<std::u16string> code = text(node);
  if (!code) return fail(u"missing currency");
  bool ok = code->size() == 3;
  for (char16_t c : *code) ok = ok && c >= u'A' && c <= u'Z';
  if (!ok) return fail(u"unreadable currency \"" + *code + u"\"");
  invoice.currency = *code;
  invoice.currencyPath = path(node);
}

pugi::xml_node Reading::taxTotals(const std::vector<pugi::xml_node>& candidates) {
  pugi::xml_node chosen, inTaxCurrency;
  const std::string currency = lmUtf8(invoice.currency);
  const std::string taxCurrency = lmUtf8(invoice.taxCurrency.value_or(u""));
  for (pugi::xml_node n : candidates) {
    const std::string_view id = n.attribute("currencyID").value();
    if (!taxCurrency.empty() && id == taxCurrency) {
      if (!inTaxCurrency) inTaxCurrency = n;
    } else if ((id.empty() || id == currency) && !chosen) {
      chosen = n;
    }
  }
  // One per currency may stand side by side.
  if (chosen) invoice.tax = total(chosen, u"tax", false);
  if (inTaxCurrency) {
    invoice.taxInTaxCurrency = total(inTaxCurrency, u"tax in tax currency", false);
  }
  return chosen;
}

std::optional<std::u16string> profileName(std::u16string_view id) {
  const std::u16string lower = lmLower(id);
  auto endsWith = [&](std::u16string_view suffix) { return lower.ends_with(suffix); };
  if (lower.find(u"xrechnung") != std::u16string::npos) return u"XRECHNUNG";
  if (lower.find(u"peppol") != std::u16string::npos) return u"PEPPOL BIS 3";
  if (endsWith(u":minimum")) return u"MINIMUM";
  if (endsWith(u":basicwl")) return u"BASIC WL";
  if (endsWith(u":basic")) return u"BASIC";
  if (endsWith(u":extended")) return u"EXTENDED";
  if (lower == u"urn:cen.eu:en16931:2017" || endsWith(u":en16931")) return u"EN 16931";
  return std::nullopt;
}

std::optional<std::u16string> joined(const std::vector<std::optional<std::u16string>>& parts) {
  std::u16string out;
  for (const auto& part : parts) {
    if (!part || part->empty()) continue;
    if (!out.empty()) out += u", ";
    out += *part;
  }
  if (out.empty()) return std::nullopt;
  return out;
}

}  // namespace lm_einvoice
