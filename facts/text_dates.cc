#include "facts/text_dates.h"

#include <algorithm>

#include "analysis/receipt_parser.h"
#include "facts/labels.h"
#include "kit/unicode.h"

namespace {

// The highest score of a date whose day and month could change places: read
// by the country or language, and read by the document's other dates.
constexpr double kAmbiguousDate = 0.75;
constexpr double kOrderFromDocument = 0.85;
// How far before or after a date a period's other end is looked for.
constexpr size_t kPeriodReach = 24;

bool isDigit(char16_t c) { return c >= u'0' && c <= u'9'; }

// The three numbers of a slashed date ("05/11/2017", "3/20/23"); false for
// any other form.
bool slashedParts(const LMFoundDate& d, int (&parts)[3], int (&lengths)[3]) {
  if (!d.dateString()) return false;
  int index = 0;
  parts[0] = parts[1] = parts[2] = lengths[0] = lengths[1] = lengths[2] = 0;
  for (char16_t c : *d.dateString()) {
    if (isDigit(c)) {
      if (index > 2 || lengths[index] >= 4) return false;
      parts[index] = parts[index] * 10 + (c - u'0');
      ++lengths[index];
    } else if (c == u'/' && lengths[index] > 0) {
      ++index;
    } else if (c != u' ') {
      return false;
    }
  }
  return index == 2 && (lengths[2] == 2 || lengths[2] == 4);
}

bool ambiguousOrder(const LMFoundDate& d) {
  int parts[3], lengths[3];
  return slashedParts(d, parts, lengths) && parts[0] >= 1 && parts[0] <= 12 && parts[1] >= 1 &&
         parts[1] <= 12 && parts[0] != parts[1];
}

struct SlashOrder {
  bool monthFirst = false;
  bool fromDocument = false;  // decided by a date that reads only one way
};

SlashOrder slashOrder(const std::vector<const LMFoundDate*>& dates, const LMTextLayout& layout) {
  int dayFirst = 0, monthFirst = 0;
  for (const LMFoundDate* d : dates) {
    int parts[3], lengths[3];
    if (!d || !slashedParts(*d, parts, lengths)) continue;
    if (parts[0] > 12 && parts[0] <= 31 && parts[1] >= 1 && parts[1] <= 12) ++dayFirst;
    if (parts[1] > 12 && parts[1] <= 31 && parts[0] >= 1 && parts[0] <= 12) ++monthFirst;
  }
  if (dayFirst != monthFirst) return {monthFirst > dayFirst, true};
  if (!layout.country().empty()) return {layout.country() == u"US", false};
  bool dollars = false;
  for (const LMCurrencyMention& m : layout.currencies()) dollars = dollars || m.code == u"USD";
  return {layout.language() == u"en" && dollars, false};
}

// The day of a found date as "YYYY-MM-DD". The recognizer reads a slashed
// date month first where it can; read day first, its month and day change
// places.
std::u16string dayOf(const LMFoundDate& d, bool monthFirst) {
  std::u16string day = d.date()->descriptionDate();
  int parts[3], lengths[3];
  if (monthFirst || !ambiguousOrder(d) || !slashedParts(d, parts, lengths) || day.size() != 10) return day;
  if (std::stoi(lmUtf8(day.substr(5, 2))) == parts[0]) {
    return day.substr(0, 5) + day.substr(8, 2) + u"-" + day.substr(5, 2);
  }
  return day;
}

// The words that join the two ends of a period, folded.
const std::u16string_view kJoinWords[] = {u"bis zum", u"bis einschl", u"jusqu au", u"tot en met", u"t m",
                                          u"bis",     u"to",          u"till",     u"until",      u"through",
                                          u"thru",    u"au",          u"al",       u"a",          u"tot"};

bool isDash(char16_t c) { return c == u'-' || c == u'\u2013' || c == u'\u2014' || c == u'~'; }

// What stands between the two ends of a period: "01.01. - 31.01.",
// "vom 06.12.2013 bis zum 06.12.2014", "from 1 July to 31 July".
bool joinsPeriod(std::u16string_view between) {
  const std::u16string folded = lmFoldLabelText(between).text;
  if (folded.empty()) return std::any_of(between.begin(), between.end(), isDash);
  return std::find(std::begin(kJoinWords), std::end(kJoinWords), folded) != std::end(kJoinWords);
}

int smallNumber(std::u16string_view word) {
  if (word.empty() || word.size() > 2 || !std::all_of(word.begin(), word.end(), isDigit)) return 0;
  return word.size() == 1 ? word[0] - u'0' : (word[0] - u'0') * 10 + (word[1] - u'0');
}

std::vector<std::u16string_view> wordsOf(std::u16string_view folded) {
  std::vector<std::u16string_view> words;
  for (size_t i = 0; i < folded.size();) {
    size_t end = folded.find(u' ', i);
    if (end == std::u16string_view::npos) end = folded.size();
    if (end > i) words.push_back(folded.substr(i, end - i));
    i = end + 1;
  }
  return words;
}

// Two words that name a day without a year: "01 02" (from "01.02.", not
// from a time of day), "jan 1", "1 januar".
bool dayWithoutYear(std::u16string_view a, std::u16string_view b, std::u16string_view raw) {
  const int x = smallNumber(a), y = smallNumber(b);
  const bool numbers = x && y && (y <= 12 || x <= 12) && raw.find(u':') == std::u16string_view::npos;
  return numbers || (lmMonthNamed(a) && y) || (x && lmMonthNamed(b));
}

// The text just before a date ends with the start of a period whose end the
// date is: "01.01. - ", "Jan 1 – ", "1. Januar bis "; "1 - " when the date
// begins with its day and a month name ("1 - 31 January 2024").
bool endsPeriod(std::u16string_view before, const LMFoundDate& date) {
  size_t end = before.size();
  while (end > 0 && before[end - 1] == u' ') --end;
  if (end > 0 && isDash(before[end - 1])) {
    --end;
  } else {
    const LMFoldedText folded = lmFoldLabelText(before.substr(0, end));
    bool joined = false;
    for (std::u16string_view w : kJoinWords) {
      const std::u16string_view f = folded.text;
      if (f.size() > w.size() && f.substr(f.size() - w.size()) == w && f[f.size() - w.size() - 1] == u' ') {
        end = folded.origin[f.size() - w.size()];
        joined = true;
        break;
      }
    }
    if (!joined) return false;
  }
  const std::u16string start = lmFoldLabelText(before.substr(0, end)).text;
  const auto words = wordsOf(start);
  if (words.empty()) return false;
  if (words.size() >= 2 && dayWithoutYear(words[words.size() - 2], words.back(), before)) return true;
  const std::u16string ownText = lmFoldLabelText(date.string().value_or(u"")).text;
  const auto own = wordsOf(ownText);
  return smallNumber(words.back()) && own.size() >= 2 && smallNumber(own[0]) && lmMonthNamed(own[1]);
}

// The text just after a date begins with the end of a period it starts:
// " - 31.01.", " to Jan 31", " bis 31. Januar".
bool startsPeriod(std::u16string_view after) {
  size_t i = 0;
  while (i < after.size() && after[i] == u' ') ++i;
  const LMFoldedText folded = lmFoldLabelText(after.substr(i));
  auto words = wordsOf(folded.text);
  if (i < after.size() && isDash(after[i])) {
    // The dash is a separator of the folded text: the words are those after it.
  } else if (!words.empty() &&
             std::find(std::begin(kJoinWords), std::end(kJoinWords), words.front()) != std::end(kJoinWords)) {
    words.erase(words.begin());
  } else {
    return false;
  }
  return words.size() >= 2 && dayWithoutYear(words[0], words[1], after);
}

// The text of a date's line around it, at most kPeriodReach units each way.
std::u16string_view lineBefore(std::u16string_view text, LMTextRange r) {
  size_t from = r.location > kPeriodReach ? r.location - kPeriodReach : 0;
  const size_t newline = text.substr(0, r.location).rfind(u'\n');
  if (newline != std::u16string_view::npos && newline + 1 > from) from = newline + 1;
  return text.substr(from, r.location - from);
}

std::u16string_view lineAfter(std::u16string_view text, LMTextRange r) {
  const std::u16string_view rest = text.substr(r.end(), std::min(kPeriodReach, text.size() - r.end()));
  return rest.substr(0, rest.find(u'\n'));
}

// Which of `dates` bound a period: two dates in a row joined by "-", "bis",
// "to", ...; or one whose other end is printed without a year.
std::vector<bool> periodEnds(const std::vector<const LMFoundDate*>& dates, const LMTextLayout& layout) {
  std::vector<bool> inPeriod(dates.size(), false);
  std::vector<size_t> order;
  for (size_t i = 0; i < dates.size(); ++i) {
    if (dates[i]) order.push_back(i);
  }
  std::sort(order.begin(), order.end(), [&](size_t a, size_t b) {
    return dates[a]->page() != dates[b]->page() ? dates[a]->page() < dates[b]->page()
                                                : dates[a]->range().location < dates[b]->range().location;
  });
  for (size_t k = 0; k < order.size(); ++k) {
    const LMFoundDate& first = *dates[order[k]];
    const std::u16string_view text = layout.pageText(first.page());
    const LMTextRange a = first.range();
    if (!a.fitsIn(text.size())) continue;
    if (endsPeriod(lineBefore(text, a), first) || startsPeriod(lineAfter(text, a))) inPeriod[order[k]] = true;
    if (k + 1 == order.size()) continue;
    const LMFoundDate& second = *dates[order[k + 1]];
    const LMTextRange b = second.range();
    if (first.page() != second.page() || !b.fitsIn(text.size()) || b.location < a.end() ||
        b.location - a.end() > 16) {
      continue;
    }
    if (joinsPeriod(text.substr(a.end(), b.location - a.end())))
      inPeriod[order[k]] = inPeriod[order[k + 1]] = true;
  }
  return inPeriod;
}

}  // namespace

