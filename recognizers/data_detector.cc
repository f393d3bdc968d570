#include "recognizers/data_detector.h"

#include <unicode/uchar.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <string>
#include <utility>

#include "kit/strings.h"
#include "recognizers/regex.h"

// How the detector stays fast: it runs on every page, so each pattern is
// written to let the engine skip most positions cheaply. The address
// patterns are case-sensitive and begin with an upper-case letter or a digit;
// month names are compiled into a prefix tree; weekday names, street words
// and state codes are checked in code after a match instead of being tried
// as long alternations at every word.
//
// LMRegex counts every "(" that does not open "(?:", "(?#", a look-ahead or
// a look-behind as a capture group, so the patterns write literal brackets
// as \x{28} and \x{29}, and use possessive quantifiers instead of atomic
// groups or inline flags. Blanks inside brackets are written \x20 or \h.

namespace {

constexpr uint64_t kCaseInsensitive = kLMRegexCaseInsensitive | kLMRegexAllowCommentsAndWhitespace;
constexpr uint64_t kCaseSensitive = kLMRegexAllowCommentsAndWhitespace;

std::u16string_view slice(std::u16string_view text, LMTextRange range) {
  if (!range.fitsIn(text.size())) return {};
  return text.substr(range.location, range.length);
}

LMTextRange shifted(LMTextRange range, uint64_t offset) {
  return range.found() ? LMTextRange::make(range.location + offset, range.length) : range;
}

int64_t numberValue(std::u16string_view digits) {
  int64_t value = 0;
  for (char16_t c : digits) {
    if (c < u'0' || c > u'9') break;
    value = value * 10 + (c - u'0');
  }
  return value;
}

bool isUpper(char16_t c) { return u_isUUppercase(c); }
bool isLetter(char16_t c) { return u_isalpha(c); }
// What the patterns' \h matches: tab and the space separators.
bool isHorizontalSpace(char16_t c) { return c == u'\t' || u_charType(c) == U_SPACE_SEPARATOR; }

// White space runs (line breaks included) made one blank, ends trimmed.
std::u16string collapsedWhitespace(std::u16string_view text) {
  std::u16string result;
  bool pendingBlank = false;
  for (char16_t c : text) {
    if (lmIsWhitespaceOrNewline(c)) {
      pendingBlank = !result.empty();
      continue;
    }
    if (pendingBlank) result.push_back(u' ');
    pendingBlank = false;
    result.push_back(c);
  }
  return result;
}

// The words of `text` (cut at white space) as ranges of `text`.
std::vector<LMTextRange> wordRanges(std::u16string_view text) {
  std::vector<LMTextRange> words;
  size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && lmIsWhitespaceOrNewline(text[i])) ++i;
    const size_t start = i;
    while (i < text.size() && !lmIsWhitespaceOrNewline(text[i])) ++i;
    if (i > start) words.push_back(LMTextRange::make(start, i - start));
  }
  return words;
}

