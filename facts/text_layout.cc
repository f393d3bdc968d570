#include "facts/text_layout.h"

#include <algorithm>
#include <tuple>

#include "analysis/receipt_parser.h"
#include "document/pdf_page.h"
#include "document/receipt_document.h"
#include "facts/text_country.h"
#include "kit/unicode.h"

namespace {

// A label above an element ties it within this many of its line heights.
constexpr double kColumnReach = 8;
// An amount on a label's row that is not the row's last one ties less.
constexpr double kInnerOfRow = 0.7;

struct CurrencyWord {
  std::u16string_view text;  // as printed, case-sensitive
  std::u16string_view code;  // empty: decided by the country
  bool word;                 // needs word boundaries
};

// Longest first where one begins another.
const CurrencyWord kCurrencyWords[] = {
    {u"US$", u"USD", false}, {u"CA$", u"CAD", false}, {u"NZ$", u"NZD", false},
    {u"AU$", u"AUD", false}, {u"A$", u"AUD", false},  {u"C$", u"CAD", false},
    {u"$", u"", false},      {u"\u20AC", u"EUR", false}, {u"\u00A3", u"GBP", false},
    {u"\u20B9", u"INR", false}, {u"\u00A5", u"JPY", false}, {u"EUR", u"EUR", true},
    {u"Euro", u"EUR", true}, {u"EURO", u"EUR", true}, {u"Euros", u"EUR", true},
    {u"USD", u"USD", true},  {u"GBP", u"GBP", true}, {u"CHF", u"CHF", true},
    {u"SFr.", u"CHF", true}, {u"NZD", u"NZD", true},
    {u"AUD", u"AUD", true},  {u"CAD", u"CAD", true}, {u"INR", u"INR", true},
    {u"Rs.", u"INR", true},  {u"Rs", u"INR", true},  {u"JPY", u"JPY", true}, {u"SEK", u"SEK", true},
    {u"NOK", u"NOK", true},  {u"DKK", u"DKK", true}, {u"PLN", u"PLN", true},
    {u"CZK", u"CZK", true},  {u"kr", u"", true},     {u"Kr.", u"", true},
};

// The first units of the currency words, to pass over all others quickly.
constexpr std::u16string_view kCurrencyStarts = u"UCNA$\u20AC\u00A3\u20B9\u00A5EGSIRJDPkK";

bool isAlnum(char16_t c) {
  return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9') || c > 0xBF;
}

bool isDigit(char16_t c) { return c >= u'0' && c <= u'9'; }

double overlap(double a0, double a1, double b0, double b1) { return std::min(a1, b1) - std::max(a0, b0); }

// Percentages: "19%", "19 %", "7,0%", "5.5 %"; each with [begin, end) of
// its digits and sign in `found`.
void collectRates(std::u16string_view text, std::vector<LMDecimal>& rates,
                  std::vector<std::tuple<LMDecimal, size_t, size_t>>& found) {
  for (size_t i = text.find(u'%'); i != std::u16string_view::npos; i = text.find(u'%', i + 1)) {
    size_t end = i;
    while (end > 0 && text[end - 1] == u' ') --end;
    size_t begin = end;
    while (begin > 0 && (isDigit(text[begin - 1]) || text[begin - 1] == u',' || text[begin - 1] == u'.'))
      --begin;
    while (begin < end && !isDigit(text[begin])) ++begin;
    if (begin == end || end - begin > 6) continue;
    std::u16string number(text.substr(begin, end - begin));
    std::replace(number.begin(), number.end(), u',', u'.');
    const auto rate = LMDecimal::fromString(number);
    if (!rate || rate->isZero() || *rate > LMDecimal::fromInt(30)) continue;
    found.emplace_back(*rate, begin, i + 1);
    if (std::find(rates.begin(), rates.end(), *rate) == rates.end()) rates.push_back(*rate);
  }
}

// What sets thousands apart: a space, plain or no-break; a line break where
// the page cleaning turned a no-break space into one.
bool isGroupSpace(char16_t c) { return c == u' ' || c == u'\u00A0' || c == u'\u202F' || c == u'\n'; }

// Amounts written with two decimals, "1.234,56", "-20,48", "233,47-",
// "1 234,56" (thousands set apart by a space), at `i`; their length, 0 when
// none starts there. `grouped`: thousands set apart by a space. A line break
// between two groups sets them apart only where `sameRow(at)` says the units
// before and after the break at `at` stand side by side on one row.
template <typename SameRow>
size_t amountAt(std::u16string_view text, size_t i, int64_t& hundredths, bool& grouped, const SameRow& sameRow) {
  size_t j = i;
  bool negative = false;
  grouped = false;
  if (text[j] == u'-' || text[j] == u'\u2212') {
    negative = true;
    ++j;
    if (j < text.size() && text[j] == u' ') ++j;
  }
  if (j >= text.size() || !isDigit(text[j])) return 0;
  int64_t value = 0;
  size_t digits = 0, groupDigits = 0;
  size_t lastSeparator = std::u16string_view::npos;
  for (; j < text.size(); ++j) {
    const char16_t c = text[j];
    if (isDigit(c)) {
      if (++digits > 13) return 0;
      value = value * 10 + (c - u'0');
      ++groupDigits;
    } else if ((c == u'.' || c == u',' || c == u'\'') && j + 1 < text.size() && isDigit(text[j + 1])) {
      lastSeparator = j;
      groupDigits = 0;
    } else if (isGroupSpace(c) && lastSeparator == std::u16string_view::npos && groupDigits >= 1 &&
               groupDigits <= 3 && (!grouped || groupDigits == 3) && j + 4 < text.size() &&
               isDigit(text[j + 1]) && isDigit(text[j + 2]) && isDigit(text[j + 3]) && !isDigit(text[j + 4]) &&
               (c != u'\n' || sameRow(j))) {
      grouped = true;
      groupDigits = 0;
    } else {
      break;
    }
  }
  if (lastSeparator == std::u16string_view::npos || j - lastSeparator != 3) return 0;
  if (j < text.size() && (text[j] == u'%' || isAlnum(text[j]))) return 0;
  if (j + 1 < text.size() && text[j] == u' ' && text[j + 1] == u'%') return 0;
  if (j < text.size() && text[j] == u'-' && !negative) {
    negative = true;
    ++j;
  }
  hundredths = negative ? -value : value;
  return j - i;
}

// Month names of the six languages, folded, with abbreviations.
const std::pair<std::u16string_view, int> kMonths[] = {
    {u"januar", 1},     {u"january", 1},   {u"janvier", 1},   {u"gennaio", 1},  {u"enero", 1},
    {u"januari", 1},    {u"jan", 1},       {u"februar", 2},   {u"february", 2}, {u"fevrier", 2},
    {u"febbraio", 2},   {u"febrero", 2},   {u"februari", 2},  {u"feb", 2},      {u"marz", 3},
    {u"march", 3},      {u"mars", 3},      {u"marzo", 3},     {u"maart", 3},    {u"mar", 3},
    {u"april", 4},      {u"avril", 4},     {u"aprile", 4},    {u"abril", 4},    {u"apr", 4},
    {u"mai", 5},        {u"may", 5},       {u"maggio", 5},    {u"mayo", 5},     {u"mei", 5},
    {u"juni", 6},       {u"june", 6},      {u"juin", 6},      {u"giugno", 6},   {u"junio", 6},
    {u"jun", 6},        {u"juli", 7},      {u"july", 7},      {u"juillet", 7},  {u"luglio", 7},
    {u"julio", 7},      {u"jul", 7},       {u"august", 8},    {u"aout", 8},     {u"agosto", 8},
    {u"augustus", 8},   {u"aug", 8},       {u"september", 9}, {u"septembre", 9}, {u"settembre", 9},
    {u"septiembre", 9}, {u"setiembre", 9}, {u"sep", 9},       {u"sept", 9},     {u"oktober", 10},
    {u"october", 10},   {u"octobre", 10},  {u"ottobre", 10},  {u"octubre", 10}, {u"okt", 10},
    {u"oct", 10},       {u"november", 11}, {u"novembre", 11}, {u"noviembre", 11}, {u"nov", 11},
    {u"dezember", 12},  {u"december", 12}, {u"decembre", 12}, {u"dicembre", 12}, {u"diciembre", 12},
    {u"dez", 12},       {u"dec", 12},      {u"janner", 1},    {u"janv", 1},     {u"fevr", 2},
    {u"avr", 4},        {u"juil", 7},      {u"gen", 1},       {u"mag", 5},      {u"giu", 6},
    {u"lug", 7},        {u"ago", 8},       {u"set", 9},       {u"ott", 10},     {u"dic", 12},
    {u"ene", 1},        {u"abr", 4},       {u"mrt", 3},
};


// A number of 1 to 4 digits, or -1.
int numberOf(std::u16string_view word) {
  if (word.empty() || word.size() > 4) return -1;
  int n = 0;
  for (char16_t c : word) {
    if (!isDigit(c)) return -1;
    n = n * 10 + (c - u'0');
  }
  return n;
}

// A day of the month, 1 to 31, also as an ordinal ("3rd", "1st", "1er",
// "1º"); -1 for anything else.
int dayNumber(std::u16string_view word) {
  for (std::u16string_view suffix : {u"st", u"nd", u"rd", u"th", u"er", u"\u00BA"}) {
    if (word.size() > suffix.size() && word.ends_with(suffix)) {
      word.remove_suffix(suffix.size());
      break;
    }
  }
  const int n = numberOf(word);
  return n >= 1 && n <= 31 ? n : -1;
}

// Whether `range` shares a unit with one of `sorted` (in text order; the
// elements' ranges are short, so a few steps back suffice).
bool intersectsAny(const std::vector<LMTextRange>& sorted, LMTextRange range) {
  auto it = std::lower_bound(sorted.begin(), sorted.end(), range.end(),
                             [](const LMTextRange& r, uint64_t end) { return r.location < end; });
  for (int steps = 0; it != sorted.begin() && steps < 16; ++steps) {
    --it;
    if (it->intersects(range)) return true;
  }
  return false;
}

}  // namespace

