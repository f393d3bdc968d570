#include "recognizers/address_detector.h"

#include <unicode/uchar.h>

#include <algorithm>
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

// The addresses that start inside `window` of `text`, in the order found.
void findAddressesInWindow(std::u16string_view text, LMTextRange window,
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

std::vector<LMDetectedItem> findAddresses(std::u16string_view text) {
  std::vector<LMDetectedItem> addresses;
  for (const LMTextRange& window : addressWindows(text)) {
    findAddressesInWindow(text, window, addresses);
  }
  // Both address patterns may read the same lines: the earlier start wins,
  // then the longer range.
  std::stable_sort(addresses.begin(), addresses.end(), [](const auto& a, const auto& b) {
    return a.range.location != b.range.location ? a.range.location < b.range.location
                                                : a.range.length > b.range.length;
  });
  std::vector<LMDetectedItem> kept;
  uint64_t end = 0;
  for (LMDetectedItem& address : addresses) {
    if (address.range.location < end) continue;
    end = address.range.end();
    kept.push_back(std::move(address));
  }
  return kept;
}

void prepareAddresses() {
  // The reverse of the order a window is searched in (see preparation.h).
  numberFirstAddressExpression();
  germanAddressExpression();
}

}  // namespace lm_detector
