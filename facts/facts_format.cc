#include "facts/facts_format.h"

#include <array>

#include "kit/unicode.h"

namespace {

// Money keys wherever they stand in the facts dictionary (only decimals
// under them are money: "text" is also evidence's printed text).
bool isMoneyKey(std::u16string_view key) {
  static constexpr std::array<std::u16string_view, 9> kKeys = {
      u"gross", u"net", u"tax", u"due", u"amount", u"unitPrice", u"value", u"eInvoice", u"text"};
  for (std::u16string_view k : kKeys) {
    if (k == key) return true;
  }
  return false;
}

LMValue project(const LMValue& value, bool money, int places) {
  if (const LMDecimal* d = value.asDecimal()) {
    return LMValue(money ? lmMoneyText(*d, places) : d->stringValue16());
  }
  if (const LMDictionary* dictionary = value.asDictionary()) {
    LMDictionary out;
    out.reserve(dictionary->size());
    for (const auto& e : *dictionary) {
      out.emplace(e.key, project(e.value, isMoneyKey(e.key.view()), places));
    }
    return LMValue(std::move(out));
  }
  if (const LMArray* array = value.asArray()) {
    LMArray out;
    out.reserve(array->size());
    for (const LMValue& e : *array) out.push_back(project(e, money, places));
    return LMValue(std::move(out));
  }
  return value.jsonObject();
}

std::string moneyOrDash(const LMDictionary& facts, std::u16string_view key, int places) {
  const LMDecimal* d = facts.at(key).asDecimal();
  return d ? lmUtf8(lmMoneyText(*d, places)) : "-";
}

// " ?" marks a known value with weak evidence.
std::string doubt(const LMDictionary& facts, std::u16string_view key) {
  if (facts.at(key).isNull() || facts.at(key).isNil()) return "";
  const LMValue* score = facts.at(u"evidence").key(key);
  score = score ? score->key(u"score") : nullptr;
  if (!score) return "";
  const double value = score->asDouble() ? *score->asDouble() : static_cast<double>(score->toInt());
  return value < 0.5 ? "?" : "";
}

}  // namespace

int lmCurrencyMinorUnit(std::u16string_view code) {
  static constexpr std::array<std::u16string_view, 16> kNoMinor = {
      u"BIF", u"CLP", u"DJF", u"GNF", u"ISK", u"JPY", u"KMF", u"KRW",
      u"PYG", u"RWF", u"UGX", u"UYI", u"VND", u"VUV", u"XAF", u"XOF"};
  static constexpr std::array<std::u16string_view, 7> kThree = {
      u"BHD", u"IQD", u"JOD", u"KWD", u"LYD", u"OMR", u"TND"};
  for (std::u16string_view c : kNoMinor) {
    if (c == code) return 0;
  }
  for (std::u16string_view c : kThree) {
    if (c == code) return 3;
  }
  return 2;
}

std::u16string lmMoneyText(const LMDecimal& value, int places) {
  std::u16string text = value.stringValue16();
  if (value.isNaN()) return text;
  size_t point = text.find(u'.');
  if (point != std::u16string::npos) {
    // Trailing zeros beyond the minor unit say nothing.
    size_t keep = text.size();
    while (keep > point + 1 + static_cast<size_t>(places) && text[keep - 1] == u'0') --keep;
    text.resize(keep);
    if (text.back() == u'.') text.pop_back();
  }
  if (places <= 0) return text;
  point = text.find(u'.');
  if (point == std::u16string::npos) {
    text += u'.';
    point = text.size() - 1;
  }
  const size_t have = text.size() - point - 1;
  if (have < static_cast<size_t>(places)) text.append(static_cast<size_t>(places) - have, u'0');
  return text;
}

LMValue lmFactsJSONObject(const LMDictionary& facts) {
  const std::u16string* currency = facts.at(u"currency").asString();
  return project(LMValue(facts), false, lmCurrencyMinorUnit(currency ? *currency : u""));
}

std::string lmFactsSummary(std::string_view file, const LMDictionary& facts) {
  const std::u16string* currency = facts.at(u"currency").asString();
  const int places = lmCurrencyMinorUnit(currency ? *currency : u"");
  const std::u16string* date = facts.at(u"issueDate").asString();
  const std::u16string* source = facts.at(u"source").asString();
  std::string line = std::string(file) + ": gross " + moneyOrDash(facts, u"gross", places) +
                     doubt(facts, u"gross") + " net " + moneyOrDash(facts, u"net", places) +
                     doubt(facts, u"net") + " tax " + moneyOrDash(facts, u"tax", places) +
                     doubt(facts, u"tax") + " " + (currency ? lmUtf8(*currency) : "-") +
                     doubt(facts, u"currency") + " date " + (date ? lmUtf8(*date) : "-") +
                     doubt(facts, u"issueDate") + " (" + (source ? lmUtf8(*source) : "-") + ")";
  if (const LMArray* conflicts = facts.at(u"conflicts").asArray()) {
    for (const LMValue& c : *conflicts) {
      const std::u16string field = c.at(u"field").toString();
      const LMValue& value = c.at(u"eInvoice");
      const std::string shown = value.asDecimal() ? lmUtf8(lmMoneyText(*value.asDecimal(), places))
                                                  : lmUtf8(value.toString());
      line += "; ! " + lmUtf8(field) + ": e-invoice " + shown + " not on the page";
    }
  }
  if (const LMArray* checks = facts.at(u"checks").asArray()) {
    for (const LMValue& c : *checks) {
      if (!c.at(u"ok").isTrue()) line += "; ! check " + lmUtf8(c.at(u"name").toString()) + " failed";
    }
  }
  return line;
}