// The boxes of a page's text, from its lines: a range's box is its share of
// its line's box. (Asking the PDF adapter for each range's exact bounds
// rebuilds the text of a long document's page every time.)
struct LMPageGeometry {
  int64_t index = 0;
  LMRect mediaBox;
  std::vector<LMPdfTextLine> lines;  // in text order

  LMRect box(size_t from, size_t to) const {
    LMRect out = LMRect::null();
    auto it = std::upper_bound(lines.begin(), lines.end(), from,
                               [](size_t at, const LMPdfTextLine& l) { return at < l.range.location; });
    if (it != lines.begin()) --it;
    for (; it != lines.end() && it->range.location < to; ++it) {
      const LMTextRange r = it->range;
      if (r.end() <= from) continue;
      const LMRect b = it->bounds.standardized();
      const double unit = b.width / static_cast<double>(std::max<uint64_t>(r.length, 1));
      const size_t begin = std::max<size_t>(from, r.location), end = std::min<size_t>(to, r.end());
      const LMRect piece{b.x + unit * (begin - r.location), b.y, unit * (end - begin), b.height};
      out = out.isNull() ? piece : lmRectUnion(out, piece);
    }
    return out.isNull() ? LMRect::zero() : out;
  }
};

int lmMonthNamed(std::u16string_view word) {
  for (const auto& [name, month] : kMonths) {
    if (name == word) return month;
  }
  return 0;
}

