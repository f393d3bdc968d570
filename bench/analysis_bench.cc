// The whole analysis in-process, per document and per page: open, text
// model, recognizers and the stages, exactly as the service runs a task.
// Documents: the bundled one-page receipt, the 15-page fixture invoice, and
// (when the corpus is beside the repository) a one-page and a multi-page
// corpus invoice.
#include <benchmark/benchmark.h>

#include <fstream>
#include <iterator>
#include <string>

#include "bench/corpus_dir.h"
#include "document/pdf_document.h"
#include "kit/diagnostics.h"
#include "service/receipt_worker.h"

namespace {

LMData readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return LMData((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void analyse(benchmark::State& state, const std::string& path) {
  lmSetLogSink([](std::string_view) {});
  const LMData bytes = readFile(path);
  if (bytes.empty()) {
    state.SkipWithError(("missing " + path).c_str());
    return;
  }
  const auto pdf = LMPDFDocument::initWithData(bytes);
  const int64_t pages = pdf ? pdf->pageCount() : 0;
  const LMDictionary task{{u"data", bytes}, {u"taxes", LMArray{19, 7}}};
  lmPerformReceiptTask(task);  // warm: patterns compiled, tables built
  for (auto _ : state) {
    LMXPCReply reply = lmPerformReceiptTask(task);
    benchmark::DoNotOptimize(reply);
  }
  state.counters["pages"] = static_cast<double>(pages);
  // Printed with SI prefixes: "2.4m" is 2.4 ms of wall time per page.
  state.counters["s/page"] = benchmark::Counter(
      static_cast<double>(pages),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

const std::string kTestdata = LM_TESTDATA_DIR;
const std::string kCorpus = lmCorpusDir();

}  // namespace

BENCHMARK_CAPTURE(analyse, receipt_1_page, kTestdata + "/sample-receipt.pdf")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(analyse, invoice_15_pages, kTestdata + "/pdf/multipage.pdf")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(analyse, corpus_invoice_1_page, kCorpus + "/mustangproject/zugferd_invoice.pdf")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(analyse, corpus_invoice_6_pages,
                  kCorpus + "/ferd-zugferd-2.4/ZF_Extended__Sammelrechnung_3_Bestellungen_fx.pdf")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
