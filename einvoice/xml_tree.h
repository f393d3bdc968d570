// The reader's view of a parsed XML document: elements found by namespace
// URI and local name (pugixml keeps names as written and knows no
// namespaces, so prefixes are resolved here), element paths, and typed
// values read strictly from element text.
//
// Internal to the e-invoice reader. Every walk is bounded: the tree is only
// accepted when no element is nested deeper than kLMEInvoiceMaxDepth.
#pragma once
#include <optional>
#include <string>
#include <string_view>

#include <pugixml.hpp>

#include "einvoice/einvoice.h"
#include "kit/decimal.h"

namespace lm_einvoice {

// The local part of a qualified name ("ram:ID" -> "ID").
std::string_view localName(pugi::xml_node node);
// The namespace URI of `node`'s prefix (or of the default namespace),
// looked up on the element and its ancestors; empty when undeclared.
std::string_view namespaceUri(pugi::xml_node node);

// The first child element with this namespace and local name; an empty node
// when there is none.
pugi::xml_node child(pugi::xml_node parent, std::string_view ns, std::string_view local);
// The next sibling element after `node` with the same namespace and local name.
pugi::xml_node nextSame(pugi::xml_node node, std::string_view ns, std::string_view local);
// How many child elements have this namespace and local name.
int countChildren(pugi::xml_node parent, std::string_view ns, std::string_view local);

// "/rsm:Root/ram:Child/..." from the root element down to `node`.
std::string path(pugi::xml_node node);

// The greatest element nesting depth below `root` (root alone is 1) and the
// most attributes any element has, found without recursion; stops when the
// depth passes `depthLimit`.
struct TreeShape {
  int depth = 0;
  int attributes = 0;
};
TreeShape measure(pugi::xml_node root, int depthLimit);

// The element's text without surrounding white space; nullopt when the
// element is absent or the text is empty.
std::optional<std::u16string> text(pugi::xml_node node);

// An amount, quantity or percentage as XML writes a decimal: an optional
// sign, digits with an optional point, nothing else (white space around is
// allowed). More than kMaxDigits digits in all, or no digit, is not a number.
struct Number {
  enum class State { kAbsent, kBad, kOk } state = State::kAbsent;
  LMDecimal value;
  std::u16string written;  // the text as found, for messages
};
inline constexpr int kMaxDigits = 18;
Number number(pugi::xml_node node);
// The number's value, nullopt when absent or bad.
std::optional<LMDecimal> optionalNumber(pugi::xml_node node);

// A day from "YYYYMMDD" (CII format 102; also without a format attribute)
// or "YYYY-MM-DD" (UBL), checked against the calendar. `present` tells a
// missing element from an unreadable one.
std::optional<LMEInvoiceDay> day(pugi::xml_node node, bool* present);

// Money as text with at least two places ("473.00", "0.125", "-8.79").
std::u16string money(const LMDecimal& value);

}  // namespace lm_einvoice