bool lmSameRow(const LMRect& a, const LMRect& b) {
  const LMRect sa = a.standardized(), sb = b.standardized();
  const double shared = overlap(sa.y, sa.y + sa.height, sb.y, sb.y + sb.height);
  return shared > 0.5 * std::min(sa.height, sb.height);
}

LMTextLayout::LMTextLayout(const LMReceiptParser& parser) {
  if (!parser.doc()) return;
  LMCountryClues clues;
  std::vector<std::pair<size_t, int64_t>> symbols;  // mentions to resolve, by country
  const int64_t pages = parser.doc()->pageCount();
  // The standard elements' ranges per page, in text order: what the extra
  // amounts and dates must leave alone.
  std::vector<std::vector<LMTextRange>> numberRanges(pages), dateRanges(pages);
  auto rangesOf = [&](const auto& elements, std::vector<std::vector<LMTextRange>>& into) {
    if (!elements) return;
    for (const auto& e : *elements) {
      if (e && e->page() >= 0 && e->page() < pages) into[e->page()].push_back(e->range());
    }
    for (auto& ranges : into) {
      std::sort(ranges.begin(), ranges.end(),
                [](const LMTextRange& a, const LMTextRange& b) { return a.location < b.location; });
    }
  };
  rangesOf(parser.numbers(), numberRanges);
  rangesOf(parser.dates(), dateRanges);
  for (int64_t page = 0; page < pages; ++page) {
    // The page's plain text, read in place: its font runs are not needed here.
    const auto pdfPage = parser.doc()->pdfDoc() ? parser.doc()->pdfDoc()->pageAtIndex(page) : nullptr;
    if (!pdfPage || pdfPage->string().empty()) continue;
    const std::u16string text = LMPDFPage::normalizePDFString(pdfPage->string());
    const LMFoldedText folded = lmFoldLabelText(text);
    LMPageGeometry geometry;
    geometry.index = page;
    geometry.mediaBox = pdfPage->mediaBox();
    if (pageBoxes_.size() <= static_cast<size_t>(page)) pageBoxes_.resize(page + 1);
    pageBoxes_[page] = geometry.mediaBox.standardized();
    geometry.lines = pdfPage->lines();
    std::sort(geometry.lines.begin(), geometry.lines.end(),
              [](const LMPdfTextLine& a, const LMPdfTextLine& b) { return a.range.location < b.range.location; });
    if (pageTexts_.size() <= static_cast<size_t>(page)) pageTexts_.resize(page + 1);
    pageTexts_[page] = text;
    auto box = [&](size_t from, size_t to) {
      return geometry.box(from, to);
    };
    for (const LMLabelMatch& m : lmFindLabels(folded.text)) {
      const size_t from = folded.origin[m.begin];
      const size_t to = folded.origin[m.end - 1] + 1;
      labels_.push_back({m.label, page, box(from, to), text.substr(from, to - from)});
    }
    std::vector<std::tuple<LMDecimal, size_t, size_t>> rates;
    collectRates(text, rates_, rates);
    for (const auto& [rate, from, to] : rates) rateMentions_.push_back({rate, page, box(from, to)});
    collectAmounts(geometry, text, numberRanges[page], dateRanges[page]);
    collectDates(geometry, text, folded, dateRanges[page]);
    clues.addPage(text, folded.text);
    for (size_t i = 0; i < text.size(); ++i) {
      if (kCurrencyStarts.find(text[i]) == std::u16string_view::npos) continue;
      for (const CurrencyWord& w : kCurrencyWords) {
        if (text.compare(i, w.text.size(), w.text) != 0) continue;
        const size_t end = i + w.text.size();
        if (w.word && ((i > 0 && isAlnum(text[i - 1])) ||
                       (end < text.size() && isAlnum(text[end]) && w.text.back() != u'.'))) {
          continue;
        }
        if (!w.word && i > 0 && text[i - 1] >= u'A' && text[i - 1] <= u'Z' && w.text == u"$") continue;
        currencies_.push_back(
            {std::u16string(w.code), page, box(i, end), std::u16string(w.text), w.code.empty()});
        if (w.code.empty()) symbols.emplace_back(currencies_.size() - 1, page);
        i = end - 1;
        break;
      }
    }
  }
  markValuesOnRows(parser);
  country_ = clues.country();
  language_ = clues.language();
  for (const auto& [index, page] : symbols) {
    LMCurrencyMention& m = currencies_[index];
    m.code = m.text == u"$" ? lmDollarOf(country_) : lmKronaOf(country_);
  }
}

