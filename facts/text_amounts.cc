#include "facts/text_amounts.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>

#include "analysis/receipt_parser.h"

namespace {

// Candidates per role that the arithmetic search combines.
constexpr size_t kGrossCandidates = 8;
// What a label's tie is worth against an amount that the arithmetic needs.
constexpr double kArithmetic = 0.6;
constexpr double kRateFits = 0.3;
constexpr double kZeroTaxReason = 0.3;
// The gross's label counts most; a set's gross needs this share of the
// best gross label's score.
constexpr double kGrossWeight = 2;
constexpr double kPlausibleGross = 0.6;
// Amounts tied this strongly (the last on their label's row) add up to a
// total that a page splits by rate.
constexpr double kSumPart = 0.75;
// The standard analysis's gross, taken when no label names a total.
constexpr double kStandardGross = 0.3;
// How strongly an amount must be tied to net to count as one rate's basis,
// and the score of a tax found as the sum of their taxes.
constexpr double kSplitPart = 0.4;
// An amount no label ties may still complete a consistent set.
constexpr double kUntied = 0.05;
// A net the page does not print (prices that include the tax) is worth less
// than a printed one.
constexpr double kDerivedNet = 0.3;

using Cents = int64_t;

struct Amount {
  const LMFoundNumber* element;
  Cents cents;  // magnitude
  double gross = 0, net = 0, tax = 0;
  const LMLabelHit* grossAnchor = nullptr;
  const LMLabelHit* netAnchor = nullptr;
  const LMLabelHit* taxAnchor = nullptr;
  size_t order = 0;
  bool negative = false;  // printed with a minus, before or after
};

// The best amount of each value for one role, and sums of several.
struct RoleValues {
  struct Entry {
    const Amount* amount;
    Cents cents;
    double score;
    std::u16string text;
  };
  std::map<Cents, Entry> byValue;
  void offer(const Amount& a, double score) {
    auto it = byValue.find(a.cents);
    if (it == byValue.end() || it->second.score < score) {
      byValue[a.cents] = {&a, a.cents, score, a.element->string().value_or(u"")};
    }
  }
  const Entry* find(Cents c) const {
    auto it = byValue.find(c);
    return it == byValue.end() ? nullptr : &it->second;
  }
  // The tied amounts of several rows added up, for a total the page splits
  // by rate without printing it.
  void offerSum(const std::vector<Amount>& amounts, double Amount::*role) {
    Cents sum = 0;
    double score = 0;
    const Amount* first = nullptr;
    std::u16string text;
    int parts = 0;
    for (const Amount& a : amounts) {
      if (a.*role < kSumPart) continue;
      sum += a.cents;
      score += a.*role;
      if (!first) first = &a;
      if (!text.empty()) text += u" + ";
      text += a.element->string().value_or(u"");
      ++parts;
    }
    if (parts < 2 || byValue.count(sum)) return;
    byValue[sum] = {first, sum, 0.8 * score / parts, text};
  }
};

// The entries of one role by ascending value, in two arrays. The search for
// gross = net + tax walks the net and tax values once per gross candidate; on
// a big document the map's scattered nodes made those walks slow.
struct SortedValues {
  std::vector<Cents> cents;
  std::vector<const RoleValues::Entry*> entries;

