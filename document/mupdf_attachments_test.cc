// Embedded files through the PDF adapter, on PDFs written here: the /AF
// array, the EmbeddedFiles name tree and file-attachment annotations, the
// size bounds, and the e-invoice chosen among them.
#include <zlib.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "document/generated_pdf_test_util.h"
#include "document/pdf_source.h"
#include "einvoice/attachment_selection.h"
#include "einvoice/einvoice_test_util.h"
#include "kit/unicode.h"

namespace {

using lmtest::testFile;

std::string deflated(const std::string& data) {
  uLongf size = compressBound(data.size());
  std::string out(size, '\0');
  compress2(reinterpret_cast<Bytef*>(out.data()), &size,
            reinterpret_cast<const Bytef*>(data.data()), data.size(), 9);
  out.resize(size);
  return out;
}

// A one-page PDF with embedded files.
class PdfWithFiles {
 public:
  struct File {
    std::string name;
    std::string contents;
    std::string mime;          // "" for none
    std::string relationship;  // "" for none
    bool inTree = true, inAF = false, inAnnotation = false, compressed = false;
    bool damaged = false;  // marked as compressed but not
  };

  static std::string make(const std::vector<File>& files) {
    PdfWithFiles pdf;
    std::string tree, af, annots;
    for (const File& f : files) {
      const std::string data = f.compressed ? deflated(f.contents) : f.contents;
      std::string dict = "<< /Type /EmbeddedFile /Length " + std::to_string(data.size());
      if (!f.mime.empty()) dict += " /Subtype /" + f.mime;
      if (f.compressed || f.damaged) dict += " /Filter /FlateDecode";
      const int stream = pdf.add(dict + " >>\nstream\n" + data + "\nendstream");
      std::string entry = "<< /F (" + f.name + ") /UF (" + f.name +
                          ") /EF << /F " + ref(stream) + " >>";
      if (!f.relationship.empty()) entry += " /AFRelationship /" + f.relationship;
      const int fs = pdf.add(entry + " >>");
      if (f.inTree) tree += "(" + f.name + ") " + ref(fs) + " ";
      if (f.inAF) af += ref(fs) + " ";
      if (f.inAnnotation) {
        annots += ref(pdf.add("<< /Type /Annot /Subtype /FileAttachment /Rect [10 10 30 30] /FS " +
                              ref(fs) + " >>")) + " ";
      }
    }
    const int page = pdf.add("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Annots [" +
                             annots + "] >>");
    pdf.set(2, "<< /Type /Pages /Kids [" + ref(page) + "] /Count 1 >>");
    pdf.set(1, "<< /Type /Catalog /Pages 2 0 R /Names << /EmbeddedFiles << /Names [" + tree +
                   "] >> >> /AF [" + af + "] >>");
    return pdf.serialize();
  }