void LMTextLayout::place(LMFoundElement& e, const LMPageGeometry& page, LMTextRange range,
                         std::u16string_view text) {
  e.setPage(page.index);
  e.setRange(range);
  e.setString(std::u16string(text.substr(range.location, range.length)));
  e.setBbox(page.box(range.location, range.end()));
  e.setPageBox(page.mediaBox);
}

void LMTextLayout::collectDates(const LMPageGeometry& page, std::u16string_view text,
                                const LMFoldedText& folded, const std::vector<LMTextRange>& known) {
  // The words of the folded text with where they begin and end.
  struct Word {
    std::u16string_view text;
    size_t begin, end;  // in the folded text
  };
  std::vector<Word> words;
  const std::u16string_view f = folded.text;
  for (size_t i = 0; i < f.size();) {
    if (f[i] == u' ') {
      ++i;
      continue;
    }
    size_t j = i;
    while (j < f.size() && f[j] != u' ') ++j;
    words.push_back({f.substr(i, j - i), i, j});
    i = j;
  }
  for (size_t i = 0; i < words.size(); ++i) {
    const int month = lmMonthNamed(words[i].text);
    if (month == 0) continue;
    // "12 marzo 2024", "15 de enero de 2024", "3 maart 2024"; "March 3 2024".
    size_t first = i, last = i;
    int day = -1, year = -1;
    if (i > 0 && dayNumber(words[i - 1].text) > 0) {
      day = dayNumber(words[i - 1].text), first = i - 1;
    } else if (i > 1 && words[i - 1].text == u"de" && dayNumber(words[i - 2].text) > 0) {
      day = dayNumber(words[i - 2].text), first = i - 2;
    }
    size_t k = i + 1;
    if (day < 0 && k < words.size() && dayNumber(words[k].text) > 0) {
      day = dayNumber(words[k].text), ++k;
    }
    if (k < words.size() && (words[k].text == u"de" || words[k].text == u"del")) ++k;
    if (k < words.size() && words[k].text.size() == 4 && numberOf(words[k].text) >= 1900) {
      year = numberOf(words[k].text), last = k;
    }
    if (day < 0 || year < 0) continue;
    const auto date = LMDate::fromComponents(year, month, day);
    if (!date ||
        date->descriptionDate().substr(8) != (day < 10 ? u"0" : u"") + lmUtf16(std::to_string(day))) {
      continue;
    }
    const size_t from = folded.origin[words[first].begin];
    const size_t to = folded.origin[words[last].end - 1] + 1;
    const LMTextRange range = LMTextRange::make(from, to - from);
    if (intersectsAny(known, range)) continue;
    auto d = std::make_shared<LMFoundDate>();
    place(*d, page, range, text);
    d->setDate(date);
    d->setDateString(d->string());
    extraDates_.push_back(std::move(d));
    i = last;
  }
}