  explicit SortedValues(const RoleValues& role) {
    cents.reserve(role.byValue.size());
    entries.reserve(role.byValue.size());
    for (const auto& [c, e] : role.byValue) {
      cents.push_back(c);
      entries.push_back(&e);
    }
  }
  // Index of the first value above `c`.
  size_t above(Cents c) const {
    return static_cast<size_t>(std::upper_bound(cents.begin(), cents.end(), c) - cents.begin());
  }
  const RoleValues::Entry* find(Cents c) const {
    const auto it = std::lower_bound(cents.begin(), cents.end(), c);
    return it != cents.end() && *it == c ? entries[static_cast<size_t>(it - cents.begin())] : nullptr;
  }
};

// "1.234,56-": a minus after the amount, as bookkeeping prints credits.
bool followedByMinus(std::u16string_view text, const LMFoundElement& e) {
  const LMTextRange r = e.range();
  if (!r.fitsIn(text.size()) || r.end() >= text.size() || text[r.end()] != u'-') return false;
  return r.end() + 1 == text.size() || !(text[r.end() + 1] >= u'0' && text[r.end() + 1] <= u'9');
}

bool followedByPercent(std::u16string_view text, const LMFoundElement& e) {
  const LMTextRange r = e.range();
  if (!r.fitsIn(text.size())) return false;
  size_t i = r.end();
  while (i < text.size() && text[i] == u' ') ++i;
  return i < text.size() && text[i] == u'%';
}

// Tax of `net` at `rateHundredths` percent hundredths, half up to the cent.
Cents taxAt(Cents net, int64_t rateHundredths) {
  const __int128 raw = static_cast<__int128>(net) * rateHundredths;
  return static_cast<Cents>((raw + 5000) / 10000);
}

int64_t hundredthsOf(const LMDecimal& rate) {
  return rate.multiplyByPowerOf10(2).decimalNumberByRoundingToDecimalPlaces(0).integerValue();
}

LMDecimal decimalOf(Cents c) { return LMDecimal::decimalNumberWithAmountInteger(c); }

std::u16string money(Cents c) { return decimalOf(c).stringValue16(); }

struct Combination {
  Cents gross = 0, net = 0, tax = 0;
  const RoleValues::Entry* g = nullptr;
  const RoleValues::Entry* n = nullptr;
  const RoleValues::Entry* t = nullptr;
  double score = 0;
  bool arithmetic = false;
  bool derivedNet = false;  // gross - tax, the net not printed
  std::optional<LMDecimal> rate;
  const LMLabelHit* zeroReason = nullptr;
};

LMAmountPick pick(const RoleValues::Entry& e, const LMLabelHit* anchor, double score) {
  LMAmountPick p;
  p.element = e.amount->element;
  p.value = decimalOf(e.cents);
  p.score = score;
  p.anchor = anchor;
  p.text = e.text;
  p.negative = e.amount->negative;
  return p;
}

// How sure a value is: its label, the arithmetic, a fitting rate.
double confidence(double label, bool arithmetic, bool rate) {
  return std::min(0.98, 0.25 + 0.35 * std::min(label, 1.0) + (arithmetic ? 0.25 : 0) + (rate ? 0.12 : 0));
}

// The amount most strongly tied to `role`, last on its label's row, below
// the gross; null when none is.
const Amount* mostTied(const std::vector<Amount>& amounts, double Amount::*role, Cents gross) {
  const Amount* best = nullptr;
  for (const Amount& a : amounts) {
    if (a.*role >= kSumPart && a.cents < gross && (!best || a.*role > best->*role)) best = &a;
  }
  return best;
}

LMAmountPick loose(const Amount& a, double label, const LMLabelHit* anchor) {
  return pick({&a, a.cents, label, a.element->string().value_or(u"")}, anchor,
              confidence(label, false, false));
}

// A page split by rate whose per-rate tax amounts no label ties: each
// net-tied amount whose tax at one of `rates` (to the cent, or one off) is
// printed too gives a part;
// two or more parts add up to a tax candidate, their bases to a net one.
void offerRateSplit(const std::vector<Amount>& amounts, const std::vector<LMDecimal>& rates, RoleValues& net,
                    RoleValues& tax) {
  std::vector<Cents> printed;
  for (const Amount& a : amounts) printed.push_back(a.cents);
  std::sort(printed.begin(), printed.end());
  Cents sum = 0, bases = 0;
  int parts = 0;
  const Amount* first = nullptr;
  std::u16string text, basesText;
  for (const Amount& a : amounts) {
    if (a.net < kSplitPart || a.tax >= kSplitPart) continue;
    for (const LMDecimal& r : rates) {
      // Prices that include tax leave the tax a cent off the net's.
      const Cents exact = taxAt(a.cents, hundredthsOf(r));
      Cents t = 0;
      for (Cents c : {exact, exact + 1, exact - 1}) {
        if (c > 0 && !t && std::binary_search(printed.begin(), printed.end(), c)) t = c;
      }
      if (!t) continue;
      sum += t;
      bases += a.cents;
      ++parts;
      if (!first) first = &a;
      text += (text.empty() ? u"" : u" + ") + money(t);
      basesText += (basesText.empty() ? u"" : u" + ") + a.element->string().value_or(u"");
      break;
    }
  }
  if (parts < 2) return;
  if (!tax.find(sum)) tax.byValue[sum] = {first, sum, kSplitPart, text};
  if (!net.find(bases)) net.byValue[bases] = {first, bases, kSplitPart, basesText};
}

// A tax table without labels: a row that prints a rate, an amount and that
// amount's tax at the rate ("19 %  100,00  19,00  119,00"; one cent off for
// prices that include the tax) gives a basis and its tax. The rate may stand
// without its sign, in a column whose head carries it ("Taux %"), as an
// amount equal to one of `rates`. One such row makes them net and tax
// candidates; several add up to them.
void offerRateRows(const std::vector<Amount>& amounts, std::vector<LMRateMention> mentions,
                   const std::vector<LMDecimal>& rates, RoleValues& net, RoleValues& tax) {
  std::vector<const Amount*> rateAmounts(mentions.size(), nullptr);  // an amount read as the rate
  for (const Amount& a : amounts) {
    for (const LMDecimal& r : rates) {
      if (a.cents != hundredthsOf(r)) continue;
      mentions.push_back({r, a.element->page(), a.element->bbox().standardized()});
      rateAmounts.push_back(&a);
      break;
    }
  }
  if (mentions.empty()) return;
  // The amounts by page and height, to find a row's amounts without a scan.
  std::vector<const Amount*> byRow;
  double tallest = 0;
  for (const Amount& a : amounts) {
    byRow.push_back(&a);
    tallest = std::max(tallest, a.element->bbox().standardized().height);
  }
  auto key = [](const Amount* a) { return std::pair(a->element->page(), a->element->bbox().standardized().y); };
  std::sort(byRow.begin(), byRow.end(), [&](const Amount* a, const Amount* b) { return key(a) < key(b); });
  std::vector<std::pair<const Amount*, const Amount*>> pairs;  // basis, tax
  std::set<const Amount*> seen;  // each basis once, however many rates its row shows
  std::vector<const Amount*> row;
  for (size_t k = 0; k < mentions.size(); ++k) {
    const LMRateMention& m = mentions[k];
    row.clear();
    auto it = std::lower_bound(byRow.begin(), byRow.end(), std::pair(m.page, m.box.y - tallest),
                               [&](const Amount* a, const std::pair<int64_t, double>& k) { return key(a) < k; });
    for (; it != byRow.end() && key(*it) <= std::pair(m.page, m.box.y + tallest); ++it) {
      if (*it != rateAmounts[k] && lmSameRow(m.box, (*it)->element->bbox())) row.push_back(*it);
    }
    bool found = false;
    for (const Amount* basis : row) {
      const Cents exact = taxAt(basis->cents, hundredthsOf(m.rate));
      for (const Amount* t : row) {
        if (found || t == basis || exact <= 0 || std::llabs(t->cents - exact) > 1) continue;
        if (seen.insert(basis).second) pairs.emplace_back(basis, t);
        found = true;
      }
    }
  }
  if (pairs.empty()) return;
  if (pairs.size() == 1) {
    net.offer(*pairs[0].first, kSplitPart);
    tax.offer(*pairs[0].second, kSplitPart);
    return;
  }
  Cents bases = 0, taxes = 0;
  std::u16string basesText, taxesText;
  for (const auto& [basis, t] : pairs) {
    bases += basis->cents;
    taxes += t->cents;
    basesText += (basesText.empty() ? u"" : u" + ") + basis->element->string().value_or(u"");
    taxesText += (taxesText.empty() ? u"" : u" + ") + t->element->string().value_or(u"");
  }
  // A sum may equal a printed amount the table holds too (a row's gross).
  if (!net.find(bases) || net.find(bases)->score < kSplitPart) {
    net.byValue[bases] = {pairs[0].first, bases, kSplitPart, basesText};
  }
  if (!tax.find(taxes) || tax.find(taxes)->score < kSplitPart) {
    tax.byValue[taxes] = {pairs[0].second, taxes, kSplitPart, taxesText};
  }
}

// Per amount: where the next amount to its right on its row begins, or
// kLMNoNextValue. The amounts come grouped by page; within a page only
// amounts as high as a row are compared, so the work stays near linear.
std::vector<double> nextValuesOnRows(const std::vector<Amount>& amounts) {
  std::vector<double> next(amounts.size(), kLMNoNextValue);
  std::vector<size_t> byHeight;
  for (size_t begin = 0; begin < amounts.size();) {
    size_t end = begin;
    double tallest = 0;
    while (end < amounts.size() && amounts[end].element->page() == amounts[begin].element->page()) {
      tallest = std::max(tallest, amounts[end].element->bbox().standardized().height);
      ++end;
    }
    byHeight.clear();
    for (size_t i = begin; i < end; ++i) byHeight.push_back(i);
    auto y = [&](size_t i) { return amounts[i].element->bbox().standardized().y; };
    std::sort(byHeight.begin(), byHeight.end(), [&](size_t a, size_t b) { return y(a) < y(b); });
    for (size_t k = 0; k < byHeight.size(); ++k) {
      const LMRect box = amounts[byHeight[k]].element->bbox().standardized();
      for (size_t m = k + 1; m < byHeight.size() && y(byHeight[m]) - box.y <= tallest; ++m) {
        const LMRect other = amounts[byHeight[m]].element->bbox().standardized();
        if (!lmSameRow(box, other)) continue;
        if (other.x > box.x) next[byHeight[k]] = std::min(next[byHeight[k]], other.x);
        if (box.x > other.x) next[byHeight[m]] = std::min(next[byHeight[m]], box.x);
      }
    }
    begin = end;
  }
  return next;
}

}  // namespace

