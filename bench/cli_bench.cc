// The command line as a user runs it, each run a fresh process:
//  1. cold start: `lmreceipt analyze --format summary FILE` (facts on, the
//     default) against `pdftotext -layout FILE` on the same one-page file,
//     in alternating pairs; prints the median and fastest of each and the
//     ratio (goal: at most 1.5);
//  2. two cores: the whole corpus with --jobs 1 and with --jobs 2,
//     alternating; prints the fastest of each and the speed-up (goal: at
//     least 1.85 on an otherwise idle 2-core machine).
//
// usage: lm_cli_bench [PAIRS] [ROUNDS]   (defaults 30 and 3; corpus and its
//        one-page invoice: see bench/README.md)
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "bench/child_run.h"
#include "bench/corpus_dir.h"
#include "kit/unicode.h"
#include "kit/value.h"

namespace {

constexpr const char* kOnePage = "invoice2data/AzureInterior.pdf";

// `name` found through $PATH, or "".
std::string onPath(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::string folders = path ? path : "/usr/bin:/bin";
  for (size_t start = 0; start <= folders.size();) {
    size_t end = folders.find(':', start);
    if (end == std::string::npos) end = folders.size();
    const std::string candidate = folders.substr(start, end - start) + "/" + name;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
    start = end + 1;
  }
  return "";
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

double fastest(const std::vector<double>& v) {
  return v.empty() ? 0 : *std::min_element(v.begin(), v.end());
}

}  // namespace

int main(int argc, char** argv) {
  const int pairs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 30;
  const int rounds = argc > 2 ? std::max(1, std::atoi(argv[2])) : 3;
  const std::string corpus = lmCorpusDir();
  const std::string onePage = corpus + "/" + kOnePage;
  if (access(onePage.c_str(), R_OK) != 0) {
    std::fprintf(stderr, "no corpus at %s (set LM_CORPUS_DIR)\n", corpus.c_str());
    return 1;
  }
  std::printf("load average when starting: ");
  std::fflush(stdout);
  if (std::FILE* f = std::fopen("/proc/loadavg", "r")) {
    char text[64] = {};
    if (std::fgets(text, sizeof text, f)) std::printf("%s", text);
    std::fclose(f);
  }

  const std::string pdftotext = onPath("pdftotext");
  std::vector<double> ours, theirs, oursCpu, theirsCpu;
  for (int i = 0; i < pairs; ++i) {
    const LMChildRun a = lmRunChild({LM_CLI, "analyze", "--format", "summary", onePage});
    ours.push_back(a.seconds);
    oursCpu.push_back(a.cpuSeconds);
    if (pdftotext.empty()) continue;
    const LMChildRun b = lmRunChild({pdftotext, "-layout", onePage, "/dev/null"});
    theirs.push_back(b.seconds);
    theirsCpu.push_back(b.cpuSeconds);
  }
  std::printf("cold start, %s, %d pairs (ms: median / fastest; processor time median)\n",
              kOnePage, pairs);
  std::printf("  lmreceipt analyze --format summary  %7.1f / %7.1f   cpu %7.1f\n",
              median(ours) * 1000, fastest(ours) * 1000, median(oursCpu) * 1000);
  if (pdftotext.empty()) {
    std::printf("  pdftotext not found (Debian package poppler-utils): no ratio\n");
  } else {
    std::printf("  pdftotext -layout                   %7.1f / %7.1f   cpu %7.1f\n",
                median(theirs) * 1000, fastest(theirs) * 1000, median(theirsCpu) * 1000);
    std::printf("  ratio: median %.2f, fastest %.2f (goal: at most 1.5)\n",
                median(ours) / median(theirs), fastest(ours) / fastest(theirs));
  }

  std::vector<std::string> files;
  for (const std::string& file : lmCorpusManifestFiles(corpus)) files.push_back(corpus + "/" + file);
  std::vector<double> one, two;
  for (int i = 0; i < rounds; ++i) {
    for (const char* jobs : {"1", "2"}) {
      std::vector<std::string> args = {LM_CLI, "analyze", "--format", "summary", "--jobs", jobs};
      args.insert(args.end(), files.begin(), files.end());
      (jobs[0] == '1' ? one : two).push_back(lmRunChild(args).seconds);
    }
  }
  std::printf("whole corpus, %zu files, fastest of %d rounds (ms)\n", files.size(), rounds);
  std::printf("  --jobs 1 %8.1f\n  --jobs 2 %8.1f\n  speed-up: %.2f (goal: at least 1.85)\n",
              fastest(one) * 1000, fastest(two) * 1000, fastest(one) / fastest(two));
  return 0;
}
