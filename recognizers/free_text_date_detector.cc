#include "recognizers/free_text_date_detector.h"

#include <unicode/uchar.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <utility>

#include "kit/strings.h"
#include "recognizers/detector_text.h"
#include "recognizers/regex.h"

namespace lm_detector {
namespace {

int64_t numberValue(std::u16string_view digits) {
  int64_t value = 0;
  for (char16_t c : digits) {
    if (c < u'0' || c > u'9') break;
    value = value * 10 + (c - u'0');
  }
  return value;
}

// `names` as one alternation shaped like a prefix tree: "jan(?:uar(?:y)?)?"
// instead of "january|januar|jan", so a non-matching word fails at its first
// or second letter. Names are plain letters (no pattern characters).
std::u16string prefixTreePattern(const std::vector<std::u16string>& names) {
  struct Node {
    char16_t letter = 0;
    std::vector<Node> children;  // in insertion order
    bool terminal = false;
  };
  Node root;
  for (const std::u16string& name : names) {
    Node* node = &root;
    for (char16_t c : name) {
      auto child = std::find_if(node->children.begin(), node->children.end(),
                                [&](const Node& entry) { return entry.letter == c; });
      if (child == node->children.end()) {
        node->children.push_back(Node{c, {}, false});
        child = std::prev(node->children.end());
      }
      node = &*child;
    }
    node->terminal = true;
  }
  auto emit = [](auto&& self, const Node& node) -> std::u16string {
    std::vector<std::u16string> branches;
    for (const Node& child : node.children) {
      branches.push_back(std::u16string(1, child.letter) + self(self, child));
    }
    if (branches.empty()) return u"";
    std::u16string body = branches.size() == 1 && !node.terminal
                              ? branches.front()
                              : u"(?:" + lmJoin(branches, u"|") + u")";
    return node.terminal ? body + u"?" : body;
  };
  return u"(?:" + emit(emit, root) + u")";
}


struct MonthName {
  const char16_t* name;
  int64_t month;
};

// Lower-case; English, German, French. Any of them may be followed by ".".
constexpr MonthName kMonthNames[] = {
    {u"january", 1},      {u"jan", 1},       {u"januar", 1},
    {u"j\u00e4nner", 1},  {u"janvier", 1},   {u"janv", 1},
    {u"february", 2},     {u"feb", 2},       {u"februar", 2},
    {u"f\u00e9vrier", 2}, {u"fevrier", 2},   {u"f\u00e9vr", 2},
    {u"march", 3},        {u"mar", 3},       {u"m\u00e4rz", 3},
    {u"maerz", 3},        {u"mrz", 3},       {u"mars", 3},
    {u"april", 4},        {u"apr", 4},       {u"avril", 4},
    {u"avr", 4},          {u"may", 5},       {u"mai", 5},
    {u"june", 6},         {u"jun", 6},       {u"juni", 6},
    {u"juin", 6},         {u"july", 7},      {u"jul", 7},
    {u"juli", 7},         {u"juillet", 7},   {u"juil", 7},
    {u"august", 8},       {u"aug", 8},       {u"ao\u00fbt", 8},
    {u"aout", 8},         {u"september", 9}, {u"sep", 9},
    {u"sept", 9},         {u"septembre", 9}, {u"october", 10},
    {u"oct", 10},         {u"oktober", 10},  {u"okt", 10},
    {u"octobre", 10},     {u"november", 11}, {u"nov", 11},
    {u"novembre", 11},    {u"december", 12}, {u"dec", 12},
    {u"dezember", 12},    {u"dez", 12},      {u"d\u00e9cembre", 12},
    {u"decembre", 12},    {u"d\u00e9c", 12},
};

// Lower-case weekday names that may open a date ("Tuesday, 3 March 2021").
// The German two-letter forms count only with their dot ("Mo.").
constexpr const char16_t* kWeekdayNames[] = {
    u"monday",  u"tuesday",  u"wednesday", u"thursday", u"friday",   u"saturday", u"sunday",
    u"mon",     u"tue",      u"tues",      u"wed",      u"thu",      u"thur",     u"thurs",
    u"fri",     u"sat",      u"sun",       u"montag",   u"dienstag", u"mittwoch", u"donnerstag",
    u"freitag", u"samstag",  u"sonnabend", u"sonntag",  u"lundi",    u"mardi",    u"mercredi",
    u"jeudi",   u"vendredi", u"samedi",    u"dimanche", u"mo.",      u"di.",      u"mi.",
    u"do.",     u"fr.",      u"sa.",       u"so.",
};

int64_t monthForName(std::u16string_view name) {
  std::u16string lower = lmLower(name);
  if (!lower.empty() && lower.back() == u'.') lower.pop_back();
  for (const MonthName& entry : kMonthNames) {
    if (lower == entry.name) return entry.month;
  }
  return 0;
}

bool isValidDay(int64_t year, int64_t month, int64_t day) {
  static constexpr std::array<int64_t, 12> kDays = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (month < 1 || month > 12 || day < 1) return false;
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return day <= (month == 2 && leap ? 29 : kDays[static_cast<size_t>(month - 1)]);
}

// Day before month ("3rd of March 2021", "3. März 2021"), month before day
// ("March 3rd, 2021", "August 3 , 2014") and year first ("2021/03/04").
// MONTH is any month name, YSEP what may stand before the year; GAP and
// OGAP are kGapPattern and kOptionalGapPattern. Weekdays before a date are
// taken in by code.
constexpr char16_t kDatePattern[] =
    uR"RX(
  (?<![\p{L}\d]) (?<!\d[.,/\-])
  (?:
    (?<dayA> 3[01] | [12]\d | 0?[1-9] ) (?!\d)
    (?: (?: st | nd | rd | th | er ) GAP | \. OGAP | GAP )
    (?: of GAP )?
    (?<monthA> MONTH ) YSEP (?<yearA> (?:19|20)\d\d )
  |
    (?<monthB> MONTH ) GAP (?: the GAP )?
    (?<dayB> 3[01] | [12]\d | 0?[1-9] ) (?!\d) (?: st | nd | rd | th )?
    YSEP (?<yearB> (?:19|20)\d\d )
  |
    (?<yearC> (?:19|20)\d\d ) (?<sep1> [/.\-] ) (?<monthC> 1[0-2] | 0?[1-9] )
    (?<sep2> [/.\-] ) (?<dayC> 3[01] | [12]\d | 0?[1-9] ) (?![/.\-]\d)
  )
  (?!\d) (?![.,]\d)
)RX";

const LMRegex& dateExpression() {
  static const auto* regex = [] {
    std::vector<std::u16string> months;
    for (const MonthName& entry : kMonthNames) months.emplace_back(entry.name);
    std::u16string pattern = kDatePattern;
    pattern = lmReplace(pattern, u"YSEP", u"(?: OGAP , OGAP | GAP )");
    pattern = lmReplace(pattern, u"OGAP", kOptionalGapPattern);
    pattern = lmReplace(pattern, u"GAP", kGapPattern);
    pattern = lmReplace(pattern, u"MONTH", prefixTreePattern(months) + u"(?![\\p{L}]) \\.?+");
    return new LMRegex(pattern, kCaseInsensitive);
  }();
  return *regex;
}

// Where a date starting at `start` begins when a weekday (and "the") stands
// before it: "Tuesday, 3 March", "Di., 3. März", "Tuesday the 3rd".
size_t startWithWeekday(std::u16string_view text, size_t start) {
  // Where the blanks before `from` begin, taking in one line break at most.
  auto skipBlanks = [&](size_t from) {
    size_t j = from;
    bool lineBreak = false;
    while (j > 0 && lmIsWhitespaceOrNewline(text[j - 1])) {
      if (!isHorizontalSpace(text[j - 1])) {
        if (lineBreak) break;
        lineBreak = true;
      }
      --j;
    }
    return j;
  };
  auto wordBefore = [&](size_t end) {
    size_t j = end;
    while (j > 0 && isLetter(text[j - 1])) --j;
    return j;
  };
  size_t i = skipBlanks(start);
  if (i == start) return start;
  size_t wordStart = wordBefore(i);
  if (lmLower(text.substr(wordStart, i - wordStart)) == u"the") {
    i = skipBlanks(wordStart);
    if (i == wordStart) return start;
  }
  if (i > 0 && text[i - 1] == u',') {
    --i;
    while (i > 0 && isHorizontalSpace(text[i - 1])) --i;
  }
  size_t end = i;
  if (end > 0 && text[end - 1] == u'.') --end;
  wordStart = wordBefore(end);
  if (wordStart == end || (wordStart > 0 && u_isalnum(text[wordStart - 1]))) return start;
  const std::u16string name = lmLower(text.substr(wordStart, end - wordStart));
  if (contains(kWeekdayNames, name) || (end < i && contains(kWeekdayNames, name + u"."))) {
    return wordStart;
  }
  return start;
}

// Where each date may end or begin: the four-digit years from 1900 to 2099
// standing alone (not part of a longer number).
std::vector<size_t> yearCandidates(std::u16string_view text) {
  std::vector<size_t> years;
  size_t i = 0;
  while (i < text.size()) {
    if (text[i] < u'0' || text[i] > u'9') {
      ++i;
      continue;
    }
    const size_t start = i;
    while (i < text.size() && text[i] >= u'0' && text[i] <= u'9') ++i;
    if (i - start == 4 && ((text[start] == u'1' && text[start + 1] == u'9') ||
                           (text[start] == u'2' && text[start + 1] == u'0'))) {
      years.push_back(start);
    }
  }
  return years;
}

// Every date has a year, and years are few, so the pattern reads only the
// stretches around them: from 48 characters before a year (room for
// "Tuesday, 23rd of September ,") to 12 after it (room for "-03-04" and the
// two characters the look-aheads check), merged where they meet. A stretch
// starts after a blank, or two characters before its year when there is no
// blank, so the pattern's look-behinds, which look back at most two
// characters, decide as they would on the whole text.
std::vector<LMTextRange> dateWindows(std::u16string_view text) {
  static constexpr size_t kLead = 48;
  static constexpr size_t kTrail = 12;
  std::vector<LMTextRange> windows;
  for (const size_t year : yearCandidates(text)) {
    size_t start = year > kLead ? year - kLead : 0;
    while (start > 0 && start < year && !lmIsWhitespaceOrNewline(text[start - 1])) ++start;
    if (start == year && year >= 2) start = year - 2;
    const size_t end = std::min(text.size(), year + kTrail);
    if (!windows.empty() && start <= windows.back().end()) {
      windows.back().length = end - windows.back().location;
    } else {
      windows.push_back(LMTextRange::make(start, end - start));
    }
  }
  return windows;
}

}  // namespace

