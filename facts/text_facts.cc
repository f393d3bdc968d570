#include "facts/text_facts.h"

#include <algorithm>
#include <cmath>
#include <map>

#include "facts/text_amounts.h"
#include "facts/text_layout.h"
#include "kit/date.h"
#include "kit/unicode.h"

namespace {

// Scores of the currency rules, best evidence first.
constexpr double kCurrencyNearAmount = 0.95;
constexpr double kCurrencyByCountry = 0.8;   // "$" or "kr" near the amount, the country known
constexpr double kCurrencyGuessedDollar = 0.45;
constexpr double kCurrencySoleMention = 0.85;
constexpr double kCurrencyMostFrequent = 0.65;
constexpr double kCurrencyTask = 0.4;
// The highest score of a date whose day and month could change places.
constexpr double kAmbiguousDate = 0.75;

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

// Credit note: a credit note's title in the upper half of the first page
// (lower, "refund" and "avoir" are as likely the terms' words), or a total
// printed negative. "Gutschrift" alone titles a self-billed invoice.
bool isCreditNote(const LMTextLayout& layout, const LMAmountChoice& amounts) {
  if (amounts.gross && amounts.gross->negative) return true;
  const LMRect page = layout.pageBox(0);
  for (const LMLabelHit& hit : layout.labels()) {
    if (hit.label->role != LMLabelRole::kCreditNote || hit.label->weight < 0.8 || hit.page != 0) continue;
    if (hit.box.y >= page.y + page.height / 2) return true;
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

// What stands between the two ends of a period: "01.01. - 31.01.",
// "vom 06.12.2013 bis zum 06.12.2014", "from 1 July to 31 July".
bool joinsPeriod(std::u16string_view between) {
  const std::u16string folded = lmFoldLabelText(between).text;
  static const std::u16string_view kWords[] = {u"",   u"bis",  u"bis zum", u"bis einschl", u"to",
                                               u"till", u"until", u"through", u"au",   u"jusqu au",
                                               u"al",  u"a",     u"tot",     u"tot en met", u"t m"};
  for (std::u16string_view w : kWords) {
    if (folded == w && (!w.empty() || between.find(u'-') != std::u16string_view::npos)) return true;
  }
  return false;
}

// A date printed with slashes whose first two numbers could both be the
// month: its reading rests on the country.
bool ambiguousOrder(const LMFoundDate& d) {
  if (!d.dateString() || d.dateString()->find(u'/') == std::u16string::npos) return false;
  int first = 0, second = 0, index = 0;
  for (char16_t c : *d.dateString()) {
    if (c == u'/') {
      ++index;
    } else if (c >= u'0' && c <= u'9' && index < 2) {
      int& n = index == 0 ? first : second;
      if (n > 99) return false;
      n = n * 10 + (c - u'0');
    }
  }
  return first >= 1 && first <= 12 && second >= 1 && second <= 12 && first != second;
}

// The day of a found date as "YYYY-MM-DD". A date printed with slashes
// whose first two numbers could both be the month ("05/11/2017") is read day
// first, unless the document's country writes the month first.
std::u16string dayOf(const LMFoundDate& d, std::u16string_view country) {
  std::u16string day = d.date()->descriptionDate();
  if (country == u"US" || !d.dateString()) return day;
  const std::u16string& s = *d.dateString();
  int parts[3] = {0, 0, 0};
  int lengths[3] = {0, 0, 0};
  int index = 0;
  for (char16_t c : s) {
    if (c >= u'0' && c <= u'9') {
      if (index > 2 || lengths[index] >= 4) return day;
      parts[index] = parts[index] * 10 + (c - u'0');
      ++lengths[index];
    } else if (c == u'/' && lengths[index] > 0) {
      ++index;
    } else {
      return day;
    }
  }
  if (index != 2 || lengths[2] != 4 || parts[0] > 12 || parts[1] > 12 || parts[0] == parts[1]) return day;
  // The recognizer read it month first: swap when its month is the first number.
  if (day.size() == 10 && std::stoi(lmUtf8(day.substr(5, 2))) == parts[0]) {
    std::u16string swapped = day.substr(0, 5) + day.substr(8, 2) + u"-" + day.substr(5, 2);
    return swapped;
  }
  return day;
}

struct DateCandidate {
  const LMFoundDate* element;
  std::u16string day;
  double score;
  const LMLabelHit* anchor;
};

// The issue date: by its label, else the date nearest the head of the
// document; never one a due, delivery, order or period label ties, a
// period's end, or a day after today.
void chooseIssueDate(const LMReceiptParser& parser, const LMTextLayout& layout, const LMDate& today,
                     LMFacts& facts) {
  std::vector<const LMFoundDate*> dates;
  if (parser.dates()) {
    for (const auto& d : *parser.dates()) dates.push_back(d.get());
  }
  for (const auto& d : layout.extraDates()) dates.push_back(d.get());
  // Two dates in a row joined by "-", "bis", "to", ... bound a period.
  std::vector<bool> inPeriod(dates.size(), false);
  std::vector<size_t> order;
  for (size_t i = 0; i < dates.size(); ++i) {
    if (dates[i]) order.push_back(i);
  }
  std::sort(order.begin(), order.end(), [&](size_t a, size_t b) {
    return dates[a]->page() != dates[b]->page() ? dates[a]->page() < dates[b]->page()
                                                : dates[a]->range().location < dates[b]->range().location;
  });
  for (size_t k = 0; k + 1 < order.size(); ++k) {
    const LMFoundDate& first = *dates[order[k]];
    const LMFoundDate& second = *dates[order[k + 1]];
    const LMTextRange a = first.range(), b = second.range();
    const std::u16string_view text = layout.pageText(first.page());
    if (first.page() != second.page() || !a.fitsIn(text.size()) || !b.fitsIn(text.size()) ||
        b.location < a.end() || b.location - a.end() > 16) {
      continue;
    }
    if (joinsPeriod(text.substr(a.end(), b.location - a.end())))
      inPeriod[order[k]] = inPeriod[order[k + 1]] = true;
  }
  const std::u16string todayText = today.descriptionDate();
  std::vector<DateCandidate> candidates;
  size_t unlabelled = 0;
  for (size_t i = 0; i < dates.size(); ++i) {
    const LMFoundDate* d = dates[i];
    if (!d || !d->date() || dayOf(*d, layout.country()) > todayText || inPeriod[i]) continue;
    const LMRoleTies ties = layout.ties(*d);
    // "Rechnung Nr. 123 vom 01.02.2024", "Invoice #12 issued 2024-02-01".
    const double issue = std::max(ties.of(LMLabelRole::kIssueDate), 0.85 * ties.onRowOf(LMLabelRole::kTitle));
    if (ties.of(LMLabelRole::kOtherDate) >= 0.5 && ties.of(LMLabelRole::kOtherDate) >= issue) continue;
    // "Bestellung Nr. 12 vom 01.02.": a weak "vom" does not undo the order.
    if (ties.onRowOf(LMLabelRole::kOtherDate) >= 0.8 && ties.of(LMLabelRole::kIssueDate) < 0.9) continue;
    double score = issue > 0 ? 0.5 + 0.45 * issue : 0.3 - 0.02 * std::min<size_t>(unlabelled++, 10);
    candidates.push_back({d, dayOf(*d, layout.country()), score, ties.anchorOf(LMLabelRole::kIssueDate)});
  }
  if (candidates.empty()) return;
  std::stable_sort(candidates.begin(), candidates.end(),
                   [](const DateCandidate& a, const DateCandidate& b) { return a.score > b.score; });
  DateCandidate best = candidates.front();
  bool otherDays = false;
  for (const DateCandidate& c : candidates) otherDays = otherDays || c.day != best.day;
  if (!otherDays) best.score = std::max(best.score, 0.6);
  // Day and month that could change places leave doubt.
  if (best.day != best.element->date()->descriptionDate() || ambiguousOrder(*best.element)) {
    best.score = std::min(best.score, kAmbiguousDate);
  }
  LMDictionary evidence = lmTextEvidence(*best.element, best.score, anchorText(best.anchor));
  LMArray alternatives;
  std::vector<std::u16string> seen{best.day};
  for (const DateCandidate& c : candidates) {
    if (alternatives.size() >= 3) break;
    if (std::find(seen.begin(), seen.end(), c.day) != seen.end()) continue;
    seen.push_back(c.day);
    alternatives.emplace_back(alternative(*c.element, c.day, std::min(c.score, 0.45), c.anchor));
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
  const bool credit = isCreditNote(layout, amounts);
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
