// Opening a PDF and building every page's text model (string, lines,
// attributed string), reported per page.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "bench/corpus_dir.h"
#include "document/pdf_source.h"

namespace {

std::vector<uint8_t> readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}


// Opens `bytes` and builds every page once per iteration.
void openAndBuildPages(benchmark::State& state, const std::string& path, bool buildPages) {
  const std::vector<uint8_t> bytes = readBytes(path);
  auto probe = bytes.empty() ? nullptr : lmOpenPdfSource(bytes);
  if (!probe) {
    state.SkipWithError(("cannot open " + path).c_str());
    return;
  }
  const int64_t pages = probe->pageCount();
  probe.reset();
  for (auto _ : state) {
    auto file = lmOpenPdfSource(bytes);
    if (buildPages) {
      for (int64_t i = 0; i < file->pageCount(); ++i) {
        auto page = file->pageAtIndex(i);
        benchmark::DoNotOptimize(page->string().size());
        benchmark::DoNotOptimize(page->lines().size());
        benchmark::DoNotOptimize(page->attributedString().runs.size());
      }
    }
    benchmark::DoNotOptimize(file.get());
  }
  state.SetLabel(path.substr(path.rfind('/') + 1) + ", " + std::to_string(pages) + " pages");
  // Time per page: the reciprocal of pages per second.
  state.counters["per_page"] = benchmark::Counter(
      static_cast<double>(pages),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

const std::string kMultipage = std::string(LM_TESTDATA_DIR) + "/pdf/multipage.pdf";
// The corpus's longest invoice: six pages of a combined invoice for three orders.
const std::string kCorpusInvoice =
    "ferd-zugferd-2.4/ZF_Extended__Sammelrechnung_3_Bestellungen_fx.pdf";

void BM_OpenOnlyMultipage(benchmark::State& state) {
  openAndBuildPages(state, kMultipage, false);
}
void BM_OpenAndBuildPagesMultipage(benchmark::State& state) {
  openAndBuildPages(state, kMultipage, true);
}
void BM_OpenAndBuildPagesCorpusInvoice(benchmark::State& state) {
  openAndBuildPages(state, lmCorpusDir() + "/" + kCorpusInvoice, true);
}

BENCHMARK(BM_OpenOnlyMultipage)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenAndBuildPagesMultipage)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenAndBuildPagesCorpusInvoice)->Unit(benchmark::kMillisecond);

}  // namespace