LMDateChoice lmChooseIssueDate(const LMReceiptParser& parser, const LMTextLayout& layout, const LMDate& today) {
  LMDateChoice out;
  std::vector<const LMFoundDate*> dates;
  if (parser.dates()) {
    for (const auto& d : *parser.dates()) dates.push_back(d.get());
  }
  for (const auto& d : layout.extraDates()) dates.push_back(d.get());
  const std::vector<bool> inPeriod = periodEnds(dates, layout);
  const SlashOrder order = slashOrder(dates, layout);
  const std::u16string todayText = today.descriptionDate();
  std::vector<LMDateCandidate> candidates;
  size_t unlabelled = 0;
  for (size_t i = 0; i < dates.size(); ++i) {
    const LMFoundDate* d = dates[i];
    if (!d || !d->date() || inPeriod[i]) continue;
    const std::u16string day = dayOf(*d, order.monthFirst);
    if (day > todayText) continue;
    const LMRoleTies ties = layout.ties(*d);
    // "Rechnung Nr. 123 vom 01.02.2024", "Invoice #12 issued 2024-02-01".
    const double issue = std::max(ties.of(LMLabelRole::kIssueDate), 0.85 * ties.onRowOf(LMLabelRole::kTitle));
    if (ties.of(LMLabelRole::kOtherDate) >= 0.5 && ties.of(LMLabelRole::kOtherDate) >= issue) continue;
    // "Bestellung Nr. 12 vom 01.02.": a weak "vom" does not undo the order.
    if (ties.onRowOf(LMLabelRole::kOtherDate) >= 0.8 && ties.of(LMLabelRole::kIssueDate) < 0.9) continue;
    const double score = issue > 0 ? 0.5 + 0.45 * issue : 0.3 - 0.02 * std::min<size_t>(unlabelled++, 10);
    candidates.push_back({d, day, score, ties.anchorOf(LMLabelRole::kIssueDate)});
  }
  if (candidates.empty()) return out;
  std::stable_sort(candidates.begin(), candidates.end(),
                   [](const LMDateCandidate& a, const LMDateCandidate& b) { return a.score > b.score; });
  LMDateCandidate best = candidates.front();
  bool otherDays = false;
  for (const LMDateCandidate& c : candidates) otherDays = otherDays || c.day != best.day;
  if (!otherDays) best.score = std::max(best.score, 0.6);
  // Day and month that could change places leave doubt.
  if (ambiguousOrder(*best.element)) {
    best.score = std::min(best.score, order.fromDocument ? kOrderFromDocument : kAmbiguousDate);
  }
  std::vector<std::u16string> seen{best.day};
  for (const LMDateCandidate& c : candidates) {
    if (out.alternatives.size() >= 3) break;
    if (std::find(seen.begin(), seen.end(), c.day) != seen.end()) continue;
    seen.push_back(c.day);
    out.alternatives.push_back(c);
    out.alternatives.back().score = std::min(c.score, 0.45);
  }
  out.best = best;
  return out;
}
