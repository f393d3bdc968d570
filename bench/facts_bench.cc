// What the facts answer costs: every corpus PDF analysed as a standard task
// and as a task with facts (e-invoice reading, text facts, conflicts),
// alternating, several rounds; prints the total time of each and the share
// that facts add.
//
// usage: lm_facts_bench [ROUNDS]   (corpus: see bench/README.md)
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

double secondsOf(const LMDictionary& task) {
  const auto start = std::chrono::steady_clock::now();
  LMXPCReply reply = lmPerformReceiptTask(task);
  const auto end = std::chrono::steady_clock::now();
  if (reply.error) std::fprintf(stderr, "error: %s\n", lmUtf8(reply.error->message).c_str());
  return std::chrono::duration<double>(end - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
  const std::string corpus = lmCorpusDir();
  lmSetLogSink([](std::string_view) {});
  std::vector<LMData> documents;
  for (const std::string& file : lmCorpusManifestFiles(corpus)) documents.push_back(lmReadFileBytes(corpus + "/" + file));
  if (documents.empty()) {
    std::fprintf(stderr, "no corpus at %s (set LM_CORPUS_DIR)\n", corpus.c_str());
    return 1;
  }
  // Per document the faster of `rounds` runs each way, so that a busy
  // moment of the machine does not count against either side.
  double standard = 0, withFacts = 0;
  for (const LMData& bytes : documents) {
    const LMDictionary plain{{u"data", bytes}};
    const LMDictionary facts{{u"data", bytes}, {u"facts", true}};
    secondsOf(facts);  // warm: patterns compiled, tables built
    double bestPlain = 1e9, bestFacts = 1e9;
    for (int r = 0; r < rounds; ++r) {
      bestPlain = std::min(bestPlain, secondsOf(plain));
      bestFacts = std::min(bestFacts, secondsOf(facts));
    }
    standard += bestPlain;
    withFacts += bestFacts;
  }
  std::printf("corpus: %zu documents, fastest of %d runs each\n", documents.size(), rounds);
  std::printf("standard task:   %8.1f ms\n", standard * 1e3);
  std::printf("task with facts: %8.1f ms\n", withFacts * 1e3);
  std::printf("facts add:       %8.1f ms = %.1f %% of the analysis\n", (withFacts - standard) * 1e3,
              100 * (withFacts - standard) / standard);
  return 0;
}
