// Reads the e-invoice embedded in every PDF of a corpus and compares it with
// the manifest: per file its attachments and the chosen e-invoice, every
// value that differs from the manifest ("MISMATCH" where the manifest's
// truth is the embedded XML, "DIFFERS-FROM-TEXT-TRUTH" where it was read
// from the page), every failed check
// ("CHECK") and every reading without a record ("UNUSABLE"), then a summary.
//
//   lm_einvoice_corpus [corpus folder]   (default: the corpus, see bench/README.md)
//   lm_einvoice_corpus --xml FILE.pdf    prints the chosen e-invoice's bytes
//
// Values are compared the way a bookkeeper enters them: a credit note's
// amounts negative. The per-rate breakdown's rates are compared with the
// row's "tax_rates" as sets. Exit status 1 when any value mismatches.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "bench/corpus_dir.h"
#include "document/pdf_source.h"
#include "einvoice/attachment_selection.h"
#include "einvoice/einvoice.h"
#include "kit/diagnostics.h"
#include "kit/unicode.h"

namespace {

namespace fs = std::filesystem;

std::vector<uint8_t> readBytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

std::string text(const nlohmann::json& row, const char* key) {
  auto it = row.find(key);
  return it != row.end() && it->is_string() ? it->get<std::string>() : std::string();
}

// A manifest amount ("-8.79") as a decimal; nullopt when the row has none.
std::optional<LMDecimal> manifestAmount(const nlohmann::json& row, const char* key) {
  return LMDecimal::fromString(text(row, key));
}

std::string show(const std::optional<LMDecimal>& d) { return d ? d->stringValue() : "null"; }

struct Summary {
  int files = 0, withAttachments = 0, withEInvoice = 0, xmlRows = 0, matched = 0;
  int mismatches = 0, failedChecks = 0, unusable = 0;
  double listMs = 0, readMs = 0;  // listing the attachments; choosing and reading
};

double msSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

// `label` starts each line of a difference; `mismatches` counts them.
void compareRow(const char* label, const std::string& file, const nlohmann::json& row,
                const LMEInvoice& inv, int* mismatches) {
  auto mismatch = [&](const char* field, const std::string& want, const std::string& got) {
    std::printf("%s %s: %s manifest %s e-invoice %s\n", label, file.c_str(), field, want.c_str(),
                got.c_str());
    ++*mismatches;
  };
  auto amount = [&](const char* field, const std::optional<LMEInvoiceAmount>& value) {
    std::optional<LMDecimal> want = manifestAmount(row, field);
    std::optional<LMDecimal> got;
    if (value) got = inv.signedAmount(value->value);
    if (want != got) mismatch(field, show(want), show(got));
  };
  amount("gross", inv.gross);
  amount("net", inv.net);
  amount("tax", inv.tax);
  if (text(row, "currency") != lmUtf8(inv.currency)) {
    mismatch("currency", text(row, "currency"), lmUtf8(inv.currency));
  }
  const std::string date = inv.issueDate ? lmUtf8(inv.issueDate->isoString()) : "null";
  if (text(row, "date") != date) mismatch("date", text(row, "date"), date);
  if (text(row, "kind") != lmUtf8(inv.kind)) mismatch("kind", text(row, "kind"), lmUtf8(inv.kind));
  std::set<std::string> want, got;
  for (const auto& rate : row.value("tax_rates", nlohmann::json::array())) {
    if (auto d = LMDecimal::fromString(rate.dump())) want.insert(d->stringValue());
  }
  for (const LMEInvoiceTax& tax : inv.taxes) got.insert(show(tax.rate));
  if (want != got) {
    auto join = [](const std::set<std::string>& s) {
      std::string out;
      for (const std::string& r : s) out += (out.empty() ? "" : ",") + r;
      return "[" + out + "]";
    };
    mismatch("tax_rates", join(want), join(got));
  }
}

}  // namespace

