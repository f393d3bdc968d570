#include "recognizers/date_recognizer.h"

#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf16.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <utility>

#include "kit/diagnostics.h"
#include "kit/strings.h"
#include "recognizers/anchored_matcher.h"
#include "recognizers/pattern_escaping.h"
#include "recognizers/regex.h"

namespace {

// Months separated by ";", numbered from 1; names of one month separated by
// ",". "0kt" is October as OCR reads it; "Juno" and "Julei" are kept as well.
const char16_t kMonthNames[] =
    u"Jan,Januar,J\u00E4nner,January;Feb,Februar,February;"
    u"Mar,M\u00E4r,Mrz,M\u00E4rz,March;Apr,April;Mai,May;Jun,Juni,Juno,June;"
    u"Jul,Juli,July,Julei;Aug,August;Sep,Sept,September;0kt,Okt,Oct,Oktober,October;"
    u"Nov,November;Dez,Dec,Dezember,December";

// In free-spacing mode a blank is ignored and "\ " is a literal space.
const char16_t* const kTemplates[LMReceiptParserDate::kNumberOfTemplates] = {
    u"{DAY} \\.\\ * {MONTH} \\.\\ * {YEAR}",
    u"{DAY} \\- {MONTH} \\- {YEARFULL}",
    u"{YEARFULL} \\- {MONTH} \\- {DAY}",
    u"{DAY} \\.\\ * {MONTHNAME} \\ * {YEAR}",
    u"{MONTHNAME} \\ + {DAY} \\ * \\, \\ *  {YEAR}",
    u"{DAY} \\ * {MONTHNAME} \\ *  {YEAR}",
    u"{MONTH} / {DAY} / {YEAR}",
    u"{DAY} / {MONTH} / {YEAR}",
    u"{DAY} \\. {MONTH} \\  {YEARSHORT}",
    u"{DAY} \\ * {MONTHNAME} \\ *\\'\\ *  {YEAR}",
};

std::u16string number(int64_t n) {
  std::u16string text;
  for (char c : std::to_string(n)) text.push_back(static_cast<char16_t>(c));
  return text;
}

LMDictionary parseMonthNames() {
  LMDictionary names;
  int64_t month = 0;
  for (const std::u16string& monthText : lmSplitBy(kMonthNames, u";")) {
    ++month;
    // A later duplicate would overwrite an earlier one.
    for (const std::u16string& name : lmSplitBy(monthText, u",")) names.set(lmLower(name), month);
  }
  return names;
}

std::u16string datePattern(const LMDictionary& monthNames) {
  std::vector<std::u16string> escapedNames;
  for (const std::u16string& name : monthNames.keys()) {
    escapedNames.push_back(lmEscapedPatternForString(name));
  }
  const std::pair<std::u16string, std::u16string> placeholders[] = {
      {u"YEAR", u"\\d{4}|\\d{2}"},
      {u"YEARSHORT", u"\\d{2}"},
      {u"YEARFULL", u"\\d{4}"},
      {u"MONTH", u"0?[1-9] | 1[012]"},
      {u"MONTHNAME", lmJoin(escapedNames, u"|")},
      {u"DAY", u"0?[1-9] | [12][0-9] | 3[01]"},
  };
  std::vector<std::u16string> alternatives;
  for (int i = 0; i < LMReceiptParserDate::kNumberOfTemplates; ++i) {
    std::u16string form = kTemplates[i];
    // The braces make each replacement exact: "{YEAR}" leaves "{YEARSHORT}" alone.
    for (const auto& [name, subpattern] : placeholders) {
      form = lmReplace(form, u"{" + name + u"}",
                       u"    (?<" + number(i) + u"-" + name + u">\n      " + subpattern +
                           u"\n    )");
    }
    alternatives.push_back(u"(?<" + number(i) + u">\n" + form + u"\n  )");
  }
  return u"(?<![\\d])  # Not prefixed by\n(?:" + lmJoin(alternatives, u" | ") +
         u")\n(?![\\d])   # Not suffixed by";
}

// The capture numbers of one form's groups; nullopt where the form has no
// such group.
struct TemplateGroups {
  uint64_t whole = 0;
  std::optional<uint64_t> day;
  std::optional<uint64_t> month;
  std::optional<uint64_t> monthName;
  std::optional<uint64_t> year;
};

bool isAsciiDigit(char16_t c) { return c >= u'0' && c <= u'9'; }

// Where a date can begin, for trying the expression only there: at every
// other position the engine would try all ten forms, and after a number each
// form that expects a month name tries all of them after every count of
// blanks. The test errs only towards trying: in case-insensitive matching an
// ASCII character matches only itself in the other case, so anything beyond
// ASCII (Unicode digits, letters that fold to ASCII ones such as the long s
// or the Kelvin sign) is always tried.
//
// Every form begins, after a position that is no digit, with a month name
// (form 4) or with a number: a day or month of one or two ASCII digits or a
// year of four digits. After the number comes ".", "-" or "/", or blanks (U+0020
// only) and a month name. After the month name of form 4 come blanks and a
// day of ASCII digits; only a digit beyond ASCII (a year's) or a surrogate
// pair may begin a form without a month name outside ASCII.
class DateStarts {
 public:
  explicit DateStarts(const LMDictionary& monthNames) {
    for (const std::u16string& name : monthNames.keys()) {
      // Each character of the text that a name matches folds to one or more
      // of the name's folded characters, and takes at most two units.
      icu::UnicodeString folded(name.data(), static_cast<int32_t>(name.size()));
      folded.foldCase(U_FOLD_CASE_DEFAULT);
      nameUnits_ = std::max<size_t>(nameUnits_, 2 * static_cast<size_t>(folded.length()));
      if (name.empty() || name[0] >= 0x80) continue;  // non-ASCII text is always tried
      const char16_t first = lmAsciiLower(name[0]);
      nameFirst_[first] = true;
      if (name.size() == 1) {
        nameAlone_[first] = true;
      } else if (name[1] < 0x80) {
        namePairs_[first][lmAsciiLower(name[1])] = true;
      }
      // A second character beyond ASCII is matched by none within it, and
      // any beyond it in the text is tried.
    }
  }

