#include "einvoice/xml_tree.h"

#include <algorithm>

#include "kit/strings.h"
#include "kit/unicode.h"

namespace lm_einvoice {
namespace {

std::string_view prefixOf(std::string_view name) {
  const size_t colon = name.find(':');
  return colon == std::string_view::npos ? std::string_view() : name.substr(0, colon);
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && isSpace(s.front())) s.remove_prefix(1);
  while (!s.empty() && isSpace(s.back())) s.remove_suffix(1);
  return s;
}

bool matches(pugi::xml_node node, std::string_view ns, std::string_view local) {
  return node.type() == pugi::node_element && localName(node) == local &&
         namespaceUri(node) == ns;
}

bool allDigits(std::string_view s) {
  if (s.empty()) return false;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

int toInt(std::string_view s) {
  int n = 0;
  for (char c : s) n = n * 10 + (c - '0');
  return n;
}

bool isLeap(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

bool validDay(int year, int month, int day) {
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (year < 1 || month < 1 || month > 12 || day < 1) return false;
  const int last = kDays[month - 1] + (month == 2 && isLeap(year) ? 1 : 0);
  return day <= last;
}

}  // namespace

std::string_view localName(pugi::xml_node node) {
  std::string_view name = node.name();
  const size_t colon = name.find(':');
  return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

std::string_view namespaceUri(pugi::xml_node node) {
  const std::string_view prefix = prefixOf(node.name());
  std::string attribute = prefix.empty() ? "xmlns" : "xmlns:" + std::string(prefix);
  // The tree's depth is bounded before any lookup, so this walk is too.
  for (pugi::xml_node n = node; n && n.type() == pugi::node_element; n = n.parent()) {
    if (pugi::xml_attribute a = n.attribute(attribute.c_str())) return a.value();
  }
  return {};
}

pugi::xml_node child(pugi::xml_node parent, std::string_view ns, std::string_view local) {
  for (pugi::xml_node n = parent.first_child(); n; n = n.next_sibling()) {
    if (matches(n, ns, local)) return n;
  }
  return {};
}

pugi::xml_node nextSame(pugi::xml_node node, std::string_view ns, std::string_view local) {
  for (pugi::xml_node n = node.next_sibling(); n; n = n.next_sibling()) {
    if (matches(n, ns, local)) return n;
  }
  return {};
}

int countChildren(pugi::xml_node parent, std::string_view ns, std::string_view local) {
  int count = 0;
  for (pugi::xml_node n = child(parent, ns, local); n; n = nextSame(n, ns, local)) ++count;
  return count;
}

std::string path(pugi::xml_node node) {
  std::string result;
  for (pugi::xml_node n = node; n && n.type() == pugi::node_element; n = n.parent()) {
    result.insert(0, std::string("/") + n.name());
  }
  return result;
}

TreeShape measure(pugi::xml_node root, int depthLimit) {
  TreeShape shape;
  int level = 1;
  pugi::xml_node n = root;
  while (n) {
    shape.depth = std::max(shape.depth, level);
    if (shape.depth > depthLimit) return shape;
    int attributes = 0;
    for (pugi::xml_attribute a = n.first_attribute(); a; a = a.next_attribute()) ++attributes;
    shape.attributes = std::max(shape.attributes, attributes);
    pugi::xml_node first = n.first_child();
    while (first && first.type() != pugi::node_element) first = first.next_sibling();
    if (first) {
      n = first;
      ++level;
      continue;
    }
    // Up until a node has a next element sibling, never above the root.
    while (n && n != root) {
      pugi::xml_node next = n.next_sibling();
      while (next && next.type() != pugi::node_element) next = next.next_sibling();
      if (next) {
        n = next;
        break;
      }
      n = n.parent();
      --level;
    }
    if (n == root) break;
  }
  return shape;
}

std::optional<std::u16string> text(pugi::xml_node node) {
  if (!node) return std::nullopt;
  std::u16string value = lmStrip(lmUtf16(node.child_value()));
  if (value.empty()) return std::nullopt;
  return value;
}

Number number(pugi::xml_node node) {
  Number result;
  if (!node) return result;
  const std::string_view raw = trimmed(node.child_value());
  result.written = lmUtf16(raw);
  result.state = Number::State::kBad;
  std::string_view s = raw;
  if (!s.empty() && (s.front() == '+' || s.front() == '-')) s.remove_prefix(1);
  int digits = 0;
  int points = 0;
  bool leading = true;
  for (char c : s) {
    if (c == '.') {
      ++points;
    } else if (c >= '0' && c <= '9') {
      if (c != '0' || !leading || points > 0) ++digits;
      if (c != '0') leading = false;
    } else {
      return result;
    }
  }
  const bool anyDigit = s.find_first_of("0123456789") != std::string_view::npos;
  if (!anyDigit || points > 1 || digits > kMaxDigits) return result;
  std::optional<LMDecimal> value = LMDecimal::fromString(raw);
  if (!value || value->isNaN()) return result;
  result.value = *value;
  result.state = Number::State::kOk;
  return result;
}

std::optional<LMDecimal> optionalNumber(pugi::xml_node node) {
  Number n = number(node);
  if (n.state != Number::State::kOk) return std::nullopt;
  return n.value;
}

std::optional<LMEInvoiceDay> day(pugi::xml_node node, bool* present) {
  *present = false;
  if (!node) return std::nullopt;
  // CII wraps the text in a DateTimeString (or DateString) with a format.
  pugi::xml_node textNode = node;
  for (pugi::xml_node n = node.first_child(); n; n = n.next_sibling()) {
    if (n.type() == pugi::node_element) {
      textNode = n;
      break;
    }
  }
  const std::string_view s = trimmed(textNode.child_value());
  if (s.empty() && textNode == node) return std::nullopt;
  *present = true;
  const std::string_view format = textNode.attribute("format").value();
  int year = 0, month = 0, dayOfMonth = 0;
  if (s.size() == 8 && allDigits(s) && (format.empty() || format == "102")) {
    year = toInt(s.substr(0, 4));
    month = toInt(s.substr(4, 2));
    dayOfMonth = toInt(s.substr(6, 2));
  } else if (s.size() == 10 && s[4] == '-' && s[7] == '-' && allDigits(s.substr(0, 4)) &&
             allDigits(s.substr(5, 2)) && allDigits(s.substr(8, 2)) && format.empty()) {
    year = toInt(s.substr(0, 4));
    month = toInt(s.substr(5, 2));
    dayOfMonth = toInt(s.substr(8, 2));
  } else {
    return std::nullopt;
  }
  if (!validDay(year, month, dayOfMonth)) return std::nullopt;
  return LMEInvoiceDay{year, month, dayOfMonth};
}

std::u16string money(const LMDecimal& value) {
  std::string s = value.stringValue();
  if (value.isNaN()) return lmUtf16(s);
  const size_t point = s.find('.');
  const size_t places = point == std::string::npos ? 0 : s.size() - point - 1;
  if (point == std::string::npos) s += '.';
  for (size_t i = places; i < 2; ++i) s += '0';
  return lmUtf16(s);
}

}  // namespace lm_einvoice
