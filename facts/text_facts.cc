#include "facts/text_facts.h"

#include <algorithm>
#include <cmath>
#include <map>

#include "facts/text_amounts.h"
#include "facts/text_dates.h"
#include "facts/text_layout.h"
#include "kit/date.h"

namespace {

// Scores of the currency rules, best evidence first.
constexpr double kCurrencyNearAmount = 0.95;
constexpr double kCurrencyByCountry = 0.8;   // "$" or "kr" near the amount, the country known
constexpr double kCurrencyGuessedDollar = 0.45;
constexpr double kCurrencySoleMention = 0.85;
constexpr double kCurrencyMostFrequent = 0.65;
constexpr double kCurrencyTask = 0.4;

LMValue anchorText(const LMLabelHit* hit) { return hit ? LMValue(hit->text) : LMValue::null(); }

LMDictionary alternative(const LMFoundElement& e, LMValue value, double score, const LMLabelHit* anchor,
                         std::optional<std::u16string> text = std::nullopt) {
  LMDictionary d = lmTextEvidence(e, score, anchorText(anchor));
  d.remove(u"source");
  d.remove(u"alternatives");
  if (text) d.set(u"text", *text);
  LMDictionary out{{u"value", std::move(value)}};
  for (const LMDictionaryEntry& entry : d) out.set(entry.key.view(), entry.value);
  return out;
}

LMDecimal signedValue(const LMDecimal& magnitude, bool negative) {
  return negative && !magnitude.isZero() ? -magnitude : magnitude;
}

void setAmount(LMFacts& facts, const char16_t* field, std::optional<LMDecimal>& into,
               const std::optional<LMAmountPick>& chosen, const std::vector<LMAmountPick>& runnersUp,
               bool credit) {
  if (!chosen) return;
  into = signedValue(chosen->value, credit);
  LMDictionary evidence = lmTextEvidence(*chosen->element, chosen->score, anchorText(chosen->anchor));
  evidence.set(u"text", chosen->text);
  LMArray alternatives;
  for (const LMAmountPick& p : runnersUp) {
    alternatives.emplace_back(
        alternative(*p.element, signedValue(p.value, credit), p.score, p.anchor, p.text));
  }
  evidence.set(u"alternatives", std::move(alternatives));
  facts.evidence.set(field, std::move(evidence));
}

// Whether an amount of the first page stands on the row of `box`.
bool amountOnRow(const LMReceiptParser& parser, const LMTextLayout& layout, const LMRect& box) {
  auto onRow = [&](const LMFoundNumber& n) { return n.page() == 0 && lmSameRow(n.bbox().standardized(), box); };
  if (parser.numbers()) {
    for (const auto& n : *parser.numbers()) {
      if (n && onRow(*n)) return true;
    }
  }
  for (const auto& n : layout.extraAmounts()) {
    if (onRow(*n)) return true;
  }
  return false;
}

// Credit note: a credit note's title in the upper half of the first page
// (lower, "refund" and "avoir" are as likely the terms' words), or a total
// printed negative. "Gutschrift" alone titles a self-billed invoice. The
// words that also name a line's content ("refund", "Storno", "Erstattung")
// count only where no amount stands on their row: there they describe an
// item, not the document.
bool isCreditNote(const LMReceiptParser& parser, const LMTextLayout& layout, const LMAmountChoice& amounts) {
  if (amounts.gross && amounts.gross->negative) return true;
  const LMRect page = layout.pageBox(0);
  for (const LMLabelHit& hit : layout.labels()) {
    if (hit.label->role != LMLabelRole::kCreditNote || hit.label->weight < 0.8 || hit.page != 0) continue;
    if (hit.box.y < page.y + page.height / 2) continue;
    if (hit.label->weight < 1.0 && amountOnRow(parser, layout, hit.box)) continue;
    return true;
  }
  return false;
}

// The currency: a mention on the row of a chosen amount; else the only or
// most frequent one; else the task's.
void chooseCurrency(const LMReceiptParser& parser, const LMTextLayout& layout, const LMAmountChoice& amounts,
                    LMFacts& facts) {
  const LMCurrencyMention* near = nullptr;
  double nearDistance = 0;
  for (const std::optional<LMAmountPick>* p : {&amounts.gross, &amounts.net, &amounts.tax}) {
    if (near || !*p) continue;
    const LMFoundElement& e = *(*p)->element;
    const LMRect box = e.bbox().standardized();
    for (const LMCurrencyMention& m : layout.currencies()) {
      if (m.page != e.page() || !lmSameRow(m.box, box)) continue;
      const double d =
          std::min(std::abs(m.box.x - (box.x + box.width)), std::abs(box.x - (m.box.x + m.box.width)));
      if (!near || d < nearDistance) near = &m, nearDistance = d;
    }
  }
  std::map<std::u16string, int> counts;
  const LMCurrencyMention* firstOf = nullptr;
  for (const LMCurrencyMention& m : layout.currencies()) ++counts[m.code];
  std::u16string frequent;
  int most = 0;
  for (const LMCurrencyMention& m : layout.currencies()) {
    if (counts[m.code] > most) most = counts[m.code], frequent = m.code, firstOf = &m;
  }
  const LMCurrencyMention* chosen = nullptr;
  double score = 0;
  std::u16string rule;
  if (near) {
    chosen = near;
    score = !near->symbolOnly ? kCurrencyNearAmount
            : layout.country().empty() ? kCurrencyGuessedDollar : kCurrencyByCountry;
    rule = near->symbolOnly ? u"symbol near the amount, read by the country" : u"near the amount";
  } else if (firstOf) {
    chosen = firstOf;
    score = counts.size() == 1 ? kCurrencySoleMention : kCurrencyMostFrequent;
    if (firstOf->symbolOnly && layout.country().empty()) score = kCurrencyGuessedDollar;
    rule = counts.size() == 1 ? u"the only currency mentioned" : u"the most frequent currency mention";
  }
  if (chosen) {
    facts.currency = chosen->code;
    LMDictionary evidence{{u"source", u"text"},
                          {u"page", chosen->page},
                          {u"box", LMValue::null()},
                          {u"anchor", LMValue::null()},
                          {u"text", chosen->text},
                          {u"score", score},
                          {u"alternatives", LMArray()},
                          {u"rule", rule}};
    // The box as the elements give theirs: origin top left.
    if (parser.numbers() && !parser.numbers()->empty()) {
      const LMRect page = parser.numbers()->front()->pageBox().standardized();
      auto points = [](double v) { return std::round(v * 100) / 100; };
      evidence.set(u"box", LMArray{points(chosen->box.x - page.x), points(page.maxY() - chosen->box.maxY()),
                                   points(chosen->box.width), points(chosen->box.height)});
    }
    LMArray alternatives;
    for (const auto& [code, count] : counts) {
      if (code != chosen->code && alternatives.size() < 3) {
        alternatives.emplace_back(LMDictionary{{u"value", code}, {u"score", 0.2}});
      }
    }
    evidence.set(u"alternatives", std::move(alternatives));
    facts.evidence.set(u"currency", std::move(evidence));
    return;
  }
  if (const std::u16string* code = parser.currency().asString(); code && !code->empty()) {
    facts.currency = *code;
    facts.evidence.set(u"currency", LMDictionary{{u"source", u"text"},
                                                 {u"page", LMValue::null()},
                                                 {u"box", LMValue::null()},
                                                 {u"anchor", LMValue::null()},
                                                 {u"text", LMValue::null()},
                                                 {u"score", kCurrencyTask},
                                                 {u"alternatives", LMArray()},
                                                 {u"rule", u"the task's currency"}});
  }
}

void chooseIssueDate(const LMReceiptParser& parser, const LMTextLayout& layout, const LMDate& today,
                     LMFacts& facts) {
  const LMDateChoice choice = lmChooseIssueDate(parser, layout, today);
  if (!choice.best) return;
  const LMDateCandidate& best = *choice.best;
  LMDictionary evidence = lmTextEvidence(*best.element, best.score, anchorText(best.anchor));
  LMArray alternatives;
  for (const LMDateCandidate& c : choice.alternatives) {
    alternatives.emplace_back(alternative(*c.element, c.day, c.score, c.anchor));
  }
  evidence.set(u"alternatives", std::move(alternatives));
  facts.issueDate = best.day;
  facts.evidence.set(u"issueDate", std::move(evidence));
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
      {u"score", std::round(score * 1000) / 1000},
      {u"alternatives", LMArray()},
  };
}

