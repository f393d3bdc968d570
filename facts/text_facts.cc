#include "facts/text_facts.h"

#include <cmath>

#include "kit/date.h"

namespace {

// The standard analysis's choice comes from one rule with no arithmetic
// behind it: below the summary line's threshold of doubt.
constexpr double kStandardChoiceScore = 0.3;

template <typename Element, typename Match>
const Element* firstElement(const std::optional<std::vector<std::shared_ptr<Element>>>& elements,
                            Match match) {
  if (!elements) return nullptr;
  for (const auto& e : *elements) {
    if (e && match(*e)) return e.get();
  }
  return nullptr;
}

LMDictionary valueEvidence(const LMFoundElement* element) {
  if (element) return lmTextEvidence(*element, kStandardChoiceScore);
  return LMDictionary{{u"source", u"text"},  {u"page", LMValue::null()},
                      {u"box", LMValue::null()}, {u"anchor", LMValue::null()},
                      {u"text", LMValue::null()}, {u"score", kStandardChoiceScore},
                      {u"alternatives", LMArray()}};
}

}  // namespace

LMDictionary lmTextEvidence(const LMFoundElement& element, double score, LMValue anchor) {
  const LMRect box = element.bbox().standardized();
  const LMRect page = element.pageBox().standardized();
  // Hundredths of a point are finer than any print.
  auto points = [](double v) { return std::round(v * 100) / 100; };
  const double top = page.maxY() - box.maxY();
  return LMDictionary{
      {u"source", u"text"},
      {u"page", element.page()},
      {u"box", LMArray{points(box.x - page.x), points(top), points(box.width), points(box.height)}},
      {u"anchor", std::move(anchor)},
      {u"text", element.string() ? LMValue(*element.string()) : LMValue::null()},
      {u"score", score},
      {u"alternatives", LMArray()},
  };
}

LMFacts lmTextFacts(const LMReceiptParser& parser) {
  LMFacts facts;
  if (!parser.text() || parser.text()->empty()) {
    facts.checks.push_back({u"page-text", false, u"no page text"});
    return facts;
  }
  facts.source = u"text";
  if (const auto& gross = parser.gross()) {
    facts.gross = *gross;
    facts.evidence.set(u"gross", valueEvidence(firstElement(parser.numbers(), [&](const LMFoundNumber& n) {
                         return n.decimalNumber() == *gross;
                       })));
  }
  if (const std::u16string* code = parser.currency().asString(); code && !code->empty()) {
    facts.currency = *code;
    facts.evidence.set(u"currency",
                       valueEvidence(firstElement(parser.currencyFindings(), [&](const LMFoundElement& e) {
                         return e.key() == *code;
                       })));
  }
  if (const auto& date = parser.date()) {
    facts.issueDate = date->descriptionDate();
    facts.evidence.set(u"issueDate", valueEvidence(firstElement(parser.dates(), [&](const LMFoundDate& d) {
                         return d.date() && d.date()->descriptionDate() == *facts.issueDate;
                       })));
  }
  return facts;
}
