// lm_recognizers_bench: the five recognizers over one page of invoice text.
//
// The page is testdata/receipt-page.txt, the text of a one-page German sample
// invoice (fictitious "Kraxi GmbH"; zugferd_invoice.pdf from the
// ZUGFeRD/mustangproject test resources, Apache-2.0), taken once with
// `pdftotext -layout`.
//
// The "FirstUse" benchmarks come first and run once each: in a fresh process
// they measure what the first search of each recognizer costs, which is
// almost all building its patterns and tables (once per process). The first
// of them also pays for ICU's own start-up. Run without a filter for those
// figures to mean that. The benchmarks after them give the time per page of
// each recognizer and of all five together, as the element collection runs
// them on every page.
#include <benchmark/benchmark.h>

#include <fstream>
#include <sstream>
#include <string>

#include "kit/unicode.h"
#include "recognizers/amount_recognizer.h"
#include "recognizers/bank_recognizer.h"
#include "recognizers/currency_recognizer.h"
#include "recognizers/date_recognizer.h"
#include "recognizers/term_recognizer.h"

namespace {

const std::u16string& pageText() {
  static const std::u16string* text = [] {
    std::ifstream in(LM_TESTDATA_DIR "/receipt-page.txt", std::ios::binary);
    std::stringstream buffer;
    buffer << in.rdbuf();
    return new std::u16string(lmUtf16(buffer.str()));
  }();
  return *text;
}

// A text that makes every recognizer search, so that nothing is skipped.
constexpr std::u16string_view kTinyText = u"x";

size_t runAmount(std::u16string_view text) {
  return LMReceiptParserAmount().findAmountInText(text).size();
}
size_t runCurrency(std::u16string_view text) {
  LMReceiptParserCurrency recognizer;
  const size_t found = recognizer.findInText(text, false).size();
  benchmark::DoNotOptimize(recognizer.currencyCode());
  return found;
}
size_t runDate(std::u16string_view text) {
  return LMReceiptParserDate().findDatesInText(text).size();
}
size_t runTerm(std::u16string_view text) {
  const LMReceiptParserTerm recognizer;
  return recognizer.findInText(text, false).size() +
         recognizer.findTaxTermsInText(text, false).size();
}
size_t runBank(std::u16string_view text) {
  return LMReceiptParserBank().findBankInfoInText(text).size();
}
size_t runAll(std::u16string_view text) {
  return runAmount(text) + runCurrency(text) + runDate(text) + runTerm(text) + runBank(text);
}

template <size_t (*run)(std::u16string_view)>
void firstUse(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(run(kTinyText));
}

template <size_t (*run)(std::u16string_view)>
void perPage(benchmark::State& state) {
  const std::u16string& text = pageText();
  if (text.empty()) {
    state.SkipWithError("testdata/receipt-page.txt is missing or empty");
    return;
  }
  size_t found = 0;
  for (auto _ : state) {
    found = run(text);
    benchmark::DoNotOptimize(found);
  }
  state.counters["findings"] = static_cast<double>(found);
  state.counters["chars"] = static_cast<double>(text.size());
}

constexpr benchmark::TimeUnit kFirstUseUnit = benchmark::kMillisecond;

}  // namespace

BENCHMARK(firstUse<runAmount>)->Name("FirstUse/Amount")->Iterations(1)->Unit(kFirstUseUnit);
BENCHMARK(firstUse<runCurrency>)->Name("FirstUse/Currency")->Iterations(1)->Unit(kFirstUseUnit);
BENCHMARK(firstUse<runDate>)->Name("FirstUse/Date")->Iterations(1)->Unit(kFirstUseUnit);
BENCHMARK(firstUse<runTerm>)->Name("FirstUse/Term")->Iterations(1)->Unit(kFirstUseUnit);
BENCHMARK(firstUse<runBank>)->Name("FirstUse/Bank")->Iterations(1)->Unit(kFirstUseUnit);

BENCHMARK(perPage<runAmount>)->Name("Page/Amount")->Unit(benchmark::kMicrosecond);
BENCHMARK(perPage<runCurrency>)->Name("Page/Currency")->Unit(benchmark::kMicrosecond);
BENCHMARK(perPage<runDate>)->Name("Page/Date")->Unit(benchmark::kMicrosecond);
BENCHMARK(perPage<runTerm>)->Name("Page/Term")->Unit(benchmark::kMicrosecond);
BENCHMARK(perPage<runBank>)->Name("Page/Bank")->Unit(benchmark::kMicrosecond);
BENCHMARK(perPage<runAll>)->Name("Page/AllRecognizers")->Unit(benchmark::kMicrosecond);