void LMTextLayout::collectAmounts(const LMPageGeometry& page, std::u16string_view text,
                                  const std::vector<LMTextRange>& numbers,
                                  const std::vector<LMTextRange>& dates) {
  for (size_t i = 0; i < text.size(); ++i) {
    if (i > 0 &&
        (isAlnum(text[i - 1]) || text[i - 1] == u'.' || text[i - 1] == u',' || text[i - 1] == u'-')) {
      continue;
    }
    int64_t hundredths = 0;
    bool grouped = false;
    auto sameRow = [&](size_t at) {
      const LMRect before = page.box(at - 1, at), after = page.box(at + 1, at + 2);
      return lmSameRow(before, after) && after.x >= before.x && after.x - (before.x + before.width) < 2 * before.width;
    };
    const size_t length = amountAt(text, i, hundredths, grouped, sameRow);
    if (length == 0) continue;
    const LMTextRange range = LMTextRange::make(i, length);
    // The standard recognizers read "1 234,56" as "234,56": the whole
    // amount replaces what they found inside it.
    if ((grouped || !intersectsAny(numbers, range)) && !intersectsAny(dates, range)) {
      auto n = std::make_shared<LMFoundNumber>(hundredths, 2);
      place(*n, page, range, text);
      extraAmounts_.push_back(std::move(n));
      if (grouped) groupedAmounts_.push_back({page.index, range});
    }
    i += length - 1;
  }
}