// The chosen e-invoice's bytes on standard output; 1 when there is none.
int printXml(const fs::path& pdfPath) {
  std::vector<uint8_t> bytes = readBytes(pdfPath);
  auto pdf = lmOpenPdfSource(bytes);
  if (!pdf) return 1;
  std::vector<LMPdfAttachment> attachments = pdf->attachments();
  std::vector<LMEInvoiceCandidate> candidates;
  for (const LMPdfAttachment& a : attachments) {
    candidates.push_back({a.name, a.mimeType, a.relationship, a.inAF, a.bytes});
  }
  LMEInvoiceSelection selection = lmSelectEInvoice(candidates);
  if (!selection.index) return 1;
  const LMPdfAttachment& chosen = attachments[*selection.index];
  std::fwrite(chosen.bytes.data(), 1, chosen.bytes.size(), stdout);
  return 0;
}

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--xml") return printXml(argv[2]);
  fs::path folder = argc > 1 ? fs::path(argv[1]) : fs::path(lmCorpusDir());
  std::vector<std::string> log;
  lmSetLogSink([&log](std::string_view line) { log.emplace_back(line); });

  Summary s;
  std::ifstream manifest(folder / "manifest.jsonl");
  std::string line;
  while (std::getline(manifest, line)) {
    nlohmann::json row = nlohmann::json::parse(line, nullptr, false);
    if (!row.is_object()) continue;
    const std::string file = text(row, "file");
    const bool xmlTruth = text(row, "truth_from") == "embedded-xml";
    ++s.files;
    s.xmlRows += xmlTruth;
    std::vector<uint8_t> bytes = readBytes(folder / file);
    auto pdf = lmOpenPdfSource(bytes);
    std::vector<LMPdfAttachment> attachments;
    auto start = std::chrono::steady_clock::now();
    if (pdf) attachments = pdf->attachments();
    s.listMs += msSince(start);
    if (attachments.empty() && !xmlTruth) continue;
    s.withAttachments += !attachments.empty();

    std::printf("%s\n", file.c_str());
    std::vector<LMEInvoiceCandidate> candidates;
    for (const LMPdfAttachment& a : attachments) {
      std::printf("  attachment \"%s\" %s %s%s %zu bytes%s%s\n", lmUtf8(a.name).c_str(),
                  a.mimeType.empty() ? "-" : lmUtf8(a.mimeType).c_str(),
                  a.relationship.empty() ? "-" : lmUtf8(a.relationship).c_str(),
                  a.inAF ? " in /AF" : "", a.bytes.size(), a.failure.empty() ? "" : " failure: ",
                  lmUtf8(a.failure).c_str());
      candidates.push_back({a.name, a.mimeType, a.relationship, a.inAF, a.bytes});
    }
    start = std::chrono::steady_clock::now();
    LMEInvoiceSelection selection = lmSelectEInvoice(candidates);
    s.readMs += msSince(start);
    if (!selection.index) {
      std::printf("  no e-invoice\n");
      if (xmlTruth) {
        std::printf("UNUSABLE %s: no e-invoice found\n", file.c_str());
        ++s.unusable;
      }
      continue;
    }
    const LMEInvoiceReading& reading = selection.reading;
    if (!reading.invoice) {
      std::printf("UNUSABLE %s: %s\n", file.c_str(), lmUtf8(reading.failure).c_str());
      ++s.unusable;
      continue;
    }
    ++s.withEInvoice;
    const LMEInvoice& inv = *reading.invoice;
    std::printf("  e-invoice \"%s\" of %zu: %s %s type %s %s, %zu lines, %zu rates\n",
                lmUtf8(candidates[*selection.index].name).c_str(), selection.count,
                lmUtf8(inv.syntax).c_str(), lmUtf8(inv.profile.value_or(u"-")).c_str(),
                lmUtf8(inv.typeCode).c_str(), lmUtf8(inv.kind).c_str(), inv.lines.size(),
                inv.taxes.size());
    for (const LMEInvoiceCheck& check : reading.checks) {
      if (check.ok) continue;
      std::printf("CHECK %s: %s %s\n", file.c_str(), lmUtf8(check.name).c_str(),
                  lmUtf8(check.detail).c_str());
      ++s.failedChecks;
    }
    // A row whose truth was read from the page may rightly differ from its XML.
    const int before = s.mismatches;
    int textDifferences = 0;
    compareRow(xmlTruth ? "MISMATCH" : "DIFFERS-FROM-TEXT-TRUTH", file, row, inv,
               xmlTruth ? &s.mismatches : &textDifferences);
    if (xmlTruth && s.mismatches == before) ++s.matched;
  }
  std::printf(
      "\n%d files, %d with attachments, %d usable e-invoices; %d rows with XML truth, %d match; "
      "%d mismatches, %d failed checks, %d unusable\n",
      s.files, s.withAttachments, s.withEInvoice, s.xmlRows, s.matched, s.mismatches,
      s.failedChecks, s.unusable);
  std::printf("listing attachments %.1f ms for all files, choosing and reading %.1f ms\n", s.listMs,
              s.readMs);
  return s.mismatches == 0 ? 0 : 1;
}
