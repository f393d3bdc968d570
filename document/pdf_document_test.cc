#include "document/pdf_document.h"

#include <gtest/gtest.h>

#include "document/fake_pdf_source_test_util.h"
#include "kit/unicode.h"

namespace {

TEST(PDFDocumentTest, RecognisesOCRProgramsFromCreatorThenProducer) {
  struct Case {
    std::optional<std::u16string> creator, producer;
    bool ocr;
  } cases[] = {
      {u"kelvara/2.1 (OCR)", std::nullopt, true},
      {u"Kelvara/2.1", std::nullopt, false},
      {u"Kelvara 2.1 (OCR)", std::nullopt, false},  // the slash belongs to the mark
      {u"ABBYY FineReader 15", std::nullopt, true},
      {u"Canon iR-ADV", std::nullopt, true},
      {u"Scanned by Canon", std::nullopt, false},  // anchored at the start
      {u"Microsoft Word", u"Adobe Acrobat 9.0 Paper Capture Plug-in", true},
      {u"", u"adobe acrobat 11 paper capture plug-in", true},
      // A version between the two parts is required.
      {u"Microsoft Word", u"Adobe Acrobat Paper Capture Plug-in", false},
      {u"Adobe Acrobat 9.0 Paper Capture Plug-in", std::nullopt, false},  // not as creator
      {u"Microsoft Word", u"ABBYY FineReader", false},                    // not as producer
      {std::nullopt, std::nullopt, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.creator.value_or(u"<none>")) + " / " +
                 lmUtf8(c.producer.value_or(u"<none>")));
    auto file = std::make_shared<LMFakePdfSource>();
    file->creator_ = c.creator;
    file->producer_ = c.producer;
    EXPECT_EQ(c.ocr, LMPDFDocument(file).isOCRDocument());
  }
}

}  // namespace