LMFacts lmTextFacts(const LMReceiptParser& parser, const LMTextFactsOptions& options) {
  LMFacts facts;
  if (!parser.text() || parser.text()->empty()) {
    facts.checks.push_back({u"page-text", false, u"no page text"});
    return facts;
  }
  facts.source = u"text";
  const LMTextLayout layout(parser);
  const LMAmountChoice amounts = lmChooseAmounts(parser, layout, options.rates);
  const bool credit = isCreditNote(parser, layout, amounts);
  if (credit) {
    facts.kind = u"credit-note";
  } else if (layout.roleWeight(LMLabelRole::kReceipt) >= 1.0) {
    facts.kind = u"receipt";
  }
  setAmount(facts, u"gross", facts.gross, amounts.gross, amounts.grossAlternatives, credit);
  setAmount(facts, u"net", facts.net, amounts.net, amounts.netAlternatives, credit);
  setAmount(facts, u"tax", facts.tax, amounts.tax, amounts.taxAlternatives, credit);
  for (const LMFactsCheck& c : amounts.checks) facts.checks.push_back(c);
  if (amounts.rate && facts.net && facts.tax) {
    facts.taxes.emplace_back(LMDictionary{
        {u"rate", *amounts.rate}, {u"net", *facts.net}, {u"tax", *facts.tax},
        {u"category", LMValue::null()},
        {u"exemptionReason", amounts.exemptionReason ? LMValue(*amounts.exemptionReason) : LMValue::null()}});
  }
  chooseCurrency(parser, layout, amounts, facts);
  chooseIssueDate(parser, layout, options.today.value_or(LMDate::now()), facts);
  return facts;
}
