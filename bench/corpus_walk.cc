// Opens every PDF of a corpus with the PDF adapter, builds each page's text
// model and prints what it found: per file its pages, characters, lines,
// attribute runs, links and milliseconds, then a summary.
//
//   lm_corpus_walk [--dump] [corpus folder]   (default: the corpus, see bench/README.md)
//
// The files are those of the folder's manifest.jsonl ("file" of each line,
// relative to the folder) or, without a manifest, every *.pdf below it.
// Log entries (MuPDF's problem reports among them) are printed on standard
// output beside their file, so that anything on standard error is a fault.
// Exit status 1 when a file could not be read or opened.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "bench/corpus_dir.h"
#include "document/pdf_source.h"
#include "kit/diagnostics.h"
#include "kit/unicode.h"
#include "kit/value.h"

namespace {

namespace fs = std::filesystem;

std::vector<std::string> manifestFiles(const fs::path& folder) {
  std::vector<std::string> files;
  std::ifstream manifest(folder / "manifest.jsonl");
  std::string line;
  while (std::getline(manifest, line)) {
    auto entry = LMValue::fromJSONData(line);
    if (!entry) continue;
    std::string file = lmUtf8(entry->at(u"file").toString());
    if (!file.empty()) files.push_back(file);
  }
  if (!files.empty()) return files;
  std::error_code error;
  for (auto it = fs::recursive_directory_iterator(folder, error);
       !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
    if (it->is_regular_file() && it->path().extension() == ".pdf") {
      files.push_back(fs::relative(it->path(), folder).string());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::vector<uint8_t> readBytes(const fs::path& path, bool* ok) {
  std::ifstream in(path, std::ios::binary);
  *ok = static_cast<bool>(in);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

struct Totals {
  int files = 0, opened = 0, failed = 0, withoutText = 0, withLog = 0;
  int64_t pages = 0, units = 0, lines = 0;
  double ms = 0, slowestMs = 0;
  std::string slowest;
};

}  // namespace

int main(int argc, char** argv) {
  bool dump = false;
  fs::path folder = lmCorpusDir();
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--dump") {
      dump = true;
    } else {
      folder = arg;
    }
  }

  std::vector<std::string> log;
  lmSetLogSink([&log](std::string_view line) { log.emplace_back(line); });

  const std::vector<std::string> files = manifestFiles(folder);
  Totals totals;
  std::printf("%6s %7s %6s %6s %4s %8s  %s\n", "pages", "chars", "lines", "runs", "links",
              "ms", "file");
  for (const std::string& name : files) {
    ++totals.files;
    log.clear();
    bool readable = false;
    const std::vector<uint8_t> bytes = readBytes(folder / name, &readable);

    const auto start = std::chrono::steady_clock::now();
    int64_t pages = 0, units = 0, lines = 0, runs = 0, links = 0;
    bool opened = false;
    std::string text;
    {
      auto file = readable ? lmOpenPdfSource(bytes) : nullptr;
      opened = file != nullptr;
      if (file) {
        pages = file->pageCount();
        for (int64_t i = 0; i < pages; ++i) {
          auto page = file->pageAtIndex(i);
          if (!page) continue;
          units += static_cast<int64_t>(page->string().size());
          lines += static_cast<int64_t>(page->lines().size());
          runs += static_cast<int64_t>(page->attributedString().runs.size());
          links += static_cast<int64_t>(page->links().size());
          if (dump) {
            text += "--- page " + std::to_string(i + 1) + "\n" + lmUtf8(page->string()) + "\n";
          }
        }
      }
    }  // closed here, so that its log summary belongs to this file
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();

    if (opened) {
      ++totals.opened;
    } else {
      ++totals.failed;
    }
    if (opened && units == 0) ++totals.withoutText;
    if (!log.empty()) ++totals.withLog;
    totals.pages += pages;
    totals.units += units;
    totals.lines += lines;
    totals.ms += ms;
    if (ms > totals.slowestMs) {
      totals.slowestMs = ms;
      totals.slowest = name;
    }
    if (opened) {
      std::printf("%6lld %7lld %6lld %6lld %4lld %8.2f  %s%s\n", static_cast<long long>(pages),
                  static_cast<long long>(units), static_cast<long long>(lines),
                  static_cast<long long>(runs), static_cast<long long>(links), ms, name.c_str(),
                  units == 0 ? "  (no text)" : "");
    } else {
      std::printf("%6s %7s %6s %6s %4s %8.2f  %s  (%s)\n", "-", "-", "-", "-", "-", ms,
                  name.c_str(), readable ? "not opened" : "not readable");
    }
    for (const std::string& line : log) std::printf("         log: %s\n", line.c_str());
    if (dump) std::fputs(text.c_str(), stdout);
  }
  lmSetLogSink(nullptr);

  std::printf(
      "\n%d files: %d opened, %d failed; %d without text; %d with log entries\n"
      "%lld pages, %lld characters, %lld lines; %.1f ms in all, %.2f ms per page;"
      " slowest %.1f ms (%s)\n",
      totals.files, totals.opened, totals.failed, totals.withoutText, totals.withLog,
      static_cast<long long>(totals.pages), static_cast<long long>(totals.units),
      static_cast<long long>(totals.lines), totals.ms,
      totals.pages ? totals.ms / static_cast<double>(totals.pages) : 0.0, totals.slowestMs,
      totals.slowest.c_str());
  return totals.failed == 0 && totals.files > 0 ? 0 : 1;
}