 private:
  PdfWithFiles() : objects_(2) {}
  static std::string ref(int n) { return std::to_string(n) + " 0 R"; }
  int add(std::string body) {
    objects_.push_back(std::move(body));
    return static_cast<int>(objects_.size());
  }
  void set(int n, std::string body) { objects_[n - 1] = std::move(body); }
  std::string serialize() const { return lmPdfWithObjects(objects_); }
  std::vector<std::string> objects_;
};

std::vector<LMPdfAttachment> attachmentsOf(const std::string& pdf) {
  auto file = lmOpenPdfSource({reinterpret_cast<const uint8_t*>(pdf.data()), pdf.size()});
  EXPECT_TRUE(file);
  return file ? file->attachments() : std::vector<LMPdfAttachment>();
}

LMEInvoiceSelection select(const std::vector<LMPdfAttachment>& attachments) {
  std::vector<LMEInvoiceCandidate> candidates;
  for (const LMPdfAttachment& a : attachments) {
    candidates.push_back({a.name, a.mimeType, a.relationship, a.inAF, a.bytes});
  }
  return lmSelectEInvoice(candidates);
}

std::string bytes(const LMPdfAttachment& a) { return std::string(a.bytes.begin(), a.bytes.end()); }

TEST(PdfAttachmentsTest, ListsEachPlaceOnceWithNameTypeAndRelationship) {
  const std::string minimum = testFile("cii-minimum.xml");
  const std::string allowances = testFile("cii-allowances.xml");
  const std::string pdf = PdfWithFiles::make({
      {"first.xml", minimum, "text#2Fxml", "", true, false, false, false},
      {"factur-x.xml", allowances, "text#2Fxml", "Alternative", true, true, false, true},
      {"note.txt", "a note", "text#2Fplain", "", false, false, true, true},
      {"scan.pdf", "%PDF-1.4 not opened", "application#2Fpdf", "Supplement", false, true, false,
       false},
  });
  std::vector<LMPdfAttachment> list = attachmentsOf(pdf);
  ASSERT_EQ(4u, list.size());
  struct Expected {
    const char16_t *name, *mime, *relationship;
    bool inAF;
    std::string contents;
  } expected[] = {
      {u"factur-x.xml", u"text/xml", u"Alternative", true, allowances},
      {u"scan.pdf", u"application/pdf", u"Supplement", true, "%PDF-1.4 not opened"},
      {u"first.xml", u"text/xml", u"", false, minimum},
      {u"note.txt", u"text/plain", u"", false, "a note"},
  };
  for (size_t i = 0; i < list.size(); ++i) {
    SCOPED_TRACE(lmUtf8(expected[i].name));
    EXPECT_EQ(expected[i].name, list[i].name);
    EXPECT_EQ(expected[i].mime, list[i].mimeType);
    EXPECT_EQ(expected[i].relationship, list[i].relationship);
    EXPECT_EQ(expected[i].inAF, list[i].inAF);
    EXPECT_EQ(expected[i].contents, bytes(list[i]));
    EXPECT_EQ(u"", list[i].failure);
  }
  // The file the /AF names wins over the one listed first; both count.
  LMEInvoiceSelection selection = select(list);
  ASSERT_EQ(0u, selection.index);
  EXPECT_EQ(2u, selection.count);
  EXPECT_EQ("273.65", selection.reading.invoice->gross->value.stringValue());
}

TEST(PdfAttachmentsTest, ChoosesTheFirstWithoutAnAFAndSaysWhyItIsUnusable) {
  struct Case {
    const char* name;
    std::vector<PdfWithFiles::File> files;
    int index;  // -1: none
    size_t count;
    const char* failure;
  } cases[] = {
      {"first recognised", {{"a.txt", "hello", "text#2Fplain", "", true},
                            {"b.xml", testFile("ubl-invoice.xml"), "", "", true},
                            {"c.xml", testFile("ubl-creditnote.xml"), "", "Data", true}},
       1, 2, ""},
      {"an /AF Data file that is not an invoice does not win",
       {{"data.xml", "<list/>", "text#2Fxml", "Data", true, true},
        {"x.xml", testFile("cii-exempt.xml"), "text#2Fxml", "", true}},
       1, 1, ""},
      {"declared XML that is not", {{"factur-x.xml", "garbage", "text#2Fxml", "Alternative", true, true}},
       0, 0, "not XML"},
      {"unsupported draft", {{"invoice.xml", testFile("hostile-draft-namespace.xml"), "", "", true}},
       0, 0, "unsupported syntax"},
      {"no invoice at all", {{"logo.png", "\x89PNG", "image#2Fpng", "", true}}, -1, 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LMEInvoiceSelection s = select(attachmentsOf(PdfWithFiles::make(c.files)));
    EXPECT_EQ(c.index, s.index ? static_cast<int>(*s.index) : -1);
    EXPECT_EQ(c.count, s.count);
    EXPECT_EQ(c.failure, lmUtf8(s.reading.failure).substr(0, std::string(c.failure).size()));
  }
}

TEST(PdfAttachmentsTest, BoundsEachFileAndAllTogether) {
  // 17 MB of zeros deflate to a few kilobytes; reading stops at the bound.
  const std::string big(kLMPdfAttachmentMaxBytes + 1, '\0');
  const std::string justUnder(kLMPdfAttachmentMaxBytes - 1000, '\0');
  std::vector<PdfWithFiles::File> files = {
      {"bomb.xml", big, "text#2Fxml", "", true, false, false, true},
      {"small.xml", "<a/>", "", "", true, false, false, true},
  };
  for (int i = 0; i < 5; ++i) {
    files.push_back({"part" + std::to_string(i), justUnder, "", "", true, false, false, true});
  }
  std::vector<LMPdfAttachment> list = attachmentsOf(PdfWithFiles::make(files));
  ASSERT_EQ(7u, list.size());
  EXPECT_EQ(u"over the size limit", list[0].failure);
  EXPECT_TRUE(list[0].bytes.empty());
  EXPECT_EQ("<a/>", bytes(list[1]));
  for (size_t i = 2; i < 6; ++i) EXPECT_EQ(justUnder.size(), list[i].bytes.size()) << i;
  EXPECT_EQ(u"over the size limit of all attachments", list[6].failure);
  EXPECT_TRUE(list[6].bytes.empty());
}

TEST(PdfAttachmentsTest, BrokenOrAbsentFilesAreSkippedOrSaySo) {
  // Damaged compressed data, and a PDF without any embedded file.
  std::vector<LMPdfAttachment> list = attachmentsOf(PdfWithFiles::make(
      {{"broken.xml", "not deflated", "text#2Fxml", "", true, false, false, false, true}}));
  ASSERT_EQ(1u, list.size());
  EXPECT_EQ(u"broken.xml", list[0].name);
  EXPECT_EQ(u"damaged stream", list[0].failure);
  EXPECT_TRUE(list[0].bytes.empty());
  EXPECT_TRUE(attachmentsOf(PdfWithFiles::make({})).empty());
}

}  // namespace
