// Our whole analysis against the floor beneath it: for every corpus PDF,
// MuPDF alone opening it (a context of its own, as the PDF adapter makes
// one per document) and extracting every page's structured text once, and
// our full analysis of the same bytes as the command line runs it (facts
// on), alternating per document, several rounds; per document the faster
// run of each. Prints both totals and their ratio, and the documents where
// the ratio is highest.
//
// usage: lm_corpus_floor_bench [ROUNDS]   (corpus: see bench/README.md)
#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "bench/corpus_dir.h"
#include "kit/diagnostics.h"
#include "kit/unicode.h"
#include "service/receipt_worker.h"

namespace {

void quiet(void*, const char*) {}

// MuPDF's structured text of every page, made and dropped; the characters seen.
long extractOnce(const LMData& bytes) {
  long characters = 0;
  fz_context* ctx = fz_new_context(nullptr, nullptr, FZ_STORE_DEFAULT);
  if (!ctx) return 0;
  fz_set_warning_callback(ctx, quiet, nullptr);
  fz_set_error_callback(ctx, quiet, nullptr);
  fz_disable_icc(ctx);
  fz_stream* stream = nullptr;
  pdf_document* doc = nullptr;
  fz_var(stream);
  fz_var(doc);
  fz_try(ctx) {
    stream = fz_open_memory(ctx, bytes.data(), bytes.size());
    doc = pdf_open_document_with_stream(ctx, stream);
    const int pages = pdf_count_pages(ctx, doc);
    for (int i = 0; i < pages; ++i) {
      fz_page* page = fz_load_page(ctx, reinterpret_cast<fz_document*>(doc), i);
      fz_stext_options options{FZ_STEXT_PRESERVE_WHITESPACE, 1.0f};
      fz_stext_page* text = fz_new_stext_page_from_page(ctx, page, &options);
      for (fz_stext_block* b = text->first_block; b; b = b->next) {
        if (b->type != FZ_STEXT_BLOCK_TEXT) continue;
        for (fz_stext_line* l = b->u.t.first_line; l; l = l->next) {
          for (fz_stext_char* c = l->first_char; c; c = c->next) ++characters;
        }
      }
      fz_drop_stext_page(ctx, text);
      fz_drop_page(ctx, page);
    }
  }
  fz_always(ctx) {
    pdf_drop_document(ctx, doc);
    fz_drop_stream(ctx, stream);
  }
  fz_catch(ctx) {}
  fz_drop_context(ctx);
  return characters;
}

template <typename F>
double secondsOf(F&& f) {
  const auto start = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
  const std::string corpus = lmCorpusDir();
  lmSetLogSink([](std::string_view) {});
  const std::vector<std::string> files = lmCorpusManifestFiles(corpus);
  std::vector<LMData> documents;
  for (const std::string& file : files) documents.push_back(lmReadFileBytes(corpus + "/" + file));
  if (documents.empty()) {
    std::fprintf(stderr, "no corpus at %s (set LM_CORPUS_DIR)\n", corpus.c_str());
    return 1;
  }
  // Warm both sides once: tables and patterns are built once per process.
  extractOnce(documents[0]);
  {
    LMDictionary task;
    task.set(u"data", LMValue(documents[0]));
    lmPerformReceiptTask(task);
  }
  std::vector<double> floor(documents.size(), 1e9), ours(documents.size(), 1e9);
  for (int round = 0; round < rounds; ++round) {
    for (size_t i = 0; i < documents.size(); ++i) {
      floor[i] = std::min(floor[i], secondsOf([&] { extractOnce(documents[i]); }));
      LMDictionary task;
      task.set(u"data", LMValue(documents[i]));
      task.set(u"facts", true);
      ours[i] = std::min(ours[i], secondsOf([&] { lmPerformReceiptTask(task); }));
    }
  }
  double floorTotal = 0, oursTotal = 0;
  std::vector<size_t> order(documents.size());
  for (size_t i = 0; i < documents.size(); ++i) {
    floorTotal += floor[i];
    oursTotal += ours[i];
    order[i] = i;
  }
  std::sort(order.begin(), order.end(), [&](size_t a, size_t b) {
    return ours[a] - floor[a] > ours[b] - floor[b];
  });
  std::printf("%zu corpus PDFs, fastest of %d rounds each\n", documents.size(), rounds);
  std::printf("MuPDF structured text alone: %8.1f ms\n", floorTotal * 1000);
  std::printf("our whole analysis (facts):  %8.1f ms\n", oursTotal * 1000);
  std::printf("ratio: %.2f (goal: at most 1.5)\n", oursTotal / floorTotal);
  std::printf("most time above the floor:\n");
  for (size_t k = 0; k < std::min<size_t>(5, order.size()); ++k) {
    const size_t i = order[k];
    std::printf("  %-60s %7.2f ms over %7.2f ms\n", files[i].c_str(), (ours[i] - floor[i]) * 1000,
                floor[i] * 1000);
  }
  return 0;
}