std::pair<size_t, size_t> LMTextLayout::labelsOn(int64_t page) const {
  // labels_ is in page order.
  auto byPage = [](const LMLabelHit& h, int64_t p) { return h.page < p; };
  const auto from = std::lower_bound(labels_.begin(), labels_.end(), page, byPage);
  auto to = from;
  while (to != labels_.end() && to->page == page) ++to;
  return {static_cast<size_t>(from - labels_.begin()), static_cast<size_t>(to - labels_.begin())};
}

void LMTextLayout::markValuesOnRows(const LMReceiptParser& parser) {
  auto mark = [&](const LMFoundElement& e) {
    const LMRect box = e.bbox().standardized();
    const auto [from, to] = labelsOn(e.page());
    for (size_t i = from; i < to; ++i) {
      LMLabelHit& hit = labels_[i];
      if (box.x >= hit.box.x + hit.box.width - 1 && lmSameRow(hit.box, box)) {
        hit.valueOnRow = true;
      }
    }
  };
  auto markAll = [&](const auto& elements) {
    if (!elements) return;
    for (const auto& e : *elements) {
      if (e) mark(*e);
    }
  };
  markAll(parser.numbers());
  markAll(parser.dates());
  markAll(std::optional(extraAmounts_));
  markAll(std::optional(extraDates_));
}

bool LMTextLayout::supersedes(const LMFoundElement& element) const {
  const auto key = std::pair(element.page(), element.range().location);
  // groupedAmounts_ is in page and text order; the amounts do not overlap.
  auto it = std::upper_bound(groupedAmounts_.begin(), groupedAmounts_.end(), key,
                             [](const std::pair<int64_t, uint64_t>& k, const GroupedAmount& g) {
                               return k < std::pair(g.page, g.range.location);
                             });
  if (it == groupedAmounts_.begin()) return false;
  --it;
  return it->page == element.page() && element.range().end() <= it->range.end() &&
         element.range().length < it->range.length;
}

double LMTextLayout::roleWeight(LMLabelRole role) const {
  double sum = 0;
  for (const LMLabelHit& hit : labels_) sum += hit.label->role == role ? hit.label->weight : 0;
  return sum;
}

LMRoleTies LMTextLayout::ties(const LMFoundElement& element, double nextOnRow) const {
  LMRoleTies out;
  const LMRect e = element.bbox().standardized();
  const LMLabelHit* row = nullptr;
  const LMLabelHit* column = nullptr;
  double columnGap = 0;
  bool closed = nextOnRow >= kLMNoNextValue;  // the last value, or a label follows it
  const auto [from, to] = labelsOn(element.page());
  for (size_t i = from; i < to; ++i) {
    const LMLabelHit& hit = labels_[i];
    const LMRect& l = hit.box;
    if (!closed && lmSameRow(l, e) && l.x >= e.x + e.width - 1 && l.x < nextOnRow) closed = true;
    if (lmSameRow(l, e) && l.x + l.width <= e.x + 1) {
      const size_t role = static_cast<size_t>(hit.label->role);
      out.onRow[role] = std::max(out.onRow[role], hit.label->weight);
      if (!row || l.x + l.width > row->box.x + row->box.width) row = &hit;
      continue;
    }
    // A label with its own value on its row does not head a column.
    if (hit.valueOnRow) continue;
    const double gap = l.y - (e.y + e.height);  // label above: positive
    const double reach = kColumnReach * std::max(e.height, 1.0);
    if (gap > -1 && gap < reach && overlap(l.x, l.x + l.width, e.x, e.x + e.width) > 0) {
      if (!column || gap < columnGap) column = &hit, columnGap = gap;
    }
  }
  auto tie = [&](const LMLabelHit* hit, double factor) {
    if (!hit) return;
    const size_t role = static_cast<size_t>(hit->label->role);
    const double s = hit->label->weight * factor;
    if (s > out.score[role]) out.score[role] = s, out.anchor[role] = hit;
  };
  tie(row, closed ? 1.0 : kInnerOfRow);
  if (column) {
    const double reach = kColumnReach * std::max(e.height, 1.0);
    tie(column, 0.8 - 0.3 * std::max(0.0, columnGap) / reach);
  }
  return out;
}