  // False only where no date can begin.
  bool mayBegin(std::u16string_view text, size_t at) const {
    const char16_t c = text[at];
    if (c >= 0x80) {
      // No search begins on the second half of a surrogate pair.
      if (lmInsideSurrogatePair(text, at)) return false;
      return U16_IS_SURROGATE(c) || u_isdigit(c) || dayFollowsName(text, at);
    }
    if (at > 0 && isAsciiDigit(text[at - 1])) return false;  // "Not prefixed by" a digit
    return (mayBeginName(text, at) && dayFollowsName(text, at)) ||
           (isAsciiDigit(c) && mayFollowNumber(text, at));
  }

 private:
  bool mayBeginName(std::u16string_view text, size_t at) const {
    const char16_t c = text[at];
    if (c >= 0x80) return true;
    const char16_t first = lmAsciiLower(c);
    if (!nameFirst_[first]) return false;
    if (nameAlone_[first]) return true;
    if (at + 1 >= text.size()) return false;
    const char16_t next = text[at + 1];
    return next >= 0x80 || namePairs_[first][lmAsciiLower(next)];
  }

  // Whether a month name beginning at `at` may be followed by blanks and a
  // day. A name holds no blank, so the first blank after `at` is the one
  // after the name, within the longest name's units.
  bool dayFollowsName(std::u16string_view text, size_t at) const {
    const size_t end = std::min(text.size(), at + 1 + nameUnits_);
    for (size_t blank = at + 1; blank < end; ++blank) {
      if (text[blank] != u' ') continue;
      size_t day = blank;
      while (day < text.size() && text[day] == u' ') ++day;
      return day < text.size() && isAsciiDigit(text[day]);
    }
    return false;
  }

  // Whether what follows a number of 1, 2 or 4 digits beginning at `at` may
  // continue a date.
  bool mayFollowNumber(std::u16string_view text, size_t at) const {
    for (size_t length = 1; length <= 4 && at + length < text.size(); ++length) {
      const size_t after = at + length;
      const char16_t c = text[after];
      if (c >= 0x80) return true;  // perhaps a Unicode digit of a year
      if (length != 3) {
        if (c == u'.' || c == u'-' || c == u'/') return true;
        size_t name = after;
        while (name < text.size() && text[name] == u' ') ++name;
        if (name < text.size() && mayBeginName(text, name)) return true;
      }
      if (!isAsciiDigit(c)) return false;
    }
    return false;
  }

