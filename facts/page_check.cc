#include "facts/page_check.h"

#include <array>
#include <vector>

#include "kit/date.h"

namespace {

bool isDigit(char16_t c) { return c >= u'0' && c <= u'9'; }

// True when `needle` stands in `text` with no digit (nor a separator that
// continues a number) right before or after it.
bool containsNumber(const std::u16string& text, const std::u16string& needle) {
  for (size_t at = text.find(needle); at != std::u16string::npos; at = text.find(needle, at + 1)) {
    const size_t end = at + needle.size();
    const bool digitBefore =
        at > 0 && (isDigit(text[at - 1]) ||
                   ((text[at - 1] == u'.' || text[at - 1] == u',') && at > 1 && isDigit(text[at - 2])));
    const bool digitAfter =
        end < text.size() &&
        (isDigit(text[end]) ||
         ((text[end] == u'.' || text[end] == u',') && end + 1 < text.size() && isDigit(text[end + 1])));
    if (!digitBefore && !digitAfter) return true;
  }
  return false;
}

std::u16string grouped(const std::u16string& digits, char16_t group) {
  std::u16string out;
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) out += group;
    out += digits[i];
  }
  return out;
}

// The printed forms of a non-negative amount.
std::vector<std::u16string> amountForms(const LMDecimal& amount) {
  std::u16string text = amount.decimalNumberByRoundingToDecimalPlaces(
                                  std::max<int64_t>(2, -static_cast<int64_t>(amount.exponent())))
                            .stringValue16();
  const size_t point = text.find(u'.');
  std::u16string whole = point == std::u16string::npos ? text : text.substr(0, point);
  std::u16string fraction = point == std::u16string::npos ? u"" : text.substr(point + 1);
  while (fraction.size() < 2) fraction += u'0';
  static constexpr std::array<char16_t, 6> kGroups = {u'.', u',', u' ', u'\u00A0', u'\u202F', u'\''};
  std::vector<std::u16string> forms;
  for (char16_t decimalMark : {u',', u'.'}) {
    forms.push_back(whole + decimalMark + fraction);
    if (fraction.find_first_not_of(u'0') == std::u16string::npos) forms.push_back(whole + decimalMark + u'-');
    if (whole.size() <= 3) continue;
    for (char16_t group : kGroups) {
      if (group != decimalMark) forms.push_back(grouped(whole, group) + decimalMark + fraction);
    }
  }
  return forms;
}

}  // namespace

bool lmPageShowsAmount(const LMReceiptParser& parser, const LMDecimal& amount) {
  const LMDecimal wanted = amount.isNegative() ? -amount : amount;
  if (parser.numbers()) {
    for (const auto& n : *parser.numbers()) {
      if (n && n->decimalNumber() == wanted) return true;
    }
  }
  if (!parser.text()) return false;
  for (const std::u16string& form : amountForms(wanted)) {
    if (containsNumber(*parser.text(), form)) return true;
  }
  return false;
}

bool lmPageShowsDay(const LMReceiptParser& parser, const std::u16string& isoDay) {
  if (parser.dates()) {
    for (const auto& d : *parser.dates()) {
      if (d && d->date() && d->date()->descriptionDate() == isoDay) return true;
    }
  }
  if (!parser.text() || isoDay.size() != 10) return false;
  const std::u16string year = isoDay.substr(0, 4), month = isoDay.substr(5, 2), day = isoDay.substr(8, 2);
  const int m = (month[0] - u'0') * 10 + (month[1] - u'0');
  const int d = (day[0] - u'0') * 10 + (day[1] - u'0');
  std::vector<std::u16string> forms = {isoDay, year + month + day, year + u'/' + month + u'/' + day};
  for (char16_t sep : {u'.', u'/', u'-'}) {
    for (const std::u16string& y : {year, year.substr(2)}) {
      forms.push_back(day + sep + month + sep + y);
      forms.push_back(month + sep + day + sep + y);
      // Without leading zeros: "5.3.2024", "3/5/2024".
      const std::u16string shortDay = d < 10 ? day.substr(1) : day;
      const std::u16string shortMonth = m < 10 ? month.substr(1) : month;
      forms.push_back(shortDay + sep + shortMonth + sep + y);
      forms.push_back(shortMonth + sep + shortDay + sep + y);
    }
  }
  for (const std::u16string& form : forms) {
    if (containsNumber(*parser.text(), form)) return true;
  }
  return false;
}

std::optional<bool> lmPageShowsCurrency(const LMReceiptParser& parser, const std::u16string& code) {
  if (!parser.currencyFindings() || parser.currencyFindings()->empty()) return std::nullopt;
  for (const auto& e : *parser.currencyFindings()) {
    if (e && e->key() == code) return true;
  }
  return false;
}
