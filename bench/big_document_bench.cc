// Time and peak memory of the command line on one long invoice: PAGES
// invoice-like pages (default 1000), each with its own address, invoice
// number, dates, IBAN, about forty distinct amounts and the usual terms.
// Runs `lmreceipt analyze` on it with --format summary and --format json (the
// output read through a pipe and counted, not kept), each in a child process
// whose peak resident memory the kernel reports.
//
// usage: lm_big_document_bench [PAGES] [--write FILE]
//   --write FILE   only write the PDF to FILE (to run the command by hand)
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "bench/child_run.h"
#include "document/generated_pdf_test_util.h"

namespace {

// Amounts in cents as a German text: 123456 -> "1.234,56".
std::string germanAmount(int64_t cents) {
  std::string whole = std::to_string(cents / 100);
  for (int at = static_cast<int>(whole.size()) - 3; at > 0; at -= 3) whole.insert(at, ".");
  const int64_t rest = cents % 100;
  return whole + "," + (rest < 10 ? "0" : "") + std::to_string(rest);
}

std::string twoDigits(int n) { return (n < 10 ? "0" : "") + std::to_string(n); }

// A German IBAN with valid check digits for bank code `bank` and `account`.
std::string germanIban(const std::string& bank, const std::string& account) {
  const std::string digits = bank + account + "131400";  // "DE" as 13 14, check "00"
  int remainder = 0;
  for (char c : digits) remainder = (remainder * 10 + (c - '0')) % 97;
  const std::string iban = "DE" + twoDigits(98 - remainder) + bank + account;
  std::string grouped;
  for (size_t i = 0; i < iban.size(); ++i) {
    if (i > 0 && i % 4 == 0) grouped += ' ';
    grouped += iban[i];
  }
  return grouped;
}

// One page's content stream: 9-point Helvetica lines 16 points apart.
std::string invoicePage(int page) {
  std::vector<std::string> lines;
  const int day = page % 28 + 1;
  const int month = page % 12 + 1;
  lines.push_back("Muster Handel GmbH");
  lines.push_back("Hauptstrasse " + std::to_string(page % 200 + 1));
  lines.push_back(std::to_string(10115 + page % 80000) + " Berlin");
  lines.push_back("Rechnung Nr. 2024-" + std::to_string(100000 + page) + "   Datum: " +
                  twoDigits(day) + "." + twoDigits(month) + ".2024");
  lines.push_back("Leistungszeitraum " + twoDigits(day) + "." + twoDigits(month) +
                  ".2024 bis " + twoDigits(day) + "." + twoDigits(month) + ".2024");
  int64_t net = 0;
  // Twenty items of two amounts each and three totals: about forty amounts in
  // about 1,400 characters, so that 1000 pages stay within the analysis's
  // bound of 2,000,000 characters per document.
  for (int item = 1; item <= 20; ++item) {
    const int64_t price = 100 + (page * 37 + item * 101) % 90000;
    const int quantity = item % 3 + 1;
    net += price * quantity;
    lines.push_back("Pos " + std::to_string(item) + " Artikel " + std::to_string(page) + "-" +
                    std::to_string(item) + "  " + std::to_string(quantity) + " x " +
                    germanAmount(price) + " EUR  " + germanAmount(price * quantity) + " EUR");
  }
  const int64_t tax = (net * 19 + 50) / 100;
  lines.push_back("Summe netto " + germanAmount(net) + " EUR");
  lines.push_back("zzgl. MwSt 19% " + germanAmount(tax) + " EUR");
  lines.push_back("Gesamtbetrag " + germanAmount(net + tax) + " EUR");
  lines.push_back("Zahlbar bis " + twoDigits(day) + "." + twoDigits(month % 12 + 1) +
                  ".2024 ohne Abzug");
  lines.push_back("IBAN " + germanIban("37040044", std::to_string(1000000000 + page)));
  std::string content = "BT /F1 9 Tf 1 0 0 1 50 800 Tm\n";
  for (const std::string& line : lines) content += "0 -16 Td (" + line + ") Tj\n";
  return content + "ET";
}

}  // namespace

int main(int argc, char** argv) {
  int pages = 1000;
  std::string writeTo;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--write") == 0 && i + 1 < argc) {
      writeTo = argv[++i];
    } else {
      pages = std::atoi(argv[i]);
    }
  }
  if (pages < 1) {
    std::fprintf(stderr, "usage: lm_big_document_bench [PAGES] [--write FILE]\n");
    return 2;
  }
  std::vector<std::string> contents;
  for (int page = 0; page < pages; ++page) contents.push_back(invoicePage(page));
  const LMData pdf = lmGeneratedPdf(contents);
  const std::string path = writeTo.empty() ? "/tmp/lm_big_document_" +
                                                 std::to_string(getpid()) + ".pdf"
                                           : writeTo;
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(pdf.data()), static_cast<std::streamsize>(pdf.size()));
  if (!writeTo.empty()) return 0;

  std::printf("%d invoice pages, %.1f MB of PDF (%s)\n", pages, pdf.size() / 1e6, LM_CLI);
  std::printf("%-8s %10s %10s %10s %12s\n", "format", "seconds", "ms/page", "peak MB",
              "output MB");
  for (const char* format : {"summary", "json"}) {
    const LMChildRun run = lmRunChild({LM_CLI, "analyze", "--format", format, path});
    std::printf("%-8s %10.2f %10.2f %10.0f %12.1f%s\n", format, run.seconds,
                run.seconds * 1000 / pages, run.peakKiB / 1024.0, run.outputBytes / 1e6,
                run.status == 0 ? "" : "  (failed)");
  }
  std::remove(path.c_str());
  return 0;
}