  size_t nameUnits_ = 0;  // the most units of text a month name can match
  std::array<bool, 128> nameFirst_{};
  std::array<bool, 128> nameAlone_{};
  std::array<std::array<bool, 128>, 128> namePairs_{};
};

struct DateTables {
  LMDictionary monthNames = parseMonthNames();
  LMRegex regex{datePattern(monthNames), kLMRegexDefaultOptions};
  std::array<TemplateGroups, LMReceiptParserDate::kNumberOfTemplates> groups;
  DateStarts starts{monthNames};

  DateTables() {
    LMAssert(regex.compiled() != nullptr);
    for (int i = 0; i < LMReceiptParserDate::kNumberOfTemplates; ++i) {
      const std::u16string prefix = number(i) + u"-";
      TemplateGroups& g = groups[static_cast<size_t>(i)];
      g.whole = regex.captureIndexForGroupName(number(i)).value_or(0);
      g.day = regex.captureIndexForGroupName(prefix + u"DAY");
      g.month = regex.captureIndexForGroupName(prefix + u"MONTH");
      g.monthName = regex.captureIndexForGroupName(prefix + u"MONTHNAME");
      g.year = regex.captureIndexForGroupName(prefix + u"YEAR");
      if (!g.year) g.year = regex.captureIndexForGroupName(prefix + u"YEARFULL");
      if (!g.year) g.year = regex.captureIndexForGroupName(prefix + u"YEARSHORT");
      LMAssert(g.whole != 0 && g.day && (g.month || g.monthName) && g.year);
    }
  }
};

const DateTables& dateTables() {
  static const auto* tables = new DateTables;
  return *tables;
}

}  // namespace

LMReceiptParserDate::LMReceiptParserDate() : LMReceiptParserDate(currentYear()) {}

LMReceiptParserDate::LMReceiptParserDate(int64_t currentYear) : currentYear_(currentYear) {}

int64_t LMReceiptParserDate::currentYear() {
  static const int64_t year = LMDate::now().yearOfCommonEra();
  return year;
}

int64_t LMReceiptParserDate::expandedYear(int64_t year, int64_t pivotYear) {
  if (year > 99) return year;
  const int64_t century = pivotYear / 100;
  const int64_t latest = (pivotYear % 100 + 1) % 100;
  year += 100 * century;
  if (year > latest + 100 * century) year -= 100;
  return year;
}

const LMDictionary& LMReceiptParserDate::monthNames() { return dateTables().monthNames; }

const LMRegex& LMReceiptParserDate::dateRegularExpression() { return dateTables().regex; }

std::vector<LMDate> LMReceiptParserDate::findDatesInText(std::u16string_view text,
                                                         const Block& block) const {
  std::vector<LMDate> found;
  if (text.empty()) return found;
  const DateTables& tables = dateTables();
  auto onMatch = [&](const LMRegexMatch& match) {
    auto group = [&](std::optional<uint64_t> index) {
      return index ? match.inString(text, *index).value_or(u"") : std::u16string();
    };
    const TemplateGroups* form = nullptr;
    for (const TemplateGroups& g : tables.groups) {
      if (!group(g.whole).empty()) {
        form = &g;
        break;
      }
    }
    if (!form) return;

    int64_t day = 0;
    int64_t month = 0;
    int64_t year = 0;
    if (const std::u16string d = group(form->day); !d.empty()) day = LMValue(d).toInt();
    if (const std::u16string m = group(form->month); !m.empty()) month = LMValue(m).toInt();
    if (const std::u16string name = group(form->monthName); !name.empty()) {
      // A name the table lacks reads as month 0, December of the year before.
      const LMValue* number = tables.monthNames.key(lmLower(name));
      month = number ? number->toInt() : 0;
    }
    if (const std::u16string y = group(form->year); !y.empty()) {
      year = expandedYear(LMValue(y).toInt(), currentYear_);
    }

    const std::optional<LMDate> date = LMDate::fromComponents(year, month, day, 12);
    if (!date) return;
    if (block) block(text, match.range(), *date);
    found.push_back(*date);
  };

  LMAnchoredMatcher matcher(tables.regex, text);
  if (!matcher.usable()) {
    // Finds nothing as well, but logs why.
    tables.regex.enumerateMatchesInString(text, [&](const LMRegexMatch& m, bool*) { onMatch(m); });
    return found;
  }
  lmEachAnchoredMatch(
      matcher, text.size(), [&](size_t at) { return tables.starts.mayBegin(text, at); }, onMatch);
  return found;
}