std::vector<LMDetectedItem> findDates(std::u16string_view text) {
  std::vector<LMDetectedItem> items;
  for (const LMTextRange& window : dateWindows(text)) {
    const std::u16string_view part = slice(text, window);
    dateExpression().enumerateMatchesInString(part, [&](const LMRegexMatch& m, bool*) {
      auto group = [&](std::u16string_view name) { return slice(part, m.rangeForGroupName(name)); };
      int64_t year = 0;
      int64_t month = 0;
      int64_t day = 0;
      if (!group(u"yearA").empty()) {
        year = numberValue(group(u"yearA"));
        month = monthForName(group(u"monthA"));
        day = numberValue(group(u"dayA"));
      } else if (!group(u"yearB").empty()) {
        year = numberValue(group(u"yearB"));
        month = monthForName(group(u"monthB"));
        day = numberValue(group(u"dayB"));
      } else {
        // "2021-03/04" mixes separators: no date.
        if (group(u"sep1") != group(u"sep2")) return;
        year = numberValue(group(u"yearC"));
        month = numberValue(group(u"monthC"));
        day = numberValue(group(u"dayC"));
      }
      if (!isValidDay(year, month, day)) return;
      std::optional<LMDate> date = LMDate::fromComponents(year, month, day, 12);
      if (!date) return;
      const LMTextRange range = shifted(m.range(), window.location);
      const size_t first =
          group(u"yearC").empty() ? startWithWeekday(text, range.location) : range.location;
      LMDetectedItem item;
      item.type = LMDetectedType::kDate;
      item.range = LMTextRange::make(first, range.end() - first);
      item.date = date;
      items.push_back(std::move(item));
    });
  }
  return items;
}

void prepareDates() { dateExpression(); }

}  // namespace lm_detector
