// lm_smoke: reads a receipt text and prints, as JSON, what the foundation
// finds in it: every amount with its value as an exact decimal, every date,
// and the sum of the amounts. It exercises the value tree, the decimal type,
// the named-group patterns and the JSON projection end to end.
#include <fstream>
#include <iostream>
#include <sstream>

#include "kit/decimal.h"
#include "kit/strings.h"
#include "kit/unicode.h"
#include "kit/value.h"
#include "recognizers/regex.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: lm_smoke FILE\n";
    return 2;
  }
  std::ifstream in(argv[1], std::ios::binary);
  if (!in) {
    std::cerr << "lm_smoke: cannot read " << argv[1] << "\n";
    return 1;
  }
  std::stringstream buffer;
  buffer << in.rdbuf();
  const std::u16string text = lmUtf16(buffer.str());

  auto amounts = LMRegex::regexWithPattern(
      u"(?<![\\d,.]) (?<units>\\d{1,3}(?:\\.\\d{3})*) , (?<cents>\\d\\d) (?![\\d,.])", 19, true);
  auto dates = LMRegex::regexWithPattern(
      u"\\b (?<day>\\d\\d) \\. (?<month>\\d\\d) \\. (?<year>\\d{4}) \\b", 19, true);

  LMArray foundAmounts;
  LMDecimal sum = LMDecimal::zero();
  amounts->enumerateMatchesInString(text, [&](const LMRegexMatch& m, bool*) {
    // "1.234,56": thousands dots dropped, the decimal comma becomes a point.
    const std::u16string plain =
        lmReplace(m[u"units"].value_or(u""), u".", u"") + u"." + m[u"cents"].value_or(u"");
    auto value = LMDecimal::fromString(plain);
    if (!value) return;
    sum = sum + *value;
    foundAmounts.push_back(LMDictionary{{u"text", m.stringValue()},
                                        {u"location", static_cast<int64_t>(m.range().location)},
                                        {u"amount", *value}});
  });

  LMArray foundDates;
  dates->enumerateMatchesInString(text, [&](const LMRegexMatch& m, bool*) {
    auto date = LMDate::fromComponents(LMValue(m[u"year"].value_or(u"")).toInt(),
                                       LMValue(m[u"month"].value_or(u"")).toInt(),
                                       LMValue(m[u"day"].value_or(u"")).toInt());
    if (date) foundDates.push_back(LMDictionary{{u"text", m.stringValue()}, {u"date", *date},
                                                {u"day", date->descriptionDate()}});
  });

  LMDictionary result{{u"file", lmUtf16(argv[1])},
                      {u"amounts", foundAmounts},
                      {u"sum", sum},
                      {u"dates", foundDates}};
  std::cout << lmUtf8(LMValue(result).jsonObject().toJSONPretty().value_or(u"null")) << "\n";
  return 0;
}
