#include "analysis/element_collection.h"

#include <algorithm>
#include <map>

#include "document/pdf_document.h"
#include "document/pdf_page.h"
#include "document/receipt_document.h"
#include "document/text_normalization.h"
#include "kit/strings.h"
#include "kit/unicode.h"
#include "recognizers/amount_recognizer.h"
#include "recognizers/bank_recognizer.h"
#include "recognizers/currency_recognizer.h"
#include "recognizers/data_detector.h"
#include "recognizers/date_recognizer.h"
#include "recognizers/term_recognizer.h"

namespace {

bool isWebLink(const std::u16string& lowered) {
  return lowered.starts_with(u"http:") || lowered.starts_with(u"https:") ||
         lowered.starts_with(u"www.");
}

// What every element of one page shares.
struct PageContext {
  LMReceiptDocument* doc;
  const LMPdfSourcePage* pdfPage;
  int64_t index;
  const std::u16string* normalized;
  LMRect pageBox;
  bool ocr;
  bool letter;
  bool landscape;

  void setUp(LMFoundElement& e, LMTextRange range) const {
    std::optional<LMPdfFont> font;
    if (pdfPage) font = pdfPage->fontAtIndex(range.location);
    if (range.fitsIn(normalized->size())) {
      e.setString(normalized->substr(range.location, range.length));
    }
    e.setOcr(ocr);
    e.setLetter(letter);
    e.setLandscape(landscape);
    e.setPage(index);
    e.setBbox(doc->boundsForTextRange(range, index));
    e.setRange(range);
    // Nothing assigns a font weight, so no element is ever bold.
    e.setBold(e.weightOfFont() > 7);
    e.setFontSize(font ? font->size : 0);
    e.setPageBox(pageBox);
  }
};

// The character ranges of the dates collected so far, over all pages, for
// the overlap test of amounts; answers in logarithmic time however many
// ranges share their positions.
class DateRanges {
 public:
  void add(LMTextRange r) {
    if (r.length == 0) return;
    // Only the ranges whose end no range starting at or before them reaches
    // are kept, so that the kept ends grow with the starts.
    auto next = ends_.upper_bound(r.location);
    if (next != ends_.begin() && std::prev(next)->second >= r.end()) return;
    while (next != ends_.end() && next->second <= r.end()) next = ends_.erase(next);
    ends_[r.location] = r.end();
  }
  // Whether a range starting before r's end ends after r's start.
  bool overlaps(LMTextRange r) const {
    if (r.length == 0) return false;
    auto last = ends_.lower_bound(r.end());
    return last != ends_.begin() && std::prev(last)->second > r.location;
  }

 private:
  std::map<uint64_t, uint64_t> ends_;  // location -> end, both growing
};

// Counts the found elements of the page in progress and of the document
// against their bounds.
class ElementCount {
 public:
  explicit ElementCount(const LMAnalysisLimits& limits) : limits_(limits) {}

  void startPage(int64_t index) {
    page_ = index;
    onPage_ = 0;
  }
  // False, with the bound's message kept, when one more element goes beyond
  // a bound.
  bool take() {
    if (!exceeded_.empty()) return false;
    if (++onPage_ > limits_.maxPageElements) {
      exceeded_ = lmLimitMessage(limits_.maxPageElements,
                                 u"found elements on page " + lmUtf16(std::to_string(page_ + 1)));
    } else if (++total_ > limits_.maxDocumentElements) {
      exceeded_ = lmLimitMessage(limits_.maxDocumentElements, u"found elements in the document");
    }
    return exceeded_.empty();
  }
  const std::u16string& exceeded() const { return exceeded_; }

 private:
  const LMAnalysisLimits& limits_;
  int64_t page_ = 0;
  int64_t onPage_ = 0;
  int64_t total_ = 0;
  std::u16string exceeded_;
};

std::u16string matchedText(std::u16string_view text, LMTextRange range) {
  if (!range.fitsIn(text.size())) return std::u16string();
  return std::u16string(text.substr(range.location, range.length));
}

}  // namespace

std::u16string lmAnalysisStopReason(const LMCancellation* cancellation,
                                    const LMReceiptDocument* doc) {
  if (lmIsCancelled(cancellation)) {
    std::u16string message = cancellation->message();
    return message.empty() ? u"Cancelled" : message;
  }
  if (doc && doc->pdfDoc()) return doc->pdfDoc()->limitExceeded().value_or(u"");
  return std::u16string();
}