template <size_t N>
bool contains(const char16_t* const (&list)[N], std::u16string_view word) {
  return std::any_of(std::begin(list), std::end(list),
                     [&](const char16_t* entry) { return word == entry; });
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

// `text` with every "." escaped and every blank run matching blanks.
std::u16string literalPattern(std::u16string_view text) {
  std::u16string pattern;
  for (char16_t c : text) {
    if (c == u'.') {
      pattern += u"\\.";
    } else if (c == u' ') {
      pattern += u"\\h++";
    } else {
      pattern.push_back(c);
    }
  }
  return pattern;
}

std::u16string upperCased(std::u16string_view text) {
  std::u16string upper(text);
  for (char16_t& c : upper) c = static_cast<char16_t>(u_toupper(c));
  return upper;
}

// `names` as written and upper-cased, for case-sensitive patterns that
// should still read "BAD HOMBURG" and "Deutschland" but not "deutschland".
template <size_t N>
std::u16string writtenOrUpperCaseAlternation(const char16_t* const (&names)[N]) {
  std::vector<std::u16string> patterns;
  for (const char16_t* name : names) {
    patterns.push_back(literalPattern(name));
    if (upperCased(name) != name) patterns.push_back(literalPattern(upperCased(name)));
  }
  // Longest first, so that "United States of America" wins over "United States".
  std::stable_sort(patterns.begin(), patterns.end(),
                   [](const auto& a, const auto& b) { return a.size() > b.size(); });
  return u"(?:" + lmJoin(patterns, u"|") + u")";
}

// Runs `regex` over the part `window` of `text` like enumerateMatchesInString,
// except that a match `visit` rejects (returns false for) is not skipped
// whole: the search goes on from the next word after the rejected match's
// start, so that a good match beginning inside a rejected one is still found.
// `visit` gets the match and the offset in `text` of the part searched.
//
// A search starts only at the window's start or after a character no
// pattern here may follow (white space or punctuation other than . , - /
// '), so that the patterns' opening look-behinds, which cannot see before
// the part searched, decide as they would on the whole text. The window
// itself must start at the text's start or after white space.
template <typename Visit>
void forEachAcceptedMatch(const LMRegex& regex, std::u16string_view text, LMTextRange window,
                          Visit&& visit) {
  auto canStartAfter = [](char16_t c) {
    return !u_isalnum(c) && std::u16string_view(u".,-/'").find(c) == std::u16string_view::npos;
  };
  size_t offset = window.location;
  while (offset < window.end()) {
    const std::optional<LMRegexMatch> match =
        regex.firstMatchInString(text.substr(offset, window.end() - offset));
    if (!match) return;
    const LMTextRange range = match->range();
    size_t next = offset + (visit(*match, offset) ? range.end() : range.location + 1);
    while (next < window.end() && !canStartAfter(text[next - 1])) ++next;
    offset = next;
  }
}

// Blanks between the parts of a date or an address: a few blanks (more
// are a gap between layout columns) or one line break with any blanks around
// it (a no-break space of the source arrives as a line break). OGAP is the
// same, optional. OGAP goes into a pattern before GAP, since replacing GAP
// would change it too.
constexpr char16_t kGapPattern[] = u"(?: \\h{1,3}+ (?!\\h) (?: \\R \\h*+ )?+ | \\h*+ \\R \\h*+ )";
constexpr char16_t kOptionalGapPattern[] =
    u"(?: \\h{0,3}+ (?!\\h) (?: \\R \\h*+ )?+ | \\h*+ \\R \\h*+ )";

// ---------------------------------------------------------------------------
// Dates

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
// OGAP are described above. Weekdays before a date are taken in by code.
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

void findDates(std::u16string_view text, std::vector<LMDetectedItem>& items) {
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
}

// ---------------------------------------------------------------------------
// Links

// The length of `url` without trailing sentence punctuation and quotes, and
// without closing brackets the URL does not open.
size_t trimmedURLLength(std::u16string_view url) {
  static constexpr std::u16string_view kTrailing = u".,;:!?'\"*\u2019\u201d";
  size_t length = url.size();
  while (length > 0) {
    const char16_t last = url[length - 1];
    if (kTrailing.find(last) != std::u16string_view::npos) {
      --length;
      continue;
    }
    const char16_t open = last == u')' ? u'(' : last == u']' ? u'[' : last == u'}' ? u'{' : 0;
    if (open == 0) break;
    const std::u16string_view kept = url.substr(0, length);
    if (std::count(kept.begin(), kept.end(), open) >= std::count(kept.begin(), kept.end(), last)) {
      break;
    }
    --length;
  }
  return length;
}

// True when `host` ends in a label of two or more letters ("de", "co.nz").
bool hasTopLevelDomain(std::u16string_view host) {
  const size_t dot = host.rfind(u'.');
  if (dot == std::u16string_view::npos) return false;
  const std::u16string_view label = host.substr(dot + 1);
  return label.size() >= 2 && std::all_of(label.begin(), label.end(), isLetter);
}

// A scheme and anything up to a blank, or "www." and a host name with an
// optional path; what ends a sentence is cut off in code.
const LMRegex& linkExpression() {
  static constexpr char16_t kPattern[] =
      uR"RX(
    (?<![\p{L}\d@.\-/_])
    (?:
      (?<scheme> https?:// ) [^\s<>"\x{201c}\x{201d}\x{ab}\x{bb}]++
    |
      www\. [\p{L}\d\-]++ (?: \. [\p{L}\d\-]++ )++
      (?: [/?\x{23}:] [^\s<>"\x{201c}\x{201d}\x{ab}\x{bb}]*+ )?
    )
  )RX";
  static const auto* regex = new LMRegex(kPattern, kCaseInsensitive);
  return *regex;
}

void findLinks(std::u16string_view text, std::vector<LMDetectedItem>& items) {
  linkExpression().enumerateMatchesInString(text, [&](const LMRegexMatch& m, bool*) {
    const LMTextRange whole = m.range();
    const std::u16string_view url =
        slice(text, whole).substr(0, trimmedURLLength(slice(text, whole)));
    const LMTextRange scheme = m.rangeForGroupName(u"scheme");
    const size_t hostStart = scheme.found() ? scheme.length : 0;
    if (url.size() <= hostStart) return;  // "http://" alone
    const size_t hostEnd = std::min(url.find_first_of(u"/?#:", hostStart), url.size());
    const std::u16string_view host = url.substr(hostStart, hostEnd - hostStart);
    // An explicit scheme may name any host ("http://localhost/"); a bare
    // "www." name needs a top-level domain.
    if (host.empty() || (!scheme.found() && !hasTopLevelDomain(host))) return;
    LMDetectedItem item;
    item.type = LMDetectedType::kLink;
    item.range = LMTextRange::make(whole.location, url.size());
    item.link = std::u16string(url);
    items.push_back(std::move(item));
  });
}

bool isASCIIAlnum(char16_t c) {
  return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9');
}
bool isMailLocalCharacter(char16_t c) {
  return isASCIIAlnum(c) || std::u16string_view(u"._%+-").find(c) != std::u16string_view::npos;
}
bool isMailDomainCharacter(char16_t c) { return isASCIIAlnum(c) || c == u'.' || c == u'-'; }

// Mail addresses, found around each "@" without a pattern: a page has few
// "@", and scanning out from each is cheaper than trying a pattern at every
// word. Addresses that overlap a link (user names in URLs) are skipped.
void findMailAddresses(std::u16string_view text, const std::vector<LMTextRange>& links,
                       std::vector<LMDetectedItem>& items) {
  static constexpr std::u16string_view kMailto = u"mailto:";
  for (size_t at = text.find(u'@'); at != std::u16string_view::npos; at = text.find(u'@', at + 1)) {
    size_t start = at;
    while (start > 0 && isMailLocalCharacter(text[start - 1])) --start;
    while (start < at && text[start] == u'.') ++start;
    size_t end = at + 1;
    while (end < text.size() && isMailDomainCharacter(text[end])) ++end;
    while (end > at + 1 && (text[end - 1] == u'.' || text[end - 1] == u'-')) --end;
    if (start == at || end == at + 1) continue;
    const std::u16string_view local = text.substr(start, at - start);
    const std::u16string_view domain = text.substr(at + 1, end - at - 1);
    if (local.back() == u'.' || domain.front() == u'.' || domain.front() == u'-' ||
        domain.find(u"..") != std::u16string_view::npos || !hasTopLevelDomain(domain)) {
      continue;
    }
    // Glued to a further "@" ("a@b.de@c"): not one address.
    if ((end < text.size() && text[end] == u'@') || (start > 0 && text[start - 1] == u'@')) {
      continue;
    }
    size_t rangeStart = start;
    if (start >= kMailto.size() &&
        lmLower(text.substr(start - kMailto.size(), kMailto.size())) == kMailto) {
      rangeStart = start - kMailto.size();
    }
    const LMTextRange range = LMTextRange::make(rangeStart, end - rangeStart);
    if (std::any_of(links.begin(), links.end(),
                    [&](const LMTextRange& link) { return link.intersects(range); })) {
      continue;
    }
    LMDetectedItem item;
    item.type = LMDetectedType::kLink;
    item.range = range;
    item.link = std::u16string(kMailto) + std::u16string(text.substr(start, end - start));
    items.push_back(std::move(item));
  }
}

// ---------------------------------------------------------------------------
// Addresses

// Lower-case endings of German street names ("Musterstraße", "Karl-Marx-Allee",
// "Hauptstr."). Those in kGermanStreetWords also stand alone as the last
// word of a name ("Erfurter Straße", "Am Markt"); the others count only as
// the end of a longer word ("Bahnhof" yes, "Hof" no).
constexpr const char16_t* kGermanStreetSuffixes[] = {
    u"stra\u00dfe", u"strasse",   u"str.",   u"str",         u"weg",      u"allee",     u"platz",
    u"gasse",       u"ring",      u"damm",   u"ufer",        u"chaussee", u"steig",     u"pfad",
    u"markt",       u"promenade", u"graben", u"br\u00fccke", u"berg",     u"park",      u"wall",
    u"kai",         u"hof",       u"tor",    u"garten",      u"stieg",    u"twiete",    u"kamp",
    u"deich",       u"anger",     u"winkel", u"zeile",       u"feld",     u"h\u00f6he", u"grund",
};
constexpr const char16_t* kGermanStreetWords[] = {
    u"stra\u00dfe", u"strasse", u"str.",  u"str",       u"weg",    u"allee",
    u"platz",       u"gasse",   u"ring",  u"damm",      u"ufer",   u"chaussee",
    u"steig",       u"pfad",    u"markt", u"promenade", u"graben", u"br\u00fccke",
};

// Lower-case words that may open a German street name, in front of a name
// without a street word ("Am Markt", "Unter den Linden", "An der Alster").
constexpr const char16_t* kGermanStreetPrefixes[] = {
    u"am",     u"an",    u"auf",   u"im",         u"in",     u"unter", u"zum",    u"zur",
    u"hinter", u"vor",   u"bei",   u"\u00fcber",  u"alt",    u"alte",  u"alter",  u"alten",
    u"neue",   u"neuer", u"neuen", u"gro\u00dfe", u"kleine", u"obere", u"untere", u"der",
    u"den",    u"dem",   u"die",   u"des",        u"von",    u"st.",   u"sankt",
};

// Words a city name may begin with ("Bad Homburg", "La Rochelle"), as
// written; the upper-case forms are added.
constexpr const char16_t* kCityPrefixes[] = {
    u"Bad",         u"St.",   u"Sankt", u"Neu",   u"Alt",    u"Gro\u00df",
    u"Klein",       u"Markt", u"Ober",  u"Unter", u"Nieder", u"Hansestadt",
    u"Lutherstadt", u"La",    u"Le",    u"Les",   u"Saint",  u"Sainte",
};
// Words that join two parts of a city name ("Frankfurt am Main").
constexpr const char16_t* kCityJoiners[] = {
    u"am", u"im", u"an", u"in", u"ob", u"bei", u"vor", u"auf", u"a.", u"i.", u"v.", u"sur",
};
// Names accepted as a country line right after the city.
constexpr const char16_t* kCountries[] = {
    u"Deutschland",
    u"Germany",
    u"USA",
    u"U.S.A.",
    u"United States of America",
    u"United States",
    u"US",
    u"UK",
    u"United Kingdom",
    u"Great Britain",
    u"England",
    u"\u00d6sterreich",
    u"Austria",
    u"Schweiz",
    u"Switzerland",
    u"Suisse",
    u"France",
};

// US and UK street types, lower-case, without a dot.
constexpr const char16_t* kUSStreetTypes[] = {
    u"street",     u"st",       u"avenue",  u"ave",     u"av",       u"road",  u"rd",
    u"boulevard",  u"blvd",     u"lane",    u"ln",      u"drive",    u"dr",    u"way",
    u"court",      u"ct",       u"place",   u"pl",      u"parkway",  u"pkwy",  u"highway",
    u"hwy",        u"circle",   u"cir",     u"terrace", u"ter",      u"trail", u"trl",
    u"square",     u"sq",       u"plaza",   u"plz",     u"alley",    u"loop",  u"row",
    u"expressway", u"expy",     u"freeway", u"fwy",     u"crescent", u"cres",  u"close",
    u"grove",      u"gardens",  u"mews",    u"hill",    u"walk",     u"quay",  u"wharf",
    u"pike",       u"turnpike", u"center",  u"ctr",
};
// French street types, lower-case; the name follows ("rue de la Paix").
constexpr const char16_t* kFrenchStreetTypes[] = {
    u"rue",     u"avenue", u"boulevard", u"bd",    u"place",  u"all\u00e9e", u"allee",   u"chemin",
    u"impasse", u"quai",   u"route",     u"cours", u"square", u"voie",       u"passage",
};

constexpr const char16_t* kUSStates[] = {
    u"AL", u"AK", u"AZ", u"AR", u"CA", u"CO", u"CT", u"DE", u"FL", u"GA", u"HI", u"ID",
    u"IL", u"IN", u"IA", u"KS", u"KY", u"LA", u"ME", u"MD", u"MA", u"MI", u"MN", u"MS",
    u"MO", u"MT", u"NE", u"NV", u"NH", u"NJ", u"NM", u"NY", u"NC", u"ND", u"OH", u"OK",
    u"OR", u"PA", u"RI", u"SC", u"SD", u"TN", u"TX", u"UT", u"VT", u"VA", u"WA", u"WV",
    u"WI", u"WY", u"DC", u"PR", u"GU", u"VI", u"AS", u"MP",
};

// A city: an optional prefix word, a capitalised word, optionally joined to
// a second ("Frankfurt am Main", "Halle an der Saale"), optionally a
// bracketed addition ("Halle (Saale)").
constexpr char16_t kCityPattern[] =
    uR"RX(
  (?: CITYPREFIX \h++ )?
  \p{Lu} [\p{L}.'\-/]*+
  (?: \x20 CITYJOINER (?: \x20 (?: der | dem | den | DER | DEM | DEN ) )?
      \x20 \p{L} [\p{L}.'\-/]*+ )?
  (?: \h*+ \x{28} [\p{L}\h.\-]{1,30}+ \x{29} )?
)RX";

// Pieces shared by the address patterns.
std::u16string withAddressPieces(std::u16string pattern) {
  std::vector<std::u16string> joiners;
  for (const char16_t* joiner : kCityJoiners) {
    joiners.push_back(literalPattern(joiner));
    joiners.push_back(literalPattern(upperCased(joiner)));
  }
  const std::pair<std::u16string, std::u16string> pieces[] = {
      // Placeholders inside the names put in below would be replaced too,
      // so the names come last.
      {u"OGAP", kOptionalGapPattern},
      {u"GAP", kGapPattern},
      {u"UKPOSTCODE", u"[A-Z]{1,2} \\d [A-Z\\d]? \\h \\d [A-Z]{2}"},
      {u"CITY", lmReplace(lmReplace(kCityPattern, u"CITYPREFIX",
                                    writtenOrUpperCaseAlternation(kCityPrefixes)),
                          u"CITYJOINER", u"(?:" + lmJoin(joiners, u"|") + u")")},
      {u"COUNTRY", u"(?: [\\h,;|\\x{b7}\\x{2022}\\-\\x{2013}]*+ \\R?+ \\h*+ (?<country> " +
                       writtenOrUpperCaseAlternation(kCountries) + u" ) (?![\\p{L}.]) )?"},
  };
  for (const auto& [name, piece] : pieces) pattern = lmReplace(pattern, name, piece);
  return pattern;
}

// German: up to five words ending before a house number (which of them
// belong to the street is decided in code), a separator (comma, "·", "|",
// " - ", blanks, decoration stars, up to two line breaks, one short extra
// line such as "Hof 3"), the postcode with an optional country prefix, the
// city and an optional country.
const LMRegex& germanAddressExpression() {
  static constexpr char16_t kPattern[] =
      uR"RX(
    (?<![\p{L}\d.\-'])
    (?<street>
      (?<name> \p{Lu} [\p{L}.'\-]*+ (?: \h{1,2}+ \p{L} [\p{L}.'\-]*+ ){0,4}+ )
      OGAP
      \d{1,4} (?: \h?+ [a-zA-Z] (?![\p{L}\d]) )?
      (?: \h*+ [\-/\x{2013}] \h*+ \d{1,4} (?: [a-zA-Z] (?![\p{L}\d]) )? )?
    )
    (?!\d)
    \h{0,3}+ (?: [,;|*\x{b7}\x{2022}\-\x{2013}]++ \h*+ )?
    (?: \R [\h*]*+
        (?: (?<extra> \p{L} [\p{L}\d.\x20/\-]{0,30}+ ) \R [\h*]*+ )?
        (?: \R [\h*]*+ )? )?
    (?: (?<prefix> DE | D | AT | A | CH ) (?: \h*+ [\-\x{2013}] \h*+ | \h++ ) )?
    (?<zip> \d{5} | \d{4} ) (?!\d)
    GAP
    (?<city> CITY )
    COUNTRY
  )RX";
  static const auto* regex = new LMRegex(withAddressPieces(kPattern), kCaseSensitive);
  return *regex;
}

// Number first: a number, up to seven words (a US/UK street such as "410
// Terry Ave North" or a French one such as "27 rue Henri Rolland", checked in
// code), an optional suite, a comma, separator or line break, then a US city
// line ("Seattle, WA 98109"), a French or other postcode and city, a UK city
// and postcode, or a UK postcode and city after "GB".
const LMRegex& numberFirstAddressExpression() {
  static constexpr char16_t kPattern[] =
      uR"RX(
    (?<![\p{L}\d.,\-/])
    (?<street>
      \d{1,5} (?: [\-/] \d{1,5} )? [A-Za-z]?+ (?![\p{L}\d]) ,?+ \h++
      (?<words> [\p{L}\d] [\p{L}\d.'\x{2019}\-]*+
                (?: \h{1,2}+ [\p{L}\d] [\p{L}\d.'\x{2019}\-]*+ ){0,6}+ )
      (?: \h*+ ,?+ \h*+
          (?: Suite | SUITE | Ste | STE | Apt | APT | Unit | UNIT | Floor | FLOOR | Fl
            | Room | Rm | \x{23} )
          (?![\p{L}]) \.?+ \h*+ [\p{L}\d\-]++ )?
    )
    (?: \h*+ [,;|\x{b7}\x{2022}] \h*+ \R?+ \h*+ | \h*+ \R \h*+ )
    (?:
      (?<usCity> \p{Lu} [\p{L}.'\-]*+ (?: \h \p{L} [\p{L}.'\-]*+ ){0,3} )
      \h*+ ,?+ \h*+ (?<usState> [A-Z]{2} ) \h++ (?<usZip> \d{5} (?: \-\d{4} )? ) (?![\d\-])
    |
      (?<frZip> \d{5} ) (?!\d) GAP (?<frCity> CITY )
    |
      (?: GB | UK ) \h++ (?<gbPostcode> UKPOSTCODE ) (?![\p{L}\d])
      GAP (?<gbCity> \p{Lu} [\p{L}.'\-]*+ (?: \h \p{L} [\p{L}.'\-]*+ ){0,2} )
    |
      (?<ukCity> \p{Lu} [\p{L}.'\-]*+ (?: \h \p{L} [\p{L}.'\-]*+ ){0,2} )
      \h*+ ,?+ OGAP (?<ukPostcode> UKPOSTCODE ) (?![\p{L}\d])
    )
    COUNTRY
  )RX";
  static const auto* regex = new LMRegex(withAddressPieces(kPattern), kCaseSensitive);
  return *regex;
}

bool endsWith(std::u16string_view text, std::u16string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

// The index of the word the street name starts at, among the words before
// the house number, or nullopt when they hold no street name. The last word
// must be or end in a street word ("Erfurter Straße", "Hauptstr."), or follow
// a prefix word ("Unter den Linden"); prefix words before it are taken in.
std::optional<size_t> germanStreetStart(std::u16string_view name,
                                        const std::vector<LMTextRange>& words) {
  if (words.empty()) return std::nullopt;
  auto lower = [&](size_t i) { return lmLower(slice(name, words[i])); };
  const size_t last = words.size() - 1;
  const std::u16string lastWord = lower(last);
  size_t start = last;
  if (contains(kGermanStreetWords, lastWord)) {
    // A lone street word takes the word before it ("Erfurter Straße").
    if (last > 0) start = last - 1;
  } else if (std::none_of(std::begin(kGermanStreetSuffixes), std::end(kGermanStreetSuffixes),
                          [&](const char16_t* suffix) {
                            return lastWord.size() > std::u16string_view(suffix).size() &&
                                   endsWith(lastWord, suffix);
                          })) {
    if (last == 0 || !contains(kGermanStreetPrefixes, lower(last - 1))) return std::nullopt;
  }
  for (int taken = 0; taken < 3 && start > 0 && contains(kGermanStreetPrefixes, lower(start - 1));
       ++taken) {
    --start;
  }
  // A street name starts with a capital ("bei Musterweg 3" is "Musterweg 3").
  while (start < last && !isUpper(name[words[start].location])) ++start;
  if (!isUpper(name[words[start].location])) return std::nullopt;
  return start;
}

bool isUSOrFrenchStreet(std::u16string_view wordsText) {
  const std::vector<LMTextRange> words = wordRanges(wordsText);
  if (words.size() < 2) return false;
  auto lower = [&](size_t i) {
    std::u16string word = lmLower(slice(wordsText, words[i]));
    if (!word.empty() && word.back() == u'.') word.pop_back();
    return word;
  };
  if (contains(kFrenchStreetTypes, lower(0))) return true;
  for (size_t i = 1; i < words.size(); ++i) {
    if (contains(kUSStreetTypes, lower(i))) return true;
  }
  return false;
}

// An address item from the ranges of its parts (ranges of `text`); the range
// runs from the street to the last part found.
LMDetectedItem addressItem(std::u16string_view text, LMTextRange street, LMTextRange zip,
                           LMTextRange city, LMTextRange state, LMTextRange country) {
  LMDetectedItem item;
  item.type = LMDetectedType::kAddress;
  const uint64_t end = std::max({zip.end(), city.end(), country.found() ? country.end() : 0});
  item.range = LMTextRange::make(street.location, end - street.location);
  LMDictionary& parts = item.addressComponents;
  parts.set(kLMAddressCityKey, collapsedWhitespace(slice(text, city)));
  if (country.found()) parts.set(kLMAddressCountryKey, collapsedWhitespace(slice(text, country)));
  if (state.found()) parts.set(kLMAddressStateKey, std::u16string(slice(text, state)));
  parts.set(kLMAddressStreetKey, collapsedWhitespace(slice(text, street)));
  parts.set(kLMAddressZIPKey, collapsedWhitespace(slice(text, zip)));
  return item;
}

bool isASCIIUpper(char16_t c) { return c >= u'A' && c <= u'Z'; }

// The stretches of `text` the address patterns need to read. Every address
// holds a postcode: five digits followed by the city (German, French) or
// preceded by a state code (US), four digits after "A-" or "CH-", or a UK
// postcode ("SW1A 1AA"). Stretches run from four line breaks before a
// postcode (street, house number, an extra line, a blank line) to the third
// line break after it (city, country), at most 300 characters each way, and
// are merged where they meet. On a page with few postcodes the patterns
// then read a small part of the text.
std::vector<LMTextRange> addressWindows(std::u16string_view text) {
  static constexpr size_t kReach = 300;
  auto isDigit = [](char16_t c) { return c >= u'0' && c <= u'9'; };
  // True when blanks with at most one line break, then a capital, follow `i`.
  auto cityFollows = [&](size_t i) {
    size_t j = i;
    int lineBreaks = 0;
    while (j < text.size() && lmIsWhitespaceOrNewline(text[j])) {
      // "\r\n" is one line break.
      const bool lineBreak = !isHorizontalSpace(text[j]) &&
                             !(text[j] == u'\r' && j + 1 < text.size() && text[j + 1] == u'\n');
      if (lineBreak && ++lineBreaks > 1) return false;
      ++j;
    }
    return j > i && j < text.size() && isUpper(text[j]);
  };
  std::vector<size_t> anchors;
  size_t i = 0;
  while (i < text.size()) {
    if (!isDigit(text[i])) {
      ++i;
      continue;
    }
    const size_t start = i;
    while (i < text.size() && isDigit(text[i])) ++i;
    const size_t length = i - start;
    // "SW1A 1AA": a digit and two capitals closing a code after a blank.
    if (length == 1 && i + 1 < text.size() && isASCIIUpper(text[i]) && isASCIIUpper(text[i + 1]) &&
        (i + 2 == text.size() || !u_isalnum(text[i + 2])) && start >= 2 &&
        text[start - 1] == u' ' && u_isalnum(text[start - 2])) {
      anchors.push_back(start);
    } else if (length == 5) {
      const bool afterState = start >= 3 && isHorizontalSpace(text[start - 1]) &&
                              isASCIIUpper(text[start - 2]) && isASCIIUpper(text[start - 3]);
      if (afterState || cityFollows(i)) anchors.push_back(start);
    } else if (length == 4) {
      const bool afterPrefix = start >= 2 && (text[start - 1] == u'-' || text[start - 1] == u' ') &&
                               isASCIIUpper(text[start - 2]);
      if (afterPrefix && cityFollows(i)) anchors.push_back(start);
    }
  }

  std::vector<LMTextRange> windows;
  for (const size_t anchor : anchors) {
    size_t start = anchor;
    for (int lineBreaks = 0; start > 0 && anchor - start < kReach; --start) {
      if (text[start - 1] == u'\n' && ++lineBreaks > 4) break;
    }
    // Cut short: start after a blank, where a search may begin. No blank in
    // reach: no street either.
    while (start > 0 && start < anchor && !lmIsWhitespaceOrNewline(text[start - 1])) ++start;
    if (start == anchor) continue;
    size_t end = anchor;
    for (int lineBreaks = 0; end < text.size() && end - anchor < kReach; ++end) {
      if (text[end] == u'\n' && ++lineBreaks > 2) break;
    }
    if (!windows.empty() && start <= windows.back().end()) {
      LMTextRange& last = windows.back();
      const uint64_t lastEnd = std::max<uint64_t>(last.end(), end);
      last.location = std::min<uint64_t>(last.location, start);
      last.length = lastEnd - last.location;
    } else {
      windows.push_back(LMTextRange::make(start, end - start));
    }
  }
  return windows;
}

void findAddresses(std::u16string_view text, LMTextRange window,
                   std::vector<LMDetectedItem>& items) {
  forEachAcceptedMatch(
      germanAddressExpression(), text, window, [&](const LMRegexMatch& m, size_t offset) {
        auto range = [&](std::u16string_view group) {
          return shifted(m.rangeForGroupName(group), offset);
        };
        const LMTextRange zip = range(u"zip");
        const std::u16string prefix = lmLower(slice(text, range(u"prefix")));
        // Five digits are German (prefix "D", "DE" or none); four digits need
        // the Austrian or Swiss prefix.
        const bool german =
            zip.length == 5 && (prefix.empty() || prefix == u"d" || prefix == u"de");
        const bool alpine =
            zip.length == 4 && (prefix == u"a" || prefix == u"at" || prefix == u"ch");
        if (!german && !alpine) return false;
        // "MARKT\n7322\nHAUPTSTRASSE 44\nDE 31157": when the extra line is a
        // street line itself, the address starts there.
        const std::u16string_view extra = slice(text, range(u"extra"));
        if (std::vector<LMTextRange> words = wordRanges(extra);
            words.size() >= 2 && u_isdigit(extra[words.back().location])) {
          words.pop_back();
          if (germanStreetStart(extra, words)) return false;
        }
        const LMTextRange nameRange = range(u"name");
        const std::u16string_view name = slice(text, nameRange);
        const std::vector<LMTextRange> words = wordRanges(name);
        const std::optional<size_t> first = germanStreetStart(name, words);
        if (!first) return false;
        const uint64_t streetStart = nameRange.location + words[*first].location;
        const LMTextRange street =
            LMTextRange::make(streetStart, range(u"street").end() - streetStart);
        items.push_back(addressItem(text, street, zip, range(u"city"), {}, range(u"country")));
        return true;
      });
  forEachAcceptedMatch(
      numberFirstAddressExpression(), text, window, [&](const LMRegexMatch& m, size_t offset) {
        auto range = [&](std::u16string_view group) {
          return shifted(m.rangeForGroupName(group), offset);
        };
        if (!isUSOrFrenchStreet(slice(text, range(u"words")))) return false;
        const LMTextRange street = range(u"street");
        const LMTextRange country = range(u"country");
        if (const LMTextRange zip = range(u"usZip"); zip.found()) {
          const LMTextRange state = range(u"usState");
          if (!contains(kUSStates, slice(text, state))) return false;
          items.push_back(addressItem(text, street, zip, range(u"usCity"), state, country));
        } else if (const LMTextRange zip = range(u"frZip"); zip.found()) {
          items.push_back(addressItem(text, street, zip, range(u"frCity"), {}, country));
        } else if (const LMTextRange zip = range(u"ukPostcode"); zip.found()) {
          // "GB SW1A 1AA" without a city after it: "GB" is no city.
          const std::u16string_view city = slice(text, range(u"ukCity"));
          if (city == u"GB" || city == u"UK") return false;
          items.push_back(addressItem(text, street, zip, range(u"ukCity"), {}, country));
        } else {
          items.push_back(
              addressItem(text, street, range(u"gbPostcode"), range(u"gbCity"), {}, country));
        }
        return true;
      });
}

}  // namespace

std::vector<LMDetectedItem> LMDataDetector::findInText(std::u16string_view text) const {
  std::vector<LMDetectedItem> items;
  if (text.empty()) return items;

  std::vector<LMDetectedItem> links;
  findLinks(text, links);
  std::vector<LMTextRange> linkRanges;
  for (const LMDetectedItem& link : links) linkRanges.push_back(link.range);
  findMailAddresses(text, linkRanges, links);

  findDates(text, items);
  // A date in a URL is part of its path ("/2021/03/04/news").
  std::erase_if(items, [&](const LMDetectedItem& date) {
    return std::any_of(linkRanges.begin(), linkRanges.end(),
                       [&](const LMTextRange& link) { return link.intersects(date.range); });
  });
  items.insert(items.end(), std::make_move_iterator(links.begin()),
               std::make_move_iterator(links.end()));

  std::vector<LMDetectedItem> addresses;
  for (const LMTextRange& window : addressWindows(text)) findAddresses(text, window, addresses);
  // Both address patterns may read the same lines: the earlier start wins,
  // then the longer range.
  std::stable_sort(addresses.begin(), addresses.end(), [](const auto& a, const auto& b) {
    return a.range.location != b.range.location ? a.range.location < b.range.location
                                                : a.range.length > b.range.length;
  });
  uint64_t addressEnd = 0;
  for (LMDetectedItem& address : addresses) {
    if (address.range.location < addressEnd) continue;
    addressEnd = address.range.end();
    items.push_back(std::move(address));
  }

  std::stable_sort(items.begin(), items.end(), [](const auto& a, const auto& b) {
    return a.range.location < b.range.location;
  });
  return items;
}