std::vector<LMDecimal> lmUsualTaxRates(std::u16string_view country) {
  static const std::map<std::u16string_view, std::vector<const char*>> kRates = {
      {u"DE", {"19", "7"}},          {u"AT", {"20", "10", "13"}}, {u"CH", {"8.1", "2.6", "7.7", "2.5"}},
      {u"FR", {"20", "10", "5.5"}},  {u"IT", {"22", "10", "5", "4"}}, {u"ES", {"21", "10", "4"}},
      {u"NL", {"21", "9"}},          {u"BE", {"21", "6", "12"}},  {u"GB", {"20", "5"}},
      {u"NZ", {"15"}},               {u"AU", {"10"}},             {u"IN", {"18", "12", "5", "28"}},
      {u"SE", {"25", "12", "6"}},    {u"NO", {"25", "15"}},       {u"DK", {"25"}},
  };
  std::vector<LMDecimal> out;
  auto it = kRates.find(country);
  if (it == kRates.end()) return out;
  for (const char* r : it->second) out.push_back(*LMDecimal::fromString(std::string_view(r)));
  return out;
}

LMAmountChoice lmChooseAmounts(const LMReceiptParser& parser, const LMTextLayout& layout,
                               const std::vector<LMDecimal>& taskRates) {
  LMAmountChoice choice;
  if (!parser.numbers() && layout.extraAmounts().empty()) return choice;

  // Every amount with its ties to the roles.
  std::vector<Amount> amounts;
  std::vector<const LMFoundNumber*> found;
  if (parser.numbers()) {
    for (const auto& n : *parser.numbers()) {
      if (n && !layout.supersedes(*n)) found.push_back(n.get());
    }
  }
  for (const auto& n : layout.extraAmounts()) found.push_back(n.get());
  std::stable_sort(found.begin(), found.end(), [](const LMFoundNumber* a, const LMFoundNumber* b) {
    return a->page() != b->page() ? a->page() < b->page() : a->range().location < b->range().location;
  });
  for (const LMFoundNumber* n : found) {
    if (followedByPercent(layout.pageText(n->page()), *n)) continue;
    Amount a{n, std::llabs(n->integerValue())};
    a.negative = n->integerValue() < 0 || followedByMinus(layout.pageText(n->page()), *n);
    amounts.push_back(a);
  }
  const std::vector<double> nextOnRow = nextValuesOnRows(amounts);
  for (size_t i = 0; i < amounts.size(); ++i) {
    Amount& a = amounts[i];
    a.order = i;
    const double next = nextOnRow[i];
    const LMRoleTies ties = layout.ties(*a.element, next);
    const double other = ties.of(LMLabelRole::kOtherAmount);
    auto role = [&](LMLabelRole r) { return ties.of(r) > other ? ties.of(r) : ties.of(r) * 0.3; };
    a.gross = role(LMLabelRole::kGross);
    a.net = role(LMLabelRole::kNet);
    a.tax = role(LMLabelRole::kTax);
    a.grossAnchor = ties.anchorOf(LMLabelRole::kGross);
    a.netAnchor = ties.anchorOf(LMLabelRole::kNet);
    a.taxAnchor = ties.anchorOf(LMLabelRole::kTax);
  }
  if (amounts.empty()) return choice;

  // Later totals, and larger print, win ties: documents end with their total.
  double largest = 0;
  for (const Amount& a : amounts) largest = std::max(largest, a.element->fontSize());
  RoleValues gross, net, tax;
  for (Amount& a : amounts) {
    if (a.gross > 0 && a.cents > 0) {  // a balance paid off is no total
      a.gross += 0.05 * static_cast<double>(a.order) / amounts.size();
      if (largest > 0 && a.element->fontSize() >= largest) a.gross += 0.05;
      gross.offer(a, a.gross);
    }
    net.offer(a, std::max(a.net, kUntied));
    tax.offer(a, std::max(a.tax, kUntied));
  }
  // No label names a total: the standard analysis's gross, with its doubt.
  if (gross.byValue.empty() && parser.gross()) {
    const Cents standard = std::llabs(parser.gross()->amountIntegerValue());
    for (auto a = amounts.rbegin(); a != amounts.rend(); ++a) {
      if (a->cents == standard) {
        gross.offer(*a, kStandardGross);
        break;
      }
    }
  }
  net.offerSum(amounts, &Amount::net);
  tax.offerSum(amounts, &Amount::tax);

  std::vector<LMDecimal> rates = layout.rates();
  std::vector<LMDecimal> more = taskRates;
  for (const LMDecimal& r : lmUsualTaxRates(layout.country())) more.push_back(r);
  for (const LMDecimal& r : more) {
    if (std::find(rates.begin(), rates.end(), r) == rates.end()) rates.push_back(r);
  }
  auto fittingRate = [&](Cents n, Cents t) -> std::optional<LMDecimal> {
    for (const LMDecimal& r : rates) {
      if (taxAt(n, hundredthsOf(r)) == t) return r;
    }
    return std::nullopt;
  };
  offerRateSplit(amounts, rates, net, tax);
  offerRateRows(amounts, layout.rateMentions(), rates, net, tax);
  // The tax that prices including it contain: gross x rate / (100 + rate).
  auto includedRate = [&](Cents g, Cents t) -> std::optional<LMDecimal> {
    for (const LMDecimal& r : rates) {
      const __int128 h = hundredthsOf(r);
      if (static_cast<Cents>((static_cast<__int128>(g) * h * 2 + 10000 + h) / (2 * (10000 + h))) == t) return r;
    }
    return std::nullopt;
  };
  const LMLabelHit* zeroReason = nullptr;
  for (const LMLabelHit& hit : layout.labels()) {
    if (hit.label->role == LMLabelRole::kZeroTax) {
      zeroReason = &hit;
      break;
    }
  }

  std::vector<const RoleValues::Entry*> grossList;
  for (const auto& [cents, e] : gross.byValue) grossList.push_back(&e);
  std::sort(grossList.begin(), grossList.end(), [](auto* a, auto* b) { return a->score > b->score; });
  if (grossList.size() > kGrossCandidates) grossList.resize(kGrossCandidates);

  // A set's gross must be a plausible total on its own: the arithmetic
  // decides among labelled totals, it does not make one of a line amount.
  const double strongest = grossList.empty() ? 0 : grossList.front()->score;
  std::vector<Combination> combos;
  const SortedValues netValues(net);
  const SortedValues taxValues(tax);
  for (const RoleValues::Entry* g : grossList) {
    if (g->score < kPlausibleGross * strongest) continue;
    const Cents total = g->cents;
    Combination alone;
    alone.gross = total;
    alone.g = g;
    alone.score = kGrossWeight * g->score;
    combos.push_back(alone);
    // The values in (0, total), in the map's order.
    for (size_t i = netValues.above(0); i < netValues.cents.size() && netValues.cents[i] < total; ++i) {
      const Cents n = netValues.cents[i];
      const RoleValues::Entry& ne = *netValues.entries[i];
      const RoleValues::Entry* te = taxValues.find(total - n);
      if (!te || ne.score + te->score < 0.4 || te->amount == g->amount || ne.amount == g->amount) continue;
      Combination c = alone;
      c.net = n;
      c.tax = total - n;
      c.n = &ne;
      c.t = te;
      c.arithmetic = true;
      c.rate = fittingRate(n, total - n);
      c.score = kGrossWeight * g->score + ne.score + te->score + kArithmetic + (c.rate ? kRateFits : 0);
      combos.push_back(c);
    }
    // Prices that include the tax: the page prints the gross and the tax it
    // holds ("incl. 15% GST 28.72"), and the net is their difference.
    for (size_t i = taxValues.above(0); i < taxValues.cents.size() && taxValues.cents[i] < total; ++i) {
      const Cents t = taxValues.cents[i];
      const RoleValues::Entry& te = *taxValues.entries[i];
      if (te.score < 0.5 || te.amount == g->amount || netValues.find(total - t)) continue;
      std::optional<LMDecimal> r = fittingRate(total - t, t);
      if (!r) r = includedRate(total, t);
      if (!r) continue;
      Combination c = alone;
      c.net = total - t;
      c.tax = t;
      c.t = &te;
      c.arithmetic = c.derivedNet = true;
      c.rate = r;
      c.score = kGrossWeight * g->score + te.score + kArithmetic + kRateFits - kDerivedNet;
      combos.push_back(c);
    }
    // No tax: said in words, or a tax label over a printed zero.
    const RoleValues::Entry* zero = tax.find(0);
    const bool zeroTied = zero && zero->score >= 0.5 &&
                          zero->text.find_first_of(u".,") != std::u16string::npos;
    if (zeroReason || zeroTied) {
      Combination c = alone;
      c.net = total;
      c.n = net.find(total);
      c.t = zeroTied ? zero : nullptr;
      c.arithmetic = true;
      c.zeroReason = zeroReason;
      c.score = kGrossWeight * g->score + (c.n ? c.n->score : 0) + (zeroTied ? zero->score : 0) +
                kZeroTaxReason + 0.2;
      combos.push_back(c);
    }
  }
  if (combos.empty()) return choice;
  std::stable_sort(combos.begin(), combos.end(), [](const Combination& a, const Combination& b) {
    return a.score > b.score;
  });
  const Combination& best = combos.front();
  // A close runner-up with other values lowers the confidence of all.
  double doubt = 1;
  for (size_t i = 1; i < combos.size(); ++i) {
    const Combination& c = combos[i];
    if (c.gross == best.gross && c.net == best.net) continue;
    if (c.score > best.score - 0.3) doubt = 0.85;
    break;
  }

  const bool rate = best.rate.has_value();
  choice.gross = pick(*best.g, best.g->amount->grossAnchor,
                      doubt * confidence(best.g->score, best.arithmetic, rate || best.zeroReason));
  if (best.arithmetic) {
    const double netLabel = best.n ? best.n->score : 0;
    if (best.n) {
      choice.net = pick(*best.n, best.n->amount->netAnchor, doubt * confidence(netLabel, true, rate));
    } else if (best.derivedNet) {
      choice.net = pick(*best.g, nullptr, doubt * confidence(0, true, rate));
      choice.net->text = best.g->text + u" - " + best.t->text;
    } else {
      choice.net = pick(*best.g, nullptr, doubt * confidence(0, true, best.zeroReason));
    }
    if (best.t) {
      choice.tax = pick(*best.t, best.t->amount->taxAnchor, doubt * confidence(best.t->score, true, rate));
    } else {
      LMAmountPick zero = pick(*best.g, best.zeroReason, doubt * confidence(0.5, true, true));
      zero.value = LMDecimal::zero();
      zero.text = best.zeroReason ? best.zeroReason->text : u"0";
      choice.tax = zero;
    }
    choice.net->value = decimalOf(best.net);
    choice.tax->value = decimalOf(best.tax);
    choice.checks.push_back({u"gross-total", true,
                             money(best.net) + u" + " + money(best.tax) + u" = " + money(best.gross)});
    if (rate) {
      choice.rate = *best.rate;
      choice.checks.push_back(
          {u"rate-tax", true,
           money(best.net) + u" x " + best.rate->stringValue16() + u" % = " + money(best.tax)});
    } else if (best.zeroReason || best.tax == 0) {
      choice.rate = LMDecimal::zero();
      if (best.zeroReason) choice.exemptionReason = best.zeroReason->text;
      choice.checks.push_back(
          {u"rate-tax", true,
           u"no tax" + (best.zeroReason ? u": " + best.zeroReason->text : std::u16string())});
    }
  } else {
    // No consistent set: the strongly labelled net and tax as printed, with
    // the failed check, rather than nothing.
    const Amount* netAmount = mostTied(amounts, &Amount::net, best.gross);
    const Amount* taxAmount = mostTied(amounts, &Amount::tax, best.gross);
    if (netAmount) choice.net = loose(*netAmount, netAmount->net, netAmount->netAnchor);
    if (taxAmount) choice.tax = loose(*taxAmount, taxAmount->tax, taxAmount->taxAnchor);
    if (netAmount && taxAmount) {
      choice.checks.push_back({u"gross-total", false,
                               money(netAmount->cents) + u" + " + money(taxAmount->cents) + u" != " +
                                   money(best.gross)});
    }
  }

  // Runners-up: other values the combinations proposed, in their order.
  auto alternatives = [&](const std::optional<LMAmountPick>& chosen, std::vector<LMAmountPick>& out,
                          auto entryOf, auto anchorOf) {
    for (size_t i = 1; i < combos.size() && out.size() < 3; ++i) {
      const RoleValues::Entry* e = entryOf(combos[i]);
      if (!e) continue;
      const LMDecimal value = decimalOf(e->cents);
      if (chosen && chosen->value == value) continue;
      bool seen = false;
      for (const LMAmountPick& p : out) seen = seen || p.value == value;
      if (seen) continue;
      out.push_back(
          pick(*e, anchorOf(*e->amount), std::min(0.45, combos[i].score / (best.score + 1e-9) * 0.45)));
    }
  };
  alternatives(choice.gross, choice.grossAlternatives, [](const Combination& c) { return c.g; },
               [](const Amount& a) { return a.grossAnchor; });
  alternatives(
      choice.net, choice.netAlternatives, [](const Combination& c) { return c.arithmetic ? c.n : nullptr; },
      [](const Amount& a) { return a.netAnchor; });
  alternatives(
      choice.tax, choice.taxAlternatives, [](const Combination& c) { return c.arithmetic ? c.t : nullptr; },
      [](const Amount& a) { return a.taxAnchor; });
  return choice;
}
