// PDFs written in memory for tests and benchmarks: any list of objects, and
// for the limits A4 pages of Helvetica text with uncompressed content
// streams, small enough to build in a test and shaped like the hostile
// documents the limits are for (one page crowded with amounts, tens of
// thousands of lines, thousands of pages sharing one content stream).
#pragma once
#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kit/value.h"

// A content stream of `count` lines of `text`, `step` points apart from the
// top of the page down, in `size`-point type. The lines come in text objects
// of 100: MuPDF gathers a text object's glyphs in one array that it grows by
// a few dozen at a time, which under AddressSanitizer (every growth a copy)
// made a text object of 300,000 glyphs take minutes.
inline std::string lmGeneratedLines(int64_t count, const std::string& text, double size = 1,
                                    double step = 0.04) {
  const std::string line = "0 -" + std::to_string(step) + " Td (" + text + ") Tj\n";
  std::string content;
  content.reserve((line.size() + 1) * static_cast<size_t>(count) + 3);
  for (int64_t i = 0; i < count; ++i) {
    if (i % 100 == 0) {
      if (i > 0) content += "ET\n";
      content += "BT /F1 " + std::to_string(size) + " Tf 1 0 0 1 20 " +
                 std::to_string(830 - static_cast<double>(i) * step) + " Tm\n";
    }
    content += line;
  }
  return content + (count > 0 ? "ET" : "BT ET");
}

// A PDF of `objects` (object n at index n - 1, the catalog first) with a
// correct cross-reference table.
inline std::string lmPdfWithObjects(const std::vector<std::string>& objects) {
  std::string pdf = "%PDF-1.7\n";
  std::vector<size_t> offsets;
  for (size_t i = 0; i < objects.size(); ++i) {
    offsets.push_back(pdf.size());
    pdf += std::to_string(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
  }
  const size_t xref = pdf.size();
  pdf += "xref\n0 " + std::to_string(objects.size() + 1) + "\n0000000000 65535 f \n";
  for (size_t offset : offsets) {
    std::string number = std::to_string(offset);
    pdf += std::string(10 - number.size(), '0') + number + " 00000 n \n";
  }
  return pdf + "trailer\n<</Size " + std::to_string(objects.size() + 1) +
         "/Root 1 0 R>>\nstartxref\n" + std::to_string(xref) + "\n%%EOF\n";
}

// A PDF with one page per entry of `contents`; with `sharedPages` > 0, one
// page content (the first) that `sharedPages` pages all refer to.
inline LMData lmGeneratedPdf(const std::vector<std::string>& contents, int64_t sharedPages = 0) {
  std::vector<std::string> objects = {"<</Type/Catalog/Pages 2 0 R>>", "",
                                      "<</Type/Font/Subtype/Type1/BaseFont/Helvetica"
                                      "/Encoding/WinAnsiEncoding>>"};
  auto stream = [&](const std::string& content) {
    objects.push_back("<</Length " + std::to_string(content.size()) + ">>stream\n" + content +
                      "\nendstream");
    return objects.size();
  };
  auto page = [&](size_t content) {
    objects.push_back("<</Type/Page/Parent 2 0 R/MediaBox[0 0 595 842]/Contents " +
                      std::to_string(content) + " 0 R/Resources<</Font<</F1 3 0 R>>>>>>");
    return objects.size();
  };
  std::string kids;
  int64_t count = 0;
  if (sharedPages > 0) {
    const size_t content = stream(contents.empty() ? std::string() : contents.front());
    for (; count < sharedPages; ++count) kids += std::to_string(page(content)) + " 0 R ";
  } else {
    for (const std::string& c : contents) {
      kids += std::to_string(page(stream(c))) + " 0 R ";
      ++count;
    }
  }
  objects[1] = "<</Type/Pages/Count " + std::to_string(count) + "/Kids[" + kids + "]>>";

  const std::string pdf = lmPdfWithObjects(objects);
  return LMData(pdf.begin(), pdf.end());
}

// `pdf` with its first `from` replaced by `to` of the same length, so that
// the cross-reference table stays right: a damaged object.
inline LMData lmDamaged(LMData pdf, std::string_view from, std::string_view to) {
  const auto at = std::search(pdf.begin(), pdf.end(), from.begin(), from.end());
  if (at != pdf.end() && from.size() == to.size()) std::copy(to.begin(), to.end(), at);
  return pdf;
}
