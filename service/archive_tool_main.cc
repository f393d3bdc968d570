// lm_archive_tool: writes the keyed archive of a sample result to standard
// output, for checking it with other readers
// (service/keyed_archive_interop_test.py). Exit status 0 on success; 1 with
// the reason on standard error otherwise.
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>

#include "elements/found_date.h"
#include "elements/found_number.h"
#include "elements/found_term.h"
#include "kit/decimal.h"
#include "service/keyed_archive.h"

namespace {

// A result in the shape the analysis replies, with every kind of value the
// archive carries. The interop test expects exactly these values.
LMValue sampleResult() {
  auto number = std::make_shared<LMFoundNumber>(-1250, 2);
  number->setPage(1);
  number->setPageBox(LMRect{0, 0, 595.28, 841.89});
  number->setBbox(LMRect{400.5, 120.25, 42, 11.5});
  number->setString(u"-12,50");
  number->setKey(u"amount");
  number->setNumberString(u"-12,50");
  number->setDebugInfo(LMDictionary{{u"score", 0.75}});
  number->setDecimalPlaces(2);  // not archived

  auto date = std::make_shared<LMFoundDate>();
  date->setPage(0);
  date->setBbox(LMRect{50, 700, 60, 10});
  date->setDate(LMDate::fromTimeIntervalSinceReferenceDate(636249600.5));
  date->setDateString(u"01.03.2021");

  auto term = std::make_shared<LMFoundTerm>();
  term->setString(u"Gesamtbetrag");
  term->setKey(u"gross");
  term->setTermInfo(LMValue(u"not archived"));

  auto currency = std::make_shared<LMFoundElement>();
  currency->setString(u"€");
  currency->setKey(u"EUR");
  currency->setUserInfo(LMValue::null());

  LMAttributedString page;
  page.string = u"Summe\n12,50 😀";
  page.runs = {
      {LMTextRange::make(0, 5), LMDictionary{{u"LMPDFLineBox", u"{{72, 400}, {40.5, 12}}"}}},
      {LMTextRange::make(6, 8),
       LMDictionary{{u"LMPDFLineBox", u"{{120, 400}, {30, 12}}"}, {u"bold", true}}},
  };

  // Run lengths above 127 take two bytes.
  LMAttributedString longRuns;
  longRuns.string = std::u16string(200, u'x');
  longRuns.runs = {{LMTextRange::make(0, 150), LMDictionary{{u"size", 9.5}}},
                   {LMTextRange::make(150, 50), LMDictionary{{u"size", 12}}}};

  return LMDictionary{
      {u"text", u"Grüße, 😀 Summe 12,50 €"},
      {u"ocr", false},
      {u"letter", true},
      {u"count", 42},
      {u"negative", -305},
      {u"min", INT64_MIN},
      {u"max", INT64_MAX},
      {u"ratio", 0.1},
      {u"negativeReal", -2.5},
      {u"gross", LMDecimal::fromString("12.50").value()},
      {u"tax", LMDecimal::fromString("-0.019").value()},
      {u"large", LMDecimal::fromString("12345678901234567890123456789012345678").value()},
      {u"notANumber", LMDecimal::notANumber()},
      {u"zero", LMDecimal::zero()},
      {u"date", LMDate::fromTimeIntervalSinceReferenceDate(631152000.123456)},
      {u"data", LMData{0x00, 0xFF, 0x10, 0x80}},
      {u"taxPercent", LMValue::null()},
      {u"taxValues", LMValue::null()},
      {u"dollarNull", u"$null"},
      {u"taxes", LMArray{19, 7, 7.7}},
      {u"nested", LMDictionary{{u"list", LMArray{LMArray{1, u"a"}, LMDictionary{{u"k", u"v"}}}},
                               {u"emptyArray", LMArray{}},
                               {u"emptyDictionary", LMDictionary{}}}},
      {u"pages", LMArray{page, longRuns, LMAttributedString{}}},
      {u"numbers", LMArray{number}},
      {u"dates", LMArray{date}},
      {u"terms", LMArray{term}},
      {u"currencies", LMArray{currency}},
      {u"chosen", number},
  };
}

int fail(const std::string& message) {
  std::cerr << "lm_archive_tool: " << message << "\n";
  return 1;
}

}  // namespace

int main() {
  std::string error;
  auto archive = lxDataSerialize(sampleResult(), &error);
  if (!archive) return fail("cannot write the archive: " + error);
  if (std::fwrite(archive->data(), 1, archive->size(), stdout) != archive->size() ||
      std::fflush(stdout) != 0) {
    return fail("cannot write to standard output");
  }
  return 0;
}
