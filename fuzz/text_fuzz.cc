// Arbitrary UTF-16 text through every recognizer, the data detector and the
// two normalisations, checking what callers rely on: every reported range
// lies inside the text, and normalisation keeps the length.
#include <cstddef>
#include <cstdint>
#include <string>

#include "document/pdf_page.h"
#include "document/text_normalization.h"
#include "kit/diagnostics.h"
#include "recognizers/amount_recognizer.h"
#include "recognizers/bank_recognizer.h"
#include "recognizers/currency_recognizer.h"
#include "recognizers/data_detector.h"
#include "recognizers/date_recognizer.h"
#include "recognizers/term_recognizer.h"

namespace {

void require(bool condition) {
  if (!condition) __builtin_trap();
}

void requireInside(LMTextRange range, const std::u16string& text) {
  require(range.fitsIn(text.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    lmSetLogSink([](std::string_view) {});
    return true;
  }();
  (void)quiet;
  // The bytes as UTF-16 code units, unpaired surrogates included.
  std::u16string text(size / 2, u'\0');
  for (size_t i = 0; i + 1 < size; i += 2) {
    text[i / 2] = static_cast<char16_t>(data[i] | (data[i + 1] << 8));
  }

  LMReceiptParserAmount().findAmountInText(
      text, [&](std::u16string_view, LMTextRange r, int64_t, int64_t places,
                const std::u16string*, const LMDictionary&) {
        requireInside(r, text);
        require(places >= 0);
      });
  LMReceiptParserCurrency().findInText(
      text, false, [&](std::u16string_view, LMTextRange r, const std::u16string*) {
        requireInside(r, text);
      });
  LMReceiptParserDate().findDatesInText(
      text, [&](std::u16string_view, LMTextRange r, const LMDate&) { requireInside(r, text); });
  auto term = [&](std::u16string_view, LMTextRange r, const LMDictionary&) {
    requireInside(r, text);
  };
  LMReceiptParserTerm().findInText(text, false, term);
  LMReceiptParserTerm().findTaxTermsInText(text, false, term);
  LMReceiptParserBank().findBankInfoInText(
      text, [&](std::u16string_view, LMTextRange r, std::u16string_view, int64_t,
                std::u16string_view, std::u16string_view) { requireInside(r, text); });
  for (const LMDetectedItem& item : LMDataDetector().findInText(text)) {
    requireInside(item.range, text);
  }

  require(LMPDFPage::normalizePDFString(text).size() == text.size());
  for (const char16_t* c : {u"'", u"-", u".", u",", u"0", u" ", u"\""}) {
    std::u16string copy = text;
    normalizeLike(copy, c);
    require(copy.size() == text.size());
  }
  lmTokens(text);
  return 0;
}