LMCollectedElements lmCollectElements(LMReceiptDocument& doc, bool ocr,
                                      const LMAnalysisLimits& limits,
                                      const LMCancellation* cancellation) {
  LMCollectedElements out;
  DateRanges dateRanges;
  ElementCount count(limits);

  const int64_t pageCount = doc.pageCount();
  // Between the recognizers: the bounds and the call's cancellation.
  auto stop = [&] {
    if (out.stopReason.empty()) out.stopReason = count.exceeded();
    if (out.stopReason.empty()) out.stopReason = lmAnalysisStopReason(cancellation, &doc);
    return !out.stopReason.empty();
  };
  for (int64_t i = 0; i < pageCount && !stop(); ++i) {
    std::shared_ptr<const LMPdfSourcePage> pdfPage = doc.pdfDoc()->pageAtIndex(i);
    const LMPDFPage page(pdfPage, i);
    out.text.append(page.string());

    // The adapter's page text itself, not the document's copy of it, so that
    // only the page in progress is held.
    const LMAttributedString* attributed = pdfPage ? &pdfPage->attributedString() : nullptr;
    if (!attributed || attributed->length() == 0) continue;
    count.startPage(i);
    if (page.isLetter()) out.letter = true;
    if (page.isLandscape()) out.landscape = true;

    const std::u16string normalized = LMPDFPage::normalizePDFString(attributed->string);
    const PageContext context{&doc, pdfPage.get(), i,   &normalized, pdfPage->mediaBox(),
                              ocr,  page.isLetter(), page.isLandscape()};

    LMReceiptParserCurrency currencies;
    currencies.findInText(
        normalized, ocr, [&](std::u16string_view, LMTextRange range, const std::u16string* code) {
          if (!count.take()) return;
          auto e = std::make_shared<LMFoundElement>();
          if (code) e->setKey(*code);
          context.setUp(*e, range);
          out.currencyFindings.push_back(e);
        });
    // The last page with text decides, also when it names no currency.
    out.currency = currencies.currencyCode() ? LMValue(*currencies.currencyCode()) : LMValue();

    auto termBlock = [&](LMFoundTerms& into) {
      return [&context, &into, &count](std::u16string_view, LMTextRange range,
                                       const LMDictionary& info) {
        if (!count.take()) return;
        auto t = std::make_shared<LMFoundTerm>();
        t->setKey(info.at(u"key").toString());
        t->setTermInfo(LMValue(info));
        context.setUp(*t, range);
        into.push_back(t);
      };
    };
    LMReceiptParserTerm().findInText(normalized, ocr, termBlock(out.grossTerms));
    LMReceiptParserTerm().findTaxTermsInText(normalized, ocr, termBlock(out.taxTerms));
    if (stop()) break;

    std::u16string dateText = normalized;
    if (ocr) {
      normalizeLike(dateText, u"'");
      normalizeLike(dateText, u"-");
      normalizeLike(dateText, u".");
    }
    LMReceiptParserDate().findDatesInText(
        dateText, [&](std::u16string_view text, LMTextRange range, const LMDate& date) {
          if (!count.take()) return;
          auto d = std::make_shared<LMFoundDate>();
          d->setDate(date);
          d->setDateString(matchedText(text, range));
          context.setUp(*d, range);
          dateRanges.add(range);
          out.dates.push_back(d);
        });

    if (stop()) break;

    LMArray banks;
    for (LMDictionary& finding : LMReceiptParserBank().findBankInfoInText(normalized)) {
      banks.emplace_back(std::move(finding));
    }
    out.banks = LMValue(std::move(banks));

    if (pdfPage) {
      for (const LMPdfLink& link : pdfPage->links()) {
        std::u16string lowered = lmLower(link.url);
        if (isWebLink(lowered)) out.links.push_back(std::move(lowered));
      }
    }

    // The detector's dates are a fallback for documents in which the date
    // recognizer found nothing so far.
    const bool noDatesYet = out.dates.empty();
    for (const LMDetectedItem& item : LMDataDetector().findInText(normalized)) {
      switch (item.type) {
        case LMDetectedType::kDate:
          if (noDatesYet && item.date && count.take()) {
            auto d = std::make_shared<LMFoundDate>();
            d->setDate(item.date);
            d->setDateString(matchedText(normalized, item.range));
            context.setUp(*d, item.range);
            dateRanges.add(item.range);
            out.dates.push_back(d);
          }
          break;
        case LMDetectedType::kLink: {
          std::u16string lowered = lmLower(matchedText(normalized, item.range));
          if (isWebLink(lowered)) out.links.push_back(std::move(lowered));
          break;
        }
        case LMDetectedType::kAddress: {
          std::u16string description = LMValue(item.addressComponents).description();
          if (!out.address) out.address = description;
          out.addresses.push_back(std::move(description));
          break;
        }
      }
    }

    if (stop()) break;

    std::u16string amountText = normalized;
    if (ocr) {
      normalizeLike(amountText, u"'");
      normalizeLike(amountText, u"-");
    }
    LMReceiptParserAmount().findAmountInText(
        amountText, [&](std::u16string_view text, LMTextRange range, int64_t amount,
                        int64_t places, const std::u16string*, const LMDictionary& info) {
          // Kept as it is: the overlap test compares character ranges only,
          // so a date on another page at the same positions hides an amount.
          if (dateRanges.overlaps(range) || !count.take()) return;
          auto n = std::make_shared<LMFoundNumber>(amount, static_cast<uint64_t>(places));
          n->setNumberString(matchedText(text, range));
          n->setFeatures(info);
          context.setUp(*n, range);
          // Only numbers carry their diagnostic notes into the result, so
          // only they keep them.
          n->keepDebugInfo();
          out.numbers.push_back(n);
        });
  }
  // The amounts of the last page can be the ones that cross a bound.
  if (out.stopReason.empty()) out.stopReason = count.exceeded();

  return out;
}
